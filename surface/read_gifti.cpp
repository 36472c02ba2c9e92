// GIfTI surfaces (.gii): XML with a NIFTI_INTENT_POINTSET data array of
// vertex coordinates and a NIFTI_INTENT_TRIANGLE array of zero-based
// indices, each encoded as ASCII numbers, base64 or gzip-compressed base64.
// Coordinates are taken as stored; a coordinate-system transform in the file
// is not applied (the caller's --transform serves for that).
#include <expat.h>
#include <zlib.h>

#include <climits>
#include <cstring>
#include <map>
#include <vector>

#include "cli/failure.h"
#include "surface/byte_scan.h"
#include "surface/readers.h"
#include "surface/text_scan.h"

namespace {

// zlib's deflate never compresses by more than about 1032 to 1.
constexpr unsigned long long MAX_INFLATE_RATIO = 1032;

struct RawArray {
  std::map<std::string, std::string> attr;
  std::string data;
  long line;
};

struct Collect {
  std::vector<RawArray> arrays;
  bool in_array = false, in_data = false;
  XML_Parser parser;
};

void XMLCALL on_start(void *user, const XML_Char *name, const XML_Char **atts) {
  Collect &c = *(Collect *)user;
  if (!strcmp(name, "DataArray")) {
    c.arrays.push_back({{}, {}, (long)XML_GetCurrentLineNumber(c.parser)});
    for (int i = 0; atts[i]; i += 2) c.arrays.back().attr[atts[i]] = atts[i + 1];
    c.in_array = true;
  } else if (!strcmp(name, "Data") && c.in_array) {
    c.in_data = true;
  }
}

void XMLCALL on_end(void *user, const XML_Char *name) {
  Collect &c = *(Collect *)user;
  if (!strcmp(name, "DataArray")) c.in_array = false;
  if (!strcmp(name, "Data")) c.in_data = false;
}

void XMLCALL on_text(void *user, const XML_Char *s, int len) {
  Collect &c = *(Collect *)user;
  if (c.in_data) c.arrays.back().data.append(s, (size_t)len);
}

// A decoded array: `rows` x 3 values in row-major order.
struct Array {
  std::vector<double> values;
  long long rows;
};

class Decoder {
 public:
  Decoder(const std::string &file, const RawArray &a, int index)
      : file_(file), a_(a), place_("line " + std::to_string(a.line) + " (DataArray " + std::to_string(index) + ")") {}

  Array decode() {
    if (attr("Dimensionality", "1") != "2" || attr("Dim1", "") != "3") bad("expected two dimensions, the second 3");
    long long rows = count(attr("Dim0", ""));
    std::string type = attr("DataType", ""), enc = attr("Encoding", "ASCII");
    int size = type == "NIFTI_TYPE_FLOAT32" || type == "NIFTI_TYPE_INT32" || type == "NIFTI_TYPE_UINT32" ? 4
               : type == "NIFTI_TYPE_FLOAT64"                                                             ? 8
               : type == "NIFTI_TYPE_INT16"                                                               ? 2
               : type == "NIFTI_TYPE_UINT8" || type == "NIFTI_TYPE_INT8"                                  ? 1
                                                                                                          : 0;
    if (size == 0) bad("unsupported DataType \"" + type + "\"");
    Array out{{}, rows};
    unsigned long long n = 3ull * (unsigned long long)rows;
    if (enc == "ASCII") {
      // Each value needs at least a digit and a separator.
      if (n > a_.data.size() / 2 + 1) bad("Dim0 " + std::to_string(rows) + " is more than the data can hold");
      TokenScan t(a_.data, file_);
      out.values.reserve(n);
      for (unsigned long long i = 0; i < n; i++) {
        std::string_view tok = t.next(), rest = tok;
        double v;
        if (tok.empty()) bad("data end after " + std::to_string(i) + " of " + std::to_string(n) + " values");
        if (!scan_double(rest, v) || !rest.empty()) bad("\"" + std::string(tok) + "\" is not a number");
        out.values.push_back(v);
      }
    } else if (enc == "Base64Binary" || enc == "GZipBase64Binary") {
      std::string bytes = base64();
      if (enc == "GZipBase64Binary") {
        if (n * size > MAX_INFLATE_RATIO * bytes.size() + 1024)
          bad("Dim0 " + std::to_string(rows) + " is more than the compressed data can hold");
        bytes = inflate_exactly(bytes, n * size);
      }
      if (bytes.size() != n * size)
        bad("data hold " + std::to_string(bytes.size()) + " bytes, the dimensions need " + std::to_string(n * size));
      ByteScan b(bytes, file_, attr("Endian", "LittleEndian") == "BigEndian");
      out.values.resize(n);
      for (double &v : out.values) v = scalar(b, type);
    } else {
      bad("unsupported Encoding \"" + enc + "\"");
    }
    if (attr("ArrayIndexingOrder", "RowMajorOrder") == "ColumnMajorOrder") {
      std::vector<double> t(out.values.size());
      for (long long r = 0; r < rows; r++)
        for (int k = 0; k < 3; k++) t[(size_t)(3 * r + k)] = out.values[(size_t)(k * rows + r)];
      out.values.swap(t);
    }
    return out;
  }

  const std::string &place() const { return place_; }

 private:
  std::string attr(const std::string &key, const std::string &fallback) const {
    auto it = a_.attr.find(key);
    return it == a_.attr.end() ? fallback : it->second;
  }
  [[noreturn]] void bad(const std::string &what) const { fail(file_, place_, what); }

