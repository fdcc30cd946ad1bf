"""The main job, end to end: streaming a dirty table into coresets, saving them, judging them, and
telling the user in one line what is wrong with their input."""

import contextlib
import subprocess
import sys
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

from quillmarsh.io import load_coresets

# The example draws its progress bar with tqdm and its picture with matplotlib.
pytest.importorskip("tqdm")
pytest.importorskip("matplotlib")

EXAMPLE = Path(__file__).resolve().parents[1] / "examples" / "stream_chunks.py"
ROWS = 1200


@pytest.fixture(scope="module")
def example():
    import importlib.util

    spec = importlib.util.spec_from_file_location("stream_chunks", EXAMPLE)
    module = importlib.util.module_from_spec(spec)
    sys.modules["stream_chunks"] = module  # its dataclasses look their module up there
    spec.loader.exec_module(module)
    return module


def write_dirty_csv(path: Path, rows: int = ROWS) -> dict:
    """A table as they come: missing and text targets, a free-text column, timestamps, a category that
    first appears late, text in a numeric column. Returns what the run should find."""
    rng = np.random.default_rng(7)
    size = rng.normal(size=rows).round(4).astype(object)
    colour = rng.choice(["red", "green", "blue"], size=rows).astype(object)
    late = np.arange(rows) >= rows * 3 // 4
    colour[late & (rng.random(rows) < 0.4)] = "violet"
    when = (pd.Timestamp("2024-03-01") + pd.to_timedelta(rng.integers(0, 86400 * 20, size=rows), unit="s"))
    price = (2.0 * size.astype(float) + (colour == "violet") * 3.0 + rng.normal(scale=0.1, size=rows))
    price = price.round(4).astype(object)
    missing_target = rng.random(rows) < 0.05
    price[missing_target] = None
    price[[10, 11]] = ["n/a", "inf"]  # a text and an infinite target
    size[20] = "oops"  # text in a numeric column
    frame = pd.DataFrame({
        "size": size,
        "colour": colour,
        "when": when.strftime("%Y-%m-%d %H:%M:%S"),
        "comment": [f"free text {i}" for i in range(rows)],
        "price": price,
    })
    frame.to_csv(path, index=False)
    held_out = np.arange(rows) % 10 == 9
    unusable = missing_target.copy()
    unusable[[10, 11]] = True
    return {"dropped": int((unusable & ~held_out).sum()), "kept": int((~unusable & ~held_out).sum())}


DIRTY_ARGS = ["--target", "price", "--chunk-size", "200", "--batch-rows", "150", "--max-text-values", "50",
              "--quiet"]


@pytest.mark.parametrize("jobs", [None, 2])
def test_synthetic_stream_is_cut_into_chunks_and_judged(example, capsys, jobs):
    argv = ["--rows", "2350", "--batch-rows", "700", "--chunk-size", "500", "--features", "4", "--quiet"]
    if jobs:
        argv += ["--jobs", str(jobs)]
    summary = example.main(argv)
    out = capsys.readouterr().out
    assert summary["rows read"] == 2350
    assert summary["rows held out for evaluation"] == 235
    assert summary["rows kept"] == 2115
    assert summary["chunks"] == 4 and summary["rows in the buffer node"] == 115
    assert summary["mode"] == ("parallel, 2 jobs" if jobs else "sequential")
    assert summary["linear regression R², full data"] > 0.9
    assert summary["linear regression quality ratio"] > 0.9
    assert 0.5 < summary["k-means quality ratio"] <= 1.0 + 1e-9
    assert summary["compression, k-means"] > 1 and summary["compression, linear regression"] > 1
    assert "Memory: about" in out and "Summary" in out


