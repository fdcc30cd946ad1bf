"""Node creation of the chunk layer: `_create_node`, `_rebuild_node`, `_print_progress` and
`create_buffer_node`, observed through recording stand-ins for the node class, the clock and `print`."""

from __future__ import annotations

from typing import Any, Iterable, List, Tuple

import numpy as np
import pytest

from chunk_support import (
    CallRecorder,
    CreateNodeRecording,
    RecordingDataManager,
    RecordingParent,
    make_dataset,
    patch_node_class,
    rows_of,
    subclass,
)
from quillmarsh.data.common import Dataset

ESC = "\x1b"
STAMP = "2024-04-01 14:10:37"
TIME_FORMAT = "%Y-%m-%d %H:%M:%S"


# ----------------------------------------------------------------------------------------------------
# Helpers local to this file
# ----------------------------------------------------------------------------------------------------


class FakeClock:
    """Stands in for the `time` module: `time()` returns scripted values, every call is recorded."""

    def __init__(self, times: Iterable[float] = (), events: List[Any] = None) -> None:
        self._times = list(times)
        self.events: List[Any] = [] if events is None else events
        self.local = object()

    def time(self, *args: Any, **kwargs: Any) -> float:
        self.events.append(("time", args, kwargs))
        return self._times.pop(0)

    def localtime(self, *args: Any, **kwargs: Any) -> object:
        self.events.append(("localtime", args, kwargs))
        return self.local

    def strftime(self, *args: Any, **kwargs: Any) -> str:
        self.events.append(("strftime", args, kwargs))
        return STAMP


class PrintRecorder:
    """Stands in for the built-in `print` inside the module."""

    def __init__(self) -> None:
        self.calls: List[Tuple[tuple, dict]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> None:
        self.calls.append((args, kwargs))


class FalsyCallable(CallRecorder):
    """A callable object whose truth value is false."""

    def __bool__(self) -> bool:
        return False


def make_keyword_node_class(events: List[Any], build_result: Any = None, fail_in: str = ""):
    """A node class recording exactly how it is constructed and built, into `events`."""

    class KeywordNode:
        made: List[KeywordNode] = []

        def __init__(self, *args: Any, **kwargs: Any) -> None:
            events.append(("init", args, kwargs))
            self.args = args
            self.kwargs = kwargs
            self.build_calls: List[Tuple[tuple, dict]] = []
            KeywordNode.made.append(self)
            if fail_in == "init":
                raise RuntimeError("construction failed")

        def build(self, *args: Any, **kwargs: Any) -> Any:
            events.append(("build", args, kwargs))
            self.build_calls.append((args, kwargs))
            if fail_in == "build":
                raise RuntimeError("build failed")
            return self if build_result is None else build_result

    return KeywordNode


class RecordingVerbose:
    """A `verbose` value whose comparison with `>` is recorded."""

    def __init__(self, result: Any, events: List[Any]) -> None:
        self.result = result
        self.events = events

    def __gt__(self, other: Any) -> Any:
        self.events.append(("verbose >", other))
        return self.result


def layer_with(impl, dm: RecordingDataManager, params: Any = None, cls: Any = None):
    return (cls or impl.ChunkLayer)(dm, params, 100, RecordingParent())


def progress_line(number: int, build_time: str, total: str = "") -> str:
    coloured = f"{ESC}[33m(chunk was built in {build_time} seconds){ESC}[00m"
    return f"{STAMP} Completed chunk #{number}{total}, {coloured}"


@pytest.fixture
def printed(impl, monkeypatch) -> PrintRecorder:
    recorder = PrintRecorder()
    monkeypatch.setattr(impl, "print", recorder, raising=False)
    return recorder


@pytest.fixture
def clock(impl, monkeypatch) -> FakeClock:
    fake = FakeClock()
    monkeypatch.setattr(impl, "time", fake)
    return fake


# ----------------------------------------------------------------------------------------------------
# _create_node
# ----------------------------------------------------------------------------------------------------


def test_create_node_constructs_with_exactly_the_four_keywords(impl, monkeypatch) -> None:
    events: List[Any] = []
    node_cls = make_keyword_node_class(events)
    monkeypatch.setattr(impl, "ChunkNode", node_cls)
    dm = RecordingDataManager()
    params = [impl.ChunkSensitivitiesParams()]
    layer = layer_with(impl, dm, params)
    dset = make_dataset(4)

    layer._create_node(dset)

    assert len(node_cls.made) == 1
    node = node_cls.made[0]
    assert node.args == ()
    assert set(node.kwargs) == {"dset", "params", "node_id", "data_manager"}
    assert node.kwargs["dset"] is dset
    assert node.kwargs["params"] is params
    assert node.kwargs["node_id"] is None
    assert node.kwargs["data_manager"] is dm


def test_create_node_passes_the_node_id(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager())

    node = layer._create_node(make_dataset(2), "abc")

    assert node.node_id == "abc"
    assert node.extra == {}
    assert node_cls.instances == [node]


def test_create_node_returns_what_build_returned(impl, monkeypatch) -> None:
    events: List[Any] = []
    built = object()
    node_cls = make_keyword_node_class(events, build_result=built)
    monkeypatch.setattr(impl, "ChunkNode", node_cls)
    layer = layer_with(impl, RecordingDataManager())

    result = layer._create_node(make_dataset(2))

    assert result is built
    assert node_cls.made[0].build_calls == [((), {})]


def test_create_node_times_construction_and_build_with_the_wall_clock(impl, monkeypatch) -> None:
    events: List[Any] = []
    node_cls = make_keyword_node_class(events)
    monkeypatch.setattr(impl, "ChunkNode", node_cls)
    monkeypatch.setattr(impl, "time", FakeClock([100.0, 102.5], events))

    class Layer(impl.ChunkLayer):
        def _print_progress(self, *args: Any, **kwargs: Any) -> Any:
            events.append(("progress", args, kwargs))
            return "ignored"

    layer = layer_with(impl, RecordingDataManager(verbose=1), cls=Layer)
    node = layer._create_node(make_dataset(2), leaf_node_index=4)

    assert node is node_cls.made[0]
    assert [e[0] for e in events] == ["time", "init", "build", "time", "progress"]
    assert events[0][1:] == ((), {})
    assert events[3][1:] == ((), {})
    assert events[4][1:] == ((2.5, 4), {})


@pytest.mark.parametrize("leaf", [None, 0, 5])
def test_create_node_with_verbose_zero_prints_nothing(impl, monkeypatch, printed, capsys, leaf) -> None:
    patch_node_class(impl, monkeypatch)
    progress: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _print_progress(self, *args: Any, **kwargs: Any) -> None:
            progress.append(args)

    layer = layer_with(impl, RecordingDataManager(verbose=0), cls=Layer)
    layer._create_node(make_dataset(2), leaf_node_index=leaf)

    assert progress == []
    assert printed.calls == []
    assert capsys.readouterr().out == ""


def test_create_node_with_verbose_and_no_leaf_index_prints_nothing(impl, monkeypatch, capsys) -> None:
    patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager(verbose=1))

    layer._create_node(make_dataset(2))
    layer._create_node(make_dataset(2), "x", None)

    assert capsys.readouterr().out == ""


