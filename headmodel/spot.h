// Where something lies on a surface, said so that the user can find the spot
// in their own file: in the file's coordinates and units, and in the metres
// of the written head model.
#pragma once

#include <array>
#include <string>

#include "surface/mesh.h"
#include "surface/transform.h"

struct SpotFrame {
  std::string unit = "m";   // the input's unit as the user knows it: "mm", "cm" or "m"
  double metres = 1;        // metres per input unit
  bool transformed = false; // true when a 4x4 affine was applied to the files' coordinates
  std::array<double, 12> back{};  // rows of the inverse affine (3x4), output frame (input units) -> file
};

// "(x, y, z) mm in the file, (X, Y, Z) m": `p` on input is a point of the
// working head model, in metres.
std::string describe_spot(const SpotFrame &frame, const Vec3 &p);

// Inverts the affine `a` (checked invertible when read) into frame.back and
// marks the frame transformed.
void set_spot_transform(SpotFrame &frame, const Affine &a);

// "12, 13, 14" for the first `most` indices (one-based, as users count),
// then ", ..." when there are more.
template <class Range>
std::string index_list(const Range &indices, size_t most = 8) {
  std::string s;
  size_t n = 0;
  for (auto i : indices) {
    if (n == most) return s + ", ...";
    s += (n++ ? ", " : "") + std::to_string((long)i + 1);
  }
  return s;
}
