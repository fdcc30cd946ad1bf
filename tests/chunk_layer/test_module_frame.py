"""The chunk layer module's frame: its names and their order, the objects its imports bind, the constant,
the two records, the shape of the two classes and every callable's signature, annotations and docstring."""

import ast
import ctypes
import dataclasses
import inspect
import itertools
import subprocess
import sys
import textwrap
import time
import typing
import uuid
import weakref
from pathlib import Path
from typing import Dict, Optional

import numpy as np
import pandas as pd
import psutil
import pytest

import quillmarsh.common
import quillmarsh.core.coreset._base
import quillmarsh.core.helpers
import quillmarsh.core.numpy_extra
import quillmarsh.core.tree.utils
import quillmarsh.data.common
import quillmarsh.data.data_auto_processor
import quillmarsh.data.manager
import reference
from quillmarsh.core.tree import chunk_layer

MODULE_NAME = "quillmarsh.core.tree.chunk_layer"
EMPTY = inspect.Parameter.empty
# About the compiled module alone: its name, entry point and load, its namespace's order, its docstrings
# to the character (the interpreter may strip those of the reference).
compiled_only = pytest.mark.compiled_only

IMPORTED_NAMES = [
    "itertools",
    "time",
    "dataclass",
    "Iterable",
    "Union",
    "Optional",
    "Any",
    "List",
    "Tuple",
    "Iterator",
    "Dict",
    "uuid4",
    "np",
    "pd",
    "psutil",
    "evaluate_max_batch_size",
    "CoresetBase",
    "align_arrays_by_key",
    "filter_missing_and_inf",
    "Dataset",
    "DataManagerT",
    "utils",
    "DataAutoProcessor",
    "ThreadPoolManager",
]
DEFINED_NAMES = [
    "BUFFER_NODE_ID",
    "ChunkSensitivitiesParams",
    "ChunkSensitivities",
    "exclude_removed",
    "ChunkNode",
    "ChunkLayer",
]

EXPECTED_BINDINGS = {
    "itertools": itertools,
    "time": time,
    "dataclass": dataclasses.dataclass,
    "Iterable": typing.Iterable,
    "Union": typing.Union,
    "Optional": typing.Optional,
    "Any": typing.Any,
    "List": typing.List,
    "Tuple": typing.Tuple,
    "Iterator": typing.Iterator,
    "Dict": typing.Dict,
    "uuid4": uuid.uuid4,
    "np": np,
    "pd": pd,
    "psutil": psutil,
    "evaluate_max_batch_size": quillmarsh.core.tree.utils.evaluate_max_batch_size,
    "CoresetBase": quillmarsh.core.coreset._base.CoresetBase,
    "align_arrays_by_key": quillmarsh.core.helpers.align_arrays_by_key,
    "filter_missing_and_inf": quillmarsh.core.numpy_extra.filter_missing_and_inf,
    "Dataset": quillmarsh.data.common.Dataset,
    "DataManagerT": quillmarsh.data.manager.DataManagerT,
    "utils": quillmarsh.core.tree.utils,
    "DataAutoProcessor": quillmarsh.data.data_auto_processor.DataAutoProcessor,
    "ThreadPoolManager": quillmarsh.common.ThreadPoolManager,
}

NO_DOCSTRING = {
    "ChunkNode.__init__",
    "ChunkLayer.__init__",
    "ChunkLayer.remove_from_buffer",
    "ChunkLayer.update_buffer",
    "ChunkLayer._rebuild_node",
    "ChunkLayer.rebuild",
    "ChunkLayer.filter_out_samples",
}

