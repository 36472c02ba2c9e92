// Whole-program inverse jobs on a sphere: data made with the program's own
// forward model are fitted back (mirrored pair, fixed, moving, stationary),
// with one exact transcript, the files written, the printed measures against
// residuals computed here, and the reported deviations against the spread.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/head_fit.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

using Rows = std::vector<std::vector<double>>;
using headfit::add;

double distance(const Vec3 &a, double x, double y, double z) { return headfit::norm(add(a, {x, y, z}, -1)); }

// Matches `out` whole against `pattern`: literal text in which '#' stands
// for a printed decimal number and '*' for any number of the fitter's step
// lines.  Returns the numbers in order (none and a failure on a mismatch).
std::vector<double> numbers_in(const std::string &out, const std::string &pattern) {
  std::string re;
  for (char c : pattern) {
    if (c == '#') re += "(-?[0-9]+\\.[0-9]+)";
    else if (c == '*') re += "(?:At step [0-9]+ the relative residual is [0-9.]+\n(?:LU: condition = [0-9.]+\n)?)*";
    else re += std::string(strchr("\\^$.|?+()[]{}", c) ? "\\" : "") + c;
  }
  std::smatch m;
  std::vector<double> v;
  if (!std::regex_match(out, m, std::regex(re))) ADD_FAILURE() << "transcript differs:\n" << out;
  for (size_t k = 1; k < m.size(); k++) v.push_back(std::stod(m[k]));
  return v;
}

// A %6.3f number printed after `label` at the end of its line; NaN when missing.
double printed_value(const std::string &out, const std::string &label) {
  const size_t at = out.find(label);
  const bool ok = at != std::string::npos && out.compare(at + label.size() + 6, 1, "\n") == 0;
  return ok ? std::stod(out.substr(at + label.size(), 6)) : NAN;
}

// The numbers a position file starts with: the count, then per source its
// number, x, y, z and (stationary orientation) two angles.
std::vector<double> numbers_of(const std::string &path) {
  std::istringstream in(read_file(path));
  std::vector<double> v;
  for (double x; in >> x;) v.push_back(x);
  return v;
}

class Inverse : public testing::Test {
 protected:
  void SetUp() override { sphere(1.0); }
  void sphere(double radius) { ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(2, radius), false)); }

  // Transfer matrix of the program itself for sources at `pos`.
  MatrixFile transfer(const std::vector<Vec3> &pos) {
    write_file(dir.file("true.pos"), headfit::position_file(pos, ""));
    EXPECT_EQ(run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n").status, 0);
    return read("true.mat", -1, 3 * (int)pos.size());
  }

  // data[e][s] = sum over c of t[e][c] moments[s][c] + offset[s].
  static Rows data_of(const MatrixFile &t, const Rows &moments, const std::vector<double> &offset = {}) {
    Rows data(t.rows, std::vector<double>(moments.size()));
    for (int e = 1; e <= t.rows; e++)
      for (size_t s = 0; s < moments.size(); s++) {
        data[e - 1][s] = offset.empty() ? 0 : offset[s];
        for (int c = 1; c <= t.cols; c++) data[e - 1][s] += t.at(e, c) * moments[s].at(c - 1);
      }
    return data;
  }

  // Writes data.mat (with a sample frequency unless `freq` is false) and
  // returns the values as stored.
  Rows save(Rows data, bool freq = true) {
    for (auto &row : data)
      for (double &v : row) v = (float)v;
    EXPECT_TRUE(headfit::write_data(dir.file("data.mat"), data, freq ? "sample freq\n500 Hz\n" : ""));
    return data;
  }

  // `data` plus white noise of `level` times its largest magnitude.
  static Rows noisy(Rows data, double level, std::mt19937 &rng) {
    double peak = 0;
    for (const auto &row : data)
      for (double v : row) peak = std::max(peak, fabs(v));
    std::normal_distribution<double> gauss(0, level * peak);
    for (auto &row : data)
      for (double &v : row) v += gauss(rng);
    return data;
  }

  ProcResult fit(const std::vector<Vec3> &start, const std::string &constraints, const std::string &later) {
    write_file(dir.file("start.pos"), headfit::position_file(start, constraints));
    const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\n" + later);
    EXPECT_TRUE(r.status == 0 && r.err.empty()) << r.err << r.out;
    return r;
  }

  // A matrix file of the run (rows -1: any number); NaN-filled when missing
  // or of another size.
  MatrixFile read(const std::string &name, int rows, int cols) {
    MatrixFile m;
    if (read_matrix_file(dir.file(name), m) && (rows < 0 || m.rows == rows) && m.cols == cols) return m;
    ADD_FAILURE() << name << ": " << m.rows << " x " << m.cols;
    return {std::max(rows, 0), cols, std::vector<float>((size_t)std::max(rows, 0) * cols, NAN), ""};
  }

  TempDir dir;
};

