#include "forwinv/sources.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "numeric/nrutils.h"

namespace {

// Lines of the source position file are read through an 80-byte buffer:
// at most 79 characters a line, longer lines arrive in pieces.
constexpr int LINESIZE = 80;

// Tokens of a constraint line are separated by any of these, so that
// "position = fixed", "position:fixed" and "position fixed" read alike.
// The carriage return lets files written on other systems read the same.
const char *const DELIMS = " =:\t\n\r";

const char *const GRAMMAR =
    "  Correct syntax of constraint description:\n\n"
    "  <source index> <constr 1> <constr 2> ...\n\n"
    "  Where <constr> =   position    ( fixed | stationary | moving )\n"
    "                or   orientation ( free | stationary )\n"
    "                or   symmetric to <source index>\n\n";

// Read the next line, or the next piece of a line longer than the buffer,
// into buf (newline kept when it fits), as fgets(buf, LINESIZE, f) would.
// One difference: a line of exactly LINESIZE-1 characters has its newline
// consumed with it, so it does not leave an empty line behind.
// Returns false at the end of the file.
bool read_line(FILE *f, char *buf) {
  int n = 0, c;
  while (n < LINESIZE - 1 && (c = getc(f)) != EOF) {
    buf[n++] = (char)c;
    if (c == '\n') break;
  }
  if (n == 0) return false;
  buf[n] = '\0';
  if (n == LINESIZE - 1 && buf[n - 1] != '\n') {
    c = getc(f);
    if (c != '\n' && c != EOF) ungetc(c, f);
  }
  return true;
}

// Scan an integer as "%d" does (leading blanks, optional sign, digits) but
// without undefined behaviour on overflow: the value is clamped to the int
// range.  Returns false when no digits follow.  *end, when given, is set
// past the number.
bool scan_int(const char *s, int *value, const char **end = nullptr) {
  char *e;
  errno = 0;
  long v = strtol(s, &e, 10);
  if (e == s) return false;
  if (v > INT_MAX) v = INT_MAX;
  if (v < INT_MIN) v = INT_MIN;
  *value = (int)v;
  if (end) *end = e;
  return true;
}

// A source line: "%d%f%f%f" (source number, ignored, then x, y, z), all
// four converted and the coordinates finite.
bool scan_source_line(const char *line, float xyz[3]) {
  int number;
  const char *p;
  if (!scan_int(line, &number, &p)) return false;
  for (int k = 0; k < 3; k++) {
    char *e;
    xyz[k] = strtof(p, &e);
    if (e == p || !std::isfinite(xyz[k])) return false;
    p = e;
  }
  return true;
}

// Cheap early refusal of a count the file cannot hold: a source line takes
// at least 7 characters ("1 0 0 0", "1-1-1-1") and every line but the last
// a newline.  Only regular files have a size to compare with; others are
// still safe because the lines are read before the table is allocated.
bool room_for_sources(FILE *f, int n) {
  struct stat st;
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) return true;
  long pos = ftell(f);
  if (pos < 0) return true;
  long long left = (long long)st.st_size - pos;
  return left >= 8LL * n - 1;
}

// Checks before "position symmetric" and "orientation symmetric" on
// source i (zero-based) with partner n (one-based).  The first compares the
// recorded zero-based partner with the one-based own number: that is how
// the check has always worked, and files in use depend on it; a real
// self-reference is caught later by the one-sided symmetry check.
bool partner_consistent(const SourceRecord &s, int i, int n) {
  if (s.sym == i + 1) {
    fprintf(stderr, "Nonsense: source %d symmetric to itself\n", i + 1);
    return false;
  }
  if (s.sym != -1 && (long long)s.sym != (long long)n - 1) {
    fprintf(stderr, "Nonsense: source %d symmetric to both %d and %d\n", i + 1, s.sym + 1, n);
    return false;
  }
  return true;
}

