// LU decomposition with pairwise pivoting: factors, solves, the transposed
// elimination and the condition estimate, against hand computations and an
// independent double-precision elimination.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"
#include "tests/support/dense_reference.h"

namespace {

using ref::Mat;
using ref::Vec;
constexpr double EPS = FLT_EPSILON;

// One-based float matrix owned by the test, loaded from a zero-based one.
struct FMat {
  int n;
  float **a;
  explicit FMat(int n_, const Mat &m = {}) : n(n_), a(matrix(1, n_, 1, n_)) {
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) a[i][j] = m.empty() ? 0.0f : (float)m[i - 1][j - 1];
  }
  FMat(const FMat &) = delete;
  ~FMat() { free_matrix(a, 1, n, 1, n); }
  std::vector<float> multipliers() const {
    std::vector<float> m;
    for (int i = 2; i <= n; i++)
      for (int k = 1; k < i; k++) m.push_back(a[i][k]);
    return m;
  }
};

double l1(const Vec &v) { double s = 0; for (double x : v) s += std::fabs(x); return s; }
double linf(const Vec &v) { double m = 0; for (double x : v) m = std::max(m, std::fabs(x)); return m; }

// Uniform in [lo, hi) from the generator's raw bits, the same with any library.
double uniform(std::mt19937 &rng, double lo, double hi) { return lo + (hi - lo) * ((rng() >> 8) / 16777216.0); }
Vec random_vector(int n, std::mt19937 &rng) {
  Vec v(n);
  for (double &x : v) x = uniform(rng, -1, 1);
  return v;
}
Mat random_matrix(int n, std::mt19937 &rng) {
  Mat m(n);
  for (auto &row : m) row = random_vector(n, rng);
  return m;
}

// Row i (from 0) is base^i (c_j x_i^j) over equally spaced nodes x_i.  Every
// block of rows has the same leading minors up to the row factors, so the row
// being eliminated always holds exactly `base` times the pivot: every step
// exchanges and stores the multiplier `base`.
Mat bottom_heavy(int n, double base, std::mt19937 &rng) {
  const double h = uniform(rng, 1.5, 2.5) / n, x0 = uniform(rng, -1.2, -0.8);
  Vec c(n);
  for (double &x : c) x = uniform(rng, 0.5, 2.0);
  Mat m(n, Vec(n));
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) m[i][j] = std::pow(base, i) * c[j] * std::pow(x0 + h * i, j);
  return m;
}

// U diag(s) V^T, singular values spread geometrically from 1 to 1/kappa; the
// orthogonal factors are eigenvectors of random symmetric matrices.
Mat with_condition(int n, double kappa, std::mt19937 &rng) {
  Mat q[2];
  for (Mat &o : q) {
    Mat r = random_matrix(n, rng);
    ref::symmetric_eigen(ref::multiply(r, ref::transpose(r)), &o);
  }
  Mat a = ref::zeros(n, n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++)
      for (int k = 0; k < n; k++) a[i][j] += q[0][i][k] * std::pow(kappa, -(double)k / (n - 1)) * q[1][j][k];
  return a;
}

float factorise(FMat &f, int shown = 0) {  // quietly unless asked
  const int saved = is_verbose();
  float cond = -1;
  set_verbose(shown);
  ludec(f.a, f.n, &cond);
  set_verbose(saved);
  return cond;
}

}  // namespace

