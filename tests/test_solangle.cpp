// Solid angle of a triangle and its linear vertex weights.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "geometry/solangle.h"
#include "tools/icosphere.h"

namespace {

using P = std::array<double, 3>;

struct Weights {
  int ok;
  double w[3];
  double sum() const { return w[0] + w[1] + w[2]; }
};

Weights weights_at(const P &a, const P &b, const P &c, const P &x, double minangle) {
  double y[3][3];
  for (int k = 0; k < 3; k++) y[0][k] = a[k] - x[k], y[1][k] = b[k] - x[k], y[2][k] = c[k] - x[k];
  Weights r{0, {-99.0, -99.0, -99.0}};
  r.ok = solangle(y[0], y[1], y[2], &r.w[0], &r.w[1], &r.w[2], minangle);
  return r;
}

double angle_at(const P &a, const P &b, const P &c, const P &x, int *onplane) {
  double y[3][3];
  for (int k = 0; k < 3; k++) y[0][k] = a[k] - x[k], y[1][k] = b[k] - x[k], y[2][k] = c[k] - x[k];
  return rhoek(y[0], y[1], y[2], onplane);
}

// Reference: the solid-angle density times the three linear shape functions,
// integrated by the centroid rule over an m x m subdivision of the triangle.
// The density is positive where the triangle's right-hand normal faces x.
P quadrature(const P &a, const P &b, const P &c, const P &x, int m) {
  P e1, e2, out{0, 0, 0};
  for (int k = 0; k < 3; k++) e1[k] = b[k] - a[k], e2[k] = c[k] - a[k];
  // |nrm| is twice the area; nrm / (2 m^2) is each sub-triangle's normal times its area.
  const P nrm = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
  auto add = [&](double s, double t) {
    P y;
    for (int k = 0; k < 3; k++) y[k] = a[k] + s * e1[k] + t * e2[k] - x[k];
    const double r = std::sqrt(y[0] * y[0] + y[1] * y[1] + y[2] * y[2]);
    const double dens = -(nrm[0] * y[0] + nrm[1] * y[1] + nrm[2] * y[2]) / (2.0 * m * m * r * r * r);
    out[0] += dens * (1.0 - s - t), out[1] += dens * s, out[2] += dens * t;
  };
  for (int i = 0; i < m; i++)
    for (int j = 0; i + j < m; j++) {
      add((i + 1.0 / 3.0) / m, (j + 1.0 / 3.0) / m);
      if (i + j <= m - 2) add((i + 2.0 / 3.0) / m, (j + 2.0 / 3.0) / m);
    }
  return out;
}

}  // namespace

// The worked triangle (T = -1, D = 3 + 2 sqrt 2) and triangles near, beside,
// behind and around a vertex, against quadrature; near triangles take the
// full formula also with the program's threshold.
TEST(SolidAngle, WeightsMatchWorkedValuesAndQuadrature) {
  const P a = {0, 0, 1}, b = {0, 1, 1}, c = {1, 0, 1}, o = {0, 0, 0};
  int onplane = -1;
  const double omega = angle_at(a, b, c, o, &onplane);
  EXPECT_EQ(onplane, 0);
  EXPECT_NEAR(omega, 2.0 * std::atan(1.0 / (3.0 + 2.0 * std::sqrt(2.0))), 1e-15);
  const Weights r = weights_at(a, b, c, o, 0.1);
  ASSERT_EQ(r.ok, 1);
  EXPECT_NEAR(r.w[0], 0.130762, 5e-7);
  EXPECT_NEAR(r.w[1], 0.104537, 5e-7);
  EXPECT_NEAR(r.w[2], 0.104537, 5e-7);
  EXPECT_NEAR(r.sum(), omega, 1e-14);

  const P cases[][4] = {
      {a, b, c, o},
      {{0.3, -0.2, 0.5}, {1.1, 0.1, 0.7}, {0.2, 0.9, 0.4}, {0.4, 0.3, 0.0}},     // above the interior
      {{-0.5, -0.4, 0.3}, {0.8, -0.3, 0.4}, {0.1, 0.7, 0.2}, {1.2, 0.6, -0.1}},  // beside an edge, below
      {{0.0, 0.0, 0.0}, {2.0, 0.1, 0.0}, {0.2, 1.5, 0.3}, {0.1, 0.1, 0.45}},     // near a vertex
      {{1.0, 2.0, 0.0}, {0.0, 0.0, 0.5}, {-1.0, 1.5, 0.2}, {-0.2, 1.0, -0.6}},   // seen from behind
  };
  for (const auto &k : cases) {
    const P ref = quadrature(k[0], k[1], k[2], k[3], 600);
    const Weights r0 = weights_at(k[0], k[1], k[2], k[3], 0.0), r1 = weights_at(k[0], k[1], k[2], k[3], 0.1);
    ASSERT_EQ(r0.ok, 1);
    ASSERT_GE(std::fabs(r0.sum()), 0.1);
    for (int i = 0; i < 3; i++) {
      EXPECT_NEAR(r0.w[i], ref[i], 2e-5) << "weight " << i;
      EXPECT_EQ(r1.w[i], r0.w[i]);
    }
  }
}

