// The source table: the source position file with its constraint lines,
// parameter numbering, first orientation estimate and the angle helpers.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "forwinv/forwinv.h"
#include "forwinv/sources.h"
#include "numeric/nrutils.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

namespace {

const std::string PROMPT = "\nSource position file: ";
const std::string GRAMMAR =
    "  Correct syntax of constraint description:\n\n"
    "  <source index> <constr 1> <constr 2> ...\n\n"
    "  Where <constr> =   position    ( fixed | stationary | moving )\n"
    "                or   orientation ( free | stationary )\n"
    "                or   symmetric to <source index>\n\n";
const std::string TWO_MIRRORED = "2\n1 10 5 3\n2 -10 5 3\n";

std::string syntax_error(int source) {
  return "\n Syntax error in constraint description of source " + std::to_string(source) + "\n\n\a\a" +
         GRAMMAR;
}

std::string fatal(const std::string &msg) { return "\n\n Fatal error in probe_sources: " + msg + "\n\n\a"; }

// Write `contents` as s.dip in a fresh folder and run the probe on it there,
// feeding `input` to the questions that follow a refused file.
struct ProbeRun {
  TempDir dir;
  ProcResult res;
  ProbeRun(const std::string &contents, const std::string &input = "", bool numbering = false) {
    write_file(dir.file("s.dip"), contents);
    write_file(dir.file("good.dip"), "1\n1 0 0 1\n");
    std::vector<std::string> args;
    if (numbering) args.push_back("-n");
    args.push_back("s.dip");
    res = run_process(probe("probe_sources"), args, input, dir.path(), 30);
  }
};

// Fields of the probe's line that starts with `prefix` ("source 2:"), as
// name -> value.
std::map<std::string, std::string> record(const std::string &out, const std::string &prefix) {
  std::map<std::string, std::string> f;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    std::istringstream words(line.substr(prefix.size()));
    std::string name, value;
    while (words >> name >> value) f[name] = value;
    return f;
  }
  ADD_FAILURE() << "no line " << prefix << " in:\n" << out;
  return f;
}

int ival(const std::map<std::string, std::string> &f, const std::string &name) {
  auto it = f.find(name);
  if (it == f.end()) {
    ADD_FAILURE() << "no field " << name;
    return -999;
  }
  return std::stoi(it->second);
}

float fval(const std::map<std::string, std::string> &f, const std::string &name) {
  auto it = f.find(name);
  if (it == f.end()) {
    ADD_FAILURE() << "no field " << name;
    return NAN;
  }
  return std::stof(it->second);
}

}  // namespace

// ---------------------------------------------------------------- failures

TEST(SourceFile, UnopenableFileIsReportedAndAskedForAgain) {
  TempDir dir;
  write_file(dir.file("good.dip"), "1\n1 0 0 1\n");
  ProcResult r = run_process(probe("probe_sources"), {"missing.dip"}, "good.dip\n", dir.path(), 30);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("\nError opening file missing.dip\a\a\n\n" + PROMPT + "good.dip defines 1 source \n", 0),
            0u)
      << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(SourceFile, UnreadableCountsAndSourceLinesAreReadErrors) {
  const std::string read_error = "\nError reading file s.dip\a\a\n\n";
  const char *bad[] = {
      "",                                  // empty file
      "two\n1 0 0 0\n",                    // count not a number
      "\n1\n1 0 0 0\n",                    // count line blank
      "0\n",                               // no sources
      "-3\n1 0 0 0\n",                     // negative count
      "1000000000\n1 0 0 0\n2 0 0 0\n",    // more sources than the file can hold
      "99999999999999999999\n1 0 0 0\n",   // count beyond int
      "2\n1 0 0 0\n",                      // a source line missing
      "2\n1 0 0 0\n\n2 1 1 1\n",           // blank line among the sources
      "1\n1 0 0\n",                        // three numbers only
      "1\n1 x 0 0\n",                      // coordinate not a number
      "1\nsource 0 0 0\n",                 // source number not a number
      "1\n1 nan 0 0\n",                    // not-a-number coordinate
      "1\n1 0 inf 0\n",                    // infinite coordinate
      "1\n1 0 0 -1e39\n",                  // beyond single precision
  };
  for (const char *contents : bad) {
    SCOPED_TRACE(contents);
    ProbeRun run(contents);
    EXPECT_EQ(run.res.out, read_error + PROMPT);
    EXPECT_EQ(run.res.status, 1);  // end of input at the repeated question
  }
  // After a refused file the next answer is tried; an empty answer quits.
  ProbeRun again("1\n1 0 0\n", "good.dip\n");
  EXPECT_EQ(again.res.status, 0);
  EXPECT_NE(again.res.out.find(read_error + PROMPT + "good.dip defines 1 source \n"), std::string::npos);
  ProbeRun quit("1\n1 0 0\n", "\n");
  EXPECT_EQ(quit.res.status, 0);
  EXPECT_EQ(quit.res.out, read_error + PROMPT);
}

