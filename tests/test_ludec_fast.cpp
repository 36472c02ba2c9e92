// The blocked, vectorised, threaded LU kernels against the one-row-at-a-time
// reference loops: factors, condition estimate, countdown and every solve
// bit for bit the same on 1, 2 and 3 threads at every instruction-set level.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/ludec_plain.h"
#include "numeric/lusplit.h"
#include "numeric/lusteps.h"
#include "numeric/verbose.h"
#include "tests/support/g3_mat.h"

namespace {

using M = g3::Mat;  // the factors, or one right-hand side per row

// Empty when x and y hold the same bits (or NaN on both sides: a payload may
// differ between scalar and vector instructions); else where they differ.
std::string compare(const M &x, const M &y) {
  for (int i = 1, j = 1; i <= x.rows; j = j < x.cols ? j + 1 : (i++, 1))
    if (!(std::isnan(x[i][j]) && std::isnan(y[i][j])) && memcmp(&x[i][j], &y[i][j], 4))
      return std::to_string(i) + "," + std::to_string(j) + ": " + std::to_string(x[i][j]) + " vs " + std::to_string(y[i][j]);
  return "";
}

// Random; bottom heavy (later rows larger: most steps exchange); Hilbert
// (pivots vanish into rounding); exact zero pivots (zero first column, zero
// and repeated rows); BEM-like I - C, C positive with rows summing to 1/2 (no
// exchanges); entries near the float limit (inf, NaN); zero (every pivot
// guard fires).
enum Kind { RANDOM, BOTTOM_HEAVY, HILBERT, ZERO_PIVOTS, BEM_LIKE, OVERFLOWING, ZERO, NKIND };

M make(int kind, int n, unsigned seed, bool factorise = false) {
  std::mt19937 rng(seed);
  M a(n, n);
  for (int i = 1; i <= n; i++) {
    double sum = 0, scale = kind == BOTTOM_HEAVY ? std::pow(2.0, std::min(i, 400) / 4.0) : 1.0;
    std::vector<double> c(n + 1);
    for (int j = 1; j <= n; j++) sum += c[j] = (kind == BEM_LIKE ? 0.01 : -1) + (rng() >> 8) / 8388608.0;
    for (int j = 1; j <= n; j++) {
      float &v = a[i][j];
      v = kind == HILBERT ? 1.0f / (float)(i + j - 1) : (float)(scale * c[j]);
      if (kind == BEM_LIKE) v = (float)((i == j) - 0.5 * c[j] / sum);
      if (kind == OVERFLOWING && (i * 7 + j * 3) % 11 == 0) v = (float)(c[j] * 3e38);
      if (kind == ZERO || (kind == ZERO_PIVOTS && (j == 1 || i % 5 == 0))) v = 0.0f;
      if (kind == ZERO_PIVOTS && i % 7 == 0) v = a[i - 1][j];
    }
  }
  float cond;
  if (factorise) ludec_plain(a, n, &cond);
  return a;
}

// f(where) at every instruction-set level on 1, 2 and 3 threads.
template <class F>
void each_setting(F f) {
  for (int level = 0; level <= set_lu_simd(-1); level++)
    for (int threads : {1, 2, 3}) {
      set_lu_simd(level), set_lu_threads(threads);
      f(" level " + std::to_string(level) + " threads " + std::to_string(threads));
      set_lu_simd(-1), set_lu_threads(0);
    }
}

// solvelu_many on every row of rhs in every setting against solvelu_plain,
// finding out about the factors itself and told about them beforehand, the
// threads taking right-hand sides of their own or (few of them on factors
// of any order) sharing the rows.
void check_many(const M &f, const M &rhs, const std::string &what) {
  M want(rhs);
  for (int r = 1; r <= rhs.rows; r++) solvelu_plain(f, f.rows, want[r]);
  const LuSolveInfo info = lu_solve_info(f, f.rows);
  each_setting([&](const std::string &where) {
    for (int shared_from : {0, 1}) {
      set_lu_shared_solve_order(shared_from);
      M x(rhs), y(rhs);
      solvelu_many(f, f.rows, x, x.rows);
      solvelu_many(f, f.rows, y, y.rows, &info);
      set_lu_shared_solve_order(0);
      const std::string how = where + (shared_from ? " rows shared" : "");
      ASSERT_EQ(compare(x, want), "") << what << how;
      ASSERT_EQ(compare(y, want), "") << what << how << " (told)";
    }
  });
}

}  // namespace

