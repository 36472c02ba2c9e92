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
#include "geometry/solangle_batch.h"
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
// Four running sums, added up at the end, keep the adder busy instead of
// waiting for each addition in turn.
double row_sum(const float *row, int c0, int n) {
  double s[4] = {0.0, 0.0, 0.0, 0.0};
  const int end = c0 + n, body = c0 + n / 4 * 4;
  int c = c0;
  for (; c < body; c += 4)
    for (int k = 0; k < 4; k++) s[k] += row[c + k];
  for (; c < end; c++) s[0] += row[c];
  return (s[0] + s[1]) + (s[2] + s[3]);
}

// The ring of neighbours of a vertex: each vertex once, in increasing
// order (the order in which the own-vertex entry adds them up).
struct Ring {
  int count = 0;      // distinct neighbours
  int triangles = 0;  // triangles around the vertex
  double centre[3] = {0.0, 0.0, 0.0};  // sum of the neighbours of every triangle
  int *v = nullptr;   // [0..capacity-1]
  int capacity = 0;

  // Triangle around the vertex with the other corners v1, v2 at p1, p2.
  void add(int v1, int v2, const double *p1, const double *p2) {
    triangles++;
    for (int c = 0; c < 3; c++) centre[c] += p1[c] + p2[c];
    insert(v1);
    insert(v2);
  }
  void insert(int w) {
    int k = count;
    while (k > 0 && v[k - 1] > w) k--;
    if (k > 0 && v[k - 1] == w) return;
    if (count == capacity) return;  // cannot happen: at most one entry per vertex
    for (int m = count; m > k; m--) v[m] = v[m - 1];
    v[k] = w;
    count++;
  }
};

