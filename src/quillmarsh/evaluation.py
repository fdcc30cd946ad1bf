"""Judging a summary against the full data, in bounded memory.

Callers feed batches of rows; nothing here holds more than one batch plus state of size O(d^2) for d
features (or the m rows of a reservoir sample).

- ``StreamingStandardizer``: streamed means and variances (weighted, merged batch by batch), the
  transform to standardised features, and the constant columns to drop.
- ``StreamingLeastSquares``: the exact least squares of every row fed, from the R factor of a QR
  decomposition updated batch by batch; rank deficiency (constant or collinear columns) is handled by a
  minimum-norm solve on standardised columns, so a constant column gets coefficient 0.
- ``RegressionScore``: the summed squared loss and R^2 of a model over a stream.
- ``ReservoirSample``: a uniform sample of fixed size over a stream.
- ``kmeans_cost`` and ``streamed_kmeans_cost``: the k-means cost of centres on a batch or a stream.
- Reference runners (``reference_least_squares``, ``reference_kmeans``, ``reference_sgd_regressor``):
  full-data models fitted over a stream, each with its time and memory.
- ``fit_in_memory``: a model fitted on weighted rows held in memory (a summary, a sample), measured alike.
- ``judge_regression`` and ``judge_kmeans``: weighted samples of a stream (coresets, uniform samples)
  against the full data's references and scikit-learn's streaming learners, as ``QualityRow`` records.

A *stream of batches* is either an iterable of batches or a callable that returns a fresh iterable
(needed by runners that read the stream more than once). A *batch* is an array ``X``, a pair
``(X, y)`` or a triple ``(X, y, sample_weight)``; ``y`` or ``sample_weight`` may be None.

Example
-------
>>> import numpy as np
>>> from quillmarsh.evaluation import StreamingLeastSquares
>>> rng = np.random.default_rng(0)
>>> model = StreamingLeastSquares()
>>> for _ in range(3):
...     X = rng.normal(size=(100, 2))
...     _ = model.partial_fit(X, X @ [1.0, -2.0] + 3.0)
>>> np.round(model.coef_, 6).tolist(), round(model.intercept_, 6)
([1.0, -2.0], 3.0)
"""

from __future__ import annotations

import contextlib
import importlib
import sys
import time
import tracemalloc
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Tuple, Union

import numpy as np
from scipy.linalg.lapack import dtpqrt as _tpqrt

from quillmarsh.core.distances import squared_distances
from quillmarsh.validation import check_positive_int

__all__ = [
    "Batch",
    "BatchStream",
    "QualityRow",
    "RandomState",
    "ReferenceResult",
    "RegressionScore",
    "ReservoirSample",
    "SOLVERS",
    "StreamingLeastSquares",
    "StreamingStandardizer",
    "TRACED_BATCHES",
    "fit_in_memory",
    "judge_kmeans",
    "judge_regression",
    "kmeans_cost",
    "reference_kmeans",
    "reference_least_squares",
    "reference_sgd_regressor",
    "squared_distances",
    "standardized",
    "streamed_kmeans_cost",
    "streamed_regression_score",
]

RandomState = Union[None, int, np.random.Generator]
_QR_ROWS = 1024
"""Rows of a batch put under the R factor of ``StreamingLeastSquares`` at once."""
_QR_BLOCK = 32
"""Columns of LAPACK's blocks in that update."""
_GRAM_ROWS = 4096
"""Rows of a batch added to the Gram matrix of ``StreamingLeastSquares(solver="gram")`` at once."""
SOLVERS = ("qr", "gram")
"""The ways ``StreamingLeastSquares`` keeps its state."""
Batch = Union[np.ndarray, Tuple[Any, ...]]
"""An array ``X``, ``(X, y)`` or ``(X, y, sample_weight)``."""
BatchStream = Union[Iterable[Batch], Callable[[], Iterable[Batch]]]
"""An iterable of batches, or a callable that returns a fresh one for every pass."""


# Validation


def _check_2d(X: Any, name: str = "X", n_features: Optional[int] = None) -> np.ndarray:
    """Return a 2-D float array of finite values (float32 stays float32; other types become float64)."""
    arr = np.asarray(X)
    if arr.ndim != 2:
        raise ValueError(f"{name} must be 2-D (rows, features), got {arr.ndim}-D")
    if arr.dtype.kind != "f":
        try:
            arr = arr.astype(np.float64)
        except (TypeError, ValueError):
            raise ValueError(f"{name} must hold numbers, got dtype {arr.dtype}") from None
    if not np.isfinite(arr).all():
        raise ValueError(f"{name} holds missing or infinite values")
    if n_features is not None and arr.shape[1] != n_features:
        raise ValueError(f"{name} has {arr.shape[1]} features, expected {n_features}")
    return arr


def _check_y(y: Any, n_samples: int) -> np.ndarray:
    arr = np.asarray(y)
    if arr.ndim == 2 and arr.shape[1] == 1:
        arr = arr[:, 0]
    if arr.ndim != 1 or len(arr) != n_samples:
        raise ValueError(f"y must be 1-D with one value per row ({n_samples}), got shape {arr.shape}")
    try:
        arr = arr.astype(np.float64, copy=False)
    except (TypeError, ValueError):
        raise ValueError(f"y must hold numbers, got dtype {arr.dtype}") from None
    if not np.isfinite(arr).all():
        raise ValueError("y holds missing or infinite values")
    return arr


def _check_weight(sample_weight: Any, n_samples: int) -> np.ndarray:
    if sample_weight is None:
        return np.ones(n_samples)
    arr = np.asarray(sample_weight, dtype=np.float64)
    if arr.ndim == 0:
        arr = np.full(n_samples, float(arr))
    if arr.ndim != 1 or len(arr) != n_samples:
        raise ValueError(f"sample_weight must be 1-D with one value per row ({n_samples}), "
                         f"got shape {arr.shape}")
    if not np.isfinite(arr).all() or (arr < 0).any():
        raise ValueError("sample_weight must be finite and non-negative")
    return arr


def _positive_int(value: Any, name: str) -> int:
    return check_positive_int(value, name)


def _not_fitted(name: str) -> ValueError:
    return ValueError(f"this {name} has seen no rows yet: call partial_fit first")


# Squared distances and the k-means cost


def kmeans_cost(X: Any, centers: Any, sample_weight: Any = None) -> float:
    """Return the k-means cost of ``centers`` on a batch.

    The cost is the weighted sum of the squared distances of the rows to their nearest centre.

    Parameters
    ----------
    X : array-like of shape (n_samples, n_features)
        The rows: finite numbers.
    centers : array-like of shape (n_centers, n_features)
        The centres, at least one.
    sample_weight : array-like of shape (n_samples,), optional
        One non-negative weight per row; 1 by default.

    Returns
    -------
    float
        The cost, summed in float64 (0.0 for a batch without rows).

    Raises
    ------
    ValueError
        If ``X`` or ``centers`` is not 2-D and finite, they differ in features, ``centers`` is empty,
        or the weights are not one finite, non-negative value per row.
    """
    return _kmeans_costs(X, [centers], sample_weight)[0]


def _kmeans_costs(X: Any, center_sets: List[Any], sample_weight: Any = None) -> List[float]:
    """Return the k-means cost of each set of centres on a batch (see ``kmeans_cost``).

    The batch is checked once and the distances to every set come from one matrix product: a pass
    that scores several models (the starts of a reference, the fits on samples) reads each batch once.
    """
    X = _check_2d(X)
    sets = [_check_2d(centers, "centers", n_features=X.shape[1]) for centers in center_sets]
    if any(len(centers) == 0 for centers in sets):
        raise ValueError("centers must hold at least one centre")
    weight = _check_weight(sample_weight, len(X))
    if len(X) == 0 or not sets:
        return [0.0] * len(sets)
    distances = squared_distances(X, np.vstack(sets))
    costs = []
    start = 0
    for centers in sets:
        nearest = distances[:, start: start + len(centers)].min(axis=1)
        costs.append(float(np.dot(weight, nearest.astype(np.float64))))
        start += len(centers)
    return costs


