"""Tests of quillmarsh.CoresetTree: one bounded, weighted summary of a stream, by merge and reduce."""

from __future__ import annotations

from typing import Any, List, Optional, Tuple

import numpy as np
import pandas as pd
import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer
from sklearn.cluster import KMeans
from sklearn.linear_model import LinearRegression
from sklearn.neighbors import KNeighborsClassifier
from tree_support import assert_same

import quillmarsh
from quillmarsh import CoresetKMeans, CoresetLinearRegression, CoresetTree
from quillmarsh.core.tree import coreset_tree


def blocks(n_blocks: int, rows: int, seed: int = 0, features: int = 3) -> List[Tuple[np.ndarray, np.ndarray]]:
    rng = np.random.default_rng(seed)
    out = []
    for _ in range(n_blocks):
        X = rng.normal(size=(rows, features)) + 6.0 * rng.integers(0, 4, size=(rows, 1))
        y = X @ np.arange(1.0, features + 1) + rng.normal(size=rows)
        out.append((X, y))
    return out


def build(data: List[Tuple[np.ndarray, np.ndarray]], **kwargs: Any) -> CoresetTree:
    kwargs.setdefault("coreset_size", 40)
    kwargs.setdefault("chunk_size", 200)
    kwargs.setdefault("random_state", 0)
    tree = CoresetTree([CoresetKMeans(k=4), CoresetLinearRegression()], **kwargs)
    for X, y in data:
        tree.add(X, y)
    return tree


def test_the_package_exports_the_tree() -> None:
    assert quillmarsh.CoresetTree is CoresetTree and "CoresetTree" in quillmarsh.__all__


def test_the_summary_has_exactly_coreset_size_rows_and_the_rows_as_given() -> None:
    data = blocks(7, 130)  # 910 rows: 4 leaves of 200 and 110 rows in the buffer
    tree = build(data)
    assert tree.n_samples_ == 910 and tree.n_leaves_ == 4
    X_all = np.vstack([X for X, _ in data])
    y_all = np.concatenate([y for _, y in data])
    for index in (0, 1):
        c = tree.coreset(index)
        assert c.X.shape == (40, 3) and c.ids.shape == c.weights.shape == c.y.shape == (40,)  # type: ignore[union-attr]
        assert len(set(c.ids.tolist())) == 40
        np.testing.assert_array_equal(c.X, X_all[c.ids])  # default ids: the running row count
        np.testing.assert_array_equal(c.y, y_all[c.ids])
        assert (c.weights > 0).all()


def test_the_weights_estimate_the_row_count_without_bias() -> None:
    data = blocks(9, 150, seed=3)
    totals = [
        build(data, random_state=seed).coreset(index).weights.sum() for seed in range(12) for index in (0, 1)
    ]
    assert np.mean(totals) == pytest.approx(1350, rel=0.05)
    assert all(abs(total - 1350) < 0.35 * 1350 for total in totals)


def test_a_short_stream_is_kept_whole_through_the_buffer() -> None:
    X, y = blocks(1, 30)[0]
    tree = build([(X, y)])
    c = tree.coreset()
    assert tree.n_leaves_ == 0
    assert sorted(c.ids.tolist()) == list(range(30)) and (c.weights == 1.0).all()


def test_the_buffers_rows_reach_the_summary() -> None:
    data = blocks(1, 1000, seed=5)
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=100, chunk_size=950, random_state=1)
    tree.add(*data[0])
    assert tree.n_leaves_ == 1
    # 50 rows wait in the buffer; the summary reduces 100 leaf rows and those 50 to 100 rows.
    from_buffer = tree.coreset().ids >= 950
    assert from_buffer.any()


