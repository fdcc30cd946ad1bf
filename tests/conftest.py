"""Test configuration: the ``impl`` fixture, which runs a behaviour test once against the compiled chunk
layer and once against its plain-Python reference (``tests/chunk_layer/reference.py``)."""

from __future__ import annotations

from types import ModuleType

import pytest

import reference
from quillmarsh.core.tree import chunk_layer

IMPLEMENTATIONS = {"compiled": chunk_layer, "reference": reference}


@pytest.fixture(scope="session", params=list(IMPLEMENTATIONS))
def impl(request: pytest.FixtureRequest) -> ModuleType:
    """The chunk layer under test: the compiled module, then the reference."""
    return IMPLEMENTATIONS[request.param]
