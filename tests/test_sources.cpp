// The source table: the source position file with its constraint lines,
// parameter numbering, first orientation estimate and the angle helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

namespace {

const std::string PROMPT = "\nSource position file: ";
const std::string READ_ERROR = "\nError reading file s.dip\a\a\n\n";
const std::string LINE_ERROR = "\n Error in constraint description in file s.dip\n\n\a\a";
const std::string MOVING_ERROR =
    "\n Error in constraint description in s.dip:\n"
    " moving dipoles cannot be combined with non-moving dipoles\n\n\a\a";
const std::string TWO = "2\n1 10 5 3\n2 -10 5 3\n";  // a mirrored pair

std::string syntax_error(int source) {
  return "\n Syntax error in constraint description of source " + std::to_string(source) +
         "\n\n\a\a"
         "  Correct syntax of constraint description:\n\n"
         "  <source index> <constr 1> <constr 2> ...\n\n"
         "  Where <constr> =   position    ( fixed | stationary | moving )\n"
         "                or   orientation ( free | stationary )\n"
         "                or   symmetric to <source index>\n\n";
}
std::string fatal(const std::string &msg) { return "\n\n Fatal error in probe_sources: " + msg + "\n\n\a"; }

// Runs the probe in a fresh folder on `contents` written as s.dip (and a
// good.dip to answer with), feeding `input` to the repeated question.
ProcResult probe_run(const std::string &contents, const std::string &input = "", bool numbering = false,
                     const std::string &arg = "s.dip") {
  TempDir dir;
  write_file(dir.file("s.dip"), contents);
  write_file(dir.file("good.dip"), "1\n1 0 0 1\n");
  std::vector<std::string> args;
  if (numbering) args.push_back("-n");
  args.push_back(arg);
  return run_process(probe("probe_sources"), args, input, dir.path(), 30);
}

// Checks `want` ("source 2: nl 3 nn 0; table constraint 1") against the
// probe's lines: each part names a line by its start, then "name value" pairs.
void expect_fields(const std::string &out, const std::string &want) {
  std::istringstream parts(want);
  std::string part;
  while (std::getline(parts, part, ';')) {
    std::istringstream wanted(part);
    std::string prefix, name, value, line;
    wanted >> prefix;
    if (prefix == "source" || prefix == "index") wanted >> name, prefix += " " + name;
    std::istringstream lines(out);
    while (std::getline(lines, line) && line.compare(0, prefix.size() + 1, prefix + " ") != 0) {
    }
    if (line.compare(0, prefix.size() + 1, prefix + " ") != 0) {
      ADD_FAILURE() << "no line " << prefix << " in:\n" << out;
      continue;
    }
    std::map<std::string, std::string> got;
    std::istringstream words(line.substr(prefix.size()));
    while (words >> name >> value) got[name] = value;
    while (wanted >> name >> value) EXPECT_EQ(got[name], value) << prefix << " " << name;
  }
}

}  // namespace

