"""The realistic head: brelix (plain and isolated-source) against the peer on
the template head, for dipoles 10 to 35 mm below the inner skull.

The peer gets the very meshes brelix-prep wrote (its triangles turned the
other way) and the electrode positions that brelix reads from the electrode
file brelix-prep wrote, so that both programs solve the same problem and
only their numerics differ."""
import os

import numpy as np

import brelix_files
import fsaverage_head
import metrics
import peer_mne
import prepare

SIGMA_OUTSIDE_IN = (0.33, 0.33 / 80, 0.33)
DEPTHS = (0.010, 0.015, 0.020, 0.025, 0.030, 0.035)
PER_DEPTH = 8
# Aliases of other labels at the same places (T3 = T7, ...), and the
# mastoid and ear-lobe points, which lie off the scalp of the template.
EXCLUDE = {"T3", "T4", "T5", "T6", "M1", "M2", "A1", "A2"}


class Head:
    """What the later steps share: the folder, brelix's geometry answers, the
    electrodes, the sources with both programs' gain matrices, and the
    peer's solution and measurement info."""


def build(build_dir, work, timings):
    """Prepares the head, runs both programs' forward computations; returns
    a Head.  Adds the seconds of every step to `timings`."""
    head = Head()
    head.folder = folder = os.path.join(work, "realistic")
    os.makedirs(folder, exist_ok=True)
    meshes, dense = fsaverage_head.surfaces()
    names, sigmas, timings["brelix-prep head"] = prepare.head_model(build_dir, folder, meshes, SIGMA_OUTSIDE_IN)
    timings["brelix-prep electrodes"] = prepare.electrodes(build_dir, folder, fsaverage_head.MONTAGE,
                                                           fsaverage_head.fiducials_mm(), EXCLUDE)
    prepared = [brelix_files.read_tri(os.path.join(folder, n)) for n in names]
    head.vertices = [len(v) for v, _ in prepared]
    head.electrodes, head.labels = brelix_files.read_electrode_points(os.path.join(folder, "electrodes.elc"),
                                                                      *prepared[0])
    head.sources = fsaverage_head.sources_by_depth(dense, DEPTHS, PER_DEPTH)
    head.brain_centre = np.round(prepared[-1][0].mean(axis=0), 6)
    brelix_files.write_sources(os.path.join(folder, "sources.pos"), head.sources)
    head.answers = {}
    head.gain = {}
    for isolated, program in ((False, "brelix"), (True, "brelix isolated")):
        head.answers[program] = brelix_files.geometry_answers(names, sigmas, isolated) + "electrodes.elc\n"
        timings[program + " forward"] = brelix_files.run(
            os.path.join(build_dir, "brelix"), [], head.answers[program] + "sources.pos\n\ntrans.mat\n", folder,
            os.path.join(folder, program.replace(" ", "-") + ".log"))
        head.gain[program] = brelix_files.read_matrix(os.path.join(folder, "trans.mat"))[0]
    steps = {}
    outward = [(v.astype(np.float64), t[:, ::-1]) for v, t in prepared]
    head.solution = peer_mne.bem_solution(outward, sigmas, steps)
    head.info = peer_mne.eeg_info(head.labels, head.electrodes)
    head.gain["MNE"] = peer_mne.forward(head.info, head.solution, head.sources, steps)
    for step, seconds in steps.items():
        timings["MNE " + step] = seconds
    return head


def compare(head):
    """Per brelix variant and depth: RDM (median, max) and MAG (median, min,
    max) against the peer over every source and moment direction."""
    rows = []
    per_depth = 3 * PER_DEPTH
    for program in ("brelix", "brelix isolated"):
        r = metrics.rdm(head.gain[program], head.gain["MNE"])
        m = metrics.mag(head.gain[program], head.gain["MNE"])
        for k, depth in enumerate(DEPTHS):
            rs, ms = r[k * per_depth:(k + 1) * per_depth], m[k * per_depth:(k + 1) * per_depth]
            rows.append(dict(program=program, depth=depth, rdm_median=float(np.median(rs)), rdm_max=float(rs.max()),
                             mag_median=float(np.median(ms)), mag_min=float(ms.min()), mag_max=float(ms.max())))
        rows.append(dict(program=program, depth=None, rdm_median=float(np.median(r)), rdm_max=float(r.max()),
                         mag_median=float(np.median(m)), mag_min=float(m.min()), mag_max=float(m.max())))
    return rows
