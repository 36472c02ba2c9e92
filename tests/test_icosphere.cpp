// The sphere-mesh tool: closed, consistently oriented meshes with inward
// normals, as the boundary-element code requires.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

TEST(Icosphere, VertexCountsAndLevels) {
  const int counts[] = {12, 42, 162, 642, 2562, 10242};
  for (int level = 0; level < 6; level++) {
    EXPECT_EQ(icosphere_level(counts[level]), level);
    if (level <= 4) {
      TriMesh m = icosphere(level, 1.0);
      EXPECT_EQ((int)m.pnt.size(), counts[level]);
      EXPECT_EQ((int)m.dhk.size(), 2 * counts[level] - 4);  // Euler: V - E + F = 2
    }
  }
  EXPECT_EQ(icosphere_level(100), -1);
  EXPECT_EQ(icosphere_level(0), -1);
}

TEST(Icosphere, ClosedInwardAndOnTheSphere) {
  const double c[3] = {0.5, -1, 2};
  TriMesh m = icosphere(3, 2.5, c[0], c[1], c[2]);
  // Every directed edge appears once and its reverse once: closed and
  // consistently oriented.
  std::map<std::pair<int, int>, int> edges;
  for (auto &t : m.dhk)
    for (int k = 0; k < 3; k++) edges[{t[k], t[(k + 1) % 3]}]++;
  for (auto &[e, n] : edges) {
    EXPECT_EQ(n, 1);
    EXPECT_EQ(edges.count({e.second, e.first}), 1u);
  }
  for (auto &p : m.pnt) {
    double r = std::hypot(p[0] - c[0], p[1] - c[1], p[2] - c[2]);
    EXPECT_NEAR(r, 2.5, 1e-5);
  }
  for (auto &t : m.dhk) {
    const auto &a = m.pnt[t[0]], &b = m.pnt[t[1]], &d = m.pnt[t[2]];
    double e1[3], e2[3], mid[3];
    for (int k = 0; k < 3; k++) {
      e1[k] = b[k] - a[k];
      e2[k] = d[k] - a[k];
      mid[k] = (a[k] + b[k] + d[k]) / 3 - c[k];
    }
    double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    EXPECT_LT(n[0] * mid[0] + n[1] * mid[1] + n[2] * mid[2], 0);  // right-hand normal points to the centre
  }
}

TEST(Icosphere, ShellsShareTheirRays) {
  TriMesh a = icosphere(2, 1.0), b = icosphere(2, 0.88);
  ASSERT_EQ(a.pnt.size(), b.pnt.size());
  for (size_t i = 0; i < a.pnt.size(); i++)
    for (int k = 0; k < 3; k++) EXPECT_NEAR(b.pnt[i][k], 0.88 * a.pnt[i][k], 1e-6);
  EXPECT_EQ(a.dhk, b.dhk);
}

TEST(SphereMeshTool, WritesFilesAndRefusesBadArguments) {
  TempDir dir;
  ProcResult ok = run_process(SPHEREMESH_EXE, {"-c", "1", "2", "3", "42", "0.5", "s.tri"}, "", dir.path());
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.out, "s.tri: 42 vertices, 80 triangles, radius 0.5\n");
  std::string text = read_file(dir.file("s.tri"));
  EXPECT_EQ(text.substr(0, 3), "42\n");
  ProcResult bin = run_process(SPHEREMESH_EXE, {"-b", "12", "1", "b.tri"}, "", dir.path());
  EXPECT_EQ(bin.status, 0);
  EXPECT_EQ(read_file(dir.file("b.tri")).size(), 4u + 12 * 12 + 4 + 12 * 20);
  for (auto args : std::vector<std::vector<std::string>>{
           {"100", "1", "x.tri"}, {"42", "-1", "x.tri"}, {"42", "1"}, {"-q", "42", "1", "x.tri"}}) {
    ProcResult bad = run_process(SPHEREMESH_EXE, args, "", dir.path());
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err, "");
  }
  ProcResult nowhere = run_process(SPHEREMESH_EXE, {"42", "1", "no/such/dir/x.tri"}, "", dir.path());
  EXPECT_EQ(nowhere.status, 1);
  EXPECT_EQ(nowhere.err, "spheremesh: cannot write no/such/dir/x.tri\n");
}
