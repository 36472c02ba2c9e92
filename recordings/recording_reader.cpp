#include "recordings/recording_reader.h"

#include <cmath>

#include "cli/failure.h"
#include "recordings/biosig_reader.h"
#include "recordings/delimited_text.h"
#include "recordings/mat_file.h"
#include "recordings/npy_file.h"

namespace {

// Units of a time column: 0 when the header does not name one.
double time_column_unit(std::string header) {
  for (char &c : header) c = (char)tolower((unsigned char)c);
  if (header != "t" && header.rfind("time", 0) != 0) return 0;
  return header.find("ms") != std::string::npos ? 1e-3 : 1.0;
}

// Sample rate from evenly spaced times; -1 when there are fewer than two.
double rate_from_times(const NumericArray &t, double unit, const std::string &path) {
  if (t.rows < 2) return -1;
  double step = (t.at(t.rows - 1, 0) - t.at(0, 0)) / (double)(t.rows - 1);
  if (!(step > 0)) fail(path, "time column", "the times do not increase");
  for (long r = 1; r < t.rows; r++)
    if (std::fabs(t.at(r, 0) - t.at(r - 1, 0) - step) > 1e-3 * step)
      fail(path, "line of sample " + std::to_string(r + 1), "the time column is not evenly spaced");
  return 1.0 / (step * unit);
}

// A recording whose numbers are all in memory: `a` holds one channel per
// column, `labels` their names.
Recording from_columns(const NumericArray &a, std::vector<std::string> labels, long first_column, double rate,
                       double scale, const ChannelChooser &choose) {
  Recording rec;
  rec.sample_rate = rate;
  rec.samples = a.rows;
  rec.labels = std::move(labels);
  std::vector<bool> wanted = choose(rec.labels);
  rec.data.assign(rec.labels.size(), {});
  for (size_t c = 0; c < rec.labels.size(); c++) {
    if (!wanted[c]) continue;
    rec.data[c].resize((size_t)a.rows);
    for (long r = 0; r < a.rows; r++) rec.data[c][(size_t)r] = a.at(r, first_column + (long)c) * scale;
  }
  return rec;
}

Recording table_recording(const std::string &path, const RecordingOptions &opts, const ChannelChooser &choose) {
  TextTable t = read_text_table(path, true);
  std::vector<std::string> labels = t.header;
  double rate = opts.sample_rate;
  long first = 0;
  double unit = labels.empty() ? 0 : time_column_unit(labels[0]);
  if (unit > 0) {
    NumericArray times;
    times.rows = t.numbers.rows;
    times.cols = 1;
    for (long r = 0; r < t.numbers.rows; r++) times.values.push_back(t.numbers.at(r, 0));
    double from_times = rate_from_times(times, unit, path);
    if (rate <= 0) rate = from_times;
    labels.erase(labels.begin());
    first = 1;
  }
  for (size_t c = 0; c < labels.size(); c++)
    if (labels[c].empty()) fail(path, "line 1", "column " + std::to_string(c + 1 + first) + " has no label");
  return from_columns(t.numbers, labels, first, rate, opts.input_unit.value_or(1.0), choose);
}

Recording array_recording(const std::string &path, const NumericArray &raw, const RecordingOptions &opts,
                          const ChannelChooser &choose) {
  if (opts.labels.empty()) usage_fail("a NumPy or MATLAB array carries no channel labels: give them with --labels");
  size_t n = opts.labels.size();
  if ((size_t)raw.rows != n && (size_t)raw.cols != n)
    fail(path, "", "holds a " + std::to_string(raw.rows) + " x " + std::to_string(raw.cols) + " array; neither count is the " +
                       std::to_string(n) + " labels given with --labels");
  NumericArray columns = (size_t)raw.rows == n ? transposed(raw) : raw;
  return from_columns(columns, opts.labels, 0, opts.sample_rate, opts.input_unit.value_or(1.0), choose);
}

}  // namespace

Recording read_recording(const std::string &path, const RecordingOptions &opts, const ChannelChooser &choose) {
  std::string suffix = lower_suffix(path);
  if (suffix == ".csv" || suffix == ".tsv" || suffix == ".txt") return table_recording(path, opts, choose);
  if (suffix == ".npy") return array_recording(path, read_npy(path), opts, choose);
  if (suffix == ".mat") return array_recording(path, read_mat_variable(path, opts.variable), opts, choose);
  Recording rec = read_biosig_recording(path, choose, opts.input_unit.value_or(0.0));
  if (opts.sample_rate > 0 && std::fabs(opts.sample_rate - rec.sample_rate) > 1e-9 * rec.sample_rate)
    fail(path, "header", "gives the sample rate " + std::to_string(rec.sample_rate) + " Hz, not the --sfreq given");
  return rec;
}
