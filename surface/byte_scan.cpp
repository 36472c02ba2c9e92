#include "surface/byte_scan.h"

#include "cli/failure.h"

void ByteScan::need(size_t bytes, const std::string &what) const {
  if (bytes > remaining())
    fail(file_, place(),
         "file ends while reading " + what + " (" + std::to_string(bytes) + " bytes needed, " +
             std::to_string(remaining()) + " left)");
}

long long ByteScan::count32(const std::string &what, size_t item_bytes) {
  need(4, what + " count");
  size_t at = pos_;
  long long n = i32();
  if (n < 0) fail(file_, "byte " + std::to_string(at), "negative " + what + " count " + std::to_string(n));
  if ((unsigned long long)n > remaining() / item_bytes)
    fail(file_, "byte " + std::to_string(at),
         what + " count " + std::to_string(n) + " is more than the rest of the file can hold (" +
             std::to_string(remaining()) + " bytes)");
  return n;
}
