#include "headmodel/mesh_topology.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "cli/failure.h"

namespace {

// One use of an undirected edge lo-hi by a triangle; `forward` when the
// triangle runs from lo to hi.
struct EdgeUse {
  int lo, hi, face;
  bool forward;
  bool operator<(const EdgeUse &o) const {
    return lo != o.lo ? lo < o.lo : hi != o.hi ? hi < o.hi : face < o.face;
  }
};

std::vector<EdgeUse> edge_uses(const Mesh &mesh) {
  std::vector<EdgeUse> uses;
  uses.reserve(3 * mesh.triangles.size());
  for (size_t f = 0; f < mesh.triangles.size(); f++)
    for (int k = 0; k < 3; k++) {
      const int a = mesh.triangles[f][k], b = mesh.triangles[f][(k + 1) % 3];
      uses.push_back({std::min(a, b), std::max(a, b), (int)f, a < b});
    }
  std::sort(uses.begin(), uses.end());
  return uses;
}

// Calls visit(first, count) for each run of uses of the same edge.
template <class Visit>
void for_each_edge(const std::vector<EdgeUse> &uses, Visit visit) {
  for (size_t i = 0; i < uses.size();) {
    size_t j = i + 1;
    while (j < uses.size() && uses[j].lo == uses[i].lo && uses[j].hi == uses[i].hi) j++;
    visit(i, j - i);
    i = j;
  }
}

Vec3 mean_of(const Mesh &mesh, const std::vector<int> &vertices) {
  Vec3 c{0, 0, 0};
  for (int v : vertices)
    for (int k = 0; k < 3; k++) c[k] += mesh.vertices[v][k] / vertices.size();
  return c;
}

Vec3 centroid(const Mesh &mesh, int face) {
  const Tri &t = mesh.triangles[face];
  return mean_of(mesh, {t[0], t[1], t[2]});
}

struct UnionFind {
  std::vector<int> parent;
  explicit UnionFind(size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), 0); }
  int find(int x) {
    while (parent[x] != x) x = parent[x] = parent[parent[x]];
    return x;
  }
  void join(int a, int b) { parent[find(a)] = find(b); }
};

std::string plural(long n, const std::string &word, const std::string &words = "") {
  return std::to_string(n) + " " + (n == 1 ? word : words.empty() ? word + "s" : words);
}

}  // namespace

void check_finite_and_indexed(const Mesh &mesh, const SurfaceName &name) {
  for (size_t v = 0; v < mesh.vertices.size(); v++)
    for (double x : mesh.vertices[v])
      if (!std::isfinite(x)) fail(name.file, "vertex " + std::to_string(v + 1), "a coordinate is not a finite number");
  for (size_t f = 0; f < mesh.triangles.size(); f++)
    for (int v : mesh.triangles[f])
      if (v < 0 || (size_t)v >= mesh.vertices.size())
        fail(name.file, "triangle " + std::to_string(f + 1),
             "vertex " + std::to_string((long)v + 1) + " does not exist (" + plural(mesh.vertices.size(), "vertex", "vertices") + ")");
}

long weld_duplicate_vertices(Mesh &mesh, const SurfaceName &name, bool weld) {
  std::vector<int> order(mesh.vertices.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int a, int b) {
    return mesh.vertices[a] != mesh.vertices[b] ? mesh.vertices[a] < mesh.vertices[b] : a < b;
  });
  std::vector<int> keep(mesh.vertices.size());
  long merged = 0;
  for (size_t i = 0; i < order.size(); i++) {
    const bool same = i > 0 && mesh.vertices[order[i]] == mesh.vertices[order[i - 1]];
    keep[order[i]] = same ? keep[order[i - 1]] : order[i];
    if (same && !weld)
      fail(name.file, "vertices " + std::to_string(keep[order[i]] + 1) + " and " + std::to_string(order[i] + 1),
           "duplicate vertices at " + describe_spot(name.frame, mesh.vertices[order[i]]) +
               " (leave out --no-weld to merge them)");
    merged += same;
  }
  if (merged == 0) return 0;
  std::vector<int> number(mesh.vertices.size(), -1);
  std::vector<Vec3> kept;
  for (size_t v = 0; v < mesh.vertices.size(); v++)
    if (keep[v] == (int)v) number[v] = (int)kept.size(), kept.push_back(mesh.vertices[v]);
  for (Tri &t : mesh.triangles)
    for (int &v : t) v = number[keep[v]];
  mesh.vertices = std::move(kept);
  return merged;
}

