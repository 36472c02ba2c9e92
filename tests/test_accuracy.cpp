// Accuracy of the boundary-element solution against analytic potentials of
// concentric spheres: the system matrix is assembled and factorised in
// process, the source terms of dipoles on the z axis solved through it and
// read at every vertex of the outer sphere.  The reference figures (RDM, MAG)
// come from an independent double-precision evaluation of the same method on
// the same kind of meshes; 25 % is left for how the icosahedron is placed.
// First the solid angle of a triangle and its linear vertex weights, which
// the assembly and the double-precision reference here are built on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>

#include "forwinv/bmatrix.h"
#include "geometry/solangle.h"
#include "forwinv/dipole.h"
#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "tests/support/analytic.h"
#include "tests/support/dense_reference.h"
#include "tests/support/files.h"
#include "tests/support/g3_mat.h"
#include "tests/support/h1_model.h"
#include "tools/icosphere.h"

namespace {

using P = std::array<double, 3>;
struct Weights {
  int ok;
  double w[3];
  double sum() const { return w[0] + w[1] + w[2]; }
};

// The weights, or without a threshold the angle in w[0].
Weights at(const P &a, const P &b, const P &c, const P &x, double minangle = NAN, int *onplane = nullptr) {
  double y[3][3];
  for (int k = 0; k < 3; k++) y[0][k] = a[k] - x[k], y[1][k] = b[k] - x[k], y[2][k] = c[k] - x[k];
  Weights r{0, {-99.0, -99.0, -99.0}};
  int on;
  if (std::isnan(minangle)) return r.w[0] = rhoek(y[0], y[1], y[2], onplane ? onplane : &on), r;
  r.ok = solangle(y[0], y[1], y[2], &r.w[0], &r.w[1], &r.w[2], minangle);
  return r;
}

}  // namespace

// The worked triangle (T = -1, D = 3 + 2 sqrt 2), by hand.
TEST(SolidAngle, WorkedValue) {
  const P a = {0, 0, 1}, b = {0, 1, 1}, c = {1, 0, 1}, o = {0, 0, 0};
  int onplane = -1;
  const double omega = at(a, b, c, o, NAN, &onplane).w[0];
  EXPECT_EQ(onplane, 0);
  EXPECT_NEAR(omega, 2.0 * std::atan(1.0 / (3.0 + 2.0 * std::sqrt(2.0))), 1e-15);
  for (double minangle : {0.0, 0.1}) {  // near triangles take the full formula whatever the threshold
    const Weights r = at(a, b, c, o, minangle);
    ASSERT_EQ(r.ok, 1);
    for (int i = 0; i < 3; i++) EXPECT_NEAR(r.w[i], i ? 0.104537 : 0.130762, 5e-7) << i;
    EXPECT_NEAR(r.sum(), omega, 1e-14);
  }
}

// A closed surface totals 4 pi from inside (also close to it) and 0 outside.
TEST(SolidAngle, ClosedSurfaceTotalsFourPiInsideAndZeroOutside) {
  const TriMesh mesh = icosphere(2, 1.5, 0.2, -0.1, 0.3);
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n = 0; n < 12; n++) {
    P d = {u(rng), u(rng), u(rng)};
    const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    // Inside up to radius 1.2 (the facets are at least 1.5 cos 10 deg away), outside from 1.6.
    const double r = n < 6 ? 1.2 * (n + 1) / 6.0 : 1.6 + 3.0 * (n - 6), wsum0 = n < 6 ? 4 * M_PI : 0.0;
    const P x = {0.2 + r * d[0] / len, -0.1 + r * d[1] / len, 0.3 + r * d[2] / len};
    double wsum = 0;
    for (const auto &t : mesh.dhk) {
      P p[3];
      for (int k = 0; k < 3; k++) p[k] = {mesh.pnt[t[k]][0], mesh.pnt[t[k]][1], mesh.pnt[t[k]][2]};
      wsum += at(p[0], p[1], p[2], x, 0.1).sum();
    }
    EXPECT_NEAR(wsum, wsum0, 1e-10) << "point " << n;
  }
}

