// Distance kernels, compartment location of points and sources, and the
// bound functions that keep fitted sources in their compartments.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/compart.h"
#include "forwinv/forwinv.h"
#include "geometry/vecfun.h"
#include "tests/support/h1_model.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

using Vec = std::array<double, 3>;
Vec sub(const float u[3], const float v[3]) { return {(double)u[0] - v[0], (double)u[1] - v[1], (double)u[2] - v[2]}; }
double dot(const Vec &u, const Vec &v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

// Smallest value of a convex function on [lo, hi], by ternary search.
template <class F>
double convex_min(F f, double lo, double hi) {
  for (int it = 0; it < 70; it++) {
    const double m1 = lo + (hi - lo) / 3, m2 = hi - (hi - lo) / 3;
    if (f(m1) < f(m2)) hi = m2; else lo = m1;
  }
  return f(0.5 * (lo + hi));
}

// Reference distance from p to the triangle abc by direct minimisation (the
// distance is convex in (u, v), and so is its minimum over v).
double brute_triangle(const float p[3], const float a[3], const float b[3], const float c[3]) {
  const Vec d = sub(p, a), e1 = sub(b, a), e2 = sub(c, a);
  auto at = [&](double u, double v) {
    Vec q;
    for (int k = 0; k < 3; k++) q[k] = d[k] - u * e1[k] - v * e2[k];
    return std::sqrt(dot(q, q));
  };
  return convex_min([&](double u) { return convex_min([&](double v) { return at(u, v); }, 0, 1 - u); }, 0, 1);
}

int compart_at(double x, double y, double z) { return which_compart(std::array<float, 3>{(float)x, (float)y, (float)z}.data()); }

// geo from the surfaces, with geocon by hand: i lies inside j when smaller.
void nested(const std::vector<h1::Surface> &s, const std::vector<double> &size) {
  h1::load_model(s);
  for (size_t i = 0; i < size.size(); i++)
    for (size_t j = 0; j < size.size(); j++) geocon[i][j] = i == j ? 1 : size[i] < size[j] ? 2 : 0;
  iso_sur = -1;
}

}  // namespace

// Random triangles in the cube (not thin, not obtuse) and points around them
// in every region of the local coordinates (lambda, mu) and above or below.
TEST(Distances, PtridistMatchesDirectMinimisationInEveryRegion) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), unit(0.0f, 1.0f);
  for (int trial = 0; trial < 600; trial++) {
    float a[3], b[3], c[3], p[3], nearest[3], l = -7, m = -7;
    Vec n, e1, e2, e3;
    do {
      for (int k = 0; k < 3; k++) a[k] = u(rng), b[k] = u(rng), c[k] = u(rng);
      e1 = sub(b, a), e2 = sub(c, a), e3 = sub(c, b);
      n = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    } while (std::sqrt(dot(n, n)) < 0.2 * std::max({dot(e1, e1), dot(e2, e2), dot(e3, e3)}) || dot(e1, e2) < 0 ||
             dot(e1, e3) > 0 || dot(e2, e3) < 0);
    const double s = unit(rng), r = unit(rng), nu = u(rng) / std::sqrt(dot(n, n));
    const double lm[8][2] = {{s * (1 - r), (1 - s) * (1 - r)}, {s * (1 + r), (1 - s) * (1 + r)}, {s, -r}, {-r, s},
                             {-s, -r}, {1 + s, -r}, {-s, 1 + r}, {4 * s - 1.5, 4 * r - 1.5}};
    const double lambda = lm[trial % 8][0], mu = lm[trial % 8][1];
    for (int k = 0; k < 3; k++) p[k] = (float)(a[k] + lambda * (b[k] - a[k]) + mu * (c[k] - a[k]) + nu * n[k]);
    const float d = ptridist(p, a, b, c, nearest, &l, &m);
    const double ref = brute_triangle(p, a, b, c);
    ASSERT_NEAR(d, ref, 2e-6 * (1 + ref)) << "trial " << trial;
    // The nearest point is the point (l, m) of the triangle, at distance d.
    EXPECT_TRUE(l >= 0.0f && m >= 0.0f && l + m <= 1.0f + 1e-6f) << l << " " << m;
    for (int k = 0; k < 3; k++) EXPECT_NEAR(nearest[k], (1 - l - m) * a[k] + l * b[k] + m * c[k], 1e-5);
    EXPECT_NEAR(vecdist(p, nearest), d, 1e-5 * (1 + d));
    EXPECT_TRUE(trial % 8 || (std::fabs(l - lambda) < 1e-4 && std::fabs(m - mu) < 1e-4)) << l << " " << m;
  }
}

