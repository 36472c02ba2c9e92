// The command line and the interactive dialogue of a run.
#pragma once

// Run modes.
enum { MODE_STORE_AMA = 0, MODE_LOADED_AMA = 1, MODE_COMPUTE = 2 };

// Parse the options (choosing the run mode and the bound of the fit), then
// ask every question of the run.  Returns the mode; never returns on a usage
// error, end of input or an empty answer to a file-name question.
int get_input_brelix(int argc, char **argv);

// The command-line part of get_input_brelix: sets bound_func, bound_crit
// and solname (after -i), loads a named inverted A matrix, and returns the
// mode.  Ends the process through print_help on a usage error.
int parse_options(int argc, char **argv);

// Print the usage text on standard output and end the process with status 1.
[[noreturn]] void print_help();
