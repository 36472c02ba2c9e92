// Shaded views of a head model: the surfaces seen from outside, the outer
// ones translucent so that the inner ones show through, the electrodes with
// their labels, and optionally the scalp coloured by potential.
#pragma once

#include <cairo.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "surface/mesh.h"

struct HeadPicture {
  std::vector<Mesh> surfaces;  // outermost (the scalp) first
  std::vector<Vec3> electrodes;
  std::vector<std::string> labels;
  std::optional<std::vector<double>> scalp_potential;  // one per scalp vertex
  std::string unit = "V";
  std::vector<std::string> views;  // "front", "back", "left", "right", "top"
  std::string title, subtitle;
  bool show_labels = true;
};

// A view: the direction towards the viewer, and the directions that appear
// to the right and upwards.
struct Camera {
  Vec3 eye, right, up;
};

// The camera of a view name; false for an unknown name.
bool camera_of(const std::string &view, Camera &camera);

struct HeadLayout {
  int width, height;
  double scale;  // pixels per unit of length
  Vec3 centre;   // the head's middle, drawn at each cell's centre
  struct Cell {
    std::string view;
    Camera camera;
    double cx, cy;
  };
  std::vector<Cell> cells;
};

HeadLayout head_layout(const HeadPicture &h);

// Pixel of the point p in cell `cell`.
std::array<double, 2> head_pixel(const HeadLayout &layout, int cell, const Vec3 &p);

// Draw the whole figure.
void draw_head(cairo_t *cr, const HeadPicture &h, const HeadLayout &layout);
