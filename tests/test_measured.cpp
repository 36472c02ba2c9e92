// Measured data input (average reference, sample frequency, wrong shapes)
// and the constraint-kind question, driven through real standard input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace {

const std::string DATA_PROMPT = "\nMeasured potential data: ";
const std::string CONSTRAINT_PROMPT = "\nSource constraint [ Fixed / Stationary / Moving ]: ";

// A binary matrix file in this machine's byte order, built byte by byte
// here so that the test does not lean on the library's own writer.
std::string matrix_bytes(int rows, int cols, const std::vector<float> &values, const std::string &tail = "") {
  std::string s(8 + 4 * values.size(), '\0');
  int32_t head[2] = {rows, cols};
  memcpy(&s[0], head, 8);
  if (!values.empty()) memcpy(&s[8], values.data(), 4 * values.size());
  return s + tail;
}

struct DataRun {
  TempDir dir;
  ProcResult res;
  // Files: name -> contents, written into the folder the probe runs in.
  DataRun(const std::vector<std::pair<std::string, std::string>> &files, int nel, const std::string &input) {
    for (auto &f : files) write_file(dir.file(f.first), f.second);
    res = run_process(probe("probe_measured"), {"data", std::to_string(nel)}, input, dir.path(), 30);
  }
};

// Numbers after `prefix` on the probe's output line that starts with it.
std::vector<double> numbers(const std::string &out, const std::string &prefix) {
  std::istringstream lines(out);
  std::string line;
  std::vector<double> v;
  while (std::getline(lines, line)) {
    size_t at = line.find(prefix);
    if (at == std::string::npos) continue;
    std::istringstream words(line.substr(at + prefix.size()));
    double x;
    while (words >> x) v.push_back(x);
    return v;
  }
  ADD_FAILURE() << "no line " << prefix << " in:\n" << out;
  return v;
}

}  // namespace

TEST(MeasuredData, AverageReferenceAndShift) {
  const int nel = 4, ntim = 6;
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> u(-50, 50);
  std::vector<float> v(nel * ntim);
  for (float &x : v) x = u(rng);
  DataRun run({{"d.mat", matrix_bytes(nel, ntim, v)}}, nel, "d.mat\n");
  ASSERT_EQ(run.res.status, 0) << run.res.err;
  EXPECT_EQ(run.res.out.rfind(DATA_PROMPT + "ntim 6 sampfreq -1\n", 0), 0u) << run.res.out;
  std::vector<double> shift = numbers(run.res.out, "shift:");
  ASSERT_EQ(shift.size(), (size_t)ntim);
  for (int t = 0; t < ntim; t++) {
    // The mean, summed in single precision in electrode order.
    float s = 0;
    for (int e = 0; e < nel; e++) s += v[e * ntim + t];
    s /= nel;
    EXPECT_EQ((float)shift[t], s) << "sample " << t + 1;
    double sum = 0;
    for (int e = 0; e < nel; e++) {
      std::vector<double> row = numbers(run.res.out, "psi " + std::to_string(e + 1) + ":");
      ASSERT_EQ(row.size(), (size_t)ntim);
      EXPECT_EQ((float)row[t], v[e * ntim + t] - s);
      sum += row[t];
    }
    EXPECT_NEAR(sum, 0.0, 1e-4);  // referenced data average to zero
  }
}

TEST(MeasuredData, MeanIsSummedInSinglePrecisionInElectrodeOrder) {
  // Column 1: 1e8 + 1 is 1e8 in single precision, so the 1 is lost;
  // column 2: the large values cancel first and the 1 survives.
  DataRun run({{"d.mat", matrix_bytes(3, 2, {1e8f, 1e8f, 1.0f, -1e8f, -1e8f, 1.0f})}}, 3, "d.mat\n");
  ASSERT_EQ(run.res.status, 0) << run.res.err;
  std::vector<double> shift = numbers(run.res.out, "shift:");
  ASSERT_EQ(shift.size(), 2u);
  EXPECT_EQ(shift[0], 0.0);
  EXPECT_EQ((float)shift[1], 1.0f / 3);
  EXPECT_EQ(numbers(run.res.out, "psi 2:")[0], 1.0);
}

TEST(MeasuredData, SingleElectrodeGivesZeroData) {
  DataRun run({{"d.mat", matrix_bytes(1, 3, {2.5f, -7.0f, 0.125f})}}, 1, "d.mat\n");
  ASSERT_EQ(run.res.status, 0);
  EXPECT_EQ(numbers(run.res.out, "psi 1:"), (std::vector<double>{0, 0, 0}));
  EXPECT_EQ(numbers(run.res.out, "shift:"), (std::vector<double>{2.5, -7.0, 0.125}));
}

TEST(MeasuredData, SampleFrequencyItem) {
  struct Case {
    std::string tail;
    double freq;
  } cases[] = {
      {"", -1},
      {"Sample Frequency\n500 Hz\n", 500},
      {"recorded today\nsample frequency:\n250.5\n", 250.5},
      {"sample frequency\nunknown\n", -1},
      {"sample frequency\n", -1},  // no value line
      {"the sample freq\n100\n", -1},  // not at the start of a line
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tail);
    DataRun run({{"d.mat", matrix_bytes(2, 1, {1, 3}, c.tail)}}, 2, "d.mat\n");
    ASSERT_EQ(run.res.status, 0) << run.res.err;
    EXPECT_EQ(numbers(run.res.out, "sampfreq"), (std::vector<double>{c.freq}));
  }
}

