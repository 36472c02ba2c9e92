// The top view of a head used by topographies: directions from a centre
// inside the head, drawn by the azimuthal equidistant projection around the
// vertex (+z).  A point's distance from the middle of the picture is its
// polar angle from +z in radians; x points right and y to the front (nose).
#pragma once

#include <array>
#include <vector>

#include "surface/mesh.h"

struct Sphere {
  Vec3 centre;
  double radius;
};

// The least-squares sphere through `points`.  With fewer than four points,
// points all on one plane, or a fit far larger than the point cloud (points
// on a small cap), the centroid of `fallback` is the centre instead and the
// mean distance to it the radius.
Sphere fit_sphere(const std::vector<Vec3> &points, const std::vector<Vec3> &fallback);

// The unit vector from `centre` towards `p` (+z when p is the centre).
Vec3 direction_from(const Vec3 &centre, const Vec3 &p);

// Projection of the direction `d` (a unit vector) into the top view.
std::array<double, 2> project_top(const Vec3 &d);

// The unit direction whose projection is (x, y); valid for a distance up to
// pi from the middle.
Vec3 unproject_top(double x, double y);
