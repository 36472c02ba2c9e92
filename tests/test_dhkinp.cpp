// Reading triangle files, text and binary.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "geometry/dhkinp.h"
#include "tests/support/files.h"
#include "tools/icosphere.h"

namespace {

struct Result {
  int ok = -1;
  int32_t npnt = 0, ndhk = 0;
  TriMesh mesh;
  std::string out, err;
  bool untouched = false;  // on failure: all four outputs kept their values
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
    r.npnt = np;
    r.ndhk = nt;
    for (int i = 0; i < np; i++) r.mesh.pnt.push_back({p[i][0], p[i][1], p[i][2]});
    for (int i = 0; i < nt; i++) r.mesh.dhk.push_back({t[i][0], t[i][1], t[i][2]});
    free(p);
    free(t);
  }
  return r;
}

std::string contents_line(const std::string &path, int n, int m) {
  return path + " contains " + std::to_string(n) + " vertices and " + std::to_string(m) + " triangles\n";
}

std::string read_error(const std::string &path) { return "\nError reading file " + path + "\a\a\n\n"; }

// Binary files assembled word by word.
struct Bytes {
  std::string s;
  Bytes &i(int32_t v) {
    s.append(reinterpret_cast<const char *>(&v), 4);
    return *this;
  }
  Bytes &f(float v) {
    s.append(reinterpret_cast<const char *>(&v), 4);
    return *this;
  }
};

// Bitwise equality, so that -0 and 0 or rounding in a text round trip show.
bool same_bits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

void expect_same_mesh(const TriMesh &want, const TriMesh &got, const std::string &what) {
  ASSERT_EQ(want.pnt.size(), got.pnt.size()) << what;
  ASSERT_EQ(want.dhk.size(), got.dhk.size()) << what;
  for (size_t i = 0; i < want.pnt.size(); i++)
    for (int k = 0; k < 3; k++)
      ASSERT_TRUE(same_bits(want.pnt[i][k], got.pnt[i][k]))
          << what << " vertex " << i << " coordinate " << k << ": " << want.pnt[i][k] << " vs " << got.pnt[i][k];
  for (size_t i = 0; i < want.dhk.size(); i++) ASSERT_EQ(want.dhk[i], got.dhk[i]) << what << " triangle " << i;
}

// Meshes of various shapes and sizes, written in both encodings.
std::vector<TriMesh> corpus() {
  std::vector<TriMesh> c;
  c.push_back(icosphere(0, 1.0));
  c.push_back(icosphere(1, 0.0875, 0.01, -0.02, 0.03));
  c.push_back(icosphere(2, 92.5, -3, 4, 1e3));
  // A tetrahedron with awkward coordinates (tiny, huge, negative zero).
  TriMesh tet;
  tet.pnt = {{0.1f, -2.5e-3f, 1e6f}, {-0.0f, 3.4028e38f, 1e-38f}, {7, 8, 9}, {-1.25f, 0.333333343f, -1e-7f}};
  tet.dhk = {{0, 1, 2}, {0, 2, 3}, {0, 3, 1}, {1, 3, 2}};
  c.push_back(tet);
  // Vertices only, and nothing at all.
  TriMesh cloud;
  cloud.pnt = {{1, 2, 3}, {4, 5, 6}};
  c.push_back(cloud);
  c.push_back(TriMesh{});
  // Random coordinates across many magnitudes.
  TriMesh rnd;
  srand(12345);
  for (int i = 0; i < 300; i++) {
    std::array<float, 3> v;
    for (auto &x : v) x = (float)((rand() / (double)RAND_MAX - 0.5) * std::pow(10.0, rand() % 13 - 6));
    rnd.pnt.push_back(v);
  }
  for (int i = 0; i < 200; i++) rnd.dhk.push_back({rand() % 300, rand() % 300, rand() % 300});
  c.push_back(rnd);
  return c;
}