// "[to] <n>" after a symmetry keyword; false when the number is missing.
bool read_partner(char **save, int *n) {
  char *tok = strtok_r(nullptr, DELIMS, save);
  if (tok && strcmp(tok, "to") == 0) tok = strtok_r(nullptr, DELIMS, save);
  return tok && scan_int(tok, n);
}

bool starts2(const char *value, const char *word) { return strncmp(value, word, 2) == 0; }

// Apply the constraints that follow the source number on one line to
// table[i].  Returns false on a syntax error (nothing printed here except
// the "Nonsense" reports).  *moving is set when "position moving" is seen.
bool apply_constraints(SourceRecord *table, int nsource, int i, char **save, bool *moving) {
  SourceRecord &s = table[i];
  char *tok;
  while ((tok = strtok_r(nullptr, DELIMS, save))) {
    int n;
    char *value;
    switch (tok[0]) {
      case 'p':
        if (!(value = strtok_r(nullptr, DELIMS, save))) return false;
        if (starts2(value, "fi")) {
          s.pos_mode = 0;
        } else if (starts2(value, "st")) {
          s.pos_mode = 1;
        } else if (starts2(value, "mo")) {
          s.pos_mode = 2;
          *moving = true;
        } else if (starts2(value, "sy")) {
          if (!read_partner(save, &n) || !partner_consistent(s, i, n)) return false;
          if (n < 1 || n > nsource) return false;
          s.pos_symmetric = 1;
          s.sym = n - 1;
        } else {
          return false;
        }
        break;
      case 'o':
        if (!(value = strtok_r(nullptr, DELIMS, save))) return false;
        if (starts2(value, "fr")) {
          s.ori_stationary = 0;
        } else if (starts2(value, "st")) {
          s.ori_stationary = 1;
        } else if (starts2(value, "sy")) {
          if (!read_partner(save, &n) || !partner_consistent(s, i, n)) return false;
          if (n < 1 || n > nsource) return false;
          s.ori_symmetric = 1;
          s.sym = n - 1;
        } else {
          return false;
        }
        break;
      case 's':
        if (!read_partner(save, &n) || n < 1 || n > nsource) return false;
        s.pos_symmetric = 1;
        s.ori_symmetric = 1;
        s.sym = n - 1;
        break;
      default:
        return false;
    }
  }
  return true;
}

int refuse(FILE *f, SourceRecord *table) {
  fclose(f);
  free(table);
  return 0;
}

// The mirror relation between source s and its partner p: the axis on
// which they differ and the plane halfway.  Inconsistent pairs are fatal.
void set_mirror(SourceRecord &s, const SourceRecord &p) {
  const float a[3] = {s.x, s.y, s.z}, b[3] = {p.x, p.y, p.z};
  int axis = 0;
  while (axis < 3 && a[axis] == b[axis]) axis++;
  if (axis == 3) error("\nSymmetric sources may not coincide");
  for (int k = 0; k < 3; k++)
    if (k != axis && a[k] != b[k]) error("\nSymmetric sources must have to equal coordinates");
  s.symaxis = axis;
  s.symplane = (b[axis] + a[axis]) * 0.5f;
}

}  // namespace