@pytest.mark.parametrize("jobs", [None, 2])
def test_dirty_csv_streams_end_to_end_and_round_trips(example, tmp_path, jobs):
    expected = write_dirty_csv(tmp_path / "dirty.csv")
    out = tmp_path / "coresets"
    argv = ["--csv", str(tmp_path / "dirty.csv"), *DIRTY_ARGS, "--out", str(out),
            "--plot", str(tmp_path / "quality.png")]
    if jobs:
        argv += ["--jobs", str(jobs)]
    summary = example.main(argv)
    assert summary["rows read"] == ROWS
    assert summary["rows dropped (unusable target)"] == expected["dropped"]
    assert summary["rows kept"] == expected["kept"]
    assert any("'comment'" in note and "left out" in note for note in summary["notes"])
    assert any("'size'" in note and "not numbers" in note for note in summary["notes"])
    assert summary["linear regression quality ratio"] > 0.9
    assert (tmp_path / "quality.png").stat().st_size > 0

    loaded = load_coresets(out)
    nodes = summary["chunks"] + (1 if summary["rows in the buffer node"] else 0)
    assert len(loaded) == 2 * nodes
    assert {c.model for c in loaded} == {"kmeans", "linear_regression"}
    names = loaded[0].feature_names
    # one feature space for every chunk: the timestamp is one number, the late category has its column
    assert names[:2] == ["size", "when"] and "colour=violet" in names
    assert not any(name.startswith("comment") or name.startswith("when=") for name in names)
    for coreset in loaded:
        assert coreset.feature_names == names and coreset.X.shape == (len(coreset.weights), len(names))
        assert np.isfinite(coreset.X).all() and np.isfinite(coreset.y).all() and (coreset.weights > 0).all()
    for model in ("kmeans", "linear_regression"):
        assert sum(c.rows for c in loaded if c.model == model) == expected["kept"]
    # a violet row of a late chunk is encoded in the shared column
    violet = names.index("colour=violet")
    assert any(c.X[:, violet].any() for c in loaded)


def test_both_modes_cut_the_same_chunks_and_build_alike_coresets(example, tmp_path):
    write_dirty_csv(tmp_path / "dirty.csv")
    for jobs in ("1", "2"):
        example.main(["--csv", str(tmp_path / "dirty.csv"), *DIRTY_ARGS, "--no-eval", "--jobs", jobs,
                      "--out", str(tmp_path / jobs)])
    sequential = sorted(load_coresets(tmp_path / "1"), key=lambda c: (int(c.ind[0]), c.model))
    parallel = sorted(load_coresets(tmp_path / "2"), key=lambda c: (int(c.ind[0]), c.model))
    assert [(c.model, c.rows) for c in sequential] == [(c.model, c.rows) for c in parallel]
    # Chunks of a parallel run may meet the stream's categories and means in another order, so a few
    # sensitivities differ; the chunks and most of the chosen rows are the same.
    for a, b in zip(sequential, parallel):
        assert len(np.intersect1d(a.ind, b.ind)) >= 0.8 * min(len(a.ind), len(b.ind))


def test_out_folder_is_refused_when_not_empty_and_replaced_with_overwrite(example, tmp_path, capsys):
    argv = ["--rows", "900", "--chunk-size", "300", "--quiet", "--no-eval", "--out", str(tmp_path)]
    example.main(argv)
    first = len(list(tmp_path.iterdir()))
    with pytest.raises(SystemExit) as stop:
        example.main(argv)
    assert stop.value.code != 0
    assert "not empty" in capsys.readouterr().err
    example.main(argv + ["--overwrite"])
    assert len(list(tmp_path.iterdir())) == first  # no files pile up


def run_failing(example, capsys, argv):
    with pytest.raises(SystemExit) as stop:
        example.main(argv)
    err = capsys.readouterr().err
    assert stop.value.code not in (0, None)
    lines = err.strip().splitlines()
    assert len(lines) == 1, err
    return lines[0]


@pytest.mark.parametrize(
    "argv, message",
    [
        (["--chunk-size", "-5"], "--chunk-size must be a positive"),
        (["--chunk-size", "0"], "--chunk-size must be a positive"),
        (["--batch-rows", "0"], "--batch-rows must be a positive"),
        (["--jobs", "0"], "--jobs must be a positive"),
        (["--csv", "x.csv"], "--csv needs --target"),
        (["--csv", "x.csv", "--target", "y", "--rows", "10"], "--rows applies to synthetic data only"),
        (["--target", "y"], "--target applies to --csv input only"),
        (["--overwrite"], "--overwrite applies only with --out"),
        (["--no-eval", "--plot", "p.png"], "--plot needs the comparison"),
        (["--rows", "many"], "invalid int value"),
        (["--storage-dir", "x"], "unrecognized arguments"),
    ],
)
def test_bad_options_give_one_line(example, capsys, argv, message):
    assert message in run_failing(example, capsys, argv)


