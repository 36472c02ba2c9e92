// Colour maps of the pictures.  Both are perceptually uniform: equal steps
// in value look like equal steps in colour, so a map neither invents nor
// hides structure.
#pragma once

struct Rgb {
  double r, g, b;  // 0..1
};

// The diverging map for signed quantities (potentials): blue for negative,
// a light neutral grey at zero, red for positive (Moreland's cool-warm map).
//   t: the value scaled to -1..1 (clamped outside).
Rgb diverging_colour(double t);

// The sequential map for ordered categories and magnitudes (viridis: dark
// violet through blue and green to yellow).
//   t: 0..1 (clamped outside).
Rgb sequential_colour(double t);
