"""The compiled chunk layer against its peers, per call: timed with pyperf, counted in instructions.

The same statements (``OPERATIONS``) run in three implementations: ``module``, the compiled
``quillmarsh.core.tree.chunk_layer``; ``python``, the tests' reference (``tests/chunk_layer/reference.py``)
run by the interpreter; ``cython``, that reference compiled by Cython 3 (``binding=True``,
``annotation_typing=False``, otherwise the defaults) with the interpreter's flags into
``build/cython/<tag>/``. Every collaborator is a no-op stand-in and the arrays have 2 to 4 rows, so that
what is measured is the layer itself. pyperf times each operation in the three one after the other
("OPERATION | IMPLEMENTATION"), so that a change in the machine's load falls on all three alike;
``--split`` makes one file per implementation of them, for ``compare_to``. ``--count`` runs each
operation ``--calls`` times under callgrind, less an empty loop as long: instructions per call, which do
not move with the load (needs valgrind). ``--all`` does every step under each ``--python`` (an
environment with quillmarsh, pyperf and Cython), into ``build/bench/<version>/``.

    python benchmarks/bench_chunk_layer.py --all --python .nox/env-3-9/bin/python --python ...
    python benchmarks/bench_chunk_layer.py --all --quick    # one interpreter, 3 worker processes, no counts
    python benchmarks/bench_chunk_layer.py -o build/bench/all.json [--fast]      # pyperf's options
    python benchmarks/bench_chunk_layer.py --split build/bench/all.json
    python benchmarks/bench_chunk_layer.py --count [--calls 500] [--output build/bench/instructions.md]
    python benchmarks/bench_chunk_layer.py --peer       # builds the Cython peer if needed, prints its path
"""

# ruff: noqa: E402
from __future__ import annotations

import os
import sys

# One BLAS thread: the benchmark measures call overhead, and shares two cores with other work.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import argparse
import hashlib
import importlib.util
import json
import re
import shlex
import shutil
import subprocess
import sysconfig
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from types import ModuleType, SimpleNamespace
from typing import Any, Dict, List, Optional

import numpy as np
import pyperf

from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

ROOT = Path(__file__).resolve().parents[1]
OUTPUT = ROOT / "build" / "bench"
SOURCE = ROOT / "tests" / "chunk_layer" / "reference.py"
DIRECTIVES = {"binding": True, "annotation_typing": False, "language_level": 3}
CHUNK_SIZE = 4


# -- the peers ---------------------------------------------------------------------------------------


def _load(name: str, path: Path) -> ModuleType:
    if name not in sys.modules:
        spec = importlib.util.spec_from_file_location(name, path)
        assert spec is not None and spec.loader is not None
        sys.modules[name] = module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
    return sys.modules[name]


def build() -> Path:
    """Compiles the reference into ``build/cython/<tag>/chunk_layer_cython*.so`` unless it is up to date."""
    import Cython
    from Cython.Compiler import Options
    from Cython.Compiler.Main import CompilationOptions, compile_single, default_options

    directory = ROOT / "build" / "cython" / f"{sys.implementation.cache_tag}-{sysconfig.get_platform()}"
    target = directory / ("chunk_layer_cython" + (sysconfig.get_config_var("EXT_SUFFIX") or ".so"))
    settings = repr((Cython.__version__, sys.version, DIRECTIVES)).encode()
    stamp = hashlib.sha256(SOURCE.read_bytes() + settings)
    stamp_file = directory / "chunk_layer_cython.stamp"
    if target.exists() and stamp_file.exists() and stamp_file.read_text() == stamp.hexdigest():
        return target
    directory.mkdir(parents=True, exist_ok=True)
    c_file = directory / "chunk_layer_cython.c"
    Options.docstrings = True
    options = CompilationOptions(default_options, compiler_directives=dict(DIRECTIVES),
                                 output_file=str(c_file), module_name="chunk_layer_cython", language_level=3)
    if compile_single(str(SOURCE), options, full_module_name="chunk_layer_cython").num_errors:
        raise RuntimeError(f"Cython could not compile {SOURCE}")
    # Compiled and linked as setuptools builds an extension for this interpreter.
    var = sysconfig.get_config_var
    cc = shlex.split(os.environ.get("CC") or var("CC") or "cc")
    cflags = shlex.split(var("CFLAGS") or "") + shlex.split(var("CCSHARED") or "")
    obj = c_file.with_suffix(".o")
    subprocess.run([*cc, *cflags, f"-I{sysconfig.get_paths()['include']}", "-c", str(c_file), "-o", str(obj)],
                   check=True)
    ldshared = shlex.split(var("LDSHARED") or "cc -shared") + shlex.split(var("LDFLAGS") or "")
    subprocess.run([*ldshared, str(obj), "-o", str(target)], check=True)
    stamp_file.write_text(stamp.hexdigest())
    return target


