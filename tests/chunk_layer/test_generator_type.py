"""The generator protocol of the chunk layer's three generator methods (`_get_from_buffer`, `process`,
`rebuild`): lazy start, identity and names, send, throw, close, re-entry, StopIteration inside the body,
and release of what a dropped generator held."""

import collections.abc
import gc
import weakref

import pytest
from quillmarsh.core.tree.chunk_layer import ChunkLayer

from chunk_support import RecordingDataManager, RecordingParent, make_dataset, patch_node_class
from quillmarsh.core.tree import chunk_layer

# About the compiled module's own generator type: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only

GENERATOR_METHODS = ["_get_from_buffer", "process", "rebuild"]


# The three-argument throw() is deprecated from 3.12 on; these tests use it on purpose.
THREE_ARGUMENT_THROW = pytest.mark.filterwarnings(
    r"ignore:the \(type, exc, tb\) signature of throw\(\):DeprecationWarning"
)


class Callback:
    """A leaf-node callback that records its calls and may run a hook with the generator under way."""

    def __init__(self, hook=None):
        self.calls = []
        self.hook = hook

    def __call__(self, node, index):
        self.calls.append((node, index))
        if self.hook is not None:
            self.hook()


class Harness:
    """A layer with a recording data manager, parent and node class, and a way to start each generator."""

    def __init__(self, monkeypatch):
        self.node_class = patch_node_class(chunk_layer, monkeypatch)
        self.dm = RecordingDataManager(chunks={"a": make_dataset(2), "b": make_dataset(2, start=2)})
        self.parent = RecordingParent()
        self.layer = ChunkLayer(self.dm, chunk_corset_params=[], chunk_size=2, parent=self.parent)

    def start(self, method, callback=None):
        """A fresh generator of `method` that yields two nodes, built on the stand-in node class."""
        if method == "_get_from_buffer":
            self.layer.set_buffer(make_dataset(4))
            return self.layer._get_from_buffer(callback)
        if method == "process":
            return self.layer.process([make_dataset(4)], False, False, callback)
        return self.layer.rebuild(["a", "b"])

    def ran_nothing(self):
        return self.node_class.instances == [] and self.dm.calls == [] and self.parent.calls == 0


@pytest.fixture
def harness(monkeypatch):
    return Harness(monkeypatch)


def assert_finished(generator):
    with pytest.raises(StopIteration):
        next(generator)
    assert generator.gi_running is False


# ---------------------------------------------------------------- lazy start, type and names


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_calling_runs_nothing_until_next(harness, method):
    generator = harness.start(method)
    buffer_before = harness.layer.buffer
    assert harness.ran_nothing()
    assert harness.layer.buffer is buffer_before
    assert harness.layer.chunk_index == 0
    node = next(generator)
    assert node is harness.node_class.instances[0]
    assert node.built == 1


def test_process_walks_its_datasets_only_when_started(harness):
    walked = []

    class Datasets:
        def __iter__(self):
            walked.append("iter")
            return iter([make_dataset(4)])

    generator = harness.layer.process(Datasets(), create_buffer=False)
    assert walked == []
    assert harness.parent.calls == 0
    next(generator)
    assert walked == ["iter"]
    assert harness.parent.calls == 1


def test_process_with_no_datasets_fails_only_at_first_next(harness):
    generator = harness.layer.process(None)
    assert isinstance(generator, collections.abc.Generator)
    with pytest.raises(TypeError, match="'NoneType' object is not iterable"):
        next(generator)
    assert_finished(generator)


def test_rebuild_fetches_nothing_until_next(harness):
    generator = harness.layer.rebuild(["a"])
    assert harness.dm.calls == []
    next(generator)
    assert harness.dm.calls == [("get_by_nodes", (["a"],), {})]


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_generator_is_a_generator_and_an_iterator(harness, method):
    generator = harness.start(method)
    assert isinstance(generator, collections.abc.Generator)
    assert isinstance(generator, collections.abc.Iterator)
    assert iter(generator) is generator
    assert generator.__iter__() is generator


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_generator_names(harness, method):
    generator = harness.start(method)
    assert generator.__name__ == method
    assert generator.__qualname__ == "ChunkLayer." + method


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_iteration_to_the_end(harness, method):
    generator = harness.start(method)
    nodes = list(generator)
    assert nodes == harness.node_class.instances
    assert len(nodes) == 2
    assert_finished(generator)


def test_rebuild_returns_none_at_the_end(harness):
    generator = harness.layer.rebuild([])
    with pytest.raises(StopIteration) as info:
        next(generator)
    assert info.value.value is None


# ---------------------------------------------------------------- gi_running


