// brelix-prep electrodes as a user runs it: the file it writes makes brelix
// compute what a hand-made triangle electrode file makes it compute; positions
// in another frame come back through the fiducial fit; bad input is refused
// with status 2 and nothing written.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "placement/electrode_file.h"
#include "placement/rigid_fit.h"
#include "placement/vec3.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

constexpr double R = 0.09;
// Electrodes given by hand as triangle and (u, v) of a 162-vertex sphere.
const struct {
  const char *label;
  int triangle;  // counted from 1
  double u, v;
} HAND[] = {{"A", 6, 0.2, 0.3}, {"B", 41, 0.05, 0.9}, {"Cz", 78, 0.6, 0.1}, {"D", 121, 1.0 / 3, 1.0 / 3}, {"E", 300, 0.1, 0.45}};

ProcResult prep(const TempDir &dir, const std::vector<std::string> &args) {
  std::vector<std::string> all = {"electrodes"};
  all.insert(all.end(), args.begin(), args.end());
  return run_process(BRELIX_PREP_EXE, all, "", dir.path());
}

// The hand-made points, 2 mm outside their triangles, in millimetres, moved
// by `move` (digitiser frame), with the fiducials first.
std::string positions_mm(const TriMesh &m, Similarity move = {}) {
  std::string s;
  auto row = [&](const std::string &label, Vec3 p) {
    p = move.apply(1000 * p);
    char buf[160];
    snprintf(buf, sizeof buf, "%s %.10g %.10g %.10g\n", label.c_str(), p[0], p[1], p[2]);
    s += buf;
  };
  row("Nz", {0, R, 0});
  row("LPA", {-R, 0, 0});
  row("RPA", {R, 0, 0});
  for (const auto &h : HAND) {
    const auto &t = m.dhk[(size_t)h.triangle - 1];
    Vec3 c[3];
    for (int k = 0; k < 3; k++) c[k] = {m.pnt[(size_t)t[k]][0], m.pnt[(size_t)t[k]][1], m.pnt[(size_t)t[k]][2]};
    const Vec3 on = (1 - h.u - h.v) * c[0] + h.u * c[1] + h.v * c[2];
    Vec3 n = unit(cross(c[1] - c[0], c[2] - c[0]));
    if (dot(n, on) < 0) n = -1.0 * n;
    row(h.label, on + 0.002 * n);
  }
  return s;
}

// The written file against the hand-made electrodes.
void expect_hand_made(const std::string &path, double tolerance) {
  const auto got = read_electrode_file(path);
  ASSERT_EQ(got.size(), std::size(HAND));
  for (size_t i = 0; i < got.size(); i++) {
    EXPECT_EQ(got[i].label, HAND[i].label);
    EXPECT_EQ(got[i].index + 1, HAND[i].triangle) << HAND[i].label;
    EXPECT_NEAR(got[i].u, HAND[i].u, tolerance) << HAND[i].label;
    EXPECT_NEAR(got[i].v, HAND[i].v, tolerance) << HAND[i].label;
  }
}

