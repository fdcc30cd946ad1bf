"""The interpreter exits with the caller's own status when it ends while threads are inside the chunk
layer module: the pool's builds in parallel mode, and daemon threads inside each public callable. Each
case runs many times in a fresh interpreter: a crash would show as a signal or another status."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path
from typing import List

import pytest

SCRIPTS = Path(__file__).parent / "scripts"
ROUNDS = 4

# AddressSanitizer's own interceptors report the forced unwinding of a thread ended at finalisation
# as an overflow of the stack they unpoison; the exits are checked in the plain builds.
# The exits are those of the compiled module: run against it alone.
pytestmark = [pytest.mark.compiled_only,
              pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""),
                                 reason="forced unwinding is reported by AddressSanitizer itself")]


def default_sigint() -> None:
    """Ctrl-C as a terminal gives it, also when these tests run where it is ignored (a background job):
    a child that starts with it ignored never turns it into KeyboardInterrupt."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


def run(script: str, *args: str) -> subprocess.CompletedProcess:
    return subprocess.run(
        [sys.executable, str(SCRIPTS / script), *args], capture_output=True, text=True, timeout=120,
        preexec_fn=default_sigint,
    )


def assert_no_crash_report(result: subprocess.CompletedProcess) -> None:
    for sign in ("Fatal Python error", "terminate called", "Segmentation fault", "Aborted"):
        assert sign not in result.stderr, result.stderr


@pytest.mark.parametrize(
    ("mode", "status", "last_line"),
    [
        ("exit", 5, None),
        ("exception", 1, "RuntimeError: the caller's loop failed"),
        ("sigint", -signal.SIGINT, "KeyboardInterrupt"),
    ],
)
def test_leaving_while_the_pool_builds_exits_with_the_callers_status(mode: str, status: int,
                                                                      last_line: str) -> None:
    for _ in range(ROUNDS):
        result = run("exit_during_parallel_build.py", mode)
        assert result.returncode == status, result.stderr
        assert_no_crash_report(result)
        if last_line is not None:
            assert result.stderr.rstrip().splitlines()[-1] == last_line


def test_exit_while_daemon_threads_are_inside_every_public_callable() -> None:
    for _ in range(ROUNDS):
        result = run("exit_inside_methods.py")
        assert result.returncode == 7, result.stderr
        assert_no_crash_report(result)


def test_at_exit_the_running_pool_task_finishes_and_no_queued_one_starts() -> None:
    result = run("exit_with_queued_tasks.py")
    lines: List[str] = result.stdout.splitlines()
    assert result.returncode == 3, result.stderr
    assert lines == ["running task finished", "exit handler done"]


def test_exit_inside_every_public_callable_after_a_sub_interpreter_existed() -> None:
    # Once any sub-interpreter has existed, the interpreter's own check of whether a thread holds
    # its lock answers yes in every thread: the module must still tell the threads being ended.
    for _ in range(ROUNDS):
        result = run("exit_inside_methods.py", "--after-sub-interpreter")
        assert result.returncode == 7, result.stderr
        assert_no_crash_report(result)


def test_exit_while_threads_are_inside_finalisers_the_module_set_off() -> None:
    for _ in range(ROUNDS):
        result = run("exit_inside_finalisers.py")
        assert result.returncode == 7, result.stderr
        assert_no_crash_report(result)
