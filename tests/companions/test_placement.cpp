// Electrode files as brelix reads them: both forms, labels, refusals with the
// line named, positions on the scalp and the written file read back.  And
// electrode position files: every family, written here from its published
// layout, gives the same positions; broken files are refused at the line.
// And the geometry of placement: closest points on the scalp against a
// brute-force search, the closed-form fit on a known motion, and the 10-20
// family layouts on a sphere (against the exact positions) and on a deformed,
// symmetric head.  Last, brelix-prep electrodes as a user runs it: the file it
// writes makes brelix compute what a hand-made triangle electrode file makes
// it compute; positions in another frame come back through the fiducial fit;
// bad input is refused with status 2 and nothing written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <regex>
#include <stdexcept>

#include "cli/failure.h"
#include "placement/closest_point.h"
#include "placement/electrode_file.h"
#include "placement/positions.h"
#include "placement/rigid_fit.h"
#include "placement/system_layout.h"
#include "placement/vec3.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/headshape.h"

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
  // The line without a label reads back unlabelled.
  auto back = read_electrode_file(dir.file("t.elc"));
  ASSERT_EQ(back.size(), 2u);
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

TEST(PlacementGeometry, ClosestPointsOnASphere) {
  const Mesh m = as_mesh(icosphere(3, 0.09));
  const ScalpLocator locator(m);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> unif(0, 1);
  // Points 3 mm outside a triangle, along its normal, come back to it.
  for (size_t t = 0; t < m.triangles.size(); t += 37) {
    const Vec3 &a = m.vertices[(size_t)m.triangles[t][0]], &b = m.vertices[(size_t)m.triangles[t][1]],
               &c = m.vertices[(size_t)m.triangles[t][2]];
    double u = unif(rng), v = unif(rng);
    if (u + v > 1) u = 1 - u, v = 1 - v;
    const Vec3 on = (1 - u - v) * a + u * b + v * c;
    Vec3 n = unit(cross(b - a, c - a));
    if (dot(n, on) < 0) n = -1.0 * n;
    const SurfacePoint q = locator.closest(on + 0.003 * n);
    ASSERT_EQ(q.triangle, (int)t);
    EXPECT_NEAR(q.u, u, 1e-5);
    EXPECT_NEAR(q.v, v, 1e-5);
    EXPECT_NEAR(q.distance, 0.003, 1e-12);
    const Vec3 back = (1 - q.u - q.v) * a + q.u * b + q.v * c;
    EXPECT_LT(distance(back, on), 1e-5 * 0.09);
  }
  // Anywhere, near or far, inside or out: the grid search finds what
  // trying every triangle finds.
  std::uniform_real_distribution<double> box(-0.5, 0.5);
  for (int i = 0; i < 200; i++) {
    const Vec3 p = i < 100 ? Vec3{box(rng), box(rng), box(rng)} : Vec3{0.2 * box(rng), 0.2 * box(rng), 0.2 * box(rng)};
    double best = INFINITY;
    for (const Tri &t : m.triangles) {
      double u, v;
      const Vec3 &a = m.vertices[(size_t)t[0]], &b = m.vertices[(size_t)t[1]], &c = m.vertices[(size_t)t[2]];
      closest_on_triangle(p, a, b, c, u, v);
      best = std::min(best, distance(p, a + u * (b - a) + v * (c - a)));
    }
    EXPECT_NEAR(locator.closest(p).distance, best, 1e-12) << i;
  }
}

