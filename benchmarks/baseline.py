"""The chunk layer's hot steps written as a small pure-Python class: the baseline of the benchmarks.

A line-by-line transcription of the documented algorithms of ``has_buffer``, ``get_buffer_size``,
``_add_to_buffer``, ``_create_node``, ``_get_from_buffer`` and ``process``, written the plain way a
Python programmer would write them. Module-level names (``np``, ``Dataset``, ``ChunkNode``, ``utils``,
...) are looked up in this module's namespace at call time, as the compiled module looks them up in its
own, so a benchmark can swap ``ChunkNode`` here exactly as it swaps it there.

Only the benchmarks use this module; it is not part of the library.
"""

from __future__ import annotations

import time

import numpy as np
from quillmarsh.core.tree.chunk_layer import ChunkNode

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.numpy_extra import filter_missing_and_inf
from quillmarsh.core.tree import utils
from quillmarsh.core.tree.utils import evaluate_max_batch_size
from quillmarsh.data.common import Dataset

__all__ = ["BaselineChunkLayer", "ChunkNode"]


class BaselineChunkLayer:
    """The compiled ``ChunkLayer``'s hot path, in Python (constructor, buffer, drain, process)."""

    def __init__(
        self, data_manager, chunk_corset_params=None, chunk_size=None, parent=None, chunk_index=None
    ):
        if chunk_size is not None and type(chunk_size) is not int:
            raise TypeError(
                f"Argument 'chunk_size' has incorrect type (expected int, got {type(chunk_size).__name__})"
            )
        if chunk_index is not None and type(chunk_index) is not int:
            raise TypeError(
                f"Argument 'chunk_index' has incorrect type (expected int, got {type(chunk_index).__name__})"
            )
        self.build_params = None
        self.chunk_corset_params = chunk_corset_params
        self.buffer = None
        self.chunk_size = chunk_size
        self.data_manager = data_manager
        self.parent = parent
        self.chunk_index = chunk_index if chunk_index is not None else 0

    def has_buffer(self):
        if self.buffer is None:
            return False
        return self.buffer[1].shape[0] > 0

    def get_buffer_size(self):
        if not self.has_buffer():
            return 0
        return self.buffer[1].shape[0]

    def _add_to_buffer(self, dataset):
        if self.has_buffer():
            self.buffer = tuple(
                np.concatenate((b, d)) if d is not None else b for b, d in zip(self.buffer, dataset)
            )
        else:
            self.buffer = tuple(dataset)
        self.buffer = Dataset(*self.buffer)
        self.parent.update_build_params()

    def _create_node(self, dset, node_id=None, leaf_node_index=None):
        t = time.time()
        chunk_node = ChunkNode(
            dset=dset, params=self.chunk_corset_params, node_id=node_id, data_manager=self.data_manager
        ).build()
        chunk_build_time = time.time() - t
        if self.data_manager.verbose > 0 and leaf_node_index is not None:
            self._print_progress(chunk_build_time, leaf_node_index)
        return chunk_node

    def _print_progress(self, chunk_build_time, leaf_node_index):
        chunks = ""
        if self.data_manager.n_instances is not None and self.build_params.get("chunk_size", 0) > 0:
            if leaf_node_index + 1 <= self.data_manager.n_instances // self.build_params["chunk_size"]:
                chunks = f" out of {self.data_manager.n_instances // self.build_params['chunk_size']} chunks"
        ct = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime())
        print(
            f"{ct} Completed chunk #{leaf_node_index + 1}{chunks}, "
            f"\033[33m(chunk was built in {chunk_build_time:.3f} seconds)\033[00m"
        )

    def _get_from_buffer(self, after_create_leaf_node=None):
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
                node = self._create_node(buffer, leaf_node_index=self.chunk_index)
                if after_create_leaf_node is not None:
                    after_create_leaf_node(node, None)
                self.chunk_index += 1
                if self.build_params:
                    pass
                yield node

    def create_buffer_node(self, after_create_leaf_node=None):
        if not self.has_buffer():
            return None
        dset = Dataset(*self.buffer)
        node = self._create_node(dset, "buffer")
        if after_create_leaf_node:
            after_create_leaf_node(node, None)
        return node

    def process(self, dsets=None, create_buffer=True, is_classification=False, after_create_leaf_node=None):
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
