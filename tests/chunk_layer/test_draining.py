"""Draining of the chunk layer's buffer by `_get_from_buffer`: chunk cutting, node building in
sequential mode, and queueing on the shared task pool in parallel mode."""

from __future__ import annotations

import threading
import types
from typing import Any, Iterator, List, Tuple

import numpy as np
import pytest

from chunk_support import (
    CallRecorder,
    CreateNodeRecording,
    RecordingDataManager,
    RecordingParent,
    ThreadRecordingCallback,
    make_dataset,
    patch_node_class,
    rows_of,
    subclass,
)
from quillmarsh.data.common import Dataset

# ----------------------------------------------------------------------------------------------------
# Helpers local to this file
# ----------------------------------------------------------------------------------------------------


class FalsyCallable(CallRecorder):
    def __bool__(self) -> bool:
        return False


class RecordingPool:
    """Stands in for the shared task pool: records queued tasks and `has_running_tasks` questions."""

    def __init__(self, running: bool = False) -> None:
        self.queued: List[Tuple[tuple, dict]] = []
        self.running = running
        self.running_asked = 0

    def add_to_queue(self, *args: Any, **kwargs: Any) -> None:
        self.queued.append((args, kwargs))

    def has_running_tasks(self) -> bool:
        self.running_asked += 1
        return self.running


@pytest.fixture
def pool(impl, monkeypatch) -> RecordingPool:
    recorder = RecordingPool()
    monkeypatch.setattr(impl, "ThreadPoolManager", lambda: recorder)
    return recorder


@pytest.fixture
def batch(impl, monkeypatch) -> CallRecorder:
    recorder = CallRecorder(result=10**9)
    monkeypatch.setattr(impl, "evaluate_max_batch_size", recorder)
    return recorder


def make_layer(
    impl, rows: int = 0,
    chunk_size: Any = 100,
    chunk_index: Any = None,
    n_jobs: Any = None,
    params: Any = None,
    cls: Any = None,
    **fields: Any,
) -> Any:
    dm = RecordingDataManager(n_jobs=n_jobs)
    cls = cls or subclass(impl.ChunkLayer, CreateNodeRecording)
    layer = cls(dm, params, chunk_size, RecordingParent(), chunk_index)
    if rows:
        layer.set_buffer(list(make_dataset(rows, **fields)))
    return layer


def queued_check(layer: Any, pool: RecordingPool, batch: CallRecorder) -> dict:
    """Drains one chunk in parallel mode and runs its memory check; returns the keywords of the estimate."""
    assert list(layer._get_from_buffer()) == [None]
    (args, _), = pool.queued
    assert args[1](args[3], args[4]) is True
    (call_args, call_kwargs), = batch.calls
    assert call_args == ()
    return call_kwargs


# ----------------------------------------------------------------------------------------------------
# Sequential mode
# ----------------------------------------------------------------------------------------------------


