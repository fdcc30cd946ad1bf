"""`ChunkLayer.rebuild` (nodes rebuilt from stored chunks, lazily) and `ChunkLayer.filter_out_samples`
(a caller's predicate run over stored chunks and the buffer)."""

from __future__ import annotations

from typing import Any, Iterator, List, Tuple

import numpy as np
import pytest

from chunk_support import (
    RecordingDataManager,
    RecordingParent,
    make_dataset,
    patch_node_class,
    rows_of,
    subclass,
)
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# ----------------------------------------------------------------------------------------------------
# Helpers local to this file
# ----------------------------------------------------------------------------------------------------


class RawDataManager(RecordingDataManager):
    """Also keeps the very objects passed to `get_by_nodes`, and can share an event list."""

    def __init__(self, events: List[Any] = None, **kwargs: Any) -> None:
        super().__init__(**kwargs)
        self.raw: List[Tuple[Any, dict]] = []
        self.events = events if events is not None else []

    def get_by_nodes(self, node_ids, **kwargs):
        self.raw.append((node_ids, kwargs))
        self.events.append(("get_by_nodes", node_ids[0]))
        return super().get_by_nodes(node_ids, **kwargs)


class Recording:
    """Mixed into a layer class: records calls of `get_buffer`, `has_buffer` and `_rebuild_node`."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.events: List[Any] = []

    def get_buffer(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("get_buffer", args, kwargs))
        return super().get_buffer(*args, **kwargs)

    def has_buffer(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("has_buffer", args, kwargs))
        return super().has_buffer(*args, **kwargs)

    def _rebuild_node(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("_rebuild_node", args, kwargs))
        return super()._rebuild_node(*args, **kwargs)

    def named(self, name: str) -> List[Any]:
        return [(args, kwargs) for event, args, kwargs in self.events if event == name]


def chunks(*ids: str) -> dict:
    return {node_id: make_dataset(3, start=10 * number, props=True) for number, node_id in enumerate(ids)}


def make_layer(impl, dm: RecordingDataManager, buffer_rows: int = 0, start: int = 900) -> Any:
    layer = subclass(impl.ChunkLayer, Recording)(dm, None, 100, RecordingParent())
    if buffer_rows:
        layer.set_buffer(list(make_dataset(buffer_rows, start=start, props=True)))
    return layer


class Predicate:
    """A filter function that records its arguments and returns scripted results."""

    def __init__(self, results: List[Any] = None, events: List[Any] = None) -> None:
        self.results = list(results or [])
        self.calls: List[Tuple[tuple, dict]] = []
        self.events = events if events is not None else []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        self.events.append(("filter", rows_of(Dataset(args[0], args[1]))[:1]))
        if self.results:
            return self.results.pop(0)
        return np.array([], dtype=int)


# ----------------------------------------------------------------------------------------------------
# rebuild
# ----------------------------------------------------------------------------------------------------


def test_rebuild_of_an_empty_list_yields_nothing(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager()
    layer = make_layer(impl, dm)

    assert list(layer.rebuild([])) == []
    assert dm.calls == [] and node_cls.instances == [] and layer.events == []


def test_rebuild_fetches_each_chunk_without_keywords_and_yields_nodes_in_order(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a", "b", "c"))
    layer = make_layer(impl, dm)
    ids = ["c", "a", "b"]

    nodes = list(layer.rebuild(ids))

    assert nodes == node_cls.instances and len(nodes) == 3
    assert [node.node_id for node in nodes] == ids
    assert all(node.built == 1 for node in nodes)
    assert [node.dset for node in nodes] == [dm.chunks[i] for i in ids]
    assert [call[0] for call in dm.calls] == ["get_by_nodes"] * 3
    for (node_ids, kwargs), node_id in zip(dm.raw, ids):
        assert type(node_ids) is list and node_ids == [node_id] and node_ids is not ids
        assert kwargs == {}
    assert layer.named("_rebuild_node") == [((dm.chunks[i], i), {}) for i in ids]
    assert layer.named("get_buffer") == []


def test_rebuild_yields_what_rebuild_node_returns(impl) -> None:
    made: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _rebuild_node(self, dset: Any, node_id: Any) -> Any:
            made.append((object(), node_id))
            return made[-1][0]

    layer = Layer(RawDataManager(chunks=chunks("a", "b")), None, 100, RecordingParent())

    assert list(layer.rebuild(["a", "b"])) == [made[0][0], made[1][0]]


def test_rebuild_of_the_buffer_uses_get_buffer_only(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager()
    layer = make_layer(impl, dm, buffer_rows=4)
    buffer = layer.buffer

    (node,) = list(layer.rebuild([impl.BUFFER_NODE_ID]))

    assert node is node_cls.instances[0] and node.node_id == "buffer"
    assert layer.named("get_buffer") == [((), {})]
    assert dm.raw == []
    assert layer.named("_rebuild_node") == [((buffer, "buffer"), {})]
    assert node.dset is buffer


def test_rebuild_of_the_buffer_sees_removed_samples_excluded(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager(removed=np.array([901]))
    layer = make_layer(impl, dm, buffer_rows=4)

    (node,) = list(layer.rebuild(["buffer"]))

    assert rows_of(node.dset) == [900, 902, 903]
    assert [call[0] for call in dm.calls] == ["get_removed"]


def test_rebuild_of_the_buffer_without_buffer_passes_none(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager()
    layer = make_layer(impl, dm)

    (node,) = list(layer.rebuild(["buffer"]))

    assert node.dset is None and node.node_id == "buffer"
    assert layer.named("_rebuild_node") == [((None, "buffer"), {})]
    assert dm.raw == []


class EqualsBuffer(str):
    """A chunk id that compares equal to the buffer's id although it is spelled differently."""

    def __eq__(self, other: Any) -> bool:
        return other == "buffer" or str.__eq__(self, other)

    __hash__ = str.__hash__


