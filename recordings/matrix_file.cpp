#include "recordings/matrix_file.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "cli/failure.h"
#include "surface/file_bytes.h"
#include "geometry/checkasc.h"
#include "matrixio/matrix.h"

namespace {

NumericArray read_binary(const std::string &path, const std::string &data, std::string *tail) {
  if (data.size() < 8) fail(path, "header", "cut short: no row and column counts");
  int32_t counts[2];
  memcpy(counts, data.data(), 8);
  int rows = counts[0], cols = counts[1];
  // brelix's own rule for telling the other byte order from this one.
  bool swap = swapnrowncol(&rows, &cols) != 0;
  if (rows < 0 || cols < 0) fail(path, "header", "negative row or column count");
  size_t available = (data.size() - 8) / 4;
  if (cols > 0 && (size_t)rows > available / (size_t)cols)
    fail(path, "data", "cut short: " + std::to_string(rows) + " x " + std::to_string(cols) +
                           " values announced, " + std::to_string(available) + " there");
  NumericArray a;
  a.rows = rows;
  a.cols = cols;
  a.values.resize((size_t)rows * (size_t)cols);
  for (size_t k = 0; k < a.values.size(); k++) {
    uint32_t w;
    memcpy(&w, data.data() + 8 + 4 * k, 4);
    if (swap) w = longwordswap(w);
    float f;
    memcpy(&f, &w, 4);
    a.values[k] = f;
  }
  if (tail) *tail = data.substr(8 + 4 * a.values.size());
  return a;
}

// The plain-text form: a first line with R and optionally C (1 when absent),
// then R*C numbers separated by white space, then the tail.
NumericArray read_text(const std::string &path, const std::string &data, std::string *tail) {
  const char *p = data.data(), *end = p + data.size();
  const char *eol = (const char *)memchr(p, '\n', data.size());
  const char *line_end = eol ? eol : end;
  auto skip_space = [&](const char *&q, const char *limit) {
    while (q < limit && isspace((unsigned char)*q)) q++;
  };
  long long counts[2] = {0, 1};
  int got = 0;
  for (const char *q = p; got < 2;) {
    skip_space(q, line_end);
    auto [next, ec] = std::from_chars(q, line_end, counts[got]);
    if (ec != std::errc()) break;
    q = next;
    got++;
  }
  if (got == 0) fail(path, "line 1", "holds no row count");
  if (counts[0] < 0 || counts[1] < 0) fail(path, "line 1", "negative row or column count");
  const char *q = eol ? eol + 1 : end;
  // Each number needs at least two characters but the last.
  if (counts[1] > 0 && counts[0] > (long long)(end - q + 1) / 2 / counts[1] + 1)
    fail(path, "data", "cut short: fewer numbers than " + std::to_string(counts[0]) + " x " + std::to_string(counts[1]));
  NumericArray a;
  a.rows = (long)counts[0];
  a.cols = (long)counts[1];
  a.values.resize((size_t)(a.rows * a.cols));
  for (size_t k = 0; k < a.values.size(); k++) {
    skip_space(q, end);
    if (q < end && *q == '+') q++;
    double v;
    auto [next, ec] = std::from_chars(q, end, v);
    if (ec != std::errc())
      fail(path, "value " + std::to_string(k + 1), q < end ? "is not a number" : "missing: the file ends early");
    a.values[k] = (float)v;
    q = next;
  }
  while (q < end && *q == '\n') q++;
  if (tail) *tail = std::string(q, end);
  return a;
}

}  // namespace

void write_matrix(FILE *fp, const NumericArray &a, const std::string &tail) {
  int32_t counts[2] = {(int32_t)a.rows, (int32_t)a.cols};
  fwrite(counts, 4, 2, fp);
  std::vector<float> row((size_t)a.cols);
  for (long r = 0; r < a.rows; r++) {
    for (long c = 0; c < a.cols; c++) row[(size_t)c] = (float)a.at(r, c);
    fwrite(row.data(), 4, row.size(), fp);
  }
  fwrite(tail.data(), 1, tail.size(), fp);
}

NumericArray read_matrix(const std::string &path, std::string *tail) {
  std::string data = read_file_bytes(path);
  FILE *f = fopen(path.c_str(), "rb");
  bool text = f && check_asci(f) && !data.empty();
  if (f) fclose(f);
  return text ? read_text(path, data, tail) : read_binary(path, data, tail);
}

std::string sample_frequency_item(double sample_rate) {
  if (!(sample_rate > 0)) return "sample frequency\nunknown\n";
  char b[64];
  snprintf(b, sizeof b, "sample frequency\n%.9g Hz\n", sample_rate);
  return b;
}
