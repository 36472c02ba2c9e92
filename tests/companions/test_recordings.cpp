// brelix-prep data, driven as a user runs it, on recordings the test writes;
// brelix-prep convert (and array inputs of brelix-prep data): matrix files to
// CSV, TSV, NumPy and MATLAB and back, NumPy arrays of every kind, refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <regex>

#include "matrixio/readtail.h"
#include "placement/electrode_file.h"
#include "recordings/selection.h"
#include "tests/companions/test_recordings_fixtures.h"
#include "tests/support/h3_bytes.h"
#include "tests/support/head_fit.h"
#include "tests/support/process.h"
#include "tests/support/program.h"

namespace {

constexpr double RATE = 20;   // Hz
constexpr int RECORDS = 3;    // of one second each
constexpr int SAMPLES = 60;
const std::vector<std::string> FILE_LABELS = {"Fp1", "EEG T3", "Cz", "EOG"};
// The electrode file's order differs from the recording's, and names T3 by
// its new name T7.
const char *ELECTRODES = "3\n1 0.1 0.1 !Cz\n2 0.2 0.2 !T7\n3 0.3 0.3 !Fp1\n";
const int CHANNEL_OF_ROW[3] = {2, 1, 0};

// Digital sample i of channel c: every value different, both signs.
long digital(int c, int i, long scale) { return (((i * 37 + c * 101) % 400) - 200) * scale; }

enum Format { EDF_PLUS, BDF, BV_INT16, BV_FLOAT32 };
const char *const FORMAT_NAME[] = {"EDF+", "BDF 24-bit", "BrainVision int16", "BrainVision float32"};

// BrainVision: channel c has resolution (c + 1) * 0.1 uV per unit; float32
// values carry a fraction 0.25.
double bv_units(int c, int i, bool float32) { return digital(c, i, 1) + (float32 ? 0.25 : 0); }

// Sample i of channel c in volts; EDF/BDF map digital +-2000*scale to +-200 uV.
double volts(Format f, int c, int i) {
  return f <= BDF ? digital(c, i, 1) * 0.1e-6 : bv_units(c, i, f == BV_FLOAT32) * (c + 1) * 0.1e-6;
}

// The recording in format f with the given markers (none in BDF).
std::string write_recording(const TempDir &dir, Format f, const std::vector<fixtures::Annotation> &markers) {
  if (f <= BDF) {
    long scale = f == BDF ? 1000 : 1;
    std::vector<fixtures::Channel> channels;
    for (int c = 0; c < 4; c++) {
      channels.push_back({FILE_LABELS[c], "uV", -200, 200, -2000 * scale, 2000 * scale, {}});
      for (int i = 0; i < SAMPLES; i++) channels[c].digital.push_back(digital(c, i, scale));
    }
    std::string path = dir.file(f == BDF ? "rec.bdf" : "rec.edf");
    write_file(path, fixtures::edf_bytes(channels, RECORDS, 1.0, f == BDF ? 3 : 2,
                                         f == BDF ? std::vector<fixtures::Annotation>{} : markers));
    return path;
  }
  bool float32 = f == BV_FLOAT32;
  std::vector<std::vector<double>> values(4);
  std::vector<double> res;
  for (int c = 0; c < 4; c++) {
    res.push_back((c + 1) * 0.1);
    for (int i = 0; i < SAMPLES; i++) values[c].push_back(bv_units(c, i, float32));
  }
  std::vector<std::pair<std::string, long>> positions;  // one-based samples
  for (const auto &m : markers) positions.push_back({m.text, std::lround(m.onset * RATE) + 1});
  return fixtures::write_brainvision(dir, float32 ? "bvf" : "bvi", FILE_LABELS, res, values, float32, 1e6 / RATE,
                                     positions);
}

ProcResult run_data(const TempDir &dir, const std::string &recording, std::vector<std::string> extra) {
  if (!file_exists(dir.file("head.elc"))) write_file(dir.file("head.elc"), ELECTRODES);
  std::vector<std::string> args = {"data", recording, "--electrodes", dir.file("head.elc"), "-o", dir.file("out.mat")};
  args.insert(args.end(), extra.begin(), extra.end());
  return run_process(BRELIX_PREP_EXE, args, "");
}

// The output as brelix's own reader sees it, with the sample frequency item.
MatrixFile read_output(const TempDir &dir, float *rate = nullptr) {
  MatrixFile m;
  EXPECT_TRUE(read_matrix_file(dir.file("out.mat"), m));
  if (rate) {
    *rate = -1;
    tail_float((int)m.tail.size(), m.tail.data(), "sample freq", rate);
  }
  return m;
}

TEST(RecordingsData, EveryFormatGivesTheScaledSamplesInElectrodeOrder) {
  for (Format f : {EDF_PLUS, BDF, BV_INT16, BV_FLOAT32}) {
    SCOPED_TRACE(FORMAT_NAME[f]);
    TempDir dir;
    ProcResult r = run_data(dir, write_recording(dir, f, {{0.5, "stim"}}), {});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("dropped: EOG"), std::string::npos) << r.err;
    float rate;
    MatrixFile m = read_output(dir, &rate);
    EXPECT_EQ(rate, (float)RATE);
    ASSERT_EQ(m.rows, 3);
    ASSERT_EQ(m.cols, SAMPLES);
    for (int e = 0; e < 3; e++)
      for (int i = 0; i < SAMPLES; i++)
        ASSERT_FLOAT_EQ(m.at(e + 1, i + 1), (float)volts(f, CHANNEL_OF_ROW[e], i)) << "row " << e << " sample " << i;
  }
}

