#include "recordings/delimited_text.h"

#include <charconv>
#include <cmath>
#include <string_view>

#include "cli/failure.h"
#include "surface/file_bytes.h"

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\r' || s.front() == '"')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\r' || s.back() == '"')) s.remove_suffix(1);
  return s;
}

std::vector<std::string_view> split(std::string_view line, char sep) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (true) {
    size_t at = line.find(sep, start);
    out.push_back(trim(line.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start)));
    if (at == std::string_view::npos) return out;
    start = at + 1;
  }
}

char separator_for(const std::string &path, std::string_view first_line) {
  if (lower_suffix(path) == ".tsv" || first_line.find('\t') != std::string_view::npos) return '\t';
  if (first_line.find(';') != std::string_view::npos && first_line.find(',') == std::string_view::npos) return ';';
  return ',';
}

bool parse_field(std::string_view f, double &v) {
  if (!f.empty() && f.front() == '+') f.remove_prefix(1);
  auto [end, ec] = std::from_chars(f.data(), f.data() + f.size(), v);
  return !f.empty() && ec == std::errc() && end == f.data() + f.size() && std::isfinite(v);
}

}  // namespace

TextTable read_text_table(const std::string &path, bool with_header) {
  std::string text = read_file_bytes(path);
  TextTable t;
  char sep = 0;
  bool header_pending = with_header;
  long line_no = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string_view line(text.data() + pos, end - pos);
    pos = end + 1;
    line_no++;
    if (trim(line).empty() || trim(line).front() == '#') continue;
    if (!sep) sep = separator_for(path, line);
    auto fields = split(line, sep);
    std::string place = "line " + std::to_string(line_no);
    if (header_pending) {
      for (auto f : fields) t.header.emplace_back(f);
      t.numbers.cols = (long)fields.size();
      header_pending = false;
      continue;
    }
    if (t.numbers.cols == 0) t.numbers.cols = (long)fields.size();
    if ((long)fields.size() != t.numbers.cols)
      fail(path, place, "has " + std::to_string(fields.size()) + " fields, the first line " +
                            std::to_string(t.numbers.cols));
    for (size_t k = 0; k < fields.size(); k++) {
      double v;
      if (!parse_field(fields[k], v))
        fail(path, place, "field " + std::to_string(k + 1) + " ('" + std::string(fields[k]) + "') is not a number");
      t.numbers.values.push_back(v);
    }
    t.numbers.rows++;
  }
  if (header_pending) fail(path, "", "holds no header line");
  return t;
}

void write_text_table(FILE *fp, const NumericArray &a, char separator) {
  for (long r = 0; r < a.rows; r++)
    for (long c = 0; c < a.cols; c++) fprintf(fp, "%.9g%c", a.at(r, c), c + 1 < a.cols ? separator : '\n');
}
