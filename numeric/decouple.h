// Separable least squares: data Y (m x L) fitted by M(p) X, with the linear
// parameters X (n x L) eliminated for every trial of the q nonlinear
// parameters p (variable projection), and p iterated by a blend of
// Gauss-Newton and scaled-gradient steps with an adaptive step length.
//
// All arrays are the one-based float arrays of numeric/nrutils.h.  The module
// keeps state for the whole run (which explanations were already printed,
// the rank last reported), so it is not reentrant.
#pragma once

// Bound test: non-zero when the trial parameters p[1..q] are acceptable.
typedef int (*DecoupleBound)(int q, float *p);
// Model callback: fill M[1..m][1..n] for the parameters p[1..q].
typedef void (*DecoupleModel)(int m, int n, int q, float *p, float **M);
// Derivative callback: fill D[k][i][j] = dM[i][j]/dp[k] (k = 1..q).
typedef void (*DecoupleDeriv)(int m, int n, int q, float *p, float ***D);

// Fit Y[1..m][1..L] by M(p) X.
// Input:  p[1..q] the start values; bound, model, deriv the callbacks;
//   maxiter the largest number of iterations; tol the relative improvement
//   below which the iteration stops; verbose non-zero to report progress on
//   standard output; svtol the relative threshold on the singular values of
//   M that sets its pseudo-rank; fullcov selects the covariance layout.
// Output: p the fitted values; X[1..n][1..L] the linear parameters;
//   F[1..m][1..L] = M(p) X; *relres = |Y - F| / |Y| (Frobenius; |Y| taken as
//   1 for all-zero data, not a number when |Y|^2 overflows); *rms = sqrt(sum (Y-F)^2 / (L m)); *cond the
//   condition estimate of the last normal-equation solve (0 when none was
//   solved), negative when it was solved by Householder least squares:
//   -k - 0.5 |R[k][k] / R[1][1]| with k the pseudo-rank, so k is the integer
//   part of the magnitude and the condition 2 / (magnitude - k); -0.5 when
//   the rank came out 0 and the step was taken as zero.
//   cov, when not null, the unscaled covariance of all parameters:
//   fullcov 0: (n+q) x (n+q), linear block [1..n] and nonlinear block
//     [n+1..n+q] only (the coupling entries are not touched);
//   fullcov non-zero: (n L + q) square, the linear parameters of column t at
//     (t-1) n + 1 .. t n, the nonlinear ones at n L + 1 .. n L + q.
//   Ill-conditioned covariance systems (condition above 1e10) give 1e20
//   everywhere in the affected block.
// Returns 1, or 0 when the work arrays cannot be allocated (or a dimension
// is out of range).
int decouple(int m, int n, int q, int L, float **Y, float **F, float *p, float **X, DecoupleBound bound,
             float *relres, DecoupleModel model, DecoupleDeriv deriv, int maxiter, float tol, float *cond,
             int verbose, float *rms, float **cov, int fullcov, float svtol);

// The building blocks of decouple, exposed so that each can be checked on
// its own.

// Pseudo-rank of the singular values w[1..n] (sorted, largest first), with
// the values replaced in place by their inverses (0 for dropped ones; 1e20
// for values at or below the threshold when svtol is exactly 0, which keeps
// them).  Reports a rank change when verbose.  Values that are not sorted
// end the program with status 1.
int get_nlpar1(float *w, int n, int verbose, float svtol);

// Residual of the projection of Y[1..m][1..L] on the range of M(p).
// Output: M[1..m][1..n] the model; U (m x n), w[1..n] (inverted, see
//   get_nlpar1) and V (n x n) its decomposition; r[1..m L] the residuals,
//   column after column; *rank the pseudo-rank.  a[1..n] is scratch.
// Returns the Frobenius norm of the residual.
float get_res(int m, int n, int q, int L, float **Y, float *p, float *r, float **M, float **U, float **V,
              float *w, float *a, int *rank, int verbose, DecoupleModel model, float svtol);

// Pseudo-inverse P[1..n][1..m] = V diag(winv[1..k]) U^T of the model matrix
// from the factors get_res left.
void get_QR(int m, int n, int k, float **U, float **V, float *winv, float **P);

// Jacobian J[1..m L][1..q] (the negative derivative of the stacked residual
// with respect to p), normal matrix G = J^T J and gradient g = J^T r at p,
// from the factors and residual of get_res and the pseudo-inverse P of
// get_QR.  Calls deriv for p first (D receives the derivatives).  X[1..n][1..L]
// receives the linear solutions P Y; Smn (m x n), sn[1..n], sm[1..m] and
// Snn (n x n) are scratch.
void get_gtg(int m, int n, int q, int L, int k, float **Y, float *p, float *r, float **U, float ***D, float **P,
             float **X, float **Smn, float *sn, float *sm, float **Snn, float **J, float **G, float *g,
             DecoupleDeriv deriv);
