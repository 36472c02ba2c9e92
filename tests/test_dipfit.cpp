// The dipole-fit model callbacks and the fit driver, in process on a single
// sphere: analytic derivatives against central differences of the model, the
// model columns against independently mirrored sources, and a stationary fit
// of a dipole whose data point against its start direction.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>
#include <string>

#include "forwinv/bmatrix.h"
#include "forwinv/compart.h"
#include "forwinv/dipfit.h"
#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"
#include "tools/icosphere.h"

namespace {

// A sphere of 162 vertices, all of them electrodes, with its system
// matrix factorised into b (bi null), as a run without -i has it.
void make_sphere_model(double radius = 1.0) {
  TriMesh m = icosphere(2, radius);
  ngeo = 1;
  iso_sur = -1;
  Interface &g = geo[0];
  snprintf(g.name, sizeof g.name, "sphere.tri");
  g.npnt = (int)m.pnt.size();
  g.ndhk = (int)m.dhk.size();
  free(g.pnt);
  free(g.dhk);
  g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
  g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
  memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
  for (int t = 0; t < g.ndhk; t++)
    for (int k = 0; k < 3; k++) g.dhk[t][k] = m.dhk[t][k];
  g.sigma_in = 1.0f;
  totpnt = g.npnt;
  totdhk = g.ndhk;
  nel = g.npnt;
  free(el);
  el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
  for (int e = 1; e <= nel; e++) el[e].index = e;
  elec_vertex = 1;
  surfelec = 1;
  elname[0] = '\0';
  testing::internal::CaptureStdout();
  b = matrix(1, totpnt, 1, totpnt);
  b_matrix();
  float cond;
  ludec(b, totpnt, &cond);
  testing::internal::GetCapturedStdout();
  bi = nullptr;
}

// Read a source file through the program's own reader and number the
// parameters.
void load_sources(const TempDir &dir, const std::string &contents) {
  write_file(dir.file("s.dip"), contents);
  testing::internal::CaptureStdout();
  int ok = init_dip(dir.file("s.dip").c_str(), &nsource, &source, &constraint);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(ok, 1);
  get_nn_nl();
}

float max_abs(float **a, int rows, int col) {
  float m = 0;
  for (int i = 1; i <= rows; i++) m = std::max(m, fabsf(a[i][col]));
  return m;
}

class DipoleModel : public testing::Test {
 protected:
  void SetUp() override { make_sphere_model(); }
  void TearDown() override {
    free_matrix(b, 1, totpnt, 1, totpnt);
    b = nullptr;
    if (bi) free_matrix(bi, 1, nel, 1, totpnt);
    bi = nullptr;
  }
  TempDir dir;
};

// dT/dpos from the analytic kernel derivative against central differences
// of trans_dip, on the system-matrix path and on the inverted-matrix path.
TEST_F(DipoleModel, PositionDerivativesMatchCentralDifferences) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-0.45f, 0.45f);
  float **bi_random = matrix(1, nel, 1, totpnt);
  for (int e = 1; e <= nel; e++)
    for (int c = 1; c <= totpnt; c++) bi_random[e][c] = std::uniform_real_distribution<float>(-1, 1)(rng);

  float **tp = matrix(1, nel, 1, 3), **tm = matrix(1, nel, 1, 3);
  float ***P = matrix3d(1, 3, 1, nel, 1, 3);
  const float h = 2e-3f;
  for (int path = 0; path < 2; path++) {
    float **saved_b = b;
    if (path == 1) {
      b = nullptr;
      bi = bi_random;
    }
    for (int trial = 0; trial < 4; trial++) {
      const float pos[3] = {coord(rng), coord(rng), coord(rng)};
      dtrans_dip(nel, 3, pos, P);
      for (int k = 1; k <= 3; k++) {
        float plus[3] = {pos[0], pos[1], pos[2]}, minus[3] = {pos[0], pos[1], pos[2]};
        plus[k - 1] += h;
        minus[k - 1] -= h;
        trans_dip(nel, 3, plus, tp);
        trans_dip(nel, 3, minus, tm);
        for (int j = 1; j <= 3; j++) {
          float scale = 0;
          for (int i = 1; i <= nel; i++) scale = std::max(scale, fabsf(P[k][i][j]));
          ASSERT_GT(scale, 0.0f);
          for (int i = 1; i <= nel; i++) {
            float fd = (tp[i][j] - tm[i][j]) / (2 * h);
            ASSERT_NEAR(P[k][i][j], fd, 2e-3f * scale)
                << "path " << path << " position " << pos[0] << "," << pos[1] << "," << pos[2] << " d/dx" << k
                << " electrode " << i << " component " << j;
          }
        }
      }
    }
    b = saved_b;
    bi = nullptr;
  }
  free_matrix(bi_random, 1, nel, 1, totpnt);
  free_3dmatrix(P, 1, 3, 1, nel, 1, 3);
  free_matrix(tp, 1, nel, 1, 3);
  free_matrix(tm, 1, nel, 1, 3);
}