@pytest.mark.parametrize("method", ["_get_from_buffer", "process"])
def test_gi_running_inside_and_outside(harness, method):
    seen = []
    generator = harness.start(method, Callback(hook=lambda: seen.append(generator.gi_running)))
    assert generator.gi_running is False
    next(generator)
    assert seen == [True]
    assert generator.gi_running is False
    list(generator)
    assert seen == [True, True]
    assert generator.gi_running is False


def test_gi_running_seen_from_the_data_manager_in_rebuild(harness):
    seen = []

    class DataManager(RecordingDataManager):
        def get_by_nodes(self, node_ids, **kwargs):
            seen.append(generator.gi_running)
            return super().get_by_nodes(node_ids, **kwargs)

    harness.layer.data_manager = DataManager(chunks=harness.dm.chunks)
    generator = harness.layer.rebuild(["a"])
    assert generator.gi_running is False
    next(generator)
    assert seen == [True]
    assert generator.gi_running is False


# ---------------------------------------------------------------- send


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_send_non_none_to_a_just_started_generator(harness, method):
    generator = harness.start(method)
    with pytest.raises(TypeError) as info:
        generator.send(1)
    assert str(info.value) == "can't send non-None value to a just-started generator"
    assert harness.ran_nothing()
    # the generator is still usable afterwards
    assert generator.send(None) is harness.node_class.instances[0]


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_send_none_starts_and_a_value_resumes(harness, method):
    generator = harness.start(method)
    first = generator.send(None)
    second = generator.send("ignored value")
    assert [first, second] == harness.node_class.instances
    with pytest.raises(StopIteration):
        generator.send(None)


# ---------------------------------------------------------------- re-entry


@pytest.mark.parametrize("method", ["_get_from_buffer", "process"])
def test_reentry_from_a_callback(harness, method):
    errors = []

    def reenter():
        try:
            next(generator)
        except ValueError as exc:
            errors.append(exc)

    generator = harness.start(method, Callback(hook=reenter))
    node = next(generator)
    assert len(errors) == 1
    assert type(errors[0]) is ValueError
    assert str(errors[0]) == "generator already executing"
    assert node is harness.node_class.instances[0]
    assert len(list(generator)) == 1


def test_reentry_from_the_data_manager_in_rebuild(harness):
    errors = []

    class DataManager(RecordingDataManager):
        def get_by_nodes(self, node_ids, **kwargs):
            try:
                next(generator)
            except ValueError as exc:
                errors.append(str(exc))
            return super().get_by_nodes(node_ids, **kwargs)

    harness.layer.data_manager = DataManager(chunks=harness.dm.chunks)
    generator = harness.layer.rebuild(["a"])
    next(generator)
    assert errors == ["generator already executing"]


def test_reentry_error_not_caught_finishes_the_generator(harness):
    generator = harness.start("_get_from_buffer", Callback(hook=lambda: next(generator)))
    with pytest.raises(ValueError, match="^generator already executing$"):
        next(generator)
    assert_finished(generator)


# ---------------------------------------------------------------- StopIteration inside the body


def test_stop_iteration_in_rebuild_becomes_runtime_error(harness):
    raised = StopIteration("from the data manager")

    class DataManager(RecordingDataManager):
        def get_by_nodes(self, node_ids, **kwargs):
            raise raised

    harness.layer.data_manager = DataManager()
    generator = harness.layer.rebuild(["a"])
    with pytest.raises(RuntimeError) as info:
        next(generator)
    assert type(info.value) is RuntimeError
    assert str(info.value) == "generator raised StopIteration"
    assert info.value.__cause__ is raised
    assert_finished(generator)


@pytest.mark.parametrize("method", ["_get_from_buffer", "process"])
def test_stop_iteration_in_a_callback_becomes_runtime_error(harness, method):
    raised = StopIteration()

    def stop():
        raise raised

    generator = harness.start(method, Callback(hook=stop))
    with pytest.raises(RuntimeError, match="^generator raised StopIteration$") as info:
        next(generator)
    assert info.value.__cause__ is raised
    assert_finished(generator)


# ---------------------------------------------------------------- throw


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_throw_into_a_suspended_generator(harness, method):
    generator = harness.start(method)
    next(generator)
    thrown = ValueError("x")
    with pytest.raises(ValueError) as info:
        generator.throw(thrown)
    assert info.value is thrown
    assert len(harness.node_class.instances) == 1
    assert_finished(generator)
    assert len(harness.node_class.instances) == 1


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_throw_into_an_unstarted_generator_runs_nothing(harness, method):
    generator = harness.start(method)
    with pytest.raises(KeyError, match="unstarted"):
        generator.throw(KeyError("unstarted"))
    assert harness.ran_nothing()
    assert_finished(generator)
    assert harness.ran_nothing()


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_throw_into_a_finished_generator(harness, method):
    generator = harness.start(method)
    list(generator)
    thrown = ValueError("late")
    with pytest.raises(ValueError) as info:
        generator.throw(thrown)
    assert info.value is thrown


