"""Tests of quillmarsh.core.numpy_extra: missing and infinite values."""

from __future__ import annotations

import numpy as np
import pandas as pd
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra.numpy import arrays

from quillmarsh.core.numpy_extra import (
    filter_missing_and_inf,
    missing_and_numbers,
    missing_or_inf_mask,
    object_numbers,
)


def test_floats() -> None:
    out = filter_missing_and_inf(np.array([1.0, np.nan, np.inf, -np.inf, -2.5, 0.0]))
    np.testing.assert_array_equal(out, [1.0, -2.5, 0.0])
    assert out.dtype == np.float64


def test_float32_and_lists() -> None:
    out = filter_missing_and_inf(np.array([np.nan, 3.0], dtype=np.float32))
    assert out.dtype == np.float32 and out.tolist() == [3.0]
    assert filter_missing_and_inf([1.5, float("nan")]).tolist() == [1.5]


@pytest.mark.parametrize("dtype", [np.int64, np.int8, np.uint16, bool])
def test_ints_and_bools_returned_as_they_are(dtype: type) -> None:
    arr = np.array([1, 0, 1], dtype=dtype)
    assert filter_missing_and_inf(arr) is arr


def test_object_mixing_missing_values_numbers_and_strings() -> None:
    arr = np.array(
        [1, None, np.nan, "a", pd.NA, pd.NaT, float("inf"), -np.inf, 2.5, "nan", "", np.float32(np.nan)],
        dtype=object,
    )
    out = filter_missing_and_inf(arr)
    assert out.dtype == object
    assert out.tolist() == [1, "a", 2.5, "nan", ""]


def test_empty_arrays() -> None:
    for arr in (np.array([]), np.array([], dtype=object), np.array([], dtype=np.int32)):
        out = filter_missing_and_inf(arr)
        assert out.shape == (0,) and out.dtype == arr.dtype


def test_datetimes_and_strings() -> None:
    dates = np.array(["2024-01-01", "NaT"], dtype="datetime64[D]")
    assert filter_missing_and_inf(dates).tolist() == [np.datetime64("2024-01-01").astype(object)]
    strings = np.array(["a", "nan"])
    assert filter_missing_and_inf(strings) is strings


def test_rejects_non_1d() -> None:
    with pytest.raises(ValueError, match="1-D"):
        filter_missing_and_inf(np.zeros((2, 2)))


def test_mask_is_shaped_like_input() -> None:
    X = np.array([[1.0, None], ["x", np.inf]], dtype=object)
    np.testing.assert_array_equal(missing_or_inf_mask(X), [[False, True], [False, True]])
    assert missing_or_inf_mask(np.ones((2, 3), dtype=int)).shape == (2, 3)


@given(arrays(np.float64, st.integers(0, 50)))
def test_float_filter_keeps_exactly_the_finite_values(arr: np.ndarray) -> None:
    out = filter_missing_and_inf(arr)
    np.testing.assert_array_equal(out, arr[np.isfinite(arr)])


@given(st.lists(st.one_of(st.none(), st.floats(), st.text(max_size=3), st.integers())))
def test_object_filter_matches_elementwise_rule(values: list) -> None:
    arr = np.empty(len(values), dtype=object)
    arr[:] = values
    expected = [v for v in values if v is not None and not (isinstance(v, float) and not np.isfinite(v))]
    assert filter_missing_and_inf(arr).tolist() == expected


MIXED_VALUES = st.one_of(
    st.none(), st.floats(), st.integers(-(2**70), 2**70), st.text(max_size=3), st.booleans(),
    st.sampled_from([pd.NA, pd.NaT, np.float32(np.inf), np.int64(3), np.nan, -np.inf])
)


@given(st.lists(MIXED_VALUES, max_size=30), st.lists(st.one_of(st.none(), st.floats()), max_size=30))
def test_the_mask_of_a_table_matches_the_elementwise_rule(mixed: list, numbers: list) -> None:
    rows = max(len(mixed), len(numbers))
    table = np.empty((rows, 2), dtype=object)
    table[:, 0] = (mixed + [None] * rows)[:rows]
    table[:, 1] = (numbers + [1.5] * rows)[:rows]

    def missing(value: object) -> bool:
        if value is None or value is pd.NA or value is pd.NaT:
            return True
        return isinstance(value, (float, np.floating)) and not np.isfinite(value)

    expected = [[missing(value) for value in row] for row in table]
    np.testing.assert_array_equal(missing_or_inf_mask(table), np.array(expected, dtype=bool).reshape(rows, 2))


@given(st.lists(MIXED_VALUES, max_size=30), st.lists(st.one_of(st.none(), st.floats(), st.integers(-9, 9)),
                                                      max_size=30))
def test_a_table_s_mask_comes_with_the_numbers_of_its_columns_of_numbers(mixed: list, numbers: list) -> None:
    rows = max(len(mixed), len(numbers))
    table = np.empty((rows, 2), dtype=object)
    table[:, 0] = (mixed + [None] * rows)[:rows]
    table[:, 1] = (numbers + [1.5] * rows)[:rows]
    mask, found = missing_and_numbers(table)
    np.testing.assert_array_equal(mask, missing_or_inf_mask(table))
    for c in range(2):
        expected = object_numbers(table[:, c])
        if expected is None:
            assert c not in found
        else:
            np.testing.assert_array_equal(found[c], expected)
    assert 1 in found  # numbers and missing values only
    mask, found = missing_and_numbers(np.array([[1.0, np.nan]]))
    assert mask.tolist() == [[False, True]] and found == {}
