// Text on the pictures: one sans-serif face everywhere, placed by an anchor
// point and an alignment, and numbers written as short as they can be read.
#pragma once

#include <cairo.h>

#include <string>

// Select the figure's face at `size` pixels (bold when `bold`).
void set_font(cairo_t *cr, double size, bool bold = false);

// Draw `text` so that the point (x, y) lies at the fraction (ax, ay) of its
// box: (0, 0) top left, (0.5, 0.5) centre, (1, 1) bottom right.  The box is
// the font's line height, so labels of one size line up whatever letters
// they hold.  Returns the width drawn.
double draw_text(cairo_t *cr, double x, double y, const std::string &text, double ax = 0, double ay = 0);

// Width of `text` in the current font.
double text_width(cairo_t *cr, const std::string &text);

// `text` shortened with "..." at its start until it fits `width` (file names
// keep their ends, which tell them apart).
std::string fit_text(cairo_t *cr, const std::string &text, double width);

// The two heading lines of every figure at (x, y): the title (what is
// shown) in bold and the subtitle (from which files) below it, each in the
// largest size up to its usual one that fits `width`.
void draw_heading(cairo_t *cr, double x, double y, double width, const std::string &title, const std::string &subtitle);

// `value` with `digits` significant digits, without trailing zeros or a
// needless exponent ("0.25", "-1.5e-06", "120").
std::string format_number(double value, int digits = 3);
