// Result files: the geometry item of the tails, transfer matrices, forward
// potentials and fitted source positions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "forwinv/forwinv.h"
#include "forwinv/results.h"
#include "matrixio/matrix.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"

namespace {

void set_model(std::vector<std::pair<const char *, int>> list, const char *electrodes) {
  ngeo = (int)list.size();
  for (int i = 0; i < ngeo; i++) {
    snprintf(geo[i].name, NAMELEN, "%s", list[i].first);
    geo[i].npnt = list[i].second;
  }
  snprintf(elname, NAMELEN, "%s", electrodes);
}

// Runs `write` with `answer` waiting on standard input; returns what it
// printed on standard output and on standard error.
std::pair<std::string, std::string> answered(const TempDir &dir, const std::string &answer,
                                             const std::function<void()> &write) {
  write_file(dir.file("answers"), answer);
  EXPECT_NE(freopen(dir.file("answers").c_str(), "r", stdin), nullptr);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  write();
  std::string out = testing::internal::GetCapturedStdout();
  return {out, testing::internal::GetCapturedStderr()};
}

// The tail of a matrix file, with its counts and first row.
std::string tail_of(const std::string &path, int *rows = nullptr, int *cols = nullptr, std::vector<float> *row1 = nullptr) {
  int R, C, n;
  char *tail;
  float **m = gettailmatrix(path.c_str(), &R, &C, &n, &tail);
  if (!m) return "<unreadable>";
  std::string t(tail ? tail : "", n);
  if (rows) *rows = R, *cols = C;
  if (row1) row1->assign(m[1] + 1, m[1] + 1 + C);
  free(tail);
  free_matrix(m, 1, R, 1, C);
  return t;
}

TEST(GeometryItem, NamesTheInterfacesWhoseVerticesAreElectrodes) {
  const std::vector<std::pair<const char *, int>> three = {{"scalp.tri", 642}, {"skull.tri", 642}, {"brain.tri", 1000}};
  struct Case {
    std::vector<std::pair<const char *, int>> model;
    const char *elname, *before, *want;
  } cases[] = {
      {three, "", "", "geometry file:\n   1- 642: scalp.tri\n"},
      {three, "*", "x\n", "x\ngeometry files:\n   1- 642: scalp.tri\n 643-1284: skull.tri\n1285-2284: brain.tri\n"},
      {three, "#", "", "geometry file:\n   1-1000: brain.tri\n"},
      {three, "electrodes.elc", "x\n", "x\n"},
      {{{"sphere.tri", 42}}, "*", "", "geometry file:\n   1-  42: sphere.tri\n"},
  };
  for (const Case &c : cases) {
    set_model(c.model, c.elname);
    std::string t = c.before;
    add_geo_info(t);
    EXPECT_EQ(t, c.want) << "electrodes '" << c.elname << "'";
  }
  EXPECT_EQ(makename("fit.mat", ".sd"), "fit.mat.sd");
}

TEST(ResultMatrices, TailsHoldDescriptionSampleFrequencyAndGeometry) {
  TempDir dir;
  set_model({{"sphere.tri", 2}}, "");
  float **t = matrix(1, 2, 1, 3);
  t[1][2] = 7;
  int R = 0, C = 0;
  std::vector<float> row;
  write_trans(t, 2, 3, dir.file("t.mat").c_str(), "model\n");
  EXPECT_EQ(tail_of(dir.file("t.mat"), &R, &C, &row),
            "model\nsample frequency:\narbitrary\ngeometry file:\n   1-   2: sphere.tri\n");
  EXPECT_TRUE(R == 2 && C == 3 && row == std::vector<float>({0, 7, 0})) << R << " x " << C;
  // No name: nothing written; no description: the tail starts with the item.
  EXPECT_EQ(answered(dir, "", [&] { write_trans(t, 2, 3, "", "model\n"); }), std::make_pair(std::string(), std::string()));
  strcpy(elname, "e.elc");
  write_trans(t, 2, 3, dir.file("u.mat").c_str(), nullptr);
  EXPECT_EQ(tail_of(dir.file("u.mat")), "sample frequency:\narbitrary\n");
  free_matrix(t, 1, 2, 1, 3);

  // Forward potentials get the shift of each sample back, in place too.
  set_model({{"sphere.tri", 2}}, "");
  float **p = matrix(1, 2, 1, 2);
  p[1][1] = 1;
  p[2][2] = -1;
  shift = vector(1, 2);
  shift[1] = 10;
  shift[2] = 20;
  auto printed = answered(dir, dir.file("fwd.mat") + "\n", [&] { write_forward(p, 2, 2, 500, "potential"); });
  EXPECT_EQ(printed.first, "Filename for forward potential data: ");
  EXPECT_TRUE(p[1][1] == 11 && p[1][2] == 20 && p[2][1] == 10 && p[2][2] == 19);
  EXPECT_EQ(tail_of(dir.file("fwd.mat"), &R, &C, &row), "sample frequency:\n500\ngeometry file:\n   1-   2: sphere.tri\n");
  EXPECT_EQ(row, std::vector<float>({11, 20}));
  free_vector(shift, 1, 2);
  shift = nullptr;
  strcpy(elname, "e.elc");
  answered(dir, dir.file("unknown.mat") + "\n", [&] { write_forward(p, 2, 2, -1, "potential"); });
  EXPECT_EQ(tail_of(dir.file("unknown.mat"), &R, &C, &row), "sample frequency:\nunknown\n");
  EXPECT_EQ(row, std::vector<float>({11, 20}));  // no shift: unchanged
  // An empty answer writes nothing; the end of input ends the run.
  EXPECT_EQ(answered(dir, "\n", [&] { write_forward(p, 2, 2, -1, "potential"); }),
            std::make_pair(std::string("Filename for forward potential data: "), std::string()));
  answered(dir, "", [] {});
  EXPECT_EXIT(write_forward(p, 2, 2, -1, "potential"), testing::ExitedWithCode(1), "");
  free_matrix(p, 1, 2, 1, 2);
}

SourceRecord record(float x, float y, float z) {
  SourceRecord s{};
  s.x = x, s.y = y, s.z = z;
  s.sym = -1;
  return s;
}

TEST(PositionFile, IsASourceFileWithItsStandardDeviationCompanion) {
  TempDir dir;
  SourceRecord src[3] = {record(0.1f, 0.2f, 0.3f), record(-0.1f, 0.2f, 0.3f), record(0, 0, 0.5f)};
  src[0].pos_mode = src[0].ori_stationary = 1;
  src[0].theta = (float)(M_PI / 4);
  src[0].alfa = (float)(-M_PI / 2);
  src[1].pos_symmetric = src[1].ori_symmetric = src[1].pos_mode = src[1].ori_stationary = 1;
  src[1].sym = 0;
  float sd[3][5] = {{0.01f, 0.02f, 0.03f, 0.1f, 0.2f}};
  std::string pos = dir.file("fit.pos");
  auto printed = answered(dir, pos + "\n", [&] { write_pos(src, sd, 3, "noise note\n"); });
  EXPECT_EQ(printed.first, "Filename for source position: \nStandard deviation of source positions saved in file " +
                               pos + ".sd\n");
  EXPECT_EQ(read_file(pos),
            "   3\n"
            "   1  0.1000  0.2000  0.3000  45.0000 -90.0000\n"
            "   2 -0.1000  0.2000  0.3000   0.0000   0.0000\n"
            "   3  0.0000  0.0000  0.5000\n"
            "   1  position stationar  orientation stationar\n"
            "   2  position symmetric to 1  orientation symmetric to 1\n"
            "   3  position fixed  orientation free\n");
  EXPECT_EQ(read_file(pos + ".sd"),
            "   3\n"
            "   1  0.0100  0.0200  0.0300   5.7296  11.4592\n"
            "   2  0.0000  0.0000  0.0000   0.0000   0.0000\n"
            "   3  0.0000  0.0000  0.0000\n"
            "\nnoise note\n");
}

TEST(PositionFile, SingleSourceAndFailingFiles) {
  TempDir dir;
  SourceRecord one = record(1, 2, 3);
  float sd[1][5] = {};
  std::string pos = dir.file("one.pos"), bad = dir.file("no/such/folder.pos");
  auto printed = answered(dir, pos + "\n", [&] { write_pos(&one, nullptr, 1, nullptr); });
  EXPECT_EQ(printed.first, "Filename for source position: ");
  EXPECT_EQ(read_file(pos), "   1\n   1  1.0000  2.0000  3.0000\n   1  position fixed  orientation free\n");
  EXPECT_FALSE(file_exists(pos + ".sd"));
  printed = answered(dir, pos + "\n", [&] { write_pos(&one, sd, 1, nullptr); });
  EXPECT_EQ(printed.first,
            "Filename for source position: \nStandard deviation of source position saved in file " + pos + ".sd\n");
  printed = answered(dir, bad + "\n", [&] { write_pos(&one, sd, 1, nullptr); });
  EXPECT_EQ(printed.second, "\n Error opening file " + bad + "\n\n\a\a");
  printed = answered(dir, "/dev/full\n", [&] { write_pos(&one, nullptr, 1, nullptr); });
  EXPECT_EQ(printed.second, "\n Error writing to /dev/full\n\n\a\a");
}

}  // namespace
