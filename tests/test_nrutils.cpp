// One-based arrays and the fatal-error exit.
#include <gtest/gtest.h>

#include "numeric/nrutils.h"

TEST(Arrays, VectorsAreZeroFilledAndAddressedFromTheirLowerBound) {
  float *v = vector(1, 5);
  ASSERT_NE(v, nullptr);
  for (int i = 1; i <= 5; i++) EXPECT_EQ(v[i], 0.0f);
  v[1] = 1;
  v[5] = 5;
  free_vector(v, 1, 5);

  double *dv = dvector(-2, 2);
  ASSERT_NE(dv, nullptr);
  dv[-2] = dv[2] = 3;
  free_dvector(dv, -2, 2);
  int *iv = ivector(0, 0);
  ASSERT_NE(iv, nullptr);
  EXPECT_EQ(iv[0], 0);
  ifree_vector(iv, 0, 0);
  fcomplex *cv = cvector(1, 3);
  ASSERT_NE(cv, nullptr);
  EXPECT_EQ(cv[3].i, 0.0f);
  free_cvector(cv, 1, 3);
}

TEST(Arrays, MatrixRowsAreContiguous) {
  float **m = matrix(0, 2, 0, 2);
  ASSERT_NE(m, nullptr);
  for (int r = 0; r <= 2; r++)
    for (int c = 0; c <= 2; c++) EXPECT_EQ(m[r][c], 0.0f);
  EXPECT_EQ(&m[1][0], &m[0][2] + 1);
  EXPECT_EQ(&m[2][0], &m[1][2] + 1);
  free_matrix(m, 0, 2, 0, 2);

  double **dm = dmatrix(1, 4, 1, 3);
  ASSERT_NE(dm, nullptr);
  EXPECT_EQ(&dm[4][1], &dm[1][1] + 9);
  free_dmatrix(dm, 1, 4, 1, 3);
}

TEST(Arrays, SizeCapIsOneThousandMillionElements) {
  testing::internal::CaptureStderr();
  float **big = matrix(1, 2, 1, 500000001);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(big, nullptr);
  EXPECT_EQ(err, "\n Sorry, out of memory\n\n\a\a");
  testing::internal::CaptureStderr();
  EXPECT_EQ(matrix(1, 3, 1, -5), nullptr);  // negative column count
  testing::internal::GetCapturedStderr();
}

TEST(Arrays, IntegerMatrixAndThreeDimensionalArray) {
  int **im = imatrix(1, 3, 1, 4);
  ASSERT_NE(im, nullptr);
  im[3][4] = 7;
  EXPECT_EQ(im[1][1], 0);
  ifree_matrix(im, 1, 3, 1, 4);

  float ***a = matrix3d(1, 2, 1, 3, 1, 4);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(&a[1][2][1], &a[1][1][4] + 1);  // rows contiguous in a plane
  EXPECT_EQ(&a[2][1][1], &a[1][3][4] + 1);  // planes back to back
  a[2][3][4] = 1;
  free_3dmatrix(a, 1, 2, 1, 3, 1, 4);
}

TEST(FatalError, PrintsProgramNameAndExitsWithOne) {
  EXPECT_EXIT(
      {
        error_progname("brelix");
        error("x");
      },
      testing::ExitedWithCode(1), "\n\n Fatal error in brelix: x\n\n\a");
  EXPECT_STREQ(progname, "forwinv");
}
