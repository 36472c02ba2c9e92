// Pictures read back pixel by pixel: the figures the topomap and dipoles
// commands build from their files, rendered into memory; and the geometry
// under them: plane cuts of closed surfaces, contour lines of sampled fields,
// round tick values with SI prefixes.  And brelix-plot as a user runs it:
// every command writes each picture format, and bad input ends with a
// message and status 2 and leaves nothing behind.
#include <expat.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <set>

#include "cli/failure.h"
#include "plotting/colormap.h"
#include "plotting/colour_bar.h"
#include "plotting/contours.h"
#include "plotting/dense_solve.h"
#include "plotting/dipoles_command.h"
#include "plotting/figure.h"
#include "plotting/head_view.h"
#include "plotting/matrix_file.h"
#include "plotting/position_file.h"
#include "plotting/section.h"
#include "plotting/spherical_spline.h"
#include "plotting/topomap_command.h"
#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/process.h"
#include "tools/headshape.h"

namespace {

template <class F>
auto build(F builder, std::vector<std::string> args) {
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  std::string out;
  return builder((int)argv.size(), argv.data(), out);
}

struct Image {
  cairo_surface_t *s;
  ~Image() { cairo_surface_destroy(s); }
  std::array<int, 3> at(int x, int y) const {
    const unsigned char *row = cairo_image_surface_get_data(s) + (size_t)y * cairo_image_surface_get_stride(s);
    uint32_t p;
    memcpy(&p, row + 4 * x, 4);
    return {(int)(p >> 16 & 255), (int)(p >> 8 & 255), (int)(p & 255)};
  }
};

// Where on the diverging map (-1..1) a pixel's colour lies.
double map_position(std::array<int, 3> c) {
  double best = HUGE_VAL, where = 0;
  for (int i = 0; i <= 400; i++) {
    Rgb m = diverging_colour(i / 200.0 - 1);
    double d = std::hypot(m.r * 255 - c[0], m.g * 255 - c[1], m.b * 255 - c[2]);
    if (d < best) best = d, where = i / 200.0 - 1;
  }
  return where;
}

bool near(std::array<int, 3> c, const double rgb[3], int tol) {
  for (int k = 0; k < 3; k++)
    if (std::abs(c[k] - (int)std::lround(rgb[k] * 255)) > tol) return false;
  return true;
}

TEST(PlotTopomap, ExtremeElectrodesTakeTheMapsEndsAndEqualMapsLeaveAUniformResidual) {
  TempDir dir;
  std::string scalp = write_sphere(dir, "scalp.tri", 2, 1.0);
  TriMesh sphere = icosphere(2, 1.0);
  // Electrodes on the upper vertices; sample 2 holds -x, so the leftmost is the maximum.
  std::vector<int> chosen;
  for (size_t v = 0; v < sphere.pnt.size(); v++)
    if (sphere.pnt[v][2] > -0.1) chosen.push_back((int)v);
  std::string elc = std::to_string(chosen.size()) + "\n";
  std::vector<float> data;
  for (size_t e = 0; e < chosen.size(); e++) {
    elc += std::to_string(e + 1) + " " + std::to_string(chosen[e] + 1) + "\n";
    data.insert(data.end(), {sphere.pnt[chosen[e]][0], -sphere.pnt[chosen[e]][0]});
  }
  write_file(dir.file("e.elc"), elc);
  write_file(dir.file("d.mat"), matrix_bytes((int)chosen.size(), 2, data, "sample frequency\n100 Hz\n"));

  Topomap t = build(topomap_from_command_line,
                    {"topomap", "--electrodes", dir.file("e.elc"), "--head", scalp, "--data", dir.file("d.mat"),
                     "--model", dir.file("d.mat"), "--time", "0.01", "-o", dir.file("t.png")});
  ASSERT_EQ(t.panels.size(), 3u);
  ASSERT_TRUE(t.relative_difference);
  EXPECT_EQ(*t.relative_difference, 0);
  t.show_dots = t.show_labels = t.show_contours = false;
  TopomapLayout l = topomap_layout(t);
  Image img{render_image(l.width, l.height, [&](cairo_t *cr) { draw_topomap(cr, t, l); })};

  const auto &v = t.panels[0].values;
  const size_t hi = std::max_element(v.begin(), v.end()) - v.begin(), lo = std::min_element(v.begin(), v.end()) - v.begin();
  EXPECT_LT(t.electrodes[hi][0], -0.9);  // the second sample was chosen
  for (int panel : {0, 1}) {
    auto p = topomap_pixel(l, panel, t.electrodes[hi]), q = topomap_pixel(l, panel, t.electrodes[lo]);
    EXPECT_GT(map_position(img.at((int)p[0], (int)p[1])), 0.75) << "panel " << panel;
    EXPECT_LT(map_position(img.at((int)q[0], (int)q[1])), -0.75) << "panel " << panel;
  }
  const Rgb zero = diverging_colour(0);
  const double neutral[3] = {zero.r, zero.g, zero.b};
  int checked = 0;
  for (int y = 0; y < l.height; y++)
    for (int x = 0; x < l.width; x++)
      if (std::hypot(x + 0.5 - l.centres[2][0], y + 0.5 - l.centres[2][1]) < 0.97 * l.radius_px) {
        ASSERT_TRUE(near(img.at(x, y), neutral, 2)) << "residual pixel " << x << ", " << y;
        checked++;
      }
  EXPECT_GT(checked, 50000);
}

TEST(PlotSections, SphereCutsAreCirclesAndTheDipoleSitsWhereItsCoordinatesSay) {
  TempDir dir;
  const double R = 0.1;
  write_sphere(dir, "brain.tri", 3, R);
  write_file(dir.file("geometry.ans"), dir.file("brain.tri") + "\n0.33\n\n");
  const Vec3 dip{0.03, -0.02, 0.04};
  write_file(dir.file("fit.pos"), "1\n1 0.03 -0.02 0.04\n");
  DipoleSections s = build(sections_from_command_line,
                           {"dipoles", "--head", dir.path(), "--fit", dir.file("fit.pos"), "-o", dir.file("s.png")});
  SectionsLayout l = sections_layout(s);
  Image img{render_image(l.width, l.height, [&](cairo_t *cr) { draw_sections(cr, s, l); })};
  double line_rgb[3];
  surface_line_colour(0, 1, line_rgb);
  // Per panel, the world axes that run right and up on the picture.
  const struct { int right, up; } axes[] = {{0, 1}, {0, 2}, {1, 2}};
  for (int k = 0; k < 3; k++) {
    const auto c = axes[k];
    const SectionPanel &P = l.panels[k];
    std::vector<std::array<double, 2>> line, marker;
    for (int y = (int)P.top + 1; y < (int)(P.top + P.size) - 1; y++)
      for (int x = (int)P.left + 1; x < (int)(P.left + P.size) - 1; x++) {
        if (near(img.at(x, y), line_rgb, 40)) line.push_back({x + 0.5, y + 0.5});
        if (near(img.at(x, y), fitted_marker_rgb, 8)) marker.push_back({x + 0.5, y + 0.5});
      }
    ASSERT_GT(line.size(), 500u) << P.name;
    ASSERT_GT(marker.size(), 60u) << P.name;
    std::array<double, 2> mark{0, 0};
    for (auto &p : marker) mark[0] += p[0] / marker.size(), mark[1] += p[1] / marker.size();
    // Least-squares circle x^2 + y^2 = 2ax + 2by + c through the line's pixels.
    std::vector<double> a(9, 0.0), b(3, 0.0);
    for (auto &p : line) {
      double row[3] = {2 * p[0], 2 * p[1], 1}, rhs = p[0] * p[0] + p[1] * p[1];
      for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) a[i * 3 + j] += row[i] * row[j];
        b[i] += row[i] * rhs;
      }
    }
    std::vector<double> fit = DenseLu(a, 3).solve(b);
    std::array<double, 2> centre{fit[0], fit[1]};
    double fitted_radius = std::sqrt(fit[2] + fit[0] * fit[0] + fit[1] * fit[1]);
    double offset = dip[3 - c.right - c.up];  // the cut's distance from the sphere's centre
    double radius = std::sqrt(R * R - offset * offset) * l.scale;
    EXPECT_NEAR(fitted_radius, radius, 1.0) << P.name;
    // Up to the line's width and the sphere's facets.
    size_t astray = 0;
    for (auto &p : line) astray += std::fabs(std::hypot(p[0] - centre[0], p[1] - centre[1]) - radius) > 3.0;
    EXPECT_EQ(astray, 0u) << P.name;
    EXPECT_NEAR(mark[0], centre[0] + dip[c.right] * l.scale, 1.0) << P.name;
    EXPECT_NEAR(mark[1], centre[1] - dip[c.up] * l.scale, 1.0) << P.name;
  }
}

