// Electrode files, read for a model of two nested spheres.  Whatever the
// bytes, the reader refuses the file (and asks again: the empty standard
// input then ends the run with status 1), ends the run through a fatal
// error, or fills a table of the reported size whose electrodes the
// potential lookup can use.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tests/fuzz/fuzz_support.h"
#include "tools/icosphere.h"

namespace {

void put_sphere(Interface &g, const TriMesh &m, const char *name) {
  snprintf(g.name, sizeof g.name, "%s", name);
  g.npnt = (int32_t)m.pnt.size();
  g.ndhk = (int32_t)m.dhk.size();
  g.pnt = static_cast<float(*)[3]>(calloc(m.pnt.size(), sizeof *g.pnt));
  g.dhk = static_cast<int32_t(*)[3]>(calloc(m.dhk.size(), sizeof *g.dhk));
  memcpy(g.pnt, m.pnt.data(), sizeof *g.pnt * m.pnt.size());
  memcpy(g.dhk, m.dhk.data(), sizeof *g.dhk * m.dhk.size());
  g.sigma_in = 1;
  totpnt += g.npnt;
  totdhk += g.ndhk;
}

void make_model() {
  static const TriMesh outer = icosphere(0, 1.0), inner = icosphere(0, 0.5);
  put_sphere(geo[0], outer, "outer.tri");
  put_sphere(geo[1], inner, "inner.tri");
  ngeo = 2;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  make_model();
  const char *name = memfile(0, data, size);
  set_stdin("");
  int status = catching_exit([&] {
    get_elec(name);
    fuzz_check(el != nullptr && nel >= 1, "an accepted file gives electrodes");
    fuzz_check(elec_vertex == 0 || elec_vertex == 1, "electrodes are vertices or points on triangles");
    fuzz_check(surfelec == 0 || surfelec == 1, "surfelec is a flag");
    float *phi = vector(1, totpnt);
    for (int p = 1; p <= totpnt; p++) phi[p] = (float)p;
    for (int e = 1; e <= nel; e++) {
      fuzz_check(strnlen(el[e].label, sizeof el[e].label) <= 10, "labels keep at most 10 characters");
      double v = elval(e, phi);
      if (elec_vertex) fuzz_check(v == el[e].index, "a vertex electrode reads its vertex");
    }
    fuzz_check(el[0].index == 0 && el[0].u == 0 && el[0].v == 0, "record 0 stays zero");
    free_vector(phi, 1, totpnt);
  });
  fuzz_check(status == -1 || status == 1, "a refused or fatal file ends with status 1");
  reset_tables();
  return 0;
}
