// STL, ASCII and binary: every facet carries its own three corners, so the
// corners are welded where they coincide exactly.
#include <cstring>
#include <vector>

#include "cli/failure.h"
#include "surface/byte_scan.h"
#include "surface/readers.h"
#include "surface/text_scan.h"

namespace {

uint64_t hash_point(const Vec3 &p) {
  uint64_t h = 0x9E3779B97F4A7C15ull;
  for (double c : p) {
    uint64_t bits;
    memcpy(&bits, &c, 8);
    h = (h ^ bits) * 0xff51afd7ed558ccdull;
    h ^= h >> 32;
  }
  return h;
}

}  // namespace

long weld_exact_duplicates(Mesh &mesh) {
  // Open addressing over the kept vertices: a table of at least twice as
  // many slots as vertices, probed linearly.
  size_t slots = 16;
  while (slots < 2 * mesh.vertices.size()) slots *= 2;
  std::vector<int> table(slots, -1), to(mesh.vertices.size());
  std::vector<Vec3> kept;
  kept.reserve(mesh.vertices.size() / 2 + 1);
  for (size_t i = 0; i < mesh.vertices.size(); i++) {
    Vec3 p = mesh.vertices[i];
    for (double &c : p) c += 0.0;  // -0 and +0 are the same place
    size_t s = hash_point(p) & (slots - 1);
    while (table[s] >= 0 && kept[(size_t)table[s]] != p) s = (s + 1) & (slots - 1);
    if (table[s] < 0) {
      table[s] = (int)kept.size();
      kept.push_back(p);
    }
    to[i] = table[s];
  }
  long welded = (long)(mesh.vertices.size() - kept.size());
  for (Tri &t : mesh.triangles)
    for (int &v : t) v = to[(size_t)v];
  mesh.vertices.swap(kept);
  return welded;
}

ImportedSurface read_stl_binary(std::string_view data, const std::string &file) {
  ByteScan in(data, file, false);
  in.need(84, "the 80-byte header and the facet count");
  in.seek(80);
  long long n = in.u32();
  if ((unsigned long long)n > in.remaining() / 50)
    fail(file, "byte 80",
         "facet count " + std::to_string(n) + " needs " + std::to_string(50 * n) + " bytes, but only " +
             std::to_string(in.remaining()) + " follow");
  MeshBuilder out(file);
  out.reserve((size_t)(3 * n), (size_t)n);
  for (long long t = 0; t < n; t++) {
    size_t at = in.offset();
    in.seek(at + 12);  // the facet normal: the corners' order is what counts
    for (int k = 0; k < 3; k++) {
      float x = in.f32(), y = in.f32(), z = in.f32();
      out.vertex_at(x, y, z, [&] { return "byte " + std::to_string(at) + " (facet " + std::to_string(t + 1) + ")"; });
    }
    in.u16();  // attribute bytes
    int idx[3] = {(int)(3 * t), (int)(3 * t + 1), (int)(3 * t + 2)};
    out.face_at(idx, 3, 3 * n, (long)t + 1, 0, [] { return std::string(); });
  }
  ImportedSurface s = finish(out, "STL binary");
  s.vertices_welded = weld_exact_duplicates(s.mesh);
  return s;
}

ImportedSurface read_stl_ascii(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  MeshBuilder out(file);
  std::string_view line;
  std::vector<int> loop;
  long facets = 0;
  bool in_loop = false, ended = false;
  while (in.next_line(line)) {
    // Keywords in any case: some exporters write them in capitals.
    std::string_view key = scan_word(line);
    auto is = [&](std::string_view word) { return key.size() == word.size() && starts_with_nocase(key, word); };
    if (is("vertex")) {
      double v[3];
      if (!in_loop) in.fail_here("vertex outside an \"outer loop\"");
      if (!scan_double(line, v[0]) || !scan_double(line, v[1]) || !scan_double(line, v[2]))
        in.fail_here("vertex needs three coordinates");
      loop.push_back((int)out.vertex_count());
      out.vertex_at(v[0], v[1], v[2], [&] { return in.place(); });
    } else if (is("outer")) {
      in_loop = true;
      loop.clear();
    } else if (is("endloop")) {
      if (!in_loop) in.fail_here("\"endloop\" without \"outer loop\"");
      in_loop = false;
      out.face_at(loop.data(), (int)loop.size(), (long long)out.vertex_count(), ++facets, 0, [&] { return in.place(); });
    } else if (is("endsolid")) {
      ended = true;
      break;
    }
  }
  if (in_loop || !ended) in.fail_here("file ends inside the solid (no \"endsolid\")");
  ImportedSurface s = finish(out, "STL ASCII");
  s.vertices_welded = weld_exact_duplicates(s.mesh);
  return s;
}
