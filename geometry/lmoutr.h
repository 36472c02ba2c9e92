// Local coordinates of a point with respect to a triangle.
#pragma once

// Write p - a = lambda (b - a) + mu (c - a) + nu n, with n the unit normal
// (b - a) x (c - a) / |(b - a) x (c - a)|.  The projection of p on the
// triangle's plane is a + lambda (b - a) + mu (c - a), and nu is the signed
// distance of p from that plane (positive on the side n points to).
// Returns 1, or 0 for a degenerate triangle (collinear or coincident
// vertices); *lambda, *mu, *nu are then left as they were.
int lmoutr(const float a[3], const float b[3], const float c[3], const float p[3], double *lambda, double *mu,
           double *nu);
