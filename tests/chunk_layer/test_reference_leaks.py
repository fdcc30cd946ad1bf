"""No call of the module keeps a reference it should not: every public callable is called 10,000
times, on its success and its error paths, with sentinel arguments, and afterwards the sentinels'
reference counts and the number of live objects are back where they started."""

from __future__ import annotations

import gc
import sys
from typing import Callable, Sequence

import numpy as np
import pytest

from chunk_support import RecordingParent, make_dataset
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# About the reference counts kept by compiled code: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only

CALLS = 10_000


def assert_no_leak(step: Callable[[], None], sentinels: Sequence[object], calls: int = CALLS) -> None:
    """Runs `step` a few times to warm caches, then `calls` times, and compares."""
    for _ in range(20):
        step()
    gc.collect()
    counts_before = [sys.getrefcount(sentinel) for sentinel in sentinels]
    objects_before = len(gc.get_objects())
    for _ in range(calls):
        step()
    gc.collect()
    counts_after = [sys.getrefcount(sentinel) for sentinel in sentinels]
    objects_after = len(gc.get_objects())
    assert counts_after == counts_before
    # A leak of one object per call would add `calls` objects; allow for caches of the runtime.
    assert objects_after - objects_before < 100


def raises(error: type, call: Callable[[], object]) -> Callable[[], None]:
    def step() -> None:
        try:
            call()
        except error:
            pass
        else:  # pragma: no cover - the error path must be taken
            raise AssertionError("no error raised")

    return step


class QuietManager:
    """A data manager with plain attributes and no-op operations."""

    def __init__(self, n_jobs=None, verbose=0, n_instances=None, removed=None, chunks=None):
        self.n_jobs = n_jobs
        self.verbose = verbose
        self.n_instances = n_instances
        self.removed = removed
        self.chunks = chunks or {}

    def get_removed(self):
        return self.removed

    def get_by_nodes(self, node_ids, with_props=False):
        return self.chunks[node_ids[0]]

    def save_selected_samples_async(self, dset, indices, node_id, is_buffer=False):
        return None


class LightNode:
    """Stands in for ChunkNode: construction and build cost nothing."""

    def __init__(self, dset, params, node_id, data_manager):
        self.dset = dset
        self.node_id = node_id

    def build(self):
        return self


@pytest.fixture
def light_nodes(monkeypatch):
    monkeypatch.setattr(chunk_layer, "ChunkNode", LightNode)


def test_exclude_removed(monkeypatch):
    removed = np.array([2, 5])
    indices = np.arange(10)
    dataset = Dataset(indices, np.ones((10, 2)), None)
    assert_no_leak(
        lambda: chunk_layer.exclude_removed(removed, indices, dataset), [removed, indices, dataset]
    )
    assert_no_leak(lambda: chunk_layer.exclude_removed(None, indices, dataset), [indices, dataset])
    assert_no_leak(lambda: chunk_layer.exclude_removed(removed, indices), [removed, indices])
    unsized = object()
    assert_no_leak(
        raises(TypeError, lambda: chunk_layer.exclude_removed(unsized, indices, dataset)),
        [unsized, indices, dataset],
    )


def test_argument_errors_of_every_kind():
    sentinel = object()
    function = chunk_layer.exclude_removed
    assert_no_leak(raises(TypeError, lambda: function(sentinel)), [sentinel])
    assert_no_leak(raises(TypeError, lambda: function(sentinel, sentinel, sentinel, sentinel)), [sentinel])
    assert_no_leak(raises(TypeError, lambda: function(sentinel, sentinel, unknown=sentinel)), [sentinel])
    assert_no_leak(raises(TypeError, lambda: function(sentinel, sentinel, removed=sentinel)), [sentinel])
    assert_no_leak(raises(TypeError, lambda: function.__call__(sentinel, **{1: sentinel})), [sentinel])
    assert_no_leak(raises(TypeError, lambda: chunk_layer.ChunkLayer(sentinel, chunk_size=True)), [sentinel])
    layer = chunk_layer.ChunkLayer(sentinel)
    assert_no_leak(raises(TypeError, lambda: layer.rebuild((sentinel,))), [sentinel, layer])


