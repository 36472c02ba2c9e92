"""Three concentric spheres: brelix (plain and isolated-source) and the peer
against the analytic series, for dipoles at several eccentricities.

Both programs get the same icosphere meshes (written by the project's
spheremesh, read back here and handed to the peer with its triangles turned
the other way), the same electrodes (the 162 vertices of the scalp that are
also vertices of the coarsest mesh, so every level is measured at the same
points) and the same sources.
"""
import os

import numpy as np

import analytic
import brelix_files
import metrics
import peer_mne

RADII = (0.080, 0.085, 0.090)                # brain, skull, scalp (m)
SIGMA_OUTSIDE_IN = (0.33, 0.33 / 80, 0.33)   # scalp, skull, brain (S/m)
LEVELS = {3: 642, 4: 2562}                   # icosphere level: vertices per shell
ECCENTRICITIES = (0.2, 0.5, 0.7, 0.8, 0.9, 0.95)
DIRECTIONS = 4                               # source positions per eccentricity
ELECTRODES = 162


def source_positions():
    """Sources at each eccentricity (fraction of the brain radius), in
    directions drawn once from a fixed seed, so that no source sits on a
    symmetry axis of the meshes."""
    rng = np.random.default_rng(18)
    directions = rng.normal(size=(DIRECTIONS, 3))
    directions /= np.linalg.norm(directions, axis=1)[:, None]
    # Rounded as the source file writes them, so both programs use the same.
    return np.round(np.array([e * RADII[0] * d for e in ECCENTRICITIES for d in directions]), 6)


def analytic_gain(electrodes, sources):
    radii, sigma = RADII, SIGMA_OUTSIDE_IN[::-1]
    columns = [analytic.sphere_potential(radii, sigma, s, p, electrodes)
               for s in sources for p in np.eye(3)]
    return np.array(columns).T


def check_series():
    """The series against the closed form of one sphere: the reference must
    be right before anything is graded by it."""
    rng = np.random.default_rng(7)
    points = rng.normal(size=(50, 3))
    points *= 0.09 / np.linalg.norm(points, axis=1)[:, None]
    for ecc in (0.3, 0.95):
        r0, p = np.array([0.01, -0.02, 0.0]), np.array([0.3, -0.5, 0.8])
        r0 *= ecc * 0.09 / np.linalg.norm(r0)
        series = analytic.sphere_potential([0.09], [0.33], r0, p, points)
        closed = analytic.homogeneous_sphere_potential(0.09, 0.33, r0, p, points)
        if np.max(np.abs(series - closed)) > 1e-9 * np.max(np.abs(closed)):
            raise RuntimeError("analytic series disagrees with the closed form at eccentricity %g" % ecc)


def run(build, work):
    """Returns (rows, timings): per level, program and eccentricity the RDM
    (median, max) and MAG (median, min, max) against the analytic series;
    timings[(level, step)] in seconds."""
    check_series()
    sources = source_positions()
    names = ("scalp.tri", "skull.tri", "brain.tri")
    rows, timings = [], {}
    for level, nv in LEVELS.items():
        folder = os.path.join(work, "spheres-ico%d" % level)
        os.makedirs(folder, exist_ok=True)
        meshes = []
        for name, radius in zip(names, RADII[::-1]):
            brelix_files.run(os.path.join(build, "spheremesh"), ["-b", str(nv), repr(radius), name], "",
                             folder, os.path.join(folder, name + ".log"))
            meshes.append(brelix_files.read_tri(os.path.join(folder, name)))
        electrodes = meshes[0][0][:ELECTRODES].astype(np.float64)
        brelix_files.write_vertex_electrodes(os.path.join(folder, "electrodes.elc"), range(ELECTRODES))
        brelix_files.write_sources(os.path.join(folder, "sources.pos"), sources)
        gains = {}
        for isolated, program in ((False, "brelix"), (True, "brelix isolated")):
            answers = (brelix_files.geometry_answers(names, SIGMA_OUTSIDE_IN, isolated) +
                       "electrodes.elc\nsources.pos\n\ntrans.mat\n")
            timings[(level, program)] = brelix_files.run(os.path.join(build, "brelix"), [], answers, folder,
                                                         os.path.join(folder, program.replace(" ", "-") + ".log"))
            gains[program] = brelix_files.read_matrix(os.path.join(folder, "trans.mat"))[0]
        steps = {}
        outward = [(v.astype(np.float64), t[:, ::-1]) for v, t in meshes]
        solution = peer_mne.bem_solution(outward, SIGMA_OUTSIDE_IN, steps)
        info = peer_mne.eeg_info(["E%d" % (k + 1) for k in range(ELECTRODES)], electrodes)
        gains["MNE"] = peer_mne.forward(info, solution, sources, steps)
        for step, seconds in steps.items():
            timings[(level, "MNE " + step)] = seconds
        reference = analytic_gain(electrodes, sources)
        per_ecc = 3 * DIRECTIONS
        for program, gain in gains.items():
            r, m = metrics.rdm(gain, reference), metrics.mag(gain, reference)
            for k, ecc in enumerate(ECCENTRICITIES):
                rs, ms = r[k * per_ecc:(k + 1) * per_ecc], m[k * per_ecc:(k + 1) * per_ecc]
                rows.append(dict(level=level, vertices=nv, program=program, ecc=ecc,
                                 rdm_median=float(np.median(rs)), rdm_max=float(rs.max()),
                                 mag_median=float(np.median(ms)), mag_min=float(ms.min()), mag_max=float(ms.max())))
    return rows, timings
