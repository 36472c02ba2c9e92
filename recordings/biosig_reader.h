// EDF, EDF+, BDF, GDF and BrainVision recordings, read through BioSig.
#pragma once

#include <string>

#include "recordings/recording.h"

// Read the recording `path` (for BrainVision the .vhdr; its .eeg and .vmrk
// are found through it).
//   choose: picks the channels whose samples are read, from their labels.
//   unitless_scale: factor to volts for channels whose file gives no unit
//   (0: such a channel is an error when chosen).
// Returns every channel's label, the chosen channels' samples in volts, the
// sample rate and the event markers (EDF+ annotations, BrainVision marker
// descriptions, GDF event codes and their descriptions).  Throws InputError
// naming the file for a file that cannot be opened or read, a recording cut
// short, and a chosen channel that is sampled at another rate or is not a
// voltage.
Recording read_biosig_recording(const std::string &path, const ChannelChooser &choose, double unitless_scale);
