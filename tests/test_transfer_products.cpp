// Products with stored matrices (the transfer matrix from the inverted A
// matrix, the forward potentials): however blocked and threaded, every entry
// is the plain sum in its plain order, bit for bit, on one, two and three
// threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

// Floats of mixed sizes and signs, zeros of both signs and subnormals.
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

// `product` into `out` (NaN before) on one, two and three threads: `expect` bit for bit.
template <class F>
void expect_plain(const Mat &expect, Mat &out, const std::string &shape, F product) {
  for (int threads : {1, 2, 3}) {
    SCOPED_TRACE(shape + " threads " + std::to_string(threads));
    set_assembly_threads(threads);
    std::fill(&out[1][1], &out[1][1] + out.rows * out.cols, NAN);  // the arrays are contiguous
    product();
    EXPECT_TRUE(g3::same_bits(out.flat(), expect.flat()));
  }
  set_assembly_threads(0);
}

// Every tile width of both panel heights (1 to 8 electrodes against four
// source rows, 1 to 4 against eight, partial panels); a four-row panel
// shared among threads; and eight-row panels made in two groups, shared
// among threads, with the countdown.
TEST(StoredMatrix, TransferIsThePlainSumBitForBit) {
  std::vector<std::array<int, 3>> shapes = {{400, 3, 4000}, {60, 21, 30000}};  // electrodes, columns, vertices
  for (int e = 1; e <= 8; e++) shapes.push_back({e, 3, 7 + e}), shapes.push_back({e, 9, 20 - e});
  std::mt19937 gen(12345);
  for (const auto &shape : shapes) {
    const int ne = shape[0], ncols = shape[1], n = shape[2];  // plain variables: lambdas capture them
    nel = ne, totpnt = n;
    const Mat bi = random_mat(ne, n, gen), x = random_mat(ncols, n, gen);
    const std::vector<float> x_before = x.flat();
    // The plain loops: the double sum over c in increasing order, stored as
    // float, then each column less its float mean over the electrodes.
    Mat expect(ne, ncols), t(ne, ncols);
    for (int r = 1; r <= ncols; r++) {
      float mean = 0.0f;
      for (int e = 1; e <= ne; e++) {
        double sum = 0.0;
        for (int c = 1; c <= n; c++) sum = sum + (double)x[r][c] * (double)bi[e][c];
        mean += expect[e][r] = (float)sum;
      }
      mean /= ne;
      for (int e = 1; e <= ne; e++) expect[e][r] -= mean;
    }
    const std::string lines = ncols > 10 ? countdown("Solve countdown:%5d\r", ncols, 1) + "\n" : "";
    expect_plain(expect, t, "nel " + std::to_string(ne) + " ncols " + std::to_string(ncols), [&] {
      testing::internal::CaptureStdout();
      sphi2trans(nullptr, bi, x, ncols, t, 0);
      EXPECT_EQ(testing::internal::GetCapturedStdout(), lines);
      EXPECT_TRUE(g3::same_bits(x.flat(), x_before));  // the source terms stay
    });
  }
}

// A partial group of eight samples and of four electrodes; whole and
// partial groups; a shape shared among threads.
TEST(StoredMatrix, ForwardIsThePlainFloatSumBitForBit) {
  std::mt19937 gen(777);
  for (const auto &shape : std::vector<std::array<int, 3>>{{3, 2, 7}, {19, 7, 33}, {130, 3, 20000}}) {
    const int ne = shape[0], npar = shape[1], ntim = shape[2];
    const Mat tr = random_mat(ne, npar, gen), d = random_mat(npar, ntim, gen);
    Mat expect(ne, ntim), phi(ne, ntim);
    for (int e = 1; e <= ne; e++)
      for (int t = 1; t <= ntim; t++) {
        float sum = 0.0f;
        for (int p = 1; p <= npar; p++) sum = sum + d[p][t] * tr[e][p];
        expect[e][t] = sum;
      }
    expect_plain(expect, phi, "nel " + std::to_string(ne) + " ntim " + std::to_string(ntim),
                 [&] { forward(tr, phi, d, npar, ne, ntim); });
  }
}

}  // namespace
