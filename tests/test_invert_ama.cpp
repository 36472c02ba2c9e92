// Inversion of the system matrix for the electrodes, and the file that stores
// the inverted matrix with its model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/ama.h"
#include "forwinv/forwinv.h"
#include "forwinv/invert.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"
#include "tests/support/files.h"
#include "tests/support/h1_model.h"
#include "tests/support/h2_arrays.h"
#include "tools/icosphere.h"

namespace {

// A well-conditioned, non-symmetric random matrix [1..n][1..n].
float **random_system(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> u(-1, 1);
  float **m = matrix(1, n, 1, n);
  for (int r = 1; r <= n; r++)
    for (int c = 1; c <= n; c++) m[r][c] = (r == c ? 2.0f : 0.0f) + u(gen) * 1.5f / (float)n;
  return m;
}

// Free what the tests or the loader allocated for the model.
void release_all() {
  for (float ***m : {&bi, &iso_b})
    if (*m) free_matrix(*m, 1, 0, 1, 0);
  bi = iso_b = nullptr;
  h1::load_model({});
  free(el);
  el = nullptr;
}

}  // namespace

// Two nested spheres (12 + 42 vertices) with a deflation table that exercises
// every term, a random system matrix, and bi against a double-precision
// solve: column c is the electrode values of f_c B^-1 e_c, reflated by
// adding (si - so) deflat[i][j] S_j / (2 so N_j) on interface i, S_j the sum
// over interface j.  Vertex electrodes on both interfaces see the reflated
// solution; triangle electrodes skip reflation while surfelec is set.
TEST(Invert, TwoSpheresAgainstADoublePrecisionSolve) {
  release_all();
  set_verbose(0);
  h1::load_model({{"outer", icosphere(1, 2.0), 1.0f, 0.0f}, {"inner", icosphere(0, 1.0), 0.25f, 1.0f}});
  memset(deflat, 0, sizeof deflat);
  deflat[0][0] = deflat[1][1] = 1, deflat[1][0] = 0.6f, deflat[0][1] = 0.3f;
  iso_sur = -1;
  const int n = totpnt;
  float **lu = random_system(n, 5), cond;
  const ref::Mat a = h2::to_ref(lu, n, n);
  ludec(lu, n, &cond);
  ref::Mat x(n);  // x[c]: column c of B^-1 times f_c
  for (int c = 0; c < n; c++) {
    ref::Vec e(n, 0.0);
    e[c] = 2.0 / (c < 42 ? 1.0 : 1.25);
    x[c] = ref::solve(a, e);
  }
  auto reflated = [&](ref::Vec v) {
    double s1 = 0;  // only the inner interface has conductivity outside
    for (int p = 42; p < n; p++) s1 += v[p];
    for (int p = 0; p < n; p++) v[p] += (0.25 - 1.0) * deflat[p < 42 ? 0 : 1][1] * s1 / (2.0 * 12);
    return v;
  };
  Electrode table[5] = {};
  el = table;
  const int vertex[] = {3, 42, 43, 54}, tri[] = {0, 40, 79};
  const float u[] = {0.2f, 0.0f, 1.0f / 3}, v[] = {0.3f, 1.0f, 1.0f / 3};
  for (int pass = 0; pass < 3; pass++) {  // vertex electrodes, then triangles of the outer interface
    elec_vertex = pass == 0, surfelec = pass == 1, nel = pass ? 3 : 4;
    for (int e = 1; e <= nel; e++) table[e] = pass ? Electrode{tri[e - 1], u[e - 1], v[e - 1], {}} : Electrode{vertex[e - 1], 0, 0, {}};
    float **out = nullptr;
    h1::stdout_of([&] { b_invert(lu, &out, nel, n); });
    for (int c = 0; c < n; c++) {
      const ref::Vec col = pass == 1 ? x[c] : reflated(x[c]);
      for (int e = 1; e <= nel; e++) {
        const int32_t *t = geo[0].dhk[table[e].index];
        const double want = pass ? (1 - u[e - 1] - v[e - 1]) * col[t[0]] + u[e - 1] * col[t[1]] + v[e - 1] * col[t[2]]
                                 : col[table[e].index - 1];
        ASSERT_NEAR(out[e][c + 1], want, 2e-5 * (1 + std::fabs(want))) << "pass " << pass << " e " << e << " c " << c;
      }
    }
    free_matrix(out, 1, nel, 1, n);
  }
  el = nullptr;
  free_matrix(lu, 1, n, 1, n);
}

