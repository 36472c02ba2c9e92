// Linear inverse: solutions against a double-precision truncated
// pseudo-inverse for well-conditioned, singular, nearly singular, wide and
// zero transfer matrices, the rank and condition reports, the
// standard-deviation factors with their own cut-off, and the relative
// difference measures against hand computations.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "forwinv/lininv.h"
#include "tests/support/h2_arrays.h"

namespace {

using ref::Mat;

struct Solved {
  std::string out;
  Mat d, sdd;
};

Solved run_inverse(const Mat &trans, const Mat &psi, float tol, bool with_sd = true) {
  const int nel = (int)trans.size(), npar = (int)trans[0].size(), ntim = (int)psi[0].size();
  h2::Arena ar;
  float **t = ar.mat(trans), **p = ar.mat(psi), **d = ar.mat(npar, ntim), **sdd = ar.mat(npar, ntim);
  testing::internal::CaptureStdout();
  lin_inverse(t, p, d, npar, nel, ntim, with_sd ? sdd : nullptr, tol);
  Solved s{testing::internal::GetCapturedStdout(), h2::to_ref(d, npar, ntim), h2::to_ref(sdd, npar, ntim)};
  EXPECT_EQ(h2::to_ref(t, nel, npar), trans) << "the transfer matrix is input only";
  return s;
}

// trans = Q1 diag(sv) Q2^T with orthogonal factors made of Householder
// reflections, in double.
Mat with_singular_values(int rows, const std::vector<double> &sv, unsigned seed) {
  auto orthogonal = [](int n, unsigned s) {
    Mat q = ref::zeros(n, n), vs = h2::random_matrix(n, n, s);
    for (int i = 0; i < n; i++) q[i][i] = 1.0;
    for (const ref::Vec &v : vs) {
      double nn = 0.0;
      for (double x : v) nn += x * x;
      Mat h = ref::zeros(n, n);
      for (int i = 0; i < n; i++)
        for (int j = 0; j < n; j++) h[i][j] = (i == j) - 2.0 * v[i] * v[j] / nn;
      q = ref::multiply(q, h);
    }
    return q;
  };
  const int n = (int)sv.size();
  Mat q1 = orthogonal(rows, seed), q2 = orthogonal(n, seed + 1), t = ref::zeros(rows, n);
  for (int i = 0; i < rows; i++)
    for (int j = 0; j < n; j++)
      for (int k = 0; k < n; k++) t[i][j] += q1[i][k] * sv[k] * q2[j][k];
  for (auto &row : t)
    for (double &x : row) x = (float)x;
  return t;
}

}  // namespace

