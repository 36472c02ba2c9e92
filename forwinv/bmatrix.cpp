// Assembly of the boundary-element system matrix: solid-angle weights of
// every vertex against every triangle, the nesting of the interfaces found
// on the way, their outer conductivities, deflation, and the sub-model of an
// isolated-source interface.
#include "forwinv/bmatrix.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "geometry/solangle.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"

namespace {

const double INV_TWO_PI = 0.15915494309189535;  // weights are fractions of 2 pi
const double FAR_TRIANGLE = 0.1;                // below this solid angle: equal split

[[noreturn]] void fatal() { error(errmsg); }

// A triangle naming a vertex its surface does not have would send the
// assembly outside the matrix; refuse the model instead.
void check_triangles(const Interface &g) {
  for (int t = 0; t < g.ndhk; t++)
    for (int m = 0; m < 3; m++)
      if (g.dhk[t][m] < 0 || g.dhk[t][m] >= g.npnt) {
        snprintf(errmsg, ERRMSG_SIZE, "triangle %d of %s refers to a vertex that does not exist", t + 1, g.name);
        fatal();
      }
}

// Sum of row r over columns c0 .. c0+n-1, in double so that the closure
// tests and the diagonal correction do not suffer from float rounding.
double row_sum(const float *row, int c0, int n) {
  double s = 0.0;
  for (int c = c0; c < c0 + n; c++) s += row[c];
  return s;
}

// Own-vertex entry of a diagonal-block row, from the cone spanned by the ring
// of neighbours (apex at the vertex x, base a circle of the ring's mean
// radius), then whatever the discretisation lost goes to the neighbours so
// that the row totals 2 pi of solid angle (1 in units of 2 pi).  centre is
// the sum of the neighbour positions (each counted twice), mark[v] flags the
// nneighb neighbours among the nj vertices of g, whose columns start at cj.
void own_vertex_entry(float *row, int r, int cj, const Interface &g, int nj, const int *mark,
                      const double centre[3], int nneighb, const double x[3]) {
  double m[3];
  for (int c = 0; c < 3; c++) m[c] = centre[c] / (2.0 * nneighb);
  double spread = 0.0;
  for (int v = 0; v < nj; v++)
    if (mark[v])
      for (int c = 0; c < 3; c++) {
        const double dv = g.pnt[v][c] - m[c];
        spread += dv * dv;
      }
  const double rad = std::sqrt(spread / nneighb);
  double h2 = 0.0;
  for (int c = 0; c < 3; c++) h2 += (x[c] - m[c]) * (x[c] - m[c]);
  const double q = rad / std::sqrt(rad * rad + h2);
  const double theta = 2.0 * std::acos(q);
  row[r] = (float)(theta <= 0.0001 ? theta / 4.0 : 2.0 * (1.0 - q) / theta);
  const double extra = (1.0 - row_sum(row, cj, nj)) / nneighb;
  for (int v = 0; v < nj; v++)
    if (mark[v]) row[cj + v] = (float)(row[cj + v] + extra);
}

}  // namespace

// i: index into geo (i <= 0 gives 1).
// Returns the global one-based number of the first vertex of interface i.
int get_offset(int i) {
  int off = 1;
  for (int k = 0; k < i && k < MAXGEO; k++) off += geo[k].npnt;
  return off;
}

