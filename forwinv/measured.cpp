#include "forwinv/measured.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "forwinv/answer.h"
#include "matrixio/matrix.h"
#include "matrixio/readtail.h"
#include "numeric/nrutils.h"

namespace {

bool all_finite(float **m, int rows, int cols) {
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++)
      if (!std::isfinite(m[r][c])) return false;
  return true;
}

// Subtract the mean over the electrodes from every sample and keep the
// means in shift[1..cols].  Each mean is summed in its own float element in
// electrode order (row by row, which walks the data in memory order).
void average_reference(float **m, int rows, int cols) {
  if (shift) free_vector(shift, 1, ntim);
  shift = vector(1, cols);
  if (!shift) error("cannot allocate shift");
  ntim = cols;
  for (int e = 1; e <= rows; e++)
    for (int t = 1; t <= cols; t++) shift[t] += m[e][t];
  for (int t = 1; t <= cols; t++) shift[t] /= rows;
  for (int e = 1; e <= rows; e++)
    for (int t = 1; t <= cols; t++) m[e][t] -= shift[t];
}

}  // namespace

float **get_measured(float *sampfreq) {
  *sampfreq = -1.0f;
  char name[NAMELEN];
  for (;;) {
    ask(name, "\nMeasured potential data: ");
    if (name[0] == '\0') return nullptr;
    int rows = 0, cols = 0, tail_len = 0;
    char *tail = nullptr;
    float **m = gettailmatrix(name, &rows, &cols, &tail_len, &tail);
    if (!m) {
      free(tail);
      continue;
    }
    if (rows != nel) {
      printf("%s does not fit to electrode file\n", name);
      printf("number of electrodes: %d\n", nel);
      printf("number of rows in %s: %d\n\n\a\a", name, rows);
    } else if (cols < 1) {
      fprintf(stderr, "%s holds no samples\n\n\a\a", name);
    } else if (!all_finite(m, rows, cols)) {
      // One NaN would spread through the mean into every electrode.
      fprintf(stderr, "%s contains values that are not numbers\n\n\a\a", name);
    } else {
      average_reference(m, rows, cols);
      float f;
      if (tail && tail_len > 0 && tail_float(tail_len, tail, "sample freq", &f) && std::isfinite(f))
        *sampfreq = f;
      free(tail);
      return m;
    }
    free(tail);
    free_matrix(m, 1, rows, 1, cols);
  }
}

int get_constraint() {
  char answer[NAMELEN];
  int code = -1;
  while (code < 0) {
    ask(answer, "\nSource constraint [ Fixed / Stationary / Moving ]: ");
    switch (tolower((unsigned char)answer[0])) {
      case 'f':
        code = 0;
        break;
      case 's':
        code = 1;
        break;
      case 'm':
        code = 2;
        break;
      default:
        break;
    }
  }
  for (int i = 0; i < nsource; i++) {
    SourceRecord &s = source[i];
    s.ori_stationary = 0;
    s.nl = 3;
    s.pos_mode = code;
    s.nn = code == 0 ? 0 : 3;
  }
  return code;
}
