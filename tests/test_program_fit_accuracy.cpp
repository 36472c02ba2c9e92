// Whole-program dipole fits judged against references the program does not
// share: analytic potentials of a three-shell sphere head fitted through a
// stored inverted A matrix, the spread of repeated fits to noisy data
// against the standard deviations the program reports, and degenerate or
// damaged input on the way into a fit.
#include <gtest/gtest.h>

#include <cmath>
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

using headfit::add;
using headfit::final_positions;
using headfit::norm;
using headfit::position_file;
using Rows = std::vector<std::vector<double>>;

namespace headfit {
void PrintTo(const Case &c, std::ostream *os) {
  *os << "eccentricity " << c.ecc << " along (" << c.where[0] << ", " << c.where[1] << ", " << c.where[2]
      << ") moment (" << c.moment[0] << ", " << c.moment[1] << ", " << c.moment[2] << ")";
}
}  // namespace headfit

namespace {

const std::string REFUSED = "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a";
const std::string WARNING =
    "\nWarning: not all initial estimated source parameters\n  comply to the compartment related constraints!\n\n";

// The numbers after the index on the first source line of a position file
// or of its ".sd" companion.
std::vector<double> first_source_line(const std::string &text) {
  std::vector<double> v;
  const size_t at = text.find('\n');
  if (at == std::string::npos) return v;
  std::istringstream line(text.substr(at + 1, text.find('\n', at + 1) - at - 1));
  int index;
  line >> index;
  for (double x; line >> x;) v.push_back(x);
  return v;
}

// Scalp, skull and brain spheres of 642 vertices, the brain surface as the
// isolated-source interface, every scalp vertex an electrode.  The inverted
// A matrix is stored once, and every case is a stationary dipole fitted to
// its analytic potentials through it: the model error of the coarse mesh may
// move the dipole by a few per cent of the radius at most, hardly turns it,
// and leaves the strength within its magnitude error (about 9 % here).
TEST(ThreeShellHead, FittedPositionsWithinFivePercentOfTheRadius) {
  TempDir dir;
  const TriMesh scalp = headfit::write_head(dir, 642);
  ASSERT_EQ(scalp.pnt.size(), 642u);
  const ProcResult stored = headfit::store_head(dir, "head.ama", 900);
  ASSERT_EQ(stored.status, 0) << stored.err;
  int index = 0;
  for (const headfit::Case &c : headfit::cases()) {
    SCOPED_TRACE(testing::PrintToString(c));
    const headfit::Outcome o = headfit::fit_case(dir, scalp, "head.ama", c, std::to_string(index++), 120);
    ASSERT_TRUE(o.ok) << "status " << o.run.status << "\n" << o.run.err << o.run.out;
    EXPECT_EQ(o.run.err, "");
    EXPECT_LT(o.position_error, 0.05 * headfit::OUTER)
        << "fitted (" << o.position[0] << ", " << o.position[1] << ", " << o.position[2] << ")";
    EXPECT_LT(o.moment_angle, 5.0);
    EXPECT_NEAR(o.strength_ratio, 1.0, 0.2);
  }
}

// A start in the skull while the brain surface isolates the sources: the run
// names the interface the sources must stay within and stops before any fit.
TEST(ThreeShellHead, StartOutsideTheIsolatedCompartmentIsRefused) {
  TempDir dir;
  const TriMesh scalp = headfit::write_head(dir, 162);
  ASSERT_EQ(scalp.pnt.size(), 162u);
  ASSERT_TRUE(headfit::write_data(dir.file("data.mat"), headfit::analytic_data(scalp, {0.2, 0.1, 0.5}, {0, 1, 0})));
  write_file(dir.file("skull.pos"), position_file({{0.0, 0.0, 0.9}}, "1 position stationary\n"));
  const ProcResult r = run_brelix(dir.path(), {}, headfit::HEAD_ANSWERS + "skull.pos\ndata.mat\nsol.mat\n\n\n");
  EXPECT_EQ(r.status, 1) << r.out << r.err;
  EXPECT_NE(r.out.find("\nSource  1 is located within skull.tri\n"
                       "All sources should be within the isolated source compartment brain.tri!\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, REFUSED);
  EXPECT_FALSE(file_exists(dir.file("sol.mat")));
}

// A single sphere of 162 vertices; data made with the program's own forward
// model for one dipole at `truth`.
class OneSphere : public testing::Test {
 protected:
  void make(double radius) {
    truth = {0.3 * radius, 0.2 * radius, 0.4 * radius};
    ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(icosphere_level(162), radius), false));
    write_file(dir.file("true.pos"), position_file({truth}, ""));
    const ProcResult r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n\ntrue.pos\n\ntrue.mat\n");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(read_matrix_file(dir.file("true.mat"), trans));
    ASSERT_EQ(trans.rows, 162);
    ASSERT_EQ(trans.cols, 3);
  }
  void SetUp() override { make(1.0); }

  // The potentials of the dipole at `truth` of moment moment(t) for t < ntim.
  template <class Moment>
  Rows clean_data(int ntim, Moment moment) const {
    Rows data(trans.rows, std::vector<double>(ntim));
    for (int e = 1; e <= trans.rows; e++)
      for (int t = 0; t < ntim; t++)
        for (int c = 1; c <= 3; c++) data[e - 1][t] += trans.at(e, c) * moment(t)[c - 1];
    return data;
  }
  Rows scaled_data(const std::vector<double> &amp) const {
    return clean_data((int)amp.size(), [&](int t) { return headfit::add({0, 0, 0}, MOMENT, amp[t]); });
  }

  // A run with the given options, start and answers after the electrode
  // question; it must end normally or by a fatal error.
  ProcResult run(const std::vector<std::string> &args, const std::vector<Vec3> &start, const std::string &constraints,
                 const std::string &answers) {
    write_file(dir.file("start.pos"), position_file(start, constraints));
    const ProcResult r = run_brelix(dir.path(), args, "sphere.tri\n1\n\n\nstart.pos\n" + answers);
    EXPECT_TRUE(r.status == 0 || r.status == 1) << "status " << r.status << "\n" << r.err;
    return r;
  }

  MatrixFile read(const std::string &name) {
    MatrixFile m;
    EXPECT_TRUE(read_matrix_file(dir.file(name), m)) << name;
    return m;
  }

  TempDir dir;
  Vec3 truth;
  const Vec3 MOMENT = {1.0, -0.5, 0.3};
  MatrixFile trans;
};

// Fits to data with fresh white noise, again and again: the standard
// deviations reported for the position (the ".sd" companion of the position
// file) and for the strengths of sample 1 must describe the spread of the
// fits, which must show no bias beyond what that spread allows.  One sample
// (the covariance of all parameters together) and twelve (in blocks).  The
// radius of 9 units keeps the fit's internal rescaling far from 1, so that a
// deviation not scaled back stands out.
TEST_F(OneSphere, ReportedDeviationsDescribeTheSpreadOfRepeatedFits) {
  const double R = 9.0;
  make(R);
  const int runs = 30;
  auto moment = [](int t) -> Vec3 { return {1.0 - 0.05 * t, -0.6 + 0.1 * t, 0.4 + 0.03 * t}; };
  for (int ntim : {1, 12}) {
    SCOPED_TRACE(std::to_string(ntim) + " samples");
    const Rows clean = clean_data(ntim, moment);
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
      ASSERT_TRUE(headfit::write_data(dir.file("data.mat"), data));
      const ProcResult r = run({}, {add(truth, headfit::unit({1, 1, -1}), 0.12 * R)}, "1 position stationary\n",
                               "data.mat\nsol.mat\n\nfit.pos\n");
      ASSERT_EQ(r.status, 0) << r.err << r.out;
      const std::vector<double> pos = first_source_line(read_file(dir.file("fit.pos")));
      const std::vector<double> pos_sd = first_source_line(read_file(dir.file("fit.pos.sd")));
      const MatrixFile sol = read("sol.mat"), sd = read("sol.mat.sd");
      ASSERT_TRUE(pos.size() == 3 && pos_sd.size() == 3);
      ASSERT_TRUE(sol.rows == 3 && sol.cols == ntim && sd.rows == 3 && sd.cols == ntim);
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

// Data of 100 rows for 162 electrodes: said so on the output stream, asked
// for again, and the fit goes on with the right file.
TEST_F(OneSphere, DataOfTheWrongSizeIsAskedForAgain) {
  ASSERT_TRUE(headfit::write_data(dir.file("short.mat"), Rows(100, std::vector<double>(2, 1.0))));
  ASSERT_TRUE(headfit::write_data(dir.file("data.mat"), scaled_data({1.0})));
  const ProcResult r =
      run({}, {add(truth, {0.1, -0.05, 0.05})}, "1 position stationary\n", "short.mat\ndata.mat\nsol.mat\n\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  const std::string P_DATA = "\nMeasured potential data: ";
  EXPECT_NE(r.out.find(P_DATA + "short.mat does not fit to electrode file\nnumber of electrodes: 162\n"
                                "number of rows in short.mat: 100\n\n\a\a" +
                       P_DATA + "\nFilename for inverse solution source parameters: "),
            std::string::npos)
      << r.out;
  const std::vector<Vec3> pos = final_positions(r.out);
  ASSERT_EQ(pos.size(), 1u) << r.out;
  EXPECT_LT(norm(add(pos[0], truth, -1)), 0.01);
}

// All-zero data give the fit nothing to go by: it says so, stays at the
// start and writes zero strengths and deviations.
TEST_F(OneSphere, AllZeroDataLeaveTheStartInPlace) {
  ASSERT_TRUE(headfit::write_data(dir.file("zero.mat"), Rows(162, std::vector<double>(2, 0.0))));
  const ProcResult r = run({}, {{0.4, 0.1, 0.3}}, "1 position stationary\n", "zero.mat\nsol.mat\n\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("Decouple: RMS of measurement zero; residual connot be scaled properly.\n"
                       "At step 0 the relative residual is 0.000\nDat fit as 'n beer! 0.000000\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("final position:  (  0.4000,   0.1000,   0.3000)\n Relative difference final solution : 0.000\n"
                       "Corresponds to rms noise in data of : 0.000\n"),
            std::string::npos)
      << r.out;
  const MatrixFile sol = read("sol.mat"), sd = read("sol.mat.sd");
  EXPECT_EQ(sol.values, std::vector<float>(6, 0.0f));
  EXPECT_EQ(sd.values, std::vector<float>(6, 0.0f));
  EXPECT_EQ(first_source_line(read_file(dir.file("fit.pos"))), std::vector<double>({0.4, 0.1, 0.3}));
  EXPECT_EQ(first_source_line(read_file(dir.file("fit.pos.sd"))), std::vector<double>({0, 0, 0}));
}

// Two sources at one place: the transfer matrix has rank 3 of 6.  Fixed,
// the pseudo-inverse shares the moment equally between them; stationary,
// the normal equations go to the rank-revealing solver and the pair still
// moves onto the true dipole together.
TEST_F(OneSphere, CoincidingSourcesShareTheMoment) {
  ASSERT_TRUE(headfit::write_data(dir.file("data.mat"), scaled_data({1.0, -2.0})));
  ProcResult r = run({}, {truth, truth}, "1 position fixed\n2 position fixed\n", "data.mat\nsol.mat\n\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m,
                                std::regex("\nTransfer matrix is singular\n  Rank: 3 \\(full rank would be 6\\)\n"
                                           "  Condition of pseudo inverse: ([0-9]+\\.[0-9])\n"
                                           "Relative difference: 0\\.000\n")))
      << r.out;
  EXPECT_GE(std::stod(m[1]), 1.0);
  MatrixFile sol = read("sol.mat");
  ASSERT_TRUE(sol.rows == 6 && sol.cols == 2);
  for (int t = 1; t <= 2; t++)
    for (int c = 1; c <= 3; c++) {
      EXPECT_NEAR(sol.at(c, t), sol.at(c + 3, t), 1e-4) << c << "," << t;
      EXPECT_NEAR(sol.at(c, t) + sol.at(c + 3, t), (t == 1 ? 1.0 : -2.0) * MOMENT[c - 1], 2e-3) << c << "," << t;
    }

  const Vec3 start = {0.4, 0.1, 0.3};
  r = run({}, {start, start}, "1 position stationary\n2 position stationary\n", "data.mat\nsol.mat\n\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  for (const char *line : {"Transfer matrix is singular\n  Rank: 3 (full rank would be 6)\n",
                           "Decouple: A not full ranked; 3 instead of 6\n",
                           "); turned to HFTI\nHFTI: rank = 3, condition = ",
                           "Matrix singular in decouple.\n   Effective rank: 3, condition: "})
    EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
  const std::vector<Vec3> pos = final_positions(r.out);
  ASSERT_EQ(pos.size(), 2u) << r.out;
  for (const Vec3 &p : pos) EXPECT_LT(norm(add(p, truth, -1)), 0.01);
  sol = read("sol.mat");
  ASSERT_EQ(sol.rows, 6);
  for (int c = 1; c <= 3; c++) EXPECT_NEAR(sol.at(c, 1) + sol.at(c + 3, 1), MOMENT[c - 1], 0.02) << c;
  EXPECT_TRUE(file_exists(dir.file("fit.pos.sd")));
}

// Starts and the compartment bounds: a start outside the sphere is refused
// (naming the source) before any fit; a start near the surface satisfies the
// default bound but not that of -d 50, which warns once (not once per moving
// sample) and fits all the same.
TEST_F(OneSphere, StartsAgainstTheCompartmentBounds) {
  ASSERT_TRUE(headfit::write_data(dir.file("data.mat"), scaled_data({1.0, 0.5, -1.0})));
  ProcResult r = run({}, {truth, {0.0, 0.0, 1.2}}, "1 position stationary\n2 position stationary\n",
                     "data.mat\nsol.mat\n\n\n");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("\nSource  1 is located within sphere.tri\n\nSource 2 is outside the geometry!\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, REFUSED);
  EXPECT_EQ(r.out.find("Relative difference"), std::string::npos);
  EXPECT_FALSE(file_exists(dir.file("sol.mat")));

  const struct {
    std::vector<std::string> args;
    const char *constraint;
    std::string err;
  } cases[] = {{{}, "1 position stationary\n", ""},
               {{"-d", "50"}, "1 position stationary\n", WARNING},
               {{"-d", "50"}, "1 position moving\n", WARNING}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.constraint) + (c.args.empty() ? "" : " with -d 50"));
    r = run(c.args, {{0.0, 0.0, 0.97}}, c.constraint, "data.mat\nsol.mat\n\n\n");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    EXPECT_EQ(r.err, c.err);
    const MatrixFile sol = read("sol.mat");
    const bool moving = std::string(c.constraint).find("moving") != std::string::npos;
    ASSERT_TRUE(sol.rows == (moving ? 6 : 3) && sol.cols == 3);
    const std::vector<Vec3> pos = final_positions(r.out);
    for (int t = 1; t <= 3; t++) {
      const Vec3 p = moving ? Vec3{sol.at(4, t), sol.at(5, t), sol.at(6, t)} : pos.empty() ? Vec3{} : pos[0];
      EXPECT_LT(norm(add(p, truth, -1)), 0.01) << "sample " << t;
    }
  }
}

}  // namespace
