#include "forwinv/geo.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "forwinv/answer.h"
#include "forwinv/forwinv.h"
#include "geometry/dhkinp.h"
#include "numeric/nrutils.h"

int bad_triangle(int32_t npnt, int32_t ndhk, const int32_t (*dhk)[3]) {
  for (int32_t i = 0; i < ndhk; i++)
    for (int j = 0; j < 3; j++)
      if (dhk[i][j] < 0 || dhk[i][j] >= npnt) return i + 1;
  return 0;
}

namespace {

void forget_surface(Interface *g) {
  free(g->pnt);
  free(g->dhk);
  g->pnt = nullptr;
  g->dhk = nullptr;
  g->npnt = g->ndhk = 0;
}

// Reads the file named in g->name into g.  Returns 1 on success; on failure
// the reason has been printed and nothing of the file is kept.
int read_surface(Interface *g) {
  if (!dhkinp(g->name, &g->npnt, &g->ndhk, &g->pnt, &g->dhk)) {
    forget_surface(g);
    return 0;
  }
  // Every later stage indexes the vertex table with these numbers.
  int bad = bad_triangle(g->npnt, g->ndhk, g->dhk);
  if (bad) {
    fprintf(stderr, "\nTriangle %d of %s refers to a non-existent vertex\a\a\n\n", bad, g->name);
    forget_surface(g);
    return 0;
  }
  // The totals size the system matrix; they must stay representable.
  if ((long long)totpnt + g->npnt > INT_MAX || (long long)totdhk + g->ndhk > INT_MAX) {
    fprintf(stderr, "\nToo many vertices or triangles in total with %s\a\a\n\n", g->name);
    forget_surface(g);
    return 0;
  }
  return 1;
}

// Asks for the conductivity just within g until the answer is a finite
// number (or empty, meaning 1.0, or without a number, leaving 1.0).
float ask_conductivity(const Interface *g) {
  char answer[NAMELEN];
  for (;;) {
    float sigma = 1.0f;
    ask(answer, "Conductivity just within %s: ", g->name);
    if (answer[0] != '\0') sscanf(answer, "%f", &sigma);
    if (std::isfinite(sigma)) return sigma;
    fprintf(stderr, "\nConductivity must be a finite number!\n\n");
  }
}

// Do all vertices of a appear, with exactly the same coordinates, among
// those of b?  Both have the same number of vertices.  "The same" means the
// same bits: 0 and -0 differ, as they do in the stored files.
bool all_vertices_shared(const Interface &a, const Interface &b) {
  using Bits = std::array<uint32_t, 3>;
  auto bits = [](const float *p) { return Bits{std::bit_cast<uint32_t>(p[0]), std::bit_cast<uint32_t>(p[1]), std::bit_cast<uint32_t>(p[2])}; };
  // Sorting b's vertices once makes each look-up a binary search instead of
  // a scan.
  std::vector<Bits> sorted(b.npnt);
  for (int32_t k = 0; k < b.npnt; k++) sorted[k] = bits(b.pnt[k]);
  std::sort(sorted.begin(), sorted.end());
  for (int32_t k = 0; k < a.npnt; k++)
    if (!std::binary_search(sorted.begin(), sorted.end(), bits(a.pnt[k]))) return false;
  return true;
}

// Two interfaces with the same vertices cannot be nested surfaces.
void check_coincidence() {
  for (int i = 0; i < ngeo; i++)
    for (int j = i + 1; j < ngeo; j++) {
      if (geo[i].npnt != geo[j].npnt || !all_vertices_shared(geo[i], geo[j])) continue;
      snprintf(errmsg, ERRMSG_SIZE,
               "Geometry integrety error;\nAny vertex of %s is also a vertex of %s,\n so they propably intersect!",
               geo[i].name, geo[j].name);
      error(errmsg);
    }
}

}  // namespace

void get_geo(int allow_isolated, int magnetic) {
  printf("Enter the names of the geometry files and their corresponding conductivities.\n");
  printf("Finish by entering an empty line.\n");
  if (allow_isolated) {
    printf("   (A filename preceeded by an exclamation mark (!) is\n");
    printf("    considered to be the \"isolated source\" interface)\n");
  }

  ngeo = 0;
  while (ngeo < MAXGEO) {
    Interface *g = &geo[ngeo];
    ask(g->name, "\nFilename of interface %d: ", ngeo + 1);
    if (g->name[0] == '\0') {
      if (ngeo == 0) exit(0);
      break;
    }
    if (g->name[0] == '!') {
      if (!allow_isolated) error("This program does not allow the isolated source approach");
      if (iso_sur != -1) error("There can be only one isolated source interface");
      iso_sur = ngeo;
      if (magnetic) {
        printf("Enter a negative conductivity if you want to consider this interface\n");
        printf("to be the outer interface in the computation of the magnetic field\n");
      }
      memmove(g->name, g->name + 1, strlen(g->name));
    }

    if (!read_surface(g)) {
      if (iso_sur == ngeo) iso_sur = -1;
      continue;
    }
    totpnt += g->npnt;
    totdhk += g->ndhk;

    g->sigma_in = ask_conductivity(g);
    if (g->sigma_in < 0) {
      if (magnetic && iso_sur == ngeo) {
        g->sigma_in = -g->sigma_in;
        inner_only = 1;
      } else {
        fprintf(stderr, "\nConductivity cannot be negative!\n");
        fprintf(stderr, "For combined electric/magnetic computations negative conductivity\n");
        fprintf(stderr, "has a special meaning, but that does not apply here.\n\n");
        exit(1);
      }
    }
    // The system divides by the conductivities: a compartment that does not
    // conduct, inside one that does, has no solution, only NaNs.
    if (g->sigma_in < FLT_MIN) {
      fprintf(stderr, "\nConductivity cannot be zero!\n");
      fprintf(stderr, "A compartment that does not conduct (or less than %g)\n", FLT_MIN);
      fprintf(stderr, "has no meaning inside the volume conductor.\n\n");
      exit(1);
    }
    ngeo++;
  }

  printf("\nTotal: %d interface%c, %d vertices and %d triangles\n", ngeo, ngeo > 1 ? 's' : ' ', totpnt, totdhk);
  if (iso_sur != -1) printf("   Interface %s is the isolated source interface\n", geo[iso_sur].name);
  if (inner_only) printf("   For the gradiometer field %s is the only interface\n", geo[iso_sur].name);

  check_coincidence();
}
