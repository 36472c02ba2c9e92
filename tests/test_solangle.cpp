// Solid angle of a triangle and its linear vertex weights.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "geometry/solangle.h"
#include "tools/icosphere.h"

namespace {

struct Vec {
  double v[3];
};

Vec sub(const double a[3], const double b[3]) { return {{a[0] - b[0], a[1] - b[1], a[2] - b[2]}}; }

struct Weights {
  int ok;
  double w[3];
};

Weights weights_at(const double a[3], const double b[3], const double c[3], const double x[3], double minangle) {
  Vec y1 = sub(a, x), y2 = sub(b, x), y3 = sub(c, x);
  Weights r{0, {-99.0, -99.0, -99.0}};
  r.ok = solangle(y1.v, y2.v, y3.v, &r.w[0], &r.w[1], &r.w[2], minangle);
  return r;
}

double angle_at(const double a[3], const double b[3], const double c[3], const double x[3], int *onplane) {
  Vec y1 = sub(a, x), y2 = sub(b, x), y3 = sub(c, x);
  return rhoek(y1.v, y2.v, y3.v, onplane);
}

// Reference: the solid-angle density times the three linear shape functions,
// integrated by the centroid rule over an m x m subdivision of the triangle.
// The density is positive where the triangle's right-hand normal faces x.
void quadrature(const double a[3], const double b[3], const double c[3], const double x[3], int m, double out[3]) {
  double e1[3], e2[3], nrm[3];
  for (int k = 0; k < 3; k++) {
    e1[k] = b[k] - a[k];
    e2[k] = c[k] - a[k];
  }
  nrm[0] = e1[1] * e2[2] - e1[2] * e2[1];
  nrm[1] = e1[2] * e2[0] - e1[0] * e2[2];
  nrm[2] = e1[0] * e2[1] - e1[1] * e2[0];
  // |nrm| is twice the area; each of the m*m sub-triangles has area |nrm|/(2 m^2),
  // and the unit normal times that area is nrm/(2 m^2).
  const double scale = 1.0 / (2.0 * m * m);
  out[0] = out[1] = out[2] = 0.0;
  auto add = [&](double s, double t) {
    double y[3];
    for (int k = 0; k < 3; k++) y[k] = a[k] + s * e1[k] + t * e2[k] - x[k];
    double r = std::sqrt(y[0] * y[0] + y[1] * y[1] + y[2] * y[2]);
    double dens = -(nrm[0] * y[0] + nrm[1] * y[1] + nrm[2] * y[2]) * scale / (r * r * r);
    out[0] += dens * (1.0 - s - t);
    out[1] += dens * s;
    out[2] += dens * t;
  };
  for (int i = 0; i < m; i++)
    for (int j = 0; i + j < m; j++) {
      add((i + 1.0 / 3.0) / m, (j + 1.0 / 3.0) / m);
      if (i + j <= m - 2) add((i + 2.0 / 3.0) / m, (j + 2.0 / 3.0) / m);
    }
}

const double FOUR_PI = 4.0 * M_PI;

}  // namespace

TEST(SolidAngle, WorkedTriangleSeenFromTheOrigin) {
  const double a[3] = {0, 0, 1}, b[3] = {0, 1, 1}, c[3] = {1, 0, 1}, o[3] = {0, 0, 0};
  int onplane = -1;
  double omega = angle_at(a, b, c, o, &onplane);
  EXPECT_EQ(onplane, 0);
  // T = -1, D = 3 + 2 sqrt 2.
  EXPECT_NEAR(omega, 2.0 * std::atan(1.0 / (3.0 + 2.0 * std::sqrt(2.0))), 1e-15);
  EXPECT_NEAR(omega, 0.339837, 5e-7);

  Weights r = weights_at(a, b, c, o, 0.1);
  ASSERT_EQ(r.ok, 1);
  EXPECT_NEAR(r.w[0], 0.130762, 5e-7);
  EXPECT_NEAR(r.w[1], 0.104537, 5e-7);
  EXPECT_NEAR(r.w[2], 0.104537, 5e-7);
  EXPECT_NEAR(r.w[0] + r.w[1] + r.w[2], omega, 1e-14);
}

