// Separable least squares on synthetic problems with known answers: sums of
// exponentials with unknown rates and current dipoles with unknown positions.
// The models' derivatives are checked against finite differences; the
// building blocks (pseudo-rank, residual, pseudo-inverse, Jacobian) against
// double-precision references; the fits against the truth and against a
// double-precision optimum; the covariance against the inverse of the
// Jacobian normal matrix; and the step control (bounds, rank deficiency,
// Householder fallback, NaN data, reports) through a probe in a fresh
// process, because the fitter remembers what it already reported.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "numeric/decouple.h"
#include "numeric/nrutils.h"
#include "tests/support/dense_reference.h"
#include "tests/support/fit_models.h"
#include "tests/support/process.h"

namespace {

using ModelD = std::function<ref::Mat(const ref::Vec &)>;

// A separable model: its callbacks, the same model in double, and sizes.
struct Model {
  int m, n, q;
  DecoupleModel model;
  DecoupleDeriv deriv;
  ModelD model_d;
};

Model exp_problem(int m, int n) {
  fitmodel::set_times(m, 0.1);
  return {m, n, n, fitmodel::exp_model, fitmodel::exp_deriv, [m, n](const ref::Vec &p) {
            ref::Mat M = ref::zeros(m, n);
            for (int i = 0; i < m; i++)
              for (int j = 0; j < n; j++) M[i][j] = fitmodel::exp_entry(i + 1, p[j]);
            return M;
          }};
}

Model dipole_problem(int m, int ndip) {
  fitmodel::set_sensors(m);
  const int n = 3 * ndip;
  return {m, n, n, fitmodel::dipole_model, fitmodel::dipole_deriv, [m, n](const ref::Vec &p) {
            ref::Mat M = ref::zeros(m, n);
            for (int s = 0; s < n / 3; s++)
              for (int i = 0; i < m; i++)
                for (int c = 0; c < 3; c++) M[i][3 * s + c] = fitmodel::dipole_entry(i + 1, c, &p[3 * s]);
            return M;
          }};
}

// ---- Double-precision references.

ref::Mat solve_columns(const ref::Mat &a, const ref::Mat &b) {  // a^-1 b, a square
  ref::Mat x = ref::zeros((int)a.size(), (int)b[0].size());
  for (size_t t = 0; t < b[0].size(); t++) {
    ref::Vec col(b.size());
    for (size_t i = 0; i < b.size(); i++) col[i] = b[i][t];
    ref::Vec s = ref::solve(a, col);
    for (size_t i = 0; i < a.size(); i++) x[i][t] = s[i];
  }
  return x;
}

ref::Mat inverse(const ref::Mat &a) {
  ref::Mat eye = ref::zeros((int)a.size(), (int)a.size());
  for (size_t i = 0; i < a.size(); i++) eye[i][i] = 1.0;
  return solve_columns(a, eye);
}

// Least-squares linear parameters for the model matrix M.
ref::Mat lsq(const ref::Mat &M, const ref::Mat &Y) {
  ref::Mat Mt = ref::transpose(M);
  return solve_columns(ref::multiply(Mt, M), ref::multiply(Mt, Y));
}

// Stacked residual Y - M (M^+ Y), column after column.
ref::Vec residual(const Model &mod, const ref::Vec &p, const ref::Mat &Y) {
  ref::Mat M = mod.model_d(p);
  ref::Mat F = ref::multiply(M, lsq(M, Y));
  ref::Vec r;
  for (size_t t = 0; t < Y[0].size(); t++)
    for (size_t i = 0; i < Y.size(); i++) r.push_back(Y[i][t] - F[i][t]);
  return r;
}

double norm(const ref::Vec &v) {
  double s = 0.0;
  for (double x : v) s += x * x;
  return std::sqrt(s);
}

double frob(const ref::Mat &a) {
  double s = 0.0;
  for (auto &row : a)
    for (double x : row) s += x * x;
  return std::sqrt(s);
}

// Negative derivative of the stacked residual by central differences.
ref::Mat vp_jacobian(const Model &mod, const ref::Vec &p, const ref::Mat &Y) {
  const int rows = (int)(Y.size() * Y[0].size());
  ref::Mat J = ref::zeros(rows, mod.q);
  for (int k = 0; k < mod.q; k++) {
    const double h = 1e-6 * std::max(1.0, std::fabs(p[k]));
    ref::Vec pp = p, pm = p;
    pp[k] += h;
    pm[k] -= h;
    ref::Vec rp = residual(mod, pp, Y), rm = residual(mod, pm, Y);
    for (int row = 0; row < rows; row++) J[row][k] = -(rp[row] - rm[row]) / (2 * h);
  }
  return J;
}

// Derivative of the model matrix along p[k] by central differences.
ref::Mat model_derivative(const Model &mod, const ref::Vec &p, int k) {
  const double h = 1e-6 * std::max(1.0, std::fabs(p[k]));
  ref::Vec pp = p, pm = p;
  pp[k] += h;
  pm[k] -= h;
  ref::Mat a = mod.model_d(pp), b = mod.model_d(pm);
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < a[0].size(); j++) a[i][j] = (a[i][j] - b[i][j]) / (2 * h);
  return a;
}

// Normal matrix of all parameters (linear ones of every column, then the
// nonlinear ones) of the fit M(p) X, and its inverse.
ref::Mat full_covariance(const Model &mod, const ref::Vec &p, const ref::Mat &X) {
  const int n = mod.n, q = mod.q, m = mod.m, L = (int)X[0].size(), N = n * L + q;
  ref::Mat M = mod.model_d(p);
  std::vector<ref::Mat> D;
  for (int k = 0; k < q; k++) D.push_back(model_derivative(mod, p, k));
  ref::Mat J = ref::zeros(m * L, N);
  for (int t = 0; t < L; t++)
    for (int i = 0; i < m; i++) {
      for (int j = 0; j < n; j++) J[t * m + i][t * n + j] = M[i][j];
      for (int k = 0; k < q; k++)
        for (int j = 0; j < n; j++) J[t * m + i][n * L + k] += D[k][i][j] * X[j][t];
    }
  return inverse(ref::multiply(ref::transpose(J), J));
}

