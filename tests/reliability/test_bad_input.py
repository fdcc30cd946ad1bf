"""Bad input to every public callable of the chunk layer module.

Wrong arity, unknown and doubled keywords, wrong types and None in each argument must raise an ordinary
Python exception, never crash the interpreter, and leave the layer's ``buffer``, ``chunk_index`` and
``build_params`` as documented: unchanged, except where a partial effect is documented to stay.
Generators report argument-count errors at the call, and everything else at the first ``next()``.
"""

from __future__ import annotations

import collections.abc
import dataclasses
import gc
import re
import sys
import warnings
from decimal import Decimal
from fractions import Fraction
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Tuple

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

import reference
from chunk_support import RecordingDataManager, RecordingParent, make_dataset, rows_of
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# About the compiled module's survival of bad input (no crash, no corrupted state): run against it alone.
pytestmark = pytest.mark.compiled_only

RealNode = chunk_layer.ChunkNode  # the module's own class, also while a test patches in a stand-in
FUZZ = settings(max_examples=120, deadline=None, suppress_health_check=[HealthCheck.too_slow])


# --------------------------------------------------------------------------------------------- helpers


# The three-argument throw() is deprecated from 3.12 on; these tests use it on purpose.
THREE_ARGUMENT_THROW = pytest.mark.filterwarnings(
    r"ignore:the \(type, exc, tb\) signature of throw\(\):DeprecationWarning"
)


class LightNode:
    """A stand-in for `ChunkNode` that keeps no global record (so it never holds arguments alive)."""

    def __init__(self, dset=None, params=None, node_id=None, data_manager=None) -> None:
        self.dset = dset
        self.params = params
        self.node_id = node_id
        self.data_manager = data_manager
        self.built = 0

    def build(self) -> LightNode:
        self.built += 1
        return self


@pytest.fixture
def light(monkeypatch) -> type:
    monkeypatch.setattr(chunk_layer, "ChunkNode", LightNode)
    return LightNode


class BoomError(Exception):
    """Raised by the odd objects below."""


class RaisingBool:
    def __bool__(self) -> bool:
        raise BoomError("bool")


class RaisingEq:
    __hash__ = object.__hash__

    def __eq__(self, other: object) -> bool:
        raise BoomError("eq")

    def __bool__(self) -> bool:
        return True


class RaisingLen:
    def __len__(self) -> int:
        raise BoomError("len")


class NegativeLen:
    def __len__(self) -> int:
        return -1


class RaisingIter:
    def __iter__(self):
        raise BoomError("iter")


class BreakingIter:
    """Iterates two items, then raises."""

    def __iter__(self):
        yield np.arange(2)
        yield np.ones((2, 2))
        raise BoomError("mid-iteration")


class FakeShape:
    """Looks a little like an array: has `shape`, `size` and `itemsize`, but none of them is sane."""

    shape = "xy"
    size = "s"
    itemsize = 3

    def __len__(self) -> int:
        return 2

    def __getitem__(self, key: Any) -> Any:
        raise BoomError("getitem")


class ListSubclass(list):
    pass


def layer_with_buffer(rows: int = 4, chunk_size: Optional[int] = 3, **dm_kwargs: Any) -> Any:
    layer = chunk_layer.ChunkLayer(RecordingDataManager(**dm_kwargs), None, chunk_size, RecordingParent())
    if rows:
        layer.set_buffer(make_dataset(rows))
    return layer


def snapshot(layer: Any) -> Tuple[Any, Any, Any, Any, List[int]]:
    buffer = layer.buffer
    copies = (
        None
        if buffer is None or not isinstance(buffer, Dataset)
        else [None if a is None else np.array(a, copy=True) for a in buffer]
    )
    return (
        buffer,
        layer.chunk_index,
        layer.build_params,
        copies,
        rows_of(buffer) if isinstance(buffer, Dataset) else [],
    )


def assert_unchanged(layer: Any, snap: Tuple[Any, Any, Any, Any, List[int]]) -> None:
    buffer, index, params, copies, _ = snap
    assert layer.buffer is buffer
    assert layer.chunk_index == index
    assert layer.build_params is params
    if copies is not None:
        for now, then in zip(layer.buffer, copies):
            assert (now is None) == (then is None)
            if now is not None:
                np.testing.assert_array_equal(now, then)


def not_a_crash(exc: BaseException) -> None:
    """An error from odd input is an ordinary exception, not an internal error of the extension."""
    assert isinstance(exc, Exception), repr(exc)
    assert not isinstance(exc, SystemError), repr(exc)
    assert "NULL" not in str(exc) and "internal" not in str(exc).lower(), repr(exc)


# ----------------------------------------------------------------------------- arity and keywords


def _node() -> Any:
    return RealNode(make_dataset(2), [])


def _layer() -> Any:
    return layer_with_buffer(4)


MODULE_FUNCTIONS: Dict[str, Callable[[], Tuple[Any, Any, bool]]] = {
    # name: factory -> (callable, object whose state must not change, counts self)
    "exclude_removed": lambda: (chunk_layer.exclude_removed, None, False),
    "ChunkNode": lambda: (RealNode, None, True),
    "ChunkLayer": lambda: (chunk_layer.ChunkLayer, None, True),
}
for _name in ["is_buffer", "_instantiate_coreset", "build", "save", "add_indices"]:
    MODULE_FUNCTIONS[f"ChunkNode.{_name}"] = (lambda n: lambda: (getattr((o := _node()), n), o, True))(_name)
for _name in [
    "has_buffer",
    "get_buffer",
    "set_buffer",
    "_add_to_buffer",
    "remove_from_buffer",
    "_rebuild_node",
    "_create_node",
    "_print_progress",
    "get_buffer_size",
    "create_buffer_node",
    "_get_from_buffer",
    "process",
    "update_buffer",
    "rebuild",
    "filter_out_samples",
]:
    MODULE_FUNCTIONS[f"ChunkLayer.{_name}"] = (lambda n: lambda: (getattr((o := _layer()), n), o, True))(
        _name
    )

