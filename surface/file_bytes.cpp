#include "surface/file_bytes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/failure.h"

std::string read_file_bytes(const std::string &path) {
  FILE *fp = fopen(path.c_str(), "rb");
  if (!fp) fail(path, "", std::string("cannot open: ") + strerror(errno));
  // One allocation of the file's size for ordinary files; pipes and the
  // like grow as they are read.
  std::string data;
  struct stat st;
  if (fstat(fileno(fp), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) data.reserve((size_t)st.st_size);
  char buf[1 << 16];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, fp)) > 0) data.append(buf, n);
  bool bad = ferror(fp);
  int err = errno;
  fclose(fp);
  if (bad) fail(path, "", std::string("cannot read: ") + strerror(err));
  return data;
}
