// Reading triangle files, text and binary.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>

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

// dhkinp with little more address space than the process already has (an
// allocation sized by the file's counts cannot succeed); exits with 0 on refusal.
[[noreturn]] void read_with_small_memory(const std::string &path) {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlim_t cap = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + ((rlim_t)256 << 20);
  const rlimit lim = {cap, cap};
  setrlimit(RLIMIT_AS, &lim);
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
