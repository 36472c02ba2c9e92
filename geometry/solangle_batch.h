// Solid angles of all triangles of a surface seen from one point, many
// triangles at once with the vector instructions of the level in force
// (numeric/double_simd.h).  Every level gives the bits of the plain
// solangle; the common case of a far triangle (equal split) runs without
// branches, and whatever else (near triangles, points on a triangle) is
// listed for the caller to treat one by one with solangle_lengths.
#pragma once

#include <cstdint>

// One surface laid out for the kernels: structure of arrays, in the single
// precision of the surface files.
struct SurfaceLanes {
  int npnt = 0, ndhk = 0;
  float *point[3] = {};      // point[c][v]: coordinate c of vertex v
  float *corner[3][3] = {};  // corner[m][c][t]: coordinate c of corner m of triangle t
  int *vertex[3] = {};       // vertex[m][t]: vertex number of corner m of triangle t
};

// s: on output the layout of the surface with npnt vertices pnt and ndhk
// triangles dhk (vertex numbers zero-based, all within 0 .. npnt-1).
// Returns false (s left empty) when the memory cannot be had.
bool surface_lanes_make(SurfaceLanes *s, const float (*pnt)[3], int npnt, const int32_t (*dhk)[3], int ndhk);
// Frees what surface_lanes_make allocated; s is left empty.
void surface_lanes_free(SurfaceLanes *s);

// s: the surface; x: the observation point.
// len: on output len[v] = solangle_length(vertex v - x) for every vertex.
void vertex_lengths(const SurfaceLanes &s, const double x[3], double *len);

// s, x: as above; len: the lengths from vertex_lengths; minangle: the
// far-triangle threshold of solangle; scale: a factor for the weights.
// w: on output, for every triangle t whose point lies off it and whose
//   solid angle is below minangle in absolute value, w[t], w[stride + t]
//   and w[2 stride + t] all hold (omega / 3) * scale, the weight solangle
//   gives each vertex times scale; for the other triangles these entries
//   are overwritten with unspecified values.  stride >= s.ndhk.
// events: on output the other triangles, in increasing order.
// Returns the number of those triangles.
int far_triangle_weights(const SurfaceLanes &s, const double x[3], const double *len, double minangle, double scale,
                         double *w, int stride, int *events);
