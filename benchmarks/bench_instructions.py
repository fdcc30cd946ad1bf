"""Per-call cost of the chunk layer's operations counted in machine instructions (callgrind).

The same operations, fixture and implementations as ``bench_overhead.py`` (module, cython, floor, harness,
and with ``--with-python`` plain Python), counted instead of timed, so that the figures do not move with
the load of a shared machine.
One valgrind run per implementation goes through every operation (``profile_op.py --marked``): each
operation's ``--calls`` calls and the harness's as many iterations land in dumps of their own
(``--dump-before=getppid``), so that (calls - harness) / N is the instruction count of one call, with
start-up, imports, set-up and warm-up outside it. String hashing is fixed (``PYTHONHASHSEED=0``) so that
dict probes, and so the counts, repeat exactly.

    .venv/bin/python benchmarks/bench_instructions.py [--calls N] [--jobs J] [--operation NAME ...]
    .venv/bin/python benchmarks/bench_instructions.py --breakdown "ChunkNode.is_buffer"

Needs valgrind on the PATH; without it the script says so and exits.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple

import bench_overhead
import cython_peer

HERE = Path(__file__).resolve().parent
COUNTED = ("module", "cython", "floor")  # and "python" when asked: the slowest run of all
TOTALS = re.compile(r"^(?:summary|totals):\s+(\d+)", re.MULTILINE)


def valgrind() -> Optional[str]:
    return shutil.which("valgrind")


#: What the module's architecture adds to a call, by function: every call into the module takes a level
#: of the recursion count, and every reference it gives back first asks whether the interpreter is
#: finalising (a thread ended at exit must not touch it). The thread-local look-up and
#: PyThreadState_Get that the count also makes are left with the interpreter: other code calls them too.
RECURSION_COUNT = ("enter_recursive_call", "leave_recursive_call", "this_thread_calls",
                   "Py_EnterRecursiveCall", "Py_LeaveRecursiveCall")
FINALISING_CHECK = ("Py_IsFinalizing",)  # _Py_IsFinalizing up to 3.12
SPLIT = ("own code", "recursion count", "finalising checks", "interpreter and libraries")


def part_of(implementation: str, function: str) -> str:
    """Which part of a call a function's own instructions belong to (see SPLIT)."""
    if any(name in function for name in RECURSION_COUNT):
        return "recursion count"
    if any(name in function for name in FINALISING_CHECK):
        return "finalising checks"
    markers = ("py::", "chunk_layer::") if implementation == "module" else ("__pyx", "__Pyx")
    if any(marker in function for marker in markers):
        return "own code"
    return "interpreter and libraries"


def split_of(implementation: str, counted: Path, harness: Path, calls: int) -> Dict[str, float]:
    """One call's instructions by part (see SPLIT), the harness loop's subtracted function by function."""
    parts = dict.fromkeys(SPLIT, 0.0)
    loop = self_costs(harness)
    for function, n in self_costs(counted).items():
        parts[part_of(implementation, function)] += (n - loop.get(function, 0)) / calls
    return {name: round(value) for name, value in parts.items()}


