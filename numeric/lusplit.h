// The one-vector passes of ludec's condition estimate on two threads.
//
// Each pass walks a triangle of the factors row by row, and each entry it
// changes meets its operations in a fixed order.  Cut at a column K, a pass
// becomes two stages: one thread does every operation on the entries on
// one side of K, the other those on the other side, row by row, the second
// stage taking each row's running entry from the first through a counter of
// the rows handed over.  No entry is worked on by both, so every value is
// bit for bit that of the one-thread pass (numeric/ludec.h, lusteps.h);
// each thread reads about half of the triangle.
#pragma once

// Order below which the passes stay on one thread (a thread costs more than
// it saves).
constexpr int SPLIT_MIN_N = 1024;

// The same arguments and results as estimate_start, tsolvel, solvel and
// solveu; any n.  Without a second thread the stages run one after the other.
void estimate_start_split(float **a, int n, float *y, double *sum);
void tsolvel_split(float **a, int n, float *y);
void solvel_split(float **a, int n, float *b);
void solveu_split(float **a, int n, float *b);
