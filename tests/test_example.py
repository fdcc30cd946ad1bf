"""The example that streams a dataset through a chunk layer runs end to end on small inputs."""

import subprocess
import sys
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

EXAMPLE = Path(__file__).resolve().parents[1] / "examples" / "stream_chunks.py"


@pytest.fixture(scope="module")
def example():
    import importlib.util

    spec = importlib.util.spec_from_file_location("stream_chunks", EXAMPLE)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@pytest.mark.parametrize("jobs", [None, 2])
def test_synthetic_stream_is_cut_into_chunks_and_a_buffer_node(example, capsys, jobs):
    argv = ["--rows", "2350", "--batch-rows", "700", "--chunk-size", "500", "--features", "4"]
    if jobs:
        argv += ["--jobs", str(jobs)]
    summary = example.main(argv)
    out = capsys.readouterr().out
    assert summary["chunks"] == 4
    assert summary["rows"] == 2350
    assert summary["rows in the buffer node"] == 350
    assert summary["chunks rebuilt from storage"] == 2
    assert summary["coreset sizes (buffer node)"] != "-"
    # one progress line per chunk, numbered from 1, with the known total
    for number in range(1, 5):
        assert f"Completed chunk #{number} out of 4 chunks" in out
    assert "Summary" in out


def test_csv_input_with_a_categorical_column(example, tmp_path, capsys):
    rng = np.random.default_rng(1)
    frame = pd.DataFrame(
        {
            "size": rng.normal(size=120),
            "colour": rng.choice(["red", "green", "blue"], size=120),
            "price": rng.normal(size=120),
        }
    )
    path = tmp_path / "data.csv"
    frame.to_csv(path, index=False)
    summary = example.main(["--csv", str(path), "--target", "price", "--chunk-size", "50", "--quiet"])
    assert summary["chunks"] == 2
    assert summary["rows"] == 120
    assert summary["rows in the buffer node"] == 20
    assert "Completed chunk" not in capsys.readouterr().out


def test_saved_chunks_stay_in_the_storage_directory(example, tmp_path):
    from quillmarsh.data.manager import DataManager

    example.main(["--rows", "1200", "--chunk-size", "500", "--storage-dir", str(tmp_path), "--quiet"])
    reopened = DataManager(storage_dir=str(tmp_path))
    assert len(reopened.stored_node_ids(buffer=False)) == 2
    assert len(reopened.stored_node_ids(buffer=True)) == 1


def test_command_line_runs_from_a_fresh_process():
    result = subprocess.run(
        [sys.executable, str(EXAMPLE), "--rows", "3000", "--chunk-size", "1000", "--quiet"],
        capture_output=True, text=True, timeout=120, check=True,
    )
    assert "rows per second" in result.stdout
