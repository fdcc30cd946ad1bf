"""Tests of quillmarsh.core.coreset._base: safe mode, sensitivity sampling and the dictionary form."""

from __future__ import annotations

import numpy as np
import pytest

from quillmarsh.core.coreset import CoresetBase, CoresetKMeans, CoresetLinearRegression


class Fixed(CoresetBase):
    """A coreset whose sensitivities are given, to test the base class alone."""

    def __init__(self, values: np.ndarray, min_samples: int = 1, **kwargs: object) -> None:
        super().__init__(**kwargs)  # type: ignore[arg-type]
        self.values = np.asarray(values)
        self.min_samples = min_samples

    def _min_samples(self, X: np.ndarray, y: np.ndarray | None) -> int:
        return self.min_samples

    def _sensitivities(
        self, X: np.ndarray, y: np.ndarray | None, sample_weight: np.ndarray | None
    ) -> np.ndarray:
        return self.values[: len(X)]


def test_defaults() -> None:
    c = Fixed(np.ones(3))
    assert c.safe_mode is False and c.dtype == np.float32 and c.coreset_size is None
    assert c.random_state is None and c.sensitivities is None


def test_sensitivities_stored_and_returned_in_dtype() -> None:
    c = Fixed(np.array([1.0, 2.0, 3.0]), dtype="float64")
    s = c.compute_sensitivities(X=np.zeros((3, 2)), y=None)
    assert s is c.sensitivities and s.dtype == np.float64 and s.tolist() == [1, 2, 3]
    assert c.n_samples == 3


@pytest.mark.parametrize(
    "X, values, min_samples, message",
    [
        (np.zeros((2, 2)), np.ones(2), 5, "fewer than the 5"),
        (np.array([[1.0, np.nan], [2.0, 3.0]]), np.ones(2), 1, "NaN or infinite"),
        (np.array([[1.0, np.inf], [2.0, 3.0]]), np.ones(2), 1, "NaN or infinite"),
        (np.zeros((3, 2)), np.zeros(3), 1, "all zero"),
        (np.zeros((3, 2)), np.array([1.0, -1.0, 1.0]), 1, "negative"),
        (np.zeros((3, 2)), np.array([1.0, np.nan, 1.0]), 1, "not finite"),
    ],
)
def test_degenerate_input_raises_unless_safe(
    X: np.ndarray, values: np.ndarray, min_samples: int, message: str
) -> None:
    strict = Fixed(values, min_samples)
    with pytest.raises(ValueError, match=message):
        strict.compute_sensitivities(X=X, y=None)
    safe = Fixed(values, min_samples)
    safe.safe_mode = True
    s = safe.compute_sensitivities(X=X, y=None)
    assert s.shape == (len(X),) and (s >= 0).all() and np.isfinite(s).all()
    result = safe.to_dict()
    assert result["n_samples"] == len(X)
    assert len(result["idxs"]) == len(result["weights"]) <= len(X)


@pytest.mark.parametrize("safe", [False, True])
def test_no_rows_give_no_sensitivities_and_an_empty_sample(safe: bool) -> None:
    for coreset in (CoresetKMeans(k=2), CoresetLinearRegression()):
        coreset.safe_mode = safe
        assert coreset.compute_sensitivities(np.zeros((0, 3)), np.zeros(0)).shape == (0,)
        idxs, weights = coreset.sample(5, random_state=0)
        assert idxs.size == weights.size == 0


def test_safe_mode_falls_back_to_uniform_for_too_few_rows() -> None:
    c = Fixed(np.array([5.0, 0.0]), min_samples=3)
    c.safe_mode = True
    assert c.compute_sensitivities(X=np.zeros((2, 1))).tolist() == [1.0, 1.0]


def test_safe_mode_fills_non_finite_values_before_computing() -> None:
    c = CoresetLinearRegression()
    c.safe_mode = True
    X = np.array([[1.0, 0.0], [np.nan, 1.0], [3.0, -np.inf], [4.0, 2.0]])
    s = c.compute_sensitivities(X=X, y=np.array([1.0, 2.0, np.nan, 4.0]))
    assert s.shape == (4,) and np.isfinite(s).all()


def test_input_shape_errors_raise_even_in_safe_mode() -> None:
    c = Fixed(np.ones(3))
    c.safe_mode = True
    with pytest.raises(ValueError, match="2-D"):
        c.compute_sensitivities(X=np.zeros(3))
    with pytest.raises(ValueError, match="y has"):
        c.compute_sensitivities(X=np.zeros((3, 1)), y=np.zeros(2))


def test_sample_requires_sensitivities() -> None:
    with pytest.raises(RuntimeError, match="compute_sensitivities"):
        Fixed(np.ones(3)).sample()


@pytest.mark.parametrize("size", [0, -1, 2.5, True])
def test_coreset_size_validation(size: object) -> None:
    with pytest.raises(ValueError, match="coreset_size"):
        Fixed(np.ones(3), coreset_size=size)


def test_weights_sum_estimates_row_count() -> None:
    rng = np.random.default_rng(1)
    n = 2000
    c = Fixed(rng.uniform(0.2, 3.0, size=n), random_state=3)
    c.compute_sensitivities(X=np.zeros((n, 1)))
    totals = [c.sample(coreset_size=300, random_state=seed)[1].sum(dtype=np.float64) for seed in range(40)]
    assert abs(np.mean(totals) - n) < 0.05 * n
    idxs, weights = c.sample(coreset_size=300)
    assert len(idxs) == 300 and (np.diff(idxs) > 0).all() and (weights > 0).all()


