// matdump: show a matrix file -- its size, its numbers and its text tail.
//
//   matdump [-n ROWS] FILE
//
// At most ROWS rows (default 8) and 8 columns are printed.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "matrixio/matrix.h"
#include "numeric/nrutils.h"

int main(int argc, char **argv) {
  int maxrows = 8;
  int i = 1;
  if (argc == 4 && !strcmp(argv[1], "-n")) {
    maxrows = atoi(argv[2]);
    i = 3;
  }
  if (argc - i != 1) {
    fputs("usage: matdump [-n ROWS] FILE\n", stderr);
    return 2;
  }
  int R, C, tail_len;
  char *tail;
  float **m = gettailmatrix(argv[i], &R, &C, &tail_len, &tail);
  if (!m) return 1;
  printf("%s: %d x %d\n", argv[i], R, C);
  for (int r = 1; r <= R && r <= maxrows; r++) {
    for (int c = 1; c <= C && c <= 8; c++) printf(" %11.4e", m[r][c]);
    printf(C > 8 ? "  ...\n" : "\n");
  }
  if (R > maxrows) printf("  ... (%d more rows)\n", R - maxrows);
  if (tail_len > 0) printf("tail:\n%.*s", tail_len, tail);
  free_matrix(m, 1, R, 1, C);
  free(tail);
  return 0;
}
