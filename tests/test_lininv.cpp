// Linear inverse: exact reproduction for well-conditioned transfer matrices,
// rank reports and minimum-norm solutions for singular and wide ones, the
// standard-deviation factors with their own cut-off, and the relative
// difference measures against hand computations.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>

#include "forwinv/lininv.h"
#include "numeric/nrutils.h"
#include "tests/support/dense_reference.h"

namespace {

// A one-based float matrix owned by the test.
struct FMat {
  int r, c;
  float **a;
  FMat(int r_, int c_) : r(r_), c(c_), a(matrix(1, r_, 1, c_)) {}
  ~FMat() { free_matrix(a, 1, r, 1, c); }
  FMat(const FMat &) = delete;
  FMat &operator=(const FMat &) = delete;
  void load(const ref::Mat &m) {
    for (int i = 1; i <= r; i++)
      for (int j = 1; j <= c; j++) a[i][j] = (float)m[i - 1][j - 1];
  }
  ref::Mat to_ref() const {
    ref::Mat m = ref::zeros(r, c);
    for (int i = 1; i <= r; i++)
      for (int j = 1; j <= c; j++) m[i - 1][j - 1] = a[i][j];
    return m;
  }
};

ref::Mat random_matrix(int m, int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  ref::Mat a = ref::zeros(m, n);
  for (auto &row : a)
    for (double &x : row) x = (float)u(gen);
  return a;
}

// Orthogonal n x n matrix: a product of Householder reflections, in double.
ref::Mat random_orthogonal(int n, unsigned seed) {
  ref::Mat q = ref::zeros(n, n);
  for (int i = 0; i < n; i++) q[i][i] = 1.0;
  ref::Mat vs = random_matrix(n, n, seed);
  for (int k = 0; k < n; k++) {
    ref::Vec v = vs[k];
    double nn = 0.0;
    for (double x : v) nn += x * x;
    ref::Mat h = ref::zeros(n, n);
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) h[i][j] = (i == j ? 1.0 : 0.0) - 2.0 * v[i] * v[j] / nn;
    q = ref::multiply(q, h);
  }
  return q;
}

struct Solved {
  std::string out;
  ref::Mat d, sdd;
};

// Run the linear inverse with standard output captured.
Solved run_inverse(const ref::Mat &trans, const ref::Mat &psi, float tol, bool with_sd = true) {
  const int nel = (int)trans.size(), npar = (int)trans[0].size(), ntim = (int)psi[0].size();
  FMat t(nel, npar), p(nel, ntim), d(npar, ntim), sdd(npar, ntim);
  t.load(trans);
  p.load(psi);
  testing::internal::CaptureStdout();
  lin_inverse(t.a, p.a, d.a, npar, nel, ntim, with_sd ? sdd.a : nullptr, tol);
  Solved s;
  s.out = testing::internal::GetCapturedStdout();
  s.d = d.to_ref();
  s.sdd = sdd.to_ref();
  // The transfer matrix is input only.
  for (int i = 1; i <= nel; i++)
    for (int j = 1; j <= npar; j++) EXPECT_EQ(t.a[i][j], (float)trans[i - 1][j - 1]);
  return s;
}

double parse_after(const std::string &text, const std::string &label) {
  size_t pos = text.find(label);
  if (pos == std::string::npos) return NAN;
  return std::strtod(text.c_str() + pos + label.size(), nullptr);
}

double max_abs_diff(const ref::Mat &a, const ref::Mat &b) {
  double m = 0.0;
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < a[0].size(); j++) m = std::max(m, std::fabs(a[i][j] - b[i][j]));
  return m;
}

TEST(LinInverse, IdentityTransferReproducesDataExactly) {
  ref::Mat eye = ref::zeros(4, 4);
  for (int i = 0; i < 4; i++) eye[i][i] = 1.0;
  ref::Mat psi = random_matrix(4, 3, 1);
  Solved s = run_inverse(eye, psi, 0.001f);
  EXPECT_EQ(s.out, "Condition of linear inverse: 1.0\n");
  EXPECT_EQ(max_abs_diff(s.d, psi), 0.0);

  FMat meas(4, 3), model(4, 3);
  meas.load(psi);
  model.load(s.d);
  float rms = -1.0f;
  EXPECT_EQ(reldif(meas.a, model.a, 4, 3, &rms), 0.0f);
  EXPECT_EQ(rms, 0.0f);
}

