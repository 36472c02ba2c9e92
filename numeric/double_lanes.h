// Lanes of doubles: the operations that the elementary functions
// (numeric/elementary_body.inc) and the vectorised geometric kernels are
// written in, for one double (portable C++), four (AVX2 with FMA) and eight
// (AVX-512).
//
// Every operation is one correctly rounded IEEE operation or an exact one
// (selection, sign and bit manipulation), defined alike at every width:
// code written in these operations gives the same bits in every lane of
// every width, which is what lets the assembly choose its instruction set at
// run time without changing a single result.  Comparisons are ordered (false
// when an operand is NaN); max and min follow the x86 rule (the second
// operand when the first is not larger, or smaller, NaN included).
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define DOUBLE_LANES_X86 1
#include <immintrin.h>
#else
#define DOUBLE_LANES_X86 0
#endif

// Code written for LanesAvx2 (LanesAvx2x2) or LanesAvx512 goes between the
// BEGIN and END of its level: the instruction set for the compiler, and for
// AVX-512 GCC 12's warnings turned off that its intrinsics start results
// from an undefined register and pass vectors the other levels do not have.
#define DOUBLE_LANES_AVX2_BEGIN _Pragma("GCC push_options") _Pragma("GCC target(\"avx2,fma\")")
#define DOUBLE_LANES_AVX2_END _Pragma("GCC pop_options")
#define DOUBLE_LANES_AVX512_BEGIN                                                                        \
  _Pragma("GCC push_options") _Pragma("GCC target(\"avx512f\")") _Pragma("GCC diagnostic push")          \
      _Pragma("GCC diagnostic ignored \"-Wuninitialized\"")                                              \
          _Pragma("GCC diagnostic ignored \"-Wmaybe-uninitialized\"") _Pragma("GCC diagnostic ignored \"-Wpsabi\"")
#define DOUBLE_LANES_AVX512_END _Pragma("GCC diagnostic pop") _Pragma("GCC pop_options")

// One double.
struct LanesScalar {
  using T = double;
  using M = bool;
  static constexpr int W = 1;
  static T set1(double a) { return a; }
  static T load(const double *p) { return *p; }
  static T loadf(const float *p) { return (double)*p; }
  static void store(double *p, T a) { *p = a; }
  static void storef(float *p, T a) { *p = (float)a; }
  static T add(T a, T b) { return a + b; }
  static T sub(T a, T b) { return a - b; }
  static T mul(T a, T b) { return a * b; }
  static T div(T a, T b) { return a / b; }
  static T fma(T a, T b, T c) { return std::fma(a, b, c); }
  static T sqrt(T a) { return std::sqrt(a); }
  static T abs(T a) { return std::fabs(a); }
  static T max(T a, T b) { return a > b ? a : b; }
  static T min(T a, T b) { return a < b ? a : b; }
  static T copysign(T mag, T sgn) { return std::copysign(mag, sgn); }
  static M lt(T a, T b) { return a < b; }
  static M le(T a, T b) { return a <= b; }
  static M gt(T a, T b) { return a > b; }
  static M eq(T a, T b) { return a == b; }
  static M unord(T a, T b) { return std::isnan(a) || std::isnan(b); }
  static M signbit(T a) { return std::signbit(a); }
  static M mand(M a, M b) { return a && b; }
  static M mor(M a, M b) { return a || b; }
  static M mxor(M a, M b) { return a != b; }
  static M mnot(M a) { return !a; }
  static T select(M m, T a, T b) { return m ? a : b; }
  // a with its sign reversed where m is set.
  static T flip(T a, M m) { return m ? -a : a; }
  static unsigned bits(M m) { return m ? 1u : 0u; }
  // The biased exponent field of a, as a double (0 .. 2047).
  static T exponent_field(T a) { return (double)(std::bit_cast<uint64_t>(a) >> 52 & 0x7ff); }
  // a with its exponent field replaced by that of 1.0: the significand in [1, 2).
  static T significand(T a) {
    return std::bit_cast<double>((std::bit_cast<uint64_t>(a) & 0x000fffffffffffffull) | 0x3ff0000000000000ull);
  }
};

