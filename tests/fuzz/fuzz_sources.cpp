// Source position files with constraint lines.  Whatever the bytes, the
// reader refuses the file, ends the run through a fatal error, or hands out
// a table whose partners, parameter indices and counts stay inside the
// parameter vectors the fit will allocate; the first orientation estimate
// must then be able to walk every source and partner.
#include <cmath>
#include <cstdlib>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "numeric/nrutils.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

void check_table() {
  fuzz_check(nsource >= 1, "an accepted file defines a source");
  fuzz_check(constraint >= -1 && constraint <= 2, "the constraint kind is one of -1, 0, 1, 2");
  int linear = 0, nonlinear = 0;
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    fuzz_check(std::isfinite(s.x) && std::isfinite(s.y) && std::isfinite(s.z), "positions are finite");
    fuzz_check(s.pos_mode <= 2, "position mode is fixed, stationary or moving");
    fuzz_check(s.sym >= -1 && s.sym < nsource, "a partner is an existing source");
    fuzz_check((s.pos_symmetric || s.ori_symmetric) == (s.sym != -1), "a partner exactly for symmetric sources");
    fuzz_check(s.nl == 1 || s.nl == 3, "one or three linear parameters");
    fuzz_check(s.nn >= 0 && s.nn <= 5, "at most five nonlinear parameters");
    fuzz_check(s.lindex == linear + 1, "linear parameters are numbered in order");
    if (s.pos_mode != 0)
      fuzz_check(s.pindex >= 1 && s.pindex + 2 <= nnpar, "a fitted position lies inside the parameter vector");
    if (s.ori_stationary)
      fuzz_check(s.oindex >= 1 && s.oindex + 1 <= nnpar, "a fitted orientation lies inside the parameter vector");
    if (s.sym != -1) fuzz_check(s.symaxis >= 0 && s.symaxis <= 2, "a mirror plane is perpendicular to an axis");
    linear += s.nl;
    nonlinear += s.nn;
  }
  fuzz_check(linear == nlpar && nonlinear == nnpar, "the totals are the sums of the counts");
  if (constraint == 2)
    for (int i = 0; i < nsource; i++) fuzz_check(source[i].pos_mode == 2, "a moving run moves every source");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *name = memfile(0, data, size);
  int status = catching_exit([&] {
    int n = -5, c = -5;
    SourceRecord *table = nullptr;
    if (!init_dip(name, &n, &table, &c)) {
      fuzz_check(n == -5 && c == -5 && table == nullptr, "a refused file leaves the outputs alone");
      return;
    }
    nsource = n;
    source = table;
    constraint = c;
    get_nn_nl();
    check_table();
    // First orientation estimate from moments made of the input's bytes.
    const int ntim = 2;
    float **dm = matrix(1, 3 * nsource, 1, ntim);
    fuzz_check(dm != nullptr, "moment matrix");
    for (int r = 1; r <= 3 * nsource; r++)
      for (int t = 1; t <= ntim; t++) dm[r][t] = (float)(int)data[(size_t)(r * ntim + t) % size] - 128.0f;
    init_ori(nsource, ntim, source, dm);
    for (int i = 0; i < nsource; i++)
      if (source[i].ori_stationary)
        fuzz_check(std::isfinite(source[i].theta) && std::isfinite(source[i].alfa), "orientation angles are finite");
    free_matrix(dm, 1, 3 * nsource, 1, ntim);
  });
  fuzz_check(status == -1 || status == 1, "a fatal fault ends with status 1");
  reset_tables();
  return 0;
}
