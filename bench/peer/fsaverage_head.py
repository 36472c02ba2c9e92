"""A realistic three-layer head from the surfaces MNE-Python ships for its
template subject: its scalp, its inner skull reduced to the 2562 vertices of
a fourth-order icosphere, and an outer skull made here by pushing the inner
skull outwards along its normals, less where the scalp is near, so that a
minimum layer of scalp stays above it."""
import os

import mne
import numpy as np
from mne.bem import _ico_downsample
from mne.surface import complete_surface_info

DATA = os.path.join(os.path.dirname(mne.__file__), "data", "fsaverage")
MONTAGE = os.path.join(os.path.dirname(mne.__file__), "channels", "data", "montages", "standard_1020.elc")
SKULL_THICKNESS = 0.006   # m, where the scalp leaves room for it
MIN_SCALP = 0.0035        # m of scalp kept above the outer skull
# The template's inner skull, dense or reduced, crosses itself in the folds
# at the skull base (brelix-prep head refuses it); five rounds of smoothing
# undo the folds, moving no vertex by more than a millimetre.
TAUBIN_STEPS = 5


def _surface(name):
    surf = mne.read_bem_surfaces(os.path.join(DATA, name))[0]
    return dict(rr=surf["rr"].astype(np.float64), tris=surf["tris"].astype(np.int64))


def _taubin(vertices, neighbours, steps):
    """Taubin's smoothing: a shrinking and an inflating Laplacian step in
    turn, which flattens spikes and folds without shrinking the whole."""
    for _ in range(steps):
        for weight in (0.5, -0.53):
            mean = np.array([vertices[n].mean(axis=0) for n in neighbours])
            vertices = vertices + weight * (mean - vertices)
    return vertices


def _ray_distance(origins, directions, vertices, triangles):
    """Distance along each ray to the first crossing of the surface
    (Moeller-Trumbore, all triangles at once); inf when it misses."""
    a, b, c = (vertices[triangles[:, k]] for k in range(3))
    e1, e2 = b - a, c - a
    result = np.full(len(origins), np.inf)
    for i, (o, n) in enumerate(zip(origins, directions)):
        p = np.cross(n, e2)
        det = np.einsum("ij,ij->i", e1, p)
        ok = np.abs(det) > 1e-15
        inv = 1.0 / np.where(ok, det, 1.0)
        s = o - a
        u = np.einsum("ij,ij->i", s, p) * inv
        q = np.cross(s, e1)
        v = (q @ n) * inv
        t = np.einsum("ij,ij->i", q, e2) * inv
        hit = ok & (u >= 0) & (v >= 0) & (u + v <= 1) & (t > 0)
        if hit.any():
            result[i] = t[hit].min()
    return result


def surfaces():
    """(scalp, outer skull, inner skull) as (vertices in metres, triangles
    turning counter-clockwise seen from outside), and the dense inner skull
    that depths are measured against.  The inner skull is smoothed first
    (TAUBIN_STEPS).

    The outer skull moves each inner-skull vertex away from the inner
    skull's centroid rather than along its normal: normals converge in the
    deep folds at the skull base and an offset along them folds over
    itself, while radial moves keep the order of the vertices around the
    centre.  The radial move is lengthened where the surface slopes away from
    the radial direction, so the layer is about equally thick everywhere,
    then evened out over neighbouring vertices, and cut short wherever it
    would leave less than MIN_SCALP of scalp above it."""
    scalp = _surface("fsaverage-head.fif")
    dense = _surface("fsaverage-inner_skull-bem.fif")
    inner = complete_surface_info(_ico_downsample(dict(dense), 4), do_neighbor_vert=True, verbose=False)
    neighbours = [list(n) for n in inner["neighbor_vert"]]
    inner["rr"] = _taubin(inner["rr"], neighbours, TAUBIN_STEPS)
    inner = complete_surface_info(inner, verbose=False)
    centre = inner["rr"].mean(axis=0)
    radial = inner["rr"] - centre
    r0 = np.linalg.norm(radial, axis=1)
    radial /= r0[:, None]
    slope = np.maximum(np.einsum("ij,ij->i", radial, inner["nn"]), 0.5)
    limit = _ray_distance(inner["rr"], radial, scalp["rr"], scalp["tris"]) - MIN_SCALP
    r = r0 + np.minimum(SKULL_THICKNESS / slope, limit)
    for _ in range(3):
        r = np.maximum(r, [r[n].mean() for n in neighbours])
    r = np.minimum(r, r0 + limit)
    if not (r - r0 > 0.001).all():
        raise RuntimeError("the template scalp leaves less than 1 mm for the skull at %d vertices" %
                           int((r - r0 <= 0.001).sum()))
    outer = centre + radial * r[:, None]
    meshes = [(scalp["rr"], scalp["tris"]), (outer, inner["tris"]), (inner["rr"], inner["tris"])]
    return meshes, dense


def fiducials_mm():
    """The template's nasion and pre-auricular points on its own head model
    (MRI frame, millimetres), labelled as position files label them."""
    points, _ = mne.io.read_fiducials(os.path.join(DATA, "fsaverage-fiducials.fif"))
    names = {mne.io.constants.FIFF.FIFFV_POINT_NASION: "Nz", mne.io.constants.FIFF.FIFFV_POINT_LPA: "LPA",
             mne.io.constants.FIFF.FIFFV_POINT_RPA: "RPA"}
    return [(names[p["ident"]], 1000.0 * np.asarray(p["r"])) for p in points]


def sources_by_depth(dense, depths, per_depth, seed=35):
    """`per_depth` points inside the inner skull for each depth (m) of
    `depths`, within 1 mm of that distance from the dense inner skull,
    drawn from a fixed seed."""
    rng = np.random.default_rng(seed)
    vertices = dense["rr"]
    normals = complete_surface_info(dict(dense), verbose=False)["nn"]
    low, high = vertices.min(axis=0), vertices.max(axis=0)
    chosen = {d: [] for d in depths}
    while any(len(v) < per_depth for v in chosen.values()):
        points = rng.uniform(low, high, size=(500, 3))
        gaps = np.linalg.norm(points[:, None, :] - vertices[None, :, :], axis=2)
        nearest = gaps.argmin(axis=1)
        distance = gaps[np.arange(len(points)), nearest]
        inside = np.einsum("ij,ij->i", points - vertices[nearest], normals[nearest]) < 0
        for p, dist, ins in zip(points, distance, inside):
            for d in depths:
                if ins and abs(dist - d) < 0.001 and len(chosen[d]) < per_depth:
                    chosen[d].append(p)
    return np.round(np.array([p for d in depths for p in chosen[d]]), 6)
