#include "forwinv/dipfit.h"

#include <cmath>
#include <cstdio>

#include "forwinv/bmatrix.h"
#include "forwinv/dipole.h"
#include "forwinv/lininv.h"
#include "forwinv/sources.h"
#include "forwinv/transfer.h"
#include "numeric/decouple.h"
#include "numeric/nrutils.h"

namespace {

// pi as the single-precision constant the printed directions are converted
// with.
constexpr float PI_F = 3.14159265f;

// The position of source s for the nonlinear parameters p: its own (table)
// position when it is not fitted, else the fitted one, mirrored in the
// partner's plane when s only mirrors its partner.
void source_position(const SourceRecord &s, const float *p, float pos[3]) {
  if (s.pos_mode == 0) {
    pos[0] = s.x;
    pos[1] = s.y;
    pos[2] = s.z;
    return;
  }
  for (int k = 0; k < 3; k++) pos[k] = p[s.pindex + k];
  if (s.pos_symmetric && s.symaxis >= 0 && s.symaxis <= 2) pos[s.symaxis] = 2 * s.symplane - pos[s.symaxis];
}

// The angles (theta, alfa) of a source with a stationary orientation, mirrored
// when it takes them from its partner.
void source_angles(const SourceRecord &s, const float *p, float *theta, float *alfa) {
  *theta = p[s.oindex];
  *alfa = p[s.oindex + 1];
  if (s.ori_symmetric) trans_alfa_theta(alfa, theta, s.symaxis);
}

// Unit vector along (theta, alfa) and its derivatives with respect to both.
void direction(float theta, float alfa, float u[3], float du_dtheta[3], float du_dalfa[3]) {
  double st = sin(theta), ct = cos(theta), sa = sin(alfa), ca = cos(alfa);
  u[0] = (float)(st * ca);
  u[1] = (float)(st * sa);
  u[2] = (float)ct;
  if (du_dtheta) {
    du_dtheta[0] = (float)(ct * ca);
    du_dtheta[1] = (float)(ct * sa);
    du_dtheta[2] = (float)-st;
  }
  if (du_dalfa) {
    du_dalfa[0] = (float)(-st * sa);
    du_dalfa[1] = (float)(st * ca);
    du_dalfa[2] = 0.0f;
  }
}

float dot3(const float u[3], const float *row) { return u[0] * row[1] + u[1] * row[2] + u[2] * row[3]; }

// Where electrode e is taken to be when the problem is scaled: the first
// corner of the triangle its record names on the first interface.  Only the
// order of magnitude of the distances matters for the scale, so records that
// name no such triangle fall back to the point they actually stand for.
const float *electrode_point(int e) {
  const Interface &g = geo[0];
  int index = el[e].index;
  if (index >= 0 && index < g.ndhk) return g.pnt[g.dhk[index][0]];
  if (elec_vertex) {
    int v = index - 1;
    for (int i = 0; i < ngeo; i++) {
      if (v >= 0 && v < geo[i].npnt) return geo[i].pnt[v];
      v -= geo[i].npnt;
    }
  } else {
    int t = index;
    for (int i = 0; i < ngeo; i++) {
      if (t >= 0 && t < geo[i].ndhk) return geo[i].pnt[geo[i].dhk[t][0]];
      t -= geo[i].ndhk;
    }
  }
  return g.pnt[0];
}

// The inverse rms distance between the sources and the electrodes.
float fit_scale(int m) {
  double sum = 0.0;
  for (int s = 0; s < nsource; s++) {
    const float pos[3] = {source[s].x, source[s].y, source[s].z};
    for (int e = 1; e <= m; e++) {
      const float *q = electrode_point(e);
      for (int k = 0; k < 3; k++) {
        double diff = (double)pos[k] - q[k];
        sum += diff * diff;
      }
    }
  }
  double scale = sqrt((double)nsource * m / sum);
  // Sources on top of every electrode give no length to scale by.
  if (!(scale > 0) || !std::isfinite(scale)) return 1.0f;
  return (float)scale;
}

// Multiply the geometry and the source data by `scale` so that the fit works
// with source-electrode distances of order one.  The isolated-source tables
// share the vertex arrays of geo, so they follow.
void scale_model(float scale) {
  for (int i = 0; i < ngeo; i++)
    for (int v = 0; v < geo[i].npnt; v++)
      for (int k = 0; k < 3; k++) geo[i].pnt[v][k] *= scale;
  for (int s = 0; s < nsource; s++) {
    source[s].x *= scale;
    source[s].y *= scale;
    source[s].z *= scale;
    if (source[s].sym != -1) source[s].symplane *= scale;
  }
}

// Start values of the positions (and, with `angles`, of the orientations)
// from the table.
void fill_parameters(float *p, bool angles) {
  for (int s = 0; s < nsource; s++) {
    const SourceRecord &r = source[s];
    if (r.pos_mode != 0 && !r.pos_symmetric) {
      p[r.pindex] = r.x;
      p[r.pindex + 1] = r.y;
      p[r.pindex + 2] = r.z;
    }
    if (angles && r.ori_stationary && !r.ori_symmetric) {
      p[r.oindex] = r.theta;
      p[r.oindex + 1] = r.alfa;
    }
  }
}

void check_start(float *p) {
  if (bound_func(nnpar, p) == 0)
    fprintf(stderr,
            "\nWarning: not all initial estimated source parameters\n  comply to the compartment related "
            "constraints!\n\n");
}

void report_condition(float cond) {
  if (cond >= 0) {
    printf("Condition in decouple: %f\n", cond);
    return;
  }
  // The fitter encodes an HFTI solve as -rank - 0.5 |R[k][k] / R[1][1]|.
  float v = -cond;
  int rank = (int)floorf(v);
  float c = 2.0f / (v - rank);
  printf("Matrix singular in decouple.\n");
  printf("   Effective rank: %d, condition: %f\n", rank, c);
}

// Write the stationary fit back into the table: positions to the original
// units, orientations from the fitted angles with the sign convention that
// the strengths sum to a positive value.
void store_stationary(const float *p, float **X, int ntim, float scale) {
  float inv = 1.0f / scale;
  for (int s = 0; s < nsource; s++) {
    SourceRecord &r = source[s];
    if (r.pos_mode == 0) {
      r.x *= inv;
      r.y *= inv;
      r.z *= inv;
    } else {
      float *xyz[3] = {&r.x, &r.y, &r.z};
      for (int k = 0; k < 3; k++) *xyz[k] = p[r.pindex + k] / scale;
      if (r.pos_symmetric && r.symaxis >= 0 && r.symaxis <= 2) {
        r.symplane /= scale;
        *xyz[r.symaxis] = 2 * r.symplane - *xyz[r.symaxis];
      }
    }
    if (r.ori_stationary) {
      source_angles(r, p, &r.theta, &r.alfa);
      float sum = 0.0f;
      for (int t = 1; t <= ntim; t++) sum += X[r.lindex][t];
      if (sum < 0) {
        r.theta = (float)(M_PI - r.theta);
        r.alfa = (float)(r.alfa + M_PI);
        for (int t = 1; t <= ntim; t++) X[r.lindex][t] = -X[r.lindex][t];
      }
      correct_alfa_theta(&r.theta);
    }
  }
}

// Standard deviations of a stationary fit from the covariance C of the
// scaled problem and the rms residual.
void stationary_sd(float **C, int fullcov, int nlpar, int ntim, float rms, float scale, float **sdd,
                   float (*sdspnt)[5]) {
  float inv = 1.0f / scale, inv2 = inv * inv;
  for (int j = 1; j <= nlpar; j++)
    for (int t = 1; t <= ntim; t++) {
      int r = fullcov ? (t - 1) * nlpar + j : j;
      sdd[j][t] = sqrtf(C[r][r]) * rms * inv2;
    }
  if (!sdspnt) return;
  int base = fullcov ? nlpar * ntim : nlpar;
  for (int s = 0; s < nsource; s++) {
    const SourceRecord &r = source[s];
    for (int k = 0; k < 3; k++) {
      int i = base + r.pindex + k;
      sdspnt[s][k] = r.pos_mode == 0 ? 0.0f : sqrtf(C[i][i]) * rms / scale;
    }
    if (r.ori_stationary)
      for (int k = 0; k < 2; k++) {
        int i = base + r.oindex + k;
        sdspnt[s][3 + k] = sqrtf(C[i][i]) * rms;
      }
  }
}

void print_results(float **X, int nlpar, int ntim) {
  if (ntim < 4)
    for (int j = 1; j <= nlpar; j++) {
      for (int t = 1; t <= ntim; t++) printf(" %f", X[j][t]);
      printf("\n");
    }
  const char *plural = nsource >= 2 ? "s" : "";
  for (int s = 0; s < nsource; s++) {
    if (s == 0)
      printf("final position%s:  (%8.4f, %8.4f, %8.4f)\n", plural, source[s].x, source[s].y, source[s].z);
    else
      printf("                  (%8.4f, %8.4f, %8.4f)\n", source[s].x, source[s].y, source[s].z);
  }
  bool first = true;
  for (int s = 0; s < nsource; s++) {
    if (!source[s].ori_stationary) continue;
    float theta = source[s].theta * 180.0f / PI_F, alfa = source[s].alfa * 180.0f / PI_F;
    if (first)
      printf("final direction%s: (%8.4f, %8.4f)\n", plural, theta, alfa);
    else
      printf("                  (%8.4f, %8.4f)\n", theta, alfa);
    first = false;
  }
}

}  // namespace

