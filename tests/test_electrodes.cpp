// Electrode files, the electrode dialogue and potentials at electrodes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "forwinv/electrodes.h"
#include "forwinv/forwinv.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

namespace {

const char PROMPT[] = "\nElectrode file: ";

// One electrode line of the probe's report.
struct ElecLine {
  int e = -1, index = 0;
  float u = 0, v = 0;
  std::string label_hex;
  double value = 0;
  bool has_value = false;
};

struct Report {
  std::string elname;
  int nel = -1, elec_vertex = -1, surfelec = -1;
  std::vector<ElecLine> el;  // el[0..nel]
};

Report parse(const std::string &out) {
  Report r;
  size_t at = out.find("\nelname=[");
  if (at == std::string::npos) return r;
  std::istringstream in(out.substr(at + 1));
  std::string line;
  std::getline(in, line);
  size_t close = line.find("] nel=");
  r.elname = line.substr(8, close - 8);
  sscanf(line.c_str() + close, "] nel=%d elec_vertex=%d surfelec=%d", &r.nel, &r.elec_vertex, &r.surfelec);
  while (std::getline(in, line)) {
    ElecLine l;
    char hex[64] = "";
    int n = sscanf(line.c_str(), "%d: index=%d u=%g v=%g label=%24s elval=%lg", &l.e, &l.index, &l.u, &l.v, hex,
                   &l.value);
    if (n < 5) break;
    l.label_hex = hex;
    l.has_value = n == 6;
    r.el.push_back(l);
  }
  return r;
}

std::string hex_label(const std::string &text) {
  std::string h;
  char buf[3];
  for (int c = 0; c < 12; c++) {
    snprintf(buf, sizeof buf, "%02x", c < (int)text.size() ? (unsigned char)text[c] : 0);
    h += buf;
  }
  return h;
}

ProcResult run_probe(const TempDir &dir, const std::vector<std::string> &args, const std::string &input) {
  return run_process(probe("probe_elec"), args, input, dir.path(), 30);
}

// Value at a point of triangle t of a level-0 sphere for phi[k] = k.
double sphere_triangle_value(int t, double u, double v) {
  TriMesh m = icosphere(0, 1.0);
  auto &tri = m.dhk[t];
  return (1 - u - v) * (tri[0] + 1) + u * (tri[1] + 1) + v * (tri[2] + 1);
}

}  // namespace

TEST(ElectrodeFile, VertexFormWhenSecondLineHasTwoNumbers) {
  TempDir dir;
  // The third line has three numbers, but the form follows the second line.
  write_file(dir.file("el.txt"), "3\n1 5\n2 7 9\n3   12\n");
  ProcResult p = run_probe(dir, {"0:1"}, "el.txt\n");
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.out.rfind(PROMPT, 0), 0u);
  EXPECT_EQ(p.out.find("All vertices"), std::string::npos);
  Report r = parse(p.out);
  EXPECT_EQ(r.elname, "el.txt");
  EXPECT_EQ(r.nel, 3);
  EXPECT_EQ(r.elec_vertex, 1);
  EXPECT_EQ(r.surfelec, 1);
  ASSERT_EQ(r.el.size(), 4u);
  EXPECT_EQ(r.el[0].index, 0);
  EXPECT_EQ(r.el[0].label_hex, hex_label(""));
  const int want[] = {5, 7, 12};
  for (int e = 1; e <= 3; e++) {
    EXPECT_EQ(r.el[e].index, want[e - 1]);
    EXPECT_DOUBLE_EQ(r.el[e].value, want[e - 1]);  // phi[k] = k
  }
}

TEST(ElectrodeFile, VertexElectrodesBeyondTheFirstInterfaceClearSurfelec) {
  TempDir dir;
  // Two interfaces of 12 vertices: vertex 12 is the last of interface 0.
  write_file(dir.file("last0.txt"), "1\n1 12\n");
  write_file(dir.file("first1.txt"), "2\n1 1\n2 13\n");
  Report r = parse(run_probe(dir, {"0:2", "0:1"}, "last0.txt\n").out);
  EXPECT_EQ(r.nel, 1);
  EXPECT_EQ(r.surfelec, 1);
  r = parse(run_probe(dir, {"0:2", "0:1"}, "first1.txt\n").out);
  EXPECT_EQ(r.nel, 2);
  EXPECT_EQ(r.surfelec, 0);
  ASSERT_EQ(r.el.size(), 3u);
  EXPECT_DOUBLE_EQ(r.el[2].value, 13);
}