def count(
    implementation: str, calls: int, workdir: Path, operations: Optional[List[str]],
    splits: Optional[Dict[str, Dict[str, float]]] = None,
) -> Dict[str, float]:
    """Instructions per call of every operation for one implementation (harness subtracted); with
    ``splits``, also each operation's instructions by part (see SPLIT), filled in by operation."""
    out = workdir / f"{implementation}.callgrind"
    labels = workdir / f"{implementation}.labels"
    environment = dict(os.environ, PYTHONHASHSEED="0")
    for variable in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
        environment.setdefault(variable, "1")
    command = [
        valgrind() or "valgrind",
        "--tool=callgrind",
        "--dump-before=getppid",
        f"--callgrind-out-file={out}",
        sys.executable,
        str(HERE / "profile_op.py"),
        implementation,
        "--calls",
        str(calls),
        "--marked",
        str(labels),
    ]
    for name in operations or []:
        command += ["--operation", name]
    subprocess.run(command, cwd=HERE, env=environment, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    parts: Dict[str, Dict[str, int]] = {}
    dumps: Dict[str, Dict[str, Path]] = {}
    for number, label in enumerate(json.loads(labels.read_text()), start=1):
        match = TOTALS.search(Path(f"{out}.{number}").read_text(errors="replace"))
        if match is None:
            raise RuntimeError(f"no instruction total in {out}.{number}")
        part, op = label.split("\t")
        parts.setdefault(op, {})[part] = int(match.group(1))
        dumps.setdefault(op, {})[part] = Path(f"{out}.{number}")
    if splits is not None:
        for op, dump in dumps.items():
            splits[op] = split_of(implementation, dump[implementation], dump["harness"], calls)
    return {op: (p[implementation] - p["harness"]) / calls for op, p in parts.items()}


def self_costs(path: Path) -> Dict[str, int]:
    """Instructions spent in each function itself (callees excluded), from one callgrind dump."""
    names: Dict[str, str] = {}
    costs: Dict[str, int] = {}
    current = ""
    after_call = False

    def name_of(entry: str) -> str:
        # "(12) name" defines a compressed name, "(12)" refers to one.
        if entry.startswith("("):
            key, _, rest = entry.partition(")")
            rest = rest.strip()
            if rest:
                names[key] = rest
            return names.get(key, entry)
        return entry

    for line in path.read_text(errors="replace").splitlines():
        if line.startswith("fn="):
            current = name_of(line[3:])
        elif line.startswith("cfn="):
            name_of(line[4:])
        elif line.startswith("calls="):
            after_call = True
        elif line[:1].isdigit() or line[:1] in "+-*":
            fields = line.split()
            if after_call:
                after_call = False  # the inclusive cost of the call just named
            elif len(fields) > 1:
                costs[current] = costs.get(current, 0) + int(fields[1])
    return costs


def breakdown(operation: str, calls: int = 2_000,
              implementations=("module", "cython")) -> Dict[str, List[Tuple[float, str]]]:
    """Where one call of ``operation`` spends its instructions: the functions with the most instructions
    of their own (callees excluded) in the counted part only, per call, for each implementation, less
    what the same function spends in the harness loop."""
    cython_peer.build()
    bench_overhead.select([operation])
    found: Dict[str, List[Tuple[float, str]]] = {}
    with tempfile.TemporaryDirectory(prefix="chunk-layer-callgrind-") as directory:
        workdir = Path(directory)
        for impl in implementations:
            count(impl, calls, workdir, [operation])
            labels = json.loads((workdir / f"{impl}.labels").read_text())
            number = labels.index(f"{impl}\t{operation}") + 1
            costs = self_costs(Path(f"{workdir / impl}.callgrind.{number}"))
            harness = self_costs(Path(f"{workdir / impl}.callgrind.{number + 1}"))
            rows = [((n - harness.get(name, 0)) / calls, name) for name, n in costs.items()]
            found[impl] = sorted(rows, reverse=True)
    return found


def format_breakdown(operation: str, found: Dict[str, List[Tuple[float, str]]], top: int = 12) -> str:
    lines = [f"Where one call of {operation!r} goes (instructions per call, own cost of each function)"]
    for impl, rows in found.items():
        lines.append(f"  {impl}: {sum(n for n, _ in rows):,.0f} in all, the top {top}:")
        lines += [f"    {n:9,.0f}  {name[:110]}" for n, name in rows[:top]]
    if set(found) == {"module", "cython"}:
        module = {name: n for n, name in found["module"]}
        cython = {name: n for n, name in found["cython"]}
        difference = sorted(
            ((module.get(name, 0.0) - cython.get(name, 0.0), name) for name in set(module) | set(cython)),
            reverse=True,
        )
        lines.append(f"  module - cython, where the module spends more (top {top}):")
        lines += [f"    {n:+9,.0f}  {name[:110]}" for n, name in difference[:top] if n > 0]
        lines.append(f"  module - cython, where the module spends less (top {top}):")
        lines += [f"    {n:+9,.0f}  {name[:110]}" for n, name in reversed(difference[-top:]) if n < 0]
    return "\n".join(lines)


def run(calls: int = 500, jobs: Optional[int] = None, operations: Optional[List[str]] = None,
        with_python: bool = False, verbose: bool = True) -> Dict[str, Any]:
    """Count every operation; returns a JSON-ready dict (instructions per call, ratios, settings)."""
    cython_peer.build()  # not under valgrind
    chosen = bench_overhead.select(operations)
    names = [op.name for op in chosen] if operations else None
    with tempfile.TemporaryDirectory(prefix="chunk-layer-callgrind-") as directory, ThreadPoolExecutor(
        jobs or os.cpu_count() or 1
    ) as pool:
        workdir = Path(directory)
        counted = (*COUNTED, "python") if with_python else COUNTED
        splits: Dict[str, Dict[str, Dict[str, float]]] = {"module": {}, "cython": {}}
        # The slowest first, so that the two cores stay busy to the end.
        pending = {impl: pool.submit(count, impl, calls, workdir, names, splits.get(impl))
                   for impl in reversed(counted)}
        per_call = {impl: future.result() for impl, future in pending.items()}
    results = []
    for op in chosen:
        module, cython, floor = (per_call[impl][op.name] for impl in COUNTED)
        python = per_call["python"][op.name] if with_python else None
        results.append(
            {
                "operation": op.name,
                "what": op.what,
                **{f"{impl}_instructions": round(per_call[impl][op.name]) for impl in counted},
                "module_split": splits["module"].get(op.name),
                "cython_split": splits["cython"].get(op.name),
                **bench_overhead.ratios(module, cython, python, floor),
            }
        )
    report = {"calls": calls, "operations": results, "summary": bench_overhead.summary(results)}
    if verbose:
        print(format_table(report))
    return report


def format_table(report: Dict[str, Any], label: str = "") -> str:
    title = (
        f"Per-call instructions{' under ' + label if label else ''} (callgrind, {report['calls']:,} calls; "
        "* above the Cython peer)"
    )
    lines = bench_overhead.ratio_table(title, report, "instructions", "9,")
    return "\n".join(lines + ["", format_split(report)])


def format_split(report: Dict[str, Any]) -> str:
    """Each operation's instructions by part, module against peer: own code, the recursion count and the
    finalising checks (the module's), the interpreter and libraries (both)."""
    lines = [f"{'operation':36}{'module':>9}{'own':>7}{'recur':>7}{'final':>7}{'interp':>9}"
             f"{'cython':>9}{'own':>7}{'interp':>9}"]
    for r in report["operations"]:
        m, c = r.get("module_split"), r.get("cython_split")
        if not m or not c:
            continue
        lines.append(
            f"{r['operation'][:35]:36}{r['module_instructions']:>9,}{m['own code']:>7,}"
            f"{m['recursion count']:>7,}{m['finalising checks']:>7,}{m['interpreter and libraries']:>9,}"
            f"{r['cython_instructions']:>9,}{c['own code']:>7,}{c['interpreter and libraries']:>9,}"
        )
    return "\n".join(lines)


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--calls", type=int, default=500)
    parser.add_argument("--with-python", action="store_true", help="count plain Python too (slow)")
    parser.add_argument("--jobs", type=int, default=None, help="valgrind runs at once (default: CPUs)")
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME")
    parser.add_argument("--breakdown", metavar="NAME", help="the functions one call of NAME spends in")
    args = parser.parse_args()
    if valgrind() is None:
        sys.exit("bench_instructions: valgrind is not on the PATH")
    if args.breakdown:
        print(format_breakdown(args.breakdown, breakdown(args.breakdown, calls=max(args.calls, 2_000))))
        return
    run(calls=args.calls, jobs=args.jobs, operations=args.operations, with_python=args.with_python)


if __name__ == "__main__":
    main()