TEST(LinInverse, WellConditionedSquareMatchesDoubleSolve) {
  for (unsigned seed = 10; seed < 16; seed++) {
    ref::Mat trans = random_matrix(6, 6, seed);
    for (int i = 0; i < 6; i++) trans[i][i] += 3.0;  // keep it well conditioned
    ref::Mat strengths = random_matrix(6, 5, seed + 100);
    ref::Mat psi = ref::multiply(trans, strengths);
    for (auto &row : psi)
      for (double &x : row) x = (float)x;
    Solved s = run_inverse(trans, psi, 0.001f);

    // Only the condition line, with the ratio of the extreme singular values.
    ref::Vec sv = ref::singular_values(trans);
    const std::string label = "Condition of linear inverse: ";
    ASSERT_EQ(s.out.rfind(label, 0), 0u) << s.out;
    EXPECT_EQ(std::count(s.out.begin(), s.out.end(), '\n'), 1) << s.out;
    EXPECT_NEAR(parse_after(s.out, label), sv.front() / sv.back(), 0.06 + 1e-4 * sv.front() / sv.back());

    EXPECT_LT(max_abs_diff(s.d, strengths), 2e-5) << "seed " << seed;
    FMat meas(6, 5), model(6, 5);
    meas.load(psi);
    model.load(ref::multiply(trans, s.d));
    float rms;
    EXPECT_LT(reldif(meas.a, model.a, 6, 5, &rms), 1e-5f);
    EXPECT_LT(rms, 1e-5f);
  }
}

TEST(LinInverse, IdenticalColumnsShareTheStrength) {
  ref::Mat trans = random_matrix(5, 3, 3);
  for (int i = 0; i < 5; i++) trans[i][1] = trans[i][0];
  ref::Mat x = {{1.0, -2.0}, {0.5, 3.0}, {-1.5, 0.25}};
  ref::Mat psi = ref::multiply(trans, x);
  Solved s = run_inverse(trans, psi, 0.001f);

  ASSERT_EQ(s.out.rfind("Transfer matrix is singular\n  Rank: 2 (full rank would be 3)\n"
                        "  Condition of pseudo inverse: ",
                        0),
            0u)
      << s.out;
  // The minimum-norm solution splits the common strength evenly.
  for (int t = 0; t < 2; t++) {
    EXPECT_NEAR(s.d[0][t], s.d[1][t], 1e-5);
    EXPECT_NEAR(s.d[0][t] + s.d[1][t], x[0][t] + x[1][t], 1e-5);
    EXPECT_NEAR(s.d[2][t], x[2][t], 1e-5);
  }
  // Condition of what was kept: ratio of the two nonzero singular values.
  ref::Vec sv = ref::singular_values(trans);
  EXPECT_NEAR(parse_after(s.out, "pseudo inverse: "), sv[0] / sv[1], 0.06);
}

TEST(LinInverse, SmallSingularValueIsDroppedButCountsInTheDeviations) {
  // trans = Q1 diag(2, 1, 0.001) Q2^T: 0.001 is 0.0005 of the largest value.
  const int n = 3;
  ref::Mat q1 = random_orthogonal(5, 21), q2 = random_orthogonal(n, 22);
  const double sv[n] = {2.0, 1.0, 0.001};
  ref::Mat trans = ref::zeros(5, n);
  for (int i = 0; i < 5; i++)
    for (int j = 0; j < n; j++)
      for (int k = 0; k < n; k++) trans[i][j] += q1[i][k] * sv[k] * q2[j][k];
  ref::Mat psi = random_matrix(5, 4, 23);
  Solved s = run_inverse(trans, psi, 0.001f);
  EXPECT_EQ(s.out.rfind("Transfer matrix is singular\n  Rank: 2 (full rank would be 3)\n", 0), 0u) << s.out;
  EXPECT_NEAR(parse_after(s.out, "pseudo inverse: "), 2.0, 0.051);

  // Reference, in double: truncated pseudo-inverse, and deviation factors
  // sqrt(sum_k V[j][k]^2 / w_k^2) over all three directions.
  for (int t = 0; t < 4; t++)
    for (int j = 0; j < n; j++) {
      double dj = 0.0;
      for (int k = 0; k < 2; k++) {
        double proj = 0.0;
        for (int e = 0; e < 5; e++) proj += q1[e][k] * (float)psi[e][t];
        dj += q2[j][k] * proj / sv[k];
      }
      double f2 = 0.0;
      for (int k = 0; k < n; k++) f2 += q2[j][k] * q2[j][k] / (sv[k] * sv[k]);
      EXPECT_NEAR(s.d[j][t], dj, 1e-4 * (1.0 + std::fabs(dj)));
      EXPECT_NEAR(s.sdd[j][t], std::sqrt(f2) * s.d[j][t], 2e-3 * std::sqrt(f2) * std::fabs(s.d[j][t]) + 1e-6);
    }

  // Without sdd the solution is the same.
  Solved plain = run_inverse(trans, psi, 0.001f, false);
  EXPECT_EQ(max_abs_diff(plain.d, s.d), 0.0);
  // A looser truncation threshold keeps the small value and changes the
  // solution completely.
  Solved kept = run_inverse(trans, psi, 0.0001f);
  EXPECT_EQ(kept.out.rfind("Condition of linear inverse: ", 0), 0u) << kept.out;
  EXPECT_GT(max_abs_diff(kept.d, s.d), 1.0);
}

