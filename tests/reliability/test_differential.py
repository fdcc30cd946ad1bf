"""The compiled module against its plain-Python reference, side by side: random
sequences of operations on odd data go through a layer of each, and every step must give the same
result, leave the same state and raise the same error with the same message.

The odd data: None fields, ragged fields, zero-row and 0-d arrays, read-only and non-contiguous arrays,
lists, pandas frames, float and string indices, huge, zero, negative and absent chunk sizes. The odd
calls: keywords, str-subclass keywords, a keyword given twice, the call slot with a keyword dict that
the call empties, and throw() with three arguments. The suite
runs a bounded number of examples; `scripts/dev stress` runs many more (HYPOTHESIS_PROFILE=stress).
"""

from __future__ import annotations

import ctypes
import math
import os
import re
import warnings
from typing import Any, Callable, List, Tuple

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import reference
from chunk_support import InertNode
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

settings.register_profile("suite", max_examples=60, deadline=None,
                          suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])
settings.register_profile("stress", max_examples=1500, deadline=None,
                          suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])


class Manager:
    """The data manager of one side: removed indices and stored chunks as the test sets them."""

    verbose = 0
    n_instances = None
    n_jobs = None

    def __init__(self, removed: Any) -> None:
        self.removed = removed

    def get_removed(self) -> Any:
        return self.removed

    def get_by_nodes(self, node_ids: Any, **kwargs: Any) -> Any:
        raise KeyError(node_ids[0])


class Parent:
    def update_build_params(self) -> None:
        pass


@pytest.fixture(autouse=True)
def same_collaborators(monkeypatch) -> None:
    for module in (chunk_layer, reference):
        monkeypatch.setattr(module, "ChunkNode", InertNode)


# ---- odd data -----------------------------------------------------------------------------------


def array_variant(array: np.ndarray, how: str) -> Any:
    if how == "read-only":
        array = array.copy()
        array.flags.writeable = False
        return array
    if how == "strided":
        doubled = np.repeat(array, 2, axis=0)
        return doubled[::2]
    if how == "list":
        return array.tolist()
    if how == "frame" and array.ndim == 2:
        return pd.DataFrame(array)
    return array


@st.composite
def datasets(draw: Any, start: int = 0) -> Callable[[], Any]:
    """A recipe that makes the same odd dataset afresh at each call, so that each side gets its own."""
    rows = draw(st.integers(0, 7))
    features = draw(st.integers(1, 3))
    kind = draw(st.sampled_from(["int", "float", "str"]))
    ragged = draw(st.integers(0, rows - 1)) if rows > 0 and draw(st.booleans()) else None
    no_y = draw(st.booleans())
    zero_dim = draw(st.integers(0, 9)) == 0
    how = draw(st.sampled_from(["plain", "plain", "read-only", "strided", "list", "frame"]))
    shape = draw(st.sampled_from(["record", "record", "tuple", "list", "short"]))
    short = draw(st.integers(0, 3))

    def make() -> Any:
        ind = np.arange(start, start + rows)
        if kind == "float":
            ind = ind.astype(float) + 0.5
        elif kind == "str":
            ind = ind.astype(str)
        X = np.arange(rows * features, dtype=float).reshape(rows, features) + start
        y = np.arange(rows, dtype=float) * 10 + start
        if ragged is not None:
            y = y[:ragged]  # fewer targets than rows
        fields: List[Any] = [ind, X, None if no_y else y, None, None, None]
        if zero_dim:
            fields[1] = np.array(float(rows))
        fields = [array_variant(field, how) if isinstance(field, np.ndarray) and field.ndim else field
                  for field in fields]
        if shape == "record":
            return Dataset(*fields)
        if shape == "tuple":
            return tuple(fields)
        if shape == "list":
            return list(fields)
        return tuple(fields[:short])

    return make


chunk_sizes = st.one_of(st.sampled_from([None, 0, -2, 1, 2, 3, 5, 10**30]), st.integers(1, 6))
removed_sets = st.one_of(st.none(), st.lists(st.integers(0, 12), max_size=4))


