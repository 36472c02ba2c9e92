// Least squares with pseudo-rank determination: Householder triangularisation
// with column pivoting, and the Householder transformation it is built on.
//
// All arrays are the one-based float arrays of numeric/nrutils.h.
#pragma once

// Solve A X ~= B in the least-squares sense.
// Input:  a[1..m][1..n] holds A; b[1..max(m,n)][1..nb] holds the nb
//   right-hand sides in rows 1..m; tau is a relative tolerance.
// Output: a holds the factorisation; rows 1..n of b hold the solutions
//   (minimum-norm among the solutions of the rank-k problem); *krank the
//   pseudo-rank k: the number of leading diagonal elements of the
//   triangularised A with |a[j][j]| > tau * |a[1][1]| (0 when a[1][1] is
//   exactly zero, and then rows 1..n of b are set to zero).
// m or n below 1: *krank = 0 and nothing else happens.  When the work arrays
// cannot be had, "\n Out of memory in HFTI\n\n\a\a" goes to standard output,
// *krank = -1, and a and b are left untouched.  With min(m,n) > 24 or nb > 24
// a countdown "HFTI countdown: %4d\r" is written to standard output.
void hfti(float **a, int m, int n, float **b, int nb, float tau, int *krank);

// Construct (mode 1) or apply (mode 2) the Householder transformation
// Q = I + u u^T / b that zeroes elements l1..m of a vector against its
// element lpivot, and apply it to ncv vectors of c.
// u holds the transformation vector: column iu of u (u[i][iu]) when
//   u_by_rows is 0, row iu (u[iu][i]) when it is 1.  Mode 1 replaces its
//   pivot element by the new value (minus the sign of the old one times the
//   vector's norm) and sets *up to the pivot component of the transformation
//   vector; elements l1..m become the rest of that vector in place.  Mode 2
//   expects u and *up as mode 1 left them.
// c holds the vectors to transform: columns (c_by_rows 0) or rows (1) of c,
//   numbers ice .. ice+ncv-1; only their elements lpivot and l1..m change.
// Nothing happens when lpivot < 1, lpivot >= l1 or l1 > m.
void h12(int mode, int lpivot, int l1, int m, float **u, int u_by_rows, int iu, float *up,
         float **c, int c_by_rows, int ice, int ncv);
