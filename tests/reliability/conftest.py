"""Fixtures of the reliability tests: the shared task pool must be idle, with no error kept, after each."""

from __future__ import annotations

from typing import Iterator

import pytest

from quillmarsh.common import ThreadPoolManager


@pytest.fixture(autouse=True)
def idle_pool_after_test() -> Iterator[None]:
    """Fail the test if it leaves tasks queued or running, or errors unreported, in the shared pool."""
    yield
    ThreadPoolManager().wait_until_idle(timeout=30)
