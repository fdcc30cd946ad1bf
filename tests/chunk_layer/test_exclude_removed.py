"""`exclude_removed`: dropping removed samples from an index array and from the dataset that goes with it."""

import numpy as np
import pandas as pd
import pytest

from chunk_support import make_dataset
from quillmarsh.data.common import Dataset


def full_dataset(rows, start=0):
    """A dataset with every field but `sample_weight` filled; row i of each field encodes index i."""
    return make_dataset(rows, start=start, props=True, orig=True)


def expected_rows(dataset, keep_positions):
    """The dataset's fields restricted to the given row positions (None fields stay None)."""
    return [None if field is None else field[keep_positions] for field in dataset]


def assert_fields_equal(actual, expected):
    assert len(actual) == len(expected)
    for got, want in zip(actual, expected):
        if want is None:
            assert got is None
        else:
            assert type(got) is type(want)
            np.testing.assert_array_equal(got, want)
            assert got.shape == want.shape
            assert got.dtype == want.dtype


# ---------------------------------------------------------------- nothing to remove


def test_removed_none_and_no_dataset_returns_the_indices_themselves(impl):
    indices = np.arange(5)
    assert impl.exclude_removed(None, indices, None) is indices


def test_removed_none_and_dataset_omitted_returns_the_indices_themselves(impl):
    indices = np.arange(5)
    assert impl.exclude_removed(None, indices) is indices


def test_removed_empty_returns_the_same_objects(impl):
    indices = np.arange(4)
    dataset = make_dataset(4)
    result = impl.exclude_removed([], indices, dataset)
    assert type(result) is tuple
    assert len(result) == 2
    assert result[0] is indices
    assert result[1] is dataset


def test_removed_none_with_a_dataset_returns_the_same_objects(impl):
    indices = np.arange(4)
    dataset = make_dataset(4)
    result = impl.exclude_removed(None, indices, dataset)
    assert type(result) is tuple
    assert result[0] is indices
    assert result[1] is dataset


def test_removed_empty_array_returns_the_same_objects(impl):
    indices = np.arange(4)
    dataset = make_dataset(4)
    new_indices, new_dataset = impl.exclude_removed(np.array([], dtype=int), indices, dataset)
    assert new_indices is indices
    assert new_dataset is dataset


def test_removed_empty_and_no_dataset_returns_the_bare_indices(impl):
    indices = np.arange(3)
    assert impl.exclude_removed([], indices, None) is indices


def test_sized_removed_of_length_zero_is_not_iterated(impl):
    class EmptySized:
        def __len__(self):
            return 0

        def __iter__(self):
            raise AssertionError("must not be iterated")

        def __array__(self, dtype=None):
            raise AssertionError("must not be converted")

    indices = np.arange(3)
    dataset = make_dataset(3)
    new_indices, new_dataset = impl.exclude_removed(EmptySized(), indices, dataset)
    assert new_indices is indices
    assert new_dataset is dataset


def test_nothing_to_remove_does_not_touch_numpy(impl, monkeypatch):
    monkeypatch.delattr(impl, "np")
    indices = np.arange(3)
    dataset = make_dataset(3)
    assert impl.exclude_removed([], indices, dataset) == (indices, dataset)


# ---------------------------------------------------------------- the example


def test_example_indices_and_dataset(impl):
    indices = np.arange(1, 10)
    dataset = make_dataset(9, start=1)
    new_indices, new_dataset = impl.exclude_removed([2, 5, 7], indices, dataset)
    assert type(new_indices) is np.ndarray
    assert new_indices.tolist() == [1, 3, 4, 6, 8, 9]
    assert type(new_dataset) is Dataset
    assert new_dataset is not dataset
    keep = [0, 2, 3, 5, 7, 8]
    assert_fields_equal(new_dataset, expected_rows(dataset, keep))
    assert new_dataset.ind.tolist() == [1, 3, 4, 6, 8, 9]
    assert new_dataset.X[:, 0].tolist() == [1.0, 3.0, 4.0, 6.0, 8.0, 9.0]
    assert new_dataset.y.tolist() == [10.0, 30.0, 40.0, 60.0, 80.0, 90.0]


def test_example_none_fields_stay_none(impl):
    indices = np.arange(1, 10)
    dataset = make_dataset(9, start=1, y=False)
    _, new_dataset = impl.exclude_removed([2, 5, 7], indices, dataset)
    assert new_dataset.y is None
    assert new_dataset.sample_weight is None
    assert new_dataset.props is None
    assert new_dataset.orig is None
    assert new_dataset.X.shape == (6, 3)