#if DOUBLE_LANES_X86
DOUBLE_LANES_AVX2_BEGIN
// Four doubles; masks are lanes of all ones or all zeros.
struct LanesAvx2 {
  using T = __m256d;
  using M = __m256d;
  static constexpr int W = 4;
  static T set1(double a) { return _mm256_set1_pd(a); }
  static T load(const double *p) { return _mm256_loadu_pd(p); }
  static T loadf(const float *p) { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }
  static void store(double *p, T a) { _mm256_storeu_pd(p, a); }
  static void storef(float *p, T a) { _mm_storeu_ps(p, _mm256_cvtpd_ps(a)); }
  static T add(T a, T b) { return _mm256_add_pd(a, b); }
  static T sub(T a, T b) { return _mm256_sub_pd(a, b); }
  static T mul(T a, T b) { return _mm256_mul_pd(a, b); }
  static T div(T a, T b) { return _mm256_div_pd(a, b); }
  static T fma(T a, T b, T c) { return _mm256_fmadd_pd(a, b, c); }
  static T sqrt(T a) { return _mm256_sqrt_pd(a); }
  static T abs(T a) { return _mm256_andnot_pd(_mm256_set1_pd(-0.0), a); }
  static T max(T a, T b) { return _mm256_max_pd(a, b); }
  static T min(T a, T b) { return _mm256_min_pd(a, b); }
  static T copysign(T mag, T sgn) {
    const T s = _mm256_set1_pd(-0.0);
    return _mm256_or_pd(_mm256_andnot_pd(s, mag), _mm256_and_pd(s, sgn));
  }
  static M lt(T a, T b) { return _mm256_cmp_pd(a, b, _CMP_LT_OQ); }
  static M le(T a, T b) { return _mm256_cmp_pd(a, b, _CMP_LE_OQ); }
  static M gt(T a, T b) { return _mm256_cmp_pd(a, b, _CMP_GT_OQ); }
  static M eq(T a, T b) { return _mm256_cmp_pd(a, b, _CMP_EQ_OQ); }
  static M unord(T a, T b) { return _mm256_cmp_pd(a, b, _CMP_UNORD_Q); }
  // The sign bit spread over its lane: the upper half's sign, shifted
  // arithmetically, copied into both halves.
  static M signbit(T a) {
    return _mm256_castsi256_pd(_mm256_shuffle_epi32(_mm256_srai_epi32(_mm256_castpd_si256(a), 31), 0xf5));
  }
  static M mand(M a, M b) { return _mm256_and_pd(a, b); }
  static M mor(M a, M b) { return _mm256_or_pd(a, b); }
  static M mxor(M a, M b) { return _mm256_xor_pd(a, b); }
  static M mnot(M a) { return _mm256_xor_pd(a, _mm256_castsi256_pd(_mm256_set1_epi64x(-1))); }
  static T select(M m, T a, T b) { return _mm256_blendv_pd(b, a, m); }
  static T flip(T a, M m) { return _mm256_xor_pd(a, _mm256_and_pd(m, _mm256_set1_pd(-0.0))); }
  static unsigned bits(M m) { return (unsigned)_mm256_movemask_pd(m); }
  static T exponent_field(T a) {
    // The field under the exponent of 2^52 is exact: 2^52 + field - 2^52.
    const __m256i e = _mm256_srli_epi64(_mm256_castpd_si256(a), 52);
    const __m256i f = _mm256_and_si256(e, _mm256_set1_epi64x(0x7ff));
    const T big = _mm256_castsi256_pd(_mm256_or_si256(f, _mm256_set1_epi64x(0x4330000000000000ll)));
    return _mm256_sub_pd(big, _mm256_set1_pd(4503599627370496.0));
  }
  static T significand(T a) {
    const __m256i m = _mm256_and_si256(_mm256_castpd_si256(a), _mm256_set1_epi64x(0x000fffffffffffffll));
    return _mm256_castsi256_pd(_mm256_or_si256(m, _mm256_set1_epi64x(0x3ff0000000000000ll)));
  }
};

