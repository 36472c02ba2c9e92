// Solid angle of a plane triangle seen from a point, and its split over the
// triangle's vertices for a linear potential.
//
// y1, y2, y3 are the triangle's vertices minus the observation point, in the
// triangle's own order, in double precision.
#pragma once

#include <cmath>

// On output w1..w3 hold the parts of the solid angle belonging to y1..y3
// (they sum to the solid angle).  Triangles seen under less than `minangle`
// steradians are split equally.  Returns 1, or 0 (weights untouched) when
// the point lies on the triangle or on one of its edges.
int solangle(const double y1[3], const double y2[3], const double y3[3], double *w1, double *w2, double *w3,
             double minangle);

namespace solangle_detail {

inline double dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

inline void cross(const double a[3], const double b[3], double c[3]) {
  c[0] = a[1] * b[2] - a[2] * b[1];
  c[1] = a[2] * b[0] - a[0] * b[2];
  c[2] = a[0] * b[1] - a[1] * b[0];
}

}  // namespace solangle_detail

// Length of a difference vector exactly as solangle computes it.
inline double solangle_length(const double v[3]) {
  return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// The weights of a triangle seen under the solid angle omega (|omega| at
// least minangle) with triple product t = y1 . (y2 x y3); arguments and
// result as for solangle_lengths.
int solangle_near(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                  double t, double omega, double *w1, double *w2, double *w3);

// solangle with the lengths l1..l3 of y1..y3 supplied by the caller (who
// must compute them with solangle_length), for loops that see every vertex
// from one point many times: the matrix assembly computes them once per
// vertex instead of once per triangle.  Same results as solangle, bit for
// bit.  The far-triangle part is inline: it is the innermost loop of the
// assembly, and only the triple product, the lengths, three dot products and
// one atan2 come before the far-triangle exit.
inline int solangle_lengths(const double y1[3], const double y2[3], const double y3[3], double l1, double l2,
                            double l3, double *w1, double *w2, double *w3, double minangle) {
  using solangle_detail::cross;
  using solangle_detail::dot;
  double z1[3];
  cross(y2, y3, z1);
  const double t = dot(y1, z1);
  const double den = l1 * l2 * l3 + dot(y1, y2) * l3 + dot(y2, y3) * l1 + dot(y1, y3) * l2;
  if (t == 0.0 && den <= 0.0) return 0;  // on the triangle itself
  // The minus sign makes triangles whose right-hand normal faces the point
  // count positive, so an inward-oriented closed surface totals +4 pi.
  const double omega = -2.0 * std::atan2(t, den);
  if (std::fabs(omega) < minangle) {
    *w1 = *w2 = *w3 = omega / 3.0;
    return 1;
  }
  return solangle_near(y1, y2, y3, l1, l2, l3, t, omega, w1, w2, w3);
}

// The solid angle alone.  *onplane is set to 1 (and 0.0 returned) when the
// point lies on the triangle, else to 0.
double rhoek(const double y1[3], const double y2[3], const double y3[3], int *onplane);
