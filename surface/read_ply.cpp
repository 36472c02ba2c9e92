// PLY, ASCII and binary in either byte order: a header declares elements
// with scalar and list properties; the vertices' x, y, z and the faces'
// vertex index lists are taken, every other element and property skipped.
#include <cmath>
#include <cstdio>
#include <vector>

#include "cli/failure.h"
#include "surface/byte_scan.h"
#include "surface/readers.h"
#include "surface/text_scan.h"

namespace {

constexpr long long MAX_CORNERS = 1000;

enum Type { INT8, UINT8, INT16, UINT16, INT32, UINT32, FLOAT32, FLOAT64, NO_TYPE };
const int TYPE_SIZE[] = {1, 1, 2, 2, 4, 4, 4, 8};

Type type_named(std::string_view w) {
  static const char *names[][2] = {{"char", "int8"},    {"uchar", "uint8"},   {"short", "int16"},   {"ushort", "uint16"},
                                   {"int", "int32"},    {"uint", "uint32"},   {"float", "float32"}, {"double", "float64"}};
  for (int t = 0; t < NO_TYPE; t++)
    if (w == names[t][0] || w == names[t][1]) return (Type)t;
  return NO_TYPE;
}

struct Property {
  std::string name;
  Type type;
  Type count_type;  // NO_TYPE for a scalar, else a list with this count type
};

struct Element {
  std::string name;
  long long count;
  std::vector<Property> props;
  std::string place;  // where the header declares it
};

// Reads the values of one element instance, either from text tokens or from
// binary fields.
class Values {
 public:
  Values(std::string_view data, const std::string &file, size_t start, int format)
      : tokens_(data, file), bytes_(data, file, format == 2) , ascii_(format == 0) {
    tokens_.seek(start);
    bytes_.seek(start);
  }
  bool ascii() const { return ascii_; }
  std::string place() const { return ascii_ ? tokens_.place() : bytes_.place(); }
  size_t byte_offset() const { return bytes_.offset(); }
  size_t remaining() const { return ascii_ ? tokens_.remaining() : bytes_.remaining(); }

  // One value; `what` (called only on failure) says which, for the message.
  template <class What>
  double scalar(Type t, What &&what) {
    if (ascii_) {
      std::string_view tok = tokens_.next(), rest = tok;
      double v;
      if (!scan_double(rest, v) || !rest.empty())
        tokens_.fail_here(tok.empty() ? "file ends before " + what() : "\"" + std::string(tok) + "\" is not a number (" + what() + ")");
      return v;
    }
    if (bytes_.remaining() < (size_t)TYPE_SIZE[t]) bytes_.need((size_t)TYPE_SIZE[t], what());
    switch (t) {
      case INT8: return (int8_t)bytes_.u8();
      case UINT8: return bytes_.u8();
      case INT16: return (int16_t)bytes_.u16();
      case UINT16: return bytes_.u16();
      case INT32: return bytes_.i32();
      case UINT32: return bytes_.u32();
      case FLOAT32: return bytes_.f32();
      default: return bytes_.f64();
    }
  }

