"""Tests of quillmarsh.core.tree.utils: chunk sizes and memory-based batch sizes."""

from __future__ import annotations

import threading
from collections import namedtuple
from typing import Any, List

import numpy as np
import pytest

from quillmarsh.core.tree import utils

FakeMemory = namedtuple("FakeMemory", "total available")


@pytest.mark.parametrize("value", [1, 1000, np.int64(5), np.int32(1), np.uint8(3)])
def test_simple_chunk_sizes(value: Any) -> None:
    assert utils.is_simple_chunk_size(value) is True


@pytest.mark.parametrize(
    "value", [None, 0, -3, True, False, np.bool_(True), 1.0, 2.5, np.float64(4), "10", [10], {"a": 1}]
)
def test_not_simple_chunk_sizes(value: Any) -> None:
    assert utils.is_simple_chunk_size(value) is False


@pytest.fixture
def memory(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(utils.psutil, "virtual_memory", lambda: FakeMemory(total=8000, available=4000))


@pytest.mark.usefixtures("memory")
def test_uses_available_or_total_with_safety_fraction() -> None:
    assert utils.MEMORY_SAFETY_FRACTION == 0.5
    assert utils.evaluate_max_batch_size(n_features=10) == 4000 * 0.5 // 40
    assert utils.evaluate_max_batch_size(n_features=10, available=False) == 8000 * 0.5 // 40


@pytest.mark.usefixtures("memory")
def test_dtype_names_and_objects() -> None:
    assert utils.evaluate_max_batch_size(n_features=5, dtype="float64") == 2000 // 40
    assert utils.evaluate_max_batch_size(n_features=5, dtype=np.float64) == 2000 // 40
    assert utils.evaluate_max_batch_size(n_features=5, dtype=np.dtype("int8")) == 2000 // 5


@pytest.mark.usefixtures("memory")
def test_features_below_one_count_as_one_and_result_is_at_least_one() -> None:
    assert utils.evaluate_max_batch_size(n_features=0) == utils.evaluate_max_batch_size(n_features=1) == 500
    assert utils.evaluate_max_batch_size(n_features=-4) == 500
    assert utils.evaluate_max_batch_size(n_features=10**9) == 1


def test_real_memory_gives_a_positive_count() -> None:
    assert utils.evaluate_max_batch_size(n_features=100) > 0


@pytest.mark.usefixtures("memory")
def test_concurrent_calls_from_threads() -> None:
    results: List[int] = []
    lock = threading.Lock()

    def call() -> None:
        for _ in range(200):
            value = utils.evaluate_max_batch_size(n_features=10, available=True, dtype="float32")
            with lock:
                results.append(value)

    threads = [threading.Thread(target=call) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert results == [50] * 1600
