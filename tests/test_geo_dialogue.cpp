// The interface dialogue, driven through a probe program with scripted
// answers on standard input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

const std::string INTRO =
    "Enter the names of the geometry files and their corresponding conductivities.\n"
    "Finish by entering an empty line.\n";
const std::string HEAD = INTRO +
                         "   (A filename preceeded by an exclamation mark (!) is\n"
                         "    considered to be the \"isolated source\" interface)\n";
const std::string NEGATIVE =
    "\nConductivity cannot be negative!\n"
    "For combined electric/magnetic computations negative conductivity\n"
    "has a special meaning, but that does not apply here.\n\n";

std::string F(int n) { return "\nFilename of interface " + std::to_string(n) + ": "; }
std::string S(const std::string &name) { return "Conductivity just within " + name + ": "; }
std::string C(const std::string &name, size_t n, size_t m) {
  return name + " contains " + std::to_string(n) + " vertices and " + std::to_string(m) + " triangles\n";
}
std::string fatal(const std::string &msg) { return "\n\n Fatal error in brelix: " + msg + "\n\n\a"; }
std::string coincide(const std::string &a, const std::string &b) {
  return fatal("Geometry integrety error;\nAny vertex of " + a + " is also a vertex of " + b +
               ",\n so they propably intersect!");
}

// The probe's summary of one table entry.
std::string E(int i, const std::string &name, const TriMesh &m, const std::string &sigma) {
  char buf[400];
  std::string s = "== geo " + std::to_string(i) + " name=" + name + " npnt=" + std::to_string(m.pnt.size()) +
                  " ndhk=" + std::to_string(m.dhk.size()) + " sigma_in=" + sigma;
  if (!m.pnt.empty()) s += (snprintf(buf, sizeof buf, " p0=%.9g,%.9g,%.9g", m.pnt[0][0], m.pnt[0][1], m.pnt[0][2]), buf);
  if (!m.dhk.empty()) s += (snprintf(buf, sizeof buf, " t0=%d,%d,%d", m.dhk[0][0], m.dhk[0][1], m.dhk[0][2]), buf);
  return s + "\n";
}

// The mesh with its vertices in a shuffled order (triangles follow them),
// so that coincidence cannot depend on the order.
TriMesh shuffled(const TriMesh &m, unsigned seed) {
  std::vector<int> perm(m.pnt.size());
  std::iota(perm.begin(), perm.end(), 0);
  std::mt19937 rng(seed);
  std::shuffle(perm.begin(), perm.end(), rng);
  TriMesh s{std::vector<std::array<float, 3>>(m.pnt.size()), {}};
  for (size_t i = 0; i < perm.size(); i++) s.pnt[perm[i]] = m.pnt[i];
  for (auto t : m.dhk) s.dhk.push_back({perm[t[0]], perm[t[1]], perm[t[2]]});
  return s;
}

class GeoDialogue : public testing::Test {
 protected:
  TempDir dir;
  TriMesh inner = icosphere(1, 0.0870), middle = icosphere(1, 0.0920), outer = icosphere(2, 0.1000);
  std::string CI = C("inner.tri", 42, 80), CO = C("outer.tri", 162, 320), SI = S("inner.tri");
  std::string name79 = std::string(79, 'n'), name80 = std::string(80, 'n');

  void SetUp() override {
    ASSERT_TRUE(write_trimesh(dir.file("inner.tri"), inner, false));
    ASSERT_TRUE(write_trimesh(dir.file("middle.bin"), middle, true));
    ASSERT_TRUE(write_trimesh(dir.file("outer.tri"), outer, false));
  }
  ProcResult run(const std::string &input, const std::vector<std::string> &args = {}) {
    return run_process(probe("probe_geo"), args, input, dir.path(), 60);
  }
};

