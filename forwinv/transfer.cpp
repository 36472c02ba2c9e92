#include "forwinv/transfer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/bmatrix.h"
#include "forwinv/electrodes.h"
#include "forwinv/invert.h"
#include "forwinv/results.h"
#include "matrixio/matrix.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"

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
  // The rows are solved together in blocks, each exactly as a solve of its
  // own; the countdown follows the blocks.
  constexpr int BLOCK = 64;
  bool shown = nrows > 10;
  for (int r0 = 1; r0 <= nrows; r0 += BLOCK) {
    int count = nrows - r0 + 1 < BLOCK ? nrows - r0 + 1 : BLOCK;
    for (int r = r0; r < r0 + count; r++)
      if (shown && (nrows - r) % 10 == 0) printf("Solve countdown:%5d\r", nrows - r);
    solvelu_many(m, n, x + r0 - 1, count);
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

// Products with stored matrices.  Every entry is summed in exactly the order
// of the plain loop (a double sum over the columns in increasing order for
// the A matrix, a float sum over the parameters for forward), so neither the
// blocking nor the thread count changes a bit: blocking only lets one pass
// over the data serve several entries at once, each in its own vector lane.

typedef double v4d __attribute__((vector_size(32)));
typedef float v4f __attribute__((vector_size(16)));
typedef float v8f __attribute__((vector_size(32)));

// Work (multiply-adds) below which threads cost more than they save.
const double THREADED_WORK = 4.0e6;

int threads_for(double work) { return work < THREADED_WORK ? 1 : assembly_threads(); }

// ET electrode rows bi_e[1..n] against one panel of 4*NV source rows, the
// panel holding x[r][c] at panel[(c-1)*4*NV + q] (q: the row within the
// panel).  out[e][q] = sum over c = 1..n of (double)x * (double)bi, summed in
// that order, as the plain loop does for each entry alone.
template <int ET, int NV>
void panel_products(const float *const *bi_e, const float *panel, int n, double out[8][8]) {
  v4d acc[ET][NV];
  for (int e = 0; e < ET; e++)
    for (int v = 0; v < NV; v++) acc[e][v] = v4d{0.0, 0.0, 0.0, 0.0};
  for (int c = 1; c <= n; c++) {
    const float *pc = panel + (size_t)(c - 1) * 4 * NV;
    v4d xv[NV];
    for (int v = 0; v < NV; v++) {
      v4f f;
      memcpy(&f, pc + 4 * v, sizeof f);
      xv[v] = __builtin_convertvector(f, v4d);
    }
    for (int e = 0; e < ET; e++) {
      const double be = bi_e[e][c];
      const v4d bv = {be, be, be, be};
      for (int v = 0; v < NV; v++) acc[e][v] = acc[e][v] + xv[v] * bv;
    }
  }
  for (int e = 0; e < ET; e++)
    for (int v = 0; v < NV; v++)
      for (int q = 0; q < 4; q++) out[e][4 * v + q] = acc[e][v][q];
}

// Up to eight electrodes of one panel of four rows, or four of a panel of
// eight: eight independent sums in flight hide the latency of the additions.
template <int NV>
void panel_products_any(int et, const float *const *bi_e, const float *panel, int n, double out[8][8]) {
  if constexpr (NV == 1) {
    switch (et) {
      case 5: panel_products<5, 1>(bi_e, panel, n, out); return;
      case 6: panel_products<6, 1>(bi_e, panel, n, out); return;
      case 7: panel_products<7, 1>(bi_e, panel, n, out); return;
      case 8: panel_products<8, 1>(bi_e, panel, n, out); return;
      default: break;
    }
  }
  switch (et) {
    case 1: panel_products<1, NV>(bi_e, panel, n, out); break;
    case 2: panel_products<2, NV>(bi_e, panel, n, out); break;
    case 3: panel_products<3, NV>(bi_e, panel, n, out); break;
    default: panel_products<4, NV>(bi_e, panel, n, out); break;
  }
}

// trans[e][r] = sum over c = 1..n of x[r][c] * bi[e][c] (double sum in
// column order, stored as float) for e = 1..nel, r = 1..ncols, with the
// "Solve countdown" of one line per ten rows when ncols > 10.
void stored_matrix_products(float **bi, float **x, int ncols, float **trans) {
  const int n = totpnt;
  const bool shown = ncols > 10;
  const int nv = ncols <= 4 ? 1 : 2;  // four or eight source rows per panel
  const int rows_per_panel = 4 * nv;
  const int npanels = (ncols + rows_per_panel - 1) / rows_per_panel;
  const int tile_size = nv == 1 ? 8 : 4;  // electrodes per tile
  const int ntiles = (nel + tile_size - 1) / tile_size;
  const size_t panel_size = (size_t)n * rows_per_panel;

  // Panels are made and used group by group, so that the countdown lines
  // come while the work goes on; a group is big enough to keep the threads
  // busy.
  const double work_per_panel = (double)rows_per_panel * nel * n;
  int group = (int)std::min<double>(npanels, std::max(1.0, 3.0e7 / std::max(work_per_panel, 1.0)));
  if (group < 1) group = 1;
  float *panels = static_cast<float *>(malloc(sizeof(float) * std::max<size_t>(1, panel_size * group)));
  if (!panels) error("Out of memory in sphi2trans");

  for (int p0 = 0; p0 < npanels; p0 += group) {
    const int p1 = std::min(npanels, p0 + group);
    const int r_begin = p0 * rows_per_panel + 1, r_end = std::min(ncols, p1 * rows_per_panel);
    for (int r = r_begin; r <= r_end; r++)
      if (shown && (ncols - r) % 10 == 0) printf("Solve countdown:%5d\r", ncols - r);

    for (int p = p0; p < p1; p++) {
      float *panel = panels + (size_t)(p - p0) * panel_size;
      for (int q = 0; q < rows_per_panel; q++) {
        const int r = p * rows_per_panel + q + 1;
        if (r <= ncols) {
          const float *xr = x[r];
          for (int c = 1; c <= n; c++) panel[(size_t)(c - 1) * rows_per_panel + q] = xr[c];
        } else {
          for (int c = 1; c <= n; c++) panel[(size_t)(c - 1) * rows_per_panel + q] = 0.0f;
        }
      }
    }

    // One item: a tile of electrodes against every panel of the group, so
    // that the tile's rows of bi stay in the cache.
    parallel_for(ntiles, 1, threads_for(work_per_panel * (p1 - p0)), [&](int begin, int end) {
      for (int tile = begin; tile < end; tile++) {
        const int e0 = tile_size * tile + 1, et = std::min(tile_size, nel - e0 + 1);
        const float *bi_e[8];
        for (int e = 0; e < et; e++) bi_e[e] = bi[e0 + e];
        for (int p = p0; p < p1; p++) {
          double out[8][8];
          const float *panel = panels + (size_t)(p - p0) * panel_size;
          if (nv == 1)
            panel_products_any<1>(et, bi_e, panel, n, out);
          else
            panel_products_any<2>(et, bi_e, panel, n, out);
          for (int e = 0; e < et; e++)
            for (int q = 0; q < rows_per_panel; q++) {
              const int r = p * rows_per_panel + q + 1;
              if (r <= ncols) trans[e0 + e][r] = (float)out[e][q];
            }
        }
      }
    });
  }
  free(panels);
  if (shown) printf("\n");
}

// phi[e][t] for electrodes e of [e_begin, e_end): the float sum over the
// parameters in increasing order, eight samples and up to four electrodes
// at a time in vector lanes.
void forward_rows(float **trans, float **phi, float **d, int npar, int ntim, int e_begin, int e_end) {
  for (int e0 = e_begin; e0 < e_end; e0 += 4) {
    const int et = std::min(4, e_end - e0);
    int t = 1;
    for (; t + 7 <= ntim; t += 8) {
      v8f acc[4] = {};
      for (int p = 1; p <= npar; p++) {
        v8f dv;
        memcpy(&dv, &d[p][t], sizeof dv);
        for (int e = 0; e < et; e++) {
          const float tp = trans[e0 + e][p];
          const v8f tv = {tp, tp, tp, tp, tp, tp, tp, tp};
          acc[e] = acc[e] + dv * tv;
        }
      }
      for (int e = 0; e < et; e++) memcpy(&phi[e0 + e][t], &acc[e], sizeof acc[e]);
    }
    for (; t <= ntim; t++)
      for (int e = e0; e < e0 + et; e++) {
        float s = 0.0f;
        for (int p = 1; p <= npar; p++) s += d[p][t] * trans[e][p];
        phi[e][t] = s;
      }
  }
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
  stop_unless_written(binputmatrix("w0.tmp", w0, ncols, iso_totpnt));
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
    stored_matrix_products(bi, x, ncols, trans);
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
  const double work = (double)nel * ntim * npar;
  parallel_for(nel, 16, threads_for(work),
               [&](int begin, int end) { forward_rows(trans, phi, d, npar, ntim, begin + 1, end + 1); });
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
