// Assembly of the boundary-element system matrix: geometric weights, nesting,
// outer conductivities, deflation, the isolated-source sub-model and every
// structural fault of a model.
#include <gtest/gtest.h>

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
using Table = std::vector<std::vector<float>>;
int b_size = 0;

// The model as the dialogue leaves it, with b allocated.  The tables that
// b_matrix fills start as nonsense so that a missing write shows.
void load(const std::vector<Surface> &s, int iso = -1) {
  h1::load_model(s);
  for (int i = 0; i < ngeo; i++) geo[i].sigma_out = -1.0f;
  for (auto &row : geocon)
    for (int &v : row) v = -1;
  for (auto &row : deflat)
    for (float &v : row) v = -5.0f;
  iso_sur = iso;
  iso_ngeo = iso_totpnt = 0;
  iso_b = nullptr;
  if (b) free_matrix(b, 1, b_size, 1, b_size);
  b = matrix(1, totpnt, 1, totpnt);
  b_size = totpnt;
}

std::string assemble() { return h1::stdout_of(b_matrix); }
std::string block(int i, int j) {
  return h1::stdout_of([&] { b_submatrix(i, j); });
}

double block_row_sum(int r, int j) {
  double s = 0.0;
  for (int c = get_offset(j); c < get_offset(j) + geo[j].npnt; c++) s += b[r][c];
  return s;
}

Table copy_b() {
  Table out(totpnt + 1, std::vector<float>(totpnt + 1));
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) out[r][c] = b[r][c];
  return out;
}

// Countdown lines of the rows first .. first+count-1 of a block.
std::string countdown_rows(int first, int count, const char *end) {
  std::string s;
  char line[64];
  for (int r = first; r < first + count; r++)
    if ((totpnt - r) % 10 == 0) s += (snprintf(line, sizeof line, " Bmat countdown:%5d%s", totpnt - r, end), line);
  return s;
}

}  // namespace

TEST(Bmatrix, SingleSphereWeightsAndSystemMatrix) {
  const TriMesh m = icosphere(3, 1.0);  // 642 vertices
  load({{"sphere.tri", m, 0.33f}});
  block(0, 0);
  EXPECT_EQ(geocon[0][0], 1);
  const int n = geo[0].npnt;
  for (int r = 1; r <= n; r++) {
    EXPECT_NEAR(block_row_sum(r, 0), 1.0, 2e-6) << "row " << r;
    // The own entry is the angle of a shallow cone: about a quarter of the
    // ring radius (an edge or so, here 0.1 to 0.2) on the unit sphere.
    EXPECT_GT(b[r][r], 0.02f);
    EXPECT_LT(b[r][r], 0.07f);
  }
  // Far from the observation vertex every triangle is split equally: an
  // entry is a third of the solid angle of each triangle around the basis
  // vertex, over 2 pi, and for small triangles that angle is close to
  // -A n.(centroid - x) / |centroid - x|^3.
  double worst = 0.0;
  for (int r = 1; r <= n; r += 37) {
    const auto &x = m.pnt[r - 1];
    std::vector<double> expect(n, 0.0);
    for (auto &t : m.dhk) {
      double c[3], e1[3], e2[3];
      for (int k = 0; k < 3; k++) {
        c[k] = (m.pnt[t[0]][k] + m.pnt[t[1]][k] + m.pnt[t[2]][k]) / 3.0 - x[k];
        e1[k] = m.pnt[t[1]][k] - m.pnt[t[0]][k];
        e2[k] = m.pnt[t[2]][k] - m.pnt[t[0]][k];
      }
      const double an_c = 0.5 * ((e1[1] * e2[2] - e1[2] * e2[1]) * c[0] + (e1[2] * e2[0] - e1[0] * e2[2]) * c[1] +
                                 (e1[0] * e2[1] - e1[1] * e2[0]) * c[2]);
      const double d = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
      for (int k : t) expect[k] -= an_c / (d * d * d) / (6 * M_PI);
    }
    for (int c = 1; c <= n; c++) {
      const auto &y = m.pnt[c - 1];
      if (std::hypot(x[0] - y[0], x[1] - y[1], x[2] - y[2]) < 1.0) continue;
      worst = std::max(worst, std::fabs(b[r][c] / expect[c - 1] - 1.0));
    }
  }
  EXPECT_LT(worst, 5e-3);  // the centroid rule is good to (size/distance)^2

  // The whole model: outermost, no deflation partner, I - (B - 1/N).
  const Table geom = copy_b();
  assemble();
  EXPECT_EQ(geo[0].sigma_out, 0.0f);
  EXPECT_EQ(deflat[0][0], 1.0f);
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) ASSERT_NEAR(b[r][c], (r == c) - (geom[r][c] - 1.0 / n), 2e-7) << r << "," << c;
}