namespace {

// The countdown of block (i, j): shown in the diagonal blocks and the first
// off-diagonal ones, a line every ten rows of the whole matrix, marked with
// the pass when there is more than one interface.
struct BlockCountdown {
  bool shown;
  const char *end;
  BlockCountdown(int i, int j)
      : shown(i == j || j == 0 || (j == 1 && i == 0)),
        end(ngeo == 1 ? "\r" : (i == j ? " (pass 1)\r" : " (pass 2)\r")) {}
  void row(int r) const {
    if (shown && (totpnt - r) % 10 == 0) printf(" Bmat countdown:%5d%s", totpnt - r, end);
  }
};

// The plain sequential assembly of one block: the rows one after the other,
// each classified as soon as it is made.  The threaded version below must
// give the same bits, the same output and the same first fault.
void b_submatrix_reference(int i, int j) {
  const Interface &gi = geo[i];
  const Interface &gj = geo[j];
  const int ri = get_offset(i), cj = get_offset(j);
  const int ni = gi.npnt, nj = gj.npnt;
  const bool diagonal = i == j;
  const BlockCountdown countdown(i, j);

  check_triangles(gj);

  int state = -1;  // containment of i in j: unknown until a vertex decides
  bool met_coincident = false;
  bool again;
  do {
    again = false;
    for (int k = 0; k < ni; k++) memset(&b[ri + k][cj], 0, sizeof(float) * nj);
    int *mark = ivector(0, ni > 0 ? ni - 1 : 0);
    if (!mark) error("cannot allocate vector member");

    for (int k = 0; k < ni; k++) {
      const int r = ri + k;
      countdown.row(r);

      float *row = b[r];
      const double x[3] = {gi.pnt[k][0], gi.pnt[k][1], gi.pnt[k][2]};
      int nneighb = 0;
      double centre[3] = {0.0, 0.0, 0.0};
      bool coincident = false;
      if (diagonal) memset(mark, 0, sizeof(int) * (ni > 0 ? ni : 1));

      for (int t = 0; t < gj.ndhk; t++) {
        const int32_t *tri = gj.dhk[t];
        if (diagonal) {
          // The triangles around the vertex itself carry no solid angle;
          // they describe its neighbourhood for the own-vertex term.
          const int p = tri[0] == k ? 0 : tri[1] == k ? 1 : tri[2] == k ? 2 : -1;
          if (p >= 0) {
            const int v1 = tri[(p + 1) % 3], v2 = tri[(p + 2) % 3];
            mark[v1] = mark[v2] = 1;
            nneighb++;
            for (int c = 0; c < 3; c++) centre[c] += (double)gj.pnt[v1][c] + (double)gj.pnt[v2][c];
            continue;
          }
        }
        double y[3][3];
        for (int m = 0; m < 3; m++)
          for (int c = 0; c < 3; c++) y[m][c] = (double)gj.pnt[tri[m]][c] - x[c];
        int zero = -1;
        for (int m = 0; m < 3 && zero < 0; m++)
          if (y[m][0] == 0.0 && y[m][1] == 0.0 && y[m][2] == 0.0) zero = m;
        if (zero >= 0) {
          if (diagonal) {
            snprintf(errmsg, ERRMSG_SIZE, "double vertex at %s", gi.name);
            fatal();
          }
          // A vertex of i on a vertex of j sees j as that vertex does, plus
          // or minus the half of the full angle that lies on its own side.
          const int v = tri[zero];
          memcpy(&row[cj], &b[cj + v][cj], sizeof(float) * nj);
          row[cj + v] += state == 2 ? 1.0f : -1.0f;
          coincident = true;
          met_coincident = true;
          break;
        }
        double w1, w2, w3;
        if (!solangle(y[0], y[1], y[2], &w1, &w2, &w3, FAR_TRIANGLE)) {
          snprintf(errmsg, ERRMSG_SIZE, "during computation of B-matrix;\n vertex %d of %s touches triangle %d of %s",
                   k + 1, gi.name, t + 1, gj.name);
          fatal();
        }
        float *e0 = &row[cj + tri[0]], *e1 = &row[cj + tri[1]], *e2 = &row[cj + tri[2]];
        *e0 = (float)(*e0 + w1 * INV_TWO_PI);
        *e1 = (float)(*e1 + w2 * INV_TWO_PI);
        *e2 = (float)(*e2 + w3 * INV_TWO_PI);
      }

      if (diagonal) {
        if (nneighb == 0) {
          snprintf(errmsg, ERRMSG_SIZE, "vertex %d of %s belongs to no triangle", k + 1, gi.name);
          fatal();
        }
        own_vertex_entry(row, r, cj, gj, nj, mark, centre, nneighb, x);
        geocon[i][i] = 1;
        state = 1;
        continue;
      }

      const double s = row_sum(row, cj, nj);
      if (state < 0) {
        if (coincident) continue;  // cannot tell the side; the next vertex decides
        if (s < -0.01 || (0.01 < s && s < 1.99) || s > 2.01) {
          snprintf(errmsg, ERRMSG_SIZE,
                   " interface %s is not a single closed surface\n (totsolangle=%8.4lf from vertex %d of %s )\n",
                   gj.name, s, k + 1, gi.name);
          fatal();
        }
        geocon[i][j] = s >= 1.0 ? 2 : 0;
        state = geocon[i][j];
        // Earlier coincident vertices were taken as outside; redo the block
        // now that the side is known.
        if (k > 0 && state == 2) {
          again = true;
          break;
        }
      } else if ((s < 0.1 && geocon[i][j] != 0) || (0.1 < s && s < 1.9 && geocon[i][j] != 1) ||
                 (s > 1.9 && geocon[i][j] != 2)) {
        snprintf(errmsg, ERRMSG_SIZE, " interface %s and %s intersect \n at vertex %d of %s\n%s", gi.name, gj.name,
                 k + 1, gi.name,
                 met_coincident ? " (an interface that is contained within another one may not touch it)\n" : "");
        fatal();
      }
    }
    ifree_vector(mark, 0, ni > 0 ? ni - 1 : 0);
  } while (again);

  if (state < 0) {
    snprintf(errmsg, ERRMSG_SIZE, " could not find a vertex of %s that does not touch %s", gi.name, gj.name);
    fatal();
  }
}

// The threaded assembly of one block.  The rows are made by a pool of
// threads (the caller included) in any order; the caller walks them in row
// order, printing the countdown, copying the rows of coincident vertices,
// classifying and checking exactly as the plain version does, so that the
// output, the containment found and the first fault are the same.

// How the making of one row ended.
enum RowKind { ROW_MADE, ROW_COINCIDENT, ROW_DOUBLE_VERTEX, ROW_TOUCHES, ROW_NO_TRIANGLE };

struct RowResult {
  int kind = ROW_MADE;
  int triangle = 0;  // ROW_TOUCHES: zero-based triangle of j
  int vertex = 0;    // ROW_COINCIDENT: the vertex of j the row's vertex sits on
  double sum = 0.0;  // off-diagonal ROW_MADE: the row's sum over the block
};

// Per-thread work space.
struct RowScratch {
  int *mark = nullptr;      // [0..nj-1] neighbours of the row's vertex (diagonal)
  double *y = nullptr;      // [0..3nj-1] every vertex of j minus the row's vertex
  double *len = nullptr;    // [0..nj-1] their lengths
  int *zero = nullptr;      // [0..nj-1] vertices of j on the row's vertex, in index order
};

struct Block {
  int i, j, ri, cj, ni, nj;
  bool diagonal;
  const Interface *gi, *gj;
  const double *pj;  // vertices of j in double, three per vertex
};

// Row k of block bk into b (the block's columns only), with the scratch s
// of the calling thread.  Never prints and never ends the process: a fault
// is reported in the result for the caller to raise in row order.
void make_row(const Block &bk, int k, RowScratch &s, RowResult &res) {
  const Interface &gi = *bk.gi, &gj = *bk.gj;
  const int nj = bk.nj, cj = bk.cj;
  const int r = bk.ri + k;
  float *row = b[r];
  memset(&row[cj], 0, sizeof(float) * nj);
  res = RowResult();

  // Every vertex of j seen from x once per row, rather than three times per
  // triangle: the differences and lengths are the ones solangle would form.
  const double x[3] = {gi.pnt[k][0], gi.pnt[k][1], gi.pnt[k][2]};
  int nzero = 0;
  for (int v = 0; v < nj; v++) {
    double *yv = &s.y[3 * v];
    for (int c = 0; c < 3; c++) yv[c] = bk.pj[3 * v + c] - x[c];
    s.len[v] = solangle_length(yv);
    // The row's own vertex in a diagonal block only ever meets triangles
    // that are skipped below, so it needs no test.
    if (yv[0] == 0.0 && yv[1] == 0.0 && yv[2] == 0.0 && !(bk.diagonal && v == k)) s.zero[nzero++] = v;
  }
  auto on_vertex = [&](int v) {
    for (int z = 0; z < nzero; z++)
      if (s.zero[z] == v) return true;
    return false;
  };

  int nneighb = 0;
  double centre[3] = {0.0, 0.0, 0.0};
  if (bk.diagonal) memset(s.mark, 0, sizeof(int) * nj);

  for (int t = 0; t < gj.ndhk; t++) {
    const int32_t *tri = gj.dhk[t];
    if (bk.diagonal) {
      const int p = tri[0] == k ? 0 : tri[1] == k ? 1 : tri[2] == k ? 2 : -1;
      if (p >= 0) {
        const int v1 = tri[(p + 1) % 3], v2 = tri[(p + 2) % 3];
        s.mark[v1] = s.mark[v2] = 1;
        nneighb++;
        for (int c = 0; c < 3; c++) centre[c] += bk.pj[3 * v1 + c] + bk.pj[3 * v2 + c];
        continue;
      }
    }
    if (nzero > 0) {
      int zero = -1;
      for (int m = 0; m < 3 && zero < 0; m++)
        if (on_vertex(tri[m])) zero = m;
      if (zero >= 0) {
        if (bk.diagonal) {
          res.kind = ROW_DOUBLE_VERTEX;
        } else {
          res.kind = ROW_COINCIDENT;
          res.vertex = tri[zero];
        }
        return;
      }
    }
    double w1, w2, w3;
    const int a = tri[0], bv = tri[1], c = tri[2];
    if (!solangle_lengths(&s.y[3 * a], &s.y[3 * bv], &s.y[3 * c], s.len[a], s.len[bv], s.len[c], &w1, &w2, &w3,
                          FAR_TRIANGLE)) {
      res.kind = ROW_TOUCHES;
      res.triangle = t;
      return;
    }
    float *e0 = &row[cj + a], *e1 = &row[cj + bv], *e2 = &row[cj + c];
    *e0 = (float)(*e0 + w1 * INV_TWO_PI);
    *e1 = (float)(*e1 + w2 * INV_TWO_PI);
    *e2 = (float)(*e2 + w3 * INV_TWO_PI);
  }

  if (!bk.diagonal) {
    res.sum = row_sum(row, cj, nj);
    return;
  }
  if (nneighb == 0) {
    res.kind = ROW_NO_TRIANGLE;
    return;
  }
  own_vertex_entry(row, r, cj, gj, nj, s.mark, centre, nneighb, x);
}

// Rows of one block made by a pool of threads and handed to the caller in
// row order.  The caller takes part: while the row it waits for is not
// ready it makes the next row nobody has taken yet.
class RowPool {
 public:
  RowPool(const Block &bk, int nthreads) : bk_(bk), results_(bk.ni), ready_(bk.ni, 0) {
    scratch_.resize(nthreads);
    for (RowScratch &s : scratch_) {
      const int n = bk.nj > 0 ? bk.nj : 1;
      s.mark = ivector(0, n - 1);
      s.y = dvector(0, 3 * n - 1);
      s.len = dvector(0, n - 1);
      s.zero = ivector(0, n - 1);
      if (!s.mark || !s.y || !s.len || !s.zero) error("cannot allocate vector member");
    }
    // A thread the system refuses only means fewer helpers: the caller
    // makes whatever rows nobody else takes.
    try {
      for (int t = 1; t < nthreads; t++) workers_.emplace_back([this, t] { work(scratch_[t]); });
    } catch (const std::system_error &) {
    }
  }

