// Electrode files, the electrode dialogue and potentials at electrodes.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
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

// The probe's report after the dialogue: electrodes 0..nel with their
// potential for the vertex potentials phi[k] = k.
struct Report {
  int nel = -1, vertex = -1, surf = -1;
  struct Line {
    int index = 0;
    float u = 0, v = 0;
    std::string label = "";  // the 12 bytes in hex (expected: the text)
    double value = 0;
  };
  std::vector<Line> el;
};

Report parse(const std::string &out) {
  Report r;
  const size_t at = out.find("] nel=");
  if (at == std::string::npos) return r;
  std::istringstream in(out.substr(at + 1));
  std::string line;
  std::getline(in, line);
  sscanf(line.c_str(), " nel=%d elec_vertex=%d surfelec=%d", &r.nel, &r.vertex, &r.surf);
  while (std::getline(in, line)) {
    Report::Line l{};
    char hex[32] = "";
    int e;
    if (sscanf(line.c_str(), "%d: index=%d u=%g v=%g label=%24s elval=%lg", &e, &l.index, &l.u, &l.v, hex,
               &l.value) < 5)
      break;
    l.label = hex;
    r.el.push_back(l);
  }
  return r;
}

std::string hex_label(const std::string &text) {
  std::string h;
  char buf[3];
  for (int c = 0; c < 12; c++) h += (snprintf(buf, 3, "%02x", c < (int)text.size() ? (unsigned char)text[c] : 0), buf);
  return h;
}

// Run the probe on a model of level-0 spheres (or the tetrahedron) with
// el.txt holding `content` when it is given.
ProcResult run_probe(const std::vector<std::string> &args, const std::string &input, const char *content = nullptr) {
  TempDir dir;
  if (content) write_file(dir.file("el.txt"), content);
  return run_process(probe("probe_elec"), args, input, dir.path(), 30);
}

// Value at (u, v) of triangle t of a level-0 sphere for phi[k] = k.
double sphere_triangle_value(int t, double u, double v) {
  const auto tri = icosphere(0, 1.0).dhk[t];
  return (1 - u - v) * (tri[0] + 1) + u * (tri[1] + 1) + v * (tri[2] + 1);
}

}  // namespace

TEST(Electrodes, FilesAndAnswersGiveTheElectrodeTable) {
  const std::vector<std::string> two = {"0:2", "0:1"};
  const struct Case {
    const char *what;
    std::vector<std::string> args;
    const char *content;  // of el.txt, answered as the file name; null: `answer`
    std::string answer, message;
    int nel, vertex, surf;
    std::vector<Report::Line> el;  // expected electrodes (none: vertex e for every e)
  } cases[] = {
      {"the form follows the second line", {"0:1"}, "3\n1 5\n2 7 9\n3   12\n", "", "", 3, 1, 1,
       {{5}, {7}, {12}}},
      {"last vertex of interface 0", two, "1\n1 12\n", "", "", 1, 1, 1, {{12}}},
      {"vertex of interface 1", two, "2\n1 1\n2 13\n", "", "", 2, 1, 0, {{1}, {13}}},
      {"triangles with labels", {"0:1"}, "4\n1 0.25 0.5 !Fz\n20 0 0\n5 0.1 0.2 !ABCDEFGHIJKL\n7 0.125 0.375\n", "",
       "", 4, 0, 1, {{0, 0.25f, 0.5f, "Fz"}, {19, 0, 0, ""}, {4, 0.1f, 0.2f, "ABCDEFGHIJ"}, {6, 0.125f, 0.375f, ""}}},
      // Local vertex numbers of interface 1's triangles are read in the first
      // interface's range of phi.
      {"triangles of interface 1", two, "2\n20 0 0\n21 0.5 0.25\n", "", "", 2, 0, 0, {{19}, {20, 0.5f, 0.25f}}},
      {"last triangle", two, "1\n40 0.2 0.2\n", "", "", 1, 0, 0, {{39, 0.2f, 0.2f}}},
      {"the count ends the list", {}, "2\n1 3\n2 4\ngarbage\n", "", "", 2, 1, 1, {{3}, {4}}},
      {"no final newline", {}, "2\n1 3\n2 4", "", "", 2, 1, 1, {{3}, {4}}},
      {"empty answer", two, nullptr, "", "All vertices of first interface are electrodes\n", 12, 1, 1, {}},
      {"star", two, nullptr, "*", "All vertices of all interfaces are electrodes\n", 24, 1, 0, {}},
      {"star, one interface", {}, nullptr, "*", "All vertices of all interfaces are electrodes\n", 4, 1, 1, {}},
      {"first interface inside another", {"0:1", "0:2", "--geocon"}, nullptr, "",
       "All vertices of first interface are electrodes\n", 12, 1, 0, {}},
      {"first interface isolated", {"0:1", "0:2", "--iso0"}, nullptr, "",
       "All vertices of first interface are electrodes\n", 12, 1, 0, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string name = c.content ? "el.txt" : c.answer;
    ProcResult p = run_probe(c.args, name + "\n", c.content);
    ASSERT_EQ(p.status, 0) << p.err;
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.out.rfind(PROMPT + c.message + "\nelname=[" + name + "] nel=", 0), 0u) << p.out;
    Report r = parse(p.out);
    EXPECT_EQ(r.nel, c.nel);
    EXPECT_EQ(r.vertex, c.vertex);
    EXPECT_EQ(r.surf, c.surf);
    ASSERT_EQ(r.el.size(), (size_t)c.nel + 1);
    EXPECT_EQ(r.el[0].index, 0);
    EXPECT_EQ(r.el[0].label, hex_label(""));
    for (int e = 1; e <= c.nel; e++) {
      const Report::Line want = c.el.empty() ? Report::Line{e} : c.el[e - 1];
      EXPECT_EQ(r.el[e].index, want.index) << e;
      EXPECT_FLOAT_EQ(r.el[e].u, want.u) << e;
      EXPECT_FLOAT_EQ(r.el[e].v, want.v) << e;
      EXPECT_EQ(r.el[e].label, hex_label(want.label)) << e;
      if (c.vertex)
        EXPECT_EQ(r.el[e].value, want.index) << e;
      else
        EXPECT_NEAR(r.el[e].value, sphere_triangle_value(want.index % 20, want.u, want.v), 1e-4) << e;
    }
  }
}

