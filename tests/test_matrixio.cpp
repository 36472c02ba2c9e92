// Matrix files (writer, reader in both byte orders and the text form) and
// named items in their tails.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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

namespace {

using Rows = std::vector<std::vector<float>>;

// The four bytes of v as this machine stores them, or in the reverse order
// (what a machine of the other byte order would have written).
std::string word_bytes(uint32_t v, bool other_order) {
  unsigned char b[4];
  memcpy(b, &v, 4);
  if (other_order) std::swap(b[0], b[3]), std::swap(b[1], b[2]);
  return std::string(reinterpret_cast<char *>(b), 4);
}
std::string int_bytes(int32_t v, bool other_order) { return word_bytes((uint32_t)v, other_order); }
std::string float_bytes(float f, bool other_order) {
  uint32_t w;
  memcpy(&w, &f, 4);
  return word_bytes(w, other_order);
}

// A whole binary matrix file built byte by byte, independently of the writer.
std::string binary_file(const Rows &rows, int ncols, const std::string &tail, bool other_order) {
  std::string s = int_bytes((int32_t)rows.size(), other_order) + int_bytes(ncols, other_order);
  for (const auto &row : rows)
    for (float v : row) s += float_bytes(v, other_order);
  return s + tail;
}

float **to_matrix(const Rows &rows, int ncols) {
  float **m = matrix(1, (long)rows.size(), 1, ncols);
  for (size_t r = 0; r < rows.size(); r++)
    for (int c = 0; c < ncols; c++) m[r + 1][c + 1] = rows[r][c];
  return m;
}

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

// Everything one call of the reader hands back, with what it printed.
struct ReadResult {
  float **m = nullptr;
  int R = -1, C = -1, tail_len = -1;
  char *tail = nullptr;
  std::string err;
  std::string tail_text() const { return tail ? std::string(tail, tail_len) : std::string(); }
  ~ReadResult() {
    if (m) free_matrix(m, 1, R, 1, C);
    free(tail);
  }
};

std::unique_ptr<ReadResult> read_matrix(const std::string &path) {
  auto r = std::make_unique<ReadResult>();
  testing::internal::CaptureStderr();
  r->m = gettailmatrix(path.c_str(), &r->R, &r->C, &r->tail_len, &r->tail);
  r->err = testing::internal::GetCapturedStderr();
  return r;
}

std::string read_error(const std::string &path) { return "\n Error reading " + path + "\n\n\a\a"; }

void expect_matrix(const ReadResult &r, const Rows &rows, int ncols) {
  ASSERT_NE(r.m, nullptr) << r.err;
  ASSERT_EQ(r.R, (int)rows.size());
  ASSERT_EQ(r.C, ncols);
  for (size_t i = 0; i < rows.size(); i++)
    for (int j = 0; j < ncols; j++)
      EXPECT_TRUE(same_bits(r.m[i + 1][j + 1], rows[i][j]))
          << "row " << i + 1 << " col " << j + 1 << ": " << r.m[i + 1][j + 1] << " vs " << rows[i][j];
}

// A tail in a heap block of exactly its own length, so that reading one
// byte past it is an out-of-range access a sanitizer build reports.
struct ExactTail {
  std::unique_ptr<char[]> buf;
  int len;
  explicit ExactTail(const std::string &s) : buf(new char[s.size() ? s.size() : 1]), len((int)s.size()) {
    memcpy(buf.get(), s.data(), s.size());
  }
  const char *p() const { return buf.get(); }
  // Offset of a returned position, or -1 for none.
  long at(const char *q) const { return q ? q - buf.get() : -1; }
};

// --- Writing and reading back ------------------------------------------

TEST(MatrixFile, WriterLaysOutCountsValuesAndTailExactly) {
  TempDir dir;
  Rows rows = {{1.5f, -2.25f, 3e-7f, 1e30f}, {0.0f, -0.0f, 7.0f, -1e-38f}, {42.0f, 0.1f, -3.5f, 8.0f}};
  float **m = to_matrix(rows, 4);
  std::string tail = "sample frequency\n500 Hz\n";
  std::string path = dir.file("a.mat");

  testing::internal::CaptureStderr();
  EXPECT_EQ(binputtailmatrix(path.c_str(), m, 3, 4, (int)tail.size(), tail.data()), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(read_file(path), binary_file(rows, 4, tail, false));

  // No tail: nothing after the values, and with tail_len 0 nothing either.
  EXPECT_EQ(binputmatrix(path.c_str(), m, 3, 4), 1);
  EXPECT_EQ(read_file(path), binary_file(rows, 4, "", false));
  EXPECT_EQ(binputtailmatrix(path.c_str(), m, 3, 4, 0, "ignored"), 1);
  EXPECT_EQ(read_file(path).size(), 8u + 48u);
  free_matrix(m, 1, 3, 1, 4);
}

TEST(MatrixFile, RoundTripInOwnByteOrder) {
  TempDir dir;
  Rows rows = {{1.5f, -2.25f, 3e-7f}, {1e30f, -0.0f, 6.0f}};
  float **m = to_matrix(rows, 3);
  std::string tail = "Sample Frequency\n250 Hz\nfree text\n";
  std::string path = dir.file("b.mat");
  ASSERT_EQ(binputtailmatrix(path.c_str(), m, 2, 3, (int)tail.size(), tail.data()), 1);
  free_matrix(m, 1, 2, 1, 3);

  foreign = ascifile = 1;  // the reader must reset both
  auto r = read_matrix(path);
  EXPECT_EQ(r->err, "");
  expect_matrix(*r, rows, 3);
  EXPECT_EQ(foreign, 0);
  EXPECT_EQ(ascifile, 0);
  EXPECT_EQ(r->tail_len, (int)tail.size());
  EXPECT_EQ(r->tail_text(), tail);
  float fs = 0;
  EXPECT_EQ(tail_float(r->tail_len, r->tail, "sample freq", &fs), 1);
  EXPECT_EQ(fs, 250.0f);
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
        memcpy(&v, &w, 4);  // any pattern, NaNs included: the file moves bits
      }
    std::string tail(trial % 5 == 0 ? 0 : size(gen) * 7, 'x');
    for (size_t i = 0; i < tail.size(); i++) tail[i] = (char)bits(gen);

    std::string own = dir.file("own.mat");
    float **m = to_matrix(rows, C);
    ASSERT_EQ(binputtailmatrix(own.c_str(), m, R, C, (int)tail.size(), tail.data()), 1);
    free_matrix(m, 1, R, 1, C);
    auto a = read_matrix(own);
    expect_matrix(*a, rows, C);
    EXPECT_EQ(foreign, 0);
    EXPECT_EQ(a->tail_text(), tail);
    EXPECT_EQ(a->tail == nullptr, tail.empty());

    std::string other = dir.file("other.mat");
    write_file(other, binary_file(rows, C, tail, true));
    auto b = read_matrix(other);
    expect_matrix(*b, rows, C);
    EXPECT_EQ(foreign, 1) << R << "x" << C;
    EXPECT_EQ(b->tail_text(), tail);
  }
}

