"""`ChunkLayer.process`: incoming datasets flow into the buffer, the running statistics are published in
`build_params`, the buffer is drained into nodes, and the buffer node may close the run."""

from __future__ import annotations

import threading
from typing import Any, Iterator, List, Tuple

import numpy as np
import pandas as pd
import pytest

from chunk_support import (
    BUILD_PARAM_KEYS,
    CallRecorder,
    RecordingDataManager,
    RecordingParent,
    ThreadRecordingCallback,
    make_dataset,
    patch_node_class,
    rows_of,
    subclass,
)
from quillmarsh.core.numpy_extra import filter_missing_and_inf
from quillmarsh.data.common import Dataset

# ----------------------------------------------------------------------------------------------------
# Helpers local to this file
# ----------------------------------------------------------------------------------------------------


class Recording:
    """Mixed into a layer class: records the calls that `process` makes on the layer's own methods."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.events: List[Tuple[str, tuple, dict]] = []

    def _add_to_buffer(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("_add_to_buffer", args, kwargs))
        return super()._add_to_buffer(*args, **kwargs)

    def _get_from_buffer(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("_get_from_buffer", args, kwargs))
        return super()._get_from_buffer(*args, **kwargs)

    def has_buffer(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("has_buffer", args, kwargs))
        return super().has_buffer(*args, **kwargs)

    def create_buffer_node(self, *args: Any, **kwargs: Any) -> Any:
        self.events.append(("create_buffer_node", args, kwargs))
        return super().create_buffer_node(*args, **kwargs)

    def named(self, name: str) -> List[Tuple[tuple, dict]]:
        return [(args, kwargs) for event, args, kwargs in self.events if event == name]


def make_layer(impl, chunk_size: Any = 100, n_jobs: Any = None, cls: Any = None, **kwargs: Any):
    dm = RecordingDataManager(n_jobs=n_jobs)
    parent = RecordingParent()
    cls = cls or subclass(impl.ChunkLayer, Recording)
    return cls(dm, None, chunk_size, parent, **kwargs)


def snapshots(layer: Any, dsets: List[Any], taken: List[Any]) -> Iterator[Any]:
    """Yields the datasets one by one; records `build_params` whenever the next dataset is asked for."""
    for dset in dsets:
        yield dset
        taken.append(layer.build_params)


def simple_dataset(rows: int = 10, start: int = 0) -> Dataset:
    ind = np.arange(start, start + rows, dtype=np.int64)
    return Dataset(ind, np.ones((rows, 3), dtype=np.float64), np.zeros(rows, dtype=np.float64))


# ----------------------------------------------------------------------------------------------------
# Generator behaviour
# ----------------------------------------------------------------------------------------------------


def test_nothing_runs_before_the_first_next(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl)
    touched: List[str] = []

    class Datasets:
        def __iter__(self) -> Iterator[Any]:
            touched.append("iter")
            return iter([make_dataset(150)])

    gen = layer.process(Datasets())

    assert touched == [] and layer.events == []
    assert layer.build_params is None and layer.buffer is None and layer.parent.calls == 0
    assert node_cls.instances == []
    assert next(gen) is node_cls.instances[0]
    assert touched == ["iter"]
    gen.close()


def test_default_datasets_fail_at_the_first_next(impl) -> None:
    layer = make_layer(impl)

    gen = layer.process()
    gen_none = layer.process(None)

    with pytest.raises(TypeError):
        next(gen)
    with pytest.raises(TypeError):
        next(gen_none)
    assert layer.build_params is None and layer.events == []


def test_two_datasets_of_sixty_and_seventy_rows(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    taken: List[Any] = []

    items = list(layer.process(snapshots(layer, [make_dataset(60), make_dataset(70, start=60)], taken)))

    assert len(items) == 2
    assert items == node_cls.instances
    assert rows_of(items[0].dset) == list(range(100)) and items[0].node_id is None
    assert items[1].node_id == "buffer" and rows_of(items[1].dset) == list(range(100, 130))
    assert [params["number_of_samples"] for params in taken] == [60, 130]
    assert layer.build_params["number_of_samples"] == 130
    assert rows_of(layer.buffer) == list(range(100, 130))
    assert layer.chunk_index == 1
    assert layer.parent.calls == 2


def test_items_are_yielded_as_the_drain_produces_them(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    gen = layer.process([make_dataset(60), make_dataset(70, start=60)])

    first = next(gen)

    assert first is node_cls.instances[0]
    assert layer.build_params["number_of_samples"] == 130
    assert len(node_cls.instances) == 1
    gen.close()


# ----------------------------------------------------------------------------------------------------
# Statistics in build_params
# ----------------------------------------------------------------------------------------------------


def test_build_params_has_the_seven_keys_in_order(impl) -> None:
    layer = make_layer(impl, chunk_size=None)

    list(layer.process([simple_dataset(10)], create_buffer=False))

    params = layer.build_params
    assert type(params) is dict
    assert list(params) == BUILD_PARAM_KEYS
    assert params == {
        "number_of_features": 3,
        "number_of_features_orig": 0,
        "number_of_samples": 10,
        "chunk_size": None,
        "targets_unique_count": 0,
        "size_bytes": 400,
        "size_MB": str(400 / 1048576),
    }
    assert type(params["size_bytes"]) is int
    assert type(params["size_MB"]) is str


def test_byte_sizes_accumulate_over_the_call(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []

    list(layer.process(snapshots(layer, [simple_dataset(10), simple_dataset(10, 10)], taken),
                       create_buffer=False))

    assert [p["size_bytes"] for p in taken] == [400, 800]
    assert [p["size_MB"] for p in taken] == [str(400 / 1048576), str(800 / 1048576)]


def test_size_counts_every_field_with_its_own_item_size(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    rows = 4
    dset = Dataset(
        np.arange(rows, dtype=np.int32),
        np.ones((rows, 2), dtype=np.float32),
        None,
        np.ones(rows, dtype=np.float16),
        np.ones(rows, dtype=np.int8),
        np.ones((rows, 5), dtype=np.float64),
    )

    list(layer.process([dset], create_buffer=False))

    assert layer.build_params["size_bytes"] == 16 + 32 + 8 + 4 + 160


def test_size_mb_is_the_text_of_the_quotient(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    rows = 1572864 // 8
    dset = Dataset(np.arange(rows, dtype=np.int64), np.zeros((rows, 0)))

    list(layer.process([dset], create_buffer=False))

    assert layer.build_params["size_MB"] == "1.5"


def test_zero_bytes_give_zero_megabytes_as_text(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    dset = Dataset(np.arange(0, dtype=np.int64), np.zeros((0, 2)))

    list(layer.process([dset], create_buffer=False))

    assert layer.build_params["size_bytes"] == 0 and layer.build_params["size_MB"] == "0.0"


def test_number_of_features_follows_the_latest_dataset(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []
    first = make_dataset(3, features=4)
    second = Dataset(np.arange(3, 5), np.ones((2, 4)))

    list(layer.process(snapshots(layer, [first, second], taken), create_buffer=False))

    assert [p["number_of_features"] for p in taken] == [4, 4]


def test_orig_columns_are_kept_until_another_orig_arrives(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=0)
    taken: List[Any] = []
    plain = make_dataset(2)
    with_orig = make_dataset(2, start=2)._replace(orig=np.ones((2, 5)))
    later_plain = make_dataset(2, start=4)
    other_orig = make_dataset(2, start=6)._replace(orig=np.ones((2, 2)))

    list(layer.process(snapshots(layer, [plain, with_orig, later_plain, other_orig], taken),
                       create_buffer=False))

    assert [p["number_of_features_orig"] for p in taken] == [0, 5, 5, 2]


def test_number_of_samples_is_the_length_of_ind(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []

    list(layer.process(snapshots(layer, [make_dataset(7), make_dataset(5, start=7)], taken),
                       create_buffer=False))

    assert [p["number_of_samples"] for p in taken] == [7, 12]


def test_chunk_size_is_read_when_the_statistics_are_published(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []

    def datasets() -> Iterator[Any]:
        yield make_dataset(2)
        taken.append(layer.build_params)
        layer.chunk_size = 1000
        yield make_dataset(2, start=2)
        taken.append(layer.build_params)

    list(layer.process(datasets(), create_buffer=False))

    assert [p["chunk_size"] for p in taken] == [None, 1000]
    assert taken[0] is not taken[1]


def test_statistics_start_afresh_on_every_call(impl) -> None:
    layer = make_layer(impl, chunk_size=None)

    list(layer.process([simple_dataset(10)], create_buffer=False))
    list(layer.process([simple_dataset(4, 10)], create_buffer=False))

    assert layer.build_params["number_of_samples"] == 4
    assert layer.build_params["size_bytes"] == 160
    assert rows_of(layer.buffer) == list(range(14))


def targets(values: List[float]) -> Dataset:
    rows = len(values)
    return Dataset(np.arange(rows), np.zeros((rows, 2)), np.array(values, dtype=float))


def test_classification_counts_distinct_finite_targets(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []

    list(layer.process(snapshots(layer, [targets([1, 0, 1, np.nan]), targets([2, 1])], taken),
                       create_buffer=False, is_classification=True))

    assert [p["targets_unique_count"] for p in taken] == [2, 3]


def test_regression_does_not_count_targets(impl, monkeypatch) -> None:
    recorder = CallRecorder()
    monkeypatch.setattr(impl, "filter_missing_and_inf", recorder)
    layer = make_layer(impl, chunk_size=None)
    taken: List[Any] = []

    list(layer.process(snapshots(layer, [targets([1, 0, 1, np.nan]), targets([2, 1])], taken),
                       create_buffer=False))

    assert [p["targets_unique_count"] for p in taken] == [0, 0]
    assert recorder.calls == []


def test_targets_are_filtered_then_made_unique(impl, monkeypatch) -> None:
    events: List[Any] = []

    def recording_filter(*args: Any, **kwargs: Any) -> Any:
        result = filter_missing_and_inf(*args, **kwargs)
        events.append(("filter", args, kwargs, result))
        return result

    class Proxy:
        def __getattr__(self, name: str) -> Any:
            return getattr(np, name)

        def unique(self, *args: Any, **kwargs: Any) -> Any:
            result = np.unique(*args, **kwargs)
            events.append(("unique", args, kwargs, result))
            return result

    monkeypatch.setattr(impl, "filter_missing_and_inf", recording_filter)
    monkeypatch.setattr(impl, "np", Proxy())
    layer = make_layer(impl, chunk_size=None)

    list(layer.process([targets([1, 0, 1, np.nan]), targets([2, 1])], create_buffer=False,
                       is_classification=True))

    assert [e[0] for e in events] == ["filter", "unique", "filter", "unique"]
    for name, args, kwargs, _ in events:
        assert len(args) == 1 and kwargs == {}, name
    np.testing.assert_array_equal(events[0][1][0], [1.0, 0.0, 1.0, np.nan])
    np.testing.assert_array_equal(events[2][1][0], [0.0, 1.0, 2.0, 1.0])
    assert events[1][1][0] is events[0][3]
    assert events[3][1][0] is events[2][3]
    assert layer.build_params["targets_unique_count"] == 3


def test_classification_skips_datasets_without_targets(impl, monkeypatch) -> None:
    recorder = CallRecorder(result=np.array([]))
    monkeypatch.setattr(impl, "filter_missing_and_inf", recorder)
    layer = make_layer(impl, chunk_size=None)

    list(layer.process([make_dataset(3, y=False)], create_buffer=False, is_classification=True))

    assert recorder.calls == []
    assert layer.build_params["targets_unique_count"] == 0


# ----------------------------------------------------------------------------------------------------
# Calls on the layer's own methods
# ----------------------------------------------------------------------------------------------------


def test_each_item_becomes_a_new_dataset_record(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    record = make_dataset(3, props=True)
    as_list = list(make_dataset(2, start=3))

    list(layer.process([record, as_list], create_buffer=False))

    added = layer.named("_add_to_buffer")
    assert len(added) == 2
    for (args, kwargs), source in zip(added, (record, as_list)):
        assert len(args) == 1 and kwargs == {}
        assert type(args[0]) is Dataset
        assert args[0] is not source
        assert all(new is old for new, old in zip(args[0], source))
    assert rows_of(layer.buffer) == [0, 1, 2, 3, 4]


def test_drain_is_called_with_the_callback_positionally(impl, monkeypatch) -> None:
    patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    callback = CallRecorder()

    list(layer.process([make_dataset(50), make_dataset(60, start=50)], create_buffer=False,
                       after_create_leaf_node=callback))

    assert layer.named("_get_from_buffer") == [((callback,), {}), ((callback,), {})]
    order = [event for event, _, _ in layer.events if event in ("_add_to_buffer", "_get_from_buffer")]
    assert order == ["_add_to_buffer", "_get_from_buffer", "_add_to_buffer", "_get_from_buffer"]


def test_build_params_are_in_place_before_the_drain_builds(impl) -> None:
    seen: List[Any] = []

    class Layer(impl.ChunkLayer):
        def _get_from_buffer(self, *args: Any) -> Iterator[Any]:
            seen.append(self.build_params)
            return iter(())

    layer = make_layer(impl, chunk_size=100, cls=Layer)

    list(layer.process([make_dataset(50), make_dataset(60, start=50)], create_buffer=False))

    assert [p["number_of_samples"] for p in seen] == [50, 110]


class RecordingDrain:
    """An iterator standing in for a drain generator; records how it is driven."""

    def __init__(self, items: List[Any], events: List[str]) -> None:
        self.items = list(items)
        self.events = events

    def __iter__(self) -> RecordingDrain:
        return self

    def __next__(self) -> Any:
        self.events.append("next")
        if not self.items:
            raise StopIteration
        return self.items.pop(0)

    def send(self, value: Any) -> Any:
        self.events.append("send")
        return self.__next__()

    def throw(self, *args: Any) -> Any:
        self.events.append("throw")
        raise args[0]

    def close(self) -> None:
        self.events.append("close")


def drain_layer(impl, events: List[str], items: List[Any]) -> Any:
    class Layer(impl.ChunkLayer):
        def _get_from_buffer(self, *args: Any) -> RecordingDrain:
            return RecordingDrain(items, events)

    return make_layer(impl, chunk_size=None, cls=Layer)


def test_values_sent_into_process_are_not_passed_to_the_drain(impl) -> None:
    events: List[str] = []
    layer = drain_layer(impl, events, ["a", "b", "c"])
    gen = layer.process([make_dataset(2)], create_buffer=False)

    assert next(gen) == "a"
    assert gen.send("value") == "b"
    assert gen.send(None) == "c"
    with pytest.raises(StopIteration):
        gen.send("more")

    assert "send" not in events
    assert events == ["next", "next", "next", "next"]


def test_exceptions_thrown_into_process_are_not_passed_to_the_drain(impl) -> None:
    events: List[str] = []
    layer = drain_layer(impl, events, ["a", "b"])
    gen = layer.process([make_dataset(2)], create_buffer=False)

    assert next(gen) == "a"
    with pytest.raises(KeyError):
        gen.throw(KeyError("outside"))

    assert "throw" not in events


# ----------------------------------------------------------------------------------------------------
# The buffer node at the end
# ----------------------------------------------------------------------------------------------------


def test_buffer_node_ends_the_run_when_rows_remain(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    callback = CallRecorder()

    items = list(layer.process([make_dataset(130)], after_create_leaf_node=callback))

    assert len(items) == 2 and items[-1] is node_cls.instances[-1]
    assert items[-1].node_id == impl.BUFFER_NODE_ID
    assert rows_of(items[-1].dset) == list(range(100, 130))
    assert layer.named("create_buffer_node") == [((callback,), {})]
    assert callback.calls == [((items[0], None), {}), ((items[1], None), {})]
    assert rows_of(layer.buffer) == list(range(100, 130))


def test_no_buffer_node_when_every_row_was_cut(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)

    items = list(layer.process([make_dataset(200)]))

    assert len(items) == 2 and all(item.node_id is None for item in items)
    assert len(node_cls.instances) == 2
    assert layer.named("create_buffer_node") == []


@pytest.mark.parametrize("create_buffer", [False, 0, ""])
def test_no_buffer_node_without_create_buffer(impl, monkeypatch, create_buffer) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)

    items = list(layer.process([make_dataset(130)], create_buffer=create_buffer))

    assert len(items) == 1 and items[0].node_id is None
    assert len(node_cls.instances) == 1
    assert layer.named("create_buffer_node") == []
    assert rows_of(layer.buffer) == list(range(100, 130))


def test_create_buffer_false_does_not_ask_for_a_buffer(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    layer.set_buffer(list(make_dataset(30)))
    asked: List[str] = []

    class Flag:
        def __bool__(self) -> bool:
            asked.append("bool")
            return False

    assert list(layer.process([], create_buffer=Flag())) == []

    assert asked == ["bool"]
    assert layer.named("has_buffer") == []
    assert node_cls.instances == []


def test_empty_datasets_with_a_buffer_yield_only_the_buffer_node(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)
    layer.set_buffer(list(make_dataset(30)))
    previous = {"kept": True}
    layer.build_params = previous

    items = list(layer.process([]))

    assert items == node_cls.instances and len(items) == 1
    assert items[0].node_id == "buffer" and rows_of(items[0].dset) == list(range(30))
    assert layer.build_params is previous and previous == {"kept": True}


def test_empty_datasets_without_a_buffer_yield_nothing(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100)

    assert list(layer.process([])) == []
    assert node_cls.instances == [] and layer.build_params is None


def test_chunk_size_none_gives_only_the_buffer_node(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=None)

    items = list(layer.process([make_dataset(150), make_dataset(170, start=150), make_dataset(5, start=320)]))

    assert items == node_cls.instances and len(items) == 1
    assert items[0].node_id == "buffer"
    assert rows_of(items[0].dset) == list(range(325))
    assert layer.chunk_index == 0


# ----------------------------------------------------------------------------------------------------
# Early abandonment and failures
# ----------------------------------------------------------------------------------------------------


def test_abandoning_early_keeps_the_finished_steps(impl, monkeypatch) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    layer = make_layer(impl, chunk_size=100, chunk_index=2)
    pulled: List[int] = []

    def datasets() -> Iterator[Any]:
        pulled.append(1)
        yield make_dataset(250)
        pulled.append(2)
        yield make_dataset(10, start=250)

    gen = layer.process(datasets())
    first = next(gen)
    gen.close()

    assert first is node_cls.instances[0] and len(node_cls.instances) == 1
    assert rows_of(layer.buffer) == list(range(100, 250))
    assert layer.chunk_index == 3
    assert layer.build_params["number_of_samples"] == 250
    assert pulled == [1]


def test_failure_keeps_the_finished_steps(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    bad = Dataset(np.arange(3), np.ones(3))

    gen = layer.process([make_dataset(4), bad, make_dataset(2, start=10)])
    with pytest.raises(IndexError):
        next(gen)

    assert layer.build_params["number_of_samples"] == 4
    assert rows_of(layer.buffer) == [0, 1, 2, 3]
    assert list(gen) == []


def test_a_field_without_a_size_fails_with_attribute_error(impl) -> None:
    layer = make_layer(impl, chunk_size=None)
    frame = pd.DataFrame(np.ones((3, 2)))

    with pytest.raises(AttributeError):
        next(layer.process([Dataset(np.arange(3), frame)]))


# ----------------------------------------------------------------------------------------------------
# Parallel mode with the library's shared pool
# ----------------------------------------------------------------------------------------------------


def test_parallel_processing_with_the_shared_pool(impl, monkeypatch, real_pool) -> None:
    node_cls = patch_node_class(impl, monkeypatch)
    callback = ThreadRecordingCallback()
    seen = callback.seen

    layer = make_layer(impl, chunk_size=50, n_jobs=2, cls=impl.ChunkLayer)

    items = list(layer.process([make_dataset(130), make_dataset(80, start=130)],
                               after_create_leaf_node=callback))
    real_pool.wait_until_idle(timeout=10)

    assert items[:4] == [None, None, None, None] and len(items) == 5
    buffer_node = items[4]
    assert buffer_node.node_id == "buffer" and rows_of(buffer_node.dset) == list(range(200, 210))
    assert layer.chunk_index == 4
    assert len(node_cls.instances) == 5 and all(node.built == 1 for node in node_cls.instances)
    leaves = [(node, leaf, thread) for node, leaf, thread in seen if leaf is not None]
    assert sorted(leaf for _, leaf, _ in leaves) == [0, 1, 2, 3]
    assert all(thread is not threading.main_thread() for _, _, thread in leaves)
    for node, leaf, _ in leaves:
        assert rows_of(node.dset) == list(range(leaf * 50, leaf * 50 + 50))
    assert [(node, leaf) for node, leaf, _ in seen if leaf is None] == [(buffer_node, None)]
    leaf_rows = sorted(row for node, _, _ in leaves for row in rows_of(node.dset))
    assert leaf_rows == list(range(200))
