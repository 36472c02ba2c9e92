// The replay and back-substitution kernels of numeric/lukernels.h, compiled
// for three instruction-set levels and chosen at run time.  Every level
// performs the same IEEE operations on every value (fmaf for each update, a
// correctly rounded division for each exchange), so the level changes the
// speed and never a bit of the result.
#include "numeric/lukernels.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

// Let GCC vectorise loops of unknown length (with a scalar remainder).
#if defined(__GNUC__) && !defined(__clang__)
#define LOOPS_VECTORISED __attribute__((optimize("vect-cost-model=dynamic")))
#else
#define LOOPS_VECTORISED
#endif

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define LU_X86_KERNELS 1
#include <immintrin.h>
#else
#define LU_X86_KERNELS 0
#endif

// Eight rows of eight floats, src[j] + c .. + 7, become the eight columns of
// dst[j] + d .. + 7, entry by entry: for the levels whose body does not call
// it (FAST_TRANSPOSE8 false); AVX2 has its own in registers.
inline void transpose8(float *const *dst, int d, const float *const *src, int c) {
  for (int j = 0; j < 8; j++)
    for (int l = 0; l < 8; l++) dst[l][d + j] = src[j][c + l];
}

// Level 0: portable C++, one float per "vector".
namespace lu_portable {
struct V {
  using T = float;
  static constexpr int W = 1;
  static T load(const float *p) { return *p; }
  static void store(float *p, T v) { *p = v; }
  static T set1(float x) { return x; }
  static T fnmadd(T m, T s, T acc) { return fmaf(-m, s, acc); }
  static T exch(T t, T x, T m) { return t - x / m; }
  static T div(T x, T d) { return x / d; }
  static unsigned big(const float *p) { return !(fabsf(*p) <= 1.0f); }
  static unsigned swaps(T m) { return !(fabsf(m) <= 1.0f); }
  static T blend_range(int r, int e, T a, T b) { return r <= 0 && 0 < e ? a : b; }
};
constexpr int TILE_V = 4, ROWS = 4, BACK_V = 4, BLOCK_TILES = 16;
constexpr bool FAST_TRANSPOSE8 = false;
#include "numeric/lukernels_body.inc"
}  // namespace lu_portable

#if LU_X86_KERNELS
#pragma GCC push_options
#pragma GCC target("avx2,fma,prfchw")
namespace lu_avx2 {
struct V {
  using T = __m256;
  static constexpr int W = 8;
  static T load(const float *p) { return _mm256_loadu_ps(p); }
  static void store(float *p, T v) { _mm256_storeu_ps(p, v); }
  static T set1(float x) { return _mm256_set1_ps(x); }
  // -(m*s) + acc with one rounding: the same value as fmaf(-m, s, acc).
  static T fnmadd(T m, T s, T acc) { return _mm256_fnmadd_ps(m, s, acc); }
  static T exch(T t, T x, T m) { return _mm256_sub_ps(t, _mm256_div_ps(x, m)); }
  static T div(T x, T d) { return _mm256_div_ps(x, d); }
  static T abs(T x) { return _mm256_andnot_ps(_mm256_set1_ps(-0.0f), x); }
  static unsigned big(const float *p) {
    return (unsigned)_mm256_movemask_ps(_mm256_cmp_ps(abs(load(p)), _mm256_set1_ps(1.0f), _CMP_NLE_UQ));
  }
  static unsigned swaps(T m) {
    return (unsigned)_mm256_movemask_ps(_mm256_cmp_ps(abs(m), _mm256_set1_ps(1.0f), _CMP_NLE_UQ));
  }
  static T blend_range(int r, int e, T a, T b) {
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256i in = _mm256_and_si256(_mm256_cmpgt_epi32(lane, _mm256_set1_epi32(r - 1)),
                                  _mm256_cmpgt_epi32(_mm256_set1_epi32(e), lane));
    return _mm256_blendv_ps(b, a, _mm256_castsi256_ps(in));
  }
};
// The eight rows r[0 .. 7] of eight floats become the eight columns c[0 ..
// 7]: moves only, every bit kept.
inline void transpose8_registers(const __m256 (&r)[8], __m256 (&c)[8]) {
  __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]),
         t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]),
         t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]),
         t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
  __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE),
         u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE),
         u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE),
         u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
  c[0] = _mm256_permute2f128_ps(u0, u4, 0x20), c[1] = _mm256_permute2f128_ps(u1, u5, 0x20);
  c[2] = _mm256_permute2f128_ps(u2, u6, 0x20), c[3] = _mm256_permute2f128_ps(u3, u7, 0x20);
  c[4] = _mm256_permute2f128_ps(u0, u4, 0x31), c[5] = _mm256_permute2f128_ps(u1, u5, 0x31);
  c[6] = _mm256_permute2f128_ps(u2, u6, 0x31), c[7] = _mm256_permute2f128_ps(u3, u7, 0x31);
}

