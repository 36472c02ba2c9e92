// Electrode files, the electrode dialogue and potentials at electrodes.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "tests/support/files.h"
#include "tests/support/h1_model.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

const std::string PROMPT = "\nElectrode file: ";

// The probe on a model of level-0 spheres (or the tetrahedron), el.txt
// holding `content` when given.
ProcResult run_probe(const std::vector<std::string> &args, const std::string &input, const char *content = nullptr) {
  TempDir dir;
  if (content) write_file(dir.file("el.txt"), content);
  return run_process(probe("probe_elec"), args, input, dir.path(), 30);
}

// The probe's line for electrode (index, u, v, label); its potential for
// phi[k] = k is the vertex number, or for triangle t of a level-0 sphere
// interpolated by hand from the triangle's vertices.
std::string line(int index, double u, double v, const std::string &label, bool vertex) {
  const auto t = icosphere(0, 1.0).dhk[index % 20];
  const double value = vertex ? index : (1 - u - v) * (t[0] + 1) + u * (t[1] + 1) + v * (t[2] + 1);
  char buf[200];
  snprintf(buf, sizeof buf, "%d %.6g %.6g [%s] %.6g\n", index, u, v, label.c_str(), value);
  return buf;
}

std::string all_vertices(int n) {
  std::string s;
  for (int k = 1; k <= n; k++) s += line(k, 0, 0, "", true);
  return s;
}

}  // namespace

TEST(Electrodes, FilesAndAnswersGiveTheElectrodeTable) {
  const std::vector<std::string> one = {"0:1"}, two = {"0:2", "0:1"};
  const std::string first = "All vertices of first interface are electrodes\n";
  const struct {
    std::vector<std::string> args;
    const char *content;  // of el.txt, answered as the file name; null: `answer`
    std::string answer, out;
  } cases[] = {
      // The form follows the second line; the count ends the list.
      {one, "3\n1 5\n2 7 9\n3   12\ngarbage", "", "nel=3 elec_vertex=1 surfelec=1\n" + line(5, 0, 0, "", 1) +
                                                      line(7, 0, 0, "", 1) + line(12, 0, 0, "", 1)},
      {two, "2\n1 1\n2 13\n", "", "nel=2 elec_vertex=1 surfelec=0\n" + line(1, 0, 0, "", 1) + line(13, 0, 0, "", 1)},
      // Triangles with labels of at most 10 characters; those of interface 1
      // number their vertices in the first interface's range.
      {one, "2\n1 0.25 0.5 !Fz\n5 0.125 0.375 !ABCDEFGHIJKL\n", "",
       "nel=2 elec_vertex=0 surfelec=1\n" + line(0, 0.25, 0.5, "Fz", 0) + line(4, 0.125, 0.375, "ABCDEFGHIJ", 0)},
      {two, "2\n21 0.5 0.25\n40 0.2 0.2\n", "",
       "nel=2 elec_vertex=0 surfelec=0\n" + line(20, 0.5, 0.25, "", 0) + line(39, 0.2, 0.2, "", 0)},
      {two, nullptr, "", first + "\nelname=[] nel=12 elec_vertex=1 surfelec=1\n" + all_vertices(12)},
      {two, nullptr, "*", "All vertices of all interfaces are electrodes\n\nelname=[*] nel=24 elec_vertex=1 surfelec=0\n" +
                              all_vertices(24)},
      {{"0:1", "0:2", "--geocon"}, nullptr, "", first + "\nelname=[] nel=12 elec_vertex=1 surfelec=0\n" + all_vertices(12)},
      {{"0:1", "0:2", "--iso0"}, nullptr, "", first + "\nelname=[] nel=12 elec_vertex=1 surfelec=0\n" + all_vertices(12)},
  };
  for (const auto &c : cases) {
    const ProcResult p = run_probe(c.args, (c.content ? "el.txt" : c.answer) + "\n", c.content);
    EXPECT_EQ(p.status, 0) << p.err;
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.out, PROMPT + (c.content ? "\nelname=[el.txt] " : "") + c.out);
  }
}

