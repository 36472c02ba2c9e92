// Products with stored matrices: the transfer matrix from the inverted A
// matrix and the forward potentials.  However they are blocked and
// threaded, every entry must be the plain sum in its plain order, bit for
// bit, on any thread count.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/parallel.h"
#include "tests/support/g3_mat.h"
#include "tests/support/program.h"

namespace {

using g3::Mat;

// Random floats of mixed sizes and signs, with exact zeros (both signs) and
// a few subnormals among them, so that rounding is exercised everywhere.
Mat random_mat(int rows, int cols, std::mt19937 &gen) {
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::uniform_int_distribution<int> kind(0, 19), scale(-40, 40);
  Mat m(rows, cols);
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) {
      const int k = kind(gen);
      m[r][c] = k == 0 ? 0.0f : k == 1 ? -0.0f : k == 2 ? 1e-40f * u(gen) : std::ldexp(u(gen), scale(gen));
    }
  return m;
}

class StoredMatrix : public testing::Test {
 protected:
  void TearDown() override { set_assembly_threads(0); }
};

// Every tile width of both panel heights (1 to 8 electrodes against four
// source rows, 1 to 4 against eight, a partial panel), the countdown, and
// shapes large enough to be shared among threads.
TEST_F(StoredMatrix, TransferIsThePlainSumBitForBit) {
  struct Shape {
    int nel, ncols, n;
  };
  std::vector<Shape> shapes = {{19, 15, 257}, {400, 3, 4000}, {41, 37, 3001}, {9, 5, 100000}};
  for (int e = 1; e <= 8; e++) shapes.push_back({e, 3, 7 + e}), shapes.push_back({e, 9, 20 - e});
  std::mt19937 gen(12345);
  for (const Shape &s : shapes) {
    nel = s.nel;
    totpnt = s.n;
    const Mat bi = random_mat(s.nel, s.n, gen), x = random_mat(s.ncols, s.n, gen);
    const std::vector<float> x_before = x.flat();
    // The plain loops: the double sum over c in increasing order, stored as
    // float, then each column less its float mean over the electrodes.
    Mat expect(s.nel, s.ncols), t(s.nel, s.ncols);
    for (int r = 1; r <= s.ncols; r++) {
      float mean = 0.0f;
      for (int e = 1; e <= s.nel; e++) {
        double sum = 0.0;
        for (int c = 1; c <= s.n; c++) sum = sum + (double)x[r][c] * (double)bi[e][c];
        mean += expect[e][r] = (float)sum;
      }
      mean /= s.nel;
      for (int e = 1; e <= s.nel; e++) expect[e][r] -= mean;
    }
    const std::string lines = s.ncols > 10 ? countdown("Solve countdown:%5d\r", s.ncols, 1) + "\n" : "";
    for (int threads : {1, 2, 3}) {
      SCOPED_TRACE("nel " + std::to_string(s.nel) + " ncols " + std::to_string(s.ncols) + " n " +
                   std::to_string(s.n) + " threads " + std::to_string(threads));
      set_assembly_threads(threads);
      for (int e = 1; e <= s.nel; e++)
        for (int r = 1; r <= s.ncols; r++) t[e][r] = NAN;
      testing::internal::CaptureStdout();
      sphi2trans(nullptr, bi, x, s.ncols, t, 0);
      EXPECT_EQ(testing::internal::GetCapturedStdout(), lines);
      EXPECT_TRUE(g3::same_bits(t.flat(), expect.flat()));
      EXPECT_TRUE(g3::same_bits(x.flat(), x_before));  // the source terms stay
    }
  }
}

TEST_F(StoredMatrix, TransferByHandAndInTheColumnOrder) {
  // Two electrodes, three vertices: the transfer matrix row by row.
  auto transfer = [](const std::vector<std::vector<float>> &bv, const std::vector<std::vector<float>> &xv) {
    nel = 2;
    totpnt = 3;
    Mat bi(2, 3), x((int)xv.size(), 3), t(2, (int)xv.size());
    for (int c = 1; c <= 3; c++) {
      for (int e = 1; e <= 2; e++) bi[e][c] = bv[e - 1][c - 1];
      for (int r = 1; r <= x.rows; r++) x[r][c] = xv[r - 1][c - 1];
    }
    set_assembly_threads(2);
    sphi2trans(nullptr, bi, x, x.rows, t, 0);
    return t.flat();
  };
  // Raw products 6 and -0.5, 12 and 0; means 2.75 and 6.
  EXPECT_EQ(transfer({{1, 2, 3}, {-1, 0, 0.5f}}, {{1, 1, 1}, {2, -1, 4}}),
            std::vector<float>({3.25f, 6.0f, -3.25f, -6.0f}));
  // 1e20 - 1e20 + 1 in that order is 1 in double; any other grouping of the
  // terms of one entry loses the 1 in one of these rows.
  EXPECT_EQ(transfer({{1, 1, 1}, {0, 0, 0}}, {{1e20f, -1e20f, 1}, {1, 1e20f, -1e20f}, {1e20f, 1, -1e20f}}),
            std::vector<float>({0.5f, 0, 0, -0.5f, 0, 0}));
}

// Partial and whole groups of eight samples and four electrodes, and shapes
// shared among threads.
TEST_F(StoredMatrix, ForwardIsThePlainFloatSumBitForBit) {
  struct Shape {
    int nel, npar, ntim;
  };
  std::mt19937 gen(777);
  for (const Shape &s : {Shape{3, 2, 7}, Shape{5, 6, 8}, Shape{19, 7, 33}, Shape{70, 61, 1003}, Shape{130, 3, 20000}}) {
    const Mat tr = random_mat(s.nel, s.npar, gen), d = random_mat(s.npar, s.ntim, gen);
    Mat expect(s.nel, s.ntim), phi(s.nel, s.ntim);
    for (int e = 1; e <= s.nel; e++)
      for (int t = 1; t <= s.ntim; t++) {
        float sum = 0.0f;
        for (int p = 1; p <= s.npar; p++) sum = sum + d[p][t] * tr[e][p];
        expect[e][t] = sum;
      }
    for (int threads : {1, 2, 3}) {
      SCOPED_TRACE("nel " + std::to_string(s.nel) + " npar " + std::to_string(s.npar) + " ntim " +
                   std::to_string(s.ntim) + " threads " + std::to_string(threads));
      set_assembly_threads(threads);
      for (int e = 1; e <= s.nel; e++)
        for (int t = 1; t <= s.ntim; t++) phi[e][t] = NAN;
      forward(tr, phi, d, s.npar, s.nel, s.ntim);
      EXPECT_TRUE(g3::same_bits(phi.flat(), expect.flat()));
    }
  }
}

}  // namespace
