// Many right-hand sides solved at once with the factors of ludec: side by
// side in vector lanes, the forward steps replayed panel by panel with the
// factorisation's kernels (numeric/lukernels.h), the back substitution
// block by block, on several threads; every solution bit for bit as solvelu
// gives it.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/ludec_shared.h"
#include "numeric/lukernels.h"
#include "numeric/nrutils.h"

namespace {

// Right-hand sides solved side by side in one block of solvelu_many.
constexpr int MANY_BLOCK = 512;
// Right-hand sides below which solvelu_many simply loops.
constexpr int MANY_MIN_RHS = 4;
// Right-hand sides up to which the threads share the rows of one block
// rather than each taking right-hand sides of its own, on factors of at
// least SHARED_MIN_N rows (smaller ones stay in the cache, and there the
// threads do better on their own).
constexpr int SHARED_MAX_RHS = 64, SHARED_MIN_N = 3000;
int shared_min_n = SHARED_MIN_N;

}  // namespace

void set_lu_shared_solve_order(int n_min) { shared_min_n = n_min > 0 ? n_min : SHARED_MIN_N; }

namespace {

// Float entries read as their bit patterns.
typedef uint32_t float_bits __attribute__((may_alias));

// Whether any of the bit patterns w[lo .. hi] is nonzero.
ROW_LOOP bool any_bits(const float_bits *w, int lo, int hi) {
  uint32_t any = 0;
  for (int i = lo; i <= hi; i++) any |= w[i];
  return any != 0;
}

// Index of the first entry of v[1..n] that is not +0.0 (n + 1 if none).
// Long runs of zeros are passed over a stretch at a time.
int first_nonzero(const float *v, int n) {
  const float_bits *w = reinterpret_cast<const float_bits *>(v);
  constexpr int STRETCH = 64;
  int i = 1;
  while (i + STRETCH - 1 <= n && !any_bits(w, i, i + STRETCH - 1)) i += STRETCH;
  for (; i <= n; i++)
    if (w[i] != 0) return i;
  return n + 1;
}

// Whether any of ai[1 .. k1] is NaN.
ROW_LOOP bool row_has_nan(const float *ai, int k1) {
  int nan = 0;
  for (int k = 1; k <= k1; k++) nan |= ai[k] != ai[k];
  return nan != 0;
}

// Whether any of v[from .. n] is -0.0.
ROW_LOOP bool has_negative_zero(const float *v, int from, int n) {
  const float_bits *w = reinterpret_cast<const float_bits *>(v);
  int found = 0;
  for (int i = from; i <= n; i++) found |= w[i] == 0x80000000u;
  return found != 0;
}

// The first pivot whose steps can change a block of right-hand sides that
// all start with z-1 entries of +0.0 (rows below z being left out already).
// A pivot k < z keeps its +0.0 through every step (i, k) until a step
// exchanges, since its partners i < z hold +0.0 too; while it is +0.0 a plain
// step fmaf(-m, +0.0, x) returns x (for finite m, and x not -0.0).  So pivots
// below z matter only from the first one with an exchange (or a NaN) in a row
// i >= z, or all of them when such an x is -0.0.
int first_active_pivot(const std::vector<int> &last_unplain, int z, bool negative_zero) {
  if (negative_zero) return 1;
  for (int k = 1; k < z; k++)
    if (last_unplain[k] >= z) return k;
  return z;
}

// Between rows x[r0 .. r0+width-1][1..n] and the block s[1..n][0..width-1]:
// into s when `into_s`, back into x otherwise.
void transpose_block(float **x, int r0, int width, float *const *s, int n, bool into_s) {
  if (into_s)
    transpose_floats(s + 1, 0, x + r0, 1, n, width);
  else
    transpose_floats(x + r0, 1, s + 1, 0, width, n);
}

// The threads of one shared solve: they meet at a barrier between its
// stages.  Each spins (a stage takes microseconds to milliseconds), giving
// the core up only after a long wait, on a busy machine.
class SolveTeam {
 public:
  explicit SolveTeam(int size) : size_(size) {}

