// LU factorisation and many-right-hand-side solves: the one-row-at-a-time
// reference loops against the blocked, vectorised, threaded kernels, and,
// when the build found OpenBLAS, LAPACK's sgetrf (partial pivoting, a
// different factorisation) for scale.  Counter "GFLOP/s": 2/3 n^3 floating
// point operations per factorisation, 2 n^2 per right-hand side.
//
// Matrix kinds: 0 uniform random in [-1, 1] (many exchanges early on), 1
// I - C with C positive and row sums 1/2, shaped like a boundary-element
// system (no exchanges).  Times are wall-clock: the kernels run their own
// threads.  On a machine shared with other work the wall-clock rate drops
// with the share of the processors the benchmark gets; "GFLOP/cpu-s" divides
// by the processor time the whole process used instead (all its threads), a
// steadier measure of the kernels' efficiency per core.  `--lu_big` adds the
// factorisation at n = 7686.  Debian's OpenBLAS may not recognise a recent
// processor and fall back to generic kernels; OPENBLAS_CORETYPE=SkylakeX (or
// whatever suits the machine) in the environment of the run fixes that.
#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/ludec_plain.h"
#include "numeric/nrutils.h"
#include "numeric/verbose.h"

#ifdef BRELIX_BENCH_OPENBLAS
extern "C" {
void sgetrf_(const int *m, const int *n, float *a, const int *lda, int *ipiv, int *info);
void openblas_set_num_threads(int num_threads);
}
#endif

namespace {

struct Matrix {
  int n;
  float **a;
  explicit Matrix(int n_) : n(n_), a(matrix(1, n_, 1, n_)) {
    if (!a) throw std::bad_alloc();
  }
  Matrix(const Matrix &) = delete;
  Matrix &operator=(const Matrix &) = delete;
  ~Matrix() { free_matrix(a, 1, n, 1, n); }
  void copy_from(const Matrix &o) {
    for (int i = 1; i <= n; i++) memcpy(&a[i][1], &o.a[i][1], n * sizeof(float));
  }
};

void fill(Matrix &m, int kind) {
  std::mt19937 rng(12345 + m.n);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), pos(0.01f, 1.0f);
  std::vector<double> row(m.n + 1);
  for (int i = 1; i <= m.n; i++) {
    if (kind == 0) {
      for (int j = 1; j <= m.n; j++) m.a[i][j] = u(rng);
    } else {
      double sum = 0;
      for (int j = 1; j <= m.n; j++) sum += row[j] = pos(rng);
      for (int j = 1; j <= m.n; j++) m.a[i][j] = (float)((i == j ? 1.0 : 0.0) - 0.5 * row[j] / sum);
    }
  }
}

double process_cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

// Processor time of the whole process over the timed parts of a run.
struct CpuClock {
  double total = 0, start = 0;
  void resume() { start = process_cpu_seconds(); }
  void pause() { total += process_cpu_seconds() - start; }
};

