// LU decomposition with pairwise pivoting, its solves and condition estimate.
//
// Storage is single precision throughout; every product-and-sum of the
// elimination and the solves is one fmaf, so each update is rounded once.
// The stored multiplier is the only record of a row exchange: |m| > 1 means
// the rows were swapped in that step, and every routine here applies that
// same test.
//
// The factorisation is defined row by row (row i against rows 1 .. i-1 in
// turn), but each step touches one pair of rows from its pivot column on, so
// steps on disjoint pairs may trade places, and a column's final value
// depends only on the order of the steps that reach it.  ludec uses that to
// work on panels of columns: a panel is factorised with the very same
// decisions (they are taken from the pivot column, which the panel holds),
// and the recorded steps are then replayed, in the same order for each
// column, on all columns to the right with vectorised kernels and several
// threads (numeric/lukernels.h).  The result is bit for bit that of the
// one-row-at-a-time loops (numeric/ludec_plain.cpp).
#include "numeric/ludec.h"
#include "numeric/ludec_plain.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "numeric/ludec_shared.h"
#include "numeric/lukernels.h"
#include "numeric/lusplit.h"
#include "numeric/lusteps.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"

namespace {

// Reported when the estimate itself is out of reach.
constexpr float HOPELESS_COND = 1e38f;

// The first panel is factorised before any thread has other work, so it
// is narrower: its steps then reach the rest of the matrix while the next,
// full-width panel is factorised.
constexpr int FIRST_PANEL = 64;
// Panels are split in halves down to this width, where the decisions are
// taken (factor_base_columns, which takes at most 16 columns).
constexpr int BASE_WIDTH = 16;




// Replay the steps of pivots k0 .. k1 on columns c0 .. c1 of a (nothing when
// c1 < c0), with work space `work`; the multipliers are read from a, or for
// the rows after k1 from packed (replay_pack) when given, and unplain and
// marks describe them (or are null).
void replay_columns(float **a, int n, int k0, int k1, int c0, int c1, float *work, const float *packed = nullptr,
                    const unsigned char *unplain = nullptr, const ReplayMarks *marks = nullptr) {
  if (c1 < c0 || k1 < k0) return;
  StepReplay p{a, a, c0, c1 - c0 + 1, n, k0, k1, k0 + 1, true};
  p.unplain = unplain;
  p.marks = marks;
  p.packed = packed;
  replay_steps(p, work);
}

// Factorise columns k0 .. k1 (all steps of pivots k0 .. k1, on those columns)
// by halves: the left half, its steps replayed on the right half, the right.
// unplain[k0+1 .. n], zero on input: on output 1 for the rows with a
// multiplier among these columns that is not plain (false alarms allowed),
// as the base factorisations find them; the replay of the left half's steps
// uses its own.  halves: one such array per level of halving below this.
void factor_panel(float **a, int n, int k0, int k1, float *work, unsigned char *unplain,
                  std::vector<unsigned char> *halves) {
  const int width = k1 - k0 + 1;
  if (width <= BASE_WIDTH) {
    factor_base_columns(a, n, k0, k1, unplain);
    return;
  }
  const int half = ((width / 2) + BASE_WIDTH - 1) / BASE_WIDTH * BASE_WIDTH;
  const int mid = k0 + half - 1;
  unsigned char *left = halves[0].data();
  memset(left + k0 + 1, 0, (size_t)(n - k0));
  factor_panel(a, n, k0, mid, work, left, halves + 1);
  StepReplay p{a, a, mid + 1, k1 - mid, n, k0, mid, k0 + 1, true};
  p.unplain = left;
  replay_steps(p, work);
  for (int i = k0 + 1; i <= n; i++) unplain[i] |= left[i];
  factor_panel(a, n, mid + 1, k1, work, unplain, halves + 1);
}

// Levels of halving from a panel down to the base width.
constexpr int HALVINGS = 8;
static_assert((PANEL >> (HALVINGS - 1)) <= BASE_WIDTH, "enough levels for a whole panel");

// One panel (pivots k0 .. k1): its factorisation, and the multipliers of
// the rows after it packed (replay_pack): every chunk of columns reads them
// all, and in place they lie a whole matrix row apart, each on a page of its
// own.  unplain as factor_panel finds it; marks where the replay of the
// panel's steps may exchange.  The level of the kernels must not change
// while one is in use.
struct PanelMultipliers {
  Buffer packed;
  std::vector<unsigned char> unplain;
  std::vector<unsigned char> halves[HALVINGS];
  ReplayMarks marks;
  int n;
  PanelMultipliers(int n_) : packed(replay_packed_floats(n_, PANEL)), unplain((size_t)n_ + 1), n(n_) {
    for (auto &h : halves) h.resize((size_t)n_ + 1);
  }