// Every refusal ends at the repeated question (here at end of input, status
// 1) with the message on the right stream, or fatally for bad symmetry.
TEST(SourceFile, RefusedFilesGiveTheirMessage) {
  std::string line79 = "1 position stationary", long_source = "1 0 0";
  line79.resize(79, ' ');
  long_source.resize(85, ' ');
  const std::string SELF = "Nonsense: source 1 symmetric to itself\n";
  const std::string BOTH = "Nonsense: source 2 symmetric to both 1 and 3\n";
  const std::string SAME_COORDS = "\nSymmetric sources must have to equal coordinates";
  const std::string ONE_SIDED = "\nSymmetry constraints must be specified in only on of the two sources involved";
  struct Group {
    std::string out, err;
    std::vector<std::string> files;
  } groups[] = {
      {READ_ERROR + PROMPT, "",
       {"", "two\n1 0 0 0\n", "0\n", "-3\n1 0 0 0\n",
        "1000000000\n1 0 0 0\n2 0 0 0\n",  // more sources than the file can hold
        "99999999999999999999\n1 0 0 0\n", "2\n1 0 0 0\n", "2\n1 0 0 0\n\n2 1 1 1\n", "1\n1 0 0\n",
        "1\n1 x 0 0\n", "1\n1 nan 0 0\n", "1\n1 0 0 -1e39\n",
        "2\n" + long_source + "1\n2 0 0 1\n"}},  // first piece of a long line lacks z
      {LINE_ERROR + PROMPT, "",
       {TWO + "position fixed\n", TWO + "x 1 p st\n", TWO + "a1 p st\n",
        "1\n1 0 0 1\n" + line79 + "o st\n"}},  // the rest of a long line is a line of its own
      {syntax_error(1) + PROMPT, "",
       {TWO + "1 x fixed\n", TWO + "1 p xx\n", TWO + "1 p f\n", TWO + "1 orientation\n", TWO + "1 P st\n"}},
      {syntax_error(2) + PROMPT, "",
       {TWO + "2 position\n", TWO + "2 o mo\n", TWO + "2 symmetric to\n", TWO + "2 sy too 1\n", TWO + "2 sy one\n",
        TWO + "2 p sy\n", TWO + "2 o sy to x\n", TWO + "2 sy 3\n", TWO + "2 sy 0\n", TWO + "1 p st\n2 p st 7\n"}},
      // The recorded zero-based partner 1 equals the own one-based number.
      {syntax_error(1) + PROMPT, SELF, {TWO + "1 symmetric to 2 position symmetric to 2\n"}},
      {syntax_error(2) + PROMPT, BOTH, {"3\n1 1 0 0\n2 -1 0 0\n3 0 0 5\n2 sy 1\n2 orientation symmetric 3\n"}},
      {MOVING_ERROR + PROMPT, "",
       {TWO + "1 position=moving\n", "1\n1 0 0 1\n1 p mo o st\n", "1\n1 0 0 1\n1 p mo p fi\n"}},
      {"", fatal(SAME_COORDS), {"2\n1 10 5 3\n2 -10 4 3\n1 p st\n2 sy 1\n", "2\n1 10 5 3\n2 -10 5 4\n1 p st\n2 sy 1\n"}},
      {"", fatal("\nSymmetric sources may not coincide"), {"2\n1 10 5 3\n2 10 5 3\n1 p st\n2 sy 1\n"}},
      {"", fatal("Symmetric free oriented sources not allowed"), {TWO + "2 symmetric to 1\n"}},
      {"", fatal(ONE_SIDED), {TWO + "1 p st\n1 sy 1\n", TWO + "1 p st\n2 p st\n1 sy 2\n2 sy 1\n"}},
      {"", fatal("Separate orientation symmetry not yet implemented"), {TWO + "1 p st\n1 orientation symmetric 2\n"}},
  };
  for (const Group &g : groups)
    for (const std::string &file : g.files) {
      SCOPED_TRACE(file);
      ProcResult r = probe_run(file);
      EXPECT_EQ(r.out, g.out);
      EXPECT_EQ(r.err, g.err);
      EXPECT_EQ(r.status, 1);
    }
}

TEST(SourceFile, RefusedFileIsAskedForAgain) {
  ProcResult missing = probe_run("", "good.dip\n", false, "missing.dip");
  EXPECT_EQ(missing.status, 0);
  EXPECT_EQ(missing.err, "");
  EXPECT_EQ(missing.out.rfind("\nError opening file missing.dip\a\a\n\n" + PROMPT + "good.dip defines 1 source \n", 0),
            0u) << missing.out;
  ProcResult quit = probe_run("1\n1 0 0\n", "\n");  // an empty answer gives up quietly
  EXPECT_EQ(quit.status, 0);
  EXPECT_EQ(quit.out, READ_ERROR + PROMPT);
}

