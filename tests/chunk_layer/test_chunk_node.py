"""Tests of `ChunkNode`: construction, `is_buffer`, `add_indices`, the coreset build
(`_instantiate_coreset`, `build`) and `save`."""

from __future__ import annotations

import re
from collections.abc import Mapping
from typing import Any, Callable, Dict, List, Optional

import numpy as np
import pytest

from chunk_support import RecordingDataManager, Sentinel, make_dataset, subclass
from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, DataParamsInternal, FeatureField

NODE_ATTRIBUTES = ["params", "dset", "node_id", "tree_build_params", "indices", "sensitivities", "coresets",
                   "data_manager"]

DAP_KEYWORDS = ["X", "y", "ind", "props", "categorical_features", "feature_names", "cat_encoding_config",
                "missing_replacement", "drop_rows_below", "drop_cols_above"]

HEX32 = re.compile(r"[0-9a-f]{32}")


# ----------------------------------------------------------------------------------------------------
# local helpers


class EqualsAnything:
    """A node id whose equality comparison gives a chosen object."""

    def __init__(self, result) -> None:
        self.result = result
        self.compared: List[Any] = []

    def __eq__(self, other):
        self.compared.append(other)
        return self.result

    __hash__ = object.__hash__


class BufferName(str):
    """A string subclass: equal to "buffer" but not the same object."""


def new_node(impl, *args, **kwargs) -> Any:
    if not args and "dset" not in kwargs:
        kwargs["dset"] = make_dataset(2)
    if len(args) < 2 and "params" not in kwargs:
        kwargs["params"] = []
    return impl.ChunkNode(*args, **kwargs)


class RecordingClass:
    """Factory of coreset classes that record their construction."""

    @staticmethod
    def make(log: Optional[List[Any]] = None, mutate: bool = False, error: BaseException | None = None,
             compute_result: Any = None, compute_error: BaseException | None = None):
        class Coreset:
            instances: List[Coreset] = []

            def __init__(self, *args, **kwargs) -> None:
                if log is not None:
                    log.append("coreset_cls()")
                self.init_args = args
                self.init_kwargs = dict(kwargs)
                if mutate:
                    kwargs.clear()
                    kwargs["added"] = True
                if error is not None:
                    raise error
                self.compute_calls: List[Any] = []
                self.to_dict_calls: List[Any] = []
                self.safe_mode_at_compute: List[Any] = []
                self.dict_form = {"coreset": len(Coreset.instances)}
                Coreset.instances.append(self)

            def compute_sensitivities(self, *args, **kwargs):
                if log is not None:
                    log.append("coreset.compute_sensitivities")
                self.compute_calls.append((args, kwargs))
                self.safe_mode_at_compute.append(getattr(self, "safe_mode", "unset"))
                if compute_error is not None:
                    raise compute_error
                return compute_result

            def to_dict(self, *args, **kwargs):
                if log is not None:
                    log.append("coreset.to_dict")
                self.to_dict_calls.append((args, kwargs))
                return self.dict_form

        return Coreset


class FakeProcessor:
    """Stands in for `DataAutoProcessor`; every instance is kept on the class that `make` returns."""

    @staticmethod
    def make(log: Optional[List[Any]] = None, processed=None, feature_count: int = 4,
             init_error_on: Optional[int] = None, handle_error_on: Optional[int] = None,
             arrays_error_on: Optional[int] = None):
        class Processor:
            instances: List[Processor] = []

            def __init__(self, *args, **kwargs) -> None:
                number = len(Processor.instances) + 1
                if log is not None:
                    log.append("DataAutoProcessor()")
                self.args = args
                self.kwargs = kwargs
                self.number = number
                if init_error_on == number:
                    raise RuntimeError(f"processor {number} refused")
                Processor.instances.append(self)
                self.handle_calls: List[Any] = []
                self.arrays_calls = 0
                self._X = np.asarray(kwargs["X"]) * 1.0 + 1000 * number
                self._y = None if kwargs["y"] is None else np.asarray(kwargs["y"]) + 1000 * number
                self._ind = None if kwargs["ind"] is None else np.asarray(kwargs["ind"]) + 1000 * number
                self._props = np.arange(len(self._X)) * number
                self._removed_rows = np.array([number])
                self._feature_names = [f"p{number}_{i}" for i in range(feature_count)]
                self.X_processed = Sentinel(f"X_processed{number}")
                self.y_processed = Sentinel(f"y_processed{number}")

            def _read(self, name):
                if log is not None:
                    log.append(f"dap.{name}")
                return getattr(self, "_" + name)

            X = property(lambda self: self._read("X"))
            y = property(lambda self: self._read("y"))
            ind = property(lambda self: self._read("ind"))
            props = property(lambda self: self._read("props"))
            removed_rows = property(lambda self: self._read("removed_rows"))
            feature_names = property(lambda self: self._read("feature_names"))

            def handle_missing_and_categorical_encoding(self, *args, **kwargs):
                if log is not None:
                    log.append("dap.handle_missing_and_categorical_encoding")
                self.handle_calls.append((args, kwargs))
                if handle_error_on == self.number:
                    raise RuntimeError("encoding failed")
                return self.X_processed

            def get_processed_arrays(self, *args, **kwargs):
                if log is not None:
                    log.append("dap.get_processed_arrays")
                self.arrays_calls += 1
                if arrays_error_on == self.number:
                    raise RuntimeError("arrays failed")
                if processed is not None:
                    return processed
                return (self.y_processed, Sentinel("ind"), Sentinel("props"))

        return Processor


class LoggedAttributes:
    """An object whose listed attribute reads are logged as "<label>.<name>"."""

    def __init__(self, log: Optional[List[Any]], label: str, **values: Any) -> None:
        object.__setattr__(self, "_log", log)
        object.__setattr__(self, "_label", label)
        object.__setattr__(self, "_values", values)

    def __getattr__(self, name):
        values = object.__getattribute__(self, "_values")
        if name not in values:
            raise AttributeError(name)
        log = object.__getattribute__(self, "_log")
        if log is not None:
            log.append(f"{object.__getattribute__(self, '_label')}.{name}")
        return values[name]


