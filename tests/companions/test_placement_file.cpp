// Electrode files as brelix reads them: both forms, labels, refusals with the
// line named, positions on the scalp and the written file read back.  And
// electrode position files: every family, written here from its published
// layout, gives the same positions; broken files are refused at the line.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "cli/failure.h"
#include "placement/electrode_file.h"
#include "placement/positions.h"
#include "placement/vec3.h"
#include "tests/support/files.h"

namespace {

// `read` must refuse `body`, written to `name`, saying exactly "PATH: message".
template <class F>
void expect_refusal(const TempDir &dir, const std::string &name, const std::string &body, const std::string &message,
                    F read) {
  write_file(dir.file(name), body);
  try {
    read(dir.file(name));
    ADD_FAILURE() << "accepted " << name << ": " << body;
  } catch (const InputError &e) {
    EXPECT_EQ(e.what(), dir.file(name) + ": " + message);
  }
}

// A unit square of two triangles in the plane z = 1.
Mesh square() { return {{{0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}}, {{0, 1, 2}, {1, 3, 2}}}; }

TEST(ElectrodeFile, ReadsBothFormsAsBrelixDoes) {
  TempDir dir;
  write_file(dir.file("t.elc"), "3\n1 0.25 0.5 !Fz\n2 0 0  !  Cz  \r\n2 0.5 0.5 !ABCDEFGHIJKL\nignored\n");
  auto t = read_electrode_file(dir.file("t.elc"));
  ASSERT_EQ(t.size(), 3u);
  EXPECT_FALSE(t[0].on_vertex);
  EXPECT_EQ(t[0].index, 0);
  EXPECT_DOUBLE_EQ(t[0].u, 0.25);
  EXPECT_DOUBLE_EQ(t[0].v, 0.5);
  EXPECT_EQ(t[0].label, "Fz");
  EXPECT_EQ(t[1].label, "Cz");
  EXPECT_EQ(t[2].label, "ABCDEFGHIJ");  // brelix keeps 10 characters
  EXPECT_EQ(electrode_position(t[0], square()), (Vec3{0.25, 0.5, 1.0}));
  EXPECT_EQ(electrode_position(t[2], square()), (Vec3{0.5, 1.0, 1.0}));  // halfway between corners 3 and 2

  // Two numbers on the first electrode line: vertex form, no labels.
  write_file(dir.file("v.elc"), "2\n1 4\n2 1 !x\n");
  auto v = read_electrode_file(dir.file("v.elc"));
  ASSERT_EQ(v.size(), 2u);
  EXPECT_TRUE(v[0].on_vertex && v[1].on_vertex);
  EXPECT_EQ(v[0].index, 3);
  EXPECT_EQ(v[1].label, "E2");
  EXPECT_FALSE(v[1].has_label);
  EXPECT_EQ(electrode_position(v[0], square())[0], 1.0);
}

TEST(ElectrodeFile, RefusesWhatBrelixWouldNotRead) {
  TempDir dir;
  const std::string long_line = "1 0.1 0.1 !" + std::string(150, 'x');
  const struct {
    std::string body, message;
  } cases[] = {
      {"", "line 1: empty file: the number of electrodes is missing"},
      {"two\n1 0 0\n", "line 1: the number of electrodes is missing"},
      {"0\n", "line 1: the number of electrodes must be at least 1, not 0"},
      {"3\n1 0 0\n2 0 0\n", "line 4: the file ends after 2 of its 3 electrodes"},
      {"2\n1 0 0\n2 0\n", "line 3: expected a triangle number and the local coordinates u and v"},
      {"1\n1 nan 0\n", "line 2: u and v must be finite numbers"},
      {"1\n0 0.1 0.1\n", "line 2: triangle numbers count from 1, not 0"},
      {"1\n1 0\n", "line 2: vertex numbers count from 1, not 0"},
      {"1\n1 99999999999\n", "line 2: expected a running number and a vertex number"},
      {"1\n" + long_line + "\n", "line 2: line longer than 158 characters"},
  };
  for (const auto &c : cases)
    expect_refusal(dir, "bad.elc", c.body, c.message, [](const std::string &p) { read_electrode_file(p); });
  EXPECT_THROW(read_electrode_file(dir.file("missing.elc")), InputError);
}

TEST(ElectrodeFile, PositionsOutsideTheScalpAreRefused) {
  const Mesh m = square();
  for (const ElectrodeEntry &e : {ElectrodeEntry{false, 2, 0, 0, "Oz", true}, ElectrodeEntry{true, 4, 0, 0, "E1", false},
                                  ElectrodeEntry{false, -1, 0, 0, "Pz", true}})
    EXPECT_THROW(electrode_position(e, m), InputError) << e.label;
  Mesh broken = m;
  broken.triangles[0][2] = 7;
  EXPECT_THROW(electrode_position(ElectrodeEntry{false, 0, 0, 0, "Fz", true}, broken), InputError);
}

TEST(ElectrodeFile, WrittenFilesReadBackExactly) {
  TempDir dir;
  const std::vector<ElectrodeEntry> tri = {{false, 1279, 0.123456789, 1.0 / 3, "Fp1", true},
                                           {false, 0, 0, 0, "E2", false}};
  write_electrode_file(dir.file("t.elc"), tri);
  EXPECT_EQ(read_file(dir.file("t.elc")), "2\n1280 0.123456789 0.333333333 !Fp1\n1 0 0\n");
  auto back = read_electrode_file(dir.file("t.elc"));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].index, 1279);
  EXPECT_EQ((float)back[0].u, (float)0.123456789);
  EXPECT_EQ(back[1].label, "E2");
  EXPECT_FALSE(back[1].has_label);

  write_electrode_file(dir.file("v.elc"), {{true, 4, 0, 0, "E1", false}, {true, 0, 0, 0, "E2", false}});
  EXPECT_EQ(read_file(dir.file("v.elc")), "2\n1 5\n2 1\n");

  FILE *sink = tmpfile();
  EXPECT_THROW(write_electrodes(sink, {}), std::invalid_argument);
  EXPECT_THROW(write_electrodes(sink, {tri[0], {true, 1, 0, 0, "E2", false}}), std::invalid_argument);
  EXPECT_THROW(write_electrodes(sink, {{false, 1, 0, 0, "ABCDEFGHIJK", true}}), std::invalid_argument);
  fclose(sink);
}

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
  for (const auto &c : cases)
    expect_refusal(dir, c.name, c.body, c.message, [](const std::string &p) { read_position_file(p); });
}

}  // namespace
