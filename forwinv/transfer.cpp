#include "forwinv/transfer.h"

#include <cmath>
#include <cstdio>

#include "forwinv/bmatrix.h"
#include "forwinv/electrodes.h"
#include "forwinv/invert.h"
#include "matrixio/matrix.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"

void sphi_transform(const Interface *table, int n, float **x, int nrows) {
  int first = 1;
  for (int i = 0; i < n; i++) {
    float f = 2.0f / (table[i].sigma_in + table[i].sigma_out);
    int last = first + table[i].npnt - 1;
    for (int r = 1; r <= nrows; r++)
      for (int c = first; c <= last; c++) x[r][c] *= f;
    first = last + 1;
  }
}

void do_solve(float **m, float **x, int nrows, int n) {
  bool shown = nrows > 10;
  for (int r = 1; r <= nrows; r++) {
    if (shown && (nrows - r) % 10 == 0) printf("Solve countdown:%5d\r", nrows - r);
    solvelu(m, n, x[r]);
  }
  if (shown) printf("\n");
}

namespace {

// Refer every column of trans to its mean over the electrodes (summed in
// float, in electrode order).
void refer_to_average(float **trans, int ncols) {
  for (int r = 1; r <= ncols; r++) {
    float mean = 0.0f;
    for (int e = 1; e <= nel; e++) mean += trans[e][r];
    mean /= nel;
    for (int e = 1; e <= nel; e++) trans[e][r] -= mean;
  }
}

// Global column of the p-th vertex of the isolated sub-model (1..iso_totpnt),
// walking the sub-model's interfaces in their own order.
int iso_column(int p) {
  for (int g = 0; g < iso_ngeo; g++) {
    if (p <= iso_geo[g].npnt) return get_offset(iso_index[g]) + p - 1;
    p -= iso_geo[g].npnt;
  }
  return -1;
}

}  // namespace

void make_trans(float **x, int ncols, float **trans) {
  for (int r = 1; r <= ncols; r++)
    for (int e = 1; e <= nel; e++) trans[e][r] = (float)elval(e, x[r]);
  refer_to_average(trans, ncols);
}

void get_w0(float **w0, float **iso_b, float **x, int ncols) {
  for (int r = 1; r <= ncols; r++)
    for (int p = 1; p <= iso_totpnt; p++) w0[r][p] = x[r][iso_column(p)];
  sphi_transform(iso_geo, iso_ngeo, w0, ncols);
  do_solve(iso_b, w0, ncols, iso_totpnt);
  binputmatrix("w0.tmp", w0, ncols, iso_totpnt);
  const Interface &s = geo[iso_sur];
  float ratio = s.sigma_out / s.sigma_in;
  for (int r = 1; r <= ncols; r++) {
    for (int c = 1; c <= totpnt; c++) x[r][c] *= ratio;
    for (int p = 1; p <= iso_totpnt; p++) {
      int g = iso_column(p);
      x[r][g] -= s.sigma_out * w0[r][p];
      w0[r][p] = x[r][g];
    }
  }
}

void add_w0(float **w0, float **, float **x, int ncols) {
  for (int r = 1; r <= ncols; r++)
    for (int p = 1; p <= iso_totpnt; p++) x[r][iso_column(p)] += w0[r][p];
}

void sphi2trans(float **b, float **bi, float **x, int ncols, float **trans, int reflate) {
  if (!b) {
    bool shown = ncols > 10;
    for (int r = 1; r <= ncols; r++) {
      if (shown && (ncols - r) % 10 == 0) printf("Solve countdown:%5d\r", ncols - r);
      const float *xr = x[r];
      for (int e = 1; e <= nel; e++) {
        const float *be = bi[e];
        double s = 0.0;
        for (int c = 1; c <= totpnt; c++) s += (double)xr[c] * be[c];
        trans[e][r] = (float)s;
      }
    }
    if (shown) printf("\n");
    refer_to_average(trans, ncols);
    return;
  }

  float **w0 = nullptr;
  if (iso_sur != -1) {
    w0 = matrix(1, ncols, 1, iso_totpnt);
    if (!w0) error("Out of memory in sphi2trans");
    get_w0(w0, iso_b, x, ncols);
    if (inner_only) g_w0 = w0;
  }
  sphi_transform(geo, ngeo, x, ncols);
  do_solve(b, x, ncols, totpnt);
  if (surfelec == 0 || reflate) {
    sphi_reflate(x, ncols);
    if (iso_sur != -1) add_w0(w0, iso_b, x, ncols);
  }
  make_trans(x, ncols, trans);
  if (w0 && !inner_only) free_matrix(w0, 1, ncols, 1, iso_totpnt);
}

void forward(float **trans, float **phi, float **d, int npar, int nel, int ntim) {
  for (int e = 1; e <= nel; e++)
    for (int t = 1; t <= ntim; t++) {
      float s = 0.0f;
      for (int p = 1; p <= npar; p++) s += d[p][t] * trans[e][p];
      phi[e][t] = s;
    }
}

void reduce_trans(int nsource, int nel, const SourceRecord *source, float **trans) {
  for (int k = 0; k < nsource; k++) {
    const SourceRecord &s = source[k];
    if (s.ori_stationary) {
      float u0 = sinf(s.theta) * cosf(s.alfa), u1 = sinf(s.theta) * sinf(s.alfa), u2 = cosf(s.theta);
      for (int e = 1; e <= nel; e++)
        trans[e][s.lindex] = u0 * trans[e][3 * k + 1] + u1 * trans[e][3 * k + 2] + u2 * trans[e][3 * k + 3];
    } else {
      for (int e = 1; e <= nel; e++)
        for (int dd = 0; dd < 3; dd++) trans[e][s.lindex + dd] = trans[e][3 * k + 1 + dd];
    }
  }
}
