"""The package is typed: the stub of the compiled chunk layer agrees with the built module, and
``mypy --strict`` accepts the library, the README's usage snippet and the example.

Needs mypy, pandas-stubs and types-psutil in the test environment (skipped without mypy).
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict, List

import pytest

pytest.importorskip("mypy", reason="mypy is not installed")

ROOT = Path(__file__).resolve().parents[1]
SRC = ROOT / "src"
STUB = SRC / "quillmarsh" / "core" / "tree" / "chunk_layer.pyi"
MODULE = "quillmarsh.core.tree.chunk_layer"
# One cache per interpreter (numpy's stubs differ between versions); build/ is never committed.
CACHE = ROOT / "build" / "mypy-cache" / f"py{sys.version_info[0]}.{sys.version_info[1]}"

pytestmark = pytest.mark.typing


def mypy_env(source_root: Path) -> Dict[str, str]:
    """Type check against the package under ``source_root`` (its stub included), not an installed copy."""
    env = dict(os.environ)
    env["MYPYPATH"] = str(source_root)
    return env


def run_mypy(*args: str, source_root: Path = SRC) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(CACHE), *args],
        cwd=ROOT, env=mypy_env(source_root), capture_output=True, text=True, timeout=600,
    )


def run_stubtest(source_root: Path, tmp_path: Path) -> subprocess.CompletedProcess[str]:
    """stubtest on the stub under ``source_root``; the rest of the library is only read, not judged."""
    config = tmp_path / "stubtest.ini"
    config.write_text("[mypy]\nfollow_imports = silent\n", encoding="utf-8")
    return subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "--mypy-config-file", str(config), MODULE],
        cwd=ROOT, env=mypy_env(source_root), capture_output=True, text=True, timeout=600,
    )


def readme_snippet() -> str:
    """The python block of the README's section on using the chunk layer."""
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    match = re.search(r"## Using the chunk layer from Python\n.*?```python\n(.*?)```", text, re.S)
    assert match, "README.md has no python usage snippet"
    return match.group(1)


def test_stub_agrees_with_the_compiled_module(tmp_path: Path):
    result = run_stubtest(SRC, tmp_path)
    assert result.returncode == 0, result.stdout + result.stderr
    assert "Success" in result.stdout


# Each a stub out of step with the compiled module, and the name stubtest reports for it.
OUT_OF_STEP = [
    # a default that the compiled method does not have
    ("save_all: bool = False", "save_all: bool = True", "ChunkNode.save"),
    # a parameter that the compiled method does not take
    ("def get_buffer_size(self) -> int:", "def get_buffer_size(self, rows: int) -> int:",
     "ChunkLayer.get_buffer_size"),
    # a public name that the module does not define
    ('BUFFER_NODE_ID: Final = "buffer"', 'BUFFER_NODE_ID: Final = "buffer"\nLEAF_NODE_ID: str',
     "LEAF_NODE_ID"),
]


def test_stubtest_reports_every_stub_out_of_step(tmp_path: Path):
    """The check above can fail: a copy of the package whose stub differs from the module is refused,
    each difference named (one run for all of them: a run takes seconds)."""
    copy = tmp_path / "src"
    shutil.copytree(SRC / "quillmarsh", copy / "quillmarsh",
                    ignore=shutil.ignore_patterns("__pycache__", "*.so"))
    stub = copy / STUB.relative_to(SRC)
    text = stub.read_text(encoding="utf-8")
    for old, new, _ in OUT_OF_STEP:
        assert text.count(old) == 1
        text = text.replace(old, new)
    stub.write_text(text, encoding="utf-8")
    result = run_stubtest(copy, tmp_path)
    assert result.returncode != 0
    for _, _, reported in OUT_OF_STEP:
        assert f"error: {MODULE}.{reported} " in result.stdout, result.stdout


def test_library_passes_mypy_strict():
    result = run_mypy("src/quillmarsh")
    assert result.returncode == 0, result.stdout + result.stderr


def strict_errors_in(path: Path) -> List[str]:
    """mypy --strict's errors in ``path`` alone: the library's own are the test above's business."""
    result = run_mypy("--follow-imports=silent", str(path))
    assert result.returncode in (0, 1), result.stdout + result.stderr
    return [line for line in result.stdout.splitlines() if ": error:" in line]


def test_readme_snippet_passes_mypy_strict(tmp_path: Path):
    snippet = tmp_path / "readme_snippet.py"
    snippet.write_text(readme_snippet(), encoding="utf-8")
    assert strict_errors_in(snippet) == []


def test_example_passes_mypy_strict():
    assert strict_errors_in(ROOT / "examples" / "stream_chunks.py") == []


def test_a_misuse_of_the_chunk_layer_is_reported(tmp_path: Path):
    """The stub is what mypy reads: wrong argument types and a missing None check are errors."""
    misuse = tmp_path / "misuse.py"
    misuse.write_text(
        "from quillmarsh.core.tree.chunk_layer import ChunkLayer\n"
        "from quillmarsh.data.manager import DataManager\n"
        "layer = ChunkLayer(DataManager(), chunk_size='100')\n"
        "for node in layer.process([]):\n"
        "    print(node.node_id)\n"
        "nodes: list[int] = list(layer.rebuild(['a']))\n",
        encoding="utf-8",
    )
    errors = "\n".join(strict_errors_in(misuse))
    assert 'misuse.py:3: error: Argument "chunk_size" to "ChunkLayer" has incompatible type "str"' in errors
    none_item = r'misuse.py:5: error: Item "None" of "[^"]*ChunkNode[^"]*" has no attribute "node_id"'
    assert re.search(none_item, errors)
    assert re.search(r"misuse.py:6: error: .*ChunkNode", errors)
