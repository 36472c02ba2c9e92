// brelix electrode files: reading them the way brelix does, locating each
// electrode on the scalp, and writing them back.
//
// The file is text: the number of electrodes on the first line, then one line
// per electrode.  The second line decides the form of all of them: with fewer
// than three numbers every line is a vertex electrode "<running number>
// <vertex>" (vertex counted from 1); otherwise every line is a triangle
// electrode "<triangle> <u> <v> [!label]" (triangle counted from 1, the point
// (1-u-v)·a + u·b + v·c of the triangle's vertices a, b, c).  brelix counts
// vertices and triangles over all interfaces in the order the user gives
// them; the scalp is the first interface, so these numbers are the scalp's
// own.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "surface/mesh.h"

// brelix keeps at most this many characters of a label.
constexpr size_t MAX_LABEL_LENGTH = 10;

struct ElectrodeEntry {
  bool on_vertex = false;  // vertex electrode (u, v unused) or a point in a triangle
  int index = 0;           // zero-based vertex or triangle of the scalp
  double u = 0, v = 0;     // local coordinates in the triangle
  std::string label;       // never empty after reading: see has_label
  bool has_label = false;  // false: the file gave none and label is "E<n>"
};

// Read an electrode file.
//   path: the file's name.
// Returns the electrodes in the file's order.  Labels are what brelix keeps
// (the first 10 characters after '!'), without surrounding blanks, which
// brelix would keep but which no user means; an electrode without a label
// (every vertex electrode, and triangle lines without '!') is called "E<n>",
// n its place in the file counted from 1, so that every electrode has a name
// to show.  Throws InputError "PATH: line N: what" for anything brelix would
// not read: a missing or non-positive count, a file shorter than its count,
// an unreadable line, a number below 1, non-finite (u, v), a line longer than
// the 159 characters brelix reads as one.  Lines after the last electrode are
// ignored, as brelix ignores them.
std::vector<ElectrodeEntry> read_electrode_file(const std::string &path);

// The display name of electrode `n` (counted from 1) when it has no label.
std::string default_label(size_t n);

// Position of an electrode on the scalp.
//   entry: one electrode as read; scalp: the outermost surface.
// Returns the vertex, or the point (1-u-v)·a + u·b + v·c of its triangle.
// Throws InputError naming the electrode when its vertex or triangle (or a
// triangle's vertex) is not part of `scalp`.
Vec3 electrode_position(const ElectrodeEntry &entry, const Mesh &scalp);

// Write electrodes in brelix's layout to an open stream.
//   fp: the stream; entries: all triangle electrodes (written as "<triangle>
//   <u> <v> !label", triangle counted from 1, with the label when has_label),
//   or all vertex electrodes (written as "<n> <vertex>"; this form has no
//   labels).
// Throws std::invalid_argument for an empty list, a mixture of both forms, or
// a label brelix would cut short or misread (longer than 10 characters, or
// holding a line break).
void write_electrodes(FILE *fp, const std::vector<ElectrodeEntry> &entries);

// The same into the file `path`, complete or not at all (InputError when it
// cannot be written).
void write_electrode_file(const std::string &path, const std::vector<ElectrodeEntry> &entries);
