// Whole-program dipole fits judged against references the program does not
// share: analytic potentials of a three-shell sphere head fitted through a
// stored inverted A matrix, the spread of repeated fits to noisy data
// against the standard deviations the program reports, and degenerate or
// damaged input on the way into a fit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/analytic.h"
#include "tests/support/files.h"
#include "tests/support/head_fit.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

using headfit::add;
using headfit::final_positions;
using headfit::norm;
using headfit::position_file;
using headfit::unit;

void write_data(const std::string &path, const std::vector<std::vector<double>> &data) {
  EXPECT_TRUE(headfit::write_data(path, data)) << path;
}

// The numbers after the index on the first source line ("   1  x  y  z
// ...") of a position file or of its ".sd" companion.
std::vector<double> first_source_line(const std::string &text) {
  std::vector<double> v;
  size_t at = text.find('\n');
  if (at == std::string::npos) return v;
  size_t end = text.find('\n', at + 1);
  std::istringstream line(text.substr(at + 1, end - at - 1));
  int index;
  line >> index;
  double x;
  while (line >> x) v.push_back(x);
  return v;
}

double mean_of(const std::vector<double> &x) {
  double s = 0;
  for (double v : x) s += v;
  return s / x.size();
}

double sample_sd(const std::vector<double> &x) {
  const double mean = mean_of(x);
  double s = 0;
  for (double v : x) s += (v - mean) * (v - mean);
  return std::sqrt(s / (x.size() - 1));
}

const std::string P_DATA = "\nMeasured potential data: ";

// ---- analytic three-shell head -----------------------------------------

}  // namespace

namespace headfit {
void PrintTo(const Case &c, std::ostream *os) {
  *os << "eccentricity " << c.ecc << " along (" << c.where[0] << ", " << c.where[1] << ", " << c.where[2]
      << ") moment (" << c.moment[0] << ", " << c.moment[1] << ", " << c.moment[2] << ")";
}
}  // namespace headfit

namespace {

// Scalp, skull and brain spheres of 642 vertices, the brain surface as the
// isolated-source interface, every scalp vertex an electrode.  The inverted
// A matrix is stored once, and every case is a stationary dipole fitted to
// its analytic potentials through it: the model error of the coarse mesh
// may move the dipole by a few per cent of the radius at most.  (All cases
// are one test so that the matrix is stored once per run of the suite.)
TEST(ThreeShellHead, FittedPositionsWithinFivePercentOfTheRadius) {
  TempDir dir;
  const TriMesh scalp = headfit::write_head(dir, 642);
  ASSERT_EQ(scalp.pnt.size(), 642u);
  ProcResult stored = headfit::store_head(dir, "head.ama", 900);
  ASSERT_EQ(stored.status, 0) << stored.err;
  ASSERT_TRUE(file_exists(dir.file("head.ama")));

  int index = 0;
  for (const headfit::Case &c : headfit::cases()) {
    SCOPED_TRACE(testing::PrintToString(c));
    const Vec3 truth = headfit::true_position(c), start = headfit::start_position(c);
    ASSERT_NEAR(norm(add(start, truth, -1)), 0.12, 1e-9);
    ASSERT_LT(norm(start), headfit::BRAIN - 0.05);

    headfit::Outcome o = headfit::fit_case(dir, scalp, "head.ama", c, std::to_string(index++), 120);
    ASSERT_TRUE(o.ok) << "status " << o.run.status << "\n" << o.run.err << o.run.out;
    EXPECT_EQ(o.run.err, "");
    EXPECT_LT(o.position_error, 0.05 * headfit::OUTER)
        << "fitted (" << o.position[0] << ", " << o.position[1] << ", " << o.position[2] << ")";
    // The direction hardly suffers from the model error; the strength takes
    // the magnitude error of the coarse mesh (about 9 % here).
    EXPECT_LT(o.moment_angle, 5.0);
    EXPECT_NEAR(o.strength_ratio, 1.0, 0.2);
    printf("[ figures  ] eccentricity %.2f: position error %.4f, moment angle %.2f deg, strength ratio %.3f\n", c.ecc,
           o.position_error, o.moment_angle, o.strength_ratio);
  }
}

// A start in the skull while the brain surface isolates the sources: the
// run names the interface the sources must stay within and stops.  (Shells
// of 162 vertices: the refusal comes before anything is fitted.)
TEST(ThreeShellHead, StartOutsideTheIsolatedCompartmentIsRefused) {
  TempDir dir;
  const TriMesh scalp = headfit::write_head(dir, 162);
  ASSERT_EQ(scalp.pnt.size(), 162u);
  write_data(dir.file("data.mat"), headfit::analytic_data(scalp, {0.2, 0.1, 0.5}, {0, 1, 0}));
  write_file(dir.file("skull.pos"), position_file({{0.0, 0.0, 0.9}}, "1 position stationary\n"));
  ProcResult r = run_brelix(dir.path(), {}, headfit::HEAD_ANSWERS + "skull.pos\ndata.mat\nsol.mat\n\n\n");
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_NE(r.out.find("\nSource  1 is located within skull.tri\n"
                       "All sources should be within the isolated source compartment brain.tri!\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a");
  EXPECT_FALSE(file_exists(dir.file("sol.mat")));
}

// ---- repeated fits to noisy data -----------------------------------------

// One dipole in a single sphere of 162 vertices, data from the program's
// own forward model plus white Gaussian noise (fixed seed), fitted again
// and again with fresh noise.  The standard deviations the program reports
// for the position and the strengths must describe the spread of the fits.
// The sphere's radius of 9 units keeps the fit's internal rescaling far
// from 1, so that a deviation not scaled back stands out.
class NoisyFits : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(icosphere_level(162), R), false));
    write_file(dir.file("true.pos"), position_file({truth}, ""));
    ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(read_matrix_file(dir.file("true.mat"), trans));
    ASSERT_EQ(trans.cols, 3);
  }

  void check_spread(int ntim, int runs);

  TempDir dir;
  const double R = 9.0;
  const Vec3 truth = {0.25 * R, -0.3 * R, 0.4 * R};
  MatrixFile trans;
};

