#include "surface/brelix_tri.h"

#include <cinttypes>

#include "cli/failure.h"
#include "cli/output.h"
#include "surface/byte_scan.h"
#include "surface/file_bytes.h"
#include "surface/mesh_build.h"
#include "surface/text_scan.h"

namespace {

// The shortest vertex or triangle line, "1 2 3" and its line end.
constexpr size_t MIN_LINE = 6;

Mesh parse_binary(std::string_view data, const std::string &file) {
  ByteScan in(data, file, ByteScan::host_big_endian());
  MeshBuilder out(file);
  long long n = in.count32("vertex", 12);
  out.reserve((size_t)n, 0);
  for (long long i = 0; i < n; i++) {
    size_t at = in.offset();
    float x = in.f32(), y = in.f32(), z = in.f32();
    out.vertex_at(x, y, z, [&] { return "byte " + std::to_string(at); });
  }
  long long m = in.count32("triangle", 12);
  out.reserve((size_t)n, (size_t)m);
  for (long long t = 0; t < m; t++) {
    size_t at = in.offset();
    int32_t idx[3] = {in.i32(), in.i32(), in.i32()};
    out.face_at(idx, 3, n, (long)t + 1, 0, [&] { return "byte " + std::to_string(at); });
  }
  return std::move(out.mesh());
}

// A count line: the first number of the line, as a non-negative count.
bool text_count(std::string_view line, long long &count) {
  return scan_long(line, count);
}

Mesh parse_text(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  MeshBuilder out(file);
  std::string_view line;
  long long n;
  if (!in.next_line(line)) in.fail_here("empty file: no vertex count");
  if (!text_count(line, n)) in.fail_here("the first line holds no vertex count");
  in.check_count(n, MIN_LINE, "vertex");
  out.reserve((size_t)n, 0);
  for (long long i = 0; i < n; i++) {
    if (!in.next_line(line))
      fail(file, "line " + std::to_string(in.line_number() + 1),
           "file ends after " + std::to_string(i) + " of " + std::to_string(n) + " vertices");
    double v[4];
    int k = 0;
    while (k < 4 && scan_double(line, v[k])) k++;
    if (k < 3) in.fail_here("vertex " + std::to_string(i + 1) + " needs three coordinates");
    // brelix holds single-precision coordinates.
    const double *p = k == 4 ? v + 1 : v;
    out.vertex_at((float)p[0], (float)p[1], (float)p[2], [&] { return in.place(); });
  }
  // A missing triangle count, or one that is not a number, means a surface
  // without triangles, as brelix reads it.
  long long m = 0;
  if (!in.next_line(line) || !text_count(line, m)) return std::move(out.mesh());
  in.check_count(m, MIN_LINE, "triangle");
  out.reserve((size_t)n, (size_t)m);
  for (long long t = 0; t < m; t++) {
    if (!in.next_line(line))
      fail(file, "line " + std::to_string(in.line_number() + 1),
           "file ends after " + std::to_string(t) + " of " + std::to_string(m) + " triangles");
    long long v[4];
    int k = 0;
    while (k < 4 && scan_long(line, v[k])) k++;
    if (k < 3) in.fail_here("triangle " + std::to_string(t + 1) + " needs three vertex numbers");
    const long long *p = k == 4 ? v + 1 : v;
    long long idx[3] = {p[0] - 1, p[1] - 1, p[2] - 1};
    out.face_at(idx, 3, n, (long)t + 1, 1, [&] { return in.place(); });
  }
  return std::move(out.mesh());
}

}  // namespace

bool brelix_tri_is_text(std::string_view data) {
  for (size_t i = 0; i < data.size() && i < 4; i++) {
    char c = data[i];
    bool ok = (c >= '0' && c <= '9') || c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f' ||
              c == '-' || c == '.' || c == 'E' || c == 'e';
    if (!ok) return false;
  }
  return true;
}

Mesh parse_brelix_tri(std::string_view data, const std::string &file) {
  return brelix_tri_is_text(data) ? parse_text(data, file) : parse_binary(data, file);
}

Mesh read_brelix_tri(const std::string &path) {
  std::string data = read_file_bytes(path);
  return parse_brelix_tri(data, path);
}

void write_brelix_tri(FILE *fp, const Mesh &mesh) {
  fprintf(fp, "%zu\n", mesh.vertices.size());
  for (size_t i = 0; i < mesh.vertices.size(); i++) {
    const Vec3 &p = mesh.vertices[i];
    fprintf(fp, "%zu %.9g %.9g %.9g\n", i + 1, (double)(float)p[0], (double)(float)p[1], (double)(float)p[2]);
  }
  fprintf(fp, "%zu\n", mesh.triangles.size());
  for (size_t t = 0; t < mesh.triangles.size(); t++) {
    const Tri &tri = mesh.triangles[t];
    fprintf(fp, "%zu %d %d %d\n", t + 1, tri[0] + 1, tri[1] + 1, tri[2] + 1);
  }
}

void write_brelix_tri_file(const std::string &path, const Mesh &mesh) {
  write_file_atomically(path, [&](FILE *fp) { write_brelix_tri(fp, mesh); });
}
