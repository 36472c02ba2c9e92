// Singular value decomposition: reconstruction, orthonormality and ordering
// on random matrices of every shape, checked against double-precision
// eigenvalues of the Gram matrix; tie order, countdown output and guards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "numeric/nrutils.h"
#include "numeric/svdcmp.h"
#include "tests/support/dense_reference.h"

namespace {

// The arrays svdcmp works on, sized as its callers size them: a m x n,
// w[1..n], v n x n.
struct SvdArrays {
  int m, n;
  float **a, **v;
  float *w;
  SvdArrays(int m_, int n_) : m(m_), n(n_) {
    a = matrix(1, m, 1, n);
    v = matrix(1, n, 1, n);
    w = vector(1, n);
  }
  ~SvdArrays() {
    free_matrix(a, 1, m, 1, n);
    free_matrix(v, 1, n, 1, n);
    free_vector(w, 1, n);
  }
  SvdArrays(const SvdArrays &) = delete;
  SvdArrays &operator=(const SvdArrays &) = delete;
  void load(const ref::Mat &src) {
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) a[i][j] = (float)src[i - 1][j - 1];
  }
};

// Random matrix with entries uniform in [-1, 1], rounded to float so that the
// reference sees exactly the input of the kernel.
ref::Mat random_matrix(int m, int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  ref::Mat a = ref::zeros(m, n);
  for (auto &row : a)
    for (double &x : row) x = (float)u(gen);
  return a;
}

// Random matrix whose rows (by_rows) or columns grow in scale from 1 to 8, so
// that the singular values come out of the iteration far from sorted.
ref::Mat graded_matrix(int m, int n, bool by_rows, unsigned seed) {
  ref::Mat a = random_matrix(m, n, seed);
  for (int i = 0; i < m; i++)
    for (int j = 0; j < n; j++) {
      int idx = by_rows ? i : j, count = by_rows ? m : n;
      a[i][j] = (float)(a[i][j] * (1.0 + 7.0 * idx / (count - 1)));
    }
  return a;
}

// Product of an m x r and an r x n random matrix: rank r.
ref::Mat low_rank_matrix(int m, int n, int r, unsigned seed) {
  ref::Mat p = ref::multiply(random_matrix(m, r, seed), random_matrix(r, n, seed + 1));
  for (auto &row : p)
    for (double &x : row) x = (float)x;
  return p;
}

// Check the decomposition of src held in s: U diag(w) V^T reproduces it, the
// first min(m, n) columns of U and V are orthonormal, w is non-negative,
// sorted, and agrees with the double-precision singular values.
void check_decomposition(const SvdArrays &s, const ref::Mat &src) {
  const int m = s.m, n = s.n, k = std::min(m, n);
  const ref::Vec sigma = ref::singular_values(src);
  const double scale = sigma[0];
  const double tol = 2e-5;

  for (int i = 1; i <= k; i++) {
    EXPECT_GE(s.w[i], 0.0f) << "w[" << i << "]";
    if (i > 1) {
      EXPECT_GE(s.w[i - 1], s.w[i]) << "order at " << i;
    }
    EXPECT_NEAR(s.w[i], sigma[i - 1], tol * scale) << "singular value " << i;
  }

  double worst = 0.0;
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) {
      double sum = 0.0;
      for (int l = 1; l <= k; l++) sum += (double)s.a[i][l] * s.w[l] * s.v[j][l];
      worst = std::max(worst, std::fabs(sum - src[i - 1][j - 1]));
    }
  EXPECT_LE(worst, tol * scale) << "reconstruction of " << m << " x " << n;

  double worst_u = 0.0, worst_v = 0.0;
  for (int p = 1; p <= k; p++)
    for (int q = 1; q <= k; q++) {
      double uu = 0.0, vv = 0.0;
      for (int i = 1; i <= m; i++) uu += (double)s.a[i][p] * s.a[i][q];
      for (int j = 1; j <= n; j++) vv += (double)s.v[j][p] * s.v[j][q];
      double id = p == q ? 1.0 : 0.0;
      worst_u = std::max(worst_u, std::fabs(uu - id));
      worst_v = std::max(worst_v, std::fabs(vv - id));
    }
  EXPECT_LE(worst_u, tol) << "U^T U of " << m << " x " << n;
  EXPECT_LE(worst_v, tol) << "V^T V of " << m << " x " << n;
}

