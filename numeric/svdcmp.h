// Singular value decomposition A = U diag(w) V^T of a one-based float matrix
// (Householder bidiagonalisation, then implicit-shift QR on the bidiagonal).
//
// All arrays are the one-based float arrays of numeric/nrutils.h.
#pragma once

// Decompose a[1..m][1..n].
// Input:  a holds A (m x n); w has room for n values; v is n x n.
// Output, m >= n: a holds U (m x n, orthonormal columns), w[1..n] the
//   singular values, v holds V (n x n; V itself, not its transpose).
// Output, m < n: columns 1..m of a hold U (m x m), w[1..m] the singular
//   values, and columns 1..m of v (rows 1..n) hold V; w[m+1..n] and the
//   further columns of a and v carry nothing useful.
// In both cases w[1] >= w[2] >= ... >= w[min(m,n)] with the columns of U and V
// kept in step.  When m*n > 999 a countdown for each phase is written to
// standard output.  Nothing is touched when m or n is below 1.  A singular
// value that does not settle within 200 QR sweeps is left as it stands; no
// error is raised.
void svdcmp(float **a, int m, int n, float *w, float **v);

// The same decomposition with rows and columns of the storage exchanged: the
// m x n matrix decomposed (m >= n) has element (i, j) at a[j][i], so a is
// stored n x m.  This lets a wide matrix be decomposed through its transpose
// without copying it.
// Output: element (i, j) of U (m x n) at a[j][i]; w[1..n] the singular values
// (unsorted); v[1..n][1..n] holds V.  Requires m >= n.
void svdcmptrans(float **a, int m, int n, float *w, float **v);