TEST(RecordingsData, EpochAverageMatchesAHandComputation) {
  // Markers at samples 10 and 30 (0.5 s and 1.5 s); a marker of another text
  // at 2 s must not count.  Epoch -0.1..0.2 s is samples -2..4 around each,
  // baseline -0.1..0 s the first three of them.
  struct Case {
    Format f;
    std::string marker, other;
  };
  for (const Case &k : {Case{EDF_PLUS, "stim", "other"}, Case{BV_INT16, "S  1", "S 11"}}) {
    SCOPED_TRACE(FORMAT_NAME[k.f]);
    TempDir dir;
    std::string rec = write_recording(dir, k.f, {{0.5, k.marker}, {1.5, k.marker}, {2.0, k.other}});
    ProcResult r = run_data(dir, rec, {"--average", k.marker, "--epoch", "-0.1:0.2", "--baseline", "-0.1:0", "--unit", "uV"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("averaged 2 epochs around marker '" + k.marker + "'"), std::string::npos) << r.err;
    MatrixFile m = read_output(dir);
    ASSERT_EQ(m.rows, 3);
    ASSERT_EQ(m.cols, 7);
    for (int e = 0; e < 3; e++) {
      int c = CHANNEL_OF_ROW[e];
      double avg[7], base = 0;
      for (int k2 = 0; k2 < 7; k2++) avg[k2] = (volts(k.f, c, 8 + k2) + volts(k.f, c, 28 + k2)) / 2 * 1e6;
      for (int k2 = 0; k2 < 3; k2++) base += avg[k2] / 3;
      for (int k2 = 0; k2 < 7; k2++) EXPECT_NEAR(m.at(e + 1, k2 + 1), avg[k2] - base, 1e-4) << e << " " << k2;
    }
  }
}

TEST(RecordingsData, WindowsExclusionAndTables) {
  TempDir dir;
  std::string edf = write_recording(dir, EDF_PLUS, {{0.5, "stim"}});
  // --tmin/--tmax keep both ends; --samples counts from 1.
  struct Window {
    std::vector<std::string> args;
    int first, count;
  };
  const Window windows[] = {{{"--tmin", "0.5", "--tmax", "1"}, 10, 11}, {{"--samples", "3:7"}, 2, 5}};
  for (const auto &w : windows) {
    ProcResult r = run_data(dir, edf, w.args);
    ASSERT_EQ(r.status, 0) << r.err;
    MatrixFile m = read_output(dir);
    ASSERT_EQ(m.cols, w.count);
    EXPECT_FLOAT_EQ(m.at(1, 1), (float)volts(EDF_PLUS, 2, w.first));
    EXPECT_FLOAT_EQ(m.at(3, w.count), (float)volts(EDF_PLUS, 0, w.first + w.count - 1));
  }

  // Excluding T3 (the file's name for T7) leaves Cz and Fp1, in both outputs.
  ProcResult r = run_data(dir, edf, {"--exclude", "T3", "--electrodes-out", dir.file("kept.elc")});
  ASSERT_EQ(r.status, 0) << r.err;
  MatrixFile m = read_output(dir);
  ASSERT_EQ(m.rows, 2);
  EXPECT_FLOAT_EQ(m.at(2, 5), (float)volts(EDF_PLUS, 0, 4));
  auto kept = read_electrode_file(dir.file("kept.elc"));
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].label, "Cz");
  EXPECT_EQ(kept[1].label, "Fp1");
  EXPECT_EQ(kept[1].index, 2);

  // A table with a time column in milliseconds gives the sample frequency;
  // its numbers are taken in the unit --input-unit names.
  write_file(dir.file("t.csv"), "time_ms,cz,fp1,t7\n0,1.5,2,3\n2,4,5,6.25\n4,7,8,9\n");
  r = run_data(dir, dir.file("t.csv"), {"--input-unit", "uV", "--unit", "uV"});
  ASSERT_EQ(r.status, 0) << r.err;
  float rate;
  m = read_output(dir, &rate);
  EXPECT_EQ(rate, 500.0f);
  ASSERT_EQ(m.cols, 3);
  EXPECT_EQ(std::vector<float>(m.values.begin(), m.values.begin() + 6), (std::vector<float>{1.5, 4, 7, 3, 6.25, 9}));
}

