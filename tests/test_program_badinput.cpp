// Bad input through the whole program: one case for every reader and every
// file it writes, showing that the program puts the failure on the right
// stream, ends with the right status (never a crash or a hang) and, where a
// file is simply refused, asks the same question again.  The messages
// themselves and the many ways a file can be damaged belong to the tests of
// each reader.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

enum Stream { OUT, ERR, NONE };

struct BadInput {
  const char *id;
  std::pair<std::string, std::string> file;  // written beside the model
  std::vector<std::string> args;
  std::string input;    // the answers
  int status;           // expected exit status
  Stream stream;        // where the message goes
  std::string message;  // expected on that stream and not on the other
  std::string again;    // a question that must be asked (at least) twice
};
void PrintTo(const BadInput &c, std::ostream *os) { *os << c.id; }

// Answers of the one-sphere model (42 vertices) up to the electrode
// question, where "\n" takes all vertices; an empty file name quits.
const std::string GEO = "sphere.tri\n1\n\n", TO_DATA = GEO + "\nsrc.pos\n";

std::vector<float> ramp(int n) {
  std::vector<float> v(n);
  for (int k = 0; k < n; k++) v[k] = (float)(k % 7) - 3;
  return v;
}

std::vector<BadInput> catalogue() {
  std::vector<float> nan_data = ramp(84);
  nan_data[33] = NAN;
  return {
      {"Surface", {"bad.tri", "2\n0 0 0\n"}, {}, "bad.tri\n" + GEO + "\n\n", 0, ERR,
       "\nError reading file bad.tri\a\a\n\n", "\nFilename of interface 1: "},
      {"Electrodes", {"bad.el", "4\n1 1\n2 2\n"}, {}, GEO + "bad.el\n\n\n", 0, NONE, "", "\nElectrode file: "},
      {"ElectrodeOutside", {"bad.el", "2\n1 1\n2 43\n"}, {}, GEO + "bad.el\n", 1, ERR,
       "\n\n Fatal error in brelix: Electrode file refers to non-existent vertices\n\n\a", ""},
      {"Sources", {"bad.pos", "3\n1 0 0 0.3\n"}, {}, GEO + "\nbad.pos\n\n", 0, OUT,
       "\nError reading file bad.pos\a\a\n\n", "\nSource position file: "},
      {"Data", {"bad.mat", matrix_bytes(42, 2, nan_data)}, {}, TO_DATA + "bad.mat\n\n\n", 0, ERR,
       "bad.mat contains values that are not numbers\n\n\a\a", "\nMeasured potential data: "},
      {"StoredMatrix", {"bad.ama", Bytes().i(9).i(0).i(1).s}, {"bad.ama"}, "", 1, ERR,
       "bad.ama is either not an inverted A matrix, or one of an old version.\n", ""},
      {"TransferNotWritten", {}, {}, TO_DATA + "\nnodir/out.mat\n", 0, ERR, "\n Cannot create nodir/out.mat\n\n\a\a", ""},
      {"StoredMatrixNotWritten", {}, {"-i", "nodir/a.ama"}, GEO + "\n", 0, OUT, "\nerror opening nodir/a.ama\n\n\a\a", ""},
      {"SolutionNotWritten", {}, {}, TO_DATA + "data.mat\nf\nnodir/sol\n\n", 0, ERR, "\n Cannot create nodir/sol\n\n\a\a",
       ""},
  };
}

class BadInputCase : public testing::TestWithParam<BadInput> {};

TEST_P(BadInputCase, EndsCleanlyWithItsMessage) {
  const BadInput &c = GetParam();
  TempDir dir;
  write_trimesh(dir.file("sphere.tri"), icosphere(1, 1.0), false);
  write_file(dir.file("src.pos"), "1\n1 0 0 0.3\n");
  write_file(dir.file("data.mat"), matrix_bytes(42, 2, ramp(84), "sample freq\n100\n"));
  if (!c.file.first.empty()) write_file(dir.file(c.file.first), c.file.second);

  const ProcResult r = run_process(BRELIX_EXE, c.args, c.input, dir.path(), 60);
  EXPECT_EQ(r.status, c.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err;
  if (c.stream != NONE) {
    const std::string &here = c.stream == OUT ? r.out : r.err, &there = c.stream == OUT ? r.err : r.out;
    EXPECT_NE(here.find(c.message), std::string::npos) << "--- stdout:\n" << r.out << "\n--- stderr:\n" << r.err;
    EXPECT_EQ(there.find(c.message), std::string::npos) << "the message went to the other stream as well";
  } else {
    EXPECT_EQ(r.err, "");
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
