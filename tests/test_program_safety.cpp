// Results are never lost or mixed, through the whole program: a run stopped
// by the user, a full disk, two runs storing to one name.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/program.h"

namespace {

// Entries of `dir` whose names contain `part`; *bytes (when given)
// receives their total size.
int entries_in(const std::string &dir, const std::string &part = ".tmp", uintmax_t *bytes = nullptr) {
  int n = 0;
  if (bytes) *bytes = 0;
  std::error_code gone;  // a temporary may be renamed while it is looked at
  for (const auto &e : std::filesystem::directory_iterator(dir))
    if (e.path().filename().string().find(part) != std::string::npos) {
      n++;
      const uintmax_t size = std::filesystem::file_size(e.path(), gone);
      if (bytes && !gone) *bytes += size;
    }
  return n;
}

// Wait until files of `dir` whose names contain `part` exist and hold at
// least `least` bytes (true), or the process `pid` ends (false, *status set).
bool wait_for_bytes(const std::string &dir, const std::string &part, pid_t pid, int *status, uintmax_t least) {
  uintmax_t bytes = 0;
  while (entries_in(dir, part, &bytes) == 0 || bytes < least) {
    if (waitpid(pid, status, WNOHANG) == pid) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

// Start brelix in `cwd` with `args`, its answers from the file `answers`,
// its output discarded; returns the process id.
pid_t start_brelix(const std::string &cwd, const std::vector<std::string> &args, const std::string &answers) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int in = open(answers.c_str(), O_RDONLY), null = open("/dev/null", O_WRONLY);
  if (in < 0 || null < 0 || chdir(cwd.c_str()) != 0) _exit(127);
  dup2(in, 0), dup2(null, 1), dup2(null, 2);
  std::vector<char *> argv = {const_cast<char *>(BRELIX_EXE)};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  execv(BRELIX_EXE, argv.data());
  _exit(127);
}

// Stopped while the system is built (its file just created) or while the
// matrix is being written: the earlier file stays, no temporary is left.
TEST(Safety, ASignalDuringTheStoreKeepsTheOldFileAndLeavesNoTemporary) {
  TempDir dir, io;
  // Two shells of 642 vertices: the system takes long enough to be stopped
  // before its file is complete, and the matrix (6.6 MB) to be stopped
  // while it is written.
  write_sphere(dir, "in.tri", 3, 0.09), write_sphere(dir, "out.tri", 3, 0.1);
  write_file(io.file("answers"), "in.tri\n0.0125\nout.tri\n1\n\n\n");
  const std::string old(1000, 'x');
  const struct {
    int sig;
    bool writing;  // wait until the temporary holds bytes
  } cases[] = {{SIGTERM, true}, {SIGINT, true}, {SIGHUP, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.sig) + (c.writing ? " while writing" : " while computing"));
    write_file(dir.file("head.ama"), old);
    // The write is short: a run that ends before it was seen is repeated.
    bool stopped = false;
    for (int attempt = 0; attempt < 3 && !stopped; attempt++) {
      const pid_t pid = start_brelix(dir.path(), {"-i", "head.ama"}, io.file("answers"));
      ASSERT_GT(pid, 0);
      int status = 0;
      if (!wait_for_bytes(dir.path(), ".tmp", pid, &status, c.writing ? 1 : 0)) {
        write_file(dir.file("head.ama"), old);
        continue;
      }
      kill(pid, c.sig);
      ASSERT_EQ(waitpid(pid, &status, 0), pid);
      stopped = true;
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.sig) << "status " << status;
    }
    ASSERT_TRUE(stopped) << "three runs ended before they could be stopped";
    EXPECT_EQ(entries_in(dir.path()), 0);
    EXPECT_EQ(read_file(dir.file("head.ama")), old);
  }
}

// Two runs with different models store to one name at once, the first one
// held up in the middle of its write while the second writes all of its
// file: the file is exactly one of the two complete results.
TEST(Safety, TwoRunsStoringToOneNameLeaveOneCompleteFile) {
  TempDir dir, io;
  write_sphere(dir, "s.tri", 3, 0.1);  // 642 vertices: 1.6 MB to store
  const std::string answers[2] = {io.file("first"), io.file("second")};
  write_file(answers[0], "s.tri\n1\n\n\n"), write_file(answers[1], "s.tri\n0.33\n\n\n");
  std::string alone[2];
  for (int k = 0; k < 2; k++) {
    const ProcResult r = run_brelix(dir.path(), {"-i", "alone.ama"}, read_file(answers[k]));
    ASSERT_EQ(r.status, 0) << r.err;
    alone[k] = read_file(dir.file("alone.ama"));
  }
  ASSERT_NE(alone[0], alone[1]);
  int status = 0;
  const pid_t first = start_brelix(dir.path(), {"-i", "shared.ama"}, answers[0]);
  ASSERT_GT(first, 0);
  // Held up in its matrix, past the model description both runs share.
  const bool held = wait_for_bytes(dir.path(), "shared.ama", first, &status, 200000);
  if (held) kill(first, SIGSTOP);
  const pid_t second = start_brelix(dir.path(), {"-i", "shared.ama"}, answers[1]);
  int second_status = 0;
  EXPECT_EQ(waitpid(second, &second_status, 0), second);
  if (held) {
    kill(first, SIGCONT);
    EXPECT_EQ(waitpid(first, &status, 0), first);
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(WIFEXITED(second_status) && WEXITSTATUS(second_status) == 0) << second_status;
  const std::string shared = read_file(dir.file("shared.ama"));
  EXPECT_TRUE(shared == alone[0] || shared == alone[1]) << "a file of " << shared.size() << " bytes that is neither run's";
  EXPECT_EQ(entries_in(dir.path()), 0);
}

// A small file system fills up: the -i job says why, ends with status 1 and
// leaves the earlier file as it was.  Mounting needs root.
TEST(Safety, AFullDiskKeepsTheOldFile) {
  TempDir dir;
  const std::string small = dir.file("small");
  std::filesystem::create_directory(small);
  if (geteuid() != 0 || mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs needs root";
  write_sphere(dir, "s.tri", 2, 0.1);  // 162 vertices: about 110 kB to store
  write_file(small + "/head.ama", "the earlier result");
  const ProcResult r = run_brelix(dir.path(), {"-i", "small/head.ama"}, "s.tri\n1\n\n\n");
  const std::string kept = read_file(small + "/head.ama");
  const int left = entries_in(small);
  umount(small.c_str());
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("\nerror writing to small/head.ama: No space left on device\n\n\a\a"), std::string::npos) << r.out;
  EXPECT_EQ(kept, "the earlier result");
  EXPECT_EQ(left, 0);
}

}  // namespace