  // job(team, t) on up to `count` threads, t = 0 here; a team of fewer when
  // the system will not start them all (its size is known before any job
  // starts, so the shares always cover every row).
  template <class Job>
  static void run(int count, const Job &job) {
    SolveTeam team(0);
    std::vector<std::thread> pool;
    for (int t = 1; t < count; t++) {
      try {
        pool.emplace_back([&team, &job, t] {
          team.wait_until([&team] { return team.size_.load(std::memory_order_acquire) > 0; });
          job(team, t);
        });
      } catch (...) {
        break;
      }
    }
    team.size_.store((int)pool.size() + 1, std::memory_order_release);
    job(team, 0);
    for (auto &th : pool) th.join();
  }

  int size() const { return size_.load(std::memory_order_relaxed); }

  // Every thread of the team waits here until all have come.
  void meet() {
    const int members = size();
    if (members == 1) return;
    const int phase = phase_.load(std::memory_order_acquire);
    if (arrived_.fetch_add(1, std::memory_order_acq_rel) == members - 1) {
      arrived_.store(0, std::memory_order_relaxed);
      phase_.store(phase + 1, std::memory_order_release);
      return;
    }
    wait_until([this, phase] { return phase_.load(std::memory_order_acquire) != phase; });
  }

  // Thread t's share of rows lo .. hi: from .. to, empty (to < from) when
  // there are too few.
  void share(int t, int lo, int hi, int *from, int *to) const {
    const long long count = hi >= lo ? (long long)hi - lo + 1 : 0, members = size();
    *from = lo + (int)(count * t / members);
    *to = lo + (int)(count * (t + 1) / members) - 1;
  }

 private:
  template <class Done>
  static void wait_until(const Done &done) {
    for (int spins = 0; !done(); spins++) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
      if (spins > 100000) std::this_thread::yield();
    }
  }

  std::atomic<int> size_{0};
  std::atomic<int> arrived_{0};
  std::atomic<int> phase_{0};
};

