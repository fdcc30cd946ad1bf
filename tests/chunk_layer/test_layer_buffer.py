"""Tests of `ChunkLayer`: its constructor, its attributes, and the seven operations on its buffer
(`has_buffer`, `get_buffer`, `set_buffer`, `_add_to_buffer`, `remove_from_buffer`, `get_buffer_size`,
`update_buffer`)."""

from __future__ import annotations

from typing import Any, List

import numpy as np
import pytest

from chunk_support import (
    RecordingDataManager,
    RecordingParent,
    Sentinel,
    make_dataset,
    patch_node_class,
    rows_of,
    unpacking_message,
)
from quillmarsh.core.helpers import align_arrays_by_key as real_align_arrays_by_key
from quillmarsh.data.common import Dataset

ATTRIBUTE_ORDER = ["build_params", "chunk_corset_params", "buffer", "chunk_size", "data_manager", "parent",
                   "chunk_index"]

_HEAPTYPE = 1 << 9


# ----------------------------------------------------------------------------------------------------
# local helpers


def type_name(obj: Any) -> str:
    """The name that the interpreter gives a type in its messages (`tp_name`): the bare class name for
    classes made by Python code, the dotted name for static extension types."""
    cls = type(obj)
    if cls.__flags__ & _HEAPTYPE:
        return cls.__name__
    return repr(cls)[len("<class '"):-len("'>")]


def make_layer(impl, dm=None, parent=None, **kwargs) -> Any:
    """A layer with a recording data manager and a recording parent unless others are given."""
    return impl.ChunkLayer(dm if dm is not None else RecordingDataManager(),
                      parent=parent if parent is not None else RecordingParent(), **kwargs)


class Comparable:
    """A row count whose comparison with 0 gives a chosen object."""

    def __init__(self, result) -> None:
        self.result = result
        self.compared: List[Any] = []

    def __gt__(self, other):
        self.compared.append(other)
        return self.result


class Shaped:
    def __init__(self, rows) -> None:
        self.shape = (rows, 1)


class RecordingCall:
    """A callable stand-in that records its calls and returns a fixed result (or raises)."""

    def __init__(self, result=None, error: BaseException | None = None, log: List[Any] | None = None,
                 name: str = "call") -> None:
        self.result = result
        self.error = error
        self.calls: List[Any] = []
        self.log = log
        self.name = name

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        if self.log is not None:
            self.log.append(self.name)
        if self.error is not None:
            raise self.error
        return self.result


class LoggingArray(np.ndarray):
    """An array that logs each item assignment into a shared list."""

    log: List[Any]
    label: str

    def __setitem__(self, key, value):
        self.log.append((self.label, np.array(key, copy=True), np.array(value, copy=True)))
        super().__setitem__(key, value)


def logging_array(values, label: str, log: List[Any]) -> LoggingArray:
    arr = np.array(values).view(LoggingArray)
    arr.log = log
    arr.label = label
    return arr


class NumpyProxy:
    """Stands in for the module's `np`: records `concatenate` calls, delegates everything else."""

    def __init__(self) -> None:
        self.concatenate_calls: List[Any] = []

    def concatenate(self, *args, **kwargs):
        self.concatenate_calls.append((args, kwargs))
        return np.concatenate(*args, **kwargs)

    def __getattr__(self, name):
        return getattr(np, name)


def assert_same_fields(actual, expected) -> None:
    assert len(tuple(actual)) == len(tuple(expected))
    for got, want in zip(actual, expected):
        if want is None:
            assert got is None
        else:
            np.testing.assert_array_equal(got, want)


def numpy_error(func) -> BaseException:
    try:
        func()
    except Exception as exc:  # noqa: BLE001 - the error numpy itself raises
        return exc
    raise AssertionError("numpy accepted the values")


# ----------------------------------------------------------------------------------------------------
# constructor


def test_new_layer_defaults(impl) -> None:
    dm = RecordingDataManager()
    layer = impl.ChunkLayer(dm)
    assert layer.build_params is None
    assert layer.chunk_corset_params is None
    assert layer.buffer is None
    assert layer.chunk_size is None
    assert layer.parent is None
    assert layer.chunk_index == 0 and type(layer.chunk_index) is int
    assert layer.data_manager is dm
    assert dm.calls == []


def test_attributes_are_the_seven_in_constructor_order(impl) -> None:
    layer = impl.ChunkLayer(RecordingDataManager(), [1], 4, RecordingParent(), 2)
    assert list(vars(layer)) == ATTRIBUTE_ORDER


def test_attributes_are_assigned_in_order_one_by_one(impl) -> None:
    assigned = []

    class Watched(impl.ChunkLayer):
        def __setattr__(self, name, value):
            assigned.append(name)
            object.__setattr__(self, name, value)

    Watched(RecordingDataManager())
    assert assigned == ATTRIBUTE_ORDER


def test_chunk_index_kept_when_given(impl) -> None:
    assert impl.ChunkLayer(RecordingDataManager(), chunk_index=5).chunk_index == 5
    assert impl.ChunkLayer(RecordingDataManager(), chunk_index=0).chunk_index == 0
    big = 10 ** 30
    assert impl.ChunkLayer(RecordingDataManager(), chunk_index=big).chunk_index == big


def test_chunk_size_stored_as_given(impl) -> None:
    assert impl.ChunkLayer(RecordingDataManager(), chunk_size=0).chunk_size == 0
    assert impl.ChunkLayer(RecordingDataManager(), chunk_size=7).chunk_size == 7
    assert impl.ChunkLayer(RecordingDataManager(), None, -3).chunk_size == -3


