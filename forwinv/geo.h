// The volume-conductor model: the interface files and their conductivities.
#pragma once

#include <cstdint>

// Asks for up to MAXGEO interface files and the conductivity just within
// each, reading every file with dhkinp().  A file that cannot be read, or
// whose triangles name vertices it does not have, is asked for again.
//
//   allow_isolated  non-zero: an answer "!name" marks the isolated-source
//                   interface (at most one)
//   magnetic        non-zero: combined electric/magnetic run, in which a
//                   negative conductivity of the isolated-source interface
//                   is accepted (its sign dropped, inner_only set)
//
// On return geo[0..ngeo-1], ngeo, totpnt, totdhk, iso_sur and inner_only
// hold the model; sigma_out is left for the system-matrix assembly.  Ends
// the process with status 0 on an empty first answer, with status 1 on end
// of input, on a negative conductivity that does not apply, and (through
// error()) on a second isolated-source interface, an isolated source that
// is not allowed, or two interfaces that share all their vertices.
void get_geo(int allow_isolated, int magnetic);

// Index check of a triangle table.
//   npnt, ndhk, dhk  the vertex count and the triangles (indices from 0)
// Returns the one-based number of the first triangle with an index outside
// 0 .. npnt-1, or 0 when every index names an existing vertex.
int bad_triangle(int32_t npnt, int32_t ndhk, const int32_t (*dhk)[3]);
