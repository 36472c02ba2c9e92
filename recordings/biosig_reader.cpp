#include "recordings/biosig_reader.h"

#include <biosig.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli/failure.h"
#include "recordings/edf_header.h"

namespace {

// Physical dimension codes carry the SI prefix in their low five bits; the
// rest names the quantity.  4256 is the volt.
constexpr uint16_t VOLT_CODE = 4256;
// BioSig's code for the start of a new segment, which is no user's marker.
constexpr uint16_t NEW_SEGMENT = 0x7ffe;

struct HeaderCloser {
  void operator()(HDRTYPE *h) const {
    sclose(h);
    destructHDR(h);
  }
};
using Header = std::unique_ptr<HDRTYPE, HeaderCloser>;

// BioSig's own explanation of its last failure on `h`, or a plain one.
std::string biosig_reason(HDRTYPE *h) {
  if (h && h->AS.B4C_ERRMSG && *h->AS.B4C_ERRMSG) {
    std::string m = h->AS.B4C_ERRMSG;
    while (!m.empty() && (m.back() == '\n' || m.back() == ' ')) m.pop_back();
    return m;
  }
  return "not a recording BioSig can read";
}

// Open `path` for reading, refusing files that are missing or that BioSig
// cannot make sense of.
Header open_recording(const std::string &path) {
  FILE *probe = fopen(path.c_str(), "rb");
  if (!probe) fail(path, "", std::string("cannot open: ") + strerror(errno));
  fclose(probe);
  check_edf_header(path);
  check_gdf_header(path);
  Header h(sopen(path.c_str(), "r", nullptr));
  if (!h || biosig_check_error(h.get()) || h->NS == 0 || h->SPR == 0 || h->NRec <= 0 || !(h->SampleRate > 0))
    fail(path, "header", "cannot be read as a recording (" + biosig_reason(h.get()) + ")");
  // BioSig leaves a data file it could not open (a BrainVision .eeg that is
  // missing) for sread to trip over.
  // (Only the handle of the kind in use is set; the other is left as it was.)
  if (h->FILE.COMPRESSION ? !h->FILE.gzFID : !h->FILE.FID) fail(path, "", "its data file cannot be opened");
  // Records the header announces but the file does not hold would have sread
  // allocate for them and read past the end.
  struct stat st;
  if (h->FILE.FID && !h->FILE.COMPRESSION && fstat(fileno(h->FILE.FID), &st) == 0 && S_ISREG(st.st_mode) &&
      (double)h->HeadLen + (double)h->NRec * (double)h->AS.bpb > (double)st.st_size)
    fail(path, "data", "cut short: holds " + std::to_string(st.st_size) + " bytes, its header announces " +
                           std::to_string(h->NRec) + " data records of " + std::to_string(h->AS.bpb) + " bytes");
  // BrainVision states no length; a data file that ends inside a sample has
  // lost its end, which BioSig would silently drop.
  if (h->FILE.FID && h->AS.bpb > 0 && (h->TYPE == BrainVision || h->TYPE == BrainVisionVAmp) &&
      fstat(fileno(h->FILE.FID), &st) == 0 && st.st_size >= (off_t)h->HeadLen &&
      ((size_t)st.st_size - h->HeadLen) % h->AS.bpb != 0)
    fail(path, "data", "cut short: its data file ends inside a sample");
  return h;
}

// The channels BioSig delivers samples of, as indices into h->CHANNEL
// (annotation channels are switched off by BioSig itself).
std::vector<int> data_channels(HDRTYPE *h) {
  std::vector<int> out;
  for (int k = 0; k < h->NS; k++)
    if (h->CHANNEL[k].OnOff == 1) out.push_back(k);
  return out;
}

// Factor from the channel's physical values to volts.
double volt_scale(const std::string &path, const CHANNEL_TYPE &c, double unitless_scale) {
  if (c.PhysDimCode == 0) {
    if (unitless_scale > 0) return unitless_scale;
    fail(path, std::string("channel ") + c.Label,
         "the file gives no unit for it (say which with --input-unit)");
  }
  if ((c.PhysDimCode & 0xffe0) != VOLT_CODE)
    fail(path, std::string("channel ") + c.Label,
         std::string("holds '") + (PhysDim3(c.PhysDimCode) ? PhysDim3(c.PhysDimCode) : "an unknown unit") +
             "', not a voltage");
  return PhysDimScale(c.PhysDimCode);
}

std::vector<Marker> read_markers(HDRTYPE *h) {
  std::vector<Marker> out;
  double to_samples = h->EVENT.SampleRate > 0 ? h->SampleRate / h->EVENT.SampleRate : 1.0;
  for (size_t n = 0; n < h->EVENT.N; n++) {
    uint16_t typ = 0;
    uint32_t pos = 0;
    const char *desc = nullptr;
    biosig_get_nth_event(h, n, &typ, &pos, nullptr, nullptr, nullptr, &desc);
    if (typ == NEW_SEGMENT) continue;
    Marker m;
    m.text = desc ? desc : "";
    m.sample = std::lround(pos * to_samples);
    // Only GDF's codes mean the same in every file; other formats number
    // their texts as they come.
    if (h->TYPE == GDF || h->TYPE == GDF1) m.code = typ;
    out.push_back(m);
  }
  return out;
}

}  // namespace

Recording read_biosig_recording(const std::string &path, const ChannelChooser &choose, double unitless_scale) {
  Header h = open_recording(path);
  HDRTYPE *hdr = h.get();
  std::vector<int> channels = data_channels(hdr);
  Recording rec;
  rec.sample_rate = hdr->SampleRate;
  rec.samples = (long)(hdr->NRec * hdr->SPR);
  for (int k : channels) rec.labels.push_back(hdr->CHANNEL[k].Label);
  rec.markers = read_markers(hdr);

  std::vector<bool> wanted = choose(rec.labels);
  std::vector<double> scale(channels.size(), 0.0);
  for (size_t i = 0; i < channels.size(); i++) {
    CHANNEL_TYPE &c = hdr->CHANNEL[channels[i]];
    c.OnOff = wanted[i] ? 1 : 0;
    if (!wanted[i]) continue;
    // BioSig would repeat the samples of a slower channel to fill the
    // record; such a channel does not belong in one data matrix.
    if (c.SPR != hdr->SPR)
      fail(path, std::string("channel ") + c.Label,
           "is sampled at " + std::to_string(hdr->SampleRate * c.SPR / hdr->SPR) + " Hz, the recording at " +
               std::to_string(hdr->SampleRate) + " Hz");
    scale[i] = volt_scale(path, c, unitless_scale);
  }
  rec.data.assign(channels.size(), {});
  size_t used = 0;
  for (bool w : wanted) used += w;
  if (used == 0) return rec;

  hdr->FLAG.ROW_BASED_CHANNELS = 0;
  hdr->FLAG.UCAL = 0;
  size_t records = sread(nullptr, 0, (size_t)hdr->NRec, hdr);
  size_t rows = hdr->data.size[0];
  if (records != (size_t)hdr->NRec || rows != (size_t)rec.samples || hdr->data.size[1] != used || !hdr->data.block)
    fail(path, "data", "cut short: holds " + std::to_string(records) + " of the " + std::to_string(hdr->NRec) +
                           " data records its header announces");
  size_t column = 0;
  for (size_t i = 0; i < channels.size(); i++) {
    if (!wanted[i]) continue;
    const double *src = hdr->data.block + column * rows;
    rec.data[i].resize(rows);
    for (size_t s = 0; s < rows; s++) rec.data[i][s] = src[s] * scale[i];
    column++;
  }
  return rec;
}
