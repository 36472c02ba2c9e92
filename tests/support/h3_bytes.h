// Binary files assembled word by word here, independently of the program's
// own writers, in this machine's byte order or the reverse one.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

struct Bytes {
  bool other_order;  // reversed words: what the other byte order writes
  std::string s;
  explicit Bytes(bool other = false) : other_order(other) {}
  Bytes &w(const void *p) {
    char b[4];
    memcpy(b, p, 4);
    if (other_order) std::swap(b[0], b[3]), std::swap(b[1], b[2]);
    s.append(b, 4);
    return *this;
  }
  Bytes &i(int32_t v) { return w(&v); }
  Bytes &f(float v) { return w(&v); }
  Bytes &fs(const std::vector<float> &v) {
    for (float x : v) f(x);
    return *this;
  }
  Bytes &text(const std::string &t) {  // text is never byte-swapped
    s += t;
    return *this;
  }
};

// A matrix file: the two counts, the values row by row, then the tail.
inline std::string matrix_bytes(int rows, int cols, const std::vector<float> &values, const std::string &tail = "",
                                bool other_order = false) {
  return Bytes(other_order).i(rows).i(cols).fs(values).text(tail).s;
}