 private:
  TokenScan tokens_;
  ByteScan bytes_;
  bool ascii_;
};

struct Header {
  int format = -1;  // 0 ascii, 1 binary little-endian, 2 binary big-endian
  std::vector<Element> elements;
  size_t data_start = 0;
};

Header read_header(std::string_view data, const std::string &file) {
  TextScan in(data, file);
  Header h;
  std::string_view line;
  if (!in.next_line(line) || line != "ply") in.fail_here("does not begin with the line \"ply\"");
  while (true) {
    if (!in.next_line(line)) in.fail_here("file ends inside the header (no \"end_header\")");
    std::string_view key = scan_word(line);
    if (key == "end_header") break;
    if (key == "format") {
      std::string_view f = scan_word(line);
      h.format = f == "ascii" ? 0 : f == "binary_little_endian" ? 1 : f == "binary_big_endian" ? 2 : -1;
      if (h.format < 0) in.fail_here("unknown format \"" + std::string(f) + "\"");
    } else if (key == "element") {
      Element e;
      e.name = std::string(scan_word(line));
      if (!scan_long(line, e.count) || e.count < 0) in.fail_here("element " + e.name + " needs a count");
      e.place = in.place();
      h.elements.push_back(e);
    } else if (key == "property") {
      if (h.elements.empty()) in.fail_here("property before any element");
      Property p;
      std::string_view t = scan_word(line);
      p.count_type = NO_TYPE;
      if (t == "list") {
        p.count_type = type_named(scan_word(line));
        if (p.count_type == NO_TYPE || p.count_type >= FLOAT32) in.fail_here("list count type must be an integer type");
        t = scan_word(line);
      }
      p.type = type_named(t);
      if (p.type == NO_TYPE) in.fail_here("unknown property type \"" + std::string(t) + "\"");
      p.name = std::string(scan_word(line));
      h.elements.back().props.push_back(p);
    } else if (key != "comment" && key != "obj_info" && !key.empty()) {
      in.fail_here("unknown header line \"" + std::string(key) + "\"");
    }
  }
  if (h.format < 0) in.fail_here("header has no format line");
  h.data_start = in.offset();
  // Each instance takes at least its scalars and list counts in binary, or
  // a value and a separator in text; the counts must fit in what follows.
  unsigned long long left = in.remaining();
  for (const Element &e : h.elements) {
    size_t least = 0;
    for (const Property &p : e.props) least += h.format == 0 ? 2 : TYPE_SIZE[p.count_type == NO_TYPE ? p.type : p.count_type];
    if (least > 0 && (unsigned long long)e.count > (left + 1) / least)
      fail(file, e.place, "element " + e.name + " count " + std::to_string(e.count) + " is more than the rest of the file can hold");
    if (least > 0) left -= std::min(left, (unsigned long long)e.count * least);
  }
  return h;
}

int find_prop(const Element &e, std::initializer_list<const char *> names) {
  for (size_t i = 0; i < e.props.size(); i++)
    for (const char *n : names)
      if (e.props[i].name == n) return (int)i;
  return -1;
}

}  // namespace

ImportedSurface read_ply(std::string_view data, const std::string &file) {
  Header h = read_header(data, file);
  Values in(data, file, h.data_start, h.format);
  MeshBuilder out(file);
  long long nv = -1;
  long faces = 0;
  std::vector<long long> idx;
  for (const Element &e : h.elements) {
    if (e.props.empty()) continue;
    bool is_vertex = e.name == "vertex", is_face = e.name == "face";
    int ix = find_prop(e, {"x"}), iy = find_prop(e, {"y"}), iz = find_prop(e, {"z"});
    int ilist = find_prop(e, {"vertex_indices", "vertex_index"});
    if (is_vertex && (ix < 0 || iy < 0 || iz < 0)) fail(file, e.place, "vertex element without x, y and z");
    if (is_face && (ilist < 0 || e.props[(size_t)ilist].count_type == NO_TYPE))
      fail(file, e.place, "face element without a vertex_indices list");
    if (is_face && nv < 0) fail(file, e.place, "faces before the vertices");
    if (is_vertex) {
      nv = e.count;
      out.reserve((size_t)nv, 0);
    }
    for (long long r = 0; r < e.count; r++) {
      size_t at = in.byte_offset();
      double xyz[3] = {0, 0, 0};
      for (size_t k = 0; k < e.props.size(); k++) {
        const Property &p = e.props[k];
        auto what = [&] { return e.name + " " + std::to_string(r + 1) + " " + p.name; };
        if (p.count_type == NO_TYPE) {
          double v = in.scalar(p.type, what);
          if (!is_vertex) continue;
          if ((int)k == ix) xyz[0] = v;
          if ((int)k == iy) xyz[1] = v;
          if ((int)k == iz) xyz[2] = v;
          continue;
        }
        double n = in.scalar(p.count_type, [&] { return what() + " count"; });
        if (!(n >= 0 && n <= MAX_CORNERS && n == std::floor(n))) {
          char count[32];
          snprintf(count, sizeof count, "%g", n);
          fail(file, in.place(), what() + " has a list of " + count + " entries");
        }
        if ((int)k == ilist && is_face) idx.clear();
        for (long long j = 0; j < (long long)n; j++) {
          double v = in.scalar(p.type, what);
          if ((int)k == ilist && is_face) idx.push_back(whole_index(v));
        }
      }
      // A text row is the line just read; a binary one starts at `at`.
      auto place = [&] { return in.ascii() ? in.place() : "byte " + std::to_string(at); };
      if (is_vertex) out.vertex_at(xyz[0], xyz[1], xyz[2], place);
      if (is_face) out.face_at(idx.data(), (int)idx.size(), nv, ++faces, 0, place);
    }
  }
  if (nv < 0) fail(file, "header", "no vertex element");
  static const char *names[] = {"PLY ASCII", "PLY binary little-endian", "PLY binary big-endian"};
  return finish(out, names[h.format]);
}
