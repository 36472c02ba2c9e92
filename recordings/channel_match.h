// Matching a recording's channels to the electrodes of a brelix electrode
// file by their labels.
#pragma once

#include <string>
#include <vector>

// The form of a label that matching compares: lower case, without
// surrounding blanks, a leading "EEG " and a trailing "-Ref", with the old
// 10-20 names T3, T4, T5, T6 turned into the new T7, T8, P7, P8 (the same
// places on the head).
std::string canonical_label(const std::string &label);

struct ChannelMatch {
  std::vector<int> channel;        // per electrode, the recording channel it reads
  std::vector<std::string> extra;  // channels no electrode reads, in file order
};

// Match every electrode label to exactly one channel label.
//   recording: names the recording in messages.
// Throws InputError for electrode labels that are the same after
// canonical_label, for a channel label that two channels share when an
// electrode needs it, and for electrodes without a channel (naming them all).
ChannelMatch match_channels(const std::vector<std::string> &electrodes, const std::vector<std::string> &channels,
                            const std::string &recording);