// What the countdown of a tall m x n decomposition writes: per phase the
// multiples of ten among its counts, then one newline.
std::string expected_countdown(int n) {
  std::string out;
  char line[64];
  for (int i = 1; i <= n; i++)
    if ((n - i) % 10 == 0) {
      snprintf(line, sizeof line, "  SVD countdown: 3%5d\r", n - i);
      out += line;
    }
  for (int phase = 2; phase >= 0; phase--)
    for (int i = n; i >= 1; i--)
      if ((i - 1) % 10 == 0) {
        snprintf(line, sizeof line, "  SVD countdown: %d%5d\r", phase, i - 1);
        out += line;
      }
  return out + "\n";
}

// Index (1-based) of the unit vector that column col of the r-row matrix x
// equals up to sign, or 0 if it is no such vector.
int unit_column(float **x, int rows, int col) {
  int found = 0;
  for (int i = 1; i <= rows; i++) {
    float e = std::fabs(x[i][col]);
    if (e == 1.0f) {
      if (found) return 0;
      found = i;
    } else if (e != 0.0f) {
      return 0;
    }
  }
  return found;
}

}  // namespace

TEST(Svd, RandomMatricesOfEveryShape) {
  struct Shape {
    int m, n;
  };
  const Shape shapes[] = {{1, 1},  {5, 1},  {1, 5},  {2, 2},  {12, 5}, {7, 7},
                          {3, 5},  {10, 25}, {30, 30}, {25, 45}, {40, 30}};
  unsigned seed = 11;
  for (const Shape &sh : shapes) {
    SCOPED_TRACE(testing::Message() << sh.m << " x " << sh.n);
    ref::Mat src = random_matrix(sh.m, sh.n, seed++);
    SvdArrays s(sh.m, sh.n);
    s.load(src);
    testing::internal::CaptureStdout();
    svdcmp(s.a, sh.m, sh.n, s.w, s.v);
    std::string out = testing::internal::GetCapturedStdout();
    check_decomposition(s, src);
    if (sh.m * sh.n <= 999) {
      EXPECT_EQ(out, "");
    } else {
      // Every phase reports, each line overwriting the last, then a newline.
      EXPECT_EQ(out.back(), '\n');
      for (const char *phase : {"countdown: 3", "countdown: 2", "countdown: 1", "countdown: 0"})
        EXPECT_NE(out.find(phase), std::string::npos) << phase;
      EXPECT_EQ(out.find('\n'), out.size() - 1);
    }
  }
}

TEST(Svd, GradedMatricesAreSorted) {
  struct Case {
    int m, n;
    bool by_rows;
  };
  for (Case c : {Case{6, 14, true}, Case{3, 5, true}, Case{14, 6, false}, Case{9, 9, true},
                 Case{9, 9, false}, Case{5, 12, false}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << (c.by_rows ? " rows" : " columns"));
    ref::Mat src = graded_matrix(c.m, c.n, c.by_rows, 500 + c.m);
    SvdArrays s(c.m, c.n);
    s.load(src);
    svdcmp(s.a, c.m, c.n, s.w, s.v);
    check_decomposition(s, src);
  }
}

TEST(Svd, CountdownAppearsAboveNineHundredNinetyNineElements) {
  {
    ref::Mat src = random_matrix(40, 30, 3);
    SvdArrays s(40, 30);
    s.load(src);
    testing::internal::CaptureStdout();
    svdcmp(s.a, 40, 30, s.w, s.v);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected_countdown(30));
    check_decomposition(s, src);
  }
  {
    ref::Mat src = random_matrix(30, 30, 4);
    SvdArrays s(30, 30);
    s.load(src);
    testing::internal::CaptureStdout();
    svdcmp(s.a, 30, 30, s.w, s.v);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
  {
    ref::Mat src = random_matrix(37, 27, 6);
    SvdArrays s(37, 27);
    s.load(src);
    testing::internal::CaptureStdout();
    svdcmp(s.a, 37, 27, s.w, s.v);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "999 elements";
  }
  {
    // 1000 elements is the first size that reports.
    ref::Mat src = random_matrix(100, 10, 5);
    SvdArrays s(100, 10);
    s.load(src);
    testing::internal::CaptureStdout();
    svdcmp(s.a, 100, 10, s.w, s.v);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected_countdown(10));
    check_decomposition(s, src);
  }
}

