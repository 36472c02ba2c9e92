#include "geometry/checkasc.h"

#include <cstring>

int check_asci(FILE *f) {
  unsigned char buf[4];
  size_t n = fread(buf, 1, sizeof buf, f);
  rewind(f);
  for (size_t i = 0; i < n; i++) {
    unsigned char c = buf[i];
    bool digit = c >= '0' && c <= '9';
    bool space = c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
    if (!digit && !space && !strchr("-.Ee", c)) return 0;
    if (c == 0) return 0;
  }
  return 1;
}
