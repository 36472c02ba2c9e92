// From source terms at the vertices to the transfer matrix at the electrodes.
//
// A source-term matrix x has one row per unit source component and one
// column per vertex in global numbering (1..totpnt).  The transfer matrix
// trans[1..nel][1..ncols] maps source components to electrode potentials,
// every column referred to the electrode average.
#pragma once

#include "forwinv/forwinv.h"

// Multiply, for each interface i of table[0..n-1], the columns of i's
// vertices (counted from 1 through the table in order) in rows 1..nrows of
// x by 2 / (sigma_in(i) + sigma_out(i)).
void sphi_transform(const Interface *table, int n, float **x, int nrows);

// Solve m (factorised, n x n) for each row of x[1..nrows][1..n] in place,
// with the "Solve countdown" when nrows > 10.
void do_solve(float **m, float **x, int nrows, int n);

// trans[e][r] = potential at electrode e of the vertex potentials x[r], then
// each column minus its mean over the electrodes.
void make_trans(float **x, int ncols, float **trans);

// Isolated-source steps on the system-matrix path: get_w0 solves the
// isolated sub-model for the rows of x and corrects x (w0 receives the
// corrected source-term values of the isolated vertices); add_w0 adds them
// back after the full solve.  w0 is ncols x iso_totpnt.
void get_w0(float **w0, float **iso_b, float **x, int ncols);
void add_w0(float **w0, float **iso_b, float **x, int ncols);

// Transfer matrix trans[1..nel][1..ncols] from the source terms
// x[1..ncols][1..totpnt].  With b (the factorised system matrix) given, the
// system is solved and x is overwritten by vertex potentials; with b null,
// the inverted A matrix bi[1..nel][1..totpnt] is used and x is unchanged.
// `reflate` non-zero forces the reflation step.
void sphi2trans(float **b, float **bi, float **x, int ncols, float **trans, int reflate);

// phi[e][t] = sum over p = 1..npar of d[p][t] * trans[e][p] (overwrites phi).
void forward(float **trans, float **phi, float **d, int npar, int nel, int ntim);

// Compact the columns of trans in place for sources whose orientation is
// stationary: one column u . (x, y, z columns) at lindex; free sources keep
// their three columns, moved to lindex.
void reduce_trans(int nsource, int nel, const SourceRecord *source, float **trans);