// Solve the right-hand sides x[r0 .. r0+width-1] side by side: transposed
// into s (row i holds entry i of each, in lanes 0 .. wl-1, wl a multiple of
// the vector width), the forward steps replayed panel by panel, back
// substitution, transposed back.  Rows of the forward part below `skip` are
// left out (their steps only meet +0.0), and so are, for each right-hand
// side l, the steps of pivots below start[l] (see first_active_pivot): a
// panel takes the right-hand sides up to the last one whose steps have
// begun.  info (or null) tells which panels need no look for exchanges.
//
// Every thread t of the team calls this with the same arguments but its own
// work (replay_work_floats(PANEL)); pack (back_pack_floats(wl)) is shared.
// Thread 0 alone transposes and takes the steps that must go in order, and the
// rows of a panel's plain steps and of the back substitution, which do not
// depend on each other, are shared out.  Each row meets the same operations
// whoever takes it, so any team size gives the same bits.
void solve_block(float **a, int n, float **x, int r0, int width, int wl, int skip, const int *start,
                 const LuSolveInfo *info, float *const *s, float *work, float *pack, SolveTeam &team, int t) {
  const bool lead = t == 0;
  if (lead) {
    transpose_block(x, r0, width, s, n, true);
    for (int i = 1; i <= n; i++)
      for (int l = width; l < wl; l++) s[i][l] = 0.0f;
  }
  team.meet();
  int kstart = n;
  for (int l = 0; l < width; l++) kstart = start[l] < kstart ? start[l] : kstart;
  const int tw = replay_tile_cols();
  for (int k0 = kstart; k0 <= n - 1; k0 += PANEL) {
    const int k1 = k0 + PANEL - 1 < n - 1 ? k0 + PANEL - 1 : n - 1;
    const int ilo = skip > k0 + 1 ? skip : k0 + 1;
    if (ilo > n) continue;
    int active = 0;
    for (int l = 0; l < width; l++)
      if (start[l] <= k1) active = l + 1;
    const int ncols = (active + tw - 1) / tw * tw < wl ? (active + tw - 1) / tw * tw : wl;
    StepReplay p{a, s, 0, ncols, n, k0, k1, ilo, false};
    if (info) {  // the panel's steps at rows ilo on plain throughout?
      p.plain = true;
      for (int k = k0; k <= k1; k++) p.plain = p.plain && info->last_unplain[k] < ilo;
    }
    if (!p.plain || team.size() == 1) {
      if (lead) replay_steps(p, work);
      team.meet();
      continue;
    }
    // The pivot rows first, then the later rows shared out.
    if (ilo <= k1) {
      if (lead) {
        StepReplay tri = p;
        tri.n = k1;
        replay_steps(tri, work);
      }
      team.meet();
    }
    StepReplay mine = p;
    team.share(t, ilo > k1 + 1 ? ilo : k1 + 1, n, &mine.ilo, &mine.n);
    if (mine.ilo <= mine.n) replay_steps(mine, work);
    team.meet();
  }
  // Back substitution, a block of unknowns from the bottom at a time.
  const int kb = back_block_rows();
  for (int b1 = n; b1 >= 1; b1 -= kb) {
    const int b0 = b1 - kb + 1 > 1 ? b1 - kb + 1 : 1;
    if (lead) back_solve_block(a, b0, b1, s, wl, pack);
    team.meet();
    if (b0 == 1) break;
    int lo, hi;
    team.share(t, 1, b0 - 1, &lo, &hi);
    back_take_terms(a, lo, hi, b0, b1, s, wl, pack);
    team.meet();
  }
  if (lead) transpose_block(x, r0, width, s, n, false);
}

}  // namespace

namespace {

// lk[k] = i where ai[k] is other than plain, k = lo .. hi.
ROW_LOOP void mark_unplain(const float *__restrict ai, int i, int lo, int hi, int *__restrict lk) {
  for (int k = lo; k <= hi; k++) lk[k] = !(fabsf(ai[k]) <= 1.0f) ? i : lk[k];
}

// mark_unplain of rows i .. i+3 on their common columns 1 .. i-1, in row
// order: four rows stream from memory side by side.
ROW_LOOP void mark_unplain4(float *const *a, int i, int *__restrict lk) {
  const float *__restrict r0 = a[i], *__restrict r1 = a[i + 1], *__restrict r2 = a[i + 2], *__restrict r3 = a[i + 3];
  for (int k = 1; k < i; k++) {
    int v = lk[k];
    v = !(fabsf(r0[k]) <= 1.0f) ? i : v;
    v = !(fabsf(r1[k]) <= 1.0f) ? i + 1 : v;
    v = !(fabsf(r2[k]) <= 1.0f) ? i + 2 : v;
    v = !(fabsf(r3[k]) <= 1.0f) ? i + 3 : v;
    lk[k] = v;
  }
}

// lu_solve_info's look at rows lo .. hi alone: lk[k] the last of them whose
// multiplier in column k is not plain (else 0), and the first of them
// holding a NaN (else n + 1).
int solve_info_rows(float **a, int n, int lo, int hi, int *lk) {
  int first_nan = n + 1;
  for (int i = lo; i <= hi;) {
    const int rows = i + 3 <= hi ? 4 : 1;
    if (rows == 4) {
      mark_unplain4(a, i, lk);
      for (int q = 1; q < 4; q++) mark_unplain(a[i + q], i + q, i, i + q - 1, lk);
    } else {
      mark_unplain(a[i], i, 1, i - 1, lk);
    }
    for (int q = 0; q < rows && first_nan > n; q++)
      if (row_has_nan(a[i + q], i + q - 1)) first_nan = i + q;
    i += rows;
  }
  return first_nan;
}

}  // namespace

