// Bad input through the whole program: one case for every reader and every
// file it writes.  The failure goes to the right stream, the run ends with
// the right status (never a crash or a hang) and, where a file is simply
// refused, the same question is asked again.  A job that cannot write its
// results ends with status 1 and leaves no temporary file behind.
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
  enum Stream { OUT, ERR, NONE };
  // Answers of the one-sphere model (42 vertices) up to the electrode
  // question, where "\n" takes all vertices; an empty file name quits.
  const std::string GEO = "sphere.tri\n1\n\n", TO_DATA = GEO + "\nsrc.pos\n";
  std::vector<float> nan_data = ramp(84), spike(84, 0.0f);
  nan_data[33] = NAN;
  spike[5] = 3e38f;  // finite after the average reference; its square is not
  TempDir meshes;
  write_trimesh(meshes.file("inner.tri"), icosphere(1, 0.5), false);
  const std::string inner = read_file(meshes.file("inner.tri"));
  const struct {
    std::string name, contents;  // a file written beside the model
    std::vector<std::string> args;
    std::string input;
    int status;
    Stream stream;        // where the message goes (and not to the other)
    std::string message;
    std::string again;  // a question that must be asked (at least) twice
    std::string never = "";  // a text that must not appear on standard output
  } cases[] = {
      {"bad.tri", "2\n0 0 0\n", {}, "bad.tri\n" + GEO + "\n\n", 0, ERR, "\nError reading file bad.tri\a\a\n\n",
       "\nFilename of interface 1: "},
      {"bad.el", "4\n1 1\n2 2\n", {}, GEO + "bad.el\n\n\n", 0, NONE, "", "\nElectrode file: "},
      {"bad.el", "2\n1 1\n2 43\n", {}, GEO + "bad.el\n", 1, ERR,
       fatal("Electrode file refers to non-existent vertices"), ""},
      {"bad.pos", "3\n1 0 0 0.3\n", {}, GEO + "\nbad.pos\n\n", 0, OUT, "\nError reading file bad.pos\a\a\n\n",
       "\nSource position file: "},
      {"bad.mat", matrix_bytes(42, 2, nan_data), {}, TO_DATA + "bad.mat\n\n\n", 0, ERR,
       "bad.mat contains values that are not numbers\n\n\a\a", "\nMeasured potential data: "},
      {"bad.mat", matrix_bytes(42, 0, {}), {}, TO_DATA + "bad.mat\n\n\n", 0, ERR, "bad.mat holds no samples\n\n\a\a",
       "\nMeasured potential data: "},
      {"bad.mat", matrix_bytes(41, 2, ramp(82)), {}, TO_DATA + "bad.mat\n\n\n", 0, OUT,
       "bad.mat does not fit to electrode file\nnumber of electrodes: 42\n", "\nMeasured potential data: "},
      {"bad.ama", Bytes().i(9).i(0).i(1).s, {"bad.ama"}, "", 1, ERR,
       "bad.ama is either not an inverted A matrix, or one of an old version.\n", ""},
      // Data that overflow or hold nothing to fit end the job, never with a
      // "perfect fit"; so does a compartment that does not conduct.
      {"big.mat", matrix_bytes(42, 2, std::vector<float>(84, 3e38f)), {}, TO_DATA + "big.mat\nf\nsol\n", 1, ERR,
       fatal("The average reference of the data is not finite: a value overflowed single precision, or was 0/0"), ""},
      {"big.mat", matrix_bytes(42, 2, spike), {}, TO_DATA + "big.mat\nf\nsol\n", 1, ERR,
       fatal("The relative difference is not finite: a value overflowed single precision, or was 0/0"), ""},
      {"zero.mat", matrix_bytes(42, 2, std::vector<float>(84, 2.5f)), {}, TO_DATA + "zero.mat\ns\nsol\n", 1, ERR,
       fatal("The measured data are zero everywhere after the average reference"), ""},
      {"", "", {}, "sphere.tri\n0\n", 1, ERR, "\nConductivity cannot be zero!\n", ""},
      {"inner.tri", inner, {}, "sphere.tri\n1\ninner.tri\n1e30\n\n\nsrc.pos\n\nout.mat\n", 1, ERR,
       fatal("The transfer matrix is not finite: a value overflowed single precision, or was 0/0"), ""},
      // Files that cannot be written end the job with status 1 and the
      // system's reason; the -i job learns it before its long work.  "full"
      // is a link to /dev/full, a device that is always full.
      {"", "", {}, TO_DATA + "\nnodir/out.mat\n", 1, ERR,
       "\n Cannot create nodir/out.mat: No such file or directory\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "\nfull\n", 1, ERR, "\n Error writing to full: No space left on device\n\n\a\a", ""},
      {"", "", {"-i", "nodir/a.ama"}, GEO + "\n", 1, OUT, "\nerror opening nodir/a.ama: No such file or directory\n\n\a\a", "",
       "Estimated condition"},
      {"", "", {"-i", "full"}, GEO + "\n", 1, OUT, "\nerror writing to full: No space left on device\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\nf\nnodir/sol\n\n", 1, ERR,
       "\n Cannot create nodir/sol: No such file or directory\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\nf\nfull\n\n", 1, ERR,
       "\n Error writing to full: No space left on device\n\n\a\a", "", "saved in file"},
      {"", "", {}, TO_DATA + "data.mat\nf\nsol\nfull\n", 1, ERR,
       "\n Error writing to full: No space left on device\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\ns\nsol\n\nnodir/p\n", 1, ERR,
       "\n Error opening file nodir/p: No such file or directory\n\n\a\a", ""},
      {"", "", {}, TO_DATA + "data.mat\ns\nsol\n\nfull\n", 1, ERR,
       "\n Error writing to full: No space left on device\n\n\a\a", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.input + c.message);
    TempDir dir;
    write_trimesh(dir.file("sphere.tri"), icosphere(1, 1.0), false);
    write_file(dir.file("src.pos"), "1\n1 0 0 0.3\n");
    write_file(dir.file("data.mat"), matrix_bytes(42, 2, ramp(84), "sample freq\n100\n"));
    if (!c.name.empty()) write_file(dir.file(c.name), c.contents);
    std::filesystem::create_symlink("/dev/full", dir.file("full"));
    const ProcResult r = run_process(BRELIX_EXE, c.args, c.input, dir.path(), 60);
    EXPECT_EQ(r.status, c.status) << "stdout:\n" << r.out << "\nstderr:\n" << r.err;
    EXPECT_TRUE(r.err.find("Sanitizer") == std::string::npos && r.err.find("runtime error") == std::string::npos)
        << r.err;  // a sanitizer's exit status may be 1 too
    if (c.stream == NONE) {
      EXPECT_EQ(r.err, "");
    } else {
      const std::string &here = c.stream == OUT ? r.out : r.err, &there = c.stream == OUT ? r.err : r.out;
      EXPECT_NE(here.find(c.message), std::string::npos) << "--- stdout:\n" << r.out << "\n--- stderr:\n" << r.err;
      EXPECT_EQ(there.find(c.message), std::string::npos) << "the message went to the other stream as well";
    }
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
