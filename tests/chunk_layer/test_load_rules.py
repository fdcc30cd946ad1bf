"""The chunk layer module's load rules: one interpreter per process, no second initialisation, re-import
and reload, and failing imports of its collaborators. Each case runs in a fresh interpreter."""

import os
import subprocess
import sys
import textwrap

import pytest

# About the loading of the extension module: run against the compiled module alone.
pytestmark = pytest.mark.compiled_only

MODULE_NAME = "quillmarsh.core.tree.chunk_layer"


def run_python(code, tmp_path=None, extra_path=None):
    """Run `code` in a fresh interpreter; return its stdout lines, failing the test on a non-zero exit."""
    env = None
    if extra_path is not None:
        env = dict(os.environ)
        env["PYTHONPATH"] = os.pathsep.join(filter(None, [str(extra_path), env.get("PYTHONPATH")]))
    result = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)],
        capture_output=True,
        text=True,
        timeout=120,
        env=env,
    )
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout.splitlines()


# Sub-interpreters: the private module that makes them is _interpreters from 3.13 on. From 3.12 on a
# sub-interpreter may have a lock of its own, and the interpreter itself then refuses the module before
# any of the module's code runs; a sub-interpreter that shares the main lock reaches the module's rule.
SUB_INTERPRETERS = """
import sys
try:
    import _interpreters as subs
except ImportError:
    import _xxsubinterpreters as subs


def new_interpreter(shared_lock):
    if not shared_lock:
        return subs.create()
    if hasattr(subs, "new_config"):
        return subs.create(subs.new_config("legacy"))
    if sys.version_info >= (3, 12):
        return subs.create(isolated=False)
    return subs.create()


def run_inside(interp, code):
    outcome = subs.run_string(interp, code)
    if outcome is not None:  # 3.13 reports an error as a snapshot
        raise RuntimeError(outcome.type.__name__ + ": " + outcome.msg)
"""
MODULE_REFUSAL = (
    "Interpreter change detected - this module can only be loaded into one interpreter per process."
)
INTERPRETER_REFUSAL = f"module {MODULE_NAME} does not support loading in subinterpreters"


def test_import_into_a_sub_interpreter_is_refused():
    lines = run_python(SUB_INTERPRETERS + textwrap.dedent(
        """
        import quillmarsh.core.tree.chunk_layer as chunk_layer

        for shared_lock in (True, False):
            interp = new_interpreter(shared_lock)
            try:
                run_inside(interp, "import quillmarsh.core.tree.chunk_layer")
            except Exception as exc:
                print("refused:", str(exc).split(": ", 1)[1])
            else:
                print("accepted")
            finally:
                subs.destroy(interp)
        print("still working:", chunk_layer.BUFFER_NODE_ID, chunk_layer.ChunkLayer(object()).chunk_index)
        """
    ))
    assert lines[0] == "refused: " + MODULE_REFUSAL
    assert lines[1] in ("refused: " + MODULE_REFUSAL, "refused: " + INTERPRETER_REFUSAL)
    assert lines[2] == "still working: buffer 0"


INSIDE_SUB_INTERPRETER = """
try:
    import quillmarsh.core.tree.chunk_layer
except ImportError as exc:
    print(type(exc).__name__, exc)
import sys
print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
"""


def test_sub_interpreter_refusal_is_an_import_error_inside_it():
    lines = run_python(SUB_INTERPRETERS + textwrap.dedent(
        f"""
        import quillmarsh.core.tree.chunk_layer

        for shared_lock in (True, False):
            interp = new_interpreter(shared_lock)
            run_inside(interp, {INSIDE_SUB_INTERPRETER!r})
            subs.destroy(interp)
        """
    ))
    assert lines[:2] == ["ImportError " + MODULE_REFUSAL, "registered: False"]
    assert lines[2] in ("ImportError " + MODULE_REFUSAL, "ImportError " + INTERPRETER_REFUSAL)
    assert lines[3] == "registered: False"


def test_reimport_after_removal_from_sys_modules_gives_the_same_module():
    lines = run_python(
        """
        import sys
        import quillmarsh.core.tree.chunk_layer as first
        layer_class = first.ChunkLayer
        del sys.modules["quillmarsh.core.tree.chunk_layer"]
        import quillmarsh.core.tree.chunk_layer as second
        print(second is first)
        print(second.ChunkLayer is layer_class)
        print(sys.modules["quillmarsh.core.tree.chunk_layer"] is first)
        print(second.exclude_removed(None, [1, 2], None))
        """
    )
    assert lines == ["True", "True", "True", "[1, 2]"]


def test_reload_gives_the_same_working_module():
    lines = run_python(
        """
        import importlib
        import numpy as np
        import quillmarsh.core.tree.chunk_layer as module
        layer_class = module.ChunkLayer
        reloaded = importlib.reload(module)
        print(reloaded is module)
        print(reloaded.ChunkLayer is layer_class)
        print([int(i) for i in reloaded.exclude_removed([2], np.arange(4), None)])
        print(reloaded.ChunkSensitivitiesParams().coreset_size)
        """
    )
    assert lines == ["True", "True", "[0, 1, 3]", "10"]


DEFINITION_PROLOGUE = """
    import ctypes
    import types
    import quillmarsh.core.tree.chunk_layer as module

    api = ctypes.pythonapi
    api.PyModule_GetDef.restype = ctypes.c_void_p
    api.PyModule_GetDef.argtypes = [ctypes.py_object]
    api.PyModule_ExecDef.restype = ctypes.c_int
    api.PyModule_ExecDef.argtypes = [ctypes.py_object, ctypes.c_void_p]
    definition = api.PyModule_GetDef(module)
    assert definition
"""


