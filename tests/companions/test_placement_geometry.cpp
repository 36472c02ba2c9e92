// Placement geometry: closest points on the scalp against a brute-force
// search, the closed-form fit on a known motion, and the 10-20 family layouts
// on a sphere (against the exact positions) and on a deformed, symmetric head.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "placement/closest_point.h"
#include "placement/rigid_fit.h"
#include "placement/system_layout.h"
#include "placement/vec3.h"
#include "tools/headshape.h"
#include "tools/icosphere.h"

namespace {

TEST(PlacementGeometry, ClosestPointsOnASphere) {
  const Mesh m = as_mesh(icosphere(3, 0.09));
  const ScalpLocator locator(m);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> unif(0, 1);
  // Points 3 mm outside a triangle, along its normal, come back to it.
  for (size_t t = 0; t < m.triangles.size(); t += 37) {
    const Vec3 &a = m.vertices[(size_t)m.triangles[t][0]], &b = m.vertices[(size_t)m.triangles[t][1]],
               &c = m.vertices[(size_t)m.triangles[t][2]];
    double u = unif(rng), v = unif(rng);
    if (u + v > 1) u = 1 - u, v = 1 - v;
    const Vec3 on = (1 - u - v) * a + u * b + v * c;
    Vec3 n = unit(cross(b - a, c - a));
    if (dot(n, on) < 0) n = -1.0 * n;
    const SurfacePoint q = locator.closest(on + 0.003 * n);
    ASSERT_EQ(q.triangle, (int)t);
    EXPECT_NEAR(q.u, u, 1e-5);
    EXPECT_NEAR(q.v, v, 1e-5);
    EXPECT_NEAR(q.distance, 0.003, 1e-12);
    const Vec3 back = (1 - q.u - q.v) * a + q.u * b + q.v * c;
    EXPECT_LT(distance(back, on), 1e-5 * 0.09);
  }
  // Anywhere, near or far, inside or out: the grid search finds what
  // trying every triangle finds.
  std::uniform_real_distribution<double> box(-0.5, 0.5);
  for (int i = 0; i < 200; i++) {
    const Vec3 p = i < 100 ? Vec3{box(rng), box(rng), box(rng)} : Vec3{0.2 * box(rng), 0.2 * box(rng), 0.2 * box(rng)};
    double best = INFINITY;
    for (const Tri &t : m.triangles) {
      double u, v;
      const Vec3 &a = m.vertices[(size_t)t[0]], &b = m.vertices[(size_t)t[1]], &c = m.vertices[(size_t)t[2]];
      closest_on_triangle(p, a, b, c, u, v);
      best = std::min(best, distance(p, a + u * (b - a) + v * (c - a)));
    }
    EXPECT_NEAR(locator.closest(p).distance, best, 1e-12) << i;
  }
}

TEST(PlacementGeometry, FitUndoesAKnownMotion) {
  std::mt19937 rng(3);
  std::normal_distribution<double> g(0, 0.05);
  std::vector<Vec3> from;
  for (int i = 0; i < 20; i++) from.push_back({g(rng), g(rng), g(rng)});
  // Rotation of 40 degrees about (1, 2, 2)/3, then scale and shift.
  const double c = std::cos(0.7), s = std::sin(0.7);
  const Vec3 k = {1.0 / 3, 2.0 / 3, 2.0 / 3};
  Similarity truth;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      const double kx[3][3] = {{0, -k[2], k[1]}, {k[2], 0, -k[0]}, {-k[1], k[0], 0}};
      double kk = 0;
      for (int l = 0; l < 3; l++) kk += kx[i][l] * kx[l][j];
      truth.r[i][j] = (i == j) + s * kx[i][j] + (1 - c) * kk;
    }
  truth.t = {0.02, -0.15, 0.3};
  for (const bool scaled : {false, true}) {
    truth.scale = scaled ? 1.07 : 1.0;
    std::vector<Vec3> to;
    for (const Vec3 &p : from) to.push_back(truth.apply(p));
    const Similarity fit = fit_similarity(from, to, scaled);
    for (size_t i = 0; i < from.size(); i++) EXPECT_LT(distance(fit.apply(from[i]), to[i]), 1e-4 * 1e-3);
    EXPECT_NEAR(fit.scale, truth.scale, 1e-9);
  }
  // Three points on a line leave the rotation open.
  EXPECT_THROW(fit_similarity({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}}, false),
               std::invalid_argument);
}

