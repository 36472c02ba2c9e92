// headmesh: write a three-surface, non-spherical head as brelix triangle
// files with the geometry answers.
//
//   headmesh [-v VERTICES] [-p] DIR
//
// Writes DIR/scalp.tri, DIR/skull.tri, DIR/brain.tri and DIR/geometry.ans
// (conductivities 0.33, 0.0042, 0.33; the brain marked "!" as the
// isolated-source interface unless -p).  Frame: metres, x right, y front
// (nose), z up; symmetric about x = 0.  See tools/headshape.h.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/headshape.h"

static int usage() {
  fputs("usage: headmesh [-v VERTICES] [-p] DIR\n"
        "  -v VERTICES: per surface, 162, 642, 2562, 10242 or 40962 (default 642)\n"
        "  -p: plain model, no isolated-source interface (default: the brain is marked !)\n"
        "  DIR: folder for scalp.tri, skull.tri, brain.tri and geometry.ans (made if missing)\n"
        "example: headmesh -v 2562 head && cat head/geometry.ans rest.ans | brelix\n",
        stderr);
  return 2;
}

int main(int argc, char **argv) {
  long vertices = 642;
  bool isolated = true;
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
    if (!strcmp(argv[i], "-v") && i + 1 < argc) {
      char *end;
      vertices = strtol(argv[++i], &end, 10);
      if (*end != '\0' || end == argv[i]) return usage();
    } else if (!strcmp(argv[i], "-p")) {
      isolated = false;
    } else {
      return usage();
    }
  }
  if (argc - i != 1) return usage();
  int level = vertices > 0 && vertices < 1000000 ? icosphere_level((int)vertices) : -1;
  if (level < 2 || level > 6) {
    fprintf(stderr, "headmesh: %ld is not one of 162, 642, 2562, 10242, 40962\n", vertices);
    return 2;
  }
  std::string dir = argv[i];
  if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
    fprintf(stderr, "headmesh: cannot make %s: %s\n", dir.c_str(), strerror(errno));
    return 1;
  }
  if (!write_head(dir, level, isolated)) {
    fprintf(stderr, "headmesh: cannot write into %s\n", dir.c_str());
    return 1;
  }
  printf("%s: scalp, skull and brain with %ld vertices each\n", dir.c_str(), vertices);
  return 0;
}
