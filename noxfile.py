"""The project's sessions: one environment per supported CPython, and the jobs that run in them.

    nox -l                                # the sessions
    nox -s tests-3.12 -- -k tree          # the suite under CPython 3.12 (after --: pytest's arguments)
    nox -t tests                          # the suite under every environment

``scripts/dev`` is the usual entry: it finds the interpreters, installs nox and runs these sessions.
It passes the interpreters in ``QUILLMARSH_PYTHONS`` (lines of ``VERSION=PATH``), and
``QUILLMARSH_ONE_PYTHON=1`` when ``$PYTHON`` picked one (3.9 then runs once); without them, every
supported version is defined and nox looks for ``python3.X`` itself.

The environments ``env-3.9`` to ``env-3.13`` and ``env-3.9-numpy1.26.4`` (3.9 with the oldest supported
numpy) hold the pinned packages and an editable install of quillmarsh, and are kept under ``.nox/``.
Each step is stamped with a digest of its inputs and runs again only when they change. The compiled
module is built once per interpreter, incrementally in ``build/cp3X``, into an editable wheel that
every environment of that interpreter installs. The test suites, ``typing``, ``example``, ``stress``
and ``bench`` run in those environments; ``lint`` and ``sanitize`` have their own.
"""

from __future__ import annotations

import contextlib
import fcntl
import hashlib
import os
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict, Iterator, Sequence

import nox

ROOT = Path(__file__).resolve().parent
CONSTRAINTS = ROOT / "constraints.txt"
VERSIONS = ("3.9", "3.10", "3.11", "3.12", "3.13")
OLDEST_NUMPY = "1.26.4"
# What every environment holds: the library's dependencies, the test and lint tools, the build tools
# (the module is built without build isolation) and the type checker with its stubs.
PACKAGES = (
    "numpy", "scipy", "scikit-learn", "pandas", "pyarrow", "psutil", "tqdm", "matplotlib", "dask[dataframe]",
    "distributed", "pytest", "hypothesis", "ruff", "clang-format", "scikit-build-core", "cmake", "ninja",
    "mypy", "pandas-stubs", "types-psutil", "types-tqdm", "pyperf",
)
LINT_PACKAGES = ("ruff", "clang-format")
# Files whose change calls for a new build of the module.
BUILD_INPUTS = ("pyproject.toml", "CMakeLists.txt", "cpp")

nox.options.default_venv_backend = "venv"
nox.options.reuse_venv = "yes"
# Interpreters come from this machine only, never from a download.
nox.options.download_python = "never"


def found_pythons() -> Dict[str, str]:
    """``version -> interpreter`` for the versions to define sessions for.

    From ``QUILLMARSH_PYTHONS`` when ``scripts/dev`` set it, else every supported version, each found
    by nox (``python3.X``).
    """
    given = os.environ.get("QUILLMARSH_PYTHONS")
    if not given:
        return {version: version for version in VERSIONS}
    pythons = {}
    for line in given.splitlines():
        version, _, path = line.strip().partition("=")
        if version:
            pythons[version] = path or version
    return pythons


PYTHONS = found_pythons()
NEWEST = max(PYTHONS, key=lambda version: tuple(int(part) for part in version.split(".")))
# The environments, by name: each version, 3.9 twice (the second with the oldest supported numpy).
ENVIRONMENTS: Dict[str, str] = {}
for _version in PYTHONS:
    ENVIRONMENTS[_version] = _version
    if _version == VERSIONS[0] and not os.environ.get("QUILLMARSH_ONE_PYTHON"):
        ENVIRONMENTS[f"{_version}-numpy{OLDEST_NUMPY}"] = _version


def digest(*parts: object) -> str:
    """A hash of files (paths, folders walked in order) and plain values."""
    hasher = hashlib.sha256()
    for part in parts:
        if not isinstance(part, Path):
            hasher.update(repr(part).encode() + b"\0")
            continue
        for path in sorted(p for p in part.rglob("*") if p.is_file()) if part.is_dir() else [part]:
            hasher.update(str(path.relative_to(ROOT)).encode() + b"\0" + path.read_bytes() + b"\0")
    return hasher.hexdigest()


def stamped(stamp: Path, value: str) -> bool:
    """Whether ``stamp`` records ``value``: the step it stands for is up to date."""
    try:
        return stamp.read_text() == value
    except OSError:
        return False


@contextlib.contextmanager
def locked(path: Path) -> Iterator[None]:
    """Holds an exclusive lock on ``path`` (a build shared by environments that may be set up at once)."""
    path.parent.mkdir(parents=True, exist_ok=True)
    with path.open("w") as handle:
        fcntl.flock(handle, fcntl.LOCK_EX)
        try:
            yield
        finally:
            fcntl.flock(handle, fcntl.LOCK_UN)


def pip_install(session: nox.Session, *args: str) -> bool:
    """``pip install`` into the session's environment; False when ``--no-install`` skipped it."""
    done = session.run_install(
        "python", "-m", "pip", "install", "--quiet", "--disable-pip-version-check", *args, silent=False
    )
    return done is not None