  long long count(const std::string &text) const {
    std::string_view s = text;
    long long v;
    if (!scan_long(s, v) || !only_space(s) || v < 0) bad("Dim0 \"" + text + "\" is not a count");
    // Vertex numbers are 32-bit; the bound also keeps 3 * Dim0 * size exact.
    if (v > INT32_MAX) bad("Dim0 " + text + " is more than a surface can have");
    return v;
  }

  static double scalar(ByteScan &b, const std::string &type) {
    if (type == "NIFTI_TYPE_FLOAT32") return b.f32();
    if (type == "NIFTI_TYPE_FLOAT64") return b.f64();
    if (type == "NIFTI_TYPE_INT32") return b.i32();
    if (type == "NIFTI_TYPE_UINT32") return b.u32();
    if (type == "NIFTI_TYPE_INT16") return (int16_t)b.u16();
    if (type == "NIFTI_TYPE_INT8") return (int8_t)b.u8();
    return b.u8();
  }

  std::string base64() const {
    std::string out;
    out.reserve(a_.data.size() / 4 * 3);
    unsigned acc = 0;
    int bits = 0;
    for (char ch : a_.data) {
      int v = ch >= 'A' && ch <= 'Z' ? ch - 'A'
              : ch >= 'a' && ch <= 'z' ? ch - 'a' + 26
              : ch >= '0' && ch <= '9' ? ch - '0' + 52
              : ch == '+'              ? 62
              : ch == '/'              ? 63
                                       : -1;
      if (ch == '=') break;
      if (v < 0) {
        if (ch == ' ' || ch == '\n' || ch == '\r' || ch == '\t') continue;
        bad(std::string("character '") + ch + "' in base64 data");
      }
      acc = (acc << 6) | (unsigned)v;
      bits += 6;
      if (bits >= 8) {
        bits -= 8;
        out.push_back((char)((acc >> bits) & 0xff));
      }
    }
    return out;
  }

  // Inflate gzip or zlib data that must give exactly `expected` bytes; more
  // is refused before it is produced.
  std::string inflate_exactly(const std::string &in, unsigned long long expected) const {
    std::string out(expected + 1, '\0');
    z_stream z{};
    if (inflateInit2(&z, 15 + 32) != Z_OK) bad("cannot start decompression");
    z.next_in = (Bytef *)in.data();
    z.avail_in = (uInt)in.size();
    z.next_out = (Bytef *)out.data();
    z.avail_out = (uInt)out.size();
    int r = inflate(&z, Z_FINISH);
    unsigned long long got = z.total_out;
    inflateEnd(&z);
    if (r != Z_STREAM_END) bad(got > expected ? "compressed data hold more than the dimensions need" : "compressed data are damaged or cut short");
    out.resize(got);
    return out;
  }

  const std::string &file_;
  const RawArray &a_;
  std::string place_;
};

}  // namespace

ImportedSurface read_gifti(std::string_view data, const std::string &file) {
  if (data.size() > INT_MAX) fail(file, "", "too large for an XML file");
  Collect c;
  c.parser = XML_ParserCreate(nullptr);
  XML_SetUserData(c.parser, &c);
  XML_SetElementHandler(c.parser, on_start, on_end);
  XML_SetCharacterDataHandler(c.parser, on_text);
  bool ok = XML_Parse(c.parser, data.data(), (int)data.size(), 1) == XML_STATUS_OK;
  std::string error = ok ? "" : XML_ErrorString(XML_GetErrorCode(c.parser));
  long line = (long)XML_GetCurrentLineNumber(c.parser);
  XML_ParserFree(c.parser);
  if (!ok) fail(file, "line " + std::to_string(line), "not well-formed XML: " + error);

  const RawArray *points = nullptr, *triangles = nullptr;
  int ip = 0, it = 0;
  for (size_t k = 0; k < c.arrays.size(); k++) {
    const std::string &intent = c.arrays[k].attr["Intent"];
    const RawArray **slot = intent == "NIFTI_INTENT_POINTSET" ? &points : intent == "NIFTI_INTENT_TRIANGLE" ? &triangles : nullptr;
    if (!slot) continue;
    if (*slot) fail(file, "line " + std::to_string(c.arrays[k].line), "a second " + intent + " array");
    *slot = &c.arrays[k];
    (slot == &points ? ip : it) = (int)k + 1;
  }
  if (!points) fail(file, "", "no NIFTI_INTENT_POINTSET data array");
  if (!triangles) fail(file, "", "no NIFTI_INTENT_TRIANGLE data array");
  Decoder dp(file, *points, ip), dt(file, *triangles, it);
  Array p = dp.decode(), t = dt.decode();
  MeshBuilder out(file);
  out.reserve((size_t)p.rows, (size_t)t.rows);
  for (long long i = 0; i < p.rows; i++) {
    const double *v = &p.values[(size_t)(3 * i)];
    out.vertex_at(v[0], v[1], v[2], [&] { return dp.place(); });
  }
  for (long long i = 0; i < t.rows; i++) {
    const double *v = &t.values[(size_t)(3 * i)];
    long long idx[3];
    for (int k = 0; k < 3; k++) idx[k] = whole_index(v[k]);
    out.face_at(idx, 3, p.rows, (long)i + 1, 0, [&] { return dt.place(); });
  }
  auto enc = points->attr.find("Encoding");
  return finish(out, "GIfTI " + (enc == points->attr.end() ? std::string("ASCII") : enc->second));
}
