// Writing EDF+ recordings: 16-bit samples in one-second data records, with
// an annotation signal carrying the event markers.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct EdfSignal {
  std::string label;             // up to 16 characters
  std::string unit;              // physical dimension, e.g. "uV"
  std::vector<double> physical;  // samples in that unit
};

struct EdfAnnotation {
  double onset;      // seconds from the start
  std::string text;  // without the bytes 20, 21 and 0, which delimit it
};

// Write a continuous EDF+ file ("EDF+C") to `fp`.
//   signals: all of the same length; each gets a physical range symmetric
//   about 0 that just holds its largest magnitude, mapped onto -32767..32767.
//   sample_rate: samples per second, a whole number (one-second records; the
//   last record is filled up with zeros).
//   annotations: in any order; each goes into the record its onset falls in.
// Throws std::invalid_argument for signals of different lengths, a rate
// that is not a whole number, a label longer than 16 characters, or an
// annotation text holding a delimiter byte.
void write_edf_plus(FILE *fp, const std::vector<EdfSignal> &signals, double sample_rate,
                    const std::vector<EdfAnnotation> &annotations);
