// Helpers for whole-program tests: the fixed texts of a run and reading the
// matrix files it writes.
#pragma once

#include <string>
#include <vector>

#include "tests/support/process.h"

// The banner every run starts with.
extern const char *const BANNER;

// The lines get_geo prints before its first question.
extern const char *const GEO_INTRO;

// Run the built brelix in `cwd` with `args` and `input` on standard input.
ProcResult run_brelix(const std::string &cwd, const std::vector<std::string> &args, const std::string &input);

// A matrix file as read back by the program's own reader.
struct MatrixFile {
  int rows = 0, cols = 0;
  std::vector<float> values;  // row by row
  std::string tail;
  float at(int r, int c) const { return values[(size_t)(r - 1) * cols + (c - 1)]; }
};
bool read_matrix_file(const std::string &path, MatrixFile &out);

// The countdown a loop prints: `format` (with one %5d or %4d) for every
// value n - i (i = first..n) that is a multiple of ten.
std::string countdown(const char *format, int n, int first);
