// Inversion of the system matrix for the electrodes, reflation, and the file
// that stores the inverted matrix with its model.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/ama.h"
#include "forwinv/bmatrix.h"
#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "forwinv/invert.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"
#include "tests/support/files.h"
#include "tools/icosphere.h"

namespace {

using DMat = std::vector<std::vector<double>>;  // zero-based, double

// Put a mesh into geo[i] with the given conductivities.
void set_interface(int i, const TriMesh &m, const char *name, float sigma_in, float sigma_out) {
  Interface &g = geo[i];
  memset(g.name, 0, NAMELEN);
  strncpy(g.name, name, NAMELEN - 1);
  g.npnt = (int)m.pnt.size();
  g.ndhk = (int)m.dhk.size();
  g.pnt = static_cast<float(*)[3]>(calloc(g.npnt + 1, sizeof *g.pnt));
  g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk + 1, sizeof *g.dhk));
  for (int k = 0; k < g.npnt; k++)
    for (int d = 0; d < 3; d++) g.pnt[k][d] = m.pnt[k][d];
  for (int t = 0; t < g.ndhk; t++)
    for (int d = 0; d < 3; d++) g.dhk[t][d] = m.dhk[t][d];
  g.sigma_in = sigma_in;
  g.sigma_out = sigma_out;
}

// Matrices the tests made; freed after each test with the model's tables,
// so that a leak checker sees only what the code under test loses.
std::vector<float **> g_owned;

float **owned(float **m) {
  g_owned.push_back(m);
  return m;
}

// Free a model table unless it is one of the tests' own matrices.
void release_table(float **&m) {
  if (m && std::find(g_owned.begin(), g_owned.end(), m) == g_owned.end()) free_matrix(m, 1, 0, 1, 0);
  m = nullptr;
}

// Free everything the tests or the loader allocated for the model.
void release_all() {
  release_table(b);
  release_table(bi);
  release_table(iso_b);
  for (float **m : g_owned) free_matrix(m, 1, 0, 1, 0);
  g_owned.clear();
  for (int i = 0; i < MAXGEO; i++) {
    free(geo[i].pnt);
    free(geo[i].dhk);
    geo[i].pnt = nullptr;
    geo[i].dhk = nullptr;
  }
  free(el);
  el = nullptr;
}

void reset_model() {
  ngeo = totpnt = totdhk = 0;
  memset(geocon, 0, sizeof geocon);
  memset(deflat, 0, sizeof deflat);
  iso_sur = -1;
  inner_only = 0;
  iso_b = nullptr;
  iso_totpnt = 0;
  nel = 0;
  el = nullptr;
  elec_vertex = 1;
  surfelec = 1;
  bi = nullptr;
  memset(elname, 0, NAMELEN);
}

void finish_totals() {
  totpnt = totdhk = 0;
  for (int i = 0; i < ngeo; i++) {
    totpnt += geo[i].npnt;
    totdhk += geo[i].ndhk;
  }
}

// A well-conditioned, non-symmetric random matrix [1..n][1..n].
float **random_system(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> u(-1, 1);
  float **m = owned(matrix(1, n, 1, n));
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) m[r][c] = (r == c ? 2.0f : 0.0f) + u(gen) * 1.5f / (float)n;
  return m;
}

DMat to_double(float **m, int n) {
  DMat a(n, std::vector<double>(n));
  for (int r = 0; r < n; r++)
    for (int c = 0; c < n; c++) a[r][c] = m[r + 1][c + 1];
  return a;
}

// Inverse by Gauss-Jordan elimination with partial pivoting, in double.
DMat inverse(DMat a) {
  int n = (int)a.size();
  DMat x(n, std::vector<double>(n, 0.0));
  for (int i = 0; i < n; i++) x[i][i] = 1;
  for (int k = 0; k < n; k++) {
    int p = k;
    for (int r = k + 1; r < n; r++)
      if (std::fabs(a[r][k]) > std::fabs(a[p][k])) p = r;
    std::swap(a[k], a[p]);
    std::swap(x[k], x[p]);
    double d = a[k][k];
    for (int c = 0; c < n; c++) {
      a[k][c] /= d;
      x[k][c] /= d;
    }
    for (int r = 0; r < n; r++) {
      if (r == k || a[r][k] == 0) continue;
      double f = a[r][k];
      for (int c = 0; c < n; c++) {
        a[r][c] -= f * a[k][c];
        x[r][c] -= f * x[k][c];
      }
    }
  }
  return x;
}

// b_invert with its countdown kept off the test log.
float **invert_quietly(float **lu, int n) {
  float **out = nullptr;
  testing::internal::CaptureStdout();
  b_invert(lu, &out, nel, n);
  testing::internal::GetCapturedStdout();
  return owned(out);
}