TEST(PlacementGeometry, FitUndoesAKnownMotion) {
  std::mt19937 rng(3);
  std::normal_distribution<double> g(0, 0.05);
  std::vector<Vec3> from;
  for (int i = 0; i < 20; i++) from.push_back({g(rng), g(rng), g(rng)});
  // Rotation of 40 degrees about (1, 2, 2)/3, then scale and shift.
  const double c = std::cos(0.7), s = std::sin(0.7);
  const Vec3 k = {1.0 / 3, 2.0 / 3, 2.0 / 3};
  Similarity truth;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      const double kx[3][3] = {{0, -k[2], k[1]}, {k[2], 0, -k[0]}, {-k[1], k[0], 0}};
      double kk = 0;
      for (int l = 0; l < 3; l++) kk += kx[i][l] * kx[l][j];
      truth.r[i][j] = (i == j) + s * kx[i][j] + (1 - c) * kk;
    }
  truth.t = {0.02, -0.15, 0.3};
  for (const bool scaled : {false, true}) {
    truth.scale = scaled ? 1.07 : 1.0;
    std::vector<Vec3> to;
    for (const Vec3 &p : from) to.push_back(truth.apply(p));
    const Similarity fit = fit_similarity(from, to, scaled);
    for (size_t i = 0; i < from.size(); i++) EXPECT_LT(distance(fit.apply(from[i]), to[i]), 1e-4 * 1e-3);
    EXPECT_NEAR(fit.scale, truth.scale, 1e-9);
  }
  // Three points on a line leave the rotation open.
  EXPECT_THROW(fit_similarity({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}}, false),
               std::invalid_argument);
}

std::map<std::string, Vec3> layout(const Mesh &m, const HeadLandmarks &lm, LayoutSystem s) {
  const ScalpLocator locator(m);
  std::map<std::string, Vec3> out;
  for (const LabelledPoint &p : build_layout(locator, lm, s)) {
    EXPECT_TRUE(out.emplace(p.label, p.p).second) << "twice: " << p.label;
    EXPECT_LT(locator.closest(p.p).distance, 1e-12) << p.label;
  }
  return out;
}

TEST(PlacementGeometry, TenTwentyOnASphere) {
  const double r = 0.09;
  const Mesh m = as_mesh(icosphere(3, r));
  const auto at = layout(m, {{0, r, 0}, {0, -r, 0}, {-r, 0, 0}, {r, 0, 0}}, LayoutSystem::s10_20);
  ASSERT_EQ(at.size(), 21u);
  // 10 % of a half circle is 18 degrees.
  const double c = r * std::cos(M_PI / 10), s = r * std::sin(M_PI / 10);
  const std::pair<const char *, Vec3> expected[] = {
      {"Cz", {0, 0, r}}, {"Fpz", {0, c, s}}, {"Oz", {0, -c, s}}, {"T7", {-c, 0, s}}, {"T8", {c, 0, s}}};
  for (const auto &[label, p] : expected) {
    ASSERT_TRUE(at.count(label)) << label;
    EXPECT_LT(distance(at.at(label), p), 0.001) << label;
  }
}

// The mirror image of a label across the midline: odd numbers to the next
// even one (Fp1 -> Fp2, T9h -> T10h), z stays.
std::string mirrored(const std::string &label) {
  size_t d = label.find_first_of("0123456789");
  if (d == std::string::npos) return label;
  size_t e = label.find_first_not_of("0123456789", d);
  const int n = std::stoi(label.substr(d, e - d));
  return label.substr(0, d) + std::to_string(n % 2 ? n + 1 : n - 1) + (e == std::string::npos ? "" : label.substr(e));
}

TEST(PlacementGeometry, TenFiveOnASymmetricHead) {
  const Mesh m = as_mesh(head_layer(3, HEAD_SCALP));
  const auto at = layout(m, {{0, 0.11, 0}, {0, -0.12, 0}, {-0.08, 0, 0}, {0.08, 0, 0}}, LayoutSystem::s10_5);
  const auto ten = layout(m, {{0, 0.11, 0}, {0, -0.12, 0}, {-0.08, 0, 0}, {0.08, 0, 0}}, LayoutSystem::s10_10);
  EXPECT_EQ(ten.size(), 79u);
  for (const auto &[label, p] : ten) EXPECT_TRUE(at.count(label)) << label << " missing from 10-5";
  int pairs = 0;
  for (const auto &[label, p] : at) {
    const std::string other = mirrored(label);
    ASSERT_TRUE(at.count(other)) << label;
    const Vec3 q = at.at(other);
    EXPECT_LT(distance(p, {-q[0], q[1], q[2]}), 1e-6) << label << " / " << other;  // on the midline when other == label
    pairs += other != label;
  }
  EXPECT_GT(pairs, 200);
  // Front to back along the midline, left to right across the head.
  EXPECT_GT(at.at("Fpz")[1], at.at("Fz")[1]);
  EXPECT_GT(at.at("Fz")[1], at.at("Pz")[1]);
  EXPECT_LT(at.at("C3")[0], at.at("C1")[0]);
  EXPECT_GT(at.at("Cz")[2], at.at("C3")[2]);
}