def test_rebuild_compares_ids_with_the_buffer_id_by_equality(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager()
    layer = make_layer(impl, dm, buffer_rows=2)

    list(layer.rebuild([EqualsBuffer("other")]))

    assert dm.raw == [] and len(layer.named("get_buffer")) == 1


@pytest.mark.parametrize(
    "ids, type_name",
    [(("a",), "tuple"), (None, "NoneType"), (np.array(["a"]), "numpy.ndarray")],
    ids=["tuple", "none", "array"],
)
def test_rebuild_refuses_anything_but_a_list_at_the_call(impl, monkeypatch, ids, type_name) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)

    with pytest.raises(TypeError) as info:
        layer.rebuild(ids)

    message = str(info.value)
    assert message.startswith("Argument 'chunk_ids' has incorrect type (expected list, got ")
    assert message.endswith(f"{type_name.split('.')[-1]})")
    assert dm.calls == [] and node_cls.instances == []


def test_rebuild_refuses_a_list_subclass(impl) -> None:
    class IdList(list):
        pass

    layer = make_layer(impl, RawDataManager(chunks=chunks("a")))

    expected = r"Argument 'chunk_ids' has incorrect type \(expected list, got IdList\)"
    with pytest.raises(TypeError, match=expected):
        layer.rebuild(IdList(["a"]))


def test_rebuild_argument_count_message(impl) -> None:
    layer = make_layer(impl, RawDataManager())

    compiled = impl is chunk_layer
    with pytest.raises(TypeError, match=r"takes exactly 2 positional arguments \(1 given\)" if compiled
                       else r"missing 1 required positional argument: 'chunk_ids'"):
        layer.rebuild()
    with pytest.raises(TypeError, match=r"takes exactly 2 positional arguments \(3 given\)" if compiled
                       else r"takes 2 positional arguments but 3 were given"):
        layer.rebuild([], [])


def test_rebuild_fetches_nothing_before_the_first_next(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm, buffer_rows=2)

    gen = layer.rebuild(["a", "buffer"])

    assert dm.calls == [] and layer.events == [] and node_cls.instances == []
    gen.close()


def test_rebuild_fetches_duplicates_twice(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)

    nodes = list(layer.rebuild(["a", "a"]))

    assert len(nodes) == 2 and nodes[0] is not nodes[1]
    assert len(node_cls.instances) == 2
    assert [raw[0] for raw in dm.raw] == [["a"], ["a"]]


def test_taking_one_node_fetches_only_the_first_chunk(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm)

    gen = layer.rebuild(["a", "b"])
    first = next(gen)

    assert first.node_id == "a"
    assert [raw[0] for raw in dm.raw] == [["a"]]
    assert len(node_cls.instances) == 1
    gen.close()
    assert [raw[0] for raw in dm.raw] == [["a"]]


