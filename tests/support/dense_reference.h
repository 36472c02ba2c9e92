// Small dense double-precision routines, zero-based and row-major, used as
// independent references by the tests of the single-precision kernels.
#pragma once

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace ref {

using Mat = std::vector<std::vector<double>>;
using Vec = std::vector<double>;

inline Mat zeros(int r, int c) { return Mat(r, Vec(c, 0.0)); }

inline Mat transpose(const Mat &a) {
  Mat t = zeros((int)a[0].size(), (int)a.size());
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < a[0].size(); j++) t[j][i] = a[i][j];
  return t;
}

inline Mat multiply(const Mat &a, const Mat &b) {
  Mat c = zeros((int)a.size(), (int)b[0].size());
  for (size_t i = 0; i < a.size(); i++)
    for (size_t k = 0; k < b.size(); k++)
      for (size_t j = 0; j < b[0].size(); j++) c[i][j] += a[i][k] * b[k][j];
  return c;
}

inline Vec multiply(const Mat &a, const Vec &x) { return transpose(multiply(a, transpose(Mat{x})))[0]; }

// Eigenvalues of a symmetric matrix by cyclic Jacobi rotations, largest
// first; column i of *vecs is the eigenvector of value i.
inline Vec symmetric_eigen(Mat s, Mat *vecs) {
  const int n = (int)s.size();
  Mat v = zeros(n, n);
  for (int i = 0; i < n; i++) v[i][i] = 1.0;
  auto rotate = [](double &x, double &y, double c, double sn) {
    const double t = x;
    x = c * t - sn * y, y = sn * t + c * y;
  };
  for (int sweep = 0; sweep < 100; sweep++) {
    double off = 0.0, total = 0.0;
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) total += s[i][j] * s[i][j], off += i != j ? s[i][j] * s[i][j] : 0.0;
    if (off <= 1e-30 * total) break;
    for (int p = 0; p < n; p++)
      for (int q = p + 1; q < n; q++) {
        if (s[p][q] == 0.0) continue;
        const double theta = (s[q][q] - s[p][p]) / (2.0 * s[p][q]);
        const double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0), sn = t * c;
        for (int k = 0; k < n; k++) rotate(s[k][p], s[k][q], c, sn), rotate(v[k][p], v[k][q], c, sn);
        for (int k = 0; k < n; k++) rotate(s[p][k], s[q][k], c, sn);
      }
  }
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int x, int y) { return s[x][x] > s[y][y]; });
  Vec vals(n);
  Mat sorted = zeros(n, n);
  for (int i = 0; i < n; i++)
    for (int k = 0; k < n; k++) vals[i] = s[order[i]][order[i]], sorted[k][i] = v[k][order[i]];
  if (vecs) *vecs = sorted;
  return vals;
}

// Singular values, largest first, from the smaller Gram matrix.
inline Vec singular_values(const Mat &a) {
  const bool tall = a.size() >= a[0].size();
  Vec ev = symmetric_eigen(tall ? multiply(transpose(a), a) : multiply(a, transpose(a)), nullptr);
  for (double &e : ev) e = std::sqrt(std::max(e, 0.0));
  return ev;
}

// A square system by Gaussian elimination with partial pivoting.
inline Vec solve(Mat m, Vec b) {
  const int n = (int)m.size();
  for (int k = 0; k < n; k++) {
    int p = k;
    for (int i = k + 1; i < n; i++) p = std::fabs(m[i][k]) > std::fabs(m[p][k]) ? i : p;
    std::swap(m[k], m[p]), std::swap(b[k], b[p]);
    for (int i = k + 1; i < n; i++) {
      const double f = m[i][k] / m[k][k];
      for (int j = k; j < n; j++) m[i][j] -= f * m[k][j];
      b[i] -= f * b[k];
    }
  }
  Vec x(n);
  for (int i = n - 1; i >= 0; i--) {
    double s = b[i];
    for (int j = i + 1; j < n; j++) s -= m[i][j] * x[j];
    x[i] = s / m[i][i];
  }
  return x;
}

// Minimum-norm least squares pinv(a) b, dropping the directions whose
// eigenvalue of a^T a is below rel_tol times the largest.
inline Vec pseudo_inverse_solve(const Mat &a, const Vec &b, double rel_tol = 1e-10) {
  Mat v;
  const Vec ev = symmetric_eigen(multiply(transpose(a), a), &v), atb = multiply(transpose(a), b);
  Vec x(ev.size(), 0.0);
  for (size_t i = 0; i < ev.size(); i++) {
    if (ev[i] <= rel_tol * ev[0]) continue;
    double proj = 0.0;
    for (size_t k = 0; k < ev.size(); k++) proj += v[k][i] * atb[k] / ev[i];
    for (size_t k = 0; k < ev.size(); k++) x[k] += v[k][i] * proj;
  }
  return x;
}

}  // namespace ref
