// Colour bars and axes: tick values at round numbers, and values brought to
// a readable size with an SI prefix on the unit.
#pragma once

#include <cairo.h>

#include <functional>
#include <string>
#include <vector>

#include "plotting/colormap.h"

// Round values (1, 2 or 5 times a power of ten apart) between lo and hi,
// about `count` of them.
std::vector<double> nice_ticks(double lo, double hi, int count);

// A unit with the prefix that brings `magnitude` to 1..1000 ("V" with 2e-6
// gives factor 1e6 and "µV").  Units other than SI base units ("a.u.", an
// empty unit) keep factor 1.
struct ScaledUnit {
  double factor;
  std::string unit;
};
ScaledUnit scale_unit(double magnitude, const std::string &unit);

// A vertical colour bar in the box (x, y, w, h) for values lo..hi (drawn in
// `unit` after multiplying by `factor`), coloured by `colour` (given the
// value scaled to 0..1), with ticks and labels to its right and `title`
// above it.
void draw_colour_bar(cairo_t *cr, double x, double y, double w, double h, double lo, double hi,
                     const std::function<Rgb(double)> &colour, const ScaledUnit &unit, const std::string &title);