RECORDS = {
    "ChunkSensitivitiesParams": lambda: chunk_layer.ChunkSensitivitiesParams,
    "ChunkSensitivities": lambda: chunk_layer.ChunkSensitivities,
}


class Param(NamedTuple):
    name: str
    required: bool


def _params(func: Any) -> List[Param]:
    """The parameters of a function, bound method or class (its `__init__`), without `self`."""
    if isinstance(func, type):
        func = func.__init__
    bound = hasattr(func, "__self__") or getattr(func, "__name__", "") == "__init__"
    code = getattr(func, "__func__", func).__code__
    names = list(code.co_varnames[: code.co_argcount])
    defaults = len(getattr(func, "__defaults__", None) or ())
    params = [Param(n, k < len(names) - defaults) for k, n in enumerate(names)]
    return params[1:] if bound else params


WITH_REQUIRED = sorted(n for n, f in MODULE_FUNCTIONS.items() if any(p.required for p in _params(f()[0])))
WITH_PARAMS = sorted(n for n, f in MODULE_FUNCTIONS.items() if _params(f()[0]))


def _state(owner: Any) -> Any:
    if owner is None:
        return None
    if isinstance(owner, chunk_layer.ChunkLayer):
        return snapshot(owner)
    return dict(vars(owner))


def _check_state(owner: Any, state: Any) -> None:
    if owner is None:
        return
    if isinstance(owner, chunk_layer.ChunkLayer):
        assert_unchanged(owner, state)
    else:
        now = vars(owner)
        assert now.keys() == state.keys()
        assert all(now[k] is state[k] for k in state)


def _short(name: str) -> str:
    return "__init__" if name in ("ChunkNode", "ChunkLayer") else name.split(".")[-1]


def _count_message(name: str, word: str, count: int, given: int) -> str:
    s = "" if count == 1 else "s"
    return re.escape(f"{_short(name)}() takes {word} {count} positional argument{s} ({given} given)")


@pytest.mark.parametrize("name", sorted(MODULE_FUNCTIONS))
def test_too_many_positional_arguments(name, light):
    func, owner, with_self = MODULE_FUNCTIONS[name]()
    params = _params(func)
    required = sum(p.required for p in params)
    extra = int(with_self)
    state = _state(owner)
    word = "exactly" if required == len(params) else "at most"
    with pytest.raises(
        TypeError, match=_count_message(name, word, len(params) + extra, len(params) + 1 + extra)
    ):
        func(*([object()] * (len(params) + 1)))
    _check_state(owner, state)


@pytest.mark.parametrize("name", WITH_REQUIRED)
def test_too_few_positional_arguments(name, light):
    func, owner, with_self = MODULE_FUNCTIONS[name]()
    params = _params(func)
    required = sum(p.required for p in params)
    extra = int(with_self)
    state = _state(owner)
    word = "exactly" if required == len(params) else "at least"
    with pytest.raises(TypeError, match=_count_message(name, word, required + extra, required - 1 + extra)):
        func(*([object()] * (required - 1)))
    _check_state(owner, state)


@pytest.mark.parametrize("name", sorted(MODULE_FUNCTIONS))
def test_unknown_keyword(name, light):
    func, owner, _ = MODULE_FUNCTIONS[name]()
    required = sum(p.required for p in _params(func))
    state = _state(owner)
    with pytest.raises(
        TypeError, match=re.escape(f"{_short(name)}() got an unexpected keyword argument 'bogus'")
    ):
        func(*([object()] * required), bogus=1)
    with pytest.raises(TypeError):
        func(*([object()] * required), **{"": 1})
    with pytest.raises(TypeError):
        func(*([object()] * required), **{1: 2})
    _check_state(owner, state)


@pytest.mark.parametrize("name", WITH_PARAMS)
def test_doubled_keyword(name, light):
    func, owner, _ = MODULE_FUNCTIONS[name]()
    params = _params(func)
    required = max(1, sum(p.required for p in params))
    state = _state(owner)
    first = params[0].name
    with pytest.raises(
        TypeError, match=rf"{_short(name)}\(\) got multiple values for argument '{first}'"
    ):
        func(*([object()] * required), **{first: object()})
    _check_state(owner, state)


@pytest.mark.parametrize("name", sorted(RECORDS))
def test_records_refuse_wrong_arity_and_keywords(name):
    record = RECORDS[name]()
    fields = [f.name for f in dataclasses.fields(record)]
    with pytest.raises(TypeError):
        record(*range(len(fields) + 1))
    with pytest.raises(TypeError, match="unexpected keyword argument 'bogus'"):
        record(bogus=1)
    with pytest.raises(TypeError, match=f"multiple values for argument '{fields[0]}'"):
        record(1, **{fields[0]: 2})
    with pytest.raises(TypeError):
        record(**{1: 2})


@pytest.mark.parametrize("name", sorted(RECORDS))
@pytest.mark.parametrize("value", [None, 0, "x", object(), RaisingBool(), np.arange(3), [1], {"a": 1}])
def test_records_store_any_value_unchecked_in_each_field(name, value):
    record = RECORDS[name]()
    for field in dataclasses.fields(record):
        made = record(**{field.name: value})
        assert getattr(made, field.name) is value
        with pytest.raises(TypeError, match="unhashable"):
            hash(made)


def test_record_equality_propagates_a_field_comparison_error():
    a = chunk_layer.ChunkSensitivities(coreset=RaisingEq())
    b = chunk_layer.ChunkSensitivities(coreset=RaisingEq())
    with pytest.raises(BoomError):
        _ = a == b
    assert (chunk_layer.ChunkSensitivitiesParams() == 5) is False


