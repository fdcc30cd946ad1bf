"""Tests of quillmarsh.core.coreset.sampling: exact-size sensitivity sampling without replacement."""

from __future__ import annotations

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from hypothesis.extra.numpy import arrays

from quillmarsh.core.coreset.sampling import inclusion_probabilities, sample_rows

positive = st.floats(min_value=1e-6, max_value=1e6, allow_nan=False, allow_infinity=False)


@st.composite
def sensitivities_and_size(draw: st.DrawFn) -> tuple[np.ndarray, int]:
    n = draw(st.integers(min_value=2, max_value=300))
    s = draw(arrays(np.float64, n, elements=positive))
    size = draw(st.integers(min_value=1, max_value=n - 1))
    return s, size


@settings(max_examples=200, deadline=None)
@given(sensitivities_and_size())
def test_probabilities_are_capped_proportional_and_sum_to_the_size(case: tuple[np.ndarray, int]) -> None:
    s, size = case
    p = inclusion_probabilities(s, size)
    assert p.sum() == pytest.approx(size, rel=1e-6)
    assert ((p > 0) & (p <= 1.0)).all()
    below = p < 1.0
    if below.sum() > 1:  # the rows below the cap share one scale
        ratios = p[below] / s[below]
        np.testing.assert_allclose(ratios, ratios[0], rtol=1e-9)
    if below.any() and (~below).any():  # a capped row is at least as sensitive as any uncapped one
        assert s[~below].min() >= s[below].max() * (1 - 1e-9)


@settings(max_examples=200, deadline=None)
@given(sensitivities_and_size(), st.integers(min_value=0, max_value=2**32 - 1))
def test_a_draw_holds_exactly_size_distinct_rows_weighted_by_the_inverse_probability(
    case: tuple[np.ndarray, int], seed: int
) -> None:
    s, size = case
    w = np.linspace(1.0, 3.0, s.size)
    idxs, weights = sample_rows(s, size, sample_weight=w, random_state=seed)
    assert idxs.shape == (size,) and (np.diff(idxs) > 0).all()
    assert 0 <= idxs[0] and idxs[-1] < s.size
    p = inclusion_probabilities(s, size)
    np.testing.assert_allclose(weights, w[idxs] / p[idxs])
    again, _ = sample_rows(s, size, sample_weight=w, random_state=seed)
    np.testing.assert_array_equal(idxs, again)


def test_each_row_is_drawn_as_often_as_its_probability_says() -> None:
    s = np.array([50.0, 10.0, 5.0, 1.0, 1.0, 1.0, 0.5, 0.5, 0.2, 0.1])
    p = inclusion_probabilities(s, 4)
    assert (p[:3] == 1.0).all() and p[3] < 1.0
    rng = np.random.default_rng(0)
    draws = 20000
    counts = np.zeros(s.size)
    for _ in range(draws):
        counts[sample_rows(s, 4, random_state=rng)[0]] += 1
    # Each count is binomial(draws, p_i): within five standard deviations of its mean.
    spread = np.sqrt(draws * p * (1 - p))
    assert (np.abs(counts - draws * p) <= 5 * spread + 1e-9).all()
    assert counts.sum() == 4 * draws


def test_weighted_sums_are_estimated_without_bias() -> None:
    rng = np.random.default_rng(1)
    values = rng.exponential(size=500)
    s = values + 0.1
    w = rng.uniform(1.0, 5.0, size=500)
    estimates = []
    for seed in range(3000):
        idxs, weights = sample_rows(s, 50, sample_weight=w, random_state=seed)
        estimates.append(weights @ values[idxs])
    true = w @ values
    assert abs(np.mean(estimates) - true) < 4 * np.std(estimates) / np.sqrt(len(estimates))


def test_a_size_at_least_the_rows_keeps_every_row_with_its_weight() -> None:
    idxs, weights = sample_rows([1.0, 2.0, 0.0], 3, sample_weight=[2.0, 3.0, 4.0], random_state=0)
    assert idxs.tolist() == [0, 1, 2] and weights.tolist() == [2.0, 3.0, 4.0]


def test_rows_of_zero_sensitivity_are_never_drawn() -> None:
    idxs, weights = sample_rows([0.0, 1.0, 0.0, 2.0, 0.0], 4, random_state=0)
    assert idxs.tolist() == [1, 3] and weights.tolist() == [1.0, 1.0]


@pytest.mark.parametrize("size", [0, -1, 2.5, True, None])
def test_size_must_be_a_positive_int(size: object) -> None:
    with pytest.raises(ValueError, match="size"):
        sample_rows([1.0, 2.0], size)  # type: ignore[arg-type]


def test_bad_sensitivities_and_weights_are_refused() -> None:
    with pytest.raises(ValueError, match="finite and non-negative"):
        sample_rows([1.0, -2.0, 3.0], 1)
    with pytest.raises(ValueError, match="finite and non-negative"):
        sample_rows([1.0, np.nan, 3.0], 1)
    with pytest.raises(ValueError, match="sample_weight has 2 entries"):
        sample_rows([1.0, 2.0, 3.0], 1, sample_weight=[1.0, 2.0])