def test_bad_files_give_one_line(example, tmp_path, capsys):
    missing = tmp_path / "missing.csv"
    assert "no such file" in run_failing(example, capsys, ["--csv", str(missing), "--target", "y"])
    empty = tmp_path / "empty.csv"
    empty.write_text("")
    assert "is empty" in run_failing(example, capsys, ["--csv", str(empty), "--target", "y"])
    header = tmp_path / "header.csv"
    header.write_text("a,y\n")
    assert "no rows" in run_failing(example, capsys, ["--csv", str(header), "--target", "y", "--quiet"])
    table = tmp_path / "table.csv"
    pd.DataFrame({"a": [1.0, 2.0], "y": ["cat", "dog"]}).to_csv(table, index=False)
    assert "is not a column" in run_failing(example, capsys, ["--csv", str(table), "--target", "price"])
    assert "holds text, not numbers" in run_failing(example, capsys, ["--csv", str(table), "--target", "y"])


@pytest.mark.parametrize("jobs", ["1", "2"])
def test_a_failing_chunk_stops_the_run_with_the_same_message_in_both_modes(example, tmp_path, capsys, jobs):
    rows = 1000
    y = np.arange(rows, dtype=float)
    y[200:400] = np.nan  # the second chunk (of the rows fed to the layer) has no usable target
    pd.DataFrame({"a": np.arange(rows) * 0.5, "y": y}).to_csv(tmp_path / "t.csv", index=False)
    line = run_failing(example, capsys, ["--csv", str(tmp_path / "t.csv"), "--target", "y", "--chunk-size",
                                         "180", "--batch-rows", "100", "--quiet", "--jobs", jobs])
    assert "chunk #2" in line and "no row has a usable" in line and "'y'" in line
    assert "pool task" not in line


def test_progress_bar_on_stderr_and_module_lines_with_verbose(example, capsys, monkeypatch):
    monkeypatch.setattr(example, "PROGRESS_DELAY", 0.0)
    example.main(["--rows", "1000", "--chunk-size", "400", "--no-eval"])
    captured = capsys.readouterr()
    assert "rows" in captured.err and "Completed chunk" not in captured.out
    example.main(["--rows", "1000", "--chunk-size", "400", "--no-eval", "--verbose"])
    assert "Completed chunk #1 out of 2 chunks" in capsys.readouterr().out


def test_command_line_runs_from_a_fresh_process(tmp_path):
    result = subprocess.run(
        [sys.executable, str(EXAMPLE), "--rows", "3000", "--chunk-size", "1000", "--quiet"],
        capture_output=True, text=True, timeout=120, check=True,
    )
    assert "rows per second" in result.stdout
    failed = subprocess.run(
        [sys.executable, str(EXAMPLE), "--csv", str(tmp_path / "nope.csv"), "--target", "y"],
        capture_output=True, text=True, timeout=120,
    )
    assert failed.returncode == 1 and "Traceback" not in failed.stderr
    assert failed.stderr.strip().count("\n") == 0 and "no such file" in failed.stderr


# Cluster mode (--dask): the same job, its chunks built on the worker processes of a Dask cluster.


def free_local_port() -> int:
    import socket

    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


SCHEDULER = """
import logging, sys
from distributed import LocalCluster
with LocalCluster(n_workers=int(sys.argv[1]), threads_per_worker=1, processes=False, protocol="tcp",
                  host="127.0.0.1", dashboard_address=None, silence_logs=logging.CRITICAL) as cluster:
    print(cluster.scheduler_address, flush=True)
    sys.stdin.read()
"""


