"""Tests of quillmarsh.data.manager: parameter records and the DataManager."""

from __future__ import annotations

import os
import threading
import time
from pathlib import Path
from typing import Any, Iterator, List, TypeVar

import numpy as np
import pytest

from quillmarsh.data import manager as manager_module
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import (
    DEFAULT_CAT_ENCODING_CONFIG,
    DataManager,
    DataManagerBase,
    DataManagerT,
    DataParams,
    DataParamsInternal,
    FeatureField,
    SaveError,
)


def make_dataset(start: int, n: int, with_optional: bool = True) -> Dataset:
    ind = np.arange(start, start + n)
    X = np.column_stack([ind * 1.0, ind * 2.0]).astype(np.float32)
    if not with_optional:
        return Dataset(ind, X)
    return Dataset(ind, X, ind * 10.0, np.ones(n), ind + 0.5, X * 3)


@pytest.fixture
def manager() -> Iterator[DataManager]:
    with DataManager() as m:
        yield m


# Parameter records


def test_parameter_records_defaults() -> None:
    params = DataParams()
    assert params.features == [] and params.drop_rows_below == 0.0 and params.drop_cols_above == 1.0
    assert DataParams().features is not params.features
    internal = DataParamsInternal()
    assert internal.categorical_features_ == [] and internal.aggregated_missing_replacements is None
    field = FeatureField("colour", categorical=True)
    assert field.name == "colour" and field.categorical
    assert FeatureField("x").categorical is False


def test_data_params_validation() -> None:
    with pytest.raises(ValueError, match="drop_rows_below"):
        DataParams(drop_rows_below=1.5)
    with pytest.raises(ValueError, match="drop_cols_above"):
        DataParams(drop_cols_above=-0.1)


def test_manager_type_var() -> None:
    assert isinstance(DataManagerT, TypeVar)
    assert DataManagerT.__bound__ is DataManagerBase
    assert issubclass(DataManager, DataManagerBase)


def test_constructor_attributes() -> None:
    params, internal = DataParams(features=[FeatureField("a")]), DataParamsInternal([1])
    m = DataManager(data_params=params, data_params_internal=internal, n_jobs=3, verbose=2, n_instances=99)
    assert m.data_params is params and m.data_params_internal is internal
    assert (m.n_jobs, m.verbose, m.n_instances, m.storage_dir) == (3, 2, 99, None)
    d = DataManager()
    assert isinstance(d.data_params, DataParams) and isinstance(d.data_params_internal, DataParamsInternal)
    assert d.verbose == 0 and d.n_jobs is None and d.n_instances is None
    m.close()
    d.close()


def test_cat_encoding_config_clear_gives_fresh_copies() -> None:
    m = DataManager()
    first = m.cat_encoding_config_clear()
    assert first == {**DEFAULT_CAT_ENCODING_CONFIG, "feature_space": m.feature_space}
    first["max_categories"] = 1
    first["extra"] = True
    assert m.cat_encoding_config_clear() == {**DEFAULT_CAT_ENCODING_CONFIG, "feature_space": m.feature_space}
    assert m.cat_encoding_config_clear() is not m.cat_encoding_config_clear()
    custom = {"max_categories": 5, "nested": {"a": 1}}
    c = DataManager(cat_encoding_config=custom)
    got = c.cat_encoding_config_clear()
    got["nested"]["a"] = 2
    expected = {"max_categories": 5, "nested": {"a": 1}, "feature_space": c.feature_space}
    assert c.cat_encoding_config_clear() == expected
    assert custom["nested"]["a"] == 1


# Removals


def test_removed_samples(manager: DataManager) -> None:
    assert manager.get_removed() is None
    manager.remove_samples([5, 3])
    manager.remove_samples(np.array([3.0, 7.0]))
    manager.remove_samples(np.int64(1))
    manager.remove_samples([])
    removed = manager.get_removed()
    assert removed is not None and removed.dtype == np.int64
    assert removed.tolist() == [1, 3, 5, 7]
    removed[0] = 100  # a copy
    assert manager.get_removed().tolist() == [1, 3, 5, 7]


@pytest.mark.parametrize("bad, error", [([1.5], ValueError), ([np.nan], ValueError), ([True], TypeError),
                                        (["3"], TypeError)])
def test_removed_samples_rejects_non_indices(manager: DataManager, bad: Any, error: type) -> None:
    with pytest.raises(error):
        manager.remove_samples(np.array(bad))


