// Runs the interface dialogue on standard input and prints the model table
// it built.  Usage: probe_geo [magnetic] [noiso]
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
  for (int a = 1; a < argc; a++) magnetic |= !strcmp(argv[a], "magnetic"), allow_isolated &= !!strcmp(argv[a], "noiso");
  get_geo(allow_isolated, magnetic);
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    // The last vertex and triangle show that the whole file's arrays were kept.
    printf("== %s %d %d %.9g", g.name, g.npnt, g.ndhk, g.sigma_in);
    if (g.npnt > 0) printf(" %.9g,%.9g,%.9g", g.pnt[g.npnt - 1][0], g.pnt[g.npnt - 1][1], g.pnt[g.npnt - 1][2]);
    if (g.ndhk > 0) printf(" %d,%d,%d", g.dhk[g.ndhk - 1][0], g.dhk[g.ndhk - 1][1], g.dhk[g.ndhk - 1][2]);
    printf("\n");
  }
  printf("== iso_sur %d inner_only %d totpnt %d totdhk %d\n", iso_sur, inner_only, totpnt, totdhk);
  return 0;
}
