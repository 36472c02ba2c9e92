// Reading triangle files, text and binary.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "geometry/dhkinp.h"
#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tools/icosphere.h"

namespace {

struct Result {
  int ok = -1;
  TriMesh mesh;
  std::string out, err;
  bool untouched = false;  // all four outputs kept their values
};

// Calls dhkinp with recognisable values in its outputs and copies what it
// handed back.
Result read_tri(const std::string &path) {
  Result r;
  static float pnt_marker[1][3];
  static int32_t dhk_marker[1][3];
  int32_t np = -77, nt = -88;
  float(*p)[3] = pnt_marker;
  int32_t(*t)[3] = dhk_marker;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  r.ok = dhkinp(path.c_str(), &np, &nt, &p, &t);
  r.out = testing::internal::GetCapturedStdout();
  r.err = testing::internal::GetCapturedStderr();
  r.untouched = np == -77 && nt == -88 && p == pnt_marker && t == dhk_marker;
  if (r.ok == 1) {
    for (int i = 0; i < np; i++) r.mesh.pnt.push_back({p[i][0], p[i][1], p[i][2]});
    for (int i = 0; i < nt; i++) r.mesh.dhk.push_back({t[i][0], t[i][1], t[i][2]});
    free(p);
    free(t);
  }
  return r;
}

std::string contents_line(const std::string &path, size_t n, size_t m) {
  return path + " contains " + std::to_string(n) + " vertices and " + std::to_string(m) + " triangles\n";
}
std::string read_error(const std::string &path) { return "\nError reading file " + path + "\a\a\n\n"; }

// A successful read of exactly `want`, coordinates bit for bit.
void expect_mesh(const Result &r, const std::string &path, const TriMesh &want) {
  ASSERT_EQ(r.ok, 1) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, contents_line(path, want.pnt.size(), want.dhk.size()));
  ASSERT_EQ(r.mesh.pnt.size(), want.pnt.size());
  for (size_t i = 0; i < want.pnt.size(); i++)
    EXPECT_EQ(memcmp(r.mesh.pnt[i].data(), want.pnt[i].data(), 12), 0) << "vertex " << i;
  EXPECT_EQ(r.mesh.dhk, want.dhk);
}

void expect_refused(const Result &r, const std::string &path) {
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.err, read_error(path));
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(r.untouched);
}

std::string padded(std::string s, size_t n) {
  s.resize(n, ' ');
  return s;
}

TEST(TriangleFile, CorpusReadsBackExactlyInBothEncodings) {
  TempDir dir;
  // Binary: the 12 vertices of icosphere(0) start with a form feed and 0.
  std::vector<TriMesh> corpus = {icosphere(0, 1.0),
                                 // awkward coordinates: tiny, huge, negative zero
                                 {{{0.1f, -2.5e-3f, 1e6f}, {-0.0f, 3.4028e38f, 1e-38f}, {7, 8, 9}, {-1.25f, 0.333333343f, -1e-7f}},
                                  {{0, 1, 2}, {0, 2, 3}, {0, 3, 1}, {1, 3, 2}}},
                                 {{{1, 2, 3}, {4, 5, 6}}, {}},  // vertices only
                                 {},
                                 {}};
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(-0.5, 0.5);
  for (int i = 0; i < 200; i++) {
    double scale = std::pow(10.0, (int)(rng() % 13) - 6);
    corpus.back().pnt.push_back({(float)(u(rng) * scale), (float)(u(rng) * scale), (float)(u(rng) * scale)});
    corpus.back().dhk.push_back({(int)(rng() % 200), (int)(rng() % 200), (int)(rng() % 200)});
  }
  for (size_t k = 0; k < corpus.size(); k++)
    for (bool binary : {false, true}) {
      std::string path = dir.file("mesh" + std::to_string(k) + (binary ? ".bin" : ".txt"));
      SCOPED_TRACE(path);
      ASSERT_TRUE(write_trimesh(path, corpus[k], binary));
      expect_mesh(read_tri(path), path, corpus[k]);
    }
}

