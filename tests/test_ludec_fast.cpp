// The blocked, vectorised, threaded LU kernels against the one-row-at-a-time
// reference loops: factors, condition estimate, countdown and every solve
// bit for bit the same on 1, 2 and 3 threads and every instruction-set level,
// on matrices chosen to reach every branch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/ludec_plain.h"
#include "numeric/verbose.h"
#include "tests/support/g3_mat.h"

namespace {

const float NaN = std::numeric_limits<float>::quiet_NaN();

using M = g3::Mat;  // the factors, or one right-hand side per row

// Same bits, or NaN on both sides (a NaN's payload may differ between scalar
// and vector instructions).
bool same(float p, float q) {
  uint32_t a, b;
  memcpy(&a, &p, 4);
  memcpy(&b, &q, 4);
  return (std::isnan(p) && std::isnan(q)) || a == b;
}

// Empty when equal; else where they first differ.
std::string compare(const M &x, const M &y) {
  for (int i = 1; i <= x.rows; i++)
    for (int j = 1; j <= x.cols; j++)
      if (!same(x.a[i][j], y.a[i][j]))
        return "(" + std::to_string(i) + "," + std::to_string(j) + "): " + std::to_string(x.a[i][j]) + " vs " +
               std::to_string(y.a[i][j]);
  return "";
}

double uniform(std::mt19937 &rng, double lo, double hi) { return lo + (hi - lo) * ((rng() >> 8) / 16777216.0); }

// Kinds of matrix: plain random; bottom-heavy (later rows larger, so many
// steps exchange); Hilbert (pivots vanish into rounding); exact zero pivots
// (zero first column, zero rows, repeated rows); BEM-like I - C, C positive
// with rows summing to 1/2 (no exchanges); entries near the top of the float
// range (overflow to inf and NaN); all zero (every pivot guard fires).
enum Kind { RANDOM, BOTTOM_HEAVY, HILBERT, ZERO_PIVOTS, BEM_LIKE, OVERFLOWING, ZERO, NKIND };
const char *const KIND_NAME[] = {"random", "bottom-heavy", "hilbert", "zero-pivots", "bem-like", "overflowing", "zero"};

M make(Kind kind, int n, unsigned seed) {
  std::mt19937 rng(seed);
  M m(n, n);
  for (int i = 1; i <= n; i++) {
    double sum = 0, scale = kind == BOTTOM_HEAVY ? std::pow(2.0, std::min(i, 400) / 4.0) : 1.0;
    std::vector<double> c(n + 1);
    for (int j = 1; j <= n; j++) sum += c[j] = uniform(rng, kind == BEM_LIKE ? 0.01 : -1, 1);
    for (int j = 1; j <= n; j++) {
      float &v = m.a[i][j];
      v = (float)(scale * c[j]);
      if (kind == HILBERT) v = 1.0f / (float)(i + j - 1);
      if (kind == BEM_LIKE) v = (float)((i == j) - 0.5 * c[j] / sum);
      if (kind == OVERFLOWING && (i * 7 + j * 3) % 11 == 0) v = (float)(c[j] * 3e38);
      if (kind == ZERO || (kind == ZERO_PIVOTS && (j == 1 || i % 5 == 0))) v = 0.0f;
      if (kind == ZERO_PIVOTS && i % 7 == 0) v = m.a[i - 1][j];
    }
  }
  return m;
}

M factors(Kind kind, int n, unsigned seed) {
  M f = make(kind, n, seed);
  float cond;
  ludec_plain(f.a, n, &cond);
  return f;
}

long count_exchanges(const M &f) {
  long c = 0;
  for (int i = 2; i <= f.rows; i++)
    for (int k = 1; k < i; k++) c += !(std::fabs(f.a[i][k]) <= 1.0f);
  return c;
}

// Restores the defaults when a test ends, passed or not.
struct Settings {
  int saved_verbose = is_verbose();
  Settings() { set_verbose(0); }
  ~Settings() { set_lu_threads(0), set_lu_simd(-1), set_verbose(saved_verbose); }
};

// Calls f(where) under every instruction-set level and 1, 2 and 3 threads.
template <class F>
void each_setting(F f) {
  const int best = set_lu_simd(-1);
  for (int level = 0; level <= best; level++)
    for (int threads : {1, 2, 3}) {
      set_lu_simd(level);
      set_lu_threads(threads);
      f(" level " + std::to_string(level) + " threads " + std::to_string(threads));
    }
}

// solvelu_many on every row of rhs under every setting against solvelu_plain
// of the same row.
void check_many(const M &f, const M &rhs, const std::string &what) {
  M ref(rhs);
  for (int r = 1; r <= rhs.rows; r++) solvelu_plain(f.a, f.rows, ref.a[r]);
  each_setting([&](const std::string &where) {
    M x(rhs);
    solvelu_many(f.a, f.rows, x.a, x.rows);
    ASSERT_EQ(compare(x, ref), "") << what << where;
  });
}

}  // namespace