def test_chunk_node_methods():
    dset = make_dataset(4)
    params = []
    node_id = "node-sentinel-" + "x" * 10
    manager = QuietManager()
    assert_no_leak(
        lambda: chunk_layer.ChunkNode(dset, params, node_id, {}, manager), [dset, params, node_id, manager]
    )
    assert_no_leak(lambda: chunk_layer.ChunkNode(dset, iter(params)), [dset, params])
    node = chunk_layer.ChunkNode(dset, params, node_id, None, manager)
    assert_no_leak(node.is_buffer, [node, node_id])
    assert_no_leak(lambda: node.save(manager), [node, manager, dset])
    assert_no_leak(lambda: node.save(manager, save_all=True), [node, manager, dset])
    assert_no_leak(node.build, [node, dset])
    extra = np.arange(3)

    def grow_and_reset():
        node.add_indices(extra)
        node.indices = None
        node.add_indices(extra)

    assert_no_leak(grow_and_reset, [node, extra])
    assert_no_leak(raises(ValueError, lambda: node.add_indices(np.ones((2, 2)))), [node])

    class Coreset:
        def __init__(self, **kwargs):
            self.kwargs = kwargs

    coreset_params = {"k": 3}
    assert_no_leak(lambda: node._instantiate_coreset(Coreset, coreset_params), [Coreset, coreset_params])
    assert_no_leak(raises(TypeError, lambda: node._instantiate_coreset(Coreset, {1: 2})), [Coreset])


def test_chunk_node_build_with_stand_in_collaborators(monkeypatch):
    class Feature:
        name = "f"

    class Manager(QuietManager):
        class data_params:  # noqa: N801 - mirrors the data manager's attribute
            features = [Feature(), Feature()]
            drop_rows_below = 0.0
            drop_cols_above = 1.0

        class data_params_internal:  # noqa: N801
            categorical_features_ = []
            aggregated_missing_replacements = None

        def cat_encoding_config_clear(self):
            return {}

    class Processor:
        def __init__(self, **kwargs):
            self.X, self.y, self.ind, self.props = kwargs["X"], kwargs["y"], kwargs["ind"], kwargs["props"]
            self.removed_rows = np.array([], dtype=int)
            self.feature_names = kwargs["feature_names"]

        def handle_missing_and_categorical_encoding(self, sparse_threshold):
            return self.X

        def get_processed_arrays(self):
            return self.y, self.ind, self.props

    class Coreset:
        def __init__(self, **kwargs):
            pass

        def compute_sensitivities(self, X, y):
            return None

        def to_dict(self, with_important, use_keep_selected_only):
            return {"n": 1}

    monkeypatch.setattr(chunk_layer, "DataAutoProcessor", Processor)
    dset = make_dataset(5)
    params = [
        chunk_layer.ChunkSensitivitiesParams(coreset_cls=Coreset),
        chunk_layer.ChunkSensitivitiesParams(),
    ]
    manager = Manager()
    assert_no_leak(
        lambda: chunk_layer.ChunkNode(dset, params[:1], None, None, manager).build(),
        [dset, params[0], manager],
    )
    # the second record has no class to call: the build fails in its second pass
    assert_no_leak(
        raises(TypeError, lambda: chunk_layer.ChunkNode(dset, params, None, None, manager).build()),
        [dset, params[1], manager],
    )


def test_buffer_operations():
    manager = QuietManager()
    parent = RecordingParent()
    layer = chunk_layer.ChunkLayer(manager, None, 4, parent, 0)
    incoming = make_dataset(3, props=True)
    assert_no_leak(lambda: layer.set_buffer(None), [layer])
    assert_no_leak(layer.has_buffer, [layer])

    def add_twice_then_clear():
        layer._add_to_buffer(incoming)
        layer._add_to_buffer(incoming)
        layer.set_buffer()

    assert_no_leak(add_twice_then_clear, [layer, incoming, parent])
    layer.set_buffer(list(make_dataset(6)))
    assert_no_leak(layer.has_buffer, [layer])
    assert_no_leak(layer.get_buffer_size, [layer])
    assert_no_leak(layer.get_buffer, [layer, manager])
    manager.removed = np.array([1])
    assert_no_leak(layer.get_buffer, [layer, manager, manager.removed])
    new_y = np.array([7.0])
    keys = np.array([2])
    assert_no_leak(lambda: layer.update_buffer(keys, None, new_y), [layer, new_y, keys])
    buffer = layer.buffer
    assert_no_leak(lambda: (layer.remove_from_buffer([]), layer.set_buffer(buffer)), [layer, buffer])
    assert_no_leak(
        raises(ValueError, lambda: layer.update_buffer(np.array([2, 3]), None, new_y)), [layer, new_y]
    )
    # a buffered field that is None cannot take incoming rows: numpy refuses, the buffer stays
    assert_no_leak(raises(ValueError, lambda: layer._add_to_buffer(incoming)), [layer, incoming, buffer])
    layer.parent = None
    plain = make_dataset(3)
    assert_no_leak(
        raises(AttributeError, lambda: (layer.set_buffer(buffer), layer._add_to_buffer(plain))),
        [layer, plain, buffer],
    )


