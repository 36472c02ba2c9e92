#include "forwinv/compart.h"

#include <cstdio>
#include <cstdlib>

#include "geometry/solangle.h"
#include "geometry/vecfun.h"
#include "numeric/nrutils.h"

// A point inside a closed surface sees 4 pi; the margin absorbs rounding of
// the sum over many triangles while staying far from the 0 of an outside
// point.
static const double INSIDE_ANGLE = 12.556370614359173;  // 4 pi - 0.01

int which_compart(const float p[3]) {
  int result = -1;
  for (int i = 0; i < ngeo; i++) {
    const Interface &s = geo[i];
    double omega = 0.0;
    for (int t = 0; t < s.ndhk; t++) {
      const float *a = s.pnt[s.dhk[t][0]], *b = s.pnt[s.dhk[t][1]], *c = s.pnt[s.dhk[t][2]];
      double y1[3], y2[3], y3[3];
      for (int k = 0; k < 3; k++) {
        y1[k] = (double)a[k] - p[k];
        y2[k] = (double)b[k] - p[k];
        y3[k] = (double)c[k] - p[k];
      }
      int onplane = 0;
      omega += rhoek(y1, y2, y3, &onplane);
      if (onplane) return -10 - i;
    }
    // The innermost enclosing interface wins, whatever the table order.
    if (omega > INSIDE_ANGLE) {
      if (result == -1 || geocon[i][result] == 2) result = i;
    }
  }
  return result;
}

void locate_sources() {
  // A table from an earlier call is released (the source table may have
  // changed size).  At least one entry is allocated, so that an empty source
  // table is not mistaken for a failed allocation.
  std::free(source_comp);
  source_comp = (int *)std::calloc(nsource > 0 ? (size_t)nsource : 1, sizeof(int));
  if (source_comp == nullptr) error("Out of memory in locate_sources");
  printf("\n");

  bool failed = false;
  for (int k = 0; k < nsource; k++) {
    const float pos[3] = {source[k].x, source[k].y, source[k].z};
    int c = which_compart(pos);
    source_comp[k] = c;
    if (c == -1) {
      printf("\nSource %d is outside the geometry!\n", k + 1);
      failed = true;
    } else if (c < -1) {
      printf("\nSource %d touches %s!\n", k + 1, geo[-10 - c].name);
      failed = true;
    } else {
      printf("Source %2d is located within %s\n", k + 1, geo[c].name);
    }
    // geocon[c][s] is 1 for c = s and 2 when c lies inside s; a source that
    // is already reported as misplaced has no compartment to check.
    if (iso_sur != -1 && c >= 0 && geocon[c][iso_sur] == 0) {
      printf("All sources should be within the isolated source compartment %s!\n", geo[iso_sur].name);
      failed = true;
    }
  }
  if (failed) error("Non-acceptable initial source positions");
}

int bound_null(int, float *) { return 1; }

void set_bound_crit(float value) { bound_crit = value; }

int bound_compart(int, float *par) {
  for (int k = 0; k < nsource; k++) {
    if (source[k].pos_mode == 0) continue;  // fixed positions are not fitted
    const float *trial = par + source[k].pindex;
    if (which_compart(trial) != source_comp[k]) return 0;
  }
  return 1;
}

int bound_dist(int ignored, float *par) {
  if (!bound_compart(ignored, par)) return 0;
  for (int k = 0; k < nsource; k++) {
    if (source[k].pos_mode == 0) continue;
    const float *trial = par + source[k].pindex;
    int c = source_comp[k];
    if (c < 0 || c >= ngeo) continue;
    // Only the triangles of the compartment's own enclosing interface are
    // measured; the surfaces nested inside it are kept from being crossed by
    // the compartment test alone.
    const Interface &s = geo[c];
    for (int t = 0; t < s.ndhk; t++) {
      const float *a = s.pnt[s.dhk[t][0]], *b = s.pnt[s.dhk[t][1]], *cc = s.pnt[s.dhk[t][2]];
      float nearest[3], lambda, mu;
      float d = ptridist(trial, a, b, cc, nearest, &lambda, &mu);
      if (d == 0.0f) return 0;
      float m = vecdist(trial, a);
      float mb = vecdist(trial, b), mc = vecdist(trial, cc);
      if (mb > m) m = mb;
      if (mc > m) m = mc;
      if (d / m < bound_crit) return 0;
    }
  }
  return 1;
}
