// Telling a text file from a binary one by its first bytes.
#pragma once

#include <cstdio>

// Reads up to the first 4 bytes of f and rewinds it.  Returns 1 (text) when
// every byte read is a decimal digit, white space, '-', '.', 'E' or 'e' (an
// empty file counts as text), else 0 (binary).
int check_asci(FILE *f);
