"""Module-level names read from the module's namespace as Python reads them, when other code watches
the namespace, unwatches it, clears the module's watcher, or puts in a key whose comparison has
effects. Runs in a fresh interpreter, once through the compiled module and once through its
plain-Python reference; both must see the same."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

from chunk_support import child_environment

SCRIPT = Path(__file__).parent / "scripts" / "namespace_corners.py"


def run(side: str) -> dict:
    result = subprocess.run([sys.executable, str(SCRIPT), side], capture_output=True, text=True,
                            timeout=120, env=child_environment())
    assert result.returncode == 0, f"{side}: {result.returncode} {result.stderr}"
    return json.loads(result.stdout)


def test_names_are_read_as_python_reads_them_whoever_watches_the_namespace() -> None:
    module, reference = run("module"), run("reference")
    assert module == reference
    # Every look-up of the name compares it with the key of the same hash.
    assert module["odd key"] == {"comparisons per call": [1, 1, 1]}
    if sys.version_info >= (3, 12):
        # Between another watcher's notice and the change, a call sees the old value; after the
        # change, the new one; and nothing keeps the old value alive.
        assert module["window"] == {"before": False, "in the window": False,
                                    "old value alive": False, "after": True,
                                    "after another change": False}
        assert module["cleared"] == {"first": False, "after unwatching": True, "again": False,
                                     "after clearing the watcher": True, "last": False}
