#include "plotting/head_view.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "plotting/colormap.h"
#include "plotting/colour_bar.h"
#include "plotting/text.h"

namespace {

constexpr double top_margin = 100, bar_width = 150;

double dot(const Vec3 &a, const Vec3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
Vec3 sub(const Vec3 &a, const Vec3 &b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec3 cross(const Vec3 &a, const Vec3 &b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

// Outward face normals (not normalised, area-weighted) and unit vertex
// normals.  The winding is taken from the mesh's signed volume, so either
// orientation convention gives outward normals.
struct Normals {
  std::vector<Vec3> face, vertex;
};

Normals normals_of(const Mesh &m) {
  Normals n;
  double volume = 0;
  for (const Tri &t : m.triangles) {
    const Vec3 &a = m.vertices[t[0]], &b = m.vertices[t[1]], &c = m.vertices[t[2]];
    n.face.push_back(cross(sub(b, a), sub(c, a)));
    volume += dot(a, cross(b, c));
  }
  double sign = volume < 0 ? -1 : 1;
  n.vertex.assign(m.vertices.size(), Vec3{0, 0, 0});
  for (size_t i = 0; i < m.triangles.size(); i++) {
    for (double &x : n.face[i]) x *= sign;
    for (int k = 0; k < 3; k++)
      for (int j = 0; j < 3; j++) n.vertex[m.triangles[i][k]][j] += n.face[i][j];
  }
  for (Vec3 &v : n.vertex) {
    double len = std::sqrt(dot(v, v));
    if (len > 0)
      for (double &x : v) x /= len;
  }
  return n;
}

// Base colours, outermost first: skin, bone, brain.
Rgb base_colour(size_t k, size_t n) {
  static const Rgb inner{0.86, 0.62, 0.62}, bone{0.93, 0.9, 0.8}, skin{0.96, 0.8, 0.66};
  if (k + 1 == n) return n == 1 ? skin : inner;
  return k == 0 ? skin : bone;
}

// One surface as a Gouraud-shaded layer: the triangles facing the viewer,
// farthest first, as patches of one mesh pattern (later patches cover
// earlier ones, so the order does the hiding, and no seams show between
// neighbours).
//   opaque: false for an outer surface, drawn like glass: nearly clear where
//   it faces the viewer, denser towards its outline, so that its shape shows
//   without hiding what lies within.
void paint_surface(cairo_t *cr, const Mesh &m, const Normals &n, const HeadLayout &l, int cell,
                   const std::vector<Rgb> &colour, bool opaque) {
  const Camera &cam = l.cells[cell].camera;
  std::vector<int> order;
  std::vector<double> depth(m.triangles.size());
  for (size_t i = 0; i < m.triangles.size(); i++) {
    if (dot(n.face[i], cam.eye) <= 0) continue;
    const Tri &t = m.triangles[i];
    depth[i] = dot(m.vertices[t[0]], cam.eye) + dot(m.vertices[t[1]], cam.eye) + dot(m.vertices[t[2]], cam.eye);
    order.push_back((int)i);
  }
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return depth[a] < depth[b]; });
  cairo_pattern_t *mesh = cairo_pattern_create_mesh();
  for (int i : order) {
    const Tri &t = m.triangles[i];
    cairo_mesh_pattern_begin_patch(mesh);
    for (int k = 0; k < 3; k++) {
      auto p = head_pixel(l, cell, m.vertices[t[k]]);
      if (k == 0)
        cairo_mesh_pattern_move_to(mesh, p[0], p[1]);
      else
        cairo_mesh_pattern_line_to(mesh, p[0], p[1]);
    }
    for (int k = 0; k < 3; k++) {
      // Light from the viewer: a head lamp shows the shape without hiding
      // any side in shadow.
      double lambert = std::max(0.0, dot(n.vertex[t[k]], cam.eye));
      double shade = 0.45 + 0.55 * lambert;
      const Rgb &c = colour[t[k]];
      double rim = 1 - lambert;
      double alpha = opaque ? 1.0 : 0.12 + 0.7 * rim * rim;
      cairo_mesh_pattern_set_corner_color_rgba(mesh, k, c.r * shade, c.g * shade, c.b * shade, alpha);
    }
    cairo_mesh_pattern_end_patch(mesh);
  }
  cairo_set_source(cr, mesh);
  cairo_paint(cr);
  cairo_pattern_destroy(mesh);
}

void draw_cell(cairo_t *cr, const HeadPicture &h, const HeadLayout &l, int cell, const std::vector<Normals> &normals,
               double vmax) {
  size_t n = h.surfaces.size();
  // With a coloured scalp the scalp is opaque: the inner surfaces would only
  // be painted over.
  size_t innermost = h.scalp_potential ? 0 : n - 1;
  for (size_t k = innermost + 1; k-- > 0;) {
    const Mesh &m = h.surfaces[k];
    std::vector<Rgb> colour(m.vertices.size(), base_colour(k, n));
    if (k == 0 && h.scalp_potential)
      for (size_t v = 0; v < colour.size(); v++) colour[v] = diverging_colour((*h.scalp_potential)[v] / vmax);
    paint_surface(cr, m, normals[k], l, cell, colour, k == innermost);
  }
  // Electrodes on the side facing the viewer, judged by the scalp normal at
  // the nearest vertex.
  const Mesh &scalp = h.surfaces[0];
  const Camera &cam = l.cells[cell].camera;
  for (size_t e = 0; e < h.electrodes.size(); e++) {
    const Vec3 &p = h.electrodes[e];
    size_t near = 0;
    double best = HUGE_VAL;
    for (size_t v = 0; v < scalp.vertices.size(); v++) {
      Vec3 d = sub(scalp.vertices[v], p);
      if (dot(d, d) < best) best = dot(d, d), near = v;
    }
    if (dot(normals[0].vertex[near], cam.eye) < 0.05) continue;
    auto at = head_pixel(l, cell, p);
    cairo_new_path(cr);
    cairo_arc(cr, at[0], at[1], 4.5, 0, 2 * M_PI);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_fill_preserve(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_set_line_width(cr, 1.2);
    cairo_stroke(cr);
    if (h.show_labels && e < h.labels.size()) {
      set_font(cr, 14, true);
      // A light halo keeps labels readable on any colour.
      cairo_set_source_rgba(cr, 1, 1, 1, 0.75);
      double w = text_width(cr, h.labels[e]);
      cairo_rectangle(cr, at[0] - w / 2 - 2, at[1] + 5, w + 4, 17);
      cairo_fill(cr);
      cairo_set_source_rgb(cr, 0, 0, 0);
      draw_text(cr, at[0], at[1] + 5, h.labels[e], 0.5, 0);
    }
  }
  set_font(cr, 20, true);
  cairo_set_source_rgb(cr, 0, 0, 0);
  const auto &c = l.cells[cell];
  double half = l.cells.size() == 1 ? (l.height - top_margin) / 2 : (l.height - top_margin) / 4;
  draw_text(cr, c.cx, c.cy - half + 4, c.view, 0.5, 0);
}

}  // namespace

bool camera_of(const std::string &view, Camera &camera) {
  static const struct {
    const char *name;
    Vec3 eye, up;
  } views[] = {{"front", {0, 1, 0}, {0, 0, 1}},
               {"back", {0, -1, 0}, {0, 0, 1}},
               {"left", {-1, 0, 0}, {0, 0, 1}},
               {"right", {1, 0, 0}, {0, 0, 1}},
               {"top", {0, 0, 1}, {0, 1, 0}}};
  for (const auto &v : views)
    if (view == v.name) {
      camera = {v.eye, cross(v.up, v.eye), v.up};
      return true;
    }
  return false;
}

HeadLayout head_layout(const HeadPicture &h) {
  HeadLayout l;
  Vec3 lo{HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi{-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  for (const Mesh &m : h.surfaces)
    for (const Vec3 &p : m.vertices)
      for (int k = 0; k < 3; k++) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
  l.centre = {(lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2};
  double radius = 0;
  for (const Mesh &m : h.surfaces)
    for (const Vec3 &p : m.vertices) radius = std::max(radius, std::sqrt(dot(sub(p, l.centre), sub(p, l.centre))));
  if (!(radius > 0)) radius = 1;
  bool sheet = h.views.size() > 1;
  double cell = sheet ? 540 : 760;
  double bar = h.scalp_potential ? bar_width : 0;
  l.width = (int)((sheet ? 2 : 1) * cell + 40 + bar);
  l.height = (int)(top_margin + (sheet ? 2 : 1) * cell);
  l.scale = 0.42 * cell / radius;
  for (size_t i = 0; i < h.views.size(); i++) {
    HeadLayout::Cell c;
    c.view = h.views[i];
    camera_of(c.view, c.camera);
    c.cx = 20 + cell * ((sheet ? i % 2 : 0) + 0.5);
    c.cy = top_margin + cell * ((sheet ? i / 2 : 0) + 0.5);
    l.cells.push_back(c);
  }
  return l;
}

std::array<double, 2> head_pixel(const HeadLayout &l, int cell, const Vec3 &p) {
  const HeadLayout::Cell &c = l.cells[cell];
  Vec3 d = sub(p, l.centre);
  return {c.cx + dot(d, c.camera.right) * l.scale, c.cy - dot(d, c.camera.up) * l.scale};
}

void draw_head(cairo_t *cr, const HeadPicture &h, const HeadLayout &l) {
  draw_heading(cr, 30, 18, l.width - 60, h.title, h.subtitle);
  std::vector<Normals> normals;
  for (const Mesh &m : h.surfaces) normals.push_back(normals_of(m));
  double vmax = 0;
  if (h.scalp_potential)
    for (double v : *h.scalp_potential) vmax = std::max(vmax, std::fabs(v));
  if (!(vmax > 0)) vmax = 1;
  for (size_t i = 0; i < l.cells.size(); i++) draw_cell(cr, h, l, (int)i, normals, vmax);
  if (h.scalp_potential)
    draw_colour_bar(
        cr, l.width - bar_width + 20, top_margin + 60, 24, l.height - top_margin - 160, -vmax, vmax,
        [](double f) { return diverging_colour(2 * f - 1); }, scale_unit(vmax, h.unit), "potential");
}
