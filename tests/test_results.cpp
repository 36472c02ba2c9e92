// Result files: the geometry item of the tails, transfer matrices, forward
// potentials and fitted source positions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/forwinv.h"
#include "forwinv/results.h"
#include "forwinv/sources.h"
#include "matrixio/matrix.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"

namespace {

void set_interfaces(std::vector<std::pair<const char *, int>> list) {
  ngeo = (int)list.size();
  for (int i = 0; i < ngeo; i++) {
    snprintf(geo[i].name, NAMELEN, "%s", list[i].first);
    geo[i].npnt = list[i].second;
  }
}

// Answers for the next questions, read from a file on standard input.
void answer(const TempDir &dir, const std::string &text) {
  write_file(dir.file("answers"), text);
  ASSERT_NE(freopen(dir.file("answers").c_str(), "r", stdin), nullptr);
}

std::string tail_of(const std::string &path, int *rows = nullptr, int *cols = nullptr, float **first = nullptr) {
  int R, C, n;
  char *tail;
  float **m = gettailmatrix(path.c_str(), &R, &C, &n, &tail);
  if (!m) return "<unreadable>";
  std::string t(tail ? tail : "", n);
  if (rows) *rows = R;
  if (cols) *cols = C;
  if (first) *first = m[1];
  free(tail);
  return t;
}

TEST(GeometryItem, NamesTheInterfacesWhoseVerticesAreElectrodes) {
  set_interfaces({{"scalp.tri", 642}, {"skull.tri", 642}, {"brain.tri", 1000}});
  std::string t;
  elname[0] = '\0';
  add_geo_info(t);
  EXPECT_EQ(t, "geometry file:\n   1- 642: scalp.tri\n");
  strcpy(elname, "*");
  t = "x\n";
  add_geo_info(t);
  EXPECT_EQ(t, "x\ngeometry files:\n   1- 642: scalp.tri\n 643-1284: skull.tri\n1285-2284: brain.tri\n");
  strcpy(elname, "#");
  t.clear();
  add_geo_info(t);
  EXPECT_EQ(t, "geometry file:\n   1-1000: brain.tri\n");
  strcpy(elname, "electrodes.elc");
  t.clear();
  add_geo_info(t);
  EXPECT_EQ(t, "");
  // All vertices of a single interface: singular header.
  set_interfaces({{"sphere.tri", 42}});
  strcpy(elname, "*");
  t.clear();
  add_geo_info(t);
  EXPECT_EQ(t, "geometry file:\n   1-  42: sphere.tri\n");
  EXPECT_EQ(makename("fit.mat", ".sd"), "fit.mat.sd");
}

TEST(TransferFile, TailHoldsTheModelDescriptionAndSampleFrequency) {
  TempDir dir;
  set_interfaces({{"sphere.tri", 42}});
  elname[0] = '\0';
  float **t = matrix(1, 2, 1, 3);
  t[2][3] = 7;
  write_trans(t, 2, 3, dir.file("t.mat").c_str(), "model\n");
  int R, C;
  EXPECT_EQ(tail_of(dir.file("t.mat"), &R, &C),
            "model\nsample frequency:\narbitrary\ngeometry file:\n   1-  42: sphere.tri\n");
  EXPECT_EQ(R, 2);
  EXPECT_EQ(C, 3);
  // No name: nothing written; no description: the tail starts with the item.
  write_trans(t, 2, 3, "", "model\n");
  strcpy(elname, "e.elc");
  write_trans(t, 2, 3, dir.file("u.mat").c_str(), nullptr);
  EXPECT_EQ(tail_of(dir.file("u.mat")), "sample frequency:\narbitrary\n");
  free_matrix(t, 1, 2, 1, 3);
}

TEST(ForwardFile, AddsTheShiftBackAndRecordsTheSampleFrequency) {
  TempDir dir;
  set_interfaces({{"sphere.tri", 2}});
  elname[0] = '\0';
  float **p = matrix(1, 2, 1, 2);
  p[1][1] = 1;
  p[2][2] = -1;
  shift = vector(1, 2);
  shift[1] = 10;
  shift[2] = 20;
  answer(dir, dir.file("fwd.mat") + "\n");
  testing::internal::CaptureStdout();
  write_forward(p, 2, 2, 500, "potential");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Filename for forward potential data: ");
  EXPECT_EQ(p[1][1], 11);
  EXPECT_EQ(p[2][2], 19);
  float *row;
  EXPECT_EQ(tail_of(dir.file("fwd.mat"), nullptr, nullptr, &row),
            "sample frequency:\n500\ngeometry file:\n   1-   2: sphere.tri\n");
  EXPECT_EQ(row[1], 11);
  EXPECT_EQ(row[2], 20);

  free_vector(shift, 1, 2);
  shift = nullptr;
  strcpy(elname, "e.elc");
  answer(dir, dir.file("unknown.mat") + "\n");
  testing::internal::CaptureStdout();
  write_forward(p, 2, 2, -1, "potential");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(tail_of(dir.file("unknown.mat")), "sample frequency:\nunknown\n");

  // An empty answer writes nothing; the end of input ends the run.
  answer(dir, "\n");
  testing::internal::CaptureStdout();
  write_forward(p, 2, 2, -1, "potential");
  testing::internal::GetCapturedStdout();
  answer(dir, "");
  EXPECT_EXIT(write_forward(p, 2, 2, -1, "potential"), testing::ExitedWithCode(1), "");
  free_matrix(p, 1, 2, 1, 2);
}

SourceRecord record(float x, float y, float z) {
  SourceRecord s{};
  s.x = x;
  s.y = y;
  s.z = z;
  s.sym = -1;
  return s;
}

TEST(PositionFile, IsASourceFileAndHasItsStandardDeviationCompanion) {
  TempDir dir;
  SourceRecord src[3] = {record(0.1f, 0.2f, 0.3f), record(-0.1f, 0.2f, 0.3f), record(0, 0, 0.5f)};
  src[0].pos_mode = 1;
  src[0].ori_stationary = 1;
  src[0].theta = (float)(M_PI / 4);
  src[0].alfa = (float)(-M_PI / 2);
  src[1].pos_symmetric = 1;
  src[1].ori_symmetric = 1;
  src[1].sym = 0;
  src[1].pos_mode = 1;
  src[1].ori_stationary = 1;
  src[2].pos_mode = 0;
  float sd[3][5] = {{0.01f, 0.02f, 0.03f, 0.1f, 0.2f}, {0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}};
  std::string pos = dir.file("fit.pos");
  answer(dir, pos + "\n");
  testing::internal::CaptureStdout();
  write_pos(src, sd, 3, "noise note\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Filename for source position: \nStandard deviation of source "
                                                    "positions saved in file " + pos + ".sd\n");
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

  // Read back as a source position file, it restores the constraints.
  int n = 0, c = -1;
  SourceRecord *back = nullptr;
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(pos.c_str(), &n, &back, &c), 1);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(n, 3);
  EXPECT_EQ(c, 1);
  EXPECT_EQ(back[0].pos_mode, 1u);
  EXPECT_EQ(back[0].ori_stationary, 1u);
  EXPECT_EQ(back[1].pos_symmetric, 1u);
  EXPECT_EQ(back[1].sym, 0);
  EXPECT_EQ(back[2].pos_mode, 0u);
  EXPECT_FLOAT_EQ(back[1].x, -0.1f);
  free(back);
}

