// What `brelix-prep head` writes: the names of the triangle files, the
// geometry answers for brelix, and the report of what was read, changed and
// checked.
#pragma once

#include <string>
#include <vector>

#include "headmodel/head_options.h"
#include "headmodel/surface_pairs.h"

// One surface from its input file to the written triangle file.
struct PreparedSurface {
  std::string input;         // the file as the user named it
  std::string format;        // as the reader recognised it
  std::string name;          // written file, within the output folder
  long read_vertices = 0, read_triangles = 0;
  long polygons_split = 0, reader_welded = 0;
  SurfaceLog log;
  MeshQuality before, after;  // after repairs; after remeshing and gap fixing
  bool remeshed = false;
  GapFix gap_fix;
  Mesh mesh;                  // the final surface, metres
};

// "K_STEM.tri" for surface number `k` (from 1): the input's file name without
// folder and last suffix, characters other than letters, digits, '-' and '_'
// replaced, cut to keep brelix's answers short.
std::string output_name(size_t k, const std::string &input);

// The lines brelix's geometry dialogue reads: per surface "DIR/NAME" ("!"
// before the innermost when isolated) and its conductivity, then an empty
// line.  An answer longer than brelix reads is a usage error.
std::string geometry_answers(const HeadOptions &options, const std::vector<std::string> &names);

// report.txt.
struct HeadReport {
  std::string units;      // how the unit was chosen, one line
  std::string transform;  // "none" or the file
  std::vector<PreparedSurface> surfaces;
  std::vector<SurfaceGap> gaps;  // between surface k and k+1
};
std::string report_text(const HeadOptions &options, const HeadReport &report);
