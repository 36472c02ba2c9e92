// LU decomposition with pairwise pivoting: factors, solves, the transposed
// elimination and the condition estimate, checked against hand computations
// and an independent double-precision elimination with partial pivoting.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"

namespace {

using DMat = std::vector<std::vector<double>>;  // zero-based, row-major
using DVec = std::vector<double>;

constexpr double EPS = FLT_EPSILON;

// One-based float matrix owned by the test.
struct FMat {
  int n;
  float **a;
  explicit FMat(int n_) : n(n_), a(matrix(1, n_, 1, n_)) {}
  FMat(const FMat &) = delete;
  FMat &operator=(const FMat &) = delete;
  ~FMat() { free_matrix(a, 1, n, 1, n); }
};

// One-based float vector owned by the test.
struct FVec {
  int n;
  float *v;
  explicit FVec(int n_) : n(n_), v(vector(1, n_)) {}
  FVec(const FVec &) = delete;
  FVec &operator=(const FVec &) = delete;
  ~FVec() { free_vector(v, 1, n); }
};

void load(FMat &f, const DMat &m) {
  for (int i = 0; i < f.n; i++)
    for (int j = 0; j < f.n; j++) f.a[i + 1][j + 1] = (float)m[i][j];
}

// The matrix exactly as single precision holds it.
DMat stored(const DMat &m) {
  DMat s = m;
  for (auto &row : s)
    for (double &x : row) x = (float)x;
  return s;
}

// Reference: Gaussian elimination with row partial pivoting in double.
struct DoubleLU {
  int n;
  DMat lu;
  std::vector<int> perm;
  explicit DoubleLU(const DMat &a) : n((int)a.size()), lu(a), perm(n) {
    for (int i = 0; i < n; i++) perm[i] = i;
    for (int k = 0; k < n; k++) {
      int p = k;
      for (int i = k + 1; i < n; i++)
        if (std::fabs(lu[i][k]) > std::fabs(lu[p][k])) p = i;
      std::swap(lu[k], lu[p]);
      std::swap(perm[k], perm[p]);
      for (int i = k + 1; i < n; i++) {
        double m = lu[i][k] / lu[k][k];
        lu[i][k] = m;
        for (int j = k + 1; j < n; j++) lu[i][j] -= m * lu[k][j];
      }
    }
  }
  DVec solve(const DVec &b) const {
    DVec x(n);
    for (int i = 0; i < n; i++) {
      double s = b[perm[i]];
      for (int j = 0; j < i; j++) s -= lu[i][j] * x[j];
      x[i] = s;
    }
    for (int i = n - 1; i >= 0; i--) {
      double s = x[i];
      for (int j = i + 1; j < n; j++) s -= lu[i][j] * x[j];
      x[i] = s / lu[i][i];
    }
    return x;
  }
};

double norm_inf(const DVec &v) {
  double m = 0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

double mat_norm_inf(const DMat &a) {
  double best = 0;
  for (const auto &row : a) {
    double s = 0;
    for (double x : row) s += std::fabs(x);
    best = std::max(best, s);
  }
  return best;
}

// The quantity the estimate approximates: |A|_inf * |A^-1|_1.
double true_condition(const DMat &a) {
  int n = (int)a.size();
  DoubleLU lu(a);
  double inv_norm1 = 0;  // largest column sum of |A^-1|
  for (int c = 0; c < n; c++) {
    DVec e(n, 0.0);
    e[c] = 1;
    DVec col = lu.solve(e);
    double s = 0;
    for (double x : col) s += std::fabs(x);
    inv_norm1 = std::max(inv_norm1, s);
  }
  return mat_norm_inf(a) * inv_norm1;
}

// Uniform in [lo, hi) from the generator's raw bits, so that the matrices
// (and everything asserted about them) are the same with any library.
double uniform(std::mt19937 &rng, double lo, double hi) {
  return lo + (hi - lo) * ((rng() >> 8) * (1.0 / 16777216.0));
}

DMat random_matrix(int n, std::mt19937 &rng) {
  DMat m(n, DVec(n));
  for (auto &row : m)
    for (double &x : row) x = uniform(rng, -1, 1);
  return m;
}

DVec random_vector(int n, std::mt19937 &rng) {
  DVec v(n);
  for (double &x : v) x = uniform(rng, -1, 1);
  return v;
}

// Rows grow by a factor `base` from top to bottom: row i (from 0) is
// base^i times (c_j x_i^j) over equally spaced nodes x_i.  Every contiguous
// block of rows then has the same leading minors up to the row factors, and
// working through the elimination with determinants shows that the row
// being eliminated always holds exactly `base` times the pivot: every step
// exchanges and stores the multiplier `base`.  The column factors c_j
// change nothing in that.
DMat bottom_heavy_matrix(int n, double base, std::mt19937 &rng) {
  double h = uniform(rng, 1.5, 2.5) / n, x0 = uniform(rng, -1.2, -0.8);
  DVec c(n);
  for (double &x : c) x = uniform(rng, 0.5, 2.0);
  DMat m(n, DVec(n));
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) m[i][j] = std::pow(base, i) * c[j] * std::pow(x0 + h * i, j);
  return m;
}

// Random orthogonal matrix: Gram-Schmidt (twice) on random columns.
DMat random_orthogonal(int n, std::mt19937 &rng) {
  DMat q = random_matrix(n, rng);  // columns q[.][c]
  for (int c = 0; c < n; c++)
    for (int pass = 0; pass < 2; pass++) {
      for (int p = 0; p < c; p++) {
        double d = 0;
        for (int r = 0; r < n; r++) d += q[r][c] * q[r][p];
        for (int r = 0; r < n; r++) q[r][c] -= d * q[r][p];
      }
      double len = 0;
      for (int r = 0; r < n; r++) len += q[r][c] * q[r][c];
      len = std::sqrt(len);
      for (int r = 0; r < n; r++) q[r][c] /= len;
    }
  return q;
}

// U diag(s) V^T with singular values spread geometrically from 1 to 1/kappa.
DMat matrix_with_condition(int n, double kappa, std::mt19937 &rng) {
  DMat u = random_orthogonal(n, rng), v = random_orthogonal(n, rng);
  DVec s(n);
  for (int k = 0; k < n; k++) s[k] = n == 1 ? 1.0 : std::pow(kappa, -(double)k / (n - 1));
  DMat a(n, DVec(n, 0.0));
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++)
      for (int k = 0; k < n; k++) a[i][j] += u[i][k] * s[k] * v[j][k];
  return a;
}