// Damped Gauss-Newton on the stacked residual, in double: the optimum the
// single-precision fitter should approach.
ref::Vec reference_optimum(const Model &mod, ref::Vec p, const ref::Mat &Y) {
  double mu = 1e-6;
  double f = norm(residual(mod, p, Y));
  for (int it = 0; it < 200; it++) {
    ref::Mat J = vp_jacobian(mod, p, Y);
    ref::Vec r = residual(mod, p, Y);
    ref::Mat A = ref::multiply(ref::transpose(J), J);
    ref::Vec b = ref::multiply(ref::transpose(J), r);
    for (int k = 0; k < mod.q; k++) A[k][k] *= 1.0 + mu;
    ref::Vec step = ref::solve(A, b), trial = p;
    for (int k = 0; k < mod.q; k++) trial[k] += step[k];
    double ft = norm(residual(mod, trial, Y));
    if (ft < f) {
      p = trial;
      if (f - ft < 1e-15 * f) break;
      f = ft;
      mu *= 0.3;
    } else {
      mu *= 10.0;
      if (mu > 1e10) break;
    }
  }
  return p;
}

ref::Mat random_matrix(int m, int n, unsigned seed, double lo = -1.0, double hi = 1.0) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(lo, hi);
  ref::Mat a = ref::zeros(m, n);
  for (auto &row : a)
    for (double &x : row) x = u(gen);
  return a;
}

// Data M(p) X (+ noise), rounded to float as the fitter sees it.
ref::Mat make_data(const Model &mod, const ref::Vec &p, const ref::Mat &X, double noise = 0.0, unsigned seed = 7) {
  ref::Mat Y = ref::multiply(mod.model_d(p), X);
  ref::Mat e = random_matrix((int)Y.size(), (int)Y[0].size(), seed);
  for (size_t i = 0; i < Y.size(); i++)
    for (size_t t = 0; t < Y[0].size(); t++) Y[i][t] = (float)(Y[i][t] + noise * e[i][t]);
  return Y;
}

// ---- Running the fitter.

struct FitResult {
  int ret;
  float relres, cond, rms;
  ref::Vec p;
  ref::Mat X, F, cov;
};

enum class Cov { none, block, full };

FitResult run_fit(const Model &mod, const ref::Mat &Y, const ref::Vec &p0, DecoupleBound bound,
                  Cov covmode = Cov::none, int maxiter = 25, float tol = 0.005f) {
  const int m = mod.m, n = mod.n, q = mod.q, L = (int)Y[0].size();
  const int N = covmode == Cov::full ? n * L + q : n + q;
  float **y = matrix(1, m, 1, L), **f = matrix(1, m, 1, L), **x = matrix(1, n, 1, L);
  float **c = matrix(1, N, 1, N), *p = vector(1, q);
  for (int i = 1; i <= m; i++)
    for (int t = 1; t <= L; t++) y[i][t] = (float)Y[i - 1][t - 1];
  for (int k = 1; k <= q; k++) p[k] = (float)p0[k - 1];
  FitResult r;
  r.relres = r.cond = r.rms = -7.0f;
  r.ret = decouple(m, n, q, L, y, f, p, x, bound, &r.relres, mod.model, mod.deriv, maxiter, tol, &r.cond, 0,
                   &r.rms, covmode == Cov::none ? nullptr : c, covmode == Cov::full, 0.001f);
  for (int k = 1; k <= q; k++) r.p.push_back(p[k]);
  r.X = ref::zeros(n, L);
  r.F = ref::zeros(m, L);
  r.cov = ref::zeros(N, N);
  for (int t = 1; t <= L; t++) {
    for (int j = 1; j <= n; j++) r.X[j - 1][t - 1] = x[j][t];
    for (int i = 1; i <= m; i++) r.F[i - 1][t - 1] = f[i][t];
  }
  for (int i = 1; i <= N; i++)
    for (int j = 1; j <= N; j++) r.cov[i - 1][j - 1] = c[i][j];
  free_matrix(y, 1, m, 1, L);
  free_matrix(f, 1, m, 1, L);
  free_matrix(x, 1, n, 1, L);
  free_matrix(c, 1, N, 1, N);
  free_vector(p, 1, q);
  return r;
}

// The outputs belong together: F = M(p) X and the residual figures are
// those of Y - F.
void expect_consistent(const Model &mod, const ref::Mat &Y, const FitResult &r) {
  ref::Mat F = ref::multiply(mod.model_d(r.p), r.X);
  const double ny = frob(Y);
  double d2 = 0.0, e2 = 0.0;
  for (size_t i = 0; i < Y.size(); i++)
    for (size_t t = 0; t < Y[0].size(); t++) {
      EXPECT_NEAR(r.F[i][t], F[i][t], 1e-5 * ny);
      d2 += (Y[i][t] - r.F[i][t]) * (Y[i][t] - r.F[i][t]);
      e2 += 1.0;
    }
  EXPECT_NEAR(r.relres, std::sqrt(d2) / ny, 1e-6 + 1e-5 * std::sqrt(d2) / ny);
  EXPECT_NEAR(r.rms, std::sqrt(d2 / e2), 1e-7 + 1e-5 * std::sqrt(d2 / e2));
}

void expect_matrix_near(const ref::Mat &got, const ref::Mat &want, int r0, int c0, double rel, const char *what) {
  double scale = 0.0;
  for (size_t i = 0; i < want.size(); i++)
    for (size_t j = 0; j < want[0].size(); j++) scale = std::max(scale, std::fabs(want[i][j]));
  for (size_t i = 0; i < want.size(); i++)
    for (size_t j = 0; j < want[0].size(); j++)
      EXPECT_NEAR(got[r0 + i][c0 + j], want[i][j], rel * scale) << what << " [" << i << "][" << j << "]";
}

ref::Mat block(const ref::Mat &a, int r0, int c0, int nr, int nc) {
  ref::Mat b = ref::zeros(nr, nc);
  for (int i = 0; i < nr; i++)
    for (int j = 0; j < nc; j++) b[i][j] = a[r0 + i][c0 + j];
  return b;
}

