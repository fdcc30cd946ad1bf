"""``ChunkLayer.process`` end to end over 1,000,000 rows, against "the floor".

Real collaborators throughout: the library's ``DataManager``, ``Dataset`` records, the real compiled
``ChunkNode`` (with the library's ``DataAutoProcessor``) building one ``CoresetLinearRegression`` per
chunk, and in parallel mode the library's ``ThreadPoolManager`` with ``n_jobs`` 2.

The floor is the same work without the layer: a plain Python loop that makes the same numpy and
collaborator calls (record per dataset, statistics, concatenation onto the buffer, parent notification,
slicing of each full chunk, ``ChunkNode(...).build()``, the callback; in parallel mode the same task and
memory check queued on the same pool). The ratio layer / floor is the layer's whole cost on top of the
work it must do; the target is at most 1.05. Both wall time and CPU time (of the whole process, pool
workers included) are taken; the target is judged on the CPU times, which the machine's other work
does not inflate (on a shared machine the wall-time ratio of two identical runs moves by 20 %).

Peak memory is measured in separate runs with ``tracemalloc`` (numpy reports its buffers to it), with the
input arrays allocated before tracing starts, and compared with the bytes that the largest buffer must
hold: (largest number of buffered rows, just after an addition) x (bytes per row).

    .venv/bin/python benchmarks/bench_end_to_end.py [--repeats N] [--quick]
"""

# ruff: noqa: E402
from __future__ import annotations

import os

# One BLAS thread (unless the caller chose): the two pool workers must not compete with BLAS threads.
for _variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_variable, "1")

import argparse
import gc
import itertools
import statistics
import threading
import time
import tracemalloc
from typing import Any, Callable, Dict, List, Tuple

import numpy as np
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkNode, ChunkSensitivitiesParams

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.coreset import CoresetLinearRegression
from quillmarsh.core.tree import utils
from quillmarsh.core.tree.utils import evaluate_max_batch_size
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField

N_ROWS = 1_000_000
N_FEATURES = 8
CHUNK_SIZES = (1_000, 10_000, 100_000)
DATASET_ROWS = (10_000, 100_000)
MODES = ("sequential", "parallel")
TARGET_RATIO = 1.05


class Tree:
    """The layer's parent: hears of every addition to the buffer."""

    def __init__(self) -> None:
        self.updates = 0

    def update_build_params(self) -> None:
        self.updates += 1