@contextlib.contextmanager
def running_scheduler(workers):
    """A scheduler (with ``workers`` worker threads) in a process of its own, as a user would have one."""
    pytest.importorskip("distributed")
    process = subprocess.Popen([sys.executable, "-W", "ignore", "-c", SCHEDULER, str(workers)],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        address = process.stdout.readline().strip()
        assert address.startswith("tcp://127.0.0.1:"), address
        yield address
    finally:
        process.stdin.close()
        try:
            process.wait(timeout=60)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@pytest.fixture(scope="module")
def scheduler():
    """The address of a running scheduler with one worker, for --dask ADDRESS."""
    with running_scheduler(1) as address:
        yield address


def nodes_of(loaded):
    """Each node's rows and its coresets' sample indices, by model, from a saved folder."""
    nodes = {}
    for coreset in loaded:
        nodes.setdefault(coreset.node_id, {})[coreset.model] = coreset
    return nodes


def test_cluster_run_cuts_the_chunks_of_one_process_and_saves_every_leaf_once(example, tmp_path):
    pytest.importorskip("distributed")
    expected = write_dirty_csv(tmp_path / "dirty.csv")
    argv = ["--csv", str(tmp_path / "dirty.csv"), *DIRTY_ARGS]
    alone = example.main(argv + ["--no-eval", "--out", str(tmp_path / "alone")])
    summary = example.main(argv + ["--dask", "local", "--jobs", "2", "--out", str(tmp_path / "cluster"),
                                   "--plot", str(tmp_path / "quality.png")])
    assert summary["mode"] == "Dask, local cluster of 2 worker processes" and summary["workers"] == 2
    assert summary["partitions"] == 2  # 1,080 rows fed, in partitions of at least 4 x 200
    for key in ("rows read", "rows held out for evaluation", "rows dropped (unusable target)", "rows kept",
                "chunks", "rows in the buffer node", "features (processed)"):
        assert summary[key] == alone[key], key
    assert summary["rows kept"] == expected["kept"] and summary["chunks"] == 5
    assert summary["rows in the buffer node"] == 80
    # the time is split into reading (and scattering), waiting for the cluster and the last layer here
    split = [summary[key] for key in ("time reading and scattering (s)", "time building on the cluster (s)",
                                      "time in the client's last layer (s)")]
    assert min(split) >= 0 and sum(split) <= summary["time incl. reading (s)"] + 0.01
    assert summary["time on the workers, summed (s)"] > 0
    assert any("feature space of its own" in note for note in summary["notes"])
    # the comparison is made in one feature space, as in one process
    assert summary["linear regression quality ratio"] > 0.9
    assert 0.5 < summary["k-means quality ratio"] <= 1.0 + 1e-9
    assert (tmp_path / "quality.png").stat().st_size > 0

    alone_nodes = nodes_of(load_coresets(tmp_path / "alone"))
    cluster_nodes = nodes_of(load_coresets(tmp_path / "cluster"))
    assert len(cluster_nodes) == len(alone_nodes) == 6  # five chunks and the buffer node
    # as cut, every chunk holds 200 rows and the buffer node 80, as in one process; the rows kept (those
    # with a usable target) add up to the same
    assert sorted(n["kmeans"].extra["chunk_rows"] for n in cluster_nodes.values()) == [80] + [200] * 5
    for nodes in (alone_nodes, cluster_nodes):
        for model in ("kmeans", "linear_regression"):
            assert sum(n[model].rows for n in nodes.values()) == expected["kept"]
    # every leaf's coresets hold its own rows: no sample index is chosen by two leaves
    for model in ("kmeans", "linear_regression"):
        chosen = np.concatenate([n[model].ind for n in cluster_nodes.values()])
        assert len(np.unique(chosen)) == len(chosen)
        assert not (chosen % 10 == 9).any()  # held-out rows never reach the cluster
    # where each leaf was built: a partition's worker, or the client's last layer (the buffer node)
    places = [n["kmeans"].extra["partition"] for n in cluster_nodes.values()]
    assert set(places) <= {1, 2, "client"} and "client" in places
    names = next(iter(cluster_nodes.values()))["kmeans"].feature_names
    assert names[:2] == ["size", "when"] and "colour=violet" in names
    for node in cluster_nodes.values():
        for coreset in node.values():
            assert coreset.feature_names == names and np.isfinite(coreset.X).all()


def test_cluster_run_on_a_running_scheduler(example, scheduler, tmp_path):
    argv = ["--rows", "2350", "--batch-rows", "700", "--chunk-size", "500", "--features", "4", "--quiet"]
    alone = example.main(argv + ["--no-eval"])
    summary = example.main(argv + ["--dask", scheduler, "--no-eval", "--out", str(tmp_path)])
    assert summary["mode"] == f"Dask, scheduler {scheduler}, 1 worker" and summary["workers"] == 1
    assert summary["chunks"] == alone["chunks"] == 4
    assert summary["rows in the buffer node"] == alone["rows in the buffer node"] == 115
    assert summary["partitions"] == 1  # 2,115 rows fed: fewer than 4 chunks' worth after the first 3 batches
    saved = load_coresets(tmp_path)
    assert sum(c.rows for c in saved if c.model == "linear_regression") == 2115


def test_a_failing_partition_is_named_with_the_workers_error(example, scheduler, tmp_path, capsys):
    rows = 1000
    y = np.arange(rows, dtype=float)
    y[200:400] = np.nan  # the second chunk of the first partition has no usable target
    pd.DataFrame({"a": np.arange(rows) * 0.5, "y": y}).to_csv(tmp_path / "t.csv", index=False)
    line = run_failing(example, capsys, ["--csv", str(tmp_path / "t.csv"), "--target", "y", "--chunk-size",
                                         "180", "--batch-rows", "100", "--quiet", "--dask", scheduler])
    assert line.startswith("stream_chunks.py: error: partition #1 of 2 (sample indices 0 to 798) failed on "
                           "its worker: ValueError: ")


def test_an_unreachable_scheduler_is_told_after_a_bounded_wait(example, capsys, monkeypatch):
    pytest.importorskip("distributed")
    monkeypatch.setattr(example, "CONNECT_TIMEOUT", 1.0)
    address = f"tcp://127.0.0.1:{free_local_port()}"  # nothing listens there
    line = run_failing(example, capsys, ["--rows", "1000", "--quiet", "--dask", address])
    assert f"--dask {address}: no scheduler answered within 1 s" in line
    line = run_failing(example, capsys, ["--rows", "1000", "--quiet", "--dask", "nowhere://x"])
    assert "--dask nowhere://x: not a scheduler address" in line


def test_a_scheduler_without_workers_is_told_after_a_bounded_wait(example, capsys, monkeypatch):
    monkeypatch.setattr(example, "CONNECT_TIMEOUT", 1.0)
    with running_scheduler(0) as address:
        line = run_failing(example, capsys, ["--rows", "1000", "--quiet", "--dask", address])
    assert f"--dask {address}: the scheduler has no worker (waited 1 s)" in line


@pytest.mark.parametrize(
    "argv, message",
    [
        (["--dask", ""], "--dask needs 'local' or the address"),
        (["--dask", "tcp://127.0.0.1:8786", "--jobs", "2"], "--jobs applies to --dask local only"),
        (["--dask", "local", "--verbose"], "--verbose applies without --dask only"),
        (["--dask", "local", "--jobs", "0"], "--jobs must be a positive"),
    ],
)
def test_options_that_do_not_apply_to_a_cluster_give_one_line(example, capsys, argv, message):
    assert message in run_failing(example, capsys, argv)


def test_cluster_errors_are_one_line_from_a_fresh_process(tmp_path):
    pytest.importorskip("distributed")
    rows = 600
    y = np.arange(rows, dtype=float)
    y[:150] = np.nan  # the first chunk has no usable target
    pd.DataFrame({"a": np.arange(rows) * 0.5, "y": y}).to_csv(tmp_path / "t.csv", index=False)
    failed = subprocess.run(
        [sys.executable, str(EXAMPLE), "--csv", str(tmp_path / "t.csv"), "--target", "y", "--chunk-size",
         "100", "--quiet", "--dask", "local", "--jobs", "1"],
        capture_output=True, text=True, timeout=120,
    )
    assert failed.returncode == 1, failed.stderr
    assert failed.stderr.strip().count("\n") == 0, failed.stderr  # no worker log, no traceback
    assert "partition #1 of 1 (sample indices 0 to 598) failed on its worker" in failed.stderr


def test_a_failing_last_layer_on_the_client_gives_one_line(example, scheduler, tmp_path, capsys):
    rows = 1000
    y = np.arange(rows, dtype=float)
    y[860:] = np.nan  # the rows left over after the last full chunk have no usable target
    pd.DataFrame({"a": np.arange(rows) * 0.5, "y": y}).to_csv(tmp_path / "t.csv", index=False)
    line = run_failing(example, capsys, ["--csv", str(tmp_path / "t.csv"), "--target", "y", "--chunk-size",
                                         "200", "--quiet", "--no-eval", "--dask", scheduler])
    assert "the client's last layer (the rows the partitions left over) could not be built" in line
