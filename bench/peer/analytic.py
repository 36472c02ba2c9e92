"""Potentials of a current dipole in concentric spheres: the reference both
programs are measured against.  It is written here from the Legendre series,
independently of either program's own sphere code, so neither is graded by
its own approximations.
"""
import numpy as np


def _shell_gain(n, radii, sigma):
    """Surface potential over the degree-n primary potential at the outer
    radius, from the radial functions a r^n + b r^-(n+1) of each shell,
    continuous in potential and normal current, no current leaving the outer
    surface.  The walk goes inwards, where r^-(n+1) grows, so that no
    coefficient is lost to cancellation."""
    R = radii[-1]
    b, a = 1.0, (n + 1.0) / n
    outer = a + b
    for k in range(len(radii) - 2, -1, -1):
        x = radii[k] / R
        xn, xm = x ** n, x ** -(n + 1)
        V = a * xn + b * xm
        J = sigma[k + 1] * (n * a * xn - (n + 1) * b * xm) / x
        b = (n * V / x - J / sigma[k]) * x / ((2.0 * n + 1) * xm)
        a = (V - b * xm) / xn
    return outer / b


def sphere_potential(radii, sigma, r0, p, points, nmax=600):
    """Potential (V) at `points` (K x 3, on the outer sphere) of a dipole of
    moment p (A m) at r0 (m) inside the innermost sphere.  radii ascend (m);
    sigma[k] (S/m) is the conductivity between radii[k-1] and radii[k]."""
    radii = [float(r) for r in radii]
    R = radii[-1]
    r0, p = np.asarray(r0, float), np.asarray(p, float)
    points = np.asarray(points, float)
    d0 = np.linalg.norm(r0)
    u0 = r0 / d0
    u = points / np.linalg.norm(points, axis=1)[:, None]
    c = u @ u0
    pr0, pr = p @ u0, u @ p
    # Degree-n term of 1/|r - r0| is d0^n P_n(c) / R^(n+1); the dipole takes
    # its gradient with respect to r0.
    P_prev, P = np.ones_like(c), c.copy()
    dP_prev, dP = np.zeros_like(c), np.ones_like(c)
    total = np.zeros_like(c)
    ratio, scale = d0 / R, 1.0 / (R * R)
    n = 1
    # Terms fall off as (d0/R)^n; stop once they cannot matter, before the
    # radial functions of high degrees leave the range of doubles.
    while n <= nmax and scale * R * R > 1e-20:
        total += _shell_gain(n, radii, sigma) * scale * (n * P * pr0 + dP * (pr - c * pr0))
        scale *= ratio
        P_next = ((2.0 * n + 1) * c * P - n * P_prev) / (n + 1)
        dP_next = dP_prev + (2.0 * n + 1) * P
        P_prev, P, dP_prev, dP = P, P_next, dP, dP_next
        n += 1
    return total / (4 * np.pi * sigma[0])


def homogeneous_sphere_potential(R, sigma, r0, p, points):
    """Closed form for one homogeneous sphere, the check of the series:
    V = p . [2 d/|d|^3 + (r/R + d/|d|) / (R^2 - r0.r + R |d|)] / (4 pi sigma),
    d = r - r0, |r| = R."""
    points = np.asarray(points, float)
    d = points - np.asarray(r0, float)
    dl = np.linalg.norm(d, axis=1)[:, None]
    F = R * R - points @ np.asarray(r0, float) + R * dl[:, 0]
    g = 2 * d / dl ** 3 + (points / R + d / dl) / F[:, None]
    return g @ np.asarray(p, float) / (4 * np.pi * sigma)
