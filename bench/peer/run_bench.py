#!/usr/bin/python3
"""brelix side by side with MNE-Python: accuracy on three concentric spheres
against the analytic series, agreement on a realistic head, dipole fits
across the two programs, and the wall-clock time of every step.

    /usr/bin/python3 bench/peer/run_bench.py --build BUILD [--work DIR] [--results FILE]

BUILD holds brelix, spheremesh and brelix-prep.  The table goes to
bench/RESULTS.md; the exit status is 1, with the reasons on standard error,
when the programs disagree beyond the tolerances below (the table is written
all the same, with the failures in it), so that a regression shows.
"""
import argparse
import os
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ left in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import dipole_fits  # noqa: E402
import realistic  # noqa: E402
import report  # noqa: E402
import spheres  # noqa: E402

# Tolerances.  On the spheres the peer's error is the yardstick: brelix's
# isolated-source model may be somewhat less accurate than the peer's (it
# assembles and solves in single precision), but not by more than this.
SPHERE_RDM_FACTOR, SPHERE_RDM_SLACK = 1.6, 0.002
SPHERE_MAG_SLACK = 0.03          # |MAG - 1| may exceed the peer's by this much
SPHERE_MAX_ECC = 0.9             # beyond, both are dominated by the mesh
HEAD_RDM_MEDIAN = 0.01           # brelix isolated against the peer
HEAD_MAG_RANGE = (0.95, 1.05)    # median MAG against the peer
FIT_APART_MEDIAN = 0.001         # m between the two programs' fits of the same data
FIT_APART_MAX = 0.002


TOLERANCES = [
    "spheres, eccentricity up to %.1f: brelix isolated median RDM at most %.1f x the peer's + %.3f; "
    "|MAG - 1| at most the peer's + %.2f" % (SPHERE_MAX_ECC, SPHERE_RDM_FACTOR, SPHERE_RDM_SLACK, SPHERE_MAG_SLACK),
    "realistic head: brelix isolated against the peer, median RDM at most %.2f, median MAG %.2f-%.2f" %
    (HEAD_RDM_MEDIAN, *HEAD_MAG_RANGE),
    "dipole fits: the two programs' fits of the same data at most %.0f mm apart (median), %.0f mm (max)" %
    (1000 * FIT_APART_MEDIAN, 1000 * FIT_APART_MAX)]


def sphere_failures(rows):
    failures = []
    by = {(r["level"], r["program"], r["ecc"]): r for r in rows}
    for (level, program, ecc), r in by.items():
        if program != "brelix isolated" or ecc > SPHERE_MAX_ECC:
            continue
        peer = by[(level, "MNE", ecc)]
        if r["rdm_median"] > SPHERE_RDM_FACTOR * peer["rdm_median"] + SPHERE_RDM_SLACK:
            failures.append("spheres ico-%d, eccentricity %.2f: brelix isolated RDM %.4f against the peer's %.4f" %
                            (level, ecc, r["rdm_median"], peer["rdm_median"]))
        if abs(r["mag_median"] - 1) > abs(peer["mag_median"] - 1) + SPHERE_MAG_SLACK:
            failures.append("spheres ico-%d, eccentricity %.2f: brelix isolated MAG %.3f against the peer's %.3f" %
                            (level, ecc, r["mag_median"], peer["mag_median"]))
    return failures


def head_failures(rows):
    overall = [r for r in rows if r["program"] == "brelix isolated" and r["depth"] is None][0]
    failures = []
    if overall["rdm_median"] > HEAD_RDM_MEDIAN:
        failures.append("realistic head: brelix isolated median RDM %.4f against the peer (limit %.2f)" %
                        (overall["rdm_median"], HEAD_RDM_MEDIAN))
    if not HEAD_MAG_RANGE[0] <= overall["mag_median"] <= HEAD_MAG_RANGE[1]:
        failures.append("realistic head: brelix isolated median MAG %.3f against the peer (limits %.2f-%.2f)" %
                        (overall["mag_median"], *HEAD_MAG_RANGE))
    return failures


def fit_failures(rows):
    failures = []
    for r in rows:
        if r["fitter"] == "between the two" and (r["median"] > FIT_APART_MEDIAN or r["max"] > FIT_APART_MAX):
            failures.append("dipole fits of the %s data: the two programs' positions %.1f mm apart (median), "
                            "%.1f mm (max); limits %.0f and %.0f mm" %
                            (r["data"], 1000 * r["median"], 1000 * r["max"], 1000 * FIT_APART_MEDIAN,
                             1000 * FIT_APART_MAX))
    return failures


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", required=True, help="folder with brelix, spheremesh and brelix-prep")
    parser.add_argument("--work", help="scratch folder (default BUILD/bench-peer)")
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--results", default=os.path.join(here, "..", "RESULTS.md"))
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    work = os.path.abspath(args.work or os.path.join(build, "bench-peer"))
    os.makedirs(work, exist_ok=True)
    for exe in ("brelix", "spheremesh"):
        if not os.access(os.path.join(build, exe), os.X_OK):
            sys.exit("run_bench: %s not found in %s; build it first" % (exe, build))

    machine = report.machine(build)
    started = time.perf_counter()
    print("three concentric spheres ...", flush=True)
    sphere_rows, sphere_times = spheres.run(build, work)
    print("realistic head: preparing, forward solutions ...", flush=True)
    head_times = {}
    head = realistic.build(build, work, head_times)
    head_rows = realistic.compare(head)
    print("dipole fits ...", flush=True)
    fit_rows, fit_count = dipole_fits.run(head, realistic.DEPTHS, build, head_times)
    machine["total"] = time.perf_counter() - started
    machine["load after"] = os.getloadavg()

    failures = sphere_failures(sphere_rows) + head_failures(head_rows) + fit_failures(fit_rows)
    text = report.results(machine, sphere_rows, sphere_times, head, head_rows, head_times, fit_rows, fit_count,
                          TOLERANCES, failures)
    with open(args.results + ".tmp", "w") as f:
        f.write(text)
    os.replace(args.results + ".tmp", args.results)
    print("table written to %s" % os.path.relpath(args.results))
    if failures:
        sys.stderr.write("bench-peer: brelix and MNE-Python disagree beyond the tolerances:\n  " +
                         "\n  ".join(failures) + "\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
