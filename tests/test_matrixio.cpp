// Matrix files and triangle files: the matrix writer's bytes, both readers
// in both byte orders and the text form, damaged and lying files, and named
// items in the tails of matrix files.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "geometry/dhkinp.h"
#include "matrixio/matrix.h"
#include "matrixio/readtail.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tools/icosphere.h"

namespace {

// For a child that reads files claiming far more than they hold: little more
// address space than the process already has, so that an allocation sized
// by the claims cannot succeed and a reader that allocated first fails.
void cap_address_space() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t cap = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + ((rlim_t)256 << 20);
  const rlimit lim = {cap, cap};
  if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
}

// Reads `path` and expects the values bit for bit (the file moves bits, NaNs
// included), the tail, and the kind of file.
void expect_read(const std::string &path, int R, int C, const std::vector<float> &values, const std::string &tail,
                 int text, int other_order) {
  int r = -1, c = -1, n = -1;
  char *t = nullptr;
  foreign = ascifile = 7;  // the reader must set both
  testing::internal::CaptureStderr();
  float **m = gettailmatrix(path.c_str(), &r, &c, &n, &t);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_TRUE(m && r == R && c == C) << r << " x " << c;
  for (int i = 0; i < R * C; i++) EXPECT_EQ(memcmp(&m[1 + i / C][1 + i % C], &values[i], 4), 0) << i;
  EXPECT_TRUE(n == (int)tail.size() && (t ? std::string(t, n) : "") == tail && (t == nullptr) == tail.empty());
  EXPECT_TRUE(ascifile == text && foreign == other_order);
  free_matrix(m, 1, r, 1, c), free(t);
}

// Random shapes, bit patterns and tails written by the program, and the same
// assembled here in the other byte order, read back unchanged.
TEST(MatrixFile, WriterBytesAndRoundTripsInBothByteOrders) {
  TempDir dir;
  std::mt19937 gen(20051104);
  const std::string path = dir.file("own.mat"), other = dir.file("other.mat");
  for (int trial = 0; trial < 12; trial++) {
    const int R = 1 + gen() % 9, C = 1 + gen() % 9;
    float **m = matrix(1, R, 1, C);
    std::vector<float> values(R * C);
    std::string tail(trial % 4 ? gen() % 60 : 0, 'x');
    for (char &c : tail) c = (char)gen();
    for (int i = 0; i < R * C; i++) {
      const uint32_t w = gen();
      memcpy(&values[i], &w, 4), memcpy(&m[1 + i / C][1 + i % C], &w, 4);
    }
    ASSERT_EQ(binputtailmatrix(path.c_str(), m, R, C, (int)tail.size(), tail.data()), 1);
    EXPECT_EQ(read_file(path), matrix_bytes(R, C, values, tail));
    expect_read(path, R, C, values, tail, 0, 0);
    write_file(other, matrix_bytes(R, C, values, tail, true));
    expect_read(other, R, C, values, tail, 0, 1);  // the tail is text: never swapped
    ASSERT_EQ(binputmatrix(path.c_str(), m, R, C), 1);
    EXPECT_EQ(read_file(path), matrix_bytes(R, C, values));
    free_matrix(m, 1, R, 1, C);
  }
}

