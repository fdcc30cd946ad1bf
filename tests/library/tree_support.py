"""What the coreset tree's tests share."""

from __future__ import annotations

import numpy as np

from quillmarsh import Coreset


def assert_same(a: Coreset, b: Coreset) -> None:
    """The two summaries hold the same rows, in the same order, with the same weights."""
    np.testing.assert_array_equal(a.ids, b.ids)
    np.testing.assert_array_equal(a.X, b.X)
    np.testing.assert_array_equal(a.weights, b.weights)
