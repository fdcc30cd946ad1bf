"""Per-call cost of every callable of the chunk layer: the module against its Cython peer and plain Python.

Every collaborator is a no-op stand-in, so that what is timed is the layer itself: a data manager whose
attributes are plain values, a parent whose ``update_build_params`` does nothing, a task pool that queues
nothing, a preprocessor and a coreset class that return what they are given, ``ChunkNode`` replaced by a
trivial class for the layer's operations (the node's own operations use each implementation's real
``ChunkNode``), and arrays of 2 to 4 rows so that numpy's own cost is small. The stand-ins are put in
the same place in every implementation's namespace, which each looks its globals up in at call time.

For each operation five loops are timed, interleaved, in every round:

- ``module``: the operation on ``quillmarsh.core.tree.chunk_layer`` (the C++ module);
- ``cython``: the same operation on ``baseline_cython``, ``baseline.py`` compiled with Cython 3;
- ``python``: the same operation on ``baseline`` (``baseline.py`` run by the interpreter);
- ``floor``: only the numpy and collaborator calls that the operation must make, inline;
- ``harness``: the loop with its per-iteration reset and no call, subtracted from the others.

The loops are made from source text, as ``timeit`` makes them, so that the five loops of one operation
differ only in the statement measured. Blocks are timed with the thread's CPU clock (``--clock wall``
for the monotonic one): on a shared machine, the time that other work takes the core away is not the
loop's. The figure reported per implementation is the median over the rounds of
``(loop time - harness time) / iterations``, in nanoseconds. ``vs_cython`` is module / cython
(target <= 1.00), ``own`` is (module - floor) / (cython - floor): the share of the peer's own work (all
but the unavoidable calls) that the module still spends (target for the median operation <= 0.5).

    .venv/bin/python benchmarks/bench_overhead.py [--repeats N] [--block-ms MS] [--operation NAME ...]
"""

from __future__ import annotations

import argparse
import gc
import statistics
import sys
import textwrap
import time
from dataclasses import dataclass
from types import ModuleType, SimpleNamespace
from typing import Any, Callable, Dict, List, Optional

import baseline
import cython_peer
import numpy as np
import quillmarsh.core.tree.chunk_layer as chunk_layer

from quillmarsh.core.helpers import align_arrays_by_key
from quillmarsh.core.numpy_extra import filter_missing_and_inf
from quillmarsh.core.tree import utils
from quillmarsh.data.common import Dataset

CHUNK_SIZE = 4
TARGET_VS_CYTHON = 1.00  # module / cython, per operation, by the median of the rounds
TARGET_OWN = 0.5  # (module - floor) / (cython - floor), for the median operation
FLOOR_BOUND = 0.05  # no own ratio when the peer's own work is below this share of its time
MEASURED = ("module", "cython", "python")
IMPLEMENTATIONS = (*MEASURED, "floor", "harness")
#: The globals swapped for stand-ins in every implementation's namespace while the loops run.
PATCHED = ("ChunkNode", "DataAutoProcessor", "ThreadPoolManager")


# ---- stand-ins -------------------------------------------------------------------------------------------


class NoOpDataManager:
    """A data manager whose attributes are plain values and whose operations return at once."""

    def __init__(self, n_jobs: Any = None, n_instances: Any = None, removed: Any = None, chunk: Any = None):
        self.n_jobs = n_jobs
        self.verbose = 0
        self.n_instances = n_instances
        self.removed = removed
        self.chunk = chunk
        self.data_params = SimpleNamespace(
            features=[SimpleNamespace(name="a"), SimpleNamespace(name="b")],
            drop_rows_below=0,
            drop_cols_above=1.0,
        )
        self.data_params_internal = SimpleNamespace(
            categorical_features_=[], aggregated_missing_replacements=None
        )

    def get_removed(self) -> Any:
        return self.removed

    def get_by_nodes(self, node_ids: Any, with_props: bool = False) -> Any:
        return self.chunk

    def cat_encoding_config_clear(self) -> None:
        return None

    def save_selected_samples_async(self, dset: Any, indices: Any, node_id: Any, is_buffer: Any = False
                                    ) -> None:
        return None