TEST(LinInverse, SolutionsAndReportsAgainstTheTruncatedPseudoInverse) {
  Mat eye = ref::zeros(4, 4), twins = h2::random_matrix(5, 3, 3);
  for (int i = 0; i < 4; i++) eye[i][i] = 1.0;
  for (int i = 0; i < 5; i++) twins[i][1] = twins[i][0];
  const Mat nearly = with_singular_values(5, {2.0, 1.0, 0.001}, 21);  // 0.001 is 0.0005 of the largest
  struct Case {
    const char *name;
    Mat trans;
    float tol;
    int rank;
    bool sd_reference;  // every singular value well above the cut-off of the deviations
  };
  std::vector<Case> cases = {{"identity", eye, 0.001f, 4, true},
                             {"identical columns", twins, 0.001f, 2, false},
                             {"small singular value dropped", nearly, 0.001f, 2, true},
                             {"small singular value kept", nearly, 0.0001f, 3, true},
                             {"wide", h2::random_matrix(3, 7, 31), 0.001f, 3, false},
                             {"zero", ref::zeros(4, 3), 0.001f, 0, false}};
  for (unsigned seed = 10; seed < 12; seed++) {
    cases.push_back({"well conditioned", h2::random_matrix(6, 6, seed), 0.001f, 6, true});
    for (int i = 0; i < 6; i++) cases.back().trans[i][i] = (float)(cases.back().trans[i][i] + 3.0);
  }
  unsigned seed = 40;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const int nel = (int)c.trans.size(), npar = (int)c.trans[0].size();
    const Mat psi = h2::random_matrix(nel, 3, seed++);
    Solved s = run_inverse(c.trans, psi, c.tol);
    ref::Vec sv = ref::singular_values(c.trans);
    const double cond = c.rank ? sv[0] / sv[c.rank - 1] : INFINITY;
    char head[160];
    if (c.rank == npar)
      snprintf(head, sizeof head, "Condition of linear inverse: ");
    else
      snprintf(head, sizeof head, "Transfer matrix is singular\n  Rank: %d (full rank would be %d)\n"
               "  Condition of pseudo inverse: ", c.rank, npar);
    ASSERT_EQ(s.out.rfind(head, 0), 0u) << s.out;
    EXPECT_EQ(s.out.find('\n', strlen(head)), s.out.size() - 1) << s.out;
    const double got = strtod(s.out.c_str() + strlen(head), nullptr);
    EXPECT_TRUE(c.rank ? std::fabs(got - cond) <= 0.051 + 1e-4 * cond : got == INFINITY) << got << " vs " << cond;

    // Reference: the directions whose singular value is below tol times the
    // largest are dropped; the deviation factors sqrt(sum_k V[j][k]^2 / w_k^2)
    // take all of them.
    Mat V;
    ref::Vec ev = ref::symmetric_eigen(ref::multiply(ref::transpose(c.trans), c.trans), &V);
    for (int t = 0; t < 3; t++) {
      ref::Vec want = ref::pseudo_inverse_solve(c.trans, h2::column(psi, t), (double)c.tol * c.tol);
      for (int j = 0; j < npar; j++) {
        EXPECT_NEAR(s.d[j][t], want[j], std::max(1e-4, 1e-6 * cond) * (1.0 + std::fabs(want[j]))) << j << "," << t;
        EXPECT_TRUE(c.rank == 0 || std::isfinite(s.sdd[j][t]));
        if (!c.sd_reference) continue;
        double f2 = 0.0;
        for (int k = 0; k < npar; k++) f2 += V[j][k] * V[j][k] / ev[k];
        EXPECT_NEAR(s.sdd[j][t], std::sqrt(f2) * s.d[j][t], 2e-3 * std::sqrt(f2) * std::fabs(s.d[j][t]) + 1e-6);
      }
    }
    if (c.trans == eye) {  // reproduced exactly
      EXPECT_EQ(s.out, "Condition of linear inverse: 1.0\n");
      EXPECT_EQ(s.d, psi);
    }
    // Without deviations the solution is the same.
    EXPECT_EQ(run_inverse(c.trans, psi, c.tol, false).d, s.d);
  }
}

TEST(LinInverse, AllocationFailureIsFatal) {
  // A 40000-square matrix exceeds the per-matrix limit and is refused at
  // once; nothing is read before the work storage exists, so tiny arrays do.
  h2::Arena ar;
  float **tiny = ar.mat(1, 1);
  EXPECT_EXIT(lin_inverse(tiny, tiny, tiny, 40000, 1, 1, nullptr, 0.001f), testing::ExitedWithCode(1),
              "Fatal error in .*: cannot create v in lin_inverse");
}

TEST(RelDif, AgainstHandComputation) {
  const Mat meas = {{1.0, 2.0}, {-3.0, 0.5}, {0.0, 4.0}};
  h2::Arena ar;
  float **m = ar.mat(meas), rms = -1.0f;
  // Identical: 0.  Zero model: 1, and the rms of the data (squares sum to
  // 30.25 over 6 values).  Differences 0.5, -1, 0, 0, 2, 0.25: squares sum
  // to 5.3125.
  EXPECT_EQ(reldif(m, ar.mat(meas), 3, 2, &rms), 0.0f);
  EXPECT_EQ(rms, 0.0f);
  EXPECT_FLOAT_EQ(reldif(m, ar.mat(ref::zeros(3, 2)), 3, 2, &rms), 1.0f);
  EXPECT_FLOAT_EQ(rms, (float)std::sqrt(30.25 / 6.0));
  EXPECT_FLOAT_EQ(reldif(m, ar.mat({{0.5, 3.0}, {-3.0, 0.5}, {-2.0, 3.75}}), 3, 2, &rms),
                  (float)std::sqrt(5.3125 / 30.25));
  EXPECT_FLOAT_EQ(rms, (float)std::sqrt(5.3125 / 6.0));

  // sum psi^2 = 12; sum (shift + psi)^2 = 2.25+1+1+0.25+1+9 = 14.5; no shift: 1.
  float **psi = ar.mat({{1.0, -1.0, 2.0}, {-1.0, 1.0, -2.0}}), *shift = ar.vec(3);
  EXPECT_FLOAT_EQ(reldifcor(psi, shift, 2, 3), 1.0f);
  shift[1] = 0.5f, shift[3] = -1.0f;
  EXPECT_FLOAT_EQ(reldifcor(psi, shift, 2, 3), (float)std::sqrt(12.0 / 14.5));
}