def test_create_node_with_verbose_and_leaf_zero_prints_chunk_one(impl, monkeypatch, capsys) -> None:
    patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager(verbose=1))

    layer._create_node(make_dataset(2), leaf_node_index=0)

    lines = capsys.readouterr().out.splitlines()
    assert len(lines) == 1
    assert " Completed chunk #1, " in lines[0]


def test_create_node_asks_verbose_first_even_without_leaf_index(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    events: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _print_progress(self, *args: Any, **kwargs: Any) -> None:
            events.append(("progress", args))

    dm = RecordingDataManager()
    dm.verbose = RecordingVerbose(True, events)
    layer = layer_with(impl, dm, cls=Layer)

    layer._create_node(make_dataset(2), leaf_node_index=None)
    assert events == [("verbose >", 0)]

    layer._create_node(make_dataset(2), leaf_node_index=3)
    assert events[1:] == [("verbose >", 0), ("progress", (pytest.approx(0.0, abs=5.0), 3))]


def test_create_node_does_not_report_when_verbose_comparison_is_false(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    events: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _print_progress(self, *args: Any, **kwargs: Any) -> None:
            events.append(("progress", args))

    dm = RecordingDataManager()
    dm.verbose = RecordingVerbose(0, events)
    layer = layer_with(impl, dm, cls=Layer)

    layer._create_node(make_dataset(2), leaf_node_index=2)

    assert events == [("verbose >", 0)]


@pytest.mark.parametrize("fail_in", ["init", "build"])
def test_create_node_error_propagates_without_progress(impl, monkeypatch, capsys, fail_in) -> None:
    events: List[Any] = []
    monkeypatch.setattr(impl, "ChunkNode", make_keyword_node_class(events, fail_in=fail_in))
    layer = layer_with(impl, RecordingDataManager(verbose=1))

    with pytest.raises(RuntimeError, match="failed"):
        layer._create_node(make_dataset(2), leaf_node_index=0)

    assert capsys.readouterr().out == ""


# ----------------------------------------------------------------------------------------------------
# _rebuild_node
# ----------------------------------------------------------------------------------------------------


def test_rebuild_node_constructs_with_the_four_keywords_and_returns_build_result(impl, monkeypatch) -> None:
    events: List[Any] = []
    built = object()
    node_cls = make_keyword_node_class(events, build_result=built)
    monkeypatch.setattr(impl, "ChunkNode", node_cls)
    dm = RecordingDataManager()
    params = (impl.ChunkSensitivitiesParams(),)
    layer = layer_with(impl, dm, params)
    dset = make_dataset(3)

    result = layer._rebuild_node(dset, "node-7")

    assert result is built
    assert events == [
        ("init", (), {"dset": dset, "params": params, "node_id": "node-7", "data_manager": dm}),
        ("build", (), {}),
    ]
    assert events[0][2]["params"] is params and events[0][2]["data_manager"] is dm


def test_rebuild_node_neither_times_nor_prints(impl, monkeypatch, clock, printed, capsys) -> None:
    patch_node_class(impl, monkeypatch)
    progress: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _print_progress(self, *args: Any, **kwargs: Any) -> None:
            progress.append(args)

    layer = layer_with(impl, RecordingDataManager(verbose=5, n_instances=10), cls=Layer)
    node = layer._rebuild_node(make_dataset(3), "n")

    assert node.node_id == "n" and node.built == 1
    assert clock.events == []
    assert progress == []
    assert printed.calls == []
    assert capsys.readouterr().out == ""


def test_rebuild_node_requires_the_node_id(impl) -> None:
    layer = layer_with(impl, RecordingDataManager())
    with pytest.raises(TypeError):
        layer._rebuild_node(make_dataset(1))


# ----------------------------------------------------------------------------------------------------
# _print_progress
# ----------------------------------------------------------------------------------------------------


def test_print_progress_prints_one_exact_line_with_a_fixed_clock(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=None))

    result = layer._print_progress(0.003, 18)

    assert result is None
    assert printed.calls == [((progress_line(19, "0.003"),), {})]
    assert clock.events == [
        ("localtime", (), {}),
        ("strftime", (TIME_FORMAT, clock.local), {}),
    ]


def test_print_progress_writes_the_line_to_standard_output(impl, clock, capsys) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=100))
    layer.build_params = {"chunk_size": 1}

    layer._print_progress(0.003, 18)

    assert capsys.readouterr().out == progress_line(19, "0.003", " out of 100 chunks") + "\n"


