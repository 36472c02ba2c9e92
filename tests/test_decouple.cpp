// Separable least squares on synthetic problems with known answers (sums of
// exponentials with unknown rates, current dipoles with unknown positions):
// the building blocks against double-precision references, the fits against
// the truth and a double-precision optimum, the covariance against inverses
// of normal matrices, and the step control and reports through a probe in a
// fresh process, because the fitter remembers what it already reported.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "numeric/decouple.h"
#include "tests/support/fit_models.h"
#include "tests/support/h2_arrays.h"
#include "tests/support/process.h"

namespace {

using ref::Mat;
using ref::Vec;

// A separable model: its callbacks, the same model in double, and sizes.
struct Model {
  int m, n, q;
  DecoupleModel model;
  DecoupleDeriv deriv;
  std::function<Mat(const Vec &)> model_d;
};

Model separable(int m, int n, int q, DecoupleModel f, DecoupleDeriv d, double (*entry)(int, int, const Vec &)) {
  return {m, n, q, f, d, [=](const Vec &p) {
            Mat M = ref::zeros(m, n);
            for (int i = 0; i < m; i++)
              for (int j = 0; j < n; j++) M[i][j] = entry(i + 1, j, p);
            return M;
          }};
}

Model exp_problem(int m, int n) {
  fitmodel::set_times(m, 0.1);
  return separable(m, n, n, fitmodel::exp_model, fitmodel::exp_deriv,
                   [](int i, int j, const Vec &p) { return fitmodel::exp_entry(i, p[j]); });
}

double exp_rate1(int i, int, const Vec &p) { return fitmodel::exp_entry(i, p[0]); }

Model dipole_problem(int m, int ndip) {
  fitmodel::set_sensors(m);
  return separable(m, 3 * ndip, 3 * ndip, fitmodel::dipole_model, fitmodel::dipole_deriv,
                   [](int i, int j, const Vec &p) { return fitmodel::dipole_entry(i, j % 3, &p[j - j % 3]); });
}

// ---- Double-precision references.

Mat solve_columns(const Mat &a, const Mat &b) {  // a^-1 b, a square
  Mat xt;
  for (size_t t = 0; t < b[0].size(); t++) xt.push_back(ref::solve(a, h2::column(b, (int)t)));
  return ref::transpose(xt);
}

Mat inverse(const Mat &a) {
  Mat eye = ref::zeros((int)a.size(), (int)a.size());
  for (size_t i = 0; i < a.size(); i++) eye[i][i] = 1.0;
  return solve_columns(a, eye);
}

Mat normal(const Mat &J) { return ref::multiply(ref::transpose(J), J); }

// Least-squares linear parameters for the model matrix M.
Mat lsq(const Mat &M, const Mat &Y) { return solve_columns(normal(M), ref::multiply(ref::transpose(M), Y)); }

double norm(const Mat &a) {
  double s = 0.0;
  for (auto &row : a)
    for (double x : row) s += x * x;
  return std::sqrt(s);
}

// Stacked residual Y - M (M^+ Y), column after column.
Vec residual(const Model &mod, const Vec &p, const Mat &Y) {
  Mat M = mod.model_d(p), F = ref::multiply(M, lsq(M, Y));
  Vec r;
  for (size_t t = 0; t < Y[0].size(); t++)
    for (size_t i = 0; i < Y.size(); i++) r.push_back(Y[i][t] - F[i][t]);
  return r;
}

double relres(const Model &mod, const Vec &p, const Mat &Y) { return norm({residual(mod, p, Y)}) / norm(Y); }

// Central difference of f along p[k], entry by entry.
Mat central(const std::function<Mat(const Vec &)> &f, const Vec &p, int k) {
  const double h = 1e-6 * std::max(1.0, std::fabs(p[k]));
  Vec pp = p, pm = p;
  pp[k] += h, pm[k] -= h;
  Mat a = f(pp), b = f(pm);
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < a[0].size(); j++) a[i][j] = (a[i][j] - b[i][j]) / (2 * h);
  return a;
}

