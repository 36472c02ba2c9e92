// LU decomposition with pairwise pivoting, its solves and condition estimate.
//
// All matrices and vectors are one-based float arrays (numeric/nrutils.h).
#pragma once

#include <vector>

// Factorise a[1..n][1..n] in place.  On output the upper triangle holds U and
// a[i][k] (k < i) the multiplier of the step in which row i was eliminated
// against row k; |a[i][k]| > 1 records that the two rows were exchanged.
// *cond receives the estimated condition number (1e38 when hopeless, 0 when
// the work vector could not be allocated).
void ludec(float **a, int n, float *cond);

// Apply the stored elimination steps (with their exchanges) to b[1..n].
void solvel(float **a, int n, float *b);
// Back substitution with U on b[1..n].
void solveu(float **a, int n, float *b);
// solvel then solveu: on output b[1..n] solves a x = b for the matrix as it
// was before ludec.
void solvelu(float **a, int n, float *b);
// Apply the transposed elimination steps in reverse order to y[1..n].
void tsolvel(float **a, int n, float *y);

// Largest row sum of absolute values of a[1..n][1..n].
float mnorm1(float **a, int n);
// Sum of absolute values of v[1..n].
float vnorm1(const float *v, int n);

// What solvelu_many learns from the factors before it can skip work: for
// each column k the last row holding a multiplier that is not plain
// (!(|m| <= 1)), and the first row holding a NaN.  A caller that solves with
// the same factors many times may find it out once (lu_solve_info) and hand
// it to every call; it must then not change the factors in between.
struct LuSolveInfo {
  std::vector<int> last_unplain;  // [1..n], 0 where none
  int first_nan_row = 0;          // n + 1 when none
};
LuSolveInfo lu_solve_info(float **a, int n);

// Solve for nrhs right-hand sides at once.  a holds the factors from ludec;
// x[1..nrhs][1..n] holds one right-hand side per ROW on input and the
// corresponding solution in the same row on output.  Every row comes out bit
// for bit as solvelu would leave it.  Leading entries that are exactly +0.0
// (unit columns of an inversion, say) cost nothing in the forward part.
// info: lu_solve_info(a, n) of these very factors, or null.
void solvelu_many(float **a, int n, float **x, int nrhs, const LuSolveInfo *info = nullptr);

// Threads used by ludec and solvelu_many: 0 (the default) means one per
// hardware thread.  The results do not depend on the number.
void set_lu_threads(int count);
// Factors of at least n_min rows have the solves of few right-hand sides
// (up to 64) shared among the threads by rows rather than by right-hand
// sides; 0 restores the default.  For tests: the results do not depend on it.
void set_lu_shared_solve_order(int n_min);
// Instruction-set level of the kernels: 0 portable C++, 1 AVX2/FMA, 2
// AVX-512; a negative or unavailable level means the best the processor has.
// Returns the level in force.  The results do not depend on it either.
int set_lu_simd(int level);