class NoOpParent:
    def update_build_params(self) -> None:
        return None


class TrivialNode:
    """Stands in for ``ChunkNode`` in the layer's operations: keeps its dataset, its build returns itself."""

    __slots__ = ("dset", "params", "node_id", "data_manager")

    def __init__(self, dset, params, node_id=None, tree_build_params=None, data_manager=None):
        self.dset = dset
        self.params = params
        self.node_id = node_id
        self.data_manager = data_manager

    def build(self) -> TrivialNode:
        return self


class StandInProcessor:
    """Stands in for ``DataAutoProcessor``: keeps the arrays it is given and hands them back."""

    __slots__ = ("X", "y", "ind", "props", "feature_names", "removed_rows")

    def __init__(self, X, y, ind, props, categorical_features, feature_names, cat_encoding_config,
                 missing_replacement, drop_rows_below, drop_cols_above):
        self.X = X
        self.y = y
        self.ind = ind
        self.props = props
        self.feature_names = feature_names
        self.removed_rows = None

    def handle_missing_and_categorical_encoding(self, sparse_threshold):
        return self.X

    def get_processed_arrays(self):
        return self.y, self.X, self.ind


EMPTY_DICT: Dict[str, Any] = {}


class StandInCoreset:
    """Stands in for a coreset class: takes any keyword, computes nothing."""

    __slots__ = ("safe_mode",)

    def __init__(self, **params: Any) -> None:
        self.safe_mode = False

    def compute_sensitivities(self, X, y) -> None:
        return None

    def to_dict(self, with_important, use_keep_selected_only) -> Dict[str, Any]:
        return EMPTY_DICT


class NoOpPool:
    """Stands in for the shared task pool: queues nothing."""

    def add_to_queue(self, task, check, priority, chunk, leaf_index) -> None:
        return None

    def has_running_tasks(self) -> bool:
        return False


NO_OP_POOL = NoOpPool()


def no_op_pool() -> NoOpPool:
    """Stands in for ``ThreadPoolManager``: called with no arguments, hands back the one pool."""
    return NO_OP_POOL


class NullSink:
    """Standard output for ``_print_progress``: takes the text and drops it."""

    def write(self, text: str) -> int:
        return len(text)

    def flush(self) -> None:
        return None


class Sink:
    """What the floor and harness loops write to where the others write to a layer or node."""

    def __init__(self) -> None:
        self.buffer: Any = None
        self.indices: Any = None
        self.coresets: List[Any] = []


def make_dataset(rows: int, start: int = 0) -> Dataset:
    return Dataset(
        np.arange(start, start + rows, dtype=np.int64),
        np.arange(2 * rows, dtype=np.float64).reshape(rows, 2),
        np.arange(rows, dtype=np.float64) % 2,
    )


def namespaces() -> Dict[str, ModuleType]:
    """The three implementations, by name (the Cython peer is built first if needed)."""
    return {"module": chunk_layer, "cython": cython_peer.load(), "python": baseline}


# ---- the fixture -----------------------------------------------------------------------------------------


