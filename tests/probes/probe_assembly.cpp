// Assembles one of a set of faulty or unusual sphere models, so that tests
// can compare the threaded assembly with the plain sequential one on the
// whole output of a run, also one that ends in a fault.
// Usage: probe_assembly MODEL THREADS
//   MODEL    touch | touch_triangle | double_vertex | loose | reversed |
//            identical | intersect | side_by_side | good
//   THREADS  "ref" for the plain sequential code, else a thread count
// A finished run ends with "== done <checksum of b>".
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

// The cube [-1,1]^3 (corner k at +1 on axis c where bit c of k is set) as
// 12 triangles, clockwise seen from outside: its faces are exactly planar,
// so a point can lie exactly on one of them.
TriMesh cube() {
  TriMesh m;
  for (int k = 0; k < 8; k++) m.pnt.push_back({k & 1 ? 1.0f : -1.0f, k & 2 ? 1.0f : -1.0f, k & 4 ? 1.0f : -1.0f});
  m.dhk = {{1, 7, 3}, {1, 5, 7}, {4, 2, 6}, {4, 0, 2}, {2, 7, 6}, {2, 3, 7},
           {1, 4, 5}, {1, 0, 4}, {4, 7, 5}, {4, 6, 7}, {2, 1, 3}, {2, 0, 1}};
  return m;
}

// The vertex of m farthest along sign * z.
int extreme(const TriMesh &m, int sign) {
  int best = 0;
  for (int k = 1; k < (int)m.pnt.size(); k++)
    if (sign * m.pnt[k][2] > sign * m.pnt[best][2]) best = k;
  return best;
}

bool load(const std::string &model) {
  TriMesh m = icosphere(2, 1.0), inner = icosphere(2, 0.5);
  std::vector<Surface> s;
  if (model == "touch") {
    // The inner sphere touches the outer one at vertex 1 and pokes through
    // it along the ray of vertex 4.
    inner.pnt[0] = m.pnt[0];
    for (int c = 0; c < 3; c++) inner.pnt[3][c] = 1.5f * m.pnt[3][c];
    s = {{"outer.tri", m}, {"inner.tri", inner}};
  } else if (model == "touch_triangle") {
    // Two vertices of the ball on faces of the box; the first in row order
    // is the fault.
    inner.pnt[extreme(inner, 1)] = {0.3f, 0.1f, 1.0f};
    inner.pnt[extreme(inner, -1)] = {0.2f, -0.3f, -1.0f};
    s = {{"box.tri", cube()}, {"ball.tri", inner}};
  } else if (model == "double_vertex") {  // two pairs of coinciding vertices, far into the row order
    m.pnt[150] = m.pnt[95];
    m.pnt[120] = m.pnt[101];
    s = {{"outer.tri", icosphere(2, 1.3)}, {"twice.tri", m}};
  } else if (model == "loose") {  // vertices 163 and 164 in no triangle
    m.pnt.push_back({0.0f, 0.0f, 0.0f});
    m.pnt.push_back({0.1f, 0.0f, 0.0f});
    s = {{"loose.tri", m}};
  } else if (model == "reversed") {
    for (auto &t : m.dhk) std::swap(t[1], t[2]);
    s = {{"outer.tri", m}, {"inner.tri", inner}};
  } else if (model == "identical") {
    s = {{"first.tri", m}, {"second.tri", m}};
  } else if (model == "intersect") {
    s = {{"a.tri", m}, {"b.tri", icosphere(2, 1.0, 1.03, 0.07, 0.11)}};
  } else if (model == "side_by_side") {
    s = {{"left.tri", icosphere(2, 1.0, -3, 0, 0)}, {"right.tri", icosphere(2, 1.0, 3, 0, 0)}};
  } else if (model == "good") {
    s = {{"scalp.tri", m}, {"skull.tri", icosphere(2, 0.92)}, {"brain.tri", icosphere(1, 0.88)}};
  } else {
    return false;
  }
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
    memcpy(g.pnt, s[i].mesh.pnt.data(), sizeof *g.pnt * g.npnt);
    memcpy(g.dhk, s[i].mesh.dhk.data(), sizeof *g.dhk * g.ndhk);
    g.sigma_in = 1.0f;
    totpnt += g.npnt;
    totdhk += g.ndhk;
  }
  b = matrix(1, totpnt, 1, totpnt);
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  if (argc != 3 || !load(argv[1])) {
    fprintf(stderr, "usage: probe_assembly MODEL THREADS\n");
    return 2;
  }
  if (strcmp(argv[2], "ref") == 0)
    set_assembly_reference(true);
  else
    set_assembly_threads(atoi(argv[2]));
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
