// Running a built program with a given standard input, for whole-program and
// dialogue tests.
#pragma once

#include <string>
#include <vector>

struct ProcResult {
  std::string out;  // everything written to standard output
  std::string err;  // everything written to standard error
  int status;       // exit status, or 128 + signal number
};

// Run `exe` with `args` in directory `cwd` (empty: the current one), feeding
// `input` on standard input.  The program is killed after `timeout_s` seconds
// (then status is 128 + SIGKILL).
ProcResult run_process(const std::string &exe, const std::vector<std::string> &args,
                       const std::string &input, const std::string &cwd = "", int timeout_s = 120);

// Path of a probe program built beside the tests.
std::string probe(const std::string &name);
