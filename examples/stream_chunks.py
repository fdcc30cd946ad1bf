"""Streams a dataset through a chunk layer and reports what it built.

The layer cuts the stream into chunks of ``--chunk-size`` rows. Every chunk becomes a node that
preprocesses its rows and builds two coresets: a k-means one and a linear-regression one. Every
node is saved through the library's data manager. The rows that do not fill a last chunk become
the buffer node. Two stored chunks are then rebuilt from the data manager, and a predicate picks
the samples to remove.

    python examples/stream_chunks.py                       # synthetic data, sequential
    python examples/stream_chunks.py --jobs 2              # chunks built on the task pool
    python examples/stream_chunks.py --csv data.csv --target price
"""

from __future__ import annotations

import argparse
import threading
import time
from typing import Dict, Iterator, List, Optional, Tuple

import numpy as np
from quillmarsh.core.tree.chunk_layer import BUFFER_NODE_ID, ChunkLayer, ChunkSensitivitiesParams

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, DataParamsInternal, FeatureField


class Tree:
    """The smallest owner a chunk layer needs: it hears of every addition to the buffer."""

    def __init__(self) -> None:
        self.buffer_updates = 0

    def update_build_params(self) -> None:
        self.buffer_updates += 1


def synthetic_batches(rows: int, features: int, batch_rows: int, seed: int) -> Iterator[Dataset]:
    """Linear-regression data with a few missing values, in batches of `batch_rows` rows."""
    rng = np.random.default_rng(seed)
    coefficients = rng.normal(size=features)
    for start in range(0, rows, batch_rows):
        count = min(batch_rows, rows - start)
        X = rng.normal(size=(count, features))
        y = X @ coefficients + rng.normal(scale=0.1, size=count)
        X[rng.random(X.shape) < 0.01] = np.nan
        yield Dataset(np.arange(start, start + count), X, y)


def csv_batches(path: str, target: str, batch_rows: int) -> Tuple[List[str], List[int], Iterator[Dataset]]:
    """The columns of a CSV file as features (non-numeric ones categorical) and `target` as y."""
    import pandas as pd

    frame = pd.read_csv(path)
    if target not in frame.columns:
        raise SystemExit(f"--target {target!r} is not a column of {path}")
    y = pd.to_numeric(frame.pop(target), errors="coerce").to_numpy(dtype=float)
    names = [str(column) for column in frame.columns]
    # Text columns are object columns with pandas 2 and string columns with pandas 3.
    categorical = [
        i for i, column in enumerate(frame.columns) if not pd.api.types.is_numeric_dtype(frame[column])
    ]
    X = frame.to_numpy(dtype=object if categorical else float)

    def batches() -> Iterator[Dataset]:
        for start in range(0, len(frame), batch_rows):
            stop = min(start + batch_rows, len(frame))
            yield Dataset(np.arange(start, stop), X[start:stop], y[start:stop])

    return names, categorical, batches()


class Leaves:
    """Collects the leaf nodes as they are built (from worker threads in parallel mode)."""

    def __init__(self, data_manager: DataManager) -> None:
        self.data_manager = data_manager
        self.lock = threading.Lock()
        self.nodes: Dict[str, object] = {}
        self.order: List[Tuple[Optional[int], str]] = []

    def __call__(self, node, leaf_index: Optional[int]) -> None:
        node.save(self.data_manager, save_all=True)
        with self.lock:
            self.nodes[node.node_id] = node
            self.order.append((leaf_index, node.node_id))


def coreset_sizes(node) -> str:
    return " + ".join(str(len(record.coreset["idxs"])) for record in node.coresets)


