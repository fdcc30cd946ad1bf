"""Squared Euclidean distances between rows and centres, shared by the whole library.

Every routine that needs the distance of rows to a few centres (k-means seeding and Lloyd steps, a
coreset's sensitivities, the k-means cost of an evaluation) calls ``squared_distances``, so that all
of them agree on precision, dtype and the clipping of rounding errors.
"""

from __future__ import annotations

from typing import Any

import numpy as np

__all__ = ["squared_distances"]


def squared_distances(X: Any, centers: Any, X_squared_norms: Any = None) -> np.ndarray:
    """Squared Euclidean distance of every row of ``X`` to every centre.

    Parameters
    ----------
    X : array-like of shape (n_samples, n_features)
        The rows. A float array keeps its float type (float32 stays float32); any other numeric
        array is computed in float64.
    centers : array-like of shape (n_centers, n_features)
        The centres, cast to the float type of ``X``.
    X_squared_norms : array-like of shape (n_samples,), default=None
        ``|x_i|^2``, for a caller that measures the same rows against many centres: computed once,
        and ``X`` is then taken as it is, without the shift below (centre it first).

    Returns
    -------
    numpy.ndarray of shape (n_samples, n_centers)
        ``||x_i - c_j||^2``, in the float type of ``X``, never negative.

    Raises
    ------
    ValueError
        When either argument is not 2-D or their numbers of columns differ.

    Notes
    -----
    The distances are expanded as ``|x|^2 - 2 x.c + |c|^2``, one matrix product. Both sides are first
    shifted by the centres' mean (distances do not change under a common shift), which keeps the
    expansion's cancellation small for data far from the origin (timestamps, years). Rounding can still
    leave a tiny negative value where a row sits on a centre; those are clipped to 0.
    """
    X = np.asarray(X)
    centers = np.asarray(centers)
    if X.ndim != 2 or centers.ndim != 2:
        raise ValueError(f"X and centers must be 2-D, got {X.ndim}-D and {centers.ndim}-D")
    if X.shape[1] != centers.shape[1]:
        raise ValueError(f"X has {X.shape[1]} columns and centers {centers.shape[1]}")
    dtype = X.dtype if X.dtype.kind == "f" else np.dtype(np.float64)
    X = X.astype(dtype, copy=False)
    centers = centers.astype(dtype, copy=False)
    if X_squared_norms is not None:
        norms = np.asarray(X_squared_norms, dtype=dtype)
    else:
        if centers.shape[0] and X.shape[0]:
            origin = centers.mean(axis=0, dtype=np.float64).astype(dtype)
            if np.any(origin):
                X = X - origin
                centers = centers - origin
        norms = np.einsum("ij,ij->i", X, X)
    d2 = norms[:, None] - 2.0 * (X @ centers.T)
    d2 += np.einsum("ij,ij->i", centers, centers)[None, :]
    clipped: np.ndarray = np.maximum(d2, 0, out=d2).astype(dtype, copy=False)
    return clipped