// Negative derivative of the stacked residual (one row per parameter, then
// transposed).
Mat vp_jacobian(const Model &mod, const Vec &p, const Mat &Y) {
  Mat Jt;
  for (int k = 0; k < mod.q; k++) {
    Mat d = central([&](const Vec &x) { return Mat{residual(mod, x, Y)}; }, p, k);
    for (double &v : d[0]) v = -v;
    Jt.push_back(d[0]);
  }
  return ref::transpose(Jt);
}

// Inverse normal matrix of all parameters (linear ones of every column, then
// the nonlinear ones) of the fit M(p) X.
Mat full_covariance(const Model &mod, const Vec &p, const Mat &X) {
  const int n = mod.n, q = mod.q, m = mod.m, L = (int)X[0].size();
  Mat M = mod.model_d(p), J = ref::zeros(m * L, n * L + q);
  for (int k = 0; k < q; k++) {
    Mat DX = ref::multiply(central(mod.model_d, p, k), X);
    for (int t = 0; t < L; t++)
      for (int i = 0; i < m; i++) J[t * m + i][n * L + k] = DX[i][t];
  }
  for (int t = 0; t < L; t++)
    for (int i = 0; i < m; i++)
      for (int j = 0; j < n; j++) J[t * m + i][t * n + j] = M[i][j];
  return inverse(normal(J));
}

// Damped Gauss-Newton on the stacked residual, in double: the optimum the
// single-precision fitter should approach.
Vec reference_optimum(const Model &mod, Vec p, const Mat &Y) {
  double mu = 1e-6, f = relres(mod, p, Y);
  for (int it = 0; it < 200 && mu < 1e10; it++) {
    Mat J = vp_jacobian(mod, p, Y), A = normal(J);
    for (int k = 0; k < mod.q; k++) A[k][k] *= 1.0 + mu;
    Vec step = ref::solve(A, ref::multiply(ref::transpose(J), residual(mod, p, Y))), trial = p;
    for (int k = 0; k < mod.q; k++) trial[k] += step[k];
    const double ft = relres(mod, trial, Y);
    if (ft >= f) {
      mu *= 10.0;
      continue;
    }
    p = trial;
    if (f - ft < 1e-15 * f) break;
    f = ft, mu *= 0.3;
  }
  return p;
}

// Data M(p) X (+ noise), rounded to float as the fitter sees it.
Mat make_data(const Model &mod, const Vec &p, const Mat &X, double noise = 0.0, unsigned seed = 7) {
  Mat Y = ref::multiply(mod.model_d(p), X), e = h2::random_matrix((int)Y.size(), (int)Y[0].size(), seed);
  for (size_t i = 0; i < Y.size(); i++)
    for (size_t t = 0; t < Y[0].size(); t++) Y[i][t] = (float)(Y[i][t] + noise * e[i][t]);
  return Y;
}

// ---- Running the fitter.

struct FitResult {
  int ret;
  float relres = -7, cond = -7, rms = -7;
  Vec p;
  Mat X, F, cov;
};

enum class Cov { none, block, full };
constexpr float SENTINEL = 42.0f;  // covariance entries the fitter must not touch keep it

FitResult run_fit(const Model &mod, const Mat &Y, const Vec &p0, DecoupleBound bound, Cov covmode = Cov::none,
                  int maxiter = 25) {
  const int m = mod.m, n = mod.n, q = mod.q, L = (int)Y[0].size();
  const int N = covmode == Cov::full ? n * L + q : n + q;
  h2::Arena ar;
  float **y = ar.mat(Y), **f = ar.mat(m, L), **x = ar.mat(n, L), **c = ar.mat(N, N), *p = ar.vec(q);
  for (int k = 1; k <= q; k++) p[k] = (float)p0[k - 1];
  for (int i = 1; i <= N; i++)
    for (int j = 1; j <= N; j++) c[i][j] = SENTINEL;
  FitResult r;
  r.ret = decouple(m, n, q, L, y, f, p, x, bound, &r.relres, mod.model, mod.deriv, maxiter, 0.005f, &r.cond, 0,
                   &r.rms, covmode == Cov::none ? nullptr : c, covmode == Cov::full, 0.001f);
  r.p.assign(p + 1, p + q + 1);
  r.X = h2::to_ref(x, n, L), r.F = h2::to_ref(f, m, L), r.cov = h2::to_ref(c, N, N);
  return r;
}

