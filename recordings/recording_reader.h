// Reading a recording in any of the formats the data command knows, chosen
// by the file's name: BioSig's formats (.edf, .bdf, .gdf, .vhdr, ...), text
// tables (.csv, .tsv, .txt), NumPy arrays (.npy) and MATLAB files (.mat).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "recordings/recording.h"

struct RecordingOptions {
  // Channel labels of a NumPy or MATLAB array (which carry none): the array's
  // rows are channels when their count matches, else its columns.
  std::vector<std::string> labels;
  std::string variable;              // the MATLAB variable ("": its only one)
  double sample_rate = -1;           // Hz, for files that do not say; -1: none given
  std::optional<double> input_unit;  // volts per unit of files without units
};

// Read `path`; see read_biosig_recording for `choose` and the result.  Text
// tables have a header line of channel labels and one line per sample; a
// first column headed "time" (or "t", "time_ms", "Time (s)"...) holds the
// sample times, in milliseconds when its header says "ms", and gives the
// sample rate.  Numbers of tables and arrays are in volts unless
// `opts.input_unit` says otherwise.  Throws InputError naming the file for
// anything that cannot be read.
Recording read_recording(const std::string &path, const RecordingOptions &opts, const ChannelChooser &choose);
