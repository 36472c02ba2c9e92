// A closed, non-spherical head of three nested surfaces (scalp, skull,
// brain) for examples, tests and benchmarks.
//
// Frame: metres, x to the right ear, y to the nose, z up; the origin is the
// centre of the scalp's ellipsoid.  Every surface is an ellipsoid that is
// narrower left-right than front-back, egg-shaped front to back (the back of
// the head fuller than the forehead) and flattened at its base.  The shapes
// are exactly symmetric about the mid-sagittal plane x = 0 (vertex for
// vertex, as the underlying icosphere is), and a vertex number comes from the
// same icosphere direction on all three surfaces.  Each semi-axis shrinks by
// 7 mm from one surface to the next (scalp and skull about 7 mm thick).
#pragma once

#include <string>

#include "surface/mesh.h"
#include "tools/icosphere.h"

enum HeadLayer { HEAD_SCALP = 0, HEAD_SKULL = 1, HEAD_BRAIN = 2 };
constexpr int HEAD_LAYERS = 3;

// "scalp", "skull", "brain".
extern const char *const head_layer_name[HEAD_LAYERS];
// Conductivities just within each surface, S/m: 0.33, 0.0042, 0.33.
extern const double head_layer_sigma[HEAD_LAYERS];

// One surface of the head with 10*4^level + 2 vertices (level 2: 162,
// 3: 642, 4: 2562, 5: 10242, 6: 40962), triangles clockwise seen from
// outside as brelix needs them.  Deterministic.
TriMesh head_layer(int level, HeadLayer layer);

// The same surface as the companion programs hold it (double coordinates).
Mesh head_layer_mesh(int level, HeadLayer layer);
// Any generated mesh in that form: vertices and triangles in the same order.
Mesh as_mesh(const TriMesh &t);

// Write DIR/scalp.tri, DIR/skull.tri, DIR/brain.tri (brelix text triangle
// files) and DIR/geometry.ans (the files as DIR/NAME, their conductivities
// and the empty line; "!" before the brain when `isolated`), so that
// `cat DIR/geometry.ans rest | brelix` runs from the current folder.
// DIR must exist.  Returns false when a file cannot be written.
bool write_head(const std::string &dir, int level, bool isolated);
