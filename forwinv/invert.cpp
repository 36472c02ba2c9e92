// Inverted A matrix for the electrodes, and reflation of deflated solutions.
#include "forwinv/invert.h"

#include <cstdio>

#include "forwinv/electrodes.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"

// b[1..n][1..n]: factorised system matrix (unchanged).  On output *bi_out
// holds the new matrix [1..nel][1..n]; column c is the electrode potentials
// of the solution for a source term f_i at vertex c alone (with the
// isolated-source correction when that interface is in use).
void b_invert(float **b, float ***bi_out, int nel, int n) {
  const int s = iso_sur;
  int o_s = 0;
  float *w = nullptr;
  float ratio = 0;  // sigma_out / sigma_in of the isolated-source interface
  int iso_len = 0;  // entries of w that fall on vertices of the model
  if (s != -1) {
    for (int g = 0; g < s; g++) o_s += geo[g].npnt;
    ratio = geo[s].sigma_out / geo[s].sigma_in;
    w = vector(1, iso_totpnt);
    if (!w) error("cannot allocate inverse b matrix");
    iso_len = iso_totpnt < n - o_s ? iso_totpnt : n - o_s;
  }
  float *r = vector(1, n);
  float **bi = matrix(1, nel, 1, n);
  if (!r || !bi) error("cannot allocate inverse b matrix");

  const bool show = n > 25;
  float *rows[2] = {nullptr, r};  // r as the single row of a one-based matrix
  int c = 0;
  for (int i = 0; i < ngeo; i++) {
    const float f = 2.0 / (geo[i].sigma_in + geo[i].sigma_out);
    for (int k = 0; k < geo[i].npnt && c < n; k++) {
      c++;
      if (show && (n - c) % 10 == 0) printf("Invrt countdown:%5d\r", n - c);

      for (int p = 1; p <= n; p++) r[p] = 0;
      r[c] = (s != -1 && i != s) ? ratio * f : f;

      if (i == s) {
        for (int p = 1; p <= iso_totpnt; p++) w[p] = 0;
        w[k + 1] = 2.0f;
        solvelu(iso_b, iso_totpnt, w);
        for (int p = 1; p <= iso_len; p++) r[o_s + p] = ratio * (r[o_s + p] - f * w[p]);
      }

      solvelu(b, n, r);

      // With every electrode on the outermost interface the constants that
      // reflation adds do not reach the electrodes, so it is left out.
      if (surfelec == 0) {
        sphi_reflate(rows, 1);
        if (i == s)
          for (int p = 1; p <= iso_len; p++) r[o_s + p] += w[p] / geo[s].sigma_in;
      }

      for (int e = 1; e <= nel; e++) bi[e][c] = (float)elval(e, r);
    }
  }
  if (show) printf("\n");

  free_vector(r, 1, n);
  if (w) free_vector(w, 1, iso_totpnt);
  *bi_out = bi;
}

// x[1..nrows][1..totpnt]: rows of potentials over all vertices; on output
// each interface's vertices carry the constant the deflation removed.
void sphi_reflate(float **x, int nrows) {
  float *sums = vector(0, ngeo - 1);
  if (!sums) error("Cannot allocate sums");
  for (int row = 1; row <= nrows; row++) {
    float *xr = x[row];
    int off = 1;
    for (int j = 0; j < ngeo; j++) {
      float sum = 0;
      // The outermost interface (no conductor outside) contributes nothing.
      if (geo[j].sigma_out != 0)
        for (int p = 0; p < geo[j].npnt; p++) sum += xr[off + p];
      sums[j] = sum;
      off += geo[j].npnt;
    }
    off = 1;
    for (int i = 0; i < ngeo; i++) {
      float add = 0;
      for (int j = 0; j < ngeo; j++) {
        const float so = geo[j].sigma_out;
        if (so == 0) continue;
        add += (geo[j].sigma_in - so) * deflat[i][j] * sums[j] / (2.0f * so * (float)geo[j].npnt);
      }
      for (int p = 0; p < geo[i].npnt; p++) xr[off + p] += add;
      off += geo[i].npnt;
    }
  }
  free_vector(sums, 0, ngeo - 1);
}
