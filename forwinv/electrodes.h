// Electrodes: the dialogue that reads the electrode file, and potentials at
// electrodes from vertex potentials.
#pragma once

#include "forwinv/forwinv.h"

// Ask "\nElectrode file: " (name is ignored when null; the dialogue passes
// null) and fill elname, nel, el, elec_vertex and surfelec.
void get_elec(const char *name);

// Potential at electrode e (1..nel) from the vertex potentials phi[1..totpnt].
double elval(int e, const float *phi);
