// Named items in the text tail of a matrix file.
#include "matrixio/readtail.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

int lower(char c) { return tolower((unsigned char)c); }

// Does the tail, from position p on, begin with item (ignoring case)?  A
// tail that ends before the name does is no match.
bool starts_with_item(int tail_len, const char *tail, int p, const char *item, size_t item_len) {
  if ((size_t)(tail_len - p) < item_len) return false;
  for (size_t k = 0; k < item_len; k++)
    if (lower(tail[p + k]) != lower(item[k])) return false;
  return true;
}

}  // namespace

// tail_len, tail: the tail as read from a matrix file (not terminated; it
//   may be nullptr when tail_len is 0).  item: the name, matched as a prefix
//   of a line, case-insensitively.
// Returns the position in tail of the line after the first matching line,
// or nullptr when no line matches or the matching line is the last one.
const char *find_tail_item(int tail_len, const char *tail, const char *item) {
  if (!tail || !item || tail_len <= 0) return nullptr;
  size_t item_len = strlen(item);
  int p = 0;
  while (p < tail_len) {
    const char *nl = static_cast<const char *>(memchr(tail + p, '\n', (size_t)(tail_len - p)));
    int next = nl ? (int)(nl - tail) + 1 : tail_len;
    if (starts_with_item(tail_len, tail, p, item, item_len)) return next < tail_len ? tail + next : nullptr;
    p = next;
  }
  return nullptr;
}

// tail_len, tail, item: as for find_tail_item.  value: on output (only when
// the result is 1) the number at the start of the item's value line.
// Returns 1 when that line begins with a number, else 0.
int tail_float(int tail_len, const char *tail, const char *item, float *value) {
  const char *line = find_tail_item(tail_len, tail, item);
  if (!line) return 0;
  // The tail carries no terminator; scan a terminated copy of the value line
  // only, so that a blank or wordy value line cannot borrow a number from a
  // later line.
  size_t avail = (size_t)(tail + tail_len - line);
  const char *nl = static_cast<const char *>(memchr(line, '\n', avail));
  std::string text(line, nl ? (size_t)(nl - line) : avail);
  float v;
  if (sscanf(text.c_str(), "%f", &v) != 1) return 0;
  *value = v;
  return 1;
}