Dropped drop_collapsed(Mesh &mesh) {
  Dropped d;
  std::vector<Tri> kept;
  for (const Tri &t : mesh.triangles) {
    if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0])
      d.triangles++;
    else
      kept.push_back(t);
  }
  mesh.triangles = std::move(kept);
  std::vector<int> number(mesh.vertices.size(), -1);
  for (const Tri &t : mesh.triangles)
    for (int v : t) number[v] = 0;
  std::vector<Vec3> used;
  for (size_t v = 0; v < mesh.vertices.size(); v++)
    if (number[v] == 0) number[v] = (int)used.size(), used.push_back(mesh.vertices[v]);
  d.vertices = (long)(mesh.vertices.size() - used.size());
  for (Tri &t : mesh.triangles)
    for (int &v : t) v = number[v];
  mesh.vertices = std::move(used);
  return d;
}

void check_manifold_edges(const Mesh &mesh, const SurfaceName &name) {
  const auto uses = edge_uses(mesh);
  for_each_edge(uses, [&](size_t first, size_t count) {
    if (count <= 2) return;
    std::vector<int> faces;
    for (size_t k = 0; k < count; k++) faces.push_back(uses[first + k].face);
    const EdgeUse &e = uses[first];
    fail(name.file, "triangles " + index_list(faces),
         "non-manifold edge: the edge from vertex " + std::to_string(e.lo + 1) + " to " + std::to_string(e.hi + 1) +
             " is shared by " + std::to_string(count) + " triangles, at " +
             describe_spot(name.frame, mean_of(mesh, {e.lo, e.hi})));
  });
}

long make_orientation_consistent(Mesh &mesh, const SurfaceName &name, bool repair) {
  const size_t nf = mesh.triangles.size();
  // Neighbours across each edge, and whether they run the shared edge the
  // same way (then one of the two must be flipped).
  struct Link {
    int other;
    bool same;
  };
  std::vector<std::vector<Link>> links(nf);
  const auto uses = edge_uses(mesh);
  for_each_edge(uses, [&](size_t first, size_t count) {
    if (count != 2) return;
    const EdgeUse &a = uses[first], &b = uses[first + 1];
    const bool same = a.forward == b.forward;
    links[a.face].push_back({b.face, same});
    links[b.face].push_back({a.face, same});
  });
  std::vector<int> flip(nf, -1);
  std::vector<int> patch_of(nf, -1), stack;
  long flipped = 0;
  for (size_t seed = 0; seed < nf; seed++) {
    if (flip[seed] >= 0) continue;
    // Walk one connected piece, deciding each triangle's flip relative to the seed.
    std::vector<int> piece{(int)seed};
    flip[seed] = 0;
    stack.assign(1, (int)seed);
    while (!stack.empty()) {
      const int f = stack.back();
      stack.pop_back();
      for (const Link &l : links[f]) {
        const int want = flip[f] ^ (int)l.same;
        if (flip[l.other] < 0) {
          flip[l.other] = want;
          piece.push_back(l.other);
          stack.push_back(l.other);
        } else if (flip[l.other] != want) {
          fail(name.file, "triangles " + std::to_string(f + 1) + " and " + std::to_string(l.other + 1),
               "the surface cannot be oriented consistently (it is one-sided there), at " +
                   describe_spot(name.frame, centroid(mesh, f)));
        }
      }
    }
    // The minority turns against the rest of its piece.
    std::vector<int> minority[2];
    for (int f : piece) minority[flip[f]].push_back(f);
    const std::vector<int> &wrong = minority[1].size() <= minority[0].size() ? minority[1] : minority[0];
    if (wrong.empty()) continue;
    if (!repair) {
      // The corner of the patch nearest the patch's middle shows where it is.
      std::vector<int> corners;
      for (int f : wrong) corners.insert(corners.end(), mesh.triangles[f].begin(), mesh.triangles[f].end());
      const Vec3 middle = mean_of(mesh, corners);
      int best = corners[0];
      double best_d = INFINITY;
      for (int v : corners) {
        const Vec3 &p = mesh.vertices[v];
        const double d = std::hypot(p[0] - middle[0], p[1] - middle[1], p[2] - middle[2]);
        if (d < best_d) best_d = d, best = v;
      }
      fail(name.file, "triangles " + index_list(wrong),
           "inconsistent orientation: " + plural(wrong.size(), "triangle") +
               " turn the other way from their neighbours, around vertex " + std::to_string(best + 1) + " at " +
               describe_spot(name.frame, mesh.vertices[best]) + " (leave out --no-orient to flip them)");
    }
    for (int f : wrong) std::swap(mesh.triangles[f][1], mesh.triangles[f][2]);
    flipped += (long)wrong.size();
  }
  return flipped;
}

