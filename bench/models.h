// Sphere models for the benchmarks: concentric icosphere shells put into the
// interface table as the dialogue would, and a way to keep the progress
// lines of the timed code off the terminal.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "tools/icosphere.h"

struct BenchShell {
  double radius;
  float sigma;
  bool isolated;
};

// The usual three-shell head: scalp, skull, brain.
inline std::vector<BenchShell> head_shells(bool isolated_brain) {
  return {{1.0, 1.0f, false}, {0.92, 0.0125f, false}, {0.88, 1.0f, isolated_brain}};
}

// Fill geo, ngeo, totpnt, totdhk and iso_sur with the shells (outermost
// first), each an icosphere with `vertices` vertices, and allocate b.
// Earlier models are left allocated: a benchmark builds only a few.
inline void load_sphere_model(const std::vector<BenchShell> &shells, int vertices) {
  const int level = icosphere_level(vertices);
  if (level < 0) {
    fprintf(stderr, "no icosphere has %d vertices\n", vertices);
    exit(1);
  }
  ngeo = totpnt = totdhk = 0;
  iso_sur = -1;
  for (const BenchShell &s : shells) {
    TriMesh m = icosphere(level, s.radius);
    Interface &g = geo[ngeo];
    memset(&g, 0, sizeof g);
    snprintf(g.name, sizeof g.name, "sphere%.2f.tri", s.radius);
    g.npnt = (int)m.pnt.size();
    g.ndhk = (int)m.dhk.size();
    g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
    g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
    memcpy(g.pnt, m.pnt.data(), sizeof(float) * 3 * g.npnt);
    for (int t = 0; t < g.ndhk; t++)
      for (int k = 0; k < 3; k++) g.dhk[t][k] = m.dhk[t][k];
    g.sigma_in = s.sigma;
    if (s.isolated) iso_sur = ngeo;
    totpnt += g.npnt;
    totdhk += g.ndhk;
    ngeo++;
  }
  b = matrix(1, totpnt, 1, totpnt);
  if (!b) {
    fprintf(stderr, "cannot allocate b\n");
    exit(1);
  }
}

// Standard output goes to /dev/null while an object lives.
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }
  QuietStdout(const QuietStdout &) = delete;
  QuietStdout &operator=(const QuietStdout &) = delete;

 private:
  int saved_;
};
