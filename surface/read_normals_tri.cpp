// The text .tri layout that several EEG/MEG pipelines exchange: a line
// "- N", N vertex lines "x y z nx ny nz" (the normals are not needed: the
// triangles' corner order carries the orientation), a line "- M M M" and M
// triangle lines of three vertex indices.
#include <algorithm>

#include "cli/failure.h"
#include "surface/readers.h"
#include "surface/text_blocks.h"
#include "surface/text_scan.h"

namespace {

// A block header "- COUNT ...": the count after the dash.
long long block_count(TextScan &in, std::string_view line, const char *what) {
  std::string_view dash = scan_word(line);
  long long n;
  if (dash != "-" || !scan_long(line, n)) in.fail_here(std::string("expected \"- COUNT\" before the ") + what);
  return n;
}

}  // namespace

ImportedSurface read_normals_tri(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  std::string_view line;
  if (!in.next_content_line(line)) in.fail_here("empty file");
  long long nv = block_count(in, line, "vertices");
  in.check_count(nv, 6, "vertex");
  MeshBuilder out(file);
  read_xyz_lines(in, out, nv);
  if (!in.next_content_line(line)) in.fail_here("file ends before the triangles");
  long long nt = block_count(in, line, "triangles");
  in.check_count(nt, 6, "triangle");
  std::vector<std::array<long long, 3>> tri((size_t)nt);
  std::vector<long> line_of((size_t)nt);
  long long lowest = nv, highest = -1;
  for (long long t = 0; t < nt; t++) {
    if (!in.next_line(line)) in.fail_here("file ends after " + std::to_string(t) + " of " + std::to_string(nt) + " triangles");
    for (long long &v : tri[(size_t)t]) {
      if (!scan_long(line, v)) in.fail_here("triangle " + std::to_string(t + 1) + " needs three vertex numbers");
      lowest = std::min(lowest, v);
      highest = std::max(highest, v);
    }
    line_of[(size_t)t] = in.line_number();
  }
  // Indices count from 1; files that count from 0 exist too, and since a
  // closed surface uses every vertex, 0 with no N among the indices tells.
  int base = lowest == 0 && highest < nv ? 0 : 1;
  for (long long t = 0; t < nt; t++) {
    long long idx[3];
    for (int k = 0; k < 3; k++) idx[k] = tri[(size_t)t][k] - base;
    out.face_at(idx, 3, nv, (long)t + 1, base, [&] { return "line " + std::to_string(line_of[(size_t)t]); });
  }
  return finish(out, "text .tri with normals");
}