// A pair mirrored in the plane x = 0.05, of stationary positions and
// orientations, started 15 % of the radius away: the transcript from the
// source question on (one strength per source and sample, the directions in
// degrees), and every file written.
TEST_F(Inverse, SymmetricPairTranscriptAndFiles) {
  const std::vector<Vec3> truth = {{0.35, 0.2, 0.3}, {-0.25, 0.2, 0.3}};
  // Both along theta 60, alfa 30 degrees, the second mirrored.
  const double amp[2][3] = {{1.0, 0.5, 2.0}, {0.6, -0.8, 1.2}}, u[3] = {0.75, sqrt(3.0) / 4, 0.5};
  Rows moments(3);
  for (int s = 0; s < 3; s++)
    for (int c = 0; c < 6; c++) moments[s].push_back(amp[c / 3][s] * u[c % 3] * (c == 3 ? -1 : 1));
  save(data_of(transfer(truth), moments));
  const ProcResult r = fit({{0.45, 0.1, 0.35}, {-0.35, 0.1, 0.35}},
                           "1 position stationary orientation stationary\n2 symmetric to 1\n",
                           "sol.mat\nfwd.mat\nfit.pos\n");
  const size_t from = r.out.find("\nSource position file: ");
  ASSERT_NE(from, std::string::npos) << r.out;
  const std::vector<double> v = numbers_in(
      r.out.substr(from),
      "\nSource position file: start.pos defines 2 sources\n\nMeasured potential data: "
      "\nFilename for inverse solution source parameters: \n" +
          countdown(" Bmat countdown:%5d\r", 162, 1) + "\n" + countdown("Ludec countdown:%5d\r", 162, 2) +
          "\nEstimated condition of B: #\n\nSource  1 is located within sphere.tri\n"
          "Source  2 is located within sphere.tri\n"
          "Condition of linear inverse: #\nCondition of linear inverse: #\n"  // again with the first direction
          "Relative difference first estimate: #\n*Dat fit as 'n beer! #\nCondition in decouple: #\n # # #\n # # #\n"
          "final positions:  (  #,   #,   #)\n                  ( #,   #,   #)\n"
          "final directions: ( #,  #)\n                  ( #, #)\n Relative difference final solution : #\n"
          "Corresponds to rms noise in data of : #\nSD of source parameters saved in file sol.mat.sd\n"
          "Filename for forward potential data: Filename for source position: \n"
          "Standard deviation of source positions saved in file fit.pos.sd\n\n");
  ASSERT_EQ(v.size(), 24u);  // conditions, measures, strengths, positions, directions, measures
  EXPECT_GT(v[3], 0.05);     // the start is off
  for (int s = 0; s < 3; s++) EXPECT_TRUE(fabs(v[6 + s] - amp[0][s]) < 0.03 && fabs(v[9 + s] - amp[1][s]) < 0.03) << s;
  EXPECT_LT(distance(truth[0], v[12], v[13], v[14]), 0.01);
  EXPECT_TRUE(fabs(v[15] - (0.1 - v[12])) < 2e-4 && v[16] == v[13] && v[17] == v[14]);
  EXPECT_TRUE(fabs(v[18] - 60) < 1 && fabs(v[19] - 30) < 1 && v[20] == v[18] && fabs(v[21] - (180 - v[19])) < 2e-4);
  EXPECT_LE(v[22], 0.002);
  EXPECT_LE(v[23], 0.001);

  const MatrixFile sol = read("sol.mat", 2, 3), sd = read("sol.mat.sd", 2, 3), fwd = read("fwd.mat", 162, 3);
  EXPECT_EQ(sol.tail, "sample frequency\n500 Hz\n");
  for (int s = 1; s <= 3; s++) EXPECT_TRUE(fabs(sol.at(1, s) - v[5 + s]) < 1e-6 && fabs(sol.at(2, s) - v[8 + s]) < 1e-6);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      sd.tail, m,
      std::regex("sample frequency\n500 Hz\nStandard deviations assuming [0-9]+\\.[0-9]{6} rms white noise in data\n"
                 "which corresponds to the relative difference found \\(([0-9]+\\.[0-9]{6})\\)\n")))
      << sd.tail;
  EXPECT_LE(std::stod(m[1]), 0.002);
  EXPECT_EQ(fwd.tail, "sample frequency:\n500\ngeometry file:\n   1- 162: sphere.tri\n");
  char line[200];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f %8.4f %8.4f\n   2 %7.4f %7.4f %7.4f %8.4f %8.4f\n", v[12], v[13],
           v[14], v[18], v[19], v[15], v[16], v[17], v[20], v[21]);
  EXPECT_EQ(read_file(dir.file("fit.pos")), "   2\n" + std::string(line) +
                                                "   1  position stationar  orientation stationar\n"
                                                "   2  position symmetric to 1  orientation symmetric to 1\n");
  EXPECT_TRUE(std::regex_match(read_file(dir.file("fit.pos.sd")),
                               std::regex("   2\n   1( +[0-9]+\\.[0-9]{4}){5}\n   2( +0\\.0000){5}\n\nStandard "
                                          "deviations assuming [^\n]*\nwhich corresponds[^\n]*\n")))
      << read_file(dir.file("fit.pos.sd"));
}

