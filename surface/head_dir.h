// A head folder as `brelix-prep head` writes it: one brelix triangle file
// per surface and geometry.ans, the answers brelix's geometry dialogue
// expects (per surface a file-name line, "!" in front of the isolated-source
// interface, and a conductivity line; an empty line ends the list).
#pragma once

#include <string>
#include <vector>

#include "surface/mesh.h"

struct HeadSurface {
  std::string file;  // the triangle file as named in geometry.ans, without "!"
  Mesh mesh;
  double sigma;      // conductivity just within the surface, S/m
  bool isolated;     // marked "!": the isolated-source interface
};

// Read a head: `dir_or_geometry_ans` is a folder holding geometry.ans, or
// such a file itself.  A surface file name is tried as written (relative to
// the current folder, as brelix would open it) and then as a file of that
// name beside geometry.ans.  Surfaces come in file order, outermost first.
// Throws InputError naming the file and line for a missing or unreadable
// file, a conductivity that is not a number or a second "!".  After the
// tenth surface the list ends, as in brelix's dialogue.
std::vector<HeadSurface> read_head_dir(const std::string &dir_or_geometry_ans);

// The scalp of a head: the first surface of a head folder (or geometry.ans),
// or the surface in a single surface file of any format read_surface knows.
Mesh read_scalp(const std::string &dir_or_tri);
