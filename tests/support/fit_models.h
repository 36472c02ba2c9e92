// Synthetic separable models for the tests of the separable least-squares
// fitter: the model matrices, their analytic derivatives and bound tests, as
// the plain callbacks the fitter takes.  Header-only so that both the tests
// and the probe programs can use them.  Values are computed in double and
// stored as float; the double versions serve as references.
#pragma once

#include <array>
#include <cmath>
#include <vector>

namespace fitmodel {

// ---- Sums of exponentials: M[i][j] = exp(-p[j] t_i), one rate per column.
inline std::vector<double> times;

inline void set_times(int m, double dt) {
  times.assign(m, 0.0);
  for (int i = 0; i < m; i++) times[i] = dt * (i + 1);
}

inline double exp_entry(int i, double rate) { return std::exp(-rate * times[i - 1]); }

inline void exp_model(int m, int n, int, float *p, float **M) {
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) M[i][j] = (float)exp_entry(i, p[j]);
}

inline void exp_deriv(int m, int n, int q, float *p, float ***D) {
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = j == k ? (float)(-times[i - 1] * exp_entry(i, p[k])) : 0.0f;
}

// ---- Two identical columns, one rate: M[i][1] = M[i][2] = exp(-p[1] t_i).
inline void twin_model(int m, int, int, float *p, float **M) {
  for (int i = 1; i <= m; i++) M[i][1] = M[i][2] = (float)exp_entry(i, p[1]);
}

inline void twin_deriv(int m, int, int, float *p, float ***D) {
  for (int i = 1; i <= m; i++) D[1][i][1] = D[1][i][2] = (float)(-times[i - 1] * exp_entry(i, p[1]));
}

// ---- One column whose rate is the sum of two parameters: both parameters
// have exactly the same effect.
inline void sum_model(int m, int, int, float *p, float **M) {
  for (int i = 1; i <= m; i++) M[i][1] = (float)exp_entry(i, (double)p[1] + p[2]);
}

inline void sum_deriv(int m, int, int, float *p, float ***D) {
  for (int i = 1; i <= m; i++) D[1][i][1] = D[2][i][1] = (float)(-times[i - 1] * exp_entry(i, (double)p[1] + p[2]));
}

// ---- A model that does not depend on its parameters at all.
inline void constant_model(int m, int n, int, float *, float **M) {
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) M[i][j] = (float)std::cos(0.3 * i + 0.7 * j);
}

inline void zero_deriv(int m, int n, int q, float *, float ***D) {
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = 0.0f;
}

// ---- Current dipoles in an infinite medium, observed on the unit sphere.
// Parameters: the positions of the dipoles, three per dipole; linear
// parameters: the three moment components of each dipole.  The potential of
// a unit dipole along axis c at distance vector d is d_c / |d|^3 (constant
// factors left out).
inline std::vector<std::array<double, 3>> sensors;

// Roughly even points on the unit sphere (a Fibonacci spiral).
inline void set_sensors(int m) {
  sensors.assign(m, {0.0, 0.0, 0.0});
  const double golden = M_PI * (3.0 - std::sqrt(5.0));
  for (int i = 0; i < m; i++) {
    double z = 1.0 - 2.0 * (i + 0.5) / m, r = std::sqrt(1.0 - z * z), phi = golden * i;
    sensors[i] = {r * std::cos(phi), r * std::sin(phi), z};
  }
}

inline double dipole_entry(int i, int c, const double *pos) {
  double d[3], d2 = 0.0;
  for (int a = 0; a < 3; a++) {
    d[a] = sensors[i - 1][a] - pos[a];
    d2 += d[a] * d[a];
  }
  return d[c] / (d2 * std::sqrt(d2));
}

// d(entry)/d(pos[a]) = -delta_ca / |d|^3 + 3 d_c d_a / |d|^5
inline double dipole_entry_deriv(int i, int c, int a, const double *pos) {
  double d[3], d2 = 0.0;
  for (int b = 0; b < 3; b++) {
    d[b] = sensors[i - 1][b] - pos[b];
    d2 += d[b] * d[b];
  }
  const double r3 = d2 * std::sqrt(d2);
  return (c == a ? -1.0 / r3 : 0.0) + 3.0 * d[c] * d[a] / (r3 * d2);
}

inline void dipole_model(int m, int n, int, float *p, float **M) {
  for (int s = 0; s < n / 3; s++) {
    double pos[3] = {p[3 * s + 1], p[3 * s + 2], p[3 * s + 3]};
    for (int i = 1; i <= m; i++)
      for (int c = 0; c < 3; c++) M[i][3 * s + c + 1] = (float)dipole_entry(i, c, pos);
  }
}

inline void dipole_deriv(int m, int n, int q, float *p, float ***D) {
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = 0.0f;
  for (int s = 0; s < n / 3; s++) {
    double pos[3] = {p[3 * s + 1], p[3 * s + 2], p[3 * s + 3]};
    for (int a = 0; a < 3; a++)
      for (int i = 1; i <= m; i++)
        for (int c = 0; c < 3; c++) D[3 * s + a + 1][i][3 * s + c + 1] = (float)dipole_entry_deriv(i, c, a, pos);
  }
}

// Dipoles must stay well inside the sphere of sensors.
inline int inside_sphere(int q, float *p) {
  for (int s = 0; s < q / 3; s++) {
    double r2 = 0.0;
    for (int a = 1; a <= 3; a++) r2 += (double)p[3 * s + a] * p[3 * s + a];
    if (r2 >= 0.8 * 0.8) return 0;
  }
  return 1;
}

// ---- Bound tests.
inline int accept_all(int, float *) { return 1; }
inline int reject_all(int, float *) { return 0; }
inline int positive_rates(int q, float *p) {
  for (int k = 1; k <= q; k++)
    if (!(p[k] > 0.0f)) return 0;
  return 1;
}

}  // namespace fitmodel
