"""The feature space of one stream: what each input column becomes, the same for every chunk.

Chunks of one stream are preprocessed one by one, often on several threads. For their coresets to
describe the same features, every chunk must encode a column the same way: a column is numeric, a
timestamp, categorical or left out for the whole stream, and a category keeps its one-hot column once
it has one. ``FeatureSpace`` keeps those decisions. The data manager owns one and hands it to every
preprocessing pass through ``cat_encoding_config_clear()`` (under the key ``"feature_space"``).

The processed columns are listed in the order they were first needed, and a new column is always added
at the end. So the features of a chunk processed earlier are a prefix of the features of any chunk
processed later: padding an earlier chunk's matrix with zero columns puts it in the later space, and
zero is right for those columns (the earlier rows did not hold the new categories).
"""

from __future__ import annotations

import threading
from dataclasses import asdict, dataclass, field
from typing import Any, Dict, List, Sequence, Tuple

import numpy as np
import pandas as pd

from quillmarsh.core.numpy_extra import missing_or_inf_mask, object_numbers

__all__ = [
    "CATEGORICAL",
    "EXCLUDED",
    "MISSING_CATEGORY",
    "NUMBER_SHARE",
    "NUMERIC",
    "OTHER_CATEGORY",
    "TIMESTAMP",
    "FeatureSpace",
    "as_numbers",
    "as_seconds",
    "category_key",
]

NUMERIC = "numeric"
TIMESTAMP = "timestamp"
CATEGORICAL = "categorical"
EXCLUDED = "excluded"

OTHER_CATEGORY = "<other>"
"""Name suffix of the one-hot column that gathers the categories beyond ``max_categories``."""

MISSING_CATEGORY = "<missing>"
"""The category of a categorical column that has no present value to fill missing entries with."""

NUMBER_SHARE = 0.9
"""An undecided text column whose present values are numbers (or timestamps) at least this often is
numeric (or a timestamp column); its other values then count as missing."""


def category_key(value: Any) -> str:
    """Return the category of a present value: the text itself, or the text form of any other value.

    Parameters
    ----------
    value : object
        A present value of a categorical column.

    Returns
    -------
    str
        The category's key.
    """
    return value if isinstance(value, str) else str(value)


def _category_codes(values: np.ndarray) -> Tuple[np.ndarray, List[str]]:
    """Return the category of every present value, as codes into the list of distinct categories.

    The categories are listed in the order they first occur. Text, integers and booleans are grouped
    by value at once, and only the distinct values are turned into category keys; values of other
    types (floats, mixed objects) are keyed one by one, as a float and an int of equal value are
    distinct categories ("1.0" and "1").
    """
    kind = values.dtype.kind
    if kind in "biuU" or (kind == "O" and pd.api.types.infer_dtype(values, skipna=False) == "string"):
        codes, uniques = pd.factorize(values)
        keys = [category_key(value) for value in uniques]
        if len(set(keys)) == len(keys):
            return codes.astype(np.intp, copy=False), keys
    every = np.array([category_key(v) for v in values], dtype=object)
    codes, uniques = pd.factorize(every)
    return codes.astype(np.intp, copy=False), [str(key) for key in uniques]


def as_numbers(column: np.ndarray) -> np.ndarray:
    """Return the column as a new, writable float64 array; values that are not numbers become NaN.

    Timedeltas become seconds.

    Parameters
    ----------
    column : ndarray
        A column of any type.

    Returns
    -------
    ndarray of float64
        The numbers, shaped like ``column``.
    """
    if column.dtype.kind in "biuf":
        return np.array(column, dtype=np.float64)
    if column.dtype.kind == "m":
        return np.array(pd.to_timedelta(column) / pd.Timedelta(seconds=1), dtype=np.float64)
    numbers = object_numbers(column) if column.dtype.kind == "O" and column.ndim == 1 else None
    if numbers is not None:
        return numbers
    series = pd.Series(column, dtype=object)
    # A new array: pandas 3 hands out read-only views (copy on write).
    return np.array(pd.to_numeric(series, errors="coerce"), dtype=np.float64)


def as_seconds(column: np.ndarray) -> np.ndarray:
    """Return timestamps as float64 seconds since 1970-01-01 UTC; other values become NaN.

    Text is read as ISO 8601 (``2024-05-01``, ``2024-05-01 13:45:00``, with or without an offset); a
    timestamp without an offset is taken as UTC.

    Parameters
    ----------
    column : ndarray of shape (n,)
        Datetimes, or objects (timestamps or text).

    Returns
    -------
    ndarray of shape (n,), float64
        The seconds.
    """
    series = pd.Series(column) if column.dtype.kind == "M" else pd.Series(column, dtype=object)
    stamps = pd.to_datetime(series, errors="coerce", format="ISO8601" if column.dtype.kind != "M" else None,
                            utc=True)
    return np.array((stamps - pd.Timestamp(0, tz="UTC")) / pd.Timedelta(seconds=1), dtype=np.float64)