  ~RowPool() { stop(); }

  // Stop handing out rows and wait for the rows under way; then free the
  // work space.  Called before a fault ends the process, so that no thread
  // still writes into b.
  void stop() {
    stopping_.store(true);
    for (std::thread &w : workers_) w.join();
    workers_.clear();
    for (RowScratch &s : scratch_) {
      const int n = bk_.nj > 0 ? bk_.nj : 1;
      if (s.mark) ifree_vector(s.mark, 0, n - 1);
      if (s.y) free_dvector(s.y, 0, 3 * n - 1);
      if (s.len) free_dvector(s.len, 0, n - 1);
      if (s.zero) ifree_vector(s.zero, 0, n - 1);
      s = RowScratch();
    }
  }

  // Row k, once it is made.
  const RowResult &row(int k) {
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (ready_[k]) break;
      }
      const int m = next_.fetch_add(1);
      if (m < bk_.ni) {
        make(m, scratch_[0]);
        continue;
      }
      std::unique_lock<std::mutex> lock(mutex_);
      made_.wait(lock, [&] { return ready_[k] != 0; });
      break;
    }
    return results_[k];
  }

 private:
  void make(int k, RowScratch &s) {
    make_row(bk_, k, s, results_[k]);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ready_[k] = 1;
    }
    made_.notify_one();
  }

  void work(RowScratch &s) {
    while (!stopping_.load()) {
      const int k = next_.fetch_add(1);
      if (k >= bk_.ni) return;
      make(k, s);
    }
  }

  const Block &bk_;
  std::vector<RowResult> results_;
  std::vector<char> ready_;  // guarded by mutex_
  std::vector<RowScratch> scratch_;
  std::vector<std::thread> workers_;
  std::atomic<int> next_{0};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::condition_variable made_;
};

