// Accuracy of the boundary-element solution against analytic potentials of
// concentric spheres: the system matrix is assembled and factorised in
// process, the source terms of dipoles on the z axis are solved through it
// and read at every vertex of the outer sphere.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "forwinv/bmatrix.h"
#include "forwinv/dipole.h"
#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "tests/support/analytic.h"
#include "tests/support/files.h"
#include "tools/icosphere.h"

namespace {

const double ECC[] = {0.1, 0.3, 0.5, 0.7, 0.8};

struct Shell {
  double radius, sigma;
  bool isolated;
};

// Fill the model tables with concentric spheres (outermost first) whose
// vertices of the first are the electrodes.
void make_model(const std::vector<Shell> &shells, int level) {
  ngeo = 0;
  totpnt = totdhk = 0;
  iso_sur = -1;
  for (const Shell &s : shells) {
    TriMesh m = icosphere(level, s.radius);
    Interface &g = geo[ngeo];
    snprintf(g.name, sizeof g.name, "sphere%.2f", s.radius);
    g.npnt = (int)m.pnt.size();
    g.ndhk = (int)m.dhk.size();
    g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
    g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
    memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
    for (int t = 0; t < g.ndhk; t++)
      for (int k = 0; k < 3; k++) g.dhk[t][k] = m.dhk[t][k];
    g.sigma_in = (float)s.sigma;
    if (s.isolated) iso_sur = ngeo;
    totpnt += g.npnt;
    totdhk += g.ndhk;
    ngeo++;
  }
  nel = geo[0].npnt;
  el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
  for (int e = 1; e <= nel; e++) el[e].index = e;
  elec_vertex = 1;
  surfelec = 1;
  elname[0] = '\0';
}

// Transfer matrix of dipoles on the z axis at the eccentricities of radius
// `inner`, through the factorised system matrix.
float **solve_z_axis_dipoles(double inner) {
  b = matrix(1, totpnt, 1, totpnt);
  b_matrix();
  float cond;
  ludec(b, totpnt, &cond);
  if (iso_sur != -1) ludec(iso_b, iso_totpnt, &cond);
  float **x = matrix(1, 15, 1, totpnt);
  for (int k = 0; k < 5; k++) {
    float p[3] = {0, 0, (float)(ECC[k] * inner)};
    sphi_dipole(p, x + 3 * k);
  }
  float **t = matrix(1, nel, 1, 15);
  sphi2trans(b, nullptr, x, 15, t, 0);
  return t;
}

struct Figures {
  double rdm, mag;
};

Figures compare(float **t, int col, const std::vector<double> &radii, const std::vector<double> &sigma, double z,
                const Vec3 &p) {
  std::vector<double> u, v;
  for (int e = 1; e <= nel; e++) {
    const float *q = geo[0].pnt[e - 1];
    u.push_back(t[e][col]);
    v.push_back(sphere_potential(radii, sigma, {0, 0, z}, p, {q[0], q[1], q[2]}));
  }
  return {rdm(u, v), mag(u, v)};
}

// Capture the progress lines so that the test output stays readable.
class Accuracy : public testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override { testing::internal::GetCapturedStdout(); }
};

TEST_F(Accuracy, HomogeneousSphere642) {
  make_model({{1.0, 1.0, false}}, 3);
  float **t = solve_z_axis_dipoles(1.0);
  const double rdm_ref[] = {0.00029, 0.00041, 0.00062, 0.0012, 0.0017};
  const double mag_ref[] = {1.0015, 1.0015, 1.0018, 1.0025, 1.0030};
  for (int k = 0; k < 5; k++) {
    Figures radial = compare(t, 3 * k + 3, {1.0}, {1.0}, ECC[k], {0, 0, 1});
    EXPECT_LT(radial.rdm, 1.25 * rdm_ref[k]) << "eccentricity " << ECC[k];
    EXPECT_NEAR(radial.mag - 1, mag_ref[k] - 1, 0.25 * (mag_ref[k] - 1) + 2e-4) << "eccentricity " << ECC[k];
    Figures tangential = compare(t, 3 * k + 1, {1.0}, {1.0}, ECC[k], {1, 0, 0});
    EXPECT_LT(tangential.rdm, 3 * rdm_ref[k] + 0.001) << "eccentricity " << ECC[k];
    EXPECT_NEAR(tangential.mag, 1, 0.01) << "eccentricity " << ECC[k];
  }
}

TEST_F(Accuracy, ThreeShellsWithoutIsolatedSource642) {
  make_model({{1.0, 1.0, false}, {0.92, 0.0125, false}, {0.88, 1.0, false}}, 3);
  float **t = solve_z_axis_dipoles(0.88);
  const double rdm_ref[] = {0.0125, 0.041, 0.084, 0.170, 0.259};
  const double mag_ref[] = {1.058, 1.067, 1.090, 1.134, 1.173};
  for (int k = 0; k < 5; k++) {
    Figures f = compare(t, 3 * k + 3, {0.88, 0.92, 1.0}, {1, 0.0125, 1}, ECC[k] * 0.88, {0, 0, 1});
    EXPECT_NEAR(f.rdm, rdm_ref[k], 0.25 * rdm_ref[k]) << "eccentricity " << ECC[k];
    EXPECT_NEAR(f.mag - 1, mag_ref[k] - 1, 0.25 * (mag_ref[k] - 1)) << "eccentricity " << ECC[k];
  }
}

TEST_F(Accuracy, ThreeShellsWithIsolatedSource642) {
  // The isolated-source step leaves its scratch file in the working folder.
  TempDir dir;
  auto here = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  make_model({{1.0, 1.0, false}, {0.92, 0.0125, false}, {0.88, 1.0, true}}, 3);
  float **t = solve_z_axis_dipoles(0.88);
  const double rdm_ref[] = {0.0051, 0.016, 0.027, 0.041, 0.050};
  const double mag_ref[] = {0.919, 0.917, 0.911, 0.902, 0.896};
  for (int k = 0; k < 5; k++) {
    Figures f = compare(t, 3 * k + 3, {0.88, 0.92, 1.0}, {1, 0.0125, 1}, ECC[k] * 0.88, {0, 0, 1});
    EXPECT_NEAR(f.rdm, rdm_ref[k], 0.25 * rdm_ref[k]) << "eccentricity " << ECC[k];
    EXPECT_NEAR(1 - f.mag, 1 - mag_ref[k], 0.25 * (1 - mag_ref[k])) << "eccentricity " << ECC[k];
  }
  EXPECT_TRUE(file_exists(dir.file("w0.tmp")));
  std::filesystem::current_path(here);
}

}  // namespace
