"""Chunks of one stream share one feature space: real, dirty tables through the preprocessor."""

from __future__ import annotations

from typing import Any, List

import numpy as np
import pandas as pd
import pytest
from hypothesis import given
from hypothesis import strategies as st

from quillmarsh.data.data_auto_processor import DataAutoProcessor
from quillmarsh.data.feature_space import FeatureSpace, as_numbers
from quillmarsh.data.manager import DataManager, DataParams, FeatureField


def process(
    X: Any, y: Any = None, names: Any = (), config: Any = None, **overrides: Any
) -> DataAutoProcessor:
    X = np.asarray(X, dtype=object) if not isinstance(X, np.ndarray) else X
    arguments = dict(
        X=X, y=None if y is None else np.asarray(y, dtype=object), ind=np.arange(len(X)), props=None,
        categorical_features=[], feature_names=list(names), cat_encoding_config=config,
        missing_replacement=None, drop_rows_below=None, drop_cols_above=None,
    )
    arguments.update(overrides)
    processor = DataAutoProcessor(**arguments)
    processor.matrix = processor.handle_missing_and_categorical_encoding(sparse_threshold=0)
    return processor


def test_rows_with_a_missing_infinite_or_text_target_are_dropped_and_reported() -> None:
    X = np.arange(12, dtype=float).reshape(6, 2)
    y = [1.5, None, "7", np.inf, "n/a", float("nan")]
    p = process(X, y, ind=np.arange(100, 106))
    assert p.removed_rows.tolist() == [1, 3, 4, 5]
    assert p.removed_for_target == 4
    y_processed, ind, _ = p.get_processed_arrays()
    assert y_processed.tolist() == [1.5, 7.0] and ind.tolist() == [100, 102]
    assert p.matrix.shape == (2, 2)


def test_float_target_with_nan_drops_those_rows_and_keeps_the_rest() -> None:
    X = np.ones((4, 1))
    p = process(X, ind=np.arange(4), y=None)
    assert p.removed_rows.tolist() == []
    arguments = dict(y=np.array([1.0, np.nan, -np.inf, 2.0]))
    p = process(X, **arguments)
    assert p.removed_rows.tolist() == [1, 2]


def test_text_labels_stay_labels_and_only_missing_labels_are_dropped() -> None:
    p = process(np.zeros((4, 1)), ["cat", None, "dog", "cat"])
    assert p.removed_rows.tolist() == [1]
    y, _, _ = p.get_processed_arrays()
    assert y.tolist() == [0, 1, 0] and p.classes_.tolist() == ["cat", "dog"]


def test_timestamp_text_becomes_seconds_not_categories() -> None:
    X = np.array([["2024-01-01 00:00:00"], ["2024-01-01 00:01:00"], [None], ["2024-01-02"]], dtype=object)
    p = process(X, names=["when"])
    assert p.feature_names == ["when"]
    start = 1704067200.0  # 2024-01-01 00:00:00 UTC
    expected = [start, start + 60, None, start + 86400]
    mean = np.mean([start, start + 60, start + 86400])
    np.testing.assert_allclose(p.matrix[:, 0], [v if v is not None else mean for v in expected])


def test_datetime_column_becomes_seconds() -> None:
    X = np.array(["1970-01-01T00:00:10", "1970-01-02"], dtype="datetime64[s]").reshape(-1, 1)
    p = process(X, names=["t"])
    assert p.feature_names == ["t"]
    np.testing.assert_allclose(p.matrix[:, 0], [10.0, 86400.0])


def test_text_column_above_the_limit_is_left_out_with_a_note_naming_it() -> None:
    X = np.array([[f"note {i}", "a" if i % 2 else "b", float(i)] for i in range(20)], dtype=object)
    space = FeatureSpace()
    config = {"max_categories": 100, "max_text_values": 5, "feature_space": space}
    p = process(X, names=["comment", "group", "size"], config=config)
    assert p.feature_names == ["size", "group=b", "group=a"]
    assert p.matrix.shape == (20, 3)
    assert any("'comment'" in note and "left out" in note for note in space.notes)
    assert space.kinds == {"comment": "excluded", "group": "categorical", "size": "numeric"}