TEST(SourceFile, ConstraintLineMustStartWithASourceNumber) {
  for (const char *line : {"position fixed\n", "x 1 p st\n", "a1 p st\n"}) {
    SCOPED_TRACE(line);
    ProbeRun run(TWO_MIRRORED + line);
    EXPECT_EQ(run.res.out, "\n Error in constraint description in file s.dip\n\n\a\a" + PROMPT);
    EXPECT_EQ(run.res.status, 1);
  }
}

TEST(SourceFile, LinesForNonExistentSourcesAreSkipped) {
  ProbeRun run("2\n1 0 0 1\n2 0 1 0\n3 p st\n0 position stationary\n-4 o st\n1 o st\n", "", true);
  EXPECT_EQ(run.res.status, 0);
  EXPECT_EQ(run.res.out.rfind("Constraint description of non-existent source 3 in file s.dip\n"
                              "Constraint description of non-existent source 0 in file s.dip\n"
                              "Constraint description of non-existent source -4 in file s.dip\n"
                              "s.dip defines 2 sources\n",
                              0),
            0u)
      << run.res.out;
  // Reading went on: the last line still took effect.
  auto s1 = record(run.res.out, "source 1:");
  EXPECT_EQ(ival(s1, "ori_stationary"), 1);
  EXPECT_EQ(ival(s1, "pos_mode"), 0);
  EXPECT_EQ(ival(record(run.res.out, "table"), "constraint"), 1);

  // Lines for non-existent sources alone state no constraint.
  ProbeRun none("1\n1 0 0 1\n2 p st\n");
  EXPECT_EQ(none.res.status, 0);
  EXPECT_EQ(ival(record(none.res.out, "table"), "constraint"), -1);
}

TEST(SourceFile, SyntaxErrorsPrintTheGrammar) {
  struct Case {
    const char *lines;
    int source;
  } cases[] = {
      {"1 x fixed\n", 1},          // unknown keyword
      {"2 position\n", 2},         // value missing
      {"1 p xx\n", 1},             // unknown position value
      {"1 p f\n", 1},              // one letter is not enough for a value
      {"2 o mo\n", 2},             // orientations do not move
      {"1 orientation\n", 1},      // value missing
      {"2 symmetric\n", 2},        // partner missing
      {"2 symmetric to\n", 2},     // partner missing after "to"
      {"2 sy too 1\n", 2},         // "to" must be exactly "to"
      {"2 sy one\n", 2},           // partner not a number
      {"2 p sy\n", 2},             // partner missing
      {"2 o sy to x\n", 2},        // partner not a number
      {"2 sy 3\n", 2},             // partner beyond the table
      {"2 sy 0\n", 2},             // partner numbers start at 1
      {"2 p sy -1\n", 2},          // negative partner
      {"2 o sy 99999\n", 2},       // far beyond the table
      {"1 p st\n2 p st 7\n", 2},   // stray word after a valid constraint
      {"1 P st\n", 1},             // keywords are lower case
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.lines);
    ProbeRun run(TWO_MIRRORED + c.lines);
    EXPECT_EQ(run.res.out, syntax_error(c.source) + PROMPT);
    EXPECT_EQ(run.res.err, "");
    EXPECT_EQ(run.res.status, 1);
  }
}

