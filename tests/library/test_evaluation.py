"""The evaluation's streamed maths equals the same maths on all rows at once."""

from __future__ import annotations

import itertools
from typing import Iterator, List, Tuple

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from scipy.spatial.distance import cdist
from scipy.stats import chisquare

from quillmarsh.core.distances import squared_distances
from quillmarsh.evaluation import (
    SOLVERS,
    RegressionScore,
    ReservoirSample,
    StreamingLeastSquares,
    StreamingStandardizer,
    kmeans_cost,
    reference_kmeans,
    reference_least_squares,
    reference_sgd_regressor,
    standardized,
    streamed_kmeans_cost,
    streamed_regression_score,
)


def cuts(n: int, seed: int = 0) -> List[Tuple[int, int]]:
    """Irregular batch bounds covering 0..n (batches of 1 to 60 rows)."""
    rng = np.random.default_rng(seed)
    bounds = [0]
    while bounds[-1] < n:
        bounds.append(min(n, bounds[-1] + int(rng.integers(1, 61))))
    return list(zip(bounds[:-1], bounds[1:]))


# Squared distances and k-means cost


def test_squared_distances_equal_cdist() -> None:
    rng = np.random.default_rng(1)
    X, centers = rng.normal(size=(200, 7)), rng.normal(size=(5, 7))
    got = squared_distances(X, centers)
    assert got.shape == (200, 5) and got.dtype == np.float64
    np.testing.assert_allclose(got, cdist(X, centers, "sqeuclidean"), rtol=1e-12, atol=1e-12)


def test_squared_distances_far_from_the_origin() -> None:
    # Rows near 1e8 with unit spread: the plain expansion |x|^2 - 2x.c + |c|^2 loses every digit there.
    rng = np.random.default_rng(2)
    X = 1e8 + rng.normal(size=(100, 3))
    centers = 1e8 + rng.normal(size=(4, 3))
    expected = cdist(X, centers, "sqeuclidean")
    np.testing.assert_allclose(squared_distances(X, centers), expected, rtol=1e-6, atol=1e-6)


def test_squared_distances_keep_float32_and_never_go_negative() -> None:
    rng = np.random.default_rng(3)
    X = rng.normal(size=(300, 4)).astype(np.float32)
    centers = X[:6].astype(np.float64)
    got = squared_distances(X, centers)
    assert got.dtype == np.float32
    assert (got >= 0).all()
    np.testing.assert_allclose(got, cdist(X.astype(np.float64), centers, "sqeuclidean"), rtol=1e-4, atol=1e-4)
    np.testing.assert_allclose(got[np.arange(6), np.arange(6)], 0.0, atol=1e-5)


def test_squared_distances_of_integers_are_float64() -> None:
    got = squared_distances(np.array([[0, 0], [3, 4]]), np.array([[0, 0]]))
    assert got.dtype == np.float64 and got[:, 0].tolist() == [0.0, 25.0]


def test_squared_distances_check_shapes() -> None:
    with pytest.raises(ValueError, match="2-D"):
        squared_distances(np.zeros(3), np.zeros((1, 3)))
    with pytest.raises(ValueError, match="columns"):
        squared_distances(np.zeros((2, 3)), np.zeros((1, 2)))


def test_kmeans_cost_of_a_batch_and_of_a_stream() -> None:
    rng = np.random.default_rng(4)
    X, w = rng.normal(size=(500, 3)), rng.random(500) * 3
    centers = rng.normal(size=(4, 3))
    expected = float(w @ cdist(X, centers, "sqeuclidean").min(axis=1))
    assert kmeans_cost(X, centers, w) == pytest.approx(expected, rel=1e-12)
    assert kmeans_cost(X, centers) == pytest.approx(cdist(X, centers, "sqeuclidean").min(axis=1).sum())
    stream = [(X[a:b], None, w[a:b]) for a, b in cuts(500)]
    assert streamed_kmeans_cost(stream, centers) == pytest.approx(expected, rel=1e-12)
    assert streamed_kmeans_cost([X[:250], X[250:]], centers) == pytest.approx(kmeans_cost(X, centers))


def test_kmeans_cost_checks_its_input() -> None:
    with pytest.raises(ValueError, match="missing or infinite"):
        kmeans_cost(np.array([[np.nan, 1.0]]), np.zeros((1, 2)))
    with pytest.raises(ValueError, match="features"):
        kmeans_cost(np.zeros((3, 2)), np.zeros((1, 3)))
    with pytest.raises(ValueError, match="sample_weight"):
        kmeans_cost(np.zeros((3, 2)), np.zeros((1, 2)), sample_weight=[1.0, -1.0, 1.0])


