// The dense least-squares kernels against double-precision references:
// singular value decomposition on matrices of every shape and kind, least
// squares with pseudo-rank against the pseudo-inverse and hand computation,
// and the linear inverse built on them with its rank and condition reports
// and deviation factors; countdowns, degenerate input, and the
// relative-difference measures by hand.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "forwinv/lininv.h"
#include "numeric/hfti.h"
#include "numeric/svdcmp.h"
#include "tests/support/h2_arrays.h"

namespace {

// Decomposes src (output captured); U, w, V stay in the arena.
std::string svd(h2::Arena &ar, const ref::Mat &src, float **&a, float *&w, float **&v) {
  const int m = (int)src.size(), n = (int)src[0].size();
  a = ar.mat(src), v = ar.mat(n, n), w = ar.vec(n);
  testing::internal::CaptureStdout();
  svdcmp(a, m, n, w, v);
  return testing::internal::GetCapturedStdout();
}

struct Solved {
  int krank = -7;
  std::string out;
  ref::Mat x;  // rows 1..n of b
};

// b is max(m, n) rows high; rows m+1..n are output only and start as garbage
// that must not leak into the solution.
Solved solve(const ref::Mat &am, const ref::Mat &bm, float tau) {
  const int m = (int)am.size(), n = (int)am[0].size(), nb = (int)bm[0].size();
  h2::Arena ar;
  float **a = ar.mat(am), **b = ar.mat(std::max(m, n), nb);
  for (int i = 1; i <= std::max(m, n); i++)
    for (int j = 1; j <= nb; j++) b[i][j] = i <= m ? (float)bm[i - 1][j - 1] : 1e6f;
  Solved s;
  testing::internal::CaptureStdout();
  hfti(a, m, n, b, nb, tau, &s.krank);
  return s.out = testing::internal::GetCapturedStdout(), s.x = h2::to_ref(b, n, nb), s;
}

}  // namespace

// Random, graded (columns growing eightfold, so that the values leave the
// iteration far from sorted), rank 3 and zero; tall and wide.  U diag(w) V^T
// reproduces the matrix, w is sorted and equals the reference, the first
// min(m, n) columns of U and V are orthonormal; from 1000 elements on, a
// countdown from min(m, n) - 1 in each of four phases.
TEST(Svd, MatricesOfEveryShapeAndKind) {
  const struct {
    int m, n;
    char kind;  // r random, g graded, l rank 3, z zero
  } cases[] = {{1, 1, 'r'}, {5, 1, 'r'}, {1, 5, 'r'}, {12, 5, 'r'}, {37, 27, 'r'}, {25, 45, 'r'},
               {14, 6, 'g'}, {20, 8, 'l'}, {6, 15, 'l'}, {6, 4, 'z'}};
  unsigned seed = 11;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " " << c.kind);
    ref::Mat src = h2::random_matrix(c.m, c.n, seed++);
    if (c.kind == 'l') src = ref::multiply(h2::random_matrix(c.m, 3, seed), h2::random_matrix(3, c.n, seed + 1));
    for (int i = 0; i < c.m; i++)
      for (int j = 0; j < c.n; j++)
        src[i][j] = c.kind == 'z' ? 0.0 : (float)(src[i][j] * (c.kind == 'g' ? 1.0 + 7.0 * j / (c.n - 1) : 1.0));
    h2::Arena ar;
    float **a, *w, **v;
    const std::string out = svd(ar, src, a, w, v);
    const int k = std::min(c.m, c.n);
    const ref::Vec sigma = ref::singular_values(src);
    ref::Mat U = h2::to_ref(a, c.m, k), V = h2::to_ref(v, c.n, k), UW = U, eye = ref::zeros(k, k);
    std::string countdown;
    char line[40];
    for (int i = 0; i < k; i++) {
      eye[i][i] = 1.0;
      for (int r = 0; r < c.m; r++) UW[r][i] *= w[i + 1];
      EXPECT_NEAR(w[i + 1], sigma[i], 2e-5 * sigma[0]) << "value " << i + 1;
      EXPECT_TRUE(i == 0 || w[i] >= w[i + 1]) << "order at " << i + 1;
      EXPECT_TRUE(c.kind != 'l' || (i < 3 ? w[i + 1] > 1e-2f * w[1] : w[i + 1] <= 1e-5f * w[1])) << i;
    }
    EXPECT_LE(h2::relative_error(ref::multiply(UW, ref::transpose(V)), src), 4e-5) << "reconstruction";
    EXPECT_LE(h2::relative_error(ref::multiply(ref::transpose(V), V), eye), 2e-5) << "V^T V";
    EXPECT_TRUE(c.kind == 'z' || h2::relative_error(ref::multiply(ref::transpose(U), U), eye) <= 2e-5) << "U^T U";
    for (int phase = 3; phase >= 0; phase--)
      for (int i = (k - 1) / 10 * 10; i >= 0; i -= 10) snprintf(line, 40, "  SVD countdown: %d%5d\r", phase, i), countdown += line;
    EXPECT_EQ(out, c.m * c.n > 999 ? countdown + "\n" : "");
  }
}

