// Vectorised building blocks of the LU factorisation and its many-right-hand
// side solves (internal to numeric/ludec.cpp and its tests).
//
// The factorisation eliminates row i against rows k = 1 .. i-1 in turn; a
// step (k, i) touches only rows k and i, from column k on, and is either
// "row i -= m row k" (|m| <= 1) or an exchange "row k <- row i, row i <-
// old row k - row i / m".  Once the multipliers of a range of pivots are
// known, the same steps can be replayed on any other columns, one column
// independently of the next; that replay is what these kernels do, across
// many columns at once, with every single value computed by exactly the same
// operations (one fmaf per update, a true division per exchange) as the
// one-row-at-a-time loops.  The results are therefore identical bit for bit
// at every instruction-set level.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Where the rows of a replay may exchange, for every column range alike: per
// group of rows (the pivot rows' groups, then the later rows'), whether it
// may at all, and one bit per pivot where it may; the replay kernels'
// layout.
struct ReplayMarks {
  int n = 0, k0 = 0, k1 = -1, ilo = 0;  // the steps they belong to
  std::vector<uint64_t> flags;
  std::vector<unsigned char> exch;
};

// One replay: the steps of pivots k0 .. k1, with the multiplier of step
// (k, i) in mul[i][k] (the factorised matrix), applied to the target columns
// trow[i][col .. col + ncols - 1] of rows k0 .. n in the order of the
// factorisation.  Rows below ilo (ilo > k0) are left out: a caller may do so
// only when their steps would all be no-ops.  Rows beyond n are left out too:
// with plain steps (below) the rows after the pivots are independent, so a
// range of them may be replayed alone, and the pivot rows, which such steps
// only read, are then left unwritten.  `lu_rule` chooses the exchange
// test: the factorisation exchanges when !(|m| <= 1), the solves when
// |m| > 1 (the two differ only for a NaN multiplier).
struct StepReplay {
  float *const *mul;
  float *const *trow;
  int col;
  int ncols;
  int n;
  int k0, k1;
  int ilo;
  bool lu_rule;
  // Set when no multiplier of these steps (rows ilo .. n) is other than
  // plain, |m| <= 1: the kernels need not look for exchanges.
  bool plain = false;
  // Optional, indexed by row: 0 where no entry mul[i][k0 .. k1] of row i is
  // other than plain (a 1 may be a false alarm).  Groups of rows whose
  // entries are all 0 are then not scanned for exchanges.
  const unsigned char *unplain = nullptr;
  // Optional: replay_marks of these very steps (mul, n, k0, k1, ilo and the
  // hints above), when the same steps go to many column ranges: then they
  // are not looked for again.
  const ReplayMarks *marks = nullptr;
  // Optional: the multipliers of the rows after the pivots (from ilo or
  // k1 + 1, whichever is later, to n) as replay_pack lays them out, read
  // there instead of mul: when the same steps go to many column ranges,
  // one stream of them serves a group of rows.
  const float *packed = nullptr;
};

// Floats that replay_pack needs for nrows rows of npiv pivots.
size_t replay_packed_floats(int nrows, int npiv);
// packed: on output the multipliers mul[i][k0 .. k1] of rows lo .. hi laid
// out as StepReplay::packed has them for a replay whose later rows start
// at lo.
void replay_pack(float *const *mul, int lo, int hi, int k0, int k1, float *packed);

// m: on output the marks of replay p (its columns play no part).
void replay_marks(const StepReplay &p, ReplayMarks *m);

// Instruction-set levels: 0 portable C++, 1 AVX2 with FMA, 2 AVX-512.
int lu_simd_best();
int lu_simd_level();
// Choose a level; one the processor lacks is lowered to the best it has.
// Returns the level now in force.
int lu_set_simd_level(int level);

// Columns handled together by one kernel call at the current level; column
// ranges split among threads are best cut at multiples of it.
int replay_tile_cols();
// Floats of work space that replay_steps needs for npiv pivots.
size_t replay_work_floats(int npiv);
// Apply the replay p (see above); work holds replay_work_floats(k1-k0+1)
// floats.
void replay_steps(const StepReplay &p, float *work);

// The factorisation restricted to columns k0 .. k1 of a[1..n][1..n] (at
// most 16 columns): every step of pivots k0 .. k1, on those columns only, in
// effect in the defining order, decisions and pivot guard included.  The
// columns must already have taken all steps of earlier pivots.  unplain
// (optional, indexed by row): set to 1 for the rows k0+1 .. n that exchanged
// in these steps (and perhaps for some that met the pivot guard), the rest
// left alone.
void factor_base_columns(float *const *a, int n, int k0, int k1, unsigned char *unplain = nullptr);

// Lanes of one vector at the current level; the back substitution wants
// widths that are a multiple of it.
int replay_lanes();

// The back substitution in two steps that threads can share: unknowns
// solved a block of back_block_rows() at a time from the bottom, each block's
// solutions then taken from the sums of all rows above it.
int back_block_rows();
// Floats of pack that the two steps need for `width` right-hand sides.
size_t back_pack_floats(int width);
// Rows r0 .. r1 (at most back_block_rows()), their sums s[i][0 .. width-1]
// holding the terms of every unknown beyond r1: on output the unknowns, and
// pack holds them as back_take_terms wants them.
void back_solve_block(float *const *a, int r0, int r1, float *const *s, int width, float *pack);
// Rows lo .. hi (hi < r0) take the terms of the unknowns r1 down to r0 from
// their sums, pack as back_solve_block left it (read only).  Rows do not
// depend on each other, so disjoint ranges may go to different threads.
void back_take_terms(float *const *a, int lo, int hi, int r0, int r1, float *const *s, int width, float *pack);

// dst[i][dcol + l] = src[l][scol + i] for i < rows, l < cols: the rows of
// src become the columns of dst, bit for bit.
void transpose_floats(float *const *dst, int dcol, const float *const *src, int scol, int rows, int cols);

// The one-vector forward pass of the solves and the condition estimate
// (numeric/lusteps.h) for rows i .. i+7, x[0 .. 7] their running entries:
// the steps of pivots lo, lo+1 .. (all below i, entries b) in stretches of
// eight for as long as no row exchanges with them (the pivots' entries then
// stay as they are), the rows' multipliers turned into columns so that the
// eight rows take their fmaf side by side, each in the same order as one
// at a time.  Returns the first pivot not taken: lo itself at a level
// without such a kernel.
int forward_plain_stretches(float *const *a, int i, int lo, int hi, const float *b, float *x);