void set_gflops(benchmark::State &st, double flops_per_iteration, const CpuClock &cpu) {
  st.counters["GFLOP/s"] =
      benchmark::Counter(flops_per_iteration * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  if (cpu.total > 0) st.counters["GFLOP/cpu-s"] = flops_per_iteration * 1e-9 * st.iterations() / cpu.total;
}

double lu_flops(int n) { return 2.0 / 3.0 * n * (double)n * n; }

// The factors of a boundary-element-shaped matrix (kind 1), for the solves.
void factorise_bem_like(Matrix &a) {
  fill(a, 1);
  float cond;
  ludec(a.a, a.n, &cond);
}

// Times `factorise` on copies of a matrix of the given kind.
void time_factorisation(benchmark::State &st, int n, int kind, void (*factorise)(float **, int, float *)) {
  set_verbose(0);
  Matrix original(n), work(n);
  fill(original, kind);
  CpuClock cpu;
  for (auto _ : st) {
    st.PauseTiming();
    work.copy_from(original);
    st.ResumeTiming();
    cpu.resume();
    float cond;
    factorise(work.a, n, &cond);
    cpu.pause();
    benchmark::DoNotOptimize(cond);
  }
  set_gflops(st, lu_flops(n), cpu);
}

// args: n, kind
void BM_LudecPlain(benchmark::State &st) { time_factorisation(st, (int)st.range(0), (int)st.range(1), ludec_plain); }

// args: n, threads, kind
void BM_Ludec(benchmark::State &st) {
  set_lu_threads((int)st.range(1));
  time_factorisation(st, (int)st.range(0), (int)st.range(2), ludec);
  set_lu_threads(0);
}

// args: n, right-hand sides, threads, unit (1: columns of the identity, as
// an inversion uses them; 0: random)
void BM_SolveMany(benchmark::State &st) {
  const int n = (int)st.range(0), nrhs = (int)st.range(1);
  const bool unit = st.range(3) != 0;
  set_verbose(0);
  set_lu_threads((int)st.range(2));
  Matrix a(n);
  factorise_bem_like(a);
  float **rhs = matrix(1, nrhs, 1, n), **x = matrix(1, nrhs, 1, n);
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int r = 1; r <= nrhs; r++)
    for (int i = 1; i <= n; i++) rhs[r][i] = unit ? (i == n / 2 + r ? 1.0f : 0.0f) : u(rng);
  CpuClock cpu;
  for (auto _ : st) {
    st.PauseTiming();
    for (int r = 1; r <= nrhs; r++) memcpy(&x[r][1], &rhs[r][1], n * sizeof(float));
    st.ResumeTiming();
    cpu.resume();
    solvelu_many(a.a, n, x, nrhs);
    cpu.pause();
    benchmark::ClobberMemory();
  }
  set_gflops(st, 2.0 * n * (double)n * nrhs, cpu);
  free_matrix(x, 1, nrhs, 1, n);
  free_matrix(rhs, 1, nrhs, 1, n);
  set_lu_threads(0);
}

// The same right-hand sides one solvelu call at a time. args: n, nrhs
void BM_SolveOneByOne(benchmark::State &st) {
  const int n = (int)st.range(0), nrhs = (int)st.range(1);
  set_verbose(0);
  Matrix a(n);
  factorise_bem_like(a);
  std::vector<float> rhs((size_t)nrhs * (n + 1)), x(rhs.size());
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (float &v : rhs) v = u(rng);
  CpuClock cpu;
  for (auto _ : st) {
    st.PauseTiming();
    x = rhs;
    st.ResumeTiming();
    cpu.resume();
    for (int r = 0; r < nrhs; r++) solvelu(a.a, n, &x[(size_t)r * (n + 1)]);
    cpu.pause();
    benchmark::ClobberMemory();
  }
  set_gflops(st, 2.0 * n * (double)n * nrhs, cpu);
}

// The whole inversion as the program does it for its electrode matrix:
// every column of the identity solved, `block` at a time, on the factors of
// a boundary-element-shaped matrix.  Compare its time with BM_Ludec of the
// same n, threads and kind 1.  GFLOP/s counts the 2 n^3 of n full solves.
// args: n, threads, block
void BM_Invert(benchmark::State &st) {
  const int n = (int)st.range(0), block = (int)st.range(2);
  set_verbose(0);
  set_lu_threads((int)st.range(1));
  Matrix a(n);
  factorise_bem_like(a);
  float **x = matrix(1, block, 1, n);
  CpuClock cpu;
  for (auto _ : st) {
    cpu.resume();
    const LuSolveInfo info = lu_solve_info(a.a, n);
    for (int c0 = 1; c0 <= n; c0 += block) {
      const int count = n - c0 + 1 < block ? n - c0 + 1 : block;
      for (int r = 1; r <= count; r++) {
        memset(&x[r][1], 0, n * sizeof(float));
        x[r][c0 + r - 1] = 1.0f;
      }
      solvelu_many(a.a, n, x, count, &info);
    }
    cpu.pause();
    benchmark::ClobberMemory();
  }
  set_gflops(st, 2.0 * n * (double)n * n, cpu);
  free_matrix(x, 1, block, 1, n);
  set_lu_threads(0);
}

