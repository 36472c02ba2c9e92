// The only translation unit of the repairs that includes the geometry
// library's repair, hole-filling, simplification and remeshing code (slow to
// compile).
#include "headmodel/cgal_repair.h"

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/border.h>
#include <CGAL/Polygon_mesh_processing/remesh.h>
#include <CGAL/Polygon_mesh_processing/repair_degeneracies.h>
#include <CGAL/Polygon_mesh_processing/triangulate_hole.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/Surface_mesh_simplification/Policies/Edge_collapse/Count_stop_predicate.h>
#include <CGAL/Surface_mesh_simplification/Policies/Edge_collapse/Edge_length_cost.h>
#include <CGAL/Surface_mesh_simplification/Policies/Edge_collapse/Midpoint_placement.h>
#include <CGAL/Surface_mesh_simplification/edge_collapse.h>
#include <iterator>
#include <stdexcept>

namespace {

namespace PMP = CGAL::Polygon_mesh_processing;
using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Point = K::Point_3;
using SurfaceMesh = CGAL::Surface_mesh<Point>;

SurfaceMesh to_surface_mesh(const Mesh &mesh) {
  SurfaceMesh sm;
  sm.reserve(mesh.vertices.size(), 3 * mesh.triangles.size() / 2, mesh.triangles.size());
  for (const Vec3 &v : mesh.vertices) sm.add_vertex(Point(v[0], v[1], v[2]));
  for (const Tri &f : mesh.triangles)
    if (sm.add_face(SurfaceMesh::Vertex_index(f[0]), SurfaceMesh::Vertex_index(f[1]), SurfaceMesh::Vertex_index(f[2])) ==
        SurfaceMesh::null_face())
      throw std::logic_error("to_surface_mesh: the surface was not checked for manifold edges and orientation");
  return sm;
}

// Back to the plain lists, numbering what is left after removals in order.
Mesh from_surface_mesh(SurfaceMesh &sm) {
  sm.collect_garbage();
  Mesh mesh;
  mesh.vertices.reserve(sm.number_of_vertices());
  for (auto v : sm.vertices()) {
    const Point &p = sm.point(v);
    mesh.vertices.push_back({p.x(), p.y(), p.z()});
  }
  mesh.triangles.reserve(sm.number_of_faces());
  for (auto f : sm.faces()) {
    Tri t{};
    int k = 0;
    for (auto v : CGAL::vertices_around_face(sm.halfedge(f), sm)) {
      if (k == 3) throw std::logic_error("from_surface_mesh: a face with more than three corners");
      t[k++] = (int)v;
    }
    mesh.triangles.push_back(t);
  }
  return mesh;
}

}  // namespace

std::vector<int> degenerate_triangles(const Mesh &mesh) {
  std::vector<int> bad;
  for (size_t f = 0; f < mesh.triangles.size(); f++) {
    const Tri &t = mesh.triangles[f];
    const Point a(mesh.vertices[t[0]][0], mesh.vertices[t[0]][1], mesh.vertices[t[0]][2]);
    const Point b(mesh.vertices[t[1]][0], mesh.vertices[t[1]][1], mesh.vertices[t[1]][2]);
    const Point c(mesh.vertices[t[2]][0], mesh.vertices[t[2]][1], mesh.vertices[t[2]][2]);
    if (CGAL::collinear(a, b, c)) bad.push_back((int)f);
  }
  return bad;
}

bool remove_degenerate_triangles(Mesh &mesh) {
  SurfaceMesh sm = to_surface_mesh(mesh);
  const bool done = PMP::remove_degenerate_faces(sm);
  mesh = from_surface_mesh(sm);
  return done && degenerate_triangles(mesh).empty();
}

HoleFilling fill_holes(Mesh &mesh) {
  SurfaceMesh sm = to_surface_mesh(mesh);
  std::vector<SurfaceMesh::Halfedge_index> borders;
  PMP::extract_boundary_cycles(sm, std::back_inserter(borders));
  HoleFilling h;
  for (auto border : borders) {
    std::vector<SurfaceMesh::Face_index> faces;
    std::vector<SurfaceMesh::Vertex_index> vertices;
    const auto result = PMP::triangulate_refine_and_fair_hole(sm, border, std::back_inserter(faces),
                                                              std::back_inserter(vertices));
    h.holes++;
    h.triangles_added += (long)faces.size();
    h.vertices_added += (long)vertices.size();
    if (!std::get<0>(result) || faces.empty()) h.all_closed = false;
  }
  mesh = from_surface_mesh(sm);
  return h;
}

void decimate(Mesh &mesh, long vertices) {
  SurfaceMesh sm = to_surface_mesh(mesh);
  // A closed triangle surface of V vertices has 3V - 6 edges.
  CGAL::Surface_mesh_simplification::Count_stop_predicate<SurfaceMesh> stop((size_t)(3 * vertices - 6));
  // Shortest edges first, merged at their middles: far cheaper than
  // volume-optimal placement, and the remeshing that follows takes the shape
  // from this still much finer surface.
  namespace SMS = CGAL::Surface_mesh_simplification;
  SMS::edge_collapse(sm, stop,
                     CGAL::parameters::get_cost(SMS::Edge_length_cost<SurfaceMesh>())
                         .get_placement(SMS::Midpoint_placement<SurfaceMesh>()));
  mesh = from_surface_mesh(sm);
}

void isotropic_remesh(Mesh &mesh, double edge_length, unsigned iterations) {
  SurfaceMesh sm = to_surface_mesh(mesh);
  PMP::isotropic_remeshing(faces(sm), edge_length, sm, CGAL::parameters::number_of_iterations(iterations));
  mesh = from_surface_mesh(sm);
}
