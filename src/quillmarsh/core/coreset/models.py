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

    Runs a k-means++ seeding followed by ``n_iter`` Lloyd steps, then gives each row the standard bound
    ``cost_i / total_cost + 1 / |cluster_i|``, where ``cost_i`` is its squared distance to its centre.
    Needs at least ``k`` rows. ``y`` is ignored.
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

    def _sensitivities(self, X: np.ndarray, y: np.ndarray | None) -> np.ndarray:
        X = X - X.mean(axis=0)  # centred, so the distance expansion loses less precision
        rng = np.random.default_rng(self.random_state)
        n = X.shape[0]
        centers = X[[rng.integers(n)]]
        d2 = _sq_distances(X, centers)[:, 0]
        while len(centers) < self.k:
            total = d2.sum(dtype=np.float64)
            if total <= 0:  # every row sits on a centre already
                break
            pick = rng.choice(n, p=d2.astype(np.float64) / total)
            centers = np.vstack([centers, X[pick]])
            d2 = np.minimum(d2, _sq_distances(X, X[[pick]])[:, 0])
        for _ in range(self.n_iter):
            labels = _sq_distances(X, centers).argmin(axis=1)
            for c in np.unique(labels):  # a centre that lost all its rows stays where it was
                centers[c] = X[labels == c].mean(axis=0)
        distances = _sq_distances(X, centers)
        labels = distances.argmin(axis=1)
        cost = distances[np.arange(n), labels]
        total = cost.sum(dtype=np.float64)
        share = cost / total if total > 0 else np.zeros_like(cost)
        return (share + 1.0 / np.bincount(labels)[labels]).astype(self.dtype)


class CoresetLinearRegression(CoresetBase):
    """Coreset for linear regression by leverage scores.

    A row's sensitivity is its leverage score in ``[X, y]`` (in ``X`` alone when ``y`` is None), from a
    thin SVD, plus the uniform term ``1 / n``. Needs at least as many rows as ``[X, y]`` has columns.
    """

    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        return int(X.shape[1] + (0 if y is None else y.shape[1]))

    def _sensitivities(self, X: np.ndarray, y: np.ndarray | None) -> np.ndarray:
        Z = X if y is None else np.hstack([X, y])
        U, singular, _ = np.linalg.svd(Z, full_matrices=False)
        tolerance = singular.max(initial=0) * max(Z.shape) * np.finfo(self.dtype).eps
        rank = int((singular > tolerance).sum())
        leverage = (U[:, :rank] ** 2).sum(axis=1)
        sensitivities: np.ndarray = (leverage + 1.0 / Z.shape[0]).astype(self.dtype)
        return sensitivities
