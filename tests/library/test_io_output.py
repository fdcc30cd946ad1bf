"""Rows taken back by position, Parquet written from mixed batches, spilled batches, atomic folders."""

from __future__ import annotations

import os
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

from quillmarsh.io import SpilledBatches, atomic_folder, iter_table, rows_at, write_parquet

pq = pytest.importorskip("pyarrow.parquet")


def test_rows_at_takes_the_rows_at_their_positions_in_one_pass(tmp_path: Path) -> None:
    frame = pd.DataFrame({"a": np.arange(50) * 1.5, "b": [f"t{i}" for i in range(50)]})
    frame.to_csv(tmp_path / "t.csv", index=False)
    found = rows_at(iter_table(tmp_path / "t.csv", batch_rows=7), [41, 3, 3, 0, 49])
    assert found.index.tolist() == [0, 3, 41, 49]
    pd.testing.assert_frame_equal(found.reset_index(drop=True),
                                  frame.iloc[[0, 3, 41, 49]].reset_index(drop=True))


def test_rows_at_refuses_positions_beyond_the_stream(tmp_path: Path) -> None:
    frame = pd.DataFrame({"a": np.arange(5.0)})
    frame.to_csv(tmp_path / "t.csv", index=False)
    with pytest.raises(ValueError, match="not in the stream: 7"):
        rows_at(iter_table(tmp_path / "t.csv", batch_rows=2), [1, 7])


def test_write_parquet_writes_a_column_of_text_and_numbers_as_text(tmp_path: Path) -> None:
    """A CSV column read as numbers in one batch and as text (a stray word) in another."""
    mixed = pd.concat([pd.DataFrame({"a": pd.Series([1.5, 2.5], dtype=object)}),
                       pd.DataFrame({"a": pd.Series(["oops", None], dtype=object)})])
    write_parquet(mixed, tmp_path / "m.parquet")
    column = pd.read_parquet(tmp_path / "m.parquet")["a"]
    assert column[:3].tolist() == ["1.5", "2.5", "oops"] and pd.isna(column.iloc[3])


def test_spilled_batches_come_back_in_order_any_number_of_times() -> None:
    with SpilledBatches() as spill:
        folder = spill.folder
        for start in (0, 3, 6):
            spill.append(X=np.arange(start, start + 3, dtype=float)[:, None], held=np.array([0, 1, 0], bool))
        assert (spill.n_batches, spill.n_rows) == (3, 9)
        spill.append(X=np.empty((0, 1)), held=np.empty(0, bool))  # a batch without rows
        for _ in range(2):
            X = np.concatenate([batch["X"] for batch in spill])
            assert X[:, 0].tolist() == list(range(9))
        last = list(spill)[-1]
        assert last["X"].shape == (0, 1) and last["held"].dtype == bool
        first = next(iter(spill))
        assert first["held"].tolist() == [False, True, False] and not first["X"].flags.writeable
        with pytest.raises(ValueError, match="every batch holds"):
            spill.append(X=np.ones((1, 1)))
    assert not os.path.exists(folder)


def test_what_is_written_into_a_spill_s_batches_is_read_back_later() -> None:
    with SpilledBatches() as spill:
        for start in (0, 3, 6):
            spill.append(X=np.arange(start, start + 3, dtype=float)[:, None], y=np.zeros(3))
        for batch in spill.writable():
            assert batch["X"].flags.writeable
            np.multiply(batch["X"], 10.0, out=batch["X"])
        for _ in range(2):
            values = np.concatenate([batch["X"][:, 0] for batch in spill])
            assert values.tolist() == [10.0 * i for i in range(9)]
        assert [batch["y"].shape for batch in spill] == [(3,)] * 3


def test_atomic_folder_appears_whole_or_not_at_all(tmp_path: Path) -> None:
    target = tmp_path / "out"
    with pytest.raises(RuntimeError):
        with atomic_folder(target) as work:
            Path(work, "half.txt").write_text("half")
            raise RuntimeError("failed midway")
    assert list(tmp_path.iterdir()) == []
    with atomic_folder(target) as work:
        Path(work, "whole.txt").write_text("whole")
        assert not target.exists()
    assert [p.name for p in target.iterdir()] == ["whole.txt"]
    assert [p.name for p in tmp_path.iterdir()] == ["out"]


def test_atomic_folder_refuses_a_folder_that_is_not_empty_unless_overwriting(tmp_path: Path) -> None:
    target = tmp_path / "out"
    target.mkdir()
    (target / "old.txt").write_text("old")
    with pytest.raises(FileExistsError, match="not empty"):
        with atomic_folder(target):
            pass
    with atomic_folder(target, overwrite=True) as work:
        Path(work, "new.txt").write_text("new")
    assert [p.name for p in target.iterdir()] == ["new.txt"]
    assert [p.name for p in tmp_path.iterdir()] == ["out"]
    (tmp_path / "file").write_text("")
    with pytest.raises(NotADirectoryError):
        with atomic_folder(tmp_path / "file"):
            pass
    with pytest.raises(FileNotFoundError, match="no folder"):
        with atomic_folder(tmp_path / "missing" / "out"):
            pass