TEST(SolidAngle, ClosedSurfaceTotalsFourPiInsideAndZeroOutside) {
  TriMesh mesh = icosphere(2, 1.5, 0.2, -0.1, 0.3);
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  auto total = [&](const double x[3], double *wsum) {
    double sum = 0.0;
    *wsum = 0.0;
    for (auto &t : mesh.dhk) {
      double p[3][3];
      for (int k = 0; k < 3; k++)
        for (int c = 0; c < 3; c++) p[k][c] = mesh.pnt[t[k]][c];
      int onplane = 0;
      sum += angle_at(p[0], p[1], p[2], x, &onplane);
      EXPECT_EQ(onplane, 0);
      Weights r = weights_at(p[0], p[1], p[2], x, 0.1);
      EXPECT_EQ(r.ok, 1);
      *wsum += r.w[0] + r.w[1] + r.w[2];
    }
    return sum;
  };
  for (int n = 0; n < 6; n++) {
    // Inside: anywhere in the ball of radius 1.2 about the centre, including
    // points close to the surface (whose radius is at least 1.5 cos 10 deg).
    double dir[3] = {u(rng), u(rng), u(rng)};
    double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    double r = 1.2 * (n + 1) / 6.0;
    double x[3] = {0.2 + r * dir[0] / len, -0.1 + r * dir[1] / len, 0.3 + r * dir[2] / len};
    double wsum;
    EXPECT_NEAR(total(x, &wsum), FOUR_PI, 1e-10) << "inside point " << n;
    EXPECT_NEAR(wsum, FOUR_PI, 1e-10) << "inside point " << n;

    // Outside: beyond radius 1.6, near and far.
    double ro = 1.6 + 3.0 * n;
    double y[3] = {0.2 + ro * dir[1] / len, -0.1 + ro * dir[2] / len, 0.3 + ro * dir[0] / len};
    EXPECT_NEAR(total(y, &wsum), 0.0, 1e-10) << "outside point " << n;
    EXPECT_NEAR(wsum, 0.0, 1e-10) << "outside point " << n;
  }
}

TEST(SolidAngle, WeightsSumToTheAngleAndFlipWithTheOrientation) {
  std::mt19937 rng(777);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int full = 0;
  for (int n = 0; n < 2000; n++) {
    double a[3], b[3], c[3], x[3];
    for (int k = 0; k < 3; k++) {
      a[k] = u(rng);
      b[k] = u(rng);
      c[k] = u(rng);
      x[k] = 0.5 * u(rng);
    }
    int onplane = 1;
    double omega = angle_at(a, b, c, x, &onplane);
    ASSERT_EQ(onplane, 0);
    for (double minangle : {0.0, 0.1}) {
      Weights r = weights_at(a, b, c, x, minangle);
      ASSERT_EQ(r.ok, 1);
      double scale = 1.0 + std::fabs(r.w[0]) + std::fabs(r.w[1]) + std::fabs(r.w[2]);
      EXPECT_NEAR(r.w[0] + r.w[1] + r.w[2], omega, 1e-12 * scale);
      if (std::fabs(omega) >= minangle) full++;

      // Reversed vertex order: the angle and every weight change sign.
      Weights s = weights_at(a, c, b, x, minangle);
      ASSERT_EQ(s.ok, 1);
      EXPECT_NEAR(s.w[0], -r.w[0], 1e-12 * scale);
      EXPECT_NEAR(s.w[1], -r.w[2], 1e-12 * scale);
      EXPECT_NEAR(s.w[2], -r.w[1], 1e-12 * scale);
      EXPECT_NEAR(angle_at(a, c, b, x, &onplane), -omega, 1e-13);
    }
  }
  EXPECT_GT(full, 2000);  // the full formula was exercised, not only the split
}

TEST(SolidAngle, WeightsMatchQuadratureOfTheLinearShapeFunctions) {
  struct Case {
    double a[3], b[3], c[3], x[3];
  };
  const Case cases[] = {
      {{0, 0, 1}, {0, 1, 1}, {1, 0, 1}, {0, 0, 0}},
      {{0.3, -0.2, 0.5}, {1.1, 0.1, 0.7}, {0.2, 0.9, 0.4}, {0.4, 0.3, 0.0}},         // above the interior
      {{-0.5, -0.4, 0.3}, {0.8, -0.3, 0.4}, {0.1, 0.7, 0.2}, {1.2, 0.6, -0.1}},     // beside an edge, below
      {{0.0, 0.0, 0.0}, {2.0, 0.1, 0.0}, {0.2, 1.5, 0.3}, {0.1, 0.1, 0.45}},        // near a vertex
      {{1.0, 2.0, 0.0}, {0.0, 0.0, 0.5}, {-1.0, 1.5, 0.2}, {-0.2, 1.0, -0.6}},      // seen from behind
  };
  for (const Case &k : cases) {
    double ref[3];
    quadrature(k.a, k.b, k.c, k.x, 600, ref);
    Weights r = weights_at(k.a, k.b, k.c, k.x, 0.0);
    ASSERT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) EXPECT_NEAR(r.w[i], ref[i], 2e-5) << "weight " << i;
    // Near triangles take the full formula also with the program's threshold.
    int onplane;
    if (std::fabs(angle_at(k.a, k.b, k.c, k.x, &onplane)) >= 0.1) {
      Weights s = weights_at(k.a, k.b, k.c, k.x, 0.1);
      for (int i = 0; i < 3; i++) EXPECT_EQ(s.w[i], r.w[i]);
    }
  }
}