def test_throw_a_class_makes_an_instance(harness):
    generator = harness.start("rebuild")
    next(generator)
    with pytest.raises(LookupError) as info:
        generator.throw(LookupError)
    assert type(info.value) is LookupError
    assert_finished(generator)


@THREE_ARGUMENT_THROW
def test_throw_a_class_with_a_value(harness):
    generator = harness.start("rebuild")
    next(generator)
    with pytest.raises(LookupError, match="^detail$"):
        generator.throw(LookupError, "detail")


@THREE_ARGUMENT_THROW
@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ((1,), "exceptions must be classes or instances deriving from BaseException, not int"),
        ((ValueError, None, "tb"), "throw() third argument must be a traceback object"),
        ((ValueError("a"), "b"), "instance exception may not have a separate value"),
    ],
    ids=["not-an-exception", "bad-traceback", "instance-with-value"],
)
@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_throw_argument_errors(harness, method, arguments, message):
    generator = harness.start(method)
    next(generator)
    with pytest.raises(TypeError) as info:
        generator.throw(*arguments)
    assert str(info.value) == message
    # the arguments were refused before reaching the body: the generator goes on
    assert next(generator) is harness.node_class.instances[1]


def test_throw_without_arguments(harness):
    generator = harness.start("rebuild")
    with pytest.raises(TypeError):
        generator.throw()


# ---------------------------------------------------------------- close


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_close_a_suspended_generator(harness, method):
    generator = harness.start(method)
    next(generator)
    assert generator.close() is None
    assert_finished(generator)
    assert len(harness.node_class.instances) == 1
    assert generator.close() is None


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_close_an_unstarted_generator(harness, method):
    generator = harness.start(method)
    assert generator.close() is None
    assert_finished(generator)
    assert harness.ran_nothing()


@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_close_a_finished_generator(harness, method):
    generator = harness.start(method)
    list(generator)
    assert generator.close() is None
    assert_finished(generator)


def test_error_in_the_body_finishes_the_generator(harness):
    generator = harness.layer.rebuild(["a", "unknown", "b"])
    next(generator)
    with pytest.raises(KeyError, match="unknown"):
        next(generator)
    assert_finished(generator)
    assert [call[1] for call in harness.dm.calls] == [(["a"],), (["unknown"],)]
    assert generator.close() is None


@pytest.mark.parametrize("method", ["_get_from_buffer", "process"])
def test_callback_error_finishes_the_generator(harness, method):
    def fail():
        raise OSError("callback failed")

    generator = harness.start(method, Callback(hook=fail))
    with pytest.raises(OSError, match="^callback failed$"):
        next(generator)
    assert_finished(generator)
    assert len(harness.node_class.instances) == 1


# ---------------------------------------------------------------- garbage


class Held:
    """A weak-referenceable stand-in for an argument that only the generator holds."""

    def __call__(self, node, index):
        pass


@pytest.mark.parametrize("started", [False, True], ids=["unstarted", "suspended"])
@pytest.mark.parametrize("method", ["_get_from_buffer", "process"])
def test_dropped_generator_releases_its_callback(harness, method, started):
    callback = Held()
    reference = weakref.ref(callback)
    generator = harness.start(method, callback)
    if started:
        next(generator)
    del callback
    gc.collect()
    assert reference() is not None
    del generator
    gc.collect()
    assert reference() is None


@pytest.mark.parametrize("started", [False, True], ids=["unstarted", "suspended"])
@pytest.mark.parametrize("method", GENERATOR_METHODS)
def test_dropped_generator_releases_its_layer(harness, method, started):
    generator = harness.start(method)
    if started:
        next(generator)
    reference = weakref.ref(harness.layer)
    del harness.layer
    gc.collect()
    assert reference() is not None
    del generator
    gc.collect()
    assert reference() is None


def test_dropped_process_releases_its_datasets(harness):
    class Datasets(list):
        pass

    datasets = Datasets([make_dataset(4)])
    reference = weakref.ref(datasets)
    generator = harness.layer.process(datasets, create_buffer=False)
    next(generator)
    del datasets
    gc.collect()
    assert reference() is not None
    del generator
    gc.collect()
    assert reference() is None


@pytest.mark.parametrize("started", [False, True], ids=["unstarted", "suspended"])
def test_reference_cycle_through_a_generator_is_collected(harness, started):
    layer = harness.layer
    layer.g = layer.rebuild(["a", "b"])
    if started:
        next(layer.g)
    reference = weakref.ref(layer)
    generator_reference = weakref.ref(layer.g)
    del layer
    del harness.layer
    gc.collect()
    assert reference() is None
    assert generator_reference() is None
