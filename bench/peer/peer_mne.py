"""The peer: MNE-Python's linear-collocation BEM, its forward solution and its
dipole fit, driven on exactly the meshes, electrodes and sources that brelix
gets.  Coordinates in metres; the head frame is taken to be the frame of the
meshes (identity head-to-MRI transform)."""
import time

import mne
import numpy as np
from mne.bem import _surfaces_to_bem
from mne.io.constants import FIFF

mne.set_log_level("ERROR")

IDENTITY = mne.transforms.Transform("head", "mri")
SURFACE_IDS = [FIFF.FIFFV_BEM_SURF_ID_HEAD, FIFF.FIFFV_BEM_SURF_ID_SKULL, FIFF.FIFFV_BEM_SURF_ID_BRAIN]


def bem_solution(meshes, sigmas, timings):
    """Solved three-layer BEM of `meshes` ((vertices, triangles) pairs in
    metres, outermost first, triangles turning counter-clockwise seen from
    outside, as MNE expects).  Adds the seconds of the model and of the
    solution to `timings`."""
    start = time.perf_counter()
    surfs = [dict(rr=np.array(v, dtype=np.float64), tris=np.array(t, dtype=np.int64)) for v, t in meshes]
    model = _surfaces_to_bem(surfs, SURFACE_IDS[:len(meshes)], list(sigmas), rescale=False)
    timings["model"] = time.perf_counter() - start
    start = time.perf_counter()
    solution = mne.make_bem_solution(model, solver="mne")
    timings["solution"] = time.perf_counter() - start
    return solution


def eeg_info(labels, positions):
    """Measurement info of EEG channels at `positions` (metres, head frame)."""
    info = mne.create_info(list(labels), 1000.0, "eeg")
    montage = mne.channels.make_dig_montage(ch_pos=dict(zip(labels, np.asarray(positions, float))),
                                            coord_frame="head")
    info.set_montage(montage)
    return info


def forward(info, solution, sources, timings):
    """Gain matrix (electrodes x 3 sources, V per A m, columns x, y, z of each
    source in turn) of free dipoles at `sources` (metres)."""
    start = time.perf_counter()
    sources = np.asarray(sources, dtype=np.float64)
    normals = np.tile([0.0, 0.0, 1.0], (len(sources), 1))
    src = mne.setup_volume_source_space(pos=dict(rr=sources, nn=normals))
    fwd = mne.make_forward_solution(info, trans=IDENTITY, src=src, bem=solution, eeg=True, meg=False)
    timings["forward"] = time.perf_counter() - start
    if fwd["nsource"] != len(sources):
        raise RuntimeError("MNE dropped %d of the sources as outside its inner surface" %
                           (len(sources) - fwd["nsource"]))
    return fwd["sol"]["data"]


def fit_dipoles(info, solution, data, noise_sd, timings):
    """Positions (metres, one row per column of `data`) of single dipoles
    fitted by MNE to each column of `data` (volts, electrodes x samples),
    with white noise of `noise_sd` volts per electrode assumed."""
    evoked = mne.EvokedArray(np.asarray(data, float), info, tmin=0.0)
    evoked.set_eeg_reference(projection=True)
    cov = mne.Covariance(np.eye(len(info["ch_names"])) * noise_sd ** 2, info["ch_names"], [], [], 1000)
    start = time.perf_counter()
    dip, _ = mne.fit_dipole(evoked, cov, solution, trans=IDENTITY, n_jobs=1)
    timings["fit"] = time.perf_counter() - start
    return dip.pos
