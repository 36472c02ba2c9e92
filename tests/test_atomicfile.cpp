// Files that appear whole or not at all: the old file stays until the new
// one is complete, links are written through, open files in place, and no
// temporary outlives a commit, an abandon or exit().
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "matrixio/atomicfile.h"
#include "tests/support/files.h"

namespace {

namespace fs = std::filesystem;

// Names in `dir`, sorted.
std::vector<std::string> names_in(const std::string &dir) {
  std::vector<std::string> names;
  for (const auto &e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

FILE *open_with(const std::string &path, const std::string &text) {
  FILE *fp = atomic_open(path.c_str());
  if (fp) fputs(text.c_str(), fp);
  return fp;
}

// The target's name is near the longest a folder entry takes: it still gets
// its temporary.
TEST(AtomicFile, OldFileStaysUntilCommitAndKeepsItsPermissions) {
  TempDir dir;
  const std::string name(250, 'n'), target = dir.file(name);
  write_file(target, "old");
  chmod(target.c_str(), 0640);
  for (bool commit : {false, true}) {
    FILE *fp = open_with(target, "new contents");
    ASSERT_NE(fp, nullptr) << strerror(errno);
    EXPECT_EQ(names_in(dir.path()).size(), 2u);  // the temporary beside the target
    EXPECT_EQ(read_file(target), "old");
    if (commit)
      ASSERT_EQ(atomic_commit(fp), 1);
    else
      atomic_abandon(fp);
    EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{name});
    EXPECT_EQ(read_file(target), commit ? "new contents" : "old");
  }
  struct stat st;
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

// A link to an existing file and a dangling relative link: the link stays a
// link, the file it names gets the contents, the temporary is made there.
TEST(AtomicFile, SymbolicLinksAreWrittenThrough) {
  TempDir dir;
  fs::create_directory(dir.file("real"));
  write_file(dir.file("real/a.mat"), "old");
  fs::create_symlink(dir.file("real/a.mat"), dir.file("a.mat"));
  fs::create_symlink("real/b.mat", dir.file("b.mat"));
  for (const char *name : {"a.mat", "b.mat"}) {
    FILE *fp = open_with(dir.file(name), name);
    ASSERT_NE(fp, nullptr) << name;
    EXPECT_EQ(names_in(dir.path()), (std::vector<std::string>{"a.mat", "b.mat", "real"}));
    ASSERT_EQ(atomic_commit(fp), 1) << name;
    EXPECT_TRUE(fs::is_symlink(dir.file(name)));
    EXPECT_EQ(read_file(dir.file(std::string("real/") + name)), name);
  }
  EXPECT_EQ(names_in(dir.file("real")), (std::vector<std::string>{"a.mat", "b.mat"}));
}

// A file its owner made read-only is not replaced (root may write it).
TEST(AtomicFile, AReadOnlyFileStays) {
  if (geteuid() == 0) GTEST_SKIP() << "root may write any file";
  TempDir dir;
  const std::string target = dir.file("kept.mat");
  write_file(target, "kept");
  chmod(target.c_str(), 0444);
  errno = 0;
  EXPECT_EQ(open_with(target, "lost"), nullptr);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"kept.mat"});
  EXPECT_EQ(read_file(target), "kept");
}

// A folder cannot be replaced by a file: the commit fails with the
// system's reason and the folder stays.  (Full disks and missing folders
// are tested through the program.)
TEST(AtomicFile, AFolderIsNotReplaced) {
  TempDir dir;
  fs::create_directory(dir.file("folder"));
  FILE *fp = open_with(dir.file("folder"), "x");
  ASSERT_NE(fp, nullptr);
  EXPECT_EQ(atomic_commit(fp), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"folder"});
}

// An open file named through /proc has no folder entry to rename over: it
// is written in place.  A harness that goes on after a cut-short job gives
// up all open results at once.
TEST(AtomicFile, ProcPathsInPlaceAndAbandonAll) {
  TempDir dir;
  const std::string file = dir.file("open.mat");
  write_file(file, "old");
  const int fd = open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  FILE *fp = open_with("/proc/self/fd/" + std::to_string(fd), "in place");
  ASSERT_NE(fp, nullptr);
  EXPECT_EQ(atomic_commit(fp), 1);
  char seen[16] = {};
  EXPECT_EQ(pread(fd, seen, sizeof seen - 1, 0), 8);
  close(fd);
  EXPECT_STREQ(seen, "in place");  // the open file itself, not a new one
  EXPECT_EQ(read_file(file), "in place");
  ASSERT_NE(open_with(file, "a"), nullptr);
  ASSERT_NE(open_with(dir.file("b.mat"), "b"), nullptr);
  EXPECT_EQ(names_in(dir.path()).size(), 3u);
  atomic_abandon_all();
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"open.mat"});
  EXPECT_EQ(read_file(file), "in place");
}

// A child opens a temporary beside an old file and ends through exit(), as
// a fatal error does: the old file stays, the temporary goes.  (The user's
// signals are tested through the program.)
TEST(AtomicFile, NoTemporaryOutlivesExit) {
  TempDir dir;
  const std::string target = dir.file("head.ama");
  write_file(target, "old");
  EXPECT_EXIT(
      {
        FILE *fp = open_with(target, "half");
        exit(fp && fflush(fp) == 0 ? 3 : 9);
      },
      testing::ExitedWithCode(3), "");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"head.ama"});
  EXPECT_EQ(read_file(target), "old");
}

}  // namespace
