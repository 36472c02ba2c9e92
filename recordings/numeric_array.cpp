#include "recordings/numeric_array.h"

#include <cctype>
#include <cstdio>


NumericArray transposed(const NumericArray &a) {
  NumericArray t;
  t.rows = a.cols;
  t.cols = a.rows;
  t.values.resize(a.values.size());
  for (long r = 0; r < a.rows; r++)
    for (long c = 0; c < a.cols; c++) t.values[(size_t)(c * a.rows + r)] = a.at(r, c);
  return t;
}

std::string lower_suffix(const std::string &path) {
  size_t slash = path.find_last_of('/');
  size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string s = path.substr(dot);
  for (char &ch : s) ch = (char)tolower((unsigned char)ch);
  return s;
}

bool file_starts_with(const std::string &path, const std::string &prefix) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return false;
  std::string head(prefix.size(), '\0');
  size_t n = fread(head.data(), 1, head.size(), f);
  fclose(f);
  return n == prefix.size() && head == prefix;
}
