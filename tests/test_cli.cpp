// The command line: modes, the bound of the fit, and every usage error.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "driver/input.h"
#include "forwinv/compart.h"
#include "forwinv/forwinv.h"
#include "tests/support/files.h"

namespace {

// Parse a command line given as words after the program name.
int parse(std::vector<std::string> words) {
  std::vector<char *> argv = {const_cast<char *>("brelix")};
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  return parse_options((int)words.size() + 1, argv.data());
}

class CommandLine : public testing::Test {
 protected:
  void SetUp() override {
    bound_func = bound_compart;
    bound_crit = 0.707f;
    solname[0] = '\0';
  }
};

std::string usage_text() {
  testing::internal::CaptureStdout();
  EXPECT_EXIT(print_help(), testing::ExitedWithCode(1), "");
  return testing::internal::GetCapturedStdout();
}

TEST_F(CommandLine, DefaultsWithoutArguments) {
  EXPECT_EQ(parse({}), MODE_COMPUTE);
  EXPECT_EQ(bound_func, bound_compart);
  EXPECT_EQ(bound_crit, 0.707f);
}

TEST_F(CommandLine, StoreModeTakesTheNextWordWhateverItIs) {
  EXPECT_EQ(parse({"-i", "head.ama"}), MODE_STORE_AMA);
  EXPECT_STREQ(solname, "head.ama");
  EXPECT_EQ(parse({"-i", "-f"}), MODE_STORE_AMA);
  EXPECT_STREQ(solname, "-f");
  EXPECT_EQ(bound_func, bound_compart);
  EXPECT_EQ(parse({"-Input", "x"}), MODE_STORE_AMA);  // only the second character counts
}

TEST_F(CommandLine, StoreModeAsksForTheNameWhenItIsLast) {
  TempDir dir;
  write_file(dir.file("in"), "typed.ama\n");
  ASSERT_NE(freopen(dir.file("in").c_str(), "r", stdin), nullptr);
  testing::internal::CaptureStdout();
  int mode = parse({"-f", "-i"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "File to save inverted A-matrix in: ");
  EXPECT_EQ(mode, MODE_STORE_AMA);
  EXPECT_STREQ(solname, "typed.ama");
  EXPECT_EQ(bound_func, bound_null);
}

TEST_F(CommandLine, EmptyOrMissingNameAfterPromptEndsTheRun) {
  TempDir dir;
  write_file(dir.file("empty"), "\n");
  write_file(dir.file("eof"), "");
  EXPECT_EXIT(
      {
        freopen(dir.file("empty").c_str(), "r", stdin);
        parse({"-i"});
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EXIT(
      {
        freopen(dir.file("eof").c_str(), "r", stdin);
        parse({"-i"});
      },
      testing::ExitedWithCode(1), "");
}

TEST_F(CommandLine, FreeAndDistanceBounds) {
  parse({"-f"});
  EXPECT_EQ(bound_func, bound_null);
  SetUp();
  parse({"-Free"});
  EXPECT_EQ(bound_func, bound_null);
  SetUp();
  parse({"-d"});
  EXPECT_EQ(bound_func, bound_dist);
  EXPECT_EQ(bound_crit, 0.707f);
  SetUp();
  parse({"-D", "30"});
  EXPECT_EQ(bound_func, bound_dist);
  EXPECT_FLOAT_EQ(bound_crit, std::sqrt(0.7f));
  SetUp();
  parse({"-d", "0"});
  EXPECT_EQ(bound_crit, 1.0f);
  SetUp();
  parse({"-d", "100"});
  EXPECT_EQ(bound_crit, 0.0f);
  SetUp();
  parse({"-d30"});  // an attached value is never read
  EXPECT_EQ(bound_func, bound_dist);
  EXPECT_EQ(bound_crit, 0.707f);
  SetUp();
  parse({"-d", "-i", "x"});  // a following option is not the value
  EXPECT_EQ(bound_func, bound_dist);
  EXPECT_EQ(bound_crit, 0.707f);
  EXPECT_STREQ(solname, "x");
}

TEST_F(CommandLine, UsageErrorsPrintTheUsageTextAndExitWithOne) {
  const std::string usage = usage_text();
  ASSERT_EQ(usage.substr(0, 54), "\nUsage:\nbrelix [-i] [ -f | -d [<value>] ] [filename]\n\n");
  ASSERT_EQ(usage.substr(usage.size() - 53), "is replaced by the optional value (in %) if given.\n\n\n");
  const std::vector<std::vector<std::string>> bad = {
      {"-c"},         {"-x"},       {"-"},        {"-i", "a", "-i", "b"}, {"-f", "-d"}, {"-d", "-f"},
      {"-f", "-f"},   {"-d", "-d"}, {"-F", "-f"}, {"-d", "150"},
  };
  for (const auto &words : bad) {
    testing::internal::CaptureStdout();
    EXPECT_EXIT(parse(words), testing::ExitedWithCode(1), "") << words[0];
    EXPECT_EQ(testing::internal::GetCapturedStdout(), usage) << words[0];
  }
}

TEST_F(CommandLine, AWordThatIsNoStoredMatrixIsAUsageError) {
  // "-d" followed by a word that does not start with a digit leaves the word
  // to be read as the name of a stored matrix; so does ".5".
  for (auto words : std::vector<std::vector<std::string>>{{"missing.ama"}, {"-d", "missing.ama"}, {"-d", ".5"}}) {
    testing::internal::CaptureStdout();
    EXPECT_EXIT(parse(words), testing::ExitedWithCode(1), "");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.substr(0, 9), "\nerror op") << out;
    EXPECT_NE(out.find("\nUsage:\n"), std::string::npos);
  }
}

TEST_F(CommandLine, OverlongFileNamesAreRefused) {
  std::string name(80, 'a');
  EXPECT_EXIT(parse({"-i", name}), testing::ExitedWithCode(1), "File name too long");
  testing::internal::CaptureStdout();
  EXPECT_EXIT(parse({name}), testing::ExitedWithCode(1), "");
  EXPECT_NE(testing::internal::GetCapturedStdout().find("\nUsage:\n"), std::string::npos);
}

}  // namespace
