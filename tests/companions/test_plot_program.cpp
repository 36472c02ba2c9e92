// brelix-plot as a user runs it: every command writes each picture format,
// and bad input ends with a message and status 2 and leaves nothing behind.
#include <expat.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <set>

#include "tests/support/files.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/process.h"

namespace {

// A small head (three spheres), electrodes on its scalp's vertices, data of
// two samples, a fit and its standard deviations.
struct Scene {
  TempDir dir;
  Scene() {
    write_sphere(dir, "scalp.tri", 2, 1.0);
    write_sphere(dir, "skull.tri", 2, 0.92);
    write_sphere(dir, "brain.tri", 2, 0.88);
    write_file(dir.file("geometry.ans"), "scalp.tri\n1\nskull.tri\n0.0125\nbrain.tri\n1\n\n");
    std::string elc = "20\n";
    for (int e = 1; e <= 20; e++) elc += std::to_string(e) + " " + std::to_string(e) + "\n";
    write_file(dir.file("e.elc"), elc);
    std::vector<float> v;
    for (int e = 0; e < 20; e++) v.insert(v.end(), {(float)std::sin(e), (float)std::cos(e)});
    matrix("d.mat", 20, 2, v);
    matrix("scalp.mat", 162, 1, std::vector<float>(162, 0.5f));
    matrix("fit.mat", 3, 2, {0.1f, 0.2f, 0.0f, 0.1f, 1.0f, 0.5f});
    write_file(dir.file("fit.pos"), "1\n1 0.2 0.3 0.5\n1 position stationary\n");
    write_file(dir.file("fit.pos.sd"), "1\n1 0.01 0.02 0.01\n");
    write_file(dir.file("truth.pos"), "1\n1 0.25 0.3 0.45\n");
    std::filesystem::create_directory(dir.file("out"));
  }
  void matrix(const std::string &name, int rows, int cols, const std::vector<float> &v) {
    write_file(dir.file(name), matrix_bytes(rows, cols, v, "sample frequency\n500 Hz\n"));
  }
  ProcResult run(std::vector<std::string> args) { return run_process(BRELIX_PLOT_EXE, args, "", dir.path(), 60); }
  std::set<std::string> outputs() {
    std::set<std::string> names;
    for (auto &e : std::filesystem::directory_iterator(dir.file("out"))) names.insert(e.path().filename().string());
    return names;
  }
};

std::vector<std::string> command(const std::string &which, const std::string &out) {
  if (which == "topomap")
    return {"topomap", "--electrodes", "e.elc",   "--data",   "d.mat", "--model", "d.mat", "--dipoles",
            "fit.pos", "--moments",    "fit.mat", "--sample", "2",     "-o",      out};
  if (which == "dipoles") return {"dipoles", "--head", ".", "--fit", "fit.pos", "--truth", "truth.pos", "-o", out};
  if (which == "timecourse") return {"timecourse", "--fit", "fit.mat", "--sources", "fit.pos", "-o", out};
  return {"head", "--head", ".", "--electrodes", "e.elc", "--potentials", "scalp.mat", "--view", "left", "-o", out};
}

bool well_formed(const std::string &xml) {
  XML_Parser p = XML_ParserCreate(nullptr);
  const bool ok = XML_Parse(p, xml.data(), (int)xml.size(), XML_TRUE) == XML_STATUS_OK;
  XML_ParserFree(p);
  return ok;
}

TEST(PlotProgram, EveryCommandWritesEachFormat) {
  Scene s;
  for (const char *which : {"topomap", "dipoles", "timecourse", "head"})
    for (const char *suffix : {".png", ".svg", ".pdf"}) {
      std::string out = std::string("out/") + which + suffix;
      ProcResult r = s.run(command(which, out));
      ASSERT_EQ(r.status, 0) << which << suffix << ": " << r.err;
      const std::string body = read_file(s.dir.file(out));
      if (suffix == std::string(".png"))
        EXPECT_EQ(body.substr(0, 8), "\x89PNG\r\n\x1a\n") << out;
      else if (suffix == std::string(".svg"))
        EXPECT_TRUE(well_formed(body)) << out;
      else {
        EXPECT_EQ(body.substr(0, 5), "%PDF-") << out;
        // No clock in the file: the same input gives the same bytes.
        EXPECT_EQ(body.find("/CreationDate"), std::string::npos) << out;
        EXPECT_EQ(body.substr(body.find_last_not_of("\r\n") - 4, 5), "%%EOF") << out;
      }
    }
  EXPECT_EQ(s.outputs().size(), 12u);
}

TEST(PlotProgram, BadInputIsRefusedWithStatusTwoAndNoPicture) {
  Scene s;
  s.matrix("d19.mat", 19, 2, std::vector<float>(38, 1.0f));
  std::filesystem::create_directory(s.dir.file("empty"));
  write_file(s.dir.file("empty/geometry.ans"), "\n");
  const struct { std::vector<std::string> args; std::string message; } cases[] = {
      {{"topomap", "--electrodes", "e.elc", "--data", "d19.mat", "-o", "out/x.png"},
       "d19.mat: has 19 rows, but e.elc has 20 electrodes"},
      {{"topomap", "--electrodes", "e.elc", "--data", "d.mat", "--sample", "3", "-o", "out/x.png"},
       "d.mat: sample 3: past the end: the file has 2 samples"},
      {{"topomap", "--electrodes", "e.elc", "--data", "d.mat", "--time", "0.004", "-o", "out/x.png"},
       "d.mat: time 0.004: outside the recording"},
      {{"dipoles", "--head", "empty", "--fit", "fit.pos", "-o", "out/x.png"}, "empty/geometry.ans"},
      {{"head", "--head", ".", "--potentials", "d.mat", "-o", "out/x.png"},
       "d.mat: has 20 rows, but the scalp has 162"},
      {{"timecourse", "--fit", "d.mat", "--sources", "fit.pos", "-o", "out/x.png"}, "d.mat: has 20 rows, but the 1"},
      {{"dipoles", "--head", ".", "--fit", "fit.pos", "-o", "missing/x.png"}, "missing/x.png"},
      {{"head", "--head", ".", "-o", "out/x.jpg"}, "must end in .png, .svg or .pdf"},
  };
  for (const auto &c : cases) {
    ProcResult r = s.run(c.args);
    EXPECT_EQ(r.status, 2) << c.message << "\n" << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_TRUE(s.outputs().empty()) << c.message;
  }
}

}  // namespace
