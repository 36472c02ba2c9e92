// Measured data input (average reference, sample frequency, wrong shapes)
// and the constraint-kind question, driven through real standard input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
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

// The probe's report of accepted data: every electrode's row less the mean
// `shift` of its column.
std::string report(int nel, const std::vector<float> &v, const std::vector<float> &shift, float freq) {
  const int ntim = (int)shift.size();
  char buf[64];
  std::string s = "ntim " + std::to_string(ntim) + (snprintf(buf, sizeof buf, " sampfreq %.9g\n", freq), buf);
  for (int e = 0; e < nel; e++) {
    s += "psi " + std::to_string(e + 1) + ":";
    for (int t = 0; t < ntim; t++) s += (snprintf(buf, sizeof buf, " %.9g", v[e * ntim + t] - shift[t]), buf);
    s += "\n";
  }
  s += "shift:";
  for (float m : shift) s += (snprintf(buf, sizeof buf, " %.9g", m), buf);
  return s + "\n";
}

}  // namespace

TEST(MeasuredData, AverageReferenceAndSampleFrequency) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> u(-50, 50);
  std::vector<float> random(24), mean(6, 0.0f);
  for (float &x : random) x = u(rng);
  for (int t = 0; t < 6; t++) {
    for (int e = 0; e < 4; e++) mean[t] += random[e * 6 + t];
    mean[t] /= 4;
  }
  const struct {
    int nel;
    std::vector<float> v, shift;
    std::string tail;
    float freq;
  } cases[] = {
      {4, random, mean, "", -1},
      // The mean is summed in single precision in electrode order: in column
      // 1 the 1 is lost in 1e8, in column 2 the large values cancel first.
      {3, {1e8f, 1e8f, 1.0f, -1e8f, -1e8f, 1.0f}, {0.0f, 1.0f / 3}, "", -1},
      {1, {2.5f, -7.0f, 0.125f}, {2.5f, -7.0f, 0.125f}, "", -1},  // one electrode: all zero
      {2, {1, 3}, {2}, "recorded today\nSample Frequency:\n250.5 Hz\n", 250.5},
      {2, {1, 3}, {2}, "sample frequency\nunknown\n", -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.nel) + " electrodes " + c.tail);
    const int ntim = (int)c.shift.size();
    ProcResult r = data_run({{"d.mat", matrix_bytes(c.nel, ntim, c.v, c.tail)}}, c.nel, "d.mat\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, DATA_PROMPT + report(c.nel, c.v, c.shift, c.freq));
  }
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
  ProcResult none = data_run({}, 3, "\n"), eof = data_run({}, 3, "");
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.out, DATA_PROMPT + "no data\n");
  EXPECT_EQ(eof.status, 1);
  EXPECT_EQ(eof.out, DATA_PROMPT);
}

TEST(ConstraintKind, FirstLetterDecidesOthersAskAgain) {
  const struct {
    const char *answer;
    int code, nn, prompts;
  } cases[] = {
      {"Stationary\n", 1, 3, 1}, {"fixed\n", 0, 0, 1}, {"M\n", 2, 3, 1}, {"sideways\n", 1, 3, 1},
      {"x\n\n  s\nfree\n", 0, 0, 4},  // a leading blank is no letter
  };
  for (const auto &c : cases) {
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
