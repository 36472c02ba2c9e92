// Sphere meshes from a subdivided icosahedron, for examples, tests and
// benchmarks.
#pragma once

#include <array>
#include <string>
#include <vector>

struct TriMesh {
  std::vector<std::array<float, 3>> pnt;  // vertices
  std::vector<std::array<int, 3>> dhk;    // triangles, vertex indices from 0
};

// Number of subdivisions that gives `vertices` vertices (12, 42, 162, 642,
// 2562, 10242, ...: 10*4^k + 2), or -1 when no subdivision gives it.
int icosphere_level(int vertices);

// A sphere of the given radius and centre with 10*4^level + 2 vertices.
// Triangles are ordered clockwise seen from outside, so their right-hand
// normals point inwards, as the boundary-element code requires.  Vertices of
// spheres with the same level lie on the same rays from the centre.
TriMesh icosphere(int level, double radius, double cx = 0, double cy = 0, double cz = 0);

// Write the mesh as a triangle file: text (vertex and triangle lines with a
// running number, indices counted from 1) or binary (counts and indices from
// 0, native byte order).  Returns false when the file cannot be written.
bool write_trimesh(const std::string &path, const TriMesh &mesh, bool binary);
