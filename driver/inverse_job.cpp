#include "driver/inverse_job.h"

#include <cstdio>

// The fit is not part of this build yet: say so plainly rather than write
// partial results.
int inverse_job() {
  fprintf(stderr, "\nThis version of brelix computes transfer matrices only; inverse solutions are not "
                  "available yet.\n\n");
  return 1;
}
