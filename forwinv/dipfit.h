// The nonlinear dipole fit: positions and orientations of the sources of the
// global table, with their strengths eliminated as linear parameters, and the
// model callbacks that rebuild the electrode potentials of unit dipoles and
// their derivatives for every trial.
//
// The callbacks read the model through the process-wide tables: geo, el,
// source, and b (the factorised system matrix) or, when b is null, bi (the
// inverted A matrix).
#pragma once

#include "forwinv/forwinv.h"

// Fit the sources of source[0..nsource-1] to the data (constraint 1: one set
// of positions and orientations for all samples; otherwise each sample on its
// own, every sample starting from the table's positions).
// On input:  trans is not used; psi[1..nel][1..ntim] holds the data; the
//            source table holds the start values with lindex/pindex/oindex
//            laid out; sdd (may be null) and sdspnt (five floats per source,
//            zero-filled; may be null) say whether standard deviations are
//            wanted.
// On output: d[1..nlpar][1..ntim] the strengths (for a moving fit also rows
//            nlpar+3s+1..nlpar+3s+3 the position of source s per sample);
//            phi[1..nel][1..ntim] the fitted potentials; *sdphi the rms
//            residual; sdd the standard deviations of d; sdspnt (stationary
//            fit) those of x, y, z, theta, alfa of each source.  A stationary
//            fit writes the fitted positions and orientations back into the
//            table.  The vertex coordinates of every interface are left
//            multiplied by the fit's scale factor.
// Returns the relative residual |psi - phi| / |psi|.
float d_alin_inverse(float **trans, float **psi, float **d, int nlpar, int nel, int ntim, float **phi,
                     float *sdphi, float **sdd, float (*sdspnt)[5]);

// Model matrix of the fit: M[1..m][1..n] (n = nlpar) for the nonlinear
// parameters p[1..q]: the electrode potentials of every source's unit
// moments (free orientation: three columns from lindex) or of its unit
// moment along (theta, alfa) (stationary orientation: one column).
void d_transeval(int m, int n, int q, float *p, float **M);

// Derivatives of that model matrix: D[k][i][j] = dM[i][j]/dp[k] for
// k = 1..q, i = 1..m, j = 1..n; entries no parameter reaches are zero.
void d_dtranseval(int m, int n, int q, float *p, float ***D);

// T[1..m][1..3]: electrode potentials of the unit dipoles along x, y and z
// at pos[0..2] (m = nel; ncomp is 3).
void trans_dip(int m, int ncomp, const float pos[3], float **T);

// P[k][i][j] = dT[i][j]/d pos[k-1] for k, j = 1..3, i = 1..m: the analytic
// derivatives of trans_dip with respect to the dipole position.
void dtrans_dip(int m, int ncomp, const float pos[3], float ***P);