class BuildDataManager:
    """Stands in for the data manager during a build: logs every operation and attribute read."""

    def __init__(self, log: Optional[List[Any]] = None, names=("a", "b", "c")) -> None:
        self.log = log
        self.configs: List[Dict[str, Any]] = []
        self.features = [LoggedAttributes(log, "feature", name=n) for n in names]
        self.categorical = [1]
        self.missing = [None, 0.5, None]
        self.below = 0.25
        self.above = 0.75
        self._params = LoggedAttributes(log, "data_params", features=self.features,
                                        drop_rows_below=self.below, drop_cols_above=self.above)
        self._internal = LoggedAttributes(log, "internal", categorical_features_=self.categorical,
                                          aggregated_missing_replacements=self.missing)

    def cat_encoding_config_clear(self, *args, **kwargs):
        assert args == () and kwargs == {}
        if self.log is not None:
            self.log.append("dm.cat_encoding_config_clear")
        config = {"max_categories": 5, "pass": len(self.configs) + 1}
        self.configs.append(config)
        return config

    @property
    def data_params(self):
        if self.log is not None:
            self.log.append("dm.data_params")
        return self._params

    @property
    def data_params_internal(self):
        if self.log is not None:
            self.log.append("dm.data_params_internal")
        return self._internal


class LoggedDataset(Dataset):
    """A dataset record whose reads of X, y, ind and props, and whose `_replace`, are logged."""

    __slots__ = ()
    log: List[Any] = []

    def _field(self, position: int, name: str):
        LoggedDataset.log.append(f"dset.{name}")
        return tuple.__getitem__(self, position)

    X = property(lambda self: self._field(1, "X"))
    y = property(lambda self: self._field(2, "y"))
    ind = property(lambda self: self._field(0, "ind"))
    props = property(lambda self: self._field(4, "props"))

    def _replace(self, *args, **kwargs):
        LoggedDataset.log.append(("_replace", args, list(kwargs)))
        return super()._replace(*args, **kwargs)


class RecordingSensitivities:
    """Stands in for the `ChunkSensitivities` record."""

    calls: List[Any] = []

    def __init__(self, *args, **kwargs) -> None:
        RecordingSensitivities.calls.append((args, list(kwargs.items())))
        self.args = args
        self.kwargs = kwargs


def build_setup(impl, monkeypatch, passes: int = 2, log=None, coreset_kwargs=None, node_id=None, **processor):
    """A node with `passes` parameter records, a recording processor and data manager, and coreset
    classes that record their calls."""
    Processor = FakeProcessor.make(log=log, **processor)
    monkeypatch.setattr(impl, "DataAutoProcessor", Processor)
    dm = BuildDataManager(log)
    classes = [RecordingClass.make(log=log, **(coreset_kwargs or {})) for _ in range(passes)]
    params = [impl.ChunkSensitivitiesParams(coreset_params={"k": i + 1}, coreset_cls=cls)
              for i, cls in enumerate(classes)]
    dset = make_dataset(4, props=True, orig=True)
    dset = dset._replace(sample_weight=np.ones(4))
    node = impl.ChunkNode(dset, params, node_id=node_id, data_manager=dm)
    return node, dm, Processor, classes, params


# ----------------------------------------------------------------------------------------------------
# construction


def test_attributes_in_constructor_order(impl) -> None:
    node = impl.ChunkNode(make_dataset(2), [1], "n1", {"a": 1}, RecordingDataManager())
    assert list(vars(node)) == NODE_ATTRIBUTES


def test_attributes_assigned_one_by_one_in_order(impl) -> None:
    assigned = []

    class Watched(impl.ChunkNode):
        def __setattr__(self, name, value):
            assigned.append(name)
            object.__setattr__(self, name, value)

    Watched(make_dataset(1), [])
    assert assigned == NODE_ATTRIBUTES


def test_initial_values(impl) -> None:
    dset, tbp, dm = make_dataset(2), {"x": 1}, RecordingDataManager()
    params = [Sentinel("p1"), Sentinel("p2")]
    node = impl.ChunkNode(dset, params, "id-7", tbp, dm)
    assert node.params == params and type(node.params) is list and node.params is not params
    assert node.dset is dset
    assert node.node_id == "id-7"
    assert node.tree_build_params is tbp
    assert node.data_manager is dm
    assert isinstance(node.indices, np.ndarray)
    assert node.indices.shape == (0,) and node.indices.dtype == np.array([], dtype=int).dtype
    assert node.sensitivities == [] and type(node.sensitivities) is list
    assert node.coresets == [] and type(node.coresets) is list
    assert dm.calls == []


def test_defaults_are_none(impl) -> None:
    node = impl.ChunkNode(make_dataset(1), [])
    assert node.tree_build_params is None
    assert node.data_manager is None


def test_keyword_construction(impl) -> None:
    dset = make_dataset(1)
    node = impl.ChunkNode(data_manager="dm", node_id="k", params=(1, 2), dset=dset, tree_build_params=3)
    assert (node.dset, node.params, node.node_id, node.tree_build_params, node.data_manager) == (
        dset, [1, 2], "k", 3, "dm")


def test_lists_and_arrays_are_fresh_per_node(impl) -> None:
    a, b = new_node(impl), new_node(impl)
    assert a.indices is not b.indices
    assert a.sensitivities is not b.sensitivities
    assert a.coresets is not b.coresets
    assert a.sensitivities is not a.coresets


def test_generator_params_consumed_once(impl) -> None:
    pulled = []

    def gen():
        for i in range(3):
            pulled.append(i)
            yield i

    g = gen()
    node = impl.ChunkNode(make_dataset(1), g)
    assert node.params == [0, 1, 2] and type(node.params) is list
    assert pulled == [0, 1, 2]
    assert list(g) == []


def test_tuple_params_become_list(impl) -> None:
    p = (Sentinel("a"), Sentinel("b"))
    node = impl.ChunkNode(make_dataset(1), p)
    assert type(node.params) is list and node.params[0] is p[0] and node.params[1] is p[1]


