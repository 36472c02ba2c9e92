// Surface import: one head written in every format by small writers here,
// independent of the readers, must read back as the same mesh; one broken
// file per reader family must be refused naming the file, place and fault.
// Also brelix's own triangle files, head folders and the generated head.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <set>

#include "cli/failure.h"
#include "surface/brelix_tri.h"
#include "surface/head_dir.h"
#include "surface/import.h"
#include "surface/transform.h"
#include "tests/support/files.h"
#include "tools/headshape.h"

namespace {

using Writer = std::function<std::string(const TriMesh &)>;

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, f);
  vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return buf;
}

template <class T>
void put(std::string &s, T v, bool big) {
  char b[sizeof(T)];
  memcpy(b, &v, sizeof(T));
  if (big) std::reverse(b, b + sizeof(T));
  s.append(b, sizeof(T));
}

// Every coordinate as a float, every index as an int (each triangle after
// `lead` when that is set), big-endian or in this machine's order.
std::string coords(const TriMesh &m, bool big) {
  std::string s;
  for (auto &p : m.pnt)
    for (float c : p) put(s, c, big);
  return s;
}
std::string indices(const TriMesh &m, bool big, int lead = -1) {
  std::string s;
  for (auto &t : m.dhk) {
    if (lead >= 0) put<int32_t>(s, lead, big);
    for (int i : t) put<int32_t>(s, i, big);
  }
  return s;
}

std::string lines(const TriMesh &m, std::string head, const std::function<std::string(const std::array<float, 3> &)> &v,
                  const std::string &mid, const std::function<std::string(const std::array<int, 3> &)> &f,
                  const std::string &tail = "") {
  for (auto &p : m.pnt) head += v(p);
  head += mid;
  for (auto &t : m.dhk) head += f(t);
  return head + tail;
}

std::string xyz(const std::array<float, 3> &p) { return fmt("%.9g %.9g %.9g", p[0], p[1], p[2]); }
std::string xyzl(const std::array<float, 3> &p) { return xyz(p) + "\n"; }
std::string tri3(const std::array<int, 3> &t) { return fmt("3 %d %d %d\n", t[0], t[1], t[2]); }

// Text .tri with normals; some writers count the triangle block's vertices from 0.
std::string normals_tri(const TriMesh &m, int base) {
  return lines(m, fmt("- %zu\n", m.pnt.size()), [](auto &p) { return xyz(p) + " 0 0 1\n"; },
               fmt("- %zu %zu %zu\n", m.dhk.size(), m.dhk.size(), m.dhk.size()),
               [base](auto &t) { return fmt("%d %d %d\n", t[0] + base, t[1] + base, t[2] + base); });
}

std::string fs_binary(const TriMesh &m) {
  std::string s = "\xff\xff\xfe" "created by test on Monday\n\n";
  put<int32_t>(s, (int32_t)m.pnt.size(), true);
  put<int32_t>(s, (int32_t)m.dhk.size(), true);
  return s + coords(m, true) + indices(m, true);
}

std::string stl_binary(const TriMesh &m) {
  std::string s = "solid but binary";
  s.resize(80, ' ');
  put<uint32_t>(s, (uint32_t)m.dhk.size(), false);
  for (auto &t : m.dhk) {
    for (int k = 0; k < 3; k++) put<float>(s, 0.f, false);
    for (int i : t)
      for (float c : m.pnt[i]) put(s, c, false);
    put<uint16_t>(s, 0, false);
  }
  return s;
}

std::string ply_binary(const TriMesh &m, bool big) {
  std::string s = fmt("ply\nformat binary_%s_endian 1.0\ncomment test\nelement vertex %zu\nproperty float x\nproperty float y\n"
                      "property double quality\nproperty float z\nelement face %zu\nproperty list uchar int vertex_indices\n"
                      "end_header\n",
                      big ? "big" : "little", m.pnt.size(), m.dhk.size());
  for (auto &p : m.pnt) put(s, p[0], big), put(s, p[1], big), put(s, 0.5, big), put(s, p[2], big);
  for (auto &t : m.dhk) {
    s += '\3';
    for (int i : t) put<int32_t>(s, i, big);
  }
  return s;
}