DMat hilbert(int n) {
  DMat h(n, DVec(n));
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) h[i][j] = 1.0 / (i + j + 1);
  return h;
}

// Factorise quietly (tests of the countdown switch it on themselves).
float factorise(FMat &f) {
  int saved = is_verbose();
  set_verbose(0);
  float cond = -1;
  ludec(f.a, f.n, &cond);
  set_verbose(saved);
  return cond;
}

struct SolveCheck {
  double backward;  // |A x - b| / (|A| |x| + |b|), infinity norms
  double forward;   // |x - x_ref| / |x_ref| against the double solution
};

// Factorise a (as stored in float), solve for a random right-hand side and
// compare with the double reference solution of the same stored system.
SolveCheck solve_and_compare(const DMat &a_in, std::mt19937 &rng, float *cond_out = nullptr) {
  int n = (int)a_in.size();
  DMat a = stored(a_in);
  DVec x_true = random_vector(n, rng);
  DVec b(n, 0.0);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) b[i] += a[i][j] * x_true[j];
  for (double &x : b) x = (float)x;

  FMat f(n);
  load(f, a);
  float cond = factorise(f);
  if (cond_out) *cond_out = cond;
  FVec x(n);
  for (int i = 0; i < n; i++) x.v[i + 1] = (float)b[i];
  solvelu(f.a, n, x.v);

  DVec xs(n), r(n);
  for (int i = 0; i < n; i++) xs[i] = x.v[i + 1];
  for (int i = 0; i < n; i++) {
    double s = -b[i];
    for (int j = 0; j < n; j++) s += a[i][j] * xs[j];
    r[i] = s;
  }
  DVec x_ref = DoubleLU(a).solve(b);
  DVec diff(n);
  for (int i = 0; i < n; i++) diff[i] = xs[i] - x_ref[i];
  SolveCheck c;
  c.backward = norm_inf(r) / (mat_norm_inf(a) * norm_inf(xs) + norm_inf(b));
  c.forward = norm_inf(diff) / norm_inf(x_ref);
  return c;
}

