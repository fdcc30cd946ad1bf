"""The leaves of one stream built on a local Dask cluster, against one chunk layer in one process.

Both runs make the same synthetic rows (8 features and a target, in partitions made where they are
used) and build the same coresets per chunk: a k-means one and a linear-regression one, as the example
does. The single-process run streams the partitions, in order, through one ``ChunkLayer``; the
distributed run is ``quillmarsh.distributed.build_leaves`` on a new ``LocalCluster`` of worker processes
with one thread each, for several numbers of workers and partitions.

Reported per run: wall time; how the time splits between the workers (the partitions' time on their
workers, in all and for the busiest worker) and the client's tail (the last layer over the rows the
partitions left over); and the peak resident memory of every process (the client, each worker),
sampled with psutil every 20 ms, with the process's resident memory just before the run. The cluster's
start is timed apart and not counted.

    .venv/bin/python benchmarks/bench_distributed.py             # 2,000,000 rows: about 2 minutes
    .venv/bin/python benchmarks/bench_distributed.py --quick     # 400,000 rows, fewer runs
"""

# ruff: noqa: E402
from __future__ import annotations

import os

# One BLAS thread per process (unless the caller chose): the workers share two cores with the client.
for _variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_variable, "1")

import argparse
import logging
import sys
import threading
import time
from typing import Any, Callable, Dict, List, Optional, Tuple

import dask
import numpy as np
import pandas as pd
import psutil
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkSensitivitiesParams

from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField
from quillmarsh.distributed import ManagerSettings, build_leaves, connect

N_FEATURES = 8
CHUNK_SIZE = 50_000
FEATURES = [f"x{i}" for i in range(N_FEATURES)]
TARGET = "y"
# (workers, partitions) of the distributed runs.
LAYOUTS = [(1, 4), (2, 2), (2, 4), (2, 8), (2, 16)]
QUICK_LAYOUTS = [(1, 4), (2, 4)]


def make_partition(start: int, stop: int, seed: int = 0) -> pd.DataFrame:
    """Rows ``start`` to ``stop`` of the synthetic table: linear target plus noise, 1 % missing values."""
    rng = np.random.default_rng([seed, start])
    coefficients = np.random.default_rng(seed).normal(size=N_FEATURES)
    X = rng.normal(size=(stop - start, N_FEATURES))
    y = X @ coefficients + rng.normal(scale=0.1, size=stop - start)
    X[rng.random(X.shape) < 0.01] = np.nan
    frame = pd.DataFrame(X, columns=FEATURES, index=pd.RangeIndex(start, stop))
    frame[TARGET] = y
    return frame


def bounds(rows: int, partitions: int) -> List[int]:
    """Partition bounds of slightly uneven lengths, so that partitions leave rows over."""
    cuts = np.linspace(0, rows, partitions + 1).round().astype(int)
    cuts[1:-1] += np.arange(1, partitions) * 7
    return [int(c) for c in cuts]


def params() -> List[ChunkSensitivitiesParams]:
    return [
        ChunkSensitivitiesParams(
            coreset_params={"k": 8, "dtype": "float32", "random_state": 0}, coreset_cls=CoresetKMeans
        ),
        ChunkSensitivitiesParams(
            coreset_params={"dtype": "float64", "random_state": 0}, coreset_cls=CoresetLinearRegression
        ),
    ]


def data_params() -> DataParams:
    return DataParams(features=[FeatureField(name) for name in FEATURES])


class PeakMemory:
    """Samples the resident memory of some processes every 20 ms on a thread; keeps each one's peak, and
    the CPU seconds each one spent meanwhile (which other load on the machine does not inflate)."""

    def __init__(self, pids: Dict[str, int]) -> None:
        self.processes = {name: psutil.Process(pid) for name, pid in pids.items()}
        self.before = {name: p.memory_info().rss for name, p in self.processes.items()}
        self.peak = dict(self.before)
        self.cpu = {name: self._cpu(p) for name, p in self.processes.items()}
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._sample, daemon=True)

    def _sample(self) -> None:
        while not self._stop.wait(0.02):
            for name, process in self.processes.items():
                self.peak[name] = max(self.peak[name], process.memory_info().rss)

    def __enter__(self) -> PeakMemory:
        self._thread.start()
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self._stop.set()
        self._thread.join()
        for name, process in self.processes.items():
            self.peak[name] = max(self.peak[name], process.memory_info().rss)
            self.cpu[name] = self._cpu(process) - self.cpu[name]

    @staticmethod
    def _cpu(process: psutil.Process) -> float:
        return float(sum(process.cpu_times()[:2]))  # user and system

    def report(self) -> Dict[str, Dict[str, float]]:
        mb = 1 << 20
        return {
            name: {"before_mb": round(self.before[name] / mb, 1), "peak_mb": round(self.peak[name] / mb, 1),
                   "cpu_s": round(self.cpu[name], 3)}
            for name in self.processes
        }


class Tree:
    def update_build_params(self) -> None:
        pass


