"""Tests of quillmarsh.common: the shared task pool ThreadPoolManager and TaskError."""

from __future__ import annotations

import collections
import threading
import time
from typing import Any, List

import numpy as np
import pytest

from quillmarsh.common import TaskError, ThreadPoolManager
from quillmarsh.data.common import Dataset


def always(*args: Any) -> bool:
    return True


def start_blocker(pool: ThreadPoolManager) -> threading.Event:
    """Run a task that holds a worker until the returned event is set; return once it has started."""
    started, release = threading.Event(), threading.Event()

    def blocker() -> None:
        started.set()
        release.wait(10)

    pool.add_to_queue(blocker, always, 0)
    assert started.wait(5)
    return release


def test_same_object_from_every_thread() -> None:
    seen: List[ThreadPoolManager] = []
    threads = [threading.Thread(target=lambda: seen.append(ThreadPoolManager())) for _ in range(16)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(seen) == 16 and all(p is ThreadPoolManager() for p in seen)


def test_workers_are_daemons_started_lazily(single_worker_pool: ThreadPoolManager) -> None:
    pool = single_worker_pool
    assert not any(t.name.startswith("quillmarsh-pool") for t in threading.enumerate())
    pool.add_to_queue(lambda: None, always, 0)
    pool.wait_until_idle(5)
    workers = [t for t in threading.enumerate() if t.name.startswith("quillmarsh-pool")]
    assert len(workers) == 1 and workers[0].daemon


def test_default_worker_count() -> None:
    import os

    assert ThreadPoolManager().max_workers == max(2, os.cpu_count() or 1)


def test_priority_order_then_fifo(single_worker_pool: ThreadPoolManager) -> None:
    pool = single_worker_pool
    release = start_blocker(pool)
    order: List[str] = []
    for name, priority in [("c1", 3), ("a1", 1), ("b1", 2), ("a2", 1), ("c2", 3), ("z", -5), ("a3", 1)]:
        pool.add_to_queue(order.append, always, priority, name)
    assert pool.pending_count() == 7
    release.set()
    pool.wait_until_idle(5)
    assert order == ["z", "a1", "a2", "a3", "b1", "c1", "c2"]


def test_deferred_task_does_not_hold_back_later_ones(single_worker_pool: ThreadPoolManager) -> None:
    pool = single_worker_pool
    flag = threading.Event()
    order: List[str] = []
    pool.add_to_queue(order.append, lambda name: flag.is_set(), 0, "deferred")
    pool.add_to_queue(order.append, always, 1, "ready")
    deadline = time.monotonic() + 5
    while order != ["ready"] and time.monotonic() < deadline:
        time.sleep(0.01)
    assert order == ["ready"] and pool.pending_count() == 1
    flag.set()
    pool.wait_until_idle(5)
    assert order == ["ready", "deferred"]


def test_check_false_until_flag_set_from_another_thread(pool: ThreadPoolManager) -> None:
    flag = threading.Event()
    ran = threading.Event()
    checks: List[bool] = []

    def check() -> bool:
        checks.append(flag.is_set())
        return flag.is_set()

    pool.add_to_queue(ran.set, check, 0)
    time.sleep(0.15)
    assert not ran.is_set() and pool.pending_count() == 1
    timer = threading.Timer(0.05, flag.set)
    timer.start()
    assert ran.wait(5), "a deferred task must start by polling when nothing else runs"
    pool.wait_until_idle(5)
    timer.join()
    assert checks.count(False) >= 2 and checks[-1] is True


def test_check_false_while_others_run(pool: ThreadPoolManager) -> None:
    events: List[str] = []
    release = start_blocker(pool)
    events.append("blocker running")

    def exclusive_check(name: str) -> bool:
        return not ThreadPoolManager().has_running_tasks()

    pool.add_to_queue(events.append, exclusive_check, 0, "exclusive")
    time.sleep(0.1)
    assert events == ["blocker running"]
    events.append("release")
    release.set()
    pool.wait_until_idle(5)
    assert events == ["blocker running", "release", "exclusive"]


def test_exclusive_checks_never_pass_together(pool: ThreadPoolManager) -> None:
    running = 0
    peak = 0
    lock = threading.Lock()

    def task() -> None:
        nonlocal running, peak
        with lock:
            running += 1
            peak = max(peak, running)
        time.sleep(0.005)
        with lock:
            running -= 1

    for _ in range(30):
        pool.add_to_queue(task, lambda: not ThreadPoolManager().has_running_tasks(), 0)
    pool.wait_until_idle(10)
    assert peak == 1


def test_chunk_layer_style_check(pool: ThreadPoolManager) -> None:
    """A chunk too big for memory starts only while no other task runs."""
    rows_fit = 10
    done: List[int] = []
    running: List[int] = []
    big_started_beside_others: List[int] = []
    lock = threading.Lock()

    def task(chunk: Dataset, i: int) -> None:
        rows = chunk.X.shape[0]
        with lock:
            if rows > rows_fit and running:
                big_started_beside_others.append(i)
            running.append(rows)
        time.sleep(0.01)
        with lock:
            running.remove(rows)
            done.append(i)

    def check(chunk: Dataset, i: int) -> bool:
        return not (rows_fit < chunk.X.shape[0] and ThreadPoolManager().has_running_tasks())

    for i, rows in enumerate([5, 50, 5, 50, 5, 5, 50]):
        pool.add_to_queue(task, check, 0, Dataset(np.arange(rows), np.zeros((rows, 2))), i)
    pool.wait_until_idle(10)
    assert sorted(done) == list(range(7))
    assert big_started_beside_others == []


def test_has_running_tasks(pool: ThreadPoolManager) -> None:
    assert not pool.has_running_tasks()
    inside: List[bool] = []
    pool.add_to_queue(lambda: inside.append(ThreadPoolManager().has_running_tasks()), always, 0)
    pool.wait_until_idle(5)
    assert inside == [True] and not pool.has_running_tasks()


def test_has_running_tasks_and_pool_from_inside_a_check(pool: ThreadPoolManager) -> None:
    seen: List[Any] = []

    def check() -> bool:
        seen.append((ThreadPoolManager() is pool, ThreadPoolManager().has_running_tasks()))
        return True

    pool.add_to_queue(lambda: None, check, 0)
    pool.wait_until_idle(5)
    assert seen and seen[0][0] is True


def test_task_errors_are_reported_once(pool: ThreadPoolManager) -> None:
    def fail(message: str) -> None:
        raise ValueError(message)

    pool.add_to_queue(fail, always, 0, "first")
    pool.add_to_queue(lambda: None, always, 0)
    with pytest.raises(TaskError) as info:
        pool.wait_until_idle(5)
    assert [str(e) for e in info.value.errors] == ["first"]
    assert isinstance(info.value.__cause__, ValueError)
    pool.wait_until_idle(5)  # reported errors are forgotten


def test_several_errors_are_all_kept(pool: ThreadPoolManager) -> None:
    for n in range(3):
        pool.add_to_queue(lambda n: 1 / 0, always, n, n)
    with pytest.raises(TaskError) as info:
        pool.wait_until_idle(5)
    assert len(info.value.errors) == 3
    assert all(isinstance(e, ZeroDivisionError) for e in info.value.errors)


def test_raising_check_drops_the_task_and_reports(pool: ThreadPoolManager) -> None:
    ran: List[int] = []

    def bad_check() -> bool:
        raise KeyError("broken check")

    pool.add_to_queue(lambda: ran.append(1), bad_check, 0)
    with pytest.raises(TaskError) as info:
        pool.wait_until_idle(5)
    assert ran == [] and isinstance(info.value.errors[0], KeyError)


def test_wait_until_idle_timeout(pool: ThreadPoolManager) -> None:
    release = start_blocker(pool)
    with pytest.raises(TimeoutError):
        pool.wait_until_idle(timeout=0.05)
    release.set()
    pool.wait_until_idle(5)


def test_wait_until_idle_from_a_task_is_refused(pool: ThreadPoolManager) -> None:
    pool.add_to_queue(lambda: ThreadPoolManager().wait_until_idle(), always, 0)
    with pytest.raises(TaskError) as info:
        pool.wait_until_idle(5)
    assert isinstance(info.value.errors[0], RuntimeError)


def test_tasks_may_queue_tasks(pool: ThreadPoolManager) -> None:
    done: List[int] = []

    def parent() -> None:
        ThreadPoolManager().add_to_queue(done.append, always, 0, 2)
        done.append(1)

    pool.add_to_queue(parent, always, 0)
    pool.wait_until_idle(5)
    assert sorted(done) == [1, 2]


def test_many_tasks_run_exactly_once(pool: ThreadPoolManager) -> None:
    counts: collections.Counter = collections.Counter()
    lock = threading.Lock()

    def task(i: int) -> None:
        with lock:
            counts[i] += 1

    for i in range(2000):
        pool.add_to_queue(task, always, i % 7, i)
    pool.wait_until_idle(30)
    assert len(counts) == 2000 and set(counts.values()) == {1}


def test_configure_rules(pool: ThreadPoolManager) -> None:
    with pytest.raises(ValueError):
        ThreadPoolManager.configure(max_workers=0)
    with pytest.raises(ValueError):
        ThreadPoolManager.configure(max_workers=True)
    pool.add_to_queue(lambda: None, always, 0)
    pool.wait_until_idle(5)
    with pytest.raises(RuntimeError, match="shutdown"):
        ThreadPoolManager.configure(max_workers=3)


def test_shutdown_then_restart(single_worker_pool: ThreadPoolManager) -> None:
    pool = single_worker_pool
    pool.add_to_queue(lambda: None, always, 0)
    pool.shutdown(timeout=5)
    assert not any(t.name.startswith("quillmarsh-pool") for t in threading.enumerate())
    done = threading.Event()
    pool.add_to_queue(done.set, always, 0)
    assert done.wait(5)