constexpr double SCALP_R = 0.09;  // m
// Electrodes given by hand as triangle and (u, v) of a 162-vertex sphere.
const struct {
  const char *label;
  int triangle;  // counted from 1
  double u, v;
} HAND[] = {{"A", 6, 0.2, 0.3}, {"B", 41, 0.05, 0.9}, {"Cz", 78, 0.6, 0.1}, {"D", 121, 1.0 / 3, 1.0 / 3}, {"E", 300, 0.1, 0.45}};

ProcResult prep(const TempDir &dir, const std::vector<std::string> &args) {
  std::vector<std::string> all = {"electrodes"};
  all.insert(all.end(), args.begin(), args.end());
  return run_process(BRELIX_PREP_EXE, all, "", dir.path());
}

// The hand-made points, 2 mm outside their triangles, in millimetres, moved
// by `move` (digitiser frame), with the fiducials first.
std::string positions_mm(const TriMesh &m, Similarity move = {}) {
  std::string s;
  auto row = [&](const std::string &label, Vec3 p) {
    p = move.apply(1000 * p);
    s += label + fmt(" %.10g %.10g %.10g\n", p[0], p[1], p[2]);
  };
  row("Nz", {0, SCALP_R, 0});
  row("LPA", {-SCALP_R, 0, 0});
  row("RPA", {SCALP_R, 0, 0});
  for (const auto &h : HAND) {
    const auto &t = m.dhk[(size_t)h.triangle - 1];
    Vec3 c[3];
    for (int k = 0; k < 3; k++) c[k] = {m.pnt[(size_t)t[k]][0], m.pnt[(size_t)t[k]][1], m.pnt[(size_t)t[k]][2]};
    const Vec3 on = (1 - h.u - h.v) * c[0] + h.u * c[1] + h.v * c[2];
    Vec3 n = unit(cross(c[1] - c[0], c[2] - c[0]));
    if (dot(n, on) < 0) n = -1.0 * n;
    row(h.label, on + 0.002 * n);
  }
  return s;
}

// The written file against the hand-made electrodes.
void expect_hand_made(const std::string &path, double tolerance) {
  const auto got = read_electrode_file(path);
  ASSERT_EQ(got.size(), std::size(HAND));
  for (size_t i = 0; i < got.size(); i++) {
    EXPECT_EQ(got[i].label, HAND[i].label);
    EXPECT_EQ(got[i].index + 1, HAND[i].triangle) << HAND[i].label;
    EXPECT_NEAR(got[i].u, HAND[i].u, tolerance) << HAND[i].label;
    EXPECT_NEAR(got[i].v, HAND[i].v, tolerance) << HAND[i].label;
  }
}

