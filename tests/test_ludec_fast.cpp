// The blocked, vectorised, threaded LU kernels against the one-row-at-a-time
// reference loops: the factors, the condition estimate, the countdown and
// every solve must come out bit for bit the same, whatever the thread count
// and instruction-set level, on matrices chosen to reach every branch
// (exchanges, the pivot guard, overflow, panels cut anywhere).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/ludec_plain.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"

namespace {

// Square one-based float matrix owned by the test.
struct FMat {
  int n;
  float **a;
  explicit FMat(int n_) : n(n_), a(matrix(1, n_ < 1 ? 1 : n_, 1, n_ < 1 ? 1 : n_)) {}
  FMat(const FMat &o) : FMat(o.n) {
    for (int i = 1; i <= n; i++) memcpy(&a[i][1], &o.a[i][1], n * sizeof(float));
  }
  FMat &operator=(const FMat &) = delete;
  ~FMat() { free_matrix(a, 1, n < 1 ? 1 : n, 1, n < 1 ? 1 : n); }
};

// Rows of right-hand sides, rows x[1..nrhs][1..n].
struct Rhs {
  int nrhs, n;
  float **x;
  Rhs(int nrhs_, int n_) : nrhs(nrhs_), n(n_), x(matrix(1, nrhs_, 1, n_)) {}
  Rhs(const Rhs &o) : Rhs(o.nrhs, o.n) {
    for (int r = 1; r <= nrhs; r++) memcpy(&x[r][1], &o.x[r][1], n * sizeof(float));
  }
  Rhs &operator=(const Rhs &) = delete;
  ~Rhs() { free_matrix(x, 1, nrhs, 1, n); }
};

// Same bits, or NaN on both sides (the payload of a NaN is not part of the
// arithmetic and may differ between scalar and vector instructions).
bool same(float p, float q) {
  if (std::isnan(p) && std::isnan(q)) return true;
  uint32_t a, b;
  memcpy(&a, &p, 4);
  memcpy(&b, &q, 4);
  return a == b;
}

// Empty when the rows agree; otherwise where they first differ.
std::string compare_rows(const float *p, const float *q, int n, const std::string &what) {
  for (int j = 1; j <= n; j++)
    if (!same(p[j], q[j]))
      return what + " column " + std::to_string(j) + ": " + std::to_string(p[j]) + " vs " + std::to_string(q[j]);
  return "";
}

std::string compare(const FMat &x, const FMat &y) {
  for (int i = 1; i <= x.n; i++) {
    std::string d = compare_rows(x.a[i], y.a[i], x.n, "row " + std::to_string(i));
    if (!d.empty()) return d;
  }
  return "";
}

double uniform(std::mt19937 &rng, double lo, double hi) {
  return lo + (hi - lo) * ((rng() >> 8) * (1.0 / 16777216.0));
}

using Fill = std::function<void(FMat &, std::mt19937 &)>;

void fill_random(FMat &m, std::mt19937 &rng) {
  for (int i = 1; i <= m.n; i++)
    for (int j = 1; j <= m.n; j++) m.a[i][j] = (float)uniform(rng, -1, 1);
}

// Later rows larger: the row being eliminated tends to hold the larger
// element, so many steps exchange.
void fill_bottom_heavy(FMat &m, std::mt19937 &rng) {
  for (int i = 1; i <= m.n; i++) {
    double scale = std::pow(2.0, std::min(i, 400) / 4.0);
    for (int j = 1; j <= m.n; j++) m.a[i][j] = (float)(scale * uniform(rng, -1, 1));
  }
}

// Hilbert matrix: hopelessly ill-conditioned beyond a dozen rows, with
// pivots that vanish into rounding.
void fill_hilbert(FMat &m, std::mt19937 &) {
  for (int i = 1; i <= m.n; i++)
    for (int j = 1; j <= m.n; j++) m.a[i][j] = 1.0f / (float)(i + j - 1);
}

// Exact zero pivots: a zero first column, zero rows, and rows repeated so
// that elimination cancels them to zero.
void fill_zero_pivots(FMat &m, std::mt19937 &rng) {
  fill_random(m, rng);
  for (int i = 1; i <= m.n; i++) {
    m.a[i][1] = 0.0f;
    if (i % 5 == 0)
      for (int j = 1; j <= m.n; j++) m.a[i][j] = 0.0f;
    if (i % 7 == 0 && i > 1)
      for (int j = 1; j <= m.n; j++) m.a[i][j] = m.a[i - 1][j];
  }
}

// I - C with C positive and every row of C summing to one half, the shape
// of a boundary-element system: diagonally dominant, no exchanges.
void fill_bem_like(FMat &m, std::mt19937 &rng) {
  for (int i = 1; i <= m.n; i++) {
    std::vector<double> c(m.n + 1);
    double sum = 0;
    for (int j = 1; j <= m.n; j++) sum += c[j] = uniform(rng, 0.01, 1.0);
    for (int j = 1; j <= m.n; j++) m.a[i][j] = (float)((i == j ? 1.0 : 0.0) - 0.5 * c[j] / sum);
  }
}

// Entries near the top of the float range: eliminations overflow to
// infinity and then NaN, which the exchange tests must treat alike.
void fill_overflowing(FMat &m, std::mt19937 &rng) {
  fill_random(m, rng);
  for (int i = 1; i <= m.n; i++)
    for (int j = 1; j <= m.n; j++)
      if ((i * 7 + j * 3) % 11 == 0) m.a[i][j] = (float)(uniform(rng, -1, 1) * 3e38);
}

struct Kind {
  const char *name;
  Fill fill;
};

const std::vector<Kind> &kinds() {
  static const std::vector<Kind> k = {
      {"random", fill_random},         {"bottom-heavy", fill_bottom_heavy}, {"hilbert", fill_hilbert},
      {"zero-pivots", fill_zero_pivots}, {"bem-like", fill_bem_like},       {"overflowing", fill_overflowing},
  };
  return k;
}

// Every instruction-set level this processor offers.
std::vector<int> simd_levels() {
  int best = set_lu_simd(-1);
  std::vector<int> levels;
  for (int l = 0; l <= best; l++) levels.push_back(l);
  return levels;
}

// Restores the defaults when a test ends, passed or not.
struct Settings {
  int saved_verbose = is_verbose();
  Settings() { set_verbose(0); }
  ~Settings() {
    set_lu_threads(0);
    set_lu_simd(-1);
    set_verbose(saved_verbose);
  }
};

long count_exchanges(const FMat &f) {
  long c = 0;
  for (int i = 2; i <= f.n; i++)
    for (int k = 1; k < i; k++) c += !(std::fabs(f.a[i][k]) <= 1.0f);
  return c;
}

}  // namespace