// Strictly below the threshold the angle is split equally, at it not.  Points
// on a triangle (inside, on an edge, at a vertex) are a fault that leaves the
// weights alone; harmless degenerate cases give zero weights.
TEST(SolidAngle, ThresholdAndDegenerateConfigurations) {
  const P far[4] = {{10, 0, 0}, {10, 1, 0}, {10, 0, 1}, {0, 0.2, 0.1}};
  const double omega = at(far[0], far[1], far[2], far[3]).w[0];
  const Weights split = at(far[0], far[1], far[2], far[3], std::nextafter(std::fabs(omega), 1.0));
  const Weights f = at(far[0], far[1], far[2], far[3], std::fabs(omega));
  for (int i = 0; i < 3; i++) EXPECT_EQ(split.w[i], omega / 3.0);
  EXPECT_NE(f.w[1], f.w[2]);
  EXPECT_NEAR(f.sum(), omega, 1e-15);
  const P a = {0, 0, 0}, b = {1, 0, 0}, c = {0, 1, 0}, p = {-1, 0, 0}, q = {3, 0, 0}, s2 = {0.3, 0.7, 0.4};
  const struct {
    P a, b, c, x;
    int ok;
  } cases[] = {
      {a, b, c, {0.25, 0.25, 0}, 0}, {a, b, c, {0.5, 0, 0}, 0}, {a, b, c, c, 0},
      {q, s2, p, {0.5, 0, 0}, 0},  // the in-plane test may miss by rounding; the edge terms must not
      {a, b, c, {2, 2, 0}, 1},                // in the plane, outside
      {a, b, {2, 0, 0}, {0.5, 1, 0.5}, 1},    // collinear vertices
      {a, b, {0.25, 1, 0.5}, {2, 0, 0}, 1},   // on an edge's line beyond its end
  };
  for (const auto &k : cases)
    for (double minangle : {0.0, -1.0}) {
      const Weights r = at(k.a, k.b, k.c, k.x, minangle);
      EXPECT_EQ(r.ok, k.ok) << k.x[0] << " " << k.x[1] << " " << k.x[2];
      for (int i = 0; i < 3; i++) EXPECT_EQ(r.w[i], k.ok ? 0.0 : -99.0);
    }
}

// The references themselves: the series against the closed form of one
// sphere, equal shells as one sphere, and the two figures on known vectors.
TEST(AnalyticSphere, SeriesMatchesClosedFormAndFiguresAreRight) {
  for (const Vec3 &r0 : {Vec3{0, 0, 0.2}, Vec3{0.3, -0.5, 0.6}, Vec3{0.9, 0.1, -0.2}})
    for (const Vec3 &p : {Vec3{0, 0, 1}, Vec3{0.3, -0.7, 0.2}})
      for (double theta : {0.1, 2.0, 3.1}) {
        const Vec3 r = {1.3 * sin(theta) * cos(3 * theta), 1.3 * sin(theta) * sin(3 * theta), 1.3 * cos(theta)};
        const double closed = homogeneous_sphere_potential(1.3, 0.7, r0, p, r);
        EXPECT_NEAR(sphere_potential({1.3}, {0.7}, r0, p, r, 800), closed, 1e-9 * (1 + fabs(closed)));
      }
  const Vec3 r0 = {0.1, 0.2, 0.4}, p = {0.5, -1, 0.25}, r = {0.6, 0, 0.8};
  EXPECT_NEAR(sphere_potential({0.7, 0.9, 1.0}, {2, 2, 2}, r0, p, r), homogeneous_sphere_potential(1, 2, r0, p, r),
              1e-10);
  const std::vector<double> u = {1, 2, 3, 4};
  EXPECT_NEAR(rdm(u, {12, 14, 16, 18}) + std::fabs(mag(u, {2, 4, 6, 8}) - 0.5), 0, 1e-15);  // scale and offset do not count
  EXPECT_NEAR(rdm(u, {4, 3, 2, 1}), 2, 1e-15);
}

