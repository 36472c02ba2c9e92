// The command line of brelix-prep electrodes.
#pragma once

#include <string>
#include <vector>

#include "placement/coregistration.h"

struct ElectrodesOptions {
  std::string scalp;            // --scalp: head folder, geometry.ans or a surface file
  std::string positions;        // the position file ("" with --system)
  std::string output;           // -o
  std::string units = "auto";   // --units of every position file
  std::string transform;        // --transform FILE
  std::string fiducials;        // --fiducials FILE (head-frame landmarks)
  std::string system;           // --system 10-20 | 10-10 | 10-5
  bool scale = false, icp = false, quiet = false;
  double max_distance_mm = 10;
  std::vector<std::string> keep;  // --labels: only these, in this order
  std::vector<std::string> drop;  // --drop
  LandmarkNames names;            // with --nasion, --lpa, --rpa, --inion added
};

extern const char *const electrodes_help;

// Parse and check the command line (argv[0] is "electrodes"); usage errors
// throw InputError.
ElectrodesOptions parse_electrodes_options(int argc, char **argv);