// The spread of `runs` fits of ntim samples each (sample t's moment is
// moment(t)) against the mean reported deviations: positions from the
// ".sd" companion of the fitted-position file, strengths of sample 1 from
// the solution's ".sd" matrix.
void NoisyFits::check_spread(int ntim, int runs) {
  const double noise_share = 0.04;
  auto moment = [](int t) -> Vec3 { return {1.0 - 0.05 * t, -0.6 + 0.1 * t, 0.4 + 0.03 * t}; };
  std::vector<std::vector<double>> clean(trans.rows, std::vector<double>(ntim));
  double peak = 0;
  for (int e = 1; e <= trans.rows; e++)
    for (int t = 0; t < ntim; t++) {
      for (int c = 1; c <= 3; c++) clean[e - 1][t] += trans.at(e, c) * moment(t)[c - 1];
      peak = std::max(peak, std::fabs(clean[e - 1][t]));
    }
  std::mt19937 rng(20240611 + ntim);
  std::normal_distribution<double> gauss(0, noise_share * peak);
  const Vec3 start = add(truth, unit({1, 1, -1}), 0.12 * R);
  write_file(dir.file("start.pos"), position_file({start}, "1 position stationary\n"));

  std::vector<double> fitted[6], reported[6];
  for (int run = 0; run < runs; run++) {
    std::vector<std::vector<double>> data = clean;
    for (auto &row : data)
      for (double &v : row) v += gauss(rng);
    write_data(dir.file("data.mat"), data);
    ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\nstart.pos\ndata.mat\nsol.mat\n\nfit.pos\n");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    std::vector<double> pos = first_source_line(read_file(dir.file("fit.pos")));
    std::vector<double> pos_sd = first_source_line(read_file(dir.file("fit.pos.sd")));
    ASSERT_EQ(pos.size(), 3u);
    ASSERT_EQ(pos_sd.size(), 3u);
    MatrixFile sol, sd;
    ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
    ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
    ASSERT_EQ(sol.rows, 3);
    ASSERT_EQ(sol.cols, ntim);
    ASSERT_EQ(sd.rows, 3);
    ASSERT_EQ(sd.cols, ntim);
    for (int k = 0; k < 3; k++) {
      fitted[k].push_back(pos[k]);
      reported[k].push_back(pos_sd[k]);
      fitted[3 + k].push_back(sol.at(k + 1, 1));
      reported[3 + k].push_back(sd.at(k + 1, 1));
    }
  }
  const char *name[6] = {"x", "y", "z", "moment x", "moment y", "moment z"};
  for (int k = 0; k < 6; k++) {
    const double spread = sample_sd(fitted[k]), said = mean_of(reported[k]);
    printf("[ figures  ] %d samples, %-8s spread %.5f reported %.5f\n", ntim, name[k], spread, said);
    EXPECT_GT(spread, 0) << name[k];
    EXPECT_LT(said, 2 * spread) << name[k];
    EXPECT_GT(said, 0.5 * spread) << name[k];
    // No bias beyond what the spread allows.
    const double want = k < 3 ? truth[k] : moment(0)[k - 3];
    EXPECT_NEAR(mean_of(fitted[k]), want, 4 * spread / std::sqrt((double)runs) + 1e-3) << name[k];
  }
}

// One sample: the covariance of all parameters together.
TEST_F(NoisyFits, OneSampleDeviationsDescribeTheSpread) { check_spread(1, 30); }