float **factorised_copy(float **m, int n) {
  float **f = owned(matrix(1, n, 1, n));
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) f[r][c] = m[r][c];
  float cond;
  ludec(f, n, &cond);
  return f;
}

// Interface of global vertex number p (1-based).
int interface_of(int p) {
  for (int i = 0, off = 0; i < ngeo; off += geo[i].npnt, i++)
    if (p <= off + geo[i].npnt) return i;
  return -1;
}

// Add to x (zero-based over all vertices) the constants that undo the
// deflation, written out from the deflation factors.
void reflate_double(std::vector<double> &x) {
  std::vector<double> add(ngeo, 0.0);
  for (int j = 0, offj = 0; j < ngeo; offj += geo[j].npnt, j++) {
    double so = geo[j].sigma_out, si = geo[j].sigma_in;
    if (so == 0) continue;
    double s = 0;
    for (int p = 0; p < geo[j].npnt; p++) s += x[offj + p];
    for (int i = 0; i < ngeo; i++) add[i] += (si - so) * deflat[i][j] * s / (2 * so * geo[j].npnt);
  }
  for (int p = 0; p < (int)x.size(); p++) x[p] += add[interface_of(p + 1)];
}

// Potential at electrode e from x (zero-based over all vertices).
double electrode_value(int e, const std::vector<double> &x) {
  if (elec_vertex) return x[el[e].index - 1];
  int t = el[e].index, g = 0;
  while (t >= geo[g].ndhk) t -= geo[g++].ndhk;
  const int32_t *tri = geo[g].dhk[t];
  double u = el[e].u, v = el[e].v;
  return (1 - u - v) * x[tri[0]] + u * x[tri[1]] + v * x[tri[2]];
}

double max_abs(float **m, int rows, int cols) {
  double a = 0;
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) a = std::max(a, (double)std::fabs(m[r][c]));
  return a;
}

class InvertTest : public testing::Test {
 protected:
  Electrode table[8] = {};
  void SetUp() override {
    reset_model();
    set_verbose(0);
  }
  void TearDown() override {
    el = nullptr;  // the fixture's own table
    release_all();
  }
  // Two nested spheres: outer 162 vertices, inner 42.
  void two_spheres() {
    ngeo = 2;
    set_interface(0, icosphere(2, 2.0), "outer", 1.0f, 0.0f);
    set_interface(1, icosphere(1, 1.0), "inner", 0.25f, 1.0f);
    geocon[0][0] = geocon[1][1] = 1;
    geocon[1][0] = 2;
    deflat[0][0] = deflat[1][1] = 1;
    deflat[1][0] = 0.6f;
    deflat[0][1] = 0.3f;  // not a physical table; exercises every term
    finish_totals();
  }
};

// Every entry of bi against an independent double-precision inverse of B.
void expect_matches_reference(float **bmat, float **bi_m, bool reflate) {
  int n = totpnt;
  DMat x = inverse(to_double(bmat, n));
  double tol = 2e-5 * max_abs(bi_m, nel, n);
  int c = 0;
  for (int i = 0; i < ngeo; i++) {
    double f = 2.0 / ((double)geo[i].sigma_in + geo[i].sigma_out);
    for (int k = 0; k < geo[i].npnt; k++, c++) {
      std::vector<double> col(n);
      for (int p = 0; p < n; p++) col[p] = f * x[p][c];
      if (reflate) reflate_double(col);
      for (int e = 1; e <= nel; e++)
        ASSERT_NEAR(bi_m[e][c + 1], electrode_value(e, col), tol) << "electrode " << e << " column " << c + 1;
    }
  }
}

}  // namespace

TEST_F(InvertTest, ReflationAddsTheDeflatedConstantsPerInterface) {
  ngeo = 2;
  geo[0].npnt = 2;
  geo[0].sigma_in = 1;
  geo[0].sigma_out = 0;
  geo[1].npnt = 3;
  geo[1].sigma_in = 0.5f;
  geo[1].sigma_out = 1;
  deflat[0][0] = deflat[1][1] = 1;
  deflat[0][1] = 0.5f;
  deflat[1][0] = 0.75f;  // the outermost interface's sum is not used
  totpnt = 5;
  float **x = matrix(1, 2, 1, 5);
  const float row1[] = {1, 2, 3, 4, 5}, row2[] = {7, -7, 1, 1, 1};
  for (int p = 1; p <= 5; p++) {
    x[1][p] = row1[p - 1];
    x[2][p] = row2[p - 1];
  }
  sphi_reflate(x, 2);
  // Row 1: S_1 = 12; a_0 = -0.5 * 0.5 * 12 / 6 = -0.5, a_1 = -0.5 * 12 / 6 = -1.
  const float want1[] = {0.5f, 1.5f, 2, 3, 4};
  // Row 2: S_1 = 3; a_0 = -0.125, a_1 = -0.25.
  const float want2[] = {6.875f, -7.125f, 0.75f, 0.75f, 0.75f};
  for (int p = 1; p <= 5; p++) {
    EXPECT_FLOAT_EQ(x[1][p], want1[p - 1]) << p;
    EXPECT_FLOAT_EQ(x[2][p], want2[p - 1]) << p;
  }
  free_matrix(x, 1, 2, 1, 5);
}

