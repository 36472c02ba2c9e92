#include "placement/positions.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "cli/failure.h"
#include "surface/file_bytes.h"

namespace {

std::string suffix_of(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return ascii_lower(path.substr(dot + 1));
}

}  // namespace

std::string ascii_lower(std::string s) {
  for (char &c : s) c = (char)std::tolower((unsigned char)c);
  return s;
}

Vec3 from_theta_phi(double theta, double phi, double r) {
  const double t = theta * M_PI / 180, f = phi * M_PI / 180;
  return {r * std::sin(t) * std::cos(f), r * std::sin(t) * std::sin(f), r * std::cos(t)};
}

double metres_per_unit(const std::string &unit) {
  const std::string u = ascii_lower(unit);
  if (u == "m" || u == "meter" || u == "meters" || u == "metre" || u == "metres") return 1;
  if (u == "cm" || u == "centimeter" || u == "centimeters" || u == "centimetre" || u == "centimetres") return 0.01;
  if (u == "mm" || u == "millimeter" || u == "millimeters" || u == "millimetre" || u == "millimetres") return 0.001;
  return 0;
}

PositionFile read_position_file(const std::string &path) {
  const std::string data = read_file_bytes(path);
  const std::string suffix = suffix_of(path);
  PositionFile out;
  if (suffix == "elc")
    out = parse_elc_positions(data, path);
  else if (suffix == "elp")
    out = parse_elp_positions(data, path);
  else if (suffix == "bvef")
    out = parse_bvef_positions(data, path);
  else if (suffix == "loc" || suffix == "locs")
    out = parse_loc_positions(data, path);
  else if (suffix == "sfp" || suffix == "txt" || suffix == "csv" || suffix == "tsv" || suffix == "dat")
    out = parse_table_positions(data, path);
  else {
    // Anything else must look like a table from its first rows on.
    try {
      out = parse_table_positions(data, path);
    } catch (const InputError &) {
      fail(path, "", "unknown position format: not .elc .sfp .txt .csv .tsv .elp .bvef .loc .locs, nor rows of "
                     "label x y z");
    }
  }
  if (out.points.empty()) fail(path, "", "no electrode positions in the file");
  return out;
}
