// Distance kernels, compartment location of points and sources, and the
// bound functions that keep fitted sources in their compartments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/compart.h"
#include "forwinv/forwinv.h"
#include "geometry/lmoutr.h"
#include "geometry/vecfun.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

using Vec = std::array<double, 3>;

Vec widen(const float f[3]) { return {f[0], f[1], f[2]}; }

double dist(const Vec &p, const Vec &q) {
  return std::sqrt((p[0] - q[0]) * (p[0] - q[0]) + (p[1] - q[1]) * (p[1] - q[1]) + (p[2] - q[2]) * (p[2] - q[2]));
}

Vec cross(const Vec &u, const Vec &v) {
  return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
}

double dot(const Vec &u, const Vec &v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

Vec sub(const Vec &u, const Vec &v) { return {u[0] - v[0], u[1] - v[1], u[2] - v[2]}; }

// Reference distance from p to the segment a-b by sampling it densely and
// then narrowing the bracket around the best sample (the distance along a
// segment has a single minimum, so the bracket always holds it).
double brute_segment(const float pf[3], const float af[3], const float bf[3]) {
  Vec p = widen(pf), a = widen(af), b = widen(bf);
  auto at = [&](double t) { return dist(p, {a[0] + t * (b[0] - a[0]), a[1] + t * (b[1] - a[1]), a[2] + t * (b[2] - a[2])}); };
  const int n = 2000;
  int best = 0;
  for (int i = 1; i <= n; i++)
    if (at((double)i / n) < at((double)best / n)) best = i;
  double lo = std::max(0.0, (best - 1.0) / n), hi = std::min(1.0, (best + 1.0) / n);
  for (int it = 0; it < 200; it++) {
    double m1 = lo + (hi - lo) / 3, m2 = hi - (hi - lo) / 3;
    if (at(m1) < at(m2))
      hi = m2;
    else
      lo = m1;
  }
  return std::min({at(lo), at(0.0), at(1.0)});
}

// Reference distance from p to the triangle a-b-c: a dense grid of points of
// the triangle, then a pattern search that zooms in on the best point while
// staying inside the triangle (the distance is convex over the triangle, so
// the search cannot be trapped away from the minimum).
double brute_triangle(const float pf[3], const float af[3], const float bf[3], const float cf[3]) {
  Vec p = widen(pf), a = widen(af), b = widen(bf), c = widen(cf);
  auto at = [&](double u, double v) {
    Vec q;
    for (int k = 0; k < 3; k++) q[k] = a[k] + u * (b[k] - a[k]) + v * (c[k] - a[k]);
    return dist(p, q);
  };
  auto clamp_into = [](double &u, double &v) {
    u = std::max(u, 0.0);
    v = std::max(v, 0.0);
    if (u + v > 1) {
      double s = u + v;
      u /= s;
      v /= s;
    }
  };
  const int n = 80;
  double bu = 0, bv = 0, bd = at(0, 0);
  for (int i = 0; i <= n; i++)
    for (int j = 0; i + j <= n; j++) {
      double d = at((double)i / n, (double)j / n);
      if (d < bd) bd = d, bu = (double)i / n, bv = (double)j / n;
    }
  double h = 2.0 / n;
  for (int it = 0; it < 60; it++) {
    double cu = bu, cv = bv;
    for (int i = -5; i <= 5; i++)
      for (int j = -5; j <= 5; j++) {
        double u = cu + i * h / 5, v = cv + j * h / 5;
        clamp_into(u, v);
        double d = at(u, v);
        if (d < bd) bd = d, bu = u, bv = v;
      }
    h *= 0.6;
  }
  return bd;
}

void to_float(const Vec &v, float f[3]) {
  for (int k = 0; k < 3; k++) f[k] = (float)v[k];
}

bool has_obtuse_angle(const float af[3], const float bf[3], const float cf[3]) {
  Vec a = widen(af), b = widen(bf), c = widen(cf);
  return dot(sub(b, a), sub(c, a)) < 0 || dot(sub(a, b), sub(c, b)) < 0 || dot(sub(a, c), sub(b, c)) < 0;
}

// A random triangle in the unit cube, neither thin nor (when asked) obtuse.
void random_triangle(std::mt19937 &rng, float a[3], float b[3], float c[3], bool allow_obtuse) {
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (;;) {
    for (int k = 0; k < 3; k++) a[k] = u(rng), b[k] = u(rng), c[k] = u(rng);
    Vec n = cross(sub(widen(b), widen(a)), sub(widen(c), widen(a)));
    double area = 0.5 * std::sqrt(dot(n, n));
    double longest = std::max({dist(widen(a), widen(b)), dist(widen(b), widen(c)), dist(widen(a), widen(c))});
    if (area < 0.1 * longest * longest) continue;
    if (!allow_obtuse && has_obtuse_angle(a, b, c)) continue;
    return;
  }
}

// The point a + lambda (b - a) + mu (c - a) + nu * unit normal, in floats.
void local_point(const float af[3], const float bf[3], const float cf[3], double lambda, double mu, double nu,
                 float p[3]) {
  Vec a = widen(af), e1 = sub(widen(bf), a), e2 = sub(widen(cf), a);
  Vec n = cross(e1, e2);
  double len = std::sqrt(dot(n, n));
  Vec q;
  for (int k = 0; k < 3; k++) q[k] = a[k] + lambda * e1[k] + mu * e2[k] + nu * n[k] / len;
  to_float(q, p);
}

}  // namespace

