"""The coreset tree: a stream of any length summarised in one weighted coreset of a fixed size.

Rows reach the tree in blocks. The chunk layer buffers them, cuts full chunks and builds every chunk
into a leaf: the chunk preprocessed, and the sensitivities of its rows for each coreset object. The tree
samples each leaf down to ``coreset_size`` rows and merges them by merge and reduce: two nodes of one
level become one node of the next, the union of their weighted rows reduced again to ``coreset_size``
rows by weighted sensitivities. So after ``L`` leaves the tree holds one open node per set bit of
``L``, at most ``ceil(log2 L) + 1`` nodes of ``coreset_size`` rows each in memory, whatever the
stream's length. The summary combines those nodes and the rows that wait in the layer's buffer the
same way.

Every leaf's chunk is stored through the data manager, and every node that already has a parent is
written to a file, all under ``data_dir``: so rows can be removed later by rebuilding only the leaves
that held them and merging again only the nodes on their paths.
"""

from __future__ import annotations

import numbers
import os
import shutil
import tempfile
import threading
import weakref
from dataclasses import dataclass
from typing import Any, Callable, Dict, Iterable, List, Optional, Sequence, Tuple, Union

import numpy as np
import pandas as pd
from quillmarsh.core.tree.chunk_layer import BUFFER_NODE_ID, ChunkLayer, ChunkNode, ChunkSensitivitiesParams
from sklearn.utils.validation import has_fit_parameter

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.core.coreset.sampling import sample_rows
from quillmarsh.core.tree._store import Coreset, IdRanges, NodeKey, NodeStore
from quillmarsh.data.common import Dataset
from quillmarsh.data.feature_space import FeatureSpace
from quillmarsh.data.manager import DataManager, DataParams, FeatureField
from quillmarsh.timing import STAGES
from quillmarsh.validation import check_positive_int

__all__ = ["Coreset", "CoresetTree"]

CHUNK_SIZE_FACTOR = 10
"""The default ``chunk_size`` is this many times ``coreset_size``: each leaf keeps a tenth of its rows."""

# Seed-sequence words that set the summary's and the buffer's random streams apart from the nodes'.
_FINAL_NODE = 2**32 - 1
_BUFFER_NODE = 2**32 - 2

CHUNKS_DIR = "chunks"
NODES_DIR = "nodes"


@dataclass
class _Leaf:
    """A leaf's stored chunk: its node id and the range and count of the ids it holds now."""

    node_id: str
    low: int
    high: int
    rows: int

    @classmethod
    def holding(cls, node_id: str, ids: np.ndarray) -> _Leaf:
        """Return the leaf of the chunk ``node_id`` whose kept rows have ``ids``.

        ``ids`` is empty when preprocessing dropped every row.
        """
        if not ids.size:
            return cls(node_id, 0, -1, 0)
        return cls(node_id, int(ids.min()), int(ids.max()), int(ids.size))


def _union(parts: Sequence[Coreset]) -> Coreset:
    """Return the rows of all ``parts`` in order; narrower feature matrices are padded with zero columns.

    The stream's feature space only ever appends columns, and an earlier row holds none of the later
    categories, so zero is right for the columns it lacks.
    """
    width = max(part.X.shape[1] for part in parts)
    X = np.concatenate(
        [np.pad(p.X, ((0, 0), (0, width - p.X.shape[1]))) if p.X.shape[1] < width else p.X for p in parts]
    )
    ys = [part.y for part in parts if part.y is not None]
    y = np.concatenate(ys) if len(ys) == len(parts) else None
    return Coreset(
        ids=np.concatenate([part.ids for part in parts]),
        X=X,
        y=y,
        weights=np.concatenate([part.weights for part in parts]),
    )


