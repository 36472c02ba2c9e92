#include "forwinv/results.h"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "forwinv/answer.h"
#include "matrixio/atomicfile.h"
#include "matrixio/matrix.h"

std::string makename(const char *base, const char *ext) { return std::string(base) + ext; }

void stop_unless_written(int written) {
  if (!written) exit(1);
}

namespace {

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
  va_list ap, again;
  va_start(ap, fmt);
  va_copy(again, ap);
  int n = vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string s(n > 0 ? n : 0, '\0');
  vsnprintf(s.data(), s.size() + 1, fmt, again);
  va_end(again);
  return s;
}

// Radians to degrees as the position files give them.
double degrees(float angle) { return angle * 180 / M_PI; }

}  // namespace

void add_geo_info(std::string &text) {
  char kind = elname[0];
  if (kind != '\0' && kind != '*' && kind != '#') return;
  text += (kind == '*' && ngeo > 1) ? "geometry files:\n" : "geometry file:\n";
  int first = 0, last = ngeo - 1;
  if (kind == '\0') last = 0;
  if (kind == '#') first = last;
  int count = 0;
  for (int i = first; i <= last; i++) {
    text += format("%4d-%4d: %s\n", count + 1, count + geo[i].npnt, geo[i].name);
    count += geo[i].npnt;
  }
}

void write_trans(float **trans, int nel, int npar, const char *transname, const char *extra) {
  if (transname[0] == '\0') return;
  std::string text = extra ? extra : "";
  text += "sample frequency:\narbitrary\n";
  add_geo_info(text);
  stop_unless_written(binputtailmatrix(transname, trans, nel, npar, (int)text.size(), text.data()));
}

void write_forward(float **phi, int nel, int ntim, float sampfreq, const char *kind) {
  char name[NAMELEN];
  ask(name, "Filename for forward %s data: ", kind);
  if (name[0] == '\0') return;
  if (shift)
    for (int e = 1; e <= nel; e++)
      for (int t = 1; t <= ntim; t++) phi[e][t] += shift[t];
  std::string text = sampfreq >= 0 ? format("sample frequency:\n%.0f\n", sampfreq) : "sample frequency:\nunknown\n";
  add_geo_info(text);
  stop_unless_written(binputtailmatrix(name, phi, nel, ntim, (int)text.size(), text.data()));
}

namespace {

// A temporary beside `name` (see matrixio/atomicfile.h), or the end of the
// run (which removes the temporaries still open).  A failure names `shown`,
// as the position files always did, even when the ".sd" file is the one
// that failed.
FILE *open_or_stop(const char *name, const char *shown) {
  FILE *fp = atomic_open(name);
  if (fp) return fp;
  fprintf(stderr, "\n Error opening file %s: %s\n\n\a\a", shown, strerror(errno));
  exit(1);
}

// Let a finished temporary appear under its name, or end the run.
void commit_or_stop(FILE *fp, const char *name) {
  if (atomic_commit(fp)) return;
  fprintf(stderr, "\n Error writing to %s: %s\n\n\a\a", name, strerror(errno));
  exit(1);
}

void write_position_file(FILE *fp, const SourceRecord *source, int nsource) {
  fprintf(fp, "%4d\n", nsource);
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    fprintf(fp, "%4d %7.4f %7.4f %7.4f", i + 1, s.x, s.y, s.z);
    if (s.ori_stationary) fprintf(fp, " %8.4f %8.4f", degrees(s.theta), degrees(s.alfa));
    fprintf(fp, "\n");
  }
  static const char *const pos_word[] = {"  position fixed", "  position stationar", "  position moving",
                                         "  position fixed"};
  for (int i = 0; i < nsource; i++) {
    const SourceRecord &s = source[i];
    fprintf(fp, "%4d", i + 1);
    if (s.pos_symmetric)
      fprintf(fp, "  position symmetric to %d", s.sym + 1);
    else
      fputs(pos_word[s.pos_mode], fp);
    if (s.ori_symmetric)
      fprintf(fp, "  orientation symmetric to %d", s.sym + 1);
    else
      fputs(s.ori_stationary ? "  orientation stationar" : "  orientation free", fp);
    fprintf(fp, "\n");
  }
}

void write_sd_file(FILE *fp, const SourceRecord *source, const float (*sdspnt)[5], int nsource, const char *note) {
  fprintf(fp, "%4d\n", nsource);
  for (int i = 0; i < nsource; i++) {
    fprintf(fp, "%4d %7.4f %7.4f %7.4f", i + 1, sdspnt[i][0], sdspnt[i][1], sdspnt[i][2]);
    if (source[i].ori_stationary) fprintf(fp, " %8.4f %8.4f", degrees(sdspnt[i][3]), degrees(sdspnt[i][4]));
    fprintf(fp, "\n");
  }
  if (note) fprintf(fp, "\n%s", note);
}

}  // namespace

void write_pos(const SourceRecord *source, const float (*sdspnt)[5], int nsource, const char *note) {
  char name[NAMELEN];
  ask(name, "Filename for source position: ");
  if (name[0] == '\0') return;
  const std::string sdname = makename(name, ".sd");
  // Both files are written before either appears: one that cannot be
  // created or written leaves neither.
  FILE *fp = open_or_stop(name, name);
  write_position_file(fp, source, nsource);
  FILE *sd = nullptr;
  if (sdspnt) {
    sd = open_or_stop(sdname.c_str(), name);
    write_sd_file(sd, source, sdspnt, nsource, note);
  }
  commit_or_stop(fp, name);
  if (!sd) return;
  commit_or_stop(sd, sdname.c_str());
  printf("\nStandard deviation of source position%s saved in file %s\n", nsource >= 2 ? "s" : "",
         sdname.c_str());
}
