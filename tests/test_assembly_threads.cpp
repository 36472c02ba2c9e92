// The threaded system-matrix assembly against the plain sequential code: the
// same matrix and tables bit for bit, the same output, and the same first
// fault (in row order) with the same output before it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "numeric/double_simd.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"
#include "tests/support/files.h"
#include "tests/support/h1_model.h"
#include "tools/headshape.h"
#include "tools/icosphere.h"

namespace {

// The plain code for threads < 0, else the threaded code on that many.
void use_threads(int threads) {
  set_assembly_reference(threads < 0);
  set_assembly_threads(std::max(threads, 1));
}

// Everything b_matrix writes, as raw bits after its output text, starting
// from tables filled with nonsense.
std::string assemble(int threads) {
  b = matrix(1, totpnt, 1, totpnt);
  for (int r = 1; r <= totpnt; r++) std::fill(&b[r][1], &b[r][1] + totpnt, -7.0f);
  memset(geocon, 0xff, sizeof geocon);
  for (int i = 0; i < ngeo; i++) geo[i].sigma_out = -1.0f;
  iso_ngeo = iso_totpnt = 0;
  iso_b = nullptr;
  use_threads(threads);
  std::string s = h1::stdout_of(b_matrix);
  use_threads(0);
  auto append = [&](const void *p, size_t bytes) { s.append(static_cast<const char *>(p), bytes); };
  for (int r = 1; r <= totpnt; r++) append(&b[r][1], 4 * totpnt);
  append(deflat, sizeof deflat), append(iso_deflat, sizeof iso_deflat), append(geocon, sizeof geocon);
  for (int i = 0; i < ngeo; i++) append(&geo[i].sigma_out, 4);
  append(iso_index, sizeof *iso_index * iso_ngeo);
  for (int r = 1; r <= iso_totpnt; r++) append(&iso_b[r][1], 4 * iso_totpnt);
  if (iso_b) free_matrix(iso_b, 1, iso_totpnt, 1, iso_totpnt);
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = iso_b = nullptr;
  return s;
}

}  // namespace

// The plain code (solangle), then the threaded code (vector kernels) at
// every instruction-set level on 1, 2 and 3 threads: on spheres with their
// vertices moved radially at random, listed out of order (blocks of every
// shape), with an isolated-source interface; with vertices that coincide
// with another interface's (rows walked again); and on the deformed head.
TEST(AssemblyThreads, IdenticalOnEveryThreadCountAndLevel) {
  std::mt19937 gen(1);
  auto rough = [&](int level, double radius, double amount) {
    TriMesh m = icosphere(level, radius);
    std::uniform_real_distribution<double> u(1.0 - amount, 1.0 + amount);
    for (auto &p : m.pnt)
      for (float f = (float)u(gen); float &c : p) c *= f;
    return m;
  };
  TriMesh outer = icosphere(2, 1.0), inner = icosphere(2, 0.5);
  for (int k = 0; k < 3; k++) inner.pnt[k] = outer.pnt[k];
  const std::vector<h1::Surface> models[] = {
      {{"brain.tri", icosphere(2, 0.88)}, {"scalp.tri", rough(3, 1.0, 0.02), 0.3f}, {"skull.tri", rough(2, 0.92, 0.01), 0.0125f}},
      {{"outer.tri", outer}, {"inner.tri", inner}},
      {{"scalp.tri", head_layer(2, HEAD_SCALP), 0.33f}, {"skull.tri", head_layer(2, HEAD_SKULL), 0.0042f},
       {"brain.tri", head_layer(2, HEAD_BRAIN), 0.33f}},
  };
  for (int m = 0; m < 3; m++) {
    h1::load_model(models[m]);
    iso_sur = m == 0 ? 0 : -1;
    const std::string ref = assemble(-1);
    ASSERT_GT(ref.size(), 4u * totpnt * totpnt);
    for (int level = 0; level <= double_simd_best(); level++) {
      double_simd_set_level(level);
      for (int threads : {1, 2, 3})
        EXPECT_TRUE(assemble(threads) == ref) << "model " << m << ", level " << level << ", threads " << threads;
    }
    double_simd_set_level(-1);
  }
}

