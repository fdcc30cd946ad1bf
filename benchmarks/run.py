"""Runs the benchmarks under each interpreter given, prints the tables, writes results.json and the plots.

    python benchmarks/run.py --python .venvs/3.9/bin/python --python .venvs/3.13/bin/python ...
    python benchmarks/run.py --quick          # the first interpreter only, fewer rounds, no counts
    python benchmarks/run.py                  # the running interpreter only

Each ``--python`` is the interpreter of a virtual environment in which quillmarsh is installed (editable)
together with Cython (the peer is built with it) and pandas, psutil and numpy. For each one, in turn,
``measure.py`` runs in a subprocess of that interpreter: it builds the Cython peer for it and times every
operation of the module, the peer, plain Python and the floor, interleaved in one process. The first
and the last interpreter also count instructions under callgrind (when valgrind is on the PATH), and the
first runs ``process`` end to end against its floor (target: within 1.05).

This script aggregates: one table per version, ``results.json``, ``vs_cython.png`` (module / Cython per
operation and version) and, from the end-to-end run, ``throughput.png``. It needs matplotlib for the
plots, in the interpreter that runs it.
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any, Dict, List

import bench_end_to_end
import bench_instructions
import bench_overhead

HERE = Path(__file__).resolve().parent


def measure(python: str, options: List[str], workdir: Path, index: int) -> Dict[str, Any]:
    output = workdir / f"measure-{index}.json"
    command = [python, str(HERE / "measure.py"), "--output", str(output), *options]
    print(f"\n### {python}", flush=True)
    subprocess.run(command, check=True, cwd=HERE.parent)
    result = json.loads(output.read_text())
    result["python_path"] = python
    return result


def plot_vs_cython(versions: List[Dict[str, Any]], path: Path) -> None:
    """Module / Cython per operation (one row each), one marker per version; the target line at 1.0."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    operations = [r["operation"] for r in versions[0]["overhead"]["operations"]]
    figure, axis = plt.subplots(figsize=(9, 0.28 * len(operations) + 1.8))
    markers = "osD^v<>ph*"
    count = len(versions)
    widest = 1.2
    for number, version in enumerate(versions):
        by_name = {r["operation"]: r for r in version["overhead"]["operations"]}
        rows, values, lows, highs = [], [], [], []
        for row, name in enumerate(operations):
            r = by_name.get(name)
            if r is None or r["vs_cython"] is None:
                continue
            rounds = [v for v in r["vs_cython_rounds"] if v is not None]
            q1, _q2, q3 = statistics.quantiles(rounds, n=4) if len(rounds) > 1 else (rounds * 3)
            rows.append(row + (number - (count - 1) / 2) * 0.6 / max(count, 1))
            values.append(r["vs_cython"])
            lows.append(max(0.0, r["vs_cython"] - q1))
            highs.append(max(0.0, q3 - r["vs_cython"]))
            widest = max(widest, q3, r["vs_cython"])
        axis.errorbar(values, rows, xerr=[lows, highs], fmt=markers[number % len(markers)], markersize=4,
                      elinewidth=0.6, capsize=0, label=version["label"])
    for counted_version, marker in zip([v for v in versions if v.get("instructions") is not None], "x+"):
        by_name = {r["operation"]: r for r in counted_version["instructions"]["operations"]}
        points = [(by_name[name]["vs_cython"], row) for row, name in enumerate(operations)
                  if name in by_name and by_name[name]["vs_cython"] is not None]
        axis.plot([x for x, _ in points], [y for _, y in points], marker, color="black", markersize=5,
                  label=f"instructions, {counted_version['label']}")
        widest = max([widest] + [x for x, _ in points])
    axis.axvline(1.0, color="black", linewidth=0.8)
    axis.set_xlim(0, min(widest * 1.05, 4.0))
    axis.set_yticks(range(len(operations)))
    axis.set_yticklabels(operations, fontsize=8)
    axis.invert_yaxis()
    axis.set_xlabel("module time / Cython peer time (median of the rounds; bars: middle half of the rounds)")
    axis.grid(True, axis="x", alpha=0.3)
    axis.legend(fontsize=7, loc="lower right")
    axis.set_title(
        "Per call: the C++ module against the same Python compiled by Cython 3 (left of 1 is faster)",
        fontsize=9,
    )
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)


def plot_throughput(end_to_end: Dict[str, Any], path: Path) -> None:
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
            axis.plot(sizes, [c["layer_rows_per_s"] for c in points], "o-", color=colour,
                      label=f"layer, {rows:,} rows per dataset")
            axis.plot(sizes, [c["floor_rows_per_s"] for c in points], "s--", color=colour, alpha=0.6,
                      label=f"floor, {rows:,} rows per dataset")
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