# (callable, parameters with defaults (EMPTY: none), annotations)
METHOD_TABLE = [
    ("exclude_removed", [("removed", EMPTY), ("indices", EMPTY), ("dataset", None)], {}),
    (
        "ChunkNode.__init__",
        [
            ("self", EMPTY),
            ("dset", EMPTY),
            ("params", EMPTY),
            ("node_id", None),
            ("tree_build_params", None),
            ("data_manager", None),
        ],
        {
            "dset": "Dataset",
            "params": "Iterable[ChunkSensitivitiesParams]",
            "tree_build_params": "dict",
            "data_manager": "DataManagerT",
        },
    ),
    ("ChunkNode.is_buffer", [("self", EMPTY)], {}),
    (
        "ChunkNode._instantiate_coreset",
        [("self", EMPTY), ("coreset_cls", EMPTY), ("coreset_params", EMPTY)],
        {"return": "CoresetBase"},
    ),
    ("ChunkNode.build", [("self", EMPTY)], {}),
    (
        "ChunkNode.save",
        [("self", EMPTY), ("data_manager", EMPTY), ("save_all", False)],
        {"data_manager": "DataManagerT"},
    ),
    ("ChunkNode.add_indices", [("self", EMPTY), ("indices", EMPTY)], {}),
    (
        "ChunkLayer.__init__",
        [
            ("self", EMPTY),
            ("data_manager", EMPTY),
            ("chunk_corset_params", None),
            ("chunk_size", None),
            ("parent", None),
            ("chunk_index", None),
        ],
        {
            "data_manager": "DataManagerT",
            "chunk_corset_params": "Iterable[ChunkSensitivitiesParams]",
            "chunk_size": "Optional[int]",
            "parent": "Optional[Any]",
            "chunk_index": "int",
        },
    ),
    ("ChunkLayer.has_buffer", [("self", EMPTY)], {}),
    ("ChunkLayer.get_buffer", [("self", EMPTY)], {"return": "Union[Dataset, None]"}),
    (
        "ChunkLayer.set_buffer",
        [("self", EMPTY), ("buffer", None)],
        {"buffer": "Union[List[np.ndarray], Tuple[np.ndarray]]"},
    ),
    ("ChunkLayer._add_to_buffer", [("self", EMPTY), ("dataset", EMPTY)], {}),
    ("ChunkLayer.remove_from_buffer", [("self", EMPTY), ("indices", EMPTY)], {}),
    ("ChunkLayer._rebuild_node", [("self", EMPTY), ("dset", EMPTY), ("node_id", EMPTY)], {"dset": "Dataset"}),
    (
        "ChunkLayer._create_node",
        [("self", EMPTY), ("dset", EMPTY), ("node_id", None), ("leaf_node_index", None)],
        {"return": "ChunkNode"},
    ),
    (
        "ChunkLayer._print_progress",
        [("self", EMPTY), ("chunk_build_time", EMPTY), ("leaf_node_index", EMPTY)],
        {},
    ),
    ("ChunkLayer.get_buffer_size", [("self", EMPTY)], {}),
    ("ChunkLayer.create_buffer_node", [("self", EMPTY), ("after_create_leaf_node", None)], {}),
    ("ChunkLayer._get_from_buffer", [("self", EMPTY), ("after_create_leaf_node", None)], {}),
    (
        "ChunkLayer.process",
        [
            ("self", EMPTY),
            ("dsets", None),
            ("create_buffer", True),
            ("is_classification", False),
            ("after_create_leaf_node", None),
        ],
        {"dsets": "Iterator"},
    ),
    ("ChunkLayer.update_buffer", [("self", EMPTY), ("indices", EMPTY), ("X", None), ("y", None)], {}),
    ("ChunkLayer.rebuild", [("self", EMPTY), ("chunk_ids", EMPTY)], {"chunk_ids": "List[str]"}),
    (
        "ChunkLayer.filter_out_samples",
        [("self", EMPTY), ("filter_function", EMPTY), ("node_ids", EMPTY), ("with_buffer", True)],
        {},
    ),
]
TABLE_IDS = [row[0] for row in METHOD_TABLE]

def source_docstrings() -> Dict[str, Optional[str]]:
    """The docstring of every class and function of the reference, as its source spells it, by qualified
    name (the interpreter may strip the indentation of what it compiles; the source keeps it)."""
    docstrings = {}
    for node in ast.parse(Path(reference.__file__).read_text()).body:
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            docstrings[node.name] = ast.get_docstring(node, clean=False)
        if isinstance(node, ast.ClassDef):
            for inner in node.body:
                if isinstance(inner, ast.FunctionDef):
                    docstrings[f"{node.name}.{inner.name}"] = ast.get_docstring(inner, clean=False)
    return docstrings


DOCSTRINGS = source_docstrings()


def resolve(impl, qualname):
    obj = impl
    for part in qualname.split("."):
        obj = getattr(obj, part)
    return obj


def method_names(class_name):
    return [q.split(".", 1)[1] for q in TABLE_IDS if q.startswith(class_name + ".")]


# ---------------------------------------------------------------- module namespace


@compiled_only
def test_module_identity():
    assert chunk_layer.__name__ == MODULE_NAME
    assert sys.modules[MODULE_NAME] is chunk_layer


