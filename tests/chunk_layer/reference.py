"""The chunk layer in plain Python: the reference that every behaviour test runs beside the compiled module.

The same names as ``quillmarsh.core.tree.chunk_layer`` (the constant, the two records,
``exclude_removed``, ``ChunkNode`` and every method of ``ChunkLayer``, its three generators and their
inner functions included), making the same calls on the same objects in the same order, with the same
results, state changes and errors. Module-level names (``np``, ``Dataset``, ``ChunkNode``, ``utils``,
``DataAutoProcessor``, ...) are looked up in this module's namespace at call time, as the compiled
module looks them up in its own, so that a test or a benchmark swaps a collaborator here exactly as it
swaps it there. The docstrings are the compiled module's, character for character.

The benchmarks load this file as their Python peer and compile it with Cython 3 as their Cython peer.
Annotations stay strings (``from __future__ import annotations``) and are not used for typing (the
Cython peer is built with ``annotation_typing=False``), so the three argument types that the layer
checks are checked here in code, with the compiled module's message.

Run as Python, this file words a wrong argument count as the interpreter does ("missing 1 required
positional argument"), where compiled code says "takes exactly 2 positional arguments (1 given)". ``rebuild`` checks its argument when
called and then returns a generator made by an inner function, since a Python generator function runs
nothing, not even a check, before its first step.
"""

# ruff: noqa: E501, I001
from __future__ import annotations

import itertools
import time
from dataclasses import dataclass
from typing import Iterable, Union, Optional, Any, List, Tuple, Iterator, Dict  # noqa: F401
from uuid import uuid4

import numpy as np
import pandas as pd  # noqa: F401  (bound at load, as in the module)
import psutil  # noqa: F401  (bound at load, as in the module)

from quillmarsh.core.tree.utils import evaluate_max_batch_size
from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.core.helpers import align_arrays_by_key
from quillmarsh.core.numpy_extra import filter_missing_and_inf
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManagerT
from quillmarsh.core.tree import utils
from quillmarsh.data.data_auto_processor import DataAutoProcessor
from quillmarsh.common import ThreadPoolManager

BUFFER_NODE_ID = "buffer"


@dataclass
class ChunkSensitivitiesParams:
    coreset_params: dict = None
    coreset_cls: Any = None
    coreset_size: int = 10
    chunk_id: Any = None


@dataclass
class ChunkSensitivities:
    coreset: dict = None
    params: ChunkSensitivitiesParams = None
    removed_rows: np.ndarray = None
    no_features: int = None


def _type_name(obj):
    # The name that C code reports for a type (its tp_name): "numpy.int64" where __name__ says "int64".
    cls = type(obj)
    if cls.__flags__ & (1 << 9) or cls.__module__ == "builtins":  # a heap type, or a built-in one
        return cls.__name__
    return f"{cls.__module__}.{cls.__name__}"


def _argument_type_error(name, expected, obj):
    return TypeError(f"Argument '{name}' has incorrect type (expected {expected}, got {_type_name(obj)})")


def _membership_test(np):
    # np.in1d; where numpy has it no more (2.4 and later), np.isin, which gives the same mask for the
    # one-dimensional index arrays passed here.
    try:
        return np.in1d
    except AttributeError:
        return np.isin


def _unpack(values, count):
    # ``a, b, c = values``, with compiled code's wording when too few values come.
    iterator = iter(values)
    items = list(itertools.islice(iterator, count))
    if len(items) < count:
        raise ValueError(f"need more than {len(items)} value{'' if len(items) == 1 else 's'} to unpack")
    for _ in iterator:
        raise ValueError(f"too many values to unpack (expected {count})")
    return items