TEST(MatrixFile, FileOfTheOtherByteOrderReadsBackTheSameNumbers) {
  TempDir dir;
  Rows rows = {{1.0f, -2.5f, 1e-3f}, {3.25f, 1e20f, -7.0f}};
  std::string path = dir.file("foreign.mat");
  write_file(path, binary_file(rows, 3, "sample freq\n1000\n", true));
  auto r = read_matrix(path);
  EXPECT_EQ(r->err, "");
  expect_matrix(*r, rows, 3);
  EXPECT_EQ(foreign, 1);
  EXPECT_EQ(ascifile, 0);
  EXPECT_EQ(r->tail_text(), "sample freq\n1000\n");  // text is never byte-swapped

  // The flag describes the last read only.
  std::string own = dir.file("own.mat");
  write_file(own, binary_file(rows, 3, "", false));
  auto o = read_matrix(own);
  expect_matrix(*o, rows, 3);
  EXPECT_EQ(foreign, 0);
}

TEST(MatrixFile, EmptyMatricesAreValid) {
  TempDir dir;
  std::string path = dir.file("empty.mat");
  ASSERT_EQ(binputtailmatrix(path.c_str(), nullptr, 0, 5, 3, "abc"), 1);
  auto r = read_matrix(path);
  ASSERT_NE(r->m, nullptr) << r->err;
  EXPECT_EQ(r->R, 0);
  EXPECT_EQ(r->C, 5);
  EXPECT_EQ(r->tail_text(), "abc");

  write_file(path, binary_file({{}, {}, {}}, 0, "", false));
  auto z = read_matrix(path);
  ASSERT_NE(z->m, nullptr) << z->err;
  EXPECT_EQ(z->R, 3);
  EXPECT_EQ(z->C, 0);
  EXPECT_EQ(z->tail, nullptr);
  EXPECT_EQ(z->tail_len, 0);
}