@compiled_only
def test_entry_point_is_exported():
    library = ctypes.CDLL(chunk_layer.__file__)
    assert hasattr(library, "PyInit_chunk_layer")


def fresh_module_names():
    """The module's namespace keys, in order, as a fresh interpreter sees them right after the import
    (tests in this process may have removed and restored names, which moves them to the end)."""
    code = "import quillmarsh.core.tree.chunk_layer as m; print(' '.join(vars(m)))"
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    return result.stdout.split()


@pytest.fixture(scope="module")
def module_names():
    return fresh_module_names()


@compiled_only
def test_names_in_definition_order(module_names):
    names = [name for name in module_names if not (name.startswith("__") and name.endswith("__"))]
    assert names == IMPORTED_NAMES + DEFINED_NAMES


@compiled_only
def test_test_dict_is_bound_last_and_empty(module_names):
    assert module_names[-1] == "__test__"
    assert type(chunk_layer.__test__) is dict
    assert chunk_layer.__test__ == {}


@compiled_only
def test_defined_names_come_after_every_import(module_names):
    last_import = max(module_names.index(name) for name in IMPORTED_NAMES)
    positions = [module_names.index(name) for name in DEFINED_NAMES]
    assert positions == sorted(positions)
    assert positions[0] > last_import


@pytest.mark.parametrize("name", IMPORTED_NAMES)
def test_imported_name_is_bound_to_its_object(impl, name):
    assert getattr(impl, name) is EXPECTED_BINDINGS[name]


def test_utils_is_the_tree_utils_module_itself(impl):
    assert impl.utils is sys.modules["quillmarsh.core.tree.utils"]
    assert impl.utils.is_simple_chunk_size is quillmarsh.core.tree.utils.is_simple_chunk_size


def test_buffer_node_id(impl):
    assert impl.BUFFER_NODE_ID == "buffer"
    assert type(impl.BUFFER_NODE_ID) is str


@compiled_only
def test_collaborators_are_imported_in_table_order():
    # In a fresh interpreter, note the first import of every third-party and library module.
    code = textwrap.dedent(
        """
        import sys
        wanted = [
            "numpy", "pandas", "psutil", "quillmarsh.core.tree.utils", "quillmarsh.core.coreset._base",
            "quillmarsh.core.helpers", "quillmarsh.core.numpy_extra", "quillmarsh.data.common",
            "quillmarsh.data.manager", "quillmarsh.data.data_auto_processor", "quillmarsh.common",
        ]
        seen = []

        class Recorder:
            def find_spec(self, name, path=None, target=None):
                if name in wanted and name not in seen:
                    seen.append(name)
                return None

        assert not any(name in sys.modules for name in wanted)
        sys.meta_path.insert(0, Recorder())
        import quillmarsh.core.tree.chunk_layer
        print(",".join(seen))
        """
    )
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip().split(",") == [
        "numpy",
        "pandas",
        "psutil",
        "quillmarsh.core.tree.utils",
        "quillmarsh.core.coreset._base",
        "quillmarsh.core.helpers",
        "quillmarsh.core.numpy_extra",
        "quillmarsh.data.common",
        "quillmarsh.data.manager",
        "quillmarsh.data.data_auto_processor",
        "quillmarsh.common",
    ]


def test_module_keeps_no_mutable_state_between_layers(impl):
    before = dict(vars(impl))
    layer = impl.ChunkLayer(object(), chunk_size=3, chunk_index=2)
    assert layer.chunk_index == 2
    assert list(vars(impl)) == list(before)
    assert all(vars(impl)[name] is value for name, value in before.items())


# ---------------------------------------------------------------- records

PARAMS_FIELDS = [
    ("coreset_params", "dict", None),
    ("coreset_cls", "Any", None),
    ("coreset_size", "int", 10),
    ("chunk_id", "Any", None),
]
SENSITIVITIES_FIELDS = [
    ("coreset", "dict", None),
    ("params", "ChunkSensitivitiesParams", None),
    ("removed_rows", "np.ndarray", None),
    ("no_features", "int", None),
]
RECORDS = [("ChunkSensitivitiesParams", PARAMS_FIELDS), ("ChunkSensitivities", SENSITIVITIES_FIELDS)]
RECORD_IDS = [name for name, _ in RECORDS]


