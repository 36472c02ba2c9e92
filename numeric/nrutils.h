// One-based (caller-chosen base) arrays and the fatal-error exit.
//
// Vectors and matrices are addressed by inclusive index ranges; a matrix is a
// table of row pointers over one contiguous zero-filled block, so that a row
// can be handed on as a vector and a whole matrix moved row by row.
#pragma once

#include <cstddef>

struct fcomplex {
  float r, i;
};

// The largest number of elements one matrix may hold (also the limit the
// matrix-file reader uses to tell the byte order of a file).
constexpr long long MAX_MATRIX_ELEMENTS = 1000000000LL;

// Shared buffer in which callers format a message for error().  It is larger
// than the messages need so that long file names are never cut.
constexpr int ERRMSG_SIZE = 1024;
extern char errmsg[ERRMSG_SIZE];
extern char progname[80];

// Vectors v[lo..hi], zero-filled.  On failure (or a negative length) print
// "\n Sorry, out of memory\n\n\a\a" on standard error and return nullptr.
float *vector(long lo, long hi);
double *dvector(long lo, long hi);
fcomplex *cvector(long lo, long hi);
int *ivector(long lo, long hi);
void free_vector(float *v, long lo, long hi);
void free_dvector(double *v, long lo, long hi);
void free_cvector(fcomplex *v, long lo, long hi);
void ifree_vector(int *v, long lo, long hi);

// Matrices m[rlo..rhi][clo..chi], zero-filled, rows back to back in one
// block.  More than MAX_MATRIX_ELEMENTS elements is refused like a failed
// allocation.
float **matrix(long rlo, long rhi, long clo, long chi);
double **dmatrix(long rlo, long rhi, long clo, long chi);
fcomplex **cmatrix(long rlo, long rhi, long clo, long chi);
// Integer matrix: every row allocated on its own; no size cap.
int **imatrix(long rlo, long rhi, long clo, long chi);
void free_matrix(float **m, long rlo, long rhi, long clo, long chi);
void free_dmatrix(double **m, long rlo, long rhi, long clo, long chi);
void free_cmatrix(fcomplex **m, long rlo, long rhi, long clo, long chi);
void ifree_matrix(int **m, long rlo, long rhi, long clo, long chi);

// Three-dimensional float array a[i][j][k]; elements contiguous per row and
// rows contiguous per plane.
float ***matrix3d(long ilo, long ihi, long jlo, long jhi, long klo, long khi);
void free_3dmatrix(float ***a, long ilo, long ihi, long jlo, long jhi, long klo, long khi);

// Print "\n\n Fatal error in <progname>: <msg>\n\n\a" on standard error and
// end the process with status 1.
[[noreturn]] void error(const char *msg);

// Copy name into progname (the name fatal errors print); returns progname.
char *error_progname(const char *name);

// Reports "\n Sorry, out of memory\n\n\a\a" on standard error.
void out_of_memory_message();