@st.composite
def operations(draw: Any) -> List[Tuple[str, Any]]:
    steps = []
    for position in range(draw(st.integers(1, 8))):
        name = draw(st.sampled_from(["set_buffer", "add", "get_buffer", "size", "has", "remove", "update",
                                     "drain", "process", "buffer_node"]))
        if name in ("set_buffer", "add"):
            argument: Any = draw(st.one_of(datasets(start=position * 10), st.just(lambda: None)))
        elif name == "process":
            argument = (draw(st.lists(datasets(start=position * 10), max_size=3)), draw(st.booleans()),
                        draw(st.booleans()))
        elif name == "remove":
            argument = draw(st.lists(st.integers(0, 80), max_size=4))
        elif name == "update":
            count = draw(st.integers(0, 3))
            with_y = draw(st.booleans())
            argument = (count, with_y)
        else:
            argument = None
        steps.append((name, argument))
    return steps


# ---- running and comparing --------------------------------------------------------------------------


def describe(value: Any) -> Any:
    """A comparable account of a value: arrays by dtype, shape and items (NaN equal to NaN)."""
    if isinstance(value, np.ndarray):
        return ("array", value.dtype.str, value.shape, repr(value.tolist()))
    if isinstance(value, pd.DataFrame):
        return ("frame", repr(value.to_numpy().tolist()))
    if isinstance(value, InertNode):
        return ("node", describe(value.dset), value.node_id)
    if isinstance(value, Dataset):
        return ("record",) + tuple(describe(field) for field in value)
    if isinstance(value, (tuple, list)):
        return (type(value).__name__,) + tuple(describe(item) for item in value)
    if isinstance(value, dict):
        return ("dict",) + tuple((key, describe(item)) for key, item in value.items())
    if isinstance(value, float) and math.isnan(value):
        return ("float", "nan")
    if isinstance(value, (bool, int, float, str, np.generic)) or value is None:
        return (type(value).__name__, repr(value))
    return value


def outcome(action: Callable[[], Any]) -> Any:
    try:
        return ("value", describe(action()))
    except Exception as error:  # compared, not raised
        return ("error", type(error).__name__, str(error))


def state(layer: Any) -> Any:
    return describe([layer.buffer, layer.chunk_index, layer.build_params, layer.chunk_size])


def step(layer: Any, name: str, argument: Any) -> Any:
    if name == "set_buffer":
        return outcome(lambda: layer.set_buffer(argument()))
    if name == "add":
        return outcome(lambda: layer._add_to_buffer(argument()))
    if name == "get_buffer":
        return outcome(layer.get_buffer)
    if name == "size":
        return outcome(layer.get_buffer_size)
    if name == "has":
        return outcome(layer.has_buffer)
    if name == "remove":
        return outcome(lambda: layer.remove_from_buffer(np.array(argument)))
    if name == "update":
        count, with_y = argument
        return outcome(lambda: layer.update_buffer(np.arange(count), np.ones((count, 2)) * 7,
                                                   np.ones(count) if with_y else None))
    if name == "drain":
        return outcome(lambda: list(layer._get_from_buffer()))
    if name == "process":
        recipes, create_buffer, is_classification = argument
        dsets = [make() for make in recipes]
        return outcome(lambda: list(layer.process(dsets, create_buffer, is_classification)))
    return outcome(layer.create_buffer_node)


@settings(settings.get_profile("stress" if os.environ.get("HYPOTHESIS_PROFILE") == "stress" else "suite"))
@given(chunk_size=chunk_sizes, removed=removed_sets, steps=operations())
def test_module_and_reference_agree_step_by_step(chunk_size: Any, removed: Any, steps: Any) -> None:
    layers = [module.ChunkLayer(Manager(None if removed is None else np.array(removed)), [], chunk_size,
                                Parent())
              for module in (chunk_layer, reference)]
    for number, (name, argument) in enumerate(steps):
        compiled, plain = (step(layer, name, argument) for layer in layers)
        assert compiled == plain, f"step {number}: {name}"
        assert state(layers[0]) == state(layers[1]), f"state after step {number}: {name}"


