#include "cli/failure.h"

void fail(const std::string &file, const std::string &place, const std::string &what) {
  std::string msg = file;
  if (!place.empty()) msg += ": " + place;
  msg += ": " + what;
  throw InputError(msg);
}

void usage_fail(const std::string &what) { throw InputError(what + " (see --help)"); }