TEST(Bmatrix, FlatNeighbourhoodHasNoOwnAngleAndACornerSeesItsCone) {
  load({{"cube.tri", h1::cube(), 1}});
  block(0, 0);
  for (int r = 1; r <= 14; r++) {
    EXPECT_NEAR(block_row_sum(r, 0), 1.0, 1e-6) << r;
    EXPECT_TRUE(r <= 8 || b[r][r] == 0.0f) << "face centre " << r << ": " << b[r][r];
  }
  // Corner (-1,-1,-1): its ring of three corners and three face centres has
  // its mean at -1/3 (1,1,1), mean squared radius 5/3, and the corner lies
  // at squared height 4/3 above it, so q = R / sqrt(R^2 + h^2) = sqrt(5)/3
  // and the entry is 2 (1 - q) / theta with theta = 2 acos q.
  const double q = std::sqrt(5.0) / 3.0;
  EXPECT_NEAR(b[1][1], (1 - q) / std::acos(q), 1e-7);
}

TEST(Bmatrix, NestedSpheresOuterConductivityAndDeflatedConstants) {
  const float s1 = 1.0f, s2 = 0.25f;
  // The inner surface is listed second: nothing depends on the order.
  load({{"outer.tri", icosphere(2, 1.0), s2}, {"inner.tri", icosphere(1, 0.8, 0.05, 0, -0.03), s1}});
  assemble();
  EXPECT_EQ(geo[1].sigma_out, s2);
  EXPECT_EQ(geo[0].sigma_out, 0.0f);
  EXPECT_EQ(deflat[1][0], 1.0f);
  EXPECT_EQ(deflat[0][1], 0.0f);
  // By hand from the block rules: applied to the constant vector, rows of the
  // inner surface give 2 s1 / (s1 + s2), rows of the outer one give 1.
  for (int r = 1; r <= totpnt; r++) {
    double sum = 0.0;
    for (int c = 1; c <= totpnt; c++) sum += b[r][c];
    EXPECT_NEAR(sum, r >= get_offset(1) ? 2.0 * s1 / (s1 + s2) : 1.0, 2e-5) << "row " << r;
  }
}

TEST(Bmatrix, EqualConductivitiesMakeAnInterfaceInvisible) {
  // Across an interface without conductivity jump the potential does not
  // depend on that interface: its columns of I - C are unit columns.
  load({{"inner.tri", icosphere(1, 0.7), 0.5f}, {"outer.tri", icosphere(2, 1.0), 0.5f}});
  assemble();
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= 42; c++) ASSERT_EQ(b[r][c], r == c ? 1.0f : 0.0f) << r << "," << c;
}

TEST(Bmatrix, ThreeNestedSpheresInAnyOrder) {
  const float sin_ = 1.0f, smid = 0.2f, sout = 0.5f;
  // The outermost listed before the middle one, so that the innermost
  // meets an enclosing interface that does not border it first.
  load({{"out.tri", icosphere(2, 1.0), sout},
        {"in.tri", icosphere(1, 0.75, 0.02, 0.01, 0.0), sin_},
        {"mid.tri", icosphere(1, 0.9), smid}});
  const int offsets[] = {1, 1, 163, 205, 247};  // get_offset(-1 .. 3)
  for (int i = -1; i <= 3; i++) EXPECT_EQ(get_offset(i), offsets[i + 1]) << i;
  assemble();
  const int in = 1, mid = 2, out = 0;
  const int want_con[3][3] = {{1, 0, 0}, {2, 1, 2}, {2, 0, 1}};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) EXPECT_EQ(geocon[i][j], want_con[i][j]) << i << "," << j;
  // Each surface borders the compartment directly outside it.
  EXPECT_EQ(geo[in].sigma_out, smid);
  EXPECT_EQ(geo[mid].sigma_out, sout);
  EXPECT_EQ(geo[out].sigma_out, 0.0f);
  // By hand: f(in, mid) = (smid^2 - sout^2) / (smid*smid - sin*sout); with a
  // non-conducting exterior the factors towards the outer surface are 1.
  const double want_f[3][3] = {{1, 0, 0}, {1, 1, (0.04 - 0.25) / (0.04 - 0.5)}, {1, 0, 1}};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) EXPECT_NEAR(deflat[i][j], want_f[i][j], 1e-6) << i << "," << j;
}

