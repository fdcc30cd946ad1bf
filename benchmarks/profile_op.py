"""Runs operations of the per-call benchmark many times, for an external profiler.

The fixture and loops are the per-call benchmark's (``bench_overhead.py``: no-op stand-ins, 2 to 4-row
arrays). Set-up and warm-up happen before the ``--calls`` counted calls. Examples (from the repository
root):

    valgrind --tool=callgrind --callgrind-out-file=/tmp/cg.out \\
        .venv/bin/python benchmarks/profile_op.py has_buffer module --calls 100000
    callgrind_annotate /tmp/cg.out | head -40
    perf stat -e instructions,cycles .venv/bin/python benchmarks/profile_op.py "process step" cython

Compare with ``--calls 0`` (set-up only) to remove the fixed cost of starting the interpreter.

With ``--marked LABELS``, every operation (or those named with ``--operation``) runs in turn, and
``os.getppid()`` is called around each counted part: run under ``valgrind --tool=callgrind
--dump-before=getppid``, each part lands in its own dump, and the labels of the parts, in order, are
written to the file LABELS. ``bench_instructions.py`` counts this way: one valgrind run per implementation.
"""

from __future__ import annotations

import argparse
import gc
import json
import os
from pathlib import Path

import bench_overhead


def marked(implementation: str, calls: int, labels: Path, operations: list | None) -> None:
    """Each operation: set-up and warm-up, then ``calls`` calls, then the harness's ``calls`` iterations,
    each part closed by a mark."""
    spaces = bench_overhead.namespaces()
    names = []
    gc.disable()
    with bench_overhead.Patched(spaces) as patch:
        fixture = bench_overhead.make_fixture(spaces, {i: patch.saved[i]["ChunkNode"] for i in spaces})
        for op in bench_overhead.select(operations):
            loops = op.loops(fixture)
            loops[implementation](20)
            loops["harness"](20)
            os.getppid()
            names.append(f"setup\t{op.name}")
            loops[implementation](calls)
            os.getppid()
            names.append(f"{implementation}\t{op.name}")
            loops["harness"](calls)
            os.getppid()
            names.append(f"harness\t{op.name}")
    labels.write_text(json.dumps(names))


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("words", nargs="+", metavar="[OPERATION] IMPLEMENTATION",
                        help="an operation of bench_overhead.py (not with --marked), then one of "
                        + ", ".join(bench_overhead.IMPLEMENTATIONS))
    parser.add_argument("--calls", type=int, default=100_000)
    parser.add_argument("--marked", type=Path, metavar="LABELS", help="every operation, in marked parts")
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME",
                        help="with --marked: only these operations")
    args = parser.parse_args()
    *operation, implementation = args.words
    if implementation not in bench_overhead.IMPLEMENTATIONS or len(operation) != (args.marked is None):
        parser.error("give an operation and an implementation, or with --marked only an implementation")
    if args.marked is not None:
        marked(implementation, args.calls, args.marked, args.operations)
        return
    spaces = bench_overhead.namespaces()
    with bench_overhead.Patched(spaces) as patch:
        fixture = bench_overhead.make_fixture(spaces, {i: patch.saved[i]["ChunkNode"] for i in spaces})
        loop = bench_overhead.select(operation)[0].loops(fixture)[implementation]
        loop(100)  # warm-up: every lazily made object exists before the counted calls
        loop(args.calls)

if __name__ == "__main__":
    main()
