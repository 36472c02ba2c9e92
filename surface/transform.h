// Units and frames of imported geometry: surfaces and electrode positions
// come in millimetres, centimetres or metres and sometimes in another
// frame; brelix works in metres in one frame.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "surface/mesh.h"

// How coordinates were scaled to metres.
struct UnitChoice {
  std::string unit;  // "mm", "cm" or "m"
  double scale;      // metres per unit: 0.001, 0.01 or 1
  bool automatic;    // chosen from the size of the geometry
  double extent;     // largest bounding-box side, in metres after scaling
  // E.g. "mm (chosen from the extent, 187.3 mm)" or "m (given)".
  std::string describe() const;
};

// `option` is "mm", "cm", "m" or "auto"; for auto the unit is the one that
// makes the largest bounding-box side of `points` most like a head's
// (about 0.2 m; refused when no unit gives between 5 cm and 1 m).  A wrong
// option or an implausible size throws InputError naming `source` (the
// file the points came from).
UnitChoice choose_units(const std::string &option, const std::vector<Vec3> &points, const std::string &source);

// A 4x4 affine transform, row-major, applied to column vectors (x y z 1).
using Affine = std::array<std::array<double, 4>, 4>;

// Read a transform from a text file: 16 numbers (4 rows of 4; '#' starts a
// comment), or 12 (3 rows, the last row then being 0 0 0 1).  The last row
// must be 0 0 0 1 and the 3x3 part invertible; InputError otherwise,
// naming the file and line.
Affine read_affine(const std::string &path);

Vec3 apply_affine(const Affine &a, const Vec3 &p);
// Transform every vertex; a transform that mirrors (negative determinant)
// also reverses each triangle's corner order, so that normals that pointed
// inwards still do.
void apply_affine(const Affine &a, Mesh &mesh);
// Multiply every coordinate by `scale`.
void scale_mesh(Mesh &mesh, double scale);
