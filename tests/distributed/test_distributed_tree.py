"""Tests of a coreset tree built on a Dask cluster: the same summary as without one."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd

from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree


def blocks(seed: int = 0) -> list:
    rng = np.random.default_rng(seed)
    out = []
    for rows in (130, 250, 70, 310, 90):
        X = rng.normal(size=(rows, 3)) + 4.0 * rng.integers(0, 3, size=(rows, 1))
        out.append((X, X.sum(axis=1) + rng.normal(size=rows)))
    return out


def build(client: Any = None, seed: int = 3) -> CoresetTree:
    tree = CoresetTree(
        [CoresetKMeans(k=3), CoresetLinearRegression()], coreset_size=25, chunk_size=60, random_state=seed,
        client=client,
    )
    for X, y in blocks():
        tree.add(X, y)
    return tree


def test_the_cluster_build_equals_the_sequential_one(client: Any) -> None:
    remote, local = build(client), build()
    assert remote.n_leaves_ == local.n_leaves_ == 14
    for index in (0, 1):
        a, b = remote.coreset(index), local.coreset(index)
        np.testing.assert_array_equal(a.ids, b.ids)
        np.testing.assert_array_equal(a.X, b.X)
        np.testing.assert_allclose(a.weights, b.weights, rtol=1e-12)


def test_rows_removed_from_a_cluster_built_tree_leave_it_as_from_a_local_one(client: Any) -> None:
    remote, local = build(client), build()
    for tree in (remote, local):
        tree.remove(np.arange(100, 170))
    np.testing.assert_array_equal(remote.coreset().ids, local.coreset().ids)
    assert not np.isin(remote.coreset().ids, np.arange(100, 170)).any()


def test_tables_are_encoded_on_the_client_and_give_the_sequential_summary(client: Any) -> None:
    rng = np.random.default_rng(1)
    trees = [
        CoresetTree(CoresetLinearRegression(), coreset_size=20, chunk_size=50, random_state=0, client=c)
        for c in (client, None)
    ]
    for block in range(6):
        colours = ["red", "green"] if block < 3 else ["red", "green", "blue"]
        frame = pd.DataFrame({"size": rng.normal(size=45), "colour": rng.choice(colours, size=45)})
        target = frame["size"] * 2.0 + (frame["colour"] == "blue")
        target[frame.index % 17 == 3] = np.nan  # rows without a target are dropped, on either side
        for tree in trees:
            tree.add(frame, target.to_numpy())
    remote, local = trees
    assert remote.feature_names_ == local.feature_names_ and "colour=blue" in remote.feature_names_
    np.testing.assert_array_equal(remote.coreset().ids, local.coreset().ids)
    np.testing.assert_array_equal(remote.coreset().X, local.coreset().X)


def test_a_loaded_tree_goes_on_building_on_the_cluster(client: Any, tmp_path: Any) -> None:
    data = blocks()
    whole = CoresetTree(CoresetKMeans(k=3), coreset_size=25, chunk_size=60, random_state=3)
    part = CoresetTree(CoresetKMeans(k=3), coreset_size=25, chunk_size=60, random_state=3)
    for X, _ in data:
        whole.add(X)
    for X, _ in data[:2]:
        part.add(X)
    part.save(tmp_path / "save")
    loaded = CoresetTree.load(tmp_path / "save", client=client)
    for X, _ in data[2:]:
        loaded.add(X)
    np.testing.assert_array_equal(loaded.coreset().ids, whole.coreset().ids)


def test_leaves_are_built_and_nodes_merged_by_the_cluster_s_workers(client: Any) -> None:
    from distributed import get_task_stream

    with get_task_stream(client) as stream:
        tree = build(client)
    keys = [task["key"] for task in stream.data]
    leaves = [key for key in keys if key.startswith("quillmarsh-leaf-")]
    merges = [key for key in keys if key.startswith("quillmarsh-merge-")]
    # 14 leaves make full subtrees of 8, 4 and 2 leaves: 7 + 3 + 1 merges
    assert len(set(leaves)) == tree.n_leaves_ == 14
    assert len(set(merges)) == 7 + 3 + 1
    workers = {task["worker"] for task in stream.data if task["key"] in leaves}
    assert workers <= set(client.scheduler_info()["workers"])


class _Done:
    """A finished future of the recording client below."""

    def __init__(self, value: Any) -> None:
        self.value = value


class RecordingClient:
    """Runs each task at once in this process, as a cluster would run it, and records its function."""

    def __init__(self) -> None:
        self.calls: list = []

    def submit(self, function: Any, *args: Any, key: str, pure: bool) -> _Done:
        self.calls.append((function.__name__, pure))
        return _Done(function(*[a.value if isinstance(a, _Done) else a for a in args]))

    def gather(self, futures: list) -> list:
        return [future.value for future in futures]


def test_a_tree_with_a_client_hands_every_leaf_and_merge_to_it() -> None:
    recording = RecordingClient()
    remote, local = build(recording), build()
    names = [name for name, _ in recording.calls]
    assert names.count("build_leaf") == 14 and names.count("merge_nodes") == 11
    assert {pure for _, pure in recording.calls} == {False}  # each node is its own task
    np.testing.assert_array_equal(remote.coreset(1).ids, local.coreset(1).ids)


def test_a_tree_with_a_client_that_keeps_no_rows_stores_no_chunk(tmp_path: Path) -> None:
    chunks = {}
    for keep_rows in (True, False):
        recording = RecordingClient()
        with CoresetTree([CoresetKMeans(k=3), CoresetLinearRegression()], coreset_size=25, chunk_size=60,
                         random_state=3, client=recording, keep_rows=keep_rows,
                         data_dir=tmp_path / str(keep_rows)) as tree:
            for X, y in blocks():
                tree.add(X, y)
            assert [name for name, _ in recording.calls].count("build_leaf") == 14
            np.testing.assert_array_equal(tree.coreset(1).ids, build().coreset(1).ids)
        chunks[keep_rows] = len(list((tmp_path / str(keep_rows) / "chunks").glob("*.npz")))
    assert chunks == {True: 14, False: 0}