  // The panel's columns must have taken the steps of every earlier pivot.
  void factor_and_take(float **a, int k0, int k1, float *work) {
    memset(unplain.data() + k0 + 1, 0, (size_t)(n - k0));
    if (k0 <= n - 1) factor_panel(a, n, k0, k1, work, unplain.data(), halves);
    replay_pack(a, k1 + 1, n, k0, k1, packed.p);
    StepReplay p{a, a, 0, 0, n, k0, k1, k0 + 1, true};
    p.unplain = unplain.data();
    replay_marks(p, &marks);
  }
};

// The countdown of rows as the one-row-at-a-time loops would print it:
// the line for row i appears once the work done is as much as those loops
// would have done before starting row i.
struct Countdown {
  bool shown;
  int n;
  int next = 2;
  long long before_next = 0;  // work of rows 2 .. next-1 in the plain order

  // Plain work of row i: steps k = 1 .. i-1 over columns k .. n.
  long long row_work(int i) const { return (long long)(i - 1) * (n + 1) - (long long)(i - 1) * i / 2; }
  void advance(long long done) {
    while (next <= n && before_next <= done) {
      if (shown && (n - next) % 10 == 0) printf("Ludec countdown:%5d\r", n - next);
      before_next += row_work(next);
      next++;
    }
  }
};

// Blocked factorisation of a[1..n][1..n]; the same factors as the plain loops.
// Returns false (with a untouched) when the work space could not be had.
bool factor_blocked(float **a, int n, bool shown) {
  int threads = lu_threads();
  if ((long long)n * n * n < 8000000LL) threads = 1;  // not worth a thread
  std::vector<Buffer *> owned;
  std::vector<float *> works;
  const size_t wf = replay_work_floats(PANEL);
  for (int t = 0; t < threads; t++) {
    owned.push_back(new (std::nothrow) Buffer(wf));
    if (!owned.back() || !owned.back()->p) {
      for (Buffer *b : owned) delete b;
      return false;
    }
    works.push_back(owned.back()->p);
  }

  // The multipliers of the panel being replayed, and of the next one.
  PanelMultipliers *cur = new (std::nothrow) PanelMultipliers(n), *next = new (std::nothrow) PanelMultipliers(n);
  if (!cur || !next || !cur->packed.p || !next->packed.p) {
    delete cur, delete next;
    for (Buffer *b : owned) delete b;
    return false;
  }
  Countdown cd{shown, n};
  cd.advance(0);
  long long done = 0;
  const int first = FIRST_PANEL < n ? FIRST_PANEL : n;
  cur->factor_and_take(a, 1, first, works[0]);
  for (int p0 = 1, p1 = first; p0 <= n - 1; p0 = p1 + 1, p1 = p0 + PANEL - 1 < n ? p0 + PANEL - 1 : n) {
    // Panel p0 .. p1 is factorised.  Its steps go to the next panel's
    // columns first, so that the next panel can be factorised while the
    // other threads bring the columns beyond it up to date.
    const int q0 = p1 + 1, q1 = p1 + PANEL < n ? p1 + PANEL : n;
    const int rest = q1 + 1;
    const int tw = replay_tile_cols();
    // Chunks of columns handed out in turn, each a share of what is left
    // (down to a few tiles): large ones first, so that the pivot rows are
    // packed few times, and small ones last, so that the threads finish
    // together.  A thread held up elsewhere on the machine leaves its share
    // to the others.
    const int ncols = rest <= n ? n - rest + 1 : 0;
    const int min_chunk = 4 * tw;
    const int nchunks = (ncols + min_chunk - 1) / min_chunk;
    std::atomic<int> next_col{rest};
    auto worker = [&](int t) {
      int c0 = next_col.load(), c1;
      while (c0 <= n) {
        int size = (n - c0 + 1) / (2 * threads);
        size = size < min_chunk ? min_chunk : (size + tw - 1) / tw * tw;
        c1 = c0 + size - 1 < n ? c0 + size - 1 : n;
        if (next_col.compare_exchange_weak(c0, c1 + 1)) {
          replay_columns(a, n, p0, p1, c0, c1, works[t], cur->packed.p, cur->unplain.data(), &cur->marks);
          c0 = next_col.load();
        }
      }
    };
    auto lead = [&](int t) {
      if (t != 0) return worker(t);
      if (q0 <= n) {
        replay_columns(a, n, p0, p1, q0, q1, works[0], cur->packed.p, cur->unplain.data(), &cur->marks);
        next->factor_and_take(a, q0, q1, works[0]);
      }
      worker(0);
    };
    int count = threads < nchunks + 1 ? threads : nchunks + 1;
    if (count <= 1) {  // alone: all columns in one sweep, then the next panel
      replay_columns(a, n, p0, p1, q0, n, works[0], cur->packed.p, cur->unplain.data(), &cur->marks);
      if (q0 <= n) next->factor_and_take(a, q0, q1, works[0]);
    } else {
      run_parallel(count, lead);
    }
    std::swap(cur, next);
    for (int k = p0; k <= p1 && k < n; k++) done += (long long)(n - k) * (n - k + 1);
    cd.advance(done);
  }
  cd.advance(LLONG_MAX);
  if (shown) printf("\n");
  delete cur, delete next;
  for (Buffer *b : owned) delete b;
  return true;
}

}  // namespace