TEST(MatrixFile, ShapesAndTailsAsRead) {
  TempDir dir;
  std::string abc;
  while (abc.size() < 1500) abc += (char)('a' + abc.size() % 26);
  const struct {
    std::string contents;
    int R, C;
    std::vector<float> values;
    std::string tail;
  } cases[] = {
      {matrix_bytes(0, 5, {}, "abc"), 0, 5, {}, "abc"},
      {matrix_bytes(1, 2, {1, 2}, abc), 1, 2, {1, 2}, abc.substr(0, 1024)},  // only 1024 bytes kept
      // Text: the line end after the numbers is dropped, other white space
      // starts the tail.
      {"2 3\n1 2\t3\n  4.5\n5 -6e-1\n\n\nsample freq\n", 2, 3, {1, 2, 3, 4.5f, 5, -0.6f}, "sample freq\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.contents.substr(0, 40));
    write_file(dir.file("m"), c.contents);
    expect_read(dir.file("m"), c.R, c.C, c.values, c.tail, isdigit(c.contents[0]) ? 1 : 0, 0);
  }
}

// Damaged files, and headers that claim far more than the file holds, read
// in a child with a capped address space.
TEST(MatrixFileErrors, DamagedAndLyingFilesGiveTheReadError) {
  TempDir dir;
  const std::string cases[] = {
      matrix_bytes(2, 3, {0, 1, 2, 3, 4}), matrix_bytes(2, 3, {0, 1, 2, 3, 4}, "", true), std::string("\2\0\0\0\3", 5),
      matrix_bytes(-1, -1, {1, 2}), "", "2 2\n1 2\nx 4\n", "3\n1\n2\n", "...\n1 2\n", "2 -3\n1 2 3 4 5 6\n",
      "99999999999 1\n1\n", matrix_bytes(30000, 30000, {1}), matrix_bytes(30000, 30000, {1}, "", true),
      matrix_bytes(2000000000, 0, {}), "30000 30000\n1 2 3\n", "3 2\n1 2 3 4 5\n"};
  for (size_t k = 0; k < std::size(cases); k++) write_file(dir.file(std::to_string(k)), cases[k]);
  ASSERT_EQ(mkdir(dir.file(std::to_string(std::size(cases))).c_str(), 0755), 0);  // opens, holds no file
  auto run = [&] {
    cap_address_space();
    const std::string log = dir.file("stderr.log");  // the death test captures stderr itself
    for (size_t k = 0; k <= std::size(cases); k++) {
      const std::string path = dir.file(std::to_string(k));
      if (!freopen(log.c_str(), "w", stderr)) _exit(4);
      int R, C, n;
      char *tail = (char *)1;
      float **m = gettailmatrix(path.c_str(), &R, &C, &n, &tail);
      fflush(stderr);
      if (m || tail || n || read_file(log) != "\n Error reading " + path + "\n\n\a\a") _exit(10 + (int)k);
    }
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  const std::string missing = dir.file("nothing-here.mat");
  int R = -1, C = -1, n = -1;
  char *tail = (char *)1;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(!gettailmatrix(missing.c_str(), &R, &C, &n, &tail) && R == 0 && C == 0 && n == 0 && !tail);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Cannot open " + missing + "\n\n\a\a");
}

// A line beginning with the item (any case), then a line with its value.
TEST(TailItems, FindItemAndReadItsValue) {
  const struct {
    std::string tail;
    int len;  // -1: the whole tail
    const char *item;
    long at;  // offset of the value line, -1: not found
    float value;  // NaN: tail_float finds no number
  } cases[] = {
      {"the gain\n5\nSample Frequency\n-1.5e3 Hz\ngain\n7\ngain\n2.5\n", -1, "SAMPLE FREQ", 28, -1500},
      {"the gain\n5\nSample Frequency\n-1.5e3 Hz\ngain\n7\ngain\n2.5\n", -1, "gain", 43, 7},  // the first line wins
      {"notes\nsample freq", -1, "sample freq", -1, NAN},  // no value line
      {"gain\n2\nsample freq\n9\n", 7, "sample freq", -1, NAN},  // the length rules
      {"gain\n2\n", -5, "gain", -1, NAN},
      {"sample freq\n12345\n", 14, "sample freq", 12, 12},  // cut by the end of the tail
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tail + "| " + c.item);
    // Exactly the tail's length: reading past it is an error a sanitizer reports.
    std::unique_ptr<char[]> buf(new char[c.tail.size()]);
    memcpy(buf.get(), c.tail.data(), c.tail.size());
    const int len = c.len == -1 ? (int)c.tail.size() : c.len;
    const char *at = find_tail_item(len, buf.get(), c.item);
    float v = -99;
    EXPECT_EQ(at ? at - buf.get() : -1, c.at);
    EXPECT_EQ(tail_float(len, buf.get(), c.item, &v), std::isnan(c.value) ? 0 : 1);
    EXPECT_EQ(v, std::isnan(c.value) ? -99 : c.value);
  }
}

struct Result {
  int ok = -1;
  TriMesh mesh;
  std::string out, err;
  bool untouched = false;  // all four outputs kept their values
};

// dhkinp with recognisable values in its outputs, and what it handed back.
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
    free(p), free(t);
  }
  return r;
}

// A successful read of exactly `want`, coordinates bit for bit.
void expect_mesh(const std::string &path, const TriMesh &want) {
  const Result r = read_tri(path);
  ASSERT_EQ(r.ok, 1) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, path + " contains " + std::to_string(want.pnt.size()) + " vertices and " +
                       std::to_string(want.dhk.size()) + " triangles\n");
  ASSERT_EQ(r.mesh.pnt.size(), want.pnt.size());
  for (size_t i = 0; i < want.pnt.size(); i++) EXPECT_EQ(memcmp(r.mesh.pnt[i].data(), want.pnt[i].data(), 12), 0) << i;
  EXPECT_EQ(r.mesh.dhk, want.dhk);
}

const Bytes V1 = Bytes().i(1).f(0).f(0).f(0);  // one vertex at the origin, binary