TEST(Electrodes, ElectrodesOutsideTheModelAreFatal) {
  const std::pair<const char *, const char *> cases[] = {
      {"2\n1 0.2 0.2\n41 0.2 0.2\n", "triangles"}, {"2\n1 1\n2 0\n", "vertices"}, {"2\n1 1\n2 25\n", "vertices"}};
  for (const auto &[content, what] : cases) {
    const ProcResult p = run_probe({"0:2", "0:1"}, "el.txt\n", content);
    EXPECT_EQ(p.status, 1);
    EXPECT_EQ(p.out, PROMPT);
    EXPECT_NE(p.err.find(std::string("Fatal error in probe_elec: Electrode file refers to non-existent ") + what), std::string::npos) << p.err;
  }
  // Triangle number 0 is accepted and stored as -1, but has no potential.
  const ProcResult p = run_probe({"0:1"}, "el.txt\n", "1\n0 0.3 0.3 !Cz\n");
  EXPECT_EQ(p.out, PROMPT + "\nelname=[el.txt] nel=1 elec_vertex=0 surfelec=1\n-1 0.3 0.3 [Cz]");
  EXPECT_EQ(p.status, 1);
  EXPECT_NE(p.err.find("Electrode at non-existing triangle in elval."), std::string::npos) << p.err;
}

TEST(Electrodes, UnusableAnswersAreAskedAgain) {
  // No count, counts of none or more than the file holds, lines missing,
  // unreadable or short of the form.
  for (const char *content : {"hello\n", "0\n1 1\n", "2000000000\n1 1\n2 2\n", "3\n1 1\n2 2\n", "2\n1 1\nx y\n",
                              "2\n1 0.2 0.2\n2 0.1\n"}) {
    const ProcResult p = run_probe({}, "el.txt\n\n", content);
    EXPECT_TRUE(p.status == 0 && p.err.empty()) << p.err;
    EXPECT_EQ(p.out.rfind(PROMPT + PROMPT + "All vertices of first interface are electrodes\n", 0), 0u) << content << p.out;
  }
  ProcResult p = run_probe({}, "nofile.txt\nel.txt\n", "1\n1 2\n");
  EXPECT_EQ(p.out, PROMPT + "\n Error opening nofile.txt; please try another filename.\n\n\a" + PROMPT +
                       "\nelname=[el.txt] nel=1 elec_vertex=1 surfelec=1\n2 0 0 [] 2\n");
  p = run_probe({}, "");  // end of input ends the run
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.out, PROMPT);
}

TEST(Elval, TriangleElectrodesInterpolateOverTheirOwnInterface) {
  // Two tetrahedra of 4 and 3 triangles; phi[k] = 10 k.
  const TriMesh t0 = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}}};
  const TriMesh t1 = {{{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}}, {{2, 1, 0}, {0, 3, 1}, {3, 2, 1}}};
  h1::load_model({{"t0", t0}, {"t1", t1}});
  Electrode table[4] = {{}, {3, 0.25f, 0.5f, {}}, {4, 0.5f, 0.25f, {}}, {6, 1, 0, {}}};
  const float phi[9] = {0, 10, 20, 30, 40, 50, 60, 70, 80};
  el = table, nel = 3, elec_vertex = 0;
  // (1-u-v) phi[a+1] + u phi[b+1] + v phi[c+1], with the local numbers of
  // the triangle's own interface read in the first interface's range.
  EXPECT_DOUBLE_EQ(elval(1, phi), 0.25 * 20 + 0.25 * 40 + 0.5 * 30);  // interface 0, {1,3,2}
  EXPECT_DOUBLE_EQ(elval(2, phi), 0.25 * 30 + 0.5 * 20 + 0.25 * 10);  // interface 1, {2,1,0}
  EXPECT_DOUBLE_EQ(elval(3, phi), 30);                                // interface 1, {3,2,1} at b
  // One past the last triangle (a negative one is in the file tests), and a
  // local vertex number that would read past phi[totpnt].
  const char msg[] = "Fatal error in .*: Electrode at non-existing triangle in elval\\.";
  table[1].index = 7;
  EXPECT_EXIT(elval(1, phi), testing::ExitedWithCode(1), msg);
  geo[1].dhk[2][0] = 8;
  EXPECT_EXIT(elval(3, phi), testing::ExitedWithCode(1), msg);
  el = nullptr;
}
