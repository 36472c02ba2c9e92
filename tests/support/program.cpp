#include "tests/support/program.h"

#include <cstdio>
#include <cstdlib>

#include "matrixio/matrix.h"
#include "numeric/nrutils.h"

const char *const BANNER = "\n    brelix; version: 3.2\n               date: Nov  4 2005\n\n";

const char *const GEO_INTRO =
    "Enter the names of the geometry files and their corresponding conductivities.\n"
    "Finish by entering an empty line.\n"
    "   (A filename preceeded by an exclamation mark (!) is\n"
    "    considered to be the \"isolated source\" interface)\n";

ProcResult run_brelix(const std::string &cwd, const std::vector<std::string> &args, const std::string &input) {
  return run_process(BRELIX_EXE_PATH, args, input, cwd);
}

bool read_matrix_file(const std::string &path, MatrixFile &out) {
  int R, C, tail_len;
  char *tail;
  float **m = gettailmatrix(path.c_str(), &R, &C, &tail_len, &tail);
  if (!m) return false;
  out.rows = R;
  out.cols = C;
  out.values.clear();
  for (int r = 1; r <= R; r++)
    for (int c = 1; c <= C; c++) out.values.push_back(m[r][c]);
  out.tail.assign(tail ? tail : "", tail_len);
  free_matrix(m, 1, R, 1, C);
  free(tail);
  return true;
}

std::string countdown(const char *format, int n, int first) {
  std::string s;
  char line[64];
  for (int i = first; i <= n; i++)
    if ((n - i) % 10 == 0) {
      snprintf(line, sizeof line, format, n - i);
      s += line;
    }
  return s;
}
