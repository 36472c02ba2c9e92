// Paths over the scalp between two of its points: the cut of the surface by
// the plane through both and a third point, which on a head-like surface is
// close to the shortest path and, unlike it, is fixed by three points.
#pragma once

#include <vector>

#include "surface/mesh.h"

struct SurfaceArc {
  std::vector<Vec3> points;  // from the start to the end, both included
  std::vector<double> at_length;  // length along the path up to each point

  double length() const { return at_length.empty() ? 0 : at_length.back(); }
  // The point at `fraction` (0: start, 1: end) of the length along the path.
  Vec3 at(double fraction) const;
};

// The path from `a` to `b` along the cut of `mesh` by the plane through a, b
// and `plane_point`.  The cut of a closed surface is a closed loop, which a
// and b split in two: the part that passes nearest to `guide` is returned.
// a and b must lie on the surface (as the closest-point search gives them).
// Throws std::runtime_error when the three points do not fix a plane, or when
// a and b are not on the same loop of the cut (a surface with holes there).
SurfaceArc surface_arc(const Mesh &mesh, const Vec3 &a, const Vec3 &b, const Vec3 &plane_point, const Vec3 &guide);
