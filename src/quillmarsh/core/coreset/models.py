"""Coresets of two model families: k-means clustering and linear regression."""

from __future__ import annotations

from typing import Union

import numpy as np

from quillmarsh.core.coreset._base import CoresetBase, RandomState
from quillmarsh.core.distances import squared_distances

__all__ = ["GRAM_KEPT", "CoresetKMeans", "CoresetLinearRegression"]

# An eigenvalue of the Gram matrix above this share of the largest is a direction of [X, y] for sure:
# its square root, a singular value, is at least 1e-5 of the largest, where the Gram matrix (which
# squares the condition number) still holds it to about 6 digits.
GRAM_KEPT = 1e-10


class CoresetKMeans(CoresetBase):
    """Coreset for k-means with ``k`` clusters.

    Runs a k-means++ seeding followed by ``n_iter`` Lloyd steps, both weighted by ``sample_weight``
    (a centre is drawn with probability proportional to ``w_i d_i^2``, and moves to the weighted mean
    of its rows), then gives each row the bound ``w_i cost_i / sum(w cost) + w_i / W(cluster_i)``,
    where ``cost_i`` is its squared distance to its centre and ``W(cluster_i)`` the weight of its
    cluster. Without weights every row weighs 1. Needs at least ``k`` rows. ``y`` is ignored.

    Parameters
    ----------
    k : int, default=8
        The number of clusters, at least 1.
    n_iter : int, default=3
        The number of Lloyd steps after the seeding, at least 0.
    dtype : str, numpy dtype or type, default="float32"
        The float type the computations run in.
    random_state : None, int or numpy Generator, default=None
        Seeds the seeding and the sample.
    coreset_size : int or None, default=None
        The default number of draws of ``sample``; None derives it from the row count.

    Raises
    ------
    ValueError
        If ``k`` is below 1 or ``n_iter`` below 0, or for the base class's reasons.
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
        norms = np.einsum("ij,ij->i", X, X)  # once, for every distance below
        rng = np.random.default_rng(self.random_state)
        first = int(rng.integers(n) if sample_weight is None else rng.choice(n, p=w / w.sum()))
        centers = X[[first]]
        d2 = squared_distances(X, centers, norms)[:, 0]
        while len(centers) < self.k:
            weighted = w * d2
            total = weighted.sum(dtype=np.float64)
            if total <= 0:  # every row sits on a centre already
                break
            pick = rng.choice(n, p=weighted / total)
            centers = np.vstack([centers, X[pick]])
            d2 = np.minimum(d2, squared_distances(X, X[[pick]], norms)[:, 0])
        rows = np.arange(n)
        for _ in range(self.n_iter):
            labels = squared_distances(X, centers, norms).argmin(axis=1)
            membership = np.zeros((len(centers), n), dtype=X.dtype)  # each row's weight in its cluster
            membership[labels, rows] = w
            mass = membership.sum(axis=1, dtype=np.float64)
            sums = membership @ X
            moved = mass > 0  # a centre that lost all its rows stays where it was
            centers[moved] = (sums[moved] / mass[moved, None]).astype(centers.dtype)
        distances = squared_distances(X, centers, norms)
        labels = distances.argmin(axis=1)
        cost = w * distances[np.arange(n), labels]
        total = cost.sum(dtype=np.float64)
        share = cost / total if total > 0 else np.zeros_like(cost)
        cluster_weight = np.bincount(labels, weights=w)
        sensitivities: np.ndarray = (share + w / cluster_weight[labels]).astype(self.dtype)
        return sensitivities


class CoresetLinearRegression(CoresetBase):
    """Coreset for linear regression (with an intercept) by leverage and residual.

    With ``Z = diag(sqrt(w)) [X, 1]``, ``h_i`` the leverage score of row ``i`` in ``Z`` and ``r_i`` its
    residual in the weighted least squares of ``y`` on ``Z``, a row's sensitivity is the sum of two
    shares, each adding up to 1 over the rows:

    - its leverage score in ``diag(sqrt(w)) [X, 1, y]``, ``h_i + r_i^2 / sum(r^2)``, over their sum:
      the rows every fit depends on, such as rare categories and extreme values, are kept whatever the
      residuals;
    - ``|r_i| sqrt(h_i)``, over its sum: the draw that makes the least squares of the sample vary least
      around that of all rows (the variance of a weighted sample's fit is ``sum((1 / p_i - 1) r_i^2
      h_i)`` to first order, smallest with ``p_i`` in proportion to ``|r_i| sqrt(h_i)``).

    Without ``y`` only the leverage in ``diag(sqrt(w)) [X, 1]`` is left. The scores come from the Gram
    matrix, in float64, also when ``Z`` is rank-deficient; from a thin SVD when it is ill-conditioned.
    Without weights every row weighs 1, and a row of weight 3 scores as much as three copies of it
    together. Needs at least as many rows as ``[X, y]`` has columns.

    Parameters
    ----------
    dtype : str, numpy dtype or type, default="float32"
        The float type the computations run in.
    random_state : None, int or numpy Generator, default=None
        Seeds the sample.
    coreset_size : int or None, default=None
        The default number of draws of ``sample``; None derives it from the row count.
    """

    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        return int(X.shape[1] + (0 if y is None else y.shape[1]))

    def _sensitivities(
        self, X: np.ndarray, y: np.ndarray | None, sample_weight: np.ndarray | None
    ) -> np.ndarray:
        n, d = X.shape
        Z = np.empty((n, d + 1))
        Z[:, :d] = X
        Z[:, d] = 1.0
        root = None if sample_weight is None else np.sqrt(sample_weight)
        if root is not None:
            Z *= root[:, None]
        basis = _orthonormal_basis(Z, self.dtype)
        leverage: np.ndarray = np.einsum("ij,ij->i", basis, basis)
        leverage_share: np.ndarray = (leverage / leverage.sum()).astype(self.dtype)
        if y is None:
            return leverage_share
        target = np.asarray(y, dtype=np.float64)
        if root is not None:
            target = target * root[:, None]
        residuals = target - basis @ (basis.T @ target)
        squared = np.einsum("ij,ij->i", residuals, residuals)
        total = squared.sum()
        if not total > 0:  # y is a fit of X: no residual to weigh
            return leverage_share
        with_y = leverage + squared / total
        spread = np.sqrt(squared * leverage)
        sensitivities: np.ndarray = (with_y / with_y.sum() + spread / spread.sum()).astype(self.dtype)
        return sensitivities


def _orthonormal_basis(Z: np.ndarray, dtype: np.dtype) -> np.ndarray:
    """Return an orthonormal basis of the column space of ``Z``, one row per row of ``Z``, in float64.

    From the eigendecomposition of the Gram matrix in float64 (``Z = U S V^T`` gives ``Z^T Z = V S^2
    V^T``, so ``U = Z V S^-1`` on the directions kept): a product of the rows with a small matrix, and
    a structural rank deficiency (a constant column, one-hot columns that add up alike) costs nothing
    more. An eigenvalue between the two thresholds is a direction that may be real or rounding; then
    the basis comes from a thin SVD of ``Z`` itself, in ``dtype``.
    """
    Z64 = np.asarray(Z, dtype=np.float64)
    gram = Z64.T @ Z64
    # Scaling columns leaves the column space as it is. Scaled to unit norm, a timestamp and a one-hot
    # column no longer make the Gram matrix look ill-conditioned; the scaling is done on the Gram matrix
    # and on the small matrix that makes the basis, never on the rows.
    norms = np.sqrt(np.diagonal(gram))
    used = norms > 0
    scaled = gram[np.ix_(used, used)] / np.outer(norms[used], norms[used])
    eigenvalues, vectors = np.linalg.eigh(scaled)
    top = float(eigenvalues.max(initial=0.0))
    if top > 0:
        relative = eigenvalues / top
        kept = relative > GRAM_KEPT
        zero = relative < scaled.shape[1] * np.finfo(np.float64).eps
        if (kept | zero).all():
            to_basis = vectors[:, kept] / np.sqrt(eigenvalues[kept]) / norms[used][:, None]
            basis: np.ndarray = (Z64 if used.all() else Z64[:, used]) @ to_basis
            return basis
    U, singular, _ = np.linalg.svd(Z64.astype(dtype, copy=False), full_matrices=False)
    tolerance = singular.max(initial=0) * max(Z.shape) * np.finfo(dtype).eps
    rank = int((singular > tolerance).sum())
    return np.asarray(U[:, :rank], dtype=np.float64)