int init_dip(const char *filename, int *nsource_out, SourceRecord **source_out, int *constraint_out) {
  FILE *f = fopen(filename, "r");
  if (!f) {
    printf("\nError opening file %s\a\a\n\n", filename);
    return 0;
  }
  char line[LINESIZE];
  int n;
  if (!read_line(f, line) || !scan_int(line, &n) || n < 1 || !room_for_sources(f, n)) {
    printf("\nError reading file %s\a\a\n\n", filename);
    return refuse(f, nullptr);
  }

  // The positions are collected before the table is allocated, so that a
  // count larger than the file holds cannot reserve memory it never fills.
  std::vector<float> pos;
  for (int i = 0; i < n; i++) {
    float xyz[3];
    if (!read_line(f, line) || !scan_source_line(line, xyz)) {
      printf("\nError reading file %s\a\a\n\n", filename);
      return refuse(f, nullptr);
    }
    pos.insert(pos.end(), xyz, xyz + 3);
  }
  SourceRecord *table = (SourceRecord *)calloc((size_t)n, sizeof(SourceRecord));
  if (!table) {
    puts("\nOut of memory");
    return refuse(f, nullptr);
  }
  for (int i = 0; i < n; i++) {
    table[i].x = pos[3 * i];
    table[i].y = pos[3 * i + 1];
    table[i].z = pos[3 * i + 2];
    table[i].sym = -1;
  }

  int constr = -1;
  bool moving = false;
  while (read_line(f, line)) {
    if (line[0] == '\n' || line[0] == '#') continue;
    char *save = nullptr;
    char *tok = strtok_r(line, DELIMS, &save);
    if (!tok) continue;  // only blanks
    int k;
    if (!scan_int(tok, &k)) {
      printf("\n Error in constraint description in file %s\n\n\a\a", filename);
      return refuse(f, table);
    }
    if (k < 1 || k > n) {
      printf("Constraint description of non-existent source %d in file %s\n", k, filename);
      continue;
    }
    constr = 0;
    if (!apply_constraints(table, n, k - 1, &save, &moving)) {
      printf("\n Syntax error in constraint description of source %d\n\n\a\a", k);
      fputs(GRAMMAR, stdout);
      return refuse(f, table);
    }
  }

  // One fit per sample cannot share parameters with sources fitted once
  // for all samples, and a moving source's orientation changes with it.
  if (moving) {
    for (int i = 0; i < n; i++) {
      if (table[i].pos_mode != 2 || table[i].ori_stationary) {
        printf("\n Error in constraint description in %s:\n", filename);
        fputs(" moving dipoles cannot be combined with non-moving dipoles\n\n\a\a", stdout);
        return refuse(f, table);
      }
    }
  }
  fclose(f);

  if (moving) {
    constr = 2;
  } else if (constr == 0) {
    for (int i = 0; i < n; i++)
      if (table[i].pos_mode != 0 || table[i].ori_stationary) constr = 1;
  }

  for (int i = 0; i < n; i++) {
    SourceRecord &s = table[i];
    s.nn = (s.pos_mode == 0 || s.pos_symmetric) ? 0 : 3;
    if (!s.ori_stationary && !s.ori_symmetric) {
      s.nl = 3;
    } else {
      s.nl = 1;
      if (s.ori_stationary) s.nn += 2;
    }
  }

  // A symmetric source borrows its partner's parameters, so only one of the
  // two may name the other, and the pair must be a true mirror image.
  for (int i = 0; i < n; i++) {
    SourceRecord &s = table[i];
    if (s.pos_symmetric) {
      SourceRecord &p = table[s.sym];
      if (p.sym != -1) error("\nSymmetry constraints must be specified in only on of the two sources involved");
      set_mirror(s, p);
      // A stationary orientation taken over from the partner, by a source
      // that stated none of its own, would be fitted with angles for which
      // its counts hold no place: they would be read past the end of the
      // parameter vector or from the next source's.  The user must say
      // which orientation is meant.
      if (p.ori_stationary && !s.ori_stationary && !s.ori_symmetric) {
        snprintf(errmsg, ERRMSG_SIZE,
                 "\nSymmetric source %d cannot take over the stationary orientation of source %d: "
                 "give it orientation stationary or symmetric",
                 i + 1, s.sym + 1);
        error(errmsg);
      }
      // The counts stay as the source's own bits gave them.
      s.pos_mode = p.pos_mode;
      s.ori_stationary = p.ori_stationary;
    }
    if (s.ori_symmetric) {
      if (!s.pos_symmetric) error("Separate orientation symmetry not yet implemented");
      const SourceRecord &p = table[s.sym];
      s.nl = p.nl;
      if (p.pos_mode == 0) error("Symmetric free oriented sources not allowed");
    }
  }

  *nsource_out = n;
  *source_out = table;
  *constraint_out = constr;
  printf("%s defines %d source%c\n", filename, n, n >= 2 ? 's' : ' ');
  return 1;
}

