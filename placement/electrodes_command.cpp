#include "placement/electrodes_command.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <strings.h>

#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "placement/electrode_file.h"
#include "placement/electrodes_options.h"
#include "placement/system_layout.h"
#include "placement/vec3.h"
#include "surface/head_dir.h"
#include "surface/transform.h"

namespace {

std::string format(const char *fmt, double a) {
  char buf[64];
  snprintf(buf, sizeof buf, fmt, a);
  return buf;
}

// A position file in metres; `unit_text` says how its unit was decided.
struct Positions {
  std::vector<LabelledPoint> points;
  std::string unit_text;
  bool unit_sphere = false;
};

Positions read_in_metres(const std::string &path, const std::string &units, const std::string &transform) {
  PositionFile f = read_position_file(path);
  if (!transform.empty()) {
    const Affine a = read_affine(transform);
    for (LabelledPoint &p : f.points) p.p = apply_affine(a, p.p);
  }
  Positions out;
  out.unit_sphere = f.unit_sphere;  // directions have no unit
  double scale = 1;
  if (out.unit_sphere) {
    out.unit_text = "directions only (a unit sphere)";
  } else if (units == "auto" && !f.unit.empty()) {
    scale = metres_per_unit(f.unit);
    out.unit_text = f.unit + " (from the file)";
  } else {
    std::vector<Vec3> pts;
    for (const LabelledPoint &p : f.points) pts.push_back(p.p);
    const UnitChoice u = choose_units(units, pts, path);
    scale = u.scale;
    out.unit_text = u.describe();
  }
  for (LabelledPoint &p : f.points) p.p = scale * p.p;
  out.points = std::move(f.points);
  return out;
}

// Refuse labels brelix would cut short and labels given twice (the data
// step matches channels without regard to case, so neither may case).
void check_labels(const std::vector<LabelledPoint> &points, const std::string &file) {
  std::map<std::string, const LabelledPoint *> seen;
  for (const LabelledPoint &p : points) {
    if (p.label.size() > MAX_LABEL_LENGTH)
      fail(file, p.place, "label '" + p.label + "' is longer than the 10 characters brelix keeps");
    auto [it, fresh] = seen.emplace(ascii_lower(p.label), &p);
    if (!fresh) fail(file, p.place, "label '" + p.label + "' also names the electrode at " + it->second->place);
  }
}

bool same_label(const std::string &a, const std::string &b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

// --labels and --drop.
std::vector<LabelledPoint> select(const std::vector<LabelledPoint> &points, const ElectrodesOptions &o,
                                  const std::string &source) {
  std::vector<LabelledPoint> out;
  if (!o.keep.empty()) {
    for (const std::string &want : o.keep) {
      const LabelledPoint *found = nullptr;
      for (const LabelledPoint &p : points)
        if (same_label(p.label, want)) found = &p;
      if (!found) fail(source, "", "no electrode '" + want + "' (named by --labels)");
      out.push_back(*found);
    }
  } else {
    out = points;
  }
  for (const std::string &d : o.drop)
    std::erase_if(out, [&](const LabelledPoint &p) { return same_label(p.label, d); });
  if (out.empty()) fail(source, "", "no electrodes left to write");
  return out;
}

// What the command tells the user, printed when all went well.
struct Report {
  std::string text;
  void say(const std::string &line) { text += line + "\n"; }
};

// --system: the layout built on the scalp from the head's landmarks.
std::vector<LabelledPoint> layout_on_scalp(const ElectrodesOptions &o, const ScalpLocator &locator,
                                           const Positions &head, Report &report) {
  LayoutSystem system;
  if (!parse_layout_system(o.system, system)) usage_fail("--system must be 10-20, 10-10 or 10-5");
  HeadLandmarks lm;
  Vec3 *slot[LANDMARKS] = {&lm.nasion, &lm.lpa, &lm.rpa, &lm.inion};
  for (int k = 0; k < LANDMARKS; k++) {
    const auto p = find_landmark(head.points, o.names, (Landmark)k, o.fiducials);
    if (!p) fail(o.fiducials, "", "no " + std::string(landmark_name[k]) + " for --system");
    *slot[k] = *p;
  }
  std::vector<LabelledPoint> out;
  try {
    out = build_layout(locator, lm, system);
  } catch (const std::runtime_error &e) {
    fail(o.fiducials, "", e.what());
  }
  report.say("layout: " + o.system + " on the scalp, " + std::to_string(out.size()) + " electrodes");
  return out;
}

// The fiducial fit (and --icp), applied to `electrodes`.
void fit_to_head(const ElectrodesOptions &o, const ScalpLocator &locator, const std::vector<LabelledPoint> &landmarks,
                 const Positions &head, std::vector<LabelledPoint> &electrodes, Report &report) {
  const FiducialFit fit = fit_fiducials(landmarks, o.positions, head.points, o.fiducials, o.names, o.scale);
  std::string line = std::string("fiducial fit (rigid") + (o.scale ? ", with scale" : "") + "): residuals";
  double sum2 = 0;
  for (size_t i = 0; i < fit.used.size(); i++) {
    line += " " + fit.used[i] + format(" %.2f mm", 1000 * fit.residual[i]) + (i + 1 < fit.used.size() ? "," : "");
    sum2 += fit.residual[i] * fit.residual[i];
  }
  report.say(line + format("; rms %.2f mm", 1000 * std::sqrt(sum2 / (double)fit.used.size())));
  Similarity t = fit.transform;
  if (o.icp) {
    std::vector<Vec3> from;
    for (const LabelledPoint &e : electrodes) from.push_back(e.p);
    const IcpResult icp = refine_to_scalp(locator, from, t, fit.from, fit.to);
    report.say("icp: " + std::to_string(icp.iterations) + " rounds, mean distance to the scalp" +
               format(" %.2f mm", 1000 * icp.mean_before) + format(" -> %.2f mm", 1000 * icp.mean_after));
    t = icp.transform;
  }
  report.say("transform (positions -> head, metres):");
  report.text += describe(t, "m");
  for (LabelledPoint &e : electrodes) e.p = t.apply(e.p);
}

// A position file's electrodes in the head's frame.
std::vector<LabelledPoint> positions_on_head(const ElectrodesOptions &o, const ScalpLocator &locator,
                                             const Positions &head, Report &report) {
  const Positions pos = read_in_metres(o.positions, o.units, o.transform);
  if (pos.unit_sphere && !o.scale)
    fail(o.positions, "", "the file gives directions only (a unit sphere): add --fiducials FILE --scale to size "
                          "and place them");
  std::vector<LabelledPoint> landmarks, electrodes;
  for (const LabelledPoint &p : pos.points) {
    if (o.names.which(p.label) >= 0) landmarks.push_back(p);
    if (!LandmarkNames::landmark_only(p.label)) electrodes.push_back(p);
  }
  report.say("positions: " + o.positions + ", " + std::to_string(electrodes.size()) + " electrodes, " +
             std::to_string(landmarks.size()) + " landmarks, units " + pos.unit_text);
  if (!o.transform.empty()) report.say("transform: " + o.transform);
  if (!o.fiducials.empty()) fit_to_head(o, locator, landmarks, head, electrodes, report);
  return electrodes;
}

// Each electrode onto its closest scalp point, written unless one is too far.
void project_and_write(const ElectrodesOptions &o, const ScalpLocator &locator,
                       const std::vector<LabelledPoint> &electrodes, const std::string &source, Report &report) {
  std::vector<ElectrodeEntry> entries;
  std::string far, table;
  int far_count = 0;
  double sum = 0, largest = -1;
  std::string largest_label;
  for (const LabelledPoint &e : electrodes) {
    const SurfacePoint q = locator.closest(e.p);
    const double mm = 1000 * q.distance;
    char row[160];
    snprintf(row, sizeof row, "%-10s %9d %10.6f %10.6f %8.2f\n", e.label.c_str(), q.triangle + 1, q.u, q.v, mm);
    table += row;
    // The first twenty by name, the rest counted: enough to see what went wrong.
    if (mm > o.max_distance_mm && ++far_count <= 20)
      far += (far.empty() ? "" : ", ") + e.label + format(" (%.1f mm)", mm);
    sum += mm;
    if (mm > largest) largest = mm, largest_label = e.label;
    entries.push_back({false, q.triangle, q.u, q.v, e.label, true});
  }
  if (far_count > 0)
    fail(source, "", std::to_string(far_count) + (far_count == 1 ? " electrode" : " electrodes") + " farther than " +
                         format("%g", o.max_distance_mm) + " mm from the scalp (--max-distance): " + far +
                         (far_count > 20 ? " and " + std::to_string(far_count - 20) + " more" : ""));
  write_electrode_file(o.output, entries);

  report.say("electrode   triangle          u          v   moved (mm)");
  report.text += table;
  report.say(std::to_string(entries.size()) + " electrodes written to " + o.output +
             format("; moved %.2f mm", sum / (double)entries.size()) + " on average, at most" +
             format(" %.2f mm", largest) + " (" + largest_label + ")");
}

int run(const ElectrodesOptions &o) {
  set_quiet(o.quiet);
  Report report;
  Mesh scalp = read_scalp(o.scalp);
  if (scalp.triangles.empty()) fail(o.scalp, "", "the scalp has no triangles");
  const UnitChoice su = choose_units("auto", scalp.vertices, o.scalp);
  for (Vec3 &v : scalp.vertices) v = su.scale * v;
  const ScalpLocator locator(scalp);
  report.say("scalp: " + o.scalp + ", " + std::to_string(scalp.vertices.size()) + " vertices, " +
             std::to_string(scalp.triangles.size()) + " triangles, units " + su.describe());

  Positions head;
  if (!o.fiducials.empty()) head = read_in_metres(o.fiducials, o.units, "");
  if (head.unit_sphere) fail(o.fiducials, "", "the landmarks on the head need coordinates, not directions");
  // Landmarks on the head lie on or near the scalp; far ones mean a unit or
  // a frame mixed up, which would otherwise show only as a poor fit.
  for (const LabelledPoint &p : head.points)
    if (o.names.which(p.label) >= 0 && locator.closest(p.p).distance > 0.05)
      fail(o.fiducials, p.place, p.label + " is" + format(" %.0f mm", 1000 * locator.closest(p.p).distance) +
                                     " from the scalp: are the units (--units) and the frame the head's?");

  const std::string source = o.system.empty() ? o.positions : o.fiducials;
  std::vector<LabelledPoint> electrodes = o.system.empty() ? positions_on_head(o, locator, head, report)
                                                           : layout_on_scalp(o, locator, head, report);
  electrodes = select(electrodes, o, source);
  check_labels(electrodes, source);
  project_and_write(o, locator, electrodes, source, report);
  if (!o.quiet) fputs(report.text.c_str(), stdout);
  return 0;
}

}  // namespace

int prep_electrodes(int argc, char **argv) {
  if (wants_help(argc, argv)) {
    fputs(electrodes_help, stdout);
    return 0;
  }
  return run(parse_electrodes_options(argc, argv));
}
