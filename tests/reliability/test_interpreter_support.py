"""What the chunk layer module declares about the interpreters it supports: one interpreter per
process, and the interpreter lock. From 3.12 on, a sub-interpreter that checks its extensions refuses
the module with the interpreter's own error before any of the module runs; before 3.12 the module
refuses itself. Each case runs in a fresh interpreter."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest

# About loading the extension module in sub-interpreters: run against it alone.
pytestmark = pytest.mark.compiled_only

SCRIPTS = Path(__file__).parent / "scripts"


def test_a_sub_interpreter_gets_the_interpreters_own_refusal() -> None:
    result = subprocess.run([sys.executable, str(SCRIPTS / "load_in_sub_interpreter.py")],
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    message = result.stdout.strip()
    if sys.version_info >= (3, 12):
        assert message == ("ImportError: module quillmarsh.core.tree.chunk_layer does not support "
                           "loading in subinterpreters")
    else:
        assert message.startswith("ImportError: Interpreter change detected"), message


def test_the_module_declares_that_it_needs_the_interpreter_lock() -> None:
    # A free-threaded build turns the lock back on when it loads the module, with a warning; a
    # build with the lock has nothing to do. Either way the lock is on once the module is loaded.
    script = ("import sys, quillmarsh.core.tree.chunk_layer; "
              "print(getattr(sys, '_is_gil_enabled', lambda: True)())")
    result = subprocess.run([sys.executable, "-W", "error::RuntimeWarning", "-c", script],
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "True"