TEST(Svd, RankDeficientMatricesEndInZeros) {
  struct Case {
    int m, n, r;
  };
  for (Case c : {Case{20, 8, 3}, Case{9, 9, 4}, Case{6, 15, 2}, Case{4, 7, 1}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n << " rank " << c.r);
    ref::Mat src = low_rank_matrix(c.m, c.n, c.r, 100 + c.m);
    SvdArrays s(c.m, c.n);
    s.load(src);
    svdcmp(s.a, c.m, c.n, s.w, s.v);
    check_decomposition(s, src);
    const int k = std::min(c.m, c.n);
    EXPECT_GT(s.w[c.r], 1e-2f * s.w[1]);
    for (int i = c.r + 1; i <= k; i++) EXPECT_LE(s.w[i], 1e-5f * s.w[1]) << "w[" << i << "]";
  }
  // A zero matrix: all singular values exactly zero, factors still orthonormal.
  SvdArrays s(6, 4);
  svdcmp(s.a, 6, 4, s.w, s.v);
  for (int i = 1; i <= 4; i++) EXPECT_EQ(s.w[i], 0.0f);
  for (int j = 1; j <= 4; j++) {
    double norm = 0.0;
    for (int i = 1; i <= 4; i++) norm += s.v[i][j] * s.v[i][j];
    EXPECT_NEAR(norm, 1.0, 1e-6);
  }
}

TEST(Svd, EqualValuesKeepTheirOrder) {
  // Diagonal inputs decompose exactly into signed unit vectors, so the
  // column each singular value ends up with can be read off directly.
  struct Case {
    std::vector<float> d;          // the diagonal
    std::vector<float> w;          // expected sorted values
    std::vector<int> unit;         // expected unit vector of each column
  };
  const Case cases[] = {
      // The end value ties with the smallest and stays where it is.
      {{1, 3, 1}, {3, 1, 1}, {2, 1, 3}},
      // Two largest equal: the earlier stays first.
      {{3, 1, 3}, {3, 3, 1}, {1, 3, 2}},
      // Two equal smallest ahead of the end: the first of them is moved.
      {{2, 1, 1, 3}, {3, 2, 1, 1}, {4, 1, 3, 2}},
      // All equal: nothing moves.
      {{1, 1, 1, 1}, {1, 1, 1, 1}, {1, 2, 3, 4}},
  };
  for (const Case &c : cases) {
    const int n = (int)c.d.size();
    SCOPED_TRACE(testing::Message() << "diagonal of " << n << " starting " << c.d[0]);
    SvdArrays s(n, n);
    for (int i = 1; i <= n; i++) s.a[i][i] = c.d[i - 1];
    svdcmp(s.a, n, n, s.w, s.v);
    for (int i = 1; i <= n; i++) {
      EXPECT_EQ(s.w[i], c.w[i - 1]) << "w[" << i << "]";
      EXPECT_EQ(unit_column(s.a, n, i), c.unit[i - 1]) << "U column " << i;
      EXPECT_EQ(unit_column(s.v, n, i), c.unit[i - 1]) << "V column " << i;
      // Signs of U and V agree so that the product is the input.
      const int e = c.unit[i - 1];
      if (e > 0) {
        EXPECT_EQ(s.a[e][i] * s.v[e][i], 1.0f) << "signs of column " << i;
      }
    }
  }
  // The same through the wide path: rows of a 2 x 3 diagonal-like matrix.
  SvdArrays s(2, 3);
  s.a[1][1] = 2;
  s.a[2][2] = 2;
  svdcmp(s.a, 2, 3, s.w, s.v);
  EXPECT_EQ(s.w[1], 2.0f);
  EXPECT_EQ(s.w[2], 2.0f);
  EXPECT_EQ(unit_column(s.a, 2, 1), 1);
  EXPECT_EQ(unit_column(s.a, 2, 2), 2);
  EXPECT_EQ(unit_column(s.v, 3, 1), 1);
  EXPECT_EQ(unit_column(s.v, 3, 2), 2);
}

