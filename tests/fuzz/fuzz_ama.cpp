// Stored inverted A-matrix files.  Whatever the bytes, the loader refuses
// the file or fills a model whose triangles, electrodes and matrices are
// consistent with its counts; a model it accepts is stored again and the
// copy loads to the same counts.
#include <cstdlib>

#include "forwinv/ama.h"
#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

void check_model() {
  fuzz_check(ngeo >= 1 && ngeo <= MAXGEO, "one to ten interfaces");
  long long np = 0, nd = 0;
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    fuzz_check(g.npnt >= 0 && g.ndhk >= 0, "counts are not negative");
    for (int t = 0; t < g.ndhk; t++)
      for (int k = 0; k < 3; k++) fuzz_check(g.dhk[t][k] >= 0 && g.dhk[t][k] < g.npnt, "triangles name vertices");
    volatile float sink = 0;
    for (int p = 0; p < g.npnt; p++) sink = sink + g.pnt[p][0] + g.pnt[p][1] + g.pnt[p][2];
    np += g.npnt;
    nd += g.ndhk;
  }
  fuzz_check(np == totpnt && nd == totdhk, "totals are the sums of the counts");
  fuzz_check(nel >= 1 && el != nullptr && bi != nullptr, "electrodes and the inverted matrix");
  volatile float sink = 0;
  for (int e = 1; e <= nel; e++)
    for (int p = 1; p <= totpnt; p++) sink = sink + bi[e][p];
  fuzz_check(iso_sur >= -1 && iso_sur < ngeo, "the isolated-source interface exists");
  if (iso_sur != -1) {
    fuzz_check(iso_b != nullptr && iso_totpnt == geo[iso_sur].npnt, "isolated-source matrix of its size");
    for (int r = 1; r <= iso_totpnt; r++)
      for (int c = 1; c <= iso_totpnt; c++) sink = sink + iso_b[r][c];
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *name = memfile(0, data, size);
  int status = catching_exit([&] {
    if (!load_ama(name, 0)) return;
    check_model();
    // Every electrode must be usable to sample vertex potentials.
    float *phi = vector(1, totpnt);
    for (int e = 1; e <= nel; e++) elval(e, phi);
    free_vector(phi, 1, totpnt);

    const int n_geo = ngeo, n_pnt = totpnt, n_dhk = totdhk, n_el = nel, iso = iso_sur;
    const char *copy = memfile(1, nullptr, 0);
    fuzz_check(save_ama(copy, 0) == 1, "a loaded model can be stored");
    reset_tables();
    fuzz_check(load_ama(copy, 0) == 1, "a stored model loads");
    fuzz_check(ngeo == n_geo && totpnt == n_pnt && totdhk == n_dhk && nel == n_el && iso_sur == iso,
               "the copy holds the same model");
  });
  fuzz_check(status == -1 || status == 1, "a fatal fault ends with status 1");
  reset_tables();
  return 0;
}
