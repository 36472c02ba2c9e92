// Solid angle of a triangle and its linear vertex weights.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "geometry/solangle.h"
#include "tools/icosphere.h"

namespace {

using P = std::array<double, 3>;
struct Weights {
  int ok;
  double w[3];
  double sum() const { return w[0] + w[1] + w[2]; }
};

// The weights, or without a threshold the angle in w[0].
Weights at(const P &a, const P &b, const P &c, const P &x, double minangle = NAN, int *onplane = nullptr) {
  double y[3][3];
  for (int k = 0; k < 3; k++) y[0][k] = a[k] - x[k], y[1][k] = b[k] - x[k], y[2][k] = c[k] - x[k];
  Weights r{0, {-99.0, -99.0, -99.0}};
  int on;
  if (std::isnan(minangle)) return r.w[0] = rhoek(y[0], y[1], y[2], onplane ? onplane : &on), r;
  r.ok = solangle(y[0], y[1], y[2], &r.w[0], &r.w[1], &r.w[2], minangle);
  return r;
}

}  // namespace

// The worked triangle (T = -1, D = 3 + 2 sqrt 2), by hand.
TEST(SolidAngle, WorkedValue) {
  const P a = {0, 0, 1}, b = {0, 1, 1}, c = {1, 0, 1}, o = {0, 0, 0};
  int onplane = -1;
  const double omega = at(a, b, c, o, NAN, &onplane).w[0];
  EXPECT_EQ(onplane, 0);
  EXPECT_NEAR(omega, 2.0 * std::atan(1.0 / (3.0 + 2.0 * std::sqrt(2.0))), 1e-15);
  for (double minangle : {0.0, 0.1}) {  // near triangles take the full formula whatever the threshold
    const Weights r = at(a, b, c, o, minangle);
    ASSERT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) EXPECT_NEAR(r.w[i], i ? 0.104537 : 0.130762, 5e-7) << i;
    EXPECT_NEAR(r.sum(), omega, 1e-14);
  }
}

// A closed surface totals 4 pi from inside (also close to it) and 0 outside.
TEST(SolidAngle, ClosedSurfaceTotalsFourPiInsideAndZeroOutside) {
  const TriMesh mesh = icosphere(2, 1.5, 0.2, -0.1, 0.3);
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n = 0; n < 12; n++) {
    P d = {u(rng), u(rng), u(rng)};
    const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    // Inside up to radius 1.2 (the facets are at least 1.5 cos 10 deg away), outside from 1.6.
    const double r = n < 6 ? 1.2 * (n + 1) / 6.0 : 1.6 + 3.0 * (n - 6), wsum0 = n < 6 ? 4 * M_PI : 0.0;
    const P x = {0.2 + r * d[0] / len, -0.1 + r * d[1] / len, 0.3 + r * d[2] / len};
    double wsum = 0;
    for (const auto &t : mesh.dhk) {
      P p[3];
      for (int k = 0; k < 3; k++) p[k] = {mesh.pnt[t[k]][0], mesh.pnt[t[k]][1], mesh.pnt[t[k]][2]};
      wsum += at(p[0], p[1], p[2], x, 0.1).sum();
    }
    EXPECT_NEAR(wsum, wsum0, 1e-10) << "point " << n;
  }
}

// Strictly below the threshold the angle is split equally, at it not.  Points
// on a triangle (inside, on an edge, at a vertex) are a fault that leaves the
// weights alone; harmless degenerate cases give zero weights.
TEST(SolidAngle, ThresholdAndDegenerateConfigurations) {
  const P far[4] = {{10, 0, 0}, {10, 1, 0}, {10, 0, 1}, {0, 0.2, 0.1}};
  const double omega = at(far[0], far[1], far[2], far[3]).w[0];
  const Weights split = at(far[0], far[1], far[2], far[3], std::nextafter(std::fabs(omega), 1.0));
  const Weights f = at(far[0], far[1], far[2], far[3], std::fabs(omega));
  for (int i = 0; i < 3; i++) EXPECT_EQ(split.w[i], omega / 3.0);
  EXPECT_NE(f.w[1], f.w[2]);
  EXPECT_NEAR(f.sum(), omega, 1e-15);
  const P a = {0, 0, 0}, b = {1, 0, 0}, c = {0, 1, 0}, p = {-1, 0, 0}, q = {3, 0, 0}, s2 = {0.3, 0.7, 0.4};
  const struct {
    P a, b, c, x;
    int ok;
  } cases[] = {
      {a, b, c, {0.25, 0.25, 0}, 0}, {a, b, c, {0.5, 0, 0}, 0}, {a, b, c, c, 0},
      {q, s2, p, {0.5, 0, 0}, 0},  // the in-plane test may miss by rounding; the edge terms must not
      {a, b, c, {2, 2, 0}, 1},                // in the plane, outside
      {a, b, {2, 0, 0}, {0.5, 1, 0.5}, 1},    // collinear vertices
      {a, b, {0.25, 1, 0.5}, {2, 0, 0}, 1},   // on an edge's line beyond its end
  };
  for (const auto &k : cases)
    for (double minangle : {0.0, -1.0}) {
      const Weights r = at(k.a, k.b, k.c, k.x, minangle);
      EXPECT_EQ(r.ok, k.ok) << k.x[0] << " " << k.x[1] << " " << k.x[2];
      for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], k.ok ? 0.0 : -99.0);
    }
}
