// A two-dimensional array of numbers, the common ground of every format the
// companion programs convert between.
#pragma once

#include <string>
#include <vector>

struct NumericArray {
  long rows = 0, cols = 0;
  std::vector<double> values;  // row by row: values[r * cols + c]

  double at(long r, long c) const { return values[(size_t)(r * cols + c)]; }
};

// The same numbers with rows and columns exchanged.
NumericArray transposed(const NumericArray &a);

// True when the file `path` can be read and begins with `prefix`.
bool file_starts_with(const std::string &path, const std::string &prefix);

// Lower-case file name suffix with its dot (".vhdr"), or "".
std::string lower_suffix(const std::string &path);
