// brelix-prep convert (and array inputs of brelix-prep data): matrix files to
// CSV, TSV, NumPy and MATLAB and back, NumPy arrays of every kind, refusals.
#include <gtest/gtest.h>

#include <cstdint>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/program.h"

namespace {

// Element bytes of value x as kind 'f' (float) or 'i' (int) of `size` bytes.
std::string element(double x, char kind, int size, bool big) {
  float f = (float)x;
  int16_t i2 = (int16_t)x;
  int32_t i4 = (int32_t)x;
  const void *p = kind == 'f' ? (size == 4 ? (const void *)&f : &x) : size == 2 ? (const void *)&i2 : &i4;
  std::string s((const char *)p, (size_t)size);
  return big ? std::string(s.rbegin(), s.rend()) : s;
}

// A brelix matrix file, little-endian (or big-endian when `big`).
std::string matrix_bytes(int rows, int cols, const std::vector<float> &v, const std::string &tail, bool big = false) {
  std::string s = element(rows, 'i', 4, big) + element(cols, 'i', 4, big);
  for (float f : v) s += element(f, 'f', 4, big);
  return s + tail;
}

// A .npy file: `descr` such as "<f8", shape rows x cols, the raw data bytes.
std::string npy_bytes(const std::string &descr, bool fortran, int rows, int cols, const std::string &data,
                      int major = 1) {
  std::string dict = "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") + ", 'shape': (" +
                     std::to_string(rows) + ", " + std::to_string(cols) + "), }";
  size_t head = major == 1 ? 10 : 12;
  dict.append((64 - (head + dict.size() + 1) % 64) % 64, ' ');
  dict += '\n';
  std::string s = "\x93NUMPY" + std::string(1, (char)major) + std::string(1, '\0');
  std::string len = element((double)dict.size(), 'i', 4, false);
  s += major == 1 ? len.substr(0, 2) : len;
  return s + dict + data;
}

ProcResult prep(const std::vector<std::string> &args) { return run_process(BRELIX_PREP_EXE, args, ""); }

const std::vector<float> VALUES = {1.5f, -2, 0.25f, 1.0f / 3, -1e-7f, 3e30f};  // 2 x 3

