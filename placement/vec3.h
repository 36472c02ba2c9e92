// Small vector helpers for the placement geometry.
#pragma once

#include <cmath>

#include "surface/mesh.h"

inline Vec3 operator+(const Vec3 &a, const Vec3 &b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
inline Vec3 operator-(const Vec3 &a, const Vec3 &b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
inline Vec3 operator*(double s, const Vec3 &a) { return {s * a[0], s * a[1], s * a[2]}; }
inline double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline Vec3 cross(const Vec3 &a, const Vec3 &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
inline double norm(const Vec3 &a) { return std::sqrt(dot(a, a)); }
inline double distance(const Vec3 &a, const Vec3 &b) { return norm(a - b); }
// `a` scaled to length 1 (a zero vector stays zero).
inline Vec3 unit(const Vec3 &a) {
  const double n = norm(a);
  return n > 0 ? (1 / n) * a : a;
}
