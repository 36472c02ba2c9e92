// Whole-program inverse jobs on a single sphere: data made with the
// program's own forward model are fitted back, and the transcript, the
// solution files and the fitted-position file are checked.  The fits
// themselves are tested in process; here what the program path adds: the
// dialogue, the files, the printed measures and the reported deviations.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/dense_reference.h"
#include "tests/support/files.h"
#include "tests/support/head_fit.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

using Rows = std::vector<std::vector<double>>;
using headfit::add;

// The numbers of a "%8.4f, %8.4f, ..." group, each field checked for its
// width and its four decimals.
std::vector<double> fields(const std::string &group) {
  std::vector<double> v;
  std::stringstream in(group);
  for (std::string f; std::getline(in, f, ',');) {
    EXPECT_TRUE(std::regex_match(f, std::regex(" *-?[0-9]+\\.[0-9]{4}")) && f.size() >= (v.empty() ? 8 : 9)) << f;
    v.push_back(std::stod(f));
  }
  return v;
}

double distance(const Vec3 &a, double x, double y, double z) { return headfit::norm(add(a, {x, y, z}, -1)); }

// A %6.3f number printed after `label` and ending its line; NaN when missing.
double printed_value(const std::string &out, const std::string &label) {
  const size_t at = out.find(label);
  if (at == std::string::npos) return NAN;
  EXPECT_EQ(out.substr(at + label.size() + 6, 1), "\n") << label;
  return std::stod(out.substr(at + label.size(), 6));
}

// The numbers after the index on the first source line of a position file.
std::vector<double> first_source_line(const std::string &text) {
  std::istringstream in(text.substr(std::min(text.size(), text.find('\n') + 1)));
  std::string line;
  std::getline(in, line);
  std::istringstream fieldsin(line);
  std::vector<double> v;
  int index;
  fieldsin >> index;
  for (double x; fieldsin >> x;) v.push_back(x);
  return v;
}

class Inverse : public testing::Test {
 protected:
  void SetUp() override { sphere(1.0); }
  void sphere(double radius) { ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(2, radius), false)); }

  // Transfer matrix of the program itself for sources at `pos`.
  MatrixFile transfer(const std::vector<Vec3> &pos) {
    write_file(dir.file("true.pos"), headfit::position_file(pos, ""));
    const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    EXPECT_EQ(r.status, 0) << r.err;
    return read("true.mat", -1, 3 * (int)pos.size());
  }

  // data[e][s] = sum over columns c of t[e][c] moments[s][c] + offset[s].
  static Rows data_of(const MatrixFile &t, const Rows &moments, const std::vector<double> &offset = {}) {
    Rows data(t.rows, std::vector<double>(moments.size()));
    for (int e = 1; e <= t.rows; e++)
      for (size_t s = 0; s < moments.size(); s++) {
        data[e - 1][s] = offset.empty() ? 0 : offset[s];
        for (int c = 1; c <= t.cols; c++) data[e - 1][s] += t.at(e, c) * moments[s].at(c - 1);
      }
    return data;
  }

  // Write data.mat, with a sample-frequency item unless `freq` is false;
  // returns the values as stored.
  Rows save(Rows data, bool freq = true) {
    for (auto &row : data)
      for (double &v : row) v = (float)v;
    EXPECT_TRUE(headfit::write_data(dir.file("data.mat"), data, freq ? "sample freq\n500 Hz\n" : ""));
    return data;
  }

  ProcResult fit(const std::vector<Vec3> &start, const std::string &constraints, const std::string &later,
                 const std::vector<std::string> &args = {}) {
    write_file(dir.file("start.pos"), headfit::position_file(start, constraints));
    const ProcResult r = run_brelix(dir.path(), args, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\n" + later);
    EXPECT_EQ(r.status, 0) << r.err << r.out;
    return r;
  }

  // A matrix file of the run, of the given size (rows -1: any); NaN-filled
  // when missing or of another size.
  MatrixFile read(const std::string &name, int rows, int cols) {
    MatrixFile m;
    const bool ok = read_matrix_file(dir.file(name), m) && (rows < 0 || m.rows == rows) && m.cols == cols &&
                    m.values.size() == (size_t)m.rows * m.cols;
    EXPECT_TRUE(ok) << name << ": " << m.rows << " x " << m.cols;
    if (!ok) m = MatrixFile{std::max(rows, 0), cols, std::vector<float>((size_t)std::max(rows, 0) * cols, NAN), ""};
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
  save(data_of(transfer({truth}), moments));
  const ProcResult r = fit({{0.4, 0.1, 0.45}}, "1 position stationary\n", "sol.mat\nfwd.mat\nfit.pos\n");
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("\nFilename for inverse solution source parameters: \n"), std::string::npos);
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
  EXPECT_TRUE(std::regex_match(read_file(dir.file("fit.pos.sd")),
                               std::regex("   1\n   1( +-?[0-9]+\\.[0-9]{4}){3}\n\nStandard deviations "
                                          "assuming [^\n]*\nwhich corresponds[^\n]*\n")))
      << read_file(dir.file("fit.pos.sd"));
}

