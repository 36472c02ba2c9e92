#include "tools/icosphere.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <utility>

#include "matrixio/atomicfile.h"

int icosphere_level(int vertices) {
  long n = 12;
  for (int level = 0; level <= 10; level++, n = 10 * ((n - 2) / 10 * 4) + 2)
    if (n == vertices) return level;
  return -1;
}

TriMesh icosphere(int level, double radius, double cx, double cy, double cz) {
  using V = std::array<double, 3>;
  const double t = (1.0 + std::sqrt(5.0)) / 2.0;
  std::vector<V> v = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                      {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
  // Counter-clockwise seen from outside; reversed at the end.
  std::vector<std::array<int, 3>> f = {
      {0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
      {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
      {3, 8, 9},  {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
  auto unit = [](V a) {
    double l = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    return V{a[0] / l, a[1] / l, a[2] / l};
  };
  for (auto &p : v) p = unit(p);
  for (int s = 0; s < level; s++) {
    std::map<std::pair<int, int>, int> mid;
    auto midpoint = [&](int a, int b) {
      std::pair<int, int> key = std::minmax(a, b);
      auto it = mid.find(key);
      if (it != mid.end()) return it->second;
      V m = unit({v[a][0] + v[b][0], v[a][1] + v[b][1], v[a][2] + v[b][2]});
      v.push_back(m);
      int idx = (int)v.size() - 1;
      mid[key] = idx;
      return idx;
    };
    std::vector<std::array<int, 3>> g;
    g.reserve(f.size() * 4);
    for (auto &tri : f) {
      int a = midpoint(tri[0], tri[1]), b = midpoint(tri[1], tri[2]), c = midpoint(tri[2], tri[0]);
      g.push_back({tri[0], a, c});
      g.push_back({tri[1], b, a});
      g.push_back({tri[2], c, b});
      g.push_back({a, b, c});
    }
    f.swap(g);
  }
  TriMesh mesh;
  for (auto &p : v)
    mesh.pnt.push_back({(float)(cx + radius * p[0]), (float)(cy + radius * p[1]), (float)(cz + radius * p[2])});
  for (auto &tri : f) mesh.dhk.push_back({tri[0], tri[2], tri[1]});
  return mesh;
}

bool write_trimesh(const std::string &path, const TriMesh &mesh, bool binary) {
  // Built under a temporary name and renamed when complete, so that a
  // failed or interrupted run leaves no half mesh that would still read.
  FILE *fp = atomic_open(path.c_str());
  if (!fp) return false;
  bool ok = true;
  int32_t np = (int32_t)mesh.pnt.size(), nt = (int32_t)mesh.dhk.size();
  if (binary) {
    ok = fwrite(&np, 4, 1, fp) == 1;
    for (auto &p : mesh.pnt) ok = ok && fwrite(p.data(), 4, 3, fp) == 3;
    ok = ok && fwrite(&nt, 4, 1, fp) == 1;
    for (auto &tri : mesh.dhk) {
      int32_t w[3] = {tri[0], tri[1], tri[2]};
      ok = ok && fwrite(w, 4, 3, fp) == 3;
    }
  } else {
    ok = fprintf(fp, "%d\n", np) > 0;
    for (int i = 0; i < np && ok; i++)
      ok = fprintf(fp, "%d %.9g %.9g %.9g\n", i + 1, mesh.pnt[i][0], mesh.pnt[i][1], mesh.pnt[i][2]) > 0;
    ok = ok && fprintf(fp, "%d\n", nt) > 0;
    for (int i = 0; i < nt && ok; i++)
      ok = fprintf(fp, "%d %d %d %d\n", i + 1, mesh.dhk[i][0] + 1, mesh.dhk[i][1] + 1, mesh.dhk[i][2] + 1) > 0;
  }
  if (!ok) {
    atomic_abandon(fp);
    return false;
  }
  return atomic_commit(fp) == 1;
}