// A fault found in the walk: let the threads finish, then end the process.
[[noreturn]] void fail(RowPool &pool) {
  pool.stop();
  fatal();
}

void b_submatrix_threaded(int i, int j) {
  const Interface &gi = geo[i];
  const Interface &gj = geo[j];
  const int ri = get_offset(i), cj = get_offset(j);
  const int ni = gi.npnt, nj = gj.npnt;
  const bool diagonal = i == j;
  const BlockCountdown countdown(i, j);

  check_triangles(gj);

  int state = -1;
  bool met_coincident = false;
  if (ni > 0) {
    double *pj = dvector(0, 3 * (nj > 0 ? nj : 1) - 1);
    if (!pj) error("cannot allocate vector member");
    for (int v = 0; v < nj; v++)
      for (int c = 0; c < 3; c++) pj[3 * v + c] = gj.pnt[v][c];
    const Block bk = {i, j, ri, cj, ni, nj, diagonal, &gi, &gj, pj};
    RowPool pool(bk, std::min(assembly_threads(), ni));

    // The walk in row order; a containment found only after coincident
    // rows were taken as outside walks the block again (the rows themselves
    // do not change, only the coincident ones are copied anew).
    bool again;
    do {
      again = false;
      for (int k = 0; k < ni; k++) {
        const int r = ri + k;
        countdown.row(r);
        const RowResult &res = pool.row(k);
        float *row = b[r];
        bool coincident = false;
        switch (res.kind) {
          case ROW_DOUBLE_VERTEX:
            snprintf(errmsg, ERRMSG_SIZE, "double vertex at %s", gi.name);
            fail(pool);
          case ROW_TOUCHES:
            snprintf(errmsg, ERRMSG_SIZE,
                     "during computation of B-matrix;\n vertex %d of %s touches triangle %d of %s", k + 1, gi.name,
                     res.triangle + 1, gj.name);
            fail(pool);
          case ROW_NO_TRIANGLE:
            snprintf(errmsg, ERRMSG_SIZE, "vertex %d of %s belongs to no triangle", k + 1, gi.name);
            fail(pool);
          case ROW_COINCIDENT:
            memcpy(&row[cj], &b[cj + res.vertex][cj], sizeof(float) * nj);
            row[cj + res.vertex] += state == 2 ? 1.0f : -1.0f;
            coincident = true;
            met_coincident = true;
            break;
          default:
            break;
        }
        if (diagonal) {
          geocon[i][i] = 1;
          state = 1;
          continue;
        }
        const double s = coincident ? row_sum(row, cj, nj) : res.sum;
        if (state < 0) {
          if (coincident) continue;
          if (s < -0.01 || (0.01 < s && s < 1.99) || s > 2.01) {
            snprintf(errmsg, ERRMSG_SIZE,
                     " interface %s is not a single closed surface\n (totsolangle=%8.4lf from vertex %d of %s )\n",
                     gj.name, s, k + 1, gi.name);
            fail(pool);
          }
          geocon[i][j] = s >= 1.0 ? 2 : 0;
          state = geocon[i][j];
          if (k > 0 && state == 2) {
            again = true;
            break;
          }
        } else if ((s < 0.1 && geocon[i][j] != 0) || (0.1 < s && s < 1.9 && geocon[i][j] != 1) ||
                   (s > 1.9 && geocon[i][j] != 2)) {
          snprintf(errmsg, ERRMSG_SIZE, " interface %s and %s intersect \n at vertex %d of %s\n%s", gi.name,
                   gj.name, k + 1, gi.name,
                   met_coincident ? " (an interface that is contained within another one may not touch it)\n" : "");
          fail(pool);
        }
      }
    } while (again);
    pool.stop();
    free_dvector(pj, 0, 3 * (nj > 0 ? nj : 1) - 1);
  }

  if (state < 0) {
    snprintf(errmsg, ERRMSG_SIZE, " could not find a vertex of %s that does not touch %s", gi.name, gj.name);
    fatal();
  }
}

}  // namespace

