// Progress of long steps, on standard error when it is a terminal, and the
// --quiet switch for everything but errors.
#pragma once

#include <string>

void set_quiet(bool quiet);
bool is_quiet();

// A note for the user on standard error (nothing when quiet).
void note(const std::string &text);

// "what: 40%" rewritten in place on a terminal; nothing otherwise.
class Progress {
 public:
  Progress(std::string what, long total);
  void update(long done);
  ~Progress();

 private:
  std::string what_;
  long total_;
  int shown_ = -1;
  bool active_;
};
