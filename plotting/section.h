// The cut of a closed surface by a plane: its intersection polylines.
#pragma once

#include <vector>

#include "surface/mesh.h"

// Polylines where `mesh` meets the plane of points x with x[axis] = value.
// Each polyline is a chain of points on mesh edges; on a closed surface the
// chains close (the last point equals the first).  A vertex exactly on the
// plane counts as above it, so that every crossing is found once and the
// pieces join.
std::vector<std::vector<Vec3>> plane_section(const Mesh &mesh, int axis, double value);