class TriangleFile : public testing::Test {
 protected:
  TempDir dir;
  std::string put(const std::string &name, const std::string &contents) {
    std::string path = dir.file(name);
    write_file(path, contents);
    return path;
  }
  // Expects a read error that left the caller's variables alone.
  void expect_read_error(const std::string &name, const std::string &contents) {
    std::string path = put(name, contents);
    Result r = read_tri(path);
    EXPECT_EQ(r.ok, 0) << name;
    EXPECT_EQ(r.err, read_error(path)) << name;
    EXPECT_EQ(r.out, "") << name;
    EXPECT_TRUE(r.untouched) << name;
  }
  void expect_text_vertices(const std::string &name, const std::string &contents,
                            const std::vector<std::array<float, 3>> &want) {
    std::string path = put(name, contents);
    Result r = read_tri(path);
    ASSERT_EQ(r.ok, 1) << name << ": " << r.err;
    TriMesh w;
    w.pnt = want;
    expect_same_mesh(w, r.mesh, name);
  }
};

TEST_F(TriangleFile, CorpusReadsBackExactlyInBothEncodings) {
  auto meshes = corpus();
  for (size_t k = 0; k < meshes.size(); k++)
    for (bool binary : {false, true}) {
      std::string path = dir.file("mesh" + std::to_string(k) + (binary ? ".bin" : ".txt"));
      ASSERT_TRUE(write_trimesh(path, meshes[k], binary));
      Result r = read_tri(path);
      std::string what = path;
      ASSERT_EQ(r.ok, 1) << what << ": " << r.err;
      EXPECT_EQ(r.err, "") << what;
      EXPECT_EQ(r.out, contents_line(path, (int)meshes[k].pnt.size(), (int)meshes[k].dhk.size())) << what;
      expect_same_mesh(meshes[k], r.mesh, what);
    }
}

TEST_F(TriangleFile, TextIndicesCountFromOneBinaryFromZero) {
  std::string txt = put("t.txt", "3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2 3\n");
  Result a = read_tri(txt);
  ASSERT_EQ(a.ok, 1) << a.err;
  ASSERT_EQ(a.mesh.dhk.size(), 1u);
  EXPECT_EQ(a.mesh.dhk[0], (std::array<int, 3>{0, 1, 2}));

  // The same triangle in a binary file is written 0, 1, 2 and kept as is.
  Bytes b;
  b.i(3).f(0).f(0).f(0).f(1).f(0).f(0).f(0).f(1).f(0).i(1).i(0).i(1).i(2);
  Result c = read_tri(put("t.bin", b.s));
  ASSERT_EQ(c.ok, 1) << c.err;
  expect_same_mesh(a.mesh, c.mesh, "binary twin");

  // Binary indices are not shifted (and not range-checked here).
  Bytes d;
  d.i(1).f(0).f(0).f(0).i(2).i(1).i(2).i(3).i(-5).i(0).i(7);
  Result e = read_tri(put("u.bin", d.s));
  ASSERT_EQ(e.ok, 1) << e.err;
  ASSERT_EQ(e.mesh.dhk.size(), 2u);
  EXPECT_EQ(e.mesh.dhk[0], (std::array<int, 3>{1, 2, 3}));
  EXPECT_EQ(e.mesh.dhk[1], (std::array<int, 3>{-5, 0, 7}));

  // A text index 0 becomes -1: reading does not judge the numbers.
  Result f = read_tri(put("z.txt", "1\n0 0 0\n1\n0 1 1\n"));
  ASSERT_EQ(f.ok, 1) << f.err;
  EXPECT_EQ(f.mesh.dhk[0], (std::array<int, 3>{-1, 0, 0}));
}

TEST_F(TriangleFile, TextLinesWithAndWithoutLeadingNumber) {
  // Four or more numbers: the first is a running number and ignored, as
  // is anything after the fourth.
  expect_text_vertices("v.txt", "5\n1 0 0 0\n0 0 0\n7 1.5 -2 3e2 99\n  4.25\t5 6\n9 -1 -2 -3 junk\n",
                       {{0, 0, 0}, {0, 0, 0}, {1.5f, -2, 300}, {4.25f, 5, 6}, {-1, -2, -3}});

  std::string path = put("t.txt", "3\n0 0 0\n1 0 0\n0 1 0\n4\n1 1 2 3\n3 2 1\n12 2 3 1 99\n 1\t3  2 \n");
  Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  TriMesh want;
  want.pnt = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  want.dhk = {{0, 1, 2}, {2, 1, 0}, {1, 2, 0}, {0, 2, 1}};
  expect_same_mesh(want, r.mesh, path);
  EXPECT_EQ(r.out, contents_line(path, 3, 4));

  // Lines ending in a carriage return and newline read the same.
  Result c = read_tri(put("crlf.txt", "3\r\n0 0 0\r\n1 0 0\r\n0 1 0\r\n4\r\n1 1 2 3\r\n3 2 1\r\n12 2 3 1 99\r\n 1\t3  2 \r\n"));
  ASSERT_EQ(c.ok, 1) << c.err;
  expect_same_mesh(want, c.mesh, "crlf");
}