// ---- The synthetic models themselves.

TEST(FitModels, DerivativesMatchFiniteDifferencesOfTheModel) {
  struct Case {
    const char *name;
    int m, n, q;
    DecoupleModel model;
    DecoupleDeriv deriv;
    std::vector<float> p;
  };
  fitmodel::set_times(12, 0.1);
  fitmodel::set_sensors(16);
  const std::vector<Case> cases = {
      {"exponentials", 12, 3, 3, fitmodel::exp_model, fitmodel::exp_deriv, {0.4f, 1.3f, 2.9f}},
      {"twin columns", 12, 2, 1, fitmodel::twin_model, fitmodel::twin_deriv, {0.8f}},
      {"summed rates", 12, 1, 2, fitmodel::sum_model, fitmodel::sum_deriv, {0.7f, 0.9f}},
      {"constant", 12, 2, 2, fitmodel::constant_model, fitmodel::zero_deriv, {0.7f, 0.9f}},
      {"dipoles", 16, 6, 6, fitmodel::dipole_model, fitmodel::dipole_deriv, {0.2f, 0.1f, 0.3f, -0.3f, 0.25f, -0.1f}},
  };
  for (const Case &c : cases) {
    float ***D = matrix3d(1, c.q, 1, c.m, 1, c.n);
    float **Mp = matrix(1, c.m, 1, c.n), **Mm = matrix(1, c.m, 1, c.n), *p = vector(1, c.q);
    for (int k = 1; k <= c.q; k++) p[k] = c.p[k - 1];
    c.deriv(c.m, c.n, c.q, p, D);
    double biggest = 0.0;
    for (int k = 1; k <= c.q; k++) {
      const float h = 1e-3f;
      const float keep = p[k];
      p[k] = keep + h;
      c.model(c.m, c.n, c.q, p, Mp);
      p[k] = keep - h;
      c.model(c.m, c.n, c.q, p, Mm);
      p[k] = keep;
      const double step = ((double)keep + h) - ((double)keep - h);
      for (int i = 1; i <= c.m; i++)
        for (int j = 1; j <= c.n; j++) {
          const double fd = ((double)Mp[i][j] - Mm[i][j]) / step;
          biggest = std::max(biggest, std::fabs(fd));
          EXPECT_NEAR(D[k][i][j], fd, 2e-3 * (1.0 + std::fabs(fd))) << c.name << " k=" << k << " i=" << i << " j=" << j;
        }
    }
    // Only the constant model may have no derivative at all.
    if (c.deriv == fitmodel::zero_deriv)
      EXPECT_EQ(biggest, 0.0) << c.name;
    else
      EXPECT_GT(biggest, 0.1) << c.name;
    free_3dmatrix(D, 1, c.q, 1, c.m, 1, c.n);
    free_matrix(Mp, 1, c.m, 1, c.n);
    free_matrix(Mm, 1, c.m, 1, c.n);
    free_vector(p, 1, c.q);
  }
}

// ---- Building blocks.

TEST(PseudoRank, DropsSmallValuesAndInvertsTheRest) {
  float *w = vector(1, 4);
  const float vals[4] = {4.0f, 2.0f, 0.003f, 0.001f};
  for (int j = 1; j <= 4; j++) w[j] = vals[j - 1];
  EXPECT_EQ(get_nlpar1(w, 4, 0, 0.001f), 2);  // threshold 0.004
  EXPECT_FLOAT_EQ(w[1], 0.25f);
  EXPECT_FLOAT_EQ(w[2], 0.5f);
  EXPECT_EQ(w[3], 0.0f);
  EXPECT_EQ(w[4], 0.0f);

  // A zero tolerance keeps every value; exact zeros get the huge inverse.
  for (int j = 1; j <= 4; j++) w[j] = vals[j - 1];
  w[4] = 0.0f;
  EXPECT_EQ(get_nlpar1(w, 4, 0, 0.0f), 4);
  EXPECT_FLOAT_EQ(w[3], 1.0f / 0.003f);
  EXPECT_EQ(w[4], 1e20f);

  // All zero: rank 0.
  for (int j = 1; j <= 4; j++) w[j] = 0.0f;
  EXPECT_EQ(get_nlpar1(w, 4, 0, 0.001f), 0);
  free_vector(w, 1, 4);
}

TEST(PseudoRank, UnsortedValuesEndTheProgram) {
  float *w = vector(1, 3);
  w[1] = 1.0f;
  w[2] = 0.0f;
  w[3] = 1.0f;
  EXPECT_EXIT(
      {
        dup2(2, 1);  // the message goes to standard output
        get_nlpar1(w, 3, 0, 0.5f);
      },
      testing::ExitedWithCode(1), "Decouple: You should use a SVD that returns sorted singular values");
  free_vector(w, 1, 3);
}

