#include "plotting/timecourse.h"

#include <algorithm>
#include <cmath>

#include "plotting/colormap.h"
#include "plotting/colour_bar.h"
#include "plotting/text.h"

namespace {

constexpr int width = 1200, panel_h = 270, top = 110, left = 120, right = 170;

Rgb trace_colour(size_t i, size_t n) { return sequential_colour(n <= 1 ? 0.0 : 0.85 * i / (n - 1)); }

struct Range {
  double lo = HUGE_VAL, hi = -HUGE_VAL;
  void take(double v) {
    if (std::isfinite(v)) lo = std::min(lo, v), hi = std::max(hi, v);
  }
  void settle() {
    if (!(hi >= lo)) lo = -1, hi = 1;
    if (hi == lo) lo -= std::max(1.0, std::fabs(lo)) * 0.5, hi += std::max(1.0, std::fabs(hi)) * 0.5;
    double pad = 0.06 * (hi - lo);
    lo -= pad, hi += pad;
  }
};

void draw_panel(cairo_t *cr, const Timecourse &t, const TimecourseDipole &d, double y0, const ScaledUnit &unit) {
  double x0 = left, w = width - left - right, h = panel_h - 70, ytop = y0 + 40;
  Range tr, vr, bands;
  for (double x : t.times) tr.take(x);
  for (const auto &tc : d.traces)
    for (size_t i = 0; i < tc.value.size(); i++) {
      double s = i < tc.sd.size() ? tc.sd[i] : 0;
      vr.take(tc.value[i]);
      bands.take(tc.value[i] - s);
      bands.take(tc.value[i] + s);
    }
  vr.take(0);  // zero always shows: the sign of a moment matters
  // The bands widen the axis, but no more than to twice the values' span
  // on either side: a standard deviation far beyond the moments would
  // otherwise flatten them into a line.  Such bands run off the panel.
  double span = vr.hi - vr.lo;
  if (span > 0) {
    vr.take(std::max(bands.lo, vr.lo - 2 * span));
    vr.take(std::min(bands.hi, vr.hi + 2 * span));
  }
  tr.settle();
  vr.settle();
  auto px = [&](double x) { return x0 + (x - tr.lo) / (tr.hi - tr.lo) * w; };
  auto py = [&](double v) { return ytop + h - (v - vr.lo) / (vr.hi - vr.lo) * h; };

  set_font(cr, 16);
  cairo_set_line_width(cr, 1);
  for (double v : nice_ticks(vr.lo * unit.factor, vr.hi * unit.factor, 5)) {
    double y = py(v / unit.factor);
    cairo_set_source_rgb(cr, v == 0 ? 0.55 : 0.88, v == 0 ? 0.55 : 0.88, v == 0 ? 0.55 : 0.88);
    cairo_move_to(cr, x0, y);
    cairo_line_to(cr, x0 + w, y);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    draw_text(cr, x0 - 8, y, format_number(v, 3), 1, 0.5);
  }
  for (double x : nice_ticks(tr.lo, tr.hi, 8)) {
    cairo_set_source_rgb(cr, 0.88, 0.88, 0.88);
    cairo_move_to(cr, px(x), ytop);
    cairo_line_to(cr, px(x), ytop + h);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    draw_text(cr, px(x), ytop + h + 6, format_number(x, 4), 0.5, 0);
  }
  cairo_save(cr);
  cairo_rectangle(cr, x0, ytop, w, h);
  cairo_clip(cr);
  for (size_t k = 0; k < d.traces.size(); k++) {
    const MomentTrace &tc = d.traces[k];
    Rgb c = trace_colour(k, d.traces.size());
    size_t n = std::min(tc.value.size(), t.times.size());
    if (n == 1) {
      // One sample: a point with an error bar, there being no line to draw.
      double x = px(t.times[0]) + (k - (d.traces.size() - 1) / 2.0) * 18;
      double s = tc.sd.empty() ? 0 : tc.sd[0];
      cairo_set_source_rgb(cr, c.r, c.g, c.b);
      cairo_set_line_width(cr, 2.5);
      cairo_new_path(cr);
      cairo_move_to(cr, x, py(tc.value[0] - s));
      cairo_line_to(cr, x, py(tc.value[0] + s));
      cairo_stroke(cr);
      cairo_new_sub_path(cr);
      cairo_arc(cr, x, py(tc.value[0]), 5, 0, 2 * M_PI);
      cairo_fill(cr);
      continue;
    }
    cairo_new_path(cr);  // text leaves a current point behind
    if (tc.sd.size() >= n) {
      for (size_t i = 0; i < n; i++) cairo_line_to(cr, px(t.times[i]), py(tc.value[i] + tc.sd[i]));
      for (size_t i = n; i-- > 0;) cairo_line_to(cr, px(t.times[i]), py(tc.value[i] - tc.sd[i]));
      cairo_close_path(cr);
      cairo_set_source_rgba(cr, c.r, c.g, c.b, 0.22);
      cairo_fill(cr);
    }
    for (size_t i = 0; i < n; i++) cairo_line_to(cr, px(t.times[i]), py(tc.value[i]));
    cairo_set_source_rgb(cr, c.r, c.g, c.b);
    cairo_set_line_width(cr, 2.2);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_stroke(cr);
  }
  cairo_restore(cr);
  cairo_rectangle(cr, x0, ytop, w, h);
  cairo_set_source_rgb(cr, 0.3, 0.3, 0.3);
  cairo_set_line_width(cr, 1);
  cairo_stroke(cr);
  set_font(cr, 19, true);
  cairo_set_source_rgb(cr, 0, 0, 0);
  draw_text(cr, x0, y0 + 30, d.title, 0, 1);
  // Legend to the right of the panel.
  set_font(cr, 16);
  for (size_t k = 0; k < d.traces.size(); k++) {
    Rgb c = trace_colour(k, d.traces.size());
    double ly = ytop + 12 + 26 * k;
    cairo_set_source_rgb(cr, c.r, c.g, c.b);
    cairo_set_line_width(cr, 3);
    cairo_move_to(cr, x0 + w + 14, ly);
    cairo_line_to(cr, x0 + w + 40, ly);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    draw_text(cr, x0 + w + 46, ly, d.traces[k].name, 0, 0.5);
  }
  cairo_save(cr);
  cairo_translate(cr, 30, ytop + h / 2);
  cairo_rotate(cr, -M_PI / 2);
  draw_text(cr, 0, 0, unit.unit.empty() ? "moment" : "moment (" + unit.unit + ")", 0.5, 0.5);
  cairo_restore(cr);
}

}  // namespace

int timecourse_width() { return width; }

int timecourse_height(const Timecourse &t) { return top + panel_h * (int)std::max<size_t>(1, t.dipoles.size()) + 50; }

void draw_timecourse(cairo_t *cr, const Timecourse &t) {
  draw_heading(cr, 30, 18, width - 60, t.title, t.subtitle);
  double biggest = 0;
  for (const auto &d : t.dipoles)
    for (const auto &tc : d.traces)
      for (double v : tc.value)
        if (std::isfinite(v)) biggest = std::max(biggest, std::fabs(v));
  ScaledUnit unit = scale_unit(biggest, t.unit);
  for (size_t i = 0; i < t.dipoles.size(); i++) draw_panel(cr, t, t.dipoles[i], top + panel_h * (double)i, unit);
  set_font(cr, 17);
  cairo_set_source_rgb(cr, 0, 0, 0);
  draw_text(cr, left + (width - left - right) / 2.0, timecourse_height(t) - 12,
            t.time_unit.empty() ? "sample" : "time (" + t.time_unit + ")", 0.5, 1);
}