# Standardisation


def test_standardizer_equals_the_moments_of_all_rows() -> None:
    rng = np.random.default_rng(5)
    X = rng.normal(size=(1000, 3)) * [1.0, 50.0, 1e-3] + [0.0, -7.0, 3.0]
    w = rng.random(1000) * 2
    scaler = StreamingStandardizer()
    for a, b in cuts(1000):
        scaler.partial_fit(X[a:b], sample_weight=w[a:b])
    mean = np.average(X, axis=0, weights=w)
    np.testing.assert_allclose(scaler.mean_, mean, rtol=1e-12)
    np.testing.assert_allclose(scaler.var_, np.average((X - mean) ** 2, axis=0, weights=w), rtol=1e-10)
    assert scaler.n_samples_seen_ == 1000 and scaler.sum_weights_ == pytest.approx(w.sum())
    Z = scaler.transform(X)
    np.testing.assert_allclose(np.average(Z, axis=0, weights=w), 0.0, atol=1e-10)
    np.testing.assert_allclose(np.average(Z**2, axis=0, weights=w), 1.0, rtol=1e-10)


def test_standardizer_keeps_precision_of_timestamps() -> None:
    # Seconds since 1970 with a spread of a few seconds: a running sum of squares would lose it all.
    rng = np.random.default_rng(6)
    spread = rng.normal(size=(20_000, 1)) * 3.0
    X = 1.7e9 + spread
    scaler = StreamingStandardizer()
    for start in range(0, len(X), 997):
        scaler.partial_fit(X[start: start + 997])
    assert scaler.var_[0] == pytest.approx(np.var(X - 1.7e9), rel=1e-6)


def test_standardizer_drops_and_reports_constant_columns() -> None:
    rng = np.random.default_rng(7)
    X = np.column_stack([rng.normal(size=300), np.full(300, 0.1), rng.normal(size=300), np.full(300, 2010.0)])
    scaler = StreamingStandardizer()
    for a, b in cuts(300, seed=3):
        scaler.partial_fit(X[a:b])
    assert scaler.constant_columns_.tolist() == [1, 3]
    assert scaler.kept_columns_.tolist() == [0, 2]
    assert scaler.var_[1] == 0.0 and scaler.var_[3] == 0.0 and scaler.mean_[3] == 2010.0
    Z = scaler.transform(X)
    assert Z.shape == (300, 2)
    np.testing.assert_allclose(Z.std(axis=0), 1.0, rtol=1e-10)
    kept = StreamingStandardizer(drop_constant=False).partial_fit(X)
    assert kept.transform(X).shape == (300, 4) and np.all(kept.transform(X)[:, [1, 3]] == 0)


def test_standardizer_keeps_float32() -> None:
    X = np.random.default_rng(8).normal(size=(50, 2)).astype(np.float32)
    assert StreamingStandardizer().partial_fit(X).transform(X).dtype == np.float32


def test_standardizer_errors() -> None:
    scaler = StreamingStandardizer()
    with pytest.raises(ValueError, match="partial_fit first"):
        scaler.transform(np.zeros((1, 2)))
    scaler.partial_fit(np.ones((3, 2)))
    with pytest.raises(ValueError, match="2 expected|expected 2"):
        scaler.partial_fit(np.ones((3, 3)))
    with pytest.raises(ValueError, match="missing or infinite"):
        scaler.partial_fit(np.array([[1.0, np.inf]]))
    with pytest.raises(ValueError, match="numbers"):
        scaler.partial_fit(np.array([["a", "b"]], dtype=object))


# Least squares


def fit_streamed(X: np.ndarray, y: np.ndarray, w: np.ndarray | None = None, seed: int = 0,
                 **params: object) -> StreamingLeastSquares:
    model = StreamingLeastSquares(**params)  # type: ignore[arg-type]
    for a, b in cuts(len(X), seed):
        model.partial_fit(X[a:b], y[a:b], None if w is None else w[a:b])
    return model


def lstsq(A: np.ndarray, y: np.ndarray) -> np.ndarray:
    solution: np.ndarray = np.linalg.lstsq(A, y, rcond=None)[0]
    return solution


def with_ones(X: np.ndarray) -> np.ndarray:
    return np.column_stack([X, np.ones(len(X))])