def test_generator_methods_check_arity_at_the_call_and_nothing_else():
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(TypeError):
        layer.process(None, True, False, None, "extra")
    with pytest.raises(TypeError):
        layer._get_from_buffer(None, "extra")
    with pytest.raises(TypeError):
        layer.rebuild()
    # No other argument is looked at before the first next().
    gen = layer.process(5, RaisingBool(), RaisingBool(), 5)
    gen2 = layer._get_from_buffer(RaisingBool())
    assert_unchanged(layer, snap)
    with pytest.raises(TypeError):
        next(gen)
    with pytest.raises(StopIteration):
        next(gen)
    gen2.close()
    assert_unchanged(layer, snap)


# ------------------------------------------------------------------------------------ exclude_removed


def _same(a: Any, b: Any) -> bool:
    """Structural equality in which NaN equals NaN (both sides ran the same numpy operations)."""
    if a is b:
        return True
    if isinstance(a, np.ndarray) or isinstance(b, np.ndarray):
        if not (isinstance(a, np.ndarray) and isinstance(b, np.ndarray)):
            return False
        if a.dtype != b.dtype or a.shape != b.shape:
            return False
        if a.dtype.kind == "O":
            return [repr(v) for v in a.ravel()] == [repr(v) for v in b.ravel()]
        return np.ascontiguousarray(a).tobytes() == np.ascontiguousarray(b).tobytes()
    if isinstance(a, tuple) and isinstance(b, tuple):
        return type(a) is type(b) and len(a) == len(b) and all(_same(x, y) for x, y in zip(a, b))
    return a is b or a == b


@pytest.mark.parametrize(
    "args, error",
    [
        ((object(), np.arange(3)), TypeError),
        ((5, np.arange(3)), TypeError),
        ((RaisingLen(), np.arange(3)), BoomError),
        ((NegativeLen(), np.arange(3)), ValueError),
        (([1], None), TypeError),
        (([1], [0, 1, 2]), TypeError),
        (([1], np.arange(4), object()), TypeError),
        (([1], np.arange(4), 5), TypeError),
        (([1], np.arange(4), RaisingIter()), BoomError),
        (([1], np.arange(4), make_dataset(3)), IndexError),
        (([1], np.arange(4), [np.arange(4)]), TypeError),
        (([1], np.arange(4), [np.arange(4)] * 7), TypeError),
    ],
)
def test_exclude_removed_refuses_wrong_types(args, error):
    with pytest.raises(error):
        chunk_layer.exclude_removed(*args)


def test_exclude_removed_with_none_everywhere_returns_the_indices():
    assert chunk_layer.exclude_removed(None, None) is None
    assert chunk_layer.exclude_removed(None, None, None) is None
    ds = make_dataset(3)
    result = chunk_layer.exclude_removed([], None, ds)
    assert result[0] is None and result[1] is ds


ODD_ATOMS = st.one_of(
    st.none(),
    st.booleans(),
    st.integers(-(2**70), 2**70),
    st.floats(allow_nan=True, allow_infinity=True),
    st.text(max_size=4),
    st.binary(max_size=4),
    st.sampled_from([complex, frozenset, bytearray, Decimal, Fraction, slice]).flatmap(st.from_type),
    st.builds(range, st.integers(-5, 5), st.integers(-5, 9)),  # small: numpy makes arrays of them
    st.builds(object),
    st.builds(RaisingBool),
    st.builds(RaisingEq),
    st.builds(RaisingLen),
    st.builds(NegativeLen),
    st.builds(RaisingIter),
    st.builds(BreakingIter),
    st.builds(FakeShape),
    st.sampled_from(
        [Ellipsis, NotImplemented, int, type, len, pd.DataFrame({"a": [1, 2]}), pd.Series([1.0])]
    ),
    hnp.arrays(
        dtype=st.sampled_from([np.int64, np.float64, np.bool_, np.complex128, "U2", "M8[s]"]),
        shape=hnp.array_shapes(min_dims=0, max_dims=3, min_side=0, max_side=4),
    ),
    hnp.arrays(
        dtype=object,
        shape=hnp.array_shapes(min_dims=0, max_dims=2, min_side=0, max_side=3),
        elements=st.one_of(st.none(), st.integers(-3, 3), st.text(max_size=2), st.floats()),
    ),
)
ODD = st.recursive(
    ODD_ATOMS,
    lambda inner: st.one_of(
        st.lists(inner, max_size=4),
        st.lists(inner, max_size=7).map(tuple),
        st.dictionaries(st.text(max_size=2), inner, max_size=2),
        st.lists(inner, min_size=2, max_size=6).map(lambda v: Dataset(*v)),
    ),
    max_leaves=6,
)


def _outcome(func: Callable[..., Any], *args: Any) -> Tuple[str, Any]:
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            return "ok", func(*args)
        except Exception as exc:  # noqa: BLE001 - the type is what is compared
            return "error", type(exc)


@FUZZ
@given(removed=ODD, indices=st.one_of(ODD, hnp.arrays(np.int64, st.integers(0, 6))), dataset=ODD)
def test_exclude_removed_behaves_like_the_reference_on_odd_input(removed, indices, dataset):
    real = _outcome(chunk_layer.exclude_removed, removed, indices, dataset)
    ref = _outcome(reference.exclude_removed, removed, indices, dataset)
    if real[0] == "error":
        assert not issubclass(real[1], SystemError)
    assert real[0] == ref[0], (real, ref)
    if real[0] == "error":
        assert real[1] is ref[1]
    else:
        assert _same(real[1], ref[1])


# ------------------------------------------------------------------------------------------ ChunkNode


@pytest.mark.parametrize("params", [None, 5, object(), RaisingIter()])
def test_chunk_node_refuses_params_that_are_not_iterable(params):
    with pytest.raises((TypeError, BoomError)):
        RealNode(make_dataset(2), params)


def test_chunk_node_propagates_an_error_raised_while_consuming_params():
    def params():
        yield chunk_layer.ChunkSensitivitiesParams()
        raise BoomError("params")

    with pytest.raises(BoomError):
        RealNode(make_dataset(2), params())


