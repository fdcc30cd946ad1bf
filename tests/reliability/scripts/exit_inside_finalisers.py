"""Ends the interpreter while daemon threads are inside finalisers that the chunk layer module set
off by giving back the last reference to an object: a `__del__` and a weakref callback run when a
method drops a value it read, when a generator body replaces a value it keeps, and when a generator
body ends. Each finaliser is parked in code that never returns, so the interpreter ends its thread
at finalisation, and that unwinding passes through the module's release of the reference. Exits
with status 7 when every thread got inside; 99 (and the names of the laggards) otherwise."""

from __future__ import annotations

import sys
import threading
import time
import weakref

from quillmarsh.core.tree.chunk_layer import ChunkLayer

entered: dict = {}
kept_alive: list = []


def stuck(*args, **kwargs):
    """Never returns: tells the main thread that this thread is inside, then waits forever."""
    entered[threading.current_thread().name].set()
    while True:
        time.sleep(0.001)


class StuckWhenDropped:
    def __del__(self):
        stuck()


class Watched:
    pass


def watched_by_a_stuck_callback():
    """A value whose death calls a weakref callback that gets stuck."""
    value = Watched()
    kept_alive.append(weakref.ref(value, stuck))
    return value


class Manager:
    verbose = 1
    n_instances = None
    n_jobs = None

    def __init__(self, fresh=StuckWhenDropped):
        self.fresh = fresh

    def get_removed(self):
        return None

    def get_by_nodes(self, ids, **kwargs):
        return self.fresh()


class Parent:
    def update_build_params(self):
        pass


class FreshBuffer(ChunkLayer):
    """Every read of `buffer` makes a new value, which the reader drops."""

    fresh = StuckWhenDropped

    @property
    def buffer(self):
        return type(self).fresh()

    @buffer.setter
    def buffer(self, value):
        pass


class WatchedBuffer(FreshBuffer):
    fresh = staticmethod(watched_by_a_stuck_callback)


class QuietRebuild(ChunkLayer):
    def _rebuild_node(self, dset, node_id):
        return node_id


def quiet(manager):
    return QuietRebuild(manager, [], 2, Parent())


def main() -> None:
    calls = {
        "a value read and dropped": lambda: FreshBuffer(Manager(), [], 2, Parent()).has_buffer(),
        "a weakref callback": lambda: WatchedBuffer(Manager(), [], 2, Parent()).has_buffer(),
        "a value a generator replaces": lambda: list(quiet(Manager()).rebuild(["a", "b"])),
        "a value a generator keeps to its end": lambda: list(quiet(Manager()).rebuild(["a"])),
        "a value a generator replaces, with a weakref callback": lambda: list(
            quiet(Manager(watched_by_a_stuck_callback)).rebuild(["a", "b"])),
    }
    for name, call in calls.items():
        entered[name] = threading.Event()
        threading.Thread(target=call, name=name, daemon=True).start()
    laggards = [name for name, event in entered.items() if not event.wait(10)]
    if laggards:
        print("never got inside:", ", ".join(laggards), file=sys.stderr)
        sys.exit(99)
    sys.exit(7)


if __name__ == "__main__":
    main()