def overview(versions: List[Dict[str, Any]]) -> str:
    """One line per version: the medians over the operations, and the operations above the peer."""
    lines = ["Summary per version (median over the operations)"]
    for version in versions:
        s = version["overhead"]["summary"]
        above = [r["operation"] for r in version["overhead"]["operations"]
                 if r["vs_cython"] is not None and r["vs_cython"] > bench_overhead.TARGET_VS_CYTHON]
        lines.append(
            f"  {version['label']}: module/Cython {s['median_vs_cython']}, own {s['median_own']}; "
            f"{len(above)} of {s['operations']} above the peer"
        )
    names = [r["operation"] for r in versions[0]["overhead"]["operations"]]
    worst = {
        name: statistics.median(
            r["vs_cython"] for v in versions for r in v["overhead"]["operations"]
            if r["operation"] == name and r["vs_cython"] is not None
        )
        for name in names
    }
    slowest = sorted(worst, key=worst.get, reverse=True)[:8]
    lines.append("  highest module/Cython (median over versions): "
                 + ", ".join(f"{n} {worst[n]:.2f}" for n in slowest))
    return "\n".join(lines)


def _ratio_cell(value: Any) -> str:
    if value is None:
        return "–"
    return f"**{value:.2f}**" if value > bench_overhead.TARGET_VS_CYTHON else f"{value:.2f}"


def _summary_line(s: Dict[str, Any]) -> str:
    return (
        f"Median module / Cython {s['median_vs_cython']:.2f} ({s['at_or_below_target_vs_cython']} of "
        f"{s['operations']} at or below 1.00); median own {s['median_own']:.2f}."
    )


def markdown(results: Dict[str, Any]) -> str:
    """The tables of a results.json as Markdown, for the README: per version, time and instructions."""
    out = []
    for version in results["versions"]:
        timed = version["overhead"]
        out += [
            f"#### {version['label']}: time per call, ns (median of {timed['repeats']} rounds)",
            "",
            "| operation | module | Cython | Python | floor | module / Cython | own |",
            "| --- | ---: | ---: | ---: | ---: | ---: | ---: |",
        ]
        for r in timed["operations"]:
            figures = " | ".join(f"{r[f'{name}_ns']:,.0f}" for name in bench_overhead.IMPLEMENTATIONS[:4])
            own = "–" if r["own"] is None else f"{r['own']:.2f}"
            out.append(f"| {r['operation']} | {figures} | {_ratio_cell(r['vs_cython'])} | {own} |")
        out += ["", _summary_line(timed["summary"]), ""]
        counted = version.get("instructions")
        if counted is None:
            continue
        out += [
            f"#### {version['label']}: instructions per call (callgrind, {counted['calls']} calls)",
            "",
            "| operation | module | Cython | floor | module / Cython | own |",
            "| --- | ---: | ---: | ---: | ---: | ---: |",
        ]
        for r in counted["operations"]:
            figures = " | ".join(f"{r[f'{name}_instructions']:,}" for name in ("module", "cython", "floor"))
            own = "–" if r["own"] is None else f"{r['own']:.2f}"
            out.append(f"| {r['operation']} | {figures} | {_ratio_cell(r['vs_cython'])} | {own} |")
        out += ["", _summary_line(counted["summary"]), ""]
        out += _split_table(version["label"], counted["operations"])
    if len(results["versions"]) > 1:
        out += _across_versions(results["versions"])
    return "\n".join(out)


def _split_table(label: str, operations: List[Dict[str, Any]]) -> List[str]:
    """Each operation's instructions by part, module against peer (where the counts were split)."""
    rows = [r for r in operations if r.get("module_split") and r.get("cython_split")]
    if not rows:
        return []
    out = [
        f"#### {label}: where the instructions of one call go",
        "",
        "| operation | module | own code | recursion count | finalising checks | interpreter, libraries "
        "| Cython | own code | interpreter, libraries | own with no code of the module's |",
        "| --- |" + " ---: |" * 9,
    ]
    for r in rows:
        m, c = r["module_split"], r["cython_split"]
        cells = [r["module_instructions"], m["own code"], m["recursion count"], m["finalising checks"],
                 m["interpreter and libraries"], r["cython_instructions"], c["own code"],
                 c["interpreter and libraries"]]
        # The own ratio the module would have if its code, recursion count and checks cost nothing:
        # what it has the interpreter do beyond the floor, against the peer's own cost.
        peer_own = r["cython_instructions"] - r["floor_instructions"]
        least = "–" if r["own"] is None or peer_own <= 0 else (
            f"{(m['interpreter and libraries'] - r['floor_instructions']) / peer_own:.2f}")
        out.append(f"| {r['operation']} | " + " | ".join(f"{n:,}" for n in cells) + f" | {least} |")
    return out + [""]


