// EDF/EDF+/BDF and BrainVision files written byte by byte from the published
// layouts, independently of the library the program reads them with.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace fixtures {

struct Channel {
  std::string label;
  std::string unit;           // physical dimension, e.g. "uV"
  double phys_min, phys_max;  // physical range
  long dig_min, dig_max;      // digital range
  std::vector<long> digital;  // samples, all records one after the other
};

struct Annotation {
  double onset;  // seconds from the start
  std::string text;
};

// A left-justified, space-padded header field of exactly `width` bytes.
inline std::string field(const std::string &text, size_t width) {
  std::string f = text.substr(0, width);
  f.resize(width, ' ');
  return f;
}

// `bytes` little-endian bytes of v.
inline std::string le(uint64_t v, int bytes) {
  std::string s;
  for (int b = 0; b < bytes; b++) s += char((v >> (8 * b)) & 0xff);
  return s;
}

inline std::string num(double x) {
  char b[32];
  snprintf(b, sizeof b, "%g", x);
  return b;
}

// EDF (bytes_per_sample 2) or BDF (3) with `records` records of
// `record_seconds` each; channels hold records * samples-per-record samples
// where samples-per-record is digital.size() / records.  Annotations make it
// EDF+ (continuous), with an "EDF Annotations" signal of `annot_samples`
// two-byte slots per record; all annotations go into the first record.
inline std::string edf_bytes(const std::vector<Channel> &channels, int records, double record_seconds,
                             int bytes_per_sample = 2, const std::vector<Annotation> &annotations = {},
                             int annot_samples = 60) {
  bool plus = !annotations.empty();
  size_t ns = channels.size() + (plus ? 1 : 0);
  std::string h = bytes_per_sample == 3 ? std::string(1, '\xff') + "BIOSEMI" : field("0", 8);
  h += field("X X X X", 80) + field("Startdate 01-JAN-2020 X X X", 80) + "01.01.2012.00.00";
  h += field(std::to_string(256 * (ns + 1)), 8);
  h += field(bytes_per_sample == 3 ? "24BIT" : plus ? "EDF+C" : "", 44);
  h += field(std::to_string(records), 8) + field(num(record_seconds), 8) + field(std::to_string(ns), 4);
  auto each = [&](auto text_of, size_t width) {
    for (const auto &c : channels) h += field(text_of(c), width);
    if (plus) h += field(text_of(Channel{"EDF Annotations", "", -1, 1, -32768, 32767, {}}), width);
  };
  each([](const Channel &c) { return c.label; }, 16);
  each([](const Channel &) { return std::string(); }, 80);
  each([](const Channel &c) { return c.unit; }, 8);
  each([](const Channel &c) { return num(c.phys_min); }, 8);
  each([](const Channel &c) { return num(c.phys_max); }, 8);
  each([](const Channel &c) { return std::to_string(c.dig_min); }, 8);
  each([](const Channel &c) { return std::to_string(c.dig_max); }, 8);
  each([](const Channel &) { return std::string(); }, 80);
  for (const auto &c : channels) h += field(std::to_string(c.digital.size() / records), 8);
  if (plus) h += field(std::to_string(annot_samples), 8);
  each([](const Channel &) { return std::string(); }, 32);

  for (int r = 0; r < records; r++) {
    for (const auto &c : channels) {
      size_t spr = c.digital.size() / records;
      for (size_t i = 0; i < spr; i++) h += le((uint64_t)c.digital[r * spr + i], bytes_per_sample);
    }
    if (plus) {
      std::string tal = "+" + num(r * record_seconds) + "\x14\x14" + '\0';
      if (r == 0)
        for (const auto &a : annotations) tal += "+" + num(a.onset) + "\x14" + a.text + "\x14" + '\0';
      tal.resize(2 * annot_samples, '\0');
      h += tal;
    }
  }
  return h;
}

// BrainVision header, marker and data files `stem`.vhdr/.vmrk/.eeg in `dir`;
// values are multiplexed (all channels of sample 1, then of sample 2, ...)
// as INT_16 or IEEE_FLOAT_32; resolution[c] scales channel c to microvolts.
// Markers are (description, one-based sample position).  Returns the .vhdr.
inline std::string write_brainvision(const TempDir &dir, const std::string &stem, const std::vector<std::string> &labels,
                                     const std::vector<double> &resolution, const std::vector<std::vector<double>> &values,
                                     bool float32, double sampling_interval_us,
                                     const std::vector<std::pair<std::string, long>> &markers) {
  std::string vhdr = "Brain Vision Data Exchange Header File Version 1.0\r\n\r\n[Common Infos]\r\nCodepage=UTF-8\r\n";
  vhdr += "DataFile=" + stem + ".eeg\r\nMarkerFile=" + stem + ".vmrk\r\nDataFormat=BINARY\r\n";
  vhdr += "DataOrientation=MULTIPLEXED\r\nNumberOfChannels=" + std::to_string(labels.size()) + "\r\n";
  vhdr += "SamplingInterval=" + num(sampling_interval_us) + "\r\n\r\n[Binary Infos]\r\nBinaryFormat=";
  vhdr += float32 ? "IEEE_FLOAT_32\r\n\r\n" : "INT_16\r\n\r\n";
  vhdr += "[Channel Infos]\r\n";
  for (size_t c = 0; c < labels.size(); c++)
    vhdr += "Ch" + std::to_string(c + 1) + "=" + labels[c] + ",," + num(resolution[c]) + ",\xc2\xb5V\r\n";
  std::string vmrk = "Brain Vision Data Exchange Marker File, Version 1.0\r\n\r\n[Common Infos]\r\nCodepage=UTF-8\r\n";
  vmrk += "DataFile=" + stem + ".eeg\r\n\r\n[Marker Infos]\r\nMk1=New Segment,,1,1,0,20200101120000000000\r\n";
  for (size_t m = 0; m < markers.size(); m++)
    vmrk += "Mk" + std::to_string(m + 2) + "=Stimulus," + markers[m].first + "," + std::to_string(markers[m].second) +
            ",1,0\r\n";
  std::string eeg;
  for (size_t t = 0; t < values[0].size(); t++)
    for (size_t c = 0; c < labels.size(); c++) {
      float f = (float)values[c][t];
      uint32_t u;
      memcpy(&u, &f, 4);
      eeg += float32 ? le(u, 4) : le((uint64_t)(long)values[c][t], 2);
    }
  write_file(dir.file(stem + ".vhdr"), vhdr);
  write_file(dir.file(stem + ".vmrk"), vmrk);
  write_file(dir.file(stem + ".eeg"), eeg);
  return dir.file(stem + ".vhdr");
}

}  // namespace fixtures
