// brelix-plot: pictures of brelix's inputs and results (PNG, SVG or PDF).
#include "cli/subcommand.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
  };
  return run_subcommands("brelix-plot", "Draws topographies, fitted dipoles and head models.", commands, argc, argv);
}
