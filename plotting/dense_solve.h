// Small dense linear systems (a few hundred unknowns at most): the spline
// weights of a topography and least-squares sphere fits.
#pragma once

#include <vector>

// LU decomposition with partial pivoting of an n x n matrix.
class DenseLu {
 public:
  // a: the matrix, row by row (n*n values).
  DenseLu(std::vector<double> a, int n);
  // True when a pivot vanished or was not finite: solve() is then useless.
  bool singular() const { return singular_; }
  // The solution x of A x = b (b has n values).
  std::vector<double> solve(std::vector<double> b) const;

 private:
  int n_;
  std::vector<double> lu_;
  std::vector<int> perm_;
  bool singular_ = false;
};
