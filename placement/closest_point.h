// The point of the scalp closest to a given point, with the triangle it lies
// in and brelix's local coordinates there.
#pragma once

#include <vector>

#include "surface/mesh.h"

struct SurfacePoint {
  int triangle = -1;    // zero-based triangle of the mesh
  double u = 0, v = 0;  // the point is (1-u-v)·a + u·b + v·c of the triangle's corners
  Vec3 point{};         // the point itself
  double distance = 0;  // from the query point
};

// Closest point of triangle (a, b, c) to p, as local coordinates (u, v).
void closest_on_triangle(const Vec3 &p, const Vec3 &a, const Vec3 &b, const Vec3 &c, double &u, double &v);

// Closest-point queries on a fixed mesh.  Triangles are sorted into a grid of
// cells over the mesh's bounding box by their own bounding boxes, and a query
// visits cells in growing shells around the query point until no unvisited
// cell can hold anything closer; tens of thousands of triangles and thousands
// of queries take well under a second.
class ScalpLocator {
 public:
  // mesh: kept by reference and must outlive the locator; its indices must
  // be valid (as the surface readers guarantee) and it must have triangles.
  explicit ScalpLocator(const Mesh &mesh);

  // The closest point of the mesh to p; ties go to the lowest triangle
  // number, so the answer does not depend on the visiting order.
  SurfacePoint closest(const Vec3 &p) const;

  const Mesh &mesh() const { return mesh_; }

 private:
  long cell_index(int i, int j, int k) const { return ((long)k * n_[1] + j) * n_[0] + i; }
  int cell_of(double x, int axis) const;

  const Mesh &mesh_;
  Vec3 lo_{}, hi_{};
  double h_ = 1;
  int n_[3] = {1, 1, 1};
  std::vector<long> start_;   // cell c holds tri_[start_[c] .. start_[c+1]-1]
  std::vector<int> tri_;
};