TEST(TriangleFile, AcceptedLayouts) {
  TempDir dir;
  const std::string TRI3 = "3\n0 0 0\n1 0 0\n0 1 0\n";
  const std::vector<std::array<float, 3>> P3 = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, P0 = {{0, 0, 0}};
  const std::vector<std::array<int, 3>> T4 = {{0, 1, 2}, {2, 1, 0}, {1, 2, 0}, {0, 2, 1}};
  Bytes one_vertex = Bytes().i(1).f(0).f(0).f(0);
  struct Case {
    std::string contents;
    TriMesh want;
  } cases[] = {
      // Text indices count from 1, binary ones from 0; neither is judged here.
      {TRI3 + "1\n1 2 3\n", {P3, {{0, 1, 2}}}},
      {Bytes().i(3).f(0).f(0).f(0).f(1).f(0).f(0).f(0).f(1).f(0).i(1).i(0).i(1).i(2).s, {P3, {{0, 1, 2}}}},
      {Bytes(one_vertex).i(2).i(1).i(2).i(3).i(-5).i(0).i(7).s, {P0, {{1, 2, 3}, {-5, 0, 7}}}},
      {"1\n0 0 0\n1\n0 1 1\n", {P0, {{-1, 0, 0}}}},
      // Four or more numbers: the first is a running number, any after the
      // fourth are ignored; blanks, tabs and CR-LF line ends read alike.
      {"5\n1 0 0 0\n0 0 0\n7 1.5 -2 3e2 99\n  4.25\t5 6\n9 -1 -2 -3 junk\n",
       {{{0, 0, 0}, {0, 0, 0}, {1.5f, -2, 300}, {4.25f, 5, 6}, {-1, -2, -3}}, {}}},
      {TRI3 + "4\n1 1 2 3\n3 2 1\n12 2 3 1 99\n 1\t3  2 \n", {P3, T4}},
      {"3\r\n0 0 0\r\n1 0 0\r\n0 1 0\r\n4\r\n1 1 2 3\r\n3 2 1\r\n12 2 3 1 99\r\n 1\t3  2 \r\n", {P3, T4}},
      // A line without a leading number: no triangles.
      {"1\n0 0 0\ntriangles: 1\n1 1 1 1\n", {P0, {}}},
      {"0\n0\n", {}},
      {Bytes().i(0).i(0).s, {}},
      {Bytes(one_vertex).i(1).i(0).i(0).i(0).text("trailing").s, {P0, {{0, 0, 0}}}},  // the rest is ignored
      // Records of 159 characters are whole; longer lines go on in the next
      // record (here giving the second vertex or triangle).
      {"2\n" + padded("5 0 0 0", 159) + "\n1 2 3\n", {{{0, 0, 0}, {1, 2, 3}}, {}}},
      {"2\r\n" + padded("5 0 0 0", 159) + "\r\n1 2 3\r\n", {{{0, 0, 0}, {1, 2, 3}}, {}}},
      {"2\n" + padded("5 0 0 0", 159) + "1 2 3\n", {{{0, 0, 0}, {1, 2, 3}}, {}}},
      {TRI3 + "2\n" + padded("1 1 2 3", 159) + "3 2 1\n", {P3, {{0, 1, 2}, {2, 1, 0}}}},
      {"1\n3.4028234e38 -3.4028234e38 1e-45\n", {{{3.4028234e38f, -3.4028234e38f, 1e-45f}}, {}}},
      // Text whatever the name says: as binary it would claim 0x20300A31
      // vertices.
      {"1\n0 0 0\n", {P0, {}}},
      {Bytes(one_vertex).i(0).s, {P0, {}}},
      // The shortest lines ("0 0 0", "1-1-1") that exactly fit the counts.
      {"1\n0 0 0", {P0, {}}},
      {"2\n0 0 0\n1-1-1", {{{0, 0, 0}, {1, -1, -1}}, {}}},
      {"1\n0 0 0\n1\n1-1-1", {P0, {{0, -2, -2}}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.contents.substr(0, 60));
    std::string path = dir.file("good");
    write_file(path, c.contents);
    expect_mesh(read_tri(path), path, c.want);
  }
}

TEST(TriangleFile, DamagedFilesAreReadErrorsThatChangeNothing) {
  TempDir dir;
  const std::string TRI3 = "3\n0 0 0\n1 0 0\n0 1 0\n";
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  Bytes v1 = Bytes().i(1).f(0).f(0).f(0);
  const std::string cases[] = {
      // Text: blank count lines, missing or malformed numbers, bad counts.
      "\n1\n0 0 0\n", "   \t\n1\n0 0 0\n", "1\n0 0 0\n\n1\n1 1 1\n", "1\n0 0 0\n  \r\n", "", "vertices\n0 0 0\n",
      "2\n0 0 0\n", "2\n0 0 0\n1 1\n", "2\n0 0 0\n\n1 1 1\n", "1\n0 0 x\n", TRI3 + "2\n1 2 3\n", TRI3 + "1\n1 2\n",
      TRI3 + "1\n1 2.5 3\n", "-1\n0 0 0\n", "1\n0 0 0\n-2\n1 1 1\n", "99999999999\n0 0 0\n",
      "2147483647\n0 0 0\n", "1\n0 0 0\n1\n1 1 99999999999\n", "1\n0 0 0\n1\n1 1 -2147483648\n",
      "1\n0 0 0\n1\n1 1 -9223372036854775808\n",
      "2\n" + padded("5 0 0 0", 158) + "1 2 3\n",  // the cut after 159 leaves two numbers
      "2\n0 0 0\n1 1", "1\n0 0 0\n2\n1 1 1\n",      // one line more cannot be there
      "2\n0 0 0\n1 nan 0\n", "1\n1 0 0 inf\n", "1\n-INF 0 0\n", "1\n0 1e39 0\n",
      // Binary ('a' is not a text byte): short, truncated, negative counts.
      "ab", "abc\x01\x02\x03\x04\x05", Bytes().i(2).f(0).f(0).f(0).i(0).s, Bytes().i(1).f(0).f(0).s, v1.s,
      v1.s + std::string("\x01\x00", 2), Bytes(v1).i(2).i(0).i(0).i(0).s, Bytes(v1).i(1).i(0).i(0).s,
      Bytes().i(-1).f(0).f(0).f(0).i(0).s, Bytes(v1).i(-1).s,
      Bytes().i(2).f(0).f(0).f(0).f(0).f(nan).f(0).i(0).s, Bytes().i(1).f(-inf).f(0).f(0).i(0).s,
  };
  for (const std::string &c : cases) {
    SCOPED_TRACE(c);
    std::string path = dir.file("bad");
    write_file(path, c);
    expect_refused(read_tri(path), path);
  }
  mkdir(dir.file("folder").c_str(), 0755);  // opens, but holds no file
  expect_refused(read_tri(dir.file("folder")), dir.file("folder"));
  std::string missing = dir.file("no such file.tri");
  Result r = read_tri(missing);
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.err, "\nError opening file " + missing + "\a\a\n\n");
  EXPECT_TRUE(r.out.empty() && r.untouched);
}

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ASAN 1
#endif
#endif

