"""Dipole fits on the realistic head, across the two programs: data simulated
by each program's forward model, with the same noise added, fitted by both
(brelix as one moving dipole, a separate fit per sample; the peer's
fit_dipole, one fit per time point).  Fitting one program's data with the
other's model shows what the difference of the models costs in position;
fitting its own data shows what the noise alone costs."""
import os

import numpy as np

import brelix_files
import peer_mne

FIT_DEPTHS = (0.015, 0.020, 0.025, 0.030)
PER_DEPTH = 1
SIGNAL_RMS = 1e-6   # V over the electrodes, after the average reference
NOISE_SD = 5e-8     # V per electrode: a signal-to-noise ratio of 20


def _true_dipoles(head, depths):
    """Indices (into head.sources) and unit moments of the simulated dipoles:
    the first PER_DEPTH sources of each depth of FIT_DEPTHS."""
    per = len(head.sources) // len(depths)
    index = [depths.index(d) * per + k for d in FIT_DEPTHS for k in range(PER_DEPTH)]
    rng = np.random.default_rng(20)
    moments = rng.normal(size=(len(index), 3))
    return index, moments / np.linalg.norm(moments, axis=1)[:, None]


def _simulate(gain, index, moments, noise):
    columns = []
    for k, m in zip(index, moments):
        column = gain[:, 3 * k:3 * k + 3] @ m
        columns.append(column * SIGNAL_RMS / np.std(column))
    return np.array(columns).T + noise


def run(head, depths, build_dir, timings):
    """Returns rows of (data, fitter, position errors in m) and the distance
    between the two fitters' positions on the same data."""
    index, moments = _true_dipoles(head, list(depths))
    truth = head.sources[index]
    noise = np.random.default_rng(21).normal(scale=NOISE_SD, size=(len(head.electrodes), len(index)))
    data = {"MNE": _simulate(head.gain["MNE"], index, moments, noise),
            "brelix": _simulate(head.gain["brelix isolated"], index, moments, noise)}
    both = np.hstack([data["MNE"], data["brelix"]])
    folder = head.folder
    brelix_files.write_matrix(os.path.join(folder, "data.mat"), both)
    brelix_files.write_sources(os.path.join(folder, "start.pos"), [head.brain_centre], "position moving")
    timings["brelix fit"] = brelix_files.run(
        os.path.join(build_dir, "brelix"), [], head.answers["brelix isolated"] + "start.pos\ndata.mat\nfit.mat\n\n",
        folder, os.path.join(folder, "fit.log"))
    fitted = {"brelix": brelix_files.read_matrix(os.path.join(folder, "fit.mat"))[0][3:6].T}
    steps = {}
    fitted["MNE"] = peer_mne.fit_dipoles(head.info, head.solution, both, NOISE_SD, steps)
    timings["MNE fit"] = steps["fit"]
    n = len(index)
    rows = []
    for d, part in (("MNE", slice(0, n)), ("brelix", slice(n, 2 * n))):
        for fitter in ("brelix", "MNE"):
            error = np.linalg.norm(fitted[fitter][part] - truth, axis=1)
            rows.append(dict(data=d, fitter=fitter, median=float(np.median(error)), max=float(error.max())))
        apart = np.linalg.norm(fitted["brelix"][part] - fitted["MNE"][part], axis=1)
        rows.append(dict(data=d, fitter="between the two", median=float(np.median(apart)), max=float(apart.max())))
    return rows, n
