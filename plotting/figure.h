// Pictures as files: one drawing function renders a figure to PNG, SVG or
// PDF (chosen by the output's suffix), or to an image in memory.
#pragma once

#include <cairo.h>

#include <functional>
#include <string>

// Draws a whole figure on `cr`, whose user space is `width` x `height` units
// (the size given to write_figure or render_image).
using DrawFunction = std::function<void(cairo_t *cr)>;

enum class FigureFormat { png, svg, pdf };

// The format named by the suffix of `path` (".png", ".svg", ".pdf", any
// case).  Throws a usage error for any other name, before anything is read,
// so that a long run does not end in a name the program cannot write.
FigureFormat figure_format(const std::string &path);

// Render `draw` and write it to `path`, complete or not at all.
//   path: output file; its suffix chooses the format.
//   width, height: the size `draw` lays the figure out for, in pixels.
//   scale: the written picture is scale * width by scale * height pixels,
//   everything drawn scaled alike.  SVG and PDF pages get the same layout
//   at 0.6 points per pixel (1200 pixels make a 20-cm page).
// Throws InputError when the file cannot be written or Cairo fails.
void write_figure(const std::string &path, int width, int height, const DrawFunction &draw, double scale = 1);

// Render `draw` into a new opaque RGB image of width x height pixels on a
// white ground, drawn at `scale` (the image being scale times as large).
// The caller owns the surface (cairo_surface_destroy).  Throws InputError
// when Cairo fails.
cairo_surface_t *render_image(int width, int height, const DrawFunction &draw, double scale = 1);
