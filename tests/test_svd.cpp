// Singular value decomposition against double-precision singular values on
// matrices of every shape and kind; countdown; degenerate input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "numeric/svdcmp.h"
#include "tests/support/h2_arrays.h"

// Decomposes src (output captured); U, w, V stay in the arena.
std::string svd(h2::Arena &ar, const ref::Mat &src, float **&a, float *&w, float **&v) {
  const int m = (int)src.size(), n = (int)src[0].size();
  a = ar.mat(src), v = ar.mat(n, n), w = ar.vec(n);
  testing::internal::CaptureStdout();
  svdcmp(a, m, n, w, v);
  return testing::internal::GetCapturedStdout();
}

// Random, graded (columns growing eightfold, so that the values leave the
// iteration far from sorted), rank 3 and zero; tall and wide.  U diag(w) V^T
// reproduces the matrix, w is sorted and equals the reference, the first
// min(m, n) columns of U and V are orthonormal; from 1000 elements on, a
// countdown from min(m, n) - 1 in each of four phases.
TEST(Svd, MatricesOfEveryShapeAndKind) {
  const struct {
    int m, n;
    char kind;  // r random, g graded, l rank 3, z zero
  } cases[] = {{1, 1, 'r'}, {5, 1, 'r'}, {1, 5, 'r'}, {12, 5, 'r'}, {37, 27, 'r'}, {25, 45, 'r'},
               {14, 6, 'g'}, {20, 8, 'l'}, {6, 15, 'l'}, {6, 4, 'z'}};
  unsigned seed = 11;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " " << c.kind);
    ref::Mat src = h2::random_matrix(c.m, c.n, seed++);
    if (c.kind == 'l') src = ref::multiply(h2::random_matrix(c.m, 3, seed), h2::random_matrix(3, c.n, seed + 1));
    for (int i = 0; i < c.m; i++)
      for (int j = 0; j < c.n; j++)
        src[i][j] = c.kind == 'z' ? 0.0 : (float)(src[i][j] * (c.kind == 'g' ? 1.0 + 7.0 * j / (c.n - 1) : 1.0));
    h2::Arena ar;
    float **a, *w, **v;
    const std::string out = svd(ar, src, a, w, v);
    const int k = std::min(c.m, c.n);
    const ref::Vec sigma = ref::singular_values(src);
    ref::Mat U = h2::to_ref(a, c.m, k), V = h2::to_ref(v, c.n, k), UW = U, eye = ref::zeros(k, k);
    std::string countdown;
    char line[40];
    for (int i = 0; i < k; i++) {
      eye[i][i] = 1.0;
      for (int r = 0; r < c.m; r++) UW[r][i] *= w[i + 1];
      EXPECT_NEAR(w[i + 1], sigma[i], 2e-5 * sigma[0]) << "value " << i + 1;
      EXPECT_TRUE(i == 0 || w[i] >= w[i + 1]) << "order at " << i + 1;
      EXPECT_TRUE(c.kind != 'l' || (i < 3 ? w[i + 1] > 1e-2f * w[1] : w[i + 1] <= 1e-5f * w[1])) << i;
    }
    EXPECT_LE(h2::relative_error(ref::multiply(UW, ref::transpose(V)), src), 4e-5) << "reconstruction";
    EXPECT_LE(h2::relative_error(ref::multiply(ref::transpose(V), V), eye), 2e-5) << "V^T V";
    EXPECT_TRUE(c.kind == 'z' || h2::relative_error(ref::multiply(ref::transpose(U), U), eye) <= 2e-5) << "U^T U";
    for (int phase = 3; phase >= 0; phase--)
      for (int i = (k - 1) / 10 * 10; i >= 0; i -= 10) snprintf(line, 40, "  SVD countdown: %d%5d\r", phase, i), countdown += line;
    EXPECT_EQ(out, c.m * c.n > 999 ? countdown + "\n" : "");
  }
}

// Empty shapes touch nothing; non-finite input ends in bounded time (the
// alarm turns a hang into a failure).
TEST(SvdDeathTest, EmptyAndNonFiniteInput) {
  h2::Arena ar;
  float **a = ar.mat({{5, 5}, {5, 5}}), *w = ar.vec(2), **u, **v;
  w[1] = 7;
  testing::internal::CaptureStdout();
  svdcmp(a, 0, 2, w, a), svdcmp(a, 2, 0, w, a), svdcmp(a, -3, -3, w, a);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(w[1] == 7 && h2::to_ref(a, 2, 2) == ref::Mat({{5, 5}, {5, 5}}));
  for (auto [m, n] : {std::pair{5, 4}, {4, 9}}) {
    ref::Mat src = h2::random_matrix(m, n, 9);
    src[1][2] = NAN, src[3][0] = INFINITY;
    EXPECT_EXIT((alarm(20), svd(ar, src, u, w, v), _exit(0)), testing::ExitedWithCode(0), "") << m << " x " << n;
  }
}
