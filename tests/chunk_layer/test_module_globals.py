"""Module-level names are read from the module's namespace when a call needs them: every change to the
namespace, however it is made, is seen by the next call; a name that shadows a builtin, or stops
shadowing it, is honoured at once; and a value replaced while a call uses it stays alive until the call
is done with it."""

from __future__ import annotations

import gc
import sys
import weakref
from typing import Any, Callable, Dict, List

import pytest

from chunk_support import RecordingDataManager, RecordingParent, make_dataset
from quillmarsh.core.tree import chunk_layer


def assign(impl, name: str, value: Any) -> None:
    setattr(impl, name, value)


def assign_item(impl, name: str, value: Any) -> None:
    vars(impl)[name] = value


def update(impl, name: str, value: Any) -> None:
    vars(impl).update({name: value})


def delete_then_setdefault(impl, name: str, value: Any) -> None:
    namespace = vars(impl)
    del namespace[name]
    namespace.setdefault(name, value)


def pop_then_assign(impl, name: str, value: Any) -> None:
    namespace = vars(impl)
    namespace.pop(name)
    namespace[name] = value


WRITES: Dict[str, Callable[[Any, str, Any], None]] = {
    "setattr": assign,
    "item": assign_item,
    "update": update,
    "delete then setdefault": delete_then_setdefault,
    "pop then assign": pop_then_assign,
}


@pytest.fixture
def restored(impl, monkeypatch) -> None:
    """Puts back every name the test changes (monkeypatch restores what it has set once)."""
    for name in ("BUFFER_NODE_ID", "Dataset", "exclude_removed"):
        monkeypatch.setattr(impl, name, getattr(impl, name))


@pytest.mark.parametrize("write", WRITES)
def test_every_write_to_the_namespace_is_seen_by_the_next_call(impl, write: str, restored) -> None:
    node = impl.ChunkNode(make_dataset(2), [], node_id="leaf-7")
    assert node.is_buffer() is False
    for buffer_id in ("leaf-7", "other", "leaf-7", "buffer"):
        WRITES[write](impl, "BUFFER_NODE_ID", buffer_id)
        assert node.is_buffer() is (buffer_id == "leaf-7")


def test_a_deleted_name_raises_name_error_until_it_is_back(impl, restored) -> None:
    node = impl.ChunkNode(make_dataset(2), [], node_id="buffer")
    assert node.is_buffer() is True
    del vars(impl)["BUFFER_NODE_ID"]
    for _ in range(2):
        with pytest.raises(NameError, match="^name 'BUFFER_NODE_ID' is not defined$"):
            node.is_buffer()
    impl.BUFFER_NODE_ID = "buffer"
    assert node.is_buffer() is True


def test_names_read_in_one_call_are_each_current(impl, restored) -> None:
    layer = impl.ChunkLayer(RecordingDataManager(removed=[]), [], 4, RecordingParent())
    layer.set_buffer(make_dataset(3))
    seen: List[str] = []

    def exclude(removed: Any, indices: Any, dataset: Any) -> Any:
        seen.append("first")
        impl.exclude_removed = exclude_again
        return indices, dataset

    def exclude_again(removed: Any, indices: Any, dataset: Any) -> Any:
        seen.append("second")
        return indices, dataset

    impl.exclude_removed = exclude
    layer.get_buffer()
    layer.get_buffer()
    assert seen == ["first", "second"]


def test_a_name_that_shadows_a_builtin_is_honoured_at_once(impl, monkeypatch, capsys) -> None:
    layer = impl.ChunkLayer(RecordingDataManager(n_instances=None), [], 4, RecordingParent())
    layer.build_params = {"chunk_size": 4}
    printed: List[str] = []

    layer._print_progress(0.5, 0)
    assert "Completed chunk #1" in capsys.readouterr().out

    monkeypatch.setattr(impl, "print", printed.append, raising=False)
    layer._print_progress(0.5, 1)
    assert len(printed) == 1 and "Completed chunk #2" in printed[0]

    monkeypatch.undo()
    layer._print_progress(0.5, 2)
    assert "Completed chunk #3" in capsys.readouterr().out
    assert len(printed) == 1


def test_a_value_replaced_during_the_call_that_uses_it_stays_alive(impl, restored) -> None:
    layer = impl.ChunkLayer(RecordingDataManager(), [], 4, RecordingParent())
    buffer = make_dataset(3)
    alive_during_call: List[bool] = []

    def install() -> weakref.ref[Any]:
        # The module's namespace holds the only reference to this function.
        def dataset_type(*fields: Any) -> Any:
            impl.Dataset = original
            gc.collect()
            alive_during_call.append(reference() is not None)
            return original(*fields)

        reference = weakref.ref(dataset_type)
        impl.Dataset = dataset_type
        return reference

    original = impl.Dataset
    reference = install()
    layer.set_buffer(buffer)
    assert alive_during_call == [True]
    gc.collect()
    assert reference() is None
    assert type(layer.buffer) is original
    layer.set_buffer(buffer)
    assert alive_during_call == [True]


# The compiled module makes its names itself; Python source gets them from the compiler, and class
# machinery may add keys of its own (3.11's named tuples add an "__annotations__" that is not interned).
@pytest.mark.compiled_only
@pytest.mark.parametrize("namespace", ["module", "ChunkNode", "ChunkLayer", "ChunkSensitivitiesParams"])
def test_names_are_interned_as_the_compiler_interns_them(namespace: str) -> None:
    names = vars(chunk_layer) if namespace == "module" else vars(getattr(chunk_layer, namespace))
    assert [name for name in names if name is not sys.intern(name)] == []