def test_chunk_node_takes_any_dset_tree_params_and_data_manager_unchecked():
    for value in [None, 5, "x", object(), RaisingBool()]:
        node = RealNode(value, [], None, value, value)
        assert node.dset is value and node.tree_build_params is value and node.data_manager is value
        assert re.fullmatch(r"[0-9a-f]{32}", node.node_id)


def test_chunk_node_id_truth_test_and_equality_errors_propagate():
    with pytest.raises(BoomError):
        RealNode(None, [], RaisingBool())
    node = RealNode(None, [], RaisingEq())
    with pytest.raises(BoomError):
        node.is_buffer()
    assert RealNode(None, [], 0).node_id != 0  # falsy: replaced by a fresh id


@pytest.mark.parametrize("indices", [None, object(), "abc", 5, np.ones((2, 2)), RaisingBool()])
def test_add_indices_refuses_what_numpy_cannot_concatenate_and_keeps_the_indices(indices):
    node = RealNode(None, [])
    node.add_indices(np.array([7, 8]))
    before = node.indices
    with pytest.raises(ValueError):
        node.add_indices(indices)
    assert node.indices is before
    assert node.indices.tolist() == [7, 8]


def test_add_indices_on_none_stores_whatever_is_given():
    node = RealNode(None, [])
    node.indices = None
    odd = object()
    assert node.add_indices(odd) is None
    assert node.indices is odd


class Kw:
    def __init__(self, **kwargs: Any) -> None:
        self.kwargs = kwargs


@pytest.mark.parametrize(
    "cls, params, error",
    [
        (None, None, TypeError),
        (5, {}, TypeError),
        (Kw, 5, TypeError),
        (Kw, [1], TypeError),
        (Kw, {1: 2}, TypeError),
        (Kw, RaisingIter(), BoomError),
        (Kw, "ab", ValueError),
    ],
)
def test_instantiate_coreset_refuses_bad_classes_and_parameters(cls, params, error):
    node = RealNode(None, [])
    with pytest.raises(error):
        node._instantiate_coreset(cls, params)
    assert node.coresets == []


def test_instantiate_coreset_does_not_touch_a_refused_mapping():
    params = {"a": 1}

    def refuse(**kwargs: Any) -> None:
        kwargs["b"] = 2
        raise BoomError("refused")

    node = RealNode(None, [], chunk_layer.BUFFER_NODE_ID)
    with pytest.raises(BoomError):
        node._instantiate_coreset(refuse, params)
    assert params == {"a": 1}
    with pytest.raises(AttributeError):  # safe_mode cannot be set on an int
        node._instantiate_coreset(lambda: 5, None)


@pytest.mark.parametrize(
    "params, data_manager, error",
    [
        ([chunk_layer.ChunkSensitivitiesParams()], RecordingDataManager(), TypeError),  # coreset_cls None
        ([object()], RecordingDataManager(), AttributeError),
        ([None], RecordingDataManager(), AttributeError),
        ([chunk_layer.ChunkSensitivitiesParams(coreset_cls=Kw)], None, AttributeError),
        ([chunk_layer.ChunkSensitivitiesParams(coreset_cls=Kw)], RecordingDataManager(), AttributeError),
    ],
)
def test_build_propagates_errors_and_appends_nothing(params, data_manager, error):
    dset = make_dataset(3)
    node = RealNode(dset, params, None, None, data_manager)
    with pytest.raises(error):
        node.build()
    assert node.coresets == []
    assert node.dset is dset


def test_save_refuses_a_missing_data_manager_and_keeps_the_node():
    node = RealNode(make_dataset(2), [])
    before = dict(vars(node))
    for dm in [None, 5, object()]:
        with pytest.raises(AttributeError):
            node.save(dm)
    dm = RecordingDataManager()
    with pytest.raises(BoomError):
        node.save(dm, RaisingBool())
    assert dm.calls == []
    assert all(vars(node)[k] is before[k] for k in before)


# ----------------------------------------------------------------------------------------- ChunkLayer


@pytest.mark.parametrize("argument", ["chunk_size", "chunk_index"])
@pytest.mark.parametrize(
    "value, type_name",
    [
        (True, "bool"),
        (np.int64(3), "numpy.int64"),
        (np.int32(3), "numpy.int32"),
        (3.0, "float"),
        ("3", "str"),
        ([3], "list"),
        (Decimal(3), "decimal.Decimal"),
        (object(), "object"),
    ],
)
def test_constructor_refuses_anything_but_an_exact_int_or_none(argument, value, type_name):
    message = f"Argument '{argument}' has incorrect type (expected int, got {type_name})"
    with pytest.raises(TypeError, match="^" + re.escape(message) + "$"):
        chunk_layer.ChunkLayer(None, **{argument: value})


def test_constructor_reports_chunk_size_first():
    with pytest.raises(TypeError, match="'chunk_size'"):
        chunk_layer.ChunkLayer(None, None, 1.5, None, 2.5)
    with pytest.raises(TypeError, match="'chunk_index'"):
        chunk_layer.ChunkLayer(None, None, 3, None, 2.5)


def test_constructor_takes_none_and_any_object_for_the_other_arguments():
    for value in [None, 5, object(), RaisingBool()]:
        layer = chunk_layer.ChunkLayer(value, value, None, value, None)
        assert layer.data_manager is value and layer.chunk_corset_params is value and layer.parent is value
        assert layer.buffer is None and layer.build_params is None and layer.chunk_index == 0
    big = chunk_layer.ChunkLayer(None, None, 2**70, None, -(2**70))
    assert big.chunk_size == 2**70 and big.chunk_index == -(2**70)


def test_get_buffer_without_buffer_asks_nothing_even_of_a_missing_data_manager():
    layer = chunk_layer.ChunkLayer(None)
    assert layer.get_buffer() is None