// The outputs belong together: F = M(p) X and the residual figures are those
// of Y - F.
void expect_consistent(const Model &mod, const Mat &Y, const FitResult &r) {
  const Mat F = ref::multiply(mod.model_d(r.p), r.X);
  double d2 = 0.0, worst = 0.0;
  for (size_t i = 0; i < Y.size(); i++)
    for (size_t t = 0; t < Y[0].size(); t++) {
      worst = std::max(worst, std::fabs(r.F[i][t] - F[i][t]));
      d2 += (Y[i][t] - r.F[i][t]) * (Y[i][t] - r.F[i][t]);
    }
  EXPECT_LE(worst, 1e-5 * norm(Y));
  const double rel = std::sqrt(d2) / norm(Y), rms = std::sqrt(d2 / (Y.size() * Y[0].size()));
  EXPECT_NEAR(r.relres, rel, 1e-6 + 1e-5 * rel);
  EXPECT_NEAR(r.rms, rms, 1e-7 + 1e-5 * rms);
}

// The block of `got` at (r0, c0) against `want`, relative to want's largest entry.
void expect_block(const Mat &got, int r0, int c0, const Mat &want, double rel, const char *what) {
  Mat b = ref::zeros((int)want.size(), (int)want[0].size());
  for (size_t i = 0; i < want.size(); i++)
    for (size_t j = 0; j < want[0].size(); j++) b[i][j] = got[r0 + i][c0 + j];
  EXPECT_LE(h2::relative_error(b, want), rel) << what;
}

// ---- Building blocks.

TEST(PseudoRank, DropsSmallValuesAndInvertsTheRest) {
  struct Case {
    Vec w;
    float svtol;
    int rank;
    Vec inv;
  };
  const Case cases[] = {
      {{4, 2, 0.003, 0.001}, 0.001f, 2, {0.25, 0.5, 0, 0}},  // threshold 0.004
      {{4, 2, 0.003, 0}, 0.0f, 4, {0.25, 0.5, 1 / 0.003f, 1e20f}},  // zero tolerance keeps every value
      {{0, 0, 0, 0}, 0.001f, 0, {0, 0, 0, 0}},
  };
  for (const Case &c : cases) {
    h2::Arena ar;
    float *w = ar.vec(4);
    for (int j = 1; j <= 4; j++) w[j] = (float)c.w[j - 1];
    EXPECT_EQ(get_nlpar1(w, 4, 0, c.svtol), c.rank);
    for (int j = 1; j <= 4; j++) EXPECT_FLOAT_EQ(w[j], (float)c.inv[j - 1]) << "rank " << c.rank << " w[" << j << "]";
  }
  h2::Arena ar;
  float *w = ar.vec(3);
  w[1] = 1, w[2] = 0, w[3] = 1;
  EXPECT_EXIT((dup2(2, 1), get_nlpar1(w, 3, 0, 0.5f)), testing::ExitedWithCode(1),
              "Decouple: You should use a SVD that returns sorted singular values");
}