namespace {

const double ECC[] = {0.1, 0.5, 0.8};
struct Figures {
  double rdm, mag;
};
std::vector<Electrode> electrodes;
std::vector<int> first;  // zero-based first row of each interface, and the end

// Concentric spheres (outermost first; iso the isolated-source one or -1) as
// the model, all vertices of the first as electrodes, b allocated.
void load_shells(const std::vector<double> &radii, const std::vector<double> &sigma, int level, int iso) {
  std::vector<h1::Surface> s;
  for (size_t i = 0; i < radii.size(); i++)
    s.push_back({"s" + std::to_string(i), icosphere(level, radii[i]), (float)sigma[i]});
  h1::load_model(s);
  first.assign(1, 0);
  for (int i = 0; i < ngeo; i++) first.push_back(first[i] + geo[i].npnt);
  iso_sur = iso;
  nel = geo[0].npnt;
  electrodes.assign(nel + 1, {});
  for (int e = 1; e <= nel; e++) electrodes[e].index = e;
  el = electrodes.data();
  elec_vertex = surfelec = 1;
  elname[0] = '\0';
  b = matrix(1, totpnt, 1, totpnt);
}

void unload() {
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = nullptr, el = nullptr;
}

// On level-3 spheres, for each eccentricity k of the innermost radius, the
// figures of the x [0] and z [1] dipoles there.
std::vector<std::array<Figures, 2>> solve(const std::vector<double> &radii, const std::vector<double> &sigma,
                                          int iso) {
  load_shells(radii, sigma, 3, iso);
  g3::Mat x(9, totpnt), t(nel, 9);
  const double inner = radii.back();
  h1::stdout_of([&] {  // progress lines
    b_matrix();
    float cond;
    ludec(b, totpnt, &cond);
    if (iso != -1) ludec(iso_b, iso_totpnt, &cond);
    for (int k = 0; k < 3; k++) sphi_dipole(std::array<float, 3>{0, 0, (float)(ECC[k] * inner)}.data(), x.a + 3 * k);
    sphi2trans(b, nullptr, x, 9, t, 0);
  });
  unload();
  std::vector<double> radii_up(radii.rbegin(), radii.rend()), sigma_up(sigma.rbegin(), sigma.rend());
  std::vector<std::array<Figures, 2>> out(3);
  for (int k = 0; k < 3; k++)
    for (int z : {0, 1}) {
      std::vector<double> u, v;
      for (int e = 1; e <= nel; e++) {
        const float *q = geo[0].pnt[e - 1];
        u.push_back(t[e][3 * k + 1 + 2 * z]);
        v.push_back(sphere_potential(radii_up, sigma_up, {0, 0, ECC[k] * inner}, {1.0 - z, 0, 1.0 * z}, {q[0], q[1], q[2]}));
      }
      out[k][z] = {rdm(u, v), mag(u, v)};
    }
  return out;
}

// The geometric weights of the same method, built here in double precision
// from the loaded model (nested shells, no coincident vertices): solid-angle
// weights summed in double, the own-vertex cone with the ring correction.
// *size: on output the sums of the absolute values of what went into each
// entry, the scale of its rounding errors.
ref::Mat double_geometric_matrix(ref::Mat *size) {
  ref::Mat a = ref::zeros(totpnt, totpnt);
  *size = a;
  for (int i = 0; i < ngeo; i++)
    for (int k = 0; k < geo[i].npnt; k++) {
      const int r = first[i] + k;
      const double x[3] = {geo[i].pnt[k][0], geo[i].pnt[k][1], geo[i].pnt[k][2]};
      for (int j = 0; j < ngeo; j++) {
        const Interface &g = geo[j];
        std::vector<int> ring;
        double centre[3] = {0, 0, 0};
        int around = 0;
        for (int t = 0; t < g.ndhk; t++) {
          const int32_t *tri = g.dhk[t];
          const int at = i != j ? -1 : tri[0] == k ? 0 : tri[1] == k ? 1 : tri[2] == k ? 2 : -1;
          if (at >= 0) {
            around++;
            for (int s : {1, 2}) {
              const int v = tri[(at + s) % 3];
              for (int c = 0; c < 3; c++) centre[c] += g.pnt[v][c];
              if (std::find(ring.begin(), ring.end(), v) == ring.end()) ring.push_back(v);
            }
            continue;
          }
          double y[3][3], w[3];
          for (int m = 0; m < 3; m++)
            for (int c = 0; c < 3; c++) y[m][c] = (double)g.pnt[tri[m]][c] - x[c];
          EXPECT_EQ(solangle(y[0], y[1], y[2], &w[0], &w[1], &w[2], 0.1), 1);
          for (int m = 0; m < 3; m++) {
            a[r][first[j] + tri[m]] += w[m] / (2 * M_PI);
            (*size)[r][first[j] + tri[m]] += std::fabs(w[m]) / (2 * M_PI);
          }
        }
        if (i != j) continue;
        double mid[3], spread = 0, h2 = 0;
        for (int c = 0; c < 3; c++) mid[c] = centre[c] / (2.0 * around);
        for (int v : ring)
          for (int c = 0; c < 3; c++) spread += (g.pnt[v][c] - mid[c]) * (g.pnt[v][c] - mid[c]);
        for (int c = 0; c < 3; c++) h2 += (x[c] - mid[c]) * (x[c] - mid[c]);
        const double rad = std::sqrt(spread / around), q = rad / std::sqrt(rad * rad + h2);
        const double theta = 2 * std::acos(q);
        a[r][r] = (*size)[r][r] = theta <= 1e-4 ? theta / 4 : 2 * (1 - q) / theta;
        double sum = 0;
        for (int c = first[j]; c < first[j + 1]; c++) sum += a[r][c];
        for (int v : ring) {
          a[r][first[j] + v] += (1 - sum) / around;
          (*size)[r][first[j] + v] += std::fabs(1 - sum) / around;
        }
      }
    }
  return a;
}

// a: the geometric weights; on output the system matrix I - C, by the
// conductivity and deflation transform with the tables b_matrix left
// (sigma_out, deflat).
void double_transform(ref::Mat &a) {
  for (int i = 0; i < ngeo; i++)
    for (int j = 0; j < ngeo; j++) {
      const double sin_j = geo[j].sigma_in, sout_j = geo[j].sigma_out;
      const double scale = (sin_j - sout_j) / ((double)geo[i].sigma_in + geo[i].sigma_out);
      const double deflation = deflat[i][j] * (sin_j - sout_j) / (sin_j + sout_j) / geo[j].npnt;
      for (int r = first[i]; r < first[i + 1]; r++)
        for (int c = first[j]; c < first[j + 1]; c++) a[r][c] = (r == c) - (a[r][c] * scale - deflation);
    }
}

}  // namespace

