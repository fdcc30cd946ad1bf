"""Small numpy helpers that numpy itself lacks: finding and dropping missing and infinite values."""

from __future__ import annotations

from typing import Any, Dict, Optional, Tuple

import numpy as np

__all__ = ["filter_missing_and_inf", "missing_and_numbers", "missing_or_inf_mask", "object_numbers"]

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
        return missing_and_numbers(arr)[0]
    return _object_mask(arr.ravel())[0].reshape(arr.shape)


def missing_and_numbers(table: np.ndarray) -> Tuple[np.ndarray, Dict[int, np.ndarray]]:
    """Return ``missing_or_inf_mask`` of a 2-D array, and the object columns that hold only numbers.

    Finding the missing entries of an object column of numbers converts it to float64; the
    conversion is returned, so that a caller that needs the numbers does not make it again.

    Parameters
    ----------
    table : ndarray of shape (n_rows, n_columns)
        A table's columns.

    Returns
    -------
    mask : ndarray of bool of shape (n_rows, n_columns)
        True where the entry is missing or infinite.
    numbers : dict of int to ndarray of float64
        By column position, each object column whose present values are all numbers, as
        ``object_numbers`` gives it (a new array).
    """
    if table.dtype.kind != "O":
        return missing_or_inf_mask(table), {}
    mask = np.empty(table.shape, dtype=bool)
    numbers: Dict[int, np.ndarray] = {}
    for c in range(table.shape[1]):
        mask[:, c], found = _object_mask(table[:, c])
        if found is not None:
            numbers[c] = found
    return mask, numbers


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


def _object_mask(values: np.ndarray) -> Tuple[np.ndarray, Optional[np.ndarray]]:
    """Return the missing entries of a 1-D object array, and the array as numbers when it holds them."""
    numbers = object_numbers(values)
    if numbers is not None:
        return ~np.isfinite(numbers), numbers
    from pandas import isna  # deferred: only object arrays need it, and importing pandas is slow
    from pandas.api.types import infer_dtype

    mask = np.asarray(isna(values), dtype=bool)
    if infer_dtype(values, skipna=True) not in ("string", "bytes"):  # text is never infinite
        present = values[~mask]
        mask[~mask] = (present == np.inf) | (present == -np.inf)
    return mask, None


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