std::vector<float> multipliers(const FMat &f) {
  std::vector<float> m;
  for (int i = 2; i <= f.n; i++)
    for (int k = 1; k < i; k++) m.push_back(f.a[i][k]);
  return m;
}

}  // namespace

TEST(Ludec, HandWorkedTwoByTwo) {
  // The lower row holds the larger pivot element: m = 4, the rows exchange,
  // row 2 becomes (1 2) - (4 3)/4 = (0 1.25).
  {
    FMat f(2);
    f.a[1][1] = 1, f.a[1][2] = 2, f.a[2][1] = 4, f.a[2][2] = 3;
    float cond = factorise(f);
    EXPECT_EQ(f.a[1][1], 4.0f);
    EXPECT_EQ(f.a[1][2], 3.0f);
    EXPECT_EQ(f.a[2][1], 4.0f);
    EXPECT_EQ(f.a[2][2], 1.25f);
    // y = (-0.25, 1.4) from U^T; transposed steps give (1.4, -0.6), |y| = 2;
    // solving again gives (-1.08, 1.24), so 2.32 * 7 / 2.
    EXPECT_NEAR(cond, 8.12, 1e-5);
    float b[3] = {0, 5, 10};
    solvelu(f.a, 2, b);
    EXPECT_EQ(b[1], 1.0f);
    EXPECT_EQ(b[2], 2.0f);
  }
  // The upper row holds the larger element: no exchange, m = 1/4.
  {
    FMat f(2);
    f.a[1][1] = 4, f.a[1][2] = 3, f.a[2][1] = 1, f.a[2][2] = 2;
    factorise(f);
    EXPECT_EQ(f.a[1][1], 4.0f);
    EXPECT_EQ(f.a[1][2], 3.0f);
    EXPECT_EQ(f.a[2][1], 0.25f);
    EXPECT_EQ(f.a[2][2], 1.25f);
    float b[3] = {0, 10, 5};
    solvelu(f.a, 2, b);
    EXPECT_EQ(b[1], 1.0f);
    EXPECT_EQ(b[2], 2.0f);
  }
  // |m| = 1 exactly does not exchange, for either sign.
  for (float sgn : {1.0f, -1.0f}) {
    FMat f(2);
    f.a[1][1] = 2, f.a[1][2] = 1, f.a[2][1] = 2 * sgn, f.a[2][2] = 3;
    factorise(f);
    EXPECT_EQ(f.a[1][1], 2.0f);
    EXPECT_EQ(f.a[1][2], 1.0f);
    EXPECT_EQ(f.a[2][1], sgn);
    EXPECT_EQ(f.a[2][2], 3.0f - sgn);
  }
}

TEST(Ludec, ZeroAndNegligiblePivots) {
  // A zero pivot under a nonzero element: the pivot is replaced by 1e-19,
  // the multiplier 2/1e-19 exchanges the rows, and the solve is exact.
  {
    FMat f(2);
    f.a[1][1] = 0, f.a[1][2] = 1, f.a[2][1] = 2, f.a[2][2] = 3;
    factorise(f);
    EXPECT_EQ(f.a[1][1], 2.0f);
    EXPECT_EQ(f.a[1][2], 3.0f);
    EXPECT_EQ(f.a[2][1], 2.0f / 1e-19f);
    EXPECT_EQ(f.a[2][2], 1.0f);
    float b[3] = {0, 1, 5};  // x = (1, 1)
    solvelu(f.a, 2, b);
    EXPECT_EQ(b[1], 1.0f);
    EXPECT_EQ(b[2], 1.0f);
  }
  // A pivot of 1e-25 is negligible next to 1: it is replaced before the
  // division, so the multiplier is 1e19 rather than 1e25.
  {
    FMat f(2);
    f.a[1][1] = 1e-25f, f.a[1][2] = 1, f.a[2][1] = 1, f.a[2][2] = 1;
    factorise(f);
    EXPECT_EQ(f.a[2][1], 1.0f / 1e-19f);
    EXPECT_EQ(f.a[1][1], 1.0f);
  }
  // A pivot that is small but not negligible is kept: m = 1e18 is the
  // quotient of the original elements.
  {
    FMat f(2);
    f.a[1][1] = 1e-18f, f.a[1][2] = 1, f.a[2][1] = 1, f.a[2][2] = 1;
    factorise(f);
    EXPECT_EQ(f.a[2][1], 1.0f / 1e-18f);
  }
}

