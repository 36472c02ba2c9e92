// The source table: reading the source position file with its constraint
// lines, the layout of linear and nonlinear fit parameters, the first
// estimate of stationary orientations, and the orientation-angle helpers.
#pragma once

#include "forwinv/forwinv.h"

// Read the source position file `filename` (text: the number of sources,
// one "number x y z" line per source, then constraint lines).
// On input:  filename names the file; the other arguments are only written.
// On output: returns 1 after printing "<file> defines <n> source(s)" with
//            *nsource, *source (a new zero-filled table of *nsource records,
//            freed with free()) and *constraint (-1, 0, 1 or 2) set;
//            returns 0 after printing why the file was refused (the three
//            outputs are then left as they were; the file is closed and
//            nothing stays allocated).
// Inconsistent symmetry constraints are fatal (error()).
int init_dip(const char *filename, int *nsource, SourceRecord **source, int *constraint);

// Number the fit parameters of the global table source[0..nsource-1].
// On input:  nl, nn and the constraint bits of every record.
// On output: lindex, pindex, oindex of every record, and nlpar, nnpar.
void get_nn_nl();

// First estimate of the stationary orientations from the all-free linear
// solution.
// On input:  d[1..3*nsource][1..ntim]: rows 3i+1..3i+3 hold the moment
//            x, y, z of source i (zero-based) for every sample.
// On output: theta and alfa of every source with ori_stationary.
// Returns 1 when any source has a stationary orientation, else 0.
int init_ori(int nsource, int ntim, SourceRecord *source, float **d);

// Bring an orientation back to theta in [0, pi], alfa in [-pi, pi] (one
// step each way; angles more than a turn off are not fully reduced).
// On input and output: angles[0] = theta, angles[1] = alfa.
void correct_alfa_theta(float *angles);

// Mirror the direction (alfa, theta) in place across a plane perpendicular
// to coordinate `axis` (0 x, 1 y, 2 z; any other value: unchanged).
void trans_alfa_theta(float *alfa, float *theta, int axis);
