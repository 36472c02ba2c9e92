// Definitions of the shared tables declared in forwinv.h.
#include "forwinv/forwinv.h"

#include "forwinv/compart.h"

Interface geo[MAXGEO];
int ngeo, totpnt, totdhk;
int geocon[MAXGEO][MAXGEO];
float deflat[MAXGEO][MAXGEO];
int iso_sur = -1;
int inner_only;
Interface iso_geo[MAXGEO];
int iso_ngeo, iso_index[MAXGEO], iso_totpnt;
float iso_deflat[MAXGEO][MAXGEO];
float **iso_b;

char elname[NAMELEN];
int nel, elec_vertex, surfelec = 1;
Electrode *el;

SourceRecord *source;
int nsource, nlpar, nnpar, constraint = -1;
int *source_comp;
char sourcename[NAMELEN], solname[NAMELEN], transname[NAMELEN];

float **psi;
int ntim;
float *shift;
float sampfreq = -1.0f;

float **b, **bi, **sphi, **trans, **d, **sdd, **phi;
float **g_w0;
float (*sdspnt)[5];
float sdphi;

BoundFunc bound_func = bound_compart;  // the command line may choose another
float bound_crit = 0.707f;
