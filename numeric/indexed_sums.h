// Float sums of double terms picked by index lists, many sums at once.
//
// Sum v is formed as a float accumulator that starts at +0 and takes its
// terms w[index] one after the other, each addition done in double and
// rounded back to float: exactly what "entry = (float)(entry + term)" in a
// loop over the terms gives.  The sums are independent of each other, so
// eight of them advance side by side in vector lanes (vector gathers of the
// terms), at the instruction-set level of numeric/double_simd.h; every level
// gives the same bits, because each sum still takes its terms in its own
// order.
#pragma once

// The terms of every sum, eight sums to a group, slot by slot: term s of sum
// 8g + l is w[idx[start[g] + 8 s + l]]; sums with fewer terms than the
// longest of their group are padded with an index of a zero term.
struct IndexedSums {
  int n = 0;
  int *start = nullptr;  // [0 .. ngroups], ngroups = (n + 7) / 8
  int *idx = nullptr;
};

// p: on output the plan for n sums and nterms terms, term k adding
//   w[index[k]] to sum target[k] (0 <= target[k] < n), the terms of each sum
//   in increasing k; zero_index: an index at which w will hold +0.
// Returns false (p left empty) when the memory cannot be had.
bool indexed_sums_make(IndexedSums *p, int n, int nterms, const int *target, const int *index, int zero_index);
// Frees what indexed_sums_make allocated; p is left empty.
void indexed_sums_free(IndexedSums *p);

// p: the plan; w: the terms (w[zero_index] must be +0).
// out: on output out[v], v < p.n, holds sum v.
void indexed_sums(const IndexedSums &p, const double *w, float *out);