void check_manifold_vertices(const Mesh &mesh, const SurfaceName &name) {
  // Triangles around each vertex, joined when they share an edge at it; more
  // than one group is a pinch.
  const size_t nv = mesh.vertices.size();
  std::vector<int> start(nv + 1, 0);
  for (const Tri &t : mesh.triangles)
    for (int v : t) start[v + 1]++;
  for (size_t v = 0; v < nv; v++) start[v + 1] += start[v];
  std::vector<int> around(start[nv]), fill(start.begin(), start.end() - 1);
  for (size_t f = 0; f < mesh.triangles.size(); f++)
    for (int v : mesh.triangles[f]) around[fill[v]++] = (int)f;
  std::vector<std::pair<int, int>> spokes;  // (other vertex, local triangle number)
  for (size_t v = 0; v < nv; v++) {
    const int n = start[v + 1] - start[v];
    if (n == 0) continue;
    spokes.clear();
    for (int i = 0; i < n; i++)
      for (int w : mesh.triangles[around[start[v] + i]])
        if (w != (int)v) spokes.push_back({w, i});
    std::sort(spokes.begin(), spokes.end());
    UnionFind fans(n);
    for (size_t i = 1; i < spokes.size(); i++)
      if (spokes[i].first == spokes[i - 1].first) fans.join(spokes[i].second, spokes[i - 1].second);
    int groups = 0;
    for (int i = 0; i < n; i++) groups += fans.find(i) == i;
    if (groups > 1)
      fail(name.file, "vertex " + std::to_string(v + 1),
           "non-manifold vertex: " + std::to_string(groups) + " separate fans of triangles meet at " +
               describe_spot(name.frame, mesh.vertices[v]));
  }
}

std::vector<std::vector<int>> boundary_loops(const Mesh &mesh) {
  // Boundary edges in the direction their triangle runs them; on a surface
  // with manifold vertices each boundary vertex starts exactly one.
  std::vector<std::pair<int, int>> next;
  const auto uses = edge_uses(mesh);
  for_each_edge(uses, [&](size_t first, size_t count) {
    if (count != 1) return;
    const EdgeUse &e = uses[first];
    next.push_back(e.forward ? std::make_pair(e.lo, e.hi) : std::make_pair(e.hi, e.lo));
  });
  std::sort(next.begin(), next.end());
  std::vector<char> used(next.size(), 0);
  std::vector<std::vector<int>> loops;
  for (size_t s = 0; s < next.size(); s++) {
    if (used[s]) continue;
    std::vector<int> loop;
    size_t e = s;
    while (!used[e]) {
      used[e] = 1;
      loop.push_back(next[e].first);
      const auto it = std::lower_bound(next.begin(), next.end(), std::make_pair(next[e].second, -1));
      if (it == next.end() || it->first != next[e].second) break;
      e = (size_t)(it - next.begin());
    }
    loops.push_back(std::move(loop));
  }
  return loops;
}

void check_closed(const Mesh &mesh, const SurfaceName &name) {
  const auto loops = boundary_loops(mesh);
  if (loops.empty()) return;
  std::string what = "not closed: " + plural(loops.size(), "hole") + " (boundary loop";
  what += loops.size() == 1 ? ")" : "s)";
  for (size_t k = 0; k < loops.size() && k < 3; k++)
    what += "; " + plural(loops[k].size(), "edge") + " through vertices " + index_list(loops[k]) + " around " +
            describe_spot(name.frame, mean_of(mesh, loops[k]));
  if (loops.size() > 3) what += "; ...";
  fail(name.file, "vertices " + index_list(loops[0]), what + " (--fill-holes closes them)");
}

void check_connected(const Mesh &mesh, const SurfaceName &name) {
  UnionFind pieces(mesh.vertices.size());
  for (const Tri &t : mesh.triangles) pieces.join(t[0], t[1]), pieces.join(t[1], t[2]);
  std::vector<int> size(mesh.vertices.size(), 0);
  for (size_t v = 0; v < mesh.vertices.size(); v++) size[pieces.find((int)v)]++;
  std::vector<int> roots;
  for (size_t v = 0; v < mesh.vertices.size(); v++)
    if (pieces.find((int)v) == (int)v) roots.push_back((int)v);
  if (roots.size() <= 1) return;
  // Name the smallest piece: usually the stray one.
  const int small = *std::min_element(roots.begin(), roots.end(), [&](int a, int b) { return size[a] < size[b]; });
  std::vector<int> members;
  for (size_t v = 0; v < mesh.vertices.size(); v++)
    if (pieces.find((int)v) == small) members.push_back((int)v);
  fail(name.file, "vertices " + index_list(members),
       "the surface has " + std::to_string(roots.size()) + " separate pieces; the smallest, of " +
           plural(members.size(), "vertex", "vertices") + ", lies around " + describe_spot(name.frame, mean_of(mesh, members)));
}

void flip_all(Mesh &mesh) {
  for (Tri &t : mesh.triangles) std::swap(t[1], t[2]);
}
