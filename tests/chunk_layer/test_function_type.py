"""The chunk layer's functions behave like the interpreter's own: binding, introspection, pickling,
argument errors, the three call-time type checks, module names looked up at call time, and methods that
reach each other through the instance."""

import inspect
import pickle
import weakref

import numpy as np
import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkNode, exclude_removed

from chunk_support import RecordingDataManager, make_dataset, patch_node_class
from quillmarsh.core.tree import chunk_layer

# About the compiled module's own function type: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only


@pytest.fixture
def dm():
    return RecordingDataManager()


@pytest.fixture
def layer(dm):
    return ChunkLayer(dm)


class RecordingProxy:
    """Stands in for a module: records every attribute read, then hands out the real attribute."""

    def __init__(self, target):
        self._target = target
        self.reads = []

    def __getattr__(self, name):
        self.reads.append(name)
        return getattr(self._target, name)


# ---------------------------------------------------------------- binding and introspection


def test_function_through_the_class_and_bound_method_through_the_instance(layer):
    function = ChunkLayer.__dict__["process"]
    assert ChunkLayer.process is function
    bound = layer.process
    assert inspect.ismethod(bound)
    assert bound.__self__ is layer
    assert bound.__func__ is function
    assert bound == layer.process
    assert not inspect.ismethod(ChunkLayer.process)


def test_get_without_instance_returns_the_function_itself(layer):
    function = ChunkLayer.__dict__["has_buffer"]
    assert function.__get__(None, ChunkLayer) is function
    bound = function.__get__(layer, ChunkLayer)
    assert inspect.ismethod(bound)
    assert bound.__self__ is layer
    assert bound() is False


def test_bound_method_and_function_call_give_the_same_result(layer):
    layer.set_buffer(make_dataset(4))
    assert layer.get_buffer_size() == 4
    assert ChunkLayer.get_buffer_size(layer) == 4
    assert layer.get_buffer_size.__func__(layer) == 4


def test_methods_bind_to_any_instance_of_a_subclass(dm):
    class Layer(ChunkLayer):
        pass

    sub = Layer(dm, chunk_index=4)
    assert sub.chunk_index == 4
    assert sub.has_buffer.__func__ is ChunkLayer.has_buffer


def test_functions_are_weak_referenceable():
    reference = weakref.ref(exclude_removed)
    assert reference() is exclude_removed
    assert weakref.ref(ChunkLayer.rebuild)() is ChunkLayer.rebuild


def test_functions_have_a_writable_dict():
    function = ChunkNode.add_indices
    assert isinstance(function.__dict__, dict)
    function.marker = "set by test"
    try:
        assert function.__dict__["marker"] == "set by test"
        assert ChunkNode.add_indices.marker == "set by test"
    finally:
        del function.marker
    assert "marker" not in function.__dict__


def test_code_object_lists_the_arguments():
    code = ChunkLayer.filter_out_samples.__code__
    assert code.co_varnames[:4] == ("self", "filter_function", "node_ids", "with_buffer")
    assert code.co_argcount == 4
    assert exclude_removed.__code__.co_varnames[:3] == ("removed", "indices", "dataset")


def test_getfullargspec():
    arguments = inspect.getfullargspec(ChunkLayer.process)
    assert arguments.args == ["self", "dsets", "create_buffer", "is_classification", "after_create_leaf_node"]
    assert arguments.varargs is None
    assert arguments.varkw is None
    assert arguments.defaults == (None, True, False, None)
    assert arguments.kwonlyargs == []
    assert arguments.kwonlydefaults is None
    assert arguments.annotations == {"dsets": "Iterator"}


def test_getfullargspec_of_a_function_with_return_annotation():
    arguments = inspect.getfullargspec(ChunkLayer._create_node)
    assert arguments.args == ["self", "dset", "node_id", "leaf_node_index"]
    assert arguments.defaults == (None, None)
    assert arguments.annotations == {"return": "ChunkNode"}


@pytest.mark.parametrize(
    "function",
    [ChunkLayer.process, ChunkLayer.rebuild, ChunkNode.build, exclude_removed],
    ids=["process", "rebuild", "build", "exclude_removed"],
)
def test_pickle_round_trip_gives_the_same_object(function):
    assert pickle.loads(pickle.dumps(function)) is function


