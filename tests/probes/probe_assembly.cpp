// Assembles one of a set of faulty or unusual sphere models and prints what
// the assembly printed, so that tests can compare the threaded assembly with
// the plain sequential one on the whole output of a run that ends in a fault.
// Usage: probe_assembly MODEL THREADS
//   MODEL    touch | touch_triangle | double_vertex | loose | reversed |
//            identical | intersect | side_by_side | good
//   THREADS  "ref" for the plain sequential code, else a thread count
// Before assembling it prints "== planted v1 v2 ..." with the one-based
// vertices at which faults were planted, in increasing order (none for some
// models); a finished run ends with "== done <checksum of b>".
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "forwinv/bmatrix.h"
#include "forwinv/forwinv.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"
#include "tools/icosphere.h"

namespace {

struct Surface {
  const char *name;
  TriMesh mesh;
};

// The cube [-1,1]^3 as 12 triangles, clockwise seen from outside: its faces
// are exactly planar, so a point can lie exactly on one of its triangles.
TriMesh cube() {
  TriMesh m;
  for (int k = 0; k < 8; k++) m.pnt.push_back({k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f});
  auto corner = [](const std::array<float, 3> &p) {
    return (p[0] > 0 ? 1 : 0) + (p[1] > 0 ? 2 : 0) + (p[2] > 0 ? 4 : 0);
  };
  for (int a = 0; a < 3; a++)
    for (int s : {1, -1}) {
      const int ua = (a + 1) % 3, va = (a + 2) % 3;
      // Counter-clockwise around the outward normal s e_a (e_ua x e_va = e_a).
      const int du[4] = {-1, 1, 1, -1}, dv[4] = {-1, -1, 1, 1};
      int q[4];
      for (int n = 0; n < 4; n++) {
        std::array<float, 3> p{};
        p[a] = (float)s;
        const int m2 = s > 0 ? n : 3 - n;
        p[ua] = (float)du[m2];
        p[va] = (float)dv[m2];
        q[n] = corner(p);
      }
      m.dhk.push_back({q[0], q[2], q[1]});
      m.dhk.push_back({q[0], q[3], q[2]});
    }
  return m;
}

TriMesh reversed(TriMesh m) {
  for (auto &t : m.dhk) std::swap(t[1], t[2]);
  return m;
}

int highest(const TriMesh &m, int axis, int sign) {
  int best = 0;
  for (int k = 1; k < (int)m.pnt.size(); k++)
    if (sign * m.pnt[k][axis] > sign * m.pnt[best][axis]) best = k;
  return best;
}

void load(const std::vector<Surface> &s) {
  ngeo = (int)s.size();
  totpnt = totdhk = 0;
  iso_sur = -1;
  for (int i = 0; i < ngeo; i++) {
    Interface &g = geo[i];
    memset(&g, 0, sizeof g);
    snprintf(g.name, sizeof g.name, "%s", s[i].name);
    g.npnt = (int)s[i].mesh.pnt.size();
    g.ndhk = (int)s[i].mesh.dhk.size();
    g.pnt = static_cast<float(*)[3]>(calloc(g.npnt, sizeof *g.pnt));
    g.dhk = static_cast<int32_t(*)[3]>(calloc(g.ndhk, sizeof *g.dhk));
    for (int k = 0; k < g.npnt; k++)
      for (int c = 0; c < 3; c++) g.pnt[k][c] = s[i].mesh.pnt[k][c];
    for (int t = 0; t < g.ndhk; t++)
      for (int c = 0; c < 3; c++) g.dhk[t][c] = s[i].mesh.dhk[t][c];
    g.sigma_in = 1.0f;
    totpnt += g.npnt;
    totdhk += g.ndhk;
  }
  b = matrix(1, totpnt, 1, totpnt);
}

void planted(std::vector<int> v) {
  std::sort(v.begin(), v.end());
  printf("== planted");
  for (int k : v) printf(" %d", k + 1);
  printf("\n");
}

}  // namespace

int main(int argc, char **argv) {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  if (argc != 3) {
    fprintf(stderr, "usage: probe_assembly MODEL THREADS\n");
    return 2;
  }
  const std::string model = argv[1];
  if (strcmp(argv[2], "ref") == 0) {
    set_assembly_reference(true);
  } else {
    set_assembly_threads(atoi(argv[2]));
  }

  if (model == "touch") {
    // The inner sphere touches the outer one at vertex 1 and pokes through
    // it along the ray of vertex 4.
    TriMesh outer = icosphere(2, 1.0), inner = icosphere(2, 0.5);
    inner.pnt[0] = outer.pnt[0];
    for (int c = 0; c < 3; c++) inner.pnt[3][c] = 1.5f * outer.pnt[3][c];
    load({{"outer.tri", outer}, {"inner.tri", inner}});
    planted({0, 3});
  } else if (model == "touch_triangle") {
    // Two vertices of the ball lie on faces of the box; the first in row
    // order is the fault.
    TriMesh ball = icosphere(2, 0.5);
    const int top = highest(ball, 2, 1), bottom = highest(ball, 2, -1);
    ball.pnt[top] = {0.3f, 0.1f, 1.0f};
    ball.pnt[bottom] = {0.2f, -0.3f, -1.0f};
    load({{"box.tri", cube()}, {"ball.tri", ball}});
    planted({top, bottom});
  } else if (model == "double_vertex") {
    // Two pairs of coinciding vertices, far into the row order.
    TriMesh m = icosphere(2, 1.0);
    m.pnt[150] = m.pnt[95];
    m.pnt[120] = m.pnt[101];
    load({{"outer.tri", icosphere(2, 1.3)}, {"twice.tri", m}});
    planted({95, 101, 120, 150});
  } else if (model == "loose") {
    TriMesh m = icosphere(2, 1.0);
    m.pnt.push_back({0.0f, 0.0f, 0.0f});
    m.pnt.push_back({0.1f, 0.0f, 0.0f});
    load({{"loose.tri", m}});
    planted({162, 163});
  } else if (model == "reversed") {
    load({{"outer.tri", reversed(icosphere(2, 1.0))}, {"inner.tri", icosphere(2, 0.5)}});
    planted({});
  } else if (model == "identical") {
    load({{"first.tri", icosphere(2, 1.0)}, {"second.tri", icosphere(2, 1.0)}});
    planted({});
  } else if (model == "intersect") {
    load({{"a.tri", icosphere(2, 1.0)}, {"b.tri", icosphere(2, 1.0, 1.03, 0.07, 0.11)}});
    planted({});
  } else if (model == "side_by_side") {
    load({{"left.tri", icosphere(2, 1.0, -3, 0, 0)}, {"right.tri", icosphere(2, 1.0, 3, 0, 0)}});
    planted({});
  } else if (model == "good") {
    load({{"scalp.tri", icosphere(2, 1.0)}, {"skull.tri", icosphere(2, 0.92)}, {"brain.tri", icosphere(1, 0.88)}});
    planted({});
  } else {
    fprintf(stderr, "unknown model %s\n", model.c_str());
    return 2;
  }
  b_matrix();
  // A finished matrix: a checksum of its bits, so that runs can be compared.
  unsigned long long h = 1469598103934665603ULL;
  for (int r = 1; r <= totpnt; r++) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(&b[r][1]);
    for (size_t n = 0; n < sizeof(float) * (size_t)totpnt; n++) h = (h ^ p[n]) * 1099511628211ULL;
  }
  printf("== done %016llx\n", h);
  return 0;
}
