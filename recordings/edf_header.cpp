#include "recordings/edf_header.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "cli/failure.h"

namespace {

// A whole number in a blank-padded header field, or -1.
long header_count(const char *field, size_t width) {
  std::string text(field, width);
  size_t a = text.find_first_not_of(' '), b = text.find_last_not_of(' ');
  if (a == std::string::npos) return -1;
  text = text.substr(a, b - a + 1);
  for (char c : text)
    if (!isdigit((unsigned char)c)) return -1;
  return text.size() > 9 ? -1 : std::stol(text);
}

}  // namespace

void check_edf_header(const std::string &path) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return;
  std::string head(256, '\0');
  size_t n = fread(head.data(), 1, head.size(), f);
  const char *h = head.data();
  if (n < 256 || (memcmp(h, "0       ", 8) != 0 && memcmp(h, "\xff" "BIOSEMI", 8) != 0)) {
    fclose(f);
    return;
  }
  long ns = header_count(h + 252, 4), bytes = header_count(h + 184, 8);
  if (ns < 1 || bytes != 256 * (ns + 1)) {
    fclose(f);
    fail(path, "header", "its header length is not 256 bytes more than 256 per signal");
  }
  // The header is text, which BioSig reads as C strings: a control byte
  // (a NUL above all) cuts a field short.  Bytes above 127 are let through;
  // some programs write "µV" in Latin-1.
  head.resize((size_t)bytes);
  n += fread(head.data() + 256, 1, head.size() - 256, f);
  fclose(f);
  if (n < head.size()) fail(path, "header", "cut short");
  for (size_t k = 1; k < head.size(); k++)
    if ((unsigned char)head[k] < 32 || head[k] == 127)
      fail(path, "header", "byte " + std::to_string(k) + " is a control character");
  h = head.data();
  // Data records the header announces but the file does not hold: BioSig
  // reads EDF+ annotations from them before looking.
  long records = header_count(h + 236, 8);
  if (records < 0 && std::string(h + 236, 8) != "-1      ")
    fail(path, "header", "the number of data records '" + std::string(h + 236, 8) + "' is not a count");
  long long record_bytes = 0;
  int sample_bytes = h[0] == '0' ? 2 : 3;
  for (long k = 0; k < ns; k++) {
    long spr = header_count(h + 256 + 216 * ns + 8 * k, 8);
    if (spr < 0) fail(path, "header", "signal " + std::to_string(k + 1) + " has no number of samples per record");
    record_bytes += (long long)spr * sample_bytes;
  }
  struct stat st;
  if (records >= 0 && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
      (long long)records * record_bytes > (long long)st.st_size - bytes)
    fail(path, "data", "cut short: the header announces " + std::to_string(records) + " data records of " +
                           std::to_string(record_bytes) + " bytes, the file holds " +
                           std::to_string((long long)st.st_size - bytes) + " bytes of data");
  if (memcmp(h + 192, "EDF+", 4) != 0 && memcmp(h + 192, "BDF+", 4) != 0) return;
  std::string recording(h + 88, 80);
  if (recording.compare(0, 10, "Startdate ") != 0) return;
  std::string date = recording.substr(10, recording.find(' ', 10) - 10);
  auto digits = [&](size_t from, size_t count) {
    for (size_t k = from; k < from + count; k++)
      if (!isdigit((unsigned char)date[k])) return false;
    return true;
  };
  bool well_formed = date == "X" || (date.size() == 11 && digits(0, 2) && date[2] == '-' && isalpha((unsigned char)date[3]) &&
                                     isalpha((unsigned char)date[4]) && isalpha((unsigned char)date[5]) &&
                                     date[6] == '-' && digits(7, 4));
  if (!well_formed)
    fail(path, "header", "the start date '" + date + "' of the recording field is neither dd-MMM-yyyy nor X");
}

void check_gdf_header(const std::string &path) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return;
  unsigned char h[256];
  size_t n = fread(h, 1, sizeof h, f);
  struct stat st;
  bool sized = fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
  fclose(f);
  if (n < 3 || memcmp(h, "GDF", 3) != 0) return;
  if (n < sizeof h) fail(path, "header", "cut short");
  if (h[3] != ' ' || !isdigit(h[4]) || h[5] != '.' || !isdigit(h[6]) || !isdigit(h[7]) || h[4] < '1' || h[4] > '3')
    fail(path, "header", "the version '" + std::string((const char *)h, 8) + "' is none of GDF 1.xx to 3.xx");
  auto le = [&](size_t at, int bytes) {
    unsigned long long v = 0;
    for (int k = bytes - 1; k >= 0; k--) v = v << 8 | h[at + (size_t)k];
    return v;
  };
  // Version 1 counts header bytes in 8 bytes, later versions 256-byte blocks
  // in 2; either way the fixed part and one 256-byte block per signal.
  unsigned long long signals = h[4] == '1' ? le(252, 4) : le(252, 2);
  unsigned long long bytes = h[4] == '1' ? le(184, 8) : 256 * le(184, 2);
  if (signals < 1 || bytes < 256 * (signals + 1))
    fail(path, "header", "its header length is too short for its " + std::to_string(signals) + " signals");
  if (sized && bytes > (unsigned long long)st.st_size) fail(path, "header", "cut short");
  if (h[4] == '1') return;
  // Version 2 and later: after the signal blocks, tagged fields up to the
  // header's end (1 byte tag, 3 bytes length, the value; tag 0 ends them).
  // BioSig follows each length, and reads the texts of tags 1, 2, 3, 6 and 7
  // up to their terminating NUL, without a check.
  FILE *g = fopen(path.c_str(), "rb");
  if (!g) return;
  std::string head((size_t)bytes, '\0');
  size_t got = fread(head.data(), 1, head.size(), g);
  fclose(g);
  if (got < head.size()) fail(path, "header", "cut short");
  for (size_t at = 256 * (size_t)(signals + 1); at + 4 <= head.size();) {
    unsigned tag = (unsigned char)head[at];
    if (tag == 0) break;
    size_t len = (unsigned char)head[at + 1] | (size_t)(unsigned char)head[at + 2] << 8 |
                 (size_t)(unsigned char)head[at + 3] << 16;
    if (len > head.size() - at - 4)
      fail(path, "header", "tag " + std::to_string(tag) + " at byte " + std::to_string(at) + " runs past the header");
    bool text = tag == 1 || tag == 2 || tag == 3 || tag == 6 || tag == 7;
    if (text && (len == 0 || head[at + 4 + len - 1] != '\0'))
      fail(path, "header", "the text of tag " + std::to_string(tag) + " at byte " + std::to_string(at) + " does not end");
    at += 4 + len;
  }
}
