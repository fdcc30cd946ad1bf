"""The synthetic table of the distributed tests, made partition by partition where it is used.

Rows fall around four centres in three features, and the target is linear in the features plus noise,
so both coreset families have something to find. A partition's rows depend only on its bounds and the
seed, so a worker and the client make exactly the same rows.
"""

from __future__ import annotations

from typing import List, Sequence

import numpy as np
import pandas as pd

FEATURES = ["a", "b", "c"]
TARGET = "y"
COEFFICIENTS = np.array([1.5, -2.0, 0.5])
INTERCEPT = 3.0
NOISE = 4.0


def centres(seed: int) -> np.ndarray:
    """The four cluster centres of the table."""
    return np.random.default_rng(seed).uniform(-6, 6, size=(4, len(FEATURES)))


def table(start: int, stop: int, seed: int = 0) -> pd.DataFrame:
    """Rows ``start`` to ``stop`` (exclusive) of the table; the index is the row number."""
    rng = np.random.default_rng([seed, start])
    n = stop - start
    X = centres(seed)[rng.integers(4, size=n)] + rng.normal(size=(n, len(FEATURES)))
    y = INTERCEPT + X @ COEFFICIENTS + rng.normal(scale=NOISE, size=n)
    frame = pd.DataFrame(X, columns=FEATURES, index=pd.RangeIndex(start, stop))
    frame[TARGET] = y
    return frame


def failing_table(start: int, stop: int, seed: int = 0) -> pd.DataFrame:
    """A partition that cannot be read, as a damaged file would be."""
    raise ValueError(f"rows {start} to {stop} cannot be read")


def whole(bounds: Sequence[int], seed: int = 0) -> List[pd.DataFrame]:
    """The partitions between consecutive ``bounds``, made here."""
    return [table(start, stop, seed) for start, stop in zip(bounds[:-1], bounds[1:])]


def r_squared(X: np.ndarray, y: np.ndarray, coefficients: np.ndarray) -> float:
    """R² on ``X``, ``y`` of a linear model ``[intercept, *slopes]``."""
    residual = y - (coefficients[0] + X @ coefficients[1:])
    return float(1.0 - residual.var() / y.var())


def weighted_least_squares(X: np.ndarray, y: np.ndarray, weights: np.ndarray) -> np.ndarray:
    """``[intercept, *slopes]`` of the weighted least-squares fit."""
    design = np.column_stack([np.ones(len(X)), X]) * np.sqrt(weights)[:, None]
    solution, *_ = np.linalg.lstsq(design, y * np.sqrt(weights), rcond=None)
    return np.asarray(solution)


def squared_distances(X: np.ndarray, centers: np.ndarray) -> np.ndarray:
    """Squared distances of the rows of ``X`` to each centre, shape (rows, centres)."""
    d2 = (X * X).sum(axis=1)[:, None] - 2.0 * (X @ centers.T) + (centers * centers).sum(axis=1)[None, :]
    return np.maximum(d2, 0.0)


def kmeans_cost(X: np.ndarray, centers: np.ndarray) -> float:
    """Mean squared distance of the rows of ``X`` to their nearest centre."""
    return float(squared_distances(X, centers).min(axis=1).mean())


def weighted_kmeans(X: np.ndarray, weights: np.ndarray, k: int, seed: int, restarts: int = 5) -> np.ndarray:
    """Centres of a weighted k-means: the best, by weighted cost, of ``restarts`` seeded runs."""
    rng = np.random.default_rng(seed)
    runs = [_weighted_kmeans_once(X, weights, k, rng) for _ in range(restarts)]
    costs = [np.average(squared_distances(X, c).min(axis=1), weights=weights) for c in runs]
    return runs[int(np.argmin(costs))]


def _weighted_kmeans_once(X: np.ndarray, weights: np.ndarray, k: int, rng: np.random.Generator,
                          iterations: int = 30) -> np.ndarray:
    """One weighted k-means run: k-means++ seeding, then Lloyd steps."""
    centers = X[[rng.choice(len(X), p=weights / weights.sum())]]
    for _ in range(k - 1):
        d2 = squared_distances(X, centers).min(axis=1) * weights
        centers = np.vstack([centers, X[rng.choice(len(X), p=d2 / d2.sum())]])
    for _ in range(iterations):
        labels = squared_distances(X, centers).argmin(axis=1)
        for c in range(k):
            mask = labels == c
            if mask.any():
                centers[c] = np.average(X[mask], axis=0, weights=weights[mask])
    return centers