def make_fixture(spaces: Dict[str, ModuleType], nodes: Dict[str, Any]) -> Dict[str, Dict[str, Any]]:
    """The names each implementation's loops see: the shared objects, and its own layers and nodes.

    ``nodes`` holds each implementation's real ``ChunkNode`` (its global is a stand-in while timing).
    """
    full = make_dataset(CHUNK_SIZE)
    half = make_dataset(2)
    record = chunk_layer.ChunkSensitivitiesParams(
        coreset_params={"dtype": "float32"}, coreset_cls=StandInCoreset
    )
    params = [record]
    common: Dict[str, Any] = {
        "np": np,
        "in1d": getattr(np, "in1d", None) or np.isin,
        "sys": sys,
        "Dataset": Dataset,
        "TrivialNode": TrivialNode,
        "StandInCoreset": StandInCoreset,
        "StandInProcessor": StandInProcessor,
        "ChunkSensitivities": chunk_layer.ChunkSensitivities,
        "pool_factory": no_op_pool,
        "task": lambda chunk, index: None,
        "check": lambda chunk, index: True,
        "uuid4": chunk_layer.uuid4,
        "align": align_arrays_by_key,
        "filter_missing": filter_missing_and_inf,
        "is_simple": utils.is_simple_chunk_size,
        "clock": time.time,
        "strftime": time.strftime,
        "localtime": time.localtime,
        "FMT": "%Y-%m-%d %H:%M:%S",
        "NULL": NullSink(),
        "BUFFER": "buffer",
        "nid": "n1",
        "parent": NoOpParent(),
        "dm": NoOpDataManager(chunk=full),
        "dm_par": NoOpDataManager(n_jobs=2),
        "dm_rm": NoOpDataManager(removed=np.array([0])),
        "dm_print": NoOpDataManager(n_instances=1000),
        "params": params,
        "p0": params[0],
        "no_params": [],
        "coreset_kw": {"k": 2},
        "full": full,
        "half": half,
        "half_u": make_dataset(2),
        "incoming": make_dataset(2, start=2),
        "fields": list(full),
        "ind": full.ind,
        "removed": np.array([1]),
        "base_indices": np.arange(3),
        "extra": np.arange(3, 5),
        "upd_ind": np.array([1]),
        "upd_y": np.array([5.0]),
        "items1": [full],
        "items8": [make_dataset(2, start=2 * i) for i in range(8)],
        "ids1": ["c1"],
        "ids8": [f"c{i}" for i in range(8)],
        "pred": lambda ind, X, y, props: ind[:1],
        "leaf": 2,
        "bt": 0.0123,
        "n_inst": 1000,
        "cs": CHUNK_SIZE,
    }
    names: Dict[str, Dict[str, Any]] = {}
    for impl, ns in spaces.items():
        dm, parent = common["dm"], common["parent"]
        layer_print = ns.ChunkLayer(common["dm_print"], params, CHUNK_SIZE, parent)
        layer_print.build_params = {"chunk_size": CHUNK_SIZE}
        names[impl] = {
            **common,
            "ChunkLayer": ns.ChunkLayer,
            "ChunkNode": nodes[impl],
            "exclude_removed": ns.exclude_removed,
            "layer": ns.ChunkLayer(dm, params, CHUNK_SIZE, parent),
            "layer_np": ns.ChunkLayer(dm, None, CHUNK_SIZE, parent),
            "layer_par": ns.ChunkLayer(common["dm_par"], params, CHUNK_SIZE, parent),
            "layer_rm": ns.ChunkLayer(common["dm_rm"], params, CHUNK_SIZE, parent),
            "layer_print": layer_print,
            "node": nodes[impl](full, params, "n1", None, dm),
            "build_node": nodes[impl](full, params, "n1", None, dm),
        }
    for impl in ("floor", "harness"):
        sink = Sink()
        names[impl] = {
            **common,
            **{k: sink for k in ("layer", "layer_np", "layer_par", "layer_rm", "layer_print", "node",
                                 "build_node")},
        }
    return names


# ---- the operations --------------------------------------------------------------------------------------


@dataclass
class Operation:
    """One operation: the statement timed in each implementation, its floor, and the loop's reset."""

    name: str
    what: str
    stmt: str  # for module, cython and python alike
    floor: str
    reset: str = ""  # every iteration, in all five loops
    before: str = ""  # once per block, before the loop
    after: str = ""  # once per block, after the loop

    def source(self, impl: str, names: List[str]) -> str:
        body = {"floor": self.floor, "harness": "pass"}.get(impl, self.stmt)
        inner = "\n".join(part for part in (self.reset, body) if part)
        return (
            f"def make({', '.join(names)}):\n"
            "    def loop(n):\n"
            f"{textwrap.indent(self.before or 'pass', ' ' * 8)}\n"
            "        try:\n"
            "            for _ in range(n):\n"
            f"{textwrap.indent(inner, ' ' * 16)}\n"
            "        finally:\n"
            f"{textwrap.indent(self.after or 'pass', ' ' * 12)}\n"
            "    return loop\n"
        )

    def loops(self, fixture: Dict[str, Dict[str, Any]]) -> Dict[str, Callable[[int], None]]:
        made = {}
        for impl in IMPLEMENTATIONS:
            names = sorted(fixture[impl])
            scope: Dict[str, Any] = {}
            exec(compile(self.source(impl, names), f"<{self.name} {impl}>", "exec"), scope)
            made[impl] = scope["make"](*(fixture[impl][k] for k in names))
        return made


