// Least squares with pseudo-rank: solutions of full-rank, underdetermined and
// rank-deficient problems against double-precision references (normal
// equations, minimum-norm formula, pseudo-inverse), the relative tolerance,
// the degenerate cases, the countdown, the out-of-memory path, and the
// Householder transformation on its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "numeric/hfti.h"
#include "numeric/nrutils.h"
#include "tests/support/dense_reference.h"
#include "tests/support/process.h"

namespace {

// a m x n; b max(m, n) x nb, as the solver requires.
struct LsqArrays {
  int m, n, nb, rows;
  float **a, **b;
  LsqArrays(int m_, int n_, int nb_) : m(m_), n(n_), nb(nb_), rows(std::max(m_, n_)) {
    a = matrix(1, std::max(m, 1), 1, std::max(n, 1));
    b = matrix(1, std::max(rows, 1), 1, std::max(nb, 1));
  }
  ~LsqArrays() {
    free_matrix(a, 1, std::max(m, 1), 1, std::max(n, 1));
    free_matrix(b, 1, std::max(rows, 1), 1, std::max(nb, 1));
  }
  LsqArrays(const LsqArrays &) = delete;
  LsqArrays &operator=(const LsqArrays &) = delete;
  void load(const ref::Mat &am, const ref::Mat &bm) {
    for (int i = 1; i <= m; i++) {
      for (int j = 1; j <= n; j++) a[i][j] = (float)am[i - 1][j - 1];
      for (int j = 1; j <= nb; j++) b[i][j] = (float)bm[i - 1][j - 1];
    }
  }
  ref::Vec solution(int col) const {
    ref::Vec x(n);
    for (int i = 1; i <= n; i++) x[i - 1] = b[i][col];
    return x;
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

ref::Vec column(const ref::Mat &x, int j) {
  ref::Vec c(x.size());
  for (size_t i = 0; i < x.size(); i++) c[i] = x[i][j];
  return c;
}

// Largest difference relative to the size of the reference.
double relative_error(const ref::Vec &got, const ref::Vec &want) {
  double diff = 0.0, size = 0.0;
  for (size_t i = 0; i < want.size(); i++) {
    diff = std::max(diff, std::fabs(got[i] - want[i]));
    size = std::max(size, std::fabs(want[i]));
  }
  return diff / std::max(size, 1e-30);
}

// Least-squares solution of a full-column-rank system from the normal
// equations in double.
ref::Vec normal_equations(const ref::Mat &a, const ref::Vec &b) {
  ref::Mat at = ref::transpose(a);
  return ref::solve(ref::multiply(at, a), ref::multiply(at, b));
}

// Minimum-norm solution of a full-row-rank system: a^T (a a^T)^-1 b.
ref::Vec minimum_norm(const ref::Mat &a, const ref::Vec &b) {
  ref::Mat at = ref::transpose(a);
  return ref::multiply(at, ref::solve(ref::multiply(a, at), b));
}

std::string countdown_lines(std::initializer_list<int> counts) {
  std::string out;
  char line[40];
  for (int c : counts) {
    snprintf(line, sizeof line, "HFTI countdown: %4d\r", c);
    out += line;
  }
  return out;
}

}  // namespace

TEST(Hfti, FullRankOverdeterminedMatchesNormalEquations) {
  struct Case {
    int m, n, nb;
  };
  unsigned seed = 1;
  for (Case c : {Case{20, 6, 3}, Case{8, 8, 2}, Case{50, 10, 1}, Case{3, 1, 2}, Case{1, 1, 1},
                 Case{12, 11, 1}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " nb " << c.nb);
    ref::Mat am = random_matrix(c.m, c.n, seed++);
    ref::Mat bm = random_matrix(c.m, c.nb, seed++);
    LsqArrays s(c.m, c.n, c.nb);
    s.load(am, bm);
    int krank = -7;
    hfti(s.a, c.m, c.n, s.b, c.nb, 1e-5f, &krank);
    EXPECT_EQ(krank, c.n);
    for (int j = 0; j < c.nb; j++)
      EXPECT_LE(relative_error(s.solution(j + 1), normal_equations(am, column(bm, j))), 2e-4)
          << "right-hand side " << j + 1;
  }
}

TEST(Hfti, UnderdeterminedGivesMinimumNormSolution) {
  struct Case {
    int m, n, nb;
  };
  unsigned seed = 40;
  for (Case c : {Case{4, 7, 2}, Case{1, 5, 1}, Case{10, 25, 2}, Case{6, 7, 1}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n);
    ref::Mat am = random_matrix(c.m, c.n, seed++);
    ref::Mat bm = random_matrix(c.m, c.nb, seed++);
    LsqArrays s(c.m, c.n, c.nb);
    s.load(am, bm);
    // Rows m+1..n of b are output only; garbage there must not leak in.
    for (int i = c.m + 1; i <= c.n; i++)
      for (int j = 1; j <= c.nb; j++) s.b[i][j] = 1e6f;
    int krank = -7;
    hfti(s.a, c.m, c.n, s.b, c.nb, 1e-5f, &krank);
    EXPECT_EQ(krank, c.m);
    for (int j = 0; j < c.nb; j++)
      EXPECT_LE(relative_error(s.solution(j + 1), minimum_norm(am, column(bm, j))), 2e-4)
          << "right-hand side " << j + 1;
  }
}

TEST(Hfti, RankDeficientGivesPseudoRankAndPseudoInverseSolution) {
  struct Case {
    int m, n, nb;
    std::vector<std::pair<int, float>> copies;  // column j+1 := factor * column "first"
    std::vector<int> sources;
    int rank;
  };
  const Case cases[] = {
      // Columns 4 and 6 repeat columns 2 and 1.
      {12, 6, 2, {{4, 1.0f}, {6, 1.0f}}, {2, 1}, 4},
      // Column 5 is twice column 3, column 2 is minus column 1.
      {9, 5, 1, {{5, 2.0f}, {2, -1.0f}}, {3, 1}, 3},
      // Wide and deficient: neither full row nor full column rank.
      {6, 8, 2, {{6, 1.0f}, {7, 1.0f}, {8, 1.0f}}, {1, 2, 1}, 5},
      // Every column the same: rank one.
      {5, 4, 1, {{2, 1.0f}, {3, 1.0f}, {4, 1.0f}}, {1, 1, 1}, 1},
  };
  unsigned seed = 70;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " rank " << c.rank);
    ref::Mat am = random_matrix(c.m, c.n, seed++);
    for (size_t k = 0; k < c.copies.size(); k++) {
      int dst = c.copies[k].first - 1, src = c.sources[k] - 1;
      for (int i = 0; i < c.m; i++) am[i][dst] = (float)(c.copies[k].second * am[i][src]);
    }
    ref::Mat bm = random_matrix(c.m, c.nb, seed++);
    LsqArrays s(c.m, c.n, c.nb);
    s.load(am, bm);
    int krank = -7;
    hfti(s.a, c.m, c.n, s.b, c.nb, 1e-4f, &krank);
    EXPECT_EQ(krank, c.rank);
    for (int j = 0; j < c.nb; j++)
      EXPECT_LE(relative_error(s.solution(j + 1), ref::pseudo_inverse_solve(am, column(bm, j))),
                2e-4)
          << "right-hand side " << j + 1;
  }
}

