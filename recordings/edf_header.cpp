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