TEST(PlotHead, ScalpColoursAndElectrodesFaceTheRightWayInEachView) {
  HeadPicture h;
  h.surfaces = {as_mesh(icosphere(2, 1.0))};
  const auto &V = h.surfaces[0].vertices;
  std::vector<double> v;
  for (const Vec3 &p : V) v.push_back(p[0]);  // the subject's right positive
  h.scalp_potential = v;
  // One electrode on the face, one on the back away from the line of sight through the first.
  for (const Vec3 &p : V)
    if (p[1] > 0.8 && h.electrodes.empty()) h.electrodes.push_back(p);
  for (const Vec3 &p : V)
    if (p[1] < -0.8 && std::hypot(p[0] - h.electrodes[0][0], p[2] - h.electrodes[0][2]) > 0.2 &&
        h.electrodes.size() == 1)
      h.electrodes.push_back(p);
  ASSERT_EQ(h.electrodes.size(), 2u);
  h.show_labels = false;
  h.views = {"top", "front", "left", "right"};
  HeadLayout l = head_layout(h);
  Image img{render_image(l.width, l.height, [&](cairo_t *cr) { draw_head(cr, h, l); })};
  // The side of the picture where +x potentials show: right from above, left
  // from the front; the side views see one sign only.
  const double right_side[] = {1, -1, 0, 0};
  for (size_t c = 0; c < 4; c++) {
    const auto &cell = l.cells[c];
    ASSERT_EQ(cell.view, h.views[c]);
    const double off = 0.5 * l.scale;  // half the sphere's radius, in pixels
    if (right_side[c] != 0) {
      EXPECT_GT(map_position(img.at((int)(cell.cx + right_side[c] * off), (int)cell.cy)), 0.2) << cell.view;
      EXPECT_LT(map_position(img.at((int)(cell.cx - right_side[c] * off), (int)cell.cy)), -0.2) << cell.view;
    } else {
      double sign = cell.view == std::string("right") ? 1 : -1;
      EXPECT_GT(sign * map_position(img.at((int)cell.cx, (int)cell.cy)), 0.5) << cell.view;
    }
  }
  // From the front the face electrode shows as a dark dot; the back one does not show through.
  auto dark = [&](std::array<double, 2> p) {
    auto c = img.at((int)p[0], (int)p[1]);
    return c[0] < 60 && c[1] < 60 && c[2] < 60;
  };
  EXPECT_TRUE(dark(head_pixel(l, 1, h.electrodes[0])));
  EXPECT_FALSE(dark(head_pixel(l, 1, h.electrodes[1])));
}

