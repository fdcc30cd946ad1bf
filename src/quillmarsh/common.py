"""The library's shared task pool, ``ThreadPoolManager``, and its error type ``TaskError``.

Tasks are queued with a priority and a check; a worker starts a task only at a moment when its check
passes, so a caller can hold back memory-hungry work until the rest of the pool is quiet.
"""

from __future__ import annotations

import atexit
import bisect
import itertools
import os
import threading
import time
from typing import Any, Callable, List, Tuple

__all__ = ["EXIT_GRACE", "POLL_INTERVAL", "TaskError", "ThreadPoolManager"]

# How often idle workers re-run the checks of deferred tasks when nothing else wakes them.
POLL_INTERVAL = 0.02

# How long the interpreter's exit waits for running tasks before it abandons them.
EXIT_GRACE = 10.0


class TaskError(Exception):
    """Raised by ``ThreadPoolManager.wait_until_idle`` when tasks or checks raised.

    ``errors`` lists every exception kept since the previous report, oldest first; the first one is also
    the ``__cause__``.

    Parameters
    ----------
    errors : list of BaseException
        The exceptions raised by the tasks or their checks, oldest first; at least one.
    """

    def __init__(self, errors: List[BaseException]) -> None:
        self.errors = list(errors)
        first = self.errors[0]
        super().__init__(f"{len(self.errors)} pool task(s) failed; first: {type(first).__name__}: {first}")


