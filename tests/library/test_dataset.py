"""Tests of quillmarsh.data.common: the Dataset record."""

from __future__ import annotations

import numpy as np
import pytest

from quillmarsh.data.common import Dataset


def test_field_order_and_defaults() -> None:
    assert Dataset._fields == ("ind", "X", "y", "sample_weight", "props", "orig")
    d = Dataset(np.arange(3), np.zeros((3, 2)))
    assert d.y is None and d.sample_weight is None and d.props is None and d.orig is None


@pytest.mark.parametrize("n_values", [2, 3, 4, 5, 6])
def test_positional_construction_and_iteration(n_values: int) -> None:
    values = [np.arange(4), np.ones((4, 2)), np.arange(4.0), np.ones(4), np.zeros((4, 3)), np.ones((4, 5))]
    d = Dataset(*values[:n_values])
    items = list(d)
    assert len(items) == 6
    for got, expected in zip(items[:n_values], values[:n_values]):
        assert got is expected
    assert all(item is None for item in items[n_values:])
    assert d[1] is values[1]  # X at position 1


def test_too_few_or_too_many_values() -> None:
    with pytest.raises(TypeError):
        Dataset(np.arange(2))
    with pytest.raises(TypeError):
        Dataset(*([np.arange(2)] * 7))


def test_replace_and_immutability() -> None:
    d = Dataset(np.arange(3), np.zeros((3, 1)))
    X2, y2 = np.ones((2, 1)), np.arange(2)
    d2 = d._replace(X=X2, y=y2, ind=np.arange(2), props=np.zeros(2))
    assert d2.X is X2 and d2.y is y2 and d2.props is not None
    assert d.X.shape == (3, 1) and d.y is None
    with pytest.raises(AttributeError):
        d.X = X2  # type: ignore[misc]


def test_n_samples_is_a_method_not_a_field() -> None:
    d = Dataset(np.arange(7), np.zeros((7, 2)))
    assert d.n_samples() == 7
    assert "n_samples" not in Dataset._fields


def test_take_selects_rows_of_every_field_and_copies() -> None:
    d = Dataset(np.arange(4), np.arange(8.0).reshape(4, 2), np.arange(4) * 10, None, np.arange(4) + 100)
    t = d.take(np.array([2, 0]))
    np.testing.assert_array_equal(t.ind, [2, 0])
    np.testing.assert_array_equal(t.X, [[4, 5], [0, 1]])
    np.testing.assert_array_equal(t.y, [20, 0])
    np.testing.assert_array_equal(t.props, [102, 100])
    assert t.sample_weight is None and t.orig is None
    t.X[0, 0] = -1
    assert d.X[2, 0] == 4
    masked = d.take(np.array([True, False, False, True]))
    np.testing.assert_array_equal(masked.ind, [0, 3])