@pytest.mark.parametrize("solver", SOLVERS)
def test_least_squares_equals_lstsq(solver: str) -> None:
    rng = np.random.default_rng(10)
    X = rng.normal(size=(800, 5)) * [1, 10, 0.1, 3, 1] + [0, 5, -2, 100, 0]
    y = X @ [1.0, -0.5, 4.0, 0.2, 0.0] + 3.0 + rng.normal(size=800)
    model = fit_streamed(X, y, solver=solver)
    expected = lstsq(with_ones(X), y)
    np.testing.assert_allclose(model.coef_, expected[:-1], rtol=1e-9, atol=1e-12)
    assert model.intercept_ == pytest.approx(expected[-1], rel=1e-9)
    assert model.rank_ == 5 and model.n_samples_seen_ == 800 and model.n_features_in_ == 5
    residual = y - with_ones(X) @ expected
    assert model.loss(X, y) == pytest.approx(float(residual @ residual), rel=1e-10)


@pytest.mark.parametrize("solver", SOLVERS)
def test_weighted_least_squares_equals_lstsq_on_scaled_rows(solver: str) -> None:
    rng = np.random.default_rng(11)
    X = rng.normal(size=(600, 3))
    y = X @ [2.0, 0.0, -1.0] + rng.normal(size=600)
    w = rng.random(600) * 5
    w[::7] = 0.0
    root = np.sqrt(w)
    expected = lstsq(with_ones(X) * root[:, None], y * root)
    model = fit_streamed(X, y, w, solver=solver)
    np.testing.assert_allclose(np.append(model.coef_, model.intercept_), expected, rtol=1e-9, atol=1e-12)
    assert model.loss(X, y, w) == pytest.approx(float(w @ (y - with_ones(X) @ expected) ** 2), rel=1e-10)


def test_least_squares_without_intercept() -> None:
    rng = np.random.default_rng(12)
    X = rng.normal(size=(400, 3)) + [5.0, 0.0, -1.0]
    y = X @ [1.0, 2.0, 3.0] + 4.0 + rng.normal(size=400)
    model = fit_streamed(X, y, fit_intercept=False)
    np.testing.assert_allclose(model.coef_, lstsq(X, y), rtol=1e-9)
    assert model.intercept_ == 0.0


@pytest.mark.parametrize("solver", SOLVERS)
def test_constant_column_gets_coefficient_zero(solver: str) -> None:
    rng = np.random.default_rng(13)
    X = np.column_stack([rng.normal(size=500), np.full(500, 2010.0), rng.normal(size=500) * 1e3])
    y = 2.0 * X[:, 0] - 1e-3 * X[:, 2] + 7.0 + rng.normal(size=500)
    model = fit_streamed(X, y, solver=solver)
    assert model.constant_columns_.tolist() == [1]
    assert model.coef_[1] == 0.0
    expected = lstsq(with_ones(X[:, [0, 2]]), y)
    np.testing.assert_allclose(model.coef_[[0, 2]], expected[:2], rtol=1e-9)
    assert model.intercept_ == pytest.approx(expected[2], rel=1e-9)
    assert model.rank_ == 2


@pytest.mark.parametrize("solver", SOLVERS)
def test_rank_deficient_design_gets_the_minimum_norm_solution_on_standardised_columns(solver: str) -> None:
    rng = np.random.default_rng(14)
    n = 700
    base = rng.normal(size=(n, 2)) * [1.0, 4.0]
    group = rng.integers(0, 3, size=n)
    one_hot = np.eye(3)[group]  # sums to the intercept
    X = np.column_stack([base, base[:, 0] + base[:, 1], one_hot])  # column 2 repeats 0 + 1
    y = base @ [1.5, -0.25] + one_hot @ [0.0, 1.0, -2.0] + rng.normal(size=n)
    model = fit_streamed(X, y, solver=solver)
    assert model.rank_ == 4  # 6 columns, of which two repeat the others or the intercept

    # Same fit as numpy's on the whole matrix: the fitted values and the loss are unique.
    expected = lstsq(with_ones(X), y)
    np.testing.assert_allclose(model.predict(X), with_ones(X) @ expected, rtol=1e-9, atol=1e-9)
    residual = y - with_ones(X) @ expected
    assert model.loss(X, y) == pytest.approx(float(residual @ residual), rel=1e-10)

    # The coefficients: the minimum-norm ones on standardised, centred columns.
    mean, std = X.mean(axis=0), X.std(axis=0)
    scaled = lstsq((X - mean) / std, y - y.mean())
    np.testing.assert_allclose(model.coef_, scaled / std, rtol=1e-8, atol=1e-10)
    assert model.intercept_ == pytest.approx(y.mean() - (scaled / std) @ mean, rel=1e-9)
    assert np.abs(model.coef_).max() < 10