@dataclass
class _Column:
    """What the stream knows of one input column."""

    kind: str | None = None
    total: float = 0.0  # sum and count of the present values of a numeric or timestamp column
    count: int = 0
    position: int | None = None  # its processed column (numeric, timestamp)
    categories: Dict[str, int] = field(default_factory=dict)  # category -> processed column
    counts: Dict[str, int] = field(default_factory=dict)  # category -> rows seen
    other: int | None = None  # the "<other>" column, once needed
    not_numbers: int = 0  # present values of a numeric column that were not numbers
    note: str | None = None


class FeatureSpace:
    """The processed columns of one stream and how each input column maps to them. Thread-safe.

    ``feature_names`` lists the processed columns ("size", "colour=red", "colour=<other>", ...), in the
    order they were added. ``notes`` says which input columns were left out and why, and where text
    was found in a numeric or timestamp column. ``kinds`` gives each input column's kind by name:
    "numeric", "timestamp", "categorical", "excluded", or None while no chunk had a present value in it.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._input_names: List[str] | None = None
        self._columns: List[_Column] = []
        self._names: List[str] = []

    @property
    def feature_names(self) -> List[str]:
        """The names of the processed columns, in order."""
        with self._lock:
            return list(self._names)

    @property
    def input_names(self) -> List[str]:
        """The names of the input columns, once a chunk was processed (empty before)."""
        with self._lock:
            return list(self._input_names or [])

    @property
    def kinds(self) -> Dict[str, str | None]:
        """The kind of each input column, by name."""
        with self._lock:
            return {name: column.kind for name, column in zip(self._input_names or [], self._columns)}

    @property
    def notes(self) -> List[str]:
        """One line for every input column left out, and for every numeric column that held text."""
        with self._lock:
            lines = [column.note for column in self._columns if column.note]
            for name, column in zip(self._input_names or [], self._columns):
                if column.not_numbers:
                    what = "timestamps" if column.kind == TIMESTAMP else "numbers"
                    lines.append(
                        f"column {name!r}: {column.not_numbers} value(s) that are not {what} "
                        "taken as missing"
                    )
            return lines

    def to_state(self) -> Dict[str, Any]:
        """Return everything the feature space has learnt, as plain values that JSON can hold.

        Returns
        -------
        dict
            The state, for ``from_state``.
        """
        with self._lock:
            return {
                "input_names": None if self._input_names is None else list(self._input_names),
                "columns": [asdict(column) for column in self._columns],
                "names": list(self._names),
            }

    @classmethod
    def from_state(cls, state: Dict[str, Any]) -> FeatureSpace:
        """Make a feature space that goes on from a state returned by ``to_state``.

        Parameters
        ----------
        state : dict
            A state returned by ``to_state``.

        Returns
        -------
        FeatureSpace
            A new feature space holding what the state holds.
        """
        space = cls()
        space._input_names = None if state["input_names"] is None else list(state["input_names"])
        space._columns = [_Column(**column) for column in state["columns"]]
        space._names = list(state["names"])
        return space

    def encode(
        self,
        X: np.ndarray | Sequence[np.ndarray],
        missing: np.ndarray,
        input_names: Sequence[str],
        columns: Sequence[int],
        categorical: Sequence[int] = (),
        replacements: Sequence[Any] | None = None,
        max_categories: int | None = None,
        max_text_values: int | None = None,
        learn: bool = True,
        numbers: Dict[int, np.ndarray] | None = None,
    ) -> Tuple[np.ndarray, List[str], List[Any]]:
        """Encode the ``columns`` of the 2-D ``X`` into this space.

        Parameters
        ----------
        X : ndarray of shape (n_rows, n_input_columns), or a sequence of n_input_columns arrays
            The chunk's input columns: a 2-D array, or one 1-D array of ``n_rows`` per column.
        missing : ndarray of bool of shape (n_rows, n_input_columns)
            The mask of missing entries of ``X``.
        input_names : sequence of str
            The names of the input columns; the same for every chunk of the stream.
        columns : sequence of int
            The input columns to encode.
        categorical : sequence of int, default=()
            The input columns declared categorical.
        replacements : sequence or None, default=None
            One fill value per input column (None: the stream's mean, or its most frequent category
            so far).
        max_categories : int or None, default=None
            One-hot columns per input column; further categories go to "<other>". None: no cap.
        max_text_values : int or None, default=None
            A text column with more distinct values in the first chunk that holds it is left out.
            None: no limit.
        learn : bool, default=True
            Whether the chunk's kinds, categories and sums are added to the space first; without it
            nothing is added, and unknown categories go to "<other>" (or nowhere when the column has
            none).
        numbers : dict of int to ndarray, optional
            Input columns already turned into float64 by ``as_numbers`` (while finding the missing
            entries, say), by position: a numeric column found here is not converted again, and its
            array is filled in place.

        Returns
        -------
        matrix : ndarray of shape (n_rows, len(names)), float64
            One column per processed column known now; a processed column of an input column not in
            ``columns`` is 0.
        names : list of str
            The names of the processed columns.
        fills : list
            The fill value used for each input column (None for columns not encoded).

        Raises
        ------
        ValueError
            If ``input_names`` differ from the names the space holds.
        """
        n_rows = missing.shape[0]
        column_of = list(X) if not isinstance(X, np.ndarray) else [X[:, c] for c in range(X.shape[1])]
        with self._lock:
            names = list(input_names)
            if self._input_names is None:
                self._input_names = names
                self._columns = [_Column() for _ in names]
            elif names != self._input_names:
                raise ValueError(f"this feature space holds the columns {self._input_names}, got {names}")
            declared = set(int(c) for c in categorical)
            prepared: Dict[int, Any] = {}
            decided: Dict[int, Any] = {}  # numbers already computed while deciding a kind
            fills: List[Any] = [None] * len(names)
            # Numeric and timestamp columns take their places before the categories of this chunk.
            for c in columns:
                col = self._columns[c]
                if col.kind is None and learn:
                    col.kind, decided[c] = self._decide(
                        column_of[c], missing[:, c], c in declared, max_text_values
                    )
                    if col.kind == EXCLUDED:
                        col.note = (
                            f"column {names[c]!r} left out: text with more than {max_text_values} distinct "
                            "values (max_text_values)"
                        )
                if col.kind in (NUMERIC, TIMESTAMP):
                    values = decided.get(c)
                    if values is None and col.kind == NUMERIC and numbers is not None:
                        values = numbers.get(c)
                    if values is None:
                        values = as_numbers(column_of[c]) if col.kind == NUMERIC else as_seconds(column_of[c])
                    bad = ~np.isfinite(values)
                    if learn:
                        col.not_numbers += int((bad & ~missing[:, c]).sum())
                        col.total += float(values[~bad].sum())
                        col.count += int((~bad).sum())
                        if col.position is None:
                            col.position = self._add(names[c])
                    given = None if replacements is None else replacements[c]
                    mean = col.total / col.count if col.count else 0.0
                    fill = float(given) if given is not None else mean
                    values[bad] = fill
                    prepared[c], fills[c] = values, fill
            for c in columns:
                col = self._columns[c]
                if col.kind != CATEGORICAL:
                    continue
                present = ~missing[:, c]
                codes, keys = _category_codes(column_of[c][present])
                if learn:
                    seen = np.bincount(codes, minlength=len(keys))
                    for u in np.argsort(-seen, kind="stable"):  # most frequent first, ties in order seen
                        key = keys[u]
                        col.counts[key] = col.counts.get(key, 0) + int(seen[u])
                        self._place(col, names[c], key, max_categories)
                given = None if replacements is None else replacements[c]
                if given is not None:
                    fill_key = category_key(given)
                elif col.counts:
                    fill_key = max(col.counts, key=lambda k: col.counts[k])  # first registered wins ties
                else:
                    fill_key = MISSING_CATEGORY
                if learn and (~present).any():
                    self._place(col, names[c], fill_key, max_categories)
                positions = np.empty(n_rows, dtype=np.intp)
                placed = np.array([self._position(col, key) for key in keys], dtype=np.intp)
                positions[present] = placed[codes] if len(keys) else placed
                positions[~present] = self._position(col, fill_key)
                prepared[c], fills[c] = positions, fill_key
            width = len(self._names)
            feature_names = list(self._names)
            kinds = {c: self._columns[c].kind for c in prepared}
            numeric_at = {c: self._columns[c].position for c in prepared}

        out = np.zeros((n_rows, width), dtype=np.float64)
        for c, values in prepared.items():
            if kinds[c] == CATEGORICAL:
                hit = values >= 0
                out[np.flatnonzero(hit), values[hit]] = 1.0
            else:
                out[:, numeric_at[c]] = values
        return out, feature_names, fills

    def transform(self, X: Any, replacements: Sequence[Any] | None = None) -> np.ndarray:
        """Encode rows of the stream's input columns into the current space, learning nothing.

        Missing numbers get the stream's mean, missing categories its most frequent one; a category the
        stream never placed goes to "<other>" (or nowhere).

        Parameters
        ----------
        X : array-like or pandas DataFrame of shape (n_rows, n_input_columns)
            The input columns, in order. A table's numeric columns that the stream holds as numbers are
            read as they are; its other columns as objects, as from ``X.to_numpy()``.
        replacements : sequence or None, default=None
            One fill value per input column; None entries (or None) use the stream's.

        Returns
        -------
        ndarray of shape (n_rows, len(feature_names)), float64
            The encoded rows.

        Raises
        ------
        ValueError
            If ``X`` is not 2-D or has not one column per input column.
        """
        names = self.input_names
        if isinstance(X, pd.DataFrame):
            if len(names) != X.shape[1]:
                raise ValueError(f"the stream has {len(names)} input columns, X has {X.shape[1]}")
            columns, missing = self._table_columns(X)
            matrix, _, _ = self.encode(columns, missing, names, range(len(columns)),
                                       replacements=replacements, learn=False)
            return matrix
        X = np.asarray(X)
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, got {X.ndim}-D")
        if len(names) != X.shape[1]:
            raise ValueError(f"the stream has {len(names)} input columns, X has {X.shape[1]}")
        matrix, _, _ = self.encode(
            X, missing_or_inf_mask(X), names, range(X.shape[1]), replacements=replacements, learn=False
        )
        return matrix

    def _table_columns(self, table: pd.DataFrame) -> Tuple[List[np.ndarray], np.ndarray]:
        """Return a table's columns and their missing entries, as ``encode`` takes them.

        A numeric column of integers or floats becomes float64 the same way from its own array as from
        objects, without boxing every value: it is taken as it is. A column left out of the space is
        not read. Any other column is taken as objects, as ``table.to_numpy()`` gives it for a table of
        mixed types.
        """
        with self._lock:
            kinds = [col.kind for col in self._columns]
        columns: List[np.ndarray] = []
        missing = np.empty(table.shape, dtype=bool)
        for c, kind in enumerate(kinds):
            if kind not in (NUMERIC, TIMESTAMP, CATEGORICAL):  # left out, or never seen: not read
                columns.append(np.empty(len(table), dtype=object))
                missing[:, c] = True
                continue
            series = table.iloc[:, c]
            if kind == NUMERIC and isinstance(series.dtype, np.dtype) and series.dtype.kind in "iuf":
                values = series.to_numpy()
                missing[:, c] = ~np.isfinite(values) if values.dtype.kind == "f" else False
            else:
                values = series.to_numpy(dtype=object)
                missing[:, c] = missing_or_inf_mask(values)
            columns.append(values)
        return columns, missing

    def _decide(
        self, column: np.ndarray, missing: np.ndarray, declared: bool, max_text_values: int | None
    ) -> Tuple[str | None, Any]:
        """Return a new column's kind, and its numbers when it is numeric or a timestamp."""
        if declared:
            return CATEGORICAL, None
        if column.dtype.kind in "biufm":
            return NUMERIC, as_numbers(column)
        if column.dtype.kind == "M":
            return TIMESTAMP, as_seconds(column)
        present = int((~missing).sum())
        if not present:
            return None, None  # nothing to judge by: decided by a later chunk
        numbers = as_numbers(column)
        if np.isfinite(numbers[~missing]).sum() >= NUMBER_SHARE * present:
            return NUMERIC, numbers
        seconds = as_seconds(column)
        if np.isfinite(seconds[~missing]).sum() >= NUMBER_SHARE * present:
            return TIMESTAMP, seconds
        if max_text_values is not None:
            distinct = len({category_key(v) for v in column[~missing]})
            if distinct > max_text_values:
                return EXCLUDED, None
        return CATEGORICAL, None

    def _add(self, name: str) -> int:
        self._names.append(name)
        return len(self._names) - 1

    def _place(self, col: _Column, name: str, key: str, max_categories: int | None) -> None:
        """Give ``key`` its own column, or the column's "<other>" once ``max_categories`` are placed."""
        if key in col.categories:
            return
        if max_categories is None or len(col.categories) < max_categories:
            col.categories[key] = self._add(f"{name}={key}")
        elif col.other is None:
            col.other = self._add(f"{name}={OTHER_CATEGORY}")

    @staticmethod
    def _position(col: _Column, key: str) -> int:
        position = col.categories.get(key, col.other)
        return -1 if position is None else position
