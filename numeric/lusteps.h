// Pieces of the one-vector passes over the factors of ludec
// (numeric/ludec.h), each over a range of pivots or unknowns: the
// one-thread passes (numeric/ludec.cpp) take the whole range at once, their
// two-thread forms (numeric/lusplit.h) split it between the threads.  Every
// entry meets the same operations in the same order either way.
#pragma once

// Rows handled together by the forward and back passes: that many
// independent chains of operations side by side.
constexpr int STEP_GROUP = 8;

// Rows i, i-1 .. i-rows+1 of the factors (rows 1 or STEP_GROUP), yi[0 ..
// rows-1] their running entries: their transposed steps for pivots k = hi
// down to lo (all below the rows), on y[k] and yi, each entry meeting the
// rows in that order.
void transposed_steps_rows(float *const *a, int i, int rows, float *yi, float *y, int hi, int lo);
// The same rows whole: their running entries taken from y, the steps among
// themselves, then those of pivots i-rows down to lo; the entries they end
// with go to out[i-rows+1 .. i].
void transposed_rows(float *const *a, int i, int rows, float *y, int lo, float *out);

// Rows i .. i+rows-1 of the factors (rows 1 or STEP_GROUP), x[0 .. rows-1]
// their running entries, b the pivots' entries.  Every pivot k = lo .. hi
// (all below i) meets the rows in turn: on output x and b[lo .. hi] hold
// the entries after those steps.
void forward_steps(float *const *a, int i, int rows, int lo, int hi, float *b, float *x);
// The steps among the rows i .. i+rows-1 themselves (pivots i .. i+rows-2)
// on x[0 .. rows-1].
void forward_steps_within(float *const *a, int i, int rows, float *x);

// Rows i, i-1 .. i-rows+1 of the factors (rows 1 or STEP_GROUP), s[0 ..
// rows-1] their running sums: the terms of the unknowns b[j], j = hi down to
// lo (all above i), taken off in that order.
void back_terms(float *const *a, int i, int rows, int hi, int lo, const float *b, float *s);
// The terms among those rows themselves, each row's last, then its
// division: b[i-q] = the unknown of row i-q.
void back_within(float *const *a, int i, int rows, float *b, float *s);

// The estimate's first pass: y[1..n] on output with y[j] =
// growing_entry(sum of y[k] a[k][j] over k < j, a[j][j]), each sum formed
// in double in increasing k; sum[1..n] is work space.  Row k of U is added
// to all later sums as soon as y[k] is known, so U is read along its rows.
void estimate_start(float **a, int n, float *y, double *sum);

// Rows j .. j+rows-1 of U (rows 1 or STEP_GROUP), whose terms every sum
// from j on already holds for the rows before j: their entries y[j ..
// j+rows-1], each row's terms added to the sums of the later rows among
// them as soon as its entry is known.
void estimate_rows(float *const *a, int j, int rows, float *y, double *sum);
// sum[lo .. hi] += y[j+q] * row j+q [lo .. hi] for q = 0 .. rows-1 in that
// order, in double (each product is exact); the rows are read side by side.
void add_scaled_rows(double *sum, float *const *a, int j, int rows, const float *y, int lo, int hi);
// The estimate's first entry from its running sum and the diagonal of U:
// the sign chosen that makes it grow.
inline float growing_entry(double sum, float diagonal) {
  const float s = (float)sum;
  return (s >= 0.0f ? -1.0f - s : 1.0f - s) / diagonal;
}