def test_nothing_is_copied(impl) -> None:
    dm = RecordingDataManager()
    params = [object(), object()]
    parent = RecordingParent()
    layer = impl.ChunkLayer(dm, params, 3, parent, 1)
    assert layer.chunk_corset_params is params
    assert layer.data_manager is dm
    assert layer.parent is parent
    assert params == layer.chunk_corset_params and len(params) == 2


def test_chunk_corset_params_generator_is_stored_unconsumed(impl) -> None:
    consumed = []

    def gen():
        consumed.append(True)
        yield 1

    g = gen()
    layer = impl.ChunkLayer(RecordingDataManager(), chunk_corset_params=g)
    assert layer.chunk_corset_params is g
    assert consumed == []


def test_other_arguments_are_not_checked(impl) -> None:
    dm, params, parent = "not a manager", 42, 3.5
    layer = impl.ChunkLayer(dm, params, None, parent, None)
    assert layer.data_manager is dm
    assert layer.chunk_corset_params is params
    assert layer.parent is parent


@pytest.mark.parametrize("value", [True, False, np.int64(4), 4.0, "4", [4]])
def test_chunk_size_of_wrong_type_refused(impl, value) -> None:
    with pytest.raises(TypeError) as info:
        impl.ChunkLayer(RecordingDataManager(), chunk_size=value)
    assert str(info.value) == (
        f"Argument 'chunk_size' has incorrect type (expected int, got {type_name(value)})"
    )


@pytest.mark.parametrize("value", [True, np.int64(4), 4.0, "4"])
def test_chunk_index_of_wrong_type_refused(impl, value) -> None:
    with pytest.raises(TypeError) as info:
        impl.ChunkLayer(RecordingDataManager(), chunk_size=3, chunk_index=value)
    assert str(info.value) == (
        f"Argument 'chunk_index' has incorrect type (expected int, got {type_name(value)})"
    )


def test_type_names_in_messages(impl) -> None:
    with pytest.raises(TypeError, match=r"got bool\)$"):
        impl.ChunkLayer(RecordingDataManager(), chunk_size=True)
    with pytest.raises(TypeError, match=r"got numpy\.int64\)$"):
        impl.ChunkLayer(RecordingDataManager(), chunk_size=np.int64(4))


def test_int_subclass_refused_with_its_own_name(impl) -> None:
    class Count(int):
        pass

    with pytest.raises(TypeError) as info:
        impl.ChunkLayer(RecordingDataManager(), chunk_index=Count(2))
    assert str(info.value) == "Argument 'chunk_index' has incorrect type (expected int, got Count)"


def test_chunk_size_reported_first_when_both_wrong(impl) -> None:
    with pytest.raises(TypeError) as info:
        impl.ChunkLayer(RecordingDataManager(), chunk_size=1.5, chunk_index="x")
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got float)"


def test_positional_arguments_are_checked_too(impl) -> None:
    with pytest.raises(TypeError) as info:
        impl.ChunkLayer(RecordingDataManager(), None, 2, None, True)
    assert str(info.value) == "Argument 'chunk_index' has incorrect type (expected int, got bool)"


@pytest.mark.parametrize("kwargs", [{"chunk_size": True}, {"chunk_index": 2.0}, {"chunk_size": 1.0,
                                                                                  "chunk_index": 1.0}])
def test_type_error_raised_before_any_attribute(impl, kwargs) -> None:
    class Sub(impl.ChunkLayer):
        pass

    layer = object.__new__(Sub)
    with pytest.raises(TypeError):
        layer.__init__(RecordingDataManager(), **kwargs)
    assert vars(layer) == {}


def test_type_error_on_reinitialisation_keeps_old_attributes(impl) -> None:
    dm = RecordingDataManager()
    layer = impl.ChunkLayer(dm, chunk_index=3)
    with pytest.raises(TypeError):
        layer.__init__(RecordingDataManager(), chunk_index=3.0)
    assert layer.chunk_index == 3 and layer.data_manager is dm


def test_argument_count_errors(impl) -> None:
    with pytest.raises(TypeError):
        impl.ChunkLayer()
    with pytest.raises(TypeError):
        impl.ChunkLayer(1, 2, 3, 4, 5, 6)
    with pytest.raises(TypeError):
        impl.ChunkLayer(RecordingDataManager(), unknown=1)
    with pytest.raises(TypeError):
        impl.ChunkLayer(RecordingDataManager(), data_manager=RecordingDataManager())


def test_keyword_construction(impl) -> None:
    dm, parent = RecordingDataManager(), RecordingParent()
    layer = impl.ChunkLayer(chunk_index=9, parent=parent, chunk_size=4, chunk_corset_params=(),
                            data_manager=dm)
    assert (layer.data_manager, layer.parent, layer.chunk_size, layer.chunk_index) == (dm, parent, 4, 9)
    assert layer.chunk_corset_params == ()


# ----------------------------------------------------------------------------------------------------
# has_buffer


def test_has_buffer_false_without_buffer(impl) -> None:
    assert make_layer(impl).has_buffer() is False


def test_has_buffer_false_for_zero_rows(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(0))
    assert layer.has_buffer() is False


def test_has_buffer_true_for_one_row(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(1))
    assert layer.has_buffer() is True


def test_has_buffer_returns_the_comparison_result_itself(impl) -> None:
    result = Sentinel("comparison")
    rows = Comparable(result)
    layer = make_layer(impl)
    layer.buffer = (None, Shaped(rows))
    assert layer.has_buffer() is result
    assert rows.compared == [0]


def test_has_buffer_result_not_converted_to_bool(impl) -> None:
    layer = make_layer(impl)
    layer.buffer = (None, Shaped(np.int64(3)))
    result = layer.has_buffer()
    assert type(result) is np.bool_ and bool(result) is True


