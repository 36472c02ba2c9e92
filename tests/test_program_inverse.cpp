// Whole-program inverse jobs on a single sphere: data made with the
// program's own forward model are fitted back, and the transcript, the
// solution files and the fitted-position file are checked.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "matrixio/matrix.h"
#include "numeric/nrutils.h"
#include "tests/support/dense_reference.h"
#include "tests/support/files.h"
#include "tests/support/head_fit.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

using Rows = std::vector<std::vector<double>>;

// The numbers of a "%8.4f, %8.4f, ..." group, each field checked for its
// width and its four decimals.
std::vector<double> fields(const std::string &group) {
  std::vector<double> v;
  std::regex field(" *-?[0-9]+\\.[0-9]{4}");
  for (size_t start = 0;;) {
    const size_t comma = group.find(", ", start);
    const std::string f = group.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    EXPECT_TRUE(std::regex_match(f, field) && f.size() >= 8) << "field '" << f << "'";
    v.push_back(std::stod(f));
    if (comma == std::string::npos) return v;
    start = comma + 2;
  }
}

double distance(const Vec3 &a, double x, double y, double z) { return headfit::norm(headfit::add(a, {x, y, z}, -1)); }

// A %6.3f number printed after `label` and ending its line; NaN when missing.
double printed_value(const std::string &out, const std::string &label) {
  const size_t at = out.find(label);
  if (at == std::string::npos) return NAN;
  EXPECT_EQ(out.substr(at + label.size() + 6, 1), "\n") << label;
  return std::stod(out.substr(at + label.size(), 6));
}

// The fitted positions read back as a source file: one source of the given kind.
SourceRecord read_back(const std::string &path) {
  int n = 0, kind = -1;
  SourceRecord *table = nullptr, r{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(init_dip(path.c_str(), &n, &table, &kind), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(n, 1);
  EXPECT_EQ(kind, 1);
  if (table) r = table[0];
  free(table);
  return r;
}

class Inverse : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(2, 1.0), false)); }

  // Transfer matrix of the program itself for sources at `pos`.
  MatrixFile transfer(const std::vector<Vec3> &pos) {
    write_file(dir.file("true.pos"), headfit::position_file(pos, ""));
    const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    EXPECT_EQ(r.status, 0) << r.err;
    MatrixFile t = read("true.mat", -1, 3 * (int)pos.size());
    return t;
  }

  // data[e][s] = sum over columns c of t[e][c] moments[s][c] + offset[s] +
  // noise; written with a sample-frequency item unless `freq` is false.
  Rows write_data(const MatrixFile &t, const Rows &moments, const std::vector<double> &offset, bool freq = true,
                  double noise = 0) {
    for (const auto &row : moments) EXPECT_EQ((int)row.size(), t.cols) << "one moment per transfer column";
    Rows data(t.rows, std::vector<double>(moments.size()));
    std::mt19937 rng(3);
    std::normal_distribution<double> gauss(0, 1);
    for (int e = 1; e <= t.rows; e++)
      for (size_t s = 0; s < moments.size(); s++) {
        double v = offset[s];
        for (int c = 1; c <= t.cols; c++) v += t.at(e, c) * moments[s][c - 1];
        data[e - 1][s] = (float)(v + noise * gauss(rng));
      }
    EXPECT_TRUE(headfit::write_data(dir.file("data.mat"), data, freq ? "sample freq\n500 Hz\n" : ""));
    return data;
  }

  ProcResult fit(const std::vector<Vec3> &start, const std::string &constraints, const std::string &later) {
    write_file(dir.file("start.pos"), headfit::position_file(start, constraints));
    const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\n" + later);
    EXPECT_EQ(r.status, 0) << r.err << r.out;
    return r;
  }

  // A matrix file of the run, of the given size (rows -1: any).
  MatrixFile read(const std::string &name, int rows, int cols) {
    MatrixFile m;
    EXPECT_TRUE(read_matrix_file(dir.file(name), m)) << name;
    EXPECT_TRUE((rows < 0 || m.rows == rows) && m.cols == cols) << name << ": " << m.rows << " x " << m.cols;
    if (m.values.size() != (size_t)m.rows * m.cols || (rows >= 0 && m.rows != rows) || m.cols != cols)
      m = MatrixFile{std::max(rows, 0), cols, std::vector<float>((size_t)std::max(rows, 0) * cols, NAN), ""};
    return m;
  }

  TempDir dir;
};

