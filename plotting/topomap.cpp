#include "plotting/topomap.h"

#include <algorithm>
#include <cmath>

#include "plotting/colormap.h"
#include "plotting/colour_bar.h"
#include "plotting/contours.h"
#include "plotting/marks.h"
#include "plotting/spherical_spline.h"
#include "plotting/text.h"

namespace {

constexpr double map_radius = 150;  // pixels
constexpr double panel_gap = 70;
constexpr double top_margin = 100;
constexpr double bar_width = 150;

// The interpolated maps of every panel, sampled at the pixels of a square
// around the outline (NaN outside it).
struct Sampled {
  int size;
  std::vector<std::vector<double>> grids;  // one per panel
};

Sampled sample_maps(const Topomap &t, const TopomapLayout &layout) {
  std::vector<Vec3> dirs;
  for (const Vec3 &e : t.electrodes) dirs.push_back(direction_from(layout.sphere.centre, e));
  SphericalSpline spline(dirs);
  std::vector<std::vector<double>> coef;
  for (const TopomapPanel &p : t.panels) coef.push_back(spline.fit(p.values));
  int size = (int)std::ceil(2 * layout.radius_px);
  Sampled s{size, std::vector<std::vector<double>>(t.panels.size(), std::vector<double>((size_t)size * size, NAN))};
  std::vector<double> row(dirs.size());
  double half = size / 2.0, per_px = layout.head_angle / layout.radius_px;
  for (int j = 0; j < size; j++)
    for (int i = 0; i < size; i++) {
      double x = (i + 0.5 - half) * per_px, y = (half - j - 0.5) * per_px;
      if (std::hypot(x, y) > layout.head_angle + 2 * per_px) continue;
      // One row of kernel values serves every panel: they share electrodes.
      spline.kernel_row(unproject_top(x, y), row.data());
      for (size_t p = 0; p < coef.size(); p++) {
        double v = coef[p].back();
        for (size_t k = 0; k < row.size(); k++) v += coef[p][k] * row[k];
        s.grids[p][(size_t)j * size + i] = v;
      }
    }
  return s;
}

// The colour scale's half range: the largest magnitude of every panel's map
// (electrode values and the interpolation between them), so that one scale
// serves all panels, symmetric about zero.
double range_of(const Topomap &t, const Sampled &s) {
  double vmax = 0;
  for (const auto &p : t.panels)
    for (double v : p.values)
      if (std::isfinite(v)) vmax = std::max(vmax, std::fabs(v));
  for (const auto &g : s.grids)
    for (double v : g)
      if (std::isfinite(v)) vmax = std::max(vmax, std::fabs(v));
  return vmax > 0 ? vmax : 1;  // all zero: any scale shows it as neutral
}

void draw_map_image(cairo_t *cr, const std::vector<double> &grid, int size, double vmax, double cx, double cy,
                    double radius) {
  cairo_surface_t *img = cairo_image_surface_create(CAIRO_FORMAT_RGB24, size, size);
  unsigned char *data = cairo_image_surface_get_data(img);
  int stride = cairo_image_surface_get_stride(img);
  for (int j = 0; j < size; j++) {
    uint32_t *px = (uint32_t *)(data + (size_t)j * stride);
    for (int i = 0; i < size; i++) {
      double v = grid[(size_t)j * size + i];
      Rgb c = std::isfinite(v) ? diverging_colour(v / vmax) : Rgb{1, 1, 1};
      px[i] = (uint32_t)std::lround(c.r * 255) << 16 | (uint32_t)std::lround(c.g * 255) << 8 |
              (uint32_t)std::lround(c.b * 255);
    }
  }
  cairo_surface_mark_dirty(img);
  cairo_save(cr);
  cairo_new_path(cr);
  cairo_arc(cr, cx, cy, radius, 0, 2 * M_PI);
  cairo_clip(cr);
  cairo_set_source_surface(cr, img, cx - size / 2.0, cy - size / 2.0);
  cairo_paint(cr);
  cairo_restore(cr);
  cairo_surface_destroy(img);
}

void draw_contours(cairo_t *cr, const std::vector<double> &grid, int size, double vmax, double cx, double cy) {
  double x0 = cx - size / 2.0 + 0.5, y0 = cy - size / 2.0 + 0.5;
  cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
  for (double level : nice_ticks(-vmax, vmax, 10)) {
    if (std::fabs(level) >= vmax) continue;
    // Negative levels dashed, the zero line heavier: readable without colour.
    static const double dash[] = {4, 3};
    cairo_set_dash(cr, dash, level < 0 ? 2 : 0, 0);
    cairo_set_line_width(cr, level == 0 ? 1.6 : 0.9);
    cairo_set_source_rgba(cr, 0.1, 0.1, 0.1, 0.6);
    for (const auto &s : contour_segments(grid, size, size, level)) {
      cairo_move_to(cr, x0 + s[0], y0 + s[1]);
      cairo_line_to(cr, x0 + s[2], y0 + s[3]);
    }
    cairo_stroke(cr);
  }
  cairo_set_dash(cr, nullptr, 0, 0);
}

// Outline, nose and ears around a map of radius r.
void draw_head_outline(cairo_t *cr, double cx, double cy, double r) {
  cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
  cairo_set_line_width(cr, 2.5);
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
  cairo_new_path(cr);
  cairo_arc(cr, cx, cy, r, 0, 2 * M_PI);
  cairo_stroke(cr);
  double a = 0.1;  // half-width of the nose as an angle
  cairo_move_to(cr, cx - r * std::sin(a), cy - r * std::cos(a));
  cairo_line_to(cr, cx, cy - r * 1.1);
  cairo_line_to(cr, cx + r * std::sin(a), cy - r * std::cos(a));
  cairo_stroke(cr);
  for (int side : {-1, 1}) {
    cairo_save(cr);
    cairo_translate(cr, cx + side * r * 1.02, cy);
    cairo_scale(cr, 0.07 * r, 0.2 * r);
    cairo_new_path(cr);
    if (side > 0)
      cairo_arc(cr, 0, 0, 1, -M_PI / 2, M_PI / 2);
    else
      cairo_arc(cr, 0, 0, 1, M_PI / 2, 3 * M_PI / 2);
    cairo_restore(cr);
    cairo_stroke(cr);
  }
}

void draw_dipole(cairo_t *cr, const TopomapDipole &d, std::array<double, 2> at, double length) {
  const Rgb ink{0.05, 0.05, 0.05}, halo{1, 1, 1};
  if (d.moment) {
    const Vec3 &m = *d.moment;
    double len = std::hypot(m[0], m[1], m[2]);
    if (len > 0) {
      // Seen from above: the arrow shows the horizontal part of the moment.
      double ex = at[0] + length * m[0] / len, ey = at[1] - length * m[1] / len;
      draw_arrow(cr, at[0], at[1], ex, ey, 6, 18, halo);
      draw_arrow(cr, at[0], at[1], ex, ey, 3, 15, ink);
      if (std::hypot(m[0], m[1]) < 0.3 * len) {
        // Mostly vertical: a dot for up, a cross for down, in a ring.
        cairo_new_path(cr);
        cairo_arc(cr, at[0], at[1], 10, 0, 2 * M_PI);
        cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill_preserve(cr);
        cairo_set_source_rgb(cr, ink.r, ink.g, ink.b);
        cairo_set_line_width(cr, 2);
        cairo_stroke(cr);
        if (m[2] > 0) {
          cairo_arc(cr, at[0], at[1], 3, 0, 2 * M_PI);
          cairo_fill(cr);
        } else {
          cairo_move_to(cr, at[0] - 6, at[1] - 6);
          cairo_line_to(cr, at[0] + 6, at[1] + 6);
          cairo_move_to(cr, at[0] + 6, at[1] - 6);
          cairo_line_to(cr, at[0] - 6, at[1] + 6);
          cairo_stroke(cr);
        }
      }
    }
  }
  draw_dot(cr, at[0], at[1], 6, {0.95, 0.75, 0.1});
  set_font(cr, 15, true);
  cairo_set_source_rgb(cr, ink.r, ink.g, ink.b);
  draw_text(cr, at[0] + 9, at[1] + 6, d.label, 0, 0);
}

}  // namespace

