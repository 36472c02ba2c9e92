// Instruction-set level of the double-precision vector kernels.
#include "numeric/double_simd.h"

#include "numeric/double_lanes.h"

namespace {

int detect_best() {
#if DOUBLE_LANES_X86
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return 2;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return 1;
#endif
  return 0;
}

const int best_level = detect_best();
int current_level = best_level;

}  // namespace

int double_simd_best() { return best_level; }

int double_simd_level() { return current_level; }

int double_simd_set_level(int level) {
  current_level = level < 0 || level > best_level ? best_level : level;
  return current_level;
}
