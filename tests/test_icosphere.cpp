// The sphere-mesh tool.  Closedness and orientation of its meshes show in the
// solid-angle sums and the row sums of the assembly.
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tools/icosphere.h"

TEST(SphereMeshTool, WritesFilesAndRefusesBadArguments) {
  for (int level = 0; level < 4; level++) EXPECT_EQ(icosphere(level, 1.0).dhk.size(), 2 * icosphere(level, 1.0).pnt.size() - 4);
  TempDir dir;
  const ProcResult ok = run_process(SPHEREMESH_EXE, {"-c", "1", "2", "3", "42", "0.5", "s.tri"}, "", dir.path());
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.out, "s.tri: 42 vertices, 80 triangles, radius 0.5\n");
  EXPECT_EQ(read_file(dir.file("s.tri")).substr(0, 3), "42\n");
  EXPECT_EQ(run_process(SPHEREMESH_EXE, {"-b", "12", "1", "b.tri"}, "", dir.path()).status, 0);
  EXPECT_EQ(read_file(dir.file("b.tri")).size(), 4u + 12 * 12 + 4 + 12 * 20);
  for (auto args : std::vector<std::vector<std::string>>{{"100", "1", "x.tri"}, {"42", "-1", "x.tri"}, {"42", "1"}}) {
    const ProcResult bad = run_process(SPHEREMESH_EXE, args, "", dir.path());
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err, "");
  }
  const ProcResult nowhere = run_process(SPHEREMESH_EXE, {"42", "1", "no/such/dir/x.tri"}, "", dir.path());
  EXPECT_EQ(nowhere.status, 1);
  EXPECT_EQ(nowhere.err, "spheremesh: cannot write no/such/dir/x.tri\n");
}
