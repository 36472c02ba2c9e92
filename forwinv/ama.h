// The inverted A-matrix file: the model, the electrodes and the inverted
// matrix of a run, stored so that a later run need not compute them again.
//
// Binary, in the byte order of the machine that wrote it, version word 10,
// then the kind (0 electric, 1 magnetic, 2 combined electric/magnetic).  This
// program writes and reads electric files only.
#pragma once

#include "forwinv/forwinv.h"

#include <cstdio>

// name: the file the inverted A matrix is to be stored in.  Creates its
// temporary beside it (see matrixio/atomicfile.h), so that a run can learn
// before its long work that it could not store the result.  Returns the
// stream for save_ama_to, or nullptr after "error opening" with the
// system's reason on standard output.
FILE *open_ama(const char *name);

// fp: a stream from open_ama (consumed: committed or abandoned); name: its
// file name for messages; kind: the kind to write (0).  Writes ngeo, geo,
// geocon, deflat, elname, nel, el, elec_vertex, surfelec, bi, iso_sur,
// inner_only and iso_b, and only then lets the file appear under its name.
// Returns 1 on success; 0 after "error writing to" with the system's reason
// on standard output, an earlier file of that name left as it was.
int save_ama_to(FILE *fp, const char *name, int kind);

// open_ama and save_ama_to in one.
int save_ama(const char *name, int kind);

// name: file to read; kind: the kind the caller needs (0).  On success fills
// ngeo, geo (new arrays), totpnt, totdhk, geocon, deflat, elname, nel, el,
// elec_vertex, surfelec, bi (a new matrix [1..nel][1..totpnt]), iso_sur,
// inner_only and, with an isolated-source interface, iso_totpnt and iso_b;
// prints the byte offsets of the electrode section and of bi, and returns 1.
// Returns 0 after a message when the file cannot be used (a NaN or an
// infinity among the coordinates, conductivities, deflation factors,
// electrode weights or matrices included); what was read before the fault
// stays in the model.
int load_ama(const char *name, int kind);

// Write the wording of a file kind ("an electric", ...) into text.
void modename(char *text, int kind);