@dataclass
class Reducer:
    """How every node of a tree is made, as a plain, picklable record: a leaf's sample and a merge.

    Each node draws from its own random stream, seeded by the tree's entropy and the node's place, so
    a node is the same wherever and whenever it is computed (on the caller's thread, on the task
    pool, on a Dask worker, or again after a removal).
    """

    templates: List[CoresetBase]
    coreset_size: int
    entropy: int

    def rng(self, t: int, level: int, index: int) -> np.random.Generator:
        """Return the random stream of one node.

        Parameters
        ----------
        t : int
            The coreset object's position in ``templates``.
        level : int
            The node's level (0 for the leaves).
        index : int
            The node's position in its level.

        Returns
        -------
        numpy.random.Generator
            A generator seeded by ``entropy`` and the node's place.
        """
        return np.random.default_rng([self.entropy, t, level, index])

    def leaf(self, node: ChunkNode, leaf_index: int, level: int = 0) -> List[Coreset]:
        """Return each coreset object's sample of a built leaf, seeded by the leaf's position.

        Parameters
        ----------
        node : ChunkNode
            The built leaf, with one coreset record per coreset object.
        leaf_index : int
            The leaf's position in the stream.
        level : int, default=0
            The level whose random streams are drawn from; the buffer node has a level of its own.

        Returns
        -------
        list of Coreset
            At most ``coreset_size`` weighted rows per coreset object, in the order of ``templates``.
        """
        with STAGES.measure("leaves"):
            return self._leaf(node, leaf_index, level)

    def _leaf(self, node: ChunkNode, leaf_index: int, level: int) -> List[Coreset]:
        ids = np.asarray(node.dset.ind, dtype=np.int64)
        summaries = []
        for t, record in enumerate(node.coresets):
            rows = _rows_of(record.coreset, ids)
            idxs, weights = sample_rows(
                _sensitivities_of(record.coreset),
                self.coreset_size,
                rows.weights,
                random_state=self.rng(t, level, leaf_index),
            )
            summaries.append(Coreset(rows.ids[idxs], rows.X[idxs], _take(rows.y, idxs), weights))
        return summaries

    def merge(self, t: int, level: int, index: int, left: Coreset, right: Coreset) -> Coreset:
        """Return the node at (level, index), merged from its two children.

        Parameters
        ----------
        t : int
            The coreset object's position in ``templates``.
        level : int
            The merged node's level.
        index : int
            The merged node's position in its level.
        left, right : Coreset
            The two children.

        Returns
        -------
        Coreset
            The union of the children, reduced to ``coreset_size`` rows (see ``reduce``).
        """
        with STAGES.measure("merges"):
            return self.reduce(t, _union([left, right]), self.rng(t, level, index))

    def reduce(self, t: int, rows: Coreset, rng: np.random.Generator) -> Coreset:
        """Reduce weighted rows to ``coreset_size`` rows by weighted sensitivities.

        Parameters
        ----------
        t : int
            The coreset object's position in ``templates``, whose class and parameters compute the
            sensitivities.
        rows : Coreset
            The weighted rows.
        rng : numpy.random.Generator
            The node's random stream.

        Returns
        -------
        Coreset
            The sampled rows with their new weights; ``rows`` itself when it has at most
            ``coreset_size`` rows.
        """
        if rows.ids.size <= self.coreset_size:
            return rows
        params = self.templates[t].get_params()
        params.update(coreset_size=self.coreset_size, random_state=int(rng.integers(2**63 - 1)))
        coreset: CoresetBase = type(self.templates[t])(**params)
        coreset.safe_mode = True  # a tiny or degenerate union is kept as a uniform sample
        sensitivities = coreset.compute_sensitivities(rows.X, rows.y, sample_weight=rows.weights)
        idxs, weights = sample_rows(sensitivities, self.coreset_size, rows.weights, random_state=rng)
        return Coreset(rows.ids[idxs], rows.X[idxs], _take(rows.y, idxs), weights)