// Radial dipoles in one sphere, and in three shells whose poorly conducting
// skull costs accuracy that grows with eccentricity; the isolated-source
// approach makes those errors far smaller (magnitude just below one) and
// leaves its scratch file in the working folder.  Tangential dipoles in the
// sphere, more loosely.
TEST(Accuracy, OneSphereAndThreeShellsWithAndWithoutIsolatedSource642) {
  TempDir dir;
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const std::vector<double> radii = {1.0, 0.92, 0.88}, sigma = {1, 0.0125, 1};
  const auto f_one = solve({1.0}, {1.0}, -1), f_plain = solve(radii, sigma, -1), f_iso = solve(radii, sigma, 2);
  const double one_rdm[] = {0.00029, 0.00062, 0.0017}, one_mag[] = {1.0015, 1.0018, 1.0030};
  const double plain_rdm[] = {0.0125, 0.084, 0.259}, plain_mag[] = {1.058, 1.090, 1.173};
  const double iso_rdm[] = {0.0051, 0.027, 0.050}, iso_mag[] = {0.919, 0.911, 0.896};
  for (int k = 0; k < 3; k++) {
    SCOPED_TRACE(ECC[k]);
    const Figures tangential = f_one[k][0], one = f_one[k][1], plain = f_plain[k][1], iso = f_iso[k][1];
    EXPECT_LT(one.rdm, 1.25 * one_rdm[k]);
    EXPECT_NEAR(one.mag - 1, one_mag[k] - 1, 0.25 * (one_mag[k] - 1) + 2e-4);
    EXPECT_LT(tangential.rdm, 3 * one_rdm[k] + 0.001);
    EXPECT_NEAR(tangential.mag, 1, 0.01);
    EXPECT_NEAR(plain.rdm, plain_rdm[k], 0.25 * plain_rdm[k]);
    EXPECT_NEAR(plain.mag - 1, plain_mag[k] - 1, 0.25 * (plain_mag[k] - 1));
    EXPECT_NEAR(iso.rdm, iso_rdm[k], 0.25 * iso_rdm[k]);
    EXPECT_NEAR(1 - iso.mag, 1 - iso_mag[k], 0.25 * (1 - iso_mag[k]));
  }
  EXPECT_TRUE(file_exists(dir.file("w0.tmp")));
  std::filesystem::current_path(here);
}

