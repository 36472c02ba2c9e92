// Reading a triangulated surface from a triangle file.
#pragma once

#include <cstdint>

// Reads the triangle file `name`, binary (counts and indices from 0, the
// machine's own byte order) or text (vertex lines with or without a leading
// number, triangle lines likewise, indices from 1), told apart by
// check_asci().
//
// On success returns 1, sets *npnt and *ndhk to the vertex and triangle
// counts, hands over in *pnt the vertices (x, y, z) and in *dhk the
// triangles (vertex indices from 0), both from calloc() -- release them with
// free() -- and prints "<name> contains N vertices and M triangles" on
// standard output.  Triangle indices are not checked against the vertex
// count here; see bad_triangle().
//
// On failure prints its message on standard error (cannot open, cannot read
// -- which includes counts the file cannot hold and coordinates that are not
// finite numbers -- or out of memory), leaves all four outputs untouched and
// returns 0.
int dhkinp(const char *name, int32_t *npnt, int32_t *ndhk, float (**pnt)[3], int32_t (**dhk)[3]);
