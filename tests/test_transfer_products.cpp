// Products with stored matrices: the transfer matrix from the inverted A
// matrix and the forward potentials.  However they are blocked and
// threaded, every entry must be the plain sum in its plain order, bit for
// bit, on any thread count.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"
#include "tests/support/program.h"

namespace {

// Random floats of mixed sizes and signs, with exact zeros (both signs) and
// a few subnormals among them, so that rounding is exercised everywhere.
void fill_random(float **m, int rows, int cols, std::mt19937 &gen) {
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::uniform_int_distribution<int> kind(0, 19), scale(-40, 40);
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) {
      const int k = kind(gen);
      m[r][c] = k == 0 ? 0.0f : k == 1 ? -0.0f : k == 2 ? 1e-40f * u(gen) : std::ldexp(u(gen), scale(gen));
    }
}

// The transfer matrix as the plain loops define it: for each row r and each
// electrode e the double sum of x[r][c] * bi[e][c] over c in increasing
// order, stored as float, then each column less its float mean over the
// electrodes.
std::vector<float> plain_transfer(float **bi, float **x, int nel_, int ncols, int n) {
  std::vector<float> t((size_t)nel_ * ncols);
  for (int r = 1; r <= ncols; r++)
    for (int e = 1; e <= nel_; e++) {
      double s = 0.0;
      for (int c = 1; c <= n; c++) s = s + (double)x[r][c] * (double)bi[e][c];
      t[(size_t)(e - 1) * ncols + (r - 1)] = (float)s;
    }
  for (int r = 1; r <= ncols; r++) {
    float mean = 0.0f;
    for (int e = 1; e <= nel_; e++) mean += t[(size_t)(e - 1) * ncols + (r - 1)];
    mean /= nel_;
    for (int e = 1; e <= nel_; e++) t[(size_t)(e - 1) * ncols + (r - 1)] -= mean;
  }
  return t;
}

std::vector<float> flatten(float **m, int rows, int cols) {
  std::vector<float> v;
  for (int r = 1; r <= rows; r++) v.insert(v.end(), &m[r][1], &m[r][1] + cols);
  return v;
}