namespace {
int thread_setting = 0;
}  // namespace

void set_lu_threads(int count) { thread_setting = count > 0 ? count : 0; }

int lu_threads() {
  if (thread_setting > 0) return thread_setting;
  unsigned h = std::thread::hardware_concurrency();
  return h == 0 ? 1 : (int)h;
}

int set_lu_simd(int level) { return lu_set_simd_level(level); }

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

  if (!factor_blocked(a, n, shown)) {
    // Without work space: the same steps in the defining order.
    eliminate_plain(a, n, shown);
  }

  // LINPACK-style estimate: solve A^T y = e with the signs of e chosen so
  // that y grows, then A z = y; |z| / |y| approximates the norm of A^-1.
  float *y = vector(1, n);
  double *sum = y ? dvector(1, n) : nullptr;
  if (!y || !sum) {
    if (y) free_vector(y, 1, n);
    *cond = 0.0f;
    return;
  }
  // Each pass walks a triangle of the factors once, one row after another;
  // a large one goes to two threads, each taking its own side of a column
  // (numeric/lusplit.h), with the same results.
  const bool two = n >= SPLIT_MIN_N && lu_threads() >= 2;
  if (two)
    estimate_start_split(a, n, y, sum);
  else
    estimate_start(a, n, y, sum);
  free_dvector(sum, 1, n);
  two ? tsolvel_split(a, n, y) : tsolvel(a, n, y);
  float ynorm = vnorm1(y, n);
  if (ynorm < 1e19f) {
    two ? solvel_split(a, n, y) : solvel(a, n, y);
    two ? solveu_split(a, n, y) : solveu(a, n, y);
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

namespace {

// One forward step on entries p (the pivot row's) and x (the row's).
inline void forward_step(float m, float &p, float &x) {
  if (fabsf(m) > 1.0f) {
    float t = p;
    p = x;
    x = t - x / m;
  } else {
    x = fmaf(-m, p, x);
  }
}

// One step of the transposed elimination: entry y of the pivot row and the
// running value yi of the row, with the multiplier m.
inline void transposed_step(float m, float &yi, float &y) {
  if (fabsf(m) > 1.0f) {
    const float t = y - yi / m;
    y = yi;
    yi = t;
  } else {
    y = fmaf(-m, yi, y);
  }
}

// The transposed steps of rows r[0 .. G-1] (yi[q] the running entry of
// row q) on the stretch y[k .. k+15], each entry meeting the rows in that
// order, when none of their multipliers there calls for an exchange: then
// the yi stay as they are and each y[j] takes its fmaf, as one vector loop.
// Returns false, with y untouched, when some multiplier would exchange.
template <int G>
ROW_LOOP bool plain_transposed_steps(const float *const *r, float *__restrict y, const float *yi, int k) {
  const float *__restrict m[G];
  float yq[G];
  int exchanges = 0;
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) {
    m[q] = r[q] + k, yq[q] = yi[q];
    for (int j = 0; j < 16; j++) exchanges += fabsf(m[q][j]) > 1.0f;
  }
  if (exchanges) return false;
  for (int j = 0; j < 16; j++) {
    float v = y[k + j];
#pragma GCC unroll 8
    for (int q = 0; q < G; q++) v = fmaf(-m[q][j], yq[q], v);
    y[k + j] = v;
  }
  return true;
}

// The transposed steps of rows r[0 .. G-1] for pivots hi down to lo, yi[q]
// the running entry of row q, each entry y[k] meeting the rows in that
// order.  Stretches without an exchange go as one vector loop each; one
// where some row may exchange goes row after row, step by step.
template <int G>
void transposed_steps_of(const float *const *r, float *y, float *yi, int hi, int lo) {
  constexpr int C = 16;
  auto one_by_one = [&](int from, int to) {
    for (int q = 0; q < G; q++)
      for (int k = from; k >= to; k--) transposed_step(r[q][k], yi[q], y[k]);
  };
  int k = hi;
  for (; k - C + 1 >= lo; k -= C)
    if (!plain_transposed_steps<G>(r, y, yi, k - C + 1)) one_by_one(k, k - C + 1);
  one_by_one(k, lo);
}

// The steps among rows i, i-1 .. i-rows+1 themselves, on their running
// entries.
void transposed_steps_within(float *const *a, int i, int rows, float *yi) {
  for (int q = 0; q < rows; q++)
    for (int p = q + 1; p < rows; p++) transposed_step(a[i - q][i - p], yi[q], yi[p]);
}

// forward_steps for G rows: each pivot meets the G rows in turn, G
// independent chains of operations.
template <int G>
void forward_steps_of(float *const *a, int i, int lo, int hi, float *b, float *x) {
  const float *m[G];
  float xq[G];
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) m[q] = a[i + q], xq[q] = x[q];
  for (int k = lo; k <= hi; k++) {
    float p = b[k];
#pragma GCC unroll 8
    for (int q = 0; q < G; q++) forward_step(m[q][k], p, xq[q]);
    b[k] = p;
  }
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) x[q] = xq[q];
}