TEST_F(GeoDialogue, Transcripts) {
  ASSERT_TRUE(write_trimesh(dir.file(name79), inner, false));
  ASSERT_TRUE(write_trimesh(dir.file(name80), inner, false));
  ASSERT_TRUE(write_trimesh(dir.file("copy.bin"), shuffled(inner, 7), true));
  write_file(dir.file("none1.tri"), "0\n");
  write_file(dir.file("none2.tri"), "0\n0\n");
  write_file(dir.file("broken.tri"), "3\n0 0 0\n1 1\n");
  // Triangle 2 names vertex 4 of 3; text index 0 is no vertex either.
  write_file(dir.file("badindex.tri"), "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 2 3\n1 2 4\n");
  write_file(dir.file("zeroindex.tri"), "3\n0 0 0\n1 0 0\n0 1 0\n1\n0 1 2\n");
  std::string ten;
  for (int i = 0; i < 10; i++) {
    ASSERT_TRUE(write_trimesh(dir.file("s" + std::to_string(i) + ".tri"), icosphere(0, 1.0 + 0.1 * i), i % 2 == 1));
    ten += "s" + std::to_string(i) + ".tri\n" + std::to_string(i + 1) + "\n";
  }
  const std::string ONE_INNER = "\nTotal: 1 interface , 42 vertices and 80 triangles\n";
  const std::string TWO_204 = "\nTotal: 2 interfaces, 204 vertices and 400 triangles\n";
  const std::string NO_ISO = "== iso_sur -1 inner_only 0\n";
  struct Row {
    std::string input;
    int status;
    std::string err;
    std::vector<std::string> parts;  // appear in this order in standard output
    bool exact;                      // ... and make up all of it
    std::vector<std::string> args = {};
  };
  std::vector<Row> rows = {
      {"inner.tri\n1\nmiddle.bin\n0.0125\nouter.tri\n\n\n", 0, "",
       {HEAD, F(1), CI, SI, F(2), C("middle.bin", 42, 80), S("middle.bin"), F(3), CO, S("outer.tri"), F(4),
        "\nTotal: 3 interfaces, 246 vertices and 480 triangles\n== ngeo 3\n", E(0, "inner.tri", inner, "1"),
        E(1, "middle.bin", middle, "0.0125000002"), E(2, "outer.tri", outer, "1"), NO_ISO,
        "== totpnt 246 totdhk 480\n"},
       true},
      // An empty first answer quits, also after a failed one; end of input
      // fails wherever it comes.
      {"\n", 0, "", {HEAD, F(1)}, true},
      {"missing.tri\n\n", 0, "\nError opening file missing.tri\a\a\n\n", {HEAD, F(1), F(1)}, true},
      {"", 1, "", {HEAD, F(1)}, true},
      {"inner.tri\n", 1, "", {HEAD, F(1), CI, SI}, true},
      // Refused files are asked for again and leave nothing behind.
      {"missing.tri\nbroken.tri\nbadindex.tri\nzeroindex.tri\ninner.tri\n1\n\n", 0,
       "\nError opening file missing.tri\a\a\n\n\nError reading file broken.tri\a\a\n\n"
       "\nTriangle 2 of badindex.tri refers to a non-existent vertex\a\a\n\n"
       "\nTriangle 1 of zeroindex.tri refers to a non-existent vertex\a\a\n\n",
       {HEAD, F(1), F(1), F(1), C("badindex.tri", 3, 2), F(1), C("zeroindex.tri", 3, 1), F(1), CI, SI, F(2),
        ONE_INNER, "== ngeo 1\n", E(0, "inner.tri", inner, "1"), NO_ISO, "== totpnt 42 totdhk 80\n"},
       true},
      {name80 + "\n" + name79 + "\n1\n\n", 0, "\nAnswer too long: at most 79 characters\n",
       {HEAD + F(1) + F(1) + C(name79, 42, 80), "== ngeo 1\n== geo 0 name=" + name79 + " "}, false},
      // Ten interfaces end the list: no eleventh question meets end of input.
      {ten, 0, "",
       {S("s9.tri") + "\nTotal: 10 interfaces, 120 vertices and 200 triangles\n== ngeo 10\n",
        E(9, "s9.tri", icosphere(0, 1.0 + 0.1 * 9), "10")},
       false},
      // Negative conductivities end the run, except for the isolated
      // interface of a magnetic run, which then is the only one for the
      // gradiometer.
      {"inner.tri\n-0.5\n\n", 1, NEGATIVE, {HEAD, F(1), CI, SI}, true},
      {"!inner.tri\n-0.5\n\n", 1, NEGATIVE, {HEAD, F(1), CI, SI}, true},
      {"outer.tri\n1\ninner.tri\n-1\n\n", 1, NEGATIVE, {HEAD, F(1), CO, S("outer.tri"), F(2), CI, SI}, true, {"magnetic"}},
      {"outer.tri\n1\n!inner.tri\n-0.5\n\n", 0, "",
       {HEAD, F(1), CO, S("outer.tri"), F(2),
        "Enter a negative conductivity if you want to consider this interface\n"
        "to be the outer interface in the computation of the magnetic field\n",
        CI, SI, F(3), TWO_204, "   Interface inner.tri is the isolated source interface\n",
        "   For the gradiometer field inner.tri is the only interface\n== ngeo 2\n", E(0, "outer.tri", outer, "1"),
        E(1, "inner.tri", inner, "0.5"), "== iso_sur 1 inner_only 1\n== totpnt 204 totdhk 400\n"},
       true, {"magnetic"}},
      // The isolated interface of an electric run: no hint, name without "!".
      {"outer.tri\n1\n!inner.tri\n\n\n", 0, "",
       {F(2) + CI + SI, TWO_204 + "   Interface inner.tri is the isolated source interface\n== ngeo 2\n",
        E(1, "inner.tri", inner, "1"), "== iso_sur 1 inner_only 0\n"},
       false},
      {"!inner.tri\n1\n!outer.tri\n1\n\n", 1, fatal("There can be only one isolated source interface"),
       {HEAD, F(1), CI, SI, F(2)}, true},
      {"!inner.tri\n1\n\n", 1, fatal("This program does not allow the isolated source approach"), {INTRO, F(1)}, true,
       {"noiso"}},
      // A failed "!" answer leaves no isolated interface behind.
      {"!missing.tri\n!inner.tri\n1\nouter.tri\n1\n\n", 0, "\nError opening file missing.tri\a\a\n\n",
       {"== iso_sur 0 inner_only 0\n"}, false},
      {"!missing.tri\ninner.tri\n1\n\n", 0, "\nError opening file missing.tri\a\a\n\n",
       {ONE_INNER + "== ngeo 1\n", NO_ISO}, false},
      // Surfaces with the same vertices, in any order or encoding, are fatal
      // after the totals; the message names the earlier one first.
      {"inner.tri\n1\ninner.tri\n2\n\n", 1, coincide("inner.tri", "inner.tri"),
       {HEAD, F(1), CI, SI, F(2), CI, SI, F(3), "\nTotal: 2 interfaces, 84 vertices and 160 triangles\n"}, true},
      {"copy.bin\n1\nouter.tri\n1\ninner.tri\n1\n\n", 1, coincide("copy.bin", "inner.tri"), {}, false},
      {"none1.tri\n1\nnone2.tri\n1\n\n", 1, coincide("none1.tri", "none2.tri"), {}, false},
  };
  // Conductivities: empty or no number is 1; numbers that cannot be one
  // are refused and asked for again.
  for (auto [answer, sigma] : std::vector<std::pair<std::string, std::string>>{
           {"", "1"}, {"  0.33 S/m", "0.330000013"}, {"abc", "1"}, {"-0", "-0"}})
    rows.push_back({"inner.tri\n" + answer + "\n\n", 0, "", {CI + SI + F(2), E(0, "inner.tri", inner, sigma)}, false});
  for (std::string bad : {"nan", "-inf", "1e39"})
    rows.push_back({"inner.tri\n" + bad + "\n4\n\n", 0, "\nConductivity must be a finite number!\n\n",
                    {CI + SI + SI + F(2), E(0, "inner.tri", inner, "4")}, false});

  for (const Row &row : rows) {
    SCOPED_TRACE(row.input);
    ProcResult r = run(row.input, row.args);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(r.err, row.err);
    std::string all;
    size_t at = 0;
    for (const std::string &p : row.parts) {
      all += p;
      at = r.out.find(p, at);
      ASSERT_NE(at, std::string::npos) << "missing " << p << " in:\n" << r.out;
    }
    if (row.exact) {
      EXPECT_EQ(r.out, all);
    }
  }
}

