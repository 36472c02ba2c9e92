// Neighbouring surfaces of a head: one must lie inside the other without
// touching it, at least a given gap away, and the gap can be made by moving
// the inner surface inwards.  Coordinates in metres; triangles clockwise
// seen from outside.
#pragma once

#include "headmodel/mesh_topology.h"

// The smallest distance between two surfaces, measured from every vertex of
// each to the other: which vertex (of which surface) and where.
struct SurfaceGap {
  double distance = 0;
  bool at_inner_vertex = true;  // the vertex lies on the inner surface
  int vertex = -1;
  Vec3 vertex_point{}, nearest{};
};
SurfaceGap smallest_gap(const Mesh &outer, const Mesh &inner);

// Refuses `inner` when it meets `outer` or does not lie inside it, and when
// their smallest distance is below `min_gap`.  Returns the smallest gap.
SurfaceGap check_pair(const Mesh &outer, const SurfaceName &outer_name, const Mesh &inner,
                      const SurfaceName &inner_name, double min_gap);

// Moves vertices of `inner` inwards, along its normals and tapered smoothly
// over their neighbours, until it lies inside `outer` at least `min_gap`
// from it everywhere (or the rounds run out; the caller checks again).
struct GapFix {
  long vertices_moved = 0;
  double largest_move = 0;
};
GapFix fix_gap(const Mesh &outer, Mesh &inner, double min_gap);