TEST(Bmatrix, DeflationFactorsByHand) {
  Interface t[3] = {};
  auto shell = [&](int i, float in, float out) { t[i].sigma_in = in, t[i].sigma_out = out; };
  for (auto &row : geocon)
    for (int &v : row) v = 0;
  for (int i = 0; i < 3; i++) geocon[i][i] = 1;
  geocon[0][1] = 2;
  float f[MAXGEO][MAXGEO];
  for (auto &row : f)
    for (float &v : row) v = 9.0f;
  // Two shells whose outer side conducts too.  (s1in^2 - s1out^2) /
  // (s0out s1in - s0in s1out) has a zero denominator: the entry is left.
  shell(0, 2.0f, 0.5f);
  shell(1, 0.5f, 0.125f);
  get_deflat(t, 2, f);
  EXPECT_EQ(f[0][1], 9.0f);
  EXPECT_EQ(f[0][0], 1.0f);
  EXPECT_EQ(f[1][1], 1.0f);
  EXPECT_EQ(f[1][0], 0.0f);

  // Three shells: the one between multiplies in its own factor.
  geocon[0][2] = geocon[1][2] = 2;
  shell(1, 0.5f, 0.3f);
  shell(2, 0.3f, 0.1f);
  get_deflat(t, 3, f);
  const double a0i = 2, a0o = 0.5, a1i = 0.5, a1o = 0.3, a2i = 0.3, a2o = 0.1;
  EXPECT_NEAR(f[0][1], (a1i * a1i - a1o * a1o) / (a0o * a1i - a0i * a1o), 1e-6);
  EXPECT_NEAR(f[1][2], (a2i * a2i - a2o * a2o) / (a1o * a2i - a1i * a2o), 1e-6);
  EXPECT_NEAR(f[0][2],
              (a2i * a2i - a2o * a2o) / (a0o * a2i - a0i * a2o) * (a1i * a2i - a1o * a2o) / (a1o * a2i - a1i * a2o),
              1e-5);
  // A vanishing factor of the shell between leaves the entry as it was.
  shell(1, 0.5f, 0.25f);
  shell(2, 0.5f, 0.25f);  // 0.25*0.5 - 0.5*0.25 = 0
  f[0][2] = 9.0f;
  get_deflat(t, 3, f);
  EXPECT_EQ(f[0][2], 9.0f);
}

TEST(Bmatrix, TransformScalesBlocksByConductivity) {
  // Two interfaces of 2 and 1 vertices with a hand-made geometric matrix.
  Interface t[2] = {};
  t[0].npnt = 2, t[0].sigma_in = 3.0f, t[0].sigma_out = 1.0f;
  t[1].npnt = 1, t[1].sigma_in = 1.0f, t[1].sigma_out = 0.0f;
  float f[MAXGEO][MAXGEO] = {};
  f[0][0] = f[1][1] = 1.0f;
  f[0][1] = 0.5f;
  float **m = matrix(1, 3, 1, 3);
  for (int r = 1; r <= 3; r++)
    for (int c = 1; c <= 3; c++) m[r][c] = 0.1f * (3 * (r - 1) + c);
  b_transform(t, 2, 3, f, m);
  // Rows of interface 0 (sum 4): columns of 0 scale by (3-1)/4 less 1*(2/4)/2,
  // column of 1 by (1-0)/4 less 0.5*1/1.  Row of interface 1 (sum 1): columns
  // of 0 scale by 2/1 less 0, column of 1 by 1 less 1.
  const double expect[3][3] = {
      {1 - (0.1 * 0.5 - 0.25), -(0.2 * 0.5 - 0.25), -(0.3 * 0.25 - 0.5)},
      {-(0.4 * 0.5 - 0.25), 1 - (0.5 * 0.5 - 0.25), -(0.6 * 0.25 - 0.5)},
      {-(0.7 * 2.0), -(0.8 * 2.0), 1 - (0.9 - 1.0)},
  };
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) EXPECT_NEAR(m[r + 1][c + 1], expect[r][c], 1e-6) << r << "," << c;
  free_matrix(m, 1, 3, 1, 3);
}

