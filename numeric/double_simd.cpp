// Instruction-set level of the double-precision vector kernels.
#include "numeric/double_simd.h"

#include "numeric/lukernels.h"

// The processor offers these kernels the same three levels, found by the
// same tests, as the LU kernels: their detection serves both.
namespace {

int current_level = -1;  // -1: the best there is

}  // namespace

int double_simd_best() { return lu_simd_best(); }

int double_simd_level() { return current_level < 0 ? lu_simd_best() : current_level; }

int double_simd_set_level(int level) {
  current_level = level < 0 || level > double_simd_best() ? double_simd_best() : level;
  return current_level;
}
