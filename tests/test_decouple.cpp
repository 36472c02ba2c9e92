// Separable least squares on sums of exponentials with unknown rates: fits
// against the truth and a double-precision optimum, the covariance against
// inverse normal matrices, and the degenerate cases.
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <numeric>
#include <string>

#include "numeric/decouple.h"
#include "tests/support/h2_arrays.h"

namespace {

using ref::Mat;
using ref::Vec;

// Column j of the model is exp(-rate_j(p) t_i), t_i = 0.1 i; rate_j moves with
// p_k at unit speed where dep(j, k) (indices from 0).
struct Model {
  int m, n, q;
  double (*rate)(int j, const double *p) = [](int j, const double *p) { return p[j]; };
  bool (*dep)(int j, int k) = [](int j, int k) { return j == k; };
  Mat at(const Vec &p) const {
    Mat M = ref::zeros(m, n);
    for (int i = 0; i < m; i++)
      for (int j = 0; j < n; j++) M[i][j] = std::exp(-0.1 * (i + 1) * rate(j, p.data()));
    return M;
  }
};
const Model TWINS{20, 2, 1, [](int, const double *p) { return p[0]; }, [](int, int) { return true; }};
const Model SUM{20, 1, 2, [](int, const double *p) { return p[0] + p[1]; }, [](int, int) { return true; }};
const Model *model;  // the one the callbacks evaluate

void model_cb(int m, int n, int q, float *p, float **M) {
  const Mat a = model->at(Vec(p + 1, p + q + 1));
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) M[i][j] = (float)a[i - 1][j - 1];
}
void deriv_cb(int m, int n, int q, float *p, float ***D) {
  const Mat a = model->at(Vec(p + 1, p + q + 1));
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = model->dep(j - 1, k - 1) ? (float)(-0.1 * i * a[i - 1][j - 1]) : 0.0f;
}
int accept_all(int, float *) { return 1; }
int reject_all(int, float *) { return 0; }
int positive(int q, float *p) { return std::all_of(p + 1, p + q + 1, [](float x) { return x > 0; }); }

Mat normal(const Mat &J) { return ref::multiply(ref::transpose(J), J); }
Mat inverse(const Mat &a) {
  Mat x = ref::zeros((int)a.size(), (int)a.size());  // its columns, as rows
  for (size_t j = 0; j < a.size(); j++) x[j][j] = 1, x[j] = ref::solve(a, x[j]);
  return ref::transpose(x);
}
// Stacked residual Y - M (M^+ Y), column after column, and its norm.
Vec residual(const Model &mod, const Vec &p, const Mat &Y, double *norm = nullptr) {
  const Mat M = mod.at(p), F = ref::multiply(ref::multiply(M, inverse(normal(M))), ref::multiply(ref::transpose(M), Y));
  Vec r;
  for (size_t t = 0; t < Y[0].size(); t++)
    for (size_t i = 0; i < Y.size(); i++) r.push_back(Y[i][t] - F[i][t]);
  if (norm) *norm = std::sqrt(std::inner_product(r.begin(), r.end(), r.begin(), 0.0));
  return r;
}
// Negative derivative of the stacked residual, by central differences.
Mat vp_jacobian(const Model &mod, const Vec &p, const Mat &Y) {
  Mat Jt;
  for (int k = 0; k < mod.q; k++) {
    Vec pp = p, pm = p;
    pp[k] += 1e-6, pm[k] -= 1e-6;
    const Vec a = residual(mod, pp, Y), b = residual(mod, pm, Y);
    Jt.push_back(Vec(a.size()));
    for (size_t i = 0; i < a.size(); i++) Jt[k][i] = (b[i] - a[i]) / 2e-6;
  }
  return ref::transpose(Jt);
}
// Data M(p) X plus noise, rounded to float as the fitter sees it.
Mat make_data(const Model &mod, const Vec &p, const Mat &X, double noise = 0.0) {
  Mat Y = ref::multiply(mod.at(p), X), e = h2::random_matrix((int)Y.size(), (int)Y[0].size(), 9);
  for (size_t i = 0; i < Y.size(); i++)
    for (size_t t = 0; t < Y[0].size(); t++) Y[i][t] = (float)(Y[i][t] + noise * e[i][t]);
  return Y;
}

struct FitResult {
  float relres = -7, cond = -7, rms = -7;
  Vec p;
  Mat X, cov;
};
constexpr float SENTINEL = 42.0f;  // covariance entries the fitter must not touch keep it

