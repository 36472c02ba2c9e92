// One-based arrays and the fatal-error exit.
#include <gtest/gtest.h>

#include "numeric/nrutils.h"

TEST(Arrays, ZeroFilledAndAddressedFromTheirLowerBound) {
  float *v = vector(1, 5);
  double *dv = dvector(-2, 2);
  int *iv = ivector(0, 0);
  fcomplex *cv = cvector(1, 3);
  ASSERT_TRUE(v && dv && iv && cv);
  for (int i = 1; i <= 5; i++) EXPECT_EQ(v[i], 0.0f);
  EXPECT_EQ(dv[-2] + dv[2] + iv[0] + cv[3].i, 0.0);
  v[1] = v[5] = dv[-2] = dv[2] = 3;  // both ends are ours (the sanitizer would say)
  free_vector(v, 1, 5);
  free_dvector(dv, -2, 2);
  ifree_vector(iv, 0, 0);
  free_cvector(cv, 1, 3);
}

TEST(Arrays, MatrixRowsAndPlanesAreContiguous) {
  float **m = matrix(0, 2, 0, 2);
  double **dm = dmatrix(1, 4, 1, 3);
  int **im = imatrix(1, 3, 1, 4);
  float ***a = matrix3d(1, 2, 1, 3, 1, 4);
  ASSERT_TRUE(m && dm && im && a);
  for (int r = 0; r <= 2; r++)
    for (int c = 0; c <= 2; c++) EXPECT_EQ(m[r][c], 0.0f);
  EXPECT_EQ(&m[1][0], &m[0][2] + 1);
  EXPECT_EQ(&m[2][0], &m[1][2] + 1);
  EXPECT_EQ(&dm[4][1], &dm[1][1] + 9);
  EXPECT_EQ(im[1][1], 0);
  im[3][4] = 7;
  EXPECT_EQ(&a[1][2][1], &a[1][1][4] + 1);  // rows contiguous in a plane
  EXPECT_EQ(&a[2][1][1], &a[1][3][4] + 1);  // planes back to back
  a[2][3][4] = 1;
  free_matrix(m, 0, 2, 0, 2);
  free_dmatrix(dm, 1, 4, 1, 3);
  ifree_matrix(im, 1, 3, 1, 4);
  free_3dmatrix(a, 1, 2, 1, 3, 1, 4);
}

TEST(Arrays, SizeCapIsOneThousandMillionElements) {
  testing::internal::CaptureStderr();
  float **big = matrix(1, 2, 1, 500000001);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Sorry, out of memory\n\n\a\a");
  EXPECT_EQ(big, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(matrix(1, 3, 1, -5), nullptr);  // negative column count
  testing::internal::GetCapturedStderr();
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
