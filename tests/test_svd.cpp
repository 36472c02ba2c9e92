// Singular value decomposition: reconstruction, orthonormality and ordering
// against double-precision singular values on matrices of every shape; tie
// order, signs, countdown output and guards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "numeric/svdcmp.h"
#include "tests/support/h2_arrays.h"

namespace {

// Decomposes src with output captured; a (U), w, v stay in the arena.
struct Svd {
  h2::Arena arena;
  int m, n;
  float **a, **v, *w;
  std::string out;
  Svd(const ref::Mat &src) : m((int)src.size()), n((int)src[0].size()) {
    a = arena.mat(src), v = arena.mat(n, n), w = arena.vec(n);
    testing::internal::CaptureStdout();
    svdcmp(a, m, n, w, v);
    out = testing::internal::GetCapturedStdout();
  }
};

// The countdown of a decomposition whose inner size is k: per phase the
// multiples of ten among its counts, then one newline.
std::string expected_countdown(int k) {
  std::string out;
  char line[64];
  for (int c = k - 1; c >= 0; c--)
    if (c % 10 == 0) snprintf(line, sizeof line, "  SVD countdown: 3%5d\r", c), out += line;
  for (int phase = 2; phase >= 0; phase--)
    for (int c = k - 1; c >= 0; c--)
      if (c % 10 == 0) snprintf(line, sizeof line, "  SVD countdown: %d%5d\r", phase, c), out += line;
  return out + "\n";
}

// U diag(w) V^T reproduces src; w is non-negative, sorted and equal to the
// double-precision singular values; the first min(m, n) columns of U and V
// are orthonormal.
void check_decomposition(const Svd &s, const ref::Mat &src) {
  const int k = std::min(s.m, s.n);
  const ref::Vec sigma = ref::singular_values(src);
  ref::Mat U = h2::to_ref(s.a, s.m, k), V = h2::to_ref(s.v, s.n, k), UW = U, eye = ref::zeros(k, k);
  for (int i = 0; i < k; i++) {
    eye[i][i] = 1.0;
    for (int r = 0; r < s.m; r++) UW[r][i] *= s.w[i + 1];
    EXPECT_GE(s.w[i + 1], 0.0f) << i + 1;
    EXPECT_NEAR(s.w[i + 1], sigma[i], 2e-5 * sigma[0]) << "singular value " << i + 1;
    EXPECT_TRUE(i == 0 || s.w[i] >= s.w[i + 1]) << "order at " << i + 1;
  }
  EXPECT_LE(h2::relative_error(ref::multiply(UW, ref::transpose(V)), src), 4e-5) << "reconstruction";
  EXPECT_LE(h2::relative_error(ref::multiply(ref::transpose(U), U), eye), 2e-5) << "U^T U";
  EXPECT_LE(h2::relative_error(ref::multiply(ref::transpose(V), V), eye), 2e-5) << "V^T V";
}

// 1-based index of the unit vector that column col of x equals up to sign,
// or 0 if it is no such vector.
int unit_column(float **x, int rows, int col) {
  int found = 0;
  for (int i = 1; i <= rows; i++) {
    float e = std::fabs(x[i][col]);
    if (e == 1.0f && !found) found = i;
    else if (e != 0.0f) return 0;
  }
  return found;
}

}  // namespace

// Random, graded (rows or columns growing eightfold, so that the values come
// out of the iteration far from sorted) and low-rank matrices, tall and wide;
// the countdown appears from 1000 elements on.
TEST(Svd, MatricesOfEveryShapeAndKind) {
  enum Kind { random, rows, cols, low_rank };
  struct Case {
    int m, n;
    Kind kind;
    int rank = 0;
  };
  // 37 x 27 and 100 x 10 sit on either side of the countdown's threshold.
  const Case cases[] = {{1, 1, random},    {5, 1, random},       {1, 5, random},      {7, 7, random},
                        {12, 5, random},   {3, 5, random},       {37, 27, random},    {100, 10, random},
                        {25, 45, random},  {6, 14, rows},        {14, 6, cols},       {20, 8, low_rank, 3},
                        {6, 15, low_rank, 2}};
  unsigned seed = 11;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " kind " << c.kind);
    ref::Mat src = h2::random_matrix(c.m, c.n, seed++);
    if (c.kind == low_rank) {
      src = ref::multiply(h2::random_matrix(c.m, c.rank, seed), h2::random_matrix(c.rank, c.n, seed + 1));
      for (auto &row : src)
        for (double &x : row) x = (float)x;
    }
    for (int i = 0; i < c.m; i++)
      for (int j = 0; j < c.n; j++)
        if (c.kind == rows || c.kind == cols) {
          const int idx = c.kind == rows ? i : j, count = c.kind == rows ? c.m : c.n;
          src[i][j] = (float)(src[i][j] * (1.0 + 7.0 * idx / (count - 1)));
        }
    Svd s(src);
    check_decomposition(s, src);
    EXPECT_EQ(s.out, c.m * c.n > 999 ? expected_countdown(std::min(c.m, c.n)) : "");
    if (c.kind == low_rank) {
      EXPECT_GT(s.w[c.rank], 1e-2f * s.w[1]);
      for (int i = c.rank + 1; i <= std::min(c.m, c.n); i++) EXPECT_LE(s.w[i], 1e-5f * s.w[1]) << i;
    }
  }
  // A zero matrix: all values exactly zero, V still orthonormal.
  Svd z(ref::zeros(6, 4));
  for (int i = 1; i <= 4; i++) {
    EXPECT_EQ(z.w[i], 0.0f);
    double norm = 0.0;
    for (int r = 1; r <= 4; r++) norm += z.v[r][i] * z.v[r][i];
    EXPECT_NEAR(norm, 1.0, 1e-6);
  }
}

