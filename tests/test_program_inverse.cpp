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
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

const double RADIUS = 1.0;

struct Vec {
  double x, y, z;
};

std::string position_file(const std::vector<Vec> &pos, const std::string &constraints) {
  std::string s = std::to_string(pos.size()) + "\n";
  char line[128];
  for (size_t k = 0; k < pos.size(); k++) {
    snprintf(line, sizeof line, "%zu %.6f %.6f %.6f\n", k + 1, pos[k].x, pos[k].y, pos[k].z);
    s += line;
  }
  return s + constraints;
}

// The numbers of a "%8.4f, %8.4f, ..." group, each field checked for its
// width and its four decimals.
std::vector<double> fields(const std::string &group) {
  std::vector<double> v;
  size_t start = 0;
  while (start <= group.size()) {
    size_t comma = group.find(", ", start);
    std::string f = group.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    EXPECT_TRUE(std::regex_match(f, std::regex(" *-?[0-9]+\\.[0-9]{4}"))) << "field '" << f << "'";
    EXPECT_GE(f.size(), 8u) << "field '" << f << "'";
    v.push_back(std::stod(f));
    if (comma == std::string::npos) break;
    start = comma + 2;
  }
  return v;
}

double distance(const Vec &a, double x, double y, double z) {
  return std::sqrt((a.x - x) * (a.x - x) + (a.y - y) * (a.y - y) + (a.z - z) * (a.z - z));
}

// A %6.3f number printed after `label`, or NaN when the line is missing.
double printed_value(const std::string &out, const std::string &label) {
  size_t at = out.find(label);
  if (at == std::string::npos) return NAN;
  std::string rest = out.substr(at + label.size(), 6);
  EXPECT_EQ(out.substr(at + label.size() + 6, 1), "\n") << label;
  return std::stod(rest);
}

class Inverse : public testing::Test {
 protected:
  void SetUp() override {
    mesh = icosphere(2, RADIUS);
    ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), mesh, false));
    nvert = (int)mesh.pnt.size();
  }

  // Transfer matrix of the program itself for sources at `pos`.
  MatrixFile transfer(const std::vector<Vec> &pos) {
    write_file(dir.file("true.pos"), position_file(pos, ""));
    ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    EXPECT_EQ(r.status, 0) << r.err;
    MatrixFile t;
    EXPECT_TRUE(read_matrix_file(dir.file("true.mat"), t));
    EXPECT_EQ(t.cols, 3 * (int)pos.size());
    return t;
  }

  // data[e][t] = sum over columns c of trans[e][c] * moments[t][c], plus
  // offset[t] on every electrode; written with a sample-frequency item
  // unless `freq` is false.
  std::vector<std::vector<double>> write_data(const MatrixFile &t, const std::vector<std::vector<double>> &moments,
                                              const std::vector<double> &offset, bool freq = true,
                                              double noise = 0) {
    int ntim = (int)moments.size();
    std::vector<std::vector<double>> data(t.rows, std::vector<double>(ntim));
    float **m = matrix(1, t.rows, 1, ntim);
    std::mt19937 rng(3);
    std::normal_distribution<double> gauss(0, 1);
    for (int e = 1; e <= t.rows; e++)
      for (int s = 1; s <= ntim; s++) {
        double v = offset[s - 1];
        for (int c = 1; c <= t.cols; c++) v += t.at(e, c) * moments[s - 1][c - 1];
        v += noise * gauss(rng);
        m[e][s] = (float)v;
        data[e - 1][s - 1] = m[e][s];
      }
    const std::string tail = freq ? "sample freq\n500 Hz\n" : "";
    EXPECT_EQ(binputtailmatrix(dir.file("data.mat").c_str(), m, t.rows, ntim, (int)tail.size(), tail.data()), 1);
    free_matrix(m, 1, t.rows, 1, ntim);
    return data;
  }

  ProcResult fit(const std::vector<Vec> &start, const std::string &constraints, const std::string &later) {
    write_file(dir.file("start.pos"), position_file(start, constraints));
    return run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\n" + later);
  }

  TempDir dir;
  TriMesh mesh;
  int nvert = 0;
};