TEST(Ludec, ZeroMatrixGivesTinyPivotsAndHugeCondition) {
  for (int n : {1, 2, 5, 30}) {
    FMat f(n);
    float cond = factorise(f);
    EXPECT_GE(cond, 1e30f) << "n = " << n;
    EXPECT_FALSE(std::isnan(cond));
    // Every row but the last is used as a pivot row and has its pivot
    // replaced; nothing is eliminated against the last one.
    for (int k = 1; k < n; k++) EXPECT_EQ(f.a[k][k], 1e-19f) << "n = " << n << " k = " << k;
    EXPECT_EQ(f.a[n][n], 0.0f);
    for (float m : multipliers(f)) EXPECT_EQ(m, 0.0f);
  }
}

TEST(Ludec, IdentityAndOneByOne) {
  for (int n : {1, 2, 7, 40}) {
    FMat f(n);
    for (int i = 1; i <= n; i++) f.a[i][i] = 1;
    EXPECT_EQ(factorise(f), 1.0f) << "n = " << n;
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) EXPECT_EQ(f.a[i][j], i == j ? 1.0f : 0.0f);
  }
  // n = 1: |a| * |1/a| is one up to rounding, never below one.
  std::mt19937 rng(11);
  for (int t = 0; t < 50; t++) {
    FMat f(1);
    float v = (float)uniform(rng, -1e6, 1e6);
    f.a[1][1] = v;
    float cond = factorise(f);
    EXPECT_GE(cond, 1.0f);
    EXPECT_LE(cond, 1.0f + 4 * FLT_EPSILON) << "a = " << v;
    EXPECT_EQ(f.a[1][1], v);
    float b[2] = {0, -2 * v};
    solvelu(f.a, 1, b);
    EXPECT_EQ(b[1], -2.0f);
  }
  // A tiny 1 x 1 is perfectly conditioned, but once the first solve grows
  // past 1e19 the estimate is given up as hopeless.
  {
    FMat f(1);
    f.a[1][1] = 2e-19f;  // first solve 5e18: estimated normally
    float cond = factorise(f);
    EXPECT_GE(cond, 1.0f);
    EXPECT_LE(cond, 1.0f + 4 * FLT_EPSILON);
    f.a[1][1] = 9e-20f;  // first solve 1.1e19, second still finite
    EXPECT_EQ(factorise(f), 1e38f);
  }
}

TEST(Ludec, RandomSystemsMatchDoubleSolution) {
  std::mt19937 rng(20240601);
  for (int n : {1, 2, 5, 50, 200}) {
    int reps = n >= 200 ? 2 : 5;
    for (int rep = 0; rep < reps; rep++) {
      DMat a = random_matrix(n, rng);
      double kappa = true_condition(stored(a));
      SolveCheck c = solve_and_compare(a, rng);
      EXPECT_LE(c.backward, 2 * n * EPS) << "n = " << n << " rep " << rep;
      EXPECT_LE(c.forward, 2 * n * EPS * kappa) << "n = " << n << " rep " << rep;
    }
  }
}

