// Assembly of the boundary-element system matrix: geometric weights, nesting,
// outer conductivities, deflation, the isolated-source sub-model and every
// structural fault of a model.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "geometry/solangle.h"
#include "numeric/nrutils.h"
#include "tools/icosphere.h"

namespace {

struct Surface {
  std::string name;
  TriMesh mesh;
  float sigma;
};

std::vector<float (*)[3]> owned_pnt;
std::vector<int32_t (*)[3]> owned_dhk;
int b_size = 0;

// Put the surfaces into the interface table as the dialogue would, and
// allocate b for them.  Tables that b_matrix fills start as nonsense so that
// a missing write shows.
void load_model(const std::vector<Surface> &s, int iso = -1) {
  for (auto p : owned_pnt) delete[] p;
  for (auto p : owned_dhk) delete[] p;
  owned_pnt.clear();
  owned_dhk.clear();
  ngeo = (int)s.size();
  totpnt = totdhk = 0;
  for (int i = 0; i < ngeo; i++) {
    Interface &g = geo[i];
    memset(&g, 0, sizeof g);
    snprintf(g.name, sizeof g.name, "%s", s[i].name.c_str());
    g.npnt = (int)s[i].mesh.pnt.size();
    g.ndhk = (int)s[i].mesh.dhk.size();
    g.pnt = new float[g.npnt > 0 ? g.npnt : 1][3];
    g.dhk = new int32_t[g.ndhk > 0 ? g.ndhk : 1][3];
    owned_pnt.push_back(g.pnt);
    owned_dhk.push_back(g.dhk);
    for (int k = 0; k < g.npnt; k++)
      for (int c = 0; c < 3; c++) g.pnt[k][c] = s[i].mesh.pnt[k][c];
    for (int t = 0; t < g.ndhk; t++)
      for (int c = 0; c < 3; c++) g.dhk[t][c] = s[i].mesh.dhk[t][c];
    g.sigma_in = s[i].sigma;
    g.sigma_out = -1.0f;
    totpnt += g.npnt;
    totdhk += g.ndhk;
  }
  for (auto &row : geocon)
    for (int &v : row) v = -1;
  for (auto &row : deflat)
    for (float &v : row) v = -5.0f;
  iso_sur = iso;
  iso_ngeo = 0;
  iso_totpnt = 0;
  iso_b = nullptr;
  if (b) free_matrix(b, 1, b_size, 1, b_size);
  b = matrix(1, totpnt, 1, totpnt);
  b_size = totpnt;
  ASSERT_NE(b, nullptr);
}

std::string run_b_matrix() {
  testing::internal::CaptureStdout();
  b_matrix();
  return testing::internal::GetCapturedStdout();
}

std::string run_b_submatrix(int i, int j) {
  testing::internal::CaptureStdout();
  b_submatrix(i, j);
  return testing::internal::GetCapturedStdout();
}

// Geometric blocks in the order b_matrix makes them, without transforming.
void geometric_blocks() {
  testing::internal::CaptureStdout();
  for (int i = 0; i < ngeo; i++) b_submatrix(i, i);
  for (int i = 0; i < ngeo; i++)
    for (int j = 0; j < ngeo; j++)
      if (i != j) b_submatrix(i, j);
  testing::internal::GetCapturedStdout();
}

double block_row_sum(float **m, int r, int j) {
  double s = 0.0;
  for (int c = get_offset(j); c < get_offset(j) + geo[j].npnt; c++) s += m[r][c];
  return s;
}

std::vector<std::vector<float>> copy_b() {
  std::vector<std::vector<float>> out(totpnt + 1, std::vector<float>(totpnt + 1));
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) out[r][c] = b[r][c];
  return out;
}

TriMesh reversed(TriMesh m) {
  for (auto &t : m.dhk) std::swap(t[1], t[2]);
  return m;
}

