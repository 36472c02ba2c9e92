// brelix-plot head: shaded views of a head model with its electrodes.
#pragma once

// argv[0] is "head"; returns the exit status (InputError passes out).
int plot_head(int argc, char **argv);
