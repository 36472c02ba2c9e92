// The process-wide tables of the forward/inverse module.
//
// Every table is filled once, by the dialogue or by loading a stored inverted
// A matrix, and lives until the process ends.  The routine that fills a table
// says so in its own header; everything else only reads it.
#pragma once

#include <cstdint>

constexpr int MAXGEO = 10;   // at most this many interfaces
constexpr int NAMELEN = 80;  // text buffers of names and answers

// One closed triangulated surface with the conductivity just within it.
struct Interface {
  char name[NAMELEN];   // file name as typed, without a leading '!'
  int32_t npnt;         // number of vertices
  float (*pnt)[3];      // vertices x, y, z, from 0
  int32_t ndhk;         // number of triangles
  int32_t (*dhk)[3];    // vertex indices of each triangle, from 0
  float sigma_in;       // conductivity just within
  float sigma_out;      // conductivity just outside (0 for the outermost)
};

// One electrode: a vertex (index = global one-based vertex number) or a
// point (u, v) in a triangle (index = zero-based global triangle number).
struct Electrode {
  int32_t index;
  float u, v;
  char label[12];
};
static_assert(sizeof(Electrode) == 24, "electrode records are stored as 24 bytes");

// One dipole source and its constraints.
struct SourceRecord {
  float x, y, z;
  float theta, alfa;               // orientation: polar angle, azimuth (radians)
  unsigned pos_mode : 2;           // 0 fixed, 1 stationary, 2 moving
  unsigned ori_stationary : 1;     // clear: orientation free
  unsigned pos_symmetric : 1;
  unsigned ori_symmetric : 1;
  int nl;                          // number of linear parameters (3 or 1)
  int lindex;                      // one-based index of the first linear parameter
  int nn;                          // number of nonlinear parameters
  int pindex;                      // one-based index of x, y, z in the nonlinear vector
  int oindex;                      // one-based index of theta (alfa follows)
  int sym;                         // zero-based partner, -1 for none
  int symaxis;                     // 0, 1, 2: axis perpendicular to the mirror plane
  float symplane;                  // position of the mirror plane on that axis
};

// Volume conductor
extern Interface geo[MAXGEO];
extern int ngeo, totpnt, totdhk;
extern int geocon[MAXGEO][MAXGEO];   // 2 inside, 0 outside, 1 diagonal
extern float deflat[MAXGEO][MAXGEO];
extern int iso_sur;                  // isolated-source interface, -1 for none
extern int inner_only;
extern Interface iso_geo[MAXGEO];
extern int iso_ngeo, iso_index[MAXGEO], iso_totpnt;
extern float iso_deflat[MAXGEO][MAXGEO];
extern float **iso_b;

// Electrodes
extern char elname[NAMELEN];
extern int nel, elec_vertex, surfelec;
extern Electrode *el;                // el[1..nel]; el[0] stays zero

// Sources and the inverse problem
extern SourceRecord *source;
extern int nsource, nlpar, nnpar, constraint;
extern int *source_comp;
extern char sourcename[NAMELEN], solname[NAMELEN], transname[NAMELEN];

// Measured data
extern float **psi;
extern int ntim;
extern float *shift;
extern float sampfreq;

// Matrices of the run
extern float **b, **bi, **sphi, **trans, **d, **sdd, **phi;
extern float **g_w0;
extern float (*sdspnt)[5];
extern float sdphi;

// Source-position bound used by the fit
typedef int (*BoundFunc)(int, float *);
extern BoundFunc bound_func;
extern float bound_crit;