TopomapLayout topomap_layout(const Topomap &t) {
  TopomapLayout l;
  l.sphere = fit_sphere(t.electrodes, t.scalp);
  double widest = 0;
  for (const Vec3 &e : t.electrodes) {
    auto xy = project_top(direction_from(l.sphere.centre, e));
    widest = std::max(widest, std::hypot(xy[0], xy[1]));
  }
  // The outline is the head's equator, or just outside the lowest
  // electrodes when some lie below it.
  l.head_angle = std::min(std::max(M_PI / 2, widest * 1.08), 0.95 * M_PI);
  l.radius_px = map_radius;
  int n = std::max<int>(1, (int)t.panels.size());
  double panel = 2 * map_radius + panel_gap;
  // A single map keeps room for the title beside it.
  l.width = (int)std::max(40 + n * panel + bar_width, 700.0);
  l.height = (int)(top_margin + 2 * map_radius + 120);
  for (int i = 0; i < n; i++)
    l.centres.push_back({40 + panel_gap / 2 + map_radius + i * panel, top_margin + 50 + map_radius});
  return l;
}

std::array<double, 2> topomap_pixel(const TopomapLayout &layout, int panel, const Vec3 &p) {
  auto xy = project_top(direction_from(layout.sphere.centre, p));
  double s = layout.radius_px / layout.head_angle;
  return {layout.centres[panel][0] + xy[0] * s, layout.centres[panel][1] - xy[1] * s};
}