TEST(Bmatrix, CountdownLinesOfBothPasses) {
  load({{"outer.tri", icosphere(2, 1.0)}, {"inner.tri", icosphere(1, 0.6)}});
  EXPECT_EQ(assemble(), countdown_rows(1, 162, " (pass 1)\r") + countdown_rows(163, 42, " (pass 1)\r") +
                     countdown_rows(1, 162, " (pass 2)\r") + countdown_rows(163, 42, " (pass 2)\r") + "\n");

  // With three interfaces pass 2 counts on blocks (i, 0) and (0, 1) only.
  load({{"a.tri", icosphere(1, 1.0)}, {"b.tri", icosphere(1, 0.8)}, {"c.tri", icosphere(0, 0.5)}});
  std::string want;
  for (const char *pass : {" (pass 1)\r", " (pass 2)\r"})
    want += countdown_rows(1, 42, pass) + countdown_rows(43, 42, pass) + countdown_rows(85, 12, pass);
  EXPECT_EQ(assemble(), want + "\n");
}

TEST(Bmatrix, CoincidentVertexTakesTheRowOfTheVertexItSitsOn) {
  // The inner sphere reaches out to touch the outer one at vertex 0 (both
  // meshes have their vertices on the same rays).
  TriMesh outer = icosphere(1, 1.0), inner = icosphere(1, 0.5);
  inner.pnt[0] = outer.pnt[0];
  load({{"outer.tri", outer}, {"inner.tri", inner}});
  block(0, 0);
  block(1, 1);
  // Rows of the inner vertices against the outer surface.  Vertex 0 cannot
  // tell its side, vertex 1 finds it inside, and the block is made again so
  // that vertex 0 counts as inside too; the countdown cut short at row 44
  // starts again.
  const int r0 = get_offset(1);
  EXPECT_EQ(block(1, 0), countdown_rows(r0, 2, " (pass 2)\r") + countdown_rows(r0, 42, " (pass 2)\r"));
  EXPECT_EQ(geocon[1][0], 2);
  for (int c = 1; c <= 42; c++) EXPECT_EQ(b[r0][c], b[1][c] + (c == 1 ? 1.0f : 0.0f)) << c;
  for (int r = r0; r < r0 + 42; r++) EXPECT_NEAR(block_row_sum(r, 0), 2.0, 2e-5);
  // Rows of the outer vertices against the inner surface: outside, so the
  // coincident vertex's row is the inner vertex's row less one.
  block(0, 1);
  EXPECT_EQ(geocon[0][1], 0);
  for (int c = 0; c < 42; c++) EXPECT_EQ(b[1][r0 + c], b[r0][r0 + c] - (c == 0 ? 1.0f : 0.0f)) << c;
  for (int r = 1; r <= 42; r++) EXPECT_NEAR(block_row_sum(r, 1), 0.0, 2e-5);
  // The whole model is accepted.
  load({{"outer.tri", outer}, {"inner.tri", inner}});
  assemble();
  EXPECT_EQ(geo[1].sigma_out, 1.0f);
}

TEST(Bmatrix, IsolatedSourceSubModel) {
  // The isolated-source interface in the middle; the small one inside it is
  // listed first and so belongs to its sub-model.
  load({{"small.tri", icosphere(1, 0.5), 1.0f}, {"mid.tri", icosphere(1, 0.8), 0.5f},
        {"large.tri", icosphere(2, 1.0), 0.25f}},
       1);
  std::string out = assemble();
  EXPECT_EQ(std::vector<int>({iso_ngeo, iso_index[0], iso_index[1], iso_totpnt}), std::vector<int>({2, 1, 0, 84}));
  EXPECT_STREQ(iso_geo[0].name, "mid.tri");
  EXPECT_STREQ(iso_geo[1].name, "small.tri");
  EXPECT_EQ(iso_geo[0].sigma_out, 0.0f);
  EXPECT_EQ(geo[1].sigma_out, 0.25f);  // only the copy loses its outside
  ASSERT_NE(iso_b, nullptr);
  EXPECT_EQ(&iso_b[84][1], &iso_b[1][1] + 83 * 84);  // one 84 x 84 block
  const size_t at = out.find("\nIsolated");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.substr(at), "\nIsolated source part: 2 compartments, 84 vertices.\n\n\n");
}