namespace {

int32_t word_at(const std::string &bytes, size_t off) {
  int32_t w;
  memcpy(&w, bytes.data() + off, 4);
  return w;
}
std::string with_word(std::string bytes, size_t off, int32_t v) { return memcpy(&bytes[off], &v, 4), bytes; }

// The file of the model in memory, laid out here word by word; *elec and
// *bistart receive the offsets of the electrode section and of bi.
std::string expected_file(size_t *elec, size_t *bistart) {
  std::string s;
  auto put = [&](const void *p, size_t n) { s.append(static_cast<const char *>(p), n); };
  auto word = [&](int32_t v) { put(&v, 4); };
  word(10), word(0), word(ngeo);  // version, electric
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    put(g.name, NAMELEN), word(g.npnt), put(g.pnt, 12 * g.npnt), word(g.ndhk), put(g.dhk, 12 * g.ndhk);
    put(&g.sigma_in, 4), put(&g.sigma_out, 4), put(geocon[i], 4 * ngeo), put(deflat[i], 4 * ngeo);
  }
  *elec = s.size();
  put(elname, NAMELEN), word(nel), put(el, 24 * (nel + 1)), word(elec_vertex), word(surfelec);
  *bistart = s.size();
  for (int e = 1; e <= nel; e++) put(&bi[e][1], 4 * totpnt);
  word(iso_sur), word(inner_only);
  for (int p = 1; iso_sur != -1 && p <= geo[iso_sur].npnt; p++) put(&iso_b[p][1], 4 * geo[iso_sur].npnt);
  return s;
}

class AmaTest : public testing::Test {
 protected:
  TempDir dir;
  void TearDown() override { release_all(); }

  // Two interfaces (the inner one isolated-source) or one, triangle
  // electrodes with labels, random bi; then saved to `name`.
  std::string build(int interfaces, const std::string &name) {
    release_all();
    std::vector<h1::Surface> s = {{"outer.tri", icosphere(1, 2.0), 1.0f, 0.0f}, {"inner.tri", icosphere(0, 1.0), 0.3f, 1.0f}};
    s.resize(interfaces);
    h1::load_model(s);
    memcpy(geo[0].name + 20, "left over", 9);  // stored with the rest of the buffer
    for (int i = 0; i < ngeo; i++)
      for (int j = 0; j < ngeo; j++)
        geocon[i][j] = i == j ? 1 : (i > j ? 2 : 0), deflat[i][j] = i == j ? 1.0f : 0.125f * (float)(i + 2 * j + 1);
    strncpy(elname, "electrodes.txt", NAMELEN);  // padded with zeros
    nel = 3;
    el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
    el[1] = {0, 0.25f, 0.5f, "Fz"}, el[2] = {17, 0.125f, 0.0f, "ABCDEFGHIJ"}, el[3] = {totdhk - 1, 0.0f, 0.75f, ""};
    elec_vertex = surfelec = 0;
    bi = random_system(totpnt, 1);
    iso_sur = interfaces == 2 ? 1 : -1, inner_only = interfaces == 2, iso_totpnt = interfaces == 2 ? geo[1].npnt : 0;
    iso_b = interfaces == 2 ? random_system(iso_totpnt, 2) : nullptr;
    const std::string path = dir.file(name);
    int ok = 0;
    set_verbose(0);
    EXPECT_EQ(h1::stdout_of([&] { ok = save_ama(path.c_str(), 0); }), "");
    EXPECT_EQ(ok, 1);
    return path;
  }

  // Load (freeing what an earlier load allocated); standard output and error
  // into *out and *err.
  int load(const std::string &path, std::string *out, std::string *err = nullptr) {
    release_all();
    testing::internal::CaptureStderr();
    int r = 0;
    *out = h1::stdout_of([&] { r = load_ama(path.c_str(), 0); });
    const std::string e = testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return r;
  }

  // A file that must be refused as unreadable.
  void expect_refused(const std::string &bytes, const std::string &what) {
    const std::string path = dir.file("hostile.ama"), want = "\nerror reading " + path + "\n\n\a\a";
    write_file(path, bytes);
    std::string out;
    EXPECT_EQ(load(path, &out), 0) << what;
    EXPECT_TRUE(out.size() >= want.size() && out.substr(out.size() - want.size()) == want) << what << ": " << out;
  }
};

}  // namespace

TEST_F(AmaTest, RoundTripRestoresTheWholeModel) {
  for (int interfaces : {1, 2}) {
    const std::string path = build(interfaces, "model.ama");
    size_t elec, bistart;
    const std::string want = expected_file(&elec, &bistart);
    const int pnt = totpnt, dhk = totdhk, iso_pnt = iso_totpnt;
    ASSERT_EQ(read_file(path), want);
    // Scramble every table that loading must fill.
    release_all();
    for (Interface &g : geo) memset(g.name, 'x', NAMELEN), g.npnt = g.ndhk = -5, g.sigma_in = g.sigma_out = -9;
    memset(geocon, 0x55, sizeof geocon), memset(deflat, 0x55, sizeof deflat), memset(elname, 'y', NAMELEN);
    ngeo = 7, nel = 99, elec_vertex = surfelec = 7, iso_sur = 5, inner_only = 3, totpnt = totdhk = 12345, iso_totpnt = 0;
    std::string out;
    ASSERT_EQ(load(path, &out), 1) << out;
    EXPECT_EQ(out, "elec starts at " + std::to_string(elec) + "\nbi starts at " + std::to_string(bistart) + "\n");
    EXPECT_EQ(std::vector<int>({totpnt, totdhk, iso_totpnt}), std::vector<int>({pnt, dhk, iso_pnt}));
    EXPECT_EQ(expected_file(&elec, &bistart), want);  // everything stored came back
  }
}

