// Matrix files: writer, reader (both byte orders and the text variant) and
// the byte-order helpers.
#include "matrixio/matrix.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "geometry/checkasc.h"
#include "matrixio/atomicfile.h"
#include "numeric/nrutils.h"

int ascifile = 0;
int foreign = 0;

namespace {

// The reader keeps no more than this much of a file's tail.
constexpr int MAX_TAIL = 1024;

// A matrix without columns holds no values, so the file size cannot bound its
// row count; its row table still costs memory, so a damaged header could
// demand gigabytes for nothing.  No real result has this many empty rows.
constexpr int MAX_EMPTY_ROWS = 1 << 20;

// A failed write names the file and the system's reason.
void write_failed(const char *name, int err) {
  fprintf(stderr, "\n Error writing to %s: %s\n\n\a\a", name, strerror(err ? err : EIO));
}
void read_failed(const char *name) { fprintf(stderr, "\n Error reading %s\n\n\a\a", name); }

// The counts, the rows and the tail into f; false (errno telling why) at the
// first write that fails.
bool write_matrix_body(FILE *f, float **m, int R, int C, int tail_len, const char *tail) {
  int32_t counts[2] = {R, C};
  if (fwrite(counts, sizeof counts[0], 2, f) != 2) return false;
  for (int r = 1; r <= R; r++)
    if (C > 0 && fwrite(&m[r][1], sizeof(float), (size_t)C, f) != (size_t)C) return false;
  if (ferror(f)) return false;
  return tail_len <= 0 || fwrite(tail, 1, (size_t)tail_len, f) == (size_t)tail_len;
}

// Shared body of both writers.  The file is built under a temporary name and
// renamed over `name` only when every byte is on the disk: the tail is free
// text, so a file cut after its numbers would look complete to a reader, and
// a failed or interrupted run must leave an earlier result as it was.
int write_matrix_file(const char *name, float **m, int R, int C, int tail_len, const char *tail) {
  // Counts that cannot describe a matrix would make a file no reader can
  // use; refuse before anything is created.
  if (R < 0 || C < 0 || tail_len < 0 || (R > 0 && C > 0 && !m) || (tail_len > 0 && !tail)) {
    write_failed(name, EINVAL);
    return 0;
  }
  FILE *f = atomic_open(name);
  if (!f) {
    fprintf(stderr, "\n Cannot create %s: %s\n\n\a\a", name, strerror(errno));
    return 0;
  }
  errno = 0;
  if (!write_matrix_body(f, m, R, C, tail_len, tail)) {
    int err = errno;
    atomic_abandon(f);
    write_failed(name, err);
    return 0;
  }
  if (!atomic_commit(f)) {
    write_failed(name, errno);
    return 0;
  }
  return 1;
}

// Size in bytes of the file behind f, or -1 when it is not a regular file
// (then its size cannot be known in advance).
long long file_size(FILE *f) {
  struct stat st;
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return (long long)st.st_size;
}

// Counts that no matrix file of this program can carry.
bool impossible_counts(int rows, int cols) {
  return rows < 0 || cols < 0 || (cols == 0 && rows > MAX_EMPTY_ROWS);
}

// Binary counts: two 32-bit words in either byte order.  A count the file
// cannot hold is refused here, before the matrix is allocated, so a damaged
// or hostile header cannot demand gigabytes for a file of a few bytes.
bool read_binary_counts(FILE *f, int *rows, int *cols) {
  int32_t counts[2];
  if (fread(counts, sizeof counts[0], 2, f) != 2) return false;
  *rows = counts[0];
  *cols = counts[1];
  if (swapnrowncol(rows, cols)) foreign = 1;
  if (impossible_counts(*rows, *cols)) return false;
  long long size = file_size(f);
  if (size >= 0) {
    long long values = (long long)*rows * *cols;  // exact: both below 2^31
    if (values > (size - 8) / (long long)sizeof(float)) return false;
  }
  return true;
}

// One decimal integer as "%d" would read it (leading white space, optional
// sign, digits), starting at *p; *p is moved past it.  False when there is no
// number or it does not fit an int.
bool scan_int(const char **p, int *value) {
  char *end;
  errno = 0;
  long v = strtol(*p, &end, 10);
  if (end == *p) return false;
  if (errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
  *p = end;
  *value = (int)v;
  return true;
}

// Text counts: a first line of at most 79 characters holding R and
// optionally C (1 when absent).
bool read_text_counts(FILE *f, int *rows, int *cols) {
  char line[80];
  if (!fgets(line, sizeof line, f)) return false;
  const char *p = line;
  if (!scan_int(&p, rows)) return false;
  *cols = 1;
  int c;
  if (scan_int(&p, &c)) *cols = c;
  if (impossible_counts(*rows, *cols)) return false;
  // Every number takes at least one character and all but the last one a
  // separator too, so n numbers need at least 2n - 1 bytes.
  long long size = file_size(f);
  long pos = ftell(f);
  if (size >= 0 && pos >= 0) {
    long long values = (long long)*rows * *cols;
    long long remaining = size - pos;
    if (values > 0 && values > (remaining + 1) / 2) return false;
  }
  return true;
}

bool read_binary_values(FILE *f, float **m, int rows, int cols) {
  for (int r = 1; r <= rows; r++)
    if (cols > 0 && fread(&m[r][1], sizeof(float), (size_t)cols, f) != (size_t)cols) return false;
  return true;
}

bool read_text_values(FILE *f, float **m, int rows, int cols) {
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++)
      if (fscanf(f, "%f", &m[r][c]) != 1) return false;
  return true;
}

}  // namespace

