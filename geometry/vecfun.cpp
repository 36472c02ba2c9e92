#include "geometry/vecfun.h"

#include <cmath>

#include "geometry/lmoutr.h"

namespace {

double dist3(const double p[3], const double q[3]) {
  double dx = p[0] - q[0], dy = p[1] - q[1], dz = p[2] - q[2];
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

void widen(const float f[3], double d[3]) {
  d[0] = f[0];
  d[1] = f[1];
  d[2] = f[2];
}

void narrow(const double d[3], float f[3]) {
  f[0] = (float)d[0];
  f[1] = (float)d[1];
  f[2] = (float)d[2];
}

// Segment distance on doubles; plindist and ptridist share it so that the
// nearest point is rounded to float only once.
double segment_distance(const double p[3], const double a[3], const double b[3], double nearest[3], double *t) {
  double d[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  double len2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
  double s = 0.0;
  if (len2 != 0.0) {
    s = (d[0] * (p[0] - a[0]) + d[1] * (p[1] - a[1]) + d[2] * (p[2] - a[2])) / len2;
    if (s < 0.0) s = 0.0;
    if (s > 1.0) s = 1.0;
  }
  for (int k = 0; k < 3; k++) nearest[k] = a[k] + s * d[k];
  *t = s;
  return dist3(p, nearest);
}

}  // namespace

float vecdist(const float p[3], const float q[3]) {
  double dp[3], dq[3];
  widen(p, dp);
  widen(q, dq);
  return (float)dist3(dp, dq);
}

float plindist(const float p[3], const float a[3], const float b[3], float nearest[3], float *t) {
  double dp[3], da[3], db[3], dn[3], dt;
  widen(p, dp);
  widen(a, da);
  widen(b, db);
  double dist = segment_distance(dp, da, db, dn, &dt);
  narrow(dn, nearest);
  *t = (float)dt;
  return (float)dist;
}

float ptridist(const float p[3], const float a[3], const float b[3], const float c[3], float nearest[3],
               float *lambda, float *mu) {
  // A degenerate triangle leaves the coordinates at 0: measured from a.
  double lam = 0.0, m = 0.0, nu = 0.0;
  lmoutr(a, b, c, p, &lam, &m, &nu);

  double dp[3], da[3], db[3], dc[3], dn[3], t, dist;
  widen(p, dp);
  widen(a, da);
  widen(b, db);
  widen(c, dc);
  if (lam >= 0.0 && m >= 0.0 && lam + m <= 1.0) {
    for (int k = 0; k < 3; k++) dn[k] = (1.0 - lam - m) * da[k] + lam * db[k] + m * dc[k];
    dist = dist3(dp, dn);
  } else if (lam >= 0.0 && m >= 0.0) {  // beyond edge b-c
    dist = segment_distance(dp, db, dc, dn, &t);
    m = t;
    lam = 1.0 - t;
  } else if (lam >= 0.0) {  // mu < 0: edge a-b
    dist = segment_distance(dp, da, db, dn, &t);
    lam = t;
    m = 0.0;
  } else {  // lambda < 0: edge a-c
    dist = segment_distance(dp, da, dc, dn, &t);
    m = t;
    lam = 0.0;
  }
  narrow(dn, nearest);
  *lambda = (float)lam;
  *mu = (float)m;
  return (float)dist;
}

double deter(const double a[3], const double b[3], const double c[3]) {
  return a[0] * (b[1] * c[2] - b[2] * c[1]) + a[1] * (b[2] * c[0] - b[0] * c[2]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
}