def streamed_kmeans_cost(batches: BatchStream, centers: Any) -> float:
    """Return the k-means cost of ``centers`` over a stream of batches (``y`` is ignored).

    Parameters
    ----------
    batches : iterable of batches, or a callable that returns one
        Arrays ``X``, or ``(X, y)`` / ``(X, y, sample_weight)`` tuples.
    centers : array-like of shape (n_centers, n_features)
        The centres, at least one.

    Returns
    -------
    float
        The summed cost of every batch.
    """
    return _streamed_kmeans_costs(batches, [centers], 1)[0][0]


def _streamed_kmeans_costs(batches: BatchStream, center_sets: List[Any],
                           passes: int) -> Tuple[List[float], int]:
    """Return the cost of each set of centres over one pass of the stream, and the rows it held.

    ``passes`` is how many passes the caller makes in all (see ``_one_pass``).
    """
    costs = [0.0] * len(center_sets)
    rows = 0
    for batch in _one_pass(batches, passes):
        X, _, weight = _unpack(batch)
        costs = [total + cost for total, cost in zip(costs, _kmeans_costs(X, center_sets, weight))]
        rows += len(X)
    return costs, rows


# Standardisation


class StreamingStandardizer:
    """Means and variances of the features over a stream, and the transform to standardised features.

    Each batch's weighted mean and sum of squared deviations are computed on their own and merged into
    the running ones (the pairwise update of Chan, Golub and LeVeque), which stays accurate where a
    running sum of squares would cancel, such as timestamps in seconds. A column is constant when every
    row with a positive weight holds the same value (checked exactly, by its minimum and maximum): its
    variance is exactly 0, it is listed in ``constant_columns_``, and ``transform`` drops it.

    Parameters
    ----------
    drop_constant : bool, default True
        Whether ``transform`` leaves out the constant columns. When False, they are kept and come out
        as ``X - mean`` (a scale of 1).

    Attributes
    ----------
    n_features_in_ : int
        Features of the rows fed.
    n_samples_seen_ : int
        Rows fed (whatever their weight).
    sum_weights_ : float
        Sum of the weights of the rows fed.
    mean_ : numpy.ndarray of shape (n_features_in_,)
        Weighted means.
    var_ : numpy.ndarray of shape (n_features_in_,)
        Weighted population variances (divided by the sum of the weights).
    scale_ : numpy.ndarray of shape (n_features_in_,)
        Standard deviations, 1.0 for the constant columns.
    constant_columns_ : numpy.ndarray of int
        Indices of the columns with zero variance.
    kept_columns_ : numpy.ndarray of int
        Indices of the columns ``transform`` returns.
    """

    def __init__(self, drop_constant: bool = True) -> None:
        self.drop_constant = bool(drop_constant)
        self.n_samples_seen_ = 0
        self.sum_weights_ = 0.0
        self._mean: Optional[np.ndarray] = None
        self._m2: Optional[np.ndarray] = None
        self._min: Optional[np.ndarray] = None
        self._max: Optional[np.ndarray] = None

    def partial_fit(self, X: Any, sample_weight: Any = None) -> StreamingStandardizer:
        """Add a batch of rows to the running means and variances.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Finite numbers; the same number of features in every batch.
        sample_weight : array-like of shape (n_samples,), optional
            One non-negative weight per row; 1 by default.

        Returns
        -------
        StreamingStandardizer
            self.
        """
        X = _check_2d(X, n_features=None if self._mean is None else len(self._mean))
        weight = _check_weight(sample_weight, len(X))
        d = X.shape[1]
        if self._mean is None:
            self._mean, self._m2 = np.zeros(d), np.zeros(d)
            self._min, self._max = np.full(d, np.inf), np.full(d, -np.inf)
        assert self._m2 is not None and self._min is not None and self._max is not None
        self.n_samples_seen_ += len(X)
        present = weight > 0
        batch_weight = float(weight.sum())
        if batch_weight <= 0:
            return self
        rows = (X if present.all() else X[present]).astype(np.float64, copy=False)
        w = weight if present.all() else weight[present]
        np.minimum(self._min, rows.min(axis=0), out=self._min)
        np.maximum(self._max, rows.max(axis=0), out=self._max)
        batch_mean = w @ rows / batch_weight
        deviation = rows - batch_mean
        np.square(deviation, out=deviation)
        batch_m2 = w @ deviation
        del deviation
        total = self.sum_weights_ + batch_weight
        delta = batch_mean - self._mean
        self._mean = self._mean + delta * (batch_weight / total)
        self._m2 = self._m2 + batch_m2 + np.square(delta) * (self.sum_weights_ * batch_weight / total)
        self.sum_weights_ = total
        return self

    def _state(self) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
        if self._mean is None or self._m2 is None or self.sum_weights_ <= 0:
            raise _not_fitted(type(self).__name__)
        assert self._min is not None and self._max is not None
        constant = self._min == self._max
        var = np.where(constant, 0.0, np.maximum(self._m2, 0.0) / self.sum_weights_)
        mean = np.where(constant, self._min, self._mean)
        return mean, var, constant

    @property
    def n_features_in_(self) -> int:
        """Features of the rows fed."""
        if self._mean is None:
            raise _not_fitted(type(self).__name__)
        return len(self._mean)

    @property
    def mean_(self) -> np.ndarray:
        """Weighted means of the features."""
        return self._state()[0]

    @property
    def var_(self) -> np.ndarray:
        """Weighted population variances of the features."""
        return self._state()[1]

    @property
    def scale_(self) -> np.ndarray:
        """Standard deviations of the features, 1.0 for the constant columns."""
        _, var, constant = self._state()
        scale: np.ndarray = np.where(constant | (var <= 0), 1.0, np.sqrt(var))
        return scale

    @property
    def constant_columns_(self) -> np.ndarray:
        """Indices of the columns with zero variance."""
        return np.flatnonzero(self._state()[2])

    @property
    def kept_columns_(self) -> np.ndarray:
        """Indices of the columns ``transform`` returns."""
        constant = self._state()[2]
        return np.flatnonzero(~constant) if self.drop_constant else np.arange(len(constant))

    def transform(self, X: Any) -> np.ndarray:
        """Standardise a batch: ``(X - mean_) / scale_`` on the kept columns.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features_in_)
            Finite numbers.

        Returns
        -------
        numpy.ndarray of shape (n_samples, len(kept_columns_))
            In the float type of ``X`` (float64 for non-float input).

        Raises
        ------
        ValueError
            If no row was fed yet, or ``X`` is not a finite 2-D array of ``n_features_in_`` columns.
        """
        X = _check_2d(X, n_features=self.n_features_in_)
        kept = self.kept_columns_
        out: np.ndarray = X[:, kept]  # a copy, standardised in place
        out -= self.mean_[kept].astype(X.dtype)
        out /= self.scale_[kept].astype(X.dtype)
        return out


# Least squares