TEST(Hfti, ToleranceIsRelativeToTheLargestDiagonal) {
  // Diagonal elements 1000 and 0.5: tau = 1e-3 sets the limit at 1, dropping
  // the second column; tau = 1e-4 (limit 0.1) keeps it.
  for (float tau : {1e-3f, 1e-4f}) {
    LsqArrays s(3, 2, 1);
    s.a[1][1] = 1000;
    s.a[2][2] = 0.5f;
    s.b[1][1] = 2;
    s.b[2][1] = 3;
    s.b[3][1] = 4;
    int krank = -7;
    hfti(s.a, 3, 2, s.b, 1, tau, &krank);
    if (tau > 5e-4f) {
      EXPECT_EQ(krank, 1);
      EXPECT_FLOAT_EQ(s.b[2][1], 0.0f);
    } else {
      EXPECT_EQ(krank, 2);
      EXPECT_FLOAT_EQ(s.b[2][1], 6.0f);
    }
    EXPECT_FLOAT_EQ(s.b[1][1], 0.002f);
  }
  // A diagonal element exactly at the limit does not count.
  {
    LsqArrays s(2, 2, 1);
    s.a[1][1] = 4;
    s.a[2][2] = 2;
    s.b[1][1] = 8;
    s.b[2][1] = 8;
    int krank = -7;
    hfti(s.a, 2, 2, s.b, 1, 0.5f, &krank);
    EXPECT_EQ(krank, 1);
    EXPECT_EQ(s.b[1][1], 2.0f);
    EXPECT_EQ(s.b[2][1], 0.0f);
  }
  // A tiny but well-conditioned matrix keeps its full rank.
  ref::Mat am = random_matrix(6, 3, 5);
  for (auto &row : am)
    for (double &x : row) x = (float)(x * 1e-6);
  ref::Mat bm = random_matrix(6, 1, 6);
  LsqArrays s(6, 3, 1);
  s.load(am, bm);
  int krank = -7;
  hfti(s.a, 6, 3, s.b, 1, 1e-3f, &krank);
  EXPECT_EQ(krank, 3);
  EXPECT_LE(relative_error(s.solution(1), normal_equations(am, column(bm, 0))), 2e-4);
}