def test_bound_method_pickles_with_its_instance(dm):
    layer = ChunkLayer(dm, chunk_size=7)
    restored = pickle.loads(pickle.dumps(layer.get_buffer_size))
    assert inspect.ismethod(restored)
    assert restored.__func__ is ChunkLayer.get_buffer_size
    assert restored.__self__.chunk_size == 7


# ---------------------------------------------------------------- argument errors


CALL_ERRORS = [
    (
        lambda layer: ChunkLayer.rebuild(self=layer),
        "rebuild() takes exactly 2 positional arguments (1 given)",
    ),
    (lambda layer: layer.rebuild(), "rebuild() takes exactly 2 positional arguments (1 given)"),
    (lambda layer: layer.rebuild([], []), "rebuild() takes exactly 2 positional arguments (3 given)"),
    (
        lambda layer: exclude_removed(indices=1),
        "exclude_removed() takes at least 2 positional arguments (0 given)",
    ),
    (lambda layer: exclude_removed(), "exclude_removed() takes at least 2 positional arguments (0 given)"),
    (
        lambda layer: exclude_removed(removed=1, dataset=None),
        "exclude_removed() takes at least 2 positional arguments (1 given)",
    ),
    (
        lambda layer: exclude_removed(1, 2, 3, 4),
        "exclude_removed() takes at most 3 positional arguments (4 given)",
    ),
    (lambda layer: ChunkLayer.has_buffer(), "has_buffer() takes exactly 1 positional argument (0 given)"),
    (lambda layer: layer.has_buffer(1), "has_buffer() takes exactly 1 positional argument (2 given)"),
    (
        lambda layer: layer.filter_out_samples(),
        "filter_out_samples() takes at least 3 positional arguments (1 given)",
    ),
    (
        lambda layer: layer.filter_out_samples(1, 2, 3, 4),
        "filter_out_samples() takes at most 4 positional arguments (5 given)",
    ),
    (
        lambda layer: ChunkLayer.update_buffer(layer, X=1),
        "update_buffer() takes at least 2 positional arguments (1 given)",
    ),
    (lambda layer: layer.process(1, 2, 3, 4, 5), "process() takes at most 5 positional arguments (6 given)"),
    (lambda layer: ChunkLayer(), "__init__() takes at least 2 positional arguments (1 given)"),
    (lambda layer: ChunkNode(1), "__init__() takes at least 3 positional arguments (2 given)"),
    (
        lambda layer: exclude_removed(None, 1, foo=2),
        "exclude_removed() got an unexpected keyword argument 'foo'",
    ),
    (lambda layer: layer.rebuild([], extra=1), "rebuild() got an unexpected keyword argument 'extra'"),
    (
        lambda layer: ChunkLayer(layer.data_manager, chunk_corset_parameters=[]),
        "__init__() got an unexpected keyword argument 'chunk_corset_parameters'",
    ),
    (
        lambda layer: exclude_removed(None, 1, removed=2),
        "exclude_removed() got multiple values for argument 'removed'",
    ),
    (
        lambda layer: layer.rebuild([], chunk_ids=[]),
        "rebuild() got multiple values for argument 'chunk_ids'",
    ),
    (
        lambda layer: ChunkLayer.has_buffer(layer, self=layer),
        "has_buffer() got multiple values for argument 'self'",
    ),
    (
        lambda layer: exclude_removed.__call__([1], np.arange(3), **{1: 2}),
        "exclude_removed() keywords must be strings",
    ),
    (
        lambda layer: ChunkLayer.has_buffer.__call__(layer, **{1: 2}),
        "has_buffer() keywords must be strings",
    ),
]


@pytest.mark.parametrize(("call", "message"), CALL_ERRORS, ids=[m for _, m in CALL_ERRORS])
def test_argument_errors_have_the_interpreters_messages(dm, layer, call, message):
    with pytest.raises(TypeError) as info:
        call(layer)
    assert str(info.value) == message
    assert dm.calls == []


def test_missing_arguments_are_reported_before_a_non_string_keyword():
    with pytest.raises(TypeError) as info:
        exclude_removed.__call__(**{1: 2})
    assert str(info.value) == "exclude_removed() takes at least 2 positional arguments (0 given)"