class StreamingLeastSquares:
    """The exact least squares of every row fed, updated batch by batch (a QR factor, or the Gram matrix).

    The state is the upper-triangular R factor of ``[1, X - s, y - t]`` (every row scaled by the square
    root of its weight), where the shifts ``s`` and ``t`` are the medians of the first batch: R is updated
    by the Householder QR of R over each batch, so the state has ``d + 2`` rows and columns whatever
    the stream's length, and the normal equations are never formed. With ``solver="gram"`` the state
    is the Gram matrix of those rows instead, and R comes from it at the solve (the square root of its
    eigendecomposition, made triangular by a QR of ``d + 2`` rows). The solve moves to
    standardised columns within R (centring and scaling are column operations, exact on R), drops the
    constant columns (coefficient 0), and takes the minimum-norm least-squares solution there: a column
    that repeats others (rank deficiency) shares the weight with them instead of getting a huge
    coefficient.

    Parameters
    ----------
    fit_intercept : bool, default True
        Whether to fit an intercept. Without one, constant columns are not dropped (they play its part).
    rcond : float, optional
        Relative cut-off of the singular values of the standardised design, below which a direction
        counts as rank deficient. By default ``eps * max(n_samples_seen_, n_features + 1)``, as
        ``numpy.linalg.lstsq`` does on the whole matrix, raised with an intercept to the precision the
        centred columns are known to: ``10 * eps * max |x_j| / std_j`` (a column far from 0 for its
        spread, such as a timestamp, or a sum of such columns, is only known that well); with the
        Gram matrix, at least ``10 * sqrt(eps * (n_features + 2))``, the precision its square root is
        known to.
    solver : {"qr", "gram"}, default "qr"
        ``"qr"`` holds up on any columns. ``"gram"`` does half the arithmetic, one symmetric product a
        block, and is as exact on columns of comparable scale (standardised ones) while the design's
        condition number ``cond`` stays far below ``1 / sqrt(eps)``, about 7e7: its rounding grows as
        ``eps * cond**2`` where the QR's grows as ``eps * cond``. It is no choice for raw timestamps
        beside 0/1 columns.

    Attributes
    ----------
    coef_ : numpy.ndarray of shape (n_features_in_,)
    intercept_ : float
        0.0 without ``fit_intercept``.
    rank_ : int
        Rank of the standardised design without the constant columns.
    constant_columns_ : numpy.ndarray of int
        Columns with a single value among the rows of positive weight.
    n_features_in_ : int
    n_samples_seen_ : int
    sum_weights_ : float
    """

    def __init__(self, fit_intercept: bool = True, rcond: Optional[float] = None, solver: str = "qr") -> None:
        if rcond is not None and not (np.isfinite(rcond) and rcond >= 0):
            raise ValueError(f"rcond must be a non-negative number, got {rcond!r}")
        if solver not in SOLVERS:
            raise ValueError(f"solver must be one of {SOLVERS}, got {solver!r}")
        self.fit_intercept = bool(fit_intercept)
        self.rcond = rcond
        self.solver = solver
        self.n_samples_seen_ = 0
        self.sum_weights_ = 0.0
        self._R: Optional[np.ndarray] = None
        self._shift: Optional[np.ndarray] = None
        self._min: Optional[np.ndarray] = None
        self._max: Optional[np.ndarray] = None
        self._solution: Optional[Tuple[np.ndarray, float, int]] = None

    def partial_fit(self, X: Any, y: Any, sample_weight: Any = None) -> StreamingLeastSquares:
        """Add a batch of rows.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features)
            Finite numbers; the same number of features in every batch.
        y : array-like of shape (n_samples,)
            Finite targets.
        sample_weight : array-like of shape (n_samples,), optional
            One non-negative weight per row; 1 by default.

        Returns
        -------
        StreamingLeastSquares
            self.

        Raises
        ------
        ValueError
            If the arrays are not finite numbers of matching shapes.
        """
        X = _check_2d(X, n_features=None if self._shift is None else len(self._shift) - 1)
        y = _check_y(y, len(X))
        weight = _check_weight(sample_weight, len(X))
        present = weight > 0
        self.n_samples_seen_ += len(X)
        if not present.any():
            return self
        if not present.all():
            X, y, weight = X[present], y[present], weight[present]
        X = X.astype(np.float64, copy=False)
        d = X.shape[1]
        if self._shift is None:
            self._shift = np.append(np.median(X, axis=0), np.median(y))
            self._min, self._max = X.min(axis=0), X.max(axis=0)
            # R (or the Gram matrix) of no rows; the lower part of R stays 0
            self._R = np.zeros((d + 2, d + 2), order="F" if self.solver == "qr" else "C")
        assert self._R is not None and self._min is not None and self._max is not None
        np.minimum(self._min, X.min(axis=0), out=self._min)
        np.maximum(self._max, X.max(axis=0), out=self._max)
        if self.solver == "gram":
            self._add_to_gram(X, y, weight)
            self.sum_weights_ += float(weight.sum())
            self._solution = None
            return self
        # A few thousand rows at a time under R: the work is the same, the copies stay small. LAPACK's
        # QR of a triangle over a block (tpqrt) updates R in place, without factoring R again: 0.51 s
        # for 295,000 rows x 135 columns here, against 0.82 s for a QR of R stacked over the rows.
        step = max(_QR_ROWS, 4 * (d + 2))
        block = np.empty((min(step, len(X)), d + 2), order="F")
        for start in range(0, len(X), step):
            root = np.sqrt(weight[start: start + step])
            rows = block[: len(root)]
            rows[:, 0] = root
            # a plain copy into the column-major block, then the shift in place: four times faster
            # than subtracting across the two layouts at once
            rows[:, 1:-1] = X[start: start + step]
            rows[:, 1:-1] -= self._shift[:d]
            rows[:, -1] = y[start: start + step] - self._shift[-1]
            rows[:, 1:] *= root[:, None]
            self._R, _, _, info = _tpqrt(0, min(_QR_BLOCK, d + 2), self._R, np.asfortranarray(rows),
                                         overwrite_a=1, overwrite_b=1)
            if info != 0:  # only for arguments out of range, which the shapes here rule out
                raise RuntimeError(f"LAPACK's tpqrt failed (info {info})")
        self.sum_weights_ += float(weight.sum())
        self._solution = None
        return self

    def _add_to_gram(self, X: np.ndarray, y: np.ndarray, weight: np.ndarray) -> None:
        assert self._R is not None and self._shift is not None
        d = X.shape[1]
        unit = bool((weight == 1.0).all())
        block = np.empty((min(_GRAM_ROWS, len(X)), d + 2))
        for start in range(0, len(X), _GRAM_ROWS):
            rows = block[: len(X[start: start + _GRAM_ROWS])]
            rows[:, 0] = 1.0
            rows[:, 1:-1] = X[start: start + _GRAM_ROWS]
            rows[:, 1:-1] -= self._shift[:d]
            rows[:, -1] = y[start: start + _GRAM_ROWS] - self._shift[-1]
            if not unit:
                rows *= np.sqrt(weight[start: start + _GRAM_ROWS])[:, None]
            self._R += rows.T @ rows

    def _factor(self) -> np.ndarray:
        """Return R: upper triangular, ``R^T R`` the Gram matrix of the rows fed (shifted, weighted)."""
        assert self._R is not None
        if self.solver == "qr":
            return np.triu(self._R)
        gram = self._R
        # Scaled to a unit diagonal, so that a column's units do not decide what rounding is.
        norms = np.sqrt(np.diagonal(gram))
        used = norms > 0
        scaled = gram[np.ix_(used, used)] / np.outer(norms[used], norms[used])
        eigenvalues, vectors = np.linalg.eigh(scaled)
        root = np.sqrt(np.maximum(eigenvalues, 0.0))[:, None] * vectors.T  # root^T root = scaled
        R = np.zeros_like(gram)
        R[np.ix_(used, used)] = np.linalg.qr(root, mode="r") * norms[used]
        return R

    @property
    def n_features_in_(self) -> int:
        """Features of the rows fed."""
        if self._shift is None:
            raise _not_fitted(type(self).__name__)
        return len(self._shift) - 1

    @property
    def constant_columns_(self) -> np.ndarray:
        """Columns with a single value among the rows of positive weight."""
        if self._min is None or self._max is None:
            raise _not_fitted(type(self).__name__)
        return np.flatnonzero(self._min == self._max)

    def _solve(self) -> Tuple[np.ndarray, float, int]:
        if self._solution is not None:
            return self._solution
        if self._R is None or self._shift is None or self._min is None or self._max is None:
            raise _not_fitted(type(self).__name__)
        R, shift, d = self._factor(), self._shift, len(self._shift) - 1
        eps = np.finfo(np.float64).eps
        coef = np.zeros(d)
        means = np.zeros(d + 1)
        if self.fit_intercept:
            # Row 0 of R holds the weighted sums: the means are its ratios to R[0, 0]. The rows below
            # are the R factor of the centred columns.
            means = R[0, 1:] / R[0, 0] + shift
            design, target = R[1:, 1:-1], R[1:, -1]
            kept = self._min != self._max
        else:
            # Undo the shift: adding multiples of the first column keeps R triangular.
            raw = R[:, 1:] + np.outer(R[:, 0], shift)
            design, target = raw[:, :-1], raw[:, -1]
            kept = np.ones(d, dtype=bool)
        norms = np.linalg.norm(design, axis=0)
        kept &= norms > 0
        rank = 0
        if kept.any():
            rcond = self.rcond
            if rcond is None:
                rcond = eps * max(self.n_samples_seen_, d + 1)
                if self.fit_intercept:
                    # A centred column is known to about eps * |x| / std of itself (a timestamp column
                    # in seconds, or a sum of such columns, carries rounding of that size): directions
                    # below that are noise, not signal.
                    spread = norms[kept] / np.sqrt(self.sum_weights_)
                    magnitude = np.maximum(np.abs(self._min[kept]), np.abs(self._max[kept]))
                    rcond = max(rcond, 10.0 * eps * float(np.max(magnitude / spread)))
                if self.solver == "gram":
                    rcond = max(rcond, 10.0 * float(np.sqrt(eps * (d + 2))))
            scaled = design[:, kept] / norms[kept]
            solution, _, rank, _ = np.linalg.lstsq(scaled, target, rcond=rcond)
            coef[kept] = solution / norms[kept]
        intercept = float(means[-1] - coef @ means[:-1]) if self.fit_intercept else 0.0
        self._solution = (coef, intercept, int(rank))
        return self._solution

    @property
    def coef_(self) -> np.ndarray:
        """The coefficients, one per feature."""
        return self._solve()[0].copy()

    @property
    def intercept_(self) -> float:
        """The intercept; 0.0 without ``fit_intercept``."""
        return self._solve()[1]

    @property
    def rank_(self) -> int:
        """Rank of the standardised design without the constant columns."""
        return self._solve()[2]

    def predict(self, X: Any) -> np.ndarray:
        """Predict ``X @ coef_ + intercept_`` for a batch (float64).

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features_in_)
            Finite numbers.

        Returns
        -------
        numpy.ndarray of shape (n_samples,)
            The predictions.

        Raises
        ------
        ValueError
            If no row was fed yet, or ``X`` is not a finite 2-D array of ``n_features_in_`` columns.
        """
        coef, intercept, _ = self._solve()
        X = _check_2d(X, n_features=len(coef))
        prediction: np.ndarray = X.astype(np.float64, copy=False) @ coef + intercept
        return prediction

    def loss(self, X: Any, y: Any, sample_weight: Any = None) -> float:
        """Return the summed (weighted) squared loss of the model on a batch.

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features_in_)
            Finite numbers.
        y : array-like of shape (n_samples,)
            Finite targets.
        sample_weight : array-like of shape (n_samples,), optional
            One non-negative weight per row; 1 by default.

        Returns
        -------
        float
            ``sum_i w_i (y_i - prediction_i)^2``.
        """
        prediction = self.predict(X)
        y = _check_y(y, len(prediction))
        weight = _check_weight(sample_weight, len(prediction))
        return float(weight @ np.square(y - prediction))

    def score(self, X: Any, y: Any, sample_weight: Any = None) -> float:
        """Return R^2 of the model on a batch (NaN when ``y`` does not vary).

        Parameters
        ----------
        X : array-like of shape (n_samples, n_features_in_)
            Finite numbers.
        y : array-like of shape (n_samples,)
            Finite targets.
        sample_weight : array-like of shape (n_samples,), optional
            One non-negative weight per row; 1 by default.

        Returns
        -------
        float
            The coefficient of determination.
        """
        return RegressionScore().update(y, self.predict(X), sample_weight).r2_


