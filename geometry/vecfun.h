// Distances between points, segments and triangles, and the 3x3 determinant.
//
// Points are single precision, as the surfaces are stored; every routine
// works internally in double precision and rounds only its results, so that
// the region decisions of the triangle distance are not upset by float
// cancellation near an edge.
#pragma once

// Euclidean distance |p - q|.
float vecdist(const float p[3], const float q[3]);

// Distance from p to the segment a-b.
// On output `nearest` holds the point of the segment closest to p and *t its
// parameter in [0, 1] (nearest = a + t (b - a)); a segment of zero length
// gives t = 0 and nearest = a.
float plindist(const float p[3], const float a[3], const float b[3], float nearest[3], float *t);

// Distance from p to the triangle a-b-c.
// On output `nearest` holds the point of the triangle taken as closest and
// *lambda, *mu its coordinates: nearest = (1 - lambda - mu) a + lambda b +
// mu c.  The orthogonal projection of p is used when it falls inside the
// triangle; otherwise the edge is chosen by the signs of the projection's
// coordinates: lambda, mu >= 0 gives edge b-c, mu < 0 edge a-b, lambda < 0
// edge a-c.  This is the true distance for triangles without an obtuse
// angle; near the obtuse corner of an obtuse triangle it may exceed it.  A
// degenerate triangle is measured from its vertex a.
float ptridist(const float p[3], const float a[3], const float b[3], const float c[3], float nearest[3],
               float *lambda, float *mu);

// The triple product a . (b x c), i.e. the determinant with rows a, b, c.
double deter(const double a[3], const double b[3], const double c[3]);
