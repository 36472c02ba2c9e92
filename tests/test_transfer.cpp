// Source potentials, their derivatives, and the small steps from source
// terms to transfer matrices.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

#include "forwinv/dipole.h"
#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"

namespace {

TEST(DipoleKernel, MatchesTheGradientOfOneOverR) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-1, 1);
  for (int t = 0; t < 50; t++) {
    float x[3] = {u(rng), u(rng), u(rng)}, p[3] = {u(rng), u(rng), u(rng)}, g[3];
    phi_dipole(x, p, g);
    // (x - p)/r^3 is the gradient of 1/|x - p| with respect to p.
    for (int k = 0; k < 3; k++) {
      double h = 1e-4;
      double pp[3] = {p[0], p[1], p[2]}, pm[3] = {p[0], p[1], p[2]};
      pp[k] += h;
      pm[k] -= h;
      auto inv = [&](const double *q) {
        return 1 / std::sqrt((x[0] - q[0]) * (x[0] - q[0]) + (x[1] - q[1]) * (x[1] - q[1]) +
                             (x[2] - q[2]) * (x[2] - q[2]));
      };
      double fd = (inv(pp) - inv(pm)) / (2 * h);
      EXPECT_NEAR(g[k], fd, 1e-4 * (1 + fabs(fd)));
    }
  }
  float same[3] = {0.5f, 0.5f, 0.5f}, g[3] = {1, 1, 1};
  phi_dipole(same, same, g);
  EXPECT_EQ(g[0], 0.0f);
  EXPECT_EQ(g[1], 0.0f);
  EXPECT_EQ(g[2], 0.0f);
}

TEST(DipoleKernel, QuadrupoleIsTheDerivativeWithRespectToThePosition) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> u(-1, 1);
  for (int t = 0; t < 50; t++) {
    float x[3] = {u(rng), u(rng), u(rng)}, p[3] = {u(rng), u(rng), u(rng)}, q[5];
    phi_quadrupole(x, p, q);
    // d g_a / d p_b by central differences of the dipole kernel; q holds
    // (xx, xy, xz, yy, yz) and zz = -(xx + yy).
    double full[3][3];
    for (int b2 = 0; b2 < 3; b2++) {
      float pp[3] = {p[0], p[1], p[2]}, pm[3] = {p[0], p[1], p[2]}, gp[3], gm[3];
      float h = 1e-3f;
      pp[b2] += h;
      pm[b2] -= h;
      phi_dipole(x, pp, gp);
      phi_dipole(x, pm, gm);
      for (int a = 0; a < 3; a++) full[a][b2] = (gp[a] - gm[a]) / (pp[b2] - pm[b2]);
    }
    double scale = 0;
    for (auto &row : full)
      for (double v : row) scale = std::max(scale, fabs(v));
    double tol = 2e-2 * scale + 1e-3;
    EXPECT_NEAR(q[0], full[0][0], tol);
    EXPECT_NEAR(q[1], full[0][1], tol);
    EXPECT_NEAR(q[2], full[0][2], tol);
    EXPECT_NEAR(q[3], full[1][1], tol);
    EXPECT_NEAR(q[4], full[1][2], tol);
    EXPECT_NEAR(-(q[0] + q[3]), full[2][2], tol);
  }
}

// Two interfaces of two and one vertices.
void tiny_model() {
  static float pa[2][3] = {{1, 0, 0}, {0, 2, 0}}, pb[1][3] = {{0, 0, 0}};
  ngeo = 2;
  geo[0].npnt = 2;
  geo[0].pnt = pa;
  geo[0].sigma_in = 1;
  geo[0].sigma_out = 0;
  geo[1].npnt = 1;
  geo[1].pnt = pb;
  geo[1].sigma_in = 3;
  geo[1].sigma_out = 1;
  totpnt = 3;
}

