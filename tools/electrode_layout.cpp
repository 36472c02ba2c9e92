// electrode_layout: place electrodes of a 10-20-like layout on a surface.
//
//   electrode_layout SURFACE.tri OUTPUT.elc
//
// SURFACE must be the first interface of the model (its triangle numbers are
// written as they are, counted from 1).  Each electrode is where the ray from
// the origin in its direction meets the surface (x right, y front, z up);
// it is written as "<triangle> <u> <v> !<label>" with the point
// (1-u-v) a + u b + v c of triangle (a, b, c).
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "geometry/dhkinp.h"
#include "matrixio/atomicfile.h"

namespace {

struct Position {
  const char *label;
  double theta, phi;  // degrees from +z; azimuth from +x towards +y (front)
};

const Position layout[] = {{"Fp1", 90, 108}, {"Fp2", 90, 72},  {"F7", 90, 144}, {"F3", 64, 129},
                           {"Fz", 45, 90},   {"F4", 64, 51},   {"F8", 90, 36},  {"T7", 90, 180},
                           {"C3", 45, 180},  {"Cz", 0, 0},     {"C4", 45, 0},   {"T8", 90, 0},
                           {"P7", 90, 216},  {"P3", 64, 231},  {"Pz", 45, 270}, {"P4", 64, 309},
                           {"P8", 90, 324},  {"O1", 90, 252},  {"O2", 90, 288}};

// Ray o + t*dir (t > 0) against triangle (a, b, c): returns true with the
// local coordinates u, v of the hit.
bool hit(const double dir[3], const float *a, const float *b, const float *c, double &u, double &v) {
  double e1[3], e2[3], p[3], s[3], q[3];
  for (int k = 0; k < 3; k++) {
    e1[k] = b[k] - a[k];
    e2[k] = c[k] - a[k];
    s[k] = -a[k];
  }
  p[0] = dir[1] * e2[2] - dir[2] * e2[1];
  p[1] = dir[2] * e2[0] - dir[0] * e2[2];
  p[2] = dir[0] * e2[1] - dir[1] * e2[0];
  double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
  if (std::fabs(det) < 1e-15) return false;
  u = (s[0] * p[0] + s[1] * p[1] + s[2] * p[2]) / det;
  q[0] = s[1] * e1[2] - s[2] * e1[1];
  q[1] = s[2] * e1[0] - s[0] * e1[2];
  q[2] = s[0] * e1[1] - s[1] * e1[0];
  v = (dir[0] * q[0] + dir[1] * q[1] + dir[2] * q[2]) / det;
  double t = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) / det;
  return t > 0 && u >= 0 && v >= 0 && u + v <= 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fputs("usage: electrode_layout SURFACE.tri OUTPUT.elc\n", stderr);
    return 2;
  }
  int npnt, ndhk;
  float(*pnt)[3];
  int32_t(*dhk)[3];
  if (!dhkinp(argv[1], &npnt, &ndhk, &pnt, &dhk)) return 1;
  // The layout appears under its name only when complete (see atomicfile.h).
  FILE *out = atomic_open(argv[2]);
  if (!out) {
    fprintf(stderr, "electrode_layout: cannot create %s: %s\n", argv[2], strerror(errno));
    return 1;
  }
  const int n = sizeof layout / sizeof layout[0];
  fprintf(out, "%d\n", n);
  for (const Position &e : layout) {
    double th = e.theta * M_PI / 180, ph = e.phi * M_PI / 180;
    double dir[3] = {sin(th) * cos(ph), sin(th) * sin(ph), cos(th)};
    int found = -1;
    double u = 0, v = 0;
    for (int t = 0; t < ndhk && found < 0; t++) {
      const int32_t *tri = dhk[t];
      if (tri[0] < 0 || tri[0] >= npnt || tri[1] < 0 || tri[1] >= npnt || tri[2] < 0 || tri[2] >= npnt) continue;
      if (hit(dir, pnt[tri[0]], pnt[tri[1]], pnt[tri[2]], u, v)) found = t;
    }
    if (found < 0) {
      fprintf(stderr, "electrode_layout: no triangle of %s in the direction of %s\n", argv[1], e.label);
      atomic_abandon(out);
      return 1;
    }
    fprintf(out, "%d %.6f %.6f !%s\n", found + 1, u, v, e.label);
  }
  if (!atomic_commit(out)) {
    fprintf(stderr, "electrode_layout: cannot write %s: %s\n", argv[2], strerror(errno));
    return 1;
  }
  printf("%s: %d electrodes\n", argv[2], n);
  return 0;
}