def test_rebuild_sees_a_list_changed_while_suspended(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a", "b", "c", "d"))
    layer = make_layer(impl, dm)
    ids = ["a", "b"]

    gen = layer.rebuild(ids)
    first = next(gen)
    ids[1] = "c"
    ids.append("d")
    rest = list(gen)

    assert [node.node_id for node in [first, *rest]] == ["a", "c", "d"]
    assert [raw[0] for raw in dm.raw] == [["a"], ["c"], ["d"]]


def test_rebuild_sees_a_list_shortened_while_suspended(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm)
    ids = ["a", "b"]

    gen = layer.rebuild(ids)
    next(gen)
    ids.pop()

    assert list(gen) == []
    assert [raw[0] for raw in dm.raw] == [["a"]]


def test_rebuild_reads_data_as_it_stands_when_reached(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm, buffer_rows=2)

    gen = layer.rebuild(["a", "buffer"])
    next(gen)
    layer.set_buffer(list(make_dataset(3, start=500)))
    (buffer_node,) = list(gen)

    assert rows_of(buffer_node.dset) == [500, 501, 502]


def test_rebuild_errors_propagate_and_finish_the_generator(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)

    gen = layer.rebuild(["a", "missing", "a"])
    first = next(gen)
    with pytest.raises(KeyError):
        next(gen)

    assert first.node_id == "a" and first.built == 1
    assert list(gen) == []
    assert [raw[0] for raw in dm.raw] == [["a"], ["missing"]]


# ----------------------------------------------------------------------------------------------------
# filter_out_samples
# ----------------------------------------------------------------------------------------------------


def test_filter_with_nothing_to_filter_returns_empty_float64(impl) -> None:
    dm = RawDataManager()
    layer = make_layer(impl, dm, buffer_rows=3)
    predicate = Predicate()

    result = layer.filter_out_samples(predicate, [], with_buffer=False)

    assert isinstance(result, np.ndarray)
    assert result.dtype == np.float64 and result.shape == (0,)
    assert predicate.calls == []
    assert layer.named("has_buffer") == []
    assert dm.calls == []


def test_filter_fetches_each_node_with_props(impl) -> None:
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm)
    predicate = Predicate()
    ids = ["b", "a"]

    layer.filter_out_samples(predicate, ids, with_buffer=False)

    assert [call[0] for call in dm.calls] == ["get_by_nodes", "get_by_nodes"]
    for (node_ids, kwargs), node_id in zip(dm.raw, ids):
        assert type(node_ids) is list and node_ids == [node_id]
        assert kwargs == {"with_props": True}
        assert kwargs["with_props"] is True


def test_filter_passes_the_four_fields_positionally(impl) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)
    predicate = Predicate()

    layer.filter_out_samples(predicate, ["a"], with_buffer=False)

    ((args, kwargs),) = predicate.calls
    dset = dm.chunks["a"]
    assert kwargs == {}
    assert len(args) == 4
    assert args[0] is dset.ind and args[1] is dset.X and args[2] is dset.y and args[3] is dset.props


def test_filter_concatenates_results_as_float64(impl) -> None:
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm)
    predicate = Predicate([np.array([3, 5]), np.array([7])])

    result = layer.filter_out_samples(predicate, ["a", "b"], with_buffer=False)

    assert result.dtype == np.float64 and result.shape == (3,)
    np.testing.assert_array_equal(result, np.array([3.0, 5.0, 7.0]))


def test_filter_with_only_empty_results_returns_empty_float64(impl) -> None:
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm, buffer_rows=2)
    predicate = Predicate([np.array([], dtype=int), [], np.array([], dtype=int)])

    result = layer.filter_out_samples(predicate, ["a", "b"])

    assert len(predicate.calls) == 3
    assert result.dtype == np.float64 and result.shape == (0,)


def test_filter_skips_empty_results(impl) -> None:
    class EmptySized:
        """Has a length of zero but is nothing numpy could concatenate."""

        def __len__(self) -> int:
            return 0

    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm)
    predicate = Predicate([EmptySized(), [4, 2]])

    result = layer.filter_out_samples(predicate, ["a", "b"], with_buffer=False)

    np.testing.assert_array_equal(result, [4.0, 2.0])
    assert result.dtype == np.float64


def test_filter_consumes_node_ids_lazily_in_step(impl) -> None:
    events: List[Any] = []
    dm = RawDataManager(events=events, chunks=chunks("a", "b", "c"))
    layer = make_layer(impl, dm)
    predicate = Predicate(events=events)

    def ids() -> Iterator[str]:
        for node_id in ("a", "b", "c"):
            events.append(("id", node_id))
            yield node_id

    layer.filter_out_samples(predicate, ids(), with_buffer=False)

    assert events == [
        ("id", "a"), ("get_by_nodes", "a"), ("filter", [0]),
        ("id", "b"), ("get_by_nodes", "b"), ("filter", [10]),
        ("id", "c"), ("get_by_nodes", "c"), ("filter", [20]),
    ]


