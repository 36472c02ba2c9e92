// brelix-prep: turns the files users have (head surfaces, electrode
// positions, EEG recordings) into the files brelix reads, and brelix's matrix
// files into formats other tools read.
#include "cli/subcommand.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
  };
  return run_subcommands("brelix-prep", "Prepares head models, electrodes and data for brelix.", commands, argc, argv);
}