TEST(Ludec, BottomHeavyMatricesExchangeAtEveryStep) {
  std::mt19937 rng(77);
  for (int n : {2, 3, 5, 8}) {
    for (int rep = 0; rep < 4; rep++) {
      double base = uniform(rng, 1.5, 3.0);
      DMat a = bottom_heavy_matrix(n, base, rng);
      FMat f(n);
      load(f, stored(a));
      factorise(f);
      for (float m : multipliers(f)) {
        ASSERT_GT(std::fabs(m), 1.0f) << "n = " << n << " rep " << rep;
        EXPECT_NEAR(m, base, 1e-3 * base) << "n = " << n << " rep " << rep;
      }

      double kappa = true_condition(stored(a));
      float cond;
      SolveCheck c = solve_and_compare(a, rng, &cond);
      EXPECT_LE(c.backward, 2 * n * EPS) << "n = " << n << " rep " << rep;
      EXPECT_LE(c.forward, 2 * n * EPS * kappa) << "n = " << n << " rep " << rep;
      EXPECT_GE(cond, kappa / 10) << "n = " << n << " rep " << rep;
      EXPECT_LE(cond, kappa * 10) << "n = " << n << " rep " << rep;
    }
  }
}

TEST(Ludec, IllConditionedSystemsHaveSmallResiduals) {
  std::mt19937 rng(5);
  // Hilbert matrices up to the limit of single precision and beyond: the
  // residual stays small however poor the solution.
  for (int n = 4; n <= 8; n++) {
    double kappa = true_condition(stored(hilbert(n)));
    float cond;
    SolveCheck c = solve_and_compare(hilbert(n), rng, &cond);
    EXPECT_LE(c.backward, 2 * n * EPS) << "Hilbert " << n;
    if (kappa * EPS < 0.1) {
      EXPECT_LE(c.forward, 2 * n * EPS * kappa) << "Hilbert " << n;
      EXPECT_GE(cond, kappa / 10) << "Hilbert " << n;
      EXPECT_LE(cond, kappa * 10) << "Hilbert " << n;
    } else {
      EXPECT_GE(cond, 1e5f) << "Hilbert " << n;  // still reported as poor
    }
  }
  // Chosen singular values.
  for (int n : {10, 30}) {
    for (double target : {1e2, 1e4, 1e6}) {
      DMat a = matrix_with_condition(n, target, rng);
      double kappa = true_condition(stored(a));
      float cond;
      SolveCheck c = solve_and_compare(a, rng, &cond);
      EXPECT_LE(c.backward, 2 * n * EPS) << "n = " << n << " kappa " << target;
      EXPECT_LE(c.forward, 2 * n * EPS * kappa) << "n = " << n << " kappa " << target;
      EXPECT_GE(cond, kappa / 10) << "n = " << n << " kappa " << target;
      EXPECT_LE(cond, kappa * 10) << "n = " << n << " kappa " << target;
    }
  }
}

TEST(Ludec, ConditionEstimateOfRandomMatrices) {
  std::mt19937 rng(99);
  for (int n : {2, 5, 50, 200}) {
    for (int rep = 0; rep < 3; rep++) {
      DMat a = stored(random_matrix(n, rng));
      double kappa = true_condition(a);
      FMat f(n);
      load(f, a);
      float cond = factorise(f);
      EXPECT_GE(cond, kappa / 10) << "n = " << n << " rep " << rep;
      EXPECT_LE(cond, kappa * 10) << "n = " << n << " rep " << rep;
    }
  }
}

// <solvel(x), y> must equal <x, tsolvel(y)> for the same stored steps.
TEST(Ludec, TransposedEliminationIsTheAdjoint) {
  std::mt19937 rng(314);
  struct Case {
    DMat a;
    const char *what;
  };
  std::vector<Case> cases;
  cases.push_back({random_matrix(50, rng), "random 50"});
  cases.push_back({random_matrix(7, rng), "random 7"});
  cases.push_back({bottom_heavy_matrix(9, 2.0, rng), "bottom heavy 9"});
  for (const Case &cs : cases) {
    int n = (int)cs.a.size();
    FMat f(n);
    load(f, stored(cs.a));
    factorise(f);
    int exchanges = 0, plain = 0;
    for (float m : multipliers(f)) (std::fabs(m) > 1 ? exchanges : plain)++;
    ASSERT_GT(exchanges, 0) << cs.what;  // both kinds of step are exercised
    if (std::string(cs.what).rfind("random", 0) == 0) {
      ASSERT_GT(plain, 0) << cs.what;
    }

    for (int t = 0; t < 5; t++) {
      DVec x = random_vector(n, rng), y = random_vector(n, rng);
      FVec lx(n), ty(n);
      for (int i = 0; i < n; i++) lx.v[i + 1] = (float)x[i], ty.v[i + 1] = (float)y[i];
      solvel(f.a, n, lx.v);
      tsolvel(f.a, n, ty.v);
      double lhs = 0, rhs = 0, scale = 0;
      for (int i = 0; i < n; i++) {
        lhs += (double)lx.v[i + 1] * (float)y[i];
        rhs += (double)(float)x[i] * ty.v[i + 1];
        scale += std::fabs(lx.v[i + 1] * y[i]) + std::fabs(x[i] * ty.v[i + 1]);
      }
      EXPECT_LE(std::fabs(lhs - rhs), 2 * n * EPS * scale) << cs.what << " trial " << t;
    }
  }
}

