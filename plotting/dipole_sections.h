// Three orthogonal sections of the head through a dipole: the surfaces'
// cut lines, fitted dipoles with their standard-deviation ellipses and
// directions, and the true dipoles when known.
#pragma once

#include <cairo.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "surface/mesh.h"

struct SectionDipole {
  Vec3 position;
  std::optional<Vec3> sd;      // standard deviations of x, y, z
  std::optional<Vec3> moment;  // direction (any length)
  std::string label;
};

struct DipoleSections {
  std::vector<Mesh> surfaces;      // outermost first
  std::vector<std::string> names;  // one per surface
  Vec3 cut;                        // the point all three planes pass through
  size_t focus = 0;                // the fitted dipole at `cut`
  std::vector<SectionDipole> fitted;
  std::vector<SectionDipole> truths;
  std::string title, subtitle;
  std::vector<std::string> notes;  // lines printed under the sections
};

// One section: the plane x[normal] = cut[normal], seen with world axis `u`
// to the right (sign `u_sign`) and axis `v` upwards.
struct SectionPanel {
  const char *name;  // "axial", "coronal", "sagittal"
  int normal, u, v;
  double u_sign;
  double left, top, size;  // the square the panel occupies, pixels
  Vec3 middle;             // the world point at the square's centre
};

struct SectionsLayout {
  int width, height;
  double scale;  // pixels per unit of length, the same in every panel
  std::array<SectionPanel, 3> panels;
};

// Layout for `s`: one scale for all panels, fitted to the surfaces' extent.
SectionsLayout sections_layout(const DipoleSections &s);

// Pixel of the world point `p` in panel `panel` (p is projected onto the
// panel's plane along its normal).
std::array<double, 2> section_pixel(const SectionsLayout &layout, int panel, const Vec3 &p);

// Colour of the fitted dipoles' markers (tests look for it).
constexpr double fitted_marker_rgb[3] = {0.85, 0.33, 0.0};
// Colour in which the cut line of surface i of n is drawn.
void surface_line_colour(size_t i, size_t n, double rgb[3]);

// Draw the whole figure.
void draw_sections(cairo_t *cr, const DipoleSections &s, const SectionsLayout &layout);
