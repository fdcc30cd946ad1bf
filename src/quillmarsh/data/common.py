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

    The fields are in this order.

    Parameters
    ----------
    ind : ndarray of shape (n_samples,)
        Sample indices, an int array (the samples' identities, not positions).
    X : ndarray of shape (n_samples, n_features)
        The feature matrix.
    y : ndarray of shape (n_samples,) or None, default=None
        The targets.
    sample_weight : ndarray of shape (n_samples,) or None, default=None
        The sample weights.
    props : ndarray of shape (n_samples,) or (n_samples, n_props), or None, default=None
        Per-sample properties.
    orig : ndarray of shape (n_samples, n_columns) or None, default=None
        The original unprocessed features.
    """

    ind: np.ndarray
    X: np.ndarray
    y: np.ndarray | None = None
    sample_weight: np.ndarray | None = None
    props: np.ndarray | None = None
    orig: np.ndarray | None = None

    def n_samples(self) -> int:
        """Return the number of samples (the length of ``ind``).

        Returns
        -------
        int
            The number of samples.
        """
        return len(self.ind)

    def take(self, rows: np.ndarray) -> Dataset:
        """Return a new ``Dataset`` with the given row positions (or boolean mask) of every field.

        Selection by position array or mask always copies, so the result shares no memory with ``self``.

        Parameters
        ----------
        rows : ndarray
            Row positions (int) or a boolean mask of length ``n_samples``.

        Returns
        -------
        Dataset
            The selected rows of every field; None fields stay None.
        """
        return Dataset._make(None if a is None else np.asarray(a)[rows] for a in self)
