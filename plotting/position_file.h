// Source position files: the dipoles brelix starts a fit from and the
// fitted ones it writes back (the same layout), and the ".sd" companion with
// their standard deviations.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "surface/mesh.h"

struct SourcePosition {
  Vec3 position;
  // The two numbers after x, y, z, when the line has them: the polar angle
  // from +z and the azimuth from +x, in degrees, as brelix writes a
  // stationary orientation (or their standard deviations in a ".sd" file).
  std::optional<std::array<double, 2>> angles;
  bool orientation_stationary = false;  // from the constraint lines
  bool moving = false;
  int orientation_partner = -1;  // zero-based source whose orientation this one mirrors
};

// Read the count line and the source lines of `path`; with `constraints`,
// also the constraint lines after them ("<n> position moving orientation
// stationary symmetric to <m>", keywords by their first letters as brelix
// reads them; lines it would skip are skipped).  Throws InputError "PATH:
// line N: what" for a missing or non-positive count, a file shorter than
// its count, a source line without x, y, z, a non-finite number, or a
// constraint line naming a source that does not exist.
std::vector<SourcePosition> read_position_file(const std::string &path, bool constraints = true);

// The number of moment rows of each source in a solution matrix: 3 for a
// free orientation, 1 for one fixed direction; a source mirroring another's
// orientation has as many as that partner.
std::vector<int> moment_rows(const std::vector<SourcePosition> &sources);

// The unit direction of polar angle `theta` and azimuth `alfa` (degrees).
Vec3 direction_of_angles(const std::array<double, 2> &angles);