// Cube [-1,1]^3 with a vertex at the centre of every face (so those
// vertices have a flat neighbourhood); triangles clockwise seen from outside.
TriMesh cube() {
  TriMesh m;
  for (int k = 0; k < 8; k++) m.pnt.push_back({k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f});
  auto corner = [&](float x, float y, float z) {
    for (int k = 0; k < 8; k++)
      if (m.pnt[k][0] == x && m.pnt[k][1] == y && m.pnt[k][2] == z) return k;
    return -1;
  };
  for (int a = 0; a < 3; a++)
    for (float s : {1.0f, -1.0f}) {
      std::array<float, 3> f = {0, 0, 0};
      f[a] = s;
      m.pnt.push_back(f);
      const int centre = (int)m.pnt.size() - 1;
      // u x v points outwards.
      int ua = (a + 1) % 3, va = (a + 2) % 3;
      float su = 1.0f, sv = s;
      const float du[4] = {1, -1, -1, 1}, dv[4] = {1, 1, -1, -1};
      int ring[4];
      for (int q = 0; q < 4; q++) {
        std::array<float, 3> p = f;
        p[ua] = du[q] * su;
        p[va] = dv[q] * sv;
        ring[q] = corner(p[0], p[1], p[2]);
      }
      for (int q = 0; q < 4; q++) m.dhk.push_back({centre, ring[(q + 1) % 4], ring[q]});
    }
  return m;
}

double total_angle(const TriMesh &m, const double x[3]) {
  double sum = 0.0;
  for (auto &t : m.dhk) {
    double y[3][3];
    for (int k = 0; k < 3; k++)
      for (int c = 0; c < 3; c++) y[k][c] = m.pnt[t[k]][c] - x[c];
    int onplane;
    sum += rhoek(y[0], y[1], y[2], &onplane);
  }
  return sum;
}

std::string countdown_line(int n, const char *end) {
  char buf[64];
  snprintf(buf, sizeof buf, " Bmat countdown:%5d%s", n, end);
  return buf;
}

// Countdown lines of the rows r = first .. first+count-1 of a block.
std::string countdown_rows(int first, int count, const char *end) {
  std::string s;
  for (int r = first; r < first + count; r++)
    if ((totpnt - r) % 10 == 0) s += countdown_line(totpnt - r, end);
  return s;
}

}  // namespace

TEST(Bmatrix, OffsetsNumberVerticesGloballyFromOne) {
  load_model({{"a", icosphere(1, 1.0), 1}, {"b", icosphere(0, 2.0), 1}, {"c", icosphere(1, 3.0), 1}});
  EXPECT_EQ(get_offset(-1), 1);
  EXPECT_EQ(get_offset(0), 1);
  EXPECT_EQ(get_offset(1), 43);
  EXPECT_EQ(get_offset(2), 55);
  EXPECT_EQ(get_offset(3), 97);
}

