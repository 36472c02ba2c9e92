// Reads a source position file the way the dialogue does and prints the
// resulting table, so that tests can check messages, streams and exits.
//
//   probe_sources [-n] [file]
//
// With a file name the first attempt uses it; every failed attempt asks
// "\nSource position file: " again (end of input exits 1, an empty answer
// exits 0).  -n also numbers the fit parameters and prints the indices.
#include <cstdio>
#include <cstring>

#include "forwinv/answer.h"
#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "numeric/nrutils.h"

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  error_progname("probe_sources");
  bool numbering = false;
  const char *first = nullptr;
  for (int a = 1; a < argc; a++) {
    if (strcmp(argv[a], "-n") == 0)
      numbering = true;
    else
      first = argv[a];
  }
  if (first) {
    snprintf(sourcename, NAMELEN, "%s", first);
  } else {
    ask_or_quit(sourcename, "\nSource position file: ");
  }
  while (!init_dip(sourcename, &nsource, &source, &constraint))
    ask_or_quit(sourcename, "\nSource position file: ");

  printf("table nsource %d constraint %d\n", nsource, constraint);
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    printf("source %d: x %.9g y %.9g z %.9g theta %.9g alfa %.9g pos_mode %d ori_stationary %d"
           " pos_symmetric %d ori_symmetric %d nl %d nn %d sym %d symaxis %d symplane %.9g\n",
           i + 1, s.x, s.y, s.z, s.theta, s.alfa, (int)s.pos_mode, (int)s.ori_stationary,
           (int)s.pos_symmetric, (int)s.ori_symmetric, s.nl, s.nn, s.sym, s.symaxis, s.symplane);
  }
  if (numbering) {
    get_nn_nl();
    for (int i = 0; i < nsource; i++)
      printf("index %d: lindex %d pindex %d oindex %d\n", i + 1, source[i].lindex, source[i].pindex,
             source[i].oindex);
    printf("totals nlpar %d nnpar %d\n", nlpar, nnpar);
  }
  return 0;
}