def test_has_buffer_reads_field_at_position_one(impl) -> None:
    layer = make_layer(impl)
    layer.buffer = [Shaped(0), Shaped(2), Shaped(0)]
    assert layer.has_buffer() is True
    layer.buffer = [Shaped(5), Shaped(0)]
    assert layer.has_buffer() is False


def test_has_buffer_does_not_consult_data_manager(impl) -> None:
    dm = RecordingDataManager(removed=np.array([0]))
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(1))
    assert layer.has_buffer() is True
    assert dm.calls == []


# ----------------------------------------------------------------------------------------------------
# get_buffer


def test_get_buffer_none_without_buffer(impl) -> None:
    dm = RecordingDataManager(removed=np.array([1]))
    assert make_layer(impl, dm).get_buffer() is None
    assert dm.calls == []


def test_get_buffer_none_for_zero_row_buffer(impl) -> None:
    dm = RecordingDataManager(removed=np.array([1]))
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(0))
    assert layer.get_buffer() is None
    assert dm.calls == []


@pytest.mark.parametrize("removed", [None, [], np.array([], dtype=int)])
def test_get_buffer_returns_the_very_record_without_removals(impl, removed) -> None:
    dm = RecordingDataManager(removed=removed)
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(4))
    buffer = layer.buffer
    assert layer.get_buffer() is buffer
    assert dm.calls == [("get_removed", (), {})]


def test_get_buffer_without_removals_shares_the_arrays(impl) -> None:
    layer = make_layer(impl, RecordingDataManager(removed=None))
    layer.set_buffer(make_dataset(3))
    layer.get_buffer().y[0] = -1.0
    assert layer.buffer.y[0] == -1.0


def test_get_buffer_filters_removed_rows_into_new_record(impl) -> None:
    dm = RecordingDataManager(removed=np.array([1, 3, 99]))
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(5, props=True, orig=True))
    buffer = layer.buffer
    result = layer.get_buffer()
    assert isinstance(result, Dataset)
    assert result is not buffer
    assert rows_of(result) == [0, 2, 4]
    keep = [0, 2, 4]
    assert_same_fields(result, [None if f is None else f[keep] for f in buffer])
    assert layer.buffer is buffer
    assert rows_of(layer.buffer) == [0, 1, 2, 3, 4]
    assert dm.calls == [("get_removed", (), {})]


def test_get_buffer_copies_even_when_no_removed_index_is_buffered(impl) -> None:
    layer = make_layer(impl, RecordingDataManager(removed=np.array([50, 60])))
    layer.set_buffer(make_dataset(3))
    buffer = layer.buffer
    result = layer.get_buffer()
    assert result is not buffer
    assert rows_of(result) == [0, 1, 2]
    assert_same_fields(result, buffer)
    result.X[0, 0] = -7.0
    assert buffer.X[0, 0] == 0.0


def test_get_buffer_calls_exclude_removed_with_buffer_indices(impl, monkeypatch) -> None:
    log: List[str] = []
    removed = np.array([2])
    dm = RecordingDataManager(removed=removed)
    original = dm.get_removed

    def get_removed():
        log.append("get_removed")
        return original()

    dm.get_removed = get_removed
    wanted = Sentinel("filtered")
    fake = RecordingCall(result=(Sentinel("indices"), wanted), log=log, name="exclude_removed")
    monkeypatch.setattr(impl, "exclude_removed", fake)
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(3))
    buffer = layer.buffer
    assert layer.get_buffer() is wanted
    assert log == ["get_removed", "exclude_removed"]
    (args, kwargs), = fake.calls
    assert kwargs == {}
    assert len(args) == 3
    assert args[0] is removed
    assert args[1] is buffer.ind
    assert args[2] is buffer
    assert layer.buffer is buffer


@pytest.mark.parametrize(("result", "message"), [
    ((1, 2, 3), "too many values to unpack (expected 2)"),
    ((1,), unpacking_message((1,), 2)),
    ((), unpacking_message((), 2)),
    (5, unpacking_message(5, 2)),
])
def test_get_buffer_unpacking_errors(impl, monkeypatch, result, message) -> None:
    monkeypatch.setattr(impl, "exclude_removed", RecordingCall(result=result))
    layer = make_layer(impl, RecordingDataManager(removed=np.array([1])))
    layer.set_buffer(make_dataset(3))
    buffer = layer.buffer
    with pytest.raises((TypeError, ValueError)) as info:
        layer.get_buffer()
    assert str(info.value) == message
    assert layer.buffer is buffer


def test_get_buffer_propagates_data_manager_error(impl) -> None:
    error = RuntimeError("removed list unavailable")
    dm = RecordingDataManager()
    dm.get_removed = RecordingCall(error=error)
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(2))
    with pytest.raises(RuntimeError) as info:
        layer.get_buffer()
    assert info.value is error


def test_get_buffer_uses_overridden_has_buffer(impl) -> None:
    class NeverBuffered(impl.ChunkLayer):
        def has_buffer(self):
            return False

    dm = RecordingDataManager()
    layer = NeverBuffered(dm)
    layer.set_buffer(make_dataset(3))
    assert layer.get_buffer() is None
    assert dm.calls == []


# ----------------------------------------------------------------------------------------------------
# set_buffer


def test_set_buffer_with_list_of_arrays(impl) -> None:
    ind, X, y = np.arange(3), np.ones((3, 2)), np.zeros(3)
    layer = make_layer(impl)
    assert layer.set_buffer([ind, X, y, None, None, None]) is None
    assert isinstance(layer.buffer, Dataset)
    assert layer.buffer.ind is ind and layer.buffer.X is X and layer.buffer.y is y
    assert layer.buffer.sample_weight is None and layer.buffer.props is None and layer.buffer.orig is None