// back_terms for G rows: G chains of fmaf side by side (one chain alone
// would wait on each fmaf before the next).
template <int G>
void back_terms_of(float *const *a, int i, int hi, int lo, const float *b, float *s) {
  const float *r[G];
  float sq[G];
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) r[q] = a[i - q], sq[q] = s[q];
  for (int j = hi; j >= lo; j--) {
    const float bj = b[j];
#pragma GCC unroll 8
    for (int q = 0; q < G; q++) sq[q] = fmaf(-r[q][j], bj, sq[q]);
  }
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) s[q] = sq[q];
}

}  // namespace

namespace {

// add_scaled_rows for G rows read side by side: each sum takes its G terms
// in row order, so the G rows stream from memory together.
template <int G>
ROW_LOOP void add_scaled_rows_of(double *__restrict sum, float *const *a, int j, const float *y, int lo, int hi) {
  const float *__restrict r[G];
  double yq[G];
#pragma GCC unroll 8
  for (int q = 0; q < G; q++) r[q] = a[j + q], yq[q] = y[j + q];
  for (int k = lo; k <= hi; k++) {
    double s = sum[k];
#pragma GCC unroll 8
    for (int q = 0; q < G; q++) s += yq[q] * (double)r[q][k];
    sum[k] = s;
  }
}

}  // namespace

void add_scaled_rows(double *sum, float *const *a, int j, int rows, const float *y, int lo, int hi) {
  if (rows == STEP_GROUP)
    add_scaled_rows_of<STEP_GROUP>(sum, a, j, y, lo, hi);
  else
    for (int q = 0; q < rows; q++) add_scaled_rows_of<1>(sum, a, j + q, y, lo, hi);
}

