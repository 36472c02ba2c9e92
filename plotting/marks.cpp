#include "plotting/marks.h"

#include <cmath>

void draw_arrow(cairo_t *cr, double x0, double y0, double x1, double y1, double width, double head, Rgb c) {
  double dx = x1 - x0, dy = y1 - y0, len = std::hypot(dx, dy);
  if (!(len > 0)) return;
  double ux = dx / len, uy = dy / len;
  if (head > 0.6 * len) head = 0.6 * len;  // short arrows keep a visible shaft
  cairo_set_source_rgb(cr, c.r, c.g, c.b);
  cairo_set_line_width(cr, width);
  cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
  cairo_move_to(cr, x0, y0);
  cairo_line_to(cr, x1 - ux * head * 0.8, y1 - uy * head * 0.8);
  cairo_stroke(cr);
  cairo_move_to(cr, x1, y1);
  cairo_line_to(cr, x1 - ux * head - uy * head * 0.45, y1 - uy * head + ux * head * 0.45);
  cairo_line_to(cr, x1 - ux * head + uy * head * 0.45, y1 - uy * head - ux * head * 0.45);
  cairo_close_path(cr);
  cairo_fill(cr);
}

void draw_dot(cairo_t *cr, double x, double y, double r, Rgb fill) {
  cairo_new_sub_path(cr);
  cairo_arc(cr, x, y, r, 0, 2 * M_PI);
  cairo_set_source_rgb(cr, fill.r, fill.g, fill.b);
  cairo_fill_preserve(cr);
  cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
  cairo_set_line_width(cr, std::max(1.0, r * 0.25));
  cairo_stroke(cr);
}

void draw_cross(cairo_t *cr, double x, double y, double r, double width, Rgb c) {
  cairo_set_source_rgb(cr, c.r, c.g, c.b);
  cairo_set_line_width(cr, width);
  cairo_set_line_cap(cr, CAIRO_LINE_CAP_BUTT);
  cairo_move_to(cr, x - r, y);
  cairo_line_to(cr, x + r, y);
  cairo_move_to(cr, x, y - r);
  cairo_line_to(cr, x, y + r);
  cairo_stroke(cr);
}
