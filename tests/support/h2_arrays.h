// One-based float arrays owned by a test, converted to and from the
// double-precision matrices of dense_reference.h, and random test matrices.
#pragma once

#include <functional>
#include <random>
#include <vector>

#include "numeric/nrutils.h"
#include "tests/support/dense_reference.h"

namespace h2 {

// Allocates one-based arrays and frees them all when it goes out of scope.
class Arena {
 public:
  Arena() = default;
  Arena(const Arena &) = delete;
  Arena &operator=(const Arena &) = delete;
  ~Arena() {
    for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) (*it)();
  }
  float **mat(int r, int c) {
    float **a = matrix(1, r, 1, c);
    undo_.push_back([=] { free_matrix(a, 1, r, 1, c); });
    return a;
  }
  float **mat(const ref::Mat &src) {
    float **a = mat((int)src.size(), (int)src[0].size());
    for (size_t i = 0; i < src.size(); i++)
      for (size_t j = 0; j < src[0].size(); j++) a[i + 1][j + 1] = (float)src[i][j];
    return a;
  }
  float *vec(int n) {
    float *v = vector(1, n);
    undo_.push_back([=] { free_vector(v, 1, n); });
    return v;
  }
  float ***cube(int k, int r, int c) {
    float ***a = matrix3d(1, k, 1, r, 1, c);
    undo_.push_back([=] { free_3dmatrix(a, 1, k, 1, r, 1, c); });
    return a;
  }

 private:
  std::vector<std::function<void()>> undo_;
};

inline ref::Mat to_ref(float **a, int r, int c) {
  ref::Mat m = ref::zeros(r, c);
  for (int i = 1; i <= r; i++)
    for (int j = 1; j <= c; j++) m[i - 1][j - 1] = a[i][j];
  return m;
}

// Entries uniform in [lo, hi], rounded to float so that a double reference
// sees exactly what the single-precision kernel sees.
inline ref::Mat random_matrix(int m, int n, unsigned seed, double lo = -1.0, double hi = 1.0) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(lo, hi);
  ref::Mat a = ref::zeros(m, n);
  for (auto &row : a)
    for (double &x : row) x = (float)u(gen);
  return a;
}

inline ref::Vec column(const ref::Mat &x, int j) {
  ref::Vec c(x.size());
  for (size_t i = 0; i < x.size(); i++) c[i] = x[i][j];
  return c;
}

// Largest absolute difference relative to the largest reference entry.
inline double relative_error(const ref::Mat &got, const ref::Mat &want) {
  double diff = 0.0, size = 0.0;
  for (size_t i = 0; i < want.size(); i++)
    for (size_t j = 0; j < want[0].size(); j++) {
      diff = std::max(diff, std::fabs(got[i][j] - want[i][j]));
      size = std::max(size, std::fabs(want[i][j]));
    }
  return diff / std::max(size, 1e-30);
}

}  // namespace h2
