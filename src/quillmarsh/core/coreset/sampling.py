"""Sensitivity sampling of an exact number of distinct rows, without replacement.

Row ``i`` is kept with probability ``p_i = min(1, c * s_i)``, where ``s_i`` is its sensitivity and ``c``
makes the ``p_i`` sum to the requested size. A kept row weighs ``w_i / p_i`` (``w_i`` its weight before,
1 by default), so every weighted sum over the sample estimates the same sum over all rows without bias.
The rows are drawn by systematic sampling with a random start over the rows ordered by sensitivity:
the draw holds exactly ``size`` rows, each row's inclusion probability is exactly its ``p_i``, and
rows of every sensitivity band are represented in proportion.
"""

from __future__ import annotations

from typing import Any, Tuple

import numpy as np
from sklearn.utils import check_random_state

from quillmarsh.validation import check_positive_int

__all__ = ["inclusion_probabilities", "sample_rows"]


def inclusion_probabilities(sensitivities: Any, size: int) -> np.ndarray:
    """Return ``p_i = min(1, c * s_i)`` with ``c`` chosen so that the ``p_i`` sum to ``size``.

    Parameters
    ----------
    sensitivities : array-like of shape (n_samples,)
        Non-negative, finite sensitivities.
    size : int
        The expected number of rows kept, at least 1.

    Returns
    -------
    ndarray of shape (n_samples,), float64
        The inclusion probabilities. When ``size`` is at least the number of rows of positive
        sensitivity, those rows get 1 and the others 0: a row of sensitivity 0 is never kept.

    Raises
    ------
    ValueError
        If ``size`` is not a positive int, or a sensitivity is negative or not finite.
    """
    s = np.asarray(sensitivities, dtype=np.float64).ravel()
    size = check_positive_int(size, "size")
    if not (np.isfinite(s).all() and (s >= 0).all()):
        raise ValueError("sensitivities must be finite and non-negative")
    positive = int(np.count_nonzero(s))
    if size >= positive:
        return (s > 0).astype(np.float64)
    # With the k largest rows certain, the rest scale by c_k = (size - k) / (sum of the rest); the
    # smallest k for which the (k+1)-th largest row stays below 1 is the one.
    # Only the `size` largest rows can be certain: they alone are sorted.
    top = np.argpartition(-s, size - 1)[:size]
    order = top[np.argsort(-s[top], kind="stable")]
    descending = s[order]
    others = np.ones(s.size, dtype=bool)
    others[top] = False
    below = s[others].sum()
    # The sums of the rest, added from the smallest up: no cancellation against the large rows.
    rest = np.cumsum(descending[::-1])[::-1] + below
    scale = (size - np.arange(size)) / rest
    fits = scale * descending <= 1.0
    certain = int(np.argmax(fits)) if fits.any() else size - 1
    p = np.minimum(1.0, scale[certain] * s)
    p[order[:certain]] = 1.0
    probabilities: np.ndarray = p
    return probabilities


def sample_rows(
    sensitivities: Any,
    size: int,
    sample_weight: Any = None,
    random_state: Any = None,
) -> Tuple[np.ndarray, np.ndarray]:
    """Draw ``size`` distinct rows with probability ``p_i = min(1, c * s_i)`` and weight them.

    Parameters
    ----------
    sensitivities : array-like of shape (n_samples,)
        Non-negative, finite sensitivities.
    size : int
        The number of rows to keep. When it is at least the number of rows, every row is kept with its
        weight unchanged.
    sample_weight : array-like of shape (n_samples,), default=None
        The rows' weights before sampling; None means 1 for every row.
    random_state : None, int or numpy Generator or RandomState, default=None
        Seeds the draw.

    Returns
    -------
    idxs : ndarray of shape (size,), int64
        The kept rows, ascending; fewer than ``size`` only when fewer rows have positive sensitivity.
    weights : ndarray of shape (size,), float64
        ``w_i / p_i`` of each kept row.

    Raises
    ------
    ValueError
        If ``sample_weight`` has not one entry per sensitivity, ``size`` is not a positive int, or a
        sensitivity is negative or not finite.
    """
    s = np.asarray(sensitivities, dtype=np.float64).ravel()
    n = s.shape[0]
    w = np.ones(n) if sample_weight is None else np.asarray(sample_weight, dtype=np.float64).ravel()
    if w.shape[0] != n:
        raise ValueError(f"sample_weight has {w.shape[0]} entries, but there are {n} sensitivities")
    size = check_positive_int(size, "size")
    if size >= n:
        return np.arange(n, dtype=np.int64), w.copy()
    p = inclusion_probabilities(s, int(size))
    rng = _generator(random_state)
    certain = np.flatnonzero(p >= 1.0)
    uncertain = np.flatnonzero((p > 0.0) & (p < 1.0))
    drawn = certain
    wanted = int(size) - certain.size
    if wanted > 0 and uncertain.size:
        # Systematic sampling: the rows' probabilities laid end to end over [0, wanted), and one point
        # at a random offset in each unit interval; no row spans more than one unit, so no row is hit
        # twice. Laid out by sensitivity, the draw is stratified: every unit of probability gets one
        # row of its own sensitivity band, which estimates weighted sums with less variance than an
        # order left to chance (measured in benchmarks/bench_tree.py).
        ordered = uncertain[np.argsort(-s[uncertain])]
        ends = np.cumsum(p[ordered])
        ends *= wanted / ends[-1]
        ends[-1] = wanted
        points = rng.random() + np.arange(wanted)
        hits = np.searchsorted(ends, points, side="right")
        drawn = np.concatenate([certain, ordered[np.minimum(hits, ordered.size - 1)]])
    idxs = np.sort(drawn).astype(np.int64)
    if idxs.size > 1 and not (np.diff(idxs) > 0).all():  # a row hit twice through rounding
        idxs = np.unique(idxs)
    return idxs, w[idxs] / p[idxs]


def _generator(random_state: Any) -> np.random.Generator:
    """Return a numpy Generator from None, an int, a Generator or a legacy RandomState."""
    if isinstance(random_state, np.random.Generator):
        return random_state
    if random_state is None or isinstance(random_state, (int, np.integer)):
        return np.random.default_rng(random_state)
    legacy = check_random_state(random_state)
    return np.random.default_rng(legacy.randint(np.iinfo(np.int32).max))