TEST(PlotSections, MovingDipolesStandWhereTheSolutionPutsThemAtTheSample) {
  TempDir dir;
  write_sphere(dir, "brain.tri", 2, 0.1);
  write_file(dir.file("geometry.ans"), dir.file("brain.tri") + "\n0.33\n\n");
  write_file(dir.file("start.pos"), "2\n1 0 0 0\n2 0 0 0\n1 position moving\n2 position moving\n");
  // Rows: both moments, then both positions; row r holds 0.01 r, then 0.01 r + 0.005.
  std::vector<float> m;
  for (int r = 0; r < 12; r++) m.insert(m.end(), {0.01f * r, 0.01f * r + 0.005f});
  write_file(dir.file("fit.mat"), matrix_bytes(12, 2, m, ""));
  DipoleSections s = build(sections_from_command_line,
                           {"dipoles", "--head", dir.path(), "--fit", dir.file("start.pos"), "--moments",
                            dir.file("fit.mat"), "--sample", "2", "--dipole", "2", "-o", dir.file("s.png")});
  ASSERT_EQ(s.fitted.size(), 2u);
  for (int k = 0; k < 2; k++)
    for (int c = 0; c < 3; c++) EXPECT_FLOAT_EQ(s.fitted[k].position[c], m[(6 + 3 * k + c) * 2 + 1]);
  EXPECT_EQ(s.cut, s.fitted[1].position);
  ASSERT_TRUE(s.fitted[1].moment);
  EXPECT_FLOAT_EQ((*s.fitted[1].moment)[2], m[5 * 2 + 1]);
}

