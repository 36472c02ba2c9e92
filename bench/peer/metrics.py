"""The two measures of agreement between potential maps, column by column,
after both maps are referred to their own electrode average (brelix writes
average-referenced transfer matrices; the peer and the analytic series use
references of their own, which carry no information about the source)."""
import numpy as np


def average_reference(a):
    a = np.asarray(a, dtype=np.float64)
    return a - a.mean(axis=0, keepdims=True)


def rdm(a, b):
    """|| a/|a| - b/|b| || per column: 0 for maps of the same shape, 2 at most."""
    a, b = average_reference(a), average_reference(b)
    return np.linalg.norm(a / np.linalg.norm(a, axis=0) - b / np.linalg.norm(b, axis=0), axis=0)


def mag(a, b):
    """|a| / |b| per column: 1 for maps of the same strength."""
    a, b = average_reference(a), average_reference(b)
    return np.linalg.norm(a, axis=0) / np.linalg.norm(b, axis=0)
