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

const std::string HEAD =
    "Enter the names of the geometry files and their corresponding conductivities.\n"
    "Finish by entering an empty line.\n"
    "   (A filename preceeded by an exclamation mark (!) is\n"
    "    considered to be the \"isolated source\" interface)\n";

std::string ask_file(int n) { return "\nFilename of interface " + std::to_string(n) + ": "; }
std::string ask_sigma(const std::string &name) { return "Conductivity just within " + name + ": "; }
std::string contents(const std::string &name, size_t n, size_t m) {
  return name + " contains " + std::to_string(n) + " vertices and " + std::to_string(m) + " triangles\n";
}
std::string fatal(const std::string &msg) { return "\n\n Fatal error in brelix: " + msg + "\n\n\a"; }

// The probe's summary of one table entry.
std::string entry(int i, const std::string &name, const TriMesh &m, const std::string &sigma) {
  char buf[400];
  std::string s = "== geo " + std::to_string(i) + " name=" + name + " npnt=" + std::to_string(m.pnt.size()) +
                  " ndhk=" + std::to_string(m.dhk.size()) + " sigma_in=" + sigma;
  if (!m.pnt.empty()) {
    snprintf(buf, sizeof buf, " p0=%.9g,%.9g,%.9g", m.pnt[0][0], m.pnt[0][1], m.pnt[0][2]);
    s += buf;
  }
  if (!m.dhk.empty()) {
    snprintf(buf, sizeof buf, " t0=%d,%d,%d", m.dhk[0][0], m.dhk[0][1], m.dhk[0][2]);
    s += buf;
  }
  return s + "\n";
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

size_t count(const std::string &text, const std::string &part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) n++;
  return n;
}

class GeoDialogue : public testing::Test {
 protected:
  TempDir dir;
  TriMesh inner = icosphere(1, 0.0870), middle = icosphere(1, 0.0920), outer = icosphere(2, 0.1000);

  void SetUp() override {
    ASSERT_TRUE(write_trimesh(dir.file("inner.tri"), inner, false));
    ASSERT_TRUE(write_trimesh(dir.file("middle.bin"), middle, true));
    ASSERT_TRUE(write_trimesh(dir.file("outer.tri"), outer, false));
  }
  ProcResult run(const std::string &input, const std::vector<std::string> &args = {}) {
    return run_process(probe("probe_geo"), args, input, dir.path(), 60);
  }
};

TEST_F(GeoDialogue, ThreeNestedInterfaces) {
  ProcResult r = run("inner.tri\n1\nmiddle.bin\n0.0125\nouter.tri\n\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  size_t np = inner.pnt.size() + middle.pnt.size() + outer.pnt.size();
  size_t nt = inner.dhk.size() + middle.dhk.size() + outer.dhk.size();
  std::string want = HEAD + ask_file(1) + contents("inner.tri", 42, 80) + ask_sigma("inner.tri") + ask_file(2) +
                     contents("middle.bin", 42, 80) + ask_sigma("middle.bin") + ask_file(3) +
                     contents("outer.tri", 162, 320) + ask_sigma("outer.tri") + ask_file(4) + "\nTotal: 3 interfaces, " +
                     std::to_string(np) + " vertices and " + std::to_string(nt) + " triangles\n" + "== ngeo 3\n" +
                     entry(0, "inner.tri", inner, "1") + entry(1, "middle.bin", middle, "0.0125000002") +
                     entry(2, "outer.tri", outer, "1") + "== iso_sur -1 inner_only 0\n" + "== totpnt " +
                     std::to_string(np) + " totdhk " + std::to_string(nt) + "\n";
  EXPECT_EQ(r.out, want);
}

TEST_F(GeoDialogue, EmptyFirstAnswerQuitsAndEndOfInputFails) {
  ProcResult quit = run("\n");
  EXPECT_EQ(quit.status, 0);
  EXPECT_EQ(quit.out, HEAD + ask_file(1));
  EXPECT_EQ(quit.err, "");

  // An empty answer after a failed read is still the first answer.
  ProcResult again = run("missing.tri\n\n");
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out, HEAD + ask_file(1) + ask_file(1));

  ProcResult eof_name = run("");
  EXPECT_EQ(eof_name.status, 1);
  EXPECT_EQ(eof_name.out, HEAD + ask_file(1));

  ProcResult eof_later = run("inner.tri\n2\n");
  EXPECT_EQ(eof_later.status, 1);
  EXPECT_EQ(eof_later.out, HEAD + ask_file(1) + contents("inner.tri", 42, 80) + ask_sigma("inner.tri") + ask_file(2));

  ProcResult eof_sigma = run("inner.tri\n");
  EXPECT_EQ(eof_sigma.status, 1);
  EXPECT_EQ(eof_sigma.out, HEAD + ask_file(1) + contents("inner.tri", 42, 80) + ask_sigma("inner.tri"));
}

