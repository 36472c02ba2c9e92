// Checks of EDF and BDF headers that BioSig itself does not make.
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