def test_timestamps_far_from_zero_give_the_centred_solution() -> None:
    rng = np.random.default_rng(15)
    seconds = 1.7e9 + rng.uniform(0, 3e7, size=1000)
    X = np.column_stack([seconds, rng.normal(size=1000)])
    y = 1e-6 * (seconds - 1.7e9) + X[:, 1] + rng.normal(size=1000)
    model = fit_streamed(X, y)
    mean = X.mean(axis=0)
    expected = lstsq(with_ones(X - mean), y)
    np.testing.assert_allclose(model.coef_, expected[:2], rtol=1e-7)
    assert model.intercept_ == pytest.approx(expected[2] - expected[:2] @ mean, rel=1e-7)


@pytest.mark.parametrize("solver", SOLVERS)
def test_first_batches_smaller_than_the_width(solver: str) -> None:
    rng = np.random.default_rng(16)
    X = rng.normal(size=(40, 6))
    y = X @ np.arange(6.0) + 1.0 + rng.normal(size=40) * 0.1
    model = StreamingLeastSquares(solver=solver)
    for start in range(0, 40, 3):  # every batch narrower than the 8 columns of [1, X, y]
        model.partial_fit(X[start: start + 3], y[start: start + 3])
    expected = lstsq(with_ones(X), y)
    np.testing.assert_allclose(np.append(model.coef_, model.intercept_), expected, rtol=1e-9)


def test_one_large_batch_equals_many_small_ones() -> None:
    rng = np.random.default_rng(19)
    X = rng.normal(size=(10_000, 3))
    y = X @ [1.0, -1.0, 0.5] + rng.normal(size=10_000)
    whole = StreamingLeastSquares().partial_fit(X, y)
    np.testing.assert_allclose(whole.coef_, fit_streamed(X, y).coef_, rtol=1e-10)
    np.testing.assert_allclose(whole.coef_, lstsq(with_ones(X), y)[:3], rtol=1e-10)


@settings(max_examples=40, deadline=None)
@given(seed=st.integers(0, 2**32 - 1), n=st.integers(1, 120), d=st.integers(1, 6),
       splits=st.lists(st.integers(0, 120), max_size=8), solver=st.sampled_from(SOLVERS))
def test_streamed_fits_do_not_depend_on_the_batches(seed: int, n: int, d: int, splits: List[int],
                                                    solver: str) -> None:
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(n, d)) * rng.uniform(0.1, 10, size=d) + rng.normal(size=d) * 100
    y = X @ rng.normal(size=d) + rng.normal(size=n)
    w = rng.random(n) + 0.1
    bounds = sorted({0, n, *(s for s in splits if s < n)})
    model, scaler = StreamingLeastSquares(solver=solver), StreamingStandardizer()
    for a, b in zip(bounds[:-1], bounds[1:]):
        model.partial_fit(X[a:b], y[a:b], w[a:b])
        scaler.partial_fit(X[a:b], w[a:b])
    whole = StreamingLeastSquares(solver=solver).partial_fit(X, y, w)
    np.testing.assert_allclose(model.predict(X), whole.predict(X), rtol=1e-7, atol=1e-7 * np.abs(y).max())
    assert model.rank_ == whole.rank_
    mean = np.average(X, axis=0, weights=w)
    np.testing.assert_allclose(scaler.mean_, mean, rtol=1e-9, atol=1e-9)
    np.testing.assert_allclose(scaler.var_, np.average((X - mean) ** 2, axis=0, weights=w), rtol=1e-7,
                               atol=1e-9)


def test_both_solvers_give_the_same_fit_on_standardised_one_hot_columns() -> None:
    rng = np.random.default_rng(17)
    n = 6000
    numbers = rng.normal(size=(n, 4)) * [1.0, 30.0, 0.01, 5.0]
    groups = [rng.integers(0, k, n) for k in (3, 12)]
    one_hot = [np.eye(k)[g] for k, g in zip((3, 12), groups)]
    X = np.column_stack([numbers, *one_hot, np.full(n, 7.0)])  # each one-hot block adds up to 1
    y = numbers @ [1.0, 0.1, 50.0, -0.2] + one_hot[1] @ rng.normal(size=12) + rng.normal(size=n)
    scaler = StreamingStandardizer(drop_constant=False).partial_fit(X)
    Z = scaler.transform(X)
    qr, gram = (fit_streamed(Z, y, solver=solver) for solver in SOLVERS)
    assert qr.rank_ == gram.rank_ == 4 + 2 + 11  # a column per block repeats the others
    np.testing.assert_allclose(gram.predict(Z), qr.predict(Z), rtol=1e-10, atol=1e-10)
    np.testing.assert_allclose(gram.coef_, qr.coef_, rtol=1e-7, atol=1e-10)
    assert gram.loss(Z, y) == pytest.approx(qr.loss(Z, y), rel=1e-12)
    with pytest.raises(ValueError, match="solver must be one of"):
        StreamingLeastSquares(solver="normal equations")


