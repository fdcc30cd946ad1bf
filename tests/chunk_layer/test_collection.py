"""A layer that only a reference cycle keeps alive is collected, whatever generator, callback or node
forms the cycle, and so is everything its generators hold."""

from __future__ import annotations

import gc
import weakref
from typing import Any, Callable, Iterator, List

import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkSensitivitiesParams

from chunk_support import InertNode, RecordingDataManager, RecordingParent, make_dataset
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# About the compiled objects' traversal by the cycle collector: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only


def make_layer(chunk_size: int = 4) -> ChunkLayer:
    dm = RecordingDataManager(chunks={"a": make_dataset(4, 100), "b": make_dataset(4, 200)})
    return ChunkLayer(dm, [], chunk_size, RecordingParent())


# Each generator method, started the way its callers start it.
def start_process(layer: ChunkLayer, callback: Any = None) -> Iterator[Any]:
    return layer.process([make_dataset(6), make_dataset(6, 6)], after_create_leaf_node=callback)


def start_drain(layer: ChunkLayer, callback: Any = None) -> Iterator[Any]:
    layer.set_buffer(make_dataset(12))
    return layer._get_from_buffer(callback)


def start_rebuild(layer: ChunkLayer, callback: Any = None) -> Iterator[Any]:
    return layer.rebuild(["a", "b"])


GENERATORS = [start_process, start_drain, start_rebuild]


def watch(layer: ChunkLayer) -> List[weakref.ref]:
    """Weak references to the layer and, when it has a buffer, to the buffer's arrays."""
    refs = [weakref.ref(layer)]
    if layer.buffer is not None:
        refs += [weakref.ref(field) for field in layer.buffer if field is not None]
    return refs


def assert_collected(refs: List[weakref.ref]) -> None:
    gc.collect()
    assert [ref() for ref in refs] == [None] * len(refs)


@pytest.fixture(autouse=True)
def cheap_nodes(monkeypatch) -> None:
    monkeypatch.setattr(chunk_layer, "ChunkNode", InertNode)


@pytest.mark.parametrize("start", GENERATORS)
@pytest.mark.parametrize("steps", [0, 1])
def test_layer_with_parked_generator_is_collected(start: Callable[..., Iterator[Any]], steps: int) -> None:
    layer = make_layer()
    layer.g = start(layer)
    for _ in range(steps):
        next(layer.g)
    refs = watch(layer) + [weakref.ref(layer.g)]
    del layer
    assert_collected(refs)


@pytest.mark.parametrize("start", GENERATORS)
@pytest.mark.parametrize("steps", [0, 1])
def test_cycle_through_a_callback_is_collected(start: Callable[..., Iterator[Any]], steps: int) -> None:
    layer = make_layer()
    kept: List[Any] = [layer]

    def callback(node: Any, leaf: Any, kept: List[Any] = kept) -> None:
        kept.append(node)

    generator = start(layer, callback)
    kept.append(generator)  # generator -> callback -> layer, and the callback's list -> generator
    for _ in range(steps):
        next(generator)
    refs = watch(layer) + [weakref.ref(generator)]
    del layer, generator, callback, kept
    assert_collected(refs)


@pytest.mark.parametrize("start", GENERATORS)
def test_cycle_through_a_yielded_node_is_collected(start: Callable[..., Iterator[Any]]) -> None:
    layer = make_layer()
    layer.g = start(layer)
    node = next(layer.g)
    node.layer = layer
    layer.node = node
    refs = watch(layer) + [weakref.ref(layer.g), weakref.ref(node)]
    del layer, node
    assert_collected(refs)


def test_suspended_process_holds_its_inner_drain_where_the_collector_sees_it() -> None:
    layer = make_layer()
    datasets = iter([make_dataset(6), make_dataset(6, 6)])
    generator = layer.process(datasets)
    next(generator)
    referents = gc.get_referents(generator)
    reachable = referents + [item for tup in referents if type(tup) is tuple for item in tup]
    assert any(item is layer for item in reachable)
    assert any(item is datasets for item in referents)
    assert any(type(item) is type(generator) and item is not generator for item in referents)


def test_cycle_through_the_datasets_iterable_is_collected() -> None:
    class Datasets:
        def __init__(self, layer: ChunkLayer) -> None:
            self.layer = layer

        def __iter__(self) -> Iterator[Dataset]:
            yield make_dataset(6)
            yield make_dataset(6, 6)

    layer = make_layer()
    layer.g = layer.process(Datasets(layer))
    next(layer.g)
    refs = watch(layer)
    del layer
    assert_collected(refs)


class Holder:
    """A value that refers back to the layer that keeps it."""

    def __init__(self, layer: ChunkLayer) -> None:
        self.layer = layer


def test_cycle_through_the_element_type_a_drain_holds_is_collected() -> None:
    layer = make_layer()
    layer.chunk_corset_params = [ChunkSensitivitiesParams(coreset_params={"dtype": Holder(layer)})]
    layer.g = start_drain(layer)
    next(layer.g)
    refs = watch(layer)
    del layer
    assert_collected(refs)


class FreshChunks(RecordingDataManager):
    """Makes every chunk afresh, with properties that refer back to the layer, and keeps none."""

    layer: Any = None

    def get_by_nodes(self, node_ids: Any, **kwargs: Any) -> Dataset:
        return make_dataset(4)._replace(props=[Holder(self.layer)] * 4)


def test_cycle_through_the_dataset_a_rebuild_holds_is_collected() -> None:
    dm = FreshChunks()
    layer = ChunkLayer(dm, [], 4, RecordingParent())
    dm.layer = layer
    layer.g = layer.rebuild(["a", "b"])
    next(layer.g)
    refs = watch(layer) + [weakref.ref(dm)]
    del layer, dm
    assert_collected(refs)