// Residual, pseudo-inverse and Jacobian at one point, against double
// references; both association orders of the Jacobian are used (n < L and
// n >= L), on data far from the model so that the second term of the
// Jacobian matters.
TEST(BuildingBlocks, ResidualPseudoInverseAndJacobian) {
  struct Case {
    Model mod;
    ref::Vec p;
    int L;
  };
  std::vector<Case> cases;
  cases.push_back({exp_problem(15, 2), {0.6, 1.9}, 3});   // n < L
  cases.push_back({exp_problem(15, 2), {0.6, 1.9}, 2});   // n = L
  cases.push_back({exp_problem(15, 2), {0.6, 1.9}, 1});   // n > L
  cases.push_back({dipole_problem(20, 1), {0.1, -0.2, 0.3}, 5});
  cases.push_back({dipole_problem(20, 1), {0.1, -0.2, 0.3}, 2});
  for (size_t ci = 0; ci < cases.size(); ci++) {
    const Case &c = cases[ci];
    const Model &mod = c.mod;
    // Rebuild the model's global tables (each problem has its own).
    if (mod.model == fitmodel::exp_model) fitmodel::set_times(mod.m, 0.1);
    else fitmodel::set_sensors(mod.m);
    const int m = mod.m, n = mod.n, q = mod.q, L = c.L;
    ref::Mat Y = random_matrix(m, L, 100 + ci);
    for (auto &row : Y)
      for (double &x : row) x = (float)x;

    float **y = matrix(1, m, 1, L), *p = vector(1, q), *r = vector(1, m * L), **M = matrix(1, m, 1, n);
    float **U = matrix(1, m, 1, n), **V = matrix(1, n, 1, n), *w = vector(1, n), *a = vector(1, n);
    float **P = matrix(1, n, 1, m), ***D = matrix3d(1, q, 1, m, 1, n), **X = matrix(1, n, 1, L);
    float **Smn = matrix(1, m, 1, n), *sn = vector(1, n), *sm = vector(1, m), **Snn = matrix(1, n, 1, n);
    float **J = matrix(1, m * L, 1, q), **G = matrix(1, q, 1, q), *g = vector(1, q);
    for (int i = 1; i <= m; i++)
      for (int t = 1; t <= L; t++) y[i][t] = (float)Y[i - 1][t - 1];
    for (int k = 1; k <= q; k++) p[k] = (float)c.p[k - 1];
    ref::Vec pf(c.p.begin(), c.p.end());
    for (int k = 0; k < q; k++) pf[k] = p[k + 1];

    int rank = -1;
    float res = get_res(m, n, q, L, y, p, r, M, U, V, w, a, &rank, 0, mod.model, 0.001f);
    EXPECT_EQ(rank, n);
    ref::Vec rref = residual(mod, pf, Y);
    EXPECT_NEAR(res, norm(rref), 1e-5 * norm(ref::Vec(Y.size() * L, 1.0)));
    for (int row = 0; row < m * L; row++) EXPECT_NEAR(r[row + 1], rref[row], 2e-5) << "case " << ci;
    EXPECT_GT(norm(rref), 0.3 * frob(Y)) << "the data should be far from the model";

    get_QR(m, n, rank, U, V, w, P);
    ref::Mat Md = mod.model_d(pf);
    ref::Mat Pref = solve_columns(ref::multiply(ref::transpose(Md), Md), ref::transpose(Md));
    double pscale = 0.0;
    for (auto &row : Pref)
      for (double x : row) pscale = std::max(pscale, std::fabs(x));
    for (int j = 1; j <= n; j++)
      for (int i = 1; i <= m; i++) EXPECT_NEAR(P[j][i], Pref[j - 1][i - 1], 1e-4 * pscale) << "case " << ci;

    get_gtg(m, n, q, L, rank, y, p, r, U, D, P, X, Smn, sn, sm, Snn, J, G, g, mod.deriv);
    ref::Mat Jref = vp_jacobian(mod, pf, Y);
    double jscale = 0.0;
    for (auto &row : Jref)
      for (double x : row) jscale = std::max(jscale, std::fabs(x));
    // The first term alone (projected derivative times the linear solution)
    // must differ clearly from the whole, or the test would not see a
    // missing second term.
    ref::Mat Xd = lsq(Md, Y);
    ref::Mat Uproj = ref::multiply(Md, solve_columns(ref::multiply(ref::transpose(Md), Md), ref::transpose(Md)));
    double second = 0.0;
    for (int k = 0; k < q; k++) {
      ref::Mat Dk = model_derivative(mod, pf, k);
      ref::Mat DX = ref::multiply(Dk, Xd), PDX = ref::multiply(Uproj, DX);
      for (int t = 0; t < L; t++)
        for (int i = 0; i < m; i++) {
          const double first = DX[i][t] - PDX[i][t];
          second = std::max(second, std::fabs(Jref[t * m + i][k] - first));
        }
    }
    EXPECT_GT(second, 0.05 * jscale) << "case " << ci;
    for (int row = 0; row < m * L; row++)
      for (int k = 0; k < q; k++) EXPECT_NEAR(J[row + 1][k + 1], Jref[row][k], 2e-4 * jscale) << "case " << ci;
    // Normal matrix and gradient from the returned Jacobian.
    for (int i = 1; i <= q; i++) {
      double gi = 0.0;
      for (int row = 1; row <= m * L; row++) gi += (double)r[row] * J[row][i];
      EXPECT_NEAR(g[i], gi, 1e-4 * (1.0 + std::fabs(gi)));
      for (int j = 1; j <= q; j++) {
        double s = 0.0;
        for (int row = 1; row <= m * L; row++) s += (double)J[row][i] * J[row][j];
        EXPECT_NEAR(G[i][j], s, 1e-4 * (1.0 + std::fabs(s)));
      }
    }
    // The linear solutions it used.
    for (int j = 1; j <= n; j++)
      for (int t = 1; t <= L; t++) EXPECT_NEAR(X[j][t], Xd[j - 1][t - 1], 1e-4 * (1.0 + std::fabs(Xd[j - 1][t - 1])));

    free_matrix(y, 1, m, 1, L);
    free_vector(p, 1, q);
    free_vector(r, 1, m * L);
    free_matrix(M, 1, m, 1, n);
    free_matrix(U, 1, m, 1, n);
    free_matrix(V, 1, n, 1, n);
    free_vector(w, 1, n);
    free_vector(a, 1, n);
    free_matrix(P, 1, n, 1, m);
    free_3dmatrix(D, 1, q, 1, m, 1, n);
    free_matrix(X, 1, n, 1, L);
    free_matrix(Smn, 1, m, 1, n);
    free_vector(sn, 1, n);
    free_vector(sm, 1, m);
    free_matrix(Snn, 1, n, 1, n);
    free_matrix(J, 1, m * L, 1, q);
    free_matrix(G, 1, q, 1, q);
    free_vector(g, 1, q);
  }
}

// ---- Fits.

