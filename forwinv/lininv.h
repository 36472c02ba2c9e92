// Linear inverse: source strengths at fixed positions from the measured
// potentials, through a truncated singular value decomposition of the
// transfer matrix, and the relative-difference measures of a fit.
//
// All arrays are the one-based float arrays of numeric/nrutils.h.
#pragma once

// Least-squares strengths for every sample at once: d = trans^+ psi, with the
// pseudo-inverse truncated at singular values below tol * (largest).
// Input:  trans[1..nel][1..npar] transfer matrix (not changed);
//         psi[1..nel][1..ntim] data; tol the relative truncation threshold.
// Output: d[1..npar][1..ntim] the strengths; sdd[1..npar][1..ntim], when sdd
//         is not null, the standard-deviation factors: for parameter j,
//         sqrt(sum_k V[j][k]^2 / w[k]^2) (directions with w[k] below 1e-10 of
//         the largest count as 1e20 instead of 1/w^2) times d[j][t] itself.
// Prints "Condition of linear inverse: ..." or, when values were dropped,
// "Transfer matrix is singular" with the rank and the condition of the
// pseudo-inverse.  With npar > nel only nel singular values exist; the rest
// count as dropped, so the rank is at most nel.  Allocation failures are
// fatal.
void lin_inverse(float **trans, float **psi, float **d, int npar, int nel, int ntim, float **sdd, float tol);

// Relative difference sqrt(sum (meas - model)^2 / sum meas^2) over
// [1..nrow][1..ncol]; *rms receives sqrt(sum (meas - model)^2 / (nrow ncol)).
// All-zero data give a quotient 0/0 (not a number), and so do data whose
// sum of squares overflows single precision.
float reldif(float **meas, float **model, int nrow, int ncol, float *rms);

// Factor sqrt(sum psi^2 / sum (shift[j] + psi[i][j])^2) over
// [1..nrow][1..ncol] (shift[1..ncol] is the mean removed from each column):
// multiplied with a relative difference of the referenced data it gives the
// relative difference with respect to the data as measured.
float reldifcor(float **psi, float *shift, int nrow, int ncol);
