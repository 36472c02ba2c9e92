// Drives the measured-data dialogue through real standard input.
//
//   probe_measured data <nel>       get_measured with nel electrodes; prints
//                                   ntim, sampfreq, the referenced data and
//                                   the subtracted means
//   probe_measured constraint <n>   get_constraint over n sources that start
//                                   stationary with a stationary orientation;
//                                   prints the code and every record
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/forwinv.h"
#include "forwinv/measured.h"
#include "numeric/nrutils.h"

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  error_progname("probe_measured");
  if (argc != 3) {
    fprintf(stderr, "usage: probe_measured data|constraint <count>\n");
    return 2;
  }
  int count = atoi(argv[2]);
  if (strcmp(argv[1], "data") == 0) {
    nel = count;
    psi = get_measured(&sampfreq);
    if (!psi) {
      printf("no data\n");
      return 0;
    }
    printf("ntim %d sampfreq %.9g\n", ntim, sampfreq);
    for (int e = 1; e <= nel; e++) {
      printf("psi %d:", e);
      for (int t = 1; t <= ntim; t++) printf(" %.9g", psi[e][t]);
      printf("\n");
    }
    printf("shift:");
    for (int t = 1; t <= ntim; t++) printf(" %.9g", shift[t]);
    printf("\n");
    // Released so that leak checkers see only what the routine lost.
    free_matrix(psi, 1, nel, 1, ntim);
    free_vector(shift, 1, ntim);
    return 0;
  }
  if (strcmp(argv[1], "constraint") == 0) {
    nsource = count;
    source = (SourceRecord *)calloc(nsource > 0 ? nsource : 1, sizeof(SourceRecord));
    for (int i = 0; i < nsource; i++) {
      source[i].pos_mode = 1;
      source[i].ori_stationary = 1;
      source[i].nl = 1;
      source[i].nn = 5;
      source[i].sym = -1;
    }
    int code = get_constraint();
    printf("code %d\n", code);
    for (int i = 0; i < nsource; i++)
      printf("source %d: pos_mode %d ori_stationary %d nl %d nn %d\n", i + 1, (int)source[i].pos_mode,
             (int)source[i].ori_stationary, source[i].nl, source[i].nn);
    free(source);
    return 0;
  }
  fprintf(stderr, "unknown mode %s\n", argv[1]);
  return 2;
}
