// brelix-prep head on broken heads: each defect of a catalogue is refused
// with its own message, naming the surface that has it and a spot within a
// few millimetres of it, and nothing is written; the clean head and the
// defects that are repaired by default pass.  A head as FreeSurfer writes it
// comes out as the same head prepared by hand.  Underneath: remeshing keeps a
// surface's shape and gives well-shaped triangles; gap fixing and hole
// filling leave surfaces that pass every check.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <regex>

#include "headmodel/cgal_checks.h"
#include "headmodel/mesh_quality.h"
#include "headmodel/surface_pairs.h"
#include "headmodel/surface_prep.h"
#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tools/headshape.h"

namespace {

using Point = std::array<float, 3>;

double distance(const Point &a, const std::array<double, 3> &b) {
  return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

Point add(const Point &p, const Point &d, double s) {
  return {float(p[0] + s * d[0]), float(p[1] + s * d[1]), float(p[2] + s * d[2])};
}

// Outward unit direction at a vertex of a head surface: the surfaces are
// star-shaped about the origin, so the ray from it is close enough.
Point outward(const Point &p) {
  const double n = std::hypot(p[0], p[1], p[2]);
  return {float(p[0] / n), float(p[1] / n), float(p[2] / n)};
}

// The triangles around vertex v.
std::vector<int> fan(const TriMesh &m, int v) {
  std::vector<int> f;
  for (size_t t = 0; t < m.dhk.size(); t++)
    for (int c : m.dhk[t])
      if (c == v) f.push_back((int)t);
  return f;
}

// The first spot a message gives in metres.
std::optional<std::array<double, 3>> spot_in(const std::string &message) {
  std::smatch m;
  if (!std::regex_search(message, m, std::regex("in the file, \\(([-0-9.]+), ([-0-9.]+), ([-0-9.]+)\\) m")))
    return std::nullopt;
  return std::array<double, 3>{std::stod(m[1]), std::stod(m[2]), std::stod(m[3])};
}

// The scalp-skull distance a report gives, in mm; -1 when it gives none.
double scalp_skull_gap(const std::string &report) {
  std::smatch m;
  return std::regex_search(report, m, std::regex("1_scalp.tri - 2_skull.tri: ([0-9.]+) mm")) ? std::stod(m[1]) : -1;
}

const char *const layer_file[HEAD_LAYERS] = {"scalp.tri", "skull.tri", "brain.tri"};
const int V = 100;  // the vertex where the defects are made (front, below the middle)

struct Defect {
  std::string name;
  HeadLayer layer;                         // the surface that has it
  std::vector<std::string> options;        // beyond the files and -o
  std::function<Point(TriMesh &)> make;    // breaks the mesh, returns the defect's spot (metres)
  std::string message;                     // what the refusal says
  double tolerance_mm;
  std::string repair = "", repaired = "";  // the option that repairs it ("": by default), what the report says then
};

const std::vector<Defect> &catalogue() {
  static const std::vector<Defect> defects = {
      {"hole", HEAD_SKULL, {},
       [](TriMesh &m) {
         const std::vector<int> around = fan(m, V);
         for (auto it = around.rbegin(); it != around.rend(); ++it) m.dhk.erase(m.dhk.begin() + *it);
         return m.pnt[V];
       },
       "not closed: 1 hole", 3, "--fill-holes", "1 holes filled"},
      {"flipped patch", HEAD_SKULL, {"--no-orient"},
       [](TriMesh &m) {
         for (int t : fan(m, V)) std::swap(m.dhk[t][1], m.dhk[t][2]);
         return m.pnt[V];
       },
       "inconsistent orientation: 6 triangles turn the other way", 1, "", "6 triangles flipped to agree"},
      {"self-intersection", HEAD_BRAIN, {},
       [](TriMesh &m) {
         // Pull the vertex through the head until it pokes 3 mm out of the far side.
         int far = 0;
         for (size_t w = 0; w < m.pnt.size(); w++)
           if (distance(m.pnt[w], {-m.pnt[V][0], -m.pnt[V][1], -m.pnt[V][2]}) <
               distance(m.pnt[far], {-m.pnt[V][0], -m.pnt[V][1], -m.pnt[V][2]}))
             far = (int)w;
         m.pnt[V] = add(m.pnt[far], outward(m.pnt[far]), 0.003);
         return m.pnt[far];
       },
       "the surface intersects itself", 4},
      {"surfaces crossing", HEAD_SKULL, {},
       [](TriMesh &m) {
         m.pnt[V] = add(m.pnt[V], outward(m.pnt[V]), 0.012);
         return add(m.pnt[V], outward(m.pnt[V]), -0.005);  // about where it passes the scalp
       },
       "crosses the surface outside it, ", 5, "--fix-gap", "moved inwards for the gap"},
      {"surfaces 0.5 mm apart", HEAD_SKULL, {},
       [](TriMesh &m) {
         // Vertex numbers share their directions across the surfaces: put the
         // skull's just 0.5 mm inside the scalp's.
         const Point s = head_layer(3, HEAD_SCALP).pnt[V];
         m.pnt[V] = add(s, outward(s), -0.0005);
         return m.pnt[V];
       },
       "come 0.", 3, "--fix-gap", "moved inwards for the gap"},
      {"non-manifold edge", HEAD_SKULL, {},
       [](TriMesh &m) {
         // A fin on edge V-w: a third triangle through it, to a vertex further away.
         const auto &t = m.dhk[fan(m, V)[0]];
         const int w = t[0] == V ? t[1] : t[0];
         int far = 0;
         for (size_t u = 0; u < m.pnt.size(); u++)
           if (distance(m.pnt[u], {m.pnt[V][0], m.pnt[V][1], m.pnt[V][2]}) > 0.02 &&
               distance(m.pnt[u], {m.pnt[V][0], m.pnt[V][1], m.pnt[V][2]}) < 0.03)
             far = (int)u;
         m.dhk.push_back({V, w, far});
         return Point{(m.pnt[V][0] + m.pnt[w][0]) / 2, (m.pnt[V][1] + m.pnt[w][1]) / 2,
                      (m.pnt[V][2] + m.pnt[w][2]) / 2};
       },
       "non-manifold edge", 1},
      {"pinched vertex", HEAD_SKULL, {},
       [](TriMesh &m) {
         // A far vertex replaced by V: two fans of triangles meet there.
         int far = 0;
         for (size_t u = 0; u < m.pnt.size(); u++)
           if (distance(m.pnt[u], {m.pnt[V][0], m.pnt[V][1], m.pnt[V][2]}) > 0.05) far = (int)u;
         for (auto &t : m.dhk)
           for (int &c : t)
             if (c == far) c = V;
         return m.pnt[V];
       },
       "non-manifold vertex: 2 separate fans", 1},
      {"second piece", HEAD_SKULL, {},
       [](TriMesh &m) {
         // A small closed tetrahedron beside V, clockwise seen from outside.
         const int n = (int)m.pnt.size();
         const Point c = add(m.pnt[V], outward(m.pnt[V]), -0.003);
         for (const Point &d : {Point{1, 1, 1}, Point{1, -1, -1}, Point{-1, 1, -1}, Point{-1, -1, 1}})
           m.pnt.push_back(add(c, d, 0.001));
         for (const auto &t : {std::array<int, 3>{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}})
           m.dhk.push_back({n + t[0], n + t[1], n + t[2]});
         return c;
       },
       "the surface has 2 separate pieces; the smallest, of 4 vertices", 1},
      {"duplicate vertices", HEAD_SKULL, {"--no-weld"},
       [](TriMesh &m) {
         m.pnt.push_back(m.pnt[V]);
         for (int c = 0; c < 3; c++)
           if (m.dhk[fan(m, V)[0]][c] == V) m.dhk[fan(m, V)[0]][c] = (int)m.pnt.size() - 1;
         return m.pnt[V];
       },
       "duplicate vertices at", 1, "", "1 duplicate vertices welded"},
  };
  return defects;
}

struct HeadFiles {
  TempDir dir;
  std::vector<std::string> files;
  // The head at 642 vertices a surface, in metres, with `broken` applied.
  explicit HeadFiles(const std::function<void(int, TriMesh &)> &broken = nullptr) {
    for (int k = 0; k < HEAD_LAYERS; k++) {
      TriMesh m = head_layer(3, (HeadLayer)k);
      if (broken) broken(k, m);
      EXPECT_TRUE(write_trimesh(dir.file(layer_file[k]), m, false));
      files.push_back(layer_file[k]);
    }
  }
  ProcResult run(std::vector<std::string> options) const {
    std::vector<std::string> args{"head"};
    args.insert(args.end(), files.begin(), files.end());
    args.insert(args.end(), {"-o", "out", "--quiet"});
    args.insert(args.end(), options.begin(), options.end());
    return run_process(BRELIX_PREP_EXE, args, "", dir.path());
  }
};

TEST(HeadCatalogue, EachDefectRefusedWhereItIs) {
  for (const Defect &d : catalogue()) {
    Point spot{};
    const HeadFiles head([&](int k, TriMesh &m) {
      if (k == d.layer) spot = d.make(m);
    });
    const ProcResult r = head.run(d.options);
    EXPECT_EQ(r.status, 2) << d.name << ": " << r.err;
    EXPECT_EQ(r.err.rfind(std::string("brelix-prep head: ") + layer_file[d.layer] + ": ", 0), 0u) << d.name << ": " << r.err;
    EXPECT_NE(r.err.find(d.message), std::string::npos) << d.name << ": " << r.err;
    const auto where = spot_in(r.err);
    ASSERT_TRUE(where) << d.name << ": " << r.err;
    EXPECT_LT(distance(spot, *where) * 1000, d.tolerance_mm) << d.name << ": " << r.err;
    EXPECT_FALSE(file_exists(head.dir.file("out"))) << d.name;
  }
}

TEST(HeadCatalogue, CleanHeadPassesAndRepairsGiveTheCleanResult) {
  const HeadFiles clean;
  const ProcResult r = clean.run({});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(read_file(clean.dir.file("out/geometry.ans")),
            "out/1_scalp.tri\n0.33\nout/2_skull.tri\n0.0042\n!out/3_brain.tri\n0.33\n\n");
  const std::string report = read_file(clean.dir.file("out/report.txt"));
  EXPECT_NE(report.find("units: m "), std::string::npos) << report;
  EXPECT_NE(report.find("checks passed"), std::string::npos) << report;
  // The head has 7 mm between its surfaces along the axes, less elsewhere.
  EXPECT_GT(scalp_skull_gap(report), 2.0);
  EXPECT_LE(scalp_skull_gap(report), 7.0);

  // Flipped patches and duplicate vertices are repaired by default, to the
  // very same files; holes, crossings and narrow gaps when asked for.
  for (const Defect &d : catalogue()) {
    if (d.repaired.empty()) continue;
    const HeadFiles head([&](int k, TriMesh &m) {
      if (k == d.layer) d.make(m);
    });
    const ProcResult fixed = head.run(d.repair.empty() ? std::vector<std::string>{} : std::vector{d.repair});
    ASSERT_EQ(fixed.status, 0) << d.name << ": " << fixed.err;
    const std::string fixed_report = read_file(head.dir.file("out/report.txt"));
    EXPECT_NE(fixed_report.find(d.repaired), std::string::npos) << d.name << "\n" << fixed_report;
    EXPECT_GE(scalp_skull_gap(fixed_report), 2.0) << d.name << "\n" << fixed_report;
    if (!d.repair.empty()) continue;
    for (const char *f : {"1_scalp.tri", "2_skull.tri", "3_brain.tri"})
      EXPECT_EQ(read_file(head.dir.file(std::string("out/") + f)), read_file(clean.dir.file(std::string("out/") + f)))
          << d.name << " " << f;
  }
}

// With --transform, a defect is located both in the file's own frame and in
// the transformed one.
TEST(HeadCatalogue, SpotInBothFrames) {
  Point hole{};
  const HeadFiles head([&](int k, TriMesh &m) {
    if (k == HEAD_SKULL) hole = catalogue()[0].make(m);
  });
  // Turned a quarter about z, then moved 2 cm along x.
  write_file(head.dir.file("frame.txt"), "0 -1 0 0.02\n1 0 0 0\n0 0 1 0\n0 0 0 1\n");
  const ProcResult r = head.run({"--transform", "frame.txt"});
  EXPECT_EQ(r.status, 2);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.err, m, std::regex("\\(([-0-9.e]+), ([-0-9.e]+), ([-0-9.e]+)\\) m in the file"))) << r.err;
  EXPECT_LT(distance(hole, {std::stod(m[1]), std::stod(m[2]), std::stod(m[3])}), 0.003) << r.err;
  const auto moved = spot_in(r.err);
  ASSERT_TRUE(moved);
  EXPECT_LT(distance({float(0.02 - hole[1]), hole[0], hole[2]}, *moved), 0.003) << r.err;
}