class ThreadPoolManager:
    """The shared pool of daemon worker threads; ``ThreadPoolManager()`` always returns the same object.

    The workers start lazily, on the first ``add_to_queue``. Their number is ``max(2, os.cpu_count())``
    unless ``ThreadPoolManager.configure(max_workers=N)`` was called before they started; after a
    ``shutdown()`` the pool may be configured again and restarts on its next task.

    Dispatch is serialised under one re-entrant lock: a worker looks for a task to start by running the
    checks of the queued tasks in order (lowest priority number first, then first in first out) and
    starts the first whose check passes, all under that lock. So a check and the start of its task are
    atomic with respect to other starts, and checks may call ``has_running_tasks()`` or
    ``ThreadPoolManager()`` freely. A task whose check fails stays queued without holding back the tasks
    behind it; its check runs again whenever a task finishes and every ``POLL_INTERVAL`` seconds.
    Checks run with the pool's lock held, so they must be quick and must not wait for other threads.
    """

    _instance: ThreadPoolManager | None = None
    _instance_lock = threading.Lock()

    def __new__(cls) -> ThreadPoolManager:
        """Return the one pool, creating it on the first call."""
        instance = cls._instance
        if instance is None:
            with cls._instance_lock:
                instance = cls._instance
                if instance is None:
                    instance = super().__new__(cls)
                    instance._setup()
                    cls._instance = instance
        return instance

    def _setup(self) -> None:
        self._cond = threading.Condition(threading.RLock())
        self._queue: List[Tuple[Any, int, Callable[..., Any], Callable[..., Any], Tuple[Any, ...]]] = []
        self._seq = itertools.count()
        self._running = 0
        self._errors: List[BaseException] = []
        self._threads: List[threading.Thread] = []
        self._generation = 0  # bumped by shutdown(); workers of an older generation exit
        self._max_workers = max(2, os.cpu_count() or 1)
        atexit.register(self._stop_at_exit)

    def _stop_at_exit(self) -> None:
        """Stop the pool at interpreter exit.

        Drops the queued tasks and lets the workers go, so that no task starts from now on, and gives
        the running tasks up to ``EXIT_GRACE`` seconds to finish. A task still running after that is
        abandoned: the interpreter ends its thread when it finalises.
        """
        deadline = time.monotonic() + EXIT_GRACE
        with self._cond:
            self._queue.clear()
            self._generation += 1
            self._threads = []
            self._cond.notify_all()
            while self._running and time.monotonic() < deadline:
                self._cond.wait(deadline - time.monotonic())

    @classmethod
    def configure(cls, max_workers: int) -> None:
        """Set the number of worker threads; only allowed while the workers are not started.

        Parameters
        ----------
        max_workers : int
            The number of worker threads, at least 1.

        Raises
        ------
        ValueError
            If ``max_workers`` is not a positive int (``bool`` included).
        RuntimeError
            If the workers are running already (call ``shutdown()`` first).
        """
        if isinstance(max_workers, bool) or not isinstance(max_workers, int) or max_workers < 1:
            raise ValueError(f"max_workers must be a positive int, got {max_workers!r}")
        pool = cls()
        with pool._cond:
            if pool._threads:
                raise RuntimeError("the pool's workers are already running; call shutdown() first")
            pool._max_workers = max_workers

    @property
    def max_workers(self) -> int:
        """The number of worker threads the pool runs (or will start)."""
        return self._max_workers

    def add_to_queue(
        self, task: Callable[..., Any], check: Callable[..., Any], priority: Any, *args: Any
    ) -> None:
        """Queue ``task(*args)``, to start on a worker at a moment when ``check(*args)`` is true.

        Lower ``priority`` numbers start first; equal priorities start in the order queued. An exception
        raised by the task, or by its check (which drops the task), is kept for ``wait_until_idle``.
        Starts the workers if they are not running.

        Parameters
        ----------
        task : callable
            Called as ``task(*args)`` on a worker thread; its return value is dropped.
        check : callable
            Called as ``check(*args)`` with the pool's lock held; the task starts once it returns a
            true value. It must be quick and must not wait for other threads.
        priority : object
            The task's rank in the queue, compared with the other tasks' priorities (lowest first).
        *args : object
            The arguments of ``task`` and ``check``.
        """
        with self._cond:
            bisect.insort(self._queue, (priority, next(self._seq), task, check, args))
            if not self._threads:
                self._start_workers()
            self._cond.notify()

    def has_running_tasks(self) -> bool:
        """Tell whether any task of the pool is running now (queued tasks do not count).

        Returns
        -------
        bool
            True while at least one task runs.
        """
        with self._cond:
            return self._running > 0

    def pending_count(self) -> int:
        """Return the number of queued tasks that have not started yet.

        Returns
        -------
        int
            The number of tasks waiting in the queue.
        """
        with self._cond:
            return len(self._queue)

    def wait_until_idle(self, timeout: float | None = None) -> None:
        """Block until no task is queued or running, then report the errors kept since the last report.

        Must not be called from a task, which would wait for itself.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait; None waits as long as it takes.

        Raises
        ------
        TaskError
            If any task or check raised since the last report; the reported errors are forgotten.
        TimeoutError
            If the pool is still busy after ``timeout`` seconds.
        RuntimeError
            If called from a task of the pool.
        """
        if threading.current_thread() in self._threads:
            raise RuntimeError("wait_until_idle() called from a pool task would wait for itself")
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._cond:
            while self._queue or self._running:
                remaining = None if deadline is None else deadline - time.monotonic()
                if remaining is not None and remaining <= 0:
                    raise TimeoutError(
                        f"pool not idle after {timeout} s: {self._running} running, {len(self._queue)} queued"
                    )
                self._cond.wait(remaining)
            if self._errors:
                errors, self._errors = self._errors, []
                raise TaskError(errors) from errors[0]

    def shutdown(self, timeout: float | None = None) -> None:
        """Wait until no task is queued or running, then stop and join the workers.

        Kept errors stay kept for the next ``wait_until_idle``. The pool restarts on its next task, with
        the worker count configured then.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait for the pool to go idle; None waits as long as it takes.

        Raises
        ------
        TimeoutError
            If the pool does not go idle within ``timeout`` seconds.
        RuntimeError
            If called from a task of the pool.
        """
        if threading.current_thread() in self._threads:
            raise RuntimeError("shutdown() called from a pool task would wait for itself")
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._cond:
            while self._queue or self._running:
                remaining = None if deadline is None else deadline - time.monotonic()
                if remaining is not None and remaining <= 0:
                    raise TimeoutError(f"pool not idle after {timeout} s")
                self._cond.wait(remaining)
            self._generation += 1
            threads, self._threads = self._threads, []
            self._cond.notify_all()
        for thread in threads:
            thread.join()

    def _start_workers(self) -> None:
        for number in range(self._max_workers):
            thread = threading.Thread(
                target=self._work, args=(self._generation,), name=f"quillmarsh-pool-{number}", daemon=True
            )
            self._threads.append(thread)
            thread.start()

    def _next_runnable(self) -> Tuple[Callable[..., Any], Tuple[Any, ...]] | None:
        """Pop and return the first queued task whose check passes; called with the lock held."""
        position = 0
        while position < len(self._queue):
            _, _, task, check, args = self._queue[position]
            try:
                ready = check(*args)
            except BaseException as exc:  # the task is dropped, its check's error kept
                del self._queue[position]
                self._errors.append(exc)
                self._cond.notify_all()
                continue
            if ready:
                del self._queue[position]
                return task, args
            position += 1
        return None

    def _work(self, generation: int) -> None:
        while True:
            with self._cond:
                while True:
                    if generation != self._generation:
                        return
                    runnable = self._next_runnable()
                    if runnable is not None:
                        self._running += 1
                        break
                    self._cond.wait(POLL_INTERVAL if self._queue else None)
            task, args = runnable
            error: BaseException | None = None
            try:
                task(*args)
            except BaseException as exc:
                error = exc
            with self._cond:
                self._running -= 1
                if error is not None:
                    self._errors.append(error)
                self._cond.notify_all()
            # Drop the references so an idle worker does not keep the last task's arguments alive.
            del task, args, runnable, error