# Saves and reads in memory


def test_save_all_and_read_back(manager: DataManager) -> None:
    d = make_dataset(0, 5)
    manager.save_selected_samples_async(d, None, "n0")
    manager.wait_for_saves()
    got = manager.get_by_nodes(["n0"])
    for name in ("ind", "X", "y", "sample_weight", "orig"):
        np.testing.assert_array_equal(getattr(got, name), getattr(d, name))
    assert got.props is None
    np.testing.assert_array_equal(manager.get_by_nodes(["n0"], with_props=True).props, d.props)
    assert got.X.dtype == np.float32


def test_save_selected_by_index_values(manager: DataManager) -> None:
    d = make_dataset(100, 6)
    manager.save_selected_samples_async(d, np.array([104.0, 101.0, 999.0]), 7)
    got = manager.get_by_nodes([7])
    assert got.ind.tolist() == [101, 104]  # the dataset's row order
    np.testing.assert_array_equal(got.X, d.X[[1, 4]])


def test_nodes_in_list_order_without_removed(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 3), None, "a")
    manager.save_selected_samples_async(make_dataset(10, 3), None, "b")
    manager.remove_samples([1, 12])
    got = manager.get_by_nodes(["b", "a"], with_props=True)
    assert got.ind.tolist() == [10, 11, 0, 2]
    assert got.y.tolist() == [100.0, 110.0, 0.0, 20.0]
    assert got.props.tolist() == [10.5, 11.5, 0.5, 2.5]


def test_read_sees_earlier_save_without_waiting(manager: DataManager) -> None:
    for i in range(50):
        manager.save_selected_samples_async(make_dataset(i * 10, 2), None, f"n{i}")
        assert manager.get_by_nodes([f"n{i}"]).ind.tolist() == [i * 10, i * 10 + 1]


def test_save_copies_the_callers_arrays(manager: DataManager) -> None:
    d = make_dataset(0, 4)
    manager.save_selected_samples_async(d, None, "n")
    d.X[:] = -1
    d.ind[:] = -1
    got = manager.get_by_nodes(["n"])
    assert got.ind.tolist() == [0, 1, 2, 3] and got.X.min() >= 0
    got.X[:] = 7  # the result is the caller's own
    assert manager.get_by_nodes(["n"]).X.max() < 7


def test_saving_again_replaces(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 3), None, "n")
    manager.save_selected_samples_async(make_dataset(50, 2), None, "n")
    manager.wait_for_saves()
    assert manager.get_by_nodes(["n"]).ind.tolist() == [50, 51]
    assert manager.stored_node_ids() == ["n"]


def test_buffer_flag(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 2), None, "node")
    manager.save_selected_samples_async(make_dataset(5, 2), None, "buffer", is_buffer=True)
    manager.wait_for_saves()
    assert manager.stored_node_ids() == ["node", "buffer"]
    assert manager.stored_node_ids(buffer=True) == ["buffer"]
    assert manager.stored_node_ids(buffer=False) == ["node"]
    assert manager.get_by_nodes(["buffer"]).ind.tolist() == [5, 6]


def test_unknown_node_raises_key_error_naming_it(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 2), None, "known")
    with pytest.raises(KeyError, match="ghost"):
        manager.get_by_nodes(["known", "ghost"])


def test_empty_node_list_gives_empty_dataset(manager: DataManager) -> None:
    got = manager.get_by_nodes([])
    assert got.n_samples() == 0 and got.ind.dtype == np.int64 and got.X.shape == (0, 0)
    assert got.y is None and got.props is None


def test_all_rows_removed_keeps_column_shape(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 2), None, "n")
    manager.remove_samples([0, 1])
    got = manager.get_by_nodes(["n"])
    assert got.ind.shape == (0,) and got.X.shape == (0, 2)


def test_field_present_in_some_nodes_only(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 2), None, "full")
    manager.save_selected_samples_async(make_dataset(5, 2, with_optional=False), None, "bare")
    with pytest.raises(ValueError, match="'y'"):
        manager.get_by_nodes(["full", "bare"])
    assert manager.get_by_nodes(["bare"]).y is None


def test_argument_errors_raise_at_the_call(manager: DataManager) -> None:
    d = Dataset(np.arange(3), np.zeros((3, 2)), np.zeros(2))
    with pytest.raises(ValueError, match="'y'"):
        manager.save_selected_samples_async(d, None, "n")
    with pytest.raises(TypeError):
        manager.save_selected_samples_async(make_dataset(0, 2), None, ["unhashable"])
    assert manager.stored_node_ids() == []


