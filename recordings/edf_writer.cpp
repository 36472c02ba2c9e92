#include "recordings/edf_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace {

constexpr long DIGITAL_MAX = 32767;

// A header field: left-justified, blank-padded to exactly `width` bytes.
std::string field(const std::string &text, size_t width) {
  std::string f = text.substr(0, width);
  f.resize(width, ' ');
  return f;
}

// A number in at most 8 characters, as EDF's header wants it.
std::string short_number(double x) {
  char b[32];
  for (int digits = 8; digits > 0; digits--) {
    snprintf(b, sizeof b, "%.*g", digits, x);
    if (strlen(b) <= 8) return b;
  }
  return "0";
}

// Annotation texts of one record, after its time-keeping entry.
std::string record_annotations(long record, const std::vector<EdfAnnotation> &annotations) {
  char b[64];
  snprintf(b, sizeof b, "+%ld", record);
  std::string tal = std::string(b) + "\x14\x14" + std::string(1, '\0');
  for (const auto &a : annotations) {
    if ((long)std::floor(a.onset) != record) continue;
    snprintf(b, sizeof b, "+%.6f", a.onset);
    tal += std::string(b) + "\x14" + a.text + "\x14" + std::string(1, '\0');
  }
  return tal;
}

}  // namespace

void write_edf_plus(FILE *fp, const std::vector<EdfSignal> &signals, double sample_rate,
                    const std::vector<EdfAnnotation> &annotations) {
  if (signals.empty()) throw std::invalid_argument("an EDF file needs a signal");
  long spr = std::lround(sample_rate);
  if (spr < 1 || std::fabs(sample_rate - (double)spr) > 1e-9) throw std::invalid_argument("the sample rate must be a whole number");
  size_t length = signals[0].physical.size();
  for (const auto &s : signals) {
    if (s.physical.size() != length) throw std::invalid_argument("signals of different lengths");
    if (s.label.size() > 16) throw std::invalid_argument("label longer than 16 characters: " + s.label);
  }
  for (const auto &a : annotations)
    if (a.text.find_first_of(std::string("\x14\x15\0", 3)) != std::string::npos)
      throw std::invalid_argument("annotation text holding a delimiter");
  long records = std::max(1L, (long)((length + (size_t)spr - 1) / (size_t)spr));
  std::vector<std::string> tals;
  size_t slot_bytes = 0;
  for (long r = 0; r < records; r++) {
    tals.push_back(record_annotations(r, annotations));
    slot_bytes = std::max(slot_bytes, tals.back().size());
  }
  slot_bytes += slot_bytes % 2;
  size_t ns = signals.size() + 1;

  // Each signal's range is what its 8-character header fields state
  // exactly, so that a reader's scaling gives back the values written.
  std::vector<double> range;
  std::vector<std::string> range_text;
  for (const auto &s : signals) {
    double m = 0;
    for (double v : s.physical) m = std::max(m, std::fabs(v));
    double r = m > 0 ? m * 1.0001 : 1;
    std::string text = short_number(-r).substr(1);
    while (std::stod(text) < m) text = short_number(-(r *= 1.001)).substr(1);
    range_text.push_back(text);
    range.push_back(std::stod(text));
  }

  std::string h = field("0", 8) + field("X X X X", 80) + field("Startdate X X X X", 80) + "01.01.00" + "00.00.00";
  h += field(std::to_string(256 * (ns + 1)), 8) + field("EDF+C", 44) + field(std::to_string(records), 8) +
       field("1", 8) + field(std::to_string(ns), 4);
  auto each = [&](auto text_of, const std::string &annotation_value, size_t width) {
    for (size_t k = 0; k < signals.size(); k++) h += field(text_of(k), width);
    h += field(annotation_value, width);
  };
  each([&](size_t k) { return signals[k].label; }, "EDF Annotations", 16);
  each([](size_t) { return std::string(); }, "", 80);
  each([&](size_t k) { return signals[k].unit; }, "", 8);
  each([&](size_t k) { return "-" + range_text[k]; }, "-1", 8);
  each([&](size_t k) { return range_text[k]; }, "1", 8);
  each([](size_t) { return std::to_string(-DIGITAL_MAX); }, "-32768", 8);
  each([](size_t) { return std::to_string(DIGITAL_MAX); }, "32767", 8);
  each([](size_t) { return std::string(); }, "", 80);
  each([&](size_t) { return std::to_string(spr); }, std::to_string(slot_bytes / 2), 8);
  each([](size_t) { return std::string(); }, "", 32);
  fwrite(h.data(), 1, h.size(), fp);

  std::string block;
  for (long r = 0; r < records; r++) {
    block.clear();
    for (size_t k = 0; k < signals.size(); k++)
      for (long i = 0; i < spr; i++) {
        size_t at = (size_t)(r * spr + i);
        double v = at < length ? signals[k].physical[at] : 0.0;
        long d = std::lround(v / range[k] * DIGITAL_MAX);
        d = std::clamp(d, -DIGITAL_MAX, DIGITAL_MAX);
        block += char(d & 0xff);
        block += char((d >> 8) & 0xff);
      }
    std::string tal = tals[(size_t)r];
    tal.resize(slot_bytes, '\0');
    block += tal;
    fwrite(block.data(), 1, block.size(), fp);
  }
}
