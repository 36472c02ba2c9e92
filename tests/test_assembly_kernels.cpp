// The vector kernels of the assembly at every instruction-set level against
// the plain code: the far-triangle weights and the list of the other
// triangles against solangle and rhoek triangle by triangle, and the float
// sums by index lists against the plain loop over the terms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "geometry/solangle.h"
#include "geometry/solangle_batch.h"
#include "numeric/double_simd.h"
#include "numeric/indexed_sums.h"
#include "tools/headshape.h"
#include "tools/icosphere.h"

namespace {

const double MINANGLE = 0.1, SCALE = 0.15915494309189535;

// The weights and events of every triangle of m seen from x, as the plain
// code gives them: far triangles (off the triangle, angle below the
// threshold) carry solangle's equal weight times SCALE, the rest are events.
void expected(const TriMesh &m, const double x[3], std::vector<double> &w, std::vector<int> &events) {
  w.assign(m.dhk.size(), 0.0);
  events.clear();
  for (size_t t = 0; t < m.dhk.size(); t++) {
    double y[3][3];
    for (int k = 0; k < 3; k++)
      for (int c = 0; c < 3; c++) y[k][c] = (double)m.pnt[m.dhk[t][k]][c] - x[c];
    int onplane;
    const double omega = rhoek(y[0], y[1], y[2], &onplane);
    double w1, w2, w3;
    if (onplane || !(std::fabs(omega) < MINANGLE) || !solangle(y[0], y[1], y[2], &w1, &w2, &w3, MINANGLE)) {
      events.push_back((int)t);
      continue;
    }
    w[t] = w1 * SCALE;
  }
}

}  // namespace

// Spheres and the deformed head (near triangles from the neighbouring
// surfaces, the surface's own vertices: points on triangles), seen from
// their own vertices, from the other surfaces' and from points far away.
TEST(AssemblyKernels, FarWeightsAndEventsAsThePlainCodeAtEveryLevel) {
  const TriMesh surfaces[] = {head_layer(3, HEAD_SKULL), icosphere(2, 1.0), head_layer(2, HEAD_BRAIN)};
  std::vector<std::array<double, 3>> points;
  for (const TriMesh &m : {head_layer(3, HEAD_SCALP), head_layer(3, HEAD_SKULL), icosphere(2, 0.9)})
    for (size_t v = 0; v < m.pnt.size(); v += 7) points.push_back({m.pnt[v][0], m.pnt[v][1], m.pnt[v][2]});
  points.push_back({0.0, 0.0, 0.0});
  points.push_back({3.0, -2.0, 40.0});
  for (const TriMesh &m : surfaces) {
    SurfaceLanes s;
    ASSERT_TRUE(surface_lanes_make(&s, reinterpret_cast<const float(*)[3]>(m.pnt.data()), (int)m.pnt.size(),
                                   reinterpret_cast<const int32_t(*)[3]>(m.dhk.data()), (int)m.dhk.size()));
    const int nt = s.ndhk, stride = nt + 5;
    std::vector<double> len(s.npnt), w(3 * stride), want_w;
    std::vector<int> events(nt), want_events;
    int checked_events = 0;
    for (const auto &p : points) {
      const double x[3] = {p[0], p[1], p[2]};
      expected(m, x, want_w, want_events);
      checked_events += (int)want_events.size();
      for (int level = 0; level <= double_simd_best(); level++) {
        SCOPED_TRACE(testing::Message() << "level " << level << " point " << x[0] << " " << x[1] << " " << x[2]);
        double_simd_set_level(level);
        vertex_lengths(s, x, len.data());
        for (int v = 0; v < s.npnt; v++) {
          const double y[3] = {m.pnt[v][0] - x[0], m.pnt[v][1] - x[1], m.pnt[v][2] - x[2]};
          ASSERT_EQ(len[v], solangle_length(y)) << v;
        }
        const int nev = far_triangle_weights(s, x, len.data(), MINANGLE, SCALE, w.data(), stride, events.data());
        ASSERT_EQ(std::vector<int>(events.begin(), events.begin() + nev), want_events);
        for (int t = 0, e = 0; t < nt; t++) {
          if (e < nev && events[e] == t) {
            e++;
            continue;
          }
          for (int c = 0; c < 3; c++) ASSERT_EQ(w[c * stride + t], want_w[t]) << "triangle " << t;
        }
      }
    }
    EXPECT_GT(checked_events, 50);  // near triangles and points on triangles were met
    surface_lanes_free(&s);
  }
  double_simd_set_level(-1);
}

// Sums with no term, with many, counts not a multiple of the group, terms
// that cancel, tiny against large: each as the plain loop
// "entry = (float)(entry + term)" in term order gives it.
TEST(AssemblyKernels, IndexedSumsAsThePlainLoopAtEveryLevel) {
  std::mt19937 rng(5);
  for (int n : {1, 8, 13, 203}) {
    const int nterms = 7 * n, nw = 3 * nterms + 1;
    std::vector<double> w(nw);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (double &v : w) v = u(rng) * std::ldexp(1.0, (int)(rng() % 60) - 30);
    w[nw - 1] = 0.0;
    std::vector<int> target(nterms), index(nterms);
    for (int k = 0; k < nterms; k++) {
      target[k] = (int)(rng() % (n > 3 ? n - 3 : n));  // the last few sums stay empty
      index[k] = (int)(rng() % (nw - 1));
    }
    std::vector<float> want(n, 0.0f);
    for (int k = 0; k < nterms; k++) want[target[k]] = (float)(want[target[k]] + w[index[k]]);
    IndexedSums p;
    ASSERT_TRUE(indexed_sums_make(&p, n, nterms, target.data(), index.data(), nw - 1));
    for (int level = 0; level <= double_simd_best(); level++) {
      double_simd_set_level(level);
      std::vector<float> got(n + 1, -5.0f);
      indexed_sums(p, w.data(), got.data());
      EXPECT_EQ(0, memcmp(got.data(), want.data(), sizeof(float) * n)) << "n " << n << " level " << level;
      EXPECT_EQ(got[n], -5.0f);  // nothing written past the end
    }
    indexed_sums_free(&p);
  }
  double_simd_set_level(-1);
}