// Residual, pseudo-inverse and Jacobian at one point against double
// references; both association orders of the Jacobian are used (n < L and
// n >= L), on data far from the model so that the second term of the
// Jacobian matters.
TEST(BuildingBlocks, ResidualPseudoInverseAndJacobian) {
  struct Case {
    bool dipole;
    int m, count, L;
    Vec p;
  };
  const Case cases[] = {
      {false, 15, 2, 3, {0.6, 1.9}}, {false, 15, 2, 2, {0.6, 1.9}}, {true, 20, 1, 2, {0.1, -0.2, 0.3}}};
  unsigned seed = 100;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << (c.dipole ? "dipole" : "exponential") << " L=" << c.L);
    const Model mod = c.dipole ? dipole_problem(c.m, c.count) : exp_problem(c.m, c.count);
    const int m = mod.m, n = mod.n, q = mod.q, L = c.L;
    const Mat Y = h2::random_matrix(m, L, seed++);
    h2::Arena ar;
    float **y = ar.mat(Y), *p = ar.vec(q), *r = ar.vec(m * L), **M = ar.mat(m, n), **U = ar.mat(m, n);
    float **V = ar.mat(n, n), *w = ar.vec(n), *a = ar.vec(n), **P = ar.mat(n, m), ***D = ar.cube(q, m, n);
    float **X = ar.mat(n, L), **Smn = ar.mat(m, n), *sn = ar.vec(n), *sm = ar.vec(m), **Snn = ar.mat(n, n);
    float **J = ar.mat(m * L, q), **G = ar.mat(q, q), *g = ar.vec(q);
    Vec pf(q);
    for (int k = 0; k < q; k++) p[k + 1] = (float)c.p[k], pf[k] = p[k + 1];

    int rank = -1;
    const float res = get_res(m, n, q, L, y, p, r, M, U, V, w, a, &rank, 0, mod.model, 0.001f);
    EXPECT_EQ(rank, n);
    const Mat rref = {residual(mod, pf, Y)}, rgot = {Vec(r + 1, r + m * L + 1)};
    ASSERT_GT(norm(rref), 0.3 * norm(Y)) << "the data should be far from the model";
    EXPECT_NEAR(res, norm(rref), 1e-5 * std::sqrt(m * L));
    EXPECT_LE(h2::relative_error(rgot, rref), 2e-5);

    get_QR(m, n, rank, U, V, w, P);
    const Mat Md = mod.model_d(pf);
    EXPECT_LE(h2::relative_error(h2::to_ref(P, n, m), solve_columns(normal(Md), ref::transpose(Md))), 1e-4);

    get_gtg(m, n, q, L, rank, y, p, r, U, D, P, X, Smn, sn, sm, Snn, J, G, g, mod.deriv);
    const Mat Jgot = h2::to_ref(J, m * L, q);
    EXPECT_LE(h2::relative_error(Jgot, vp_jacobian(mod, pf, Y)), 2e-4);
    // Normal matrix and gradient from the returned Jacobian; the linear
    // solutions it used.
    EXPECT_LE(h2::relative_error(h2::to_ref(G, q, q), normal(Jgot)), 1e-5);
    EXPECT_LE(h2::relative_error({Vec(g + 1, g + q + 1)}, ref::multiply(rgot, Jgot)), 1e-5);
    EXPECT_LE(h2::relative_error(h2::to_ref(X, n, L), lsq(Md, Y)), 1e-4);
  }
}

// ---- Fits.

TEST(Decouple, FitsFromAPerturbedStartFindTheTruth) {
  struct Case {
    const char *name;
    std::function<Model()> make;
    Vec truth, start;
    Mat X;
    DecoupleBound bound;
  };
  const Case cases[] = {
      {"exponentials, n < L", [] { return exp_problem(30, 2); }, {0.5, 2.0}, {0.7, 1.5},
       {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}}, fitmodel::positive_rates},
      {"two dipoles, n >= L", [] { return dipole_problem(40, 2); }, {0.2, 0.1, 0.3, -0.3, 0.25, -0.1},
       {0.26, 0.05, 0.34, -0.34, 0.31, -0.05}, h2::random_matrix(6, 4, 5), fitmodel::inside_sphere},
      {"one dipole, n < L", [] { return dipole_problem(30, 1); }, {-0.1, 0.35, 0.2}, {0.0, 0.3, 0.1},
       h2::random_matrix(3, 5, 6), fitmodel::inside_sphere},
      // Two identical columns: the minimum-norm solution splits the strength.
      {"identical columns",
       [] { return fitmodel::set_times(20, 0.1), separable(20, 2, 1, fitmodel::twin_model, fitmodel::twin_deriv, exp_rate1); },
       {0.8}, {1.0}, {{1.5, -0.5}, {1.5, -0.5}}, fitmodel::positive_rates},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const Model mod = c.make();
    const Mat Y = make_data(mod, c.truth, c.X);
    FitResult r = run_fit(mod, Y, c.start, c.bound);
    ASSERT_EQ(r.ret, 1);
    EXPECT_LE(r.relres, 0.001f);
    EXPECT_GE(r.cond, 1.0f);  // solved by LU
    for (size_t k = 0; k < c.truth.size(); k++) EXPECT_NEAR(r.p[k], c.truth[k], 0.01 * (1 + c.truth[k])) << k;
    EXPECT_LE(h2::relative_error(r.X, c.X), 0.02);
    expect_consistent(mod, Y, r);
  }
}

