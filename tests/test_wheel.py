"""The wheel of the running Python: built from the sdist, repaired to a manylinux tag, holding only the
package, and working when installed into a fresh environment away from the source tree.

Takes under a minute with warm pip caches, a few minutes cold; select with ``-m wheel``, leave out
with ``-m 'not wheel'``. ``scripts/dev wheels`` does the same for every CPython 3.9 to 3.13.
"""

from __future__ import annotations

import importlib.util
import re
import sys
import zipfile
from pathlib import Path
from types import ModuleType
from typing import Iterator, NamedTuple

import pytest

ROOT = Path(__file__).resolve().parents[1]
TAG = f"cp{sys.version_info[0]}{sys.version_info[1]}"

pytestmark = pytest.mark.wheel


class Built(NamedTuple):
    script: ModuleType
    interpreter: object
    dist: Path
    report: object


def load_script() -> ModuleType:
    found = importlib.util.spec_from_file_location("wheels_script", ROOT / "scripts" / "wheels.py")
    assert found is not None and found.loader is not None
    module = importlib.util.module_from_spec(found)
    sys.modules[found.name] = module  # dataclasses look their module up while the class is made
    found.loader.exec_module(module)
    return module


@pytest.fixture(scope="module")
def built(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Built]:
    script = load_script()
    interpreter = script.Interpreter(Path(sys.executable), f"{sys.version_info[0]}.{sys.version_info[1]}")
    dist = tmp_path_factory.mktemp("dist")
    report = script.Report()
    script.build_all([interpreter], dist, report)
    yield Built(script, interpreter, dist, report)
    sys.modules.pop("wheels_script", None)


def test_sdist_and_wheel_are_built_and_pass_twine_check(built: Built):
    assert built.report.failed == {}
    names = sorted(path.name for path in built.dist.iterdir())
    assert len(names) == 2, names
    assert re.fullmatch(r"quillmarsh-[\d.]+\.tar\.gz", names[1])
    assert re.fullmatch(rf"quillmarsh-[\d.]+-{TAG}-{TAG}-manylinux_\d+_\d+_x86_64\.whl", names[0])
    assert any(what.startswith("twine check of 2 artefact") for what in built.report.passed)


def test_wheel_holds_the_package_only(built: Built):
    (wheel,) = built.dist.glob("*.whl")
    with zipfile.ZipFile(wheel) as archive:
        names = archive.namelist()
    version = wheel.name.split("-")[1]
    assert {name.split("/")[0] for name in names} == {"quillmarsh", f"quillmarsh-{version}.dist-info"}
    assert "quillmarsh/py.typed" in names
    assert "quillmarsh/core/tree/chunk_layer.pyi" in names
    (compiled,) = [name for name in names if name.endswith(".so")]
    assert re.fullmatch(rf"quillmarsh/core/tree/chunk_layer\.cpython-{TAG[2:]}-x86_64-linux-gnu\.so",
                        compiled)
    assert not [name for name in names if "tests/" in name or "build/" in name or "__pycache__" in name]


def test_wheel_installs_on_systems_older_than_the_build_machine(built: Built):
    """The wheel's manylinux tag asks for no glibc of 2.32 or later, whatever glibc built it: Debian 11,
    Ubuntu 20.04 and RHEL 8 can install it."""
    (wheel,) = built.dist.glob("*.whl")
    match = re.search(r"-manylinux_(\d+)_(\d+)_x86_64\.whl$", wheel.name)
    assert match, wheel.name
    assert (int(match.group(1)), int(match.group(2))) < (2, 32), wheel.name


def test_wheel_works_in_a_fresh_environment(built: Built):
    """Installed into a new venv, run from outside the source tree: import, README snippet, example,
    stubtest and mypy --strict on the snippet."""
    report = built.script.Report()
    built.script.check_all([built.interpreter], built.dist, report, sdist=False)
    assert report.failed == {}
    (passed,) = report.passed
    for step in ("import", "README snippet", "example", "stubtest", "mypy --strict README snippet"):
        assert step in passed
