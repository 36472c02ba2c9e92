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
#include "forwinv/forwinv.h"
#include "forwinv/invert.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"
#include "tests/support/files.h"
#include "tests/support/h1_model.h"
#include "tools/icosphere.h"

namespace {

using DMat = std::vector<std::vector<double>>;  // zero-based, double

// Matrices the tests made, freed after each test.
std::vector<float **> g_owned;
float **owned(float **m) { return g_owned.push_back(m), m; }

// A well-conditioned, non-symmetric random matrix [1..n][1..n].
float **random_system(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> u(-1, 1);
  float **m = owned(matrix(1, n, 1, n));
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) m[r][c] = (r == c ? 2.0f : 0.0f) + u(gen) * 1.5f / (float)n;
  return m;
}

float **factorised_copy(float **m, int n) {
  float **f = owned(matrix(1, n, 1, n));
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) f[r][c] = m[r][c];
  float cond;
  ludec(f, n, &cond);
  return f;
}

// Inverse of m[1..n][1..n] by Gauss-Jordan elimination with partial
// pivoting, in double.
DMat inverse(float **m, int n) {
  DMat a(n, std::vector<double>(2 * n, 0.0));
  for (int r = 0; r < n; r++) {
    for (int c = 0; c < n; c++) a[r][c] = m[r + 1][c + 1];
    a[r][n + r] = 1;
  }
  for (int k = 0; k < n; k++) {
    int p = k;
    for (int r = k + 1; r < n; r++)
      if (std::fabs(a[r][k]) > std::fabs(a[p][k])) p = r;
    std::swap(a[k], a[p]);
    const double d = a[k][k];
    for (double &v : a[k]) v /= d;
    for (int r = 0; r < n; r++)
      if (r != k && a[r][k] != 0)
        for (int c = 2 * n - 1; c >= k; c--) a[r][c] -= a[r][k] * a[k][c];
  }
  for (auto &row : a) row.erase(row.begin(), row.begin() + n);
  return a;
}

// b_invert with its countdown kept off the test log.
float **invert_quietly(float **lu, int n) {
  float **out = nullptr;
  h1::stdout_of([&] { b_invert(lu, &out, nel, n); });
  return owned(out);
}

// Add to x (zero-based over all vertices) the constants that undo the
// deflation, written out from the deflation factors.
void reflate_double(std::vector<double> &x) {
  std::vector<double> add(ngeo, 0.0);
  for (int j = 0, offj = 0; j < ngeo; offj += geo[j].npnt, j++) {
    const double so = geo[j].sigma_out, si = geo[j].sigma_in;
    if (so == 0) continue;
    double s = 0;
    for (int p = 0; p < geo[j].npnt; p++) s += x[offj + p];
    for (int i = 0; i < ngeo; i++) add[i] += (si - so) * deflat[i][j] * s / (2 * so * geo[j].npnt);
  }
  for (int i = 0, off = 0; i < ngeo; off += geo[i].npnt, i++)
    for (int p = 0; p < geo[i].npnt; p++) x[off + p] += add[i];
}

// Potential at electrode e from x (zero-based over all vertices).
double electrode_value(int e, const std::vector<double> &x) {
  if (elec_vertex) return x[el[e].index - 1];
  int t = el[e].index, g = 0;
  while (t >= geo[g].ndhk) t -= geo[g++].ndhk;
  const int32_t *tri = geo[g].dhk[t];
  const double u = el[e].u, v = el[e].v;
  return (1 - u - v) * x[tri[0]] + u * x[tri[1]] + v * x[tri[2]];
}

// Every entry of bi against an independent double-precision inverse of B.
void expect_matches_reference(float **bmat, float **bi_m, bool reflate) {
  const int n = totpnt;
  const DMat x = inverse(bmat, n);
  double tol = 0;
  for (int e = 1; e <= nel; e++)
    for (int c = 1; c <= n; c++) tol = std::max(tol, 2e-5 * std::fabs(bi_m[e][c]));
  for (int i = 0, c = 0; i < ngeo; i++) {
    const double f = 2.0 / ((double)geo[i].sigma_in + geo[i].sigma_out);
    for (int k = 0; k < geo[i].npnt; k++, c++) {
      std::vector<double> col(n);
      for (int p = 0; p < n; p++) col[p] = f * x[p][c];
      if (reflate) reflate_double(col);
      for (int e = 1; e <= nel; e++)
        ASSERT_NEAR(bi_m[e][c + 1], electrode_value(e, col), tol) << "electrode " << e << " column " << c + 1;
    }
  }
}

