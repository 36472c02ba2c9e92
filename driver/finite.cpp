#include "driver/finite.h"

#include <cmath>
#include <cstdio>

#include "numeric/nrutils.h"

namespace {

[[noreturn]] void not_finite(const char *what) {
  snprintf(errmsg, ERRMSG_SIZE, "%s is not finite: a value overflowed single precision, or was 0/0",
           what);
  error(errmsg);
}

}  // namespace

void require_finite(float **m, int rows, int cols, const char *what) {
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++)
      if (!std::isfinite(m[r][c])) not_finite(what);
}

void require_finite(float value, const char *what) {
  if (!std::isfinite(value)) not_finite(what);
}
