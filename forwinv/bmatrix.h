// Assembly of the boundary-element system matrix, with the nesting table,
// outer conductivities, deflation and the isolated-source sub-model.
#pragma once

#include "forwinv/forwinv.h"

// Global one-based number of the first vertex of interface i (1 for i <= 0).
int get_offset(int i);

// Fill b (totpnt x totpnt, allocated by the caller), geocon, every
// sigma_out, deflat, and for an isolated-source interface iso_geo, iso_ngeo,
// iso_index, iso_totpnt, iso_deflat and iso_b.  Every fault is fatal.
void b_matrix();

// Block of rows of interface i and columns of interface j, and geocon[i][j].
void b_submatrix(int i, int j);

// sigma_out of every interface from geocon.
void sigma();

// Deflation factors f[0..n-1][0..n-1] of a table of n interfaces.
void get_deflat(Interface *table, int n, float f[][MAXGEO]);

// Turn the geometric matrix m[1..npoints][1..npoints] into the system
// matrix I - C with conductivity weights and deflation.
void b_transform(Interface *table, int n, int npoints, float f[][MAXGEO], float **m);
