#include "cli/output.h"

#include <cerrno>
#include <cstring>

#include "cli/failure.h"
#include "matrixio/atomicfile.h"

namespace {

[[noreturn]] void write_error(const std::string &path, int err) {
  fail(path, "", std::string("cannot write: ") + strerror(err));
}

}  // namespace

void write_file_atomically(const std::string &path, const std::function<void(FILE *)> &body) {
  write_files_atomically({{path, body}});
}

void write_files_atomically(const std::vector<PendingOutput> &outputs) {
  std::vector<FILE *> open;
  auto abandon_all = [&] {
    for (FILE *fp : open) atomic_abandon(fp);
    open.clear();
  };
  try {
    for (const auto &o : outputs) {
      FILE *fp = atomic_open(o.path.c_str());
      if (!fp) write_error(o.path, errno);
      open.push_back(fp);
      o.body(fp);
      if (ferror(fp)) write_error(o.path, EIO);
    }
  } catch (...) {
    abandon_all();
    throw;
  }
  // Flush and sync everything before the first rename, so that a full disk
  // is found while nothing has been replaced yet.
  for (size_t i = 0; i < open.size(); i++)
    if (fflush(open[i]) != 0 || ferror(open[i])) {
      int err = errno ? errno : EIO;
      abandon_all();
      write_error(outputs[i].path, err);
    }
  for (size_t i = 0; i < open.size(); i++) {
    if (!atomic_commit(open[i])) {
      int err = errno;
      open.erase(open.begin(), open.begin() + (long)i + 1);
      abandon_all();
      write_error(outputs[i].path, err);
    }
  }
}