// One free dipole with a stationary position, started 15 % of the radius
// away from where the data were made: the transcript's end field by field,
// and every file written.
TEST_F(Inverse, StationaryDipoleIsFoundAndEveryFileWritten) {
  const Vec3 truth = {0.3, 0.2, 0.4};
  const Rows moments = {{1.0, -0.5, 0.3}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  write_data(transfer({truth}), moments, {0.0, 0.0, 0.0});
  const ProcResult r = fit({{0.4, 0.1, 0.45}}, "1 position stationary\n", "sol.mat\nfwd.mat\nfit.pos\n");
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("\nFilename for inverse solution source parameters: \n"), std::string::npos);
  EXPECT_LT(printed_value(r.out, "Relative difference first estimate:"), 1.0);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\n(( -?[0-9]+\\.[0-9]{6}){3}\n){3}final position:  \\(([^)]*)\\)\n"
                                           " Relative difference final solution :([ 0-9.]{6})\n"
                                           "Corresponds to rms noise in data of :([ 0-9.]{6})\n"
                                           "SD of source parameters saved in file sol\\.mat\\.sd\n"
                                           "Filename for forward potential data: Filename for source position: \n"
                                           "Standard deviation of source position saved in file fit\\.pos\\.sd\n\n$")))
      << r.out;
  const std::vector<double> pos = fields(m[3]);
  ASSERT_EQ(pos.size(), 3u);
  EXPECT_LT(distance(truth, pos[0], pos[1], pos[2]), 0.01);
  EXPECT_LE(std::stod(m[4]), 0.002);
  EXPECT_LE(std::stod(m[5]), 0.001);

  // Strengths: nlpar rows by samples, with the sample frequency.
  const MatrixFile sol = read("sol.mat", 3, 3), sd = read("sol.mat.sd", 3, 3), fwd = read("fwd.mat", 162, 3);
  EXPECT_EQ(sol.tail, "sample frequency\n500 Hz\n");
  for (int s = 1; s <= 3; s++)
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), moments[s - 1][c - 1], 0.03) << c << "," << s;
  ASSERT_TRUE(std::regex_match(
      sd.tail, m,
      std::regex("sample frequency\n500 Hz\nStandard deviations assuming [0-9]+\\.[0-9]{6} rms white noise in data\n"
                 "which corresponds to the relative difference found \\(([0-9]+\\.[0-9]{6})\\)\n")))
      << sd.tail;
  EXPECT_LE(std::stod(m[1]), 0.002);
  EXPECT_EQ(fwd.tail, "sample frequency:\n500\ngeometry file:\n   1- 162: sphere.tri\n");

  char line[128];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f\n", pos[0], pos[1], pos[2]);
  EXPECT_EQ(read_file(dir.file("fit.pos")),
            "   1\n" + std::string(line) + "   1  position stationar  orientation free\n");
  const SourceRecord back = read_back(dir.file("fit.pos"));
  EXPECT_EQ(back.pos_mode, 1u);
  EXPECT_LT(distance(truth, back.x, back.y, back.z), 0.01);
  EXPECT_TRUE(std::regex_match(read_file(dir.file("fit.pos.sd")),
                               std::regex("   1\n   1( +-?[0-9]+\\.[0-9]{4}){3}\n\nStandard deviations "
                                          "assuming [^\n]*\nwhich corresponds[^\n]*\n")))
      << read_file(dir.file("fit.pos.sd"));
}