TEST(Bmatrix, IsolatedSourceAloneIsAClosedNonConductingSurface) {
  const std::vector<Surface> model = {{"scalp.tri", icosphere(2, 1.0), 0.3f}, {"brain.tri", icosphere(1, 0.7), 0.9f}};
  load(model);
  assemble();
  const Table plain = copy_b();
  load(model, 1);
  assemble();
  EXPECT_EQ(iso_ngeo, 1);
  EXPECT_EQ(iso_totpnt, 42);
  // The full model does not change.
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) ASSERT_EQ(b[r][c], plain[r][c]);
  // The sub-model is the brain alone with nothing outside: I - (B - 1/N).
  float **iso = iso_b;
  block(1, 1);
  const int o = get_offset(1);
  for (int r = 1; r <= 42; r++)
    for (int c = 1; c <= 42; c++) ASSERT_NEAR(iso[r][c], (r == c) - (b[o + r - 1][o + c - 1] - 1.0 / 42), 2e-7);
}

// Faults that other tests do not already meet through the whole assembly.
TEST(BmatrixDeath, StructuralFaultsAreFatalWithTheirMessages) {
  const TriMesh s1 = icosphere(1, 1.0), half = icosphere(1, 0.5), mid = icosphere(1, 0.8);
  TriMesh reversed = s1, bad = s1, ball = half, dent[2] = {s1, s1};
  for (auto &t : reversed.dhk) std::swap(t[1], t[2]);
  bad.dhk[7][1] = 42;
  // Two spheres that differ only in one triangle each, split by a slightly
  // sunken centre point: each sunken point lies inside the other surface.
  for (int d = 0; d < 2; d++) {
    const int t = d ? 60 : 3, n = (int)s1.pnt.size();
    const auto tri = s1.dhk[t];
    std::array<float, 3> c;
    for (int k = 0; k < 3; k++) c[k] = 0.3f * (s1.pnt[tri[0]][k] + s1.pnt[tri[1]][k] + s1.pnt[tri[2]][k]);
    dent[d].pnt.push_back(c);
    dent[d].dhk[t] = {tri[0], tri[1], n};
    dent[d].dhk.push_back({tri[1], tri[2], n});
    dent[d].dhk.push_back({tri[2], tri[0], n});
  }
  // The top vertex of the ball moved onto the face z = 1 of the cube, into
  // the face triangle (centre 12, corners 5 and 7) that covers x > |y|.
  int top = 0, hit = 0;
  for (int k = 1; k < (int)ball.pnt.size(); k++)
    if (ball.pnt[k][2] > ball.pnt[top][2]) top = k;
  ball.pnt[top] = {0.5f, 0.1f, 1.0f};
  const TriMesh box = h1::cube();
  while (!(box.dhk[hit][0] == 12 && box.dhk[hit][1] + box.dhk[hit][2] == 12)) hit++;
  const struct {
    std::vector<Surface> model;
    int iso;
    std::string message;  // regular expression
  } cases[] = {
      {{{"outer.tri", reversed}, {"inner.tri", half}}, -1,
       "Fatal error in [a-z_]+:  interface outer.tri is not a single closed surface\n"
       " \\(totsolangle= ?-(1\\.99[5-9][0-9]|2\\.000[0-5]) from vertex 1 of inner.tri \\)\n"},
      {{{"first.tri", dent[0]}, {"second.tri", dent[1]}}, -1,
       "geometry consistency error;\n first.tri is contained within second.tri as well as vise versa.\n"
       "Probably first.tri and second.tri coincide\n"},
      {{{"left.tri", icosphere(1, 1.0, -3, 0, 0)}, {"right.tri", icosphere(1, 1.0, 3, 0, 0)}}, -1,
       "left.tri and right.tri are both at the outside\n There may only be one interface at the outside\n"},
      {{{"cube.tri", box}, {"ball.tri", ball}}, -1,
       "during computation of B-matrix;\n vertex " + std::to_string(top + 1) + " of ball.tri touches triangle " +
           std::to_string(hit + 1) + " of cube.tri\n"},
      {{{"bad.tri", bad}}, -1, "triangle 8 of bad.tri refers to a vertex that does not exist"},
      {{{"large.tri", s1}, {"mid.tri", mid}, {"small.tri", half}}, 1,
       "The isolated source interface should be the innermost one\n"},
      {{{"large.tri", s1}, {"mid.tri", mid}}, 0,
       "The isolated source interface \\(large.tri\\) \n   should be contained within at least one other interface\n"},
  };
  for (const auto &f : cases) {
    SCOPED_TRACE(f.message);
    load(f.model, f.iso);
    EXPECT_EXIT(assemble(), testing::ExitedWithCode(1), f.message);
  }
}
