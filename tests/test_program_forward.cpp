// Whole-program forward jobs: the transcript, the files written, and the
// transfer matrices against the analytic potentials of a sphere.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "tests/support/analytic.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

const double ECC[] = {0.1, 0.3, 0.5, 0.7, 0.8};

// Dipoles on the z axis at the eccentricities above (of radius `inner`).
std::string z_axis_sources(double inner) {
  std::string s = "5\n";
  char line[80];
  for (int k = 0; k < 5; k++) {
    snprintf(line, sizeof line, "%d 0 0 %.6f\n", k + 1, ECC[k] * inner);
    s += line;
  }
  return s;
}

// The part of the transcript from the banner to the transfer-matrix name,
// for one interface whose vertices are the electrodes.
std::string single_sphere_dialogue(int nsources) {
  std::string s = BANNER;
  s += GEO_INTRO;
  s += "\nFilename of interface 1: sphere.tri contains 642 vertices and 1280 triangles\n";
  s += "Conductivity just within sphere.tri: ";
  s += "\nFilename of interface 2: ";
  s += "\nTotal: 1 interface , 642 vertices and 1280 triangles\n";
  s += "\nElectrode file: All vertices of first interface are electrodes\n\n";
  s += "\nSource position file: sources.pos defines " + std::to_string(nsources) + " sources\n";
  s += "\nMeasured potential data: OK, I will then output the transfer matrix\n";
  s += "Filename for transfer matrix: \n";
  return s;
}

std::string located(int nsources, const char *name) {
  std::string s = "\n";
  char line[128];
  for (int k = 1; k <= nsources; k++) {
    snprintf(line, sizeof line, "Source %2d is located within %s\n", k, name);
    s += line;
  }
  return s;
}

// Split the transcript at the condition line, checking that the estimate is
// a plausible number for a well-posed model.
std::string without_condition(const std::string &out) {
  std::smatch m;
  std::regex line("Estimated condition of B: ([0-9.e+]+)\n");
  if (!std::regex_search(out, m, line)) return out;
  double cond = std::stod(m[1]);
  EXPECT_GT(cond, 1.0);
  EXPECT_LT(cond, 1e6);
  return m.prefix().str() + "Estimated condition of B: <cond>\n" + m.suffix().str();
}

// Electrode potentials of column `col` of a transfer matrix whose electrodes
// are the vertices of `mesh`, against the analytic solution.
void expect_close_to_sphere(const MatrixFile &t, int col, const TriMesh &mesh, const std::vector<double> &radii,
                            const std::vector<double> &sigma, const Vec3 &r0, const Vec3 &p, double max_rdm,
                            double mag_lo, double mag_hi) {
  std::vector<double> bem, exact;
  for (int e = 1; e <= t.rows; e++) {
    bem.push_back(t.at(e, col));
    const auto &v = mesh.pnt[e - 1];
    exact.push_back(sphere_potential(radii, sigma, r0, p, {v[0], v[1], v[2]}));
  }
  EXPECT_LT(rdm(bem, exact), max_rdm) << "column " << col;
  double m = mag(bem, exact);
  EXPECT_GT(m, mag_lo) << "column " << col;
  EXPECT_LT(m, mag_hi) << "column " << col;
}

class SingleSphere : public testing::Test {
 protected:
  void SetUp() override {
    mesh = icosphere(3, 1.0);
    ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), mesh, false));
    write_file(dir.file("sources.pos"), z_axis_sources(1.0));
  }
  TempDir dir;
  TriMesh mesh;
};

TEST_F(SingleSphere, ForwardRunTranscriptTailAndAccuracy) {
  ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nsources.pos\n\nsphere.mat\n");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string expected = single_sphere_dialogue(5);
  expected += countdown(" Bmat countdown:%5d\r", 642, 1) + "\n";
  expected += countdown("Ludec countdown:%5d\r", 642, 2) + "\n";
  expected += "Estimated condition of B: <cond>\n";
  expected += located(5, "sphere.tri");
  expected += countdown("Solve countdown:%5d\r", 15, 1) + "\n";
  EXPECT_EQ(without_condition(r.out), expected);

  MatrixFile t;
  ASSERT_TRUE(read_matrix_file(dir.file("sphere.mat"), t));
  EXPECT_EQ(t.rows, 642);
  EXPECT_EQ(t.cols, 15);
  EXPECT_EQ(t.tail,
            "brelix output\nNumber of compartments:\n1\nName compartment 1:\nsphere.tri\n"
            "Conductivity compartment 1:\n  1.0000\nName dipole file:\nsources.pos\nName electrode file:\n\n"
            "sample frequency:\narbitrary\ngeometry file:\n   1- 642: sphere.tri\n");
  // Every column is referred to the electrode average.
  for (int c = 1; c <= t.cols; c++) {
    double s = 0, a = 0;
    for (int e = 1; e <= t.rows; e++) s += t.at(e, c), a += fabs(t.at(e, c));
    EXPECT_LT(fabs(s), 1e-4 * a);
  }
  // Reference figures of this method on this mesh: RDM 0.00029 .. 0.0017 and
  // MAG 1.0015 .. 1.0030 for eccentricities 0.1 .. 0.8 (radial); allow 25 %.
  const double rdm_ref[] = {0.00029, 0.00041, 0.00062, 0.0012, 0.0017};
  for (int k = 0; k < 5; k++) {
    Vec3 r0 = {0, 0, ECC[k]};
    expect_close_to_sphere(t, 3 * k + 3, mesh, {1.0}, {1.0}, r0, {0, 0, 1}, 1.25 * rdm_ref[k], 0.995, 1.006);
    expect_close_to_sphere(t, 3 * k + 1, mesh, {1.0}, {1.0}, r0, {1, 0, 0}, 2.5 * rdm_ref[k], 0.995, 1.006);
  }
}