// name: file to create.  m[1..R][1..C]: the values.  Returns 1, or 0 after
// "Cannot create" or "Error writing to" (with the system's reason) on
// standard error; an earlier file of that name is then left as it was.
int binputmatrix(const char *name, float **m, int R, int C) { return write_matrix_file(name, m, R, C, 0, nullptr); }

// As binputmatrix; then tail_len bytes of tail, unchanged (none for 0).
int binputtailmatrix(const char *name, float **m, int R, int C, int tail_len, const char *tail) {
  return write_matrix_file(name, m, R, C, tail_len, tail);
}

// name: file to read.  On output *R, *C: the counts (0 when the file cannot
// be opened), *tail_len and *tail: the first 0..1024 tail bytes in a new
// unterminated buffer (nullptr when none); ascifile and foreign describe the
// file.  Returns the new matrix [1..R][1..C], or nullptr after a message.
float **gettailmatrix(const char *name, int *R, int *C, int *tail_len, char **tail) {
  *R = *C = *tail_len = 0;
  *tail = nullptr;
  foreign = 0;
  ascifile = 0;
  char *buf = static_cast<char *>(calloc(MAX_TAIL, 1));
  if (!buf) {
    printf("\n Sorry, out of memory\n\n\a\a");
    return nullptr;
  }
  FILE *f = fopen(name, "rb");
  if (!f) {
    free(buf);
    fprintf(stderr, "\n Cannot open %s\n\n\a\a", name);
    return nullptr;
  }
  ascifile = check_asci(f);

  int rows = 0, cols = 0;
  bool ok = ascifile ? read_text_counts(f, &rows, &cols) : read_binary_counts(f, &rows, &cols);
  *R = rows;
  *C = cols;
  if (!ok) {
    fclose(f);
    free(buf);
    read_failed(name);
    return nullptr;
  }

  float **m = matrix(1, rows, 1, cols);
  if (!m) {  // matrix() has said why
    fclose(f);
    free(buf);
    return nullptr;
  }
  ok = ascifile ? read_text_values(f, m, rows, cols) : read_binary_values(f, m, rows, cols);

  size_t n = 0;
  if (ok && !ferror(f)) {
    n = fread(buf, 1, MAX_TAIL, f);
    if (ferror(f)) ok = false;  // a failing device must not pass for a short tail
  }
  if (!ok) {
    free_matrix(m, 1, rows, 1, cols);
    fclose(f);
    free(buf);
    read_failed(name);
    return nullptr;
  }
  fclose(f);

  // In a text file the line end after the last number belongs to the
  // numbers, not to the tail.
  if (ascifile) {
    size_t k = 0;
    while (k < n && buf[k] == '\n') k++;
    memmove(buf, buf + k, n - k);
    n -= k;
  }
  if (n == 0) {
    free(buf);
  } else {
    char *shrunk = static_cast<char *>(realloc(buf, n));
    *tail = shrunk ? shrunk : buf;  // a failed shrink leaves the larger buffer valid
    *tail_len = (int)n;
  }

  if (foreign) swapmat(m, rows, cols);
  return m;
}

// *R, *C: counts as read.  When they cannot be a matrix of this machine's
// byte order (negative, or more than MAX_MATRIX_ELEMENTS values, the product
// taken exactly) both are byte-reversed in place and 1 is returned.
int swapnrowncol(int *R, int *C) {
  if (*R >= 0 && *C >= 0 && (long long)*R * *C <= MAX_MATRIX_ELEMENTS) return 0;
  *R = (int)longwordswap((uint32_t)*R);
  *C = (int)longwordswap((uint32_t)*C);
  return 1;
}

// m[1..R][1..C]: on output every value with its bytes reversed.
void swapmat(float **m, int R, int C) {
  for (int r = 1; r <= R; r++)
    for (int c = 1; c <= C; c++) {
      uint32_t w;
      memcpy(&w, &m[r][c], sizeof w);
      w = longwordswap(w);
      memcpy(&m[r][c], &w, sizeof w);
    }
}

uint32_t longwordswap(uint32_t word) {
  return (word >> 24) | ((word >> 8) & 0x0000ff00u) | ((word << 8) & 0x00ff0000u) | (word << 24);
}