TEST_F(InvertTest, SingleInterfaceGivesElectrodeRowsOfTheInverseTimesTwoOverSigma) {
  ngeo = 1;
  set_interface(0, icosphere(2, 1.0), "head", 0.5f, 0.0f);
  geocon[0][0] = 1;
  deflat[0][0] = 1;
  finish_totals();
  int n = totpnt;
  float **bm = random_system(n, 11);
  float **lu = factorised_copy(bm, n);
  DMat x = inverse(to_double(bm, n));

  table[1].index = 1;
  table[2].index = 77;
  table[3].index = n;
  el = table;
  nel = 3;
  elec_vertex = 1;
  for (int flag : {1, 0}) {
    surfelec = flag;
    float **out = invert_quietly(lu, n);
    ASSERT_NE(out, nullptr);
    // f_0 = 2 / sigma_in = 4; reflation adds nothing for one interface.
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= n; c++)
        ASSERT_NEAR(out[e][c], 4.0 * x[table[e].index - 1][c - 1], 2e-5) << e << " " << c;
  }
}

TEST_F(InvertTest, VertexElectrodesOnBothInterfacesWithReflation) {
  two_spheres();
  int n = totpnt;
  float **bm = random_system(n, 5);
  float **lu = factorised_copy(bm, n);
  float **lu_before = factorised_copy(bm, n);
  const int where[] = {3, 162, 163, 204};
  for (int e = 1; e <= 4; e++) table[e].index = where[e - 1];
  el = table;
  nel = 4;
  elec_vertex = 1;
  surfelec = 0;
  float **out = invert_quietly(lu, n);
  expect_matches_reference(bm, out, true);
  // The factorised matrix is left as it was.
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) ASSERT_EQ(lu[r][c], lu_before[r][c]);
}

TEST_F(InvertTest, TriangleElectrodesOnTheOuterInterfaceSkipReflation) {
  two_spheres();
  int n = totpnt;
  float **bm = random_system(n, 9);
  float **lu = factorised_copy(bm, n);
  table[1] = {0, 0.2f, 0.3f, {}};
  table[2] = {100, 0.0f, 1.0f, {}};
  table[3] = {319, 1.0f / 3, 1.0f / 3, {}};
  el = table;
  nel = 3;
  elec_vertex = 0;
  surfelec = 1;
  float **out = invert_quietly(lu, n);
  expect_matches_reference(bm, out, false);

  // With the flag cleared the same electrodes see the reflated solution,
  // which differs on these columns.
  surfelec = 0;
  float **with = invert_quietly(lu, n);
  expect_matches_reference(bm, with, true);
  double diff = 0;
  for (int c = 1; c <= n; c++) diff = std::max(diff, (double)std::fabs(with[1][c] - out[1][c]));
  EXPECT_GT(diff, 1e-4);
}

TEST_F(InvertTest, IsolatedSourceInterface) {
  ngeo = 3;
  set_interface(0, icosphere(1, 3.0), "scalp", 1.0f, 0.0f);
  set_interface(1, icosphere(1, 2.0), "skull", 0.1f, 1.0f);
  set_interface(2, icosphere(1, 1.0), "brain", 0.4f, 0.1f);
  geocon[0][0] = geocon[1][1] = geocon[2][2] = 1;
  geocon[1][0] = geocon[2][0] = geocon[2][1] = 2;
  for (int i = 0; i < 3; i++) deflat[i][i] = 1;
  deflat[1][0] = 0.5f;
  deflat[2][0] = 0.4f;
  deflat[2][1] = 0.8f;
  finish_totals();
  int n = totpnt, m = geo[2].npnt, o_s = geo[0].npnt + geo[1].npnt;
  const double ratio = 0.1 / 0.4;
  float **bm = random_system(n, 21);
  float **lu = factorised_copy(bm, n);
  float **bis = random_system(m, 22);
  table[1].index = 5;
  table[2].index = 60;
  table[3].index = 126;
  el = table;
  nel = 3;
  elec_vertex = 1;

  for (int flag : {0, 1}) {
    SCOPED_TRACE(flag);
    surfelec = flag;
    iso_sur = -1;
    float **plain = invert_quietly(lu, n);

    iso_sur = 2;
    iso_totpnt = m;
    iso_b = factorised_copy(bis, m);  // one of the tests' own matrices
    float **out = invert_quietly(lu, n);

    // Columns of the other interfaces: scaled by sigma_out / sigma_in of s.
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= o_s; c++) ASSERT_NEAR(out[e][c], ratio * plain[e][c], 1e-5) << e << " " << c;

    // Columns of s: source term corrected by the isolated solution w.
    DMat x = inverse(to_double(bm, n)), xs = inverse(to_double(bis, m));
    double f = 2.0 / (0.4 + 0.1);
    for (int k = 0; k < m; k++) {
      std::vector<double> r(n, 0.0), w(m);
      for (int p = 0; p < m; p++) w[p] = 2.0 * xs[p][k];
      r[o_s + k] = f;
      for (int p = 0; p < m; p++) r[o_s + p] = ratio * (r[o_s + p] - f * w[p]);
      std::vector<double> sol(n, 0.0);
      for (int p = 0; p < n; p++)
        for (int q = 0; q < n; q++) sol[p] += x[p][q] * r[q];
      if (!flag) {
        reflate_double(sol);
        for (int p = 0; p < m; p++) sol[o_s + p] += w[p] / 0.4;
      }
      for (int e = 1; e <= nel; e++)
        ASSERT_NEAR(out[e][o_s + k + 1], sol[table[e].index - 1], 1e-4) << e << " " << k;
    }
  }
}