_CUT = """\
is_simple(cs)
chunk = Dataset(full[0][:cs], full[1][:cs], full[2][:cs], None, None, None)
layer.buffer = Dataset(full[0][cs:], full[1][cs:], full[2][cs:], None, None, None)
"""
_BUILD_TIMED = """\
t = clock()
TrivialNode(dset=chunk, params=params, node_id=None, data_manager=dm).build()
clock() - t
"""
_PROCESS_FLOOR = """\
targets = np.array([])
for item in {items}:
    dset = Dataset(*item)
    {classify}
    # the size in MB as text: float formatting that any implementation pays in full
    str(sum([d.size * d.itemsize for d in dset if d is not None]) / 1048576)
    b = layer.buffer
    if b is None or b[1].shape[0] == 0:
        layer.buffer = Dataset(*tuple(dset))
    else:
        layer.buffer = Dataset(np.concatenate((b[0], dset[0])), np.concatenate((b[1], dset[1])),
                               np.concatenate((b[2], dset[2])), None, None, None)
    parent.update_build_params()
    is_simple(cs)
    b = layer.buffer
    if b[1].shape[0] >= cs:
        chunk = Dataset(b[0][:cs], b[1][:cs], b[2][:cs], None, None, None)
        layer.buffer = Dataset(b[0][cs:], b[1][cs:], b[2][cs:], None, None, None)
        t = clock()
        TrivialNode(dset=chunk, params=params, node_id=None, data_manager=dm).build()
        clock() - t
"""
_CLASSIFY = "targets = np.unique(filter_missing(np.concatenate([targets, dset.y])))"
_EXCLUDE = """\
mask = ~in1d({ind}, {removed})
np.any(mask)
{ind}[mask]
ds = Dataset({d}[0][mask], {d}[1][mask], {d}[2][mask], None, None, None)
"""
_BUILD_FLOOR = """\
coreset = StandInCoreset(**(p0.coreset_params or {}))
cfg = dm.cat_encoding_config_clear()
dp = dm.data_params
dpi = dm.data_params_internal
dap = StandInProcessor(X=full.X, y=full.y, ind=full.ind, props=full.props,
                       categorical_features=dpi.categorical_features_,
                       feature_names=[f.name for f in dp.features], cat_encoding_config=cfg,
                       missing_replacement=dpi.aggregated_missing_replacements,
                       drop_rows_below=dp.drop_rows_below, drop_cols_above=dp.drop_cols_above)
Xp = dap.handle_missing_and_categorical_encoding(sparse_threshold=0)
full._replace(X=dap.X, y=dap.y, ind=dap.ind, props=dap.props)
yp, _x, _i = dap.get_processed_arrays()
coreset.compute_sensitivities(X=Xp, y=yp)
build_node.coresets.append(ChunkSensitivities(
    coreset=coreset.to_dict(with_important=True, use_keep_selected_only=False), params=p0,
    removed_rows=dap.removed_rows, no_features=len(dap.feature_names)))
"""
_FILTER_FLOOR = """\
acc = np.array([])
for node_id in ids8:
    d = dm.get_by_nodes([node_id], with_props=True)
    r = pred(d.ind, d.X, d.y, d.props)
    if len(r) > 0:
        acc = np.concatenate([acc, r])
half[1].shape[0] > 0
r = pred(half.ind, half.X, half.y, half.props)
if len(r) > 0:
    acc = np.concatenate([acc, r])
"""
_PRINT_FLOOR = (
    "ct = strftime(FMT, localtime())\n"
    'print(f"{ct} Completed chunk #{leaf + 1} out of {n_inst // cs} chunks, '
    '\\033[33m(chunk was built in {bt:.3f} seconds)\\033[00m")'
)
_DRAIN = "for _node in {layer}._get_from_buffer():\n    pass"

