#include "geometry/dhkinp.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "geometry/checkasc.h"

namespace {

// Longest text record; a longer line is continued in the next record.
constexpr int RECLEN = 159;
// The shortest vertex or triangle line ("1 2 3" and its newline).
constexpr long long MINLINE = 6;

// Text records read character by character, so that a line of exactly
// RECLEN characters is one record and a carriage return before the newline
// is never part of a record.
struct TextReader {
  FILE *f;
  int pending = EOF;  // a character read ahead and not yet used

  int get() {
    if (pending != EOF) {
      int c = pending;
      pending = EOF;
      return c;
    }
    return getc(f);
  }

  // Reads the next record into rec (terminated).  Returns false at end of
  // file when nothing at all was read.
  bool record(char rec[RECLEN + 1]) {
    int n = 0, c = EOF;
    bool any = false;
    while (n < RECLEN) {
      c = get();
      if (c == EOF || c == '\n') break;
      any = true;
      if (c == '\r') {
        int next = get();
        if (next == '\n') {
          c = '\n';
          break;
        }
        pending = next;
      }
      rec[n++] = (char)c;
    }
    rec[n] = '\0';
    if (n == RECLEN) {
      // A line of exactly RECLEN characters ends here; a longer one goes on
      // in the next record.
      int next = get();
      if (next == '\r') {
        int after = get();
        if (after != '\n') {
          // Keep the lone carriage return for the next record; `after` is
          // pushed back to the stream, which always allows one character.
          if (after != EOF) ungetc(after, f);
          pending = '\r';
        }
      } else if (next != '\n') {
        pending = next;
      }
      return true;
    }
    return any || c == '\n';
  }

