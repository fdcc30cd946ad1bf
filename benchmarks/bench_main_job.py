"""The main job (``python -m quillmarsh``) against the speed of reading its input, stage by stage.

On a synthetic table of the shape and column types of a public flights table (336,776 rows x 19
columns: integers, floats with missing values, a constant year, text of 3 to 4,000 values, a timestamp;
134 encoded features once the 4,000-value text column is left out), written once as CSV and Parquet,
everything in one run:

- reading: ``pandas.read_csv`` of the whole file in a fresh process (the reference), pyarrow's CSV
  reader, and the command's own batched readers (pandas chunks, pyarrow's Parquet row groups);
- the command with ``--no-eval`` (the build) and with its judgement, each in a fresh process, wall
  time, its own stage seconds (``--summary-json``) and peak RSS; and with ``--jobs 2``;
- the regression summaries of five seeds of the command (m = 2,000) against the least squares of all
  kept rows, beside one-shot coresets and uniform samples of the same size (8 seeds each), in the
  job's own feature space and on the table's plain numeric columns alone;
- the command's judgement of k-means on the same table with 30 extreme rows (1,000 times the largest
  value in every plain numeric column): the summary's and a uniform sample's cost against the full
  data's;
- the floors of the build's stages, timed here on the same chunks: for preprocessing, the columns
  turned into the encoded matrix with pandas' and numpy's own primitives (numbers converted, each
  text column factorised and scattered into its one-hot columns); for the sensitivities, the
  factorisations alone (the Gram matrix and its Cholesky factor, and the k + n_iter + 1 distance
  products of k-means); the same for the merges, on unions of 2 M rows.

Usage::

    .nox/env-3-13/bin/python benchmarks/bench_main_job.py              # about 2 minutes
    .nox/env-3-13/bin/python benchmarks/bench_main_job.py --rows 100000
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any, Dict, List, Tuple

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import numpy as np  # noqa: E402
import pandas as pd  # noqa: E402

HERE = Path(__file__).resolve().parent
BUILD = HERE.parent / "build" / "bench"
TARGET = "arr_delay"
M = 2000
CHUNK = 10_000
K = 8


EXTREME_COLUMNS = ["month", "day", "dep_time", "sched_dep_time", "dep_delay", "arr_time", "sched_arr_time",
                   "flight", "air_time", "distance", "hour", "minute"]


def flights_like(rows: int, seed: int = 0, extreme: int = 0) -> pd.DataFrame:
    """A table of the shape and column types of the public flights table; with ``extreme``, that many rows
    hold 1,000 times the column's largest value in every plain numeric column but the year and the target:
    a tight, far cluster that a uniform sample of a few thousand rows most often misses."""
    table = _flights_like(rows, seed)
    if extreme:
        far = np.random.default_rng(seed + 1).choice(rows, extreme, replace=False)
        for column in EXTREME_COLUMNS:
            table[column] = table[column].astype(float)
            table.loc[far, column] = 1000.0 * float(table[column].max())
    return table


def _flights_like(rows: int, seed: int) -> pd.DataFrame:
    rng = np.random.default_rng(seed)
    carriers = [f"C{i}" for i in range(16)]
    origins = ["EWR", "JFK", "LGA"]
    dests = [f"D{i:03d}" for i in range(105)]
    tails = [f"N{i:04d}" for i in range(4000)]
    month = rng.integers(1, 13, rows)
    day = rng.integers(1, 29, rows)
    hour = rng.integers(5, 24, rows)
    minute = rng.integers(0, 60, rows)
    sched_dep = hour * 100 + minute
    dep_delay = np.round(rng.gamma(1.0, 15.0, rows) - 5.0)
    distance = rng.integers(80, 5000, rows).astype(float)
    air_time = np.round(distance / 7.5 + rng.normal(0, 10, rows))
    arr_delay = np.round(dep_delay + rng.normal(-5, 12, rows) + 0.002 * distance)
    missing = rng.random(rows) < 0.025
    for column in (dep_delay, air_time, arr_delay):
        column[missing] = np.nan
    stamps = pd.to_datetime(
        {"year": np.full(rows, 2013), "month": month, "day": day, "hour": hour, "minute": minute}
    )
    return pd.DataFrame(
        {
            "year": np.full(rows, 2013),
            "month": month,
            "day": day,
            "dep_time": np.where(missing, np.nan, sched_dep + np.nan_to_num(dep_delay)),
            "sched_dep_time": sched_dep,
            "dep_delay": dep_delay,
            "arr_time": np.where(missing, np.nan, (sched_dep + 300) % 2400),
            "sched_arr_time": (sched_dep + 300) % 2400,
            TARGET: arr_delay,
            "carrier": rng.choice(carriers, rows),
            "flight": rng.integers(1, 8000, rows),
            "tailnum": rng.choice(tails, rows),
            "origin": rng.choice(origins, rows),
            "dest": rng.choice(dests, rows),
            "air_time": air_time,
            "distance": distance,
            "hour": hour,
            "minute": minute,
            "time_hour": stamps.dt.strftime("%Y-%m-%dT%H:00:00Z"),
        }
    )


def files(rows: int, extreme: int = 0) -> Dict[str, Path]:
    BUILD.mkdir(parents=True, exist_ok=True)
    stem = f"flights_like_{rows}" + (f"_extreme_{extreme}" if extreme else "")
    paths = {"csv": BUILD / f"{stem}.csv", "parquet": BUILD / f"{stem}.parquet"}
    if not all(path.exists() for path in paths.values()):
        table = flights_like(rows, extreme=extreme)
        table.to_csv(paths["csv"], index=False)
        table.to_parquet(paths["parquet"], index=False, row_group_size=65_536)
    return paths


def fresh(code: str, *args: str) -> float:
    """Seconds of ``code`` in a fresh interpreter, timed inside it (start-up and imports excluded)."""
    timed = (
        f"import time, sys\n{code.split('#body')[0]}\nstart = time.perf_counter()\n{code.split('#body')[1]}\n"
    )
    timed += "print(time.perf_counter() - start)"
    done = subprocess.run([sys.executable, "-c", timed, *args], capture_output=True, text=True, check=True)
    return float(done.stdout.strip().splitlines()[-1])


def reading(paths: Dict[str, Path], repeats: int) -> Dict[str, float]:
    csv, parquet = str(paths["csv"]), str(paths["parquet"])
    cases = {
        "pandas.read_csv": ("import pandas as pd\n#body\npd.read_csv(sys.argv[1])", csv),
        "pyarrow.csv.read_csv": ("import pyarrow.csv as pc\n#body\npc.read_csv(sys.argv[1])", csv),
        # the readers import pandas and pyarrow when first used: imported before the clock starts, as
        # for the whole-file readers
        "command reader, CSV": (
            "import pandas\nfrom quillmarsh.io import iter_table\n#body\n"
            "for b in iter_table(sys.argv[1], 10000): pass",
            csv,
        ),
        "command reader, Parquet": (
            "import pandas, pyarrow.parquet\nfrom quillmarsh.io import iter_table\n#body\n"
            "for b in iter_table(sys.argv[1], 10000): pass",
            parquet,
        ),
    }
    return {name: min(fresh(code, path) for _ in range(repeats)) for name, (code, path) in cases.items()}


def command(path: Path, *extra: str, keep: Any = None) -> Dict[str, Any]:
    with tempfile.TemporaryDirectory() as folder:
        if keep is not None:
            extra = (*extra, "--out", str(keep), "--overwrite")
        summary = os.path.join(folder, "summary.json")
        started = time.perf_counter()
        subprocess.run(
            [
                sys.executable,
                "-m",
                "quillmarsh",
                "--data",
                str(path),
                "--target",
                TARGET,
                "--coreset-size",
                str(M),
                "--k",
                str(K),
                "--quiet",
                "--summary-json",
                summary,
                *extra,
            ],
            check=True,
            capture_output=True,
            text=True,
        )
        wall = time.perf_counter() - started
        with open(summary, encoding="utf-8") as stream:
            result: Dict[str, Any] = json.load(stream)
    result["wall"] = wall
    return result


# -- regression quality -----------------------------------------------------------------------------


def regression_quality(saved: List[Path], csv: Path, seeds: int = 8) -> Dict[str, Any]:
    """Excess squared loss on all kept rows of the weighted least squares of a sample, against the least
    squares of all kept rows: the job's summaries (one per seed of the command, saved in ``saved``),
    one-shot coresets and uniform samples of their size. The features are standardised, as the job's
    judgement does: unscaled, a timestamp column 1e9 times the others' scale makes the least squares
    drop the one-hot columns as rounding."""
    from sklearn.linear_model import LinearRegression
    from sklearn.preprocessing import StandardScaler

    from quillmarsh import CoresetLinearRegression, CoresetTree
    from quillmarsh.core.coreset.sampling import sample_rows

    table = pd.read_csv(csv)
    kept = table[(np.arange(len(table)) % 10 != 9) & table[TARGET].notna()]
    summaries = []
    for folder in saved:
        with CoresetTree.load(folder / "tree") as tree:
            summaries.append(tree.coreset(1))  # the command's second coreset object is the regression's
            names = tree.feature_names_
            # every save has the same feature space: the stream's, learnt in the same order
            X = np.vstack(
                [
                    tree.transform(kept.iloc[i : i + CHUNK].drop(columns=[TARGET]))
                    for i in range(0, len(kept), CHUNK)
                ]
            )
    X = StandardScaler().fit_transform(X)
    y = kept[TARGET].to_numpy(dtype=np.float64)
    position = {row: i for i, row in enumerate(kept.index)}
    summary_rows = [np.array([position[row] for row in summary.ids]) for summary in summaries]
    numeric = [i for i, name in enumerate(names) if "=" not in name]
    m = summaries[0].ids.size
    out: Dict[str, Any] = {"m": m, "features": len(names), "numeric_features": len(numeric)}
    for space, columns in (("job's features", list(range(len(names)))), ("plain numeric columns", numeric)):
        Z = X[:, columns]
        best = ((y - LinearRegression().fit(Z, y).predict(Z)) ** 2).sum()

        def excess(rows: np.ndarray, weights: np.ndarray, Z: np.ndarray = Z, best: float = best) -> float:
            fitted = LinearRegression().fit(Z[rows], y[rows], sample_weight=weights)
            return float(((y - fitted.predict(Z)) ** 2).sum() / best - 1.0)

        sensitivities = CoresetLinearRegression(dtype="float64").compute_sensitivities(Z, y)
        one_shot = [excess(*sample_rows(sensitivities, m, random_state=seed)) for seed in range(seeds)]
        uniform = [
            excess(
                np.sort(np.random.default_rng(seed).choice(len(y), m, replace=False)), np.full(m, len(y) / m)
            )
            for seed in range(seeds)
        ]
        by_seed = [excess(rows, summary.weights) for rows, summary in zip(summary_rows, summaries)]
        out[space] = {
            "summary_by_seed": by_seed,
            "summary_median": float(np.median(by_seed)),
            "one_shot_mean": float(np.mean(one_shot)),
            "uniform_median": float(np.median(uniform)),
            "uniform_range": [float(np.min(uniform)), float(np.max(uniform))],
        }
    return out


# -- floors ----------------------------------------------------------------------------------------


def encoded_chunks(path: Path) -> Tuple[List[pd.DataFrame], List[np.ndarray], List[str]]:
    from quillmarsh import CoresetLinearRegression, CoresetTree

    table = pd.read_csv(path)
    table = table[table[TARGET].notna()]
    chunks = [table.iloc[i : i + CHUNK] for i in range(0, len(table), CHUNK)]
    with CoresetTree(CoresetLinearRegression(), coreset_size=M, chunk_size=CHUNK) as tree:
        for chunk in chunks:
            tree.add(chunk.drop(columns=[TARGET]), chunk[TARGET].to_numpy())
        encoded = [tree.transform(chunk.drop(columns=[TARGET])) for chunk in chunks]
        kinds = tree.feature_space_.kinds if tree.feature_space_ is not None else {}
    text = [name for name, kind in kinds.items() if kind == "categorical"]
    return chunks, encoded, text


def floor_preprocess(chunks: List[pd.DataFrame], text: List[str]) -> float:
    """Numbers converted and text one-hot encoded with pandas' and numpy's primitives."""
    started = time.perf_counter()
    for chunk in chunks:
        features = chunk.drop(columns=[TARGET])
        numeric = [c for c in features.columns if c not in text and c != "tailnum"]
        parts = [features[numeric].apply(pd.to_numeric, errors="coerce").to_numpy(dtype=np.float64)]
        for name in text:
            codes, uniques = pd.factorize(features[name])
            onehot = np.zeros((len(codes), len(uniques)))
            onehot[np.arange(len(codes)), codes] = 1.0
            parts.append(onehot)
        np.hstack(parts)
    return time.perf_counter() - started


def floor_factorisations(matrices: List[np.ndarray]) -> float:
    """The Gram matrix and its Cholesky factor (leverage), and k + n_iter + 1 distance products."""
    from scipy.linalg import cho_factor, solve_triangular

    started = time.perf_counter()
    for Z in matrices:
        gram = Z.T @ Z
        gram += 1e-6 * np.trace(gram) / len(gram) * np.eye(len(gram))  # constant and one-hot columns
        factor, lower = cho_factor(gram, check_finite=False)
        solve_triangular(factor, Z.T, trans="T", lower=lower, check_finite=False)
        centres = Z[:K]
        for _ in range(K + 3 + 1):
            Z @ centres.T
    return time.perf_counter() - started


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rows", type=int, default=336_776)
    parser.add_argument("--repeats", type=int, default=2)
    args = parser.parse_args()
    paths = files(args.rows)
    out: Dict[str, Any] = {"rows": args.rows, "reading": reading(paths, args.repeats)}
    print("reading", json.dumps(out["reading"]), flush=True)
    builds = [command(paths["csv"], "--no-eval") for _ in range(args.repeats)]
    build = min(builds, key=lambda r: r["wall"])
    # judged without --out, as the build: with it, the second pass also collects the summaries' rows;
    # the best of as many runs as the build, so that both sides of the ratio are taken alike
    judgements = [command(paths["csv"]) for _ in range(args.repeats)]
    judged = min(judgements, key=lambda r: r["seconds"]["evaluation"])
    saved = BUILD / "main_job_out"
    seeded = [BUILD / f"main_job_seed_{seed}" for seed in range(1, 5)]
    for seed, folder in enumerate([saved, *seeded]):
        command(paths["csv"], "--no-eval", "--seed", str(seed), keep=folder)
    jobs = command(paths["csv"], "--no-eval", "--jobs", "2")
    extreme = command(files(args.rows, extreme=30)["csv"])
    parquet = command(paths["parquet"], "--no-eval")
    chunks, encoded, text = encoded_chunks(paths["csv"])
    unions = [np.vstack([encoded[i][:M], encoded[i + 1][:M]]) for i in range(0, len(encoded) - 1, 2)]
    floors = {
        "read": out["reading"]["pandas.read_csv"],
        "preprocess": floor_preprocess(chunks, text),
        "sensitivities": floor_factorisations(encoded),
        "merges": floor_factorisations(unions) * 2,  # about as many merges as leaves, of 2 M rows
    }
    stages = {"read": build["seconds"]["read"], **build["seconds"]["build_stages"]}
    read_csv = out["reading"]["pandas.read_csv"]
    out.update(
        {
            "build_wall_s": build["wall"],
            "build_seconds": build["seconds"],
            "build_peak_rss_mb": build["peak_rss_mb"],
            "judged_wall_s": judged["wall"],
            "judged_seconds": judged["seconds"],
            "judged_peak_rss_mb": judged["peak_rss_mb"],
            "jobs_2_build_wall_s": jobs["wall"],
            "parquet_build_wall_s": parquet["wall"],
            # the job's own time (after start-up and imports, as for read_csv)
            "build_over_read_csv": build["seconds"]["total"] / read_csv,
            "evaluation_over_build": judged["seconds"]["evaluation"] / build["seconds"]["total"],
            "floors": floors,
            "stage_over_floor": {name: stages[name] / floors[name] for name in floors if floors[name] > 0},
            "quality": judged["quality"],
            "regression": regression_quality([saved, *seeded], paths["csv"]),
            "extreme_rows_kmeans": {
                row["method"]: row["cost_ratio"] for row in extreme["quality"] if row["model"] == "kmeans"
            },
        }
    )
    print(json.dumps({k: v for k, v in out.items() if k != "quality"}, indent=1))
    BUILD.mkdir(parents=True, exist_ok=True)
    (BUILD / "main_job.json").write_text(json.dumps(out, indent=1) + "\n")


if __name__ == "__main__":
    main()
