// .elc: key lines ("NumberPositions= 97", "UnitPosition mm"), then a
// "Positions" block of x y z rows (or "label : x y z" rows) and a "Labels"
// block of one label per position, in the same order.
#include <algorithm>
#include <cmath>

#include "cli/failure.h"
#include "placement/positions.h"
#include "surface/text_scan.h"

namespace {

// The line without a "#" or "//" comment and surrounding blanks.
std::string_view strip(std::string_view line) {
  const size_t hash = line.find('#'), slashes = line.find("//");
  line = line.substr(0, std::min(hash, slashes));
  while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.remove_suffix(1);
  return line;
}

bool is_key(std::string_view line, std::string_view key) {
  return starts_with_nocase(line, key) &&
         (line.size() == key.size() || line[key.size()] == '=' || line[key.size()] == ' ' || line[key.size()] == '\t');
}

}  // namespace

PositionFile parse_elc_positions(const std::string &data, const std::string &file) {
  TextScan in(data, file);
  PositionFile out;
  long long count = -1;
  std::vector<std::string> labels;
  std::string_view raw;
  while (in.next_line(raw)) {
    std::string_view line = strip(raw);
    if (line.empty()) continue;
    if (is_key(line, "NumberPositions")) {
      std::string_view rest = line.substr(15);
      if (!rest.empty() && rest[0] == '=') rest.remove_prefix(1);
      if (!scan_long(rest, count) || count < 1 || !only_space(rest)) in.fail_here("NumberPositions needs a count");
      in.check_count(count, 6, "position");
    } else if (is_key(line, "UnitPosition")) {
      std::string_view rest = line.substr(12);
      out.unit = std::string(scan_word(rest));
      if (metres_per_unit(out.unit) == 0) in.fail_here("unknown unit '" + out.unit + "' (m, cm or mm)");
    } else if (is_key(line, "Positions")) {
      // Rows up to the count, or up to the Labels block when no count came.
      while (count < 0 || (long long)out.points.size() < count) {
        if (!in.next_line(raw)) break;
        std::string_view row = strip(raw);
        if (row.empty()) continue;
        if (is_key(row, "Labels")) {
          if (count < 0) count = (long long)out.points.size();
          break;
        }
        LabelledPoint p;
        p.place = in.place();
        const size_t colon = row.find(':');
        if (colon != std::string_view::npos) {
          p.label = std::string(strip(row.substr(0, colon)));
          row.remove_prefix(colon + 1);
        }
        for (double &c : p.p)
          if (!scan_double(row, c) || !std::isfinite(c)) in.fail_here("expected the coordinates x y z");
        if (!only_space(row)) in.fail_here("more than three coordinates on a position row");
        out.points.push_back(p);
      }
      if (count >= 0 && (long long)out.points.size() < count)
        in.fail_here("the Positions block ends after " + std::to_string(out.points.size()) + " of " +
                     std::to_string(count) + " positions");
      if (count < 0) count = (long long)out.points.size();
    } else if (is_key(line, "Labels")) {
      if (count < 0) in.fail_here("a Labels block before the Positions block");
      while ((long long)labels.size() < count && in.next_line(raw)) {
        std::string_view row = strip(raw);
        for (std::string_view w = scan_word(row); !w.empty(); w = scan_word(row)) labels.emplace_back(w);
      }
      if ((long long)labels.size() != count)
        in.fail_here("the Labels block holds " + std::to_string(labels.size()) + " labels for " +
                     std::to_string(count) + " positions");
    }
  }
  if (count < 0 || out.points.empty()) in.fail_here("no Positions block");
  for (size_t i = 0; i < out.points.size(); i++) {
    if (i < labels.size()) out.points[i].label = labels[i];
    if (out.points[i].label.empty()) fail(file, out.points[i].place, "position without a label (no Labels block)");
  }
  return out;
}