TEST_F(TriangleFile, MissingTriangleSectionMeansNoTriangles) {
  for (std::string tail : {"", "\n"}) {
    std::string path = put("notri.txt", "2\n0 0 0\n1 2 3" + tail);
    Result r = read_tri(path);
    ASSERT_EQ(r.ok, 1) << r.err;
    EXPECT_EQ(r.out, contents_line(path, 2, 0));
    EXPECT_EQ(r.mesh.pnt.size(), 2u);
    EXPECT_TRUE(r.mesh.dhk.empty());
  }
  // A line that does not begin with a number ends the file the same way,
  // whatever follows it.
  std::string path = put("words.txt", "1\n0 0 0\ntriangles: 1\n1 1 1 1\n");
  Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  EXPECT_EQ(r.out, contents_line(path, 1, 0));

  // An explicit zero count, and a file of no vertices at all.
  Result z = read_tri(put("zero.txt", "0\n0\n"));
  ASSERT_EQ(z.ok, 1) << z.err;
  EXPECT_TRUE(z.mesh.pnt.empty() && z.mesh.dhk.empty());
  Result e = read_tri(put("empty.bin", Bytes().i(0).i(0).s));
  ASSERT_EQ(e.ok, 1) << e.err;
  EXPECT_TRUE(e.mesh.pnt.empty() && e.mesh.dhk.empty());
}

TEST_F(TriangleFile, TextRecordsHoldAtMost159Characters) {
  auto padded = [](std::string s, size_t n) {
    s.resize(n, ' ');
    return s;
  };
  // Exactly 159 characters: one record, so the next line is vertex 2.
  expect_text_vertices("l159.txt", "2\n" + padded("5 0 0 0", 159) + "\n1 2 3\n", {{0, 0, 0}, {1, 2, 3}});
  expect_text_vertices("l159crlf.txt", "2\r\n" + padded("5 0 0 0", 159) + "\r\n1 2 3\r\n", {{0, 0, 0}, {1, 2, 3}});
  // A longer line is two records: here they give both vertices.
  expect_text_vertices("l164.txt", "2\n" + padded("5 0 0 0", 159) + "1 2 3\n", {{0, 0, 0}, {1, 2, 3}});
  // The cut falls after character 159: here the "1" stays in the first
  // record and the second is left with two numbers.
  expect_read_error("l163.txt", "2\n" + padded("5 0 0 0", 158) + "1 2 3\n");
  // The same for a triangle line.
  std::string pnts = "3\n0 0 0\n1 0 0\n0 1 0\n2\n";
  std::string path = put("t164.txt", pnts + padded("1 1 2 3", 159) + "3 2 1\n");
  Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  ASSERT_EQ(r.mesh.dhk.size(), 2u);
  EXPECT_EQ(r.mesh.dhk[1], (std::array<int, 3>{2, 1, 0}));
}

TEST_F(TriangleFile, BlankLineWhereACountBelongsIsAReadError) {
  expect_read_error("blank1.txt", "\n1\n0 0 0\n");
  expect_read_error("blank2.txt", "   \t\n1\n0 0 0\n");
  expect_read_error("blank3.txt", "1\n0 0 0\n\n1\n1 1 1\n");
  expect_read_error("blank4.txt", "1\n0 0 0\n  \r\n");
}