// 2 x 2 by hand: after elimination a = (u11 u12; m u22); exchange iff |m| > 1.
TEST(Ludec, HandWorkedTwoByTwo) {
  struct Case {
    const char *name;
    float a[4], lu[4], b[2], x[2];  // x[0] NaN: no solve checked
  } cases[] = {
      {"lower row larger: exchange", {1, 2, 4, 3}, {4, 3, 4, 1.25f}, {5, 10}, {1, 2}},
      {"upper row larger", {4, 3, 1, 2}, {4, 3, 0.25f, 1.25f}, {10, 5}, {1, 2}},
      {"|m| = 1 keeps the rows", {2, 1, 2, 3}, {2, 1, 1, 2}, {4, 8}, {1, 2}},
      {"|m| = -1 keeps the rows", {2, 1, -2, 3}, {2, 1, -1, 4}, {4, 4}, {1, 2}},
      {"zero pivot replaced by 1e-19", {0, 1, 2, 3}, {2, 3, 2 / 1e-19f, 1}, {1, 5}, {1, 1}},
      {"negligible pivot replaced before dividing", {1e-25f, 1, 1, 1}, {1, 1, 1 / 1e-19f, NAN}, {}, {NAN}},
      {"small pivot kept", {1e-18f, 1, 1, 1}, {NAN, NAN, 1 / 1e-18f, NAN}, {}, {NAN}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    FMat f(2);
    f.a[1][1] = c.a[0], f.a[1][2] = c.a[1], f.a[2][1] = c.a[2], f.a[2][2] = c.a[3];
    const float cond = factorise(f);
    const float got[4] = {f.a[1][1], f.a[1][2], f.a[2][1], f.a[2][2]};
    for (int k = 0; k < 4; k++) EXPECT_TRUE(std::isnan(c.lu[k]) || got[k] == c.lu[k]) << k << ": " << got[k];
    if (std::isnan(c.x[0])) continue;
    float b[3] = {0, c.b[0], c.b[1]};
    solvelu(f.a, 2, b);
    EXPECT_EQ(b[1], c.x[0]);
    EXPECT_EQ(b[2], c.x[1]);
    // y = (-0.25, 1.4) from U^T; the transposed steps give (1.4, -0.6), |y| = 2;
    // solving again gives (-1.08, 1.24): 2.32 * 7 / 2.
    if (&c == &cases[0]) {
      EXPECT_NEAR(cond, 8.12, 1e-5);
    }
  }
}

TEST(Ludec, ZeroIdentityAndOneByOne) {
  for (int n : {1, 5}) {
    SCOPED_TRACE("n = " + std::to_string(n));
    FMat z(n);
    const float cond = factorise(z);
    EXPECT_GE(cond, 1e30f);  // and not NaN
    // Every row but the last is a pivot row and has its pivot replaced.
    for (int k = 1; k <= n; k++) EXPECT_EQ(z.a[k][k], k < n ? 1e-19f : 0.0f) << k;
    for (float m : z.multipliers()) EXPECT_EQ(m, 0.0f);
    FMat id(n);
    for (int i = 1; i <= n; i++) id.a[i][i] = 1;
    EXPECT_EQ(factorise(id), 1.0f);
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) EXPECT_EQ(id.a[i][j], i == j ? 1.0f : 0.0f);
  }
  // 1 x 1 is perfectly conditioned however tiny, until the first solve of
  // the estimate passes 1e19 (at 1 / 9e-20).
  for (float v : {3.7f, -6.1e5f, 1.3e-4f, 2e-19f, 9e-20f}) {
    FMat f(1);
    f.a[1][1] = v;
    const float cond = factorise(f);
    EXPECT_TRUE(v == 9e-20f ? cond == 1e38f : cond >= 1.0f && cond <= 1.0f + 4 * FLT_EPSILON) << v << ": " << cond;
    float b[2] = {0, -2 * v};
    solvelu(f.a, 1, b);
    EXPECT_EQ(b[1], -2.0f) << v;
  }
}

// Random (one, and several panels), bottom-heavy (an exchange at every
// step), Hilbert and chosen condition: small backward error, forward error
// within the condition, and an estimate within a factor ten of
// |A|_inf |A^-1|_1, all against double-precision Gaussian elimination.
TEST(Ludec, SolvesAndConditionAgainstDoubleReference) {
  std::mt19937 rng(20240601);
  struct Case {
    std::string name;
    Mat a;
    double base;  // bottom heavy: every multiplier; else 0
  };
  std::vector<Case> cases;
  auto add = [&](const std::string &name, Mat a, double base = 0) {
    for (auto &row : a)
      for (double &x : row) x = (float)x;  // the matrix exactly as stored
    cases.push_back({name + " " + std::to_string(a.size()), a, base});
  };
  for (int n : {1, 2, 5, 50, 50, 200}) add("random", random_matrix(n, rng));
  for (int n : {3, 8}) {
    const double base = uniform(rng, 1.5, 3.0);
    add("bottom heavy", bottom_heavy(n, base, rng), base);
  }
  for (int n : {4, 8}) {
    Mat h(n, Vec(n));
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) h[i][j] = 1.0 / (i + j + 1);
    add("Hilbert", h);
  }
  for (double k : {1e3, 1e6}) add("kappa " + std::to_string(k), with_condition(30, k, rng));

  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const Mat &a = c.a;
    const int n = (int)a.size();
    double anorm = 0, inv_norm1 = 0;
    for (int j = 0; j < n; j++) {
      Vec e(n, 0.0);
      e[j] = 1;
      inv_norm1 = std::max(inv_norm1, l1(ref::solve(a, e)));
      anorm = std::max(anorm, l1(a[j]));
    }
    const double kappa = anorm * inv_norm1;
    Vec b = ref::multiply(a, random_vector(n, rng));
    for (double &x : b) x = (float)x;

    FMat f(n, a);
    const float cond = factorise(f);
    for (float m : f.multipliers()) ASSERT_TRUE(c.base == 0 || std::fabs(m - c.base) < 1e-3 * c.base) << m;
    std::vector<float> x(n + 1);
    for (int i = 0; i < n; i++) x[i + 1] = (float)b[i];
    solvelu(f.a, n, x.data());

    const Vec xs(x.begin() + 1, x.end()), xr = ref::solve(a, b), axs = ref::multiply(a, xs);
    Vec r(n), d(n);
    for (int i = 0; i < n; i++) r[i] = axs[i] - b[i], d[i] = xs[i] - xr[i];
    EXPECT_LE(linf(r) / (anorm * linf(xs) + linf(b)), 2 * n * EPS);
    if (kappa * EPS < 0.1) {
      EXPECT_LE(linf(d) / linf(xr), 2 * n * EPS * kappa);
      EXPECT_GE(cond, kappa / 10);
      EXPECT_LE(cond, kappa * 10);
    } else {
      EXPECT_GE(cond, 1e5f);  // beyond single precision: still reported as poor
    }
  }
}