// Fits (cov: 0 none, 1 block, 2 full) and checks that the outputs belong
// together: F = M(p) X, and the residual figures are those of Y - F.
FitResult run_fit(const Model &mod, const Mat &Y, const Vec &p0, DecoupleBound bound, int cov = 0, int maxiter = 25,
                  int verbose = 0) {
  const int m = mod.m, n = mod.n, q = mod.q, L = (int)Y[0].size(), N = cov == 2 ? n * L + q : n + q;
  h2::Arena ar;
  float **y = ar.mat(Y), **f = ar.mat(m, L), **x = ar.mat(n, L), **c = ar.mat(N, N), *p = ar.vec(q);
  for (int k = 1; k <= q; k++) p[k] = (float)p0[k - 1];
  for (int i = 1; i <= N; i++) std::fill(c[i] + 1, c[i] + N + 1, SENTINEL);
  FitResult r;
  model = &mod;
  EXPECT_EQ(decouple(m, n, q, L, y, f, p, x, bound, &r.relres, model_cb, deriv_cb, maxiter, 0.005f, &r.cond, verbose,
                     &r.rms, cov ? c : nullptr, cov == 2, 0.001f), 1);
  r.p.assign(p + 1, p + q + 1), r.X = h2::to_ref(x, n, L), r.cov = h2::to_ref(c, N, N);
  const Mat F = ref::multiply(mod.at(r.p), r.X);
  double d2 = 0.0, y2 = 0.0;
  for (int i = 0; i < m; i++)
    for (int t = 0; t < L; t++) {
      EXPECT_TRUE(std::fabs(f[i + 1][t + 1] - F[i][t]) <= 1e-5 * (1 + std::fabs(F[i][t])));
      d2 += (Y[i][t] - f[i + 1][t + 1]) * (Y[i][t] - f[i + 1][t + 1]), y2 += Y[i][t] * Y[i][t];
    }
  EXPECT_TRUE(std::fabs(r.relres - std::sqrt(d2 / (y2 > 0 ? y2 : 1))) <= 1e-6 + 1e-5 * r.relres);
  EXPECT_TRUE(std::fabs(r.rms - std::sqrt(d2 / (m * L))) <= 1e-7 + 1e-5 * r.rms);
  return r;
}

}  // namespace

// From a perturbed start to the truth (n < L, n >= L, and identical columns,
// whose strength the minimum-norm solution splits); with noise, to the
// optimum of damped Gauss-Newton in double, which the fit cannot beat.
TEST(Decouple, FitsFindTheTruthAndTheDoublePrecisionOptimum) {
  const struct {
    Model mod;
    Vec truth, start;
    Mat X;
  } cases[] = {
      {{30, 2, 2}, {0.5, 2.0}, {0.7, 1.5}, {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}}},
      {{30, 3, 3}, {0.3, 1.0, 3.0}, {0.35, 1.2, 2.6}, {{1.0, -0.5}, {0.7, 1.5}, {2.0, 0.5}}},
      {TWINS, {0.8}, {1.0}, {{1.5, -0.5}, {1.5, -0.5}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "n = " << c.mod.n << " q = " << c.mod.q);
    FitResult r = run_fit(c.mod, make_data(c.mod, c.truth, c.X), c.start, positive);
    EXPECT_LE(r.relres, 0.001f);
    EXPECT_GE(r.cond, 1.0f);  // solved by LU
    for (size_t k = 0; k < c.truth.size(); k++) EXPECT_NEAR(r.p[k], c.truth[k], 0.01 * (1 + c.truth[k])) << k;
    EXPECT_LE(h2::relative_error(r.X, c.X), 0.02);
  }
  const Model mod{25, 2, 2};
  const Mat Y = make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0, 0.3}, {0.7, 1.5, -1.0, 0.8}}, 0.02);
  Vec best = {0.5, 2.0};
  double mu = 1e-6, f, ft, ynorm = 0.0;
  for (const Vec &row : Y) ynorm += std::inner_product(row.begin(), row.end(), row.begin(), 0.0);
  residual(mod, best, Y, &f), ynorm = std::sqrt(ynorm);
  for (int it = 0; it < 200 && mu < 1e10; it++) {
    const Mat J = vp_jacobian(mod, best, Y);
    Mat A = normal(J);
    for (int k = 0; k < 2; k++) A[k][k] *= 1.0 + mu;
    const Vec step = ref::solve(A, ref::multiply(ref::transpose(J), residual(mod, best, Y))),
              trial = {best[0] + step[0], best[1] + step[1]};
    residual(mod, trial, Y, &ft);
    if (ft >= f) {
      mu *= 10.0;
      continue;
    }
    const bool done = f - ft < 1e-15 * f;
    if (best = trial, f = ft, mu *= 0.3; done) break;
  }
  ASSERT_GT(f / ynorm, 0.002);  // the noise keeps the fit above the "perfect" level
  FitResult r = run_fit(mod, Y, {0.6, 1.7}, positive);
  EXPECT_TRUE(r.relres >= f / ynorm * (1 - 1e-4) && r.relres <= f / ynorm * 1.005) << r.relres << " vs " << f / ynorm;
  for (int k = 0; k < 2; k++) EXPECT_NEAR(r.p[k], best[k], 0.01 * best[k]);
}

