// Potentials of unit current dipoles in an infinite medium of unit
// conductivity, and their derivatives with respect to the source position.
#pragma once

#include "forwinv/forwinv.h"

// 1/(4 pi) as the single-precision constant the source terms are scaled by.
constexpr float ONE_OVER_4PI = 0.07957747f;

// g[0..2] = (x - p) / |x - p|^3; all zero when x = p.
void phi_dipole(const float x[3], const float p[3], float g[3]);

// q[0..4] = derivative of the dipole kernel with respect to the source
// position, with d = x - p, r = |d|: (3dx^2/r^5 - 1/r^3, 3dx dy/r^5,
// 3dx dz/r^5, 3dy^2/r^5 - 1/r^3, 3dy dz/r^5); all zero when r = 0.  The zz
// entry is -(xx + yy) and is not stored.
void phi_quadrupole(const float x[3], const float p[3], float q[5]);

// Fill rows[1], rows[2], rows[3] (each over 1..totpnt) with the source terms
// of the unit dipoles along x, y and z at p: 1/(4 pi) * phi_dipole at every
// vertex in global order.  The caller passes the row table offset to the
// source's first row (e.g. sphi + 3k).
void sphi_dipole(const float p[3], float **rows);