// ---------------------------------------------------------------------------
// Distance kernels

TEST(Distances, VecdistIsEuclideanAndComputedWithoutFloatOverflow) {
  const float p[3] = {1, 2, 3}, q[3] = {4, 6, 15};
  EXPECT_EQ(vecdist(p, q), 13.0f);
  EXPECT_EQ(vecdist(q, p), 13.0f);
  EXPECT_EQ(vecdist(p, p), 0.0f);
  // Squares of these differences overflow single precision.
  const float far1[3] = {3e20f, 0, 0}, far2[3] = {0, 4e20f, 0};
  EXPECT_FLOAT_EQ(vecdist(far1, far2), 5e20f);
  // Tiny differences whose squares underflow single precision.
  const float near1[3] = {0, 0, 0}, near2[3] = {3e-25f, 4e-25f, 0};
  EXPECT_FLOAT_EQ(vecdist(near1, near2), 5e-25f);
}

TEST(Distances, PlindistMatchesDenseSamplingOfTheSegment) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  int before = 0, after = 0, between = 0;
  for (int trial = 0; trial < 400; trial++) {
    float a[3], b[3], p[3], nearest[3], t = -1;
    for (int k = 0; k < 3; k++) a[k] = u(rng), b[k] = u(rng), p[k] = u(rng);
    float d = plindist(p, a, b, nearest, &t);
    double ref = brute_segment(p, a, b);
    ASSERT_NEAR(d, ref, 2e-6 * (1 + ref)) << "trial " << trial;
    ASSERT_GE(t, 0.0f);
    ASSERT_LE(t, 1.0f);
    if (t == 0.0f) before++;
    else if (t == 1.0f) after++;
    else between++;
    // The nearest point is the segment point at t and lies at distance d.
    for (int k = 0; k < 3; k++) EXPECT_NEAR(nearest[k], a[k] + t * (b[k] - a[k]), 1e-5);
    EXPECT_NEAR(vecdist(p, nearest), d, 1e-5 * (1 + d));
  }
  // All three parts of the segment's neighbourhood were visited.
  EXPECT_GT(before, 20);
  EXPECT_GT(after, 20);
  EXPECT_GT(between, 20);
}

TEST(Distances, PlindistOnAPointSegmentMeasuresFromItsEnd) {
  const float a[3] = {1, 1, 1}, p[3] = {1, 4, 5};
  float nearest[3], t = 0.5f;
  EXPECT_EQ(plindist(p, a, a, nearest, &t), 5.0f);
  EXPECT_EQ(t, 0.0f);
  EXPECT_EQ(nearest[0], 1.0f);
  EXPECT_EQ(nearest[1], 1.0f);
  EXPECT_EQ(nearest[2], 1.0f);
}

TEST(Distances, DeterIsTheThreeByThreeDeterminant) {
  const double a[3] = {1, 2, 3}, b[3] = {4, 5, 6}, c[3] = {7, 8, 10};
  EXPECT_EQ(deter(a, b, c), -3.0);  // by hand: 1*2 - 2*(-2) + 3*(-3)
  const double ex[3] = {1, 0, 0}, ey[3] = {0, 1, 0}, ez[3] = {0, 0, 1};
  EXPECT_EQ(deter(ex, ey, ez), 1.0);
  EXPECT_EQ(deter(ey, ex, ez), -1.0);
  EXPECT_EQ(deter(ex, ex, ez), 0.0);

  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(-3, 3);
  for (int trial = 0; trial < 200; trial++) {
    double p[3], q[3], r[3];
    for (int k = 0; k < 3; k++) p[k] = u(rng), q[k] = u(rng), r[k] = u(rng);
    // Rule of Sarrus.
    double sarrus = p[0] * q[1] * r[2] + p[1] * q[2] * r[0] + p[2] * q[0] * r[1] - p[2] * q[1] * r[0] -
                    p[1] * q[0] * r[2] - p[0] * q[2] * r[1];
    EXPECT_NEAR(deter(p, q, r), sarrus, 1e-12 * 100);
    EXPECT_NEAR(deter(p, q, r), deter(q, r, p), 1e-12 * 100);
    EXPECT_NEAR(deter(p, q, r), -deter(q, p, r), 1e-12 * 100);
  }
}

