// Hostile and damaged input through the whole program: every reader and
// every step of the dialogue, each case run by the built brelix with its own
// answers.  A case checks that the run ends normally with the expected
// status (never a crash or a hang: the runner kills a run after a minute),
// that the expected message appears on the expected stream and not on the
// other one, and, where the file is simply refused, that the same question
// is asked again.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

// ---- raw bytes of binary files ------------------------------------------

template <class T>
std::string bytes_of(std::initializer_list<T> v) {
  return std::string(reinterpret_cast<const char *>(v.begin()), sizeof(T) * v.size());
}
std::string words(std::initializer_list<int32_t> v) { return bytes_of(v); }
std::string floats(std::initializer_list<float> v) { return bytes_of(v); }

const float NaN = std::numeric_limits<float>::quiet_NaN();
const float Inf = std::numeric_limits<float>::infinity();

// A matrix file of rows x cols values (row r, column c holds r - 2c) and a
// tail; one value may be replaced.
std::string matrix_file(int rows, int cols, const std::string &tail = "", int bad_row = 0, float bad = 0) {
  std::string s = words({rows, cols});
  for (int r = 1; r <= rows; r++)
    for (int c = 1; c <= cols; c++) s += floats({r == bad_row && c == 1 ? bad : (float)(r - 2 * c)});
  return s + tail;
}

// A text matrix file of one column of ones whose first value is `first`.
std::string text_column(int rows, const std::string &first) {
  std::string s = std::to_string(rows) + " 1\n" + first + "\n";
  for (int r = 2; r <= rows; r++) s += "1\n";
  return s;
}

// A stored inverted A matrix of one tetrahedron whose four vertices are the
// electrodes, field by field as the file holds them; a case changes one
// field or cuts the file.
struct Ama {
  int32_t version = 10, kind = 0, ngeo = 1;
  int32_t triangle_index = 3;  // last index of the last triangle
  int32_t electrode_index = 4;  // vertex of the last electrode
  int32_t iso_sur = -1;
  size_t cut = std::string::npos;

  std::string bytes() const {
    std::string s = words({version, kind, ngeo});
    std::string name(80, '\0');
    memcpy(name.data(), "tetra.tri", 9);
    s += name;
    s += words({4}) + floats({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1});
    s += words({4, 0, 2, 1, 0, 1, 3, 1, 2, 3, 2, 0, triangle_index});
    s += floats({1.0f, 0.0f});  // sigma_in, sigma_out
    s += words({1}) + floats({0.25f});  // geocon and deflat rows
    s += std::string(80, '\0');         // electrode file name: the vertices
    s += words({4});
    s += std::string(24, '\0');  // record 0
    for (int32_t e = 1; e <= 4; e++) s += words({e == 4 ? electrode_index : e}) + std::string(20, '\0');
    s += words({1, 1});  // elec_vertex, surfelec
    for (int e = 1; e <= 4; e++)
      for (int p = 1; p <= 4; p++) s += floats({e == p ? 1.0f : 0.0f});
    s += words({iso_sur, 0});
    return s.substr(0, cut);
  }
};

// ---- the cases -------------------------------------------------------------

enum Stream { OUT, ERR, NONE };

struct BadInput {
  const char *id;
  std::vector<std::pair<std::string, std::string>> files;  // written beside the model
  std::vector<std::string> args;
  std::string input;    // the answers
  int status;           // expected exit status
  Stream stream;        // where the message goes
  std::string message;  // expected on that stream (NONE: nothing checked)
  std::string again;    // a question that must be asked (at least) twice
  std::string alt = "";  // an equally acceptable message
};
void PrintTo(const BadInput &c, std::ostream *os) { *os << c.id; }

// Answers of the one-sphere model (42 vertices, 80 triangles) up to the end
// of the interface list; "\n" to the electrode question takes all vertices,
// and an empty file name quits.
const std::string GEO = "sphere.tri\n1\n\n", TO_DATA = GEO + "\nsrc.pos\n";
const std::string P_IF1 = "\nFilename of interface 1: ", P_COND = "Conductivity just within sphere.tri: ",
                  P_ELEC = "\nElectrode file: ", P_SRC = "\nSource position file: ",
                  P_DATA = "\nMeasured potential data: ";
const std::string USAGE = "\nUsage:\nbrelix [-i] [ -f | -d [<value>] ] [filename]\n";