@pytest.mark.parametrize("removed, error", [(object(), TypeError), (RaisingLen(), BoomError), (5, TypeError)])
def test_get_buffer_propagates_a_bad_removed_list_and_keeps_the_buffer(removed, error):
    layer = layer_with_buffer(4, removed=removed)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.get_buffer()
    assert_unchanged(layer, snap)


def test_get_buffer_with_no_data_manager_fails_with_attribute_error():
    layer = chunk_layer.ChunkLayer(None)
    layer.set_buffer(make_dataset(3))
    snap = snapshot(layer)
    with pytest.raises(AttributeError):
        layer.get_buffer()
    assert_unchanged(layer, snap)


@pytest.mark.parametrize(
    "value, error",
    [
        (5, TypeError),
        (object(), TypeError),
        ([], TypeError),
        ([np.arange(2)], TypeError),
        ([np.arange(2)] * 7, TypeError),
        (RaisingIter(), BoomError),
        (BreakingIter(), BoomError),
        (dict.fromkeys(range(7)), TypeError),  # seven keys: one value too many
    ],
)
def test_set_buffer_refuses_and_keeps_the_old_buffer(value, error):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.set_buffer(value)
    assert_unchanged(layer, snap)


def test_set_buffer_none_clears_and_does_not_notify():
    layer = layer_with_buffer(4)
    layer.set_buffer(None)
    assert layer.buffer is None and layer.parent.calls == 0


@pytest.mark.parametrize(
    "value, error", [(None, TypeError), (5, TypeError), (object(), TypeError), (RaisingIter(), BoomError)]
)
@pytest.mark.parametrize("rows", [0, 4])
def test_add_to_buffer_refuses_what_is_not_iterable_and_keeps_the_buffer(value, error, rows):
    layer = layer_with_buffer(rows)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer._add_to_buffer(value)
    assert_unchanged(layer, snap)
    assert layer.parent.calls == 0


def test_add_to_buffer_without_parent_keeps_the_extended_buffer():
    layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, 3, None)
    layer.set_buffer(make_dataset(4))
    index = layer.chunk_index
    with pytest.raises(AttributeError, match="update_build_params"):
        layer._add_to_buffer(make_dataset(2, 10))
    assert type(layer.buffer) is Dataset
    assert rows_of(layer.buffer) == [0, 1, 2, 3, 10, 11]
    assert layer.chunk_index == index and layer.build_params is None


@pytest.mark.parametrize(
    "incoming",
    [
        make_dataset(2, 10, features=2),  # column count differs
        make_dataset(2, 10)._replace(props=np.arange(2)),  # buffered props is None
        make_dataset(2, 10)._replace(X=np.ones(2)),  # one dimension less
    ],
)
def test_add_to_buffer_refused_concatenation_keeps_the_buffer(incoming):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(ValueError):
        layer._add_to_buffer(incoming)
    assert_unchanged(layer, snap)
    assert layer.parent.calls == 0


@pytest.mark.parametrize("rows", [0, 4])
def test_add_to_buffer_whose_record_is_refused_leaves_a_plain_tuple(rows):
    layer = layer_with_buffer(rows)
    with pytest.raises(TypeError):
        layer._add_to_buffer((np.arange(2),))
    assert type(layer.buffer) is tuple and len(layer.buffer) == 1
    assert layer.buffer[0].tolist() == list(range(rows)) + [0, 1]
    assert layer.parent.calls == 0


@pytest.mark.parametrize("indices, error", [(object(), TypeError), (5, TypeError), (RaisingLen(), BoomError)])
def test_remove_from_buffer_refuses_and_keeps_the_buffer(indices, error):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.remove_from_buffer(indices)
    assert_unchanged(layer, snap)


def test_remove_from_buffer_with_none_rewraps_the_same_rows():
    layer = layer_with_buffer(4)
    before = layer.buffer
    assert layer.remove_from_buffer(None) is None
    assert layer.buffer is not before and rows_of(layer.buffer) == [0, 1, 2, 3]


@pytest.mark.parametrize("value", [None, 5, object(), RaisingLen(), "abc"])
def test_buffer_edits_without_a_buffer_ignore_their_arguments(value):
    layer = chunk_layer.ChunkLayer(None)
    assert layer.remove_from_buffer(value) is None
    assert layer.update_buffer(value, value, value) is None
    assert layer.buffer is None
    layer.set_buffer(make_dataset(0))
    empty = layer.buffer
    assert layer.remove_from_buffer(value) is None
    assert layer.update_buffer(value, value, value) is None
    assert layer.buffer is empty


@pytest.mark.parametrize(
    "args, error",
    [
        ((None,), TypeError),
        ((object(),), TypeError),
        ((5,), TypeError),
        ((np.array([1, 2]), np.ones((3, 3))), ValueError),  # X rows differ from the indices
        ((np.array([1, 2]), None, np.ones(3)), ValueError),
        ((np.array([1, 2]), np.ones((2, 5))), ValueError),  # column count differs
    ],
)
def test_update_buffer_refuses_and_changes_nothing(args, error):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.update_buffer(*args)
    assert_unchanged(layer, snap)


def test_update_buffer_writes_y_before_a_refused_x():
    layer = layer_with_buffer(4)
    X = layer.buffer.X.copy()
    with pytest.raises(ValueError):
        layer.update_buffer(np.array([2, 1]), np.ones((2, 5)), np.array([-2.0, -1.0]))
    assert layer.buffer.y.tolist() == [0.0, -1.0, -2.0, 30.0]
    np.testing.assert_array_equal(layer.buffer.X, X)


def test_update_buffer_with_y_but_no_buffered_y_fails():
    layer = layer_with_buffer(0)
    layer.set_buffer(make_dataset(3, y=False))
    snap = snapshot(layer)
    with pytest.raises(TypeError):
        layer.update_buffer(np.array([1]), None, np.array([5.0]))
    assert_unchanged(layer, snap)