// Twelve samples: the covariance in blocks.
TEST_F(NoisyFits, TwelveSampleDeviationsDescribeTheSpread) { check_spread(12, 30); }

// ---- degenerate and damaged input on the way into a fit -------------------

// A single sphere of 162 vertices; data made with the program's own
// forward model for one dipole.
class FitInput : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(icosphere_level(162), 1.0), false));
    write_file(dir.file("true.pos"), position_file({truth}, ""));
    ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(read_matrix_file(dir.file("true.mat"), trans));
    ASSERT_EQ(trans.rows, 162);
  }

  // The potentials of the true dipole with moment amp[t] * moment for
  // every sample t.
  std::vector<std::vector<double>> clean_data(const std::vector<double> &amp) const {
    std::vector<std::vector<double>> data(trans.rows, std::vector<double>(amp.size()));
    for (int e = 1; e <= trans.rows; e++)
      for (size_t t = 0; t < amp.size(); t++)
        for (int c = 1; c <= 3; c++) data[e - 1][t] += amp[t] * trans.at(e, c) * moment[c - 1];
    return data;
  }

  // A run on the sphere with the given options and the answers after the
  // electrode question.
  ProcResult run(const std::vector<std::string> &args, const std::string &answers) {
    ProcResult r = run_brelix(dir.path(), args, "sphere.tri\n1\n\n\n" + answers);
    EXPECT_TRUE(r.status == 0 || r.status == 1) << "status " << r.status << "\n" << r.err;
    return r;
  }

  TempDir dir;
  const Vec3 truth = {0.3, 0.2, 0.4};
  const Vec3 moment = {1.0, -0.5, 0.3};
  MatrixFile trans;
};

// Data of 100 rows for 162 electrodes: said so on the output stream, asked
// for again, and the fit goes on with the right file.
TEST_F(FitInput, DataOfTheWrongSizeIsAskedForAgain) {
  write_data(dir.file("short.mat"), std::vector<std::vector<double>>(100, std::vector<double>(2, 1.0)));
  write_data(dir.file("data.mat"), clean_data({1.0}));
  write_file(dir.file("start.pos"), position_file({add(truth, {0.1, -0.05, 0.05})}, "1 position stationary\n"));
  ProcResult r = run({}, "start.pos\nshort.mat\ndata.mat\nsol.mat\n\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find(P_DATA +
                       "short.mat does not fit to electrode file\nnumber of electrodes: 162\n"
                       "number of rows in short.mat: 100\n\n\a\a" +
                       P_DATA + "\nFilename for inverse solution source parameters: "),
            std::string::npos)
      << r.out;
  std::vector<Vec3> pos = final_positions(r.out);
  ASSERT_EQ(pos.size(), 1u) << r.out;
  EXPECT_LT(norm(add(pos[0], truth, -1)), 0.01);
}

// All-zero data give the fit nothing to go by: it says so, stays at the
// start and writes zero strengths and deviations.
TEST_F(FitInput, AllZeroDataLeaveTheStartInPlace) {
  write_data(dir.file("zero.mat"), std::vector<std::vector<double>>(162, std::vector<double>(2, 0.0)));
  const Vec3 start = {0.4, 0.1, 0.3};
  write_file(dir.file("start.pos"), position_file({start}, "1 position stationary\n"));
  ProcResult r = run({}, "start.pos\nzero.mat\nsol.mat\n\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("Decouple: RMS of measurement zero; residual connot be scaled properly.\n"
                       "At step 0 the relative residual is 0.000\nDat fit as 'n beer! 0.000000\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("final position:  (  0.4000,   0.1000,   0.3000)\n"
                       " Relative difference final solution : 0.000\n"
                       "Corresponds to rms noise in data of : 0.000\n"),
            std::string::npos)
      << r.out;
  MatrixFile sol, sd;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat.sd"), sd));
  ASSERT_EQ(sol.values.size(), 6u);
  ASSERT_EQ(sd.values.size(), 6u);
  for (int k = 0; k < 6; k++) {
    EXPECT_EQ(sol.values[k], 0.0f) << k;
    EXPECT_EQ(sd.values[k], 0.0f) << k;
  }
  EXPECT_EQ(first_source_line(read_file(dir.file("fit.pos"))), std::vector<double>({0.4, 0.1, 0.3}));
  EXPECT_EQ(first_source_line(read_file(dir.file("fit.pos.sd"))), std::vector<double>({0, 0, 0}));
}