TEST(Bmatrix, SingleSphereRowsTotalOneAndFarEntriesMatchTheSolidAngle) {
  TriMesh m = icosphere(3, 1.0);  // 642 vertices
  load_model({{"sphere.tri", m, 0.33f}});
  std::string out = run_b_submatrix(0, 0);
  EXPECT_EQ(geocon[0][0], 1);
  const int n = geo[0].npnt;
  double worst = 0.0;
  for (int r = 1; r <= n; r++) {
    EXPECT_NEAR(block_row_sum(b, r, 0), 1.0, 2e-6) << "row " << r;
    // The own entry is the angle of a shallow cone: about a quarter of the
    // ring radius (an edge or so, here 0.1 to 0.2) on the unit sphere.
    EXPECT_GT(b[r][r], 0.02f);
    EXPECT_LT(b[r][r], 0.07f);
  }
  // Far from the observation vertex every triangle is split equally, so an
  // entry is a third of the solid angle of each triangle around the basis
  // vertex, over 2 pi; for small triangles the solid angle is close to
  // A n.(x - centroid) / |x - centroid|^3.
  for (int r = 1; r <= n; r += 37) {
    const auto &x = m.pnt[r - 1];
    std::vector<double> expect(n, 0.0);
    for (auto &t : m.dhk) {
      double p[3][3], cen[3], e1[3], e2[3], an[3];
      for (int k = 0; k < 3; k++)
        for (int c = 0; c < 3; c++) p[k][c] = m.pnt[t[k]][c];
      for (int c = 0; c < 3; c++) {
        cen[c] = (p[0][c] + p[1][c] + p[2][c]) / 3.0 - x[c];
        e1[c] = p[1][c] - p[0][c];
        e2[c] = p[2][c] - p[0][c];
      }
      an[0] = 0.5 * (e1[1] * e2[2] - e1[2] * e2[1]);
      an[1] = 0.5 * (e1[2] * e2[0] - e1[0] * e2[2]);
      an[2] = 0.5 * (e1[0] * e2[1] - e1[1] * e2[0]);
      double d = std::sqrt(cen[0] * cen[0] + cen[1] * cen[1] + cen[2] * cen[2]);
      double omega = -(an[0] * cen[0] + an[1] * cen[1] + an[2] * cen[2]) / (d * d * d);
      for (int k = 0; k < 3; k++) expect[t[k]] += omega / 3.0 / (2.0 * M_PI);
    }
    for (int c = 1; c <= n; c++) {
      const auto &y = m.pnt[c - 1];
      double dist = std::sqrt((x[0] - y[0]) * (x[0] - y[0]) + (x[1] - y[1]) * (x[1] - y[1]) +
                              (x[2] - y[2]) * (x[2] - y[2]));
      if (dist < 1.0) continue;
      worst = std::max(worst, std::fabs(b[r][c] / expect[c - 1] - 1.0));
    }
  }
  EXPECT_LT(worst, 5e-3);  // the centroid rule is good to (size/distance)^2

  // The whole model: outermost, no deflation partner, I - (B - 1/N).
  std::vector<std::vector<float>> geom = copy_b();
  out = run_b_matrix();
  EXPECT_EQ(geo[0].sigma_out, 0.0f);
  EXPECT_EQ(deflat[0][0], 1.0f);
  for (int r = 1; r <= n; r++) {
    double sum = 0.0;
    for (int c = 1; c <= n; c++) {
      double expect = (r == c ? 1.0 : 0.0) - (geom[r][c] - 1.0 / n);
      ASSERT_NEAR(b[r][c], expect, 2e-7) << r << "," << c;
      sum += b[r][c];
    }
    // Undeflated, constants would be a null vector of I - B; deflated they
    // are reproduced.
    EXPECT_NEAR(sum, 1.0, 1e-5);
  }
}

TEST(Bmatrix, FlatVertexNeighbourhoodHasNoOwnAngle) {
  TriMesh m = cube();
  const double centre[3] = {0.1, -0.2, 0.3};
  ASSERT_NEAR(total_angle(m, centre), 4 * M_PI, 1e-12);  // inward triangles
  load_model({{"cube.tri", m, 1}});
  run_b_submatrix(0, 0);
  for (int r = 1; r <= 14; r++) {
    EXPECT_NEAR(block_row_sum(b, r, 0), 1.0, 1e-6);
    if (r > 8) {
      EXPECT_EQ(b[r][r], 0.0f) << "face centre " << r;
    } else {
      EXPECT_GT(b[r][r], 0.05f) << "corner " << r;
    }
  }
  // A corner of a cube subtends a quarter of the half space it would see
  // if flat: the cone of its three neighbours gives q = R/sqrt(R^2 + h^2).
  // Its ring holds the three adjacent corners and the three face centres:
  // six neighbours, each met twice over the six triangles around it.
  double mc[3] = {0, 0, 0};
  const float *x = m.pnt[0].data();
  std::vector<int> ring;
  for (auto &t : m.dhk)
    for (int k = 0; k < 3; k++)
      if (t[k] == 0) {
        ring.push_back(t[(k + 1) % 3]);
        ring.push_back(t[(k + 2) % 3]);
      }
  ASSERT_EQ(ring.size(), 12u);
  for (int v : ring)
    for (int c = 0; c < 3; c++) mc[c] += m.pnt[v][c] / 12.0;
  std::vector<int> uniq(ring);
  std::sort(uniq.begin(), uniq.end());
  uniq.erase(std::unique(uniq.begin(), uniq.end()), uniq.end());
  double r2 = 0.0, h2 = 0.0;
  for (int v : uniq)
    for (int c = 0; c < 3; c++) r2 += (m.pnt[v][c] - mc[c]) * (m.pnt[v][c] - mc[c]) / 6.0;
  for (int c = 0; c < 3; c++) h2 += (x[c] - mc[c]) * (x[c] - mc[c]);
  double q = std::sqrt(r2) / std::sqrt(r2 + h2), theta = 2 * std::acos(q);
  EXPECT_NEAR(b[1][1], 2 * (1 - q) / theta, 1e-7);
}

