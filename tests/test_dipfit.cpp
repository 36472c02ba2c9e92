// The dipole-fit model callbacks on a single sphere: the analytic
// derivatives against central differences of the model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "forwinv/bmatrix.h"
#include "forwinv/dipfit.h"
#include "forwinv/sources.h"
#include "numeric/ludec.h"
#include "tests/support/files.h"
#include "tests/support/h2_arrays.h"

namespace {

// A unit sphere of 162 vertices, all electrodes, its system matrix
// factorised into b (bi null) as a run without -i has it; six sources using
// every way a model column can depend on the parameters (stationary position
// and orientation, pairs mirrored in x and in z, a fixed source); p near
// the table's values.
class DipoleModel : public testing::Test {
 protected:
  void SetUp() override {
    TriMesh m = icosphere(2, 1.0);
    ngeo = 1, iso_sur = -1;
    Interface &g = geo[0];
    g.npnt = (int)m.pnt.size(), g.ndhk = (int)m.dhk.size(), g.sigma_in = 1.0f;
    g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
    g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
    memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
    for (int t = 0; t < g.ndhk; t++)
      for (int k = 0; k < 3; k++) g.dhk[t][k] = m.dhk[t][k];
    totpnt = nel = g.npnt, totdhk = g.ndhk;
    el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
    for (int e = 1; e <= nel; e++) el[e].index = e;
    elec_vertex = surfelec = 1;
    testing::internal::CaptureStdout();
    b = matrix(1, totpnt, 1, totpnt);
    b_matrix();
    float cond;
    ludec(b, totpnt, &cond), bi = nullptr;
    write_file(dir.file("s.dip"),
               "6\n1 0.30 0.10 0.20\n2 0.40 -0.20 0.10\n3 -0.30 -0.20 0.10\n4 0.10 0.20 0.35\n5 0.10 0.20 -0.25\n"
               "6 -0.20 0.30 -0.30\n1 position stationary orientation stationary\n"
               "2 position stationary orientation stationary\n3 symmetric to 2\n4 position stationary\n"
               "5 symmetric to 4\n6 position fixed\n");
    const int ok = init_dip(dir.file("s.dip").c_str(), &nsource, &source, &constraint);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(ok, 1);
    get_nn_nl();
    p.assign(nnpar + 1, 0.0f);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> jitter(-0.05f, 0.05f);
    for (int s = 0; s < nsource; s++) {
      const SourceRecord &r = source[s];
      const float xyz[3] = {r.x, r.y, r.z};
      if (r.pos_mode != 0 && !r.pos_symmetric)
        for (int k = 0; k < 3; k++) p[r.pindex + k] = xyz[k] + jitter(rng);
      if (r.ori_stationary && !r.ori_symmetric) p[r.oindex] = 0.9f + 0.3f * s, p[r.oindex + 1] = -1.2f + 0.7f * s;
    }
  }
  void TearDown() override {
    free_matrix(b, 1, totpnt, 1, totpnt), b = nullptr;
    free(geo[0].pnt), free(geo[0].dhk), free(el), free(source);
    geo[0].pnt = nullptr, geo[0].dhk = nullptr, el = nullptr, source = nullptr;
  }
  TempDir dir;
  std::vector<float> p;
};

// Analytic derivatives df (k = 1..x.size()-1) of the rows x cols function f
// of x[1..] against central differences; a column that does not move with
// x[k] must get an exact zero.
void expect_derivatives(const std::function<void(float *, float **)> &f,
                        const std::function<void(float *, float ***)> &df, std::vector<float> x, int rows, int cols) {
  const int q = (int)x.size() - 1;
  const float h = 2e-3f;
  h2::Arena ar;
  float ***D = ar.cube(q, rows, cols), **Fp = ar.mat(rows, cols), **Fm = ar.mat(rows, cols);
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= rows; i++)
      for (int j = 1; j <= cols; j++) D[k][i][j] = 99.0f;  // garbage the callback must clear
  df(x.data(), D);
  for (int k = 1; k <= q; k++) {
    std::vector<float> plus = x, minus = x;
    plus[k] += h, minus[k] -= h;
    f(plus.data(), Fp), f(minus.data(), Fm);
    float scale = 0;
    for (int i = 1; i <= rows; i++)
      for (int j = 1; j <= cols; j++) scale = std::max(scale, std::fabs(Fp[i][j]));
    for (int j = 1; j <= cols; j++) {
      float dscale = 0;
      for (int i = 1; i <= rows; i++) dscale = std::max(dscale, std::fabs(D[k][i][j]));
      for (int i = 1; i <= rows; i++) {
        const float fd = (Fp[i][j] - Fm[i][j]) / (2 * h);
        ASSERT_TRUE(fd != 0.0f ? std::fabs(D[k][i][j] - fd) <= 2e-3f * std::max(dscale, 1e-3f * scale) : D[k][i][j] == 0)
            << "parameter " << k << " column " << j << " row " << i << ": " << D[k][i][j] << " vs " << fd;
      }
    }
  }
}

// Every derivative the fitter is given, including the mirrored and the
// parameter-free columns; dT/dpos of one dipole.
TEST_F(DipoleModel, DerivativesMatchCentralDifferences) {
  expect_derivatives([](float *x, float **M) { d_transeval(nel, nlpar, nnpar, x, M); },
                     [](float *x, float ***D) { d_dtranseval(nel, nlpar, nnpar, x, D); }, p, nel, nlpar);
  expect_derivatives([](float *x, float **T) { trans_dip(nel, 3, x + 1, T); },
                     [](float *x, float ***P) { dtrans_dip(nel, 3, x + 1, P); }, {0, 0.3f, -0.25f, 0.4f}, nel, 3);
}

}  // namespace
