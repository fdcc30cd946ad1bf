"""Fixtures shared by the chunk layer's tests."""

from typing import Iterator

import pytest

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.tree import chunk_layer


@pytest.fixture
def real_pool() -> Iterator[ThreadPoolManager]:
    """The library's shared task pool, idle before and after the test."""
    assert chunk_layer.ThreadPoolManager is ThreadPoolManager
    shared = ThreadPoolManager()
    shared.wait_until_idle(timeout=10)
    yield shared
    shared.wait_until_idle(timeout=10)
