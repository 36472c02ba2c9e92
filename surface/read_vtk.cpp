// VTK legacy POLYDATA, ASCII or BINARY (big-endian): POINTS and POLYGONS,
// triangle strips split into triangles; vertices and lines are skipped and
// reading ends at the point or cell data.  Both cell layouts are read: the
// classic "n i1 .. in" lists and the OFFSETS / CONNECTIVITY arrays of
// version 5 files.
#include <cmath>
#include <cstdint>
#include <vector>

#include "cli/failure.h"
#include "surface/byte_scan.h"
#include "surface/readers.h"
#include "surface/text_scan.h"

namespace {

constexpr long long MAX_CORNERS = 1000;

// Values in either encoding, continuing from the keyword scanner's place.
class Values {
 public:
  Values(std::string_view data, const std::string &file, bool binary)
      : tokens_(data, file), bytes_(data, file, true), binary_(binary) {}

  TokenScan &tokens() { return tokens_; }
  std::string place() const { return binary_ ? bytes_.place() : tokens_.place(); }
  // Where the value just read was.
  std::string last_place() const { return binary_ ? "byte " + std::to_string(bytes_.offset() - size_) : tokens_.place(); }
  // Where the last keyword was read: line numbers mean nothing after binary
  // blocks, so binary files get a byte offset.
  std::string keyword_place() const { return binary_ ? "byte " + std::to_string(tokens_.offset()) : tokens_.place(); }

  // Start reading `count` values of `type` after the keyword line; refuse a
  // count the file cannot hold.
  void begin(long long count, const std::string &type, const std::string &what) {
    size_ = type == "double" || type == "vtktypeint64" || type == "vtktypeuint64" || type == "long" ? 8
            : type == "float" || type == "int" || type == "vtktypeint32" || type == "unsigned_int"  ? 4
                                                                                                    : 0;
    if (size_ == 0) tokens_.fail_here("unsupported data type \"" + type + "\" for " + what);
    floating_ = type == "float" || type == "double";
    size_t least = binary_ ? (size_t)size_ : 2;
    if (count < 0 || (unsigned long long)count > (tokens_.remaining() + 1) / least)
      tokens_.fail_here(what + " count " + std::to_string(count) + " is more than the rest of the file can hold");
    if (binary_) {
      tokens_.skip_line();
      bytes_.seek(tokens_.offset());
    }
  }
  double value(std::string_view what) {
    if (!binary_) return floating_ ? tokens_.number(what) : (double)tokens_.integer(what);
    if (bytes_.remaining() < (size_t)size_) bytes_.need((size_t)size_, std::string(what));
    if (floating_) return size_ == 4 ? (double)bytes_.f32() : bytes_.f64();
    return size_ == 4 ? (double)bytes_.i32() : (double)bytes_.get<int64_t>();
  }
  // Back to keywords after a binary block.
  void end() {
    if (binary_) tokens_.seek(bytes_.offset());
  }

 private:
  TokenScan tokens_;
  ByteScan bytes_;
  bool binary_;
  int size_ = 4;
  bool floating_ = false;
};

struct Cells {
  std::vector<long long> offsets;  // cell k is flat[offsets[k] .. offsets[k+1])
  std::vector<long long> flat;
  std::string place;
};

// Integer values of a cell section, checked to be whole numbers.
long long whole(Values &in, const std::string &section, const char *what) {
  double v = in.value(what);
  if (!(v >= -1e15 && v <= 1e15) || v != std::floor(v))
    fail(in.tokens().file(), in.last_place(), section + " " + what + " is not a whole number");
  return (long long)v;
}

Cells read_cells(Values &in, const std::string &section) {
  TokenScan &t = in.tokens();
  long long n = t.integer(section + " cell count"), size = t.integer(section + " size");
  Cells c;
  c.place = in.keyword_place();
  size_t mark = t.offset();
  if (t.next() == "OFFSETS") {
    std::string type(t.next());
    in.begin(n, type, section + " offsets");
    for (long long k = 0; k < n; k++) c.offsets.push_back(whole(in, section, "offset"));
    in.end();
    if (t.next() != "CONNECTIVITY") t.fail_here("expected CONNECTIVITY");
    type = std::string(t.next());
    in.begin(size, type, section + " connectivity");
    for (long long k = 0; k < size; k++) c.flat.push_back(whole(in, section, "connectivity"));
    in.end();
    if (!c.offsets.empty() && c.offsets.front() != 0) t.fail_here(section + " offsets do not start at 0");
    for (size_t k = 1; k < c.offsets.size(); k++)
      if (c.offsets[k] < c.offsets[k - 1] || c.offsets[k] > size) t.fail_here(section + " offsets are out of order");
    if (!c.offsets.empty() && c.offsets.back() != size) t.fail_here(section + " offsets do not end at the size");
    return c;
  }
  t.seek(mark);
  if (n > size) t.fail_here(section + " has more cells than its size allows");
  in.begin(size, "int", section);
  c.offsets.push_back(0);
  for (long long k = 0; k < n; k++) {
    long long m = whole(in, section, "corner count");
    if (m < 0 || m > MAX_CORNERS || (long long)c.flat.size() + 1 + m > size)
      t.fail_here(section + " cell " + std::to_string(k + 1) + " has a corner count beyond the size");
    for (long long j = 0; j < m; j++) c.flat.push_back(whole(in, section, "corner"));
    c.offsets.push_back((long long)c.flat.size());
  }
  in.end();
  return c;
}

}  // namespace

