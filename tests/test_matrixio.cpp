// Matrix files (writer, reader in both byte orders and the text form) and
// named items in their tails.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "matrixio/matrix.h"
#include "matrixio/readtail.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"

namespace {

using Rows = std::vector<std::vector<float>>;

std::vector<float> flat(const Rows &rows) {
  std::vector<float> v;
  for (const auto &r : rows) v.insert(v.end(), r.begin(), r.end());
  return v;
}
float **to_matrix(const Rows &rows, int ncols) {
  float **m = matrix(1, (long)rows.size(), 1, ncols);
  for (size_t r = 0; r < rows.size(); r++)
    for (int c = 0; c < ncols; c++) m[r + 1][c + 1] = rows[r][c];
  return m;
}
std::string read_error(const std::string &path) { return "\n Error reading " + path + "\n\n\a\a"; }

// Everything one call of the reader hands back, with what it printed.
struct Read {
  float **m = nullptr;
  int R = -1, C = -1, tail_len = -1;
  char *tail = nullptr;
  std::string err;
  explicit Read(const std::string &path) {
    foreign = ascifile = 7;  // the reader must set both
    testing::internal::CaptureStderr();
    m = gettailmatrix(path.c_str(), &R, &C, &tail_len, &tail);
    err = testing::internal::GetCapturedStderr();
  }
  ~Read() {
    if (m) free_matrix(m, 1, R, 1, C);
    free(tail);
  }
  std::string tail_text() const { return tail ? std::string(tail, tail_len) : std::string(); }
  // Values compared bit for bit: the file moves bits, NaNs included.
  void expect(const Rows &rows, int ncols, const std::string &want_tail) const {
    ASSERT_NE(m, nullptr) << err;
    EXPECT_EQ(err, "");
    ASSERT_EQ(R, (int)rows.size());
    ASSERT_EQ(C, ncols);
    for (size_t i = 0; i < rows.size(); i++)
      for (int j = 0; j < ncols; j++)
        EXPECT_EQ(memcmp(&m[i + 1][j + 1], &rows[i][j], 4), 0) << "row " << i + 1 << " col " << j + 1;
    EXPECT_EQ(tail_text(), want_tail);
    EXPECT_EQ(tail == nullptr, want_tail.empty());
    EXPECT_EQ(tail_len, (int)want_tail.size());
  }
};

TEST(MatrixFile, WriterLaysOutCountsValuesAndTailExactly) {
  TempDir dir;
  Rows rows = {{1.5f, -2.25f, 3e-7f, 1e30f}, {0.0f, -0.0f, 7.0f, -1e-38f}, {42.0f, 0.1f, -3.5f, 8.0f}};
  float **m = to_matrix(rows, 4);
  std::string tail = "sample frequency\n500 Hz\n", path = dir.file("a.mat");
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputtailmatrix(path.c_str(), m, 3, 4, (int)tail.size(), tail.data()), 1);
  EXPECT_EQ(read_file(path), matrix_bytes(3, 4, flat(rows), tail));
  EXPECT_EQ(binputmatrix(path.c_str(), m, 3, 4), 1);
  EXPECT_EQ(read_file(path), matrix_bytes(3, 4, flat(rows)));
  EXPECT_EQ(binputtailmatrix(path.c_str(), m, 3, 4, 0, "ignored"), 1);
  EXPECT_EQ(read_file(path), matrix_bytes(3, 4, flat(rows)));
  EXPECT_EQ(binputtailmatrix(path.c_str(), nullptr, 0, 5, 3, "abc"), 1);  // no rows, no values
  EXPECT_EQ(read_file(path), matrix_bytes(0, 5, {}, "abc"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  free_matrix(m, 1, 3, 1, 4);
}

TEST(MatrixFile, RandomShapesAndBitPatternsSurviveBothByteOrders) {
  TempDir dir;
  std::mt19937 gen(20051104);
  std::uniform_int_distribution<int> size(1, 9);
  std::uniform_int_distribution<uint32_t> bits;
  for (int trial = 0; trial < 40; trial++) {
    int R = size(gen), C = size(gen);
    Rows rows(R, std::vector<float>(C));
    for (auto &row : rows)
      for (float &v : row) {
        uint32_t w = bits(gen);
        memcpy(&v, &w, 4);
      }
    std::string tail(trial % 5 == 0 ? 0 : size(gen) * 7, 'x');
    for (char &c : tail) c = (char)bits(gen);
    SCOPED_TRACE(std::to_string(R) + " x " + std::to_string(C));

    std::string own = dir.file("own.mat"), other = dir.file("other.mat");
    float **m = to_matrix(rows, C);
    ASSERT_EQ(binputtailmatrix(own.c_str(), m, R, C, (int)tail.size(), tail.data()), 1);
    free_matrix(m, 1, R, 1, C);
    Read a(own);
    a.expect(rows, C, tail);
    EXPECT_EQ(foreign, 0);
    EXPECT_EQ(ascifile, 0);
    write_file(other, matrix_bytes(R, C, flat(rows), tail, true));
    Read b(other);
    b.expect(rows, C, tail);  // the tail is text: never swapped
    EXPECT_EQ(foreign, 1);
    EXPECT_EQ(ascifile, 0);
  }
}

TEST(MatrixFile, ShapesAndTailsAsRead) {
  TempDir dir;
  std::string abc(1500, 'q');
  for (int i = 0; i < 1500; i++) abc[i] = (char)('a' + i % 26);
  struct Case {
    std::string contents;
    Rows rows;
    int ncols;
    std::string tail;
    int text;
  } cases[] = {
      {matrix_bytes(0, 5, {}, "abc"), {}, 5, "abc", 0},
      {matrix_bytes(3, 0, {}), {{}, {}, {}}, 0, "", 0},
      {matrix_bytes(1, 2, {1, 2}, abc), {{1, 2}}, 2, abc.substr(0, 1024), 0},  // only 1024 bytes kept
      // Text: one count is one column; the line ends after the numbers are
      // dropped, other white space starts the tail.
      {"3\n1.5\n-2\n3e2\n", {{1.5f}, {-2.0f}, {300.0f}}, 1, "", 1},
      {"2 3\n1 2\t3\n  4.5\n5 -6e-1\n\n\nsample freq\n250 Hz\n", {{1, 2, 3}, {4.5f, 5, -0.6f}}, 3,
       "sample freq\n250 Hz\n", 1},
      {"1 2\n7 8\n \nnote\n", {{7, 8}}, 2, " \nnote\n", 1},
      {"2 2\n1 2 3 4", {{1, 2}, {3, 4}}, 2, "", 1},
      {"2 1\ninf\n-inf\n", {{INFINITY}, {-INFINITY}}, 1, "", 1},  // judged by the caller
      // 1024 bytes are read just after "9", then the three line ends go.
      {"1\n9\n\n\n" + std::string(1500, 'q'), {{9}}, 1, std::string(1021, 'q'), 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.contents.substr(0, 40));
    write_file(dir.file("m"), c.contents);
    Read r(dir.file("m"));
    r.expect(c.rows, c.ncols, c.tail);
    EXPECT_EQ(ascifile, c.text);
    EXPECT_EQ(foreign, 0);
  }
}

TEST(ByteOrder, SwapsAndTheOwnOrderDecision) {
  // Values of the other order are swapped back by the round trips above.
  EXPECT_EQ(longwordswap(0x01020304u), 0x04030201u);
  EXPECT_EQ(longwordswap(0xff000000u), 0x000000ffu);
  // Up to 1e9 elements (the product taken exactly) is this machine's order.
  struct Case {
    int R, C, foreign;
  } cases[] = {
      {1000, 1000000, 0}, {1, 1000000001, 1}, {65536, 65536, 1},
      {2147483647, 2147483647, 1},  // wrap to 0 and 1 in 32 bits
      {0, 2147483647, 0}, {-1, 3, 1}, {3, -1, 1},
  };
  for (const Case &k : cases) {
    int R = k.R, C = k.C;
    EXPECT_EQ(swapnrowncol(&R, &C), k.foreign) << k.R << " x " << k.C;
    EXPECT_EQ((uint32_t)R, k.foreign ? longwordswap((uint32_t)k.R) : (uint32_t)k.R);
    EXPECT_EQ((uint32_t)C, k.foreign ? longwordswap((uint32_t)k.C) : (uint32_t)k.C);
  }
}

TEST(MatrixFileErrors, DamagedFilesGiveTheReadError) {
  TempDir dir;
  std::string path = dir.file("bad");
  std::vector<float> five = {0, 1, 2, 3, 4};
  struct Case {
    const char *what;
    std::string contents;
    int R, C;  // counts handed back, -1: not checked
  } cases[] = {
      {"values cut short", matrix_bytes(2, 3, five), 2, 3},
      {"values cut short, other order", matrix_bytes(2, 3, five, "", true), 2, 3},
      {"header cut short", std::string("\x02\x00\x00\x00\x03\x00", 6), -1, -1},
      {"negative both ways", matrix_bytes(-1, -1, five), -1, -1},
      {"empty file", "", -1, -1},
      {"text: garbage number", "2 2\n1 2\nx 4\n", -1, -1},
      {"text: too few numbers", "2 3\n1 2 3\n4 5\n", -1, -1},
      {"text: one count, too few numbers", "3\n1\n2\n", -1, -1},
      {"text: header without a number", "...\n1 2\n", -1, -1},
      {"text: blank header", "    \n1 2\n", -1, -1},
      {"text: negative rows", "-2 3\n1 2 3 4 5 6\n", -1, -1},
      {"text: negative columns", "2 -3\n1 2 3 4 5 6\n", -1, -1},
      {"text: count beyond int", "99999999999 1\n1\n", -1, -1},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    write_file(path, k.contents);
    Read r(path);
    EXPECT_EQ(r.m, nullptr);
    EXPECT_EQ(r.err, read_error(path));
    EXPECT_TRUE(r.tail == nullptr && r.tail_len == 0);
    EXPECT_TRUE(k.R == -1 || (r.R == k.R && r.C == k.C)) << r.R << " x " << r.C;
  }
  ASSERT_EQ(mkdir(dir.file("folder").c_str(), 0755), 0);  // opens, but holds no file
  Read folder(dir.file("folder"));
  EXPECT_EQ(folder.m, nullptr);
  EXPECT_EQ(folder.err, read_error(dir.file("folder")));
  std::string missing = dir.file("nothing-here.mat");
  Read r(missing);
  EXPECT_EQ(r.m, nullptr);
  EXPECT_EQ(r.err, "\n Cannot open " + missing + "\n\n\a\a");
  EXPECT_TRUE(r.R == 0 && r.C == 0 && r.tail_len == 0 && r.tail == nullptr);
}

TEST(MatrixFileErrors, WriterReportsEveryFailure) {
  TempDir dir;
  float **small = to_matrix({{1, 2}, {3, 4}}, 2), **big = matrix(1, 64, 1, 1000);
  std::string missing = dir.file("no/such/folder.mat"), long_tail(100000, 't');
  const std::string full = "\n Error writing to /dev/full\n\n\a\a";
  struct Case {
    const char *name;
    float **m;
    int R, C, tail_len;
    const char *tail;
    std::string err;
  } cases[] = {
      {missing.c_str(), small, 2, 2, 0, nullptr, "\n Cannot create " + missing + "\n\n\a\a"},
      {"/dev/full", small, 2, 2, 0, nullptr, full},  // fits the buffer: fails at close
      {"/dev/full", small, 2, 2, 4, "tail", full},
      {"/dev/full", big, 64, 1000, 0, nullptr, full},  // a row block comes back short
      {"/dev/full", big, 1, 10, (int)long_tail.size(), long_tail.data(), full},
  };
  for (const Case &k : cases) {
    if (k.err == full && access("/dev/full", W_OK) != 0) continue;
    SCOPED_TRACE(std::to_string(k.R) + " x " + std::to_string(k.C) + " tail " + std::to_string(k.tail_len));
    testing::internal::CaptureStderr();
    EXPECT_EQ(k.tail ? binputtailmatrix(k.name, k.m, k.R, k.C, k.tail_len, k.tail) : binputmatrix(k.name, k.m, k.R, k.C), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), k.err);
  }
  free_matrix(small, 1, 2, 1, 2);
  free_matrix(big, 1, 64, 1, 1000);
}

// Headers that claim far more than the file holds, read in a child whose
// address space is capped well below what the claims would need: had the
// reader allocated first, it would fail with the out-of-memory message
// instead of the read error.
TEST(MatrixFileErrors, HugeCountsInTinyFilesAreRefusedWithoutAllocating) {
  TempDir dir;
  const std::string cases[] = {
      matrix_bytes(30000, 30000, {1}), matrix_bytes(30000, 30000, {1}, "", true),
      matrix_bytes(2000000000, 0, {}),  // no columns, vast row table
      "30000 30000\n1 2 3\n", "900000000\n1 2 3\n", "2000000000 0\n",
      "3 2\n1 2 3 4 5\n",  // 6 numbers cannot fit in 10 bytes
  };
  for (size_t k = 0; k < std::size(cases); k++) write_file(dir.file(std::to_string(k)), cases[k]);
  auto run = [&] {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit lim;
    lim.rlim_cur = lim.rlim_max = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + ((rlim_t)256 << 20);
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
    // The death test captures standard error itself: collect it in a file.
    std::string log = dir.file("stderr.log");
    for (size_t k = 0; k < std::size(cases); k++) {
      std::string path = dir.file(std::to_string(k));
      if (!freopen(log.c_str(), "w", stderr)) _exit(4);
      int R, C, n;
      char *tail;
      float **m = gettailmatrix(path.c_str(), &R, &C, &n, &tail);
      fflush(stderr);
      if (m || read_file(log) != read_error(path)) _exit(10 + (int)k);
    }
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// --- Tail items -------------------------------------------------------------

TEST(TailItems, FindItemAndReadItsValue) {
  const std::string MODEL = "model: 3 shells\ngain\n2.5\nsample frequency\n1000 Hz\ngain\n7\n";
  struct Case {
    std::string tail;
    int len;  // -1: the whole tail
    const char *item;
    long at;   // offset of the value line, -1: not found
    int ok;    // what tail_float says
    float value;
  } cases[] = {
      {"Sample Frequency\n500 Hz\n", -1, "sample freq", 17, 1, 500},
      {"Sample Frequency\n500 Hz\n", -1, "SAMPLE FREQUENCY", 17, 1, 500},
      {MODEL, -1, "sample freq", 42, 1, 1000},  // free text between items
      {MODEL, -1, "gain", 21, 1, 2.5f},         // the first matching line wins
      {"notes\nsample freq", -1, "sample freq", -1, 0, 0},  // no value line
      {"notes\nsample freq\n", -1, "sample freq", -1, 0, 0},
      {"the sample freq\n500\n", -1, "sample freq", -1, 0, 0},  // inside a line
      {"sample freq 500", -1, "sample freq", -1, 0, 0},
      {"samp", -1, "sample freq", -1, 0, 0},
      {"gain\n2\n", -1, "sample freq", -1, 0, 0},
      {"gain\n2\nsample freq\n9\n", 7, "sample freq", -1, 0, 0},  // the length rules
      {"gain\n2\nsample freq\n9\n", -1, "sample freq", 19, 1, 9},
      {"gain\n2\n", 0, "gain", -1, 0, 0},
      {"gain\n2\n", -5, "gain", -1, 0, 0},
      {"first\nsecond\n", -1, "", 6, 0, 0},  // an empty name matches the first line
      {"only", -1, "", -1, 0, 0},
      {"sample frequency\nunknown\n", -1, "sample freq", 17, 0, 0},
      {"sample frequency\n\n300\n", -1, "sample freq", 17, 0, 0},  // no borrowing from later lines
      {"sample freq\n250", -1, "sample freq", 12, 1, 250},
      {"sample freq\n   -1.5e3 units\n", -1, "sample freq", 12, 1, -1500},
      {"sample freq\n12345\n", 14, "sample freq", 12, 1, 12},  // cut by the end of the tail
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tail + "| " + c.item);
    // A block of exactly the tail's length: reading past it is an error a
    // sanitizer build reports.
    std::unique_ptr<char[]> buf(new char[c.tail.empty() ? 1 : c.tail.size()]);
    memcpy(buf.get(), c.tail.data(), c.tail.size());
    int len = c.len == -1 ? (int)c.tail.size() : c.len;
    const char *at = find_tail_item(len, buf.get(), c.item);
    EXPECT_EQ(at ? at - buf.get() : -1, c.at);
    float v = -99;
    EXPECT_EQ(tail_float(len, buf.get(), c.item, &v), c.ok);
    EXPECT_EQ(v, c.ok ? c.value : -99);
  }
  float v = 3;
  EXPECT_EQ(find_tail_item(0, nullptr, "gain"), nullptr);
  EXPECT_EQ(tail_float(0, nullptr, "gain", &v), 0);
  EXPECT_EQ(v, 3.0f);
}

}  // namespace
