"""The single-process run the distributed one is compared with: one chunk layer over the same rows."""

from __future__ import annotations

from typing import Any, Dict, List, Sequence

import numpy as np
import pandas as pd
from quillmarsh.core.tree.chunk_layer import ChunkLayer
from stream_tables import FEATURES, TARGET

from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField


class Tree:
    def update_build_params(self) -> None:
        pass


def data_params() -> DataParams:
    return DataParams(features=[FeatureField(name) for name in FEATURES])


def single_layer(frames: Sequence[pd.DataFrame], params: List[Any], chunk_size: int) -> List[Dict[str, Any]]:
    """Stream the frames, in order, through one layer; per leaf its id, rows, indices and coreset samples."""
    manager = DataManager(data_params=data_params(), n_jobs=1)
    layer = ChunkLayer(manager, params, chunk_size, Tree())
    batches = (
        Dataset(frame.index.to_numpy()[start:start + chunk_size],
                frame[FEATURES].to_numpy()[start:start + chunk_size],
                frame[TARGET].to_numpy()[start:start + chunk_size])
        for frame in frames for start in range(0, len(frame), chunk_size)
    )
    leaves = []
    for node in layer.process(batches, create_buffer=True):
        samples = []
        for record in node.coresets:
            rows = record.coreset["idxs"]
            samples.append((node.dset.X[rows], node.dset.y[rows], record.coreset["weights"][rows]))
        leaves.append({"node_id": node.node_id, "n_rows": len(node.dset.ind), "indices": node.dset.ind,
                       "samples": samples})
    manager.close()
    return leaves


def union(leaves: List[Dict[str, Any]], position: int) -> Dataset:
    """The rows of the coreset at ``position`` of every leaf, with their weights."""
    X = np.concatenate([leaf["samples"][position][0] for leaf in leaves])
    y = np.concatenate([leaf["samples"][position][1] for leaf in leaves])
    w = np.concatenate([leaf["samples"][position][2] for leaf in leaves])
    return Dataset(ind=np.arange(len(X)), X=X, y=y, sample_weight=w)