TEST(Distances, LmoutrReconstructsThePointFromLocalCoordinates) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  for (int trial = 0; trial < 300; trial++) {
    float a[3], b[3], c[3], p[3];
    random_triangle(rng, a, b, c, true);
    for (int k = 0; k < 3; k++) p[k] = u(rng);
    double lambda = 0, mu = 0, nu = 0;
    ASSERT_EQ(lmoutr(a, b, c, p, &lambda, &mu, &nu), 1);
    Vec va = widen(a), e1 = sub(widen(b), va), e2 = sub(widen(c), va), n = cross(e1, e2);
    double len = std::sqrt(dot(n, n));
    for (int k = 0; k < 3; k++) {
      double q = va[k] + lambda * e1[k] + mu * e2[k] + nu * n[k] / len;
      EXPECT_NEAR(q, p[k], 1e-12) << "trial " << trial << " component " << k;
    }
    // nu is the signed distance from the plane.
    EXPECT_NEAR(nu, dot(sub(widen(p), va), n) / len, 1e-12);
  }
}

TEST(Distances, LmoutrGivesKnownCoordinatesAndSignOfTheNormalSide) {
  // e1 = (2,0,0), e2 = (0,4,0): the normal is +z.
  const float a[3] = {1, 1, 1}, b[3] = {3, 1, 1}, c[3] = {1, 5, 1};
  const float above[3] = {2, 2, 4}, below[3] = {0, 6, -1};
  double lambda, mu, nu;
  ASSERT_EQ(lmoutr(a, b, c, above, &lambda, &mu, &nu), 1);
  EXPECT_DOUBLE_EQ(lambda, 0.5);
  EXPECT_DOUBLE_EQ(mu, 0.25);
  EXPECT_DOUBLE_EQ(nu, 3.0);
  ASSERT_EQ(lmoutr(a, b, c, below, &lambda, &mu, &nu), 1);
  EXPECT_DOUBLE_EQ(lambda, -0.5);
  EXPECT_DOUBLE_EQ(mu, 1.25);
  EXPECT_DOUBLE_EQ(nu, -2.0);
}

TEST(Distances, LmoutrRefusesDegenerateTrianglesAndLeavesItsOutputs) {
  const float a[3] = {0, 0, 0}, b[3] = {1, 1, 1}, c[3] = {3, 3, 3}, p[3] = {1, 0, 0};
  double lambda = 42, mu = 43, nu = 44;
  EXPECT_EQ(lmoutr(a, b, c, p, &lambda, &mu, &nu), 0);
  EXPECT_EQ(lmoutr(a, a, a, p, &lambda, &mu, &nu), 0);
  EXPECT_EQ(lambda, 42);
  EXPECT_EQ(mu, 43);
  EXPECT_EQ(nu, 44);
}