TEST(PlotSpline, PassesThroughTheElectrodesAndKeepsAConstant) {
  TriMesh m = icosphere(1, 1.0);
  std::vector<Vec3> dirs;
  std::vector<double> wave;
  for (auto &p : m.pnt) {
    double n = std::hypot(p[0], p[1], p[2]);
    dirs.push_back({p[0] / n, p[1] / n, p[2] / n});
    wave.push_back(dirs.back()[0] * dirs.back()[2] + 0.5 * dirs.back()[1]);
  }
  SphericalSpline s(dirs);
  std::vector<double> cw = s.fit(wave);
  for (size_t i = 0; i < dirs.size(); i++) EXPECT_NEAR(s.evaluate(cw, dirs[i]), wave[i], 1e-4);
  EXPECT_NEAR(s.evaluate(s.fit(std::vector<double>(dirs.size(), 2.5)), {0.6, 0, 0.8}), 2.5, 1e-9);
}

TEST(PlotMatrixFile, BothByteOrdersAndTextReadAlikeAndBadCountsNameTheFile) {
  TempDir dir;
  write_file(dir.file("own.mat"), matrix_bytes(2, 2, {1, -2, 3.5f, 4}, "Sample Frequency\n250 Hz\n"));
  write_file(dir.file("other.mat"), matrix_bytes(2, 2, {1, -2, 3.5f, 4}, "Sample Frequency\n250 Hz\n", true));
  write_file(dir.file("text.mat"), "2 2\n1 -2\n3.5 4\n\nsample freq\n250\n");
  for (const char *name : {"own.mat", "other.mat", "text.mat"}) {
    MatrixFile m = read_matrix_file(dir.file(name));
    EXPECT_EQ(m.values, (std::vector<float>{1, -2, 3.5f, 4})) << name;
    EXPECT_EQ(sample_frequency(m).value_or(0), 250) << name;
  }
  const struct { const char *name; std::string contents, message; } bad[] = {
      {"short.mat", matrix_bytes(3, 2, {1, 2, 3}), "byte 8: 3 x 2 values announced"},
      {"nan.mat", matrix_bytes(1, 2, {1, NAN}), "row 1, column 2: the value is not a finite number"},
      {"negative.mat", matrix_bytes(-2, 3, {}), "byte 0"},
      {"word.mat", "2 1\n1.5\nx\n", "value 2: missing or not a number"},
      {"empty.mat", "", "line 1: empty file"}};
  for (const auto &b : bad) {
    write_file(dir.file(b.name), b.contents);
    try {
      read_matrix_file(dir.file(b.name));
      ADD_FAILURE() << b.name << " was read";
    } catch (const InputError &e) {
      EXPECT_NE(std::string(e.what()).find(dir.file(b.name) + ": " + b.message), std::string::npos) << e.what();
    }
  }
}