def test_params_iterated_exactly_once(impl) -> None:
    iterations = []

    class Params:
        def __iter__(self):
            iterations.append(1)
            return iter([Sentinel("only")])

    node = impl.ChunkNode(make_dataset(1), Params())
    assert iterations == [1]
    assert len(node.params) == 1


@pytest.mark.parametrize("params", [5, None, 2.5])
def test_non_iterable_params_fail_before_any_attribute(impl, params) -> None:
    node = object.__new__(impl.ChunkNode)
    with pytest.raises(TypeError):
        node.__init__(make_dataset(1), params)
    assert vars(node) == {}


def test_params_iteration_error_propagates_before_any_attribute(impl) -> None:
    error = OSError("stream broken")

    def gen():
        yield 1
        raise error

    node = object.__new__(impl.ChunkNode)
    with pytest.raises(OSError) as info:
        node.__init__(make_dataset(1), gen())
    assert info.value is error
    assert vars(node) == {}


@pytest.mark.parametrize("falsy", [None, ""])
def test_falsy_node_id_gets_fresh_hex_id(impl, falsy) -> None:
    a = new_node(impl, node_id=falsy)
    b = new_node(impl, node_id=falsy)
    for node in (a, b):
        assert type(node.node_id) is str
        assert HEX32.fullmatch(node.node_id)
    assert a.node_id != b.node_id


def test_default_node_id_is_fresh_hex(impl) -> None:
    ids = {new_node(impl).node_id for _ in range(5)}
    assert len(ids) == 5 and all(HEX32.fullmatch(i) for i in ids)


def test_node_id_uses_module_uuid4_hex(impl, monkeypatch) -> None:
    hex_value = Sentinel("hex")
    calls = []

    class FakeUUID:
        hex = hex_value

    def fake_uuid4(*args, **kwargs):
        calls.append((args, kwargs))
        return FakeUUID()

    monkeypatch.setattr(impl, "uuid4", fake_uuid4)
    assert new_node(impl, node_id=None).node_id is hex_value
    assert new_node(impl, node_id=0).node_id is hex_value
    assert new_node(impl, node_id=[]).node_id is hex_value
    assert calls == [((), {})] * 3
    given = ("truthy", 1)
    assert new_node(impl, node_id=given).node_id is given
    assert len(calls) == 3


def test_truthy_node_id_kept_as_given(impl) -> None:
    ident = BufferName("some id")
    assert new_node(impl, node_id=ident).node_id is ident
    assert new_node(impl, node_id=17).node_id == 17


# ----------------------------------------------------------------------------------------------------
# is_buffer


def test_is_buffer_for_buffer_id(impl) -> None:
    assert impl.BUFFER_NODE_ID == "buffer"
    assert new_node(impl, node_id=impl.BUFFER_NODE_ID).is_buffer() is True
    assert new_node(impl, node_id="buffer").is_buffer() is True


def test_is_buffer_by_equality_for_str_subclass(impl) -> None:
    ident = BufferName("buffer")
    assert ident is not impl.BUFFER_NODE_ID
    assert new_node(impl, node_id=ident).is_buffer() is True


@pytest.mark.parametrize("ident", [None, "", "Buffer", "buffer ", "chunk-1", 5])
def test_is_buffer_false_for_other_ids(impl, ident) -> None:
    assert new_node(impl, node_id=ident).is_buffer() is False


def test_is_buffer_returns_the_comparison_result(impl) -> None:
    result = Sentinel("eq")
    ident = EqualsAnything(result)
    node = new_node(impl, node_id=ident)
    assert node.is_buffer() is result
    assert ident.compared == ["buffer"]


def test_is_buffer_reads_current_node_id(impl) -> None:
    node = new_node(impl, node_id="x")
    node.node_id = "buffer"
    assert node.is_buffer() is True


# ----------------------------------------------------------------------------------------------------
# add_indices


def test_add_indices_to_new_node(impl) -> None:
    node = new_node(impl)
    old = node.indices
    given = np.array([4, 2, 9])
    assert node.add_indices(given) is None
    np.testing.assert_array_equal(node.indices, [4, 2, 9])
    assert node.indices is not given and node.indices is not old
    assert node.indices.dtype == np.concatenate([np.array([], dtype=int), given]).dtype


def test_add_indices_appends_in_order_keeping_duplicates(impl) -> None:
    node = new_node(impl)
    node.add_indices(np.array([5, 1]))
    node.add_indices(np.array([1, 0, 5]))
    np.testing.assert_array_equal(node.indices, [5, 1, 1, 0, 5])


@pytest.mark.parametrize("given", [np.array([1.5, 2.5]), np.array([1, 2], dtype=np.int8),
                                   np.array([3, 4], dtype=np.uint64), [7, 8]])
def test_add_indices_dtype_as_numpy_concatenates(impl, given) -> None:
    node = new_node(impl)
    node.add_indices(given)
    expected = np.concatenate([np.array([], dtype=int), given])
    assert node.indices.dtype == expected.dtype
    np.testing.assert_array_equal(node.indices, expected)


def test_add_indices_when_none_keeps_the_very_object(impl) -> None:
    node = new_node(impl)
    node.indices = None
    given = [3, 1]
    assert node.add_indices(given) is None
    assert node.indices is given


def test_add_indices_refused_by_numpy_keeps_old_array(impl) -> None:
    node = new_node(impl)
    node.add_indices(np.array([1, 2]))
    old = node.indices
    bad = np.array([[1, 2]])
    with pytest.raises(ValueError):
        node.add_indices(bad)
    assert node.indices is old
    np.testing.assert_array_equal(node.indices, [1, 2])


# ----------------------------------------------------------------------------------------------------
# _instantiate_coreset


@pytest.mark.parametrize("params", [None, {}])
def test_instantiate_with_falsy_params_passes_nothing(impl, params) -> None:
    cls = RecordingClass.make()
    coreset = new_node(impl)._instantiate_coreset(cls, params)
    assert isinstance(coreset, cls)
    assert coreset.init_args == () and coreset.init_kwargs == {}


