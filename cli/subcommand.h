// The subcommand layout shared by brelix-prep and brelix-plot.
#pragma once

#include <string>
#include <vector>

struct Subcommand {
  std::string name;
  std::string summary;                  // one line for the program's --help
  int (*run)(int argc, char **argv);    // argv[0] is the subcommand's name
};

// Dispatch argv[1] to its subcommand; --help / -h / no arguments print the
// list.  An InputError thrown by a subcommand is printed as
// "PROGRAM: message" on standard error and ends the program with status 2.
int run_subcommands(const std::string &program, const std::string &about, const std::vector<Subcommand> &commands,
                    int argc, char **argv);

// True when argv holds --help or -h (for a subcommand's own help text).
bool wants_help(int argc, char **argv);