TEST(SourceFile, NonsenseSymmetryIsASyntaxErrorWithAReportOnStderr) {
  // Partner already recorded as 1 (zero-based), equal to the own one-based
  // number 1: reported as "symmetric to itself".
  ProbeRun self(TWO_MIRRORED + "1 symmetric to 2 position symmetric to 2\n");
  EXPECT_EQ(self.res.err, "Nonsense: source 1 symmetric to itself\n");
  EXPECT_EQ(self.res.out, syntax_error(1) + PROMPT);
  EXPECT_EQ(self.res.status, 1);

  ProbeRun both("3\n1 1 0 0\n2 -1 0 0\n3 0 0 5\n2 sy 1\n2 orientation symmetric 3\n");
  EXPECT_EQ(both.res.err, "Nonsense: source 2 symmetric to both 1 and 3\n");
  EXPECT_EQ(both.res.out, syntax_error(2) + PROMPT);
  EXPECT_EQ(both.res.status, 1);

  // The same partner named again is no contradiction.
  ProbeRun same(TWO_MIRRORED + "1 p st\n2 p sy 1\n2 o sy to 1\n2 sy 1\n");
  EXPECT_EQ(same.res.status, 0);
  EXPECT_EQ(same.res.err, "");
  auto s2 = record(same.res.out, "source 2:");
  EXPECT_EQ(ival(s2, "pos_symmetric"), 1);
  EXPECT_EQ(ival(s2, "ori_symmetric"), 1);
  EXPECT_EQ(ival(s2, "sym"), 0);
}

TEST(SourceFile, MovingSourcesCannotBeMixed) {
  const std::string moving_error =
      "\n Error in constraint description in s.dip:\n"
      " moving dipoles cannot be combined with non-moving dipoles\n\n\a\a";
  ProbeRun mixed(TWO_MIRRORED + "1 position=moving\n");
  EXPECT_EQ(mixed.res.out, moving_error + PROMPT);
  EXPECT_EQ(mixed.res.status, 1);

  ProbeRun stationary_orientation("1\n1 0 0 1\n1 p mo o st\n");
  EXPECT_EQ(stationary_orientation.res.out, moving_error + PROMPT);

  // Once moving was seen, a later "fixed" on the same source still counts
  // as mixing.
  ProbeRun overridden("1\n1 0 0 1\n1 p mo p fi\n");
  EXPECT_EQ(overridden.res.out, moving_error + PROMPT);

  ProbeRun all(TWO_MIRRORED + "1 p mo\n2 position:moving orientation:free\n");
  EXPECT_EQ(all.res.status, 0);
  EXPECT_EQ(ival(record(all.res.out, "table"), "constraint"), 2);
  for (const char *s : {"source 1:", "source 2:"}) {
    auto f = record(all.res.out, s);
    EXPECT_EQ(ival(f, "pos_mode"), 2);
    EXPECT_EQ(ival(f, "nn"), 3);
    EXPECT_EQ(ival(f, "nl"), 3);
  }
}

// ----------------------------------------------------------------- success

TEST(SourceFile, ConstraintKindFollowsTheLines) {
  struct Case {
    const char *lines;
    int constraint;
  } cases[] = {
      {"", -1},                                   // no constraint line
      {"# comment\n\n   \n", -1},                 // nothing but skipped lines
      {"1\n", 0},                                 // a bare source number
      {"1 position fixed orientation free\n", 0},
      {"1 p st p fi\n", 0},                       // later overrides earlier
      {"2 o st\n", 1},
      {"1 p stationary\n", 1},
      {"1 p fi\n1 p st\n", 1},                    // several lines, one source
      {"2 p sy 1\n", 0},                          // symmetry bits do not count
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.lines);
    ProbeRun run(TWO_MIRRORED + c.lines);
    ASSERT_EQ(run.res.status, 0) << run.res.out << run.res.err;
    EXPECT_EQ(ival(record(run.res.out, "table"), "constraint"), c.constraint);
  }
}

TEST(SourceFile, CountMessageIsSingularOrPlural) {
  ProbeRun one("1\n7 1.5 -2 0.25\n");
  EXPECT_EQ(one.res.out.rfind("s.dip defines 1 source \ntable nsource 1 constraint -1\n", 0), 0u) << one.res.out;
  auto s1 = record(one.res.out, "source 1:");
  EXPECT_EQ(fval(s1, "x"), 1.5f);
  EXPECT_EQ(fval(s1, "y"), -2.0f);
  EXPECT_EQ(fval(s1, "z"), 0.25f);
  EXPECT_EQ(ival(s1, "sym"), -1);
  EXPECT_EQ(ival(s1, "nl"), 3);
  EXPECT_EQ(ival(s1, "nn"), 0);

  ProbeRun three("3\n1 0 0 1\n2 0 1 0\n3 1 0 0\n");
  EXPECT_EQ(three.res.out.rfind("s.dip defines 3 sources\n", 0), 0u);
}

