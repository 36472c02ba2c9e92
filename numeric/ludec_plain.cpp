// Reference LU decomposition with pairwise pivoting: every loop in the order
// the factorisation is defined, nothing reordered, nothing blocked.  The
// fast routines of numeric/ludec.cpp must reproduce these results bit for
// bit; keep this file simple so that it stays obviously right.
#include "numeric/ludec_plain.h"

#include <cmath>
#include <cstdio>

#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"

// At -O2 GCC only vectorises loops whose length is a known multiple of the
// vector width; the row loops are the hot spot, so let them carry a scalar
// remainder (the results are the same either way).
#if defined(__GNUC__) && !defined(__clang__)
#define ROW_LOOP __attribute__((optimize("vect-cost-model=dynamic")))
#else
#define ROW_LOOP
#endif

namespace {

constexpr float TINY_PIVOT = 1e-19f;
constexpr float HOPELESS_COND = 1e38f;

// Row i -= m * row k over columns k+1 .. n.
ROW_LOOP void eliminate_row(float *__restrict ri, const float *__restrict rk, float m, int k, int n) {
  for (int j = k + 1; j <= n; j++) ri[j] = fmaf(-m, rk[j], ri[j]);
}

// Rows k and i exchanged over columns k .. n, row i becoming
// (old row k) - (old row i)/m.
ROW_LOOP void exchange_rows(float *__restrict ri, float *__restrict rk, float m, int k, int n) {
  for (int j = k; j <= n; j++) {
    float t = rk[j];
    rk[j] = ri[j];
    ri[j] = t - ri[j] / m;
  }
}

}  // namespace

void eliminate_plain(float **a, int n, bool shown) {
  for (int i = 2; i <= n; i++) {
    if (shown && (n - i) % 10 == 0) printf("Ludec countdown:%5d\r", n - i);
    float *ri = a[i];
    for (int k = 1; k < i; k++) {
      float *rk = a[k];
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
}

// a[1..n][1..n]: on input the matrix, on output its factors.  *cond: the
// estimated condition number (at least 1; 1e38 when out of reach; 0 when no
// work vector could be had).  Prints the countdown like ludec.
void ludec_plain(float **a, int n, float *cond) {
  if (n < 1) {
    *cond = 1.0f;
    return;
  }
  float anorm = mnorm1(a, n);
  bool shown = n > 25 && verbose;

  eliminate_plain(a, n, shown);

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
  tsolvel_plain(a, n, y);
  float ynorm = vnorm1(y, n);
  if (ynorm < 1e19f) {
    solvel_plain(a, n, y);
    solveu_plain(a, n, y);
    double c = (double)vnorm1(y, n) * (double)anorm / (double)ynorm;
    if (c < 1.0)
      *cond = 1.0f;
    else if (c <= (double)HOPELESS_COND)
      *cond = (float)c;
    else
      *cond = HOPELESS_COND;
  } else {
    *cond = HOPELESS_COND;
  }
  free_vector(y, 1, n);
}

void solvel_plain(float **a, int n, float *b) {
  for (int i = 1; i <= n; i++) {
    for (int k = 1; k < i; k++) {
      float m = a[i][k];
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

void solveu_plain(float **a, int n, float *b) {
  for (int i = n; i >= 1; i--) {
    float s = b[i];
    for (int j = n; j > i; j--) s = fmaf(-a[i][j], b[j], s);
    b[i] = s / a[i][i];
  }
}

void solvelu_plain(float **a, int n, float *b) {
  solvel_plain(a, n, b);
  solveu_plain(a, n, b);
}

void tsolvel_plain(float **a, int n, float *y) {
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
