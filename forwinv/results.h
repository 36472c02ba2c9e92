// Result files: transfer matrix, forward potentials, fitted source positions.
#pragma once

#include <string>

#include "forwinv/forwinv.h"

// base followed by ext (nothing is stripped from base).
std::string makename(const char *base, const char *ext);

// written: the result of a file writer, which has printed its own message
// on failure.  A result that could not be written ends the run with status
// 1, so that a script never takes a lost result for a finished job.
void stop_unless_written(int written);

// Append to text the item that says which interfaces' vertices are the
// electrodes, when the electrodes are vertices (elname empty, "*" or "#");
// nothing for a real electrode file.
void add_geo_info(std::string &text);

// Write trans[1..nel][1..npar] to transname (nothing when it is empty) with
// the tail: extra, the sample-frequency item, the geometry item.  Every
// writer here replaces its file only when complete, and ends the run with
// status 1 after its message when it cannot.
void write_trans(float **trans, int nel, int npar, const char *transname, const char *extra);

// Ask "Filename for forward <kind> data: " and write phi[1..nel][1..ntim]
// there (nothing on an empty answer).  The shift removed from the data is
// added back to phi in place first.
void write_forward(float **phi, int nel, int ntim, float sampfreq, const char *kind);

// Ask "Filename for source position: " and write the sources as a source
// position file with constraint lines; with sdspnt given, also the ".sd"
// file of their standard deviations, ending with `note` when given.
void write_pos(const SourceRecord *source, const float (*sdspnt)[5], int nsource, const char *note);