#ifdef BRELIX_BENCH_OPENBLAS
// args: n, threads, kind.  Column-major copy of the same matrix.
void BM_Sgetrf(benchmark::State &st) {
  const int n = (int)st.range(0);
  openblas_set_num_threads((int)st.range(1));
  Matrix original(n);
  fill(original, (int)st.range(2));
  std::vector<float> colmajor((size_t)n * n), work(colmajor.size());
  for (int i = 1; i <= n; i++)
    for (int j = 1; j <= n; j++) colmajor[(size_t)(j - 1) * n + (i - 1)] = original.a[i][j];
  std::vector<int> ipiv(n);
  CpuClock cpu;
  for (auto _ : st) {
    st.PauseTiming();
    work = colmajor;
    st.ResumeTiming();
    cpu.resume();
    int info = 0;
    sgetrf_(&n, &n, work.data(), &n, ipiv.data(), &info);
    cpu.pause();
    benchmark::DoNotOptimize(info);
  }
  set_gflops(st, lu_flops(n), cpu);
}
#endif

void register_all(bool big) {
  std::vector<int> sizes = {1000, 2000, 4000};
  if (big) sizes.push_back(7686);
  for (int kind : {0, 1}) {
    for (int n : sizes) {
      if (n <= 4000)
        benchmark::RegisterBenchmark("BM_LudecPlain", BM_LudecPlain)
            ->Args({n, kind})
            ->ArgNames({"n", "kind"})
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
      for (int threads : {1, 2})
        benchmark::RegisterBenchmark("BM_Ludec", BM_Ludec)
            ->Args({n, threads, kind})
            ->ArgNames({"n", "threads", "kind"})
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
#ifdef BRELIX_BENCH_OPENBLAS
      for (int threads : {1, 2})
        benchmark::RegisterBenchmark("BM_Sgetrf", BM_Sgetrf)
            ->Args({n, threads, kind})
            ->ArgNames({"n", "threads", "kind"})
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
#endif
    }
  }
  for (int nrhs : {64, 128, 256})
    for (int threads : {1, 2})
      for (int unit : {0, 1})
        benchmark::RegisterBenchmark("BM_SolveMany", BM_SolveMany)
            ->Args({2000, nrhs, threads, unit})
            ->ArgNames({"n", "nrhs", "threads", "unit"})
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
  // The forward job's shape: three components of ten dipoles on a large model.
  if (big)
    for (int threads : {1, 2})
      for (int nrhs : {30, 64, 128})
      benchmark::RegisterBenchmark("BM_SolveMany", BM_SolveMany)
          ->Args({7686, nrhs, threads, 0})
          ->ArgNames({"n", "nrhs", "threads", "unit"})
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
  for (int n : sizes)
    if (n >= 2000)
      for (int threads : {1, 2})
        benchmark::RegisterBenchmark("BM_Invert", BM_Invert)
            ->Args({n, threads, 1024})
            ->ArgNames({"n", "threads", "block"})
            ->Iterations(1)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
  benchmark::RegisterBenchmark("BM_SolveOneByOne", BM_SolveOneByOne)
      ->Args({2000, 64})
      ->ArgNames({"n", "nrhs"})
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

}  // namespace

int main(int argc, char **argv) {
  bool big = false;
  std::vector<char *> args;
  for (int i = 0; i < argc; i++) {
    if (std::string(argv[i]) == "--lu_big")
      big = true;
    else
      args.push_back(argv[i]);
  }
  int count = (int)args.size();
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  register_all(big);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