TEST(PlotPositionFile, ConstraintLinesDecideTheMomentRowsOfEachSource) {
  TempDir dir;
  const struct { const char *constraints; std::vector<int> rows; } cases[] = {
      {"", {3, 3, 3}},
      {"1 position stationary\n# a comment\n2 p st o st\n", {3, 1, 3}},
      {"2 orientation=stationary\n3 symmetric to 2\n", {3, 1, 1}},
      {"1 o st\n2 position symmetric to 1\n", {1, 3, 3}},
      {"3 orientation:stationary orientation free\n", {3, 3, 3}},
  };
  for (const auto &c : cases) {
    write_file(dir.file("s.pos"), std::string("3\n1 1 2 3\n2 -1 2 3 90.0 45.5\n3 0 0 1\n") + c.constraints);
    std::vector<SourcePosition> s = read_position_file(dir.file("s.pos"));
    EXPECT_EQ(moment_rows(s), c.rows) << c.constraints;
    ASSERT_TRUE(s[1].angles) << c.constraints;
    EXPECT_EQ((*s[1].angles)[1], 45.5);
  }
  write_file(dir.file("bad.pos"), "2\n1 0 0 0\n2 0 0 1\n3 position moving\n");
  EXPECT_THROW(read_position_file(dir.file("bad.pos")), InputError);
}

TEST(PlotSection, CutsOfASphereAreClosedLoopsOnThePlane) {
  const Mesh m = as_mesh(icosphere(2, 1.0));
  // Through the middle (the equator runs along mesh edges, every crossing at a
  // vertex), off-centre, through vertices exactly (a vertex on the plane counts
  // as above it, so the loop passes it once), near a pole, and missing.
  double on_vertex = 0;
  for (const Vec3 &v : m.vertices)
    if (v[2] > 0.3 && v[2] < 0.9) on_vertex = v[2];
  ASSERT_GT(on_vertex, 0);
  const struct { int axis; double value; size_t loops; } cases[] = {
      {2, 0.0, 1}, {0, 0.3, 1}, {2, on_vertex, 1}, {1, -0.95, 1}, {2, 1.5, 0}};
  for (const auto &c : cases) {
    auto lines = plane_section(m, c.axis, c.value);
    ASSERT_EQ(lines.size(), c.loops) << c.axis << " " << c.value;
    for (const auto &line : lines) {
      EXPECT_EQ(line.front(), line.back()) << "a loop closes on its first point";
      EXPECT_GT(line.size(), 4u);
      for (const Vec3 &p : line) {
        EXPECT_EQ(p[c.axis], c.value);
        double r = std::hypot(p[0], p[1], p[2]);
        EXPECT_LE(r, 1.0 + 1e-6);
        EXPECT_GT(r, 0.9);  // on the facets, which lie close to the sphere
      }
    }
  }
}

TEST(PlotContours, StraightLevelLinesAndSaddlesThatDoNotCross) {
  // f = x on a 5 x 4 grid: the level 1.5 is the vertical line x = 1.5.
  std::vector<double> ramp;
  for (int j = 0; j < 4; j++)
    for (int i = 0; i < 5; i++) ramp.push_back(i);
  auto segs = contour_segments(ramp, 5, 4, 1.5);
  ASSERT_EQ(segs.size(), 3u);
  for (auto &s : segs) {
    EXPECT_DOUBLE_EQ(s[0], 1.5);
    EXPECT_DOUBLE_EQ(s[2], 1.5);
  }
  // A saddle cell, (0,0)=1 (1,0)=0 / (0,1)=0 (1,1)=1, with a high middle: each
  // of the two pieces wraps a low corner, not a high one.
  auto pieces = contour_segments({1, 0, 0, 1}, 2, 2, 0.4);
  ASSERT_EQ(pieces.size(), 2u);
  for (auto &p : pieces) {
    double mx = (p[0] + p[2]) / 2, my = (p[1] + p[3]) / 2;
    EXPECT_LT(std::min(std::hypot(mx - 1, my), std::hypot(mx, my - 1)), 0.4) << mx << "," << my;
  }
  // A cell with a value outside the drawn area gives nothing.
  EXPECT_TRUE(contour_segments({0, 1, NAN, 1}, 2, 2, 0.5).empty());
}