void get_nn_nl() {
  int L = 0, N = 0;
  for (int i = 0; i < nsource; i++) {
    SourceRecord &s = source[i];
    int own = 0;
    s.pindex = 0;
    s.oindex = 0;
    if (!s.pos_symmetric && (s.pos_mode == 1 || s.pos_mode == 2)) {
      own = 3;
      s.pindex = N + 1;
    }
    if (s.ori_stationary && !s.ori_symmetric) s.oindex = N + 1 + own;
    s.lindex = L + 1;
    N += s.nn;
    L += s.nl;
  }
  nlpar = L;
  nnpar = N;
  for (int i = 0; i < nsource; i++) {
    SourceRecord &s = source[i];
    if (s.sym < 0 || s.sym >= nsource) continue;
    if (s.pos_symmetric) s.pindex = source[s.sym].pindex;
    if (s.ori_symmetric) s.oindex = source[s.sym].oindex;
  }
}

namespace {

// Sum over the samples of v|v| for the three moment components of source
// i: large moments dominate, and the sign of each component survives.
void signed_squares(int i, int ntim, float **d, double sum[3]) {
  for (int k = 0; k < 3; k++) {
    const float *row = d[3 * i + k + 1];
    double s = 0;
    for (int t = 1; t <= ntim; t++) {
      double v = row[t];
      s += v * std::fabs(v);
    }
    sum[k] = s;
  }
}

}  // namespace

int init_ori(int nsource, int ntim, SourceRecord *source, float **d) {
  int any = 0;
  for (int i = 0; i < nsource; i++) {
    SourceRecord &s = source[i];
    if (!s.ori_stationary) continue;
    any = 1;
    double sum[3];
    signed_squares(i, ntim, d, sum);
    // A mirrored partner measures the same orientation, mirrored back.
    for (int j = 0; j < nsource; j++) {
      const SourceRecord &m = source[j];
      if (!m.ori_symmetric || m.sym != i) continue;
      double msum[3];
      signed_squares(j, ntim, d, msum);
      if (m.symaxis >= 0 && m.symaxis <= 2) msum[m.symaxis] = -msum[m.symaxis];
      for (int k = 0; k < 3; k++) sum[k] += msum[k];
    }
    s.alfa = sum[1] == 0 ? 0.0f : (float)atan2(sum[1], sum[0]);
    double rho = sqrt(sum[0] * sum[0] + sum[1] * sum[1]);
    s.theta = rho == 0 ? 0.0f : (float)atan2(rho, sum[2]);
  }
  for (int i = 0; i < nsource; i++) {
    SourceRecord &s = source[i];
    if (!s.ori_symmetric || !s.ori_stationary || s.sym < 0 || s.sym >= nsource) continue;
    s.theta = source[s.sym].theta;
    s.alfa = source[s.sym].alfa;
    trans_alfa_theta(&s.alfa, &s.theta, s.symaxis);
  }
  return any;
}

void correct_alfa_theta(float *angles) {
  float &theta = angles[0], &alfa = angles[1];
  if (theta > M_PI) {
    theta = (float)(2 * M_PI - theta);
    alfa = (float)(alfa - M_PI);
  }
  if (theta < 0) {
    theta = -theta;
    alfa = (float)(alfa - M_PI);
  }
  if (alfa < -M_PI) alfa = (float)(alfa + 2 * M_PI);
  if (alfa > M_PI) alfa = (float)(alfa - 2 * M_PI);
}

void trans_alfa_theta(float *alfa, float *theta, int axis) {
  switch (axis) {
    case 0:
      *alfa = (float)(M_PI - *alfa);
      if (*alfa > M_PI) *alfa = (float)(*alfa - 2 * M_PI);
      break;
    case 1:
      *alfa = -*alfa;
      break;
    case 2:
      *theta = (float)(M_PI - *theta);
      break;
    default:
      break;
  }
}