// Own-vertex entry of a diagonal-block row, from the cone spanned by the ring
// of neighbours (apex at the vertex x, base a circle of the ring's mean
// radius), then whatever the discretisation lost goes to the neighbours so
// that the row totals 2 pi of solid angle (1 in units of 2 pi).  The nj
// vertices of g have their columns from cj on.
void own_vertex_entry(float *row, int r, int cj, const Interface &g, int nj, const Ring &ring, const double x[3]) {
  double m[3];
  for (int c = 0; c < 3; c++) m[c] = ring.centre[c] / (2.0 * ring.triangles);
  double spread = 0.0;
  for (int k = 0; k < ring.count; k++)
    for (int c = 0; c < 3; c++) {
      const double dv = g.pnt[ring.v[k]][c] - m[c];
      spread += dv * dv;
    }
  const double rad = std::sqrt(spread / ring.triangles);
  double h2 = 0.0;
  for (int c = 0; c < 3; c++) h2 += (x[c] - m[c]) * (x[c] - m[c]);
  const double q = rad / std::sqrt(rad * rad + h2);
  const double theta = 2.0 * std::acos(q);
  row[r] = (float)(theta <= 0.0001 ? theta / 4.0 : 2.0 * (1.0 - q) / theta);
  const double extra = (1.0 - row_sum(row, cj, nj)) / ring.triangles;
  for (int k = 0; k < ring.count; k++) row[cj + ring.v[k]] = (float)(row[cj + ring.v[k]] + extra);
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
    int *ring_space = ivector(0, ni > 0 ? ni - 1 : 0);
    if (!ring_space) error("cannot allocate vector member");

    for (int k = 0; k < ni; k++) {
      const int r = ri + k;
      countdown.row(r);

      float *row = b[r];
      const double x[3] = {gi.pnt[k][0], gi.pnt[k][1], gi.pnt[k][2]};
      Ring ring;
      ring.v = ring_space;
      ring.capacity = ni;
      bool coincident = false;

      for (int t = 0; t < gj.ndhk; t++) {
        const int32_t *tri = gj.dhk[t];
        if (diagonal) {
          // The triangles around the vertex itself carry no solid angle;
          // they describe its neighbourhood for the own-vertex term.
          const int p = tri[0] == k ? 0 : tri[1] == k ? 1 : tri[2] == k ? 2 : -1;
          if (p >= 0) {
            const int v1 = tri[(p + 1) % 3], v2 = tri[(p + 2) % 3];
            const double p1[3] = {gj.pnt[v1][0], gj.pnt[v1][1], gj.pnt[v1][2]};
            const double p2[3] = {gj.pnt[v2][0], gj.pnt[v2][1], gj.pnt[v2][2]};
            ring.add(v1, v2, p1, p2);
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
        if (ring.triangles == 0) {
          snprintf(errmsg, ERRMSG_SIZE, "vertex %d of %s belongs to no triangle", k + 1, gi.name);
          fatal();
        }
        own_vertex_entry(row, r, cj, gj, nj, ring, x);
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
    ifree_vector(ring_space, 0, ni > 0 ? ni - 1 : 0);
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

// Per-thread work space, for up to ANGLE_SUMS_MAX_POINTS rows at once.
struct RowScratch {
  int *rings = nullptr;   // [0 .. MAX nj - 1] neighbours of each row's vertex (diagonal), nj apiece
  double *len = nullptr;  // [0 .. MAX nj - 1] distances, for angle_sums
  float *acc = nullptr;   // [0 .. MAX nj - 1] sums, for angle_sums
};

struct Block {
  int i, j, ri, cj, ni, nj;
  bool diagonal;
  const Interface *gi, *gj;
  const double *pj;    // vertices of j in double, three per vertex
  SurfaceLanes lanes;  // the surface j laid out for the vector kernels
};

// The pairs of a group of rows that are not simply far, treated exactly as
// the plain code treats them: the own triangles of the row's vertex (no
// angle; they make its ring), coincident and double vertices, points on a
// triangle (which end the row), near triangles (solangle's full weights).
class RowPairs : public NearPairs {
 public:
  RowPairs(const Block &bk, int k0, int n, RowScratch &s, RowResult *res) : bk_(bk), k0_(k0), res_(res) {
    for (int p = 0; p < n; p++) {
      const float *xk = bk.gi->pnt[k0 + p];
      for (int c = 0; c < 3; c++) x[p][c] = xk[c];
      ring[p].v = s.rings + p * bk.nj;
      ring[p].capacity = bk.nj;
      res[p] = RowResult();
    }
  }

  bool weights(int p, int t, double w[3]) override {
    const int k = k0_ + p;
    const int32_t *tri = bk_.gj->dhk[t];
    if (bk_.diagonal) {
      const int at = tri[0] == k ? 0 : tri[1] == k ? 1 : tri[2] == k ? 2 : -1;
      if (at >= 0) {
        const int v1 = tri[(at + 1) % 3], v2 = tri[(at + 2) % 3];
        ring[p].add(v1, v2, &bk_.pj[3 * v1], &bk_.pj[3 * v2]);
        w[0] = w[1] = w[2] = 0.0;
        return true;
      }
    }
    double y[3][3], l[3];
    int zero = -1;
    for (int m = 0; m < 3; m++) {
      for (int c = 0; c < 3; c++) y[m][c] = bk_.pj[3 * tri[m] + c] - x[p][c];
      l[m] = solangle_length(y[m]);
      if (zero < 0 && y[m][0] == 0.0 && y[m][1] == 0.0 && y[m][2] == 0.0) zero = m;
    }
    if (zero >= 0) {
      res_[p].kind = bk_.diagonal ? ROW_DOUBLE_VERTEX : ROW_COINCIDENT;
      res_[p].vertex = tri[zero];
      return false;
    }
    if (!solangle_lengths(y[0], y[1], y[2], l[0], l[1], l[2], &w[0], &w[1], &w[2], FAR_TRIANGLE)) {
      res_[p].kind = ROW_TOUCHES;
      res_[p].triangle = t;
      return false;
    }
    return true;
  }

  double x[ANGLE_SUMS_MAX_POINTS][3];
  Ring ring[ANGLE_SUMS_MAX_POINTS];

 private:
  const Block &bk_;
  int k0_;
  RowResult *res_;
};

// Rows k0 .. k0+n-1 of block bk into b (the block's columns only), n at
// most angle_sums_points(), with the scratch s of the calling thread.
// Never prints and never ends the process: a fault is reported in the
// results res[0 .. n-1] for the caller to raise in row order.
void make_rows(const Block &bk, int k0, int n, RowScratch &s, RowResult *res) {
  const int nj = bk.nj, cj = bk.cj;
  RowPairs pairs(bk, k0, n, s, res);
  float *out[ANGLE_SUMS_MAX_POINTS] = {};
  for (int p = 0; p < n; p++) out[p] = b[bk.ri + k0 + p] + cj;
  angle_sums(bk.lanes, pairs.x, n, FAR_TRIANGLE, INV_TWO_PI, pairs, out, s.len, s.acc);
  for (int p = 0; p < n; p++) {
    if (res[p].kind != ROW_MADE) continue;
    float *row = b[bk.ri + k0 + p];
    if (!bk.diagonal) {
      res[p].sum = row_sum(row, cj, nj);
    } else if (pairs.ring[p].triangles == 0) {
      res[p].kind = ROW_NO_TRIANGLE;
    } else {
      own_vertex_entry(row, bk.ri + k0 + p, cj, *bk.gj, nj, pairs.ring[p], pairs.x[p]);
    }
  }
}

// Rows of one block made by a pool of threads, a group of rows at a time
// (as many as the vector kernels see together), and handed to the caller
// in row order.  The caller takes part: while the row it waits for is not
// ready it makes the next group nobody has taken yet.
class RowPool {
 public:
  RowPool(const Block &bk, int nthreads)
      : bk_(bk), group_(angle_sums_points()), results_(bk.ni), ready_(bk.ni, 0) {
    scratch_.resize(nthreads);
    for (RowScratch &s : scratch_) {
      s.rings = ivector(0, space() - 1);
      s.len = dvector(0, space() - 1);
      s.acc = vector(0, space() - 1);
      if (!s.rings || !s.len || !s.acc) error("cannot allocate vector member");
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
      if (s.rings) ifree_vector(s.rings, 0, space() - 1);
      if (s.len) free_dvector(s.len, 0, space() - 1);
      if (s.acc) free_vector(s.acc, 0, space() - 1);
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
      const int g = next_.fetch_add(1);
      if (g * group_ < bk_.ni) {
        make(g, scratch_[0]);
        continue;
      }
      std::unique_lock<std::mutex> lock(mutex_);
      made_.wait(lock, [&] { return ready_[k] != 0; });
      break;
    }
    return results_[k];
  }

 private:
  // Entries of each work array (at least one).
  int space() const { return ANGLE_SUMS_MAX_POINTS * (bk_.nj > 0 ? bk_.nj : 1); }

  void make(int g, RowScratch &s) {
    const int k0 = g * group_, n = std::min(group_, bk_.ni - k0);
    make_rows(bk_, k0, n, s, &results_[k0]);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (int k = k0; k < k0 + n; k++) ready_[k] = 1;
    }
    made_.notify_all();
  }

  void work(RowScratch &s) {
    while (!stopping_.load()) {
      const int g = next_.fetch_add(1);
      if (g * group_ >= bk_.ni) return;
      make(g, s);
    }
  }

  const Block &bk_;
  const int group_;  // rows made together
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
    Block bk = {i, j, ri, cj, ni, nj, diagonal, &gi, &gj, pj, SurfaceLanes()};
    if (!surface_lanes_make(&bk.lanes, gj.pnt, nj, gj.dhk, gj.ndhk)) error("cannot allocate vector member");
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
    surface_lanes_free(&bk.lanes);
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

namespace {

// p[0 .. n-1] = -(p * scale - deflation): one block row of the transform,
// negated for I - C.  Vectorised by the compiler; each value is still one
// rounded product and one rounded difference.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("tree-vectorize", "vect-cost-model=dynamic")))
#endif
void transform_part(float *p, int n, float scale, float deflation) {
  for (int c = 0; c < n; c++) p[c] = -(p[c] * scale - deflation);
}

}  // namespace

// table: the n interfaces whose vertices number the rows and columns of m.
// npoints: the order of m (the sum of their npnt).
// f: deflation factors from get_deflat.
// m: on input the geometric weights, on output the system matrix I - C,
//   with the conductivity contrasts and the deflation applied block by block.
void b_transform(Interface *table, int n, int npoints, float f[][MAXGEO], float **m) {
  // Per block (i, j) a scale and a deflation constant.
  float scale[MAXGEO][MAXGEO], deflation[MAXGEO][MAXGEO];
  int first[MAXGEO + 1];  // first row (and column) of each interface
  first[0] = 1;
  for (int i = 0; i < n; i++) {
    first[i + 1] = first[i] + table[i].npnt;
    const float sum_i = table[i].sigma_in + table[i].sigma_out;
    for (int j = 0; j < n; j++) {
      const float jump = table[j].sigma_in - table[j].sigma_out;
      scale[i][j] = jump / sum_i;
      deflation[i][j] = f[i][j] * jump / (table[j].sigma_in + table[j].sigma_out) / (float)table[j].npnt;
    }
  }
  // One pass over the matrix, rows shared among the threads.
  parallel_for(npoints, 64, assembly_reference() ? 1 : assembly_threads(), [&](int begin, int end) {
    int i = 0;
    for (int r = begin + 1; r <= end; r++) {
      while (i + 1 < n && r >= first[i + 1]) i++;
      float *row = m[r];
      for (int j = 0; j < n; j++) transform_part(row + first[j], table[j].npnt, scale[i][j], deflation[i][j]);
      row[r] += 1.0f;
    }
  });
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