OPERATIONS: List[Operation] = [
    # -- the node
    Operation("ChunkNode(...) by position", "dataset, params, node id, None, data manager",
              'ChunkNode(full, params, "n1", None, dm)',
              "list(params)\nnp.array([], dtype=int)"),
    Operation("ChunkNode(...) by keyword", "the same by keyword",
              'ChunkNode(dset=full, params=params, node_id="n1", data_manager=dm)',
              "list(params)\nnp.array([], dtype=int)"),
    Operation("ChunkNode(...) new id", "no node id: a fresh uuid4().hex",
              "ChunkNode(full, params)",
              "list(params)\nnp.array([], dtype=int)\nuuid4().hex"),
    Operation("ChunkNode.build()", "one parameter record; stand-in coreset class and preprocessor",
              "build_node.build()", _BUILD_FLOOR, reset="build_node.coresets.clear()"),
    Operation("ChunkNode(...).build() no params", "construction and build of a node with no records",
              'ChunkNode(full, no_params, "n1", None, dm).build()',
              "list(no_params)\nnp.array([], dtype=int)"),
    Operation("ChunkNode.save", "indices of a chunk node, to a no-op save",
              "node.save(dm)",
              "dm.save_selected_samples_async(full, base_indices, nid, is_buffer=nid == BUFFER)"),
    Operation("ChunkNode.is_buffer", "a chunk node", "node.is_buffer()", "nid == BUFFER"),
    Operation("ChunkNode.add_indices", "2 indices onto 3", "node.add_indices(extra)",
              "np.concatenate([base_indices, extra])", reset="node.indices = base_indices"),
    Operation("ChunkNode._instantiate_coreset", "a chunk node, one keyword",
              "node._instantiate_coreset(StandInCoreset, coreset_kw)", "StandInCoreset(**coreset_kw)"),
    Operation("exclude_removed, none removed", "removed None, a dataset", "exclude_removed(None, ind, full)",
              "pass"),
    Operation("exclude_removed, removals", "1 of 4 rows removed, a dataset",
              "exclude_removed(removed, ind, full)", _EXCLUDE.format(ind="ind", removed="removed", d="full")),
    # -- the layer and its buffer
    Operation("ChunkLayer(...)", "data manager, params, chunk size, parent",
              "ChunkLayer(dm, params, 4, parent)", "pass"),
    Operation("has_buffer", "buffer of 2 rows present", "layer.has_buffer()", "half[1].shape[0] > 0",
              before="layer.buffer = half"),
    Operation("get_buffer_size", "buffer of 2 rows present", "layer.get_buffer_size()",
              "half[1].shape[0] > 0\nhalf[1].shape[0]", before="layer.buffer = half"),
    Operation("get_buffer, none removed", "the data manager reports None", "layer.get_buffer()",
              "half[1].shape[0] > 0\ndm.get_removed()", before="layer.buffer = half"),
    Operation("get_buffer, removals", "1 of 2 rows removed", "layer_rm.get_buffer()",
              "half[1].shape[0] > 0\nr = dm_rm.get_removed()\n"
              + _EXCLUDE.format(ind="half.ind", removed="r", d="half"),
              before="layer_rm.buffer = half"),
    Operation("set_buffer", "a list of 6 fields", "layer.set_buffer(fields)", "Dataset(*fields)"),
    Operation("remove_from_buffer", "1 of 2 rows", "layer.remove_from_buffer(removed)",
              "half[1].shape[0] > 0\n" + _EXCLUDE.format(ind="half.ind", removed="removed", d="half")
              + "layer.buffer = Dataset(*ds)",
              reset="layer.buffer = half"),
    Operation("update_buffer", "new y for 1 of 2 rows (align_arrays_by_key, np.in1d)",
              "layer.update_buffer(upd_ind, None, upd_y)",
              "half_u[1].shape[0] > 0\n_k, (i2, X2, y2) = align((half_u.ind,), (upd_ind, None, upd_y))\n"
              "mask = in1d(half_u.ind, i2)\nhalf_u.y[mask] = y2",
              before="layer.buffer = half_u"),
    Operation("_add_to_buffer", "2 rows onto a 2-row buffer (3 concatenations)",
              "layer._add_to_buffer(incoming)",
              "layer.buffer = Dataset(np.concatenate((half[0], incoming[0])), "
              "np.concatenate((half[1], incoming[1])), np.concatenate((half[2], incoming[2])), "
              "None, None, None)\n"
              "parent.update_build_params()",
              reset="layer.buffer = half"),
    Operation("_create_node", "trivial node, timed, no progress line", "layer._create_node(full)",
              "chunk = full\n" + _BUILD_TIMED),
    Operation("_rebuild_node", "trivial node", 'layer._rebuild_node(full, "c1")',
              'TrivialNode(dset=full, params=params, node_id="c1", data_manager=dm).build()'),
    Operation("create_buffer_node", "buffer of 2 rows, trivial node", "layer.create_buffer_node()",
              "half[1].shape[0] > 0\nchunk = Dataset(*half)\n"
              "t = clock()\nTrivialNode(dset=chunk, params=params, node_id=BUFFER, data_manager=dm).build()\n"
              "clock() - t",
              before="layer.buffer = half"),
    Operation("_print_progress", "with the total, to a null standard output",
              "layer_print._print_progress(bt, leaf)", _PRINT_FLOOR,
              before="saved = sys.stdout\nsys.stdout = NULL", after="sys.stdout = saved"),
    # -- the generators
    Operation("drain step, sequential", "one 4-row chunk cut, generator run to its end",
              _DRAIN.format(layer="layer"), _CUT + _BUILD_TIMED, reset="layer.buffer = full"),
    Operation("drain step, no params", "the same with chunk_corset_params None (the dtype lookup falls back)",
              _DRAIN.format(layer="layer_np"), _CUT + _BUILD_TIMED, reset="layer_np.buffer = full"),
    Operation("drain step, parallel", "the same with n_jobs 2: two inner functions, queued on a no-op pool",
              _DRAIN.format(layer="layer_par"),
              _CUT + "pool_factory().add_to_queue(task, check, 0, chunk, 0)",
              reset="layer_par.buffer = full"),
    Operation("process step", "one 4-row dataset in: statistics, addition, drain of one chunk",
              "for _node in layer.process(items1, False, False):\n    pass",
              _PROCESS_FLOOR.format(items="items1", classify="pass"), reset="layer.buffer = None"),
    Operation("process step (classification)", "the same with is_classification=True",
              "for _node in layer.process(items1, False, True):\n    pass",
              _PROCESS_FLOOR.format(items="items1", classify=_CLASSIFY), reset="layer.buffer = None"),
    Operation("process over 8 datasets", "8 datasets of 2 rows, 4 chunks cut",
              "for _node in layer.process(items8, False, False):\n    pass",
              _PROCESS_FLOOR.format(items="items8", classify="pass"), reset="layer.buffer = None"),
    Operation("rebuild step", "one id, trivial node", "for _node in layer.rebuild(ids1):\n    pass",
              'TrivialNode(dset=dm.get_by_nodes(["c1"]), params=params, node_id="c1", '
              "data_manager=dm).build()"),
    Operation("rebuild over 8 ids", "8 ids, trivial nodes", "for _node in layer.rebuild(ids8):\n    pass",
              "for cid in ids8:\n"
              "    TrivialNode(dset=dm.get_by_nodes([cid]), params=params, node_id=cid, "
              "data_manager=dm).build()"),
    Operation("creating a drain generator", "made and dropped unstarted", "layer._get_from_buffer()", "pass"),
    Operation("creating a process generator", "made and dropped unstarted", "layer.process(items1)", "pass"),
    Operation("creating a rebuild generator", "made and dropped unstarted (the list is checked)",
              "layer.rebuild(ids1)", "pass"),
    Operation("filter_out_samples over 8 ids", "8 stored chunks and the buffer, one index each",
              "layer.filter_out_samples(pred, ids8)", _FILTER_FLOOR, before="layer.buffer = half"),
]


