#include "tools/headshape.h"

#include <cstdio>

#include "matrixio/atomicfile.h"

const char *const head_layer_name[HEAD_LAYERS] = {"scalp", "skull", "brain"};
const double head_layer_sigma[HEAD_LAYERS] = {0.33, 0.0042, 0.33};

namespace {

// Semi-axes of the scalp in metres: half width (x), half length (y), height
// of the crown above the origin and depth of the base below it.
constexpr double WIDTH = 0.075, LENGTH = 0.095, CROWN = 0.085, BASE = 0.055;
// Each layer lies this much inside the one around it.
constexpr double THICKNESS = 0.007;
// How much fuller the back is than the front (fraction of the length).
constexpr double EGG = 0.06;

// Map a unit direction d to the surface of a layer that is `inset` inside
// the scalp.  Each coordinate is a monotonic function of the same
// coordinate of d, so the map is one-to-one and the surface is embedded;
// x enters only as a product with a symmetric factor, so mirroring d in
// x = 0 mirrors the point exactly.
std::array<float, 3> place(const std::array<float, 3> &d, double inset) {
  double a = WIDTH - inset, b = LENGTH - inset, top = CROWN - inset, base = BASE - inset;
  double x = d[0], y = d[1], z = d[2];
  // y*(1 - EGG*y) makes the front (y > 0) shorter than the back, the whole
  // length staying 2b; its slope 1 - 2*EGG*y stays positive.
  double py = b * y * (1 - EGG * y);
  // z*(c0 + c1*z) reaches `top` at z = 1 and -`base` at z = -1; monotonic
  // because c0 > 2|c1| for these proportions.
  double c0 = (top + base) / 2, c1 = (top - base) / 2;
  double pz = z * (c0 + c1 * z);
  return {(float)(a * x), (float)py, (float)pz};
}

}  // namespace

TriMesh head_layer(int level, HeadLayer layer) {
  TriMesh mesh = icosphere(level, 1.0);
  for (auto &p : mesh.pnt) p = place(p, THICKNESS * (int)layer);
  return mesh;
}

Mesh as_mesh(const TriMesh &t) {
  Mesh m;
  m.vertices.reserve(t.pnt.size());
  m.triangles.reserve(t.dhk.size());
  for (auto &p : t.pnt) m.vertices.push_back({p[0], p[1], p[2]});
  for (auto &d : t.dhk) m.triangles.push_back({d[0], d[1], d[2]});
  return m;
}

Mesh head_layer_mesh(int level, HeadLayer layer) { return as_mesh(head_layer(level, layer)); }

bool write_head(const std::string &dir, int level, bool isolated) {
  std::string ans;
  for (int k = 0; k < HEAD_LAYERS; k++) {
    std::string name = dir + "/" + head_layer_name[k] + ".tri";
    if (!write_trimesh(name, head_layer(level, (HeadLayer)k), false)) return false;
    char sigma[32];
    snprintf(sigma, sizeof sigma, "%g", head_layer_sigma[k]);
    ans += (isolated && k == HEAD_BRAIN ? "!" : "") + name + "\n" + sigma + "\n";
  }
  ans += "\n";
  FILE *fp = atomic_open((dir + "/geometry.ans").c_str());
  if (!fp) return false;
  if (fwrite(ans.data(), 1, ans.size(), fp) != ans.size()) {
    atomic_abandon(fp);
    return false;
  }
  return atomic_commit(fp) == 1;
}