IMPLEMENTATIONS = {
    "module": lambda: chunk_layer,
    "cython": lambda: _load("chunk_layer_cython", build()),
    "python": lambda: _load("chunk_layer_python", SOURCE),
}


# -- the stand-ins and the operations ------------------------------------------------------------------


class DataManager:
    """A data manager whose attributes are plain values and whose operations return at once."""

    verbose = 0

    def __init__(self, n_jobs: Any = None, n_instances: Any = None, removed: Any = None, chunk: Any = None):
        self.n_jobs, self.n_instances, self.removed, self.chunk = n_jobs, n_instances, removed, chunk
        features = [SimpleNamespace(name="a"), SimpleNamespace(name="b")]
        self.data_params = SimpleNamespace(features=features, drop_rows_below=0, drop_cols_above=1.0)
        self.data_params_internal = SimpleNamespace(categorical_features_=[],
                                                    aggregated_missing_replacements=None)

    def get_removed(self) -> Any:
        return self.removed

    def get_by_nodes(self, node_ids: Any, with_props: bool = False) -> Any:
        return self.chunk

    def cat_encoding_config_clear(self) -> None:
        return None

    def save_selected_samples_async(self, dset: Any, indices: Any, node_id: Any, is_buffer: Any = False):
        return None


class Parent:
    def update_build_params(self) -> None:
        return None


class TrivialNode:
    """Stands in for ``ChunkNode`` in the layer's operations: keeps its dataset, its build returns itself."""

    def __init__(self, dset, params, node_id=None, tree_build_params=None, data_manager=None):
        self.dset, self.params, self.node_id = dset, params, node_id

    def build(self) -> TrivialNode:
        return self


class Processor:
    """Stands in for ``DataAutoProcessor``: keeps the arrays it is given and hands them back."""

    def __init__(self, X, y, ind, props, feature_names, **settings: Any) -> None:
        self.X, self.y, self.ind, self.props, self.feature_names = X, y, ind, props, feature_names
        self.removed_rows = None

    def handle_missing_and_categorical_encoding(self, sparse_threshold):
        return self.X

    def get_processed_arrays(self):
        return self.y, self.X, self.ind


class Coreset:
    """Stands in for a coreset class: takes any keyword, computes nothing."""

    def __init__(self, **params: Any) -> None:
        self.safe_mode = False

    def compute_sensitivities(self, X, y) -> None:
        return None

    def to_dict(self, with_important, use_keep_selected_only) -> Dict[str, Any]:
        return {}


class Pool:
    """Stands in for the shared task pool (``ThreadPoolManager()``): queues nothing."""

    def __call__(self) -> Pool:
        return self

    def add_to_queue(self, task, check, priority, chunk, leaf_index) -> None:
        return None

    def has_running_tasks(self) -> bool:
        return False


def make_dataset(rows: int, start: int = 0) -> Dataset:
    ind = np.arange(start, start + rows, dtype=np.int64)
    return Dataset(ind, np.arange(2 * rows, dtype=np.float64).reshape(rows, 2), np.arange(rows) % 2.0)


