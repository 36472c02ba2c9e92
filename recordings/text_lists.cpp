#include "recordings/text_lists.h"

#include <cstdio>

std::vector<std::string> split_commas(const std::string &text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (true) {
    size_t comma = text.find(',', start);
    out.push_back(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (comma == std::string::npos) return out;
    start = comma + 1;
  }
}

std::string join(const std::vector<std::string> &items, const std::string &separator) {
  std::string out;
  for (size_t k = 0; k < items.size(); k++) out += (k ? separator : "") + items[k];
  return out;
}

std::string seconds_text(double s) {
  char b[32];
  snprintf(b, sizeof b, "%g", s);
  return b;
}