std::string fatal(const std::string &msg) { return "\n\n Fatal error in brelix: " + msg + "\n\n\a"; }
std::string read_error(const char *name) { return std::string("\nError reading file ") + name + "\a\a\n\n"; }
std::string mat_read_error(const char *name) { return std::string("\n Error reading ") + name + "\n\n\a\a"; }
const std::string BAD_TRI_VERTEX = "\nTriangle %d of bad.tri refers to a non-existent vertex\a\a\n\n";
const std::string NOT_NUMBERS = "bad.mat contains values that are not numbers\n\n\a\a";
const std::string AMA_READ = "\nerror reading bad.ama\n\n\a\a";

// A bad file in place of the first surface, the electrode file, the source
// file or the data, followed by good answers and a quit: the file must be
// refused and the question asked again.
BadInput bad_surface(const char *id, const std::string &contents, const std::string &message = read_error("bad.tri")) {
  return {id, {{"bad.tri", contents}}, {}, "bad.tri\n" + GEO + "\n\n", 0, ERR, message, P_IF1};
}
BadInput triangle_range(const char *id, const std::string &contents, int triangle) {
  std::string msg = BAD_TRI_VERTEX;
  return bad_surface(id, contents, msg.replace(msg.find("%d"), 2, std::to_string(triangle)));
}
BadInput bad_electrodes(const char *id, const std::string &contents) {  // refused without a word
  return {id, {{"bad.el", contents}}, {}, GEO + "bad.el\n\n\n", 0, NONE, "", P_ELEC};
}
BadInput bad_sources(const char *id, const std::string &contents, const std::string &message = read_error("bad.pos")) {
  return {id, {{"bad.pos", contents}}, {}, GEO + "\nbad.pos\n\n", 0, OUT, message, P_SRC};
}
BadInput bad_data(const char *id, const std::string &contents, Stream stream, const std::string &message) {
  return {id, {{"bad.mat", contents}}, {}, TO_DATA + "bad.mat\n\n\n", 0, stream, message, P_DATA};
}
BadInput bad_ama(const char *id, const std::string &contents, Stream stream = OUT,
                 const std::string &message = AMA_READ) {
  return {id, {{"bad.ama", contents}}, {"bad.ama"}, "", 1, stream, message, ""};
}
// A run that ends (status 1) with `message` on `stream`.
BadInput ends(const char *id, const std::vector<std::string> &args, const std::string &input, Stream stream,
              const std::string &message, std::vector<std::pair<std::string, std::string>> files = {}) {
  return {id, files, args, input, 1, stream, message, ""};
}