// Eight rows of eight floats, src[j] + c .. + 7, become the eight columns
// of dst[j] + d .. + 7.
inline void transpose8(float *const *dst, int d, const float *const *src, int c) {
  __m256 r[8], t[8];
  for (int j = 0; j < 8; j++) r[j] = _mm256_loadu_ps(src[j] + c);
  transpose8_registers(r, t);
  for (int j = 0; j < 8; j++) _mm256_storeu_ps(dst[j] + d, t[j]);
}

constexpr int TILE_V = 2, ROWS = 6, BACK_V = 8, BLOCK_TILES = 16;
constexpr bool FAST_TRANSPOSE8 = true;
#include "numeric/lukernels_body.inc"

void transpose_avx2(float *const *dst, int dcol, const float *const *src, int scol, int rows, int cols) {
  const int r8 = rows / 8 * 8, c8 = cols / 8 * 8;
  for (int i = 0; i < r8; i += 8)
    for (int l = 0; l < c8; l += 8) transpose8(dst + i, dcol + l, src + l, scol + i);
  // The edges, one at a time.
  for (int i = 0; i < rows; i++)
    for (int l = i < r8 ? c8 : 0; l < cols; l++) dst[i][dcol + l] = src[l][scol + i];
}

int forward_plain8(float *const *a, int i, int lo, int hi, const float *b, float *x) {
  const __m256 one = _mm256_set1_ps(1.0f);
  __m256 xv = _mm256_loadu_ps(x);
  int k = lo;
  for (; k + 7 <= hi; k += 8) {
    __m256 m[8], c[8], big = _mm256_setzero_ps();
    for (int q = 0; q < 8; q++) {
      m[q] = _mm256_loadu_ps(a[i + q] + k);
      big = _mm256_or_ps(big, _mm256_cmp_ps(V::abs(m[q]), one, _CMP_GT_OQ));
    }
    if (_mm256_movemask_ps(big)) break;
    transpose8_registers(m, c);
    for (int j = 0; j < 8; j++) xv = _mm256_fnmadd_ps(c[j], _mm256_set1_ps(b[k + j]), xv);
  }
  _mm256_storeu_ps(x, xv);
  return k;
}
}  // namespace lu_avx2
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx512f")
namespace lu_avx512 {
struct V {
  using T = __m512;
  static constexpr int W = 16;
  static T load(const float *p) { return _mm512_loadu_ps(p); }
  static void store(float *p, T v) { _mm512_storeu_ps(p, v); }
  static T set1(float x) { return _mm512_set1_ps(x); }
  static T fnmadd(T m, T s, T acc) { return _mm512_fnmadd_ps(m, s, acc); }
  static T exch(T t, T x, T m) { return _mm512_sub_ps(t, _mm512_div_ps(x, m)); }
  static T div(T x, T d) { return _mm512_div_ps(x, d); }
  static unsigned big(const float *p) {
    return _mm512_cmp_ps_mask(_mm512_abs_ps(load(p)), _mm512_set1_ps(1.0f), _CMP_NLE_UQ);
  }
  static unsigned swaps(T m) { return _mm512_cmp_ps_mask(_mm512_abs_ps(m), _mm512_set1_ps(1.0f), _CMP_NLE_UQ); }
  static T blend_range(int r, int e, T a, T b) {
    __mmask16 in = (__mmask16)(((1u << e) - 1) & ~((1u << r) - 1));
    return _mm512_mask_blend_ps(in, b, a);
  }
};
constexpr int TILE_V = 4, ROWS = 6, BACK_V = 8, BLOCK_TILES = 16;
constexpr bool FAST_TRANSPOSE8 = false;
#include "numeric/lukernels_body.inc"
}  // namespace lu_avx512
#pragma GCC pop_options
#endif

