#include "surface/transform.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "cli/failure.h"
#include "surface/file_bytes.h"
#include "surface/text_scan.h"

namespace {

// A head is about 20 cm across; anything between 5 cm and 1 m is taken for
// one once scaled.
constexpr double HEAD_SIZE = 0.2, SMALLEST = 0.05, LARGEST = 1.0;

double determinant3(const Affine &a) {
  return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) - a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
         a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}

std::string format_length(double metres, const std::string &unit, double scale) {
  char buf[64];
  snprintf(buf, sizeof buf, "%.4g %s", metres / scale, unit.c_str());
  return buf;
}

}  // namespace

std::string UnitChoice::describe() const {
  if (!automatic) return unit + " (given)";
  return unit + " (chosen from the extent, " + format_length(extent, unit, scale) + ")";
}

UnitChoice choose_units(const std::string &option, const std::vector<Vec3> &points, const std::string &source) {
  static const std::pair<const char *, double> units[] = {{"mm", 0.001}, {"cm", 0.01}, {"m", 1.0}};
  double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  for (const Vec3 &p : points)
    for (int k = 0; k < 3; k++) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
  double raw = points.empty() ? 0 : std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
  for (auto &[name, scale] : units)
    if (option == name) return UnitChoice{name, scale, false, raw * scale};
  if (option != "auto") usage_fail("--units must be mm, cm, m or auto, not \"" + option + "\"");
  const std::pair<const char *, double> *best = nullptr;
  for (auto &u : units)
    if (!best || std::fabs(std::log(raw * u.second / HEAD_SIZE)) < std::fabs(std::log(raw * best->second / HEAD_SIZE)))
      best = &u;
  double extent = raw * best->second;
  if (!(extent >= SMALLEST && extent <= LARGEST)) {
    char what[160];
    snprintf(what, sizeof what, "cannot tell the units: the surface is %.4g units across, not a head's size in mm, cm or m; give --units", raw);
    fail(source, "", what);
  }
  return UnitChoice{best->first, best->second, true, extent};
}

Affine read_affine(const std::string &path) {
  std::string data = read_file_bytes(path);
  TextScan in(data, path);
  std::vector<double> v;
  std::vector<long> line_of;
  std::string_view line;
  while (in.next_line(line)) {
    line = line.substr(0, line.find('#'));
    double x;
    while (scan_double(line, x)) {
      if (!std::isfinite(x)) in.fail_here("a transform entry is not a finite number");
      v.push_back(x);
      line_of.push_back(in.line_number());
    }
    if (!only_space(line)) in.fail_here("\"" + std::string(scan_word(line)) + "\" is not a number");
    if (v.size() > 16) in.fail_here("more than 16 numbers; a transform is 4 rows of 4");
  }
  if (v.size() != 12 && v.size() != 16)
    fail(path, "", "holds " + std::to_string(v.size()) + " numbers; a transform is 4 rows of 4 (or 3 rows of 4)");
  Affine a{};
  for (size_t i = 0; i < v.size(); i++) a[i / 4][i % 4] = v[i];
  if (v.size() == 12) a[3] = {0, 0, 0, 1};
  if (a[3][0] != 0 || a[3][1] != 0 || a[3][2] != 0 || a[3][3] != 1)
    fail(path, "line " + std::to_string(line_of.back()), "the last row must be 0 0 0 1 for an affine transform");
  if (std::fabs(determinant3(a)) < 1e-12)
    fail(path, "", "the transform flattens space (its 3x3 part has no inverse)");
  return a;
}

Vec3 apply_affine(const Affine &a, const Vec3 &p) {
  Vec3 q;
  for (int r = 0; r < 3; r++) q[r] = a[r][0] * p[0] + a[r][1] * p[1] + a[r][2] * p[2] + a[r][3];
  return q;
}

void apply_affine(const Affine &a, Mesh &mesh) {
  for (Vec3 &p : mesh.vertices) p = apply_affine(a, p);
  if (determinant3(a) < 0)
    for (Tri &t : mesh.triangles) std::swap(t[1], t[2]);
}

void scale_mesh(Mesh &mesh, double scale) {
  for (Vec3 &p : mesh.vertices)
    for (double &c : p) c *= scale;
}
