// Bringing electrode positions into the head model's frame: the fiducial
// fit, and the refinement that pulls the electrode cloud onto the scalp.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "placement/closest_point.h"
#include "placement/positions.h"
#include "placement/rigid_fit.h"

// The landmarks a layout or a digitiser names, and the labels that mean
// each (compared without regard to case).
enum Landmark { NASION = 0, LPA = 1, RPA = 2, INION = 3 };
constexpr int LANDMARKS = 4;
extern const char *const landmark_name[LANDMARKS];  // "nasion", "LPA", "RPA", "inion"

struct LandmarkNames {
  // Defaults: Nz, Nasion, FidNz; LPA, FidT9; RPA, FidT10; Iz, Inion.
  std::vector<std::string> names[LANDMARKS];
  LandmarkNames();
  // Which landmark `label` names, or -1.
  int which(const std::string &label) const;
  // Whether `label` is one of the default names, which mark points that are
  // only landmarks; names added by the user may be electrodes as well (an
  // ear electrode used as LPA).
  static bool landmark_only(const std::string &label);
};

// The landmarks of a position file, each found at most once (a second entry
// of the same landmark throws InputError naming `file` and both places).
std::optional<Vec3> find_landmark(const std::vector<LabelledPoint> &points, const LandmarkNames &names, Landmark which,
                                  const std::string &file);

struct FiducialFit {
  Similarity transform;               // positions -> head
  std::vector<std::string> used;      // landmark names, in fit order
  std::vector<double> residual;       // distance after the fit, per landmark
  std::vector<Vec3> from, to;         // the landmark pairs fitted
};

// The fit of the landmarks in `positions` to the same landmarks in `head`
// (nasion, LPA and RPA must be in both; the inion is used when both have it).
// Throws InputError naming the file that lacks a landmark, or when the
// landmarks lie on one line.
FiducialFit fit_fiducials(const std::vector<LabelledPoint> &positions, const std::string &positions_file,
                          const std::vector<LabelledPoint> &head, const std::string &head_file,
                          const LandmarkNames &names, bool with_scale);

struct IcpResult {
  Similarity transform;  // the refined positions -> head transform
  int iterations = 0;
  double mean_before = 0, mean_after = 0;  // mean distance of the electrodes to the scalp
};

// Iterative closest points: each electrode (already moved by `start`) is
// paired with its closest scalp point and the rigid motion that best brings
// them there, the landmarks still held to their head positions, is applied;
// until the mean distance stops falling (at most 100 rounds).  The scale of
// `start` is kept.
IcpResult refine_to_scalp(const ScalpLocator &scalp, const std::vector<Vec3> &electrodes, const Similarity &start,
                          const std::vector<Vec3> &landmarks_from, const std::vector<Vec3> &landmarks_to);
