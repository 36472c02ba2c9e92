// The measured potentials of an inverse run and the whole-problem
// constraint kind when the source file gave none.
#pragma once

#include "forwinv/forwinv.h"

// Ask for the measured data file until one fits the electrodes.
// On input:  nel (the number of electrodes).
// On output: returns the data matrix [1..nel][1..ntim], average-referenced,
//            or nullptr when the user gave an empty answer; sets ntim and
//            shift[1..ntim] (the subtracted means) for a matrix, and
//            *sampfreq to the file's "sample freq" item or -1.0.
float **get_measured(float *sampfreq);

// Ask "Fixed / Stationary / Moving" and set the constraint bits, nl and nn
// of every record of the global table source[0..nsource-1].
// Returns 0 (fixed), 1 (stationary) or 2 (moving).
int get_constraint();
