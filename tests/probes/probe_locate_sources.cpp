// Locates sources in two nested spheres of 42 vertices, geo[0] "outer.tri"
// of radius 2 and geo[1] "inner.tri" of radius 1, and prints the compartment
// table.  Standard input: the isolated-source interface (-1: none), then one
// source per line, "x y z" or "v i k" for vertex k of interface i.
#include <cstdio>
#include <cstring>
#include <vector>

#include "forwinv/compart.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tools/icosphere.h"

int main() {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  const char *names[2] = {"outer.tri", "inner.tri"};
  for (int i = 0; i < 2; i++) {
    const TriMesh m = icosphere(1, 2.0 - i);
    Interface &g = geo[i];
    snprintf(g.name, sizeof g.name, "%s", names[i]);
    g.npnt = (int)m.pnt.size(), g.ndhk = (int)m.dhk.size();
    g.pnt = new float[g.npnt][3], g.dhk = new int32_t[g.ndhk][3];
    memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
    for (int k = 0; k < 3 * g.ndhk; k++) g.dhk[k / 3][k % 3] = m.dhk[k / 3][k % 3];
  }
  ngeo = 2;
  geocon[0][0] = geocon[1][1] = 1, geocon[1][0] = 2, geocon[0][1] = 0;

  char line[200];
  if (!fgets(line, sizeof line, stdin) || sscanf(line, "%d", &iso_sur) != 1) return 2;
  std::vector<SourceRecord> src;
  for (int gi, k; fgets(line, sizeof line, stdin);) {
    SourceRecord s;
    memset(&s, 0, sizeof s);
    if (sscanf(line, " v %d %d", &gi, &k) == 2) {
      if (gi < 0 || gi >= ngeo || k < 0 || k >= geo[gi].npnt) return 2;
      s.x = geo[gi].pnt[k][0], s.y = geo[gi].pnt[k][1], s.z = geo[gi].pnt[k][2];
    } else if (sscanf(line, "%f %f %f", &s.x, &s.y, &s.z) != 3) {
      continue;
    }
    src.push_back(s);
  }
  source = src.data(), nsource = (int)src.size();
  locate_sources();
  printf("== comp");
  for (int k = 0; k < nsource; k++) printf(" %d", source_comp[k]);
  printf("\n");
  return 0;
}