std::vector<BadInput> catalogue() {
  auto ama = [](auto change) {
    Ama a;
    change(a);
    return a.bytes();
  };
  const std::string tri3 = "3\n0 0 0\n1 0 0\n0 1 0\n", bin3 = words({3}) + floats({0, 0, 0, 1, 0, 0, 0, 1, 0});
  const std::string long_name(100, 'a');
  const std::string cond_finite = "\nConductivity must be a finite number!\n\n";
  return {
      // Triangle files, text and binary.
      {"TriMissing", {}, {}, "none.tri\n" + GEO + "\n\n", 0, ERR, "\nError opening file none.tri\a\a\n\n", P_IF1},
      {"TriFolder", {}, {}, "sub\n" + GEO + "\n\n", 0, ERR, read_error("sub"), P_IF1},
      bad_surface("TriEmpty", ""),
      bad_surface("TriShortVertices", "5\n0 0 0\n1 0 0\n"),
      bad_surface("TriTwoNumbers", "3\n0 0\n1 0 0\n0 1 0\n"),
      bad_surface("TriNaN", "3\n0 0 nan\n1 0 0\n0 1 0\n1\n1 2 3\n"),
      bad_surface("TriInf", "3\n0 0 0\n1 -inf 0\n0 1 0\n1\n1 2 3\n"),
      bad_surface("TriNegativeCount", "-3\n0 0 0\n"),
      bad_surface("TriHugeCount", "2147483647\n0 0 0\n"),
      bad_surface("TriCountOverflow", "99999999999\n0 0 0\n"),
      bad_surface("TriBlankCount", tri3 + "\n1 2 3\n"),
      triangle_range("TriIndexTooLarge", tri3 + "1\n1 2 4\n", 1),
      triangle_range("TriIndexZero", tri3 + "2\n1 2 3\n0 1 2\n", 2),  // text files count from 1
      bad_surface("TriIndexLowest", tri3 + "1\n1 2 -9223372036854775808\n"),
      bad_surface("TriBinaryTruncated", words({3}) + floats({0, 0, 0, 1, 0, 0})),
      bad_surface("TriBinaryNegativeTriangles", bin3 + words({-1})),
      triangle_range("TriBinaryIndex", bin3 + words({1, 0, 1, 3}), 1),
      bad_surface("TriBinaryNaN", words({3}) + floats({0, 0, 0, 1, NaN, 0, 0, 1, 0}) + words({1, 0, 1, 2})),

      // The model: conductivities, the interface list, the dialogue.
      ends("CondNegative", {}, "sphere.tri\n-1\n", ERR,
           "\nConductivity cannot be negative!\nFor combined electric/magnetic computations negative conductivity\n"
           "has a special meaning, but that does not apply here.\n\n"),
      {"CondNaN", {}, {}, "sphere.tri\nnan\n1\n\n\n\n", 0, ERR, cond_finite, P_COND},
      {"CondInf", {}, {}, "sphere.tri\ninf\n1\n\n\n\n", 0, ERR, cond_finite, P_COND},
      ends("GeoSameTwice", {}, "sphere.tri\n1\nsphere.tri\n1\n\n", ERR,
           fatal("Geometry integrety error;\nAny vertex of sphere.tri is also a vertex of sphere.tri,\n so they "
                 "propably intersect!")),
      ends("GeoTwoIsolated", {}, "!sphere.tri\n1\n!inner.tri\n", ERR,
           fatal("There can be only one isolated source interface")),
      {"AnswerTooLong", {}, {}, std::string(100, 'x') + "\n" + GEO + "\n\n", 0, ERR,
       "\nAnswer too long: at most 79 characters\n", P_IF1},
      ends("EndOfInputAtConductivity", {}, "sphere.tri\n", NONE, ""),
      ends("EndOfInputAtStart", {}, "", NONE, ""),
      {"QuitAtStart", {}, {}, "\n", 0, NONE, "", ""},
      {"ConstraintEndOfInput", {}, {}, TO_DATA + "data.mat\nx\n", 1, NONE, "",
       "\nSource constraint [ Fixed / Stationary / Moving ]: "},

      // Electrode files.
      {"ElMissing", {}, {}, GEO + "none.el\n\n\n", 0, OUT,
       "\n Error opening none.el; please try another filename.\n\n\a", P_ELEC},
      {"ElFolder", {}, {}, GEO + "sub\n\n\n", 0, NONE, "", P_ELEC},
      bad_electrodes("ElNoCount", "x\n1 1\n"),
      bad_electrodes("ElShort", "4\n1 1\n2 2\n"),
      bad_electrodes("ElHugeCount", "2147483647\n1 1\n"),
      bad_electrodes("ElZeroCount", "0\n"),
      bad_electrodes("ElBadLine", "2\n1 0.1 0.1\nsecond 0.2 0.2\n"),
      bad_electrodes("ElNaN", "2\n1 0.1 0.1\n2 nan 0.2\n"),
      bad_electrodes("ElInf", "2\n1 0.1 inf\n2 0.1 0.2\n"),
      ends("ElTriangleRange", {}, GEO + "bad.el\n", ERR, fatal("Electrode file refers to non-existent triangles"),
           {{"bad.el", "2\n1 0.1 0.1\n81 0.2 0.2\n"}}),
      ends("ElVertexRange", {}, GEO + "bad.el\n", ERR, fatal("Electrode file refers to non-existent vertices"),
           {{"bad.el", "2\n1 1\n2 43\n"}}),

      // Source position files.
      {"SrcMissing", {}, {}, GEO + "\nnone.pos\n\n", 0, OUT, "\nError opening file none.pos\a\a\n\n", P_SRC},
      bad_sources("SrcShort", "3\n1 0 0 0.3\n"),
      bad_sources("SrcNaN", "1\n1 0 nan 0.3\n"),
      bad_sources("SrcInf", "1\n1 inf 0 0\n"),
      bad_sources("SrcZero", "0\n"),
      bad_sources("SrcHuge", "2147483647\n1 0 0 0\n"),
      bad_sources("SrcSyntax", "1\n1 0 0 0.3\n1 colour red\n",
                  "\n Syntax error in constraint description of source 1\n\n\a\a  Correct syntax of constraint "
                  "description:\n"),
      bad_sources("SrcWordIndex", "1\n1 0 0 0.3\nfirst position fixed\n",
                  "\n Error in constraint description in file bad.pos\n\n\a\a"),
      bad_sources("SrcPartnerRange", "2\n1 0 0 0.3\n2 0 0 -0.3\n1 sy 7\n",
                  "\n Syntax error in constraint description of source 1\n\n\a\a"),
      bad_sources("SrcMovingMixed", "2\n1 0 0 0.3\n2 0 0.1 0.3\n1 position moving\n",
                  "\n Error in constraint description in bad.pos:\n moving dipoles cannot be combined with non-moving "
                  "dipoles\n\n\a\a"),
      {"SrcNonexistent", {{"bad.pos", "1\n1 0 0 0.3\n5 position fixed\n"}}, {}, GEO + "\nbad.pos\n\n\n", 0, OUT,
       "Constraint description of non-existent source 5 in file bad.pos\nbad.pos defines 1 source \n", ""},
      ends("SrcCoinciding", {}, GEO + "\nbad.pos\n", ERR, fatal("\nSymmetric sources may not coincide"),
           {{"bad.pos", "2\n1 0 0 0.3\n2 0 0 0.3\n1 p st\n2 sy 1\n"}}),
      ends("SrcOutside", {}, GEO + "\nbad.pos\n\nout.mat\n", ERR, fatal("Non-acceptable initial source positions"),
           {{"bad.pos", "1\n1 0 0 5\n"}}),

      // Measured data (matrix files).
      {"DataMissing", {}, {}, TO_DATA + "none.mat\n\n\n", 0, ERR, "\n Cannot open none.mat\n\n\a\a", P_DATA},
      {"DataFolder", {}, {}, TO_DATA + "sub\n\n\n", 0, ERR, mat_read_error("sub"), P_DATA},
      bad_data("DataRows", matrix_file(3, 2), OUT,
               "bad.mat does not fit to electrode file\nnumber of electrodes: 42\n"
               "number of rows in bad.mat: 3\n\n\a\a"),
      bad_data("DataNaN", matrix_file(42, 2, "", 17, NaN), ERR, NOT_NUMBERS),
      bad_data("DataInf", matrix_file(42, 2, "", 42, -Inf), ERR, NOT_NUMBERS),
      bad_data("DataTextInf", text_column(42, "inf"), ERR, NOT_NUMBERS),
      bad_data("DataTruncated", words({42, 2}) + floats({1, 2, 3}), ERR, mat_read_error("bad.mat")),
      bad_data("DataTextWord", "2 2\n1 two\n3 4\n", ERR, mat_read_error("bad.mat")),
      bad_data("DataHugeCounts", words({100000, 100000}), ERR, mat_read_error("bad.mat")),
      bad_data("DataNoSamples", words({42, 0}), ERR, "bad.mat holds no samples\n\n\a\a"),

      // Files that cannot be written.
      {"TransFull", {}, {}, TO_DATA + "\n/dev/full\n", 0, ERR, "\n Error writing to /dev/full\n\n\a\a", ""},
      {"TransNoFolder", {}, {}, TO_DATA + "\nnodir/out.mat\n", 0, ERR, "\n Cannot create nodir/out.mat\n\n\a\a", ""},
      {"TransFileAsFolder", {}, {}, TO_DATA + "\nsphere.tri/out.mat\n", 0, ERR,
       "\n Cannot create sphere.tri/out.mat\n\n\a\a", ""},
      {"AmaFull", {}, {"-i", "/dev/full"}, GEO + "\n", 0, OUT, "\nerror writing to /dev/full\n\n\a\a", "",
       "\nerror closing /dev/full\n\n\a\a"},
      {"AmaNoFolder", {}, {"-i", "nodir/a.ama"}, GEO + "\n", 0, OUT, "\nerror opening nodir/a.ama\n\n\a\a", ""},
      {"SolutionNoFolder", {}, {}, TO_DATA + "data.mat\nf\nnodir/sol\n\n", 0, ERR,
       "\n Cannot create nodir/sol\n\n\a\a", ""},

      // Stored inverted A matrices: the hand-made file, and damaged copies.
      {"AmaValidControl", {{"good.ama", Ama().bytes()}}, {"good.ama"}, "\n", 0, OUT,
       "elec starts at 212\nbi starts at 424\n", ""},
      ends("AmaLoadMissing", {"none.ama"}, "", OUT, "\nerror opening none.ama\n\n\a\a" + USAGE),
      bad_ama("AmaOldVersion", ama([](Ama &a) { a.version = 9; }), ERR,
              "bad.ama is either not an inverted A matrix, or one of an old version.\nAnyway, this program cannot use "
              "it\n"),
      bad_ama("AmaMagnetic", ama([](Ama &a) { a.kind = 1; }), ERR,
              "You need an electric inverted A matrix; bad.ama is a magnetic inverted A matrix\n\n\a\a"),
      bad_ama("AmaUnknownKind", ama([](Ama &a) { a.kind = 7; }), ERR,
              "You need an electric inverted A matrix; bad.ama is an unknown type inverted A matrix\n\n\a\a"),
      bad_ama("AmaTruncated", ama([](Ama &a) { a.cut = 150; })),
      bad_ama("AmaManyInterfaces", ama([](Ama &a) { a.ngeo = 1000; })),
      bad_ama("AmaTriangleIndex", ama([](Ama &a) { a.triangle_index = 9; })),    // vertex 9 of 4
      bad_ama("AmaElectrodeIndex", ama([](Ama &a) { a.electrode_index = 5; })),  // vertex 5 of 4
      bad_ama("AmaIsolatedIndex", ama([](Ama &a) { a.iso_sur = 3; })),           // interface 3 of 1
      bad_ama("AmaEmpty", ""),

      // The command line.
      ends("CliUnknownOption", {"-c"}, "", OUT, USAGE),
      ends("CliTwoFiles", {"good.ama", "good.ama"}, "", OUT, USAGE, {{"good.ama", Ama().bytes()}}),
      ends("CliBoundOutOfRange", {"-d", "150"}, "", OUT, USAGE),
      ends("CliNameTooLong", {"-i", long_name}, "", ERR,
           "\nFile name too long (at most 79 characters): " + long_name + "\n"),
  };
}

