// MATLAB .mat files (version 5 and 7.3), through matio.
#pragma once

#include <cstdio>
#include <string>

#include "recordings/numeric_array.h"

// True when `path` begins like a MATLAB version 5 or 7.3 file (both start
// with the text "MATLAB"); false also when it cannot be read.
bool looks_like_mat_file(const std::string &path);

// Read the real, two-dimensional numeric variable `name` from `path`; with an
// empty `name` the file's only such variable.  Throws InputError naming the
// file for an unreadable file, a missing variable (listing those there are),
// and a variable that is not a real 2-D numeric array.
NumericArray read_mat_variable(const std::string &path, const std::string &name);

// The text of the character variable `name` in `path`, or "" when the file
// holds none by that name.
std::string read_mat_text(const std::string &path, const std::string &name);

// Write `a` as the single-precision variable `name` (and, when `text` is not
// empty, `text` as the character variable `text_name`) into `fp`, as a
// version 5 file, or a version 7.3 (HDF5) file when `v73`.  `near` is the
// output's final name: matio writes only to named files, so the file is made
// beside it first and then copied into `fp`.
void write_mat(FILE *fp, const std::string &near, const NumericArray &a, const std::string &name,
               const std::string &text, const std::string &text_name, bool v73);