def exclude_removed(removed, indices, dataset=None):
    """
    Exclude removed indices from the given indices and dataset.

    Args:
        removed: A list or array-like object containing the indices to be removed.
        indices: The original indices from which to exclude the removed indices.
        dataset: A tuple or list containing arrays or None representing the dataset.

    Returns:
        Tuple: A tuple containing the updated indices and the updated dataset (if provided).

    The function creates a mask to exclude the removed indices from the given indices. If a dataset is provided,
    it applies the mask to the dataset, updating the corresponding arrays.

    If no dataset is provided, only the indices are returned.

    Example:
        removed = [2, 5, 7]
        indices = [1, 2, 3, 4, 5, 6, 7, 8, 9]
        dataset = (array1, array2, array3)  # Arrays representing the dataset

        new_indices, new_dataset = exclude_removed(removed, indices, dataset)

        # new_indices: [1, 3, 4, 6, 8, 9]
        # new_dataset: (updated_array1, updated_array2, updated_array3)
    """
    mask = None
    if removed is not None and len(removed) > 0:
        mask = ~_membership_test(np)(indices, removed)
        if np.any(mask):
            indices = indices[mask]
    if dataset is None:
        return indices
    if mask is None:
        return indices, dataset
    return indices, Dataset(*[d[mask] if d is not None else None for d in dataset])


class ChunkNode:
    """
    A class for creating chunk nodes.

    Parameters
    ----------
    dset : Dataset
        The dataset to build the coreset from.
    params : Iterable[ChunkSensitivitiesParams]
        A list of parameters to build the coreset.
    node_id : str, optional
        A unique identifier for the node, by default None.
    """

    def __init__(
        self,
        dset: Dataset,
        params: Iterable[ChunkSensitivitiesParams],
        node_id=None,
        tree_build_params: dict = None,
        data_manager: DataManagerT = None,
    ):
        self.params = list(params)
        self.dset = dset
        self.node_id = node_id if node_id else uuid4().hex
        self.tree_build_params = tree_build_params
        self.indices = np.array([], dtype=int)
        self.sensitivities = []
        self.coresets = []
        self.data_manager = data_manager

    def is_buffer(self):
        """
        Returns True if the node_id is the BUFFER_NODE_ID.
        """
        return self.node_id == BUFFER_NODE_ID

    def _instantiate_coreset(self, coreset_cls, coreset_params) -> CoresetBase:
        """
        Instantiates a coreset object.

        Parameters
        ----------
        coreset_cls : CoresetBase class
            A CoresetBase class.
        coreset_params : dict, optional
            A dictionary of coreset parameters, by default None.

        Returns
        -------
        CoresetBase
            A coreset object.
        """
        coreset_params = coreset_params or {}
        coreset = coreset_cls(**coreset_params)
        if self.is_buffer():
            coreset.safe_mode = True
        return coreset

    def build(self):
        """
        Builds the coreset.

        Returns
        -------
        ChunkNode
            The ChunkNode object.
        """
        for cor_params in self.params:
            coreset = self._instantiate_coreset(cor_params.coreset_cls, cor_params.coreset_params)
            cat_encoding_config = self.data_manager.cat_encoding_config_clear()
            dap = DataAutoProcessor(
                X=self.dset.X,
                y=self.dset.y,
                ind=self.dset.ind,
                props=self.dset.props,
                categorical_features=self.data_manager.data_params_internal.categorical_features_,
                feature_names=[f.name for f in self.data_manager.data_params.features],
                cat_encoding_config=cat_encoding_config,
                missing_replacement=self.data_manager.data_params_internal.aggregated_missing_replacements,
                drop_rows_below=self.data_manager.data_params.drop_rows_below,
                drop_cols_above=self.data_manager.data_params.drop_cols_above,
            )
            X_processed = dap.handle_missing_and_categorical_encoding(sparse_threshold=0)
            self.dset = self.dset._replace(X=dap.X, y=dap.y, ind=dap.ind, props=dap.props)
            y_processed, _, _ = _unpack(dap.get_processed_arrays(), 3)
            coreset.compute_sensitivities(X=X_processed, y=y_processed)
            chunk_sensi = ChunkSensitivities(
                coreset=coreset.to_dict(with_important=True, use_keep_selected_only=False),
                params=cor_params,
                removed_rows=dap.removed_rows,
                no_features=len(dap.feature_names),
            )
            self.coresets.append(chunk_sensi)
        return self

    def save(self, data_manager: DataManagerT, save_all=False):
        """
        Saves the selected samples asynchronously.

        Parameters
        ----------
        data_manager : object
            The data manager object.
        """
        # The operation is looked up first (compiled code would otherwise read the arguments first).
        save_selected_samples_async = data_manager.save_selected_samples_async
        save_selected_samples_async(
            self.dset,
            None if save_all else self.indices,
            self.node_id,
            is_buffer=self.node_id == BUFFER_NODE_ID,
        )

    def add_indices(self, indices):
        """
        Adds indices to the node.

        Parameters
        ----------
        indices : numpy.ndarray
            An array of indices.
        """
        if self.indices is None:
            self.indices = indices
        else:
            self.indices = np.concatenate([self.indices, indices])