TEST(PositionFile, SingleSourceWithoutDeviationsAndUncreatableFiles) {
  TempDir dir;
  SourceRecord one = record(1, 2, 3);
  std::string pos = dir.file("one.pos");
  answer(dir, pos + "\n");
  testing::internal::CaptureStdout();
  write_pos(&one, nullptr, 1, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Filename for source position: ");
  EXPECT_EQ(read_file(pos), "   1\n   1  1.0000  2.0000  3.0000\n   1  position fixed  orientation free\n");
  EXPECT_FALSE(file_exists(pos + ".sd"));

  float sd[1][5] = {};
  answer(dir, pos + "\n");
  testing::internal::CaptureStdout();
  write_pos(&one, sd, 1, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Filename for source position: \nStandard deviation of source position saved in file " + pos + ".sd\n");

  std::string bad = dir.file("no/such/folder.pos");
  answer(dir, bad + "\n");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  write_pos(&one, sd, 1, nullptr);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Error opening file " + bad + "\n\n\a\a");
}

TEST(PositionFile, AFullDiskIsReported) {
  SourceRecord one = record(1, 2, 3);
  TempDir dir;
  answer(dir, "/dev/full\n");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  write_pos(&one, nullptr, 1, nullptr);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Error writing to /dev/full\n\n\a\a");
}

}  // namespace