def test_draining_is_lazy(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    stand_in = CallRecorder(result=True)
    monkeypatch.setattr(impl, "utils", types.SimpleNamespace(is_simple_chunk_size=stand_in))
    layer = make_layer(impl, 250)
    buffer = layer.buffer

    drain = layer._get_from_buffer()

    assert stand_in.calls == [] and node_cls.instances == []
    assert layer.buffer is buffer and layer.chunk_index == 0
    drain.close()


def test_chunk_size_none_yields_nothing_and_keeps_the_buffer(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, chunk_size=None)
    buffer = layer.buffer

    assert list(layer._get_from_buffer()) == []

    assert layer.buffer is buffer
    assert layer.chunk_index == 0
    assert node_cls.instances == [] and layer.create_calls == []


def test_two_full_chunks_are_cut_front_first(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, chunk_index=7)

    nodes = list(layer._get_from_buffer())

    assert nodes == node_cls.instances and len(nodes) == 2
    assert all(node.built == 1 for node in nodes)
    assert rows_of(nodes[0].dset) == list(range(0, 100))
    assert rows_of(nodes[1].dset) == list(range(100, 200))
    assert [kwargs for _, kwargs in layer.create_calls] == [{"leaf_node_index": 7}, {"leaf_node_index": 8}]
    assert [len(args) for args, _ in layer.create_calls] == [1, 1]
    assert layer.create_calls[0][0][0] is nodes[0].dset
    assert rows_of(layer.buffer) == list(range(200, 250))
    assert layer.chunk_index == 9


def test_every_field_is_cut_alike(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, props=True, orig=True)
    old = layer.buffer

    first = next(layer._get_from_buffer()).dset

    assert type(first) is Dataset
    np.testing.assert_array_equal(first.X, old.X[:100])
    np.testing.assert_array_equal(first.y, old.y[:100])
    np.testing.assert_array_equal(first.props, old.props[:100])
    np.testing.assert_array_equal(first.orig, old.orig[:100])
    np.testing.assert_array_equal(layer.buffer.X, old.X[100:])
    np.testing.assert_array_equal(layer.buffer.orig, old.orig[100:])


class FieldList(list):
    """A buffer of fields that is no record: walked only through its own iterator."""

    def __iter__(self):
        self.walks = getattr(self, "walks", 0) + 1
        return super().__iter__()


@pytest.mark.parametrize("kind", [list, tuple, FieldList])
def test_a_buffer_of_any_sequence_is_cut_field_by_field_into_records(impl, monkeypatch, kind) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=2)
    buffer = kind(make_dataset(5))
    layer.buffer = buffer

    first = next(layer._get_from_buffer()).dset

    assert type(first) is Dataset and type(layer.buffer) is Dataset
    assert first.ind.tolist() == [0, 1] and layer.buffer.ind.tolist() == [2, 3, 4]
    assert first.y.tolist() == [0.0, 10.0] and layer.buffer.props is None
    if kind is FieldList:
        assert buffer.walks == 2  # the chunk, then the remainder


