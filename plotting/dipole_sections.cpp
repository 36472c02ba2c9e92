#include "plotting/dipole_sections.h"

#include <algorithm>
#include <cmath>

#include "plotting/colormap.h"
#include "plotting/marks.h"
#include "plotting/section.h"
#include "plotting/text.h"

namespace {

constexpr double panel_px = 380, gap = 40, top_margin = 110, margin = 30;
const Rgb truth_colour{0.0, 0.55, 0.25};

void stroke_box(cairo_t *cr, double left, double top, double size) {
  cairo_rectangle(cr, left, top, size, size);
  cairo_set_source_rgb(cr, 0.3, 0.3, 0.3);
  cairo_set_line_width(cr, 1);
  cairo_stroke(cr);
}

void trace(cairo_t *cr, const SectionsLayout &l, int panel, const std::vector<Vec3> &line) {
  for (size_t i = 0; i < line.size(); i++) {
    auto p = section_pixel(l, panel, line[i]);
    if (i == 0)
      cairo_move_to(cr, p[0], p[1]);
    else
      cairo_line_to(cr, p[0], p[1]);
  }
}

void draw_dipole(cairo_t *cr, const SectionsLayout &l, int panel, const SectionDipole &d, bool fitted) {
  const SectionPanel &P = l.panels[panel];
  auto at = section_pixel(l, panel, d.position);
  if (d.sd) {
    double ru = (*d.sd)[P.u] * l.scale, rv = (*d.sd)[P.v] * l.scale;
    // An ellipse larger than the panel would only tint all of it; the
    // numbers under the sections tell such a standard deviation.
    if (ru > 0 && rv > 0 && std::max(ru, rv) < P.size) {
      cairo_save(cr);
      cairo_translate(cr, at[0], at[1]);
      cairo_scale(cr, ru, rv);
      cairo_new_path(cr);
      cairo_arc(cr, 0, 0, 1, 0, 2 * M_PI);
      cairo_restore(cr);
      cairo_set_source_rgba(cr, 0.8, 0.1, 0.3, 0.18);
      cairo_fill_preserve(cr);
      cairo_set_source_rgb(cr, 0.8, 0.1, 0.3);
      cairo_set_line_width(cr, 1.5);
      cairo_stroke(cr);
    }
  }
  Rgb colour = fitted ? Rgb{fitted_marker_rgb[0], fitted_marker_rgb[1], fitted_marker_rgb[2]} : truth_colour;
  if (d.moment) {
    const Vec3 &m = *d.moment;
    double len = std::hypot(m[0], m[1], m[2]), arrow = 70;
    if (len > 0)
      draw_arrow(cr, at[0], at[1], at[0] + P.u_sign * m[P.u] / len * arrow, at[1] - m[P.v] / len * arrow, 3, 14,
                 colour);
  }
  if (fitted) {
    cairo_new_path(cr);
    cairo_arc(cr, at[0], at[1], 6, 0, 2 * M_PI);
    cairo_set_source_rgb(cr, colour.r, colour.g, colour.b);
    cairo_fill(cr);
  } else {
    draw_cross(cr, at[0], at[1], 11, 3, colour);
  }
}

void draw_marks(cairo_t *cr, const DipoleSections &s, const SectionsLayout &l, int i) {
  // The true dipoles last: a thin cross on the fitted dot leaves both seen.
  for (const auto &d : s.fitted) draw_dipole(cr, l, i, d, true);
  for (const auto &d : s.truths) draw_dipole(cr, l, i, d, false);
}

void trace_surfaces(cairo_t *cr, const DipoleSections &s, const SectionsLayout &l, int i) {
  const SectionPanel &P = l.panels[i];
  for (size_t k = 0; k < s.surfaces.size(); k++) {
    double rgb[3];
    surface_line_colour(k, s.surfaces.size(), rgb);
    cairo_set_source_rgb(cr, rgb[0], rgb[1], rgb[2]);
    cairo_set_line_width(cr, 2.5);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    for (const auto &line : plane_section(s.surfaces[k], P.normal, s.cut[P.normal])) trace(cr, l, i, line);
    cairo_stroke(cr);
  }
}

// A standard deviation of a few pixels hides under the marker: then a
// magnified view of the dipole's surroundings in the panel's corner shows
// the ellipse at a readable size.
void draw_inset(cairo_t *cr, const DipoleSections &s, const SectionsLayout &l, int i) {
  if (s.focus >= s.fitted.size() || !s.fitted[s.focus].sd) return;
  const SectionDipole &d = s.fitted[s.focus];
  const SectionPanel &P = l.panels[i];
  double big = std::max((*d.sd)[P.u], (*d.sd)[P.v]);
  if (!(big > 0) || big * l.scale >= 15) return;
  SectionsLayout z = l;
  SectionPanel &Z = z.panels[i];
  Z.size = 130;
  Z.left = P.left + P.size - Z.size - 6;
  Z.top = P.top + P.size - Z.size - 6;
  Z.middle = d.position;
  z.scale = 35 / big;  // the larger semi-axis: 35 pixels
  cairo_save(cr);
  cairo_rectangle(cr, Z.left, Z.top, Z.size, Z.size);
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_fill_preserve(cr);
  cairo_save(cr);
  cairo_clip_preserve(cr);
  cairo_new_path(cr);
  trace_surfaces(cr, s, z, i);
  draw_marks(cr, s, z, i);
  cairo_restore(cr);
  stroke_box(cr, Z.left, Z.top, Z.size);
  set_font(cr, 14);
  draw_text(cr, Z.left + 4, Z.top + 2, "×" + format_number(z.scale / l.scale, 2), 0, 0);
  cairo_restore(cr);
}

void draw_panel(cairo_t *cr, const DipoleSections &s, const SectionsLayout &l, int i) {
  const SectionPanel &P = l.panels[i];
  cairo_save(cr);
  cairo_rectangle(cr, P.left, P.top, P.size, P.size);
  cairo_set_source_rgb(cr, 0.97, 0.97, 0.97);
  cairo_fill_preserve(cr);
  cairo_clip(cr);
  // Where the other two sections cut this one.
  auto c = section_pixel(l, i, s.cut);
  static const double dash[] = {5, 4};
  cairo_set_dash(cr, dash, 2, 0);
  cairo_set_source_rgb(cr, 0.6, 0.6, 0.6);
  cairo_set_line_width(cr, 1);
  cairo_move_to(cr, P.left, c[1]);
  cairo_line_to(cr, P.left + P.size, c[1]);
  cairo_move_to(cr, c[0], P.top);
  cairo_line_to(cr, c[0], P.top + P.size);
  cairo_stroke(cr);
  cairo_set_dash(cr, nullptr, 0, 0);
  trace_surfaces(cr, s, l, i);
  draw_marks(cr, s, l, i);
  // Orientation words in the corners, where a head's outline seldom is.
  static const char *words[3][2] = {{"left", "right"}, {"back", "front"}, {"down", "up"}};
  cairo_set_source_rgb(cr, 0.35, 0.35, 0.35);
  set_font(cr, 15);
  draw_text(cr, P.left + 6, P.top + 4, "↑ " + std::string(words[P.v][1]), 0, 0);
  draw_text(cr, P.left + 6, P.top + P.size - 4, "← " + std::string(words[P.u][P.u_sign < 0 ? 1 : 0]), 0, 1);
  draw_text(cr, P.left + P.size - 6, P.top + 4, std::string(words[P.u][P.u_sign < 0 ? 0 : 1]) + " →", 1, 0);
  draw_inset(cr, s, l, i);
  cairo_restore(cr);
  stroke_box(cr, P.left, P.top, P.size);
  cairo_set_source_rgb(cr, 0, 0, 0);
  set_font(cr, 20, true);
  static const char axis_name[] = "xyz";
  draw_text(cr, P.left + P.size / 2, P.top - 8,
            std::string(P.name) + "  " + axis_name[P.normal] + " = " + format_number(s.cut[P.normal], 4), 0.5, 1);
}

}  // namespace