TEST(HeadCatalogue, CommandLine) {
  const ProcResult help = run_process(BRELIX_PREP_EXE, {"head", "--help"}, "");
  EXPECT_EQ(help.status, 0);
  for (const char *option : {"-o", "--units", "--transform", "--sigma", "--isolated", "--no-isolated",
                             "--min-gap", "--fix-gap", "--fill-holes", "--no-orient", "--no-weld", "--vertices",
                             "--edge", "--quiet"})
    EXPECT_NE(help.out.find(std::string("Example: ") + option), std::string::npos) << option;
  // brelix reads answers of 79 characters at most; a longer one is refused
  // before anything is read.
  const HeadFiles head;
  const ProcResult r = head.run({"-o", std::string(70, 'd')});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("characters long, more than the 79 brelix reads"), std::string::npos) << r.err;
}

TEST(HeadCatalogue, ReaderRefusalReachesTheUser) {
  HeadFiles head;
  // A binary triangle file cut in the middle of its vertices.
  write_file(head.dir.file("brain.tri"), std::string("\x80\x02\x00\x00", 4) + std::string(100, '\0'));
  const ProcResult r = head.run({});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("brelix-prep head: brain.tri: ", 0), 0u) << r.err;
  EXPECT_FALSE(file_exists(head.dir.file("out")));
}