// ---- the runner ------------------------------------------------------------

class BadInputCase : public testing::TestWithParam<BadInput> {};

TEST_P(BadInputCase, EndsCleanlyWithItsMessage) {
  const BadInput &c = GetParam();
  TempDir dir;
  write_trimesh(dir.file("sphere.tri"), icosphere(1, 1.0), false);
  write_trimesh(dir.file("inner.tri"), icosphere(1, 0.5), true);
  write_file(dir.file("src.pos"), "1\n1 0 0 0.3\n");
  write_file(dir.file("data.mat"), matrix_file(42, 2, "sample freq\n100\n"));
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0755), 0);
  for (const auto &f : c.files) write_file(dir.file(f.first), f.second);

  const ProcResult r = run_process(BRELIX_EXE, c.args, c.input, dir.path(), 60);
  ASSERT_TRUE(r.status == 0 || r.status == 1) << "status " << r.status << "\nstderr:\n" << r.err;
  EXPECT_EQ(r.status, c.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
  // Nothing reaches the error stream that the run did not mean to say.
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err;
  if (c.stream != NONE) {
    const std::string &here = c.stream == OUT ? r.out : r.err, &there = c.stream == OUT ? r.err : r.out;
    EXPECT_TRUE(here.find(c.message) != std::string::npos || (!c.alt.empty() && here.find(c.alt) != std::string::npos))
        << "expected on std" << (c.stream == OUT ? "out" : "err") << ":\n"
        << c.message << "\n--- stdout:\n" << r.out << "\n--- stderr:\n" << r.err;
    EXPECT_EQ(there.find(c.message), std::string::npos) << "the message went to the other stream as well";
  }
  if (!c.again.empty()) {
    const size_t first = r.out.find(c.again);
    EXPECT_TRUE(first != std::string::npos && r.out.find(c.again, first + 1) != std::string::npos)
        << "not asked again:\n" << r.out;
  }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, BadInputCase, testing::ValuesIn(catalogue()),
                         [](const testing::TestParamInfo<BadInput> &info) { return std::string(info.param.id); });

}  // namespace
