"""The coreset base class: per-row sensitivities, sensitivity sampling and the dictionary form.

A subclass supplies the sensitivity of each row for its model family (``_sensitivities``) and the
fewest rows it needs (``_min_samples``); everything else lives here.
"""

from __future__ import annotations

import abc
from typing import Any, Dict, Tuple, Union

import numpy as np

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


class CoresetBase(abc.ABC):
    """A weighted subset of rows chosen by sensitivity sampling.

    ``dtype`` is the float type the computations run in. ``random_state`` (None, an int or a numpy
    ``Generator``) seeds the randomness of the subclass's computation and of ``sample``.
    ``coreset_size`` is the default number of draws of ``sample``; when None it is derived from the row
    count (see ``default_coreset_size``).

    ``safe_mode`` starts False: degenerate input to ``compute_sensitivities`` (no rows, fewer rows than
    the model needs, non-finite values, sensitivities that are all zero or not finite) raises
    ``ValueError``. Set it to True, for instance for the small, irregular leftover chunk of a stream, and
    such input is handled instead: non-finite values are replaced by their column's finite mean, and
    when there are too few rows or the sensitivities are degenerate every row gets sensitivity 1.
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
        self._sample: Tuple[int, np.ndarray, np.ndarray] | None = None  # (draws, idxs, weights)

    @abc.abstractmethod
    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        """The fewest rows the sensitivity computation needs for this input."""

    @abc.abstractmethod
    def _sensitivities(self, X: np.ndarray, y: np.ndarray | None) -> np.ndarray:
        """One sensitivity per row of the finite ``X`` (and 2-D ``y``, or None), in ``self.dtype``."""

    @staticmethod
    def default_coreset_size(n_samples: int) -> int:
        """The coreset size used when none is configured: a tenth of the rows, at least 32, at most all."""
        return min(n_samples, max(32, int(np.ceil(0.1 * n_samples))))

    def compute_sensitivities(self, X: Any, y: Any = None) -> np.ndarray:
        """Compute, store and return one non-negative sensitivity per row of ``X``.

        ``X`` is 2-D; ``y`` is None or has one entry (or row) per row of ``X``. Any earlier sample is
        forgotten. See the class docstring for how ``safe_mode`` treats degenerate input.
        """
        X = np.asarray(X, dtype=self.dtype)
        if X.ndim != 2:
            raise ValueError(f"X must be 2-D, got {X.ndim}-D")
        n = X.shape[0]
        if y is not None:
            y = np.asarray(y, dtype=self.dtype)
            if len(y) != n:
                raise ValueError(f"y has {len(y)} rows, but X has {n}")
            y = y.reshape(n, -1)
        if n == 0:
            self._degenerate("X has no rows")
            sensitivities = np.empty(0, dtype=self.dtype)
        else:
            if not np.isfinite(X).all() or (y is not None and not np.isfinite(y).all()):
                self._degenerate("X or y holds NaN or infinite values")
                X = _fill_non_finite(X)
                y = None if y is None else _fill_non_finite(y)
            needed = self._min_samples(X, y)
            if n < needed:
                self._degenerate(f"{n} rows, fewer than the {needed} this coreset needs")
                sensitivities = np.ones(n, dtype=self.dtype)
            else:
                sensitivities = np.asarray(self._sensitivities(X, y), dtype=self.dtype)
                s = sensitivities
                if not (np.isfinite(s).all() and (s >= 0).all() and s.any()):
                    self._degenerate("the sensitivities are all zero, negative or not finite")
                    sensitivities = np.ones(n, dtype=self.dtype)
        self.sensitivities = sensitivities
        self.n_samples = n
        self._sample = None
        return sensitivities

    def sample(
        self, coreset_size: int | None = None, random_state: RandomState = None
    ) -> Tuple[np.ndarray, np.ndarray]:
        """Choose the coreset and return ``(idxs, weights)``.

        Draws ``coreset_size`` rows (else the configured size, else ``default_coreset_size``) with
        replacement, with probability ``p_i`` proportional to sensitivity, and merges repeats: ``idxs``
        are the distinct rows drawn, ascending, so there may be fewer than ``coreset_size``; a row drawn
        ``c`` times weighs ``c / (coreset_size * p_i)``, so the weights sum to an unbiased estimate of the
        row count. When the size is at least the row count every row is kept with weight 1.
        ``random_state`` overrides the instance's.
        """
        if self.sensitivities is None:
            raise RuntimeError("call compute_sensitivities() before sample()")
        n = self.n_samples
        size = self._check_size(coreset_size) or self.coreset_size or self.default_coreset_size(n)
        if size >= n:
            idxs, weights = np.arange(n), np.ones(n, dtype=np.float64)
        else:
            rng = np.random.default_rng(self.random_state if random_state is None else random_state)
            p = self.sensitivities.astype(np.float64)
            p /= p.sum()
            idxs, counts = np.unique(rng.choice(n, size=size, replace=True, p=p), return_counts=True)
            weights = counts / (size * p[idxs])
        self._sample = (size, idxs, weights.astype(self.dtype))
        return idxs, self._sample[2]

    def to_dict(self, with_important: bool = False, use_keep_selected_only: bool = True) -> Dict[str, Any]:
        """Return the coreset as a dict of plain Python and numpy values, sampling first if needed.

        Keys: ``"coreset_size"`` (int, draws requested), ``"n_samples"`` (int, rows the sensitivities
        were computed on), ``"dtype"`` (str), ``"idxs"`` (int array, positions of the selected rows,
        ascending) and ``"weights"``. With ``use_keep_selected_only`` the per-row arrays hold the
        selected rows only (``weights[j]`` is the weight of row ``idxs[j]``); without it they have one
        entry per row (weight 0 for rows not selected). ``with_important`` adds ``"sensitivities"``
        (same rule) and ``"important_idxs"``: the positions of the ``min(coreset_size, n_samples)`` rows of
        highest sensitivity, highest first.
        """
        if self._sample is None:
            self.sample()
        assert self._sample is not None and self.sensitivities is not None
        size, idxs, weights = self._sample
        n = self.n_samples
        if not use_keep_selected_only:
            full = np.zeros(n, dtype=self.dtype)
            full[idxs] = weights
            weights = full
        out: Dict[str, Any] = {
            "coreset_size": int(size),
            "n_samples": int(n),
            "dtype": self.dtype.name,
            "idxs": idxs.astype(np.int64),
            "weights": weights.copy(),
        }
        if with_important:
            s = self.sensitivities
            out["sensitivities"] = s[idxs] if use_keep_selected_only else s.copy()
            out["important_idxs"] = np.argsort(-s, kind="stable")[: min(size, n)].astype(np.int64)
        return out

    def _degenerate(self, message: str) -> None:
        if not self.safe_mode:
            raise ValueError(f"{type(self).__name__}: {message} (set safe_mode = True to handle it)")

    @staticmethod
    def _check_size(size: int | None) -> int | None:
        if size is None:
            return None
        if isinstance(size, bool) or not isinstance(size, (int, np.integer)) or size < 1:
            raise ValueError(f"coreset_size must be a positive int or None, got {size!r}")
        return int(size)
