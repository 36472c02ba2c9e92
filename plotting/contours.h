// Contour lines of a sampled field, by marching squares.
#pragma once

#include <array>
#include <vector>

// Line pieces of the level set `level` of `grid` (nx columns by ny rows,
// row by row), in grid coordinates (column, row).  Cells with a value that
// is not finite (outside the drawn area) give no pieces.
std::vector<std::array<double, 4>> contour_segments(const std::vector<double> &grid, int nx, int ny, double level);