// a: factors from ludec.  Returns what solvelu_many needs to know of them;
// one pass over the lower triangle, shared among the threads by rows (each
// range of rows gives its own last rows and first NaN; the latest and the
// earliest of them are the same whatever the split).
LuSolveInfo lu_solve_info(float **a, int n) {
  LuSolveInfo info{std::vector<int>(n + 1 > 1 ? n + 1 : 1, 0), n + 1};
  int threads = lu_threads();
  if ((long long)n * n < 4000000LL) threads = 1;
  if (threads == 1) {
    info.first_nan_row = solve_info_rows(a, n, 2, n, info.last_unplain.data());
    return info;
  }
  // Ranges of about equal triangle: row i has i - 1 entries.
  std::vector<int> first(threads + 1);
  for (int t = 0; t <= threads; t++) first[t] = 2 + (int)((n - 1) * std::sqrt((double)t / threads));
  first[threads] = n + 1;
  std::vector<std::vector<int>> lks(threads, std::vector<int>(n + 1, 0));
  std::vector<int> nans(threads, n + 1);
  run_parallel(threads, [&](int t) { nans[t] = solve_info_rows(a, n, first[t], first[t + 1] - 1, lks[t].data()); });
  for (int t = 0; t < threads; t++) {
    for (int k = 1; k <= n; k++) info.last_unplain[k] = std::max(info.last_unplain[k], lks[t][k]);
    info.first_nan_row = std::min(info.first_nan_row, nans[t]);
  }
  return info;
}