// Free everything the tests or the loader allocated for the model.
void release_all() {
  for (float ***m : {&b, &bi, &iso_b})
    if (*m && std::find(g_owned.begin(), g_owned.end(), *m) == g_owned.end()) free_matrix(*m, 1, 0, 1, 0);
  b = bi = iso_b = nullptr;
  for (float **m : g_owned) free_matrix(m, 1, 0, 1, 0);
  g_owned.clear();
  h1::load_model({});
  free(el);
  el = nullptr;
}

class InvertTest : public testing::Test {
 protected:
  Electrode table[8] = {};
  void SetUp() override {
    release_all();
    memset(geocon, 0, sizeof geocon);
    memset(deflat, 0, sizeof deflat);
    iso_sur = -1;
    inner_only = iso_totpnt = 0;
    el = table;
    elec_vertex = surfelec = 1;
    set_verbose(0);
  }
  void TearDown() override {
    el = nullptr;  // the fixture's own table
    release_all();
  }
  struct Place {
    int index;
    float u = 0, v = 0;
  };
  void electrodes(int vertex, const std::vector<Place> &e) {
    elec_vertex = vertex;
    nel = (int)e.size();
    for (int k = 0; k < nel; k++) table[k + 1] = {e[k].index, e[k].u, e[k].v, {}};
  }
  // Two nested spheres: outer 162 vertices, inner 42.  The deflation table
  // is not a physical one; it exercises every term.
  void two_spheres() {
    h1::load_model({{"outer", icosphere(2, 2.0), 1.0f, 0.0f}, {"inner", icosphere(1, 1.0), 0.25f, 1.0f}});
    geocon[0][0] = geocon[1][1] = 1;
    geocon[1][0] = 2;
    deflat[0][0] = deflat[1][1] = 1;
    deflat[1][0] = 0.6f;
    deflat[0][1] = 0.3f;
  }
};

}  // namespace

TEST_F(InvertTest, ReflationAddsTheDeflatedConstantsPerInterface) {
  ngeo = 2;
  geo[0].npnt = 2, geo[0].sigma_in = 1, geo[0].sigma_out = 0;
  geo[1].npnt = 3, geo[1].sigma_in = 0.5f, geo[1].sigma_out = 1;
  deflat[0][0] = deflat[1][1] = 1;
  deflat[0][1] = 0.5f;
  deflat[1][0] = 0.75f;  // the outermost interface's sum is not used
  totpnt = 5;
  float **x = owned(matrix(1, 2, 1, 5));
  const float in[2][5] = {{1, 2, 3, 4, 5}, {7, -7, 1, 1, 1}};
  // Row 1: S_1 = 12; a_0 = -0.5 * 0.5 * 12 / 6 = -0.5, a_1 = -0.5 * 12 / 6 = -1.
  // Row 2: S_1 = 3; a_0 = -0.125, a_1 = -0.25.
  const float want[2][5] = {{0.5f, 1.5f, 2, 3, 4}, {6.875f, -7.125f, 0.75f, 0.75f, 0.75f}};
  for (int r = 1; r <= 2; r++)
    for (int p = 1; p <= 5; p++) x[r][p] = in[r - 1][p - 1];
  sphi_reflate(x, 2);
  for (int r = 1; r <= 2; r++)
    for (int p = 1; p <= 5; p++) EXPECT_FLOAT_EQ(x[r][p], want[r - 1][p - 1]) << r << " " << p;
}