// Runs dhkinp with at most 1 GB of address space (so that an allocation
// sized by the file's counts cannot succeed) and exits with 0 on refusal.
[[noreturn]] void read_with_small_memory(const std::string &path) {
  struct rlimit lim = {1u << 30, 1u << 30};
  setrlimit(RLIMIT_AS, &lim);
  int32_t n, m;
  float(*p)[3];
  int32_t(*t)[3];
  int ok = dhkinp(path.c_str(), &n, &m, &p, &t);
  fflush(stderr);
  _exit(ok ? 2 : 0);
}

TEST(TriangleFile, HugeCountsInTinyFilesAreRefusedBeforeAllocating) {
#ifdef UNDER_ASAN
  GTEST_SKIP() << "address-space limits do not mix with the address sanitizer";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  // 200 million vertices would need 2.4 GB; the files hold a few bytes.
  const std::string cases[] = {Bytes().i(200000000).f(0).f(0).f(0).i(0).s,
                               Bytes().i(1).f(0).f(0).f(0).i(200000000).i(0).i(0).i(0).s, "200000000\n0 0 0\n",
                               "1\n0 0 0\n200000000\n1 1 1\n", Bytes().i(INT32_MAX).s};
  for (const std::string &c : cases) {
    write_file(dir.file("huge"), c);
    EXPECT_EXIT(read_with_small_memory(dir.file("huge")), testing::ExitedWithCode(0), "\nError reading file .*") << c;
  }
  // A file that really is that large (sparse, so it takes no room) is read
  // as far as the allocation, which fails with its own message.
  std::string big = dir.file("sparse.bin");
  write_file(big, Bytes().i(200000000).s);
  ASSERT_EQ(truncate(big.c_str(), 8 + 12LL * 200000000), 0);
  EXPECT_EXIT(read_with_small_memory(big), testing::ExitedWithCode(0), "^\nOut of memory\n\n$");
#endif
}

}  // namespace