// A mirrored source that states its own stationary orientation while its
// partner's is free keeps its own counts: one strength (taken as the first
// of a free moment's components, x) and two angles that nothing uses.
// So the solution has 3 + 1 rows, and noise-free data of such a pair give
// both positions back.
TEST_F(Inverse, MirroredSourceKeepsItsOwnParameterCounts) {
  const std::vector<Vec3> truth = {{0.3, 0.2, 0.25}, {-0.3, 0.2, 0.25}};
  const Rows moments = {{1.0, -0.5, 0.8, 0.7, 0, 0}, {-0.4, 1.2, 0.3, -1.1, 0, 0}};
  save(data_of(transfer(truth), moments));
  const ProcResult r = fit({{0.4, 0.1, 0.32}, {-0.4, 0.1, 0.32}},
                           "1 position stationary\n2 position symmetric to 1 orientation stationary\n",
                           "sol.mat\n\nfit.pos\n");
  const MatrixFile sol = read("sol.mat", 4, 2);
  for (int t = 1; t <= 2; t++)
    for (int j = 1; j <= 4; j++) EXPECT_NEAR(sol.at(j, t), moments[t - 1][j - 1], 0.01) << j << " " << t;
  const std::vector<double> p = numbers_of(dir.file("fit.pos"));
  ASSERT_GE(p.size(), 9u) << r.out;
  EXPECT_LT(distance(truth[0], p[2], p[3], p[4]), 0.005);
  EXPECT_LT(distance(truth[1], p[6], p[7], p[8]), 0.005);
  EXPECT_NE(read_file(dir.file("fit.pos")).find("   2  position symmetric to 1  orientation free\n"), std::string::npos);
}

// A fixed position, noisy data with an offset on every sample and no sample
// frequency: the solution against the least-squares condition and the
// printed measures against residuals computed here; an empty answer writes
// no forward potentials.
TEST_F(Inverse, FixedFitMeasuresAgainstAnIndependentResidual) {
  const MatrixFile t = transfer({{0.1, -0.3, 0.5}});
  std::mt19937 rng(3);
  const Rows data = save(noisy(data_of(t, {{1.0, 0.5, -0.7}, {-0.4, 0.9, 0.2}, {0.3, 0.3, 0.3}, {0.8, -0.2, 0.1}},
                                       {0.5, -0.3, 0.2, 1.0}), 0.03, rng), false);
  const ProcResult r = fit({{0.1, -0.3, 0.5}}, "1 position fixed\n", "sol.mat\n\n");
  EXPECT_EQ(r.out.find("final"), std::string::npos);
  const int nel = t.rows, ntim = 4;
  const MatrixFile sol = read("sol.mat", 3, ntim);
  EXPECT_EQ(sol.tail, "sample frequency\nunknown\n");
  EXPECT_FALSE(file_exists(dir.file("fwd.mat")));

  // Referenced data and residual in double precision; a least-squares
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
  EXPECT_NEAR(printed_value(r.out, "Relative difference in respect to original (unshifted) data:"), rd * sqrt(A / B),
              0.0015);
}