TEST(MatrixFile, TailIsCutToItsFirst1024Bytes) {
  TempDir dir;
  std::string tail;
  for (int i = 0; i < 1500; i++) tail += (char)('a' + i % 26);
  std::string path = dir.file("long.mat");
  float **m = to_matrix({{1, 2}}, 2);
  ASSERT_EQ(binputtailmatrix(path.c_str(), m, 1, 2, (int)tail.size(), tail.data()), 1);
  free_matrix(m, 1, 1, 1, 2);
  EXPECT_EQ(read_file(path).size(), 8u + 8u + 1500u);  // the writer keeps everything
  auto r = read_matrix(path);
  ASSERT_NE(r->m, nullptr);
  EXPECT_EQ(r->tail_len, 1024);
  EXPECT_EQ(r->tail_text(), tail.substr(0, 1024));
}

// --- Byte order decision --------------------------------------------------

TEST(ByteOrder, WordSwapReversesTheFourBytes) {
  EXPECT_EQ(longwordswap(0x01020304u), 0x04030201u);
  EXPECT_EQ(longwordswap(0xff000000u), 0x000000ffu);
  std::mt19937 gen(7);
  for (int i = 0; i < 1000; i++) {
    uint32_t w = gen();
    EXPECT_EQ(longwordswap(longwordswap(w)), w);
    uint32_t expect;
    std::string b = word_bytes(w, true);
    memcpy(&expect, b.data(), 4);
    EXPECT_EQ(longwordswap(w), expect);
  }

  float **m = to_matrix({{1.0f, -2.0f}, {0.5f, 3.0f}}, 2);
  swapmat(m, 2, 2);
  std::string b = float_bytes(-2.0f, true);
  EXPECT_EQ(memcmp(&m[1][2], b.data(), 4), 0);
  swapmat(m, 2, 2);
  EXPECT_EQ(m[1][1], 1.0f);
  EXPECT_EQ(m[1][2], -2.0f);
  EXPECT_EQ(m[2][1], 0.5f);
  EXPECT_EQ(m[2][2], 3.0f);
  free_matrix(m, 1, 2, 1, 2);
}

TEST(ByteOrder, CountsUpToOneThousandMillionElementsAreOwnOrder) {
  struct Case {
    int R, C, foreign;
  } cases[] = {
      // exactly 1e9 elements, and one more
      {1000, 1000000, 0}, {40000, 25000, 0}, {1, 1000000000, 0},
      {1, 1000000001, 1}, {40000, 25001, 1},
      // products that wrap in 32-bit arithmetic (to 0 and to 1)
      {65536, 65536, 1}, {2147483647, 2147483647, 1},
      // no elements at all, however many columns
      {0, 2147483647, 0},
      // negative counts are never own order
      {-1, 3, 1}, {3, -1, 1},
      {2, 3, 0},
  };
  for (const Case &k : cases) {
    int R = k.R, C = k.C;
    EXPECT_EQ(swapnrowncol(&R, &C), k.foreign) << k.R << " x " << k.C;
    if (k.foreign) {
      EXPECT_EQ((uint32_t)R, longwordswap((uint32_t)k.R));
      EXPECT_EQ((uint32_t)C, longwordswap((uint32_t)k.C));
    } else {
      EXPECT_EQ(R, k.R);
      EXPECT_EQ(C, k.C);
    }
  }
}

TEST(ByteOrder, HeaderAtTheBoundaryDecidesTheOrderThenFailsOnTheMissingData) {
  TempDir dir;
  std::string path = dir.file("bound.mat");
  // 1e9 elements exactly: own order; the file cannot hold them.
  write_file(path, int_bytes(1000, false) + int_bytes(1000000, false) + float_bytes(1, false));
  auto a = read_matrix(path);
  EXPECT_EQ(a->m, nullptr);
  EXPECT_EQ(a->err, read_error(path));
  EXPECT_EQ(foreign, 0);
  EXPECT_EQ(a->R, 1000);
  EXPECT_EQ(a->C, 1000000);
  EXPECT_EQ(a->tail, nullptr);

  // One element more: taken as the other order, counts reversed.
  write_file(path, int_bytes(1, false) + int_bytes(1000000001, false) + float_bytes(1, false));
  auto b = read_matrix(path);
  EXPECT_EQ(b->m, nullptr);
  EXPECT_EQ(b->err, read_error(path));
  EXPECT_EQ(foreign, 1);
  EXPECT_EQ((uint32_t)b->R, longwordswap(1u));
  EXPECT_EQ((uint32_t)b->C, longwordswap(1000000001u));
}

