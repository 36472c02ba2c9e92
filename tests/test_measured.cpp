// Measured data input (average reference, sample frequency, wrong shapes)
// and the constraint-kind question, driven through real standard input.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/process.h"

namespace {

const std::string DATA_PROMPT = "\nMeasured potential data: ";
const std::string CONSTRAINT_PROMPT = "\nSource constraint [ Fixed / Stationary / Moving ]: ";

// Runs "probe_measured data <nel>" in a folder holding `files`.
ProcResult data_run(const std::vector<std::pair<std::string, std::string>> &files, int nel, const std::string &input) {
  TempDir dir;
  for (auto &f : files) write_file(dir.file(f.first), f.second);
  return run_process(probe("probe_measured"), {"data", std::to_string(nel)}, input, dir.path(), 30);
}

// Numbers after `prefix` on the output line that starts with it.
std::vector<float> numbers(const std::string &out, const std::string &prefix) {
  std::istringstream lines(out);
  std::string line;
  std::vector<float> v;
  while (std::getline(lines, line)) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    std::istringstream words(line.substr(prefix.size()));
    double x;
    while (words >> x) v.push_back((float)x);
    return v;
  }
  ADD_FAILURE() << "no line " << prefix << " in:\n" << out;
  return v;
}

}  // namespace

TEST(MeasuredData, AverageReferenceAndSampleFrequency) {
  struct Case {
    int nel, ntim;
    std::vector<float> v;
    std::string tail;
    float freq;
  };
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> u(-50, 50);
  std::vector<float> random(24);
  for (float &x : random) x = u(rng);
  std::vector<Case> cases = {
      {4, 6, random, "", -1},
      // The mean is summed in single precision in electrode order: in column
      // 1 the 1 is lost in 1e8, in column 2 the large values cancel first.
      {3, 2, {1e8f, 1e8f, 1.0f, -1e8f, -1e8f, 1.0f}, "", -1},
      {1, 3, {2.5f, -7.0f, 0.125f}, "", -1},  // one electrode: all zero
      {2, 1, {1, 3}, "Sample Frequency\n500 Hz\n", 500},
      {2, 1, {1, 3}, "recorded today\nsample frequency:\n250.5\n", 250.5},
      {2, 1, {1, 3}, "sample frequency\nunknown\n", -1},
      {2, 1, {1, 3}, "sample frequency\n", -1},      // no value line
      {2, 1, {1, 3}, "the sample freq\n100\n", -1},  // not at the start of a line
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::to_string(c.nel) + " x " + std::to_string(c.ntim) + " " + c.tail);
    ProcResult r = data_run({{"d.mat", matrix_bytes(c.nel, c.ntim, c.v, c.tail)}}, c.nel, "d.mat\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind(DATA_PROMPT + "ntim " + std::to_string(c.ntim) + " sampfreq ", 0), 0u) << r.out;
    EXPECT_EQ(numbers(r.out, "Measured potential data: ntim " + std::to_string(c.ntim) + " sampfreq"),
              std::vector<float>{c.freq});
    std::vector<float> mean(c.ntim, 0.0f), shift = numbers(r.out, "shift:");
    for (int e = 0; e < c.nel; e++)
      for (int t = 0; t < c.ntim; t++) mean[t] += c.v[e * c.ntim + t];
    for (float &m : mean) m /= c.nel;
    EXPECT_EQ(shift, mean);
    for (int e = 0; e < c.nel; e++) {
      std::vector<float> row = numbers(r.out, "psi " + std::to_string(e + 1) + ":"), want(c.ntim);
      for (int t = 0; t < c.ntim; t++) want[t] = c.v[e * c.ntim + t] - mean[t];
      EXPECT_EQ(row, want) << "electrode " << e + 1;
    }
  }
  // Exact by hand for the cancellation case: the lost 1 and the kept one.
  ProcResult r = data_run({{"d.mat", matrix_bytes(3, 2, cases[1].v)}}, 3, "d.mat\n");
  EXPECT_EQ(numbers(r.out, "shift:"), (std::vector<float>{0.0f, 1.0f / 3}));
}

TEST(MeasuredData, RefusedFilesAreAskedForAgain) {
  ProcResult r = data_run({{"short.mat", matrix_bytes(2, 2, {1, 2, 3, 4}, "Sample Frequency\n100\n")},
                           {"nan.mat", matrix_bytes(3, 2, {1, NAN, 3, 4, 5, 6})},
                           {"inf.mat", matrix_bytes(3, 1, {INFINITY, 4, 5})},
                           {"empty.mat", matrix_bytes(3, 0, {})},
                           {"ok.mat", matrix_bytes(3, 1, {1, 2, 6})}},
                          3, "short.mat\nmissing.mat\nnan.mat\ninf.mat\nempty.mat\nok.mat\n");
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            DATA_PROMPT +
                "short.mat does not fit to electrode file\nnumber of electrodes: 3\n"
                "number of rows in short.mat: 2\n\n\a\a" +
                DATA_PROMPT + DATA_PROMPT + DATA_PROMPT + DATA_PROMPT + DATA_PROMPT +
                "ntim 1 sampfreq -1\npsi 1: -2\npsi 2: -1\npsi 3: 3\nshift: 3\n");
  EXPECT_EQ(r.err,
            "\n Cannot open missing.mat\n\n\a\a"
            "nan.mat contains values that are not numbers\n\n\a\a"
            "inf.mat contains values that are not numbers\n\n\a\a"
            "empty.mat holds no samples\n\n\a\a");

  // An empty answer means no data; the end of input ends the run.
  struct Case {
    std::string input, out;
    int status;
  } cases[] = {
      {"\n", DATA_PROMPT + "no data\n", 0},
      {"", DATA_PROMPT, 1},
      {"short.mat\n", DATA_PROMPT + "short.mat does not fit", 1},
  };
  for (const Case &c : cases) {
    ProcResult e = data_run({{"short.mat", matrix_bytes(2, 2, {1, 2, 3, 4})}}, 3, c.input);
    EXPECT_EQ(e.status, c.status) << c.input;
    EXPECT_EQ(e.out.substr(0, c.out.size()), c.out) << c.input;
  }
}

TEST(ConstraintKind, FirstLetterDecidesOthersAskAgain) {
  struct Case {
    const char *answer;
    int code, nn, prompts;
  } cases[] = {
      {"stationary\n", 1, 3, 1}, {"S\n", 1, 3, 1}, {"fixed\n", 0, 0, 1},
      {"F\n", 0, 0, 1},          {"Moving\n", 2, 3, 1}, {"m\n", 2, 3, 1},
      {"sideways\n", 1, 3, 1},   {"x\n\n  s\nfree\n", 0, 0, 4},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.answer);
    ProcResult r = run_process(probe("probe_measured"), {"constraint", "2"}, c.answer, "", 30);
    ASSERT_EQ(r.status, 0);
    std::string want;
    for (int k = 0; k < c.prompts; k++) want += CONSTRAINT_PROMPT;
    want += "code " + std::to_string(c.code) + "\n";
    // Every source gets a free orientation and the chosen position mode.
    for (int s = 1; s <= 2; s++)
      want += "source " + std::to_string(s) + ": pos_mode " + std::to_string(c.code) + " ori_stationary 0 nl 3 nn " +
              std::to_string(c.nn) + "\n";
    EXPECT_EQ(r.out, want);
  }
  ProcResult eof = run_process(probe("probe_measured"), {"constraint", "2"}, "x\n", "", 30);
  EXPECT_EQ(eof.status, 1);
  EXPECT_EQ(eof.out, CONSTRAINT_PROMPT + CONSTRAINT_PROMPT);
}
