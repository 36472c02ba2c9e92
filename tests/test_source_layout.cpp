// The parameter layout of the fit for source files of random constraint
// lines: whatever mix of position, orientation and symmetry constraints a
// file holds, an accepted file numbers its linear and nonlinear parameters
// inside the vectors the fit allocates (nlpar and nnpar long), and every
// source counts the linear parameters its orientation kind needs.
//
// Some mixes are fatal (they end the process), so every file is read in a
// child process, which reports a broken layout through its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "tests/support/files.h"

namespace {

constexpr int LAYOUT_BROKEN = 3;

// Checks of one accepted table; returns a description of the first fault.
std::string layout_fault() {
  int linear = 0, nonlinear = 0;
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    std::string who = "source " + std::to_string(i + 1) + ": ";
    if (s.lindex != linear + 1) return who + "linear parameters out of order";
    if (s.nl != (s.ori_stationary ? 1 : 3)) return who + "nl does not match the orientation kind";
    if (s.pos_mode != 0 && (s.pindex < 1 || s.pindex + 2 > nnpar)) return who + "position outside the vector";
    if (s.ori_stationary && (s.oindex < 1 || s.oindex + 1 > nnpar)) return who + "orientation outside the vector";
    linear += s.nl;
    nonlinear += s.nn;
  }
  if (linear != nlpar || nonlinear != nnpar) return "totals differ from the sums";
  return "";
}

struct Outcome {
  int status;         // exit status of the child (LAYOUT_BROKEN: a fault)
  std::string fault;  // what was broken
};

// Read `contents` as a source file in a child: 0 refused or laid out well,
// 1 fatal, LAYOUT_BROKEN with the fault written to a pipe.
Outcome read_in_child(const std::string &path, const std::string &contents) {
  write_file(path, contents);
  int fds[2];
  if (pipe(fds) != 0) return {-1, "pipe"};
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    int n, c;
    SourceRecord *table;
    if (!init_dip(path.c_str(), &n, &table, &c)) _exit(0);
    nsource = n;
    source = table;
    constraint = c;
    get_nn_nl();
    std::string fault = layout_fault();
    if (fault.empty()) _exit(0);
    if (write(fds[1], fault.data(), fault.size()) < 0) _exit(4);
    _exit(LAYOUT_BROKEN);
  }
  close(fds[1]);
  std::string fault;
  char buf[256];
  ssize_t k;
  while ((k = read(fds[0], buf, sizeof buf)) > 0) fault.append(buf, (size_t)k);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), fault};
}

// Sources mirrored across x = 0 in pairs (1, 2) and (3, 4), so that any
// symmetry between the members of a pair is geometrically possible.
const char *const POSITIONS = "4\n1 10 5 3\n2 -10 5 3\n3 4 -2 1\n4 -4 -2 1\n";

std::string random_constraint(std::mt19937 &rng, int source) {
  static const char *const position[] = {"position fixed", "position stationary", "p st", "position moving"};
  static const char *const orientation[] = {"orientation free", "orientation stationary", "o st", "o fr"};
  const int partner = source % 2 ? source + 1 : source - 1;
  std::string line = std::to_string(source);
  int parts = 1 + (int)(rng() % 3);
  for (int k = 0; k < parts; k++) {
    switch (rng() % 5) {
      case 0: line += std::string(" ") + position[rng() % 4]; break;
      case 1: line += std::string(" ") + orientation[rng() % 4]; break;
      case 2: line += " position symmetric to " + std::to_string(partner); break;
      case 3: line += " orientation symmetric " + std::to_string(partner); break;
      default: line += " symmetric to " + std::to_string(partner); break;
    }
  }
  return line + "\n";
}

TEST(SourceLayout, MirroredSourceWithOwnOrientationKindStaysInsideTheVectors) {
  // Position-only symmetry with a partner of the other orientation kind:
  // the mirrored source takes the partner's kind and needs its own two
  // angles (or none), never the counts of the kind it was given itself.
  TempDir dir;
  const std::string cases[] = {
      "2\n1 10 5 3\n2 -10 5 3\n1 p st o st\n2 position symmetric to 1\n",
      "2\n1 10 5 3\n2 -10 5 3\n1 p st\n2 position symmetric to 1 orientation stationary\n",
      "2\n1 10 5 3\n2 -10 5 3\n2 position symmetric to 1 orientation stationary\n",
  };
  for (const std::string &c : cases) {
    SCOPED_TRACE(c);
    Outcome o = read_in_child(dir.file("s.pos"), c);
    EXPECT_EQ(o.status, 0) << o.fault;
  }
}

TEST(SourceLayout, RandomConstraintMixesAreRefusedOrLaidOutInside) {
  TempDir dir;
  std::mt19937 rng(20261122);
  int accepted_or_refused = 0, fatal = 0;
  for (int round = 0; round < 300; round++) {
    std::string file = POSITIONS;
    int lines = 1 + (int)(rng() % 4);
    for (int k = 0; k < lines; k++) file += random_constraint(rng, 1 + (int)(rng() % 4));
    SCOPED_TRACE(file);
    Outcome o = read_in_child(dir.file("r.pos"), file);
    ASSERT_TRUE(o.status == 0 || o.status == 1) << "status " << o.status << ": " << o.fault;
    (o.status == 0 ? accepted_or_refused : fatal)++;
  }
  // The mixes exercise both the accepted and the fatal paths.
  EXPECT_GT(accepted_or_refused, 50);
  EXPECT_GT(fatal, 10);
}

}  // namespace
