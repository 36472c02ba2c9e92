#include "headmodel/mesh_quality.h"

#include <algorithm>
#include <cmath>

namespace {

Vec3 sub(const Vec3 &a, const Vec3 &b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec3 cross(const Vec3 &a, const Vec3 &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
double norm(const Vec3 &a) { return std::sqrt(dot(a, a)); }

}  // namespace

double signed_volume(const Mesh &mesh) {
  double six_v = 0;
  for (const Tri &t : mesh.triangles)
    six_v += dot(mesh.vertices[t[0]], cross(mesh.vertices[t[1]], mesh.vertices[t[2]]));
  return six_v / 6;
}

MeshQuality measure_mesh(const Mesh &mesh) {
  MeshQuality q;
  if (mesh.triangles.empty()) return q;
  double max_cosine = -1, sum = 0, sum2 = 0;
  q.min_edge = INFINITY;
  for (const Tri &t : mesh.triangles) {
    const Vec3 &a = mesh.vertices[t[0]], &b = mesh.vertices[t[1]], &c = mesh.vertices[t[2]];
    const Vec3 e[3] = {sub(b, a), sub(c, b), sub(a, c)};
    const double len[3] = {norm(e[0]), norm(e[1]), norm(e[2])};
    for (int k = 0; k < 3; k++) {
      // The angle between edge k and the edge before it, at their shared corner.
      const double cosine = -dot(e[k], e[(k + 2) % 3]) / (len[k] * len[(k + 2) % 3]);
      max_cosine = std::max(max_cosine, std::isfinite(cosine) ? cosine : 1.0);
      q.min_edge = std::min(q.min_edge, len[k]);
      q.max_edge = std::max(q.max_edge, len[k]);
      sum += len[k], sum2 += len[k] * len[k];
    }
    q.area += norm(cross(e[0], sub(c, a))) / 2;
  }
  q.min_angle_deg = std::acos(std::clamp(max_cosine, -1.0, 1.0)) * 180 / M_PI;
  const double n = 3.0 * mesh.triangles.size();
  q.mean_edge = sum / n;
  q.edge_spread = std::sqrt(std::max(0.0, sum2 / n - q.mean_edge * q.mean_edge)) / q.mean_edge;
  q.volume = std::fabs(signed_volume(mesh));
  return q;
}

std::vector<Vec3> vertex_normals(const Mesh &mesh) {
  std::vector<Vec3> n(mesh.vertices.size(), Vec3{0, 0, 0});
  for (const Tri &t : mesh.triangles) {
    const Vec3 w = cross(sub(mesh.vertices[t[1]], mesh.vertices[t[0]]), sub(mesh.vertices[t[2]], mesh.vertices[t[0]]));
    for (int v : t)
      for (int k = 0; k < 3; k++) n[v][k] += w[k];
  }
  for (Vec3 &v : n) {
    const double l = norm(v);
    if (l > 0)
      for (double &x : v) x /= l;
  }
  return n;
}