class CoresetTree:
    """One bounded, weighted summary of a stream of rows, by merge and reduce over a chunk layer.

    Parameters
    ----------
    coreset : CoresetBase or list of CoresetBase
        The coreset object whose class and parameters every node uses (``get_params``; the tree sets
        ``coreset_size`` and ``random_state``). A list builds one summary per object on the same
        leaves, in one pass.
    coreset_size : int, default=1000
        ``m``: the rows of every node's coreset and of the summary that ``coreset()`` returns.
    chunk_size : int, default=None
        The rows of each leaf; None means ``CHUNK_SIZE_FACTOR * coreset_size`` (10 m).
    n_jobs : int, default=None
        Above 1, the leaves are built on the library's shared task pool, and nodes merge on its
        threads as their children become ready. The summary does not depend on it.
    random_state : None, int or numpy Generator, default=None
        Seeds every node from the seed and the node's position in the tree: the same seed and the
        same blocks give the same summary, with any ``n_jobs``.
    data_dir : str or path, default=None
        Where the leaves' chunks and the nodes' rows are stored. None makes a temporary directory,
        removed by ``close()`` (or at the end of a ``with`` block, or when the tree is collected); a
        given directory is kept.
    client : dask.distributed.Client, default=None
        Builds the leaves and merges the nodes on that Dask cluster (``quillmarsh.distributed.tree``);
        only the nodes' summaries come back. The same seed and blocks give the same summary as
        without it. Tables are encoded on the client (the stream's one feature space), the rest of
        each leaf's build runs on the workers.
    max_categories : int or None, default=100
        Tables: one-hot columns per text column; further categories share one "<other>" column.
    max_text_values : int or None, default=1000
        Tables: a text column with more distinct values in the first chunk that holds it is left out
        (``feature_space_.notes`` names it).
    keep_rows : bool, default=True
        Whether every leaf's chunk and every node that has a parent are stored in ``data_dir``, so
        that ``remove`` and ``remove_where`` can rebuild the leaves that held the rows and the nodes
        above them. A tree that will never remove rows need not: it then writes nothing, not a copy
        of the stream, keeps only the nodes without a parent, and refuses to remove.

    Attributes
    ----------
    coreset_objects : list of CoresetBase
        The coreset objects given (the method ``coreset`` returns the summary).
    n_samples_ : int
        Rows the tree holds: rows added, less the rows removed.
    n_removed_ : int
        Rows removed.
    n_leaves_ : int
        Leaves built so far (full chunks; the rows in the buffer are not a leaf yet).
    n_features_in_ : int or None
        Columns of the blocks added (None before the first block).
    feature_names_in_ : list of str or None
        The column names of table input (None for arrays).

    Notes
    -----
    The tree holds at most ``(ceil(log2 L) + 2) * coreset_size`` rows per coreset object in memory for
    ``L`` leaves, besides the layer's buffer (less than one chunk) and the chunks being built; the
    chunks and the nodes that have a parent are on disk (or, with ``keep_rows=False``, nowhere).

    Examples
    --------
    >>> import numpy as np
    >>> from quillmarsh import CoresetTree
    >>> from quillmarsh.core.coreset import CoresetKMeans
    >>> rng = np.random.default_rng(0)
    >>> with CoresetTree(CoresetKMeans(k=3), coreset_size=50, random_state=0) as tree:
    ...     for _ in range(5):
    ...         _ = tree.add(rng.normal(size=(400, 2)))
    ...     c = tree.coreset()
    >>> c.X.shape, tree.n_leaves_
    ((50, 2), 4)
    """

    def __init__(
        self,
        coreset: Union[CoresetBase, Sequence[CoresetBase]],
        coreset_size: int = 1000,
        chunk_size: Optional[int] = None,
        n_jobs: Optional[int] = None,
        random_state: Union[None, int, np.random.Generator] = None,
        data_dir: Union[str, os.PathLike[str], None] = None,
        client: Any = None,
        max_categories: Optional[int] = 100,
        max_text_values: Optional[int] = 1000,
        keep_rows: bool = True,
    ) -> None:
        if not isinstance(keep_rows, (bool, np.bool_)):
            raise TypeError(f"keep_rows must be True or False, got {keep_rows!r}")
        if isinstance(coreset, CoresetBase):
            templates = [coreset]
        else:
            templates = list(coreset) if isinstance(coreset, (list, tuple)) else []
        if not templates or not all(isinstance(t, CoresetBase) for t in templates):
            raise TypeError("coreset must be a coreset object (a CoresetBase) or a non-empty list of them")
        self.coreset_objects = templates
        self.coreset_size = check_positive_int(coreset_size, "coreset_size")
        self.chunk_size = check_positive_int(chunk_size, "chunk_size", allow_none=True)
        self.n_jobs = check_positive_int(n_jobs, "n_jobs", allow_none=True)
        self.random_state = random_state
        self.client = client
        self.max_categories = check_positive_int(max_categories, "max_categories", allow_none=True)
        self.max_text_values = check_positive_int(max_text_values, "max_text_values", allow_none=True)
        self.keep_rows = bool(keep_rows)
        self._remote: Any = None
        self._entropy = _entropy(random_state)
        self._reducer = Reducer(templates, self.coreset_size, self._entropy)
        if data_dir is None:
            self.data_dir = tempfile.mkdtemp(prefix="quillmarsh-tree-")
            self._cleanup: Optional[Callable[[], Any]] = weakref.finalize(
                self, shutil.rmtree, self.data_dir, ignore_errors=True
            )
        else:
            self.data_dir = os.fspath(data_dir)
            os.makedirs(self.data_dir, exist_ok=True)
            if os.listdir(self.data_dir):
                raise ValueError(
                    f"data_dir {self.data_dir!r} is not empty; load a saved tree with CoresetTree.load"
                )
            self._cleanup = None
        self._store = NodeStore(os.path.join(self.data_dir, NODES_DIR), keep_closed=self.keep_rows)
        self._lock = threading.Lock()
        self._summaries: Dict[int, Coreset] = {}
        self._buffer_rows: Optional[List[Coreset]] = None
        self._layer: Optional[ChunkLayer] = None
        self._leaves: Dict[int, _Leaf] = {}
        self._ids = IdRanges()
        self._kind: Optional[str] = None  # "array" or "frame"
        self._has_y: Optional[bool] = None
        self._n_blocks = 0
        self._next_id = 0  # rows ever added: the default ids go on from here
        self._closed = False
        self.n_samples_ = 0
        self.n_removed_ = 0
        self.n_leaves_ = 0
        self.n_features_in_: Optional[int] = None
        self.feature_names_in_: Optional[List[str]] = None

    # -- the stream -----------------------------------------------------------------------------------

    def add(self, X: Any, y: Any = None, ids: Any = None) -> CoresetTree:
        """Add a block of rows.

        Parameters
        ----------
        X : ndarray of shape (n_rows, n_features) or pandas DataFrame
            A numeric array reaches the summary as given. A DataFrame goes through the library's
            preprocessing, in one feature space for the whole stream (text becomes one-hot columns,
            timestamps seconds, missing values are filled; rows whose target is missing are dropped).
            Every block has the same kind and the same columns.
        y : array-like of shape (n_rows,), default=None
            Targets: given with every block, or with none.
        ids : array-like of int of shape (n_rows,), default=None
            The rows' ids, distinct, never added before; by default the count of rows added before
            (removed ones included) onwards.

        Returns
        -------
        CoresetTree
            The tree itself.

        Raises
        ------
        ValueError, TypeError
            For a block that does not fit the stream; the tree is then left unchanged.
        RuntimeError
            If the tree is closed.
        """
        self._check_open()
        X, y, ids, columns = self._check_block(X, y, ids)
        n = X.shape[0]
        if n == 0:
            return self
        if self._layer is None:
            self._layer = self._make_layer(columns, X.shape[1])
        self._ids.add(ids)
        self._kind = "frame" if columns is not None else "array"
        self._has_y = y is not None
        self.n_features_in_ = X.shape[1]
        self.feature_names_in_ = columns
        self.n_samples_ += n
        self._next_id += n
        self._n_blocks += 1
        self._changed()
        dataset = Dataset(ind=ids, X=X, y=y)
        try:
            for _ in self._layer.process(
                [dataset], create_buffer=False, after_create_leaf_node=self._place_leaf
            ):
                pass
        finally:
            if self._remote is not None:
                self._remote.finish()
        if self._parallel():
            ThreadPoolManager().wait_until_idle()
        return self

    def coreset(self, index: int = 0) -> Coreset:
        """Return the summary of every row the tree holds, for coreset object ``index``.

        Parameters
        ----------
        index : int, default=0
            Which coreset object of the list given at construction.

        Returns
        -------
        Coreset
            ``min(coreset_size, rows)`` weighted rows: the open nodes of the tree and the rows that
            wait in the buffer, reduced to ``coreset_size`` rows by weighted sensitivities.

        Raises
        ------
        TypeError
            If ``index`` is not an int.
        IndexError
            If ``index`` is not the position of a coreset object.
        """
        if isinstance(index, bool) or not isinstance(index, numbers.Integral):
            raise TypeError(f"index must be an int, got {type(index).__name__}")
        if not 0 <= index < len(self.coreset_objects):
            raise IndexError(f"index {index} out of range for {len(self.coreset_objects)} coreset object(s)")
        index = int(index)
        if index not in self._summaries:
            self._summaries[index] = self._summary(index)
        return self._summaries[index]

    def fit(self, estimator: Any, index: int = 0, **fit_params: Any) -> Any:
        """Fit ``estimator`` on the summary with ``sample_weight`` set to its weights, and return it.

        Parameters
        ----------
        estimator : estimator object
            Any object whose ``fit`` takes ``sample_weight``.
        index : int, default=0
            Which coreset object's summary to fit on.
        **fit_params
            Passed on to ``fit``.

        Returns
        -------
        estimator
            The fitted estimator.

        Raises
        ------
        TypeError
            If the estimator's ``fit`` takes no ``sample_weight``, or ``index`` is not an int.
        IndexError
            If ``index`` is not the position of a coreset object.
        ValueError
            If the tree holds no rows.
        """
        if not has_fit_parameter(estimator, "sample_weight"):
            raise TypeError(
                f"{type(estimator).__name__}.fit takes no sample_weight, "
                "so it cannot fit on a weighted coreset"
            )
        summary = self.coreset(index)
        if summary.ids.size == 0:
            raise ValueError("the tree holds no rows yet: add some before fitting")
        return estimator.fit(summary.X, summary.y, sample_weight=summary.weights, **fit_params)

    @property
    def feature_space_(self) -> Optional[FeatureSpace]:
        """The stream's feature space, which encodes tables into the summary's columns.

        None before the first block.
        """
        return None if self._layer is None else self._layer.data_manager.feature_space

    def transform(self, X: Any) -> np.ndarray:
        """Encode rows as the summary's ``X``.

        A table is encoded into the stream's feature space, learning nothing (see
        ``FeatureSpace.transform``); a numeric array is returned as it is, as float64.

        Parameters
        ----------
        X : ndarray or pandas DataFrame
            Rows with the columns of the blocks added.

        Returns
        -------
        ndarray of shape (n_rows, len(feature_names_)), float64
            The encoded rows.

        Raises
        ------
        RuntimeError
            If the tree has no rows yet.
        ValueError
            If ``X`` is not of the kind and columns of the blocks added.
        """
        if self._layer is None:
            raise RuntimeError("the tree has no rows yet: add some first")
        if isinstance(X, pd.DataFrame):
            if self._kind != "frame" or [str(c) for c in X.columns] != self.feature_names_in_:
                raise ValueError(f"X must be a table with the columns {self.feature_names_in_}")
            return self._layer.data_manager.feature_space.transform(X)
        values = np.asarray(X, dtype=np.float64)
        if self._kind != "array" or values.ndim != 2 or values.shape[1] != self.n_features_in_:
            raise ValueError(f"X must be a 2-D array of {self.n_features_in_} columns")
        return values

    @property
    def feature_names_(self) -> List[str]:
        """The names of the summary's feature columns (the processed ones for table input)."""
        if self._layer is None:
            return []
        return list(self._layer.data_manager.feature_space.feature_names)

    # -- removing rows ----------------------------------------------------------------------------------

    def remove(self, ids: Any) -> int:
        """Remove the rows with these ids from the summary, for good.

        The data manager records them as removed. Only the leaves that held them are rebuilt, from
        their stored chunks through the chunk layer, and only the nodes on their paths are merged
        again, each with its own random stream; every other node stays as it was. Rows that wait in
        the buffer leave it.

        Parameters
        ----------
        ids : array-like of int
            Ids the tree holds.

        Returns
        -------
        int
            The number of rows removed.

        Raises
        ------
        KeyError
            When some ids are not held (never added, or removed already); it names up to five, and
            nothing is removed.
        TypeError
            If the ids are not integers.
        RuntimeError
            If the tree is closed, or keeps no rows (``keep_rows=False``).
        """
        self._check_open()
        self._check_keeps_rows()
        raw = np.asarray(ids)
        if raw.size and (raw.dtype.kind not in "iu"):
            raise TypeError(f"ids must be ints, got dtype {raw.dtype}")
        wanted = np.unique(raw.astype(np.int64).ravel())
        if wanted.size == 0:
            return 0
        manager = self._layer.data_manager if self._layer is not None else None
        removed = manager.get_removed() if manager is not None else None
        held = self._ids.present(wanted)
        if removed is not None:
            held &= ~np.isin(wanted, removed)
        if not held.all():
            raise KeyError(f"ids not held by the tree: {_few(wanted[~held])}")
        assert self._layer is not None and manager is not None
        touched = self._leaves_holding(wanted)
        manager.remove_samples(wanted)
        self.n_samples_ -= int(wanted.size)
        self.n_removed_ += int(wanted.size)
        buffer = self._layer.buffer
        if buffer is not None and np.isin(buffer.ind, wanted).any():
            self._layer.remove_from_buffer(wanted)
        self._rebuild_leaves(touched)
        self._changed()
        return int(wanted.size)

    def remove_where(self, predicate: Callable[[Dataset], Any]) -> int:
        """Remove the rows that ``predicate`` selects, in every stored chunk and in the buffer.

        Parameters
        ----------
        predicate : callable
            Called with each stored chunk's ``Dataset`` (the rows as the layer kept them: features
            before encoding, targets, ids in ``ind``), then with the buffer's; returns a boolean mask
            of the rows to remove.

        Returns
        -------
        int
            The number of rows removed (see ``remove``).

        Raises
        ------
        ValueError
            If ``predicate`` does not return a boolean mask of one entry per row.
        RuntimeError
            If the tree is closed, or keeps no rows (``keep_rows=False``).
        """
        self._check_open()
        self._check_keeps_rows()
        if self._layer is None:
            return 0

        def select(ind: np.ndarray, X: np.ndarray, y: Optional[np.ndarray], props: Any) -> np.ndarray:
            mask = np.asarray(predicate(Dataset(ind=ind, X=X, y=y, props=props)))
            if mask.dtype != bool or mask.shape != (len(ind),):
                raise ValueError(
                    f"the predicate must return a boolean mask of shape ({len(ind)},), "
                    f"got {mask.dtype} of shape {mask.shape}"
                )
            selected: np.ndarray = np.asarray(ind)[mask]
            return selected

        leaf_ids = [leaf.node_id for leaf in self._leaves.values() if leaf.rows]
        chosen = self._layer.filter_out_samples(select, leaf_ids, with_buffer=True)
        chosen = np.unique(chosen.astype(np.int64))
        removed = self._layer.data_manager.get_removed()
        if removed is not None:  # the buffer is filtered as stored, removed rows included
            chosen = chosen[~np.isin(chosen, removed)]
        return self.remove(chosen)

    # -- lifetime -----------------------------------------------------------------------------------------

    def close(self) -> None:
        """Finish the pending saves, release the data manager and remove a temporary ``data_dir``.

        Idempotent. A closed tree can still return the summaries it computed, not change.
        """
        if self._closed:
            return
        for t in range(len(self.coreset_objects)):
            self.coreset(t)
        self._closed = True
        if self._layer is not None:
            self._layer.data_manager.close()
        if self._cleanup is not None:
            self._cleanup()

    def __enter__(self) -> CoresetTree:
        """Return the tree, to be closed at the end of the ``with`` block."""
        return self

    def __exit__(self, *exc_info: Any) -> None:
        """Close the tree (see ``close``)."""
        self.close()

    def save(self, path: Union[str, os.PathLike[str]]) -> None:
        """Save the tree to the directory ``path``, atomically; see ``quillmarsh.core.tree.persist``.

        Parameters
        ----------
        path : str or path
            The save's directory; created if needed. An earlier save there is replaced, and stays
            whole and current until the new one is.

        Raises
        ------
        RuntimeError
            If the tree is closed.
        TypeError
            If a coreset object has a parameter that cannot be saved as a plain value.
        """
        from quillmarsh.core.tree.persist import save_tree

        self._check_open()
        save_tree(self, os.fspath(path))

    @classmethod
    def load(
        cls,
        path: Union[str, os.PathLike[str]],
        data_dir: Union[str, os.PathLike[str], None] = None,
        client: Any = None,
    ) -> CoresetTree:
        """Load a tree saved by ``save``; it goes on where the saved one stopped.

        The save is left as it is.

        Parameters
        ----------
        path : str or path
            The directory given to ``save``.
        data_dir : str or path, default=None
            The new tree's own storage; None makes a temporary directory.
        client : dask.distributed.Client, default=None
            Builds the tree's further leaves on that Dask cluster, as in the constructor.

        Returns
        -------
        CoresetTree
            The loaded tree.

        Raises
        ------
        quillmarsh.core.tree.persist.SaveFormatError
            If ``path`` holds no saved tree, or a damaged or newer one; the message names the file.
        """
        from quillmarsh.core.tree.persist import load_tree

        folder = None if data_dir is None else os.fspath(data_dir)
        tree: CoresetTree = load_tree(cls, os.fspath(path), folder, client)
        return tree

    # -- what the chunk layer calls -------------------------------------------------------------------

    def update_build_params(self) -> None:
        """Told by the chunk layer after every addition to its buffer: the buffer's summary is stale."""
        self._buffer_rows = None

    def _place_leaf(self, node: Any, leaf_index: Optional[int]) -> None:
        """Place a leaf built by the chunk layer: store its chunk, sample it, merge it up."""
        assert self._layer is not None
        if self._remote is not None:  # a leaf being built on the cluster: merged up there
            leaf = _Leaf.holding(node.node_id, np.asarray(node.ids))
            with self._lock:
                self._leaves[node.index] = leaf
                self.n_leaves_ += 1
            self._remote.place(node)
            return
        if leaf_index is None:  # sequential build: the layer counts the leaf after this call
            leaf_index = self._layer.chunk_index
        if self.keep_rows:
            node.save(self._layer.data_manager, save_all=True)
        ids = np.asarray(node.dset.ind, dtype=np.int64)
        leaf = _Leaf.holding(node.node_id, ids)
        summaries = self._reducer.leaf(node, leaf_index)
        with self._lock:
            self._leaves[leaf_index] = leaf
            self.n_leaves_ += 1
        for t, rows in enumerate(summaries):
            self._merge_up((t, 0, leaf_index), rows)

    # -- merge and reduce -----------------------------------------------------------------------------

    def _merge_up(self, key: NodeKey, rows: Coreset) -> None:
        """Place a node; while its sibling is there too, merge the two into their parent."""
        t, level, index = key
        while True:
            sibling = self._store.put_open((t, level, index), rows)
            if sibling is None:
                return
            self._store.put_closed((t, level, index), rows)
            self._store.put_closed((t, level, index ^ 1), sibling)
            left, right = (rows, sibling) if index % 2 == 0 else (sibling, rows)
            level, index = level + 1, index // 2
            rows = self._reducer.merge(t, level, index, left, right)

    def _summary(self, t: int) -> Coreset:
        parts = [rows for _, rows in self._store.open_nodes(t) if rows.ids.size]
        buffered = self._buffer_summaries()
        if buffered is not None:
            parts.append(buffered[t])
        if not parts:
            width = len(self.feature_names_) or self.n_features_in_ or 0
            return Coreset(np.empty(0, np.int64), np.empty((0, width)), None, np.empty(0))
        if len(parts) == 1:
            summary = parts[0]
        else:
            with STAGES.measure("merges"):
                summary = self._reducer.reduce(t, _union(parts), self._rng(t, _FINAL_NODE, self.n_leaves_))
        width = len(self.feature_names_)  # columns the stream gained since a node was made are 0 in it
        if summary.X.shape[1] < width:
            summary = summary._replace(X=np.pad(summary.X, ((0, 0), (0, width - summary.X.shape[1]))))
        return summary

    def _buffer_summaries(self) -> Optional[List[Coreset]]:
        """Return the rows waiting in the buffer, built into the buffer node and sampled, per coreset."""
        if self._layer is None or not self._layer.has_buffer():
            return None
        if self._buffer_rows is None:
            node = self._layer.create_buffer_node()
            assert node is not None
            self._buffer_rows = self._reducer.leaf(node, self._next_id, _BUFFER_NODE)
        return self._buffer_rows

    # -- rebuilding after a removal -------------------------------------------------------------------

    def _leaves_holding(self, ids: np.ndarray) -> Dict[int, np.ndarray]:
        """Return the leaves that hold any of the (sorted) ``ids``, each with the ids it holds."""
        assert self._layer is not None
        found: Dict[int, np.ndarray] = {}
        for index, leaf in sorted(self._leaves.items()):
            if not leaf.rows:
                continue
            lo, hi = np.searchsorted(ids, [leaf.low, leaf.high + 1])
            if lo == hi:
                continue  # none of the ids falls in the leaf's range
            stored = self._layer.data_manager.get_by_nodes([leaf.node_id]).ind
            inside = ids[lo:hi][np.isin(ids[lo:hi], stored)]
            if inside.size:
                found[index] = inside
        return found

    def _rebuild_leaves(self, touched: Dict[int, np.ndarray]) -> None:
        """Rebuild the given leaves from their stored chunks, then merge again the nodes above them."""
        assert self._layer is not None
        rebuild: List[int] = []
        for index, gone in touched.items():
            leaf = self._leaves[index]
            leaf.rows -= int(gone.size)
            if leaf.rows > self.coreset_size:
                rebuild.append(index)
            else:  # few enough rows to keep whole: no sensitivities needed, and none for an empty leaf
                kept = self._layer.data_manager.get_by_nodes([leaf.node_id])
                summaries = self._kept_whole(kept)
                for t, rows in enumerate(summaries):
                    self._store.replace((t, 0, index), rows)
        node_ids = [self._leaves[index].node_id for index in rebuild]
        for index, node in zip(rebuild, self._layer.rebuild(node_ids)):
            for t, rows in enumerate(self._reducer.leaf(node, index)):
                self._store.replace((t, 0, index), rows)
        for t in range(len(self.coreset_objects)):
            indexes = set(touched)
            level = 0
            while indexes:
                level += 1
                indexes = {index // 2 for index in indexes if self._store.exists((t, level, index // 2))}
                for index in sorted(indexes):
                    left = self._store.get((t, level - 1, 2 * index))
                    right = self._store.get((t, level - 1, 2 * index + 1))
                    merged = self._reducer.merge(t, level, index, left, right)
                    self._store.replace((t, level, index), merged)

    def _kept_whole(self, chunk: Dataset) -> List[Coreset]:
        """Return a small chunk's rows as they are, each of weight 1, preprocessed as a node would do it."""
        assert self._layer is not None
        if chunk.ind.size == 0:
            width = len(self.feature_names_)
            empty = Coreset(np.empty(0, np.int64), np.empty((0, width)), None, np.empty(0))
            return [empty for _ in self.coreset_objects]
        node = self._layer._rebuild_node(chunk, BUFFER_NODE_ID)  # built as the buffer node: any row count
        ids = np.asarray(node.dset.ind, dtype=np.int64)
        return [_rows_of(record.coreset, ids) for record in node.coresets]

    # -- helpers ----------------------------------------------------------------------------------------

    def _changed(self) -> None:
        self._summaries.clear()
        self._buffer_rows = None

    def _check_open(self) -> None:
        if self._closed:
            raise RuntimeError("the tree is closed")

    def _check_keeps_rows(self) -> None:
        if not self.keep_rows:
            raise RuntimeError("this tree keeps no rows (keep_rows=False), so it cannot remove any")

    def _rng(self, t: int, level: int, index: int) -> np.random.Generator:
        return self._reducer.rng(t, level, index)

    def _parallel(self) -> bool:
        return self.n_jobs is not None and self.n_jobs > 1

    def _layer_params(self) -> List[ChunkSensitivitiesParams]:
        # The leaves' own draws: one seed for all, as the layer shares its parameters between chunks;
        # the tree draws each leaf's sample again from its sensitivities, seeded by the leaf's position.
        leaf_seed = int(self._rng(0, _FINAL_NODE, _FINAL_NODE).integers(2**63 - 1))
        params = []
        for template in self.coreset_objects:
            coreset_params = template.get_params()
            coreset_params.update(coreset_size=self.coreset_size, random_state=leaf_seed)
            params.append(ChunkSensitivitiesParams(coreset_cls=type(template), coreset_params=coreset_params))
        return params

    def _make_layer(
        self, columns: Optional[List[str]], width: int, chunk_index: Optional[int] = None
    ) -> ChunkLayer:
        names = columns if columns is not None else [f"f{i}" for i in range(width)]
        manager = DataManager(
            data_params=DataParams(features=[FeatureField(name) for name in names]),
            storage_dir=os.path.join(self.data_dir, CHUNKS_DIR),
            # a working store: nothing reads it after a crash, and a save makes its own copies durable
            durable=False,
            cat_encoding_config={
                "max_categories": self.max_categories,
                "max_text_values": self.max_text_values,
            },
        )
        manager.n_jobs = self.n_jobs
        chunk_size = self.chunk_size if self.chunk_size is not None else CHUNK_SIZE_FACTOR * self.coreset_size
        if self.client is None:
            return ChunkLayer(
                manager, self._layer_params(), chunk_size=chunk_size, parent=self, chunk_index=chunk_index
            )
        from quillmarsh.distributed.tree import RemoteLayer, RemoteMerges

        layer = RemoteLayer(
            manager, self._layer_params(), chunk_size=chunk_size, parent=self, chunk_index=chunk_index
        )
        layer.client = self.client
        layer.reducer = self._reducer
        layer.keep_rows = self.keep_rows
        self._remote = RemoteMerges(self, self.client)
        return layer

    def _check_block(
        self, X: Any, y: Any, ids: Any
    ) -> Tuple[np.ndarray, Optional[np.ndarray], np.ndarray, Optional[List[str]]]:
        """Validate one block against the stream; return (X, y, ids, column names or None)."""
        block = f"block {self._n_blocks}"
        columns: Optional[List[str]] = None
        if isinstance(X, pd.DataFrame):
            columns = [str(name) for name in X.columns]
            if self._kind == "array":
                raise TypeError(f"{block} is a DataFrame, but earlier blocks were arrays")
            if self.feature_names_in_ is not None and columns != self.feature_names_in_:
                raise ValueError(
                    f"{block} has the columns {columns}, but earlier blocks {self.feature_names_in_}"
                )
            values = X.to_numpy()
        else:
            if self._kind == "frame":
                raise TypeError(f"{block} is an array, but earlier blocks were DataFrames")
            values = np.asarray(X)
            if values.dtype.kind not in "biuf":
                raise TypeError(
                    f"X of {block} must be numeric, got dtype {values.dtype}; pass tables as DataFrames"
                )
        if values.ndim != 2:
            raise ValueError(f"X of {block} must be 2-D, got {values.ndim}-D")
        n, width = values.shape
        if self.n_features_in_ is not None and width != self.n_features_in_:
            raise ValueError(
                f"X of {block} has {width} features, but earlier blocks had {self.n_features_in_}"
            )
        safe = all(t.safe_mode for t in self.coreset_objects)
        if columns is None and not safe and n:
            finite = np.isfinite(values).all(axis=0)
            if not finite.all():
                raise ValueError(
                    f"X of {block} holds NaN or infinite values in column {int(np.argmin(finite))} "
                    "(set safe_mode = True on the coreset object to have them filled)"
                )
        target: Optional[np.ndarray] = None
        if y is not None:
            target = np.asarray(y)
            if target.ndim == 2 and target.shape[1] == 1:
                target = target[:, 0]
            if target.ndim != 1:
                raise ValueError(f"y of {block} must be 1-D, got {target.ndim}-D")
            if target.shape[0] != n:
                raise ValueError(f"y of {block} has {target.shape[0]} rows, but X has {n}")
            if columns is None and not safe and n:
                if target.dtype.kind not in "biuf":
                    raise TypeError(f"y of {block} must be numeric, got dtype {target.dtype}")
                if not np.isfinite(target).all():
                    raise ValueError(f"y of {block} holds NaN or infinite values")
        if self._has_y is not None and (target is not None) != self._has_y:
            given = "given" if target is not None else "not given"
            raise ValueError(
                f"y is {given} for {block}, but {'not ' if target is not None else ''}for earlier blocks"
            )
        if ids is None:
            row_ids = np.arange(self._next_id, self._next_id + n, dtype=np.int64)
        else:
            raw = np.asarray(ids)
            if raw.dtype.kind not in "iu" or raw.ndim != 1:
                raise TypeError(
                    f"ids of {block} must be a 1-D array of ints, got {raw.dtype} of {raw.ndim}-D"
                )
            if raw.shape[0] != n:
                raise ValueError(f"ids of {block} has {raw.shape[0]} entries, but X has {n} rows")
            row_ids = raw.astype(np.int64)
            ordered = np.sort(row_ids)
            repeated = ordered[1:][ordered[1:] == ordered[:-1]]
            if repeated.size:
                raise ValueError(f"ids of {block} repeat: {_few(np.unique(repeated))}")
        held = row_ids[self._ids.present(row_ids)]
        if held.size:
            raise ValueError(
                f"ids of {block} are already in the tree (or were removed from it): {_few(held)}"
            )
        return values, target, row_ids, columns


def _few(values: Iterable[Any], limit: int = 5) -> str:
    """Up to ``limit`` values for a message, and how many more there are."""
    listed = [int(v) for v in values]
    more = f" and {len(listed) - limit} more" if len(listed) > limit else ""
    return ", ".join(str(v) for v in listed[:limit]) + more


def _rows_of(coreset: Optional[Dict[str, Any]], ids: np.ndarray) -> Coreset:
    """Return a node's rows from its coreset record: the processed features and targets, each of weight 1."""
    assert coreset is not None, "the chunk layer builds every record with its coreset"
    X = np.asarray(coreset["X"], dtype=np.float64)
    if X.shape[0] != ids.shape[0]:
        raise RuntimeError(f"a node's coreset holds {X.shape[0]} rows, but the node {ids.shape[0]} ids")
    y = coreset["y"]
    return Coreset(ids, X, None if y is None else np.asarray(y).reshape(X.shape[0]), np.ones(X.shape[0]))


def _sensitivities_of(coreset: Optional[Dict[str, Any]]) -> np.ndarray:
    """Return the sensitivity of every row of a node's coreset record."""
    assert coreset is not None
    return np.asarray(coreset["sensitivities"])


def _take(values: Optional[np.ndarray], idxs: np.ndarray) -> Optional[np.ndarray]:
    return None if values is None else values[idxs]


def _entropy(random_state: Union[None, int, np.random.Generator]) -> int:
    """One non-negative int from which every node's random stream is derived."""
    if random_state is None:
        return int(np.random.SeedSequence().entropy)  # type: ignore[arg-type]
    if isinstance(random_state, np.random.Generator):
        return int(random_state.integers(2**63 - 1))
    if isinstance(random_state, bool) or not isinstance(random_state, numbers.Integral) or random_state < 0:
        raise ValueError(
            f"random_state must be None, a non-negative int or a numpy Generator, got {random_state!r}"
        )
    return int(random_state)
