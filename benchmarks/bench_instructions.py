"""Per-call overhead of the chunk layer's hot operations counted in machine instructions (callgrind).

The same operations, fixture and implementations as ``bench_overhead.py`` (compiled, baseline, floor), but
counted instead of timed, so the figures do not move with the load of a shared machine. For each operation
and implementation, ``profile_op.py`` runs under ``valgrind --tool=callgrind`` twice: with ``--calls N``
and with ``--calls 0``. The difference divided by N is the instruction count of one call, with start-up,
imports and warm-up cancelled out. String hashing is fixed (``PYTHONHASHSEED=0``) so that dict probes,
and so the counts, repeat exactly.

    .venv/bin/python benchmarks/bench_instructions.py [--calls N] [--jobs J] [--operation NAME ...]

Needs valgrind on the PATH; without it the script says so and exits.
"""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Dict, List, Optional

import bench_overhead

HERE = Path(__file__).resolve().parent
IMPLEMENTATIONS = ("compiled", "baseline", "floor")
TOTALS = re.compile(r"^(?:summary|totals):\s+(\d+)", re.MULTILINE)


def valgrind() -> Optional[str]:
    return shutil.which("valgrind")


def count(operation: str, implementation: str, calls: int, workdir: Path) -> int:
    """Instructions of one whole run of profile_op.py (start-up included)."""
    stem = re.sub(r"\W+", "_", operation)
    out = workdir / f"{stem}-{implementation}-{calls}.callgrind"
    environment = dict(os.environ, PYTHONHASHSEED="0")
    for variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
        environment.setdefault(variable, "1")
    subprocess.run(
        [
            valgrind() or "valgrind",
            "--tool=callgrind",
            f"--callgrind-out-file={out}",
            sys.executable,
            str(HERE / "profile_op.py"),
            operation,
            implementation,
            "--calls",
            str(calls),
        ],
        cwd=HERE,
        env=environment,
        check=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    match = TOTALS.search(out.read_text(errors="replace"))
    if match is None:
        raise RuntimeError(f"no instruction total in {out}")
    return int(match.group(1))


def run(calls: int = 10_000, jobs: Optional[int] = None, operations: Optional[List[str]] = None,
        verbose: bool = True) -> Dict[str, Any]:
    """Count every operation; returns a JSON-ready dict (instructions per call, ratios, settings)."""
    names = [op for op, _note, _factory in bench_overhead.OPERATIONS if not operations or op in operations]
    notes = {op: note for op, note, _factory in bench_overhead.OPERATIONS}
    with tempfile.TemporaryDirectory(prefix="chunk-layer-callgrind-") as directory, ThreadPoolExecutor(
        jobs or os.cpu_count() or 1
    ) as pool:
        workdir = Path(directory)
        pending = {
            (op, impl, n): pool.submit(count, op, impl, n, workdir)
            for op in names
            for impl in IMPLEMENTATIONS
            for n in (calls, 0)
        }
        per_call = {
            (op, impl): (pending[(op, impl, calls)].result() - pending[(op, impl, 0)].result()) / calls
            for op in names
            for impl in IMPLEMENTATIONS
        }
    results = []
    for op in names:
        compiled, baseline, floor = (per_call[(op, impl)] for impl in IMPLEMENTATIONS)
        results.append(
            {
                "operation": op,
                "what": notes[op],
                "compiled_instructions": round(compiled),
                "baseline_instructions": round(baseline),
                "floor_instructions": round(floor),
                **bench_overhead.ratios(compiled, baseline, floor),
            }
        )
    report = {"calls": calls, "target_ratio": bench_overhead.TARGET_RATIO, "operations": results}
    if verbose:
        print(format_table(report))
    return report


def format_table(report: Dict[str, Any]) -> str:
    title = (
        f"Per-call overhead in instructions (callgrind, {report['calls']:,} calls; "
        f"target own <= {report['target_ratio']})"
    )
    lines = bench_overhead.ratio_table(title, report, "instructions", "11,")
    lines.append("own = (compiled-floor)/(baseline-floor): the layer's overhead as a share of the baseline's")
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--calls", type=int, default=10_000)
    parser.add_argument("--jobs", type=int, default=None, help="valgrind runs at once (default: CPUs)")
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME")
    args = parser.parse_args()
    if valgrind() is None:
        sys.exit("bench_instructions: valgrind is not on the PATH")
    run(calls=args.calls, jobs=args.jobs, operations=args.operations)


if __name__ == "__main__":
    main()
