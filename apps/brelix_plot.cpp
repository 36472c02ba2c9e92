// brelix-plot: pictures of brelix's inputs and results (PNG, SVG or PDF).
#include "cli/subcommand.h"
#include "plotting/dipoles_command.h"
#include "plotting/topomap_command.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
      {"topomap", "measured, model and residual potentials as maps over the head", plot_topomap},
      {"dipoles", "three sections of the head through a fitted dipole", plot_dipoles},
  };
  return run_subcommands("brelix-plot", "Draws topographies, fitted dipoles and head models.", commands, argc, argv);
}
