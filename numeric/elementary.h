// The project's own atan2 and log in double precision.
//
// The C library's functions may give different last bits on different
// systems and are out of reach of vector code; these are polynomial
// approximations with range reduction, within about one unit in the last
// place, whose vectorised forms (numeric/elementary_body.inc instantiated
// at a vector width) give exactly the same bits in every lane.  Whatever
// computes with them therefore gets the same results from its plain loops
// and its vector kernels, on every processor.
#pragma once

// y, x: any doubles.  Returns the angle of (x, y) from the positive x axis
// in [-pi, pi], as atan2(y, x) defines it (signed zeros, infinities and NaN
// included).
double elem_atan2(double y, double x);

// The short road to small angles that the assembly takes for far
// triangles: returns whether it applies to (y, x) (x in [2^-600, 2^1000],
// |y| at most 0.0509 x, and 0 or at least 2^-900), and then *angle =
// elem_atan2(y, x), bit for bit.
bool elem_atan2_small(double y, double x, double *angle);

// x: any double.  Returns the natural logarithm of x; -inf at 0, NaN below
// 0 and for NaN, +inf at +inf.
double elem_log(double x);

// n values at once with the vector instructions of the level in force
// (numeric/double_simd.h), the same bits as the functions above:
// out[k] = elem_atan2(y[k], x[k]), out[k] = elem_log(x[k]) for k < n.
void elem_atan2_many(const double *y, const double *x, double *out, int n);
void elem_log_many(const double *x, double *out, int n);
