// Checked construction of a Mesh by the surface readers: every reader adds
// vertices and faces through these, so every format refuses a non-finite
// coordinate or an index out of range with the same kind of message.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

#include "surface/mesh.h"

// A vertex index stored as a floating-point value (PLY, VTK and GIfTI allow
// that): the value when it is a whole number in range, else -1, which the
// index check then refuses.
inline long long whole_index(double v) {
  return v >= -1e15 && v <= 1e15 && v == std::floor(v) ? (long long)v : -1;
}

class MeshBuilder {
 public:
  explicit MeshBuilder(std::string file) : file_(std::move(file)) {}

  // Add vertex number mesh.vertices.size()+1; `place` (a line or byte
  // offset) names it in the message when a coordinate is not finite.
  void vertex(double x, double y, double z, const std::string &place) {
    if (!(std::isfinite(x) && std::isfinite(y) && std::isfinite(z))) bad_vertex(place);
    mesh_.vertices.push_back({x, y, z});
  }
  // Same, with the place computed only when needed.
  template <class Place>
  void vertex_at(double x, double y, double z, Place &&place) {
    if (!(std::isfinite(x) && std::isfinite(y) && std::isfinite(z))) bad_vertex(place());
    mesh_.vertices.push_back({x, y, z});
  }

  // Add face number `face` (counted from 1, for the message) with `n`
  // zero-based indices into `vertex_count` vertices; polygons of more than
  // three corners are split as a fan from their first corner.  Faces of fewer
  // than three corners, or with an index outside 0..vertex_count-1, are
  // refused; the message shows the index as the file has it, counted from
  // `base`.
  template <class Index, class Place>
  void face_at(const Index *idx, int n, long long vertex_count, long face, int base, Place &&place) {
    if (n < 3) bad_corners(place(), face, n);
    if (vertex_count > INT32_MAX) too_many(place(), vertex_count);
    for (int k = 0; k < n; k++)
      if (idx[k] < 0 || (long long)idx[k] >= vertex_count)
        bad_index(place(), face, (long long)idx[k] + base, vertex_count, base);
    for (int k = 1; k + 1 < n; k++) mesh_.triangles.push_back({(int)idx[0], (int)idx[k], (int)idx[k + 1]});
    polygons_split_ += n > 3;
  }

  void reserve(size_t vertices, size_t triangles) {
    mesh_.vertices.reserve(vertices);
    mesh_.triangles.reserve(triangles);
  }
  size_t vertex_count() const { return mesh_.vertices.size(); }
  long polygons_split() const { return polygons_split_; }
  Mesh &mesh() { return mesh_; }
  const std::string &file() const { return file_; }

 private:
  [[noreturn]] void bad_vertex(const std::string &place) const;
  [[noreturn]] void too_many(const std::string &place, long long count) const;
  [[noreturn]] void bad_corners(const std::string &place, long face, int n) const;
  [[noreturn]] void bad_index(const std::string &place, long face, long long index, long long count, int base) const;

  std::string file_;
  Mesh mesh_;
  long polygons_split_ = 0;
};