// An old version and a kind this program cannot use, each with its message.
TEST_F(AmaTest, RefusedVersionAndKind) {
  const std::string bytes = read_file(build(1, "k.ama")), p = dir.file("refused.ama");
  const std::string want[] = {
      p + " is either not an inverted A matrix, or one of an old version.\nAnyway, this program cannot use it\n",
      "You need an electric inverted A matrix; " + p + " is an unknown type inverted A matrix\n\n\a\a"};
  for (int k = 0; k < 2; k++) {
    write_file(p, with_word(bytes, 4 * k, k ? 7 : 9));
    std::string out, err;
    EXPECT_EQ(load(p, &out, &err), 0);
    EXPECT_EQ(err, want[k]);
    EXPECT_EQ(out, "");
  }
}

// Cut short anywhere, or with a count or index that the model cannot hold,
// the file is a read error (never a crash or a huge allocation).
TEST_F(AmaTest, DamagedFilesAreReadErrors) {
  const std::string bytes = read_file(build(2, "base.ama"));
  size_t elec, bistart;
  expected_file(&elec, &bistart);
  const int n0 = geo[0].npnt, m0 = geo[0].ndhk, all_pnt = totpnt, all_dhk = totdhk;
  const size_t npnt0 = 12 + 80, ndhk0 = npnt0 + 4 + 12 * n0, dhk0 = ndhk0 + 4, geocon0 = dhk0 + 12 * m0 + 8;
  const size_t nelw = elec + 80, el1 = nelw + 4 + 24, isow = bistart + 4 * (size_t)nel * all_pnt;
  ASSERT_EQ(std::vector<int>({word_at(bytes, npnt0), word_at(bytes, ndhk0), word_at(bytes, nelw), word_at(bytes, isow)}),
            std::vector<int>({n0, m0, nel, 1}));
  for (size_t len = 0; len < bytes.size(); len += (len < 1200 ? 7 : 101)) expect_refused(bytes.substr(0, len), "cut");
  expect_refused(bytes.substr(0, bytes.size() - 1), "last byte");
  const std::pair<size_t, int32_t> cases[] = {
      {8, 0}, {8, 11}, {8, 1 << 30}, {npnt0, -1}, {npnt0, 1 << 28}, {ndhk0, -3}, {ndhk0, 1 << 27},  // counts
      {dhk0 + 8, -1}, {dhk0 + 8, n0}, {geocon0 + 4, -1}, {geocon0 + 4, 3},  // a triangle's vertex, a relation
      {nelw, 0}, {nelw, 1 << 29}, {el1, -1}, {el1, all_dhk},              // nel, triangle electrodes 0 .. totdhk - 1
      {isow, -2}, {isow, 2}, {isow, 0}};  // iso_sur: 0 would need a larger iso_b than the file holds
  for (const auto &[off, v] : cases) expect_refused(with_word(bytes, off, v), std::to_string(off) + ": " + std::to_string(v));
  // A NaN or an infinity anywhere among the numbers would reach every
  // potential: a vertex, both conductivities, a deflation factor, an
  // electrode weight, bi and iso_b.
  const int32_t nan = 0x7fc00000, inf = 0x7f800000, minus_inf = (int32_t)0xff800000u;
  const size_t floats[] = {npnt0 + 4 + 12 * 5 + 8, geocon0 - 8, geocon0 - 4, geocon0 + 8, el1 + 8,
                           bistart + 4 * (size_t)(all_pnt + 3), isow + 8 + 4 * 7};
  for (size_t off : floats)
    for (int32_t v : {nan, inf, minus_inf}) expect_refused(with_word(bytes, off, v), "float at " + std::to_string(off));
  // As vertex electrodes: 1 .. totpnt.
  std::string vb = with_word(bytes, bistart - 8, 1), out;
  for (int e = 0; e < 3; e++) vb = with_word(vb, el1 + 24 * e, e == 1 ? all_pnt : 1 + e);
  write_file(dir.file("vertex.ama"), vb);
  EXPECT_EQ(load(dir.file("vertex.ama"), &out), 1) << out;
  for (int32_t v : {0, all_pnt + 1}) expect_refused(with_word(vb, el1 + 24, v), "vertex electrode " + std::to_string(v));
}
