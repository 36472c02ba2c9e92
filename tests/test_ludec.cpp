// LU decomposition with pairwise pivoting: factors, solves and the condition
// estimate against hand computations and a double-precision elimination.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/verbose.h"
#include "tests/support/h2_arrays.h"

using ref::Mat;
using ref::Vec;

static float factorise(float **a, int n, int shown = 0) {
  float cond = -1;
  set_verbose(shown), ludec(a, n, &cond), set_verbose(0);
  return cond;
}
static Vec solve(float **a, const Vec &b) {
  std::vector<float> x(b.begin(), b.end());
  x.insert(x.begin(), 0.0f), solvelu(a, (int)b.size(), x.data());
  return Vec(x.begin() + 1, x.end());
}
static double norm(const Vec &v, bool l1) {
  double s = 0;
  for (double x : v) s = l1 ? s + std::fabs(x) : std::max(s, std::fabs(x));
  return s;
}

// 2 x 2 by hand: the factors hold (u11 u12; m u22), rows exchanged iff
// |m| > 1; a pivot below 1e-19 in magnitude is replaced by 1e-19.
TEST(Ludec, HandWorkedTwoByTwo) {
  const struct {
    Mat a;
    float lu[4];  // NaN: not checked
    Vec b;        // solution (1, 2) unless empty
  } cases[] = {
      {{{1, 2}, {4, 3}}, {4, 3, 4, 1.25f}, {5, 10}},     {{{4, 3}, {1, 2}}, {4, 3, 0.25f, 1.25f}, {10, 5}},
      {{{2, 1}, {2, 3}}, {2, 1, 1, 2}, {4, 8}},           {{{0, 1}, {2, 3}}, {2, 3, 2 / 1e-19f, 1}, {2, 8}},
      {{{1e-25, 1}, {1, 1}}, {1, 1, 1 / 1e-19f, NAN}, {}}, {{{1e-18, 1}, {1, 1}}, {NAN, NAN, 1 / 1e-18f, NAN}, {}},
  };
  for (const auto &c : cases) {
    h2::Arena ar;
    float **a = ar.mat(c.a);
    const float cond = factorise(a, 2);
    for (int k = 0; k < 4; k++) EXPECT_TRUE(std::isnan(c.lu[k]) || a[1 + k / 2][1 + k % 2] == c.lu[k]) << c.a[0][0];
    EXPECT_TRUE(c.b.empty() || solve(a, c.b) == Vec({1, 2})) << c.a[0][0];
    // y = (-0.25, 1.4) from U^T, (1.4, -0.6) after the transposed steps,
    // then (-1.08, 1.24) from the solve: 2.32 * 7 / 2.
    EXPECT_TRUE(&c != &cases[0] || std::fabs(cond - 8.12) < 1e-5) << cond;
  }
  h2::Arena ar;
  float **zero = ar.mat(5, 5), **one = ar.mat({{9e-20}});
  EXPECT_GE(factorise(zero, 5), 1e30f);  // and not NaN
  for (int k = 1; k <= 5; k++) EXPECT_EQ(zero[k][k], k < 5 ? 1e-19f : 0.0f) << k;
  EXPECT_EQ(factorise(one, 1), 1e38f);  // the estimate's first solve passes 1e19
}

// Random (one and several panels), bottom heavy (row i is 2^i (c_j x_i^j):
// every step exchanges and stores the multiplier 2), nearly singular and
// Hilbert: small backward error, forward error within the condition, and an
// estimate within a factor ten of |A|_inf |A^-1|_1.
TEST(Ludec, SolvesAndConditionAgainstDoubleReference) {
  std::vector<Mat> cases = {h2::random_matrix(1, 1, 1), h2::random_matrix(5, 5, 2), h2::random_matrix(150, 150, 3),
                            ref::zeros(8, 8), h2::random_matrix(30, 30, 5), ref::zeros(4, 4), ref::zeros(8, 8)};
  for (int j = 0; j < 30; j++) cases[4][29][j] = (float)(cases[4][0][j] + 1e-4 * cases[4][1][j]);
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++) {
      cases[3][i][j] = (float)(std::ldexp(1 + 0.1 * j, i) * std::pow(-1.1 + 0.27 * i, j));
      cases[6][i][j] = (float)(1.0 / (i + j + 1)), cases[5][i % 4][j % 4] = cases[6][i % 4][j % 4];  // Hilbert
    }
  for (const Mat &a : cases) {
    const int n = (int)a.size();
    double anorm = 0, inv_norm1 = 0, EPS = FLT_EPSILON;
    for (int j = 0; j < n; j++) {
      Vec e(n, 0.0);
      e[j] = 1;
      inv_norm1 = std::max(inv_norm1, norm(ref::solve(a, e), true)), anorm = std::max(anorm, norm(a[j], true));
    }
    const double kappa = anorm * inv_norm1;
    const Vec b = h2::column(h2::random_matrix(n, 1, n), 0), xr = ref::solve(a, b);
    h2::Arena ar;
    float **f = ar.mat(a);
    const float cond = factorise(f, n);
    for (int i = 2; i <= n; i++)
      for (int k = 1; k < i && &a == &cases[3]; k++) ASSERT_NEAR(f[i][k], 2.0, 1e-3);
    const Vec xs = solve(f, b), axs = ref::multiply(a, xs);
    Vec r(n), d(n);
    for (int i = 0; i < n; i++) r[i] = axs[i] - b[i], d[i] = xs[i] - xr[i];
    SCOPED_TRACE(testing::Message() << "case " << &a - &cases[0]);
    EXPECT_LE(norm(r, false) / (anorm * norm(xs, false) + norm(b, false)), 2 * n * EPS);
    if (kappa * EPS < 0.1) {
      EXPECT_LE(norm(d, false) / norm(xr, false), 2 * n * EPS * kappa);
      EXPECT_TRUE(cond >= kappa / 10 && cond <= kappa * 10) << cond << " vs " << kappa;
    } else {
      EXPECT_GE(cond, 1e5f);  // beyond single precision: still reported as poor
    }
  }
}

// The countdown: every ten rows from n = 26 on, and only when verbose.  The
// norms: -1e8 then sixteen ones; a float running sum stays at 1e8, the exact
// 100000016 is representable.
TEST(Ludec, CountdownAndNormsInDouble) {
  h2::Arena ar;
  auto run = [&](int n, int shown) {
    float **a = ar.mat(n, n);
    for (int i = 1; i <= n; i++) a[i][i] = 1.0f, a[i][1] = 0.5f;
    testing::internal::CaptureStdout();
    factorise(a, n, shown);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(run(26, 1), "Ludec countdown:   20\rLudec countdown:   10\rLudec countdown:    0\r\n");
  EXPECT_EQ(run(25, 1) + run(40, 0), "");
  float **m = ar.mat(17, 17);
  m[5][1] = -1e8f, m[9][9] = -100000008.0f;  // beats a float sum of row 5, not the true one
  for (int j = 2; j <= 17; j++) m[5][j] = (j % 2) ? 1.0f : -1.0f;
  EXPECT_EQ(vnorm1(m[5], 17), 100000016.0f);
  EXPECT_EQ(mnorm1(m, 17), 100000016.0f);
}
