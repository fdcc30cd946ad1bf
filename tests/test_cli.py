"""The ``quillmarsh`` command, run as a user runs it: in a fresh process, on small CSV and Parquet files.

Each test states what the command promises from the outside: its exit status, its one-line errors, the
summary it writes as JSON, and the folder it writes with ``--out``.
"""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Dict, List, Optional

import numpy as np
import pandas as pd
import pytest

pa = pytest.importorskip("pyarrow")
pq = pytest.importorskip("pyarrow.parquet")
pytest.importorskip("tqdm")

ROWS = 1500
SMALL = ["--coreset-size", "100", "--chunk-size", "300", "--batch-rows", "250", "--k", "4"]


def run(*args: str, cwd: Path, env: Optional[Dict[str, str]] = None,
        timeout: float = 180) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-m", "quillmarsh", *args], cwd=cwd, env=env,
                          capture_output=True, text=True, timeout=timeout)


def dirty_table(rows: int = ROWS) -> pd.DataFrame:
    """A table as they come: missing and text targets, free text, timestamps, a category that first
    appears late, a stray word in a numeric column, a column that never changes."""
    rng = np.random.default_rng(7)
    size = rng.normal(size=rows).round(4).astype(object)
    colour = rng.choice(["red", "green", "blue"], size=rows).astype(object)
    late = np.arange(rows) >= rows * 3 // 4
    colour[late & (rng.random(rows) < 0.4)] = "violet"
    when = pd.Timestamp("2024-03-01") + pd.to_timedelta(rng.integers(0, 86400 * 20, size=rows), unit="s")
    price = (2.0 * size.astype(float) + (colour == "violet") * 3.0 + rng.normal(scale=0.1, size=rows))
    price = price.round(4).astype(object)
    price[rng.random(rows) < 0.05] = None
    price[[10, 11]] = ["n/a", "inf"]
    size[20] = "oops"
    return pd.DataFrame({
        "size": size,
        "colour": colour,
        "when": when.strftime("%Y-%m-%d %H:%M:%S"),
        "comment": [f"free text {i}" for i in range(rows)],
        "year": 2024,
        "price": price,
    })


def expected_counts(frame: pd.DataFrame) -> Dict[str, int]:
    price = pd.to_numeric(frame["price"], errors="coerce").to_numpy(dtype=float)
    usable = np.isfinite(price)
    held = np.arange(len(frame)) % 10 == 9
    return {"read": len(frame), "held_out": int(held.sum()), "dropped": int((~usable & ~held).sum()),
            "kept": int((usable & ~held).sum())}


@pytest.fixture(scope="module")
def files(tmp_path_factory: pytest.TempPathFactory) -> Dict[str, Path]:
    folder = tmp_path_factory.mktemp("tables")
    frame = dirty_table()
    frame.to_csv(folder / "dirty.csv", index=False)
    clean = frame.copy()
    clean["size"] = pd.to_numeric(clean["size"], errors="coerce")
    clean["price"] = pd.to_numeric(clean["price"], errors="coerce")
    pq.write_table(pa.Table.from_pandas(clean, preserve_index=False), folder / "dirty.parquet",
                   row_group_size=400)
    return {"folder": folder, "csv": folder / "dirty.csv", "parquet": folder / "dirty.parquet"}


def one_error_line(result: subprocess.CompletedProcess[str]) -> str:
    lines = result.stderr.strip().splitlines()
    assert len(lines) == 1, result.stderr
    assert lines[0].startswith("quillmarsh: error: ")
    assert "Traceback" not in result.stderr
    return lines[0]


# Help, version, the installed command


def test_help_and_version_exit_0(tmp_path: Path) -> None:
    shown = run("--help", cwd=tmp_path)
    assert shown.returncode == 0
    for option in ("--data", "--csv", "--target", "--coreset-size", "--model", "--k", "--summary-json",
                   "--out", "--overwrite", "--plot", "--no-eval", "--jobs", "--chunk-size", "--batch-rows",
                   "--seed", "--quiet", "--verbose", "--max-text-values", "--dask"):
        assert option in shown.stdout
    version = run("--version", cwd=tmp_path)
    assert version.returncode == 0
    import quillmarsh

    assert version.stdout.strip() == f"quillmarsh {quillmarsh.__version__}"