def test_least_squares_errors() -> None:
    model = StreamingLeastSquares()
    with pytest.raises(ValueError, match="partial_fit first"):
        model.predict(np.zeros((1, 2)))
    with pytest.raises(ValueError, match="one value per row"):
        model.partial_fit(np.zeros((3, 2)), np.zeros(2))
    with pytest.raises(ValueError, match="missing or infinite"):
        model.partial_fit(np.zeros((1, 2)), [np.nan])
    model.partial_fit(np.eye(3), np.ones(3))
    with pytest.raises(ValueError, match="expected 3"):
        model.partial_fit(np.zeros((1, 2)), [1.0])
    with pytest.raises(ValueError, match="rcond"):
        StreamingLeastSquares(rcond=-1.0)


def test_regression_score_streams_loss_and_r2() -> None:
    rng = np.random.default_rng(17)
    y = 1e6 + rng.normal(size=900) * 10
    prediction = y + rng.normal(size=900) * 3
    w = rng.random(900)
    score = RegressionScore()
    for a, b in cuts(900, seed=5):
        score.update(y[a:b], prediction[a:b], w[a:b])
    loss = float(w @ (y - prediction) ** 2)
    spread = float(w @ (y - np.average(y, weights=w)) ** 2)
    assert score.loss_ == pytest.approx(loss, rel=1e-10)
    assert score.total_sum_of_squares_ == pytest.approx(spread, rel=1e-8)
    assert score.r2_ == pytest.approx(1 - loss / spread, rel=1e-8)
    assert score.mean_loss_ == pytest.approx(loss / w.sum())
    assert np.isnan(RegressionScore().update([2.0, 2.0], [1.0, 3.0]).r2_)


def test_streamed_score_of_the_streamed_fit() -> None:
    rng = np.random.default_rng(18)
    X = rng.normal(size=(500, 2))
    y = X @ [1.0, 1.0] + rng.normal(size=500)
    model = fit_streamed(X, y)
    score = streamed_regression_score(model, [(X[:200], y[:200]), (X[200:], y[200:])])
    assert score.r2_ == pytest.approx(model.score(X, y), rel=1e-10)
    assert score.loss_ == pytest.approx(model.loss(X, y), rel=1e-10)


# Reservoir sampling


def feed(sample: ReservoirSample, n: int, seed: int = 0) -> None:
    for a, b in cuts(n, seed):
        sample.partial_fit(np.arange(a, b)[:, None] * [1, -1], y=np.arange(a, b) * 0.5)


def test_reservoir_positions_are_uniform() -> None:
    n, m, trials = 60, 6, 3000
    rng = np.random.default_rng(20240601)
    counts = np.zeros(n)
    for trial in range(trials):
        sample = ReservoirSample(m, random_state=rng)
        feed(sample, n, seed=trial % 7)
        counts[sample.ids] += 1
    assert counts.sum() == trials * m
    assert chisquare(counts).pvalue > 1e-3


def test_reservoir_subsets_are_equally_likely() -> None:
    # Two slots drawn in the same batch: the later row must win, or some pairs become likelier.
    n, m, trials = 6, 2, 6000
    rng = np.random.default_rng(77)
    pairs = {pair: 0 for pair in itertools.combinations(range(n), m)}
    for _ in range(trials):
        sample = ReservoirSample(m, random_state=rng)
        sample.partial_fit(np.arange(n)[:, None])
        pairs[tuple(sorted(int(i) for i in sample.ids))] += 1  # type: ignore[index]
    assert chisquare(list(pairs.values())).pvalue > 1e-3


@settings(max_examples=60, deadline=None)
@given(size=st.integers(1, 40), n=st.integers(0, 300), seed=st.integers(0, 2**32 - 1),
       cut_seed=st.integers(0, 100))
def test_reservoir_properties(size: int, n: int, seed: int, cut_seed: int) -> None:
    sample = ReservoirSample(size, random_state=seed)
    if n:
        feed(sample, n, cut_seed)
    assert sample.n_samples_seen_ == n and sample.count == min(size, n)
    if n == 0:
        return
    ids = sample.ids
    assert len(ids) == min(size, n) and len(set(ids.tolist())) == len(ids)
    assert ids.min() >= 0 and ids.max() < n
    # every sampled row is the row at its id
    np.testing.assert_array_equal(sample.X, ids[:, None] * [1, -1])
    y = sample.y
    assert y is not None
    np.testing.assert_array_equal(y, ids * 0.5)
    assert sample.weights.sum() == pytest.approx(n)
    if n <= size:
        assert sorted(ids.tolist()) == list(range(n))
    again = ReservoirSample(size, random_state=seed)
    feed(again, n, cut_seed)
    np.testing.assert_array_equal(again.ids, ids)