def test_filter_with_buffer_but_none_held_filters_only_nodes(impl) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)
    predicate = Predicate([np.array([1])])

    result = layer.filter_out_samples(predicate, ["a"])

    assert len(predicate.calls) == 1
    assert layer.named("has_buffer") == [((), {})]
    np.testing.assert_array_equal(result, [1.0])


def test_filter_with_buffer_filters_it_last(impl) -> None:
    dm = RawDataManager(chunks=chunks("a", "b"))
    layer = make_layer(impl, dm, buffer_rows=3)
    buffer = layer.buffer
    predicate = Predicate([np.array([1]), np.array([], dtype=int), np.array([901, 902])])

    result = layer.filter_out_samples(predicate, ["a", "b"])

    assert len(predicate.calls) == 3
    args, kwargs = predicate.calls[-1]
    assert kwargs == {}
    assert args[0] is buffer.ind and args[1] is buffer.X and args[2] is buffer.y and args[3] is buffer.props
    np.testing.assert_array_equal(result, [1.0, 901.0, 902.0])
    assert layer.buffer is buffer


def test_filter_reads_the_raw_buffer_including_removed_samples(impl) -> None:
    dm = RawDataManager(removed=np.array([900, 901]))
    layer = make_layer(impl, dm, buffer_rows=3)
    predicate = Predicate()

    layer.filter_out_samples(predicate, [])

    ((args, _),) = predicate.calls
    assert list(args[0]) == [900, 901, 902]
    assert layer.named("get_buffer") == []
    assert dm.calls == []


@pytest.mark.parametrize("with_buffer", [False, 0, None, ""])
def test_filter_without_buffer_never_asks_for_it(impl, with_buffer) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm, buffer_rows=3)
    predicate = Predicate()

    layer.filter_out_samples(predicate, ["a"], with_buffer)

    assert len(predicate.calls) == 1
    assert layer.named("has_buffer") == []


def test_filter_skips_the_buffer_when_has_buffer_is_false(impl) -> None:
    class Layer(subclass(impl.ChunkLayer, Recording)):
        def has_buffer(self) -> bool:
            self.events.append(("has_buffer", (), {}))
            return False

    dm = RawDataManager()
    layer = Layer(dm, None, 100, RecordingParent())
    layer.set_buffer(list(make_dataset(3)))
    predicate = Predicate()

    layer.filter_out_samples(predicate, [])

    assert predicate.calls == []
    assert layer.named("has_buffer") == [((), {})]


def test_filter_predicate_result_without_length_fails(impl) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)

    with pytest.raises(TypeError):
        layer.filter_out_samples(lambda ind, X, y, props: None, ["a"], with_buffer=False)


def test_filter_predicate_error_propagates(impl) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm)

    def predicate(ind: Any, X: Any, y: Any, props: Any) -> Any:
        raise LookupError("predicate failed")

    with pytest.raises(LookupError, match="predicate failed"):
        layer.filter_out_samples(predicate, ["a"], with_buffer=False)


def test_filter_argument_count_messages(impl) -> None:
    layer = make_layer(impl, RawDataManager())

    compiled = impl is chunk_layer
    with pytest.raises(TypeError, match=r"takes at least 3 positional arguments \(2 given\)" if compiled
                       else r"missing 1 required positional argument: 'node_ids'"):
        layer.filter_out_samples(Predicate())
    with pytest.raises(TypeError, match=r"takes at most 4 positional arguments \(5 given\)" if compiled
                       else r"takes from 3 to 4 positional arguments but 5 were given"):
        layer.filter_out_samples(Predicate(), [], True, None)


def test_filter_changes_nothing(impl) -> None:
    dm = RawDataManager(chunks=chunks("a"))
    layer = make_layer(impl, dm, buffer_rows=3)
    buffer = layer.buffer
    ind_before = buffer.ind.copy()

    layer.filter_out_samples(Predicate([np.array([900])]), ["a"])

    assert layer.buffer is buffer
    np.testing.assert_array_equal(layer.buffer.ind, ind_before)
    assert [call[0] for call in dm.calls] == ["get_by_nodes"]
