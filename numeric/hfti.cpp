// Householder least squares with column pivoting and pseudo-rank.
#include "numeric/hfti.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "numeric/nrutils.h"

namespace {

// Element i of vector j of c, the vectors being columns or rows of c.
inline float &vec_elem(float **c, int by_rows, int i, int j) { return by_rows ? c[j][i] : c[i][j]; }

void hfti_countdown(int *count) {
  --*count;
  if (*count % 10 == 0) printf("HFTI countdown: %4d\r", *count);
}

}  // namespace

void h12(int mode, int lpivot, int l1, int m, float **u, int u_by_rows, int iu, float *up,
         float **c, int c_by_rows, int ice, int ncv) {
  if (lpivot < 1 || lpivot >= l1 || l1 > m) return;
  auto uel = [&](int i) -> float & { return u_by_rows ? u[iu][i] : u[i][iu]; };

  float cl = std::fabs(uel(lpivot));
  if (mode != 2) {
    // Construct: scale by the largest magnitude so that the sum of squares
    // can neither overflow nor underflow.
    for (int j = l1; j <= m; j++) {
      float e = std::fabs(uel(j));
      if (e > cl) cl = e;
    }
    if (!(cl > 0.0f)) return;
    float clinv = 1.0f / cl;
    double t = (double)uel(lpivot) * clinv;
    double sm = t * t;
    for (int j = l1; j <= m; j++) {
      t = (double)uel(j) * clinv;
      sm += t * t;
    }
    float sm1 = (float)sm;
    cl = cl * std::sqrt(sm1);
    // The sign is chosen against the pivot so that up does not cancel.
    if (uel(lpivot) > 0.0f) cl = -cl;
    *up = uel(lpivot) - cl;
    uel(lpivot) = cl;
  } else if (!(cl > 0.0f)) {
    return;
  }

  if (ncv <= 0) return;
  double bb = (double)*up * uel(lpivot);
  // bb is never positive; zero means the transformation is the identity.
  if (!(bb < 0.0)) return;
  bb = 1.0 / bb;
  for (int jv = ice; jv < ice + ncv; jv++) {
    double sm = vec_elem(c, c_by_rows, lpivot, jv) * (double)*up;
    for (int i = l1; i <= m; i++) sm += vec_elem(c, c_by_rows, i, jv) * (double)uel(i);
    if (sm == 0.0) continue;
    sm *= bb;
    float &p = vec_elem(c, c_by_rows, lpivot, jv);
    p = (float)(p + sm * (double)*up);
    for (int i = l1; i <= m; i++) {
      float &e = vec_elem(c, c_by_rows, i, jv);
      e = (float)(e + sm * (double)uel(i));
    }
  }
}

void hfti(float **a, int m, int n, float **b, int nb, float tau, int *krank) {
  if (m < 1 || n < 1) {
    *krank = 0;
    return;
  }
  if (nb < 0) nb = 0;
  // Squared column norms (then the transformation scalars of the left
  // reduction), the scalars of the right reduction, the pivot columns, and
  // the residual norms, which are computed but not handed back.
  float *h = vector(1, n);
  float *g = vector(1, n);
  int *ip = ivector(1, n);
  int nr = nb > n ? nb : n;
  float *rnorm = vector(1, nr);
  if (!h || !g || !ip || !rnorm) {
    free_vector(h, 1, n);
    free_vector(g, 1, n);
    ifree_vector(ip, 1, n);
    free_vector(rnorm, 1, nr);
    printf("\n Out of memory in HFTI\n\n\a\a");
    *krank = -1;
    return;
  }

  const float factor = 0.001f;
  const int ldiag = m < n ? m : n;
  int count = 0;
  if (ldiag > 24) count = ldiag;
  if (nb > 24) count = ldiag + nb;

  float hmax = 0.0f;
  for (int j = 1; j <= ldiag; j++) {
    int lmax = j;
    bool recompute = j == 1;
    if (!recompute) {
      // Downdate the squared norms of the remaining columns.
      for (int l = j; l <= n; l++) {
        h[l] -= a[j - 1][l] * a[j - 1][l];
        if (h[l] > h[lmax]) lmax = l;
      }
      // Recompute from scratch once the downdated values have lost their
      // significance against the largest norm seen at the last recomputation.
      float grown = hmax + factor * h[lmax];
      recompute = grown - hmax <= 0.0f;
    }
    if (recompute) {
      lmax = j;
      for (int l = j; l <= n; l++) {
        h[l] = 0.0f;
        for (int i = j; i <= m; i++) h[l] += a[i][l] * a[i][l];
        if (h[l] > h[lmax]) lmax = l;
      }
      hmax = h[lmax];
    }
    ip[j] = lmax;
    if (lmax != j) {
      for (int i = 1; i <= m; i++) std::swap(a[i][j], a[i][lmax]);
      h[lmax] = h[j];
    }
    // Zero column j below the diagonal and apply the step to the remaining
    // columns and to the right-hand sides.
    h12(1, j, j + 1, m, a, 0, j, &h[j], a, 0, j + 1, n - j);
    h12(2, j, j + 1, m, a, 0, j, &h[j], b, 0, 1, nb);
    if (ldiag > 24) hfti_countdown(&count);
  }

  // Pseudo-rank against a tolerance relative to the largest diagonal element.
  int k = 0;
  if (a[1][1] != 0.0f) {
    float limit = tau * std::fabs(a[1][1]);
    k = ldiag;
    for (int j = 1; j <= ldiag; j++) {
      if (std::fabs(a[j][j]) <= limit) {
        k = j - 1;
        break;
      }
    }
  }

  for (int jb = 1; jb <= nb; jb++) {
    float tmp = 0.0f;
    for (int i = k + 1; i <= m; i++) tmp += b[i][jb] * b[i][jb];
    rnorm[jb] = std::sqrt(tmp);
  }

  if (k == 0) {
    for (int jb = 1; jb <= nb; jb++)
      for (int i = 1; i <= n; i++) b[i][jb] = 0.0f;
  } else {
    // With fewer independent columns than unknowns, reduce the leading k rows
    // from the right so that the solution found is the one of least norm.
    if (k < n)
      for (int i = k; i >= 1; i--) h12(1, i, k + 1, n, a, 1, i, &g[i], a, 1, 1, i - 1);

    for (int jb = 1; jb <= nb; jb++) {
      // Back substitution in the k x k triangle, sums in double.
      for (int i = k; i >= 1; i--) {
        double sm = 0.0;
        for (int j = i + 1; j <= k; j++) sm += a[i][j] * (double)b[j][jb];
        b[i][jb] = (b[i][jb] - (float)sm) / a[i][i];
      }
      if (k < n) {
        for (int j = k + 1; j <= n; j++) b[j][jb] = 0.0f;
        for (int i = 1; i <= k; i++) h12(2, i, k + 1, n, a, 1, i, &g[i], b, 0, jb, 1);
      }
      // Undo the column interchanges, last first.
      for (int j = ldiag; j >= 1; j--) {
        if (ip[j] != j) std::swap(b[ip[j]][jb], b[j][jb]);
      }
      if (nb > 24) hfti_countdown(&count);
    }
  }

  free_vector(rnorm, 1, nr);
  ifree_vector(ip, 1, n);
  free_vector(g, 1, n);
  free_vector(h, 1, n);
  *krank = k;
}