TEST(SourceFile, LooseSpellingsMeanTheSame) {
  const char *spellings[] = {
      "1 position stationary orientation stationary\n",
      "1 position=stationary orientation=stationary\n",
      "1 position:stationary\torientation : stationary\n",
      "1 p st o st\n",
      "1 pos stat ori stay\n",
      "   1 position stationar orientation stationar\r\n",
  };
  for (const char *line : spellings) {
    SCOPED_TRACE(line);
    ProbeRun run("1\n1 0 0 1\n" + std::string(line));
    ASSERT_EQ(run.res.status, 0) << run.res.out;
    auto f = record(run.res.out, "source 1:");
    EXPECT_EQ(ival(f, "pos_mode"), 1);
    EXPECT_EQ(ival(f, "ori_stationary"), 1);
    EXPECT_EQ(ival(f, "nn"), 5);
    EXPECT_EQ(ival(f, "nl"), 1);
  }
}

TEST(SourceFile, ReadsBackTheFittedPositionLayout) {
  // Angles after x, y, z are ignored; "stationar" is enough.
  ProbeRun run("   2\n   1 10.0000  5.0000  3.0000  90.0000  45.0000\n"
          "   2  0.5000 -1.2500  2.0000\n"
          "   1  position stationar  orientation stationar\n"
          "   2  position fixed  orientation free\n");
  ASSERT_EQ(run.res.status, 0);
  auto s1 = record(run.res.out, "source 1:");
  EXPECT_EQ(fval(s1, "x"), 10.0f);
  EXPECT_EQ(fval(s1, "theta"), 0.0f);
  EXPECT_EQ(ival(s1, "ori_stationary"), 1);
  EXPECT_EQ(ival(s1, "pos_mode"), 1);
  auto s2 = record(run.res.out, "source 2:");
  EXPECT_EQ(fval(s2, "y"), -1.25f);
  EXPECT_EQ(ival(s2, "pos_mode"), 0);
}

TEST(SourceFile, LongLinesAreReadInPieces) {
  // A line of 79 characters is whole.
  std::string line79 = "1 position stationary";
  line79.resize(79, ' ');
  ProbeRun whole("1\n1 0 0 1\n" + line79 + "\n1 o st\n");
  ASSERT_EQ(whole.res.status, 0) << whole.res.out;
  EXPECT_EQ(ival(record(whole.res.out, "source 1:"), "pos_mode"), 1);
  EXPECT_EQ(ival(record(whole.res.out, "source 1:"), "ori_stationary"), 1);

  std::string source79 = "1 0 0 1";
  source79.insert(2, 72, ' ');
  ASSERT_EQ(source79.size(), 79u);
  ProbeRun source_whole("2\n" + source79 + "\n2 0 0 2\n");
  EXPECT_EQ(source_whole.res.status, 0) << source_whole.res.out;

  // Longer: the rest arrives as a line of its own, here starting with a
  // keyword instead of a source number.
  ProbeRun pieces("1\n1 0 0 1\n" + line79 + "o st\n");
  EXPECT_EQ(pieces.res.out, "\n Error in constraint description in file s.dip\n\n\a\a" + PROMPT);

  // A source line longer than the buffer: its first piece lacks z.
  std::string long_source = "1 0 0";
  long_source.resize(85, ' ');
  ProbeRun split("2\n" + long_source + "1\n2 0 0 1\n");
  EXPECT_EQ(split.res.out, "\nError reading file s.dip\a\a\n\n" + PROMPT);

  // Garbage of any length and with NUL bytes neither crashes nor hangs.
  std::string junk(5000, '7');
  junk += std::string("\0\0 p \0sy 2\n", 11) + std::string(300, '#') + "\n";
  ProbeRun garbage("1\n1 0 0 1\n" + junk);
  EXPECT_LT(garbage.res.status, 128);
  EXPECT_NE(garbage.res.out.find("non-existent source 2147483647"), std::string::npos);
}

// ----------------------------------------------------------------- symmetry

