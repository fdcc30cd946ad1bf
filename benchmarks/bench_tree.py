"""The coreset tree against its references: quality, memory and the cost of merging.

Quality. A stream of N rows goes through ``CoresetTree`` (m rows in the summary); the model solved on
the summary is scored on all rows. Excess cost is, for k-means, (cost on all rows of the k-means
solved on the summary) / (cost of the one solved on all rows) - 1, and for regression the relative
excess squared loss of the weighted least squares solved on the summary over the least squares of
all rows. The same is measured, in the same run and on the same rows, for:

- the one-shot coreset: the same coreset class on all rows at once, sampled to m rows (the ideal);
- a uniform sample of m rows, weighted N / m.

Every figure is the mean over ``--seeds`` seeds, with its spread (the lowest and the highest). The
datasets: a balanced mixture of Gaussians (k-means) and a linear model (regression), and two
imbalanced ones that a uniform sample misses: a small cluster far from the rest, and a few rows of
high leverage with their own slope.

Memory. Streaming 2,000,000 rows against streaming 200,000 rows, each in a fresh process that makes
its blocks as it goes and reads its own high-water mark (``VmHWM``).

Cost. The tree's time against the chunk layer's alone building the same leaves: what the merges add.

Upkeep. Removing the rows of one leaf from a 100-leaf tree against building the tree again; the k-means
quality after removing a small far cluster against a tree built without it; ``save`` plus ``load``
against the build; and the build on a local Dask cluster of 2 workers against the sequential and the
threaded builds (rows per second, and whether the summaries are equal).

Usage::

    python benchmarks/bench_tree.py                 # everything, about 15 minutes on 2 cores
    python benchmarks/bench_tree.py --quick         # 200,000 rows, 3 seeds
    python benchmarks/bench_tree.py --only quality --rows 1000000 --seeds 8
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Callable, Dict, List, Tuple

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")  # two cores: BLAS threads would compete

import numpy as np  # noqa: E402
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkSensitivitiesParams  # noqa: E402
from sklearn.cluster import KMeans  # noqa: E402
from sklearn.linear_model import LinearRegression  # noqa: E402

from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree  # noqa: E402
from quillmarsh.core.coreset.sampling import sample_rows  # noqa: E402
from quillmarsh.data.common import Dataset  # noqa: E402
from quillmarsh.data.manager import DataManager, DataParams, FeatureField  # noqa: E402

HERE = Path(__file__).resolve().parent
K = 10
FEATURES = 10
BLOCK = 50_000

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


# -- the summaries ---------------------------------------------------------------------------------


def tree_summary(model: str, X: np.ndarray, y: np.ndarray, m: int, chunk: int, seed: int) -> Any:
    coreset = CoresetKMeans(k=K) if model == "kmeans" else CoresetLinearRegression()
    tree = CoresetTree(coreset, coreset_size=m, chunk_size=chunk, random_state=seed)
    for start in range(0, X.shape[0], BLOCK):
        tree.add(X[start : start + BLOCK], None if model == "kmeans" else y[start : start + BLOCK])
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


# -- scoring on all rows ---------------------------------------------------------------------------


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
    return {
        name: {"mean": float(np.mean(v)), "min": float(np.min(v)), "max": float(np.max(v))}
        for name, v in out.items()
    }


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
            points += (
                [] if quick else [(f"m {size}", rows, size, 10 * size) for size in (250, 500, 1000, 2000)]
            )
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
with open("/proc/self/status") as status:
    print(next(line for line in status if line.startswith("VmHWM")).split()[1])
"""


def peak_kib(rows: int, m: int) -> int:
    done = subprocess.run(
        [sys.executable, "-c", _STREAM, str(rows), str(m)], capture_output=True, text=True, check=True
    )
    return int(done.stdout.strip())


def run_memory(m: int) -> Dict[str, Any]:
    small = min(peak_kib(200_000, m) for _ in range(2))
    large = min(peak_kib(2_000_000, m) for _ in range(2))
    return {"200k_MB": small / 1024, "2M_MB": large / 1024, "difference_MB": (large - small) / 1024}


# -- cost of the merges ----------------------------------------------------------------------------