// The single-precision assembly and solution against the same method in
// double precision on three shells with a poorly conducting skull: the
// system matrix entry by entry, and the transfer matrix of dipoles at three
// eccentricities (double solve, the same electrode and reference steps).
TEST(Accuracy, ThreeShellsAgreeWithDoublePrecision) {
  load_shells({1.0, 0.92, 0.88}, {1.0, 0.0125, 1.0}, 2, -1);
  // Largest difference from b, in units of `scale` (null: absolute).
  auto worst = [](const ref::Mat &a, const ref::Mat *scale) {
    double w = 0;
    for (int r = 0; r < totpnt; r++)
      for (int c = 0; c < totpnt; c++)
        w = std::max(w, std::fabs(b[r + 1][c + 1] - a[r][c]) / (scale ? (*scale)[r][c] + 1e-12 : 1.0));
    return w;
  };
  // The geometric weights, each within a few float roundings of what went
  // into it.
  h1::stdout_of([] {
    for (int i = 0; i < ngeo; i++) b_submatrix(i, i);
    for (int i = 0; i < ngeo; i++)
      for (int j = 0; j < ngeo; j++)
        if (i != j) b_submatrix(i, j);
  });
  ref::Mat size;
  ref::Mat a = double_geometric_matrix(&size);
  EXPECT_LT(worst(a, &size), 1e-6);
  // The system matrix: float roundings of entries up to 1.
  h1::stdout_of(b_matrix);
  double_transform(a);
  EXPECT_LT(worst(a, nullptr), 2e-7);

  g3::Mat x(9, totpnt), xd(9, totpnt), t(nel, 9), td(nel, 9);
  for (int k = 0; k < 3; k++) sphi_dipole(std::array<float, 3>{0, 0, (float)(ECC[k] * 0.88)}.data(), x.a + 3 * k);
  for (int r = 1; r <= 9; r++) std::copy(&x[r][1], &x[r][1] + totpnt, &xd[r][1]);
  h1::stdout_of([&] {
    float cond;
    ludec(b, totpnt, &cond);
    sphi2trans(b, nullptr, x, 9, t, 0);
  });
  sphi_transform(geo, ngeo, xd, 9);
  for (int r = 1; r <= 9; r++) {
    const ref::Vec sol = ref::solve(a, ref::Vec(&xd[r][1], &xd[r][1] + totpnt));
    for (int c = 0; c < totpnt; c++) xd[r][c + 1] = (float)sol[c];
  }
  make_trans(xd, 9, td);
  for (int col = 1; col <= 9; col++) {
    double diff = 0, norm = 0;
    for (int e = 1; e <= nel; e++) diff += std::pow(t[e][col] - td[e][col], 2), norm += std::pow(td[e][col], 2);
    EXPECT_LT(std::sqrt(diff / norm), 1e-4) << "column " << col;
  }
  unload();
}
