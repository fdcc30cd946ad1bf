"""The measurements of one interpreter: run by ``run.py`` with each interpreter to measure, in a subprocess.

Builds the Cython peer for the running interpreter (``cython_peer.py``, cached under ``build/cython/``),
then times every operation (``bench_overhead.py``), and when asked counts instructions
(``bench_instructions.py``) and runs ``process`` end to end (``bench_end_to_end.py``). Writes one JSON
document to ``--output``.

    .venv/bin/python benchmarks/measure.py --output /tmp/m.json [--repeats N] [--block-ms MS]
        [--instructions] [--end-to-end] [--end-to-end-repeats N] [--no-memory]

numpy's BLAS is held to one thread (unless the caller sets the variables), so that the two pool workers
of the parallel runs do not compete with BLAS threads on a 2-core machine and the figures are stable.
"""

# ruff: noqa: E402
from __future__ import annotations

import os

for _variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_variable, "1")

import argparse
import json
import platform
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Dict

HERE = Path(__file__).resolve().parent


def _git_revision() -> str:
    try:
        out = subprocess.run(
            ["git", "rev-parse", "--short", "HEAD"], cwd=HERE, capture_output=True, text=True, check=True
        )
        return out.stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def environment() -> Dict[str, Any]:
    import Cython
    import numpy as np
    import pandas as pd
    import quillmarsh.core.tree.chunk_layer as chunk_layer

    return {
        "python": sys.version.split()[0],
        "executable": sys.executable,
        "numpy": np.__version__,
        "pandas": pd.__version__,
        "cython": Cython.__version__,
        "module": chunk_layer.__file__,
        "machine": platform.machine(),
        "cpus": os.cpu_count(),
        "git_revision": _git_revision(),
        "blas_threads": os.environ.get("OPENBLAS_NUM_THREADS"),
        "date": time.strftime("%Y-%m-%d %H:%M:%S"),
    }


def label(env: Dict[str, Any]) -> str:
    """How a version is named in the tables and the plot."""
    return f"Python {env['python']}, numpy {env['numpy']}"


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--output", type=Path, required=True)
    parser.add_argument("--repeats", type=int, default=15)
    parser.add_argument("--block-ms", type=float, default=10.0)
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME")
    parser.add_argument("--instructions", action="store_true", help="count instructions under callgrind")
    parser.add_argument("--calls", type=int, default=500, help="calls counted per operation")
    parser.add_argument("--end-to-end", action="store_true", help="process over 1,000,000 rows")
    parser.add_argument("--end-to-end-repeats", type=int, default=5)
    parser.add_argument("--no-memory", action="store_true", help="end to end without the memory runs")
    args = parser.parse_args()

    sys.path.insert(0, str(HERE))
    import bench_overhead
    import cython_peer

    started = time.perf_counter()
    cython_peer.build(quiet=False)
    env = environment()
    print(f"== {label(env)}: per-call time", flush=True)
    overhead = bench_overhead.run(
        repeats=args.repeats, block_ms=args.block_ms, operations=args.operations, verbose=False
    )
    print(bench_overhead.format_table(overhead, label(env)), flush=True)
    instructions = None
    if args.instructions:
        import bench_instructions

        if bench_instructions.valgrind() is None:
            print("== instruction counts: skipped (valgrind is not on the PATH)", flush=True)
        else:
            print(f"== {label(env)}: per-call instructions (callgrind)", flush=True)
            instructions = bench_instructions.run(calls=args.calls, operations=args.operations, verbose=False)
            print(bench_instructions.format_table(instructions, label(env)), flush=True)
    end_to_end = None
    if args.end_to_end:
        import bench_end_to_end

        print(f"== {label(env)}: end to end", flush=True)
        print(bench_end_to_end.HEADER, flush=True)
        end_to_end = bench_end_to_end.run(repeats=args.end_to_end_repeats, memory=not args.no_memory)
    result = {
        "label": label(env),
        "environment": env,
        "overhead": overhead,
        "instructions": instructions,
        "end_to_end": end_to_end,
        "wall_seconds": round(time.perf_counter() - started, 1),
    }
    args.output.write_text(json.dumps(result, indent=2) + "\n")


if __name__ == "__main__":
    main()
