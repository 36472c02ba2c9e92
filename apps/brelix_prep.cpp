// brelix-prep: turns the files users have (head surfaces, electrode
// positions, EEG recordings) into the files brelix reads, and brelix's matrix
// files into formats other tools read.
#include "cli/subcommand.h"
#include "headmodel/head_command.h"
#include "placement/electrodes_command.h"
#include "recordings/convert_command.h"
#include "recordings/data_command.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
      {"head", "head surfaces into a checked brelix head model", prep_head},
      {"electrodes", "electrode positions or a 10-20 family layout onto the scalp", prep_electrodes},
      {"data", "an EEG recording into brelix's measured data", prep_data},
      {"convert", "brelix matrix files to and from CSV, NumPy and MATLAB", prep_convert},
  };
  return run_subcommands("brelix-prep", "Prepares head models, electrodes and data for brelix.", commands, argc, argv);
}
