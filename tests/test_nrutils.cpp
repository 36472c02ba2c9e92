// One-based arrays, their size cap, and the fatal-error exit.
#include <gtest/gtest.h>

#include "numeric/nrutils.h"

TEST(Arrays, ZeroFilledContiguousAndAddressedFromTheirBounds) {
  double *dv = dvector(-2, 2);
  float **m = matrix(0, 2, 0, 2), ***a = matrix3d(1, 2, 1, 3, 1, 4);
  ASSERT_TRUE(dv && m && a);
  EXPECT_EQ(dv[-2] + dv[2] + m[0][0] + m[2][2] + a[1][1][1] + a[2][3][4], 0.0);
  EXPECT_EQ(&m[2][0], &m[1][2] + 1);
  EXPECT_EQ(&a[1][2][1], &a[1][1][4] + 1);  // rows contiguous in a plane
  EXPECT_EQ(&a[2][1][1], &a[1][3][4] + 1);  // planes back to back
  free_dvector(dv, -2, 2), free_matrix(m, 0, 2, 0, 2), free_3dmatrix(a, 1, 2, 1, 3, 1, 4);
  // A block large enough to give its pages back on two threads before it
  // is freed: the allocator's own record of it must survive, twice over.
  for (int round = 0; round < 2; round++) {
    float **big = matrix(-1, 4200, 3, 4200);
    ASSERT_TRUE(big);
    EXPECT_EQ(big[-1][3] + big[4200][4200], 0.0f);
    big[-1][3] = big[4200][4200] = 1.0f;
    free_matrix(big, -1, 4200, 3, 4200);
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(matrix(1, 2, 1, 500000001), nullptr);  // over 1e9 elements
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n Sorry, out of memory\n\n\a\a");
  testing::internal::CaptureStderr();
  EXPECT_EQ(matrix(1, 3, 1, -5), nullptr);
  testing::internal::GetCapturedStderr();
  EXPECT_EXIT((error_progname("brelix"), error("x")), testing::ExitedWithCode(1), "\n\n Fatal error in brelix: x\n\n\a");
}