def test_accepts_a_plain_tuple(manager: DataManager) -> None:
    manager.save_selected_samples_async((np.arange(2), np.ones((2, 1))), None, "t")
    assert isinstance(manager.get_by_nodes(["t"]), Dataset)


def test_saves_are_async_and_failures_reported(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    m = DataManager(storage_dir=tmp_path)
    gate = threading.Event()
    real_write = m._write_node

    def slow_write(node_id: Any, dset: Dataset, is_buffer: bool) -> str:
        gate.wait(10)
        if node_id == "bad":
            raise OSError("disk full")
        return real_write(node_id, dset, is_buffer)

    monkeypatch.setattr(m, "_write_node", slow_write)
    m.save_selected_samples_async(make_dataset(0, 2), None, "good")
    m.save_selected_samples_async(make_dataset(2, 2), None, "bad")
    assert m.stored_node_ids() == []  # returned before storing
    with pytest.raises(TimeoutError):
        m.wait_for_saves(timeout=0.05)
    gate.set()
    with pytest.raises(SaveError) as info:
        m.wait_for_saves(timeout=10)
    assert [node for node, _ in info.value.errors] == ["bad"]
    assert isinstance(info.value.__cause__, OSError)
    m.wait_for_saves()  # reported once
    assert m.stored_node_ids() == ["good"]
    m.close()


@pytest.mark.parametrize("durable", [True, False])
def test_a_durable_store_waits_for_the_disk(
    durable: bool, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    synced: List[int] = []
    fsync = os.fsync
    monkeypatch.setattr(os, "fsync", lambda fd: (synced.append(fd), fsync(fd)))
    with DataManager(storage_dir=tmp_path, durable=durable) as m:
        m.save_selected_samples_async(make_dataset(0, 2), None, "a")
        m.save_selected_samples_async(make_dataset(2, 2), None, "b")
        m.remove_samples([1])
        m.wait_for_saves()
        assert m.get_by_nodes(["a", "b"]).ind.tolist() == [0, 2, 3]
    assert len(synced) == (3 if durable else 0)


def test_close_reports_failures_and_refuses_saves(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    m = DataManager(storage_dir=tmp_path)

    def broken(*args: Any) -> str:
        raise OSError("broken")

    monkeypatch.setattr(m, "_write_node", broken)
    m.save_selected_samples_async(make_dataset(0, 2), None, "n")
    with pytest.raises(SaveError):
        m.close()
    m.close()  # idempotent, nothing left to report
    with pytest.raises(RuntimeError, match="closed"):
        m.save_selected_samples_async(make_dataset(0, 2), None, "n")


def test_context_manager_waits_and_stops_the_saver() -> None:
    with DataManager() as m:
        for i in range(20):
            m.save_selected_samples_async(make_dataset(i, 1), None, i)
    assert len(m.stored_node_ids()) == 20
    assert m._worker is None or not m._worker.is_alive()
    assert m.get_by_nodes([3]).ind.tolist() == [3]  # reads still work after close


def test_idle_saver_stops_and_restarts(monkeypatch: pytest.MonkeyPatch, manager: DataManager) -> None:
    monkeypatch.setattr(manager_module, "SAVER_IDLE_SECONDS", 0.02)
    manager.save_selected_samples_async(make_dataset(0, 1), None, "a")
    manager.wait_for_saves()
    deadline = time.monotonic() + 5
    while manager._worker is not None and time.monotonic() < deadline:
        time.sleep(0.01)
    assert manager._worker is None
    manager.save_selected_samples_async(make_dataset(1, 1), None, "b")
    assert manager.get_by_nodes(["a", "b"]).ind.tolist() == [0, 1]


def test_reads_while_saving_from_threads(manager: DataManager) -> None:
    manager.save_selected_samples_async(make_dataset(0, 10), None, "stable")
    errors: List[BaseException] = []

    def writer(offset: int) -> None:
        try:
            for i in range(100):
                manager.save_selected_samples_async(make_dataset(offset + i, 3), None, f"w{offset}-{i}")
        except BaseException as exc:
            errors.append(exc)

    threads = [threading.Thread(target=writer, args=(k * 1000,)) for k in range(3)]
    for thread in threads:
        thread.start()
    for _ in range(200):
        assert manager.get_by_nodes(["stable"]).n_samples() == 10
    for thread in threads:
        thread.join()
    manager.wait_for_saves()
    assert not errors and len(manager.stored_node_ids()) == 301


# Storage on disk


def test_disk_round_trip_survives_restart(tmp_path: Path) -> None:
    ind = np.array([3, 4, 5])
    X = np.array([[1.0, "red", None], [2.0, "blue", np.nan], [3.0, "red", "x"]], dtype=object)
    d = Dataset(ind, X, np.array(["a", "b", "c"], dtype=object), None, np.array([0.1, 0.2, 0.3]))
    with DataManager(storage_dir=tmp_path) as m:
        m.save_selected_samples_async(d, None, "layer0/node 1")
        m.save_selected_samples_async(d, [5], 42, is_buffer=True)
        m.remove_samples([4])
    assert not [name for name in os.listdir(tmp_path) if name.endswith(".tmp")]
    assert all("/" not in name and " " not in name for name in os.listdir(tmp_path))

    with DataManager(storage_dir=str(tmp_path)) as again:
        assert sorted(map(str, again.stored_node_ids())) == ["42", "layer0/node 1"]
        assert again.stored_node_ids(buffer=True) == [42]
        assert again.get_removed().tolist() == [4]
        got = again.get_by_nodes(["layer0/node 1", 42], with_props=True)
        assert got.ind.tolist() == [3, 5, 5]
        assert got.X.dtype == object and got.X[:, 1].tolist() == ["red", "red", "red"]
        assert got.X[0, 2] is None and got.X[1, 2] == "x"
        assert got.y.tolist() == ["a", "c", "c"]
        assert got.sample_weight is None
        np.testing.assert_allclose(got.props, [0.1, 0.3, 0.3])


def test_disk_distinct_ids_do_not_collide(tmp_path: Path) -> None:
    with DataManager(storage_dir=tmp_path) as m:
        m.save_selected_samples_async(make_dataset(0, 1), None, "a/b")
        m.save_selected_samples_async(make_dataset(1, 1), None, "a_b")
        m.save_selected_samples_async(make_dataset(2, 1), None, "7")
        m.save_selected_samples_async(make_dataset(3, 1), None, np.int64(7))
    with DataManager(storage_dir=tmp_path) as again:
        assert again.get_by_nodes(["a/b", "a_b", "7", 7]).ind.tolist() == [0, 1, 2, 3]


def test_disk_replacing_a_node(tmp_path: Path) -> None:
    with DataManager(storage_dir=tmp_path) as m:
        m.save_selected_samples_async(make_dataset(0, 3), None, "n")
        m.save_selected_samples_async(make_dataset(9, 1), None, "n")
        m.wait_for_saves()
        assert m.get_by_nodes(["n"]).ind.tolist() == [9]
    assert len(os.listdir(tmp_path)) == 1


def test_disk_node_ids_must_be_str_or_int(tmp_path: Path) -> None:
    with DataManager(storage_dir=tmp_path) as m:
        with pytest.raises(TypeError, match="str or int"):
            m.save_selected_samples_async(make_dataset(0, 1), None, (1, 2))


@pytest.mark.skipif(not hasattr(__import__("signal"), "pthread_sigmask"), reason="signals cannot be masked")
def test_a_file_is_made_in_memory_with_ctrl_c_held_back_until_it_is_made(tmp_path: Path) -> None:
    import signal

    def held() -> bool:
        return signal.SIGINT in signal.pthread_sigmask(signal.SIG_BLOCK, [])

    seen: List[bool] = []

    def write(stream: Any) -> None:
        seen.append(held())
        np.savez(stream, values=np.arange(3))

    manager_module._atomic_write(str(tmp_path / "a.npz"), write, durable=False)
    assert seen == [True] and not held()
    with np.load(tmp_path / "a.npz") as data:
        assert data["values"].tolist() == [0, 1, 2]

    def fails(stream: Any) -> None:
        raise OSError("disk full")

    with pytest.raises(OSError, match="disk full"):
        manager_module._atomic_write(str(tmp_path / "b.npz"), fails, durable=False)
    assert not held() and not (tmp_path / "b.npz").exists()

    on_thread: List[bool] = []
    worker = threading.Thread(target=manager_module._atomic_write,
                              args=(str(tmp_path / "c.npz"), lambda stream: on_thread.append(held())))
    worker.start()
    worker.join()
    assert on_thread == [False]  # only the main thread is told of Ctrl-C: the others are left alone
