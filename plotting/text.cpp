#include "plotting/text.h"

#include <cmath>
#include <cstdio>

void set_font(cairo_t *cr, double size, bool bold) {
  cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                         bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, size);
}

double text_width(cairo_t *cr, const std::string &text) {
  cairo_text_extents_t te;
  cairo_text_extents(cr, text.c_str(), &te);
  return te.x_advance;
}

double draw_text(cairo_t *cr, double x, double y, const std::string &text, double ax, double ay) {
  cairo_font_extents_t fe;
  cairo_font_extents(cr, &fe);
  double w = text_width(cr, text);
  double h = fe.ascent + fe.descent;
  cairo_move_to(cr, x - ax * w, y - ay * h + fe.ascent);
  cairo_show_text(cr, text.c_str());
  return w;
}

std::string fit_text(cairo_t *cr, const std::string &text, double width) {
  if (text_width(cr, text) <= width) return text;
  // Drop whole UTF-8 characters from the front until it fits.
  for (size_t cut = 1; cut < text.size(); cut++) {
    if (((unsigned char)text[cut] & 0xC0) == 0x80) continue;
    std::string shorter = "..." + text.substr(cut);
    if (text_width(cr, shorter) <= width) return shorter;
  }
  return "...";
}

namespace {

// Largest font size from `size` down to `smallest` at which `text` fits
// `width`; the text is shortened at its start when even that is too wide.
std::string fit_line(cairo_t *cr, const std::string &text, double width, double size, double smallest, bool bold) {
  for (; size > smallest; size -= 1) {
    set_font(cr, size, bold);
    if (text_width(cr, text) <= width) return text;
  }
  set_font(cr, smallest, bold);
  return fit_text(cr, text, width);
}

}  // namespace

void draw_heading(cairo_t *cr, double x, double y, double width, const std::string &title,
                  const std::string &subtitle) {
  cairo_set_source_rgb(cr, 0, 0, 0);
  draw_text(cr, x, y, fit_line(cr, title, width, 26, 15, true));
  cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
  draw_text(cr, x, y + 38, fit_line(cr, subtitle, width, 17, 12, false));
}

std::string format_number(double value, int digits) {
  if (value == 0) return "0";
  char buf[64];
  double mag = std::fabs(value);
  if (mag >= 1e-3 && mag < 1e5) {
    int decimals = digits - 1 - (int)std::floor(std::log10(mag));
    if (decimals < 0) decimals = 0;
    snprintf(buf, sizeof buf, "%.*f", decimals, value);
    std::string s = buf;
    if (s.find('.') != std::string::npos) {
      while (s.back() == '0') s.pop_back();
      if (s.back() == '.') s.pop_back();
    }
    return s == "-0" ? "0" : s;
  }
  snprintf(buf, sizeof buf, "%.*g", digits, value);
  return buf;
}