TEST(RecordingsData, MarkersMatchByTextOrByGdfCode) {
  const Marker gdf{"", 0, 0x300}, annotation{"stim", 0, -1}, numbered{"1", 0, -1};
  struct Case {
    const Marker *m;
    const char *wanted;
    bool match;
  };
  const Case cases[] = {{&gdf, "768", true},        {&gdf, "0x300", true},       {&gdf, "0x301", false},
                        {&gdf, "", false},          {&annotation, "stim", true}, {&annotation, "Stim", false},
                        {&annotation, "0", false},  {&numbered, "1", true},      {&numbered, "01", false}};
  for (const auto &k : cases) EXPECT_EQ(marker_matches(*k.m, k.wanted), k.match) << k.m->text << " / " << k.wanted;
}

TEST(RecordingsData, BadInputIsRefusedAndWritesNothing) {
  TempDir dir;
  std::string edf = write_recording(dir, EDF_PLUS, {{0.5, "stim"}, {2.5, "stim"}});
  std::string whole = read_file(edf);
  write_file(dir.file("header_cut.edf"), whole.substr(0, 600));
  write_file(dir.file("data_cut.edf"), whole.substr(0, whole.size() - 300));
  // Headers and files that BioSig itself would crash on.
  write_file(dir.file("date.edf"), std::string(whole).replace(88, 17, "Startdate 2      "));
  std::string gdf = "GDF 2.20" + std::string(760, '\0');  // 3 header blocks, 1 signal, a tag 1 of 1000 bytes
  gdf[184] = 3, gdf[252] = 1, gdf[512] = 1, gdf[513] = (char)0xe8, gdf[514] = 3;
  write_file(dir.file("tag.gdf"), gdf);
  std::string bv = write_recording(dir, BV_INT16, {});
  std::remove(dir.file("bvi.eeg").c_str());
  write_file(dir.file("o1.elc"), "2\n1 0.1 0.1 !Cz\n2 0.1 0.1 !O1\n");
  write_file(dir.file("twice.elc"), "2\n1 0.1 0.1 !T3\n2 0.1 0.1 !t7\n");
  struct Case {
    std::string recording;
    std::vector<std::string> extra;
    std::string message;
  };
  const Case cases[] = {
      {dir.file("none.edf"), {}, "none.edf: cannot open"},
      {dir.file("header_cut.edf"), {}, "header_cut.edf: header: cut short"},
      {dir.file("date.edf"), {}, "date.edf: header: the start date '2' of the recording field is neither dd-MMM-yyyy nor X"},
      {bv, {}, "bvi.vhdr: its data file cannot be opened"},
      {dir.file("tag.gdf"), {}, "tag.gdf: header: tag 1 at byte 512 runs past the header"},
      {dir.file("data_cut.edf"), {}, "data_cut.edf: data: cut short"},
      {edf, {"--electrodes", dir.file("o1.elc")}, "has no channel for electrode O1"},
      {edf, {"--electrodes", dir.file("twice.elc")}, "electrodes T3 and t7 name the same place"},
      {edf, {"--average", "stim", "--epoch", "-0.1:0.6"}, "marker 'stim' at 2.5 s: its epoch -0.1 s to 0.6 s reaches past the end"},
      {edf, {"--average", "S  1", "--epoch", "-0.1:0.1"}, "has no marker 'S  1' (its markers: 'stim')"},
      {edf, {"--samples", "50:61"}, "samples 50 to 61 reaches past the recording, which holds samples 1 to 60"},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.message);
    ProcResult r = run_data(dir, k.recording, k.extra);
    EXPECT_EQ(r.status, 2);
    // The refusal is the last line (BioSig may have warned before it).
    size_t last = r.err.rfind('\n', r.err.size() - 2) + 1;
    EXPECT_EQ(r.err.compare(last, 18, "brelix-prep data: "), 0) << r.err;
    EXPECT_NE(r.err.find(k.message, last), std::string::npos) << r.err;
    EXPECT_FALSE(file_exists(dir.file("out.mat")));
  }
}

