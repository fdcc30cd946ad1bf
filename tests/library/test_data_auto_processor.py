"""Tests of quillmarsh.data.data_auto_processor: dropping, filling and one-hot encoding."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

from quillmarsh.data.data_auto_processor import OTHER_CATEGORY, DataAutoProcessor


def make(X: Any, **overrides: Any) -> DataAutoProcessor:
    X = np.asarray(X)
    arguments = dict(
        X=X, y=None, ind=np.arange(len(X)), props=None, categorical_features=[], feature_names=[],
        cat_encoding_config={"max_categories": 100}, missing_replacement=None, drop_rows_below=None,
        drop_cols_above=None,
    )
    arguments.update(overrides)
    return DataAutoProcessor(**arguments)


def test_numeric_without_missing_values_passes_through() -> None:
    X = np.array([[1.0, 2.0], [3.0, 4.0]])
    p = make(X, feature_names=["a", "b"])
    out = p.handle_missing_and_categorical_encoding(sparse_threshold=0)
    np.testing.assert_array_equal(out, X)
    assert out.dtype == np.float64 and p.feature_names == ["a", "b"]
    assert p.removed_rows.tolist() == [] and p.removed_rows.dtype.kind == "i"


def test_numeric_missing_replaced_by_column_mean() -> None:
    X = np.array([[1.0, np.nan], [np.nan, 4.0], [3.0, np.inf], [5.0, 8.0]])
    p = make(X)
    out = p.handle_missing_and_categorical_encoding(0)
    np.testing.assert_allclose(out, [[1, 6], [3, 4], [3, 6], [5, 8]])
    assert p.feature_names == ["f0", "f1"]
    assert p.replacements_ == [3.0, 6.0]
    assert np.isnan(p.X[0, 1])  # X keeps the unprocessed values


def test_given_replacements_and_none_entries() -> None:
    X = np.array([[np.nan, np.nan], [2.0, 4.0]])
    out = make(X, missing_replacement=[-1.0, None]).handle_missing_and_categorical_encoding(0)
    np.testing.assert_array_equal(out, [[-1, 4], [2, 4]])


def test_mixed_object_data() -> None:
    X = np.array(
        [
            [1.0, "red", "s"],
            [None, "blue", "m"],
            [3.0, "red", None],
            [np.nan, None, "s"],
            [5.0, "green", "s"],
        ],
        dtype=object,
    )
    names = ["size", "colour", "fit"]
    p = make(X, categorical_features=[1], feature_names=names, y=np.array([0, 1, 0, 1, 0]))
    out = p.handle_missing_and_categorical_encoding(0)
    # "fit" holds strings, so it is categorical though not listed; missing colour -> "red", fit -> "s".
    assert p.feature_names == ["size", "colour=red", "colour=blue", "colour=green", "fit=s", "fit=m"]
    np.testing.assert_allclose(
        out,
        [
            [1, 1, 0, 0, 1, 0],
            [3, 0, 1, 0, 0, 1],
            [3, 1, 0, 0, 1, 0],
            [3, 1, 0, 0, 1, 0],
            [5, 0, 0, 1, 1, 0],
        ],
    )
    assert out.shape[1] == len(p.feature_names)
    assert p.X.dtype == object and p.X.shape == (5, 3)


def test_numeric_strings_in_object_column_count_as_numbers() -> None:
    X = np.array([["1.5", "a"], ["2.5", "b"]], dtype=object)
    p = make(X)
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["f0", "f1=a", "f1=b"]
    np.testing.assert_array_equal(out[:, 0], [1.5, 2.5])


def test_categorical_numeric_codes() -> None:
    X = np.array([[1.0], [2.0], [2.0], [np.nan]])
    p = make(X, categorical_features=[0], feature_names=["k"])
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["k=2.0", "k=1.0"]
    np.testing.assert_array_equal(out, [[0, 1], [1, 0], [1, 0], [1, 0]])


@pytest.mark.parametrize(
    "threshold, kept",
    [(0.4, ["f0", "f2"]), (0.5, ["f0", "f1", "f2"]), (None, ["f0", "f1", "f2"]), (0.0, ["f0"])],
)
def test_drop_cols_above(threshold: Any, kept: list) -> None:
    X = np.array([[1.0, np.nan, 1.0], [2.0, np.nan, np.nan], [3.0, 1.0, 2.0], [4.0, 1.0, 3.0]])
    p = make(X, drop_cols_above=threshold)
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == kept and out.shape == (4, len(kept))
    assert p.X.shape == (4, 3)  # all input columns are kept in X


def test_drop_rows_below() -> None:
    X = np.array([[1.0, 2.0, 3.0], [np.nan, np.nan, 1.0], [np.nan, 5.0, 6.0], [7.0, 8.0, 9.0]])
    props = np.array([10, 11, 12, 13])
    y = np.array([0.5, 1.5, 2.5, 3.5])
    p = make(X, drop_rows_below=0.5, y=y, props=props, ind=np.array([7, 8, 9, 10]))
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.removed_rows.tolist() == [1]
    assert out.shape == (3, 3)
    np.testing.assert_array_equal(p.X[1], X[2])
    y, ind, kept_props = p.get_processed_arrays()
    assert y.tolist() == [0.5, 2.5, 3.5] and ind.tolist() == [7, 9, 10]
    assert kept_props.tolist() == [10, 12, 13]
    np.testing.assert_allclose(out[1], [4.0, 5.0, 6.0])  # mean over the kept rows


def test_drop_rows_counts_only_kept_columns() -> None:
    X = np.array([[np.nan, 1.0], [np.nan, np.nan], [np.nan, 2.0]])
    p = make(X, drop_cols_above=0.9, drop_rows_below=1.0)
    p.handle_missing_and_categorical_encoding(0)
    assert p.removed_rows.tolist() == [1] and p.feature_names == ["f1"]


def test_max_categories_and_other_column() -> None:
    values = ["a"] * 5 + ["b"] * 4 + ["c"] * 3 + ["d"] * 2 + ["e"]
    X = np.array(values, dtype=object).reshape(-1, 1)
    p = make(X, categorical_features=[0], feature_names=["c"], cat_encoding_config={"max_categories": 2})
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["c=a", "c=b", f"c={OTHER_CATEGORY}"]
    assert out.sum(axis=0).tolist() == [5, 4, 6]
    assert (out.sum(axis=1) == 1).all()


def test_no_other_column_when_categories_fit() -> None:
    X = np.array([["x"], ["y"], ["x"]], dtype=object)
    p = make(X, cat_encoding_config={"max_categories": 2})
    p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["f0=x", "f0=y"]


def test_ties_in_frequency_keep_order_of_appearance() -> None:
    X = np.array([["q"], ["p"], ["p"], ["q"], ["r"]], dtype=object)
    p = make(X, cat_encoding_config={})
    p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["f0=q", "f0=p", "f0=r"]


def test_all_missing_categorical_column() -> None:
    X = np.array([[None, 1.0], [None, 2.0]], dtype=object)
    p = make(X, categorical_features=[0])
    out = p.handle_missing_and_categorical_encoding(0)
    assert p.feature_names == ["f1", "f0=<missing>"]
    np.testing.assert_array_equal(out, [[1, 1], [2, 1]])


def test_empty_input() -> None:
    p = make(np.empty((0, 2)), drop_rows_below=0.5, drop_cols_above=0.5)
    out = p.handle_missing_and_categorical_encoding(0)
    assert out.shape == (0, 2)


def test_targets() -> None:
    p = make(np.zeros((4, 1)), y=np.array(["dog", "cat", "emu", "cat"], dtype=object))
    p.handle_missing_and_categorical_encoding(0)
    y, ind, props = p.get_processed_arrays()
    assert y.tolist() == [1, 0, 2, 0] and y.dtype == np.int64
    assert p.classes_.tolist() == ["cat", "dog", "emu"]
    assert props is None and ind.tolist() == [0, 1, 2, 3]
    numeric_objects = make(np.zeros((2, 1)), y=np.array([1, 2.5], dtype=object)).get_processed_arrays()[0]
    assert numeric_objects.dtype == np.float64 and numeric_objects.tolist() == [1.0, 2.5]
    ints = np.array([3, 1])
    assert make(np.zeros((2, 1)), y=ints).get_processed_arrays()[0] is ints
    assert make(np.zeros((2, 1))).get_processed_arrays()[0] is None
    assert len(make(np.zeros((2, 1))).get_processed_arrays()) == 3


def test_keyword_only_and_validation() -> None:
    with pytest.raises(TypeError):
        DataAutoProcessor(np.zeros((2, 2)))  # type: ignore[misc]
    with pytest.raises(ValueError, match="feature names"):
        make(np.zeros((2, 2)), feature_names=["a"])
    with pytest.raises(ValueError, match="2-D"):
        make(np.zeros(3))
    with pytest.raises(ValueError, match="categorical_features"):
        make(np.zeros((2, 2)), categorical_features=[2])
    with pytest.raises(ValueError, match="missing replacements"):
        make(np.zeros((2, 2)), missing_replacement=[1.0])
    with pytest.raises(ValueError, match="drop_rows_below"):
        make(np.zeros((2, 2)), drop_rows_below=2.0)
    with pytest.raises(ValueError, match="max_categories"):
        make(np.zeros((2, 2)), cat_encoding_config={"max_categories": 0})
    with pytest.raises(ValueError, match="rows"):
        make(np.zeros((2, 2)), y=np.zeros(3))
    with pytest.raises(ValueError, match="sparse_threshold"):
        make(np.zeros((2, 2))).handle_missing_and_categorical_encoding(sparse_threshold=1.5)


def test_default_sparse_threshold_still_dense() -> None:
    X = np.array([[f"c{i}"] for i in range(50)], dtype=object)
    out = make(X).handle_missing_and_categorical_encoding()
    assert isinstance(out, np.ndarray) and out.shape == (50, 50)


# -- a chunk node's passes: one per coreset object, each over the rows the previous one kept ---------


def second_pass(first: DataAutoProcessor, **overrides: Any) -> DataAutoProcessor:
    """A processor over the rows ``first`` kept, as a chunk node makes for its next coreset object."""
    arguments = dict(
        X=first.X, y=first.y, ind=first.ind, props=first.props, categorical_features=[],
        feature_names=first.input_feature_names, cat_encoding_config={"max_categories": 100,
                                                                      "feature_space": first.feature_space},
        missing_replacement=None, drop_rows_below=None, drop_cols_above=None,
    )
    arguments.update(overrides)
    return DataAutoProcessor(**arguments)


def mixed_chunk() -> Any:
    X = np.array([[1.0, "red"], [None, "blue"], [3.0, None], [5.0, "red"]], dtype=object)
    return X, np.array([1.0, 2.0, np.nan, 4.0])


def test_a_second_pass_over_the_kept_rows_encodes_as_the_first_and_learns_nothing_twice() -> None:
    X, y = mixed_chunk()
    first = make(X, y=y, feature_names=["size", "colour"])
    encoded = first.handle_missing_and_categorical_encoding(0)
    learnt = first.feature_space.to_state()
    again = second_pass(first)
    np.testing.assert_array_equal(again.handle_missing_and_categorical_encoding(0), encoded)
    assert again.feature_names == first.feature_names and again.replacements_ == first.replacements_
    assert again.removed_rows.tolist() == [] and again.ind.tolist() == [0, 1, 3]
    assert first.feature_space.to_state() == learnt  # counts, sums and categories as after one pass
    # a fresh processor over equal rows (another chunk) is encoded and learnt again
    other = second_pass(first, X=first.X.copy())
    other.handle_missing_and_categorical_encoding(0)
    assert first.feature_space.to_state() != learnt


@pytest.mark.parametrize(
    "overrides",
    [{"drop_rows_below": 1.0}, {"missing_replacement": [0.0, "red"]}, {"drop_cols_above": 0.0}],
)
def test_a_second_pass_with_other_settings_is_encoded_again(overrides: Any) -> None:
    X, y = mixed_chunk()
    first = make(X, y=y, feature_names=["size", "colour"])
    first.handle_missing_and_categorical_encoding(0)
    again = second_pass(first, **overrides)
    expected = second_pass(first, X=first.X.copy(), **overrides)
    np.testing.assert_array_equal(
        again.handle_missing_and_categorical_encoding(0), expected.handle_missing_and_categorical_encoding(0)
    )
    assert again.ind.tolist() == expected.ind.tolist()