def test_instantiate_passes_keywords_only(impl) -> None:
    cls = RecordingClass.make()
    params = {"k": 3, "dtype": "float64"}
    coreset = new_node(impl)._instantiate_coreset(cls, params)
    assert coreset.init_args == ()
    assert coreset.init_kwargs == {"k": 3, "dtype": "float64"}
    assert params == {"k": 3, "dtype": "float64"}


def test_instantiate_never_changes_callers_mapping(impl) -> None:
    cls = RecordingClass.make(mutate=True)
    params = {"k": 3}
    new_node(impl)._instantiate_coreset(cls, params)
    assert params == {"k": 3}


def test_instantiate_converts_other_mappings(impl) -> None:
    class Frozen(Mapping):
        def __init__(self, data):
            self._data = dict(data)

        def __getitem__(self, key):
            return self._data[key]

        def __iter__(self):
            return iter(self._data)

        def __len__(self):
            return len(self._data)

    cls = RecordingClass.make(mutate=True)
    params = Frozen({"k": 2, "n_iter": 5})
    coreset = new_node(impl)._instantiate_coreset(cls, params)
    assert coreset.init_args == () and coreset.init_kwargs == {"k": 2, "n_iter": 5}
    assert dict(params) == {"k": 2, "n_iter": 5}
    empty = new_node(impl)._instantiate_coreset(cls, Frozen({}))
    assert empty.init_kwargs == {}


def test_instantiate_returns_the_new_object(impl) -> None:
    made = []

    def factory(**kwargs):
        obj = Sentinel("coreset")
        made.append((obj, kwargs))
        return obj

    coreset = new_node(impl)._instantiate_coreset(factory, {"a": 1})
    assert made == [(coreset, {"a": 1})]


def test_buffer_node_sets_safe_mode_true(impl) -> None:
    cls = RecordingClass.make()
    coreset = new_node(impl, node_id=impl.BUFFER_NODE_ID)._instantiate_coreset(cls, None)
    assert coreset.safe_mode is True
    coreset = new_node(impl, node_id=BufferName("buffer"))._instantiate_coreset(cls, None)
    assert coreset.safe_mode is True


def test_chunk_node_leaves_safe_mode_alone(impl) -> None:
    cls = RecordingClass.make()
    coreset = new_node(impl, node_id="chunk")._instantiate_coreset(cls, None)
    assert not hasattr(coreset, "safe_mode")

    class Preset:
        def __init__(self):
            self.safe_mode = "as made"

    assert new_node(impl)._instantiate_coreset(Preset, {}).safe_mode == "as made"
    assert new_node(impl, node_id="buffer")._instantiate_coreset(Preset, {}).safe_mode is True


def test_instantiate_asks_the_node_whether_it_is_the_buffer(impl) -> None:
    asked = []

    class AlwaysBuffer(impl.ChunkNode):
        def is_buffer(self):
            asked.append(True)
            return True

    class NeverBuffer(impl.ChunkNode):
        def is_buffer(self):
            asked.append(False)
            return False

    cls = RecordingClass.make()
    coreset = AlwaysBuffer(make_dataset(1), [], "chunk")._instantiate_coreset(cls, None)
    assert coreset.safe_mode is True
    coreset = NeverBuffer(make_dataset(1), [], "buffer")._instantiate_coreset(cls, None)
    assert not hasattr(coreset, "safe_mode")
    assert asked == [True, False]


def test_instantiate_propagates_class_error(impl) -> None:
    error = ValueError("bad k")
    cls = RecordingClass.make(error=error)
    with pytest.raises(ValueError) as info:
        new_node(impl)._instantiate_coreset(cls, {"k": -1})
    assert info.value is error


def test_instantiate_propagates_refused_safe_mode(impl) -> None:
    class Slotted:
        __slots__ = ()

    assert isinstance(new_node(impl)._instantiate_coreset(Slotted, None), Slotted)
    with pytest.raises(AttributeError):
        new_node(impl, node_id="buffer")._instantiate_coreset(Slotted, None)


# ----------------------------------------------------------------------------------------------------
# build, with recording stand-ins