// The system matrix of the model in geo, assembled and factorised; the
// unfactorised matrix is returned in *plain.
float **assembled_system(float ***plain) {
  int n = totpnt;
  b = matrix(1, n, 1, n);
  testing::internal::CaptureStdout();
  b_matrix();
  testing::internal::GetCapturedStdout();
  *plain = owned(matrix(1, n, 1, n));
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) (*plain)[r][c] = b[r][c];
  float cond;
  ludec(b, n, &cond);
  return b;
}

TEST_F(InvertTest, HomogeneousSphereMatchesTheAnalyticDipolePotential) {
  const float sig = 0.5f;
  ngeo = 1;
  set_interface(0, icosphere(2, 1.0), "sphere", sig, 0.0f);
  finish_totals();
  int n = totpnt;
  float **plain;
  float **lu = assembled_system(&plain);
  for (int e = 1; e <= 6; e++) table[e].index = 27 * e;
  el = table;
  nel = 6;
  elec_vertex = 1;
  float **out = invert_quietly(lu, n);
  expect_matches_reference(plain, out, false);

  // Constant source terms come back unchanged (rows of a closed surface sum
  // to one), so every row of bi sums to 2 / sigma.
  for (int e = 1; e <= nel; e++) {
    double sum = 0;
    for (int c = 1; c <= n; c++) sum += out[e][c];
    EXPECT_NEAR(sum, 2.0 / sig, 1e-3);
  }

  // A dipole at the centre: the surface potential is three times the
  // infinite-medium potential of unit conductivity, divided by sigma.
  const double px = 0.3, py = -0.5, pz = 0.8;
  std::vector<double> source(n);
  for (int c = 0; c < n; c++) {
    const float *x = geo[0].pnt[c];
    double r = std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]);
    source[c] = (px * x[0] + py * x[1] + pz * x[2]) / (4 * M_PI * r * r * r);
  }
  for (int e = 1; e <= nel; e++) {
    double v = 0;
    for (int c = 1; c <= n; c++) v += out[e][c] * source[c - 1];
    double want = 3 * source[table[e].index - 1] / sig;
    EXPECT_NEAR(v, want, 0.01 * std::sqrt(px * px + py * py + pz * pz) * 3 / (4 * M_PI * sig)) << e;
  }
}

TEST_F(InvertTest, NestedSpheresAssembledModel) {
  ngeo = 2;
  set_interface(0, icosphere(2, 2.0), "outer", 1.0f, 0.0f);
  set_interface(1, icosphere(1, 1.0), "inner", 0.2f, 0.0f);
  finish_totals();
  int n = totpnt;
  float **plain;
  float **lu = assembled_system(&plain);
  ASSERT_EQ(geocon[1][0], 2);
  ASSERT_EQ(geo[1].sigma_out, 1.0f);
  const int where[] = {10, 162, 163, 200};
  for (int e = 1; e <= 4; e++) table[e].index = where[e - 1];
  el = table;
  nel = 4;
  elec_vertex = 1;
  surfelec = 0;
  float **out = invert_quietly(lu, n);
  expect_matches_reference(plain, out, true);
}