def test_a_few_words_in_a_numeric_column_count_as_missing_and_are_noted() -> None:
    values = [float(i) for i in range(19)] + ["oops"]
    space = FeatureSpace()
    p = process(np.array(values, dtype=object).reshape(-1, 1), names=["x"], config={"feature_space": space})
    assert p.feature_names == ["x"]
    assert p.matrix[-1, 0] == pytest.approx(np.mean(range(19)))
    assert space.notes == ["column 'x': 1 value(s) that are not numbers taken as missing"]


def chunk(colours: list, sizes: list) -> np.ndarray:
    return np.array(list(zip(sizes, colours)), dtype=object)


def test_chunks_of_one_stream_share_the_feature_space_and_a_late_category_is_appended() -> None:
    manager = DataManager(data_params=DataParams(features=[FeatureField("size"), FeatureField("colour")]))
    names = [f.name for f in manager.data_params.features]

    def run(X: np.ndarray) -> DataAutoProcessor:
        return process(X, names=names, config=manager.cat_encoding_config_clear())

    first = run(chunk(["red", "blue", "red"], [1.0, 2.0, 3.0]))
    second = run(chunk(["blue", "green", None], [4.0, None, "6"]))
    third = run(chunk(["red", "red"], [7.0, 8.0]))
    assert first.feature_names == ["size", "colour=red", "colour=blue"]
    assert second.feature_names == ["size", "colour=red", "colour=blue", "colour=green"]
    assert third.feature_names == second.feature_names
    assert manager.feature_space.feature_names == second.feature_names
    # earlier chunks' columns are a prefix, and the same category lands in the same column everywhere
    np.testing.assert_array_equal(first.matrix[:, 1:], [[1, 0], [0, 1], [1, 0]])
    np.testing.assert_array_equal(second.matrix[:, 1:], [[0, 1, 0], [0, 0, 1], [1, 0, 0]])
    np.testing.assert_array_equal(third.matrix[:, 1:], [[1, 0, 0], [1, 0, 0]])
    # a missing number is filled with the stream's mean so far: (1+2+3+4+6) / 5
    assert second.matrix[1, 0] == pytest.approx(3.2)


def test_categories_beyond_the_cap_in_later_chunks_go_to_other() -> None:
    space = FeatureSpace()
    config = {"max_categories": 2, "feature_space": space}
    process(np.array([["a"], ["b"]], dtype=object), names=["c"], config=config)
    later = process(np.array([["c"], ["a"], ["d"]], dtype=object), names=["c"], config=config)
    assert later.feature_names == ["c=a", "c=b", "c=<other>"]
    np.testing.assert_array_equal(later.matrix, [[0, 0, 1], [1, 0, 0], [0, 0, 1]])


def test_a_column_empty_in_the_first_chunk_is_decided_by_a_later_one() -> None:
    space = FeatureSpace()
    config = {"feature_space": space}
    first = process(np.array([[None, 1.0], [None, 2.0]], dtype=object), names=["a", "b"], config=config)
    assert first.feature_names == ["b"] and first.matrix.shape == (2, 1)
    later = process(np.array([["x", 1.0], ["y", 2.0]], dtype=object), names=["a", "b"], config=config)
    assert later.feature_names == ["b", "a=x", "a=y"]


def test_transform_encodes_new_rows_in_the_stream_space_without_learning() -> None:
    space = FeatureSpace()
    process(chunk(["red", "blue", "red"], [1.0, 2.0, 3.0]), names=["size", "colour"],
            config={"feature_space": space})
    out = space.transform(chunk(["blue", "purple", None], [None, 5.0, 1.0]))
    np.testing.assert_array_equal(out, [[2.0, 0, 1], [5.0, 0, 0], [1.0, 1, 0]])
    assert space.feature_names == ["size", "colour=red", "colour=blue"]
    with pytest.raises(ValueError, match="input columns"):
        space.transform(np.zeros((1, 3)))


