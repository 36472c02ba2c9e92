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

// Parse the words after the program name from the defaults, with `answers`
// waiting on standard input.
int parse(std::vector<std::string> words, const std::string &answers = "") {
  TempDir dir;
  write_file(dir.file("in"), answers);
  if (!freopen(dir.file("in").c_str(), "r", stdin)) ADD_FAILURE() << "no standard input";
  bound_func = bound_compart;
  bound_crit = 0.707f;
  solname[0] = '\0';
  std::vector<char *> argv = {const_cast<char *>("brelix")};
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  return parse_options((int)words.size() + 1, argv.data());
}

TEST(CommandLine, AcceptedLines) {
  const struct {
    std::vector<std::string> words;
    int mode;
    decltype(bound_func) bound;
    float crit;
    const char *solname;
  } cases[] = {
      {{}, MODE_COMPUTE, bound_compart, 0.707f, ""},
      {{"-i", "-f"}, MODE_STORE_AMA, bound_compart, 0.707f, "-f"},    // the next word, whatever it is
      {{"-Input", "x"}, MODE_STORE_AMA, bound_compart, 0.707f, "x"},  // only the second character counts
      {{"-Free"}, MODE_COMPUTE, bound_null, 0.707f, ""},
      {{"-D", "30"}, MODE_COMPUTE, bound_dist, std::sqrt(0.7f), ""},
      {{"-d", "100"}, MODE_COMPUTE, bound_dist, 0.0f, ""},
      {{"-d30"}, MODE_COMPUTE, bound_dist, 0.707f, ""},              // an attached value is never read
      {{"-d", "-i", "x"}, MODE_STORE_AMA, bound_dist, 0.707f, "x"},  // an option is not the value
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    EXPECT_EQ(parse(c.words), c.mode);
    EXPECT_EQ(bound_func, c.bound);
    EXPECT_FLOAT_EQ(bound_crit, c.crit);
    EXPECT_STREQ(solname, c.solname);
  }
  // -i last asks for the name; an empty answer quits, the end of input fails.
  testing::internal::CaptureStdout();
  EXPECT_EQ(parse({"-f", "-i"}, "typed.ama\n"), MODE_STORE_AMA);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "File to save inverted A-matrix in: ");
  EXPECT_STREQ(solname, "typed.ama");
  EXPECT_EQ(bound_func, bound_null);
  EXPECT_EXIT(parse({"-i"}, "\n"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(parse({"-i"}), testing::ExitedWithCode(1), "");
}

TEST(CommandLine, UsageErrorsPrintTheUsageTextAndExitWithOne) {
  testing::internal::CaptureStdout();
  EXPECT_EXIT(print_help(), testing::ExitedWithCode(1), "");
  const std::string usage = testing::internal::GetCapturedStdout();
  ASSERT_EQ(usage.substr(0, 54), "\nUsage:\nbrelix [-i] [ -f | -d [<value>] ] [filename]\n\n");
  ASSERT_EQ(usage.substr(usage.size() - 53), "is replaced by the optional value (in %) if given.\n\n\n");
  // A word that is no stored matrix is named first; after -d a word that
  // does not start with a digit, or ".5", is read as one.
  const std::vector<std::pair<std::vector<std::string>, bool>> bad = {
      {{"-c"}, false}, {{"-"}, false}, {{"-i", "a", "-i", "b"}, false}, {{"-f", "-d"}, false}, {{"-d", "-f"}, false},
      {{"-d", "150"}, false}, {{std::string(80, 'a')}, false},  // too long a name
      {{"missing.ama"}, true}, {{"-d", "missing.ama"}, true}, {{"-d", ".5"}, true}};
  for (const auto &[words, named] : bad) {
    testing::internal::CaptureStdout();
    EXPECT_EXIT(parse(words), testing::ExitedWithCode(1), "") << words.back();
    const std::string opening = named ? "\nerror opening " + words.back() + "\n\n\a\a" : "";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), opening + usage) << words.back();
  }
  const std::string name(80, 'a');
  EXPECT_EXIT(parse({"-i", name}), testing::ExitedWithCode(1),
              testing::Eq("\nFile name too long (at most 79 characters): " + name + "\n"));
}

}  // namespace