TEST(SourceFile, AcceptedFilesBuildTheTable) {
  struct Row {
    std::string file, expect, out_start = "";
    bool numbering = false;
  };
  std::string line79 = "1 position stationary", source79 = "1 0 0 1";
  line79.resize(79, ' ');
  source79.insert(2, 72, ' ');
  std::vector<Row> rows = {
      {"1\n7 1.5 -2 0.25\n", "source 1: x 1.5 y -2 z 0.25 sym -1 nl 3 nn 0",
       "s.dip defines 1 source \ntable nsource 1 constraint -1\n"},
      {"3\n1 0 0 1\n2 0 1 0\n3 1 0 0\n", "", "s.dip defines 3 sources\n"},
      // Lines for sources that do not exist are reported and skipped.
      {"2\n1 0 0 1\n2 0 1 0\n3 p st\n0 position stationary\n-4 o st\n1 o st\n",
       "source 1: ori_stationary 1 pos_mode 0; table constraint 1",
       "Constraint description of non-existent source 3 in file s.dip\n"
       "Constraint description of non-existent source 0 in file s.dip\n"
       "Constraint description of non-existent source -4 in file s.dip\ns.dip defines 2 sources\n"},
      {"1\n1 0 0 1\n2 p st\n", "table constraint -1"},
      // Constraint kind: -1 without lines, 0 when all fixed and free.
      {TWO, "table constraint -1"},
      {TWO + "# comment\n\n   \n", "table constraint -1"},
      {TWO + "1\n", "table constraint 0"},
      {TWO + "1 p st p fi\n", "table constraint 0"},  // later overrides earlier
      {TWO + "2 o st\n", "table constraint 1"},
      {TWO + "1 p fi\n1 p st\n", "table constraint 1"},
      {TWO + "2 p sy 1\n", "table constraint 0"},  // symmetry bits do not count
      {TWO + "1 p mo\n2 position:moving orientation:free\n",
       "table constraint 2; source 1: pos_mode 2 nn 3 nl 3; source 2: pos_mode 2 nn 3 nl 3"},
      // The same partner named again is no contradiction.
      {TWO + "1 p st\n2 p sy 1\n2 o sy to 1\n2 sy 1\n", "source 2: pos_symmetric 1 ori_symmetric 1 sym 0"},
      // A written position file reads back: angles ignored, "stationar" enough.
      {"   3\n   1  0.1000  0.2000  0.3000  45.0000 -90.0000\n   2 -0.1000  0.2000  0.3000   0.0000   0.0000\n"
       "   3  0.0000 -1.2500  0.5000\n   1  position stationar  orientation stationar\n"
       "   2  position symmetric to 1  orientation symmetric to 1\n   3  position fixed  orientation free\n",
       "table constraint 1; source 1: x 0.100000001 theta 0 alfa 0 ori_stationary 1 pos_mode 1;"
       "source 2: pos_symmetric 1 ori_symmetric 1 sym 0 symaxis 0; source 3: y -1.25 z 0.5 pos_mode 0 ori_stationary 0"},
      // Lines of 79 characters are whole; garbage of any length, NUL bytes
      // included, is skipped piece by piece.
      {"1\n1 0 0 1\n" + line79 + "\n1 o st\n", "source 1: pos_mode 1 ori_stationary 1"},
      {"2\n" + source79 + "\n2 0 0 2\n", "source 2: z 2"},
      {"1\n1 0 0 1\n" + std::string(5000, '7') + std::string("\0\0 p \0sy 2\n", 11) + std::string(300, '#') + "\n",
       "", "Constraint description of non-existent source 2147483647 in file s.dip\n"},
      // Mirror images: axis and plane, the partner's counts and parameters.
      {TWO + "1 position stationary\n2 symmetric to 1\n",
       "table constraint 1; source 2: symaxis 0 symplane 0 pos_mode 1 nn 0 nl 3 sym 0; index 1: pindex 1;"
       "index 2: pindex 1 lindex 4; totals nnpar 3 nlpar 6",
       "", true},
      {"2\n1 1 2 3\n2 1 -4 3\n1 p st o st\n2 sy 1\n", "source 2: symaxis 1 symplane -1 ori_stationary 1 nl 1 nn 0"},
      {"2\n1 1 2 3\n2 1 2 8\n1 p st o st\n2 sy 1\n", "source 2: symaxis 2 symplane 5.5"},
      {"2\n1 4 2 3\n2 3 2 3\n1 p st o st\n2 sy 1\n", "source 2: symaxis 0 symplane 3.5"},
      {TWO + "2 position symmetric to 1\n", "source 2: pos_symmetric 1 ori_symmetric 0 nl 3 nn 0"},
      // Numbering of a mixed model: stationary/stationary, fixed/free,
      // stationary/free, mirror of 1, fixed/stationary orientation.
      {"5\n1 2 1 1\n2 0 0 5\n3 0 3 0\n4 -2 1 1\n5 1 1 1\n1 p st o st\n3 p st\n4 sy 1\n5 o st\n",
       "table constraint 1; totals nlpar 9 nnpar 10; source 1: nl 1 nn 5; source 2: nl 3 nn 0; source 3: nl 3 nn 3;"
       "source 4: nl 1 nn 0; source 5: nl 1 nn 2; index 1: lindex 1 pindex 1 oindex 4;"
       "index 2: lindex 2 pindex 0 oindex 0; index 3: lindex 5 pindex 6 oindex 0;"
       "index 4: lindex 8 pindex 1 oindex 4; index 5: lindex 9 pindex 0 oindex 9",
       "", true},
  };
  for (const char *line : {"1 position=stationary orientation=stationary\n",
                           "1 position:stationary\torientation : stationary\n", "1 pos stat ori stay\n",
                           "   1 position stationar orientation stationar\r\n"})
    rows.push_back({"1\n1 0 0 1\n" + std::string(line), "source 1: pos_mode 1 ori_stationary 1 nn 5 nl 1"});

  for (const Row &row : rows) {
    SCOPED_TRACE(row.file);
    ProcResult r = probe_run(row.file, "", row.numbering);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind(row.out_start, 0), 0u) << r.out;
    expect_fields(r.out, row.expect);
  }
}