TEST_F(InvertTest, TwoSpheresAgainstADoublePrecisionInverse) {
  two_spheres();
  const int n = totpnt;
  float **bm = random_system(n, 5), **lu = factorised_copy(bm, n), **lu_before = factorised_copy(bm, n);
  // Vertex electrodes on both interfaces see the reflated solution.
  electrodes(1, {{3}, {162}, {163}, {204}});
  surfelec = 0;
  expect_matches_reference(bm, invert_quietly(lu, n), true);
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) ASSERT_EQ(lu[r][c], lu_before[r][c]);  // the factors are left alone
  // Triangle electrodes on the outer interface skip reflation while
  // surfelec is set; cleared, it shows on these columns.
  electrodes(0, {{0, 0.2f, 0.3f}, {100, 0.0f, 1.0f}, {319, 1.0f / 3, 1.0f / 3}});
  surfelec = 1;
  float **skipped = invert_quietly(lu, n);
  expect_matches_reference(bm, skipped, false);
  surfelec = 0;
  float **with = invert_quietly(lu, n);
  expect_matches_reference(bm, with, true);
  double diff = 0;
  for (int c = 1; c <= n; c++) diff = std::max(diff, (double)std::fabs(with[1][c] - skipped[1][c]));
  EXPECT_GT(diff, 1e-4);
}

TEST_F(InvertTest, IsolatedSourceInterface) {
  h1::load_model({{"scalp", icosphere(1, 3.0), 1.0f, 0.0f},
                  {"skull", icosphere(1, 2.0), 0.1f, 1.0f},
                  {"brain", icosphere(1, 1.0), 0.4f, 0.1f}});
  geocon[0][0] = geocon[1][1] = geocon[2][2] = 1;
  geocon[1][0] = geocon[2][0] = geocon[2][1] = 2;
  deflat[0][0] = deflat[1][1] = deflat[2][2] = 1;
  deflat[1][0] = 0.5f;
  deflat[2][0] = 0.4f;
  deflat[2][1] = 0.8f;
  const int n = totpnt, m = geo[2].npnt, o_s = geo[0].npnt + geo[1].npnt;
  const double ratio = 0.1 / 0.4, f = 2.0 / (0.4 + 0.1);
  float **bm = random_system(n, 21), **lu = factorised_copy(bm, n), **bis = random_system(m, 22);
  const DMat x = inverse(bm, n), xs = inverse(bis, m);
  electrodes(1, {{5}, {60}, {126}});

  for (int flag : {0, 1}) {
    SCOPED_TRACE(flag);
    surfelec = flag;
    iso_sur = -1;
    float **plain = invert_quietly(lu, n);
    iso_sur = 2;
    iso_totpnt = m;
    iso_b = factorised_copy(bis, m);
    float **out = invert_quietly(lu, n);
    // Columns of the other interfaces: scaled by sigma_out / sigma_in of s.
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= o_s; c++) ASSERT_NEAR(out[e][c], ratio * plain[e][c], 1e-5) << e << " " << c;
    // Columns of s: source term corrected by the isolated solution w.
    for (int k = 0; k < m; k++) {
      std::vector<double> r(n, 0.0), w(m), sol(n, 0.0);
      for (int p = 0; p < m; p++) w[p] = 2.0 * xs[p][k];
      r[o_s + k] = f;
      for (int p = 0; p < m; p++) r[o_s + p] = ratio * (r[o_s + p] - f * w[p]);
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

TEST_F(InvertTest, HomogeneousSphereMatchesTheAnalyticDipolePotential) {
  const float sig = 0.5f;
  h1::load_model({{"sphere", icosphere(2, 1.0), sig}});
  const int n = totpnt;
  b = owned(matrix(1, n, 1, n));
  h1::stdout_of(b_matrix);
  float **lu = factorised_copy(b, n);
  electrodes(1, {{27}, {54}, {81}, {108}, {135}, {162}});
  float **out = invert_quietly(lu, n);
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
    const double r = std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]);
    source[c] = (px * x[0] + py * x[1] + pz * x[2]) / (4 * M_PI * r * r * r);
  }
  for (int e = 1; e <= nel; e++) {
    double v = 0;
    for (int c = 1; c <= n; c++) v += out[e][c] * source[c - 1];
    EXPECT_NEAR(v, 3 * source[table[e].index - 1] / sig, 0.01 * std::sqrt(px * px + py * py + pz * pz) * 3 / (4 * M_PI * sig)) << e;
  }
}

