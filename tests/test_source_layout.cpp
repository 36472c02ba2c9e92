// The parameter layout of the fit for source files of random constraint
// lines: whatever mix of position, orientation and symmetry constraints a
// file holds, an accepted file numbers its linear and nonlinear parameters
// inside the vectors the fit allocates (nlpar and nnpar long), and every
// source counts the linear parameters its orientation kind needs.  Some
// mixes are fatal, so every file is read in a child process, which reports a
// broken layout through its exit status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "tests/support/files.h"

namespace {

constexpr int LAYOUT_BROKEN = 3;

bool layout_ok() {
  int linear = 0, nonlinear = 0;
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    if (s.lindex != linear + 1 || s.nl != (s.ori_stationary ? 1 : 3) ||
        (s.pos_mode != 0 && (s.pindex < 1 || s.pindex + 2 > nnpar)) ||
        (s.ori_stationary && (s.oindex < 1 || s.oindex + 1 > nnpar)))
      return false;
    linear += s.nl, nonlinear += s.nn;
  }
  return linear == nlpar && nonlinear == nnpar;
}

// Exit status of a child reading `contents`: 0 refused or laid out well,
// 1 fatal, LAYOUT_BROKEN.
int read_in_child(const std::string &path, const std::string &contents) {
  write_file(path, contents);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(4);
    int n, c;
    SourceRecord *table;
    if (!init_dip(path.c_str(), &n, &table, &c)) _exit(0);
    nsource = n, source = table, constraint = c;
    get_nn_nl();
    _exit(layout_ok() ? 0 : LAYOUT_BROKEN);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string random_constraint(std::mt19937 &rng, int source) {
  static const char *const position[] = {"position fixed", "position stationary", "p st", "position moving"};
  static const char *const orientation[] = {"orientation free", "orientation stationary", "o st", "o fr"};
  const std::string partner = std::to_string(source % 2 ? source + 1 : source - 1);
  std::string line = std::to_string(source);
  for (int k = 0, parts = 1 + (int)(rng() % 3); k < parts; k++) {
    switch (rng() % 5) {
      case 0: line += std::string(" ") + position[rng() % 4]; break;
      case 1: line += std::string(" ") + orientation[rng() % 4]; break;
      case 2: line += " position symmetric to " + partner; break;
      case 3: line += " orientation symmetric " + partner; break;
      default: line += " symmetric to " + partner; break;
    }
  }
  return line + "\n";
}

// Position-only symmetry with a partner of the other orientation kind: the
// mirrored source takes the partner's kind and needs its own two angles (or
// none), never the counts of the kind it was given itself.
TEST(SourceLayout, MirroredSourceWithOwnOrientationKindStaysInsideTheVectors) {
  TempDir dir;
  for (const char *c : {"2\n1 10 5 3\n2 -10 5 3\n1 p st o st\n2 position symmetric to 1\n",
                        "2\n1 10 5 3\n2 -10 5 3\n1 p st\n2 position symmetric to 1 orientation stationary\n",
                        "2\n1 10 5 3\n2 -10 5 3\n2 position symmetric to 1 orientation stationary\n"})
    EXPECT_EQ(read_in_child(dir.file("s.pos"), c), 0) << c;
}

// Sources mirrored across x = 0 in pairs (1, 2) and (3, 4), so that any
// symmetry between the members of a pair is geometrically possible.
TEST(SourceLayout, RandomConstraintMixesAreRefusedOrLaidOutInside) {
  TempDir dir;
  std::mt19937 rng(20261122);
  int status_count[2] = {0, 0};
  for (int round = 0; round < 300; round++) {
    std::string file = "4\n1 10 5 3\n2 -10 5 3\n3 4 -2 1\n4 -4 -2 1\n";
    for (int k = 0, lines = 1 + (int)(rng() % 4); k < lines; k++) file += random_constraint(rng, 1 + (int)(rng() % 4));
    const int status = read_in_child(dir.file("r.pos"), file);
    ASSERT_TRUE(status == 0 || status == 1) << "status " << status << " for\n" << file;
    status_count[status]++;
  }
  // The mixes exercise both the accepted and the fatal paths.
  EXPECT_GT(status_count[0], 50);
  EXPECT_GT(status_count[1], 10);
}

}  // namespace
