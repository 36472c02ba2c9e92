// One surface made fit for brelix: the checks of a single closed surface,
// the repairs that are safe to make without asking, and remeshing to a
// target size.  Coordinates in metres.
#pragma once

#include "headmodel/cgal_repair.h"
#include "headmodel/mesh_quality.h"
#include "headmodel/mesh_topology.h"

struct RepairChoices {
  bool weld = true;         // merge duplicate vertices (else refuse them)
  bool orient = true;       // turn triangles to brelix's way (else refuse wrong ones)
  bool fill_holes = false;  // close holes (else refuse them)
};

// What was done to a surface, for the report.
struct SurfaceLog {
  long vertices_welded = 0;
  Dropped collapsed;            // triangles using a vertex twice, unused vertices
  long degenerate_removed = 0;  // triangles without area, removed
  long patch_flipped = 0;       // triangles flipped to agree with their neighbours
  bool all_flipped = false;     // every triangle flipped (normals pointed outwards)
  HoleFilling holes;
};

// Checks `mesh` as one closed, connected, manifold surface without
// self-intersections, repairing what `choices` allow; on return its
// triangles turn clockwise seen from outside.  Throws InputError naming the
// first defect found.
SurfaceLog prepare_surface(Mesh &mesh, const SurfaceName &name, const RepairChoices &choices);

// Refuses a surface that cuts itself.
void check_self_intersection(const Mesh &mesh, const SurfaceName &name);

// Target of remeshing: a vertex count, or else an edge length in metres.
struct RemeshTarget {
  long vertices = 0;
  double edge = 0;
};

// Remeshes a prepared surface to well-shaped triangles of the target size,
// keeping its shape (vertices stay on the original surface).
void remesh_surface(Mesh &mesh, const RemeshTarget &target);