// A tool built next to brelix.
std::string tool(const char *name) { return (std::filesystem::path(BRELIX_EXE).parent_path() / name).string(); }

// The demo's recording tool: its EDF+ file, averaged by the data command,
// gives back the transfer matrix times the moments' time course.
TEST(RecordingsData, SimulatedRecordingAveragesBackToItsSources) {
  TempDir dir;
  write_file(dir.file("T.txt"), "3 2\n1e-6 0\n0 2e-6\n-1e-6 -2e-6\n");
  write_file(dir.file("head.elc"), "3\n1 0.1 0.1 !Fz\n2 0.2 0.2 !Cz\n3 0.3 0.3 !Pz\n");
  auto simulate = [&](const std::string &out, const std::string &noise, const std::string &seed) {
    return run_process(tool("simulate_recording"), {dir.file("T.txt"), dir.file("head.elc"), dir.file(out), "--moments", "10,-5", "--sfreq",
                              "100", "--epochs", "3", "--frequency", "10,5", "--noise", noise, "--seed", seed, "--marker",
                              "S 7"},
                       "");
  };
  ASSERT_EQ(simulate("clean.edf", "0", "1").status, 0);
  ProcResult r = run_data(dir, dir.file("clean.edf"), {"--average", "S 7", "--epoch", "0:0.5"});
  ASSERT_EQ(r.status, 0) << r.err;
  MatrixFile m = read_output(dir);
  ASSERT_EQ(m.cols, 51);
  const double T[3][2] = {{1e-6, 0}, {0, 2e-6}, {-1e-6, -2e-6}}, M[2] = {10, -5}, f[2] = {10, 5};
  for (int i = 0; i < 51; i++) {
    double t = i / 100.0 - 0.05, course[2];
    for (int c = 0; c < 2; c++) course[c] = t < 0 ? 0 : M[c] * std::sin(2 * M_PI * f[c] * t) * std::exp(-t / 0.05);
    for (int e = 0; e < 3; e++)
      EXPECT_NEAR(m.at(e + 1, i + 1), T[e][0] * course[0] + T[e][1] * course[1], 1e-9) << e << " " << i;
  }
  // The same seed gives the same file; another seed other noise.
  ASSERT_EQ(simulate("a.edf", "1e-7", "5").status, 0);
  ASSERT_EQ(simulate("b.edf", "1e-7", "5").status, 0);
  ASSERT_EQ(simulate("c.edf", "1e-7", "6").status, 0);
  EXPECT_EQ(read_file(dir.file("a.edf")), read_file(dir.file("b.edf")));
  EXPECT_NE(read_file(dir.file("a.edf")), read_file(dir.file("c.edf")));
}