// Six sources that use every way a column of the model can depend on the
// parameters: stationary position and orientation; a pair mirrored in x with
// stationary orientations; a pair mirrored in z with free orientations; a
// fixed source.
const char *const MIXED_SOURCES =
    "6\n"
    "1 0.30 0.10 0.20\n"
    "2 0.40 -0.20 0.10\n"
    "3 -0.30 -0.20 0.10\n"
    "4 0.10 0.20 0.35\n"
    "5 0.10 0.20 -0.25\n"
    "6 -0.20 0.30 -0.30\n"
    "1 position stationary orientation stationary\n"
    "2 position stationary orientation stationary\n"
    "3 symmetric to 2\n"
    "4 position stationary\n"
    "5 symmetric to 4\n"
    "6 position fixed\n";

// Parameters near, but not at, the table's start values.
std::vector<float> mixed_parameters() {
  std::vector<float> p(nnpar + 1, 0.0f);
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> jitter(-0.05f, 0.05f);
  for (int s = 0; s < nsource; s++) {
    const SourceRecord &r = source[s];
    if (r.pos_mode != 0 && !r.pos_symmetric) {
      p[r.pindex] = r.x + jitter(rng);
      p[r.pindex + 1] = r.y + jitter(rng);
      p[r.pindex + 2] = r.z + jitter(rng);
    }
    if (r.ori_stationary && !r.ori_symmetric) {
      p[r.oindex] = 0.9f + 0.3f * s;
      p[r.oindex + 1] = -1.2f + 0.7f * s;
    }
  }
  return p;
}

TEST_F(DipoleModel, ParameterLayoutOfTheMixedTable) {
  load_sources(dir, MIXED_SOURCES);
  // Linear: 1 + 1 + 1 + 3 + 3 + 3; nonlinear: 5 + 5 + 0 + 3 + 0 + 0.
  EXPECT_EQ(nlpar, 12);
  EXPECT_EQ(nnpar, 13);
  EXPECT_EQ(source[2].symaxis, 0);
  EXPECT_EQ(source[4].symaxis, 2);
  EXPECT_EQ(source[2].pindex, source[1].pindex);
  EXPECT_EQ(source[2].oindex, source[1].oindex);
}

// The model columns against trans_dip at positions and directions worked out
// here by hand (mirror images written out, not taken from the program).
TEST_F(DipoleModel, ModelColumnsFollowPositionsDirectionsAndMirrors) {
  load_sources(dir, MIXED_SOURCES);
  std::vector<float> p = mixed_parameters();
  float **M = matrix(1, nel, 1, nlpar), **T = matrix(1, nel, 1, 3);
  d_transeval(nel, nlpar, nnpar, p.data(), M);

  auto expect_column = [&](int col, const float pos[3], const double u[3], const char *what) {
    trans_dip(nel, 3, pos, T);
    float scale = 0;
    for (int i = 1; i <= nel; i++) scale = std::max(scale, fabsf(T[i][1]) + fabsf(T[i][2]) + fabsf(T[i][3]));
    for (int i = 1; i <= nel; i++) {
      double want = u[0] * T[i][1] + u[1] * T[i][2] + u[2] * T[i][3];
      ASSERT_NEAR(M[i][col], want, 1e-5 * scale) << what << " electrode " << i;
    }
  };
  const double ex[3] = {1, 0, 0}, ey[3] = {0, 1, 0}, ez[3] = {0, 0, 1};

  // Source 1: own position and direction.
  const SourceRecord &s1 = source[0];
  float th = p[s1.oindex], al = p[s1.oindex + 1];
  double u1[3] = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  float pos1[3] = {p[s1.pindex], p[s1.pindex + 1], p[s1.pindex + 2]};
  expect_column(s1.lindex, pos1, u1, "source 1");

  // Sources 2 and 3: the partner's position and direction mirrored in the
  // plane x = 0.05 (halfway between 0.4 and -0.3).
  const SourceRecord &s2 = source[1], &s3 = source[2];
  th = p[s2.oindex], al = p[s2.oindex + 1];
  double u2[3] = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  double u3[3] = {-u2[0], u2[1], u2[2]};
  float pos2[3] = {p[s2.pindex], p[s2.pindex + 1], p[s2.pindex + 2]};
  float pos3[3] = {0.1f - pos2[0], pos2[1], pos2[2]};
  expect_column(s2.lindex, pos2, u2, "source 2");
  expect_column(s3.lindex, pos3, u3, "source 3 (mirror of 2)");

  // Sources 4 and 5: free moments, mirrored in z = 0.05.
  const SourceRecord &s4 = source[3], &s5 = source[4];
  float pos4[3] = {p[s4.pindex], p[s4.pindex + 1], p[s4.pindex + 2]};
  float pos5[3] = {pos4[0], pos4[1], 0.1f - pos4[2]};
  expect_column(s4.lindex, pos4, ex, "source 4 x");
  expect_column(s4.lindex + 1, pos4, ey, "source 4 y");
  expect_column(s4.lindex + 2, pos4, ez, "source 4 z");
  expect_column(s5.lindex, pos5, ex, "source 5 x");
  expect_column(s5.lindex + 2, pos5, ez, "source 5 z");

  // Source 6: fixed where the table has it.
  float pos6[3] = {-0.2f, 0.3f, -0.3f};
  expect_column(source[5].lindex + 1, pos6, ey, "source 6 y");

  free_matrix(M, 1, nel, 1, nlpar);
  free_matrix(T, 1, nel, 1, 3);
}

