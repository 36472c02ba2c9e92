// brelix-plot dipoles: three sections of the head through a fitted dipole.
#pragma once

#include <string>

#include "plotting/dipole_sections.h"

// argv[0] is "dipoles"; returns the exit status (InputError passes out).
int plot_dipoles(int argc, char **argv);

// The figure that the command line (argv[0] "dipoles") asks for, from the
// files it names; `out` receives the output's name.  Throws InputError as
// the command would report it.
DipoleSections sections_from_command_line(int argc, char **argv, std::string &out);