def test_reservoir_keeps_given_ids_and_any_row_type() -> None:
    sample = ReservoirSample(3, random_state=0)
    rows = np.array([["a", 1], ["b", 2], ["c", 3], ["d", 4], ["e", 5]], dtype=object)
    sample.partial_fit(rows[:2], ids=[100, 101])
    sample.partial_fit(rows[2:], ids=[102, 103, 104])
    assert sample.y is None
    for row, identifier in zip(sample.X, sample.ids):
        assert row[1] == identifier - 99
    np.testing.assert_allclose(sample.weights, 5 / 3)


def test_reservoir_errors() -> None:
    with pytest.raises(ValueError, match="size"):
        ReservoirSample(0)
    sample = ReservoirSample(2)
    with pytest.raises(ValueError, match="partial_fit first"):
        _ = sample.ids
    sample.partial_fit(np.zeros((3, 2)), y=np.zeros(3))
    with pytest.raises(ValueError, match="every batch or with none"):
        sample.partial_fit(np.zeros((3, 2)))
    with pytest.raises(ValueError, match="ids"):
        sample.partial_fit(np.zeros((3, 2)), y=np.zeros(3), ids=[1, 2])


# Reference runners


def blobs(n: int = 3000, seed: int = 30) -> Tuple[np.ndarray, np.ndarray]:
    rng = np.random.default_rng(seed)
    truth = np.array([[0.0, 0.0, 0.0], [8.0, 0.0, 1.0], [0.0, 9.0, -3.0], [-7.0, -7.0, 5.0]])
    X = truth[rng.integers(0, len(truth), size=n)] + rng.normal(size=(n, 3))
    return X, truth


def test_reference_least_squares_runner() -> None:
    rng = np.random.default_rng(31)
    X = rng.normal(size=(1000, 4))
    y = X @ [1.0, 2.0, 3.0, 4.0] + rng.normal(size=1000)

    def stream() -> Iterator[Tuple[np.ndarray, np.ndarray]]:
        for start in range(0, 1000, 128):
            yield X[start: start + 128], y[start: start + 128]

    result = reference_least_squares(stream, measure_memory=True)
    expected = lstsq(with_ones(X), y)
    np.testing.assert_allclose(np.append(result.model.coef_, result.model.intercept_), expected, rtol=1e-9)
    assert result.passes == 1 and result.seconds >= 0
    assert result.peak_memory_bytes is not None and result.peak_memory_bytes > 0
    with pytest.raises(ValueError, match=r"\(X, y\)"):
        reference_least_squares([X])


def test_reference_kmeans_finds_the_clusters() -> None:
    X, truth = blobs()
    scaler = StreamingStandardizer()
    for start in range(0, len(X), 500):
        scaler.partial_fit(X[start: start + 500])
    batches = [X[start: start + 500] for start in range(0, len(X), 500)]
    stream = standardized(batches, scaler)
    result = reference_kmeans(stream, 4, n_init=3, random_state=0)
    assert result.passes == 2 and len(result.details["costs"]) == 3
    assert result.cost == min(result.details["costs"])
    assert result.cost == pytest.approx(streamed_kmeans_cost(stream, result.model.cluster_centers_))
    Z = scaler.transform(X)
    ideal = kmeans_cost(Z, scaler.transform(truth))
    assert result.cost <= 1.05 * ideal


def test_reference_kmeans_is_the_same_for_the_same_seed() -> None:
    X, _ = blobs(600)
    batches = [X[start: start + 100] for start in range(0, len(X), 100)]
    first, again = (reference_kmeans(batches, 3, n_init=2, batch_size=64, random_state=5) for _ in range(2))
    np.testing.assert_array_equal(first.model.cluster_centers_, again.model.cluster_centers_)
    assert first.details["costs"] == again.details["costs"]


@pytest.mark.parametrize("batch_rows", [250, 30, 1010])
def test_reference_kmeans_is_scikit_learn_s_partial_fit_without_the_minibatch_labels(batch_rows: int) -> None:
    from sklearn.cluster import MiniBatchKMeans

    X, _ = blobs(1010)  # minibatches of 100 rows, and a rest of 10 at the end of each pass
    batches = [X[start: start + batch_rows] for start in range(0, len(X), batch_rows)]
    result = reference_kmeans(batches, 4, n_init=2, batch_size=100, n_passes=2, random_state=7)
    seed = result.details["seeds"][int(np.argmin(result.details["costs"]))]
    plain = MiniBatchKMeans(n_clusters=4, batch_size=100, n_init=1, random_state=np.random.RandomState(seed))
    for _ in range(2):
        for start in range(0, len(X), 100):
            plain.partial_fit(X[start: start + 100])
    np.testing.assert_array_equal(result.model.cluster_centers_, plain.cluster_centers_)
    assert hasattr(plain, "labels_") and not hasattr(result.model, "labels_")


