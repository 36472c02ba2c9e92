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
#include "geometry/lmoutr.h"
#include "geometry/vecfun.h"
#include "tests/support/h1_model.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

using Vec = std::array<double, 3>;

Vec widen(const float f[3]) { return {f[0], f[1], f[2]}; }
Vec sub(const Vec &u, const Vec &v) { return {u[0] - v[0], u[1] - v[1], u[2] - v[2]}; }
double dot(const Vec &u, const Vec &v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }
double dist(const Vec &p, const Vec &q) { return std::sqrt(dot(sub(p, q), sub(p, q))); }
Vec cross(const Vec &u, const Vec &v) {
  return {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
}

// Smallest value of a convex function on [lo, hi], by ternary search.
template <class F>
double convex_min(F f, double lo, double hi) {
  for (int it = 0; it < 70; it++) {
    const double m1 = lo + (hi - lo) / 3, m2 = hi - (hi - lo) / 3;
    if (f(m1) < f(m2))
      hi = m2;
    else
      lo = m1;
  }
  return f(0.5 * (lo + hi));
}

// Reference distances by direct minimisation over the segment or the
// triangle (the distance is convex in the point's coordinates, and so is its
// minimum over v as a function of u).
double brute_segment(const float pf[3], const float af[3], const float bf[3]) {
  const Vec p = widen(pf), a = widen(af), e = sub(widen(bf), a);
  return convex_min([&](double t) { return dist(p, {a[0] + t * e[0], a[1] + t * e[1], a[2] + t * e[2]}); }, 0, 1);
}

double brute_triangle(const float pf[3], const float af[3], const float bf[3], const float cf[3]) {
  const Vec p = widen(pf), a = widen(af), e1 = sub(widen(bf), a), e2 = sub(widen(cf), a);
  auto at = [&](double u, double v) {
    Vec q;
    for (int k = 0; k < 3; k++) q[k] = a[k] + u * e1[k] + v * e2[k];
    return dist(p, q);
  };
  return convex_min([&](double u) { return convex_min([&](double v) { return at(u, v); }, 0, 1 - u); }, 0, 1);
}

// A random triangle in the cube [-1,1]^3, neither thin nor obtuse.
void random_triangle(std::mt19937 &rng, float a[3], float b[3], float c[3]) {
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (;;) {
    for (int k = 0; k < 3; k++) a[k] = u(rng), b[k] = u(rng), c[k] = u(rng);
    const Vec va = widen(a), vb = widen(b), vc = widen(c), n = cross(sub(vb, va), sub(vc, va));
    const double longest = std::max({dist(va, vb), dist(vb, vc), dist(va, vc)});
    if (0.5 * std::sqrt(dot(n, n)) >= 0.1 * longest * longest && dot(sub(vb, va), sub(vc, va)) >= 0 &&
        dot(sub(va, vb), sub(vc, vb)) >= 0 && dot(sub(va, vc), sub(vb, vc)) >= 0)
      return;
  }
}

// p = a + lambda (b - a) + mu (c - a) + nu n, n the unit normal (b-a) x (c-a).
void local_point(const float af[3], const float bf[3], const float cf[3], double lambda, double mu, double nu,
                 float p[3]) {
  const Vec a = widen(af), e1 = sub(widen(bf), a), e2 = sub(widen(cf), a), n = cross(e1, e2);
  const double len = std::sqrt(dot(n, n));
  for (int k = 0; k < 3; k++) p[k] = (float)(a[k] + lambda * e1[k] + mu * e2[k] + nu * n[k] / len);
}

}  // namespace