def test_the_same_seed_gives_the_same_summary_with_any_n_jobs() -> None:
    data = blocks(12, 170, seed=2)
    sequential = build(data, random_state=7)
    parallel = build(data, random_state=7, n_jobs=2)
    assert parallel.n_leaves_ == sequential.n_leaves_ == 10
    for index in (0, 1):
        assert_same(sequential.coreset(index), parallel.coreset(index))
    other = build(data, random_state=8).coreset()
    assert not np.array_equal(other.ids, sequential.coreset().ids)


def test_a_generator_seeds_the_tree() -> None:
    data = blocks(4, 300)
    a = build(data, random_state=np.random.default_rng(3)).coreset()
    b = build(data, random_state=np.random.default_rng(3)).coreset()
    assert_same(a, b)


def test_the_layer_is_driven_with_the_tree_as_its_parent(monkeypatch: pytest.MonkeyPatch) -> None:
    calls: List[Tuple[str, Any]] = []

    class RecordingLayer(ChunkLayer):
        def _add_to_buffer(self, dataset: Any) -> None:
            calls.append(("add", len(dataset[0])))
            super()._add_to_buffer(dataset)

        def process(
            self,
            dsets: Any = None,
            create_buffer: bool = True,
            is_classification: bool = False,
            after_create_leaf_node: Any = None,
        ) -> Any:
            def recording(node: Any, leaf_index: Optional[int]) -> None:
                calls.append(("leaf", node.dset.ind.min()))
                after_create_leaf_node(node, leaf_index)

            calls.append(("process", create_buffer))
            return super().process(dsets, create_buffer, is_classification, recording)

    parents: List[Any] = []

    class RecordingTree(CoresetTree):
        def update_build_params(self) -> None:
            parents.append(self)
            super().update_build_params()

    monkeypatch.setattr(coreset_tree, "ChunkLayer", RecordingLayer)
    tree = RecordingTree(CoresetKMeans(k=2), coreset_size=10, chunk_size=100, random_state=0)
    for X, y in blocks(3, 70):
        tree.add(X, y)
    assert calls == [
        ("process", False),
        ("add", 70),
        ("process", False),
        ("add", 70),
        ("leaf", 0),
        ("process", False),
        ("add", 70),
        ("leaf", 100),
    ]
    assert parents == [tree] * 3
    assert tree.coreset().ids.size == 10


def test_a_row_of_weight_three_scores_as_much_as_three_copies() -> None:
    rng = np.random.default_rng(4)
    X = rng.normal(size=(60, 3))
    y = X.sum(axis=1) + rng.normal(size=60)
    copies = np.vstack([X, X[[5]], X[[5]]])
    copies_y = np.concatenate([y, y[[5]], y[[5]]])
    weights = np.ones(60)
    weights[5] = 3.0
    coreset = CoresetLinearRegression(dtype="float64")
    weighted = coreset.compute_sensitivities(X, y, sample_weight=weights)
    repeated = coreset.compute_sensitivities(copies, copies_y)
    assert weighted[5] == pytest.approx(repeated[5] + repeated[60] + repeated[61], rel=1e-9)
    np.testing.assert_allclose(np.delete(weighted, 5), np.delete(repeated[:60], 5), rtol=1e-9)


def test_weighted_kmeans_sensitivities_without_weights_equal_weights_of_one() -> None:
    X = np.vstack([blocks(1, 300, seed=9)[0][0], [[80.0, 80.0, 80.0]]])
    plain = CoresetKMeans(k=4, random_state=2, dtype="float64").compute_sensitivities(X)
    ones = CoresetKMeans(k=4, random_state=2, dtype="float64").compute_sensitivities(
        X, sample_weight=np.ones(301)
    )
    assert plain.sum() == pytest.approx(5.0) and ones.sum() == pytest.approx(5.0)
    assert plain.argmax() == ones.argmax() == 300