def test_one_start_of_reference_kmeans_can_leave_its_scoring_to_the_caller() -> None:
    X, _ = blobs(900)
    read: List[int] = []

    def stream() -> Iterator[np.ndarray]:
        read.append(1)
        return iter([X[:450], X[450:]])

    scored = reference_kmeans(stream, 3, n_init=1, n_passes=2, random_state=4)
    assert (len(read), scored.passes) == (3, 3)
    read.clear()
    unscored = reference_kmeans(stream, 3, n_init=1, n_passes=2, random_state=4, cost_pass=False)
    assert (len(read), unscored.passes, unscored.cost) == (2, 2, None)
    np.testing.assert_array_equal(unscored.model.cluster_centers_, scored.model.cluster_centers_)
    assert streamed_kmeans_cost(stream, unscored.model.cluster_centers_) == pytest.approx(scored.cost)
    with pytest.raises(ValueError, match="several starts"):
        reference_kmeans(stream, 3, n_init=2, cost_pass=False)


def test_reference_kmeans_needs_a_fresh_stream_per_pass() -> None:
    X, _ = blobs(300)
    with pytest.raises(ValueError, match="callable"):
        reference_kmeans(iter([X[:150], X[150:]]), 2, random_state=0)
    with pytest.raises(ValueError, match="fewer rows than n_clusters"):
        reference_kmeans([X[:2]], 3, n_init=1)
    result = reference_kmeans(lambda: iter([X[:150], X[150:]]), 2, n_init=1, n_passes=2, random_state=0)
    assert result.passes == 3 and result.model.cluster_centers_.shape == (2, 3)


def test_reference_sgd_regressor_on_standardised_features() -> None:
    rng = np.random.default_rng(32)
    X = rng.normal(size=(4000, 3)) * [1.0, 100.0, 0.01] + [0.0, 1e3, 0.0]
    y = X @ [1.0, 0.02, 100.0] + rng.normal(size=4000) * 0.1
    batches = [(X[s: s + 400], y[s: s + 400]) for s in range(0, 4000, 400)]
    scaler = StreamingStandardizer()
    for features, _ in batches:
        scaler.partial_fit(features)
    stream = standardized(batches, scaler)
    result = reference_sgd_regressor(stream, n_passes=3, random_state=0)
    assert result.passes == 3
    score = streamed_regression_score(result.model, stream)
    exact = reference_least_squares(stream).model
    assert score.r2_ > 0.95 * streamed_regression_score(exact, stream).r2_


# Judging weighted samples against the full data


def judged_stream(seed: int = 3) -> list:
    rng = np.random.default_rng(seed)
    batches = []
    for _ in range(4):
        X = rng.normal(size=(500, 3)) + 5.0 * rng.integers(0, 2, size=(500, 1))
        batches.append((X, X @ [1.0, -1.0, 0.5] + rng.normal(scale=0.3, size=500)))
    return batches


def test_judge_regression_ranks_the_exact_fit_first_and_a_bad_sample_last() -> None:
    from quillmarsh.evaluation import judge_regression

    batches = judged_stream()
    X = np.vstack([b[0] for b in batches])
    y = np.concatenate([b[1] for b in batches])
    good = (X[::10], y[::10], np.full(200, 10.0))
    biased = X[:, 0] > 1.5  # a sample of one region only, with a shifted target
    bad = (X[biased][:50], y[biased][:50] + 3.0, np.full(50, 40.0))
    rows = judge_regression(batches, batches[:1], {"good": good, "bad": bad}, random_state=0)
    assert [row.method.split(":")[0] for row in rows] == ["full data", "good", "bad", "streaming"]
    full, on_good, on_bad, _ = rows
    assert full.cost_ratio == 1.0 and full.rows == 2000
    assert full.cost == pytest.approx(float(((y - np.c_[X, np.ones(2000)] @ np.linalg.lstsq(
        np.c_[X, np.ones(2000)], y, rcond=None)[0]) ** 2).sum()), rel=1e-9)
    assert 1.0 <= on_good.cost_ratio < 1.1 < 2.0 < on_bad.cost_ratio
    assert all(row.r2_held_out is not None for row in rows)


