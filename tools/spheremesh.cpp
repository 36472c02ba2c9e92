// spheremesh: write a sphere as a triangle file.
//
//   spheremesh [-b] [-c X Y Z] VERTICES RADIUS FILE
//
// VERTICES is 12, 42, 162, 642, 2562, 10242 (10*4^k + 2); -b writes the
// binary encoding instead of text; -c moves the centre from the origin.
// Triangles are ordered so that their normals point inwards.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/icosphere.h"

static int usage() {
  fputs("usage: spheremesh [-b] [-c X Y Z] VERTICES RADIUS FILE\n"
        "  VERTICES: 12, 42, 162, 642, 2562 or 10242 (10*4^k + 2)\n"
        "  -b: binary triangle file (default: text)\n"
        "  -c X Y Z: centre (default: origin)\n",
        stderr);
  return 2;
}

static bool number(const char *s, double &out) {
  char *end;
  out = strtod(s, &end);
  return end != s && *end == '\0';
}

int main(int argc, char **argv) {
  bool binary = false;
  double c[3] = {0, 0, 0};
  int i = 1;
  for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; i++) {
    if (!strcmp(argv[i], "-b")) {
      binary = true;
    } else if (!strcmp(argv[i], "-c") && i + 3 < argc) {
      for (int k = 0; k < 3; k++)
        if (!number(argv[++i], c[k])) return usage();
    } else {
      return usage();
    }
  }
  if (argc - i != 3) return usage();
  double nv, radius;
  if (!number(argv[i], nv) || !number(argv[i + 1], radius) || !(radius > 0)) return usage();
  int level = nv == (int)nv ? icosphere_level((int)nv) : -1;
  if (level < 0 || level > 7) {
    fprintf(stderr, "spheremesh: %s is not a vertex count of a subdivided icosahedron\n", argv[i]);
    return 2;
  }
  TriMesh m = icosphere(level, radius, c[0], c[1], c[2]);
  if (!write_trimesh(argv[i + 2], m, binary)) {
    fprintf(stderr, "spheremesh: cannot write %s\n", argv[i + 2]);
    return 1;
  }
  printf("%s: %zu vertices, %zu triangles, radius %g\n", argv[i + 2], m.pnt.size(), m.dhk.size(), radius);
  return 0;
}