def test_a_record_with_its_own_iteration_is_walked_through_it(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    walks = []

    class Reversed(Dataset):
        def __iter__(self):
            walks.append(1)
            return iter(tuple.__getitem__(self, slice(None, None, -1)))

    layer = make_layer(impl, chunk_size=2)
    layer.buffer = Reversed(*make_dataset(5))

    first = next(layer._get_from_buffer()).dset

    assert walks == [1, 1]  # the chunk, then the remainder
    # the fields came in reverse order, so the new records hold them reversed
    assert first.orig.tolist() == [0, 1] and first.ind is None


def test_counter_and_buffer_are_updated_before_each_yield(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, chunk_index=3)
    drain = layer._get_from_buffer()

    next(drain)
    assert layer.chunk_index == 4
    assert rows_of(layer.buffer) == list(range(100, 250))
    drain.close()


def test_exact_fill_leaves_zero_row_fields(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 100)

    nodes = list(layer._get_from_buffer())

    assert len(nodes) == 1 and rows_of(nodes[0].dset) == list(range(100))
    assert layer.buffer is not None
    assert layer.buffer.ind.shape[0] == 0 and layer.buffer.X.shape[0] == 0 and layer.buffer.y.shape[0] == 0
    assert not layer.has_buffer()
    assert list(layer._get_from_buffer()) == []
    assert layer.chunk_index == 1


def test_too_few_rows_yield_nothing(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 99)
    buffer = layer.buffer

    assert list(layer._get_from_buffer()) == []

    assert layer.buffer is buffer and rows_of(layer.buffer) == list(range(99))
    assert node_cls.instances == [] and layer.chunk_index == 0


def test_chunk_size_zero_takes_the_whole_buffer(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 5, chunk_size=0, chunk_index=2)
    buffer = layer.buffer

    nodes = list(layer._get_from_buffer())

    assert len(nodes) == 1
    assert nodes[0].dset is buffer
    assert rows_of(nodes[0].dset) == [0, 1, 2, 3, 4]
    assert layer.buffer is None
    assert layer.create_calls == [((buffer,), {"leaf_node_index": 2})]
    assert layer.chunk_index == 3


def test_chunk_size_zero_without_buffer_yields_nothing(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 0, chunk_size=0)

    assert list(layer._get_from_buffer()) == []
    assert node_cls.instances == [] and layer.chunk_index == 0


def test_none_fields_stay_none(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 150, y=False)

    (node,) = list(layer._get_from_buffer())

    for name in ("y", "sample_weight", "props", "orig"):
        assert getattr(node.dset, name) is None
        assert getattr(layer.buffer, name) is None


def test_chunk_and_remainder_are_views_of_the_old_buffer(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 150)
    old = layer.buffer

    (node,) = list(layer._get_from_buffer())

    for field in ("ind", "X", "y"):
        assert np.shares_memory(getattr(node.dset, field), getattr(old, field))
        assert np.shares_memory(getattr(layer.buffer, field), getattr(old, field))


def test_sequential_callback_receives_node_and_none(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, chunk_index=7)
    callback = CallRecorder(result="ignored")

    nodes = list(layer._get_from_buffer(callback))

    assert callback.calls == [((nodes[0], None), {}), ((nodes[1], None), {})]


def test_sequential_falsy_callable_is_still_called(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 100)
    callback = FalsyCallable()

    nodes = list(layer._get_from_buffer(callback))

    assert callback.calls == [((nodes[0], None), {})]


def test_build_params_is_truth_tested_after_each_chunk(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    events: List[Any] = []

    class Params:
        def __bool__(self) -> bool:
            events.append(("bool", layer.chunk_index))
            return False

    layer = make_layer(impl, 250, chunk_index=0)
    layer.build_params = Params()

    def callback(node: Any, index: Any) -> None:
        events.append(("callback", layer.chunk_index))

    list(layer._get_from_buffer(callback))

    assert events == [("callback", 0), ("bool", 1), ("callback", 1), ("bool", 2)]


@pytest.mark.parametrize("n_jobs", [None, 0, 1])
def test_n_jobs_up_to_one_is_sequential(impl, monkeypatch, pool, n_jobs) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 200, n_jobs=n_jobs)

    nodes = list(layer._get_from_buffer())

    assert nodes == node_cls.instances and len(nodes) == 2
    assert pool.queued == []


def test_is_simple_chunk_size_is_asked_once_with_one_positional_argument(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    stand_in = CallRecorder(result=True)
    monkeypatch.setattr(impl, "utils", types.SimpleNamespace(is_simple_chunk_size=stand_in))
    layer = make_layer(impl, 250)

    assert len(list(layer._get_from_buffer())) == 2
    assert stand_in.calls == [((100,), {})]


def test_a_chunk_size_judged_not_simple_cuts_nothing(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    stand_in = CallRecorder(result=0)
    monkeypatch.setattr(impl, "utils", types.SimpleNamespace(is_simple_chunk_size=stand_in))
    layer = make_layer(impl, 250)
    buffer = layer.buffer

    assert list(layer._get_from_buffer()) == []
    assert layer.buffer is buffer and node_cls.instances == []
    assert stand_in.calls == [((100,), {})]


def test_chunk_size_zero_is_cut_whatever_is_simple_chunk_size_says(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    stand_in = CallRecorder(result=False)
    monkeypatch.setattr(impl, "utils", types.SimpleNamespace(is_simple_chunk_size=stand_in))
    layer = make_layer(impl, 7, chunk_size=0)

    nodes = list(layer._get_from_buffer())

    assert len(nodes) == 1 and rows_of(nodes[0].dset) == list(range(7))
    assert stand_in.calls == [((0,), {})]


class ChunkSizeProbe:
    """A chunk size whose equality test, truth and comparison are recorded."""

    def __init__(self, size: int, is_zero: bool, events: List[Any]) -> None:
        self.size = size
        self.is_zero = is_zero
        self.events = events

    def __eq__(self, other: Any) -> Any:
        self.events.append(("eq", other))
        return TruthProbe(self.is_zero, self.events)

    __hash__ = None  # type: ignore[assignment]

    def __le__(self, other: Any) -> bool:
        self.events.append(("rows >= chunk_size", other))
        return self.size <= other

    def __ge__(self, other: Any) -> bool:
        self.events.append(("chunk_size >= rows", other))
        return self.size >= other

    def __index__(self) -> int:
        return self.size


class TruthProbe:
    def __init__(self, value: bool, events: List[Any]) -> None:
        self.value = value
        self.events = events

    def __bool__(self) -> bool:
        self.events.append(("ignore_chunk_size?", self.value))
        return self.value


def probe_layer(impl, monkeypatch, rows: int, size: int, is_zero: bool, buffer_answer: Any = None):
    events: List[Any] = []
    patch_node_class(impl, monkeypatch)
    monkeypatch.setattr(impl, "utils",
                        types.SimpleNamespace(is_simple_chunk_size=lambda chunk_size: True))

    class Layer(impl.ChunkLayer):
        def has_buffer(self) -> Any:
            answer = super().has_buffer() if buffer_answer is None else buffer_answer
            events.append(("has_buffer", bool(answer)))
            return answer

        def _create_node(self, *args: Any, **kwargs: Any) -> Any:
            events.append(("create", rows_of(args[0])[:1]))
            return super()._create_node(*args, **kwargs)

    layer = make_layer(impl, rows, cls=Layer)
    layer.chunk_size = ChunkSizeProbe(size, is_zero, events)
    return layer, events


def test_loop_test_runs_left_to_right(impl, monkeypatch) -> None:
    layer, events = probe_layer(impl, monkeypatch, 150, 100, is_zero=False)

    nodes = list(layer._get_from_buffer())

    assert len(nodes) == 1
    loop_events = [e for e in events if e[0] != "eq"]
    assert loop_events[:3] == [
        ("has_buffer", True),
        ("ignore_chunk_size?", False),
        ("rows >= chunk_size", 150),
    ]
    assert loop_events[-3:] == [
        ("has_buffer", True),
        ("ignore_chunk_size?", False),
        ("rows >= chunk_size", 50),
    ]


def test_loop_test_stops_at_has_buffer(impl, monkeypatch) -> None:
    layer, events = probe_layer(impl, monkeypatch, 150, 100, is_zero=False, buffer_answer=False)

    assert list(layer._get_from_buffer()) == []

    assert [e for e in events if e[0] != "eq"] == [("has_buffer", False)]


def test_loop_test_skips_the_row_comparison_when_chunk_size_is_ignored(impl, monkeypatch) -> None:
    layer, events = probe_layer(impl, monkeypatch, 150, 100, is_zero=True)

    nodes = list(layer._get_from_buffer())

    assert len(nodes) == 1 and rows_of(nodes[0].dset) == list(range(150))
    assert not any(e[0] in ("rows >= chunk_size", "chunk_size >= rows") for e in events)
    assert layer.buffer is None


# ----------------------------------------------------------------------------------------------------
# Element type of the memory estimate
# ----------------------------------------------------------------------------------------------------


class NoGet:
    pass


@pytest.mark.parametrize(
    "params",
    [
        None,
        [],
        [{"coreset_params": None}],
        [{"coreset_params": {}}],
        [{"coreset_params": NoGet()}],
        [object()],
    ],
    ids=["none", "empty", "params-none", "no-dtype-key", "no-get", "no-coreset-params"],
)
def test_dtype_defaults_to_float32(impl, monkeypatch, pool, batch, params) -> None:
    patch_node_class(impl, monkeypatch)
    if params is not None:
        params = [impl.ChunkSensitivitiesParams(**item) if isinstance(item, dict) else item
                  for item in params]
    layer = make_layer(impl, 100, n_jobs=2, params=params)

    assert queued_check(layer, pool, batch)["dtype"] == "float32"


def test_dtype_comes_from_the_first_record(impl, monkeypatch, pool, batch) -> None:
    patch_node_class(impl, monkeypatch)
    params = iter([
        impl.ChunkSensitivitiesParams(coreset_params={"dtype": "float64"}),
        impl.ChunkSensitivitiesParams(coreset_params={"dtype": "int8"}),
    ])
    layer = make_layer(impl, 100, n_jobs=2, params=params)

    assert queued_check(layer, pool, batch)["dtype"] == "float64"


def test_dtype_lookup_runs_once_per_run_before_the_loop(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    iterations: List[int] = []

    class Params:
        def __iter__(self) -> Iterator[Any]:
            iterations.append(1)
            return iter([impl.ChunkSensitivitiesParams(coreset_params={"dtype": "float16"})])

    layer = make_layer(impl, 250, params=Params())
    assert len(list(layer._get_from_buffer())) == 2
    assert len(iterations) == 1

    short = make_layer(impl, 99, params=Params())
    assert list(short._get_from_buffer()) == []
    assert len(iterations) == 2


class Interrupt(BaseException):
    pass


def test_dtype_lookup_lets_non_exception_errors_through(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)

    class Params:
        def __iter__(self) -> Iterator[Any]:
            raise Interrupt()

    layer = make_layer(impl, 250, params=Params())
    buffer = layer.buffer

    with pytest.raises(Interrupt):
        next(layer._get_from_buffer())
    assert node_cls.instances == [] and layer.buffer is buffer


# ----------------------------------------------------------------------------------------------------
# Parallel mode with a recording pool
# ----------------------------------------------------------------------------------------------------


def test_parallel_mode_queues_every_chunk(impl, monkeypatch, pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 250, chunk_index=7, n_jobs=2)

    drain = layer._get_from_buffer()
    assert next(drain) is None
    assert len(pool.queued) == 1 and layer.chunk_index == 8
    assert next(drain) is None
    assert list(drain) == []

    assert layer.chunk_index == 9
    assert rows_of(layer.buffer) == list(range(200, 250))
    assert node_cls.instances == [] and layer.create_calls == []
    for (args, kwargs), first_row, index in zip(pool.queued, (0, 100), (7, 8)):
        assert kwargs == {}
        assert len(args) == 5
        task, check, priority, chunk, leaf = args
        assert callable(task) and callable(check)
        assert priority == 0 and type(priority) is int
        assert type(chunk) is Dataset and rows_of(chunk) == list(range(first_row, first_row + 100))
        assert leaf == index


def test_parallel_task_builds_the_node_and_calls_back_with_leaf_index(impl, monkeypatch, pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    callback = CallRecorder(result="ignored")
    layer = make_layer(impl, 250, chunk_index=7, n_jobs=2)

    assert list(layer._get_from_buffer(callback)) == [None, None]
    assert callback.calls == []

    for position, ((task, _check, _p, chunk, leaf), _) in enumerate(pool.queued):
        assert task(chunk, leaf) is None
        assert layer.create_calls[position] == ((chunk,), {"leaf_node_index": leaf})
        node = node_cls.instances[position]
        assert node.dset is chunk and node.built == 1 and node.node_id is None
        assert callback.calls[position] == ((node, leaf), {})
    assert [c[0][1] for c in callback.calls] == [7, 8]


def test_parallel_task_without_callback(impl, monkeypatch, pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 100, n_jobs=2)

    list(layer._get_from_buffer())
    (task, _check, _p, chunk, leaf), _ = pool.queued[0]

    assert task(chunk, leaf) is None
    assert len(node_cls.instances) == 1


def test_parallel_falsy_callable_is_called(impl, monkeypatch, pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    callback = FalsyCallable()
    layer = make_layer(impl, 100, chunk_index=4, n_jobs=2)

    list(layer._get_from_buffer(callback))
    (task, _check, _p, chunk, leaf), _ = pool.queued[0]
    task(chunk, leaf)

    assert callback.calls == [((node_cls.instances[0], 4), {})]


def test_memory_check_asks_for_the_batch_size_of_the_chunk(impl, monkeypatch, pool, batch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 100, n_jobs=2)

    list(layer._get_from_buffer())
    (_task, check, _p, chunk, leaf), _ = pool.queued[0]
    other = make_dataset(10, features=5)

    assert check(other, "unused") is True

    assert batch.calls == [((), {"n_features": 5, "available": True, "dtype": "float32"})]
    assert type(batch.calls[0][1]["n_features"]) is int
    assert pool.running_asked == 0


@pytest.mark.parametrize(
    "max_rows, running, expected, asked",
    [
        (100, True, True, 0),
        (1000, True, True, 0),
        (99, True, False, 1),
        (99, False, True, 1),
    ],
)
def test_memory_check_holds_back_only_when_too_big_and_busy(impl, monkeypatch, pool, batch, max_rows, running,
                                                           expected, asked) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, 100, n_jobs=2)
    list(layer._get_from_buffer())
    (_task, check, _p, chunk, leaf), _ = pool.queued[0]
    batch.result = max_rows
    pool.running = running

    assert check(chunk, leaf) is expected
    assert pool.running_asked == asked


# ----------------------------------------------------------------------------------------------------
# Parallel mode with the library's shared pool
# ----------------------------------------------------------------------------------------------------


def test_parallel_mode_with_the_shared_pool(impl, monkeypatch, real_pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    callback = ThreadRecordingCallback()
    seen = callback.seen

    layer = make_layer(impl, 1005, chunk_size=50, chunk_index=3, n_jobs=2, cls=impl.ChunkLayer)

    assert list(layer._get_from_buffer(callback)) == [None] * 20
    real_pool.wait_until_idle(timeout=10)

    assert layer.chunk_index == 23
    assert rows_of(layer.buffer) == list(range(1000, 1005))
    assert len(node_cls.instances) == 20
    assert all(node.built == 1 for node in node_cls.instances)
    assert sorted(leaf for _, leaf, _ in seen) == list(range(3, 23))
    assert {id(node) for node, _, _ in seen} == {id(node) for node in node_cls.instances}
    assert all(thread is not threading.main_thread() for _, _, thread in seen)
    for node, leaf, _ in seen:
        start = (leaf - 3) * 50
        assert rows_of(node.dset) == list(range(start, start + 50))
    all_rows = sorted(row for node in node_cls.instances for row in rows_of(node.dset))
    assert all_rows == list(range(1000))


# ----------------------------------------------------------------------------------------------------
# Reading the job count
# ----------------------------------------------------------------------------------------------------


class CountingJobs(RecordingDataManager):
    """A data manager whose `n_jobs` reads are counted."""

    def __init__(self, jobs: Any) -> None:
        super().__init__()
        self.jobs = jobs
        self.reads = 0

    @property
    def n_jobs(self) -> Any:
        self.reads += 1
        return self.jobs

    @n_jobs.setter
    def n_jobs(self, value: Any) -> None:
        pass


@pytest.mark.parametrize("jobs, reads_per_chunk", [(None, 1), (1, 2), (2, 2)])
def test_job_count_is_read_once_or_twice_per_chunk(impl, monkeypatch, pool, jobs, reads_per_chunk) -> None:
    patch_node_class(impl, monkeypatch)
    dm = CountingJobs(jobs)
    layer = subclass(impl.ChunkLayer, CreateNodeRecording)(dm, None, 100, RecordingParent())
    layer.set_buffer(list(make_dataset(300)))

    assert len(list(layer._get_from_buffer())) == 3
    assert dm.reads == 3 * reads_per_chunk


def test_missing_job_count_fails_after_the_cut(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)

    class NoJobs:
        verbose = 0

    layer = subclass(impl.ChunkLayer, CreateNodeRecording)(NoJobs(), None, 100, RecordingParent(), 4)
    layer.set_buffer(list(make_dataset(150)))

    with pytest.raises(AttributeError):
        next(layer._get_from_buffer())

    assert rows_of(layer.buffer) == list(range(100, 150))
    assert layer.chunk_index == 4 and node_cls.instances == []
