"""The layer's methods read and write its attributes as Python code would: an instance attribute
loses to a data descriptor on the class, a subclass's properties and `__getattribute__` are
honoured, and a class patched after the module loaded is seen at once."""

import numpy as np
from quillmarsh.core.tree.chunk_layer import ChunkLayer

from chunk_support import RecordingDataManager, RecordingParent, make_dataset, patch_node_class
from quillmarsh.core.tree import chunk_layer


def buffered_layer(cls=ChunkLayer, rows=6, chunk_size=5):
    layer = cls(RecordingDataManager(), [], chunk_size, RecordingParent())
    layer.set_buffer(list(make_dataset(rows)))
    return layer


def test_a_property_patched_onto_the_class_wins_over_the_instance_dict(monkeypatch):
    patch_node_class(monkeypatch)
    layer = buffered_layer()
    assert layer.__dict__["chunk_size"] == 5
    monkeypatch.setattr(ChunkLayer, "chunk_size", property(lambda self: 2), raising=False)
    chunks = list(layer._get_from_buffer())
    assert [len(chunk.dset.ind) for chunk in chunks] == [2, 2, 2]
    monkeypatch.undo()
    # the class is back as it was: the instance's own chunk_size counts again
    layer.set_buffer(list(make_dataset(6)))
    assert [len(node.dset.ind) for node in layer._get_from_buffer()] == [5]


def test_a_patched_class_attribute_that_is_no_descriptor_loses_to_the_instance(monkeypatch):
    layer = buffered_layer()
    monkeypatch.setattr(ChunkLayer, "buffer", None, raising=False)
    assert layer.get_buffer_size() == 6


def test_writes_go_through_a_data_descriptor_on_the_class(monkeypatch):
    patch_node_class(monkeypatch)
    written = []

    def store(self, value):
        written.append(value)
        self.__dict__["chunk_index"] = value

    monkeypatch.setattr(
        ChunkLayer, "chunk_index", property(lambda self: self.__dict__["chunk_index"], store), raising=False
    )
    layer = buffered_layer(rows=10)
    list(layer._get_from_buffer())
    assert written[-2:] == [1, 2]


def test_a_subclass_property_is_honoured():
    class Shadowed(ChunkLayer):
        @property
        def buffer(self):
            return chunk_layer.Dataset(np.arange(3), np.zeros((3, 2)))

        @buffer.setter
        def buffer(self, value):
            pass

    layer = Shadowed(RecordingDataManager())
    assert layer.has_buffer()
    assert layer.get_buffer_size() == 3


def test_a_subclass_getattribute_sees_every_read():
    reads = []

    class Watched(ChunkLayer):
        def __getattribute__(self, name):
            reads.append(name)
            return super().__getattribute__(name)

    layer = buffered_layer(Watched)
    reads.clear()
    assert layer.get_buffer_size() == 6
    assert reads.count("buffer") == 3  # has_buffer reads it twice, then the size is taken


def test_an_instance_without_an_attribute_gets_the_interpreters_error():
    layer = buffered_layer()
    del layer.__dict__["parent"]
    try:
        layer._add_to_buffer(make_dataset(1, start=50))
    except AttributeError as error:
        assert "parent" in str(error)
    else:  # pragma: no cover - the read must fail
        raise AssertionError("no AttributeError")