TEST(SourceFile, RefusedFilesAreClosedAndOutputsUntouched) {
  TempDir dir;
  const std::string path = dir.file("s.dip");
  auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  auto before = descriptors();
  // One of each way out: header, source line, line start, syntax, moving.
  for (const char *contents : {"x\n", "2\n1 0 0 0\n", "2\n1 0 0 1\n2 0 0 2\nposition\n",
                               "2\n1 0 0 1\n2 0 0 2\n1 p bogus\n", "2\n1 0 0 1\n2 0 0 2\n1 p mo\n"}) {
    write_file(path, contents);
    int n = 123, c = 7;
    SourceRecord *table = reinterpret_cast<SourceRecord *>(&n);
    testing::internal::CaptureStdout();
    EXPECT_EQ(init_dip(path.c_str(), &n, &table, &c), 0) << contents;
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(n == 123 && c == 7 && table == reinterpret_cast<SourceRecord *>(&n)) << contents;
    EXPECT_EQ(descriptors(), before) << contents;
  }
  write_file(path, "2\n1 0 0 1\n2 0 0 2\n");
  int n = 0, c = 5;
  SourceRecord *table = nullptr;
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(path.c_str(), &n, &table, &c), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), path + " defines 2 sources\n");
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(c, -1);  // a previous kind does not survive
  EXPECT_EQ(table[1].z, 2.0f);
  free(table);
}

// ------------------------------------------------ first orientation guess

TEST(InitialOrientation, SignedSquaresOfTheMomentsSetTheAngles) {
  const int nt = 3;
  std::vector<SourceRecord> src(2, SourceRecord{});
  src[0].sym = src[1].sym = -1;
  float **d = matrix(1, 6, 1, nt);
  // Moment of source i at every sample t: amp[t-1] times direction u.
  auto set = [&](int i, std::vector<double> amp, std::vector<double> u) {
    for (int t = 1; t <= nt; t++)
      for (int k = 0; k < 3; k++) d[3 * i + k + 1][t] = (float)(amp[t - 1] * u[k]);
  };
  src[0].ori_stationary = 1;
  set(1, {1, 1, 1}, {0, 0, 7});  // free source: left alone
  src[1].theta = 0.25f;
  struct Case {
    std::vector<double> amp, u;
    double alfa, theta;
  } cases[] = {
      // Equal component sizes survive the signed squares unchanged.
      {{2.0, -0.5, 1.0}, {1, 1, 1}, M_PI / 4, atan2(sqrt(2.0), 1.0)},
      // Mostly negative amplitudes turn the estimate round.
      {{-2.0, 0.5, -1.0}, {0, 1, 0}, -M_PI / 2, M_PI / 2},
      // Unequal components: signed squares (1, 4, -4)/9.
      {{1, 1, 1}, {1.0 / 3, 2.0 / 3, -2.0 / 3}, atan2(4.0, 1.0), atan2(sqrt(17.0), -4.0)},
      // Zero sums: along -x alfa is 0, not pi; along -z theta is 0.
      {{-3, -1, 0}, {1, 0, 0}, 0, M_PI / 2},
      {{-3, -1, 0}, {0, 0, 1}, 0, 0},
  };
  for (const Case &c : cases) {
    set(0, c.amp, c.u);
    src[0].alfa = src[0].theta = 1.0f;
    EXPECT_EQ(init_ori(2, nt, src.data(), d), 1);
    EXPECT_NEAR(src[0].alfa, c.alfa, 1e-6) << c.u[0] << " " << c.u[1] << " " << c.u[2];
    EXPECT_NEAR(src[0].theta, c.theta, 1e-6) << c.u[0] << " " << c.u[1] << " " << c.u[2];
    EXPECT_TRUE(src[1].theta == 0.25f && src[1].alfa == 0.0f);
  }
  // Nothing stationary: nothing estimated.
  src[0].ori_stationary = 0;
  src[0].theta = 0.5f;
  EXPECT_EQ(init_ori(2, nt, src.data(), d), 0);
  EXPECT_EQ(src[0].theta, 0.5f);

  // A mirrored partner adds its moments, mirrored back, and is mirrored.
  // Source 0 shows nothing; source 1 carries (-1, 1, 1), which is (1, 1, 1)
  // seen from source 0.
  src[0].ori_stationary = src[1].ori_stationary = src[1].ori_symmetric = src[1].pos_symmetric = 1;
  src[1].sym = 0;
  src[1].symaxis = 0;
  set(0, {0, 0, 0}, {0, 0, 0});
  set(1, {1.5, 1.5, 0}, {-1, 1, 1});
  EXPECT_EQ(init_ori(2, nt, src.data(), d), 1);
  EXPECT_NEAR(src[0].alfa, M_PI / 4, 1e-6);
  EXPECT_NEAR(src[0].theta, atan2(sqrt(2.0), 1.0), 1e-6);
  EXPECT_NEAR(src[1].alfa, 3 * M_PI / 4, 1e-6);
  EXPECT_NEAR(src[1].theta, atan2(sqrt(2.0), 1.0), 1e-6);
  src[1].symaxis = 2;  // mirror in z: the z component is turned round
  set(1, {1, 1, 1}, {0, 0, -1});
  init_ori(2, nt, src.data(), d);
  EXPECT_EQ(src[0].theta, 0.0f);
  EXPECT_NEAR(src[1].theta, M_PI, 1e-6);
  free_matrix(d, 1, 6, 1, nt);
}