def namespace(impl: ModuleType) -> Dict[str, Any]:
    """The names the statements see, for one implementation, whose globals get the stand-ins."""
    real_node = impl.ChunkNode
    for name, stand_in in (("ChunkNode", TrivialNode), ("DataAutoProcessor", Processor),
                           ("ThreadPoolManager", Pool())):
        setattr(impl, name, stand_in)
    full, dm, parent = make_dataset(CHUNK_SIZE), DataManager(chunk=make_dataset(CHUNK_SIZE)), Parent()
    params = [impl.ChunkSensitivitiesParams(coreset_params={"dtype": "float32"}, coreset_cls=Coreset)]
    layer_print = impl.ChunkLayer(DataManager(n_instances=1000), params, CHUNK_SIZE, parent)
    layer_print.build_params = {"chunk_size": CHUNK_SIZE}
    return {
        "ChunkNode": real_node, "ChunkLayer": impl.ChunkLayer, "exclude_removed": impl.exclude_removed,
        "Coreset": Coreset, "dm": dm, "parent": parent, "params": params, "full": full,
        "half": make_dataset(2), "incoming": make_dataset(2, start=2), "fields": list(full),
        "ind": full.ind, "removed": np.array([1]), "base": np.arange(3), "extra": np.arange(3, 5),
        "upd_ind": np.array([1]), "upd_y": np.array([5.0]), "items1": [full],
        "items8": [make_dataset(2, start=2 * i) for i in range(8)], "ids1": ["c1"],
        "ids8": [f"c{i}" for i in range(8)], "pred": lambda ind, X, y, props: ind[:1],
        "node": real_node(full, params, "n1", None, dm),
        "build_node": real_node(full, params, "n1", None, dm),
        "layer": impl.ChunkLayer(dm, params, CHUNK_SIZE, parent),
        "layer_par": impl.ChunkLayer(DataManager(n_jobs=2), params, CHUNK_SIZE, parent),
        "layer_rm": impl.ChunkLayer(DataManager(removed=np.array([0])), params, CHUNK_SIZE, parent),
        "layer_print": layer_print, "sys": sys, "out": sys.stdout, "devnull": open(os.devnull, "w"),
    }


#: (name, statement): one call of the operation, after the reset it needs.
OPERATIONS = [
    ("ChunkNode(...)", 'ChunkNode(full, params, "n1", None, dm)'),
    ("ChunkNode(...) new id", "ChunkNode(full, params)"),
    ("ChunkNode.build", "build_node.coresets.clear(); build_node.build()"),
    ("ChunkNode.save", "node.save(dm)"),
    ("ChunkNode.is_buffer", "node.is_buffer()"),
    ("ChunkNode.add_indices", "node.indices = base; node.add_indices(extra)"),
    ("exclude_removed, none removed", "exclude_removed(None, ind, full)"),
    ("exclude_removed, removals", "exclude_removed(removed, ind, full)"),
    ("ChunkLayer(...)", "ChunkLayer(dm, params, 4, parent)"),
    ("has_buffer", "layer.buffer = half; layer.has_buffer()"),
    ("get_buffer, removals", "layer_rm.buffer = half; layer_rm.get_buffer()"),
    ("set_buffer", "layer.set_buffer(fields)"),
    ("remove_from_buffer", "layer.buffer = half; layer.remove_from_buffer(removed)"),
    ("update_buffer", "layer.buffer = half; layer.update_buffer(upd_ind, None, upd_y)"),
    ("_add_to_buffer", "layer.buffer = half; layer._add_to_buffer(incoming)"),
    ("_create_node", "layer._create_node(full)"),
    ("create_buffer_node", "layer.buffer = half; layer.create_buffer_node()"),
    ("_print_progress", "sys.stdout = devnull; layer_print._print_progress(0.0123, 2); sys.stdout = out"),
    ("drain step, sequential", "layer.buffer = full\nfor _ in layer._get_from_buffer(): pass"),
    ("drain step, parallel", "layer_par.buffer = full\nfor _ in layer_par._get_from_buffer(): pass"),
    ("process step", "layer.buffer = None\nfor _ in layer.process(items1, False, False): pass"),
    ("process step (classification)",
     "layer.buffer = None\nfor _ in layer.process(items1, False, True): pass"),
    ("process over 8 datasets", "layer.buffer = None\nfor _ in layer.process(items8, False, False): pass"),
    ("rebuild over 8 ids", "for _ in layer.rebuild(ids8): pass"),
    ("filter_out_samples over 8 ids", "layer.buffer = half; layer.filter_out_samples(pred, ids8)"),
]