// a: factors from ludec.  x[1..nrhs][1..n]: on input one right-hand side per
// row, on output the solutions, row for row as solvelu gives them.  info:
// lu_solve_info of these factors, or null to find it out here if needed.
//
// The right-hand sides are taken in blocks, transposed so that one step of
// the elimination is one vector operation across the block.  A block whose
// right-hand sides all start with z-1 entries of +0.0 skips the forward steps
// of rows 1 .. z-1: those rows come first in the elimination, so every such
// step meets two +0.0 entries and leaves them +0.0 (an fmaf of +0.0 by a
// finite multiplier, or an exchange, cannot make anything else), unless a
// multiplier there is NaN, which is checked for.
void solvelu_many(float **a, int n, float **x, int nrhs, const LuSolveInfo *info) {
  if (n < 1 || nrhs < 1) return;
  if (nrhs < MANY_MIN_RHS) {
    for (int r = 1; r <= nrhs; r++) solvelu(a, n, x[r]);
    return;
  }
  const int lanes = replay_lanes();
  int count = lu_threads();
  if (count > nrhs) count = nrhs;
  if ((long long)n * n * nrhs < 4000000LL) count = 1;

  // Leading zeros of each right-hand side, and how far they may be trusted;
  // then the first pivot whose steps matter, for each.
  std::vector<int> zeros(nrhs + 1), start(nrhs + 1, 1);
  int deepest = 1;
  for (int r = 1; r <= nrhs; r++) {
    zeros[r] = first_nonzero(x[r], n);
    if (zeros[r] > deepest) deepest = zeros[r];
  }
  LuSolveInfo found;
  int trusted = n + 1;  // zeros below this row may be skipped
  if (deepest > 2) {
    if (!info) found = lu_solve_info(a, n), info = &found;
    trusted = info->first_nan_row;
    for (int r = 1; r <= nrhs; r++) {
      const int z = zeros[r] < trusted ? zeros[r] : trusted;
      start[r] = first_active_pivot(info->last_unplain, z, has_negative_zero(x[r], z, n));
    }
  }

  // Blocks of the right-hand sides r_lo .. r_hi, `block` at a time, solved
  // by a team (each member calls this with its t).  s has room for a block;
  // pack, back_pack_floats of its width, is the team's; work the member's.
  auto blocks = [&](int r_lo, int r_hi, int block, float **s, float *pack, float *work, SolveTeam &team, int t) {
    for (int r0 = r_lo; r0 <= r_hi; r0 += block) {
      const int width = r_hi - r0 + 1 < block ? r_hi - r0 + 1 : block;
      int skip = trusted;
      for (int r = r0; r < r0 + width; r++) skip = zeros[r] < skip ? zeros[r] : skip;
      solve_block(a, n, x, r0, width, (width + lanes - 1) / lanes * lanes, skip, &start[r0], info, s, work, pack,
                  team, t);
    }
  };
  // One vector more between rows of s: a stride of a power of two would put
  // the entries of many rows in the same few cache sets.  A matrix of this
  // program's own kind: large ones get huge pages, which the walks down its
  // rows need.
  auto block_matrix = [&](int block) { return matrix(1, n, 0, block + lanes - 1); };
  auto free_block_matrix = [&](float **s, int block) { free_matrix(s, 1, n, 0, block + lanes - 1); };

  // Few right-hand sides: the threads share one block, a range of rows
  // each, so that the factors come from memory once and every multiplier
  // serves all of them.  That needs to know which panels are plain.
  if (count >= 2 && nrhs <= SHARED_MAX_RHS && n >= shared_min_n) {
    if (!info) found = lu_solve_info(a, n), info = &found;
    const int block = (nrhs + lanes - 1) / lanes * lanes;
    float **s = block_matrix(block);
    Buffer pack(back_pack_floats(block));
    std::vector<std::unique_ptr<Buffer>> works;
    bool ready = s && pack.p;
    for (int t = 0; ready && t < count; t++) {
      works.push_back(std::make_unique<Buffer>(replay_work_floats(PANEL)));
      ready = works.back()->p != nullptr;
    }
    if (ready)
      SolveTeam::run(count, [&](SolveTeam &team, int t) { blocks(1, nrhs, nrhs, s, pack.p, works[t]->p, team, t); });
    if (s) free_block_matrix(s, block);
    if (ready) return;
  }

  // Otherwise each thread takes consecutive right-hand sides of about equal
  // work (the forward steps from the first that matters on, and the whole
  // back substitution), in blocks: wide ones, so that the factors come from
  // memory once per block and serve every right-hand side in it.
  std::vector<int> first(count + 1, nrhs + 1);
  {
    std::vector<double> upto(nrhs + 1, 0.0);
    for (int r = 1; r <= nrhs; r++) {
      const double fwd = (double)(n - start[r] + 1);
      upto[r] = upto[r - 1] + fwd * fwd + (double)n * n;
    }
    first[0] = 1;
    for (int t = 1, r = 1; t < count; t++) {
      while (r <= nrhs && upto[r - 1] < upto[nrhs] * t / count) r++;
      first[t] = r > first[t - 1] ? r : first[t - 1];
    }
  }

  auto job = [&](int t) {
    const int r_lo = first[t], r_hi = first[t + 1] - 1;
    if (r_hi < r_lo) return;
    // (A share a little over the usual width stays one block.)
    constexpr int widest = MANY_BLOCK + MANY_BLOCK / 4;
    const int nblocks = (r_hi - r_lo + widest) / widest;
    const int block = ((r_hi - r_lo + 1 + nblocks - 1) / nblocks + lanes - 1) / lanes * lanes;
    float **s = block_matrix(block);
    Buffer work(replay_work_floats(PANEL)), pack(back_pack_floats(block));
    if (!s || !work.p || !pack.p) {  // no room to work in blocks: one at a time
      if (s) free_block_matrix(s, block);
      for (int r = r_lo; r <= r_hi; r++) solvelu(a, n, x[r]);
      return;
    }
    SolveTeam alone(1);
    blocks(r_lo, r_hi, block, s, pack.p, work.p, alone, 0);
    free_block_matrix(s, block);
  };
  if (count == 1)
    job(0);
  else
    run_parallel(count, job);
}