// A fixed position, noisy data with an offset on every sample and no sample
// frequency: only the linear estimate; the printed measures and the
// deviations against a least-squares fit and residuals computed here; an
// empty answer writes no forward potentials.
TEST_F(Inverse, FixedFitMeasuresAgainstAnIndependentResidual) {
  const MatrixFile t = transfer({{0.1, -0.3, 0.5}});
  double peak = 0;
  for (float v : t.values) peak = std::max(peak, (double)fabsf(v));
  Rows noisy = data_of(t, {{1.0, 0.5, -0.7}, {-0.4, 0.9, 0.2}, {0.3, 0.3, 0.3}, {0.8, -0.2, 0.1}}, {0.5, -0.3, 0.2, 1.0});
  std::mt19937 rng(3);
  std::normal_distribution<double> gauss(0, 0.03 * peak);
  for (auto &row : noisy)
    for (double &v : row) v += gauss(rng);
  const Rows data = save(noisy, false);
  const ProcResult r = fit({{0.1, -0.3, 0.5}}, "1 position fixed\n", "sol.mat\n\n");
  for (const char *absent : {"first estimate", "final solution", "final position", "Filename for source position: "})
    EXPECT_EQ(r.out.find(absent), std::string::npos) << absent;
  const std::string end = "SD of source parameters saved in file sol.mat.sd\nFilename for forward potential data: \n";
  EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), end.size())), end) << r.out;
  const int nel = t.rows, ntim = 4;
  const MatrixFile sol = read("sol.mat", 3, ntim), sd = read("sol.mat.sd", 3, ntim);
  EXPECT_EQ(sol.tail, "sample frequency\nunknown\n");
  EXPECT_EQ(sd.tail.substr(0, 25), "sample frequency\nunknown\n") << sd.tail;
  EXPECT_FALSE(file_exists(dir.file("fwd.mat")));

  // Referenced data, model and residual in double precision; a least-squares
  // solution leaves a residual orthogonal to the columns.
  double R = 0, A = 0, B = 0;
  for (int s = 0; s < ntim; s++) {
    double mean = 0, dot[4] = {}, norm[4] = {}, rn = 0;
    for (int e = 0; e < nel; e++) mean += data[e][s] / nel;
    for (int e = 0; e < nel; e++) {
      const double psi = data[e][s] - mean;
      double res = psi;
      for (int c = 1; c <= 3; c++) res -= t.at(e + 1, c) * sol.at(c, s + 1);
      for (int c = 1; c <= 3; c++) dot[c] += t.at(e + 1, c) * res, norm[c] += t.at(e + 1, c) * t.at(e + 1, c);
      R += res * res, rn += res * res, A += psi * psi, B += data[e][s] * data[e][s];
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
// offsets again.  Four samples print no strength table.
TEST_F(Inverse, MovingDipoleFollowsEverySample) {
  const std::vector<Vec3> truth = {{0.3, 0.2, 0.4}, {0.35, 0.15, 0.35}, {0.25, 0.25, 0.45}};
  const Vec3 start = {0.4, 0.1, 0.45};
  const int made_at[4] = {0, -1, 1, 2};
  const double m[4][3] = {{1.0, -0.5, 0.3}, {0, 0, 0}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  Rows moments(4, std::vector<double>(9, 0.0));
  for (int s = 0; s < 4; s++)
    for (int c = 0; c < 3 && made_at[s] >= 0; c++) moments[s][3 * made_at[s] + c] = m[s][c];
  const MatrixFile t = transfer(truth);
  const Rows data = save(data_of(t, moments, {0.1, 0.0, 0.1, 0.1}));
  const ProcResult r = fit({start}, "1 position moving\n", "sol.mat\nfwd.mat\n");
  EXPECT_NE(r.out.find("Relative difference first estimate:"), std::string::npos);
  EXPECT_NE(r.out.find("moving inverse countdown:    3\rmoving inverse countdown:    2\r"
                       "moving inverse countdown:    1\rmoving inverse countdown:    0\r"
                       " Relative difference final solution : 0.00"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("final position"), std::string::npos);
  EXPECT_EQ(r.out.find("Filename for source position: "), std::string::npos);

  const MatrixFile sol = read("sol.mat", 6, 4), fwd = read("fwd.mat", t.rows, 4);
  for (int s = 1; s <= 4; s++) {
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
    const Vec3 want = made_at[s - 1] < 0 ? start : truth[made_at[s - 1]];
    EXPECT_LT(distance(want, sol.at(4, s), sol.at(5, s), sol.at(6, s)), made_at[s - 1] < 0 ? 2e-5 : 0.01) << s;
  }
  double peak = 0;
  for (const auto &row : data) peak = std::max(peak, fabs(row[0] - 0.1));
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
  save(data_of(transfer({truth}), moments));
  const ProcResult r = fit({{-0.3, 0.4, 0.3}}, "1 position stationary orientation stationary\n", "sol.mat\n\nfit.pos\n");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\n( -?[0-9]+\\.[0-9]{6}){3}\nfinal position:  \\(([^)]*)\\)\n"
                                           "final direction: \\(([^)]*)\\)\n Relative difference final")))
      << r.out;
  const std::vector<double> pos = fields(m[2]), deg = fields(m[3]);
  ASSERT_TRUE(pos.size() == 3 && deg.size() == 2);
  EXPECT_LT(distance(truth, pos[0], pos[1], pos[2]), 0.01);
  EXPECT_NEAR(deg[0], 60.0, 1.0);
  EXPECT_NEAR(deg[1], 30.0, 1.0);
  const MatrixFile sol = read("sol.mat", 1, 3);
  for (int s = 1; s <= 3; s++) EXPECT_NEAR(sol.at(1, s), amp[s - 1], 0.03 * amp[s - 1]);
  char line[160];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f %8.4f %8.4f\n", pos[0], pos[1], pos[2], deg[0], deg[1]);
  EXPECT_EQ(read_file(dir.file("fit.pos")),
            "   1\n" + std::string(line) + "   1  position stationar  orientation stationar\n");
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
  save(data_of(t, moments));
  ProcResult r = fit({{0.45, 0.1, 0.35}, {-0.35, 0.1, 0.35}}, "1 position stationary\n2 symmetric to 1\n",
                     "sol.mat\n\nfit.pos\n");
  std::smatch sm;
  ASSERT_TRUE(std::regex_search(r.out, sm,
                                std::regex("final positions:  \\(([^)]*)\\)\n                  \\(([^)]*)\\)\n"
                                           " Relative difference final solution :")))
      << r.out;
  const std::vector<double> p1 = fields(sm[1]), p2 = fields(sm[2]);
  ASSERT_TRUE(p1.size() == 3 && p2.size() == 3);
  EXPECT_LT(distance(truth[0], p1[0], p1[1], p1[2]), 0.01);
  EXPECT_NEAR(p2[0], 0.1 - p1[0], 2e-4);
  EXPECT_TRUE(p2[1] == p1[1] && p2[2] == p1[2]);
  EXPECT_NE(read_file(dir.file("fit.pos")).find("   2  position symmetric to 1  orientation symmetric to 1\n"),
            std::string::npos);
  read("sol.mat", 6, 2);

  moments.assign(2, std::vector<double>(12, 0.0));
  for (int c = 0; c < 6; c++) moments[0][c] = m[0][c], moments[1][6 + c] = m[1][c];
  save(data_of(t, moments));
  r = fit({{0.4, 0.15, 0.35}, {-0.3, 0.15, 0.35}}, "1 position moving\n2 position moving symmetric to 1\n",
          "sol.mat\n\n");
  const MatrixFile sol = read("sol.mat", 12, 2);
  for (int s = 1; s <= 2; s++) {
    const Vec3 &a = truth[2 * (s - 1)];
    EXPECT_LT(distance(a, sol.at(7, s), sol.at(8, s), sol.at(9, s)), 0.01) << "sample " << s;
    EXPECT_NEAR(sol.at(10, s), 0.1 - sol.at(7, s), 1e-5);
    EXPECT_TRUE(sol.at(11, s) == sol.at(8, s) && sol.at(12, s) == sol.at(9, s)) << "sample " << s;
    for (int c = 1; c <= 6; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
  }
}

// All-zero data give the fit nothing to go by: it stays at the start and
// writes zero strengths and deviations.
TEST_F(Inverse, AllZeroDataLeaveTheStartInPlace) {
  save(Rows(162, std::vector<double>(2, 0.0)));
  const ProcResult r = fit({{0.4, 0.1, 0.3}}, "1 position stationary\n", "sol.mat\n\nfit.pos\n");
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("final position:  (  0.4000,   0.1000,   0.3000)\n Relative difference final solution : 0.000\n"
                       "Corresponds to rms noise in data of : 0.000\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(read("sol.mat", 3, 2).values, std::vector<float>(6, 0.0f));
  EXPECT_EQ(read("sol.mat.sd", 3, 2).values, std::vector<float>(6, 0.0f));
  EXPECT_EQ(first_source_line(read_file(dir.file("fit.pos.sd"))), std::vector<double>({0, 0, 0}));
}

// Two stationary sources at one place: the normal equations are singular,
// the run says so with the rank and condition the fitter encoded, and the
// pair still moves onto the true dipole together.
TEST_F(Inverse, CoincidingSourcesShareTheMoment) {
  const Vec3 truth = {0.3, 0.2, 0.4}, start = {0.4, 0.1, 0.3};
  save(data_of(transfer({truth}), {{1.0, -0.5, 0.3}}));
  const ProcResult r = fit({start, start}, "1 position stationary\n2 position stationary\n", "sol.mat\n\n\n");
  EXPECT_EQ(r.err, "");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m, std::regex("\nMatrix singular in decouple\\.\n   Effective rank: 3, "
                                                      "condition: ([0-9]+\\.[0-9]{6})\n")))
      << r.out;
  EXPECT_GE(std::stod(m[1]), 1.0);
  const std::vector<Vec3> pos = headfit::final_positions(r.out);
  ASSERT_EQ(pos.size(), 2u) << r.out;
  for (const Vec3 &p : pos) EXPECT_LT(distance(truth, p[0], p[1], p[2]), 0.01);
  const MatrixFile sol = read("sol.mat", 6, 1);
  for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, 1) + sol.at(c + 3, 1), (c == 1 ? 1.0 : c == 2 ? -0.5 : 0.3), 0.02);
}

