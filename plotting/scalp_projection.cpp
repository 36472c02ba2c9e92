#include "plotting/scalp_projection.h"

#include <algorithm>
#include <cmath>

#include "plotting/dense_solve.h"

namespace {

Vec3 centroid(const std::vector<Vec3> &pts) {
  Vec3 c{0, 0, 0};
  for (const Vec3 &p : pts)
    for (int k = 0; k < 3; k++) c[k] += p[k];
  if (!pts.empty())
    for (int k = 0; k < 3; k++) c[k] /= (double)pts.size();
  return c;
}

double mean_distance(const std::vector<Vec3> &pts, const Vec3 &c) {
  double sum = 0;
  for (const Vec3 &p : pts) sum += std::hypot(p[0] - c[0], p[1] - c[1], p[2] - c[2]);
  return pts.empty() ? 1 : sum / (double)pts.size();
}

}  // namespace

Sphere fit_sphere(const std::vector<Vec3> &points, const std::vector<Vec3> &fallback) {
  if (points.size() >= 4) {
    // |p|^2 = 2 c.p + k is linear in (c, k): normal equations of 4 unknowns.
    // Coordinates are taken about the centroid to keep them well scaled.
    Vec3 m = centroid(points);
    std::vector<double> a(16, 0.0), b(4, 0.0);
    for (const Vec3 &p : points) {
      double row[4] = {2 * (p[0] - m[0]), 2 * (p[1] - m[1]), 2 * (p[2] - m[2]), 1};
      double rhs = (p[0] - m[0]) * (p[0] - m[0]) + (p[1] - m[1]) * (p[1] - m[1]) + (p[2] - m[2]) * (p[2] - m[2]);
      for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 4; j++) a[i * 4 + j] += row[i] * row[j];
        b[i] += row[i] * rhs;
      }
    }
    DenseLu lu(a, 4);
    if (!lu.singular()) {
      std::vector<double> x = lu.solve(b);
      Vec3 c{m[0] + x[0], m[1] + x[1], m[2] + x[2]};
      double r2 = x[3] + x[0] * x[0] + x[1] * x[1] + x[2] * x[2];
      double spread = mean_distance(points, m);
      if (r2 > 0 && std::isfinite(r2) && std::sqrt(r2) < 4 * spread) return {c, std::sqrt(r2)};
    }
  }
  Vec3 c = centroid(fallback.empty() ? points : fallback);
  return {c, mean_distance(fallback.empty() ? points : fallback, c)};
}

Vec3 direction_from(const Vec3 &centre, const Vec3 &p) {
  Vec3 d{p[0] - centre[0], p[1] - centre[1], p[2] - centre[2]};
  double len = std::hypot(d[0], d[1], d[2]);
  if (!(len > 0)) return {0, 0, 1};
  return {d[0] / len, d[1] / len, d[2] / len};
}

std::array<double, 2> project_top(const Vec3 &d) {
  double rho = std::hypot(d[0], d[1]);
  double theta = std::atan2(rho, d[2]);
  if (!(rho > 0)) return {0, 0};
  return {theta * d[0] / rho, theta * d[1] / rho};
}

Vec3 unproject_top(double x, double y) {
  double theta = std::hypot(x, y);
  if (!(theta > 0)) return {0, 0, 1};
  double s = std::sin(theta) / theta;
  return {x * s, y * s, std::cos(theta)};
}