TEST(PlacementCommand, WrittenFileGivesBrelixTheHandMadeElectrodes) {
  TempDir dir;
  const TriMesh m = icosphere(2, SCALP_R);
  write_sphere(dir, "sphere.tri", 2, SCALP_R);
  write_file(dir.file("cap.sfp"), positions_mm(m));
  const ProcResult r = prep(dir, {"--scalp", "sphere.tri", "cap.sfp", "-o", "made.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("positions: cap.sfp, 5 electrodes, 3 landmarks, units mm (chosen from the extent"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("5 electrodes written to made.elc; moved 2.00 mm on average, at most 2.00 mm"), std::string::npos) << r.out;
  expect_hand_made(dir.file("made.elc"), 1e-5);
  const ProcResult some = prep(dir, {"--scalp", "sphere.tri", "cap.sfp", "-o", "some.elc", "--labels", "E,cz,A",
                                     "--drop", "a", "--quiet"});
  ASSERT_EQ(some.status, 0) << some.err;
  EXPECT_EQ(some.out, "");
  const auto kept = read_electrode_file(dir.file("some.elc"));
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].label + kept[1].label, "ECz");

  std::string hand = "5\n";
  for (const auto &h : HAND) hand += fmt("%g %f %f !", h.triangle, h.u, h.v) + h.label + "\n";
  write_file(dir.file("hand.elc"), hand);
  write_file(dir.file("sources.pos"), "2\n1 0 0 0.03\n2 0.02 -0.01 0.05\n");
  MatrixFile t[2];
  for (int k = 0; k < 2; k++) {
    const std::string elc = k ? "hand.elc" : "made.elc";
    const ProcResult b = run_brelix(dir.path(), {}, "sphere.tri\n1\n\n" + elc + "\nsources.pos\n\nt" + elc + ".mat\n");
    ASSERT_EQ(b.status, 0) << b.err;
    ASSERT_TRUE(read_matrix_file(dir.file("t" + elc + ".mat"), t[k]));
  }
  ASSERT_EQ(t[0].rows, 5);
  ASSERT_EQ(t[0].cols, t[1].cols);
  double size = 0;
  for (float x : t[1].values) size = std::max(size, (double)std::fabs(x));
  for (size_t i = 0; i < t[0].values.size(); i++) EXPECT_NEAR(t[0].values[i], t[1].values[i], 1e-5 * size) << i;
}

TEST(PlacementCommand, FiducialFitBringsAnotherFrameBack) {
  TempDir dir;
  const TriMesh m = icosphere(2, SCALP_R);
  write_sphere(dir, "sphere.tri", 2, SCALP_R);
  // The digitiser's frame: turned 30 degrees about z, shifted, in mm.
  Similarity move;
  const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6);
  move.r[0][0] = c, move.r[0][1] = -s, move.r[1][0] = s, move.r[1][1] = c;
  move.t = {12, -40, 7};
  write_file(dir.file("cap.csv"), "label,x,y,z\n" + std::regex_replace(positions_mm(m, move), std::regex(" "), ","));
  write_file(dir.file("head.txt"), "Nz 0 0.09 0\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  ProcResult r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--fiducials", "head.txt", "-o", "fit.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_hand_made(dir.file("fit.elc"), 1e-5);
  EXPECT_NE(r.out.find("rotation 30.000 degrees, scale 1.000000"), std::string::npos) << r.out;

  // The same motion undone by a 4x4 transform acting on millimetres.
  std::string undo;
  for (int i = 0; i < 3; i++) {
    double shift = 0;
    for (int k = 0; k < 3; k++) shift -= move.r[k][i] * move.t[k];
    undo += fmt("%.17g %.17g %.17g ", move.r[0][i], move.r[1][i], move.r[2][i]) + fmt("%.17g\n", shift);
  }
  write_file(dir.file("undo.txt"), undo + "0 0 0 1\n");
  r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--transform", "undo.txt", "--units", "mm", "-o", "undone.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_hand_made(dir.file("undone.elc"), 1e-5);

  // Directions only, sized and placed by the fit, with electrodes as landmarks.
  write_file(dir.file("cap.loc"), "1 0 0.4 Fpz\n2 -90 0.4 T7\n3 90 0.4 T8\n4 0 0 Cz\n5 180 0.4 Oz\n");
  const double y = SCALP_R * std::sin(0.4 * M_PI), z = SCALP_R * std::cos(0.4 * M_PI);
  write_file(dir.file("ten20.txt"), fmt("Fpz 0 %f %f\n", y, z) + fmt("T7 %f 0 %f\n", -y, z) + fmt("T8 %f 0 %f\n", y, z));
  r = prep(dir, {"--scalp", "sphere.tri", "cap.loc", "--fiducials", "ten20.txt", "--scale", "--nasion", "Fpz", "--lpa",
                 "T7", "--rpa", "T8", "-o", "loc.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("scale 0.0900"), std::string::npos) << r.out;
  const auto loc = read_electrode_file(dir.file("loc.elc"));
  ASSERT_EQ(loc.size(), 5u);
  EXPECT_EQ(loc[0].label + loc[3].label, "FpzCz");

  // Landmarks on the head 2 mm off: the fit still holds, its residuals say so.
  write_file(dir.file("noisy.txt"), "Nz 0.002 0.09 0\nLPA -0.09 0 -0.002\nRPA 0.09 0.002 0\n");
  r = prep(dir, {"--scalp", "sphere.tri", "cap.csv", "--fiducials", "noisy.txt", "--icp", "-o", "noisy.elc"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::smatch fit, icp;
  ASSERT_TRUE(std::regex_search(r.out, fit, std::regex("fiducial fit \\(rigid\\): residuals nasion ([0-9.]+) mm, "
                                                       "LPA ([0-9.]+) mm, RPA ([0-9.]+) mm; rms ([0-9.]+) mm")))
      << r.out;
  EXPECT_GT(std::stod(fit[4]), 0.5);
  EXPECT_LT(std::stod(fit[4]), 2.5);
  ASSERT_TRUE(std::regex_search(r.out, icp, std::regex("icp: [0-9]+ rounds, mean distance to the scalp ([0-9.]+) mm -> ([0-9.]+) mm")));
  EXPECT_LE(std::stod(icp[2]), std::stod(icp[1]));
}

TEST(PlacementCommand, BadInputIsRefusedAndNothingWritten) {
  TempDir dir;
  write_sphere(dir, "sphere.tri", 2, SCALP_R);
  write_file(dir.file("twice.sfp"), "Fz 0 0 90\nCz 0 10 89\nfz 0 -10 89\n");
  write_file(dir.file("far.sfp"), "Fz 0 0 90\nCz 0 0 150\nPz 0 0 -125\n");
  write_file(dir.file("long.sfp"), "Fz 0 0 90\nVeryLongLabel 0 10 89\n");
  write_file(dir.file("nofid.sfp"), "Fz 0 0 90\nLPA -90 0 0\nRPA 90 0 0\n");
  write_file(dir.file("head.txt"), "Nz 0 0.09 0\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  write_file(dir.file("flat.txt"), "Nz 0 0.09 0\nIz 0 0.09 0.001\nLPA -0.09 0 0\nRPA 0.09 0 0\n");
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"twice.sfp"}, "twice.sfp: line 3: label 'fz' also names the electrode at line 1"},
      {{"far.sfp", "--units", "mm"}, "far.sfp: 2 electrodes farther than 10 mm from the scalp (--max-distance): Cz (60.0 mm), Pz (35.0 mm)"},
      {{"long.sfp"}, "long.sfp: line 2: label 'VeryLongLabel' is longer than the 10 characters brelix keeps"},
      {{"nofid.sfp", "--fiducials", "head.txt"}, "nofid.sfp: no nasion (a label Nz, Nasion, FidNz; other names with --nasion)"},
      // Metres read as millimetres: the landmark sits at the centre, 88 mm
      // from the faces of the 162-vertex sphere.
      {{"nofid.sfp", "--fiducials", "head.txt", "--units", "mm"},
       "head.txt: line 1: Nz is 88 mm from the scalp: are the units (--units) and the frame the head's?"},
      {{"--system", "10-20", "--fiducials", "flat.txt"},
       "flat.txt: the landmarks do not span a head: nasion, inion and the ears must be apart"},
      {{"--system", "10-20"}, "--system needs --fiducials (nasion, inion, LPA and RPA on the scalp) (see --help)"},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {"--scalp", "sphere.tri", "-o", "out.elc"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ProcResult r = prep(dir, args);
    EXPECT_EQ(r.status, 2) << c.message;
    EXPECT_EQ(r.err, "brelix-prep electrodes: " + c.message + "\n");
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(file_exists(dir.file("out.elc"))) << c.message;
  }
}

TEST(PlacementCommand, HelpShowsEveryOptionWithAnExample) {
  TempDir dir;
  const ProcResult r = prep(dir, {"--help"});
  ASSERT_EQ(r.status, 0);
  for (const char *o : {"--scalp", "--output", "--units", "--transform", "--fiducials", "--scale", "--icp", "--nasion",
                        "--lpa", "--rpa", "--inion", "--system", "--labels", "--drop", "--max-distance", "--quiet"})
    EXPECT_NE(r.out.find(o), std::string::npos) << o;
  EXPECT_NE(r.out.find("example:\n  brelix-prep electrodes --scalp head"), std::string::npos);
}

}  // namespace