TEST_F(GeoDialogue, OneInterfaceTotalHasABlankForThePlural) {
  ProcResult r = run("outer.tri\n0.33\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has(r.out, ask_file(2) + "\nTotal: 1 interface , 162 vertices and 320 triangles\n== ngeo 1\n")) << r.out;
  ProcResult two = run("inner.tri\n\nouter.tri\n\n\n");
  EXPECT_TRUE(has(two.out, "\nTotal: 2 interfaces, 204 vertices and 400 triangles\n")) << two.out;
}

TEST_F(GeoDialogue, ConductivityAnswers) {
  struct Case {
    std::string answer, sigma;
  } cases[] = {
      {"", "1"},        {"0", "0"},          {"2.5", "2.5"},   {"  0.33 S/m", "0.330000013"},
      {"abc", "1"},     {"1e-3junk", "0.00100000005"},      {"-0", "-0"},
  };
  for (const Case &c : cases) {
    ProcResult r = run("inner.tri\n" + c.answer + "\n\n");
    EXPECT_EQ(r.status, 0) << c.answer << r.err;
    EXPECT_EQ(r.err, "") << c.answer;
    EXPECT_TRUE(has(r.out, entry(0, "inner.tri", inner, c.sigma))) << "answer '" << c.answer << "'\n" << r.out;
  }

  // Numbers a conductivity cannot be are refused and asked for again.
  for (std::string bad : {"nan", "inf", "-inf", "1e39"}) {
    ProcResult r = run("inner.tri\n" + bad + "\n4\n\n");
    EXPECT_EQ(r.status, 0) << bad << r.err;
    EXPECT_EQ(r.err, "\nConductivity must be a finite number!\n\n") << bad;
    EXPECT_EQ(count(r.out, ask_sigma("inner.tri")), 2u) << bad;
    EXPECT_TRUE(has(r.out, entry(0, "inner.tri", inner, "4"))) << bad << "\n" << r.out;
  }
}

TEST_F(GeoDialogue, NegativeConductivityEndsTheRun) {
  const std::string lines =
      "\nConductivity cannot be negative!\n"
      "For combined electric/magnetic computations negative conductivity\n"
      "has a special meaning, but that does not apply here.\n\n";
  ProcResult r = run("inner.tri\n-0.5\n\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, lines);
  EXPECT_EQ(r.out, HEAD + ask_file(1) + contents("inner.tri", 42, 80) + ask_sigma("inner.tri"));

  // Not even for the isolated-source interface of a purely electric run,
  // nor for an ordinary interface of a magnetic one.
  ProcResult iso = run("!inner.tri\n-0.5\n\n");
  EXPECT_EQ(iso.status, 1);
  EXPECT_EQ(iso.err, lines);
  ProcResult mag = run("outer.tri\n1\ninner.tri\n-1\n\n", {"magnetic"});
  EXPECT_EQ(mag.status, 1);
  EXPECT_EQ(mag.err, lines);
}

TEST_F(GeoDialogue, NegativeConductivityOfTheIsolatedInterfaceInAMagneticRun) {
  ProcResult r = run("outer.tri\n1\n!inner.tri\n-0.5\n\n", {"magnetic"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string want = HEAD + ask_file(1) + contents("outer.tri", 162, 320) + ask_sigma("outer.tri") + ask_file(2) +
                     "Enter a negative conductivity if you want to consider this interface\n"
                     "to be the outer interface in the computation of the magnetic field\n" +
                     contents("inner.tri", 42, 80) + ask_sigma("inner.tri") + ask_file(3) +
                     "\nTotal: 2 interfaces, 204 vertices and 400 triangles\n"
                     "   Interface inner.tri is the isolated source interface\n"
                     "   For the gradiometer field inner.tri is the only interface\n" +
                     "== ngeo 2\n" + entry(0, "outer.tri", outer, "1") + entry(1, "inner.tri", inner, "0.5") +
                     "== iso_sur 1 inner_only 1\n== totpnt 204 totdhk 400\n";
  EXPECT_EQ(r.out, want);
}

TEST_F(GeoDialogue, IsolatedSourceInterface) {
  ProcResult r = run("outer.tri\n1\n!inner.tri\n\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  // No magnetic hint in an electric run; the name is kept without the "!".
  EXPECT_FALSE(has(r.out, "Enter a negative conductivity"));
  EXPECT_TRUE(has(r.out, ask_file(2) + contents("inner.tri", 42, 80) + ask_sigma("inner.tri")));
  EXPECT_TRUE(has(r.out, "\nTotal: 2 interfaces, 204 vertices and 400 triangles\n"
                         "   Interface inner.tri is the isolated source interface\n== ngeo 2\n"))
      << r.out;
  EXPECT_TRUE(has(r.out, entry(1, "inner.tri", inner, "1")));
  EXPECT_TRUE(has(r.out, "== iso_sur 1 inner_only 0\n"));

  ProcResult twice = run("!inner.tri\n1\n!outer.tri\n1\n\n");
  EXPECT_EQ(twice.status, 1);
  EXPECT_EQ(twice.err, fatal("There can be only one isolated source interface"));
  EXPECT_FALSE(has(twice.out, "outer.tri contains"));

  // A failed "!" answer does not leave an isolated interface behind.
  ProcResult failed = run("!missing.tri\n!inner.tri\n1\nouter.tri\n1\n\n");
  EXPECT_EQ(failed.status, 0) << failed.err;
  EXPECT_EQ(failed.err, "\nError opening file missing.tri\a\a\n\n");
  EXPECT_TRUE(has(failed.out, "== iso_sur 0 inner_only 0\n"));
  ProcResult failed_plain = run("!missing.tri\ninner.tri\n1\n\n");
  EXPECT_TRUE(has(failed_plain.out, "== iso_sur -1 inner_only 0\n")) << failed_plain.out;
  EXPECT_FALSE(has(failed_plain.out, "isolated source interface\n"));

  // Where the caller does not allow it, the "!" answer is fatal and the
  // hint is not printed.
  ProcResult refused = run("!inner.tri\n1\n\n", {"noiso"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, fatal("This program does not allow the isolated source approach"));
  EXPECT_EQ(refused.out,
            "Enter the names of the geometry files and their corresponding conductivities.\n"
            "Finish by entering an empty line.\n" +
                ask_file(1));
}

TEST_F(GeoDialogue, UnreadableFilesAreAskedForAgain) {
  write_file(dir.file("broken.tri"), "3\n0 0 0\n1 1\n");
  // Triangle 2 names vertex 4 of 3; the first triangle is fine.
  write_file(dir.file("badindex.tri"), "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 2 3\n1 2 4\n");
  write_file(dir.file("zeroindex.tri"), "3\n0 0 0\n1 0 0\n0 1 0\n1\n0 1 2\n");
  ProcResult r = run("missing.tri\nbroken.tri\nbadindex.tri\nzeroindex.tri\ninner.tri\n1\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err,
            "\nError opening file missing.tri\a\a\n\n"
            "\nError reading file broken.tri\a\a\n\n"
            "\nTriangle 2 of badindex.tri refers to a non-existent vertex\a\a\n\n"
            "\nTriangle 1 of zeroindex.tri refers to a non-existent vertex\a\a\n\n");
  std::string want = HEAD + ask_file(1) + ask_file(1) + ask_file(1) + contents("badindex.tri", 3, 2) + ask_file(1) +
                     contents("zeroindex.tri", 3, 1) + ask_file(1) + contents("inner.tri", 42, 80) +
                     ask_sigma("inner.tri") + ask_file(2) + "\nTotal: 1 interface , 42 vertices and 80 triangles\n";
  EXPECT_EQ(r.out.substr(0, want.size()), want);
  // Nothing of the refused files counts.
  EXPECT_TRUE(has(r.out, "== ngeo 1\n" + entry(0, "inner.tri", inner, "1") + "== iso_sur -1 inner_only 0\n" +
                             "== totpnt 42 totdhk 80\n"))
      << r.out;
}

TEST_F(GeoDialogue, AnswerLongerThan79CharactersIsAskedAgain) {
  std::string name79(79, 'n'), name80(80, 'n');
  ASSERT_TRUE(write_trimesh(dir.file(name79), inner, false));
  ASSERT_TRUE(write_trimesh(dir.file(name80), inner, false));
  ProcResult r = run(name80 + "\n" + name79 + "\n1\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "\nAnswer too long: at most 79 characters\n");
  EXPECT_TRUE(has(r.out, HEAD + ask_file(1) + ask_file(1) + contents(name79, 42, 80))) << r.out;
  EXPECT_TRUE(has(r.out, "== ngeo 1\n== geo 0 name=" + name79 + " "));
}

TEST_F(GeoDialogue, TenInterfacesEndTheListWithoutAnEleventhQuestion) {
  std::string input;
  for (int i = 0; i < 10; i++) {
    std::string name = "s" + std::to_string(i) + ".tri";
    ASSERT_TRUE(write_trimesh(dir.file(name), icosphere(0, 1.0 + 0.1 * i), i % 2 == 1));
    input += name + "\n" + std::to_string(i + 1) + "\n";
  }
  // No empty answer follows: an eleventh question would meet end of input.
  ProcResult r = run(input);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(has(r.out, ask_sigma("s9.tri") + "\nTotal: 10 interfaces, 120 vertices and 200 triangles\n")) << r.out;
  EXPECT_FALSE(has(r.out, "interface 11"));
  EXPECT_TRUE(has(r.out, "== ngeo 10\n"));
  EXPECT_TRUE(has(r.out, entry(9, "s9.tri", icosphere(0, 1.0 + 0.1 * 9), "10")));
}

// Writes the mesh with its vertices in a shuffled order (triangles follow
// the vertices), so that coincidence cannot depend on the order.
TriMesh shuffled(const TriMesh &m, unsigned seed) {
  std::vector<int> perm(m.pnt.size());
  std::iota(perm.begin(), perm.end(), 0);
  std::mt19937 rng(seed);
  std::shuffle(perm.begin(), perm.end(), rng);
  TriMesh s;
  s.pnt.resize(m.pnt.size());
  for (size_t i = 0; i < perm.size(); i++) s.pnt[perm[i]] = m.pnt[i];
  for (auto t : m.dhk) s.dhk.push_back({perm[t[0]], perm[t[1]], perm[t[2]]});
  return s;
}

TEST_F(GeoDialogue, CoincidentInterfacesAreFatal) {
  auto message = [](const std::string &a, const std::string &b) {
    return fatal("Geometry integrety error;\nAny vertex of " + a + " is also a vertex of " + b +
                 ",\n so they propably intersect!");
  };
  ProcResult same = run("inner.tri\n1\ninner.tri\n2\n\n");
  EXPECT_EQ(same.status, 1);
  EXPECT_EQ(same.err, message("inner.tri", "inner.tri"));
  // The totals come before the check.
  EXPECT_TRUE(has(same.out, "\nTotal: 2 interfaces, 84 vertices and 160 triangles\n")) << same.out;
  EXPECT_FALSE(has(same.out, "== ngeo"));

  // The same surface in the other encoding and vertex order, as the third
  // interface: the message names the earlier one first.
  ASSERT_TRUE(write_trimesh(dir.file("copy.bin"), shuffled(inner, 7), true));
  ProcResult copy = run("copy.bin\n1\nouter.tri\n1\ninner.tri\n1\n\n");
  EXPECT_EQ(copy.status, 1);
  EXPECT_EQ(copy.err, message("copy.bin", "inner.tri"));

  // Two surfaces without vertices share all of them.
  write_file(dir.file("none1.tri"), "0\n");
  write_file(dir.file("none2.tri"), "0\n0\n");
  ProcResult none = run("none1.tri\n1\nnone2.tri\n1\n\n");
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, message("none1.tri", "none2.tri"));
}

TEST_F(GeoDialogue, SurfacesThatDifferInOneVertexPass) {
  // Moved by the least possible amount, in one coordinate of one vertex,
  // at a few places in the table.
  for (size_t v : {size_t(0), size_t(17), inner.pnt.size() - 1})
    for (int k = 0; k < 3; k++) {
      TriMesh moved = shuffled(inner, 11);
      auto it = std::find(moved.pnt.begin(), moved.pnt.end(), inner.pnt[v]);
      ASSERT_NE(it, moved.pnt.end());
      (*it)[k] = std::nextafter((*it)[k], 1.0f);
      ASSERT_TRUE(write_trimesh(dir.file("moved.bin"), moved, true));
      ProcResult r = run("inner.tri\n1\nmoved.bin\n1\n\n");
      EXPECT_EQ(r.status, 0) << "vertex " << v << " coordinate " << k << r.err;
      EXPECT_EQ(r.err, "");
      EXPECT_TRUE(has(r.out, "== ngeo 2\n"));
    }
  // Equal vertex counts on different spheres, and a mesh whose vertices are
  // a subset of another's (different counts are not compared).
  ProcResult r = run("inner.tri\n1\nmiddle.bin\n1\n\n");
  EXPECT_EQ(r.status, 0) << r.err;
  TriMesh subset = icosphere(0, 0.0870);
  for (auto &p : subset.pnt) ASSERT_NE(std::find(inner.pnt.begin(), inner.pnt.end(), p), inner.pnt.end());
  ASSERT_TRUE(write_trimesh(dir.file("subset.tri"), subset, false));
  ProcResult s = run("subset.tri\n1\ninner.tri\n1\n\n");
  EXPECT_EQ(s.status, 0) << s.err;
}

}  // namespace
