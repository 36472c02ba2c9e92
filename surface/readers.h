// The format readers behind read_surface, one per format family; each gets
// the whole file and its name, and fills an ImportedSurface (format name,
// mesh, polygons split).  Internal to the surface folder.
#pragma once

#include <string>
#include <string_view>

#include "surface/import.h"
#include "surface/mesh_build.h"

ImportedSurface read_freesurfer_binary(std::string_view data, const std::string &file);
ImportedSurface read_freesurfer_ascii(std::string_view data, const std::string &file);
ImportedSurface read_off(std::string_view data, const std::string &file);
ImportedSurface read_obj(std::string_view data, const std::string &file);
ImportedSurface read_stl_ascii(std::string_view data, const std::string &file);
ImportedSurface read_stl_binary(std::string_view data, const std::string &file);
ImportedSurface read_ply(std::string_view data, const std::string &file);
ImportedSurface read_vtk(std::string_view data, const std::string &file);
ImportedSurface read_gifti(std::string_view data, const std::string &file);
ImportedSurface read_normals_tri(std::string_view data, const std::string &file);

// The surface a builder holds, with its format name.
inline ImportedSurface finish(MeshBuilder &b, const std::string &format) {
  return ImportedSurface{std::move(b.mesh()), format, b.polygons_split(), 0};
}

// Merge vertices with exactly equal coordinates, keeping the first of each
// and renumbering the triangles; returns how many were merged.
long weld_exact_duplicates(Mesh &mesh);