def test_set_buffer_with_shorter_list_uses_record_defaults(impl) -> None:
    ind, X = np.arange(2), np.ones((2, 2))
    layer = make_layer(impl)
    layer.set_buffer([ind, X])
    assert type(layer.buffer) is Dataset
    assert layer.buffer.ind is ind and layer.buffer.X is X and layer.buffer.y is None


def test_set_buffer_with_tuple_and_generator(impl) -> None:
    ind, X, y = np.arange(2), np.ones((2, 1)), np.zeros(2)
    layer = make_layer(impl)
    layer.set_buffer((ind, X, y))
    assert layer.buffer.ind is ind and layer.buffer.y is y
    layer.set_buffer(a for a in (ind, X))
    assert type(layer.buffer) is Dataset and layer.buffer.X is X and layer.buffer.y is None


def test_set_buffer_with_record_makes_new_record_of_same_arrays(impl) -> None:
    dset = make_dataset(3, props=True)
    layer = make_layer(impl)
    layer.set_buffer(dset)
    assert layer.buffer is not dset
    assert type(layer.buffer) is Dataset
    for got, given in zip(layer.buffer, dset):
        assert got is given


def test_set_buffer_none_and_no_argument_clear(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    assert layer.set_buffer(None) is None
    assert layer.buffer is None
    layer.set_buffer(make_dataset(2))
    layer.set_buffer()
    assert layer.buffer is None


def test_set_buffer_does_not_notify_parent(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer.set_buffer(make_dataset(2))
    layer.set_buffer(None)
    assert parent.calls == 0


def test_set_buffer_calls_dataset_with_positional_items(impl, monkeypatch) -> None:
    made = Sentinel("record")
    fake = RecordingCall(result=made)
    monkeypatch.setattr(impl, "Dataset", fake)
    a, b, c = object(), object(), object()
    layer = make_layer(impl)
    layer.set_buffer([a, b, c])
    assert layer.buffer is made
    (args, kwargs), = fake.calls
    assert kwargs == {}
    assert len(args) == 3 and args[0] is a and args[1] is b and args[2] is c


def test_set_buffer_refused_values_leave_buffer(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    buffer = layer.buffer
    with pytest.raises(TypeError):
        layer.set_buffer([np.arange(1)] * 7)
    assert layer.buffer is buffer


# ----------------------------------------------------------------------------------------------------
# _add_to_buffer


def test_add_to_empty_layer_stores_a_record_of_the_incoming_fields(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    dset = make_dataset(3)
    assert layer._add_to_buffer(dset) is None
    assert type(layer.buffer) is Dataset
    for got, given in zip(layer.buffer, dset):
        assert got is given
    assert parent.calls == 1


def test_add_three_then_two_rows(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    first, second = make_dataset(3), make_dataset(2, start=10)
    layer._add_to_buffer(first)
    layer._add_to_buffer(second)
    assert type(layer.buffer) is Dataset
    assert rows_of(layer.buffer) == [0, 1, 2, 10, 11]
    np.testing.assert_array_equal(layer.buffer.X, np.concatenate([first.X, second.X]))
    np.testing.assert_array_equal(layer.buffer.y, [0.0, 10.0, 20.0, 100.0, 110.0])
    assert layer.buffer.props is None
    assert layer.get_buffer_size() == 5
    assert parent.calls == 2


def test_add_concatenates_every_present_field(impl) -> None:
    layer = make_layer(impl)
    first, second = make_dataset(2, props=True, orig=True), make_dataset(3, start=5, props=True, orig=True)
    layer._add_to_buffer(first)
    layer._add_to_buffer(second)
    for got, a, b in zip(layer.buffer, first, second):
        if a is None:
            assert got is None
        else:
            np.testing.assert_array_equal(got, np.concatenate([a, b]))


def test_add_calls_concatenate_with_one_pair_and_no_axis(impl, monkeypatch) -> None:
    layer = make_layer(impl)
    layer._add_to_buffer(make_dataset(2, props=True))
    buffer = layer.buffer
    proxy = NumpyProxy()
    monkeypatch.setattr(impl, "np", proxy)
    incoming = make_dataset(1, start=7, y=False, props=True)
    layer._add_to_buffer(incoming)
    expected_pairs = [(buffer.ind, incoming.ind), (buffer.X, incoming.X), (buffer.props, incoming.props)]
    assert len(proxy.concatenate_calls) == 3
    for (args, kwargs), (old, new) in zip(proxy.concatenate_calls, expected_pairs):
        assert kwargs == {}
        assert len(args) == 1
        assert isinstance(args[0], tuple) and len(args[0]) == 2
        assert args[0][0] is old and args[0][1] is new


def test_add_with_none_incoming_field_keeps_buffered_field(impl) -> None:
    layer = make_layer(impl)
    layer._add_to_buffer(make_dataset(3))
    y = layer.buffer.y
    layer._add_to_buffer(make_dataset(2, start=3, y=False))
    assert layer.buffer.y is y
    assert layer.buffer.X.shape[0] == 5
    assert len(layer.buffer.y) == 3


def test_add_pair_walk_stops_at_shorter_incoming(impl) -> None:
    layer = make_layer(impl)
    layer._add_to_buffer(make_dataset(2, props=True))
    incoming = make_dataset(1, start=9)
    layer._add_to_buffer((incoming.ind, incoming.X))
    assert type(layer.buffer) is Dataset
    assert rows_of(layer.buffer) == [0, 1, 9]
    assert layer.buffer.X.shape[0] == 3
    assert layer.buffer.y is None
    assert layer.buffer.props is None


def test_add_longer_incoming_stops_at_buffer_length(impl) -> None:
    layer = make_layer(impl)
    layer._add_to_buffer(make_dataset(2))
    incoming = list(make_dataset(1, start=4)) + [np.array([1.0])]
    layer._add_to_buffer(incoming)
    assert type(layer.buffer) is Dataset
    assert rows_of(layer.buffer) == [0, 1, 4]


def test_add_too_few_fields_fails_in_record_leaving_tuple(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer._add_to_buffer(make_dataset(2))
    only_ind = np.array([5])
    with pytest.raises(TypeError):
        layer._add_to_buffer([only_ind])
    assert type(layer.buffer) is tuple
    assert len(layer.buffer) == 1
    np.testing.assert_array_equal(layer.buffer[0], [0, 1, 5])
    assert parent.calls == 1


def test_add_to_zero_row_buffer_replaces_it(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer.set_buffer(make_dataset(0, props=True))
    incoming = make_dataset(2, start=3)
    layer._add_to_buffer(incoming)
    assert type(layer.buffer) is Dataset
    for got, given in zip(layer.buffer, incoming):
        assert got is given
    assert layer.buffer.props is None
    assert parent.calls == 1


def test_add_accepts_any_iterable_of_fields(impl) -> None:
    layer = make_layer(impl)
    dset = make_dataset(2)
    layer._add_to_buffer(iter(list(dset)))
    assert type(layer.buffer) is Dataset and rows_of(layer.buffer) == [0, 1]
    more = make_dataset(1, start=2)
    layer._add_to_buffer(a for a in more)
    assert rows_of(layer.buffer) == [0, 1, 2]


def test_add_notifies_parent_after_record_is_stored(impl) -> None:
    seen = []

    class Parent:
        def update_build_params(self, *args, **kwargs):
            seen.append((args, kwargs, layer.buffer))
            return "ignored"

    layer = make_layer(impl, parent=Parent())
    layer._add_to_buffer(make_dataset(2))
    layer._add_to_buffer(make_dataset(1, start=2))
    assert [(a, k) for a, k, _ in seen] == [((), {}), ((), {})]
    assert type(seen[0][2]) is Dataset and rows_of(seen[0][2]) == [0, 1]
    assert type(seen[1][2]) is Dataset and rows_of(seen[1][2]) == [0, 1, 2]


def test_add_returns_none_even_if_parent_returns_something(impl) -> None:
    class Parent:
        def update_build_params(self):
            return 123

    assert make_layer(impl, parent=Parent())._add_to_buffer(make_dataset(1)) is None


def test_add_without_parent_keeps_extended_buffer(impl) -> None:
    layer = impl.ChunkLayer(RecordingDataManager())
    with pytest.raises(AttributeError, match="update_build_params"):
        layer._add_to_buffer(make_dataset(2))
    assert type(layer.buffer) is Dataset and rows_of(layer.buffer) == [0, 1]
    with pytest.raises(AttributeError, match="update_build_params"):
        layer._add_to_buffer(make_dataset(3, start=2))
    assert type(layer.buffer) is Dataset and rows_of(layer.buffer) == [0, 1, 2, 3, 4]


def test_add_propagates_parent_error_unchanged(impl) -> None:
    error = KeyError("tree")

    class Parent:
        def update_build_params(self):
            raise error

    layer = make_layer(impl, parent=Parent())
    with pytest.raises(KeyError) as info:
        layer._add_to_buffer(make_dataset(2))
    assert info.value is error
    assert rows_of(layer.buffer) == [0, 1]


def test_add_non_none_to_none_buffered_field_fails_and_keeps_buffer(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer._add_to_buffer(make_dataset(2, y=False))
    buffer = layer.buffer
    incoming = make_dataset(1, start=2)
    expected = numpy_error(lambda: np.concatenate((None, incoming.y)))
    with pytest.raises(type(expected)) as info:
        layer._add_to_buffer(incoming)
    assert str(info.value) == str(expected)
    assert layer.buffer is buffer
    assert rows_of(layer.buffer) == [0, 1]
    assert parent.calls == 1


def test_add_mismatched_columns_fails_and_keeps_buffer(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer._add_to_buffer(make_dataset(2, features=3))
    buffer = layer.buffer
    incoming = make_dataset(1, start=2, features=4)
    expected = numpy_error(lambda: np.concatenate((buffer.X, incoming.X)))
    with pytest.raises(type(expected)) as info:
        layer._add_to_buffer(incoming)
    assert str(info.value) == str(expected)
    assert layer.buffer is buffer
    assert parent.calls == 1


class RefusingDataset:
    """Stands in for `Dataset`: refuses every set of values."""

    def __init__(self) -> None:
        self.calls: List[Any] = []

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        raise TypeError("refused")


def test_refused_record_leaves_plain_tuple_on_empty_layer(impl, monkeypatch) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    incoming = make_dataset(2, props=True)
    refusing = RefusingDataset()
    monkeypatch.setattr(impl, "Dataset", refusing)
    with pytest.raises(TypeError, match="refused"):
        layer._add_to_buffer(incoming)
    assert type(layer.buffer) is tuple
    assert len(layer.buffer) == len(incoming)
    for got, given in zip(layer.buffer, incoming):
        assert got is given
    assert refusing.calls == [(tuple(incoming), {})]
    assert parent.calls == 0


def test_refused_record_leaves_plain_tuple_of_concatenated_fields(impl, monkeypatch) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer._add_to_buffer(make_dataset(2))
    old_y = layer.buffer.y
    monkeypatch.setattr(impl, "Dataset", RefusingDataset())
    with pytest.raises(TypeError, match="refused"):
        layer._add_to_buffer(make_dataset(1, start=2, y=False))
    assert type(layer.buffer) is tuple
    assert len(layer.buffer) == 6
    np.testing.assert_array_equal(layer.buffer[0], [0, 1, 2])
    assert layer.buffer[1].shape == (3, 3)
    assert layer.buffer[2] is old_y
    assert parent.calls == 1


def test_real_record_refusing_too_many_fields_leaves_tuple(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    values = list(make_dataset(1)) + [np.array([1])]
    with pytest.raises(TypeError):
        layer._add_to_buffer(values)
    assert type(layer.buffer) is tuple and len(layer.buffer) == 7
    assert parent.calls == 0


def test_add_uses_overridden_has_buffer(impl) -> None:
    class NeverBuffered(impl.ChunkLayer):
        def has_buffer(self):
            return False

    layer = NeverBuffered(RecordingDataManager(), parent=RecordingParent())
    layer._add_to_buffer(make_dataset(2))
    incoming = make_dataset(1, start=8)
    layer._add_to_buffer(incoming)
    assert rows_of(layer.buffer) == [8]
    assert layer.buffer.X is incoming.X


# ----------------------------------------------------------------------------------------------------
# remove_from_buffer


def test_remove_without_buffer_does_nothing(impl, monkeypatch) -> None:
    fake = RecordingCall(result=(None, None))
    monkeypatch.setattr(impl, "exclude_removed", fake)
    layer = make_layer(impl)
    assert layer.remove_from_buffer([1]) is None
    assert layer.buffer is None
    zero = make_dataset(0)
    layer.buffer = zero
    assert layer.remove_from_buffer([1]) is None
    assert layer.buffer is zero
    assert fake.calls == []


def test_remove_empty_list_makes_new_record_with_same_rows(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer.set_buffer(make_dataset(3, props=True))
    buffer = layer.buffer
    assert layer.remove_from_buffer([]) is None
    assert layer.buffer is not buffer
    assert type(layer.buffer) is Dataset
    for got, old in zip(layer.buffer, buffer):
        assert got is old
    assert parent.calls == 0


def test_remove_drops_given_indices(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(5, props=True, orig=True))
    buffer = layer.buffer
    layer.remove_from_buffer(np.array([0, 3, 42]))
    assert rows_of(layer.buffer) == [1, 2, 4]
    keep = [1, 2, 4]
    assert_same_fields(layer.buffer, [None if f is None else f[keep] for f in buffer])
    assert layer.get_buffer_size() == 3


def test_remove_every_index_empties_buffer(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    layer.remove_from_buffer([0, 1])
    assert layer.buffer.X.shape[0] == 0
    assert layer.has_buffer() is False
    assert layer.get_buffer_size() == 0


def test_remove_passes_indices_and_buffer_then_sets_filtered(impl, monkeypatch) -> None:
    log: List[Any] = []
    filtered = Sentinel("filtered")
    fake = RecordingCall(result=(Sentinel("ind"), filtered), log=log, name="exclude_removed")
    monkeypatch.setattr(impl, "exclude_removed", fake)

    class Watched(impl.ChunkLayer):
        def set_buffer(self, buffer=None):
            log.append(("set_buffer", buffer))
            return "ignored"

    layer = Watched(RecordingDataManager())
    layer.buffer = make_dataset(3)
    buffer = layer.buffer
    indices = [2]
    assert layer.remove_from_buffer(indices) is None
    (args, kwargs), = fake.calls
    assert kwargs == {}
    assert args[0] is indices and args[1] is buffer.ind and args[2] is buffer and len(args) == 3
    assert log == ["exclude_removed", ("set_buffer", filtered)]


def test_remove_does_not_consult_data_manager(impl) -> None:
    dm = RecordingDataManager(removed=np.array([0]))
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(2))
    layer.remove_from_buffer([1])
    assert rows_of(layer.buffer) == [0]
    assert dm.calls == []


@pytest.mark.parametrize(("result", "message"), [
    ((1, 2, 3), "too many values to unpack (expected 2)"),
    ((1,), unpacking_message((1,), 2)),
    (lambda: iter([1]), unpacking_message(iter([1]), 2)),
])
def test_remove_unpacking_errors_keep_buffer(impl, monkeypatch, result, message) -> None:
    # An iterator is made afresh for each implementation.
    result = result() if callable(result) else result
    monkeypatch.setattr(impl, "exclude_removed", RecordingCall(result=result))
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3))
    buffer = layer.buffer
    with pytest.raises(ValueError) as info:
        layer.remove_from_buffer([1])
    assert str(info.value) == message
    assert layer.buffer is buffer


def test_remove_propagates_exclude_removed_error(impl, monkeypatch) -> None:
    error = ArithmeticError("no")
    monkeypatch.setattr(impl, "exclude_removed", RecordingCall(error=error))
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(1))
    with pytest.raises(ArithmeticError) as info:
        layer.remove_from_buffer([0])
    assert info.value is error


# ----------------------------------------------------------------------------------------------------
# get_buffer_size


def test_buffer_size_none_zero_one(impl) -> None:
    layer = make_layer(impl)
    assert layer.get_buffer_size() == 0 and type(layer.get_buffer_size()) is int
    layer.set_buffer(make_dataset(0))
    assert layer.get_buffer_size() == 0
    layer.set_buffer(make_dataset(1))
    assert layer.get_buffer_size() == 1


def test_buffer_size_ignores_removals(impl) -> None:
    dm = RecordingDataManager(removed=np.array([0, 1, 2]))
    layer = make_layer(impl, dm)
    layer.set_buffer(make_dataset(4))
    assert layer.get_buffer_size() == 4
    assert dm.calls == []
    assert rows_of(layer.get_buffer()) == [3]
    assert layer.get_buffer_size() == 4


def test_buffer_size_is_the_row_count_object(impl) -> None:
    rows = np.int64(6)
    layer = make_layer(impl)
    layer.buffer = (None, Shaped(rows))
    size = layer.get_buffer_size()
    assert size == 6 and type(size) is np.int64


def test_buffer_size_uses_overridden_has_buffer(impl) -> None:
    class NeverBuffered(impl.ChunkLayer):
        def has_buffer(self):
            return False

    layer = NeverBuffered(RecordingDataManager())
    layer.set_buffer(make_dataset(3))
    assert layer.get_buffer_size() == 0


# ----------------------------------------------------------------------------------------------------
# update_buffer


def test_update_without_buffer_does_nothing(impl, monkeypatch) -> None:
    fake = RecordingCall(result=((), (None, None, None)))
    monkeypatch.setattr(impl, "align_arrays_by_key", fake)
    layer = make_layer(impl)
    assert layer.update_buffer([1], np.ones((1, 3)), np.ones(1)) is None
    assert layer.buffer is None
    zero = make_dataset(0)
    layer.buffer = zero
    assert layer.update_buffer([1], None, np.ones(1)) is None
    assert layer.buffer is zero
    assert fake.calls == []


def test_update_y_only_changes_selected_rows(impl) -> None:
    parent = RecordingParent()
    layer = make_layer(impl, parent=parent)
    layer.set_buffer(make_dataset(5))
    buffer = layer.buffer
    X, X_before, y = buffer.X, buffer.X.copy(), buffer.y
    assert layer.update_buffer(np.array([3, 1]), y=np.array([-3.0, -1.0])) is None
    assert layer.buffer is buffer
    assert layer.buffer.y is y
    np.testing.assert_array_equal(layer.buffer.y, [0.0, -1.0, 20.0, -3.0, 40.0])
    assert layer.buffer.X is X
    np.testing.assert_array_equal(layer.buffer.X, X_before)
    assert parent.calls == 0


def test_update_x_and_y_with_real_alignment(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(4, features=2))
    buffer = layer.buffer
    new_X = np.array([[-2.0, -2.0], [-9.0, -9.0], [-0.5, -0.5]])
    layer.update_buffer(np.array([2, 9, 0]), new_X, np.array([-20.0, -90.0, -5.0]))
    np.testing.assert_array_equal(buffer.X, [[-0.5, -0.5], [1, 1], [-2, -2], [3, 3]])
    np.testing.assert_array_equal(buffer.y, [-5.0, 10.0, -20.0, 30.0])
    assert rows_of(layer.buffer) == [0, 1, 2, 3]


def test_update_calls_alignment_and_writes_y_before_x(impl, monkeypatch) -> None:
    log: List[Any] = []
    ind = np.array([4, 7, 9, 11])
    X = logging_array(np.zeros((4, 2)), "X", log)
    y = logging_array(np.zeros(4), "y", log)
    layer = make_layer(impl)
    layer.set_buffer([ind, X, y])
    buffer = layer.buffer
    aligned_ind = np.array([9, 4])
    aligned_X = np.array([[9.0, 9.0], [4.0, 4.0]])
    aligned_y = np.array([90.0, 40.0])
    fake = RecordingCall(result=(Sentinel("keys"), (aligned_ind, aligned_X, aligned_y)), log=log,
                         name="align")
    monkeypatch.setattr(impl, "align_arrays_by_key", fake)
    given = (np.array([4, 9, 100]), np.ones((3, 2)), np.ones(3))
    assert layer.update_buffer(*given) is None
    (args, kwargs), = fake.calls
    assert kwargs == {}
    assert len(args) == 2
    keys, arrays = args
    assert type(keys) is tuple and len(keys) == 1 and keys[0] is ind
    assert type(arrays) is tuple and len(arrays) == 3
    assert all(got is want for got, want in zip(arrays, given))
    assert [entry if isinstance(entry, str) else entry[0] for entry in log] == ["align", "y", "X"]
    mask = np.array([True, False, True, False])
    for _, key, _value in log[1:]:
        np.testing.assert_array_equal(key, mask)
    np.testing.assert_array_equal(log[1][2], aligned_y)
    np.testing.assert_array_equal(log[2][2], aligned_X)
    assert layer.buffer is buffer
    np.testing.assert_array_equal(y, [90.0, 0.0, 40.0, 0.0])


def test_update_mask_follows_aligned_indices(impl, monkeypatch) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(4))
    monkeypatch.setattr(impl, "align_arrays_by_key",
                        RecordingCall(result=((), (np.array([2]), None, np.array([-1.0])))))
    layer.update_buffer(np.array([0, 1]), None, np.array([5.0, 6.0]))
    np.testing.assert_array_equal(layer.buffer.y, [0.0, 10.0, -1.0, 30.0])


def test_update_skips_none_values_after_alignment(impl, monkeypatch) -> None:
    log: List[Any] = []
    layer = make_layer(impl)
    layer.set_buffer([np.arange(3), logging_array(np.zeros((3, 1)), "X", log),
                      logging_array(np.zeros(3), "y", log)])
    monkeypatch.setattr(impl, "align_arrays_by_key",
                        RecordingCall(result=((), (np.array([1]), None, None))))
    layer.update_buffer(np.array([1]), np.ones((1, 1)), np.ones(1))
    assert log == []


@pytest.mark.parametrize(("result", "message"), [
    ((1, (np.arange(1), None, None), 3), "too many values to unpack (expected 2)"),
    (((np.arange(1), None, None),), unpacking_message((1,), 2)),
    ((1, (np.arange(1), None, None, None)), "too many values to unpack (expected 3)"),
    ((1, (np.arange(1), None)), unpacking_message((1, 2), 3)),
    ((1, (np.arange(1),)), unpacking_message((1,), 3)),
    ((1, 7), unpacking_message(7, 3)),
])
def test_update_unpacking_errors(impl, monkeypatch, result, message) -> None:
    monkeypatch.setattr(impl, "align_arrays_by_key", RecordingCall(result=result))
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    y_before = layer.buffer.y.copy()
    with pytest.raises((TypeError, ValueError)) as info:
        layer.update_buffer(np.array([0]), None, np.array([9.0]))
    assert str(info.value) == message
    np.testing.assert_array_equal(layer.buffer.y, y_before)


def test_update_wrong_row_count_of_y_fails_before_x(impl, monkeypatch) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3, features=1))
    X_before = layer.buffer.X.copy()
    monkeypatch.setattr(impl, "align_arrays_by_key", RecordingCall(
        result=((), (np.array([0, 1]), np.array([[7.0], [8.0]]), np.array([1.0, 2.0, 3.0])))))
    with pytest.raises(ValueError):
        layer.update_buffer(np.array([0, 1]), np.zeros((2, 1)), np.zeros(2))
    np.testing.assert_array_equal(layer.buffer.X, X_before)


def test_update_wrong_row_count_of_x_after_y_written(impl, monkeypatch) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3, features=1))
    monkeypatch.setattr(impl, "align_arrays_by_key", RecordingCall(
        result=((), (np.array([0, 1]), np.ones((3, 1)), np.array([-1.0, -2.0])))))
    with pytest.raises(ValueError):
        layer.update_buffer(np.array([0, 1]), np.zeros((2, 1)), np.zeros(2))
    np.testing.assert_array_equal(layer.buffer.y, [-1.0, -2.0, 20.0])


def test_update_propagates_alignment_error(impl, monkeypatch) -> None:
    error = LookupError("alignment")
    monkeypatch.setattr(impl, "align_arrays_by_key", RecordingCall(error=error))
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    with pytest.raises(LookupError) as info:
        layer.update_buffer(np.array([0]), None, np.array([1.0]))
    assert info.value is error


def test_update_with_real_alignment_ignores_unknown_indices(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3, features=1))
    layer.update_buffer(np.array([50, 1]), np.array([[-50.0], [-1.0]]), None)
    np.testing.assert_array_equal(layer.buffer.X, [[0.0], [-1.0], [2.0]])
    np.testing.assert_array_equal(layer.buffer.y, [0.0, 10.0, 20.0])


def test_update_uses_the_module_alignment_helper(impl, monkeypatch) -> None:
    calls = []

    def recording(keys, arrays):
        calls.append((keys, arrays))
        return real_align_arrays_by_key(keys, arrays)

    monkeypatch.setattr(impl, "align_arrays_by_key", recording)
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(2))
    layer.update_buffer(np.array([1]), None, np.array([-1.0]))
    assert len(calls) == 1
    np.testing.assert_array_equal(layer.buffer.y, [0.0, -1.0])


def test_update_uses_overridden_has_buffer(impl, monkeypatch) -> None:
    class NeverBuffered(impl.ChunkLayer):
        def has_buffer(self):
            return False

    fake = RecordingCall(result=((), (None, None, None)))
    monkeypatch.setattr(impl, "align_arrays_by_key", fake)
    layer = NeverBuffered(RecordingDataManager())
    layer.set_buffer(make_dataset(2))
    layer.update_buffer(np.array([0]), None, np.array([5.0]))
    assert fake.calls == []
    np.testing.assert_array_equal(layer.buffer.y, [0.0, 10.0])


# ----------------------------------------------------------------------------------------------------
# the row count of X, whatever kind of array X is


class ReportedShape(np.ndarray):
    """An ndarray subclass that reports a shape of its own."""

    @property
    def shape(self):
        return (7, 1)


def test_the_row_count_of_a_plain_array_is_a_plain_int(impl) -> None:
    layer = make_layer(impl)
    layer.buffer = (None, np.zeros((5, 2)))
    size = layer.get_buffer_size()
    assert type(size) is int and size == 5
    assert layer.has_buffer() is True
    layer.buffer = (None, np.zeros((0, 2)))
    assert layer.has_buffer() is False and layer.get_buffer_size() == 0


def test_an_array_subclass_is_asked_for_its_shape(impl) -> None:
    layer = make_layer(impl)
    layer.buffer = (None, np.zeros((2, 1)).view(ReportedShape))
    assert layer.has_buffer() is True
    assert layer.get_buffer_size() == 7


def test_a_zero_dimensional_x_fails_as_its_empty_shape_does(impl) -> None:
    layer = make_layer(impl)
    layer.buffer = (None, np.float64(1.0) * np.ones(()))
    with pytest.raises(IndexError, match="tuple index out of range"):
        layer.has_buffer()
    layer.buffer = (None, np.array(3.0))
    with pytest.raises(IndexError, match="tuple index out of range"):
        layer.get_buffer_size()


@pytest.mark.parametrize(
    ("chunk_size", "sizes", "left"),
    [(2**70, [], 5), (np.int64(2), [2, 2], 1), (2, [2, 2], 1), (5, [5], 0), (6, [], 5)],
)
def test_the_rows_are_compared_with_any_chunk_size(impl, monkeypatch, chunk_size, sizes, left) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=1)
    layer.set_buffer(list(make_dataset(5)))
    layer.chunk_size = chunk_size
    assert [len(node.dset.ind) for node in layer._get_from_buffer()] == sizes
    assert layer.get_buffer_size() == left
