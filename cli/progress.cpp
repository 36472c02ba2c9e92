#include "cli/progress.h"

#include <unistd.h>

#include <cstdio>

namespace {
bool quiet_mode = false;
}

void set_quiet(bool quiet) { quiet_mode = quiet; }
bool is_quiet() { return quiet_mode; }

void note(const std::string &text) {
  if (!quiet_mode) fprintf(stderr, "%s\n", text.c_str());
}

Progress::Progress(std::string what, long total)
    : what_(std::move(what)), total_(total), active_(!quiet_mode && isatty(2)) {}

void Progress::update(long done) {
  if (!active_ || total_ <= 0) return;
  int pct = (int)(100.0 * (double)done / (double)total_);
  if (pct == shown_) return;
  shown_ = pct;
  fprintf(stderr, "\r%s: %3d%%", what_.c_str(), pct);
}

Progress::~Progress() {
  if (active_ && shown_ >= 0) fprintf(stderr, "\r%s: done\n", what_.c_str());
}
