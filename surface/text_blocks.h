// Blocks that several text surface formats share: a line with the vertex
// and face counts, and a run of vertex lines.
#pragma once

#include <string_view>

#include "surface/mesh_build.h"
#include "surface/text_scan.h"

// Read "NV NF" from `line` (the rest is ignored) and check that the file
// can hold NV vertex lines and NF face lines of at least `min_face_line`
// bytes after it.
void read_two_counts(TextScan &in, std::string_view line, size_t min_face_line, long long &nv, long long &nf);

// Read `n` vertex lines "x y z ..." (numbers after the third ignored) into
// `out`, skipping blank lines and lines that start with `comment` (when not
// 0).
void read_xyz_lines(TextScan &in, MeshBuilder &out, long long n, char comment = 0);