TEST(ElectrodeFile, TriangleFormWithLabels) {
  TempDir dir;
  write_file(dir.file("tri.txt"),
             "4\n"
             "1 0.25 0.5 !Fz\n"
             "20 0 0\n"
             "5 0.1 0.2 !ABCDEFGHIJKL\n"
             "7 0.125 0.375\n");
  ProcResult p = run_probe(dir, {"0:1"}, "tri.txt\n");
  ASSERT_EQ(p.status, 0) << p.err;
  Report r = parse(p.out);
  EXPECT_EQ(r.nel, 4);
  EXPECT_EQ(r.elec_vertex, 0);
  EXPECT_EQ(r.surfelec, 1);  // all on interface 0 (20 triangles)
  ASSERT_EQ(r.el.size(), 5u);
  struct {
    int index;
    float u, v;
    const char *label;
  } want[] = {{0, 0.25f, 0.5f, "Fz"}, {19, 0, 0, ""}, {4, 0.1f, 0.2f, "ABCDEFGHIJ"}, {6, 0.125f, 0.375f, ""}};
  for (int e = 1; e <= 4; e++) {
    SCOPED_TRACE(e);
    EXPECT_EQ(r.el[e].index, want[e - 1].index);
    EXPECT_FLOAT_EQ(r.el[e].u, want[e - 1].u);
    EXPECT_FLOAT_EQ(r.el[e].v, want[e - 1].v);
    EXPECT_EQ(r.el[e].label_hex, hex_label(want[e - 1].label));
    EXPECT_NEAR(r.el[e].value, sphere_triangle_value(want[e - 1].index, want[e - 1].u, want[e - 1].v), 1e-4);
  }
}

TEST(ElectrodeFile, TriangleOnAnInnerInterfaceClearsSurfelecAndReadsFirstInterfaceValues) {
  TempDir dir;
  // Triangle 21 is the first triangle of interface 1 (20 + 20 triangles).
  write_file(dir.file("t.txt"), "2\n20 0 0\n21 0.5 0.25\n");
  ProcResult p = run_probe(dir, {"0:2", "0:1"}, "t.txt\n");
  ASSERT_EQ(p.status, 0) << p.err;
  Report r = parse(p.out);
  EXPECT_EQ(r.surfelec, 0);
  ASSERT_EQ(r.el.size(), 3u);
  EXPECT_EQ(r.el[2].index, 20);
  // Local vertex numbers of interface 1's triangle 0, taken in the first
  // interface's range of phi: the same value as triangle 0 of interface 0.
  EXPECT_NEAR(r.el[2].value, sphere_triangle_value(0, 0.5, 0.25), 1e-4);

  // The last triangle of the model is accepted, one more is fatal.
  write_file(dir.file("last.txt"), "1\n40 0.2 0.2\n");
  p = run_probe(dir, {"0:2", "0:1"}, "last.txt\n");
  EXPECT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(parse(p.out).el.at(1).index, 39);
  write_file(dir.file("over.txt"), "2\n1 0.2 0.2\n41 0.2 0.2\n");
  p = run_probe(dir, {"0:2", "0:1"}, "over.txt\n");
  EXPECT_EQ(p.status, 1);
  EXPECT_NE(p.err.find("Fatal error in probe_elec: Electrode file refers to non-existent triangles"),
            std::string::npos)
      << p.err;
}

TEST(ElectrodeFile, TriangleZeroIsStoredAsMinusOneButHasNoValue) {
  TempDir dir;
  write_file(dir.file("zero.txt"), "1\n0 0.3 0.3 !Cz\n");
  ProcResult p = run_probe(dir, {"0:1"}, "zero.txt\n");
  // Accepted by the reader; asking for its potential is fatal.
  EXPECT_NE(p.out.find("1: index=-1 u=0.3 v=0.3 label=" + hex_label("Cz")), std::string::npos) << p.out;
  EXPECT_EQ(p.status, 1);
  EXPECT_NE(p.err.find("Electrode at non-existing triangle in elval."), std::string::npos) << p.err;
}