def test_build_returns_self_with_one_record_per_params(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    coresets = node.coresets
    assert node.build() is node
    assert node.coresets is coresets
    assert len(node.coresets) == 2
    for record, param, cls, dap in zip(node.coresets, params, classes, Processor.instances):
        assert type(record) is impl.ChunkSensitivities
        coreset, = cls.instances
        assert record.coreset is coreset.dict_form
        assert record.params is param
        assert record.removed_rows is dap._removed_rows
        assert record.no_features == 4 and type(record.no_features) is int


def test_build_constructs_each_coreset_with_its_params(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    node.build()
    for i, cls in enumerate(classes):
        coreset, = cls.instances
        assert coreset.init_args == () and coreset.init_kwargs == {"k": i + 1}
    assert [p.coreset_params for p in params] == [{"k": 1}, {"k": 2}]


def test_build_goes_through_instantiate_coreset(impl, monkeypatch) -> None:
    seen = []

    class Watched(impl.ChunkNode):
        def _instantiate_coreset(self, *args, **kwargs):
            seen.append((args, kwargs))
            return super()._instantiate_coreset(*args, **kwargs)

    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    watched = Watched(node.dset, node.params, data_manager=dm)
    watched.build()
    assert len(seen) == 2
    for (args, kwargs), param in zip(seen, params):
        assert kwargs == {}
        assert len(args) == 2 and args[0] is param.coreset_cls and args[1] is param.coreset_params


def test_processor_gets_ten_keywords_in_order(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1)
    dset = node.dset
    node.build()
    dap, = Processor.instances
    assert dap.args == ()
    assert list(dap.kwargs) == DAP_KEYWORDS
    kw = dap.kwargs
    assert kw["X"] is dset.X
    assert kw["y"] is dset.y
    assert kw["ind"] is dset.ind
    assert kw["props"] is dset.props
    assert kw["categorical_features"] is dm.categorical
    assert kw["feature_names"] == ["a", "b", "c"] and type(kw["feature_names"]) is list
    assert kw["cat_encoding_config"] is dm.configs[0]
    assert kw["missing_replacement"] is dm.missing
    assert kw["drop_rows_below"] is dm.below
    assert kw["drop_cols_above"] is dm.above


def test_feature_name_list_is_new_each_pass(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    node.build()
    first, second = (dap.kwargs["feature_names"] for dap in Processor.instances)
    assert first == second == ["a", "b", "c"]
    assert first is not second


def test_cat_encoding_config_fetched_anew_each_pass(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    node.build()
    assert len(dm.configs) == 2
    assert Processor.instances[0].kwargs["cat_encoding_config"] is dm.configs[0]
    assert Processor.instances[1].kwargs["cat_encoding_config"] is dm.configs[1]


def test_encoding_called_with_integer_zero_threshold(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    node.build()
    for dap in Processor.instances:
        assert dap.handle_calls == [((), {"sparse_threshold": 0})]
        (_, kwargs), = dap.handle_calls
        assert type(kwargs["sparse_threshold"]) is int
        assert dap.arrays_calls == 1


def test_dataset_replaced_with_processed_fields(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1)
    original = node.dset
    node.build()
    dap, = Processor.instances
    assert type(node.dset) is Dataset
    assert node.dset is not original
    assert node.dset.X is dap._X
    assert node.dset.y is dap._y
    assert node.dset.ind is dap._ind
    assert node.dset.props is dap._props
    assert node.dset.sample_weight is original.sample_weight
    assert node.dset.orig is original.orig
    np.testing.assert_array_equal(original.ind, [0, 1, 2, 3])


def test_replace_called_with_the_four_keywords(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1)
    LoggedDataset.log = []
    node.dset = LoggedDataset(*node.dset)
    node.build()
    replaces = [entry for entry in LoggedDataset.log if isinstance(entry, tuple)]
    assert replaces == [("_replace", (), ["X", "y", "ind", "props"])]


def test_second_pass_starts_from_first_pass_dataset(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    node.build()
    first, second = Processor.instances
    assert second.kwargs["X"] is first._X
    assert second.kwargs["y"] is first._y
    assert second.kwargs["ind"] is first._ind
    assert second.kwargs["props"] is first._props
    assert node.dset.X is second._X and node.dset.ind is second._ind


def test_sensitivities_computed_on_processed_arrays(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl,
        monkeypatch, coreset_kwargs={"compute_result": Sentinel("ignored")})
    node.build()
    for cls, dap in zip(classes, Processor.instances):
        coreset, = cls.instances
        assert len(coreset.compute_calls) == 1
        (args, kwargs), = coreset.compute_calls
        assert args == ()
        assert list(kwargs) == ["X", "y"]
        assert kwargs["X"] is dap.X_processed
        assert kwargs["y"] is dap.y_processed
        assert coreset.to_dict_calls == [((), {"with_important": True, "use_keep_selected_only": False})]


def test_record_made_with_four_keywords_in_order(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)
    RecordingSensitivities.calls = []
    monkeypatch.setattr(impl, "ChunkSensitivities", RecordingSensitivities)
    node.build()
    assert len(RecordingSensitivities.calls) == 2
    for (args, items), record, cls, param, dap in zip(RecordingSensitivities.calls, node.coresets, classes,
                                                      params, Processor.instances):
        assert args == ()
        assert [k for k, _ in items] == ["coreset", "params", "removed_rows", "no_features"]
        values = dict(items)
        assert values["coreset"] is cls.instances[0].dict_form
        assert values["params"] is param
        assert values["removed_rows"] is dap._removed_rows
        assert values["no_features"] == 4
        assert isinstance(record, RecordingSensitivities) and record.kwargs is not None


def test_no_features_counts_processed_names_not_manager_features(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1, feature_count=7)
    node.build()
    assert node.coresets[0].no_features == 7
    assert len(dm.features) == 3


@pytest.mark.parametrize("container", [list, lambda items: (i for i in items)])
def test_processed_arrays_may_be_any_sequence_of_three(impl, monkeypatch, container) -> None:
    y_processed = Sentinel("y")
    node, dm, Processor, classes, params = build_setup(impl,
        monkeypatch, passes=1, processed=container([y_processed, None, None]))
    node.build()
    (_, kwargs), = classes[0].instances[0].compute_calls
    assert kwargs["y"] is y_processed


@pytest.mark.parametrize(("items", "message"), [
    ((1, 2, 3, 4), "too many values to unpack (expected 3)"),
    ((1, 2), "need more than 2 values to unpack"),
    ((1,), "need more than 1 value to unpack"),
    ((), "need more than 0 values to unpack"),
])
def test_processed_arrays_unpacking_errors(impl, monkeypatch, items, message) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1, processed=items)
    with pytest.raises(ValueError) as info:
        node.build()
    assert str(info.value) == message
    assert node.coresets == []
    assert classes[0].instances[0].compute_calls == []
    assert node.dset.X is Processor.instances[0]._X


def test_empty_params_build_nothing(impl, monkeypatch) -> None:
    Processor = FakeProcessor.make()
    monkeypatch.setattr(impl, "DataAutoProcessor", Processor)
    log: List[Any] = []
    dm = BuildDataManager(log)
    dset = make_dataset(3)
    node = impl.ChunkNode(dset, [], data_manager=dm)
    coresets = node.coresets
    assert node.build() is node
    assert node.coresets is coresets and coresets == []
    assert node.dset is dset
    assert Processor.instances == [] and log == []


def logged_pass(impl, monkeypatch) -> List[Any]:
    """Runs one build pass with every collaborator logging into one list, and returns the list."""
    log: List[Any] = []
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1, log=log)
    LoggedDataset.log = log
    node.dset = LoggedDataset(*node.dset)
    monkeypatch.setattr(impl, "ChunkSensitivities", RecordingSensitivities)
    original = RecordingSensitivities.__init__

    def logged_init(self, *args, **kwargs):
        log.append("ChunkSensitivities()")
        original(self, *args, **kwargs)

    monkeypatch.setattr(RecordingSensitivities, "__init__", logged_init)
    node.build()
    return log


PROCESSED_FIELD_READS = ["dap.X", "dap.y", "dap.ind", "dap.props"]


def test_full_order_of_one_pass(impl, monkeypatch) -> None:
    log = logged_pass(impl, monkeypatch)
    start = log.index("dap.handle_missing_and_categorical_encoding") + 1
    assert log[start:start + 4] == PROCESSED_FIELD_READS
    log[start:start + 4] = ["<the four processed fields>"]
    assert log == [
        "coreset_cls()",
        "dm.cat_encoding_config_clear",
        "dset.X", "dset.y", "dset.ind", "dset.props",
        "dm.data_params_internal", "internal.categorical_features_",
        "dm.data_params", "data_params.features", "feature.name", "feature.name", "feature.name",
        "dm.data_params_internal", "internal.aggregated_missing_replacements",
        "dm.data_params", "data_params.drop_rows_below",
        "dm.data_params", "data_params.drop_cols_above",
        "DataAutoProcessor()",
        "dap.handle_missing_and_categorical_encoding",
        "<the four processed fields>",
        ("_replace", (), ["X", "y", "ind", "props"]),
        "dap.get_processed_arrays",
        "coreset.compute_sensitivities",
        "coreset.to_dict", "dap.removed_rows", "dap.feature_names",
        "ChunkSensitivities()",
    ]


def test_processed_fields_read_in_keyword_order(impl, monkeypatch) -> None:
    log = logged_pass(impl, monkeypatch)
    start = log.index("dap.handle_missing_and_categorical_encoding") + 1
    assert log[start:start + 5] == PROCESSED_FIELD_READS + [("_replace", (), ["X", "y", "ind", "props"])]


def test_two_passes_repeat_the_sequence(impl, monkeypatch) -> None:
    log: List[Any] = []
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=2, log=log)
    node.build()
    assert log.count("dm.cat_encoding_config_clear") == 2
    assert log.count("coreset_cls()") == 2
    second_pass = log.index("coreset_cls()", 1)
    assert log[second_pass + 1] == "dm.cat_encoding_config_clear"
    assert "coreset.to_dict" in log[:second_pass]


def test_buffer_node_builds_in_safe_mode(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, node_id=impl.BUFFER_NODE_ID)
    node.build()
    for cls in classes:
        assert cls.instances[0].safe_mode_at_compute == [True]


def test_chunk_node_builds_without_touching_safe_mode(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, node_id="chunk-3")
    node.build()
    for cls in classes:
        assert cls.instances[0].safe_mode_at_compute == ["unset"]


def test_error_in_second_pass_after_rebinding_keeps_both(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, arrays_error_on=2)
    with pytest.raises(RuntimeError, match="arrays failed"):
        node.build()
    assert len(node.coresets) == 1 and node.coresets[0].params is params[0]
    first, second = Processor.instances
    assert node.dset.X is second._X and node.dset.ind is second._ind


def test_error_from_coreset_in_second_pass_propagates_unchanged(impl, monkeypatch) -> None:
    error = ZeroDivisionError("sensitivity")
    Processor = FakeProcessor.make()
    monkeypatch.setattr(impl, "DataAutoProcessor", Processor)
    good, bad = RecordingClass.make(), RecordingClass.make(compute_error=error)
    params = [impl.ChunkSensitivitiesParams(coreset_cls=good), impl.ChunkSensitivitiesParams(coreset_cls=bad)]
    node = impl.ChunkNode(make_dataset(3), params, data_manager=BuildDataManager())
    with pytest.raises(ZeroDivisionError) as info:
        node.build()
    assert info.value is error
    assert len(node.coresets) == 1 and node.coresets[0].params is params[0]
    assert bad.instances[0].to_dict_calls == []
    assert node.dset.X is Processor.instances[1]._X


@pytest.mark.parametrize("failure", [{"init_error_on": 2}, {"handle_error_on": 2}])
def test_error_in_second_pass_before_rebinding(impl, monkeypatch, failure) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, **failure)
    with pytest.raises(RuntimeError):
        node.build()
    assert len(node.coresets) == 1 and node.coresets[0].params is params[0]
    assert node.dset.X is Processor.instances[0]._X


def test_error_from_coreset_class_in_first_pass(impl, monkeypatch) -> None:
    log: List[Any] = []
    error = TypeError("unexpected keyword")
    Processor = FakeProcessor.make(log=log)
    monkeypatch.setattr(impl, "DataAutoProcessor", Processor)
    cls = RecordingClass.make(log=log, error=error)
    dset = make_dataset(2)
    params = [impl.ChunkSensitivitiesParams(coreset_cls=cls)]
    node = impl.ChunkNode(dset, params, data_manager=BuildDataManager(log))
    with pytest.raises(TypeError) as info:
        node.build()
    assert info.value is error
    assert log == ["coreset_cls()"]
    assert node.coresets == [] and node.dset is dset


def test_error_from_data_manager_propagates(impl, monkeypatch) -> None:
    error = MemoryError("config")
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch)

    def failing():
        raise error

    dm.cat_encoding_config_clear = failing
    with pytest.raises(MemoryError) as info:
        node.build()
    assert info.value is error
    assert Processor.instances == [] and node.coresets == []


def test_second_build_appends_and_reprocesses(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1)
    node.build()
    first = node.coresets[0]
    after_first = node.dset
    node.build()
    assert len(node.coresets) == 2 and node.coresets[0] is first
    assert node.coresets[1].params is params[0]
    assert Processor.instances[1].kwargs["X"] is after_first.X
    assert len(classes[0].instances) == 2


# ----------------------------------------------------------------------------------------------------
# build, end to end with the library's own classes


def e2e_dataset(rows: int, seed: int = 0) -> Dataset:
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(rows, 3))
    ind = np.arange(100, 100 + rows)
    y = X @ np.array([1.0, -2.0, 0.5]) + rng.normal(scale=0.1, size=rows)
    return Dataset(ind, X, y, None, ind * 2, X.copy())