def leaves_only(X: np.ndarray, y: np.ndarray, m: int, chunk: int) -> None:
    manager = DataManager(data_params=DataParams(features=[FeatureField(f"f{i}") for i in range(FEATURES)]))
    params = [
        ChunkSensitivitiesParams(coreset_cls=CoresetKMeans, coreset_params={"k": K, "coreset_size": m}),
        ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression, coreset_params={"coreset_size": m}),
    ]

    class Parent:
        def update_build_params(self) -> None:
            pass

    layer = ChunkLayer(manager, params, chunk_size=chunk, parent=Parent())
    for start in range(0, X.shape[0], BLOCK):
        dataset = Dataset(np.arange(start, start + BLOCK), X[start : start + BLOCK], y[start : start + BLOCK])
        for _ in layer.process([dataset], create_buffer=False):
            pass


def tree_both(X: np.ndarray, y: np.ndarray, m: int, chunk: int) -> None:
    tree = CoresetTree([CoresetKMeans(k=K), CoresetLinearRegression()], coreset_size=m, chunk_size=chunk)
    for start in range(0, X.shape[0], BLOCK):
        tree.add(X[start : start + BLOCK], y[start : start + BLOCK])
    tree.coreset(0), tree.coreset(1)


def run_cost(rows: int, m: int, repeats: int) -> Dict[str, Any]:
    """The tree against the chunk layer alone on the same leaves; the merges' own time, measured inside
    the tree run, against the leaves' time."""
    from quillmarsh.core.tree import coreset_tree

    X, y = linear(rows, 0, False)
    chunk = 10 * m
    merging = [0.0]
    original = coreset_tree.Reducer.merge

    def timed_merge(self: Any, *args: Any) -> Any:
        start = time.perf_counter()
        try:
            return original(self, *args)
        finally:
            merging[0] += time.perf_counter() - start

    timings: Dict[str, List[float]] = {"leaves": [], "tree": [], "merges": []}
    coreset_tree.Reducer.merge = timed_merge  # type: ignore[method-assign]
    try:
        for _ in range(repeats):
            for name, work in (("leaves", leaves_only), ("tree", tree_both)):
                merging[0] = 0.0
                start = time.perf_counter()
                work(X, y, m, chunk)
                timings[name].append(time.perf_counter() - start)
            timings["merges"].append(merging[0])
    finally:
        coreset_tree.Reducer.merge = original  # type: ignore[method-assign]
    leaves, tree, merges = min(timings["leaves"]), min(timings["tree"]), min(timings["merges"])
    return {
        "leaves_s": leaves,
        "tree_s": tree,
        "merges_s": merges,
        "merges_add": merges / leaves,
        "tree_adds": tree / leaves - 1.0,
        "rows_per_s": rows / tree,
    }


# -- upkeep: removing rows, saving and loading, building on Dask --------------------------------------


def _timed(work: Callable[[], Any]) -> Tuple[float, Any]:
    start = time.perf_counter()
    result = work()
    return time.perf_counter() - start, result


def _kmeans_tree(X: np.ndarray, m: int, seed: int, **kwargs: Any) -> CoresetTree:
    tree = CoresetTree(
        CoresetKMeans(k=K), coreset_size=m, chunk_size=X.shape[0] // 100, random_state=seed, **kwargs
    )
    for start in range(0, X.shape[0], BLOCK):
        tree.add(X[start : start + BLOCK], ids=np.arange(start, min(start + BLOCK, X.shape[0])))
    return tree


