"""The coreset tree against its references: quality, memory, the cost of merging, upkeep and Dask.

- quality: the excess cost on all rows of the model solved on the tree's summary of m rows (k-means:
  cost over the cost of the k-means of all rows, less 1; regression: the relative excess squared loss
  of the weighted least squares), beside the one-shot coreset (the same class on all rows at once, the
  ideal) and a uniform sample of m rows weighted N / m, on the same rows: mean, lowest and highest over
  ``--seeds`` seeds. Balanced data (a Gaussian mixture, a linear model), and two imbalanced sets that a
  uniform sample misses (a small far cluster; a few rows of high leverage with a slope of their own);
- memory: the peak RSS (``VmHWM``) of streaming 2,000,000 rows against 200,000, each in a new process;
- cost: the tree against its chunk layer alone building the same leaves, and the merges' own time;
- upkeep: removing a leaf's rows, and ``save`` plus ``load``, against the build; the k-means quality
  after removing the far cluster against a tree that never held it;
- dask: the tree on a local cluster of 2 workers against the sequential and threaded builds (rows per
  second, equal summaries); ``build_leaves`` over several numbers of workers and partitions against one
  chunk layer in this process (wall time, the workers' time, the client's tail). For every run, each
  process's CPU seconds and peak memory (``VmHWM``, reset before the run): the client's and the workers'.

Usage::

    python benchmarks/bench_tree.py                 # everything
    python benchmarks/bench_tree.py --quick         # 200,000 rows, m = 200, 3 seeds, fewer points
    python benchmarks/bench_tree.py --only quality --only dask --rows 2000000 --seeds 8
"""

# ruff: noqa: E402
from __future__ import annotations

import argparse
import contextlib
import json
import logging
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from types import SimpleNamespace
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Tuple

# One BLAS thread per process (unless the caller chose): two cores, shared with the workers.
for _variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_variable, "1")

import numpy as np
import pandas as pd
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkSensitivitiesParams
from sklearn.cluster import KMeans
from sklearn.linear_model import LinearRegression

from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree
from quillmarsh.core.coreset.sampling import sample_rows
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField

HERE = Path(__file__).resolve().parent
K = 10
FEATURES = 10
NAMES = [f"f{i}" for i in range(FEATURES)]
BLOCK = 50_000  # rows a block added; also the chunk of the build_leaves runs
# (workers, partitions) of the build_leaves runs.
LAYOUTS = [(1, 4), (2, 2), (2, 4), (2, 8), (2, 16)]
QUICK_LAYOUTS = [(1, 4), (2, 4)]

Data = Tuple[np.ndarray, np.ndarray]


# -- datasets --------------------------------------------------------------------------------------


