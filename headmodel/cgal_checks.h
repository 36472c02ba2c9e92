// Geometric tests between triangles, done by the geometry library: a surface
// cutting itself, two surfaces meeting, which side of a closed surface a
// point is on, and nearest points.  All coordinates in metres.
#pragma once

#include <optional>
#include <vector>

#include "surface/mesh.h"

// Two triangles that meet (face_a of the first surface, face_b of the
// second, or both of the same one), and a point where they do.
struct TriangleContact {
  int face_a = -1, face_b = -1;
  Vec3 point{};
};

// Two triangles of a closed, consistently oriented, manifold `mesh` that cut
// each other (beyond the corners and edges they share), if any.
std::optional<TriangleContact> find_self_intersection(const Mesh &mesh);

// A triangle of `a` that meets a triangle of `b`, if any.
std::optional<TriangleContact> find_surface_contact(const Mesh &a, const Mesh &b);

// For each of `points`: whether it lies strictly inside the closed surface
// `closed` (manifold, consistently oriented).
std::vector<bool> points_inside(const Mesh &closed, const std::vector<Vec3> &points);

// The point of `surface` nearest to each of `points`, its triangle and the
// distance.
struct NearestPoint {
  double distance = 0;
  int face = -1;
  Vec3 point{};
};
std::vector<NearestPoint> nearest_points(const Mesh &surface, const std::vector<Vec3> &points);