def test_judge_kmeans_compares_samples_with_a_reference_solved_from_the_stream() -> None:
    from quillmarsh.evaluation import judge_kmeans

    batches = [b[0] for b in judged_stream()]
    X = np.vstack(batches)
    one_side = X[X[:, 0] < 2.5]
    rows = judge_kmeans(batches, {"spread": (X[::10], None, np.full(200, 10.0)),
                                  "one side": (one_side[:100], None, np.full(100, 20.0))},
                        n_clusters=2, random_state=0)
    assert [row.method.split(",")[0].split(":")[0] for row in rows] == [
        "full data", "spread", "one side", "streaming"]
    assert rows[0].cost == pytest.approx(kmeans_cost(X, rows and _centres_of_best(batches)), rel=0.2)
    assert rows[1].cost_ratio < 1.1 < 1.5 < rows[2].cost_ratio


def test_the_judges_refuse_a_stream_that_can_be_read_once_only() -> None:
    from quillmarsh.evaluation import judge_kmeans, judge_regression

    batches = judged_stream()
    sample = {"sample": (batches[0][0], batches[0][1], np.ones(len(batches[0][0])))}
    with pytest.raises(ValueError, match="passes over the batches"):
        judge_regression(iter(batches), None, sample)
    with pytest.raises(ValueError, match="passes over the batches"):
        judge_kmeans((b[0] for b in batches), sample, n_clusters=2)


def _centres_of_best(batches: list) -> np.ndarray:
    from sklearn.cluster import KMeans

    return KMeans(n_clusters=2, n_init=5, random_state=0).fit(np.vstack(batches)).cluster_centers_


def test_streamed_references_trace_memory_over_the_first_batches_of_their_first_pass_only() -> None:
    import tracemalloc

    from quillmarsh.evaluation import TRACED_BATCHES

    X, _ = blobs(n=4000)
    y = X.sum(axis=1)
    batches = 4000 // 250
    assert batches > TRACED_BATCHES + 1
    for fit in (
        lambda stream: reference_kmeans(stream, 4, n_init=2, n_passes=2, batch_size=100, random_state=0,
                                        measure_memory=True),
        lambda stream: reference_sgd_regressor(stream, n_passes=3, random_state=0, measure_memory=True),
        lambda stream: reference_least_squares(stream, measure_memory=True),
    ):
        tracing: List[bool] = []

        def stream(tracing: List[bool] = tracing) -> Iterator[Tuple[np.ndarray, np.ndarray]]:
            for start in range(0, len(X), 250):
                tracing.append(tracemalloc.is_tracing())  # as each batch is handed out
                yield X[start: start + 250], y[start: start + 250]

        result = fit(stream)
        assert tracing[:TRACED_BATCHES] == [True] * TRACED_BATCHES and not any(tracing[TRACED_BATCHES:])
        assert len(tracing) >= batches
        assert result.peak_memory_bytes is not None and result.peak_memory_bytes > X[:250].nbytes
        assert not tracemalloc.is_tracing()
    short = reference_sgd_regressor([(X[:250], y[:250])], n_passes=2, random_state=0, measure_memory=True)
    assert short.peak_memory_bytes is not None  # a pass of fewer batches settles at its end


def test_in_memory_fits_run_scikit_learn_s_openmp_loops_on_the_threads_asked() -> None:
    from sklearn.cluster import KMeans  # loads scikit-learn's OpenMP runtime
    from threadpoolctl import threadpool_info

    from quillmarsh.evaluation import fit_in_memory

    class Recording(KMeans):  # type: ignore[misc]
        seen: List[int] = []

        def fit(self, X: np.ndarray, y: object = None, sample_weight: object = None) -> Recording:
            pools = threadpool_info()
            Recording.seen += [pool["num_threads"] for pool in pools if pool["user_api"] == "openmp"]
            return self

    X, _ = blobs(n=200)
    fit_in_memory(Recording(n_clusters=2), X)
    if not Recording.seen:
        pytest.skip("scikit-learn runs without OpenMP here")
    assert set(Recording.seen) == {1}


def test_streamed_references_refuse_a_batch_with_missing_values_themselves() -> None:
    X, _ = blobs(n=600)
    y = X.sum(axis=1)
    bad = X.copy()
    bad[450, 1] = np.nan  # in the last batch, after scikit-learn has seen clean minibatches
    batches = [(bad[start: start + 200], y[start: start + 200]) for start in range(0, 600, 200)]
    with pytest.raises(ValueError, match="missing or infinite"):
        reference_kmeans(batches, 3, n_init=1, batch_size=64, random_state=0)
    with pytest.raises(ValueError, match="missing or infinite"):
        reference_sgd_regressor(batches, random_state=0)
