"""Automatic preprocessing of one chunk.

Drops rows without a usable target, drops sparse columns and rows, fills missing values, one-hot
encodes categorical columns, and turns timestamps and targets into numbers.

The encoding itself lives in ``quillmarsh.data.feature_space``: a processor shares the stream's
``FeatureSpace`` when its ``cat_encoding_config`` holds one under ``"feature_space"`` (the data manager
puts it there), so that every chunk of a stream is encoded in one feature space.
"""

from __future__ import annotations

import threading
import weakref
from typing import Any, Dict, List, Sequence, Tuple

import numpy as np
import pandas as pd

from quillmarsh.core.numpy_extra import missing_and_numbers, missing_or_inf_mask
from quillmarsh.data.feature_space import MISSING_CATEGORY, OTHER_CATEGORY, FeatureSpace, as_numbers
from quillmarsh.timing import STAGES

__all__ = ["MISSING_CATEGORY", "OTHER_CATEGORY", "DataAutoProcessor"]


class _Encoded:
    """One chunk's encoding, kept for a second preprocessing pass over the rows the first one kept.

    A chunk node preprocesses its chunk once per coreset object, each pass starting from the rows the
    previous pass kept, unencoded. The passes of one node run on one thread, one after the other, so
    each thread remembers its last encoding. The rows are held weakly, and the matrix goes with them.
    """

    def __init__(self, rows: np.ndarray, settings: Tuple[Any, ...], missing: np.ndarray, cols: List[int],
                 result: Tuple[np.ndarray, List[str], List[Any]]) -> None:
        self.rows = weakref.ref(rows, self._forget)
        self.settings = settings
        self.missing: np.ndarray | None = missing
        self.cols = cols
        self.result: Tuple[np.ndarray, List[str], List[Any]] | None = result

    def _forget(self, _: Any) -> None:
        self.missing = self.result = None

    def matches(self, X: np.ndarray, settings: Tuple[Any, ...]) -> bool:
        return self.rows() is X and self.result is not None and _same(self.settings, settings)


_last_encoded = threading.local()


def _same(a: Any, b: Any) -> bool:
    """Whether two settings are equal; values that do not compare to one bool (arrays) must be one object."""
    if a is b:
        return True
    if isinstance(a, (tuple, list)) and isinstance(b, (tuple, list)):
        return len(a) == len(b) and all(_same(x, z) for x, z in zip(a, b))
    try:
        return bool(a == b)
    except (TypeError, ValueError):
        return False


def _check_fraction(name: str, value: float | None) -> float | None:
    if value is not None and not 0.0 <= value <= 1.0:
        raise ValueError(f"{name} must be in [0, 1] or None, got {value!r}")
    return value


