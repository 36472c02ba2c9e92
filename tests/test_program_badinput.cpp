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

std::string words(std::initializer_list<int32_t> v) {
  std::string s;
  for (int32_t w : v) s.append(reinterpret_cast<const char *>(&w), 4);
  return s;
}

std::string floats(std::initializer_list<float> v) {
  std::string s;
  for (float f : v) s.append(reinterpret_cast<const char *>(&f), 4);
  return s;
}

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
  const char *id;    // test name
  const char *kind;  // what is read
  const char *what;  // what is wrong with it
  std::vector<std::pair<std::string, std::string>> files;  // written beside the model
  std::vector<std::string> args;
  std::string input;       // the answers
  int status;              // expected exit status
  Stream stream;           // where the message goes
  std::string message;     // expected on that stream (NONE: nothing checked)
  std::string again = "";  // a question that must be asked (at least) twice
  std::string alt = "";    // an equally acceptable message
};

std::ostream &operator<<(std::ostream &os, const BadInput &c) { return os << c.kind << ": " << c.what; }

// Answers of the one-sphere model (42 vertices, 80 triangles) up to the end
// of the interface list, and the prompts a case may expect twice.
const std::string GEO = "sphere.tri\n1\n\n";
const std::string ALL_VERTICES = "\n";
const std::string QUIT = "\n";  // an empty answer to a file-name question
const std::string P_IF1 = "\nFilename of interface 1: ";
const std::string P_COND = "Conductivity just within sphere.tri: ";
const std::string P_ELEC = "\nElectrode file: ";
const std::string P_SRC = "\nSource position file: ";
const std::string P_DATA = "\nMeasured potential data: ";
const std::string P_CONSTR = "\nSource constraint [ Fixed / Stationary / Moving ]: ";
const std::string USAGE = "\nUsage:\nbrelix [-i] [ -f | -d [<value>] ] [filename]\n";
// Up to the source question, with the sources in src.pos.
const std::string TO_DATA = GEO + ALL_VERTICES + "src.pos\n";

std::string fatal(const std::string &msg) { return "\n\n Fatal error in brelix: " + msg + "\n\n\a"; }
std::string tri_read_error(const char *name) { return std::string("\nError reading file ") + name + "\a\a\n\n"; }
std::string pos_read_error(const char *name) { return std::string("\nError reading file ") + name + "\a\a\n\n"; }
std::string mat_read_error(const char *name) { return std::string("\n Error reading ") + name + "\n\n\a\a"; }

// A bad triangle file named bad.tri, then the good sphere, then quit at the
// source question: the file must be refused and the question asked again.
BadInput bad_surface(const char *id, const char *what, const std::string &contents, const std::string &message) {
  return {id, "triangle file", what, {{"bad.tri", contents}}, {}, "bad.tri\n" + GEO + ALL_VERTICES + QUIT, 0, ERR,
          message, P_IF1};
}

const std::string TRIANGLE3 = "3\n0 0 0\n1 0 0\n0 1 0\n";

// A bad electrode file that is refused without a word: asked again.
BadInput bad_electrodes(const char *id, const char *what, const std::string &contents) {
  return {id, "electrode file", what, {{"bad.el", contents}}, {}, GEO + "bad.el\n" + ALL_VERTICES + QUIT, 0, NONE, "",
          P_ELEC};
}

BadInput bad_sources(const char *id, const char *what, const std::string &contents, const std::string &message) {
  return {id, "source file", what, {{"bad.pos", contents}}, {}, GEO + ALL_VERTICES + "bad.pos\n" + QUIT, 0, OUT,
          message, P_SRC};
}

// A bad data file, then no data (a forward run), then quit at the
// transfer-matrix question.
BadInput bad_data(const char *id, const char *what, const std::string &contents, Stream stream,
                  const std::string &message) {
  return {id, "measured data", what, {{"bad.mat", contents}}, {}, TO_DATA + "bad.mat\n\n" + QUIT, 0, stream,
          message, P_DATA};
}

