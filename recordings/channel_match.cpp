#include "recordings/channel_match.h"

#include <map>

#include "cli/failure.h"
#include "recordings/text_lists.h"

namespace {

bool ends_with(const std::string &s, const std::string &end) {
  return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::string canonical_label(const std::string &label) {
  std::string s;
  for (char c : label) s += (char)tolower((unsigned char)c);
  size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
  s = a == std::string::npos ? "" : s.substr(a, b - a + 1);
  if (s.rfind("eeg ", 0) == 0) s = s.substr(4);
  if (ends_with(s, "-ref")) s.resize(s.size() - 4);
  static const std::map<std::string, std::string> renamed = {{"t3", "t7"}, {"t4", "t8"}, {"t5", "p7"}, {"t6", "p8"}};
  auto it = renamed.find(s);
  return it == renamed.end() ? s : it->second;
}

ChannelMatch match_channels(const std::vector<std::string> &electrodes, const std::vector<std::string> &channels,
                            const std::string &recording) {
  std::map<std::string, size_t> electrode_of;
  for (size_t e = 0; e < electrodes.size(); e++) {
    auto [it, fresh] = electrode_of.emplace(canonical_label(electrodes[e]), e);
    if (!fresh)
      fail(recording, "", "electrodes " + electrodes[it->second] + " and " + electrodes[e] +
                              " name the same place; every electrode needs its own label");
  }
  ChannelMatch m;
  m.channel.assign(electrodes.size(), -1);
  for (size_t c = 0; c < channels.size(); c++) {
    auto it = electrode_of.find(canonical_label(channels[c]));
    if (it == electrode_of.end()) {
      m.extra.push_back(channels[c]);
      continue;
    }
    int &slot = m.channel[it->second];
    if (slot >= 0)
      fail(recording, "", "channels " + channels[(size_t)slot] + " and " + channels[c] + " both match electrode " +
                              electrodes[it->second]);
    slot = (int)c;
  }
  std::vector<std::string> missing;
  for (size_t e = 0; e < electrodes.size(); e++)
    if (m.channel[e] < 0) missing.push_back(electrodes[e]);
  if (!missing.empty()) fail(recording, "", "has no channel for electrode" + std::string(missing.size() > 1 ? "s " : " ") + join(missing, ", "));
  return m;
}
