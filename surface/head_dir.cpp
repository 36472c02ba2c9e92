#include "surface/head_dir.h"

#include <sys/stat.h>

#include <cmath>

#include "cli/failure.h"
#include "matrixio/paths.h"
#include "surface/brelix_tri.h"
#include "surface/file_bytes.h"
#include "surface/import.h"
#include "surface/text_scan.h"

namespace {

bool is_dir(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_file(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// brelix can have at most this many interfaces.
constexpr size_t MAX_SURFACES = 10;

}  // namespace

std::vector<HeadSurface> read_head_dir(const std::string &dir_or_geometry_ans) {
  std::string ans = is_dir(dir_or_geometry_ans) ? dir_or_geometry_ans + "/geometry.ans" : dir_or_geometry_ans;
  std::string dir = folder_of(ans);
  std::string data = read_file_bytes(ans);
  TextScan in(data, ans);
  std::vector<HeadSurface> head;
  std::string_view line;
  bool ended = false;
  // brelix stops asking after the tenth surface, so ten need no empty line.
  while (head.size() < MAX_SURFACES && in.next_line(line)) {
    if (line.empty()) {
      ended = true;
      break;
    }
    HeadSurface s;
    s.isolated = line[0] == '!';
    if (s.isolated) line.remove_prefix(1);
    s.file = std::string(line);
    if (s.isolated)
      for (const HeadSurface &h : head)
        if (h.isolated) in.fail_here("a second surface marked \"!\" (" + s.file + "); only one can be isolated");
    std::string where = in.place();
    std::string path = s.file;
    if (!is_file(path) && is_file(dir + "/" + base_name(s.file))) path = dir + "/" + base_name(s.file);
    if (!is_file(path)) fail(ans, where, "surface file " + s.file + " not found (nor in " + dir + ")");
    s.mesh = read_brelix_tri(path);
    if (!in.next_line(line)) in.fail_here("file ends before the conductivity of " + s.file);
    // An empty answer gives brelix's default conductivity.
    s.sigma = 1.0;
    if (!line.empty()) {
      std::string_view rest = line;
      if (!scan_double(rest, s.sigma) || !only_space(rest) || !std::isfinite(s.sigma) || s.sigma < 0)
        in.fail_here("\"" + std::string(line) + "\" is not a conductivity");
    }
    head.push_back(std::move(s));
  }
  if (head.empty()) fail(ans, "line 1", "no surfaces");
  if (!ended && head.size() < MAX_SURFACES) fail(ans, "", "the list of surfaces does not end with an empty line");
  return head;
}

Mesh read_scalp(const std::string &dir_or_tri) {
  if (is_dir(dir_or_tri) || base_name(dir_or_tri) == "geometry.ans") return read_head_dir(dir_or_tri)[0].mesh;
  return read_surface(dir_or_tri).mesh;
}