def test_node_creation_and_progress(light_nodes, monkeypatch):
    monkeypatch.setattr(chunk_layer, "print", lambda line: None, raising=False)
    manager = QuietManager(verbose=1, n_instances=100)
    layer = chunk_layer.ChunkLayer(manager, [], 10, RecordingParent())
    layer.build_params = {"chunk_size": 10}
    dset = make_dataset(10)
    assert_no_leak(lambda: layer._create_node(dset, None, 3), [layer, dset])
    assert_no_leak(lambda: layer._rebuild_node(dset, "an-id"), [layer, dset])
    assert_no_leak(lambda: layer._print_progress(0.5, 20), [layer])
    layer.set_buffer(list(dset))
    callback_calls = []
    callback = callback_calls.append

    def create_buffer_node():
        layer.create_buffer_node(lambda node, index: callback(index))

    assert_no_leak(create_buffer_node, [layer, dset])
    assert len(callback_calls) == CALLS + 20
    layer.build_params = None
    assert_no_leak(raises(AttributeError, lambda: layer._print_progress(0.5, 1)), [layer])


def test_generators_run_to_the_end_abandoned_thrown_into_and_closed(light_nodes):
    manager = QuietManager()
    layer = chunk_layer.ChunkLayer(manager, [], 3, RecordingParent())
    datasets = [make_dataset(4, start=0), make_dataset(4, start=4)]

    def whole_stream():
        nodes = list(layer.process(datasets, create_buffer=True))
        assert len(nodes) == 3
        layer.set_buffer(None)

    assert_no_leak(whole_stream, [layer, datasets[0], datasets[1]], calls=3000)

    def abandoned():
        stream = layer.process(datasets)
        next(stream)
        del stream
        layer.set_buffer(None)

    assert_no_leak(abandoned, [layer, datasets[0]], calls=3000)

    def thrown_into():
        stream = layer.process(datasets)
        next(stream)
        try:
            stream.throw(KeyError("stop"))
        except KeyError:
            pass
        layer.set_buffer(None)

    assert_no_leak(thrown_into, [layer, datasets[0]], calls=3000)

    def closed_unstarted_and_suspended():
        layer.process(datasets).close()
        stream = layer.process(datasets)
        next(stream)
        stream.close()
        layer.set_buffer(None)

    assert_no_leak(closed_unstarted_and_suspended, [layer, datasets[0]], calls=3000)
    assert_no_leak(raises(TypeError, lambda: next(layer.process(None))), [layer])
    assert_no_leak(raises(TypeError, lambda: layer.process().send(1)), [layer])


def test_parallel_drain_with_a_stand_in_pool(light_nodes, monkeypatch):
    queued = []

    class Pool:
        def add_to_queue(self, task, check, priority, chunk, leaf_index):
            queued.append((task, check, chunk, leaf_index))

        def has_running_tasks(self):
            return True

    pool = Pool()
    monkeypatch.setattr(chunk_layer, "ThreadPoolManager", lambda: pool)
    monkeypatch.setattr(chunk_layer, "evaluate_max_batch_size", lambda n_features, available, dtype: 1)
    manager = QuietManager(n_jobs=2)
    layer = chunk_layer.ChunkLayer(manager, [], 2, RecordingParent())
    dataset = make_dataset(4)
    received = []

    def callback(node, leaf_index):
        received.append(leaf_index)

    def queue_and_run():
        layer._add_to_buffer(dataset)
        assert list(layer._get_from_buffer(callback)) == [None, None]
        for task, check, chunk, leaf_index in queued:
            assert check(chunk, leaf_index) is False
            task(chunk, leaf_index)
        queued.clear()

    assert_no_leak(queue_and_run, [layer, dataset, callback], calls=3000)
    assert len(received) == 2 * 3020


def test_rebuild_and_filter_out_samples(light_nodes):
    chunk = make_dataset(5, props=True)
    manager = QuietManager(chunks={"a": chunk, "b": chunk})
    layer = chunk_layer.ChunkLayer(manager, [], 5, RecordingParent())
    layer.set_buffer(list(make_dataset(2, start=50)))
    ids = ["a", "buffer", "b"]
    assert_no_leak(lambda: list(layer.rebuild(ids)), [layer, chunk, ids])

    def first_only():
        rebuilding = layer.rebuild(ids)
        next(rebuilding)

    assert_no_leak(first_only, [layer, chunk, ids])
    assert_no_leak(raises(KeyError, lambda: list(layer.rebuild(["missing"]))), [layer])
    picked = np.array([1, 2])

    def predicate(ind, X, y, props):
        return picked

    assert_no_leak(lambda: layer.filter_out_samples(predicate, ids[::2]), [layer, chunk, picked])
    assert_no_leak(lambda: layer.filter_out_samples(predicate, iter(["a"]), False), [layer, chunk, picked])
    assert_no_leak(
        raises(TypeError, lambda: layer.filter_out_samples(lambda *fields: None, ["a"])), [layer, chunk]
    )


def test_records():
    value = object()
    assert_no_leak(lambda: chunk_layer.ChunkSensitivitiesParams(value, value, 3, value), [value])
    assert_no_leak(lambda: chunk_layer.ChunkSensitivities(coreset=value, params=value), [value])
