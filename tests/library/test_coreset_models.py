"""Tests of quillmarsh.core.coreset.models: the k-means and linear-regression coresets."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression


@pytest.fixture
def blobs() -> np.ndarray:
    rng = np.random.default_rng(0)
    centres = np.array([[0.0, 0.0], [10.0, 0.0], [0.0, 10.0]])
    return np.vstack([c + rng.normal(size=(300, 2)) for c in centres])


@pytest.mark.parametrize("dtype", ["float32", "float64"])
def test_kmeans_sensitivities(blobs: np.ndarray, dtype: str) -> None:
    c = CoresetKMeans(k=3, dtype=dtype, random_state=0)
    s = c.compute_sensitivities(X=blobs, y=None)
    assert s.shape == (len(blobs),) and s.dtype == np.dtype(dtype)
    assert (s > 0).all()
    # Each cluster's 1/|cluster| terms add up to 1, and the cost shares to 1: the total is k + 1.
    assert s.sum(dtype=np.float64) == pytest.approx(4.0, rel=1e-3)


def test_kmeans_outlier_gets_high_sensitivity(blobs: np.ndarray) -> None:
    X = np.vstack([blobs, [[200.0, 200.0]]])
    s = CoresetKMeans(k=3, random_state=1).compute_sensitivities(X=X)
    assert s[-1] == s.max() and s[-1] > 20 * np.median(s)


def test_kmeans_identical_points() -> None:
    s = CoresetKMeans(k=4, random_state=0).compute_sensitivities(X=np.ones((10, 3)))
    np.testing.assert_allclose(s, 0.1)


def test_kmeans_reproducible(blobs: np.ndarray) -> None:
    a = CoresetKMeans(k=5, random_state=3).compute_sensitivities(X=blobs)
    b = CoresetKMeans(k=5, random_state=3).compute_sensitivities(X=blobs)
    np.testing.assert_array_equal(a, b)


def test_kmeans_needs_k_rows() -> None:
    c = CoresetKMeans(k=8)
    with pytest.raises(ValueError, match="fewer than the 8"):
        c.compute_sensitivities(X=np.zeros((5, 2)))
    c.safe_mode = True
    assert c.compute_sensitivities(X=np.random.default_rng(0).random((5, 2))).tolist() == [1.0] * 5


def test_kmeans_parameters() -> None:
    with pytest.raises(ValueError):
        CoresetKMeans(k=0)
    assert CoresetKMeans().k == 8


def test_kmeans_coreset_weights(blobs: np.ndarray) -> None:
    c = CoresetKMeans(k=3, random_state=0, coreset_size=200)
    c.compute_sensitivities(X=blobs)
    d = c.to_dict()
    assert d["weights"].sum() == pytest.approx(len(blobs), rel=0.2)


def _expected_regression_sensitivities(X: np.ndarray, y: np.ndarray, w: np.ndarray) -> np.ndarray:
    """The two shares computed the plain way: an SVD for the leverage, lstsq for the residuals."""
    Z = np.sqrt(w)[:, None] * np.column_stack([X, np.ones(len(X))])
    U, singular, _ = np.linalg.svd(Z, full_matrices=False)
    leverage = (U[:, singular > singular[0] * 1e-12] ** 2).sum(axis=1)
    target = np.sqrt(w) * y
    residuals = target - Z @ np.linalg.lstsq(Z, target, rcond=None)[0]
    with_y = leverage + residuals**2 / (residuals**2).sum()
    spread = np.abs(residuals) * np.sqrt(leverage)
    expected: np.ndarray = with_y / with_y.sum() + spread / spread.sum()
    return expected


@pytest.mark.parametrize("weighted", [False, True])
def test_linear_regression_sensitivities_are_leverage_and_residual_shares(weighted: bool) -> None:
    rng = np.random.default_rng(0)
    X = rng.normal(size=(500, 4)) + 3.0
    y = X @ np.array([1.0, -2.0, 0.5, 3.0]) + 7.0 + rng.standard_t(3, size=500)
    w = rng.uniform(0.5, 4.0, size=500) if weighted else np.ones(500)
    c = CoresetLinearRegression(dtype="float64")
    s = c.compute_sensitivities(X=X, y=y, sample_weight=w if weighted else None)
    assert s.shape == (500,) and (s > 0).all() and s.dtype == np.float64
    np.testing.assert_allclose(s, _expected_regression_sensitivities(X, y, w), rtol=1e-7)
    assert s.sum() == pytest.approx(2.0)


def test_linear_regression_without_target_is_leverage_with_the_intercept() -> None:
    rng = np.random.default_rng(1)
    X = rng.normal(size=(300, 3))
    s = CoresetLinearRegression(dtype="float64").compute_sensitivities(X=X)
    U = np.linalg.svd(np.column_stack([X, np.ones(300)]), full_matrices=False)[0]
    np.testing.assert_allclose(s, (U**2).sum(axis=1) / 4.0, rtol=1e-7)


def test_linear_regression_rows_far_from_the_fit_weigh_more() -> None:
    rng = np.random.default_rng(2)
    X = rng.normal(size=(1000, 2))
    y = X @ np.array([1.0, 1.0]) + 0.1 * rng.normal(size=1000)
    y[:10] += 5.0  # the same leverage as their neighbours, far larger residuals
    s = CoresetLinearRegression(dtype="float64").compute_sensitivities(X=X, y=y)
    assert s[:10].min() > 5 * np.median(s[10:])


def test_linear_regression_outlier_and_float32() -> None:
    rng = np.random.default_rng(1)
    X = rng.normal(size=(1000, 3)).astype(np.float32)
    X[17] = [40.0, -40.0, 40.0]
    y = X.sum(axis=1)  # fitted exactly: the leverage share alone is left
    s = CoresetLinearRegression().compute_sensitivities(X=X, y=y)
    assert s.dtype == np.float32
    assert s.argmax() == 17 and s[17] > 100 * np.median(s)


def test_linear_regression_rank_deficient() -> None:
    X = np.zeros((20, 3))
    X[:, 0] = np.arange(20)
    s = CoresetLinearRegression(dtype="float64").compute_sensitivities(X=X)
    U = np.linalg.svd(np.column_stack([X[:, 0], np.ones(20)]), full_matrices=False)[0]
    np.testing.assert_allclose(s, (U**2).sum(axis=1) / 2.0, rtol=1e-9)  # rank 2 with the intercept


def test_linear_regression_too_few_rows() -> None:
    c = CoresetLinearRegression()
    with pytest.raises(ValueError, match="fewer than the 4"):
        c.compute_sensitivities(X=np.ones((3, 3)), y=np.ones(3))
    c.safe_mode = True
    assert c.compute_sensitivities(X=np.ones((3, 3)), y=np.ones(3)).tolist() == [1.0] * 3


def test_linear_regression_sample_reproducible() -> None:
    X = np.random.default_rng(2).normal(size=(400, 2))
    dicts = []
    for _ in range(2):
        c = CoresetLinearRegression(random_state=5, coreset_size=50)
        c.compute_sensitivities(X=X, y=X[:, 0])
        dicts.append(c.to_dict(with_important=True))
    np.testing.assert_array_equal(dicts[0]["idxs"], dicts[1]["idxs"])
    assert {"sensitivities", "important_idxs"} <= set(dicts[0])


def _scores(models: Any, Z: np.ndarray, dtype: str) -> np.ndarray:
    basis = models._orthonormal_basis(Z, np.dtype(dtype))
    scores: np.ndarray = (basis**2).sum(axis=1)
    return scores


@pytest.mark.parametrize("dtype", ["float32", "float64"])
def test_leverage_from_the_gram_matrix_equals_the_svd_scores(dtype: str) -> None:
    from quillmarsh.core.coreset import models

    rng = np.random.default_rng(3)
    Z = (rng.normal(size=(2000, 8)) * rng.uniform(0.1, 10.0, size=8)).astype(dtype)
    U = np.linalg.svd(Z.astype(np.float64), full_matrices=False)[0]
    np.testing.assert_allclose(_scores(models, Z, dtype), (U**2).sum(axis=1), rtol=1e-6, atol=1e-9)


def test_ill_conditioned_rows_get_their_leverage_from_the_svd(monkeypatch: pytest.MonkeyPatch) -> None:
    from quillmarsh.core.coreset import models

    rng = np.random.default_rng(4)
    X = rng.normal(size=(500, 3))
    X[:, 2] = X[:, 0] + 1e-7 * rng.normal(size=500)  # nearly collinear: cond about 1e7
    calls = []
    svd = np.linalg.svd

    def recording(*args: object, **kwargs: object) -> object:
        calls.append(1)
        return svd(*args, **kwargs)  # type: ignore[call-overload]

    monkeypatch.setattr(models.np.linalg, "svd", recording)
    scores = _scores(models, X, "float64")
    assert calls and scores.sum() == pytest.approx(3.0, rel=1e-6)
    calls.clear()
    _scores(models, rng.normal(size=(500, 3)), "float64")
    assert not calls


def test_structurally_rank_deficient_rows_need_no_svd(monkeypatch: pytest.MonkeyPatch) -> None:
    from quillmarsh.core.coreset import models

    rng = np.random.default_rng(5)
    colour = rng.integers(0, 3, size=800)
    size = rng.integers(0, 4, size=800)
    Z = np.column_stack([np.eye(3)[colour], np.eye(4)[size], np.full(800, 2013.0), rng.normal(size=800)])
    expected = (np.linalg.svd(Z, full_matrices=False)[0][:, :7] ** 2).sum(axis=1)  # rank 7 of 9
    monkeypatch.setattr(models.np.linalg, "svd", None)  # never called
    np.testing.assert_allclose(_scores(models, Z, "float64"), expected, rtol=1e-7, atol=1e-10)
