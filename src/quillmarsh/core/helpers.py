"""Helpers of the coreset tree: aligning per-row arrays with a reference order of keys."""

from __future__ import annotations

from typing import Sequence, Tuple

import numpy as np

__all__ = ["align_arrays_by_key"]


def align_arrays_by_key(
    keys: Sequence[np.ndarray], arrays: Sequence[np.ndarray | None]
) -> Tuple[Tuple[np.ndarray, ...], Tuple[np.ndarray | None, ...]]:
    """Reorder the rows of ``arrays`` to follow the reference keys ``keys[0]``.

    When a key occurs several times in ``arrays[0]``, its last occurrence wins (the latest value of a
    sample is the one that counts). A key repeated in the reference gets the matching row each time.
    Works in O((n + m) log n) without a Python loop over rows.

    Parameters
    ----------
    keys : sequence of ndarray
        ``keys[0]`` is the reference key array, in the order that counts; further items are arrays of
        the same length that travel with it.
    arrays : sequence of ndarray or None
        ``arrays[0]`` is the data's key array; further items are per-row arrays with as many rows, or
        None.

    Returns
    -------
    aligned_keys : tuple of ndarray
        Each item of ``keys`` restricted to the reference keys that occur in ``arrays[0]``, in
        reference order.
    aligned_arrays : tuple of ndarray or None
        As long as ``arrays``: each holds only the rows whose key occurs in the reference keys, in
        reference order. None items stay None.

    Raises
    ------
    ValueError
        If an item of ``arrays`` has not as many rows as ``arrays[0]``, or an item of ``keys`` not as
        many items as ``keys[0]``.
    """
    ref = np.asarray(keys[0])
    data_keys = np.asarray(arrays[0])
    n = len(data_keys)
    for pos, a in enumerate(arrays):
        if a is not None and len(a) != n:
            raise ValueError(f"arrays[{pos}] has {len(a)} rows, but the key array arrays[0] has {n}")
    for pos, k in enumerate(keys):
        if len(k) != len(ref):
            raise ValueError(f"keys[{pos}] has {len(k)} items, but the reference keys[0] has {len(ref)}")

    # Unique data keys (sorted) with the position of each key's last occurrence.
    uniq, first_in_reversed = np.unique(data_keys[::-1], return_index=True)
    last_pos = n - 1 - first_in_reversed
    if uniq.size:
        slot = np.minimum(np.searchsorted(uniq, ref), uniq.size - 1)
        found = uniq[slot] == ref
    else:
        slot = np.zeros(len(ref), dtype=np.intp)
        found = np.zeros(len(ref), dtype=bool)
    rows = last_pos[slot[found]]

    aligned_keys = tuple(np.asarray(k)[found] for k in keys)
    aligned_arrays = tuple(None if a is None else np.asarray(a)[rows] for a in arrays)
    return aligned_keys, aligned_arrays
