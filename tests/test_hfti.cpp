// Least squares with pseudo-rank against a double-precision pseudo-inverse
// and hand computation; degenerate input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "numeric/hfti.h"
#include "tests/support/h2_arrays.h"

namespace {

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
