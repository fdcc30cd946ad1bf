"""Automatic preprocessing of one chunk: drop sparse columns and rows, fill missing values, one-hot
encode categorical columns, and turn the targets into numbers."""

from __future__ import annotations

from typing import Any, Dict, List, Sequence, Tuple

import numpy as np
import pandas as pd

from quillmarsh.core.numpy_extra import missing_or_inf_mask

OTHER_CATEGORY = "<other>"
"""Name suffix of the one-hot column that gathers the categories beyond ``max_categories``."""

MISSING_CATEGORY = "<missing>"
"""Replacement of a categorical column none of whose kept values is present."""


def _check_fraction(name: str, value: float | None) -> float | None:
    if value is not None and not 0.0 <= value <= 1.0:
        raise ValueError(f"{name} must be in [0, 1] or None, got {value!r}")
    return value


class DataAutoProcessor:
    """Turns a raw feature matrix into a dense float matrix that models can use.

    ``X`` is 2-D: numeric (NaN for missing) or object (numbers, strings, None/NaN mixed). Missing means
    None, NaN, pandas NA/NaT, and also ±inf. A column is categorical when its position is in
    ``categorical_features``, or when it holds present values that are not numbers. ``feature_names``
    names the input columns ("f0", "f1", ... when empty). ``cat_encoding_config`` is read for
    ``max_categories`` (no cap when absent). ``missing_replacement`` is None or one entry per input
    column; a None entry means compute it: the mean for numeric columns, the most frequent value for
    categorical ones (``MISSING_CATEGORY``, or 0.0 for numeric, when the column has no present value).
    ``drop_rows_below`` and ``drop_cols_above`` are fractions in [0, 1], or None for no dropping.

    After ``handle_missing_and_categorical_encoding``: ``X``, ``y``, ``ind`` and ``props`` hold the kept
    rows (``X`` with every input column, unencoded); ``removed_rows`` the input positions of the dropped
    rows; ``feature_names`` the names of the processed columns; ``replacements_`` the replacement used
    for each input column (None for dropped columns).
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
        max_categories = (cat_encoding_config or {}).get("max_categories")
        if max_categories is not None and (isinstance(max_categories, bool) or int(max_categories) < 1):
            raise ValueError(f"max_categories must be a positive int or None, got {max_categories!r}")

        self.X = X
        self.y = None if y is None else np.asarray(y)
        self.ind = None if ind is None else np.asarray(ind)
        self.props = None if props is None else np.asarray(props)
        self.input_feature_names: List[str] = names
        self.feature_names: List[str] = list(names)
        self.categorical_features = categorical
        self.max_categories = None if max_categories is None else int(max_categories)
        self.missing_replacement = None if missing_replacement is None else list(missing_replacement)
        self.drop_rows_below = _check_fraction("drop_rows_below", drop_rows_below)
        self.drop_cols_above = _check_fraction("drop_cols_above", drop_cols_above)
        self.removed_rows = np.empty(0, dtype=np.int64)
        self.replacements_: List[Any] = [None] * n_cols
        self.classes_: np.ndarray | None = None

    def handle_missing_and_categorical_encoding(self, sparse_threshold: float = 0.01) -> np.ndarray:
        """Process ``X`` and return the processed matrix: dense, float64, 2-D.

        Steps, in order: drop the columns whose share of missing values is above ``drop_cols_above``;
        drop the rows whose share of present values (over the kept columns) is below
        ``drop_rows_below``; replace the missing values; one-hot encode the categorical columns, with
        categories most frequent first (ties in order of appearance), at most ``max_categories`` of them
        plus one "<other>" column for the rest. Kept numeric columns come first, in input order, then
        the one-hot blocks in input order. Call it once per processor.

        ``sparse_threshold`` is the share of non-zero entries below which a sparse result would pay off
        (0 means always dense). The library has no sparse matrix type, so the result is dense whatever
        the share; the value is only checked to be in [0, 1].
        """
        if not 0.0 <= sparse_threshold <= 1.0:
            raise ValueError(f"sparse_threshold must be in [0, 1], got {sparse_threshold!r}")
        X = self.X
        n_rows, n_cols = X.shape
        missing = missing_or_inf_mask(X)

        keep_cols = np.ones(n_cols, dtype=bool)
        if self.drop_cols_above is not None and n_rows:
            keep_cols = missing.mean(axis=0) <= self.drop_cols_above
        cols = np.flatnonzero(keep_cols)
        keep_rows = np.ones(n_rows, dtype=bool)
        if self.drop_rows_below is not None and cols.size:
            keep_rows = 1.0 - missing[:, cols].mean(axis=1) >= self.drop_rows_below
        rows = np.flatnonzero(keep_rows)

        self.removed_rows = np.flatnonzero(~keep_rows)
        self.X = X[rows]
        self.y = None if self.y is None else self.y[rows]
        self.ind = None if self.ind is None else self.ind[rows]
        self.props = None if self.props is None else self.props[rows]
        missing = missing[rows]

        numeric: List[np.ndarray] = []
        numeric_names: List[str] = []
        blocks: List[np.ndarray] = []
        block_names: List[str] = []
        for c in cols:
            name = self.input_feature_names[c]
            column, col_missing = self.X[:, c], missing[:, c]
            given = None if self.missing_replacement is None else self.missing_replacement[c]
            values = self._as_numeric(column, col_missing) if c not in self.categorical_features else None
            if values is not None:
                present = values[~col_missing]
                fill = float(given) if given is not None else (float(present.mean()) if present.size else 0.0)
                values[col_missing] = fill
                numeric.append(values)
                numeric_names.append(name)
            else:
                values = column.astype(object)
                fill = given if given is not None else self._most_frequent(values[~col_missing])
                values[col_missing] = fill
                block, names = self._one_hot(values, name)
                blocks.append(block)
                block_names.extend(names)
            self.replacements_[c] = fill

        self.feature_names = numeric_names + block_names
        parts = ([np.column_stack(numeric)] if numeric else []) + blocks
        return np.hstack(parts).astype(np.float64, copy=False) if parts else np.empty((len(rows), 0))

    def get_processed_arrays(self) -> Tuple[np.ndarray | None, np.ndarray | None, np.ndarray | None]:
        """Return ``(y_processed, ind, props)`` for the kept rows.

        ``y_processed`` is None when ``y`` is None; numeric targets come as they are, object targets that
        are all numbers as float64, and other labels as int64 codes of the labels (as text) in sorted
        order, the labels kept in ``classes_``.
        """
        y = self.y
        if y is not None and y.dtype.kind not in "biuf":
            try:
                y = pd.to_numeric(pd.Series(y, dtype=object), errors="raise").to_numpy(dtype=np.float64)
            except (ValueError, TypeError):
                self.classes_, codes = np.unique(y.astype(str), return_inverse=True)
                y = codes.astype(np.int64)
        return y, self.ind, self.props

    @staticmethod
    def _as_numeric(column: np.ndarray, col_missing: np.ndarray) -> np.ndarray | None:
        """Return the column as a new float64 array, or None when a present value is not a number."""
        if column.dtype.kind in "biuf":
            return column.astype(np.float64)
        # A new writable array: pandas 3 hands out read-only views (copy on write).
        values = np.array(pd.to_numeric(pd.Series(column, dtype=object), errors="coerce"), dtype=np.float64)
        if (np.isnan(values) & ~col_missing).any():
            return None
        return values

    @staticmethod
    def _most_frequent(present: np.ndarray) -> Any:
        if not present.size:
            return MISSING_CATEGORY
        codes, uniques = pd.factorize(present)
        return uniques[np.argmax(np.bincount(codes))]

    def _one_hot(self, values: np.ndarray, name: str) -> Tuple[np.ndarray, List[str]]:
        codes, uniques = pd.factorize(values)
        order = np.argsort(-np.bincount(codes, minlength=len(uniques)), kind="stable")
        top = order if self.max_categories is None else order[: self.max_categories]
        has_other = len(top) < len(order)
        column_of = np.full(len(uniques), len(top))  # categories beyond the cap go to "<other>"
        column_of[top] = np.arange(len(top))
        block = np.zeros((len(values), len(top) + has_other))
        block[np.arange(len(values)), column_of[codes]] = 1.0
        names = [f"{name}={uniques[t]}" for t in top] + ([f"{name}={OTHER_CATEGORY}"] if has_other else [])
        return block, names
