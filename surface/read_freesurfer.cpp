// FreeSurfer surfaces: the binary triangle layout of watershed and *.surf
// files, and the "#!ascii" text layout (.asc).
#include "cli/failure.h"
#include "surface/byte_scan.h"
#include "surface/readers.h"
#include "surface/text_blocks.h"
#include "surface/text_scan.h"

ImportedSurface read_freesurfer_binary(std::string_view data, const std::string &file) {
  // Magic FF FF FE, then a "created by ..." line and one more line end.
  size_t end = data.find("\n\n", 3);
  if (end == std::string_view::npos) fail(file, "byte 3", "the header text does not end with two line ends");
  ByteScan in(data, file, true);
  in.seek(end + 2);
  in.need(8, "the vertex and face counts");
  size_t at = in.offset();
  long long nv = in.i32(), nf = in.i32();
  if (nv < 0 || nf < 0)
    fail(file, "byte " + std::to_string(at),
         "negative count (" + std::to_string(nv) + " vertices, " + std::to_string(nf) + " faces)");
  if ((unsigned long long)(nv + nf) > in.remaining() / 12)
    fail(file, "byte " + std::to_string(at),
         std::to_string(nv) + " vertices and " + std::to_string(nf) + " faces need " + std::to_string(12 * (nv + nf)) +
             " bytes, but only " + std::to_string(in.remaining()) + " follow");
  MeshBuilder out(file);
  out.reserve((size_t)nv, (size_t)nf);
  for (long long i = 0; i < nv; i++) {
    size_t p = in.offset();
    float x = in.f32(), y = in.f32(), z = in.f32();
    out.vertex_at(x, y, z, [&] { return "byte " + std::to_string(p); });
  }
  for (long long t = 0; t < nf; t++) {
    size_t p = in.offset();
    int32_t idx[3] = {in.i32(), in.i32(), in.i32()};
    out.face_at(idx, 3, nv, (long)t + 1, 0, [&] { return "byte " + std::to_string(p); });
  }
  // Tags that may follow (volume geometry and the like) do not matter here.
  return finish(out, "FreeSurfer binary");
}

ImportedSurface read_freesurfer_ascii(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  std::string_view line;
  if (!in.next_content_line(line, '#')) in.fail_here("no vertex and face counts");
  long long nv, nf;
  read_two_counts(in, line, 6, nv, nf);
  MeshBuilder out(file);
  read_xyz_lines(in, out, nv);
  out.reserve((size_t)nv, (size_t)nf);
  for (long long t = 0; t < nf; t++) {
    long long idx[3];
    if (!in.next_line(line)) in.fail_here("file ends after " + std::to_string(t) + " of " + std::to_string(nf) + " faces");
    if (!scan_long(line, idx[0]) || !scan_long(line, idx[1]) || !scan_long(line, idx[2]))
      in.fail_here("face " + std::to_string(t + 1) + " needs three vertex numbers");
    out.face_at(idx, 3, nv, (long)t + 1, 0, [&] { return in.place(); });
  }
  return finish(out, "FreeSurfer ASCII");
}