TEST(Decouple, NoisyDataReachTheDoublePrecisionOptimum) {
  const Model mod = exp_problem(25, 2);
  const Mat Y = make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0, 0.3}, {0.7, 1.5, -1.0, 0.8}}, 0.02, 9);
  const Vec best = reference_optimum(mod, {0.5, 2.0}, Y);
  const double best_rel = relres(mod, best, Y);
  ASSERT_GT(best_rel, 0.002);  // the noise keeps the fit above the "perfect" level
  FitResult r = run_fit(mod, Y, {0.6, 1.7}, fitmodel::positive_rates);
  ASSERT_EQ(r.ret, 1);
  EXPECT_GE(r.relres, best_rel * (1.0 - 1e-4));  // cannot beat the optimum
  EXPECT_LE(r.relres, best_rel * 1.005);
  for (int k = 0; k < 2; k++) EXPECT_NEAR(r.p[k], best[k], 0.01 * best[k]);
  expect_consistent(mod, Y, r);
}

// All-zero data end at once with everything zero; a bound that rejects every
// trial keeps the start; no iterations still solve the linear part.
TEST(Decouple, FitsThatTakeNoStep) {
  const Model mod = exp_problem(20, 2);
  FitResult z = run_fit(mod, ref::zeros(20, 3), {0.5, 2.0}, fitmodel::accept_all);
  ASSERT_EQ(z.ret, 1);
  EXPECT_EQ(z.p, (Vec{0.5, 2.0}));
  EXPECT_TRUE(z.relres == 0 && z.rms == 0 && z.cond == 0 && norm(z.X) == 0 && norm(z.F) == 0);

  const Mat Xtrue = {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}};
  for (bool reject : {true, false}) {
    SCOPED_TRACE(reject ? "bound rejects every trial" : "no iterations");
    const Mat Y = make_data(mod, {0.5, 2.0}, Xtrue, reject ? 0.0 : 0.01, 3);
    const Vec p0 = {0.7, 1.5};
    FitResult r = run_fit(mod, Y, p0, reject ? fitmodel::reject_all : fitmodel::accept_all, Cov::none, reject ? 25 : 0);
    ASSERT_EQ(r.ret, 1);
    EXPECT_EQ(r.p, (Vec{0.7f, 1.5f}));  // unchanged, bit for bit
    EXPECT_TRUE(reject || r.cond == 0.0f) << r.cond;
    ASSERT_GT(relres(mod, p0, Y), 0.01);
    EXPECT_NEAR(r.relres, relres(mod, p0, Y), 1e-5);
    EXPECT_LE(h2::relative_error(r.X, lsq(mod.model_d(r.p), Y)), 1e-4);
    expect_consistent(mod, Y, r);
  }
}