// The whole way from a recording to brelix: a forward run with labelled
// electrodes, a recording simulated from its transfer matrix, averaged by
// the data command, and brelix's stationary fit of that file finds the
// dipole again.
TEST(RecordingsData, BrelixFitsTheAveragedRecording) {
  TempDir dir;
  ASSERT_TRUE(write_trimesh(dir.file("sphere.tri"), icosphere(2, 1.0), false));
  ASSERT_EQ(run_process(tool("electrode_layout"), {dir.file("sphere.tri"), dir.file("head.elc")}, "").status, 0);
  const Vec3 truth = {0.2, -0.1, 0.5};
  write_file(dir.file("true.pos"), headfit::position_file({truth}, ""));
  ASSERT_EQ(run_brelix(dir.path(), {}, "sphere.tri\n1\n\nhead.elc\ntrue.pos\n\ntrue.mat\n").status, 0);
  ProcResult r = run_process(tool("simulate_recording"), {dir.file("true.mat"), dir.file("head.elc"),
                             dir.file("sim.edf"), "--moments", "0.3,-0.2,1", "--epochs", "4", "--sfreq", "200"}, "");
  ASSERT_EQ(r.status, 0) << r.err;
  r = run_data(dir, dir.file("sim.edf"), {"--average", "stim", "--epoch", "0.07:0.08"});
  ASSERT_EQ(r.status, 0) << r.err;

  write_file(dir.file("start.pos"), headfit::position_file({{0.3, 0, 0.4}}, "1 position stationary\n"));
  r = run_brelix(dir.path(), {}, "sphere.tri\n1\n\nhead.elc\nstart.pos\nout.mat\nsol.mat\n\nfit.pos\n");
  ASSERT_EQ(r.status, 0) << r.err;
  // brelix took the sample frequency from the data file's tail.
  MatrixFile sol;
  ASSERT_TRUE(read_matrix_file(dir.file("sol.mat"), sol));
  EXPECT_EQ(sol.tail.substr(0, 24), "sample frequency\n200 Hz\n");
  const std::string num = " *(-?[0-9]+\\.[0-9]{4})";
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m, std::regex("\nfinal position:  \\(" + num + "," + num + "," + num + "\\)\n")))
      << r.out;
  for (int k = 0; k < 3; k++) EXPECT_NEAR(std::stod(m[k + 1]), truth[k], 2e-3);
}

// Element bytes of value x as kind 'f' (float) or 'i' (int) of `size` bytes.
std::string element(double x, char kind, int size, bool big) {
  float f = (float)x;
  int16_t i2 = (int16_t)x;
  int32_t i4 = (int32_t)x;
  const void *p = kind == 'f' ? (size == 4 ? (const void *)&f : &x) : size == 2 ? (const void *)&i2 : &i4;
  std::string s((const char *)p, (size_t)size);
  return big ? std::string(s.rbegin(), s.rend()) : s;
}

// A .npy file: `descr` such as "<f8", shape rows x cols, the raw data bytes.
std::string npy_bytes(const std::string &descr, bool fortran, int rows, int cols, const std::string &data,
                      int major = 1) {
  std::string dict = "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") + ", 'shape': (" +
                     std::to_string(rows) + ", " + std::to_string(cols) + "), }";
  size_t head = major == 1 ? 10 : 12;
  dict.append((64 - (head + dict.size() + 1) % 64) % 64, ' ');
  dict += '\n';
  std::string s = "\x93NUMPY" + std::string(1, (char)major) + std::string(1, '\0');
  std::string len = element((double)dict.size(), 'i', 4, false);
  s += major == 1 ? len.substr(0, 2) : len;
  return s + dict + data;
}

