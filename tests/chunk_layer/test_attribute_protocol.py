"""The layer's methods read and write its attributes as Python code would: an instance attribute
loses to a data descriptor on the class, a subclass's properties and `__getattribute__` are
honoured, and a class patched after the module loaded is seen at once."""

import numpy as np
import pytest

from chunk_support import RecordingDataManager, RecordingParent, make_dataset, patch_node_class


def buffered_layer(impl, cls=None, rows=6, chunk_size=5):
    layer = (cls or impl.ChunkLayer)(RecordingDataManager(), [], chunk_size, RecordingParent())
    layer.set_buffer(list(make_dataset(rows)))
    return layer


def test_a_property_patched_onto_the_class_wins_over_the_instance_dict(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    layer = buffered_layer(impl)
    assert layer.__dict__["chunk_size"] == 5
    monkeypatch.setattr(impl.ChunkLayer, "chunk_size", property(lambda self: 2), raising=False)
    chunks = list(layer._get_from_buffer())
    assert [len(chunk.dset.ind) for chunk in chunks] == [2, 2, 2]
    monkeypatch.undo()
    # the class is back as it was: the instance's own chunk_size counts again
    layer.set_buffer(list(make_dataset(6)))
    assert [len(node.dset.ind) for node in layer._get_from_buffer()] == [5]


def test_a_patched_class_attribute_that_is_no_descriptor_loses_to_the_instance(impl, monkeypatch):
    layer = buffered_layer(impl)
    monkeypatch.setattr(impl.ChunkLayer, "buffer", None, raising=False)
    assert layer.get_buffer_size() == 6


def test_writes_go_through_a_data_descriptor_on_the_class(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    written = []

    def store(self, value):
        written.append(value)
        self.__dict__["chunk_index"] = value

    monkeypatch.setattr(
        impl.ChunkLayer, "chunk_index", property(lambda self: self.__dict__["chunk_index"], store),
        raising=False,
    )
    layer = buffered_layer(impl, rows=10)
    list(layer._get_from_buffer())
    assert written[-2:] == [1, 2]


def test_a_subclass_property_is_honoured(impl):
    class Shadowed(impl.ChunkLayer):
        @property
        def buffer(self):
            return impl.Dataset(np.arange(3), np.zeros((3, 2)))

        @buffer.setter
        def buffer(self, value):
            pass

    layer = Shadowed(RecordingDataManager())
    assert layer.has_buffer()
    assert layer.get_buffer_size() == 3


def test_a_subclass_getattribute_sees_every_read(impl):
    reads = []

    class Watched(impl.ChunkLayer):
        def __getattribute__(self, name):
            reads.append(name)
            return super().__getattribute__(name)

    layer = buffered_layer(impl, Watched)
    reads.clear()
    assert layer.get_buffer_size() == 6
    assert reads.count("buffer") == 3  # has_buffer reads it twice, then the size is taken


def test_an_instance_without_an_attribute_gets_the_interpreters_error(impl):
    layer = buffered_layer(impl)
    del layer.__dict__["parent"]
    try:
        layer._add_to_buffer(make_dataset(1, start=50))
    except AttributeError as error:
        assert "parent" in str(error)
    else:  # pragma: no cover - the read must fail
        raise AssertionError("no AttributeError")


# Reads of a layer's own attributes may be answered from what was read before, but only while the
# instance dict is unchanged: every change to it, however made, must be seen by the next read.


def test_a_change_to_the_instance_dict_in_mid_drain_is_seen_by_the_next_cut(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    layer = buffered_layer(impl, rows=9, chunk_size=3)

    def shrink_chunks(node, leaf_index):
        vars(layer)["chunk_size"] = 2

    sizes = [len(node.dset.ind) for node in layer._get_from_buffer(shrink_chunks)]
    assert sizes == [3, 2, 2, 2]


def test_a_replaced_instance_dict_is_read_afresh(impl):
    layer = buffered_layer(impl, rows=6)
    assert layer.get_buffer_size() == 6
    fresh = dict(vars(layer))
    fresh["buffer"] = make_dataset(2)
    layer.__dict__ = fresh
    assert layer.get_buffer_size() == 2
    layer.__dict__ = {**fresh, "buffer": None}
    assert layer.get_buffer_size() == 0


def test_an_instance_attribute_set_later_hides_the_method_the_layer_calls_on_itself(impl):
    layer = buffered_layer(impl, rows=6)
    assert layer.get_buffer_size() == 6
    layer.has_buffer = lambda: False
    assert layer.get_buffer_size() == 0
    del layer.has_buffer
    assert layer.get_buffer_size() == 6


def test_a_node_builder_set_on_the_instance_in_mid_drain_builds_the_next_chunks(impl, monkeypatch):
    node_class = patch_node_class(impl, monkeypatch)
    layer = buffered_layer(impl, rows=6, chunk_size=2)
    built_here = []

    def own_builder(dset, node_id=None, leaf_node_index=None):
        built_here.append(leaf_node_index)
        return node_class(dset, None)

    def switch(node, leaf_index):
        layer._create_node = own_builder

    list(layer._get_from_buffer(switch))
    assert built_here == [1, 2]


def test_a_method_patched_onto_the_class_after_use_is_called(impl, monkeypatch):
    layer = buffered_layer(impl, rows=6)
    assert layer.get_buffer_size() == 6
    monkeypatch.setattr(impl.ChunkLayer, "has_buffer", lambda self: False)
    assert layer.get_buffer_size() == 0
    monkeypatch.undo()
    assert layer.get_buffer_size() == 6


def test_layers_read_in_turn_each_see_their_own_attributes(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    small, large = buffered_layer(impl, rows=6, chunk_size=2), buffered_layer(impl, rows=6, chunk_size=3)
    small_drain, large_drain = small._get_from_buffer(), large._get_from_buffer()
    sizes = []
    for _ in range(2):
        sizes.append(len(next(small_drain).dset.ind))
        sizes.append(len(next(large_drain).dset.ind))
    assert sizes == [2, 3, 2, 3]
    assert small.get_buffer_size() == 2 and large.get_buffer_size() == 0


def test_the_node_builder_is_looked_up_before_the_leaf_index_is_read(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    reads = []

    class Watched(impl.ChunkLayer):
        def __getattribute__(self, name):
            reads.append(name)
            return super().__getattribute__(name)

    layer = buffered_layer(impl, Watched, rows=5, chunk_size=5)
    reads.clear()
    list(layer._get_from_buffer())
    assert reads.index("_create_node") < reads.index("chunk_index")


def test_a_finalizer_run_by_replacing_an_attribute_changes_what_later_reads_see(impl, monkeypatch):
    patch_node_class(impl, monkeypatch)
    layer = buffered_layer(impl, rows=9, chunk_size=3)

    class FinalizedIndex(int):
        def __del__(self):
            vars(layer)["chunk_size"] = 2

    layer.chunk_index = FinalizedIndex(0)
    # the first cut replaces the index; the old one's finalizer shrinks the chunks that follow
    sizes = [len(node.dset.ind) for node in layer._get_from_buffer()]
    assert sizes == [3, 2, 2, 2]
    assert layer.chunk_index == 4


class Plain:
    pass


class GetattrRefuses:
    def __getattr__(self, name):
        raise AttributeError("refused")


INNER = Plain()


class InnerReadFails:
    @property
    def node_id(self):
        return INNER.missing_inside


class Slotted:
    __slots__ = ("other",)


def error_context(action):
    """The name and object an AttributeError carries, as tracebacks use them for suggestions."""
    with pytest.raises(AttributeError) as caught:
        action()
    error = caught.value
    return str(error), getattr(error, "name", None), getattr(error, "obj", None)


@pytest.mark.parametrize("owner", [Plain, GetattrRefuses, InnerReadFails])
def test_a_failed_read_raises_what_the_same_python_read_raises(impl, owner):
    target = owner()
    module_error = error_context(lambda: impl.ChunkNode.is_buffer(target))
    python_error = error_context(lambda: target.node_id)
    assert module_error[0] == python_error[0]
    assert module_error[1] == python_error[1]
    assert module_error[2] is python_error[2]


def test_a_failed_store_raises_what_the_same_python_store_raises(impl):
    target = Slotted()
    module_error = error_context(lambda: impl.ChunkLayer.__init__(target, RecordingDataManager()))

    def store():
        target.build_params = None

    python_error = error_context(store)
    assert module_error[0] == python_error[0]
    assert module_error[1] == python_error[1]
    assert module_error[2] is python_error[2]
