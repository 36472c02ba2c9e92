// One-based arrays and the fatal-error exit.
#include "numeric/nrutils.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#ifdef __linux__
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>
#endif


char errmsg[ERRMSG_SIZE];
char progname[80] = "forwinv";

void out_of_memory_message() { fputs("\n Sorry, out of memory\n\n\a\a", stderr); }

namespace {

// Zero-filled block of n elements of the given size, or nullptr with the
// out-of-memory message.  A zero length still yields a valid block so that
// callers can tell "empty" from "failed".
void *zero_block(long long n, size_t size) {
  if (n < 0) {
    out_of_memory_message();
    return nullptr;
  }
  void *p = calloc(n > 0 ? (size_t)n : 1, size);
  if (!p) out_of_memory_message();
  return p;
}

template <typename T>
T *make_vector(long lo, long hi) {
  T *v = static_cast<T *>(zero_block((long long)hi - lo + 1, sizeof(T)));
  return v ? v - lo : nullptr;
}

template <typename T>
void release_vector(T *v, long lo) {
  if (v) free(v + lo);
}

// Contiguous matrix: a pointer table and one element block.
template <typename T>
T **make_matrix(long rlo, long rhi, long clo, long chi) {
  long long nr = (long long)rhi - rlo + 1;
  long long nc = (long long)chi - clo + 1;
  if (nr < 0 || nc < 0 || (nc > 0 && nr > MAX_MATRIX_ELEMENTS / nc)) {
    out_of_memory_message();
    return nullptr;
  }
  T **m = static_cast<T **>(zero_block(nr, sizeof(T *)));
  if (!m) return nullptr;
  T *block = static_cast<T *>(zero_block(nr * nc, sizeof(T)));
  if (!block) {
    free(m);
    return nullptr;
  }
  for (long long r = 0; r < nr; r++) m[r] = block + r * nc - clo;
  if (nr == 0) m[0] = block - clo;  // keep the block reachable for freeing
  return m - rlo;
}

// Blocks from this size on give their pages back on two threads.
constexpr size_t LARGE_BLOCK = size_t(64) << 20;

// The whole pages of block p (from malloc; its size as the allocator knows
// it) handed back to the system, two threads each taking half, before the
// caller frees it: tearing down a few hundred megabytes of pages takes one
// thread twice as long.
void discard_pages(void *p) {
#ifdef __linux__
  const long page = sysconf(_SC_PAGESIZE);
  const size_t bytes = malloc_usable_size(p);
  if (page <= 0 || bytes < LARGE_BLOCK) return;
  const uintptr_t mask = ~(uintptr_t)(page - 1);
  const uintptr_t lo = ((uintptr_t)p + (uintptr_t)page - 1) & mask, hi = ((uintptr_t)p + bytes) & mask;
  const uintptr_t mid = (lo + (hi - lo) / 2) & mask;
  auto drop = [](uintptr_t from, uintptr_t to) { madvise(reinterpret_cast<void *>(from), to - from, MADV_DONTNEED); };
  try {
    std::thread other(drop, mid, hi);
    drop(lo, mid);
    other.join();
  } catch (const std::system_error &) {
    drop(lo, hi);  // no second thread: the same, in one go
  }
#else
  (void)p;
#endif
}

template <typename T>
void release_matrix(T **m, long rlo, long clo) {
  if (!m) return;
  discard_pages(m[rlo] + clo);
  free(m[rlo] + clo);
  free(m + rlo);
}

}  // namespace

float *vector(long lo, long hi) { return make_vector<float>(lo, hi); }
double *dvector(long lo, long hi) { return make_vector<double>(lo, hi); }
fcomplex *cvector(long lo, long hi) { return make_vector<fcomplex>(lo, hi); }
int *ivector(long lo, long hi) { return make_vector<int>(lo, hi); }
void free_vector(float *v, long lo, long) { release_vector(v, lo); }
void free_dvector(double *v, long lo, long) { release_vector(v, lo); }
void free_cvector(fcomplex *v, long lo, long) { release_vector(v, lo); }
void ifree_vector(int *v, long lo, long) { release_vector(v, lo); }

