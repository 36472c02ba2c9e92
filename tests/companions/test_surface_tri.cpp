// brelix triangle files, head folders and the generated test head.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <set>

#include "cli/failure.h"
#include "surface/brelix_tri.h"
#include "surface/head_dir.h"
#include "tests/support/files.h"
#include "tools/headshape.h"

namespace {

void expect_same(const Mesh &a, const Mesh &b) {
  ASSERT_EQ(a.vertices.size(), b.vertices.size());
  ASSERT_EQ(a.triangles, b.triangles);
  for (size_t i = 0; i < a.vertices.size(); i++) ASSERT_EQ(a.vertices[i], b.vertices[i]) << "vertex " << i;
}

// Binary brelix file, native order, independent of the reader.
std::string binary_tri(const std::vector<float> &xyz, const std::vector<int32_t> &idx) {
  std::string s;
  auto put = [&](const void *p, size_t n) { s.append((const char *)p, n); };
  int32_t n = (int32_t)(xyz.size() / 3), m = (int32_t)(idx.size() / 3);
  put(&n, 4);
  put(xyz.data(), 4 * xyz.size());
  put(&m, 4);
  put(idx.data(), 4 * idx.size());
  return s;
}

template <class F>
std::string refusal(F &&read) {
  try {
    read();
  } catch (const InputError &e) {
    return e.what();
  }
  return "(accepted)";
}

const float TET[] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
const int32_t TET_TRI[] = {0, 1, 2, 0, 3, 1, 0, 2, 3, 1, 3, 2};

TEST(BrelixTri, WrittenTextReadsBackExactlyAndMatchesBinaryAndShortForms) {
  TempDir dir;
  Mesh head = head_layer_mesh(2, HEAD_SKULL);
  write_brelix_tri_file(dir.file("a.tri"), head);
  expect_same(read_brelix_tri(dir.file("a.tri")), head);

  Mesh tet;
  for (int i = 0; i < 4; i++) tet.vertices.push_back({TET[3 * i], TET[3 * i + 1], TET[3 * i + 2]});
  for (int t = 0; t < 4; t++) tet.triangles.push_back({TET_TRI[3 * t], TET_TRI[3 * t + 1], TET_TRI[3 * t + 2]});
  write_file(dir.file("b.tri"), binary_tri({TET, TET + 12}, {TET_TRI, TET_TRI + 12}));
  expect_same(read_brelix_tri(dir.file("b.tri")), tet);
  // Without running numbers, CRLF line ends, a vertex line with a number
  // and more than three coordinates-worth of fields.
  write_file(dir.file("c.tri"), "4\r\n0 0 0\r\n2 1 0 0 9\r\n0 1 0\r\n4 0 0 1\r\n4\r\n1 2 3\r\n1 4 2\r\n1 3 4\r\n4 2 4 3\r\n");
  expect_same(read_brelix_tri(dir.file("c.tri")), tet);
  // A text file that ends after its vertices holds no triangles.
  write_file(dir.file("d.tri"), "1\n0 0 0\n");
  EXPECT_EQ(read_brelix_tri(dir.file("d.tri")).triangles.size(), 0u);
}

TEST(BrelixTri, BadFilesNameFilePlaceAndFault) {
  TempDir dir;
  const std::string bin_ok = binary_tri({TET, TET + 12}, {TET_TRI, TET_TRI + 12});
  auto with = [&](size_t at, auto v) {
    std::string s = bin_ok;
    memcpy(&s[at], &v, 4);
    return s;
  };
  struct Case {
    const char *name;
    std::string contents;
    const char *message;
  } cases[] = {
      {"short.tri", "3\n1 0.5 0.5 0.5\n2 1.5 0.5 0.5\n", "short.tri: line 4: file ends after 2 of 3 vertices"},
      {"few.tri", "2\n1 0 0 0\n2 1 \n", "few.tri: line 3: vertex 2 needs three coordinates"},
      {"count.tri", "99999\n1 0 0 0\n", "count.tri: line 1: vertex count 99999 is more than the rest"},
      {"nan.tri", "2\n0 0 0\n0 nan 0\n0\n", "nan.tri: line 3: vertex 2 has a coordinate that is not a finite"},
      {"index.tri", "3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2 4\n", "index.tri: line 6: face 1 refers to vertex 4, outside the 3 vertices numbered from 1"},
      {"trishort.tri", "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 1 2 3     \n", "trishort.tri: line 7: file ends after 1 of 2 triangles"},
      {"b_short.tri", bin_ok.substr(0, 60), "b_short.tri: byte 52: triangle count 4 is more than the rest of the file can hold"},
      {"b_huge.tri", with(0, int32_t(1 << 30)), "b_huge.tri: byte 0: vertex count 1073741824 is more than"},
      {"b_nan.tri", with(4 + 7 * 4, float(NAN)), "b_nan.tri: byte 28: vertex 3 has"},
      {"b_index.tri", with(4 + 48 + 4 + 5 * 4, int32_t(4)), "b_index.tri: byte 68: face 2 refers to vertex 4, outside the 4 vertices numbered from 0"},
  };
  for (const Case &c : cases) {
    write_file(dir.file(c.name), c.contents);
    std::string msg = refusal([&] { read_brelix_tri(dir.file(c.name)); });
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.name << ": " << msg;
  }
}

TEST(HeadDir, ReadsGeneratedHeadAndResolvesBareNamesBesideTheAnswers) {
  TempDir dir;
  ASSERT_TRUE(write_head(dir.path(), 2, true));
  std::vector<HeadSurface> head = read_head_dir(dir.path());
  ASSERT_EQ(head.size(), 3u);
  for (int k = 0; k < 3; k++) {
    EXPECT_EQ(head[k].file, dir.file(std::string(head_layer_name[k]) + ".tri"));
    EXPECT_EQ(head[k].sigma, head_layer_sigma[k]);
    EXPECT_EQ(head[k].isolated, k == HEAD_BRAIN);
    expect_same(head[k].mesh, head_layer_mesh(2, (HeadLayer)k));
  }
  // Names without a folder are found beside geometry.ans; an empty
  // conductivity answer is brelix's default 1.
  write_file(dir.file("other.ans"), "brain.tri\n\n\nrest of the dialogue\n");
  head = read_head_dir(dir.file("other.ans"));
  ASSERT_EQ(head.size(), 1u);
  EXPECT_EQ(head[0].sigma, 1.0);
  expect_same(read_scalp(dir.path()), head_layer_mesh(2, HEAD_SCALP));

  struct Case {
    const char *answers, *message;
  } bad[] = {
      {"nothere.tri\n0.33\n\n", "bad.ans: line 1: surface file nothere.tri not found"},
      {"scalp.tri\nabc\n\n", "bad.ans: line 2: \"abc\" is not a conductivity"},
      {"!scalp.tri\n1\n!brain.tri\n1\n\n", "bad.ans: line 3: a second surface marked \"!\""},
      {"scalp.tri\n1\n", "bad.ans: the list of surfaces does not end with an empty line"},
  };
  for (const Case &c : bad) {
    write_file(dir.file("bad.ans"), c.answers);
    std::string msg = refusal([&] { read_head_dir(dir.file("bad.ans")); });
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.answers << " -> " << msg;
  }
}

// Solid angle of a triangle seen from p, positive when its right-hand
// normal points away from p.
double solid_angle(const Vec3 &p, const Vec3 &a, const Vec3 &b, const Vec3 &c) {
  double r[3][3];
  for (int k = 0; k < 3; k++) r[0][k] = a[k] - p[k], r[1][k] = b[k] - p[k], r[2][k] = c[k] - p[k];
  auto dot = [](const double *u, const double *v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; };
  double l[3] = {std::sqrt(dot(r[0], r[0])), std::sqrt(dot(r[1], r[1])), std::sqrt(dot(r[2], r[2]))};
  double det = r[0][0] * (r[1][1] * r[2][2] - r[1][2] * r[2][1]) - r[0][1] * (r[1][0] * r[2][2] - r[1][2] * r[2][0]) +
               r[0][2] * (r[1][0] * r[2][1] - r[1][1] * r[2][0]);
  double den = l[0] * l[1] * l[2] + dot(r[0], r[1]) * l[2] + dot(r[0], r[2]) * l[1] + dot(r[1], r[2]) * l[0];
  return 2 * std::atan2(det, den);
}

TEST(HeadShape, NestedInwardOrientedMirrorSymmetricAndNotASphere) {
  Mesh layer[3];
  for (int k = 0; k < 3; k++) layer[k] = head_layer_mesh(3, (HeadLayer)k);
  for (int k = 0; k < 3; k++) {
    const Mesh &m = layer[k];
    EXPECT_EQ(m.vertices.size(), 642u);
    std::set<Vec3> all(m.vertices.begin(), m.vertices.end());
    for (const Vec3 &p : m.vertices) ASSERT_TRUE(all.count({-p[0], p[1], p[2]})) << "layer " << k;
    // Every vertex of the next surface in lies inside this one (total solid
    // angle -4pi: normals inwards) and at least 5 mm from its vertices.
    if (k == 2) continue;
    for (const Vec3 &p : layer[k + 1].vertices) {
      double omega = 0, gap = 1;
      for (const Tri &t : m.triangles) omega += solid_angle(p, m.vertices[t[0]], m.vertices[t[1]], m.vertices[t[2]]);
      for (const Vec3 &q : m.vertices) gap = std::min(gap, std::hypot(p[0] - q[0], p[1] - q[1], p[2] - q[2]));
      ASSERT_NEAR(omega, -4 * M_PI, 1e-6);
      ASSERT_GT(gap, 0.005);
    }
  }
  // Head proportions: wider front-back than left-right, flat base.
  double lo[3] = {1, 1, 1}, hi[3] = {-1, -1, -1};
  for (const Vec3 &p : layer[0].vertices)
    for (int a = 0; a < 3; a++) lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
  EXPECT_NEAR(hi[0] - lo[0], 0.15, 0.002);
  EXPECT_NEAR(hi[1] - lo[1], 0.19, 0.002);
  EXPECT_NEAR(hi[2], 0.085, 0.002);
  EXPECT_NEAR(lo[2], -0.055, 0.002);
}

}  // namespace