TEST_F(InvertTest, CountdownAboveTwentyFiveColumns) {
  ngeo = 1;
  geo[0].sigma_in = 1;
  deflat[0][0] = 1;
  electrodes(1, {{1}});
  const std::pair<int, std::string> cases[] = {
      {25, ""}, {26, "Invrt countdown:   20\rInvrt countdown:   10\rInvrt countdown:    0\r\n"}};
  for (const auto &[n, want] : cases) {
    geo[0].npnt = totpnt = n;
    float **lu = factorised_copy(random_system(n, 3), n), **out = nullptr;
    EXPECT_EQ(h1::stdout_of([&] { b_invert(lu, &out, nel, n); }), want) << n;
    owned(out);
  }
}

// ---------------------------------------------------------------------------
// The inverted A-matrix file.

namespace {

int32_t word_at(const std::string &bytes, size_t off) {
  int32_t w;
  memcpy(&w, bytes.data() + off, 4);
  return w;
}

void put_word(std::string &bytes, size_t off, int32_t v) { memcpy(&bytes[off], &v, 4); }

std::string error_reading(const std::string &name) { return "\nerror reading " + name + "\n\n\a\a"; }

// The file of the model in memory, laid out here word by word; *elec and
// *bistart receive the offsets of the electrode section and of bi.
std::string expected_file(size_t *elec, size_t *bistart) {
  std::string s;
  auto put = [&](const void *p, size_t n) { s.append(static_cast<const char *>(p), n); };
  auto word = [&](int32_t v) { put(&v, 4); };
  word(10);  // version
  word(0);   // electric
  word(ngeo);
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    put(g.name, NAMELEN);
    word(g.npnt);
    put(g.pnt, 12 * g.npnt);
    word(g.ndhk);
    put(g.dhk, 12 * g.ndhk);
    put(&g.sigma_in, 4);
    put(&g.sigma_out, 4);
    put(geocon[i], 4 * ngeo);
    put(deflat[i], 4 * ngeo);
  }
  *elec = s.size();
  put(elname, NAMELEN);
  word(nel);
  put(el, 24 * (nel + 1));
  word(elec_vertex);
  word(surfelec);
  *bistart = s.size();
  for (int e = 1; e <= nel; e++) put(&bi[e][1], 4 * totpnt);
  word(iso_sur);
  word(inner_only);
  for (int p = 1; iso_sur != -1 && p <= geo[iso_sur].npnt; p++) put(&iso_b[p][1], 4 * geo[iso_sur].npnt);
  return s;
}

class AmaTest : public testing::Test {
 protected:
  TempDir dir;
  void SetUp() override {
    release_all();
    set_verbose(0);
  }
  void TearDown() override { release_all(); }

  // One or two interfaces, triangle electrodes with labels, random bi, and
  // optionally an isolated-source interface (the last one).
  void build(int interfaces, bool isolated, unsigned seed = 1) {
    release_all();
    std::vector<h1::Surface> s = {{"outer.tri", icosphere(1, 2.0), 1.0f, 0.0f},
                                  {"inner.tri", icosphere(0, 1.0), 0.3f, 1.0f}};
    s.resize(interfaces);
    h1::load_model(s);
    memcpy(geo[0].name + 20, "left over", 9);  // stored with the rest of the buffer
    for (int i = 0; i < ngeo; i++)
      for (int j = 0; j < ngeo; j++) {
        geocon[i][j] = i == j ? 1 : (i > j ? 2 : 0);
        deflat[i][j] = i == j ? 1.0f : 0.125f * (float)(i + 2 * j + 1);
      }
    memset(elname, 0, NAMELEN);
    strcpy(elname, "electrodes.txt");
    nel = 3;
    el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
    el[1] = {0, 0.25f, 0.5f, "Fz"};
    el[2] = {17, 0.125f, 0.0f, "ABCDEFGHIJ"};
    el[3] = {totdhk - 1, 0.0f, 0.75f, ""};
    elec_vertex = surfelec = 0;
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> u(-1, 1);
    bi = matrix(1, nel, 1, totpnt);
    for (int e = 1; e <= nel; e++)
      for (int c = 1; c <= totpnt; c++) bi[e][c] = u(gen);
    iso_sur = isolated ? ngeo - 1 : -1;
    inner_only = isolated;
    iso_totpnt = isolated ? geo[iso_sur].npnt : 0;
    iso_b = isolated ? random_system(iso_totpnt, seed + 1) : nullptr;
  }