class DataAutoProcessor:
    """Turns a raw feature matrix into a dense float matrix that models can use.

    Missing means None, NaN, pandas NA/NaT, and also ±inf. Each input column is, for the whole stream, one of:
      - numeric: a numeric dtype, or text of which at least 90% of the present values are numbers (the
        others count as missing);
      - a timestamp: a datetime dtype, or text that reads as ISO 8601 timestamps as often; it becomes
        seconds since 1970-01-01 UTC;
      - categorical: listed in ``categorical_features``, or any other text; one-hot encoded;
      - left out: text with more distinct values than ``max_text_values`` in the first chunk that holds
        it; the stream's ``FeatureSpace.notes`` names it.
    A column with no present value in the first chunks waits for a chunk that has one.

    Rows whose target is missing, infinite or not a number are dropped. A target counts as labels
    (classification) instead when fewer than half of its present values are numbers; then only rows
    with a missing label are dropped.

    Parameters
    ----------
    X : ndarray of shape (n_rows, n_columns)
        Numeric (NaN for missing) or object (numbers, text, timestamps, None/NaN mixed).
    y : ndarray of shape (n_rows,) or None
        The targets.
    ind : ndarray of shape (n_rows,) or None
        The rows' sample indices.
    props : ndarray of shape (n_rows, ...) or None
        Per-row properties.
    categorical_features : sequence of int or None
        Positions of the input columns that are categorical whatever their values.
    feature_names : sequence of str or None
        The input columns' names; "f0", "f1", ... when empty.
    cat_encoding_config : dict or None
        Read for ``max_categories`` (one-hot columns per input column; further categories share one
        "<other>" column; no cap when absent), ``max_text_values`` (no limit when absent) and
        ``feature_space``, the stream's ``FeatureSpace`` (a private one when absent).
    missing_replacement : sequence or None
        None or one entry per input column; a None entry means: the stream's mean for numbers, its
        most frequent category for categories (``MISSING_CATEGORY`` when it has none).
    drop_rows_below : float or None
        Rows whose share of present values (over the kept columns) is below it are dropped; in
        [0, 1], or None for no dropping.
    drop_cols_above : float or None
        Columns whose share of missing values is above it are dropped; in [0, 1], or None for no
        dropping.

    Attributes
    ----------
    X, y, ind, props : ndarray or None
        After ``handle_missing_and_categorical_encoding``, the kept rows (``X`` with every input
        column, unencoded).
    removed_rows : ndarray of int64
        The input positions of the dropped rows.
    removed_for_target : int
        How many of them were dropped for their target.
    feature_names : list of str
        The names of the processed columns (those of the stream's feature space when this chunk was
        encoded).
    replacements_ : list
        The fill value of each input column (None for columns not encoded).
    classes_ : ndarray or None
        The labels of a label target, after ``get_processed_arrays``.

    Raises
    ------
    ValueError
        If ``X`` is not 2-D, the names, replacements, categorical positions or per-row arrays do not
        match its columns and rows, or a setting is out of range.
    TypeError
        If ``cat_encoding_config["feature_space"]`` is not a ``FeatureSpace``.
    """

    def __init__(
        self,
        *,
        X: np.ndarray,
        y: np.ndarray | None,
        ind: np.ndarray | None,
        props: np.ndarray | None,
        categorical_features: Sequence[int] | None,
        feature_names: Sequence[str] | None,
        cat_encoding_config: Dict[str, Any] | None,
        missing_replacement: Sequence[Any] | None,
        drop_rows_below: float | None,
        drop_cols_above: float | None,
    ) -> None:
        X = np.asarray(X)
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, got {X.ndim}-D")
        n_rows, n_cols = X.shape
        names = list(feature_names) if feature_names else [f"f{i}" for i in range(n_cols)]
        if len(names) != n_cols:
            raise ValueError(f"{len(names)} feature names for {n_cols} columns")
        categorical = sorted({int(c) for c in categorical_features or []})
        if categorical and not 0 <= categorical[0] <= categorical[-1] < n_cols:
            raise ValueError(f"categorical_features {categorical} out of range for {n_cols} columns")
        if missing_replacement is not None and len(missing_replacement) != n_cols:
            raise ValueError(f"{len(missing_replacement)} missing replacements for {n_cols} columns")
        arrays = {"y": y, "ind": ind, "props": props}
        for name, value in arrays.items():
            if value is not None and len(value) != n_rows:
                raise ValueError(f"{name} has {len(value)} rows, but X has {n_rows}")
        config = cat_encoding_config or {}
        max_categories = config.get("max_categories")
        if max_categories is not None and (isinstance(max_categories, bool) or int(max_categories) < 1):
            raise ValueError(f"max_categories must be a positive int or None, got {max_categories!r}")
        max_text_values = config.get("max_text_values")
        if max_text_values is not None and (isinstance(max_text_values, bool) or int(max_text_values) < 1):
            raise ValueError(f"max_text_values must be a positive int or None, got {max_text_values!r}")
        feature_space = config.get("feature_space")
        if feature_space is not None and not isinstance(feature_space, FeatureSpace):
            raise TypeError(f"feature_space must be a FeatureSpace, got {type(feature_space).__name__}")

        self.X = X
        self.y = None if y is None else np.asarray(y)
        self.ind = None if ind is None else np.asarray(ind)
        self.props = None if props is None else np.asarray(props)
        self.input_feature_names: List[str] = names
        self.feature_names: List[str] = list(names)
        self.categorical_features = categorical
        self.max_categories = None if max_categories is None else int(max_categories)
        self.max_text_values = None if max_text_values is None else int(max_text_values)
        self.feature_space = feature_space if feature_space is not None else FeatureSpace()
        self.missing_replacement = None if missing_replacement is None else list(missing_replacement)
        self.drop_rows_below = _check_fraction("drop_rows_below", drop_rows_below)
        self.drop_cols_above = _check_fraction("drop_cols_above", drop_cols_above)
        self.removed_rows = np.empty(0, dtype=np.int64)
        self.removed_for_target = 0
        self.replacements_: List[Any] = [None] * n_cols
        self.classes_: np.ndarray | None = None

    def handle_missing_and_categorical_encoding(self, sparse_threshold: float = 0.01) -> np.ndarray:
        """Process ``X`` and return the processed matrix: dense, float64, 2-D.

        Steps, in order: drop the rows whose target is unusable; drop the columns whose share of missing
        values is above ``drop_cols_above``; drop the rows whose share of present values (over the kept
        columns) is below ``drop_rows_below``; encode the kept columns in the stream's feature space,
        which first learns this chunk's new columns and categories (categories most frequent first, ties
        in order of appearance, at most ``max_categories`` per column plus one "<other>" column) and
        fills missing values. Call it once per processor.

        Parameters
        ----------
        sparse_threshold : float, default=0.01
            The share of non-zero entries below which a sparse result would pay off (0 means always
            dense). The library has no sparse matrix type, so the result is dense whatever the share;
            the value is only checked to be in [0, 1].

        Returns
        -------
        ndarray of shape (n_kept_rows, len(feature_names))
            The processed matrix; the columns of input columns dropped here are 0.

        Raises
        ------
        ValueError
            If ``sparse_threshold`` is not in [0, 1].
        """
        if not 0.0 <= sparse_threshold <= 1.0:
            raise ValueError(f"sparse_threshold must be in [0, 1], got {sparse_threshold!r}")
        with STAGES.measure("preprocess"):
            return self._encode()

    def _encode(self) -> np.ndarray:
        X = self.X
        n_rows, n_cols = X.shape
        settings = (
            self.feature_space, self.input_feature_names, self.categorical_features, self.missing_replacement,
            self.max_categories, self.max_text_values, self.drop_rows_below, self.drop_cols_above,
        )
        last: _Encoded | None = getattr(_last_encoded, "value", None)
        again = last is not None and last.matches(X, settings)
        missing = last.missing if again and last is not None and last.missing is not None else None
        numbers: Dict[int, np.ndarray] = {}
        if missing is None:
            again = False
            missing, numbers = missing_and_numbers(X)
        good_target = ~self._unusable_targets()

        keep_cols = np.ones(n_cols, dtype=bool)
        if self.drop_cols_above is not None and good_target.any():
            keep_cols = missing[good_target].mean(axis=0) <= self.drop_cols_above
        cols = np.flatnonzero(keep_cols)
        keep_rows = good_target.copy()
        if self.drop_rows_below is not None and cols.size:
            keep_rows &= 1.0 - missing[:, cols].mean(axis=1) >= self.drop_rows_below
        rows = np.flatnonzero(keep_rows)

        self.removed_rows = np.flatnonzero(~keep_rows)
        self.removed_for_target = int((~good_target).sum())
        if again and last is not None and last.result is not None and rows.size == n_rows \
                and cols.tolist() == last.cols:
            # The same rows as the pass before, which kept them all: its encoding is theirs, and the
            # stream learns nothing twice.
            matrix, names, fills = last.result
            self.feature_names, self.replacements_ = list(names), list(fills)
            return matrix
        self.X = X[rows]
        self.y = None if self.y is None else self.y[rows]
        self.ind = None if self.ind is None else self.ind[rows]
        self.props = None if self.props is None else self.props[rows]

        kept_missing = missing[rows]
        result = self.feature_space.encode(
            self.X,
            kept_missing,
            self.input_feature_names,
            cols.tolist(),
            categorical=self.categorical_features,
            replacements=self.missing_replacement,
            max_categories=self.max_categories,
            max_text_values=self.max_text_values,
            numbers={c: values[rows] for c, values in numbers.items()},
        )
        matrix, self.feature_names, self.replacements_ = result
        _last_encoded.value = _Encoded(self.X, settings, kept_missing, cols.tolist(), result)
        return matrix

    def get_processed_arrays(self) -> Tuple[np.ndarray | None, np.ndarray | None, np.ndarray | None]:
        """Return the processed targets, the sample indices and the properties of the kept rows.

        Returns
        -------
        y_processed : ndarray or None
            None when ``y`` is None; numeric targets come as they are, object targets that are all
            numbers as float64, and other labels as int64 codes of the labels (as text) in sorted
            order, the labels kept in ``classes_``.
        ind : ndarray or None
            The kept rows' sample indices.
        props : ndarray or None
            The kept rows' properties.
        """
        y = self.y
        if y is not None and y.dtype.kind not in "biuf":
            try:
                y = pd.to_numeric(pd.Series(y, dtype=object), errors="raise").to_numpy(dtype=np.float64)
            except (ValueError, TypeError):
                self.classes_, codes = np.unique(y.astype(str), return_inverse=True)
                y = codes.astype(np.int64)
        return y, self.ind, self.props

    def _unusable_targets(self) -> np.ndarray:
        """Return the mask of rows whose target is missing, infinite, or (numeric target) not a number."""
        y = self.y
        n_rows = self.X.shape[0]
        if y is None:
            return np.zeros(n_rows, dtype=bool)
        if y.dtype.kind in "biu":
            return np.zeros(n_rows, dtype=bool)
        if y.dtype.kind == "f":
            return ~np.isfinite(y)
        missing = missing_or_inf_mask(y)
        numbers = np.isfinite(as_numbers(y))
        present = int((~missing).sum())
        if present and numbers.sum() >= 0.5 * present:
            return ~numbers
        return missing
