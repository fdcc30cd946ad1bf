"""Every step that calls with `*` or unpacks raises what the interpreter raises for the same Python
statement, message included."""

from __future__ import annotations

from typing import Any, Callable

import numpy as np
import pytest

from chunk_support import RecordingDataManager, RecordingParent, make_dataset
from quillmarsh.data.common import Dataset


class NotIterable:
    pass


class FailingIteration:
    def __iter__(self) -> Any:
        raise TypeError("this record cannot be walked")


ODD_RECORDS = [5, None, 2.5, NotIterable(), FailingIteration()]


def statement_error(statement: Callable[[], Any]) -> BaseException:
    """The exception a plain Python statement raises."""
    try:
        statement()
    except BaseException as error:
        return error
    raise AssertionError("the statement did not fail")


def assert_same_error(action: Callable[[], Any], statement: Callable[[], Any]) -> None:
    expected = statement_error(statement)
    with pytest.raises(type(expected)) as info:
        action()
    assert str(info.value) == str(expected)


def make_layer(impl) -> Any:
    return impl.ChunkLayer(RecordingDataManager(), [], 4, RecordingParent())


@pytest.mark.parametrize("item", ODD_RECORDS, ids=lambda item: type(item).__name__)
def test_process_makes_each_item_a_record_as_the_star_call_does(impl, item: Any) -> None:
    assert_same_error(lambda: next(make_layer(impl).process([item])), lambda: Dataset(*item))


@pytest.mark.parametrize("item", [record for record in ODD_RECORDS if record is not None],
                         ids=lambda item: type(item).__name__)
def test_set_buffer_makes_a_record_as_the_star_call_does(impl, item: Any) -> None:
    layer = make_layer(impl)
    assert_same_error(lambda: layer.set_buffer(item), lambda: Dataset(*item))
    assert layer.buffer is None


@pytest.mark.parametrize("buffer", ODD_RECORDS[2:], ids=lambda item: type(item).__name__)
def test_create_buffer_node_remakes_the_buffer_as_the_star_call_does(impl, monkeypatch, buffer: Any) -> None:
    layer = make_layer(impl)
    monkeypatch.setattr(layer, "has_buffer", lambda: True)
    layer.buffer = buffer
    assert_same_error(layer.create_buffer_node, lambda: Dataset(*buffer))


def test_the_name_in_the_message_follows_a_patched_record_class(impl, monkeypatch) -> None:
    class Record(tuple):
        def __new__(cls, *fields: Any) -> Record:
            return super().__new__(cls, fields)

    monkeypatch.setattr(impl, "Dataset", Record)
    assert_same_error(lambda: next(make_layer(impl).process([7])), lambda: Record(*7))


@pytest.mark.parametrize("result", [7, None, (1,), (1, 2, 3), "abc"], ids=repr)
def test_get_buffer_unpacks_as_the_assignment_does(impl, monkeypatch, result: Any) -> None:
    monkeypatch.setattr(impl, "exclude_removed", lambda *args: result)
    layer = impl.ChunkLayer(RecordingDataManager(removed=np.array([1])), [], 4, RecordingParent())
    layer.set_buffer(make_dataset(3))

    def assignment() -> None:
        indices, dataset = result

    assert_same_error(layer.get_buffer, assignment)