namespace {

int detect_best() {
#if LU_X86_KERNELS
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return 2;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return 1;
#endif
  return 0;
}

const int best_level = detect_best();
int current_level = best_level;

}  // namespace

int lu_simd_best() { return best_level; }
int lu_simd_level() { return current_level; }

int lu_set_simd_level(int level) {
  if (level < 0 || level > best_level) level = best_level;
  current_level = level;
  return current_level;
}

// The same call at the level in force.
#if LU_X86_KERNELS
#define AT_LEVEL(call) \
  (current_level == 2 ? lu_avx512::call : current_level == 1 ? lu_avx2::call : lu_portable::call)
#else
#define AT_LEVEL(call) (lu_portable::call)
#endif

int replay_tile_cols() { return AT_LEVEL(TW); }

int replay_lanes() { return AT_LEVEL(V::W); }

size_t replay_work_floats(int npiv) { return AT_LEVEL(work_floats(npiv)); }

size_t replay_packed_floats(int nrows, int npiv) { return AT_LEVEL(packed_floats(nrows, npiv)); }

void replay_pack(float *const *mul, int lo, int hi, int k0, int k1, float *packed) {
  if (hi >= lo && k1 >= k0) AT_LEVEL(pack(mul, lo, hi, k0, k1, packed));
}

void factor_base_columns(float *const *a, int n, int k0, int k1, unsigned char *unplain) {
  if (k1 >= k0) AT_LEVEL(factor_base(a, n, k0, k1, unplain));
}

void replay_steps(const StepReplay &p, float *work) {
  if (p.k1 >= p.k0 && p.ncols > 0) AT_LEVEL(replay(p, work));
}

void replay_marks(const StepReplay &p, ReplayMarks *m) { AT_LEVEL(marks(p, m)); }

int back_block_rows() { return AT_LEVEL(BACK_KB); }

size_t back_pack_floats(int width) { return AT_LEVEL(back_pack_floats(width)); }

void back_solve_block(float *const *a, int r0, int r1, float *const *s, int width, float *pack) {
  if (r1 >= r0 && width > 0) AT_LEVEL(back_solve_block(a, r0, r1, s, width, pack));
}

void back_take_terms(float *const *a, int lo, int hi, int r0, int r1, float *const *s, int width, float *pack) {
  if (hi >= lo && r1 >= r0 && width > 0) AT_LEVEL(back_terms_rows(a, lo, hi, r0, r1, s, width, pack));
}

void transpose_floats(float *const *dst, int dcol, const float *const *src, int scol, int rows, int cols) {
#if LU_X86_KERNELS
  if (current_level >= 1) return lu_avx2::transpose_avx2(dst, dcol, src, scol, rows, cols);
#endif
  for (int i = 0; i < rows; i++)
    for (int l = 0; l < cols; l++) dst[i][dcol + l] = src[l][scol + i];
}

int forward_plain_stretches(float *const *a, int i, int lo, int hi, const float *b, float *x) {
#if LU_X86_KERNELS
  if (current_level >= 1) return lu_avx2::forward_plain8(a, i, lo, hi, b, x);
#endif
  return lo;
}