TEST_F(TriangleFile, ShortGarbageAndTruncatedFilesAreReadErrors) {
  // Text.
  expect_read_error("empty.txt", "");
  expect_read_error("nocount.txt", "vertices\n0 0 0\n");
  expect_read_error("fewvert.txt", "2\n0 0 0\n");
  expect_read_error("twonum.txt", "2\n0 0 0\n1 1\n");
  expect_read_error("blankvert.txt", "2\n0 0 0\n\n1 1 1\n");
  expect_read_error("letter.txt", "1\n0 0 x\n");
  expect_read_error("fewtri.txt", "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 2 3\n");
  expect_read_error("twoidx.txt", "3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2\n");
  expect_read_error("floatidx.txt", "3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2.5 3\n");
  expect_read_error("negn.txt", "-1\n0 0 0\n");
  expect_read_error("negm.txt", "1\n0 0 0\n-2\n1 1 1\n");
  expect_read_error("bign.txt", "99999999999\n0 0 0\n");
  expect_read_error("bigidx.txt", "1\n0 0 0\n1\n1 1 99999999999\n");
  expect_read_error("minidx.txt", "1\n0 0 0\n1\n1 1 -2147483648\n");
  // Binary ('a' is not a text byte).
  expect_read_error("short.bin", "ab");
  expect_read_error("garbage.bin", "abc\x01\x02\x03\x04\x05");
  expect_read_error("fewvert.bin", Bytes().i(2).f(0).f(0).f(0).i(0).s);
  expect_read_error("partvert.bin", Bytes().i(1).f(0).f(0).s);
  expect_read_error("nom.bin", Bytes().i(1).f(0).f(0).f(0).s);
  expect_read_error("partm.bin", Bytes().i(1).f(0).f(0).f(0).s + std::string("\x01\x00", 2));
  expect_read_error("fewtri.bin", Bytes().i(1).f(0).f(0).f(0).i(2).i(0).i(0).i(0).s);
  expect_read_error("parttri.bin", Bytes().i(1).f(0).f(0).f(0).i(1).i(0).i(0).s);
  expect_read_error("negn.bin", Bytes().i(-1).f(0).f(0).f(0).i(0).s);
  expect_read_error("negm.bin", Bytes().i(1).f(0).f(0).f(0).i(-1).s);
  // A folder opens but holds no file.
  mkdir(dir.file("folder").c_str(), 0755);
  Result r = read_tri(dir.file("folder"));
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.err, read_error(dir.file("folder")));

  // Anything after the last triangle is ignored.
  Result extra = read_tri(put("extra.bin", Bytes().i(1).f(0).f(0).f(0).i(1).i(0).i(0).i(0).s + "trailing"));
  ASSERT_EQ(extra.ok, 1) << extra.err;
  EXPECT_EQ(extra.mesh.dhk.size(), 1u);
}

TEST_F(TriangleFile, NonFiniteCoordinatesAreReadErrors) {
  expect_read_error("nan.txt", "2\n0 0 0\n1 nan 0\n");
  expect_read_error("inf.txt", "1\n1 0 0 inf\n");
  expect_read_error("minf.txt", "1\n-INF 0 0\n");
  expect_read_error("overflow.txt", "1\n0 1e39 0\n");  // beyond single precision
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  expect_read_error("nan.bin", Bytes().i(2).f(0).f(0).f(0).f(0).f(nan).f(0).i(0).s);
  expect_read_error("inf.bin", Bytes().i(1).f(-inf).f(0).f(0).i(0).s);
  // The largest finite values are fine.
  expect_text_vertices("max.txt", "1\n3.4028234e38 -3.4028234e38 1e-45\n",
                       {{3.4028234e38f, -3.4028234e38f, 1e-45f}});
}

TEST_F(TriangleFile, FileThatCannotBeOpened) {
  std::string path = dir.file("no such file.tri");
  Result r = read_tri(path);
  EXPECT_EQ(r.ok, 0);
  EXPECT_EQ(r.err, "\nError opening file " + path + "\a\a\n\n");
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(r.untouched);
}

TEST_F(TriangleFile, BinaryFileWhoseFirstBytesLookLikeTextIsReadAsText) {
  // As binary this would claim 0x20300A31 vertices in a tiny file; as text
  // it is one vertex (0, 0, 0) and no triangles.
  std::string path = put("looks.bin", std::string("1\n0 ") + "0 0\n");
  Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  EXPECT_EQ(r.out, contents_line(path, 1, 0));
  // A genuine binary file of 1 vertex starts with the byte 1, not text.
  Result b = read_tri(put("real.bin", Bytes().i(1).f(0).f(0).f(0).i(0).s));
  ASSERT_EQ(b.ok, 1) << b.err;
  EXPECT_EQ(b.mesh.pnt.size(), 1u);
  // 12 vertices begin with the byte 12 (form feed, white space) then 0:
  // still binary.
  ASSERT_TRUE(write_trimesh(dir.file("ico.bin"), icosphere(0, 1), true));
  Result c = read_tri(dir.file("ico.bin"));
  ASSERT_EQ(c.ok, 1) << c.err;
  expect_same_mesh(icosphere(0, 1), c.mesh, "ico.bin");
}

