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

// Five dipoles on the z axis at the eccentricities above (of radius `inner`).
std::string z_axis_sources(double inner) {
  std::string s = "5\n";
  for (int k = 0; k < 5; k++) s += std::to_string(k + 1) + " 0 0 " + std::to_string(ECC[k] * inner) + "\n";
  return s;
}

// Transcript pieces: the model of one sphere of 642 vertices, all of them
// electrodes; building the system matrix; the source and data questions; the
// five sources located and solved for.
std::string model_dialogue() {
  return std::string(BANNER) + GEO_INTRO +
         "\nFilename of interface 1: sphere.tri contains 642 vertices and 1280 triangles\n"
         "Conductivity just within sphere.tri: \nFilename of interface 2: "
         "\nTotal: 1 interface , 642 vertices and 1280 triangles\n"
         "\nElectrode file: All vertices of first interface are electrodes\n\n";
}
std::string build_dialogue() {
  return countdown(" Bmat countdown:%5d\r", 642, 1) + "\n" + countdown("Ludec countdown:%5d\r", 642, 2) +
         "\nEstimated condition of B: <cond>\n";
}
const std::string SOURCE_QUESTIONS =
    "\nSource position file: sources.pos defines 5 sources\n"
    "\nMeasured potential data: OK, I will then output the transfer matrix\nFilename for transfer matrix: \n";
std::string solve_dialogue() {
  std::string s = "\n";
  for (int k = 1; k <= 5; k++) s += "Source  " + std::to_string(k) + " is located within sphere.tri\n";
  return s + countdown("Solve countdown:%5d\r", 15, 1) + "\n";
}

// The transcript with the condition estimate, a plausible number for a
// well-posed model, replaced by "<cond>".
std::string without_condition(const std::string &out) {
  std::smatch m;
  if (!std::regex_search(out, m, std::regex("Estimated condition of B: ([0-9.e+]+)\n"))) return out;
  EXPECT_GT(std::stod(m[1]), 1.0);
  EXPECT_LT(std::stod(m[1]), 1e6);
  return m.prefix().str() + "Estimated condition of B: <cond>\n" + m.suffix().str();
}

// Column `col` of a transfer matrix whose electrodes are the vertices of
// `mesh` against the analytic potentials of the dipole p at r0.
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
  EXPECT_GT(mag(bem, exact), mag_lo) << "column " << col;
  EXPECT_LT(mag(bem, exact), mag_hi) << "column " << col;
}

}  // namespace

// A direct forward run, then the same through a stored inverted A matrix:
// exact transcripts, the file's tail, columns referred to the average, the
// analytic potentials, and both ways giving the same matrix.
TEST(Forward, SingleSphereDirectAndThroughStoredMatrix) {
  TempDir dir;
  const TriMesh mesh = icosphere(3, 1.0);
  ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), mesh, false));
  write_file(dir.file("sources.pos"), z_axis_sources(1.0));
  const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nsources.pos\n\ndirect.mat\n");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(without_condition(r.out), model_dialogue() + SOURCE_QUESTIONS + build_dialogue() + solve_dialogue());

  MatrixFile t;
  ASSERT_TRUE(read_matrix_file(dir.file("direct.mat"), t));
  ASSERT_EQ(t.rows, 642);
  ASSERT_EQ(t.cols, 15);
  EXPECT_EQ(t.tail,
            "brelix output\nNumber of compartments:\n1\nName compartment 1:\nsphere.tri\n"
            "Conductivity compartment 1:\n  1.0000\nName dipole file:\nsources.pos\nName electrode file:\n\n"
            "sample frequency:\narbitrary\ngeometry file:\n   1- 642: sphere.tri\n");
  // Each source in its columns (the accuracy itself is tested in process).
  for (int k = 0; k < 5; k++)
    expect_close_to_sphere(t, 3 * k + 3, mesh, {1.0}, {1.0}, {0, 0, ECC[k]}, {0, 0, 1}, 0.003, 0.995, 1.006);

  const ProcResult store = run_brelix(dir.path(), {"-i", "sphere.ama"}, "sphere.tri\n1\n\n\n");
  ASSERT_EQ(store.status, 0) << store.err;
  EXPECT_EQ(without_condition(store.out),
            model_dialogue() + build_dialogue() + countdown("Invrt countdown:%5d\r", 642, 1) + "\n");
  const ProcResult loaded = run_brelix(dir.path(), {"sphere.ama"}, "sources.pos\n\nloaded.mat\n");
  ASSERT_EQ(loaded.status, 0) << loaded.err;
  // Offsets: 116 + 12 N + 12 M, then 80 + 4 + 24 (nel + 1) + 8 more.
  EXPECT_EQ(loaded.out,
            BANNER + std::string("elec starts at 23180\nbi starts at 38704\n") + SOURCE_QUESTIONS + solve_dialogue());
  MatrixFile l;
  ASSERT_TRUE(read_matrix_file(dir.file("loaded.mat"), l));
  ASSERT_EQ(l.rows, t.rows);
  ASSERT_EQ(l.cols, t.cols);
  EXPECT_EQ(l.tail, t.tail);
  for (int c = 1; c <= t.cols; c++) {
    double scale = 0;
    for (int e = 1; e <= t.rows; e++) scale = std::max(scale, (double)fabs(t.at(e, c)));
    for (int e = 1; e <= t.rows; e++) ASSERT_NEAR(l.at(e, c), t.at(e, c), 2e-4 * scale) << e << "," << c;
  }
}

TEST(Forward, ThreeShellsIsolatedSourceThroughStoredMatrixMatchesTheSeries) {
  TempDir dir;
  const TriMesh scalp = icosphere(3, 1.0);
  ASSERT_TRUE(write_trimesh(dir.file("scalp.tri"), scalp, false));
  ASSERT_TRUE(write_trimesh(dir.file("skull.tri"), icosphere(3, 0.92), true));
  ASSERT_TRUE(write_trimesh(dir.file("brain.tri"), icosphere(3, 0.88), false));
  write_file(dir.file("sources.pos"), z_axis_sources(0.88));
  const ProcResult store =
      run_brelix(dir.path(), {"-i", "head.ama"}, "scalp.tri\n1\nskull.tri\n0.0125\n!brain.tri\n1\n\n\n");
  ASSERT_EQ(store.status, 0) << store.err;
  const ProcResult run = run_brelix(dir.path(), {"head.ama"}, "sources.pos\n\nhead.mat\n");
  ASSERT_EQ(run.status, 0) << run.err;
  MatrixFile t;
  ASSERT_TRUE(read_matrix_file(dir.file("head.mat"), t));
  ASSERT_EQ(t.rows, 642);
  // Accuracy of the method with the isolated-source approach on this mesh.
  const double rdm_ref[] = {0.0051, 0.016, 0.027, 0.041, 0.050}, mag_ref[] = {0.919, 0.917, 0.911, 0.902, 0.896};
  for (int k = 0; k < 5; k++)
    expect_close_to_sphere(t, 3 * k + 3, scalp, {0.88, 0.92, 1.0}, {1, 0.0125, 1}, {0, 0, ECC[k] * 0.88}, {0, 0, 1},
                           1.25 * rdm_ref[k], mag_ref[k] - 0.03, mag_ref[k] + 0.03);
}
