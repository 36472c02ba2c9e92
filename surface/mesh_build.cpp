#include "surface/mesh_build.h"

#include "cli/failure.h"

void MeshBuilder::bad_vertex(const std::string &place) const {
  fail(file_, place, "vertex " + std::to_string(mesh_.vertices.size() + 1) + " has a coordinate that is not a finite number");
}

void MeshBuilder::bad_corners(const std::string &place, long face, int n) const {
  fail(file_, place, "face " + std::to_string(face) + " has " + std::to_string(n) + " corners; at least 3 are needed");
}

void MeshBuilder::bad_index(const std::string &place, long face, long long index, long long count, int base) const {
  fail(file_, place,
       "face " + std::to_string(face) + " refers to vertex " + std::to_string(index) + ", outside the " +
           std::to_string(count) + " vertices numbered from " + std::to_string(base));
}

void MeshBuilder::too_many(const std::string &place, long long count) const {
  fail(file_, place, std::to_string(count) + " vertices are more than a surface can have");
}