TEST(PlotTicks, RoundStepsThroughZeroAndPrefixesThatFit) {
  const struct { double lo, hi; int count; std::vector<double> ticks; } cases[] = {
      {-1, 1, 4, {-1, -0.5, 0, 0.5, 1}}, {0, 7, 3, {0, 5}},
      {-0.03, 0.03, 6, {-0.03, -0.02, -0.01, 0, 0.01, 0.02, 0.03}}};
  for (const auto &c : cases) {
    auto t = nice_ticks(c.lo, c.hi, c.count);
    ASSERT_EQ(t.size(), c.ticks.size()) << c.lo << ".." << c.hi;
    for (size_t i = 0; i < t.size(); i++) EXPECT_NEAR(t[i], c.ticks[i], 1e-12);
  }
  EXPECT_TRUE(nice_ticks(1, 1, 5).empty());
  const struct { double magnitude; const char *unit; double factor; const char *scaled; } units[] = {
      {2e-6, "V", 1e6, "µV"}, {0.4, "V", 1e3, "mV"}, {12, "V", 1, "V"},
      {3e-9, "A·m", 1e9, "nA·m"}, {0.4, "a.u.", 1, "a.u."}};
  for (const auto &u : units) {
    ScaledUnit s = scale_unit(u.magnitude, u.unit);
    EXPECT_EQ(s.factor, u.factor) << u.magnitude << " " << u.unit;
    EXPECT_EQ(s.unit, u.scaled);
  }
}

// A small head (three spheres), electrodes on its scalp's vertices, data of
// two samples, a fit and its standard deviations.
struct Scene {
  TempDir dir;
  Scene() {
    write_sphere(dir, "scalp.tri", 2, 1.0);
    write_sphere(dir, "skull.tri", 2, 0.92);
    write_sphere(dir, "brain.tri", 2, 0.88);
    write_file(dir.file("geometry.ans"), "scalp.tri\n1\nskull.tri\n0.0125\nbrain.tri\n1\n\n");
    std::string elc = "20\n";
    for (int e = 1; e <= 20; e++) elc += std::to_string(e) + " " + std::to_string(e) + "\n";
    write_file(dir.file("e.elc"), elc);
    std::vector<float> v;
    for (int e = 0; e < 20; e++) v.insert(v.end(), {(float)std::sin(e), (float)std::cos(e)});
    matrix("d.mat", 20, 2, v);
    matrix("scalp.mat", 162, 1, std::vector<float>(162, 0.5f));
    matrix("fit.mat", 3, 2, {0.1f, 0.2f, 0.0f, 0.1f, 1.0f, 0.5f});
    write_file(dir.file("fit.pos"), "1\n1 0.2 0.3 0.5\n1 position stationary\n");
    write_file(dir.file("fit.pos.sd"), "1\n1 0.01 0.02 0.01\n");
    write_file(dir.file("truth.pos"), "1\n1 0.25 0.3 0.45\n");
    std::filesystem::create_directory(dir.file("out"));
  }
  void matrix(const std::string &name, int rows, int cols, const std::vector<float> &v) {
    write_file(dir.file(name), matrix_bytes(rows, cols, v, "sample frequency\n500 Hz\n"));
  }
  ProcResult run(std::vector<std::string> args) { return run_process(BRELIX_PLOT_EXE, args, "", dir.path(), 60); }
  std::set<std::string> outputs() {
    std::set<std::string> names;
    for (auto &e : std::filesystem::directory_iterator(dir.file("out"))) names.insert(e.path().filename().string());
    return names;
  }
};