TEST(ElectrodeFile, VertexNumbersOutsideTheModelAreFatal) {
  TempDir dir;
  for (const char *bad : {"0", "13", "-4"}) {
    SCOPED_TRACE(bad);
    write_file(dir.file("v.txt"), std::string("2\n1 1\n2 ") + bad + "\n");
    ProcResult p = run_probe(dir, {"0:1"}, "v.txt\n");
    EXPECT_EQ(p.status, 1);
    EXPECT_NE(p.err.find("Fatal error in probe_elec: Electrode file refers to non-existent vertices"),
              std::string::npos)
        << p.err;
    EXPECT_EQ(p.out.find("elname="), std::string::npos);
  }
}

TEST(ElectrodeDialogue, EmptyAnswerAndStarTakeVertices) {
  TempDir dir;
  ProcResult p = run_probe(dir, {"0:2", "0:1"}, "\n");
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.out.rfind(std::string(PROMPT) + "All vertices of first interface are electrodes\n", 0), 0u) << p.out;
  Report r = parse(p.out);
  EXPECT_EQ(r.elname, "");
  EXPECT_EQ(r.nel, 12);
  EXPECT_EQ(r.elec_vertex, 1);
  EXPECT_EQ(r.surfelec, 1);
  ASSERT_EQ(r.el.size(), 13u);
  for (int e = 1; e <= 12; e++) EXPECT_EQ(r.el[e].index, e);

  p = run_probe(dir, {"0:2", "0:1"}, "*\n");
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.out.rfind(std::string(PROMPT) + "All vertices of all interfaces are electrodes\n", 0), 0u) << p.out;
  r = parse(p.out);
  EXPECT_EQ(r.elname, "*");
  EXPECT_EQ(r.nel, 24);
  EXPECT_EQ(r.surfelec, 0);
  ASSERT_EQ(r.el.size(), 25u);
  EXPECT_EQ(r.el[24].index, 24);
  EXPECT_DOUBLE_EQ(r.el[24].value, 24);

  // A single interface: "*" is all of interface 0, which keeps surfelec.
  r = parse(run_probe(dir, {}, "*\n").out);
  EXPECT_EQ(r.nel, 4);
  EXPECT_EQ(r.surfelec, 1);
}

TEST(ElectrodeDialogue, FirstInterfaceNotOutermostOrIsolatedClearsSurfelec) {
  TempDir dir;
  EXPECT_EQ(parse(run_probe(dir, {"0:1", "0:2", "--geocon"}, "\n").out).surfelec, 0);
  EXPECT_EQ(parse(run_probe(dir, {"0:1", "0:2", "--iso0"}, "\n").out).surfelec, 0);
  EXPECT_EQ(parse(run_probe(dir, {"0:2", "0:1"}, "\n").out).surfelec, 1);
}

TEST(ElectrodeDialogue, MissingFileIsAskedAgainWithAMessage) {
  TempDir dir;
  write_file(dir.file("ok.txt"), "1\n1 2\n");
  ProcResult p = run_probe(dir, {}, "nofile.txt\nok.txt\n");
  ASSERT_EQ(p.status, 0) << p.err;
  std::string want = std::string(PROMPT) + "\n Error opening nofile.txt; please try another filename.\n\n\a" + PROMPT +
                     "\nelname=[ok.txt] nel=1 ";
  EXPECT_EQ(p.out.rfind(want, 0), 0u) << p.out;
  EXPECT_EQ(p.err, "");
}

TEST(ElectrodeDialogue, UnusableFilesAreAskedAgainSilently) {
  TempDir dir;
  const char *bad[] = {
      "hello\n",                           // no count
      "",                                  // empty file
      "0\n1 1\n",                          // no electrodes
      "-3\n1 1\n",                         // negative count
      "3\n1 1\n2 2\n",                     // a line short (too small to hold it)
      "3\n1 1\n2 2\n          \n",         // a blank third line
      "2\n1 1          \n",                 // end of file instead of line 2
      "2000000000\n1 1\n2 2\n",            // far more than the file holds
      "2\n1 1\nx y\n",                     // unparsable vertex line
      "2\n1 0.2 0.2\n2 0.1\n",             // triangle form, line with two numbers
      "1\n",                               // count without lines
  };
  for (const char *content : bad) {
    SCOPED_TRACE(content);
    write_file(dir.file("bad.txt"), content);
    ProcResult p = run_probe(dir, {}, "bad.txt\n\n");
    ASSERT_EQ(p.status, 0) << p.err;
    EXPECT_EQ(p.out.rfind(std::string(PROMPT) + PROMPT + "All vertices of first interface are electrodes\n", 0), 0u)
        << p.out;
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(parse(p.out).nel, 4);
  }
  // The count needs only as many lines as it says; trailing text is ignored.
  write_file(dir.file("short.txt"), "2\n1 3\n2 4\ngarbage\n");
  Report r = parse(run_probe(dir, {}, "short.txt\n").out);
  EXPECT_EQ(r.nel, 2);
  EXPECT_EQ(r.el.at(2).index, 4);
  // The smallest file that holds its count: no final newline.
  write_file(dir.file("tight.txt"), "2\n1 3\n2 4");
  EXPECT_EQ(parse(run_probe(dir, {}, "tight.txt\n").out).nel, 2);
}