TEST_F(GeoDialogue, SurfacesThatDifferInOneVertexPass) {
  // Moved by the least possible amount, in one coordinate of one vertex:
  // the first, one inside and the last of the table.
  std::vector<std::string> names;
  for (auto [v, k] : {std::pair<size_t, int>{0, 0}, {17, 1}, {inner.pnt.size() - 1, 2}}) {
    TriMesh moved = shuffled(inner, 11);
    auto it = std::find(moved.pnt.begin(), moved.pnt.end(), inner.pnt[v]);
    ASSERT_NE(it, moved.pnt.end());
    (*it)[k] = std::nextafter((*it)[k], 1.0f);
    names.push_back("moved" + std::to_string(v) + ".bin");
    ASSERT_TRUE(write_trimesh(dir.file(names.back()), moved, true));
  }
  // Equal vertex counts on different spheres; a subset of another's vertices
  // (different counts are not compared).
  TriMesh subset = icosphere(0, 0.0870);
  for (auto &p : subset.pnt) ASSERT_NE(std::find(inner.pnt.begin(), inner.pnt.end(), p), inner.pnt.end());
  ASSERT_TRUE(write_trimesh(dir.file("subset.tri"), subset, false));
  names.push_back("middle.bin");
  names.push_back("subset.tri");
  for (const std::string &name : names) {
    ProcResult r = run("inner.tri\n1\n" + name + "\n1\n\n");
    EXPECT_EQ(r.status, 0) << name << r.err;
    EXPECT_NE(r.out.find("== ngeo 2\n"), std::string::npos) << name;
  }
}

}  // namespace