// A start near the surface violates the bound of -d 50: the run warns once
// (not once per moving sample) and fits all the same.
TEST_F(Inverse, StartsAgainstTheCompartmentBounds) {
  const Vec3 truth = {0.3, 0.2, 0.4};
  save(data_of(transfer({truth}), {{1.0, -0.5, 0.3}, {0.5, -0.25, 0.15}, {-1.0, 0.5, -0.3}}));
  for (bool moving : {false, true}) {
    SCOPED_TRACE(moving ? "moving" : "stationary");
    const ProcResult r = fit({{0.0, 0.0, 0.97}}, moving ? "1 position moving\n" : "1 position stationary\n",
                             "sol.mat\n\n\n", {"-d", "50"});
    EXPECT_EQ(r.err, "\nWarning: not all initial estimated source parameters\n"
                     "  comply to the compartment related constraints!\n\n");
    const MatrixFile sol = read("sol.mat", moving ? 6 : 3, 3);
    const std::vector<Vec3> pos = headfit::final_positions(r.out);
    for (int t = 1; t <= 3; t++) {
      const Vec3 p = moving ? Vec3{sol.at(4, t), sol.at(5, t), sol.at(6, t)} : pos.empty() ? Vec3{} : pos[0];
      EXPECT_LT(distance(truth, p[0], p[1], p[2]), 0.01) << "sample " << t;
    }
  }
}