TEST(Distances, OverflowDegenerateShapesAndTheObtuseCorner) {
  const float far1[3] = {3e20f, 0, 0}, far2[3] = {0, 4e20f, 0}, o[3] = {0, 0, 0}, tiny[3] = {3e-25f, 4e-25f, 0};
  EXPECT_FLOAT_EQ(vecdist(far1, far2), 5e20f);  // squares overflow or underflow single precision
  EXPECT_FLOAT_EQ(vecdist(o, tiny), 5e-25f);
  const float a[3] = {1, 0, 0}, b[3] = {2, 0, 0}, c[3] = {3, 1, 0}, e[3] = {5, 0, 0}, p[3] = {4, 4, 0};
  float nearest[3], t = 0.5f, l = 9, m = 9;
  EXPECT_EQ(plindist(p, a, a, nearest, &t), 5.0f);  // a segment of zero length: from its end, t = 0
  EXPECT_EQ(t, 0.0f);
  EXPECT_EQ(ptridist(p, a, b, e, nearest, &l, &m), 5.0f);  // a degenerate triangle: from its first vertex
  EXPECT_EQ(std::vector<float>({l, m, nearest[0], nearest[1]}), std::vector<float>({0, 0, 1, 0}));
  // Obtuse at b, beyond both lines a-b and b-c: the projection's negative mu
  // selects edge a-b (distance to b), although b-c is nearer.
  const float wedge[3] = {4.0f, -0.1f, 0.5f};
  EXPECT_NEAR(ptridist(wedge, a, b, c, nearest, &l, &m), std::sqrt(4.0 + 0.01 + 0.25), 1e-6);
  EXPECT_EQ(std::vector<float>({l, m}), std::vector<float>({1, 0}));
}

TEST(WhichCompart, TheInnermostEnclosingInterfaceInAnyOrder) {
  h1::load_model({});
  EXPECT_EQ(compart_at(0, 0, 0), -1);
  // The innermost shell must win when it comes before and after those around it.
  nested({{"middle", icosphere(2, 2.0)}, {"outer", icosphere(2, 3.0)}, {"inner", icosphere(2, 1.0)}}, {2, 3, 1});
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-1, 1), radius(0, 4);
  int seen[4] = {0, 0, 0, 0};
  for (int trial = 0; trial < 200; trial++) {
    const Vec dir = {u(rng), u(rng), u(rng)};
    const double len = std::sqrt(dot(dir, dir)), r = radius(rng), frac = r - std::floor(r);
    // Clear of the faceted shells: level-2 facets lie within 0.98 r and r.
    if (len < 0.1 || (r < 3.1 && (frac > 0.9 || frac < 0.06))) continue;
    const int expected = r < 1 ? 2 : r < 2 ? 0 : r < 3 ? 1 : -1;
    EXPECT_EQ(compart_at(r * dir[0] / len, r * dir[1] / len, r * dir[2] / len), expected) << "radius " << r;
    seen[expected + 1]++;
  }
  for (int s : seen) EXPECT_GT(s, 10);
}

