// Analytic potentials of a current dipole in concentric spheres, as the
// reference the boundary-element results are measured against.
#pragma once

#include <array>
#include <vector>

using Vec3 = std::array<double, 3>;

// Potential at the point r on the outer sphere (|r| = radii.back()) of a
// dipole with moment p at r0 inside the innermost sphere.  radii ascend;
// sigma[k] is the conductivity between radii[k-1] and radii[k].  Computed
// by the Legendre series (degrees 1..nmax), in double precision.
double sphere_potential(const std::vector<double> &radii, const std::vector<double> &sigma, const Vec3 &r0,
                        const Vec3 &p, const Vec3 &r, int nmax = 600);

// Closed form for a single homogeneous sphere of radius R and conductivity
// sigma, at a point r on its surface.
double homogeneous_sphere_potential(double R, double sigma, const Vec3 &r0, const Vec3 &p, const Vec3 &r);

// Relative difference measure ||u/|u| - v/|v| || and magnitude ratio
// |u| / |v| of two potential vectors, each first referred to its average.
double rdm(std::vector<double> u, std::vector<double> v);
double mag(std::vector<double> u, std::vector<double> v);
