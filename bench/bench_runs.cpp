// Whole runs of the built program on the three-shell sphere head with 2562
// vertices per shell (radii 1.0, 0.92, 0.88; conductivities 1, 0.0125, 1),
// timed as whole commands: a forward run, a run that stores the inverted A
// matrix (-i), and a forward run that loads it.  Electrodes are either the
// 19 of the layout tool or every scalp vertex (the empty answer, shown as
// electrodes:0).  --head_vertices=N runs the same on a head with N vertices
// per shell (642 for a quick look).  When the build found OpenBLAS, the
// forward run is also timed against LAPACK's sgetrf of a matrix of the same
// order (shaped like a system matrix, on every thread) in the same run:
// counters forward_s, sgetrf_s and forward_over_sgetrf.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

#ifdef BRELIX_BENCH_OPENBLAS
extern "C" void sgetrf_(const int *m, const int *n, float *a, const int *lda, int *ipiv, int *info);
#endif

namespace {

int vertices = 2562;
const int TIMEOUT_S = 3600;

// Ten dipoles in the brain compartment.
const char *const SOURCES =
    "10\n"
    "1  0.30  0.20  0.45\n2 -0.30  0.20  0.45\n3  0.00  0.50  0.30\n4  0.00 -0.50  0.30\n5  0.40  0.00  0.40\n"
    "6 -0.40  0.00  0.40\n7  0.10  0.10  0.70\n8 -0.20 -0.20  0.10\n9  0.55  0.30  0.00\n10 0.00  0.00  0.60\n";

// The scratch folder with the model, made on first use and kept for the
// whole benchmark run.
const TempDir &model_dir() {
  static std::unique_ptr<TempDir> dir;
  if (!dir) {
    dir = std::make_unique<TempDir>();
    const int level = icosphere_level(vertices);
    write_trimesh(dir->file("scalp.tri"), icosphere(level, 1.00), true);
    write_trimesh(dir->file("skull.tri"), icosphere(level, 0.92), true);
    write_trimesh(dir->file("brain.tri"), icosphere(level, 0.88), true);
    write_file(dir->file("dipoles.pos"), SOURCES);
    const ProcResult p = run_process(ELECTRODE_LAYOUT_EXE, {"scalp.tri", "electrodes.elc"}, "", dir->path());
    if (p.status != 0) fprintf(stderr, "electrode_layout failed: %s\n", p.err.c_str());
  }
  return *dir;
}

std::string geometry_answers(int electrodes) {
  return "scalp.tri\n1\nskull.tri\n0.0125\nbrain.tri\n1\n\n" +
         std::string(electrodes == 19 ? "electrodes.elc\n" : "\n");
}

std::string ama_name(int electrodes) { return electrodes == 19 ? "head19.ama" : "head_all.ama"; }

// Run the program in the model folder; the wall-clock time of the whole
// command, or a negative value (with the reason given to the benchmark)
// when it failed.
double timed_run(benchmark::State &state, const std::vector<std::string> &args, const std::string &input,
                 const std::string &must_write) {
  const TempDir &dir = model_dir();
  remove(dir.file(must_write).c_str());
  const auto start = std::chrono::steady_clock::now();
  const ProcResult p = run_process(BRELIX_EXE, args, input, dir.path(), TIMEOUT_S);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (p.status != 0 || !file_exists(dir.file(must_write))) {
    const std::string why = "brelix exited with status " + std::to_string(p.status) +
                            (p.status == 128 + 9 ? " (killed after the time limit)" : "") + ": " +
                            p.err.substr(0, 300);
    state.SkipWithError(why.c_str());
    return -1.0;
  }
  return seconds;
}

// state.range(0): 19 electrodes, or 0 for every scalp vertex.
void BM_ForwardRun(benchmark::State &state) {
  const int electrodes = (int)state.range(0);
  const std::string input = geometry_answers(electrodes) + "dipoles.pos\n\nforward.mat\n";
  for (auto _ : state) {
    const double s = timed_run(state, {}, input, "forward.mat");
    if (s < 0) break;
    state.SetIterationTime(s);
  }
}

void BM_StoreInvertedRun(benchmark::State &state) {
  const int electrodes = (int)state.range(0);
  for (auto _ : state) {
    const double s = timed_run(state, {"-i", ama_name(electrodes)}, geometry_answers(electrodes), ama_name(electrodes));
    if (s < 0) break;
    state.SetIterationTime(s);
  }
}

void BM_LoadedForwardRun(benchmark::State &state) {
  const int electrodes = (int)state.range(0);
  const TempDir &dir = model_dir();
  if (!file_exists(dir.file(ama_name(electrodes)))) {
    const ProcResult p = run_process(BRELIX_EXE, {"-i", ama_name(electrodes)}, geometry_answers(electrodes),
                                     dir.path(), TIMEOUT_S);
    if (p.status != 0) {
      state.SkipWithError("could not store the inverted A matrix");
      return;
    }
  }
  for (auto _ : state) {
    const double s = timed_run(state, {ama_name(electrodes)}, "dipoles.pos\n\nloaded.mat\n", "loaded.mat");
    if (s < 0) break;
    state.SetIterationTime(s);
  }
}

#ifdef BRELIX_BENCH_OPENBLAS
// Seconds sgetrf takes for an n x n matrix I - C, C positive with row sums
// 1/2 (column-major), like the system matrix of a model of order n.
double sgetrf_seconds(int n) {
  std::vector<float> a((size_t)n * n);
  std::mt19937 rng(12345);
  std::uniform_real_distribution<float> pos(0.01f, 1.0f);
  std::vector<double> row(n);
  for (int i = 0; i < n; i++) {
    double sum = 0;
    for (int j = 0; j < n; j++) sum += row[j] = pos(rng);
    for (int j = 0; j < n; j++) a[(size_t)j * n + i] = (float)((i == j ? 1.0 : 0.0) - 0.5 * row[j] / sum);
  }
  std::vector<int> ipiv(n);
  int info = 0;
  const auto start = std::chrono::steady_clock::now();
  sgetrf_(&n, &n, a.data(), &n, ipiv.data(), &info);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The forward run with 19 electrodes and sgetrf of the model's order, one
// after the other; the counters keep the shortest of each (the machine may
// be busy with other work now and then).
void BM_ForwardRunVsSgetrf(benchmark::State &state) {
  const std::string input = geometry_answers(19) + "dipoles.pos\n\nforward.mat\n";
  double forward_best = 1e30, lu_best = 1e30;
  for (auto _ : state) {
    const double forward = timed_run(state, {}, input, "forward.mat");
    if (forward < 0) break;
    const double lu = sgetrf_seconds(3 * vertices);
    state.SetIterationTime(forward);
    forward_best = std::min(forward_best, forward);
    lu_best = std::min(lu_best, lu);
  }
  state.counters["forward_s"] = forward_best;
  state.counters["sgetrf_s"] = lu_best;
  state.counters["forward_over_sgetrf"] = forward_best / lu_best;
}
#endif

}  // namespace

// Each run once, with the 19 electrodes and with every outer vertex.
void register_runs() {
  using Run = void (*)(benchmark::State &);
  const std::pair<const char *, Run> runs[] = {
      {"BM_ForwardRun", BM_ForwardRun}, {"BM_StoreInvertedRun", BM_StoreInvertedRun},
      {"BM_LoadedForwardRun", BM_LoadedForwardRun}};
  for (const auto &[name, fn] : runs)
    benchmark::RegisterBenchmark(name, fn)
        ->ArgName("electrodes")
        ->Arg(19)
        ->Arg(0)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kSecond);
#ifdef BRELIX_BENCH_OPENBLAS
  benchmark::RegisterBenchmark("BM_ForwardRunVsSgetrf", BM_ForwardRunVsSgetrf)
      ->Iterations(5)
      ->UseManualTime()
      ->Unit(benchmark::kSecond);
#endif
}

int main(int argc, char **argv) {
  // Our own option first; the rest is the benchmark library's.
  int kept = 1;
  for (int a = 1; a < argc; a++) {
    if (strncmp(argv[a], "--head_vertices=", 16) == 0) {
      vertices = atoi(argv[a] + 16);
      if (icosphere_level(vertices) < 0) {
        fprintf(stderr, "no sphere mesh has %d vertices (12, 42, 162, 642, 2562, ...)\n", vertices);
        return 1;
      }
    } else {
      argv[kept++] = argv[a];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  printf("Head of three shells with %d vertices each\n", vertices);
  register_runs();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