std::vector<std::string> command(const std::string &which, const std::string &out) {
  if (which == "topomap")
    return {"topomap", "--electrodes", "e.elc",   "--data",   "d.mat", "--model", "d.mat", "--dipoles",
            "fit.pos", "--moments",    "fit.mat", "--sample", "2",     "-o",      out};
  if (which == "dipoles") return {"dipoles", "--head", ".", "--fit", "fit.pos", "--truth", "truth.pos", "-o", out};
  if (which == "timecourse") return {"timecourse", "--fit", "fit.mat", "--sources", "fit.pos", "-o", out};
  return {"head", "--head", ".", "--electrodes", "e.elc", "--potentials", "scalp.mat", "--view", "left", "-o", out};
}

bool well_formed(const std::string &xml) {
  XML_Parser p = XML_ParserCreate(nullptr);
  const bool ok = XML_Parse(p, xml.data(), (int)xml.size(), XML_TRUE) == XML_STATUS_OK;
  XML_ParserFree(p);
  return ok;
}

TEST(PlotProgram, EveryCommandWritesEachFormat) {
  Scene s;
  for (const char *which : {"topomap", "dipoles", "timecourse", "head"})
    for (const char *suffix : {".png", ".svg", ".pdf"}) {
      std::string out = std::string("out/") + which + suffix;
      ProcResult r = s.run(command(which, out));
      ASSERT_EQ(r.status, 0) << which << suffix << ": " << r.err;
      const std::string body = read_file(s.dir.file(out));
      if (suffix == std::string(".png"))
        EXPECT_EQ(body.substr(0, 8), "\x89PNG\r\n\x1a\n") << out;
      else if (suffix == std::string(".svg"))
        EXPECT_TRUE(well_formed(body)) << out;
      else {
        EXPECT_EQ(body.substr(0, 5), "%PDF-") << out;
        // No clock in the file: the same input gives the same bytes.
        EXPECT_EQ(body.find("/CreationDate"), std::string::npos) << out;
        EXPECT_EQ(body.substr(body.find_last_not_of("\r\n") - 4, 5), "%%EOF") << out;
      }
    }
  EXPECT_EQ(s.outputs().size(), 12u);
}

TEST(PlotProgram, BadInputIsRefusedWithStatusTwoAndNoPicture) {
  Scene s;
  s.matrix("d19.mat", 19, 2, std::vector<float>(38, 1.0f));
  std::filesystem::create_directory(s.dir.file("empty"));
  write_file(s.dir.file("empty/geometry.ans"), "\n");
  const struct { std::vector<std::string> args; std::string message; } cases[] = {
      {{"topomap", "--electrodes", "e.elc", "--data", "d19.mat", "-o", "out/x.png"},
       "d19.mat: has 19 rows, but e.elc has 20 electrodes"},
      {{"topomap", "--electrodes", "e.elc", "--data", "d.mat", "--sample", "3", "-o", "out/x.png"},
       "d.mat: sample 3: past the end: the file has 2 samples"},
      {{"topomap", "--electrodes", "e.elc", "--data", "d.mat", "--time", "0.004", "-o", "out/x.png"},
       "d.mat: time 0.004: outside the recording"},
      {{"dipoles", "--head", "empty", "--fit", "fit.pos", "-o", "out/x.png"}, "empty/geometry.ans"},
      {{"head", "--head", ".", "--potentials", "d.mat", "-o", "out/x.png"},
       "d.mat: has 20 rows, but the scalp has 162"},
      {{"timecourse", "--fit", "d.mat", "--sources", "fit.pos", "-o", "out/x.png"}, "d.mat: has 20 rows, but the 1"},
      {{"dipoles", "--head", ".", "--fit", "fit.pos", "-o", "missing/x.png"}, "missing/x.png"},
      {{"head", "--head", ".", "-o", "out/x.jpg"}, "must end in .png, .svg or .pdf"},
  };
  for (const auto &c : cases) {
    ProcResult r = s.run(c.args);
    EXPECT_EQ(r.status, 2) << c.message << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_TRUE(s.outputs().empty()) << c.message;
  }
}

}  // namespace