// Fixed positions, data without a sample frequency: only the linear
// estimate, which reproduces the moments.
TEST_F(Inverse, FixedPositionsGiveTheLinearEstimateOnly) {
  const std::vector<Vec3> truth = {{0.3, 0.2, 0.4}, {-0.2, -0.3, 0.1}};
  const Rows moments = {{1.0, -0.5, 0.3, 0.2, 0.4, -0.6}, {0.5, 0.5, 0.5, -1, 0, 1}};
  write_data(transfer(truth), moments, {0.0, 0.0}, false);
  const ProcResult r = fit(truth, "1 position fixed\n2 position fixed\n", "sol.mat\nfwd.mat\n");
  EXPECT_NE(r.out.find("Relative difference: 0.000\n"), std::string::npos) << r.out;
  for (const char *absent : {"first estimate", "final solution", "final position", "Filename for source position: "})
    EXPECT_EQ(r.out.find(absent), std::string::npos) << absent;
  const std::string end =
      "Corresponds to rms noise in data of : 0.000\nSD of source parameters saved in file sol.mat.sd\n"
      "Filename for forward potential data: \n";
  EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), end.size())), end) << r.out;
  const MatrixFile sol = read("sol.mat", 6, 2), sd = read("sol.mat.sd", 6, 2), fwd = read("fwd.mat", 162, 2);
  EXPECT_EQ(sol.tail, "sample frequency\nunknown\n");
  for (int s = 1; s <= 2; s++)
    for (int c = 1; c <= 6; c++) EXPECT_NEAR(sol.at(c, s), moments[s - 1][c - 1], 2e-3) << c << "," << s;
  EXPECT_EQ(sd.tail.substr(0, 25), "sample frequency\nunknown\n") << sd.tail;
  EXPECT_EQ(fwd.tail, "sample frequency:\nunknown\ngeometry file:\n   1- 162: sphere.tri\n");
}

// Noisy data with an offset on every sample: the printed measures and the
// deviations against a least-squares fit and residuals computed here; an
// empty answer writes no forward potentials.
TEST_F(Inverse, FixedFitMeasuresAgainstAnIndependentResidual) {
  const MatrixFile t = transfer({{0.1, -0.3, 0.5}});
  const std::vector<double> offset = {0.5, -0.3, 0.2, 1.0};
  double peak = 0;
  for (float v : t.values) peak = std::max(peak, (double)fabsf(v));
  const Rows data =
      write_data(t, {{1.0, 0.5, -0.7}, {-0.4, 0.9, 0.2}, {0.3, 0.3, 0.3}, {0.8, -0.2, 0.1}}, offset, true, 0.03 * peak);
  const ProcResult r = fit({{0.1, -0.3, 0.5}}, "1 position fixed\n", "sol.mat\n\n");
  const int nel = t.rows, ntim = 4;
  const MatrixFile sol = read("sol.mat", 3, ntim), sd = read("sol.mat.sd", 3, ntim);
  EXPECT_FALSE(file_exists(dir.file("fwd.mat")));

  // Referenced data, model and residual in double precision; a least-squares
  // solution leaves a residual orthogonal to the columns.
  double R = 0, A = 0, B = 0;
  Rows res(nel, std::vector<double>(ntim));
  for (int s = 0; s < ntim; s++) {
    double mean = 0, dot[4] = {}, norm[4] = {}, rn = 0;
    for (int e = 0; e < nel; e++) mean += data[e][s] / nel;
    for (int e = 0; e < nel; e++) {
      const double psi = data[e][s] - mean;
      res[e][s] = psi;
      for (int c = 1; c <= 3; c++) res[e][s] -= t.at(e + 1, c) * sol.at(c, s + 1);
      for (int c = 1; c <= 3; c++) dot[c] += t.at(e + 1, c) * res[e][s], norm[c] += t.at(e + 1, c) * t.at(e + 1, c);
      R += res[e][s] * res[e][s], rn += res[e][s] * res[e][s], A += psi * psi, B += data[e][s] * data[e][s];
    }
    for (int c = 1; c <= 3; c++) EXPECT_LT(fabs(dot[c]), 1e-3 * sqrt(norm[c] * rn)) << c << "," << s;
  }
  const double rd = sqrt(R / A), rms = sqrt(R / nel / ntim);
  EXPECT_GT(rd, 0.01);
  EXPECT_NEAR(printed_value(r.out, "Relative difference:"), rd, 0.0015) << r.out;
  EXPECT_NEAR(printed_value(r.out, "Corresponds to rms noise in data of :"), rms, 0.0015);
  // The offsets make the unshifted data much larger: the extra line shows.
  EXPECT_NEAR(printed_value(r.out, "Relative difference in respect to original (unshifted) data:"), rd * sqrt(A / B),
              0.0015);
  // Deviations: sqrt of the diagonal of (T'T)^-1, times the strength, times
  // the rms residual.
  ref::Mat g = ref::zeros(3, 3);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      for (int e = 1; e <= nel; e++) g[i][j] += (double)t.at(e, i + 1) * t.at(e, j + 1);
  for (int j = 1; j <= 3; j++) {
    ref::Vec unit(3, 0.0);
    unit[j - 1] = 1;
    const double inv_diag = ref::solve(g, unit)[j - 1];
    for (int s = 1; s <= ntim; s++) {
      const double want = sqrt(inv_diag) * sol.at(j, s) * rms;
      EXPECT_NEAR(sd.at(j, s), want, 2e-3 * fabs(want) + 1e-9) << j << "," << s;
    }
  }
}

