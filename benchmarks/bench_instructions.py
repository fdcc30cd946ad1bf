"""Per-call cost of the chunk layer's operations in machine instructions (callgrind), which, unlike time,
does not move with the load of a shared machine. The operations, stand-ins and implementations are
``bench_chunk_layer.py``'s.

One valgrind run per implementation goes through every operation: warm-up, then ``--calls`` calls, then
as many iterations of an empty loop, each part closed by ``os.getppid()``, before which callgrind dumps
(``--dump-before=getppid``). So (calls - empty loop) / N is one call, with start-up, imports and warm-up
left out. String hashing is fixed (``PYTHONHASHSEED=0``) so that the counts repeat exactly.

    python benchmarks/bench_instructions.py [--calls N] [--output build/bench/instructions.md]

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
from typing import Dict

import bench_chunk_layer

TOTAL = re.compile(r"^(?:summary|totals):\s+(\d+)", re.MULTILINE)
LOOP = "def loop(n):\n    for _ in range(n):\n{body}\n"


def marked(impl: str, calls: int) -> None:
    """Runs under valgrind: every operation in three parts, each closed by a dump."""
    names = bench_chunk_layer.namespace(bench_chunk_layer.IMPLEMENTATIONS[impl]())
    for _name, statement in bench_chunk_layer.OPERATIONS:
        loops = []
        for body in (statement, "pass"):
            scope = dict(names)
            exec(LOOP.format(body="\n".join("        " + line for line in body.splitlines())), scope)
            loops.append(scope["loop"])
        loops[0](20)
        loops[1](20)
        os.getppid()  # dump: warm-up
        loops[0](calls)
        os.getppid()  # dump: the calls
        loops[1](calls)
        os.getppid()  # dump: the empty loop


def count(impl: str, calls: int, directory: Path) -> Dict[str, float]:
    """Instructions per call of every operation under one implementation."""
    out = directory / f"{impl}.callgrind"
    subprocess.run([shutil.which("valgrind") or "valgrind", "--tool=callgrind", "--dump-before=getppid",
                    f"--callgrind-out-file={out}", sys.executable, __file__, "--marked", impl,
                    "--calls", str(calls)],
                   env=dict(os.environ, PYTHONHASHSEED="0", OPENBLAS_NUM_THREADS="1"), check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def total(number: int) -> int:
        match = TOTAL.search(Path(f"{out}.{number}").read_text(errors="replace"))
        assert match is not None, f"no total in {out}.{number}"
        return int(match.group(1))

    return {name: (total(3 * index + 2) - total(3 * index + 3)) / calls
            for index, (name, _) in enumerate(bench_chunk_layer.OPERATIONS)}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calls", type=int, default=500)
    parser.add_argument("--marked", choices=list(bench_chunk_layer.IMPLEMENTATIONS), help=argparse.SUPPRESS)
    parser.add_argument("--output", type=Path, help="also write the table to this file")
    args = parser.parse_args()
    if args.marked:
        return marked(args.marked, args.calls)
    if shutil.which("valgrind") is None:
        print("bench_instructions: valgrind is not on the PATH; no counts")
        return None
    bench_chunk_layer.peers.build()  # not under valgrind
    impls = list(bench_chunk_layer.IMPLEMENTATIONS)
    with tempfile.TemporaryDirectory(prefix="chunk-layer-callgrind-") as directory:
        pool = ThreadPoolExecutor()
        futures = [pool.submit(count, impl, args.calls, Path(directory)) for impl in impls]
        counted = dict(zip(impls, (future.result() for future in futures)))
    lines = [f"Instructions per call (callgrind, {args.calls:,} calls, Python {sys.version.split()[0]})", "",
             "| operation | " + " | ".join(impls) + " | module / cython |", "| --- |" + " ---: |" * 4]
    for name, _ in bench_chunk_layer.OPERATIONS:
        figures = [counted[impl][name] for impl in impls]
        lines.append(f"| {name} | " + " | ".join(f"{n:,.0f}" for n in figures)
                     + f" | {figures[0] / figures[1]:.2f} |")
    print("\n".join(lines))
    if args.output:
        args.output.parent.mkdir(parents=True, exist_ok=True)
        args.output.write_text("\n".join(lines) + "\n")
    return None


if __name__ == "__main__":
    main()