TEST(RecordingsConvert, EveryFormatRoundTripsTheValuesAndMatlabTheTail) {
  TempDir dir;
  std::string tail = "sample frequency\n500 Hz\nfit of run 3\n";
  std::string original = matrix_bytes(2, 3, VALUES, tail);
  write_file(dir.file("m.bin"), original);
  for (std::string out : {"m.csv", "m.tsv", "m.npy", "m.mat", "m73.mat"}) {
    SCOPED_TRACE(out);
    std::vector<std::string> there = {"convert", dir.file("m.bin"), dir.file(out)};
    if (out == "m73.mat") there.push_back("--v73");
    ProcResult r = prep(there);
    ASSERT_EQ(r.status, 0) << r.err;
    r = prep({"convert", dir.file(out), dir.file("back.bin")});
    ASSERT_EQ(r.status, 0) << r.err;
    // Only MATLAB files keep the tail.
    EXPECT_EQ(read_file(dir.file("back.bin")), out.ends_with(".mat") ? original : matrix_bytes(2, 3, VALUES, ""));
  }
  // ".mat" is MATLAB's, unless the input is MATLAB's already.
  ASSERT_EQ(prep({"convert", dir.file("m.npy"), dir.file("n.mat")}).status, 0);
  ASSERT_EQ(prep({"convert", dir.file("n.mat"), dir.file("back.mat")}).status, 0);
  EXPECT_EQ(read_file(dir.file("n.mat")).substr(0, 6), "MATLAB");
  EXPECT_EQ(read_file(dir.file("back.mat")), matrix_bytes(2, 3, VALUES, ""));
  // The text and NumPy forms as other programs read them.
  EXPECT_EQ(read_file(dir.file("m.csv")), "1.5,-2,0.25\n0.333333343,-1.00000001e-07,2.99999989e+30\n");
  EXPECT_EQ(read_file(dir.file("m.tsv")).substr(0, 12), "1.5\t-2\t0.25\n");
  std::string npy = read_file(dir.file("m.npy"));
  ASSERT_EQ(npy.size(), 128u + 24);
  EXPECT_EQ(npy.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
  EXPECT_NE(npy.find("'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)"), std::string::npos);
  EXPECT_EQ(npy.substr(128), original.substr(8, 24));
}

TEST(RecordingsConvert, NumpyArraysOfEveryKindAndBothByteOrders) {
  TempDir dir;
  // The 2 x 3 array 1 -2 3 / 40 -50 600 in every element type and layout.
  const double a[2][3] = {{1, -2, 3}, {40, -50, 600}};
  struct Case {
    const char *descr;
    bool fortran;
    int major;
  };
  const Case cases[] = {{"<f4", false, 1}, {">f8", true, 1}, {"<i2", true, 2}, {">i4", false, 1}, {">i2", false, 3}};
  for (const auto &k : cases) {
    SCOPED_TRACE(k.descr);
    bool big = k.descr[0] == '>';
    int size = k.descr[2] - '0';
    std::string data;
    for (int i = 0; i < 6; i++) {
      int r = k.fortran ? i % 2 : i / 3, c = k.fortran ? i / 2 : i % 3;
      data += element(a[r][c], k.descr[1], size, big);
    }
    write_file(dir.file("a.npy"), npy_bytes(k.descr, k.fortran, 2, 3, data, k.major));
    ProcResult r = prep({"convert", dir.file("a.npy"), dir.file("a.bin")});
    ASSERT_EQ(r.status, 0) << r.err;
    MatrixFile m;
    ASSERT_TRUE(read_matrix_file(dir.file("a.bin"), m));
    EXPECT_EQ(m.values, (std::vector<float>{1, -2, 3, 40, -50, 600}));
  }
  // A matrix file of the other byte order reads as brelix reads it.
  write_file(dir.file("big.bin"), matrix_bytes(2, 3, VALUES, "", true));
  ASSERT_EQ(prep({"convert", dir.file("big.bin"), dir.file("big.csv")}).status, 0);
  EXPECT_EQ(read_file(dir.file("big.csv")).substr(0, 12), "1.5,-2,0.25\n");
}

TEST(RecordingsConvert, ArraysServeAsRecordingsWithTheirLabels) {
  // Channels as columns of a MATLAB v7.3 array (rows are samples), labelled
  // on the command line.
  TempDir dir;
  std::vector<float> samples = {1, 10, 100, 2, 20, 200, 3, 30, 300, 4, 40, 400};  // 4 samples x 3 channels
  write_file(dir.file("s.bin"), matrix_bytes(4, 3, samples, ""));
  ASSERT_EQ(prep({"convert", dir.file("s.bin"), dir.file("s.mat"), "--v73", "--variable", "eeg"}).status, 0);
  write_file(dir.file("e.elc"), "2\n1 0.1 0.1 !Pz\n1 0.2 0.2 !Fz\n");
  ProcResult r = prep({"data", dir.file("s.mat"), "--labels", "Fz,Cz,Pz", "--sfreq", "250", "--electrodes",
                       dir.file("e.elc"), "-o", dir.file("d.bin"), "--samples", "2:4"});
  ASSERT_EQ(r.status, 0) << r.err;
  MatrixFile m;
  ASSERT_TRUE(read_matrix_file(dir.file("d.bin"), m));
  EXPECT_EQ(m.rows, 2);
  EXPECT_EQ(m.values, (std::vector<float>{200, 300, 400, 2, 3, 4}));
  EXPECT_EQ(m.tail.substr(0, 24), "sample frequency\n250 Hz\n");
}

TEST(RecordingsConvert, BadInputIsRefusedAndWritesNothing) {
  TempDir dir;
  std::string six_doubles;
  for (int i = 0; i < 6; i++) six_doubles += element(i, 'f', 8, false);
  write_file(dir.file("short.npy"), npy_bytes("<f8", false, 2, 3, six_doubles.substr(0, 40)));
  std::string cube = npy_bytes("<f8", false, 2, 3, six_doubles);
  cube.replace(cube.find("(2, 3)"), 6, "(1, 2, 3)");
  write_file(dir.file("cube.npy"), cube);
  write_file(dir.file("complex.npy"), npy_bytes("<c8", false, 1, 3, six_doubles));
  write_file(dir.file("short.bin"), matrix_bytes(3, 3, VALUES, ""));
  write_file(dir.file("m.bin"), matrix_bytes(2, 3, VALUES, ""));
  ASSERT_EQ(prep({"convert", dir.file("m.bin"), dir.file("m.mat")}).status, 0);
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{dir.file("short.npy")}, "short.npy: data: cut short"},
      {{dir.file("cube.npy")}, "cube.npy: header: holds a 3-dimensional array"},
      {{dir.file("complex.npy")}, "element type '<c8' is none of float32, float64, int16, int32"},
      {{dir.file("short.bin"), "--to", "csv"}, "short.bin: data: cut short: 3 x 3 values announced, 6 there"},
      {{dir.file("m.mat"), "--variable", "eeg"}, "m.mat: holds no variable 'eeg'"},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.message);
    std::vector<std::string> args = {"convert", k.args[0], dir.file("out.bin")};
    args.insert(args.end(), k.args.begin() + 1, k.args.end());
    ProcResult r = prep(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("brelix-prep convert: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(k.message), std::string::npos) << r.err;
    EXPECT_FALSE(file_exists(dir.file("out.bin")));
  }
}

}  // namespace
