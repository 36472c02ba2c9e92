// The command line of `brelix-prep head`.
#pragma once

#include <string>
#include <vector>

#include "headmodel/surface_prep.h"

struct HeadOptions {
  std::vector<std::string> surfaces;  // from the outermost to the innermost
  std::string out_dir;                // -o DIR as given
  std::string units = "auto";         // mm, cm, m or auto
  std::string transform_file;         // empty: none
  std::vector<double> sigma;          // S/m, one per surface
  bool isolated = false;              // "!" before the innermost surface
  double min_gap = 0.002;             // metres
  bool fix_gap = false;
  RepairChoices repair;
  std::vector<RemeshTarget> remesh;   // one per surface, or empty: keep the triangles
};

// Reads argv (argv[0] is "head") into options, with the documented
// defaults; a wrong command line is a usage error (InputError).
HeadOptions parse_head_options(int argc, char **argv);

// The text of `brelix-prep head --help`.
extern const char *const head_help;