def test_every_field_is_filtered_in_order(impl):
    indices = np.arange(6)
    dataset = full_dataset(6)
    new_indices, new_dataset = impl.exclude_removed(np.array([0, 4]), indices, dataset)
    assert new_indices.tolist() == [1, 2, 3, 5]
    keep = [1, 2, 3, 5]
    assert_fields_equal(new_dataset, expected_rows(dataset, keep))
    assert new_dataset.props.tolist() == [100, 200, 300, 500]
    assert new_dataset.orig[:, 0].tolist() == [2.0, 4.0, 6.0, 10.0]


def test_removed_values_are_matched_by_value_not_position(impl):
    indices = np.array([40, 10, 30, 20])
    dataset = Dataset(indices, np.arange(8).reshape(4, 2), np.array([4, 1, 3, 2]))
    new_indices, new_dataset = impl.exclude_removed([10, 20, 99], indices, dataset)
    assert new_indices.tolist() == [40, 30]
    assert new_dataset.X.tolist() == [[0, 1], [4, 5]]
    assert new_dataset.y.tolist() == [4, 3]


def test_duplicate_indices_are_all_removed(impl):
    indices = np.array([1, 1, 2, 3, 1])
    new_indices, new_dataset = impl.exclude_removed([1], indices, Dataset(indices, np.arange(5)[:, None]))
    assert new_indices.tolist() == [2, 3]
    assert new_dataset.X[:, 0].tolist() == [2, 3]


def test_a_dataset_given_as_a_tuple_comes_back_as_a_dataset(impl):
    indices = np.arange(3)
    X = np.arange(6).reshape(3, 2)
    new_indices, new_dataset = impl.exclude_removed([1], indices, (indices, X))
    assert type(new_dataset) is Dataset
    assert new_dataset.ind.tolist() == [0, 2]
    assert new_dataset.X.tolist() == [[0, 1], [4, 5]]
    assert new_dataset.y is None
    assert new_dataset.orig is None


def test_a_frame_field_is_filtered_by_rows(impl):
    indices = np.arange(3)
    props = pd.DataFrame({"a": [7, 8, 9]})
    _, new_dataset = impl.exclude_removed([1], indices, Dataset(indices, np.zeros((3, 2)), props=props))
    assert isinstance(new_dataset.props, pd.DataFrame)
    assert new_dataset.props["a"].tolist() == [7, 9]


def test_keyword_call(impl):
    indices = np.arange(4)
    result = impl.exclude_removed(dataset=None, indices=indices, removed=[3])
    assert result.tolist() == [0, 1, 2]


def test_inputs_are_not_changed(impl):
    indices = np.arange(5)
    dataset = make_dataset(5)
    removed = [0, 3]
    impl.exclude_removed(removed, indices, dataset)
    assert indices.tolist() == [0, 1, 2, 3, 4]
    assert dataset.X.shape == (5, 3)
    assert dataset.y.tolist() == [0.0, 10.0, 20.0, 30.0, 40.0]
    assert removed == [0, 3]


# ---------------------------------------------------------------- removals that match nothing


def test_removed_values_absent_from_indices_still_copy(impl):
    indices = np.arange(3)
    dataset = make_dataset(3)
    new_indices, new_dataset = impl.exclude_removed([10, 11], indices, dataset)
    assert new_indices.tolist() == [0, 1, 2]
    assert new_indices is not indices
    assert new_dataset is not dataset
    assert type(new_dataset) is Dataset
    assert_fields_equal(new_dataset, list(dataset))
    assert new_dataset.X is not dataset.X


# ---------------------------------------------------------------- everything removed


def test_all_removed_keeps_the_indices_but_empties_the_dataset(impl):
    indices = np.array([3, 4, 5])
    dataset = make_dataset(3, start=3)
    new_indices, new_dataset = impl.exclude_removed([5, 3, 4], indices, dataset)
    assert new_indices is indices
    assert new_indices.tolist() == [3, 4, 5]
    assert type(new_dataset) is Dataset
    assert new_dataset.ind.shape == (0,)
    assert new_dataset.X.shape == (0, 3)
    assert new_dataset.y.shape == (0,)
    assert new_dataset.sample_weight is None
    assert new_dataset.props is None
    assert new_dataset.orig is None


def test_all_removed_without_dataset_returns_the_bare_indices_unfiltered(impl):
    indices = np.array([1, 2])
    result = impl.exclude_removed([1, 2], indices, None)
    assert result is indices


