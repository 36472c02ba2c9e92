// Line-by-line scanning of text surface files held in memory, with the line
// number kept for messages, and number parsing that neither allocates nor
// depends on the locale.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class TextScan {
 public:
  // `data` must outlive the scanner; `file` names it in messages.
  TextScan(std::string_view data, std::string file) : data_(data), file_(std::move(file)) {}

  // The next line without its line end (LF, CRLF or lone CR at the end);
  // false at end of data.  line_number() is then that line's number (from 1).
  bool next_line(std::string_view &line);
  // The next line that holds more than white space (and, when `comment` is
  // non-zero, more than a comment starting with that character).
  bool next_content_line(std::string_view &line, char comment = 0);
  long line_number() const { return line_; }
  // "line N" of the last line read.
  std::string place() const { return "line " + std::to_string(line_); }
  // Bytes not yet scanned.
  size_t remaining() const { return data_.size() - pos_; }
  size_t offset() const { return pos_; }
  const std::string &file() const { return file_; }

  // Throw an InputError at the last line read.
  [[noreturn]] void fail_here(const std::string &what) const;
  // Throw the error for a count that the rest of the file cannot hold:
  // `count` items of at least `min_bytes` bytes each.
  void check_count(long long count, size_t min_bytes, const std::string &what) const;

 private:
  std::string_view data_;
  std::string file_;
  size_t pos_ = 0;
  long line_ = 0;
};

// Number scanning over a string_view, consuming leading white space and the
// number; false (and `s` unchanged) when the next token is not a number.
// Doubles accept an optional leading '+', as C's scanf does; integers out of
// the 64-bit range come back as -2^62 or 2^62.
bool scan_double(std::string_view &s, double &v);
bool scan_long(std::string_view &s, long long &v);
// The next white-space separated word ("" at the end).
std::string_view scan_word(std::string_view &s);
// True when only white space remains.
bool only_space(std::string_view s);
// `s` starts with `prefix`, ignoring ASCII case.
bool starts_with_nocase(std::string_view s, std::string_view prefix);

// White-space separated tokens across line ends (for formats that are not
// line oriented), keeping the line number for messages.
class TokenScan {
 public:
  TokenScan(std::string_view data, std::string file) : data_(data), file_(std::move(file)) {}

  // The next token; empty at end of data.
  std::string_view next();
  // The next token as a number; throws naming `what` when it is missing or
  // not a number.
  double number(std::string_view what);
  long long integer(std::string_view what);
  // Skip to the start of the next line (after binary data follows a
  // keyword line).
  void skip_line();
  size_t offset() const { return pos_; }
  void seek(size_t pos);
  size_t remaining() const { return data_.size() - pos_; }
  std::string place() const { return "line " + std::to_string(line_); }
  const std::string &file() const { return file_; }
  [[noreturn]] void fail_here(const std::string &what) const;

 private:
  std::string_view data_;
  std::string file_;
  size_t pos_ = 0;
  long line_ = 1;
};
