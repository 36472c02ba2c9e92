#include "geometry/lmoutr.h"

#include <cmath>

#include "geometry/vecfun.h"

int lmoutr(const float a[3], const float b[3], const float c[3], const float p[3], double *lambda, double *mu,
           double *nu) {
  double e1[3], e2[3], q[3];
  for (int k = 0; k < 3; k++) {
    e1[k] = (double)b[k] - a[k];
    e2[k] = (double)c[k] - a[k];
    q[k] = (double)p[k] - a[k];
  }
  // Normal e1 x e2, component by component as the determinant with a unit
  // vector, then scaled to unit length so that nu is a distance.
  static const double ux[3] = {1, 0, 0}, uy[3] = {0, 1, 0}, uz[3] = {0, 0, 1};
  double n[3] = {deter(ux, e1, e2), deter(uy, e1, e2), deter(uz, e1, e2)};
  double len2 = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
  if (len2 == 0.0) return 0;
  double len = std::sqrt(len2);
  for (int k = 0; k < 3; k++) n[k] /= len;

  double det = deter(e1, e2, n);
  if (det == 0.0) return 0;
  // Cramer's rule for q = lambda e1 + mu e2 + nu n.
  *lambda = deter(q, e2, n) / det;
  *mu = deter(e1, q, n) / det;
  *nu = deter(e1, e2, q) / det;
  return 1;
}