def e2e_manager(**data_params) -> DataManager:
    return DataManager(
        data_params=DataParams(features=[FeatureField("a"), FeatureField("b"), FeatureField("c")],
                               **data_params),
        data_params_internal=DataParamsInternal(),
    )


def test_end_to_end_build_with_library_classes(impl) -> None:
    dm = e2e_manager()
    params = [
        impl.ChunkSensitivitiesParams(coreset_params={"k": 2, "random_state": 0}, coreset_cls=CoresetKMeans),
        impl.ChunkSensitivitiesParams(coreset_params={"random_state": 1},
                                      coreset_cls=CoresetLinearRegression),
    ]
    dset = e2e_dataset(20)
    node = impl.ChunkNode(dset, params, node_id="chunk-a", data_manager=dm)
    assert node.build() is node
    assert [record.params for record in node.coresets] == params
    assert node.coresets[0].params is params[0] and node.coresets[1].params is params[1]
    for record in node.coresets:
        assert type(record) is impl.ChunkSensitivities
        assert record.no_features == 3
        assert len(record.removed_rows) == 0
        assert record.coreset["n_samples"] == 20
        assert "sensitivities" in record.coreset and "important_idxs" in record.coreset
        assert len(record.coreset["weights"]) == 20
    assert params[0].coreset_params == {"k": 2, "random_state": 0}
    np.testing.assert_array_equal(node.dset.ind, dset.ind)
    np.testing.assert_array_equal(node.dset.X, dset.X)
    assert node.dset.orig is dset.orig


