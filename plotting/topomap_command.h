// brelix-plot topomap: measured, model and residual potentials as maps.
#pragma once

// argv[0] is "topomap"; returns the exit status (InputError passes out).
int plot_topomap(int argc, char **argv);