TEST(LudecFast, LevelSettingIsClampedToTheProcessor) {
  Settings s;
  const int best = set_lu_simd(-1);
  EXPECT_GE(best, 0);
  EXPECT_LE(best, 2);
  EXPECT_EQ(set_lu_simd(0), 0);
  EXPECT_EQ(set_lu_simd(best + 1), best);  // beyond the processor: the best it has
  EXPECT_EQ(set_lu_simd(-5), best);
}

// The heart of it: same factors, same estimate, for every size around the
// panel and tile boundaries, every kind of matrix, 1 to 3 threads, every
// instruction-set level.
TEST(LudecFast, FactorsAndEstimateMatchTheReferenceBitForBit) {
  Settings s;
  const std::vector<int> sizes = {1, 2, 63, 64, 65, 200, 513};
  for (const Kind &kind : kinds()) {
    for (int n : sizes) {
      std::mt19937 rng(1000 * n + 17);
      FMat original(n);
      kind.fill(original, rng);
      FMat ref(original);
      float ref_cond = -1;
      ludec_plain(ref.a, n, &ref_cond);
      if (std::string(kind.name) == "bottom-heavy" && n >= 63) {
        // The test is only worth its name if exchanges are common.
        EXPECT_GT(count_exchanges(ref), (long)n * (n - 1) / 8) << "n = " << n;  // a quarter of the steps
      }
      if (std::string(kind.name) == "bem-like") {
        EXPECT_EQ(count_exchanges(ref), 0) << "n = " << n;
      }
      for (int level : simd_levels()) {
        set_lu_simd(level);
        for (int threads : {1, 2, 3}) {
          set_lu_threads(threads);
          FMat f(original);
          float cond = -2;
          ludec(f.a, n, &cond);
          std::string where = std::string(kind.name) + " n = " + std::to_string(n) + " level " +
                              std::to_string(level) + " threads " + std::to_string(threads);
          EXPECT_EQ(compare(f, ref), "") << where;
          EXPECT_TRUE(same(cond, ref_cond)) << where << ": " << cond << " vs " << ref_cond;
        }
      }
    }
  }
}

