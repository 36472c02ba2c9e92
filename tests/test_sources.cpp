// The source table: the source position file with its constraint lines and
// the numbering of the fit's parameters, and the angle helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "tests/support/files.h"

namespace {

const std::string TWO = "2\n1 10 5 3\n2 -10 5 3\n";  // a pair mirrored in x = 0

// Reads `contents` as a source file: "refused", or the constraint kind and
// per source "p<position mode>o<stationary orientation> s<partner>
// a<axis>@<plane> n<linear>,<nonlinear> i<lindex>,<pindex>,<oindex>".
// `printed` gets what the reader printed.
std::string table_of(const std::string &contents, std::string *printed = nullptr) {
  TempDir dir;
  write_file(dir.file("s.dip"), contents);
  testing::internal::CaptureStdout();
  const int ok = init_dip(dir.file("s.dip").c_str(), &nsource, &source, &constraint);
  std::string out = testing::internal::GetCapturedStdout();
  for (size_t at; (at = out.find(dir.path() + "/")) != std::string::npos;) out.erase(at, dir.path().size() + 1);
  if (printed) *printed = out;
  if (!ok) return "refused";
  get_nn_nl();
  std::string t = "c" + std::to_string(constraint);
  char one[128];
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    snprintf(one, sizeof one, " | p%do%d s%d a%d@%g n%d,%d i%d,%d,%d", (int)s.pos_mode, (int)s.ori_stationary, s.sym,
             s.sym < 0 ? -1 : s.symaxis, s.sym < 0 ? 0.0f : s.symplane, s.nl, s.nn, s.lindex, s.pindex, s.oindex);
    t += one;
  }
  free(source);
  source = nullptr;
  return t;
}

}  // namespace

TEST(SourceFile, AcceptedFilesAreNumbered) {
  const struct {
    std::string file, table;
  } rows[] = {
      {TWO + "# comment\n\n", "c-1 | p0o0 s-1 a-1@0 n3,0 i1,0,0 | p0o0 s-1 a-1@0 n3,0 i4,0,0"},
      // A later constraint overrides an earlier one; symmetry bits do not
      // count for the kind.
      {TWO + "1 p st p fi\n2 p sy 1\n", "c0 | p0o0 s-1 a-1@0 n3,0 i1,0,0 | p0o0 s0 a0@0 n3,0 i4,0,0"},
      {TWO + "1 p mo\n2 position:moving orientation:free\n", "c2 | p2o0 s-1 a-1@0 n3,3 i1,1,0 | p2o0 s-1 a-1@0 n3,3 i4,4,0"},
      // Stationary/stationary, fixed/free, stationary/free, mirror of 1 in
      // x = 0, fixed/stationary orientation; keywords abbreviated or joined.
      {"5\n1 2 1 1\n2 0 0 5\n3 0 3 0\n4 -2 1 1\n5 1 1 1\n1 pos stat ori stay\r\n3 position=stationary\n4 sy 1\n"
       "5 orientation : stationary\n",
       "c1 | p1o1 s-1 a-1@0 n1,5 i1,1,4 | p0o0 s-1 a-1@0 n3,0 i2,0,0 | p1o0 s-1 a-1@0 n3,3 i5,6,0 | p1o1 s0 a0@0 n1,0 "
       "i8,1,4 | p0o1 s-1 a-1@0 n1,2 i9,0,9"},
      // A mirrored source keeps the counts of its own bits (one strength,
      // two angles) while it takes over the partner's modes.
      {TWO + "1 position stationary\n2 position symmetric to 1 orientation stationary\n",
       "c1 | p1o0 s-1 a-1@0 n3,3 i1,1,0 | p1o0 s0 a0@0 n1,2 i4,1,0"},
      // A mirror in z = 5.5; a written position file reads back.
      {"2\n1 1 2 3\n2 1 2 8\n1 p st o st\n2 sy 1\n", "c1 | p1o1 s-1 a-1@0 n1,5 i1,1,4 | p1o1 s0 a2@5.5 n1,0 i2,1,4"},
      {"   2\n   1  0.1000  0.2000  0.3000  45.0000 -90.0000\n   2 -0.1000  0.2000  0.3000   0.0000   0.0000\n"
       "   1  position stationar  orientation stationar\n   2  position symmetric to 1  orientation symmetric to 1\n",
       "c1 | p1o1 s-1 a-1@0 n1,5 i1,1,4 | p1o1 s0 a0@0 n1,0 i2,1,4"},
  };
  for (const auto &row : rows) EXPECT_EQ(table_of(row.file), row.table) << row.file;
  // Lines for sources that do not exist are reported and skipped.
  std::string printed;
  EXPECT_EQ(table_of("1\n1 0 0 1\n3 p st\n0 p st\n1 o st\n", &printed), "c1 | p0o1 s-1 a-1@0 n1,2 i1,0,1");
  EXPECT_EQ(printed,
            "Constraint description of non-existent source 3 in file s.dip\n"
            "Constraint description of non-existent source 0 in file s.dip\ns.dip defines 1 source \n");
}