TEST(SourceTerms, OneRowPerComponentAndZeroAtTheSource) {
  tiny_model();
  float **x = matrix(1, 3, 1, 3);
  float p[3] = {0, 0, 0};
  sphi_dipole(p, x);
  EXPECT_FLOAT_EQ(x[1][1], ONE_OVER_4PI * 1.0f);  // (1,0,0)/1
  EXPECT_FLOAT_EQ(x[2][2], ONE_OVER_4PI * 0.25f);  // (0,2,0)/8
  EXPECT_EQ(x[1][2], 0.0f);
  for (int r = 1; r <= 3; r++) EXPECT_EQ(x[r][3], 0.0f);  // the source sits on vertex 3

  sphi_transform(geo, ngeo, x, 3);
  EXPECT_FLOAT_EQ(x[1][1], ONE_OVER_4PI * 2.0f);   // 2 / (1 + 0)
  EXPECT_FLOAT_EQ(x[2][2], ONE_OVER_4PI * 0.5f);
  free_matrix(x, 1, 3, 1, 3);
}

TEST(TransferSteps, AverageReferenceAndSingleElectrode) {
  tiny_model();
  Electrode three[4] = {};
  for (int e = 1; e <= 3; e++) three[e].index = e;
  el = three;
  elec_vertex = 1;
  nel = 3;
  float **x = matrix(1, 2, 1, 3), **t = matrix(1, 3, 1, 2);
  x[1][1] = 1, x[1][2] = 2, x[1][3] = 6;
  x[2][1] = -1, x[2][2] = -1, x[2][3] = -1;
  make_trans(x, 2, t);
  EXPECT_FLOAT_EQ(t[1][1], -2);
  EXPECT_FLOAT_EQ(t[2][1], -1);
  EXPECT_FLOAT_EQ(t[3][1], 3);
  for (int e = 1; e <= 3; e++) EXPECT_EQ(t[e][2], 0.0f);
  nel = 1;
  make_trans(x, 2, t);
  EXPECT_EQ(t[1][1], 0.0f);
  free_matrix(x, 1, 2, 1, 3);
  free_matrix(t, 1, 3, 1, 2);
}

TEST(TransferSteps, ForwardAndOrientationReduction) {
  // Two sources, the first with a stationary orientation along (theta, alfa).
  SourceRecord src[2] = {};
  src[0].ori_stationary = 1;
  src[0].theta = 0.7f;
  src[0].alfa = -1.2f;
  src[0].lindex = 1;
  src[1].lindex = 2;
  float **t = matrix(1, 2, 1, 6);
  for (int e = 1; e <= 2; e++)
    for (int c = 1; c <= 6; c++) t[e][c] = (float)(10 * e + c);
  float u[3] = {sinf(0.7f) * cosf(-1.2f), sinf(0.7f) * sinf(-1.2f), cosf(0.7f)};
  reduce_trans(2, 2, src, t);
  for (int e = 1; e <= 2; e++) {
    EXPECT_NEAR(t[e][1], u[0] * (10 * e + 1) + u[1] * (10 * e + 2) + u[2] * (10 * e + 3), 1e-4);
    EXPECT_EQ(t[e][2], 10 * e + 4);
    EXPECT_EQ(t[e][4], 10 * e + 6);
  }
  float **d = matrix(1, 4, 1, 2), **phi = matrix(1, 2, 1, 2);
  d[1][1] = 1, d[2][1] = 2, d[3][2] = -1, d[4][2] = 0.5f;
  forward(t, phi, d, 4, 2, 2);
  for (int e = 1; e <= 2; e++) {
    EXPECT_FLOAT_EQ(phi[e][1], t[e][1] + 2 * t[e][2]);
    EXPECT_FLOAT_EQ(phi[e][2], -t[e][3] + 0.5f * t[e][4]);
  }
}

TEST(TransferSteps, SolveCountdownOnlyAboveTenRows) {
  float **m = matrix(1, 2, 1, 2);
  m[1][1] = 2, m[2][2] = 4;
  float cond;
  ludec(m, 2, &cond);
  float **x = matrix(1, 11, 1, 2);
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
