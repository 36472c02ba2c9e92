// Triangle files of either encoding (the first bytes decide, as for any
// file the user names): whatever the bytes, the reader either refuses the
// file or hands out tables that hold exactly the counts it reports, with
// finite coordinates; the index check that the model applies next must
// then be able to walk every triangle.
#include <cmath>
#include <cstdlib>

#include "forwinv/geo.h"
#include "geometry/dhkinp.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *name = memfile(0, data, size);
  int32_t npnt = -7, ndhk = -7;
  float(*pnt)[3] = nullptr;
  int32_t(*dhk)[3] = nullptr;
  if (!dhkinp(name, &npnt, &ndhk, &pnt, &dhk)) {
    fuzz_check(pnt == nullptr && dhk == nullptr, "a refused file must leave no tables behind");
    return 0;
  }
  fuzz_check(npnt >= 0 && ndhk >= 0, "counts of an accepted file are not negative");
  fuzz_check(pnt != nullptr && dhk != nullptr, "an accepted file hands out both tables");
  // Each triple is read back: a table shorter than its count shows up here.
  for (int32_t i = 0; i < npnt; i++)
    for (int k = 0; k < 3; k++) fuzz_check(std::isfinite(pnt[i][k]), "vertex coordinates are finite");
  // bad_triangle reads every index, so a short triangle table shows too.
  int bad = bad_triangle(npnt, ndhk, dhk);
  if (bad) {
    fuzz_check(bad >= 1 && bad <= ndhk, "bad_triangle names an existing triangle");
    bool outside = false;
    for (int k = 0; k < 3; k++) outside |= dhk[bad - 1][k] < 0 || dhk[bad - 1][k] >= npnt;
    fuzz_check(outside, "the triangle bad_triangle names has an index out of range");
  }
  free(pnt);
  free(dhk);
  return 0;
}