def main(argv: Optional[List[str]] = None) -> Dict[str, object]:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rows", type=int, default=203_500, help="synthetic rows (default 203500)")
    parser.add_argument("--features", type=int, default=8, help="synthetic features (default 8)")
    parser.add_argument("--batch-rows", type=int, default=25_000, help="rows per incoming dataset")
    parser.add_argument("--chunk-size", type=int, default=10_000, help="rows per chunk (default 10000)")
    parser.add_argument("--jobs", type=int, default=None, help="build chunks on the task pool with N jobs")
    parser.add_argument("--csv", help="stream this CSV file instead of synthetic data")
    parser.add_argument("--target", help="the CSV column to use as the target")
    parser.add_argument("--storage-dir", help="keep the saved chunks in this directory")
    parser.add_argument("--quiet", action="store_true", help="no progress lines")
    parser.add_argument("--seed", type=int, default=0)
    args = parser.parse_args(argv)

    if args.csv:
        if not args.target:
            parser.error("--csv needs --target COLUMN")
        names, categorical, batches = csv_batches(args.csv, args.target, args.batch_rows)
        n_instances: Optional[int] = None
    else:
        names = [f"x{i}" for i in range(args.features)]
        categorical = []
        batches = synthetic_batches(args.rows, args.features, args.batch_rows, args.seed)
        n_instances = args.rows

    data_manager = DataManager(
        data_params=DataParams(features=[FeatureField(name) for name in names]),
        data_params_internal=DataParamsInternal(categorical_features_=categorical),
        n_jobs=args.jobs,
        verbose=0 if args.quiet else 1,
        n_instances=n_instances,
        storage_dir=args.storage_dir,
    )
    params = [
        ChunkSensitivitiesParams(
            coreset_params={"k": 8, "dtype": "float32", "random_state": args.seed}, coreset_cls=CoresetKMeans
        ),
        ChunkSensitivitiesParams(
            coreset_params={"dtype": "float64", "random_state": args.seed},
            coreset_cls=CoresetLinearRegression,
        ),
    ]
    tree = Tree()
    layer = ChunkLayer(data_manager, params, args.chunk_size, tree)
    leaves = Leaves(data_manager)

    started = time.perf_counter()
    buffer_node = None
    for node in layer.process(batches, create_buffer=True, after_create_leaf_node=leaves):
        if node is not None and node.node_id == BUFFER_NODE_ID:
            buffer_node = node
    if args.jobs and args.jobs > 1:
        ThreadPoolManager().wait_until_idle()
    data_manager.wait_for_saves()
    elapsed = time.perf_counter() - started

    chunk_ids = [node_id for _, node_id in sorted(leaves.order, key=lambda item: (item[0] is None, item[0]))
                 if node_id != BUFFER_NODE_ID]
    rebuilt = list(layer.rebuild(chunk_ids[:2]))

    def far_from_centre(ind, X, y, props):
        """Samples with a target more than three standard deviations from the chunk's mean."""
        spread = np.nanstd(y)
        return ind[np.abs(y - np.nanmean(y)) > 3 * spread] if spread > 0 else ind[:0]

    to_remove = layer.filter_out_samples(far_from_centre, chunk_ids, with_buffer=True)
    data_manager.remove_samples(to_remove)
    data_manager.close()

    rows = int(layer.build_params["number_of_samples"]) if layer.build_params else 0
    leftover = int(buffer_node.dset.ind.shape[0]) if buffer_node is not None else 0
    summary = {
        "chunks": len(chunk_ids),
        "rows": rows,
        "rows in the buffer node": leftover,
        "coreset sizes (first chunk)": coreset_sizes(leaves.nodes[chunk_ids[0]]) if chunk_ids else "-",
        "coreset sizes (buffer node)": coreset_sizes(buffer_node) if buffer_node is not None else "-",
        "chunks rebuilt from storage": len(rebuilt),
        "samples selected for removal": int(to_remove.shape[0]),
        "time (s)": round(elapsed, 3),
        "rows per second": int(rows / elapsed) if elapsed > 0 else 0,
        "mode": f"parallel, {args.jobs} jobs" if args.jobs and args.jobs > 1 else "sequential",
    }
    print("\nSummary")
    for key, value in summary.items():
        print(f"  {key:<30} {value}")
    return summary


if __name__ == "__main__":
    main()
