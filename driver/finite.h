// Refusing results that are not numbers.  Single-precision sums of data
// near the top of the float range overflow, and data without any signal
// give 0/0; written out, such results would pass for a perfect fit or an
// exact transfer matrix.  They end the run instead.
#pragma once

// m[1..rows][1..cols] on input.  Returns normally when every value is
// finite; otherwise ends the run through error() with "<what> is not
// finite: ...".
void require_finite(float **m, int rows, int cols, const char *what);

// The same for one value.
void require_finite(float value, const char *what);
