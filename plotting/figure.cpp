#include "plotting/figure.h"

#include <cairo-pdf.h>
#include <cairo-svg.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "cli/failure.h"
#include "cli/output.h"

namespace {

constexpr double points_per_pixel = 0.6;

cairo_status_t write_to_file(void *closure, const unsigned char *data, unsigned int length) {
  return fwrite(data, 1, length, (FILE *)closure) == length ? CAIRO_STATUS_SUCCESS : CAIRO_STATUS_WRITE_ERROR;
}

// Throw when Cairo recorded an error on the surface (it stops drawing at the
// first one and stays silent otherwise).
void check(cairo_surface_t *surface, const std::string &what) {
  cairo_status_t st = cairo_surface_status(surface);
  if (st != CAIRO_STATUS_SUCCESS) fail(what, "", std::string("cannot draw: ") + cairo_status_to_string(st));
}

// Draw on a fresh context of `surface` after scaling user space by `scale`.
void draw_on(cairo_surface_t *surface, double scale, int width, int height, const DrawFunction &draw,
             const std::string &what) {
  cairo_t *cr = cairo_create(surface);
  cairo_scale(cr, scale, scale);
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_rectangle(cr, 0, 0, width, height);
  cairo_fill(cr);
  try {
    draw(cr);
  } catch (...) {
    cairo_destroy(cr);
    throw;
  }
  cairo_status_t st = cairo_status(cr);
  cairo_destroy(cr);
  if (st != CAIRO_STATUS_SUCCESS) fail(what, "", std::string("cannot draw: ") + cairo_status_to_string(st));
}

}  // namespace

FigureFormat figure_format(const std::string &path) {
  std::string suffix = path.size() >= 4 ? path.substr(path.size() - 4) : "";
  std::transform(suffix.begin(), suffix.end(), suffix.begin(), [](unsigned char c) { return (char)std::tolower(c); });
  if (suffix == ".png") return FigureFormat::png;
  if (suffix == ".svg") return FigureFormat::svg;
  if (suffix == ".pdf") return FigureFormat::pdf;
  usage_fail("output '" + path + "': the name must end in .png, .svg or .pdf");
}

cairo_surface_t *render_image(int width, int height, const DrawFunction &draw, double scale) {
  int w = std::max(1, (int)std::lround(width * scale)), h = std::max(1, (int)std::lround(height * scale));
  cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h);
  try {
    check(surface, "image");
    draw_on(surface, scale, width, height, draw, "image");
  } catch (...) {
    cairo_surface_destroy(surface);
    throw;
  }
  return surface;
}

void write_figure(const std::string &path, int width, int height, const DrawFunction &draw, double scale) {
  FigureFormat format = figure_format(path);
  write_file_atomically(path, [&](FILE *fp) {
    cairo_surface_t *surface = nullptr;
    if (format == FigureFormat::png) {
      surface = render_image(width, height, draw, scale);
      cairo_status_t st = cairo_surface_write_to_png_stream(surface, write_to_file, fp);
      cairo_surface_destroy(surface);
      if (st != CAIRO_STATUS_SUCCESS) fail(path, "", std::string("cannot write: ") + cairo_status_to_string(st));
      return;
    }
    double w = width * scale * points_per_pixel, h = height * scale * points_per_pixel;
    surface = format == FigureFormat::svg ? cairo_svg_surface_create_for_stream(write_to_file, fp, w, h)
                                          : cairo_pdf_surface_create_for_stream(write_to_file, fp, w, h);
    try {
      check(surface, path);
      // The same input makes the same bytes: no creation time in the file.
      if (format == FigureFormat::pdf) cairo_pdf_surface_set_metadata(surface, CAIRO_PDF_METADATA_CREATE_DATE, "");
      draw_on(surface, scale * points_per_pixel, width, height, draw, path);
      cairo_surface_finish(surface);  // the vector formats are written only here
      check(surface, path);
    } catch (...) {
      cairo_surface_destroy(surface);
      throw;
    }
    cairo_surface_destroy(surface);
  });
}