# ---- odd calls ------------------------------------------------------------------------------------


class Keyword(str):
    """A keyword name that is a str subclass, hashing as the plain name or apart from it."""

    def __new__(cls, text: str, apart: bool) -> Keyword:
        name = super().__new__(cls, text)
        name.apart = apart
        return name

    def __hash__(self) -> int:
        return str.__hash__(self) ^ 1 if self.apart else str.__hash__(self)

    def __eq__(self, other: Any) -> bool:
        return str.__eq__(self, other)


class EmptiesKeywords(Dataset):
    """A record that empties the keyword dict it was passed in when it is walked."""

    keywords: dict = {}

    def __iter__(self) -> Any:
        fields = list(tuple.__iter__(self))
        EmptiesKeywords.keywords.clear()
        return iter(fields)


def call_with_dict(function: Any, keywords: dict) -> Any:
    """function(**keywords) through the call slot, with `keywords` itself as the call's dict."""
    call = ctypes.pythonapi.PyObject_Call
    call.argtypes, call.restype = [ctypes.py_object] * 3, ctypes.py_object
    return call(function, (), keywords)


def same_wording(message: str) -> str:
    """The interpreter names a method by its qualified name and says "argument" where the module says
    "keyword argument"; the rest is the same."""
    return re.sub(r"^\w+\.(?=\w+\(\))", "", message).replace("keyword argument", "argument")


def call_outcome(action: Callable[[], Any]) -> Any:
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        result = outcome(action)
    if result[0] == "error":
        result = result[:2] + (same_wording(result[2]),)
    return result, [(w.category.__name__, str(w.message)) for w in caught]


def call_step(layer: Any, form: str, make: Callable[[], Any], apart: bool) -> Any:
    set_buffer = type(layer).set_buffer
    if form == "keywords":
        return call_outcome(lambda: set_buffer(buffer=make(), self=layer))
    if form == "str-subclass keywords":
        return call_outcome(lambda: set_buffer(**{Keyword("self", apart): layer,
                                                  Keyword("buffer", apart): make()}))
    if form == "keyword given twice":
        return call_outcome(lambda: set_buffer(layer, **{Keyword("buffer", True): make(),
                                                         "buffer": make()}))
    if form == "call slot, dict emptied":
        fields = make()
        record = EmptiesKeywords(*fields) if isinstance(fields, Dataset) else fields
        keywords = {"self": layer, "buffer": record}
        EmptiesKeywords.keywords = keywords
        del record
        return call_outcome(lambda: call_with_dict(set_buffer, keywords))

    def thrown() -> Any:
        generator = layer.rebuild(["a", "b"])
        return generator.throw(KeyError, KeyError("thrown"), None)

    return call_outcome(thrown)


CALL_FORMS = ["keywords", "str-subclass keywords", "keyword given twice", "call slot, dict emptied",
              "three-argument throw"]


@settings(settings.get_profile("stress" if os.environ.get("HYPOTHESIS_PROFILE") == "stress" else "suite"))
@given(chunk_size=chunk_sizes, forms=st.lists(st.tuples(st.sampled_from(CALL_FORMS), datasets(),
                                                        st.booleans()), min_size=1, max_size=4))
def test_module_and_reference_agree_on_odd_calls(chunk_size: Any, forms: Any) -> None:
    layers = [module.ChunkLayer(Manager(None), [], chunk_size, Parent())
              for module in (chunk_layer, reference)]
    for number, (form, make, apart) in enumerate(forms):
        compiled, plain = (call_step(layer, form, make, apart) for layer in layers)
        assert compiled == plain, f"call {number}: {form}"
        assert state(layers[0]) == state(layers[1]), f"state after call {number}: {form}"
