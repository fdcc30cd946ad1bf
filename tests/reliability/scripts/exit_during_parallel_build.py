"""Streams a table through a chunk layer in parallel mode, with the library's real data manager,
coresets and task pool, and leaves while the pool is still building: by `sys.exit(5)` ("exit"), by an
exception in the caller's loop ("exception"), or by Ctrl-C ("sigint"). Never waits for the pool."""

from __future__ import annotations

import os
import signal
import sys
import threading

import numpy as np
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkSensitivitiesParams

from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField


class Tree:
    def update_build_params(self) -> None:
        pass


def batches(rows: int, features: int, batch_rows: int):
    rng = np.random.default_rng(7)
    for start in range(0, rows, batch_rows):
        X = rng.normal(size=(batch_rows, features))
        yield Dataset(np.arange(start, start + batch_rows), X, X.sum(axis=1))


def main(mode: str) -> None:
    features = 8
    manager = DataManager(data_params=DataParams(features=[FeatureField(f"f{i}") for i in range(features)]))
    manager.n_jobs = 2
    params = [
        ChunkSensitivitiesParams(coreset_cls=CoresetKMeans, coreset_params={"k": 4}),
        ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression, coreset_params={}),
    ]
    seen = []

    def after_create_leaf_node(node, leaf):
        seen.append(leaf)

    layer = ChunkLayer(manager, params, chunk_size=4000, parent=Tree())
    queued = 0
    for _ in layer.process(batches(120_000, features, 6000), after_create_leaf_node=after_create_leaf_node):
        queued += 1
        if queued == 12:
            break
    if mode == "exit":
        sys.exit(5)
    if mode == "exception":
        raise RuntimeError("the caller's loop failed")
    if mode == "sigint":
        threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGINT)).start()
        threading.Event().wait(30)
    raise SystemExit(f"unknown mode {mode!r}")


if __name__ == "__main__":
    main(sys.argv[1])
