#include "plotting/colormap.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

struct Anchor {
  unsigned char r, g, b;
};

// Moreland's cool-warm map ("Diverging Color Maps for Scientific
// Visualization", 2009), its 33 published entries, evenly spaced.
const Anchor cool_warm[] = {{59, 76, 192},   {68, 90, 204},   {77, 104, 215},  {87, 117, 225},  {98, 130, 234},
                            {108, 142, 241}, {119, 154, 247}, {130, 165, 251}, {141, 176, 254}, {152, 185, 255},
                            {163, 194, 255}, {174, 201, 253}, {184, 208, 249}, {194, 213, 244}, {204, 217, 238},
                            {213, 219, 230}, {221, 221, 221}, {229, 216, 209}, {236, 211, 197}, {241, 204, 185},
                            {245, 196, 173}, {247, 187, 160}, {247, 177, 148}, {247, 166, 135}, {244, 154, 123},
                            {241, 141, 111}, {236, 127, 99},  {229, 112, 88},  {222, 96, 77},   {213, 80, 66},
                            {203, 62, 56},   {192, 40, 47},   {180, 4, 38}};

// viridis (van der Walt and Smith, 2015) at ten evenly spaced points.
const Anchor viridis[] = {{0x44, 0x01, 0x54}, {0x48, 0x28, 0x78}, {0x3e, 0x4a, 0x89}, {0x31, 0x68, 0x8e},
                          {0x26, 0x82, 0x8e}, {0x1f, 0x9e, 0x89}, {0x35, 0xb7, 0x79}, {0x6d, 0xcd, 0x59},
                          {0xb4, 0xde, 0x2c}, {0xfd, 0xe7, 0x25}};

// Linear interpolation in a table of evenly spaced anchors; t in 0..1.
template <size_t N>
Rgb lookup(const Anchor (&table)[N], double t) {
  if (!(t > 0)) t = 0;  // also NaN: the low end rather than garbage
  if (t > 1) t = 1;
  double x = t * (N - 1);
  size_t i = std::min((size_t)x, N - 2);
  double f = x - (double)i;
  const Anchor &a = table[i], &b = table[i + 1];
  return {(a.r + f * (b.r - a.r)) / 255.0, (a.g + f * (b.g - a.g)) / 255.0, (a.b + f * (b.b - a.b)) / 255.0};
}

}  // namespace

Rgb diverging_colour(double t) { return lookup(cool_warm, 0.5 * (t + 1)); }

Rgb sequential_colour(double t) { return lookup(viridis, t); }