# ---- measurement -----------------------------------------------------------------------------------------


class Patched:
    """Puts the stand-ins into every implementation's namespace, and takes them out again."""

    def __init__(self, spaces: Dict[str, ModuleType]) -> None:
        self.spaces = spaces
        self.saved: Dict[str, Dict[str, Any]] = {}

    def __enter__(self) -> Patched:
        stand_ins = {"ChunkNode": TrivialNode, "DataAutoProcessor": StandInProcessor,
                     "ThreadPoolManager": no_op_pool}
        for impl, ns in self.spaces.items():
            self.saved[impl] = {name: getattr(ns, name) for name in PATCHED}
            for name, value in stand_ins.items():
                setattr(ns, name, value)
        return self

    def __exit__(self, *exc: Any) -> None:
        for impl, ns in self.spaces.items():
            for name, value in self.saved[impl].items():
                setattr(ns, name, value)


#: The clock of the timed blocks: the thread's CPU time, so that the time the machine's other work
#: takes the core away (this machine is shared) is not counted; "wall" for the monotonic clock.
CLOCKS = {"cpu": time.thread_time_ns, "wall": time.perf_counter_ns}
clock = CLOCKS["cpu"]


def _time_block(loop: Callable[[int], None], n: int) -> int:
    gc_was_enabled = gc.isenabled()
    gc.disable()
    try:
        start = clock()
        loop(n)
        return clock() - start
    finally:
        if gc_was_enabled:
            gc.enable()


