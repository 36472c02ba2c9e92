// Drives the electrode-file dialogue through real standard input.
// Usage: probe_elec [level:radius ...] [--geocon] [--iso0]
// Each level:radius adds a sphere mesh as the next interface (without any, a
// tetrahedron is the one interface).  --geocon puts interface 0 inside
// interface 1; --iso0 makes interface 0 the isolated-source interface.  Then
// prints the electrode table and each electrode's potential for phi[k] = k.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tools/icosphere.h"

static void add_interface(const TriMesh &m) {
  Interface &g = geo[ngeo++];
  snprintf(g.name, NAMELEN, "surface%d", ngeo);
  g.npnt = (int)m.pnt.size(), g.ndhk = (int)m.dhk.size();
  g.pnt = static_cast<float(*)[3]>(malloc(sizeof *g.pnt * g.npnt));
  g.dhk = static_cast<int32_t(*)[3]>(malloc(sizeof *g.dhk * g.ndhk));
  memcpy(g.pnt, m.pnt.data(), sizeof *g.pnt * g.npnt);
  memcpy(g.dhk, m.dhk.data(), sizeof *g.dhk * g.ndhk);
  g.sigma_in = 1;
  totpnt += g.npnt, totdhk += g.ndhk;
}

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  error_progname("probe_elec");
  int level;
  double radius;
  for (int a = 1; a < argc; a++)
    if (!strcmp(argv[a], "--geocon"))
      geocon[0][1] = 2;
    else if (!strcmp(argv[a], "--iso0"))
      iso_sur = 0;
    else if (sscanf(argv[a], "%d:%lf", &level, &radius) == 2)
      add_interface(icosphere(level, radius));
  if (ngeo == 0) add_interface({{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}}});
  get_elec(nullptr);
  printf("\nelname=[%s] nel=%d elec_vertex=%d surfelec=%d\n", elname, nel, elec_vertex, surfelec);
  static std::vector<float> store(totpnt + 1);  // one-based, and still reachable when elval fails
  float *phi = store.data();
  for (int k = 1; k <= totpnt; k++) phi[k] = (float)k;
  for (int e = 1; e <= nel; e++) {
    printf("%d %.6g %.6g [%.12s]", el[e].index, el[e].u, el[e].v, el[e].label);
    printf(" %.6g\n", elval(e, phi));
  }
  return 0;
}
