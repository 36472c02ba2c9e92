#include "surface/text_scan.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cli/failure.h"

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

void skip_space(std::string_view &s) {
  size_t i = 0;
  while (i < s.size() && is_space(s[i])) i++;
  s.remove_prefix(i);
}

}  // namespace

bool TextScan::next_line(std::string_view &line) {
  if (pos_ >= data_.size()) return false;
  size_t end = data_.find('\n', pos_);
  size_t next = end == std::string_view::npos ? data_.size() : end + 1;
  if (end == std::string_view::npos) end = data_.size();
  line = data_.substr(pos_, end - pos_);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  pos_ = next;
  line_++;
  return true;
}

bool TextScan::next_content_line(std::string_view &line, char comment) {
  while (next_line(line)) {
    std::string_view s = line;
    skip_space(s);
    if (!s.empty() && !(comment && s[0] == comment)) return true;
  }
  return false;
}

void TextScan::fail_here(const std::string &what) const { fail(file_, place(), what); }

void TextScan::check_count(long long count, size_t min_bytes, const std::string &what) const {
  if (count < 0) fail_here("negative " + what + " count " + std::to_string(count));
  // The last item may lack its line end: one byte less than count*min_bytes.
  if (count > 0 && (unsigned long long)count > (remaining() + 1) / min_bytes)
    fail_here(what + " count " + std::to_string(count) + " is more than the rest of the file can hold");
}

bool scan_double(std::string_view &s, double &v) {
  std::string_view t = s;
  skip_space(t);
  if (!t.empty() && t[0] == '+') t.remove_prefix(1);
  auto r = std::from_chars(t.data(), t.data() + t.size(), v);
  if (r.ec == std::errc::invalid_argument || r.ptr == t.data()) return false;
  // Out of range: strtod gives an infinity (which the caller's finiteness
  // check reports) or, for values too small, zero or a subnormal.
  if (r.ec == std::errc::result_out_of_range) v = strtod(std::string(t.data(), r.ptr).c_str(), nullptr);
  s = t.substr(r.ptr - t.data());
  return true;
}

bool scan_long(std::string_view &s, long long &v) {
  std::string_view t = s;
  skip_space(t);
  if (!t.empty() && t[0] == '+') t.remove_prefix(1);
  auto r = std::from_chars(t.data(), t.data() + t.size(), v);
  if (r.ptr == t.data() || r.ec == std::errc::invalid_argument) return false;
  // Out-of-range values become huge but leave room for the small offsets
  // (index bases) the readers apply, which then cannot overflow.
  if (r.ec == std::errc::result_out_of_range) v = (t[0] == '-') ? -(1ll << 62) : (1ll << 62);
  s = t.substr(r.ptr - t.data());
  return true;
}

std::string_view scan_word(std::string_view &s) {
  skip_space(s);
  size_t i = 0;
  while (i < s.size() && !is_space(s[i])) i++;
  std::string_view w = s.substr(0, i);
  s.remove_prefix(i);
  return w;
}

bool only_space(std::string_view s) {
  skip_space(s);
  return s.empty();
}

bool starts_with_nocase(std::string_view s, std::string_view prefix) {
  if (s.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); i++) {
    char a = s[i], b = prefix[i];
    if (a >= 'A' && a <= 'Z') a = (char)(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = (char)(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

std::string_view TokenScan::next() {
  while (pos_ < data_.size() && is_space(data_[pos_])) line_ += data_[pos_++] == '\n';
  size_t start = pos_;
  while (pos_ < data_.size() && !is_space(data_[pos_])) pos_++;
  return data_.substr(start, pos_ - start);
}

double TokenScan::number(std::string_view what) {
  std::string_view t = next();
  double v;
  std::string_view rest = t;
  if (t.empty()) fail_here("file ends before " + std::string(what));
  if (!scan_double(rest, v) || !rest.empty()) fail_here("\"" + std::string(t) + "\" is not a number (" + std::string(what) + ")");
  return v;
}

long long TokenScan::integer(std::string_view what) {
  std::string_view t = next();
  long long v;
  std::string_view rest = t;
  if (t.empty()) fail_here("file ends before " + std::string(what));
  if (!scan_long(rest, v) || !rest.empty()) fail_here("\"" + std::string(t) + "\" is not an integer (" + std::string(what) + ")");
  return v;
}

void TokenScan::skip_line() {
  while (pos_ < data_.size() && data_[pos_] != '\n') pos_++;
  if (pos_ < data_.size()) pos_++, line_++;
}

void TokenScan::seek(size_t pos) {
  if (pos < pos_) pos_ = 0, line_ = 1;  // back: count the lines again
  for (size_t i = pos_; i < pos && i < data_.size(); i++) line_ += data_[i] == '\n';
  pos_ = pos;
}

void TokenScan::fail_here(const std::string &what) const { fail(file_, place(), what); }