TEST(LinInverse, WideTransferHasRankAtMostTheElectrodes) {
  ref::Mat trans = random_matrix(3, 7, 31);
  ref::Mat psi = random_matrix(3, 2, 32);
  Solved s = run_inverse(trans, psi, 0.001f);
  EXPECT_EQ(s.out.rfind("Transfer matrix is singular\n  Rank: 3 (full rank would be 7)\n", 0), 0u) << s.out;
  // Minimum-norm solution: trans^T (trans trans^T)^-1 psi.
  ref::Mat tt = ref::multiply(trans, ref::transpose(trans));
  for (int t = 0; t < 2; t++) {
    ref::Vec col = {psi[0][t], psi[1][t], psi[2][t]};
    for (double &x : col) x = (float)x;
    ref::Vec y = ref::solve(tt, col);
    for (int j = 0; j < 7; j++) {
      double dj = 0.0;
      for (int e = 0; e < 3; e++) dj += trans[e][j] * y[e];
      EXPECT_NEAR(s.d[j][t], dj, 1e-4 * (1.0 + std::fabs(dj)));
      EXPECT_TRUE(std::isfinite(s.sdd[j][t]));
    }
  }
}

TEST(LinInverse, ZeroTransferGivesRankZeroAndNoNumbersOutOfNothing) {
  ref::Mat trans = ref::zeros(4, 3);
  ref::Mat psi = random_matrix(4, 2, 41);
  Solved s = run_inverse(trans, psi, 0.001f);
  EXPECT_EQ(s.out.rfind("Transfer matrix is singular\n  Rank: 0 (full rank would be 3)\n", 0), 0u) << s.out;
  for (auto &row : s.d)
    for (double x : row) EXPECT_EQ(x, 0.0);
}

TEST(LinInverse, AllocationFailureIsFatal) {
  // A 40000 x 40000 matrix exceeds the per-matrix limit: refused at once.
  // Nothing is read before the work storage exists, so tiny arrays do.
  FMat tiny(1, 1);
  EXPECT_EXIT(lin_inverse(tiny.a, tiny.a, tiny.a, 40000, 1, 1, nullptr, 0.001f), testing::ExitedWithCode(1),
              "Fatal error in .*: cannot create v in lin_inverse");
}

TEST(RelDif, AgainstHandComputation) {
  ref::Mat meas = {{1.0, 2.0}, {-3.0, 0.5}, {0.0, 4.0}};
  FMat m(3, 2), same(3, 2), zero(3, 2), other(3, 2);
  m.load(meas);
  same.load(meas);
  float rms = -1.0f;
  EXPECT_EQ(reldif(m.a, same.a, 3, 2, &rms), 0.0f);
  EXPECT_EQ(rms, 0.0f);

  // Against a zero model the relative difference is 1 and the rms that of
  // the data: sum of squares 1+4+9+0.25+0+16 = 30.25 over 6 values.
  EXPECT_FLOAT_EQ(reldif(m.a, zero.a, 3, 2, &rms), 1.0f);
  EXPECT_FLOAT_EQ(rms, (float)std::sqrt(30.25 / 6.0));

  // Differences 0.5, -1, 0, 0, 2, 0.25: squares sum to 5.3125.
  other.load({{0.5, 3.0}, {-3.0, 0.5}, {-2.0, 3.75}});
  EXPECT_FLOAT_EQ(reldif(m.a, other.a, 3, 2, &rms), (float)std::sqrt(5.3125 / 30.25));
  EXPECT_FLOAT_EQ(rms, (float)std::sqrt(5.3125 / 6.0));
}

TEST(RelDifCor, AgainstHandComputation) {
  FMat psi(2, 3);
  psi.load({{1.0, -1.0, 2.0}, {-1.0, 1.0, -2.0}});
  float *shift = vector(1, 3);
  shift[1] = 0.5f;
  shift[2] = 0.0f;
  shift[3] = -1.0f;
  // sum psi^2 = 1+1+4+1+1+4 = 12; sum (shift + psi)^2 = 2.25+1+1+0.25+1+9 = 14.5
  EXPECT_FLOAT_EQ(reldifcor(psi.a, shift, 2, 3), (float)std::sqrt(12.0 / 14.5));
  // No shift: the factor is 1.
  for (int j = 1; j <= 3; j++) shift[j] = 0.0f;
  EXPECT_FLOAT_EQ(reldifcor(psi.a, shift, 2, 3), 1.0f);
  free_vector(shift, 1, 3);
}

}  // namespace
