// Smooth interpolation between electrodes on a sphere: spherical splines
// (Perrin, Pernier, Bertrand and Echallier, 1989, order 4).  The value at a
// direction d is c0 + sum_i c_i g(d . e_i), where g is a Legendre series that
// makes the surface as smooth as the electrodes allow.
#pragma once

#include <vector>

#include "plotting/dense_solve.h"
#include "surface/mesh.h"

class SphericalSpline {
 public:
  // directions: unit vectors from the sphere's centre to the electrodes.
  // A small regularisation keeps coinciding electrodes from making the
  // system singular; the fit then passes close to, not through, the values.
  explicit SphericalSpline(const std::vector<Vec3> &directions);

  // Weights c_1..c_n and c0 (last) for `values` (one per electrode).
  std::vector<double> fit(const std::vector<double> &values) const;

  // g(d . e_i) for every electrode i, into row[0..n-1]: the interpolated
  // value is then c0 + sum row[i] * c[i], for as many value sets as needed.
  void kernel_row(const Vec3 &d, double *row) const;

  // The interpolated value at direction d for weights c from fit().
  double evaluate(const std::vector<double> &c, const Vec3 &d) const;

 private:
  double g(double cosine) const;
  std::vector<Vec3> dirs_;
  std::vector<double> table_;  // g sampled on [-1, 1]
  DenseLu lu_;
};