def test_non_string_keyword_through_a_plain_call():
    with pytest.raises(TypeError, match="keywords must be strings"):
        exclude_removed(**{1: 2})


def test_unannotated_and_stored_annotations_are_not_checked(dm):
    layer = ChunkLayer(dm, chunk_corset_params="not an iterable of records", parent=3.5)
    assert layer.chunk_corset_params == "not an iterable of records"
    assert layer.parent == 3.5


# ---------------------------------------------------------------- exact-type checks at call time


def test_chunk_size_bool_is_refused(dm):
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, chunk_size=True)
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got bool)"


def test_chunk_size_numpy_integer_is_refused(dm):
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, chunk_size=np.int64(3))
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got numpy.int64)"


def test_chunk_size_int_subclass_and_float_are_refused(dm):
    class Count(int):
        pass

    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, None, Count(3))
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got Count)"
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, None, 3.0)
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got float)"


def test_chunk_size_is_reported_when_both_are_wrong(dm):
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, chunk_size=np.int64(3), chunk_index=True)
    assert str(info.value) == "Argument 'chunk_size' has incorrect type (expected int, got numpy.int64)"


def test_chunk_index_bool_and_numpy_integer_are_refused(dm):
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, chunk_size=5, chunk_index=False)
    assert str(info.value) == "Argument 'chunk_index' has incorrect type (expected int, got bool)"
    with pytest.raises(TypeError) as info:
        ChunkLayer(dm, None, None, None, np.int64(1))
    assert str(info.value) == "Argument 'chunk_index' has incorrect type (expected int, got numpy.int64)"


def test_exact_int_and_none_are_accepted(dm):
    layer = ChunkLayer(dm, chunk_size=0, chunk_index=3)
    assert (layer.chunk_size, layer.chunk_index) == (0, 3)
    layer = ChunkLayer(dm, chunk_size=None, chunk_index=None)
    assert (layer.chunk_size, layer.chunk_index) == (None, 0)


def test_type_check_runs_before_any_attribute_is_set(dm):
    layer = ChunkLayer.__new__(ChunkLayer)
    with pytest.raises(TypeError, match="Argument 'chunk_index'"):
        ChunkLayer.__init__(layer, dm, chunk_index=1.0)
    assert vars(layer) == {}


def test_rebuild_refuses_a_tuple_at_call_time(dm, layer):
    with pytest.raises(TypeError) as info:
        layer.rebuild(("a",))
    assert str(info.value) == "Argument 'chunk_ids' has incorrect type (expected list, got tuple)"
    assert dm.calls == []


def test_rebuild_refuses_none_and_arrays(layer):
    with pytest.raises(TypeError) as info:
        layer.rebuild(None)
    assert str(info.value) == "Argument 'chunk_ids' has incorrect type (expected list, got NoneType)"
    with pytest.raises(TypeError) as info:
        layer.rebuild(chunk_ids=np.array(["a"]))
    assert str(info.value) == "Argument 'chunk_ids' has incorrect type (expected list, got numpy.ndarray)"


def test_rebuild_refuses_a_list_subclass(layer):
    class Ids(list):
        pass

    with pytest.raises(TypeError) as info:
        layer.rebuild(Ids(["a"]))
    assert str(info.value) == "Argument 'chunk_ids' has incorrect type (expected list, got Ids)"


def test_rebuild_accepts_an_exact_list_without_running(dm, layer):
    generator = layer.rebuild(["a", "b"])
    assert generator is not None
    assert dm.calls == []


# ---------------------------------------------------------------- module names looked up at call time


def test_numpy_is_looked_up_when_exclude_removed_runs(monkeypatch):
    proxy = RecordingProxy(np)
    monkeypatch.setattr(chunk_layer, "np", proxy)
    result = exclude_removed([1], np.arange(3))
    assert list(result) == [0, 2]
    assert proxy.reads[0] == "in1d"
    assert "any" in proxy.reads


def test_numpy_not_read_when_nothing_is_removed(monkeypatch):
    proxy = RecordingProxy(np)
    monkeypatch.setattr(chunk_layer, "np", proxy)
    indices = np.arange(3)
    assert exclude_removed([], indices) is indices
    assert proxy.reads == []


