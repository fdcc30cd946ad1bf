"""Module-level names read from a namespace that other code watches, unwatches or fills with odd keys,
on one side: the compiled module ("module") or its plain-Python reference ("reference", found on
the PYTHONPATH that the test gives).
Prints what the calls saw as one JSON object.

    namespace_corners.py SIDE
"""

from __future__ import annotations

import ctypes
import gc
import importlib
import json
import sys
import weakref

import numpy as np

from quillmarsh.data.common import Dataset

DICT_EVENT_MODIFIED = 1
WATCHER_BITS = 8  # the low bits of a dict's version tag, one per watcher


def side_module(side: str):
    if side == "module":
        return importlib.import_module("quillmarsh.core.tree.chunk_layer")
    return importlib.import_module("reference")


class NodeId(str):
    """A node id that is a new object each time, so that only the namespace keeps it alive."""


def node_of(layer_module, node_id: str):
    rows = Dataset(np.arange(2), np.zeros((2, 2)), None, None, None, None)
    return layer_module.ChunkNode(rows, [], node_id=node_id)


WATCH_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p,
                                  ctypes.c_void_p)


kept_callbacks = []  # a watcher's callback must outlive it


def add_watcher(callback) -> int:
    kept_callbacks.append(callback)
    add = ctypes.pythonapi.PyDict_AddWatcher
    add.argtypes, add.restype = [WATCH_CALLBACK], ctypes.c_int
    return add(callback)


def watch(watcher: int, namespace: dict) -> None:
    ctypes.pythonapi.PyDict_Watch.argtypes = [ctypes.c_int, ctypes.py_object]
    ctypes.pythonapi.PyDict_Watch(watcher, namespace)


def watchers_of(namespace: dict) -> list:
    tag = ctypes.c_uint64.from_address(id(namespace) + 2 * ctypes.sizeof(ctypes.c_void_p) +
                                       ctypes.sizeof(ctypes.c_ssize_t)).value
    return [watcher for watcher in range(WATCHER_BITS) if tag >> watcher & 1]


def another_watcher_calls_in_the_window(layer_module) -> dict:
    """Another extension's watcher calls a method between the announcement of a change and the
    change: there the method sees the old value; after the change, the new one; and the old value
    goes with the change."""
    namespace = vars(layer_module)
    node = node_of(layer_module, "leaf")
    namespace["BUFFER_NODE_ID"] = NodeId("other")
    seen = {"before": node.is_buffer()}
    old_value = weakref.ref(namespace["BUFFER_NODE_ID"])

    def on_change(event, dict_address, key_address, value_address):
        key = ctypes.cast(key_address, ctypes.py_object).value if key_address else None
        if event == DICT_EVENT_MODIFIED and key == "BUFFER_NODE_ID":
            seen.setdefault("in the window", node.is_buffer())
        return 0

    callback = WATCH_CALLBACK(on_change)
    watch(add_watcher(callback), namespace)
    namespace["BUFFER_NODE_ID"] = NodeId("leaf")
    gc.collect()
    seen["old value alive"] = old_value() is not None
    seen["after"] = node.is_buffer()
    namespace["BUFFER_NODE_ID"] = "buffer"
    seen["after another change"] = node.is_buffer()
    return seen


def watchers_cleared_and_unwatched(layer_module) -> dict:
    """Other code clears every watcher of the namespace, or unwatches it: later changes are still
    seen by the next call."""
    namespace = vars(layer_module)
    node = node_of(layer_module, "leaf")
    seen = {}
    namespace["BUFFER_NODE_ID"] = "other"
    seen["first"] = node.is_buffer()
    for watcher in watchers_of(namespace):
        ctypes.pythonapi.PyDict_Unwatch.argtypes = [ctypes.c_int, ctypes.py_object]
        ctypes.pythonapi.PyDict_Unwatch(watcher, namespace)
    namespace["BUFFER_NODE_ID"] = "leaf"
    seen["after unwatching"] = node.is_buffer()
    namespace["BUFFER_NODE_ID"] = "other"
    seen["again"] = node.is_buffer()
    for watcher in watchers_of(namespace):
        ctypes.pythonapi.PyDict_ClearWatcher.argtypes = [ctypes.c_int]
        ctypes.pythonapi.PyDict_ClearWatcher(watcher)
    namespace["BUFFER_NODE_ID"] = "leaf"
    seen["after clearing the watcher"] = node.is_buffer()
    namespace["BUFFER_NODE_ID"] = "other"
    seen["last"] = node.is_buffer()
    return seen


def a_key_that_compares_with_side_effects(layer_module) -> dict:
    """A key of the namespace with the hash of a module-level name and an __eq__ that counts: every
    look-up of the name compares with it."""
    namespace = vars(layer_module)
    node = node_of(layer_module, "buffer")

    class SameHash:
        compared = 0

        def __hash__(self):
            return hash("BUFFER_NODE_ID")

        def __eq__(self, other):
            SameHash.compared += 1
            return False

    node.is_buffer()
    # The odd key goes in first, so that a look-up of the name meets it before the name itself.
    value = namespace.pop("BUFFER_NODE_ID")
    namespace[SameHash()] = None
    namespace["BUFFER_NODE_ID"] = value
    counts = []
    for _ in range(3):
        SameHash.compared = 0
        node.is_buffer()
        counts.append(SameHash.compared)
    return {"comparisons per call": counts}


if __name__ == "__main__":
    module = side_module(sys.argv[1])
    outcome = {}
    if sys.version_info >= (3, 12):  # dict watchers
        outcome["window"] = another_watcher_calls_in_the_window(module)
        outcome["cleared"] = watchers_cleared_and_unwatched(module)
    outcome["odd key"] = a_key_that_compares_with_side_effects(module)  # last: the key stays
    print(json.dumps(outcome))