def test_sample_weights_divide_the_rows_weights_by_their_inclusion_probability() -> None:
    n = 400
    s = np.random.default_rng(4).uniform(0.5, 2.0, size=n)
    w = np.random.default_rng(5).uniform(1.0, 4.0, size=n)
    c = Fixed(s, random_state=0)
    c.compute_sensitivities(X=np.zeros((n, 1)), sample_weight=w)
    idxs, weights = c.sample(coreset_size=40)
    p = 40 * s / s.sum()  # no row reaches probability 1 here
    np.testing.assert_allclose(weights, (w / p)[idxs], rtol=1e-5)
    d = c.to_dict(use_keep_selected_only=True)
    np.testing.assert_allclose(d["sample_weight"], w[idxs])


def test_size_at_least_row_count_keeps_every_row() -> None:
    c = Fixed(np.array([1.0, 5.0, 2.0]))
    c.compute_sensitivities(X=np.zeros((3, 1)))
    idxs, weights = c.sample(coreset_size=10)
    assert idxs.tolist() == [0, 1, 2] and weights.tolist() == [1.0, 1.0, 1.0]


def test_zero_sensitivity_rows_are_never_drawn() -> None:
    values = np.zeros(100)
    values[[3, 50]] = 1.0
    c = Fixed(values, random_state=0)
    c.compute_sensitivities(X=np.zeros((100, 1)))
    idxs, weights = c.sample(coreset_size=20)
    assert set(idxs.tolist()) <= {3, 50}
    # The weights estimate the count of rows that can be drawn: those of positive sensitivity.
    assert weights.sum() == pytest.approx(2.0)


def test_reproducible_with_random_state() -> None:
    values = np.random.default_rng(0).random(500)
    a, b = Fixed(values, random_state=7), Fixed(values, random_state=7)
    for c in (a, b):
        c.compute_sensitivities(X=np.zeros((500, 1)))
    da, db = a.to_dict(), b.to_dict()
    np.testing.assert_array_equal(da["idxs"], db["idxs"])
    np.testing.assert_array_equal(da["weights"], db["weights"])
    i1, _ = a.sample(coreset_size=50, random_state=1)
    i2, _ = a.sample(coreset_size=50, random_state=1)
    i3, _ = a.sample(coreset_size=50, random_state=2)
    np.testing.assert_array_equal(i1, i2)
    assert not np.array_equal(i1, i3)


def test_to_dict_keys_and_default_size() -> None:
    n = 1000
    c = Fixed(np.linspace(0.1, 1.0, n), random_state=0)
    c.compute_sensitivities(X=np.zeros((n, 2)))
    d = c.to_dict()
    assert set(d) == {"coreset_size", "n_samples", "dtype", "idxs", "weights", "X", "y", "sample_weight"}
    assert d["X"].shape == (len(d["idxs"]), 2) and d["y"] is None and d["sample_weight"] is None
    assert d["coreset_size"] == CoresetBase.default_coreset_size(n) == 100
    assert d["n_samples"] == n and d["dtype"] == "float32"
    assert isinstance(d["coreset_size"], int) and d["idxs"].dtype == np.int64
    assert len(d["idxs"]) == len(d["weights"])


def test_to_dict_with_important_and_full_arrays() -> None:
    values = np.array([0.1, 5.0, 0.2, 3.0, 0.3, 0.4])
    c = Fixed(values, coreset_size=3, random_state=0)
    c.compute_sensitivities(X=np.zeros((6, 1)))
    selected = c.to_dict(with_important=True)
    assert selected["important_idxs"].tolist() == [1, 3, 5]
    np.testing.assert_allclose(selected["sensitivities"], values[selected["idxs"]])
    full = c.to_dict(with_important=True, use_keep_selected_only=False)
    assert full["weights"].shape == (6,) and full["sensitivities"].shape == (6,)
    np.testing.assert_allclose(full["weights"][selected["idxs"]], selected["weights"])
    assert full["weights"].sum() == pytest.approx(selected["weights"].sum())
    assert full["X"].shape == (6, 1)


def test_to_dict_keeps_the_rows_in_their_own_precision() -> None:
    X = np.array([[0.1], [1e-9 + 1.0], [2.0]])
    y = np.array([1, 2, 3])
    c = Fixed(np.ones(3), random_state=0)  # computes in float32
    c.compute_sensitivities(X=X, y=y)
    d = c.to_dict(use_keep_selected_only=False)
    assert d["X"] is X and d["X"][1, 0] == 1e-9 + 1.0
    assert d["y"] is y


def test_new_sensitivities_forget_the_old_sample() -> None:
    c = Fixed(np.ones(50), coreset_size=5, random_state=0)
    c.compute_sensitivities(X=np.zeros((50, 1)))
    assert c.to_dict()["n_samples"] == 50
    c.compute_sensitivities(X=np.zeros((20, 1)))
    assert c.to_dict()["n_samples"] == 20


def test_dtype_must_be_float() -> None:
    with pytest.raises(ValueError, match="float"):
        Fixed(np.ones(2), dtype="int32")
