// Solid angle of a plane triangle seen from a point, and its split over the
// triangle's vertices for a linear potential.
//
// y1, y2, y3 are the triangle's vertices minus the observation point, in the
// triangle's own order, in double precision.  The angle comes from the
// project's own atan2 (numeric/elementary.h), so the vectorised kernels of
// the assembly (geometry/solangle_batch.h) reproduce it bit for bit.
#pragma once

#include <cmath>

// On output w1..w3 hold the parts of the solid angle belonging to y1..y3
// (they sum to the solid angle).  Triangles seen under less than `minangle`
// steradians are split equally.  Returns 1, or 0 (weights untouched) when
// the point lies on the triangle or on one of its edges.
int solangle(const double y1[3], const double y2[3], const double y3[3], double *w1, double *w2, double *w3,
             double minangle);

// Length of a difference vector exactly as solangle computes it.
inline double solangle_length(const double v[3]) {
  return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// solangle with the lengths l1..l3 of y1..y3 supplied by the caller (who
// must compute them with solangle_length), for loops that see every vertex
// from one point many times.  Same results as solangle, bit for bit.
int solangle_lengths(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                     double *w1, double *w2, double *w3, double minangle);

// The solid angle alone.  *onplane is set to 1 (and 0.0 returned) when the
// point lies on the triangle, else to 0.
double rhoek(const double y1[3], const double y2[3], const double y3[3], int *onplane);
