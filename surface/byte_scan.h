// Reading fixed-size binary fields from a file held in memory, in either
// byte order, with every read checked against the end of the data.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

class ByteScan {
 public:
  // `data` must outlive the scanner; `file` names it in messages.
  // `big_endian` is the byte order of the numbers in the file.
  ByteScan(std::string_view data, std::string file, bool big_endian)
      : data_(data), file_(std::move(file)), swap_(big_endian != host_big_endian()) {}

  size_t offset() const { return pos_; }
  size_t remaining() const { return data_.size() - pos_; }
  void seek(size_t pos) { pos_ = pos; }
  std::string place() const { return "byte " + std::to_string(pos_); }
  const std::string &file() const { return file_; }

  // Make sure `bytes` more bytes are there; otherwise the file is truncated
  // and the message says what was being read.
  void need(size_t bytes, const std::string &what) const;
  // A count at the current position, of items of `item_bytes` each that
  // must follow it: refused when negative or more than the file holds.
  long long count32(const std::string &what, size_t item_bytes);

  int32_t i32() { return get<int32_t>(); }
  uint32_t u32() { return get<uint32_t>(); }
  float f32() { return get<float>(); }
  double f64() { return get<double>(); }
  uint8_t u8() { return (uint8_t)data_[pos_++]; }
  uint16_t u16() { return get<uint16_t>(); }
  // Unchecked reads: call need() first for the whole block.
  template <class T>
  T get() {
    T v;
    if (swap_) {
      unsigned char b[sizeof(T)];
      for (size_t k = 0; k < sizeof(T); k++) b[k] = (unsigned char)data_[pos_ + sizeof(T) - 1 - k];
      memcpy(&v, b, sizeof(T));
    } else {
      memcpy(&v, data_.data() + pos_, sizeof(T));
    }
    pos_ += sizeof(T);
    return v;
  }

  static bool host_big_endian() {
    const uint16_t one = 1;
    unsigned char b;
    memcpy(&b, &one, 1);
    return b == 0;
  }

 private:
  std::string_view data_;
  std::string file_;
  size_t pos_ = 0;
  bool swap_;
};
