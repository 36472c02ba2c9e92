#include "plotting/section.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>

namespace {

uint64_t edge_key(int a, int b) {
  if (a > b) std::swap(a, b);
  return (uint64_t)(uint32_t)a << 32 | (uint32_t)b;
}

}  // namespace

std::vector<std::vector<Vec3>> plane_section(const Mesh &mesh, int axis, double value) {
  const auto &v = mesh.vertices;
  auto above = [&](int i) { return v[i][axis] >= value; };
  auto point_on = [&](int a, int b) {
    double da = v[a][axis] - value, db = v[b][axis] - value, t = da / (da - db);
    Vec3 p;
    for (int k = 0; k < 3; k++) p[k] = v[a][k] + t * (v[b][k] - v[a][k]);
    p[axis] = value;
    return p;
  };
  // One piece per crossed triangle, between two crossed edges.
  struct Piece {
    uint64_t edge[2];
    Vec3 point[2];
  };
  std::vector<Piece> pieces;
  std::unordered_map<uint64_t, std::vector<int>> at_edge;
  for (const Tri &t : mesh.triangles) {
    int n = 0;
    Piece p;
    for (int e = 0; e < 3 && n < 2; e++) {
      int a = t[e], b = t[(e + 1) % 3];
      if (above(a) == above(b)) continue;
      p.edge[n] = edge_key(a, b);
      p.point[n] = point_on(std::min(a, b), std::max(a, b));  // the same point from either triangle
      n++;
    }
    if (n != 2) continue;
    for (int k = 0; k < 2; k++) at_edge[p.edge[k]].push_back((int)pieces.size());
    pieces.push_back(p);
  }
  // Chain pieces through their shared edges.
  std::vector<char> used(pieces.size(), 0);
  std::vector<std::vector<Vec3>> lines;
  for (size_t start = 0; start < pieces.size(); start++) {
    if (used[start]) continue;
    used[start] = 1;
    std::vector<Vec3> line = {pieces[start].point[0], pieces[start].point[1]};
    uint64_t first_edge = pieces[start].edge[0];
    // Walk forward from the second end, then backward from the first.
    for (int pass = 0; pass < 2; pass++) {
      uint64_t edge = pass == 0 ? pieces[start].edge[1] : first_edge;
      while (true) {
        int next = -1;
        for (int q : at_edge[edge])
          if (!used[q]) next = q;
        if (next < 0) break;
        used[next] = 1;
        int k = pieces[next].edge[0] == edge ? 1 : 0;
        edge = pieces[next].edge[k];
        if (pass == 0)
          line.push_back(pieces[next].point[k]);
        else
          line.insert(line.begin(), pieces[next].point[k]);
      }
      // A closed chain came back to where it began (its last point is the
      // first one again): nothing to walk back.
      if (pass == 0 && edge == first_edge) break;
    }
    lines.push_back(std::move(line));
  }
  return lines;
}