TEST_F(InvertTest, CountdownAboveTwentyFiveColumns) {
  ngeo = 1;
  geo[0].sigma_in = 1;
  deflat[0][0] = 1;
  table[1].index = 1;
  el = table;
  nel = 1;
  for (int n : {25, 26, 204}) {
    SCOPED_TRACE(n);
    geo[0].npnt = totpnt = n;
    float **lu = factorised_copy(random_system(n, 3), n);
    float **out = nullptr;
    testing::internal::CaptureStdout();
    b_invert(lu, &out, nel, n);
    std::string got = testing::internal::GetCapturedStdout();
    owned(out);
    std::string want;
    if (n > 25) {
      char line[64];
      for (int left = (n - 1) / 10 * 10; left >= 0; left -= 10) {
        snprintf(line, sizeof line, "Invrt countdown:%5d\r", left);
        want += line;
      }
      want += "\n";
    }
    EXPECT_EQ(got, want);
  }
}

// ---------------------------------------------------------------------------
// The inverted A-matrix file.

namespace {

struct SavedModel {
  std::vector<Interface> geo_copy;
  std::vector<std::vector<float>> pnt;
  std::vector<std::vector<int32_t>> dhk;
  int geocon_copy[MAXGEO][MAXGEO];
  float deflat_copy[MAXGEO][MAXGEO];
  std::vector<Electrode> el_copy;
  std::vector<float> bi_copy, iso_copy;
  char elname_copy[NAMELEN];
  int ngeo_v, nel_v, vertex_v, surf_v, iso_v, inner_v, totpnt_v, totdhk_v;
};

SavedModel snapshot() {
  SavedModel s;
  s.ngeo_v = ngeo;
  for (int i = 0; i < ngeo; i++) {
    s.geo_copy.push_back(geo[i]);
    s.pnt.emplace_back(&geo[i].pnt[0][0], &geo[i].pnt[0][0] + 3 * geo[i].npnt);
    s.dhk.emplace_back(&geo[i].dhk[0][0], &geo[i].dhk[0][0] + 3 * geo[i].ndhk);
  }
  memcpy(s.geocon_copy, geocon, sizeof geocon);
  memcpy(s.deflat_copy, deflat, sizeof deflat);
  s.el_copy.assign(el, el + nel + 1);
  for (int e = 1; e <= nel; e++) s.bi_copy.insert(s.bi_copy.end(), &bi[e][1], &bi[e][1] + totpnt);
  if (iso_sur != -1)
    for (int p = 1; p <= iso_totpnt; p++) s.iso_copy.insert(s.iso_copy.end(), &iso_b[p][1], &iso_b[p][1] + iso_totpnt);
  memcpy(s.elname_copy, elname, NAMELEN);
  s.nel_v = nel;
  s.vertex_v = elec_vertex;
  s.surf_v = surfelec;
  s.iso_v = iso_sur;
  s.inner_v = inner_only;
  s.totpnt_v = totpnt;
  s.totdhk_v = totdhk;
  return s;
}

// Scramble every table that loading must fill.
void clobber() {
  release_all();
  for (int i = 0; i < MAXGEO; i++) {
    memset(geo[i].name, 'x', NAMELEN);
    geo[i].npnt = geo[i].ndhk = -5;
    geo[i].pnt = nullptr;
    geo[i].dhk = nullptr;
    geo[i].sigma_in = geo[i].sigma_out = -9;
  }
  memset(geocon, 0x55, sizeof geocon);
  memset(deflat, 0x55, sizeof deflat);
  memset(elname, 'y', NAMELEN);
  ngeo = 7;
  nel = 99;
  el = nullptr;
  elec_vertex = surfelec = 7;
  bi = iso_b = nullptr;
  iso_sur = 5;
  inner_only = 3;
  totpnt = totdhk = 12345;
  iso_totpnt = 0;
}

uint32_t word_at(const std::string &bytes, size_t off) {
  uint32_t w;
  memcpy(&w, bytes.data() + off, 4);
  return w;
}

void put_word(std::string &bytes, size_t off, int32_t v) { memcpy(&bytes[off], &v, 4); }

std::string error_reading(const std::string &name) { return "\nerror reading " + name + "\n\n\a\a"; }

class AmaTest : public testing::Test {
 protected:
  TempDir dir;
  void SetUp() override {
    reset_model();
    set_verbose(0);
  }
  void TearDown() override { release_all(); }

  // One or two interfaces, triangle electrodes with labels, random bi, and
  // optionally an isolated-source interface (the last one).
  void build(int interfaces, bool isolated, unsigned seed = 1) {
    ngeo = interfaces;
    set_interface(0, icosphere(1, 2.0), "outer.tri", 1.0f, 0.0f);
    // Bytes after the terminator belong to the stored buffer too.
    memcpy(geo[0].name + 20, "left over", 9);
    if (interfaces > 1) set_interface(1, icosphere(0, 1.0), "inner.tri", 0.3f, 1.0f);
    for (int i = 0; i < ngeo; i++)
      for (int j = 0; j < ngeo; j++) {
        geocon[i][j] = i == j ? 1 : (i > j ? 2 : 0);
        deflat[i][j] = i == j ? 1.0f : 0.125f * (float)(i + 2 * j + 1);
      }
    finish_totals();
    strcpy(elname, "electrodes.txt");
    nel = 3;
    el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
    el[1] = {0, 0.25f, 0.5f, "Fz"};
    el[2] = {17, 0.125f, 0.0f, "ABCDEFGHIJ"};
    el[3] = {totdhk - 1, 0.0f, 0.75f, ""};
    elec_vertex = 0;
    surfelec = 0;
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> u(-1, 1);
    bi = matrix(1, nel, 1, totpnt);
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= totpnt; c++) bi[e][c] = u(gen);
    if (isolated) {
      iso_sur = ngeo - 1;
      iso_totpnt = geo[iso_sur].npnt;
      iso_b = random_system(iso_totpnt, seed + 1);
      inner_only = 1;
    }
  }

