"""The two peers the compiled chunk layer is measured against, both made from the tests' reference
(``tests/chunk_layer/reference.py``): ``python()`` runs it as it is, ``cython()`` compiles it with Cython 3
(``binding=True``, ``annotation_typing=False``, otherwise Cython's defaults) and the flags the running
interpreter was built with, into ``build/cython/<tag>/`` (rebuilt when the source, Cython or the
interpreter changes).

    python benchmarks/peers.py          # build the Cython peer if needed and print its path
"""

from __future__ import annotations

import hashlib
import importlib.util
import os
import shlex
import subprocess
import sys
import sysconfig
from pathlib import Path
from types import ModuleType

ROOT = Path(__file__).resolve().parents[1]
SOURCE = ROOT / "tests" / "chunk_layer" / "reference.py"
DIRECTIVES = {"binding": True, "annotation_typing": False, "language_level": 3}
# The release the bench session installs (its pin in constraints.txt).
CYTHON_VERSION = "3.3.1"


def _load(name: str, path: Path) -> ModuleType:
    if name not in sys.modules:
        spec = importlib.util.spec_from_file_location(name, path)
        assert spec is not None and spec.loader is not None
        sys.modules[name] = module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
    return sys.modules[name]


def python() -> ModuleType:
    """The reference, run by the interpreter, as the module ``chunk_layer_python``."""
    return _load("chunk_layer_python", SOURCE)


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


def cython() -> ModuleType:
    """The reference compiled by Cython, as the module ``chunk_layer_cython`` (built first if needed)."""
    return _load("chunk_layer_cython", build())


if __name__ == "__main__":
    print(build())