void estimate_rows(float *const *a, int j, int rows, float *y, double *sum) {
  for (int q = 0; q < rows; q++) {
    y[j + q] = growing_entry(sum[j + q], a[j + q][j + q]);
    for (int k = j + q + 1; k < j + rows; k++) sum[k] += (double)y[j + q] * (double)a[j + q][k];
  }
}

void estimate_start(float **a, int n, float *y, double *sum) {
  for (int k = 1; k <= n; k++) sum[k] = 0.0;
  for (int j = 1; j <= n;) {
    const int rows = j + STEP_GROUP - 1 <= n ? STEP_GROUP : 1;
    estimate_rows(a, j, rows, y, sum);
    add_scaled_rows(sum, a, j, rows, y, j + rows, n);
    j += rows;
  }
}

void transposed_steps_rows(float *const *a, int i, int rows, float *yi, float *y, int hi, int lo) {
  const float *r[STEP_GROUP];
  for (int q = 0; q < rows; q++) r[q] = a[i - q];
  if (rows == STEP_GROUP)
    transposed_steps_of<STEP_GROUP>(r, y, yi, hi, lo);
  else
    for (int q = 0; q < rows; q++) transposed_steps_of<1>(r + q, y, yi + q, hi, lo);
}

void transposed_rows(float *const *a, int i, int rows, float *y, int lo, float *out) {
  float yi[STEP_GROUP];
  for (int q = 0; q < rows; q++) yi[q] = y[i - q];
  transposed_steps_within(a, i, rows, yi);
  transposed_steps_rows(a, i, rows, yi, y, i - rows, lo);
  for (int q = 0; q < rows; q++) out[i - q] = yi[q];
}

void forward_steps(float *const *a, int i, int rows, int lo, int hi, float *b, float *x) {
  static_assert(STEP_GROUP == 8, "the vector kernels take eight rows");
  if (rows == STEP_GROUP)
    // Stretches without an exchange go to the vector kernel; one that has
    // one goes step by step.
    for (int k = lo; k <= hi;) {
      k = forward_plain_stretches(a, i, k, hi, b, x);
      const int stop = std::min(k + 7, hi);
      if (k <= hi) forward_steps_of<STEP_GROUP>(a, i, k, stop, b, x);
      k = stop + 1;
    }
  else
    for (int q = 0; q < rows; q++) forward_steps_of<1>(a, i + q, lo, hi, b, x + q);
}

void forward_steps_within(float *const *a, int i, int rows, float *x) {
  for (int q = 1; q < rows; q++)
    for (int r = 0; r < q; r++) forward_step(a[i + q][i + r], x[r], x[q]);
}

void back_terms(float *const *a, int i, int rows, int hi, int lo, const float *b, float *s) {
  if (rows == STEP_GROUP)
    back_terms_of<STEP_GROUP>(a, i, hi, lo, b, s);
  else
    for (int q = 0; q < rows; q++) back_terms_of<1>(a, i - q, hi, lo, b, s + q);
}

void back_within(float *const *a, int i, int rows, float *b, float *s) {
  for (int q = 0; q < rows; q++) {
    const float *rq = a[i - q];
    for (int j = i; j > i - q; j--) s[q] = fmaf(-rq[j], b[j], s[q]);
    b[i - q] = s[q] / rq[i - q];
  }
}

// a: factors from ludec.  b[1..n]: on input a right-hand side, on output
// the same vector with the elimination steps (and their exchanges) applied
// in the order ludec performed them.
//
// Eight rows at a time: each earlier entry meets the eight rows in turn,
// then the eight meet each other.  Only steps on disjoint entries trade
// places, so the result is that of the row-by-row order, with eight
// independent chains of operations instead of one.
void solvel(float **a, int n, float *b) {
  for (int i = 1; i <= n;) {
    const int rows = i + STEP_GROUP - 1 <= n ? STEP_GROUP : 1;
    float x[STEP_GROUP];
    for (int q = 0; q < rows; q++) x[q] = b[i + q];
    forward_steps(a, i, rows, 1, i - 1, b, x);
    forward_steps_within(a, i, rows, x);
    for (int q = 0; q < rows; q++) b[i + q] = x[q];
    i += rows;
  }
}