void trans_dip(int m, int, const float pos[3], float **T) {
  float **phi1 = matrix(1, 3, 1, totpnt);
  if (!phi1) error("Cannot allocate phi1 in trans_dip");
  sphi_dipole(pos, phi1);
  sphi2trans(b, bi, phi1, 3, T, 0);
  free_matrix(phi1, 1, 3, 1, totpnt);
  (void)m;
}

void dtrans_dip(int m, int, const float pos[3], float ***P) {
  float **phi1 = matrix(1, 5, 1, totpnt);
  if (!phi1) error("Cannot allocate phi1 in dtrans_dip");
  int c = 1;
  for (int i = 0; i < ngeo; i++)
    for (int v = 0; v < geo[i].npnt; v++, c++) {
      float q[5];
      phi_quadrupole(geo[i].pnt[v], pos, q);
      for (int k = 0; k < 5; k++) phi1[k + 1][c] = ONE_OVER_4PI * q[k];
    }
  float **rdr5 = matrix(1, m, 1, 5);
  if (!rdr5) error("Cannot allocate rdr5 in dtrans_dip");
  sphi2trans(b, bi, phi1, 5, rdr5, 0);
  // The position derivative of the dipole potential is symmetric and free
  // of trace (the potential is harmonic), so five columns give all nine.
  for (int i = 1; i <= m; i++) {
    float xx = rdr5[i][1], xy = rdr5[i][2], xz = rdr5[i][3], yy = rdr5[i][4], yz = rdr5[i][5];
    float zz = -xx - yy;
    P[1][i][1] = xx, P[1][i][2] = xy, P[1][i][3] = xz;
    P[2][i][1] = xy, P[2][i][2] = yy, P[2][i][3] = yz;
    P[3][i][1] = xz, P[3][i][2] = yz, P[3][i][3] = zz;
  }
  free_matrix(rdr5, 1, m, 1, 5);
  free_matrix(phi1, 1, 5, 1, totpnt);
}