// i, j: indices into geo; rows are the vertices of i, columns those of j.
// On input the rows of b belonging to the diagonal block of j must hold the
// finished geometric weights when i != j (vertices of i that coincide with a
// vertex of j borrow that vertex's row).
// On output the block of b holds the geometric weights (a fraction of 2 pi
// per basis vertex) and geocon[i][j] the nesting: 1 on the diagonal, 2 when
// the vertices of i lie inside j, 0 when outside.  Faults are fatal.
void b_submatrix(int i, int j) {
  if (assembly_reference())
    b_submatrix_reference(i, j);
  else
    b_submatrix_threaded(i, j);
}

// Reads geocon and every sigma_in; on output each sigma_out holds the
// sigma_in of the interface that directly encloses it (0 for none).
void sigma() {
  for (int i = 0; i < ngeo; i++) {
    geo[i].sigma_out = 0.0f;
    for (int j = 0; j < ngeo; j++) {
      if (j == i || geocon[i][j] != 2) continue;
      // j encloses i directly when no third interface lies between them.
      bool direct = true;
      for (int k = 0; k < ngeo && direct; k++)
        if (k != i && k != j && geocon[i][k] != geocon[j][k]) direct = false;
      if (direct) {
        geo[i].sigma_out = geo[j].sigma_in;
        break;
      }
    }
  }
}