// Several panels, so that later panels are factorised while other threads
// still bring columns up to date.
TEST(LudecFast, ManyPanelsWithThreads) {
  Settings s;
  for (const Kind &kind : {kinds()[0], kinds()[1], kinds()[4]}) {
    const int n = 777;
    std::mt19937 rng(4242);
    FMat original(n);
    kind.fill(original, rng);
    FMat ref(original);
    float ref_cond;
    ludec_plain(ref.a, n, &ref_cond);
    for (int threads : {1, 2, 3}) {
      set_lu_threads(threads);
      FMat f(original);
      float cond;
      ludec(f.a, n, &cond);
      EXPECT_EQ(compare(f, ref), "") << kind.name << " threads " << threads;
      EXPECT_TRUE(same(cond, ref_cond)) << kind.name << " threads " << threads;
    }
  }
}

TEST(LudecFast, ZeroMatrixAndIdentity) {
  Settings s;
  for (int n : {1, 64, 130}) {
    FMat zero(n), zero_ref(n);
    float c1, c2;
    ludec(zero.a, n, &c1);
    ludec_plain(zero_ref.a, n, &c2);
    EXPECT_EQ(compare(zero, zero_ref), "") << "zero n = " << n;
    EXPECT_TRUE(same(c1, c2));
    for (int k = 1; k < n; k++) EXPECT_EQ(zero.a[k][k], 1e-19f);  // every guard fired

    FMat id(n);
    for (int i = 1; i <= n; i++) id.a[i][i] = 1.0f;
    ludec(id.a, n, &c1);
    EXPECT_EQ(c1, 1.0f);
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) EXPECT_EQ(id.a[i][j], i == j ? 1.0f : 0.0f);
  }
}

// The countdown text does not depend on how the work is ordered.
TEST(LudecFast, CountdownIsTheReferenceText) {
  Settings s;
  for (int n : {26, 40, 300}) {
    std::mt19937 rng(n);
    FMat original(n);
    fill_random(original, rng);
    auto capture = [&](bool fast) {
      FMat f(original);
      float cond;
      set_verbose(1);
      testing::internal::CaptureStdout();
      if (fast)
        ludec(f.a, n, &cond);
      else
        ludec_plain(f.a, n, &cond);
      fflush(stdout);
      std::string out = testing::internal::GetCapturedStdout();
      set_verbose(0);
      return out;
    };
    std::string ref = capture(false);
    EXPECT_EQ(capture(true), ref) << "n = " << n;
    // n - i for every row i = 2 .. n with n - i a multiple of ten, then a newline.
    int lines = 0;
    for (int i = 2; i <= n; i++) lines += (n - i) % 10 == 0;
    EXPECT_EQ((int)std::count(ref.begin(), ref.end(), '\r'), lines);
    EXPECT_EQ(ref.back(), '\n');
  }
}