class RegressionScore:
    """The summed squared loss and R^2 of predictions over a stream, one batch at a time.

    R^2 needs the spread of ``y`` around its mean over the whole stream; it is merged batch by batch
    like the variances of ``StreamingStandardizer``.

    Attributes
    ----------
    loss_ : float
        ``sum_i w_i (y_i - prediction_i)^2`` over every batch.
    total_sum_of_squares_ : float
        ``sum_i w_i (y_i - mean(y))^2``.
    r2_ : float
        ``1 - loss_ / total_sum_of_squares_`` (NaN when ``y`` does not vary).
    mean_loss_ : float
        ``loss_ / sum_weights_``.
    n_samples_seen_ : int
    sum_weights_ : float
    """

    def __init__(self) -> None:
        self.loss_ = 0.0
        self.n_samples_seen_ = 0
        self.sum_weights_ = 0.0
        self._mean = 0.0
        self._m2 = 0.0

    def update(self, y_true: Any, y_pred: Any, sample_weight: Any = None) -> RegressionScore:
        """Add a batch of targets and predictions.

        Parameters
        ----------
        y_true : array-like of shape (n_samples,)
            Finite targets.
        y_pred : array-like of shape (n_samples,)
            Finite predictions.
        sample_weight : array-like of shape (n_samples,), optional
            One non-negative weight per row; 1 by default.

        Returns
        -------
        RegressionScore
            self.

        Raises
        ------
        ValueError
            If the arrays are not finite numbers of one value per row.
        """
        y_true = _check_y(y_true, len(np.asarray(y_true)))
        y_pred = _check_y(y_pred, len(y_true))
        weight = _check_weight(sample_weight, len(y_true))
        self.n_samples_seen_ += len(y_true)
        batch_weight = float(weight.sum())
        if batch_weight <= 0:
            return self
        self.loss_ += float(weight @ np.square(y_true - y_pred))
        batch_mean = float(weight @ y_true) / batch_weight
        batch_m2 = float(weight @ np.square(y_true - batch_mean))
        total = self.sum_weights_ + batch_weight
        delta = batch_mean - self._mean
        self._mean += delta * batch_weight / total
        self._m2 += batch_m2 + delta * delta * self.sum_weights_ * batch_weight / total
        self.sum_weights_ = total
        return self

    @property
    def total_sum_of_squares_(self) -> float:
        """``sum_i w_i (y_i - mean(y))^2``."""
        return self._m2

    @property
    def r2_(self) -> float:
        """``1 - loss_ / total_sum_of_squares_`` (NaN when ``y`` does not vary)."""
        return 1.0 - self.loss_ / self._m2 if self._m2 > 0 else float("nan")

    @property
    def mean_loss_(self) -> float:
        """``loss_ / sum_weights_`` (NaN before any weight)."""
        return self.loss_ / self.sum_weights_ if self.sum_weights_ > 0 else float("nan")


def streamed_regression_score(model: Any, batches: BatchStream) -> RegressionScore:
    """Score a fitted regressor (anything with ``predict``) over a stream of ``(X, y[, w])`` batches.

    Parameters
    ----------
    model : object with ``predict(X)``
        ``StreamingLeastSquares``, a scikit-learn regressor, ...
    batches : iterable of batches, or a callable that returns one
        ``(X, y)`` or ``(X, y, sample_weight)`` tuples.

    Returns
    -------
    RegressionScore
        Its ``loss_`` and ``r2_`` over every batch.

    Raises
    ------
    ValueError
        If a batch has no ``y``.
    """
    score = RegressionScore()
    for batch in _one_pass(batches, 1):
        X, y, weight = _unpack(batch)
        if y is None:
            raise ValueError("scoring a regressor needs batches of (X, y) or (X, y, sample_weight)")
        score.update(y, model.predict(X), weight)
    return score


# Reservoir sampling