TEST(Bmatrix, NestedSpheresOuterConductivityAndDeflatedConstants) {
  const float s1 = 1.0f, s2 = 0.25f;
  // The inner surface is listed second: nothing depends on the order.
  load_model({{"outer.tri", icosphere(2, 1.0), s2}, {"inner.tri", icosphere(1, 0.8, 0.05, 0, -0.03), s1}});
  geometric_blocks();
  EXPECT_EQ(geocon[1][0], 2);
  EXPECT_EQ(geocon[0][1], 0);
  EXPECT_EQ(geocon[0][0], 1);
  EXPECT_EQ(geocon[1][1], 1);
  for (int r = 1; r <= totpnt; r++) {
    const bool inner = r >= get_offset(1);
    EXPECT_NEAR(block_row_sum(b, r, inner ? 1 : 0), 1.0, 2e-6);        // own surface: half the sphere
    EXPECT_NEAR(block_row_sum(b, r, inner ? 0 : 1), inner ? 2.0 : 0.0, 2e-5);  // the other: all or nothing
  }

  std::string out = run_b_matrix();
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
  load_model({{"inner.tri", icosphere(1, 0.7), 0.5f}, {"outer.tri", icosphere(2, 1.0), 0.5f}});
  run_b_matrix();
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= 42; c++) ASSERT_EQ(b[r][c], r == c ? 1.0f : 0.0f) << r << "," << c;
}

TEST(Bmatrix, ThreeNestedSpheresInAnyOrder) {
  const float sin_ = 1.0f, smid = 0.2f, sout = 0.5f;
  // The outermost listed before the middle one, so that the innermost
  // meets an enclosing interface that does not border it first.
  load_model({{"out.tri", icosphere(2, 1.0), sout},
              {"in.tri", icosphere(1, 0.75, 0.02, 0.01, 0.0), sin_},
              {"mid.tri", icosphere(1, 0.9), smid}});
  run_b_matrix();
  const int in = 1, mid = 2, out = 0;
  EXPECT_EQ(geocon[in][mid], 2);
  EXPECT_EQ(geocon[in][out], 2);
  EXPECT_EQ(geocon[mid][out], 2);
  EXPECT_EQ(geocon[mid][in], 0);
  EXPECT_EQ(geocon[out][in], 0);
  EXPECT_EQ(geocon[out][mid], 0);
  // Each surface borders the compartment directly outside it.
  EXPECT_EQ(geo[in].sigma_out, smid);
  EXPECT_EQ(geo[mid].sigma_out, sout);
  EXPECT_EQ(geo[out].sigma_out, 0.0f);
  // By hand: f(in, mid) = (smid^2 - sout^2) / (smid*smid - sin*sout); with a
  // non-conducting exterior the factors towards the outer surface are 1.
  EXPECT_NEAR(deflat[in][mid], (0.04 - 0.25) / (0.04 - 0.5), 1e-6);
  EXPECT_NEAR(deflat[in][out], 1.0, 1e-6);
  EXPECT_NEAR(deflat[mid][out], 1.0, 1e-6);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(deflat[i][i], 1.0f);
    for (int j = 0; j < 3; j++) {
      if (geocon[i][j] == 0) {
        EXPECT_EQ(deflat[i][j], 0.0f);
      }
    }
  }
}