// Sizes: trivial; past a tile and a base width; several 128-column panels
// shared among three threads.
TEST(LudecFast, FactorsEstimateCountdownAndSolvesMatchTheReference) {
  for (int kind = 0; kind < NKIND; kind++)
    for (int n : {1, 2, 70, 513}) {
      if (n == 513 && kind != BOTTOM_HEAVY && kind != BEM_LIKE && kind != OVERFLOWING) continue;
      const std::string name = "kind " + std::to_string(kind) + " n = " + std::to_string(n);
      const M original = make(kind, n, 1000 * n + 17);
      M want(original);
      float want_cond = -1;
      set_verbose(1);
      testing::internal::CaptureStdout();
      ludec_plain(want, n, &want_cond);
      const std::string countdown = testing::internal::GetCapturedStdout();
      long exchanges = 0;  // the kinds are only worth their names if exchanges are common, or absent
      for (int i = 2; i <= n; i++)
        for (int k = 1; k < i; k++) exchanges += !(std::fabs(want[i][k]) <= 1.0f);
      EXPECT_TRUE(kind == BOTTOM_HEAVY ? n < 3 || exchanges > n * (n - 1) / 8 : kind != BEM_LIKE || !exchanges) << name;
      each_setting([&](const std::string &where) {
        M f(original);
        float cond = -2;
        testing::internal::CaptureStdout();
        ludec(f, n, &cond);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), countdown) << name << where;
        EXPECT_EQ(compare(f, want), "") << name << where;
        EXPECT_TRUE((std::isnan(cond) && std::isnan(want_cond)) || cond == want_cond) << name << where;
      });
      set_verbose(0);
      M x(1, n), y(1, n);  // solvelu; the estimate covers solvel, solveu and tsolvel
      for (int i = 1; i <= n; i++) x[1][i] = y[1][i] = (float)std::sin(i * 0.37 + n);
      solvelu(want, n, x[1]), solvelu_plain(want, n, y[1]);
      EXPECT_EQ(compare(x, y), "") << name << " solvelu";
    }
}

// Fewer right-hand sides than worth blocking, a partial vector, several
// blocks; then unit right-hand sides as an inversion uses them, shared among
// threads, whose leading +0.0 entries let the forward part skip rows, which
// must change nothing, also when the zeros end in -0.0 (not a zero to skip)
// or nothing but zeros follow.
TEST(LudecFast, ManyRightHandSidesAndLeadingZerosMatchSingleSolves) {
  for (int kind = 0; kind < NKIND; kind++) {
    const std::string name = "kind " + std::to_string(kind);
    const M f = make(kind, 70, 5, true), g = make(kind, 300, 99, true);
    for (int nrhs : {3, 17, 40}) {
      M rhs(nrhs, 70);
      for (int r = 1; r <= nrhs; r++)
        for (int i = 1; i <= 70; i++) rhs[r][i] = (float)(std::sin(r * 1.3 + i * 0.7) * std::pow(10.0, r % 7 - 3));
      check_many(f, rhs, name + " nrhs " + std::to_string(nrhs));
    }
    M units(130, 300), negzero(20, 300), zeros(8, 300);
    for (int r = 1; r <= 130; r++) units[r][85 + r] = 2.0f;
    for (int r = 1; r <= 20; r++) negzero[r][200 + r] = 1.0f, negzero[r][3] = -0.0f;
    for (int r = 5; r <= 8; r++) zeros[r][30 * r] = -0.0f;
    check_many(g, units, name + " units"), check_many(g, negzero, name + " units after -0.0");
    check_many(g, zeros, name + " zero right-hand sides");
  }
}

