// Tables of label x y z (.sfp, .txt, .csv, .tsv): one electrode a row, the
// fields separated by commas, semicolons, tabs or blanks.  A first row whose
// coordinates are not numbers is a header; it may put the columns in any
// order (label, name, channel, electrode or site; x, y, z).  Without a header
// a row of five fields is read as number, label, x, y, z.
#include <cctype>
#include <algorithm>
#include <cmath>
#include <optional>

#include "placement/positions.h"
#include "surface/text_scan.h"

namespace {

std::vector<std::string> split(std::string_view line) {
  char sep = 0;
  for (char c : {',', ';', '\t'})
    if (line.find(c) != std::string_view::npos) {
      sep = c;
      break;
    }
  std::vector<std::string> out;
  auto trim = [](std::string_view s) {
    while (!s.empty() && std::isspace((unsigned char)s.front())) s.remove_prefix(1);
    while (!s.empty() && std::isspace((unsigned char)s.back())) s.remove_suffix(1);
    // Quoted fields, as spreadsheets write labels.
    if (s.size() >= 2 && (s.front() == '"' || s.front() == '\'') && s.back() == s.front()) s = s.substr(1, s.size() - 2);
    return std::string(s);
  };
  if (sep) {
    size_t start = 0;
    while (true) {
      size_t end = line.find(sep, start);
      out.push_back(trim(line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start)));
      if (end == std::string_view::npos) break;
      start = end + 1;
    }
  } else {
    for (std::string_view w = scan_word(line); !w.empty(); w = scan_word(line)) out.emplace_back(w);
  }
  return out;
}

std::optional<double> number(const std::string &field) {
  std::string_view s = field;
  double v;
  if (!scan_double(s, v) || !only_space(s)) return std::nullopt;
  return v;
}

}  // namespace

PositionFile parse_table_positions(const std::string &data, const std::string &file) {
  TextScan in(data, file);
  PositionFile out;
  int label = 0, x = 1, y = 2, z = 3;  // column of each; the layout without header
  size_t width = 0;                    // fields a row must have at least
  bool first = true;
  std::string_view line;
  while (in.next_content_line(line)) {
    std::string_view t = line;
    while (!t.empty() && std::isspace((unsigned char)t.front())) t.remove_prefix(1);
    if (t[0] == '#' || t[0] == '%' || t.substr(0, 2) == "//") continue;
    const std::vector<std::string> f = split(line);
    if (first) {
      first = false;
      const bool data_row = (f.size() >= 4 && number(f[1]) && number(f[2]) && number(f[3])) ||
                            (f.size() >= 5 && number(f[2]) && number(f[3]) && number(f[4]));
      if (!data_row) {
        label = x = y = z = -1;
        for (int i = 0; i < (int)f.size(); i++) {
          const std::string h = ascii_lower(f[(size_t)i]);
          if (h == "label" || h == "labels" || h == "name" || h == "channel" || h == "electrode" || h == "site")
            label = i;
          else if (h == "x" || h.rfind("x ", 0) == 0 || h.rfind("x_", 0) == 0 || h.rfind("x(", 0) == 0)
            x = i;
          else if (h == "y" || h.rfind("y ", 0) == 0 || h.rfind("y_", 0) == 0 || h.rfind("y(", 0) == 0)
            y = i;
          else if (h == "z" || h.rfind("z ", 0) == 0 || h.rfind("z_", 0) == 0 || h.rfind("z(", 0) == 0)
            z = i;
        }
        if (label < 0 || x < 0 || y < 0 || z < 0)
          in.fail_here("the header row must name a label column and the columns x, y and z");
        width = (size_t)std::max({label, x, y, z}) + 1;
        continue;
      }
      if (f.size() >= 5 && number(f[0]) && !number(f[1])) label = 1, x = 2, y = 3, z = 4;
      width = (size_t)z + 1;
    }
    if (f.size() < width) in.fail_here("expected a label and the coordinates x y z");
    LabelledPoint p;
    p.place = in.place();
    p.label = f[(size_t)label];
    const int col[3] = {x, y, z};
    for (int k = 0; k < 3; k++) {
      auto v = number(f[(size_t)col[k]]);
      if (!v || !std::isfinite(*v)) in.fail_here("'" + f[(size_t)col[k]] + "' is not a coordinate");
      p.p[(size_t)k] = *v;
    }
    if (p.label.empty()) in.fail_here("a position without a label");
    out.points.push_back(p);
  }
  return out;
}