// Diagonal inputs decompose exactly into signed unit vectors, so the column
// each value ends up with, and its sign, can be read off directly.
TEST(Svd, EqualValuesKeepTheirOrderAndSignsFollowTheInput) {
  struct Case {
    int m, n;
    std::vector<float> d, w;  // the diagonal; the sorted values
    std::vector<int> unit;    // unit vector of each column (U and V)
  };
  const Case cases[] = {
      {3, 3, {1, 3, 1}, {3, 1, 1}, {2, 1, 3}},            // end value ties with the smallest: stays
      {3, 3, {3, 1, 3}, {3, 3, 1}, {1, 3, 2}},            // two largest equal: the earlier first
      {4, 4, {2, 1, 1, 3}, {3, 2, 1, 1}, {4, 1, 3, 2}},   // first of two equal smallest is moved
      {4, 4, {1, 1, 1, 1}, {1, 1, 1, 1}, {1, 2, 3, 4}},   // all equal: nothing moves
      {3, 3, {-4, 2, -1}, {4, 2, 1}, {1, 2, 3}},          // negative entries give positive values
      {2, 3, {2, 2}, {2, 2}, {1, 2}},                     // the wide path
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " diagonal starting " << c.d[0]);
    ref::Mat src = ref::zeros(c.m, c.n);
    for (size_t i = 0; i < c.d.size(); i++) src[i][i] = c.d[i];
    Svd s(src);
    for (int i = 1; i <= (int)c.w.size(); i++) {
      EXPECT_EQ(s.w[i], c.w[i - 1]) << "w[" << i << "]";
      const int e = c.unit[i - 1];
      EXPECT_EQ(unit_column(s.a, c.m, i), e) << "U column " << i;
      EXPECT_EQ(unit_column(s.v, c.n, i), e) << "V column " << i;
      if (e > 0) {
        EXPECT_EQ(s.a[e][i] * s.w[i] * s.v[e][i], c.d[e - 1]) << "sign of column " << i;
      }
    }
  }
}

TEST(Svd, TransposedStorageDecomposesTheTranspose) {
  const int rows = 4, cols = 9;  // storage 4 x 9 holds the 9 x 4 matrix src
  ref::Mat src = h2::random_matrix(cols, rows, 77);
  h2::Arena ar;
  float **a = ar.mat(ref::transpose(src)), **v = ar.mat(rows, rows), *w = ar.vec(rows);
  svdcmptrans(a, cols, rows, w, v);
  for (int i = 1; i <= cols; i++)
    for (int j = 1; j <= rows; j++) {
      double sum = 0.0;
      for (int l = 1; l <= rows; l++) sum += (double)a[l][i] * w[l] * v[j][l];
      EXPECT_NEAR(sum, src[i - 1][j - 1], 1e-5);
    }
  // Unsorted, but the same set as the reference.
  std::vector<double> got(w + 1, w + rows + 1);
  std::sort(got.rbegin(), got.rend());
  ref::Vec sigma = ref::singular_values(src);
  for (int i = 0; i < rows; i++) EXPECT_NEAR(got[i], sigma[i], 1e-5 * sigma[0]);
}

TEST(Svd, EmptyShapesTouchNothing) {
  h2::Arena ar;
  float **a = ar.mat({{5, 5}, {5, 5}}), **v = ar.mat({{5, 5}, {5, 5}}), *w = ar.vec(2);
  w[1] = w[2] = 7;
  testing::internal::CaptureStdout();
  svdcmp(a, 0, 2, w, v), svdcmp(a, 2, 0, w, v), svdcmp(a, -3, -3, w, v), svdcmptrans(a, 0, 2, w, v);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(w[1] == 7 && w[2] == 7);
  EXPECT_EQ(h2::to_ref(a, 2, 2), ref::Mat({{5, 5}, {5, 5}}));
  EXPECT_EQ(h2::to_ref(v, 2, 2), ref::Mat({{5, 5}, {5, 5}}));
}

// The sweep limit bounds every loop: a matrix that cannot converge ends in
// bounded time without a crash (the alarm turns a hang into a failure).
TEST(SvdDeathTest, NonFiniteInputStillTerminates) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  struct Case {
    int m, n, i, j;
    float bad;
    bool all = false;
  };
  for (Case c : {Case{5, 4, 2, 3, nan}, {4, 9, 1, 1, nan}, {5, 5, 3, 3, inf}, {7, 5, 1, 1, nan, true}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n);
    ref::Mat src = h2::random_matrix(c.m, c.n, 9);
    for (int i = 0; i < c.m; i++)
      for (int j = 0; j < c.n; j++)
        if (c.all || (i == c.i - 1 && j == c.j - 1)) src[i][j] = c.bad;
    EXPECT_EXIT((alarm(20), Svd(src), std::exit(0)), testing::ExitedWithCode(0), "");
  }
}