  std::string save(const std::string &name) {
    std::string path = dir.file(name);
    testing::internal::CaptureStdout();
    int ok = save_ama(path.c_str(), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(out, "");
    return path;
  }

  // Load and return the result; standard output and error into out / err.
  // What an earlier load allocated is freed first.
  int load(const std::string &path, std::string *out, std::string *err = nullptr, int kind = 0) {
    release_all();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int r = load_ama(path.c_str(), kind);
    std::string o = testing::internal::GetCapturedStdout();
    std::string e = testing::internal::GetCapturedStderr();
    if (out) *out = o;
    if (err) *err = e;
    return r;
  }

  // A load that must be refused as unreadable.
  void expect_refused(const std::string &bytes, const std::string &what) {
    SCOPED_TRACE(what);
    std::string path = dir.file("hostile.ama");
    write_file(path, bytes);
    std::string out;
    EXPECT_EQ(load(path, &out), 0);
    ASSERT_GE(out.size(), error_reading(path).size());
    EXPECT_EQ(out.substr(out.size() - error_reading(path).size()), error_reading(path));
  }
};

size_t expected_size(bool isolated) {
  size_t s = 12;
  for (int i = 0; i < ngeo; i++) s += 80 + 4 + 12 * geo[i].npnt + 4 + 12 * geo[i].ndhk + 8 + 8 * ngeo;
  s += 80 + 4 + 24 * (nel + 1) + 8;
  s += 4 * (size_t)nel * totpnt + 8;
  if (isolated) s += 4 * (size_t)geo[iso_sur].npnt * geo[iso_sur].npnt;
  return s;
}

}  // namespace

TEST_F(AmaTest, RoundTripRestoresTheWholeModel) {
  for (bool isolated : {false, true}) {
    SCOPED_TRACE(isolated);
    release_all();
    reset_model();
    build(2, isolated);
    SavedModel before = snapshot();
    std::string path = save(isolated ? "iso.ama" : "plain.ama");
    std::string bytes = read_file(path);
    EXPECT_EQ(bytes.size(), expected_size(isolated));
    EXPECT_EQ(word_at(bytes, 0), 10u);
    EXPECT_EQ(word_at(bytes, 4), 0u);
    EXPECT_EQ(word_at(bytes, 8), 2u);
    EXPECT_EQ(memcmp(bytes.data() + 12, before.geo_copy[0].name, NAMELEN), 0);

    clobber();
    std::string out;
    ASSERT_EQ(load(path, &out), 1) << out;
    ASSERT_EQ(ngeo, before.ngeo_v);
    EXPECT_EQ(totpnt, before.totpnt_v);
    EXPECT_EQ(totdhk, before.totdhk_v);
    for (int i = 0; i < ngeo; i++) {
      const Interface &g = before.geo_copy[i];
      EXPECT_EQ(memcmp(geo[i].name, g.name, NAMELEN), 0);
      ASSERT_EQ(geo[i].npnt, g.npnt);
      ASSERT_EQ(geo[i].ndhk, g.ndhk);
      EXPECT_EQ(memcmp(geo[i].pnt, before.pnt[i].data(), 12 * g.npnt), 0);
      EXPECT_EQ(memcmp(geo[i].dhk, before.dhk[i].data(), 12 * g.ndhk), 0);
      EXPECT_EQ(geo[i].sigma_in, g.sigma_in);
      EXPECT_EQ(geo[i].sigma_out, g.sigma_out);
      for (int j = 0; j < ngeo; j++) {
        EXPECT_EQ(geocon[i][j], before.geocon_copy[i][j]);
        EXPECT_EQ(deflat[i][j], before.deflat_copy[i][j]);
      }
    }
    EXPECT_EQ(memcmp(elname, before.elname_copy, NAMELEN), 0);
    ASSERT_EQ(nel, before.nel_v);
    EXPECT_EQ(memcmp(el, before.el_copy.data(), sizeof(Electrode) * (nel + 1)), 0);
    EXPECT_STREQ(el[1].label, "Fz");
    EXPECT_EQ(elec_vertex, before.vertex_v);
    EXPECT_EQ(surfelec, before.surf_v);
    ASSERT_NE(bi, nullptr);
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= totpnt; c++) ASSERT_EQ(bi[e][c], before.bi_copy[(e - 1) * totpnt + c - 1]);
    EXPECT_EQ(iso_sur, before.iso_v);
    EXPECT_EQ(inner_only, before.inner_v);
    if (isolated) {
      ASSERT_EQ(iso_totpnt, geo[iso_sur].npnt);
      for (int p = 1; p <= iso_totpnt; p++)
        for (int q = 1; q <= iso_totpnt; q++) ASSERT_EQ(iso_b[p][q], before.iso_copy[(p - 1) * iso_totpnt + q - 1]);
    }
    // Saving what was loaded gives the same bytes.
    std::string again = save("again.ama");
    EXPECT_EQ(read_file(again), bytes);
  }
}