def test_node_factory_errors(light):
    layer = layer_with_buffer(4, verbose=1)
    snap = snapshot(layer)
    with pytest.raises(ValueError):
        layer._print_progress("slow", 1)
    with pytest.raises(TypeError):
        layer._print_progress(0.1, None)
    layer.data_manager.n_instances = 10
    with pytest.raises(AttributeError):  # build_params is still None
        layer._print_progress(0.1, 1)
    layer.data_manager.n_instances = None
    with pytest.raises(TypeError):
        layer._create_node(None, None, "first")
    layer.data_manager.verbose = None
    with pytest.raises(TypeError):
        layer._create_node(None, None, 1)
    assert_unchanged(layer, snap)


@pytest.mark.parametrize("callback, error", [(5, TypeError), ("cb", TypeError), (RaisingBool(), BoomError)])
def test_create_buffer_node_with_a_bad_callback_keeps_the_buffer(light, callback, error):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.create_buffer_node(callback)
    assert_unchanged(layer, snap)


@pytest.mark.parametrize("callback", [0, "", [], False])
def test_create_buffer_node_skips_a_falsy_callback(light, callback):
    node = layer_with_buffer(4).create_buffer_node(callback)
    assert node.node_id == chunk_layer.BUFFER_NODE_ID and rows_of(node.dset) == [0, 1, 2, 3]


@pytest.mark.parametrize(
    "chunk_ids, type_name",
    [
        (None, "NoneType"),
        (("a",), "tuple"),
        (np.array(["a"]), "numpy.ndarray"),
        (ListSubclass(["a"]), "ListSubclass"),
        ("a", "str"),
        ({"a": 1}, "dict"),
        (iter(["a"]), "list_iterator"),
    ],
)
def test_rebuild_refuses_anything_but_a_list_at_the_call(chunk_ids, type_name):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    message = f"Argument 'chunk_ids' has incorrect type (expected list, got {type_name})"
    with pytest.raises(TypeError, match="^" + re.escape(message) + "$"):
        layer.rebuild(chunk_ids)
    assert layer.data_manager.calls == []
    assert_unchanged(layer, snap)


def test_rebuild_errors_come_at_next_and_end_the_generator(light):
    layer = layer_with_buffer(4)
    layer.data_manager.chunks = {"a": make_dataset(2)}
    gen = layer.rebuild(["a", "missing", "a"])
    assert next(gen).dset is layer.data_manager.chunks["a"]
    with pytest.raises(KeyError):
        next(gen)
    with pytest.raises(StopIteration):
        next(gen)
    odd = layer.rebuild([None, 5, object()])  # ids are not checked: they go to the data manager
    with pytest.raises(KeyError):
        next(odd)
    nodm = chunk_layer.ChunkLayer(None)
    gen = nodm.rebuild(["a"])
    with pytest.raises(AttributeError):
        next(gen)


def test_rebuild_sees_a_list_that_shrinks_while_suspended(light):
    layer = layer_with_buffer(4)
    layer.data_manager.chunks = {"a": make_dataset(2), "b": make_dataset(2, 2)}
    ids = ["a", "b", "a", "b"]
    gen = layer.rebuild(ids)
    next(gen)
    ids.clear()
    with pytest.raises(StopIteration):
        next(gen)
    ids = ["a"]
    gen = layer.rebuild(ids)
    next(gen)
    ids.append("b")
    assert next(gen).node_id == "b"


@pytest.mark.parametrize(
    "function, node_ids, error",
    [
        (None, ["a"], TypeError),
        (5, ["a"], TypeError),
        (lambda *a: [], None, TypeError),
        (lambda *a: [], 5, TypeError),
        (lambda *a: [], RaisingIter(), BoomError),
        (lambda *a: None, ["a"], TypeError),
        (lambda *a: object(), ["a"], TypeError),
        (lambda *a: np.ones((2, 2)), ["a"], ValueError),
        (lambda *a: "ab", ["a"], ValueError),
        (lambda a, b: [], ["a"], TypeError),
        (lambda *a: [], ["missing"], KeyError),
    ],
)
def test_filter_out_samples_propagates_errors_and_changes_nothing(function, node_ids, error):
    layer = layer_with_buffer(4)
    layer.data_manager.chunks = {"a": make_dataset(2, 50)}
    snap = snapshot(layer)
    with pytest.raises(error):
        layer.filter_out_samples(function, node_ids)
    assert_unchanged(layer, snap)


def test_filter_out_samples_with_nothing_to_filter_calls_nothing():
    layer = chunk_layer.ChunkLayer(None)
    layer.set_buffer(make_dataset(3))
    result = layer.filter_out_samples(None, [], False)
    assert result.dtype == np.float64 and result.shape == (0,)
    with pytest.raises(BoomError):
        layer.filter_out_samples(None, [], RaisingBool())


# --------------------------------------------------------------------------------------------- process


def _drained(layer: Any, items: Any, **kwargs: Any) -> Tuple[List[Any], Optional[BaseException]]:
    got: List[Any] = []
    gen = layer.process(items, **kwargs)
    try:
        for node in gen:
            got.append(node)
    except Exception as exc:  # noqa: BLE001
        with pytest.raises(StopIteration):
            next(gen)
        return got, exc
    return got, None


def test_process_with_no_datasets_fails_at_the_first_next_only(light):
    layer = layer_with_buffer(4)
    snap = snapshot(layer)
    gen = layer.process()
    assert_unchanged(layer, snap)
    with pytest.raises(TypeError):
        next(gen)
    assert_unchanged(layer, snap)


