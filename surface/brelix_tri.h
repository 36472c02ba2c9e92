// brelix's own triangle files: the binary layout (native byte order, counts
// and zero-based indices as 32-bit integers, coordinates as 32-bit floats)
// and the text layout (counts, then vertex and triangle lines, optionally
// with a running number first, indices counted from 1).  In memory the
// indices count from 0.  Triangles are ordered clockwise seen from outside
// (right-hand normals inwards), which is what brelix's solid angles need.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "surface/mesh.h"

// Whether brelix takes `data` for text: its first (up to) four bytes are all
// digits, white space, '-', '.', 'E' or 'e'.
bool brelix_tri_is_text(std::string_view data);

// Read a brelix triangle file, text or binary as brelix tells them apart.
// Throws InputError ("FILE: PLACE: WHAT") when the file is truncated, a
// count is negative or larger than the file can hold, an index lies outside
// the vertices, or a coordinate is not finite.
Mesh read_brelix_tri(const std::string &path);
// The same from the file's bytes; `file` names it in messages.
Mesh parse_brelix_tri(std::string_view data, const std::string &file);

// Write `mesh` in the text layout, with running numbers and one-based
// indices.  Coordinates are written as the single-precision values brelix
// will hold, with enough digits to read back exactly.
void write_brelix_tri(FILE *fp, const Mesh &mesh);
// Same to a file, which appears only when complete (InputError otherwise).
void write_brelix_tri_file(const std::string &path, const Mesh &mesh);