TEST(Distances, VecdistAndPlindist) {
  const float p[3] = {1, 2, 3}, q[3] = {4, 6, 15};
  EXPECT_EQ(vecdist(p, q), 13.0f);
  EXPECT_EQ(vecdist(q, p), 13.0f);
  // Squares of these differences overflow, or underflow, single precision.
  const float far1[3] = {3e20f, 0, 0}, far2[3] = {0, 4e20f, 0}, near1[3] = {0, 0, 0}, near2[3] = {3e-25f, 4e-25f, 0};
  EXPECT_FLOAT_EQ(vecdist(far1, far2), 5e20f);
  EXPECT_FLOAT_EQ(vecdist(near1, near2), 5e-25f);

  // A segment of zero length is measured from its end, with t = 0.
  float nearest[3], t = 0.5f;
  EXPECT_EQ(plindist(q, p, p, nearest, &t), 13.0f);
  EXPECT_EQ(t, 0.0f);
  EXPECT_EQ(std::vector<float>(nearest, nearest + 3), std::vector<float>(p, p + 3));

  // Random segments (the clamped ends are met again through ptridist's edges).
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  for (int trial = 0; trial < 100; trial++) {
    float a[3], b[3], x[3];
    for (int k = 0; k < 3; k++) a[k] = u(rng), b[k] = u(rng), x[k] = u(rng);
    const float d = plindist(x, a, b, nearest, &t);
    ASSERT_NEAR(d, brute_segment(x, a, b), 2e-6 * (1 + d)) << "trial " << trial;
    for (int k = 0; k < 3; k++) EXPECT_NEAR(nearest[k], a[k] + t * (b[k] - a[k]), 1e-5);
  }
  // deter, which lmoutr is built on, by hand: 1*2 - 2*(-2) + 3*(-3).
  const double da[3] = {1, 2, 3}, db[3] = {4, 5, 6}, dc[3] = {7, 8, 10};
  EXPECT_EQ(deter(da, db, dc), -3.0);
}

TEST(Distances, LmoutrLocalCoordinates) {
  // e1 = (2,0,0), e2 = (0,4,0): the normal is +z.
  const float a[3] = {1, 1, 1}, b[3] = {3, 1, 1}, c[3] = {1, 5, 1}, above[3] = {2, 2, 4}, below[3] = {0, 6, -1};
  double lambda, mu, nu;
  ASSERT_EQ(lmoutr(a, b, c, above, &lambda, &mu, &nu), 1);
  EXPECT_EQ(std::vector<double>({lambda, mu, nu}), std::vector<double>({0.5, 0.25, 3.0}));
  ASSERT_EQ(lmoutr(a, b, c, below, &lambda, &mu, &nu), 1);
  EXPECT_EQ(std::vector<double>({lambda, mu, nu}), std::vector<double>({-0.5, 1.25, -2.0}));
  // Degenerate triangles are refused and the outputs left alone.
  const float d[3] = {2, 2, 2}, e[3] = {3, 3, 3};
  EXPECT_EQ(lmoutr(a, d, e, above, &lambda, &mu, &nu), 0);
  EXPECT_EQ(lmoutr(a, a, a, above, &lambda, &mu, &nu), 0);
  EXPECT_EQ(std::vector<double>({lambda, mu, nu}), std::vector<double>({-0.5, 1.25, -2.0}));
  // Random triangles: ptridist's inside region below.
}

TEST(Distances, PtridistMatchesDirectMinimisationInEveryRegion) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> unit(0.0, 1.0), nu_d(-1.0, 1.0);
  // Local coordinates (lambda, mu) drawn from each region around the triangle.
  enum Region { INSIDE, BEYOND_BC, BEYOND_AB, BEYOND_AC, NEAR_A, NEAR_B, NEAR_C, ANYWHERE, NREGION };
  for (int region = 0; region < NREGION; region++) {
    for (int trial = 0; trial < 60; trial++) {
      float a[3], b[3], c[3], p[3];
      random_triangle(rng, a, b, c);
      const double s = unit(rng), r = unit(rng), nu = nu_d(rng);
      const double lm[NREGION][2] = {{s * (1 - r), (1 - s) * (1 - r)}, {s * (1 + r), (1 - s) * (1 + r)}, {s, -r},
                                     {-r, s}, {-s, -r}, {1 + s, -r}, {-s, 1 + r}, {4 * s - 1.5, 4 * r - 1.5}};
      local_point(a, b, c, lm[region][0], lm[region][1], nu, p);
      float nearest[3], l = -7, m = -7;
      const float d = ptridist(p, a, b, c, nearest, &l, &m);
      const double ref = brute_triangle(p, a, b, c);
      ASSERT_NEAR(d, ref, 2e-6 * (1 + ref)) << "region " << region << " trial " << trial;
      // The nearest point is the point (l, m) of the triangle, at distance d.
      EXPECT_TRUE(l >= 0.0f && m >= 0.0f && l + m <= 1.0f + 1e-6f) << l << " " << m;
      for (int k = 0; k < 3; k++) EXPECT_NEAR(nearest[k], (1 - l - m) * a[k] + l * b[k] + m * c[k], 1e-5);
      EXPECT_NEAR(vecdist(p, nearest), d, 1e-5 * (1 + d));
      // Inside, the local coordinates themselves (lmoutr's) come back.
      EXPECT_TRUE(region != INSIDE || (std::fabs(d - std::fabs(nu)) < 1e-5 && std::fabs(l - lm[region][0]) < 1e-4 &&
                                       std::fabs(m - lm[region][1]) < 1e-4))
          << d << " " << nu << " " << l << " " << m;
      EXPECT_TRUE(region != NEAR_A || (std::fabs(l) < 1e-5 && std::fabs(m) < 1e-5)) << l << " " << m;
    }
  }
}

