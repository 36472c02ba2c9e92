// Saving and loading the inverted A-matrix file.
#include "forwinv/ama.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "matrixio/atomicfile.h"
#include "numeric/nrutils.h"

namespace {

constexpr int32_t AMA_VERSION = 10;

// Sequential writes that remember the first failure.
struct Writer {
  FILE *fp;
  bool ok = true;
  int err = 0;  // the system's reason for the first failure
  void fail(int why) {
    if (ok) err = why;
    ok = false;
  }
  void put(const void *p, size_t size, size_t n) {
    if (ok && n > 0 && fwrite(p, size, n, fp) != n) fail(errno);
  }
  void put_int(int32_t v) { put(&v, sizeof v, 1); }
  void put_zeros(size_t bytes) {
    static const char zeros[64] = {};
    while (ok && bytes > 0) {
      size_t chunk = bytes < sizeof zeros ? bytes : sizeof zeros;
      put(zeros, 1, chunk);
      bytes -= chunk;
    }
  }
};

// Sequential reads that know how much of the file is left, so that a count
// can be checked against the file before anything is allocated for it.
struct Reader {
  FILE *fp;
  long long size;
  bool get(void *p, size_t size, size_t n) { return n == 0 || fread(p, size, n, fp) == n; }
  bool get_int(int32_t *v) { return get(v, sizeof *v, 1); }
  // n floats, all finite: a NaN or infinity in the model or the matrix would
  // pass unnoticed into every potential computed from it.
  bool get_finite(float *p, size_t n) {
    if (!get(p, sizeof *p, n)) return false;
    for (size_t k = 0; k < n; k++)
      if (!std::isfinite(p[k])) return false;
    return true;
  }
  long long offset() const { return ftell(fp); }
  // True when count items of `each` bytes are present in the rest of the file.
  bool holds(long long count, long long each) const {
    long long left = size - offset();
    return count >= 0 && left >= 0 && count <= left / each;
  }
};

void *alloc_or_die(long long n, size_t size) {
  void *p = calloc(n > 0 ? (size_t)n : 1, size);
  if (!p) error("cannot allocate memory in load_ama");
  return p;
}

}  // namespace

// text: at least 30 characters; receives the wording of kind.
void modename(char *text, int kind) {
  switch (kind) {
    case 0: strcpy(text, "an electric"); break;
    case 1: strcpy(text, "a magnetic"); break;
    case 2: strcpy(text, "a combined electric/magnetic"); break;
    default: strcpy(text, "an unknown type"); break;
  }
}

FILE *open_ama(const char *name) {
  FILE *fp = atomic_open(name);
  if (!fp) printf("\nerror opening %s: %s\n\n\a\a", name, strerror(errno));
  return fp;
}

int save_ama_to(FILE *fp, const char *name, int kind) {
  // Only electric files can be written: the observation section of the
  // other kinds has no data in this program.
  if (kind != 0) {
    atomic_abandon(fp);
    char want[40];
    modename(want, kind);
    fprintf(stderr, "Cannot write %s inverted A matrix\n\n\a\a", want);
    return 0;
  }
  // Unbuffered, so that the first write that fails is the one reported,
  // with its own reason, and nothing after it is attempted.
  setvbuf(fp, nullptr, _IONBF, 0);
  Writer w{fp};
  errno = 0;

  w.put_int(AMA_VERSION);
  w.put_int(kind);
  w.put_int(ngeo);
  for (int i = 0; i < ngeo; i++) {
    const Interface &g = geo[i];
    w.put(g.name, 1, NAMELEN);
    w.put_int(g.npnt);
    w.put(g.pnt, sizeof *g.pnt, g.npnt);
    w.put_int(g.ndhk);
    w.put(g.dhk, sizeof *g.dhk, g.ndhk);
    w.put(&g.sigma_in, sizeof g.sigma_in, 1);
    w.put(&g.sigma_out, sizeof g.sigma_out, 1);
    w.put(geocon[i], sizeof geocon[i][0], ngeo);
    w.put(deflat[i], sizeof deflat[i][0], ngeo);
  }

  w.put(elname, 1, NAMELEN);
  w.put_int(nel);
  if (el)
    w.put(el, sizeof(Electrode), (size_t)nel + 1);
  else
    w.put_zeros(sizeof(Electrode) * ((size_t)nel + 1));
  w.put_int(elec_vertex);
  w.put_int(surfelec);

  if (nel > 0 && totpnt > 0 && !bi) w.fail(EINVAL);  // nothing to store
  for (int e = 1; w.ok && e <= nel; e++) w.put(&bi[e][1], sizeof(float), totpnt);

  w.put_int(iso_sur);
  w.put_int(inner_only);
  if (iso_sur != -1) {
    int n = geo[iso_sur].npnt;
    if (n > 0 && !iso_b) w.fail(EINVAL);
    for (int p = 1; w.ok && p <= n; p++) w.put(&iso_b[p][1], sizeof(float), n);
  }

  // The file appears under its name only now, complete and on the disk; a
  // failure leaves an earlier file of that name as it was.
  if (!w.ok) {
    atomic_abandon(fp);
  } else if (!atomic_commit(fp)) {
    w.fail(errno);
  }
  if (!w.ok) {
    printf("\nerror writing to %s: %s\n\n\a\a", name, strerror(w.err ? w.err : EIO));
    return 0;
  }
  return 1;
}

int save_ama(const char *name, int kind) {
  FILE *fp = open_ama(name);
  return fp ? save_ama_to(fp, name, kind) : 0;
}

