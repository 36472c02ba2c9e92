#include "plotting/dense_solve.h"

#include <cmath>
#include <utility>

DenseLu::DenseLu(std::vector<double> a, int n) : n_(n), lu_(std::move(a)), perm_(n) {
  for (int i = 0; i < n; i++) perm_[i] = i;
  for (int k = 0; k < n; k++) {
    int p = k;
    for (int i = k + 1; i < n; i++)
      if (std::fabs(lu_[i * n + k]) > std::fabs(lu_[p * n + k])) p = i;
    double pivot = lu_[p * n + k];
    if (!(std::fabs(pivot) > 0) || !std::isfinite(pivot)) {
      singular_ = true;
      return;
    }
    if (p != k) {
      for (int j = 0; j < n; j++) std::swap(lu_[p * n + j], lu_[k * n + j]);
      std::swap(perm_[p], perm_[k]);
    }
    for (int i = k + 1; i < n; i++) {
      double f = lu_[i * n + k] / pivot;
      lu_[i * n + k] = f;
      for (int j = k + 1; j < n; j++) lu_[i * n + j] -= f * lu_[k * n + j];
    }
  }
}

std::vector<double> DenseLu::solve(std::vector<double> b) const {
  std::vector<double> x(n_);
  for (int i = 0; i < n_; i++) x[i] = b[perm_[i]];
  for (int i = 0; i < n_; i++)
    for (int j = 0; j < i; j++) x[i] -= lu_[i * n_ + j] * x[j];
  for (int i = n_ - 1; i >= 0; i--) {
    for (int j = i + 1; j < n_; j++) x[i] -= lu_[i * n_ + j] * x[j];
    x[i] /= lu_[i * n_ + i];
  }
  return x;
}