TEST_F(SingleSphere, StoredInvertedMatrixGivesTheSameTransferMatrix) {
  ProcResult direct = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nsources.pos\n\ndirect.mat\n");
  ASSERT_EQ(direct.status, 0) << direct.err;

  ProcResult store = run_brelix(dir.path(), {"-i", "sphere.ama"}, "sphere.tri\n1\n\n\n");
  ASSERT_EQ(store.status, 0) << store.err;
  std::string expected = BANNER;
  expected += GEO_INTRO;
  expected += "\nFilename of interface 1: sphere.tri contains 642 vertices and 1280 triangles\n";
  expected += "Conductivity just within sphere.tri: \nFilename of interface 2: ";
  expected += "\nTotal: 1 interface , 642 vertices and 1280 triangles\n";
  expected += "\nElectrode file: All vertices of first interface are electrodes\n\n";
  expected += countdown(" Bmat countdown:%5d\r", 642, 1) + "\n";
  expected += countdown("Ludec countdown:%5d\r", 642, 2) + "\n";
  expected += "Estimated condition of B: <cond>\n";
  expected += countdown("Invrt countdown:%5d\r", 642, 1) + "\n";
  EXPECT_EQ(without_condition(store.out), expected);
  ASSERT_TRUE(file_exists(dir.file("sphere.ama")));

  ProcResult loaded = run_brelix(dir.path(), {"sphere.ama"}, "sources.pos\n\nloaded.mat\n");
  ASSERT_EQ(loaded.status, 0) << loaded.err;
  // Offsets: 116 + 12 N + 12 M, then 80 + 4 + 24 (nel + 1) + 8 more.
  std::string head = BANNER;
  head += "elec starts at 23180\nbi starts at 38704\n";
  head += "\nSource position file: sources.pos defines 5 sources\n";
  head += "\nMeasured potential data: OK, I will then output the transfer matrix\n";
  head += "Filename for transfer matrix: \n";
  head += located(5, "sphere.tri");
  head += countdown("Solve countdown:%5d\r", 15, 1) + "\n";
  EXPECT_EQ(loaded.out, head);

  MatrixFile a, b;
  ASSERT_TRUE(read_matrix_file(dir.file("direct.mat"), a));
  ASSERT_TRUE(read_matrix_file(dir.file("loaded.mat"), b));
  ASSERT_EQ(a.rows, b.rows);
  ASSERT_EQ(a.cols, b.cols);
  EXPECT_EQ(a.tail, b.tail);
  for (int c = 1; c <= a.cols; c++) {
    double scale = 0;
    for (int e = 1; e <= a.rows; e++) scale = std::max(scale, (double)fabs(a.at(e, c)));
    for (int e = 1; e <= a.rows; e++) ASSERT_NEAR(b.at(e, c), a.at(e, c), 2e-4 * scale) << e << "," << c;
  }
}

TEST(ThreeShells, IsolatedSourceThroughStoredMatrixMatchesTheSeries) {
  TempDir dir;
  TriMesh scalp = icosphere(3, 1.0);
  ASSERT_TRUE(write_trimesh(dir.file("scalp.tri"), scalp, false));
  ASSERT_TRUE(write_trimesh(dir.file("skull.tri"), icosphere(3, 0.92), true));
  ASSERT_TRUE(write_trimesh(dir.file("brain.tri"), icosphere(3, 0.88), false));
  write_file(dir.file("sources.pos"), z_axis_sources(0.88));
  const std::string model = "scalp.tri\n1\nskull.tri\n0.0125\n!brain.tri\n1\n\n\n";
  ProcResult store = run_brelix(dir.path(), {"-i", "head.ama"}, model);
  ASSERT_EQ(store.status, 0) << store.err;
  EXPECT_NE(store.out.find("   Interface brain.tri is the isolated source interface\n"), std::string::npos);
  EXPECT_NE(store.out.find("\nIsolated source part: 1 compartments, 642 vertices.\n\n"), std::string::npos);

  ProcResult run = run_brelix(dir.path(), {"head.ama"}, "sources.pos\n\nhead.mat\n");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("Source  1 is located within brain.tri\n"), std::string::npos);
  MatrixFile t;
  ASSERT_TRUE(read_matrix_file(dir.file("head.mat"), t));
  ASSERT_EQ(t.rows, 642);
  // Reference figures (radial): RDM 0.0051 .. 0.050, MAG 0.896 .. 0.919.
  const double rdm_ref[] = {0.0051, 0.016, 0.027, 0.041, 0.050};
  const double mag_ref[] = {0.919, 0.917, 0.911, 0.902, 0.896};
  for (int k = 0; k < 5; k++) {
    Vec3 r0 = {0, 0, ECC[k] * 0.88};
    expect_close_to_sphere(t, 3 * k + 3, scalp, {0.88, 0.92, 1.0}, {1, 0.0125, 1}, r0, {0, 0, 1},
                           1.25 * rdm_ref[k], mag_ref[k] - 0.03, mag_ref[k] + 0.03);
  }
}

}  // namespace
