"""Parallel mode under load, with the library's real shared task pool.

The data manager asks for more than one job, so every chunk is queued on ``ThreadPoolManager`` with a
build task and a memory check. The node stand-in builds in microseconds, and the memory estimate is
patched to refuse, at random, chunks that do not fit. Callbacks arrive on worker threads. Every wait is
bounded, so a deadlock fails the test instead of hanging it.
"""

from __future__ import annotations

import builtins
import random
import re
import threading
import time
from typing import Any, Callable, Dict, List, Optional, Tuple

import pytest

from chunk_support import RecordingDataManager, RecordingParent, make_dataset, rows_of
from quillmarsh.common import TaskError, ThreadPoolManager

WAIT = 60.0  # seconds; far above what any test here needs


class PlannedError(Exception):
    """Raised on purpose by a callback, a build or a memory check."""


class Recorder:
    """Thread-safe record of the builds, callbacks and memory checks of one run."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.builds: List[Any] = []
        self.callbacks: List[Tuple[Any, Any, str]] = []
        self.checks: List[Dict[str, Any]] = []
        self.running = 0
        self.max_running = 0
        self.build_delay = 0.0
        self.failing_builds: set = set()
        self.failing_callbacks: set = set()
        self.failing_checks: set = set()
        self.fits: Callable[[int], int] = lambda rows: rows
        self.rng = random.Random(0)

    def callback(self, node: Any, index: Optional[int]) -> None:
        with self.lock:
            self.callbacks.append((node, index, threading.current_thread().name))
        if index in self.failing_callbacks:
            raise PlannedError(f"callback {index}")


def make_node_class(impl, rec: Recorder) -> type:
    class LightNode:
        def __init__(self, dset=None, params=None, node_id=None, data_manager=None) -> None:
            self.dset = dset
            self.params = params
            self.node_id = node_id
            self.data_manager = data_manager
            self.built = 0

        def build(self) -> LightNode:
            with rec.lock:
                rec.running += 1
                rec.max_running = max(rec.max_running, rec.running)
            try:
                if rec.build_delay:
                    time.sleep(rec.build_delay)
                first = int(self.dset.ind[0])
                if first in rec.failing_builds:
                    raise PlannedError(f"build of the chunk starting at {first}")
                self.built += 1
                with rec.lock:
                    rec.builds.append(self)
                return self
            finally:
                with rec.lock:
                    rec.running -= 1

    return LightNode


@pytest.fixture
def rec(impl, monkeypatch) -> Recorder:
    recorder = Recorder()

    def fake_max_batch_size(*, n_features: int, available: bool, dtype: Any) -> int:
        with recorder.lock:
            recorder.checks.append({"n_features": n_features, "available": available, "dtype": dtype})
            if n_features in recorder.failing_checks:
                raise PlannedError("memory estimate")
            return recorder.fits(recorder.rng.randrange(1, 9))

    monkeypatch.setattr(impl, "ChunkNode", make_node_class(impl, recorder))
    monkeypatch.setattr(impl, "evaluate_max_batch_size", fake_max_batch_size)
    return recorder


def pool() -> ThreadPoolManager:
    return ThreadPoolManager()


def stream(total: int, seed: int = 1, features: int = 3) -> List[Any]:
    """`total` rows in datasets of random sizes (some empty), sample indices 0..total-1."""
    rng = random.Random(seed)
    out, start = [], 0
    while start < total:
        rows = min(total - start, rng.choice([0, 1, 7, 40, 123, 400]))
        out.append(make_dataset(rows, start, features))
        start += rows
    return out


def expected_rows(leaf: int, first_leaf: int, chunk_size: int) -> List[int]:
    start = (leaf - first_leaf) * chunk_size
    return list(range(start, start + chunk_size))


@pytest.mark.parametrize(
    "n_jobs, params, dtype",
    [
        (2, None, "float32"),
        (5, {"dtype": "float64"}, "float64"),
    ],
)
def test_thousand_chunks_are_each_built_once_and_reported_once(
    impl, rec, capsys, monkeypatch, n_jobs, params, dtype
):
    chunk_size, first_leaf, chunks = 4, 37, 1000
    printed: List[Tuple[tuple, dict, str]] = []
    real_print = builtins.print

    def recording_print(*args: Any, **kwargs: Any) -> None:
        with rec.lock:
            printed.append((args, kwargs, threading.current_thread().name))
        real_print(*args, **kwargs)

    monkeypatch.setattr(builtins, "print", recording_print)
    rec.fits = lambda rows: rows if rows < 5 else 100  # about half the chunks do not fit
    dm = RecordingDataManager(n_jobs=n_jobs, verbose=1, n_instances=chunks * chunk_size + 3)
    if params is not None:
        params = [impl.ChunkSensitivitiesParams(coreset_params=params)]
    layer = impl.ChunkLayer(dm, params, chunk_size, RecordingParent(), first_leaf)

    started = time.monotonic()
    out = list(layer.process(stream(chunks * chunk_size + 3), after_create_leaf_node=rec.callback))
    pool().wait_until_idle(timeout=WAIT)
    elapsed = time.monotonic() - started

    # The generator: one None per queued chunk, then the buffer node, built on the caller's thread.
    assert out[:-1] == [None] * chunks
    buffer_node = out[-1]
    assert buffer_node.node_id == impl.BUFFER_NODE_ID
    assert rows_of(buffer_node.dset) == [4000, 4001, 4002]
    assert layer.chunk_index == first_leaf + chunks
    assert rows_of(layer.buffer) == [4000, 4001, 4002]

    # Every chunk built exactly once, from the right rows.
    leaves = [n for n in rec.builds if n is not buffer_node]
    assert len(leaves) == chunks and all(n.built == 1 for n in rec.builds)
    assert sorted(int(n.dset.ind[0]) for n in leaves) == list(range(0, chunks * chunk_size, chunk_size))
    assert all(n.node_id is None for n in leaves)

    # Every callback once, with its leaf index, on a pool thread; the buffer node's with None.
    leaf_calls = [(n, i, t) for n, i, t in rec.callbacks if n is not buffer_node]
    assert sorted(i for _, i, _ in leaf_calls) == list(range(first_leaf, first_leaf + chunks))
    assert all(rows_of(n.dset) == expected_rows(i, first_leaf, chunk_size) for n, i, _ in leaf_calls)
    assert all(t.startswith("quillmarsh-pool") for _, _, t in leaf_calls)
    assert [(i, t) for n, i, t in rec.callbacks if n is buffer_node] == [
        (None, threading.current_thread().name)
    ]
    assert {id(n) for n, _, _ in leaf_calls} == {id(n) for n in leaves}

    # The memory test asked about every chunk with its width and the element type of the parameters.
    assert len(rec.checks) >= chunks
    assert all(c == {"n_features": 3, "available": True, "dtype": dtype} for c in rec.checks)

    # One progress report per leaf, in any order: one print call with one whole line. (Python's print
    # writes the text and the line end separately, so the captured stream itself may interleave.)
    assert capsys.readouterr().out.count("Completed chunk #") == chunks
    pattern = re.compile(
        r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d Completed chunk #(\d+)( out of 1000 chunks)?, "
        r"\x1b\[33m\(chunk was built in \d+\.\d{3} seconds\)\x1b\[00m"
    )
    numbers = []
    for args, kwargs, thread in printed:
        assert kwargs == {} and len(args) == 1 and thread.startswith("quillmarsh-pool")
        match = pattern.fullmatch(args[0])
        assert match, repr(args[0])
        number = int(match.group(1))
        assert (match.group(2) is not None) == (number <= 1000)
        numbers.append(number)
    assert sorted(numbers) == list(range(first_leaf + 1, first_leaf + chunks + 1))
    assert elapsed < WAIT


def test_chunks_that_do_not_fit_start_only_when_the_pool_is_quiet(impl, rec):
    rec.build_delay = 0.002
    rec.fits = lambda rows: 1  # never fits: a chunk may start only when no task is running
    dm = RecordingDataManager(n_jobs=2)
    layer = impl.ChunkLayer(dm, None, 5, RecordingParent())
    out = list(layer.process(stream(300), create_buffer=False, after_create_leaf_node=rec.callback))
    pool().wait_until_idle(timeout=WAIT)
    assert len(out) == 60 and len(rec.builds) == 60
    assert rec.max_running == 1
    assert sorted(i for _, i, _ in rec.callbacks) == list(range(60))


def test_chunks_that_fit_run_side_by_side(impl, rec):
    rec.build_delay = 0.005
    rec.fits = lambda rows: 10**9
    dm = RecordingDataManager(n_jobs=2)
    layer = impl.ChunkLayer(dm, None, 5, RecordingParent())
    list(layer.process(stream(200), create_buffer=False, after_create_leaf_node=rec.callback))
    pool().wait_until_idle(timeout=WAIT)
    assert len(rec.builds) == 40
    assert rec.max_running >= 2


def test_a_failing_callback_is_reported_and_loses_nothing_else(impl, rec):
    rec.failing_callbacks = {0, 99, 150, 199}
    dm = RecordingDataManager(n_jobs=2)
    layer = impl.ChunkLayer(dm, None, 3, RecordingParent())
    out = list(layer.process(stream(600), create_buffer=False, after_create_leaf_node=rec.callback))
    assert out == [None] * 200
    with pytest.raises(TaskError) as info:
        pool().wait_until_idle(timeout=WAIT)
    errors = info.value.errors
    assert sorted(str(e) for e in errors) == sorted(f"callback {i}" for i in rec.failing_callbacks)
    assert all(isinstance(e, PlannedError) for e in errors)
    assert len(rec.builds) == 200
    assert sorted(i for _, i, _ in rec.callbacks) == list(range(200))
    pool().wait_until_idle(timeout=WAIT)  # the errors were reported once and are forgotten


def test_a_failing_build_is_reported_and_gets_no_callback(impl, rec):
    rec.failing_builds = {0, 30, 300}  # first rows of chunks 0, 10 and 100
    dm = RecordingDataManager(n_jobs=3)
    layer = impl.ChunkLayer(dm, None, 3, RecordingParent(), 5)
    list(layer.process(stream(600), create_buffer=False, after_create_leaf_node=rec.callback))
    with pytest.raises(TaskError) as info:
        pool().wait_until_idle(timeout=WAIT)
    assert sorted(str(e) for e in info.value.errors) == sorted(
        f"build of the chunk starting at {r}" for r in rec.failing_builds
    )
    assert len(rec.builds) == 197
    assert sorted(i for _, i, _ in rec.callbacks) == sorted(set(range(5, 205)) - {5, 15, 105})
    assert layer.chunk_index == 205


def test_a_failing_memory_check_is_reported_and_drops_its_chunk(impl, rec):
    rec.failing_checks = {2}  # the memory estimate raises for chunks of two columns
    dm = RecordingDataManager(n_jobs=2)
    layer = impl.ChunkLayer(dm, None, 4, RecordingParent())
    for k in range(200):  # one dataset per chunk, so the column count may change between them
        ds = make_dataset(4, 4 * k, features=2 if k % 10 == 0 else 3)
        assert list(layer.process([ds], create_buffer=False, after_create_leaf_node=rec.callback)) == [None]
    with pytest.raises(TaskError) as info:
        pool().wait_until_idle(timeout=WAIT)
    assert len(info.value.errors) == 20
    assert all(isinstance(e, PlannedError) and str(e) == "memory estimate" for e in info.value.errors)
    assert sorted(int(n.dset.ind[0]) // 4 for n in rec.builds) == [k for k in range(200) if k % 10]
    assert sorted(i for _, i, _ in rec.callbacks) == [k for k in range(200) if k % 10]
    assert layer.chunk_index == 200


@pytest.mark.parametrize("take", [1, 7, 49, 50])
def test_abandoned_parallel_generators_queue_only_what_they_cut(impl, rec, take):
    dm = RecordingDataManager(n_jobs=2)
    layer = impl.ChunkLayer(dm, None, 2, RecordingParent(), 10)
    gen = layer.process([make_dataset(100)], after_create_leaf_node=rec.callback)
    for _ in range(take):
        assert next(gen) is None
    gen.close()
    del gen
    pool().wait_until_idle(timeout=WAIT)
    assert layer.chunk_index == 10 + take
    assert len(rec.builds) == take
    assert sorted(i for _, i, _ in rec.callbacks) == list(range(10, 10 + take))
    assert rows_of(layer.buffer) == list(range(2 * take, 100))
    # The next call continues with the next leaf index and the rows left.
    rest = list(
        layer.process([make_dataset(0, 1000)], create_buffer=False, after_create_leaf_node=rec.callback)
    )
    pool().wait_until_idle(timeout=WAIT)
    assert len(rest) == 50 - take and layer.chunk_index == 60
    assert sorted(i for _, i, _ in rec.callbacks) == list(range(10, 60))
    assert all(rows_of(n.dset) == expected_rows(i, 10, 2) for n, i, _ in rec.callbacks)


def test_two_layers_share_the_pool_without_mixing_their_chunks(impl, rec):
    layers = [
        impl.ChunkLayer(RecordingDataManager(n_jobs=2), None, size, RecordingParent(), start)
        for size, start in [(3, 0), (5, 1000)]
    ]
    per_layer: Dict[int, List[Tuple[Any, Any]]] = {0: [], 1: []}

    def callback_for(k: int) -> Callable[[Any, Any], None]:
        def callback(node: Any, index: Any) -> None:
            with rec.lock:
                per_layer[k].append((node, index))

        return callback

    gens = [
        layer.process(stream(300, seed=k), create_buffer=False, after_create_leaf_node=callback_for(k))
        for k, layer in enumerate(layers)
    ]
    done = [False, False]
    while not all(done):  # interleave the two generators on this thread
        for k, gen in enumerate(gens):
            if not done[k] and next(gen, "end") == "end":
                done[k] = True
    pool().wait_until_idle(timeout=WAIT)
    assert sorted(i for _, i in per_layer[0]) == list(range(100))
    assert sorted(i for _, i in per_layer[1]) == list(range(1000, 1060))
    assert all(rows_of(n.dset) == expected_rows(i, 0, 3) for n, i in per_layer[0])
    assert all(rows_of(n.dset) == expected_rows(i, 1000, 5) for n, i in per_layer[1])


def test_sequential_and_single_job_modes_never_touch_the_pool(impl, rec, monkeypatch):
    def refuse(*args: Any, **kwargs: Any) -> None:
        raise AssertionError("the pool was used")

    monkeypatch.setattr(impl, "ThreadPoolManager", refuse)
    for n_jobs in [None, 0, 1, -3]:
        layer = impl.ChunkLayer(RecordingDataManager(n_jobs=n_jobs), None, 10, RecordingParent())
        out = list(layer.process([make_dataset(95)], after_create_leaf_node=rec.callback))
        assert [rows_of(n.dset)[0] for n in out] == [0, 10, 20, 30, 40, 50, 60, 70, 80, 90]
        assert all(i is None for _, i, _ in rec.callbacks)
        assert all(t == threading.current_thread().name for _, _, t in rec.callbacks)
        rec.callbacks.clear()