TEST(Bmatrix, DeflationFactorsByHand) {
  // Two shells whose outer side conducts too, so that nothing cancels.
  Interface t[3];
  memset(t, 0, sizeof t);
  for (auto &row : geocon)
    for (int &v : row) v = 0;
  for (int i = 0; i < 3; i++) geocon[i][i] = 1;
  geocon[0][1] = 2;
  t[0].sigma_in = 2.0f;
  t[0].sigma_out = 0.5f;
  t[1].sigma_in = 0.5f;
  t[1].sigma_out = 0.125f;
  float f[MAXGEO][MAXGEO];
  for (auto &row : f)
    for (float &v : row) v = 9.0f;
  get_deflat(t, 2, f);
  // (s1in^2 - s1out^2) / (s0out s1in - s0in s1out) = (0.25 - 1/64) / (0.25 - 0.25)
  // is a zero denominator: the entry is left alone.
  EXPECT_EQ(f[0][1], 9.0f);
  EXPECT_EQ(f[0][0], 1.0f);
  EXPECT_EQ(f[1][1], 1.0f);
  EXPECT_EQ(f[1][0], 0.0f);

  t[1].sigma_out = 0.25f;
  get_deflat(t, 2, f);
  // (0.25 - 0.0625) / (0.5*0.5 - 2*0.25) = 0.1875 / -0.25
  EXPECT_FLOAT_EQ(f[0][1], -0.75f);

  // Three shells: the one between multiplies in its own factor.
  geocon[0][2] = geocon[1][2] = 2;
  t[1].sigma_out = 0.3f;
  t[2].sigma_in = 0.3f;
  t[2].sigma_out = 0.1f;
  get_deflat(t, 3, f);
  const double a0i = 2, a0o = 0.5, a1i = 0.5, a1o = 0.3, a2i = 0.3, a2o = 0.1;
  EXPECT_NEAR(f[0][1], (a1i * a1i - a1o * a1o) / (a0o * a1i - a0i * a1o), 1e-6);
  EXPECT_NEAR(f[1][2], (a2i * a2i - a2o * a2o) / (a1o * a2i - a1i * a2o), 1e-6);
  EXPECT_NEAR(f[0][2],
              (a2i * a2i - a2o * a2o) / (a0o * a2i - a0i * a2o) * (a1i * a2i - a1o * a2o) / (a1o * a2i - a1i * a2o),
              1e-5);
  // A vanishing factor of the shell between leaves the entry as it was.
  t[1].sigma_out = 0.25f;
  t[2].sigma_in = 0.5f;
  t[2].sigma_out = 0.25f;  // 0.25*0.5 - 0.5*0.25 = 0
  f[0][2] = 9.0f;
  get_deflat(t, 3, f);
  EXPECT_EQ(f[0][2], 9.0f);
}

TEST(Bmatrix, TransformScalesBlocksByConductivity) {
  // Two interfaces of 2 and 1 vertices with a hand-made geometric matrix.
  Interface t[2];
  memset(t, 0, sizeof t);
  t[0].npnt = 2;
  t[0].sigma_in = 3.0f;
  t[0].sigma_out = 1.0f;
  t[1].npnt = 1;
  t[1].sigma_in = 1.0f;
  t[1].sigma_out = 0.0f;
  float f[MAXGEO][MAXGEO] = {};
  f[0][0] = f[1][1] = 1.0f;
  f[0][1] = 0.5f;
  float **m = matrix(1, 3, 1, 3);
  const float g[3][3] = {{0.1f, 0.2f, 0.3f}, {0.4f, 0.5f, 0.6f}, {0.7f, 0.8f, 0.9f}};
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) m[r + 1][c + 1] = g[r][c];
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
  load_model({{"outer.tri", icosphere(2, 1.0), 1}, {"inner.tri", icosphere(1, 0.6), 1}});
  ASSERT_EQ(totpnt, 204);
  std::string out = run_b_matrix();
  const std::string head = " Bmat countdown:  200 (pass 1)\r Bmat countdown:  190 (pass 1)\r"
                           " Bmat countdown:  180 (pass 1)\r";
  EXPECT_EQ(out.substr(0, head.size()), head);
  std::string expect = countdown_rows(1, 162, " (pass 1)\r") + countdown_rows(163, 42, " (pass 1)\r") +
                       countdown_rows(1, 162, " (pass 2)\r") + countdown_rows(163, 42, " (pass 2)\r") + "\n";
  EXPECT_EQ(out, expect);
  EXPECT_NE(out.find(" Bmat countdown:   50 (pass 2)\r Bmat countdown:   40 (pass 2)\r"), std::string::npos);
  EXPECT_EQ(out.substr(out.size() - 32), " Bmat countdown:    0 (pass 2)\r\n");

  // A single interface has one pass and no pass label.
  load_model({{"one.tri", icosphere(1, 1.0), 1}});
  out = run_b_matrix();
  EXPECT_EQ(out, " Bmat countdown:   40\r Bmat countdown:   30\r Bmat countdown:   20\r"
                 " Bmat countdown:   10\r Bmat countdown:    0\r\n");

  // With three interfaces pass 2 counts on blocks (i, 0) and (0, 1) only.
  load_model({{"a.tri", icosphere(1, 1.0), 1}, {"b.tri", icosphere(1, 0.8), 1}, {"c.tri", icosphere(0, 0.5), 1}});
  out = run_b_matrix();
  expect = countdown_rows(1, 42, " (pass 1)\r") + countdown_rows(43, 42, " (pass 1)\r") +
           countdown_rows(85, 12, " (pass 1)\r") + countdown_rows(1, 42, " (pass 2)\r") +
           countdown_rows(43, 42, " (pass 2)\r") + countdown_rows(85, 12, " (pass 2)\r") + "\n";
  EXPECT_EQ(out, expect);
}