std::string vtk_binary(const TriMesh &m) {
  return fmt("# vtk DataFile Version 3.0\nhead\nBINARY\nDATASET POLYDATA\nPOINTS %zu float\n", m.pnt.size()) +
         coords(m, true) + fmt("\nPOLYGONS %zu %zu\n", m.dhk.size(), 4 * m.dhk.size()) + indices(m, true, 3) +
         "\nPOINT_DATA 1\n";
}

std::string base64(const std::string &b) {
  static const char *abc = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < b.size(); i += 3) {
    uint32_t v = (uint8_t)b[i] << 16 | (i + 1 < b.size() ? (uint8_t)b[i + 1] << 8 : 0) | (i + 2 < b.size() ? (uint8_t)b[i + 2] : 0);
    // The third and fourth characters exist only for the bytes that do.
    for (int k = 0; k < 4; k++) out += k < 2 || i + k - 1 < b.size() ? abc[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

std::string gifti(const TriMesh &m, const std::string &enc) {
  auto array = [&](const char *intent, const char *type, size_t rows, const std::string &raw, const std::string &text) {
    std::string data = text;
    if (enc != "ASCII") {
      std::string z = raw;
      if (enc == "GZipBase64Binary") {
        uLongf n = compressBound(raw.size());
        z.resize(n);
        compress2((Bytef *)z.data(), &n, (const Bytef *)raw.data(), raw.size(), 6);
        z.resize(n);
      }
      data = base64(z);
    }
    return fmt("<DataArray Intent=\"%s\" DataType=\"%s\" ArrayIndexingOrder=\"RowMajorOrder\" Dimensionality=\"2\" "
               "Dim0=\"%zu\" Dim1=\"3\" Encoding=\"",
               intent, type, rows) +
           enc + "\" Endian=\"LittleEndian\" ExternalFileName=\"\" ExternalFileOffset=\"\">\n<MetaData/>\n<Data>" + data +
           "</Data>\n</DataArray>\n";
  };
  std::string tp, tt;
  for (auto &p : m.pnt) tp += xyzl(p);
  for (auto &t : m.dhk) tt += fmt("%d %d %d\n", t[0], t[1], t[2]);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<GIFTI Version=\"1.0\" NumberOfDataArrays=\"2\">\n<MetaData/>\n" +
         array("NIFTI_INTENT_POINTSET", "NIFTI_TYPE_FLOAT32", m.pnt.size(), coords(m, false), tp) +
         array("NIFTI_INTENT_TRIANGLE", "NIFTI_TYPE_INT32", m.dhk.size(), indices(m, false), tt) + "</GIFTI>\n";
}

// Keywords in capitals, as some exporters write them.
std::string stl_ascii(const TriMesh &m) {
  std::string s = "solid head\n";
  for (auto &t : m.dhk) {
    s += "  FACET NORMAL 0 0 0\n    OUTER LOOP\n";
    for (int i : t) s += "      VERTEX " + xyz(m.pnt[i]) + "\n";
    s += "    ENDLOOP\n  ENDFACET\n";
  }
  return s + "ENDSOLID head\n";
}

std::string brelix_file(const TriMesh &m, bool binary) {
  TempDir d;
  write_trimesh(d.file("x"), m, binary);
  return read_file(d.file("x"));
}

struct Format {
  const char *file, *format;
  Writer write;
};

const Format FORMATS[] = {
    {"lh.seghead", "FreeSurfer binary", fs_binary},
    {"head.asc", "FreeSurfer ASCII",
     [](const TriMesh &m) {
       return lines(m, fmt("#!ascii version of head\n%zu %zu\n", m.pnt.size(), m.dhk.size()),
                    [](auto &p) { return xyz(p) + " 0\n"; }, "", [](auto &t) { return fmt("%d %d %d 0\n", t[0], t[1], t[2]); });
     }},
    {"head.off", "OFF",
     [](const TriMesh &m) { return lines(m, fmt("OFF\n# comment\n%zu %zu 0\n", m.pnt.size(), m.dhk.size()), xyzl, "", tri3); }},
    {"head.obj", "OBJ",
     [](const TriMesh &m) {
       return lines(m, "# exported\no head\n", [](auto &p) { return "v " + xyz(p) + "\n"; }, "vn 0 0 1\n",
                    [](auto &t) { return fmt("f %d//1 %d/1/1 %d\n", t[0] + 1, t[1] + 1, t[2] + 1); });
     }},
    {"head.stl", "STL ASCII", stl_ascii},
    {"head_b.stl", "STL binary", stl_binary},
    {"head.ply", "PLY ASCII",
     [](const TriMesh &m) {
       return lines(m,
                    fmt("ply\nformat ascii 1.0\nelement vertex %zu\nproperty float x\nproperty float y\nproperty float z\n"
                        "element face %zu\nproperty list uchar int vertex_index\nend_header\n",
                        m.pnt.size(), m.dhk.size()),
                    xyzl, "", tri3);
     }},
    {"head_le.ply", "PLY binary little-endian", [](const TriMesh &m) { return ply_binary(m, false); }},
    {"head_be.ply", "PLY binary big-endian", [](const TriMesh &m) { return ply_binary(m, true); }},
    {"head.vtk", "VTK ASCII",
     [](const TriMesh &m) {
       return lines(m, fmt("# vtk DataFile Version 3.0\nhead\nASCII\nDATASET POLYDATA\nPOINTS %zu float\n", m.pnt.size()),
                    xyzl, fmt("POLYGONS %zu %zu\n", m.dhk.size(), 4 * m.dhk.size()), tri3);
     }},
    {"head_b.vtk", "VTK binary", vtk_binary},
    {"head.gii", "GIfTI ASCII", [](const TriMesh &m) { return gifti(m, "ASCII"); }},
    {"head_b.gii", "GIfTI Base64Binary", [](const TriMesh &m) { return gifti(m, "Base64Binary"); }},
    {"head_z.gii", "GIfTI GZipBase64Binary", [](const TriMesh &m) { return gifti(m, "GZipBase64Binary"); }},
    {"head.tri", "brelix text", [](const TriMesh &m) { return brelix_file(m, false); }},
    {"head_b.tri", "brelix binary", [](const TriMesh &m) { return brelix_file(m, true); }},
    {"head_n.tri", "text .tri with normals", [](const TriMesh &m) { return normals_tri(m, 1); }},
    {"head_n0.tri", "text .tri with normals", [](const TriMesh &m) { return normals_tri(m, 0); }},
};

struct Refusal {
  std::string file, contents, message;  // the message without "FOLDER/FILE: "
};

// `read` must refuse each file with an InputError naming it by its path.
void expect_refusals(const TempDir &dir, const std::vector<Refusal> &cases,
                     const std::function<void(const std::string &)> &read) {
  for (const Refusal &c : cases) {
    write_file(dir.file(c.file), c.contents);
    try {
      read(dir.file(c.file));
      ADD_FAILURE() << c.file << " accepted";
    } catch (const InputError &e) {
      EXPECT_NE(std::string(e.what()).find(dir.file(c.file) + ": " + c.message), std::string::npos) << e.what();
    }
  }
}

// A tetrahedron, clockwise seen from outside.
TriMesh tetrahedron() {
  TriMesh t;
  t.pnt = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  t.dhk = {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}};
  return t;
}

TEST(SurfaceImport, EveryFormatGivesTheSameHead) {
  TempDir dir;
  TriMesh head = head_layer(3, HEAD_SKULL);
  for (const Format &f : FORMATS) {
    SCOPED_TRACE(f.file);
    write_file(dir.file(f.file), f.write(head));
    ImportedSurface s = read_surface(dir.file(f.file));
    EXPECT_EQ(s.format, f.format);
    EXPECT_EQ(s.polygons_split, 0);
    bool stl = std::string(f.format).find("STL") == 0;
    EXPECT_EQ(s.vertices_welded, stl ? (long)(3 * head.dhk.size() - head.pnt.size()) : 0);
    // Welding numbers the vertices in the order the facets first use them.
    std::vector<int> order(head.pnt.size(), -1), original;
    for (auto &tri : head.dhk)
      for (int v : tri)
        if (order[v] < 0) order[v] = stl ? (int)original.size() : v, original.push_back(v);
    if (!stl) original = order;
    ASSERT_EQ(s.mesh.vertices.size(), head.pnt.size());
    ASSERT_EQ(s.mesh.triangles.size(), head.dhk.size());
    for (size_t i = 0; i < original.size(); i++)
      for (int k = 0; k < 3; k++) ASSERT_EQ((float)s.mesh.vertices[i][k], head.pnt[original[i]][k]) << "vertex " << i;
    for (size_t t = 0; t < head.dhk.size(); t++)
      for (int k = 0; k < 3; k++) ASSERT_EQ(s.mesh.triangles[t][k], order[head.dhk[t][k]]) << "triangle " << t;
  }
}

TEST(SurfaceImport, PolygonsAreSplitAsFans) {
  TempDir dir;
  const char *cube_v = "0 0 0\n1 0 0\n1 1 0\n0 1 0\n0 0 1\n1 0 1\n1 1 1\n0 1 1\n";
  const char *quads[] = {"0 3 2 1", "4 5 6 7", "0 1 5 4", "1 2 6 5", "2 3 7 6", "3 0 4 7"};
  std::string off = std::string("OFF 8 6 0\n") + cube_v, obj, vtk = "# vtk DataFile Version 5.1\nc\nASCII\nDATASET POLYDATA\nPOINTS 8 float\n";
  vtk += cube_v;
  vtk += "\nMETADATA\nINFORMATION 0\n\nPOLYGONS 7 24\nOFFSETS vtktypeint64\n0 4 8 12 16 20 24\nCONNECTIVITY vtktypeint64\n";
  for (const char *v = cube_v; *v; v = strchr(v, '\n') + 1) obj += "v " + std::string(v, strchr(v, '\n') + 1);
  for (const char *q : quads) {
    int a, b, c, d;
    sscanf(q, "%d %d %d %d", &a, &b, &c, &d);
    off += std::string("4 ") + q + "\n";
    obj += fmt("f %d %d %d %d\n", a - 8, b - 8, c - 8, d - 8);  // relative form
    vtk += std::string(q) + "\n";
  }
  for (auto [name, text] : {std::pair{"cube.off", off}, {"cube.obj", obj}, {"cube.vtk", vtk}}) {
    write_file(dir.file(name), text);
    ImportedSurface s = read_surface(dir.file(name));
    EXPECT_EQ(s.polygons_split, 6) << name;
    ASSERT_EQ(s.mesh.triangles.size(), 12u) << name;
    EXPECT_EQ(s.mesh.triangles[0], (Tri{0, 3, 2})) << name;
    EXPECT_EQ(s.mesh.triangles[1], (Tri{0, 2, 1})) << name;
  }
  // Triangle strips alternate their corners so that all keep one side out.
  write_file(dir.file("strip.vtk"), "# vtk DataFile Version 3.0\ns\nASCII\nDATASET POLYDATA\nPOINTS 5 float\n" + std::string(cube_v, 30) +
                                        "TRIANGLE_STRIPS 1 6\n5 0 1 2 3 4\n");
  ImportedSurface s = read_surface(dir.file("strip.vtk"));
  EXPECT_EQ(s.mesh.triangles, (std::vector<Tri>{{0, 1, 2}, {2, 1, 3}, {2, 3, 4}}));
}

TEST(SurfaceImport, BrokenFilesNameFilePlaceAndFault) {
  TempDir dir;
  const TriMesh tet = tetrahedron();
  TriMesh nan_tet = tet, bad_tet = tet;
  nan_tet.pnt[2][1] = NAN;
  bad_tet.dhk[3][1] = 7;
  auto with = [](std::string s, size_t at, const std::string &bytes) { return s.replace(at, bytes.size(), bytes); };
  std::string huge_le;
  put<uint32_t>(huge_le, 1u << 28, false);
  const std::string fs = fs_binary(tet);
  expect_refusals(dir, {
      {"cut.seghead", fs.substr(0, fs.size() - 5), "byte 30: 4 vertices and 4 faces need 96 bytes, but only 91"},
      {"nan.asc", FORMATS[1].write(nan_tet), "line 5: vertex 3 has a coordinate that is not a finite number"},
      {"bad.off", FORMATS[2].write(bad_tet), "line 11: face 4 refers to vertex 7, outside the 4 vertices numbered from 0"},
      {"bad.obj", "v 0 0 0\nv 1 0 0\nf 1 2 3\n", "line 3: face 1 refers to vertex 3, outside the 2 vertices numbered from 1"},
      {"cut.stl", stl_ascii(tet).substr(0, 200), "line 12: file ends inside the solid"},
      {"huge.stl", with(stl_binary(tet), 80, huge_le), "byte 80: facet count 268435456 needs"},
      {"huge.ply", "ply\nformat ascii 1.0\nelement vertex 9999\nproperty float x\nproperty float y\nproperty float z\nend_header\n0 0 0\n",
       "line 3: element vertex count 9999 is more than the rest of the file can hold"},
      {"cut.ply", ply_binary(tet, true).substr(0, 300), "byte 297: file ends while reading face 2 vertex_indices"},
      {"nan.vtk", FORMATS[9].write(nan_tet), "line 8: vertex 3 has a coordinate that is not a finite number"},
      {"bad_b.vtk", vtk_binary(bad_tet), "byte 133 (polygon 4): face 4 refers to vertex 7"},
      {"huge.gii", gifti(tet, "GZipBase64Binary").replace(gifti(tet, "ASCII").find("Dim0=\"4\""), 8, "Dim0=\"99999999\""), "line 4 (DataArray 1): Dim0 99999999 is more than the compressed data can hold"},
      {"bad.gii", gifti(bad_tet, "Base64Binary"), "line 8 (DataArray 2): face 4 refers to vertex 7"},
      {"broken.gii", "<?xml version=\"1.0\"?>\n<GIFTI>\n<DataArray>\n</GIFTI>\n", "line 4: not well-formed XML"},
      {"huge.tri", with(FORMATS[16].write(tet), 2, "99"), "line 1: vertex count 990 is more than"},
      {"bad_n.tri", FORMATS[16].write(bad_tet), "line 10: face 4 refers to vertex 8, outside the 4 vertices numbered from 1"},
      {"huge.vtk", "# vtk DataFile Version 3.0\nh\nASCII\nDATASET POLYDATA\nPOINTS 3074457345618258603 float\n0 0 0\n",
       "line 5: point count 3074457345618258603 is not a surface's"},
      {"head.xyz", "1 2 3\n", "cannot tell the surface format"},
  }, [](const std::string &path) { read_surface(path); });
}

// Damaged copies of every format (cut short, bytes overwritten, numbers
// inserted) are read or refused with an InputError, never anything worse;
// under the sanitizer build this also checks every access.
TEST(SurfaceImport, DamagedFilesAreReadOrRefused) {
  TriMesh m = icosphere(1, 90.0);
  std::mt19937 rng(15);
  const char *pieces[] = {"nan", "-1", "\n", " ", "1e400", "4294967295", "6148914691236517206", "-99999999999999999999999"};
  for (const Format &f : FORMATS) {
    const std::string good = f.write(m);
    for (int round = 0; round < 300; round++) {
      std::string s = good;
      size_t at = rng() % s.size();
      switch (rng() % 3) {
        case 0: s.resize(at); break;
        case 1: s[at] = (char)rng(); break;
        default: s.insert(at, pieces[rng() % 8]);
      }
      try {
        parse_surface(s, f.file);
      } catch (const InputError &) {
      } catch (const std::exception &e) {
        ADD_FAILURE() << f.file << " damaged at " << at << ": " << e.what();
      }
    }
  }
}

TEST(SurfaceUnits, AutoPicksTheUnitThatMakesAHeadAndGivenUnitsAreKept) {
  struct Case {
    double across;
    const char *option, *unit;
    double extent;
  } cases[] = {{190, "auto", "mm", 0.19}, {19, "auto", "cm", 0.19}, {0.19, "auto", "m", 0.19},
               {60, "auto", "cm", 0.6}, {0.19, "mm", "mm", 0.00019}, {19, "cm", "cm", 0.19}};
  for (const Case &c : cases) {
    UnitChoice u = choose_units(c.option, {{0, 0, 0}, {c.across / 2, c.across, -1e-3}}, "s.stl");
    EXPECT_EQ(u.unit, c.unit) << c.across;
    EXPECT_NEAR(u.extent, c.extent, 1e-12) << c.across;
    EXPECT_EQ(u.automatic, std::string(c.option) == "auto");
  }
  EXPECT_EQ(choose_units("auto", {{0, 0, 0}, {0, 190, 0}}, "s").describe(), "mm (chosen from the extent, 190 mm)");
  for (double across : {0.0, 0.001, 5000.0}) EXPECT_THROW(choose_units("auto", {{0, 0, 0}, {across, 0, 0}}, "s"), InputError);
  EXPECT_THROW(choose_units("inch", {{0, 0, 0}}, "s"), InputError);
}

TEST(SurfaceTransform, AffineFilesMoveAndMirrorsKeepTheOrientation) {
  TempDir dir;
  write_file(dir.file("rot.txt"), "# x to y\n0 -1 0 10\n1 0 0 20\n0 0 1 30\n0 0 0 1\n");
  write_file(dir.file("mirror.txt"), "-1 0 0 0  0 1 0 0  0 0 1 0\n");
  const Mesh m{{{1, 2, 3}, {4, 5, 6}, {7, 8, 10}}, {{0, 1, 2}}};
  Mesh r = m;
  apply_affine(read_affine(dir.file("rot.txt")), r);
  EXPECT_EQ(r.vertices[0], (Vec3{8, 21, 33}));
  EXPECT_EQ(r.triangles[0], (Tri{0, 1, 2}));
  Mesh f = m;
  apply_affine(read_affine(dir.file("mirror.txt")), f);
  EXPECT_EQ(f.vertices[1], (Vec3{-4, 5, 6}));
  EXPECT_EQ(f.triangles[0], (Tri{0, 2, 1}));
  expect_refusals(dir, {{"t.txt", "1 0 0 0\n0 1 0 0\n0 0 1 0\n1 0 0 1\n", "line 4: the last row must be 0 0 0 1"},
                        {"t.txt", "1 0 0\n", "holds 3 numbers"},
                        {"t.txt", "1 0 0 0\n0 1 0 0\n0 0 0 0\n", "the transform flattens space"},
                        {"t.txt", "1 0 0 0\n0 x 0 0\n", "line 2: \"x\" is not a number"}},
                  [](const std::string &path) { read_affine(path); });
}

void expect_same(const Mesh &a, const Mesh &b) {
  ASSERT_EQ(a.vertices.size(), b.vertices.size());
  ASSERT_EQ(a.triangles, b.triangles);
  for (size_t i = 0; i < a.vertices.size(); i++) ASSERT_EQ(a.vertices[i], b.vertices[i]) << "vertex " << i;
}

// Binary brelix file in this machine's order, independent of the reader.
std::string binary_tri(const TriMesh &m) {
  std::string n, t;
  put<int32_t>(n, (int32_t)m.pnt.size(), false);
  put<int32_t>(t, (int32_t)m.dhk.size(), false);
  return n + coords(m, false) + t + indices(m, false);
}

TEST(BrelixTri, WrittenTextReadsBackExactlyAndMatchesBinaryAndShortForms) {
  TempDir dir;
  Mesh head = head_layer_mesh(2, HEAD_SKULL);
  write_brelix_tri_file(dir.file("a.tri"), head);
  expect_same(read_brelix_tri(dir.file("a.tri")), head);

  const Mesh tet = as_mesh(tetrahedron());
  write_file(dir.file("b.tri"), binary_tri(tetrahedron()));
  expect_same(read_brelix_tri(dir.file("b.tri")), tet);
  // Without running numbers, CRLF line ends, a vertex line with a number
  // and more than three coordinates-worth of fields.
  write_file(dir.file("c.tri"), "4\r\n0 0 0\r\n2 1 0 0 9\r\n0 1 0\r\n4 0 0 1\r\n4\r\n1 2 3\r\n1 4 2\r\n1 3 4\r\n4 2 4 3\r\n");
  expect_same(read_brelix_tri(dir.file("c.tri")), tet);
  // A text file that ends after its vertices holds no triangles.
  write_file(dir.file("d.tri"), "1\n0 0 0\n");
  EXPECT_EQ(read_brelix_tri(dir.file("d.tri")).triangles.size(), 0u);
}

TEST(BrelixTri, BadFilesNameFilePlaceAndFault) {
  TempDir dir;
  const std::string bin_ok = binary_tri(tetrahedron());
  auto with = [&](size_t at, auto v) {
    std::string s = bin_ok;
    memcpy(&s[at], &v, 4);
    return s;
  };
  expect_refusals(dir, {
      {"short.tri", "3\n1 0.5 0.5 0.5\n2 1.5 0.5 0.5\n", "line 4: file ends after 2 of 3 vertices"},
      {"few.tri", "2\n1 0 0 0\n2 1 \n", "line 3: vertex 2 needs three coordinates"},
      {"count.tri", "99999\n1 0 0 0\n", "line 1: vertex count 99999 is more than the rest"},
      {"nan.tri", "2\n0 0 0\n0 nan 0\n0\n", "line 3: vertex 2 has a coordinate that is not a finite"},
      {"index.tri", "3\n0 0 0\n1 0 0\n0 1 0\n1\n1 2 4\n", "line 6: face 1 refers to vertex 4, outside the 3 vertices numbered from 1"},
      {"trishort.tri", "3\n0 0 0\n1 0 0\n0 1 0\n2\n1 1 2 3     \n", "line 7: file ends after 1 of 2 triangles"},
      {"b_short.tri", bin_ok.substr(0, 60), "byte 52: triangle count 4 is more than the rest of the file can hold"},
      {"b_huge.tri", with(0, int32_t(1 << 30)), "byte 0: vertex count 1073741824 is more than"},
      {"b_nan.tri", with(4 + 7 * 4, float(NAN)), "byte 28: vertex 3 has"},
      {"b_index.tri", with(4 + 48 + 4 + 5 * 4, int32_t(4)), "byte 68: face 2 refers to vertex 4, outside the 4 vertices numbered from 0"},
  }, [](const std::string &path) { read_brelix_tri(path); });
}

TEST(HeadDir, ReadsGeneratedHeadAndResolvesBareNamesBesideTheAnswers) {
  TempDir dir;
  ASSERT_TRUE(write_head(dir.path(), 2, true));
  std::vector<HeadSurface> head = read_head_dir(dir.path());
  ASSERT_EQ(head.size(), 3u);
  for (int k = 0; k < 3; k++) {
    EXPECT_EQ(head[k].file, dir.file(std::string(head_layer_name[k]) + ".tri"));
    EXPECT_EQ(head[k].sigma, head_layer_sigma[k]);
    EXPECT_EQ(head[k].isolated, k == HEAD_BRAIN);
    expect_same(head[k].mesh, head_layer_mesh(2, (HeadLayer)k));
  }
  // Names without a folder are found beside geometry.ans; an empty
  // conductivity answer is brelix's default 1.
  write_file(dir.file("other.ans"), "brain.tri\n\n\nrest of the dialogue\n");
  head = read_head_dir(dir.file("other.ans"));
  ASSERT_EQ(head.size(), 1u);
  EXPECT_EQ(head[0].sigma, 1.0);
  expect_same(read_scalp(dir.path()), head_layer_mesh(2, HEAD_SCALP));

  expect_refusals(dir, {{"bad.ans", "nothere.tri\n0.33\n\n", "line 1: surface file nothere.tri not found"},
                        {"bad.ans", "scalp.tri\nabc\n\n", "line 2: \"abc\" is not a conductivity"},
                        {"bad.ans", "!scalp.tri\n1\n!brain.tri\n1\n\n", "line 3: a second surface marked \"!\""},
                        {"bad.ans", "scalp.tri\n1\n", "the list of surfaces does not end with an empty line"}},
                  [](const std::string &path) { read_head_dir(path); });
}

// Solid angle of a triangle seen from p, positive when its right-hand
// normal points away from p.
double solid_angle(const Vec3 &p, const Vec3 &a, const Vec3 &b, const Vec3 &c) {
  double r[3][3];
  for (int k = 0; k < 3; k++) r[0][k] = a[k] - p[k], r[1][k] = b[k] - p[k], r[2][k] = c[k] - p[k];
  auto dot = [](const double *u, const double *v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; };
  double l[3] = {std::sqrt(dot(r[0], r[0])), std::sqrt(dot(r[1], r[1])), std::sqrt(dot(r[2], r[2]))};
  double det = r[0][0] * (r[1][1] * r[2][2] - r[1][2] * r[2][1]) - r[0][1] * (r[1][0] * r[2][2] - r[1][2] * r[2][0]) +
               r[0][2] * (r[1][0] * r[2][1] - r[1][1] * r[2][0]);
  double den = l[0] * l[1] * l[2] + dot(r[0], r[1]) * l[2] + dot(r[0], r[2]) * l[1] + dot(r[1], r[2]) * l[0];
  return 2 * std::atan2(det, den);
}

TEST(HeadShape, NestedInwardOrientedMirrorSymmetricAndNotASphere) {
  Mesh layer[3];
  for (int k = 0; k < 3; k++) layer[k] = head_layer_mesh(3, (HeadLayer)k);
  for (int k = 0; k < 3; k++) {
    const Mesh &m = layer[k];
    EXPECT_EQ(m.vertices.size(), 642u);
    std::set<Vec3> all(m.vertices.begin(), m.vertices.end());
    for (const Vec3 &p : m.vertices) ASSERT_TRUE(all.count({-p[0], p[1], p[2]})) << "layer " << k;
    // Every vertex of the next surface in lies inside this one (total solid
    // angle -4pi: normals inwards) and at least 5 mm from its vertices.
    if (k == 2) continue;
    for (const Vec3 &p : layer[k + 1].vertices) {
      double omega = 0, gap = 1;
      for (const Tri &t : m.triangles) omega += solid_angle(p, m.vertices[t[0]], m.vertices[t[1]], m.vertices[t[2]]);
      for (const Vec3 &q : m.vertices) gap = std::min(gap, std::hypot(p[0] - q[0], p[1] - q[1], p[2] - q[2]));
      ASSERT_NEAR(omega, -4 * M_PI, 1e-6);
      ASSERT_GT(gap, 0.005);
    }
  }
  // Head proportions: wider front-back than left-right, flat base.
  double lo[3] = {1, 1, 1}, hi[3] = {-1, -1, -1};
  for (const Vec3 &p : layer[0].vertices)
    for (int a = 0; a < 3; a++) lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
  EXPECT_NEAR(hi[0] - lo[0], 0.15, 0.002);
  EXPECT_NEAR(hi[1] - lo[1], 0.19, 0.002);
  EXPECT_NEAR(hi[2], 0.085, 0.002);
  EXPECT_NEAR(lo[2], -0.055, 0.002);
}

}  // namespace
