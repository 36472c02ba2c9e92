// Checks and repairs of one surface that need only its vertex and triangle
// lists: coordinates, duplicate vertices, collapsed triangles, edges used
// once or more than twice, pinched vertices, consistent orientation and
// connectedness.  Each refusal is an InputError naming the file, the
// vertices or triangles involved (counted from 1, as users count) and where
// they lie.
#pragma once

#include <string>
#include <vector>

#include "headmodel/spot.h"
#include "surface/mesh.h"

// The surface being checked: its file as the user named it, and how to say
// where a point lies.
struct SurfaceName {
  std::string file;
  SpotFrame frame;
};

// Refuses a vertex coordinate that is not a finite number or a triangle
// index outside the vertex list.
void check_finite_and_indexed(const Mesh &mesh, const SurfaceName &name);

// Vertices with exactly the same coordinates: merged into the first of them
// (triangles renumbered) when `weld`; refused otherwise.  Returns the number
// of vertices removed.
long weld_duplicate_vertices(Mesh &mesh, const SurfaceName &name, bool weld);

// Drops triangles that use a vertex twice (they have no area and no place in
// a closed surface) and vertices no triangle uses (they would be unknowns
// without an equation).  Returns the numbers dropped.
struct Dropped {
  long triangles = 0, vertices = 0;
};
Dropped drop_collapsed(Mesh &mesh);

// Refuses an edge shared by more than two triangles.
void check_manifold_edges(const Mesh &mesh, const SurfaceName &name);

// Makes the triangles turn consistently: the smaller patch that turns
// against its neighbours is flipped (refused instead when `repair` is false,
// or when no consistent orientation exists).  Needs manifold edges.
// Returns the number of triangles flipped.
long make_orientation_consistent(Mesh &mesh, const SurfaceName &name, bool repair);

// Refuses a vertex around which the triangles form more than one fan (two
// parts of the surface touching in a point).
void check_manifold_vertices(const Mesh &mesh, const SurfaceName &name);

// Boundary loops (edges used by one triangle), each as its vertices in order.
std::vector<std::vector<int>> boundary_loops(const Mesh &mesh);
// Refuses a surface with boundary loops, listing them.
void check_closed(const Mesh &mesh, const SurfaceName &name);

// Refuses a surface made of more than one connected piece.
void check_connected(const Mesh &mesh, const SurfaceName &name);

// Flips every triangle (the vertex order of each reversed).
void flip_all(Mesh &mesh);