ImportedSurface read_vtk(std::string_view data, const std::string &file) {
  TextScan head(data, file);
  std::string_view line;
  head.next_line(line);  // "# vtk DataFile Version x.y"
  if (!head.next_line(line) || !head.next_line(line)) head.fail_here("file ends inside the header");
  std::string_view enc = scan_word(line);
  if (enc != "ASCII" && enc != "BINARY") head.fail_here("expected ASCII or BINARY");
  Values in(data, file, enc == "BINARY");
  TokenScan &t = in.tokens();
  t.seek(head.offset());
  if (t.next() != "DATASET" || t.next() != "POLYDATA") t.fail_here("not a POLYDATA data set");
  MeshBuilder out(file);
  long long nv = -1;
  long faces = 0;
  for (std::string_view key = t.next(); !key.empty(); key = t.next()) {
    if (key == "POINTS") {
      nv = t.integer("point count");
      if (nv < 0 || nv > INT32_MAX) t.fail_here("point count " + std::to_string(nv) + " is not a surface's");
      std::string type(t.next());
      in.begin(3 * nv, type, "point");
      out.reserve((size_t)nv, 0);
      for (long long i = 0; i < nv; i++) {
        double x = in.value("point coordinates"), y = in.value("point coordinates"), z = in.value("point coordinates");
        out.vertex_at(x, y, z, [&] { return in.last_place(); });
      }
      in.end();
    } else if (key == "POLYGONS" || key == "TRIANGLE_STRIPS" || key == "VERTICES" || key == "LINES") {
      std::string section(key);
      Cells c = read_cells(in, section);
      if (section == "VERTICES" || section == "LINES") continue;
      if (nv < 0) fail(file, c.place, section + " before POINTS");
      for (size_t k = 0; k + 1 < c.offsets.size(); k++) {
        const long long *v = c.flat.data() + c.offsets[k];
        int m = (int)(c.offsets[k + 1] - c.offsets[k]);
        if (section == "POLYGONS") {
          out.face_at(v, m, nv, ++faces, 0, [&] { return c.place + " (polygon " + std::to_string(k + 1) + ")"; });
          continue;
        }
        // Strip triangles alternate their corner order to keep one
        // orientation.
        if (m < 3) out.face_at(v, m, nv, ++faces, 0, [&] { return c.place; });
        for (int j = 0; j + 2 < m; j++) {
          long long tri[3] = {v[j + (j & 1)], v[j + 1 - (j & 1)], v[j + 2]};
          out.face_at(tri, 3, nv, ++faces, 0, [&] { return c.place + " (strip " + std::to_string(k + 1) + ")"; });
        }
      }
    } else if (key == "METADATA") {
      // Information records up to an empty line.
      std::string_view rest = data.substr(t.offset());
      size_t blank = rest.find("\n\n");
      t.seek(blank == std::string_view::npos ? data.size() : t.offset() + blank + 2);
    } else if (key == "POINT_DATA" || key == "CELL_DATA") {
      break;
    } else {
      t.fail_here("unsupported section \"" + std::string(key) + "\"");
    }
  }
  if (nv < 0) fail(file, "", "no POINTS");
  return finish(out, enc == "BINARY" ? "VTK binary" : "VTK ASCII");
}