@pytest.mark.parametrize(("name", "fields"), RECORDS, ids=RECORD_IDS)
def test_record_is_a_plain_dataclass(impl, name, fields):
    cls = getattr(impl, name)
    assert dataclasses.is_dataclass(cls)
    assert type(cls) is type
    assert cls.__bases__ == (object,)
    assert cls.__name__ == name
    assert cls.__qualname__ == name
    assert cls.__module__ == impl.__name__
    params = cls.__dataclass_params__
    assert (params.init, params.repr, params.eq) == (True, True, True)
    assert (params.order, params.unsafe_hash, params.frozen) == (False, False, False)


@pytest.mark.parametrize(("name", "fields"), RECORDS, ids=RECORD_IDS)
def test_record_fields_annotations_and_defaults(impl, name, fields):
    cls = getattr(impl, name)
    declared = dataclasses.fields(cls)
    assert [f.name for f in declared] == [field[0] for field in fields]
    assert [f.type for f in declared] == [field[1] for field in fields]
    assert [f.default for f in declared] == [field[2] for field in fields]
    assert all(f.default_factory is dataclasses.MISSING for f in declared)
    assert all(f.init and f.repr and f.compare and f.hash is None for f in declared)
    assert cls.__annotations__ == {field[0]: field[1] for field in fields}
    assert all(type(value) is str for value in cls.__annotations__.values())


@pytest.mark.parametrize(("name", "fields"), RECORDS, ids=RECORD_IDS)
def test_record_has_no_docstring_of_its_own(impl, name, fields):
    # Without a docstring, dataclass writes the constructor's signature as the class's __doc__.
    plain = dataclasses.make_dataclass(
        name, [(f_name, f_type, dataclasses.field(default=f_default)) for f_name, f_type, f_default in fields]
    )
    cls = getattr(impl, name)
    assert cls.__doc__ == plain.__doc__
    assert str(inspect.signature(cls)) == str(inspect.signature(plain))


def test_params_record_defaults(impl):
    record = impl.ChunkSensitivitiesParams()
    assert record.coreset_size == 10
    assert type(record.coreset_size) is int
    assert (record.coreset_params, record.coreset_cls, record.chunk_id) == (None, None, None)


def test_sensitivities_record_defaults(impl):
    record = impl.ChunkSensitivities()
    values = (record.coreset, record.params, record.removed_rows, record.no_features)
    assert values == (None, None, None, None)


def test_params_record_constructor_takes_positions_and_keywords(impl):
    cls = impl.ChunkSensitivitiesParams
    record = cls({"a": 1}, dict, 5, "c1")
    assert (record.coreset_params, record.coreset_cls, record.coreset_size, record.chunk_id) == (
        {"a": 1},
        dict,
        5,
        "c1",
    )
    assert cls(chunk_id="x").chunk_id == "x"
    with pytest.raises(TypeError):
        cls(1, 2, 3, 4, 5)
    with pytest.raises(TypeError):
        cls(size=3)


def test_params_record_repr(impl):
    record = impl.ChunkSensitivitiesParams(coreset_params={"k": 1}, chunk_id="c")
    assert repr(record) == (
        "ChunkSensitivitiesParams(coreset_params={'k': 1}, coreset_cls=None, coreset_size=10, chunk_id='c')"
    )


def test_sensitivities_record_repr(impl):
    params = impl.ChunkSensitivitiesParams()
    record = impl.ChunkSensitivities(coreset={}, params=params, no_features=3)
    assert repr(record) == (
        "ChunkSensitivities(coreset={}, params=ChunkSensitivitiesParams(coreset_params=None,"
        " coreset_cls=None, coreset_size=10, chunk_id=None), removed_rows=None, no_features=3)"
    )


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_equality_is_field_wise(impl, name):
    cls = getattr(impl, name)
    assert cls() == cls()
    assert cls() is not cls()
    first = cls()
    second = cls()
    setattr(second, dataclasses.fields(cls)[0].name, {"changed": True})
    assert first != second
    assert cls() != tuple(getattr(cls(), f.name) for f in dataclasses.fields(cls))


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_is_unhashable(impl, name):
    cls = getattr(impl, name)
    assert cls.__hash__ is None
    with pytest.raises(TypeError, match=f"unhashable type: '{name}'"):
        hash(cls())


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_is_mutable(impl, name):
    cls = getattr(impl, name)
    record = cls()
    for field in dataclasses.fields(cls):
        setattr(record, field.name, 42)
    assert all(getattr(record, field.name) == 42 for field in dataclasses.fields(cls))
    assert dataclasses.asdict(record) == {field.name: 42 for field in dataclasses.fields(cls)}


