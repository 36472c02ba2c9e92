// An EEG recording as the data command uses it, whatever file it came from.
#pragma once

#include <functional>
#include <string>
#include <vector>

// An event marker: its text as the file writes it, and where it stands.
struct Marker {
  std::string text;  // BrainVision description ("S  1"), EDF+ annotation, GDF code
  long sample;       // zero-based sample of its onset
  int code = -1;     // the file's numeric event code, when it has one (GDF)
};

struct Recording {
  double sample_rate = -1;          // Hz; -1 when the file does not say
  long samples = 0;                 // number of samples of every channel
  std::vector<std::string> labels;  // one per channel, in the file's order
  // data[c] holds the samples of channel c in volts, or is empty for a
  // channel the caller did not ask for.
  std::vector<std::vector<double>> data;
  std::vector<Marker> markers;
};

// Chooses, from the labels of a file's channels, those whose samples are to
// be read (true) and those to skip (false).  Called once, before the samples
// are read, so that only the channels needed are held in memory.
using ChannelChooser = std::function<std::vector<bool>(const std::vector<std::string> &labels)>;
