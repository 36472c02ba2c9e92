// brelix-prep: turns the files users have (head surfaces, electrode
// positions, EEG recordings) into the files brelix reads, and brelix's matrix
// files into formats other tools read.
#include "cli/subcommand.h"
#include "recordings/convert_command.h"
#include "recordings/data_command.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
      {"data", "an EEG recording into brelix's measured data", prep_data},
      {"convert", "brelix matrix files to and from CSV, NumPy and MATLAB", prep_convert},
  };
  return run_subcommands("brelix-prep", "Prepares head models, electrodes and data for brelix.", commands, argc, argv);
}