def test_record_order_is_not_defined(impl):
    with pytest.raises(TypeError):
        assert impl.ChunkSensitivitiesParams() < impl.ChunkSensitivitiesParams()


# ---------------------------------------------------------------- classes

CLASSES = ["ChunkNode", "ChunkLayer"]


@pytest.mark.parametrize("name", CLASSES)
def test_class_shape(impl, name):
    cls = getattr(impl, name)
    assert type(cls) is type
    assert cls.__bases__ == (object,)
    assert cls.__name__ == name
    assert cls.__qualname__ == name
    assert cls.__module__ == impl.__name__


@compiled_only
@pytest.mark.parametrize("name", CLASSES)
def test_class_docstring(name):
    assert getattr(chunk_layer, name).__doc__ == DOCSTRINGS[name]


@compiled_only
@pytest.mark.parametrize("name", ["ChunkNode", "ChunkLayer"])
def test_class_dict_holds_only_docstring_and_methods(name):
    # Read in a fresh interpreter: pickling or copying an instance elsewhere in the suite makes
    # copyreg cache `__slotnames__` on the class, as it does for any class.
    code = f"from quillmarsh.core.tree import chunk_layer; print(list(vars(chunk_layer.{name})))"
    result = subprocess.run(
        [sys.executable, "-c", code], capture_output=True, text=True, timeout=60, check=True
    )
    keys = ast.literal_eval(result.stdout.strip())
    assert keys == ["__module__", "__doc__", *method_names(name), "__dict__", "__weakref__"]


@pytest.mark.parametrize("name", ["ChunkNode", "ChunkLayer"])
def test_methods_are_undecorated_functions(impl, name):
    cls = getattr(impl, name)
    function_type = type(impl.exclude_removed)
    for method in method_names(name):
        raw = cls.__dict__[method]
        assert type(raw) is function_type, method
        assert getattr(cls, method) is raw


@pytest.mark.parametrize("name", ["ChunkNode", "ChunkLayer"])
def test_instances_have_a_dict_and_are_weak_referenceable(impl, name):
    cls = getattr(impl, name)
    instance = cls.__new__(cls)
    instance.extra = 1
    assert vars(instance) == {"extra": 1}
    assert weakref.ref(instance)() is instance


# ---------------------------------------------------------------- the method table


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_signature(impl, qualname, parameters, annotations):
    signature = inspect.signature(resolve(impl, qualname))
    assert [p.name for p in signature.parameters.values()] == [name for name, _ in parameters]
    assert all(p.kind is inspect.Parameter.POSITIONAL_OR_KEYWORD for p in signature.parameters.values())
    for (name, default), param in zip(parameters, signature.parameters.values()):
        assert param.default is default or param.default == default, name
        assert type(param.default) is type(default), name
        assert param.annotation == annotations.get(name, EMPTY), name
    assert signature.return_annotation == annotations.get("return", inspect.Signature.empty)


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_annotations(impl, qualname, parameters, annotations):
    function = resolve(impl, qualname)
    assert function.__annotations__ == annotations
    assert list(function.__annotations__) == list(annotations)


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_names_and_module(impl, qualname, parameters, annotations):
    function = resolve(impl, qualname)
    assert function.__name__ == qualname.rsplit(".", 1)[-1]
    assert function.__qualname__ == qualname
    assert function.__module__ == impl.__name__


@compiled_only
@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_docstring(qualname, parameters, annotations):
    function = resolve(chunk_layer, qualname)
    assert (function.__doc__ is None) is (qualname in NO_DOCSTRING)
    assert function.__doc__ == DOCSTRINGS[qualname]


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_defaults(impl, qualname, parameters, annotations):
    function = resolve(impl, qualname)
    defaults = tuple(default for _, default in parameters if default is not EMPTY)
    if defaults:
        assert function.__defaults__ == defaults
        assert [type(d) for d in function.__defaults__] == [type(d) for d in defaults]
    else:
        assert function.__defaults__ is None
    assert function.__kwdefaults__ is None


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_code_arguments(impl, qualname, parameters, annotations):
    code = resolve(impl, qualname).__code__
    names = tuple(name for name, _ in parameters)
    assert code.co_argcount == len(names)
    assert code.co_kwonlyargcount == 0
    assert code.co_varnames[: len(names)] == names
