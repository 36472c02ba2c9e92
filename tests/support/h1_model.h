// Interface tables built from meshes, for the tests of the routines that
// work on the model (assembly, inversion, compartments, electrodes).
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "tools/icosphere.h"

namespace h1 {

struct Surface {
  std::string name;
  TriMesh mesh;
  float sigma_in = 1.0f, sigma_out = 0.0f;
};

// Fill geo[0..n-1] from the surfaces (arrays from calloc, those of an earlier
// model freed) and set ngeo, totpnt and totdhk.
inline void load_model(const std::vector<Surface> &s) {
  ngeo = (int)s.size();
  totpnt = totdhk = 0;
  for (int i = 0; i < MAXGEO; i++) {
    Interface &g = geo[i];
    free(g.pnt), free(g.dhk);
    memset(&g, 0, sizeof g);
    if (i >= ngeo) continue;
    const TriMesh &m = s[i].mesh;
    snprintf(g.name, NAMELEN, "%s", s[i].name.c_str());
    g.npnt = (int)m.pnt.size(), g.ndhk = (int)m.dhk.size();
    g.pnt = static_cast<float(*)[3]>(calloc(g.npnt + 1, sizeof *g.pnt));
    g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk + 1, sizeof *g.dhk));
    if (g.npnt) memcpy(g.pnt, m.pnt.data(), sizeof *g.pnt * g.npnt);
    if (g.ndhk) memcpy(g.dhk, m.dhk.data(), sizeof *g.dhk * g.ndhk);
    g.sigma_in = s[i].sigma_in, g.sigma_out = s[i].sigma_out;
    totpnt += g.npnt, totdhk += g.ndhk;
  }
}

// Whatever f prints on standard output.
template <class F>
std::string stdout_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// The cube [-1,1]^3 with a vertex at the centre of every face (8 to 13, flat
// neighbourhoods), four triangles per face, clockwise seen from outside as
// the sphere meshes are.  Corner k has coordinate c = +1 where bit c is set.
inline TriMesh cube() {
  TriMesh m;
  for (int k = 0; k < 8; k++) m.pnt.push_back({k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f});
  for (int a = 0; a < 3; a++)
    for (float s : {1.0f, -1.0f}) {
      std::array<float, 3> f = {0, 0, 0};
      f[a] = s;
      m.pnt.push_back(f);
      const int centre = (int)m.pnt.size() - 1, ua = (a + 1) % 3, va = (a + 2) % 3;
      const float du[4] = {1, -1, -1, 1}, dv[4] = {1, 1, -1, -1};
      int ring[4];  // counter-clockwise around the outward normal
      for (int q = 0; q < 4; q++) {
        std::array<float, 3> p = f;
        p[ua] = du[q], p[va] = dv[q] * s;
        ring[q] = (p[0] > 0) + 2 * (p[1] > 0) + 4 * (p[2] > 0);
      }
      for (int q = 0; q < 4; q++) m.dhk.push_back({centre, ring[(q + 1) % 4], ring[q]});
    }
  return m;
}

}  // namespace h1