BadInput bad_ama(const char *id, const char *what, const std::string &contents, Stream stream,
                 const std::string &message) {
  return {id, "inverted A matrix", what, {{"bad.ama", contents}}, {"bad.ama"}, "", 1, stream, message};
}

std::vector<BadInput> catalogue() {
  Ama cut;
  cut.cut = 150;
  Ama many;
  many.ngeo = 1000;
  Ama bad_tri;
  bad_tri.triangle_index = 9;
  Ama bad_el;
  bad_el.electrode_index = 5;
  Ama bad_iso;
  bad_iso.iso_sur = 3;
  Ama old;
  old.version = 9;
  Ama magnetic;
  magnetic.kind = 1;
  Ama unknown;
  unknown.kind = 7;
  const std::string long_answer(100, 'x');
  const std::string long_name(100, 'a');

  return {
      // Triangle files, text and binary.
      {"TriMissing", "triangle file", "does not exist", {}, {}, "none.tri\n" + GEO + ALL_VERTICES + QUIT, 0, ERR,
       "\nError opening file none.tri\a\a\n\n", P_IF1},
      bad_surface("TriEmpty", "is empty", "", tri_read_error("bad.tri")),
      bad_surface("TriShortVertices", "ends before its vertices do", "5\n0 0 0\n1 0 0\n", tri_read_error("bad.tri")),
      bad_surface("TriTwoNumbers", "has a vertex of two numbers", "3\n0 0\n1 0 0\n0 1 0\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriNaN", "has a NaN coordinate", "3\n0 0 nan\n1 0 0\n0 1 0\n1\n1 2 3\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriInf", "has an infinite coordinate", "3\n0 0 0\n1 -inf 0\n0 1 0\n1\n1 2 3\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriNegativeCount", "has a negative vertex count", "-3\n0 0 0\n", tri_read_error("bad.tri")),
      bad_surface("TriHugeCount", "claims 2^31-1 vertices in a few bytes", "2147483647\n0 0 0\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriCountOverflow", "has a count beyond 32 bits", "99999999999\n0 0 0\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriBlankCount", "has a blank line for the triangle count", TRIANGLE3 + "\n1 2 3\n",
                  tri_read_error("bad.tri")),
      bad_surface("TriIndexTooLarge", "names vertex 4 of 3", TRIANGLE3 + "1\n1 2 4\n",
                  "\nTriangle 1 of bad.tri refers to a non-existent vertex\a\a\n\n"),
      bad_surface("TriIndexZero", "names vertex 0 (text files count from 1)", TRIANGLE3 + "2\n1 2 3\n0 1 2\n",
                  "\nTriangle 2 of bad.tri refers to a non-existent vertex\a\a\n\n"),
      bad_surface("TriIndexLowest", "names the lowest 64-bit number", TRIANGLE3 + "1\n1 2 -9223372036854775808\n",
                  tri_read_error("bad.tri")),
      {"TriFolder", "triangle file", "is a folder", {}, {}, "sub\n" + GEO + ALL_VERTICES + QUIT, 0, ERR,
       tri_read_error("sub"), P_IF1},
      bad_surface("TriBinaryTruncated", "binary, ends inside the vertices",
                  words({3}) + floats({0, 0, 0, 1, 0, 0}), tri_read_error("bad.tri")),
      bad_surface("TriBinaryNegativeTriangles", "binary, negative triangle count",
                  words({3}) + floats({0, 0, 0, 1, 0, 0, 0, 1, 0}) + words({-1}), tri_read_error("bad.tri")),
      bad_surface("TriBinaryIndex", "binary, names vertex 3 of 0..2",
                  words({3}) + floats({0, 0, 0, 1, 0, 0, 0, 1, 0}) + words({1, 0, 1, 3}),
                  "\nTriangle 1 of bad.tri refers to a non-existent vertex\a\a\n\n"),
      bad_surface("TriBinaryNaN", "binary, NaN coordinate",
                  words({3}) + floats({0, 0, 0, 1, NaN, 0, 0, 1, 0}) + words({1, 0, 1, 2}),
                  tri_read_error("bad.tri")),

      // The model: conductivities and the interface list.
      {"CondNegative", "conductivity", "is negative", {}, {}, "sphere.tri\n-1\n", 1, ERR,
       "\nConductivity cannot be negative!\nFor combined electric/magnetic computations negative conductivity\n"
       "has a special meaning, but that does not apply here.\n\n"},
      {"CondNaN", "conductivity", "is NaN", {}, {}, "sphere.tri\nnan\n1\n\n" + ALL_VERTICES + QUIT, 0, ERR,
       "\nConductivity must be a finite number!\n\n", P_COND},
      {"CondInf", "conductivity", "is infinite", {}, {}, "sphere.tri\ninf\n1\n\n" + ALL_VERTICES + QUIT, 0, ERR,
       "\nConductivity must be a finite number!\n\n", P_COND},
      {"GeoSameTwice", "interface list", "names one surface twice", {}, {}, "sphere.tri\n1\nsphere.tri\n1\n\n", 1,
       ERR,
       fatal("Geometry integrety error;\nAny vertex of sphere.tri is also a vertex of sphere.tri,\n so they "
             "propably intersect!")},
      {"GeoTwoIsolated", "interface list", "marks two isolated-source interfaces", {}, {},
       "!sphere.tri\n1\n!inner.tri\n", 1, ERR, fatal("There can be only one isolated source interface")},
      {"AnswerTooLong", "dialogue", "an answer of 100 characters", {}, {},
       long_answer + "\n" + GEO + ALL_VERTICES + QUIT, 0, ERR, "\nAnswer too long: at most 79 characters\n", P_IF1},
      {"EndOfInputAtConductivity", "dialogue", "input ends at the conductivity question", {}, {}, "sphere.tri\n", 1,
       NONE, ""},
      {"EndOfInputAtStart", "dialogue", "no input at all", {}, {}, "", 1, NONE, ""},
      {"QuitAtStart", "dialogue", "an empty first answer", {}, {}, "\n", 0, NONE, ""},

      // Electrode files.
      {"ElMissing", "electrode file", "does not exist", {}, {}, GEO + "none.el\n" + ALL_VERTICES + QUIT, 0, OUT,
       "\n Error opening none.el; please try another filename.\n\n\a", P_ELEC},
      bad_electrodes("ElNoCount", "has no count", "x\n1 1\n"),
      bad_electrodes("ElShort", "ends before its electrodes do", "4\n1 1\n2 2\n"),
      bad_electrodes("ElHugeCount", "claims 2^31-1 electrodes", "2147483647\n1 1\n"),
      bad_electrodes("ElZeroCount", "holds no electrodes", "0\n"),
      bad_electrodes("ElBadLine", "has a line without numbers", "2\n1 0.1 0.1\nsecond 0.2 0.2\n"),
      bad_electrodes("ElNaN", "places an electrode at u = NaN", "2\n1 0.1 0.1\n2 nan 0.2\n"),
      bad_electrodes("ElInf", "places an electrode at v = inf", "2\n1 0.1 inf\n2 0.1 0.2\n"),
      {"ElFolder", "electrode file", "is a folder", {}, {}, GEO + "sub\n" + ALL_VERTICES + QUIT, 0, NONE, "", P_ELEC},
      {"ElTriangleRange", "electrode file", "names triangle 81 of 80", {{"bad.el", "2\n1 0.1 0.1\n81 0.2 0.2\n"}}, {},
       GEO + "bad.el\n", 1, ERR, fatal("Electrode file refers to non-existent triangles")},
      {"ElVertexRange", "electrode file", "names vertex 43 of 42", {{"bad.el", "2\n1 1\n2 43\n"}}, {},
       GEO + "bad.el\n", 1, ERR, fatal("Electrode file refers to non-existent vertices")},

      // Source position files.
      {"SrcMissing", "source file", "does not exist", {}, {}, GEO + ALL_VERTICES + "none.pos\n" + QUIT, 0, OUT,
       "\nError opening file none.pos\a\a\n\n", P_SRC},
      bad_sources("SrcShort", "ends before its sources do", "3\n1 0 0 0.3\n", pos_read_error("bad.pos")),
      bad_sources("SrcNaN", "has a NaN position", "1\n1 0 nan 0.3\n", pos_read_error("bad.pos")),
      bad_sources("SrcInf", "has an infinite position", "1\n1 inf 0 0\n", pos_read_error("bad.pos")),
      bad_sources("SrcZero", "defines no source", "0\n", pos_read_error("bad.pos")),
      bad_sources("SrcHuge", "claims 2^31-1 sources", "2147483647\n1 0 0 0\n", pos_read_error("bad.pos")),
      bad_sources("SrcSyntax", "has an unknown constraint", "1\n1 0 0 0.3\n1 colour red\n",
                  "\n Syntax error in constraint description of source 1\n\n\a\a  Correct syntax of constraint "
                  "description:\n"),
      bad_sources("SrcWordIndex", "starts a constraint line with a word", "1\n1 0 0 0.3\nfirst position fixed\n",
                  "\n Error in constraint description in file bad.pos\n\n\a\a"),
      bad_sources("SrcPartnerRange", "names partner 7 of 2", "2\n1 0 0 0.3\n2 0 0 -0.3\n1 sy 7\n",
                  "\n Syntax error in constraint description of source 1\n\n\a\a"),
      bad_sources("SrcMovingMixed", "mixes moving and fixed sources",
                  "2\n1 0 0 0.3\n2 0 0.1 0.3\n1 position moving\n",
                  "\n Error in constraint description in bad.pos:\n moving dipoles cannot be combined with non-moving "
                  "dipoles\n\n\a\a"),
      {"SrcNonexistent", "source file", "constrains source 5 of 1", {{"bad.pos", "1\n1 0 0 0.3\n5 position fixed\n"}},
       {}, GEO + ALL_VERTICES + "bad.pos\n\n" + QUIT, 0, OUT,
       "Constraint description of non-existent source 5 in file bad.pos\nbad.pos defines 1 source \n"},
      {"SrcCoinciding", "source file", "mirrors a source onto itself",
       {{"bad.pos", "2\n1 0 0 0.3\n2 0 0 0.3\n1 p st\n2 sy 1\n"}}, {}, GEO + ALL_VERTICES + "bad.pos\n", 1, ERR,
       fatal("\nSymmetric sources may not coincide")},
      {"SrcOutside", "source file", "puts a source outside the model", {{"bad.pos", "1\n1 0 0 5\n"}}, {},
       GEO + ALL_VERTICES + "bad.pos\n\nout.mat\n", 1, ERR, fatal("Non-acceptable initial source positions")},

      // Measured data (matrix files).
      {"DataMissing", "measured data", "does not exist", {}, {}, TO_DATA + "none.mat\n\n" + QUIT, 0, ERR,
       "\n Cannot open none.mat\n\n\a\a", P_DATA},
      bad_data("DataRows", "has 3 rows for 42 electrodes", matrix_file(3, 2), OUT,
               "bad.mat does not fit to electrode file\nnumber of electrodes: 42\nnumber of rows in bad.mat: 3\n\n\a\a"),
      bad_data("DataNaN", "holds a NaN", matrix_file(42, 2, "", 17, NaN), ERR,
               "bad.mat contains values that are not numbers\n\n\a\a"),
      bad_data("DataInf", "holds an infinite value", matrix_file(42, 2, "", 42, -Inf), ERR,
               "bad.mat contains values that are not numbers\n\n\a\a"),
      bad_data("DataTextInf", "text file holding inf", text_column(42, "inf"), ERR,
               "bad.mat contains values that are not numbers\n\n\a\a"),
      bad_data("DataTruncated", "ends inside its values", words({42, 2}) + floats({1, 2, 3}), ERR,
               mat_read_error("bad.mat")),
      bad_data("DataTextWord", "text file with a word among the numbers", "2 2\n1 two\n3 4\n", ERR,
               mat_read_error("bad.mat")),
      bad_data("DataHugeCounts", "claims 10^5 x 10^5 values in 8 bytes", words({100000, 100000}), ERR,
               mat_read_error("bad.mat")),
      bad_data("DataNoSamples", "has no columns", words({42, 0}), ERR, "bad.mat holds no samples\n\n\a\a"),
      {"DataFolder", "measured data", "is a folder", {}, {}, TO_DATA + "sub\n\n" + QUIT, 0, ERR,
       mat_read_error("sub"), P_DATA},
      {"ConstraintEndOfInput", "dialogue", "no valid constraint before the input ends", {}, {},
       TO_DATA + "data.mat\nx\n", 1, NONE, "", P_CONSTR},

      // Files that cannot be written.
      {"TransFull", "transfer matrix", "written to a full device", {}, {}, TO_DATA + "\n/dev/full\n", 0, ERR,
       "\n Error writing to /dev/full\n\n\a\a"},
      {"TransNoFolder", "transfer matrix", "in a folder that does not exist", {}, {}, TO_DATA + "\nnodir/out.mat\n", 0,
       ERR, "\n Cannot create nodir/out.mat\n\n\a\a"},
      {"TransFileAsFolder", "transfer matrix", "below a file", {}, {}, TO_DATA + "\nsphere.tri/out.mat\n", 0, ERR,
       "\n Cannot create sphere.tri/out.mat\n\n\a\a"},
      {"AmaFull", "inverted A matrix", "stored on a full device", {}, {"-i", "/dev/full"}, GEO + ALL_VERTICES, 0, OUT,
       "\nerror writing to /dev/full\n\n\a\a", "", "\nerror closing /dev/full\n\n\a\a"},
      {"AmaNoFolder", "inverted A matrix", "stored in a folder that does not exist", {}, {"-i", "nodir/a.ama"},
       GEO + ALL_VERTICES, 0, OUT, "\nerror opening nodir/a.ama\n\n\a\a"},
      {"SolutionNoFolder", "inverse solution", "in a folder that does not exist", {}, {},
       TO_DATA + "data.mat\nf\nnodir/sol\n\n", 0, ERR, "\n Cannot create nodir/sol\n\n\a\a"},

      // Stored inverted A matrices.
      {"AmaValidControl", "inverted A matrix", "none (the hand-made file the others damage)",
       {{"good.ama", Ama().bytes()}}, {"good.ama"}, QUIT, 0, OUT, "elec starts at 212\nbi starts at 424\n"},
      {"AmaLoadMissing", "inverted A matrix", "does not exist", {}, {"none.ama"}, "", 1, OUT,
       "\nerror opening none.ama\n\n\a\a" + USAGE},
      bad_ama("AmaOldVersion", "has version 9", old.bytes(), ERR,
              "bad.ama is either not an inverted A matrix, or one of an old version.\nAnyway, this program cannot use "
              "it\n"),
      bad_ama("AmaMagnetic", "is of the magnetic kind", magnetic.bytes(), ERR,
              "You need an electric inverted A matrix; bad.ama is a magnetic inverted A matrix\n\n\a\a"),
      bad_ama("AmaUnknownKind", "is of kind 7", unknown.bytes(), ERR,
              "You need an electric inverted A matrix; bad.ama is an unknown type inverted A matrix\n\n\a\a"),
      bad_ama("AmaTruncated", "is cut short", cut.bytes(), OUT, "\nerror reading bad.ama\n\n\a\a"),
      bad_ama("AmaManyInterfaces", "claims 1000 interfaces", many.bytes(), OUT, "\nerror reading bad.ama\n\n\a\a"),
      bad_ama("AmaTriangleIndex", "names vertex 9 of 4", bad_tri.bytes(), OUT, "\nerror reading bad.ama\n\n\a\a"),
      bad_ama("AmaElectrodeIndex", "puts an electrode on vertex 5 of 4", bad_el.bytes(), OUT,
              "\nerror reading bad.ama\n\n\a\a"),
      bad_ama("AmaIsolatedIndex", "names isolated interface 3 of 1", bad_iso.bytes(), OUT,
              "\nerror reading bad.ama\n\n\a\a"),
      bad_ama("AmaEmpty", "is empty", "", OUT, "\nerror reading bad.ama\n\n\a\a"),

      // The command line.
      {"CliUnknownOption", "command line", "option -c", {}, {"-c"}, "", 1, OUT, USAGE},
      {"CliTwoFiles", "command line", "two A-matrix files", {{"good.ama", Ama().bytes()}}, {"good.ama", "good.ama"},
       "", 1, OUT, USAGE},
      {"CliBoundOutOfRange", "command line", "-d 150 (more than 100 %)", {}, {"-d", "150"}, "", 1, OUT, USAGE},
      {"CliNameTooLong", "command line", "a 100-character file name after -i", {}, {"-i", long_name}, "", 1, ERR,
       "\nFile name too long (at most 79 characters): " + long_name + "\n"},
  };
}

