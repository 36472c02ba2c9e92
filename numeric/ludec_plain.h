// Reference LU decomposition with pairwise pivoting: the straightforward
// loops, one row after the other, exactly as the factorisation is defined.
// The program itself uses numeric/ludec.h; these exist so that tests and
// benchmarks can hold the blocked, vectorised kernels against them bit for
// bit.  Arguments are as for the routines of the same name without the
// _plain suffix in numeric/ludec.h.
#pragma once

// The elimination alone, one row after the other, with the countdown when
// `shown`: a[1..n][1..n] on input the matrix, on output the factors.  Also
// the fall-back of the blocked factorisation when it has no work space.
void eliminate_plain(float **a, int n, bool shown);

// a[1..n][1..n]: on input the matrix, on output the factors (U on and above
// the diagonal, multipliers below).  *cond: the condition estimate.
void ludec_plain(float **a, int n, float *cond);
// a: factors.  b[1..n]: the elimination steps are applied in place.
void solvel_plain(float **a, int n, float *b);
// a: factors.  b[1..n]: back substitution with U in place.
void solveu_plain(float **a, int n, float *b);
// a: factors.  b[1..n]: on input a right-hand side, on output the solution.
void solvelu_plain(float **a, int n, float *b);
// a: factors.  y[1..n]: the transposed steps are applied in reverse order.
void tsolvel_plain(float **a, int n, float *y);