def test_the_installed_script_is_the_same_command(tmp_path: Path) -> None:
    script = Path(sys.executable).parent / "quillmarsh"
    if not script.exists():
        pytest.skip("the package is not installed with its scripts in this environment")
    result = subprocess.run([str(script), "--version"], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0 and result.stdout.startswith("quillmarsh ")


# Runs


def test_synthetic_table_summarised_and_judged(tmp_path: Path) -> None:
    result = run("--rows", "4000", "--features", "4", *SMALL, "--quiet", "--summary-json", "run.json",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""  # --quiet: no bar
    summary = json.loads((tmp_path / "run.json").read_text())
    assert summary["rows"] == {"read": 4000, "held_out": 400, "dropped": 0, "dropped_reasons": {},
                               "kept": 3600}
    assert summary["leaves"] == 3600 // 300
    assert summary["summary_rows"] == {"kmeans": 100, "linear_regression": 100}
    for model in ("kmeans", "linear_regression"):
        assert summary["summary_weights"][model] == pytest.approx(3600, rel=0.15)
    assert set(summary["seconds"]) >= {"read", "build", "evaluation", "total"}
    assert summary["peak_rss_mb"]["end"] > 0
    quality = summary["quality"]
    for family in ("kmeans", "linear_regression"):
        rows = [row for row in quality if row["model"] == family]
        assert len(rows) == 4
        assert rows[0]["method"].startswith("full data") and rows[0]["cost_ratio"] == 1.0
        assert any(row["method"].startswith("coreset tree") for row in rows)
        assert any(row["method"].startswith("uniform sample") for row in rows)
        assert any(row["method"].startswith("streaming") for row in rows)
        for row in rows:
            assert row["seconds"] >= 0 and row["peak_memory_mb"] is not None and row["cost"] > 0
    regression = [row for row in quality if row["model"] == "linear_regression"]
    coreset = next(row for row in regression if row["method"].startswith("coreset tree"))
    # least squares minimises the loss on the rows it is judged on: nothing beats it, a good summary nears it
    assert all(row["cost_ratio"] >= 1.0 - 1e-9 for row in regression)
    assert coreset["cost_ratio"] < 1.2 and coreset["r2_held_out"] > 0.95
    assert "Quality" in result.stdout and "coreset tree" in result.stdout


@pytest.mark.parametrize("kind", ["csv", "parquet"])
def test_dirty_table_counts_notes_and_json(files: Dict[str, Path], tmp_path: Path, kind: str) -> None:
    result = run("--data", str(files[kind]), "--target", "price", *SMALL, "--max-text-values", "50",
                 "--quiet", "--summary-json", "run.json", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    summary = json.loads((tmp_path / "run.json").read_text())
    expected = expected_counts(dirty_table())
    rows = summary["rows"]
    assert {key: rows[key] for key in expected} == expected
    assert rows["dropped_reasons"] == {"target missing or not a number": expected["dropped"]}
    notes = " ".join(summary["notes"])
    assert "'comment' left out" in notes
    assert "constant" in notes and "year" in notes
    assert summary["features"] >= 6  # size, when, year and a one-hot column per colour


def test_one_model_and_no_evaluation(files: Dict[str, Path], tmp_path: Path) -> None:
    result = run("--data", str(files["csv"]), "--target", "price", *SMALL, "--model", "kmeans",
                 "--no-eval", "--quiet", "--summary-json", "run.json", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    summary = json.loads((tmp_path / "run.json").read_text())
    assert list(summary["summary_rows"]) == ["kmeans"]
    assert summary["quality"] == [] and summary["seconds"]["evaluation"] == 0


def test_progress_bar_over_bytes_on_stderr(files: Dict[str, Path], tmp_path: Path) -> None:
    env = dict(os.environ, TQDM_DELAY="0", TQDM_MININTERVAL="0")
    result = run("--csv", str(files["csv"]), "--target", "price", *SMALL, "--no-eval", cwd=tmp_path, env=env)
    assert result.returncode == 0, result.stderr
    assert "building" in result.stderr and "B/s" in result.stderr  # bytes, with a rate for the ETA


def test_plot_is_drawn(files: Dict[str, Path], tmp_path: Path) -> None:
    pytest.importorskip("matplotlib")
    result = run("--data", str(files["csv"]), "--target", "price", *SMALL, "--quiet", "--plot", "q.png",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    assert (tmp_path / "q.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


# --out


@pytest.mark.parametrize("kind", ["csv", "parquet"])
def test_out_round_trip(files: Dict[str, Path], tmp_path: Path, kind: str) -> None:
    out = tmp_path / "summary"
    result = run("--data", str(files[kind]), "--target", "price", *SMALL, "--no-eval", "--quiet",
                 "--out", str(out), cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    source = pd.read_csv(files["csv"]) if kind == "csv" else pd.read_parquet(files[kind])
    kept = expected_counts(dirty_table())["kept"]
    assert sorted(p.name for p in out.iterdir() if p.suffix == ".parquet") == [
        "coreset-kmeans.parquet", "coreset-linear_regression.parquet"]
    from quillmarsh import CoresetTree

    with CoresetTree.load(out / "tree") as tree:
        assert tree.n_samples_ == kept
        for index, model in enumerate(("kmeans", "linear_regression")):
            saved_rows = pd.read_parquet(out / f"coreset-{model}.parquet")
            assert sorted(tree.coreset(index).ids.tolist()) == sorted(saved_rows["row"].tolist())
        summary_row = int(tree.coreset(0).ids[0])
        assert tree.remove([summary_row]) == 1  # the saved tree kept its rows
        assert summary_row not in tree.coreset(0).ids
    for model in ("kmeans", "linear_regression"):
        saved = pd.read_parquet(out / f"coreset-{model}.parquet")
        assert list(saved.columns) == [*source.columns, "weight", "row"]
        assert len(saved) == 100 and saved["row"].is_unique
        assert (saved["row"] % 10 != 9).all()  # held-out rows never reach the summary
        assert (saved["weight"] > 0).all()
        assert saved["weight"].sum() == pytest.approx(kept, rel=0.15)
        at_row = source.iloc[saved["row"].to_numpy()].reset_index(drop=True)
        for column in ("colour", "when", "comment"):
            assert (saved[column].astype(str) == at_row[column].astype(str)).all()
        np.testing.assert_allclose(pd.to_numeric(saved["price"]), pd.to_numeric(at_row["price"]))
        assert np.isfinite(pd.to_numeric(saved["price"], errors="coerce")).all()
    assert not [p for p in tmp_path.iterdir() if p.name.startswith(".summary")]


def test_only_a_saved_tree_keeps_the_rows_of_its_chunks(files: Dict[str, Path], tmp_path: Path,
                                                        monkeypatch: pytest.MonkeyPatch) -> None:
    from quillmarsh import cli
    from quillmarsh.core.tree import coreset_tree

    kept: List[bool] = []

    class Recording(coreset_tree.CoresetTree):
        def __init__(self, *args: Any, **kwargs: Any) -> None:
            super().__init__(*args, **kwargs)
            kept.append(self.keep_rows)

    monkeypatch.setattr(coreset_tree, "CoresetTree", Recording)
    common = ["--data", str(files["csv"]), "--target", "price", *SMALL, "--no-eval", "--quiet"]
    assert cli.main(common) == 0
    assert cli.main([*common, "--out", str(tmp_path / "out")]) == 0
    assert kept == [False, True]


def test_out_not_empty_is_refused_then_replaced_with_overwrite(files: Dict[str, Path],
                                                               tmp_path: Path) -> None:
    out = tmp_path / "summary"
    out.mkdir()
    (out / "old.txt").write_text("an earlier run")
    args = ["--data", str(files["csv"]), "--target", "price", *SMALL, "--no-eval", "--quiet",
            "--out", str(out)]
    refused = run(*args, cwd=tmp_path)
    assert refused.returncode == 2
    assert "not empty" in one_error_line(refused)
    assert [p.name for p in out.iterdir()] == ["old.txt"]
    replaced = run(*args, "--overwrite", cwd=tmp_path)
    assert replaced.returncode == 0, replaced.stderr
    assert sorted(p.name for p in out.iterdir() if p.is_file()) == [
        "coreset-kmeans.parquet", "coreset-linear_regression.parquet"]
    assert sorted(p.name for p in tmp_path.iterdir()) == ["summary"]


def test_ctrl_c_exits_130_and_leaves_no_half_written_folder(tmp_path: Path) -> None:
    spill = tmp_path / "tmp"
    spill.mkdir()
    env = dict(os.environ, TMPDIR=str(spill))
    process = subprocess.Popen(
        [sys.executable, "-m", "quillmarsh", "--rows", "5000000", "--features", "4", "--quiet",
         "--out", str(tmp_path / "summary")],
        cwd=tmp_path, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        # Ctrl-C as a terminal gives it, also when the tests run where it is ignored (a background job)
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
    try:
        deadline = time.monotonic() + 60
        while not [p for p in tmp_path.iterdir() if p.name.startswith(".summary.partial-")]:
            assert process.poll() is None, process.communicate()
            assert time.monotonic() < deadline, "the run never started writing"
            time.sleep(0.05)
        time.sleep(1.0)  # well into the first pass
        assert process.poll() is None
        process.send_signal(signal.SIGINT)
        _, err = process.communicate(timeout=60)
    finally:
        if process.poll() is None:
            process.kill()
            process.communicate()
    assert process.returncode == 130
    assert "Traceback" not in err
    assert err.strip().splitlines()[-1] == "quillmarsh: error: interrupted"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["tmp"]
    assert list(spill.iterdir()) == []


# Bad input: one line on stderr, exit status 2


def bad_files(folder: Path) -> Dict[str, Path]:
    made = {"empty": folder / "empty.csv", "header": folder / "header.csv", "text": folder / "text.csv",
            "no_target": folder / "no_target.csv", "garbage": folder / "garbage.parquet",
            "parquet": folder / "other.parquet", "folder": folder / "folder.csv"}
    made["empty"].write_text("")
    made["header"].write_text("a,price\n")
    made["text"].write_text("a,price\n1,cheap\n2,dear\n3,cheap\n")
    made["no_target"].write_text("a,price\n" + "".join(f"{i},\n" for i in range(30)))
    made["garbage"].write_bytes(b"this is not parquet at all")
    pq.write_table(pa.table({"a": [1.0, 2.0], "b": [3.0, 4.0]}), made["parquet"])
    made["folder"].mkdir()
    return made


BAD_INPUT = [
    (["--data", "{folder}/missing.csv", "--target", "price"], "no such file"),
    (["--data", "{empty}", "--target", "price"], "is empty"),
    (["--data", "{header}", "--target", "price"], "no rows"),
    (["--data", "{folder_csv}", "--target", "price"], "is a folder"),
    (["--data", "{garbage}", "--target", "a"], "cannot be read as Parquet"),
    (["--data", "{csv}", "--target", "nope"], "'nope' is not a column"),
    (["--data", "{text}", "--target", "price"], "'price' is not numeric"),
    (["--data", "{csv}", "--target", "colour"], "'colour' is not numeric"),
    (["--data", "{no_target}", "--target", "price"], "missing in every row"),
    (["--data", "{parquet}", "--target", "price"], "'price' is not a column"),
    (["--data", "{csv}"], "needs --target"),
    (["--coreset-size", "0"], "--coreset-size: must be positive"),
    (["--batch-rows", "-5"], "--batch-rows: must be positive"),
    (["--chunk-size", "0"], "--chunk-size: must be positive"),
    (["--k", "0"], "--k: must be positive"),
    (["--jobs", "0"], "--jobs: must be positive"),
    (["--rows", "ten"], "--rows: not a whole number"),
    (["--model", "forest"], "--model: invalid choice"),
    (["--out", "{csv}"], "is not a folder"),
    (["--out", "{folder}/no/such/place"], "no folder"),
    (["--overwrite"], "--overwrite applies only with --out"),
    (["--summary-json", "{folder}/no/such/run.json"], "no folder"),
]


@pytest.mark.parametrize(("argv", "message"), BAD_INPUT, ids=[" ".join(a) for a, _ in BAD_INPUT])
def test_bad_input_gives_one_line_and_status_2(files: Dict[str, Path], tmp_path: Path, argv: List[str],
                                              message: str) -> None:
    made = bad_files(tmp_path)
    names: Dict[str, Any] = {key: value for key, value in made.items()}
    names.update(folder=tmp_path, csv=files["csv"], folder_csv=made["folder"])
    args = [part.format(**names) for part in argv]
    result = run(*args, "--quiet", cwd=tmp_path, timeout=60)
    assert result.returncode == 2, result.stderr
    assert message in one_error_line(result)
    assert result.stdout == ""


def test_a_folder_it_cannot_write_in_is_refused(files: Dict[str, Path], tmp_path: Path) -> None:
    locked = tmp_path / "locked"
    locked.mkdir()
    locked.chmod(0o500)
    try:
        if os.access(locked, os.W_OK):
            pytest.skip("this user writes in any folder (root)")
        result = run("--data", str(files["csv"]), "--target", "price", "--quiet", "--out",
                     str(locked / "summary"), cwd=tmp_path)
    finally:
        locked.chmod(0o700)
    assert result.returncode == 2
    assert "not writable" in one_error_line(result)


def test_a_dask_build_gives_the_summary_of_a_local_one(files: Dict[str, Path], tmp_path: Path) -> None:
    pytest.importorskip("distributed")
    summaries = {}
    for name, extra in (("local", []), ("dask", ["--dask", "local", "--jobs", "2"])):
        out = tmp_path / name
        result = run("--data", str(files["csv"]), "--target", "price", *SMALL, "--no-eval", "--quiet",
                     "--out", str(out), *extra, cwd=tmp_path)
        assert result.returncode == 0, result.stderr
        summaries[name] = pd.read_parquet(out / "coreset-linear_regression.parquet")
    pd.testing.assert_frame_equal(summaries["local"], summaries["dask"])