TEST(Distances, PtridistMatchesDenseSamplingInEveryRegion) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> unit(0.0, 1.0), nu_d(-1.0, 1.0);
  // Local coordinates (lambda, mu) drawn from each region around the triangle.
  enum Region { INSIDE, BEYOND_BC, BEYOND_AB, BEYOND_AC, NEAR_A, NEAR_B, NEAR_C, ANYWHERE, NREGION };
  for (int region = 0; region < NREGION; region++) {
    for (int trial = 0; trial < 60; trial++) {
      float a[3], b[3], c[3], p[3];
      random_triangle(rng, a, b, c, false);
      double s = unit(rng), r = unit(rng), lambda, mu;
      switch (region) {
        case INSIDE: lambda = s * (1 - r), mu = (1 - s) * (1 - r); break;
        case BEYOND_BC: lambda = s * (1 + r), mu = (1 - s) * (1 + r); break;
        case BEYOND_AB: lambda = s, mu = -r; break;
        case BEYOND_AC: lambda = -r, mu = s; break;
        case NEAR_A: lambda = -s, mu = -r; break;
        case NEAR_B: lambda = 1 + s, mu = -r; break;
        case NEAR_C: lambda = -s, mu = 1 + r; break;
        default: lambda = 4 * s - 1.5, mu = 4 * r - 1.5; break;
      }
      double nu = nu_d(rng);
      local_point(a, b, c, lambda, mu, nu, p);
      float nearest[3], l = -7, m = -7;
      float d = ptridist(p, a, b, c, nearest, &l, &m);
      double ref = brute_triangle(p, a, b, c);
      ASSERT_NEAR(d, ref, 2e-6 * (1 + ref)) << "region " << region << " trial " << trial;
      // The nearest point is a point of the triangle given by (l, m), at
      // distance d.
      EXPECT_GE(l, 0.0f);
      EXPECT_GE(m, 0.0f);
      EXPECT_LE(l + m, 1.0f + 1e-6f);
      for (int k = 0; k < 3; k++) EXPECT_NEAR(nearest[k], (1 - l - m) * a[k] + l * b[k] + m * c[k], 1e-5);
      EXPECT_NEAR(vecdist(p, nearest), d, 1e-5 * (1 + d));
      if (region == INSIDE) {
        EXPECT_NEAR(d, std::fabs(nu), 1e-5);
        EXPECT_NEAR(l, lambda, 1e-4);
        EXPECT_NEAR(m, mu, 1e-4);
      }
      if (region == NEAR_A) {
        EXPECT_NEAR(l, 0.0f, 1e-5);
        EXPECT_NEAR(m, 0.0f, 1e-5);
      }
    }
  }
}

TEST(Distances, PtridistChoosesTheEdgeBySignsNearAnObtuseCorner) {
  // Obtuse at b.  Faces and ordinary edge regions are still exact.
  const float a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {2, 1, 0};
  float nearest[3], l, m;
  const float inside[3] = {1.25f, 0.25f, -2.0f};
  EXPECT_FLOAT_EQ(ptridist(inside, a, b, c, nearest, &l, &m), 2.0f);
  const float below_ab[3] = {0.5f, -3.0f, 4.0f};
  EXPECT_NEAR(ptridist(below_ab, a, b, c, nearest, &l, &m), brute_triangle(below_ab, a, b, c), 1e-6);
  // Beyond both lines a-b and b-c (lambda = 3.2, mu = -0.1): the projection's
  // negative mu selects edge a-b, although edge b-c is nearer.
  const float wedge[3] = {3.0f, -0.1f, 0.5f};
  float d = ptridist(wedge, a, b, c, nearest, &l, &m);
  EXPECT_NEAR(d, brute_segment(wedge, a, b), 1e-6);
  EXPECT_LT(brute_triangle(wedge, a, b, c), d - 0.1);
  EXPECT_EQ(l, 1.0f);
  EXPECT_EQ(m, 0.0f);
}

TEST(Distances, PtridistOnADegenerateTriangleMeasuresFromTheFirstVertex) {
  const float a[3] = {1, 0, 0}, b[3] = {2, 0, 0}, c[3] = {5, 0, 0}, p[3] = {4, 4, 0};
  float nearest[3], l = 9, m = 9;
  EXPECT_EQ(ptridist(p, a, b, c, nearest, &l, &m), 5.0f);
  EXPECT_EQ(l, 0.0f);
  EXPECT_EQ(m, 0.0f);
  EXPECT_EQ(nearest[0], 1.0f);
  EXPECT_EQ(nearest[1], 0.0f);
}

// ---------------------------------------------------------------------------
// Compartments

