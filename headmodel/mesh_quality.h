// Measures of a triangulated surface: the figures that tell whether it is
// fit for the boundary-element method (triangle shape and size) and whether
// a change kept its shape (volume, area).
#pragma once

#include "surface/mesh.h"

struct MeshQuality {
  double min_angle_deg = 0;  // smallest interior angle of any triangle
  double min_edge = 0, max_edge = 0, mean_edge = 0;
  double edge_spread = 0;    // standard deviation of edge lengths over their mean
  double area = 0;
  double volume = 0;         // enclosed volume, positive for either orientation
};

// Figures of `mesh` (closed surface for a meaningful volume).
MeshQuality measure_mesh(const Mesh &mesh);

// Volume enclosed by a closed surface, signed: positive when the triangles'
// right-hand normals point outwards, negative when inwards (brelix's way).
double signed_volume(const Mesh &mesh);

// Unit normal of each vertex: the area-weighted mean of the right-hand
// normals of its triangles.
std::vector<Vec3> vertex_normals(const Mesh &mesh);
