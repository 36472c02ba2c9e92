// The analytic sphere potentials used as references must themselves be
// right: the series and the closed form are derived independently.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/analytic.h"

TEST(AnalyticSphere, SeriesMatchesClosedFormForOneShell) {
  const std::vector<double> radii = {1.3}, sigma = {0.7};
  const Vec3 sources[] = {{0, 0, 0.2}, {0.3, -0.5, 0.6}, {0.9, 0.1, -0.2}};
  const Vec3 moments[] = {{0, 0, 1}, {1, 0, 0}, {0.3, -0.7, 0.2}};
  for (const Vec3 &r0 : sources)
    for (const Vec3 &p : moments)
      for (double theta : {0.1, 0.9, 2.0, 3.1})
        for (double phi : {0.0, 1.3, 4.0}) {
          Vec3 r = {1.3 * sin(theta) * cos(phi), 1.3 * sin(theta) * sin(phi), 1.3 * cos(theta)};
          double closed = homogeneous_sphere_potential(1.3, 0.7, r0, p, r);
          double series = sphere_potential(radii, sigma, r0, p, r, 800);
          EXPECT_NEAR(series, closed, 1e-9 * (1 + fabs(closed)));
        }
}

TEST(AnalyticSphere, EqualShellsBehaveAsOneSphere) {
  const Vec3 r0 = {0.1, 0.2, 0.4}, p = {0.5, -1, 0.25}, r = {0.6, 0, 0.8};
  double one = homogeneous_sphere_potential(1.0, 2.0, r0, p, r);
  double three = sphere_potential({0.7, 0.9, 1.0}, {2.0, 2.0, 2.0}, r0, p, r);
  EXPECT_NEAR(three, one, 1e-10);
}

TEST(AnalyticSphere, PoorlyConductingSkullAttenuatesAndSmears) {
  // A skull of low conductivity lowers the scalp potential of a radial
  // dipole and flattens it: the peak drops more than the far values.
  const std::vector<double> radii = {0.88, 0.92, 1.0};
  const Vec3 r0 = {0, 0, 0.6}, p = {0, 0, 1};
  double top_hom = sphere_potential(radii, {1, 1, 1}, r0, p, {0, 0, 1});
  double top_skull = sphere_potential(radii, {1, 1.0 / 80, 1}, r0, p, {0, 0, 1});
  double side_hom = sphere_potential(radii, {1, 1, 1}, r0, p, {1, 0, 0});
  double side_skull = sphere_potential(radii, {1, 1.0 / 80, 1}, r0, p, {1, 0, 0});
  EXPECT_GT(top_hom, 0);
  EXPECT_LT(top_skull, top_hom);
  EXPECT_LT(fabs(top_skull / side_skull), fabs(top_hom / side_hom));
}

TEST(AnalyticSphere, RelativeDifferenceMeasures) {
  std::vector<double> u = {1, 2, 3, 4}, v = {2, 4, 6, 8};
  EXPECT_NEAR(rdm(u, v), 0, 1e-15);
  EXPECT_NEAR(mag(u, v), 0.5, 1e-15);
  // Adding a constant changes neither: both are taken about the average.
  EXPECT_NEAR(rdm(u, {11, 12, 13, 14}), 0, 1e-15);
  EXPECT_NEAR(rdm(u, {4, 3, 2, 1}), 2, 1e-15);
}
