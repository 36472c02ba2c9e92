// A triangulated surface as the companion programs hold it: vertices in
// double precision, triangles as zero-based vertex indices.
#pragma once

#include <array>
#include <string>
#include <vector>

using Vec3 = std::array<double, 3>;
using Tri = std::array<int, 3>;

struct Mesh {
  std::vector<Vec3> vertices;
  std::vector<Tri> triangles;
};
