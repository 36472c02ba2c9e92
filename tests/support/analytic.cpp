#include "tests/support/analytic.h"

#include <cmath>

namespace {

double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
double length(const Vec3 &a) { return std::sqrt(dot(a, a)); }

// Gain of degree n: surface potential over the degree-n primary potential
// at the outer radius, from the radial functions a r^n + b r^-(n+1) of each
// shell, continuous in potential and normal current, no current leaving the
// outer surface.
double shell_gain(int n, const std::vector<double> &radii, const std::vector<double> &sigma) {
  const double R = radii.back();
  // In the outer shell no current leaves at x = 1: n a = (n+1) b.  Walk
  // inwards, where r^-(n+1) grows, so that no coefficient is lost to
  // cancellation; radii in units of the outer radius keep powers in range.
  double b = 1.0, a = (n + 1.0) / n;
  const double outer = a + b;
  for (size_t k = radii.size() - 1; k-- > 0;) {
    double x = radii[k] / R;
    double xn = std::pow(x, n), xm = std::pow(x, -(n + 1));
    double V = a * xn + b * xm;
    double J = sigma[k + 1] * (n * a * xn - (n + 1) * b * xm) / x;
    b = (n * V / x - J / sigma[k]) * x / ((2.0 * n + 1) * xm);
    a = (V - b * xm) / xn;
  }
  // In the innermost shell b is the coefficient of the source's own field.
  return outer / b;
}

}  // namespace

double sphere_potential(const std::vector<double> &radii, const std::vector<double> &sigma, const Vec3 &r0,
                        const Vec3 &p, const Vec3 &r, int nmax) {
  const double R = radii.back();
  double d0 = length(r0);
  Vec3 u0 = {r0[0] / d0, r0[1] / d0, r0[2] / d0};
  double rl = length(r);
  Vec3 u = {r[0] / rl, r[1] / rl, r[2] / rl};
  double c = dot(u0, u);
  double pr0 = dot(p, u0), pr = dot(p, u);
  // Degree-n term of 1/|r - r0| is d0^n P_n(c) / R^(n+1); the dipole takes
  // its gradient with respect to r0.
  double Pm1 = 1.0, P = c;         // P_{n-1}, P_n
  double dPm1 = 0.0, dP = 1.0;     // their derivatives
  double sum = 0.0, ratio = d0 / R;
  double scale = 1.0 / (R * R);    // d0^(n-1) / R^(n+1) for n = 1
  // Terms fall off as (d0/R)^n; stop once they cannot matter, before the
  // radial functions of high degrees leave the range of doubles.
  for (int n = 1; n <= nmax && scale * R * R > 1e-20; n++) {
    double term = n * P * pr0 + dP * (pr - c * pr0);
    sum += shell_gain(n, radii, sigma) * scale * term;
    scale *= ratio;
    double Pn1 = ((2.0 * n + 1) * c * P - n * Pm1) / (n + 1);
    double dPn1 = dPm1 + (2.0 * n + 1) * P;
    Pm1 = P;
    P = Pn1;
    dPm1 = dP;
    dP = dPn1;
  }
  return sum / (4 * M_PI * sigma[0]);
}

double homogeneous_sphere_potential(double R, double sigma, const Vec3 &r0, const Vec3 &p, const Vec3 &r) {
  // Summing the series of a single sphere in closed form (generating
  // function of the Legendre polynomials) gives
  //   V = p . [ 2 d/|d|^3 + (r/R + d/|d|) / (R^2 - r0.r + R |d|) ] / (4 pi sigma)
  // with d = r - r0 and |r| = R.
  Vec3 d = {r[0] - r0[0], r[1] - r0[1], r[2] - r0[2]};
  double dl = length(d);
  double F = R * R - dot(r0, r) + R * dl;
  double v = 0;
  for (int k = 0; k < 3; k++) v += p[k] * (2 * d[k] / (dl * dl * dl) + (r[k] / R + d[k] / dl) / F);
  return v / (4 * M_PI * sigma);
}

namespace {

// Refer x to its average in place and return its length.
double centre(std::vector<double> &x) {
  double m = 0;
  for (double e : x) m += e;
  m /= x.size();
  double s = 0;
  for (double &e : x) {
    e -= m;
    s += e * e;
  }
  return std::sqrt(s);
}

}  // namespace

double rdm(std::vector<double> u, std::vector<double> v) {
  double nu = centre(u), nv = centre(v);
  double s = 0;
  for (size_t i = 0; i < u.size(); i++) s += (u[i] / nu - v[i] / nv) * (u[i] / nu - v[i] / nv);
  return std::sqrt(s);
}

double mag(std::vector<double> u, std::vector<double> v) { return centre(u) / centre(v); }
