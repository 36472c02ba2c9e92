#include "headmodel/head_outputs.h"

#include <cstdio>

#include "cli/failure.h"

namespace {

// brelix reads each answer into an 80-character buffer with its newline.
constexpr size_t longest_answer = 79;

std::string format(const char *fmt, double a) {
  char buf[64];
  snprintf(buf, sizeof buf, fmt, a);
  return buf;
}

std::string quality_line(const MeshQuality &q) {
  char buf[256];
  snprintf(buf, sizeof buf,
           "min angle %.1f deg, edges %.2f to %.2f mm (mean %.2f, spread %.2f), area %.6g m^2, volume %.6g m^3",
           q.min_angle_deg, q.min_edge * 1000, q.max_edge * 1000, q.mean_edge * 1000, q.edge_spread, q.area, q.volume);
  return buf;
}

std::string with_dir(const std::string &dir, const std::string &name) {
  return dir.back() == '/' ? dir + name : dir + "/" + name;
}

}  // namespace

std::string output_name(size_t k, const std::string &input) {
  std::string stem = input.substr(input.find_last_of('/') + 1);
  const size_t dot = stem.find_last_of('.');
  if (dot != std::string::npos && dot > 0) stem.resize(dot);
  for (char &c : stem)
    if (!isalnum((unsigned char)c) && c != '-' && c != '_') c = '_';
  if (stem.size() > 20) stem.resize(20);
  return std::to_string(k) + "_" + (stem.empty() ? "surface" : stem) + ".tri";
}

std::string geometry_answers(const HeadOptions &options, const std::vector<std::string> &names) {
  std::string text;
  for (size_t k = 0; k < names.size(); k++) {
    const std::string answer =
        (options.isolated && k + 1 == names.size() ? "!" : "") + with_dir(options.out_dir, names[k]);
    if (answer.size() > longest_answer)
      usage_fail("the answer '" + answer + "' for brelix would be " + std::to_string(answer.size()) +
                 " characters long, more than the " + std::to_string(longest_answer) +
                 " brelix reads; choose a shorter -o DIR");
    text += answer + "\n" + format("%.6g", options.sigma[k]) + "\n";
  }
  return text + "\n";
}

std::string report_text(const HeadOptions &options, const HeadReport &report) {
  std::string r = "brelix-prep head report\n\nunits: " + report.units + "\ntransform: " + report.transform + "\n";
  for (size_t k = 0; k < report.surfaces.size(); k++) {
    const PreparedSurface &s = report.surfaces[k];
    const SurfaceLog &l = s.log;
    r += "\nsurface " + std::to_string(k + 1) + ": " + s.input + " (" + s.format + ") -> " +
         with_dir(options.out_dir, s.name) + "\n";
    r += "  conductivity within: " + format("%.6g", options.sigma[k]) + " S/m" +
         (options.isolated && k + 1 == report.surfaces.size() ? ", isolated source interface" : "") + "\n";
    r += "  read: " + std::to_string(s.read_vertices) + " vertices, " + std::to_string(s.read_triangles) +
         " triangles (" + std::to_string(s.polygons_split) + " polygons split, " + std::to_string(s.reader_welded) +
         " vertices welded while reading)\n";
    r += "  repairs: " + std::to_string(l.vertices_welded) + " duplicate vertices welded, " +
         std::to_string(l.collapsed.triangles) + " triangles using a vertex twice dropped, " +
         std::to_string(l.collapsed.vertices) + " unused vertices dropped, " + std::to_string(l.degenerate_removed) +
         " triangles without area removed, " + std::to_string(l.patch_flipped) +
         " triangles flipped to agree with their neighbours, " +
         (l.all_flipped ? "all triangles flipped (normals pointed outwards)" : "orientation kept") + ", " +
         std::to_string(l.holes.holes) + " holes filled (" + std::to_string(l.holes.triangles_added) +
         " triangles, " + std::to_string(l.holes.vertices_added) + " vertices added)\n";
    r += "  before: " + quality_line(s.before) + "\n";
    if (s.remeshed) r += "  remeshed to " + std::to_string(s.mesh.vertices.size()) + " vertices\n";
    if (s.gap_fix.vertices_moved)
      r += "  moved inwards for the gap: " + std::to_string(s.gap_fix.vertices_moved) + " vertices, at most " +
           format("%.2f", s.gap_fix.largest_move * 1000) + " mm\n";
    r += "  written: " + std::to_string(s.mesh.vertices.size()) + " vertices, " +
         std::to_string(s.mesh.triangles.size()) + " triangles, " + quality_line(s.after) + "\n";
  }
  r += "\nsmallest distances between neighbouring surfaces (at least " + format("%.2f", options.min_gap * 1000) +
       " mm required):\n";
  for (size_t k = 0; k < report.gaps.size(); k++) {
    const SurfaceGap &g = report.gaps[k];
    const PreparedSurface &at = report.surfaces[g.at_inner_vertex ? k + 1 : k];
    char buf[256];
    snprintf(buf, sizeof buf, "  %s - %s: %.2f mm, at vertex %d of %s (%.5f, %.5f, %.5f) m\n",
             report.surfaces[k].name.c_str(), report.surfaces[k + 1].name.c_str(), g.distance * 1000, g.vertex + 1,
             at.name.c_str(), g.vertex_point[0], g.vertex_point[1], g.vertex_point[2]);
    r += buf;
  }
  if (report.gaps.empty()) r += "  (one surface)\n";
  r += "\nchecks passed: every surface closed, manifold, in one piece, consistently oriented clockwise seen from "
       "outside, without duplicate vertices, triangles without area or self-intersections; neighbouring surfaces "
       "nested, not crossing, and far enough apart\n";
  return r;
}