// Two fixed sources at one place: the transfer matrix has rank 3 of 6, and
// the pseudo-inverse shares the moment equally between them.
TEST_F(FitInput, CoincidingFixedSourcesShareTheMoment) {
  write_data(dir.file("data.mat"), clean_data({1.0, -2.0}));
  write_file(dir.file("two.pos"), position_file({truth, truth}, "1 position fixed\n2 position fixed\n"));
  ProcResult r = run({}, "two.pos\ndata.mat\nsol.mat\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\nTransfer matrix is singular\n  Rank: 3 \\(full rank would be 6\\)\n"
                                           "  Condition of pseudo inverse: ([0-9]+\\.[0-9])\nRelative difference: "
                                           "0\\.000\n")))
      << r.out;
  EXPECT_GE(std::stod(m[1]), 1.0);
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 6);
  ASSERT_EQ(sol.cols, 2);
  const double amp[2] = {1.0, -2.0};
  for (int t = 1; t <= 2; t++)
    for (int c = 1; c <= 3; c++) {
      EXPECT_NEAR(sol.at(c, t), sol.at(c + 3, t), 1e-4) << c << "," << t;
      EXPECT_NEAR(sol.at(c, t) + sol.at(c + 3, t), amp[t - 1] * moment[c - 1], 2e-3) << c << "," << t;
    }
}

// Two stationary sources started at one place: the model matrix is rank
// deficient, the normal equations go to the rank-revealing solver, and the
// pair still moves onto the true dipole together.
TEST_F(FitInput, CoincidingStationarySourcesAreFittedTogether) {
  write_data(dir.file("data.mat"), clean_data({1.0}));
  const Vec3 start = {0.4, 0.1, 0.3};
  write_file(dir.file("two.pos"), position_file({start, start}, "1 position stationary\n2 position stationary\n"));
  ProcResult r = run({}, "two.pos\ndata.mat\nsol.mat\n\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("Transfer matrix is singular\n  Rank: 3 (full rank would be 6)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Decouple: A not full ranked; 3 instead of 6\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("); turned to HFTI\nHFTI: rank = 3, condition = "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Matrix singular in decouple.\n   Effective rank: 3, condition: "), std::string::npos) << r.out;
  std::vector<Vec3> pos = final_positions(r.out);
  ASSERT_EQ(pos.size(), 2u) << r.out;
  for (const Vec3 &p : pos) EXPECT_LT(norm(add(p, truth, -1)), 0.01);
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 6);
  for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, 1) + sol.at(c + 3, 1), moment[c - 1], 0.02) << c;
  EXPECT_TRUE(file_exists(dir.file("fit.pos.sd")));
}

// A start outside the sphere cannot be placed in any compartment: the run
// says which source and stops before any fit.
TEST_F(FitInput, StartOutsideTheModelIsRefused) {
  write_data(dir.file("data.mat"), clean_data({1.0}));
  write_file(dir.file("out.pos"), position_file({truth, {0.0, 0.0, 1.2}},
                                                "1 position stationary\n"
                                                "2 position stationary\n"));
  ProcResult r = run({}, "out.pos\ndata.mat\nsol.mat\n\n\n");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("\nSource  1 is located within sphere.tri\n\nSource 2 is outside the geometry!\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a");
  EXPECT_EQ(r.out.find("Relative difference"), std::string::npos);
  EXPECT_FALSE(file_exists(dir.file("sol.mat")));
}

// Moving sources whose start is too close to the surface for the distance
// bound: the warning comes once, not once per sample, and every sample is
// still fitted.
TEST_F(FitInput, MovingStartOutsideTheDistanceBoundWarnsOnce) {
  write_data(dir.file("data.mat"), clean_data({1.0, 0.5, -1.0}));
  write_file(dir.file("near.pos"), position_file({{0.0, 0.0, 0.97}}, "1 position moving\n"));
  ProcResult r = run({"-d", "50"}, "near.pos\ndata.mat\nsol.mat\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err,
            "\nWarning: not all initial estimated source parameters\n  comply to the compartment related "
            "constraints!\n\n");
  EXPECT_NE(r.out.find("moving inverse countdown:    0\r Relative difference final solution : 0.00"), std::string::npos)
      << r.out;
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  ASSERT_EQ(sol.rows, 6);
  ASSERT_EQ(sol.cols, 3);
  for (int t = 1; t <= 3; t++)
    EXPECT_LT(norm(add({sol.at(4, t), sol.at(5, t), sol.at(6, t)}, truth, -1)), 0.01) << "sample " << t;
}

// With the default bound a start near the surface is acceptable (it lies
// in its compartment): no warning.
TEST_F(FitInput, StartNearTheSurfaceSatisfiesTheDefaultBound) {
  write_data(dir.file("data.mat"), clean_data({1.0}));
  write_file(dir.file("near.pos"), position_file({{0.0, 0.0, 0.97}}, "1 position stationary\n"));
  ProcResult r = run({}, "near.pos\ndata.mat\nsol.mat\n\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  std::vector<Vec3> pos = final_positions(r.out);
  ASSERT_EQ(pos.size(), 1u) << r.out;
  EXPECT_LT(norm(add(pos[0], truth, -1)), 0.01);
}

}  // namespace
