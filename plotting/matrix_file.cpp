#include "plotting/matrix_file.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "cli/failure.h"
#include "surface/brelix_tri.h"
#include "surface/file_bytes.h"
#include "surface/text_scan.h"

namespace {

uint32_t swapped(uint32_t w) { return (w >> 24) | ((w >> 8) & 0xff00) | ((w << 8) & 0xff0000) | (w << 24); }

void check_finite(const std::string &path, const MatrixFile &m) {
  for (size_t i = 0; i < m.values.size(); i++)
    if (!std::isfinite(m.values[i]))
      fail(path, "row " + std::to_string(i / m.cols + 1) + ", column " + std::to_string(i % m.cols + 1),
           "the value is not a finite number");
}

MatrixFile read_binary(const std::string &path, const std::string &data) {
  if (data.size() < 8) fail(path, "byte 0", "too short for the row and column counts");
  uint32_t w[2];
  memcpy(w, data.data(), 8);
  // The writer's byte order is the one in which the counts make sense;
  // brelix takes its own order when both counts are non-negative and their
  // product is at most a thousand million.
  auto plausible = [](uint32_t r, uint32_t c) {
    return (int32_t)r >= 0 && (int32_t)c >= 0 && (uint64_t)r * c <= 1000000000ull;
  };
  bool foreign = !plausible(w[0], w[1]);
  if (foreign) {
    w[0] = swapped(w[0]);
    w[1] = swapped(w[1]);
    if (!plausible(w[0], w[1])) fail(path, "byte 0", "the row and column counts are negative or absurd");
  }
  MatrixFile m;
  m.rows = (int)w[0];
  m.cols = (int)w[1];
  uint64_t count = (uint64_t)m.rows * m.cols;
  if (count > (data.size() - 8) / 4)
    fail(path, "byte 8",
         std::to_string(m.rows) + " x " + std::to_string(m.cols) + " values announced, but the file holds only " +
             std::to_string((data.size() - 8) / 4));
  m.values.resize(count);
  for (uint64_t i = 0; i < count; i++) {
    uint32_t v;
    memcpy(&v, data.data() + 8 + 4 * i, 4);
    if (foreign) v = swapped(v);
    memcpy(&m.values[i], &v, 4);
  }
  m.tail = data.substr(8 + 4 * count);
  return m;
}

MatrixFile read_text(const std::string &path, const std::string &data) {
  TextScan scan(data, path);
  std::string_view line;
  if (!scan.next_line(line)) fail(path, "line 1", "empty file");
  long long r, c = 1;
  if (!scan_long(line, r)) scan.fail_here("no row count");
  if (!only_space(line) && !scan_long(line, c)) scan.fail_here("the column count is not a number");
  if (r < 0 || c < 0 || r * c > 1000000000ll) scan.fail_here("the row and column counts are negative or absurd");
  MatrixFile m;
  m.rows = (int)r;
  m.cols = (int)c;
  // Each number takes at least two bytes (a digit and a separator).
  if ((size_t)(r * c) > scan.remaining() / 2 + 1) scan.fail_here("more values announced than the file can hold");
  std::string_view rest(data);
  rest.remove_prefix(scan.offset());
  m.values.reserve((size_t)(r * c));
  for (long long i = 0; i < r * c; i++) {
    double v;
    if (!scan_double(rest, v))
      fail(path, "value " + std::to_string(i + 1),
           "missing or not a number (row " + std::to_string(i / c + 1) + ", column " + std::to_string(i % c + 1) + ")");
    m.values.push_back((float)v);
  }
  while (!rest.empty() && rest.front() == '\n') rest.remove_prefix(1);
  m.tail = std::string(rest);
  return m;
}

}  // namespace

MatrixFile read_matrix_file(const std::string &path) {
  std::string data = read_file_bytes(path);
  MatrixFile m = brelix_tri_is_text(data) ? read_text(path, data) : read_binary(path, data);
  if (m.rows == 0 || m.cols == 0)
    fail(path, "", "the matrix is empty (" + std::to_string(m.rows) + " x " + std::to_string(m.cols) + ")");
  check_finite(path, m);
  return m;
}

std::optional<double> tail_number(const std::string &tail, const std::string &item) {
  size_t start = 0;
  while (start < tail.size()) {
    size_t end = tail.find('\n', start);
    if (end == std::string::npos) return std::nullopt;  // no value line after it
    if (starts_with_nocase(std::string_view(tail).substr(start, end - start), item)) {
      std::string_view value(tail);
      value.remove_prefix(end + 1);
      double v;
      if (scan_double(value, v) && std::isfinite(v)) return v;
      return std::nullopt;
    }
    start = end + 1;
  }
  return std::nullopt;
}

std::optional<double> sample_frequency(const MatrixFile &m) {
  auto f = tail_number(m.tail, "sample freq");
  if (f && *f > 0) return f;
  return std::nullopt;
}
