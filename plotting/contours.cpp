#include "plotting/contours.h"

#include <cmath>

std::vector<std::array<double, 4>> contour_segments(const std::vector<double> &grid, int nx, int ny, double level) {
  std::vector<std::array<double, 4>> out;
  for (int j = 0; j + 1 < ny; j++)
    for (int i = 0; i + 1 < nx; i++) {
      // Corners counter-clockwise from (i, j); a value equal to the level
      // counts as above, so that every crossing is found once.
      double v[4] = {grid[(size_t)j * nx + i], grid[(size_t)j * nx + i + 1], grid[(size_t)(j + 1) * nx + i + 1],
                     grid[(size_t)(j + 1) * nx + i]};
      const double cx[4] = {(double)i, i + 1.0, i + 1.0, (double)i};
      const double cy[4] = {(double)j, (double)j, j + 1.0, j + 1.0};
      bool finite = true;
      for (double x : v) finite = finite && std::isfinite(x);
      if (!finite) continue;
      // Crossing points on the four edges, in order.
      double px[4], py[4];
      int n = 0;
      for (int e = 0; e < 4; e++) {
        int a = e, b = (e + 1) % 4;
        if ((v[a] >= level) == (v[b] >= level)) continue;
        double t = (level - v[a]) / (v[b] - v[a]);
        px[n] = cx[a] + t * (cx[b] - cx[a]);
        py[n] = cy[a] + t * (cy[b] - cy[a]);
        n++;
      }
      if (n == 2) {
        out.push_back({px[0], py[0], px[1], py[1]});
      } else if (n == 4) {
        // A saddle: pair the crossings by the value at the cell's middle.
        double mid = 0.25 * (v[0] + v[1] + v[2] + v[3]);
        bool first_above = v[0] >= level;
        // The corners on the middle's side are joined through it; the
        // two others are cut off.
        if ((mid >= level) == first_above) {
          out.push_back({px[0], py[0], px[1], py[1]});  // around corner 1
          out.push_back({px[2], py[2], px[3], py[3]});  // around corner 3
        } else {
          out.push_back({px[3], py[3], px[0], py[0]});  // around corner 0
          out.push_back({px[1], py[1], px[2], py[2]});  // around corner 2
        }
      }
    }
  return out;
}
