"""With the chunk layer imported in the main interpreter, loads its extension file alone (none of the
package, whose imports a sub-interpreter may refuse first) in a sub-interpreter that shares the
interpreter lock and, from 3.12 on, checks its extensions; prints "loaded" or the ImportError."""

from __future__ import annotations

import importlib
import importlib.util
import os
import sys
import tempfile

CODE = """
import importlib
import importlib.util
spec = importlib.util.spec_from_file_location("quillmarsh.core.tree.chunk_layer", {origin!r})
try:
    importlib.util.module_from_spec(spec)
    message = "loaded"
except ImportError as error:
    message = f"ImportError: {{error}}"
with open({out!r}, "w") as out:
    out.write(message)
"""


def run_in_sub_interpreter(code: str) -> None:
    if sys.version_info >= (3, 13):
        import _interpreters

        config = _interpreters.new_config("isolated")
        config.gil = "shared"
        config.use_main_obmalloc = True
        interpreter = _interpreters.create(config)
        _interpreters.run_string(interpreter, code)
        _interpreters.destroy(interpreter)
    elif sys.version_info >= (3, 12):
        import _testcapi

        _testcapi.run_in_subinterp_with_config(
            code, use_main_obmalloc=True, allow_fork=False, allow_exec=False, allow_threads=True,
            allow_daemon_threads=False, check_multi_interp_extensions=True, gil=1)  # 1: shared
    else:
        import _xxsubinterpreters

        interpreter = _xxsubinterpreters.create()
        _xxsubinterpreters.run_string(interpreter, code)
        _xxsubinterpreters.destroy(interpreter)


def main() -> None:
    # The main interpreter has the module, as a process that uses it does.
    origin = importlib.import_module("quillmarsh.core.tree.chunk_layer").__file__
    out = os.path.join(tempfile.mkdtemp(), "message")
    run_in_sub_interpreter(CODE.format(origin=origin, out=out))
    with open(out) as message:
        print(message.read())


if __name__ == "__main__":
    main()
