#include "plotting/head_surfaces.h"

#include "cli/failure.h"

std::vector<HeadSurface> head_surfaces(const std::string &dir) {
  std::vector<HeadSurface> s = read_head_dir(dir);
  if (s.empty()) fail(dir, "geometry.ans", "names no surface");
  for (const auto &h : s)
    if (h.mesh.triangles.empty()) fail(h.file, "", "the surface has no triangles");
  return s;
}
