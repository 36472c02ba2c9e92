#include "plotting/spherical_spline.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int table_size = 4001;  // g changes slowly: linear interpolation is far below a colour step
constexpr int terms = 40;         // the series falls off as n^-7 for order 4
constexpr double smoothing = 1e-8;

// g(x) = 1/(4 pi) sum_{n>=1} (2n+1) / (n(n+1))^4 P_n(x), Legendre P_n by
// their three-term recurrence.
double legendre_series(double x) {
  double p0 = 1, p1 = x, sum = 0;
  for (int n = 1; n <= terms; n++) {
    double nn = (double)n * (n + 1);
    sum += (2.0 * n + 1) / (nn * nn * nn * nn) * p1;
    double p2 = ((2.0 * n + 1) * x * p1 - n * p0) / (n + 1);
    p0 = p1;
    p1 = p2;
  }
  return sum / (4 * M_PI);
}

std::vector<double> make_table() {
  std::vector<double> t(table_size);
  for (int i = 0; i < table_size; i++) t[i] = legendre_series(-1 + 2.0 * i / (table_size - 1));
  return t;
}

double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

std::vector<double> spline_system(const std::vector<Vec3> &dirs) {
  int n = (int)dirs.size(), m = n + 1;
  std::vector<double> a((size_t)m * m, 0.0);
  for (int i = 0; i < n; i++) {
    for (int j = 0; j < n; j++) a[(size_t)i * m + j] = legendre_series(std::clamp(dot(dirs[i], dirs[j]), -1.0, 1.0));
    a[(size_t)i * m + i] += smoothing;
    a[(size_t)i * m + n] = 1;  // the constant c0
    a[(size_t)n * m + i] = 1;  // sum c_i = 0
  }
  return a;
}

}  // namespace

SphericalSpline::SphericalSpline(const std::vector<Vec3> &directions)
    : dirs_(directions), table_(make_table()), lu_(spline_system(directions), (int)directions.size() + 1) {}

double SphericalSpline::g(double x) const {
  double s = (std::clamp(x, -1.0, 1.0) + 1) * 0.5 * (table_size - 1);
  int i = std::min((int)s, table_size - 2);
  double f = s - i;
  return table_[i] + f * (table_[i + 1] - table_[i]);
}

std::vector<double> SphericalSpline::fit(const std::vector<double> &values) const {
  std::vector<double> b(values);
  b.push_back(0);
  if (lu_.singular()) {
    // Only an electrode set the smoothing cannot rescue gets here (none, or
    // non-finite directions): a flat map of the mean says nothing false.
    std::vector<double> c(b.size(), 0.0);
    double mean = 0;
    for (double v : values) mean += v;
    if (!values.empty()) c.back() = mean / values.size();
    return c;
  }
  return lu_.solve(b);
}

void SphericalSpline::kernel_row(const Vec3 &d, double *row) const {
  for (size_t i = 0; i < dirs_.size(); i++) row[i] = g(dot(d, dirs_[i]));
}

double SphericalSpline::evaluate(const std::vector<double> &c, const Vec3 &d) const {
  double v = c.back();
  for (size_t i = 0; i < dirs_.size(); i++) v += c[i] * g(dot(d, dirs_[i]));
  return v;
}