// Every fault of a model, with its message, from the plain code; the same
// output and message (the first fault in row order) from the threaded code.
TEST(AssemblyThreadsDeath, EveryFaultOnceAndTheSameOnEveryThreadCount) {
  const TriMesh m = icosphere(2, 1.0), half = icosphere(2, 0.5), box = h1::cube();
  TriMesh touch = half, ball = half, twice = m, loose = m, reversed = m, bad = m, dent[2] = {m, m};
  touch.pnt[0] = m.pnt[0];  // touches at vertex 1, pokes through along the ray of vertex 4
  for (int c = 0; c < 3; c++) touch.pnt[3][c] = 1.5f * m.pnt[3][c];
  // The top vertex of the ball onto the face z = 1 of the box, into the
  // triangle (centre 13, corners 6 and 8) that covers x > |y|: its 20th.
  int top = 0;
  for (int k = 1; k < (int)ball.pnt.size(); k++) top = ball.pnt[k][2] > ball.pnt[top][2] ? k : top;
  ball.pnt[top] = {0.5f, 0.1f, 1.0f};
  twice.pnt[150] = twice.pnt[95], twice.pnt[120] = twice.pnt[101];  // two pairs, far into the row order
  loose.pnt.push_back({0.0f, 0.0f, 0.0f}), loose.pnt.push_back({0.1f, 0.0f, 0.0f});
  for (auto &t : reversed.dhk) std::swap(t[1], t[2]);
  bad.dhk[7][1] = 162;
  // Two spheres that differ in one triangle each, split by a sunken centre
  // point: each sunken point lies inside the other surface.
  for (int d = 0; d < 2; d++) {
    const int t = d ? 60 : 3, n = (int)m.pnt.size();
    const auto tri = m.dhk[t];
    std::array<float, 3> c;
    for (int k = 0; k < 3; k++) c[k] = 0.3f * (m.pnt[tri[0]][k] + m.pnt[tri[1]][k] + m.pnt[tri[2]][k]);
    dent[d].pnt.push_back(c);
    dent[d].dhk[t] = {tri[0], tri[1], n};
    dent[d].dhk.push_back({tri[1], tri[2], n}), dent[d].dhk.push_back({tri[2], tri[0], n});
  }
  const TriMesh mid = icosphere(1, 0.8);
  const struct {
    std::vector<h1::Surface> model;
    int iso;
    std::string message;  // regular expression
  } cases[] = {
      {{{"outer.tri", m}, {"inner.tri", touch}}, -1, " interface outer.tri and inner.tri intersect \n at vertex 4 of "
       "outer.tri\n \\(an interface that is contained within another one may not touch it\\)\n"},
      {{{"cube.tri", box}, {"ball.tri", ball}}, -1, "during computation of B-matrix;\n vertex " + std::to_string(top + 1) +
       " of ball.tri touches triangle 20 of cube.tri\n"},
      {{{"outer.tri", icosphere(2, 1.3)}, {"twice.tri", twice}}, -1, "double vertex at twice.tri\n"},
      {{{"loose.tri", loose}}, -1, "vertex 163 of loose.tri belongs to no triangle\n"},
      {{{"outer.tri", reversed}, {"inner.tri", half}}, -1, " interface outer.tri is not a single closed surface\n"
       " \\(totsolangle= ?-(1\\.99[5-9][0-9]|2\\.000[0-5]) from vertex 1 of inner.tri \\)\n"},
      {{{"first.tri", m}, {"second.tri", m}}, -1, " could not find a vertex of first.tri that does not touch second.tri\n"},
      {{{"a.tri", m}, {"b.tri", icosphere(2, 1.0, 1.03, 0.07, 0.11)}}, -1, " interface a.tri and b.tri intersect \n at vertex "},
      {{{"first.tri", dent[0]}, {"second.tri", dent[1]}}, -1,
       "geometry consistency error;\n first.tri is contained within second.tri as well as vise versa.\n"
       "Probably first.tri and second.tri coincide\n"},
      {{{"left.tri", icosphere(1, 1.0, -3, 0, 0)}, {"right.tri", icosphere(1, 1.0, 3, 0, 0)}}, -1,
       "left.tri and right.tri are both at the outside\n There may only be one interface at the outside\n"},
      {{{"bad.tri", bad}}, -1, "triangle 8 of bad.tri refers to a vertex that does not exist\n"},
      {{{"large.tri", m}, {"mid.tri", mid}, {"small.tri", half}}, 1, "The isolated source interface should be the innermost one\n"},
      {{{"large.tri", m}, {"mid.tri", mid}}, 0,
       "The isolated source interface \\(large.tri\\) \n   should be contained within at least one other interface\n"},
  };
  TempDir dir;
  const std::string out = dir.file("out"), err = dir.file("err");
  for (const auto &f : cases) {
    SCOPED_TRACE(f.message);
    h1::load_model(f.model);
    iso_sur = f.iso;
    b = matrix(1, totpnt, 1, totpnt);
    std::string ref[2];
    for (int threads : {-1, 1, 3}) {
      auto run = [&] {  // in the child: its output into the two files
        freopen(out.c_str(), "w", stdout), freopen(err.c_str(), "w", stderr);
        std::atexit([] { free_matrix(b, 1, 0, 1, 0); });  // nothing left for the leak checker
        setvbuf(stdout, nullptr, _IONBF, 0);
        use_threads(threads);
        b_matrix();
      };
      EXPECT_EXIT(run(), testing::ExitedWithCode(1), "");
      if (threads < 0) ref[0] = read_file(out), ref[1] = read_file(err);
      EXPECT_TRUE(std::regex_search(ref[1], std::regex("^\n\n Fatal error in [a-z]+: " + f.message))) << ref[1];
      EXPECT_EQ(read_file(out) + read_file(err), ref[0] + ref[1]) << "threads " << threads;
    }
    free_matrix(b, 1, totpnt, 1, totpnt);
    b = nullptr;
  }
}
