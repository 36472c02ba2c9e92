"""From the template's surfaces and montage to brelix's files, the way a
user would get there: the surfaces exported in FreeSurfer format and turned
into a head model by `brelix-prep head`, the 10-20 montage placed on its
scalp by `brelix-prep electrodes` with the template's fiducials.

When the brelix-prep at hand lacks one of these subcommands, the same step
is done here (a plain format conversion, a rigid fit to the fiducials and a
closest-point projection), and the result says so."""
import os
import subprocess

import mne
import numpy as np

import brelix_files

SURFACE_NAMES = ("outer_skin.surf", "outer_skull.surf", "inner_skull.surf")


def has_subcommand(build, name):
    exe = os.path.join(build, "brelix-prep")
    return os.access(exe, os.X_OK) and subprocess.run([exe, name, "--help"], capture_output=True).returncode == 0


def head_model(build, folder, meshes, sigmas):
    """Writes `meshes` (metres, outermost first, outward triangles) as
    FreeSurfer surfaces in millimetres and prepares them.  Returns
    (tri paths relative to `folder`, conductivities, seconds or None when
    the step was done here)."""
    for name, (v, t) in zip(SURFACE_NAMES, meshes):
        mne.write_surface(os.path.join(folder, name), 1000.0 * v, t, overwrite=True)
    if not has_subcommand(build, "head"):
        names = []
        for k, (v, t) in enumerate(meshes):
            names.append("head/%d.tri" % (k + 1))
            os.makedirs(os.path.join(folder, "head"), exist_ok=True)
            brelix_files.write_tri(os.path.join(folder, names[-1]), v, t[:, ::-1])
        return names, list(sigmas), None
    args = ["head", *SURFACE_NAMES, "--units", "mm", "--sigma", ",".join(repr(s) for s in sigmas),
            "--quiet", "-o", "head"]
    seconds = brelix_files.run(os.path.join(build, "brelix-prep"), args, "", folder,
                               os.path.join(folder, "prep-head.log"))
    with open(os.path.join(folder, "head", "geometry.ans")) as f:
        lines = f.read().split("\n")
    names, conductivities = [], []
    for k in range(0, len(lines) - 1, 2):
        if not lines[k]:
            break
        names.append(lines[k].lstrip("!"))
        conductivities.append(float(lines[k + 1]))
    return names, conductivities, seconds


def _rigid_fit(source, target):
    """Rotation R and translation t that take the points `source` closest to
    `target` in least squares (no scaling)."""
    cs, ct = source.mean(axis=0), target.mean(axis=0)
    u, _, vt = np.linalg.svd((source - cs).T @ (target - ct))
    d = np.sign(np.linalg.det(vt.T @ u.T))
    rotation = vt.T @ np.diag([1.0, 1.0, d]) @ u.T
    return rotation, ct - rotation @ cs


def _closest_on_triangles(point, vertices, triangles):
    """(triangle, u, v, distance) of the point of the surface closest to
    `point`; the point is (1 - u - v) a + u b + v c."""
    a, b, c = (vertices[triangles[:, k]] for k in range(3))
    e1, e2, q = b - a, c - a, point - a
    # Minimise |q - u e1 - v e2| over the triangle: the unconstrained
    # optimum, then the three edges when it lies outside.
    d11, d12, d22 = (np.einsum("ij,ij->i", x, y) for x, y in ((e1, e1), (e1, e2), (e2, e2)))
    q1, q2 = np.einsum("ij,ij->i", q, e1), np.einsum("ij,ij->i", q, e2)
    det = d11 * d22 - d12 * d12
    u = (d22 * q1 - d12 * q2) / det
    v = (d11 * q2 - d12 * q1) / det
    candidates = [(u, v)]
    t = np.clip(q1 / d11, 0, 1)
    candidates.append((t, 0 * t))
    t = np.clip(q2 / d22, 0, 1)
    candidates.append((0 * t, t))
    e3 = e2 - e1
    t = np.clip(np.einsum("ij,ij->i", q - e1, e3) / np.einsum("ij,ij->i", e3, e3), 0, 1)
    candidates.append((1 - t, t))
    best = (None, np.inf)
    for cu, cv in candidates:
        valid = (cu >= 0) & (cv >= 0) & (cu + cv <= 1 + 1e-12)
        dist = np.linalg.norm(q - cu[:, None] * e1 - cv[:, None] * e2, axis=1)
        dist[~valid] = np.inf
        k = int(dist.argmin())
        if dist[k] < best[1]:
            best = ((k, float(cu[k]), float(cv[k])), float(dist[k]))
    return (*best[0], best[1])


def electrodes(build, folder, scalp_tri, montage_path, fiducials, exclude):
    """Places the montage's electrodes (less the labels in `exclude`) on the
    scalp; writes `folder`/electrodes.elc.  `fiducials`: (label, point in
    mm) on the head model.  Returns seconds, or None when done here."""
    labels, points = _read_elc(montage_path)
    keep = [k for k, name in enumerate(labels) if name not in exclude]
    with open(os.path.join(folder, "montage.elc"), "w") as f:
        f.write("NumberPositions=\t%d\nUnitPosition\tmm\nPositions\n" % len(keep))
        f.write("".join("%.4f %.4f %.4f\n" % tuple(points[k]) for k in keep))
        f.write("Labels\n" + "\n".join(labels[k] for k in keep) + "\n")
    with open(os.path.join(folder, "fiducials.txt"), "w") as f:
        f.write("".join("%s %.4f %.4f %.4f\n" % (name, *p) for name, p in fiducials))
    if has_subcommand(build, "electrodes"):
        args = ["electrodes", "--scalp", os.path.dirname(scalp_tri) or ".", "montage.elc",
                "--fiducials", "fiducials.txt", "--units", "mm", "-o", "electrodes.elc"]
        return brelix_files.run(os.path.join(build, "brelix-prep"), args, "", folder,
                                os.path.join(folder, "prep-electrodes.log"))
    vertices, triangles = brelix_files.read_tri(os.path.join(folder, scalp_tri))
    where = {name: k for k, name in enumerate(labels)}
    source = np.array([points[where[name]] for name, _ in fiducials])
    rotation, shift = _rigid_fit(source, np.array([p for _, p in fiducials]))
    lines = []
    for k in keep:
        if labels[k] in ("Nz", "LPA", "RPA"):
            continue
        placed = (rotation @ points[k] + shift) / 1000.0
        tri, u, v, _ = _closest_on_triangles(placed, vertices.astype(np.float64), triangles)
        lines.append("%d %.6f %.6f !%s" % (tri + 1, u, v, labels[k][:10]))
    with open(os.path.join(folder, "electrodes.elc"), "w") as f:
        f.write("%d\n" % len(lines) + "\n".join(lines) + "\n")
    return None


def _read_elc(path):
    """Labels and positions (mm) of an ASA electrode file."""
    with open(path) as f:
        lines = [line.strip() for line in f]
    start = lines.index("Positions") + 1
    labels_at = lines.index("Labels")
    points = np.array([[float(x) for x in line.split()[-3:]] for line in lines[start:labels_at] if line])
    labels = [line for line in lines[labels_at + 1:] if line][:len(points)]
    return labels, points