// Block covariance: (M^T M)^-1 and the inverse normal matrix of the
// variable-projection Jacobian, the coupling entries untouched; full: the
// inverse normal matrix of all parameters (linear ones of each column, then
// the nonlinear ones).  Without iterations both are built at the start,
// else from the factors of the last iteration, a step before the end.
TEST(Decouple, Covariance) {
  const Model mod{20, 2, 2};
  const Mat Y = make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}}, 0.01);
  for (int maxiter : {0, 25}) {
    SCOPED_TRACE(testing::Message() << "maxiter " << maxiter);
    const double tol = maxiter ? 0.05 : 2e-3;
    FitResult b = run_fit(mod, Y, {0.6, maxiter ? 2.6 : 1.8}, accept_all, 1, maxiter);
    FitResult f = run_fit(mod, Y, {0.6, maxiter ? 2.6 : 1.8}, accept_all, 2, maxiter);
    ASSERT_EQ(b.p, f.p);
    EXPECT_TRUE(maxiter || b.p == (Vec{0.6f, 1.8f})) << "no iterations, no step";
    const Mat M = mod.at(f.p);
    Mat J = ref::zeros(60, 8), lin = ref::zeros(2, 2), nonlin = ref::zeros(2, 2);
    for (int k = 0; k < 2; k++)  // k: the nonlinear parameter, and its model column
      for (int t = 0; t < 3; t++)
        for (int i = 0; i < 20; i++) J[t * 20 + i][6 + k] = -0.1 * (i + 1) * M[i][k] * f.X[k][t], J[t * 20 + i][2 * t + k] = M[i][k];
    EXPECT_LE(h2::relative_error(f.cov, inverse(normal(J))), tol) << "full covariance";
    for (int i = 0; i < 4; i++)
      for (int j = 0; j < 4; j++) {
        if ((i < 2) == (j < 2)) (i < 2 ? lin : nonlin)[i % 2][j % 2] = b.cov[i][j];
        EXPECT_TRUE((i < 2) == (j < 2) || b.cov[i][j] == SENTINEL) << i << "," << j;
      }
    EXPECT_LE(h2::relative_error(lin, inverse(normal(M))), 1e-4) << "linear block";
    EXPECT_LE(h2::relative_error(nonlin, inverse(normal(vp_jacobian(mod, b.p, Y)))), tol) << "nonlinear block";
  }
}

// Two parameters with exactly the same effect: a singular normal matrix, so
// a Householder solve takes the minimum-norm step (both move alike), the
// condition comes back as -rank - 0.5 |R[k][k] / R[1][1]|, and the pair's
// covariance is set large.
TEST(Decouple, ParametersWithTheSameEffectTurnToHouseholder) {
  FitResult r = run_fit(SUM, make_data(SUM, {0.7, 0.8}, {{1.0, -2.0}}), {0.5, 0.6}, accept_all, 1);
  EXPECT_TRUE(r.cond < 0 && (int)-r.cond == 1 && 2.0 / (-r.cond - 1) >= 1.0) << r.cond;
  EXPECT_NEAR(r.p[0] + r.p[1], 1.5, 0.01);
  EXPECT_NEAR(r.p[0] - r.p[1], -0.1, 1e-4);
  EXPECT_TRUE(r.cov[1][1] == 1e20f && r.cov[1][2] == 1e20f && r.cov[2][2] == 1e20f);
}

// Zero data is reported and keeps the start, with nothing solved.  A bound
// that rejects every trial: 1/2^34 is the first step below 1e-10, so 34
// halvings, and the start stays.
TEST(Decouple, ZeroDataAndARejectingBoundKeepTheStart) {
  const Model mod{20, 2, 2};
  testing::internal::CaptureStdout();
  const FitResult z = run_fit(mod, ref::zeros(20, 3), {0.5, 2.0}, accept_all, 0, 25, 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Decouple: RMS of measurement zero; residual connot be scaled properly.\n"
            "At step 0 the relative residual is 0.000\nDat fit as 'n beer! 0.000000\n");
  EXPECT_TRUE(z.p == Vec({0.5, 2.0}) && z.cond == 0) << z.cond;
  testing::internal::CaptureStdout();
  const FitResult r = run_fit(mod, make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}}), {0.7, 1.5},
                              reject_all, 0, 25, 1);
  const std::string out = testing::internal::GetCapturedStdout(), bound = "Parameters out of bound; step decreased.";
  int halvings = 0;
  for (size_t at = out.find(bound); at != std::string::npos; at = out.find(bound, at + 1)) halvings++;
  EXPECT_EQ(halvings, 34) << out;
  EXPECT_EQ(r.p, Vec({0.7f, 1.5f}));
}
