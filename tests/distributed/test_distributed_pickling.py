"""The chunk layer's public objects pickle by reference: through pickle and through a worker process.

The pickle tests need nothing but the library; the worker tests need Dask and skip without it.
"""

from __future__ import annotations

import pickle
import sys

import numpy as np
import pytest
from quillmarsh.core.tree.chunk_layer import (
    ChunkLayer,
    ChunkNode,
    ChunkSensitivities,
    ChunkSensitivitiesParams,
)

from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField

PROTOCOLS = range(pickle.HIGHEST_PROTOCOL + 1)
DATA_PARAMS = DataParams(features=[FeatureField("a"), FeatureField("b")])


def manager():
    """A data manager as each process makes its own: in memory, sequential."""
    return DataManager(data_params=DATA_PARAMS, n_jobs=1)


@pytest.fixture
def worker(client):
    """The shared cluster's client. The functions below run on its workers, which cannot import this
    test module, so it is sent to them by value."""
    import cloudpickle

    cloudpickle.register_pickle_by_value(sys.modules[__name__])
    return client


def dataset(start=0, rows=60):
    rng = np.random.default_rng(start)
    return Dataset(np.arange(start, start + rows), rng.normal(size=(rows, 2)), rng.normal(size=rows))


def params():
    return [
        ChunkSensitivitiesParams(coreset_cls=CoresetKMeans, coreset_params={"k": 3, "random_state": 1}),
        ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression, coreset_params={"random_state": 1},
                                 coreset_size=20, chunk_id="c-1"),
    ]


class Tree:
    def update_build_params(self):
        pass


def built_node():
    """A built chunk node that no longer holds its data manager."""
    node = ChunkNode(dataset(), params(), node_id="n-1", data_manager=manager()).build()
    node.data_manager = None
    return node


def same_node(a, b):
    assert type(a) is type(b) is ChunkNode
    assert a.node_id == b.node_id and a.params == b.params and a.data_manager is None is b.data_manager
    assert all(np.array_equal(x, y) for x, y in zip(a.dset, b.dset) if x is not None)
    assert np.array_equal(a.indices, b.indices)
    assert [r.params for r in a.coresets] == [r.params for r in b.coresets]
    assert [r.no_features for r in a.coresets] == [r.no_features for r in b.coresets]
    for x, y in zip(a.coresets, b.coresets):
        assert np.array_equal(x.coreset["weights"], y.coreset["weights"])
        assert np.array_equal(x.removed_rows, y.removed_rows)


PUBLIC_CLASSES = [ChunkNode, ChunkLayer, ChunkSensitivitiesParams, ChunkSensitivities, Dataset]


@pytest.mark.parametrize("cls", PUBLIC_CLASSES)
@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_the_classes_pickle_by_reference(cls, protocol):
    data = pickle.dumps(cls, protocol=protocol)
    assert pickle.loads(data) is cls
    assert cls.__qualname__.encode() in data and cls.__module__.encode() in data


def test_the_module_function_and_methods_pickle_by_reference():
    for function in (chunk_layer.exclude_removed, ChunkNode.build, ChunkLayer.process):
        assert pickle.loads(pickle.dumps(function)) is function


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_records_round_trip_through_pickle(protocol):
    record = params()[1]
    again = pickle.loads(pickle.dumps(record, protocol=protocol))
    assert type(again) is ChunkSensitivitiesParams and again == record and again is not record
    assert pickle.loads(pickle.dumps(ChunkSensitivitiesParams(), protocol=protocol)).coreset_size == 10
    sensitivities = built_node().coresets[0]
    again = pickle.loads(pickle.dumps(sensitivities, protocol=protocol))
    assert type(again) is ChunkSensitivities
    assert again.params == sensitivities.params and again.no_features == sensitivities.no_features == 2
    assert np.array_equal(again.coreset["idxs"], sensitivities.coreset["idxs"])
    d = dataset()
    again = pickle.loads(pickle.dumps(d, protocol=protocol))
    assert type(again) is Dataset and again._fields == d._fields
    assert np.array_equal(again.X, d.X) and again.props is None


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_chunk_node_round_trips_through_pickle(protocol):
    node = built_node()
    node.add_indices(np.array([3, 4]))
    again = pickle.loads(pickle.dumps(node, protocol=protocol))
    same_node(node, again)
    assert not again.is_buffer()


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_chunk_layer_round_trips_through_pickle_when_its_attributes_allow(protocol):
    layer = ChunkLayer(None, params(), 50, Tree(), 7)
    layer.set_buffer(dataset(0, 30))
    again = pickle.loads(pickle.dumps(layer, protocol=protocol))
    assert type(again) is ChunkLayer
    assert again.chunk_corset_params == layer.chunk_corset_params
    assert (again.chunk_size, again.chunk_index, again.build_params) == (50, 7, None)
    assert again.get_buffer_size() == 30 and np.array_equal(again.buffer.ind, layer.buffer.ind)
    # The copy works: with a data manager of its own it cuts and builds chunks.
    again.data_manager = manager()
    nodes = list(again.process([dataset(30, 40)], create_buffer=True))
    assert [len(node.dset.ind) for node in nodes] == [50, 20]


def test_a_data_manager_does_not_pickle_so_neither_does_what_holds_one():
    # The manager holds a lock and a saver thread: each process makes its own from picklable settings.
    held = manager()
    holders = (held, ChunkLayer(held, params(), 50), ChunkNode(dataset(), params(), data_manager=held))
    for holder in holders:
        with pytest.raises(TypeError, match="pickle"):
            pickle.dumps(holder)
    assert pickle.loads(pickle.dumps(DATA_PARAMS)) == DATA_PARAMS


def echo(value):
    """Runs on a worker: return the value as the worker unpickled it, with where its class came from."""
    return value, type(value).__module__, type(value).__qualname__


def build_there(node):
    """Runs on a worker: give the node a data manager made there, build it, and send it back without it."""
    node.data_manager = manager()
    node.build()
    node.data_manager = None
    return node


def test_objects_round_trip_through_a_worker(worker):
    layer = ChunkLayer(None, params(), 50, Tree(), 3)
    layer.set_buffer(dataset(0, 10))
    objects = [built_node(), layer, params()[0], built_node().coresets[1], dataset()]
    for value in objects:
        again, module, name = worker.submit(echo, value, pure=False).result()
        assert (module, name) == (type(value).__module__, type(value).__qualname__)
        assert type(again) is type(value)
    node, *_ = worker.submit(echo, objects[0], pure=False).result()
    same_node(objects[0], node)
    again, *_ = worker.submit(echo, layer, pure=False).result()
    assert again.chunk_index == 3 and again.get_buffer_size() == 10
    assert worker.submit(echo, objects[2], pure=False).result()[0] == objects[2]


def test_a_node_built_on_a_worker_comes_back_with_its_coresets(worker):
    node = ChunkNode(dataset(), params(), node_id="remote")
    built = worker.submit(build_there, node, pure=False).result()
    assert type(built) is ChunkNode and built.node_id == "remote"
    assert [type(record) for record in built.coresets] == [ChunkSensitivities, ChunkSensitivities]
    assert [record.params for record in built.coresets] == params()
    assert built.coresets[0].coreset["n_samples"] == 60
    assert node.coresets == []  # the client's node was sent, not shared