TEST(Decouple, ExponentialRatesFromAPerturbedStart) {
  Model mod = exp_problem(30, 2);
  const ref::Vec truth = {0.5, 2.0};
  ref::Mat Xtrue = {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}};  // n = 2 < L = 3
  ref::Mat Y = make_data(mod, truth, Xtrue);
  FitResult r = run_fit(mod, Y, {0.7, 1.5}, fitmodel::positive_rates);
  ASSERT_EQ(r.ret, 1);
  EXPECT_LE(r.relres, 0.001f);
  EXPECT_GE(r.cond, 1.0f);  // solved by LU
  for (int k = 0; k < 2; k++) EXPECT_NEAR(r.p[k], truth[k], 0.02 * truth[k]);
  for (int j = 0; j < 2; j++)
    for (int t = 0; t < 3; t++) EXPECT_NEAR(r.X[j][t], Xtrue[j][t], 0.03);
  expect_consistent(mod, Y, r);
}

TEST(Decouple, DipolePositionsFromAPerturbedStart) {
  // Two dipoles, four samples: n = 6 >= L.
  Model two = dipole_problem(40, 2);
  const ref::Vec truth = {0.2, 0.1, 0.3, -0.3, 0.25, -0.1};
  ref::Mat X2 = random_matrix(6, 4, 5);
  ref::Mat Y2 = make_data(two, truth, X2);
  ref::Vec start = truth;
  const double offs[6] = {0.06, -0.05, 0.04, -0.04, 0.06, 0.05};
  for (int k = 0; k < 6; k++) start[k] += offs[k];
  FitResult r2 = run_fit(two, Y2, start, fitmodel::inside_sphere);
  ASSERT_EQ(r2.ret, 1);
  EXPECT_LE(r2.relres, 0.001f);
  for (int k = 0; k < 6; k++) EXPECT_NEAR(r2.p[k], truth[k], 0.01) << k;
  expect_consistent(two, Y2, r2);

  // One dipole, five samples: n = 3 < L.
  Model one = dipole_problem(30, 1);
  const ref::Vec truth1 = {-0.1, 0.35, 0.2};
  ref::Mat X1 = random_matrix(3, 5, 6);
  ref::Mat Y1 = make_data(one, truth1, X1);
  FitResult r1 = run_fit(one, Y1, {0.0, 0.3, 0.1}, fitmodel::inside_sphere);
  ASSERT_EQ(r1.ret, 1);
  EXPECT_LE(r1.relres, 0.001f);
  for (int k = 0; k < 3; k++) EXPECT_NEAR(r1.p[k], truth1[k], 0.01) << k;
  for (int j = 0; j < 3; j++)
    for (int t = 0; t < 5; t++) EXPECT_NEAR(r1.X[j][t], X1[j][t], 0.02 * (1.0 + std::fabs(X1[j][t])));
  expect_consistent(one, Y1, r1);
}

TEST(Decouple, NoisyDataReachTheDoublePrecisionOptimum) {
  Model mod = exp_problem(25, 2);
  const ref::Vec truth = {0.5, 2.0};
  ref::Mat Xtrue = {{1.0, -0.5, 2.0, 0.3}, {0.7, 1.5, -1.0, 0.8}};
  ref::Mat Y = make_data(mod, truth, Xtrue, 0.02, 9);
  ref::Vec best = reference_optimum(mod, truth, Y);
  const double best_rel = norm(residual(mod, best, Y)) / frob(Y);
  ASSERT_GT(best_rel, 0.002);  // the noise keeps the fit above the "perfect" level

  FitResult r = run_fit(mod, Y, {0.6, 1.7}, fitmodel::positive_rates);
  ASSERT_EQ(r.ret, 1);
  EXPECT_GE(r.relres, best_rel * (1.0 - 1e-4));  // cannot beat the optimum
  EXPECT_LE(r.relres, best_rel * 1.005);
  for (int k = 0; k < 2; k++) EXPECT_NEAR(r.p[k], best[k], 0.01 * best[k]);
  expect_consistent(mod, Y, r);
}

TEST(Decouple, AllZeroDataEndAtOnce) {
  Model mod = exp_problem(20, 2);
  ref::Mat Y = ref::zeros(20, 3);
  FitResult r = run_fit(mod, Y, {0.5, 2.0}, fitmodel::accept_all);
  ASSERT_EQ(r.ret, 1);
  EXPECT_EQ(r.p, (ref::Vec{0.5, 2.0}));
  EXPECT_EQ(r.relres, 0.0f);
  EXPECT_EQ(r.rms, 0.0f);
  EXPECT_EQ(r.cond, 0.0f);  // no system was solved
  EXPECT_EQ(frob(r.X), 0.0);
  EXPECT_EQ(frob(r.F), 0.0);
}

TEST(Decouple, ZeroIterationsStillSolveTheLinearPartAndCovariance) {
  Model mod = exp_problem(20, 2);
  ref::Mat Xtrue = {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}};
  ref::Mat Y = make_data(mod, {0.5, 2.0}, Xtrue, 0.01, 3);
  const ref::Vec p0 = {0.6, 1.8};
  FitResult r = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::block, 0);
  ASSERT_EQ(r.ret, 1);
  EXPECT_EQ(r.p, (ref::Vec{0.6f, 1.8f}));  // unchanged, bit for bit
  EXPECT_EQ(r.cond, 0.0f);
  ref::Mat Xref = lsq(mod.model_d(r.p), Y);
  for (int j = 0; j < 2; j++)
    for (int t = 0; t < 3; t++) EXPECT_NEAR(r.X[j][t], Xref[j][t], 1e-4 * (1.0 + std::fabs(Xref[j][t])));
  expect_consistent(mod, Y, r);
  EXPECT_NEAR(r.relres, norm(residual(mod, r.p, Y)) / frob(Y), 1e-5);

  // Block covariance, rebuilt at p: (M^T M)^-1 and the inverse normal
  // matrix of the variable-projection Jacobian (both terms, the residual is
  // not zero here).
  ref::Mat M = mod.model_d(r.p);
  expect_matrix_near(r.cov, inverse(ref::multiply(ref::transpose(M), M)), 0, 0, 1e-4, "linear block");
  ref::Mat J = vp_jacobian(mod, r.p, Y);
  expect_matrix_near(r.cov, inverse(ref::multiply(ref::transpose(J), J)), 2, 2, 2e-3, "nonlinear block");
  // The coupling entries are left alone.
  EXPECT_EQ(r.cov[0][2], 0.0);
  EXPECT_EQ(r.cov[3][1], 0.0);

  // Full covariance at p (the derivatives are evaluated there).
  FitResult f = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::full, 0);
  ref::Mat C = full_covariance(mod, f.p, f.X);
  expect_matrix_near(f.cov, C, 0, 0, 2e-3, "full covariance");
}

