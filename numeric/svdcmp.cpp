// Golub-Reinsch singular value decomposition on one-based float matrices.
#include "numeric/svdcmp.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "numeric/nrutils.h"

namespace {

// At most this many QR sweeps per singular value; after that the value is
// kept as it stands (a pathological input must never stall the program).
constexpr int MAX_SWEEPS = 200;

// Element (i, j) of the matrix being decomposed: a[i][j] in the plain form,
// a[j][i] when the storage holds the transpose.
template <bool Trans>
inline float &elem(float **a, int i, int j) {
  if constexpr (Trans)
    return a[j][i];
  else
    return a[i][j];
}

// sqrt(a^2 + b^2) without destructive underflow or overflow: the larger
// magnitude is factored out.
float pythag(float a, float b) {
  float at = std::fabs(a), bt = std::fabs(b);
  if (at > bt) {
    float ct = bt / at;
    return (float)(at * std::sqrt(1.0 + ct * ct));
  }
  if (bt == 0.0f) return 0.0f;
  float ct = at / bt;
  return (float)(bt * std::sqrt(1.0 + ct * ct));
}

// |a| carrying the sign of b (zero counts as positive).
inline float sign_of(float a, float b) { return b >= 0.0f ? std::fabs(a) : -std::fabs(a); }

inline void countdown(bool show, int phase, int count) {
  if (show && count % 10 == 0) printf("  SVD countdown: %d%5d\r", phase, count);
}

// The decomposition proper, for m >= n; w and the columns of U and V come out
// unsorted.
template <bool Trans>
void golub_reinsch(float **a, int m, int n, float *w, float **v) {
  if (m < 1 || n < 1) return;
  // The superdiagonal is kept in double: its elements decide convergence and
  // feed every rotation.
  double *rv1 = dvector(1, n);
  if (!rv1) error("Out of memory in SVDCMP");
  const bool show = (long long)m * n > 999;
  float g = 0.0f, scale = 0.0f, anorm = 0.0f;
  float s, f, h, c, x, y, z;
  int l = 1, nm = 0;

  // Householder reduction to bidiagonal form.
  for (int i = 1; i <= n; i++) {
    countdown(show, 3, n - i);
    l = i + 1;
    rv1[i] = scale * g;
    g = s = scale = 0.0f;
    if (i <= m) {
      for (int k = i; k <= m; k++) scale += std::fabs(elem<Trans>(a, k, i));
      if (scale != 0.0f) {
        for (int k = i; k <= m; k++) {
          float &e = elem<Trans>(a, k, i);
          e /= scale;
          s += e * e;
        }
        f = elem<Trans>(a, i, i);
        g = -sign_of(std::sqrt(s), f);
        h = f * g - s;
        elem<Trans>(a, i, i) = f - g;
        for (int j = l; j <= n; j++) {
          s = 0.0f;
          for (int k = i; k <= m; k++) s += elem<Trans>(a, k, i) * elem<Trans>(a, k, j);
          f = s / h;
          for (int k = i; k <= m; k++) elem<Trans>(a, k, j) += f * elem<Trans>(a, k, i);
        }
        for (int k = i; k <= m; k++) elem<Trans>(a, k, i) *= scale;
      }
    }
    w[i] = scale * g;
    g = s = scale = 0.0f;
    if (i <= m && i != n) {
      for (int k = l; k <= n; k++) scale += std::fabs(elem<Trans>(a, i, k));
      if (scale != 0.0f) {
        for (int k = l; k <= n; k++) {
          float &e = elem<Trans>(a, i, k);
          e /= scale;
          s += e * e;
        }
        f = elem<Trans>(a, i, l);
        g = -sign_of(std::sqrt(s), f);
        h = f * g - s;
        elem<Trans>(a, i, l) = f - g;
        for (int k = l; k <= n; k++) rv1[k] = elem<Trans>(a, i, k) / h;
        for (int j = l; j <= m; j++) {
          s = 0.0f;
          for (int k = l; k <= n; k++) s += elem<Trans>(a, j, k) * elem<Trans>(a, i, k);
          for (int k = l; k <= n; k++) elem<Trans>(a, j, k) += s * rv1[k];
        }
        for (int k = l; k <= n; k++) elem<Trans>(a, i, k) *= scale;
      }
    }
    float t = (float)(std::fabs((double)w[i]) + std::fabs(rv1[i]));
    anorm = anorm > t ? anorm : t;
  }

  // Accumulation of the right-hand transformations.
  for (int i = n; i >= 1; i--) {
    countdown(show, 2, i - 1);
    if (i < n) {
      if (g != 0.0f) {
        // Double division avoids a possible underflow of the product.
        for (int j = l; j <= n; j++) v[j][i] = (elem<Trans>(a, i, j) / elem<Trans>(a, i, l)) / g;
        for (int j = l; j <= n; j++) {
          s = 0.0f;
          for (int k = l; k <= n; k++) s += elem<Trans>(a, i, k) * v[k][j];
          for (int k = l; k <= n; k++) v[k][j] += s * v[k][i];
        }
      }
      for (int j = l; j <= n; j++) v[i][j] = v[j][i] = 0.0f;
    }
    v[i][i] = 1.0f;
    g = (float)rv1[i];
    l = i;
  }

  // Accumulation of the left-hand transformations.
  for (int i = (m < n ? m : n); i >= 1; i--) {
    countdown(show, 1, i - 1);
    l = i + 1;
    g = w[i];
    for (int j = l; j <= n; j++) elem<Trans>(a, i, j) = 0.0f;
    if (g != 0.0f) {
      g = (float)(1.0 / g);
      for (int j = l; j <= n; j++) {
        s = 0.0f;
        for (int k = l; k <= m; k++) s += elem<Trans>(a, k, i) * elem<Trans>(a, k, j);
        f = (s / elem<Trans>(a, i, i)) * g;
        for (int k = i; k <= m; k++) elem<Trans>(a, k, j) += f * elem<Trans>(a, k, i);
      }
      for (int j = i; j <= m; j++) elem<Trans>(a, j, i) *= g;
    } else {
      for (int j = i; j <= m; j++) elem<Trans>(a, j, i) = 0.0f;
    }
    ++elem<Trans>(a, i, i);
  }

  // Diagonalisation of the bidiagonal form, one singular value at a time.
  for (int k = n; k >= 1; k--) {
    countdown(show, 0, k - 1);
    for (int its = 1; its <= MAX_SWEEPS; its++) {
      // Find a split: a negligible superdiagonal element rv1[l], or a
      // negligible diagonal element w[l-1] that has to be chased out first.
      // rv1[1] is always zero, so the scan stops at l = 1 at the latest; the
      // explicit l == 1 keeps it there even when anorm is not a number.
      bool cancel = true;
      for (l = k; l >= 1; l--) {
        nm = l - 1;
        if (l == 1 || (float)(std::fabs(rv1[l]) + anorm) == anorm) {
          cancel = false;
          break;
        }
        if ((float)(std::fabs((double)w[nm]) + anorm) == anorm) break;
      }
      nm = l - 1;
      if (cancel) {
        c = 0.0f;
        s = 1.0f;
        for (int i = l; i <= k; i++) {
          f = (float)(s * rv1[i]);
          rv1[i] = c * rv1[i];
          if ((float)(std::fabs((double)f) + anorm) == anorm) break;
          g = w[i];
          h = pythag(f, g);
          w[i] = h;
          h = (float)(1.0 / h);
          c = g * h;
          s = -f * h;
          for (int j = 1; j <= m; j++) {
            y = elem<Trans>(a, j, nm);
            z = elem<Trans>(a, j, i);
            elem<Trans>(a, j, nm) = y * c + z * s;
            elem<Trans>(a, j, i) = z * c - y * s;
          }
        }
      }
      z = w[k];
      if (l == k) {
        // Converged; make the singular value non-negative.
        if (z < 0.0f) {
          w[k] = -z;
          for (int j = 1; j <= n; j++) v[j][k] = -v[j][k];
        }
        break;
      }
      if (its == MAX_SWEEPS) {
        // Deliberately silent: the last sweep still runs and the value is
        // kept as it is afterwards.  The text is prepared for a debugger.
        char note[64];
        snprintf(note, sizeof note, "\n No convergence in %d SVDCMP iterations", MAX_SWEEPS);
        (void)note;
      }
      // Shift from the bottom 2 x 2 minor.
      x = w[l];
      nm = k - 1;
      y = w[nm];
      g = (float)rv1[nm];
      h = (float)rv1[k];
      f = (float)(((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y));
      g = pythag(f, 1.0f);
      f = ((x - z) * (x + z) + h * ((y / (f + sign_of(g, f))) - h)) / x;
      // Next QR transformation.
      c = s = 1.0f;
      for (int j = l; j <= nm; j++) {
        int i = j + 1;
        g = (float)rv1[i];
        y = w[i];
        h = s * g;
        g = c * g;
        z = pythag(f, h);
        rv1[j] = z;
        c = f / z;
        s = h / z;
        f = x * c + g * s;
        g = g * c - x * s;
        h = y * s;
        y *= c;
        for (int jj = 1; jj <= n; jj++) {
          x = v[jj][j];
          z = v[jj][i];
          v[jj][j] = x * c + z * s;
          v[jj][i] = z * c - x * s;
        }
        z = pythag(f, h);
        w[j] = z;
        // The rotation may be arbitrary when z is zero.
        if (z != 0.0f) {
          z = (float)(1.0 / z);
          c = f * z;
          s = h * z;
        }
        f = c * g + s * y;
        x = c * y - s * g;
        for (int jj = 1; jj <= m; jj++) {
          y = elem<Trans>(a, jj, j);
          z = elem<Trans>(a, jj, i);
          elem<Trans>(a, jj, j) = y * c + z * s;
          elem<Trans>(a, jj, i) = z * c - y * s;
        }
      }
      rv1[l] = 0.0;
      rv1[k] = f;
      w[k] = x;
    }
  }
  if (show) printf("\n");
  free_dvector(rv1, 1, n);
}

// Order w[1..k] from largest to smallest, moving the columns of a (rows
// 1..m) and v (rows 1..n) along.  Each pass takes the smallest of w[1..i] to
// position i; on a tie the value already at i stays, so equal values keep
// their relative order.
void sort_decreasing(float **a, int m, int n, float *w, float **v, int k) {
  for (int i = k; i >= 2; i--) {
    int imin = i;
    float wmin = w[i];
    for (int j = 1; j <= i; j++) {
      if (w[j] < wmin) {
        wmin = w[j];
        imin = j;
      }
    }
    if (imin == i) continue;
    std::swap(w[i], w[imin]);
    for (int r = 1; r <= m; r++) std::swap(a[r][i], a[r][imin]);
    for (int r = 1; r <= n; r++) std::swap(v[r][i], v[r][imin]);
  }
}

}  // namespace

void svdcmptrans(float **a, int m, int n, float *w, float **v) {
  golub_reinsch<true>(a, m, n, w, v);
}

void svdcmp(float **a, int m, int n, float *w, float **v) {
  if (m < 1 || n < 1) return;
  if (m >= n) {
    golub_reinsch<false>(a, m, n, w, v);
  } else {
    // Decompose A^T = V diag(w) U^T in place: afterwards (a)^T holds the
    // n x m left factor of A^T, which is V of A, and v[1..m][1..m] holds its
    // right factor, which is U of A.  Move each to where it belongs.
    svdcmptrans(a, n, m, w, v);
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= m; j++) std::swap(a[j][i], v[i][j]);
    for (int i = 1; i <= m; i++)
      for (int j = i + 1; j <= m; j++) std::swap(a[i][j], a[j][i]);
    for (int k = m + 1; k <= n; k++)
      for (int i = 1; i <= m; i++) v[k][i] = a[i][k];
  }
  sort_decreasing(a, m, n, w, v, m < n ? m : n);
}