// ---- the runner ------------------------------------------------------------

size_t count(const std::string &text, const std::string &part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) n++;
  return n;
}

class BadInputCase : public testing::TestWithParam<BadInput> {
 protected:
  static void SetUpTestSuite() {
    model_ = new TempDir;
    write_trimesh(model_->file("sphere.tri"), icosphere(1, 1.0), false);
    write_trimesh(model_->file("inner.tri"), icosphere(1, 0.5), true);
    write_file(model_->file("src.pos"), "1\n1 0 0 0.3\n");
    write_file(model_->file("data.mat"), matrix_file(42, 2, "sample freq\n100\n"));
  }
  static void TearDownTestSuite() {
    delete model_;
    model_ = nullptr;
  }
  static TempDir *model_;
};

TempDir *BadInputCase::model_ = nullptr;

TEST_P(BadInputCase, EndsCleanlyWithItsMessage) {
  const BadInput &c = GetParam();
  TempDir dir;
  for (const char *name : {"sphere.tri", "inner.tri", "src.pos", "data.mat"})
    write_file(dir.file(name), read_file(model_->file(name)));
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0755), 0);
  for (const auto &f : c.files) write_file(dir.file(f.first), f.second);

  ProcResult r = run_process(BRELIX_EXE, c.args, c.input, dir.path(), 60);
  ASSERT_TRUE(r.status == 0 || r.status == 1) << "status " << r.status << "\nstderr:\n" << r.err;
  EXPECT_EQ(r.status, c.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
  // Nothing reaches the error stream that the run did not mean to say.
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err;

  if (c.stream != NONE) {
    const std::string &here = c.stream == OUT ? r.out : r.err;
    const std::string &there = c.stream == OUT ? r.err : r.out;
    bool found = here.find(c.message) != std::string::npos || (!c.alt.empty() && here.find(c.alt) != std::string::npos);
    EXPECT_TRUE(found) << "expected on std" << (c.stream == OUT ? "out" : "err") << ":\n"
                       << c.message << "\n--- stdout:\n"
                       << r.out << "\n--- stderr:\n"
                       << r.err;
    EXPECT_EQ(there.find(c.message), std::string::npos) << "the message went to the other stream as well";
  }
  if (!c.again.empty()) {
    EXPECT_GE(count(r.out, c.again), 2u) << "not asked again:\n" << r.out;
  }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, BadInputCase, testing::ValuesIn(catalogue()),
                         [](const testing::TestParamInfo<BadInput> &info) { return std::string(info.param.id); });

// The catalogue reaches every reader and the dialogue, and is not small.
TEST(BadInputCatalogue, CoversEveryReader) {
  std::vector<BadInput> all = catalogue();
  EXPECT_GE(all.size(), 40u);
  for (const char *kind : {"triangle file", "conductivity", "interface list", "dialogue", "electrode file",
                           "source file", "measured data", "transfer matrix", "inverted A matrix", "command line"}) {
    size_t n = 0;
    for (const auto &c : all) n += std::string(c.kind) == kind;
    EXPECT_GE(n, 1u) << kind;
  }
}

}  // namespace