# -- instruction counts ------------------------------------------------------------------------------

TOTAL = re.compile(r"^(?:summary|totals):\s+(\d+)", re.MULTILINE)
LOOP = "def loop(n):\n    for _ in range(n):\n{body}\n"


def marked(impl: str, calls: int) -> None:
    """Runs under callgrind: every operation in three parts (warm-up, the calls, an empty loop as long),
    each closed by ``os.getppid()``, before which callgrind dumps (``--dump-before=getppid``)."""
    names = namespace(IMPLEMENTATIONS[impl]())
    for _name, statement in OPERATIONS:
        loops = []
        for body in (statement, "pass"):
            scope = dict(names)
            exec(LOOP.format(body="\n".join("        " + line for line in body.splitlines())), scope)
            loops.append(scope["loop"])
        loops[0](20)
        loops[1](20)
        os.getppid()  # dump: warm-up
        loops[0](calls)
        os.getppid()  # dump: the calls
        loops[1](calls)
        os.getppid()  # dump: the empty loop


def count(impl: str, calls: int, directory: Path) -> Dict[str, float]:
    """Instructions per call of every operation under one implementation: (calls - empty loop) / N."""
    out = directory / f"{impl}.callgrind"
    subprocess.run([shutil.which("valgrind") or "valgrind", "--tool=callgrind", "--dump-before=getppid",
                    f"--callgrind-out-file={out}", sys.executable, __file__, "--marked", impl, str(calls)],
                   env=dict(os.environ, PYTHONHASHSEED="0", OPENBLAS_NUM_THREADS="1"), check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def total(number: int) -> int:
        match = TOTAL.search(Path(f"{out}.{number}").read_text(errors="replace"))
        assert match is not None, f"no total in {out}.{number}"
        return int(match.group(1))

    return {name: (total(3 * index + 2) - total(3 * index + 3)) / calls
            for index, (name, _) in enumerate(OPERATIONS)}


def instructions(calls: int, output: Optional[Path]) -> None:
    """The table of instructions per call, one valgrind run per implementation (run side by side)."""
    if shutil.which("valgrind") is None:
        print("bench_chunk_layer: valgrind is not on the PATH; no counts")
        return
    build()  # not under valgrind
    impls = list(IMPLEMENTATIONS)
    with tempfile.TemporaryDirectory(prefix="chunk-layer-callgrind-") as directory:
        with ThreadPoolExecutor() as pool:
            counted = dict(zip(impls, pool.map(lambda impl: count(impl, calls, Path(directory)), impls)))
    lines = [f"Instructions per call (callgrind, {calls:,} calls, Python {sys.version.split()[0]})", "",
             "| operation | " + " | ".join(impls) + " | module / cython |", "| --- |" + " ---: |" * 4]
    for name, _ in OPERATIONS:
        figures = [counted[impl][name] for impl in impls]
        lines.append(f"| {name} | " + " | ".join(f"{n:,.0f}" for n in figures)
                     + f" | {figures[0] / figures[1]:.2f} |")
    print("\n".join(lines))
    if output:
        output.parent.mkdir(parents=True, exist_ok=True)
        output.write_text("\n".join(lines) + "\n")


# -- the runs -----------------------------------------------------------------------------------------


def split(path: Path) -> List[Path]:
    """One pyperf file per implementation beside ``path``, each benchmark named by its operation alone."""
    suite = json.loads(path.read_text())
    written = []
    for impl in IMPLEMENTATIONS:
        part = dict(suite, benchmarks=[])
        for benchmark in suite["benchmarks"]:
            operation, _, of = benchmark["metadata"]["name"].rpartition(" | ")
            if of == impl:
                metadata = dict(benchmark["metadata"], name=operation)
                part["benchmarks"].append(dict(benchmark, metadata=metadata))
        written.append(path.with_name(f"{impl}.json"))
        written[-1].write_text(json.dumps(part))
    return written


def every(python: str, quick: bool) -> None:
    """Every step under one interpreter, into ``build/bench/<version>/``: the Cython peer, the times
    (``all.json``) and their split, pyperf's ``compare_to`` of the three (``compare.md``) and, unless
    ``quick``, the counts (``instructions.md``)."""
    version = subprocess.run([python, "-c", "import sys; print('%d.%d.%d' % sys.version_info[:3])"],
                             capture_output=True, text=True, check=True).stdout.strip()
    directory = OUTPUT / version
    directory.mkdir(parents=True, exist_ok=True)
    bench = [python, __file__]
    subprocess.run([*bench, "--peer"], check=True)  # before any timing
    timed = directory / "all.json"
    timed.unlink(missing_ok=True)  # pyperf writes no file over an existing one
    print(f"### Python {version}", flush=True)
    # pyperf's worker processes and values per process (each of loops calibrated to 100 ms). Every
    # worker imports numpy, pandas and quillmarsh first (about a second), which the process counts pay.
    processes, values = ("3", "2") if quick else ("10", "3")
    subprocess.run([*bench, "--quiet", "-o", str(timed), "--processes", processes, "--values", values],
                   check=True)
    results = subprocess.run([*bench, "--split", str(timed)], capture_output=True, text=True,
                             check=True).stdout.split()
    compare = [python, "-m", "pyperf", "compare_to", "--table", "--table-format", "md", *results]
    table = subprocess.run(compare, capture_output=True, text=True, check=True).stdout
    (directory / "compare.md").write_text(table)
    print(table, flush=True)
    if not quick:
        subprocess.run([*bench, "--count", "--output", str(directory / "instructions.md")], check=True)


def main() -> None:
    command = sys.argv[1:2]
    if command == ["--split"]:
        print(" ".join(str(p) for p in split(Path(sys.argv[2]))))
    elif command == ["--peer"]:
        print(build())
    elif command == ["--marked"]:  # under callgrind, run by count()
        marked(sys.argv[2], int(sys.argv[3]))
    elif command in (["--count"], ["--all"]):
        parser = argparse.ArgumentParser(description=__doc__,
                                         formatter_class=argparse.RawDescriptionHelpFormatter)
        parser.add_argument("--count", action="store_true", help="the instruction counts alone, here")
        parser.add_argument("--all", action="store_true", help="every step under each --python")
        parser.add_argument("--python", action="append", dest="pythons", metavar="PATH")
        parser.add_argument("--quick", action="store_true", help="the first --python, 3 processes, no counts")
        parser.add_argument("--calls", type=int, default=500)
        parser.add_argument("--output", type=Path, help="also write the counts' table to this file")
        args = parser.parse_args()
        if args.count:
            instructions(args.calls, args.output)
            return
        pythons = args.pythons or [sys.executable]
        for python in pythons[:1] if args.quick else pythons:
            every(python, args.quick)
        print(f"results in {OUTPUT}")
    else:
        runner = pyperf.Runner()
        names = {impl: namespace(load()) for impl, load in IMPLEMENTATIONS.items()}
        for operation, statement in OPERATIONS:
            for impl in IMPLEMENTATIONS:
                runner.timeit(f"{operation} | {impl}", stmt=statement, globals=names[impl])


if __name__ == "__main__":
    main()