TEST(MeasuredData, WrongRowCountIsReportedAndAskedAgain) {
  DataRun run({{"short.mat", matrix_bytes(2, 2, {1, 2, 3, 4}, "Sample Frequency\n100\n")},
               {"ok.mat", matrix_bytes(3, 1, {1, 2, 6})}},
              3, "short.mat\nok.mat\n");
  ASSERT_EQ(run.res.status, 0);
  EXPECT_EQ(run.res.out.rfind(DATA_PROMPT +
                                  "short.mat does not fit to electrode file\n"
                                  "number of electrodes: 3\n"
                                  "number of rows in short.mat: 2\n\n\a\a" +
                                  DATA_PROMPT + "ntim 1 sampfreq -1\n",
                              0),
            0u)
      << run.res.out;
  EXPECT_EQ(numbers(run.res.out, "shift:"), (std::vector<double>{3}));

  // End of input after the refused file ends the run with status 1.
  DataRun eof({{"short.mat", matrix_bytes(2, 2, {1, 2, 3, 4})}}, 3, "short.mat\n");
  EXPECT_EQ(eof.res.status, 1);
}

TEST(MeasuredData, UnreadableAndNonNumericFilesAreAskedAgain) {
  DataRun run({{"nan.mat", matrix_bytes(2, 2, {1, NAN, 3, 4})},
               {"inf.mat", matrix_bytes(2, 1, {INFINITY, 4})},
               {"empty.mat", matrix_bytes(2, 0, {})},
               {"ok.mat", matrix_bytes(2, 1, {1, 4})}},
              2, "missing.mat\nnan.mat\ninf.mat\nempty.mat\nok.mat\n");
  ASSERT_EQ(run.res.status, 0);
  EXPECT_EQ(run.res.out.rfind(DATA_PROMPT + DATA_PROMPT + DATA_PROMPT + DATA_PROMPT + DATA_PROMPT + "ntim 1", 0), 0u)
      << run.res.out;
  EXPECT_NE(run.res.err.find("nan.mat contains values that are not numbers\n\n\a\a"), std::string::npos);
  EXPECT_NE(run.res.err.find("inf.mat contains values that are not numbers\n\n\a\a"), std::string::npos);
  EXPECT_NE(run.res.err.find("empty.mat holds no samples\n\n\a\a"), std::string::npos);
  EXPECT_NE(run.res.err.find("missing.mat"), std::string::npos);
  EXPECT_EQ(numbers(run.res.out, "psi 1:"), (std::vector<double>{-1.5}));
}

TEST(MeasuredData, EmptyAnswerMeansNoDataAndEndOfInputEnds) {
  DataRun empty({}, 2, "\n");
  EXPECT_EQ(empty.res.status, 0);
  EXPECT_EQ(empty.res.out, DATA_PROMPT + "no data\n");

  DataRun eof({}, 2, "");
  EXPECT_EQ(eof.res.status, 1);
  EXPECT_EQ(eof.res.out, DATA_PROMPT);
}

// ------------------------------------------------------- constraint kind

namespace {

ProcResult ask_constraint(const std::string &input, int nsource = 2) {
  return run_process(probe("probe_measured"), {"constraint", std::to_string(nsource)}, input, "", 30);
}

}  // namespace

TEST(ConstraintKind, FirstLetterDecidesCaseInsensitively) {
  struct Case {
    const char *answer;
    int code, nn;
  } cases[] = {
      {"stationary\n", 1, 3}, {"S\n", 1, 3}, {"fixed\n", 0, 0}, {"F\n", 0, 0},
      {"Moving\n", 2, 3},     {"m\n", 2, 3}, {"sideways\n", 1, 3},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.answer);
    ProcResult r = ask_constraint(c.answer);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind(CONSTRAINT_PROMPT + "code " + std::to_string(c.code) + "\n", 0), 0u) << r.out;
    // Every source gets a free orientation and the chosen position mode.
    for (const char *s : {"source 1:", "source 2:"}) {
      std::string expect = std::string(s) + " pos_mode " + std::to_string(c.code) + " ori_stationary 0 nl 3 nn " +
                           std::to_string(c.nn) + "\n";
      EXPECT_NE(r.out.find(expect), std::string::npos) << r.out;
    }
  }
}

TEST(ConstraintKind, OtherAnswersAskAgainAndEndOfInputEnds) {
  ProcResult r = ask_constraint("x\n\n  s\nfree\n");
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(CONSTRAINT_PROMPT + CONSTRAINT_PROMPT + CONSTRAINT_PROMPT + CONSTRAINT_PROMPT + "code 0\n", 0),
            0u)
      << r.out;

  ProcResult eof = ask_constraint("x\n");
  EXPECT_EQ(eof.status, 1);
  EXPECT_EQ(eof.out, CONSTRAINT_PROMPT + CONSTRAINT_PROMPT);
}