// One free-oriented dipole with a stationary position, started 15 % of the
// radius away from where the data were made.
TEST_F(Inverse, StationaryDipoleIsFoundAndEveryFileWritten) {
  const Vec truth = {0.3, 0.2, 0.4};
  MatrixFile t = transfer({truth});
  const std::vector<std::vector<double>> moments = {{1.0, -0.5, 0.3}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  write_data(t, moments, {0.0, 0.0, 0.0});
  ProcResult r = fit({{truth.x + 0.1, truth.y - 0.1, truth.z + 0.05}}, "1 position stationary\n",
                     "sol.mat\nfwd.mat\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");

  EXPECT_NE(r.out.find("\nFilename for inverse solution source parameters: \n"), std::string::npos);
  EXPECT_LT(printed_value(r.out, "Relative difference first estimate:"), 1.0);
  // The end of the transcript, field by field.
  std::smatch m;
  std::regex end(
      "\n(( -?[0-9]+\\.[0-9]{6}){3}\n){3}"
      "final position:  \\(([^)]*)\\)\n"
      " Relative difference final solution :([ 0-9.]{6})\n"
      "Corresponds to rms noise in data of :([ 0-9.]{6})\n"
      "SD of source parameters saved in file sol\\.mat\\.sd\n"
      "Filename for forward potential data: "
      "Filename for source position: "
      "\nStandard deviation of source position saved in file fit\\.pos\\.sd\n\n$");
  ASSERT_TRUE(std::regex_search(r.out, m, end)) << r.out;
  std::vector<double> pos = fields(m[3]);
  ASSERT_EQ(pos.size(), 3u);
  EXPECT_LT(distance(truth, pos[0], pos[1], pos[2]), 0.01 * RADIUS);
  EXPECT_LE(std::stod(m[4]), 0.002);
  EXPECT_LE(std::stod(m[5]), 0.001);

  // Strengths: nlpar rows by samples, with the sample frequency.
  MatrixFile sol, sd, fwd;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  EXPECT_EQ(sol.rows, 3);
  EXPECT_EQ(sol.cols, 3);
  EXPECT_EQ(sol.tail, "sample frequency\n500 Hz\n");
  for (int s = 1; s <= 3; s++)
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), moments[s - 1][c - 1], 0.03) << c << "," << s;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
  EXPECT_EQ(sd.rows, 3);
  EXPECT_EQ(sd.cols, 3);
  std::regex sdtail(
      "sample frequency\n500 Hz\nStandard deviations assuming [0-9]+\\.[0-9]{6} rms white noise in data\n"
      "which corresponds to the relative difference found \\(([0-9]+\\.[0-9]{6})\\)\n");
  ASSERT_TRUE(std::regex_match(sd.tail, m, sdtail)) << sd.tail;
  EXPECT_LE(std::stod(m[1]), 0.002);
  // Fitted potentials: the data again.
  ASSERT_TRUE(read_matrix_file(dir.file("fwd.mat"), fwd));
  EXPECT_EQ(fwd.rows, nvert);
  EXPECT_EQ(fwd.cols, 3);
  EXPECT_EQ(fwd.tail, "sample frequency:\n500\ngeometry file:\n   1- 162: sphere.tri\n");

  // The fitted positions read back as a source file.
  std::string posfile = read_file(dir.file("fit.pos"));
  char line[128];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f\n", pos[0], pos[1], pos[2]);
  EXPECT_EQ(posfile, "   1\n" + std::string(line) + "   1  position stationar  orientation free\n");
  int n = 0, kind = -1;
  SourceRecord *table = nullptr;
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(dir.file("fit.pos").c_str(), &n, &table, &kind), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(n, 1);
  EXPECT_EQ(kind, 1);
  EXPECT_EQ(table[0].pos_mode, 1u);
  EXPECT_LT(distance(truth, table[0].x, table[0].y, table[0].z), 0.01 * RADIUS);
  free(table);
  std::string sdpos = read_file(dir.file("fit.pos.sd"));
  EXPECT_TRUE(std::regex_match(sdpos, std::regex("   1\n   1( +-?[0-9]+\\.[0-9]{4}){3}\n\nStandard deviations "
                                                 "assuming [^\n]*\nwhich corresponds[^\n]*\n")))
      << sdpos;
}

