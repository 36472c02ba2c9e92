// Solid angle of a plane triangle seen from a point, and its split over the
// three vertices for a potential that is linear over the triangle.
#include "geometry/solangle.h"

#include <cmath>

#include "numeric/double_lanes.h"
#include "numeric/elementary.h"

namespace solangle_scalar {
using V = LanesScalar;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
}  // namespace solangle_scalar

namespace {

// The one length formula of this module, shared with callers that supply
// lengths themselves.
double norm(const double v[3]) { return solangle_length(v); }

double dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

void cross(const double a[3], const double b[3], double c[3]) {
  c[0] = a[1] * b[2] - a[2] * b[1];
  c[1] = a[2] * b[0] - a[0] * b[2];
  c[2] = a[0] * b[1] - a[1] * b[0];
}

// Triple product, half-angle denominator and solid angle of one triangle.
void angle_parts(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                 double *t, double *den, double *omega) {
  const double y[3][3] = {{y1[0], y1[1], y1[2]}, {y2[0], y2[1], y2[2]}, {y3[0], y3[1], y3[2]}};
  const double l[3] = {l1, l2, l3};
  solangle_scalar::solid_angle_lanes(y, l, *t, *den, *omega);
}

// The weights of a triangle seen under the solid angle omega (|omega| at
// least the far-triangle threshold), t = y1 . (y2 x y3); arguments and
// result as for solangle_lengths.
int near_weights(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                 double t, double omega, double *w1, double *w2, double *w3) {
  const double *y[5] = {y3, y1, y2, y3, y1};  // cyclic: y[0] = y3, y[4] = y1
  const double l[5] = {l3, l1, l2, l3, l1};
  double z[4][3];
  cross(y2, y3, z[1]);
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
      g = elem_log(p / q) / lambda;
    else if (q == 0.0 && p == 0.0)  // on the edge's line beyond its far end: the limit
      g = elem_log(l[i + 1] / l[i]) / lambda;
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

// y1..y3, w1..w3, minangle, result: as for solangle.
// l1, l2, l3: solangle_length of y1, y2, y3.
int solangle_lengths(const double y1[3], const double y2[3], const double y3[3], double l1, double l2, double l3,
                     double *w1, double *w2, double *w3, double minangle) {
  double t, den, omega;
  angle_parts(y1, y2, y3, l1, l2, l3, &t, &den, &omega);
  if (t == 0.0 && den <= 0.0) return 0;  // on the triangle itself
  if (std::fabs(omega) < minangle) {
    *w1 = *w2 = *w3 = solangle_scalar::third_lanes(omega);
    return 1;
  }
  return near_weights(y1, y2, y3, l1, l2, l3, t, omega, w1, w2, w3);
}

// y1, y2, y3: triangle vertices minus the observation point (read only).
// onplane: on output 1 when the point lies on the triangle (0.0 is then
//   returned), else 0.
// Returns the solid angle, with the sign convention of solangle.
double rhoek(const double y1[3], const double y2[3], const double y3[3], int *onplane) {
  double t, den, omega;
  angle_parts(y1, y2, y3, norm(y1), norm(y2), norm(y3), &t, &den, &omega);
  if (t == 0.0 && den <= 0.0) {
    *onplane = 1;
    return 0.0;
  }
  *onplane = 0;
  return omega;
}
