// brelix-plot topomap: measured, model and residual potentials as maps.
#pragma once

#include <string>

#include "plotting/topomap.h"

// argv[0] is "topomap"; returns the exit status (InputError passes out).
int plot_topomap(int argc, char **argv);

// The figure that the command line (argv[0] "topomap") asks for, from the
// files it names; `out` receives the output's name.  Throws InputError as
// the command would report it.
Topomap topomap_from_command_line(int argc, char **argv, std::string &out);