def install_packages(session: nox.Session, packages: Sequence[str], numpy: str = "") -> None:
    """The pinned ``packages`` (and ``numpy`` at that version, if given) into the session's environment."""
    stamp = Path(session.env_dir) / "quillmarsh-packages"
    wanted = digest(CONSTRAINTS, ROOT / "pyproject.toml", list(packages), numpy)
    if stamped(stamp, wanted):
        return
    stamp.unlink(missing_ok=True)
    constraints = ("-c", str(CONSTRAINTS))
    if not (pip_install(session, *constraints, "pip") and pip_install(session, *constraints, *packages)):
        return
    # The oldest supported numpy overrides its pin: the other packages are their newest that 3.9 gets.
    if numpy and not pip_install(session, f"numpy=={numpy}"):
        return
    stamp.write_text(wanted)


def install_quillmarsh(session: nox.Session, version: str, sanitize: bool = False) -> None:
    """quillmarsh, editable, into the session's environment: the Python modules are read from ``src/``.

    The compiled module is built once per interpreter (and sanitizer setting) into an editable wheel,
    incrementally in ``build/<tag>``, and rebuilt only when a C++ or build file changes. It reads only
    numpy's array layout, so one build serves every numpy of that interpreter.
    """
    key = "cp" + version.replace(".", "") + ("-sanitize" if sanitize else "")
    build_dir = ROOT / "build" / key
    wheel_dir = build_dir / "editable"
    wanted = digest(*(ROOT / name for name in BUILD_INPUTS), sanitize)
    with locked(ROOT / "build" / f"{key}.lock"):
        wheels = sorted(wheel_dir.glob("quillmarsh-*.whl"))
        if not (stamped(wheel_dir / "digest", wanted) and wheels):
            session.log(f"building quillmarsh in build/{key}")
            shutil.rmtree(wheel_dir, ignore_errors=True)
            wheel_dir.mkdir(parents=True)
            # The editable hook of the build backend, as pip calls it, without build isolation: the
            # environment has the build requirements.
            settings = {
                "build-dir": str(build_dir.relative_to(ROOT)),
                "cmake.define.QUILLMARSH_SANITIZE": "ON" if sanitize else "OFF",
            }
            built = session.run_install(
                "python", "-c",
                "import sys; from scikit_build_core.build import build_editable; "
                "build_editable(sys.argv[1], dict(arg.split('=', 1) for arg in sys.argv[2:]))",
                str(wheel_dir), *(f"{name}={value}" for name, value in settings.items()),
            )
            wheels = sorted(wheel_dir.glob("quillmarsh-*.whl"))
            if built is None or not wheels:
                return
            (wheel_dir / "digest").write_text(wanted)
        stamp = Path(session.env_dir) / "quillmarsh-build"
        if stamped(stamp, wanted):
            return
        if pip_install(session, "--no-deps", "--force-reinstall", str(wheels[-1])):
            stamp.write_text(wanted)


def env_python(session: nox.Session, name: str) -> str:
    """The interpreter of environment ``name``, which session ``env-<name>`` sets up beside this session's
    folder (nox names the folder after the session, with ``-`` for every dot)."""
    return str(Path(session.env_dir).parent / f"env-{name}".replace(".", "-") / "bin" / "python")


def make_environment(session: nox.Session) -> None:
    """Set up this environment: the pinned packages, then quillmarsh (editable)."""
    name = session.name.removeprefix("env-")
    install_packages(session, PACKAGES, numpy=name.partition("-numpy")[2])
    install_quillmarsh(session, ENVIRONMENTS[name])


# The reliability tests whose subject is the interpreter, not the arrays: one run per interpreter.
INTERPRETER_TESTS = ["test_interpreter_exit", "test_python_corners", "test_bad_input",
                     "test_interpreter_support", "test_module_namespace"]


def run_tests(session: nox.Session) -> None:
    """The test suite in this environment.

    Arguments after ``--`` go to pytest. The type checks (one set of stubs is enough) and the wheel of
    the running interpreter (built and installed afresh: minutes) run under the newest CPython only;
    ``scripts/dev wheels`` checks every version. A numpy variant leaves out the reliability tests that
    drive the interpreter itself (exit, signals, recursion, protocol misuse, sub-interpreters), which
    the plain environment of the same interpreter runs; everything that handles arrays runs again.
    """
    name = session.name.removeprefix("tests-")
    selection = "not slow" if name == NEWEST else "not slow and not typing and not wheel"
    variant = [] if name == ENVIRONMENTS[name] else [f"--ignore=tests/reliability/{test}.py"
                                                    for test in INTERPRETER_TESTS]
    session.run(env_python(session, name), "-m", "pytest", "-m", selection, *variant, *session.posargs)


for _name, _version in ENVIRONMENTS.items():
    # A numpy variant shares its interpreter's build, made by the plain environment first.
    nox.session(
        make_environment, python=PYTHONS[_version], name=f"env-{_name}", tags=["env"], default=False,
        allow_parallel=True, requires=[f"env-{_version}"] if _name != _version else [],
    )
