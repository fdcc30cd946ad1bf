"""The sources keep the project's style: ruff for Python, clang-format for C++."""

import ast
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


# Docstrings: ruff checks their form (pydocstyle, numpy convention) for the names in ``__all__``; this
# checks that every public function, method and class of the library carries the numpydoc sections that
# its signature calls for, and that every public module lists its public names.

PACKAGE = ROOT / "src" / "quillmarsh"


def _public_modules() -> list:
    found = []
    for path in sorted(PACKAGE.rglob("*.py")):
        parts = path.relative_to(PACKAGE.parent).with_suffix("").parts
        if not any(part.startswith("_") and part != "__init__" for part in parts):
            found.append(path)
    return found


def _own_nodes(function: ast.AST):
    """The nodes of a function's body, without those of the functions and classes defined in it."""
    stack = list(ast.iter_child_nodes(function))
    while stack:
        node = stack.pop()
        yield node
        if not isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.Lambda, ast.ClassDef)):
            stack.extend(ast.iter_child_nodes(node))


def _arguments(function: ast.FunctionDef) -> list:
    args = function.args
    names = [a.arg for a in args.posonlyargs + args.args + args.kwonlyargs]
    names += [a.arg for a in (args.vararg, args.kwarg) if a is not None]
    return [name for name in names if name not in ("self", "cls")]


def _decorators(node: ast.AST) -> set:
    return {ast.unparse(d).split("(")[0].split(".")[-1] for d in getattr(node, "decorator_list", [])}


def _sections(docstring: str) -> set:
    lines = docstring.splitlines()
    return {lines[i].strip() for i in range(len(lines) - 1) if set(lines[i + 1].strip()) == {"-"}}


def _missing_sections(function: ast.FunctionDef) -> list:
    if _decorators(function) & {"property", "setter", "overload"}:
        return []
    sections = _sections(ast.get_docstring(function) or "")
    nodes = list(_own_nodes(function))
    missing = []
    if _arguments(function) and "Parameters" not in sections:
        missing.append("Parameters")
    if any(isinstance(node, (ast.Yield, ast.YieldFrom)) for node in nodes):
        if "Yields" not in sections:
            missing.append("Yields")
    elif any(isinstance(node, ast.Return) and node.value is not None
             and not (isinstance(node.value, ast.Constant) and node.value.value is None) for node in nodes):
        if "Returns" not in sections:
            missing.append("Returns")
    return missing


def test_public_modules_list_their_names():
    lacking = []
    for path in _public_modules():
        tree = ast.parse(path.read_text(encoding="utf-8"))
        names = {node.name for node in tree.body
                 if isinstance(node, (ast.FunctionDef, ast.ClassDef)) and not node.name.startswith("_")}
        listed = any(getattr(target, "id", None) == "__all__"
                     for node in tree.body if isinstance(node, ast.Assign) for target in node.targets)
        if names and not listed and path.name != "__main__.py":
            lacking.append(str(path.relative_to(ROOT)))
    assert not lacking, f"public modules without __all__: {lacking}"


def test_public_docstrings_have_numpydoc_sections():
    problems = []
    for path in _public_modules():
        tree = ast.parse(path.read_text(encoding="utf-8"))
        where = path.relative_to(ROOT)
        for node in tree.body:
            if not isinstance(node, (ast.FunctionDef, ast.ClassDef)) or node.name.startswith("_"):
                continue
            if isinstance(node, ast.FunctionDef):
                functions = [(node.name, node)]
            else:
                methods = {n.name: n for n in node.body if isinstance(n, ast.FunctionDef)}
                init = methods.get("__init__")
                if init is not None and _arguments(init):
                    if "Parameters" not in _sections(ast.get_docstring(node) or ""):
                        problems.append(f"{where}: {node.name} lacks Parameters")
                functions = [(f"{node.name}.{name}", method) for name, method in methods.items()
                             if not name.startswith("_")]
            for name, function in functions:
                missing = _missing_sections(function)
                if missing:
                    problems.append(f"{where}: {name} lacks {', '.join(missing)}")
    assert not problems, "\n".join(problems)
