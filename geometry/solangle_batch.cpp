// Batch kernels of the solid angles, compiled for three instruction-set
// levels and chosen at run time; the plain C++ level also takes the
// remainders that do not fill a vector.
#include "geometry/solangle_batch.h"

#include <cmath>
#include <cstdlib>

#include "numeric/double_lanes.h"
#include "numeric/double_simd.h"

namespace batch_portable {
using V = LanesScalar;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_portable

#if DOUBLE_LANES_X86
#pragma GCC push_options
#pragma GCC target("avx2,fma")
namespace batch_avx2 {
using V = LanesAvx2;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_avx2
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx512f")
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wpsabi"
namespace batch_avx512 {
using V = LanesAvx512;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_avx512
#pragma GCC diagnostic pop
#pragma GCC pop_options
#endif

namespace {

// Lanes of the level in force.
int lanes() {
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) return LanesAvx512::W;
  if (double_simd_level() == 1) return LanesAvx2::W;
#endif
  return 1;
}

}  // namespace

bool surface_lanes_make(SurfaceLanes *s, const float (*pnt)[3], int npnt, const int32_t (*dhk)[3], int ndhk) {
  *s = SurfaceLanes();
  const size_t np = npnt > 0 ? npnt : 1, nt = ndhk > 0 ? ndhk : 1;
  bool ok = true;
  for (int c = 0; c < 3; c++) {
    s->point[c] = static_cast<float *>(malloc(np * sizeof(float)));
    s->vertex[c] = static_cast<int *>(malloc(nt * sizeof(int)));
    ok = ok && s->point[c] && s->vertex[c];
    for (int m = 0; m < 3; m++) {
      s->corner[m][c] = static_cast<float *>(malloc(nt * sizeof(float)));
      ok = ok && s->corner[m][c];
    }
  }
  if (!ok) {
    surface_lanes_free(s);
    return false;
  }
  s->npnt = npnt;
  s->ndhk = ndhk;
  for (int v = 0; v < npnt; v++)
    for (int c = 0; c < 3; c++) s->point[c][v] = pnt[v][c];
  for (int t = 0; t < ndhk; t++)
    for (int m = 0; m < 3; m++) {
      s->vertex[m][t] = dhk[t][m];
      for (int c = 0; c < 3; c++) s->corner[m][c][t] = pnt[dhk[t][m]][c];
    }
  return true;
}

void surface_lanes_free(SurfaceLanes *s) {
  for (int c = 0; c < 3; c++) {
    free(s->point[c]);
    free(s->vertex[c]);
    for (int m = 0; m < 3; m++) free(s->corner[m][c]);
  }
  *s = SurfaceLanes();
}

void vertex_lengths(const SurfaceLanes &s, const double x[3], double *len) {
  const int body = s.npnt / lanes() * lanes();
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) batch_avx512::lengths_range(s, x, len, 0, body);
  if (double_simd_level() == 1) batch_avx2::lengths_range(s, x, len, 0, body);
#endif
  batch_portable::lengths_range(s, x, len, double_simd_level() == 0 ? 0 : body, s.npnt);
}

int far_triangle_weights(const SurfaceLanes &s, const double x[3], const double *len, double minangle, double scale,
                         double *w, int stride, int *events) {
  const int body = s.ndhk / lanes() * lanes();
  int nev = 0;
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) nev = batch_avx512::far_range(s, x, len, minangle, scale, w, stride, events, 0, body);
  if (double_simd_level() == 1) nev = batch_avx2::far_range(s, x, len, minangle, scale, w, stride, events, 0, body);
#endif
  const int t0 = double_simd_level() == 0 ? 0 : body;
  return nev + batch_portable::far_range(s, x, len, minangle, scale, w, stride, events + nev, t0, s.ndhk);
}
