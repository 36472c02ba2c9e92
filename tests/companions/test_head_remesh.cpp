// Remeshing keeps a surface's shape and gives well-shaped triangles; gap
// fixing and hole filling leave surfaces that pass every check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "headmodel/cgal_checks.h"
#include "headmodel/mesh_quality.h"
#include "headmodel/surface_pairs.h"
#include "headmodel/surface_prep.h"
#include "tools/headshape.h"

namespace {

const SurfaceName name{"test.tri", {}};

TEST(HeadRemesh, FineSurfaceToTargetKeepsVolumeAndAngles) {
  const struct {
    int level;
    RemeshTarget target;
    long low, high;  // accepted vertex counts
  } cases[] = {
      {5, {642, 0}, 610, 675},      // 10242 vertices down to 642: decimation, then remeshing
      {3, {0, 0.006}, 1500, 4000},  // 642 vertices refined to 6 mm edges
  };
  for (const auto &c : cases) {
    Mesh m = head_layer_mesh(c.level, HEAD_SCALP), again = m;
    const MeshQuality before = measure_mesh(m);
    remesh_surface(m, c.target);
    remesh_surface(again, c.target);
    EXPECT_TRUE(m.vertices == again.vertices && m.triangles == again.triangles) << "same input, same result";
    const MeshQuality after = measure_mesh(m);
    EXPECT_GE((long)m.vertices.size(), c.low) << c.level;
    EXPECT_LE((long)m.vertices.size(), c.high) << c.level;
    EXPECT_NEAR(after.volume / before.volume, 1.0, 0.01) << c.level;
    EXPECT_GT(after.min_angle_deg, 20.0) << c.level;
    EXPECT_LT(signed_volume(m), 0) << "orientation kept, level " << c.level;
    // Still one closed, clean surface.
    EXPECT_NO_THROW(prepare_surface(m, name, RepairChoices{true, false, false})) << c.level;
  }
}

TEST(HeadRemesh, FixGapMovesInnerSurfaceClearOfOuter) {
  const Mesh outer = head_layer_mesh(3, HEAD_SCALP);
  for (double push : {0.0065, 0.012}) {  // 0.5 mm close; crossing by 5 mm
    Mesh inner = head_layer_mesh(3, HEAD_SKULL);
    for (int v : {100, 200, 300}) {
      Vec3 &p = inner.vertices[v];
      const double r = std::hypot(p[0], p[1], p[2]);
      for (double &x : p) x *= 1 + push / r;
    }
    const GapFix fix = fix_gap(outer, inner, 0.002);
    EXPECT_GT(fix.vertices_moved, 0) << push;
    EXPECT_GE(smallest_gap(outer, inner).distance, 0.002) << push;
    EXPECT_FALSE(find_surface_contact(outer, inner)) << push;
    EXPECT_FALSE(find_self_intersection(inner)) << push;
    // Only the neighbourhood of the three vertices moves.
    EXPECT_LT(fix.vertices_moved, 150) << push;
  }
}

TEST(HeadRemesh, FilledHoleClosesTheSurfaceInShape) {
  Mesh m = head_layer_mesh(3, HEAD_SKULL);
  const double volume = measure_mesh(m).volume;
  std::erase_if(m.triangles, [](const Tri &t) { return std::ranges::count(t, 100) + std::ranges::count(t, 200) > 0; });
  const SurfaceLog log = prepare_surface(m, name, RepairChoices{true, true, true});
  EXPECT_EQ(log.holes.holes, 2);
  EXPECT_TRUE(log.holes.all_closed);
  EXPECT_TRUE(boundary_loops(m).empty());
  EXPECT_NEAR(measure_mesh(m).volume / volume, 1.0, 0.01);
}

// A flat triangle in a closed surface (an edge split on one side only, the
// gap closed by a triangle with its corners on one line) is removed.
TEST(HeadRemesh, FlatTriangleRemoved) {
  Mesh m = head_layer_mesh(3, HEAD_SKULL);
  const double volume = measure_mesh(m).volume;
  const Tri t = m.triangles[0];
  const int a = t[0], b = t[1], c = t[2];
  const Vec3 &pa = m.vertices[a], &pb = m.vertices[b];
  const int mid = (int)m.vertices.size();
  m.vertices.push_back({(pa[0] + pb[0]) / 2, (pa[1] + pb[1]) / 2, (pa[2] + pb[2]) / 2});
  m.triangles[0] = {a, mid, c};
  m.triangles.push_back({mid, b, c});
  m.triangles.push_back({mid, a, b});
  const SurfaceLog log = prepare_surface(m, name, RepairChoices{});
  EXPECT_GE(log.degenerate_removed, 1);
  EXPECT_TRUE(degenerate_triangles(m).empty());
  EXPECT_TRUE(boundary_loops(m).empty());
  EXPECT_NEAR(measure_mesh(m).volume / volume, 1.0, 1e-6);
}

}  // namespace