// One moving dipole over four samples, each made at its own position, the
// second all zero.  Every sample starts from the same estimate, so the zero
// sample keeps exactly the start; the fitted potentials carry the removed
// offsets again.
TEST_F(Inverse, MovingDipoleFollowsEverySample) {
  const std::vector<Vec3> truth = {{0.3, 0.2, 0.4}, {0.35, 0.15, 0.35}, {0.25, 0.25, 0.45}};
  const Vec3 start = {0.4, 0.1, 0.45};
  const int made_at[4] = {0, -1, 1, 2};
  const double m[4][3] = {{1.0, -0.5, 0.3}, {0, 0, 0}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  Rows moments(4, std::vector<double>(9, 0.0));
  for (int s = 0; s < 4; s++)
    for (int c = 0; c < 3 && made_at[s] >= 0; c++) moments[s][3 * made_at[s] + c] = m[s][c];
  const std::vector<double> offset = {0.1, 0.0, 0.1, 0.1};
  const MatrixFile t = transfer(truth);
  const Rows data = write_data(t, moments, offset);
  double peak = 0;
  for (const auto &row : data)
    for (int s = 0; s < 4; s++) peak = std::max(peak, fabs(row[s] - offset[s]));
  const ProcResult r = fit({start}, "1 position moving\n", "sol.mat\nfwd.mat\n");
  EXPECT_NE(r.out.find("Relative difference first estimate:"), std::string::npos);
  EXPECT_NE(r.out.find("moving inverse countdown:    3\rmoving inverse countdown:    2\r"
                       "moving inverse countdown:    1\rmoving inverse countdown:    0\r"
                       " Relative difference final solution : 0.00"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("final position"), std::string::npos);
  EXPECT_EQ(r.out.find("Filename for source position: "), std::string::npos);

  const MatrixFile sol = read("sol.mat", 6, 4), sd = read("sol.mat.sd", 6, 4), fwd = read("fwd.mat", t.rows, 4);
  for (int s = 1; s <= 4; s++) {
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
    const Vec3 want = made_at[s - 1] < 0 ? start : truth[made_at[s - 1]];
    EXPECT_LT(distance(want, sol.at(4, s), sol.at(5, s), sol.at(6, s)), made_at[s - 1] < 0 ? 2e-5 : 0.01) << s;
  }
  for (float v : sd.values) EXPECT_TRUE(std::isfinite(v) && v >= 0);
  for (int e = 1; e <= t.rows; e++)
    for (int s = 1; s <= 4; s++) ASSERT_NEAR(fwd.at(e, s), data[e - 1][s - 1], 0.01 * peak) << e << "," << s;
}

// A dipole of stationary orientation: one strength per sample, the fitted
// direction printed and written in degrees.
TEST_F(Inverse, StationaryOrientationIsFitted) {
  const Vec3 truth = {-0.2, 0.3, 0.35};
  const double th = 60 * M_PI / 180, al = 30 * M_PI / 180, amp[3] = {1.0, 0.5, 2.0};
  Rows moments;
  for (double a : amp) moments.push_back({a * sin(th) * cos(al), a * sin(th) * sin(al), a * cos(th)});
  write_data(transfer({truth}), moments, {0, 0, 0});
  const ProcResult r = fit({{-0.3, 0.4, 0.3}}, "1 position stationary orientation stationary\n",
                           "sol.mat\nfwd.mat\nfit.pos\n");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\n( -?[0-9]+\\.[0-9]{6}){3}\nfinal position:  \\(([^)]*)\\)\n"
                                           "final direction: \\(([^)]*)\\)\n Relative difference final")))
      << r.out;
  const std::vector<double> pos = fields(m[2]), deg = fields(m[3]);
  ASSERT_EQ(pos.size(), 3u);
  ASSERT_EQ(deg.size(), 2u);
  EXPECT_LT(distance(truth, pos[0], pos[1], pos[2]), 0.01);
  EXPECT_NEAR(deg[0], 60.0, 1.0);
  EXPECT_NEAR(deg[1], 30.0, 1.0);
  const MatrixFile sol = read("sol.mat", 1, 3);
  for (int s = 1; s <= 3; s++) EXPECT_NEAR(sol.at(1, s), amp[s - 1], 0.03 * amp[s - 1]);

  char line[160];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f %8.4f %8.4f\n", pos[0], pos[1], pos[2], deg[0], deg[1]);
  EXPECT_EQ(read_file(dir.file("fit.pos")),
            "   1\n" + std::string(line) + "   1  position stationar  orientation stationar\n");
  EXPECT_EQ(read_back(dir.file("fit.pos")).ori_stationary, 1u);
  const std::string sdpos = read_file(dir.file("fit.pos.sd"));
  EXPECT_TRUE(std::regex_search(sdpos, std::regex("^   1\n   1( +-?[0-9]+\\.[0-9]{4}){5}\n\n"))) << sdpos;
}