def single_process(rows: int) -> Dict[str, Any]:
    """One layer in this process over the same rows (made partition by partition, as the workers do)."""
    cuts = bounds(rows, 4)
    with PeakMemory({"client": os.getpid()}) as memory:
        started = time.perf_counter()
        manager = DataManager(data_params=data_params(), n_jobs=1)
        layer = ChunkLayer(manager, params(), CHUNK_SIZE, Tree())

        def batches() -> Any:
            for start, stop in zip(cuts[:-1], cuts[1:]):
                frame = make_partition(start, stop)
                for first in range(0, len(frame), CHUNK_SIZE):
                    part = frame.iloc[first:first + CHUNK_SIZE]
                    yield Dataset(part.index.to_numpy(), part[FEATURES].to_numpy(), part[TARGET].to_numpy())

        leaves = sum(1 for _ in layer.process(batches(), create_buffer=True))
        manager.close()
        wall = time.perf_counter() - started
    return {"layout": "one process", "leaves": leaves, "wall_s": round(wall, 3), "memory": memory.report()}


def distributed_run(rows: int, workers: int, partitions: int) -> Dict[str, Any]:
    """``build_leaves`` on a new local cluster of ``workers`` processes, over ``partitions`` partitions."""
    begun = time.perf_counter()
    client = connect("local", n_workers=workers, silence_logs=logging.ERROR)
    try:
        # Import the library on every worker before timing: that belongs to the cluster's start.
        client.run(lambda: __import__("quillmarsh.distributed.leaves"))
        start_s = time.perf_counter() - begun
        pids = {"client": os.getpid()}
        for number, (_, pid) in enumerate(sorted(client.run(os.getpid).items())):
            pids[f"worker {number}"] = pid
        cuts = bounds(rows, partitions)
        parts = [dask.delayed(make_partition, pure=True)(a, b) for a, b in zip(cuts[:-1], cuts[1:])]
        with PeakMemory(pids) as memory:
            result = build_leaves(parts, TARGET, ManagerSettings(data_params()), params(), CHUNK_SIZE,
                                  client=client, progress=False, n_rows=rows)
        per_worker: Dict[str, float] = {}
        for stats in result.partitions:
            per_worker[stats.worker] = per_worker.get(stats.worker, 0.0) + stats.seconds
    finally:
        client.close()
    assert result.n_rows == rows and not result.failed
    return {
        "layout": f"{workers} worker{'s' if workers > 1 else ''}, {partitions} partitions",
        "workers": workers,
        "partitions": partitions,
        "leaves": len(result.leaves),
        "tail_leaves": sum(1 for leaf in result.leaves if leaf.partition is None),
        "cluster_start_s": round(start_s, 3),
        "wall_s": round(result.wall_seconds, 3),
        "workers_total_s": round(sum(per_worker.values()), 3),
        "busiest_worker_s": round(max(per_worker.values()), 3),
        "tail_s": round(result.tail_seconds, 3),
        "memory": memory.report(),
    }


def best_of(repeats: int, run: Callable[[], Dict[str, Any]]) -> Dict[str, Any]:
    """The run with the lowest wall time of ``repeats``."""
    return min((run() for _ in range(repeats)), key=lambda r: float(r["wall_s"]))


def table(results: List[Dict[str, Any]], baseline: float) -> str:
    lines = [
        "| run | leaves (tail) | wall s | vs one process | workers' s (busiest) | client tail s "
        "| CPU s: client, workers | peak RSS MB: client | peak RSS MB: each worker |",
        "|---|---|---|---|---|---|---|---|---|",
    ]
    for r in results:
        memory: Dict[str, Dict[str, float]] = r["memory"]
        workers = [f"{v['peak_mb']:.0f} ({v['before_mb']:.0f})" for k, v in memory.items() if k != "client"]
        client = memory["client"]
        lines.append(
            f"| {r['layout']} | {r['leaves']}" + (f" ({r['tail_leaves']})" if "tail_leaves" in r else "")
            + f" | {r['wall_s']:.2f} | {baseline / r['wall_s']:.2f}x"
            + (f" | {r['workers_total_s']:.2f} ({r['busiest_worker_s']:.2f})" if "workers" in r else " | -")
            + (f" | {r['tail_s']:.3f}" if "tail_s" in r else " | -")
            + f" | {client['cpu_s']:.2f}"
            + (f", {sum(v['cpu_s'] for k, v in memory.items() if k != 'client'):.2f}" if workers else "")
            + f" | {client['peak_mb']:.0f} ({client['before_mb']:.0f})"
            + f" | {', '.join(workers) if workers else '-'} |"
        )
    return "\n".join(lines)


def main(argv: Optional[List[str]] = None) -> Tuple[List[Dict[str, Any]], str]:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rows", type=int, default=None, help="rows (default 2,000,000; 400,000 --quick)")
    parser.add_argument("--repeats", type=int, default=None, help="runs per layout, fastest kept (default 2)")
    parser.add_argument("--quick", action="store_true", help="fewer rows, layouts and repeats")
    args = parser.parse_args(argv)
    rows = args.rows or (400_000 if args.quick else 2_000_000)
    repeats = args.repeats or (1 if args.quick else 2)
    layouts = QUICK_LAYOUTS if args.quick else LAYOUTS

    results = [best_of(repeats, lambda: single_process(rows))]
    for workers, partitions in layouts:
        results.append(best_of(repeats, lambda w=workers, p=partitions: distributed_run(rows, w, p)))
        print(f"  {results[-1]['layout']}: {results[-1]['wall_s']:.2f} s", file=sys.stderr)
    text = table(results, float(results[0]["wall_s"]))
    print(f"{rows:,} rows, {N_FEATURES} features, chunks of {CHUNK_SIZE:,} rows, best of {repeats}")
    print(text)
    return results, text


if __name__ == "__main__":
    main()
