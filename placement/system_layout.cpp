#include "placement/system_layout.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "placement/surface_arc.h"
#include "placement/vec3.h"

namespace {

constexpr int ROWS = 19;  // midline points at every 5 %, k = 1 .. 19
const char *const ROW_NAME[ROWS + 1] = {"",    "NFp", "Fp",  "AFp", "AF",  "AFF", "F",   "FFC", "FC", "FCC",
                                        "C",   "CCP", "CP",  "CPP", "P",   "PPO", "PO",  "POO", "O",  "OI"};
// The row's name at the lateral columns 7 to 10.
const char *const LATERAL_NAME[ROWS + 1] = {"",  "NFp", "Fp",  "AFp", "AF",  "AFF", "F",   "FFT", "FT", "FTT",
                                            "T", "TTP", "TP",  "TPP", "P",   "PPO", "PO",  "POO", "O",  "OI"};

const char *const LAYOUT_10_20[] = {"Fp1", "Fpz", "Fp2", "F7", "F3", "Fz", "F4", "F8", "T7", "C3", "Cz",
                                    "C4",  "T8",  "P7",  "P3", "Pz", "P4", "P8", "O1", "Oz", "O2"};

struct Candidate {
  std::string label;
  Vec3 p;
  bool in_10_10;
};

// The arc from a to b in the plane through a, b and `plane_point`, the part
// nearer the middle of the chord (the shorter way round on a head).
SurfaceArc short_arc(const Mesh &m, const Vec3 &a, const Vec3 &b, const Vec3 &plane_point) {
  return surface_arc(m, a, b, plane_point, 0.5 * (a + b));
}

// A point of the half circumference from `front` over `side` to `back`, at
// fraction c of it (0 front, 0.5 side, 1 back), each half divided on its own
// so that `side` stays where it is.
struct HalfCircumference {
  SurfaceArc to_side, to_back;
  HalfCircumference(const Mesh &m, const Vec3 &front, const Vec3 &side, const Vec3 &back)
      : to_side(short_arc(m, front, side, back)), to_back(short_arc(m, side, back, front)) {}
  Vec3 at(double c) const { return c <= 0.5 ? to_side.at(c / 0.5) : to_back.at((c - 0.5) / 0.5); }
};

}  // namespace

bool parse_layout_system(const std::string &text, LayoutSystem &out) {
  if (text == "10-20") out = LayoutSystem::s10_20;
  else if (text == "10-10") out = LayoutSystem::s10_10;
  else if (text == "10-5") out = LayoutSystem::s10_5;
  else return false;
  return true;
}

std::vector<LabelledPoint> build_layout(const ScalpLocator &locator, const HeadLandmarks &landmarks,
                                        LayoutSystem system) {
  const Mesh &m = locator.mesh();
  const Vec3 nz = locator.closest(landmarks.nasion).point, iz = locator.closest(landmarks.inion).point;
  const Vec3 lpa = locator.closest(landmarks.lpa).point, rpa = locator.closest(landmarks.rpa).point;

  // Head frame: x to the right ear, y to the nose, z up.
  const Vec3 mid = 0.5 * (lpa + rpa);
  const Vec3 x = unit(rpa - lpa);
  const Vec3 y = unit((nz - mid) - dot(nz - mid, x) * x);
  const Vec3 z = cross(x, y);
  const double size = distance(lpa, rpa);
  if (!(size > 0) || !(norm(y) > 0.5) || distance(nz, iz) < 0.1 * size)
    throw std::runtime_error("the landmarks do not span a head: nasion, inion and the ears must be apart");
  const Vec3 far_above = mid + (10 * size) * z;

  const SurfaceArc midline = surface_arc(m, nz, iz, mid + size * z, far_above);
  const Vec3 cz = midline.at(0.5);
  const Vec3 t7 = short_arc(m, lpa, cz, rpa).at(0.2), t8 = short_arc(m, rpa, cz, lpa).at(0.2);
  const Vec3 fpz = midline.at(0.1), oz = midline.at(0.9);
  const HalfCircumference left10(m, fpz, t7, oz), right10(m, fpz, t8, oz);
  const HalfCircumference left0(m, nz, lpa, iz), right0(m, nz, rpa, iz);

  std::vector<Candidate> all;
  auto add = [&](const std::string &label, const Vec3 &p, bool in_10_10) { all.push_back({label, p, in_10_10}); };
  for (int k = 1; k <= ROWS; k++) {
    const double f = 0.05 * k;
    const bool ten = k % 2 == 0;  // a row of the 10-10 system
    const std::string row = ROW_NAME[k], lateral = LATERAL_NAME[k];
    const Vec3 centre = midline.at(f);
    if (k == 2 || k == 18) {  // Fp and O: their lateral points are on the circumference
      add(row + "1", left10.at(f), true);
      add(row + "z", centre, true);
      add(row + "2", right10.at(f), true);
      continue;
    }
    if (k < 4 || k > 16) {
      add(row + "z", centre, ten);
      continue;
    }
    const Vec3 l7 = left10.at(f), r8 = right10.at(f);
    const SurfaceArc left = short_arc(m, l7, centre, r8), right = short_arc(m, centre, r8, l7);
    const bool nine = k >= 6 && k <= 14;  // rows F to P reach down to the 0 % level
    if (nine) {
      const Vec3 l9 = left0.at(f);
      add(lateral + "9", l9, ten);
      add(lateral + "9h", short_arc(m, l9, l7, centre).at(0.5), false);
    }
    // Columns from the lateral point to the midline, every eighth of the arc.
    const char *const left_cols[8] = {"7", "7h", "5", "5h", "3", "3h", "1", "1h"};
    for (int c = 0; c < 8; c++)
      add((c < 2 ? lateral : row) + left_cols[c], left.at(c / 8.0), ten && c % 2 == 0);
    add(row + "z", centre, ten);
    const char *const right_cols[8] = {"2h", "2", "4h", "4", "6h", "6", "8h", "8"};
    for (int c = 0; c < 8; c++)
      add((c >= 6 ? lateral : row) + right_cols[c], right.at((c + 1) / 8.0), ten && c % 2 == 1);
    if (nine) {
      const Vec3 r10 = right0.at(f);
      add(lateral + "10h", short_arc(m, r8, r10, centre).at(0.5), false);
      add(lateral + "10", r10, ten);
    }
  }

  std::vector<LabelledPoint> out;
  for (const Candidate &c : all) {
    bool keep = system == LayoutSystem::s10_5 || (system == LayoutSystem::s10_10 && c.in_10_10);
    if (system == LayoutSystem::s10_20)
      keep = std::find_if(std::begin(LAYOUT_10_20), std::end(LAYOUT_10_20),
                          [&](const char *l) { return c.label == l; }) != std::end(LAYOUT_10_20);
    // Points of the cut lie on the scalp up to rounding; the closest point
    // puts them on a triangle exactly.
    if (keep) out.push_back({c.label, locator.closest(c.p).point, ""});
  }
  return out;
}