TEST_F(AmaTest, OffsetLinesForOneInterface) {
  build(1, false);
  int npnt = geo[0].npnt, ndhk = geo[0].ndhk;
  std::string path = save("one.ama");
  std::string out;
  ASSERT_EQ(load(path, &out), 1);
  int elec = 116 + 12 * npnt + 12 * ndhk;
  int bistart = elec + 80 + 4 + 24 * (nel + 1) + 8;
  EXPECT_EQ(out, "elec starts at " + std::to_string(elec) + "\nbi starts at " + std::to_string(bistart) + "\n");
  // Without an isolated-source interface the file ends with -1 and
  // inner_only, right after bi.
  std::string bytes = read_file(path);
  ASSERT_EQ(bytes.size(), (size_t)bistart + 4 * nel * totpnt + 8);
  EXPECT_EQ((int32_t)word_at(bytes, bytes.size() - 8), -1);
  EXPECT_EQ((int32_t)word_at(bytes, bytes.size() - 4), 0);
}

TEST_F(AmaTest, WrongVersionOrKindIsRefusedWithItsMessage) {
  build(1, false);
  std::string path = save("k.ama");
  std::string bytes = read_file(path);
  std::string out, err;

  std::string v9 = bytes;
  put_word(v9, 0, 9);
  std::string p9 = dir.file("v9.ama");
  write_file(p9, v9);
  EXPECT_EQ(load(p9, &out, &err), 0);
  EXPECT_EQ(err, p9 + " is either not an inverted A matrix, or one of an old version.\n"
                      "Anyway, this program cannot use it\n");
  EXPECT_EQ(out, "");

  std::string ptxt = dir.file("text.ama");
  write_file(ptxt, "this is no matrix file\n");
  EXPECT_EQ(load(ptxt, &out, &err), 0);
  EXPECT_EQ(err, ptxt + " is either not an inverted A matrix, or one of an old version.\n"
                        "Anyway, this program cannot use it\n");

  const struct {
    int kind;
    const char *words;
  } kinds[] = {{1, "a magnetic"}, {2, "a combined electric/magnetic"}, {7, "an unknown type"}};
  for (auto &k : kinds) {
    std::string kb = bytes;
    put_word(kb, 4, k.kind);
    std::string pk = dir.file("head.ama");
    write_file(pk, kb);
    EXPECT_EQ(load(pk, &out, &err), 0);
    EXPECT_EQ(err, "You need an electric inverted A matrix; " + pk + " is " + k.words + " inverted A matrix\n\n\a\a");
    EXPECT_EQ(out, "");
  }
  // Asking for another kind names it first.
  EXPECT_EQ(load(path, &out, &err, 1), 0);
  EXPECT_EQ(err, "You need a magnetic inverted A matrix; " + path + " is an electric inverted A matrix\n\n\a\a");
}

TEST_F(AmaTest, ModeNames) {
  char text[NAMELEN];
  const char *want[] = {"an electric", "a magnetic", "a combined electric/magnetic", "an unknown type",
                        "an unknown type"};
  const int kinds[] = {0, 1, 2, 3, -1};
  for (int i = 0; i < 5; i++) {
    modename(text, kinds[i]);
    EXPECT_STREQ(text, want[i]);
  }
}

TEST_F(AmaTest, FileCutShortAnywhereIsAReadError) {
  build(2, true);
  std::string path = save("full.ama");
  std::string bytes = read_file(path);
  std::string cut = dir.file("cut.ama");
  for (size_t len = 0; len < bytes.size(); len += (len < 1200 ? 1 : 37)) {
    SCOPED_TRACE(len);
    write_file(cut, bytes.substr(0, len));
    std::string out;
    ASSERT_EQ(load(cut, &out), 0);
    ASSERT_GE(out.size(), error_reading(cut).size());
    ASSERT_EQ(out.substr(out.size() - error_reading(cut).size()), error_reading(cut));
  }
  // The last byte matters too.
  write_file(cut, bytes.substr(0, bytes.size() - 1));
  std::string out;
  EXPECT_EQ(load(cut, &out), 0);
}

