"""Tests of quillmarsh.CoresetTree keeping up with its data: removing rows, saving and loading."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
import textwrap
from pathlib import Path
from typing import Any, List, Tuple

import numpy as np
import pandas as pd
import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer
from tree_support import assert_same

from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree
from quillmarsh.core.tree import coreset_tree
from quillmarsh.core.tree.persist import SaveFormatError


def blocks(n_blocks: int, rows: int, seed: int = 0) -> List[Tuple[np.ndarray, np.ndarray]]:
    rng = np.random.default_rng(seed)
    out = []
    for _ in range(n_blocks):
        X = rng.normal(size=(rows, 3)) + 5.0 * rng.integers(0, 3, size=(rows, 1))
        out.append((X, X @ np.array([1.0, -1.0, 2.0]) + rng.normal(size=rows)))
    return out


def make_tree(**kwargs: Any) -> CoresetTree:
    kwargs.setdefault("coreset_size", 30)
    kwargs.setdefault("chunk_size", 100)
    kwargs.setdefault("random_state", 0)
    return CoresetTree([CoresetKMeans(k=3), CoresetLinearRegression()], **kwargs)


def feed(tree: CoresetTree, data: List[Tuple[np.ndarray, np.ndarray]]) -> CoresetTree:
    for X, y in data:
        tree.add(X, y)
    return tree


class CountingLayer(ChunkLayer):
    """A layer that counts the leaves it builds and rebuilds."""

    built: List[Any] = []
    rebuilt: List[Any] = []

    def _create_node(self, dset: Any, node_id: Any = None, leaf_node_index: Any = None) -> Any:
        CountingLayer.built.append(leaf_node_index)
        return super()._create_node(dset, node_id, leaf_node_index)

    def _rebuild_node(self, dset: Any, node_id: Any) -> Any:
        CountingLayer.rebuilt.append(node_id)
        return super()._rebuild_node(dset, node_id)


@pytest.fixture
def counting(monkeypatch: pytest.MonkeyPatch) -> type:
    CountingLayer.built, CountingLayer.rebuilt = [], []
    monkeypatch.setattr(coreset_tree, "ChunkLayer", CountingLayer)
    return CountingLayer


# -- removing rows -------------------------------------------------------------------------------------


def test_removed_ids_never_come_back(counting: type) -> None:
    tree = feed(make_tree(), blocks(9, 100))  # 900 rows: 9 leaves
    gone = np.arange(230, 260)
    assert tree.remove(gone) == 30
    assert tree.n_samples_ == 870 and tree.n_removed_ == 30
    for index in (0, 1):
        assert not np.isin(tree.coreset(index).ids, gone).any()
    feed(tree, blocks(3, 100, seed=1))
    assert not np.isin(tree.coreset().ids, gone).any()
    with pytest.raises(ValueError, match="or were removed"):
        tree.add(np.ones((2, 3)), np.ones(2), ids=np.array([240, 5000]))


def test_only_the_leaf_that_held_the_rows_is_rebuilt(counting: type) -> None:
    tree = feed(make_tree(), blocks(8, 100))
    built = list(counting.built)
    assert len(built) == 8
    tree.remove(np.arange(305, 320))  # all in leaf 3
    assert len(counting.rebuilt) == 1 and counting.built == built
    assert tree.remove([]) == 0
    assert len(counting.rebuilt) == 1


def test_a_removal_changes_only_the_nodes_on_its_path() -> None:
    data = blocks(8, 100)
    tree = feed(make_tree(), data)
    before = {key: tree._store.get(key) for key in tree._store.closed | set(tree._store.open)}
    tree.remove(np.arange(300, 310))  # leaf 3: its path is (0, 3), (1, 1), (2, 0), (3, 0)
    path = {(t, level, 3 >> level) for t in (0, 1) for level in range(4)}
    for key, rows in before.items():
        after = tree._store.get(key)
        if key in path:
            assert not np.array_equal(after.ids, rows.ids)
        else:
            assert_same(after, rows)


def test_a_rebuilt_leaf_equals_a_leaf_built_from_the_remaining_rows() -> None:
    data = blocks(4, 100)
    X = np.vstack([X for X, _ in data])
    y = np.concatenate([y for _, y in data])
    tree = feed(make_tree(), data)
    tree.remove(np.arange(100, 140))
    # A tree of the same seed whose second leaf holds just the 60 rows left in that leaf.
    fresh = make_tree(chunk_size=60)
    fresh.add(X[:60], y[:60], ids=np.arange(1000, 1060))
    fresh.add(X[140:200], y[140:200], ids=np.arange(140, 200))
    for t in (0, 1):
        assert_same(tree._store.get((t, 0, 1)), fresh._store.get((t, 0, 1)))
    assert tree._store.get((0, 0, 1)).weights.sum() == pytest.approx(60, rel=0.25)


def test_removing_every_row_of_a_leaf_and_of_the_buffer() -> None:
    tree = feed(make_tree(), blocks(5, 90))  # 450 rows: 4 leaves, 50 in the buffer
    assert tree.remove(np.arange(100, 200)) == 100
    assert tree.remove(np.arange(420, 450)) == 30
    for index in (0, 1):
        ids = tree.coreset(index).ids
        assert not np.isin(ids, np.r_[100:200, 420:450]).any()
        assert tree.coreset(index).weights.sum() == pytest.approx(320, rel=0.3)
    assert tree.remove(np.arange(400, 420)) == 20  # the rest of the buffer
    assert not np.isin(tree.coreset().ids, np.arange(400, 450)).any()


def test_small_leaves_are_kept_whole() -> None:
    tree = feed(make_tree(), blocks(2, 100))
    tree.remove(np.arange(0, 90))  # 10 rows left in leaf 0, fewer than coreset_size
    leaf = tree._store.get((0, 0, 0))
    assert sorted(leaf.ids.tolist()) == list(range(90, 100)) and (leaf.weights == 1).all()


def test_unknown_ids_change_nothing() -> None:
    tree = feed(make_tree(), blocks(3, 100))
    before = tree.coreset()
    with pytest.raises(KeyError, match=r"ids not held by the tree: 300, 301, 302, 303, 304 and 5 more"):
        tree.remove(np.r_[5:10, 300:310])
    assert_same(tree.coreset(), before)
    tree.remove(np.arange(5))
    with pytest.raises(KeyError, match="ids not held by the tree: 4"):
        tree.remove([4, 6])
    assert tree.n_samples_ == 295
    tree.remove([6])  # 6 was still held: the failed call removed nothing
    assert tree.n_samples_ == 294


def test_remove_where_goes_through_the_stored_chunks_and_the_buffer() -> None:
    tree = feed(make_tree(), blocks(5, 90))
    seen: List[int] = []

    def far_right(dataset: Any) -> np.ndarray:
        seen.append(len(dataset.ind))
        return np.asarray(dataset.X[:, 0] > 9.0)

    before = tree.coreset()
    assert tree.remove_where(lambda d: np.zeros(len(d.ind), dtype=bool)) == 0
    assert_same(tree.coreset(), before)
    removed = tree.remove_where(far_right)
    assert seen == [100, 100, 100, 100, 50] and removed > 0
    assert (tree.coreset().X[:, 0] <= 9.0).all() and tree.n_removed_ == removed


def test_remove_where_wants_a_mask() -> None:
    tree = feed(make_tree(), blocks(2, 100))
    with pytest.raises(ValueError, match="boolean mask of shape"):
        tree.remove_where(lambda d: np.arange(3))


def test_a_removed_far_cluster_leaves_the_summary_as_if_never_added() -> None:
    rng = np.random.default_rng(2)
    X = rng.normal(size=(2000, 2))
    far = np.arange(700, 706)
    X[far] += 500.0
    tree = CoresetTree(CoresetKMeans(k=3), coreset_size=40, chunk_size=200, random_state=0)
    tree.add(X)
    assert np.isin(far, tree.coreset().ids).any()
    tree.remove(far)
    c = tree.coreset()
    assert c.X.max() < 100 and c.weights.sum() == pytest.approx(1994, rel=0.2)


# -- storage -------------------------------------------------------------------------------------------


def test_the_temporary_data_dir_goes_with_close(tmp_path: Path) -> None:
    with feed(make_tree(), blocks(3, 100)) as tree:
        data_dir = tree.data_dir
        assert os.path.isdir(os.path.join(data_dir, "chunks"))  # its files are written in the background
    assert not os.path.exists(data_dir)
    assert tree.coreset().ids.size == 30  # what was computed stays readable
    with pytest.raises(RuntimeError, match="closed"):
        tree.add(*blocks(1, 10)[0])
    kept = tmp_path / "kept"
    with feed(make_tree(data_dir=kept), blocks(3, 100)):
        pass
    assert (kept / "chunks").is_dir()
    with pytest.raises(ValueError, match="not empty"):
        make_tree(data_dir=kept)


@pytest.mark.parametrize("n_jobs", [None, 2])
def test_a_tree_that_keeps_no_rows_writes_no_chunk_and_gives_the_same_summary(
    tmp_path: Path, n_jobs: Any
) -> None:
    data = blocks(7, 90, seed=8)
    with feed(make_tree(n_jobs=n_jobs), data) as keeping, \
            feed(make_tree(n_jobs=n_jobs, keep_rows=False, data_dir=tmp_path / "bare"), data) as bare:
        for index in (0, 1):
            assert_same(bare.coreset(index), keeping.coreset(index))
        assert bare.n_leaves_ == keeping.n_leaves_ == 6
    assert [path for path in (tmp_path / "bare").rglob("*") if path.is_file()] == []


def test_a_tree_that_keeps_no_rows_refuses_to_remove_and_changes_nothing(tmp_path: Path) -> None:
    with feed(make_tree(keep_rows=False), blocks(4, 100)) as tree:
        before = tree.coreset(1)
        with pytest.raises(RuntimeError, match=r"keeps no rows \(keep_rows=False\)"):
            tree.remove([5])
        with pytest.raises(RuntimeError, match="keeps no rows"):
            tree.remove_where(lambda rows: np.ones(len(rows.ind), dtype=bool))
        assert tree.n_samples_ == 400 and tree.n_removed_ == 0
        assert_same(tree.coreset(1), before)
        tree.save(tmp_path / "save")
    with CoresetTree.load(tmp_path / "save") as loaded:
        assert loaded.keep_rows is False
        assert_same(loaded.coreset(1), before)
        with pytest.raises(RuntimeError, match="keeps no rows"):
            loaded.remove([5])
    with pytest.raises(TypeError, match="keep_rows must be True or False"):
        make_tree(keep_rows="no")


# -- saving and loading --------------------------------------------------------------------------------


def test_a_loaded_tree_goes_on_as_if_it_never_stopped(tmp_path: Path) -> None:
    data = blocks(11, 70, seed=4)
    whole = feed(make_tree(random_state=5), data)
    whole.remove(np.arange(200, 230))
    first = feed(make_tree(random_state=5), data[:6])
    first.save(tmp_path / "save")
    first.close()
    loaded = CoresetTree.load(tmp_path / "save")
    assert loaded.n_samples_ == 420 and loaded.n_leaves_ == first.n_leaves_
    for index in (0, 1):
        assert_same(loaded.coreset(index), first.coreset(index))
    feed(loaded, data[6:])
    loaded.remove(np.arange(200, 230))
    for index in (0, 1):
        assert_same(loaded.coreset(index), whole.coreset(index))


def test_a_save_is_self_contained_and_keeps_removals(tmp_path: Path) -> None:
    tree = feed(make_tree(), blocks(6, 100))
    tree.remove(np.arange(10, 20))
    tree.save(tmp_path / "save")
    tree.close()  # its temporary data directory is gone
    loaded = CoresetTree.load(tmp_path / "save")
    assert not np.isin(loaded.coreset().ids, np.arange(10, 20)).any()
    with pytest.raises(KeyError):
        loaded.remove([15])
    assert loaded.remove(np.arange(300, 350)) == 50
    assert not np.isin(loaded.coreset().ids, np.arange(300, 350)).any()


def test_the_working_files_wait_for_no_disk_and_a_save_puts_every_file_on_disk(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    synced: List[str] = []
    fsync = os.fsync

    def recording_fsync(fd: int) -> None:
        # a file written under a temporary name is synced before it takes its own
        synced.append(re.sub(r"\.[0-9a-f]{32}\.tmp$", "", os.readlink(f"/proc/self/fd/{fd}")))
        fsync(fd)

    monkeypatch.setattr(os, "fsync", recording_fsync)
    tree = feed(make_tree(data_dir=tmp_path / "work"), blocks(6, 100))
    tree.remove(np.arange(10, 20))
    tree.coreset()
    assert synced == []
    tree.save(tmp_path / "save")
    saved = [os.path.join(folder, name) for folder, _, names in os.walk(tmp_path / "save") for name in names]
    assert any("chunks" in path for path in saved) and any("nodes" in path for path in saved)
    assert set(saved) <= set(synced)
    tree.close()


def test_saving_again_replaces_the_version(tmp_path: Path) -> None:
    tree = feed(make_tree(), blocks(3, 100))
    tree.save(tmp_path / "save")
    feed(tree, blocks(2, 100, seed=1))
    tree.save(tmp_path / "save")
    versions = [name for name in os.listdir(tmp_path / "save") if name.startswith("v-")]
    assert len(versions) == 1
    assert CoresetTree.load(tmp_path / "save").n_samples_ == 500


def test_tables_round_trip_with_their_feature_space(tmp_path: Path) -> None:
    rng = np.random.default_rng(0)
    frames = [
        pd.DataFrame({"size": rng.normal(size=80), "colour": rng.choice(["red", "green", "blue"], size=80)})
        for _ in range(5)
    ]
    whole = CoresetTree(CoresetLinearRegression(), coreset_size=20, chunk_size=100, random_state=0)
    part = CoresetTree(CoresetLinearRegression(), coreset_size=20, chunk_size=100, random_state=0)
    for frame in frames:
        whole.add(frame, frame["size"] * 3)
    for frame in frames[:3]:
        part.add(frame, frame["size"] * 3)
    part.save(tmp_path / "save")
    loaded = CoresetTree.load(tmp_path / "save")
    for frame in frames[3:]:
        loaded.add(frame, frame["size"] * 3)
    assert loaded.feature_names_ == whole.feature_names_
    assert_same(loaded.coreset(), whole.coreset())


@pytest.mark.parametrize("damage", ["remove", "truncate", "manifest", "newer"])
def test_a_damaged_save_gives_one_clear_error_naming_the_file(tmp_path: Path, damage: str) -> None:
    tree = feed(make_tree(), blocks(5, 100))
    tree.save(tmp_path / "save")
    version = (tmp_path / "save" / "CURRENT").read_text().strip()
    root = tmp_path / "save" / version
    node = sorted((root / "nodes").iterdir())[0]
    manifest = root / "manifest.json"
    if damage == "remove":
        node.unlink()
        expected = f"{node}: missing"
    elif damage == "truncate":
        node.write_bytes(node.read_bytes()[:50])
        expected = f"{node}: 50 bytes where"
    elif damage == "manifest":
        manifest.write_text(manifest.read_text()[:100])
        expected = f"{manifest}: not valid JSON"
    else:
        manifest.write_text(manifest.read_text().replace('"version": 1', '"version": 7'))
        expected = f"{manifest}: format version 7 is newer"
    with pytest.raises(SaveFormatError) as caught:
        CoresetTree.load(tmp_path / "save")
    assert str(caught.value).startswith(expected)
    with pytest.raises(SaveFormatError, match="holds no saved tree"):
        CoresetTree.load(tmp_path / "nothing")


def test_a_killed_save_leaves_the_previous_one_loadable(tmp_path: Path) -> None:
    save = tmp_path / "save"
    script = textwrap.dedent(
        f"""
        import os, sys, numpy as np
        from quillmarsh import CoresetTree, CoresetKMeans
        from quillmarsh.core.tree import persist

        tree = CoresetTree(CoresetKMeans(k=3), coreset_size=30, chunk_size=100, random_state=0,
                           data_dir={str(tmp_path / "work")!r})  # the killed process leaves it here
        tree.add(np.random.default_rng(0).normal(size=(500, 3)))
        tree.save({str(save)!r})
        print(tree.coreset().ids.sum(), flush=True)
        tree.add(np.random.default_rng(1).normal(size=(500, 3)))
        original = persist._write_version
        def stalled(tree, target):
            manifest = original(tree, target)
            print("writing", flush=True)
            sys.stdin.readline()  # killed here, the new version half made
            return manifest
        persist._write_version = stalled
        tree.save({str(save)!r})
        """
    )
    process = subprocess.Popen(
        [sys.executable, "-c", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    )
    assert process.stdout is not None
    first_ids_sum = int(process.stdout.readline())
    assert process.stdout.readline().strip() == "writing"
    process.send_signal(signal.SIGKILL)
    process.wait(timeout=30)
    loaded = CoresetTree.load(save)
    assert loaded.n_samples_ == 500 and int(loaded.coreset().ids.sum()) == first_ids_sum