// table: n interfaces with sigma_in and sigma_out filled; their nesting is
//   read from geocon with the table's own indices.
// f: on output f[i][j] for i, j < n: 1 on the diagonal, 0 where i does not
//   lie inside j, else the factor that removes the constant-potential
//   ambiguity for the pair (left as it was where a denominator vanishes).
void get_deflat(Interface *table, int n, float f[][MAXGEO]) {
  int *ksurf = ivector(0, n > 0 ? n - 1 : 0);
  if (!ksurf) error("Connot allocate array ksurf");
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      if (i == j) {
        f[i][j] = 1.0f;
        continue;
      }
      if (geocon[i][j] != 2) {
        f[i][j] = 0.0f;
        continue;
      }
      int nk = 0;  // the interfaces between i and j, in index order
      for (int k = 0; k < n; k++)
        if (geocon[i][k] == 2 && geocon[k][j] == 2) ksurf[nk++] = k;
      const float sin_i = table[i].sigma_in, sout_i = table[i].sigma_out;
      const float sin_j = table[j].sigma_in, sout_j = table[j].sigma_out;
      const float den = sout_i * sin_j - sin_i * sout_j;
      if (den == 0.0f) continue;
      float fac = (sin_j * sin_j - sout_j * sout_j) / den;
      bool complete = true;
      for (int m = 0; m < nk; m++) {
        const Interface &g = table[ksurf[m]];
        const float e = g.sigma_out * sin_j - g.sigma_in * sout_j;
        if (e == 0.0f) {
          complete = false;
          break;
        }
        fac = fac * (g.sigma_in * sin_j - g.sigma_out * sout_j) / e;
      }
      if (complete) f[i][j] = fac;
    }
  ifree_vector(ksurf, 0, n > 0 ? n - 1 : 0);
}

// table: the n interfaces whose vertices number the rows and columns of m.
// npoints: the order of m (the sum of their npnt).
// f: deflation factors from get_deflat.
// m: on input the geometric weights, on output the system matrix I - C,
//   with the conductivity contrasts and the deflation applied block by block.
void b_transform(Interface *table, int n, int npoints, float f[][MAXGEO], float **m) {
  int r0 = 1;
  for (int i = 0; i < n; i++) {
    const int ni = table[i].npnt;
    const float sum_i = table[i].sigma_in + table[i].sigma_out;
    int c0 = 1;
    for (int j = 0; j < n; j++) {
      const int nj = table[j].npnt;
      const float jump = table[j].sigma_in - table[j].sigma_out;
      const float scale = jump / sum_i;
      const float deflation = f[i][j] * jump / (table[j].sigma_in + table[j].sigma_out) / (float)nj;
      for (int r = r0; r < r0 + ni; r++) {
        float *row = m[r];
        for (int c = c0; c < c0 + nj; c++) row[c] = row[c] * scale - deflation;
      }
      c0 += nj;
    }
    r0 += ni;
  }
  for (int r = 1; r <= npoints; r++) {
    float *row = m[r];
    for (int c = 1; c <= npoints; c++) row[c] = -row[c];
    row[r] += 1.0f;
  }
}

