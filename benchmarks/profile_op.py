"""Runs one operation of the overhead benchmark many times, for an external profiler.

The fixture is the overhead benchmark's (no-op collaborators, trivial ``ChunkNode``, 2 to 4-row arrays).
Set-up and warm-up happen before ``--calls`` timed calls, so a profiler's totals divided by the number of
calls give the per-call cost. Examples (run from the repository root):

    valgrind --tool=callgrind --callgrind-out-file=/tmp/cg.out \\
        .venv/bin/python benchmarks/profile_op.py has_buffer compiled --calls 100000
    callgrind_annotate /tmp/cg.out | head -40
    perf stat -e instructions,cycles,branches,branch-misses \\
        .venv/bin/python benchmarks/profile_op.py "process step" compiled --calls 200000

Compare with ``--calls 0`` (set-up only) to remove the fixed cost of starting the interpreter.
"""

from __future__ import annotations

import argparse

import baseline
import bench_overhead
import quillmarsh.core.tree.chunk_layer as chunk_layer


def main() -> None:
    operations = {op: factory for op, _note, factory in bench_overhead.OPERATIONS}
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("operation", choices=sorted(operations))
    parser.add_argument("implementation", choices=bench_overhead.IMPLEMENTATIONS)
    parser.add_argument("--calls", type=int, default=100_000)
    args = parser.parse_args()
    chunk_layer.ChunkNode = bench_overhead.TrivialNode
    baseline.ChunkNode = bench_overhead.TrivialNode
    loops = operations[args.operation](bench_overhead.make_fixture())
    loop = loops[args.implementation]
    loop(100)  # warm-up: every lazily made object exists before the counted calls
    loop(args.calls)


if __name__ == "__main__":
    main()