TEST(Hfti, ColumnNormsAreRecomputedWhenDowndatingLosesThem) {
  // Columns 1 and 2 both have squared norm 1e8 in float; after the first
  // step the true remaining norm of column 2 is 1 but the downdated value is
  // 1e8 - 1e8 = 0, below column 3's 0.25.  Only a fresh computation picks
  // column 2 next, giving diagonal 1e4, 1, 0.5; with the limit 0.7 the
  // pseudo-rank is then 2 (picking column 3 would stop it at 1).
  LsqArrays s(4, 3, 1);
  s.a[1][1] = 1e4f;
  s.a[1][2] = 1e4f;
  s.a[2][2] = 1;
  s.a[3][3] = 0.5f;
  s.b[1][1] = 1e4f;
  s.b[2][1] = 1;
  s.b[3][1] = 1;
  int krank = -7;
  hfti(s.a, 4, 3, s.b, 1, 7e-5f, &krank);
  EXPECT_EQ(krank, 2);
  // The rank-2 solution fits b with columns 1 and 2 only.
  EXPECT_NEAR(s.b[1][1], 0.0f, 1e-6);
  EXPECT_NEAR(s.b[2][1], 1.0f, 1e-6);
  EXPECT_EQ(s.b[3][1], 0.0f);
}

TEST(Hfti, EmptyProblemsDoNothing) {
  struct Case {
    int m, n;
  };
  for (Case c : {Case{0, 3}, Case{3, 0}, Case{-1, 2}, Case{0, 0}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n);
    LsqArrays s(3, 3, 2);
    for (int i = 1; i <= 3; i++)
      for (int j = 1; j <= 3; j++) s.a[i][j] = (float)(i + 10 * j);
    for (int i = 1; i <= 3; i++)
      for (int j = 1; j <= 2; j++) s.b[i][j] = (float)(i - j);
    int krank = 99;
    testing::internal::CaptureStdout();
    hfti(s.a, c.m, c.n, s.b, 2, 1e-5f, &krank);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(krank, 0);
    for (int i = 1; i <= 3; i++) {
      for (int j = 1; j <= 3; j++) EXPECT_EQ(s.a[i][j], (float)(i + 10 * j));
      for (int j = 1; j <= 2; j++) EXPECT_EQ(s.b[i][j], (float)(i - j));
    }
  }
}

TEST(Hfti, ZeroFirstDiagonalGivesRankZeroAndZeroSolution) {
  for (int n : {3, 7}) {
    SCOPED_TRACE(testing::Message() << "n " << n);
    LsqArrays s(5, n, 2);
    for (int i = 1; i <= s.rows; i++)
      for (int j = 1; j <= 2; j++) s.b[i][j] = (float)(i * j + 1);
    int krank = 99;
    hfti(s.a, 5, n, s.b, 2, 1e-5f, &krank);
    EXPECT_EQ(krank, 0);
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= 2; j++) EXPECT_EQ(s.b[i][j], 0.0f) << i << "," << j;
  }
  // No tolerance gives rank to a zero matrix, whatever its value.
  for (float tau : {0.0f, -1.0f, std::numeric_limits<float>::infinity()}) {
    LsqArrays s(2, 2, 1);
    s.b[1][1] = 1;
    int krank = 99;
    hfti(s.a, 2, 2, s.b, 1, tau, &krank);
    EXPECT_EQ(krank, 0) << "tau " << tau;
    EXPECT_EQ(s.b[1][1], 0.0f) << "tau " << tau;
  }
}

