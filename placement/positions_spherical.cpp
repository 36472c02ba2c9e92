// Spherical layouts: .elp rows "[type] label theta phi [radius]" and .bvef
// (XML: Electrode elements with Name, Theta, Phi and Radius).  Angles in
// degrees: theta from the vertex, negative on the left; phi from the right
// ear towards the nose.
#include <expat.h>

#include <cmath>
#include <cstring>

#include "cli/failure.h"
#include "placement/positions.h"
#include "surface/text_scan.h"

PositionFile parse_elp_positions(const std::string &data, const std::string &file) {
  TextScan in(data, file);
  PositionFile out;
  bool any_radius = false;
  std::string_view line;
  while (in.next_content_line(line, ';')) {
    std::string_view s = line;
    std::string_view first = scan_word(s);
    if (!first.empty() && (first[0] == '%' || first[0] == '/'))
      in.fail_here("a digitiser .elp file (Cartesian, with % records): export it as .sfp or a label x y z table");
    std::string_view rest = s, label = first;
    double theta, phi, radius = 1;
    if (!scan_double(rest, theta)) {
      // "type label theta phi": keep EEG channels and fiducials only.
      label = scan_word(s);
      rest = s;
      if (!scan_double(rest, theta)) in.fail_here("expected [type] label theta phi [radius]");
      if (!(strncasecmp(first.data(), "EEG", 3) == 0 && first.size() == 3) &&
          !(strncasecmp(first.data(), "FID", 3) == 0 && first.size() == 3))
        continue;
    }
    if (!scan_double(rest, phi)) in.fail_here("expected [type] label theta phi [radius]");
    // A radius of 1 throughout is a unit sphere, as in .bvef.
    if (scan_double(rest, radius) && radius != 1) any_radius = true;
    if (!only_space(rest)) in.fail_here("expected [type] label theta phi [radius]");
    if (!std::isfinite(theta) || !std::isfinite(phi) || !std::isfinite(radius) || radius < 0)
      in.fail_here("angles and radius must be finite numbers, the radius not negative");
    out.points.push_back({std::string(label), from_theta_phi(theta, phi, radius), in.place()});
  }
  out.unit_sphere = !any_radius;
  return out;
}

namespace {

// What the XML reader gathers: the text of the current element and the
// fields of the current Electrode.
struct BvefState {
  XML_Parser parser;
  std::string text, name, theta, phi, radius;
  long line = 0;
  std::vector<LabelledPoint> points;
  std::vector<std::string> radii;
  std::string error;
};

void XMLCALL on_start(void *user, const XML_Char *el, const XML_Char **) {
  auto *s = static_cast<BvefState *>(user);
  s->text.clear();
  if (strcmp(el, "Electrode") == 0) {
    s->name = s->theta = s->phi = s->radius = "";
    s->line = (long)XML_GetCurrentLineNumber(s->parser);
  }
}

void XMLCALL on_text(void *user, const XML_Char *text, int len) {
  static_cast<BvefState *>(user)->text.append(text, (size_t)len);
}

void XMLCALL on_end(void *user, const XML_Char *el) {
  auto *s = static_cast<BvefState *>(user);
  if (strcmp(el, "Name") == 0) s->name = s->text;
  else if (strcmp(el, "Theta") == 0) s->theta = s->text;
  else if (strcmp(el, "Phi") == 0) s->phi = s->text;
  else if (strcmp(el, "Radius") == 0) s->radius = s->text;
  else if (strcmp(el, "Electrode") == 0 && s->error.empty()) {
    const std::string place = "line " + std::to_string(s->line);
    double v[3] = {0, 0, 1};
    const std::string *field[3] = {&s->theta, &s->phi, &s->radius};
    for (int k = 0; k < 3; k++) {
      std::string_view f = *field[k];
      if (k == 2 && only_space(f)) break;  // no radius: on the unit sphere
      if (!scan_double(f, v[k]) || !only_space(f) || !std::isfinite(v[k])) {
        s->error = place + ": electrode '" + s->name + "' needs numbers for Theta and Phi (and Radius)";
        return;
      }
    }
    std::string name = s->name;
    while (!name.empty() && std::isspace((unsigned char)name.back())) name.pop_back();
    while (!name.empty() && std::isspace((unsigned char)name.front())) name.erase(0, 1);
    if (name.empty()) s->error = place + ": an electrode without a Name";
    // Radius 0 marks an entry with no place on the head (ground or reference
    // of some amplifiers).
    if (v[2] <= 0) return;
    s->points.push_back({name, from_theta_phi(v[0], v[1], v[2]), place});
    s->radii.push_back(s->radius);
  }
  s->text.clear();
}

}  // namespace

PositionFile parse_bvef_positions(const std::string &data, const std::string &file) {
  BvefState state;
  state.parser = XML_ParserCreate(nullptr);
  if (!state.parser) fail(file, "", "out of memory");
  XML_SetUserData(state.parser, &state);
  XML_SetElementHandler(state.parser, on_start, on_end);
  XML_SetCharacterDataHandler(state.parser, on_text);
  const bool ok = XML_Parse(state.parser, data.data(), (int)data.size(), 1) == XML_STATUS_OK;
  const std::string xml_error = ok ? "" : XML_ErrorString(XML_GetErrorCode(state.parser));
  const long line = (long)XML_GetCurrentLineNumber(state.parser);
  XML_ParserFree(state.parser);
  if (!ok) fail(file, "line " + std::to_string(line), "not readable as XML: " + xml_error);
  if (!state.error.empty()) fail(file, "", state.error);
  PositionFile out;
  out.points = std::move(state.points);
  out.unit_sphere = true;
  for (const std::string &r : state.radii) {
    std::string_view f = r;
    double v;
    if (scan_double(f, v) && v != 1) out.unit_sphere = false;
  }
  return out;
}