int load_ama(const char *name, int kind) {
  FILE *fp = fopen(name, "rb");
  if (!fp) {
    printf("\nerror opening %s\n\n\a\a", name);
    return 0;
  }
  long long size = -1;
  if (fseek(fp, 0, SEEK_END) == 0) size = ftell(fp);
  rewind(fp);
  Reader rd{fp, size};

  auto fail = [&]() {
    printf("\nerror reading %s\n\n\a\a", name);
    fclose(fp);
    return 0;
  };
  if (size < 0) return fail();

  int32_t version, file_kind;
  if (!rd.get_int(&version)) return fail();
  if (version != AMA_VERSION) {
    fprintf(stderr, "%s is either not an inverted A matrix, or one of an old version.\n", name);
    fprintf(stderr, "Anyway, this program cannot use it\n");
    fclose(fp);
    return 0;
  }
  if (!rd.get_int(&file_kind)) return fail();
  if (file_kind != kind) {
    char want[40], have[40];
    modename(want, kind);
    modename(have, file_kind);
    fprintf(stderr, "You need %s inverted A matrix; %s is %s inverted A matrix\n\n\a\a", want, name, have);
    fclose(fp);
    return 0;
  }
  // Only electric files hold what this program uses (no observation data).
  if (kind != 0) return fail();

  int32_t n_if;
  if (!rd.get_int(&n_if) || n_if < 1 || n_if > MAXGEO) return fail();
  ngeo = n_if;
  totpnt = totdhk = 0;
  for (int i = 0; i < ngeo; i++) {
    Interface &g = geo[i];
    if (!rd.get(g.name, 1, NAMELEN)) return fail();
    g.name[NAMELEN - 1] = '\0';

    int32_t np, nd;
    if (!rd.get_int(&np) || !rd.holds(np, 12)) return fail();
    g.npnt = np;
    g.pnt = static_cast<float(*)[3]>(alloc_or_die(np, sizeof *g.pnt));
    if (!rd.get_finite(&g.pnt[0][0], 3 * (size_t)np)) return fail();

    if (!rd.get_int(&nd) || !rd.holds(nd, 12)) return fail();
    g.ndhk = nd;
    g.dhk = static_cast<int32_t(*)[3]>(alloc_or_die(nd, sizeof *g.dhk));
    if (!rd.get(g.dhk, sizeof *g.dhk, nd)) return fail();
    for (int t = 0; t < nd; t++)
      for (int k = 0; k < 3; k++)
        if (g.dhk[t][k] < 0 || g.dhk[t][k] >= np) return fail();

    if (!rd.get_finite(&g.sigma_in, 1) || !rd.get_finite(&g.sigma_out, 1)) return fail();
    if (!rd.get(geocon[i], sizeof geocon[i][0], ngeo) || !rd.get_finite(deflat[i], ngeo)) return fail();
    // Relation codes are 0 (outside), 1 (itself) and 2 (inside) only.
    for (int j = 0; j < ngeo; j++)
      if (geocon[i][j] < 0 || geocon[i][j] > 2) return fail();
    totpnt += np;
    totdhk += nd;
  }

  printf("elec starts at %d\n", (int)rd.offset());

  if (!rd.get(elname, 1, NAMELEN)) return fail();
  elname[NAMELEN - 1] = '\0';
  int32_t n_el;
  if (!rd.get_int(&n_el) || n_el < 1 || !rd.holds((long long)n_el + 1, sizeof(Electrode))) return fail();
  nel = n_el;
  el = static_cast<Electrode *>(alloc_or_die((long long)nel + 1, sizeof(Electrode)));
  if (!rd.get(el, sizeof(Electrode), (size_t)nel + 1)) return fail();
  for (int e = 0; e <= nel; e++) {
    el[e].label[sizeof el[e].label - 1] = '\0';
    if (!std::isfinite(el[e].u) || !std::isfinite(el[e].v)) return fail();
  }
  int32_t flag_vertex, flag_surf;
  if (!rd.get_int(&flag_vertex) || !rd.get_int(&flag_surf)) return fail();
  elec_vertex = flag_vertex;
  surfelec = flag_surf;
  for (int e = 1; e <= nel; e++) {
    int idx = el[e].index;
    bool inside = elec_vertex ? (idx >= 1 && idx <= totpnt) : (idx >= 0 && idx < totdhk);
    if (!inside) return fail();
  }

  printf("bi starts at %d\n", (int)rd.offset());

  if (totpnt < 1 || !rd.holds(nel, 4LL * totpnt)) return fail();
  float **m = matrix(1, nel, 1, totpnt);
  if (!m) error("cannot allocate memory in load_ama");
  bi = m;
  for (int e = 1; e <= nel; e++)
    if (!rd.get_finite(&bi[e][1], totpnt)) return fail();

  int32_t isur, inner;
  if (!rd.get_int(&isur) || !rd.get_int(&inner)) return fail();
  if (isur < -1 || isur >= ngeo) return fail();
  iso_sur = isur;
  inner_only = inner;
  if (iso_sur != -1) {
    int n = geo[iso_sur].npnt;
    if (n < 1 || !rd.holds(n, 4LL * n)) return fail();
    float **ib = matrix(1, n, 1, n);
    if (!ib) error("cannot allocate memory in load_ama");
    iso_b = ib;
    iso_totpnt = n;
    for (int p = 1; p <= n; p++)
      if (!rd.get_finite(&iso_b[p][1], n)) return fail();
  }

  if (fclose(fp) != 0) {
    printf("\nerror closing %s\n\n\a\a", name);
    return 0;
  }
  return 1;
}