// a: factors from ludec.  b[1..n]: on input the output of solvel, on output
// the solution of U x = b.  Each sum takes its terms from the last unknown
// down.  Eight rows go together: their terms of the unknowns already solved
// side by side, then each row takes its terms among the eight.
void solveu(float **a, int n, float *b) {
  for (int i = n; i >= 1;) {
    const int rows = i - STEP_GROUP + 1 >= 1 ? STEP_GROUP : 1;
    float s[STEP_GROUP];
    for (int q = 0; q < rows; q++) s[q] = b[i - q];
    back_terms(a, i, rows, n, i + 1, b, s);
    back_within(a, i, rows, b, s);
    i -= rows;
  }
}

// a: factors from ludec.  b[1..n]: on input a right-hand side, on output the
// solution of a x = b for the matrix as it was before ludec.
void solvelu(float **a, int n, float *b) {
  solvel(a, n, b);
  solveu(a, n, b);
}

// a: factors from ludec.  y[1..n]: on input a vector, on output the vector
// with the transposes of the elimination steps applied in reverse order
// (the transpose of what solvel does).  An exchange step is its own
// transpose up to where the division lands.
//
// The defining order runs k = n-1 .. 1 outside and i = n .. k+1 inside, down
// the columns of a.  Each y[x] then meets the steps (x, n) .. (x, x+1) and
// after them (x-1, x) .. (1, x); taking i = n .. 2 outside and k = i-1 .. 1
// inside gives every entry exactly that sequence while reading a along its
// rows.
//
// Eight rows go together: first the steps among them, then each entry
// below them meets the eight in turn.
void tsolvel(float **a, int n, float *y) {
  for (int i = n; i >= 2;) {
    const int rows = i - STEP_GROUP + 1 >= 2 ? STEP_GROUP : 1;
    transposed_rows(a, i, rows, y, 1, y);
    i -= rows;
  }
}

namespace {

// The largest row sum of absolute values over rows lo .. hi (0 if none
// exceeds 0; a NaN sum never counts).  Four rows are summed side by side so
// that four additions are under way at once.
float largest_row_sum(float **a, int n, int lo, int hi) {
  float best = 0.0f;
  auto consider = [&best](double sum) {
    float s = (float)sum;
    if (s > best) best = s;
  };
  int i = lo;
  for (; i + 3 <= hi; i += 4) {
    const float *r0 = a[i], *r1 = a[i + 1], *r2 = a[i + 2], *r3 = a[i + 3];
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    for (int j = 1; j <= n; j++) {
      s0 += fabs((double)r0[j]);
      s1 += fabs((double)r1[j]);
      s2 += fabs((double)r2[j]);
      s3 += fabs((double)r3[j]);
    }
    consider(s0), consider(s1), consider(s2), consider(s3);
  }
  for (; i <= hi; i++) {
    const float *ri = a[i];
    double sum = 0.0;
    for (int j = 1; j <= n; j++) sum += fabs((double)ri[j]);
    consider(sum);
  }
  return best;
}

}  // namespace

// a[1..n][1..n]: unchanged.  Returns the largest row sum of absolute values
// (the infinity norm), each sum formed in double in column order.  A large
// matrix is shared among the threads by rows; the largest of their largest
// is the same number whatever the split.
float mnorm1(float **a, int n) {
  int threads = lu_threads();
  if ((long long)n * n < 4000000LL) threads = 1;
  if (threads > n) threads = n > 0 ? n : 1;
  std::vector<float> best(threads, 0.0f);
  auto job = [&](int t) {
    best[t] = largest_row_sum(a, n, 1 + (int)((long long)n * t / threads), (int)((long long)n * (t + 1) / threads));
  };
  if (threads == 1)
    job(0);
  else
    run_parallel(threads, job);
  float all = 0.0f;
  for (float b : best)
    if (b > all) all = b;
  return all;
}

// v[1..n]: unchanged.  Returns the sum of absolute values, formed in double.
float vnorm1(const float *v, int n) {
  double sum = 0.0;
  for (int i = 1; i <= n; i++) sum += fabs((double)v[i]);
  return (float)sum;
}
