#include "headmodel/spot.h"

#include <cmath>
#include <cstdio>

namespace {

// Rounding leaves values like -2e-19 where a coordinate is zero; they would
// only distract.
std::string triple(const Vec3 &v, const char *format, double zero) {
  double x[3];
  for (int k = 0; k < 3; k++) x[k] = std::fabs(v[k]) < zero ? 0.0 : v[k];
  char buf[160];
  snprintf(buf, sizeof buf, format, x[0], x[1], x[2]);
  return buf;
}

}  // namespace

std::string describe_spot(const SpotFrame &frame, const Vec3 &p) {
  Vec3 f = {p[0] / frame.metres, p[1] / frame.metres, p[2] / frame.metres};
  if (frame.transformed) {
    const Vec3 q = f;
    for (int r = 0; r < 3; r++)
      f[r] = frame.back[4 * r] * q[0] + frame.back[4 * r + 1] * q[1] + frame.back[4 * r + 2] * q[2] + frame.back[4 * r + 3];
  }
  return triple(f, "(%.6g, %.6g, %.6g) ", 1e-9 / frame.metres) + frame.unit + " in the file, " +
         triple(p, "(%.5f, %.5f, %.5f) m", 5e-6);
}

void set_spot_transform(SpotFrame &frame, const Affine &a) {
  // Inverse of the linear part by cofactors, then the translation undone.
  const double m[3][3] = {{a[0][0], a[0][1], a[0][2]}, {a[1][0], a[1][1], a[1][2]}, {a[2][0], a[2][1], a[2][2]}};
  double inv[3][3];
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) {
      const int r1 = (c + 1) % 3, r2 = (c + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
      inv[r][c] = m[r1][c1] * m[r2][c2] - m[r1][c2] * m[r2][c1];
    }
  const double det = m[0][0] * inv[0][0] + m[0][1] * inv[1][0] + m[0][2] * inv[2][0];
  for (int r = 0; r < 3; r++) {
    double t = 0;
    for (int c = 0; c < 3; c++) {
      frame.back[4 * r + c] = inv[r][c] / det;
      t -= frame.back[4 * r + c] * a[c][3];
    }
    frame.back[4 * r + 3] = t;
  }
  frame.transformed = true;
}
