#include "recordings/selection.h"

#include <cmath>
#include <cstdlib>
#include <set>

#include "cli/args.h"
#include "cli/failure.h"
#include "recordings/text_lists.h"

namespace {

SampleRange checked_range(long first, long last, long samples, const std::string &what, const std::string &file) {
  if (first < 0 || last >= samples)
    fail(file, "", what + " reaches past the recording, which holds samples 1 to " + std::to_string(samples));
  if (last < first) fail(file, "", what + " holds no sample");
  return {first, last - first + 1};
}

std::string secs(double s) { return seconds_text(s) + " s"; }

// How a marker is named to the user: its text, or its code when it has none.
std::string marker_name(const Marker &m) { return m.text.empty() && m.code >= 0 ? std::to_string(m.code) : m.text; }

}  // namespace

Span parse_span(const std::string &text, const std::string &what) {
  size_t colon = text.find(':');
  if (colon == std::string::npos) usage_fail(what + ": '" + text + "' is not of the form a:b");
  Span s{parse_number(text.substr(0, colon), what), parse_number(text.substr(colon + 1), what)};
  if (s.to < s.from) usage_fail(what + ": '" + text + "' ends before it begins");
  return s;
}

SampleRange time_window(Span seconds, double rate, long samples, const std::string &file) {
  // A sample exactly on a bound belongs to the window, even when the bound
  // times the rate comes out a hair off an integer.
  long first = (long)std::ceil(seconds.from * rate - 1e-9);
  long last = (long)std::floor(seconds.to * rate + 1e-9);
  return checked_range(first, last, samples, "the window " + secs(seconds.from) + " to " + secs(seconds.to), file);
}

SampleRange sample_window(Span numbers, long samples, const std::string &file) {
  if (numbers.from != std::floor(numbers.from) || numbers.to != std::floor(numbers.to))
    usage_fail("--samples: sample numbers are whole numbers");
  return checked_range((long)numbers.from - 1, (long)numbers.to - 1, samples,
                       "samples " + std::to_string((long)numbers.from) + " to " + std::to_string((long)numbers.to), file);
}

bool marker_matches(const Marker &m, const std::string &wanted) {
  if (wanted.empty()) return false;  // events without text are not "the marker ''"
  if (m.text == wanted) return true;
  if (m.code < 0) return false;
  char *end = nullptr;
  long v = strtol(wanted.c_str(), &end, 0);
  return *end == 0 && v == m.code;
}

NumericArray cut_rows(const std::vector<const std::vector<double> *> &rows, SampleRange range) {
  NumericArray a;
  a.rows = (long)rows.size();
  a.cols = range.count;
  a.values.reserve((size_t)(a.rows * a.cols));
  for (const auto *row : rows)
    a.values.insert(a.values.end(), row->begin() + range.first, row->begin() + range.first + range.count);
  return a;
}

NumericArray average_epochs(const std::vector<const std::vector<double> *> &rows, const std::vector<Marker> &markers,
                            const EpochOptions &opts, double rate, long samples, const std::string &file,
                            long *epochs) {
  long from = std::lround(opts.epoch.from * rate), to = std::lround(opts.epoch.to * rate);
  long base_from = from, base_to = from - 1;
  if (opts.baseline) {
    base_from = std::lround(opts.baseline->from * rate);
    base_to = std::lround(opts.baseline->to * rate);
    if (base_from < from || base_to > to)
      usage_fail("--baseline must lie within --epoch");
  }
  NumericArray sum;
  sum.rows = (long)rows.size();
  sum.cols = to - from + 1;
  sum.values.assign((size_t)(sum.rows * sum.cols), 0.0);
  long count = 0;
  for (const Marker &m : markers) {
    if (!marker_matches(m, opts.marker)) continue;
    long first = m.sample + from, last = m.sample + to;
    if (first < 0 || last >= samples)
      fail(file, "marker '" + marker_name(m) + "' at " + secs(m.sample / rate),
           "its epoch " + secs(opts.epoch.from) + " to " + secs(opts.epoch.to) + " reaches past the " +
               (first < 0 ? "start" : "end") + " of the recording (" + secs(samples / rate) + ")");
    for (size_t r = 0; r < rows.size(); r++)
      for (long k = 0; k < sum.cols; k++) sum.values[r * (size_t)sum.cols + (size_t)k] += (*rows[r])[(size_t)(first + k)];
    count++;
  }
  if (count == 0) {
    std::set<std::string> names;
    for (const Marker &m : markers) names.insert(marker_name(m));
    std::string list;
    for (const auto &n : names) list += (list.empty() ? "'" : ", '") + n + "'";
    fail(file, "", "has no marker '" + opts.marker + "'" + (list.empty() ? " (it has no markers at all)" : " (its markers: " + list + ")"));
  }
  for (long r = 0; r < sum.rows; r++) {
    double *row = sum.values.data() + r * sum.cols;
    for (long k = 0; k < sum.cols; k++) row[k] /= (double)count;
    if (base_to < base_from) continue;
    double base = 0;
    for (long k = base_from - from; k <= base_to - from; k++) base += row[k];
    base /= (double)(base_to - base_from + 1);
    for (long k = 0; k < sum.cols; k++) row[k] -= base;
  }
  *epochs = count;
  return sum;
}