bool same_bits(const std::vector<float> &a, const std::vector<float> &b) {
  return a.size() == b.size() && memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

class StoredMatrix : public testing::Test {
 protected:
  void TearDown() override { set_assembly_threads(0); }
};

// Shapes around the blocking edges (panels of four and of eight source
// rows, tiles of up to eight or four electrodes, partial tiles and panels),
// and some large enough to be shared out among threads.
TEST_F(StoredMatrix, TransferIsThePlainSumBitForBit) {
  struct Shape {
    int nel, ncols, n;
  };
  const Shape shapes[] = {{1, 1, 1},     {2, 3, 7},    {3, 4, 10},    {4, 5, 33},     {5, 2, 50},     {6, 4, 40},
                          {7, 1, 30},    {13, 3, 77},  {5, 8, 64},    {7, 9, 100},    {19, 3, 500},   {19, 15, 257},
                          {6, 17, 31},   {400, 3, 4000}, {41, 37, 3001}, {9, 5, 100000}};
  std::mt19937 gen(12345);
  for (const Shape &s : shapes) {
    nel = s.nel;
    totpnt = s.n;
    float **bi_m = matrix(1, s.nel, 1, s.n), **x = matrix(1, s.ncols, 1, s.n);
    float **t = matrix(1, s.nel, 1, s.ncols);
    fill_random(bi_m, s.nel, s.n, gen);
    fill_random(x, s.ncols, s.n, gen);
    const std::vector<float> x_before = flatten(x, s.ncols, s.n);
    const std::vector<float> expect = plain_transfer(bi_m, x, s.nel, s.ncols, s.n);
    for (int threads : {1, 2, 3}) {
      SCOPED_TRACE("nel " + std::to_string(s.nel) + " ncols " + std::to_string(s.ncols) + " n " +
                   std::to_string(s.n) + " threads " + std::to_string(threads));
      set_assembly_threads(threads);
      for (int e = 1; e <= s.nel; e++)
        for (int r = 1; r <= s.ncols; r++) t[e][r] = NAN;
      testing::internal::CaptureStdout();
      sphi2trans(nullptr, bi_m, x, s.ncols, t, 0);
      const std::string out = testing::internal::GetCapturedStdout();
      EXPECT_TRUE(same_bits(flatten(t, s.nel, s.ncols), expect));
      EXPECT_TRUE(same_bits(flatten(x, s.ncols, s.n), x_before));  // the source terms stay
      const std::string lines =
          s.ncols > 10 ? countdown("Solve countdown:%5d\r", s.ncols, 1) + "\n" : std::string();
      EXPECT_EQ(out, lines);
    }
    free_matrix(bi_m, 1, s.nel, 1, s.n);
    free_matrix(x, 1, s.ncols, 1, s.n);
    free_matrix(t, 1, s.nel, 1, s.ncols);
  }
}

TEST_F(StoredMatrix, TransferMatchesAHandComputedCase) {
  // Two electrodes, three vertices, two source rows.
  nel = 2;
  totpnt = 3;
  float **bi_m = matrix(1, 2, 1, 3), **x = matrix(1, 2, 1, 3), **t = matrix(1, 2, 1, 2);
  const float bv[2][3] = {{1, 2, 3}, {-1, 0, 0.5f}};
  const float xv[2][3] = {{1, 1, 1}, {2, -1, 4}};
  for (int i = 0; i < 2; i++)
    for (int c = 0; c < 3; c++) {
      bi_m[i + 1][c + 1] = bv[i][c];
      x[i + 1][c + 1] = xv[i][c];
    }
  sphi2trans(nullptr, bi_m, x, 2, t, 0);
  // Raw products: row 1: 6 and -0.5; row 2: 12 and 0.  Means 2.75 and 6.
  EXPECT_EQ(t[1][1], 3.25f);
  EXPECT_EQ(t[2][1], -3.25f);
  EXPECT_EQ(t[1][2], 6.0f);
  EXPECT_EQ(t[2][2], -6.0f);
  free_matrix(bi_m, 1, 2, 1, 3);
  free_matrix(x, 1, 2, 1, 3);
  free_matrix(t, 1, 2, 1, 2);
}

TEST_F(StoredMatrix, SumOrderIsTheColumnOrder) {
  // 1e20 - 1e20 + 1 in that order is 1 in double; any regrouping of the
  // terms of one entry would give a different result for one of these rows.
  nel = 2;
  totpnt = 3;
  float **bi_m = matrix(1, 2, 1, 3), **x = matrix(1, 3, 1, 3), **t = matrix(1, 2, 1, 3);
  for (int c = 1; c <= 3; c++) bi_m[1][c] = 1.0f;  // electrode 2 stays 0: the mean is half of electrode 1
  const float rows[3][3] = {{1e20f, -1e20f, 1.0f}, {1.0f, 1e20f, -1e20f}, {1e20f, 1.0f, -1e20f}};
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) x[r + 1][c + 1] = rows[r][c];
  set_assembly_threads(2);
  sphi2trans(nullptr, bi_m, x, 3, t, 0);
  // Column sums in double: 0 + 1 = 1; 1 + 1e20 - 1e20 = 0 (1 is lost);
  // 1e20 + 1 - 1e20 = 0 as well.
  EXPECT_EQ(t[1][1], 0.5f);
  EXPECT_EQ(t[1][2], 0.0f);
  EXPECT_EQ(t[1][3], 0.0f);
  free_matrix(bi_m, 1, 2, 1, 3);
  free_matrix(x, 1, 3, 1, 3);
  free_matrix(t, 1, 2, 1, 3);
}

TEST_F(StoredMatrix, ForwardIsThePlainFloatSumBitForBit) {
  struct Shape {
    int nel, npar, ntim;
  };
  const Shape shapes[] = {{1, 1, 1}, {3, 2, 7}, {5, 6, 8}, {4, 3, 9}, {19, 7, 33}, {70, 61, 1003}, {130, 3, 20000}};
  std::mt19937 gen(777);
  for (const Shape &s : shapes) {
    float **tr = matrix(1, s.nel, 1, s.npar), **d = matrix(1, s.npar, 1, s.ntim), **phi = matrix(1, s.nel, 1, s.ntim);
    fill_random(tr, s.nel, s.npar, gen);
    fill_random(d, s.npar, s.ntim, gen);
    std::vector<float> expect((size_t)s.nel * s.ntim);
    for (int e = 1; e <= s.nel; e++)
      for (int t = 1; t <= s.ntim; t++) {
        float sum = 0.0f;
        for (int p = 1; p <= s.npar; p++) sum = sum + d[p][t] * tr[e][p];
        expect[(size_t)(e - 1) * s.ntim + (t - 1)] = sum;
      }
    for (int threads : {1, 2, 3}) {
      SCOPED_TRACE("nel " + std::to_string(s.nel) + " npar " + std::to_string(s.npar) + " ntim " +
                   std::to_string(s.ntim) + " threads " + std::to_string(threads));
      set_assembly_threads(threads);
      for (int e = 1; e <= s.nel; e++)
        for (int t = 1; t <= s.ntim; t++) phi[e][t] = NAN;
      forward(tr, phi, d, s.npar, s.nel, s.ntim);
      EXPECT_TRUE(same_bits(flatten(phi, s.nel, s.ntim), expect));
    }
    free_matrix(tr, 1, s.nel, 1, s.npar);
    free_matrix(d, 1, s.npar, 1, s.ntim);
    free_matrix(phi, 1, s.nel, 1, s.ntim);
  }
}

}  // namespace