// Fixed positions: only the linear estimate, which reproduces the moments;
// data without a sample frequency.
TEST_F(Inverse, FixedPositionsGiveTheLinearEstimateOnly) {
  const std::vector<Vec> truth = {{0.3, 0.2, 0.4}, {-0.2, -0.3, 0.1}};
  MatrixFile t = transfer(truth);
  const std::vector<std::vector<double>> moments = {{1.0, -0.5, 0.3, 0.2, 0.4, -0.6}, {0.5, 0.5, 0.5, -1, 0, 1}};
  write_data(t, moments, {0.0, 0.0}, false);
  ProcResult r = fit(truth, "1 position fixed\n2 position fixed\n", "sol.mat\nfwd.mat\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_NE(r.out.find("Relative difference: 0.000\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("first estimate"), std::string::npos);
  EXPECT_EQ(r.out.find("final solution"), std::string::npos);
  EXPECT_EQ(r.out.find("final position"), std::string::npos);
  EXPECT_EQ(r.out.find("Filename for source position: "), std::string::npos);
  std::string end =
      "Corresponds to rms noise in data of : 0.000\nSD of source parameters saved in file sol.mat.sd\n"
      "Filename for forward potential data: \n";
  ASSERT_GE(r.out.size(), end.size());
  EXPECT_EQ(r.out.substr(r.out.size() - end.size()), end) << r.out;

  MatrixFile sol, sd;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 6);
  ASSERT_EQ(sol.cols, 2);
  EXPECT_EQ(sol.tail, "sample frequency\nunknown\n");
  for (int s = 1; s <= 2; s++)
    for (int c = 1; c <= 6; c++) EXPECT_NEAR(sol.at(c, s), moments[s - 1][c - 1], 2e-3) << c << "," << s;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
  EXPECT_EQ(sd.rows, 6);
  EXPECT_EQ(sd.tail.substr(0, 25), "sample frequency\nunknown\n") << sd.tail;
  MatrixFile fwd;
  ASSERT_TRUE(read_matrix_file(dir.file("fwd.mat"), fwd));
  EXPECT_EQ(fwd.tail, "sample frequency:\nunknown\ngeometry file:\n   1- 162: sphere.tri\n");
}

