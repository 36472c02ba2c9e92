// Least squares with pseudo-rank: solutions of full-rank, underdetermined and
// rank-deficient problems against a double-precision pseudo-inverse, the
// relative tolerance, degenerate cases, the countdown, the out-of-memory
// path, and the Householder transformation on its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "numeric/hfti.h"
#include "tests/support/h2_arrays.h"
#include "tests/support/process.h"

namespace {

struct Solved {
  int krank = -7;
  std::string out;
  ref::Mat x;  // rows 1..n of b
};

// Solve with b allocated max(m, n) rows high; rows m+1..n of b are output
// only and start as garbage that must not leak into the solution.
Solved solve(const ref::Mat &am, const ref::Mat &bm, float tau) {
  const int m = (int)am.size(), n = (int)am[0].size(), nb = (int)bm[0].size();
  h2::Arena ar;
  float **a = ar.mat(am), **b = ar.mat(std::max(m, n), nb);
  for (int i = 1; i <= std::max(m, n); i++)
    for (int j = 1; j <= nb; j++) b[i][j] = i <= m ? (float)bm[i - 1][j - 1] : 1e6f;
  Solved s;
  testing::internal::CaptureStdout();
  hfti(a, m, n, b, nb, tau, &s.krank);
  s.out = testing::internal::GetCapturedStdout();
  s.x = h2::to_ref(b, n, nb);
  return s;
}

std::string countdown_lines(std::initializer_list<int> counts) {
  std::string out;
  char line[40];
  for (int c : counts) snprintf(line, sizeof line, "HFTI countdown: %4d\r", c), out += line;
  return out;
}

}  // namespace

// Random problems; columns listed in `copies` are replaced by a multiple of
// an earlier one to make them rank deficient.  The reference is the
// minimum-norm least-squares solution (normal equations for full column
// rank, a^T (a a^T)^-1 b for full row rank, the pseudo-inverse otherwise).
TEST(Hfti, SolutionsAndPseudoRankAgainstThePseudoInverse) {
  struct Copy {
    int dst, src;
    float factor;
  };
  struct Case {
    int m, n, nb, rank;
    std::vector<Copy> copies = {};
    float tau = 1e-5f;
    double tol = 2e-4;
    std::string countdown = "";
  };
  const Case cases[] = {
      {20, 6, 3, 6}, {8, 8, 2, 8}, {3, 1, 2, 1}, {1, 1, 1, 1}, {4, 7, 2, 4}, {1, 5, 1, 1},
      {12, 6, 2, 4, {{4, 2, 1}, {6, 1, 1}}, 1e-4f},
      {6, 8, 2, 5, {{6, 1, 1}, {7, 2, 1}, {8, 1, 1}}, 1e-4f},  // neither full row nor full column rank
      {5, 4, 1, 1, {{2, 1, 1}, {3, 1, 1}, {4, 1, 1}}, 1e-4f},
      // The countdown: from min(m, n) when that exceeds 24, from min(m, n)
      // + nb when nb does.
      {24, 30, 2, 24, {}, 1e-6f, 1e-3},
      {40, 25, 1, 25, {}, 1e-6f, 1e-3, countdown_lines({20, 10, 0})},
      {30, 30, 30, 30, {}, 1e-6f, 1e-3, countdown_lines({50, 40, 30, 20, 10, 0})},
  };
  unsigned seed = 1;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " nb " << c.nb << " rank " << c.rank);
    ref::Mat am = h2::random_matrix(c.m, c.n, seed++), bm = h2::random_matrix(c.m, c.nb, seed++);
    for (const Copy &k : c.copies)
      for (int i = 0; i < c.m; i++) am[i][k.dst - 1] = (float)(k.factor * am[i][k.src - 1]);
    Solved s = solve(am, bm, c.tau);
    EXPECT_EQ(s.krank, c.rank);
    EXPECT_EQ(s.out, c.countdown);
    for (int j = 0; j < c.nb; j++) {
      ref::Vec want = ref::pseudo_inverse_solve(am, h2::column(bm, j));
      EXPECT_LE(h2::relative_error({h2::column(s.x, j)}, {want}), c.tol) << "right-hand side " << j + 1;
    }
  }
}