TEST(LocateSources, MisplacedSourcesAreAllReportedThenFatal) {
  // The probe's model: "outer.tri" (radius 2) around "inner.tri" (radius 1);
  // its input: the isolated-source interface, then per source "x y z" or
  // "v i k" (on vertex k of interface i).
  const char fatal[] = "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a";
  const std::pair<const char *, const char *> cases[] = {
      {"-1\n0 0 0\n0 0 3\nv 1 5\n0 1.5 0\nv 0 0\n",
       "\nSource  1 is located within inner.tri\n\nSource 2 is outside the geometry!\n"
       "\nSource 3 touches inner.tri!\nSource  4 is located within outer.tri\n\nSource 5 touches outer.tri!\n"},
      {"1\n0 0 0\n0 1.5 0\n0.1 0.1 0.1\n",
       "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n"
       "All sources should be within the isolated source compartment inner.tri!\nSource  3 is located within inner.tri\n"},
  };
  for (const auto &[input, out] : cases) {
    const ProcResult r = run_process(probe("probe_locate_sources"), {}, input);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, fatal);
  }
}

// Sources in two shells (outer.tri radius 2 around inner.tri radius 1): 0
// moving in the inner sphere (parameters 1..3), 1 fixed (4..6, never read:
// next to a triangle, it is not measured), 2 moving in the outer compartment
// (7..9), just outside the inner sphere.  bound_dist compares, over the
// triangles of the interface that encloses a moving source's compartment, the
// smallest distance to a triangle over that to its farthest vertex with the
// criterion.
TEST(Bounds, CompartmentAndDistanceTests) {
  nested({{"outer.tri", icosphere(2, 2.0)}, {"inner.tri", icosphere(2, 1.0)}}, {2, 1});
  std::vector<SourceRecord> sources(3);
  for (int k = 0; k < 3; k++) sources[k].y = k == 1 ? 1.5f : 0, sources[k].z = k == 2 ? 1.5f : 0, sources[k].pindex = 3 * k + 1;
  sources[0].pos_mode = 1, sources[2].pos_mode = 2;
  source = sources.data(), nsource = 3;
  h1::stdout_of(locate_sources);
  EXPECT_EQ(bound_func, &bound_compart);  // the default
  float par[10] = {0, 0.1f, 0.2f, 0.3f, 0, 0, 1.999f, 0, 0, 1.03f};
  EXPECT_EQ(bound_compart(0, par), 1);
  for (const auto &[k, z] : {std::pair{1, 1.5f}, {7, 0.5f}, {7, 2.5f}}) {  // out of the inner sphere, into it, out of all
    float bad[10];
    std::copy(par, par + 10, bad), bad[k] = bad[k + 1] = 0, bad[k + 2] = z;
    EXPECT_EQ(bound_compart(0, bad) + bound_dist(0, bad), 0) << k << " " << z;
  }
  auto ratio = [](int i, const float *p) {
    double best = 1e30;
    for (int t = 0; t < geo[i].ndhk; t++) {
      const float *v[3] = {geo[i].pnt[geo[i].dhk[t][0]], geo[i].pnt[geo[i].dhk[t][1]], geo[i].pnt[geo[i].dhk[t][2]]};
      double far = 0;
      for (const float *q : v) far = std::max(far, std::sqrt(dot(sub(p, q), sub(p, q))));
      best = std::min(best, brute_triangle(p, v[0], v[1], v[2]) / far);
    }
    return best;
  };
  const double r = std::min(ratio(1, par + 1), ratio(0, par + 7));
  ASSERT_TRUE(ratio(1, par + 7) < 0.3 * r && ratio(0, par + 4) < 0.3 * r);  // what must not be measured
  for (const auto &[crit, want] : {std::pair{0.99, 1}, {1.01, 0}}) {
    set_bound_crit((float)(r * crit));
    EXPECT_EQ(bound_dist(0, par), want) << crit;
  }
  set_bound_crit(0.707f);
}
