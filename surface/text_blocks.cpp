#include "surface/text_blocks.h"

#include <string>

void read_two_counts(TextScan &in, std::string_view line, size_t min_face_line, long long &nv, long long &nf) {
  if (!scan_long(line, nv) || !scan_long(line, nf)) in.fail_here("expected the vertex and face counts");
  // The shortest vertex line is "0 0 0" and its line end.
  in.check_count(nv, 6, "vertex");
  in.check_count(nf, min_face_line, "face");
  if (nv > 0 && nf > 0 && (unsigned long long)nv * 6 + (unsigned long long)nf * min_face_line > in.remaining() + 1)
    in.fail_here(std::to_string(nv) + " vertices and " + std::to_string(nf) + " faces are more than the rest of the file can hold");
}

void read_xyz_lines(TextScan &in, MeshBuilder &out, long long n, char comment) {
  std::string_view line;
  out.reserve((size_t)n, 0);
  for (long long i = 0; i < n; i++) {
    double v[3];
    if (!in.next_content_line(line, comment))
      in.fail_here("file ends after " + std::to_string(i) + " of " + std::to_string(n) + " vertices");
    if (!scan_double(line, v[0]) || !scan_double(line, v[1]) || !scan_double(line, v[2]))
      in.fail_here("vertex " + std::to_string(i + 1) + " needs three coordinates");
    out.vertex_at(v[0], v[1], v[2], [&] { return in.place(); });
  }
}
