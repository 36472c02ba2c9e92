// Inversion of the factorised system matrix for the electrode rows, and the
// correction that undoes the deflation on solutions of the deflated system.
#pragma once

#include "forwinv/forwinv.h"

// b[1..n][1..n]: the system matrix as factorised by ludec (n = totpnt); it is
// not changed.  nel: number of electrodes.  On output *bi points at a new
// matrix [1..nel][1..n]: entry [e][c] is the potential at electrode e for a
// unit source term at global vertex c, times that vertex's conductivity
// factor 2 / (sigma_in + sigma_out).  Reads geo, ngeo, deflat, iso_sur,
// iso_b, iso_totpnt, surfelec and the electrode table.  Allocation failure
// is fatal.
void b_invert(float **b, float ***bi, int nel, int n);

// x[1..nrows][1..totpnt]: rows of vertex potentials that solve the deflated
// system.  On output every row has, on the vertices of each interface, the
// constant added that the deflation had taken away.
void sphi_reflate(float **x, int nrows);