float **matrix(long rlo, long rhi, long clo, long chi) { return make_matrix<float>(rlo, rhi, clo, chi); }
double **dmatrix(long rlo, long rhi, long clo, long chi) { return make_matrix<double>(rlo, rhi, clo, chi); }
fcomplex **cmatrix(long rlo, long rhi, long clo, long chi) {
  return make_matrix<fcomplex>(rlo, rhi, clo, chi);
}
void free_matrix(float **m, long rlo, long, long clo, long) { release_matrix(m, rlo, clo); }
void free_dmatrix(double **m, long rlo, long, long clo, long) { release_matrix(m, rlo, clo); }
void free_cmatrix(fcomplex **m, long rlo, long, long clo, long) { release_matrix(m, rlo, clo); }

int **imatrix(long rlo, long rhi, long clo, long chi) {
  long long nr = (long long)rhi - rlo + 1;
  long long nc = (long long)chi - clo + 1;
  if (nr < 0 || nc < 0) {
    out_of_memory_message();
    return nullptr;
  }
  int **m = static_cast<int **>(zero_block(nr, sizeof(int *)));
  if (!m) return nullptr;
  for (long long r = 0; r < nr; r++) {
    int *row = static_cast<int *>(zero_block(nc, sizeof(int)));
    if (!row) {
      for (long long q = 0; q < r; q++) free(m[q] + clo);
      free(m);
      return nullptr;
    }
    m[r] = row - clo;
  }
  return m - rlo;
}

void ifree_matrix(int **m, long rlo, long rhi, long clo, long) {
  if (!m) return;
  for (long r = rlo; r <= rhi; r++) free(m[r] + clo);
  free(m + rlo);
}

float ***matrix3d(long ilo, long ihi, long jlo, long jhi, long klo, long khi) {
  long long ni = (long long)ihi - ilo + 1, nj = (long long)jhi - jlo + 1, nk = (long long)khi - klo + 1;
  if (ni < 0 || nj < 0 || nk < 0 || (nj > 0 && ni > MAX_MATRIX_ELEMENTS / nj) ||
      (nk > 0 && ni * nj > MAX_MATRIX_ELEMENTS / nk)) {
    out_of_memory_message();
    return nullptr;
  }
  // Empty dimensions still get one slot each, so the pointer structure is
  // always complete and can be freed the same way.
  if (ni == 0) ni = 1;
  if (nj == 0) nj = 1;
  if (nk == 0) nk = 1;
  float ***a = static_cast<float ***>(zero_block(ni, sizeof(float **)));
  if (!a) return nullptr;
  float **rows = static_cast<float **>(zero_block(ni * nj, sizeof(float *)));
  if (!rows) {
    free(a);
    return nullptr;
  }
  float *block = static_cast<float *>(zero_block(ni * nj * nk, sizeof(float)));
  if (!block) {
    free(rows);
    free(a);
    return nullptr;
  }
  for (long long i = 0; i < ni; i++) {
    a[i] = rows + i * nj - jlo;
    for (long long j = 0; j < nj; j++) rows[i * nj + j] = block + (i * nj + j) * nk - klo;
  }
  return a - ilo;
}

void free_3dmatrix(float ***a, long ilo, long, long jlo, long, long klo, long) {
  if (!a) return;
  float **rows = a[ilo] + jlo;
  free(rows[0] + klo);
  free(rows);
  free(a + ilo);
}

void error(const char *msg) {
  fflush(stdout);
  fprintf(stderr, "\n\n Fatal error in %s: %s\n\n\a", progname, msg);
  exit(1);
}

char *error_progname(const char *name) {
  snprintf(progname, sizeof progname, "%s", name);
  return progname;
}