TEST(SourceSymmetry, MirroredPairSharesThePartnersParameters) {
  ProbeRun run(TWO_MIRRORED + "1 position stationary\n2 symmetric to 1\n", "", true);
  ASSERT_EQ(run.res.status, 0) << run.res.out << run.res.err;
  EXPECT_EQ(ival(record(run.res.out, "table"), "constraint"), 1);
  auto s2 = record(run.res.out, "source 2:");
  EXPECT_EQ(ival(s2, "symaxis"), 0);
  EXPECT_EQ(fval(s2, "symplane"), 0.0f);
  EXPECT_EQ(ival(s2, "pos_mode"), 1);
  EXPECT_EQ(ival(s2, "nn"), 0);
  EXPECT_EQ(ival(s2, "nl"), 3);
  EXPECT_EQ(ival(s2, "sym"), 0);
  // Source 2 borrows the position parameters of source 1.
  auto i1 = record(run.res.out, "index 1:"), i2 = record(run.res.out, "index 2:");
  EXPECT_EQ(ival(i1, "pindex"), 1);
  EXPECT_EQ(ival(i2, "pindex"), 1);
  EXPECT_EQ(ival(i2, "lindex"), 4);
  EXPECT_EQ(ival(record(run.res.out, "totals"), "nnpar"), 3);
  EXPECT_EQ(ival(record(run.res.out, "totals"), "nlpar"), 6);
}

TEST(SourceSymmetry, MirrorAxisAndPlaneOnEachCoordinate) {
  struct Case {
    const char *positions;
    int axis;
    float plane;
  } cases[] = {
      {"2\n1 1 2 3\n2 1 -4 3\n", 1, -1.0f},
      {"2\n1 1 2 3\n2 1 2 8\n", 2, 5.5f},
      {"2\n1 4 2 3\n2 3 2 3\n", 0, 3.5f},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.positions);
    ProbeRun run(std::string(c.positions) + "1 p st o st\n2 sy 1\n");
    ASSERT_EQ(run.res.status, 0) << run.res.err;
    auto s2 = record(run.res.out, "source 2:");
    EXPECT_EQ(ival(s2, "symaxis"), c.axis);
    EXPECT_EQ(fval(s2, "symplane"), c.plane);
    // Stationary orientation taken over from the partner, nl as well.
    EXPECT_EQ(ival(s2, "ori_stationary"), 1);
    EXPECT_EQ(ival(s2, "nl"), 1);
    EXPECT_EQ(ival(s2, "nn"), 0);
  }
}

TEST(SourceSymmetry, PositionOnlySymmetryWithAFixedPartnerIsAllowed) {
  ProbeRun run(TWO_MIRRORED + "2 position symmetric to 1\n");
  ASSERT_EQ(run.res.status, 0) << run.res.err;
  auto s2 = record(run.res.out, "source 2:");
  EXPECT_EQ(ival(s2, "pos_symmetric"), 1);
  EXPECT_EQ(ival(s2, "ori_symmetric"), 0);
  EXPECT_EQ(ival(s2, "nl"), 3);
  EXPECT_EQ(ival(s2, "nn"), 0);
}

TEST(SourceSymmetry, InconsistentPairsAreFatal) {
  struct Case {
    std::string contents, message;
  } cases[] = {
      {"2\n1 10 5 3\n2 -10 4 3\n1 p st\n2 sy 1\n", "\nSymmetric sources must have to equal coordinates"},
      {"2\n1 10 5 3\n2 -10 5 4\n1 p st\n2 sy 1\n", "\nSymmetric sources must have to equal coordinates"},
      {"2\n1 10 5 3\n2 10 5 3\n1 p st\n2 sy 1\n", "\nSymmetric sources may not coincide"},
      {TWO_MIRRORED + "2 symmetric to 1\n", "Symmetric free oriented sources not allowed"},
      {TWO_MIRRORED + "1 p st\n1 sy 1\n",
       "\nSymmetry constraints must be specified in only on of the two sources involved"},
      {TWO_MIRRORED + "1 p st\n2 p st\n1 sy 2\n2 sy 1\n",
       "\nSymmetry constraints must be specified in only on of the two sources involved"},
      {TWO_MIRRORED + "1 p st\n1 orientation symmetric 2\n", "Separate orientation symmetry not yet implemented"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.contents);
    ProbeRun run(c.contents);
    EXPECT_EQ(run.res.status, 1);
    EXPECT_EQ(run.res.err, fatal(c.message));
    // A fatal description never gets as far as the success message.
    EXPECT_EQ(run.res.out.find("defines"), std::string::npos);
  }
}

// ------------------------------------------------ in-process: no leftovers

namespace {

int open_descriptors() {
  int n = 0;
  DIR *d = opendir("/proc/self/fd");
  if (!d) return -1;
  while (readdir(d)) n++;
  closedir(d);
  return n;
}

}  // namespace