TEST(Decouple, CovarianceAtTheTruthAndAfterAFit) {
  Model mod = exp_problem(24, 2);
  const ref::Vec truth = {0.5, 3.0};
  ref::Mat Xtrue = {{1.0, 2.0}, {1.5, -1.0}};
  ref::Mat Y = make_data(mod, truth, Xtrue);

  // At the truth with exact data the residual is zero, so the nonlinear
  // block of the block form (inverse of the projected normal matrix) equals
  // the nonlinear block of the full inverse (a Schur complement).
  FitResult b = run_fit(mod, Y, truth, fitmodel::accept_all, Cov::block, 0);
  FitResult f = run_fit(mod, Y, truth, fitmodel::accept_all, Cov::full, 0);
  ref::Mat C = full_covariance(mod, f.p, f.X);
  expect_matrix_near(f.cov, C, 0, 0, 2e-3, "full covariance");
  ref::Mat M = mod.model_d(b.p);
  expect_matrix_near(b.cov, inverse(ref::multiply(ref::transpose(M), M)), 0, 0, 1e-4, "linear block");
  expect_matrix_near(b.cov, block(C, 4, 4, 2, 2), 2, 2, 2e-3, "nonlinear block");

  // After iterating from a perturbed start the block form reuses the
  // factors of the last iteration, made a step before the end.
  FitResult bi = run_fit(mod, Y, {0.6, 2.6}, fitmodel::accept_all, Cov::block);
  FitResult fi = run_fit(mod, Y, {0.6, 2.6}, fitmodel::accept_all, Cov::full);
  ASSERT_GT(bi.cond, 0.0f);
  ref::Mat Ci = full_covariance(mod, fi.p, fi.X);
  expect_matrix_near(fi.cov, Ci, 0, 0, 0.05, "full covariance after a fit");
  expect_matrix_near(bi.cov, block(Ci, 4, 4, 2, 2), 2, 2, 0.05, "nonlinear block after a fit");
}

TEST(Decouple, BoundRejectingEveryTrialKeepsTheStart) {
  Model mod = exp_problem(20, 2);
  ref::Mat Y = make_data(mod, {0.5, 2.0}, {{1.0, -0.5, 2.0}, {0.7, 1.5, -1.0}});
  FitResult r = run_fit(mod, Y, {0.7, 1.5}, fitmodel::reject_all);
  ASSERT_EQ(r.ret, 1);
  EXPECT_EQ(r.p, (ref::Vec{0.7f, 1.5f}));
  const double start = norm(residual(mod, r.p, Y)) / frob(Y);
  EXPECT_GT(start, 0.01);
  EXPECT_NEAR(r.relres, start, 1e-5);
  expect_consistent(mod, Y, r);
}

TEST(Decouple, IdenticalColumnsGiveTheMinimumNormSolution) {
  fitmodel::set_times(20, 0.1);
  Model mod = {20, 2, 1, fitmodel::twin_model, fitmodel::twin_deriv, [](const ref::Vec &p) {
                 ref::Mat M = ref::zeros(20, 2);
                 for (int i = 0; i < 20; i++) M[i][0] = M[i][1] = fitmodel::exp_entry(i + 1, p[0]);
                 return M;
               }};
  ref::Mat Y = ref::zeros(20, 2);
  for (int i = 0; i < 20; i++) {
    Y[i][0] = (float)(3.0 * fitmodel::exp_entry(i + 1, 0.8));
    Y[i][1] = (float)(-1.0 * fitmodel::exp_entry(i + 1, 0.8));
  }
  FitResult r = run_fit(mod, Y, {1.0}, fitmodel::positive_rates);
  ASSERT_EQ(r.ret, 1);
  EXPECT_NEAR(r.p[0], 0.8, 0.01);
  EXPECT_LE(r.relres, 0.001f);
  for (int t = 0; t < 2; t++) EXPECT_NEAR(r.X[0][t], r.X[1][t], 1e-4);
  EXPECT_NEAR(r.X[0][0] + r.X[1][0], 3.0, 0.03);
  EXPECT_NEAR(r.X[0][1] + r.X[1][1], -1.0, 0.01);
}

TEST(Decouple, WideModelMatrixFitsEveryColumnExactly) {
  // Three channels, four model columns: rank at most 3, the missing
  // singular value counts as zero, and any data are fitted exactly.
  Model mod = exp_problem(3, 4);
  ref::Mat Y = random_matrix(3, 2, 19);
  for (auto &row : Y)
    for (double &x : row) x = (float)x;
  const ref::Vec p0 = {0.3, 1.0, 2.0, 4.0};
  FitResult r = run_fit(mod, Y, p0, fitmodel::accept_all, Cov::block);
  ASSERT_EQ(r.ret, 1);
  EXPECT_LE(r.relres, 1e-4f);
  for (int k = 0; k < 4; k++) EXPECT_EQ(r.p[k], (float)p0[k]);  // nothing to improve
  // Minimum-norm solution: M^T (M M^T)^-1 Y.
  ref::Mat M = mod.model_d(r.p);
  ref::Mat Xref = ref::multiply(ref::transpose(M), solve_columns(ref::multiply(M, ref::transpose(M)), Y));
  for (int j = 0; j < 4; j++)
    for (int t = 0; t < 2; t++) EXPECT_NEAR(r.X[j][t], Xref[j][t], 0.02 * (1.0 + std::fabs(Xref[j][t])));
  for (auto &row : r.cov)
    for (double x : row) EXPECT_FALSE(std::isnan(x));
  expect_consistent(mod, Y, r);
}

