"""Tests of a coreset tree built on a Dask cluster: the same summary as without one."""

from __future__ import annotations

from typing import Any

import numpy as np
import pandas as pd
import pytest

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


def test_tables_are_refused_on_a_cluster(client: Any) -> None:
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=5, client=client)
    with pytest.raises(TypeError, match="numeric arrays"):
        tree.add(pd.DataFrame({"a": [1.0, 2.0]}))
