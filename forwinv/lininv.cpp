// Linear inverse through a truncated singular value decomposition, and the
// relative-difference measures of a fit.
#include "forwinv/lininv.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "numeric/nrutils.h"
#include "numeric/svdcmp.h"

namespace {

// Directions whose singular value lies below this fraction of the largest
// enter the standard deviations with a fixed huge weight instead of 1/w^2.
constexpr double SD_CUTOFF = 1e-10;
constexpr float SD_HUGE = 1e20f;

}  // namespace

// trans[1..nel][1..npar], psi[1..nel][1..ntim]: input, unchanged.
// d[1..npar][1..ntim]: output strengths.  sdd[1..npar][1..ntim]: output
// standard-deviation factors, skipped when null.  tol: relative truncation.
void lin_inverse(float **trans, float **psi, float **d, int npar, int nel, int ntim, float **sdd, float tol) {
  if (npar < 1 || nel < 1) return;  // nothing to solve for, or no data to solve from
  const int nw = std::max(npar, nel);
  float *w = vector(1, nw);
  if (!w) error("cannot create sigma in lin_inverse");
  float *s1 = vector(1, nw);
  if (!s1) error("cannot create s1 in lin_inverse");
  float *y = vector(1, npar);
  if (!y) error("cannot create sigma in lin_inverse");
  float **v = matrix(1, npar, 1, npar);
  if (!v) error("cannot create v in lin_inverse");
  float **u = matrix(1, nel, 1, npar);
  if (!u) error("cannot create u in lin_inverse");

  for (int e = 1; e <= nel; e++)
    for (int j = 1; j <= npar; j++) u[e][j] = trans[e][j];
  svdcmp(u, nel, npar, w, v);
  // A wide matrix has only nel singular values; the decomposition leaves the
  // further values and columns undefined.  They are null directions of the
  // transfer matrix: make them exact zeros so they are dropped below and add
  // nothing to the solution.
  for (int j = nel + 1; j <= npar; j++) {
    w[j] = 0.0f;
    for (int e = 1; e <= nel; e++) u[e][j] = 0.0f;
    for (int i = 1; i <= npar; i++) v[i][j] = 0.0f;
  }

  float wmax = 0.0f;
  for (int i = 1; i <= npar; i++)
    if (w[i] > wmax) wmax = w[i];
  for (int i = 1; i <= npar; i++) s1[i] = w[i];

  int dropped = 0;
  float wmin = w[1];
  for (int i = 1; i <= npar; i++) {
    // A value that is not positive (all of a zero matrix) is dropped too,
    // rather than inverted into an infinity.
    if (w[i] < wmax * tol || !(w[i] > 0.0f)) {
      w[i] = 0.0f;
      dropped++;
    } else {
      if (w[i] < wmin) wmin = w[i];
      w[i] = 1.0f / w[i];
    }
  }
  // With nothing kept there is no finite condition to report.
  const float condition = dropped == npar ? INFINITY : wmax / wmin;
  if (dropped > 0) {
    printf("Transfer matrix is singular\n");
    printf("  Rank: %d (full rank would be %d)\n", npar - dropped, npar);
    printf("  Condition of pseudo inverse: %.1f\n", condition);
  } else {
    printf("Condition of linear inverse: %.1f\n", condition);
  }

  for (int t = 1; t <= ntim; t++) {
    for (int j = 1; j <= npar; j++) {
      float sum = 0.0f;
      for (int e = 1; e <= nel; e++) sum += psi[e][t] * u[e][j];
      y[j] = sum * w[j];
    }
    for (int j = 1; j <= npar; j++) {
      float sum = 0.0f;
      for (int k = 1; k <= npar; k++) sum += v[j][k] * y[k];
      d[j][t] = sum;
    }
  }

  if (sdd) {
    for (int k = 1; k <= npar; k++) s1[k] = s1[k] >= wmax * SD_CUTOFF ? 1.0f / (s1[k] * s1[k]) : SD_HUGE;
    for (int j = 1; j <= npar; j++) {
      float sum = 0.0f;
      for (int k = 1; k <= npar; k++) sum += v[j][k] * v[j][k] * s1[k];
      const float f = std::sqrt(sum);
      for (int t = 1; t <= ntim; t++) sdd[j][t] = f * d[j][t];
    }
  }

  free_matrix(u, 1, nel, 1, npar);
  free_matrix(v, 1, npar, 1, npar);
  free_vector(y, 1, npar);
  free_vector(s1, 1, nw);
  free_vector(w, 1, nw);
}

// meas, model [1..nrow][1..ncol]: input.  *rms: output.
float reldif(float **meas, float **model, int nrow, int ncol, float *rms) {
  double r = 0.0;  // the squared differences can be tiny next to the data
  float m = 0.0f;
  for (int i = 1; i <= nrow; i++)
    for (int j = 1; j <= ncol; j++) {
      const double diff = (double)meas[i][j] - (double)model[i][j];
      r += diff * diff;
      m += meas[i][j] * meas[i][j];
    }
  *rms = (float)std::sqrt(r / nrow / ncol);
  // The sum of squared data is single precision; when it overflows the
  // quotient would be 0, a perfect fit.  Not a number tells the caller.
  if (!std::isfinite(m)) return NAN;
  return (float)std::sqrt(r / m);
}

// psi [1..nrow][1..ncol], shift [1..ncol]: input.
float reldifcor(float **psi, float *shift, int nrow, int ncol) {
  float a = 0.0f, b = 0.0f;
  for (int i = 1; i <= nrow; i++)
    for (int j = 1; j <= ncol; j++) {
      a += psi[i][j] * psi[i][j];
      const float orig = shift[j] + psi[i][j];
      b += orig * orig;
    }
  return std::sqrt(a / b);
}
