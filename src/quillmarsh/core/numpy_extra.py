"""Small numpy helpers that numpy itself lacks: finding and dropping missing and infinite values."""

from __future__ import annotations

from typing import Any, Optional

import numpy as np

__all__ = ["filter_missing_and_inf", "missing_or_inf_mask", "object_numbers"]

# What pandas infers for an object column whose present values are all numbers (or that has none).
_NUMBER_COLUMNS = frozenset({"floating", "integer", "mixed-integer-float", "empty"})


def missing_or_inf_mask(array: Any) -> np.ndarray:
    """Return a boolean mask, shaped like ``array``, of its entries that are missing or infinite.

    Missing means NaN, None, pandas ``NA`` or ``NaT``; infinite means +inf or -inf. Float and complex
    arrays are checked with ``isfinite`` and datetime/timedelta arrays for NaT. Integer, bool and
    fixed-width string arrays cannot hold such values (all False). Object arrays are checked entry by
    entry, so strings and other objects count as present.

    Parameters
    ----------
    array : array-like
        The values, of any shape.

    Returns
    -------
    ndarray of bool
        True where the entry is missing or infinite, shaped like ``np.asarray(array)``.
    """
    arr = np.asarray(array)
    kind = arr.dtype.kind
    if kind in "fc":
        return ~np.isfinite(arr)
    if kind in "mM":
        return np.isnat(arr)
    if kind != "O":
        return np.zeros(arr.shape, dtype=bool)
    if arr.ndim == 2:  # a table's columns: each of one kind, most often
        mask = np.empty(arr.shape, dtype=bool)
        for c in range(arr.shape[1]):
            mask[:, c] = _object_mask(arr[:, c])
        return mask
    return _object_mask(arr.ravel()).reshape(arr.shape)


def object_numbers(values: np.ndarray) -> Optional[np.ndarray]:
    """Return the 1-D object array as float64 when its present values are all numbers, else None.

    Missing values (None, NaN) become NaN. This is the fast way for a table's numeric column that
    came as objects; anything else (text, timestamps, pandas ``NA``, booleans) gives None.

    Parameters
    ----------
    values : ndarray of object
        A 1-D object array, such as a table's column.

    Returns
    -------
    ndarray of float64 or None
        The values as floats, or None when some present value is not a number.
    """
    from pandas.api.types import infer_dtype  # deferred, as in missing_or_inf_mask

    if infer_dtype(values, skipna=True) not in _NUMBER_COLUMNS:
        return None
    try:
        return np.array(values, dtype=np.float64)
    except (TypeError, ValueError, OverflowError):
        return None


def _object_mask(values: np.ndarray) -> np.ndarray:
    numbers = object_numbers(values)
    if numbers is not None:
        return ~np.isfinite(numbers)
    from pandas import isna  # deferred: only object arrays need it, and importing pandas is slow
    from pandas.api.types import infer_dtype

    mask = np.asarray(isna(values), dtype=bool)
    if infer_dtype(values, skipna=True) not in ("string", "bytes"):  # text is never infinite
        present = values[~mask]
        mask[~mask] = (present == np.inf) | (present == -np.inf)
    return mask


def filter_missing_and_inf(array: Any) -> np.ndarray:
    """Return a 1-D array holding the values of the 1-D ``array`` that are neither missing nor infinite.

    See ``missing_or_inf_mask`` for what counts. Integer, bool and fixed-width string arrays have no such
    values and are returned as they are (the very object when an ndarray is passed); the others are
    filtered into a new array of the same dtype.

    Parameters
    ----------
    array : array-like of shape (n,)
        The values.

    Returns
    -------
    ndarray of shape (n_kept,)
        The present, finite values, in order.

    Raises
    ------
    ValueError
        If ``array`` is not 1-D.
    """
    arr = np.asarray(array)
    if arr.ndim != 1:
        raise ValueError(f"filter_missing_and_inf expects a 1-D array, got {arr.ndim}-D")
    if arr.dtype.kind not in "fcmMO":
        return arr
    filtered: np.ndarray = arr[~missing_or_inf_mask(arr)]
    return filtered