ProcResult prep(const std::vector<std::string> &args) { return run_process(BRELIX_PREP_EXE, args, ""); }

const std::vector<float> VALUES = {1.5f, -2, 0.25f, 1.0f / 3, -1e-7f, 3e30f};  // 2 x 3

TEST(RecordingsConvert, EveryFormatRoundTripsTheValuesAndMatlabTheTail) {
  TempDir dir;
  std::string tail = "sample frequency\n500 Hz\nfit of run 3\n";
  std::string original = matrix_bytes(2, 3, VALUES, tail);
  write_file(dir.file("m.bin"), original);
  for (std::string out : {"m.csv", "m.tsv", "m.npy", "m.mat", "m73.mat"}) {
    SCOPED_TRACE(out);
    std::vector<std::string> there = {"convert", dir.file("m.bin"), dir.file(out)};
    if (out == "m73.mat") there.push_back("--v73");
    ProcResult r = prep(there);
    ASSERT_EQ(r.status, 0) << r.err;
    r = prep({"convert", dir.file(out), dir.file("back.bin")});
    ASSERT_EQ(r.status, 0) << r.err;
    // Only MATLAB files keep the tail.
    EXPECT_EQ(read_file(dir.file("back.bin")), out.ends_with(".mat") ? original : matrix_bytes(2, 3, VALUES, ""));
  }
  // ".mat" is MATLAB's, unless the input is MATLAB's already.
  ASSERT_EQ(prep({"convert", dir.file("m.npy"), dir.file("n.mat")}).status, 0);
  ASSERT_EQ(prep({"convert", dir.file("n.mat"), dir.file("back.mat")}).status, 0);
  EXPECT_EQ(read_file(dir.file("n.mat")).substr(0, 6), "MATLAB");
  EXPECT_EQ(read_file(dir.file("back.mat")), matrix_bytes(2, 3, VALUES, ""));
  // The text and NumPy forms as other programs read them.
  EXPECT_EQ(read_file(dir.file("m.csv")), "1.5,-2,0.25\n0.333333343,-1.00000001e-07,2.99999989e+30\n");
  EXPECT_EQ(read_file(dir.file("m.tsv")).substr(0, 12), "1.5\t-2\t0.25\n");
  std::string npy = read_file(dir.file("m.npy"));
  ASSERT_EQ(npy.size(), 128u + 24);
  EXPECT_EQ(npy.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
  EXPECT_NE(npy.find("'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)"), std::string::npos);
  EXPECT_EQ(npy.substr(128), original.substr(8, 24));
}

TEST(RecordingsConvert, NumpyArraysOfEveryKindAndBothByteOrders) {
  TempDir dir;
  // The 2 x 3 array 1 -2 3 / 40 -50 600 in every element type and layout.
  const double a[2][3] = {{1, -2, 3}, {40, -50, 600}};
  struct Case {
    const char *descr;
    bool fortran;
    int major;
  };
  const Case cases[] = {{"<f4", false, 1}, {">f8", true, 1}, {"<i2", true, 2}, {">i4", false, 1}, {">i2", false, 3}};
  for (const auto &k : cases) {
    SCOPED_TRACE(k.descr);
    bool big = k.descr[0] == '>';
    int size = k.descr[2] - '0';
    std::string data;
    for (int i = 0; i < 6; i++) {
      int r = k.fortran ? i % 2 : i / 3, c = k.fortran ? i / 2 : i % 3;
      data += element(a[r][c], k.descr[1], size, big);
    }
    write_file(dir.file("a.npy"), npy_bytes(k.descr, k.fortran, 2, 3, data, k.major));
    ProcResult r = prep({"convert", dir.file("a.npy"), dir.file("a.bin")});
    ASSERT_EQ(r.status, 0) << r.err;
    MatrixFile m;
    ASSERT_TRUE(read_matrix_file(dir.file("a.bin"), m));
    EXPECT_EQ(m.values, (std::vector<float>{1, -2, 3, 40, -50, 600}));
  }
  // A matrix file of the other byte order reads as brelix reads it.
  write_file(dir.file("big.bin"), matrix_bytes(2, 3, VALUES, "", true));
  ASSERT_EQ(prep({"convert", dir.file("big.bin"), dir.file("big.csv")}).status, 0);
  EXPECT_EQ(read_file(dir.file("big.csv")).substr(0, 12), "1.5,-2,0.25\n");
}

TEST(RecordingsConvert, ArraysServeAsRecordingsWithTheirLabels) {
  // Channels as columns of a MATLAB v7.3 array (rows are samples), labelled
  // on the command line.
  TempDir dir;
  std::vector<float> samples = {1, 10, 100, 2, 20, 200, 3, 30, 300, 4, 40, 400};  // 4 samples x 3 channels
  write_file(dir.file("s.bin"), matrix_bytes(4, 3, samples, ""));
  ASSERT_EQ(prep({"convert", dir.file("s.bin"), dir.file("s.mat"), "--v73", "--variable", "eeg"}).status, 0);
  write_file(dir.file("e.elc"), "2\n1 0.1 0.1 !Pz\n1 0.2 0.2 !Fz\n");
  ProcResult r = prep({"data", dir.file("s.mat"), "--labels", "Fz,Cz,Pz", "--sfreq", "250", "--electrodes",
                       dir.file("e.elc"), "-o", dir.file("d.bin"), "--samples", "2:4"});
  ASSERT_EQ(r.status, 0) << r.err;
  MatrixFile m;
  ASSERT_TRUE(read_matrix_file(dir.file("d.bin"), m));
  EXPECT_EQ(m.rows, 2);
  EXPECT_EQ(m.values, (std::vector<float>{200, 300, 400, 2, 3, 4}));
  EXPECT_EQ(m.tail.substr(0, 24), "sample frequency\n250 Hz\n");
}

TEST(RecordingsConvert, BadInputIsRefusedAndWritesNothing) {
  TempDir dir;
  std::string six_doubles;
  for (int i = 0; i < 6; i++) six_doubles += element(i, 'f', 8, false);
  write_file(dir.file("short.npy"), npy_bytes("<f8", false, 2, 3, six_doubles.substr(0, 40)));
  std::string cube = npy_bytes("<f8", false, 2, 3, six_doubles);
  cube.replace(cube.find("(2, 3)"), 6, "(1, 2, 3)");
  write_file(dir.file("cube.npy"), cube);
  write_file(dir.file("complex.npy"), npy_bytes("<c8", false, 1, 3, six_doubles));
  write_file(dir.file("short.bin"), matrix_bytes(3, 3, VALUES, ""));
  write_file(dir.file("m.bin"), matrix_bytes(2, 3, VALUES, ""));
  ASSERT_EQ(prep({"convert", dir.file("m.bin"), dir.file("m.mat")}).status, 0);
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{dir.file("short.npy")}, "short.npy: data: cut short"},
      {{dir.file("cube.npy")}, "cube.npy: header: holds a 3-dimensional array"},
      {{dir.file("complex.npy")}, "element type '<c8' is none of float32, float64, int16, int32"},
      {{dir.file("short.bin"), "--to", "csv"}, "short.bin: data: cut short: 3 x 3 values announced, 6 there"},
      {{dir.file("m.mat"), "--variable", "eeg"}, "m.mat: holds no variable 'eeg'"},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.message);
    std::vector<std::string> args = {"convert", k.args[0], dir.file("out.bin")};
    args.insert(args.end(), k.args.begin() + 1, k.args.end());
    ProcResult r = prep(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("brelix-prep convert: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(k.message), std::string::npos) << r.err;
    EXPECT_FALSE(file_exists(dir.file("out.bin")));
  }
}

}  // namespace
