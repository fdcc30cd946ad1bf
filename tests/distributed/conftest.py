"""Fixtures of the distributed tests: one local cluster of two worker processes for the whole run."""

from __future__ import annotations

import logging
from typing import Iterator

import pytest


@pytest.fixture(scope="session")
def client() -> Iterator[object]:
    """A client on a local cluster of 2 worker processes with one thread each, shared by every test.

    The helper modules of these tests are sent to the workers by value, since the workers cannot import
    them. Skips without Dask.
    """
    pytest.importorskip("distributed")
    import cloudpickle
    import stream_tables

    from quillmarsh.distributed import connect

    cloudpickle.register_pickle_by_value(stream_tables)
    # any free port for the dashboard: another suite may run its own cluster at the same time
    with connect("local", n_workers=2, silence_logs=logging.ERROR, dashboard_address=":0") as connected:
        yield connected