// Noisy data with an offset on every sample: the printed measures against a
// least-squares fit and residuals computed here.
TEST_F(Inverse, FixedFitMeasuresAgainstAnIndependentResidual) {
  const std::vector<Vec> truth = {{0.1, -0.3, 0.5}};
  MatrixFile t = transfer(truth);
  const std::vector<std::vector<double>> moments = {{1.0, 0.5, -0.7}, {-0.4, 0.9, 0.2}, {0.3, 0.3, 0.3},
                                                    {0.8, -0.2, 0.1}};
  const std::vector<double> offset = {0.5, -0.3, 0.2, 1.0};
  double peak = 0;
  for (float v : t.values) peak = std::max(peak, (double)fabsf(v));
  auto data = write_data(t, moments, offset, true, 0.03 * peak);
  ProcResult r = fit(truth, "1 position fixed\n", "sol.mat\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 3);
  ASSERT_EQ(sol.cols, 4);

  // Referenced data, model and residual in double precision.
  const int nel = t.rows, ntim = 4;
  double R = 0, A = 0, B = 0;
  std::vector<std::vector<double>> res(nel, std::vector<double>(ntim));
  for (int s = 0; s < ntim; s++) {
    double mean = 0;
    for (int e = 0; e < nel; e++) mean += data[e][s];
    mean /= nel;
    for (int e = 0; e < nel; e++) {
      double psi = data[e][s] - mean, model = 0;
      for (int c = 1; c <= 3; c++) model += t.at(e + 1, c) * sol.at(c, s + 1);
      res[e][s] = psi - model;
      R += res[e][s] * res[e][s];
      A += psi * psi;
      B += data[e][s] * data[e][s];
    }
  }
  // A least-squares solution leaves a residual orthogonal to the columns.
  for (int s = 0; s < ntim; s++)
    for (int c = 1; c <= 3; c++) {
      double dot = 0, norm = 0, rn = 0;
      for (int e = 0; e < nel; e++) {
        dot += t.at(e + 1, c) * res[e][s];
        norm += t.at(e + 1, c) * t.at(e + 1, c);
        rn += res[e][s] * res[e][s];
      }
      EXPECT_LT(fabs(dot), 1e-3 * sqrt(norm * rn)) << "column " << c << " sample " << s;
    }
  double rd = sqrt(R / A);
  EXPECT_GT(rd, 0.01);
  EXPECT_NEAR(printed_value(r.out, "Relative difference:"), rd, 0.0015) << r.out;
  EXPECT_NEAR(printed_value(r.out, "Corresponds to rms noise in data of :"), sqrt(R / nel / ntim), 0.0015);
  // The offsets make the unshifted data much larger: the extra line shows.
  EXPECT_NEAR(printed_value(r.out, "Relative difference in respect to original (unshifted) data:"),
              rd * sqrt(A / B), 0.0015)
      << r.out;
  // Standard deviations: sqrt of the diagonal of (T'T)^-1, times the
  // strength itself, times the rms residual.
  double g[3][3] = {};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      for (int e = 1; e <= nel; e++) g[i][j] += (double)t.at(e, i + 1) * t.at(e, j + 1);
  double det = g[0][0] * (g[1][1] * g[2][2] - g[1][2] * g[2][1]) - g[0][1] * (g[1][0] * g[2][2] - g[1][2] * g[2][0]) +
               g[0][2] * (g[1][0] * g[2][1] - g[1][1] * g[2][0]);
  const double inv_diag[3] = {(g[1][1] * g[2][2] - g[1][2] * g[2][1]) / det,
                              (g[0][0] * g[2][2] - g[0][2] * g[2][0]) / det,
                              (g[0][0] * g[1][1] - g[0][1] * g[1][0]) / det};
  MatrixFile sd;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
  ASSERT_EQ(sd.rows, 3);
  ASSERT_EQ(sd.cols, 4);
  const double rms = sqrt(R / nel / ntim);
  for (int s = 1; s <= ntim; s++)
    for (int j = 1; j <= 3; j++) {
      double want = sqrt(inv_diag[j - 1]) * sol.at(j, s) * rms;
      EXPECT_NEAR(sd.at(j, s), want, 2e-3 * fabs(want) + 1e-9) << j << "," << s;
    }
  // An empty answer writes no forward potentials.
  EXPECT_FALSE(file_exists(dir.file("fwd.mat")));
}

// One moving dipole over four samples, each made at its own position, the
// second of them all zero.  Every sample starts from the same estimate, so
// the zero sample, which gives the fit nothing to improve, keeps exactly the
// start position.
TEST_F(Inverse, MovingDipoleFollowsEverySample) {
  const std::vector<Vec> truth = {{0.3, 0.2, 0.4}, {0.35, 0.15, 0.35}, {0.25, 0.25, 0.45}};
  const Vec start = {0.4, 0.1, 0.45};
  MatrixFile t = transfer(truth);
  // Sample columns: truth 1, nothing, truth 2, truth 3.
  const int made_at[4] = {0, -1, 1, 2};
  const double m[4][3] = {{1.0, -0.5, 0.3}, {0, 0, 0}, {0.6, 0.2, -0.4}, {-0.2, 0.8, 0.5}};
  std::vector<std::vector<double>> moments(4, std::vector<double>(9, 0.0));
  for (int s = 0; s < 4; s++)
    if (made_at[s] >= 0)
      for (int c = 0; c < 3; c++) moments[s][3 * made_at[s] + c] = m[s][c];
  const std::vector<double> offset = {0.1, 0.0, 0.1, 0.1};
  auto data = write_data(t, moments, offset);
  double peak = 0;
  for (const auto &row : data)
    for (int s = 0; s < 4; s++) peak = std::max(peak, fabs(row[s] - offset[s]));
  ProcResult r = fit({start}, "1 position moving\n", "sol.mat\nfwd.mat\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_NE(r.out.find("Relative difference first estimate:"), std::string::npos);
  EXPECT_NE(r.out.find("moving inverse countdown:    3\rmoving inverse countdown:    2\r"
                       "moving inverse countdown:    1\rmoving inverse countdown:    0\r"
                       " Relative difference final solution : 0.00"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("final position"), std::string::npos);
  EXPECT_EQ(r.out.find("Filename for source position: "), std::string::npos);

  MatrixFile sol, sd;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 6);
  ASSERT_EQ(sol.cols, 4);
  for (int s = 1; s <= 4; s++) {
    for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
    if (made_at[s - 1] < 0) {
      EXPECT_NEAR(sol.at(4, s), start.x, 1e-5);
      EXPECT_NEAR(sol.at(5, s), start.y, 1e-5);
      EXPECT_NEAR(sol.at(6, s), start.z, 1e-5);
    } else {
      EXPECT_LT(distance(truth[made_at[s - 1]], sol.at(4, s), sol.at(5, s), sol.at(6, s)), 0.01 * RADIUS)
          << "sample " << s;
    }
  }
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
  EXPECT_EQ(sd.rows, 6);
  EXPECT_EQ(sd.cols, 4);
  // The fitted potentials carry the removed offsets again.
  MatrixFile fwd;
  ASSERT_TRUE(read_matrix_file(dir.file("fwd.mat"), fwd));
  ASSERT_EQ(fwd.rows, t.rows);
  ASSERT_EQ(fwd.cols, 4);
  for (int e = 1; e <= t.rows; e++)
    for (int s = 1; s <= 4; s++) ASSERT_NEAR(fwd.at(e, s), data[e - 1][s - 1], 0.01 * peak) << e << "," << s;
  for (float v : sd.values) EXPECT_TRUE(std::isfinite(v) && v >= 0);
}

// A dipole of stationary orientation: one strength per sample, the fitted
// direction printed and written in degrees.
TEST_F(Inverse, StationaryOrientationIsFitted) {
  const Vec truth = {-0.2, 0.3, 0.35};
  const double th = 60 * M_PI / 180, al = 30 * M_PI / 180;
  const double u[3] = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  MatrixFile t = transfer({truth});
  const double amp[3] = {1.0, 0.5, 2.0};
  std::vector<std::vector<double>> moments;
  for (double a : amp) moments.push_back({a * u[0], a * u[1], a * u[2]});
  write_data(t, moments, {0, 0, 0});
  ProcResult r = fit({{truth.x - 0.1, truth.y + 0.1, truth.z - 0.05}},
                     "1 position stationary orientation stationary\n", "sol.mat\nfwd.mat\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\n( -?[0-9]+\\.[0-9]{6}){3}\nfinal position:  \\(([^)]*)\\)\n"
                                           "final direction: \\(([^)]*)\\)\n Relative difference final")))
      << r.out;
  std::vector<double> pos = fields(m[2]), dir_deg = fields(m[3]);
  ASSERT_EQ(pos.size(), 3u);
  ASSERT_EQ(dir_deg.size(), 2u);
  EXPECT_LT(distance(truth, pos[0], pos[1], pos[2]), 0.01 * RADIUS);
  EXPECT_NEAR(dir_deg[0], 60.0, 1.0);
  EXPECT_NEAR(dir_deg[1], 30.0, 1.0);

  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 1);
  ASSERT_EQ(sol.cols, 3);
  for (int s = 1; s <= 3; s++) EXPECT_NEAR(sol.at(1, s), amp[s - 1], 0.03 * amp[s - 1]);

  // The position file carries the angles in degrees and reads back.
  char line[160];
  snprintf(line, sizeof line, "   1 %7.4f %7.4f %7.4f %8.4f %8.4f\n", pos[0], pos[1], pos[2], dir_deg[0], dir_deg[1]);
  EXPECT_EQ(read_file(dir.file("fit.pos")),
            "   1\n" + std::string(line) + "   1  position stationar  orientation stationar\n");
  int n = 0, kind = -1;
  SourceRecord *table = nullptr;
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(dir.file("fit.pos").c_str(), &n, &table, &kind), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(kind, 1);
  EXPECT_EQ(table[0].ori_stationary, 1u);
  free(table);
  std::string sdpos = read_file(dir.file("fit.pos.sd"));
  EXPECT_TRUE(std::regex_search(sdpos, std::regex("^   1\n   1( +-?[0-9]+\\.[0-9]{4}){5}\n\n")))
      << sdpos;
}

