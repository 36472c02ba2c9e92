"""From the template's surfaces and montage to brelix's files, the way a
user would get there: the surfaces exported in FreeSurfer format and turned
into a head model by `brelix-prep head`, the 10-20 montage file placed on
its scalp by `brelix-prep electrodes` from the template's fiducials."""
import os

import mne

import brelix_files

SURFACE_NAMES = ("outer_skin.surf", "outer_skull.surf", "inner_skull.surf")


def executable(build):
    """brelix-prep in BUILD/apps (a CMake build) or BUILD (an installation)."""
    for path in (os.path.join(build, "apps", "brelix-prep"), os.path.join(build, "brelix-prep")):
        if os.access(path, os.X_OK):
            return path
    raise RuntimeError("brelix-prep not found in %s or %s/apps; build it first" % (build, build))


def head_model(build, folder, meshes, sigmas):
    """Writes `meshes` (metres, outermost first, outward triangles) as
    FreeSurfer surfaces in millimetres and prepares them into
    `folder`/head.  Returns (tri paths relative to `folder`, conductivities,
    seconds)."""
    for name, (v, t) in zip(SURFACE_NAMES, meshes):
        mne.write_surface(os.path.join(folder, name), 1000.0 * v, t, overwrite=True)
    args = ["head", *SURFACE_NAMES, "--units", "mm", "--sigma", ",".join(repr(s) for s in sigmas), "--quiet",
            "-o", "head"]
    seconds = brelix_files.run(executable(build), args, "", folder, os.path.join(folder, "prep-head.log"))
    with open(os.path.join(folder, "head", "geometry.ans")) as f:
        lines = f.read().split("\n")
    names, conductivities = [], []
    for k in range(0, len(lines) - 1, 2):
        if not lines[k]:
            break
        names.append(lines[k].lstrip("!"))
        conductivities.append(float(lines[k + 1]))
    return names, conductivities, seconds


def electrodes(build, folder, montage, fiducials, drop):
    """Places the electrodes of the position file `montage`, less the labels
    in `drop`, on the scalp of `folder`/head, fitted to `fiducials` ((label,
    point in mm) on the head model) and pulled onto the scalp; writes
    `folder`/electrodes.elc.  Returns the seconds taken."""
    with open(os.path.join(folder, "fiducials.txt"), "w") as f:
        f.write("".join("%s %.4f %.4f %.4f\n" % (name, *p) for name, p in fiducials))
    args = ["electrodes", "--scalp", "head", montage, "--fiducials", "fiducials.txt", "--units", "mm", "--icp",
            "--drop", ",".join(sorted(drop)), "-o", "electrodes.elc"]
    return brelix_files.run(executable(build), args, "", folder, os.path.join(folder, "prep-electrodes.log"))