// Empty shapes touch nothing; non-finite input ends in bounded time (the
// alarm turns a hang into a failure).
TEST(SvdDeathTest, EmptyAndNonFiniteInput) {
  h2::Arena ar;
  float **a = ar.mat({{5, 5}, {5, 5}}), *w = ar.vec(2), **u, **v;
  w[1] = 7;
  testing::internal::CaptureStdout();
  svdcmp(a, 0, 2, w, a), svdcmp(a, 2, 0, w, a), svdcmp(a, -3, -3, w, a);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(w[1] == 7 && h2::to_ref(a, 2, 2) == ref::Mat({{5, 5}, {5, 5}}));
  for (auto [m, n] : {std::pair{5, 4}, {4, 9}}) {
    ref::Mat src = h2::random_matrix(m, n, 9);
    src[1][2] = NAN, src[3][0] = INFINITY;
    EXPECT_EXIT((alarm(20), svd(ar, src, u, w, v), _exit(0)), testing::ExitedWithCode(0), "") << m << " x " << n;
  }
}

// Random problems, columns `copies` (dst, src) replaced by copies of earlier
// ones to make them rank deficient, against the minimum-norm solution.  The
// countdown runs from min(m, n) when that exceeds 24.
TEST(Hfti, SolutionsAndPseudoRankAgainstThePseudoInverse) {
  const struct {
    int m, n, nb, rank;
    std::vector<std::pair<int, int>> copies;
    const char *countdown;
  } cases[] = {
      {20, 6, 3, 6, {}, ""}, {3, 1, 2, 1, {}, ""}, {4, 7, 2, 4, {}, ""}, {1, 5, 1, 1, {}, ""}, {24, 30, 2, 24, {}, ""},
      {12, 6, 2, 4, {{4, 2}, {6, 1}}, ""}, {5, 4, 1, 1, {{2, 1}, {3, 1}, {4, 1}}, ""},
      {6, 8, 2, 5, {{6, 1}, {7, 2}, {8, 1}}, ""},  // neither full row nor full column rank
      {40, 25, 1, 25, {}, "HFTI countdown:   20\rHFTI countdown:   10\rHFTI countdown:    0\r"},
  };
  unsigned seed = 1;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " nb " << c.nb << " rank " << c.rank);
    ref::Mat am = h2::random_matrix(c.m, c.n, seed++), bm = h2::random_matrix(c.m, c.nb, seed++);
    for (auto [dst, src] : c.copies)
      for (int i = 0; i < c.m; i++) am[i][dst - 1] = am[i][src - 1];
    Solved s = solve(am, bm, c.m > 20 ? 1e-6f : 1e-4f);
    EXPECT_EQ(s.krank, c.rank);
    EXPECT_EQ(s.out, c.countdown);
    for (int j = 0; j < c.nb; j++)
      EXPECT_LE(h2::relative_error({h2::column(s.x, j)}, {ref::pseudo_inverse_solve(am, h2::column(bm, j))}),
                c.m > 20 ? 1e-3 : 2e-4) << "right-hand side " << j + 1;
  }
}

