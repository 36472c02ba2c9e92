// Runs the separable least-squares fitter with progress reports on, on one of
// a set of synthetic problems, in a fresh process (the fitter remembers for
// the whole run which explanations and rank changes it already reported).
// Usage: probe_decouple <scenario>
//   zero       all-zero data
//   rank       identical model columns twice, a full-rank model, then
//              identical columns again
//   bound      a bound test that rejects every trial, run twice
//   hfti       two parameters with exactly the same effect
//   hfti0      a model that does not depend on its parameters
//   nantrial   a model that gives NaN for every trial after the start, run
//              twice
//   nandata    data containing a NaN
//   nanmodel   a model that is NaN everywhere
//   nochange   a fit restarted at its own converged point
// After each fit one line "RESULT ret=<r> relres=<x> cond=<c> p=<p1> ..." is
// printed.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "numeric/decouple.h"
#include "numeric/nrutils.h"
#include "tests/support/fit_models.h"

namespace {

int model_calls = 0;

// The exponential model at its first evaluation, NaN ever after.
void nan_after_first(int m, int n, int q, float *p, float **M) {
  fitmodel::exp_model(m, n, q, p, M);
  if (model_calls++ > 0)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) M[i][j] = NAN;
}

void nan_everywhere(int m, int n, int, float *, float **M) {
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) M[i][j] = NAN;
}

// One problem of 20 channels: data of the given rates (amplitudes varying
// with the column, plus a fixed small wiggle when noisy), the start p0.
struct Run {
  int m = 20, n, q, L;
  float **Y, **F, **X, **cov, *p;
  Run(int n_, int L_, const std::vector<double> &rates, std::vector<float> p0, bool noisy = false)
      : n(n_), q((int)p0.size()), L(L_) {
    Y = matrix(1, m, 1, L), F = matrix(1, m, 1, L), X = matrix(1, n, 1, L), cov = matrix(1, n + q, 1, n + q);
    p = vector(1, q);
    for (int k = 1; k <= q; k++) p[k] = p0[k - 1];
    for (int i = 1; i <= m; i++)
      for (int t = 1; t <= L; t++) {
        double y = noisy ? 0.02 * std::sin(1.7 * i + 0.9 * t) : 0.0;
        for (size_t j = 0; j < rates.size(); j++) y += (1.0 + 0.5 * t + j) * fitmodel::exp_entry(i, rates[j]);
        Y[i][t] = (float)y;
      }
  }
  ~Run() {
    free_matrix(Y, 1, m, 1, L), free_matrix(F, 1, m, 1, L), free_matrix(X, 1, n, 1, L);
    free_matrix(cov, 1, n + q, 1, n + q), free_vector(p, 1, q);
  }
  void fit(DecoupleModel model, DecoupleDeriv deriv, DecoupleBound bound, bool with_cov = false) {
    float relres = -1.0f, cond = 12345.0f, rms = -1.0f;
    int ret = decouple(m, n, q, L, Y, F, p, X, bound, &relres, model, deriv, 25, 0.005f, &cond, 1, &rms,
                       with_cov ? cov : nullptr, 0, 0.001f);
    printf("RESULT ret=%d relres=%.6g cond=%.9g p=", ret, relres, cond);
    for (int k = 1; k <= q; k++) printf(" %.7g", p[k]);
    printf("\n");
  }
};

}  // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  const char *what = argc == 2 ? argv[1] : "";
  using namespace fitmodel;
  set_times(20, 0.1);
  const std::vector<double> two = {0.5, 2.0};

  if (!strcmp(what, "zero")) {
    Run(2, 3, {}, {0.5f, 2.0f}).fit(exp_model, exp_deriv, accept_all);
  } else if (!strcmp(what, "rank")) {
    for (int pass = 0; pass < 2; pass++) Run(2, 2, {0.8}, {1.0f}).fit(twin_model, twin_deriv, positive_rates);
    Run(2, 3, two, {0.6f, 1.8f}).fit(exp_model, exp_deriv, positive_rates);
    Run(2, 2, {0.8}, {1.0f}).fit(twin_model, twin_deriv, positive_rates);
  } else if (!strcmp(what, "bound")) {
    for (int pass = 0; pass < 2; pass++) Run(2, 3, two, {0.7f, 1.5f}).fit(exp_model, exp_deriv, reject_all);
  } else if (!strcmp(what, "hfti")) {
    Run(1, 2, {1.5}, {0.5f, 0.6f}).fit(sum_model, sum_deriv, accept_all, true);
  } else if (!strcmp(what, "hfti0")) {
    Run(2, 2, {1.0}, {0.5f, 0.6f}).fit(constant_model, zero_deriv, accept_all);
  } else if (!strcmp(what, "nantrial")) {
    for (int pass = 0; pass < 2; pass++) {
      model_calls = 0;
      Run(2, 3, two, {0.7f, 1.5f}).fit(nan_after_first, exp_deriv, accept_all);
    }
  } else if (!strcmp(what, "nandata")) {
    Run r(2, 3, two, {0.7f, 1.5f});
    r.Y[4][2] = NAN;
    r.fit(exp_model, exp_deriv, accept_all, true);
  } else if (!strcmp(what, "nanmodel")) {
    Run(2, 3, two, {0.7f, 1.5f}).fit(nan_everywhere, exp_deriv, accept_all, true);
  } else if (!strcmp(what, "nochange")) {
    Run r(2, 3, two, {0.6f, 1.8f}, true);
    r.fit(exp_model, exp_deriv, positive_rates);
    r.fit(exp_model, exp_deriv, positive_rates);  // from the converged point
  } else {
    fprintf(stderr, "usage: probe_decouple <scenario>\n");
    return 2;
  }
  return 0;
}