void surface_line_colour(size_t i, size_t n, double rgb[3]) {
  Rgb c = sequential_colour(n <= 1 ? 0.0 : 0.8 * i / (n - 1));
  rgb[0] = c.r;
  rgb[1] = c.g;
  rgb[2] = c.b;
}

SectionsLayout sections_layout(const DipoleSections &s) {
  Vec3 lo{HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi{-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  auto grow = [&](const Vec3 &p) {
    for (int k = 0; k < 3; k++) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  };
  for (const Mesh &m : s.surfaces)
    for (const Vec3 &p : m.vertices) grow(p);
  for (const auto &d : s.fitted) grow(d.position);
  for (const auto &d : s.truths) grow(d.position);
  grow(s.cut);
  double extent = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
  if (!(extent > 0) || !std::isfinite(extent)) extent = 1;
  SectionsLayout l;
  l.scale = panel_px / (1.12 * extent);
  Vec3 mid{(lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2};
  l.panels = {SectionPanel{"axial", 2, 0, 1, 1, 0, 0, panel_px, mid},
              SectionPanel{"coronal", 1, 0, 2, 1, 0, 0, panel_px, mid},
              SectionPanel{"sagittal", 0, 1, 2, 1, 0, 0, panel_px, mid}};
  for (int i = 0; i < 3; i++) {
    l.panels[i].left = margin + i * (panel_px + gap);
    l.panels[i].top = top_margin + 40;
  }
  l.width = (int)(2 * margin + 3 * panel_px + 2 * gap);
  l.height = (int)(top_margin + 40 + panel_px + 60 + 26 * (s.notes.size() + 1));
  return l;
}

std::array<double, 2> section_pixel(const SectionsLayout &l, int panel, const Vec3 &p) {
  const SectionPanel &P = l.panels[panel];
  return {P.left + P.size / 2 + P.u_sign * (p[P.u] - P.middle[P.u]) * l.scale,
          P.top + P.size / 2 - (p[P.v] - P.middle[P.v]) * l.scale};
}

void draw_sections(cairo_t *cr, const DipoleSections &s, const SectionsLayout &l) {
  draw_heading(cr, margin, 18, l.width - 2 * margin, s.title, s.subtitle);
  for (int i = 0; i < 3; i++) draw_panel(cr, s, l, i);

  // Legend: surfaces, then the marks.
  double y = l.panels[0].top + l.panels[0].size + 16, x = margin;
  set_font(cr, 17);
  for (size_t k = 0; k < s.surfaces.size(); k++) {
    double rgb[3];
    surface_line_colour(k, s.surfaces.size(), rgb);
    cairo_set_source_rgb(cr, rgb[0], rgb[1], rgb[2]);
    cairo_set_line_width(cr, 3);
    cairo_move_to(cr, x, y + 11);
    cairo_line_to(cr, x + 26, y + 11);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    x += 32 + draw_text(cr, x + 32, y, k < s.names.size() ? s.names[k] : "surface") + 22;
  }
  if (!s.fitted.empty()) {
    cairo_new_path(cr);
    cairo_arc(cr, x + 8, y + 11, 6, 0, 2 * M_PI);
    cairo_set_source_rgb(cr, fitted_marker_rgb[0], fitted_marker_rgb[1], fitted_marker_rgb[2]);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    x += 22 + draw_text(cr, x + 22, y, "fitted (ellipse: 1 SD)") + 22;
  }
  if (!s.truths.empty()) {
    draw_cross(cr, x + 10, y + 11, 10, 3, truth_colour);
    cairo_set_source_rgb(cr, 0, 0, 0);
    draw_text(cr, x + 26, y, "true");
  }
  y += 34;
  for (const std::string &n : s.notes) {
    draw_text(cr, margin, y, fit_text(cr, n, l.width - 2 * margin));
    y += 26;
  }
}
