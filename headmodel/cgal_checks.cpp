// The only translation unit of the checks that includes the geometry
// library's intersection and distance machinery (slow to compile).
#include "headmodel/cgal_checks.h"

#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/AABB_triangle_primitive.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/self_intersections.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/intersections.h>
#include <boost/iterator/function_output_iterator.hpp>
#include <stdexcept>

namespace {

using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Point = K::Point_3;
using Triangle = K::Triangle_3;
using SurfaceMesh = CGAL::Surface_mesh<Point>;
using Triangles = std::vector<Triangle>;
using Primitive = CGAL::AABB_triangle_primitive<K, Triangles::const_iterator>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<K, Primitive>>;

Point point(const Vec3 &v) { return Point(v[0], v[1], v[2]); }
Vec3 vec(const Point &p) { return {p.x(), p.y(), p.z()}; }

Triangles triangles_of(const Mesh &mesh) {
  Triangles t;
  t.reserve(mesh.triangles.size());
  for (const Tri &f : mesh.triangles)
    t.emplace_back(point(mesh.vertices[f[0]]), point(mesh.vertices[f[1]]), point(mesh.vertices[f[2]]));
  return t;
}

// The halfedge form of a checked surface; faces keep their numbers.
SurfaceMesh surface_mesh(const Mesh &mesh) {
  SurfaceMesh sm;
  sm.reserve(mesh.vertices.size(), 3 * mesh.triangles.size() / 2, mesh.triangles.size());
  for (const Vec3 &v : mesh.vertices) sm.add_vertex(point(v));
  for (const Tri &f : mesh.triangles)
    if (sm.add_face(SurfaceMesh::Vertex_index(f[0]), SurfaceMesh::Vertex_index(f[1]), SurfaceMesh::Vertex_index(f[2])) ==
        SurfaceMesh::null_face())
      throw std::logic_error("surface_mesh: the surface was not checked for manifold edges and orientation");
  return sm;
}

// A point where two triangles that are known to meet do so: the middle of
// their common part.
Vec3 meeting_point(const Triangle &a, const Triangle &b) {
  const auto common = CGAL::intersection(a, b);
  Vec3 sum{0, 0, 0};
  int n = 0;
  auto add = [&](const Point &p) {
    for (int k = 0; k < 3; k++) sum[k] += p[k];
    n++;
  };
  if (common) {
    if (const Point *p = boost::get<Point>(&*common)) add(*p);
    if (const K::Segment_3 *s = boost::get<K::Segment_3>(&*common)) add(s->source()), add(s->target());
    if (const Triangle *t = boost::get<Triangle>(&*common)) add(t->vertex(0)), add(t->vertex(1)), add(t->vertex(2));
    if (const auto *ps = boost::get<std::vector<Point>>(&*common))
      for (const Point &p : *ps) add(p);
  }
  if (n == 0)  // touching in a way the inexact construction missed: the triangles' middles
    for (const Triangle *t : {&a, &b}) add(CGAL::centroid(*t));
  for (double &x : sum) x /= n;
  return sum;
}

struct FoundPair {};

}  // namespace

std::optional<TriangleContact> find_self_intersection(const Mesh &mesh) {
  const SurfaceMesh sm = surface_mesh(mesh);
  std::optional<TriangleContact> found;
  auto record = [&](const std::pair<SurfaceMesh::Face_index, SurfaceMesh::Face_index> &p) {
    found = TriangleContact{(int)p.first, (int)p.second, {}};
    throw FoundPair{};
  };
  try {
    CGAL::Polygon_mesh_processing::self_intersections(sm, boost::make_function_output_iterator(record));
  } catch (const FoundPair &) {
  }
  if (found) {
    const Triangles t = triangles_of(mesh);
    found->point = meeting_point(t[found->face_a], t[found->face_b]);
  }
  return found;
}

std::optional<TriangleContact> find_surface_contact(const Mesh &a, const Mesh &b) {
  const Triangles ta = triangles_of(a), tb = triangles_of(b);
  if (ta.empty() || tb.empty()) return std::nullopt;
  Tree tree(ta.begin(), ta.end());
  for (size_t j = 0; j < tb.size(); j++) {
    const auto hit = tree.any_intersected_primitive(tb[j]);
    if (hit) {
      const int i = (int)(*hit - ta.begin());
      return TriangleContact{i, (int)j, meeting_point(ta[i], tb[j])};
    }
  }
  return std::nullopt;
}

std::vector<bool> points_inside(const Mesh &closed, const std::vector<Vec3> &points) {
  const SurfaceMesh sm = surface_mesh(closed);
  CGAL::Side_of_triangle_mesh<SurfaceMesh, K> side(sm);
  std::vector<bool> inside(points.size());
  for (size_t i = 0; i < points.size(); i++) inside[i] = side(point(points[i])) == CGAL::ON_BOUNDED_SIDE;
  return inside;
}

std::vector<NearestPoint> nearest_points(const Mesh &surface, const std::vector<Vec3> &points) {
  const Triangles t = triangles_of(surface);
  std::vector<NearestPoint> out(points.size());
  if (t.empty()) return out;
  Tree tree(t.begin(), t.end());
  tree.accelerate_distance_queries();
  for (size_t i = 0; i < points.size(); i++) {
    const Point q = point(points[i]);
    const auto [p, id] = tree.closest_point_and_primitive(q);
    out[i] = {std::sqrt(CGAL::squared_distance(q, p)), (int)(id - t.begin()), vec(p)};
  }
  return out;
}