// Two vectors of B side by side, operated on alike: twice the lanes, and
// two independent chains of dependent operations for the processor to
// overlap where one alone would leave it waiting for results.
template <class B>
struct LanesTwice {
  struct T {
    typename B::T lo, hi;
  };
  struct M {
    typename B::M lo, hi;
  };
  static constexpr int W = 2 * B::W;
  static T set1(double a) { return {B::set1(a), B::set1(a)}; }
  static T load(const double *p) { return {B::load(p), B::load(p + B::W)}; }
  static T loadf(const float *p) { return {B::loadf(p), B::loadf(p + B::W)}; }
  static void store(double *p, T a) { B::store(p, a.lo), B::store(p + B::W, a.hi); }
  static void storef(float *p, T a) { B::storef(p, a.lo), B::storef(p + B::W, a.hi); }
  static T add(T a, T b) { return {B::add(a.lo, b.lo), B::add(a.hi, b.hi)}; }
  static T sub(T a, T b) { return {B::sub(a.lo, b.lo), B::sub(a.hi, b.hi)}; }
  static T mul(T a, T b) { return {B::mul(a.lo, b.lo), B::mul(a.hi, b.hi)}; }
  static T div(T a, T b) { return {B::div(a.lo, b.lo), B::div(a.hi, b.hi)}; }
  static T fma(T a, T b, T c) { return {B::fma(a.lo, b.lo, c.lo), B::fma(a.hi, b.hi, c.hi)}; }
  static T sqrt(T a) { return {B::sqrt(a.lo), B::sqrt(a.hi)}; }
  static T abs(T a) { return {B::abs(a.lo), B::abs(a.hi)}; }
  static T max(T a, T b) { return {B::max(a.lo, b.lo), B::max(a.hi, b.hi)}; }
  static T min(T a, T b) { return {B::min(a.lo, b.lo), B::min(a.hi, b.hi)}; }
  static T copysign(T a, T b) { return {B::copysign(a.lo, b.lo), B::copysign(a.hi, b.hi)}; }
  static M lt(T a, T b) { return {B::lt(a.lo, b.lo), B::lt(a.hi, b.hi)}; }
  static M le(T a, T b) { return {B::le(a.lo, b.lo), B::le(a.hi, b.hi)}; }
  static M gt(T a, T b) { return {B::gt(a.lo, b.lo), B::gt(a.hi, b.hi)}; }
  static M eq(T a, T b) { return {B::eq(a.lo, b.lo), B::eq(a.hi, b.hi)}; }
  static M unord(T a, T b) { return {B::unord(a.lo, b.lo), B::unord(a.hi, b.hi)}; }
  static M signbit(T a) { return {B::signbit(a.lo), B::signbit(a.hi)}; }
  static M mand(M a, M b) { return {B::mand(a.lo, b.lo), B::mand(a.hi, b.hi)}; }
  static M mor(M a, M b) { return {B::mor(a.lo, b.lo), B::mor(a.hi, b.hi)}; }
  static M mxor(M a, M b) { return {B::mxor(a.lo, b.lo), B::mxor(a.hi, b.hi)}; }
  static M mnot(M a) { return {B::mnot(a.lo), B::mnot(a.hi)}; }
  static T select(M m, T a, T b) { return {B::select(m.lo, a.lo, b.lo), B::select(m.hi, a.hi, b.hi)}; }
  static T flip(T a, M m) { return {B::flip(a.lo, m.lo), B::flip(a.hi, m.hi)}; }
  static unsigned bits(M m) { return B::bits(m.lo) | B::bits(m.hi) << B::W; }
  static T exponent_field(T a) { return {B::exponent_field(a.lo), B::exponent_field(a.hi)}; }
  static T significand(T a) { return {B::significand(a.lo), B::significand(a.hi)}; }
};