void draw_topomap(cairo_t *cr, const Topomap &t, const TopomapLayout &layout) {
  Sampled s = sample_maps(t, layout);
  double vmax = range_of(t, s);
  draw_heading(cr, 30, 18, layout.width - 60, t.title, t.subtitle);

  for (size_t p = 0; p < t.panels.size(); p++) {
    double cx = layout.centres[p][0], cy = layout.centres[p][1], r = layout.radius_px;
    draw_map_image(cr, s.grids[p], s.size, vmax, cx, cy, r);
    if (t.show_contours) draw_contours(cr, s.grids[p], s.size, vmax, cx, cy);
    draw_head_outline(cr, cx, cy, r);
    cairo_set_source_rgb(cr, 0, 0, 0);
    set_font(cr, 22, true);
    draw_text(cr, cx, cy - r - 24, t.panels[p].title, 0.5, 1);
    for (size_t e = 0; e < t.electrodes.size(); e++) {
      auto at = topomap_pixel(layout, (int)p, t.electrodes[e]);
      if (t.show_dots) {
        cairo_new_path(cr);
        cairo_arc(cr, at[0], at[1], 2.8, 0, 2 * M_PI);
        cairo_set_source_rgb(cr, 0, 0, 0);
        cairo_fill(cr);
      }
      if (t.show_labels && e < t.labels.size()) {
        set_font(cr, t.electrodes.size() > 40 ? 11 : 13);  // dense caps keep their labels apart
        cairo_set_source_rgb(cr, 0.05, 0.05, 0.05);
        draw_text(cr, at[0], at[1] + 4, t.labels[e], 0.5, 0);
      }
    }
    for (const TopomapDipole &d : t.dipoles) draw_dipole(cr, d, topomap_pixel(layout, (int)p, d.position), 0.4 * r);
  }
  double bottom = layout.centres[0][1] + layout.radius_px + 40;
  if (t.relative_difference) {
    set_font(cr, 19);
    cairo_set_source_rgb(cr, 0, 0, 0);
    draw_text(cr, 40, bottom,
              "relative difference (residual / measured, rms): " + format_number(*t.relative_difference, 3));
  }
  ScaledUnit unit = scale_unit(vmax, t.unit);
  double bx = layout.centres.back()[0] + layout.radius_px + panel_gap / 2 + 30,
         by = layout.centres[0][1] - layout.radius_px + 10;
  draw_colour_bar(
      cr, bx, by, 24, 2 * layout.radius_px - 20, -vmax, vmax, [](double f) { return diverging_colour(2 * f - 1); },
      unit, "potential");
}