TEST(SourceFileInProcess, RefusedFilesAreClosedAndOutputsUntouched) {
  TempDir dir;
  const std::string path = dir.file("s.dip");
  const char *refused[] = {
      "x\n",
      "2\n1 0 0 0\n",
      "2\n1 0 0 1\n2 0 0 2\nposition\n",
      "2\n1 0 0 1\n2 0 0 2\n1 p bogus\n",
      "2\n1 0 0 1\n2 0 0 2\n1 p mo\n",
  };
  int before = open_descriptors();
  ASSERT_GT(before, 0);
  for (const char *contents : refused) {
    SCOPED_TRACE(contents);
    write_file(path, contents);
    int n = 123, c = 7;
    SourceRecord *table = reinterpret_cast<SourceRecord *>(&n);
    testing::internal::CaptureStdout();
    int ok = init_dip(path.c_str(), &n, &table, &c);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(n, 123);
    EXPECT_EQ(c, 7);
    EXPECT_EQ(table, reinterpret_cast<SourceRecord *>(&n));
    EXPECT_EQ(open_descriptors(), before);
  }
  write_file(path, "2\n1 0 0 1\n2 0 0 2\n");
  int n = 0, c = 5;
  SourceRecord *table = nullptr;
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(path.c_str(), &n, &table, &c), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), path + " defines 2 sources\n");
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(c, -1);  // a previous kind does not survive
  EXPECT_EQ(table[1].z, 2.0f);
  free(table);
}

// ----------------------------------------------------- parameter numbering

