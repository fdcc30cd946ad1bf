"""The sources keep the project's style: ruff for Python, clang-format for C++."""

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[1]
TOOLS = Path(sys.executable).parent


def tool(name: str) -> str:
    path = TOOLS / name
    if path.exists():
        return str(path)
    found = shutil.which(name)
    if found is None:
        pytest.skip(f"{name} is not installed")
    return found


def test_python_sources_are_ruff_clean():
    result = subprocess.run(
        [tool("ruff"), "check", "src", "tests", "examples", "benchmarks"],
        cwd=ROOT, capture_output=True, text=True,
    )
    assert result.returncode == 0, result.stdout + result.stderr


def test_cpp_sources_are_clang_formatted():
    sources = sorted(str(path.relative_to(ROOT)) for path in (ROOT / "cpp").rglob("*.[ch]pp"))
    assert sources
    result = subprocess.run(
        [tool("clang-format"), "--dry-run", "--Werror", *sources], cwd=ROOT, capture_output=True, text=True
    )
    assert result.returncode == 0, result.stderr