@pytest.mark.parametrize(
    "bad, error",
    [
        (5, TypeError),
        (None, TypeError),
        (object(), TypeError),
        ((np.arange(2),), TypeError),  # Dataset needs X
        ([np.arange(2)] * 7, TypeError),
        ((np.arange(2), np.ones(2)), IndexError),  # X of one dimension
        ((np.arange(2), [[1.0, 2.0], [3.0, 4.0]]), AttributeError),  # X without size
        ((np.arange(2), pd.DataFrame(np.ones((2, 3)))), AttributeError),
        ((np.arange(2), np.ones((2, 3)), pd.Series([1.0, 2.0])), AttributeError),
        ((np.arange(2), np.ones((2, 3)), "ab"), ValueError),  # a target that cannot be concatenated
        ((np.arange(2), np.ones((2, 3)), np.ones((2, 2))), ValueError),  # 2-D y with classification
        ((np.arange(2), np.ones((2, 3)), np.array(["a", 1], dtype=object)), TypeError),  # unsortable targets
        (RaisingIter(), BoomError),
        (BreakingIter(), BoomError),
    ],
)
def test_process_keeps_the_datasets_before_a_refused_one(light, bad, error):
    layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, 3, RecordingParent(), 4)
    got, exc = _drained(layer, [make_dataset(5), bad, make_dataset(5, 100)], is_classification=True)
    assert isinstance(exc, error), repr(exc)
    assert [rows_of(n.dset) for n in got] == [[0, 1, 2]]
    assert rows_of(layer.buffer) == [3, 4]
    assert layer.chunk_index == 5
    assert layer.build_params["number_of_samples"] == 5
    assert layer.parent.calls == 1


def test_process_with_a_bad_callback_keeps_the_cut(light):
    layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, 3, RecordingParent(), 4)
    got, exc = _drained(layer, [make_dataset(7)], after_create_leaf_node=5)
    assert isinstance(exc, TypeError) and got == []
    # The first chunk was cut and built; the callback failed before the counter grew.
    assert rows_of(layer.buffer) == [3, 4, 5, 6]
    assert layer.chunk_index == 4
    assert layer.build_params["number_of_samples"] == 7


def test_process_with_a_bad_dataset_iterator_keeps_what_came_before(light):
    def datasets():
        yield make_dataset(4)
        raise BoomError("source")

    layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, 3, RecordingParent())
    got, exc = _drained(layer, datasets())
    assert isinstance(exc, BoomError)
    assert [rows_of(n.dset) for n in got] == [[0, 1, 2]] and rows_of(layer.buffer) == [3]


def test_process_with_odd_parameter_records_falls_back_quietly(light):
    class Fatal(BaseException):
        pass

    class FatalIter:
        def __iter__(self):
            raise Fatal("not an Exception")

    for params in [
        5,
        RaisingIter(),
        [None],
        [object()],
        [chunk_layer.ChunkSensitivitiesParams(coreset_params=5)],
    ]:
        layer = chunk_layer.ChunkLayer(RecordingDataManager(), params, 2, RecordingParent())
        assert len(list(layer.process([make_dataset(4)], create_buffer=False))) == 2
    layer = chunk_layer.ChunkLayer(RecordingDataManager(), FatalIter(), 2, RecordingParent())
    gen = layer.process([make_dataset(4)])
    with pytest.raises(Fatal):
        next(gen)
    assert rows_of(layer.buffer) == [0, 1, 2, 3] and layer.chunk_index == 0


@THREE_ARGUMENT_THROW
def test_generator_protocol_misuse(light):
    layer = layer_with_buffer(0, chunk_size=1)
    gen = layer.process([make_dataset(3)])
    with pytest.raises(TypeError, match="just-started"):
        gen.send(5)
    with pytest.raises(TypeError):
        gen.throw(5)
    with pytest.raises(KeyError):
        gen.throw(KeyError("k"))
    with pytest.raises(StopIteration):
        next(gen)
    assert layer.buffer is None  # the body never ran

    gen = layer.process([make_dataset(3)])
    next(gen)
    with pytest.raises(KeyError):
        gen.throw(KeyError, KeyError("k"), None)
    assert rows_of(layer.buffer) == [1, 2] and layer.chunk_index == 1

    calls = []

    def reenter(node, index):
        with pytest.raises(ValueError, match="already executing"):
            next(box[0])
        calls.append(index)

    box = [layer.process([make_dataset(2, 10)], after_create_leaf_node=reenter)]
    assert [rows_of(n.dset) for n in box[0]] == [[1], [2], [10], [11]]
    assert calls == [None] * 4 and layer.chunk_index == 5


# ------------------------------------------------------------------------------------------ fuzzing


@FUZZ
@given(item=ODD, chunk_size=st.sampled_from([None, 0, 1, 3]), is_classification=st.booleans())
def test_process_survives_odd_datasets(item, chunk_size, is_classification):
    layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, chunk_size, RecordingParent())
    saved = chunk_layer.ChunkNode
    chunk_layer.ChunkNode = LightNode
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            got, exc = _drained(layer, [make_dataset(2), item], is_classification=is_classification)
            if exc is not None:
                not_a_crash(exc)
                # The first dataset is kept whatever happened to the second.
                assert layer.build_params is not None and layer.build_params["number_of_samples"] >= 2
            try:
                layer.get_buffer_size()
                layer.has_buffer()
            except Exception as after:  # noqa: BLE001 - the buffer may hold the refused values
                not_a_crash(after)
    finally:
        chunk_layer.ChunkNode = saved


@FUZZ
@given(dsets=ODD)
def test_process_survives_an_odd_dataset_stream(dsets):
    saved = chunk_layer.ChunkNode
    chunk_layer.ChunkNode = LightNode
    try:
        layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, 2, RecordingParent())
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            _, exc = _drained(layer, dsets)
        if exc is not None:
            not_a_crash(exc)
    finally:
        chunk_layer.ChunkNode = saved


@FUZZ
@given(
    operation=st.sampled_from(["set_buffer", "_add_to_buffer", "remove_from_buffer", "update_buffer"]),
    args=st.lists(ODD, min_size=1, max_size=3),
    rows=st.sampled_from([0, 4]),
)
def test_buffer_operations_survive_odd_arguments(operation, args, rows):
    layer = layer_with_buffer(rows)
    if operation != "update_buffer":
        args = args[:1]
    snap = snapshot(layer)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            result = getattr(layer, operation)(*args)
        except Exception as exc:  # noqa: BLE001
            not_a_crash(exc)
            if operation in ("set_buffer", "remove_from_buffer"):
                assert_unchanged(layer, snap)
            elif operation == "update_buffer":
                assert layer.buffer is snap[0]
        else:
            assert result is None
    assert layer.chunk_index == snap[1] and layer.build_params is snap[2]