TEST_F(TriangleFile, TextCountsAreBoundedByTheBytesLeft) {
  // "0 0 0" and its newline are the shortest vertex line; the last line may
  // lack its newline.  These exactly fit.
  expect_text_vertices("fit1.txt", "1\n0 0 0", {{0, 0, 0}});
  expect_text_vertices("fit2.txt", "2\n0 0 0\n1-1-1", {{0, 0, 0}, {1, -1, -1}});
  std::string path = put("fit3.txt", "1\n0 0 0\n1\n1-1-1");
  Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  EXPECT_EQ(r.mesh.dhk[0], (std::array<int, 3>{0, -2, -2}));
  // One vertex or triangle more cannot be there.
  expect_read_error("over1.txt", "2\n0 0 0\n1 1");
  expect_read_error("over2.txt", "1\n0 0 0\n2\n1 1 1\n");
}

TEST_F(TriangleFile, CorruptedFilesEitherReadOrFailCleanly) {
  // Random damage to valid files of both encodings: every outcome must be
  // a full success with its contents line or one read error that leaves
  // the caller's variables alone -- never a crash or a half result.
  std::mt19937 rng(2024);
  TriMesh base = icosphere(0, 1.0);
  for (bool binary : {false, true}) {
    std::string clean_path = dir.file(binary ? "clean.bin" : "clean.txt");
    ASSERT_TRUE(write_trimesh(clean_path, base, binary));
    std::string clean = read_file(clean_path);
    for (int trial = 0; trial < 300; trial++) {
      std::string bytes = clean;
      int edits = 1 + (int)(rng() % 4);
      for (int e = 0; e < edits && !bytes.empty(); e++) {
        size_t at = rng() % bytes.size();
        switch (rng() % 3) {
          case 0: bytes[at] = (char)(rng() % 256); break;
          case 1: bytes.erase(at, 1 + rng() % 8); break;
          default: bytes.resize(at); break;
        }
      }
      std::string path = put("damaged", bytes);
      Result r = read_tri(path);
      if (r.ok == 1) {
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, contents_line(path, r.npnt, r.ndhk));
        for (auto &p : r.mesh.pnt)
          for (float x : p) EXPECT_TRUE(std::isfinite(x));
      } else {
        EXPECT_EQ(r.ok, 0);
        EXPECT_EQ(r.err, read_error(path));
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(r.untouched);
      }
    }
  }
}

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ASAN 1
#endif
#endif

// Runs dhkinp with at most 1 GB of address space (so that an allocation
// sized by the file's counts cannot succeed) and exits with its result.
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

TEST_F(TriangleFile, HugeCountsInTinyFilesAreRefusedBeforeAllocating) {
#ifdef UNDER_ASAN
  GTEST_SKIP() << "address-space limits do not mix with the address sanitizer";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // 200 million vertices would need 2.4 GB; the files hold a few bytes.
  std::string bin_n = put("hugen.bin", Bytes().i(200000000).f(0).f(0).f(0).i(0).s);
  std::string bin_m = put("hugem.bin", Bytes().i(1).f(0).f(0).f(0).i(200000000).i(0).i(0).i(0).s);
  std::string txt_n = put("hugen.txt", "200000000\n0 0 0\n");
  std::string txt_m = put("hugem.txt", "1\n0 0 0\n200000000\n1 1 1\n");
  std::string maxn = put("maxn.bin", Bytes().i(INT32_MAX).s);
  for (const std::string &path : {bin_n, bin_m, txt_n, txt_m, maxn})
    EXPECT_EXIT(read_with_small_memory(path), testing::ExitedWithCode(0), "\nError reading file .*") << path;

  // A file that really is that large (sparse, so it takes no room) is read
  // as far as the allocation, which fails with its own message.
  std::string big = dir.file("sparse.bin");
  write_file(big, Bytes().i(200000000).s);
  ASSERT_EQ(truncate(big.c_str(), 8 + 12LL * 200000000), 0);
  EXPECT_EXIT(read_with_small_memory(big), testing::ExitedWithCode(0), "^\nOut of memory\n\n$");
#endif
}

}  // namespace
