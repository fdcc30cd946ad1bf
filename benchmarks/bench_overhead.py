"""Per-call overhead of the chunk layer's hot operations: compiled module against the Python baseline.

Every collaborator is a no-op so that what is timed is the layer itself: a data manager whose attributes
are plain values, a parent whose ``update_build_params`` does nothing, ``ChunkNode`` replaced (in the
compiled module's namespace and in the baseline's) by a trivial class, and arrays of 2 to 4 rows so that
numpy's own cost is small.

For each operation four loops are timed, interleaved, in every repeat:

- ``compiled``: the operation on ``quillmarsh.core.tree.chunk_layer.ChunkLayer``;
- ``baseline``: the same operation on ``baseline.BaselineChunkLayer`` (pure Python);
- ``floor``: only the numpy and collaborator calls that the operation must make, inline;
- ``harness``: the loop with its per-iteration state reset and no call, subtracted from the others.

The figure reported per implementation is the median over the repeats of
``(loop time - harness time) / iterations``, in nanoseconds. ``ratio`` is compiled / baseline; ``own``
ratio is (compiled - floor) / (baseline - floor), the share of the layer's own work (everything but the
numpy and collaborator calls) that the compiled code still spends. The target is ``own`` <= 0.25: the
layer's overhead at most a quarter of what the same steps cost in Python beyond the same floor.

    .venv/bin/python benchmarks/bench_overhead.py [--repeats N] [--block-ms MS]
"""

from __future__ import annotations

import argparse
import gc
import statistics
import time
from typing import Any, Callable, Dict, List

import baseline
import numpy as np
import quillmarsh.core.tree.chunk_layer as chunk_layer

from quillmarsh.core.tree import utils
from quillmarsh.data.common import Dataset

CHUNK_SIZE = 4
TARGET_RATIO = 0.25  # for the own ratio
IMPLEMENTATIONS = ("compiled", "baseline", "floor", "harness")


class NoOpDataManager:
    """A data manager whose attributes are plain values (sequential mode, no progress lines)."""

    def __init__(self) -> None:
        self.n_jobs = None
        self.verbose = 0
        self.n_instances = None

    def get_removed(self) -> None:
        return None


class NoOpParent:
    def update_build_params(self) -> None:
        return None


class TrivialNode:
    """Stands in for ``ChunkNode``: keeps its dataset, and its build returns itself."""

    __slots__ = ("dset", "params", "node_id", "data_manager")

    def __init__(self, dset, params, node_id=None, tree_build_params=None, data_manager=None):
        self.dset = dset
        self.params = params
        self.node_id = node_id
        self.data_manager = data_manager

    def build(self) -> TrivialNode:
        return self


def make_dataset(rows: int, start: int = 0) -> Dataset:
    return Dataset(
        np.arange(start, start + rows, dtype=np.int64),
        np.arange(2 * rows, dtype=np.float64).reshape(rows, 2),
        np.arange(rows, dtype=np.float64) % 2,
    )


# ---- the loops ------------------------------------------------------------------------------------------
# Each factory takes the fixture and returns a function running `n` iterations of one operation. The
# loops of one operation are written alike, so that they differ only in the call being measured.


