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
from quillmarsh.core.tree import chunk_layer

MODULE_NAME = "quillmarsh.core.tree.chunk_layer"
EMPTY = inspect.Parameter.empty

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

DOCSTRINGS = {
    "exclude_removed": (
        "\n"
        "    Exclude removed indices from the given indices and dataset.\n"
        "\n"
        "    Args:\n"
        "        removed: A list or array-like object containing the indices to be removed.\n"
        "        indices: The original indices from which to exclude the removed indices.\n"
        "        dataset: A tuple or list containing arrays or None representing the dataset.\n"
        "\n"
        "    Returns:\n"
        "        Tuple: A tuple containing the updated indices and the updated dataset (if provided).\n"
        "\n"
        "    The function creates a mask to exclude the removed indices from the given indices. If"
        " a dataset is provided,\n"
        "    it applies the mask to the dataset, updating the corresponding arrays.\n"
        "\n"
        "    If no dataset is provided, only the indices are returned.\n"
        "\n"
        "    Example:\n"
        "        removed = [2, 5, 7]\n"
        "        indices = [1, 2, 3, 4, 5, 6, 7, 8, 9]\n"
        "        dataset = (array1, array2, array3)  # Arrays representing the dataset\n"
        "\n"
        "        new_indices, new_dataset = exclude_removed(removed, indices, dataset)\n"
        "\n"
        "        # new_indices: [1, 3, 4, 6, 8, 9]\n"
        "        # new_dataset: (updated_array1, updated_array2, updated_array3)\n"
        "    "
    ),
    "ChunkNode": (
        "\n"
        "    A class for creating chunk nodes.\n"
        "\n"
        "    Parameters\n"
        "    ----------\n"
        "    dset : Dataset\n"
        "        The dataset to build the coreset from.\n"
        "    params : Iterable[ChunkSensitivitiesParams]\n"
        "        A list of parameters to build the coreset.\n"
        "    node_id : str, optional\n"
        "        A unique identifier for the node, by default None.\n"
        "    "
    ),
    "ChunkNode.is_buffer": (
        "\n"
        "        Returns True if the node_id is the BUFFER_NODE_ID.\n"
        "        "
    ),
    "ChunkNode.add_indices": (
        "\n"
        "        Adds indices to the node.\n"
        "\n"
        "        Parameters\n"
        "        ----------\n"
        "        indices : numpy.ndarray\n"
        "            An array of indices.\n"
        "        "
    ),
    "ChunkNode._instantiate_coreset": (
        "\n"
        "        Instantiates a coreset object.\n"
        "\n"
        "        Parameters\n"
        "        ----------\n"
        "        coreset_cls : CoresetBase class\n"
        "            A CoresetBase class.\n"
        "        coreset_params : dict, optional\n"
        "            A dictionary of coreset parameters, by default None.\n"
        "\n"
        "        Returns\n"
        "        -------\n"
        "        CoresetBase\n"
        "            A coreset object.\n"
        "        "
    ),
    "ChunkNode.build": (
        "\n"
        "        Builds the coreset.\n"
        "\n"
        "        Returns\n"
        "        -------\n"
        "        ChunkNode\n"
        "            The ChunkNode object.\n"
        "        "
    ),
    "ChunkNode.save": (
        "\n"
        "        Saves the selected samples asynchronously.\n"
        "\n"
        "        Parameters\n"
        "        ----------\n"
        "        data_manager : object\n"
        "            The data manager object.\n"
        "        "
    ),
    "ChunkLayer": (
        "\n"
        "    A chunk layer for incremental learning.\n"
        "\n"
        "    This layer divides the dataset into chunks of samples and performs incremental"
        " learning on each chunk.\n"
        "\n"
        "    Args:\n"
        "        data_manager: A data manager instance that provides access to the dataset.\n"
        "        chunk_corset_params: An iterable of `ChunkSensitivitiesParams` objects, each"
        " containing the parameters for\n"
        "            building a coreset on a chunk of data. Default is `None`.\n"
        "        chunk_size: The maximum size of a chunk. If `None`, the entire dataset is treated"
        " as a single chunk.\n"
        "            Default is `None`.\n"
        "    "
    ),
    "ChunkLayer.has_buffer": (
        "\n"
        "        Checks if there is a buffer available.\n"
        "\n"
        "        Returns:\n"
        "            bool: True if there is a buffer available and not empty, False otherwise.\n"
        "        "
    ),
    "ChunkLayer.get_buffer": (
        "\n"
        "        returns unhandled instances.\n"
        "\n"
        "        Returns\n"
        "        -------\n"
        "        a list of numpy arrays\n"
        "\n"
        "        "
    ),
    "ChunkLayer.set_buffer": (
        "\n"
        "        set tree's internal buffer of unhandled instances\n"
        "\n"
        "        Parameters\n"
        "        ----------\n"
        "        buffer: list of numpy ndarrays\n"
        "\n"
        "        Returns\n"
        "        -------\n"
        "\n"
        "        "
    ),
    "ChunkLayer._add_to_buffer": (
        "\n"
        "        Adds the given dataset to the buffer.\n"
        "\n"
        "        Args:\n"
        "            dataset: The dataset to be added to the buffer.\n"
        "        "
    ),
    "ChunkLayer.get_buffer_size": (
        "\n"
        "        Returns the size of the buffer.\n"
        "\n"
        "        Returns:\n"
        "            int: The size of the buffer.\n"
        "        "
    ),
    "ChunkLayer._create_node": (
        "\n"
        "        Creates a new ChunkNode object.\n"
        "\n"
        "        Args:\n"
        "            dset: The dataset used to build the ChunkNode.\n"
        "            node_id: Optional parameter specifying the ID of the new ChunkNode.\n"
        "            leaf_node_index: Optional parameter specifying the chunk index for verbose,"
        " can be None for buffer node.\n"
        "        Returns:\n"
        "            ChunkNode: A new ChunkNode object.\n"
        "        "
    ),
    "ChunkLayer._print_progress": (
        "\n"
        "        print progress in case n_instances is not None:\n"
        "        2024-04-01 14:10:37 Completed 19 out of 100 chunks, (chunk was built in 0.003 seconds)\n"
        "        else:\n"
        "        2024-04-01 14:10:37 Completed 19 chunks, (chunk was built in 0.003 seconds)\n"
        "        chunk build time is printed in yellow\n"
        "        Args:\n"
        "            chunk_build_time: time it took to build a chunk in seconds\n"
        "        "
    ),
    "ChunkLayer.create_buffer_node": (
        "\n"
        "        Creates a new ChunkNode object using the data stored in the buffer.\n"
        "\n"
        "        Returns:\n"
        "            Union[None, ChunkNode]: A new ChunkNode object if there is a buffer"
        " available, None otherwise.\n"
        "        "
    ),
    "ChunkLayer._get_from_buffer": (
        "\n"
        "        Generator that moves data from buffer to CoreSet tree if the length of buffer is"
        " greater than chunk_size.\n"
        "        If the buffer has not enough elements to form a chunk according to the"
        " chunk_size, no node will be yielded.\n"
        "        If the chunk_size is set to 0, the whole buffer will be consumed for creating a"
        " single coreset node.\n"
        "\n"
        "        Yields:\n"
        "            ChunkNode: A ChunkNode object that contains coreset information computed from"
        " the chunk of data\n"
        "            in the buffer.\n"
    ),
    "ChunkLayer.process": (
        "\n"
        "        Process input datasets by adding them to the internal buffer and creating coreset"
        " nodes from the buffered data.\n"
        "\n"
        "        Args:\n"
        "            dsets (List[Dataset]): A list of input datasets to be processed.\n"
        "            create_buffer (bool, optional): Whether to create a buffer node from the"
        " remaining data in the buffer\n"
        "                after processing all input datasets. Defaults to True.\n"
        "            is_classification (bool, optional): Whether the task is classification."
        " Defaults to False.\n"
        "            after_create_leaf_node: callable to be executed after node leaf creation\n"
        "        Yields:\n"
        "            ChunkNode: A coreset node created from the buffered data.\n"
        "\n"
        "        Returns:\n"
        "            None\n"
    ),
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

CHUNK_NODE_DOC_LINES = [
    "",
    "    A class for creating chunk nodes.",
    "",
    "    Parameters",
    "    ----------",
    "    dset : Dataset",
    "        The dataset to build the coreset from.",
    "    params : Iterable[ChunkSensitivitiesParams]",
    "        A list of parameters to build the coreset.",
    "    node_id : str, optional",
    "        A unique identifier for the node, by default None.",
    "    ",
]
CHUNK_LAYER_DOC_LINES = [
    "",
    "    A chunk layer for incremental learning.",
    "",
    "    This layer divides the dataset into chunks of samples and performs incremental learning on each"
    " chunk.",
    "",
    "    Args:",
    "        data_manager: A data manager instance that provides access to the dataset.",
    "        chunk_corset_params: An iterable of `ChunkSensitivitiesParams` objects, each containing the"
    " parameters for",
    "            building a coreset on a chunk of data. Default is `None`.",
    "        chunk_size: The maximum size of a chunk. If `None`, the entire dataset is treated as a single"
    " chunk.",
    "            Default is `None`.",
    "    ",
]


def resolve(qualname):
    obj = chunk_layer
    for part in qualname.split("."):
        obj = getattr(obj, part)
    return obj


def method_names(class_name):
    return [q.split(".", 1)[1] for q in TABLE_IDS if q.startswith(class_name + ".")]


# ---------------------------------------------------------------- module namespace


def test_module_identity():
    assert chunk_layer.__name__ == MODULE_NAME
    assert sys.modules[MODULE_NAME] is chunk_layer


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


def test_names_in_definition_order(module_names):
    names = [name for name in module_names if not (name.startswith("__") and name.endswith("__"))]
    assert names == IMPORTED_NAMES + DEFINED_NAMES


def test_test_dict_is_bound_last_and_empty(module_names):
    assert module_names[-1] == "__test__"
    assert type(chunk_layer.__test__) is dict
    assert chunk_layer.__test__ == {}


def test_defined_names_come_after_every_import(module_names):
    last_import = max(module_names.index(name) for name in IMPORTED_NAMES)
    positions = [module_names.index(name) for name in DEFINED_NAMES]
    assert positions == sorted(positions)
    assert positions[0] > last_import


@pytest.mark.parametrize("name", IMPORTED_NAMES)
def test_imported_name_is_bound_to_its_object(name):
    assert getattr(chunk_layer, name) is EXPECTED_BINDINGS[name]


def test_utils_is_the_tree_utils_module_itself():
    assert chunk_layer.utils is sys.modules["quillmarsh.core.tree.utils"]
    assert chunk_layer.utils.is_simple_chunk_size is quillmarsh.core.tree.utils.is_simple_chunk_size


def test_buffer_node_id():
    assert chunk_layer.BUFFER_NODE_ID == "buffer"
    assert type(chunk_layer.BUFFER_NODE_ID) is str


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


def test_module_keeps_no_mutable_state_between_layers():
    before = dict(vars(chunk_layer))
    layer = chunk_layer.ChunkLayer(object(), chunk_size=3, chunk_index=2)
    assert layer.chunk_index == 2
    assert list(vars(chunk_layer)) == list(before)
    assert all(vars(chunk_layer)[name] is value for name, value in before.items())


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
def test_record_is_a_plain_dataclass(name, fields):
    cls = getattr(chunk_layer, name)
    assert dataclasses.is_dataclass(cls)
    assert type(cls) is type
    assert cls.__bases__ == (object,)
    assert cls.__name__ == name
    assert cls.__qualname__ == name
    assert cls.__module__ == MODULE_NAME
    params = cls.__dataclass_params__
    assert (params.init, params.repr, params.eq) == (True, True, True)
    assert (params.order, params.unsafe_hash, params.frozen) == (False, False, False)


@pytest.mark.parametrize(("name", "fields"), RECORDS, ids=RECORD_IDS)
def test_record_fields_annotations_and_defaults(name, fields):
    cls = getattr(chunk_layer, name)
    declared = dataclasses.fields(cls)
    assert [f.name for f in declared] == [field[0] for field in fields]
    assert [f.type for f in declared] == [field[1] for field in fields]
    assert [f.default for f in declared] == [field[2] for field in fields]
    assert all(f.default_factory is dataclasses.MISSING for f in declared)
    assert all(f.init and f.repr and f.compare and f.hash is None for f in declared)
    assert cls.__annotations__ == {field[0]: field[1] for field in fields}
    assert all(type(value) is str for value in cls.__annotations__.values())


@pytest.mark.parametrize(("name", "fields"), RECORDS, ids=RECORD_IDS)
def test_record_has_no_docstring_of_its_own(name, fields):
    # Without a docstring, dataclass writes the constructor's signature as the class's __doc__.
    reference = dataclasses.make_dataclass(
        name, [(f_name, f_type, dataclasses.field(default=f_default)) for f_name, f_type, f_default in fields]
    )
    cls = getattr(chunk_layer, name)
    assert cls.__doc__ == reference.__doc__
    assert str(inspect.signature(cls)) == str(inspect.signature(reference))


def test_params_record_defaults():
    record = chunk_layer.ChunkSensitivitiesParams()
    assert record.coreset_size == 10
    assert type(record.coreset_size) is int
    assert (record.coreset_params, record.coreset_cls, record.chunk_id) == (None, None, None)


def test_sensitivities_record_defaults():
    record = chunk_layer.ChunkSensitivities()
    values = (record.coreset, record.params, record.removed_rows, record.no_features)
    assert values == (None, None, None, None)


def test_params_record_constructor_takes_positions_and_keywords():
    cls = chunk_layer.ChunkSensitivitiesParams
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


def test_params_record_repr():
    record = chunk_layer.ChunkSensitivitiesParams(coreset_params={"k": 1}, chunk_id="c")
    assert repr(record) == (
        "ChunkSensitivitiesParams(coreset_params={'k': 1}, coreset_cls=None, coreset_size=10, chunk_id='c')"
    )


def test_sensitivities_record_repr():
    params = chunk_layer.ChunkSensitivitiesParams()
    record = chunk_layer.ChunkSensitivities(coreset={}, params=params, no_features=3)
    assert repr(record) == (
        "ChunkSensitivities(coreset={}, params=ChunkSensitivitiesParams(coreset_params=None,"
        " coreset_cls=None, coreset_size=10, chunk_id=None), removed_rows=None, no_features=3)"
    )


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_equality_is_field_wise(name):
    cls = getattr(chunk_layer, name)
    assert cls() == cls()
    assert cls() is not cls()
    first = cls()
    second = cls()
    setattr(second, dataclasses.fields(cls)[0].name, {"changed": True})
    assert first != second
    assert cls() != tuple(getattr(cls(), f.name) for f in dataclasses.fields(cls))


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_is_unhashable(name):
    cls = getattr(chunk_layer, name)
    assert cls.__hash__ is None
    with pytest.raises(TypeError, match=f"unhashable type: '{name}'"):
        hash(cls())


@pytest.mark.parametrize("name", RECORD_IDS)
def test_record_is_mutable(name):
    cls = getattr(chunk_layer, name)
    record = cls()
    for field in dataclasses.fields(cls):
        setattr(record, field.name, 42)
    assert all(getattr(record, field.name) == 42 for field in dataclasses.fields(cls))
    assert dataclasses.asdict(record) == {field.name: 42 for field in dataclasses.fields(cls)}


def test_record_order_is_not_defined():
    with pytest.raises(TypeError):
        assert chunk_layer.ChunkSensitivitiesParams() < chunk_layer.ChunkSensitivitiesParams()


# ---------------------------------------------------------------- classes

CLASSES = [("ChunkNode", CHUNK_NODE_DOC_LINES), ("ChunkLayer", CHUNK_LAYER_DOC_LINES)]


@pytest.mark.parametrize(("name", "lines"), CLASSES, ids=[c[0] for c in CLASSES])
def test_class_shape(name, lines):
    cls = getattr(chunk_layer, name)
    assert type(cls) is type
    assert cls.__bases__ == (object,)
    assert cls.__name__ == name
    assert cls.__qualname__ == name
    assert cls.__module__ == MODULE_NAME


@pytest.mark.parametrize(("name", "lines"), CLASSES, ids=[c[0] for c in CLASSES])
def test_class_docstring(name, lines):
    cls = getattr(chunk_layer, name)
    assert cls.__doc__ == DOCSTRINGS[name]
    assert cls.__doc__.split("\n") == lines


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
def test_methods_are_undecorated_functions(name):
    cls = getattr(chunk_layer, name)
    function_type = type(chunk_layer.exclude_removed)
    for method in method_names(name):
        raw = cls.__dict__[method]
        assert type(raw) is function_type, method
        assert getattr(cls, method) is raw


@pytest.mark.parametrize("name", ["ChunkNode", "ChunkLayer"])
def test_instances_have_a_dict_and_are_weak_referenceable(name):
    cls = getattr(chunk_layer, name)
    instance = cls.__new__(cls)
    instance.extra = 1
    assert vars(instance) == {"extra": 1}
    assert weakref.ref(instance)() is instance


# ---------------------------------------------------------------- the method table


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_signature(qualname, parameters, annotations):
    signature = inspect.signature(resolve(qualname))
    assert [p.name for p in signature.parameters.values()] == [name for name, _ in parameters]
    assert all(p.kind is inspect.Parameter.POSITIONAL_OR_KEYWORD for p in signature.parameters.values())
    for (name, default), param in zip(parameters, signature.parameters.values()):
        assert param.default is default or param.default == default, name
        assert type(param.default) is type(default), name
        assert param.annotation == annotations.get(name, EMPTY), name
    assert signature.return_annotation == annotations.get("return", inspect.Signature.empty)


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_annotations(qualname, parameters, annotations):
    function = resolve(qualname)
    assert function.__annotations__ == annotations
    assert list(function.__annotations__) == list(annotations)


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_names_and_module(qualname, parameters, annotations):
    function = resolve(qualname)
    assert function.__name__ == qualname.rsplit(".", 1)[-1]
    assert function.__qualname__ == qualname
    assert function.__module__ == MODULE_NAME


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_docstring(qualname, parameters, annotations):
    function = resolve(qualname)
    if qualname in NO_DOCSTRING:
        assert function.__doc__ is None
    else:
        assert function.__doc__ == DOCSTRINGS[qualname]


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_defaults(qualname, parameters, annotations):
    function = resolve(qualname)
    defaults = tuple(default for _, default in parameters if default is not EMPTY)
    if defaults:
        assert function.__defaults__ == defaults
        assert [type(d) for d in function.__defaults__] == [type(d) for d in defaults]
    else:
        assert function.__defaults__ is None
    assert function.__kwdefaults__ is None


@pytest.mark.parametrize(("qualname", "parameters", "annotations"), METHOD_TABLE, ids=TABLE_IDS)
def test_code_arguments(qualname, parameters, annotations):
    code = resolve(qualname).__code__
    names = tuple(name for name, _ in parameters)
    assert code.co_argcount == len(names)
    assert code.co_kwonlyargcount == 0
    assert code.co_varnames[: len(names)] == names
