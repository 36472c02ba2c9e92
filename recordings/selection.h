// Choosing the samples of a recording that go into brelix's data matrix: a
// stretch of time, or the average of epochs around event markers.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "recordings/numeric_array.h"
#include "recordings/recording.h"

// An interval "a:b" of a command line (b must not lie before a).
struct Span {
  double from, to;
};
// Parse `text` as "a:b"; `what` names the option in the usage error.
Span parse_span(const std::string &text, const std::string &what);

// A run of samples: the zero-based first one and how many.
struct SampleRange {
  long first = 0, count = 0;
};

// Samples from `seconds.from` to `seconds.to` (inclusive, time 0 at the
// first sample) of a recording of `samples` samples at `rate` Hz.  Throws
// InputError naming `file` when the window reaches past the recording or
// holds no sample.
SampleRange time_window(Span seconds, double rate, long samples, const std::string &file);

// Samples `numbers.from` to `numbers.to`, counted from 1, both included.
// Throws as time_window.
SampleRange sample_window(Span numbers, long samples, const std::string &file);

// True when `m` is the marker the user named: the same text, or for files
// with numeric event codes the same code (decimal or 0x hexadecimal).
bool marker_matches(const Marker &m, const std::string &wanted);

// The rows `rows` (each a channel's samples) over `range`, one row each.
NumericArray cut_rows(const std::vector<const std::vector<double> *> &rows, SampleRange range);

struct EpochOptions {
  std::string marker;             // the marker text as the file writes it
  Span epoch;                     // seconds around each marker
  std::optional<Span> baseline;   // seconds around each marker; its mean is removed
};

// Average of `rows` over the epochs around every marker of `markers` that
// matches `opts.marker`; the first column is the epoch's start, the sample
// nearest to marker + opts.epoch.from.  With a baseline, each row's mean over
// the baseline samples is subtracted.  `epochs` receives the number averaged.
// Throws InputError naming `file` when no marker matches (listing those
// there are), when an epoch reaches past either end of the recording, and
// when the baseline lies outside the epoch.
NumericArray average_epochs(const std::vector<const std::vector<double> *> &rows, const std::vector<Marker> &markers,
                            const EpochOptions &opts, double rate, long samples, const std::string &file,
                            long *epochs);
