// Separable least squares by variable projection.
//
// For every trial of the nonlinear parameters the linear ones are solved
// exactly through the singular value decomposition of the model matrix; only
// the nonlinear parameters are iterated.  Arithmetic is single precision
// except for the pseudo-inverse and the final residual statistics.
#include "numeric/decouple.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "numeric/hfti.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"
#include "numeric/svdcmp.h"

namespace {

// Each explanation of a step message is printed once per run.
int first_bound = 1;
int first_nochange = 1;
int first_noimprove = 1;
int first_gradient = 1;
// Pseudo-rank last reported, so a rank deficiency is reported once per change.
int oldnl1 = -1;

// Above this LU condition the normal equations are solved by Householder
// least squares with rank determination for the rest of the call.
constexpr float HFTI_SWITCH = 1000.0f;
constexpr float HFTI_TAU = 0.001f;
// Covariance systems worse than this are not inverted.
constexpr float COV_LIMIT = 1e10f;
constexpr float COV_HUGE = 1e20f;
// Relative residual at which the fit is considered perfect.
constexpr float GOOD_FIT = 0.001f;
// A trial counts as a change when some parameter moves by more than this
// fraction of its value.
constexpr float CHANGE_FRACTION = 0.0001f;

// Columns m+1..n of a wide model matrix have no singular value; make them
// exact null directions so the rank logic drops (or ignores) them.
void clear_missing_columns(int m, int n, float **U, float *w, float **V) {
  for (int j = m + 1; j <= n; j++) {
    w[j] = 0.0f;
    for (int i = 1; i <= m; i++) U[i][j] = 0.0f;
    for (int i = 1; i <= n; i++) V[i][j] = 0.0f;
  }
}

// Invert the LU factors of G[1..q][1..q] into rows off+1..off+q, columns
// off+1..off+q of cov; x[1..q] is scratch.
void invert_into(float **G, int q, float *x, float **cov, int off) {
  for (int i = 1; i <= q; i++) {
    for (int j = 1; j <= q; j++) x[j] = 0.0f;
    x[i] = 1.0f;
    solvelu(G, q, x);
    for (int j = 1; j <= q; j++) cov[off + i][off + j] = x[j];
  }
}

void report_bad_covariance(int verbose, float c) {
  if (!verbose) return;
  printf("Condition of inverse covariance matrix too bad: %g\n", c);
  printf("Covariance matrix set to arbitrary, large values\n");
}

}  // namespace

// w[1..n]: on input the singular values, largest first; on output their
// inverses (0 where dropped).  Returns the pseudo-rank.
int get_nlpar1(float *w, int n, int verbose, float svtol) {
  float wmax = n >= 1 ? w[1] : 0.0f;
  for (int j = 2; j <= n; j++)
    if (w[j] > wmax) wmax = w[j];
  const float thresh = wmax == 0.0f ? 0.0f : (float)(wmax * svtol);
  int k = n;
  for (int j = 1; j <= n; j++) {
    if (w[j] > thresh) {
      w[j] = 1.0f / w[j];
    } else if (svtol == 0.0f) {
      w[j] = 1e20f;
    } else {
      w[j] = 0.0f;
      k--;
    }
  }
  if (verbose) {
    if (k != oldnl1 && k != n) printf("Decouple: A not full ranked; %d instead of %d\n", k, n);
    oldnl1 = k;
  }
  // The solutions use the first k values only: the kept ones must come first.
  for (int j = k + 1; j <= n; j++)
    if (w[j] != 0.0f) {
      printf("Decouple: You should use a SVD that returns sorted singular values\n");
      exit(1);
    }
  return k;
}

float get_res(int m, int n, int q, int L, float **Y, float *p, float *r, float **M, float **U, float **V,
              float *w, float *a, int *rank, int verbose, DecoupleModel model, float svtol) {
  model(m, n, q, p, M);
  for (int i = 1; i <= m; i++)
    for (int j = 1; j <= n; j++) U[i][j] = M[i][j];
  svdcmp(U, m, n, w, V);
  if (m < n) clear_missing_columns(m, n, U, w, V);
  const int k = get_nlpar1(w, n, verbose, svtol);
  *rank = k;

  float sum = 0.0f;
  for (int t = 1; t <= L; t++) {
    for (int j = 1; j <= k; j++) {
      float s = 0.0f;
      for (int i = 1; i <= m; i++) s += Y[i][t] * U[i][j];
      a[j] = s;
    }
    float *rt = r + (long)(t - 1) * m;
    for (int i = 1; i <= m; i++) {
      float res = Y[i][t];
      for (int j = 1; j <= k; j++) res -= a[j] * U[i][j];
      rt[i] = res;
      sum += res * res;
    }
  }
  return std::sqrt(sum);
}

