"""Corners where the chunk layer module must behave as plain Python, each run on one side: the
compiled module ("module") or its plain-Python reference ("reference", found on
the PYTHONPATH that the test gives). Prints what happened
as one JSON value, for the test to compare the two sides and the behaviour stated.

    python_corners.py CORNER SIDE
"""

from __future__ import annotations

import _thread
import ctypes
import importlib
import json
import sys
import threading
import traceback
import warnings

import numpy as np

from quillmarsh.data.common import Dataset


def side_module(side: str):
    if side == "module":
        return importlib.import_module("quillmarsh.core.tree.chunk_layer")
    return importlib.import_module("reference")


class Manager:
    verbose = 0
    n_instances = None
    n_jobs = None

    def get_removed(self):
        return None

    def get_by_nodes(self, ids, **kwargs):
        return Dataset(np.arange(2), np.zeros((2, 2)), None, None, None, None)


class Parent:
    def update_build_params(self):
        pass


def rows():
    return Dataset(np.arange(2), np.zeros((2, 2)), None, None, None, None)


def keywords_the_body_empties(layer_module) -> list:
    """A method called through its call slot with the caller's own keyword dict (as a new thread
    gets it), whose body empties that dict: the argument stays alive until the call ends."""
    events = []
    finished = threading.Event()

    class Owner:
        reads = 0

        @property
        def buffer(self):
            Owner.reads += 1
            if Owner.reads == 1:
                keywords.clear()
                events.append("emptied")
            else:
                events.append("read again")
            return rows()

        def __del__(self):
            events.append("freed")
            finished.set()

    keywords = {"self": Owner()}
    _thread.start_new_thread(layer_module.ChunkLayer.has_buffer.__call__, (), keywords)
    finished.wait(30)
    return events


def keyword_given_twice(layer_module) -> dict:
    """The same keyword twice: by a str subclass that hashes apart from the plain name, and from a C
    caller that repeats a name."""
    compared = []

    class Name(str):
        def __hash__(self):
            return str.__hash__(self) ^ 1

        def __eq__(self, other):
            compared.append(str(other))
            return str.__eq__(self, other)

    layer = layer_module.ChunkLayer.__new__(layer_module.ChunkLayer)
    outcome = {}
    try:
        layer_module.ChunkLayer.__init__(layer, Manager(), **{Name("chunk_size"): 7, "chunk_size": 5})
        outcome["subclass"] = "accepted"
    except TypeError as error:
        outcome["subclass"] = f"TypeError: {error}"
    outcome["compared"] = compared

    try:
        vectorcall = ctypes.pythonapi.PyObject_Vectorcall
    except AttributeError:  # not exported before 3.10
        outcome["repeated"] = "not tried"
        return outcome
    vectorcall.restype = ctypes.py_object
    vectorcall.argtypes = [ctypes.py_object, ctypes.POINTER(ctypes.py_object), ctypes.c_size_t,
                           ctypes.py_object]
    arguments = (ctypes.py_object * 4)(layer, Manager(), 7, 5)
    try:
        vectorcall(layer_module.ChunkLayer.__init__, arguments, 2, ("chunk_size", "chunk_size"))
        outcome["repeated"] = "accepted"
    except TypeError as error:
        outcome["repeated"] = f"TypeError: {error}"
    return outcome


def quiet_layer(layer_module):
    class QuietRebuild(layer_module.ChunkLayer):
        def _rebuild_node(self, dset, node_id):
            return node_id

    return QuietRebuild(Manager(), [], 2, Parent())


def throw_with_three_arguments(layer_module) -> dict:
    """throw(type, value, traceback) into a suspended generator: the warnings it gives, and whether
    the generator goes on after the warning was raised as an error."""
    outcome = {}
    generator = quiet_layer(layer_module).rebuild(["a", "b", "c"])
    next(generator)
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        try:
            generator.throw(KeyError, KeyError("k"), None)
        except KeyError:
            pass
    outcome["warnings"] = [f"{w.category.__name__}: {w.message}" for w in caught]
    generator = quiet_layer(layer_module).rebuild(["a", "b", "c"])
    next(generator)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        try:
            generator.throw(KeyError, KeyError("k"), None)
            outcome["as error"] = "no error"
        except DeprecationWarning:
            outcome["as error"] = "DeprecationWarning"
        except KeyError:
            outcome["as error"] = "KeyError"
    outcome["next"] = next(generator, "finished")
    return outcome


def frames_below() -> int:
    """How many Python frames the caller's frame has below it."""
    frame, count = sys._getframe(1), 0
    while frame.f_back is not None:
        frame, count = frame.f_back, count + 1
    return count


def at_depth(depth: int, action):
    if depth > 0:
        return at_depth(depth - 1, action)
    return action()


def step(depth: int, generator) -> str:
    """A step of `generator` taken with `depth` Python frames below: "ran", or where the
    RecursionError came from: the step itself, or a function that the body called."""
    try:
        at_depth(depth - frames_below(), lambda: next(generator))
    except RecursionError as error:
        innermost = traceback.extract_tb(error.__traceback__)[-1].name
        # The step itself: the call of next() in the lambda, or, for a Python generator from 3.11
        # on, the generator's own frame, which is entered before the count is checked.
        if innermost in ("<lambda>", "rebuild"):
            return "RecursionError in the step"
        return f"RecursionError in {innermost}"
    return "ran"


def plain_generator():
    yield 1
    yield 2


def resumption_limit() -> int:
    """The smallest depth at which a step of a started Python generator whose body calls nothing is
    refused: there the resumption itself is refused, not the call of next()."""
    low, high = 0, sys.getrecursionlimit() + 100
    while low < high:
        middle = (low + high) // 2
        generator = plain_generator()
        next(generator)
        if step(middle, generator) != "ran":
            high = middle
        else:
            low = middle + 1
    return low


def generator_refused_at_the_limit(layer_module) -> dict:
    """A step refused at the recursion limit finishes the generator, started or not."""
    depth = resumption_limit()
    outcome = {}
    for started in (False, True):
        generator = quiet_layer(layer_module).rebuild(["a", "b", "c"])
        if started:
            next(generator)
        steps = [step(depth, generator)]
        steps.append(next(generator, "finished"))
        steps.append(next(generator, "finished"))
        outcome["started" if started else "unstarted"] = steps
    return outcome


CORNERS = {
    "keywords_the_body_empties": keywords_the_body_empties,
    "keyword_given_twice": keyword_given_twice,
    "throw_with_three_arguments": throw_with_three_arguments,
    "generator_refused_at_the_limit": generator_refused_at_the_limit,
}

if __name__ == "__main__":
    corner, side = sys.argv[1:3]
    print(json.dumps(CORNERS[corner](side_module(side))))
