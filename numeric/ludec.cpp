// LU decomposition with pairwise pivoting, its solves and condition estimate.
//
// Storage is single precision throughout; every product-and-sum of the
// elimination and the solves is one fmaf, so each update is rounded once.
// The stored multiplier is the only record of a row exchange: |m| > 1 means
// the rows were swapped in that step, and every routine here applies that
// same test.  The inner loops run over contiguous row segments so that the
// compiler can vectorise them; the results do not depend on whether it does.
#include "numeric/ludec.h"

#include <cmath>
#include <cstdio>

#include "numeric/nrutils.h"
#include "numeric/verbose.h"

// At -O2 GCC only vectorises loops whose length is a known multiple of the
// vector width; the row loops below have arbitrary lengths and are the hot
// spot of the factorisation, so let them carry a scalar remainder.
#if defined(__GNUC__) && !defined(__clang__)
#define ROW_LOOP __attribute__((optimize("vect-cost-model=dynamic")))
#else
#define ROW_LOOP
#endif

namespace {

// Below this a pivot counts as zero next to the element it must eliminate.
constexpr float TINY_PIVOT = 1e-19f;
// Reported when the estimate itself is out of reach.
constexpr float HOPELESS_COND = 1e38f;

// Row i -= m * row k over columns k+1 .. n (no exchange).
ROW_LOOP void eliminate_row(float *__restrict ri, const float *__restrict rk, float m, int k, int n) {
  for (int j = k + 1; j <= n; j++) ri[j] = fmaf(-m, rk[j], ri[j]);
}

// Exchange step over columns k .. n: row k takes row i, and row i becomes
// (old row k) - (old row i)/m.  Division rather than a product with 1/m keeps
// the rounding the solvers reproduce.
ROW_LOOP void exchange_rows(float *__restrict ri, float *__restrict rk, float m, int k, int n) {
  for (int j = k; j <= n; j++) {
    float t = rk[j];
    rk[j] = ri[j];
    ri[j] = t - ri[j] / m;
  }
}

}  // namespace

// a[1..n][1..n]: on input the matrix, on output its factors (U on and above
// the diagonal, the multipliers below it).  *cond: on output the estimated
// condition number, at least 1.0; 1e38 when the estimate is out of reach,
// 0 when no work vector could be had.  With the verbose flag set and n > 25
// a countdown of the remaining rows is printed every ten rows.
void ludec(float **a, int n, float *cond) {
  if (n < 1) {  // nothing to factorise; an empty system is perfectly conditioned
    *cond = 1.0f;
    return;
  }
  float anorm = mnorm1(a, n);
  bool shown = n > 25 && verbose;

  for (int i = 2; i <= n; i++) {
    if (shown && (n - i) % 10 == 0) printf("Ludec countdown:%5d\r", n - i);
    float *ri = a[i];
    for (int k = 1; k < i; k++) {
      float *rk = a[k];
      // A zero or negligible pivot is replaced so that the step never
      // divides by zero; the singularity then shows in the estimate.
      if (fabsf(ri[k]) * TINY_PIVOT >= fabsf(rk[k])) rk[k] = TINY_PIVOT;
      float m = ri[k] / rk[k];
      if (fabsf(m) <= 1.0f)
        eliminate_row(ri, rk, m, k, n);
      else
        exchange_rows(ri, rk, m, k, n);
      ri[k] = m;
    }
  }
  if (shown) printf("\n");

  // LINPACK-style estimate: solve A^T y = e with the signs of e chosen so
  // that y grows, then A z = y; |z| / |y| approximates the norm of A^-1.
  float *y = vector(1, n);
  if (!y) {
    *cond = 0.0f;
    return;
  }
  for (int k = 1; k <= n; k++) {
    double sum = 0.0;
    for (int j = 1; j < k; j++) sum += (double)y[j] * (double)a[j][k];
    float s = (float)sum;
    y[k] = (s >= 0.0f ? -1.0f - s : 1.0f - s) / a[k][k];
  }
  tsolvel(a, n, y);
  float ynorm = vnorm1(y, n);
  if (ynorm < 1e19f) {
    solvel(a, n, y);
    solveu(a, n, y);
    // Formed in double so that the product cannot overflow on its way to a
    // representable quotient; what single precision cannot hold, or a
    // solve that broke down into NaN, counts as hopeless.
    double c = (double)vnorm1(y, n) * (double)anorm / (double)ynorm;
    if (c < 1.0)
      *cond = 1.0f;
    else if (c <= (double)HOPELESS_COND)
      *cond = (float)c;
    else
      *cond = HOPELESS_COND;  // also NaN
  } else {
    *cond = HOPELESS_COND;  // also NaN
  }
  free_vector(y, 1, n);
}

// a: factors from ludec.  b[1..n]: on input a right-hand side, on output
// the same vector with the elimination steps (and their exchanges) applied
// in the order ludec performed them.
void solvel(float **a, int n, float *b) {
  for (int i = 1; i <= n; i++) {
    const float *ri = a[i];
    for (int k = 1; k < i; k++) {
      float m = ri[k];
      if (fabsf(m) > 1.0f) {
        float t = b[k];
        b[k] = b[i];
        b[i] = t - b[i] / m;
      } else {
        b[i] = fmaf(-m, b[k], b[i]);
      }
    }
  }
}

// a: factors from ludec.  b[1..n]: on input the output of solvel, on output
// the solution of U x = b.
void solveu(float **a, int n, float *b) {
  for (int i = n; i >= 1; i--) {
    const float *ri = a[i];
    float s = b[i];
    for (int j = i + 1; j <= n; j++) s = fmaf(-ri[j], b[j], s);
    b[i] = s / ri[i];
  }
}

// a: factors from ludec.  b[1..n]: on input a right-hand side, on output the
// solution of a x = b for the matrix as it was before ludec.
void solvelu(float **a, int n, float *b) {
  solvel(a, n, b);
  solveu(a, n, b);
}

// a: factors from ludec.  x[1..nrhs][1..n]: on input one right-hand side per
// row, on output the solutions, row for row as solvelu gives them.
void solvelu_many(float **a, int n, float **x, int nrhs) {
  for (int r = 1; r <= nrhs; r++) solvelu(a, n, x[r]);
}

// a: factors from ludec.  y[1..n]: on input a vector, on output the vector
// with the transposes of the elimination steps applied in reverse order
// (the transpose of what solvel does).  An exchange step is its own
// transpose up to where the division lands.
void tsolvel(float **a, int n, float *y) {
  for (int k = n - 1; k >= 1; k--) {
    for (int i = n; i > k; i--) {
      float m = a[i][k];
      if (fabsf(m) > 1.0f) {
        float t = y[k] - y[i] / m;
        y[k] = y[i];
        y[i] = t;
      } else {
        y[k] = fmaf(-m, y[i], y[k]);
      }
    }
  }
}

// a[1..n][1..n]: unchanged.  Returns the largest row sum of absolute values
// (the infinity norm), each sum formed in double.
float mnorm1(float **a, int n) {
  float best = 0.0f;
  for (int i = 1; i <= n; i++) {
    const float *ri = a[i];
    double sum = 0.0;
    for (int j = 1; j <= n; j++) sum += fabs((double)ri[j]);
    float s = (float)sum;
    if (s > best) best = s;
  }
  return best;
}

// v[1..n]: unchanged.  Returns the sum of absolute values, formed in double.
float vnorm1(const float *v, int n) {
  double sum = 0.0;
  for (int i = 1; i <= n; i++) sum += fabs((double)v[i]);
  return (float)sum;
}
