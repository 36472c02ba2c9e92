// Electrode position files: every family, written here from its published
// layout, gives the same positions; broken files are refused at the line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "cli/failure.h"
#include "placement/positions.h"
#include "placement/vec3.h"
#include "tests/support/files.h"

namespace {

struct Site {
  const char *label;
  double theta, phi;  // degrees: from the vertex (negative on the left), from the right ear to the nose
};
const Site SITES[] = {{"Fp1", -92, -72}, {"Fz", 46, 90}, {"Cz", 0, 0}, {"T8", 92, 0}, {"O2", 92, -72}, {"P3", -60, 51}};
constexpr double R = 90;  // mm

std::string fmt(const char *f, double a, double b = 0, double c = 0) {
  char buf[128];
  snprintf(buf, sizeof buf, f, a, b, c);
  return buf;
}

Vec3 site_mm(const Site &s) { return from_theta_phi(s.theta, s.phi, R); }

// Every family written from the same sites: name, contents, scale to mm (0:
// directions only).
std::vector<std::tuple<std::string, std::string, double>> fixtures() {
  std::string elc = "# ASA electrode file\nReferenceLabel\tavg\nUnitPosition\tmm\nNumberPositions=\t6\nPositions\n";
  std::string elc_cm = "UnitPosition cm\nPositions\n";
  std::string sfp, csv = "x,y,z,name\n", tsv = "nr\tlabel\tx\ty\tz\n", elp, bvef, loc;
  bvef = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Electrodes defaultversion=\"1.0\">\n";
  int n = 0;
  for (const Site &s : SITES) {
    const Vec3 p = site_mm(s);
    elc += fmt("%.10g %.10g %.10g\n", p[0], p[1], p[2]);
    elc_cm += std::string(s.label) + " : " + fmt("%.10g\t%.10g\t%.10g\n", p[0] / 10, p[1] / 10, p[2] / 10);
    sfp += std::string(s.label) + fmt(" %.10g %.10g %.10g\n", p[0], p[1], p[2]);
    csv += fmt("%.10g,%.10g,%.10g,", p[0], p[1], p[2]) + "\"" + s.label + "\"\n";
    tsv += std::to_string(++n) + "\t" + s.label + fmt("\t%.10g\t%.10g\t%.10g\n", p[0], p[1], p[2]);
    elp += std::string("EEG ") + s.label + fmt(" %.10g %.10g %.10g\n", s.theta, s.phi, R);
    bvef += std::string("  <Electrode>\n    <Name>") + s.label + "</Name>\n" + fmt("    <Theta>%.10g</Theta>\n", s.theta) +
            fmt("    <Phi>%.10g</Phi>\n    <Radius>%.10g</Radius>\n  </Electrode>\n", s.phi, R);
    // Polar: angle from the nose towards the right ear, arc from the vertex.
    const double angle = std::atan2(p[0], p[1]) * 180 / M_PI, radius = std::acos(p[2] / R) / M_PI;
    loc += std::to_string(n) + fmt("\t%.12g\t%.12g\t", angle, radius) + s.label + "\n";
  }
  elc += "Labels\n";
  for (const Site &s : SITES) elc += std::string(s.label) + "\n";
  elp += "POL EOG1 90 90\n";  // another channel type: left out
  bvef += "  <Electrode><Name>Gnd</Name><Theta>0</Theta><Phi>0</Phi><Radius>0</Radius></Electrode>\n</Electrodes>\n";
  return {{"a.elc", elc, 1},   {"b.elc", elc_cm, 10}, {"c.sfp", sfp, 1},   {"d.csv", csv, 1},
          {"e.tsv", tsv, 1},   {"f.elp", elp, 1},     {"g.bvef", bvef, 1}, {"h.locs", loc, 0}};
}

TEST(PlacementPositions, EveryFamilyGivesTheSamePositions) {
  TempDir dir;
  for (const auto &[name, body, to_mm] : fixtures()) {
    write_file(dir.file(name), body);
    const PositionFile f = read_position_file(dir.file(name));
    ASSERT_EQ(f.points.size(), std::size(SITES)) << name;
    EXPECT_EQ(f.unit_sphere, to_mm == 0) << name;
    EXPECT_EQ(f.unit, name == "a.elc" ? "mm" : name == "b.elc" ? "cm" : "") << name;
    for (size_t i = 0; i < f.points.size(); i++) {
      EXPECT_EQ(f.points[i].label, SITES[i].label) << name;
      const Vec3 got = to_mm ? to_mm * f.points[i].p : R * f.points[i].p;
      EXPECT_LT(distance(got, site_mm(SITES[i])), 1e-6) << name << " " << SITES[i].label;
    }
  }
}

TEST(PlacementPositions, BrokenFilesAreRefusedAtTheLine) {
  TempDir dir;
  const struct {
    std::string name, body, message;
  } cases[] = {
      {"a.elc", "NumberPositions= 3\nPositions\n1 2 3\n4 5 6\nLabels\nA B\n", "line 5: the Positions block ends after 2 of 3 positions"},
      {"b.elc", "NumberPositions= 2\nPositions\n1 2 3\n4 5 6\nLabels\nA\n", "line 6: the Labels block holds 1 labels for 2 positions"},
      {"c.elc", "UnitPosition inch\n", "line 1: unknown unit 'inch' (m, cm or mm)"},
      {"d.sfp", "Fz 1 2 3\nCz 1 two 3\n", "line 2: 'two' is not a coordinate"},
      {"e.csv", "label,x,y\nFz,1,2\n", "line 1: the header row must name a label column and the columns x, y and z"},
      {"f.elp", "%N elp\n", "line 1: a digitiser .elp file (Cartesian, with % records): export it as .sfp or a label x y z table"},
      {"g.bvef", "<Electrodes><Electrode><Name>Fz</Name>", "line 1: not readable as XML: no element found"},
      {"h.loc", "1 20 0.3\n", "line 1: expected number, angle, radius and label"},
      {"i.xyz", "<html>\n", "unknown position format: not .elc .sfp .txt .csv .tsv .elp .bvef .loc .locs, nor rows of label x y z"},
      {"j.sfp", "\n\n", "no electrode positions in the file"},
  };
  for (const auto &c : cases) {
    write_file(dir.file(c.name), c.body);
    try {
      read_position_file(dir.file(c.name));
      ADD_FAILURE() << "accepted " << c.name;
    } catch (const InputError &e) {
      EXPECT_EQ(e.what(), dir.file(c.name) + ": " + c.message);
    }
  }
}

}  // namespace
