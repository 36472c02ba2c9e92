// Rigid (optionally scaled) transforms between two sets of corresponding
// points, fitted in the least-squares sense.
#pragma once

#include <string>
#include <vector>

#include "surface/mesh.h"

// p -> scale · R · p + t.
struct Similarity {
  double r[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};  // a rotation (determinant +1)
  double scale = 1;
  Vec3 t{0, 0, 0};

  Vec3 apply(const Vec3 &p) const;
  // This transform after `first`: p -> this(first(p)).
  Similarity after(const Similarity &first) const;
};

// The transform that best maps `from` onto `to` (point i onto point i), in
// the sense of least weighted squared distances (closed form of Umeyama,
// 1991, with Horn's weights).
//   from, to: corresponding points, same count, at least 3 not on one line;
//   weights: one per pair, all positive (empty: all 1);
//   with_scale: fit a common scale factor too (else scale = 1).
// Throws std::invalid_argument when the points leave the rotation undecided
// (fewer than 3, or all on one line).
Similarity fit_similarity(const std::vector<Vec3> &from, const std::vector<Vec3> &to, bool with_scale,
                          const std::vector<double> &weights = {});

// The transform as text for a report: the 3x4 matrix [scale·R | t], one row
// a line, and the rotation angle and scale.
std::string describe(const Similarity &s, const std::string &unit);