def loops_has_buffer(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    def run(layer):
        def loop(n: int) -> None:
            layer.buffer = fx["half"]
            for _ in range(n):
                layer.has_buffer()

        return loop

    full = fx["half"]

    def floor(n: int) -> None:
        for _ in range(n):
            full[1].shape[0] > 0  # noqa: B015

    def harness(n: int) -> None:
        for _ in range(n):
            pass

    return {
        "compiled": run(fx["compiled"]),
        "baseline": run(fx["baseline"]),
        "floor": floor,
        "harness": harness,
    }


def loops_get_buffer_size(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    def run(layer):
        def loop(n: int) -> None:
            layer.buffer = fx["half"]
            for _ in range(n):
                layer.get_buffer_size()

        return loop

    full = fx["half"]

    def floor(n: int) -> None:
        for _ in range(n):
            full[1].shape[0] > 0  # noqa: B015
            full[1].shape[0]  # noqa: B018

    def harness(n: int) -> None:
        for _ in range(n):
            pass

    return {
        "compiled": run(fx["compiled"]),
        "baseline": run(fx["baseline"]),
        "floor": floor,
        "harness": harness,
    }


def loops_add_to_buffer(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    held, incoming = fx["half"], fx["incoming"]

    def run(layer):
        def loop(n: int) -> None:
            for _ in range(n):
                layer.buffer = held
                layer._add_to_buffer(incoming)

        return loop

    sink = fx["sink"]
    parent = fx["parent"]
    concatenate = np.concatenate

    def floor(n: int) -> None:
        for _ in range(n):
            sink.buffer = held
            sink.buffer = Dataset(
                concatenate((held[0], incoming[0])),
                concatenate((held[1], incoming[1])),
                concatenate((held[2], incoming[2])),
                None,
                None,
                None,
            )
            parent.update_build_params()

    def harness(n: int) -> None:
        for _ in range(n):
            sink.buffer = held

    return {
        "compiled": run(fx["compiled"]),
        "baseline": run(fx["baseline"]),
        "floor": floor,
        "harness": harness,
    }


def _floor_cut(sink, full, manager, clock=time.time, is_simple=utils.is_simple_chunk_size):
    """The calls one chunk cut must make: the chunk-size test, 2 x 3 slices, 2 records, the node, 2 clocks."""
    is_simple(CHUNK_SIZE)
    chunk = Dataset(full[0][:CHUNK_SIZE], full[1][:CHUNK_SIZE], full[2][:CHUNK_SIZE], None, None, None)
    sink.buffer = Dataset(full[0][CHUNK_SIZE:], full[1][CHUNK_SIZE:], full[2][CHUNK_SIZE:], None, None, None)
    started = clock()
    node = TrivialNode(dset=chunk, params=None, node_id=None, data_manager=manager).build()
    clock() - started
    return node


def loops_drain_step(fx: Dict[str, Any], variant: str = "") -> Dict[str, Callable[[int], None]]:
    full = fx["full"]

    def run(layer):
        def loop(n: int) -> None:
            for _ in range(n):
                layer.buffer = full
                for _node in layer._get_from_buffer():
                    pass

        return loop

    sink, manager = fx["sink"], fx["manager"]

    def floor(n: int) -> None:
        for _ in range(n):
            sink.buffer = full
            _floor_cut(sink, full, manager)

    def harness(n: int) -> None:
        for _ in range(n):
            sink.buffer = full

    return {
        "compiled": run(fx["compiled" + variant]),
        "baseline": run(fx["baseline" + variant]),
        "floor": floor,
        "harness": harness,
    }


def loops_drain_step_no_params(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    return loops_drain_step(fx, variant="_no_params")


def _loops_process(fx: Dict[str, Any], classification: bool) -> Dict[str, Callable[[int], None]]:
    items = [fx["full"]]

    def run(layer):
        def loop(n: int) -> None:
            for _ in range(n):
                layer.buffer = None
                for _node in layer.process(items, False, classification):
                    pass

        return loop

    sink, manager, parent = fx["sink"], fx["manager"], fx["parent"]
    concatenate, unique, empty = np.concatenate, np.unique, np.array
    filter_missing = chunk_layer.filter_missing_and_inf

    def floor(n: int) -> None:
        for _ in range(n):
            sink.buffer = None
            targets = empty([])
            for item in items:
                dset = Dataset(*item)
                if classification:
                    targets = unique(filter_missing(concatenate([targets, dset.y])))
                # the size in MB as text: float formatting that any implementation pays in full
                str(sum([d.size * d.itemsize for d in dset if d is not None]) / 1048576)
                sink.buffer = Dataset(*tuple(dset))
                parent.update_build_params()
                _floor_cut(sink, sink.buffer, manager)

    def harness(n: int) -> None:
        for _ in range(n):
            sink.buffer = None

    return {
        "compiled": run(fx["compiled"]),
        "baseline": run(fx["baseline"]),
        "floor": floor,
        "harness": harness,
    }


def loops_process_step(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    return _loops_process(fx, classification=False)


def loops_process_step_classification(fx: Dict[str, Any]) -> Dict[str, Callable[[int], None]]:
    return _loops_process(fx, classification=True)


OPERATIONS = [
    ("has_buffer", "buffer of 2 rows present", loops_has_buffer),
    ("get_buffer_size", "buffer of 2 rows present", loops_get_buffer_size),
    ("_add_to_buffer", "2 rows onto a 2-row buffer (3 concatenations)", loops_add_to_buffer),
    ("_get_from_buffer step", "one 4-row chunk cut, sequential, generator run to its end", loops_drain_step),
    (
        "_get_from_buffer step, no params",
        "the same with chunk_corset_params None (the element-type lookup fails and falls back)",
        loops_drain_step_no_params,
    ),
    ("process step", "one 4-row dataset in: statistics, addition, drain of one chunk", loops_process_step),
    (
        "process step (classification)",
        "the same with is_classification=True (np.concatenate, filter, np.unique)",
        loops_process_step_classification,
    ),
]


# ---- measurement --------------------------------------------------------------------------------------


def _time_block(loop: Callable[[int], None], n: int) -> int:
    gc_was_enabled = gc.isenabled()
    gc.disable()
    try:
        start = time.perf_counter_ns()
        loop(n)
        return time.perf_counter_ns() - start
    finally:
        if gc_was_enabled:
            gc.enable()


def _calibrate(loops: Dict[str, Callable[[int], None]], block_ns: float) -> int:
    """Iterations per block so that the slowest implementation's block takes about `block_ns`."""
    n = 100
    while True:
        slowest = max(_time_block(loops[name], n) for name in ("compiled", "baseline"))
        if slowest >= 2_000_000 or n >= 10_000_000:
            break
        n *= 4
    return max(100, int(n * block_ns / max(slowest, 1)))


def make_fixture() -> Dict[str, Any]:
    manager = NoOpDataManager()
    parent = NoOpParent()
    # A parameter record as the library passes it; TrivialNode never reads it.
    params = [chunk_layer.ChunkSensitivitiesParams(coreset_cls=None, coreset_params={"dtype": "float32"})]
    return {
        "manager": manager,
        "parent": parent,
        "compiled": chunk_layer.ChunkLayer(manager, params, CHUNK_SIZE, parent),
        "baseline": baseline.BaselineChunkLayer(manager, params, CHUNK_SIZE, parent),
        "compiled_no_params": chunk_layer.ChunkLayer(manager, None, CHUNK_SIZE, parent),
        "baseline_no_params": baseline.BaselineChunkLayer(manager, None, CHUNK_SIZE, parent),
        "sink": type("Sink", (), {"buffer": None})(),
        "half": make_dataset(2),
        "incoming": make_dataset(2, start=2),
        "full": make_dataset(CHUNK_SIZE),
    }


def run(repeats: int = 9, block_ms: float = 30.0, verbose: bool = True) -> Dict[str, Any]:
    """Measure every operation; returns a JSON-ready dict (ns per call, ratios, settings)."""
    saved = (chunk_layer.ChunkNode, baseline.ChunkNode)
    chunk_layer.ChunkNode = TrivialNode
    baseline.ChunkNode = TrivialNode
    try:
        fx = make_fixture()
        # Both implementations must agree on what they compute before they are timed.
        for name in ("compiled", "baseline"):
            layer = fx[name]
            layer.buffer = fx["full"]
            nodes = list(layer._get_from_buffer())
            assert len(nodes) == 1 and isinstance(nodes[0], TrivialNode), name
            assert layer.get_buffer_size() == 0 and not layer.has_buffer(), name
        plans = []
        for op, note, factory in OPERATIONS:
            loops = factory(fx)
            for loop in loops.values():  # warm-up
                loop(200)
            plans.append((op, note, loops, _calibrate(loops, block_ms * 1e6)))
        samples: Dict[str, Dict[str, List[float]]] = {
            op: {k: [] for k in IMPLEMENTATIONS} for op, *_ in plans
        }
        for repeat in range(repeats):
            for op, _note, loops, n in plans:
                order = list(IMPLEMENTATIONS) if repeat % 2 == 0 else list(reversed(IMPLEMENTATIONS))
                raw = {name: _time_block(loops[name], n) for name in order}
                for name in IMPLEMENTATIONS:
                    samples[op][name].append((raw[name] - raw["harness"]) / n)
        results = []
        for op, note, _loops, n in plans:
            med = {name: statistics.median(samples[op][name]) for name in IMPLEMENTATIONS}
            compiled_ns, baseline_ns, floor_ns = med["compiled"], med["baseline"], med["floor"]
            results.append(
                {
                    "operation": op,
                    "what": note,
                    "iterations_per_block": n,
                    "compiled_ns": round(compiled_ns, 1),
                    "baseline_ns": round(baseline_ns, 1),
                    "floor_ns": round(floor_ns, 1),
                    "harness_ns": round(med["harness"], 1),
                    **ratios(compiled_ns, baseline_ns, floor_ns),
                    "compiled_spread_ns": [
                        round(min(samples[op]["compiled"]), 1),
                        round(max(samples[op]["compiled"]), 1),
                    ],
                    "baseline_spread_ns": [
                        round(min(samples[op]["baseline"]), 1),
                        round(max(samples[op]["baseline"]), 1),
                    ],
                }
            )
    finally:
        chunk_layer.ChunkNode, baseline.ChunkNode = saved
    report = {"repeats": repeats, "block_ms": block_ms, "target_ratio": TARGET_RATIO, "operations": results}
    if verbose:
        print(format_table(report))
    return report


def ratios(compiled: float, baseline: float, floor: float) -> Dict[str, Any]:
    """The ratios of one operation's three figures, and whether its own ratio meets the target."""
    own_baseline = baseline - floor
    own = (compiled - floor) / own_baseline if own_baseline > 0 else None
    return {
        "ratio": round(compiled / baseline, 3),
        "best_ratio": round(floor / baseline, 3),
        "own_ratio": None if own is None else round(own, 3),
        "meets_target": own is not None and own <= TARGET_RATIO,
    }


def ratio_table(title: str, report: Dict[str, Any], unit: str, number: str) -> List[str]:
    """The lines of a table of figures (keys ``compiled_<unit>`` and so on) and ratios, one per operation."""
    lines = [
        title,
        f"{'operation':34} {'compiled':>11} {'baseline':>11} {'floor':>11} "
        f"{'ratio':>6} {'best':>6} {'own':>6}",
    ]
    for r in report["operations"]:
        own = "n/a" if r["own_ratio"] is None else f"{r['own_ratio']:.3f}"
        figures = " ".join(format(r[f"{name}_{unit}"], number) for name in ("compiled", "baseline", "floor"))
        lines.append(f"{r['operation']:34} {figures} {r['ratio']:6.3f} {r['best_ratio']:6.3f} {own:>6}")
    return lines


def format_table(report: Dict[str, Any]) -> str:
    title = (
        f"Per-call overhead in ns (median of {report['repeats']} interleaved repeats; "
        f"target own <= {report['target_ratio']})"
    )
    lines = ratio_table(title, report, "ns", "11,.0f")
    lines.append(
        "ratio = compiled/baseline; best = floor/baseline, the ratio a layer costing nothing beyond its"
    )
    lines.append("numpy and collaborator calls would reach; own = (compiled-floor)/(baseline-floor).")
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--repeats", type=int, default=9)
    parser.add_argument("--block-ms", type=float, default=30.0)
    args = parser.parse_args()
    run(repeats=args.repeats, block_ms=args.block_ms)


if __name__ == "__main__":
    main()