def test_end_to_end_build_drops_incomplete_rows(impl) -> None:
    dm = e2e_manager(drop_rows_below=1.0)
    dset = e2e_dataset(12)
    X = dset.X.copy()
    X[[2, 7], 1] = np.nan
    dset = dset._replace(X=X)
    params = [impl.ChunkSensitivitiesParams(coreset_params={"random_state": 0},
                                       coreset_cls=CoresetLinearRegression)]
    node = impl.ChunkNode(dset, params, data_manager=dm)
    node.build()
    record, = node.coresets
    np.testing.assert_array_equal(record.removed_rows, [2, 7])
    assert record.coreset["n_samples"] == 10
    np.testing.assert_array_equal(node.dset.ind, np.delete(dset.ind, [2, 7]))
    np.testing.assert_array_equal(node.dset.props, np.delete(dset.props, [2, 7]))
    assert node.dset.X.shape == (10, 3)


def test_end_to_end_buffer_node_uses_safe_mode(impl) -> None:
    params = [impl.ChunkSensitivitiesParams(coreset_params={"k": 4, "random_state": 0},
                                            coreset_cls=CoresetKMeans)]
    small = e2e_dataset(2)
    with pytest.raises(ValueError, match="safe_mode"):
        impl.ChunkNode(small, params, node_id="chunk-b", data_manager=e2e_manager()).build()
    node = impl.ChunkNode(small, params, node_id=impl.BUFFER_NODE_ID, data_manager=e2e_manager()).build()
    record, = node.coresets
    np.testing.assert_array_equal(record.coreset["sensitivities"], [1.0, 1.0])


# ----------------------------------------------------------------------------------------------------
# save


class SaveManager:
    """Stands in for the data manager in a save: logs every attribute read and records the call."""

    def __init__(self, log: List[Any], result: Any = None, error: BaseException | None = None) -> None:
        object.__setattr__(self, "_log", log)
        object.__setattr__(self, "calls", [])
        object.__setattr__(self, "_result", result)
        object.__setattr__(self, "_error", error)

    def __getattribute__(self, name):
        if not name.startswith("_") and name != "calls":
            object.__getattribute__(self, "_log").append(f"dm.{name}")
        return object.__getattribute__(self, name)

    def save_selected_samples_async(self, *args, **kwargs):
        self._log.append("dm.call")
        self.calls.append((args, kwargs))
        if self._error is not None:
            raise self._error
        return self._result


class Logged:
    """Mixed into a node class: logs the reads of dset, indices and node_id; is_buffer may not run."""

    def __getattribute__(self, name):
        if name in ("dset", "indices", "node_id"):
            object.__getattribute__(self, "save_log").append(f"node.{name}")
        return object.__getattribute__(self, name)

    def is_buffer(self):
        raise AssertionError("is_buffer() must not be called by save")


class LoggedFlag:
    def __init__(self, log: List[Any], value: bool) -> None:
        self.log = log
        self.value = value

    def __bool__(self):
        self.log.append("save_all.bool")
        return self.value


def logged_node(impl, log: List[Any], node_id="chunk-1") -> Any:
    node = subclass(impl.ChunkNode, Logged)(make_dataset(3), [], node_id)
    object.__setattr__(node, "indices", np.array([0, 2]))
    object.__setattr__(node, "save_log", log)
    return node


def snapshot(node: Any) -> Dict[str, Any]:
    return {name: value for name, value in vars(node).items() if name != "save_log"}


def test_save_passes_dataset_indices_and_id(impl) -> None:
    log: List[Any] = []
    dm = SaveManager(log)
    node = new_node(impl, node_id="chunk-1")
    node.add_indices(np.array([1, 0]))
    assert node.save(dm) is None
    (args, kwargs), = dm.calls
    assert len(args) == 3
    assert args[0] is node.dset and args[1] is node.indices and args[2] is node.node_id
    assert kwargs == {"is_buffer": False}
    assert kwargs["is_buffer"] is False


def test_save_all_passes_none(impl) -> None:
    dm = SaveManager([])
    node = new_node(impl, node_id="n")
    node.save(dm, save_all=True)
    (args, kwargs), = dm.calls
    assert args[0] is node.dset and args[1] is None and args[2] == "n"
    assert kwargs == {"is_buffer": False}


@pytest.mark.parametrize(("flag", "all_rows"), [(1, True), ("yes", True), ([0], True), (0, False),
                                                ("", False), (None, False)])
