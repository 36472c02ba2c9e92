// Runs the least-squares solver on a 1 x N problem after capping the address
// space so that its work arrays cannot all be allocated, and reports what it
// returned and whether the matrix and right-hand side were left as they were.
// Usage: probe_hfti [nolimit]   (nolimit: no cap; the problem then solves)
// Prints "skipped" when built with a sanitizer, whose allocator does not
// honour the cap in the same way.
#include <sys/resource.h>

#include <cstdio>
#include <cstring>

#include "numeric/hfti.h"
#include "numeric/nrutils.h"

#if defined(__SANITIZE_ADDRESS__)
#define PROBE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PROBE_SANITIZED 1
#endif
#endif

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
#ifdef PROBE_SANITIZED
  printf("skipped\n");
  return 0;
#endif
  const int n = 1 << 20;  // 4 MB per work vector
  float **a = matrix(1, 1, 1, n), **b = matrix(1, n, 1, 1);
  if (!a || !b) return printf("setup failed\n"), 2;
  for (int j = 1; j <= n; j++) a[1][j] = (float)(j % 7) + 1.0f, b[j][1] = 0.0f;
  b[1][1] = 3.0f;

  if (!(argc > 1 && strcmp(argv[1], "nolimit") == 0)) {
    // Room for three work vectors and some slack, not for the fourth.
    long long pages = -1, vec = (long long)n * 4;
    FILE *f = fopen("/proc/self/statm", "r");
    if (!f || fscanf(f, "%lld", &pages) != 1) return printf("no statm\n"), 2;
    fclose(f);
    struct rlimit rl;
    rl.rlim_cur = rl.rlim_max = (rlim_t)(pages * 4096 + 3 * vec + vec / 2);
    if (setrlimit(RLIMIT_AS, &rl) != 0) return printf("setrlimit failed\n"), 2;
  }

  int krank = 99;
  hfti(a, 1, n, b, 1, 1e-5f, &krank);
  bool untouched = b[1][1] == 3.0f;
  for (int j = 1; j <= n && untouched; j++) untouched = a[1][j] == (float)(j % 7) + 1.0f && (j == 1 || b[j][1] == 0.0f);
  printf("krank=%d untouched=%d\n", krank, untouched ? 1 : 0);
  return 0;
}