// Block covariance: (M^T M)^-1 and the inverse normal matrix of the
// variable-projection Jacobian (both terms: the residual is not zero), the
// coupling entries untouched; full covariance: the inverse normal matrix of
// all parameters.  Without iterations both are built at the start; after a
// fit the block form reuses the factors of the last iteration, made a step
// before the end.
TEST(Decouple, Covariance) {
  const Model mod = exp_problem(20, 2);
  const Mat Y = make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}}, 0.01, 3);
  for (int maxiter : {0, 25}) {
    SCOPED_TRACE(testing::Message() << "maxiter " << maxiter);
    const Vec p0 = maxiter ? Vec{0.6, 2.6} : Vec{0.6, 1.8};
    const double tol = maxiter ? 0.05 : 2e-3;
    FitResult b = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::block, maxiter);
    FitResult f = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::full, maxiter);
    ASSERT_EQ(b.p, f.p);
    ASSERT_GT(b.cond, maxiter ? 1.0f : -0.1f);
    const Mat C = full_covariance(mod, f.p, f.X);
    expect_block(f.cov, 0, 0, C, tol, "full covariance");
    expect_block(b.cov, 0, 0, inverse(normal(mod.model_d(b.p))), 1e-4, "linear block");
    expect_block(b.cov, 2, 2, inverse(normal(vp_jacobian(mod, b.p, Y))), tol, "nonlinear block");
    for (int i = 0; i < 4; i++)
      for (int j = 0; j < 4; j++)
        EXPECT_TRUE((i < 2) == (j < 2) || b.cov[i][j] == SENTINEL) << i << "," << j;
  }
}

TEST(Decouple, WideModelMatrixFitsEveryColumnExactly) {
  // Three channels, four model columns: the missing singular value counts as
  // zero, and any data are fitted exactly by the minimum-norm solution.
  const Model mod = exp_problem(3, 4);
  const Mat Y = h2::random_matrix(3, 2, 19);
  const Vec p0 = {0.3, 1.0, 2.0, 4.0};
  FitResult r = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::block);
  ASSERT_EQ(r.ret, 1);
  EXPECT_LE(r.relres, 1e-4f);
  EXPECT_EQ(r.p, (Vec{0.3f, 1.0f, 2.0f, 4.0f}));  // nothing to improve
  const Mat M = mod.model_d(r.p);
  EXPECT_LE(h2::relative_error(r.X, ref::multiply(ref::transpose(M), solve_columns(ref::multiply(M, ref::transpose(M)), Y))),
            0.02);
  for (auto &row : r.cov)
    for (double x : row) EXPECT_FALSE(std::isnan(x));
  expect_consistent(mod, Y, r);
}

// Two parameters with exactly the same effect: the normal matrix is
// singular, the Householder solve takes the minimum-norm step (both move
// alike), the condition is encoded as -rank - 0.5 |R[k][k] / R[1][1]|, and
// the pair gets no covariance.
TEST(Decouple, ParametersWithTheSameEffectTurnToHouseholder) {
  fitmodel::set_times(20, 0.1);
  const Model mod = separable(20, 1, 2, fitmodel::sum_model, fitmodel::sum_deriv,
                              [](int i, int, const Vec &p) { return fitmodel::exp_entry(i, p[0] + p[1]); });
  FitResult r = run_fit(mod, make_data(mod, {0.7, 0.8}, {{1.0, -2.0}}), {0.5, 0.6}, fitmodel::accept_all, Cov::block);
  ASSERT_EQ(r.ret, 1);
  ASSERT_LT(r.cond, 0.0f);
  EXPECT_EQ((int)std::floor(-r.cond), 1);
  EXPECT_GE(2.0 / (-r.cond - 1), 1.0);
  EXPECT_NEAR(r.p[0] + r.p[1], 1.5, 0.01);
  EXPECT_NEAR(r.p[0] - r.p[1], -0.1, 1e-4);
  for (int i = 1; i <= 2; i++)
    for (int j = 1; j <= 2; j++) EXPECT_EQ(r.cov[i][j], 1e20f);
}

