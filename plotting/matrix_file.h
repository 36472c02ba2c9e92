// brelix matrix files as the pictures need them: the numbers (either byte
// order, or the plain-text form) and the text tail, with every fault of the
// file reported by file, place and what is wrong.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct MatrixFile {
  int rows = 0, cols = 0;
  std::vector<float> values;  // row by row
  std::string tail;           // the text after the numbers

  // Value in row r, column c, both counted from 0.
  float at(int r, int c) const { return values[(size_t)r * cols + c]; }
};

// Read `path`.  Throws InputError for a file that cannot be read, counts
// that are negative or larger than the file holds, values cut short, and
// values that are not finite numbers (NaN and infinity would only make an
// empty picture).
MatrixFile read_matrix_file(const std::string &path);

// The number on the line after the tail line that begins with `item`
// (compared without regard to case), as brelix looks items up; none when the
// item is missing or its value line does not begin with a number.
std::optional<double> tail_number(const std::string &tail, const std::string &item);

// The sample frequency in Hz recorded in the tail, if any.
std::optional<double> sample_frequency(const MatrixFile &m);