// The rank counts diagonal elements above tau |a11| (one exactly at the
// limit does not); a zero a11 gives rank 0 and a zero solution whatever tau
// is.  Last: columns 1 and 2 both have squared norm 1e8; column 2 keeps 1
// after the first step but downdates to 0, below column 3's 0.25: only a
// fresh computation picks column 2 next (diagonal 1e4, 1, 0.5: rank 2 at the
// limit 0.7).
TEST(Hfti, PseudoRankFromTheDiagonalAgainstHandComputation) {
  const struct {
    ref::Mat a, b;
    float tau;
    int rank;
    ref::Vec x;
  } cases[] = {
      {{{1000, 0}, {0, 0.5}, {0, 0}}, {{2}, {3}, {4}}, 1e-4f, 2, {0.002, 6}},
      {{{4, 0}, {0, 2}}, {{8}, {8}}, 0.5f, 1, {2, 0}},
      {ref::zeros(3, 2), {{1}, {0}, {2}}, -1.0f, 0, {0, 0}},
      {{{1e4, 1e4, 0}, {0, 1, 0}, {0, 0, 0.5}, {0, 0, 0}}, {{1e4}, {1}, {1}, {0}}, 7e-5f, 2, {0, 1, 0}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.a.size() << " x " << c.a[0].size() << " tau " << c.tau);
    Solved s = solve(c.a, c.b, c.tau);
    EXPECT_EQ(s.krank, c.rank);
    for (size_t i = 0; i < c.x.size(); i++) EXPECT_NEAR(s.x[i][0], c.x[i], 1e-6 * (1 + std::fabs(c.x[i]))) << i;
  }
}

// Empty problems change nothing; NaN input ends in bounded time with a rank
// in range.
TEST(HftiDeathTest, EmptyAndNonFiniteInput) {
  h2::Arena ar;
  float **a = ar.mat({{1, 2}, {3, 4}}), **b = ar.mat({{5}, {6}});
  int krank = 99, krank2 = 99;
  hfti(a, 0, 2, b, 1, 1e-5f, &krank), hfti(a, 2, -1, b, 1, 1e-5f, &krank2);
  EXPECT_TRUE(krank == 0 && krank2 == 0 && h2::to_ref(a, 2, 2) == ref::Mat({{1, 2}, {3, 4}}) && b[1][1] == 5 && b[2][1] == 6);
  ref::Mat am = h2::random_matrix(8, 5, 3);
  am[2][1] = NAN;
  EXPECT_EXIT((alarm(20), _exit(solve(am, h2::random_matrix(8, 2, 4), 1e-5f).krank <= 5 ? 0 : 3)),
              testing::ExitedWithCode(0), "");
}

using ref::Mat;