std::map<std::string, Vec3> layout(const Mesh &m, const HeadLandmarks &lm, LayoutSystem s) {
  const ScalpLocator locator(m);
  std::map<std::string, Vec3> out;
  for (const LabelledPoint &p : build_layout(locator, lm, s)) {
    EXPECT_TRUE(out.emplace(p.label, p.p).second) << "twice: " << p.label;
    EXPECT_LT(locator.closest(p.p).distance, 1e-12) << p.label;
  }
  return out;
}

TEST(PlacementGeometry, TenTwentyOnASphere) {
  const double r = 0.09;
  const Mesh m = as_mesh(icosphere(3, r));
  const auto at = layout(m, {{0, r, 0}, {0, -r, 0}, {-r, 0, 0}, {r, 0, 0}}, LayoutSystem::s10_20);
  ASSERT_EQ(at.size(), 21u);
  // 10 % of a half circle is 18 degrees.
  const double c = r * std::cos(M_PI / 10), s = r * std::sin(M_PI / 10);
  const std::pair<const char *, Vec3> expected[] = {
      {"Cz", {0, 0, r}}, {"Fpz", {0, c, s}}, {"Oz", {0, -c, s}}, {"T7", {-c, 0, s}}, {"T8", {c, 0, s}}};
  for (const auto &[label, p] : expected) {
    ASSERT_TRUE(at.count(label)) << label;
    EXPECT_LT(distance(at.at(label), p), 0.001) << label;
  }
}

// The mirror image of a label across the midline: odd numbers to the next
// even one (Fp1 -> Fp2, T9h -> T10h), z stays.
std::string mirrored(const std::string &label) {
  size_t d = label.find_first_of("0123456789");
  if (d == std::string::npos) return label;
  size_t e = label.find_first_not_of("0123456789", d);
  const int n = std::stoi(label.substr(d, e - d));
  return label.substr(0, d) + std::to_string(n % 2 ? n + 1 : n - 1) + (e == std::string::npos ? "" : label.substr(e));
}

TEST(PlacementGeometry, TenFiveOnASymmetricHead) {
  const Mesh m = as_mesh(head_layer(3, HEAD_SCALP));
  const auto at = layout(m, {{0, 0.11, 0}, {0, -0.12, 0}, {-0.08, 0, 0}, {0.08, 0, 0}}, LayoutSystem::s10_5);
  const auto ten = layout(m, {{0, 0.11, 0}, {0, -0.12, 0}, {-0.08, 0, 0}, {0.08, 0, 0}}, LayoutSystem::s10_10);
  EXPECT_EQ(ten.size(), 79u);
  for (const auto &[label, p] : ten) EXPECT_TRUE(at.count(label)) << label << " missing from 10-5";
  int pairs = 0;
  for (const auto &[label, p] : at) {
    const std::string other = mirrored(label);
    ASSERT_TRUE(at.count(other)) << label;
    const Vec3 q = at.at(other);
    EXPECT_LT(distance(p, {-q[0], q[1], q[2]}), 1e-6) << label << " / " << other;
    if (other == label) EXPECT_LT(std::fabs(p[0]), 1e-6) << label;
    pairs += other != label;
  }
  EXPECT_GT(pairs, 200);
  // Front to back along the midline, left to right across the head.
  EXPECT_GT(at.at("Fpz")[1], at.at("Fz")[1]);
  EXPECT_GT(at.at("Fz")[1], at.at("Pz")[1]);
  EXPECT_LT(at.at("C3")[0], at.at("C1")[0]);
  EXPECT_GT(at.at("Cz")[2], at.at("C3")[2]);
}

}  // namespace