def test_a_far_small_cluster_is_kept() -> None:
    rng = np.random.default_rng(6)
    tree = CoresetTree(CoresetKMeans(k=3), coreset_size=30, chunk_size=500, random_state=0)
    for block in range(8):
        X = rng.normal(size=(500, 2))
        if block == 5:
            X[:5] += 1000.0  # five rows in 4,000, far away: a uniform sample of 30 misses them
        tree.add(X)
    c = tree.coreset()
    far = c.X[:, 0] > 500
    assert far.any() and c.weights[far].sum() == pytest.approx(5, rel=0.5)


def test_fit_uses_the_weights() -> None:
    data = blocks(5, 400, seed=1)
    tree = build(data)
    model = tree.fit(LinearRegression(), 1)
    np.testing.assert_allclose(model.coef_, [1.0, 2.0, 3.0], atol=0.2)
    kmeans = tree.fit(KMeans(4, n_init=3, random_state=0), 0)
    assert kmeans.cluster_centers_.shape == (4, 3)
    with pytest.raises(TypeError, match="sample_weight"):
        tree.fit(KNeighborsClassifier())


def test_fit_before_any_row_is_refused() -> None:
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=5)
    assert tree.coreset().ids.size == 0
    with pytest.raises(ValueError, match="no rows"):
        tree.fit(KMeans(2))