// Pairs mirrored in the plane x = 0.05, stationary and moving: the second
// follows the first, the lines take the plural, and a moving partner's
// position is written mirrored for every sample after the fitted sources'.
TEST_F(Inverse, SymmetricPairsMoveAsMirrorImages) {
  const std::vector<Vec3> truth = {{0.35, 0.2, 0.3}, {-0.25, 0.2, 0.3}, {0.3, 0.25, 0.35}, {-0.2, 0.25, 0.35}};
  const double m[2][6] = {{1.0, 0.2, -0.3, 0.5, -0.4, 0.6}, {0.3, -0.7, 0.4, -0.2, 0.9, 0.1}};
  const MatrixFile t = transfer(truth);
  // The stationary pair is the first two sources; the other two are silent.
  Rows moments(2, std::vector<double>(12, 0.0));
  for (int c = 0; c < 6; c++) moments[0][c] = m[0][c], moments[1][c] = m[1][c];
  write_data(t, moments, {0, 0});
  ProcResult r = fit({{0.45, 0.1, 0.35}, {-0.35, 0.1, 0.35}}, "1 position stationary\n2 symmetric to 1\n",
                     "sol.mat\nfwd.mat\nfit.pos\n");
  std::smatch sm;
  ASSERT_TRUE(std::regex_search(r.out, sm,
                                std::regex("final positions:  \\(([^)]*)\\)\n                  \\(([^)]*)\\)\n"
                                           " Relative difference final solution :")))
      << r.out;
  const std::vector<double> p1 = fields(sm[1]), p2 = fields(sm[2]);
  ASSERT_TRUE(p1.size() == 3 && p2.size() == 3);
  EXPECT_LT(distance(truth[0], p1[0], p1[1], p1[2]), 0.01);
  EXPECT_LT(distance(truth[1], p2[0], p2[1], p2[2]), 0.01);
  EXPECT_NEAR(p2[0], 0.1 - p1[0], 2e-4);
  EXPECT_EQ(p2[1], p1[1]);
  EXPECT_EQ(p2[2], p1[2]);
  EXPECT_NE(r.out.find("\nStandard deviation of source positions saved in file fit.pos.sd\n"), std::string::npos);
  EXPECT_NE(read_file(dir.file("fit.pos")).find("   2  position symmetric to 1  orientation symmetric to 1\n"),
            std::string::npos);
  read("sol.mat", 6, 2);

  moments.assign(2, std::vector<double>(12, 0.0));
  for (int c = 0; c < 6; c++) moments[0][c] = m[0][c], moments[1][6 + c] = m[1][c];
  write_data(t, moments, {0, 0});
  r = fit({{0.4, 0.15, 0.35}, {-0.3, 0.15, 0.35}}, "1 position moving\n2 position moving symmetric to 1\n",
          "sol.mat\n\n");
  const MatrixFile sol = read("sol.mat", 12, 2);
  for (int s = 1; s <= 2; s++) {
    const Vec3 &a = truth[2 * (s - 1)], &b = truth[2 * (s - 1) + 1];
    EXPECT_LT(distance(a, sol.at(7, s), sol.at(8, s), sol.at(9, s)), 0.01) << "sample " << s;
    EXPECT_LT(distance(b, sol.at(10, s), sol.at(11, s), sol.at(12, s)), 0.01) << "sample " << s;
    EXPECT_NEAR(sol.at(10, s), 0.1 - sol.at(7, s), 1e-5);
    for (int c = 1; c <= 6; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
  }
}

}  // namespace