@FUZZ
@given(args=st.lists(ODD, min_size=2, max_size=5), indices=ODD)
def test_chunk_node_survives_odd_arguments(args, indices):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            node = RealNode(*args)
        except Exception as exc:  # noqa: BLE001
            not_a_crash(exc)
            return
        for call in (
            node.is_buffer,
            lambda: node.add_indices(indices),
            lambda: node.save(RecordingDataManager()),
        ):
            try:
                call()
            except Exception as exc:  # noqa: BLE001
                not_a_crash(exc)


@FUZZ
@given(value=ODD)
def test_constructor_and_rebuild_check_types_exactly(value):
    layer = chunk_layer.ChunkLayer(None)
    if type(value) is list:
        gen = layer.rebuild(value)
        assert isinstance(gen, collections.abc.Generator)
        gen.close()
    else:
        with pytest.raises(TypeError, match="Argument 'chunk_ids' has incorrect type"):
            layer.rebuild(value)
    for argument in ("chunk_size", "chunk_index"):
        if value is None or type(value) is int:
            made = chunk_layer.ChunkLayer(None, **{argument: value})
            assert getattr(made, argument) == (0 if value is None and argument == "chunk_index" else value)
        else:
            with pytest.raises(TypeError, match=f"Argument '{argument}' has incorrect type"):
                chunk_layer.ChunkLayer(None, **{argument: value})


@FUZZ
@given(result=ODD, with_buffer=st.booleans())
def test_filter_out_samples_survives_odd_predicate_results(result, with_buffer):
    layer = layer_with_buffer(3)
    layer.data_manager.chunks = {"a": make_dataset(2, 50)}
    snap = snapshot(layer)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        try:
            out = layer.filter_out_samples(lambda *a: result, ["a"], with_buffer)
        except Exception as exc:  # noqa: BLE001
            not_a_crash(exc)
        else:
            assert isinstance(out, np.ndarray) and out.ndim == 1
    assert_unchanged(layer, snap)


@FUZZ
@given(dset=ODD)
def test_rebuild_and_filter_survive_odd_records_from_the_data_manager(dset):
    saved = chunk_layer.ChunkNode
    chunk_layer.ChunkNode = LightNode
    try:
        layer = layer_with_buffer(3)
        layer.data_manager.chunks = {"a": dset}
        snap = snapshot(layer)
        node = next(layer.rebuild(["a"]))
        assert node.dset is dset and node.node_id == "a"
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            try:
                layer.filter_out_samples(lambda ind, X, y, props: [], ["a"])
            except Exception as exc:  # noqa: BLE001
                not_a_crash(exc)
        assert_unchanged(layer, snap)
    finally:
        chunk_layer.ChunkNode = saved


# --------------------------------------------------------------------------------------------- leaks


class Token:
    pass


def _calls_on(layer: Any) -> Dict[str, Callable[[Any], Any]]:
    node = RealNode(None, [])
    return {
        "remove_from_buffer": lambda t: layer.remove_from_buffer(t),
        "set_buffer": lambda t: layer.set_buffer(t),
        "_add_to_buffer": lambda t: layer._add_to_buffer(t),
        "update_buffer": lambda t: layer.update_buffer(np.array([1]), t),
        "filter_out_samples": lambda t: layer.filter_out_samples(t, ["a"]),
        "rebuild": lambda t: layer.rebuild(t),
        "process": lambda t: list(layer.process([t])),
        "process-callback": lambda t: list(layer.process([make_dataset(3)], after_create_leaf_node=t)),
        "create_buffer_node": lambda t: layer.create_buffer_node(t),
        "ChunkLayer": lambda t: chunk_layer.ChunkLayer(t, chunk_size=t),
        "ChunkLayer-ok": lambda t: chunk_layer.ChunkLayer(t, t, 3, t),
        "ChunkNode": lambda t: RealNode(t, t),
        "ChunkNode-ok": lambda t: RealNode(t, [], t, t, t),
        "add_indices": lambda t: node.add_indices(t),
        "save": lambda t: node.save(t),
        "_instantiate_coreset": lambda t: node._instantiate_coreset(t, {"a": t}),
        "exclude_removed": lambda t: chunk_layer.exclude_removed([1], np.arange(3), t),
        "exclude_removed-none": lambda t: chunk_layer.exclude_removed(None, t, t),
        "doubled-keyword": lambda t: layer.set_buffer(t, buffer=t),
        "unknown-keyword": lambda t: layer.has_buffer(bogus=t),
        "_print_progress": lambda t: layer._print_progress(t, t),
        "_rebuild_node": lambda t: layer._rebuild_node(t, t),
        "records": lambda t: chunk_layer.ChunkSensitivities(t, t, t, t),
    }


@pytest.mark.parametrize("call", sorted(_calls_on(None)))
def test_failing_calls_do_not_leak_their_arguments(light, call):
    layer = layer_with_buffer(4, chunk_size=2)
    layer.data_manager.chunks = {"a": make_dataset(2, 50)}
    func = _calls_on(layer)[call]
    token = Token()
    for _ in range(20):  # warm-up: caches, first-time allocations
        try:
            func(token)
        except Exception:  # noqa: BLE001
            pass
    layer.set_buffer(make_dataset(4))
    gc.collect()
    before = sys.getrefcount(token)
    for _ in range(1000):
        try:
            func(token)
        except Exception:  # noqa: BLE001
            pass
        if layer.buffer is not None and not isinstance(layer.buffer, Dataset):
            layer.set_buffer(make_dataset(4))
    layer.set_buffer(None)
    gc.collect()
    assert sys.getrefcount(token) - before < 50