TEST(Bmatrix, CoincidentVertexTakesTheRowOfTheVertexItSitsOn) {
  // The inner sphere reaches out to touch the outer one at vertex 0 (both
  // meshes have their vertices on the same rays).
  TriMesh outer = icosphere(1, 1.0), inner = icosphere(1, 0.5);
  inner.pnt[0] = outer.pnt[0];
  load_model({{"outer.tri", outer, 1}, {"inner.tri", inner, 1}});
  testing::internal::CaptureStdout();
  b_submatrix(0, 0);
  b_submatrix(1, 1);
  testing::internal::GetCapturedStdout();

  // Rows of the inner vertices against the outer surface.  Vertex 0 cannot
  // tell its side, vertex 1 finds it inside, and the block is made again so
  // that vertex 0 counts as inside too.
  std::string out = run_b_submatrix(1, 0);
  EXPECT_EQ(geocon[1][0], 2);
  const int r0 = get_offset(1);
  for (int c = 1; c <= 42; c++) EXPECT_EQ(b[r0][c], b[1][c] + (c == 1 ? 1.0f : 0.0f)) << c;
  for (int r = r0; r < r0 + 42; r++) EXPECT_NEAR(block_row_sum(b, r, 0), 2.0, 2e-5);
  // The countdown of the first pass was cut short at row 44 (vertex 1) and
  // starts again.
  EXPECT_EQ(out, countdown_line(40, " (pass 2)\r") + countdown_rows(r0, 42, " (pass 2)\r"));

  // Rows of the outer vertices against the inner surface: outside, so the
  // coincident vertex's row is the inner vertex's row less one.
  run_b_submatrix(0, 1);
  EXPECT_EQ(geocon[0][1], 0);
  for (int c = 0; c < 42; c++) EXPECT_EQ(b[1][r0 + c], b[r0][r0 + c] - (c == 0 ? 1.0f : 0.0f)) << c;
  for (int r = 1; r <= 42; r++) EXPECT_NEAR(block_row_sum(b, r, 1), 0.0, 2e-5);

  // The whole model is accepted.
  load_model({{"outer.tri", outer, 1}, {"inner.tri", inner, 1}});
  run_b_matrix();
  EXPECT_EQ(geo[1].sigma_out, 1.0f);
}

TEST(Bmatrix, IsolatedSourceSubModel) {
  // The isolated-source interface in the middle; the small one inside it is
  // listed first and so belongs to its sub-model.
  load_model({{"small.tri", icosphere(1, 0.5), 1.0f},
              {"mid.tri", icosphere(1, 0.8), 0.5f},
              {"large.tri", icosphere(2, 1.0), 0.25f}},
             1);
  std::string out = run_b_matrix();
  EXPECT_EQ(iso_ngeo, 2);
  EXPECT_EQ(iso_index[0], 1);
  EXPECT_EQ(iso_index[1], 0);
  EXPECT_EQ(iso_totpnt, 84);
  EXPECT_STREQ(iso_geo[0].name, "mid.tri");
  EXPECT_EQ(iso_geo[0].sigma_out, 0.0f);
  EXPECT_EQ(geo[1].sigma_out, 0.25f);  // only the copy loses its outside
  EXPECT_STREQ(iso_geo[1].name, "small.tri");
  ASSERT_NE(iso_b, nullptr);
  EXPECT_EQ(&iso_b[84][1], &iso_b[1][1] + 83 * 84);  // one 84 x 84 block
  EXPECT_NE(out.find("\nIsolated source part: 2 compartments, 84 vertices.\n\n"), std::string::npos);
  EXPECT_EQ(out.substr(out.size() - 2), "\n\n");
  const size_t at = out.find("\nIsolated");
  EXPECT_EQ(out.substr(at), "\nIsolated source part: 2 compartments, 84 vertices.\n\n\n");
}

