"""Queues tasks behind a running one on the shared pool, then exits while a slow exit handler of the
caller runs. The running task finishes; no queued task may start once the interpreter exits."""

from __future__ import annotations

import atexit
import sys
import time

from quillmarsh.common import ThreadPoolManager


def slow_exit_handler() -> None:
    time.sleep(0.5)  # plenty of time for the pool to start the queued tasks, if it still would
    print("exit handler done", flush=True)


def report(line: str) -> None:
    print(line, flush=True)


def finish_late(line: str) -> None:
    time.sleep(0.3)
    report(line)


def main() -> None:
    atexit.register(slow_exit_handler)  # registered before the pool exists: runs after the pool's own
    ThreadPoolManager.configure(max_workers=1)
    pool = ThreadPoolManager()
    pool.add_to_queue(finish_late, lambda *args: True, 0, "running task finished")
    while not pool.has_running_tasks():
        time.sleep(0.01)
    for number in range(5):
        pool.add_to_queue(report, lambda *args: True, 1, f"queued task {number} started")
    sys.exit(3)


if __name__ == "__main__":
    main()
