"""Coresets of two model families: k-means clustering and linear regression."""

from __future__ import annotations

from typing import Union

import numpy as np

from quillmarsh.core.coreset._base import CoresetBase, RandomState


def _sq_distances(X: np.ndarray, centers: np.ndarray) -> np.ndarray:
    """Squared Euclidean distances, shape (rows of X, centers), clipped at 0 against rounding."""
    d2 = (X * X).sum(axis=1)[:, None] - 2.0 * (X @ centers.T) + (centers * centers).sum(axis=1)[None, :]
    clipped: np.ndarray = np.maximum(d2, 0, out=d2)
    return clipped


class CoresetKMeans(CoresetBase):
    """Coreset for k-means with ``k`` clusters.

    Runs a k-means++ seeding followed by ``n_iter`` Lloyd steps, both weighted by ``sample_weight``
    (a centre is drawn with probability proportional to ``w_i d_i^2``, and moves to the weighted mean
    of its rows), then gives each row the bound ``w_i cost_i / sum(w cost) + w_i / W(cluster_i)``,
    where ``cost_i`` is its squared distance to its centre and ``W(cluster_i)`` the weight of its
    cluster. Without weights every row weighs 1. Needs at least ``k`` rows. ``y`` is ignored.
    """

    def __init__(
        self, k: int = 8, n_iter: int = 3, dtype: Union[str, np.dtype, type] = "float32",
        random_state: RandomState = None, coreset_size: int | None = None,
    ) -> None:
        super().__init__(dtype=dtype, random_state=random_state, coreset_size=coreset_size)
        if k < 1 or n_iter < 0:
            raise ValueError(f"k must be positive and n_iter non-negative, got k={k}, n_iter={n_iter}")
        self.k = int(k)
        self.n_iter = int(n_iter)

    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        return self.k

    def _sensitivities(
        self, X: np.ndarray, y: np.ndarray | None, sample_weight: np.ndarray | None
    ) -> np.ndarray:
        n = X.shape[0]
        w = np.ones(n) if sample_weight is None else sample_weight
        # centred, so the distance expansion loses less precision
        centre = X.mean(axis=0) if sample_weight is None else np.average(X, axis=0, weights=w)
        X = X - centre.astype(X.dtype)
        rng = np.random.default_rng(self.random_state)
        first = int(rng.integers(n) if sample_weight is None else rng.choice(n, p=w / w.sum()))
        centers = X[[first]]
        d2 = _sq_distances(X, centers)[:, 0]
        while len(centers) < self.k:
            weighted = w * d2
            total = weighted.sum(dtype=np.float64)
            if total <= 0:  # every row sits on a centre already
                break
            pick = rng.choice(n, p=weighted / total)
            centers = np.vstack([centers, X[pick]])
            d2 = np.minimum(d2, _sq_distances(X, X[[pick]])[:, 0])
        for _ in range(self.n_iter):
            labels = _sq_distances(X, centers).argmin(axis=1)
            mass = np.bincount(labels, weights=w, minlength=len(centers))
            weighted = X * w[:, None].astype(X.dtype)
            k = len(centers)
            sums = np.column_stack(
                [np.bincount(labels, weights=weighted[:, j], minlength=k) for j in range(X.shape[1])]
            ).reshape(k, X.shape[1])
            moved = mass > 0  # a centre that lost all its rows stays where it was
            centers[moved] = (sums[moved] / mass[moved, None]).astype(centers.dtype)
        distances = _sq_distances(X, centers)
        labels = distances.argmin(axis=1)
        cost = w * distances[np.arange(n), labels]
        total = cost.sum(dtype=np.float64)
        share = cost / total if total > 0 else np.zeros_like(cost)
        cluster_weight = np.bincount(labels, weights=w)
        sensitivities: np.ndarray = (share + w / cluster_weight[labels]).astype(self.dtype)
        return sensitivities


class CoresetLinearRegression(CoresetBase):
    """Coreset for linear regression by leverage scores.

    A row's sensitivity is its leverage score in ``diag(sqrt(w)) [X, y]`` (in ``X`` alone when ``y``
    is None), from a thin SVD, plus the uniform term ``w_i / sum(w)``. Without weights every row weighs
    1, and a row of weight 3 scores as much as three copies of it together. Needs at least as many rows
    as ``[X, y]`` has columns.
    """

    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        return int(X.shape[1] + (0 if y is None else y.shape[1]))

    def _sensitivities(
        self, X: np.ndarray, y: np.ndarray | None, sample_weight: np.ndarray | None
    ) -> np.ndarray:
        Z = X if y is None else np.hstack([X, y])
        n = Z.shape[0]
        if sample_weight is not None:
            Z = Z * np.sqrt(sample_weight).astype(Z.dtype)[:, None]
        U, singular, _ = np.linalg.svd(Z, full_matrices=False)
        tolerance = singular.max(initial=0) * max(Z.shape) * np.finfo(self.dtype).eps
        rank = int((singular > tolerance).sum())
        leverage = (U[:, :rank] ** 2).sum(axis=1)
        uniform = 1.0 / n if sample_weight is None else sample_weight / sample_weight.sum()
        sensitivities: np.ndarray = (leverage + uniform).astype(self.dtype)
        return sensitivities
