// brelix-prep head on a head of three 163 842-vertex surfaces (as fine as
// FreeSurfer's watershed output), in millimetres with the triangles turning
// the other way: import, checks, remeshing to 2562 vertices each, the gap
// checks and the written model.  Reports the run's seconds, its processor
// seconds and its peak memory; the goal is under 20 s on two cores.  Also
// remeshing one 40 962-vertex surface to 2562 vertices: its time, the volume
// kept and the smallest angle.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "headmodel/mesh_quality.h"
#include "headmodel/surface_prep.h"
#include "tools/headshape.h"

namespace {

// The head's surfaces as binary triangle files in millimetres, triangles
// reversed (normals outwards), in a fresh folder.
std::string write_fine_head() {
  const std::string dir = std::filesystem::temp_directory_path() / ("bench_prep_head_" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  for (int k = 0; k < HEAD_LAYERS; k++) {
    TriMesh m = head_layer(7, (HeadLayer)k);
    for (auto &p : m.pnt)
      for (float &x : p) x *= 1000;
    for (auto &t : m.dhk) std::swap(t[1], t[2]);
    write_trimesh(dir + "/" + head_layer_name[k] + ".tri", m, true);
  }
  return dir;
}

// Runs the program in `dir`; returns its exit status, peak resident memory
// and processor time.
int run_child(const std::string &dir, const std::vector<std::string> &args, long &peak_kb, double &cpu_s) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(127);
    std::vector<char *> argv{const_cast<char *>(BRELIX_PREP_EXE)};
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(BRELIX_PREP_EXE, argv.data());
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  peak_kb = usage.ru_maxrss;
  cpu_s = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + 1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

void BM_PrepHeadFine(benchmark::State &state) {
  const std::string dir = write_fine_head();
  long peak_kb = 0;
  double cpu_s = 0;
  for (auto _ : state) {
    std::filesystem::remove_all(dir + "/out");
    const int status = run_child(dir, {"head", "scalp.tri", "skull.tri", "brain.tri", "--vertices", "2562", "--quiet",
                                       "-o", "out"},
                                 peak_kb, cpu_s);
    if (status != 0) state.SkipWithError("brelix-prep head failed");
  }
  state.counters["peak_MB"] = peak_kb / 1024.0;
  state.counters["cpu_s"] = cpu_s;
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_PrepHeadFine)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

void BM_Remesh40962To2562(benchmark::State &state) {
  const TriMesh t = head_layer(6, HEAD_SCALP);
  Mesh fine;
  for (const auto &p : t.pnt) fine.vertices.push_back({p[0], p[1], p[2]});
  for (const auto &f : t.dhk) fine.triangles.push_back({f[0], f[1], f[2]});
  Mesh m;
  for (auto _ : state) {
    m = fine;
    remesh_surface(m, {2562, 0});
  }
  const MeshQuality q = measure_mesh(m);
  state.counters["vertices"] = (double)m.vertices.size();
  state.counters["volume_kept"] = q.volume / measure_mesh(fine).volume;
  state.counters["min_angle_deg"] = q.min_angle_deg;
}
BENCHMARK(BM_Remesh40962To2562)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