def test_given_ids_lead_back_to_the_rows() -> None:
    X, y = blocks(1, 500)[0]
    ids = np.arange(500) * 10 + 7
    tree = CoresetTree(CoresetLinearRegression(), coreset_size=50, chunk_size=200, random_state=0)
    tree.add(X, y, ids=ids)
    c = tree.coreset()
    np.testing.assert_array_equal(c.X, X[(c.ids - 7) // 10])
    # Ids by default are the running row count (500 to 509 here), which holds 507 already.
    with pytest.raises(ValueError, match=r"already in the tree \(or were removed from it\): 507"):
        tree.add(X[:10], y[:10])
    tree.add(X[:7], y[:7])
    assert tree.n_samples_ == 507


def test_tables_go_through_the_stream_feature_space() -> None:
    rng = np.random.default_rng(0)
    tree = CoresetTree(CoresetLinearRegression(), coreset_size=30, chunk_size=100, random_state=0)
    frames = []
    for block in range(4):
        colours = ["red", "green"] if block < 2 else ["red", "green", "blue"]
        frame = pd.DataFrame({"size": rng.normal(size=80), "colour": rng.choice(colours, size=80)})
        frames.append(frame)
        tree.add(frame, frame["size"] * 2.0)
    c = tree.coreset()
    assert c.X.shape == (30, len(tree.feature_names_)) and "size" in tree.feature_names_
    assert any("blue" in name for name in tree.feature_names_)
    source = pd.concat(frames, ignore_index=True)
    np.testing.assert_allclose(c.X[:, tree.feature_names_.index("size")], source["size"].to_numpy()[c.ids])



def test_each_chunk_is_preprocessed_once_for_two_coreset_objects(monkeypatch: pytest.MonkeyPatch) -> None:
    from quillmarsh.data.feature_space import FeatureSpace

    encoded: List[int] = []
    encode = FeatureSpace.encode

    def recording_encode(self: FeatureSpace, X: np.ndarray, *args: Any, **kwargs: Any) -> Any:
        if kwargs.get("learn", True):
            encoded.append(len(X))
        return encode(self, X, *args, **kwargs)

    monkeypatch.setattr(FeatureSpace, "encode", recording_encode)
    rng = np.random.default_rng(0)
    frame = pd.DataFrame({"size": rng.normal(size=450), "colour": rng.choice(["red", "green"], size=450)})
    with CoresetTree([CoresetKMeans(k=2), CoresetLinearRegression()], coreset_size=20, chunk_size=100,
                     random_state=0) as tree:
        tree.add(frame, frame["size"].to_numpy() * 2.0)
        assert encoded == [100] * 4
        summaries = [tree.coreset(0), tree.coreset(1)]
    assert encoded == [100] * 4 + [50]  # the buffer's rows, once for both summaries
    assert all(c.X.shape == (20, 3) for c in summaries)


@pytest.mark.parametrize("n_jobs", [None, 2])
def test_a_chunk_that_preprocessing_empties_adds_nothing(n_jobs: Optional[int]) -> None:
    rng = np.random.default_rng(1)
    frame = pd.DataFrame({"size": rng.normal(size=400), "colour": rng.choice(["red", "green"], size=400)})
    target = frame["size"].to_numpy() * 2.0
    target[100:200] = np.nan  # every row of the second chunk
    with CoresetTree([CoresetKMeans(k=2), CoresetLinearRegression()], coreset_size=20, chunk_size=100,
                     n_jobs=n_jobs, random_state=0) as tree:
        tree.add(frame, target)
        assert tree.n_leaves_ == 4
        for index in (0, 1):
            summary = tree.coreset(index)
            assert summary.ids.size == 20 and not np.isin(summary.ids, np.arange(100, 200)).any()
            assert summary.weights.sum() == pytest.approx(300, rel=0.2)
        assert tree.remove(np.arange(0, 50)) == 50

# -- bad input: a clear error, and the tree as it was ----------------------------------------------


@pytest.mark.parametrize(
    "make, error, message",
    [
        (lambda X, y: (X[:, 0], y, None), ValueError, "must be 2-D"),
        (lambda X, y: (X, y[:-1], None), ValueError, "y of block 1 has 19 rows, but X has 20"),
        (lambda X, y: (X, None, None), ValueError, "y is not given for block 1"),
        (lambda X, y: (X[:, :2], y, None), ValueError, "has 2 features, but earlier blocks had 3"),
        (lambda X, y: (X, y, np.arange(20)), ValueError, r"already in .*: 0, 1, 2, 3, 4 and 15 more"),
        (lambda X, y: (X, y, np.zeros(20, dtype=int)), ValueError, "repeat: 0"),
        (lambda X, y: (X, y, np.arange(19)), ValueError, "19 entries"),
        (lambda X, y: (X, y, np.linspace(0, 1, 20)), TypeError, "ids of block 1 must be a 1-D array of ints"),
        (lambda X, y: (np.where(np.eye(20, 3) > 0, np.nan, X), y, None), ValueError, "block 1 .* column 0"),
        (lambda X, y: (X, np.full(20, np.inf), None), ValueError, "y of block 1 holds NaN"),
        (lambda X, y: (X.astype(str), y, None), TypeError, "must be numeric"),
        (lambda X, y: (pd.DataFrame(X), y, None), TypeError, "DataFrame, but earlier blocks were arrays"),
    ],
)
def test_bad_blocks_are_refused_and_change_nothing(make: Any, error: type, message: str) -> None:
    X, y = blocks(1, 20)[0]
    tree = CoresetTree(CoresetLinearRegression(), coreset_size=8, chunk_size=15, random_state=0)
    tree.add(X, y)
    before = tree.coreset()
    with pytest.raises(error, match=message):
        tree.add(*make(X, y))
    assert tree.n_samples_ == 20 and tree.n_leaves_ == 1
    assert_same(tree.coreset(), before)
    tree.add(X + 1.0, y)  # the stream goes on
    assert tree.n_samples_ == 40


def test_a_target_given_late_is_refused() -> None:
    X, y = blocks(1, 20)[0]
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=8)
    tree.add(X)
    with pytest.raises(ValueError, match="y is given for block 1, but not for earlier blocks"):
        tree.add(X, y)


def test_table_columns_must_not_change() -> None:
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=8)
    tree.add(pd.DataFrame({"a": [1.0, 2.0, 3.0], "b": [1.0, 0.0, 1.0]}))
    with pytest.raises(ValueError, match=r"has the columns \['a', 'c'\]"):
        tree.add(pd.DataFrame({"a": [1.0], "c": [2.0]}))
    with pytest.raises(TypeError, match="array, but earlier blocks were DataFrames"):
        tree.add(np.ones((2, 2)))