// --- Text form --------------------------------------------------------------

TEST(TextMatrixFile, SingleCountGivesOneColumn) {
  TempDir dir;
  std::string path = dir.file("col.txt");
  write_file(path, "3\n1.5\n-2\n3e2\n");
  auto r = read_matrix(path);
  EXPECT_EQ(r->err, "");
  expect_matrix(*r, {{1.5f}, {-2.0f}, {300.0f}}, 1);
  EXPECT_EQ(ascifile, 1);
  EXPECT_EQ(foreign, 0);
  EXPECT_EQ(r->tail, nullptr);  // only the line end after the numbers
  EXPECT_EQ(r->tail_len, 0);
}

TEST(TextMatrixFile, RowsAndColumnsWithTailAfterTheNumbers) {
  TempDir dir;
  std::string path = dir.file("m.txt");
  write_file(path, "2 3\n1 2\t3\n  4.5\n5 -6e-1\n\n\nsample freq\n250 Hz\n");
  auto r = read_matrix(path);
  EXPECT_EQ(r->err, "");
  expect_matrix(*r, {{1, 2, 3}, {4.5f, 5, -0.6f}}, 3);
  EXPECT_EQ(ascifile, 1);
  EXPECT_EQ(r->tail_text(), "sample freq\n250 Hz\n");
  float v = 0;
  EXPECT_EQ(tail_float(r->tail_len, r->tail, "sample freq", &v), 1);
  EXPECT_EQ(v, 250.0f);

  // Only "\n" is dropped: other white space starts the tail.
  write_file(path, "1 2\n7 8\n \nnote\n");
  auto s = read_matrix(path);
  expect_matrix(*s, {{7, 8}}, 2);
  EXPECT_EQ(s->tail_text(), " \nnote\n");

  // The last number may end the file without a line end.
  write_file(path, "2 2\n1 2 3 4");
  auto t = read_matrix(path);
  EXPECT_EQ(t->err, "");
  expect_matrix(*t, {{1, 2}, {3, 4}}, 2);
  EXPECT_EQ(t->tail, nullptr);
}

TEST(TextMatrixFile, TailIsCutBeforeLeadingLineEndsAreDropped) {
  TempDir dir;
  std::string path = dir.file("t.txt");
  std::string text(1500, 'q');
  write_file(path, "1\n9\n\n\n" + text);
  auto r = read_matrix(path);
  expect_matrix(*r, {{9}}, 1);
  // 1024 bytes are read from just after "9": three line ends and 1021 q's.
  EXPECT_EQ(r->tail_len, 1021);
  EXPECT_EQ(r->tail_text(), text.substr(0, 1021));
}

// --- Failures -------------------------------------------------------------

TEST(MatrixFileErrors, DamagedFilesGiveTheReadError) {
  TempDir dir;
  std::string path = dir.file("bad");
  std::string six_values;
  for (int i = 0; i < 5; i++) six_values += float_bytes((float)i, false);
  struct Case {
    const char *what;
    std::string contents;
  } cases[] = {
      {"values cut short", int_bytes(2, false) + int_bytes(3, false) + six_values},
      {"values cut short, other order", int_bytes(2, true) + int_bytes(3, true) + six_values},
      {"header cut short", std::string("\x02\x00\x00\x00\x03\x00", 6)},
      {"negative both ways", int_bytes(-1, false) + int_bytes(-1, false) + six_values},
      {"empty file", ""},
      {"text: garbage number", "2 2\n1 2\nx 4\n"},
      {"text: too few numbers", "2 3\n1 2 3\n4 5\n"},
      {"text: one count, too few numbers", "3\n1\n2\n"},
      {"text: header without a number", "...\n1 2\n"},
      {"text: blank header", "    \n1 2\n"},
      {"text: negative rows", "-2 3\n1 2 3 4 5 6\n"},
      {"text: negative columns", "2 -3\n1 2 3 4 5 6\n"},
      {"text: count beyond int", "99999999999 1\n1\n"},
  };
  for (const Case &k : cases) {
    write_file(path, k.contents);
    auto r = read_matrix(path);
    EXPECT_EQ(r->m, nullptr) << k.what;
    EXPECT_EQ(r->err, read_error(path)) << k.what;
    EXPECT_EQ(r->tail, nullptr) << k.what;
    EXPECT_EQ(r->tail_len, 0) << k.what;
  }
}