TEST(Distances, PtridistObtuseCornerAndDegenerateTriangle) {
  // Obtuse at b.  Beyond both lines a-b and b-c (lambda = 3.2, mu = -0.1)
  // the projection's negative mu selects edge a-b, although b-c is nearer.
  const float a[3] = {1, 0, 0}, b[3] = {2, 0, 0}, c[3] = {3, 1, 0}, wedge[3] = {4.0f, -0.1f, 0.5f};
  float nearest[3], l, m;
  const float d = ptridist(wedge, a, b, c, nearest, &l, &m);
  EXPECT_NEAR(d, brute_segment(wedge, a, b), 1e-6);
  EXPECT_LT(brute_triangle(wedge, a, b, c), d - 0.1);
  EXPECT_EQ(l, 1.0f);
  EXPECT_EQ(m, 0.0f);
  // A degenerate triangle is measured from its first vertex.
  const float e[3] = {5, 0, 0}, p[3] = {4, 4, 0};
  l = m = 9;
  EXPECT_EQ(ptridist(p, a, b, e, nearest, &l, &m), 5.0f);
  EXPECT_EQ(std::vector<float>({l, m, nearest[0], nearest[1]}), std::vector<float>({0, 0, 1, 0}));
}

namespace {

// geo from the surfaces, with geocon by hand: i lies inside j when it is
// smaller.
void nested(const std::vector<h1::Surface> &s, const std::vector<double> &size) {
  h1::load_model(s);
  memset(geocon, 0, sizeof geocon);
  for (size_t i = 0; i < size.size(); i++)
    for (size_t j = 0; j < size.size(); j++) geocon[i][j] = i == j ? 1 : size[i] < size[j] ? 2 : 0;
  iso_sur = -1;
}

int compart_at(double x, double y, double z) {
  const float p[3] = {(float)x, (float)y, (float)z};
  return which_compart(p);
}

}  // namespace

TEST(WhichCompart, TheInnermostEnclosingInterfaceInAnyOrder) {
  h1::load_model({});
  EXPECT_EQ(compart_at(0, 0, 0), -1);
  // Listed in neither nesting order: the innermost shell must win both when
  // it comes before and after the shells around it.
  nested({{"middle", icosphere(2, 2.0)}, {"outer", icosphere(2, 3.0)}, {"inner", icosphere(2, 1.0)}}, {2, 3, 1});
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-1, 1), radius(0, 4);
  int seen[4] = {0, 0, 0, 0};
  for (int trial = 0; trial < 200; trial++) {
    const Vec dir = {u(rng), u(rng), u(rng)};
    const double len = std::sqrt(dot(dir, dir)), r = radius(rng), frac = r - std::floor(r);
    // Keep clear of the faceted shells: level-2 facets lie within 0.98 r
    // and r of the centre.
    if (len < 0.1 || (r < 3.1 && (frac > 0.9 || frac < 0.06))) continue;
    const int expected = r < 1 ? 2 : r < 2 ? 0 : r < 3 ? 1 : -1;
    EXPECT_EQ(compart_at(r * dir[0] / len, r * dir[1] / len, r * dir[2] / len), expected) << "radius " << r;
    seen[expected + 1]++;
  }
  for (int s : seen) EXPECT_GT(s, 10);
}

TEST(WhichCompart, PointOnATriangleNamesItsInterface) {
  for (int cube_at : {1, 0}) {
    SCOPED_TRACE(cube_at);
    if (cube_at == 1)
      nested({{"sphere", icosphere(2, 3.0)}, {"cube", h1::cube()}}, {3, 1});
    else
      nested({{"cube", h1::cube()}, {"sphere", icosphere(2, 3.0)}}, {1, 3});
    const int on = -10 - cube_at;
    const struct {
      double x, y, z;
      int want;
    } points[] = {{0.2, 0.3, -0.4, cube_at},  {0.2, 1.3, -0.4, 1 - cube_at}, {0.5, -0.2, 1, on},
                  {-1, 0.25, 0.5, on},        {0.5, -0.75, -1, on},          {1, 1, -1, on},
                  {0.5, -0.5, 1.001, 1 - cube_at}, {0.5, -0.5, 0.999, cube_at}};
    for (const auto &p : points) EXPECT_EQ(compart_at(p.x, p.y, p.z), p.want) << p.x << " " << p.y << " " << p.z;
  }
}