  // Bytes not yet consumed, given the file's size.
  long long remaining(long long size) {
    long pos = ftell(f);
    if (pos < 0) return 0;
    return size - pos + (pending != EOF ? 1 : 0);
  }
};

// Scans up to four numbers the way "%f%f%f%f" does and returns how many
// were found.
int scan_floats(const char *s, float v[4]) {
  int k = 0;
  while (k < 4) {
    char *end;
    float x = strtof(s, &end);
    if (end == s) break;
    v[k++] = x;
    s = end;
  }
  return k;
}

// Scans up to four integers the way "%d%d%d%d" does.  Values are kept in
// long long; `wide` tells which of them lie outside the 32-bit range.
int scan_ints(const char *s, long long v[4], bool wide[4]) {
  int k = 0;
  while (k < 4) {
    char *end;
    errno = 0;
    long long x = strtoll(s, &end, 10);
    if (end == s) break;
    wide[k] = errno == ERANGE || x < INT32_MIN || x > INT32_MAX;
    v[k++] = x;
    s = end;
  }
  return k;
}

// The first integer of a record as a count: returns 1 and sets *count for
// 0 .. INT32_MAX, 0 when the record holds no leading number (or only
// blanks: *blank is set), -1 when the number is negative or too large.
int scan_count(const char *rec, int32_t *count, bool *blank) {
  const char *s = rec;
  while (*s == ' ' || *s == '\t' || *s == '\n' || *s == '\r' || *s == '\v' || *s == '\f') s++;
  *blank = *s == '\0';
  char *end;
  errno = 0;
  long long x = strtoll(s, &end, 10);
  if (end == s) return 0;
  if (errno == ERANGE || x < 0 || x > INT32_MAX) return -1;
  *count = (int32_t)x;
  return 1;
}

bool finite3(const float p[3]) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

// What went wrong, for the one message each kind gets.
enum Status { OK, READ_ERROR, NO_MEMORY };

// A text file could hold `count` more lines only if at least this many bytes
// remain: MINLINE per line, the last one possibly without its newline.
bool text_can_hold(long long remaining, int32_t count) {
  return count == 0 || (long long)count * MINLINE - 1 <= remaining;
}

Status read_text(FILE *f, long long size, int32_t *np, int32_t *nt, float (**pp)[3], int32_t (**tp)[3]) {
  TextReader in{f};
  char rec[RECLEN + 1];
  bool blank;

  int32_t n;
  if (!in.record(rec) || scan_count(rec, &n, &blank) != 1) return READ_ERROR;
  if (!text_can_hold(in.remaining(size), n)) return READ_ERROR;
  float(*p)[3] = (float(*)[3])calloc(n > 0 ? n : 1, sizeof *p);
  if (!p) return NO_MEMORY;
  for (int32_t i = 0; i < n; i++) {
    float v[4];
    int k = in.record(rec) ? scan_floats(rec, v) : 0;
    if (k < 3) {
      free(p);
      return READ_ERROR;
    }
    const float *xyz = k >= 4 ? v + 1 : v;
    p[i][0] = xyz[0];
    p[i][1] = xyz[1];
    p[i][2] = xyz[2];
    // Coordinates the solid angles cannot use count as unreadable.
    if (!finite3(p[i])) {
      free(p);
      return READ_ERROR;
    }
  }

  // A missing triangle section, or a line that does not start with a
  // number, means a surface without triangles.  A blank line is no count.
  int32_t m = 0;
  if (in.record(rec)) {
    int r = scan_count(rec, &m, &blank);
    if (r < 0 || (r == 0 && blank)) {
      free(p);
      return READ_ERROR;
    }
    if (r == 0) m = 0;
  }
  if (!text_can_hold(in.remaining(size), m)) {
    free(p);
    return READ_ERROR;
  }
  int32_t(*t)[3] = (int32_t(*)[3])calloc(m > 0 ? m : 1, sizeof *t);
  if (!t) {
    free(p);
    return NO_MEMORY;
  }
  for (int32_t i = 0; i < m; i++) {
    long long v[4];
    bool wide[4];
    int k = in.record(rec) ? scan_ints(rec, v, wide) : 0;
    bool ok = k >= 3;
    int first = k >= 4 ? 1 : 0;
    for (int j = 0; ok && j < 3; j++) {
      // Text files count vertices from 1; the index must still fit after
      // the shift to 0.  A number outside the 32-bit range is refused before
      // the shift (strtoll may have clamped it to the lowest long long).
      ok = !wide[first + j] && v[first + j] - 1 >= INT32_MIN;
      if (ok) t[i][j] = (int32_t)(v[first + j] - 1);
    }
    if (!ok) {
      free(p);
      free(t);
      return READ_ERROR;
    }
  }
  *np = n;
  *nt = m;
  *pp = p;
  *tp = t;
  return OK;
}

Status read_binary(FILE *f, long long size, int32_t *np, int32_t *nt, float (**pp)[3], int32_t (**tp)[3]) {
  int32_t n;
  // Counts are checked against the file's size before anything is
  // allocated for them: the vertices and the triangle count must follow.
  if (fread(&n, 4, 1, f) != 1 || n < 0 || 8 + 12LL * n > size) return READ_ERROR;
  float(*p)[3] = (float(*)[3])calloc(n > 0 ? n : 1, sizeof *p);
  if (!p) return NO_MEMORY;
  if (fread(p, sizeof *p, (size_t)n, f) != (size_t)n) {
    free(p);
    return READ_ERROR;
  }
  for (int32_t i = 0; i < n; i++)
    if (!finite3(p[i])) {
      free(p);
      return READ_ERROR;
    }

  int32_t m;
  if (fread(&m, 4, 1, f) != 1 || m < 0 || 8 + 12LL * n + 12LL * m > size) {
    free(p);
    return READ_ERROR;
  }
  int32_t(*t)[3] = (int32_t(*)[3])calloc(m > 0 ? m : 1, sizeof *t);
  if (!t) {
    free(p);
    return NO_MEMORY;
  }
  if (fread(t, sizeof *t, (size_t)m, f) != (size_t)m) {
    free(p);
    free(t);
    return READ_ERROR;
  }
  *np = n;
  *nt = m;
  *pp = p;
  *tp = t;
  return OK;
}

}  // namespace

int dhkinp(const char *name, int32_t *npnt, int32_t *ndhk, float (**pnt)[3], int32_t (**dhk)[3]) {
  FILE *f = fopen(name, "rb");
  if (!f) {
    fprintf(stderr, "\nError opening file %s\a\a\n\n", name);
    return 0;
  }
  int asci = check_asci(f);

  // Only a regular file can be read again from its start after the
  // encoding test, and only its size bounds the counts it can hold.
  struct stat st;
  Status s = READ_ERROR;
  int32_t n = 0, m = 0;
  float(*p)[3] = nullptr;
  int32_t(*t)[3] = nullptr;
  if (fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode) && ftell(f) == 0) {
    long long size = (long long)st.st_size;
    s = asci ? read_text(f, size, &n, &m, &p, &t) : read_binary(f, size, &n, &m, &p, &t);
  }
  fclose(f);

  if (s == READ_ERROR) {
    fprintf(stderr, "\nError reading file %s\a\a\n\n", name);
    return 0;
  }
  if (s == NO_MEMORY) {
    fprintf(stderr, "\nOut of memory\n\n");
    return 0;
  }
  printf("%s contains %d vertices and %d triangles\n", name, n, m);
  *npnt = n;
  *ndhk = m;
  *pnt = p;
  *dhk = t;
  return 1;
}
