"""What the layer reads of itself is always what Python would read at that moment: no earlier value,
and never a freed one, whatever changed the instance or its class in between."""

from __future__ import annotations

from typing import Any, List

import pytest

from chunk_support import InertNode, RecordingDataManager, RecordingParent, make_dataset, rows_of


def make_layer(impl, cls: Any = None, chunk_size: int = 4) -> Any:
    return (cls or impl.ChunkLayer)(RecordingDataManager(), [], chunk_size, RecordingParent())


@pytest.fixture(autouse=True)
def cheap_nodes(impl, monkeypatch) -> None:
    monkeypatch.setattr(impl, "ChunkNode", InertNode)


@pytest.mark.parametrize("write", ["setattr", "vars", "replaced dict", "dict update"])
def test_every_way_of_writing_an_attribute_is_seen_by_the_next_read(impl, write: str) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3))
    assert layer.get_buffer_size() == 3
    for rows in (5, 2, 7):
        new = impl.Dataset(*make_dataset(rows))
        if write == "setattr":
            layer.buffer = new
        elif write == "vars":
            vars(layer)["buffer"] = new
        elif write == "replaced dict":
            layer.__dict__ = dict(layer.__dict__, buffer=new)
        else:
            layer.__dict__.update(buffer=new)
        assert layer.get_buffer_size() == rows
        assert layer.has_buffer()


def test_class_assignment_is_seen_by_the_next_call(impl) -> None:
    class Empty(impl.ChunkLayer):
        def has_buffer(self) -> bool:
            return False

    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3))
    assert layer.get_buffer_size() == 3
    layer.__class__ = Empty
    assert layer.get_buffer_size() == 0
    layer.__class__ = impl.ChunkLayer
    assert layer.get_buffer_size() == 3


def test_a_finalizer_that_writes_during_a_write_is_seen(impl) -> None:
    layer = make_layer(impl)

    class Rewriter:
        def __del__(self) -> None:
            layer.buffer = impl.Dataset(*make_dataset(9))

    layer.buffer = Rewriter()
    layer.set_buffer(make_dataset(2))  # dropping the Rewriter replaces the new buffer again
    assert layer.get_buffer_size() == 9


def test_many_layers_made_and_freed_never_see_each_others_values(impl) -> None:
    # Freed at once by reference counting, so the next layer and its dict often take the old addresses.
    for rows in range(1, 300):
        layer = make_layer(impl)
        layer.set_buffer(make_dataset(rows))
        assert layer.get_buffer_size() == rows
        del layer


def test_class_patched_while_a_drain_is_suspended(impl, monkeypatch) -> None:
    class Layer(impl.ChunkLayer):
        pass

    layer = make_layer(impl, Layer, chunk_size=2)
    layer.set_buffer(make_dataset(8))
    drain = layer._get_from_buffer()
    assert rows_of(next(drain).dset) == [0, 1]
    built: List[Any] = []
    def create(self: Any, dset: Any, node_id: Any = None, leaf_node_index: Any = None) -> str:
        built.append(dset)
        return "patched"

    Layer._create_node = create
    assert next(drain) == "patched"
    Layer.has_buffer = lambda self: False
    assert list(drain) == []
    assert [rows_of(d) for d in built] == [[2, 3]]


class ProbeKey(str):
    """A key of the instance dict that hashes like one of the layer's attribute names; comparing it
    runs `on_compare` once."""

    def __new__(cls, name: str, on_compare: Any) -> ProbeKey:
        key = super().__new__(cls, name + "_")
        key.on_compare = on_compare
        key.target_hash = hash(name)
        return key

    def __hash__(self) -> int:
        return self.target_hash

    def __eq__(self, other: object) -> bool:
        action, self.on_compare = self.on_compare, None
        if action is not None:
            action()
        return False


def test_a_dict_replaced_while_it_is_probed_is_not_read_after_it_is_freed(impl) -> None:
    layer = make_layer(impl)
    layer.set_buffer(make_dataset(3))

    def replace_dict() -> None:
        kept = {key: value for key, value in layer.__dict__.items() if not isinstance(key, ProbeKey)}
        layer.__dict__ = kept

    layer.__dict__[ProbeKey("buffer", replace_dict)] = None
    # The look-up of "buffer" meets the probe key first, which frees the dict being probed.
    assert layer.get_buffer_size() in (0, 3)
    assert layer.get_buffer_size() == 3


def test_a_method_deleted_between_its_look_up_and_its_call_is_still_called_safely(impl) -> None:
    class Layer(impl.ChunkLayer):
        def has_buffer(self) -> bool:
            return impl.ChunkLayer.has_buffer(self)

    layer = make_layer(impl, Layer)
    layer.set_buffer(make_dataset(3))

    def delete_method() -> None:
        del Layer.has_buffer

    layer.__dict__[ProbeKey("has_buffer", delete_method)] = None
    assert layer.get_buffer_size() == 3
    assert "has_buffer" not in Layer.__dict__
    assert layer.get_buffer_size() == 3


class Provided:
    """A descriptor whose type gains __set__ later: then the layer's buffer comes from it."""

    def __init__(self) -> None:
        self.value: Any = None

    def __get__(self, instance: Any, owner: Any = None) -> Any:
        return self.value


def test_a_descriptor_whose_type_gains_set_takes_over_the_attribute(impl) -> None:
    class Layer(impl.ChunkLayer):
        buffer = Provided()

    layer = make_layer(impl, Layer)  # __init__ writes buffer into the instance dict: no __set__ yet
    assert layer.has_buffer() is False
    layer.__dict__["buffer"] = None
    Layer.__dict__["buffer"].value = impl.Dataset(*make_dataset(4))

    def store(descriptor: Provided, instance: Any, value: Any) -> None:
        descriptor.value = value

    Provided.__set__ = store  # now a data descriptor: it wins over the instance dict
    try:
        assert layer.has_buffer()
        assert layer.get_buffer_size() == 4
        layer.set_buffer(make_dataset(2))
        assert rows_of(Layer.__dict__["buffer"].value) == [0, 1]
        assert layer.__dict__["buffer"] is None
    finally:
        del Provided.__set__


def test_a_class_changed_while_its_attributes_are_judged_is_read_afresh(impl) -> None:
    class Layer(impl.ChunkLayer):
        pass

    layer = make_layer(impl, Layer)
    layer.set_buffer(make_dataset(3))

    def add_property() -> None:
        Layer.buffer = property(lambda self: impl.Dataset(*make_dataset(6)))

    layer.__dict__[ProbeKey("buffer", add_property)] = None
    layer.get_buffer_size()
    assert layer.get_buffer_size() == 6
    assert layer.has_buffer()
