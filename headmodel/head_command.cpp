#include "headmodel/head_command.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "cli/failure.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "headmodel/cgal_checks.h"
#include "headmodel/head_outputs.h"
#include "surface/brelix_tri.h"
#include "surface/import.h"
#include "surface/transform.h"

namespace {

// Reads every surface into metres in the output frame, each with the frame
// that says where a point lies in its own file.
std::vector<SurfaceName> read_surfaces(const HeadOptions &o, HeadReport &report) {
  std::optional<Affine> affine;
  if (!o.transform_file.empty()) affine = read_affine(o.transform_file);
  report.transform = affine ? o.transform_file : "none";
  for (size_t k = 0; k < o.surfaces.size(); k++) {
    note("reading " + o.surfaces[k]);
    ImportedSurface s = read_surface(o.surfaces[k]);
    PreparedSurface p;
    p.input = o.surfaces[k];
    p.format = s.format;
    p.name = output_name(k + 1, o.surfaces[k]);
    p.read_vertices = (long)s.mesh.vertices.size();
    p.read_triangles = (long)s.mesh.triangles.size();
    p.polygons_split = s.polygons_split;
    p.reader_welded = s.vertices_welded;
    if (affine) apply_affine(*affine, s.mesh);
    p.mesh = std::move(s.mesh);
    report.surfaces.push_back(std::move(p));
  }
  const UnitChoice unit = choose_units(o.units, report.surfaces[0].mesh.vertices, o.surfaces[0]);
  report.units = unit.describe();
  std::vector<SurfaceName> names;
  for (size_t k = 0; k < o.surfaces.size(); k++) {
    SurfaceName name{o.surfaces[k], {}};
    name.frame.unit = unit.unit;
    name.frame.metres = unit.scale;
    if (affine) set_spot_transform(name.frame, *affine);
    scale_mesh(report.surfaces[k].mesh, unit.scale);
    names.push_back(std::move(name));
  }
  return names;
}

// Runs work(0) ... work(n-1) on as many threads as the machine has cores.
// Each item touches only its own surface, so the results do not depend on
// the threads; a refusal is reported for the first surface that has one,
// as a single thread would.
void in_parallel(size_t n, const std::function<void(size_t)> &work) {
  std::vector<std::exception_ptr> failure(n);
  std::atomic<size_t> next{0};
  auto worker = [&] {
    for (size_t k; (k = next++) < n;) {
      try {
        work(k);
      } catch (...) {
        failure[k] = std::current_exception();
      }
    }
  };
  const size_t threads = std::min<size_t>(n, std::max(1u, std::thread::hardware_concurrency()));
  std::vector<std::thread> pool;
  for (size_t t = 1; t < threads; t++) pool.emplace_back(worker);
  worker();
  for (std::thread &t : pool) t.join();
  for (const auto &f : failure)
    if (f) std::rethrow_exception(f);
}

// Nested surfaces that come too close or cross are moved apart from the
// outside in, each inner surface giving way to the one outside it.
void make_gaps(const HeadOptions &o, HeadReport &report, const std::vector<SurfaceName> &names) {
  for (size_t k = 1; k < report.surfaces.size(); k++) {
    Mesh &inner = report.surfaces[k].mesh;
    const Mesh &outer = report.surfaces[k - 1].mesh;
    const auto gap = smallest_gap(outer, inner);
    if (gap.distance >= o.min_gap && points_inside(outer, {inner.vertices[0]})[0]) continue;
    note("moving " + names[k].file + " away from " + names[k - 1].file);
    report.surfaces[k].gap_fix = fix_gap(outer, inner, o.min_gap);
    check_self_intersection(inner, names[k]);
  }
}

}  // namespace

int prep_head(int argc, char **argv) {
  if (wants_help(argc, argv)) {
    fputs(head_help, stdout);
    return 0;
  }
  const HeadOptions o = parse_head_options(argc, argv);
  HeadReport report;
  std::vector<std::string> file_names;
  for (size_t k = 0; k < o.surfaces.size(); k++) file_names.push_back(output_name(k + 1, o.surfaces[k]));
  const std::string answers = geometry_answers(o, file_names);

  const std::vector<SurfaceName> names = read_surfaces(o, report);
  {
    // Two steps a surface (checks, remeshing), counted as the threads finish them.
    const long steps = (long)names.size() * (o.remesh.empty() ? 1 : 2);
    Progress progress(o.remesh.empty() ? "checking the surfaces" : "checking and remeshing the surfaces", steps);
    std::mutex progress_lock;
    long done = 0;
    auto step_done = [&] {
      std::lock_guard<std::mutex> hold(progress_lock);
      progress.update(++done);
    };
    in_parallel(names.size(), [&](size_t k) {
      PreparedSurface &s = report.surfaces[k];
      s.log = prepare_surface(s.mesh, names[k], o.repair);
      s.before = measure_mesh(s.mesh);
      step_done();
      if (!o.remesh.empty()) {
        remesh_surface(s.mesh, o.remesh[k]);
        check_self_intersection(s.mesh, names[k]);
        s.remeshed = true;
        step_done();
      }
    });
  }
  if (o.fix_gap) make_gaps(o, report, names);
  for (size_t k = 1; k < names.size(); k++) {
    note("checking " + names[k - 1].file + " against " + names[k].file);
    report.gaps.push_back(check_pair(report.surfaces[k - 1].mesh, names[k - 1], report.surfaces[k].mesh, names[k],
                                     o.min_gap));
  }
  for (PreparedSurface &s : report.surfaces) s.after = measure_mesh(s.mesh);

  if (mkdir(o.out_dir.c_str(), 0777) != 0 && errno != EEXIST)
    fail(o.out_dir, "", std::string("cannot create the folder: ") + strerror(errno));
  std::vector<PendingOutput> outputs;
  for (const PreparedSurface &s : report.surfaces) {
    const Mesh *mesh = &s.mesh;
    outputs.push_back({o.out_dir + "/" + s.name, [mesh](FILE *fp) { write_brelix_tri(fp, *mesh); }});
  }
  outputs.push_back({o.out_dir + "/geometry.ans", [&](FILE *fp) { fputs(answers.c_str(), fp); }});
  const std::string text = report_text(o, report);
  outputs.push_back({o.out_dir + "/report.txt", [&](FILE *fp) { fputs(text.c_str(), fp); }});
  write_files_atomically(outputs);
  note("wrote " + std::to_string(report.surfaces.size()) + " surfaces, geometry.ans and report.txt into " + o.out_dir);
  return 0;
}
