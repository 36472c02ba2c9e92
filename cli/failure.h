// Refusals of the companion programs.
//
// Every refusal names the file, the place in it and what is wrong, so that a
// user can find the spot; the program then ends with status 2 and leaves no
// output behind.
#pragma once

#include <stdexcept>
#include <string>

// Bad input or a failed write: the message is complete as it stands.
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throw an InputError "FILE: PLACE: WHAT" (an empty place is left out).
[[noreturn]] void fail(const std::string &file, const std::string &place, const std::string &what);

// Throw an InputError for a wrong command line ("WHAT (see --help)").
[[noreturn]] void usage_fail(const std::string &what);
