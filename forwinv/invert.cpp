// Inverted A matrix for the electrodes, and reflation of deflated solutions.
#include "forwinv/invert.h"

#include <cstdio>

#include "forwinv/electrodes.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"

namespace {

// Columns are solved this many at a time: the solves of a block share each
// pass over the factors, and every column still comes out bit for bit as a
// solve of its own.
constexpr int INVERT_BLOCK = 1024;

}  // namespace

// b[1..n][1..n]: factorised system matrix (unchanged).  On output *bi_out
// holds the new matrix [1..nel][1..n]; column c is the electrode potentials
// of the solution for a source term f_i at vertex c alone (with the
// isolated-source correction when that interface is in use).
void b_invert(float **b, float ***bi_out, int nel, int n) {
  const int s = iso_sur;
  int o_s = 0;
  float ratio = 0;  // sigma_out / sigma_in of the isolated-source interface
  int iso_len = 0;  // entries of w that fall on vertices of the model
  float **w = nullptr;
  if (s != -1) {
    for (int g = 0; g < s; g++) o_s += geo[g].npnt;
    ratio = geo[s].sigma_out / geo[s].sigma_in;
    w = matrix(1, INVERT_BLOCK, 1, iso_totpnt);
    if (!w) error("cannot allocate inverse b matrix");
    iso_len = iso_totpnt < n - o_s ? iso_totpnt : n - o_s;
  }
  float **r = matrix(1, INVERT_BLOCK, 1, n);
  float **bi = matrix(1, nel, 1, n);
  int *col_if = ivector(1, n), *col_k = ivector(1, n);
  if (!r || !bi || !col_if || !col_k) error("cannot allocate inverse b matrix");

  // Interface and local vertex of every column, in global vertex order.
  int c = 0;
  for (int i = 0; i < ngeo; i++)
    for (int k = 0; k < geo[i].npnt && c < n; k++) {
      c++;
      col_if[c] = i;
      col_k[c] = k;
    }

  // The solves of every block go through the same factors: what they need
  // to know of them is found out once.
  const LuSolveInfo info = lu_solve_info(b, n);
  const LuSolveInfo iso_info = s != -1 ? lu_solve_info(iso_b, iso_totpnt) : LuSolveInfo{};
  const bool show = n > 25;
  for (int c0 = 1; c0 <= n; c0 += INVERT_BLOCK) {
    const int count = n - c0 + 1 < INVERT_BLOCK ? n - c0 + 1 : INVERT_BLOCK;
    float *iso_rows[INVERT_BLOCK + 1];
    int niso = 0;
    for (int j = 1; j <= count; j++) {
      c = c0 + j - 1;
      if (show && (n - c) % 10 == 0) printf("Invrt countdown:%5d\r", n - c);
      const int i = col_if[c];
      const float f = 2.0 / (geo[i].sigma_in + geo[i].sigma_out);
      for (int p = 1; p <= n; p++) r[j][p] = 0;
      r[j][c] = (s != -1 && i != s) ? ratio * f : f;
      if (i == s) {
        for (int p = 1; p <= iso_totpnt; p++) w[j][p] = 0;
        w[j][col_k[c] + 1] = 2.0f;
        iso_rows[++niso] = w[j];
      }
    }
    if (niso > 0) solvelu_many(iso_b, iso_totpnt, iso_rows, niso, &iso_info);
    for (int j = 1; j <= count; j++) {
      c = c0 + j - 1;
      const int i = col_if[c];
      const float f = 2.0 / (geo[i].sigma_in + geo[i].sigma_out);
      if (i == s)
        for (int p = 1; p <= iso_len; p++) r[j][o_s + p] = ratio * (r[j][o_s + p] - f * w[j][p]);
    }

    solvelu_many(b, n, r, count, &info);

    for (int j = 1; j <= count; j++) {
      c = c0 + j - 1;
      // With every electrode on the outermost interface the constants that
      // reflation adds do not reach the electrodes, so it is left out.
      if (surfelec == 0) {
        float *row[2] = {nullptr, r[j]};
        sphi_reflate(row, 1);
        if (col_if[c] == s)
          for (int p = 1; p <= iso_len; p++) r[j][o_s + p] += w[j][p] / geo[s].sigma_in;
      }
      for (int e = 1; e <= nel; e++) bi[e][c] = (float)elval(e, r[j]);
    }
  }
  if (show) printf("\n");

  free_matrix(r, 1, INVERT_BLOCK, 1, n);
  if (w) free_matrix(w, 1, INVERT_BLOCK, 1, iso_totpnt);
  ifree_vector(col_if, 1, n);
  ifree_vector(col_k, 1, n);
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
