// angle_sums compiled for three instruction-set levels and chosen at run
// time.
#include "geometry/solangle_batch.h"

#include <cmath>
#include <cstdlib>

#include "numeric/double_lanes.h"
#include "numeric/double_simd.h"

// out[p][v] = acc[8 v + p] for p = 0 .. 7 and v = 0 .. npnt-1: the sums of
// eight points from their interleaved work space into their own rows.
void sums_to_rows8(const float *acc, int npnt, float *const *out);

namespace batch_portable {
using V = LanesScalar;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
namespace piece = batch_portable;
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_portable

#if DOUBLE_LANES_X86
DOUBLE_LANES_AVX2_BEGIN
// Eight rows of sums at a time, as an 8 x 8 transposition in registers: one
// vector store per point and eight vertices instead of eight scalar ones
// into rows far apart.
void sums_to_rows8(const float *acc, int npnt, float *const *out) {
  int v = 0;
  for (; v + 8 <= npnt; v += 8) {
    const float *a = acc + 8 * v;
    __m256 r[8], t[8], u[8];
    for (int k = 0; k < 8; k++) r[k] = _mm256_loadu_ps(a + 8 * k);
    for (int k = 0; k < 4; k++) {
      t[2 * k] = _mm256_unpacklo_ps(r[2 * k], r[2 * k + 1]);
      t[2 * k + 1] = _mm256_unpackhi_ps(r[2 * k], r[2 * k + 1]);
    }
    for (int k = 0; k < 2; k++) {
      u[4 * k] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], 0x44);
      u[4 * k + 1] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], 0xEE);
      u[4 * k + 2] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], 0x44);
      u[4 * k + 3] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], 0xEE);
    }
    for (int k = 0; k < 4; k++) {
      _mm256_storeu_ps(out[k] + v, _mm256_permute2f128_ps(u[k], u[k + 4], 0x20));
      _mm256_storeu_ps(out[k + 4] + v, _mm256_permute2f128_ps(u[k], u[k + 4], 0x31));
    }
  }
  for (; v < npnt; v++)
    for (int p = 0; p < 8; p++) out[p][v] = acc[8 * v + p];
}

namespace batch_avx2 {
using V = LanesAvx2x2;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
// The triple products go a vector of four at a time: as pairs of vectors
// they would need more registers than there are.
namespace piece {
using V = LanesAvx2;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
}  // namespace piece
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_avx2
DOUBLE_LANES_AVX2_END

DOUBLE_LANES_AVX512_BEGIN
namespace batch_avx512 {
using V = LanesAvx512;
#include "numeric/elementary_body.inc"
#include "geometry/solangle_body.inc"
namespace piece = batch_avx512;
#include "geometry/solangle_batch_body.inc"
}  // namespace batch_avx512
DOUBLE_LANES_AVX512_END
#else
void sums_to_rows8(const float *acc, int npnt, float *const *out) {
  for (int v = 0; v < npnt; v++)
    for (int p = 0; p < 8; p++) out[p][v] = acc[8 * v + p];
}
#endif

bool surface_lanes_make(SurfaceLanes *s, const float (*pnt)[3], int npnt, const int32_t (*dhk)[3], int ndhk) {
  *s = SurfaceLanes();
  s->point = static_cast<double *>(malloc(sizeof(double) * 3 * (npnt > 0 ? npnt : 1)));
  s->corner = static_cast<double *>(malloc(sizeof(double) * 9 * (ndhk > 0 ? ndhk : 1)));
  s->vertex = static_cast<int *>(malloc(sizeof(int) * 3 * (ndhk > 0 ? ndhk : 1)));
  if (!s->point || !s->corner || !s->vertex) {
    surface_lanes_free(s);
    return false;
  }
  s->npnt = npnt;
  s->ndhk = ndhk;
  for (int v = 0; v < npnt; v++)
    for (int c = 0; c < 3; c++) s->point[3 * v + c] = pnt[v][c];
  for (int t = 0; t < ndhk; t++)
    for (int m = 0; m < 3; m++) {
      s->vertex[3 * t + m] = dhk[t][m];
      for (int c = 0; c < 3; c++) s->corner[9 * t + 3 * m + c] = pnt[dhk[t][m]][c];
    }
  return true;
}

void surface_lanes_free(SurfaceLanes *s) {
  free(s->point);
  free(s->corner);
  free(s->vertex);
  *s = SurfaceLanes();
}

int angle_sums_points() {
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) return LanesAvx512::W;
  if (double_simd_level() == 1) return LanesAvx2x2::W;
#endif
  return LanesScalar::W;
}

void angle_sums(const SurfaceLanes &s, const double (*x)[3], int npoints, double minangle, double scale,
                NearPairs &near, float *const *out, double *len, float *acc) {
  if (npoints <= 0) return;
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2)
    return batch_avx512::angle_sums_lanes(s, x, npoints, minangle, scale, near, out, len, acc);
  if (double_simd_level() == 1)
    return batch_avx2::angle_sums_lanes(s, x, npoints, minangle, scale, near, out, len, acc);
#endif
  batch_portable::angle_sums_lanes(s, x, npoints, minangle, scale, near, out, len, acc);
}