// Every derivative the fitter is given against central differences of the
// model matrix, including the mirrored and the parameter-free columns.
TEST_F(DipoleModel, ModelDerivativesMatchCentralDifferences) {
  load_sources(dir, MIXED_SOURCES);
  std::vector<float> p = mixed_parameters();
  const int m = nel, n = nlpar, q = nnpar;
  float ***D = matrix3d(1, q, 1, m, 1, n);
  // Start from garbage: the callback must clear what it does not set.
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = 99.0f;
  d_dtranseval(m, n, q, p.data(), D);

  float **Mp = matrix(1, m, 1, n), **Mm = matrix(1, m, 1, n);
  for (int k = 1; k <= q; k++) {
    const float h = 1e-3f;
    std::vector<float> plus = p, minus = p;
    plus[k] += h;
    minus[k] -= h;
    d_transeval(m, n, q, plus.data(), Mp);
    d_transeval(m, n, q, minus.data(), Mm);
    float scale = 0;
    for (int j = 1; j <= n; j++) scale = std::max(scale, max_abs(Mp, m, j));
    for (int j = 1; j <= n; j++) {
      float dscale = 0;
      for (int i = 1; i <= m; i++) dscale = std::max(dscale, fabsf(D[k][i][j]));
      for (int i = 1; i <= m; i++) {
        float fd = (Mp[i][j] - Mm[i][j]) / (2 * h);
        if (fd == 0.0f) {
          // A column that does not move with p[k] must get an exact zero.
          ASSERT_EQ(D[k][i][j], 0.0f) << "parameter " << k << " column " << j << " electrode " << i;
          continue;
        }
        ASSERT_NEAR(D[k][i][j], fd, 2e-3f * std::max(dscale, 1e-3f * scale))
            << "parameter " << k << " column " << j << " electrode " << i;
      }
    }
  }
  free_matrix(Mp, 1, m, 1, n);
  free_matrix(Mm, 1, m, 1, n);
  free_3dmatrix(D, 1, q, 1, m, 1, n);
}