TEST(MatrixFileErrors, MissingFileCannotBeOpened) {
  TempDir dir;
  std::string path = dir.file("nothing-here.mat");
  auto r = read_matrix(path);
  EXPECT_EQ(r->m, nullptr);
  EXPECT_EQ(r->err, "\n Cannot open " + path + "\n\n\a\a");
  EXPECT_EQ(r->R, 0);
  EXPECT_EQ(r->C, 0);
  EXPECT_EQ(r->tail_len, 0);
  EXPECT_EQ(r->tail, nullptr);
}

TEST(MatrixFileErrors, WriterReportsEveryFailure) {
  TempDir dir;
  float **small = to_matrix({{1, 2}, {3, 4}}, 2);
  std::string missing = dir.file("no/such/folder.mat");
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputmatrix(missing.c_str(), small, 2, 2), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Cannot create " + missing + "\n\n\a\a");

  if (access("/dev/full", W_OK) != 0) {
    free_matrix(small, 1, 2, 1, 2);
    GTEST_SKIP() << "no /dev/full on this system";
  }
  const std::string full_msg = "\n Error writing to /dev/full\n\n\a\a";
  // Small: everything fits the stream buffer, so the failure shows at close.
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputmatrix("/dev/full", small, 2, 2), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), full_msg);
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputtailmatrix("/dev/full", small, 2, 2, 4, "tail"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), full_msg);
  free_matrix(small, 1, 2, 1, 2);

  // Large: a row block itself comes back short.
  float **big = matrix(1, 64, 1, 1000);
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputmatrix("/dev/full", big, 64, 1000), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), full_msg);
  std::string long_tail(100000, 't');
  testing::internal::CaptureStderr();
  EXPECT_EQ(binputtailmatrix("/dev/full", big, 1, 10, (int)long_tail.size(), long_tail.data()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), full_msg);
  free_matrix(big, 1, 64, 1, 1000);
}

