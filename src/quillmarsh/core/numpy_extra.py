"""Small numpy helpers that numpy itself lacks: finding and dropping missing and infinite values."""

from __future__ import annotations

from typing import Any

import numpy as np


def missing_or_inf_mask(array: Any) -> np.ndarray:
    """Return a boolean mask, shaped like ``array``, of its entries that are missing or infinite.

    Missing means NaN, None, pandas ``NA`` or ``NaT``; infinite means +inf or -inf. Float and complex
    arrays are checked with ``isfinite`` and datetime/timedelta arrays for NaT. Integer, bool and
    fixed-width string arrays cannot hold such values (all False). Object arrays are checked entry by
    entry, so strings and other objects count as present.
    """
    arr = np.asarray(array)
    kind = arr.dtype.kind
    if kind in "fc":
        return ~np.isfinite(arr)
    if kind in "mM":
        return np.isnat(arr)
    if kind != "O":
        return np.zeros(arr.shape, dtype=bool)
    from pandas import isna  # deferred: only object arrays need it, and importing pandas is slow

    mask = np.asarray(isna(arr), dtype=bool)
    present = arr[~mask]
    mask[~mask] = (present == np.inf) | (present == -np.inf)
    return mask


def filter_missing_and_inf(array: Any) -> np.ndarray:
    """Return a 1-D array holding the values of the 1-D ``array`` that are neither missing nor infinite.

    See ``missing_or_inf_mask`` for what counts. Integer, bool and fixed-width string arrays have no such
    values and are returned as they are (the very object when an ndarray is passed); the others are
    filtered into a new array of the same dtype.
    """
    arr = np.asarray(array)
    if arr.ndim != 1:
        raise ValueError(f"filter_missing_and_inf expects a 1-D array, got {arr.ndim}-D")
    if arr.dtype.kind not in "fcmMO":
        return arr
    filtered: np.ndarray = arr[~missing_or_inf_mask(arr)]
    return filtered
