// OFF and OBJ, the two plain polygon formats.
#include <vector>

#include "cli/failure.h"
#include "surface/readers.h"
#include "surface/text_blocks.h"
#include "surface/text_scan.h"

namespace {

// A polygon with more corners than this is not a surface facet.
constexpr long long MAX_CORNERS = 1000;

// The OFF keyword with optional prefixes for per-vertex colours (C),
// normals (N) and texture coordinates (ST): all ignored here.
bool off_keyword(std::string_view w) {
  if (w.size() < 3 || w.substr(w.size() - 3) != "OFF") return false;
  for (char c : w.substr(0, w.size() - 3))
    if (c != 'C' && c != 'N' && c != 'S' && c != 'T') return false;
  return true;
}

}  // namespace

ImportedSurface read_off(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  std::string_view line;
  if (!in.next_content_line(line, '#') || !off_keyword(scan_word(line))) in.fail_here("does not begin with OFF");
  // The counts may follow the keyword on its own line.
  if (only_space(line) && !in.next_content_line(line, '#')) in.fail_here("file ends before the counts");
  // Face lines are at least "3 0 1 2" and a line end.
  long long nv, nf;
  read_two_counts(in, line, 8, nv, nf);
  MeshBuilder out(file);
  read_xyz_lines(in, out, nv, '#');
  out.reserve((size_t)nv, (size_t)nf);
  std::vector<long long> idx;
  for (long long t = 0; t < nf; t++) {
    long long n;
    if (!in.next_content_line(line, '#'))
      in.fail_here("file ends after " + std::to_string(t) + " of " + std::to_string(nf) + " faces");
    if (!scan_long(line, n) || n < 0 || n > MAX_CORNERS)
      in.fail_here("face " + std::to_string(t + 1) + " does not begin with a sensible corner count");
    idx.resize((size_t)n);
    for (long long k = 0; k < n; k++)
      if (!scan_long(line, idx[(size_t)k]))
        in.fail_here("face " + std::to_string(t + 1) + " has fewer than its " + std::to_string(n) + " corners");
    out.face_at(idx.data(), (int)n, nv, (long)t + 1, 0, [&] { return in.place(); });
  }
  return finish(out, "OFF");
}

ImportedSurface read_obj(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  MeshBuilder out(file);
  std::string_view line;
  std::vector<long long> idx;
  long faces = 0;
  while (in.next_line(line)) {
    std::string_view key = scan_word(line);
    if (key == "v") {
      double v[3];
      if (!scan_double(line, v[0]) || !scan_double(line, v[1]) || !scan_double(line, v[2]))
        in.fail_here("vertex " + std::to_string(out.vertex_count() + 1) + " needs three coordinates");
      out.vertex_at(v[0], v[1], v[2], [&] { return in.place(); });
    } else if (key == "f") {
      // Corners "i", "i/t", "i//n" or "i/t/n", counted from 1, or from the
      // end of the vertices read so far when negative.
      idx.clear();
      long long n = (long long)out.vertex_count();
      for (std::string_view w = scan_word(line); !w.empty(); w = scan_word(line)) {
        long long i;
        std::string_view num = w.substr(0, w.find('/'));
        if (!scan_long(num, i) || !num.empty()) in.fail_here("\"" + std::string(w) + "\" is not a face corner");
        idx.push_back(i < 0 ? n + i : i - 1);
        if ((long long)idx.size() > MAX_CORNERS) in.fail_here("face with more than " + std::to_string(MAX_CORNERS) + " corners");
      }
      out.face_at(idx.data(), (int)idx.size(), n, ++faces, 1, [&] { return in.place(); });
    }
    // Normals, texture coordinates, groups, materials and lines carry
    // nothing the surface needs.
  }
  return finish(out, "OBJ");
}