// Refused files leave a message and the question is asked again; the
// impossible pairs are fatal.
TEST(SourceFile, RefusedAndFatalFiles) {
  const std::string syntax = "\n Syntax error in constraint description of source 2\n\n\a\a  Correct syntax";
  const struct {
    std::string file, start;
  } refused[] = {
      {"1000000000\n1 0 0 0\n2 0 0 0\n", "\nError reading file s.dip\a\a\n\n"},  // more than the file holds
      {"2\n1 0 0 0\n", "\nError reading file s.dip\a\a\n\n"},
      {"2\n1 0 0 0\n2 0 nan 0\n", "\nError reading file s.dip\a\a\n\n"},
      {TWO + "position fixed\n", "\n Error in constraint description in file s.dip\n\n\a\a"},
      {TWO + "2 sy 3\n", syntax},
      {"1\n1 0 0 1\n1 p mo o st\n", "\n Error in constraint description in s.dip:\n moving dipoles cannot be combined"},
  };
  for (const auto &r : refused) {
    std::string printed;
    EXPECT_EQ(table_of(r.file, &printed), "refused") << r.file;
    EXPECT_EQ(printed.substr(0, r.start.size()), r.start) << r.file;
  }
  const struct {
    std::string file, message;
  } fatal[] = {
      {"2\n1 10 5 3\n2 -10 4 3\n1 p st\n2 sy 1\n", "Symmetric sources must have to equal coordinates"},
      {"2\n1 10 5 3\n2 10 5 3\n1 p st\n2 sy 1\n", "Symmetric sources may not coincide"},
      {TWO + "2 symmetric to 1\n", "Symmetric free oriented sources not allowed"},
      {TWO + "1 p st\n2 p st\n1 sy 2\n2 sy 1\n", "only on of the two sources involved"},
      // Angles the counts hold no place for.
      {TWO + "1 p st o st\n2 p sy 1\n", "Symmetric source 2 cannot take over the stationary orientation of source 1"},
      {TWO + "1 p st o st\n2 p sy 1 o fr\n", "give it orientation stationary or symmetric"},
  };
  for (const auto &f : fatal) EXPECT_EXIT(table_of(f.file), testing::ExitedWithCode(1), f.message);
}

// Random angles: correct_alfa_theta brings them into range keeping the
// direction; trans_alfa_theta mirrors it in axis k % 4 (3: none).
TEST(Angles, CorrectAndMirrorKeepTheDirection) {
  auto dir = [](const float *a) { return std::vector<double>{sin(a[0]) * cos(a[1]), sin(a[0]) * sin(a[1]), cos(a[0])}; };
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> th(-M_PI + 1e-3, 2 * M_PI - 1e-3), al(-M_PI, M_PI);
  for (int k = 0; k < 2000; k++) {
    float a[2] = {(float)th(rng), (float)al(rng)};
    std::vector<double> u = dir(a);
    correct_alfa_theta(a);
    for (int j = 0; j < 3; j++) ASSERT_NEAR(dir(a)[j], u[j], 2e-6);
    ASSERT_TRUE(a[0] >= 0 && a[0] <= (float)M_PI && std::fabs(a[1]) <= (float)M_PI) << a[0] << " " << a[1];
    u = dir(a);
    if (k % 4 < 3) u[k % 4] = -u[k % 4];
    trans_alfa_theta(&a[1], &a[0], k % 4);
    for (int j = 0; j < 3; j++) ASSERT_NEAR(dir(a)[j], u[j], 2e-6) << "axis " << k % 4;
    ASSERT_LE(std::fabs(a[1]), (float)M_PI + 1e-6f);
  }
}