// A stationary dipole with a stationary orientation, fitted from a start
// whose direction points against the true one and whose strengths are
// negative: the fit reverses the direction so the strengths sum positive.
TEST_F(DipoleModel, StationaryFitReversesADirectionWithNegativeStrengths) {
  const float truth[3] = {0.25f, -0.15f, 0.35f};
  const double th = 1.1, al = 0.6;
  const double u[3] = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  const float amp[2] = {-2.0f, -1.0f};

  // Data from the model itself, before anything is scaled.
  ntim = 2;
  float **T = matrix(1, nel, 1, 3);
  trans_dip(nel, 3, truth, T);
  float **data = matrix(1, nel, 1, ntim);
  for (int e = 1; e <= nel; e++)
    for (int t = 1; t <= ntim; t++) data[e][t] = amp[t - 1] * (float)(u[0] * T[e][1] + u[1] * T[e][2] + u[2] * T[e][3]);

  // Start about 0.1 away with the true direction: the data then ask for
  // negative strengths along it.
  char text[256];
  snprintf(text, sizeof text, "1\n1 %.4f %.4f %.4f\n1 position stationary orientation stationary\n", truth[0] + 0.06,
           truth[1] - 0.06, truth[2] + 0.05);
  load_sources(dir, text);
  source[0].theta = (float)th;
  source[0].alfa = (float)al;

  // Independent scale: inverse rms distance from the start position to the
  // first corners of triangles 1..nel (the electrode records' indices).
  double sum = 0;
  for (int e = 1; e <= nel; e++) {
    const float *c = geo[0].pnt[geo[0].dhk[e][0]];
    double dx = source[0].x - c[0], dy = source[0].y - c[1], dz = source[0].z - c[2];
    sum += dx * dx + dy * dy + dz * dz;
  }
  const double scale = sqrt(nel / sum);
  std::vector<float> original(3 * totpnt);
  memcpy(original.data(), geo[0].pnt, sizeof(float) * 3 * totpnt);

  testing::internal::CaptureStdout();
  locate_sources();
  bound_func = bound_compart;
  float **d_out = matrix(1, 3, 1, ntim), **sdd_out = matrix(1, 3, 1, ntim), **phi_out = matrix(1, nel, 1, ntim);
  float (*sd_pos)[5] = static_cast<float(*)[5]>(calloc(1, sizeof(float[5])));
  float rms = -1;
  float rd = d_alin_inverse(nullptr, data, d_out, nlpar, nel, ntim, phi_out, &rms, sdd_out, sd_pos);
  std::string out = testing::internal::GetCapturedStdout();

  EXPECT_LT(rd, 2e-3f);
  EXPECT_GE(rms, 0.0f);
  // Position back in the original units.
  EXPECT_NEAR(source[0].x, truth[0], 0.005);
  EXPECT_NEAR(source[0].y, truth[1], 0.005);
  EXPECT_NEAR(source[0].z, truth[2], 0.005);
  // Direction reversed: the true one's opposite, strengths now positive.
  double v[3] = {sin(source[0].theta) * cos(source[0].alfa), sin(source[0].theta) * sin(source[0].alfa),
                 cos(source[0].theta)};
  EXPECT_NEAR(v[0], -u[0], 0.01);
  EXPECT_NEAR(v[1], -u[1], 0.01);
  EXPECT_NEAR(v[2], -u[2], 0.01);
  EXPECT_GE(source[0].theta, 0.0f);
  EXPECT_LE(source[0].theta, (float)M_PI);
  EXPECT_NEAR(d_out[1][1], 2.0, 0.02);
  EXPECT_NEAR(d_out[1][2], 1.0, 0.01);
  // Fitted potentials reproduce the data.
  for (int e = 1; e <= nel; e++)
    for (int t = 1; t <= ntim; t++) ASSERT_NEAR(phi_out[e][t], data[e][t], 5e-3 * max_abs(data, nel, t));
  // Standard deviations exist for everything fitted.
  for (int k = 0; k < 5; k++) EXPECT_TRUE(std::isfinite(sd_pos[0][k]) && sd_pos[0][k] >= 0) << k;
  EXPECT_TRUE(std::isfinite(sdd_out[1][1]));

  // The interfaces stay scaled; the sources do not.
  for (int v = 0; v < totpnt; v++)
    for (int k = 0; k < 3; k++) ASSERT_NEAR(geo[0].pnt[v][k], original[3 * v + k] * scale, 1e-5 * scale);

  // One source: no plural; two samples: the strength table.
  char line[160];
  snprintf(line, sizeof line, " %f %f\n", d_out[1][1], d_out[1][2]);
  EXPECT_NE(out.find(line), std::string::npos) << out;
  snprintf(line, sizeof line, "final position:  (%8.4f, %8.4f, %8.4f)\n", source[0].x, source[0].y, source[0].z);
  EXPECT_NE(out.find(line), std::string::npos) << out;
  snprintf(line, sizeof line, "final direction: (%8.4f, %8.4f)\n", source[0].theta * 180.0f / 3.14159265f,
           source[0].alfa * 180.0f / 3.14159265f);
  EXPECT_NE(out.find(line), std::string::npos) << out;
  EXPECT_TRUE(std::regex_search(out, std::regex("Condition in decouple: [0-9.]+\n"))) << out;

  free(sd_pos);
  free_matrix(d_out, 1, 3, 1, ntim);
  free_matrix(sdd_out, 1, 3, 1, ntim);
  free_matrix(phi_out, 1, nel, 1, ntim);
  free_matrix(data, 1, nel, 1, ntim);
  free_matrix(T, 1, nel, 1, 3);
}