namespace {

// Storage of the test models; geo[] points into it.
std::vector<float> model_pnt[MAXGEO];
std::vector<int32_t> model_dhk[MAXGEO];

void clear_model() {
  memset(geo, 0, sizeof geo);
  memset(geocon, 0, sizeof geocon);
  ngeo = 0;
  iso_sur = -1;
  nsource = 0;
  source = nullptr;
}

void set_interface(int i, const char *name, const std::vector<std::array<float, 3>> &pnt,
                   const std::vector<std::array<int, 3>> &dhk) {
  model_pnt[i].clear();
  model_dhk[i].clear();
  for (const auto &p : pnt) model_pnt[i].insert(model_pnt[i].end(), p.begin(), p.end());
  for (const auto &t : dhk) model_dhk[i].insert(model_dhk[i].end(), t.begin(), t.end());
  Interface &g = geo[i];
  snprintf(g.name, sizeof g.name, "%s", name);
  g.npnt = (int)pnt.size();
  g.ndhk = (int)dhk.size();
  g.pnt = reinterpret_cast<float(*)[3]>(model_pnt[i].data());
  g.dhk = reinterpret_cast<int32_t(*)[3]>(model_dhk[i].data());
  ngeo = std::max(ngeo, i + 1);
}

void set_sphere(int i, const char *name, double radius, int level = 2) {
  TriMesh m = icosphere(level, radius);
  set_interface(i, name, m.pnt, m.dhk);
}

// The cube [-1, 1]^3, each face cut along its diagonal from (-,-) to (+,+)
// in the face's own two coordinates, triangles oriented with inward normals.
// On the face z = +1 one triangle covers x > y, the other x < y.
void set_cube(int i, const char *name) {
  std::vector<std::array<float, 3>> pnt;
  for (int v = 0; v < 8; v++) pnt.push_back({v & 4 ? 1.0f : -1.0f, v & 2 ? 1.0f : -1.0f, v & 1 ? 1.0f : -1.0f});
  auto vertex = [](int axis, int side, int su, int sv) {
    int bits[3];
    bits[axis] = side;
    bits[(axis + 1) % 3] = su;
    bits[(axis + 2) % 3] = sv;
    return bits[0] * 4 + bits[1] * 2 + bits[2];
  };
  std::vector<std::array<int, 3>> dhk;
  for (int axis = 0; axis < 3; axis++)
    for (int side = 0; side < 2; side++) {
      int mm = vertex(axis, side, 0, 0), pm = vertex(axis, side, 1, 0), pp = vertex(axis, side, 1, 1),
          mp = vertex(axis, side, 0, 1);
      for (std::array<int, 3> t : {std::array<int, 3>{mm, pm, pp}, std::array<int, 3>{mm, pp, mp}}) {
        Vec a = {pnt[t[0]][0], pnt[t[0]][1], pnt[t[0]][2]}, b = {pnt[t[1]][0], pnt[t[1]][1], pnt[t[1]][2]},
            c = {pnt[t[2]][0], pnt[t[2]][1], pnt[t[2]][2]};
        Vec n = cross(sub(b, a), sub(c, a));
        if (dot(n, a) > 0) std::swap(t[1], t[2]);  // make the normal point to the centre
        dhk.push_back(t);
      }
    }
  set_interface(i, name, pnt, dhk);
}

// geocon by hand for interfaces given by their sizes: i lies inside j when
// it is smaller.
void nest_by_size(const std::vector<double> &size) {
  for (size_t i = 0; i < size.size(); i++)
    for (size_t j = 0; j < size.size(); j++) geocon[i][j] = i == j ? 1 : size[i] < size[j] ? 2 : 0;
}

float *point_at(float p[3], double x, double y, double z) {
  p[0] = (float)x, p[1] = (float)y, p[2] = (float)z;
  return p;
}

}  // namespace

TEST(WhichCompart, NestedShellsGiveTheInnermostEnclosingInterface) {
  // Listed in neither nesting order: the innermost shell must win both when
  // it comes before and after the shells around it.
  clear_model();
  set_sphere(0, "middle", 2.0);
  set_sphere(1, "outer", 3.0);
  set_sphere(2, "inner", 1.0);
  nest_by_size({2.0, 3.0, 1.0});
  float p[3];
  EXPECT_EQ(which_compart(point_at(p, 0, 0, 0)), 2);
  EXPECT_EQ(which_compart(point_at(p, 0.5, 1.3, 0.2)), 0);
  EXPECT_EQ(which_compart(point_at(p, 0, 0, -2.5)), 1);
  EXPECT_EQ(which_compart(point_at(p, 3.2, 0.1, 0)), -1);
  EXPECT_EQ(which_compart(point_at(p, 100, -50, 20)), -1);

  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-1, 1), radius(0, 4);
  int seen[4] = {0, 0, 0, 0};
  for (int trial = 0; trial < 200; trial++) {
    Vec dir = {u(rng), u(rng), u(rng)};
    double len = std::sqrt(dot(dir, dir)), r = radius(rng);
    if (len < 0.1) continue;
    // Keep clear of the faceted shells: level-2 facets lie within 0.98 r
    // and r of the centre.
    double frac = r - std::floor(r);
    if (r < 3.1 && (frac > 0.9 || frac < 0.06)) continue;
    int expected = r < 1 ? 2 : r < 2 ? 0 : r < 3 ? 1 : -1;
    int got = which_compart(point_at(p, r * dir[0] / len, r * dir[1] / len, r * dir[2] / len));
    EXPECT_EQ(got, expected) << "radius " << r;
    seen[expected + 1]++;
  }
  for (int k = 0; k < 4; k++) EXPECT_GT(seen[k], 10);
}

