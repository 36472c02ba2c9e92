#include "placement/closest_point.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "placement/vec3.h"

// The regions of the triangle's plane, tested in turn: corners, edges, inside
// (after Ericson, Real-Time Collision Detection, 5.1.5).
void closest_on_triangle(const Vec3 &p, const Vec3 &a, const Vec3 &b, const Vec3 &c, double &u, double &v) {
  auto set = [&](double uu, double vv) { u = uu, v = vv; };
  const Vec3 ab = b - a, ac = c - a, ap = p - a;
  const double d1 = dot(ab, ap), d2 = dot(ac, ap);
  if (d1 <= 0 && d2 <= 0) return set(0, 0);
  const Vec3 bp = p - b;
  const double d3 = dot(ab, bp), d4 = dot(ac, bp);
  if (d3 >= 0 && d4 <= d3) return set(1, 0);
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0 && d1 >= 0 && d3 <= 0) return set(d1 / (d1 - d3), 0);
  const Vec3 cp = p - c;
  const double d5 = dot(ab, cp), d6 = dot(ac, cp);
  if (d6 >= 0 && d5 <= d6) return set(0, 1);
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0 && d2 >= 0 && d6 <= 0) return set(0, d2 / (d2 - d6));
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) {
    const double w = (d4 - d3) / ((d4 - d3) + (d5 - d6));
    return set(1 - w, w);
  }
  const double denom = va + vb + vc;
  if (!(denom > 0)) return set(0, 0);  // a degenerate triangle: its first corner
  u = vb / denom;
  v = vc / denom;
}

ScalpLocator::ScalpLocator(const Mesh &mesh) : mesh_(mesh) {
  const double inf = std::numeric_limits<double>::infinity();
  lo_ = {inf, inf, inf};
  hi_ = {-inf, -inf, -inf};
  for (const Tri &t : mesh.triangles)
    for (int c : t)
      for (int k = 0; k < 3; k++) {
        lo_[k] = std::min(lo_[k], mesh.vertices[(size_t)c][k]);
        hi_[k] = std::max(hi_[k], mesh.vertices[(size_t)c][k]);
      }
  // About one cell per triangle, at most 128 cells along an axis; a flat or
  // tiny mesh still gets cells of positive size.
  const Vec3 extent = hi_ - lo_;
  const double longest = std::max({extent[0], extent[1], extent[2]});
  const double volume = std::max(extent[0], longest / 128) * std::max(extent[1], longest / 128) *
                        std::max(extent[2], longest / 128);
  h_ = std::max(std::cbrt(volume / (double)std::max<size_t>(1, mesh.triangles.size())), longest / 128);
  if (!(h_ > 0)) h_ = 1;
  for (int k = 0; k < 3; k++) n_[k] = std::clamp((int)std::ceil(extent[k] / h_), 1, 128);

  // Two passes: count the triangles of each cell, then fill.
  const long cells = (long)n_[0] * n_[1] * n_[2];
  start_.assign((size_t)cells + 1, 0);
  for (int pass = 0; pass < 2; pass++) {
    std::vector<long> fill;
    if (pass == 1) {
      for (long c = 0; c < cells; c++) start_[(size_t)c + 1] += start_[(size_t)c];
      tri_.resize((size_t)start_[(size_t)cells]);
      fill.assign(start_.begin(), start_.end() - 1);
    }
    for (size_t t = 0; t < mesh.triangles.size(); t++) {
      int from[3], to[3];
      for (int k = 0; k < 3; k++) {
        double a = inf, b = -inf;
        for (int c : mesh.triangles[t]) {
          a = std::min(a, mesh.vertices[(size_t)c][k]);
          b = std::max(b, mesh.vertices[(size_t)c][k]);
        }
        from[k] = cell_of(a, k);
        to[k] = cell_of(b, k);
      }
      for (int k = from[2]; k <= to[2]; k++)
        for (int j = from[1]; j <= to[1]; j++)
          for (int i = from[0]; i <= to[0]; i++) {
            const long c = cell_index(i, j, k);
            if (pass == 0)
              start_[(size_t)c + 1]++;
            else
              tri_[(size_t)fill[(size_t)c]++] = (int)t;
          }
    }
  }
}

int ScalpLocator::cell_of(double x, int axis) const {
  const double f = std::floor((x - lo_[axis]) / h_);
  return (int)std::clamp(f, 0.0, (double)(n_[axis] - 1));
}

SurfacePoint ScalpLocator::closest(const Vec3 &p) const {
  SurfacePoint best;
  double best_d2 = std::numeric_limits<double>::infinity();
  auto test = [&](int t) {
    const Tri &tri = mesh_.triangles[(size_t)t];
    const Vec3 &a = mesh_.vertices[(size_t)tri[0]], &b = mesh_.vertices[(size_t)tri[1]],
               &c = mesh_.vertices[(size_t)tri[2]];
    double u, v;
    closest_on_triangle(p, a, b, c, u, v);
    const Vec3 q = a + u * (b - a) + v * (c - a);
    const Vec3 d = q - p;
    const double d2 = dot(d, d);
    if (d2 < best_d2 || (d2 == best_d2 && t < best.triangle)) {
      best_d2 = d2;
      best = {t, u, v, q, 0};
    }
  };
  const int c0[3] = {cell_of(p[0], 0), cell_of(p[1], 1), cell_of(p[2], 2)};
  auto visit = [&](int i, int j, int k) {
    const long c = cell_index(i, j, k);
    for (long s = start_[(size_t)c]; s < start_[(size_t)c + 1]; s++) test(tri_[(size_t)s]);
  };
  const int rings = std::max({n_[0], n_[1], n_[2]});
  for (int r = 0; r <= rings; r++) {
    // The cells at Chebyshev distance r from the query's (clamped) cell.
    for (int k = std::max(0, c0[2] - r); k <= std::min(n_[2] - 1, c0[2] + r); k++)
      for (int j = std::max(0, c0[1] - r); j <= std::min(n_[1] - 1, c0[1] + r); j++) {
        if (std::abs(k - c0[2]) == r || std::abs(j - c0[1]) == r) {
          for (int i = std::max(0, c0[0] - r); i <= std::min(n_[0] - 1, c0[0] + r); i++) visit(i, j, k);
        } else {
          if (c0[0] - r >= 0) visit(c0[0] - r, j, k);
          if (r > 0 && c0[0] + r < n_[0]) visit(c0[0] + r, j, k);
        }
      }
    // Cells further out are at least r cell widths from the point (or from
    // its projection onto the grid, which is no farther from them).
    if (best.triangle >= 0 && std::sqrt(best_d2) <= r * h_) break;
  }
  best.distance = std::sqrt(best_d2);
  return best;
}
