// Electrode files as brelix reads them: both forms, labels, refusals with the
// line named, positions on the scalp and the written file read back.
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>

#include "cli/failure.h"
#include "placement/electrode_file.h"
#include "tests/support/files.h"

namespace {

// A unit square of two triangles in the plane z = 1.
Mesh square() { return {{{0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}}, {{0, 1, 2}, {1, 3, 2}}}; }

TEST(ElectrodeFile, ReadsBothFormsAsBrelixDoes) {
  TempDir dir;
  write_file(dir.file("t.elc"), "3\n1 0.25 0.5 !Fz\n2 0 0  !  Cz  \r\n2 0.5 0.5 !ABCDEFGHIJKL\nignored\n");
  auto t = read_electrode_file(dir.file("t.elc"));
  ASSERT_EQ(t.size(), 3u);
  EXPECT_FALSE(t[0].on_vertex);
  EXPECT_EQ(t[0].index, 0);
  EXPECT_DOUBLE_EQ(t[0].u, 0.25);
  EXPECT_DOUBLE_EQ(t[0].v, 0.5);
  EXPECT_EQ(t[0].label, "Fz");
  EXPECT_EQ(t[1].label, "Cz");
  EXPECT_EQ(t[2].label, "ABCDEFGHIJ");  // brelix keeps 10 characters
  const Vec3 p = electrode_position(t[0], square());
  EXPECT_DOUBLE_EQ(p[0], 0.25);
  EXPECT_DOUBLE_EQ(p[1], 0.5);
  EXPECT_DOUBLE_EQ(p[2], 1.0);
  const Vec3 q = electrode_position(t[2], square());  // (1,0)/2 + (1,1)/2... of triangle 1 3 2
  EXPECT_DOUBLE_EQ(q[0], 0.5);
  EXPECT_DOUBLE_EQ(q[1], 1.0);

  // Two numbers on the first electrode line: vertex form, no labels.
  write_file(dir.file("v.elc"), "2\n1 4\n2 1 !x\n");
  auto v = read_electrode_file(dir.file("v.elc"));
  ASSERT_EQ(v.size(), 2u);
  EXPECT_TRUE(v[0].on_vertex && v[1].on_vertex);
  EXPECT_EQ(v[0].index, 3);
  EXPECT_EQ(v[1].label, "E2");
  EXPECT_FALSE(v[1].has_label);
  EXPECT_EQ(electrode_position(v[0], square())[0], 1.0);
}

TEST(ElectrodeFile, RefusesWhatBrelixWouldNotRead) {
  TempDir dir;
  const std::string long_line = "1 0.1 0.1 !" + std::string(150, 'x');
  const struct {
    std::string body, message;
  } cases[] = {
      {"", "line 1: empty file: the number of electrodes is missing"},
      {"two\n1 0 0\n", "line 1: the number of electrodes is missing"},
      {"0\n", "line 1: the number of electrodes must be at least 1, not 0"},
      {"3\n1 0 0\n2 0 0\n", "line 4: the file ends after 2 of its 3 electrodes"},
      {"2\n1 0 0\n2 0\n", "line 3: expected a triangle number and the local coordinates u and v"},
      {"1\n1 nan 0\n", "line 2: u and v must be finite numbers"},
      {"1\n0 0.1 0.1\n", "line 2: triangle numbers count from 1, not 0"},
      {"1\n1 0\n", "line 2: vertex numbers count from 1, not 0"},
      {"1\n1 99999999999\n", "line 2: expected a running number and a vertex number"},
      {"1\n" + long_line + "\n", "line 2: line longer than 158 characters"},
  };
  for (const auto &c : cases) {
    write_file(dir.file("bad.elc"), c.body);
    try {
      read_electrode_file(dir.file("bad.elc"));
      ADD_FAILURE() << "accepted: " << c.body;
    } catch (const InputError &e) {
      EXPECT_EQ(e.what(), dir.file("bad.elc") + ": " + c.message);
    }
  }
  EXPECT_THROW(read_electrode_file(dir.file("missing.elc")), InputError);
}

TEST(ElectrodeFile, PositionsOutsideTheScalpAreRefused) {
  const Mesh m = square();
  for (const ElectrodeEntry &e : {ElectrodeEntry{false, 2, 0, 0, "Oz", true}, ElectrodeEntry{true, 4, 0, 0, "E1", false},
                                  ElectrodeEntry{false, -1, 0, 0, "Pz", true}})
    EXPECT_THROW(electrode_position(e, m), InputError) << e.label;
  Mesh broken = m;
  broken.triangles[0][2] = 7;
  EXPECT_THROW(electrode_position(ElectrodeEntry{false, 0, 0, 0, "Fz", true}, broken), InputError);
}

TEST(ElectrodeFile, WrittenFilesReadBackExactly) {
  TempDir dir;
  const std::vector<ElectrodeEntry> tri = {{false, 1279, 0.123456789, 1.0 / 3, "Fp1", true},
                                           {false, 0, 0, 0, "E2", false}};
  write_electrode_file(dir.file("t.elc"), tri);
  EXPECT_EQ(read_file(dir.file("t.elc")), "2\n1280 0.123456789 0.333333333 !Fp1\n1 0 0\n");
  auto back = read_electrode_file(dir.file("t.elc"));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].index, 1279);
  EXPECT_EQ((float)back[0].u, (float)0.123456789);
  EXPECT_EQ(back[1].label, "E2");
  EXPECT_FALSE(back[1].has_label);

  write_electrode_file(dir.file("v.elc"), {{true, 4, 0, 0, "E1", false}, {true, 0, 0, 0, "E2", false}});
  EXPECT_EQ(read_file(dir.file("v.elc")), "2\n1 5\n2 1\n");

  FILE *sink = tmpfile();
  EXPECT_THROW(write_electrodes(sink, {}), std::invalid_argument);
  EXPECT_THROW(write_electrodes(sink, {tri[0], {true, 1, 0, 0, "E2", false}}), std::invalid_argument);
  EXPECT_THROW(write_electrodes(sink, {{false, 1, 0, 0, "ABCDEFGHIJK", true}}), std::invalid_argument);
  fclose(sink);
}

}  // namespace
