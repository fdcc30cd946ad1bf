"""Helpers shared by the chunk layer's tests: datasets, and recording stand-ins for the objects the
layer and its nodes call (data manager, parent, node class)."""

from __future__ import annotations

import functools
import os
import threading
from pathlib import Path
from types import ModuleType
from typing import Any, Dict, List, Optional, Tuple

import numpy as np

from quillmarsh.data.common import Dataset


def make_dataset(rows: int, start: int = 0, features: int = 3, *, y: bool = True, props: bool = False,
                 orig: bool = False) -> Dataset:
    """A dataset whose sample indices run from `start`; every value of row i encodes its index."""
    ind = np.arange(start, start + rows)
    X = np.repeat(ind[:, None], features, axis=1).astype(float)
    return Dataset(
        ind,
        X,
        ind * 10.0 if y else None,
        None,
        ind * 100 if props else None,
        X * 2 if orig else None,
    )


class Sentinel:
    """A plain object with a readable name, to be passed through and recognised by identity."""

    def __init__(self, name: str) -> None:
        self.name = name

    def __repr__(self) -> str:
        return f"<{self.name}>"


class ThreadRecordingCallback:
    """An `after_create_leaf_node` callback that records (node, leaf index, thread), from any thread."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.seen: List[Tuple[Any, Any, threading.Thread]] = []

    def __call__(self, node: Any, leaf: Any) -> None:
        with self.lock:
            self.seen.append((node, leaf, threading.current_thread()))


class CallRecorder:
    """A callable that records its positional and keyword arguments, then raises `error` if one is
    given, else returns `result`."""

    def __init__(self, result: Any = None, error: Optional[BaseException] = None) -> None:
        self.calls: List[Tuple[tuple, dict]] = []
        self.result = result
        self.error = error

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        if self.error is not None:
            raise self.error
        return self.result


class RecordingParent:
    """Stands in for the tree: counts `update_build_params()` calls."""

    def __init__(self) -> None:
        self.calls = 0

    def update_build_params(self) -> None:
        self.calls += 1


class RecordingDataManager:
    """Stands in for the data manager and records every call made on it, in order."""

    def __init__(self, removed=None, verbose: int = 0, n_instances=None, n_jobs=None, chunks=None) -> None:
        self.removed = removed
        self.verbose = verbose
        self.n_instances = n_instances
        self.n_jobs = n_jobs
        self.chunks = dict(chunks or {})
        self.calls: List[Tuple[str, tuple, dict]] = []

    def get_removed(self):
        self.calls.append(("get_removed", (), {}))
        return self.removed

    def get_by_nodes(self, node_ids, **kwargs):
        self.calls.append(("get_by_nodes", (list(node_ids),), kwargs))
        return self.chunks[node_ids[0]]

    def save_selected_samples_async(self, *args, **kwargs):
        self.calls.append(("save_selected_samples_async", args, kwargs))


class FakeNode:
    """Stands in for `ChunkNode` (patched into the module): records its construction and build."""

    instances: List[FakeNode] = []

    def __init__(self, dset=None, params=None, node_id=None, data_manager=None, **extra: Any) -> None:
        self.dset = dset
        self.params = params
        self.node_id = node_id
        self.data_manager = data_manager
        self.extra = extra
        self.built = 0
        FakeNode.instances.append(self)

    def build(self) -> FakeNode:
        self.built += 1
        return self


class InertNode:
    """Stands in for ChunkNode: keeps the chunk and the id it was given, builds nothing, and, unlike
    FakeNode, is remembered nowhere (so it never keeps a layer alive)."""

    def __init__(self, dset: Any = None, params: Any = None, node_id: Any = None,
                 data_manager: Any = None) -> None:
        self.dset = dset
        self.node_id = node_id

    def build(self) -> InertNode:
        return self


def patch_node_class(impl: ModuleType, monkeypatch) -> type:
    """Replaces the implementation's `ChunkNode` by a fresh recording `FakeNode` class."""

    class Node(FakeNode):
        instances: List[FakeNode] = []

        def __init__(self, *args: Any, **kwargs: Any) -> None:
            super().__init__(*args, **kwargs)
            Node.instances.append(self)

    monkeypatch.setattr(impl, "ChunkNode", Node)
    return Node


# The keys of a layer's `build_params`, in the order `process` inserts them.
BUILD_PARAM_KEYS = [
    "number_of_features",
    "number_of_features_orig",
    "number_of_samples",
    "chunk_size",
    "targets_unique_count",
    "size_bytes",
    "size_MB",
]


@functools.cache
def subclass(base: type, mixin: type) -> type:
    """`base` (a class of one implementation) with the methods of `mixin` first in line; one class a pair."""
    return type(mixin.__name__, (mixin, base), {"__module__": mixin.__module__})


class CreateNodeRecording:
    """Mixed into a layer class: records every `_create_node` call before delegating to the layer's own."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.create_calls: List[Tuple[tuple, dict]] = []

    def _create_node(self, *args: Any, **kwargs: Any) -> Any:
        self.create_calls.append((args, kwargs))
        return super()._create_node(*args, **kwargs)


def rows_of(dataset: Optional[Dataset]) -> List[int]:
    """The sample indices held by a dataset (empty for None)."""
    return [] if dataset is None else [int(i) for i in dataset.ind]


def unpacking_message(value: object, targets: int) -> str:
    """The message with which the plain statement ``a, b, ... = value`` (``targets`` names) fails."""
    names = ", ".join(f"_{i}" for i in range(targets))
    try:
        exec(f"{names} = value", {"value": value})
    except (TypeError, ValueError) as error:
        return str(error)
    raise AssertionError(f"{value!r} unpacks into {targets} names")


def child_environment() -> Dict[str, str]:
    """This process's environment with the folder of these helpers and of the reference first on
    PYTHONPATH: for a script that a test runs in a fresh interpreter."""
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [str(Path(__file__).parent), env.get("PYTHONPATH")]))
    return env