  // Scramble every table that loading must fill.
  void clobber() {
    release_all();
    for (Interface &g : geo) {
      memset(g.name, 'x', NAMELEN);
      g.npnt = g.ndhk = -5;
      g.sigma_in = g.sigma_out = -9;
    }
    memset(geocon, 0x55, sizeof geocon);
    memset(deflat, 0x55, sizeof deflat);
    memset(elname, 'y', NAMELEN);
    ngeo = 7;
    nel = 99;
    elec_vertex = surfelec = 7;
    iso_sur = 5;
    inner_only = 3;
    totpnt = totdhk = 12345;
    iso_totpnt = 0;
  }

  std::string save(const std::string &name) {
    const std::string path = dir.file(name);
    int ok = 0;
    EXPECT_EQ(h1::stdout_of([&] { ok = save_ama(path.c_str(), 0); }), "");
    EXPECT_EQ(ok, 1);
    return path;
  }

  // Load (freeing what an earlier load allocated) and return the result;
  // standard output and error into *out / *err.
  int load(const std::string &path, std::string *out, std::string *err = nullptr, int kind = 0) {
    release_all();
    testing::internal::CaptureStderr();
    int r = 0;
    *out = h1::stdout_of([&] { r = load_ama(path.c_str(), kind); });
    const std::string e = testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return r;
  }

  // A load that must be refused as unreadable.
  void expect_refused(const std::string &bytes, const std::string &what) {
    const std::string path = dir.file("hostile.ama");
    write_file(path, bytes);
    std::string out;
    EXPECT_EQ(load(path, &out), 0) << what;
    const std::string want = error_reading(path);
    EXPECT_TRUE(out.size() >= want.size() && out.substr(out.size() - want.size()) == want) << what << ": " << out;
  }
};

}  // namespace

TEST_F(AmaTest, RoundTripRestoresTheWholeModel) {
  for (int interfaces : {1, 2})
    for (bool isolated : {false, true}) {
      SCOPED_TRACE(testing::Message() << interfaces << " interfaces, isolated " << isolated);
      build(interfaces, isolated);
      size_t elec, bistart;
      const std::string want = expected_file(&elec, &bistart);
      const int pnt = totpnt, dhk = totdhk, iso_pnt = iso_totpnt;
      const std::string path = save("model.ama");
      ASSERT_EQ(read_file(path), want);
      clobber();
      std::string out;
      ASSERT_EQ(load(path, &out), 1) << out;
      EXPECT_EQ(out, "elec starts at " + std::to_string(elec) + "\nbi starts at " + std::to_string(bistart) + "\n");
      EXPECT_EQ(totpnt, pnt);
      EXPECT_EQ(totdhk, dhk);
      EXPECT_EQ(iso_totpnt, iso_pnt);
      size_t e2, b2;
      EXPECT_EQ(expected_file(&e2, &b2), want);  // everything stored came back
    }
}

TEST_F(AmaTest, WrongVersionOrKindIsRefusedWithItsMessage) {
  build(1, false);
  const std::string path = save("k.ama"), bytes = read_file(path);
  const std::string not_ama =
      " is either not an inverted A matrix, or one of an old version.\nAnyway, this program cannot use it\n";
  auto patched = [&](size_t off, int32_t v) {
    std::string b = bytes;
    put_word(b, off, v);
    return b;
  };
  const struct {
    std::string bytes;
    int kind;
    std::string before, after;  // the message around the file name
  } cases[] = {
      {patched(0, 9), 0, "", not_ama},
      {"this is no matrix file\n", 0, "", not_ama},
      {patched(4, 1), 0, "You need an electric inverted A matrix; ", " is a magnetic inverted A matrix\n\n\a\a"},
      {patched(4, 2), 0, "You need an electric inverted A matrix; ",
       " is a combined electric/magnetic inverted A matrix\n\n\a\a"},
      {patched(4, 7), 0, "You need an electric inverted A matrix; ", " is an unknown type inverted A matrix\n\n\a\a"},
      {bytes, 1, "You need a magnetic inverted A matrix; ", " is an electric inverted A matrix\n\n\a\a"},
  };
  for (const auto &c : cases) {
    const std::string p = dir.file("refused.ama");
    write_file(p, c.bytes);
    std::string out, err;
    EXPECT_EQ(load(p, &out, &err, c.kind), 0);
    EXPECT_EQ(err, c.before + p + c.after);
    EXPECT_EQ(out, "");
  }
}

