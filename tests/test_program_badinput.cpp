// Bad input through the whole program, for the readers the jobs themselves
// drive (the model's own readers have their dialogue tests) and every file
// a job writes.  The failure goes to the right stream, the run ends with the
// right status (never a crash or a hang) and, where a file is simply
// refused, the same question is asked again.  No temporary file is left.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/program.h"
#include "tools/icosphere.h"

namespace {

std::string fatal(const std::string &message) { return "\n\n Fatal error in brelix: " + message + "\n\n\a"; }

std::vector<float> ramp(int n) {
  std::vector<float> v(n);
  for (int k = 0; k < n; k++) v[k] = (float)(k % 7) - 3;
  return v;
}

TEST(BadInput, EveryReaderAndWriterEndsCleanlyWithItsMessage) {
  enum Stream { OUT, ERR };
  // Answers of the one-sphere model (42 vertices) up to the electrode
  // question, where "\n" takes all vertices; an empty file name quits.
  const std::string GEO = "sphere.tri\n1\n\n", TO_DATA = GEO + "\nsrc.pos\n", DATA = "\nMeasured potential data: ";
  const std::string BAD = TO_DATA + "bad.mat\n\n\n";
  const std::string FULL = "\n Error writing to full: No space left on device\n\n\a\a";
  std::vector<float> nans = ramp(84), spike(84, 0.0f);
  nans[33] = NAN;
  spike[5] = 3e38f;  // finite after the average reference; its square is not
  const struct {
    std::string name, contents;  // a file written beside the model
    std::vector<std::string> args;
    std::string input;
    int status;
    Stream stream;  // where the message goes (and not to the other)
    std::string message, again;  // again: a question that must be asked (at least) twice
    std::string never = "";  // a text that must not appear on standard output
  } cases[] = {
      {"bad.pos", "3\n1 0 0 0.3\n", {}, GEO + "\nbad.pos\n\n", 0, OUT, "\nError reading file bad.pos\a\a\n\n",
       "\nSource position file: "},
      {"bad.mat", matrix_bytes(42, 2, nans), {}, BAD, 0, ERR, "bad.mat contains values that are not numbers\n\n\a\a",
       DATA},
      {"bad.mat", matrix_bytes(42, 0, {}), {}, BAD, 0, ERR, "bad.mat holds no samples\n\n\a\a", DATA},
      {"bad.mat", matrix_bytes(41, 2, ramp(82)), {}, BAD, 0, OUT,
       "bad.mat does not fit to electrode file\nnumber of electrodes: 42\n", DATA},
      // Data that overflow or hold nothing to fit end the job, never with a
      // "perfect fit"; so does a compartment that does not conduct.
      {"big.mat", matrix_bytes(42, 2, std::vector<float>(84, 3e38f)), {}, TO_DATA + "big.mat\nf\nsol\n", 1, ERR,
       fatal("The average reference of the data is not finite: a value overflowed single precision, or was 0/0"), ""},
      {"big.mat", matrix_bytes(42, 2, spike), {}, TO_DATA + "big.mat\nf\nsol\n", 1, ERR,
       fatal("The relative difference is not finite: a value overflowed single precision, or was 0/0"), ""},
      {"zero.mat", matrix_bytes(42, 2, std::vector<float>(84, 2.5f)), {}, TO_DATA + "zero.mat\ns\nsol\n", 1, ERR,
       fatal("The measured data are zero everywhere after the average reference"), ""},
      {"", "", {}, "sphere.tri\n0\n", 1, ERR, "\nConductivity cannot be zero!\n", ""},
      {"", "", {}, "sphere.tri\n1\ninner.tri\n1e30\n\n\nsrc.pos\n\nout.mat\n", 1, ERR,
       fatal("The transfer matrix is not finite: a value overflowed single precision, or was 0/0"), ""},
      // Files that cannot be written end the job with status 1 and the
      // system's reason; the -i job learns it before its long work.  "full"
      // is a link to /dev/full, a device that is always full.
      {"", "", {}, TO_DATA + "\nnodir/out.mat\n", 1, ERR,
       "\n Cannot create nodir/out.mat: No such file or directory\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "\nfull\n", 1, ERR, FULL, ""},
      {"", "", {"-i", "nodir/a.ama"}, GEO + "\n", 1, OUT,
       "\nerror opening nodir/a.ama: No such file or directory\n\n\a\a", "", "Estimated condition"},
      {"", "", {"-i", "full"}, GEO + "\n", 1, OUT, "\nerror writing to full: No space left on device\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\nf\nfull\n\n", 1, ERR, FULL, "", "saved in file"},
      {"", "", {}, TO_DATA + "data.mat\nf\nsol\nfull\n", 1, ERR, FULL, ""},
      {"", "", {}, TO_DATA + "data.mat\ns\nsol\n\nnodir/p\n", 1, ERR,
       "\n Error opening file nodir/p: No such file or directory\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\ns\nsol\n\nfull\n", 1, ERR, FULL, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.input + c.message);
    TempDir dir;
    write_trimesh(dir.file("sphere.tri"), icosphere(1, 1.0), false);
    write_trimesh(dir.file("inner.tri"), icosphere(1, 0.5), false);
    write_file(dir.file("src.pos"), "1\n1 0 0 0.3\n");
    write_file(dir.file("data.mat"), matrix_bytes(42, 2, ramp(84), "sample freq\n100\n"));
    if (!c.name.empty()) write_file(dir.file(c.name), c.contents);
    std::filesystem::create_symlink("/dev/full", dir.file("full"));
    const ProcResult r = run_process(BRELIX_EXE, c.args, c.input, dir.path(), 60);
    EXPECT_EQ(r.status, c.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
    EXPECT_TRUE(r.err.find("Sanitizer") == std::string::npos && r.err.find("runtime error") == std::string::npos)
        << r.err;  // a sanitizer's exit status may be 1 too
    const std::string &here = c.stream == OUT ? r.out : r.err, &there = c.stream == OUT ? r.err : r.out;
    EXPECT_NE(here.find(c.message), std::string::npos) << "--- stdout:\n" << r.out << "\n--- stderr:\n" << r.err;
    EXPECT_EQ(there.find(c.message), std::string::npos) << "the message went to the other stream as well";
    // Whatever failed, no temporary file is left behind.
    for (const auto &entry : std::filesystem::directory_iterator(dir.path()))
      EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
    EXPECT_TRUE(c.never.empty() || r.out.find(c.never) == std::string::npos) << r.out;
    const size_t first = r.out.find(c.again);
    EXPECT_TRUE(c.again.empty() || (first != std::string::npos && r.out.find(c.again, first + 1) != std::string::npos))
        << "not asked again:\n" << r.out;
  }
}

}  // namespace