def test_initialising_a_second_module_object_is_refused():
    lines = run_python(
        DEFINITION_PROLOGUE
        + """
    other = types.ModuleType("x")
    try:
        api.PyModule_ExecDef(ctypes.py_object(other), definition)
    except BaseException as exc:
        print(type(exc).__name__)
        print(exc)
    else:
        print("accepted")
    print(sorted(name for name in vars(other) if not name.startswith("__")))
    print(module.BUFFER_NODE_ID)
    """
    )
    assert lines == [
        "RuntimeError",
        "Module 'chunk_layer' has already been imported. Re-initialisation is not supported.",
        "[]",
        "buffer",
    ]


def test_initialising_the_loaded_module_again_does_nothing():
    lines = run_python(
        DEFINITION_PROLOGUE
        + """
    before = dict(vars(module))
    print(api.PyModule_ExecDef(ctypes.py_object(module), definition))
    print(list(vars(module)) == list(before))
    print(all(vars(module)[name] is value for name, value in before.items()))
    """
    )
    assert lines == ["0", "True", "True"]


def test_import_without_pandas_fails_and_registers_nothing():
    lines = run_python(
        """
        import sys
        sys.modules["pandas"] = None
        try:
            import quillmarsh.core.tree.chunk_layer
        except ImportError as exc:
            print("failed:", isinstance(exc, ImportError), exc.name)
        else:
            print("imported")
        print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
        import quillmarsh.core.tree
        print("bound on package:", hasattr(quillmarsh.core.tree, "chunk_layer"))
        """
    )
    assert lines == ["failed: True pandas", "registered: False", "bound on package: False"]


def test_import_succeeds_once_pandas_is_back():
    lines = run_python(
        """
        import sys
        sys.modules["pandas"] = None
        try:
            import quillmarsh.core.tree.chunk_layer
        except ImportError:
            print("first attempt failed")
        del sys.modules["pandas"]
        import pandas
        import quillmarsh.core.tree.chunk_layer as module
        print(module.pd is pandas)
        print(module.ChunkLayer(object(), chunk_size=3).chunk_size)
        print(sys.modules["quillmarsh.core.tree.chunk_layer"] is module)
        """
    )
    assert lines == ["first attempt failed", "True", "3", "True"]


def test_import_without_psutil_fails():
    lines = run_python(
        """
        import sys
        import quillmarsh.core.tree.utils  # the library's own use of psutil is satisfied first
        sys.modules["psutil"] = None
        try:
            import quillmarsh.core.tree.chunk_layer
        except ImportError as exc:
            print("failed:", exc.name)
        else:
            print("imported")
        print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
        """
    )
    assert lines == ["failed: psutil", "registered: False"]


def test_missing_library_name_propagates_its_import_error():
    lines = run_python(
        """
        import sys
        import quillmarsh.common
        pool_class = quillmarsh.common.ThreadPoolManager
        del quillmarsh.common.ThreadPoolManager
        try:
            import quillmarsh.core.tree.chunk_layer
        except ImportError as exc:
            print(type(exc).__name__)
            print(str(exc).startswith("cannot import name 'ThreadPoolManager' from 'quillmarsh.common'"))
        else:
            print("imported")
        print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
        quillmarsh.common.ThreadPoolManager = pool_class
        import quillmarsh.core.tree.chunk_layer as module
        print(module.ThreadPoolManager is pool_class)
        """
    )
    assert lines == ["ImportError", "True", "registered: False", "True"]


def test_missing_name_of_an_earlier_import_stops_the_load_there():
    lines = run_python(
        """
        import sys
        import quillmarsh.core.helpers
        del quillmarsh.core.helpers.align_arrays_by_key
        try:
            import quillmarsh.core.tree.chunk_layer
        except ImportError as exc:
            message = "cannot import name 'align_arrays_by_key' from 'quillmarsh.core.helpers'"
            print(str(exc).startswith(message))
        # imports after the failing one never ran
        print("quillmarsh.core.numpy_extra" in sys.modules)
        print("quillmarsh.data.data_auto_processor" in sys.modules)
        """
    )
    assert lines == ["True", "False", "False"]


def test_error_raised_by_an_imported_module_propagates_unchanged(tmp_path):
    package = tmp_path / "psutil"
    package.mkdir()
    (package / "__init__.py").write_text(
        "import builtins\n"
        "builtins.psutil_failure = LookupError('psutil exploded at load')\n"
        "raise builtins.psutil_failure\n"
    )
    lines = run_python(
        """
        import builtins
        import sys
        try:
            import quillmarsh.core.tree.chunk_layer
        except BaseException as exc:
            print(type(exc).__name__)
            print(exc)
            print(exc is builtins.psutil_failure)
        else:
            print("imported")
        print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
        """,
        extra_path=tmp_path,
    )
    assert lines == ["LookupError", "psutil exploded at load", "True", "registered: False"]


def test_library_module_failing_at_load_propagates_unchanged():
    lines = run_python(
        """
        import sys
        import importlib.machinery

        class Failure(Exception):
            pass

        class ExplodingLoader:
            def create_module(self, found):
                return None

            def exec_module(self, module):
                raise Failure("numpy_extra exploded")

        class Finder:
            def find_spec(self, name, path=None, target=None):
                if name == "quillmarsh.core.numpy_extra":
                    return importlib.machinery.ModuleSpec(name, ExplodingLoader())
                return None

        sys.meta_path.insert(0, Finder())
        try:
            import quillmarsh.core.tree.chunk_layer
        except BaseException as exc:
            print(type(exc) is Failure, exc)
        else:
            print("imported")
        print("registered:", "quillmarsh.core.tree.chunk_layer" in sys.modules)
        """
    )
    assert lines == ["True numpy_extra exploded", "registered: False"]