# The suites may run side by side (``--parallel``): each has its own interpreter, environment and
# temporary folders. The newest comes first: it also runs the type checks and builds a wheel, and a
# long suite started last would run alone at the end.
for _name in sorted(ENVIRONMENTS, key=lambda name: ENVIRONMENTS[name] != NEWEST):
    nox.session(run_tests, python=False, name=f"tests-{_name}", tags=["tests"], requires=[f"env-{_name}"],
                allow_parallel=True)


@nox.session(python=False, name="typing", requires=[f"env-{NEWEST}"], default=False)
def type_check(session: nox.Session) -> None:
    """mypy --strict on the library, in the newest environment."""
    cache = ROOT / "build" / "mypy-cache" / f"py{NEWEST}"
    session.run(env_python(session, NEWEST), "-m", "mypy", "--strict", "--cache-dir", str(cache),
                "src/quillmarsh", *session.posargs, env={"MYPYPATH": str(ROOT / "src")})


# The interpreter that runs nox (whatever $PYTHON says, so the environment is kept between runs).
@nox.session(python=None)
def lint(session: nox.Session) -> None:
    """ruff on the Python sources and clang-format on the C++ ones (checks only)."""
    install_packages(session, LINT_PACKAGES)
    session.run("ruff", "check", "src", "tests", "examples", "benchmarks", "noxfile.py")
    sources = sorted(str(path.relative_to(ROOT)) for path in (ROOT / "cpp").rglob("*.[ch]pp"))
    session.run("clang-format", "--dry-run", "--Werror", *sources)


@nox.session(python=False, requires=[f"env-{NEWEST}"], default=False)
def example(session: nox.Session) -> None:
    """The main job, the ``quillmarsh`` command, in the newest environment (``-- --help``).

    ``scripts/dev example`` runs the command itself, so that its exit status reaches the caller.
    """
    session.run(env_python(session, NEWEST), "-m", "quillmarsh", *session.posargs)


@nox.session(python=False, requires=[f"env-{NEWEST}"], default=False)
def stress(session: nox.Session) -> None:
    """The reliability tests, ten rounds, in the newest environment.

    Each round has its own hypothesis seed, so every round streams other random datasets and mixes
    other operations.
    """
    for seed in range(1, 11):
        session.log(f"stress: round {seed} of 10")
        session.run(env_python(session, NEWEST), "-m", "pytest", "-q", "-p", "no:cacheprovider",
                    f"--hypothesis-seed={seed}", "tests/reliability", *session.posargs,
                    env={"HYPOTHESIS_PROFILE": "stress"})


@nox.session(python=False, requires=[f"env-{name}" for name in ENVIRONMENTS], default=False)
def bench(session: nox.Session) -> None:
    """The chunk layer's benchmarks under every environment, in version order (``-- --quick``: one).

    Cython, at its pinned release, compiles the peer in each; ``bench_chunk_layer.py --all`` times
    them with pyperf, counts their instructions and writes the tables under ``build/bench/``.
    """
    pythons = [env_python(session, name) for name in ENVIRONMENTS]
    for python in pythons:
        session.run(python, "-m", "pip", "install", "--quiet", "--disable-pip-version-check",
                    "-c", str(CONSTRAINTS), "Cython")
    options = [option for python in pythons for option in ("--python", python)]
    session.run(pythons[0], "benchmarks/bench_chunk_layer.py", "--all", *options, *session.posargs)


@nox.session(python=PYTHONS[NEWEST], default=False)
def sanitize(session: nox.Session) -> None:
    """The test suite against a build with AddressSanitizer and UndefinedBehaviorSanitizer.

    Under the newest CPython, in an environment and build folder of its own; arguments after ``--`` go
    to pytest.
    """
    install_packages(session, PACKAGES)
    install_quillmarsh(session, NEWEST, sanitize=True)
    runtime = [compiler_file(name) for name in ("libasan.so", "libubsan.so")]
    # The interpreter is not built with the sanitizers: their runtime is preloaded, and Python's own
    # allocator is bypassed so that every object lives in memory ASan watches. Leak checking is left
    # to the reference-count tests (the interpreter keeps memory alive until exit by design).
    env = {
        "LD_PRELOAD": " ".join(runtime),
        "ASAN_OPTIONS": "detect_leaks=0:abort_on_error=1:check_initialization_order=1",
        "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
        "PYTHONMALLOC": "malloc",
    }
    session.run("python", "-m", "pytest", "-p", "no:cacheprovider", *session.posargs, env=env)


def compiler_file(name: str) -> str:
    """Where g++ keeps ``name`` (a sanitizer runtime)."""
    return subprocess.run(["g++", f"-print-file-name={name}"], capture_output=True, text=True,
                          check=True).stdout.strip()


@nox.session(python=False, default=False)
def wheels(session: nox.Session) -> None:
    """The sdist and one manylinux wheel per CPython into ``dist/``, each smoke-tested.

    Each is installed and tried in a fresh environment (``-- --help`` for ``scripts/wheels.py``'s
    options).
    """
    session.run(sys.executable, "scripts/wheels.py", *session.posargs)

