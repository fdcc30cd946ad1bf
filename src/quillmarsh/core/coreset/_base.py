"""The coreset base class: per-row sensitivities, sensitivity sampling and the dictionary form.

A subclass supplies the sensitivity of each (weighted) row for its model family (``_sensitivities``)
and the fewest rows it needs (``_min_samples``); everything else lives here.
"""

from __future__ import annotations

import abc
from typing import Any, Dict, Tuple, Union

import numpy as np
from sklearn.base import BaseEstimator

from quillmarsh.core.coreset.sampling import sample_rows
from quillmarsh.timing import STAGES
from quillmarsh.validation import check_positive_int

RandomState = Union[None, int, np.random.Generator]


def _fill_non_finite(A: np.ndarray) -> np.ndarray:
    """Return a copy of the 2-D ``A`` with each non-finite entry set to its column's finite mean (or 0)."""
    A = A.copy()
    bad = ~np.isfinite(A)
    counts = (~bad).sum(axis=0)
    sums = np.where(bad, 0, A).sum(axis=0, dtype=np.float64)
    means = np.divide(sums, counts, out=np.zeros_like(sums), where=counts > 0)
    A[bad] = np.broadcast_to(means.astype(A.dtype), A.shape)[bad]
    return A


class CoresetBase(BaseEstimator, abc.ABC):  # type: ignore[misc]
    """A weighted subset of rows chosen by sensitivity sampling.

    Rows may carry weights (``sample_weight``): a row of weight 3 counts as three copies of it, so the
    coreset of a coreset is built the same way as that of plain rows. ``get_params`` lists the
    constructor's parameters, as for any scikit-learn estimator.

    ``dtype`` is the float type the computations run in. ``random_state`` (None, an int or a numpy
    ``Generator``) seeds the randomness of the subclass's computation and of ``sample``.
    ``coreset_size`` is the default number of draws of ``sample``; when None it is derived from the row
    count (see ``default_coreset_size``).

    ``safe_mode`` starts False: degenerate input to ``compute_sensitivities`` (fewer rows than the model
    needs, non-finite values, sensitivities that are all zero or not finite) raises
    ``ValueError``. Set it to True, for instance for the small, irregular leftover chunk of a stream, and
    such input is handled instead: non-finite values are replaced by their column's finite mean, and
    when there are too few rows or the sensitivities are degenerate every row gets sensitivity 1.

    Parameters
    ----------
    dtype : str, numpy dtype or type, default="float32"
        The float type the computations run in.
    random_state : None, int or numpy Generator, default=None
        Seeds the randomness of the subclass's computation and of ``sample``.
    coreset_size : int or None, default=None
        The default number of draws of ``sample``; None derives it from the row count.

    Raises
    ------
    ValueError
        If ``dtype`` is not a float type, or ``coreset_size`` is neither None nor a positive int.
    """

    def __init__(
        self, dtype: Union[str, np.dtype, type] = "float32", random_state: RandomState = None,
        coreset_size: int | None = None,
    ) -> None:
        self.dtype = np.dtype(dtype)
        if self.dtype.kind != "f":
            raise ValueError(f"dtype must be a float type, got {self.dtype}")
        self.random_state = random_state
        self.coreset_size = self._check_size(coreset_size)
        self.safe_mode = False
        self.sensitivities: np.ndarray | None = None
        self.n_samples = 0
        self._rows: Tuple[np.ndarray, np.ndarray | None, np.ndarray | None] | None = None  # X, y, weights
        self._sample: Tuple[int, np.ndarray, np.ndarray] | None = None  # (draws, idxs, weights)

    @abc.abstractmethod
    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        """Return the fewest rows the sensitivity computation needs for this input."""

    @abc.abstractmethod
    def _sensitivities(
        self, X: np.ndarray, y: np.ndarray | None, sample_weight: np.ndarray | None
    ) -> np.ndarray:
        """Return one sensitivity per row of the finite ``X`` (and 2-D ``y``, or None), in ``self.dtype``.

        ``sample_weight`` is None (every row weighs 1) or one positive float64 weight per row.
        """

    @staticmethod
    def default_coreset_size(n_samples: int) -> int:
        """Return the coreset size used when none is configured.

        That is a tenth of the rows (rounded up), at least 32, at most all of them.

        Parameters
        ----------
        n_samples : int
            The number of rows.

        Returns
        -------
        int
            ``min(n_samples, max(32, ceil(n_samples / 10)))``.
        """
        return min(n_samples, max(32, int(np.ceil(0.1 * n_samples))))

    def compute_sensitivities(self, X: Any, y: Any = None, sample_weight: Any = None) -> np.ndarray:
        """Compute, store and return one non-negative sensitivity per row of ``X``.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            The rows.
        y : array-like of shape (n_samples,) or (n_samples, n_targets), default=None
            Targets, for the model families that use them.
        sample_weight : array-like of shape (n_samples,), default=None
            Positive weight of each row; None means 1 for every row, and gives the same sensitivities
            as weights of 1.

        Returns
        -------
        ndarray of shape (n_samples,)
            The sensitivities, in ``dtype``. Any earlier sample is forgotten. See the class docstring
            for how ``safe_mode`` treats degenerate input.

        Raises
        ------
        ValueError
            If ``X`` is not 2-D, ``y`` or ``sample_weight`` has not one entry per row, a weight is not
            finite and positive, or (without ``safe_mode``) the input is degenerate.
        """
        with STAGES.measure("sensitivities"):
            return self._compute(X, y, sample_weight)

    def _compute(self, X: Any, y: Any, sample_weight: Any) -> np.ndarray:
        X = np.asarray(X)
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, got {X.ndim}-D")
        rows = X if X.dtype.kind == "f" else X.astype(np.float64)
        X = np.asarray(X, dtype=self.dtype)
        n = X.shape[0]
        if y is not None:
            y = np.asarray(y)
            if len(y) != n:
                raise ValueError(f"y has {len(y)} rows, but X has {n}")
        y_rows = y
        if y is not None:
            y = np.asarray(y, dtype=self.dtype)
            # one column per target, also for no rows
            y = y.reshape(n, int(np.prod(y.shape[1:], dtype=np.int64)))
        weights = None
        if sample_weight is not None:
            weights = np.asarray(sample_weight, dtype=np.float64).ravel()
            if weights.shape[0] != n:
                raise ValueError(f"sample_weight has {weights.shape[0]} entries, but X has {n} rows")
            if not (np.isfinite(weights).all() and (weights > 0).all()):
                raise ValueError("sample_weight must be finite and positive")
        if n == 0:  # nothing to summarise: an empty answer, not a degenerate one
            sensitivities = np.empty(0, dtype=self.dtype)
        else:
            if not np.isfinite(X).all() or (y is not None and not np.isfinite(y).all()):
                self._degenerate("X or y holds NaN or infinite values")
                X = _fill_non_finite(X)
                y = None if y is None else _fill_non_finite(y)
            needed = self._min_samples(X, y)
            if n < needed:
                self._degenerate(f"{n} rows, fewer than the {needed} this coreset needs")
                sensitivities = self._uniform(n, weights)
            else:
                sensitivities = np.asarray(self._sensitivities(X, y, weights), dtype=self.dtype)
                s = sensitivities
                if not (np.isfinite(s).all() and (s >= 0).all() and s.any()):
                    self._degenerate("the sensitivities are all zero, negative or not finite")
                    sensitivities = self._uniform(n, weights)
        self.sensitivities = sensitivities
        self.n_samples = n
        self._rows = (rows, y_rows, weights)
        self._sample = None
        return sensitivities

    def sample(
        self, coreset_size: int | None = None, random_state: RandomState = None
    ) -> Tuple[np.ndarray, np.ndarray]:
        """Choose the coreset and return ``(idxs, weights)``.

        Parameters
        ----------
        coreset_size : int, default=None
            The number of rows to keep; else the configured size, else ``default_coreset_size``.
        random_state : None, int or numpy Generator, default=None
            Overrides the instance's.

        Returns
        -------
        idxs : ndarray of int
            Exactly ``coreset_size`` distinct rows, ascending, drawn without replacement: row ``i`` is
            kept with probability ``p_i = min(1, c * s_i)``, ``c`` making the ``p_i`` sum to the size
            (fewer rows only when fewer have a positive sensitivity).
        weights : ndarray
            ``w_i / p_i`` of each kept row (``w_i`` its sample weight, 1 without), so every weighted
            sum over the coreset estimates the same sum over all rows without bias. When the size is
            at least the row count every row is kept with its own weight.

        Raises
        ------
        RuntimeError
            If ``compute_sensitivities`` was not called first.
        ValueError
            If ``coreset_size`` is neither None nor a positive int.
        """
        if self.sensitivities is None or self._rows is None:
            raise RuntimeError("call compute_sensitivities() before sample()")
        n = self.n_samples
        size = self._check_size(coreset_size) or self.coreset_size or self.default_coreset_size(n)
        if n == 0:
            idxs, weights = np.empty(0, dtype=np.int64), np.empty(0)
        else:
            idxs, weights = sample_rows(
                self.sensitivities,
                size,
                sample_weight=self._rows[2],
                random_state=self.random_state if random_state is None else random_state,
            )
        self._sample = (size, idxs, weights.astype(self.dtype))
        return idxs, self._sample[2]

    def to_dict(self, with_important: bool = False, use_keep_selected_only: bool = True) -> Dict[str, Any]:
        """Return the coreset as a dict of plain Python and numpy values, sampling first if needed.

        Parameters
        ----------
        with_important : bool, default=False
            Whether to add ``"sensitivities"`` (same rule as the other per-row arrays) and
            ``"important_idxs"``: the positions of the ``min(coreset_size, n_samples)`` rows of highest
            sensitivity, highest first.
        use_keep_selected_only : bool, default=True
            Whether the per-row arrays hold the selected rows only (``weights[j]`` is the weight of row
            ``idxs[j]``). Otherwise they have one entry per row (weight 0 for rows not selected), and
            ``"X"``, ``"y"`` and ``"sample_weight"`` are the arrays given, not copies.

        Returns
        -------
        dict
            Keys: ``"coreset_size"`` (int, rows requested), ``"n_samples"`` (int, rows the
            sensitivities were computed on), ``"dtype"`` (str), ``"idxs"`` (int array, positions of
            the selected rows, ascending), ``"weights"``, ``"X"`` and ``"y"`` (the rows themselves as
            given to ``compute_sensitivities``, floats in their own precision; ``"y"`` None without
            targets) and ``"sample_weight"`` (the rows' weights before sampling, None when none were
            given).

        Raises
        ------
        RuntimeError
            If ``compute_sensitivities`` was not called first.
        """
        if self._sample is None:
            self.sample()
        assert self._sample is not None and self.sensitivities is not None and self._rows is not None
        size, idxs, weights = self._sample
        n = self.n_samples
        X, y, sample_weight = self._rows
        if use_keep_selected_only:
            X = X[idxs]
            y = None if y is None else y[idxs]
            sample_weight = None if sample_weight is None else sample_weight[idxs]
        else:
            full = np.zeros(n, dtype=self.dtype)
            full[idxs] = weights
            weights = full
        out: Dict[str, Any] = {
            "coreset_size": int(size),
            "n_samples": int(n),
            "dtype": self.dtype.name,
            "idxs": idxs.astype(np.int64),
            "weights": weights.copy(),
            "X": X,
            "y": y,
            "sample_weight": sample_weight,
        }
        if with_important:
            s = self.sensitivities
            out["sensitivities"] = s[idxs] if use_keep_selected_only else s.copy()
            out["important_idxs"] = np.argsort(-s, kind="stable")[: min(size, n)].astype(np.int64)
        return out

    def _uniform(self, n: int, weights: np.ndarray | None) -> np.ndarray:
        """Return the fallback sensitivities: 1 for every row, or each row's share of the total weight."""
        uniform = np.ones(n) if weights is None else weights / weights.sum()
        return uniform.astype(self.dtype)

    def _degenerate(self, message: str) -> None:
        if not self.safe_mode:
            raise ValueError(f"{type(self).__name__}: {message} (set safe_mode = True to handle it)")

    @staticmethod
    def _check_size(size: int | None) -> int | None:
        return check_positive_int(size, "coreset_size", allow_none=True)
