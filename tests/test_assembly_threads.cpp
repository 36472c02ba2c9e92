// The threaded system-matrix assembly against the plain sequential code: the
// same matrix bit for bit, the same tables and the same progress output on
// every thread count, and the same first fault with the same output before
// it.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "geometry/solangle.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

struct Surface {
  std::string name;
  TriMesh mesh;
  float sigma;
};

int b_size = 0;

void load_model(const std::vector<Surface> &s, int iso = -1) {
  ngeo = (int)s.size();
  totpnt = totdhk = 0;
  for (int i = 0; i < ngeo; i++) {
    Interface &g = geo[i];
    memset(&g, 0, sizeof g);
    snprintf(g.name, sizeof g.name, "%s", s[i].name.c_str());
    g.npnt = (int)s[i].mesh.pnt.size();
    g.ndhk = (int)s[i].mesh.dhk.size();
    g.pnt = new float[g.npnt][3];
    g.dhk = new int32_t[g.ndhk][3];
    for (int k = 0; k < g.npnt; k++)
      for (int c = 0; c < 3; c++) g.pnt[k][c] = s[i].mesh.pnt[k][c];
    for (int t = 0; t < g.ndhk; t++)
      for (int c = 0; c < 3; c++) g.dhk[t][c] = s[i].mesh.dhk[t][c];
    g.sigma_in = s[i].sigma;
    totpnt += g.npnt;
    totdhk += g.ndhk;
  }
  iso_sur = iso;
  if (b) free_matrix(b, 1, b_size, 1, b_size);
  b = matrix(1, totpnt, 1, totpnt);
  b_size = totpnt;
}

// Everything the assembly writes, as text and raw bits, so that one
// comparison finds any difference.
struct Snapshot {
  std::string out, bits;
  std::vector<int> ints;
};

template <class T>
void append(std::string &bits, const T *p, size_t count) {
  bits.append(reinterpret_cast<const char *>(p), sizeof(T) * count);
}

// Run b_matrix on the loaded model, the plain code (threads < 0) or the
// threaded code, starting from tables filled with nonsense.
Snapshot assemble(int threads) {
  set_assembly_reference(threads < 0);
  set_assembly_threads(threads < 0 ? 1 : threads);
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) b[r][c] = -7.0f;
  for (auto &row : geocon)
    for (int &v : row) v = -1;
  for (int i = 0; i < ngeo; i++) geo[i].sigma_out = -1.0f;
  iso_ngeo = iso_totpnt = 0;
  iso_b = nullptr;

  Snapshot s;
  testing::internal::CaptureStdout();
  b_matrix();
  s.out = testing::internal::GetCapturedStdout();
  set_assembly_reference(false);
  set_assembly_threads(0);

  for (int r = 1; r <= totpnt; r++) append(s.bits, &b[r][1], totpnt);
  append(s.bits, &deflat[0][0], MAXGEO * MAXGEO);
  append(s.bits, &iso_deflat[0][0], MAXGEO * MAXGEO);
  for (int i = 0; i < ngeo; i++) append(s.bits, &geo[i].sigma_out, 1);
  s.ints.assign(&geocon[0][0], &geocon[0][0] + MAXGEO * MAXGEO);
  s.ints.insert(s.ints.end(), {iso_ngeo, iso_totpnt});
  s.ints.insert(s.ints.end(), iso_index, iso_index + iso_ngeo);
  if (iso_b) {
    for (int r = 1; r <= iso_totpnt; r++) append(s.bits, &iso_b[r][1], iso_totpnt);
    free_matrix(iso_b, 1, iso_totpnt, 1, iso_totpnt);
    iso_b = nullptr;
  }
  return s;
}

// A sphere whose vertices are moved radially at random by up to `amount`,
// so that rows see triangles at many distances and angles.
TriMesh rough_sphere(int level, double radius, double amount, unsigned seed) {
  TriMesh m = icosphere(level, radius);
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(1.0 - amount, 1.0 + amount);
  for (auto &p : m.pnt) {
    const double f = u(gen);
    for (float &c : p) c = (float)(c * f);
  }
  return m;
}

}  // namespace

