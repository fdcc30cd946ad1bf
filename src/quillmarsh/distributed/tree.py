"""A coreset tree whose leaves are built, and whose nodes are merged, on a Dask cluster.

``CoresetTree(..., client=client)`` uses this module. The client cuts the stream into chunks exactly as
a tree without a cluster does (its chunk layer's buffer, the same chunk size), stores each chunk in its
own data directory, and sends each one to the cluster as a task that builds the leaf there and returns
its sample of ``coreset_size`` rows per coreset object. Two sibling nodes become a merge task on the
cluster as soon as both are submitted: the tree reduces by merge and reduce on the workers, and only
the nodes' summaries come back to the client, which keeps them as a tree without a cluster does (so
removing rows, saving and loading work the same). Every node draws from its own random stream, so the
summary is the one a tree without a cluster gives for the same seed and blocks.

The chunks travel inside their tasks: if a worker is lost, the scheduler runs its tasks again from
them, and no row is lost. A table's chunk is preprocessed on the client, in the stream's one feature
space and in stream order, exactly as a tree without a cluster preprocesses it; the worker gets its
numbers and builds the leaf from them (numbers preprocess to themselves).
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Dict, List, Optional, Tuple

import numpy as np
from quillmarsh.core.tree.chunk_layer import BUFFER_NODE_ID, ChunkLayer, ChunkNode, ChunkSensitivitiesParams

from quillmarsh.core.tree._store import Coreset
from quillmarsh.data.common import Dataset
from quillmarsh.data.data_auto_processor import DataAutoProcessor
from quillmarsh.data.manager import DataManager, DataParams, FeatureField

if TYPE_CHECKING:
    from quillmarsh.core.tree.coreset_tree import CoresetTree, Reducer

__all__ = ["RemoteLeaf", "RemoteLayer", "RemoteMerges"]


def build_leaf(
    dataset: Dataset,
    params: List[ChunkSensitivitiesParams],
    feature_names: List[str],
    reducer: Reducer,
    leaf_index: int,
) -> List[Coreset]:
    """Build one chunk into a leaf on a worker, as the chunk layer would, and return its samples.

    Parameters
    ----------
    dataset : Dataset
        The chunk, already encoded in the stream's feature space.
    params : list of ChunkSensitivitiesParams
        The coreset parameter records.
    feature_names : list of str
        The names of the chunk's feature columns.
    reducer : Reducer
        The tree's reducer, which samples the leaf.
    leaf_index : int
        The leaf's position in the stream.

    Returns
    -------
    list of Coreset
        The leaf's sample for each coreset object.
    """
    manager = DataManager(data_params=DataParams(features=[FeatureField(name) for name in feature_names]))
    node = ChunkNode(dataset, params, None, None, manager).build()
    return reducer.leaf(node, leaf_index)


def merge_nodes(
    reducer: Reducer, level: int, index: int, left: List[Coreset], right: List[Coreset]
) -> List[Coreset]:
    """Merge two children on a worker into the node at (level, index), for every coreset object.

    Parameters
    ----------
    reducer : Reducer
        The tree's reducer.
    level : int
        The merged node's level.
    index : int
        The merged node's position in its level.
    left, right : list of Coreset
        The children's summaries, one per coreset object.

    Returns
    -------
    list of Coreset
        The merged node's summaries, one per coreset object.
    """
    return [reducer.merge(t, level, index, left[t], right[t]) for t in range(len(left))]


@dataclass
class RemoteLeaf:
    """What the chunk layer hands back for a chunk sent to the cluster.

    Attributes
    ----------
    node_id : str
        The leaf's node id.
    index : int
        The leaf's position in the stream.
    ids : ndarray of int64
        The ids of the leaf's rows.
    future : distributed.Future
        The future of the leaf's summaries (see ``build_leaf``).
    """

    node_id: str
    index: int
    ids: np.ndarray
    future: Any

    def is_buffer(self) -> bool:
        """Tell whether the leaf is the buffer node: never, the buffer node is built locally.

        Returns
        -------
        bool
            False.
        """
        return False


class RemoteLayer(ChunkLayer):
    """A chunk layer whose leaf chunks are stored here (when the tree keeps rows) and built on the cluster.

    The buffer node and the nodes rebuilt after a removal are built here, as by any layer.
    """

    client: Any
    reducer: Reducer
    keep_rows: bool

    def _create_node(self, dset: Any, node_id: Any = None, leaf_node_index: Any = None) -> Any:
        if node_id == BUFFER_NODE_ID:
            return super()._create_node(dset, node_id, leaf_node_index)
        index = self.chunk_index  # the layer counts the leaf after handing it on
        node_id = f"leaf-{index}"
        if self.keep_rows:
            self.data_manager.save_selected_samples_async(dset, None, node_id)
        encoded = self._encoded(dset)
        future = self.client.submit(
            build_leaf,
            encoded,
            list(self.chunk_corset_params or []),
            [f"f{i}" for i in range(encoded.X.shape[1])],
            self.reducer,
            index,
            key=f"quillmarsh-leaf-{self.reducer.entropy}-{index}-{id(self)}",
            pure=False,
        )
        return RemoteLeaf(node_id, index, np.asarray(encoded.ind, dtype=np.int64), future)

    def _encoded(self, dset: Dataset) -> Dataset:
        """Return the chunk preprocessed here as a node would (numbers in the stream's feature space)."""
        if np.asarray(dset.X).dtype.kind in "biuf":
            return dset  # numbers preprocess to themselves
        manager = self.data_manager
        processor = DataAutoProcessor(
            X=dset.X,
            y=dset.y,
            ind=dset.ind,
            props=dset.props,
            categorical_features=manager.data_params_internal.categorical_features_,
            feature_names=[f.name for f in manager.data_params.features],
            cat_encoding_config=manager.cat_encoding_config_clear(),
            missing_replacement=manager.data_params_internal.aggregated_missing_replacements,
            drop_rows_below=manager.data_params.drop_rows_below,
            drop_cols_above=manager.data_params.drop_cols_above,
        )
        X = processor.handle_missing_and_categorical_encoding(sparse_threshold=0)
        y = processor.get_processed_arrays()[0]
        return Dataset(ind=np.asarray(processor.ind), X=X, y=y)


class RemoteMerges:
    """The merges of one tree submitted on the cluster, gathered into the tree's store when done.

    Parameters
    ----------
    tree : CoresetTree
        The tree whose nodes are merged.
    client : distributed.Client
        The cluster's client.
    """

    def __init__(self, tree: CoresetTree, client: Any) -> None:
        self.tree = tree
        self.client = client
        self.pending: Dict[Tuple[int, int], Any] = {}  # (level, index) -> future of its summaries

    def place(self, leaf: RemoteLeaf) -> None:
        """Add a submitted leaf; submit the merges it completes.

        Parameters
        ----------
        leaf : RemoteLeaf
            The leaf sent to the cluster.
        """
        level, index, node = 0, leaf.index, leaf.future
        self.pending[(level, index)] = node
        while True:
            sibling = self._open((level, index ^ 1))
            if sibling is None:
                return
            left, right = (node, sibling) if index % 2 == 0 else (sibling, node)
            level, index = level + 1, index // 2
            node = self.client.submit(
                merge_nodes,
                self.tree._reducer,
                level,
                index,
                left,
                right,
                key=f"quillmarsh-merge-{self.tree._reducer.entropy}-{level}-{index}-{id(self)}",
                pure=False,
            )
            self.pending[(level, index)] = node

    def _open(self, key: Tuple[int, int]) -> Optional[Any]:
        """Return the node ``key`` if it waits for its sibling: submitted here, or kept open by the tree."""
        if key in self.pending:
            return self.pending[key]
        level, index = key
        store = self.tree._store
        with store.lock:
            if (0, level, index) not in store.open:
                return None
            return [store.open[(t, level, index)] for t in range(len(self.tree.coreset_objects))]

    def finish(self) -> None:
        """Wait for every submitted node and keep its summaries: with a parent on file, else in memory."""
        if not self.pending:
            return
        keys = list(self.pending)
        results = self.client.gather([self.pending[key] for key in keys])
        store = self.tree._store
        done = set(keys)
        for (level, index), summaries in sorted(zip(keys, results), key=lambda item: item[0]):
            has_parent = (level + 1, index // 2) in done
            for t, rows in enumerate(summaries):
                key = (t, level, index)
                with store.lock:
                    store.open.pop(key, None)
                if has_parent:
                    store.put_closed(key, rows)
                else:
                    with store.lock:
                        store.open[key] = rows
        # children kept by the tree that got a parent here now have one
        for level, index in keys:
            if level == 0:
                continue
            for child in (2 * index, 2 * index + 1):
                for t in range(len(self.tree.coreset_objects)):
                    key = (t, level - 1, child)
                    with store.lock:
                        rows = store.open.pop(key, None)
                    if rows is not None:
                        store.put_closed(key, rows)
        self.pending.clear()
