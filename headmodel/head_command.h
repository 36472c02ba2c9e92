// `brelix-prep head`: surfaces users have, made into a head model brelix reads.
#pragma once

// argv[0] is "head"; returns the exit status (0 done, 2 on bad input, which
// arrives as InputError for the subcommand layer to print).
int prep_head(int argc, char **argv);
