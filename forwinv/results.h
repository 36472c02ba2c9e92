// Result files: transfer matrix, forward potentials, fitted source positions.
#pragma once

#include <string>

#include "forwinv/forwinv.h"

// base followed by ext (nothing is stripped from base).
std::string makename(const char *base, const char *ext);

// Append to text the item that says which interfaces' vertices are the
// electrodes, when the electrodes are vertices (elname empty, "*" or "#");
// nothing for a real electrode file.
void add_geo_info(std::string &text);

// Write trans[1..nel][1..npar] to transname (nothing when it is empty) with
// the tail: extra, the sample-frequency item, the geometry item.
void write_trans(float **trans, int nel, int npar, const char *transname, const char *extra);

// Ask "Filename for forward <kind> data: " and write phi[1..nel][1..ntim]
// there (nothing on an empty answer).  The shift removed from the data is
// added back to phi in place first.
void write_forward(float **phi, int nel, int ntim, float sampfreq, const char *kind);

// Ask "Filename for source position: " and write the sources as a source
// position file with constraint lines; with sdspnt given, also the ".sd"
// file of their standard deviations, ending with `note` when given.
void write_pos(const SourceRecord *source, const float (*sdspnt)[5], int nsource, const char *note);