// Two sources mirrored in the plane x = 0.05: the second follows the first,
// and the lines take the plural.
TEST_F(Inverse, SymmetricPairMovesAsMirrorImages) {
  const std::vector<Vec> truth = {{0.35, 0.2, 0.3}, {-0.25, 0.2, 0.3}};
  MatrixFile t = transfer(truth);
  write_data(t, {{1.0, 0.2, -0.3, 0.5, -0.4, 0.6}, {0.3, -0.7, 0.4, -0.2, 0.9, 0.1}}, {0, 0});
  ProcResult r = fit({{0.45, 0.1, 0.35}, {-0.35, 0.1, 0.35}}, "1 position stationary\n2 symmetric to 1\n",
                     "sol.mat\nfwd.mat\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("final positions:  \\(([^)]*)\\)\n                  \\(([^)]*)\\)\n"
                                           " Relative difference final solution :")))
      << r.out;
  std::vector<double> p1 = fields(m[1]), p2 = fields(m[2]);
  ASSERT_EQ(p1.size(), 3u);
  ASSERT_EQ(p2.size(), 3u);
  EXPECT_LT(distance(truth[0], p1[0], p1[1], p1[2]), 0.01 * RADIUS);
  EXPECT_LT(distance(truth[1], p2[0], p2[1], p2[2]), 0.01 * RADIUS);
  EXPECT_NEAR(p2[0], 0.1 - p1[0], 2e-4);
  EXPECT_EQ(p2[1], p1[1]);
  EXPECT_EQ(p2[2], p1[2]);
  EXPECT_NE(r.out.find("\nStandard deviation of source positions saved in file fit.pos.sd\n"), std::string::npos);
  EXPECT_NE(read_file(dir.file("fit.pos")).find("   2  position symmetric to 1  orientation symmetric to 1\n"),
            std::string::npos);
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  EXPECT_EQ(sol.rows, 6);
}

