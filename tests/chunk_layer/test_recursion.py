"""Calls between the layer's own methods, and generator resumption, count against the interpreter's
recursion limit: a method that ends up calling itself raises RecursionError as a Python function
would, and the layer works afterwards."""

from __future__ import annotations

import sys
import threading
from typing import Any, Callable

import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer

from chunk_support import RecordingDataManager, RecordingParent, make_dataset

# About the recursion accounting of compiled code: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only


def make_layer(cls: type = ChunkLayer) -> Any:
    return cls(RecordingDataManager(), [], 4, RecordingParent())


class SizeAsPresence(ChunkLayer):
    has_buffer = ChunkLayer.get_buffer_size


class DrainThatProcesses(ChunkLayer):
    def _get_from_buffer(self, after_create_leaf_node: Any = None) -> Any:
        return self.process([make_dataset(1)], False)


def recurse_through_subclass() -> None:
    layer = make_layer(SizeAsPresence)
    with pytest.raises(RecursionError):
        layer.get_buffer_size()
    layer.set_buffer(make_dataset(3))
    assert ChunkLayer.has_buffer(layer) is True
    assert layer.buffer.ind.tolist() == [0, 1, 2]


def recurse_through_instance_attribute() -> None:
    layer = make_layer()
    layer.set_buffer(make_dataset(3))
    layer.has_buffer = layer.get_buffer
    with pytest.raises(RecursionError):
        layer.get_buffer()
    del layer.has_buffer
    assert layer.get_buffer().ind.tolist() == [0, 1, 2]


def recurse_through_generators() -> None:
    layer = make_layer(DrainThatProcesses)
    with pytest.raises(RecursionError):
        next(layer.process([make_dataset(1)]))
    plain = make_layer()
    assert [node for node in plain.process([make_dataset(2)], False)] == []
    assert plain.get_buffer_size() == 2


CASES = [recurse_through_subclass, recurse_through_instance_attribute, recurse_through_generators]


@pytest.mark.parametrize("case", CASES)
def test_recursion_raises_recursion_error(case: Callable[[], None]) -> None:
    case()


@pytest.mark.parametrize("case", CASES)
@pytest.mark.parametrize("limit", [60, 400])
def test_recursion_respects_a_changed_limit(case: Callable[[], None], limit: int) -> None:
    old = sys.getrecursionlimit()
    sys.setrecursionlimit(limit)
    try:
        case()
    finally:
        sys.setrecursionlimit(old)


@pytest.mark.parametrize("case", CASES)
@pytest.mark.parametrize("stack_size", [1024 * 1024, 4 * 1024 * 1024])
def test_recursion_on_a_thread_with_a_small_stack(case: Callable[[], None], stack_size: int) -> None:
    errors: list = []

    def run() -> None:
        try:
            case()
        except BaseException as error:  # reported to the test's thread
            errors.append(error)

    old = threading.stack_size(stack_size)
    try:
        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
    finally:
        threading.stack_size(old)
    assert errors == []