void get_QR(int m, int n, int k, float **U, float **V, float *winv, float **P) {
  for (int j = 1; j <= n; j++)
    for (int i = 1; i <= m; i++) {
      double s = 0.0;
      for (int l = 1; l <= k; l++) s += (double)winv[l] * V[j][l] * U[i][l];
      P[j][i] = (float)s;
    }
}

// For parameter kk and column t the Jacobian block is
//   P_perp D_kk x_t + P^T D_kk^T r_t,   P_perp = I - U_k U_k^T,
// the negative derivative of the projected residual with both terms of the
// variable-projection derivative.  When there are more columns than linear
// parameters, P_perp D_kk is formed once per parameter; otherwise the
// projection is applied to D_kk x_t column by column, which is cheaper then.
void get_gtg(int m, int n, int q, int L, int k, float **Y, float *p, float *r, float **U, float ***D, float **P,
             float **X, float **Smn, float *sn, float *sm, float **Snn, float **J, float **G, float *g,
             DecoupleDeriv deriv) {
  deriv(m, n, q, p, D);
  const long mL = (long)m * L;

  // Linear solutions of every column at the current parameters.
  for (int t = 1; t <= L; t++)
    for (int j = 1; j <= n; j++) {
      float s = 0.0f;
      for (int i = 1; i <= m; i++) s += P[j][i] * Y[i][t];
      X[j][t] = s;
    }

  if (n < L) {
    for (int kk = 1; kk <= q; kk++) {
      float **Dk = D[kk];
      for (int l = 1; l <= k; l++)  // U_k^T D_kk
        for (int j = 1; j <= n; j++) {
          float s = 0.0f;
          for (int i = 1; i <= m; i++) s += U[i][l] * Dk[i][j];
          Snn[l][j] = s;
        }
      for (int i = 1; i <= m; i++)  // P_perp D_kk
        for (int j = 1; j <= n; j++) {
          float s = Dk[i][j];
          for (int l = 1; l <= k; l++) s -= U[i][l] * Snn[l][j];
          Smn[i][j] = s;
        }
      for (int t = 1; t <= L; t++) {
        const float *rt = r + (long)(t - 1) * m;
        for (int j = 1; j <= n; j++) {
          float s = 0.0f;
          for (int i = 1; i <= m; i++) s += Dk[i][j] * rt[i];
          sn[j] = s;
        }
        for (int i = 1; i <= m; i++) {
          float s = 0.0f;
          for (int j = 1; j <= n; j++) s += Smn[i][j] * X[j][t] + P[j][i] * sn[j];
          J[(long)(t - 1) * m + i][kk] = s;
        }
      }
    }
  } else {
    float *c = Snn[1];  // U_k^T D_kk x_t, k <= n values
    for (int t = 1; t <= L; t++) {
      const float *rt = r + (long)(t - 1) * m;
      for (int kk = 1; kk <= q; kk++) {
        float **Dk = D[kk];
        for (int i = 1; i <= m; i++) {
          float s = 0.0f;
          for (int j = 1; j <= n; j++) s += Dk[i][j] * X[j][t];
          sm[i] = s;
        }
        for (int l = 1; l <= k; l++) {
          float s = 0.0f;
          for (int i = 1; i <= m; i++) s += U[i][l] * sm[i];
          c[l] = s;
        }
        for (int j = 1; j <= n; j++) {
          float s = 0.0f;
          for (int i = 1; i <= m; i++) s += Dk[i][j] * rt[i];
          sn[j] = s;
        }
        for (int i = 1; i <= m; i++) {
          float s = sm[i];
          for (int l = 1; l <= k; l++) s -= U[i][l] * c[l];
          for (int j = 1; j <= n; j++) s += P[j][i] * sn[j];
          J[(long)(t - 1) * m + i][kk] = s;
        }
      }
    }
  }

  for (int i = 1; i <= q; i++) {
    for (int j = i; j <= q; j++) {
      float s = 0.0f;
      for (long row = 1; row <= mL; row++) s += J[row][i] * J[row][j];
      G[i][j] = s;
      G[j][i] = s;
    }
    float s = 0.0f;
    for (long row = 1; row <= mL; row++) s += r[row] * J[row][i];
    g[i] = s;
  }
}

