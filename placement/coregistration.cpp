#include "placement/coregistration.h"

#include <cmath>
#include <stdexcept>
#include <strings.h>

#include "cli/failure.h"
#include "placement/vec3.h"

const char *const landmark_name[LANDMARKS] = {"nasion", "LPA", "RPA", "inion"};

LandmarkNames::LandmarkNames() {
  names[NASION] = {"Nz", "Nasion", "FidNz"};
  names[LPA] = {"LPA", "FidT9"};
  names[RPA] = {"RPA", "FidT10"};
  names[INION] = {"Iz", "Inion"};
}

bool LandmarkNames::landmark_only(const std::string &label) {
  static const LandmarkNames defaults;
  return defaults.which(label) >= 0;
}

int LandmarkNames::which(const std::string &label) const {
  for (int k = 0; k < LANDMARKS; k++)
    for (const std::string &n : names[k])
      if (strcasecmp(n.c_str(), label.c_str()) == 0) return k;
  return -1;
}

std::optional<Vec3> find_landmark(const std::vector<LabelledPoint> &points, const LandmarkNames &names, Landmark which,
                                  const std::string &file) {
  const LabelledPoint *found = nullptr;
  for (const LabelledPoint &p : points)
    if (names.which(p.label) == which) {
      if (found)
        fail(file, p.place, "a second " + std::string(landmark_name[which]) + " ('" + p.label + "'; the first is '" +
                                found->label + "' at " + found->place + ")");
      found = &p;
    }
  if (!found) return std::nullopt;
  return found->p;
}

FiducialFit fit_fiducials(const std::vector<LabelledPoint> &positions, const std::string &positions_file,
                          const std::vector<LabelledPoint> &head, const std::string &head_file,
                          const LandmarkNames &names, bool with_scale) {
  FiducialFit fit;
  std::vector<Vec3> &from = fit.from, &to = fit.to;
  for (int k = 0; k < LANDMARKS; k++) {
    const auto a = find_landmark(positions, names, (Landmark)k, positions_file);
    const auto b = find_landmark(head, names, (Landmark)k, head_file);
    if (k != INION && (!a || !b)) {
      std::string all;
      for (const std::string &n : names.names[k]) all += (all.empty() ? "" : ", ") + n;
      fail(a ? head_file : positions_file, "",
           "no " + std::string(landmark_name[k]) + " (a label " + all + "; other names with --" +
               (k == NASION ? "nasion" : k == LPA ? "lpa" : "rpa") + ")");
    }
    if (!a || !b) continue;
    from.push_back(*a);
    to.push_back(*b);
    fit.used.push_back(landmark_name[k]);
  }
  try {
    fit.transform = fit_similarity(from, to, with_scale);
  } catch (const std::invalid_argument &e) {
    fail(positions_file, "", std::string("fiducials: ") + e.what());
  }
  for (size_t i = 0; i < from.size(); i++) fit.residual.push_back(distance(fit.transform.apply(from[i]), to[i]));
  return fit;
}

IcpResult refine_to_scalp(const ScalpLocator &scalp, const std::vector<Vec3> &electrodes, const Similarity &start,
                          const std::vector<Vec3> &landmarks_from, const std::vector<Vec3> &landmarks_to) {
  IcpResult r;
  r.transform = start;
  auto mean_distance = [&](const Similarity &s, std::vector<Vec3> *closest) {
    double sum = 0;
    for (const Vec3 &e : electrodes) {
      const SurfacePoint q = scalp.closest(s.apply(e));
      sum += q.distance;
      if (closest) closest->push_back(q.point);
    }
    return electrodes.empty() ? 0 : sum / (double)electrodes.size();
  };
  r.mean_before = r.mean_after = mean_distance(r.transform, nullptr);
  for (int round = 0; round < 100 && !electrodes.empty(); round++) {
    std::vector<Vec3> from, to;
    for (const Vec3 &e : electrodes) from.push_back(r.transform.apply(e));
    mean_distance(r.transform, &to);
    for (size_t i = 0; i < landmarks_from.size(); i++) {
      from.push_back(r.transform.apply(landmarks_from[i]));
      to.push_back(landmarks_to[i]);
    }
    Similarity step;
    try {
      step = fit_similarity(from, to, false);
    } catch (const std::invalid_argument &) {
      break;  // too few points to move: keep what there is
    }
    const Similarity next = step.after(r.transform);
    const double mean = mean_distance(next, nullptr);
    // Stop when a round gains less than a micrometre (or loses).
    if (!(mean < r.mean_after - 1e-6)) break;
    r.transform = next;
    r.mean_after = mean;
    r.iterations = round + 1;
  }
  return r;
}
