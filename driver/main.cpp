// brelix: boundary-element potentials and dipole fits.
#include <cstdio>

#include "numeric/nrutils.h"

int main() {
  error_progname("brelix");
  setvbuf(stdout, nullptr, _IONBF, 0);
  printf("\n    brelix; version: %s\n", "3.2");
  printf("               date: %s\n\n", "Nov  4 2005");
  return 0;
}