// The single-vector routines of the fast file against the reference ones.
TEST(LudecFast, SingleVectorSolvesMatchTheReference) {
  Settings s;
  for (const Kind &kind : kinds()) {
    for (int n : {1, 2, 3, 4, 5, 9, 200}) {
      std::mt19937 rng(7 * n + 1);
      FMat f(n);
      kind.fill(f, rng);
      float cond;
      ludec_plain(f.a, n, &cond);
      std::vector<float> v(n + 1), w(n + 1);
      for (int i = 1; i <= n; i++) v[i] = w[i] = (float)uniform(rng, -1, 1);
      using Solver = void (*)(float **, int, float *);
      const struct {
        const char *name;
        Solver fast, plain;
      } pairs[] = {{"solvel", solvel, solvel_plain},
                   {"solveu", solveu, solveu_plain},
                   {"tsolvel", tsolvel, tsolvel_plain},
                   {"solvelu", solvelu, solvelu_plain}};
      for (const auto &p : pairs) {
        std::vector<float> x = v, y = w;
        p.fast(f.a, n, x.data());
        p.plain(f.a, n, y.data());
        EXPECT_EQ(compare_rows(x.data(), y.data(), n, p.name), "") << kind.name << " n = " << n;
      }
    }
  }
}

namespace {

// Solve every row of `rhs` with solvelu_many under all settings and compare
// each with solvelu_plain of the same row.
void check_many(const FMat &f, const Rhs &rhs, const std::string &what) {
  Rhs ref(rhs);
  for (int r = 1; r <= rhs.nrhs; r++) solvelu_plain(f.a, f.n, ref.x[r]);
  for (int level : simd_levels()) {
    set_lu_simd(level);
    for (int threads : {1, 2, 3}) {
      set_lu_threads(threads);
      Rhs x(rhs);
      solvelu_many(f.a, f.n, x.x, x.nrhs);
      for (int r = 1; r <= rhs.nrhs; r++) {
        std::string d = compare_rows(x.x[r], ref.x[r], f.n, "rhs " + std::to_string(r));
        ASSERT_EQ(d, "") << what << " level " << level << " threads " << threads;
      }
    }
  }
}

}  // namespace

TEST(LudecFast, ManyRightHandSidesMatchSingleSolves) {
  Settings s;
  for (const Kind &kind : kinds()) {
    for (int n : {1, 2, 63, 65, 200, 513}) {
      std::mt19937 rng(31 * n + 5);
      FMat f(n);
      kind.fill(f, rng);
      float cond;
      ludec_plain(f.a, n, &cond);
      for (int nrhs : {1, 4, 17, 40}) {
        Rhs rhs(nrhs, n);
        for (int r = 1; r <= nrhs; r++)
          for (int i = 1; i <= n; i++) rhs.x[r][i] = (float)(uniform(rng, -1, 1) * std::pow(10.0, r % 7 - 3));
        check_many(f, rhs, std::string(kind.name) + " n = " + std::to_string(n) + " nrhs " + std::to_string(nrhs));
      }
    }
  }
}

// Unit right-hand sides, as an inversion column by column uses them: their
// leading zeros let the forward part skip rows, which must change nothing.
TEST(LudecFast, UnitRightHandSidesSkipNothingThatMatters) {
  Settings s;
  for (const Kind &kind : kinds()) {
    const int n = 300;
    std::mt19937 rng(99);
    FMat f(n);
    kind.fill(f, rng);
    float cond;
    ludec_plain(f.a, n, &cond);
    // Consecutive columns (an inversion's blocks), scattered ones, and a
    // block whose leading entries include a -0.0 (not a zero to skip).
    Rhs consecutive(130, n), scattered(37, n), negzero(20, n);
    for (int r = 1; r <= 130; r++) consecutive.x[r][85 + r] = 2.0f;
    for (int r = 1; r <= 37; r++) scattered.x[r][(r * 97) % n + 1] = (float)r;
    for (int r = 1; r <= 20; r++) {
      negzero.x[r][200 + r] = 1.0f;
      negzero.x[r][3] = -0.0f;
    }
    check_many(f, consecutive, std::string(kind.name) + " consecutive units");
    check_many(f, scattered, std::string(kind.name) + " scattered units");
    check_many(f, negzero, std::string(kind.name) + " units after -0.0");
    // All-zero right-hand sides: the back substitution still runs (0 / u
    // keeps the sign of u in the zero).  With a -0.0 somewhere the forward
    // steps from there on decide the signs of the zeros that come out.
    Rhs zeros(8, n);
    for (int r = 5; r <= 8; r++) zeros.x[r][30 * r] = -0.0f;
    check_many(f, zeros, std::string(kind.name) + " zero right-hand sides");
  }
}

