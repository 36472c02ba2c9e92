// System-matrix assembly on three concentric sphere shells: the plain
// sequential code, and the threaded code at each instruction-set level of
// its vector kernels (0 portable, 1 AVX2, 2 AVX-512, where the processor
// has it) on one thread and on every hardware thread.  Counters: ns_pair,
// wall-clock nanoseconds per vertex-triangle pair of the whole assembly
// (deflation and transform included); ns_pair_thread, the same times the
// threads.  With the test helpers at hand it also solves the
// isolated-source head with 2562 vertices per shell and prints its accuracy
// against the analytic potentials.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "bench/models.h"
#include "forwinv/bmatrix.h"
#include "numeric/double_simd.h"
#include "numeric/parallel.h"
#ifdef BENCH_HAS_TESTSUPPORT
#include <filesystem>

#include "forwinv/dipole.h"
#include "forwinv/transfer.h"
#include "numeric/ludec.h"
#include "tests/support/analytic.h"
#include "tests/support/files.h"
#endif

namespace {

// state.range(0): vertices per shell; state.range(1): threads (0 = all);
// state.range(2): instruction-set level, or -1 for the plain sequential code.
void BM_Assembly(benchmark::State &state) {
  const int level = (int)state.range(2);
  if (level > double_simd_best()) {
    state.SkipWithError("the processor lacks this instruction-set level");
    return;
  }
  load_sphere_model(head_shells(false), (int)state.range(0));
  set_assembly_reference(level < 0);
  double_simd_set_level(level);
  set_assembly_threads(level < 0 ? 1 : (int)state.range(1));
  const int threads = assembly_threads();
  // Fresh memory costs the system a page clearing at its first touch; that
  // is paid here, so that the timing is of the assembly alone.
  for (int i = 1; i <= totpnt; i++) memset(b[i] + 1, 0, sizeof(float) * totpnt);
  double seconds = 0.0;
  for (auto _ : state) {
    QuietStdout quiet;
    const auto start = std::chrono::steady_clock::now();
    b_matrix();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    benchmark::DoNotOptimize(b[1][1]);
  }
  const double pairs = (double)totpnt * totdhk * (double)state.iterations();
  state.counters["threads"] = threads;
  state.counters["level"] = level;
  state.counters["ns_pair"] = 1e9 * seconds / pairs;
  state.counters["ns_pair_thread"] = 1e9 * seconds * threads / pairs;
  set_assembly_threads(0);
  set_assembly_reference(false);
  double_simd_set_level(-1);
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = nullptr;
}

#ifdef BENCH_HAS_TESTSUPPORT
// The three-shell head with the brain as the isolated-source interface and
// every scalp vertex an electrode: radial dipoles on the z axis at
// eccentricities 0.1 .. 0.8 of the brain radius, solved through the
// factorised system matrix, against the analytic series.  The whole
// in-process solution is timed; the relative difference measures are
// printed next to the figures this model is known to reach.
void BM_IsolatedSourceAccuracy(benchmark::State &state) {
  const int vertices = (int)state.range(0);
  const double ecc[5] = {0.1, 0.3, 0.5, 0.7, 0.8};
  const double expected[5] = {0.0018, 0.0053, 0.0092, 0.014, 0.0175};
  const double inner = 0.88;
  TempDir scratch;  // the isolated-source step writes its scratch file here
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(scratch.path());

  load_sphere_model(head_shells(true), vertices);
  nel = geo[0].npnt;
  el = static_cast<Electrode *>(calloc(nel + 1, sizeof(Electrode)));
  for (int e = 1; e <= nel; e++) el[e].index = e;
  elec_vertex = 1;
  surfelec = 1;
  float **x = matrix(1, 15, 1, totpnt), **t = matrix(1, nel, 1, 15);
  for (auto _ : state) {
    QuietStdout quiet;
    b_matrix();
    float cond;
    ludec(b, totpnt, &cond);
    ludec(iso_b, iso_totpnt, &cond);
    for (int k = 0; k < 5; k++) {
      const float p[3] = {0.0f, 0.0f, (float)(ecc[k] * inner)};
      sphi_dipole(p, x + 3 * k);
    }
    sphi2trans(b, nullptr, x, 15, t, 0);
  }
  printf("\nIsolated-source head, %d vertices per shell: radial dipoles against the analytic series\n", vertices);
  printf("  eccentricity     RDM   known figure\n");
  for (int k = 0; k < 5; k++) {
    std::vector<double> u, v;
    for (int e = 1; e <= nel; e++) {
      const float *q = geo[0].pnt[e - 1];
      u.push_back(t[e][3 * k + 3]);
      v.push_back(sphere_potential({0.88, 0.92, 1.0}, {1.0, 0.0125, 1.0}, {0, 0, ecc[k] * inner}, {0, 0, 1},
                                   {q[0], q[1], q[2]}));
    }
    const double r = rdm(u, v);
    printf("  %12.1f  %7.4f  %7.4f\n", ecc[k], r, expected[k]);
    char name[32];
    snprintf(name, sizeof name, "rdm_%.1f", ecc[k]);
    state.counters[name] = r;
  }
  printf("\n");
  free_matrix(x, 1, 15, 1, totpnt);
  free_matrix(t, 1, nel, 1, 15);
  free_matrix(b, 1, totpnt, 1, totpnt);
  b = nullptr;
  std::filesystem::current_path(here);
}
#endif

}  // namespace

// The plain code once, then every level on one thread and on all.
void register_assembly() {
  for (int vertices : {642, 2562})
    for (int level = -1; level <= 2; level++)
      for (int threads : {1, 0}) {
        if (level < 0 && threads == 0) continue;
        auto *bm = benchmark::RegisterBenchmark("BM_Assembly", BM_Assembly)
                       ->Args({vertices, threads, level})
                       ->ArgNames({"vertices", "threads", "level"})
                       ->Unit(benchmark::kMillisecond)
                       ->UseRealTime();
        if (vertices > 642) bm->Iterations(1);
      }
}

#ifdef BENCH_HAS_TESTSUPPORT
BENCHMARK(BM_IsolatedSourceAccuracy)
    ->ArgName("vertices")
    ->Arg(2562)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
#endif

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  register_assembly();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