TEST(PlacementCommand, WrittenFileGivesBrelixTheHandMadeElectrodes) {
  TempDir dir;
  const TriMesh m = icosphere(2, R);
  write_sphere(dir, "sphere.tri", 2, R);
  write_file(dir.file("cap.sfp"), positions_mm(m));
  const ProcResult r = prep(dir, {"--scalp", "sphere.tri", "cap.sfp", "-o", "made.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("positions: cap.sfp, 5 electrodes, 3 landmarks, units mm (chosen from the extent"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("5 electrodes written to made.elc; moved 2.00 mm on average, at most 2.00 mm"), std::string::npos) << r.out;
  expect_hand_made(dir.file("made.elc"), 1e-5);
  const ProcResult some = prep(dir, {"--scalp", "sphere.tri", "cap.sfp", "-o", "some.elc", "--labels", "E,cz,A",
                                     "--drop", "a", "--quiet"});
  ASSERT_EQ(some.status, 0) << some.err;
  EXPECT_EQ(some.out, "");
  const auto kept = read_electrode_file(dir.file("some.elc"));
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].label + kept[1].label, "ECz");

  std::string hand = "5\n";
  for (const auto &h : HAND) hand += std::to_string(h.triangle) + " " + std::to_string(h.u) + " " + std::to_string(h.v) + " !" + h.label + "\n";
  write_file(dir.file("hand.elc"), hand);
  write_file(dir.file("sources.pos"), "2\n1 0 0 0.03\n2 0.02 -0.01 0.05\n");
  MatrixFile t[2];
  for (int k = 0; k < 2; k++) {
    const std::string elc = k ? "hand.elc" : "made.elc";
    const ProcResult b = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n" + elc + "\nsources.pos\n\nt" + elc + ".mat\n");
    ASSERT_EQ(b.status, 0) << b.err;
    ASSERT_TRUE(read_matrix_file(dir.file("t" + elc + ".mat"), t[k]));
  }
  ASSERT_EQ(t[0].rows, 5);
  ASSERT_EQ(t[0].cols, t[1].cols);
  double size = 0;
  for (float x : t[1].values) size = std::max(size, (double)std::fabs(x));
  for (size_t i = 0; i < t[0].values.size(); i++) EXPECT_NEAR(t[0].values[i], t[1].values[i], 1e-5 * size) << i;
}

TEST(PlacementCommand, FiducialFitBringsAnotherFrameBack) {
  TempDir dir;
  const TriMesh m = icosphere(2, R);
  write_sphere(dir, "sphere.tri", 2, R);
  // The digitiser's frame: turned 30 degrees about z, shifted, in mm.
  Similarity move;
  const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6);
  move.r[0][0] = c, move.r[0][1] = -s, move.r[1][0] = s, move.r[1][1] = c;
  move.t = {12, -40, 7};
  write_file(dir.file("cap.csv"), "label,x,y,z\n" + std::regex_replace(positions_mm(m, move), std::regex(" "), ","));
  write_file(dir.file("head.txt"), "Nz 0 0.09 0\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  ProcResult r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--fiducials", "head.txt", "-o", "fit.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_hand_made(dir.file("fit.elc"), 1e-5);
  EXPECT_NE(r.out.find("rotation 30.000 degrees, scale 1.000000"), std::string::npos) << r.out;

  // The same motion undone by a 4x4 transform acting on millimetres.
  std::string undo;
  for (int i = 0; i < 3; i++) {
    double shift = 0;
    for (int k = 0; k < 3; k++) shift -= move.r[k][i] * move.t[k];
    char row[160];
    snprintf(row, sizeof row, "%.17g %.17g %.17g %.17g\n", move.r[0][i], move.r[1][i], move.r[2][i], shift);
    undo += row;
  }
  write_file(dir.file("undo.txt"), undo + "0 0 0 1\n");
  r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--transform", "undo.txt", "--units", "mm", "-o", "undone.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_hand_made(dir.file("undone.elc"), 1e-5);

  // Directions only, sized and placed by the fit, with electrodes as landmarks.
  write_file(dir.file("cap.loc"), "1 0 0.4 Fpz\n2 -90 0.4 T7\n3 90 0.4 T8\n4 0 0 Cz\n5 180 0.4 Oz\n");
  const double y = R * std::sin(0.4 * M_PI), z = R * std::cos(0.4 * M_PI);
  write_file(dir.file("ten20.txt"), "Fpz 0 " + std::to_string(y) + " " + std::to_string(z) + "\nT7 " +
                                        std::to_string(-y) + " 0 " + std::to_string(z) + "\nT8 " + std::to_string(y) +
                                        " 0 " + std::to_string(z) + "\n");
  r = prep(dir, {"--scalp", "sphere.tri", "cap.loc", "--fiducials", "ten20.txt", "--scale", "--nasion", "Fpz", "--lpa",
                 "T7", "--rpa", "T8", "-o", "loc.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("scale 0.0900"), std::string::npos) << r.out;
  const auto loc = read_electrode_file(dir.file("loc.elc"));
  ASSERT_EQ(loc.size(), 5u);
  EXPECT_EQ(loc[0].label + loc[3].label, "FpzCz");

  // Landmarks on the head 2 mm off: the fit still holds, its residuals say so.
  write_file(dir.file("noisy.txt"), "Nz 0.002 0.09 0\nLPA -0.09 0 -0.002\nRPA 0.09 0.002 0\n");
  r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--fiducials", "noisy.txt", "--icp", "-o", "noisy.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::smatch fit, icp;
  ASSERT_TRUE(std::regex_search(r.out, fit, std::regex("fiducial fit \\(rigid\\): residuals nasion ([0-9.]+) mm, "
                                                       "LPA ([0-9.]+) mm, RPA ([0-9.]+) mm; rms ([0-9.]+) mm")))
      << r.out;
  EXPECT_GT(std::stod(fit[4]), 0.5);
  EXPECT_LT(std::stod(fit[4]), 2.5);
  ASSERT_TRUE(std::regex_search(r.out, icp, std::regex("icp: [0-9]+ rounds, mean distance to the scalp ([0-9.]+) mm -> ([0-9.]+) mm")));
  EXPECT_LE(std::stod(icp[2]), std::stod(icp[1]));
}

TEST(PlacementCommand, BadInputIsRefusedAndNothingWritten) {
  TempDir dir;
  write_sphere(dir, "sphere.tri", 2, R);
  write_file(dir.file("twice.sfp"), "Fz 0 0 90\nCz 0 10 89\nfz 0 -10 89\n");
  write_file(dir.file("far.sfp"), "Fz 0 0 90\nCz 0 0 150\nPz 0 0 -125\n");
  write_file(dir.file("long.sfp"), "Fz 0 0 90\nVeryLongLabel 0 10 89\n");
  write_file(dir.file("nofid.sfp"), "Fz 0 0 90\nLPA -90 0 0\nRPA 90 0 0\n");
  write_file(dir.file("head.txt"), "Nz 0 0.09 0\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  write_file(dir.file("flat.txt"), "Nz 0 0.09 0\nIz 0 0.09 0.001\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"twice.sfp"}, "twice.sfp: line 3: label 'fz' also names the electrode at line 1"},
      {{"far.sfp", "--units", "mm"}, "far.sfp: 2 electrodes farther than 10 mm from the scalp (--max-distance): Cz (60.0 mm), Pz (35.0 mm)"},
      {{"long.sfp"}, "long.sfp: line 2: label 'VeryLongLabel' is longer than the 10 characters brelix keeps"},
      {{"nofid.sfp", "--fiducials", "head.txt"}, "nofid.sfp: no nasion (a label Nz, Nasion, FidNz; other names with --nasion)"},
      // Metres read as millimetres: the landmark sits at the centre, 88 mm
      // from the faces of the 162-vertex sphere.
      {{"nofid.sfp", "--fiducials", "head.txt", "--units", "mm"},
       "head.txt: line 1: Nz is 88 mm from the scalp: are the units (--units) and the frame the head's?"},
      {{"--system", "10-20", "--fiducials", "flat.txt"},
       "flat.txt: the landmarks do not span a head: nasion, inion and the ears must be apart"},
      {{"--system", "10-20"}, "--system needs --fiducials (nasion, inion, LPA and RPA on the scalp) (see --help)"},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {"--scalp", "sphere.tri", "-o", "out.elc"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ProcResult r = prep(dir, args);
    EXPECT_EQ(r.status, 2) << c.message;
    EXPECT_EQ(r.err, "brelix-prep electrodes: " + c.message + "\n");
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(file_exists(dir.file("out.elc"))) << c.message;
  }
}

TEST(PlacementCommand, HelpShowsEveryOptionWithAnExample) {
  TempDir dir;
  const ProcResult r = prep(dir, {"--help"});
  ASSERT_EQ(r.status, 0);
  for (const char *o : {"--scalp", "--output", "--units", "--transform", "--fiducials", "--scale", "--icp", "--nasion",
                        "--lpa", "--rpa", "--inion", "--system", "--labels", "--drop", "--max-distance", "--quiet"})
    EXPECT_NE(r.out.find(o), std::string::npos) << o;
  EXPECT_NE(r.out.find("example:\n  brelix-prep electrodes --scalp head"), std::string::npos);
}

}  // namespace