TEST(Hfti, CountdownForLargeProblems) {
  struct Case {
    int m, n, nb;
    std::string expected;
  };
  const Case cases[] = {
      {30, 30, 1, countdown_lines({20, 10, 0})},
      {10, 10, 1, ""},
      {24, 30, 2, ""},                             // min(m, n) = 24: no countdown
      {40, 25, 1, countdown_lines({20, 10, 0})},   // counts down from 25
      {30, 30, 30, countdown_lines({50, 40, 30, 20, 10, 0})},  // from 30 + 30
  };
  unsigned seed = 90;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " nb " << c.nb);
    ref::Mat am = random_matrix(c.m, c.n, seed++);
    ref::Mat bm = random_matrix(c.m, c.nb, seed++);
    LsqArrays s(c.m, c.n, c.nb);
    s.load(am, bm);
    int krank = -7;
    testing::internal::CaptureStdout();
    hfti(s.a, c.m, c.n, s.b, c.nb, 1e-6f, &krank);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.expected);
    EXPECT_EQ(krank, std::min(c.m, c.n));
    const ref::Vec want = c.m >= c.n ? normal_equations(am, column(bm, 0)) : minimum_norm(am, column(bm, 0));
    EXPECT_LE(relative_error(s.solution(1), want), 1e-3);
  }
}

TEST(Hfti, OutOfMemoryLeavesEverythingUntouched) {
  ProcResult r = run_process(probe("probe_hfti"), {}, "", "", 60);
  if (r.out == "skipped\n") GTEST_SKIP() << "address-space cap not usable under a sanitizer";
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "\n Out of memory in HFTI\n\n\a\akrank=-1 untouched=1\n");
  // Without the cap the same problem is solved, so the cap is what failed it.
  ProcResult ok = run_process(probe("probe_hfti"), {"nolimit"}, "", "", 60);
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.out, "krank=1 untouched=0\n");
}

TEST(HftiDeathTest, NonFiniteInputTerminates) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EXIT(
      {
        alarm(20);
        int krank = -7;
        {
          LsqArrays s(8, 5, 2);
          s.load(random_matrix(8, 5, 3), random_matrix(8, 2, 4));
          s.a[3][2] = nan;
          hfti(s.a, 8, 5, s.b, 2, 1e-5f, &krank);
        }
        std::exit(krank >= 0 && krank <= 5 ? 0 : 3);
      },
      testing::ExitedWithCode(0), "");
}

// The Householder transformation alone: it must map its own vector onto the
// pivot axis and act on other vectors as the reflection I - 2 w w^T / w^T w.
TEST(Householder, ReflectsOntoThePivotAndAppliesTheSameReflection) {
  const int m = 7, lpivot = 2, l1 = 4, nvec = 3;
  ref::Mat um = random_matrix(m, 5, 17);
  ref::Mat cm = random_matrix(m, nvec + 1, 18);
  float **u = matrix(1, m, 1, 5);
  float **c = matrix(1, m, 1, nvec + 1);
  for (int i = 1; i <= m; i++) {
    for (int j = 1; j <= 5; j++) u[i][j] = (float)um[i - 1][j - 1];
    for (int j = 1; j <= nvec; j++) c[i][j + 1] = (float)cm[i - 1][j - 1];
    c[i][1] = u[i][3];  // a copy of the transformation vector itself
  }
  // The reflection, in double: w = x - s e_p with s = -sign(x_p) |x|, over
  // the elements lpivot and l1..m only.
  ref::Vec x(m, 0.0);
  x[lpivot - 1] = um[lpivot - 1][2];
  for (int i = l1; i <= m; i++) x[i - 1] = um[i - 1][2];
  double norm = 0.0;
  for (double e : x) norm += e * e;
  norm = std::sqrt(norm);
  const double s = x[lpivot - 1] > 0 ? -norm : norm;
  ref::Vec wv = x;
  wv[lpivot - 1] -= s;
  double ww = 0.0;
  for (double e : wv) ww += e * e;

  float up = 0;
  h12(1, lpivot, l1, m, u, 0, 3, &up, c, 0, 2, nvec);
  EXPECT_NEAR(u[lpivot][3], s, 1e-6 * norm);
  EXPECT_NEAR(up, wv[lpivot - 1], 1e-6 * norm);
  // Only the pivot of the transformation vector changes in u.
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= 5; j++) {
      if (j == 3 && i == lpivot) continue;
      EXPECT_EQ(u[i][j], (float)um[i - 1][j - 1]) << i << "," << j;
    }

  for (int j = 1; j <= nvec; j++) {
    double dot = 0.0;
    for (int i = 0; i < m; i++) dot += wv[i] * cm[i][j - 1];
    for (int i = 0; i < m; i++) {
      double want = cm[i][j - 1] - 2.0 * wv[i] * dot / ww;
      EXPECT_NEAR(c[i + 1][j + 1], want, 1e-5) << "vector " << j << " element " << i + 1;
    }
  }
  // Applying the stored transformation to the original vector leaves s at
  // the pivot and zeros at l1..m; element 3 (between) is not touched.
  h12(2, lpivot, l1, m, u, 0, 3, &up, c, 0, 1, 1);
  EXPECT_NEAR(c[lpivot][1], s, 1e-5 * norm);
  for (int i = l1; i <= m; i++) EXPECT_NEAR(c[i][1], 0.0, 1e-6 * norm) << i;
  EXPECT_EQ(c[1][1], (float)um[0][2]);
  EXPECT_EQ(c[3][1], (float)um[2][2]);

  // The same work with vectors stored as rows gives bit-identical results.
  float **ut = matrix(1, 5, 1, m);
  float **ct = matrix(1, nvec + 1, 1, m);
  for (int i = 1; i <= m; i++) {
    for (int j = 1; j <= 5; j++) ut[j][i] = (float)um[i - 1][j - 1];
    for (int j = 1; j <= nvec; j++) ct[j + 1][i] = (float)cm[i - 1][j - 1];
    ct[1][i] = ut[3][i];
  }
  float upt = 0;
  h12(1, lpivot, l1, m, ut, 1, 3, &upt, ct, 1, 2, nvec);
  h12(2, lpivot, l1, m, ut, 1, 3, &upt, ct, 1, 1, 1);
  EXPECT_EQ(upt, up);
  for (int i = 1; i <= m; i++) {
    EXPECT_EQ(ut[3][i], u[i][3]);
    for (int j = 1; j <= nvec + 1; j++) EXPECT_EQ(ct[j][i], c[i][j]) << i << "," << j;
  }
  free_matrix(u, 1, m, 1, 5);
  free_matrix(c, 1, m, 1, nvec + 1);
  free_matrix(ut, 1, 5, 1, m);
  free_matrix(ct, 1, nvec + 1, 1, m);
}