TEST(ParameterNumbering, MixedModel) {
  TempDir dir;
  const std::string path = dir.file("mixed.dip");
  // 1: stationary position and orientation  (nl 1, nn 5)
  // 2: fixed, free                          (nl 3, nn 0)
  // 3: stationary position, free            (nl 3, nn 3)
  // 4: mirror of 1                          (nl 1, nn 0, borrows 1's)
  // 5: fixed position, stationary orient.   (nl 1, nn 2)
  write_file(path,
             "5\n1 2 1 1\n2 0 0 5\n3 0 3 0\n4 -2 1 1\n5 1 1 1\n"
             "1 p st o st\n3 p st\n4 sy 1\n5 o st\n");
  testing::internal::CaptureStdout();
  ASSERT_EQ(init_dip(path.c_str(), &nsource, &source, &constraint), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(constraint, 1);
  get_nn_nl();
  struct Expect {
    int nl, nn, lindex, pindex, oindex;
  } expect[] = {
      {1, 5, 1, 1, 4}, {3, 0, 2, 0, 0}, {3, 3, 5, 6, 0}, {1, 0, 8, 1, 4}, {1, 2, 9, 0, 9},
  };
  for (int i = 0; i < 5; i++) {
    SCOPED_TRACE(i + 1);
    EXPECT_EQ(source[i].nl, expect[i].nl);
    EXPECT_EQ(source[i].nn, expect[i].nn);
    EXPECT_EQ(source[i].lindex, expect[i].lindex);
    EXPECT_EQ(source[i].pindex, expect[i].pindex);
    EXPECT_EQ(source[i].oindex, expect[i].oindex);
  }
  EXPECT_EQ(nlpar, 9);
  EXPECT_EQ(nnpar, 10);
  // The totals are the sums of the per-source counts.
  int L = 0, N = 0;
  for (int i = 0; i < nsource; i++) L += source[i].nl, N += source[i].nn;
  EXPECT_EQ(L, nlpar);
  EXPECT_EQ(N, nnpar);
  free(source);
  source = nullptr;
  nsource = 0;
}

// ------------------------------------------------ first orientation guess

namespace {

struct OriFixture {
  int ns, nt;
  SourceRecord *src;
  float **d;
  OriFixture(int ns_, int nt_) : ns(ns_), nt(nt_) {
    src = static_cast<SourceRecord *>(calloc(ns, sizeof(SourceRecord)));
    for (int i = 0; i < ns; i++) src[i].sym = -1;
    d = matrix(1, 3 * ns, 1, nt);
  }
  ~OriFixture() {
    free(src);
    free_matrix(d, 1, 3 * ns, 1, nt);
  }
  // Moment of source i at sample t: amplitude a times direction u.
  void set(int i, int t, double a, double ux, double uy, double uz) {
    d[3 * i + 1][t] = (float)(a * ux);
    d[3 * i + 2][t] = (float)(a * uy);
    d[3 * i + 3][t] = (float)(a * uz);
  }
};

}  // namespace

TEST(InitialOrientation, DirectionOfAStationaryMoment) {
  OriFixture f(2, 3);
  f.src[0].ori_stationary = 1;
  // Equal component sizes survive the signed squares unchanged.
  const double amp[3] = {2.0, -0.5, 1.0};
  for (int t = 1; t <= 3; t++) {
    f.set(0, t, amp[t - 1], 1, 1, 1);
    f.set(1, t, amp[t - 1], 0, 0, 7);  // free source: left alone
  }
  f.src[1].theta = 0.25f;
  EXPECT_EQ(init_ori(2, 3, f.src, f.d), 1);
  EXPECT_NEAR(f.src[0].alfa, M_PI / 4, 1e-6);
  EXPECT_NEAR(f.src[0].theta, atan2(sqrt(2.0), 1.0), 1e-6);
  EXPECT_EQ(f.src[1].theta, 0.25f);
  EXPECT_EQ(f.src[1].alfa, 0.0f);

  // Mostly negative amplitudes turn the estimate round.
  const double neg[3] = {-2.0, 0.5, -1.0};
  for (int t = 1; t <= 3; t++) f.set(0, t, neg[t - 1], 0, 1, 0);
  init_ori(2, 3, f.src, f.d);
  EXPECT_NEAR(f.src[0].alfa, -M_PI / 2, 1e-6);
  EXPECT_NEAR(f.src[0].theta, M_PI / 2, 1e-6);

  // Unequal components: the signed squares (1, 4, -4)/9 set the angles.
  for (int t = 1; t <= 3; t++) f.set(0, t, 1.0, 1.0 / 3, 2.0 / 3, -2.0 / 3);
  init_ori(2, 3, f.src, f.d);
  EXPECT_NEAR(f.src[0].alfa, atan2(4.0, 1.0), 1e-6);
  EXPECT_NEAR(f.src[0].theta, atan2(sqrt(17.0), -4.0), 1e-6);
}

TEST(InitialOrientation, ZeroSumsGiveZeroAngles) {
  OriFixture f(1, 2);
  f.src[0].ori_stationary = 1;
  f.src[0].alfa = 1.0f;
  f.src[0].theta = 1.0f;
  // Along -x: the y sum is exactly 0, so alfa is 0, not pi.
  f.set(0, 1, -3.0, 1, 0, 0);
  f.set(0, 2, -1.0, 1, 0, 0);
  init_ori(1, 2, f.src, f.d);
  EXPECT_EQ(f.src[0].alfa, 0.0f);
  EXPECT_NEAR(f.src[0].theta, M_PI / 2, 1e-6);
  // Along -z: no horizontal part, theta 0.
  f.set(0, 1, -3.0, 0, 0, 1);
  f.set(0, 2, -1.0, 0, 0, 1);
  init_ori(1, 2, f.src, f.d);
  EXPECT_EQ(f.src[0].alfa, 0.0f);
  EXPECT_EQ(f.src[0].theta, 0.0f);
}

TEST(InitialOrientation, MirroredPartnerContributesAndIsMirrored) {
  OriFixture f(2, 2);
  f.src[0].ori_stationary = 1;
  f.src[1].ori_stationary = 1;
  f.src[1].ori_symmetric = 1;
  f.src[1].pos_symmetric = 1;
  f.src[1].sym = 0;
  f.src[1].symaxis = 0;
  // Source 1 (zero-based 0) shows nothing; its mirror image carries the
  // moment (-1, 1, 1), which is (1, 1, 1) seen from source 0.
  for (int t = 1; t <= 2; t++) f.set(1, t, 1.5, -1, 1, 1);
  EXPECT_EQ(init_ori(2, 2, f.src, f.d), 1);
  EXPECT_NEAR(f.src[0].alfa, M_PI / 4, 1e-6);
  EXPECT_NEAR(f.src[0].theta, atan2(sqrt(2.0), 1.0), 1e-6);
  EXPECT_NEAR(f.src[1].alfa, 3 * M_PI / 4, 1e-6);
  EXPECT_NEAR(f.src[1].theta, atan2(sqrt(2.0), 1.0), 1e-6);

  // Mirror in z: the z component is turned round.
  f.src[1].symaxis = 2;
  for (int t = 1; t <= 2; t++) f.set(1, t, 1.0, 0, 0, -1);
  init_ori(2, 2, f.src, f.d);
  EXPECT_EQ(f.src[0].theta, 0.0f);  // +z
  EXPECT_NEAR(f.src[1].theta, M_PI, 1e-6);
}

TEST(InitialOrientation, NothingStationaryReturnsZero) {
  OriFixture f(2, 1);
  f.set(0, 1, 1, 1, 0, 0);
  f.src[0].theta = 0.5f;
  EXPECT_EQ(init_ori(2, 1, f.src, f.d), 0);
  EXPECT_EQ(f.src[0].theta, 0.5f);
}

// -------------------------------------------------------- angle helpers

namespace {

void direction(double theta, double alfa, double u[3]) {
  u[0] = sin(theta) * cos(alfa);
  u[1] = sin(theta) * sin(alfa);
  u[2] = cos(theta);
}

}  // namespace

TEST(Angles, CorrectAlfaThetaExamples) {
  float a[2] = {4.0f, 0.5f};
  correct_alfa_theta(a);
  EXPECT_NEAR(a[0], 2 * M_PI - 4.0, 1e-6);
  EXPECT_NEAR(a[1], 0.5 - M_PI, 1e-6);

  float b[2] = {-0.2f, -3.0f};
  correct_alfa_theta(b);
  EXPECT_NEAR(b[0], 0.2, 1e-6);
  EXPECT_NEAR(b[1], M_PI - 3.0, 1e-6);

  float c[2] = {1.0f, 2.0f};  // in range: unchanged
  correct_alfa_theta(c);
  EXPECT_EQ(c[0], 1.0f);
  EXPECT_EQ(c[1], 2.0f);

  float e[2] = {1.0f, 4.0f};
  correct_alfa_theta(e);
  EXPECT_NEAR(e[1], 4.0 - 2 * M_PI, 1e-6);

  // Only one step each way: more than a turn out stays out of range.
  float g[2] = {1.0f, 10.0f};
  correct_alfa_theta(g);
  EXPECT_NEAR(g[1], 10.0 - 2 * M_PI, 1e-5);
  EXPECT_GT(g[1], M_PI);
}

TEST(Angles, CorrectionKeepsTheDirectionAndReachesTheRanges) {
  std::mt19937 rng(12345);
  std::uniform_real_distribution<double> th(-M_PI + 1e-3, 2 * M_PI - 1e-3), al(-M_PI, M_PI);
  for (int k = 0; k < 2000; k++) {
    float a[2] = {(float)th(rng), (float)al(rng)};
    double before[3], after[3];
    direction(a[0], a[1], before);
    correct_alfa_theta(a);
    direction(a[0], a[1], after);
    for (int j = 0; j < 3; j++) EXPECT_NEAR(after[j], before[j], 2e-6);
    EXPECT_GE(a[0], 0.0f);
    EXPECT_LE(a[0], (float)M_PI);
    EXPECT_GE(a[1], -(float)M_PI);
    EXPECT_LE(a[1], (float)M_PI);
  }
}

TEST(Angles, TransAlfaThetaMirrorsTheDirection) {
  std::mt19937 rng(777);
  std::uniform_real_distribution<double> th(0, M_PI), al(-M_PI, M_PI);
  for (int k = 0; k < 1000; k++) {
    for (int axis = 0; axis <= 3; axis++) {
      float theta = (float)th(rng), alfa = (float)al(rng);
      double u[3], v[3];
      direction(theta, alfa, u);
      if (axis < 3) u[axis] = -u[axis];
      trans_alfa_theta(&alfa, &theta, axis);
      direction(theta, alfa, v);
      for (int j = 0; j < 3; j++) EXPECT_NEAR(v[j], u[j], 2e-6) << "axis " << axis;
      EXPECT_GE(alfa, -(float)M_PI - 1e-6f);
      EXPECT_LE(alfa, (float)M_PI + 1e-6f);
    }
  }
  float alfa = -1.5f, theta = 1.0f;
  trans_alfa_theta(&alfa, &theta, 0);  // pi + 1.5 exceeds pi: one turn back
  EXPECT_NEAR(alfa, 1.5 - M_PI, 1e-6);
  trans_alfa_theta(&alfa, &theta, 1);
  EXPECT_NEAR(alfa, M_PI - 1.5, 1e-6);
  trans_alfa_theta(&alfa, &theta, 2);
  EXPECT_NEAR(theta, M_PI - 1.0, 1e-6);
  trans_alfa_theta(&alfa, &theta, 7);
  EXPECT_NEAR(theta, M_PI - 1.0, 1e-6);
  EXPECT_NEAR(alfa, M_PI - 1.5, 1e-6);
}
