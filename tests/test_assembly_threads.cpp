// The threaded system-matrix assembly against the plain sequential code: the
// same matrix bit for bit, the same tables and progress output on every
// thread count, and the same first fault with the same output before it.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "geometry/solangle.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"
#include "tests/support/h1_model.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

int b_size = 0;

template <class T>
void append(std::string &bits, const T *p, size_t count) {
  bits.append(reinterpret_cast<const char *>(p), sizeof(T) * count);
}

// Everything b_matrix writes, as raw bits after its output text, starting
// from tables filled with nonsense; the plain code for threads < 0.
std::string assemble(int threads) {
  if (b) free_matrix(b, 1, b_size, 1, b_size);
  b = matrix(1, totpnt, 1, totpnt);
  b_size = totpnt;
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) b[r][c] = -7.0f;
  for (auto &row : geocon)
    for (int &v : row) v = -1;
  for (int i = 0; i < ngeo; i++) geo[i].sigma_out = -1.0f;
  iso_ngeo = iso_totpnt = 0;
  iso_b = nullptr;
  set_assembly_reference(threads < 0);
  set_assembly_threads(threads < 0 ? 1 : threads);
  std::string s = h1::stdout_of(b_matrix);
  set_assembly_reference(false);
  set_assembly_threads(0);
  for (int r = 1; r <= totpnt; r++) append(s, &b[r][1], totpnt);
  append(s, &deflat[0][0], MAXGEO * MAXGEO);
  append(s, &iso_deflat[0][0], MAXGEO * MAXGEO);
  append(s, &geocon[0][0], MAXGEO * MAXGEO);
  for (int i = 0; i < ngeo; i++) append(s, &geo[i].sigma_out, 1);
  append(s, &iso_ngeo, 1);
  append(s, &iso_totpnt, 1);
  append(s, iso_index, iso_ngeo);
  if (iso_b) {
    for (int r = 1; r <= iso_totpnt; r++) append(s, &iso_b[r][1], iso_totpnt);
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
    float x[3];
    double y[3][3];
    for (int c = 0; c < 3; c++) x[c] = (float)u(gen);
    for (int m = 0; m < 3; m++)
      for (int c = 0; c < 3; c++)
        y[m][c] = (double)(x[c] + (float)(u(gen) * d) + (m == 0 ? 0.0f : (float)u(gen) * 0.05f)) - x[c];
    near += check(y);
  }
  EXPECT_GT(near, 1000);  // both branches were taken many times
  const double cases[][3][3] = {{{-1, -1, 0}, {1, 0, 0}, {0, 1, 0}}, {{-1, 0, 0}, {1, 0, 0}, {0, 1, 0}},
                                {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}},   {{1, 0, 0}, {2, 0, 0}, {1, 1, 0}},
                                {{1, 0, 1}, {2, 0, 1}, {3, 0, 1}}};
  for (const auto &y : cases) check(y);
}

// The plain code once, then the threaded code on 1, 2 and 3 threads, on models
// of one to three shells (listed in any order, so that the blocks of pass 2
// come in every shape), with an isolated-source interface, and with
// vertices that coincide with another interface's before the side is known
// (the rows of such a block are walked again).
TEST(AssemblyThreads, IdenticalOnEveryThreadCount) {
  TriMesh outer = icosphere(2, 1.0), inner = icosphere(2, 0.5);
  for (int k = 0; k < 3; k++) inner.pnt[k] = outer.pnt[k];
  const struct {
    const char *name;
    std::vector<h1::Surface> surfaces;
    int iso;
  } models[] = {
      {"one shell", {{"scalp.tri", icosphere(3, 1.0)}}, -1},
      {"two shells", {{"outer.tri", rough_sphere(3, 1.0, 0.02, 1), 0.3f}, {"inner.tri", icosphere(2, 0.8)}}, -1},
      {"three shells, inner first",
       {{"brain.tri", icosphere(2, 0.88)}, {"scalp.tri", icosphere(3, 1.0)},
        {"skull.tri", rough_sphere(2, 0.92, 0.01, 2), 0.0125f}},
       -1},
      {"isolated source",
       {{"scalp.tri", icosphere(2, 1.0)}, {"skull.tri", icosphere(2, 0.92), 0.0125f}, {"brain.tri", icosphere(2, 0.88)}},
       2},
      {"coincident vertices", {{"outer.tri", outer}, {"inner.tri", inner}}, -1},
  };
  for (const auto &m : models) {
    SCOPED_TRACE(m.name);
    h1::load_model(m.surfaces);
    iso_sur = m.iso;
    const std::string ref = assemble(-1);
    ASSERT_NE(b[1][1], -7.0f);  // the run made a matrix
    for (int threads : {1, 2, 3}) EXPECT_TRUE(assemble(threads) == ref) << "threads " << threads;
  }
}

// A run of the probe on a faulty model: the threaded assembly must print the
// same countdown, raise the same first fault (in row order) and exit the
// same way; a sound model gives the same matrix also with the default thread
// count.  The texts of faults met elsewhere are not repeated (nullptr).
TEST(AssemblyThreads, FirstFaultInRowOrderOnEveryThreadCount) {
  const std::pair<const char *, const char *> cases[] = {
      {"touch", " interface outer.tri and inner.tri intersect \n at vertex 4 of outer.tri\n"
                " (an interface that is contained within another one may not touch it)\n"},
      {"touch_triangle", nullptr},
      {"double_vertex", "double vertex at twice.tri\n"},
      {"loose", "vertex 163 of loose.tri belongs to no triangle"},
      {"reversed", nullptr},
      {"identical", " could not find a vertex of first.tri that does not touch second.tri"},
      {"intersect", " interface a.tri and b.tri intersect \n at vertex "},
      {"side_by_side", nullptr},
      {"good", ""},
  };
  for (const auto &[model, text] : cases) {
    SCOPED_TRACE(model);
    const ProcResult ref = run_process(probe("probe_assembly"), {model, "ref"}, "");
    const bool good = text && !*text;
    ASSERT_EQ(ref.status, good ? 0 : 1) << ref.err;
    EXPECT_EQ(ref.out.find("== done ") != std::string::npos, good) << ref.out;
    EXPECT_TRUE(!text || good || ref.err.find(std::string("Fatal error in brelix: ") + text) != std::string::npos)
        << ref.err;
    for (const char *threads : {"0", "1", "2", "3"}) {
      const ProcResult p = run_process(probe("probe_assembly"), {model, threads}, "");
      EXPECT_EQ(p.status, ref.status) << "threads " << threads;
      EXPECT_EQ(p.out, ref.out) << "threads " << threads;
      EXPECT_EQ(p.err, ref.err) << "threads " << threads;
    }
  }
}