def mixed_table(rows: int, seed: int) -> pd.DataFrame:
    rng = np.random.default_rng(seed)
    floats = rng.normal(size=rows) * 1e3
    floats[rng.random(rows) < 0.2] = np.nan
    floats[rng.random(rows) < 0.05] = np.inf
    text = rng.choice(np.array(["a", "b", "c", None], dtype=object), rows)
    return pd.DataFrame({
        "int": rng.integers(-(2**40), 2**40, rows),
        "small_int": rng.integers(0, 5, rows).astype(np.int8),
        "unsigned": rng.integers(0, 2**60, rows).astype(np.uint64),
        "float": floats,
        "float32": floats.astype(np.float32),
        "bool": rng.random(rows) < 0.5,
        "text": text,
        "string": pd.array(text, dtype="string"),
        "nullable": pd.array(np.where(rng.random(rows) < 0.3, None, rng.integers(0, 9, rows)), dtype="Int64"),
        "category": pd.Categorical(rng.choice(["x", "y"], rows)),
        "when": pd.Timestamp("2024-01-01") + pd.to_timedelta(rng.integers(0, 10**6, rows), unit="s"),
        "when_text": (pd.Timestamp("2024-01-01") + pd.to_timedelta(rng.integers(0, 10**6, rows), unit="s"))
        .strftime("%Y-%m-%d %H:%M:%S"),
        "number_text": rng.choice(np.array(["1.5", "2", "x", None], dtype=object), rows),
        "words": rng.choice(np.array([f"w{i}" for i in range(50)], dtype=object), rows),
        "never": np.full(rows, None, dtype=object),
    })


@pytest.mark.parametrize("seed", [0, 1])
def test_a_table_is_encoded_as_its_objects_are(seed: int) -> None:
    space = FeatureSpace()
    names = list(mixed_table(1, 0).columns)
    for number in range(3):  # learnt from object arrays, as a tree's chunks are
        process(mixed_table(40, seed + 10 * number).to_numpy(), names=names,
                config={"feature_space": space, "max_text_values": 20})
    assert "words" not in {name.split("=")[0] for name in space.feature_names}  # left out: too many values
    table = mixed_table(60, seed + 100)
    expected = space.transform(table.to_numpy())
    np.testing.assert_array_equal(space.transform(table), expected)
    np.testing.assert_array_equal(space.transform(table.iloc[7:31]), expected[7:31])
    with pytest.raises(ValueError, match="input columns"):
        space.transform(table.iloc[:, 1:])


def test_one_space_serves_one_set_of_columns() -> None:
    space = FeatureSpace()
    process(np.zeros((2, 2)), names=["a", "b"], config={"feature_space": space})
    with pytest.raises(ValueError, match="columns"):
        process(np.zeros((2, 2)), names=["a", "c"], config={"feature_space": space})
    with pytest.raises(TypeError, match="FeatureSpace"):
        process(np.zeros((2, 2)), config={"feature_space": {}})
    with pytest.raises(ValueError, match="max_text_values"):
        process(np.zeros((2, 2)), config={"max_text_values": 0})


@given(st.lists(st.one_of(st.none(), st.floats(), st.integers(-(2**70), 2**70),
                          st.sampled_from(["1.5", "x", "-2e3", "inf"])), max_size=30))
def test_numbers_of_an_object_column_are_those_pandas_reads(values: list) -> None:
    column = np.empty(len(values), dtype=object)
    column[:] = values
    expected = np.array(pd.to_numeric(pd.Series(column, dtype=object), errors="coerce"), dtype=np.float64)
    np.testing.assert_array_equal(as_numbers(column), expected)


def test_a_chunk_s_numeric_columns_are_converted_once(monkeypatch: pytest.MonkeyPatch) -> None:
    from quillmarsh.core import numpy_extra
    from quillmarsh.data import feature_space

    space = FeatureSpace()
    names = ["size", "colour", "weight"]

    def chunk_of(rows: int) -> np.ndarray:
        rng = np.random.default_rng(rows)
        table = np.empty((rows, 3), dtype=object)
        table[:, 0] = rng.normal(size=rows).tolist()
        table[:, 1] = rng.choice(["red", "blue"], rows).tolist()  # text as read: str, not numpy.str_
        table[:, 2] = [None if i % 5 == 0 else float(i) for i in range(rows)]
        return table

    process(chunk_of(20), names=names, config={"feature_space": space})  # decides the kinds
    converted: List[int] = []
    original = numpy_extra.object_numbers

    def counting(values: np.ndarray) -> Any:
        converted.append(len(values))
        return original(values)

    monkeypatch.setattr(numpy_extra, "object_numbers", counting)
    monkeypatch.setattr(feature_space, "object_numbers", counting)
    second = process(chunk_of(30), names=names, config={"feature_space": space})
    assert len(converted) == 3  # the mask of each column; the two numeric ones are not converted again
    expected = space.transform(chunk_of(30))
    np.testing.assert_array_equal(second.matrix, expected)
