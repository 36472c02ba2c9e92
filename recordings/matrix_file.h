// brelix's matrix files for the companion programs: the row and column
// counts as 32-bit words, the values as 32-bit floats row by row, then a free
// text tail of named items ("sample frequency", then its value on the next
// line).
#pragma once

#include <cstdio>
#include <string>

#include "recordings/numeric_array.h"

// Write `a` and `tail` to `fp` in the machine's byte order, as brelix writes
// its own matrix files (values rounded to single precision).
void write_matrix(FILE *fp, const NumericArray &a, const std::string &tail);

// Read the matrix file `path`, in either byte order or the plain-text form
// brelix also reads.  On output `tail` (when not null) holds the whole text
// after the numbers.  Throws InputError naming the file for counts the file
// cannot hold, values cut short and unreadable numbers.
NumericArray read_matrix(const std::string &path, std::string *tail);

// The tail item giving the sample frequency, in the form brelix reads it.
//   sample_rate: in Hz, or not above 0 when unknown.
std::string sample_frequency_item(double sample_rate);