TEST(WhichCompart, InnerShellListedFirst) {
  clear_model();
  set_sphere(0, "inner", 1.0);
  set_sphere(1, "outer", 2.0);
  nest_by_size({1.0, 2.0});
  float p[3];
  EXPECT_EQ(which_compart(point_at(p, 0.1, -0.2, 0.3)), 0);
  EXPECT_EQ(which_compart(point_at(p, 0.1, -1.5, 0.3)), 1);
  EXPECT_EQ(which_compart(point_at(p, 0.1, -2.5, 0.3)), -1);
}

TEST(WhichCompart, PointOnATriangleNamesItsInterface) {
  clear_model();
  set_sphere(0, "sphere", 3.0);
  set_cube(1, "cube");
  nest_by_size({3.0, 1.0});
  float p[3];
  EXPECT_EQ(which_compart(point_at(p, 0.2, 0.3, -0.4)), 1);
  EXPECT_EQ(which_compart(point_at(p, 0.2, 1.3, -0.4)), 0);

  // The centroid of the face triangle (-1,-1,1), (1,-1,1), (1,1,1): its z is
  // exactly 1, so it lies exactly in the triangle's plane, strictly inside.
  const float centroid[3] = {(-1.0f + 1.0f + 1.0f) / 3.0f, (-1.0f - 1.0f + 1.0f) / 3.0f, (1.0f + 1.0f + 1.0f) / 3.0f};
  EXPECT_EQ(which_compart(centroid), -11);
  // Points on other faces, and a cube vertex.
  EXPECT_EQ(which_compart(point_at(p, -1, 0.25, 0.5)), -11);
  EXPECT_EQ(which_compart(point_at(p, 0.5, -0.75, -1)), -11);
  EXPECT_EQ(which_compart(point_at(p, 1, 1, -1)), -11);
  // Just off the face, on either side.
  EXPECT_EQ(which_compart(point_at(p, 0.5, -0.5, 1.001)), 0);
  EXPECT_EQ(which_compart(point_at(p, 0.5, -0.5, 0.999)), 1);

  // With the cube listed first the report comes from interface 0.
  clear_model();
  set_cube(0, "cube");
  set_sphere(1, "sphere", 3.0);
  nest_by_size({1.0, 3.0});
  EXPECT_EQ(which_compart(centroid), -10);
  EXPECT_EQ(which_compart(point_at(p, 0.2, 0.3, -0.4)), 0);
}

TEST(WhichCompart, WithoutInterfacesEverythingIsOutside) {
  clear_model();
  float p[3];
  EXPECT_EQ(which_compart(point_at(p, 0, 0, 0)), -1);
}

// ---------------------------------------------------------------------------
// Source location