def _calibrate(loops: Dict[str, Callable[[int], None]], block_ns: float) -> int:
    """Iterations per block so that the slowest implementation's block takes about `block_ns`."""
    n = 50
    while True:
        slowest = max(_time_block(loops[name], n) for name in MEASURED)
        if slowest >= 2_000_000 or n >= 10_000_000:
            break
        n *= 4
    return max(50, int(n * block_ns / max(slowest, 1)))


def select(operations: Optional[List[str]]) -> List[Operation]:
    if not operations:
        return OPERATIONS
    known = {op.name: op for op in OPERATIONS}
    unknown = [name for name in operations if name not in known]
    if unknown:
        raise SystemExit(f"unknown operation(s): {unknown}; known: {sorted(known)}")
    return [known[name] for name in operations]


def ratios(module: float, cython: float, python: Optional[float], floor: float) -> Dict[str, Any]:
    """The ratios of one operation's figures, and whether they meet the targets."""
    # When the floor is nearly all of the peer's time, the peer's own work is within the noise, and so
    # is any ratio of it: left out.
    own_cython = cython - floor
    own = (module - floor) / own_cython if own_cython > FLOOR_BOUND * cython else None
    return {
        "vs_cython": round(module / cython, 3) if cython > 0 else None,
        "own": None if own is None else round(own, 3),
        "vs_python": round(module / python, 3) if python else None,
        "cython_vs_python": round(cython / python, 3) if python else None,
    }


def summary(results: List[Dict[str, Any]]) -> Dict[str, Any]:
    """The medians over the operations, and how many operations meet each target."""
    vs = [r["vs_cython"] for r in results if r["vs_cython"] is not None]
    own = [r["own"] for r in results if r["own"] is not None]
    return {
        "operations": len(results),
        "median_vs_cython": round(statistics.median(vs), 3) if vs else None,
        "median_own": round(statistics.median(own), 3) if own else None,
        "at_or_below_target_vs_cython": sum(v <= TARGET_VS_CYTHON for v in vs),
        "own_target_met": bool(own) and statistics.median(own) <= TARGET_OWN,
    }