// Reads geo, ngeo, totpnt and iso_sur; b must be allocated totpnt x totpnt.
// On output b holds the system matrix, geocon the nesting, every sigma_out
// the conductivity outside, deflat the deflation factors, and with an
// isolated-source interface iso_geo, iso_ngeo, iso_index, iso_totpnt,
// iso_deflat and iso_b the same for its sub-model.
void b_matrix() {
  for (int i = 0; i < ngeo; i++) b_submatrix(i, i);
  for (int i = 0; i < ngeo; i++)
    for (int j = 0; j < ngeo; j++)
      if (i != j) b_submatrix(i, j);

  for (int i = 0; i < ngeo; i++)
    for (int j = i + 1; j < ngeo; j++)
      if (geocon[i][j] == 2 && geocon[j][i] == 2) {
        snprintf(errmsg, ERRMSG_SIZE,
                 "geometry consistency error;\n %s is contained within %s as well as vise versa.\nProbably %s and %s "
                 "coincide\n",
                 geo[i].name, geo[j].name, geo[i].name, geo[j].name);
        fatal();
      }

  int outside = -1;
  for (int i = 0; i < ngeo; i++) {
    bool inside = false;
    for (int j = 0; j < ngeo; j++)
      if (j != i && geocon[i][j] == 2) inside = true;
    if (inside) continue;
    if (outside >= 0) {
      snprintf(errmsg, ERRMSG_SIZE, "%s and %s are both at the outside\n There may only be one interface at the outside",
               geo[outside].name, geo[i].name);
      fatal();
    }
    outside = i;
  }

  sigma();
  get_deflat(geo, ngeo, deflat);

  if (iso_sur == -1) {
    b_transform(geo, ngeo, totpnt, deflat, b);
    printf("\n");
    return;
  }
  if (iso_sur < 0 || iso_sur >= ngeo) {
    snprintf(errmsg, ERRMSG_SIZE, "isolated source interface %d does not exist", iso_sur + 1);
    fatal();
  }

  const int s = iso_sur;
  bool enclosed = false;
  for (int j = 0; j < ngeo; j++)
    if (j != s && geocon[s][j] == 2) enclosed = true;
  if (!enclosed) {
    snprintf(errmsg, ERRMSG_SIZE,
             "The isolated source interface (%s) \n   should be contained within at least one other interface",
             geo[s].name);
    fatal();
  }
  iso_ngeo = 1;
  iso_index[0] = s;
  iso_geo[0] = geo[s];
  iso_geo[0].sigma_out = 0.0f;
  for (int j = 1; j < ngeo; j++)
    if (j != s && geocon[j][s] != 0) error("The isolated source interface should be the innermost one");
  iso_totpnt = geo[s].npnt;
  for (int j = 0; j < ngeo; j++)
    if (j != s && geocon[j][s] != 0) {
      iso_geo[iso_ngeo] = geo[j];
      iso_index[iso_ngeo] = j;
      iso_totpnt += geo[j].npnt;
      iso_ngeo++;
    }

  iso_b = matrix(1, iso_totpnt, 1, iso_totpnt);
  if (!iso_b) error("cannot allocate isolated source b-matrix");
  // The sub-model's geometric blocks are those of the full model.
  int r0 = 1;
  for (int a = 0; a < iso_ngeo; a++) {
    const int ra = get_offset(iso_index[a]), na = iso_geo[a].npnt;
    int c0 = 1;
    for (int c = 0; c < iso_ngeo; c++) {
      const int cc = get_offset(iso_index[c]), nc = iso_geo[c].npnt;
      for (int k = 0; k < na; k++) memcpy(&iso_b[r0 + k][c0], &b[ra + k][cc], sizeof(float) * nc);
      c0 += nc;
    }
    r0 += na;
  }
  get_deflat(iso_geo, iso_ngeo, iso_deflat);
  b_transform(iso_geo, iso_ngeo, iso_totpnt, iso_deflat, iso_b);
  printf("\nIsolated source part: %d compartments, %d vertices.\n\n", iso_ngeo, iso_totpnt);

  b_transform(geo, ngeo, totpnt, deflat, b);
  printf("\n");
}