// FreeSurfer's triangle surface: FF FF FE, a creator line and an empty line,
// big-endian vertex and face counts, float coordinates and int faces.  The
// head's triangles turn clockwise seen from outside; FreeSurfer's turn the
// other way.
std::string freesurfer_bytes(const TriMesh &m, double scale) {
  Bytes b(std::endian::native == std::endian::little);
  b.text("\xff\xff\xfe" "created by a test\n\n").i((int32_t)m.pnt.size()).i((int32_t)m.dhk.size());
  for (const auto &p : m.pnt)
    for (float x : p) b.f(float(x * scale));
  for (const auto &t : m.dhk) b.i(t[0]).i(t[2]).i(t[1]);
  return b.s;
}

// FreeSurfer's head (binary, millimetres, normals outwards) gives brelix the
// transfer matrix of the same head written by hand (the clean head's files).
TEST(HeadFreeSurfer, MillimetresOutwardGiveTheHandMadeTransferMatrix) {
  HeadFiles head;
  head.files = {"outer_skin.surf", "outer_skull.surf", "inner_skull.surf"};
  for (int k = 0; k < HEAD_LAYERS; k++)
    write_file(head.dir.file(head.files[k]), freesurfer_bytes(head_layer(3, (HeadLayer)k), 1000));
  // Refused as it stands when flipping is not allowed.
  const ProcResult strict = head.run({"--no-orient"});
  EXPECT_EQ(strict.status, 2);
  EXPECT_EQ(strict.err.rfind("brelix-prep head: outer_skin.surf: all triangles: the triangles turn counter-clockwise", 0), 0u)
      << strict.err;
  const ProcResult prep = head.run({});
  ASSERT_EQ(prep.status, 0) << prep.err;
  const std::string report = read_file(head.dir.file("out/report.txt"));
  EXPECT_NE(report.find("units: mm"), std::string::npos) << report;
  EXPECT_NE(report.find("all triangles flipped"), std::string::npos) << report;

  write_file(head.dir.file("sources.pos"), "3\n1 0 0.01 0.02\n2 0.02 -0.01 0.03\n3 -0.015 0.02 0.0\n");
  MatrixFile from[2];
  const std::string geometry[2] = {read_file(head.dir.file("out/geometry.ans")),
                                   "scalp.tri\n0.33\nskull.tri\n0.0042\n!brain.tri\n0.33\n\n"};
  for (int k = 0; k < 2; k++) {
    const ProcResult run = run_brelix(head.dir.path(), {}, geometry[k] + "\nsources.pos\n\ntrans.mat\n");
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(read_matrix_file(head.dir.file("trans.mat"), from[k]));
  }
  ASSERT_EQ(from[0].rows, 642);
  ASSERT_EQ(from[0].cols, 9);
  ASSERT_EQ(from[0].values.size(), from[1].values.size());
  double largest = 0, difference = 0;
  for (size_t i = 0; i < from[0].values.size(); i++) {
    largest = std::max(largest, (double)std::fabs(from[1].values[i]));
    difference = std::max(difference, (double)std::fabs(from[0].values[i] - from[1].values[i]));
  }
  EXPECT_GT(largest, 0.0);
  EXPECT_LT(difference, 1e-4 * largest);
}