// A closed surface totals 4 pi from inside (also close to the surface) and 0
// from outside as summed weights (which sum to the angles, below).
TEST(SolidAngle, ClosedSurfaceTotalsFourPiInsideAndZeroOutside) {
  const TriMesh mesh = icosphere(2, 1.5, 0.2, -0.1, 0.3);
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n = 0; n < 12; n++) {
    P d = {u(rng), u(rng), u(rng)};
    const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    // Inside up to radius 1.2 (the surface is at least 1.5 cos 10 deg away), outside from 1.6.
    const double r = n < 6 ? 1.2 * (n + 1) / 6.0 : 1.6 + 3.0 * (n - 6);
    const P x = {0.2 + r * d[0] / len, -0.1 + r * d[1] / len, 0.3 + r * d[2] / len};
    double wsum = 0;
    for (const auto &t : mesh.dhk) {
      P p[3];
      for (int k = 0; k < 3; k++) p[k] = {mesh.pnt[t[k]][0], mesh.pnt[t[k]][1], mesh.pnt[t[k]][2]};
      const Weights w = weights_at(p[0], p[1], p[2], x, 0.1);
      ASSERT_EQ(w.ok, 1);
      wsum += w.sum();
    }
    EXPECT_NEAR(wsum, n < 6 ? 4 * M_PI : 0.0, 1e-10) << "point " << n;
  }
}

// Random triangles: the weights sum to the angle, and reversing the vertex
// order changes the sign of the angle and of every weight.
TEST(SolidAngle, WeightsSumToTheAngleAndFlipWithTheOrientation) {
  std::mt19937 rng(777);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int full = 0;
  for (int n = 0; n < 2000; n++) {
    const P a = {u(rng), u(rng), u(rng)}, b = {u(rng), u(rng), u(rng)}, c = {u(rng), u(rng), u(rng)};
    const P x = {0.5 * u(rng), 0.5 * u(rng), 0.5 * u(rng)};
    int onplane = 1;
    const double omega = angle_at(a, b, c, x, &onplane);
    ASSERT_EQ(onplane, 0);
    EXPECT_NEAR(angle_at(a, c, b, x, &onplane), -omega, 1e-13);
    for (double minangle : {0.0, 0.1}) {
      const Weights r = weights_at(a, b, c, x, minangle), s = weights_at(a, c, b, x, minangle);
      ASSERT_TRUE(r.ok == 1 && s.ok == 1);
      const double scale = 1.0 + std::fabs(r.w[0]) + std::fabs(r.w[1]) + std::fabs(r.w[2]);
      EXPECT_NEAR(r.sum(), omega, 1e-12 * scale);
      EXPECT_NEAR(s.w[0], -r.w[0], 1e-12 * scale);
      EXPECT_NEAR(s.w[1], -r.w[2], 1e-12 * scale);
      EXPECT_NEAR(s.w[2], -r.w[1], 1e-12 * scale);
      full += std::fabs(omega) >= minangle;
    }
  }
  EXPECT_GT(full, 2000);  // the full formula was exercised, not only the split
}