class ChunkLayer:
    """
    A chunk layer for incremental learning.

    This layer divides the dataset into chunks of samples and performs incremental learning on each chunk.

    Args:
        data_manager: A data manager instance that provides access to the dataset.
        chunk_corset_params: An iterable of `ChunkSensitivitiesParams` objects, each containing the parameters for
            building a coreset on a chunk of data. Default is `None`.
        chunk_size: The maximum size of a chunk. If `None`, the entire dataset is treated as a single chunk.
            Default is `None`.
    """

    def __init__(
        self,
        data_manager: DataManagerT,
        chunk_corset_params: Iterable[ChunkSensitivitiesParams] = None,
        chunk_size: Optional[int] = None,
        parent: Optional[Any] = None,
        chunk_index: int = None,
    ):
        if chunk_size is not None and type(chunk_size) is not int:
            raise _argument_type_error("chunk_size", "int", chunk_size)
        if chunk_index is not None and type(chunk_index) is not int:
            raise _argument_type_error("chunk_index", "int", chunk_index)
        self.build_params = None
        self.chunk_corset_params = chunk_corset_params
        self.buffer = None
        self.chunk_size = chunk_size
        self.data_manager = data_manager
        self.parent = parent
        self.chunk_index = chunk_index if chunk_index is not None else 0

    def has_buffer(self):
        """
        Checks if there is a buffer available.

        Returns:
            bool: True if there is a buffer available and not empty, False otherwise.
        """
        if self.buffer is None:
            return False
        return self.buffer[1].shape[0] > 0

    def get_buffer(self) -> Union[Dataset, None]:
        """
        returns unhandled instances.

        Returns
        -------
        a list of numpy arrays

        """
        if not self.has_buffer():
            return None
        removed_indices = self.data_manager.get_removed()
        _, dataset = exclude_removed(removed_indices, self.buffer.ind, self.buffer)
        return dataset

    def set_buffer(self, buffer: Union[List[np.ndarray], Tuple[np.ndarray]] = None):
        """
        set tree's internal buffer of unhandled instances

        Parameters
        ----------
        buffer: list of numpy ndarrays

        Returns
        -------

        """
        if buffer is None:
            self.buffer = None
        else:
            self.buffer = Dataset(*buffer)

    def _add_to_buffer(self, dataset):
        """
        Adds the given dataset to the buffer.

        Args:
            dataset: The dataset to be added to the buffer.
        """
        if self.has_buffer():
            self.buffer = tuple(
                np.concatenate((b, d)) if d is not None else b for b, d in zip(self.buffer, dataset)
            )
        else:
            self.buffer = tuple(dataset)
        self.buffer = Dataset(*self.buffer)
        self.parent.update_build_params()

    def remove_from_buffer(self, indices):
        if not self.has_buffer():
            return
        _, dataset = exclude_removed(indices, self.buffer.ind, self.buffer)
        self.set_buffer(dataset)

    def _rebuild_node(self, dset: Dataset, node_id):
        return ChunkNode(
            dset=dset, params=self.chunk_corset_params, node_id=node_id, data_manager=self.data_manager
        ).build()

    def _create_node(self, dset, node_id=None, leaf_node_index=None) -> ChunkNode:
        """
        Creates a new ChunkNode object.

        Args:
            dset: The dataset used to build the ChunkNode.
            node_id: Optional parameter specifying the ID of the new ChunkNode.
            leaf_node_index: Optional parameter specifying the chunk index for verbose, can be None for buffer node.
        Returns:
            ChunkNode: A new ChunkNode object.
        """
        t = time.time()
        chunk_node = ChunkNode(
            dset=dset, params=self.chunk_corset_params, node_id=node_id, data_manager=self.data_manager
        ).build()
        chunk_build_time = time.time() - t
        if self.data_manager.verbose > 0 and leaf_node_index is not None:
            self._print_progress(chunk_build_time, leaf_node_index)
        return chunk_node

    def _print_progress(self, chunk_build_time, leaf_node_index):
        """
        print progress in case n_instances is not None:
        2024-04-01 14:10:37 Completed 19 out of 100 chunks, (chunk was built in 0.003 seconds)
        else:
        2024-04-01 14:10:37 Completed 19 chunks, (chunk was built in 0.003 seconds)
        chunk build time is printed in yellow
        Args:
            chunk_build_time: time it took to build a chunk in seconds
        """
        chunks = ""
        if self.data_manager.n_instances is not None and self.build_params.get("chunk_size", 0) > 0:
            if leaf_node_index + 1 <= self.data_manager.n_instances // self.build_params["chunk_size"]:
                chunks = f" out of {self.data_manager.n_instances // self.build_params['chunk_size']} chunks"
        ct = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime())
        print(
            f"{ct} Completed chunk #{leaf_node_index + 1}{chunks}, "
            f"\033[33m(chunk was built in {chunk_build_time:.3f} seconds)\033[00m"
        )

    def get_buffer_size(self):
        """
        Returns the size of the buffer.

        Returns:
            int: The size of the buffer.
        """
        if not self.has_buffer():
            return 0
        return self.buffer[1].shape[0]

    def create_buffer_node(self, after_create_leaf_node=None):
        """
        Creates a new ChunkNode object using the data stored in the buffer.

        Returns:
            Union[None, ChunkNode]: A new ChunkNode object if there is a buffer available, None otherwise.
        """
        if not self.has_buffer():
            return None
        dset = Dataset(*self.buffer)
        node = self._create_node(dset, BUFFER_NODE_ID)
        if after_create_leaf_node:
            after_create_leaf_node(node, None)
        return node

    def _get_from_buffer(self, after_create_leaf_node=None):
        """
        Generator that moves data from buffer to CoreSet tree if the length of buffer is greater than chunk_size.
        If the buffer has not enough elements to form a chunk according to the chunk_size, no node will be yielded.
        If the chunk_size is set to 0, the whole buffer will be consumed for creating a single coreset node.

        Yields:
            ChunkNode: A ChunkNode object that contains coreset information computed from the chunk of data
            in the buffer.
"""
        if not utils.is_simple_chunk_size(self.chunk_size) and not self.chunk_size == 0:
            return
        ignore_chunk_size = self.chunk_size == 0
        try:
            dtype = next(iter(self.chunk_corset_params)).coreset_params.get("dtype", "float32")
        except Exception:
            dtype = "float32"

        while self.has_buffer() and (ignore_chunk_size or self.buffer[1].shape[0] >= self.chunk_size):
            if ignore_chunk_size:
                buffer = self.buffer
                self.buffer = None
            else:
                buffer = Dataset(*(a[: self.chunk_size] if a is not None else None for a in self.buffer))
                self.buffer = Dataset(*(a[self.chunk_size :] if a is not None else None for a in self.buffer))

            if self.data_manager.n_jobs is not None and self.data_manager.n_jobs > 1:

                def _create_leaf_node(buff, leaf_node_index):
                    chunk_node = self._create_node(buff, leaf_node_index=leaf_node_index)
                    if after_create_leaf_node is not None:
                        after_create_leaf_node(chunk_node, leaf_node_index)

                def _check_memory_available(buff, leaf_node_index):
                    max_batch_size = evaluate_max_batch_size(
                        n_features=buff.X.shape[1], available=True, dtype=dtype
                    )
                    if max_batch_size < buff.X.shape[0] and ThreadPoolManager().has_running_tasks():
                        return False
                    return True

                ThreadPoolManager().add_to_queue(
                    _create_leaf_node, _check_memory_available, 0, buffer, self.chunk_index
                )
                self.chunk_index += 1
                yield None
            else:
                # The method is looked up before the leaf index is read (compiled code would read the
                # keyword's value first).
                create_node = self._create_node
                node = create_node(buffer, leaf_node_index=self.chunk_index)
                if after_create_leaf_node is not None:
                    after_create_leaf_node(node, None)
                self.chunk_index += 1
                if self.build_params:
                    pass
                yield node

    def process(self, dsets: Iterator = None, create_buffer=True, is_classification=False, after_create_leaf_node=None):
        """
        Process input datasets by adding them to the internal buffer and creating coreset nodes from the buffered data.

        Args:
            dsets (List[Dataset]): A list of input datasets to be processed.
            create_buffer (bool, optional): Whether to create a buffer node from the remaining data in the buffer
                after processing all input datasets. Defaults to True.
            is_classification (bool, optional): Whether the task is classification. Defaults to False.
            after_create_leaf_node: callable to be executed after node leaf creation
        Yields:
            ChunkNode: A coreset node created from the buffered data.

        Returns:
            None
"""
        size_bytes = 0
        number_of_features_orig = 0
        number_of_samples = 0
        targets_unique = np.array([])
        for dset in dsets:
            dset = Dataset(*dset)
            if dset.y is not None and is_classification:
                conc = np.concatenate([targets_unique, dset.y])
                targets_unique = np.unique(filter_missing_and_inf(conc))
            size_bytes += sum([d.size * d.itemsize for d in dset if d is not None])
            number_of_features = dset.X.shape[1]
            if dset.orig is not None:
                number_of_features_orig = dset.orig.shape[1]
            number_of_samples += len(dset.ind)
            self._add_to_buffer(dset)
            self.build_params = {
                "number_of_features": number_of_features,
                "number_of_features_orig": number_of_features_orig,
                "number_of_samples": number_of_samples,
                "chunk_size": self.chunk_size,
                "targets_unique_count": len(targets_unique),
                "size_bytes": size_bytes,
                "size_MB": str(size_bytes / 1048576),
            }
            # A plain loop over a new drain, not a delegation: sent or thrown values stay here.
            for node in self._get_from_buffer(after_create_leaf_node):  # noqa: UP028
                yield node
        if create_buffer and self.has_buffer():
            yield self.create_buffer_node(after_create_leaf_node)

    def update_buffer(self, indices, X=None, y=None):
        if not self.has_buffer():
            return
        _, (indices, X, y) = align_arrays_by_key((self.buffer.ind,), (indices, X, y))
        mask = _membership_test(np)(self.buffer.ind, indices)
        if y is not None:
            self.buffer.y[mask] = y
        if X is not None:
            self.buffer.X[mask] = X

    def rebuild(self, chunk_ids: List[str]):
        if type(chunk_ids) is not list:
            raise _argument_type_error("chunk_ids", "list", chunk_ids)

        def rebuild():
            for chunk_id in chunk_ids:
                if chunk_id == BUFFER_NODE_ID:
                    dset = self.get_buffer()
                else:
                    dset = self.data_manager.get_by_nodes([chunk_id])
                node = self._rebuild_node(dset, chunk_id)
                yield node

        generator = rebuild()
        generator.__qualname__ = "ChunkLayer.rebuild"
        return generator

    def filter_out_samples(self, filter_function, node_ids, with_buffer=True):
        indexes_for_remove = np.array([])
        datasets = map(lambda node_id: self.data_manager.get_by_nodes([node_id], with_props=True), node_ids)
        if with_buffer and self.has_buffer():
            datasets = itertools.chain(datasets, [self.buffer])
        for dset in datasets:
            filtered_ind = filter_function(dset.ind, dset.X, dset.y, dset.props)
            if len(filtered_ind) > 0:
                indexes_for_remove = np.concatenate([indexes_for_remove, filtered_ind])
        return indexes_for_remove


__test__ = {}
