// brelix-plot timecourse: each fitted dipole's moment over the samples.
#pragma once

// argv[0] is "timecourse"; returns the exit status (InputError passes out).
int plot_timecourse(int argc, char **argv);