TEST(SolidAngle, FarTrianglesAreSplitEquallyBelowTheThresholdOnly) {
  const double a[3] = {10, 0, 0}, b[3] = {10, 1, 0}, c[3] = {10, 0, 1}, o[3] = {0, 0.2, 0.1};
  int onplane;
  double omega = angle_at(a, b, c, o, &onplane);
  ASSERT_LT(std::fabs(omega), 0.1);
  Weights r = weights_at(a, b, c, o, 0.1);
  ASSERT_EQ(r.ok, 1);
  for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], omega / 3.0);

  // A threshold exactly equal to |omega| takes the full formula, which
  // gives unequal weights here; anything above it splits equally.
  Weights f = weights_at(a, b, c, o, std::fabs(omega));
  ASSERT_EQ(f.ok, 1);
  EXPECT_NE(f.w[1], f.w[2]);
  EXPECT_NEAR(f.w[0] + f.w[1] + f.w[2], omega, 1e-15);
  Weights e = weights_at(a, b, c, o, std::nextafter(std::fabs(omega), 1.0));
  for (int i = 0; i < 3; i++) EXPECT_EQ(e.w[i], omega / 3.0);
}

TEST(SolidAngle, PointOnTheTriangleEdgeOrVertexIsAFault) {
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0};
  const double inside[3] = {0.25, 0.25, 0}, edge1[3] = {0.5, 0, 0}, edge3[3] = {0, 0.75, 0};
  for (const double *x : {inside, edge1, edge3, a, b, c}) {
    Weights r = weights_at(a, b, c, x, 0.1);
    EXPECT_EQ(r.ok, 0);
    EXPECT_EQ(r.w[0], -99.0);  // left untouched
    int onplane = 0;
    EXPECT_EQ(angle_at(a, b, c, x, &onplane), 0.0);
    EXPECT_EQ(onplane, 1);
  }
  // A tilted triangle with a point on one of its edges, or on a vertex.
  const double p[3] = {-1, 0, 0}, q[3] = {3, 0, 0}, s[3] = {0.25, 0.75, 0.5};
  const double on_pq[3] = {0.5, 0, 0};
  for (const double *x : {on_pq, p, q, s}) {
    EXPECT_EQ(weights_at(p, q, s, x, 0.1).ok, 0);
    EXPECT_EQ(weights_at(p, q, s, x, 0.0).ok, 0);
  }
  // With a third vertex that is not exactly representable the in-plane test
  // may miss by rounding; the edge terms must still catch the point on the
  // edge once the full formula is asked for.
  const double s2[3] = {0.3, 0.7, 0.4};
  EXPECT_EQ(weights_at(p, q, s2, on_pq, 0.0).ok, 0);
  EXPECT_EQ(weights_at(q, s2, p, on_pq, 0.0).ok, 0);
  EXPECT_EQ(weights_at(s2, p, q, on_pq, 0.0).ok, 0);
}

TEST(SolidAngle, PointInThePlaneOutsideTheTriangleSeesNothing) {
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0};
  const double x[3] = {2, 2, 0};
  int onplane = 1;
  EXPECT_EQ(angle_at(a, b, c, x, &onplane), 0.0);
  EXPECT_EQ(onplane, 0);
  Weights r = weights_at(a, b, c, x, 0.1);
  ASSERT_EQ(r.ok, 1);
  for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], 0.0);
}

TEST(SolidAngle, PointOnAnEdgeLineBeyondItsEndHasFiniteWeights) {
  // x lies on the line through a and b, past b: both ends of that edge give
  // a zero argument and the limit is taken instead.
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0.25, 1, 0.5};
  const double x[3] = {2, 0, 0};
  for (double minangle : {0.0, -1.0, 0.1}) {
    Weights r = weights_at(a, b, c, x, minangle);
    ASSERT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) {
      EXPECT_TRUE(std::isfinite(r.w[i]));
      EXPECT_EQ(r.w[i], 0.0);  // in the plane: no angle to share
    }
  }
  // Approaching that line from off the plane the weights go to zero too.
  double prev = 1.0;
  for (double h : {1e-1, 1e-3, 1e-6}) {
    const double xh[3] = {2, 0, h};
    Weights r = weights_at(a, b, c, xh, 0.0);
    ASSERT_EQ(r.ok, 1);
    double mag = std::fabs(r.w[0]) + std::fabs(r.w[1]) + std::fabs(r.w[2]);
    EXPECT_LT(mag, prev);
    prev = mag;
  }
  EXPECT_LT(prev, 1e-5);
}

TEST(SolidAngle, CollinearTriangleGivesZeroWeights) {
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {2, 0, 0};
  const double x[3] = {0.5, 1, 0.5};
  for (double minangle : {0.1, 0.0, -1.0}) {
    Weights r = weights_at(a, b, c, x, minangle);
    EXPECT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], 0.0);
  }
  // Two coincident vertices are just as degenerate.
  Weights r = weights_at(a, a, c, x, -1.0);
  EXPECT_EQ(r.ok, 1);
  for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], 0.0);
}
