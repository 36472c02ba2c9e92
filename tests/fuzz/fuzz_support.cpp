#include "tests/fuzz/fuzz_support.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "forwinv/compart.h"
#include "forwinv/forwinv.h"
#include "matrixio/atomicfile.h"
#include "matrixio/matrix.h"
#include "numeric/nrutils.h"

// The fuzz targets are linked with --wrap=exit,--wrap=fopen,--wrap=fclose:
// every call the program (and libFuzzer) makes to these lands here first.
extern "C" {
[[noreturn]] void __real_exit(int status);
FILE *__real_fopen(const char *name, const char *mode);
int __real_fclose(FILE *f);
}

namespace {

// Set while a target runs under catching_exit, on the thread that runs it.
jmp_buf *armed = nullptr;
pthread_t armed_thread;
int exit_status = 0;

// Streams opened while armed and not yet closed: a fatal path that ends the
// process leaves them open, which in one long fuzzing process would use up
// the file descriptors after a few hundred inputs.
std::vector<FILE *> open_streams;

constexpr int SLOTS = 32;
int memfd[SLOTS];
char memname[SLOTS][40];
bool memfd_ready = false;
int stdin_fd = -1;

int new_memfd(const char *label) {
  int fd = memfd_create(label, 0);
  if (fd < 0) {
    perror("memfd_create");
    abort();
  }
  return fd;
}

void replace_contents(int fd, const void *data, size_t size) {
  if (ftruncate(fd, 0) != 0) abort();
  const char *p = static_cast<const char *>(data);
  size_t done = 0;
  while (done < size) {
    ssize_t n = pwrite(fd, p + done, size - done, (off_t)done);
    if (n <= 0) abort();
    done += (size_t)n;
  }
}

void free_model() {
  for (int i = 0; i < MAXGEO; i++) {
    free(geo[i].pnt);
    free(geo[i].dhk);
  }
  memset(geo, 0, sizeof geo);
  // The isolated-source table shares its arrays with geo.
  memset(iso_geo, 0, sizeof iso_geo);
  ngeo = totpnt = totdhk = 0;
  memset(geocon, 0, sizeof geocon);
  memset(deflat, 0, sizeof deflat);
  iso_sur = -1;
  inner_only = 0;
  iso_ngeo = 0;
  memset(iso_index, 0, sizeof iso_index);
  memset(iso_deflat, 0, sizeof iso_deflat);
  if (iso_b) free_matrix(iso_b, 1, iso_totpnt, 1, iso_totpnt);
  iso_b = nullptr;
  iso_totpnt = 0;
}

void free_matrix_global(float **&m) {
  // Every matrix of a run is addressed from 1 in both directions; the
  // upper bounds are not needed to release it.
  if (m) free_matrix(m, 1, 0, 1, 0);
  m = nullptr;
}

}  // namespace

extern "C" [[noreturn]] void __wrap_exit(int status) {
  // Only the thread that runs the target can go back to it; an exit from a
  // worker thread ends the process, and libFuzzer reports it.
  if (armed && pthread_equal(pthread_self(), armed_thread)) {
    jmp_buf *back = armed;
    armed = nullptr;
    exit_status = status;
    longjmp(*back, 1);
  }
  __real_exit(status);
}

extern "C" FILE *__wrap_fopen(const char *name, const char *mode) {
  FILE *f = __real_fopen(name, mode);
  if (f && armed && pthread_equal(pthread_self(), armed_thread)) open_streams.push_back(f);
  return f;
}

extern "C" int __wrap_fclose(FILE *f) {
  for (size_t k = 0; k < open_streams.size(); k++)
    if (open_streams[k] == f) {
      open_streams.erase(open_streams.begin() + (long)k);
      break;
    }
  return __real_fclose(f);
}

void fuzz_init() {
  static bool done = false;
  if (done) return;
  done = true;
  const char *verbose = getenv("FUZZ_VERBOSE");
  if (!verbose || verbose[0] != '1') {
    int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      close(null);
    }
  }
  stdin_fd = new_memfd("fuzz-stdin");
  dup2(stdin_fd, 0);
  set_stdin("");
}

// The set-up of a target that needs nothing beyond fuzz_init; weak, so that
// a target with set-up of its own defines this itself.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_init();
  return 0;
}

const char *memfile(int slot, const uint8_t *data, size_t size) {
  if (slot < 0 || slot >= SLOTS) abort();
  if (!memfd_ready) {
    for (int &fd : memfd) fd = -1;
    memfd_ready = true;
  }
  if (memfd[slot] < 0) {
    memfd[slot] = new_memfd("fuzz-file");
    snprintf(memname[slot], sizeof memname[slot], "/proc/self/fd/%d", memfd[slot]);
  }
  replace_contents(memfd[slot], data, size);
  return memname[slot];
}

const char *memfile(int slot, const std::string &text) {
  return memfile(slot, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

void set_stdin(const std::string &text) {
  replace_contents(0, text.data(), text.size());
  // Drop whatever the stream had buffered from the previous input and start
  // reading the new one from its first byte.
  fseek(stdin, 0, SEEK_SET);
  clearerr(stdin);
}

int catching_exit(const std::function<void()> &fn) {
  static jmp_buf env;
  int status = -1;
  if (setjmp(env) == 0) {
    armed = &env;
    armed_thread = pthread_self();
    fn();
    armed = nullptr;
  } else {
    status = exit_status;
  }
  // Results cut short by the fatal path: their temporaries go first (their
  // streams are closed there), then whatever else was left open.
  atomic_abandon_all();
  while (!open_streams.empty()) __wrap_fclose(open_streams.back());
  fflush(stdout);
  return status;
}

void reset_tables() {
  free_model();

  elname[0] = '\0';
  free(el);
  el = nullptr;
  nel = 0;
  elec_vertex = 0;
  surfelec = 1;

  free(source);
  source = nullptr;
  nsource = nlpar = nnpar = 0;
  constraint = -1;
  free(source_comp);
  source_comp = nullptr;
  sourcename[0] = solname[0] = transname[0] = '\0';

  free_matrix_global(psi);
  if (shift) free_vector(shift, 1, ntim);
  shift = nullptr;
  ntim = 0;
  sampfreq = -1.0f;

  free_matrix_global(b);
  free_matrix_global(bi);
  free_matrix_global(sphi);
  free_matrix_global(trans);
  free_matrix_global(d);
  free_matrix_global(sdd);
  free_matrix_global(phi);
  free_matrix_global(g_w0);
  free(sdspnt);
  sdspnt = nullptr;
  sdphi = 0;

  bound_func = bound_compart;
  bound_crit = 0.707f;
  ascifile = foreign = 0;
}

void fuzz_check(bool ok, const char *what) {
  if (ok) return;
  fprintf(stderr, "\nfuzz invariant broken: %s\n", what);
  abort();
}