TEST(Householder, DegenerateArgumentsChangeNothing) {
  const int m = 5;
  float **u = matrix(1, m, 1, 1);
  float **c = matrix(1, m, 1, 2);
  for (int i = 1; i <= m; i++) {
    u[i][1] = (float)i;
    c[i][1] = (float)(2 * i);
    c[i][2] = (float)(-i);
  }
  struct Args {
    int mode, lpivot, l1, m;
  };
  for (Args g : {Args{1, 0, 2, m}, Args{1, 3, 3, m}, Args{1, 4, 2, m}, Args{1, 2, 6, m},
                 Args{2, 0, 2, m}, Args{2, 2, 6, m}}) {
    SCOPED_TRACE(testing::Message() << "mode " << g.mode << " lpivot " << g.lpivot << " l1 " << g.l1);
    float up = 42;
    h12(g.mode, g.lpivot, g.l1, g.m, u, 0, 1, &up, c, 0, 1, 2);
    EXPECT_EQ(up, 42.0f);
    for (int i = 1; i <= m; i++) {
      EXPECT_EQ(u[i][1], (float)i);
      EXPECT_EQ(c[i][1], (float)(2 * i));
      EXPECT_EQ(c[i][2], (float)(-i));
    }
  }
  // A vector orthogonal to the transformation is skipped, not updated with a
  // zero multiple (which would turn -0 + (-0)(-2) into +0).
  {
    for (int i = 1; i <= m; i++) u[i][1] = (float)i;
    u[2][1] = -2;
    float **d = matrix(1, m, 1, 1);
    d[2][1] = -0.0f;
    float up2 = 0;
    h12(1, 1, 2, m, u, 0, 1, &up2, d, 0, 1, 1);
    EXPECT_TRUE(std::signbit(d[2][1]));
    for (int i = 1; i <= m; i++) EXPECT_EQ(d[i][1], 0.0f);
    free_matrix(d, 1, m, 1, 1);
  }
  // A zero vector gives no transformation; mode 2 then leaves c alone too.
  for (int i = 1; i <= m; i++) u[i][1] = 0;
  float up = 42;
  h12(1, 1, 2, m, u, 0, 1, &up, c, 0, 1, 2);
  h12(2, 1, 2, m, u, 0, 1, &up, c, 0, 1, 2);
  EXPECT_EQ(up, 42.0f);
  for (int i = 1; i <= m; i++) EXPECT_EQ(c[i][1], (float)(2 * i));
  free_matrix(u, 1, m, 1, 1);
  free_matrix(c, 1, m, 1, 2);
}