TEST(Svd, NegativeDiagonalGivesNonNegativeValues) {
  SvdArrays s(3, 3);
  s.a[1][1] = -4;
  s.a[2][2] = 2;
  s.a[3][3] = -1;
  svdcmp(s.a, 3, 3, s.w, s.v);
  EXPECT_EQ(s.w[1], 4.0f);
  EXPECT_EQ(s.w[2], 2.0f);
  EXPECT_EQ(s.w[3], 1.0f);
  // U w V^T still gives the signed diagonal.
  for (int i = 1; i <= 3; i++) {
    float d = 0;
    for (int l = 1; l <= 3; l++) d += s.a[i][l] * s.w[l] * s.v[i][l];
    EXPECT_EQ(d, i == 1 ? -4.0f : i == 2 ? 2.0f : -1.0f);
  }
}

TEST(Svd, TransposedStorageDecomposesTheTranspose) {
  // svdcmptrans on storage s (n x m) decomposes the m x n matrix s^T.
  const int rows = 4, cols = 9;  // decomposed matrix: 9 x 4
  ref::Mat src = random_matrix(cols, rows, 77);  // the 9 x 4 matrix itself
  float **a = matrix(1, rows, 1, cols);
  float **v = matrix(1, rows, 1, rows);
  float *w = vector(1, rows);
  for (int i = 1; i <= cols; i++)
    for (int j = 1; j <= rows; j++) a[j][i] = (float)src[i - 1][j - 1];
  svdcmptrans(a, cols, rows, w, v);
  double worst = 0.0;
  for (int i = 1; i <= cols; i++)
    for (int j = 1; j <= rows; j++) {
      double sum = 0.0;
      for (int l = 1; l <= rows; l++) sum += (double)a[l][i] * w[l] * v[j][l];
      worst = std::max(worst, std::fabs(sum - src[i - 1][j - 1]));
    }
  EXPECT_LE(worst, 1e-5);
  // Unsorted, but the same set as the reference.
  std::vector<double> got(w + 1, w + rows + 1);
  std::sort(got.rbegin(), got.rend());
  ref::Vec sigma = ref::singular_values(src);
  for (int i = 0; i < rows; i++) EXPECT_NEAR(got[i], sigma[i], 1e-5 * sigma[0]);
  free_matrix(a, 1, rows, 1, cols);
  free_matrix(v, 1, rows, 1, rows);
  free_vector(w, 1, rows);
}

TEST(Svd, EmptyShapesTouchNothing) {
  SvdArrays s(2, 2);
  for (int i = 1; i <= 2; i++) {
    s.w[i] = 7;
    for (int j = 1; j <= 2; j++) s.a[i][j] = s.v[i][j] = 5;
  }
  testing::internal::CaptureStdout();
  svdcmp(s.a, 0, 2, s.w, s.v);
  svdcmp(s.a, 2, 0, s.w, s.v);
  svdcmp(s.a, -3, -3, s.w, s.v);
  svdcmptrans(s.a, 0, 2, s.w, s.v);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  for (int i = 1; i <= 2; i++) {
    EXPECT_EQ(s.w[i], 7.0f);
    for (int j = 1; j <= 2; j++) {
      EXPECT_EQ(s.a[i][j], 5.0f);
      EXPECT_EQ(s.v[i][j], 5.0f);
    }
  }
}

TEST(SvdDeathTest, NonFiniteInputStillTerminates) {
  // The sweep limit must bound every loop: a matrix that cannot converge
  // ends in bounded time without a crash.  The alarm turns a hang into a
  // failure.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    int m, n, i, j;
    float bad;
  };
  for (Case c : {Case{5, 4, 2, 3, nan}, Case{6, 6, 6, 6, nan}, Case{4, 9, 1, 1, nan},
                 Case{5, 5, 3, 3, inf}, Case{3, 3, 1, 1, -inf}, Case{40, 30, 17, 9, nan}}) {
    SCOPED_TRACE(testing::Message() << c.m << " x " << c.n);
    EXPECT_EXIT(
        {
          alarm(20);
          if (!freopen("/dev/null", "w", stdout)) std::exit(2);
          {
            SvdArrays s(c.m, c.n);
            s.load(random_matrix(c.m, c.n, 9));
            s.a[c.i][c.j] = c.bad;
            svdcmp(s.a, c.m, c.n, s.w, s.v);
          }
          std::exit(0);
        },
        testing::ExitedWithCode(0), "");
  }
  EXPECT_EXIT(
      {
        alarm(20);
        {
          SvdArrays s(7, 5);
          for (int i = 1; i <= 7; i++)
            for (int j = 1; j <= 5; j++) s.a[i][j] = nan;
          svdcmp(s.a, 7, 5, s.w, s.v);
        }
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}
