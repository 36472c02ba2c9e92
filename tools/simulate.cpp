// simulate: measured-like data from a transfer matrix and dipole moments.
//
//   simulate [-n NOISE] [-s SEED] TRANSFER.mat DATA.mat M1 M2 ... Mk
//
// TRANSFER is a transfer matrix written by brelix (electrodes x k source
// components); the data are TRANSFER x (M1..Mk), one sample, plus white
// Gaussian noise of standard deviation NOISE.  The file's tail records a
// sample frequency of 1000 Hz.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "matrixio/matrix.h"
#include "numeric/nrutils.h"

static int usage() {
  fputs("usage: simulate [-n NOISE] [-s SEED] TRANSFER.mat DATA.mat M1 M2 ... Mk\n", stderr);
  return 2;
}

int main(int argc, char **argv) {
  double noise = 0;
  unsigned seed = 1;
  int i = 1;
  for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
    if (!strcmp(argv[i], "-n"))
      noise = atof(argv[i + 1]);
    else if (!strcmp(argv[i], "-s"))
      seed = (unsigned)atol(argv[i + 1]);
    else
      return usage();
  }
  if (argc - i < 3) return usage();
  int R, C, tail_len;
  char *tail;
  float **t = gettailmatrix(argv[i], &R, &C, &tail_len, &tail);
  if (!t) return 1;
  free(tail);
  if (argc - i - 2 != C) {
    fprintf(stderr, "simulate: %s has %d columns; give %d moments\n", argv[i], C, C);
    return 2;
  }
  std::mt19937 rng(seed);
  std::normal_distribution<double> gauss(0, 1);
  float **data = matrix(1, R, 1, 1);
  if (!data) return 1;
  for (int e = 1; e <= R; e++) {
    double v = 0;
    for (int c = 1; c <= C; c++) v += t[e][c] * atof(argv[i + 1 + c]);
    data[e][1] = (float)(v + noise * gauss(rng));
  }
  const std::string item = "sample freq\n1000 Hz\n";
  if (!binputtailmatrix(argv[i + 1], data, R, 1, (int)item.size(), item.data())) return 1;
  printf("%s: %d electrodes, 1 sample, noise %g\n", argv[i + 1], R, noise);
  return 0;
}
