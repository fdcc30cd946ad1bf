"""Per-call cost of the chunk layer's operations, timed with pyperf in three implementations: ``module``
(the compiled ``quillmarsh.core.tree.chunk_layer``), ``cython`` (the tests' reference compiled by Cython 3)
and ``python`` (the reference run by the interpreter); see ``peers.py``. The three are timed one after
the other for each operation, so that a change in the machine's load falls on all three alike.

Every collaborator is a no-op stand-in, so that what is timed is the layer itself: a data manager of
plain values, a parent whose ``update_build_params`` does nothing, a task pool that queues nothing, a
preprocessor and a coreset class that hand back what they are given, standard output that keeps nothing,
and
``ChunkNode`` replaced by a trivial class for the layer's operations (the node's own operations use the
implementation's real one). Arrays have 2 to 4 rows, so that numpy's share is small. A statement that
changes state starts by putting it back (``layer.buffer = half; ...``), in every implementation alike.
pyperf calibrates the loops and runs each benchmark, named "OPERATION | IMPLEMENTATION", in worker
processes; ``split`` makes one file per implementation of the results, for pyperf's ``compare_to``:

    python benchmarks/bench_chunk_layer.py -o build/bench/all.json [--fast]
    python benchmarks/bench_chunk_layer.py --split build/bench/all.json
    python -m pyperf compare_to build/bench/module.json build/bench/cython.json build/bench/python.json
"""

from __future__ import annotations

import os
import sys

# One BLAS thread: the benchmark measures call overhead, and shares two cores with other work.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import json  # noqa: E402
from pathlib import Path  # noqa: E402
from types import ModuleType, SimpleNamespace  # noqa: E402
from typing import Any, Dict, List  # noqa: E402

import numpy as np  # noqa: E402
import peers  # noqa: E402
import pyperf  # noqa: E402

from quillmarsh.core.tree import chunk_layer  # noqa: E402
from quillmarsh.data.common import Dataset  # noqa: E402

IMPLEMENTATIONS = {"module": lambda: chunk_layer, "cython": peers.cython, "python": peers.python}
CHUNK_SIZE = 4


class DataManager:
    """A data manager whose attributes are plain values and whose operations return at once."""

    verbose = 0

    def __init__(self, n_jobs: Any = None, n_instances: Any = None, removed: Any = None, chunk: Any = None):
        self.n_jobs, self.n_instances, self.removed, self.chunk = n_jobs, n_instances, removed, chunk
        features = [SimpleNamespace(name="a"), SimpleNamespace(name="b")]
        self.data_params = SimpleNamespace(features=features, drop_rows_below=0, drop_cols_above=1.0)
        self.data_params_internal = SimpleNamespace(categorical_features_=[],
                                                    aggregated_missing_replacements=None)

    def get_removed(self) -> Any:
        return self.removed

    def get_by_nodes(self, node_ids: Any, with_props: bool = False) -> Any:
        return self.chunk

    def cat_encoding_config_clear(self) -> None:
        return None

    def save_selected_samples_async(self, dset: Any, indices: Any, node_id: Any, is_buffer: Any = False):
        return None


class Parent:
    def update_build_params(self) -> None:
        return None


class TrivialNode:
    """Stands in for ``ChunkNode`` in the layer's operations: keeps its dataset, its build returns itself."""

    def __init__(self, dset, params, node_id=None, tree_build_params=None, data_manager=None):
        self.dset, self.params, self.node_id = dset, params, node_id

    def build(self) -> TrivialNode:
        return self


class Processor:
    """Stands in for ``DataAutoProcessor``: keeps the arrays it is given and hands them back."""

    def __init__(self, X, y, ind, props, feature_names, **settings: Any) -> None:
        self.X, self.y, self.ind, self.props, self.feature_names = X, y, ind, props, feature_names
        self.removed_rows = None

    def handle_missing_and_categorical_encoding(self, sparse_threshold):
        return self.X

    def get_processed_arrays(self):
        return self.y, self.X, self.ind


class Coreset:
    """Stands in for a coreset class: takes any keyword, computes nothing."""

    def __init__(self, **params: Any) -> None:
        self.safe_mode = False

    def compute_sensitivities(self, X, y) -> None:
        return None

    def to_dict(self, with_important, use_keep_selected_only) -> Dict[str, Any]:
        return {}


class Pool:
    """Stands in for the shared task pool (``ThreadPoolManager()``): queues nothing."""

    def __call__(self) -> Pool:
        return self

    def add_to_queue(self, task, check, priority, chunk, leaf_index) -> None:
        return None

    def has_running_tasks(self) -> bool:
        return False


def make_dataset(rows: int, start: int = 0) -> Dataset:
    ind = np.arange(start, start + rows, dtype=np.int64)
    return Dataset(ind, np.arange(2 * rows, dtype=np.float64).reshape(rows, 2), np.arange(rows) % 2.0)


