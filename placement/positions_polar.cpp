// Polar layouts (.loc, .locs): rows "number angle radius label", the angle
// in degrees from the nose (right ear +90), the radius the arc from the
// vertex as a fraction of 180 degrees (0.5 on the equator).  Directions only:
// the points lie on the unit sphere.
#include <cmath>

#include "placement/positions.h"
#include "surface/text_scan.h"

PositionFile parse_loc_positions(const std::string &data, const std::string &file) {
  TextScan in(data, file);
  PositionFile out;
  out.unit_sphere = true;
  std::string_view line;
  while (in.next_content_line(line, '#')) {
    std::string_view s = line;
    double number, angle, radius;
    if (!scan_double(s, number) || !scan_double(s, angle) || !scan_double(s, radius))
      in.fail_here("expected number, angle, radius and label");
    const std::string_view label = scan_word(s);
    if (label.empty() || !only_space(s)) in.fail_here("expected number, angle, radius and label");
    if (!std::isfinite(angle) || !std::isfinite(radius)) in.fail_here("angle and radius must be finite numbers");
    const double a = angle * M_PI / 180, polar = radius * M_PI;
    out.points.push_back({std::string(label),
                          {std::sin(a) * std::sin(polar), std::cos(a) * std::sin(polar), std::cos(polar)},
                          in.place()});
  }
  return out;
}
