// The vector kernel of the assembly at every instruction-set level against
// the plain code: the weights of every triangle seen from groups of points,
// summed per vertex, and the pairs handed back for treatment one by one.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "geometry/solangle.h"
#include "geometry/solangle_batch.h"
#include "numeric/double_simd.h"
#include "tools/headshape.h"
#include "tools/icosphere.h"

namespace {

const double MINANGLE = 0.1, SCALE = 0.15915494309189535;

using Point = std::array<double, 3>;

// y[k] = corner k of triangle t of m minus x.
void differences(const TriMesh &m, int t, const Point &x, double y[3][3]) {
  for (int k = 0; k < 3; k++)
    for (int c = 0; c < 3; c++) y[k][c] = (double)m.pnt[m.dhk[t][k]][c] - x[c];
}

// solangle's weights, zeros where the point lies on the triangle.
void plain_weights(const TriMesh &m, int t, const Point &x, double w[3]) {
  double y[3][3];
  differences(m, t, x, y);
  if (!solangle(y[0], y[1], y[2], &w[0], &w[1], &w[2], MINANGLE)) w[0] = w[1] = w[2] = 0.0;
}

// The pairs handed back, with plain_weights; the point `gives_up` gives up
// at its first pair.
class PlainPairs : public NearPairs {
 public:
  PlainPairs(const TriMesh &m, const Point *x, int gives_up) : m_(m), x_(x), gives_up_(gives_up) {}
  bool weights(int p, int t, double w[3]) override {
    handed[p].push_back(t);
    if (p == gives_up_) return false;
    plain_weights(m_, t, x_[p], w);
    return true;
  }
  std::vector<int> handed[ANGLE_SUMS_MAX_POINTS];

 private:
  const TriMesh &m_;
  const Point *x_;
  int gives_up_;
};

// The plain loop: sums per vertex and the pairs that are not simply far
// (on the triangle, or not below the threshold).
void plain_sums(const TriMesh &m, const Point &x, std::vector<float> &sums, std::vector<int> &others) {
  sums.assign(m.pnt.size(), 0.0f);
  others.clear();
  for (int t = 0; t < (int)m.dhk.size(); t++) {
    double y[3][3], w[3];
    differences(m, t, x, y);
    int onplane;
    if (const double omega = rhoek(y[0], y[1], y[2], &onplane); onplane || !(std::fabs(omega) < MINANGLE))
      others.push_back(t);
    plain_weights(m, t, x, w);
    for (int k = 0; k < 3; k++) sums[m.dhk[t][k]] = (float)(sums[m.dhk[t][k]] + w[k] * SCALE);
  }
}

}  // namespace

// Spheres and the deformed head, seen from their own vertices (points on
// triangles), from the other surfaces' (near triangles) and from far away,
// in groups of every size up to the width of the level.
TEST(AssemblyKernels, SumsAndHandedPairsAsThePlainCodeAtEveryLevel) {
  const TriMesh surfaces[] = {head_layer(3, HEAD_SKULL), icosphere(2, 1.0)};
  std::vector<Point> points;
  for (const TriMesh &m : {head_layer(3, HEAD_SCALP), head_layer(3, HEAD_SKULL), icosphere(2, 0.9)})
    for (size_t v = 0; v < m.pnt.size(); v += 9) points.push_back({m.pnt[v][0], m.pnt[v][1], m.pnt[v][2]});
  points.push_back({3.0, -2.0, 40.0});
  for (const TriMesh &m : surfaces) {
    SurfaceLanes s;
    ASSERT_TRUE(surface_lanes_make(&s, reinterpret_cast<const float(*)[3]>(m.pnt.data()), (int)m.pnt.size(),
                                   reinterpret_cast<const int32_t(*)[3]>(m.dhk.data()), (int)m.dhk.size()));
    const int nv = s.npnt;
    std::vector<std::vector<float>> want(points.size());
    std::vector<std::vector<int>> want_others(points.size());
    size_t handed = 0;
    for (size_t q = 0; q < points.size(); q++) {
      plain_sums(m, points[q], want[q], want_others[q]);
      handed += want_others[q].size();
    }
    EXPECT_GT(handed, 100u);  // near triangles and points on triangles were met
    std::vector<double> len(ANGLE_SUMS_MAX_POINTS * nv);
    std::vector<float> acc(ANGLE_SUMS_MAX_POINTS * nv), got(ANGLE_SUMS_MAX_POINTS * nv);
    for (int level = 0; level <= double_simd_best(); level++) {
      double_simd_set_level(level);
      const int width = angle_sums_points();
      for (size_t q0 = 0, group = 0; q0 < points.size(); q0 += width, group++) {
        const int n = std::min<int>(width, (int)(points.size() - q0) - (int)(group % 2));  // also short groups
        if (n <= 0) break;
        const int gives_up = group % 3 == 0 ? n - 1 : -1;
        PlainPairs pairs(m, &points[q0], gives_up);
        float *out[ANGLE_SUMS_MAX_POINTS];
        for (int p = 0; p < ANGLE_SUMS_MAX_POINTS; p++) out[p] = &got[p * nv];
        std::fill(got.begin(), got.end(), -9.0f);
        angle_sums(s, reinterpret_cast<const double(*)[3]>(&points[q0]), n, MINANGLE, SCALE, pairs, out, len.data(),
                   acc.data());
        for (int p = 0; p < ANGLE_SUMS_MAX_POINTS; p++) {
          SCOPED_TRACE(testing::Message() << "level " << level << ", point " << q0 + p);
          // A point that gave up (at its first pair) and lanes without a
          // point leave their rows alone.
          if (p >= n || (p == gives_up && !want_others[q0 + p].empty())) {
            EXPECT_EQ(std::vector<float>(out[p], out[p] + nv), std::vector<float>(nv, -9.0f));
            if (p < n) {
              EXPECT_EQ(pairs.handed[p].size(), 1u);
            }
            continue;
          }
          EXPECT_EQ(pairs.handed[p], want_others[q0 + p]);
          EXPECT_TRUE(std::vector<float>(out[p], out[p] + nv) == want[q0 + p]);
        }
        q0 -= group % 2;  // a short group leaves its last point to the next
      }
    }
    surface_lanes_free(&s);
  }
  double_simd_set_level(-1);
}