// The assembly's inner loop passes lengths it computed once per vertex; the
// weights must be solangle's to the last bit, near and far, and the faults
// the same: on the triangle, on an edge, at a vertex, on an edge's line
// beyond its end, collinear vertices.
TEST(AssemblyKernel, SolidAngleWithGivenLengthsIsSolangleBitForBit) {
  auto check = [](const double y[3][3]) {
    double a[3] = {-9, -9, -9}, g[3] = {-9, -9, -9};
    const int ra = solangle(y[0], y[1], y[2], &a[0], &a[1], &a[2], 0.1);
    const int rg = solangle_lengths(y[0], y[1], y[2], solangle_length(y[0]), solangle_length(y[1]),
                                    solangle_length(y[2]), &g[0], &g[1], &g[2], 0.1);
    EXPECT_EQ(ra, rg);
    EXPECT_EQ(memcmp(a, g, sizeof a), 0) << a[0] << " " << g[0];
    return ra && std::fabs(a[0] + a[1] + a[2]) >= 0.1;
  };
  std::mt19937 gen(99);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::uniform_int_distribution<int> scale(-6, 3);
  int near = 0;
  for (int n = 0; n < 20000; n++) {
    // Float vertices at a random distance from a float point, as the assembly forms them.
    const float d = std::ldexp(1.0f, scale(gen));
    float x[3], v[3][3];
    double y[3][3];
    for (int c = 0; c < 3; c++) x[c] = (float)u(gen);
    for (int m = 0; m < 3; m++)
      for (int c = 0; c < 3; c++) {
        v[m][c] = x[c] + (float)(u(gen) * d) + (m == 0 ? 0.0f : (float)u(gen) * 0.05f);
        y[m][c] = (double)v[m][c] - x[c];
      }
    near += check(y);
  }
  EXPECT_GT(near, 1000);  // both branches were taken many times
  const double cases[][3][3] = {{{-1, -1, 0}, {1, 0, 0}, {0, 1, 0}}, {{-1, 0, 0}, {1, 0, 0}, {0, 1, 0}},
                                {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}},   {{1, 0, 0}, {2, 0, 0}, {1, 1, 0}},
                                {{1, 0, 1}, {2, 0, 1}, {3, 0, 1}}};
  for (const auto &y : cases) check(y);
}

// The reference once, then the threaded code on 1, 2 and 3 threads, on
// models of one to three shells (listed in any order, so that the blocks of
// pass 2 come in every shape), with an isolated-source interface, and with
// vertices that coincide with another interface's before the side is known.
TEST(AssemblyThreads, IdenticalOnEveryThreadCount) {
  TriMesh outer = icosphere(2, 1.0), inner = icosphere(2, 0.5);
  for (int k = 0; k < 3; k++) inner.pnt[k] = outer.pnt[k];
  struct Model {
    const char *name;
    std::vector<Surface> surfaces;
    int iso;
    std::function<void(const Snapshot &)> also;
  } models[] = {
      {"one shell", {{"scalp.tri", icosphere(3, 1.0), 1.0f}}, -1, nullptr},
      {"two shells", {{"outer.tri", rough_sphere(3, 1.0, 0.02, 1), 0.3f}, {"inner.tri", icosphere(2, 0.8), 1.0f}}, -1,
       nullptr},
      {"three shells, inner first",
       {{"brain.tri", icosphere(2, 0.88), 1.0f},
        {"scalp.tri", icosphere(3, 1.0), 1.0f},
        {"skull.tri", rough_sphere(2, 0.92, 0.01, 2), 0.0125f}},
       -1,
       [](const Snapshot &) {
         EXPECT_EQ(geocon[0][2], 2);
         EXPECT_EQ(geocon[2][1], 2);
         EXPECT_EQ(geocon[1][0], 0);
       }},
      {"isolated source",
       {{"scalp.tri", icosphere(2, 1.0), 1.0f},
        {"skull.tri", icosphere(2, 0.92), 0.0125f},
        {"brain.tri", icosphere(2, 0.88), 1.0f}},
       2,
       [](const Snapshot &) {
         EXPECT_EQ(iso_ngeo, 1);
         EXPECT_EQ(iso_totpnt, 162);
       }},
      // The first three inner vertices sit on outer ones: their rows cannot
      // tell the side, the fourth row finds it inside and the block is walked
      // again with the copies counted inside.  The pass-2 countdown of the
      // inner rows (from row 163 of 324) prints 160 at the second row, is cut
      // short at the fourth and starts again.
      {"coincident vertices", {{"outer.tri", outer, 1.0f}, {"inner.tri", inner, 1.0f}}, -1,
       [](const Snapshot &ref) {
         EXPECT_EQ(geocon[1][0], 2);
         EXPECT_NE(ref.out.find(" Bmat countdown:  170 (pass 2)\r Bmat countdown:  160 (pass 2)\r"
                                " Bmat countdown:  160 (pass 2)\r Bmat countdown:  150 (pass 2)\r"),
                   std::string::npos);
         // Before the transform a coincident vertex's row is the outer
         // vertex's row plus one on that vertex: see the geometric blocks.
         set_assembly_threads(3);
         testing::internal::CaptureStdout();
         for (int i = 0; i < ngeo; i++) b_submatrix(i, i);
         b_submatrix(1, 0);
         testing::internal::GetCapturedStdout();
         set_assembly_threads(0);
         const int r0 = get_offset(1);
         for (int k = 0; k < 3; k++)
           for (int c = 1; c <= 162; c++)
             ASSERT_EQ(b[r0 + k][c], b[1 + k][c] + (c == 1 + k ? 1.0f : 0.0f)) << "vertex " << k << " column " << c;
       }},
  };
  for (const Model &m : models) {
    SCOPED_TRACE(m.name);
    load_model(m.surfaces, m.iso);
    const Snapshot ref = assemble(-1);
    // The run made something: a finished system matrix and its progress lines.
    ASSERT_FALSE(ref.out.empty());
    EXPECT_EQ(ref.out.back(), '\n');
    ASSERT_NE(b[1][1], -7.0f);
    for (int threads : {1, 2, 3}) {
      const Snapshot s = assemble(threads);
      EXPECT_TRUE(s.bits == ref.bits) << "threads " << threads;
      EXPECT_EQ(s.out, ref.out) << "threads " << threads;
      EXPECT_EQ(s.ints, ref.ints) << "threads " << threads;
    }
    if (m.also) m.also(ref);
  }
}

