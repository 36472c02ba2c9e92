// Dipole fits on the three-shell sphere head through the built program,
// against analytic potentials.  Shared by the accuracy test (642 vertices
// per shell), the inverse tests and the accuracy benchmark (2562).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "matrixio/matrix.h"
#include "numeric/nrutils.h"
#include "tests/support/analytic.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace headfit {

// Brain, skull, scalp from the inside out, as sphere_potential takes them.
inline const std::vector<double> RADII = {0.88, 0.92, 1.0}, SIGMA = {1.0, 0.0125, 1.0};
inline const double BRAIN = 0.88, OUTER = 1.0;

inline Vec3 add(const Vec3 &a, const Vec3 &b, double s = 1) { return {a[0] + s * b[0], a[1] + s * b[1], a[2] + s * b[2]}; }
inline double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline double norm(const Vec3 &a) { return std::sqrt(dot(a, a)); }
inline Vec3 unit(const Vec3 &a) { return add({0, 0, 0}, a, 1 / norm(a)); }
inline Vec3 cross(const Vec3 &a, const Vec3 &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
inline double angle_deg(const Vec3 &a, const Vec3 &b) {
  return std::acos(std::clamp(dot(a, b) / (norm(a) * norm(b)), -1.0, 1.0)) * 180 / M_PI;
}

// A source position file: the positions, then the constraint lines.
inline std::string position_file(const std::vector<Vec3> &pos, const std::string &constraints) {
  std::string s = std::to_string(pos.size()) + "\n";
  char line[128];
  for (size_t k = 0; k < pos.size(); k++)
    s += (snprintf(line, sizeof line, "%zu %.6f %.6f %.6f\n", k + 1, pos[k][0], pos[k][1], pos[k][2]), line);
  return s + constraints;
}

// data[e][t] as a binary matrix file with a text tail; false when not written.
inline bool write_data(const std::string &path, const std::vector<std::vector<double>> &data,
                       const std::string &tail = "sample freq\n500 Hz\n") {
  const int rows = (int)data.size(), cols = rows ? (int)data[0].size() : 0;
  float **m = matrix(1, rows, 1, cols);
  for (int e = 1; e <= rows; e++)
    for (int t = 1; t <= cols; t++) m[e][t] = (float)data[e - 1][t - 1];
  const bool ok = binputtailmatrix(path.c_str(), m, rows, cols, (int)tail.size(), tail.data()) == 1;
  return free_matrix(m, 1, rows, 1, cols), ok;
}

// One dipole at eccentricity `ecc` of the brain radius along `where`.
struct Case {
  double ecc;
  Vec3 where, moment;
};

inline Vec3 true_position(const Case &c) { return add({0, 0, 0}, unit(c.where), c.ecc * BRAIN); }

// 12 % of the outer radius off, partly inwards, so that the start stays
// well inside the brain.
inline Vec3 start_position(const Case &c) {
  const Vec3 side = unit(cross(c.where, {0.3, -0.5, 0.8}));
  return add(true_position(c), unit(add(side, unit(c.where), -0.5)), 0.12 * OUTER);
}

// At each eccentricity a tangential dipole, and one with a radial part.
inline std::vector<Case> cases() {
  std::vector<Case> list;
  for (double ecc : {0.5, 0.6, 0.7, 0.8}) {
    const Vec3 a = unit({1, 2, 3}), b = unit({-2, 1, -1.5});
    list.push_back({ecc, a, unit(cross(a, {0, 0, 1}))});
    list.push_back({ecc, b, add(unit(cross(b, {1, 0, 0})), b, 0.6)});
  }
  return list;
}

// scalp.tri, skull.tri and brain.tri; returns the scalp (its vertices are
// the electrodes), empty on failure.
inline TriMesh write_head(const TempDir &dir, int vertices) {
  const int level = icosphere_level(vertices);
  TriMesh scalp = icosphere(level, RADII[2]);
  const bool ok = write_trimesh(dir.file("scalp.tri"), scalp, true) &&
                  write_trimesh(dir.file("skull.tri"), icosphere(level, RADII[1]), true) &&
                  write_trimesh(dir.file("brain.tri"), icosphere(level, RADII[0]), true);
  return ok ? scalp : TriMesh{};
}

// Store the inverted A matrix of the head in `name`, the brain surface as
// the isolated-source interface.
inline ProcResult store_head(const TempDir &dir, const std::string &name, int timeout_s) {
  return run_process(BRELIX_EXE, {"-i", name}, "scalp.tri\n1\nskull.tri\n0.0125\n!brain.tri\n1\n\n\n", dir.path(),
                     timeout_s);
}

struct Outcome {
  ProcResult run;
  bool ok = false;  // the run ended normally and the results were read
  Vec3 position{}, moment{};
  double position_error = 0, moment_angle = 0, strength_ratio = 0;  // distance, degrees, fitted over true
};

// Fit case `c` to its analytic potentials through the stored matrix `ama`,
// with files named after `tag` in the model folder.
inline Outcome fit_case(const TempDir &dir, const TriMesh &scalp, const std::string &ama, const Case &c,
                        const std::string &tag, int timeout_s) {
  Outcome o;
  const Vec3 truth = true_position(c);
  const std::string data = "data" + tag + ".mat", start = "start" + tag + ".pos", sol = "sol" + tag + ".mat";
  std::vector<std::vector<double>> potentials;
  for (const auto &v : scalp.pnt) potentials.push_back({sphere_potential(RADII, SIGMA, truth, c.moment, {v[0], v[1], v[2]})});
  if (!write_data(dir.file(data), potentials)) return o;
  write_file(dir.file(start), position_file({start_position(c)}, "1 position stationary\n"));
  o.run = run_process(BRELIX_EXE, {ama}, start + "\n" + data + "\n" + sol + "\n\n\n", dir.path(), timeout_s);
  const std::string num = " *(-?[0-9]+\\.[0-9]{4})";
  const std::regex line("\nfinal position:  \\(" + num + "," + num + "," + num + "\\)\n");
  std::smatch m;
  MatrixFile s;
  if (o.run.status != 0 || !std::regex_search(o.run.out, m, line) || !read_matrix_file(dir.file(sol), s) ||
      s.rows != 3 || s.cols != 1)
    return o;
  o.position = {std::stod(m[1]), std::stod(m[2]), std::stod(m[3])}, o.moment = {s.at(1, 1), s.at(2, 1), s.at(3, 1)};
  o.position_error = norm(add(o.position, truth, -1));
  o.moment_angle = angle_deg(o.moment, c.moment);
  o.strength_ratio = norm(o.moment) / norm(c.moment);
  o.ok = true;
  return o;
}

}  // namespace headfit