TEST(LudecFast, LevelSettingIsClampedToTheProcessor) {
  Settings s;
  const int best = set_lu_simd(-1);
  EXPECT_TRUE(best >= 0 && best <= 2) << best;
  EXPECT_EQ(set_lu_simd(0), 0);
  EXPECT_EQ(set_lu_simd(best + 1), best);
  EXPECT_EQ(set_lu_simd(-5), best);
}

// Sizes: trivial, below and above a tile of 64 columns, several 128-column
// panels shared among threads.
TEST(LudecFast, FactorsAndEstimateMatchTheReferenceBitForBit) {
  Settings s;
  for (int kind = 0; kind < NKIND; kind++)
    for (int n : {1, 2, 63, 65, 513}) {
      const M original = make((Kind)kind, n, 1000 * n + 17);
      M ref(original);
      float ref_cond = -1;
      ludec_plain(ref.a, n, &ref_cond);
      const std::string name = std::string(KIND_NAME[kind]) + " n = " + std::to_string(n);
      // The kinds are only worth their names if exchanges are common, or absent.
      const long exchanges = count_exchanges(ref);
      EXPECT_TRUE(kind != BOTTOM_HEAVY || n < 3 || exchanges > (long)n * (n - 1) / 8) << name << ": " << exchanges;
      EXPECT_TRUE(kind != BEM_LIKE || exchanges == 0) << name << ": " << exchanges;
      each_setting([&](const std::string &where) {
        M f(original);
        float cond = -2;
        ludec(f.a, n, &cond);
        EXPECT_EQ(compare(f, ref), "") << name << where;
        EXPECT_TRUE(same(cond, ref_cond)) << name << where << ": " << cond << " vs " << ref_cond;
      });
    }
}

// The countdown text does not depend on how the work is ordered.
TEST(LudecFast, CountdownIsTheReferenceText) {
  Settings s;
  const int n = 300;
  const M original = make(RANDOM, n, 1);
  std::string out[2];
  for (int fast : {0, 1}) {
    M f(original);
    float cond;
    set_verbose(1);
    testing::internal::CaptureStdout();
    (fast ? ludec : ludec_plain)(f.a, n, &cond);
    fflush(stdout);
    out[fast] = testing::internal::GetCapturedStdout();
    set_verbose(0);
  }
  EXPECT_EQ(out[1], out[0]);
  EXPECT_EQ(std::count(out[0].begin(), out[0].end(), '\r'), 30);  // 290, 280, ..., 0
  EXPECT_EQ(out[0].back(), '\n');
}

// The single-vector routines: sizes with no, one and two four-row groups.
TEST(LudecFast, SingleVectorSolvesMatchTheReference) {
  using Solver = void (*)(float **, int, float *);
  const struct {
    const char *name;
    Solver fast, plain;
  } pairs[] = {{"solvel", solvel, solvel_plain},
               {"solveu", solveu, solveu_plain},
               {"tsolvel", tsolvel, tsolvel_plain},
               {"solvelu", solvelu, solvelu_plain}};
  for (int kind = 0; kind < NKIND; kind++)
    for (int n : {1, 4, 9, 200}) {
      const M f = factors((Kind)kind, n, 7 * n + 1);
      std::mt19937 rng(n);
      M v(1, n);
      for (int i = 1; i <= n; i++) v.a[1][i] = (float)uniform(rng, -1, 1);
      for (const auto &p : pairs) {
        M x(v), y(v);
        p.fast(f.a, n, x.a[1]);
        p.plain(f.a, n, y.a[1]);
        EXPECT_EQ(compare(x, y), "") << p.name << " " << KIND_NAME[kind] << " n = " << n;
      }
    }
}

// Fewer right-hand sides than worth blocking, partial vectors, and enough
// to be shared among threads.
TEST(LudecFast, ManyRightHandSidesMatchSingleSolves) {
  Settings s;
  for (int kind = 0; kind < NKIND; kind++)
    for (int n : {2, 65, 513}) {
      const M f = factors((Kind)kind, n, 31 * n + 5);
      std::mt19937 rng(n);
      for (int nrhs : {1, 4, 17, 40}) {
        M rhs(nrhs, n);
        for (int r = 1; r <= nrhs; r++)
          for (int i = 1; i <= n; i++) rhs.a[r][i] = (float)(uniform(rng, -1, 1) * std::pow(10.0, r % 7 - 3));
        check_many(f, rhs, std::string(KIND_NAME[kind]) + " n = " + std::to_string(n) + " nrhs " +
                               std::to_string(nrhs));
      }
    }
}

