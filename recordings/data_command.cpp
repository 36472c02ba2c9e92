#include "recordings/data_command.h"

#include <cmath>
#include <cstdio>

#include "cli/args.h"
#include "cli/failure.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "cli/subcommand.h"
#include "placement/electrode_file.h"
#include "recordings/channel_match.h"
#include "recordings/matrix_file.h"
#include "recordings/recording_reader.h"
#include "recordings/selection.h"
#include "recordings/text_lists.h"

namespace {

const char *HELP = R"(usage: brelix-prep data RECORDING --electrodes FILE.elc -o DATA.mat [options]

Turns an EEG recording into brelix's measured data: a matrix file with one
row per electrode of the electrode file (in its order) and one column per
sample, whose text tail gives the sample frequency brelix reads and where the
data came from.  Channels are matched to electrode labels ignoring case, with
T3/T7, T4/T8, T5/P7 and T6/P8 taken as the same place; a leading "EEG " and a
trailing "-Ref" of a channel label are ignored.  Channels no electrode needs
are listed and dropped; an electrode without a channel is an error.

Recordings: EDF, EDF+, BDF, GDF, BrainVision (.vhdr, with its .eeg and .vmrk)
through BioSig; CSV/TSV tables (.csv, .tsv, .txt: a header line of channel
labels, one line per sample, an optional first column "time" in seconds or
"time_ms"); NumPy .npy and MATLAB .mat (v5, v7.3) 2-D arrays, with --labels.

options:
  --electrodes FILE   brelix electrode file whose labels pick the channels (required)
  -o, --output FILE   the data matrix file to write (required)
  --exclude LABELS    comma-separated electrodes to leave out (bad channels);
                      needs --electrodes-out
  --electrodes-out FILE
                      write the electrode file without the excluded electrodes,
                      matching the rows of the data
  --tmin SECONDS      first time to keep (time 0 is the first sample)
  --tmax SECONDS      last time to keep
  --samples A:B       samples A to B, counted from 1, both kept
  --average MARKER    average the epochs around every marker MARKER, written as
                      the file writes it: a BrainVision description ("S  1"),
                      an EDF+ annotation text, a GDF event code (768 or 0x300)
  --epoch A:B         seconds around each marker, e.g. -0.1:0.4 (with --average;
                      the first column is the epoch's start)
  --baseline A:B      seconds around each marker whose mean is subtracted,
                      e.g. -0.1:0 (within the epoch)
  --unit V|uV         unit of the written data (default V)
  --input-unit V|mV|uV
                      unit of the numbers of tables and arrays (default V),
                      and of recording channels whose file gives no unit
  --sfreq HZ          sample frequency of tables without a time column and of
                      arrays (a recording's own header must agree with it)
  --labels L1,L2,...  channel labels of a .npy or .mat array
  --variable NAME     the MATLAB variable to read (default: the only one)
  --quiet             no notes on standard error

examples:
  brelix-prep data run1.vhdr --electrodes head.elc -o evoked.mat \
      --average "S  1" --epoch -0.1:0.4 --baseline -0.1:0
  brelix-prep data rest.edf --electrodes head.elc -o rest.mat --tmin 10 --tmax 12
  brelix-prep data sig.npy --labels Fp1,Fp2,Cz --sfreq 500 --electrodes head.elc -o d.mat
)";

double unit_factor(const std::string &unit, const std::string &option) {
  if (unit == "V") return 1.0;
  if (unit == "mV") return 1e-3;
  if (unit == "uV" || unit == "\xc2\xb5V") return 1e-6;
  usage_fail(option + ": '" + unit + "' is none of V, mV, uV");
}

void check_combinations(const ParsedArgs &a) {
  bool times = a.has("tmin") || a.has("tmax");
  if (a.positional.size() != 1) usage_fail("give exactly one recording");
  if (!a.has("electrodes")) usage_fail("--electrodes is required");
  if (!a.has("output")) usage_fail("-o is required");
  if (a.has("samples") && times) usage_fail("--samples and --tmin/--tmax choose the same thing; give one");
  if (a.has("average") && (times || a.has("samples"))) usage_fail("--average takes its samples from --epoch, not --tmin/--tmax/--samples");
  if (a.has("average") != a.has("epoch")) usage_fail("--average and --epoch go together");
  if (a.has("baseline") && !a.has("average")) usage_fail("--baseline needs --average");
  if (a.has("exclude") && !a.has("electrodes-out"))
    usage_fail("--exclude needs --electrodes-out: brelix needs the electrode file that matches the data's rows");
}

// The electrodes that stay, after --exclude.
std::vector<ElectrodeEntry> kept_electrodes(const ParsedArgs &a, const std::string &path) {
  std::vector<ElectrodeEntry> all = read_electrode_file(path);
  for (size_t e = 0; e < all.size(); e++)
    if (!all[e].has_label)
      fail(path, "electrode " + std::to_string(e + 1), "has no label to match a channel by");
  std::vector<bool> drop(all.size(), false);
  for (const auto &list : a.values.count("exclude") ? a.values.at("exclude") : std::vector<std::string>{})
    for (const auto &label : split_commas(list)) {
      bool found = false;
      for (size_t e = 0; e < all.size(); e++)
        if (canonical_label(all[e].label) == canonical_label(label)) drop[e] = found = true;
      if (!found) usage_fail("--exclude: the electrode file has no electrode " + label);
    }
  std::vector<ElectrodeEntry> kept;
  for (size_t e = 0; e < all.size(); e++)
    if (!drop[e]) kept.push_back(all[e]);
  if (kept.empty()) usage_fail("--exclude leaves no electrode");
  return kept;
}

}  // namespace

int prep_data(int argc, char **argv) {
  if (wants_help(argc, argv)) {
    fputs(HELP, stdout);
    return 0;
  }
  ParsedArgs a = parse_args(argc, argv, 1,
                            {{"electrodes", true},    {"output", true, 'o'}, {"electrodes-out", true}, {"exclude", true},
                             {"tmin", true},          {"tmax", true},        {"samples", true},        {"average", true},
                             {"epoch", true},         {"baseline", true},    {"unit", true},           {"input-unit", true},
                             {"sfreq", true},         {"labels", true},      {"variable", true},       {"quiet", false}});
  check_combinations(a);
  set_quiet(a.has("quiet"));
  const std::string recording_path = a.positional[0];
  double out_scale = 1.0 / unit_factor(a.get_or("unit", "V"), "--unit");
  if (a.get_or("unit", "V") == "mV") usage_fail("--unit: brelix data are written in V or uV");

  RecordingOptions ropts;
  if (a.has("labels")) ropts.labels = split_commas(*a.get("labels"));
  ropts.variable = a.get_or("variable", "");
  if (a.has("sfreq")) {
    ropts.sample_rate = *a.number("sfreq");
    if (!(ropts.sample_rate > 0)) usage_fail("--sfreq must be above 0");
  }
  if (a.has("input-unit")) ropts.input_unit = unit_factor(*a.get("input-unit"), "--input-unit");

  std::vector<ElectrodeEntry> electrodes = kept_electrodes(a, *a.get("electrodes"));
  std::vector<std::string> labels;
  for (const auto &e : electrodes) labels.push_back(e.label);

  ChannelMatch match;
  Recording rec = read_recording(recording_path, ropts, [&](const std::vector<std::string> &channels) {
    match = match_channels(labels, channels, recording_path);
    std::vector<bool> wanted(channels.size(), false);
    for (int c : match.channel) wanted[(size_t)c] = true;
    return wanted;
  });
  if (!match.extra.empty()) note("channels without an electrode, dropped: " + join(match.extra, ", "));
  std::vector<const std::vector<double> *> rows;
  for (int c : match.channel) rows.push_back(&rec.data[(size_t)c]);

  bool timed = a.has("tmin") || a.has("tmax") || a.has("average");
  if (timed && !(rec.sample_rate > 0))
    usage_fail("the recording gives no sample frequency; say it with --sfreq to select by time");
  std::string selection;
  NumericArray data;
  if (a.has("average")) {
    EpochOptions eo{*a.get("average"), parse_span(*a.get("epoch"), "--epoch"), std::nullopt};
    if (a.has("baseline")) eo.baseline = parse_span(*a.get("baseline"), "--baseline");
    long epochs = 0;
    data = average_epochs(rows, rec.markers, eo, rec.sample_rate, rec.samples, recording_path, &epochs);
    note("averaged " + std::to_string(epochs) + " epochs around marker '" + eo.marker + "'");
    selection = "epochs\n" + std::to_string(epochs) + " around marker '" + eo.marker + "', " + seconds_text(eo.epoch.from) +
                " to " + seconds_text(eo.epoch.to) + " s" +
                (eo.baseline ? ", baseline " + seconds_text(eo.baseline->from) + " to " + seconds_text(eo.baseline->to) + " s" : "") +
                "\n";
  } else {
    SampleRange range{0, rec.samples};
    if (a.has("samples"))
      range = sample_window(parse_span(*a.get("samples"), "--samples"), rec.samples, recording_path);
    else if (timed)
      range = time_window({a.number("tmin").value_or(0.0), a.number("tmax").value_or((rec.samples - 1) / rec.sample_rate)},
                          rec.sample_rate, rec.samples, recording_path);
    if (range.count == 0) fail(recording_path, "", "holds no samples");
    data = cut_rows(rows, range);
    selection = "window\nsamples " + std::to_string(range.first + 1) + " to " + std::to_string(range.first + range.count) +
                "\n";
  }
  if ((double)data.rows * (double)data.cols > 1e9) fail(recording_path, "", "too many samples for one brelix matrix file");
  for (double &v : data.values) v *= out_scale;

  // The sample frequency comes first: brelix keeps only the tail's first
  // kilobyte.
  std::string tail = sample_frequency_item(rec.sample_rate) + "unit\n" + a.get_or("unit", "V") + "\n" + "data from\n" +
                     recording_path + "\n" + selection + "channels\n" + join(labels, " ") + "\n";
  std::vector<PendingOutput> outputs = {{*a.get("output"), [&](FILE *fp) { write_matrix(fp, data, tail); }}};
  if (a.has("electrodes-out"))
    outputs.push_back({*a.get("electrodes-out"), [&](FILE *fp) { write_electrodes(fp, electrodes); }});
  write_files_atomically(outputs);
  note("wrote " + *a.get("output") + ": " + std::to_string(data.rows) + " electrodes x " + std::to_string(data.cols) +
       " samples");
  return 0;
}
