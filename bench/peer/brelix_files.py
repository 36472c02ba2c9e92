"""brelix's own files (triangle surfaces, matrix files, electrode and source
files) and running the interactive program with an answer file.

The formats are small and fixed, so the benchmark reads and writes them
itself: a number that went through a converter could not tell a fault of
brelix from one of the converter.
"""
import os
import struct
import subprocess
import time

import numpy as np


def write_tri(path, vertices, triangles):
    """Binary triangle file: vertices (N x 3) as float32, triangles (M x 3,
    zero-based) as int32, in this machine's byte order."""
    with open(path, "wb") as f:
        f.write(struct.pack("=i", len(vertices)))
        f.write(np.ascontiguousarray(vertices, dtype="=f4").tobytes())
        f.write(struct.pack("=i", len(triangles)))
        f.write(np.ascontiguousarray(triangles, dtype="=i4").tobytes())


def read_tri(path):
    """Triangle file, binary or text, as (float32 vertices, zero-based
    triangles).  Text files count their vertex indices from 1."""
    with open(path, "rb") as f:
        data = f.read()
    if all(chr(b) in "0123456789 \t\n\r\v\f-.Ee" for b in data[:4]):
        lines = data.decode().split("\n")
        n = int(lines[0].split()[0])
        rows = [line.split() for line in lines[1:1 + n]]
        vertices = np.array([[float(x) for x in r[-3:]] for r in rows], dtype=np.float32)
        m = int(lines[1 + n].split()[0])
        rows = [line.split() for line in lines[2 + n:2 + n + m]]
        triangles = np.array([[int(x) - 1 for x in r[-3:]] for r in rows], dtype=np.int64)
        return vertices, triangles
    n = struct.unpack_from("=i", data, 0)[0]
    vertices = np.frombuffer(data, "=f4", 3 * n, 4).reshape(n, 3).copy()
    m = struct.unpack_from("=i", data, 4 + 12 * n)[0]
    triangles = np.frombuffer(data, "=i4", 3 * m, 8 + 12 * n).reshape(m, 3).astype(np.int64)
    return vertices, triangles


def read_matrix(path):
    """Binary matrix file: (float64 copy of the R x C values, tail text)."""
    with open(path, "rb") as f:
        data = f.read()
    rows, cols = struct.unpack_from("=ii", data, 0)
    values = np.frombuffer(data, "=f4", rows * cols, 8).reshape(rows, cols).astype(np.float64)
    return values, data[8 + 4 * rows * cols:].decode(errors="replace")


def write_matrix(path, values, tail=""):
    """Binary matrix file of float32 values with a text tail."""
    values = np.asarray(values, dtype="=f4")
    with open(path, "wb") as f:
        f.write(struct.pack("=ii", *values.shape))
        f.write(np.ascontiguousarray(values).tobytes())
        f.write(tail.encode())


def write_vertex_electrodes(path, vertex_numbers):
    """Electrode file of vertex electrodes (zero-based numbers in, brelix's
    one-based global numbers written)."""
    lines = ["%d" % len(vertex_numbers)]
    lines += ["%d %d" % (k + 1, v + 1) for k, v in enumerate(vertex_numbers)]
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def read_electrode_points(path, vertices, triangles):
    """Positions and labels of the electrodes of an electrode file on the
    first interface: vertex electrodes, or triangle electrodes at
    (1 - u - v) a + u b + v c."""
    with open(path) as f:
        lines = f.read().split("\n")
    n = int(lines[0].split()[0])
    points, labels = [], []
    for k, line in enumerate(lines[1:1 + n]):
        body, _, label = line.partition("!")
        fields = body.split()
        if len(fields) == 2:
            points.append(vertices[int(fields[1]) - 1])
        else:
            a, b, c = vertices[triangles[int(fields[0]) - 1]].astype(np.float64)
            u, v = float(fields[1]), float(fields[2])
            points.append((1 - u - v) * a + u * b + v * c)
        labels.append(label.strip() or "E%d" % (k + 1))
    return np.array(points, dtype=np.float64), labels


def write_sources(path, positions, constraint=None):
    """Source position file; `constraint`, when given, is the constraint
    line written for every source (e.g. "position moving")."""
    lines = ["%d" % len(positions)]
    lines += ["%d %.6f %.6f %.6f" % (k + 1, *p) for k, p in enumerate(positions)]
    if constraint:
        lines += ["%d %s" % (k + 1, constraint) for k in range(len(positions))]
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def geometry_answers(files, sigmas, isolated):
    """Geometry answers, outermost interface first; `isolated` marks the
    innermost one as the isolated-source interface."""
    lines = []
    for k, (name, sigma) in enumerate(zip(files, sigmas)):
        lines += [("!" if isolated and k == len(files) - 1 else "") + name, repr(float(sigma))]
    return "\n".join(lines) + "\n\n"


def run(exe, args, answers, cwd, log):
    """Run `exe` with `answers` on standard input in `cwd`; its output goes
    to the file `log`.  Returns the wall-clock seconds; a non-zero exit
    status raises, naming the log."""
    start = time.perf_counter()
    with open(log, "w") as out:
        proc = subprocess.run([exe] + args, input=answers.encode(), cwd=cwd, stdout=out,
                              stderr=subprocess.STDOUT)
    seconds = time.perf_counter() - start
    if proc.returncode != 0:
        raise RuntimeError("%s %s ended with status %d; see %s" %
                           (os.path.basename(exe), " ".join(args), proc.returncode, log))
    return seconds
