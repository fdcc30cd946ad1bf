"""Coresets of two model families: k-means clustering and linear regression."""

from __future__ import annotations

from typing import Union

import numpy as np
from scipy.linalg import LinAlgError, cho_factor, solve_triangular

from quillmarsh.core.coreset._base import CoresetBase, RandomState
from quillmarsh.core.distances import squared_distances

# Above this ratio of the largest to the smallest diagonal entry of the Gram matrix's Cholesky factor
# (an estimate of the condition number of [X, y]) the leverage scores come from an SVD instead: the
# Gram matrix squares the condition number, and its scores would lose the digits that matter.
CHOLESKY_CONDITION_LIMIT = 1e5


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
        d2 = squared_distances(X, centers)[:, 0]
        while len(centers) < self.k:
            weighted = w * d2
            total = weighted.sum(dtype=np.float64)
            if total <= 0:  # every row sits on a centre already
                break
            pick = rng.choice(n, p=weighted / total)
            centers = np.vstack([centers, X[pick]])
            d2 = np.minimum(d2, squared_distances(X, X[[pick]])[:, 0])
        for _ in range(self.n_iter):
            labels = squared_distances(X, centers).argmin(axis=1)
            mass = np.bincount(labels, weights=w, minlength=len(centers))
            weighted = X * w[:, None].astype(X.dtype)
            k = len(centers)
            sums = np.column_stack(
                [np.bincount(labels, weights=weighted[:, j], minlength=k) for j in range(X.shape[1])]
            ).reshape(k, X.shape[1])
            moved = mass > 0  # a centre that lost all its rows stays where it was
            centers[moved] = (sums[moved] / mass[moved, None]).astype(centers.dtype)
        distances = squared_distances(X, centers)
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
    is None), plus the uniform term ``w_i / sum(w)``. The scores come from a Cholesky factor of the
    Gram matrix, in float64; from a thin SVD when the matrix is rank-deficient or ill-conditioned.
    Without weights every row weighs 1, and a row of weight 3 scores as much as three copies of it
    together. Needs at least as many rows as ``[X, y]`` has columns.
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
        leverage = _leverage(Z, self.dtype)
        uniform = 1.0 / n if sample_weight is None else sample_weight / sample_weight.sum()
        sensitivities: np.ndarray = (leverage + uniform).astype(self.dtype)
        return sensitivities


def _leverage(Z: np.ndarray, dtype: np.dtype) -> np.ndarray:
    """The leverage score of every row of ``Z``: the squared norms of the rows of an orthonormal basis
    of its column space."""
    Z64 = np.asarray(Z, dtype=np.float64)
    try:
        factor, lower = cho_factor(Z64.T @ Z64, lower=False, check_finite=False)
        diagonal = np.abs(np.diag(factor))
        if diagonal.min() > 0 and diagonal.max() / diagonal.min() < CHOLESKY_CONDITION_LIMIT:
            # Z = Q R with R the Cholesky factor: the rows of Q = Z R^-1 give the scores.
            basis = solve_triangular(factor, Z64.T, trans="T", lower=lower, check_finite=False)
            scores: np.ndarray = np.einsum("ij,ij->j", basis, basis)
            return scores
    except LinAlgError:
        pass  # not positive definite: rank-deficient
    U, singular, _ = np.linalg.svd(Z, full_matrices=False)
    tolerance = singular.max(initial=0) * max(Z.shape) * np.finfo(dtype).eps
    rank = int((singular > tolerance).sum())
    svd_scores: np.ndarray = (U[:, :rank] ** 2).sum(axis=1)
    return svd_scores
