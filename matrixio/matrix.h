// Matrix files: R and C as 32-bit words, R*C floats row by row, then a free
// text tail.  Readers accept both byte orders and a plain-text variant.
#pragma once

#include <cstdint>

// State of the last read: 1 when it was a text file / of the other byte order.
extern int ascifile, foreign;

// Write m[1..R][1..C] to a new file `name` (no tail), which appears whole
// or not at all (see atomicfile.h).  Returns 1, or 0 after printing the
// failure and the system's reason on standard error.
int binputmatrix(const char *name, float **m, int R, int C);

// As binputmatrix, followed by tail_len bytes of tail exactly as given.
int binputtailmatrix(const char *name, float **m, int R, int C, int tail_len, const char *tail);

// Read a matrix file.  Returns a new matrix [1..R][1..C] or nullptr after
// printing the failure.  On output *R, *C hold the counts (0 when the file
// could not be opened), *tail_len the number of tail bytes kept (0..1024) and
// *tail a new, unterminated buffer of exactly that many bytes, or nullptr
// when the tail is empty.  The caller frees both (free_matrix, free).
// Counts the file cannot hold (negative, or more values than its bytes can
// carry) are a read error, refused before the matrix is allocated.
float **gettailmatrix(const char *name, int *R, int *C, int *tail_len, char **tail);

// 1 (and both swapped in place) when the counts look like the other byte
// order, else 0.
int swapnrowncol(int *R, int *C);
// Reverse the byte order of every value of m[1..R][1..C].
void swapmat(float **m, int R, int C);
// The four bytes of word in reverse order.
uint32_t longwordswap(uint32_t word);