def test_print_progress_numbers_chunks_from_one(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager())

    layer._print_progress(1.0, 0)

    (args, kwargs), = printed.calls
    assert args == (progress_line(1, "1.000"),)
    assert kwargs == {}


@pytest.mark.parametrize("leaf", [0, 1, 2])
def test_print_progress_shows_the_total_for_leaves_within_it(impl, clock, printed, leaf) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=1000))
    layer.build_params = {"chunk_size": 300}

    layer._print_progress(0.5, leaf)

    assert printed.calls == [((progress_line(leaf + 1, "0.500", " out of 3 chunks"),), {})]


def test_print_progress_shows_no_total_for_the_trailing_partial_chunk(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=1000))
    layer.build_params = {"chunk_size": 300}

    layer._print_progress(0.5, 3)

    assert printed.calls == [((progress_line(4, "0.500"),), {})]


def test_print_progress_total_uses_default_text_of_floor_quotient(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=1000.0))
    layer.build_params = {"chunk_size": 300}

    layer._print_progress(0.5, 0)

    assert printed.calls == [((progress_line(1, "0.500", " out of 3.0 chunks"),), {})]


def test_print_progress_without_total_does_not_consult_build_params(impl, clock, printed) -> None:
    accessed: List[str] = []

    class Untouchable:
        def __getattribute__(self, name: str) -> Any:
            accessed.append(name)
            raise AssertionError(f"build_params.{name} was read")

        def __getitem__(self, key: Any) -> Any:
            accessed.append(f"[{key}]")
            raise AssertionError("build_params was indexed")

    layer = layer_with(impl, RecordingDataManager(n_instances=None))
    layer.build_params = Untouchable()

    layer._print_progress(0.25, 4)

    assert accessed == []
    assert printed.calls == [((progress_line(5, "0.250"),), {})]


@pytest.mark.parametrize("build_params", [{}, {"chunk_size": 0}, {"other": 3}])
def test_print_progress_without_positive_chunk_size_shows_no_total(impl, clock, printed, build_params):
    layer = layer_with(impl, RecordingDataManager(n_instances=1000))
    layer.build_params = build_params

    layer._print_progress(0.25, 0)

    assert printed.calls == [((progress_line(1, "0.250"),), {})]