int decouple(int m, int n, int q, int L, float **Y, float **F, float *p, float **X, DecoupleBound bound,
             float *relres, DecoupleModel model, DecoupleDeriv deriv, int maxiter, float tol, float *cond,
             int verbose, float *rms, float **cov, int fullcov, float svtol) {
  if (m < 1 || n < 1 || q < 0 || L < 1) return 0;
  const long mL = (long)m * L;

  float **G = matrix(1, q, 1, q);
  float *ptrial = vector(1, q);
  float *dg = vector(1, q);  // scaled gradient
  float *g = vector(1, q);   // gradient, then the Gauss-Newton step
  float *r = vector(1, mL);
  float **J = matrix(1, mL, 1, q);
  float **B = matrix(1, q, 1, 1);
  float **M = matrix(1, m, 1, n);
  float **U = matrix(1, m, 1, n);
  float *w = vector(1, n);
  float **V = matrix(1, n, 1, n);
  float **Snn = matrix(1, n, 1, n);
  float **P = matrix(1, n, 1, m);
  float ***D = matrix3d(1, q, 1, m, 1, n);
  float **Smn = matrix(1, m, 1, n);
  float *sn = vector(1, n);
  float *sm = vector(1, m);
  // Linear solutions at the parameters of the Jacobian; kept apart from X,
  // which a covariance rebuild must not disturb.
  float **Xw = matrix(1, n, 1, L);
  auto release = [&]() {
    free_matrix(Xw, 1, n, 1, L);
    free_vector(sm, 1, m);
    free_vector(sn, 1, n);
    free_matrix(Smn, 1, m, 1, n);
    free_3dmatrix(D, 1, q, 1, m, 1, n);
    free_matrix(P, 1, n, 1, m);
    free_matrix(Snn, 1, n, 1, n);
    free_matrix(V, 1, n, 1, n);
    free_vector(w, 1, n);
    free_matrix(U, 1, m, 1, n);
    free_matrix(M, 1, m, 1, n);
    free_matrix(B, 1, q, 1, 1);
    free_matrix(J, 1, mL, 1, q);
    free_vector(r, 1, mL);
    free_vector(g, 1, q);
    free_vector(dg, 1, q);
    free_vector(ptrial, 1, q);
    free_matrix(G, 1, q, 1, q);
  };
  if (!G || !ptrial || !dg || !g || !r || !J || !B || !M || !U || !w || !V || !Snn || !P || !D || !Smn || !sn ||
      !sm || !Xw) {
    fputs("\n Sorry, out of memory in decouple\n\n\a\a", stderr);
    release();
    return 0;
  }

  *cond = 0.0f;
  float s2 = 0.0f;
  for (int i = 1; i <= m; i++)
    for (int t = 1; t <= L; t++) s2 += Y[i][t] * Y[i][t];
  float s = std::sqrt(s2);
  if (s == 0.0f) {
    if (verbose) printf("Decouple: RMS of measurement zero; residual connot be scaled properly.\n");
    s = 1.0f;
  }

  double rhoprev = 1e20;
  int iter = 0;
  bool use_hfti = false;
  int rank = 0;
  float rho = get_res(m, n, q, L, Y, p, r, M, U, V, w, sn, &rank, verbose, model, svtol) / s;

  // Every loop below ends: the outer one after maxiter steps; the line
  // search because each trial either halves the step (bounded below), or is
  // evaluated and then accepted, rejected (which after four rejections grows
  // the gradient weight fourfold, bounded above) or ends the call.  A NaN
  // residual compares false everywhere and so takes the rejecting branches.
  bool normal_end = true;
  for (;;) {
    double lambda = 1.0;
    float gamma = 0.0001f;
    if (verbose) printf("At step %d the relative residual is %.3f\n", iter, rho);
    if (!(iter < maxiter && rho < rhoprev * (1.0 - tol) && rho > GOOD_FIT)) break;
    iter++;
    rhoprev = rho;
    get_QR(m, n, rank, U, V, w, P);

    // Gauss-Newton step into g (the scaled gradient into dg).
    for (;;) {
      get_gtg(m, n, q, L, rank, Y, p, r, U, D, P, Xw, Smn, sn, sm, Snn, J, G, g, deriv);
      // A parameter without effect has no gradient either; it takes no
      // gradient step rather than 0/0.
      for (int i = 1; i <= q; i++) dg[i] = G[i][i] != 0.0f ? g[i] / G[i][i] : 0.0f;
      if (use_hfti) {
        for (int i = 1; i <= q; i++) B[i][1] = g[i];
        int krank = 0;
        hfti(G, q, q, B, 1, HFTI_TAU, &krank);
        float shown;
        if (krank >= 1) {
          *cond = -krank - 0.5f * std::fabs(G[krank][krank] / G[1][1]);
          shown = std::fabs(G[1][1] / G[krank][krank]);
          for (int i = 1; i <= q; i++) g[i] = B[i][1];
        } else {
          // Rank 0 (or no work space): no usable direction, so no step.
          *cond = -0.5f;
          shown = INFINITY;
          for (int i = 1; i <= q; i++) g[i] = 0.0f;
        }
        if (verbose) printf("HFTI: rank = %d, condition = %f\n", krank, shown);
        break;
      }
      float c;
      ludec(G, q, &c);
      *cond = c;
      if (c > HFTI_SWITCH) {
        if (verbose) printf("Condition too bad (%g); turned to HFTI\n", c);
        use_hfti = true;
        continue;  // the decomposition overwrote G: rebuild it
      }
      if (verbose) printf("LU: condition = %f\n", c);
      solvelu(G, q, g);
      break;
    }

    // Line search along the blend of the two steps.
    int fails = 0;
    float gamma2 = 1e-8f;
    bool changed = false;  // set once per iteration, never reset per trial
    bool accepted = false;
    while (!accepted) {
      for (int i = 1; i <= q; i++) {
        ptrial[i] = p[i] + lambda * (g[i] + gamma * dg[i]) / (1 + gamma2);
        if (std::fabs(ptrial[i] - p[i]) > CHANGE_FRACTION * std::fabs(p[i])) changed = true;
      }
      if (!bound(q, ptrial)) {
        lambda *= 0.5;
        if (verbose) {
          printf("      Parameters out of bound; step decreased. New value: %f\n", lambda);
          if (first_bound) {
            printf("    (The proposed step would yield parameters out of the acceptable range;\n");
            printf("     the size of the step is reduced to prevent this.)\n");
            first_bound = 0;
          }
        }
        if (lambda < 1e-10) {
          *relres = rhoprev;
          normal_end = false;
          break;
        }
        continue;
      }
      if (!changed) {
        lambda *= 2.0;
        if (verbose) {
          printf("      Lack of change; step increased.          New value: %f\n", lambda);
          if (first_nochange) {
            printf("    (The proposed step would not change the parameters significantly\n");
            printf("     (i.e. more than %.2f %%); the step size is increased.)\n", 100.0 * CHANGE_FRACTION);
            first_nochange = 0;
          }
        }
        if (lambda > 1e20) {
          *relres = rhoprev;
          normal_end = false;
          break;
        }
      }
      const float rhot = get_res(m, n, q, L, Y, ptrial, r, M, U, V, w, sn, &rank, verbose, model, svtol) / s;
      if (gamma > 1e10f) {
        *relres = rhoprev;
        normal_end = false;
        break;
      }
      if (rhot <= rhoprev) {
        for (int i = 1; i <= q; i++) p[i] = ptrial[i];
        rho = rhot;
        accepted = true;
        break;
      }
      fails++;
      if (fails <= 4) {
        lambda *= 0.5;
        if (verbose) {
          printf("      No improvement; step decreased.          New value: %f\n", lambda);
          if (first_noimprove) {
            printf("    (The proposed step would increase instead of decrease the residual error;\n");
            printf("     the step size is decreased.)\n");
            first_noimprove = 0;
          }
        }
      } else {
        if (fails == 5) lambda *= 16.0;  // undo the four halvings, once
        gamma *= 4.0f;
        if (verbose) {
          printf("      No improvement; step decreased.          New value: %f\n", lambda);
          printf("      No improvement; more gradient.          New weight: %f\n", gamma);
          if (first_gradient) {
            printf("    (The pseudo Newton method does not succeed in decreasing the residual error;\n");
            printf("     the relative weight of the gradient method is increased.)\n");
            first_gradient = 0;
          }
        }
      }
      gamma2 = gamma * gamma;
    }
    if (!normal_end) break;
  }

  if (normal_end) {
    *relres = rho;
    if (rho <= GOOD_FIT && verbose) printf("Dat fit as 'n beer! %f\n", rho);
  }

  // Final linear solution from the factors of the last residual evaluation
  // (after an abnormal end those of the last rejected trial).
  for (int t = 1; t <= L; t++) {
    for (int l = 1; l <= n; l++) {
      float a = 0.0f;
      for (int i = 1; i <= m; i++) a += Y[i][t] * U[i][l];
      sn[l] = w[l] * a;
    }
    for (int j = 1; j <= n; j++) {
      float x = 0.0f;
      for (int l = 1; l <= n; l++) x += V[j][l] * sn[l];
      X[j][t] = x;
    }
    for (int i = 1; i <= m; i++) {
      float f = 0.0f;
      for (int j = 1; j <= n; j++) f += X[j][t] * M[i][j];
      F[i][t] = f;
    }
  }
  double sq = 0.0;
  for (int i = 1; i <= m; i++)
    for (int t = 1; t <= L; t++) {
      const double diff = (double)Y[i][t] - F[i][t];
      sq += diff * diff;
    }
  *rms = (float)std::sqrt(sq / ((double)L * m));
  // A data norm that overflowed single precision would make any fit look
  // perfect; not a number tells the caller that the residual is unknown.
  *relres = std::isfinite(s) ? (float)(std::sqrt(sq) / s) : NAN;

  if (cov && !fullcov) {
    // Linear block: (M^T M)^+ of the last model matrix.
    for (int i = 1; i <= n; i++)
      for (int j = 1; j <= n; j++) {
        float c = 0.0f;
        for (int l = 1; l <= n; l++) c += V[j][l] * V[i][l] * w[l] * w[l];
        cov[i][j] = c;
      }
    // Nonlinear block: inverse of the normal matrix.  G still holds the LU
    // factors of the last iteration unless there was none or the last
    // solve went through Householder least squares.
    bool invertible = true;
    if (iter == 0 || use_hfti) {
      get_res(m, n, q, L, Y, p, r, M, U, V, w, sn, &rank, verbose, model, svtol);
      get_QR(m, n, rank, U, V, w, P);
      get_gtg(m, n, q, L, rank, Y, p, r, U, D, P, Xw, Smn, sn, sm, Snn, J, G, g, deriv);
      float c;
      ludec(G, q, &c);
      if (c > COV_LIMIT) {
        report_bad_covariance(verbose, c);
        for (int i = 1; i <= q; i++)
          for (int j = 1; j <= q; j++) cov[n + i][n + j] = COV_HUGE;
        invertible = false;
      }
    }
    if (invertible) invert_into(G, q, ptrial, cov, n);
  } else if (cov) {
    free_matrix(G, 1, q, 1, q);
    G = nullptr;
    const long nlin = (long)n * L;
    const long N = nlin + q;
    float **H = matrix(1, N, 1, N);
    float *h = H ? vector(1, N) : nullptr;
    if (!H || !h) {
      printf("Decomp: Sorry; not enough memory to compute true covariance matrix\n");
    } else {
      if (iter == 0) deriv(m, n, q, p, D);
      for (int i = 1; i <= n; i++)  // M^T M, the same for every column
        for (int j = i; j <= n; j++) {
          float c = 0.0f;
          for (int row = 1; row <= m; row++) c += M[row][i] * M[row][j];
          Snn[i][j] = c;
        }
      float *e = dg;
      for (int t = 1; t <= L; t++) {
        const long base = (long)(t - 1) * n;
        for (int i = 1; i <= n; i++)
          for (int j = i; j <= n; j++) H[base + i][base + j] = Snn[i][j];
        for (int i = 1; i <= m; i++) {
          for (int kk = 1; kk <= q; kk++) {
            float c = 0.0f;
            for (int j = 1; j <= n; j++) c += X[j][t] * D[kk][i][j];
            e[kk] = c;
          }
          for (int kk = 1; kk <= q; kk++) {
            for (int ll = kk; ll <= q; ll++) H[nlin + kk][nlin + ll] += e[kk] * e[ll];
            for (int j = 1; j <= n; j++) H[base + j][nlin + kk] += M[i][j] * e[kk];
          }
        }
      }
      for (long a = 1; a <= N; a++)
        for (long b = a + 1; b <= N; b++) H[b][a] = H[a][b];
      float c;
      ludec(H, (int)N, &c);
      if (c <= COV_LIMIT) {
        for (long i = 1; i <= N; i++) {
          for (long j = 1; j <= N; j++) h[j] = 0.0f;
          h[i] = 1.0f;
          solvelu(H, (int)N, h);
          for (long j = 1; j <= N; j++) cov[i][j] = h[j];
        }
      } else {
        report_bad_covariance(verbose, c);
        for (long i = 1; i <= N; i++)
          for (long j = 1; j <= N; j++) cov[i][j] = COV_HUGE;
      }
    }
    free_vector(h, 1, N);
    free_matrix(H, 1, N, 1, N);
  }

  release();
  return 1;
}
