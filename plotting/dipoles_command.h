// brelix-plot dipoles: three sections of the head through a fitted dipole.
#pragma once

// argv[0] is "dipoles"; returns the exit status (InputError passes out).
int plot_dipoles(int argc, char **argv);
