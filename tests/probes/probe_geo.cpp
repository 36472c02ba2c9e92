// Runs the interface dialogue on standard input and prints the resulting
// model table, so that tests can check both the dialogue and what it built.
// Usage: probe_geo [magnetic] [noiso]
//   magnetic  a combined electric/magnetic run
//   noiso     the "!" isolated-source answer is not allowed
#include <cstdio>
#include <cstring>

#include "forwinv/forwinv.h"
#include "forwinv/geo.h"
#include "numeric/nrutils.h"

int main(int argc, char **argv) {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  int magnetic = 0, allow_isolated = 1;
  for (int a = 1; a < argc; a++) {
    if (strcmp(argv[a], "magnetic") == 0) magnetic = 1;
    if (strcmp(argv[a], "noiso") == 0) allow_isolated = 0;
  }
  get_geo(allow_isolated, magnetic);

  printf("== ngeo %d\n", ngeo);
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    printf("== geo %d name=%s npnt=%d ndhk=%d sigma_in=%.9g", i, g.name, g.npnt, g.ndhk, g.sigma_in);
    // The first vertex and triangle show which file's arrays were kept.
    if (g.npnt > 0) printf(" p0=%.9g,%.9g,%.9g", g.pnt[0][0], g.pnt[0][1], g.pnt[0][2]);
    if (g.ndhk > 0) printf(" t0=%d,%d,%d", g.dhk[0][0], g.dhk[0][1], g.dhk[0][2]);
    printf("\n");
  }
  printf("== iso_sur %d inner_only %d\n", iso_sur, inner_only);
  printf("== totpnt %d totdhk %d\n", totpnt, totdhk);
  return 0;
}
