"""The ``Dataset`` record: the per-sample arrays that travel together through the library.

A ``Dataset`` is an immutable named tuple whose field order is fixed, because compiled code builds it
positionally and reads ``X`` at position 1: ``ind, X, y, sample_weight, props, orig``.
"""

from __future__ import annotations

from typing import NamedTuple

import numpy as np

__all__ = ["Dataset"]


class Dataset(NamedTuple):
    """Per-sample arrays of one block of data; every non-None field has one entry (row) per sample.

    Fields, in order:
      - ``ind``: sample indices, a 1-D int array (the samples' identities, not positions).
      - ``X``: the feature matrix, 2-D.
      - ``y``: targets, 1-D, or None.
      - ``sample_weight``: 1-D, or None.
      - ``props``: per-sample properties, 1-D or 2-D, or None.
      - ``orig``: the original unprocessed features, 2-D, or None.
    """

    ind: np.ndarray
    X: np.ndarray
    y: np.ndarray | None = None
    sample_weight: np.ndarray | None = None
    props: np.ndarray | None = None
    orig: np.ndarray | None = None

    def n_samples(self) -> int:
        """Return the number of samples (the length of ``ind``)."""
        return len(self.ind)

    def take(self, rows: np.ndarray) -> Dataset:
        """Return a new ``Dataset`` with the given row positions (or boolean mask) of every field.

        Selection by position array or mask always copies, so the result shares no memory with ``self``.
        """
        return Dataset._make(None if a is None else np.asarray(a)[rows] for a in self)
