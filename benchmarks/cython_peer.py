"""Builds and imports the Cython peer: ``baseline.py`` compiled with Cython 3 as ``baseline_cython``.

The peer is what a team without C++ would ship: the same Python source, compiled by Cython with
``binding=True`` and ``annotation_typing=False`` and otherwise Cython's default directives (see
``baseline.py`` for why annotations are not used for typing), and the C file built with the flags the
running interpreter was built with (as setuptools would build it). The result goes to
``build/cython/<python tag>/`` in the repository (git-ignored) and is rebuilt only when the source,
the Cython version or the interpreter changes.

    .venv/bin/python benchmarks/cython_peer.py          # build (if needed) and print the module's path
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

HERE = Path(__file__).resolve().parent
SOURCE = HERE / "baseline.py"
MODULE_NAME = "baseline_cython"
DIRECTIVES = {"binding": True, "annotation_typing": False, "language_level": 3}
#: The Cython release the peer is built with (pip offers it for every supported Python).
CYTHON_VERSION = "3.3.1"


def build_dir() -> Path:
    tag = sys.implementation.cache_tag + "-" + sysconfig.get_platform()
    return HERE.parent / "build" / "cython" / tag


def _extension_path() -> Path:
    suffix = sysconfig.get_config_var("EXT_SUFFIX") or ".so"
    return build_dir() / (MODULE_NAME + suffix)


def _stamp() -> str:
    import Cython

    digest = hashlib.sha256(SOURCE.read_bytes())
    settings = (Cython.__version__, sys.version, sorted(DIRECTIVES.items()), Path(__file__).read_bytes())
    digest.update(repr(settings).encode())
    return digest.hexdigest()


def _compile_c(c_file: Path, target: Path) -> None:
    """Compiles and links one C file the way setuptools builds an extension for this interpreter."""
    cvar = sysconfig.get_config_var
    cc = shlex.split(os.environ.get("CC") or cvar("CC") or "cc")
    cflags = shlex.split(cvar("CFLAGS") or "") + shlex.split(cvar("CCSHARED") or "")
    ldshared = shlex.split(cvar("LDSHARED") or "cc -shared")
    include = sysconfig.get_paths()["include"]
    obj = c_file.with_suffix(".o")
    subprocess.run([*cc, *cflags, f"-I{include}", "-c", str(c_file), "-o", str(obj)], check=True)
    ldflags = shlex.split(cvar("LDFLAGS") or "")
    # LDSHARED already holds the interpreter's LDFLAGS on most builds; repeating them does no harm.
    subprocess.run([*ldshared, *ldflags, str(obj), "-o", str(target)], check=True)


def build(force: bool = False, quiet: bool = True) -> Path:
    """Compiles ``baseline.py`` into ``build/cython/<tag>/baseline_cython*.so`` unless it is up to date."""
    target = _extension_path()
    stamp_file = target.with_name(MODULE_NAME + ".stamp")
    stamp = _stamp()
    if not force and target.exists() and stamp_file.exists() and stamp_file.read_text() == stamp:
        return target
    import Cython
    from Cython.Compiler import Options
    from Cython.Compiler.Main import CompilationOptions, compile_single, default_options

    if not quiet:
        print(f"cython_peer: compiling {SOURCE.name} with Cython {Cython.__version__}", flush=True)
    target.parent.mkdir(parents=True, exist_ok=True)
    c_file = target.parent / f"{MODULE_NAME}.c"
    Options.docstrings = True
    options = CompilationOptions(
        default_options,
        compiler_directives=dict(DIRECTIVES),
        output_file=str(c_file),
        module_name=MODULE_NAME,
        language_level=3,
    )
    result = compile_single(str(SOURCE), options, full_module_name=MODULE_NAME)
    if result.num_errors:
        raise RuntimeError(f"Cython reported {result.num_errors} error(s) compiling {SOURCE}")
    _compile_c(c_file, target)
    stamp_file.write_text(stamp)
    return target


def load() -> ModuleType:
    """Builds the peer if needed and imports it as ``baseline_cython`` (registered in ``sys.modules``)."""
    if MODULE_NAME in sys.modules:
        return sys.modules[MODULE_NAME]
    path = build()
    spec = importlib.util.spec_from_file_location(MODULE_NAME, path)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[MODULE_NAME] = module
    spec.loader.exec_module(module)
    return module


if __name__ == "__main__":
    print(build(force="--force" in sys.argv, quiet=False))