TEST(Decouple, ParametersWithTheSameEffectTurnToHouseholder) {
  fitmodel::set_times(20, 0.1);
  Model mod = {20, 1, 2, fitmodel::sum_model, fitmodel::sum_deriv, [](const ref::Vec &p) {
                 ref::Mat M = ref::zeros(20, 1);
                 for (int i = 0; i < 20; i++) M[i][0] = fitmodel::exp_entry(i + 1, p[0] + p[1]);
                 return M;
               }};
  ref::Mat Y = make_data(mod, {0.7, 0.8}, {{1.0, -2.0}});
  FitResult r = run_fit(mod, Y, {0.5, 0.6}, fitmodel::accept_all, Cov::block);
  ASSERT_EQ(r.ret, 1);
  ASSERT_LT(r.cond, 0.0f);
  const double v = -r.cond;
  const int rank = (int)std::floor(v);
  EXPECT_EQ(rank, 1);
  EXPECT_GE(2.0 / (v - rank), 1.0);  // the decoded condition
  EXPECT_NEAR(r.p[0] + r.p[1], 1.5, 0.01);
  // The minimum-norm step moves both parameters alike.
  EXPECT_NEAR(r.p[0] - r.p[1], -0.1, 1e-4);
  // The normal matrix is exactly singular: no covariance for the pair.
  for (int i = 1; i <= 2; i++)
    for (int j = 1; j <= 2; j++) EXPECT_EQ(r.cov[i][j], 1e20f);
}

TEST(Decouple, HouseholderRankZeroTakesNoStep) {
  fitmodel::set_times(20, 0.1);
  Model mod = {20, 2, 2, fitmodel::constant_model, fitmodel::zero_deriv, [](const ref::Vec &) {
                 ref::Mat M = ref::zeros(20, 2);
                 for (int i = 0; i < 20; i++)
                   for (int j = 0; j < 2; j++) M[i][j] = (float)std::cos(0.3 * (i + 1) + 0.7 * (j + 1));
                 return M;
               }};
  ref::Mat Y = random_matrix(20, 2, 17);
  FitResult r = run_fit(mod, Y, {0.5, 0.6}, fitmodel::accept_all);
  ASSERT_EQ(r.ret, 1);
  EXPECT_EQ(r.cond, -0.5f);
  EXPECT_EQ(r.p, (ref::Vec{0.5f, 0.6f}));
  for (double x : r.p) EXPECT_TRUE(std::isfinite(x));
  ref::Mat Xref = lsq(mod.model_d(r.p), Y);
  for (int j = 0; j < 2; j++)
    for (int t = 0; t < 2; t++) EXPECT_NEAR(r.X[j][t], Xref[j][t], 1e-4 * (1.0 + std::fabs(Xref[j][t])));
}

TEST(Decouple, OutOfMemory) {
  // A 40000 x 40000 normal matrix is refused by the allocator at once;
  // nothing is read before that.
  float **tiny = matrix(1, 1, 1, 1), *p = vector(1, 40000);
  float relres, cond, rms;
  testing::internal::CaptureStderr();
  int ret = decouple(1, 1, 40000, 1, tiny, tiny, p, tiny, fitmodel::accept_all, &relres, fitmodel::exp_model,
                     fitmodel::exp_deriv, 25, 0.005f, &cond, 0, &rms, nullptr, 0, 0.001f);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(ret, 0);
  EXPECT_NE(err.find("\n Sorry, out of memory in decouple\n\n\a\a"), std::string::npos) << err;
  free_matrix(tiny, 1, 1, 1, 1);
  free_vector(p, 1, 40000);
}

TEST(Decouple, FullCovarianceTooLargeLeavesItUntouched) {
  // 32000 columns with one linear and one nonlinear parameter: the
  // 32001-square covariance exceeds the per-matrix limit.
  const int m = 1, L = 32000;
  fitmodel::set_times(m, 0.1);
  float **y = matrix(1, m, 1, L), **f = matrix(1, m, 1, L), **x = matrix(1, 1, 1, L), *p = vector(1, 1);
  float **cov = matrix(1, 1, 1, 1);
  for (int t = 1; t <= L; t++) y[1][t] = 1.0f + 0.001f * t;
  p[1] = 0.5f;
  cov[1][1] = 42.0f;
  float relres, cond, rms;
  testing::internal::CaptureStdout();
  int ret = decouple(m, 1, 1, L, y, f, p, x, fitmodel::accept_all, &relres, fitmodel::exp_model, fitmodel::exp_deriv,
                     0, 0.005f, &cond, 0, &rms, cov, 1, 0.001f);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(ret, 1);
  EXPECT_EQ(out, "Decomp: Sorry; not enough memory to compute true covariance matrix\n");
  EXPECT_EQ(cov[1][1], 42.0f);
  // The fit itself is complete: X is the exact solution of each column.
  EXPECT_NEAR(x[1][L] * std::exp(-0.05), y[1][L], 1e-5);
  free_matrix(y, 1, m, 1, L);
  free_matrix(f, 1, m, 1, L);
  free_matrix(x, 1, 1, 1, L);
  free_vector(p, 1, 1);
  free_matrix(cov, 1, 1, 1, 1);
}

// ---- Reports and step control, each in a fresh process.

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
  size_t pos = 0;
  for (int i = 0; i <= nth; i++) {
    pos = out.find("RESULT", i == 0 ? 0 : pos + 1);
    if (pos == std::string::npos) return NAN;
  }
  size_t at = out.find(" " + name + "=", pos);
  return at == std::string::npos ? NAN : std::strtod(out.c_str() + at + name.size() + 2, nullptr);
}

TEST(DecoupleReports, AllZeroData) {
  ProcResult r = scenario("zero");
  EXPECT_EQ(r.out,
            "Decouple: RMS of measurement zero; residual connot be scaled properly.\n"
            "At step 0 the relative residual is 0.000\n"
            "Dat fit as 'n beer! 0.000000\n"
            "RESULT ret=1 relres=0 cond=0 p= 0.5 2\n");
}

