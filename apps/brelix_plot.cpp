// brelix-plot: pictures of brelix's inputs and results (PNG, SVG or PDF).
#include "cli/subcommand.h"
#include "plotting/dipoles_command.h"
#include "plotting/head_command.h"
#include "plotting/timecourse_command.h"
#include "plotting/topomap_command.h"

int main(int argc, char **argv) {
  const std::vector<Subcommand> commands = {
      {"topomap", "measured, model and residual potentials as maps over the head", plot_topomap},
      {"dipoles", "three sections of the head through a fitted dipole", plot_dipoles},
      {"timecourse", "each fitted dipole's moment over time, with its standard deviation", plot_timecourse},
      {"head", "shaded views of the head model with its electrodes", plot_head},
  };
  return run_subcommands("brelix-plot", "Draws topographies, fitted dipoles and head models.", commands, argc, argv);
}
