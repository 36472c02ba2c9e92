// The interface dialogue, driven through a probe program with scripted
// answers on standard input.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

// The prompts for a file name and a conductivity, and the count of a file read.
std::string F(int n) { return "\nFilename of interface " + std::to_string(n) + ": "; }
std::string S(const std::string &name) { return "Conductivity just within " + name + ": "; }
std::string C(const std::string &name, size_t n, size_t m) {
  return name + " contains " + std::to_string(n) + " vertices and " + std::to_string(m) + " triangles\n";
}
std::string fatal(const std::string &msg) { return "\n\n Fatal error in brelix: " + msg + "\n\n\a"; }

// The probe's line for one interface.
std::string E(const std::string &name, const TriMesh &m, const std::string &sigma) {
  char buf[200];
  const auto &p = m.pnt.back();
  const auto &t = m.dhk.back();
  snprintf(buf, sizeof buf, " %zu %zu %s %.9g,%.9g,%.9g %d,%d,%d\n", m.pnt.size(), m.dhk.size(), sigma.c_str(), p[0],
           p[1], p[2], t[0], t[1], t[2]);
  return "== " + name + buf;
}

}  // namespace

TEST(GeoDialogue, Transcripts) {
  TempDir dir;
  const TriMesh inner = icosphere(1, 0.0870), middle = icosphere(1, 0.0920), outer = icosphere(2, 0.1000);
  write_sphere(dir, "inner.tri", 1, 0.0870), write_sphere(dir, "middle.bin", 1, 0.0920, true), write_sphere(dir, "outer.tri", 2, 0.1);
  // The inner mesh with its vertices shuffled (triangles follow), in binary:
  // coincidence must not depend on order or encoding.
  TriMesh copy = inner;
  std::vector<int> perm(inner.pnt.size());
  std::iota(perm.begin(), perm.end(), 0), std::shuffle(perm.begin(), perm.end(), std::mt19937(7));
  for (size_t i = 0; i < perm.size(); i++) copy.pnt[perm[i]] = inner.pnt[i];
  for (auto &t : copy.dhk) t = {perm[t[0]], perm[t[1]], perm[t[2]]};
  ASSERT_TRUE(write_trimesh(dir.file("copy.bin"), copy, true));
  // The inner mesh with every zero coordinate negative: the same numbers,
  // other bits, so not the same vertices (no fatal error for coincidence).
  TriMesh negzero = inner;
  for (auto &p : negzero.pnt)
    for (auto &c : p)
      if (c == 0) c = -0.0f;
  ASSERT_TRUE(write_trimesh(dir.file("negzero.bin"), negzero, true));
  write_file(dir.file("broken.tri"), "3\n0 0 0\n1 1\n");
  write_file(dir.file("badindex.tri"), "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 2 3\n1 2 4\n");  // vertex 4 of 3
  const std::string name80(80, 'n'), HEAD = F(1) + C("inner.tri", 42, 80) + S("inner.tri");
  // Six more interfaces make ten, which end the list without an eleventh
  // question.
  std::string six, six_out, six_table;
  for (int i = 0; i < 6; i++) {
    const std::string name = "s" + std::to_string(i) + ".tri";
    write_sphere(dir, name, 0, 1.0 + 0.1 * i);
    six += name + "\n" + std::to_string(i + 1) + "\n";
    six_out += F(i + 5) + C(name, 12, 20) + S(name);
    six_table += E(name, icosphere(0, 1.0 + 0.1 * i), std::to_string(i + 1));
  }
  const std::string NEGATIVE =
      "\nConductivity cannot be negative!\nFor combined electric/magnetic computations negative conductivity\n"
      "has a special meaning, but that does not apply here.\n\n";
  const struct {
    std::string input;
    std::vector<std::string> args;
    int status;
    std::string err, out;  // out follows GEO_INTRO (without its last two lines for "noiso")
  } rows[] = {
      {"inner.tri\n1\nmiddle.bin\n0.0125\nouter.tri\n\nnegzero.bin\n1\n" + six, {}, 0, "",
       HEAD + F(2) + C("middle.bin", 42, 80) + S("middle.bin") + F(3) + C("outer.tri", 162, 320) + S("outer.tri") +
           F(4) + C("negzero.bin", 42, 80) + S("negzero.bin") + six_out +
           "\nTotal: 10 interfaces, 360 vertices and 680 triangles\n" + E("inner.tri", inner, "1") +
           E("middle.bin", middle, "0.0125000002") + E("outer.tri", outer, "1") + E("negzero.bin", negzero, "1") +
           six_table + "== iso_sur -1 inner_only 0 totpnt 360 totdhk 680\n"},
      // Refused files and answers are asked for again and leave nothing
      // behind; empty or unreadable conductivities are 1.  Only the newline
      // ends an answer: a carriage return stays in the name.
      {"missing.tri\nbroken.tri\nbadindex.tri\n" + name80 + "\n!missing.tri\ninner.tri\r\ninner.tri\nnan\nabc\n\n", {}, 0,
       "\nError opening file missing.tri\a\a\n\n\nError reading file broken.tri\a\a\n\n"
       "\nTriangle 2 of badindex.tri refers to a non-existent vertex\a\a\n\n\nAnswer too long: at most 79 characters\n"
       "\nError opening file missing.tri\a\a\n\n\nError opening file inner.tri\r\a\a\n\n"
       "\nConductivity must be a finite number!\n\n",
       F(1) + F(1) + F(1) + C("badindex.tri", 3, 2) + F(1) + F(1) + F(1) + HEAD + S("inner.tri") + F(2) +
           "\nTotal: 1 interface , 42 vertices and 80 triangles\n" + E("inner.tri", inner, "1") +
           "== iso_sur -1 inner_only 0 totpnt 42 totdhk 80\n"},
      {"inner.tri\n-0.5\n\n", {}, 1, NEGATIVE, HEAD},
      // Only the isolated interface of a magnetic run may be negative: then
      // it is the only one for the gradiometer.
      {"outer.tri\n1\n!inner.tri\n-0.5\n\n", {"magnetic"}, 0, "",
       F(1) + C("outer.tri", 162, 320) + S("outer.tri") + F(2) +
           "Enter a negative conductivity if you want to consider this interface\n"
           "to be the outer interface in the computation of the magnetic field\n" +
           C("inner.tri", 42, 80) + S("inner.tri") + F(3) + "\nTotal: 2 interfaces, 204 vertices and 400 triangles\n"
           "   Interface inner.tri is the isolated source interface\n"
           "   For the gradiometer field inner.tri is the only interface\n" + E("outer.tri", outer, "1") +
           E("inner.tri", inner, "0.5") + "== iso_sur 1 inner_only 1 totpnt 204 totdhk 400\n"},
      {"!inner.tri\n1\n!outer.tri\n1\n\n", {}, 1, fatal("There can be only one isolated source interface"), HEAD + F(2)},
      {"!inner.tri\n1\n\n", {"noiso"}, 1, fatal("This program does not allow the isolated source approach"), F(1)},
      // Surfaces with the same vertices are fatal after the totals.
      {"copy.bin\n1\nouter.tri\n1\ninner.tri\n1\n\n", {}, 1,
       fatal("Geometry integrety error;\nAny vertex of copy.bin is also a vertex of inner.tri,\n so they propably intersect!"),
       F(1) + C("copy.bin", 42, 80) + S("copy.bin") + F(2) + C("outer.tri", 162, 320) + S("outer.tri") + F(3) +
           C("inner.tri", 42, 80) + S("inner.tri") + F(4) + "\nTotal: 3 interfaces, 246 vertices and 480 triangles\n"},
  };
  const std::string intro = GEO_INTRO;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.input);
    const ProcResult r = run_process(probe("probe_geo"), row.args, row.input, dir.path(), 60);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(r.err, row.err);
    EXPECT_EQ(r.out, (row.args.empty() || row.args[0] != "noiso" ? intro : intro.substr(0, intro.find("   ("))) + row.out);
  }
}
