// The geometry under the pictures: plane cuts of closed surfaces, contour
// lines of sampled fields, and round tick values with SI prefixes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "plotting/colour_bar.h"
#include "plotting/contours.h"
#include "plotting/section.h"
#include "tools/icosphere.h"

namespace {

Mesh sphere(int level, double radius, double cz = 0) {
  TriMesh t = icosphere(level, radius, 0, 0, cz);
  Mesh m;
  for (auto &p : t.pnt) m.vertices.push_back({p[0], p[1], p[2]});
  for (auto &d : t.dhk) m.triangles.push_back({d[0], d[1], d[2]});
  return m;
}

TEST(PlotSection, CutsOfASphereAreClosedLoopsOnThePlane) {
  Mesh m = sphere(2, 1.0);
  // Through the middle (the equator runs along mesh edges, every crossing at a
  // vertex), off-centre, through vertices exactly (a vertex on the plane counts
  // as above it, so the loop passes it once), near a pole, and missing.
  double on_vertex = 0;
  for (const Vec3 &v : m.vertices)
    if (v[2] > 0.3 && v[2] < 0.9) on_vertex = v[2];
  ASSERT_GT(on_vertex, 0);
  const struct { int axis; double value; size_t loops; } cases[] = {
      {2, 0.0, 1}, {0, 0.3, 1}, {2, on_vertex, 1}, {1, -0.95, 1}, {2, 1.5, 0}};
  for (const auto &c : cases) {
    auto lines = plane_section(m, c.axis, c.value);
    ASSERT_EQ(lines.size(), c.loops) << c.axis << " " << c.value;
    for (const auto &line : lines) {
      EXPECT_EQ(line.front(), line.back()) << "a loop closes on its first point";
      EXPECT_GT(line.size(), 4u);
      for (const Vec3 &p : line) {
        EXPECT_EQ(p[c.axis], c.value);
        double r = std::hypot(p[0], p[1], p[2]);
        EXPECT_LE(r, 1.0 + 1e-6);
        EXPECT_GT(r, 0.9);  // on the facets, which lie close to the sphere
      }
    }
  }
}

TEST(PlotContours, StraightLevelLinesAndSaddlesThatDoNotCross) {
  // f = x on a 5 x 4 grid: the level 1.5 is the vertical line x = 1.5.
  std::vector<double> ramp;
  for (int j = 0; j < 4; j++)
    for (int i = 0; i < 5; i++) ramp.push_back(i);
  auto segs = contour_segments(ramp, 5, 4, 1.5);
  ASSERT_EQ(segs.size(), 3u);
  for (auto &s : segs) {
    EXPECT_DOUBLE_EQ(s[0], 1.5);
    EXPECT_DOUBLE_EQ(s[2], 1.5);
  }
  // A saddle cell, (0,0)=1 (1,0)=0 / (0,1)=0 (1,1)=1, with a high middle: each
  // of the two pieces wraps a low corner, not a high one.
  auto pieces = contour_segments({1, 0, 0, 1}, 2, 2, 0.4);
  ASSERT_EQ(pieces.size(), 2u);
  for (auto &p : pieces) {
    double mx = (p[0] + p[2]) / 2, my = (p[1] + p[3]) / 2;
    EXPECT_LT(std::min(std::hypot(mx - 1, my), std::hypot(mx, my - 1)), 0.4) << mx << "," << my;
  }
  // A cell with a value outside the drawn area gives nothing.
  EXPECT_TRUE(contour_segments({0, 1, NAN, 1}, 2, 2, 0.5).empty());
}

TEST(PlotTicks, RoundStepsThroughZeroAndPrefixesThatFit) {
  const struct { double lo, hi; int count; std::vector<double> ticks; } cases[] = {
      {-1, 1, 4, {-1, -0.5, 0, 0.5, 1}}, {0, 7, 3, {0, 5}},
      {-0.03, 0.03, 6, {-0.03, -0.02, -0.01, 0, 0.01, 0.02, 0.03}}};
  for (const auto &c : cases) {
    auto t = nice_ticks(c.lo, c.hi, c.count);
    ASSERT_EQ(t.size(), c.ticks.size()) << c.lo << ".." << c.hi;
    for (size_t i = 0; i < t.size(); i++) EXPECT_NEAR(t[i], c.ticks[i], 1e-12);
  }
  EXPECT_TRUE(nice_ticks(1, 1, 5).empty());
  const struct { double magnitude; const char *unit; double factor; const char *scaled; } units[] = {
      {2e-6, "V", 1e6, "µV"}, {0.4, "V", 1e3, "mV"}, {12, "V", 1, "V"},
      {3e-9, "A·m", 1e9, "nA·m"}, {0.4, "a.u.", 1, "a.u."}};
  for (const auto &u : units) {
    ScaledUnit s = scale_unit(u.magnitude, u.unit);
    EXPECT_EQ(s.factor, u.factor) << u.magnitude << " " << u.unit;
    EXPECT_EQ(s.unit, u.scaled);
  }
}

}  // namespace