def test_print_progress_with_total_known_but_no_build_params_fails(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager(n_instances=1000))
    assert layer.build_params is None

    with pytest.raises(AttributeError):
        layer._print_progress(0.25, 0)

    assert printed.calls == []


@pytest.mark.parametrize("seconds, text", [(0.0004, "0.000"), (12.3456, "12.346"), (2, "2.000")])
def test_print_progress_formats_build_time_with_three_decimals(impl, clock, printed, seconds, text) -> None:
    layer = layer_with(impl, RecordingDataManager())

    layer._print_progress(seconds, 9)

    assert printed.calls == [((progress_line(10, text),), {})]


def test_print_progress_colours_the_build_time_yellow(impl, clock, printed) -> None:
    layer = layer_with(impl, RecordingDataManager())

    layer._print_progress(0.1, 0)

    (line,), _ = printed.calls[0]
    assert line.endswith(" seconds)\x1b[00m")
    assert ", \x1b[33m(chunk was built in 0.100" in line
    assert line.count("\x1b") == 2


# ----------------------------------------------------------------------------------------------------
# create_buffer_node
# ----------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("empty_rows", [False, True])
def test_create_buffer_node_without_buffer_returns_none_and_calls_nothing(impl, monkeypatch, empty_rows):
    node_cls = patch_node_class(impl, monkeypatch)
    dm = RecordingDataManager()
    layer = subclass(impl.ChunkLayer, CreateNodeRecording)(dm, None, 100, RecordingParent())
    if empty_rows:
        layer.buffer = Dataset(np.arange(0), np.zeros((0, 3)))
    before = layer.buffer
    callback = CallRecorder()

    assert layer.create_buffer_node(callback) is None

    assert layer.create_calls == []
    assert callback.calls == []
    assert node_cls.instances == []
    assert dm.calls == []
    assert layer.buffer is before


def test_create_buffer_node_builds_from_a_fresh_record_over_the_same_fields(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = subclass(impl.ChunkLayer, CreateNodeRecording)(RecordingDataManager(), None, 100,
                                                           RecordingParent())
    layer.set_buffer(list(make_dataset(5, start=20, props=True, orig=True)))
    buffer = layer.buffer

    node = layer.create_buffer_node()

    assert node is node_cls.instances[0] and node.built == 1
    dset = node.dset
    assert type(dset) is Dataset
    assert dset is not buffer
    assert len(dset) == len(buffer)
    for new_field, old_field in zip(dset, buffer):
        assert new_field is old_field


def test_create_buffer_node_passes_the_buffer_id_positionally(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = subclass(impl.ChunkLayer, CreateNodeRecording)(RecordingDataManager(), None, 100,
                                                           RecordingParent())
    layer.set_buffer(list(make_dataset(3)))

    node = layer.create_buffer_node()

    (args, kwargs), = layer.create_calls
    assert len(args) == 2 and kwargs == {}
    assert args[1] == impl.BUFFER_NODE_ID == "buffer"
    assert node.node_id == "buffer"


def test_create_buffer_node_prints_no_progress(impl, monkeypatch, capsys) -> None:
    patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager(verbose=3, n_instances=10))
    layer.set_buffer(list(make_dataset(3)))

    assert layer.create_buffer_node() is not None
    assert capsys.readouterr().out == ""


def test_create_buffer_node_calls_the_callback_once_with_node_and_none(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager())
    layer.set_buffer(list(make_dataset(3)))
    callback = CallRecorder(result="ignored")

    node = layer.create_buffer_node(callback)

    assert callback.calls == [((node, None), {})]


def test_create_buffer_node_does_not_call_a_falsy_callback(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager())
    layer.set_buffer(list(make_dataset(3)))
    callback = FalsyCallable()

    node = layer.create_buffer_node(callback)

    assert node is node_cls.instances[0]
    assert callback.calls == []


def test_create_buffer_node_leaves_the_buffer_in_place(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager())
    layer.set_buffer(list(make_dataset(4, start=10)))
    buffer = layer.buffer

    layer.create_buffer_node()

    assert layer.buffer is buffer
    assert rows_of(layer.buffer) == [10, 11, 12, 13]
    assert layer.get_buffer_size() == 4


def test_create_buffer_node_callback_error_propagates_after_the_build(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = layer_with(impl, RecordingDataManager())
    layer.set_buffer(list(make_dataset(3)))
    callback = CallRecorder(error=KeyError("from callback"))

    with pytest.raises(KeyError, match="from callback"):
        layer.create_buffer_node(callback)

    assert len(node_cls.instances) == 1 and node_cls.instances[0].built == 1
    assert callback.calls == [((node_cls.instances[0], None), {})]
