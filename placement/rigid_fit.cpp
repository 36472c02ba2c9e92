#include "placement/rigid_fit.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "placement/vec3.h"

Vec3 Similarity::apply(const Vec3 &p) const {
  Vec3 q;
  for (int i = 0; i < 3; i++) q[i] = scale * (r[i][0] * p[0] + r[i][1] * p[1] + r[i][2] * p[2]) + t[i];
  return q;
}

Similarity Similarity::after(const Similarity &first) const {
  Similarity out;
  out.scale = scale * first.scale;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      out.r[i][j] = 0;
      for (int k = 0; k < 3; k++) out.r[i][j] += r[i][k] * first.r[k][j];
    }
  out.t = apply(first.t);
  return out;
}

Similarity fit_similarity(const std::vector<Vec3> &from, const std::vector<Vec3> &to, bool with_scale,
                          const std::vector<double> &weights) {
  const size_t n = from.size();
  if (n != to.size() || (!weights.empty() && weights.size() != n))
    throw std::invalid_argument("the point sets differ in size");
  if (n < 3) throw std::invalid_argument("at least three points are needed to fix a rotation");
  auto w = [&](size_t i) { return weights.empty() ? 1.0 : weights[i]; };

  double total = 0;
  Eigen::Vector3d mean_from = Eigen::Vector3d::Zero(), mean_to = Eigen::Vector3d::Zero();
  for (size_t i = 0; i < n; i++) {
    total += w(i);
    mean_from += w(i) * Eigen::Vector3d(from[i][0], from[i][1], from[i][2]);
    mean_to += w(i) * Eigen::Vector3d(to[i][0], to[i][1], to[i][2]);
  }
  mean_from /= total;
  mean_to /= total;
  Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
  double spread = 0;
  for (size_t i = 0; i < n; i++) {
    const Eigen::Vector3d a = Eigen::Vector3d(from[i][0], from[i][1], from[i][2]) - mean_from;
    const Eigen::Vector3d b = Eigen::Vector3d(to[i][0], to[i][1], to[i][2]) - mean_to;
    cov += w(i) * b * a.transpose();
    spread += w(i) * a.squaredNorm();
  }
  cov /= total;
  spread /= total;

  Eigen::JacobiSVD<Eigen::Matrix3d> svd(cov, Eigen::ComputeFullU | Eigen::ComputeFullV);
  const Eigen::Vector3d sv = svd.singularValues();
  // Points on one line leave a rotation about that line free: two singular
  // values (nearly) vanish, in both sets.
  if (!(sv(1) > 1e-12 * sv(0)) || !(spread > 0))
    throw std::invalid_argument("the points lie on one line, which leaves the rotation undecided");
  Eigen::Matrix3d d = Eigen::Matrix3d::Identity();
  // A reflection fits mirror-image sets better; the closest rotation flips
  // the axis of the smallest singular value instead.
  if (svd.matrixU().determinant() * svd.matrixV().determinant() < 0) d(2, 2) = -1;
  const Eigen::Matrix3d rot = svd.matrixU() * d * svd.matrixV().transpose();

  Similarity s;
  s.scale = with_scale ? (sv(0) * d(0, 0) + sv(1) * d(1, 1) + sv(2) * d(2, 2)) / spread : 1.0;
  const Eigen::Vector3d t = mean_to - s.scale * rot * mean_from;
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++) s.r[i][j] = rot(i, j);
    s.t[i] = t(i);
  }
  return s;
}

std::string describe(const Similarity &s, const std::string &unit) {
  const double trace = s.r[0][0] + s.r[1][1] + s.r[2][2];
  const double angle = std::acos(std::clamp((trace - 1) / 2, -1.0, 1.0)) * 180 / M_PI;
  char line[160];
  std::string out;
  for (int i = 0; i < 3; i++) {
    snprintf(line, sizeof line, "  %10.6f %10.6f %10.6f %12.6g\n", s.scale * s.r[i][0], s.scale * s.r[i][1],
             s.scale * s.r[i][2], s.t[i]);
    out += line;
  }
  snprintf(line, sizeof line, "  rotation %.3f degrees, scale %.6f, translation in %s\n", angle, s.scale, unit.c_str());
  return out + line;
}
