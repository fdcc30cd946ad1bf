"""Ends the interpreter while a daemon thread is inside each public callable of the chunk layer
module. Every thread is parked in a collaborator that never returns, so the interpreter ends it at
finalisation while the module's frames are on its stack. Exits with status 7 when every thread got
inside; 99 (and the names of the laggards) otherwise.

With `--after-sub-interpreter`, a sub-interpreter that never sees the module is made and destroyed
first: from then on the interpreter's own test of whether a thread holds the lock answers yes in
every thread."""

from __future__ import annotations

import sys
import threading
import time

import numpy as np
from quillmarsh.core.tree.chunk_layer import (
    ChunkLayer,
    ChunkNode,
    ChunkSensitivitiesParams,
    exclude_removed,
)

from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

entered: dict = {}


def stuck(*args, **kwargs):
    """Never returns: tells the main thread that this thread is inside, then waits forever."""
    entered[threading.current_thread().name].set()
    while True:
        time.sleep(0.001)


class Stuck:
    """Any attribute read, iteration, length, comparison or call gets stuck."""

    __getattr__ = __iter__ = __len__ = __eq__ = __call__ = __array__ = stuck
    __hash__ = object.__hash__


class Manager:
    verbose = 1
    n_instances = None
    n_jobs = None

    def __init__(self, **stuck_methods):
        self.__dict__.update(stuck_methods)

    def get_removed(self):
        return None


class Parent:
    def update_build_params(self):
        pass


class StuckRecord(Dataset):
    @property
    def ind(self):
        return stuck()


class StuckInit(ChunkLayer):
    def __setattr__(self, name, value):
        stuck()


class StuckIndicesNode(ChunkNode):
    @property
    def indices(self):
        return stuck()

    @indices.setter
    def indices(self, value):
        pass


def data(rows=4):
    ind = np.arange(rows)
    return Dataset(ind, np.zeros((rows, 2)), np.zeros(rows), None, None, None)


def layer(manager=None, buffer=None, chunk_size=2):
    result = ChunkLayer(manager or Manager(), [], chunk_size, Parent())
    result.buffer = buffer
    return result


def stuck_shape():
    return Dataset(np.arange(2), Stuck(), None, None, None, None)


def real_node(**kwargs):
    return ChunkNode(data(), [], **kwargs)


def make_and_destroy_a_sub_interpreter() -> None:
    try:
        import _interpreters as interpreters  # 3.13 on
    except ImportError:
        import _xxsubinterpreters as interpreters
    interpreter = interpreters.create()
    interpreters.run_string(interpreter, "x = 1")
    interpreters.destroy(interpreter)


def main() -> None:
    if "--after-sub-interpreter" in sys.argv[1:]:
        make_and_destroy_a_sub_interpreter()
    # Module-level names are looked up at call time, so these reach every method that uses them.
    chunk_layer.print = stuck
    chunk_layer.align_arrays_by_key = stuck
    real_chunk_node = chunk_layer.ChunkNode
    chunk_layer.ChunkNode = stuck
    stuck_params = [ChunkSensitivitiesParams(coreset_params={}, coreset_cls=stuck)]

    calls = {
        "ChunkLayer.__init__": lambda: StuckInit(Manager()),
        "has_buffer": lambda: layer(buffer=stuck_shape()).has_buffer(),
        "get_buffer_size": lambda: layer(buffer=stuck_shape()).get_buffer_size(),
        "get_buffer": lambda: layer(Manager(get_removed=stuck), data()).get_buffer(),
        "set_buffer": lambda: layer().set_buffer(Stuck()),
        "_add_to_buffer": lambda: ChunkLayer(Manager(), [], 2, Stuck())._add_to_buffer(data()),
        "remove_from_buffer": lambda: layer(buffer=StuckRecord(*data())).remove_from_buffer([1]),
        "update_buffer": lambda: layer(buffer=data()).update_buffer(np.arange(2)),
        "_create_node": lambda: layer()._create_node(data()),
        "_rebuild_node": lambda: layer()._rebuild_node(data(), "a"),
        "create_buffer_node": lambda: layer(buffer=data()).create_buffer_node(),
        "_print_progress": lambda: layer()._print_progress(0.5, 0),
        "process": lambda: next(layer().process([data()])),
        "_get_from_buffer": lambda: next(layer(buffer=data())._get_from_buffer()),
        "rebuild": lambda: next(layer(Manager(get_by_nodes=stuck)).rebuild(["a"])),
        "filter_out_samples": lambda: layer(Manager(get_by_nodes=lambda ids, **k: data())).filter_out_samples(
            stuck, ["a"]),
        "ChunkNode.__init__": lambda: real_chunk_node(data(), Stuck()),
        "ChunkNode.build": lambda: real_chunk_node(data(), stuck_params, data_manager=Manager()).build(),
        "ChunkNode.save": lambda: real_node(data_manager=Manager()).save(Manager(
            save_selected_samples_async=stuck)),
        "ChunkNode.is_buffer": lambda: real_node(node_id=Stuck()).is_buffer(),
        "ChunkNode.add_indices": lambda: StuckIndicesNode(data(), []).add_indices(np.arange(2)),
        "ChunkNode._instantiate_coreset": lambda: real_node()._instantiate_coreset(stuck, {}),
        "exclude_removed": lambda: exclude_removed(Stuck(), np.arange(3), None),
    }
    for name, call in calls.items():
        entered[name] = threading.Event()
        threading.Thread(target=call, name=name, daemon=True).start()
    laggards = [name for name, event in entered.items() if not event.wait(10)]
    if laggards:
        print("never got inside:", ", ".join(laggards), file=sys.stderr)
        sys.exit(99)
    sys.exit(7)


if __name__ == "__main__":
    main()
