"""What the coreset tree keeps besides its open nodes: the ids it holds, and its nodes' rows on disk.

Every node of the tree can be merged again from its two children when rows leave a leaf, so the tree
keeps every node. Those that already have a parent are written to files and read back only then; only
the nodes without a parent (at most one per level) stay in memory.
"""

from __future__ import annotations

import os
import threading
from typing import Any, Dict, Iterator, NamedTuple, Optional, Set, Tuple

import numpy as np

from quillmarsh.data.manager import _atomic_write

NodeKey = Tuple[int, int, int]
"""A node's place: (coreset object, level, index within the level); leaves are level 0."""


class Coreset(NamedTuple):
    """The weighted summary of a stream.

    Attributes
    ----------
    ids : ndarray of shape (m,), int64
        The id of each row, leading back to the source rows.
    X : ndarray of shape (m, n_features), float64
        The rows' features (after preprocessing for tables).
    y : ndarray of shape (m,) or None
        The rows' targets; None when the stream has none.
    weights : ndarray of shape (m,), float64
        The rows' weights; they sum to an unbiased estimate of the row count.
    """

    ids: np.ndarray
    X: np.ndarray
    y: Optional[np.ndarray]
    weights: np.ndarray


class IdRanges:
    """A set of ids as sorted, disjoint half-open ranges: a running row count is one range."""

    def __init__(self, starts: Optional[np.ndarray] = None, ends: Optional[np.ndarray] = None) -> None:
        self.starts = np.empty(0, dtype=np.int64) if starts is None else np.asarray(starts, dtype=np.int64)
        self.ends = np.empty(0, dtype=np.int64) if ends is None else np.asarray(ends, dtype=np.int64)

    def present(self, ids: np.ndarray) -> np.ndarray:
        """Return the mask of the ``ids`` in the set."""
        position = np.searchsorted(self.starts, ids, side="right") - 1
        inside = position >= 0
        mask = np.zeros(ids.shape[0], dtype=bool)
        mask[inside] = ids[inside] < self.ends[position[inside]]
        return mask

    def add(self, ids: np.ndarray) -> None:
        """Add distinct ids that are not in the set."""
        if ids.size == 0:
            return
        ordered = np.sort(ids)
        breaks = np.flatnonzero(np.diff(ordered) != 1) + 1
        starts = np.concatenate([self.starts, ordered[np.r_[0, breaks]]])
        ends = np.concatenate([self.ends, ordered[np.r_[breaks - 1, ordered.size - 1]] + 1])
        order = np.argsort(starts, kind="stable")
        starts, ends = starts[order], ends[order]
        apart = starts[1:] != ends[:-1]  # ranges that touch become one
        self.starts = starts[np.r_[True, apart]]
        self.ends = ends[np.r_[apart, True]]


def write_atomic(path: str, arrays: Dict[str, Any], durable: bool = False) -> None:
    """Write ``arrays`` as one ``.npz`` file through a temporary name, so no reader sees half a file.

    ``durable`` also waits until the file is on disk: for saves, not for the tree's working files,
    which a crash makes useless anyway.
    """
    _atomic_write(path, lambda stream: np.savez(stream, **arrays), durable)


def rows_to_arrays(rows: Coreset) -> Dict[str, Any]:
    arrays: Dict[str, Any] = {"ids": rows.ids, "X": rows.X, "weights": rows.weights}
    if rows.y is not None:
        arrays["y"] = rows.y
    return arrays


def rows_from_file(path: str) -> Coreset:
    """Read a node's rows from its file; never unpickles (targets are numbers or label codes)."""
    with np.load(path, allow_pickle=False) as data:
        return Coreset(data["ids"], data["X"], data["y"] if "y" in data.files else None, data["weights"])


def node_file_name(key: NodeKey) -> str:
    return "t{}-l{}-i{}.npz".format(*key)


class NodeStore:
    """The rows of every node, by key: the open nodes (no parent yet) in memory, the others in files.

    Thread-safe: leaves built on the task pool place and merge their nodes from its threads. Only a
    rebuild after a removal reads a node that has a parent: without ``keep_closed`` such nodes are
    dropped, not written.
    """

    def __init__(self, folder: str, keep_closed: bool = True) -> None:
        self.folder = folder
        self.keep_closed = keep_closed
        os.makedirs(folder, exist_ok=True)
        self.lock = threading.Lock()
        self.open: Dict[NodeKey, Coreset] = {}
        self.closed: Set[NodeKey] = set()

    def put_open(self, key: NodeKey, rows: Coreset) -> Optional[Coreset]:
        """Keep ``rows`` as the open node ``key``, unless its sibling arrived meanwhile: then return that."""
        t, level, index = key
        with self.lock:
            sibling = self.open.pop((t, level, index ^ 1), None)
            if sibling is None:
                self.open[key] = rows
            return sibling

    def put_closed(self, key: NodeKey, rows: Coreset) -> None:
        if not self.keep_closed:
            return
        write_atomic(os.path.join(self.folder, node_file_name(key)), rows_to_arrays(rows))
        with self.lock:
            self.closed.add(key)

    def get(self, key: NodeKey) -> Coreset:
        with self.lock:
            rows = self.open.get(key)
        return rows if rows is not None else rows_from_file(os.path.join(self.folder, node_file_name(key)))

    def replace(self, key: NodeKey, rows: Coreset) -> None:
        """Give an existing node new rows, where it is kept."""
        with self.lock:
            if key in self.open:
                self.open[key] = rows
                return
        self.put_closed(key, rows)

    def exists(self, key: NodeKey) -> bool:
        with self.lock:
            return key in self.open or key in self.closed

    def open_nodes(self, t: int) -> Iterator[Tuple[NodeKey, Coreset]]:
        """Return the open nodes of coreset object ``t``, highest level first, then by index."""
        with self.lock:
            items = [(key, rows) for key, rows in self.open.items() if key[0] == t]
        items.sort(key=lambda item: (-item[0][1], item[0][2]))
        return iter(items)
