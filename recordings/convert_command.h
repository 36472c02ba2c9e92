// brelix-prep convert: brelix matrix files to and from CSV, TSV, NumPy and
// MATLAB files.
#pragma once

// The subcommand's entry: argv[0] is "convert", then IN and OUT and the
// options (see its --help).  Returns 0; refusals throw InputError.
int prep_convert(int argc, char **argv);
