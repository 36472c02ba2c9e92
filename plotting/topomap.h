// Topographies: potentials at the electrodes drawn as a smooth map over a
// top view of the head, several maps side by side on one colour scale.
#pragma once

#include <cairo.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "plotting/scalp_projection.h"
#include "surface/mesh.h"

struct TopomapPanel {
  std::string title;           // "measured", "model", "residual"
  std::vector<double> values;  // one per electrode
};

struct TopomapDipole {
  Vec3 position;
  std::optional<Vec3> moment;  // direction (any length); none: a plain mark
  std::string label;
};

struct Topomap {
  std::vector<Vec3> electrodes;     // positions on the scalp
  std::vector<std::string> labels;  // one per electrode
  std::vector<Vec3> scalp;          // scalp vertices: the fallback centre of the view
  std::vector<TopomapPanel> panels;
  std::vector<TopomapDipole> dipoles;
  std::string title;     // first line: what is shown
  std::string subtitle;  // second line: from which files, which sample
  std::string unit = "V";
  std::optional<double> relative_difference;
  bool show_labels = true, show_dots = true, show_contours = true;
};

// Where everything goes: the figure's size, the centre of each map in
// pixels and the scale from the top view (radians) to pixels.
struct TopomapLayout {
  int width, height;
  Sphere sphere;                               // the centre directions are taken from
  double head_angle;                           // polar angle of the head outline, radians
  double radius_px;                            // the outline's radius in pixels
  std::vector<std::array<double, 2>> centres;  // one per panel
};

// Layout for the topomap `t`.
TopomapLayout topomap_layout(const Topomap &t);

// Pixel at which the point `p` (a position in the head) appears in panel
// `panel`.
std::array<double, 2> topomap_pixel(const TopomapLayout &layout, int panel, const Vec3 &p);

// Draw the whole figure.
void draw_topomap(cairo_t *cr, const Topomap &t, const TopomapLayout &layout);
