// A one-based float matrix owned by a test (numeric/nrutils.h storage), and
// bit-for-bit comparison of float data.
#pragma once

#include <cstring>
#include <vector>

#include "numeric/nrutils.h"

namespace g3 {

struct Mat {
  int rows, cols;
  float **a;
  Mat(int r, int c) : rows(r), cols(c), a(matrix(1, r < 1 ? 1 : r, 1, c < 1 ? 1 : c)) {}
  Mat(const Mat &o) : Mat(o.rows, o.cols) {
    for (int i = 1; i <= rows; i++) memcpy(&a[i][1], &o.a[i][1], cols * sizeof(float));
  }
  Mat &operator=(const Mat &) = delete;
  ~Mat() { free_matrix(a, 1, rows < 1 ? 1 : rows, 1, cols < 1 ? 1 : cols); }
  float *operator[](int i) const { return a[i]; }
  operator float **() const { return a; }
  std::vector<float> flat() const {
    std::vector<float> v;
    for (int i = 1; i <= rows; i++) v.insert(v.end(), &a[i][1], &a[i][1] + cols);
    return v;
  }
};

inline bool same_bits(const std::vector<float> &x, const std::vector<float> &y) {
  return x.size() == y.size() && memcmp(x.data(), y.data(), sizeof(float) * x.size()) == 0;
}

}  // namespace g3
