// The description of the model that travels in the tail of a transfer matrix.
#pragma once

#include <string>

// Overwrite text with: "brelix output", the number of compartments, each
// interface's file name and conductivity, the dipole file and the electrode
// file names.
void fill_extra(std::string &text);
