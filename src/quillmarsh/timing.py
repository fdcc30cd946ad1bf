"""Where a run's time goes: seconds spent in each stage of the library, summed over threads.

The library's stages add their time to one process-wide ``StageClock``, ``STAGES``:

- ``"preprocess"``: a chunk's preprocessing (``DataAutoProcessor``);
- ``"sensitivities"``: a leaf's sensitivities (``CoresetBase.compute_sensitivities``);
- ``"leaves"``: drawing each leaf's sample;
- ``"merges"``: merging two nodes into one (their sensitivities included).

A stage entered inside another on the same thread counts for the outer one only, so the stages never
count the same second twice. Read ``STAGES.snapshot()`` before and after a piece of work and subtract
(``since``); with leaves built on several threads the sums can exceed the wall time.
"""

from __future__ import annotations

import threading
import time
from contextlib import contextmanager
from typing import Dict, Iterator

__all__ = ["STAGES", "StageClock"]


class StageClock:
    """Seconds per stage name, added by ``measure`` from any thread."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._seconds: Dict[str, float] = {}
        self._inside = threading.local()

    @contextmanager
    def measure(self, stage: str) -> Iterator[None]:
        """Add the time of the ``with`` block to ``stage``, unless the thread is in a stage already.

        Parameters
        ----------
        stage : str
            The stage's name.

        Yields
        ------
        None
            Control to the ``with`` block, once.
        """
        if getattr(self._inside, "stage", None) is not None:
            yield
            return
        self._inside.stage = stage
        started = time.perf_counter()
        try:
            yield
        finally:
            elapsed = time.perf_counter() - started
            self._inside.stage = None
            with self._lock:
                self._seconds[stage] = self._seconds.get(stage, 0.0) + elapsed

    def snapshot(self) -> Dict[str, float]:
        """Return the seconds of every stage so far.

        Returns
        -------
        dict of str to float
            The seconds summed per stage name.
        """
        with self._lock:
            return dict(self._seconds)

    def since(self, before: Dict[str, float]) -> Dict[str, float]:
        """Return the seconds of every stage since ``before`` (a ``snapshot``).

        Parameters
        ----------
        before : dict of str to float
            An earlier ``snapshot``.

        Returns
        -------
        dict of str to float
            The seconds added per stage name since ``before``.
        """
        now = self.snapshot()
        return {stage: now[stage] - before.get(stage, 0.0) for stage in now}


STAGES = StageClock()
"""The library's stage clock."""