namespace {

std::vector<SourceRecord> source_store;

void add_source(double x, double y, double z, int pos_mode = 0, int pindex = 0) {
  SourceRecord s{};
  s.x = (float)x, s.y = (float)y, s.z = (float)z;
  s.pos_mode = pos_mode, s.pindex = pindex, s.sym = -1;
  source_store.push_back(s);
  source = source_store.data();
  nsource = (int)source_store.size();
}

// Two nested spheres: geo[0] "outer.tri" (radius 2), geo[1] "inner.tri"
// (radius 1), and no sources yet.
void two_shells() {
  nested({{"outer.tri", icosphere(2, 2.0)}, {"inner.tri", icosphere(2, 1.0)}}, {2, 1});
  source_store.clear();
  nsource = 0;
}

}  // namespace

TEST(LocateSources, ListsTheCompartmentOfEverySource) {
  two_shells();
  EXPECT_EQ(h1::stdout_of(locate_sources), "\n");
  EXPECT_NE(source_comp, nullptr);
  for (int k = 0; k < 11; k++) add_source(0.05 * k, 0.1, -0.1);  // 11 sources in the inner sphere
  add_source(0, 1.5, 0);
  std::string expected = "\n";
  for (int k = 1; k <= 11; k++) expected += "Source " + std::string(k < 10 ? " " : "") + std::to_string(k) + " is located within inner.tri\n";
  expected += "Source 12 is located within outer.tri\n";
  EXPECT_EQ(h1::stdout_of(locate_sources), expected);
  ASSERT_NE(source_comp, nullptr);
  for (int k = 0; k < 12; k++) EXPECT_EQ(source_comp[k], k < 11 ? 1 : 0) << k;
}

TEST(LocateSources, MisplacedSourcesAreAllReportedThenFatal) {
  // The probe's model is the same pair of spheres (level 1); its input is
  // the isolated-source interface, then "x y z" or "v i k" (on vertex k of
  // interface i) per source.
  const char fatal[] = "\n\n Fatal error in brelix: Non-acceptable initial source positions\n\n\a";
  const struct {
    const char *input;
    int status;
    const char *out;
  } cases[] = {
      {"-1\n0 0 0\n0 0 3\nv 1 5\n0 1.5 0\nv 0 0\n", 1,
       "\nSource  1 is located within inner.tri\n\nSource 2 is outside the geometry!\n"
       "\nSource 3 touches inner.tri!\nSource  4 is located within outer.tri\n\nSource 5 touches outer.tri!\n"},
      {"1\n0 0 0\n0 1.5 0\n0.1 0.1 0.1\n", 1,
       "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n"
       "All sources should be within the isolated source compartment inner.tri!\n"
       "Source  3 is located within inner.tri\n"},
      // Outside everything there is no compartment to compare.
      {"1\n0 0 5\n", 1, "\n\nSource 1 is outside the geometry!\n"},
      {"1\n0.3 0 0\n-0.3 0 0\n", 0,
       "\nSource  1 is located within inner.tri\nSource  2 is located within inner.tri\n== comp 1 1\n"},
      // The outermost interface as isolated-source interface holds everything.
      {"0\n0 0 0.5\n1.5 0 0\n", 0,
       "\nSource  1 is located within inner.tri\nSource  2 is located within outer.tri\n== comp 1 0\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.input);
    ProcResult r = run_process(probe("probe_locate_sources"), {}, c.input);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.status ? fatal : "");
  }
}

