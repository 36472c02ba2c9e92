// Output files of the companion programs, written whole or not at all.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// Write `path` through `body`, which receives an open binary stream.  The
// bytes go to a temporary file beside `path` that replaces it only when
// complete; if `body` throws, or any write fails, the temporary is removed,
// `path` stays as it was, and an InputError naming the file and the system's
// reason is thrown (body's own exception passes through unchanged).
void write_file_atomically(const std::string &path, const std::function<void(FILE *)> &body);

// Several outputs that must appear together (a head folder, say): each is
// written to its temporary name first, and only when every one is complete
// are they renamed, in order.  Throws as write_file_atomically.  A failure
// while writing or flushing leaves every target as it was; only a rename that
// fails after earlier ones succeeded (a target made read-only meanwhile, say)
// can leave the set half replaced.
struct PendingOutput {
  std::string path;
  std::function<void(FILE *)> body;
};
void write_files_atomically(const std::vector<PendingOutput> &outputs);
