"""The chunk layer's benchmarks under each interpreter given: per version, ``bench_chunk_layer.py`` into
``build/bench/<version>/all.json``, split into one file per implementation, pyperf's ``compare_to`` of
the three into ``compare.md``, and, unless ``--quick``, the instruction counts into ``instructions.md``.

    python benchmarks/run.py --python .nox/env-3-9/bin/python --python .nox/env-3-13/bin/python
    python benchmarks/run.py --quick        # the first interpreter only, 3 worker processes, no counts

Each ``--python`` is that of an environment with quillmarsh, pyperf and Cython installed.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
OUTPUT = HERE.parent / "build" / "bench"
# pyperf's settings: worker processes, values per process (each of loops calibrated to 100 ms). Every
# worker imports numpy, pandas and quillmarsh first (about a second), which the process counts pay.
FULL = ["--processes", "10", "--values", "3"]
QUICK = ["--processes", "3", "--values", "2"]


def run(python: str, quick: bool) -> None:
    version = subprocess.run([python, "-c", "import sys; print('%d.%d.%d' % sys.version_info[:3])"],
                             capture_output=True, text=True, check=True).stdout.strip()
    directory = OUTPUT / version
    directory.mkdir(parents=True, exist_ok=True)
    subprocess.run([python, str(HERE / "peers.py")], check=True)  # the Cython peer, before any timing
    timed = directory / "all.json"
    timed.unlink(missing_ok=True)  # pyperf writes no file over an existing one
    print(f"### Python {version}", flush=True)
    bench = [python, str(HERE / "bench_chunk_layer.py")]
    subprocess.run([*bench, "--quiet", "-o", str(timed), *(QUICK if quick else FULL)], check=True)
    results = subprocess.run([*bench, "--split", str(timed)], capture_output=True, text=True,
                             check=True).stdout.split()
    compare = [python, "-m", "pyperf", "compare_to", "--table", "--table-format", "md", *results]
    table = subprocess.run(compare, capture_output=True, text=True, check=True).stdout
    (directory / "compare.md").write_text(table)
    print(table, flush=True)
    if not quick:
        subprocess.run([python, str(HERE / "bench_instructions.py"), "--output",
                        str(directory / "instructions.md")], check=True)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--python", action="append", dest="pythons", metavar="PATH")
    parser.add_argument("--quick", action="store_true")
    args = parser.parse_args()
    pythons = args.pythons or [sys.executable]
    for python in pythons[:1] if args.quick else pythons:
        run(python, args.quick)
    print(f"results in {OUTPUT}")


if __name__ == "__main__":
    main()
