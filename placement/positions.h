// Electrode position files as digitisers, cap makers and EEG toolboxes
// write them, read into labelled 3-D points.
//
// Families (one reader each):
//   .elc                 NumberPositions / UnitPosition / Positions / Labels blocks
//   .sfp .txt .csv .tsv  rows of label x y z (any of , ; tab or blanks between,
//                        an optional header row naming the columns)
//   .elp .bvef           spherical: theta and phi in degrees (theta the angle
//                        from the vertex, negative on the left; phi from the
//                        right ear towards the nose), optional radius
//   .loc .locs           polar: channel number, angle from the nose in
//                        degrees (right positive), arc radius (0.5 on the
//                        equator), label
// Coordinates are in the frame x towards the right ear, y towards the nose,
// z up, as the spherical and polar layouts define it.
#pragma once

#include <string>
#include <vector>

#include "surface/mesh.h"

struct LabelledPoint {
  std::string label;
  Vec3 p{};
  std::string place;  // where the file gives it ("line 12"), for messages
};

struct PositionFile {
  std::vector<LabelledPoint> points;  // in the file's order, in the file's unit
  std::string unit;                   // "m", "cm" or "mm" when the file says; "" when not
  bool unit_sphere = false;           // directions only (spherical or polar layout without radii)
};

// Read a position file, its family chosen by the suffix (case-insensitive);
// an unknown suffix is read as rows of label x y z when its first rows are
// such.  Entries a layout marks as not EEG (other channel types of .elp,
// electrodes without a radius in .bvef) are left out.  Throws InputError
// "FILE: line N: what" for an unreadable file, a row that is not what its
// family holds, a coordinate that is not a finite number, or no positions.
PositionFile read_position_file(const std::string &path);

// The family readers, from the file's bytes; `file` names it in messages.
PositionFile parse_elc_positions(const std::string &data, const std::string &file);
PositionFile parse_table_positions(const std::string &data, const std::string &file);
PositionFile parse_elp_positions(const std::string &data, const std::string &file);
PositionFile parse_bvef_positions(const std::string &data, const std::string &file);
PositionFile parse_loc_positions(const std::string &data, const std::string &file);

// The point on a sphere of radius r at spherical angles theta, phi (degrees,
// in the .elp/.bvef sense above).
Vec3 from_theta_phi(double theta, double phi, double r);

// `s` with ASCII letters in lower case.
std::string ascii_lower(std::string s);

// Length units: metres per unit for "m", "cm", "mm" (also "meters",
// "millimeters", ...); 0 for anything else.
double metres_per_unit(const std::string &unit);