def _across_versions(versions: List[Dict[str, Any]]) -> List[str]:
    """Module / Cython per operation (rows) and version (columns), by time; by instructions where counted."""
    counted = [v for v in versions if v.get("instructions") is not None]
    heads = [v["label"] for v in versions] + [f"{v['label']}, instructions" for v in counted]
    out = ["#### Module / Cython across versions", "", "| operation | " + " | ".join(heads) + " |",
           "| --- |" + " ---: |" * len(heads)]
    tables = [{r["operation"]: r for r in v["overhead"]["operations"]} for v in versions]
    tables += [{r["operation"]: r for r in v["instructions"]["operations"]} for v in counted]
    for r in versions[0]["overhead"]["operations"]:
        name = r["operation"]
        cells = [_ratio_cell(t[name]["vs_cython"]) if name in t else "–" for t in tables]
        out.append(f"| {name} | " + " | ".join(cells) + " |")
    medians = [v["overhead"]["summary"]["median_vs_cython"] for v in versions]
    medians += [v["instructions"]["summary"]["median_vs_cython"] for v in counted]
    out += ["| median | " + " | ".join(f"{m:.2f}" for m in medians) + " |", ""]
    return out


def main() -> None:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--python", action="append", dest="pythons", metavar="PATH",
                        help="an interpreter to measure (repeat for each version; default: this one)")
    parser.add_argument("--quick", action="store_true",
                        help="the first interpreter only: 5 short rounds, one end-to-end repeat, no counts")
    parser.add_argument("--no-instructions", action="store_true", help="skip the instruction counts")
    parser.add_argument("--no-end-to-end", action="store_true", help="skip the end-to-end run")
    parser.add_argument("--operation", action="append", dest="operations", metavar="NAME")
    parser.add_argument("--output-dir", type=Path, default=HERE)
    parser.add_argument("--markdown", type=Path, metavar="RESULTS", help="print the tables of a results.json "
                        "as Markdown and stop")
    args = parser.parse_args()
    if args.markdown is not None:
        print(markdown(json.loads(args.markdown.read_text())))
        return

    pythons = args.pythons or [sys.executable]
    if args.quick:
        pythons = pythons[:1]
    started = time.perf_counter()
    timing = ["--repeats", "5", "--block-ms", "5"] if args.quick else ["--repeats", "15", "--block-ms", "10"]
    for name in args.operations or []:
        timing += ["--operation", name]
    versions = []
    with tempfile.TemporaryDirectory(prefix="chunk-layer-bench-") as directory:
        for index, python in enumerate(pythons):
            options = list(timing)
            # Counted under the oldest and the newest: where the versions differ most.
            if index in (0, len(pythons) - 1) and not args.quick and not args.no_instructions:
                options.append("--instructions")
            if index == 0 and not args.no_end_to_end:
                options += ["--end-to-end"]
                if args.quick:
                    options += ["--end-to-end-repeats", "1", "--no-memory"]
            versions.append(measure(python, options, Path(directory), index))

    results = {
        "aggregated_by": {"python": sys.version.split()[0], "machine": platform.machine(),
                          "cpus": os.cpu_count(), "date": time.strftime("%Y-%m-%d %H:%M:%S")},
        "targets": {"vs_cython": bench_overhead.TARGET_VS_CYTHON, "median_own": bench_overhead.TARGET_OWN,
                    "end_to_end": bench_end_to_end.TARGET_RATIO},
        "versions": versions,
        "wall_seconds": round(time.perf_counter() - started, 1),
    }
    args.output_dir.mkdir(parents=True, exist_ok=True)
    (args.output_dir / "results.json").write_text(json.dumps(results, indent=2) + "\n")
    written = [args.output_dir / "results.json"]
    try:
        plot_vs_cython(versions, args.output_dir / "vs_cython.png")
        written.append(args.output_dir / "vs_cython.png")
        if versions[0]["end_to_end"] is not None:
            plot_throughput(versions[0]["end_to_end"], args.output_dir / "throughput.png")
            written.append(args.output_dir / "throughput.png")
    except ImportError:
        print("run.py: matplotlib is not installed here; no plots", file=sys.stderr)

    for version in versions:
        print()
        print(bench_overhead.format_table(version["overhead"], version["label"]))
        if version["instructions"] is not None:
            print()
            print(bench_instructions.format_table(version["instructions"], version["label"]))
        if version["end_to_end"] is not None:
            print()
            print(bench_end_to_end.format_table(version["end_to_end"]))
    print()
    print(overview(versions))
    print()
    print(f"wrote {', '.join(str(p) for p in written)} in {results['wall_seconds']} s")


if __name__ == "__main__":
    main()