TEST(DecoupleReports, RankDeficiencyReportedOncePerChange) {
  ProcResult r = scenario("rank");
  const std::string msg = "Decouple: A not full ranked; 1 instead of 2\n";
  // Two fits with the deficient model, one full-rank fit, one more deficient.
  EXPECT_EQ(count(r.out, msg), 2) << r.out;
  EXPECT_EQ(r.out.find(msg), 0u) << r.out;
  const size_t third = r.out.find("RESULT", r.out.find("RESULT", r.out.find("RESULT") + 1) + 1);
  EXPECT_NE(r.out.find(msg, third), std::string::npos) << r.out;
  EXPECT_EQ(count(r.out, "Dat fit as 'n beer!"), 4);
}

TEST(DecoupleReports, BoundHalvesTheStepUntilItIsNegligible) {
  ProcResult r = scenario("bound");
  // 1/2^34 is the first step length below 1e-10: 34 halvings per fit.
  EXPECT_EQ(count(r.out, "      Parameters out of bound; step decreased. New value: "), 68) << r.out;
  EXPECT_EQ(count(r.out, "      Parameters out of bound; step decreased. New value: 0.500000\n"
                         "    (The proposed step would yield parameters out of the acceptable range;\n"
                         "     the size of the step is reduced to prevent this.)\n"
                         "      Parameters out of bound; step decreased. New value: 0.250000\n"),
            1)
      << r.out;
  EXPECT_EQ(count(r.out, "(The proposed step would yield"), 1);
  EXPECT_EQ(count(r.out, "Dat fit"), 0);
  EXPECT_EQ(count(r.out, "At step 1 "), 0);
  EXPECT_NEAR(result_value(r.out, 0, "relres"), result_value(r.out, 1, "relres"), 0.0);
  EXPECT_GT(result_value(r.out, 0, "relres"), 0.01);
}

TEST(DecoupleReports, HouseholderPath) {
  ProcResult r = scenario("hfti");
  EXPECT_NE(r.out.find("Condition too bad ("), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("); turned to HFTI\nHFTI: rank = 1, condition = "), std::string::npos) << r.out;
  // Switched once; the flag stays for the rest of the call.
  EXPECT_EQ(count(r.out, "turned to HFTI"), 1);
  EXPECT_EQ(count(r.out, "LU: condition"), 0);
  EXPECT_NE(r.out.find("Condition of inverse covariance matrix too bad: "), std::string::npos);
  EXPECT_NE(r.out.find("\nCovariance matrix set to arbitrary, large values\n"), std::string::npos);
  const double cond = result_value(r.out, 0, "cond");
  EXPECT_LT(cond, 0.0);
  EXPECT_EQ((int)std::floor(-cond), 1);
}

TEST(DecoupleReports, HouseholderRankZero) {
  ProcResult r = scenario("hfti0");
  EXPECT_NE(r.out.find("HFTI: rank = 0, condition = inf\n"), std::string::npos) << r.out;
  // No step: the parameters do not change, so the step grows once and the
  // unchanged trial ends the fit.
  EXPECT_NE(r.out.find("      Lack of change; step increased.          New value: 2.000000\n"
                       "    (The proposed step would not change the parameters significantly\n"
                       "     (i.e. more than 0.01 %); the step size is increased.)\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("At step 1 the relative residual is 0.922\nRESULT"), std::string::npos) << r.out;
  EXPECT_EQ(count(r.out, "No improvement"), 0);  // an equal residual is accepted
  EXPECT_EQ(result_value(r.out, 0, "cond"), -0.5);
  EXPECT_EQ(r.out.substr(r.out.find("RESULT")), "RESULT ret=1 relres=0.922475 cond=-0.5 p= 0.5 0.6\n");
}

TEST(DecoupleReports, EndlessRejectionsEndWhenTheGradientWeightIsHuge) {
  ProcResult r = scenario("nantrial");
  // Per fit: four halvings, then the gradient weight grows fourfold 24 times
  // until it exceeds 1e10.
  EXPECT_EQ(count(r.out, "      No improvement; step decreased.          New value: "), 56) << r.out;
  EXPECT_EQ(count(r.out, "      No improvement; more gradient.          New weight: "), 48);
  EXPECT_EQ(count(r.out, "      No improvement; step decreased.          New value: 0.062500\n"
                         "      No improvement; step decreased.          New value: 1.000000\n"
                         "      No improvement; more gradient.          New weight: 0.000400\n"),
            2);
  EXPECT_EQ(count(r.out, "    (The proposed step would increase instead of decrease the residual error;\n"
                         "     the step size is decreased.)\n"),
            1);
  EXPECT_EQ(count(r.out, "    (The pseudo Newton method does not succeed in decreasing the residual error;\n"
                         "     the relative weight of the gradient method is increased.)\n"),
            1);
  EXPECT_EQ(count(r.out, "RESULT ret=1 "), 2);
  // Late trials barely move the parameters, but the first trial of the
  // iteration did: the change is remembered for the whole iteration.
  EXPECT_EQ(count(r.out, "Lack of change"), 0);
}

TEST(DecoupleReports, NaNDataOrModelEnd) {
  ProcResult d = scenario("nandata");
  EXPECT_EQ(count(d.out, "At step "), 1) << d.out;
  EXPECT_EQ(count(d.out, "RESULT ret=1 "), 1);
  ProcResult m = scenario("nanmodel");
  EXPECT_EQ(count(m.out, "RESULT ret=1 "), 1) << m.out;
  EXPECT_LE(count(m.out, "At step "), 3);
}

TEST(DecoupleReports, RestartAtTheOptimumStopsOnTheSecondPass) {
  ProcResult r = scenario("nochange");
  const std::string second = r.out.substr(r.out.find("RESULT"));
  EXPECT_NE(second.find("At step 0 "), std::string::npos) << r.out;
  EXPECT_NE(second.find("At step 1 "), std::string::npos) << r.out;
  EXPECT_EQ(second.find("At step 2 "), std::string::npos) << r.out;
  EXPECT_NE(second.find("      Lack of change; step increased.          New value: 2.000000\n"), std::string::npos);
  EXPECT_NEAR(result_value(r.out, 1, "relres"), result_value(r.out, 0, "relres"), 1e-6);
}

}  // namespace
