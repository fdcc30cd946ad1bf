"""Utilities of the coreset tree: validating chunk sizes and sizing batches to the available memory."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import psutil

__all__ = ["MEMORY_SAFETY_FRACTION", "evaluate_max_batch_size", "is_simple_chunk_size"]

# Share of the reported memory that a batch may take; the rest is left for copies, the preprocessing
# output and everything else running in the process.
MEMORY_SAFETY_FRACTION = 0.5


def is_simple_chunk_size(chunk_size: Any) -> bool:
    """Tell whether ``chunk_size`` is a plain positive row count: an ``int`` or numpy integer above 0.

    ``bool`` is refused, as are None, zero, negatives, floats, strings and anything else.

    Parameters
    ----------
    chunk_size : object
        The value to check.

    Returns
    -------
    bool
        True for a positive ``int`` or numpy integer.
    """
    if isinstance(chunk_size, bool) or not isinstance(chunk_size, (int, np.integer)):
        return False
    return bool(chunk_size > 0)


def evaluate_max_batch_size(n_features: int, available: bool = True, dtype: npt.DTypeLike = "float32") -> int:
    """Return how many rows of ``n_features`` columns of ``dtype`` fit in memory.

    The memory is psutil's ``virtual_memory().available`` when ``available`` is true, else its
    ``.total``, times ``MEMORY_SAFETY_FRACTION`` (one half). ``n_features`` below 1 counts as 1.
    The result is at least 1, so a caller batching by it always makes progress. Keeps no state, so it
    is safe to call from any thread.

    Parameters
    ----------
    n_features : int
        The number of columns of a row.
    available : bool, default=True
        Whether to size by the available memory rather than the total.
    dtype : data-type, default="float32"
        The type of the values.

    Returns
    -------
    int
        The number of rows, at least 1.
    """
    memory = psutil.virtual_memory()
    budget = (memory.available if available else memory.total) * MEMORY_SAFETY_FRACTION
    row_bytes = max(1, int(n_features)) * max(1, np.dtype(dtype).itemsize)
    return max(1, int(budget // row_bytes))