TEST(TriangleFile, WrittenMeshesAndAcceptedLayoutsReadBackExactly) {
  TempDir dir;
  // Binary: the 12 vertices of icosphere(0) start with a form feed and 0.
  const TriMesh corpus[] = {icosphere(0, 1.0),
                            {{{0.1f, -2.5e-3f, 1e6f}, {-0.0f, 3.4028e38f, 1e-38f}, {7, 8, 9}, {-1.25f, 0.333333343f, -1e-7f}},
                             {{0, 1, 2}, {0, 2, 3}, {0, 3, 1}, {1, 3, 2}}},
                            {}};
  for (const TriMesh &m : corpus)
    for (bool binary : {false, true}) {
      const std::string path = dir.file(binary ? "mesh.bin" : "mesh.txt");
      ASSERT_TRUE(write_trimesh(path, m, binary));
      expect_mesh(path, m);
    }
  const std::vector<std::array<float, 3>> P3 = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  const std::pair<std::string, TriMesh> cases[] = {
      // Text indices count from 1.  Four or more numbers: the first is a
      // running number, any after the fourth are ignored; blanks, tabs and
      // CR-LF line ends read alike.
      {"3\r\n0 0 0\r\n7 1 0 0 99\r\n  0\t1  0\r\n3\r\n1 1 2 3\r\n3 2 1\r\n12 2 3 1 99\r\n", {P3, {{0, 1, 2}, {2, 1, 0}, {1, 2, 0}}}},
      // Records of 159 characters are whole; longer lines go on in the next.
      {"2\n5 0 0 0" + std::string(152, ' ') + "1 2 3\n", {{{0, 0, 0}, {1, 2, 3}}, {}}},
      {"1\n0 0 0\n1\n1-1-1", {{{0, 0, 0}}, {{0, -2, -2}}}},  // the shortest line that fits the count
  };
  for (const auto &[contents, want] : cases) {
    write_file(dir.file("good"), contents);
    expect_mesh(dir.file("good"), want);
  }
}

TEST(TriangleFile, DamagedFilesAreReadErrorsThatChangeNothing) {
  TempDir dir;
  const std::string TRI3 = "3\n0 0 0\n1 0 0\n0 1 0\n";
  const std::string cases[] = {
      // Text: blank or missing count, missing or malformed numbers, bad counts.
      "", "\n1\n0 0 0\n", "2\n0 0 0\n", "1\n0 0 x\n", TRI3 + "2\n1 2 3\n", TRI3 + "1\n1 2.5 3\n", "-1\n0 0 0\n",
      "99999999999\n0 0 0\n", "1\n0 0 0\n1\n1 1 99999999999\n", "2\n0 0 nan\n1 1 1\n", "1\n0 1e39 0\n",
      // Binary ('a' is not a text byte): short, truncated, negative counts, NaN.
      "ab", Bytes().i(1).f(0).f(0).s, V1.s, Bytes(V1).i(1).i(0).i(0).s, Bytes().i(-1).f(0).f(0).f(0).i(0).s,
      Bytes(V1).i(-1).s, Bytes().i(1).f(NAN).f(0).f(0).i(0).s, Bytes().i(1).f(-INFINITY).f(0).f(0).i(0).s,
  };
  mkdir(dir.file("folder").c_str(), 0755);  // opens, but holds no file
  for (size_t k = 0; k <= std::size(cases); k++) {
    const std::string path = dir.file(k < std::size(cases) ? "bad" + std::to_string(k) : "folder");
    if (k < std::size(cases)) write_file(path, cases[k]);
    const Result r = read_tri(path);
    EXPECT_TRUE(r.ok == 0 && r.out.empty() && r.untouched) << path;
    EXPECT_EQ(r.err, "\nError reading file " + path + "\a\a\n\n");
  }
  const std::string missing = dir.file("no such file.tri");
  EXPECT_EQ(read_tri(missing).err, "\nError opening file " + missing + "\a\a\n\n");
}

// dhkinp in a capped address space; exits with 0 on refusal.
[[noreturn]] void read_with_small_memory(const std::string &path) {
  cap_address_space();
  int32_t n, m;
  float(*p)[3];
  int32_t(*t)[3];
  const int ok = dhkinp(path.c_str(), &n, &m, &p, &t);
  fflush(stderr);
  _exit(ok ? 2 : 0);
}

TEST(TriangleFile, HugeCountsInTinyFilesAreRefusedBeforeAllocating) {
  TempDir dir;
  // 200 million vertices would need 2.4 GB; the files hold a few bytes.
  for (const std::string &c : {Bytes().i(200000000).f(0).f(0).f(0).s, Bytes(V1).i(200000000).i(0).i(0).i(0).s,
                               std::string("200000000\n0 0 0\n"), std::string("1\n0 0 0\n200000000\n1 1 1\n")}) {
    write_file(dir.file("huge"), c);
    EXPECT_EXIT(read_with_small_memory(dir.file("huge")), testing::ExitedWithCode(0), "\nError reading file .*") << c;
  }
#ifndef __SANITIZE_ADDRESS__  // whose allocator ends the run instead of failing
  // A file that really is that large (sparse) is read as far as the
  // allocation, which fails with its own message.
  const std::string big = dir.file("sparse.bin");
  write_file(big, Bytes().i(200000000).s);
  ASSERT_EQ(truncate(big.c_str(), 8 + 12LL * 200000000), 0);
  EXPECT_EXIT(read_with_small_memory(big), testing::ExitedWithCode(0), "^\nOut of memory\n\n$");
#endif
}

}  // namespace