// Unit right-hand sides, as an inversion uses them: their leading +0.0
// entries let the forward part skip rows, which must change nothing.
TEST(LudecFast, UnitRightHandSidesSkipNothingThatMatters) {
  Settings s;
  const int n = 300;
  for (int kind = 0; kind < NKIND; kind++) {
    const M f = factors((Kind)kind, n, 99);
    // Consecutive columns (an inversion's blocks, wider than one
    // back-substitution pass), scattered ones, units after a leading -0.0
    // (not a zero to skip), and zero right-hand sides with and without a
    // -0.0 (the back substitution still runs; the forward steps from the
    // -0.0 on decide the signs of the zeros).
    M consecutive(130, n), scattered(37, n), negzero(20, n), zeros(8, n);
    for (int r = 1; r <= 130; r++) consecutive.a[r][85 + r] = 2.0f;
    for (int r = 1; r <= 37; r++) scattered.a[r][(r * 97) % n + 1] = (float)r;
    for (int r = 1; r <= 20; r++) negzero.a[r][200 + r] = 1.0f, negzero.a[r][3] = -0.0f;
    for (int r = 5; r <= 8; r++) zeros.a[r][30 * r] = -0.0f;
    const std::string name = KIND_NAME[kind];
    check_many(f, consecutive, name + " consecutive units");
    check_many(f, scattered, name + " scattered units");
    check_many(f, negzero, name + " units after -0.0");
    check_many(f, zeros, name + " zero right-hand sides");
  }
}

// A stored multiplier made NaN, or an exchange, in a column whose pivot the
// leading zeros would skip: above the zeros (row 5: the solution must turn
// NaN as the reference's does) and far below them (row 120 wakes the pivot
// of column 10 with a value).
TEST(LudecFast, OddMultipliersAroundTheLeadingZeros) {
  Settings s;
  const struct {
    int row, col;
    float value;
  } cases[] = {{5, 2, NaN}, {120, 10, -3.0f}, {120, 10, NaN}};
  for (const auto &c : cases) {
    M f = factors(BEM_LIKE, 150, 8);
    f.a[c.row][c.col] = c.value;
    M units(16, 150);
    for (int r = 1; r <= 16; r++) units.a[r][60 + r] = 1.0f;
    const std::string name = "multiplier " + std::to_string(c.value) + " at " + std::to_string(c.row);
    check_many(f, units, name);
    solvelu_many(f.a, 150, units.a, 16);
    for (int r = 1; r <= 16; r++) EXPECT_TRUE(c.row != 5 || std::isnan(units.a[r][150])) << name << " rhs " << r;
  }
}

// Only +0.0 may be skipped: -0.0 turns into +0.0 at its first step with a
// negative multiplier.  With unit lower triangular A (-1/2 below the
// diagonal) U = I and every multiplier is -1/2, so the reference gives +0.0
// where the entry was -0.0.
TEST(LudecFast, NegativeZeroIsNotALeadingZero) {
  Settings s;
  const int n = 90;
  M f(n, n);
  for (int i = 1; i <= n; i++)
    for (int j = 1; j <= i; j++) f.a[i][j] = i == j ? 1.0f : -0.5f;
  float cond;
  ludec(f.a, n, &cond);
  ASSERT_EQ(f.a[n][1], -0.5f);
  ASSERT_EQ(f.a[n - 1][n], 0.0f);
  M x(8, n), late(8, n);
  for (int r = 1; r <= 8; r++) x.a[r][10 * r] = -0.0f;
  // A -0.0 ending the leading zeros of units further down.
  for (int r = 1; r <= 8; r++) late.a[r][80 + r] = 1.0f, late.a[r][70] = -0.0f;
  check_many(f, x, "negative zeros");
  check_many(f, late, "-0.0 before units");
  solvelu_many(f.a, n, x.a, x.rows);
  for (int r = 1; r <= 8; r++) EXPECT_FALSE(std::signbit(x.a[r][10 * r])) << "rhs " << r;
}

TEST(LudecFast, NoRowsOrNoColumnsIsHarmless) {
  M f(3, 3), x(2, 3);
  f.a[1][1] = f.a[2][2] = f.a[3][3] = 2.0f;
  float cond;
  ludec(f.a, 3, &cond);
  x.a[1][1] = 4.0f;
  solvelu_many(f.a, 3, x.a, 0);  // no right-hand sides
  solvelu_many(f.a, 0, x.a, 2);  // an empty system
  EXPECT_EQ(x.a[1][1], 4.0f);
  ludec(f.a, 0, &cond);
  EXPECT_EQ(cond, 1.0f);
}