// Eight doubles as two vectors of four.
using LanesAvx2x2 = LanesTwice<LanesAvx2>;
DOUBLE_LANES_AVX2_END

DOUBLE_LANES_AVX512_BEGIN
// Eight doubles; masks are bit masks.
struct LanesAvx512 {
  using T = __m512d;
  using M = __mmask8;
  static constexpr int W = 8;
  static T set1(double a) { return _mm512_set1_pd(a); }
  static T load(const double *p) { return _mm512_loadu_pd(p); }
  static T loadf(const float *p) { return _mm512_cvtps_pd(_mm256_loadu_ps(p)); }
  static void store(double *p, T a) { _mm512_storeu_pd(p, a); }
  static void storef(float *p, T a) { _mm256_storeu_ps(p, _mm512_cvtpd_ps(a)); }
  static T add(T a, T b) { return _mm512_add_pd(a, b); }
  static T sub(T a, T b) { return _mm512_sub_pd(a, b); }
  static T mul(T a, T b) { return _mm512_mul_pd(a, b); }
  static T div(T a, T b) { return _mm512_div_pd(a, b); }
  static T fma(T a, T b, T c) { return _mm512_fmadd_pd(a, b, c); }
  static T sqrt(T a) { return _mm512_sqrt_pd(a); }
  static T abs(T a) { return _mm512_abs_pd(a); }
  static T max(T a, T b) { return _mm512_max_pd(a, b); }
  static T min(T a, T b) { return _mm512_min_pd(a, b); }
  static T copysign(T mag, T sgn) {
    const __m512i s = _mm512_set1_epi64(INT64_MIN);
    return _mm512_castsi512_pd(_mm512_or_si512(_mm512_andnot_si512(s, _mm512_castpd_si512(mag)),
                                               _mm512_and_si512(s, _mm512_castpd_si512(sgn))));
  }
  static M lt(T a, T b) { return _mm512_cmp_pd_mask(a, b, _CMP_LT_OQ); }
  static M le(T a, T b) { return _mm512_cmp_pd_mask(a, b, _CMP_LE_OQ); }
  static M gt(T a, T b) { return _mm512_cmp_pd_mask(a, b, _CMP_GT_OQ); }
  static M eq(T a, T b) { return _mm512_cmp_pd_mask(a, b, _CMP_EQ_OQ); }
  static M unord(T a, T b) { return _mm512_cmp_pd_mask(a, b, _CMP_UNORD_Q); }
  static M signbit(T a) { return _mm512_test_epi64_mask(_mm512_castpd_si512(a), _mm512_set1_epi64(INT64_MIN)); }
  static M mand(M a, M b) { return (M)(a & b); }
  static M mor(M a, M b) { return (M)(a | b); }
  static M mxor(M a, M b) { return (M)(a ^ b); }
  static M mnot(M a) { return (M)~a; }
  static T select(M m, T a, T b) { return _mm512_mask_blend_pd(m, b, a); }
  static T flip(T a, M m) {
    return _mm512_castsi512_pd(
        _mm512_mask_xor_epi64(_mm512_castpd_si512(a), m, _mm512_castpd_si512(a), _mm512_set1_epi64(INT64_MIN)));
  }
  static unsigned bits(M m) { return (unsigned)m; }
  static T exponent_field(T a) {
    const __m512i e = _mm512_and_si512(_mm512_srli_epi64(_mm512_castpd_si512(a), 52), _mm512_set1_epi64(0x7ff));
    const T big = _mm512_castsi512_pd(_mm512_or_si512(e, _mm512_set1_epi64(0x4330000000000000ll)));
    return _mm512_sub_pd(big, _mm512_set1_pd(4503599627370496.0));
  }
  static T significand(T a) {
    const __m512i m = _mm512_and_si512(_mm512_castpd_si512(a), _mm512_set1_epi64(0x000fffffffffffffll));
    return _mm512_castsi512_pd(_mm512_or_si512(m, _mm512_set1_epi64(0x3ff0000000000000ll)));
  }
};
DOUBLE_LANES_AVX512_END
#endif