TEST(Decouple, OutOfMemory) {
  // A 40000-square normal matrix is refused by the allocator at once;
  // nothing is read before that, so tiny arrays do.
  h2::Arena ar;
  float **tiny = ar.mat(1, 1), *p = ar.vec(40000), relres, cond, rms;
  testing::internal::CaptureStderr();
  EXPECT_EQ(decouple(1, 1, 40000, 1, tiny, tiny, p, tiny, fitmodel::accept_all, &relres, fitmodel::exp_model,
                     fitmodel::exp_deriv, 25, 0.005f, &cond, 0, &rms, nullptr, 0, 0.001f),
            0);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("\n Sorry, out of memory in decouple\n\n\a\a"), std::string::npos) << err;

  // 32000 columns with one linear and one nonlinear parameter: the
  // 32001-square full covariance exceeds the per-matrix limit; the fit
  // itself is complete and the covariance is left as it was.
  const int L = 32000;
  fitmodel::set_times(1, 0.1);
  float **y = ar.mat(1, L), **f = ar.mat(1, L), **x = ar.mat(1, L), **cov = ar.mat(1, 1);
  for (int t = 1; t <= L; t++) y[1][t] = 1.0f + 0.001f * t;
  p[1] = 0.5f, cov[1][1] = SENTINEL;
  testing::internal::CaptureStdout();
  EXPECT_EQ(decouple(1, 1, 1, L, y, f, p, x, fitmodel::accept_all, &relres, fitmodel::exp_model, fitmodel::exp_deriv,
                     0, 0.005f, &cond, 0, &rms, cov, 1, 0.001f),
            1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Decomp: Sorry; not enough memory to compute true covariance matrix\n");
  EXPECT_EQ(cov[1][1], SENTINEL);
  EXPECT_NEAR(x[1][L] * std::exp(-0.05), y[1][L], 1e-5);
}

// ---- Reports and step control, each scenario in a fresh process.

ProcResult scenario(const std::string &name) {
  ProcResult r = run_process(probe("probe_decouple"), {name}, "", "", 60);
  EXPECT_EQ(r.status, 0) << name << "\n" << r.out << r.err;
  return r;
}

int count(const std::string &text, const std::string &what) {
  int n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) n++;
  return n;
}

// Value after "name=" on the n-th RESULT line.
double result_value(const std::string &out, int nth, const std::string &name) {
  size_t pos = std::string::npos;
  for (int i = 0; i <= nth; i++)
    if ((pos = out.find("RESULT", pos + 1)) == std::string::npos) return NAN;
  const size_t at = out.find(" " + name + "=", pos);
  return at == std::string::npos ? NAN : std::strtod(out.c_str() + at + name.size() + 2, nullptr);
}

const char *const BOUND = "      Parameters out of bound; step decreased. New value: ";
const char *const NOIMPROVE = "      No improvement; step decreased.          New value: ";
const char *const GRADIENT = "      No improvement; more gradient.          New weight: ";
const char *const NOCHANGE = "      Lack of change; step increased.          New value: 2.000000\n";
const char *const RANK1 = "Decouple: A not full ranked; 1 instead of 2\n";