TEST_F(AmaTest, HostileCountsAndIndicesAreRefused) {
  build(2, true);
  std::string path = save("base.ama");
  const std::string bytes = read_file(path);
  // Loading refused files changes the model, so take its sizes first.
  const int n0 = geo[0].npnt, m0 = geo[0].ndhk, n1 = geo[1].npnt, m1 = geo[1].ndhk;
  const int all_pnt = totpnt, all_dhk = totdhk, n_el = nel;
  const size_t npnt0 = 12 + 80;                 // npnt of interface 0
  const size_t ndhk0 = npnt0 + 4 + 12 * n0;     // ndhk of interface 0
  const size_t dhk0 = ndhk0 + 4;                // first triangle of interface 0
  const size_t if1 = dhk0 + 12 * m0 + 8 + 16;   // interface 1 record
  const size_t elec = if1 + 80 + 4 + 12 * n1 + 4 + 12 * m1 + 8 + 16;
  const size_t nelw = elec + 80;
  const size_t el1 = nelw + 4 + 24;             // index of electrode 1
  const size_t vflag = nelw + 4 + 24 * (n_el + 1);
  const size_t isow = vflag + 8 + 4 * (size_t)n_el * all_pnt;
  ASSERT_EQ((int32_t)word_at(bytes, npnt0), n0);
  ASSERT_EQ((int32_t)word_at(bytes, ndhk0), m0);
  ASSERT_EQ((int32_t)word_at(bytes, if1 + 80), n1);
  ASSERT_EQ((int32_t)word_at(bytes, nelw), n_el);
  ASSERT_EQ((int32_t)word_at(bytes, isow), 1);

  auto patched = [&](size_t off, int32_t v) {
    std::string b = bytes;
    put_word(b, off, v);
    return b;
  };
  for (int32_t v : {0, 11, -1, 1 << 30}) expect_refused(patched(8, v), "ngeo " + std::to_string(v));
  for (int32_t v : {-1, 1 << 28, 2000000000}) expect_refused(patched(npnt0, v), "npnt " + std::to_string(v));
  for (int32_t v : {-3, 1 << 27}) expect_refused(patched(ndhk0, v), "ndhk " + std::to_string(v));
  for (int32_t v : {-1, n0}) expect_refused(patched(dhk0 + 8, v), "vertex of a triangle " + std::to_string(v));
  const size_t geocon0 = dhk0 + 12 * m0 + 8;    // row 0 of the relation codes
  ASSERT_EQ(word_at(bytes, geocon0), 1u);
  for (int32_t v : {-1, 3}) expect_refused(patched(geocon0 + 4, v), "relation code " + std::to_string(v));
  for (int32_t v : {0, -2, 1 << 29}) expect_refused(patched(nelw, v), "nel " + std::to_string(v));
  // Triangle electrodes: 0 .. totdhk - 1.
  for (int32_t v : {-1, all_dhk}) expect_refused(patched(el1, v), "triangle electrode " + std::to_string(v));
  // As vertex electrodes: 1 .. totpnt.
  {
    std::string vb = patched(vflag, 1);
    put_word(vb, el1, 1);
    put_word(vb, el1 + 24, all_pnt);
    put_word(vb, el1 + 48, 7);
    std::string ok = dir.file("vertex.ama");
    write_file(ok, vb);
    std::string out;
    EXPECT_EQ(load(ok, &out), 1) << out;
    for (int32_t v : {0, all_pnt + 1}) {
      put_word(vb, el1 + 24, v);
      expect_refused(vb, "vertex electrode " + std::to_string(v));
    }
  }
  for (int32_t v : {-2, 2, 100}) expect_refused(patched(isow, v), "iso_sur " + std::to_string(v));
  // iso_sur = 0 would need a larger iso_b than the file holds.
  expect_refused(patched(isow, 0), "iso_sur 0");
  // The untouched file still loads.
  std::string out;
  EXPECT_EQ(load(path, &out), 1);
}

TEST_F(AmaTest, WriteAndOpenFailuresAreReported) {
  build(1, false);
  testing::internal::CaptureStdout();
  EXPECT_EQ(save_ama("/dev/full", 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nerror writing to /dev/full\n\n\a\a");

  std::string nowhere = dir.file("no/such/folder.ama");
  testing::internal::CaptureStdout();
  EXPECT_EQ(save_ama(nowhere.c_str(), 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nerror opening " + nowhere + "\n\n\a\a");

  std::string out;
  EXPECT_EQ(load(nowhere, &out), 0);
  EXPECT_EQ(out, "\nerror opening " + nowhere + "\n\n\a\a");
}