TEST(Ludec, CountdownEveryTenRowsAboveTwentyFive) {
  auto run = [](int n, int flag) {
    FMat f(n);
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) f.a[i][j] = (i == j) ? 2.0f : 1.0f / (i + j);
    int saved = is_verbose();
    set_verbose(flag);
    float cond;
    testing::internal::CaptureStdout();
    ludec(f.a, n, &cond);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    set_verbose(saved);
    return out;
  };
  EXPECT_EQ(run(40, 1),
            "Ludec countdown:   30\rLudec countdown:   20\r"
            "Ludec countdown:   10\rLudec countdown:    0\r\n");
  EXPECT_EQ(run(26, 1), "Ludec countdown:   20\rLudec countdown:   10\rLudec countdown:    0\r\n");
  EXPECT_EQ(run(25, 1), "");
  EXPECT_EQ(run(40, 0), "");
}

TEST(Ludec, ManyRightHandSidesMatchSingleSolvesBitForBit) {
  std::mt19937 rng(8);
  for (int n : {1, 6, 50}) {
    const int nrhs = 7;
    DMat a = random_matrix(n, rng);
    FMat f(n), g(n);
    load(f, a);
    load(g, a);
    factorise(f);
    factorise(g);  // the same input factorises to the same bits
    for (int i = 1; i <= n; i++) ASSERT_EQ(0, std::memcmp(&f.a[i][1], &g.a[i][1], n * sizeof(float)));

    float **x = matrix(1, nrhs, 1, n);
    std::vector<std::vector<float>> single(nrhs + 1, std::vector<float>(n + 1));
    for (int r = 1; r <= nrhs; r++) {
      DVec b = random_vector(n, rng);
      for (int i = 1; i <= n; i++) x[r][i] = single[r][i] = (float)(b[i - 1] * std::pow(10.0, r - 4));
      solvelu(f.a, n, single[r].data());
    }
    solvelu_many(f.a, n, x, nrhs);
    for (int r = 1; r <= nrhs; r++)
      EXPECT_EQ(0, std::memcmp(&x[r][1], &single[r][1], n * sizeof(float))) << "n = " << n << " row " << r;
    solvelu_many(f.a, n, x, 0);  // no rows: nothing touched
    EXPECT_EQ(0, std::memcmp(&x[1][1], &single[1][1], n * sizeof(float)));
    free_matrix(x, 1, nrhs, 1, n);
  }
}

TEST(Ludec, NormsAccumulateInDouble) {
  // Sixteen ones after 1e8: a float running sum would stay at 1e8, while
  // the exact sum 100000016 is representable in single precision.
  const int n = 17;
  FVec v(n);
  v.v[1] = -1e8f;
  for (int i = 2; i <= n; i++) v.v[i] = (i % 2) ? 1.0f : -1.0f;
  EXPECT_EQ(vnorm1(v.v, n), 100000016.0f);
  EXPECT_EQ(vnorm1(v.v, 0), 0.0f);

  FMat f(n);
  for (int j = 1; j <= n; j++) f.a[5][j] = v.v[j];  // the largest row
  for (int j = 1; j <= n; j++) f.a[2][j] = 1e8f / n;
  f.a[9][9] = -100000008.0f;  // a single larger element would win against a float sum
  EXPECT_EQ(mnorm1(f.a, n), 100000016.0f);
  f.a[9][9] = -100000024.0f;
  EXPECT_EQ(mnorm1(f.a, n), 100000024.0f);
}
