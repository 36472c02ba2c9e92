#include "placement/electrode_file.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "cli/failure.h"
#include "cli/output.h"
#include "surface/file_bytes.h"
#include "surface/text_scan.h"

namespace {

// brelix reads each line into 160 bytes: a longer line would be split into
// two records there, so it is refused here rather than read differently.
constexpr size_t MAX_LINE = 158;

// The next line of `in`, checked for length; false at the end of the file.
bool next_line(TextScan &in, std::string_view &line) {
  if (!in.next_line(line)) return false;
  if (line.size() > MAX_LINE) in.fail_here("line longer than 158 characters");
  return true;
}

// The next integer as "%d" reads it; false when there is none or it does not
// fit an int.
bool scan_int(std::string_view &s, int &out) {
  long long x;
  if (!scan_long(s, x) || x < INT_MIN || x > INT_MAX) return false;
  out = (int)x;
  return true;
}

// The next number as "%f" reads it, rounded to the float brelix keeps.
bool scan_float(std::string_view &s, float &out) {
  double x;
  if (!scan_double(s, x)) return false;
  out = (float)x;
  return true;
}

// The label brelix keeps from a triangle line: up to 10 characters after the
// first '!', here without surrounding blanks.  Empty when there is none.
std::string label_of(std::string_view line) {
  size_t mark = line.find('!');
  if (mark == std::string::npos) return "";
  std::string label(line.substr(mark + 1, MAX_LABEL_LENGTH));
  size_t first = label.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  size_t last = label.find_last_not_of(" \t");
  return label.substr(first, last - first + 1);
}

}  // namespace

std::string default_label(size_t n) { return "E" + std::to_string(n); }

std::vector<ElectrodeEntry> read_electrode_file(const std::string &path) {
  const std::string data = read_file_bytes(path);
  TextScan in(data, path);
  std::string_view line, s;
  int count = 0;
  if (!next_line(in, line)) fail(path, "line 1", "empty file: the number of electrodes is missing");
  s = line;
  if (!scan_int(s, count)) in.fail_here("the number of electrodes is missing");
  if (count < 1) in.fail_here("the number of electrodes must be at least 1, not " + std::to_string(count));

  std::vector<ElectrodeEntry> out;
  bool triangles = false;
  for (int e = 1; e <= count; e++) {
    if (!next_line(in, line))
      fail(path, "line " + std::to_string(e + 1),
           "the file ends after " + std::to_string(e - 1) + " of its " + std::to_string(count) + " electrodes");
    s = line;
    if (e == 1) {
      // The first electrode line decides the form of all, as in brelix.
      float x;
      std::string_view probe = s;
      triangles = scan_float(probe, x) && scan_float(probe, x) && scan_float(probe, x);
    }
    ElectrodeEntry entry;
    int number;
    if (triangles) {
      float u, v;
      if (!scan_int(s, number) || !scan_float(s, u) || !scan_float(s, v))
        in.fail_here("expected a triangle number and the local coordinates u and v");
      if (!std::isfinite(u) || !std::isfinite(v)) in.fail_here("u and v must be finite numbers");
      if (number < 1) in.fail_here("triangle numbers count from 1, not " + std::to_string(number));
      entry.u = u;
      entry.v = v;
      entry.label = label_of(line);
    } else {
      int running;
      if (!scan_int(s, running) || !scan_int(s, number))
        in.fail_here("expected a running number and a vertex number");
      if (number < 1) in.fail_here("vertex numbers count from 1, not " + std::to_string(number));
    }
    entry.on_vertex = !triangles;
    entry.index = number - 1;
    entry.has_label = !entry.label.empty();
    if (!entry.has_label) entry.label = default_label((size_t)e);
    out.push_back(entry);
  }
  return out;
}

Vec3 electrode_position(const ElectrodeEntry &entry, const Mesh &scalp) {
  auto refuse = [&](const std::string &what) { throw InputError("electrode " + entry.label + ": " + what); };
  const long nv = (long)scalp.vertices.size();
  if (entry.on_vertex) {
    if (entry.index < 0 || entry.index >= nv)
      refuse("vertex " + std::to_string((long)entry.index + 1) + " is not on the scalp (" + std::to_string(nv) +
             " vertices)");
    return scalp.vertices[(size_t)entry.index];
  }
  const long nt = (long)scalp.triangles.size();
  if (entry.index < 0 || entry.index >= nt)
    refuse("triangle " + std::to_string((long)entry.index + 1) + " is not on the scalp (" + std::to_string(nt) +
           " triangles)");
  const Tri &t = scalp.triangles[(size_t)entry.index];
  for (int k = 0; k < 3; k++)
    if (t[k] < 0 || t[k] >= nv)
      refuse("triangle " + std::to_string(entry.index + 1) + " names vertex " + std::to_string((long)t[k] + 1) +
             ", which the scalp does not have");
  const Vec3 &a = scalp.vertices[(size_t)t[0]], &b = scalp.vertices[(size_t)t[1]], &c = scalp.vertices[(size_t)t[2]];
  const double w = 1 - entry.u - entry.v;
  Vec3 p;
  for (int k = 0; k < 3; k++) p[k] = w * a[k] + entry.u * b[k] + entry.v * c[k];
  return p;
}

void write_electrodes(FILE *fp, const std::vector<ElectrodeEntry> &entries) {
  if (entries.empty()) throw std::invalid_argument("an electrode file needs at least one electrode");
  const bool vertices = entries.front().on_vertex;
  for (const auto &e : entries) {
    if (e.on_vertex != vertices) throw std::invalid_argument("vertex and triangle electrodes cannot share a file");
    if (e.has_label && (e.label.size() > MAX_LABEL_LENGTH || e.label.find_first_of("\r\n") != std::string::npos))
      throw std::invalid_argument("label '" + e.label + "' does not fit brelix's 10 characters on one line");
  }
  fprintf(fp, "%zu\n", entries.size());
  for (size_t i = 0; i < entries.size(); i++) {
    const auto &e = entries[i];
    if (vertices) {
      fprintf(fp, "%zu %ld\n", i + 1, (long)e.index + 1);
      continue;
    }
    // Nine significant digits bring back the very float brelix reads.
    fprintf(fp, "%ld %.9g %.9g", (long)e.index + 1, e.u, e.v);
    if (e.has_label) fprintf(fp, " !%s", e.label.c_str());
    fputc('\n', fp);
  }
}

void write_electrode_file(const std::string &path, const std::vector<ElectrodeEntry> &entries) {
  write_file_atomically(path, [&](FILE *fp) { write_electrodes(fp, entries); });
}
