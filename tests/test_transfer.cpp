// Source potentials, their derivatives, and the small steps from source
// terms to transfer matrices.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "forwinv/dipole.h"
#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "tests/support/g3_mat.h"

namespace {

using g3::Mat;

// The dipole kernel is the gradient of 1/|x - p| with respect to p, and the
// quadrupole kernel (xx, xy, xz, yy, yz; zz = -(xx + yy)) the derivative of
// the dipole kernel, both against central differences.
TEST(DipoleKernel, DerivativesOfOneOverR) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-1, 1);
  for (int t = 0; t < 50; t++) {
    const float x[3] = {u(rng), u(rng), u(rng)}, p[3] = {u(rng), u(rng), u(rng)};
    float g[3], q[5], dg[3][3];
    phi_dipole(x, p, g);
    phi_quadrupole(x, p, q);
    for (int k = 0; k < 3; k++) {
      double inv[2];
      float pp[2][3] = {{p[0], p[1], p[2]}, {p[0], p[1], p[2]}}, gs[2][3];
      for (int s = 0; s < 2; s++) {
        double pd[3] = {p[0], p[1], p[2]};
        pd[k] += s ? -1e-4 : 1e-4;
        inv[s] = 1 / std::hypot(x[0] - pd[0], x[1] - pd[1], x[2] - pd[2]);
        pp[s][k] += s ? -1e-3f : 1e-3f;
        phi_dipole(x, pp[s], gs[s]);
      }
      const double fd = (inv[0] - inv[1]) / 2e-4, h = (double)pp[0][k] - pp[1][k];
      EXPECT_NEAR(g[k], fd, 1e-4 * (1 + fabs(fd)));
      for (int a = 0; a < 3; a++) dg[a][k] = (float)((gs[0][a] - gs[1][a]) / h);
    }
    double scale = 0;
    for (auto &row : dg)
      for (float v : row) scale = std::max(scale, (double)fabs(v));
    const double want[5] = {dg[0][0], dg[0][1], dg[0][2], dg[1][1], dg[1][2]}, tol = 2e-2 * scale + 1e-3;
    for (int k = 0; k < 5; k++) EXPECT_NEAR(q[k], want[k], tol) << k;
    EXPECT_NEAR(-(q[0] + q[3]), dg[2][2], tol);
  }
  float same[3] = {0.5f, 0.5f, 0.5f}, g[3] = {1, 1, 1};
  phi_dipole(same, same, g);
  EXPECT_EQ(std::vector<float>(g, g + 3), std::vector<float>(3, 0.0f));
}

// Two interfaces of two and one vertices.
void tiny_model() {
  static float pa[2][3] = {{1, 0, 0}, {0, 2, 0}}, pb[1][3] = {{0, 0, 0}};
  ngeo = 2;
  totpnt = 3;
  geo[0].npnt = 2, geo[0].pnt = pa, geo[0].sigma_in = 1, geo[0].sigma_out = 0;
  geo[1].npnt = 1, geo[1].pnt = pb, geo[1].sigma_in = 3, geo[1].sigma_out = 1;
}

TEST(SourceTerms, OneRowPerComponentAndZeroAtTheSource) {
  tiny_model();
  Mat x(3, 3);
  float p[3] = {0, 0, 0};
  sphi_dipole(p, x);
  EXPECT_FLOAT_EQ(x[1][1], ONE_OVER_4PI * 1.0f);   // (1,0,0)/1
  EXPECT_FLOAT_EQ(x[2][2], ONE_OVER_4PI * 0.25f);  // (0,2,0)/8
  EXPECT_EQ(x[1][2], 0.0f);
  for (int r = 1; r <= 3; r++) EXPECT_EQ(x[r][3], 0.0f);  // the source sits on vertex 3
  sphi_transform(geo, ngeo, x, 3);
  EXPECT_FLOAT_EQ(x[1][1], ONE_OVER_4PI * 2.0f);  // 2 / (1 + 0)
  EXPECT_FLOAT_EQ(x[2][2], ONE_OVER_4PI * 0.5f);
}

TEST(TransferSteps, AverageReferenceAndSingleElectrode) {
  tiny_model();
  Electrode three[4] = {};
  for (int e = 1; e <= 3; e++) three[e].index = e;
  el = three;
  elec_vertex = 1;
  nel = 3;
  Mat x(2, 3), t(3, 2);
  x[1][1] = 1, x[1][2] = 2, x[1][3] = 6;
  x[2][1] = -1, x[2][2] = -1, x[2][3] = -1;
  make_trans(x, 2, t);
  EXPECT_EQ(t.flat(), std::vector<float>({-2, 0, -1, 0, 3, 0}));
  nel = 1;
  make_trans(x, 2, t);
  EXPECT_EQ(t[1][1], 0.0f);
}

TEST(TransferSteps, OrientationReduction) {
  // Two sources, the first with a stationary orientation along (theta, alfa).
  SourceRecord src[2] = {};
  src[0].ori_stationary = 1;
  src[0].theta = 0.7f;
  src[0].alfa = -1.2f;
  src[0].lindex = 1;
  src[1].lindex = 2;
  Mat t(2, 6);
  for (int e = 1; e <= 2; e++)
    for (int c = 1; c <= 6; c++) t[e][c] = (float)(10 * e + c);
  const float u[3] = {sinf(0.7f) * cosf(-1.2f), sinf(0.7f) * sinf(-1.2f), cosf(0.7f)};
  reduce_trans(2, 2, src, t);
  for (int e = 1; e <= 2; e++) {
    EXPECT_NEAR(t[e][1], u[0] * (10 * e + 1) + u[1] * (10 * e + 2) + u[2] * (10 * e + 3), 1e-4);
    EXPECT_EQ(std::vector<float>({t[e][2], t[e][3], t[e][4]}), std::vector<float>({10.0f * e + 4, 10.0f * e + 5, 10.0f * e + 6}));
  }
}

TEST(TransferSteps, SolveCountdownOnlyAboveTenRows) {
  Mat m(2, 2), x(11, 2);
  m[1][1] = 2, m[2][2] = 4;
  float cond;
  ludec(m, 2, &cond);
  for (int r = 1; r <= 11; r++) x[r][1] = 2, x[r][2] = 4;
  testing::internal::CaptureStdout();
  do_solve(m, x, 10, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  testing::internal::CaptureStdout();
  do_solve(m, x, 11, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Solve countdown:   10\rSolve countdown:    0\r\n");
  EXPECT_EQ(x[11][1], 1.0f);
  EXPECT_EQ(x[1][2], 0.25f);  // solved twice
}

}  // namespace