TEST_F(AmaTest, FileCutShortAnywhereIsAReadError) {
  build(2, true);
  const std::string bytes = read_file(save("full.ama"));
  for (size_t len = 0; len < bytes.size(); len += (len < 1200 ? 1 : 37)) expect_refused(bytes.substr(0, len), "cut");
  expect_refused(bytes.substr(0, bytes.size() - 1), "last byte");
}

TEST_F(AmaTest, HostileCountsAndIndicesAreRefused) {
  build(2, true);
  size_t elec, bistart;
  expected_file(&elec, &bistart);
  const std::string path = save("base.ama"), bytes = read_file(path);
  const int n0 = geo[0].npnt, m0 = geo[0].ndhk, all_pnt = totpnt, all_dhk = totdhk, n_el = nel;
  const size_t npnt0 = 12 + 80, ndhk0 = npnt0 + 4 + 12 * n0, dhk0 = ndhk0 + 4, geocon0 = dhk0 + 12 * m0 + 8;
  const size_t nelw = elec + 80, el1 = nelw + 4 + 24, vflag = bistart - 8, isow = bistart + 4 * (size_t)n_el * all_pnt;
  ASSERT_EQ(word_at(bytes, npnt0), n0);
  ASSERT_EQ(word_at(bytes, ndhk0), m0);
  ASSERT_EQ(word_at(bytes, geocon0), 1);
  ASSERT_EQ(word_at(bytes, nelw), n_el);
  ASSERT_EQ(word_at(bytes, isow), 1);
  const struct {
    const char *what;
    size_t off;
    std::vector<int32_t> values;
  } cases[] = {
      {"ngeo", 8, {0, 11, -1, 1 << 30}},
      {"npnt", npnt0, {-1, 1 << 28, 2000000000}},
      {"ndhk", ndhk0, {-3, 1 << 27}},
      {"vertex of a triangle", dhk0 + 8, {-1, n0}},
      {"relation code", geocon0 + 4, {-1, 3}},
      {"nel", nelw, {0, -2, 1 << 29}},
      {"triangle electrode", el1, {-1, all_dhk}},  // 0 .. totdhk - 1
      {"iso_sur", isow, {-2, 2, 100, 0}},          // 0 would need a larger iso_b than the file holds
  };
  for (const auto &c : cases)
    for (int32_t v : c.values) {
      std::string b = bytes;
      put_word(b, c.off, v);
      expect_refused(b, c.what + std::string(" ") + std::to_string(v));
    }
  // As vertex electrodes: 1 .. totpnt.
  std::string vb = bytes;
  put_word(vb, vflag, 1);
  for (int e = 0; e < 3; e++) put_word(vb, el1 + 24 * e, e == 1 ? all_pnt : 1 + e);
  const std::string ok = dir.file("vertex.ama");
  write_file(ok, vb);
  std::string out;
  EXPECT_EQ(load(ok, &out), 1) << out;
  for (int32_t v : {0, all_pnt + 1}) {
    put_word(vb, el1 + 24, v);
    expect_refused(vb, "vertex electrode " + std::to_string(v));
  }
  EXPECT_EQ(load(path, &out), 1);  // the untouched file still loads
}

TEST_F(AmaTest, WriteAndOpenFailuresAreReported) {
  build(1, false);
  int r = 1;
  EXPECT_EQ(h1::stdout_of([&] { r = save_ama("/dev/full", 0); }), "\nerror writing to /dev/full\n\n\a\a");
  EXPECT_EQ(r, 0);
  const std::string nowhere = dir.file("no/such/folder.ama");
  EXPECT_EQ(h1::stdout_of([&] { r = save_ama(nowhere.c_str(), 0); }), "\nerror opening " + nowhere + "\n\n\a\a");
  EXPECT_EQ(r, 0);
  std::string out;
  EXPECT_EQ(load(nowhere, &out), 0);
  EXPECT_EQ(out, "\nerror opening " + nowhere + "\n\n\a\a");
}