const SurfaceName SURFACE{"test.tri", {}};

TEST(HeadRemesh, FineSurfaceToTargetKeepsVolumeAndAngles) {
  const struct {
    int level;
    RemeshTarget target;
    long low, high;  // accepted vertex counts
  } cases[] = {
      {5, {642, 0}, 610, 675},      // 10242 vertices down to 642: decimation, then remeshing
      {3, {0, 0.006}, 1500, 4000},  // 642 vertices refined to 6 mm edges
  };
  for (const auto &c : cases) {
    Mesh m = head_layer_mesh(c.level, HEAD_SCALP), again = m;
    const MeshQuality before = measure_mesh(m);
    remesh_surface(m, c.target);
    remesh_surface(again, c.target);
    EXPECT_TRUE(m.vertices == again.vertices && m.triangles == again.triangles) << "same input, same result";
    const MeshQuality after = measure_mesh(m);
    EXPECT_GE((long)m.vertices.size(), c.low) << c.level;
    EXPECT_LE((long)m.vertices.size(), c.high) << c.level;
    EXPECT_NEAR(after.volume / before.volume, 1.0, 0.01) << c.level;
    EXPECT_GT(after.min_angle_deg, 20.0) << c.level;
    EXPECT_LT(signed_volume(m), 0) << "orientation kept, level " << c.level;
    // Still one closed, clean surface.
    EXPECT_NO_THROW(prepare_surface(m, SURFACE, RepairChoices{true, false, false})) << c.level;
  }
}

