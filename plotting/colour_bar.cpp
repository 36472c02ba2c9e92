#include "plotting/colour_bar.h"

#include <cmath>

#include "plotting/text.h"

std::vector<double> nice_ticks(double lo, double hi, int count) {
  std::vector<double> ticks;
  if (!(hi > lo) || !std::isfinite(lo) || !std::isfinite(hi) || count < 1) return ticks;
  double raw = (hi - lo) / count;
  double power = std::pow(10.0, std::floor(std::log10(raw)));
  double step = power;
  for (double m : {1.0, 2.0, 5.0, 10.0})
    if (m * power >= raw) {
      step = m * power;
      break;
    }
  // Integer multiples of the step, so that zero is exactly zero.
  for (long k = (long)std::ceil(lo / step - 1e-9); k * step <= hi + 1e-9 * step; k++) ticks.push_back(k * step);
  return ticks;
}

ScaledUnit scale_unit(double magnitude, const std::string &unit) {
  static const struct {
    double factor;
    const char *prefix;
  } prefixes[] = {{1e-3, "k"}, {1, ""}, {1e3, "m"}, {1e6, "µ"}, {1e9, "n"}, {1e12, "p"}};
  if (unit != "V" && unit != "A" && unit != "Am" && unit != "A·m" && unit != "m") return {1, unit};
  if (!(magnitude > 0) || !std::isfinite(magnitude)) return {1, unit};
  for (const auto &p : prefixes)
    if (magnitude * p.factor >= 1 && magnitude * p.factor < 1000) return {p.factor, p.prefix + unit};
  return {1, unit};
}

void draw_colour_bar(cairo_t *cr, double x, double y, double w, double h, double lo, double hi,
                     const std::function<Rgb(double)> &colour, const ScaledUnit &unit, const std::string &title) {
  // A gradient of many stops follows the map closely in every output format.
  cairo_pattern_t *grad = cairo_pattern_create_linear(0, y + h, 0, y);
  for (int i = 0; i <= 64; i++) {
    Rgb c = colour(i / 64.0);
    cairo_pattern_add_color_stop_rgb(grad, i / 64.0, c.r, c.g, c.b);
  }
  cairo_rectangle(cr, x, y, w, h);
  cairo_set_source(cr, grad);
  cairo_fill_preserve(cr);
  cairo_pattern_destroy(grad);
  cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
  cairo_set_line_width(cr, 1);
  cairo_stroke(cr);

  set_font(cr, 17);
  for (double t : nice_ticks(lo * unit.factor, hi * unit.factor, 6)) {
    double ty = y + h - (t / unit.factor - lo) / (hi - lo) * h;
    cairo_move_to(cr, x + w, ty);
    cairo_line_to(cr, x + w + 6, ty);
    cairo_stroke(cr);
    draw_text(cr, x + w + 9, ty, format_number(t, 3), 0, 0.5);
  }
  set_font(cr, 18, true);
  std::string head = unit.unit.empty() ? title : title + " (" + unit.unit + ")";
  draw_text(cr, x + w / 2, y - 12, head, 0.5, 1);
}
