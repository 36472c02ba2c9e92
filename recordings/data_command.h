// brelix-prep data: an EEG recording into brelix's measured-data matrix file.
#pragma once

// The subcommand's entry: argv[0] is "data", the rest its arguments
// (see its --help).  Returns 0; refusals throw InputError.
int prep_data(int argc, char **argv);