// A run of the probe on a faulty model: the threaded assembly must print the
// same countdown, raise the same first fault (in row order: '@' stands for
// the first planted vertex) and exit the same way; a sound model gives the
// same matrix also with the default thread count.
TEST(AssemblyThreads, FirstFaultInRowOrderOnEveryThreadCount) {
  const std::pair<const char *, std::string> cases[] = {
      {"touch", " interface outer.tri and inner.tri intersect \n at vertex 4 of outer.tri\n"
                " (an interface that is contained within another one may not touch it)\n"},
      {"touch_triangle", "during computation of B-matrix;\n vertex @ of ball.tri touches triangle "},
      {"double_vertex", "double vertex at twice.tri\n"},
      {"loose", "vertex @ of loose.tri belongs to no triangle"},
      {"reversed", " interface outer.tri is not a single closed surface\n (totsolangle= -"},
      {"identical", " could not find a vertex of first.tri that does not touch second.tri"},
      {"intersect", " interface a.tri and b.tri intersect \n at vertex "},
      {"side_by_side", "left.tri and right.tri are both at the outside\n"},
      {"good", ""},
  };
  for (const auto &[model, text] : cases) {
    SCOPED_TRACE(model);
    const ProcResult ref = run_process(probe("probe_assembly"), {model, "ref"}, "");
    if (text.empty()) {
      ASSERT_EQ(ref.status, 0) << ref.err;
      ASSERT_NE(ref.out.find("== done "), std::string::npos);
    } else {
      ASSERT_EQ(ref.status, 1) << ref.err;
      std::string message = text;
      const size_t at = message.find('@'), planted = ref.out.find("== planted ");
      if (at != std::string::npos && planted != std::string::npos)
        message.replace(at, 1, ref.out.substr(planted + 11, ref.out.find_first_of(" \n", planted + 11) - planted - 11));
      EXPECT_NE(ref.err.find("Fatal error in brelix: " + message), std::string::npos) << ref.err;
    }
    for (const char *threads : {"0", "1", "2", "3", "4"}) {
      const ProcResult p = run_process(probe("probe_assembly"), {model, threads}, "");
      EXPECT_EQ(p.status, ref.status) << "threads " << threads;
      EXPECT_EQ(p.out, ref.out) << "threads " << threads;
      EXPECT_EQ(p.err, ref.err) << "threads " << threads;
    }
  }
}