// Hand-made problems: the pseudo-rank counts diagonal elements above
// tau |a11| (diagonal 1000 and 0.5: tau 1e-3 drops the second, 1e-4 keeps
// it; an element exactly at the limit does not count); a zero first diagonal
// gives rank 0 and a zero solution whatever tau is; and column norms that
// downdating has reduced to noise are recomputed: columns 1 and 2 both have
// squared norm 1e8, the remaining norm of column 2 is 1 after the first step
// but downdates to 0, below column 3's 0.25; only a fresh computation picks
// column 2 next (diagonal 1e4, 1, 0.5: rank 2 at the limit 0.7, where
// picking column 3 would give 1).
TEST(Hfti, PseudoRankFromTheDiagonalAgainstHandComputation) {
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    ref::Mat a, b;
    float tau;
    int rank;
    ref::Vec x;
  };
  const Case cases[] = {
      {{{1000, 0}, {0, 0.5}, {0, 0}}, {{2}, {3}, {4}}, 1e-3f, 1, {0.002, 0}},
      {{{1000, 0}, {0, 0.5}, {0, 0}}, {{2}, {3}, {4}}, 1e-4f, 2, {0.002, 6}},
      {{{4, 0}, {0, 2}}, {{8}, {8}}, 0.5f, 1, {2, 0}},
      {ref::zeros(5, 3), {{1}, {2}, {3}, {4}, {5}}, 1e-5f, 0, {0, 0, 0}},
      {ref::zeros(5, 7), {{1}, {2}, {3}, {4}, {5}}, 1e-5f, 0, {0, 0, 0, 0, 0, 0, 0}},
      {ref::zeros(2, 2), {{1}, {0}}, 0.0f, 0, {0, 0}},
      {ref::zeros(2, 2), {{1}, {0}}, -1.0f, 0, {0, 0}},
      {ref::zeros(2, 2), {{1}, {0}}, inf, 0, {0, 0}},
      {{{1e4, 1e4, 0}, {0, 1, 0}, {0, 0, 0.5}, {0, 0, 0}}, {{1e4}, {1}, {1}, {0}}, 7e-5f, 2, {0, 1, 0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.a.size() << " x " << c.a[0].size() << " tau " << c.tau);
    Solved s = solve(c.a, c.b, c.tau);
    EXPECT_EQ(s.krank, c.rank);
    for (size_t i = 0; i < c.x.size(); i++) EXPECT_NEAR(s.x[i][0], c.x[i], 1e-6 * (1 + std::fabs(c.x[i]))) << i;
  }
  // A tiny but well-conditioned matrix keeps its full rank.
  ref::Mat am = h2::random_matrix(6, 3, 5), bm = h2::random_matrix(6, 1, 6);
  for (auto &row : am)
    for (double &x : row) x = (float)(x * 1e-6);
  Solved s = solve(am, bm, 1e-3f);
  EXPECT_EQ(s.krank, 3);
  EXPECT_LE(h2::relative_error({h2::column(s.x, 0)}, {ref::pseudo_inverse_solve(am, h2::column(bm, 0))}), 2e-4);
}

