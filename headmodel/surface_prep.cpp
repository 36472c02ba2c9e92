#include "headmodel/surface_prep.h"

#include <cmath>
#include <cstdlib>

#include "cli/failure.h"
#include "headmodel/cgal_checks.h"

SurfaceLog prepare_surface(Mesh &mesh, const SurfaceName &name, const RepairChoices &choices) {
  SurfaceLog log;
  if (mesh.triangles.empty()) fail(name.file, "", "the surface has no triangles");
  check_finite_and_indexed(mesh, name);
  log.vertices_welded = weld_duplicate_vertices(mesh, name, choices.weld);
  log.collapsed = drop_collapsed(mesh);
  check_manifold_edges(mesh, name);
  log.patch_flipped = make_orientation_consistent(mesh, name, choices.orient);
  check_manifold_vertices(mesh, name);
  if (choices.fill_holes && !boundary_loops(mesh).empty()) {
    log.holes = fill_holes(mesh);
    if (!log.holes.all_closed) check_closed(mesh, name);
  }
  check_closed(mesh, name);
  check_connected(mesh, name);

  const std::vector<int> flat = degenerate_triangles(mesh);
  if (!flat.empty()) {
    const Tri first = mesh.triangles[flat[0]];
    const Vec3 where = mesh.vertices[first[0]];
    if (!remove_degenerate_triangles(mesh))
      fail(name.file, "triangles " + index_list(flat),
           "triangles without area (corners on one line) that could not be removed, the first at " +
               describe_spot(name.frame, where));
    // Counted as found: an edge flip removes one without changing the count.
    log.degenerate_removed = (long)flat.size();
  }

  // brelix needs the right-hand normals inside, i.e. a negative signed volume.
  const double volume = signed_volume(mesh);
  if (volume == 0) fail(name.file, "", "the surface encloses no volume");
  if (volume > 0) {
    if (!choices.orient)
      fail(name.file, "all triangles",
           "the triangles turn counter-clockwise seen from outside (normals outwards); brelix needs them clockwise "
           "(leave out --no-orient to flip them)");
    flip_all(mesh);
    log.all_flipped = true;
  }
  check_self_intersection(mesh, name);
  return log;
}

void check_self_intersection(const Mesh &mesh, const SurfaceName &name) {
  const auto hit = find_self_intersection(mesh);
  if (hit)
    fail(name.file, "triangles " + std::to_string(hit->face_a + 1) + " and " + std::to_string(hit->face_b + 1),
         "the surface intersects itself at " + describe_spot(name.frame, hit->point));
}

namespace {

// Edge length that gives about `vertices` vertices on a closed surface of
// area `area` with equilateral triangles (2V faces of sqrt(3)/4 L^2 each).
double edge_for(double area, long vertices) { return std::sqrt(2 * area / (std::sqrt(3.0) * (double)vertices)); }

}  // namespace

void remesh_surface(Mesh &mesh, const RemeshTarget &target) {
  const unsigned iterations = 6;
  if (target.vertices <= 0) {
    isotropic_remesh(mesh, target.edge, iterations);
    return;
  }
  const long n = target.vertices;
  const double area = measure_mesh(mesh).area;
  const Mesh original = mesh;
  // Collapsing a large surface first is much cheaper than letting the
  // remesher coarsen it; three times the target leaves it room to place
  // vertices well.
  if ((long)mesh.vertices.size() > 4 * n) decimate(mesh, 3 * n);
  const Mesh start = mesh;
  double edge = edge_for(area, n);
  isotropic_remesh(mesh, edge, iterations);
  // Remeshing lands only near the count the edge length predicts; one
  // corrected pass brings it within a few per cent.
  const double miss = (double)mesh.vertices.size() / (double)n;
  if (std::fabs(miss - 1) > 0.03) {
    mesh = start;
    isotropic_remesh(mesh, edge * std::sqrt(miss), iterations);
  }
  // Decimation cut corners off the shape; the final vertices go back onto
  // the surface as it was read.
  const auto on_original = nearest_points(original, mesh.vertices);
  for (size_t v = 0; v < mesh.vertices.size(); v++) mesh.vertices[v] = on_original[v].point;
}