def test_missing_numpy_name_raises_name_error(monkeypatch):
    monkeypatch.delattr(chunk_layer, "np")
    with pytest.raises(NameError) as info:
        exclude_removed([1], np.arange(3))
    assert str(info.value) == "name 'np' is not defined"


def test_dataset_is_looked_up_when_exclude_removed_runs(monkeypatch):
    made = []

    def fake_dataset(*fields):
        made.append(fields)
        return "made by stand-in"

    monkeypatch.setattr(chunk_layer, "Dataset", fake_dataset)
    indices, dataset = exclude_removed([1], np.arange(3), make_dataset(3))
    assert dataset == "made by stand-in"
    assert len(made) == 1
    assert [list(made[0][0]), made[0][3]] == [[0, 2], None]


def test_missing_dataset_name_raises_name_error(monkeypatch):
    monkeypatch.delattr(chunk_layer, "Dataset")
    with pytest.raises(NameError) as info:
        exclude_removed([1], np.arange(3), make_dataset(3))
    assert str(info.value) == "name 'Dataset' is not defined"


def test_buffer_node_id_is_looked_up_when_is_buffer_runs(monkeypatch):
    node = ChunkNode(make_dataset(2), [], node_id="other")
    assert node.is_buffer() is False
    monkeypatch.setattr(chunk_layer, "BUFFER_NODE_ID", "other")
    assert node.is_buffer() is True


def test_missing_buffer_node_id_raises_name_error(monkeypatch):
    node = ChunkNode(make_dataset(2), [], node_id="buffer")
    monkeypatch.delattr(chunk_layer, "BUFFER_NODE_ID")
    with pytest.raises(NameError) as info:
        node.is_buffer()
    assert str(info.value) == "name 'BUFFER_NODE_ID' is not defined"


def test_node_class_is_looked_up_when_a_node_is_created(monkeypatch, dm):
    node_class = patch_node_class(chunk_layer, monkeypatch)
    layer = ChunkLayer(dm, chunk_corset_params=["p"])
    node = layer._create_node(make_dataset(2), "n1")
    assert type(node) is node_class
    assert node_class.instances == [node]
    assert (node.node_id, node.params, node.data_manager, node.built) == ("n1", ["p"], dm, 1)


def test_missing_node_class_raises_name_error(monkeypatch, dm):
    monkeypatch.delattr(chunk_layer, "ChunkNode")
    layer = ChunkLayer(dm)
    with pytest.raises(NameError) as info:
        layer._create_node(make_dataset(2))
    assert str(info.value) == "name 'ChunkNode' is not defined"


# ---------------------------------------------------------------- methods reach each other through self


def test_overridden_has_buffer_changes_get_buffer_size(dm):
    class NeverBuffered(ChunkLayer):
        def has_buffer(self):
            self.asked = getattr(self, "asked", 0) + 1
            return False

    plain = ChunkLayer(dm)
    plain.set_buffer(make_dataset(4))
    assert plain.get_buffer_size() == 4

    layer = NeverBuffered(dm)
    layer.set_buffer(make_dataset(4))
    assert layer.get_buffer_size() == 0
    assert layer.asked == 1


def test_overridden_has_buffer_changes_get_buffer(dm):
    class AlwaysBuffered(ChunkLayer):
        def has_buffer(self):
            return True

    layer = AlwaysBuffered(dm)
    layer.set_buffer(make_dataset(0))
    assert ChunkLayer(dm).get_buffer() is None
    assert layer.get_buffer() is layer.buffer
    assert dm.calls == [("get_removed", (), {})]


def test_overridden_is_buffer_changes_the_coreset_safe_mode(dm):
    class Coreset:
        def __init__(self, **kwargs):
            self.kwargs = kwargs

    class AlwaysBufferNode(ChunkNode):
        def is_buffer(self):
            return True

    plain = ChunkNode(make_dataset(2), [], node_id="n")._instantiate_coreset(Coreset, None)
    assert not hasattr(plain, "safe_mode")
    made = AlwaysBufferNode(make_dataset(2), [], node_id="n")._instantiate_coreset(Coreset, None)
    assert made.safe_mode is True