// Headers that claim far more than the file holds.  The reading runs in a
// child whose address space is capped well below what the claims would
// need: had the reader allocated first, the allocation would fail with the
// out-of-memory message instead of the read error.
TEST(MatrixFileErrors, HugeCountsInTinyFilesAreRefusedWithoutAllocating) {
  TempDir dir;
  struct Case {
    const char *name;
    std::string contents;
  } cases[] = {
      {"bin", int_bytes(30000, false) + int_bytes(30000, false) + float_bytes(1, false)},
      {"binother", int_bytes(30000, true) + int_bytes(30000, true) + float_bytes(1, false)},
      {"binrows", int_bytes(2000000000, false) + int_bytes(0, false)},  // no columns, vast row table
      {"txt", "30000 30000\n1 2 3\n"},
      {"txtcol", "900000000\n1 2 3\n"},
      {"txtrows", "2000000000 0\n"},
      {"txthalf", "3 2\n1 2 3 4 5\n"},  // 6 numbers cannot fit in 10 bytes
  };
  for (const Case &k : cases) write_file(dir.file(k.name), k.contents);

  auto run = [&] {
    rlimit lim;
    long pages = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages;
    rlim_t cap = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + ((rlim_t)256 << 20);
    lim.rlim_cur = lim.rlim_max = cap;
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
    // The death test already captures standard error, so collect the
    // messages in a file of our own.
    std::string log = dir.file("stderr.log");
    bool ok = true;
    for (const Case &k : cases) {
      std::string path = dir.file(k.name);
      FILE *l = freopen(log.c_str(), "w", stderr);
      if (!l) _exit(4);
      int R, C, n;
      char *tail;
      float **m = gettailmatrix(path.c_str(), &R, &C, &n, &tail);
      fflush(stderr);
      if (m || read_file(log) != read_error(path)) ok = false;
    }
    _exit(ok ? 0 : 2);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// --- Tail items -------------------------------------------------------------

TEST(TailItems, ItemIsFoundCaseInsensitivelyAtTheStartOfALine) {
  ExactTail t("Sample Frequency\n500 Hz\n");
  EXPECT_EQ(t.at(find_tail_item(t.len, t.p(), "sample freq")), 17);
  EXPECT_EQ(t.at(find_tail_item(t.len, t.p(), "SAMPLE FREQUENCY")), 17);
  float v = 0;
  EXPECT_EQ(tail_float(t.len, t.p(), "sample freq", &v), 1);
  EXPECT_EQ(v, 500.0f);

  // Free text between items; the first matching line wins.
  ExactTail u("model: 3 shells\ngain\n2.5\nsample frequency\n1000 Hz\ngain\n7\n");
  EXPECT_EQ(u.at(find_tail_item(u.len, u.p(), "sample freq")), 42);
  EXPECT_EQ(tail_float(u.len, u.p(), "gain", &v), 1);
  EXPECT_EQ(v, 2.5f);
  EXPECT_EQ(tail_float(u.len, u.p(), "sample frequency", &v), 1);
  EXPECT_EQ(v, 1000.0f);
}

TEST(TailItems, ItemWithoutValueLineOrInsideALineIsNotFound) {
  ExactTail last("notes\nsample freq");
  EXPECT_EQ(find_tail_item(last.len, last.p(), "sample freq"), nullptr);
  ExactTail last_nl("notes\nsample freq\n");
  EXPECT_EQ(find_tail_item(last_nl.len, last_nl.p(), "sample freq"), nullptr);
  ExactTail inside("the sample freq\n500\n");
  EXPECT_EQ(find_tail_item(inside.len, inside.p(), "sample freq"), nullptr);
  ExactTail no_newline("sample freq 500");
  EXPECT_EQ(find_tail_item(no_newline.len, no_newline.p(), "sample freq"), nullptr);
  ExactTail shorter("samp");
  EXPECT_EQ(find_tail_item(shorter.len, shorter.p(), "sample freq"), nullptr);
  ExactTail other("gain\n2\n");
  EXPECT_EQ(find_tail_item(other.len, other.p(), "sample freq"), nullptr);

  // The length given rules, not what lies beyond it.
  std::string s = "gain\n2\nsample freq\n9\n";
  EXPECT_EQ(find_tail_item(7, s.data(), "sample freq"), nullptr);
  EXPECT_EQ(find_tail_item((int)s.size(), s.data(), "sample freq"), s.data() + 19);

  // Nothing to search.
  EXPECT_EQ(find_tail_item(0, nullptr, "gain"), nullptr);
  EXPECT_EQ(find_tail_item(0, s.data(), "gain"), nullptr);
  EXPECT_EQ(find_tail_item(-5, s.data(), "gain"), nullptr);
  float v = 3;
  EXPECT_EQ(tail_float(0, nullptr, "gain", &v), 0);
  EXPECT_EQ(v, 3.0f);
}

TEST(TailItems, EmptyNameMatchesTheFirstLine) {
  ExactTail t("first\nsecond\n");
  EXPECT_EQ(t.at(find_tail_item(t.len, t.p(), "")), 6);
  ExactTail one("only");
  EXPECT_EQ(find_tail_item(one.len, one.p(), ""), nullptr);
}

TEST(TailItems, TailFloatNeedsANumberAtTheStartOfTheValueLine) {
  float v = -1;
  ExactTail unknown("sample frequency\nunknown\n");
  EXPECT_EQ(tail_float(unknown.len, unknown.p(), "sample freq", &v), 0);
  EXPECT_EQ(v, -1.0f);
  ExactTail blank("sample frequency\n\n300\n");
  EXPECT_EQ(tail_float(blank.len, blank.p(), "sample freq", &v), 0);
  EXPECT_EQ(v, -1.0f);
  ExactTail absent("gain\n2\n");
  EXPECT_EQ(tail_float(absent.len, absent.p(), "sample freq", &v), 0);
  EXPECT_EQ(v, -1.0f);

  ExactTail unterminated("sample freq\n250");
  EXPECT_EQ(tail_float(unterminated.len, unterminated.p(), "sample freq", &v), 1);
  EXPECT_EQ(v, 250.0f);
  ExactTail spaced("sample freq\n   -1.5e3 units\n");
  EXPECT_EQ(tail_float(spaced.len, spaced.p(), "sample freq", &v), 1);
  EXPECT_EQ(v, -1500.0f);
  // A value cut by the end of the tail gives what is left of it.
  std::string s = "sample freq\n12345\n";
  EXPECT_EQ(tail_float(14, s.data(), "sample freq", &v), 1);
  EXPECT_EQ(v, 12.0f);
}

}  // namespace
