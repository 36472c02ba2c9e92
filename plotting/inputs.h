// Reading what the picture commands are given: electrodes placed on the
// scalp, the sample chosen from a matrix file, dipole directions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/args.h"
#include "placement/electrode_file.h"
#include "plotting/figure.h"
#include "plotting/matrix_file.h"
#include "plotting/position_file.h"
#include "matrixio/paths.h"  // base_name, for titles
#include "surface/mesh.h"

// Print a command's help text on standard output; returns 0, the status
// of a run that asked for it.
int show_help(const char *help);

// The command line of a picture command (argv[0] is the command's name)
// parsed against `options`: a usage error for any positional argument;
// --quiet applied.
ParsedArgs picture_args(int argc, char **argv, const std::vector<OptionSpec> &options);

// The value of a required option; a usage error names it when missing.
std::string required(const ParsedArgs &args, const std::string &name);

// The output name (-o/--output), checked for a suffix the program can
// write before anything is read.
std::string output_path(const ParsedArgs &args);

// Write the figure of size width x height to `out`, scaled to --width
// pixels when given (a usage error unless 200..6000).
void write_picture(const ParsedArgs &args, const std::string &out, int width, int height, const DrawFunction &draw);

// The head an electrode file belongs to: --head when given, else the
// folder of the electrode file when it holds geometry.ans (as `brelix-prep`
// leaves them together).  A usage error when neither.
std::string head_of_electrodes(const ParsedArgs &args, const std::string &electrodes);

// Electrode positions and labels: the file `electrodes` placed on the scalp
// of `head` (a head folder or a triangle file).
struct PlacedElectrodes {
  std::vector<Vec3> positions;
  std::vector<std::string> labels;
  Mesh scalp;
};
PlacedElectrodes place_electrodes(const std::string &electrodes, const std::string &head);

// The column of `m` that --sample N (counted from 1) or --time T (seconds
// from the first sample, by the file's sample frequency) chooses; the first
// when neither is given.  Returns it counted from 0.  Throws InputError
// naming `path` for a sample outside the file, or a time in a file whose
// sample frequency is unknown.
int chosen_sample(const ParsedArgs &args, const MatrixFile &m, const std::string &path);

// Throws InputError naming `path` unless `m` has one row per electrode.
void check_rows(const MatrixFile &m, const std::string &path, size_t electrodes, const std::string &electrode_file);

// The moment direction of source `k` for a picture: its stationary
// direction from the position file (signed by its amplitude in `moments`
// when given), or the three moment rows of `moments` at `sample`.  None
// when neither tells it.
std::optional<Vec3> dipole_moment(const std::vector<SourcePosition> &sources, size_t k, const MatrixFile *moments,
                                  int sample);

// Moving dipoles (the position file says "position moving") are placed
// anew at every sample: their positions at `sample` are the rows after the
// moment rows of `moments`, three per source, and replace the file's
// starting positions.  Nothing changes for other dipoles.  `moments` must
// have passed check_moment_rows.
void take_moving_positions(std::vector<SourcePosition> &sources, const MatrixFile &moments, int sample);

// Throws InputError naming `path` when `moments` does not have the rows that
// `sources` need (one or three per source, or these and three position rows
// per source for moving dipoles).
void check_moment_rows(const MatrixFile &moments, const std::string &path, const std::vector<SourcePosition> &sources);