namespace {

// Three sources in the two shells: 0 stationary in the inner sphere
// (parameters 1..3), 1 fixed in the outer compartment (its pindex points at
// 4..6 but must never be read), 2 moving in the outer compartment (7..9).
void three_sources(float par[10]) {
  two_shells();
  add_source(0, 0, 0, 1, 1);
  add_source(0, 1.5, 0, 0, 4);
  add_source(0, 0, 1.5, 2, 7);
  h1::stdout_of(locate_sources);
  ASSERT_EQ(std::vector<int>(source_comp, source_comp + 3), std::vector<int>({1, 0, 0}));
  memset(par, 0, 10 * sizeof(float));
}

void set_trial(float par[10], int k, double x, double y, double z) {
  par[3 * k + 1] = (float)x, par[3 * k + 2] = (float)y, par[3 * k + 3] = (float)z;
}

// The smallest ratio, over the triangles of interface i, of the distance
// from p to the triangle over the distance to its farthest vertex.
double smallest_ratio(int i, const float p[3]) {
  const Interface &g = geo[i];
  double best = 1e30;
  for (int t = 0; t < g.ndhk; t++) {
    const float *a = g.pnt[g.dhk[t][0]], *b = g.pnt[g.dhk[t][1]], *c = g.pnt[g.dhk[t][2]];
    const Vec x = widen(p);
    best = std::min(best, brute_triangle(p, a, b, c) /
                              std::max({dist(x, widen(a)), dist(x, widen(b)), dist(x, widen(c))}));
  }
  return best;
}

}  // namespace

TEST(Bounds, CompartTestRejectsTrialsThatChangeCompartment) {
  EXPECT_EQ(bound_func, &bound_compart);  // the default
  float par[10], bad[10];
  three_sources(par);
  set_trial(par, 0, 0.2, -0.1, 0.3);
  set_trial(par, 1, 10, 10, 10);  // would be outside, but the source is fixed
  set_trial(par, 2, 1.4, 0, 0.3);
  EXPECT_EQ(bound_compart(0, par), 1);
  const struct {
    int k;
    double x, y, z;
  } moves[] = {{0, 0, 0, 1.5}, {2, 0, 0, 0.5}, {2, 0, 0, 2.5}};  // out of the inner sphere, into it, out of all
  for (const auto &mv : moves) {
    memcpy(bad, par, sizeof bad);
    set_trial(bad, mv.k, mv.x, mv.y, mv.z);
    EXPECT_EQ(bound_compart(0, bad), 0) << mv.k << " " << mv.z;
    EXPECT_EQ(bound_null(0, bad), 1);
  }
  // Once the second source's position is fitted its parameters count.
  source[1].pos_mode = 1;
  EXPECT_EQ(bound_compart(0, par), 0);
  set_trial(par, 1, -1.5, 0, 0);
  EXPECT_EQ(bound_compart(0, par), 1);
}

TEST(Bounds, DistanceTestComparesTheNearestTriangleWithTheCriterion) {
  float par[10];
  three_sources(par);
  set_trial(par, 0, 0.1, 0.2, 0.75);
  set_trial(par, 1, 10, 10, 10);
  set_trial(par, 2, -1.3, 0.2, -0.6);
  // The criterion r passes just below the ratio and fails just above it.
  auto decides = [&](double r) {
    set_bound_crit((float)(r * 0.99));
    EXPECT_EQ(bound_crit, (float)(r * 0.99));
    EXPECT_EQ(bound_dist(0, par), 1) << r;
    set_bound_crit((float)(r * 1.01));
    EXPECT_EQ(bound_dist(0, par), 0) << r;
  };
  const double r0 = smallest_ratio(1, par + 1), r2 = smallest_ratio(0, par + 7);
  ASSERT_TRUE(r0 < r2 && r0 > 0.05);  // the first source is the one nearer its surface
  decides(r0);
  EXPECT_EQ(bound_compart(0, par), 1);  // the compartment alone still passes
  // With the first source moved to the centre the third one decides.
  set_trial(par, 0, 0, 0, 0);
  ASSERT_GT(smallest_ratio(1, par + 1), r2);
  decides(r2);

  // The moving source just outside the inner sphere: very close to the
  // inner sphere's triangles, far from the outer sphere's, and only the
  // outer sphere encloses its compartment.
  set_trial(par, 2, 0, 0, 1.03);
  ASSERT_TRUE(smallest_ratio(1, par + 7) < 0.2 && smallest_ratio(0, par + 7) > 0.5);
  set_bound_crit(0.5f);
  EXPECT_EQ(bound_dist(0, par), 1);
  // Fixed sources are not measured: the fixed one right next to a triangle.
  set_trial(par, 1, 0, 0, 1.999);
  EXPECT_EQ(bound_dist(0, par), 1);
  // A position that leaves the compartment is refused whatever the criterion.
  set_bound_crit(0.0f);
  set_trial(par, 2, 0, 0, 0.9);
  EXPECT_EQ(bound_dist(0, par), 0);
  set_bound_crit(0.707f);
}
