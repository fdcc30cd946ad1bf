"""Fixtures of the library tests: every test must leave the shared task pool idle with no errors kept."""

from __future__ import annotations

from typing import Iterator

import pytest

from quillmarsh.common import ThreadPoolManager


@pytest.fixture(autouse=True)
def idle_pool_after_test() -> Iterator[None]:
    """Fail the test if it leaves tasks queued or running, or errors unreported, in the shared pool."""
    yield
    ThreadPoolManager().wait_until_idle(timeout=10)


@pytest.fixture
def pool() -> ThreadPoolManager:
    """The shared pool."""
    return ThreadPoolManager()


@pytest.fixture
def single_worker_pool() -> Iterator[ThreadPoolManager]:
    """The shared pool restarted with one worker, so start order is observable; restored afterwards."""
    pool = ThreadPoolManager()
    default = pool.max_workers
    pool.shutdown(timeout=10)
    ThreadPoolManager.configure(max_workers=1)
    yield pool
    pool.shutdown(timeout=10)
    ThreadPoolManager.configure(max_workers=default)
