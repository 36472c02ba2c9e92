// Whole-program forward jobs: a direct run, storing the inverted A matrix
// (-i) and a run through the stored matrix, each with its exact transcript;
// the transfer matrix against the analytic potentials of a sphere, and the
// loaded run against the direct one.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "tests/support/analytic.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

const double ECC[] = {0.1, 0.3, 0.5, 0.7, 0.8};

// The transcript with the condition estimate, a plausible number for a
// well-posed model, replaced by "<cond>".
std::string without_condition(const std::string &out) {
  std::smatch m;
  if (!std::regex_search(out, m, std::regex("Estimated condition of B: ([0-9.e+]+)\n"))) return out;
  EXPECT_TRUE(std::stod(m[1]) > 1.0 && std::stod(m[1]) < 1e6) << m[1];
  return m.prefix().str() + "Estimated condition of B: <cond>\n" + m.suffix().str();
}

TEST(Forward, DirectStoredAndLoadedRuns) {
  TempDir dir;
  const TriMesh mesh = icosphere(3, 1.0);
  ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), mesh, false));
  write_file(dir.file("sources.pos"), "5\n1 0 0 0.1\n2 0 0 0.3\n3 0 0 0.5\n4 0 0 0.7\n5 0 0 0.8\n");  // at ECC

  const std::string model = std::string(BANNER) + GEO_INTRO +
                            "\nFilename of interface 1: sphere.tri contains 642 vertices and 1280 triangles\n"
                            "Conductivity just within sphere.tri: \nFilename of interface 2: "
                            "\nTotal: 1 interface , 642 vertices and 1280 triangles\n"
                            "\nElectrode file: All vertices of first interface are electrodes\n\n";
  const std::string build = countdown(" Bmat countdown:%5d\r", 642, 1) + "\n" +
                            countdown("Ludec countdown:%5d\r", 642, 2) + "\nEstimated condition of B: <cond>\n";
  const std::string questions =
      "\nSource position file: sources.pos defines 5 sources\n"
      "\nMeasured potential data: OK, I will then output the transfer matrix\nFilename for transfer matrix: \n";
  std::string solve = "\n";
  for (int k = 1; k <= 5; k++) solve += "Source  " + std::to_string(k) + " is located within sphere.tri\n";
  solve += countdown("Solve countdown:%5d\r", 15, 1) + "\n";

  const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nsources.pos\n\ndirect.mat\n");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(without_condition(r.out), model + questions + build + solve);
  MatrixFile t;
  ASSERT_TRUE(read_matrix_file(dir.file("direct.mat"), t));
  ASSERT_TRUE(t.rows == 642 && t.cols == 15) << t.rows << " x " << t.cols;
  EXPECT_EQ(t.tail,
            "brelix output\nNumber of compartments:\n1\nName compartment 1:\nsphere.tri\n"
            "Conductivity compartment 1:\n  1.0000\nName dipole file:\nsources.pos\nName electrode file:\n\n"
            "sample frequency:\narbitrary\ngeometry file:\n   1- 642: sphere.tri\n");
  // The z columns against the analytic potentials (rdm and mag ignore the
  // reference), and every column referred to the average of the electrodes.
  for (int k = 0; k < 5; k++) {
    std::vector<double> bem, exact;
    for (int e = 1; e <= t.rows; e++) {
      const auto &v = mesh.pnt[e - 1];
      bem.push_back(t.at(e, 3 * k + 3));
      exact.push_back(sphere_potential({1.0}, {1.0}, {0, 0, ECC[k]}, {0, 0, 1}, {v[0], v[1], v[2]}));
    }
    EXPECT_LT(rdm(bem, exact), 0.003) << k;
    EXPECT_NEAR(mag(bem, exact), 1.0, 0.006) << k;
  }
  for (int c = 1; c <= t.cols; c++) {
    double sum = 0, size = 0;
    for (int e = 1; e <= t.rows; e++) sum += t.at(e, c), size += fabs(t.at(e, c));
    EXPECT_LT(fabs(sum), 1e-5 * size) << "column " << c;
  }

  const ProcResult store = run_brelix(dir.path(), {"-i", "sphere.ama"}, "sphere.tri\n1\n\n\n");
  ASSERT_EQ(store.status, 0) << store.err;
  EXPECT_EQ(without_condition(store.out), model + build + countdown("Invrt countdown:%5d\r", 642, 1) + "\n");
  const ProcResult loaded = run_brelix(dir.path(), {"sphere.ama"}, "sources.pos\n\nloaded.mat\n");
  ASSERT_EQ(loaded.status, 0) << loaded.err;
  // Offsets: 116 + 12 N + 12 M, then 80 + 4 + 24 (nel + 1) + 8 more.
  EXPECT_EQ(loaded.out, BANNER + std::string("elec starts at 23180\nbi starts at 38704\n") + questions + solve);
  MatrixFile l;
  ASSERT_TRUE(read_matrix_file(dir.file("loaded.mat"), l));
  ASSERT_TRUE(l.rows == t.rows && l.cols == t.cols);
  EXPECT_EQ(l.tail, t.tail);
  for (int c = 1; c <= t.cols; c++) {
    double scale = 0;
    for (int e = 1; e <= t.rows; e++) scale = std::max(scale, (double)fabs(t.at(e, c)));
    for (int e = 1; e <= t.rows; e++) ASSERT_NEAR(l.at(e, c), t.at(e, c), 2e-4 * scale) << e << "," << c;
  }
}

}  // namespace