TEST(Hfti, EmptyProblemsDoNothing) {
  for (auto [m, n] : {std::pair{0, 3}, {3, 0}, {-1, 2}}) {
    SCOPED_TRACE(testing::Message() << m << " x " << n);
    h2::Arena ar;
    float **a = ar.mat(3, 3), **b = ar.mat(3, 2);
    for (int i = 1; i <= 3; i++)
      for (int j = 1; j <= 3; j++) a[i][j] = (float)(i + 10 * j), b[i][std::min(j, 2)] = (float)(i - j);
    ref::Mat a0 = h2::to_ref(a, 3, 3), b0 = h2::to_ref(b, 3, 2);
    int krank = 99;
    testing::internal::CaptureStdout();
    hfti(a, m, n, b, 2, 1e-5f, &krank);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(krank, 0);
    EXPECT_EQ(h2::to_ref(a, 3, 3), a0);
    EXPECT_EQ(h2::to_ref(b, 3, 2), b0);
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
  EXPECT_EXIT(
      {
        alarm(20);
        ref::Mat am = h2::random_matrix(8, 5, 3);
        am[2][1] = std::numeric_limits<float>::quiet_NaN();
        Solved s = solve(am, h2::random_matrix(8, 2, 4), 1e-5f);
        std::exit(s.krank >= 0 && s.krank <= 5 ? 0 : 3);
      },
      testing::ExitedWithCode(0), "");
}

// The transformation must map its own vector onto the pivot axis and act on
// other vectors as the reflection I - 2 w w^T / w^T w, touching only the
// elements lpivot and l1..m; vectors stored as rows give bit-identical
// results.
TEST(Householder, ReflectsOntoThePivotAndAppliesTheSameReflection) {
  const int m = 7, lpivot = 2, l1 = 4, nvec = 3;
  const ref::Mat um = h2::random_matrix(m, 5, 17);
  ref::Mat cm = h2::random_matrix(m, nvec + 1, 18);
  for (int i = 0; i < m; i++) cm[i][0] = um[i][2];  // a copy of the transformation vector itself
  // The reflection, in double: w = x - s e_p with s = -sign(x_p) |x|.
  ref::Vec wv(m, 0.0);
  for (int i = 1; i <= m; i++)
    if (i == lpivot || i >= l1) wv[i - 1] = um[i - 1][2];
  double norm = 0.0, ww = 0.0;
  for (double e : wv) norm += e * e;
  norm = std::sqrt(norm);
  const double s = wv[lpivot - 1] > 0 ? -norm : norm;
  wv[lpivot - 1] -= s;
  for (double e : wv) ww += e * e;

  h2::Arena ar;
  float **u = ar.mat(um), **c = ar.mat(cm), **ut = ar.mat(ref::transpose(um)), **ct = ar.mat(ref::transpose(cm));
  float up = 0, upt = 0;
  h12(1, lpivot, l1, m, u, 0, 3, &up, c, 0, 2, nvec);
  EXPECT_NEAR(u[lpivot][3], s, 1e-6 * norm);
  EXPECT_NEAR(up, wv[lpivot - 1], 1e-6 * norm);
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= 5; j++)
      EXPECT_TRUE((j == 3 && i == lpivot) || u[i][j] == (float)um[i - 1][j - 1]) << i << "," << j;
  for (int j = 2; j <= nvec + 1; j++) {
    double dot = 0.0;
    for (int i = 0; i < m; i++) dot += wv[i] * cm[i][j - 1];
    for (int i = 0; i < m; i++)
      EXPECT_NEAR(c[i + 1][j], cm[i][j - 1] - 2.0 * wv[i] * dot / ww, 1e-5) << "vector " << j << " element " << i + 1;
  }
  // Applying the stored transformation to the original vector leaves s at
  // the pivot and zeros at l1..m; element 3 (between) is not touched.
  h12(2, lpivot, l1, m, u, 0, 3, &up, c, 0, 1, 1);
  EXPECT_NEAR(c[lpivot][1], s, 1e-5 * norm);
  for (int i = l1; i <= m; i++) EXPECT_NEAR(c[i][1], 0.0, 1e-6 * norm) << i;
  EXPECT_EQ(c[1][1], (float)um[0][2]);
  EXPECT_EQ(c[3][1], (float)um[2][2]);

  h12(1, lpivot, l1, m, ut, 1, 3, &upt, ct, 1, 2, nvec);
  h12(2, lpivot, l1, m, ut, 1, 3, &upt, ct, 1, 1, 1);
  EXPECT_EQ(upt, up);
  EXPECT_EQ(h2::to_ref(ut, 5, m), ref::transpose(h2::to_ref(u, m, 5)));
  EXPECT_EQ(h2::to_ref(ct, nvec + 1, m), ref::transpose(h2::to_ref(c, m, nvec + 1)));
}

TEST(Householder, DegenerateArgumentsChangeNothing) {
  const int m = 5;
  h2::Arena ar;
  float **u = ar.mat(m, 1), **c = ar.mat(m, 2), **d = ar.mat(m, 1);
  for (int i = 1; i <= m; i++) u[i][1] = (float)i, c[i][1] = (float)(2 * i), c[i][2] = (float)(-i);
  const ref::Mat u0 = h2::to_ref(u, m, 1), c0 = h2::to_ref(c, m, 2);
  struct Args {
    int mode, lpivot, l1;
  };
  for (Args g : {Args{1, 0, 2}, {1, 3, 3}, {1, 4, 2}, {1, 2, 6}, {2, 0, 2}, {2, 2, 6}}) {
    SCOPED_TRACE(testing::Message() << "mode " << g.mode << " lpivot " << g.lpivot << " l1 " << g.l1);
    float up = 42;
    h12(g.mode, g.lpivot, g.l1, m, u, 0, 1, &up, c, 0, 1, 2);
    EXPECT_EQ(up, 42.0f);
    EXPECT_EQ(h2::to_ref(u, m, 1), u0);
    EXPECT_EQ(h2::to_ref(c, m, 2), c0);
  }
  // A vector orthogonal to the transformation is skipped, not updated with a
  // zero multiple (which would turn -0 + (-0)(-2) into +0).
  u[2][1] = -2;
  d[2][1] = -0.0f;
  float up = 0;
  h12(1, 1, 2, m, u, 0, 1, &up, d, 0, 1, 1);
  EXPECT_TRUE(std::signbit(d[2][1]));
  for (int i = 1; i <= m; i++) EXPECT_EQ(d[i][1], 0.0f);
  // A zero vector gives no transformation; mode 2 then leaves c alone too.
  for (int i = 1; i <= m; i++) u[i][1] = 0;
  up = 42;
  h12(1, 1, 2, m, u, 0, 1, &up, c, 0, 1, 2);
  h12(2, 1, 2, m, u, 0, 1, &up, c, 0, 1, 2);
  EXPECT_EQ(up, 42.0f);
  EXPECT_EQ(h2::to_ref(c, m, 2), c0);
}