class ReservoirSample:
    """A uniform sample of ``size`` rows over a stream of batches (reservoir sampling).

    Every row fed is in the sample with the same probability ``size / n`` after ``n`` rows, and every
    set of ``size`` rows is equally likely. The first ``size`` rows fill the sample; the row at 0-based
    position ``t`` after them takes a uniformly drawn slot ``j`` in ``0..t`` when ``j < size``
    (Algorithm R), drawn for a whole batch at once. The sample holds its rows of ``X``, of ``y`` and
    their ids: ``ids`` as given, or the rows' 0-based positions in the stream.

    Parameters
    ----------
    size : int
        The sample's size ``m``.
    random_state : None, int or numpy.random.Generator
        Seeds the draws: the same seed and the same batches give the same sample.

    Attributes
    ----------
    X, y, ids : numpy.ndarray
        The sampled rows (``min(m, n)`` of them, in no particular order); ``y`` is None when no batch
        had one.
    weights : numpy.ndarray
        ``n / min(m, n)`` for every sampled row: the rows each one stands for.
    n_samples_seen_ : int
        Rows fed so far (``n``).
    """

    def __init__(self, size: int, random_state: RandomState = None) -> None:
        self.size = _positive_int(size, "size")
        self.random_state = random_state
        self._rng = np.random.default_rng(random_state)
        self.n_samples_seen_ = 0
        self._X: Optional[np.ndarray] = None
        self._y: Optional[np.ndarray] = None
        self._ids: Optional[np.ndarray] = None
        self._with_y: Optional[bool] = None

    @staticmethod
    def _store(buffer: Optional[np.ndarray], values: np.ndarray, size: int) -> np.ndarray:
        """Return a buffer of ``size`` entries shaped like ``values``'s rows, widened to hold their type."""
        if buffer is None:
            return np.empty((size, *values.shape[1:]), dtype=values.dtype)
        if buffer.shape[1:] != values.shape[1:]:
            raise ValueError(f"a batch has rows of shape {values.shape[1:]}, earlier ones {buffer.shape[1:]}")
        dtype = np.result_type(buffer.dtype, values.dtype)
        return buffer if dtype == buffer.dtype else buffer.astype(dtype)

    def partial_fit(self, X: Any, y: Any = None, ids: Any = None) -> ReservoirSample:
        """Offer a batch of rows to the sample.

        Parameters
        ----------
        X : array-like of shape (n_samples, ...)
            The rows, of any dtype (kept as they are).
        y : array-like of shape (n_samples,), optional
            Give it with every batch or with none.
        ids : array-like of shape (n_samples,), optional
            The rows' ids; their 0-based positions in the stream by default.

        Returns
        -------
        ReservoirSample
            self.

        Raises
        ------
        ValueError
            If ``X`` is a scalar, ``y`` or ``ids`` has not one entry per row, ``y`` comes with some
            batches but not all, or the rows' shape differs from earlier batches'.
        """
        X = np.asarray(X)
        if X.ndim < 1:
            raise ValueError("X must hold one entry per row")
        n = len(X)
        if self._with_y is None:
            self._with_y = y is not None
        elif self._with_y != (y is not None):
            raise ValueError("give y with every batch or with none")
        y_arr = None if y is None else np.asarray(y)
        if y_arr is not None and len(y_arr) != n:
            raise ValueError(f"y has {len(y_arr)} entries for {n} rows")
        start = self.n_samples_seen_
        ids_arr = np.arange(start, start + n) if ids is None else np.asarray(ids)
        if len(ids_arr) != n:
            raise ValueError(f"ids has {len(ids_arr)} entries for {n} rows")
        if n == 0:
            return self
        self._X = self._store(self._X, X, self.size)
        self._ids = self._store(self._ids, ids_arr, self.size)
        if y_arr is not None:
            self._y = self._store(self._y, y_arr, self.size)

        # Rows that fill the empty slots.
        fill = max(0, min(self.size - start, n))
        if fill:
            self._put(np.arange(start, start + fill), np.arange(fill), X, y_arr, ids_arr)
        # The others: row t replaces slot j ~ U{0..t} when j < size; for a slot drawn twice in the batch
        # the later row wins, as if they came one by one.
        if fill < n:
            positions = np.arange(start + fill, start + n, dtype=np.int64)
            slots = self._rng.integers(0, positions + 1)
            chosen = np.flatnonzero(slots < self.size)
            reversed_slots = slots[chosen][::-1]
            unique_slots, last = np.unique(reversed_slots, return_index=True)
            rows = fill + chosen[::-1][last]
            self._put(unique_slots, rows, X, y_arr, ids_arr)
        self.n_samples_seen_ += n
        return self

    def _put(self, slots: np.ndarray, rows: np.ndarray, X: np.ndarray, y: Optional[np.ndarray],
             ids: np.ndarray) -> None:
        assert self._X is not None and self._ids is not None
        self._X[slots] = X[rows]
        self._ids[slots] = ids[rows]
        if y is not None:
            assert self._y is not None
            self._y[slots] = y[rows]

    @property
    def count(self) -> int:
        """Rows in the sample: ``min(size, n_samples_seen_)``."""
        return min(self.size, self.n_samples_seen_)

    @property
    def X(self) -> np.ndarray:  # noqa: N802  (the rows, named as everywhere else)
        """The sampled rows (a copy)."""
        if self._X is None:
            raise _not_fitted(type(self).__name__)
        return self._X[: self.count].copy()

    @property
    def y(self) -> Optional[np.ndarray]:
        """The sampled rows' targets (a copy), or None when no batch had one."""
        return None if self._y is None else self._y[: self.count].copy()

    @property
    def ids(self) -> np.ndarray:
        """The sampled rows' ids (a copy)."""
        if self._ids is None:
            raise _not_fitted(type(self).__name__)
        return self._ids[: self.count].copy()

    @property
    def weights(self) -> np.ndarray:
        """``n / min(m, n)`` for every sampled row: the rows each one stands for."""
        count = self.count
        return np.full(count, self.n_samples_seen_ / count if count else 1.0)


# Streams and reference runners


def _unpack(batch: Batch) -> Tuple[Any, Any, Any]:
    if isinstance(batch, tuple):
        if not 1 <= len(batch) <= 3:
            raise ValueError(f"a batch is X, (X, y) or (X, y, sample_weight); got a tuple of {len(batch)}")
        padded = (*batch, None, None)
        return padded[0], padded[1], padded[2]
    return batch, None, None


def _one_pass(batches: BatchStream, passes: int) -> Iterator[Batch]:
    """Return one pass over the stream, for a caller that makes ``passes`` passes in all."""
    if callable(batches):
        return iter(batches())
    iterator = iter(batches)
    if passes > 1 and iterator is batches:
        raise ValueError(f"this needs {passes} passes over the batches: give a callable that returns a "
                         "fresh iterable of batches, or a list")
    return iterator


def standardized(batches: BatchStream, standardizer: StreamingStandardizer) -> Callable[[], Iterator[Batch]]:
    """Return the stream with every ``X`` standardised by a fitted ``standardizer``.

    ``y`` and the weights stay as they are.

    Parameters
    ----------
    batches : iterable of batches, or a callable that returns one
        Arrays ``X``, or ``(X, y)`` / ``(X, y, sample_weight)`` tuples. More than one pass needs a
        callable or a list.
    standardizer : StreamingStandardizer
        Fitted.

    Returns
    -------
    callable
        Returns a fresh iterator of ``(X_standardised, y, sample_weight)`` at every call (a new pass over
        ``batches``).
    """

    def passes() -> Iterator[Batch]:
        for batch in _one_pass(batches, 1):
            X, y, weight = _unpack(batch)
            yield standardizer.transform(X), y, weight

    return passes


@dataclass
class ReferenceResult:
    """A model fitted over a stream, with what it took.

    Attributes
    ----------
    model : object
        The fitted model.
    seconds : float
        Wall time of the fit, reading the stream included.
    passes : int
        Passes over the stream.
    peak_memory_bytes : int or None
        Peak of the memory allocated during the fit (Python objects and numpy arrays, by
        ``tracemalloc``), when asked for with ``measure_memory=True``; for a streamed fit, during the
        first ``TRACED_BATCHES`` batches of its first pass (every later batch repeats that work).
    peak_rss_bytes : int or None
        The process's peak resident memory at the end of the fit (all it did before included), where
        the platform tells it.
    cost : float or None
        For k-means: the streamed cost of the chosen centres.
    details : dict
        Anything else the runner reports (the cost of every start, ...).
    """

    model: Any
    seconds: float
    passes: int
    peak_memory_bytes: Optional[int] = None
    peak_rss_bytes: Optional[int] = None
    cost: Optional[float] = None
    details: Dict[str, Any] = field(default_factory=dict)