// <solvel(x), y> equals <x, tsolvel(y)> for the same stored steps, with both
// kinds of step present.
TEST(Ludec, TransposedEliminationIsTheAdjoint) {
  std::mt19937 rng(314);
  for (const Mat &a : {random_matrix(50, rng), random_matrix(7, rng), bottom_heavy(9, 2.0, rng)}) {
    const int n = (int)a.size();
    SCOPED_TRACE("n = " + std::to_string(n));
    FMat f(n, a);
    factorise(f);
    int exchanges = 0;
    for (float m : f.multipliers()) exchanges += std::fabs(m) > 1;
    ASSERT_GT(exchanges, 0);
    for (int t = 0; t < 5; t++) {
      const Vec x = random_vector(n, rng), y = random_vector(n, rng);
      std::vector<float> lx(n + 1), ty(n + 1);
      for (int i = 0; i < n; i++) lx[i + 1] = (float)x[i], ty[i + 1] = (float)y[i];
      solvel(f.a, n, lx.data());
      tsolvel(f.a, n, ty.data());
      double lhs = 0, rhs = 0, scale = 0;
      for (int i = 0; i < n; i++) {
        lhs += (double)lx[i + 1] * (float)y[i];
        rhs += (double)(float)x[i] * ty[i + 1];
        scale += std::fabs(lx[i + 1] * y[i]) + std::fabs(x[i] * ty[i + 1]);
      }
      EXPECT_LE(std::fabs(lhs - rhs), 2 * n * EPS * scale);
    }
  }
}

TEST(Ludec, CountdownEveryTenRowsAboveTwentyFive) {
  auto run = [](int n, int flag) {
    FMat f(n);
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) f.a[i][j] = (i == j) ? 2.0f : 1.0f / (i + j);
    testing::internal::CaptureStdout();
    factorise(f, flag);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(run(40, 1), "Ludec countdown:   30\rLudec countdown:   20\r"
                        "Ludec countdown:   10\rLudec countdown:    0\r\n");
  EXPECT_EQ(run(26, 1), "Ludec countdown:   20\rLudec countdown:   10\rLudec countdown:    0\r\n");
  EXPECT_EQ(run(25, 1), "");
  EXPECT_EQ(run(40, 0), "");
}

// Sixteen ones after 1e8: a float running sum would stay at 1e8, while the
// exact 100000016 is representable.
TEST(Ludec, NormsAccumulateInDouble) {
  const int n = 17;
  FMat f(n);
  f.a[5][1] = -1e8f;
  for (int j = 2; j <= n; j++) f.a[5][j] = (j % 2) ? 1.0f : -1.0f;
  EXPECT_EQ(vnorm1(f.a[5], n), 100000016.0f);
  EXPECT_EQ(vnorm1(f.a[5], 0), 0.0f);
  for (int j = 1; j <= n; j++) f.a[2][j] = 1e8f / n;
  f.a[9][9] = -100000008.0f;  // a single larger element would beat a float sum
  EXPECT_EQ(mnorm1(f.a, n), 100000016.0f);
  f.a[9][9] = -100000024.0f;
  EXPECT_EQ(mnorm1(f.a, n), 100000024.0f);
}