def test_all_removed_with_every_field_gives_zero_row_fields(impl):
    indices = np.arange(2)
    dataset = full_dataset(2)
    _, new_dataset = impl.exclude_removed([0, 1], indices, dataset)
    assert [None if f is None else f.shape[0] for f in new_dataset] == [0, 0, 0, None, 0, 0]
    assert new_dataset.X.dtype == dataset.X.dtype


# ---------------------------------------------------------------- no dataset, something removed


def test_no_dataset_returns_only_the_filtered_indices(impl):
    indices = np.arange(6)
    result = impl.exclude_removed([0, 5], indices, None)
    assert type(result) is np.ndarray
    assert result.tolist() == [1, 2, 3, 4]
    assert result.dtype == indices.dtype


def test_no_dataset_omitted_returns_only_the_filtered_indices(impl):
    result = impl.exclude_removed(np.array([2]), np.array([2, 3]))
    assert type(result) is np.ndarray
    assert result.tolist() == [3]


# ---------------------------------------------------------------- errors of others propagate


def test_removed_without_a_length_fails_in_len(impl):
    with pytest.raises(TypeError, match=r"^object of type 'object' has no len\(\)$"):
        impl.exclude_removed(object(), np.arange(3), None)


def test_removed_as_a_generator_fails_in_len(impl):
    with pytest.raises(TypeError, match=r"^object of type 'generator' has no len\(\)$"):
        impl.exclude_removed((i for i in [1]), np.arange(3), make_dataset(3))


def test_error_raised_by_len_propagates_unchanged(impl):
    class LengthError(Exception):
        pass

    raised = LengthError("no length today")

    class Removed:
        def __len__(self):
            raise raised

    with pytest.raises(LengthError) as info:
        impl.exclude_removed(Removed(), np.arange(3), make_dataset(3))
    assert info.value is raised


def test_field_of_another_length_fails_in_numpy(impl):
    indices = np.arange(3)
    dataset = Dataset(indices, np.zeros((4, 2)))
    with pytest.raises(IndexError, match="boolean index did not match"):
        impl.exclude_removed([1], indices, dataset)


def test_indices_that_cannot_be_masked_fail_in_numpy(impl):
    with pytest.raises(TypeError):
        impl.exclude_removed([1], [1, 2, 3], None)


def test_dataset_that_cannot_be_built_raises_its_own_error(impl):
    indices = np.arange(3)
    fields = (indices, np.zeros((3, 1)), None, None, None, None, np.zeros(3))
    with pytest.raises(TypeError):
        impl.exclude_removed([1], indices, fields)


def test_numpy_membership_test_is_used(impl, monkeypatch):
    calls = []

    class NumpyProxy:
        def __getattr__(self, name):
            return getattr(np, name)

        def in1d(self, *args, **kwargs):
            calls.append((args, kwargs))
            return np.isin(*args, **kwargs)

    monkeypatch.setattr(impl, "np", NumpyProxy())
    indices = np.arange(4)
    removed = [1, 2]
    assert impl.exclude_removed(removed, indices).tolist() == [0, 3]
    assert len(calls) == 1
    assert calls[0][0][0] is indices
    assert calls[0][0][1] is removed


def test_numpy_without_in1d_gets_the_same_membership_test_through_isin(impl, monkeypatch):
    calls = []

    class NumpyWithoutIn1d:
        def __getattr__(self, name):
            if name == "in1d":
                raise AttributeError(name)
            return getattr(np, name)

        def isin(self, *args, **kwargs):
            calls.append((args, kwargs))
            return np.isin(*args, **kwargs)

    monkeypatch.setattr(impl, "np", NumpyWithoutIn1d())
    indices = np.arange(5)
    removed = np.array([4, 1])
    dataset = Dataset(indices, np.arange(10.0).reshape(5, 2), None, None, None, None)
    kept, rows = impl.exclude_removed(removed, indices, dataset)
    assert kept.tolist() == [0, 2, 3]
    assert rows.X.tolist() == [[0.0, 1.0], [4.0, 5.0], [6.0, 7.0]]
    assert [(args[0] is indices, args[1] is removed, kwargs) for args, kwargs in calls] == [(True, True, {})]


def test_an_error_other_than_a_missing_in1d_is_not_hidden(impl, monkeypatch):
    class BrokenNumpy:
        def __getattr__(self, name):
            if name == "in1d":
                raise RuntimeError("numpy is broken")
            return getattr(np, name)

    monkeypatch.setattr(impl, "np", BrokenNumpy())
    with pytest.raises(RuntimeError, match="numpy is broken"):
        impl.exclude_removed([1], np.arange(3))
