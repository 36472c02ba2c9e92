// Checks of EDF, BDF and GDF headers that BioSig itself does not make.
#pragma once

#include <string>

// BioSig trusts some fields of EDF and BDF headers and crashes when they are
// off, so these are checked before it gets the file: the header length must
// be what the signal count needs, the header must hold no control bytes, the
// file must hold the data records the header announces, and an EDF+/BDF+
// recording field's start date must be "Startdate dd-MMM-yyyy" or
// "Startdate X".
//   path: the recording; files that are not EDF or BDF pass unchecked.
// Throws InputError "PATH: header: what" for a header that fails a check,
// "PATH: data: cut short: ..." for missing data records.
void check_edf_header(const std::string &path);

// The same for GDF: a version BioSig knows, a header length that holds the
// fixed part and one block per signal, and a file that holds the header.
// Files that are not GDF pass unchecked.  Throws InputError "PATH: header:
// what".
void check_gdf_header(const std::string &path);