TEST(Bmatrix, IsolatedSourceAloneIsAClosedNonConductingSurface) {
  const std::vector<Surface> model = {{"scalp.tri", icosphere(2, 1.0), 0.3f}, {"brain.tri", icosphere(1, 0.7), 0.9f}};
  load_model(model);
  run_b_matrix();
  std::vector<std::vector<float>> plain = copy_b();

  load_model(model, 1);
  std::string out = run_b_matrix();
  EXPECT_EQ(iso_ngeo, 1);
  EXPECT_EQ(iso_totpnt, 42);
  const std::string tail = "\nIsolated source part: 1 compartments, 42 vertices.\n\n\n";
  ASSERT_GT(out.size(), tail.size());
  EXPECT_EQ(out.substr(out.size() - tail.size()), tail);
  // The full model does not change.
  for (int r = 1; r <= totpnt; r++)
    for (int c = 1; c <= totpnt; c++) ASSERT_EQ(b[r][c], plain[r][c]);
  // The sub-model is the brain alone with nothing outside: I - (B - 1/N).
  float **iso = iso_b;
  run_b_submatrix(1, 1);
  const int o = get_offset(1);
  for (int r = 1; r <= 42; r++) {
    double sum = 0.0;
    for (int c = 1; c <= 42; c++) {
      ASSERT_NEAR(iso[r][c], (r == c) - (b[o + r - 1][o + c - 1] - 1.0 / 42), 2e-7);
      sum += iso[r][c];
    }
    EXPECT_NEAR(sum, 1.0, 1e-5);
  }
}

using BmatrixDeath = testing::Test;

