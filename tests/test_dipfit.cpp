// The dipole-fit model callbacks and the fit driver, in process on a single
// sphere: analytic derivatives against central differences of the model, the
// model columns against independently mirrored sources, and fits of one
// dipole: a direction reversed when the strengths come out negative, and
// results that scale with the units of the geometry.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <regex>
#include <string>

#include "forwinv/bmatrix.h"
#include "forwinv/compart.h"
#include "forwinv/dipfit.h"
#include "forwinv/sources.h"
#include "numeric/ludec.h"
#include "tests/support/files.h"
#include "tests/support/h2_arrays.h"

namespace {

// A sphere of 162 vertices, all of them electrodes, with its system matrix
// factorised into b (bi null), as a run without -i has it.
void make_sphere_model(double radius) {
  TriMesh m = icosphere(2, radius);
  ngeo = 1, iso_sur = -1;
  Interface &g = geo[0];
  snprintf(g.name, sizeof g.name, "sphere.tri");
  g.npnt = (int)m.pnt.size(), g.ndhk = (int)m.dhk.size();
  free(g.pnt), free(g.dhk);
  g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
  g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
  memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
  for (int t = 0; t < g.ndhk; t++)
    for (int k = 0; k < 3; k++) g.dhk[t][k] = m.dhk[t][k];
  g.sigma_in = 1.0f;
  totpnt = nel = g.npnt, totdhk = g.ndhk;
  free(el);
  el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
  for (int e = 1; e <= nel; e++) el[e].index = e;
  elec_vertex = surfelec = 1, elname[0] = '\0';
  testing::internal::CaptureStdout();
  b = matrix(1, totpnt, 1, totpnt);
  b_matrix();
  float cond;
  ludec(b, totpnt, &cond);
  testing::internal::GetCapturedStdout();
  bi = nullptr;
}

void release_model() {
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = nullptr;
}

// Read a source table through the program's own reader and number the
// parameters.
void load_sources(const std::string &contents) {
  TempDir dir;
  write_file(dir.file("s.dip"), contents);
  testing::internal::CaptureStdout();
  int ok = init_dip(dir.file("s.dip").c_str(), &nsource, &source, &constraint);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(ok, 1);
  get_nn_nl();
}

// Analytic derivatives df (k = 1..x.size()-1) of the rows x cols function f
// of x[1..] against central differences; a column that does not move with
// x[k] must get an exact zero.
void expect_derivatives(const std::function<void(float *, float **)> &f,
                        const std::function<void(float *, float ***)> &df, std::vector<float> x, int rows,
                        int cols, const char *what) {
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
        if (fd == 0.0f) {
          ASSERT_EQ(D[k][i][j], 0.0f) << what << ": parameter " << k << " column " << j << " row " << i;
        }
        ASSERT_NEAR(D[k][i][j], fd, 2e-3f * std::max(dscale, 1e-3f * scale))
            << what << ": parameter " << k << " column " << j << " row " << i;
      }
    }
  }
}

class DipoleModel : public testing::Test {
 protected:
  void SetUp() override { make_sphere_model(1.0); }
  void TearDown() override { release_model(); }
};

// dT/dpos from the analytic kernel derivative, on the system-matrix path and
// on the inverted-matrix path (a random bi).
TEST_F(DipoleModel, PositionDerivativesMatchCentralDifferences) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-0.45f, 0.45f);
  h2::Arena ar;
  float **bi_random = ar.mat(h2::random_matrix(nel, totpnt, 8));
  float **saved_b = b;
  for (int path = 0; path < 2; path++) {
    if (path == 1) b = nullptr, bi = bi_random;
    for (int trial = 0; trial < 2; trial++)
      expect_derivatives([](float *x, float **T) { trans_dip(nel, 3, x + 1, T); },
                         [](float *x, float ***P) { dtrans_dip(nel, 3, x + 1, P); },
                         {0, coord(rng), coord(rng), coord(rng)}, nel, 3, path ? "bi path" : "b path");
  }
  b = saved_b, bi = nullptr;
}

