// Moments of dipoles over time: one panel per dipole, a line per moment
// component with a band of plus and minus one standard deviation.
#pragma once

#include <cairo.h>

#include <string>
#include <vector>

struct MomentTrace {
  std::string name;           // "x", "y", "z" or "amplitude"
  std::vector<double> value;  // one per sample
  std::vector<double> sd;     // one per sample, or empty
};

struct TimecourseDipole {
  std::string title;
  std::vector<MomentTrace> traces;
};

struct Timecourse {
  std::vector<TimecourseDipole> dipoles;
  std::vector<double> times;  // one per sample, in `time_unit`
  std::string time_unit;      // "ms", or "" when the axis counts samples
  std::string unit;           // of the moments
  std::string title, subtitle;
};

// Figure size for `t`: the width is fixed, each dipole adds a panel.
int timecourse_width();
int timecourse_height(const Timecourse &t);

// Draw the whole figure.
void draw_timecourse(cairo_t *cr, const Timecourse &t);
