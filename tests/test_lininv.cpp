// Linear inverse against a double-precision truncated pseudo-inverse, its
// rank and condition reports and deviation factors; the relative-difference
// measures by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <regex>
#include <string>

#include "forwinv/lininv.h"
#include "tests/support/h2_arrays.h"

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
