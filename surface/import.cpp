#include "surface/import.h"

#include <cstring>

#include "cli/failure.h"
#include "surface/brelix_tri.h"
#include "surface/byte_scan.h"
#include "surface/file_bytes.h"
#include "surface/readers.h"
#include "surface/text_scan.h"

namespace {

std::string suffix_of(const std::string &path) {
  size_t slash = path.find_last_of('/'), dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string s = path.substr(dot + 1);
  for (char &c : s)
    if (c >= 'A' && c <= 'Z') c = (char)(c - 'A' + 'a');
  return s;
}

bool starts(std::string_view data, const char *prefix) { return data.substr(0, strlen(prefix)) == prefix; }

// The data after leading white space (and a UTF-8 byte-order mark).
std::string_view trimmed(std::string_view data) {
  if (starts(data, "\xEF\xBB\xBF")) data.remove_prefix(3);
  size_t i = 0;
  while (i < data.size() && i < 4096 && (data[i] == ' ' || data[i] == '\t' || data[i] == '\n' || data[i] == '\r')) i++;
  return data.substr(i);
}

// Binary STL has no signature, but its size is fixed by its facet count.
bool stl_binary_size(std::string_view data) {
  if (data.size() < 84) return false;
  uint32_t n;
  memcpy(&n, data.data() + 80, 4);
  if (ByteScan::host_big_endian()) n = __builtin_bswap32(n);
  return data.size() == 84 + 50ull * n;
}

// ASCII STL begins with "solid", but so do the headers of many binary STL
// files: text has no control characters in its first lines.
bool looks_like_text(std::string_view data) {
  for (char c : data.substr(0, 512))
    if ((unsigned char)c < 9 || ((unsigned char)c > 13 && (unsigned char)c < 32) || (unsigned char)c == 127) return false;
  return true;
}

bool off_header(std::string_view data) {
  std::string_view first = trimmed(data);
  std::string_view w = scan_word(first);
  return w.size() >= 3 && w.substr(w.size() - 3) == "OFF" && w.size() <= 5;
}

// "- N" on the first line.
bool normals_tri_header(std::string_view data) {
  std::string_view t = trimmed(data);
  if (!starts(t, "-") || t.size() < 2 || (t[1] != ' ' && t[1] != '\t')) return false;
  t.remove_prefix(1);
  long long n;
  return scan_long(t, n);
}

}  // namespace

ImportedSurface parse_surface(std::string_view data, const std::string &path) {
  std::string_view t = trimmed(data);
  std::string suffix = suffix_of(path);
  if (starts(data, "\xFF\xFF\xFE")) return read_freesurfer_binary(data, path);
  if (starts(data, "\xFF\xFF\xFF")) fail(path, "byte 0", "FreeSurfer quadrangle surfaces are not supported; convert to triangles");
  if (starts(data, "ply\n") || starts(data, "ply\r\n")) return read_ply(data, path);
  if (starts(data, "# vtk DataFile")) return read_vtk(data, path);
  if (starts(t, "<?xml") || starts(t, "<GIFTI") || suffix == "gii") return read_gifti(data, path);
  if (starts(data, "#!ascii")) return read_freesurfer_ascii(data, path);
  if (off_header(data)) return read_off(data, path);
  if (stl_binary_size(data)) return read_stl_binary(data, path);
  if (starts_with_nocase(t, "solid") && looks_like_text(t))
    return read_stl_ascii(data, path);
  if (normals_tri_header(data)) return read_normals_tri(data, path);
  if (suffix == "obj") return read_obj(data, path);
  if (suffix == "asc") return read_freesurfer_ascii(data, path);
  if (suffix == "stl") return read_stl_binary(data, path);  // not ASCII: its size or count is wrong
  if (suffix == "off") return read_off(data, path);
  if (suffix == "ply") return read_ply(data, path);
  if (suffix == "vtk") return read_vtk(data, path);
  if (suffix == "tri") {
    bool text = brelix_tri_is_text(data);
    return ImportedSurface{parse_brelix_tri(data, path), text ? "brelix text" : "brelix binary", 0, 0};
  }
  fail(path, "",
       "cannot tell the surface format (by content: FreeSurfer, PLY, VTK, GIfTI, OFF, STL; by suffix: "
       ".obj .asc .stl .off .ply .vtk .gii .tri)");
}

ImportedSurface read_surface(const std::string &path) {
  std::string data = read_file_bytes(path);
  return parse_surface(data, path);
}