// The exceptions to skipping the pivots of the leading zeros, on factors
// without exchanges: a NaN multiplier above the zeros (row 5: the solution
// turns NaN as the reference's does), an exchange or a NaN far below them
// (row 120 wakes the pivot of column 10), and a -0.0 ending the zeros, which
// a negative multiplier turns into +0.0 (A unit lower triangular with -1/2
// below the diagonal: U = I, every multiplier -1/2).  Empty systems.
TEST(LudecFast, OddMultipliersAndNegativeZeroAroundTheLeadingZeros) {
  for (auto [row, col, value] : {std::tuple{5, 2, NAN}, {120, 10, -3.0f}, {120, 10, NAN}}) {
    M f = make(BEM_LIKE, 150, 8, true), units(16, 150);
    f[row][col] = value;
    for (int r = 1; r <= 16; r++) units[r][60 + r] = 1.0f;
    check_many(f, units, "multiplier " + std::to_string(value) + " at " + std::to_string(row));
    solvelu_many(f, 150, units, 16);
    EXPECT_TRUE(row != 5 || std::isnan(units[16][150]));
  }
  const int n = 90;
  M f(n, n), x(8, n), late(8, n);
  for (int i = 1; i <= n; i++)
    for (int j = 1; j <= i; j++) f[i][j] = i == j ? 1.0f : -0.5f;
  float cond;
  ludec(f, n, &cond);
  ASSERT_TRUE(f[n][1] == -0.5f && f[n - 1][n] == 0.0f);
  for (int r = 1; r <= 8; r++) x[r][10 * r] = -0.0f, late[r][80 + r] = 1.0f, late[r][70] = -0.0f;
  check_many(f, x, "negative zeros"), check_many(f, late, "-0.0 before units");
  solvelu_many(f, n, x, x.rows);
  for (int r = 1; r <= 8; r++) EXPECT_FALSE(std::signbit(x[r][10 * r])) << "rhs " << r;
  x[1][1] = 4.0f;
  solvelu_many(f, n, x, 0), solvelu_many(f, 0, x, 2), ludec(f, 0, &cond);
  EXPECT_TRUE(x[1][1] == 4.0f && f[1][1] == 1.0f && cond == 1.0f);
}

// The condition estimate's passes split between two threads against the
// one-thread passes, on factors with and without exchanges, zero pivots and
// overflow, for orders around the cuts and the row groups.
TEST(LudecFast, EstimatePassesOnTwoThreadsAsOnOne) {
  for (int kind : {RANDOM, BOTTOM_HEAVY, ZERO_PIVOTS, BEM_LIKE, OVERFLOWING})
    for (int n : {1, 2, 9, 25, 41, 301}) {
      const std::string name = "kind " + std::to_string(kind) + " n = " + std::to_string(n);
      M f = make(kind, n, 7 * n + kind, true), one(1, n), two(1, n);
      std::vector<double> sum(n + 1);
      estimate_start(f, n, one[1], sum.data());
      estimate_start_split(f, n, two[1], sum.data());
      ASSERT_EQ(compare(one, two), "") << name << " first pass";
      for (int i = 1; i <= n; i++) one[1][i] = two[1][i] = (float)std::sin(i * 0.37 + n);
      tsolvel(f, n, one[1]), tsolvel_split(f, n, two[1]);
      ASSERT_EQ(compare(one, two), "") << name << " tsolvel";
      solvel(f, n, one[1]), solvel_split(f, n, two[1]);
      ASSERT_EQ(compare(one, two), "") << name << " solvel";
      solveu(f, n, one[1]), solveu_split(f, n, two[1]);
      ASSERT_EQ(compare(one, two), "") << name << " solveu";
    }
}

// The norm of a matrix large enough to be shared among threads: the row
// sums in double, the largest of them, a NaN row counting for nothing,
// whichever thread holds the largest row.  What the solves learn of the
// lower triangle (the last row with a large multiplier in each column, the
// first NaN row) comes out the same too.
TEST(LudecFast, NormAndSolveInfoAreOneAnswerOnAnyThreadCount) {
  const int n = 2100;
  M a = make(RANDOM, n, 3);
  a[100][7] = NAN;
  for (int big : {1, 1500, 2100}) {
    for (int j = 1; j <= n; j++) a[big][j] = (float)(j % 3) - 1.25f;
    float want = 0;
    for (int i = 1; i <= n; i++) {
      double sum = 0;
      for (int j = 1; j <= n; j++) sum += std::fabs((double)a[i][j]);
      if ((float)sum > want) want = (float)sum;
    }
    a[1700][1600] = big == 1 ? 2.0f : 0.5f;  // the latest in its column only some of the time
    set_lu_threads(1);
    const LuSolveInfo one = lu_solve_info(a, n);
    EXPECT_EQ(one.first_nan_row, 100);
    EXPECT_EQ(one.last_unplain[3], big == 1 ? 0 : big);  // (3 % 3) - 1.25
    for (int threads : {1, 2, 3}) {
      set_lu_threads(threads);
      EXPECT_EQ(mnorm1(a, n), want) << "largest row " << big << ", threads " << threads;
      const LuSolveInfo info = lu_solve_info(a, n);
      EXPECT_EQ(info.last_unplain, one.last_unplain) << "threads " << threads;
      EXPECT_EQ(info.first_nan_row, one.first_nan_row) << "threads " << threads;
    }
    set_lu_threads(0);
    for (int j = 1; j <= n; j++) a[big][j] = 0.0f;
  }
}
