// Assembly of the boundary-element system matrix where the sphere accuracy
// tests cannot see it: own angles of flat and sharp vertices, models listed
// in any order, coincident vertices and the isolated-source sub-model.  The
// faults of a model are in test_assembly_threads, on every thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tests/support/h1_model.h"
#include "tools/icosphere.h"

namespace {

using h1::Surface;
int b_size = 0;

// The model as the dialogue leaves it, with b allocated; the tables that
// b_matrix fills start as nonsense so that a missing write shows.
void load(const std::vector<Surface> &s, int iso = -1) {
  h1::load_model(s);
  for (int i = 0; i < ngeo; i++) geo[i].sigma_out = -1.0f;
  std::fill(&geocon[0][0], &geocon[0][0] + MAXGEO * MAXGEO, -1);
  std::fill(&deflat[0][0], &deflat[0][0] + MAXGEO * MAXGEO, -5.0f);
  iso_sur = iso, iso_ngeo = iso_totpnt = 0;
  iso_b = nullptr;
  if (b) free_matrix(b, 1, b_size, 1, b_size);
  b = matrix(1, b_size = totpnt, 1, totpnt);
}

std::string assemble() { return h1::stdout_of(b_matrix); }
void block(int i, int j) { h1::stdout_of([&] { b_submatrix(i, j); }); }
}  // namespace

TEST(Bmatrix, FlatNeighbourhoodHasNoOwnAngleAndACornerSeesItsCone) {
  load({{"cube.tri", h1::cube(), 1}});
  block(0, 0);
  for (int r = 9; r <= 14; r++) EXPECT_EQ(b[r][r], 0.0f) << "face centre " << r;
  // Corner (-1,-1,-1): its ring (three corners, three face centres) has its
  // mean at -1/3 (1,1,1), mean squared radius 5/3, and the corner lies at
  // squared height 4/3 above it: q = R / sqrt(R^2 + h^2) = sqrt(5)/3 and the
  // entry is 2 (1 - q) / theta with theta = 2 acos q.
  const double q = std::sqrt(5.0) / 3.0;
  EXPECT_NEAR(b[1][1], (1 - q) / std::acos(q), 1e-7);
}

TEST(Bmatrix, ThreeNestedSpheresInAnyOrder) {
  // The outermost listed before the middle one, so that the innermost meets
  // an enclosing interface that does not border it first.
  load({{"out.tri", icosphere(1, 1.0), 0.5f}, {"in.tri", icosphere(1, 0.75, 0.02, 0.01, 0.0), 1.0f},
        {"mid.tri", icosphere(1, 0.9), 0.2f}});
  // Pass 2 counts down on the blocks (i, 0) and (0, 1) only.
  std::string want;
  char line[64];
  for (const char *pass : {" (pass 1)\r", " (pass 2)\r"})
    for (int r = 1; r <= totpnt; r++)
      if ((totpnt - r) % 10 == 0) want += (snprintf(line, sizeof line, " Bmat countdown:%5d%s", totpnt - r, pass), line);
  EXPECT_EQ(assemble(), want + "\n");
  const int want_con[3][3] = {{1, 0, 0}, {2, 1, 2}, {2, 0, 1}};
  for (int i = 0; i < 3; i++) EXPECT_EQ(std::vector<int>(geocon[i], geocon[i] + 3), std::vector<int>(want_con[i], want_con[i] + 3)) << i;
  EXPECT_EQ(std::vector<float>({geo[0].sigma_out, geo[1].sigma_out, geo[2].sigma_out}),
            std::vector<float>({0.0f, 0.2f, 0.5f}));
  // f(in, mid) = (smid^2 - sout^2) / (smid smid - sin sout); with a
  // non-conducting exterior the factors towards the outer surface are 1.
  const double want_f[3][3] = {{1, 0, 0}, {1, 1, (0.04 - 0.25) / (0.04 - 0.5)}, {1, 0, 1}};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) EXPECT_NEAR(deflat[i][j], want_f[i][j], 1e-6) << i << "," << j;
}

TEST(Bmatrix, CoincidentVertexTakesTheRowOfTheVertexItSitsOn) {
  // The inner sphere touches the outer one at vertex 0 (same rays).  Vertex 0
  // cannot tell its side, vertex 1 finds it inside, and the block is made
  // again with vertex 0 inside too.
  TriMesh outer = icosphere(1, 1.0), inner = icosphere(1, 0.5);
  inner.pnt[0] = outer.pnt[0];
  load({{"outer.tri", outer}, {"inner.tri", inner}});
  block(0, 0), block(1, 1), block(1, 0);
  const int r0 = get_offset(1);
  EXPECT_EQ(geocon[1][0], 2);
  for (int c = 1; c <= 42; c++) EXPECT_EQ(b[r0][c], b[1][c] + (c == 1 ? 1.0f : 0.0f)) << c;
  // Outer vertices against the inner surface: outside, so the coincident
  // vertex's row is the inner vertex's row less one.
  block(0, 1);
  EXPECT_EQ(geocon[0][1], 0);
  for (int c = 0; c < 42; c++) EXPECT_EQ(b[1][r0 + c], b[r0][r0 + c] - (c == 0 ? 1.0f : 0.0f)) << c;
}

TEST(Bmatrix, IsolatedSourceSubModel) {
  // Interface 1 isolated; the small one inside it, listed first, belongs to
  // its sub-model.
  load({{"small.tri", icosphere(1, 0.5), 1.0f}, {"mid.tri", icosphere(1, 0.8), 0.5f},
        {"large.tri", icosphere(2, 1.0), 0.25f}}, 1);
  const std::string out = assemble();
  EXPECT_EQ(std::vector<int>({iso_ngeo, iso_index[0], iso_index[1], iso_totpnt}), std::vector<int>({2, 1, 0, 84}));
  EXPECT_STREQ(iso_geo[1].name, "small.tri");
  EXPECT_EQ(geo[1].sigma_out, 0.25f);  // only the copy loses its outside
  EXPECT_EQ(out.substr(out.rfind("\nIsolated")), "\nIsolated source part: 2 compartments, 84 vertices.\n\n\n");
  free_matrix(iso_b, 1, iso_totpnt, 1, iso_totpnt);
  free_matrix(b, 1, b_size, 1, b_size);
  b = nullptr;
}