// A NaN multiplier among the rows a unit right-hand side would skip: the
// reference turns the solution into NaN, and so must the fast solve.
TEST(LudecFast, NaNMultiplierAboveTheLeadingZerosIsNotSkipped) {
  Settings s;
  const int n = 120;
  std::mt19937 rng(3);
  FMat f(n);
  fill_bem_like(f, rng);
  float cond;
  ludec_plain(f.a, n, &cond);
  f.a[5][2] = std::numeric_limits<float>::quiet_NaN();  // a stored multiplier
  Rhs units(16, n);
  for (int r = 1; r <= 16; r++) units.x[r][60 + r] = 1.0f;
  check_many(f, units, "NaN multiplier in row 5");
  Rhs x(units);
  solvelu_many(f.a, n, x.x, x.nrhs);
  for (int r = 1; r <= 16; r++) EXPECT_TRUE(std::isnan(x.x[r][n])) << "rhs " << r;
}

// Pivots above the leading zeros are passed over while their entries stay
// +0.0; one exchange (or NaN) below the zeros in such a pivot's column brings
// a value up into it, and from there on every step counts.
TEST(LudecFast, ExchangeBelowTheLeadingZerosWakesItsPivot) {
  Settings s;
  const int n = 150;
  for (float odd : {-3.0f, std::numeric_limits<float>::quiet_NaN()}) {
    std::mt19937 rng(8);
    FMat f(n);
    fill_bem_like(f, rng);
    float cond;
    ludec_plain(f.a, n, &cond);
    f.a[120][10] = odd;  // a stored multiplier far below the zeros
    Rhs units(16, n);
    for (int r = 1; r <= 16; r++) units.x[r][60 + r] = 1.0f;
    check_many(f, units, "multiplier " + std::to_string(odd) + " in row 120, column 10");
  }
}

// Only +0.0 may be skipped: a -0.0 entry turns into +0.0 at its first step
// with a negative multiplier.  With unit lower triangular A (entries -1/2
// below the diagonal) the factors are U = I and multipliers -1/2, so that
// sign survives to the solution: the reference gives +0.0 where the entry
// was -0.0.
TEST(LudecFast, NegativeZeroIsNotALeadingZero) {
  Settings s;
  const int n = 90;
  FMat f(n);
  for (int i = 1; i <= n; i++)
    for (int j = 1; j <= i; j++) f.a[i][j] = i == j ? 1.0f : -0.5f;
  float cond;
  ludec(f.a, n, &cond);
  ASSERT_EQ(f.a[n][1], -0.5f);
  ASSERT_EQ(f.a[n - 1][n], 0.0f);
  Rhs x(8, n);
  for (int r = 1; r <= 8; r++) x.x[r][10 * r] = -0.0f;
  check_many(f, x, "negative zeros");
  solvelu_many(f.a, n, x.x, x.nrhs);
  for (int r = 1; r <= 8; r++) EXPECT_FALSE(std::signbit(x.x[r][10 * r])) << "rhs " << r;
  // A -0.0 that ends the leading zeros of units further down meets the +0.0
  // pivots above it too.
  Rhs late(8, n);
  for (int r = 1; r <= 8; r++) {
    late.x[r][80 + r] = 1.0f;
    late.x[r][70] = -0.0f;
  }
  check_many(f, late, "-0.0 after units");
}

TEST(LudecFast, NoRowsOrNoColumnsIsHarmless) {
  Settings s;
  FMat f(3);
  f.a[1][1] = f.a[2][2] = f.a[3][3] = 2.0f;
  float cond;
  ludec(f.a, 3, &cond);
  Rhs x(2, 3);
  x.x[1][1] = 4.0f;
  solvelu_many(f.a, 3, x.x, 0);  // no right-hand sides: nothing touched
  EXPECT_EQ(x.x[1][1], 4.0f);
  solvelu_many(f.a, 0, x.x, 2);  // an empty system: nothing touched
  EXPECT_EQ(x.x[1][1], 4.0f);
  ludec(f.a, 0, &cond);
  EXPECT_EQ(cond, 1.0f);
}
