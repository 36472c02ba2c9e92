// Float sums of double terms by index lists, eight sums side by side.
#include "numeric/indexed_sums.h"

#include <cstdlib>
#include <cstring>

#include "numeric/double_lanes.h"
#include "numeric/double_simd.h"

namespace {

constexpr int G = 8;  // sums per group

// Group g of the plan into out8[0 .. 7], one sum at a time.
void group_portable(const IndexedSums &p, const double *w, int g, float *out8) {
  const int *idx = p.idx + p.start[g];
  const int slots = (p.start[g + 1] - p.start[g]) / G;
  for (int l = 0; l < G; l++) {
    float acc = 0.0f;
    for (int s = 0; s < slots; s++) acc = (float)(acc + w[idx[G * s + l]]);
    out8[l] = acc;
  }
}

#if DOUBLE_LANES_X86
#pragma GCC push_options
#pragma GCC target("avx2,fma")
void group_avx2(const IndexedSums &p, const double *w, int g, float *out8) {
  const int *idx = p.idx + p.start[g];
  const int slots = (p.start[g + 1] - p.start[g]) / G;
  __m128 a0 = _mm_setzero_ps(), a1 = _mm_setzero_ps();
  for (int s = 0; s < slots; s++, idx += G) {
    const __m256d t0 = LanesAvx2::gather(w, idx), t1 = LanesAvx2::gather(w, idx + 4);
    a0 = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(a0), t0));
    a1 = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(a1), t1));
  }
  _mm_storeu_ps(out8, a0);
  _mm_storeu_ps(out8 + 4, a1);
}
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx512f")
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wpsabi"
void group_avx512(const IndexedSums &p, const double *w, int g, float *out8) {
  const int *idx = p.idx + p.start[g];
  const int slots = (p.start[g + 1] - p.start[g]) / G;
  __m256 a = _mm256_setzero_ps();
  for (int s = 0; s < slots; s++, idx += G) {
    const __m512d t = LanesAvx512::gather(w, idx);
    a = _mm512_cvtpd_ps(_mm512_add_pd(_mm512_cvtps_pd(a), t));
  }
  _mm256_storeu_ps(out8, a);
}
#pragma GCC diagnostic pop
#pragma GCC pop_options
#endif

}  // namespace

bool indexed_sums_make(IndexedSums *p, int n, int nterms, const int *target, const int *index, int zero_index) {
  *p = IndexedSums();
  const int ngroups = (n + G - 1) / G;
  int *count = static_cast<int *>(calloc(n > 0 ? n : 1, sizeof(int)));
  p->start = static_cast<int *>(malloc(sizeof(int) * (ngroups + 1)));
  if (!count || !p->start) {
    free(count);
    indexed_sums_free(p);
    return false;
  }
  for (int k = 0; k < nterms; k++) count[target[k]]++;
  // Each group as long as its longest sum.
  long long total = 0;
  for (int g = 0; g < ngroups; g++) {
    int slots = 0;
    for (int v = G * g; v < G * g + G && v < n; v++) slots = count[v] > slots ? count[v] : slots;
    p->start[g] = (int)total;
    total += (long long)G * slots;
  }
  p->start[ngroups] = (int)total;
  p->idx = total < (1ll << 31) ? static_cast<int *>(malloc(sizeof(int) * (total > 0 ? total : 1))) : nullptr;
  if (!p->idx) {
    free(count);
    indexed_sums_free(p);
    return false;
  }
  for (long long k = 0; k < total; k++) p->idx[k] = zero_index;
  // The terms in order, each into the next free slot of its sum.
  memset(count, 0, sizeof(int) * (n > 0 ? n : 1));
  for (int k = 0; k < nterms; k++) {
    const int v = target[k];
    p->idx[p->start[v / G] + G * count[v]++ + v % G] = index[k];
  }
  free(count);
  p->n = n;
  return true;
}

void indexed_sums_free(IndexedSums *p) {
  free(p->start);
  free(p->idx);
  *p = IndexedSums();
}

void indexed_sums(const IndexedSums &p, const double *w, float *out) {
  const int level = double_simd_level();
  (void)level;
  for (int g = 0; G * g < p.n; g++) {
    float part[G];
    float *dst = G * g + G <= p.n ? out + G * g : part;
#if DOUBLE_LANES_X86
    if (level == 2)
      group_avx512(p, w, g, dst);
    else if (level == 1)
      group_avx2(p, w, g, dst);
    else
#endif
      group_portable(p, w, g, dst);
    if (dst == part)
      for (int v = G * g; v < p.n; v++) out[v] = part[v - G * g];
  }
}