class Leaves:
    """The callback: counts the leaves and their rows (from worker threads in parallel mode)."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.count = 0
        self.rows = 0

    def __call__(self, node: Any, leaf_index: Any) -> None:
        with self.lock:
            self.count += 1
            self.rows += node.dset.ind.shape[0]


def make_data(seed: int = 0) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(N_ROWS, N_FEATURES))
    y = X @ rng.normal(size=N_FEATURES) + rng.normal(scale=0.1, size=N_ROWS)
    return np.arange(N_ROWS, dtype=np.int64), X, y


def datasets(data: Tuple[np.ndarray, np.ndarray, np.ndarray], rows: int):
    ind, X, y = data
    for start in range(0, N_ROWS, rows):
        stop = min(start + rows, N_ROWS)
        yield Dataset(ind[start:stop], X[start:stop], y[start:stop])


def make_manager(mode: str) -> DataManager:
    features = [FeatureField(f"f{i}") for i in range(N_FEATURES)]
    return DataManager(data_params=DataParams(features=features), n_jobs=2 if mode == "parallel" else None)


def make_params() -> List[ChunkSensitivitiesParams]:
    return [
        ChunkSensitivitiesParams(
            coreset_cls=CoresetLinearRegression, coreset_params={"random_state": 0, "coreset_size": 64}
        )
    ]


# ---- the two runs -------------------------------------------------------------------------------------


def run_layer(data, chunk_size: int, rows: int, mode: str) -> Leaves:
    manager, leaves = make_manager(mode), Leaves()
    layer = ChunkLayer(manager, make_params(), chunk_size, Tree())
    for _node in layer.process(datasets(data, rows), create_buffer=True, after_create_leaf_node=leaves):
        pass  # the callback counts the leaves
    if mode == "parallel":
        ThreadPoolManager().wait_until_idle()
    return leaves


def run_floor(data, chunk_size: int, rows: int, mode: str) -> Leaves:
    """The same calls without the layer: what processing the stream costs at the least."""
    manager, leaves, parent, params = make_manager(mode), Leaves(), Tree(), make_params()
    pool = ThreadPoolManager() if mode == "parallel" else None
    dtype = params[0].coreset_params.get("dtype", "float32")
    buffer: Tuple[Any, ...] | None = None
    size_bytes = samples = 0
    leaf_index = 0

    def build(chunk, node_id=None):
        return ChunkNode(dset=chunk, params=params, node_id=node_id, data_manager=manager).build()

    def task(chunk, index):
        leaves(build(chunk), index)

    def check(chunk, index):
        fits = evaluate_max_batch_size(n_features=chunk.X.shape[1], available=True, dtype=dtype)
        return not (fits < chunk.X.shape[0] and ThreadPoolManager().has_running_tasks())

    for item in datasets(data, rows):
        dset = Dataset(*item)
        size_bytes += sum([d.size * d.itemsize for d in dset if d is not None])
        samples += len(dset.ind)
        if buffer is None or buffer[1].shape[0] == 0:
            buffer = tuple(dset)
        else:
            buffer = tuple(b if d is None else np.concatenate((b, d)) for b, d in zip(buffer, dset))
        parent.update_build_params()
        utils.is_simple_chunk_size(chunk_size)
        while buffer[1].shape[0] >= chunk_size:
            chunk = Dataset(*(None if a is None else a[:chunk_size] for a in buffer))
            buffer = tuple(None if a is None else a[chunk_size:] for a in buffer)
            if pool is not None:
                pool.add_to_queue(task, check, 0, chunk, leaf_index)
            else:
                # Held until the next one is built, as a caller iterating process() holds each node.
                node = build(chunk)
                leaves(node, None)
            leaf_index += 1
    if buffer is not None and buffer[1].shape[0] > 0:
        node = build(Dataset(*buffer), "buffer")
        leaves(node, None)
    if pool is not None:
        pool.wait_until_idle()
    return leaves


RUNNERS: Dict[str, Callable[..., Leaves]] = {"layer": run_layer, "floor": run_floor}


# ---- measurement --------------------------------------------------------------------------------------


def largest_buffer_rows(chunk_size: int, rows: int) -> int:
    """The most rows the buffer holds at once: the remainder plus one incoming dataset, before a drain."""
    held, most = 0, 0
    for start in range(0, N_ROWS, rows):
        held += min(rows, N_ROWS - start)
        most = max(most, held)
        held %= chunk_size
    return most


def _timed(runner: Callable[..., Leaves], *args: Any) -> Tuple[float, float, Leaves]:
    """Wall seconds and CPU seconds (every thread of the process: the pool's workers too) of one run."""
    gc.collect()
    start, start_cpu = time.perf_counter(), time.process_time()
    leaves = runner(*args)
    return time.perf_counter() - start, time.process_time() - start_cpu, leaves


def _peak_bytes(runner: Callable[..., Leaves], *args: Any) -> int:
    gc.collect()
    tracemalloc.start()
    try:
        runner(*args)
        return tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()


def run(
    repeats: int = 5,
    chunk_sizes=CHUNK_SIZES,
    dataset_rows=DATASET_ROWS,
    modes=MODES,
    memory: bool = True,
    verbose: bool = True,
) -> Dict[str, Any]:
    ThreadPoolManager().shutdown()
    ThreadPoolManager.configure(max_workers=2)
    data = make_data()
    row_bytes = sum(a[:1].nbytes for a in data)
    results = []
    for mode, chunk_size, rows in itertools.product(modes, chunk_sizes, dataset_rows):
        times: Dict[str, List[float]] = {"layer": [], "floor": []}
        cpu: Dict[str, List[float]] = {"layer": [], "floor": []}
        for repeat in range(repeats):
            order = ("layer", "floor") if repeat % 2 == 0 else ("floor", "layer")
            for name in order:
                seconds, cpu_seconds, leaves = _timed(RUNNERS[name], data, chunk_size, rows, mode)
                cpu[name].append(cpu_seconds)
                assert leaves.rows == N_ROWS, (name, leaves.rows)
                times[name].append(seconds)
        layer_s, floor_s = statistics.median(times["layer"]), statistics.median(times["floor"])
        layer_cpu, floor_cpu = statistics.median(cpu["layer"]), statistics.median(cpu["floor"])
        entry: Dict[str, Any] = {
            "mode": mode,
            "chunk_size": chunk_size,
            "dataset_rows": rows,
            "chunks": leaves.count,
            "layer_s": round(layer_s, 4),
            "floor_s": round(floor_s, 4),
            "layer_rows_per_s": round(N_ROWS / layer_s),
            "floor_rows_per_s": round(N_ROWS / floor_s),
            "ratio": round(layer_s / floor_s, 4),
            "ratio_of_minima": round(min(times["layer"]) / min(times["floor"]), 4),
            "layer_times_s": [round(t, 4) for t in times["layer"]],
            "floor_times_s": [round(t, 4) for t in times["floor"]],
            "layer_cpu_s": round(layer_cpu, 4),
            "floor_cpu_s": round(floor_cpu, 4),
            "cpu_ratio": round(layer_cpu / floor_cpu, 4),
            "meets_target": layer_cpu / floor_cpu <= TARGET_RATIO,
        }
        buffer_bytes = largest_buffer_rows(chunk_size, rows) * row_bytes
        entry["largest_buffer_rows"] = largest_buffer_rows(chunk_size, rows)
        entry["largest_buffer_bytes"] = buffer_bytes
        if memory:
            layer_peak = _peak_bytes(run_layer, data, chunk_size, rows, mode)
            floor_peak = _peak_bytes(run_floor, data, chunk_size, rows, mode)
            entry.update(
                {
                    "layer_peak_bytes": layer_peak,
                    "floor_peak_bytes": floor_peak,
                    "layer_peak_over_buffer": round(layer_peak / buffer_bytes, 2),
                    "floor_peak_over_buffer": round(floor_peak / buffer_bytes, 2),
                    "layer_peak_over_floor_peak": round(layer_peak / floor_peak, 3),
                }
            )
        results.append(entry)
        if verbose:
            print(format_row(entry), flush=True)
    return {
        "rows": N_ROWS,
        "features": N_FEATURES,
        "row_bytes": row_bytes,
        "repeats": repeats,
        "target_ratio": TARGET_RATIO,
        "coreset": "CoresetLinearRegression(random_state=0, coreset_size=64)",
        "pool_workers": ThreadPoolManager().max_workers,
        "configurations": results,
    }


HEADER = (
    f"{'mode':10} {'chunk':>7} {'dataset':>7} {'layer rows/s':>13} {'floor rows/s':>13} {'ratio':>6} "
    f"{'min r':>6} {'cpu r':>6} {'buffer MB':>9} {'layer peak MB':>13} {'floor peak MB':>13}"
)


def format_row(r: Dict[str, Any]) -> str:
    mb = 1024 * 1024
    peaks = (
        f"{r['layer_peak_bytes'] / mb:13.1f} {r['floor_peak_bytes'] / mb:13.1f}"
        if "layer_peak_bytes" in r
        else f"{'-':>13} {'-':>13}"
    )
    return (
        f"{r['mode']:10} {r['chunk_size']:7d} {r['dataset_rows']:7d} {r['layer_rows_per_s']:13,d} "
        f"{r['floor_rows_per_s']:13,d} {r['ratio']:6.3f} {r['ratio_of_minima']:6.3f} {r['cpu_ratio']:6.3f} "
        f"{r['largest_buffer_bytes'] / mb:9.1f} {peaks}"
    )


def format_table(report: Dict[str, Any]) -> str:
    lines = [
        f"End to end over {report['rows']:,} rows x {report['features']} features "
        f"(median of {report['repeats']}; target cpu r <= {report['target_ratio']}; ratio and min r of the "
        "wall times, median and fastest; cpu r of the CPU times, median)",
        HEADER,
    ]
    lines += [format_row(r) for r in report["configurations"]]
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--repeats", type=int, default=5)
    parser.add_argument("--quick", action="store_true", help="one repeat, no memory runs")
    args = parser.parse_args()
    if args.quick:
        print(HEADER)
        run(repeats=1, memory=False)
    else:
        print(HEADER)
        run(repeats=args.repeats)


if __name__ == "__main__":
    main()
