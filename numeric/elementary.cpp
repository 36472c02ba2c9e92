// The project's atan2 and log: the scalar functions and the vectorised
// ones, compiled for three instruction-set levels.
#include "numeric/elementary.h"

#include "numeric/double_lanes.h"
#include "numeric/double_simd.h"

namespace elementary_scalar {
using V = LanesScalar;
#include "numeric/elementary_body.inc"
}  // namespace elementary_scalar

#if DOUBLE_LANES_X86
DOUBLE_LANES_AVX2_BEGIN
namespace elementary_avx2 {
using V = LanesAvx2;
#include "numeric/elementary_body.inc"
}  // namespace elementary_avx2
DOUBLE_LANES_AVX2_END

DOUBLE_LANES_AVX512_BEGIN
namespace elementary_avx512 {
using V = LanesAvx512;
#include "numeric/elementary_body.inc"
}  // namespace elementary_avx512
DOUBLE_LANES_AVX512_END
#endif

double elem_atan2(double y, double x) { return elementary_scalar::atan2_lanes(y, x); }

bool elem_atan2_small(double y, double x, double *angle) {
  bool ok;
  *angle = elementary_scalar::atan2_lanes_small(y, x, &ok);
  return ok;
}

double elem_log(double x) { return elementary_scalar::log_lanes(x); }

void elem_atan2_many(const double *y, const double *x, double *out, int n) {
  int k = 0;
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) k = elementary_avx512::atan2_many_lanes(y, x, out, n);
  if (double_simd_level() == 1) k = elementary_avx2::atan2_many_lanes(y, x, out, n);
#endif
  for (; k < n; k++) out[k] = elem_atan2(y[k], x[k]);
}

void elem_log_many(const double *x, double *out, int n) {
  int k = 0;
#if DOUBLE_LANES_X86
  if (double_simd_level() == 2) k = elementary_avx512::log_many_lanes(x, out, n);
  if (double_simd_level() == 1) k = elementary_avx2::log_many_lanes(x, out, n);
#endif
  for (; k < n; k++) out[k] = elem_log(x[k]);
}