// -------------------------------------------------------- angle helpers

namespace {
void direction(double theta, double alfa, double u[3]) {
  u[0] = sin(theta) * cos(alfa);
  u[1] = sin(theta) * sin(alfa);
  u[2] = cos(theta);
}
}  // namespace

TEST(Angles, CorrectAlfaThetaKeepsTheDirectionInOneStep) {
  struct Case {
    float theta, alfa;
    double want_theta, want_alfa;
  } cases[] = {
      {4.0f, 0.5f, 2 * M_PI - 4.0, 0.5 - M_PI},
      {-0.2f, -3.0f, 0.2, M_PI - 3.0},
      {1.0f, 2.0f, 1.0, 2.0},
      {1.0f, 4.0f, 1.0, 4.0 - 2 * M_PI},
      {1.0f, 10.0f, 1.0, 10.0 - 2 * M_PI},  // one turn only: still out of range
  };
  for (const Case &c : cases) {
    float a[2] = {c.theta, c.alfa};
    correct_alfa_theta(a);
    EXPECT_NEAR(a[0], c.want_theta, 1e-5) << c.theta << " " << c.alfa;
    EXPECT_NEAR(a[1], c.want_alfa, 1e-5) << c.theta << " " << c.alfa;
  }
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> th(-M_PI + 1e-3, 2 * M_PI - 1e-3), al(-M_PI, M_PI);
  for (int k = 0; k < 2000; k++) {
    float a[2] = {(float)th(rng), (float)al(rng)};
    double before[3], after[3];
    direction(a[0], a[1], before);
    correct_alfa_theta(a);
    direction(a[0], a[1], after);
    for (int j = 0; j < 3; j++) ASSERT_NEAR(after[j], before[j], 2e-6);
    ASSERT_TRUE(a[0] >= 0 && a[0] <= (float)M_PI && a[1] >= -(float)M_PI && a[1] <= (float)M_PI) << a[0] << " " << a[1];
  }
}

TEST(Angles, TransAlfaThetaMirrorsTheDirection) {
  std::mt19937 rng(777);
  std::uniform_real_distribution<double> th(0, M_PI), al(-M_PI, M_PI);
  for (int k = 0; k < 1000; k++)
    for (int axis = 0; axis <= 3; axis++) {
      float theta = (float)th(rng), alfa = (float)al(rng);
      double u[3], v[3];
      direction(theta, alfa, u);
      if (axis < 3) u[axis] = -u[axis];
      trans_alfa_theta(&alfa, &theta, axis);
      direction(theta, alfa, v);
      for (int j = 0; j < 3; j++) ASSERT_NEAR(v[j], u[j], 2e-6) << "axis " << axis;
      ASSERT_TRUE(alfa >= -(float)M_PI - 1e-6f && alfa <= (float)M_PI + 1e-6f) << alfa;
    }
  float alfa = -1.5f, theta = 1.0f;
  trans_alfa_theta(&alfa, &theta, 0);  // pi + 1.5 exceeds pi: one turn back
  EXPECT_NEAR(alfa, 1.5 - M_PI, 1e-6);
  trans_alfa_theta(&alfa, &theta, 7);  // no such axis: unchanged
  EXPECT_NEAR(alfa, 1.5 - M_PI, 1e-6);
  EXPECT_EQ(theta, 1.0f);
}