// How often each text appears in a scenario's output (-1: at least once).
TEST(DecoupleReports, MessagesAndTheirExplanations) {
  struct Case {
    const char *scenario;
    std::vector<std::pair<std::string, int>> texts;
  };
  const Case cases[] = {
      // Two fits with identical columns, one full-rank fit, one more with
      // identical columns: the deficiency is reported once per change.
      {"rank", {{RANK1, 2}, {"Dat fit as 'n beer!", 4}}},
      // 1/2^34 is the first step length below 1e-10: 34 halvings per fit,
      // the explanation once per run.
      {"bound",
       {{BOUND, 68},
        {std::string(BOUND) + "0.500000\n"
                              "    (The proposed step would yield parameters out of the acceptable range;\n"
                              "     the size of the step is reduced to prevent this.)\n" +
             BOUND + "0.250000\n",
         1},
        {"(The proposed step would yield", 1},
        {"Dat fit", 0},
        {"At step 1 ", 0}}},
      // Switched to Householder once; the flag stays for the rest of the call.
      {"hfti",
       {{"Condition too bad (", 1},
        {"); turned to HFTI\nHFTI: rank = 1, condition = ", 1},
        {"LU: condition", 0},
        {"Condition of inverse covariance matrix too bad: ", -1},
        {"\nCovariance matrix set to arbitrary, large values\n", -1}}},
      // No step: the parameters do not change, so the step grows once and the
      // unchanged trial (an equal residual is accepted) ends the fit.
      {"hfti0",
       {{"HFTI: rank = 0, condition = inf\n", 1},
        {std::string(NOCHANGE) +
             "    (The proposed step would not change the parameters significantly\n"
             "     (i.e. more than 0.01 %); the step size is increased.)\n",
         1},
        {"No improvement", 0}}},
      // Per fit: four halvings, then the gradient weight grows fourfold 24
      // times until it exceeds 1e10.  The first trial of each iteration moved
      // the parameters, which is remembered for the whole iteration.
      {"nantrial",
       {{NOIMPROVE, 56},
        {GRADIENT, 48},
        {std::string(NOIMPROVE) + "0.062500\n" + NOIMPROVE + "1.000000\n" + GRADIENT + "0.000400\n", 2},
        {"    (The proposed step would increase instead of decrease the residual error;\n"
         "     the step size is decreased.)\n",
         1},
        {"    (The pseudo Newton method does not succeed in decreasing the residual error;\n"
         "     the relative weight of the gradient method is increased.)\n",
         1},
        {"RESULT ret=1 ", 2},
        {"Lack of change", 0}}},
      {"nandata", {{"At step ", 1}, {"RESULT ret=1 ", 1}}},
  };
  for (const Case &c : cases) {
    ProcResult r = scenario(c.scenario);
    for (const auto &[text, n] : c.texts) {
      if (n < 0) {
        EXPECT_GE(count(r.out, text), 1) << c.scenario << ": " << text << "\n" << r.out;
      } else {
        EXPECT_EQ(count(r.out, text), n) << c.scenario << ": " << text << "\n" << r.out;
      }
    }
    if (!strcmp(c.scenario, "rank")) {
      EXPECT_EQ(r.out.find(RANK1), 0u);
      EXPECT_NE(r.out.find(RANK1, r.out.find("RESULT", r.out.find("RESULT", r.out.find("RESULT") + 1) + 1)),
                std::string::npos);
    }
  }
}

TEST(DecoupleReports, ResultsOfTheScenarios) {
  EXPECT_EQ(scenario("zero").out,
            "Decouple: RMS of measurement zero; residual connot be scaled properly.\n"
            "At step 0 the relative residual is 0.000\n"
            "Dat fit as 'n beer! 0.000000\n"
            "RESULT ret=1 relres=0 cond=0 p= 0.5 2\n");

  // A model that does not depend on its parameters: rank 0, no step.
  ProcResult hfti0 = scenario("hfti0");
  EXPECT_EQ(result_value(hfti0.out, 0, "cond"), -0.5);
  EXPECT_NE(hfti0.out.find("p= 0.5 0.6\n"), std::string::npos) << hfti0.out;

  ProcResult nanmodel = scenario("nanmodel");
  EXPECT_EQ(count(nanmodel.out, "RESULT ret=1 "), 1) << nanmodel.out;
  EXPECT_LE(count(nanmodel.out, "At step "), 3);

  // A restart at the optimum stops on the second pass.
  ProcResult again = scenario("nochange");
  const std::string second = again.out.substr(again.out.find("RESULT"));
  EXPECT_NE(second.find("At step 1 "), std::string::npos) << again.out;
  EXPECT_EQ(second.find("At step 2 "), std::string::npos) << again.out;
  EXPECT_NE(second.find(NOCHANGE), std::string::npos);
  EXPECT_NEAR(result_value(again.out, 1, "relres"), result_value(again.out, 0, "relres"), 1e-6);
}

}  // namespace