// Well conditioned, identical columns, a singular value 5e-4 of the largest
// dropped or kept, wide, zero.  The deviation factors are
// sqrt(sum_k V[j][k]^2 / w_k^2) times the solution.
TEST(LinInverse, SolutionsAndReportsAgainstTheTruncatedPseudoInverse) {
  Mat well = h2::random_matrix(6, 6, 10), twins = h2::random_matrix(5, 3, 3), nearly = h2::random_matrix(5, 4, 21);
  for (int i = 0; i < 6; i++) well[i][i] = (float)(well[i][i] + 3.0);
  for (int i = 0; i < 5; i++) twins[i][1] = twins[i][0], nearly[i][2] = (float)(nearly[i][0] + 1e-3 * nearly[i].back());
  for (auto &row : nearly) row.pop_back();
  const struct {
    Mat trans;
    float tol;
    int rank;
  } cases[] = {{well, 0.001f, 6}, {twins, 0.001f, 2}, {nearly, 0.01f, 2}, {nearly, 1e-5f, 3},
               {h2::random_matrix(3, 7, 31), 0.001f, 3}, {ref::zeros(4, 3), 0.001f, 0}};
  for (const auto &c : cases) {
    const int nel = (int)c.trans.size(), npar = (int)c.trans[0].size();
    SCOPED_TRACE(testing::Message() << nel << " x " << npar << " tol " << c.tol);
    const Mat psi = h2::random_matrix(nel, 3, nel + npar);
    h2::Arena ar;
    float **t = ar.mat(c.trans), **d = ar.mat(npar, 3), **sdd = ar.mat(npar, 3), **d2 = ar.mat(npar, 3);
    testing::internal::CaptureStdout();
    lin_inverse(t, ar.mat(psi), d, npar, nel, 3, sdd, c.tol);
    const std::string out = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    lin_inverse(t, ar.mat(psi), d2, npar, nel, 3, nullptr, c.tol);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), out);
    EXPECT_EQ(h2::to_ref(t, nel, npar), c.trans) << "the transfer matrix is input only";
    EXPECT_EQ(h2::to_ref(d2, npar, 3), h2::to_ref(d, npar, 3)) << "the same without deviations";

    const ref::Vec sv = ref::singular_values(c.trans);
    const double cond = c.rank ? sv[0] / sv[c.rank - 1] : INFINITY;
    char head[160];
    snprintf(head, sizeof head, c.rank == npar ? "Condition of linear inverse: "
             : "Transfer matrix is singular\n  Rank: %d (full rank would be %d)\n  Condition of pseudo inverse: ",
             c.rank, npar);
    ASSERT_EQ(out.rfind(head, 0), 0u) << out;
    EXPECT_TRUE(std::regex_match(out.substr(strlen(head)), std::regex("([0-9]+\\.[0-9]|inf)\n"))) << out;
    const double got = strtod(out.c_str() + strlen(head), nullptr);
    EXPECT_TRUE(c.rank ? std::fabs(got - cond) <= 0.051 + 1e-4 * cond : got == INFINITY) << got << " vs " << cond;
    Mat V;
    const ref::Vec ev = ref::symmetric_eigen(ref::multiply(ref::transpose(c.trans), c.trans), &V);
    for (int s = 0; s < 3; s++) {
      const ref::Vec want = ref::pseudo_inverse_solve(c.trans, h2::column(psi, s), (double)c.tol * c.tol);
      for (int j = 0; j < npar; j++) {
        EXPECT_NEAR(d[j + 1][s + 1], want[j], std::max(1e-4, 1e-6 * cond) * (1.0 + std::fabs(want[j]))) << j << "," << s;
        if (c.rank < npar) continue;  // the factors take every direction, dropped or not
        double f2 = 0.0;
        for (int k = 0; k < npar; k++) f2 += V[j][k] * V[j][k] / ev[k];
        EXPECT_NEAR(sdd[j + 1][s + 1], std::sqrt(f2) * d[j + 1][s + 1], 2e-3 * std::sqrt(f2) * std::fabs(d[j + 1][s + 1]) + 1e-6);
      }
    }
  }
}

// Differences 0.5, -1, 0, 0, 2, 0.25 (squares sum to 5.3125) against data
// whose squares sum to 30.25; sum psi^2 = 12 against sum (shift + psi)^2 = 14.5.
TEST(RelDif, AgainstHandComputation) {
  h2::Arena ar;
  float **m = ar.mat({{1.0, 2.0}, {-3.0, 0.5}, {0.0, 4.0}}), rms = -1.0f;
  EXPECT_FLOAT_EQ(reldif(m, ar.mat({{0.5, 3.0}, {-3.0, 0.5}, {-2.0, 3.75}}), 3, 2, &rms), std::sqrt(5.3125f / 30.25f));
  EXPECT_FLOAT_EQ(rms, std::sqrt(5.3125f / 6));
  float **psi = ar.mat({{1.0, -1.0, 2.0}, {-1.0, 1.0, -2.0}}), *shift = ar.vec(3);
  shift[1] = 0.5f, shift[3] = -1.0f;
  EXPECT_FLOAT_EQ(reldifcor(psi, shift, 2, 3), std::sqrt(12.0f / 14.5f));
}