// Fits to data with fresh white noise, again and again: the deviations
// reported for the position (the ".sd" companion of the position file) and
// for the strengths of sample 1 must describe the spread of the fits, which
// must show no bias beyond what that spread allows.  One sample (the
// covariance of all parameters together) and twelve (in blocks).  A radius
// of 9 units keeps the fit's internal rescaling far from 1, so that a
// deviation not scaled back stands out.
TEST_F(Inverse, ReportedDeviationsDescribeTheSpreadOfRepeatedFits) {
  const double R = 9.0;
  sphere(R);
  const Vec3 truth = {0.3 * R, 0.2 * R, 0.4 * R};
  const MatrixFile t = transfer({truth});
  const int runs = 30;
  auto moment = [](int s) { return std::vector<double>{1.0 - 0.05 * s, -0.6 + 0.1 * s, 0.4 + 0.03 * s}; };
  for (int ntim : {1, 12}) {
    SCOPED_TRACE(std::to_string(ntim) + " samples");
    Rows moments;
    for (int s = 0; s < ntim; s++) moments.push_back(moment(s));
    const Rows clean = data_of(t, moments);
    double peak = 0;
    for (const auto &row : clean)
      for (double v : row) peak = std::max(peak, std::fabs(v));
    std::mt19937 rng(20240611 + ntim);
    std::normal_distribution<double> gauss(0, 0.04 * peak);
    std::vector<double> fitted[6], reported[6];
    for (int n = 0; n < runs; n++) {
      Rows data = clean;
      for (auto &row : data)
        for (double &v : row) v += gauss(rng);
      save(data);
      const ProcResult r = fit({add(truth, headfit::unit({1, 1, -1}), 0.12 * R)}, "1 position stationary\n",
                               "sol.mat\n\nfit.pos\n");
      ASSERT_EQ(r.status, 0);
      const std::vector<double> pos = first_source_line(read_file(dir.file("fit.pos")));
      const std::vector<double> pos_sd = first_source_line(read_file(dir.file("fit.pos.sd")));
      const MatrixFile sol = read("sol.mat", 3, ntim), sd = read("sol.mat.sd", 3, ntim);
      ASSERT_TRUE(pos.size() == 3 && pos_sd.size() == 3);
      for (int k = 0; k < 3; k++) {
        fitted[k].push_back(pos[k]), reported[k].push_back(pos_sd[k]);
        fitted[3 + k].push_back(sol.at(k + 1, 1)), reported[3 + k].push_back(sd.at(k + 1, 1));
      }
    }
    for (int k = 0; k < 6; k++) {
      SCOPED_TRACE(k < 3 ? "position " + std::to_string(k) : "moment " + std::to_string(k - 3));
      double mean = 0, said = 0, spread = 0;
      for (int n = 0; n < runs; n++) mean += fitted[k][n] / runs, said += reported[k][n] / runs;
      for (double v : fitted[k]) spread += (v - mean) * (v - mean) / (runs - 1);
      spread = std::sqrt(spread);
      EXPECT_GT(spread, 0);
      EXPECT_LT(said, 2 * spread);
      EXPECT_GT(said, 0.5 * spread);
      EXPECT_NEAR(mean, k < 3 ? truth[k] : moment(0)[k - 3], 4 * spread / std::sqrt((double)runs) + 1e-3);
    }
  }
}

}  // namespace
