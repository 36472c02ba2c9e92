// Small dense double-precision routines used as independent references by
// the tests of the single-precision kernels.  Zero-based, row-major, written
// for clarity rather than speed.
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

inline Vec multiply(const Mat &a, const Vec &x) {
  Vec y(a.size(), 0.0);
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < x.size(); j++) y[i] += a[i][j] * x[j];
  return y;
}

// Eigen-decomposition of a symmetric matrix by cyclic Jacobi rotations.
// Returns the eigenvalues in decreasing order; column i of *vecs is the
// eigenvector of value i.
inline Vec symmetric_eigen(Mat s, Mat *vecs) {
  const int n = (int)s.size();
  Mat v = zeros(n, n);
  for (int i = 0; i < n; i++) v[i][i] = 1.0;
  for (int sweep = 0; sweep < 100; sweep++) {
    double off = 0.0, total = 0.0;
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) {
        total += s[i][j] * s[i][j];
        if (i != j) off += s[i][j] * s[i][j];
      }
    if (off <= 1e-30 * total || off == 0.0) break;
    for (int p = 0; p < n; p++)
      for (int q = p + 1; q < n; q++) {
        if (s[p][q] == 0.0) continue;
        double theta = (s[q][q] - s[p][p]) / (2.0 * s[p][q]);
        double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        double c = 1.0 / std::sqrt(t * t + 1.0), sn = t * c;
        for (int k = 0; k < n; k++) {  // columns p, q
          double skp = s[k][p], skq = s[k][q];
          s[k][p] = c * skp - sn * skq;
          s[k][q] = sn * skp + c * skq;
        }
        for (int k = 0; k < n; k++) {  // rows p, q
          double spk = s[p][k], sqk = s[q][k];
          s[p][k] = c * spk - sn * sqk;
          s[q][k] = sn * spk + c * sqk;
        }
        for (int k = 0; k < n; k++) {
          double vkp = v[k][p], vkq = v[k][q];
          v[k][p] = c * vkp - sn * vkq;
          v[k][q] = sn * vkp + c * vkq;
        }
      }
  }
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int x, int y) { return s[x][x] > s[y][y]; });
  Vec vals(n);
  Mat sorted = zeros(n, n);
  for (int i = 0; i < n; i++) {
    vals[i] = s[order[i]][order[i]];
    for (int k = 0; k < n; k++) sorted[k][i] = v[k][order[i]];
  }
  if (vecs) *vecs = sorted;
  return vals;
}

// Singular values of a (any shape), largest first: the square roots of the
// eigenvalues of the smaller Gram matrix.
inline Vec singular_values(const Mat &a) {
  const bool tall = a.size() >= a[0].size();
  Mat gram = tall ? multiply(transpose(a), a) : multiply(a, transpose(a));
  Vec ev = symmetric_eigen(gram, nullptr);
  for (double &e : ev) e = std::sqrt(std::max(e, 0.0));
  return ev;
}

// Solution of a square system by Gaussian elimination with partial pivoting.
inline Vec solve(Mat m, Vec b) {
  const int n = (int)m.size();
  for (int k = 0; k < n; k++) {
    int p = k;
    for (int i = k + 1; i < n; i++)
      if (std::fabs(m[i][k]) > std::fabs(m[p][k])) p = i;
    std::swap(m[k], m[p]);
    std::swap(b[k], b[p]);
    for (int i = k + 1; i < n; i++) {
      double f = m[i][k] / m[k][k];
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

// Minimum-norm least-squares solution pinv(a) b, dropping the directions
// whose eigenvalue of a^T a is below rel_tol times the largest.
inline Vec pseudo_inverse_solve(const Mat &a, const Vec &b, double rel_tol = 1e-10) {
  Mat v;
  Vec ev = symmetric_eigen(multiply(transpose(a), a), &v);
  Vec atb = multiply(transpose(a), b);
  const int n = (int)ev.size();
  Vec x(n, 0.0);
  for (int i = 0; i < n; i++) {
    if (ev[i] <= rel_tol * ev[0]) continue;
    double proj = 0.0;
    for (int k = 0; k < n; k++) proj += v[k][i] * atb[k];
    for (int k = 0; k < n; k++) x[k] += v[k][i] * proj / ev[i];
  }
  return x;
}

}  // namespace ref
