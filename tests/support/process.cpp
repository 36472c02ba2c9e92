#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/files.h"

namespace {

std::string slurp(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

}  // namespace

ProcResult run_process(const std::string &exe, const std::vector<std::string> &args,
                       const std::string &input, const std::string &cwd, int timeout_s) {
  TempDir io;
  std::string in = io.file("stdin"), out = io.file("stdout"), err = io.file("stderr");
  write_file(in, input);
  pid_t pid = fork();
  if (pid == 0) {
    int fi = open(in.c_str(), O_RDONLY);
    int fo = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int fe = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fi, 0);
    dup2(fo, 1);
    dup2(fe, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(exe.c_str()));
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ProcResult res;
  res.out = slurp(out);
  res.err = slurp(err);
  res.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return res;
}

std::string probe(const std::string &name) { return std::string(PROBE_DIR) + "/" + name; }