def run(repeats: int = 15, block_ms: float = 10.0, operations: Optional[List[str]] = None,
        verbose: bool = True, clock_name: str = "cpu") -> Dict[str, Any]:
    """Time every operation; returns a JSON-ready dict (ns per call, ratios, settings)."""
    global clock
    clock = CLOCKS[clock_name]
    spaces = namespaces()
    chosen = select(operations)
    with Patched(spaces) as patch:
        fixture = make_fixture(spaces, {impl: patch.saved[impl]["ChunkNode"] for impl in spaces})
        plans = []
        for op in chosen:
            loops = op.loops(fixture)
            for loop in loops.values():  # warm-up: every lazily made object exists before timing
                loop(20)
            plans.append((op, loops, _calibrate(loops, block_ms * 1e6)))
        samples: Dict[str, Dict[str, List[float]]] = {
            op.name: {k: [] for k in IMPLEMENTATIONS} for op in chosen
        }
        for repeat in range(repeats):
            order = list(IMPLEMENTATIONS) if repeat % 2 == 0 else list(reversed(IMPLEMENTATIONS))
            for op, loops, n in plans:
                raw = {name: _time_block(loops[name], n) for name in order}
                for name in IMPLEMENTATIONS:
                    samples[op.name][name].append((raw[name] - raw["harness"]) / n)
    results = []
    for op, _loops, n in plans:
        med = {name: statistics.median(samples[op.name][name]) for name in IMPLEMENTATIONS}
        results.append(
            {
                "operation": op.name,
                "what": op.what,
                "iterations_per_block": n,
                **{f"{name}_ns": round(med[name], 1) for name in IMPLEMENTATIONS},
                **ratios(med["module"], med["cython"], med["python"], med["floor"]),
                "vs_cython_rounds": [
                    round(m / c, 3) if c > 0 else None
                    for m, c in zip(samples[op.name]["module"], samples[op.name]["cython"])
                ],
            }
        )
    report = {
        "repeats": repeats,
        "block_ms": block_ms,
        "clock": clock_name,
        "targets": {"vs_cython": TARGET_VS_CYTHON, "median_own": TARGET_OWN},
        "operations": results,
        "summary": summary(results),
    }
    if verbose:
        print(format_table(report))
    return report


def ratio_table(title: str, report: Dict[str, Any], unit: str, number: str) -> List[str]:
    """The lines of a table of figures (keys ``<implementation>_<unit>``) and ratios, one per operation."""
    lines = [
        title,
        f"{'operation':34} {'module':>9} {'cython':>9} {'python':>9} {'floor':>9} {'mod/cy':>7} {'own':>6}",
    ]
    for r in report["operations"]:
        own = "n/a" if r["own"] is None else f"{r['own']:.2f}"
        vs = "n/a" if r["vs_cython"] is None else f"{r['vs_cython']:.2f}"
        figures = " ".join(
            format(r[f"{name}_{unit}"], number) if f"{name}_{unit}" in r else f"{'-':>9}"
            for name in IMPLEMENTATIONS[:4]
        )
        flag = " *" if r["vs_cython"] is not None and r["vs_cython"] > TARGET_VS_CYTHON else ""
        lines.append(f"{r['operation'][:34]:34} {figures} {vs:>7} {own:>6}{flag}")
    s = report.get("summary") or summary(report["operations"])
    lines.append(
        f"median mod/cy {s['median_vs_cython']}, {s['at_or_below_target_vs_cython']} of {s['operations']} "
        f"at or below {TARGET_VS_CYTHON:.2f}; median own {s['median_own']} (target <= {TARGET_OWN})"
    )
    return lines


def format_table(report: Dict[str, Any], label: str = "") -> str:
    title = (
        f"Per-call time in ns{' under ' + label if label else ''} (median of {report['repeats']} interleaved "
        "rounds; * above the Cython peer)"
    )
    lines = ratio_table(title, report, "ns", "9,.0f")
    lines.append(
        "mod/cy = module/cython (target <= 1.00); own = (module-floor)/(cython-floor) (median <= 0.5)"
    )
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--repeats", type=int, default=15)
    parser.add_argument("--block-ms", type=float, default=10.0)
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME")
    parser.add_argument("--clock", choices=sorted(CLOCKS), default="cpu")
    args = parser.parse_args()
    run(repeats=args.repeats, block_ms=args.block_ms, operations=args.operations, clock_name=args.clock)


if __name__ == "__main__":
    main()