// Six sources that use every way a column of the model can depend on the
// parameters: stationary position and orientation; a pair mirrored in x with
// stationary orientations; a pair mirrored in z with free orientations; a
// fixed source.  Parameters near, not at, the table's start values.
class MixedSources : public DipoleModel {
 protected:
  void SetUp() override {
    DipoleModel::SetUp();
    load_sources(
        "6\n1 0.30 0.10 0.20\n2 0.40 -0.20 0.10\n3 -0.30 -0.20 0.10\n4 0.10 0.20 0.35\n5 0.10 0.20 -0.25\n"
        "6 -0.20 0.30 -0.30\n1 position stationary orientation stationary\n"
        "2 position stationary orientation stationary\n3 symmetric to 2\n4 position stationary\n"
        "5 symmetric to 4\n6 position fixed\n");
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
  std::vector<float> p;
};

// The model columns against trans_dip at positions and directions worked out
// here by hand: the mirror planes are x = 0.05 (halfway between 0.4 and
// -0.3) and z = 0.05.
TEST_F(MixedSources, ModelColumnsFollowPositionsDirectionsAndMirrors) {
  h2::Arena ar;
  float **M = ar.mat(nel, nlpar), **T = ar.mat(nel, 3);
  d_transeval(nel, nlpar, nnpar, p.data(), M);
  auto dir = [&](int s) {
    const float th = p[source[s].oindex], al = p[source[s].oindex + 1];
    return std::vector<double>{sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  };
  auto at = [&](int s) { return std::vector<float>{p[source[s].pindex], p[source[s].pindex + 1], p[source[s].pindex + 2]}; };
  std::vector<float> pos3 = at(1), pos5 = at(3);
  pos3[0] = 0.1f - pos3[0], pos5[2] = 0.1f - pos5[2];
  std::vector<double> u3 = dir(1);
  u3[0] = -u3[0];
  const std::vector<double> ex = {1, 0, 0}, ey = {0, 1, 0}, ez = {0, 0, 1};
  struct Column {
    int col;
    std::vector<float> pos;
    std::vector<double> u;
  };
  const Column cols[] = {{source[0].lindex, at(0), dir(0)},     {source[1].lindex, at(1), dir(1)},
                         {source[2].lindex, pos3, u3},          {source[3].lindex, at(3), ex},
                         {source[3].lindex + 1, at(3), ey},     {source[3].lindex + 2, at(3), ez},
                         {source[4].lindex, pos5, ex},          {source[4].lindex + 2, pos5, ez},
                         {source[5].lindex + 1, {-0.2f, 0.3f, -0.3f}, ey}};
  for (const Column &c : cols) {
    trans_dip(nel, 3, c.pos.data(), T);
    float scale = 0;
    for (int i = 1; i <= nel; i++) scale = std::max(scale, std::fabs(T[i][1]) + std::fabs(T[i][2]) + std::fabs(T[i][3]));
    for (int i = 1; i <= nel; i++)
      ASSERT_NEAR(M[i][c.col], c.u[0] * T[i][1] + c.u[1] * T[i][2] + c.u[2] * T[i][3], 1e-5 * scale)
          << "column " << c.col << " electrode " << i;
  }
}

// Every derivative the fitter is given, including the mirrored and the
// parameter-free columns.
TEST_F(MixedSources, ModelDerivativesMatchCentralDifferences) {
  expect_derivatives([](float *x, float **M) { d_transeval(nel, nlpar, nnpar, x, M); },
                     [](float *x, float ***D) { d_dtranseval(nel, nlpar, nnpar, x, D); }, p, nel, nlpar, "model");
}

// What one fit of a single dipole gives, in the units of its geometry.
struct Fit {
  float rd, rms;
  std::vector<float> pos, strengths, sd_strengths, sd_pos;
  double phi_error = 0, geometry_error = 0;  // relative to the data, to the scale
  std::vector<double> dir;
  std::string out;
};

// Data amp[t] u . T(truth) (+ noise in proportion to the potentials) in a
// sphere of the given radius, fitted from a start about 0.1 radius away with
// the true direction: stationary (position and orientation) or moving.
Fit fit_dipole(double radius, bool moving, const std::vector<float> &amp, float noise, const double u[3]) {
  make_sphere_model(radius);
  const float r = (float)radius, truth[3] = {0.25f * r, -0.15f * r, 0.35f * r};
  ntim = (int)amp.size();
  h2::Arena ar;
  float **T = ar.mat(nel, 3), **data = ar.mat(nel, ntim);
  trans_dip(nel, 3, truth, T);
  std::mt19937 rng(5);
  std::normal_distribution<float> gauss(0, 1);
  float peak = 0;
  for (int e = 1; e <= nel; e++) peak = std::max(peak, std::fabs(T[e][1]));
  for (int e = 1; e <= nel; e++)
    for (int t = 1; t <= ntim; t++)
      data[e][t] = amp[t - 1] * (float)(u[0] * T[e][1] + u[1] * T[e][2] + u[2] * T[e][3]) + noise * peak * gauss(rng);
  char text[256];
  snprintf(text, sizeof text, "1\n1 %.6f %.6f %.6f\n1 %s\n", truth[0] + 0.06 * r, truth[1] - 0.06 * r,
           truth[2] + 0.05 * r, moving ? "position moving" : "position stationary orientation stationary");
  load_sources(text);
  source[0].theta = (float)std::acos(u[2]);
  source[0].alfa = (float)std::atan2(u[1], u[0]);

  // Independent scale: inverse rms distance from the start to the first
  // corners of triangles 1..nel (the electrode records' indices).
  const float start[3] = {source[0].x, source[0].y, source[0].z};
  double sum = 0;
  for (int e = 1; e <= nel; e++)
    for (int k = 0; k < 3; k++) sum += std::pow(start[k] - geo[0].pnt[geo[0].dhk[e][0]][k], 2);
  const double scale = std::sqrt(nel / sum);
  std::vector<float> original(&geo[0].pnt[0][0], &geo[0].pnt[0][0] + 3 * totpnt);

  testing::internal::CaptureStdout();
  locate_sources();
  bound_func = bound_compart;
  const int rows = moving ? 6 : 3;
  float **d = ar.mat(rows, ntim), **sdd = ar.mat(rows, ntim), **phi = ar.mat(nel, ntim);
  float sd_pos[1][5] = {{0, 0, 0, 0, 0}};
  Fit f;
  f.rd = d_alin_inverse(nullptr, data, d, nlpar, nel, ntim, phi, &f.rms, sdd, moving ? nullptr : sd_pos);
  f.out = testing::internal::GetCapturedStdout();

  for (int t = 1; t <= ntim; t++) {
    float big = 0;
    for (int e = 1; e <= nel; e++) big = std::max(big, std::fabs(data[e][t]));
    for (int e = 1; e <= nel; e++) f.phi_error = std::max(f.phi_error, (double)std::fabs(phi[e][t] - data[e][t]) / big);
  }
  // The interfaces stay scaled; the sources do not.
  for (int i = 0; i < 3 * totpnt; i++)
    f.geometry_error = std::max(f.geometry_error, std::fabs((&geo[0].pnt[0][0])[i] - original[i] * scale) / scale);
  for (int t = 1; t <= ntim; t++)
    for (int j = 1; j <= rows; j++) {
      auto &vals = j > 3 ? f.pos : f.strengths;
      auto &sds = j > 3 ? f.sd_pos : f.sd_strengths;
      if (!moving && j > 1) continue;
      vals.push_back(d[j][t]), sds.push_back(sdd[j][t]);
    }
  if (!moving) {
    f.pos = {source[0].x, source[0].y, source[0].z};
    f.sd_pos.assign(sd_pos[0], sd_pos[0] + 5);
    const double th = source[0].theta, al = source[0].alfa;
    f.dir = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
    f.strengths.push_back(source[0].theta), f.strengths.push_back(source[0].alfa);
  }
  release_model();
  return f;
}

const double TRUE_DIR[3] = {sin(1.1) * cos(0.6), sin(1.1) * sin(0.6), cos(1.1)};

// Exact data asking for negative strengths along the start direction: the
// fit reverses the direction so that the strengths sum positive.
TEST(DipoleFit, StationaryFitReversesADirectionWithNegativeStrengths) {
  Fit f = fit_dipole(1.0, false, {-2.0f, -1.0f}, 0.0f, TRUE_DIR);
  EXPECT_LT(f.rd, 2e-3f);
  EXPECT_GE(f.rms, 0.0f);
  EXPECT_NEAR(f.pos[0], 0.25, 0.005);
  EXPECT_NEAR(f.pos[1], -0.15, 0.005);
  EXPECT_NEAR(f.pos[2], 0.35, 0.005);
  for (int k = 0; k < 3; k++) EXPECT_NEAR(f.dir[k], -TRUE_DIR[k], 0.01) << k;
  EXPECT_TRUE(f.strengths[2] >= 0.0f && f.strengths[2] <= (float)M_PI) << "theta " << f.strengths[2];
  EXPECT_NEAR(f.strengths[0], 2.0, 0.02);
  EXPECT_NEAR(f.strengths[1], 1.0, 0.01);
  EXPECT_LT(f.phi_error, 5e-3);
  EXPECT_LT(f.geometry_error, 1e-5);
  for (int k = 0; k < 5; k++) EXPECT_TRUE(std::isfinite(f.sd_pos[k]) && f.sd_pos[k] >= 0) << k;
  EXPECT_TRUE(std::isfinite(f.sd_strengths[0]));

  EXPECT_TRUE(std::regex_search(f.out, std::regex("Condition in decouple: [0-9.]+\n"))) << f.out;
}

// The same noisy problem in units twice as large: positions and their
// standard deviations double, the rms residual drops to a quarter, and
// strengths, angles and their deviations stay as they are.  This holds only
// when every quantity is scaled back with the right power.
TEST(DipoleFit, ResultsScaleWithTheUnitsOfTheGeometry) {
  for (bool moving : {false, true}) {
    SCOPED_TRACE(moving ? "moving" : "stationary");
    const std::vector<float> amp = moving ? std::vector<float>{1, 2, 3} : std::vector<float>{1, 2};
    Fit a = fit_dipole(1.0, moving, amp, 0.02f, TRUE_DIR), b2 = fit_dipole(2.0, moving, amp, 0.02f, TRUE_DIR);
    EXPECT_GT(a.rd, 0.005f);
    EXPECT_NEAR(b2.rd, a.rd, 1e-4 * a.rd);
    EXPECT_NEAR(b2.rms, a.rms / 4, 1e-3 * a.rms);
    ASSERT_EQ(a.pos.size(), b2.pos.size());
    for (size_t i = 0; i < a.pos.size(); i++) EXPECT_NEAR(b2.pos[i], 2 * a.pos[i], 1e-4) << i;
    for (size_t i = 0; i < a.strengths.size(); i++) EXPECT_NEAR(b2.strengths[i], a.strengths[i], 1e-4) << i;
    for (size_t i = 0; i < a.sd_strengths.size(); i++) {
      EXPECT_GT(a.sd_strengths[i], 0.0f) << i;
      EXPECT_NEAR(b2.sd_strengths[i], a.sd_strengths[i], 1e-3 * a.sd_strengths[i]) << i;
    }
    for (size_t i = 0; i < a.sd_pos.size(); i++) {
      EXPECT_GT(a.sd_pos[i], 0.0f) << i;
      const double factor = (moving || i < 3) ? 2 : 1;  // positions, then (stationary) angles
      EXPECT_NEAR(b2.sd_pos[i], factor * a.sd_pos[i], 1e-3 * a.sd_pos[i]) << i;
    }
  }
}

}  // namespace
