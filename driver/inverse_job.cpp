#include "driver/inverse_job.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/finite.h"
#include "forwinv/dipfit.h"
#include "forwinv/forwinv.h"
#include "forwinv/lininv.h"
#include "forwinv/results.h"
#include "forwinv/sources.h"
#include "forwinv/transfer.h"
#include "matrixio/matrix.h"
#include "numeric/nrutils.h"

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  return text;
}

bool all_zero(float **m, int rows, int cols) {
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++)
      if (m[r][c] != 0) return false;
  return true;
}

// A linear estimate of npar parameters: strengths, their standard
// deviations, the relative difference rd and the noise level.
void check_estimate(int npar, float rd) {
  require_finite(d, npar, ntim, "The linear estimate");
  require_finite(sdd, npar, ntim, "The standard deviation of the linear estimate");
  require_finite(rd, "The relative difference");
  require_finite(sdphi, "The rms noise");
}

// The dipole fit: everything it hands to the result files.
void check_fit(float rd) {
  const int rows = constraint == 2 ? 6 * nsource : nlpar;
  require_finite(d, rows, ntim, "The dipole fit");
  require_finite(sdd, rows, ntim, "The standard deviation of the dipole fit");
  require_finite(phi, nel, ntim, "The potential of the fitted dipoles");
  require_finite(rd, "The relative difference of the fit");
  require_finite(sdphi, "The rms noise of the fit");
  for (int s = 0; sdspnt && s < nsource; s++)
    for (float v : sdspnt[s]) require_finite(v, "The standard deviation of a fitted position");
}

}  // namespace

int inverse_job() {
  const int n3 = 3 * nsource;
  const int rows = constraint == 2 ? 6 * nsource : n3;

  d = matrix(1, rows, 1, ntim);
  sdd = matrix(1, rows, 1, ntim);
  if (!d) error("Cannot allocate d matrix");
  if (!sdd) error("Cannot allocate sdd");

  // Data that overflowed in their average reference, or that are zero
  // everywhere after it, leave nothing a fit could mean.
  require_finite(psi, nel, ntim, "The average reference of the data");
  if (all_zero(psi, nel, ntim)) error("The measured data are zero everywhere after the average reference");

  // First estimate: every source with all three moment components free.
  lin_inverse(trans, psi, d, n3, nel, ntim, sdd, 0.001f);
  phi = matrix(1, nel, 1, ntim);
  if (!phi) error("Cannot allocate phi matrix");
  forward(trans, phi, d, n3, nel, ntim);
  float rd = reldif(psi, phi, nel, ntim, &sdphi);
  check_estimate(n3, rd);
  for (int j = 1; j <= n3; j++)
    for (int t = 1; t <= ntim; t++) sdd[j][t] *= sdphi;

  // Sources of stationary orientation: estimate the orientation from the
  // free moments, then solve again for the amplitudes along it.  These
  // standard deviations stay relative (unscaled by the noise).
  if (init_ori(nsource, ntim, source, d)) {
    reduce_trans(nsource, nel, source, trans);
    lin_inverse(trans, psi, d, nlpar, nel, ntim, sdd, 0.001f);
    forward(trans, phi, d, nlpar, nel, ntim);
    rd = reldif(psi, phi, nel, ntim, &sdphi);
    check_estimate(nlpar, rd);
  }
  printf("Relative difference%s:%6.3f\n", constraint == 0 ? "" : " first estimate", rd);

  if (constraint != 0) {
    if (constraint == 1) {
      sdspnt = static_cast<float(*)[5]>(calloc(nsource > 0 ? (size_t)nsource : 1, sizeof *sdspnt));
      if (!sdspnt) error("Cannot allocate sdspnt");
    }
    rd = d_alin_inverse(trans, psi, d, nlpar, nel, ntim, phi, &sdphi, sdd, constraint == 1 ? sdspnt : nullptr);
    check_fit(rd);
    printf(" Relative difference final solution :%6.3f\n", rd);
  }
  printf("Corresponds to rms noise in data of :%6.3f\n", sdphi);

  float c = reldifcor(psi, shift, nel, ntim);
  if (c < 0.99f) printf("Relative difference in respect to original (unshifted) data:%6.3f\n", rd * c);

  const std::string sdname = makename(solname, ".sd");
  const std::string tail1 =
      sampfreq >= 0 ? format("sample frequency\n%.0f Hz\n", sampfreq) : "sample frequency\nunknown\n";
  const std::string sdline = format(
      "Standard deviations assuming %f rms white noise in data\nwhich corresponds to the relative difference found "
      "(%f)\n",
      sdphi, rd);
  const std::string tail2 = tail1 + sdline;
  const int r = constraint == 2 ? 6 * nsource : nlpar;
  stop_unless_written(binputtailmatrix(solname, d, r, ntim, (int)tail1.size(), tail1.data()));
  stop_unless_written(binputtailmatrix(sdname.c_str(), sdd, r, ntim, (int)tail2.size(), tail2.data()));
  printf("SD of source parameters saved in file %s\n", sdname.c_str());

  write_forward(phi, nel, ntim, sampfreq, "potential");
  if (constraint == 1) write_pos(source, sdspnt, nsource, sdline.c_str());
  printf("\n");
  return 0;
}