def run_upkeep(rows: int, m: int, seeds: int) -> Dict[str, Any]:
    import tempfile

    X, _ = mixture(rows, 1, True)
    far = np.flatnonzero(X[:, 0] > 100)
    out: Dict[str, Any] = {"rows": rows, "m": m}
    build_s, tree = _timed(lambda: _kmeans_tree(X, m, 0))
    chunk = rows // 100
    # Half a leaf: the leaf is rebuilt from its stored chunk; then the rest: it is left empty.
    half_s, _ = _timed(lambda: tree.remove(np.arange(3 * chunk, 3 * chunk + chunk // 2)))
    rest_s, _ = _timed(lambda: tree.remove(np.arange(3 * chunk + chunk // 2, 4 * chunk)))
    out["build_s"], out["remove_half_leaf_s"], out["remove_rest_of_leaf_s"] = build_s, half_s, rest_s
    out["remove_speedup"] = build_s / max(half_s, rest_s)
    with tempfile.TemporaryDirectory() as folder:
        save_s, _ = _timed(lambda: tree.save(os.path.join(folder, "tree")))
        load_s, loaded = _timed(lambda: CoresetTree.load(os.path.join(folder, "tree")))
        loaded.close()
    out["save_s"], out["load_s"] = save_s, load_s
    out["save_load_share_of_build"] = (save_s + load_s) / build_s
    tree.close()
    print("upkeep", json.dumps(out), flush=True)
    # The far cluster removed against never added, over seeds.
    scorer = Scorer("kmeans", np.delete(X, far, axis=0), np.zeros(rows - far.size))
    removed, never = [], []
    keep = np.setdiff1d(np.arange(rows), far)
    for seed in range(seeds):
        with _kmeans_tree(X, m, seed) as tree:
            tree.remove(far)
            c = tree.coreset()
            removed.append(scorer.excess(np.searchsorted(keep, c.ids), c.weights, seed))
        with CoresetTree(CoresetKMeans(k=K), coreset_size=m, chunk_size=chunk, random_state=seed) as tree:
            for start in range(0, keep.size, BLOCK):
                tree.add(X[keep[start : start + BLOCK]], ids=np.arange(start, min(start + BLOCK, keep.size)))
            c = tree.coreset()
            never.append(scorer.excess(c.ids, c.weights, seed))
    out["far_cluster_removed"] = {"mean": float(np.mean(removed)), "min": min(removed), "max": max(removed)}
    out["far_cluster_never_added"] = {"mean": float(np.mean(never)), "min": min(never), "max": max(never)}
    print("upkeep", json.dumps(out), flush=True)
    return out


def run_dask(rows: int, m: int) -> Dict[str, Any]:
    import logging

    from quillmarsh.distributed import connect

    X, _ = mixture(rows, 2, False)
    seconds: Dict[str, float] = {}
    summaries: Dict[str, Any] = {}
    with connect("local", n_workers=2, silence_logs=logging.ERROR) as client:
        _kmeans_tree(X[: rows // 10], m, 0, client=client).close()  # warm the workers
        for name, kwargs in (("sequential", {}), ("threads", {"n_jobs": 2}), ("dask", {"client": client})):
            seconds[name], tree = _timed(lambda kwargs=kwargs: _kmeans_tree(X, m, 0, **kwargs))
            summaries[name] = tree.coreset()
            tree.close()
    equal = all(np.array_equal(summaries[name].ids, summaries["sequential"].ids) for name in summaries)
    out = {f"{name}_rows_per_s": rows / s for name, s in seconds.items()}
    out["summaries_equal"] = equal
    print("dask", json.dumps(out), flush=True)
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
            keys = sorted(
                (key for key in case if key.startswith(prefix + " ")), key=lambda k: int(k.split()[1])
            )
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
    parser.add_argument("--quick", action="store_true", help="200,000 rows, m = 200, 3 seeds, fewer points")
    parser.add_argument("--only", choices=["quality", "memory", "cost", "upkeep", "dask"], action="append")
    parser.add_argument("--out", type=Path, default=HERE.parent / "build" / "bench" / "tree_results.json")
    parser.add_argument("--plot", type=Path, default=HERE / "tree_quality.png")
    args = parser.parse_args()
    if args.quick:
        args.rows, args.m, args.seeds = 200_000, 200, 3
    parts = args.only or ["quality", "memory", "cost", "upkeep", "dask"]
    results: Dict[str, Any] = {}
    if "cost" in parts:
        results["cost"] = run_cost(args.rows, args.m, 1 if args.quick else 3)
        print("cost", json.dumps(results["cost"]), flush=True)
    if "memory" in parts:
        results["memory"] = run_memory(args.m)
        print("memory", json.dumps(results["memory"]), flush=True)
    if "upkeep" in parts:
        results["upkeep"] = run_upkeep(args.rows, args.m, args.seeds)
    if "dask" in parts:
        results["dask"] = run_dask(args.rows, args.m)
    if "quality" in parts:
        results["quality"] = run_quality(args.rows, args.m, args.seeds, args.quick)
        if not args.quick:
            plot(results["quality"], args.plot)
    args.out.parent.mkdir(parents=True, exist_ok=True)
    args.out.write_text(json.dumps(results, indent=1) + "\n")
    print(f"wrote {args.out}")


if __name__ == "__main__":
    main()