// A mirrored pair that moves: the partner's position is written mirrored for
// every sample, after the fitted sources' positions in the solution file.
TEST_F(Inverse, MovingSymmetricPairIsWrittenMirrored) {
  const std::vector<Vec> truth = {{0.35, 0.2, 0.3}, {-0.25, 0.2, 0.3}, {0.3, 0.25, 0.35}, {-0.2, 0.25, 0.35}};
  MatrixFile t = transfer(truth);
  std::vector<std::vector<double>> moments(2, std::vector<double>(12, 0.0));
  const double m[2][6] = {{1.0, 0.2, -0.3, 0.5, -0.4, 0.6}, {0.3, -0.7, 0.4, -0.2, 0.9, 0.1}};
  for (int c = 0; c < 6; c++) moments[0][c] = m[0][c], moments[1][6 + c] = m[1][c];
  write_data(t, moments, {0, 0});
  ProcResult r = fit({{0.4, 0.15, 0.35}, {-0.3, 0.15, 0.35}},
                     "1 position moving\n2 position moving symmetric to 1\n", "sol.mat\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 12);
  ASSERT_EQ(sol.cols, 2);
  for (int s = 1; s <= 2; s++) {
    const Vec &a = truth[2 * (s - 1)], &b = truth[2 * (s - 1) + 1];
    EXPECT_LT(distance(a, sol.at(7, s), sol.at(8, s), sol.at(9, s)), 0.01 * RADIUS) << "sample " << s;
    EXPECT_LT(distance(b, sol.at(10, s), sol.at(11, s), sol.at(12, s)), 0.01 * RADIUS) << "sample " << s;
    EXPECT_NEAR(sol.at(10, s), 0.1 - sol.at(7, s), 1e-5);
    for (int c = 1; c <= 6; c++) EXPECT_NEAR(sol.at(c, s), m[s - 1][c - 1], 0.03) << c << "," << s;
  }
}

// A start too close to the surface for the distance bound (-d): the run
// warns on the error stream and fits all the same.
TEST_F(Inverse, StartOutsideTheDistanceBoundWarns) {
  const Vec truth = {0.3, 0.2, 0.4};
  MatrixFile t = transfer({truth});
  write_data(t, {{1.0, -0.5, 0.3}}, {0.0});
  write_file(dir.file("start.pos"), position_file({{0.0, 0.0, 0.97}}, "1 position stationary\n"));
  ProcResult r = run_brelix(dir.path(), {"-d"}, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\nsol.mat\n\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err,
            "\nWarning: not all initial estimated source parameters\n  comply to the compartment related "
            "constraints!\n\n");
  EXPECT_NE(r.out.find(" Relative difference final solution :"), std::string::npos);
}

}  // namespace
