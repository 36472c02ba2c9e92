// Surfaces from the formats other pipelines write, read into a Mesh as they
// are stored (no change of units, orientation or frame).
#pragma once

#include <string>
#include <string_view>

#include "surface/mesh.h"

struct ImportedSurface {
  Mesh mesh;
  std::string format;    // e.g. "FreeSurfer binary", "STL binary", "PLY binary big-endian"
  long polygons_split;   // faces of more than three corners, split into triangles
  long vertices_welded;  // duplicate vertices merged (STL, which stores none shared)
};

// Read a surface, recognising the format by content where it has a
// signature and otherwise by the file name's suffix:
//   FreeSurfer binary (bytes FF FF FE: watershed and *.surf files) and ASCII
//   (.asc), OFF, OBJ, STL ASCII and binary, PLY ASCII and binary (either byte
//   order), VTK legacy POLYDATA (ASCII and BINARY), GIfTI .gii (ASCII,
//   Base64Binary, GZipBase64Binary), brelix triangle files (.tri, text or
//   binary) and the text .tri layout with a "- N" vertex block carrying
//   normals and a "- M M M" triangle block.
// Polygons are split into triangles as a fan from their first corner; STL
// vertices are welded where their coordinates are exactly equal.  Throws
// InputError "FILE: PLACE: WHAT" (place: a line, byte offset or element)
// for truncated files, counts larger than the file can hold, indices out of
// range, coordinates that are not finite and unknown formats.
ImportedSurface read_surface(const std::string &path);
// The same from bytes already read; `path` names the file and gives the
// suffix.
ImportedSurface parse_surface(std::string_view data, const std::string &path);
