// NumPy .npy arrays: two-dimensional, of float32, float64, int16 or int32,
// in either byte order, in C or Fortran order.
#pragma once

#include <cstdio>
#include <string>

#include "recordings/numeric_array.h"

// Read the array in `path`.  Throws InputError naming the file and what is
// wrong: not a .npy file, a header that cannot be parsed, an element type
// other than those above, not two dimensions, or fewer data bytes than the
// shape needs.
NumericArray read_npy(const std::string &path);

// Write `a` to `fp` as a .npy file (version 1.0) of little-endian float32 in
// C order: the precision of brelix's matrix files.
void write_npy(FILE *fp, const NumericArray &a);