// What one fit gives, in the units of its geometry.
struct FitResult {
  std::vector<float> pos, strengths, sd_strengths, sd_pos;
  float rms, rd;
};

// Fit noisy data of one dipole in a sphere of the given radius: stationary
// (position and orientation, two samples) or moving (three samples).
FitResult fit_in_units(double radius, bool moving) {
  make_sphere_model(radius);
  const float r = (float)radius;
  const float truth[3] = {0.25f * r, -0.15f * r, 0.35f * r};
  const double th = 1.1, al = 0.6;
  const double u[3] = {sin(th) * cos(al), sin(th) * sin(al), cos(th)};
  ntim = moving ? 3 : 2;
  float **T = matrix(1, nel, 1, 3);
  trans_dip(nel, 3, truth, T);
  // Noise of the same pattern, in proportion to the potentials.
  std::mt19937 rng(5);
  std::normal_distribution<float> gauss(0, 1);
  float peak = 0;
  for (int e = 1; e <= nel; e++) peak = std::max(peak, fabsf(T[e][1]));
  float **data = matrix(1, nel, 1, ntim);
  for (int e = 1; e <= nel; e++)
    for (int t = 1; t <= ntim; t++)
      data[e][t] = (float)(t * (u[0] * T[e][1] + u[1] * T[e][2] + u[2] * T[e][3])) + 0.02f * peak * gauss(rng);

  TempDir dir;
  char text[256];
  snprintf(text, sizeof text, "1\n1 %.6f %.6f %.6f\n1 %s\n", truth[0] + 0.06 * r, truth[1] - 0.06 * r,
           truth[2] + 0.05 * r, moving ? "position moving" : "position stationary orientation stationary");
  load_sources(dir, text);
  source[0].theta = (float)th;
  source[0].alfa = (float)al;
  testing::internal::CaptureStdout();
  locate_sources();
  bound_func = bound_compart;
  const int rows = moving ? 6 : 3;
  float **d_out = matrix(1, rows, 1, ntim), **sdd_out = matrix(1, rows, 1, ntim), **phi_out = matrix(1, nel, 1, ntim);
  float (*sd_pos)[5] = static_cast<float(*)[5]>(calloc(1, sizeof(float[5])));
  FitResult f;
  f.rd = d_alin_inverse(nullptr, data, d_out, nlpar, nel, ntim, phi_out, &f.rms, sdd_out, moving ? nullptr : sd_pos);
  testing::internal::GetCapturedStdout();

  if (moving) {
    for (int t = 1; t <= ntim; t++)
      for (int k = 4; k <= 6; k++) {
        f.pos.push_back(d_out[k][t]);
        f.sd_pos.push_back(sdd_out[k][t]);
      }
    for (int t = 1; t <= ntim; t++)
      for (int j = 1; j <= 3; j++) {
        f.strengths.push_back(d_out[j][t]);
        f.sd_strengths.push_back(sdd_out[j][t]);
      }
  } else {
    f.pos = {source[0].x, source[0].y, source[0].z};
    f.sd_pos = {sd_pos[0][0], sd_pos[0][1], sd_pos[0][2], sd_pos[0][3], sd_pos[0][4]};
    for (int t = 1; t <= ntim; t++) {
      f.strengths.push_back(d_out[1][t]);
      f.sd_strengths.push_back(sdd_out[1][t]);
    }
    f.strengths.push_back(source[0].theta);
    f.strengths.push_back(source[0].alfa);
  }
  free(sd_pos);
  free_matrix(d_out, 1, rows, 1, ntim);
  free_matrix(sdd_out, 1, rows, 1, ntim);
  free_matrix(phi_out, 1, nel, 1, ntim);
  free_matrix(data, 1, nel, 1, ntim);
  free_matrix(T, 1, nel, 1, 3);
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = nullptr;
  return f;
}

// The same problem in units twice as large: positions and their standard
// deviations double, potentials and the rms residual drop to a quarter, and
// strengths, angles and their standard deviations stay as they are.  This
// holds only when every quantity is scaled back with the right power.
TEST(DipoleFitUnits, ResultsScaleWithTheUnitsOfTheGeometry) {
  for (bool moving : {false, true}) {
    SCOPED_TRACE(moving ? "moving" : "stationary");
    FitResult a = fit_in_units(1.0, moving), b2 = fit_in_units(2.0, moving);
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
      double factor = (moving || i < 3) ? 2 : 1;  // positions, then (stationary) angles
      EXPECT_NEAR(b2.sd_pos[i], factor * a.sd_pos[i], 1e-3 * a.sd_pos[i]) << i;
    }
  }
}

}  // namespace