def mixture(n: int, seed: int, far_cluster: bool) -> Data:
    """K Gaussian clusters of unequal sizes; with ``far_cluster``, 0.05% of the rows far from them."""
    rng = np.random.default_rng(seed)
    centres = rng.uniform(-10, 10, size=(K, FEATURES))
    sizes = rng.dirichlet(np.full(K, 2.0))
    labels = rng.choice(K, size=n, p=sizes)
    X = centres[labels] + rng.normal(size=(n, FEATURES))
    if far_cluster:
        far = rng.choice(n, size=max(1, n // 2000), replace=False)
        X[far] = 200.0 + rng.normal(size=(far.size, FEATURES))
    return X, np.zeros(n)


def linear(n: int, seed: int, high_leverage: bool) -> Data:
    """y = X beta + noise; with ``high_leverage``, 0.02% of the rows have a large first feature and a
    slope of their own on it, which the rest cannot tell."""
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(n, FEATURES))
    beta = rng.normal(size=FEATURES)
    y = X @ beta + 2.0 * rng.normal(size=n)
    if high_leverage:
        X[:, 0] = 0.0
        rows = rng.choice(n, size=max(1, n // 5000), replace=False)
        X[rows, 0] = 10.0
        y[rows] += 30.0
    return X, y


def partition(start: int, stop: int) -> pd.DataFrame:
    """Rows ``start`` to ``stop`` of one table, made where they are used (on a worker for the cluster):
    a linear target with noise, 1% of the features missing, indexed by row number."""
    rng = np.random.default_rng([0, start])
    X = rng.normal(size=(stop - start, FEATURES))
    y = X @ np.random.default_rng(0).normal(size=FEATURES) + rng.normal(scale=0.1, size=stop - start)
    X[rng.random(X.shape) < 0.01] = np.nan
    return pd.DataFrame(X, columns=NAMES, index=pd.RangeIndex(start, stop)).assign(y=y)


def bounds(rows: int, partitions: int) -> List[int]:
    """Partition bounds of slightly uneven lengths, so that partitions leave rows over."""
    cuts = np.linspace(0, rows, partitions + 1).round().astype(int)
    cuts[1:-1] += np.arange(1, partitions) * 7
    return [int(c) for c in cuts]


# -- measuring -------------------------------------------------------------------------------------


def timed(work: Callable[[], Any]) -> Tuple[float, Any]:
    start = time.perf_counter()
    result = work()
    return time.perf_counter() - start, result


def best_of(repeats: int, run: Callable[[], Dict[str, Any]]) -> Dict[str, Any]:
    """The run with the lowest wall time of ``repeats``."""
    return min((run() for _ in range(repeats)), key=lambda result: float(result["wall_s"]))


def spread(values: List[float]) -> Dict[str, float]:
    return {"mean": float(np.mean(values)), "min": float(np.min(values)), "max": float(np.max(values))}


def memory_mb(status: str) -> List[float]:
    """The resident memory now and at its peak (``VmRSS``, ``VmHWM``) in MB, from ``/proc/<pid>/status``."""
    fields = dict(line.split(":", 1) for line in status.strip().splitlines())
    return [round(int(fields[key].split()[0]) / 1024, 1) for key in ("VmRSS", "VmHWM")]


def usage(reset: bool = False) -> Dict[str, float]:
    """This process's memory (``memory_mb``) and CPU seconds; ``reset`` first brings the peak down to now."""
    if reset:
        Path("/proc/self/clear_refs").write_text("5")
    rss, peak = memory_mb(Path("/proc/self/status").read_text())
    return {"rss_mb": rss, "peak_mb": peak, "cpu_s": sum(os.times()[:2])}


@contextlib.contextmanager
def measured(client: Any = None) -> Iterator[Dict[str, Dict[str, float]]]:
    """Yields a dict that the block's end fills with, for this process (the client) and every worker of
    ``client``: the resident memory before the block, the peak within it and the CPU seconds spent."""

    def now(reset: bool = False) -> Dict[str, Dict[str, float]]:
        workers = {} if client is None else client.run(usage, reset)
        return {"client": usage(reset), **{f"worker {i}": workers[a] for i, a in enumerate(sorted(workers))}}

    report: Dict[str, Dict[str, float]] = {}
    before = now(reset=True)
    yield report
    for name, after in now().items():
        cpu = round(after["cpu_s"] - before[name]["cpu_s"], 2)
        report[name] = {"before_mb": before[name]["rss_mb"], "peak_mb": after["peak_mb"], "cpu_s": cpu}


# -- the summaries ---------------------------------------------------------------------------------


def stream(tree: CoresetTree, X: np.ndarray, y: Optional[np.ndarray] = None) -> CoresetTree:
    """Adds the rows to ``tree`` in blocks of ``BLOCK`` rows, as a stream comes."""
    for start in range(0, X.shape[0], BLOCK):
        tree.add(X[start : start + BLOCK], None if y is None else y[start : start + BLOCK])
    return tree


def kmeans_tree(X: np.ndarray, m: int, chunk: int, seed: int, **kwargs: Any) -> CoresetTree:
    tree = CoresetTree(CoresetKMeans(k=K), coreset_size=m, chunk_size=chunk, random_state=seed, **kwargs)
    return stream(tree, X)


def tree_summary(model: str, X: np.ndarray, y: np.ndarray, m: int, chunk: int, seed: int) -> Any:
    coreset = CoresetKMeans(k=K) if model == "kmeans" else CoresetLinearRegression()
    tree = CoresetTree(coreset, coreset_size=m, chunk_size=chunk, random_state=seed)
    with stream(tree, X, None if model == "kmeans" else y):
        c = tree.coreset()
    return c.ids, c.weights


def one_shot(model: str, X: np.ndarray, y: np.ndarray, m: int, seed: int) -> Any:
    if model == "kmeans":
        s = CoresetKMeans(k=K, random_state=seed).compute_sensitivities(X)
    else:
        s = CoresetLinearRegression(random_state=seed).compute_sensitivities(X, y)
    return sample_rows(s, m, random_state=seed)


def uniform(n: int, m: int, seed: int) -> Any:
    idxs = np.sort(np.random.default_rng(seed).choice(n, size=m, replace=False))
    return idxs, np.full(m, n / m)


def data_params() -> DataParams:
    return DataParams(features=[FeatureField(name) for name in NAMES])


def chunk_params(m: int) -> List[ChunkSensitivitiesParams]:
    """A k-means and a regression coreset of m rows for every leaf, as the trees here hold."""
    return [
        ChunkSensitivitiesParams(coreset_cls=CoresetKMeans, coreset_params={"k": K, "coreset_size": m}),
        ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression, coreset_params={"coreset_size": m}),
    ]


def layer_leaves(batches: Iterable[Dataset], m: int, chunk: int, create_buffer: bool = False) -> int:
    """The chunk layer alone building the leaves of ``batches`` in this process; returns their number."""
    manager = DataManager(data_params=data_params())
    parent = SimpleNamespace(update_build_params=lambda: None)  # no tree above the layer
    layer = ChunkLayer(manager, chunk_params(m), chunk_size=chunk, parent=parent)
    leaves = sum(1 for _ in layer.process(batches, create_buffer=create_buffer))
    manager.close()
    return leaves


# -- quality: scoring on all rows ------------------------------------------------------------------


class Scorer:
    """Excess cost of a weighted subset's solution, on all rows, against the solution of all rows."""

    def __init__(self, model: str, X: np.ndarray, y: np.ndarray) -> None:
        self.model, self.X, self.y = model, X, y
        if model == "kmeans":
            self.best = -KMeans(K, n_init=3, random_state=0).fit(X).score(X)
        else:
            self.best = self.loss(LinearRegression().fit(X, y))

    def loss(self, fitted: LinearRegression) -> float:
        return float(((self.y - fitted.predict(self.X)) ** 2).sum())

    def excess(self, idxs: np.ndarray, weights: np.ndarray, seed: int) -> float:
        if self.model == "kmeans":
            solved = KMeans(K, n_init=5, random_state=seed).fit(self.X[idxs], sample_weight=weights)
            cost = -solved.score(self.X)
        else:
            cost = self.loss(LinearRegression().fit(self.X[idxs], self.y[idxs], sample_weight=weights))
        return float(cost / self.best - 1.0)


def quality_point(
    model: str, data: Data, m: int, chunk: int, seeds: int, scorer: Scorer
) -> Dict[str, Dict[str, float]]:
    X, y = data
    out: Dict[str, List[float]] = {"tree": [], "one_shot": [], "uniform": []}
    for seed in range(seeds):
        out["tree"].append(scorer.excess(*tree_summary(model, X, y, m, chunk, seed), seed))
        out["one_shot"].append(scorer.excess(*one_shot(model, X, y, m, seed), seed))
        out["uniform"].append(scorer.excess(*uniform(X.shape[0], m, seed), seed))
    return {name: spread(values) for name, values in out.items()}


def run_quality(rows: int, m: int, seeds: int, quick: bool) -> Dict[str, Any]:
    """Excess costs against stream length (2 to 128 leaves of ``rows / 100`` rows: depth 1 to 7) and
    against m (at ``rows`` rows, leaves of 10 m rows), for the balanced datasets; at ``rows`` rows and
    100 leaves for the imbalanced ones."""
    chunk = rows // 100
    results: Dict[str, Any] = {"rows": rows, "m": m, "chunk": chunk, "seeds": seeds, "cases": {}}
    makers: Dict[str, Tuple[str, Callable[[int, int, bool], Data], bool]] = {
        "kmeans": ("kmeans", mixture, False),
        "kmeans, far cluster": ("kmeans", mixture, True),
        "regression": ("regression", linear, False),
        "regression, high leverage": ("regression", linear, True),
    }
    depths = [1, 4, 7] if quick else list(range(1, 8))
    for name, (model, make, skewed) in makers.items():
        case: Dict[str, Any] = {}
        points: List[Tuple[str, int, int, int]] = [("leaves 100", rows, m, chunk)]
        if not skewed:
            points += [(f"depth {d}", 2**d * chunk, m, chunk) for d in depths]
        if not skewed and not quick:
            points += [(f"m {size}", rows, size, 10 * size) for size in (250, 500, 1000, 2000)]
        scorers: Dict[int, Scorer] = {}
        for label, n, size, leaf_rows in points:
            data = make(n, 1, skewed)
            if n not in scorers:
                scorers = {n: Scorer(model, *data)}  # one at a time: the rows are held while scored
            case[label] = quality_point(model, data, size, leaf_rows, seeds, scorers[n])
            case[label]["rows"] = n
            print(name, label, json.dumps(case[label]), flush=True)
        results["cases"][name] = case
    return results


# -- memory ----------------------------------------------------------------------------------------

_STREAM = """
import sys
import numpy as np
from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree

rows, m = int(sys.argv[1]), int(sys.argv[2])
tree = CoresetTree([CoresetKMeans(k=10), CoresetLinearRegression()], coreset_size=m, random_state=0)
rng = np.random.default_rng(0)
for start in range(0, rows, 10_000):
    X = rng.normal(size=(10_000, 10))
    tree.add(X, X.sum(axis=1))
tree.coreset(0), tree.coreset(1)
print(open("/proc/self/status").read())
"""


def peak_mb(rows: int, m: int) -> float:
    command = [sys.executable, "-c", _STREAM, str(rows), str(m)]
    return memory_mb(subprocess.run(command, capture_output=True, text=True, check=True).stdout)[1]


def run_memory(m: int) -> Dict[str, Any]:
    small = min(peak_mb(200_000, m) for _ in range(2))
    large = min(peak_mb(2_000_000, m) for _ in range(2))
    out = {"200k_MB": small, "2M_MB": large, "difference_MB": round(large - small, 1)}
    print("memory", json.dumps(out), flush=True)
    return out


# -- cost of the merges ----------------------------------------------------------------------------


def run_cost(rows: int, m: int, repeats: int) -> Dict[str, Any]:
    """The tree against the chunk layer alone on the same leaves; the merges' own time, measured inside
    the tree run, against the leaves' time."""
    from unittest import mock

    from quillmarsh.core.tree import coreset_tree

    X, y = linear(rows, 0, False)
    chunk = 10 * m

    def blocks() -> Iterator[Dataset]:
        for start in range(0, rows, BLOCK):
            yield Dataset(np.arange(start, start + BLOCK), X[start : start + BLOCK], y[start : start + BLOCK])

    def tree_both() -> None:
        tree = CoresetTree([CoresetKMeans(k=K), CoresetLinearRegression()], coreset_size=m, chunk_size=chunk)
        stream(tree, X, y).coreset(0), tree.coreset(1)

    merging = [0.0]
    original = coreset_tree.Reducer.merge

    def timed_merge(self: Any, *args: Any) -> Any:
        start = time.perf_counter()
        try:
            return original(self, *args)
        finally:
            merging[0] += time.perf_counter() - start

    timings: Dict[str, List[float]] = {"leaves": [], "tree": [], "merges": []}
    with mock.patch.object(coreset_tree.Reducer, "merge", timed_merge):
        for _ in range(repeats):
            merging[0] = 0.0
            timings["leaves"].append(timed(lambda: layer_leaves(blocks(), m, chunk))[0])
            timings["tree"].append(timed(tree_both)[0])
            timings["merges"].append(merging[0])
    leaves, tree, merges = min(timings["leaves"]), min(timings["tree"]), min(timings["merges"])
    out = {"leaves_s": leaves, "tree_s": tree, "merges_s": merges, "merges_add": merges / leaves,
           "tree_adds": tree / leaves - 1.0, "rows_per_s": rows / tree}
    print("cost", json.dumps(out), flush=True)
    return out


# -- upkeep: removing rows, saving and loading -------------------------------------------------------


def run_upkeep(rows: int, m: int, seeds: int) -> Dict[str, Any]:
    X, _ = mixture(rows, 1, True)
    far = np.flatnonzero(X[:, 0] > 100)
    chunk = rows // 100
    out: Dict[str, Any] = {"rows": rows, "m": m}
    build_s, tree = timed(lambda: kmeans_tree(X, m, chunk, 0))
    # Half a leaf: the leaf is rebuilt from its stored chunk; then the rest: it is left empty.
    half_s, _ = timed(lambda: tree.remove(np.arange(3 * chunk, 3 * chunk + chunk // 2)))
    rest_s, _ = timed(lambda: tree.remove(np.arange(3 * chunk + chunk // 2, 4 * chunk)))
    out["build_s"], out["remove_half_leaf_s"], out["remove_rest_of_leaf_s"] = build_s, half_s, rest_s
    out["remove_speedup"] = build_s / max(half_s, rest_s)
    with tempfile.TemporaryDirectory() as folder:
        save_s, _ = timed(lambda: tree.save(os.path.join(folder, "tree")))
        load_s, loaded = timed(lambda: CoresetTree.load(os.path.join(folder, "tree")))
        loaded.close()
    out["save_s"], out["load_s"] = save_s, load_s
    out["save_load_share_of_build"] = (save_s + load_s) / build_s
    tree.close()
    print("upkeep", json.dumps(out), flush=True)
    # The far cluster removed against never added, over seeds (ids: the running row count).
    keep = np.setdiff1d(np.arange(rows), far)
    scorer = Scorer("kmeans", X[keep], np.zeros(keep.size))
    removed, never = [], []
    for seed in range(seeds):
        with kmeans_tree(X, m, chunk, seed) as tree:
            tree.remove(far)
            c = tree.coreset()
            removed.append(scorer.excess(np.searchsorted(keep, c.ids), c.weights, seed))
        with kmeans_tree(X[keep], m, chunk, seed) as tree:
            c = tree.coreset()
            never.append(scorer.excess(c.ids, c.weights, seed))
    out["far_cluster_removed"], out["far_cluster_never_added"] = spread(removed), spread(never)
    print("upkeep", json.dumps(out), flush=True)
    return out


# -- on a Dask cluster -------------------------------------------------------------------------------


def tree_on_dask(rows: int, m: int) -> Dict[str, Any]:
    """The tree built sequentially, on 2 pool threads and on a local cluster of 2 workers."""
    from quillmarsh.distributed import connect

    X, _ = mixture(rows, 2, False)
    chunk = rows // 100
    out: Dict[str, Any] = {}
    summaries: Dict[str, Any] = {}
    with connect("local", n_workers=2, silence_logs=logging.ERROR) as client:
        kmeans_tree(X[: rows // 10], m, chunk, 0, client=client).close()  # warm the workers
        for name, kwargs in (("sequential", {}), ("threads", {"n_jobs": 2}), ("dask", {"client": client})):
            with measured(client) as memory:
                seconds, tree = timed(lambda kwargs=kwargs: kmeans_tree(X, m, chunk, 0, **kwargs))
            with tree:
                summaries[name] = tree.coreset()
            out[name] = {"rows_per_s": rows / seconds, "memory": memory}
    first = summaries["sequential"]  # ids, rows, targets and weights, each exactly equal
    out["summaries_equal"] = all(all(map(np.array_equal, c, first)) for c in summaries.values())
    return out


def one_process(rows: int, m: int) -> Dict[str, Any]:
    """The chunk layer alone over the rows of ``partition``, made here partition by partition."""
    cuts = bounds(rows, 4)

    def batches() -> Iterator[Dataset]:
        for start, stop in zip(cuts[:-1], cuts[1:]):
            frame = partition(start, stop)
            for first in range(0, len(frame), BLOCK):
                part = frame.iloc[first : first + BLOCK]
                yield Dataset(part.index.to_numpy(), part[NAMES].to_numpy(), part["y"].to_numpy())

    with measured() as memory:
        wall, leaves = timed(lambda: layer_leaves(batches(), m, BLOCK, create_buffer=True))
    return {"layout": "one process", "leaves": leaves, "wall_s": wall, "memory": memory}


def on_cluster(rows: int, m: int, workers: int, partitions: int) -> Dict[str, Any]:
    """``build_leaves`` on a new local cluster of ``workers`` processes (one thread each), over
    ``partitions`` partitions made on the workers."""
    from dask import delayed

    from quillmarsh.distributed import ManagerSettings, build_leaves, connect

    begun = time.perf_counter()
    with connect("local", n_workers=workers, silence_logs=logging.ERROR) as client:
        # The library's import on every worker belongs to the cluster's start, timed apart.
        client.run(lambda: __import__("quillmarsh.distributed.leaves"))
        start_s = time.perf_counter() - begun
        cuts = bounds(rows, partitions)
        parts = [delayed(partition, pure=True)(a, b) for a, b in zip(cuts[:-1], cuts[1:])]
        with measured(client) as memory:
            result = build_leaves(parts, "y", ManagerSettings(data_params()), chunk_params(m), BLOCK,
                                  client=client, progress=False, n_rows=rows)
    assert result.n_rows == rows and not result.failed
    per_worker: Dict[str, float] = {}
    for stats in result.partitions:
        per_worker[stats.worker] = per_worker.get(stats.worker, 0.0) + stats.seconds
    return {
        "layout": f"{workers} worker{'s' if workers > 1 else ''}, {partitions} partitions",
        "leaves": len(result.leaves),
        "tail_leaves": sum(1 for leaf in result.leaves if leaf.partition is None),
        "cluster_start_s": start_s,
        "wall_s": result.wall_seconds,
        "workers_s": sum(per_worker.values()),
        "busiest_worker_s": max(per_worker.values()),
        "tail_s": result.tail_seconds,
        "memory": memory,
    }


def run_dask(rows: int, m: int, repeats: int, layouts: List[Tuple[int, int]]) -> Dict[str, Any]:
    out: Dict[str, Any] = {"tree": tree_on_dask(rows, m)}
    print("dask", json.dumps(out["tree"]), flush=True)
    runs = [best_of(repeats, lambda: one_process(rows, m))]
    for workers, partitions in layouts:
        runs.append(best_of(repeats, lambda w=workers, p=partitions: on_cluster(rows, m, w, p)))
    for run in runs:
        run["vs_one_process"] = runs[0]["wall_s"] / run["wall_s"]
        print("dask", json.dumps(run), flush=True)
    out["build_leaves"] = runs
    return out


# -- the plot --------------------------------------------------------------------------------------


def plot(results: Dict[str, Any], path: Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    cases = [name for name in ("kmeans", "regression") if name in results["cases"]]
    fig, axes = plt.subplots(2, len(cases), figsize=(5.5 * len(cases), 7.5), squeeze=False)
    for column, name in enumerate(cases):
        case = results["cases"][name]
        for row, prefix in enumerate(("depth", "m")):
            keys = sorted((k for k in case if k.startswith(prefix + " ")), key=lambda k: int(k.split()[1]))
            xs = [case[key]["rows"] if prefix == "depth" else int(key.split()[1]) for key in keys]
            ax = axes[row][column]
            for method, style in (("tree", "o-"), ("one_shot", "s--"), ("uniform", "^:")):
                means = np.array([case[key][method]["mean"] for key in keys])
                low = means - np.array([case[key][method]["min"] for key in keys])
                high = np.array([case[key][method]["max"] for key in keys]) - means
                ax.errorbar(xs, means, yerr=[low, high], fmt=style, capsize=3, label=method.replace("_", "-"))
            ax.set_xscale("log")
            ax.set_yscale("symlog", linthresh=1e-3)
            if prefix == "depth":
                ax.set_xlabel(f"stream rows ({results['chunk']:,} a leaf: 2 to 128 leaves)")
                ax.set_title(f"{name}: m = {results['m']:,}")
            else:
                ax.set_xlabel("summary rows m (leaves of 10 m rows)")
                ax.set_title(f"{name}: {results['rows']:,} rows")
            ax.set_ylabel("excess cost on all rows")
            ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=110)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--m", type=int, default=1000)
    parser.add_argument("--seeds", type=int, default=8)
    parser.add_argument("--repeats", type=int, default=3, help="timings kept at their best (1 with --quick)")
    parser.add_argument("--quick", action="store_true", help="200,000 rows, m = 200, 3 seeds, fewer points")
    parser.add_argument("--only", choices=["quality", "memory", "cost", "upkeep", "dask"], action="append")
    parser.add_argument("--out", type=Path, default=HERE.parent / "build" / "bench" / "tree_results.json")
    parser.add_argument("--plot", type=Path, default=HERE / "tree_quality.png")
    args = parser.parse_args()
    if args.quick:
        args.rows, args.m, args.seeds, args.repeats = 200_000, 200, 3, 1
    layouts = QUICK_LAYOUTS if args.quick else LAYOUTS
    parts: Dict[str, Callable[[], Dict[str, Any]]] = {  # in this order
        "cost": lambda: run_cost(args.rows, args.m, args.repeats),
        "memory": lambda: run_memory(args.m),
        "upkeep": lambda: run_upkeep(args.rows, args.m, args.seeds),
        "dask": lambda: run_dask(args.rows, args.m, args.repeats, layouts),
        "quality": lambda: run_quality(args.rows, args.m, args.seeds, args.quick),
    }
    results = {name: run() for name, run in parts.items() if name in (args.only or parts)}
    if "quality" in results and not args.quick:
        plot(results["quality"], args.plot)
    args.out.parent.mkdir(parents=True, exist_ok=True)
    args.out.write_text(json.dumps(results, indent=1) + "\n")
    print(f"wrote {args.out}")


if __name__ == "__main__":
    main()
