"""Runs every benchmark of the chunk layer, prints the tables, writes results.json and throughput.png.

    .venv/bin/python benchmarks/run.py            # full run: about 10 minutes, 6 of them instruction counts
    .venv/bin/python benchmarks/run.py --quick    # one repeat each, no memory runs, no instruction counts

Instruction counts need valgrind; without it they are skipped with a note.

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

import bench_end_to_end
import bench_instructions
import bench_overhead
import numpy as np

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
    return {
        "python": sys.version.split()[0],
        "numpy": np.__version__,
        "machine": platform.machine(),
        "cpus": os.cpu_count(),
        "git_revision": _git_revision(),
        "blas_threads": os.environ.get("OPENBLAS_NUM_THREADS"),
        "date": time.strftime("%Y-%m-%d %H:%M:%S"),
    }


def plot(end_to_end: Dict[str, Any], path: Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    configurations = end_to_end["configurations"]
    modes = sorted({c["mode"] for c in configurations}, key=["sequential", "parallel"].index)
    figure, axes = plt.subplots(1, len(modes), figsize=(6 * len(modes), 4.5), sharey=True, squeeze=False)
    colours = ["tab:blue", "tab:orange", "tab:green", "tab:red"]
    for axis, mode in zip(axes[0], modes):
        for colour, rows in zip(colours, sorted({c["dataset_rows"] for c in configurations})):
            points = sorted(
                (c for c in configurations if c["mode"] == mode and c["dataset_rows"] == rows),
                key=lambda c: c["chunk_size"],
            )
            sizes = [c["chunk_size"] for c in points]
            axis.plot(
                sizes,
                [c["layer_rows_per_s"] for c in points],
                "o-",
                color=colour,
                label=f"layer, {rows:,} rows per dataset",
            )
            axis.plot(
                sizes,
                [c["floor_rows_per_s"] for c in points],
                "s--",
                color=colour,
                alpha=0.6,
                label=f"floor, {rows:,} rows per dataset",
            )
        axis.set_xscale("log")
        axis.set_xlabel("chunk size (rows)")
        axis.set_title(f"{mode} (n_jobs {'2' if mode == 'parallel' else 'None'})")
        axis.grid(True, which="both", alpha=0.3)
    axes[0][0].set_ylabel("throughput (rows/s)")
    axes[0][0].legend(fontsize=8)
    figure.suptitle(f"ChunkLayer.process over {end_to_end['rows']:,} rows: layer vs floor")
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument(
        "--quick", action="store_true", help="one repeat of everything, no memory runs, no instruction counts"
    )
    parser.add_argument("--output-dir", type=Path, default=HERE)
    args = parser.parse_args()

    started = time.perf_counter()
    print("== per-call overhead (no-op collaborators)", flush=True)
    overhead = bench_overhead.run(repeats=3 if args.quick else 9, block_ms=15.0 if args.quick else 30.0)
    print()
    instructions = None
    if args.quick:
        print("== instruction counts: skipped (--quick)")
    elif bench_instructions.valgrind() is None:
        print("== instruction counts: skipped (valgrind is not on the PATH)")
    else:
        print("== per-call overhead in instructions (callgrind)", flush=True)
        instructions = bench_instructions.run()
    print()
    print("== end to end", flush=True)
    print(bench_end_to_end.HEADER, flush=True)
    end_to_end = bench_end_to_end.run(repeats=1 if args.quick else 5, memory=not args.quick)

    results = {
        "environment": environment(),
        "overhead": overhead,
        "instructions": instructions,
        "end_to_end": end_to_end,
        "wall_seconds": round(time.perf_counter() - started, 1),
    }
    args.output_dir.mkdir(parents=True, exist_ok=True)
    (args.output_dir / "results.json").write_text(json.dumps(results, indent=2) + "\n")
    plot(end_to_end, args.output_dir / "throughput.png")

    print()
    print(bench_overhead.format_table(overhead))
    print()
    if instructions is not None:
        print(bench_instructions.format_table(instructions))
        print()
    print(bench_end_to_end.format_table(end_to_end))
    print()
    print(
        f"wrote {args.output_dir / 'results.json'} and {args.output_dir / 'throughput.png'} "
        f"in {results['wall_seconds']} s"
    )


if __name__ == "__main__":
    main()