// One moving dipole (the kind chosen at the constraint question) over four
// samples, each made at its own position, the second all zero: that sample
// keeps the start exactly; the fitted potentials carry the offsets again.
TEST_F(Inverse, MovingDipoleFollowsEverySample) {
  const std::vector<Vec3> truth = {{0.3, 0.2, 0.4}, {0.35, 0.15, 0.35}, {0.25, 0.25, 0.45}}, start = {{0.4, 0.1, 0.45}};
  const int made_at[4] = {0, -1, 1, 2};
  const double m[4][3] = {{1.0, -0.5, 0.3}, {0, 0, 0}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  Rows moments(4, std::vector<double>(9, 0.0));
  for (int s = 0; s < 4; s++)
    for (int c = 0; c < 3 && made_at[s] >= 0; c++) moments[s][3 * made_at[s] + c] = m[s][c];
  const MatrixFile t = transfer(truth);
  const Rows data = save(data_of(t, moments, {0.1, 0.0, 0.1, 0.1}));
  const ProcResult r = fit(start, "", "x\nmoving\nsol.mat\nfwd.mat\n");
  const std::string kind = "\nSource constraint [ Fixed / Stationary / Moving ]: ";
  EXPECT_TRUE(r.out.find("\nMeasured potential data: " + kind + kind + "\nFilename for inverse") != std::string::npos &&
              r.out.find("moving inverse countdown:    3\rmoving inverse countdown:    2\rmoving inverse countdown:    1\r"
                         "moving inverse countdown:    0\r Relative difference final solution : 0.00") != std::string::npos)
      << r.out;
  const MatrixFile sol = read("sol.mat", 6, 4), fwd = read("fwd.mat", t.rows, 4);
  for (int s = 1; s <= 4; s++) {
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
    const Vec3 want = made_at[s - 1] < 0 ? start[0] : truth[made_at[s - 1]];
    EXPECT_LT(distance(want, sol.at(4, s), sol.at(5, s), sol.at(6, s)), made_at[s - 1] < 0 ? 2e-5 : 0.01) << s;
  }
  double peak = 0;
  for (const auto &row : data) peak = std::max(peak, fabs(row[0] - 0.1));
  for (int e = 1; e <= t.rows; e++)
    for (int s = 1; s <= 4; s++) ASSERT_NEAR(fwd.at(e, s), data[e - 1][s - 1], 0.01 * peak) << e << "," << s;
}

// Fits to data with fresh white noise, again and again: the deviations
// reported for the position (fit.pos.sd) and the strengths of sample 1 must
// describe the spread of the fits, which shows no bias beyond what that
// spread allows.  One sample (all parameters together) and twelve (in
// blocks).  A radius of 9 keeps the fit's internal rescaling far from 1, so
// that a deviation not scaled back stands out.
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
    std::mt19937 rng(20240611 + ntim);
    std::vector<double> fitted[6], reported[6];
    for (int n = 0; n < runs; n++) {
      save(noisy(clean, 0.04, rng));
      fit({add(truth, headfit::unit({1, 1, -1}), 0.12 * R)}, "1 position stationary\n", "sol.mat\n\nfit.pos\n");
      const std::vector<double> pos = numbers_of(dir.file("fit.pos")), pos_sd = numbers_of(dir.file("fit.pos.sd"));
      const MatrixFile sol = read("sol.mat", 3, ntim), sd = read("sol.mat.sd", 3, ntim);
      for (int k = 0; k < 3; k++) {
        fitted[k].push_back(pos.at(2 + k)), reported[k].push_back(pos_sd.at(2 + k));
        fitted[3 + k].push_back(sol.at(k + 1, 1)), reported[3 + k].push_back(sd.at(k + 1, 1));
      }
    }
    for (int k = 0; k < 6; k++) {
      double mean = 0, said = 0, spread = 0;
      for (int n = 0; n < runs; n++) mean += fitted[k][n] / runs, said += reported[k][n] / runs;
      for (double v : fitted[k]) spread += (v - mean) * (v - mean) / (runs - 1);
      spread = std::sqrt(spread);
      EXPECT_TRUE(said > 0.5 * spread && said < 2 * spread) << k << ": said " << said << " spread " << spread;
      EXPECT_NEAR(mean, k < 3 ? truth[k] : moment(0)[k - 3], 4 * spread / std::sqrt((double)runs) + 1e-3) << k;
    }
  }
}

}  // namespace