def test_missing_values_are_filled_when_the_coreset_handles_them() -> None:
    coreset = CoresetKMeans(k=2)
    coreset.safe_mode = True
    tree = CoresetTree(coreset, coreset_size=8, random_state=0)
    X = np.arange(40.0).reshape(20, 2)
    X[3, 1] = np.nan
    tree.add(X)
    assert np.isfinite(tree.coreset().X).all()


@pytest.mark.parametrize(
    "kwargs, message",
    [
        ({"coreset_size": 0}, "coreset_size must be a positive int"),
        ({"coreset_size": 2.5}, "coreset_size must be a positive int"),
        ({"chunk_size": -1}, "chunk_size must be a positive int"),
        ({"n_jobs": 0}, "n_jobs must be a positive int"),
        ({"random_state": -3}, "random_state must be None"),
    ],
)
def test_bad_parameters_are_refused(kwargs: Any, message: str) -> None:
    with pytest.raises(ValueError, match=message):
        CoresetTree(CoresetKMeans(), **kwargs)


def test_the_coreset_must_be_a_coreset_object() -> None:
    with pytest.raises(TypeError, match="coreset object"):
        CoresetTree(KMeans(3))  # type: ignore[arg-type]
    with pytest.raises(TypeError, match="coreset object"):
        CoresetTree([])
    tree = CoresetTree(CoresetKMeans(), coreset_size=4)
    with pytest.raises(IndexError, match="index 1 out of range"):
        tree.coreset(1)


def test_the_readme_example_runs() -> None:
    import re
    from pathlib import Path

    readme = (Path(__file__).resolve().parents[2] / "README.md").read_text(encoding="utf-8")
    snippet = re.search(r"```python\n(.*?)```", readme, re.S)
    assert snippet is not None
    namespace: dict = {}
    exec(snippet.group(1).replace("range(100)", "range(3)"), namespace)  # three blocks are enough here
    assert namespace["summary"].X.shape == (1000, 5)
    assert namespace["summary"].weights.sum() == pytest.approx(30_000, rel=0.2)
    assert namespace["model"].cluster_centers_.shape == (8, 5)


def test_transform_encodes_rows_as_the_summary() -> None:
    rng = np.random.default_rng(2)
    frame = pd.DataFrame(
        {
            "size": rng.normal(size=300),
            "colour": rng.choice(["red", "green", "blue"], size=300),
            "name": [f"n{i % 50}" for i in range(300)],
        }
    )
    tree = CoresetTree(
        CoresetKMeans(k=2), coreset_size=20, chunk_size=100, random_state=0, max_text_values=10
    )
    tree.add(frame)
    c = tree.coreset()
    np.testing.assert_allclose(tree.transform(frame.iloc[c.ids]), c.X)
    assert not any(name.startswith("name") for name in tree.feature_names_)
    assert tree.feature_space_ is not None
    assert any("'name' left out" in note for note in tree.feature_space_.notes)
    with pytest.raises(ValueError, match="columns"):
        tree.transform(frame[["size"]])


def test_the_summary_has_every_column_the_stream_has() -> None:
    tree = CoresetTree(CoresetKMeans(k=2), coreset_size=10, chunk_size=40, random_state=0)
    tree.add(pd.DataFrame({"x": np.arange(40.0), "c": ["a", "b"] * 20}))  # one leaf, no buffer
    tree.add(pd.DataFrame({"x": np.arange(3.0), "c": ["z", "z", "z"]}))  # a new category, in the buffer
    assert tree.coreset().X.shape == (10, 4)  # the buffer node encoded the new category
    tree.remove([40, 41, 42])  # the buffer empties: the leaf alone is the summary
    c = tree.coreset()
    assert "c=z" in tree.feature_names_ and c.X.shape == (10, len(tree.feature_names_))
    assert (c.X[:, tree.feature_names_.index("c=z")] == 0).all()
