#include "plotting/position_file.h"

#include <cmath>
#include <cstring>

#include "cli/failure.h"
#include "surface/file_bytes.h"
#include "surface/text_scan.h"

namespace {

// Constraint tokens are separated as brelix separates them.
std::vector<std::string> tokens(std::string_view line) {
  std::vector<std::string> out;
  std::string cur;
  for (char ch : line) {
    if (strchr(" =:\t\r\n", ch)) {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
    } else {
      cur += ch;
    }
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

void read_constraint(const TextScan &scan, std::string_view line, std::vector<SourcePosition> &sources) {
  auto t = tokens(line);
  if (t.empty()) return;
  char *end = nullptr;
  long n = strtol(t[0].c_str(), &end, 10);
  if (end == t[0].c_str()) scan.fail_here("a constraint line must begin with a source number");
  if (n < 1 || n > (long)sources.size())
    scan.fail_here("constraint of source " + t[0] + ", but the file defines " + std::to_string(sources.size()));
  SourcePosition &s = sources[n - 1];
  for (size_t i = 1; i < t.size(); i++) {
    char kind = t[i][0];
    std::string value = i + 1 < t.size() ? t[i + 1].substr(0, 2) : "";
    if (kind == 's') {  // "symmetric [to] m": position and orientation
      size_t k = i + 1 < t.size() && t[i + 1] == "to" ? i + 2 : i + 1;
      if (k < t.size()) s.orientation_partner = atoi(t[k].c_str()) - 1;
      i = k;
    } else if (kind == 'p' || kind == 'o') {
      i++;
      if (kind == 'p' && value == "mo") s.moving = true;
      if (kind == 'p' && (value == "fi" || value == "st")) s.moving = false;
      if (kind == 'o' && value == "st") s.orientation_stationary = true;
      if (kind == 'o' && value == "fr") s.orientation_stationary = false;
      if (value == "sy") {
        size_t k = i + 1 < t.size() && t[i + 1] == "to" ? i + 2 : i + 1;
        if (kind == 'o' && k < t.size()) s.orientation_partner = atoi(t[k].c_str()) - 1;
        i = k;
      }
    } else {
      scan.fail_here("unknown constraint '" + t[i] + "'");
    }
  }
}

}  // namespace

std::vector<SourcePosition> read_position_file(const std::string &path, bool constraints) {
  std::string data = read_file_bytes(path);
  TextScan scan(data, path);
  std::string_view line;
  long long count;
  if (!scan.next_line(line)) fail(path, "line 1", "empty file");
  if (!scan_long(line, count) || count < 1) scan.fail_here("the first line must give the number of sources");
  // A source line has at least eight bytes ("1 0 0 0" and a line end).
  if ((unsigned long long)count > scan.remaining() / 8 + 1)
    scan.fail_here(std::to_string(count) + " sources announced, more than the file can hold");
  std::vector<SourcePosition> sources((size_t)count);
  for (auto &s : sources) {
    if (!scan.next_line(line))
      fail(path, "line " + std::to_string(scan.line_number() + 1),
           "the file ends before source " + std::to_string(&s - sources.data() + 1));
    long long number;
    double v[5];
    if (!scan_long(line, number) || !scan_double(line, v[0]) || !scan_double(line, v[1]) || !scan_double(line, v[2]))
      scan.fail_here("a source line must hold its number and x, y, z");
    int extra = 0;
    while (extra < 2 && scan_double(line, v[3 + extra])) extra++;
    for (int k = 0; k < 3 + extra; k++)
      if (!std::isfinite(v[k])) scan.fail_here("a number is not finite");
    s.position = {v[0], v[1], v[2]};
    if (extra == 2) s.angles = std::array<double, 2>{v[3], v[4]};
  }
  if (constraints)
    while (scan.next_line(line))
      if (!line.empty() && line[0] != '#') read_constraint(scan, line, sources);
  return sources;
}

std::vector<int> moment_rows(const std::vector<SourcePosition> &sources) {
  std::vector<int> rows;
  for (const auto &s : sources) {
    bool mirrored = s.orientation_partner >= 0 && s.orientation_partner < (int)sources.size();
    // A mirrored orientation has as many rows as its partner's own.
    bool one_direction = mirrored ? sources[s.orientation_partner].orientation_stationary : s.orientation_stationary;
    rows.push_back(one_direction ? 1 : 3);
  }
  return rows;
}

Vec3 direction_of_angles(const std::array<double, 2> &angles) {
  double th = angles[0] * M_PI / 180, al = angles[1] * M_PI / 180;
  return {std::sin(th) * std::cos(al), std::sin(th) * std::sin(al), std::cos(th)};
}
