#include "forwinv/dipole.h"

#include <cmath>

void phi_dipole(const float x[3], const float p[3], float g[3]) {
  double d0 = (double)x[0] - p[0], d1 = (double)x[1] - p[1], d2 = (double)x[2] - p[2];
  double r2 = d0 * d0 + d1 * d1 + d2 * d2;
  if (r2 == 0.0) {
    g[0] = g[1] = g[2] = 0.0f;
    return;
  }
  double r3 = r2 * std::sqrt(r2);
  g[0] = (float)(d0 / r3);
  g[1] = (float)(d1 / r3);
  g[2] = (float)(d2 / r3);
}

void phi_quadrupole(const float x[3], const float p[3], float q[5]) {
  double d0 = (double)x[0] - p[0], d1 = (double)x[1] - p[1], d2 = (double)x[2] - p[2];
  double r2 = d0 * d0 + d1 * d1 + d2 * d2;
  if (r2 == 0.0) {
    for (int k = 0; k < 5; k++) q[k] = 0.0f;
    return;
  }
  double r = std::sqrt(r2);
  double r3 = r2 * r, r5 = r3 * r2;
  q[0] = (float)(3 * d0 * d0 / r5 - 1 / r3);
  q[1] = (float)(3 * d0 * d1 / r5);
  q[2] = (float)(3 * d0 * d2 / r5);
  q[3] = (float)(3 * d1 * d1 / r5 - 1 / r3);
  q[4] = (float)(3 * d1 * d2 / r5);
}

void sphi_dipole(const float p[3], float **rows) {
  int c = 1;
  for (int i = 0; i < ngeo; i++) {
    for (int v = 0; v < geo[i].npnt; v++, c++) {
      float g[3];
      phi_dipole(geo[i].pnt[v], p, g);
      rows[1][c] = ONE_OVER_4PI * g[0];
      rows[2][c] = ONE_OVER_4PI * g[1];
      rows[3][c] = ONE_OVER_4PI * g[2];
    }
  }
}