TEST(Electrodes, ElectrodesOutsideTheModelAreFatal) {
  const struct {
    std::vector<std::string> args;
    const char *content, *message;
  } cases[] = {
      {{"0:2", "0:1"}, "2\n1 0.2 0.2\n41 0.2 0.2\n", "Fatal error in probe_elec: Electrode file refers to non-existent triangles"},
      {{"0:1"}, "2\n1 1\n2 0\n", "Fatal error in probe_elec: Electrode file refers to non-existent vertices"},
      {{"0:1"}, "2\n1 1\n2 13\n", "Fatal error in probe_elec: Electrode file refers to non-existent vertices"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.content);
    ProcResult p = run_probe(c.args, "el.txt\n", c.content);
    EXPECT_EQ(p.status, 1);
    EXPECT_NE(p.err.find(c.message), std::string::npos) << p.err;
    EXPECT_EQ(p.out.find("elname="), std::string::npos);
  }
  // Triangle number 0 is accepted and stored as -1, but has no potential.
  ProcResult p = run_probe({"0:1"}, "el.txt\n", "1\n0 0.3 0.3 !Cz\n");
  EXPECT_NE(p.out.find("1: index=-1 u=0.3 v=0.3 label=" + hex_label("Cz")), std::string::npos) << p.out;
  EXPECT_EQ(p.status, 1);
  EXPECT_NE(p.err.find("Electrode at non-existing triangle in elval."), std::string::npos) << p.err;
}

TEST(Electrodes, UnusableAnswersAreAskedAgain) {
  // No count, an empty file, counts of none, below none and more than the
  // file holds; lines missing, blank, unreadable, or short of the form.
  const char *bad[] = {"hello\n", "", "0\n1 1\n", "-3\n1 1\n", "2000000000\n1 1\n2 2\n", "1\n",
                       "3\n1 1\n2 2\n", "3\n1 1\n2 2\n          \n", "2\n1 1          \n", "2\n1 1\nx y\n",
                       "2\n1 0.2 0.2\n2 0.1\n"};
  for (const char *content : bad) {
    SCOPED_TRACE(content);
    ProcResult p = run_probe({}, "el.txt\n\n", content);
    ASSERT_EQ(p.status, 0) << p.err;
    EXPECT_EQ(p.out.rfind(PROMPT + PROMPT + "All vertices of first interface are electrodes\n", 0), 0u) << p.out;
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(parse(p.out).nel, 4);
  }
  ProcResult p = run_probe({}, "nofile.txt\nel.txt\n", "1\n1 2\n");
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.out.rfind(PROMPT + "\n Error opening nofile.txt; please try another filename.\n\n\a" + PROMPT +
                            "\nelname=[el.txt] nel=1 ",
                        0),
            0u)
      << p.out;
  EXPECT_EQ(p.err, "");
  // End of input ends the run with status 1.
  p = run_probe({}, "");
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.out, PROMPT);
  p = run_probe({}, "missing.txt\n");
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.out.find("elname="), std::string::npos);
}

TEST(Elval, TriangleElectrodesInterpolateOverTheirOwnInterface) {
  // Two tetrahedra of 4 and 3 triangles; phi[k] = 10 k.
  TriMesh t0, t1;
  t0.pnt = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  t0.dhk = {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}};
  t1.pnt = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}};
  t1.dhk = {{2, 1, 0}, {0, 3, 1}, {3, 2, 1}};
  h1::load_model({{"t0", t0}, {"t1", t1}});
  Electrode table[5] = {{}, {3, 0.25f, 0.5f, {}}, {0, 0, 0, {}}, {4, 0.5f, 0.25f, {}}, {6, 1, 0, {}}};
  const float phi[9] = {0, 10, 20, 30, 40, 50, 60, 70, 80};
  el = table;
  nel = 4;
  elec_vertex = 0;
  // (1-u-v) phi[a+1] + u phi[b+1] + v phi[c+1], with local numbers of the
  // triangle's own interface read in the first interface's range.
  EXPECT_DOUBLE_EQ(elval(1, phi), 0.25 * 20 + 0.25 * 40 + 0.5 * 30);  // interface 0, {1,3,2}
  EXPECT_DOUBLE_EQ(elval(2, phi), 10);                                // at vertex a of {0,1,2}
  EXPECT_DOUBLE_EQ(elval(3, phi), 0.25 * 30 + 0.5 * 20 + 0.25 * 10);  // interface 1, {2,1,0}
  EXPECT_DOUBLE_EQ(elval(4, phi), 30);                                // interface 1, {3,2,1} at b
  // One past the last triangle, a negative number, and a local vertex
  // number that would read past phi[totpnt].
  const char msg[] = "Fatal error in .*: Electrode at non-existing triangle in elval\\.";
  table[1].index = 7;
  EXPECT_EXIT(elval(1, phi), testing::ExitedWithCode(1), msg);
  table[1].index = -1;
  EXPECT_EXIT(elval(1, phi), testing::ExitedWithCode(1), msg);
  geo[1].dhk[2][0] = 8;
  EXPECT_EXIT(elval(4, phi), testing::ExitedWithCode(1), msg);
}
