// Drives the electrode-file dialogue through real standard input.
//
// Usage: probe_elec [level:radius ...] [--geocon] [--iso0]
// Each level:radius adds a sphere mesh as the next interface (without any,
// a tetrahedron of 4 vertices and 4 triangles is the one interface).
// --geocon marks interface 0 as lying inside interface 1; --iso0 makes
// interface 0 the isolated-source interface.  After the dialogue it prints
// the electrode table and the potential at every electrode for the vertex
// potentials phi[k] = k.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tools/icosphere.h"

namespace {

void add_interface(const TriMesh &m) {
  Interface &g = geo[ngeo++];
  snprintf(g.name, NAMELEN, "surface%d", ngeo);
  g.npnt = (int)m.pnt.size();
  g.ndhk = (int)m.dhk.size();
  g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
  g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
  for (int k = 0; k < g.npnt; k++)
    for (int d = 0; d < 3; d++) g.pnt[k][d] = m.pnt[k][d];
  for (int t = 0; t < g.ndhk; t++)
    for (int d = 0; d < 3; d++) g.dhk[t][d] = m.dhk[t][d];
  g.sigma_in = 1;
  totpnt += g.npnt;
  totdhk += g.ndhk;
}

}  // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  error_progname("probe_elec");
  bool mark_geocon = false;
  for (int a = 1; a < argc; a++) {
    if (!strcmp(argv[a], "--geocon")) {
      mark_geocon = true;
    } else if (!strcmp(argv[a], "--iso0")) {
      iso_sur = 0;
    } else {
      int level;
      double radius;
      if (sscanf(argv[a], "%d:%lf", &level, &radius) != 2) return 2;
      add_interface(icosphere(level, radius));
    }
  }
  if (ngeo == 0) {
    TriMesh tet;
    tet.pnt = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    tet.dhk = {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}};
    add_interface(tet);
  }
  if (mark_geocon) geocon[0][1] = 2;

  get_elec(nullptr);

  printf("\nelname=[%s] nel=%d elec_vertex=%d surfelec=%d\n", elname, nel, elec_vertex, surfelec);
  float *phi = vector(1, totpnt);
  for (int k = 1; k <= totpnt; k++) phi[k] = (float)k;
  for (int e = 0; e <= nel; e++) {
    printf("%d: index=%d u=%.6g v=%.6g label=", e, el[e].index, el[e].u, el[e].v);
    for (int c = 0; c < 12; c++) printf("%02x", (unsigned char)el[e].label[c]);
    if (e > 0) printf(" elval=%.6g", elval(e, phi));
    printf("\n");
  }
  free_vector(phi, 1, totpnt);
  return 0;
}