TEST(ElectrodeDialogue, EndOfInputEndsWithStatusOne) {
  TempDir dir;
  ProcResult p = run_probe(dir, {}, "");
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.out, PROMPT);
  p = run_probe(dir, {}, "missing.txt\n");
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.out.find("elname="), std::string::npos);
}

// elval in-process on a hand-built model of two tetrahedra.
class ElvalTest : public testing::Test {
 protected:
  float pnt0[4][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  float pnt1[4][3] = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}};
  int32_t dhk0[4][3] = {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}};
  int32_t dhk1[3][3] = {{2, 1, 0}, {0, 3, 1}, {3, 2, 1}};
  Electrode table[8] = {};
  float phi_store[9] = {0, 10, 20, 30, 40, 50, 60, 70, 80};  // phi[1..8]

  void SetUp() override {
    ngeo = 2;
    geo[0].npnt = 4;
    geo[0].pnt = pnt0;
    geo[0].ndhk = 4;
    geo[0].dhk = dhk0;
    geo[1].npnt = 4;
    geo[1].pnt = pnt1;
    geo[1].ndhk = 3;
    geo[1].dhk = dhk1;
    totpnt = 8;
    totdhk = 7;
    el = table;
  }
};

TEST_F(ElvalTest, VertexElectrodesReadTheirVertex) {
  elec_vertex = 1;
  nel = 3;
  table[1].index = 1;
  table[2].index = 6;
  table[3].index = 8;
  EXPECT_EQ(elval(1, phi_store), 10);
  EXPECT_EQ(elval(2, phi_store), 60);
  EXPECT_EQ(elval(3, phi_store), 80);
}

TEST_F(ElvalTest, TriangleElectrodesInterpolateLinearly) {
  elec_vertex = 0;
  nel = 4;
  table[1] = {3, 0.25f, 0.5f, {}};   // interface 0, triangle {1,3,2}
  table[2] = {0, 0, 0, {}};          // at vertex a of {0,1,2}
  table[3] = {4, 0.5f, 0.25f, {}};   // interface 1, triangle {2,1,0}
  table[4] = {6, 1, 0, {}};          // interface 1, triangle {3,2,1}, at vertex b
  // (1-u-v) phi[a+1] + u phi[b+1] + v phi[c+1], with local numbers of the
  // triangle's own interface read in the first interface's range.
  EXPECT_DOUBLE_EQ(elval(1, phi_store), 0.25 * 20 + 0.25 * 40 + 0.5 * 30);
  EXPECT_DOUBLE_EQ(elval(2, phi_store), 10);
  EXPECT_DOUBLE_EQ(elval(3, phi_store), 0.25 * 30 + 0.5 * 20 + 0.25 * 10);
  EXPECT_DOUBLE_EQ(elval(4, phi_store), 30);
}

TEST_F(ElvalTest, TrianglesOutsideTheModelAreFatal) {
  elec_vertex = 0;
  nel = 1;
  const char msg[] = "Fatal error in .*: Electrode at non-existing triangle in elval\\.";
  table[1] = {7, 0.1f, 0.1f, {}};  // one past the last triangle
  EXPECT_EXIT(elval(1, phi_store), testing::ExitedWithCode(1), msg);
  table[1] = {-1, 0.1f, 0.1f, {}};
  EXPECT_EXIT(elval(1, phi_store), testing::ExitedWithCode(1), msg);
  // A local vertex number that would read past phi[totpnt].
  dhk1[2][0] = 8;
  table[1] = {6, 0.1f, 0.1f, {}};
  EXPECT_EXIT(elval(1, phi_store), testing::ExitedWithCode(1), msg);
}
