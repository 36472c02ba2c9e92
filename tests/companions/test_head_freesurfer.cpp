// A three-surface head as FreeSurfer writes it (binary, millimetres, normals
// outwards) comes out of brelix-prep head as the same head prepared by hand:
// brelix computes the same transfer matrix from both.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/program.h"
#include "tools/headshape.h"

namespace {

void put_be32(std::string &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out += char((v >> shift) & 0xff);
}

// FreeSurfer's triangle surface: FF FF FE, a creator line and an empty line,
// big-endian vertex and face counts, float coordinates and int faces.  The
// head's triangles turn clockwise seen from outside; FreeSurfer's turn the
// other way.
std::string freesurfer_bytes(const TriMesh &m, double scale) {
  std::string out("\xff\xff\xfe", 3);
  out += "created by a test\n\n";
  put_be32(out, (uint32_t)m.pnt.size());
  put_be32(out, (uint32_t)m.dhk.size());
  for (const auto &p : m.pnt)
    for (float x : p) {
      const float scaled = float(x * scale);
      uint32_t bits;
      memcpy(&bits, &scaled, 4);
      put_be32(out, bits);
    }
  for (const auto &t : m.dhk) put_be32(out, t[0]), put_be32(out, t[2]), put_be32(out, t[1]);
  return out;
}

TEST(HeadFreeSurfer, MillimetresOutwardGiveTheHandMadeTransferMatrix) {
  TempDir dir;
  const char *const names[HEAD_LAYERS] = {"outer_skin.surf", "outer_skull.surf", "inner_skull.surf"};
  for (int k = 0; k < HEAD_LAYERS; k++) write_file(dir.file(names[k]), freesurfer_bytes(head_layer(3, (HeadLayer)k), 1000));
  // Refused as it stands when flipping is not allowed.
  const ProcResult strict = run_process(
      BRELIX_PREP_EXE, {"head", names[0], names[1], names[2], "-o", "fs", "--quiet", "--no-orient"}, "", dir.path());
  EXPECT_EQ(strict.status, 2);
  EXPECT_EQ(strict.err.rfind("brelix-prep head: outer_skin.surf: all triangles: the triangles turn counter-clockwise", 0), 0u)
      << strict.err;
  const ProcResult prep = run_process(
      BRELIX_PREP_EXE, {"head", names[0], names[1], names[2], "-o", "fs", "--quiet"}, "", dir.path());
  ASSERT_EQ(prep.status, 0) << prep.err;
  const std::string report = read_file(dir.file("fs/report.txt"));
  EXPECT_NE(report.find("units: mm"), std::string::npos) << report;
  EXPECT_NE(report.find("all triangles flipped"), std::string::npos) << report;

  std::filesystem::create_directory(dir.file("hand"));
  ASSERT_TRUE(write_head(dir.file("hand"), 3, true));
  write_file(dir.file("sources.pos"), "3\n1 0 0.01 0.02\n2 0.02 -0.01 0.03\n3 -0.015 0.02 0.0\n");
  MatrixFile from[2];
  const std::string geometry[2] = {read_file(dir.file("fs/geometry.ans")), read_file(dir.file("hand/geometry.ans"))};
  for (int k = 0; k < 2; k++) {
    const ProcResult run = run_brelix(dir.path(), {}, geometry[k] + "\nsources.pos\n\ntrans.mat\n");
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_TRUE(read_matrix_file(dir.file("trans.mat"), from[k]));
  }
  ASSERT_EQ(from[0].rows, 642);
  ASSERT_EQ(from[0].cols, 9);
  ASSERT_EQ(from[0].values.size(), from[1].values.size());
  double largest = 0, difference = 0;
  for (size_t i = 0; i < from[0].values.size(); i++) {
    largest = std::max(largest, (double)std::fabs(from[1].values[i]));
    difference = std::max(difference, (double)std::fabs(from[0].values[i] - from[1].values[i]));
  }
  EXPECT_GT(largest, 0.0);
  EXPECT_LT(difference, 1e-4 * largest);
}

}  // namespace