void d_transeval(int m, int, int, float *p, float **M) {
  float **tr = matrix(1, m, 1, 3);
  if (!tr) error("Cannot allocate tr in d_transeval");
  for (int s = 0; s < nsource; s++) {
    const SourceRecord &r = source[s];
    float pos[3];
    source_position(r, p, pos);
    trans_dip(m, 3, pos, tr);
    if (r.ori_stationary) {
      float theta, alfa, u[3];
      source_angles(r, p, &theta, &alfa);
      direction(theta, alfa, u, nullptr, nullptr);
      for (int i = 1; i <= m; i++) M[i][r.lindex] = dot3(u, tr[i]);
    } else {
      for (int i = 1; i <= m; i++)
        for (int j = 1; j <= r.nl; j++) M[i][r.lindex + j - 1] = tr[i][j];
    }
  }
  free_matrix(tr, 1, m, 1, 3);
}

void d_dtranseval(int m, int n, int q, float *p, float ***D) {
  for (int k = 1; k <= q; k++)
    for (int i = 1; i <= m; i++)
      for (int j = 1; j <= n; j++) D[k][i][j] = 0.0f;
  float ***dtr = matrix3d(1, 3, 1, m, 1, 3);
  float **tr = matrix(1, m, 1, 3);
  if (!dtr || !tr) error("cannot allocate dtr in d_dtranseval");
  for (int s = 0; s < nsource; s++) {
    const SourceRecord &r = source[s];
    float pos[3];
    source_position(r, p, pos);
    float theta = 0, alfa = 0, u[3] = {0, 0, 0}, du_dtheta[3] = {0, 0, 0}, du_dalfa[3] = {0, 0, 0};
    if (r.ori_stationary) {
      source_angles(r, p, &theta, &alfa);
      direction(theta, alfa, u, du_dtheta, du_dalfa);
    }
    if (r.pos_mode != 0) {
      dtrans_dip(m, 3, pos, dtr);
      // A mirrored coordinate moves against the partner's.
      if (r.pos_symmetric && r.symaxis >= 0 && r.symaxis <= 2)
        for (int i = 1; i <= m; i++)
          for (int j = 1; j <= 3; j++) dtr[r.symaxis + 1][i][j] = -dtr[r.symaxis + 1][i][j];
      for (int k = 1; k <= 3; k++) {
        float **Dk = D[r.pindex + k - 1];
        for (int i = 1; i <= m; i++) {
          if (r.ori_stationary)
            Dk[i][r.lindex] += dot3(u, dtr[k][i]);
          else
            for (int j = 1; j <= r.nl; j++) Dk[i][r.lindex + j - 1] += dtr[k][i][j];
        }
      }
    }
    if (r.ori_stationary) {
      trans_dip(m, 3, pos, tr);
      // Mirrored angles: z mirrors theta, x and y mirror alfa.
      float st = 1.0f, sa = 1.0f;
      if (r.ori_symmetric) (r.symaxis == 2 ? st : sa) = -1.0f;
      for (int i = 1; i <= m; i++) {
        D[r.oindex][i][r.lindex] += st * dot3(du_dtheta, tr[i]);
        D[r.oindex + 1][i][r.lindex] += sa * dot3(du_dalfa, tr[i]);
      }
    }
  }
  free_matrix(tr, 1, m, 1, 3);
  free_3dmatrix(dtr, 1, 3, 1, m, 1, 3);
}