namespace {

std::vector<SourceRecord> source_store;

SourceRecord *add_source(double x, double y, double z, int pos_mode = 0, int pindex = 0) {
  SourceRecord s;
  memset(&s, 0, sizeof s);
  s.x = (float)x, s.y = (float)y, s.z = (float)z;
  s.pos_mode = pos_mode;
  s.pindex = pindex;
  s.sym = -1;
  source_store.push_back(s);
  source = source_store.data();
  nsource = (int)source_store.size();
  return &source_store.back();
}

// Two nested spheres: geo[0] "outer.tri" (radius 2), geo[1] "inner.tri"
// (radius 1).
void two_shells() {
  clear_model();
  source_store.clear();
  set_sphere(0, "outer.tri", 2.0);
  set_sphere(1, "inner.tri", 1.0);
  nest_by_size({2.0, 1.0});
}

std::string run_locate_sources() {
  testing::internal::CaptureStdout();
  locate_sources();
  return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(LocateSources, ListsTheCompartmentOfEverySource) {
  two_shells();
  for (int k = 0; k < 11; k++) add_source(0.05 * k, 0.1, -0.1);  // 11 sources in the inner sphere
  add_source(0, 1.5, 0);
  std::string out = run_locate_sources();
  std::string expected = "\n";
  for (int k = 1; k <= 11; k++) expected += "Source " + std::string(k < 10 ? " " : "") + std::to_string(k) + " is located within inner.tri\n";
  expected += "Source 12 is located within outer.tri\n";
  EXPECT_EQ(out, expected);
  ASSERT_NE(source_comp, nullptr);
  for (int k = 0; k < 11; k++) EXPECT_EQ(source_comp[k], 1);
  EXPECT_EQ(source_comp[11], 0);
}

TEST(LocateSources, SourcesInsideTheIsolatedSourceInterfaceAreAccepted) {
  two_shells();
  iso_sur = 1;
  add_source(0, 0, 0.5);
  EXPECT_EQ(run_locate_sources(), "\nSource  1 is located within inner.tri\n");
  EXPECT_EQ(source_comp[0], 1);
  // The outermost interface as isolated-source interface holds everything.
  iso_sur = 0;
  add_source(1.5, 0, 0);
  EXPECT_EQ(run_locate_sources(),
            "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n");
  EXPECT_EQ(source_comp[1], 0);
}

TEST(LocateSources, NoSourcesPrintsOnlyTheNewline) {
  two_shells();
  EXPECT_EQ(run_locate_sources(), "\n");
  EXPECT_NE(source_comp, nullptr);
}

namespace {

ProcResult run_locate_probe(const std::string &input) { return run_process(probe("probe_locate_sources"), {}, input); }

const char FATAL[] = "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a";

}  // namespace

TEST(LocateSources, ProbeAcceptsGoodPositions) {
  ProcResult r = run_locate_probe("-1\n0 0 0\n0 1.5 0\n0.2 -0.3 0.4\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n"
            "Source  3 is located within inner.tri\n== comp 1 0 1\n");
  EXPECT_EQ(r.err, "");
}

TEST(LocateSources, OutsideAndTouchingSourcesAreAllReportedThenFatal) {
  // Source 3 sits exactly on a vertex of the inner sphere, which lies on
  // the triangles around it.
  ProcResult r = run_locate_probe("-1\n0 0 0\n0 0 3\nv 1 5\n0 1.5 0\nv 0 0\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "\nSource  1 is located within inner.tri\n\nSource 2 is outside the geometry!\n"
            "\nSource 3 touches inner.tri!\nSource  4 is located within outer.tri\n"
            "\nSource 5 touches outer.tri!\n");
  EXPECT_EQ(r.err, FATAL);
}

TEST(LocateSources, SourceOutsideTheIsolatedSourceCompartmentIsFatal) {
  ProcResult r = run_locate_probe("1\n0 0 0\n0 1.5 0\n0.1 0.1 0.1\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n"
            "All sources should be within the isolated source compartment inner.tri!\n"
            "Source  3 is located within inner.tri\n");
  EXPECT_EQ(r.err, FATAL);

  // A source outside everything has no compartment to compare: only the
  // outside message.
  r = run_locate_probe("1\n0 0 5\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "\n\nSource 1 is outside the geometry!\n");
  EXPECT_EQ(r.err, FATAL);

  r = run_locate_probe("1\n0.3 0 0\n-0.3 0 0\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "\nSource  1 is located within inner.tri\nSource  2 is located within inner.tri\n== comp 1 1\n");
}

// ---------------------------------------------------------------------------
// Bound functions

namespace {

// Three sources in the two shells: 0 stationary in the inner sphere
// (parameters 1..3), 1 fixed in the outer compartment (its pindex points at
// 4..6 but must never be read), 2 moving in the outer compartment (7..9).
void three_sources() {
  two_shells();
  add_source(0, 0, 0, 1, 1);
  add_source(0, 1.5, 0, 0, 4);
  add_source(0, 0, 1.5, 2, 7);
  run_locate_sources();
  ASSERT_EQ(source_comp[0], 1);
  ASSERT_EQ(source_comp[1], 0);
  ASSERT_EQ(source_comp[2], 0);
}

void set_trial(float par[10], int k, double x, double y, double z) {
  par[3 * k + 1] = (float)x, par[3 * k + 2] = (float)y, par[3 * k + 3] = (float)z;
}

}  // namespace

TEST(Bounds, DefaultBoundIsTheCompartmentTest) {
  EXPECT_EQ(bound_func, &bound_compart);
}

TEST(Bounds, CompartTestRejectsTrialsThatChangeCompartment) {
  three_sources();
  float par[10] = {0};
  set_trial(par, 0, 0.2, -0.1, 0.3);
  set_trial(par, 1, 10, 10, 10);  // would be outside, but the source is fixed
  set_trial(par, 2, 1.4, 0, 0.3);
  EXPECT_EQ(bound_compart(0, par), 1);
  EXPECT_EQ(bound_null(0, par), 1);

  float bad[10];
  memcpy(bad, par, sizeof bad);
  set_trial(bad, 0, 0, 0, 1.5);  // left the inner sphere
  EXPECT_EQ(bound_compart(0, bad), 0);
  EXPECT_EQ(bound_null(0, bad), 1);
  memcpy(bad, par, sizeof bad);
  set_trial(bad, 2, 0, 0, 0.5);  // moved into the inner sphere
  EXPECT_EQ(bound_compart(0, bad), 0);
  memcpy(bad, par, sizeof bad);
  set_trial(bad, 2, 0, 0, 2.5);  // out of the model
  EXPECT_EQ(bound_compart(0, bad), 0);

  // Once the second source's position is fitted its parameters count.
  source[1].pos_mode = 1;
  EXPECT_EQ(bound_compart(0, par), 0);
  set_trial(par, 1, -1.5, 0, 0);
  EXPECT_EQ(bound_compart(0, par), 1);
}

namespace {

// The smallest ratio, over the triangles of interface i, of the distance
// from p to the triangle over the distance to its farthest vertex, from the
// sampled reference distances.
double smallest_ratio(int i, const float p[3]) {
  const Interface &g = geo[i];
  double best = 1e30;
  for (int t = 0; t < g.ndhk; t++) {
    const float *a = g.pnt[g.dhk[t][0]], *b = g.pnt[g.dhk[t][1]], *c = g.pnt[g.dhk[t][2]];
    double far = std::max({dist(widen(p), widen(a)), dist(widen(p), widen(b)), dist(widen(p), widen(c))});
    best = std::min(best, brute_triangle(p, a, b, c) / far);
  }
  return best;
}

}  // namespace

TEST(Bounds, DistanceTestComparesTheNearestTriangleWithTheCriterion) {
  three_sources();
  float par[10] = {0};
  set_trial(par, 0, 0.1, 0.2, 0.75);
  set_trial(par, 1, 10, 10, 10);
  set_trial(par, 2, -1.3, 0.2, -0.6);
  double r0 = smallest_ratio(1, par + 1), r2 = smallest_ratio(0, par + 7);
  ASSERT_LT(r0, r2);  // the first source is the one nearer its surface
  ASSERT_GT(r0, 0.05);

  set_bound_crit((float)(r0 * 0.99));
  EXPECT_EQ(bound_crit, (float)(r0 * 0.99));
  EXPECT_EQ(bound_dist(0, par), 1);
  set_bound_crit((float)(r0 * 1.01));
  EXPECT_EQ(bound_dist(0, par), 0);
  EXPECT_EQ(bound_compart(0, par), 1);  // the compartment alone still passes

  // With the first source moved to the centre the second one decides.
  set_trial(par, 0, 0, 0, 0);
  ASSERT_GT(smallest_ratio(1, par + 1), r2);
  set_bound_crit((float)(r2 * 0.99));
  EXPECT_EQ(bound_dist(0, par), 1);
  set_bound_crit((float)(r2 * 1.01));
  EXPECT_EQ(bound_dist(0, par), 0);
  set_bound_crit(0.707f);
}

TEST(Bounds, DistanceTestMeasuresOnlyTheCompartmentsOwnInterface) {
  three_sources();
  float par[10] = {0};
  // The moving source just outside the inner sphere: very close to the
  // inner sphere's triangles, far from the outer sphere's, and only the
  // outer sphere encloses its compartment.
  set_trial(par, 2, 0, 0, 1.03);
  ASSERT_LT(smallest_ratio(1, par + 7), 0.2);
  ASSERT_GT(smallest_ratio(0, par + 7), 0.5);
  set_bound_crit(0.5f);
  EXPECT_EQ(bound_dist(0, par), 1);
  // A position that leaves the compartment is refused whatever the
  // criterion.
  set_bound_crit(0.0f);
  set_trial(par, 2, 0, 0, 0.9);
  EXPECT_EQ(bound_dist(0, par), 0);
  set_trial(par, 2, 0, 0, 1.03);
  EXPECT_EQ(bound_dist(0, par), 1);
  // Fixed sources are not measured: put the fixed one's parameters right
  // next to a triangle.
  set_trial(par, 1, 0, 0, 1.999);
  set_bound_crit(0.5f);
  EXPECT_EQ(bound_dist(0, par), 1);
  set_bound_crit(0.707f);
}
