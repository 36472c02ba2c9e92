#include "recordings/npy_file.h"

#include <cstdint>
#include <cstring>
#include <string_view>

#include "cli/failure.h"
#include "surface/file_bytes.h"

namespace {

const char MAGIC[] = "\x93NUMPY";
constexpr size_t MAGIC_LEN = 6;

// The text after `key`: in the header dictionary, e.g. "'<f8'" for 'descr'.
std::string_view dict_value(const std::string &path, std::string_view dict, const std::string &key) {
  size_t at = dict.find("'" + key + "'");
  if (at == std::string_view::npos) fail(path, "header", "has no '" + key + "'");
  size_t colon = dict.find(':', at);
  if (colon == std::string_view::npos) fail(path, "header", "has no value for '" + key + "'");
  std::string_view v = dict.substr(colon + 1);
  while (!v.empty() && v.front() == ' ') v.remove_prefix(1);
  return v;
}

struct ElementType {
  char kind;  // 'f' or 'i'
  int size;
  bool big_endian;
};

ElementType parse_descr(const std::string &path, std::string_view v) {
  size_t close = v.size() > 1 ? v.find(v.front(), 1) : std::string_view::npos;
  if (v.empty() || (v.front() != '\'' && v.front() != '"') || close == std::string_view::npos)
    fail(path, "header", "'descr' is not a plain type string");
  std::string d(v.substr(1, close - 1));
  ElementType t{0, 0, false};
  if (d.size() == 3 && (d[0] == '<' || d[0] == '>' || d[0] == '=' || d[0] == '|')) {
    t.big_endian = d[0] == '>';
    t.kind = d[1];
    t.size = d[2] - '0';
  }
  bool known = (t.kind == 'f' && (t.size == 4 || t.size == 8)) || (t.kind == 'i' && (t.size == 2 || t.size == 4));
  if (!known) fail(path, "header", "element type '" + d + "' is none of float32, float64, int16, int32");
  return t;
}

// "(3, 4)" -> {3, 4}; counts must be non-negative integers.
std::vector<long> parse_shape(const std::string &path, std::string_view v) {
  if (v.empty() || v.front() != '(') fail(path, "header", "'shape' is not a tuple");
  size_t close = v.find(')');
  if (close == std::string_view::npos) fail(path, "header", "'shape' is not closed");
  std::vector<long> dims;
  std::string_view s = v.substr(1, close - 1);
  while (!s.empty()) {
    while (!s.empty() && (s.front() == ' ' || s.front() == ',')) s.remove_prefix(1);
    if (s.empty()) break;
    long n = 0;
    size_t k = 0;
    for (; k < s.size() && s[k] >= '0' && s[k] <= '9'; k++) {
      if (n > (1L << 40)) fail(path, "header", "'shape' holds a count too large for any file");
      n = n * 10 + (s[k] - '0');
    }
    if (k == 0) fail(path, "header", "'shape' holds something other than counts");
    dims.push_back(n);
    s.remove_prefix(k);
  }
  return dims;
}

double element(const unsigned char *p, const ElementType &t, bool swap) {
  unsigned char b[8];
  for (int k = 0; k < t.size; k++) b[k] = p[swap ? t.size - 1 - k : k];
  if (t.kind == 'f' && t.size == 4) {
    float f;
    memcpy(&f, b, 4);
    return f;
  }
  if (t.kind == 'f') {
    double d;
    memcpy(&d, b, 8);
    return d;
  }
  if (t.size == 2) {
    int16_t i;
    memcpy(&i, b, 2);
    return i;
  }
  int32_t i;
  memcpy(&i, b, 4);
  return i;
}

bool host_big_endian() {
  const uint16_t one = 1;
  unsigned char b;
  memcpy(&b, &one, 1);
  return b == 0;
}

}  // namespace

NumericArray read_npy(const std::string &path) {
  std::string data = read_file_bytes(path);
  if (data.size() < MAGIC_LEN + 4 || data.compare(0, MAGIC_LEN, MAGIC) != 0)
    fail(path, "", "is not a NumPy .npy file (no \\x93NUMPY at its start)");
  int major = (unsigned char)data[6];
  auto byte = [&](size_t k) { return (size_t)(unsigned char)data[k]; };
  size_t header_len, header_start;
  if (major == 1) {
    header_len = byte(8) | byte(9) << 8;
    header_start = 10;
  } else {
    if (data.size() < 12) fail(path, "header", "cut short");
    header_len = byte(8) | byte(9) << 8 | byte(10) << 16 | byte(11) << 24;
    header_start = 12;
  }
  if (header_len > data.size() - header_start) fail(path, "header", "cut short");
  std::string_view dict(data.data() + header_start, header_len);
  ElementType type = parse_descr(path, dict_value(path, dict, "descr"));
  bool fortran = dict_value(path, dict, "fortran_order").substr(0, 4) == "True";
  std::vector<long> shape = parse_shape(path, dict_value(path, dict, "shape"));
  if (shape.size() != 2)
    fail(path, "header", "holds a " + std::to_string(shape.size()) + "-dimensional array, not a 2-dimensional one");

  NumericArray a;
  a.rows = shape[0];
  a.cols = shape[1];
  size_t body = header_start + header_len;
  size_t available = (data.size() - body) / (size_t)type.size;
  if (a.cols != 0 && (size_t)a.rows > available / (size_t)a.cols)
    fail(path, "data", "cut short: the shape needs " + std::to_string(a.rows) + " x " + std::to_string(a.cols) +
                           " values, the file holds " + std::to_string(available));
  a.values.resize((size_t)(a.rows * a.cols));
  bool swap = type.big_endian != host_big_endian() && type.size > 1;
  const unsigned char *p = (const unsigned char *)data.data() + body;
  for (long r = 0; r < a.rows; r++)
    for (long c = 0; c < a.cols; c++) {
      long k = fortran ? c * a.rows + r : r * a.cols + c;
      a.values[(size_t)(r * a.cols + c)] = element(p + (size_t)k * (size_t)type.size, type, swap);
    }
  return a;
}

void write_npy(FILE *fp, const NumericArray &a) {
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(a.rows) + ", " +
                     std::to_string(a.cols) + "), }";
  // The data start at a multiple of 64 bytes; the header ends in a newline.
  size_t total = MAGIC_LEN + 4 + dict.size() + 1;
  dict.append((64 - total % 64) % 64, ' ');
  dict += '\n';
  fwrite(MAGIC, 1, MAGIC_LEN, fp);
  unsigned char head[4] = {1, 0, (unsigned char)(dict.size() & 0xff), (unsigned char)(dict.size() >> 8)};
  fwrite(head, 1, 4, fp);
  fwrite(dict.data(), 1, dict.size(), fp);
  bool swap = host_big_endian();
  for (double v : a.values) {
    float f = (float)v;
    unsigned char b[4], o[4];
    memcpy(b, &f, 4);
    for (int k = 0; k < 4; k++) o[k] = b[swap ? 3 - k : k];
    fwrite(o, 1, 4, fp);
  }
}
