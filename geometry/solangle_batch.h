// Solid-angle weights of every triangle of a surface seen from several
// points at once, one point per vector lane (as many as the instruction-set
// level in force takes, numeric/double_simd.h), summed per vertex of the
// surface: the inner loop of the system-matrix assembly.
//
// Every level gives the bits of the plain code (solangle per triangle,
// "entry = (float)(entry + w * scale)" per corner in triangle order).  A far
// triangle, seen under less than minangle and not touched by the point,
// is split equally and runs without branches; the rest (points on a
// triangle, near triangles) are handed to the caller one by one, in
// triangle order for each point.  So, with the same sums, are the rare far
// pairs whose numbers lie beyond the range of the kernel's short road to a
// small angle (a denominator below 2^-600, which single-precision surfaces
// hardly reach).
#pragma once

#include <cstdint>

// Points seen together at most, whatever the level.
constexpr int ANGLE_SUMS_MAX_POINTS = 8;

// One surface laid out for the kernels.
struct SurfaceLanes {
  int npnt = 0, ndhk = 0;
  double *point = nullptr;   // [3 npnt]: vertex v at 3 v
  double *corner = nullptr;  // [9 ndhk]: corner m of triangle t at 9 t + 3 m
  int *vertex = nullptr;     // [3 ndhk]: vertex number of corner m of triangle t at 3 t + m
};

// s: on output the layout of the surface with npnt vertices pnt and ndhk
// triangles dhk (vertex numbers zero-based, all within 0 .. npnt-1).
// Returns false (s left empty) when the memory cannot be had.
bool surface_lanes_make(SurfaceLanes *s, const float (*pnt)[3], int npnt, const int32_t (*dhk)[3], int ndhk);
// Frees what surface_lanes_make allocated; s is left empty.
void surface_lanes_free(SurfaceLanes *s);

// Number of points the level in force sees together.
int angle_sums_points();

// The caller's treatment of a (point, triangle) pair that is not simply far.
class NearPairs {
 public:
  virtual ~NearPairs() = default;
  // point: which of the points; t: the triangle.  Returns true with w[0..2]
  // the weights of the triangle's corners (not yet scaled), or false to
  // give the point up: its sums are then unspecified, and no more of its
  // pairs are handed over.
  virtual bool weights(int point, int t, double w[3]) = 0;
};

// s: the surface; x[0 .. npoints-1]: the points (npoints at most
// angle_sums_points()), with coordinates that single precision holds
// exactly, as the surfaces' own are (the kernels rely on it); minangle: the far-triangle threshold of solangle;
// scale: the factor of every weight; near: treats the other pairs.
// len, acc: work space of ANGLE_SUMS_MAX_POINTS * s.npnt entries each.
// out: on output out[p][v] holds, for every point p not given up, the sum
//   over the triangles (in order) of the scaled weights of their corners
//   at vertex v, accumulated in float from +0.
void angle_sums(const SurfaceLanes &s, const double (*x)[3], int npoints, double minangle, double scale,
                NearPairs &near, float *const *out, double *len, float *acc);
