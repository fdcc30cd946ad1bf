"""Tests of quillmarsh.core.helpers: aligning per-row arrays with a reference key order."""

from __future__ import annotations

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillmarsh.core.helpers import align_arrays_by_key


def test_documented_example() -> None:
    X3 = np.arange(6).reshape(3, 2)
    keys, arrays = align_arrays_by_key((np.array([10, 11, 12, 13]),), (np.array([12, 99, 10]), X3, None))
    assert len(keys) == 1 and len(arrays) == 3
    np.testing.assert_array_equal(keys[0], [10, 12])
    np.testing.assert_array_equal(arrays[0], [10, 12])
    np.testing.assert_array_equal(arrays[1], X3[[2, 0]])
    assert arrays[2] is None


def test_buffer_update_pattern() -> None:
    buffer_ind = np.array([5, 3, 9, 1])
    buffer_X = np.zeros((4, 2))
    buffer_y = np.zeros(4)
    indices = np.array([1, 9, 7, 5])
    X = np.array([[1, 1], [9, 9], [7, 7], [5, 5]], dtype=float)
    y = np.array([1.0, 9.0, 7.0, 5.0])
    _, (indices, X, y) = align_arrays_by_key((buffer_ind,), (indices, X, y))
    mask = np.isin(buffer_ind, indices)
    buffer_y[mask] = y
    buffer_X[mask] = X
    np.testing.assert_array_equal(buffer_y, [5, 0, 9, 1])
    np.testing.assert_array_equal(buffer_X[:, 0], [5, 0, 9, 1])


def test_duplicated_data_keys_keep_the_last_occurrence() -> None:
    _, (k, v) = align_arrays_by_key((np.array([1, 2]),), (np.array([2, 1, 2, 1, 2]), np.arange(5)))
    np.testing.assert_array_equal(k, [1, 2])
    np.testing.assert_array_equal(v, [3, 4])


def test_further_keys_are_filtered_alike() -> None:
    keys, _ = align_arrays_by_key(
        (np.array([4, 5, 6]), np.array(["a", "b", "c"])), (np.array([6, 4]), np.array([0.6, 0.4]))
    )
    np.testing.assert_array_equal(keys[0], [4, 6])
    np.testing.assert_array_equal(keys[1], ["a", "c"])


def test_empty_and_disjoint_inputs() -> None:
    keys, arrays = align_arrays_by_key((np.array([1, 2]),), (np.array([], dtype=int), np.zeros((0, 3))))
    assert keys[0].shape == (0,) and arrays[1].shape == (0, 3)
    keys, arrays = align_arrays_by_key((np.array([], dtype=int),), (np.array([1, 2]), np.zeros((2, 3))))
    assert keys[0].shape == (0,) and arrays[1].shape == (0, 3)
    keys, arrays = align_arrays_by_key((np.array([1, 2]),), (np.array([3, 4]), np.zeros(2)))
    assert keys[0].size == 0 and arrays[1].size == 0


def test_float_keys_match_int_reference() -> None:
    _, (k, v) = align_arrays_by_key((np.array([0, 1, 2]),), (np.array([2.0, 0.0]), np.array([20, 0])))
    np.testing.assert_array_equal(v, [0, 20])


def test_row_count_mismatch_raises() -> None:
    with pytest.raises(ValueError, match="rows"):
        align_arrays_by_key((np.array([1]),), (np.array([1, 2]), np.zeros(3)))
    with pytest.raises(ValueError, match="items"):
        align_arrays_by_key((np.array([1, 2]), np.array([1])), (np.array([1]),))


@given(
    st.lists(st.integers(0, 30), unique=True, max_size=20),
    st.lists(st.integers(0, 30), max_size=30),
)
def test_matches_a_plain_dictionary_rule(reference: list, data_keys: list) -> None:
    values = np.arange(len(data_keys)) * 10
    last = {key: value for key, value in zip(data_keys, values)}  # later entries overwrite earlier ones
    keys, (k, v) = align_arrays_by_key(
        (np.array(reference, dtype=np.int64),), (np.array(data_keys, dtype=np.int64), values)
    )
    expected_keys = [key for key in reference if key in last]
    assert keys[0].tolist() == expected_keys
    assert k.tolist() == expected_keys
    assert v.tolist() == [last[key] for key in expected_keys]
