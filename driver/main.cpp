// brelix: potentials of current dipoles in a piecewise homogeneous volume
// conductor by the boundary-element method, and dipole fits to measured
// potentials.  One process runs one job, asked for on standard input.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/extra.h"
#include "driver/finite.h"
#include "driver/input.h"
#include "driver/inverse_job.h"
#include "forwinv/ama.h"
#include "forwinv/bmatrix.h"
#include "forwinv/compart.h"
#include "forwinv/dipole.h"
#include "forwinv/forwinv.h"
#include "forwinv/invert.h"
#include "forwinv/results.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "numeric/nrutils.h"

int main(int argc, char **argv) {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  printf("\n    brelix; version: %s\n", "3.2");
  printf("               date: %s\n\n", "Nov  4 2005");

  int mode = get_input_brelix(argc, argv);
  // The file for the inverted A matrix is created (under a temporary name)
  // before the long work, so that a name that cannot be written costs
  // nothing; the matrix replaces it only when complete.
  FILE *ama_file = nullptr;
  if (mode == MODE_STORE_AMA && !(ama_file = open_ama(solname))) return 1;

  if (mode != MODE_STORE_AMA) {
    if (!(sphi = matrix(1, 3 * nsource, 1, totpnt))) error("Cannot allocate sphi");
    if (!(trans = matrix(1, nel, 1, 3 * nsource))) error("Cannot allocate transfer matrix");
  }
  if (mode != MODE_LOADED_AMA) {
    if (!(b = matrix(1, totpnt, 1, totpnt))) error("Cannot allocate b matrix");
    b_matrix();
    float cond;
    ludec(b, totpnt, &cond);
    printf("Estimated condition of B: %.1f\n", cond);
    if (iso_sur != -1) ludec(iso_b, iso_totpnt, &cond);
  }
  if (mode == MODE_STORE_AMA) {
    b_invert(b, &bi, nel, totpnt);
    require_finite(bi, nel, totpnt, "The inverted A matrix");
    stop_unless_written(save_ama_to(ama_file, solname, 0));
    return 0;
  }

  locate_sources();
  for (int s = 0; s < nsource; s++) {
    float p[3] = {source[s].x, source[s].y, source[s].z};
    sphi_dipole(p, sphi + 3 * s);
  }
  sphi2trans(b, bi, sphi, 3 * nsource, trans, 0);

  if (!psi) {
    // The system matrix is done with: its pages go back now on two threads
    // rather than on one when the process ends.
    free_matrix(b, 1, totpnt, 1, totpnt);
    b = nullptr;
    require_finite(trans, nel, 3 * nsource, "The transfer matrix");
    std::string text;
    fill_extra(text);
    write_trans(trans, nel, 3 * nsource, transname, text.c_str());
    return 0;
  }
  return inverse_job();
}