def namespace(impl: ModuleType) -> Dict[str, Any]:
    """The names the statements see, for one implementation, whose globals get the stand-ins."""
    real_node = impl.ChunkNode
    for name, stand_in in (("ChunkNode", TrivialNode), ("DataAutoProcessor", Processor),
                           ("ThreadPoolManager", Pool())):
        setattr(impl, name, stand_in)
    full, dm, parent = make_dataset(CHUNK_SIZE), DataManager(chunk=make_dataset(CHUNK_SIZE)), Parent()
    params = [impl.ChunkSensitivitiesParams(coreset_params={"dtype": "float32"}, coreset_cls=Coreset)]
    layer_print = impl.ChunkLayer(DataManager(n_instances=1000), params, CHUNK_SIZE, parent)
    layer_print.build_params = {"chunk_size": CHUNK_SIZE}
    return {
        "ChunkNode": real_node, "ChunkLayer": impl.ChunkLayer, "exclude_removed": impl.exclude_removed,
        "Coreset": Coreset, "dm": dm, "parent": parent, "params": params, "full": full,
        "half": make_dataset(2), "incoming": make_dataset(2, start=2), "fields": list(full),
        "ind": full.ind, "removed": np.array([1]), "base": np.arange(3), "extra": np.arange(3, 5),
        "upd_ind": np.array([1]), "upd_y": np.array([5.0]), "items1": [full],
        "items8": [make_dataset(2, start=2 * i) for i in range(8)], "ids1": ["c1"],
        "ids8": [f"c{i}" for i in range(8)], "pred": lambda ind, X, y, props: ind[:1],
        "node": real_node(full, params, "n1", None, dm),
        "build_node": real_node(full, params, "n1", None, dm),
        "layer": impl.ChunkLayer(dm, params, CHUNK_SIZE, parent),
        "layer_par": impl.ChunkLayer(DataManager(n_jobs=2), params, CHUNK_SIZE, parent),
        "layer_rm": impl.ChunkLayer(DataManager(removed=np.array([0])), params, CHUNK_SIZE, parent),
        "layer_print": layer_print, "sys": sys, "out": sys.stdout, "devnull": open(os.devnull, "w"),
    }


#: (name, statement): one call of the operation, after the reset it needs.
OPERATIONS = [
    ("ChunkNode(...)", 'ChunkNode(full, params, "n1", None, dm)'),
    ("ChunkNode(...) new id", "ChunkNode(full, params)"),
    ("ChunkNode.build", "build_node.coresets.clear(); build_node.build()"),
    ("ChunkNode.save", "node.save(dm)"),
    ("ChunkNode.is_buffer", "node.is_buffer()"),
    ("ChunkNode.add_indices", "node.indices = base; node.add_indices(extra)"),
    ("exclude_removed, none removed", "exclude_removed(None, ind, full)"),
    ("exclude_removed, removals", "exclude_removed(removed, ind, full)"),
    ("ChunkLayer(...)", "ChunkLayer(dm, params, 4, parent)"),
    ("has_buffer", "layer.buffer = half; layer.has_buffer()"),
    ("get_buffer, removals", "layer_rm.buffer = half; layer_rm.get_buffer()"),
    ("set_buffer", "layer.set_buffer(fields)"),
    ("remove_from_buffer", "layer.buffer = half; layer.remove_from_buffer(removed)"),
    ("update_buffer", "layer.buffer = half; layer.update_buffer(upd_ind, None, upd_y)"),
    ("_add_to_buffer", "layer.buffer = half; layer._add_to_buffer(incoming)"),
    ("_create_node", "layer._create_node(full)"),
    ("create_buffer_node", "layer.buffer = half; layer.create_buffer_node()"),
    ("_print_progress", "sys.stdout = devnull; layer_print._print_progress(0.0123, 2); sys.stdout = out"),
    ("drain step, sequential", "layer.buffer = full\nfor _ in layer._get_from_buffer(): pass"),
    ("drain step, parallel", "layer_par.buffer = full\nfor _ in layer_par._get_from_buffer(): pass"),
    ("process step", "layer.buffer = None\nfor _ in layer.process(items1, False, False): pass"),
    ("process step (classification)",
     "layer.buffer = None\nfor _ in layer.process(items1, False, True): pass"),
    ("process over 8 datasets", "layer.buffer = None\nfor _ in layer.process(items8, False, False): pass"),
    ("rebuild over 8 ids", "for _ in layer.rebuild(ids8): pass"),
    ("filter_out_samples over 8 ids", "layer.buffer = half; layer.filter_out_samples(pred, ids8)"),
]


def split(path: Path) -> List[Path]:
    """One pyperf file per implementation beside ``path``, each benchmark named by its operation alone."""
    suite = json.loads(path.read_text())
    written = []
    for impl in IMPLEMENTATIONS:
        part = dict(suite, benchmarks=[])
        for benchmark in suite["benchmarks"]:
            operation, _, of = benchmark["metadata"]["name"].rpartition(" | ")
            if of == impl:
                metadata = dict(benchmark["metadata"], name=operation)
                part["benchmarks"].append(dict(benchmark, metadata=metadata))
        written.append(path.with_name(f"{impl}.json"))
        written[-1].write_text(json.dumps(part))
    return written


def main() -> None:
    if sys.argv[1:2] == ["--split"]:
        print(" ".join(str(p) for p in split(Path(sys.argv[2]))))
        return
    runner = pyperf.Runner()
    names = {impl: namespace(load()) for impl, load in IMPLEMENTATIONS.items()}
    for operation, statement in OPERATIONS:
        for impl in IMPLEMENTATIONS:
            runner.timeit(f"{operation} | {impl}", stmt=statement, globals=names[impl])


if __name__ == "__main__":
    main()
