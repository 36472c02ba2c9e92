// Solid angle of a plane triangle seen from a point, and its split over the
// three vertices for a potential that is linear over the triangle.
#include "geometry/solangle.h"

#include <cmath>

namespace {

// The one length formula of this module, shared with callers that supply
// lengths themselves.
double norm(const double v[3]) { return solangle_length(v); }

using solangle_detail::cross;
using solangle_detail::dot;

}  // namespace

// y1, y2, y3: triangle vertices minus the observation point (read only).
// w1, w2, w3: on output (return 1) the parts of the solid angle that belong
//   to y1, y2, y3; left untouched when 0 is returned.
// minangle: triangles seen under a smaller solid angle (in absolute value)
//   are split equally, which spares the logarithms for far triangles.
// Returns 1, or 0 when the point lies on the triangle, on one of its edges or
// on one of its vertices.
int solangle(const double y1[3], const double y2[3], const double y3[3], double *w1, double *w2, double *w3,
             double minangle) {
  return solangle_lengths(y1, y2, y3, norm(y1), norm(y2), norm(y3), w1, w2, w3, minangle);
}

// y1, y2, y3, l1, l2, l3, w1, w2, w3: as for solangle_lengths.
// t: y1 . (y2 x y3); omega: the solid angle, at least the far-triangle
//   threshold in absolute value.
// Returns as solangle.
int solangle_near(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                  double t, double omega, double *w1, double *w2, double *w3) {
  double z1[3];
  cross(y2, y3, z1);
  const double *y[5] = {y3, y1, y2, y3, y1};  // cyclic: y[0] = y3, y[4] = y1
  const double l[5] = {l3, l1, l2, l3, l1};
  double z[4][3];
  z[1][0] = z1[0];
  z[1][1] = z1[1];
  z[1][2] = z1[2];
  cross(y3, y1, z[2]);
  cross(y1, y2, z[3]);
  double n[3];
  for (int c = 0; c < 3; c++) n[c] = z[1][c] + z[2][c] + z[3][c];
  const double nn = dot(n, n);
  if (nn == 0.0) {  // collinear vertices: no area to spread the angle over
    *w1 = *w2 = *w3 = 0.0;
    return 1;
  }

  // s = sum over the edges of (d / |d|) ln(Q / P).
  double s[3] = {0.0, 0.0, 0.0};
  for (int i = 1; i <= 3; i++) {
    double d[3];
    for (int c = 0; c < 3; c++) d[c] = y[i + 1][c] - y[i][c];
    const double lambda = norm(d);
    const double p = lambda * l[i] + dot(y[i], d);
    const double q = lambda * l[i + 1] + dot(y[i + 1], d);
    double g;
    if (q != 0.0 && p != 0.0)
      g = std::log(p / q) / lambda;
    else if (q == 0.0 && p == 0.0)  // on the edge's line beyond its far end: the limit
      g = std::log(l[i + 1] / l[i]) / lambda;
    else
      return 0;  // on the edge or at its start vertex
    for (int c = 0; c < 3; c++) s[c] -= g * d[c];
  }

  double w[4];
  for (int i = 1; i <= 3; i++) {
    double e[3];
    for (int c = 0; c < 3; c++) e[c] = y[i + 1][c] - y[i - 1][c];
    w[i] = (dot(n, z[i]) * omega + t * dot(e, s)) / nn;
  }
  *w1 = w[1];
  *w2 = w[2];
  *w3 = w[3];
  return 1;
}

// y1, y2, y3: triangle vertices minus the observation point (read only).
// onplane: on output 1 when the point lies on the triangle (0.0 is then
//   returned), else 0.
// Returns the solid angle, with the sign convention of solangle.
double rhoek(const double y1[3], const double y2[3], const double y3[3], int *onplane) {
  double z1[3];
  cross(y2, y3, z1);
  const double t = dot(y1, z1);
  const double l1 = norm(y1), l2 = norm(y2), l3 = norm(y3);
  const double den = l1 * l2 * l3 + dot(y1, y2) * l3 + dot(y2, y3) * l1 + dot(y1, y3) * l2;
  if (t == 0.0 && den <= 0.0) {
    *onplane = 1;
    return 0.0;
  }
  *onplane = 0;
  return -2.0 * std::atan2(t, den);
}