TEST(BmatrixDeath, ReversedInterfaceIsNotClosed) {
  load_model({{"outer.tri", reversed(icosphere(1, 1.0)), 1}, {"inner.tri", icosphere(1, 0.5), 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              "Fatal error in [a-z]+:  interface outer.tri is not a single closed surface\n"
              " \\(totsolangle= ?-(1\\.99[5-9][0-9]|2\\.000[0-5]) from vertex 1 of inner.tri \\)\n");
}

TEST(BmatrixDeath, NearlyIdenticalSurfacesContainEachOther) {
  // Both are the same sphere with one triangle split by a slightly sunken
  // centre point, a different triangle in each: every other vertex
  // coincides and each sunken point lies inside the other surface.
  auto dent = [](int t) {
    TriMesh m = icosphere(1, 1.0);
    auto tri = m.dhk[t];
    std::array<float, 3> c;
    for (int k = 0; k < 3; k++) c[k] = 0.9f * (m.pnt[tri[0]][k] + m.pnt[tri[1]][k] + m.pnt[tri[2]][k]) / 3.0f;
    m.pnt.push_back(c);
    int n = (int)m.pnt.size() - 1;
    m.dhk[t] = {tri[0], tri[1], n};
    m.dhk.push_back({tri[1], tri[2], n});
    m.dhk.push_back({tri[2], tri[0], n});
    return m;
  };
  load_model({{"first.tri", dent(3), 1}, {"second.tri", dent(60), 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              "geometry consistency error;\n first.tri is contained within second.tri as well as vise versa.\n"
              "Probably first.tri and second.tri coincide\n");
}

TEST(BmatrixDeath, IdenticalSurfacesHaveNoVertexApart) {
  load_model({{"first.tri", icosphere(1, 1.0), 1}, {"second.tri", icosphere(1, 1.0), 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              " could not find a vertex of first.tri that does not touch second.tri\n");
}

TEST(BmatrixDeath, TwoSurfacesSideBySide) {
  load_model({{"left.tri", icosphere(1, 1.0, -3, 0, 0), 1}, {"right.tri", icosphere(1, 1.0, 3, 0, 0), 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              "left.tri and right.tri are both at the outside\n There may only be one interface at the outside\n");
}

TEST(BmatrixDeath, IntersectingSurfaces) {
  load_model({{"a.tri", icosphere(1, 1.0), 1}, {"b.tri", icosphere(1, 1.0, 1.03, 0.07, 0.11), 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              " interface a.tri and b.tri intersect \n at vertex [0-9]+ of a.tri\n\n\n");
}

TEST(BmatrixDeath, ContainedInterfaceMayNotTouch) {
  // Inner surface touching the outer one at vertex 0 and poking through it
  // along the ray of vertex 3 (opposite vertex 0).
  TriMesh outer = icosphere(1, 1.0), inner = icosphere(1, 0.5);
  inner.pnt[0] = outer.pnt[0];
  for (int c = 0; c < 3; c++) inner.pnt[3][c] = 1.5f * outer.pnt[3][c];
  load_model({{"outer.tri", outer, 1}, {"inner.tri", inner, 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              " interface outer.tri and inner.tri intersect \n at vertex 4 of outer.tri\n"
              " \\(an interface that is contained within another one may not touch it\\)\n");
}

TEST(BmatrixDeath, VertexOnAnotherInterfacesTriangle) {
  TriMesh box = cube(), ball = icosphere(1, 0.5);
  int top = 0;
  for (int k = 1; k < (int)ball.pnt.size(); k++)
    if (ball.pnt[k][2] > ball.pnt[top][2]) top = k;
  ball.pnt[top] = {0.5f, 0.1f, 1.0f};  // on the top face of the cube
  // The face triangle holding that point.
  int hit = -1;
  for (int t = 0; t < (int)box.dhk.size(); t++) {
    auto &tr = box.dhk[t];
    if (box.pnt[tr[0]][2] != 1.0f || box.pnt[tr[1]][2] != 1.0f || box.pnt[tr[2]][2] != 1.0f) continue;
    double s[3];
    for (int k = 0; k < 3; k++) {
      auto &p = box.pnt[tr[k]], &q = box.pnt[tr[(k + 1) % 3]];
      s[k] = (q[0] - p[0]) * (0.1 - p[1]) - (q[1] - p[1]) * (0.5 - p[0]);
    }
    if ((s[0] > 0 && s[1] > 0 && s[2] > 0) || (s[0] < 0 && s[1] < 0 && s[2] < 0)) hit = t;
  }
  ASSERT_GE(hit, 0);
  load_model({{"cube.tri", box, 1}, {"ball.tri", ball, 1}});
  const std::string msg = "during computation of B-matrix;\n vertex " + std::to_string(top + 1) +
                          " of ball.tri touches triangle " + std::to_string(hit + 1) + " of cube.tri\n";
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1), msg);
}

TEST(BmatrixDeath, DoubleVertexInOneSurface) {
  TriMesh m = icosphere(1, 1.0);
  m.pnt[20] = m.pnt[0];
  load_model({{"twice.tri", m, 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1), "double vertex at twice.tri\n");
}

TEST(BmatrixDeath, MalformedTriangleLists) {
  TriMesh m = icosphere(1, 1.0);
  m.dhk[7][1] = 42;
  load_model({{"bad.tri", m, 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1), "triangle 8 of bad.tri refers to a vertex that does not exist");
  m = icosphere(1, 1.0);
  m.pnt.push_back({0, 0, 0});
  load_model({{"loose.tri", m, 1}});
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1), "vertex 43 of loose.tri belongs to no triangle");
}

TEST(BmatrixDeath, IsolatedSourceMustBeInnermostAndEnclosed) {
  load_model({{"large.tri", icosphere(1, 1.0), 1}, {"mid.tri", icosphere(1, 0.8), 1}, {"small.tri", icosphere(1, 0.5), 1}},
             1);
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1), "The isolated source interface should be the innermost one\n");
  load_model({{"large.tri", icosphere(1, 1.0), 1}, {"mid.tri", icosphere(1, 0.8), 1}}, 0);
  EXPECT_EXIT(run_b_matrix(), testing::ExitedWithCode(1),
              "The isolated source interface \\(large.tri\\) \n   should be contained within at least one other "
              "interface\n");
}