def _peak_rss_bytes() -> Optional[int]:
    try:
        import resource
    except ImportError:  # not on Windows
        return None
    peak = int(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
    return peak if sys.platform == "darwin" else peak * 1024


TRACED_BATCHES = 4
"""Batches of a streamed reference's first pass over which its memory is traced (see ``_Measure``)."""


class _Measure:
    """Wall time and, when asked, the tracemalloc peak of a block."""

    def __init__(self, memory: bool) -> None:
        self.memory = memory
        self.seconds = 0.0
        self.peak: Optional[int] = None
        self._started_tracing = False
        self._start = 0.0
        self._batches = 0

    def __enter__(self) -> _Measure:
        if self.memory:
            self._started_tracing = not tracemalloc.is_tracing()
            if self._started_tracing:
                tracemalloc.start()
            tracemalloc.reset_peak()
        self._start = time.perf_counter()
        return self

    def settle(self) -> None:
        """Keep the peak so far and stop tracing, while the clock goes on.

        Called after a streamed fit's first batches (``batch_done``) or its first pass, whichever comes
        first: its state is made on the first batch and its work per batch is the same for every
        batch of a size, so the peak is reached, and tracing every allocation (a quarter to two
        fifths of a streamed reference's time) would only slow the rest.
        """
        if self.memory and self.peak is None:
            self.peak = tracemalloc.get_traced_memory()[1]
            if self._started_tracing:
                tracemalloc.stop()

    def batch_done(self) -> None:
        """Count a batch of a streamed fit's first pass; settle after ``TRACED_BATCHES`` of them."""
        self._batches += 1
        if self._batches >= TRACED_BATCHES:
            self.settle()

    def __exit__(self, *exc: object) -> None:
        self.seconds = time.perf_counter() - self._start
        self.settle()


def _seeds(random_state: RandomState, count: int) -> List[int]:
    rng = np.random.default_rng(random_state)
    return [int(seed) for seed in rng.integers(0, 2**31 - 1, size=count)]


def reference_least_squares(batches: BatchStream, *, fit_intercept: bool = True,
                            measure_memory: bool = False, solver: str = "qr") -> ReferenceResult:
    """Fit the exact least squares of a stream of ``(X, y[, sample_weight])`` batches, in one pass.

    Parameters
    ----------
    batches : iterable of batches, or a callable that returns one
        ``(X, y)`` or ``(X, y, sample_weight)`` tuples.
    fit_intercept : bool, default True
        Whether to fit an intercept.
    measure_memory : bool, default False
        Trace the allocations of the fit (``peak_memory_bytes``) over its first ``TRACED_BATCHES``
        batches, where it reaches its peak; it slows those a little.
    solver : {"qr", "gram"}, default "qr"
        How the model keeps its state (see ``StreamingLeastSquares``).

    Returns
    -------
    ReferenceResult
        ``model`` is a ``StreamingLeastSquares``.

    Raises
    ------
    ValueError
        If a batch has no ``y`` or invalid arrays, or the stream holds no rows of positive weight.
    """
    model = StreamingLeastSquares(fit_intercept=fit_intercept, solver=solver)
    with _Measure(measure_memory) as measured:
        for batch in _one_pass(batches, 1):
            X, y, weight = _unpack(batch)
            if y is None:
                raise ValueError("least squares needs batches of (X, y) or (X, y, sample_weight)")
            model.partial_fit(X, y, weight)
            measured.batch_done()
    if model.sum_weights_ <= 0:
        raise ValueError("the stream held no rows (of positive weight)")
    return ReferenceResult(model, measured.seconds, 1, measured.peak, _peak_rss_bytes())


def _minibatches(X: np.ndarray, weight: np.ndarray, carry: List[Tuple[np.ndarray, np.ndarray]],
                 size: int) -> Iterator[Tuple[np.ndarray, np.ndarray]]:
    """Yield the rows (after those carried over) in minibatches of ``size``; a short rest is carried.

    Only a minibatch that joins the rows carried over to the first rows of ``X`` is a new array; the
    others are views of ``X``.
    """
    start = 0
    if carry:
        start = size - sum(len(rows) for rows, _ in carry)
        if start > len(X):  # still short of a minibatch
            carry.append((X, weight))
            return
        joined = (np.concatenate([rows for rows, _ in carry] + [X[:start]]),
                  np.concatenate([weights for _, weights in carry] + [weight[:start]]))
        carry.clear()
        yield joined
    while len(X) - start >= size:
        yield X[start: start + size], weight[start: start + size]
        start += size
    if start < len(X):
        carry.append((X[start:], weight[start:]))


def _openmp_limit(threads: Optional[int]) -> Any:
    """Return a context that runs scikit-learn's OpenMP loops on ``threads`` threads (None: no limit)."""
    if threads is None:
        return contextlib.nullcontext()
    threadpoolctl: Any = importlib.import_module("threadpoolctl")
    return threadpoolctl.threadpool_limits(limits=_positive_int(threads, "openmp_threads"), user_api="openmp")


def _checked_already() -> Any:
    """Return a context in which scikit-learn skips its finiteness check.

    The caller checked each batch (``_check_2d``); a minibatch cut from it needs no second check.
    """
    sklearn: Any = importlib.import_module("sklearn")
    return sklearn.config_context(assume_finite=True)


def _unit_or(weight: np.ndarray) -> Optional[np.ndarray]:
    """Return None for weights that are all 1, which scikit-learn then need not check every time."""
    return None if bool((weight == 1.0).all()) else weight


def reference_kmeans(batches: BatchStream, n_clusters: int, *, n_init: int = 3, batch_size: int = 1024,
                     n_passes: int = 1, random_state: RandomState = None, measure_memory: bool = False,
                     openmp_threads: Optional[int] = 1, cost_pass: bool = True,
                     **params: Any) -> ReferenceResult:
    """Full-data k-means over a stream: ``MiniBatchKMeans.partial_fit``, the best of ``n_init`` starts.

    Every start is a ``MiniBatchKMeans`` of its own seed, fed the same minibatches of ``batch_size`` rows
    (cut from the stream's batches) for ``n_passes`` passes; one more pass computes each start's cost on
    all rows, and the start with the lowest cost is kept. Feed standardised features (``standardized``)
    so that no column's units dominate the distances.

    Parameters
    ----------
    batches : iterable of batches, or a callable that returns one
        Arrays ``X`` or ``(X, y[, sample_weight])`` tuples (``y`` ignored). More than one pass needs a
        callable or a list.
    n_clusters : int
        The number of clusters.
    n_init : int, default 3
        Independent starts.
    batch_size : int, default 1024
        Rows of a minibatch.
    n_passes : int, default 1
        Passes of ``partial_fit`` over the stream.
    random_state : None, int or numpy.random.Generator
        Seeds the starts.
    measure_memory : bool, default False
        Trace the allocations of the fit (``peak_memory_bytes``) over the first ``TRACED_BATCHES``
        batches of its first pass, where it reaches its peak.
    openmp_threads : int or None, default 1
        OpenMP threads of scikit-learn's k-means steps during the fit (None: its own choice). A minibatch
        is too small to share: on a busy 2-core machine one ``partial_fit`` of 1,024 rows x 134
        features took 45 ms with the default threads and 0.9 ms with one.
    cost_pass : bool, default True
        Whether to make the pass that computes each start's cost on all rows. It chooses among several
        starts; a caller that scores one start with other models in a pass of its own can leave it out
        (then ``cost`` is None).
    **params
        Passed on to ``MiniBatchKMeans`` (``reassignment_ratio``, ``max_no_improvement``, ...);
        ``compute_labels`` is False unless given.

    Returns
    -------
    ReferenceResult
        ``model`` is the best ``MiniBatchKMeans``; ``cost`` its cost on all rows; ``details["costs"]``
        the cost of every start (without ``cost_pass``: the one start, no cost).

    Raises
    ------
    ValueError
        If a count is not a positive int, a batch holds invalid arrays, more than one pass is asked of
        a one-shot iterator, the stream has fewer rows than ``n_clusters``, or several starts are asked
        for without ``cost_pass``.
    """
    n_clusters = _positive_int(n_clusters, "n_clusters")
    n_init = _positive_int(n_init, "n_init")
    if n_init > 1 and not cost_pass:
        raise ValueError("choosing among several starts (n_init > 1) needs the cost pass")
    batch_size = _positive_int(batch_size, "batch_size")
    n_passes = _positive_int(n_passes, "n_passes")
    cluster: Any = importlib.import_module("sklearn.cluster")
    seeds = _seeds(random_state, n_init)
    # Each start's cost is computed here, on all rows: labelling every minibatch as well (scikit-learn's
    # default) would more than double the time of each partial_fit and change nothing else.
    params.setdefault("compute_labels", False)
    # A generator per start rather than its seed: partial_fit would make a new one from the seed on
    # every call (a millisecond each, thousands of calls), and draw the same numbers every time.
    models = [cluster.MiniBatchKMeans(n_clusters=n_clusters, batch_size=batch_size, n_init=1,
                                      random_state=np.random.RandomState(seed), **params) for seed in seeds]
    passes = n_passes + 1 if cost_pass else n_passes
    with _Measure(measure_memory) as measured, _openmp_limit(openmp_threads), _checked_already():
        fed = 0
        for _ in range(n_passes):
            carry: List[Tuple[np.ndarray, np.ndarray]] = []
            for batch in _one_pass(batches, passes):
                X, _, weight = _unpack(batch)
                X = _check_2d(X)
                weight = _check_weight(weight, len(X))
                for part, part_weight in _minibatches(X, weight, carry, max(batch_size, n_clusters)):
                    unit = _unit_or(part_weight)
                    for model in models:
                        model.partial_fit(part, sample_weight=unit)
                    fed += len(part)
                measured.batch_done()
            rest = np.concatenate([rows for rows, _ in carry]) if carry else None
            if rest is not None and (fed > 0 or len(rest) >= n_clusters):
                unit = _unit_or(np.concatenate([weights for _, weights in carry]))
                for model in models:
                    model.partial_fit(rest, sample_weight=unit)
                fed += len(rest)
            if fed == 0:
                raise ValueError(f"the stream has fewer rows than n_clusters ({n_clusters})")
            measured.settle()
        if cost_pass:
            costs, _ = _streamed_kmeans_costs(batches, [model.cluster_centers_ for model in models], passes)
    if not cost_pass:
        return ReferenceResult(models[0], measured.seconds, passes, measured.peak, _peak_rss_bytes(),
                               details={"seeds": seeds})
    best = int(np.argmin(costs))
    return ReferenceResult(models[best], measured.seconds, passes, measured.peak, _peak_rss_bytes(),
                           cost=costs[best], details={"costs": costs, "seeds": seeds})


def reference_sgd_regressor(batches: BatchStream, *, n_passes: int = 1, random_state: RandomState = None,
                            measure_memory: bool = False, **params: Any) -> ReferenceResult:
    """Fit scikit-learn's ``SGDRegressor.partial_fit`` over a stream of ``(X, y[, sample_weight])`` batches.

    Feed standardised features (``standardized``): stochastic gradient steps assume columns of
    comparable scale.

    Parameters
    ----------
    batches : iterable of batches, or a callable that returns one
        ``(X, y)`` or ``(X, y, sample_weight)`` tuples. More than one pass needs a callable or a list.
    n_passes : int, default 1
        Passes over the stream (one ``partial_fit`` per batch and pass).
    random_state : None, int or numpy.random.Generator
        Seeds the regressor.
    measure_memory : bool, default False
        Trace the allocations of the fit (``peak_memory_bytes``) over the first ``TRACED_BATCHES``
        batches of its first pass, where it reaches its peak.
    **params
        Passed on to ``SGDRegressor`` (``alpha``, ``eta0``, ``learning_rate``, ...).

    Returns
    -------
    ReferenceResult
        ``model`` is the fitted ``SGDRegressor``.

    Raises
    ------
    ValueError
        If ``n_passes`` is not a positive int, a batch has no ``y`` or invalid arrays, or the stream
        holds no rows.
    """
    n_passes = _positive_int(n_passes, "n_passes")
    linear_model: Any = importlib.import_module("sklearn.linear_model")
    model = linear_model.SGDRegressor(random_state=_seeds(random_state, 1)[0], **params)
    fed = 0
    with _Measure(measure_memory) as measured, _checked_already():
        for _ in range(n_passes):
            for batch in _one_pass(batches, n_passes):
                X, y, weight = _unpack(batch)
                if y is None:
                    raise ValueError("SGDRegressor needs batches of (X, y) or (X, y, sample_weight)")
                X = _check_2d(X)
                if len(X) == 0:
                    continue
                model.partial_fit(X, _check_y(y, len(X)), sample_weight=_check_weight(weight, len(X)))
                fed += len(X)
                measured.batch_done()
            measured.settle()
    if fed == 0:
        raise ValueError("the stream held no rows")
    return ReferenceResult(model, measured.seconds, n_passes, measured.peak, _peak_rss_bytes())


def fit_in_memory(estimator: Any, X: Any, y: Any = None, sample_weight: Any = None, *,
                  measure_memory: bool = False, openmp_threads: Optional[int] = 1) -> ReferenceResult:
    """Fit ``estimator`` on weighted rows held in memory (a coreset, a uniform sample), timed and measured.

    Parameters
    ----------
    estimator : scikit-learn estimator
        Its ``fit`` takes ``sample_weight``.
    X : array-like of shape (n_samples, n_features)
        Finite numbers.
    y : array-like of shape (n_samples,), optional
        Finite targets; None for unsupervised estimators.
    sample_weight : array-like of shape (n_samples,), optional
        One non-negative weight per row; 1 by default.
    measure_memory : bool, default False
        Trace the allocations of the fit (``peak_memory_bytes``).
    openmp_threads : int or None, default 1
        OpenMP threads of scikit-learn's loops during the fit (None: its own choice). On a busy 2-core
        machine ``KMeans(8, n_init=3)`` on 2,000 rows x 133 features took 0.43 to 0.75 s with the default
        threads and 0.04 s with one.

    Returns
    -------
    ReferenceResult
        ``model`` is the fitted estimator, ``passes`` 1.

    Raises
    ------
    ValueError
        If the arrays are not finite numbers of matching shapes.
    """
    X = _check_2d(X)
    weight = _check_weight(sample_weight, len(X))
    target = None if y is None else _check_y(y, len(X))
    with _Measure(measure_memory) as measured, _openmp_limit(openmp_threads):
        estimator.fit(X, target, sample_weight=weight)
    return ReferenceResult(estimator, measured.seconds, 1, measured.peak, _peak_rss_bytes())


@dataclass
class QualityRow:
    """One model of a comparison: how it was fitted, what it took, and how good it is.

    Attributes
    ----------
    model : {"linear_regression", "kmeans"}
        The model family.
    method : str
        What it was fitted on, and how.
    rows : int
        Rows it was fitted on (summed over passes for the streamed ones: the rows of one pass).
    seconds : float
        Wall time of the fit.
    peak_memory_bytes : int or None
        Peak of the memory allocated during the fit (``tracemalloc``), when measured: for a streamed fit,
        over its first ``TRACED_BATCHES`` batches.
    cost : float
        Its cost on every row of the stream: the summed squared loss (regression) or the k-means cost.
    cost_ratio : float
        ``cost`` over the cost of the full-data reference (the first row of its family): 1.0 is as good,
        above 1 worse.
    r2_held_out : float or None
        Regression: R^2 on the held-out rows.
    """

    model: str
    method: str
    rows: int
    seconds: float
    peak_memory_bytes: Optional[int]
    cost: float
    cost_ratio: float
    r2_held_out: Optional[float] = None

    def as_dict(self) -> Dict[str, Any]:
        """Return the row as plain JSON values.

        Returns
        -------
        dict
            The fields, with ``seconds`` rounded to 0.1 ms and the peak memory in MiB
            (``peak_memory_mb``).
        """
        return {
            "model": self.model, "method": self.method, "rows": self.rows,
            "seconds": round(self.seconds, 4),
            "peak_memory_mb": None if self.peak_memory_bytes is None
            else round(self.peak_memory_bytes / 2**20, 2),
            "cost": self.cost, "cost_ratio": self.cost_ratio, "r2_held_out": self.r2_held_out,
        }


def _silent(step: str) -> None:
    pass


WeightedRows = Tuple[Any, Any, Any]
"""``(X, y, sample_weight)`` held in memory; ``y`` may be None for k-means."""


def _ratio(cost: float, reference: float) -> float:
    return cost / reference if reference > 0 else (1.0 if cost <= 0 else float("inf"))


def judge_regression(kept: BatchStream, held_out: Optional[BatchStream], samples: Dict[str, WeightedRows], *,
                     random_state: RandomState = None, measure_memory: bool = False,
                     progress: Optional[Callable[[str], None]] = None,
                     solver: str = "gram") -> List[QualityRow]:
    """Compare least squares fitted on weighted samples with the exact least squares of the whole stream.

    Feed standardised features (``standardized``): the streamed reference and ``SGDRegressor`` need
    columns of comparable scale; the samples must be in the same space.

    Parameters
    ----------
    kept : iterable of batches, or a callable that returns one
        ``(X, y[, sample_weight])``: every row the samples stand for. Read three times, so a callable
        or a list.
    held_out : iterable of batches, or a callable that returns one, optional
        Rows kept out of everything, for R^2.
    samples : dict of str to (X, y, sample_weight)
        Weighted samples by name (a coreset, a uniform sample of the same size, ...). Each is fitted by
        scikit-learn's ``LinearRegression`` with its weights.
    random_state : None, int or numpy.random.Generator
        Seeds ``SGDRegressor``.
    measure_memory : bool, default False
        Trace the allocations of every fit.
    progress : callable, optional
        Told the name of each step (a fit or a scoring pass) as it starts.
    solver : {"gram", "qr"}, default "gram"
        How the exact least squares keeps its state (``StreamingLeastSquares``): the Gram matrix, as
        exact as the QR on standardised columns in half the arithmetic, or the R factor.

    Returns
    -------
    list of QualityRow
        The full data's exact least squares (streamed, one pass) first, then each sample, then
        ``SGDRegressor.partial_fit`` (one pass). ``cost`` is the summed squared loss on the rows of
        ``kept``, so no model can beat the first row there; ``r2_held_out`` is R^2 on ``held_out``.
    """
    linear_model: Any = importlib.import_module("sklearn.linear_model")
    tell = progress if progress is not None else _silent
    fitted: List[Tuple[str, Any, int, ReferenceResult]] = []
    tell("exact least squares")
    _one_pass(kept, 3)  # the stream is read three times: refused at once when it can be read once only
    exact = reference_least_squares(kept, measure_memory=measure_memory, solver=solver)
    n_rows = int(exact.model.n_samples_seen_)
    how = "Gram matrix" if solver == "gram" else "QR"
    fitted.append((f"full data: exact least squares (streamed {how})", exact.model, n_rows, exact))
    for name, (X, y, weight) in samples.items():
        tell(name)
        result = fit_in_memory(linear_model.LinearRegression(), X, y, weight, measure_memory=measure_memory)
        fitted.append((name, result.model, len(np.asarray(X)), result))
    tell("SGDRegressor")
    sgd = reference_sgd_regressor(kept, random_state=random_state, measure_memory=measure_memory)
    fitted.append(("streaming: SGDRegressor.partial_fit, 1 pass", sgd.model, n_rows, sgd))

    def scores(batches: BatchStream) -> List[RegressionScore]:
        found = [RegressionScore() for _ in fitted]
        for batch in _one_pass(batches, 1):
            X, y, weight = _unpack(batch)
            X = _check_2d(X)
            if len(X) == 0:
                continue
            for score, (_, model, _, _) in zip(found, fitted):
                score.update(y, model.predict(X), weight)
        return found

    tell("scoring")
    on_kept = scores(kept)
    on_held: Optional[List[RegressionScore]] = None if held_out is None else scores(held_out)
    reference = on_kept[0].loss_
    rows = []
    for number, (name, _, count, result) in enumerate(fitted):
        r2 = None
        if on_held is not None and on_held[number].n_samples_seen_:
            r2 = on_held[number].r2_
        rows.append(QualityRow("linear_regression", name, count, result.seconds, result.peak_memory_bytes,
                               on_kept[number].loss_, _ratio(on_kept[number].loss_, reference), r2))
    return rows


def judge_kmeans(kept: BatchStream, samples: Dict[str, WeightedRows], n_clusters: int, *, n_init: int = 3,
                 n_passes: int = 2, random_state: RandomState = None, measure_memory: bool = False,
                 progress: Optional[Callable[[str], None]] = None) -> List[QualityRow]:
    """Compare k-means fitted on weighted samples with a full-data k-means of the whole stream.

    The reference is ``reference_kmeans``: ``MiniBatchKMeans`` over the whole stream, the best of
    ``n_init`` starts after ``n_passes`` passes, solved from the stream alone (nothing of the samples).
    Each sample is fitted by scikit-learn's ``KMeans`` with its weights and the same ``n_init``. The
    streaming learner is one ``MiniBatchKMeans.partial_fit`` start over one pass. Every cost is
    computed on all rows of ``kept``. Feed standardised features (``standardized``).

    Parameters
    ----------
    kept : iterable of batches, or a callable that returns one
        ``X`` or ``(X, y[, sample_weight])`` batches; read several times, so a callable or a list.
    samples : dict of str to (X, y, sample_weight)
        Weighted samples by name (``y`` ignored).
    n_clusters : int
        The number of clusters.
    n_init : int, default 3
        Independent starts of the reference and of each sample's ``KMeans``.
    n_passes : int, default 2
        Passes of the reference's ``partial_fit`` over the stream.
    random_state : None, int or numpy.random.Generator
        Seeds the reference, the streaming learner and the samples' fits.
    measure_memory : bool, default False
        Trace the allocations of every fit.
    progress : callable, optional
        Told the name of each step (a fit or the scoring pass) as it starts.

    Returns
    -------
    list of QualityRow
        The full-data reference first, then each sample, then the streaming learner.
    """
    cluster: Any = importlib.import_module("sklearn.cluster")
    seeds = _seeds(random_state, 3)
    tell = progress if progress is not None else _silent
    tell("MiniBatchKMeans on all rows")
    _one_pass(kept, n_passes + 2)  # refused at once when the stream can be read once only
    full = reference_kmeans(kept, n_clusters, n_init=n_init, n_passes=n_passes, random_state=seeds[0],
                            measure_memory=measure_memory)
    tell("MiniBatchKMeans.partial_fit")
    # its cost comes from the scoring pass below, with the samples'
    streaming = reference_kmeans(kept, n_clusters, n_init=1, n_passes=1, random_state=seeds[1],
                                 measure_memory=measure_memory, cost_pass=False)
    fitted: List[Tuple[str, Any, int, ReferenceResult]] = []
    for name, (X, _, weight) in samples.items():
        X = _check_2d(X)
        tell(name)
        model = cluster.KMeans(n_clusters=min(n_clusters, max(1, len(X))), n_init=n_init,
                               random_state=seeds[2])
        result = fit_in_memory(model, X, None, weight, measure_memory=measure_memory)
        fitted.append((name, result.model, len(X), result))
    scored = [model.cluster_centers_ for _, model, _, _ in fitted] + [streaming.model.cluster_centers_]
    tell("scoring")
    costs, n_rows = _streamed_kmeans_costs(kept, scored, 1)
    reference = float(full.cost or 0.0)
    starts = f"{n_init} start{'s' if n_init > 1 else ''}"
    passes = f"best of {starts}, {n_passes} pass{'es' if n_passes > 1 else ''}"
    rows = [QualityRow("kmeans", f"full data: MiniBatchKMeans, {passes}", n_rows, full.seconds,
                       full.peak_memory_bytes, reference, 1.0)]
    for number, (name, _, count, result) in enumerate(fitted):
        rows.append(QualityRow("kmeans", name, count, result.seconds, result.peak_memory_bytes, costs[number],
                               _ratio(costs[number], reference)))
    streamed_cost = costs[-1]
    rows.append(QualityRow("kmeans", "streaming: MiniBatchKMeans.partial_fit, 1 pass", n_rows,
                           streaming.seconds, streaming.peak_memory_bytes, streamed_cost,
                           _ratio(streamed_cost, reference)))
    return rows
