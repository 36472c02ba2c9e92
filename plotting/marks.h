// Small marks drawn over maps and sections: arrows, dots and crosses.
#pragma once

#include <cairo.h>

#include "plotting/colormap.h"

// An arrow from (x0, y0) to (x1, y1) of line width `width`, its head
// `head` pixels long, in colour `c`.  A zero-length arrow draws nothing.
void draw_arrow(cairo_t *cr, double x0, double y0, double x1, double y1, double width, double head, Rgb c);

// A filled dot of radius r with a thin dark rim.
void draw_dot(cairo_t *cr, double x, double y, double r, Rgb fill);

// An upright cross of half-size r and line width `width`.
void draw_cross(cairo_t *cr, double x, double y, double r, double width, Rgb c);