def test_save_all_is_a_truth_test(impl, flag, all_rows) -> None:
    dm = SaveManager([])
    node = new_node(impl)
    node.save(dm, flag)
    (args, _), = dm.calls
    assert (args[1] is None) is all_rows
    if not all_rows:
        assert args[1] is node.indices


def test_buffer_node_saves_with_is_buffer_true(impl) -> None:
    dm = SaveManager([])
    node = new_node(impl, node_id=impl.BUFFER_NODE_ID)
    node.save(dm)
    (args, kwargs), = dm.calls
    assert args[2] == "buffer" and kwargs == {"is_buffer": True} and kwargs["is_buffer"] is True


def test_is_buffer_keyword_is_the_comparison_result(impl) -> None:
    result = Sentinel("eq")
    ident = EqualsAnything(result)
    dm = SaveManager([])
    node = new_node(impl, node_id=ident)
    node.save(dm)
    (args, kwargs), = dm.calls
    assert args[2] is ident
    assert kwargs["is_buffer"] is result
    assert ident.compared == ["buffer"]


def test_is_buffer_keyword_by_equality_for_str_subclass(impl) -> None:
    dm = SaveManager([])
    ident = BufferName("buffer")
    new_node(impl, node_id=ident).save(dm)
    (args, kwargs), = dm.calls
    assert args[2] is ident and kwargs["is_buffer"] is True


def test_save_does_not_call_is_buffer_method(impl) -> None:
    log: List[Any] = []
    for ident, expected in (("buffer", True), ("chunk", False)):
        dm = SaveManager(log)
        logged_node(impl, log, ident).save(dm)
        (_, kwargs), = dm.calls
        assert kwargs == {"is_buffer": expected}


def test_save_order_of_reads(impl) -> None:
    log: List[Any] = []
    node = logged_node(impl, log)
    node.save(SaveManager(log), LoggedFlag(log, False))
    assert log == ["dm.save_selected_samples_async", "node.dset", "save_all.bool", "node.indices",
                   "node.node_id", "node.node_id", "dm.call"]


def test_save_all_order_of_reads(impl) -> None:
    log: List[Any] = []
    node = logged_node(impl, log)
    node.save(SaveManager(log), LoggedFlag(log, True))
    assert log == ["dm.save_selected_samples_async", "node.dset", "save_all.bool", "node.node_id",
                   "node.node_id", "dm.call"]


def test_save_uses_the_given_manager_not_the_nodes_own(impl) -> None:
    own, given = SaveManager([]), SaveManager([])
    node = new_node(impl, data_manager=own)
    node.save(given)
    assert own.calls == [] and len(given.calls) == 1
    node.save(data_manager=given, save_all=False)
    assert len(given.calls) == 2


def test_save_returns_none_whatever_the_manager_returns(impl) -> None:
    assert new_node(impl).save(SaveManager([], result="queued")) is None


def test_save_without_operation_fails_before_reading_node(impl) -> None:
    log: List[Any] = []
    node = logged_node(impl, log)
    before = snapshot(node)

    class NoSave:
        pass

    with pytest.raises(AttributeError, match="save_selected_samples_async"):
        node.save(NoSave())
    assert log == []
    after = snapshot(node)
    assert list(after) == list(before)
    assert all(after[k] is v for k, v in before.items())


def test_save_error_propagates_and_node_unchanged(impl) -> None:
    error = RuntimeError("disk full")
    log: List[Any] = []
    node = logged_node(impl, log)
    before = snapshot(node)
    dm = SaveManager(log, error=error)
    with pytest.raises(RuntimeError) as info:
        node.save(dm)
    assert info.value is error
    after = snapshot(node)
    assert list(after) == list(before)
    assert all(after[k] is v for k, v in before.items())
    np.testing.assert_array_equal(node.indices, [0, 2])


def test_save_with_library_manager_stores_selected_rows(impl) -> None:
    dm = DataManager()
    try:
        node = impl.ChunkNode(make_dataset(4), [], node_id="chunk-z")
        node.add_indices(np.array([1, 3]))
        node.save(dm)
        buffer_node = impl.ChunkNode(make_dataset(2, start=10), [], node_id=impl.BUFFER_NODE_ID)
        buffer_node.save(dm, save_all=True)
        dm.wait_for_saves(timeout=5)
        assert [int(i) for i in dm.get_by_nodes(["chunk-z"]).ind] == [1, 3]
        assert [int(i) for i in dm.get_by_nodes([impl.BUFFER_NODE_ID]).ind] == [10, 11]
        assert dm.stored_node_ids(buffer=True) == [impl.BUFFER_NODE_ID]
    finally:
        dm.close(timeout=5)


def changing_params_on_first_coreset(node: Any, base: type, change: Callable[[list], None]) -> type:
    """A coreset class that changes the node's parameter list when it is made."""

    class Changing(base):
        def __init__(self, **kwargs: Any) -> None:
            change(node.params)
            super().__init__(**kwargs)

    return Changing


def test_params_appended_during_a_build_are_built_too(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=2)
    extra = impl.ChunkSensitivitiesParams(coreset_params={"k": 9}, coreset_cls=classes[0])
    node.params[0].coreset_cls = changing_params_on_first_coreset(node, classes[0], lambda p: p.append(extra))
    node.build()
    assert [record.params for record in node.coresets] == [params[0], params[1], extra]


def test_params_removed_during_a_build_end_it_early(impl, monkeypatch) -> None:
    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=2)
    node.params[0].coreset_cls = changing_params_on_first_coreset(node, classes[0], list.clear)
    node.build()
    assert [record.params for record in node.coresets] == [params[0]]


def test_feature_names_come_from_the_features_own_iteration(impl, monkeypatch) -> None:
    class Reversed(list):
        def __iter__(self):
            return reversed(self)

    node, dm, Processor, classes, params = build_setup(impl, monkeypatch, passes=1)
    dm._params.features = Reversed(dm.features)
    node.build()
    dap, = Processor.instances
    assert dap.kwargs["feature_names"] == ["c", "b", "a"]