float d_alin_inverse(float **, float **psi, float **d, int nlpar, int nel, int ntim, float **phi, float *sdphi,
                     float **sdd, float (*sdspnt)[5]) {
  const int m = nel;
  const bool moving = constraint != 1;
  const int L = moving ? 1 : ntim;

  float **y1 = nullptr, **f1 = nullptr, **x1 = nullptr;
  if (moving) {
    y1 = matrix(1, m, 1, 1);
    f1 = matrix(1, m, 1, 1);
    x1 = matrix(1, nlpar, 1, 1);
    if (!y1 || !f1 || !x1) error("Cannot allocate work matrices in alin_inverse");
  }
  float *p = vector(1, nnpar);
  if (!p) error("Cannot allocate par in alin_inverse");

  const int fullcov = L < 10;
  const int ncov = fullcov ? nlpar * L + nnpar : nnpar + nlpar;
  float **cov = nullptr;
  if (sdd) {
    cov = matrix(1, ncov, 1, ncov);
    if (!cov) error("Cannot allocate cov in alin_inverse");
  }

  const float scale = fit_scale(m);
  scale_model(scale);

  float relres = 0.0f, cond = 0.0f;
  if (!moving) {
    fill_parameters(p, true);
    check_start(p);
    if (!decouple(m, nlpar, nnpar, ntim, psi, phi, p, d, bound_func, &relres, d_transeval, d_dtranseval, 25,
                  0.005f, &cond, 1, sdphi, cov, fullcov, 0.001f))
      error("cannot execute decouple");
    report_condition(cond);
    // A dipole's potential falls with the square of the distance.
    float inv = 1.0f / scale, inv2 = inv * inv;
    for (int j = 1; j <= nlpar; j++)
      for (int t = 1; t <= ntim; t++) d[j][t] *= inv2;
    store_stationary(p, d, ntim, scale);
    if (sdd) stationary_sd(cov, fullcov, nlpar, ntim, *sdphi, scale, sdd, sdspnt);
    print_results(d, nlpar, ntim);
  } else {
    const float inv2 = (1.0f / scale) * (1.0f / scale);
    for (int t = 1; t <= ntim; t++) {
      printf("moving inverse countdown:%5d\r", ntim - t);
      for (int i = 1; i <= m; i++) y1[i][1] = psi[i][t];
      // Every sample starts from the same initial estimate.
      fill_parameters(p, false);
      if (t == 1) check_start(p);
      if (!decouple(m, nlpar, nnpar, 1, y1, f1, p, x1, bound_func, &relres, d_transeval, d_dtranseval, 25,
                    0.005f, &cond, 0, sdphi, cov, 1, 0.001f))
        error("cannot execute decouple");
      for (int i = 1; i <= m; i++) phi[i][t] = f1[i][1];
      for (int j = 1; j <= nlpar; j++) d[j][t] = x1[j][1] * inv2;
      for (int s = 0; s < nsource; s++) {
        const SourceRecord &r = source[s];
        float *row[3] = {&d[nlpar + 3 * s + 1][t], &d[nlpar + 3 * s + 2][t], &d[nlpar + 3 * s + 3][t]};
        if (r.pos_mode == 0) {
          *row[0] = r.x / scale, *row[1] = r.y / scale, *row[2] = r.z / scale;
          continue;
        }
        for (int k = 0; k < 3; k++) *row[k] = p[r.pindex + k] / scale;
        if (r.pos_symmetric && r.symaxis >= 0 && r.symaxis <= 2)
          *row[r.symaxis] = 2 * r.symplane / scale - *row[r.symaxis];
      }
      if (sdd) {
        for (int j = 1; j <= nlpar; j++) sdd[j][t] = sqrtf(cov[j][j]) * inv2;
        for (int k = 1; k <= nnpar; k++) sdd[nlpar + k][t] = sqrtf(cov[nlpar + k][nlpar + k]) / scale;
      }
    }
    relres = reldif(psi, phi, m, ntim, sdphi);
    if (sdd)
      for (int j = 1; j <= nnpar + nlpar; j++)
        for (int t = 1; t <= ntim; t++) sdd[j][t] *= *sdphi;
  }

  if (cov) free_matrix(cov, 1, ncov, 1, ncov);
  free_vector(p, 1, nnpar);
  if (moving) {
    free_matrix(x1, 1, nlpar, 1, 1);
    free_matrix(f1, 1, m, 1, 1);
    free_matrix(y1, 1, m, 1, 1);
  }
  return relres;
}
