// The compartment of the volume conductor that holds a point, and the
// admissibility tests that keep fitted sources in their compartments.
//
// A compartment is named by the index into geo of the innermost interface
// that encloses it.
#pragma once

#include "forwinv/forwinv.h"

// The compartment that holds p: the index of the innermost interface whose
// triangles subtend (nearly) 4 pi at p; -1 when p lies outside every
// interface; -10 - i as soon as p is found to lie on a triangle of interface
// i.  Reads geo, ngeo and geocon (which must already be filled).
int which_compart(const float p[3]);

// Allocate source_comp (nsource entries, from 0; a table left by an earlier
// call is released) and fill it with the compartment of every source's
// initial position, printing one line per source.  A source outside the
// geometry, touching a triangle, or (with an isolated-source interface)
// outside the isolated-source compartment is reported, and after all sources
// are listed the run ends with a fatal error.
void locate_sources();

// Bound functions for the nonlinear fit.  `ignored` is not used; `par` is
// the trial nonlinear parameter vector, one-based.  Each returns 1 when the
// trial is admissible, 0 when it must be rejected.

// Every trial is admissible.
int bound_null(int ignored, float *par);

// Every source with a fitted position (pos_mode not 0) must stay in the
// compartment found by locate_sources; its trial position is par[pindex],
// par[pindex+1], par[pindex+2].
int bound_compart(int ignored, float *par);

// As bound_compart, and in addition no fitted source may come closer to a
// triangle of its compartment's interface than bound_crit times the
// distance to that triangle's farthest vertex.
int bound_dist(int ignored, float *par);

// Store the distance criterion of bound_dist in bound_crit.
void set_bound_crit(float value);
