#include "placement/surface_arc.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>

#include "placement/vec3.h"

namespace {

// One chain of the cut: a closed loop, or an open path where the surface
// has a boundary.
struct Chain {
  std::vector<Vec3> pts;
  bool closed = false;
  size_t segments() const { return closed ? pts.size() : pts.size() - 1; }
  const Vec3 &end_of(size_t seg) const { return pts[(seg + 1) % pts.size()]; }
};

// A place on a chain: segment `seg`, fraction `t` along it, and the point.
struct ChainPlace {
  size_t seg = 0;
  double t = 0;
  Vec3 point{};
  double dist = std::numeric_limits<double>::infinity();
};

// The chains of the cut of `mesh` by the plane dot(n, x - o) = 0.  A vertex
// on the plane counts as above it, so every edge is crossed at most once and
// the two triangles of an edge agree on where.
std::vector<Chain> cut(const Mesh &mesh, const Vec3 &n, const Vec3 &o) {
  std::vector<double> s(mesh.vertices.size());
  for (size_t i = 0; i < s.size(); i++) s[i] = dot(n, mesh.vertices[i] - o);
  using Edge = std::pair<int, int>;
  auto key = [](int p, int q) { return p < q ? Edge{p, q} : Edge{q, p}; };
  std::map<Edge, std::vector<size_t>> by_edge;  // crossed edge -> segments through it
  std::vector<std::array<Edge, 2>> segs;
  for (const Tri &t : mesh.triangles) {
    Edge crossed[2];
    int found = 0;
    for (int k = 0; k < 3; k++) {
      const int p = t[k], q = t[(k + 1) % 3];
      if ((s[(size_t)p] >= 0) != (s[(size_t)q] >= 0) && found < 2) crossed[found++] = key(p, q);
    }
    if (found != 2) continue;
    for (const Edge &e : crossed) by_edge[e].push_back(segs.size());
    segs.push_back({crossed[0], crossed[1]});
  }
  auto crossing = [&](const Edge &e) {
    const Vec3 &p = mesh.vertices[(size_t)e.first], &q = mesh.vertices[(size_t)e.second];
    const double sp = s[(size_t)e.first], sq = s[(size_t)e.second];
    return p + (sp / (sp - sq)) * (q - p);
  };

  std::vector<bool> used(segs.size(), false);
  std::vector<Chain> chains;
  // Open chains first start at an edge with one segment; then loops.
  for (int pass = 0; pass < 2; pass++)
    for (const auto &[edge, list] : by_edge) {
      if (pass == 0 && list.size() != 1) continue;
      if (used[list[0]]) continue;
      Chain c;
      Edge at = edge;
      size_t seg = list[0];
      c.pts.push_back(crossing(at));
      while (!used[seg]) {
        used[seg] = true;
        at = segs[seg][0] == at ? segs[seg][1] : segs[seg][0];
        const auto &next = by_edge[at];
        size_t after = seg;
        for (size_t x : next)
          if (x != seg && !used[x]) after = x;
        if (after == seg) {
          // Back where the loop began, or at the end of an open path.
          c.closed = next.size() > 1 && at == edge;
          if (!c.closed) c.pts.push_back(crossing(at));
          break;
        }
        c.pts.push_back(crossing(at));
        seg = after;
      }
      if (c.pts.size() >= 2) chains.push_back(std::move(c));
    }
  return chains;
}

ChainPlace nearest_on(const Chain &c, const Vec3 &p) {
  ChainPlace best;
  for (size_t i = 0; i < c.segments(); i++) {
    const Vec3 &a = c.pts[i], &b = c.end_of(i);
    const Vec3 d = b - a;
    const double len2 = dot(d, d);
    const double t = len2 > 0 ? std::clamp(dot(p - a, d) / len2, 0.0, 1.0) : 0.0;
    const Vec3 q = a + t * d;
    const double dist = distance(p, q);
    if (dist < best.dist) best = {i, t, q, dist};
  }
  return best;
}

// Distance along the chain from its first point to `place`.
double arc_position(const Chain &c, const ChainPlace &place) {
  double s = 0;
  for (size_t i = 0; i < place.seg; i++) s += distance(c.pts[i], c.end_of(i));
  return s + place.t * distance(c.pts[place.seg], c.end_of(place.seg));
}

// The points from `from` forward to `to` along the chain.
std::vector<Vec3> walk(const Chain &c, const ChainPlace &from, const ChainPlace &to, bool wraps) {
  std::vector<Vec3> out{from.point};
  size_t seg = from.seg;
  if (wraps || seg != to.seg)
    do {
      out.push_back(c.end_of(seg));
      seg = (seg + 1) % c.pts.size();
    } while (seg != to.seg);
  out.push_back(to.point);
  return out;
}

}  // namespace

Vec3 SurfaceArc::at(double fraction) const {
  const double target = std::clamp(fraction, 0.0, 1.0) * length();
  const size_t i = (size_t)(std::upper_bound(at_length.begin(), at_length.end(), target) - at_length.begin());
  if (i >= points.size()) return points.back();
  if (i == 0) return points.front();
  const double span = at_length[i] - at_length[i - 1];
  const double t = span > 0 ? (target - at_length[i - 1]) / span : 0;
  return points[i - 1] + t * (points[i] - points[i - 1]);
}

SurfaceArc surface_arc(const Mesh &mesh, const Vec3 &a, const Vec3 &b, const Vec3 &plane_point, const Vec3 &guide) {
  const Vec3 n = cross(b - a, plane_point - a);
  const double scale = norm(b - a) * norm(plane_point - a);
  if (!(norm(n) > 1e-9 * scale)) throw std::runtime_error("the points of a scalp arc lie on one line");
  const std::vector<Chain> chains = cut(mesh, unit(n), a);

  // The chain that passes nearest to a, and the places of a, b and the guide
  // on it.
  const Chain *chain = nullptr;
  ChainPlace pa;
  for (const Chain &c : chains) {
    ChainPlace p = nearest_on(c, a);
    if (p.dist < pa.dist) pa = p, chain = &c;
  }
  if (!chain) throw std::runtime_error("the plane of a scalp arc misses the scalp");
  const ChainPlace pb = nearest_on(*chain, b);
  for (const Chain &c : chains)
    if (&c != chain && nearest_on(c, b).dist < pb.dist)
      throw std::runtime_error("a scalp arc is broken: the surface is not closed there");
  const ChainPlace pg = nearest_on(*chain, guide);

  double sa = arc_position(*chain, pa), sb = arc_position(*chain, pb), sg = arc_position(*chain, pg);
  bool forward = sb >= sa;
  if (chain->closed) {
    double total = 0;
    for (size_t i = 0; i < chain->segments(); i++) total += distance(chain->pts[i], chain->end_of(i));
    auto ahead = [&](double from, double to) { return std::fmod(to - from + 2 * total, total); };
    forward = ahead(sa, sg) <= ahead(sa, sb);
  }
  std::vector<Vec3> pts;
  if (forward) {
    pts = walk(*chain, pa, pb, chain->closed && (sb < sa || (pa.seg == pb.seg && pb.t < pa.t)));
  } else {
    pts = walk(*chain, pb, pa, chain->closed && (sa < sb || (pa.seg == pb.seg && pa.t < pb.t)));
    std::reverse(pts.begin(), pts.end());
  }
  SurfaceArc arc;
  arc.points = std::move(pts);
  double s = 0;
  for (size_t i = 0; i < arc.points.size(); i++) {
    if (i > 0) s += distance(arc.points[i - 1], arc.points[i]);
    arc.at_length.push_back(s);
  }
  return arc;
}