// Below the threshold (strictly) the angle is split equally; at exactly the
// threshold the full formula gives unequal weights.
TEST(SolidAngle, FarTrianglesAreSplitEquallyBelowTheThresholdOnly) {
  const P a = {10, 0, 0}, b = {10, 1, 0}, c = {10, 0, 1}, o = {0, 0.2, 0.1};
  int onplane;
  const double omega = angle_at(a, b, c, o, &onplane);
  ASSERT_LT(std::fabs(omega), 0.1);
  for (double minangle : {0.1, std::nextafter(std::fabs(omega), 1.0)}) {
    const Weights r = weights_at(a, b, c, o, minangle);
    ASSERT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], omega / 3.0);
  }
  const Weights f = weights_at(a, b, c, o, std::fabs(omega));
  ASSERT_EQ(f.ok, 1);
  EXPECT_NE(f.w[1], f.w[2]);
  EXPECT_NEAR(f.sum(), omega, 1e-15);
}

// Points on a triangle, its edges or vertices are a fault (weights left
// alone); degenerate but harmless configurations give zero weights.
TEST(SolidAngle, DegenerateConfigurations) {
  const P a = {0, 0, 0}, b = {1, 0, 0}, c = {0, 1, 0};
  const P p = {-1, 0, 0}, q = {3, 0, 0}, s = {0.25, 0.75, 0.5}, s2 = {0.3, 0.7, 0.4}, on_pq = {0.5, 0, 0};
  struct Case {
    const char *name;
    P a, b, c, x;
    int ok, onplane;  // onplane -1: rhoek not checked
    std::vector<double> minangles = {0.1, 0.0, -1.0};
  } cases[] = {
      {"inside the triangle", a, b, c, {0.25, 0.25, 0}, 0, 1},
      {"on edge 1", a, b, c, {0.5, 0, 0}, 0, 1},
      {"on edge 3", a, b, c, {0, 0.75, 0}, 0, 1},
      {"on vertex 1", a, b, c, a, 0, 1},
      {"on vertex 2", a, b, c, b, 0, 1},
      {"on vertex 3", a, b, c, c, 0, 1},
      {"tilted, on an edge", p, q, s, on_pq, 0, -1},
      {"tilted, on vertex 1", p, q, s, p, 0, -1},
      {"tilted, on vertex 2", p, q, s, q, 0, -1},
      {"tilted, on vertex 3", p, q, s, s, 0, -1},
      // The in-plane test may miss by rounding here; the edge terms must not.
      {"rounded, on edge 1", p, q, s2, on_pq, 0, -1, {0.0, -1.0}},
      {"rounded, on edge 3", q, s2, p, on_pq, 0, -1, {0.0, -1.0}},
      {"rounded, on edge 2", s2, p, q, on_pq, 0, -1, {0.0, -1.0}},
      {"in the plane, outside", a, b, c, {2, 2, 0}, 1, 0},
      {"on an edge's line beyond its end", a, b, {0.25, 1, 0.5}, {2, 0, 0}, 1, -1},
      {"collinear vertices", a, b, {2, 0, 0}, {0.5, 1, 0.5}, 1, -1},
      {"coincident vertices", a, a, {2, 0, 0}, {0.5, 1, 0.5}, 1, -1},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.name);
    for (double minangle : k.minangles) {
      const Weights r = weights_at(k.a, k.b, k.c, k.x, minangle);
      EXPECT_EQ(r.ok, k.ok) << "minangle " << minangle;
      for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], k.ok ? 0.0 : -99.0) << "minangle " << minangle;
    }
    int onplane = -1;
    const double omega = angle_at(k.a, k.b, k.c, k.x, &onplane);
    EXPECT_TRUE(k.onplane < 0 || (onplane == k.onplane && omega == 0.0)) << onplane << " " << omega;
  }
}
