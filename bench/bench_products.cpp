// Products with stored matrices, against the plain loops they replace: the
// transfer matrix from the inverted A matrix (a run that loads it, and every
// step of a dipole fit that uses it: 3 source rows for the potentials, 5 for
// their derivatives) and the forward potentials of an inverse run.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/models.h"
#include "forwinv/forwinv.h"
#include "forwinv/transfer.h"
#include "numeric/nrutils.h"
#include "numeric/parallel.h"

namespace {

const int VERTICES = 3 * 2562;  // the three-shell head

void fill(float **m, int rows, int cols, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) m[r][c] = u(gen);
}

// The plain loop: one double sum per entry, one entry after the other.
void plain_products(float **bi_m, float **x, int ncols, float **t) {
  for (int r = 1; r <= ncols; r++)
    for (int e = 1; e <= nel; e++) {
      double s = 0.0;
      for (int c = 1; c <= totpnt; c++) s += (double)x[r][c] * bi_m[e][c];
      t[e][r] = (float)s;
    }
}

// state.range(0): electrodes; range(1): source rows; range(2): threads (0
// = all, -1 = the plain loop).
void BM_StoredMatrixTransfer(benchmark::State &state) {
  nel = (int)state.range(0);
  totpnt = VERTICES;
  const int ncols = (int)state.range(1);
  float **bi_m = matrix(1, nel, 1, totpnt), **x = matrix(1, ncols, 1, totpnt), **t = matrix(1, nel, 1, ncols);
  fill(bi_m, nel, totpnt, 1);
  fill(x, ncols, totpnt, 2);
  set_assembly_threads(state.range(2) < 0 ? 1 : (int)state.range(2));
  QuietStdout quiet;  // the countdown of more than ten rows
  for (auto _ : state) {
    if (state.range(2) < 0)
      plain_products(bi_m, x, ncols, t);
    else
      sphi2trans(nullptr, bi_m, x, ncols, t, 0);
    benchmark::DoNotOptimize(t[1][1]);
  }
  state.counters["multiply_adds"] = (double)nel * ncols * totpnt;
  set_assembly_threads(0);
  free_matrix(bi_m, 1, nel, 1, totpnt);
  free_matrix(x, 1, ncols, 1, totpnt);
  free_matrix(t, 1, nel, 1, ncols);
}

// state.range(0): electrodes; range(1): parameters; range(2): samples;
// range(3): threads (0 = all, -1 = the plain loop).
void BM_Forward(benchmark::State &state) {
  const int ne = (int)state.range(0), npar = (int)state.range(1), ntim_ = (int)state.range(2);
  float **tr = matrix(1, ne, 1, npar), **dm = matrix(1, npar, 1, ntim_), **ph = matrix(1, ne, 1, ntim_);
  fill(tr, ne, npar, 3);
  fill(dm, npar, ntim_, 4);
  set_assembly_threads(state.range(3) < 0 ? 1 : (int)state.range(3));
  for (auto _ : state) {
    if (state.range(3) < 0) {
      for (int e = 1; e <= ne; e++)
        for (int t = 1; t <= ntim_; t++) {
          float s = 0.0f;
          for (int p = 1; p <= npar; p++) s += dm[p][t] * tr[e][p];
          ph[e][t] = s;
        }
    } else {
      forward(tr, ph, dm, npar, ne, ntim_);
    }
    benchmark::DoNotOptimize(ph[1][1]);
  }
  set_assembly_threads(0);
  free_matrix(tr, 1, ne, 1, npar);
  free_matrix(dm, 1, npar, 1, ntim_);
  free_matrix(ph, 1, ne, 1, ntim_);
}

}  // namespace

BENCHMARK(BM_StoredMatrixTransfer)
    ->ArgNames({"electrodes", "rows", "threads"})
    ->ArgsProduct({{19, 2562}, {3, 5, 30}, {-1, 1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Forward)
    ->ArgNames({"electrodes", "params", "samples", "threads"})
    ->ArgsProduct({{19, 128}, {6}, {1000, 20000}, {-1, 1, 0}})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

BENCHMARK_MAIN();
