// Matrix files (binary of either byte order, and the text variant) and the
// item lookup in their tails.  Whatever the bytes, the reader refuses the
// file or hands out a matrix of the counts it reports and a tail of at most
// 1024 bytes; a matrix it accepts, written back with its tail, reads back
// bit for bit.  The tail lookup runs on the tail read and on the raw bytes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "matrixio/matrix.h"
#include "matrixio/readtail.h"
#include "numeric/nrutils.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// Look up item in tail[0..len) and check that the answer lies inside it and
// starts a line that follows a line beginning with the item.
void lookup(int len, const char *tail, const char *item) {
  const char *hit = find_tail_item(len, tail, item);
  if (hit) {
    fuzz_check(hit > tail && hit < tail + len, "an item's value line lies inside the tail");
    fuzz_check(hit[-1] == '\n', "an item's value line starts after a line end");
  }
  float value = 12345.0f;
  int got = tail_float(len, tail, item, &value);
  fuzz_check(got == 0 || hit != nullptr, "tail_float finds only items find_tail_item finds");
  if (!got) fuzz_check(value == 12345.0f, "tail_float leaves the value alone when it fails");
}

// An item name taken from the input itself, so that matches are common.
std::string item_from(const uint8_t *data, size_t size) {
  std::string s;
  for (size_t k = 0; k < size && k < 12 && data[k] != '\n' && data[k] != 0; k++) s += (char)data[k];
  return s;
}

// A header of many rows and no columns makes the reader walk a long row
// table: cheap for the program, but each step of that walk is a traced
// comparison here, and such 8-byte inputs would take most of the fuzzer's
// time.  Up to 4096 rows still exercise the path.
bool many_empty_rows(const uint8_t *data, size_t size) {
  if (size >= 8) {
    uint32_t w[2];
    memcpy(w, data, 8);
    for (int swap = 0; swap < 2; swap++) {
      uint32_t r = swap ? __builtin_bswap32(w[0]) : w[0], c = swap ? __builtin_bswap32(w[1]) : w[1];
      if (c == 0 && r > 4096 && r <= (1u << 31)) return true;
    }
  }
  long r = 0, c = 1;
  std::string head(reinterpret_cast<const char *>(data), size < 80 ? size : 80);
  return sscanf(head.c_str(), "%ld%ld", &r, &c) == 2 && c == 0 && r > 4096;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *raw = reinterpret_cast<const char *>(data);
  int raw_len = size > 1 << 20 ? 1 << 20 : (int)size;
  lookup(raw_len, raw, "sample freq");
  lookup(raw_len, raw, "");
  std::string own = item_from(data, size);
  lookup(raw_len, raw, own.c_str());

  if (many_empty_rows(data, size)) return 0;
  const char *name = memfile(0, data, size);
  int R = -1, C = -1, tail_len = -1;
  char *tail = reinterpret_cast<char *>(&R);  // must be replaced
  float **m = gettailmatrix(name, &R, &C, &tail_len, &tail);
  if (!m) {
    fuzz_check(tail == nullptr && tail_len == 0, "a refused file hands out no tail");
    return 0;
  }
  fuzz_check(R >= 0 && C >= 0, "counts of an accepted matrix are not negative");
  fuzz_check(tail_len >= 0 && tail_len <= 1024, "at most 1024 tail bytes are kept");
  fuzz_check((tail == nullptr) == (tail_len == 0), "a tail buffer exactly when there is a tail");
  fuzz_check(!(ascifile && foreign), "a text file has no byte order");

  if (tail) {
    lookup(tail_len, tail, "sample freq");
    lookup(tail_len, tail, "");
    std::string first = item_from(reinterpret_cast<const uint8_t *>(tail), (size_t)tail_len);
    lookup(tail_len, tail, first.c_str());
  }

  // Write it back (to a second in-memory file) and read it again.
  const char *copy = memfile(1, nullptr, 0);
  fuzz_check(binputtailmatrix(copy, m, R, C, tail_len, tail) == 1, "an accepted matrix can be written");
  int R2, C2, len2;
  char *tail2;
  float **m2 = gettailmatrix(copy, &R2, &C2, &len2, &tail2);
  fuzz_check(m2 != nullptr, "a written matrix reads back");
  fuzz_check(R2 == R && C2 == C && len2 == tail_len, "counts and tail length survive the round trip");
  fuzz_check(!ascifile && !foreign, "the copy is binary in this machine's order");
  for (int r = 1; r <= R; r++)
    fuzz_check(C == 0 || memcmp(&m[r][1], &m2[r][1], sizeof(float) * (size_t)C) == 0, "values survive bit for bit");
  fuzz_check(tail_len == 0 || memcmp(tail, tail2, (size_t)tail_len) == 0, "the tail survives");

  free_matrix(m, 1, R, 1, C);
  free_matrix(m2, 1, R2, 1, C2);
  free(tail);
  free(tail2);
  return 0;
}