TEST(HeadRemesh, FixGapMovesInnerSurfaceClearOfOuter) {
  const Mesh outer = head_layer_mesh(3, HEAD_SCALP);
  for (double push : {0.0065, 0.012}) {  // 0.5 mm close; crossing by 5 mm
    Mesh inner = head_layer_mesh(3, HEAD_SKULL);
    for (int v : {100, 200, 300}) {
      Vec3 &p = inner.vertices[v];
      const double r = std::hypot(p[0], p[1], p[2]);
      for (double &x : p) x *= 1 + push / r;
    }
    const GapFix fix = fix_gap(outer, inner, 0.002);
    EXPECT_GT(fix.vertices_moved, 0) << push;
    EXPECT_GE(smallest_gap(outer, inner).distance, 0.002) << push;
    EXPECT_FALSE(find_surface_contact(outer, inner)) << push;
    EXPECT_FALSE(find_self_intersection(inner)) << push;
    // Only the neighbourhood of the three vertices moves.
    EXPECT_LT(fix.vertices_moved, 150) << push;
  }
}

TEST(HeadRemesh, FilledHoleClosesTheSurfaceInShape) {
  Mesh m = head_layer_mesh(3, HEAD_SKULL);
  const double volume = measure_mesh(m).volume;
  std::erase_if(m.triangles, [](const Tri &t) { return std::ranges::count(t, 100) + std::ranges::count(t, 200) > 0; });
  const SurfaceLog log = prepare_surface(m, SURFACE, RepairChoices{true, true, true});
  EXPECT_EQ(log.holes.holes, 2);
  EXPECT_TRUE(log.holes.all_closed);
  EXPECT_TRUE(boundary_loops(m).empty());
  EXPECT_NEAR(measure_mesh(m).volume / volume, 1.0, 0.01);
}

// A flat triangle in a closed surface (an edge split on one side only, the
// gap closed by a triangle with its corners on one line) is removed.
TEST(HeadRemesh, FlatTriangleRemoved) {
  Mesh m = head_layer_mesh(3, HEAD_SKULL);
  const double volume = measure_mesh(m).volume;
  const Tri t = m.triangles[0];
  const int a = t[0], b = t[1], c = t[2];
  const Vec3 &pa = m.vertices[a], &pb = m.vertices[b];
  const int mid = (int)m.vertices.size();
  m.vertices.push_back({(pa[0] + pb[0]) / 2, (pa[1] + pb[1]) / 2, (pa[2] + pb[2]) / 2});
  m.triangles[0] = {a, mid, c};
  m.triangles.push_back({mid, b, c});
  m.triangles.push_back({mid, a, b});
  const SurfaceLog log = prepare_surface(m, SURFACE, RepairChoices{});
  EXPECT_GE(log.degenerate_removed, 1);
  EXPECT_TRUE(degenerate_triangles(m).empty());
  EXPECT_TRUE(boundary_loops(m).empty());
  EXPECT_NEAR(measure_mesh(m).volume / volume, 1.0, 1e-6);
}

}  // namespace
