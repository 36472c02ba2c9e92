#include "headmodel/surface_pairs.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/failure.h"
#include "headmodel/cgal_checks.h"
#include "headmodel/mesh_quality.h"

namespace {

std::string mm(double metres) {
  char buf[48];
  snprintf(buf, sizeof buf, "%.2f mm", metres * 1000);
  return buf;
}

Vec3 midpoint(const Vec3 &a, const Vec3 &b) { return {(a[0] + b[0]) / 2, (a[1] + b[1]) / 2, (a[2] + b[2]) / 2}; }

std::vector<std::vector<int>> neighbours(const Mesh &mesh) {
  std::vector<std::vector<int>> n(mesh.vertices.size());
  for (const Tri &t : mesh.triangles)
    for (int k = 0; k < 3; k++) n[t[k]].push_back(t[(k + 1) % 3]), n[t[(k + 1) % 3]].push_back(t[k]);
  for (auto &list : n) {
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
  }
  return n;
}

}  // namespace

SurfaceGap smallest_gap(const Mesh &outer, const Mesh &inner) {
  SurfaceGap gap;
  gap.distance = INFINITY;
  const auto from_inner = nearest_points(outer, inner.vertices);
  for (size_t v = 0; v < from_inner.size(); v++)
    if (from_inner[v].distance < gap.distance)
      gap = {from_inner[v].distance, true, (int)v, inner.vertices[v], from_inner[v].point};
  const auto from_outer = nearest_points(inner, outer.vertices);
  for (size_t v = 0; v < from_outer.size(); v++)
    if (from_outer[v].distance < gap.distance)
      gap = {from_outer[v].distance, false, (int)v, outer.vertices[v], from_outer[v].point};
  return gap;
}

SurfaceGap check_pair(const Mesh &outer, const SurfaceName &outer_name, const Mesh &inner,
                      const SurfaceName &inner_name, double min_gap) {
  if (const auto hit = find_surface_contact(outer, inner))
    fail(inner_name.file, "triangle " + std::to_string(hit->face_b + 1),
         "crosses the surface outside it, " + outer_name.file + " (its triangle " + std::to_string(hit->face_a + 1) +
             "), at " + describe_spot(inner_name.frame, hit->point) + " (--fix-gap moves it inwards)");
  // Not meeting it, the inner surface is either wholly inside or wholly outside.
  if (!points_inside(outer, {inner.vertices[0]})[0])
    fail(inner_name.file, "vertex 1",
         "the surface does not lie inside " + outer_name.file + " (surfaces go from the outermost to the innermost); "
             "vertex 1 is at " + describe_spot(inner_name.frame, inner.vertices[0]));
  const SurfaceGap gap = smallest_gap(outer, inner);
  if (gap.distance < min_gap) {
    const SurfaceName &at = gap.at_inner_vertex ? inner_name : outer_name;
    fail(at.file, "vertex " + std::to_string(gap.vertex + 1),
         "the surfaces " + outer_name.file + " and " + inner_name.file + " come " + mm(gap.distance) +
             " close, less than the smallest gap of " + mm(min_gap) + ", at " +
             describe_spot(at.frame, midpoint(gap.vertex_point, gap.nearest)) + " (--fix-gap moves the inner one inwards)");
  }
  return gap;
}

GapFix fix_gap(const Mesh &outer, Mesh &inner, double min_gap) {
  // A little beyond the gap, so that the new surface does not land exactly on it.
  const double target = min_gap * 1.05;
  const auto around = neighbours(inner);
  const size_t n = inner.vertices.size();
  const std::vector<Vec3> start = inner.vertices;
  for (int round = 0; round < 30; round++) {
    // How far each inner vertex must go: its own shortfall, and that of any
    // outer vertex too close to one of its triangles.  Only vertices closer
    // than the gap move; they go a little beyond it.
    std::vector<double> need(n, 0.0);
    const auto near = nearest_points(outer, inner.vertices);
    const auto inside = points_inside(outer, inner.vertices);
    bool short_anywhere = false;
    for (size_t v = 0; v < n; v++) {
      const double signed_distance = inside[v] ? near[v].distance : -near[v].distance;
      if (signed_distance < min_gap) need[v] = target - signed_distance, short_anywhere = true;
    }
    const auto back = nearest_points(inner, outer.vertices);
    for (const NearestPoint &b : back)
      if (b.distance < min_gap) {
        for (int v : inner.triangles[b.face]) need[v] = std::max(need[v], target - b.distance);
        short_anywhere = true;
      }
    if (!short_anywhere) break;
    // Taper the moves over the neighbourhood so that the surface bends
    // smoothly instead of growing spikes.
    std::vector<double> shift = need, next(n);
    for (int pass = 0; pass < 3; pass++) {
      for (size_t v = 0; v < n; v++) {
        double sum = 0;
        for (int w : around[v]) sum += shift[w];
        next[v] = std::max(need[v], around[v].empty() ? 0.0 : 0.5 * sum / around[v].size());
      }
      shift.swap(next);
    }
    // Right-hand normals point inwards on brelix's surfaces.
    const auto normal = vertex_normals(inner);
    for (size_t v = 0; v < n; v++)
      for (int k = 0; k < 3; k++) inner.vertices[v][k] += shift[v] * normal[v][k];
  }
  GapFix fix;
  for (size_t v = 0; v < n; v++) {
    const double d = std::hypot(inner.vertices[v][0] - start[v][0], inner.vertices[v][1] - start[v][1],
                                inner.vertices[v][2] - start[v][2]);
    if (d > 0) fix.vertices_moved++, fix.largest_move = std::max(fix.largest_move, d);
  }
  return fix;
}
