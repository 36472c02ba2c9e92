// Changes to a surface done by the geometry library: removing triangles
// without area, closing holes, decimation and isotropic remeshing.  Every
// function takes a manifold, consistently oriented surface (coordinates in
// metres) and keeps its orientation.
#pragma once

#include <vector>

#include "surface/mesh.h"

// Triangles whose three corners lie on one line (exactly, or two of them at
// the same place), by number.
std::vector<int> degenerate_triangles(const Mesh &mesh);

// Removes triangles without area by collapsing and flipping edges around
// them.  Returns false when some could not be removed.
bool remove_degenerate_triangles(Mesh &mesh);

// Closes every hole with a patch of triangles sized like those around it,
// shaped smoothly to follow the surface.
struct HoleFilling {
  long holes = 0, triangles_added = 0, vertices_added = 0;
  bool all_closed = true;  // false when some hole could not be patched
};
HoleFilling fill_holes(Mesh &mesh);

// Edge-collapse decimation down to about `vertices` vertices (shortest
// edges first, merged at their middles).
void decimate(Mesh &mesh, long vertices);

// Isotropic remeshing: edges near `edge_length`, triangles close to
// equilateral, vertices kept on the original surface.
void isotropic_remesh(Mesh &mesh, double edge_length, unsigned iterations);
