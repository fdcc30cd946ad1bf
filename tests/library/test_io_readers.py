"""Tables read in batches: CSV and Parquet by suffix, rows numbered across batches, clear errors."""

from __future__ import annotations

import os
import threading
import time
from pathlib import Path
from typing import Iterator, List, Type

import numpy as np
import pandas as pd
import pytest

from quillmarsh.io import TableReader, iter_table, read_ahead

pa = pytest.importorskip("pyarrow")
pq = pytest.importorskip("pyarrow.parquet")


def table(rows: int = 23) -> pd.DataFrame:
    rng = np.random.default_rng(rows)
    return pd.DataFrame({
        "a": rng.normal(size=rows),
        "b": np.arange(rows, dtype=np.int64) * 3,
        "city": [f"c{i % 4}" for i in range(rows)],
        "price": rng.normal(size=rows) * 100,
    })


def write_csv(path: Path, frame: pd.DataFrame) -> Path:
    frame.to_csv(path, index=False)
    return path


def write_parquet(path: Path, frame: pd.DataFrame, row_group_size: int) -> Path:
    pq.write_table(pa.Table.from_pandas(frame, preserve_index=False), path, row_group_size=row_group_size)
    return path


def read_all(reader: TableReader) -> List[pd.DataFrame]:
    return list(reader)


def test_csv_in_batches_with_running_row_positions(tmp_path: Path) -> None:
    frame = table()
    path = write_csv(tmp_path / "t.csv", frame)
    reader = iter_table(path, batch_rows=5)
    assert reader.format == "csv" and reader.columns == ["a", "b", "city", "price"]
    assert reader.size_bytes == os.path.getsize(path)
    batches = read_all(reader)
    assert [len(b) for b in batches] == [5, 5, 5, 5, 3]
    for batch in batches:
        assert isinstance(batch.index, pd.RangeIndex) and batch.index.name == "row"
    joined = pd.concat(batches)
    assert joined.index.tolist() == list(range(23))
    pd.testing.assert_frame_equal(joined.reset_index(drop=True), frame, check_exact=False)
    assert reader.rows_read == 23


def test_csv_bytes_read_grow_to_the_file_size(tmp_path: Path) -> None:
    frame = table(5_000)
    path = write_csv(tmp_path / "big.csv", frame)
    reader = iter_table(path, batch_rows=500)
    seen = []
    for _ in reader:
        seen.append(reader.bytes_read)
    assert seen == sorted(seen) and 0 < seen[0] <= reader.size_bytes
    assert reader.bytes_read == reader.size_bytes


def test_csv_selected_columns_and_second_pass(tmp_path: Path) -> None:
    frame = table()
    path = write_csv(tmp_path / "t.csv", frame)
    reader = iter_table(str(path), batch_rows=10, columns=["price", "a"])
    assert reader.columns == ["a", "price"]  # the file's order
    first = pd.concat(read_all(reader))
    second = pd.concat(read_all(reader))
    pd.testing.assert_frame_equal(first, second)
    assert list(first.columns) == ["a", "price"] and first.index.tolist() == list(range(23))
    np.testing.assert_allclose(first["price"].to_numpy(), frame["price"].to_numpy())


def test_parquet_one_row_group_at_a_time(tmp_path: Path) -> None:
    frame = table()
    path = write_parquet(tmp_path / "t.parquet", frame, row_group_size=7)
    reader = iter_table(path, batch_rows=5)
    assert reader.format == "parquet" and reader.num_rows == 23
    sizes, progress = [], []
    batches = []
    for batch in reader:
        batches.append(batch)
        sizes.append(len(batch))
        progress.append(reader.bytes_read)
    # groups of 7, 7, 7 and 2 rows, each cut into batches of at most 5
    assert sizes == [5, 2, 5, 2, 5, 2, 2]
    assert progress == sorted(progress) and progress[0] < reader.size_bytes
    assert reader.bytes_read == reader.size_bytes == os.path.getsize(path)
    joined = pd.concat(batches)
    assert joined.index.tolist() == list(range(23))
    pd.testing.assert_frame_equal(joined.reset_index(drop=True), frame)


def test_parquet_selected_columns(tmp_path: Path) -> None:
    frame = table()
    path = write_parquet(tmp_path / "t.pq", frame, row_group_size=10)
    joined = pd.concat(read_all(iter_table(path, batch_rows=100, columns=["city", "b"])))
    assert list(joined.columns) == ["b", "city"]
    assert joined["city"].tolist() == frame["city"].tolist()


def test_parquet_written_with_a_pandas_index(tmp_path: Path) -> None:
    frame = table().set_index("city")
    path = tmp_path / "indexed.parquet"
    frame.to_parquet(path, row_group_size=10)
    reader = iter_table(path, batch_rows=4)
    assert reader.columns == ["a", "b", "price"]
    joined = pd.concat(read_all(reader))
    assert joined.index.tolist() == list(range(23))
    np.testing.assert_array_equal(joined["b"].to_numpy(), frame["b"].to_numpy())


def test_parquet_without_a_requested_column(tmp_path: Path) -> None:
    path = write_parquet(tmp_path / "t.parquet", table(), row_group_size=10)
    with pytest.raises(ValueError, match="no column 'target'") as caught:
        iter_table(path, batch_rows=5, columns=["a", "target"])
    assert "\n" not in str(caught.value)


def test_csv_without_a_requested_column(tmp_path: Path) -> None:
    path = write_csv(tmp_path / "t.csv", table())
    with pytest.raises(ValueError, match="no column 'target'"):
        iter_table(path, batch_rows=5, columns=["target"])


def one_line_error(exc_type: Type[Exception], path: Path) -> str:
    with pytest.raises(exc_type) as caught:
        iter_table(path, batch_rows=5)
    message = str(caught.value)
    assert message and "\n" not in message
    return message


def test_missing_file(tmp_path: Path) -> None:
    assert "no such file" in one_line_error(FileNotFoundError, tmp_path / "absent.csv")
    assert "no such file" in one_line_error(FileNotFoundError, tmp_path / "absent.parquet")


def test_empty_file(tmp_path: Path) -> None:
    for name in ("empty.csv", "empty.parquet"):
        (tmp_path / name).write_bytes(b"")
        assert "is empty" in one_line_error(ValueError, tmp_path / name)


def test_unknown_suffix(tmp_path: Path) -> None:
    path = tmp_path / "table.xlsx"
    path.write_text("a,b\n1,2\n")
    assert "unknown table format (.xlsx)" in one_line_error(ValueError, path)


def test_folder(tmp_path: Path) -> None:
    folder = tmp_path / "folder.csv"
    folder.mkdir()
    assert "is a folder" in one_line_error(ValueError, folder)


def test_header_without_rows(tmp_path: Path) -> None:
    path = tmp_path / "header.csv"
    path.write_text("a,b,price\n")
    assert "no rows" in one_line_error(ValueError, path)
    empty = write_parquet(tmp_path / "none.parquet", table().iloc[:0], row_group_size=10)
    assert "no rows" in one_line_error(ValueError, empty)


def test_blank_csv_has_no_header(tmp_path: Path) -> None:
    path = tmp_path / "blank.csv"
    path.write_text("\n\n")
    assert "no CSV header" in one_line_error(ValueError, path)


def test_not_a_parquet_file(tmp_path: Path) -> None:
    path = tmp_path / "text.parquet"
    path.write_text("a,b\n1,2\n")
    assert "cannot be read as Parquet" in one_line_error(ValueError, path)


@pytest.mark.skipif(hasattr(os, "geteuid") and os.geteuid() == 0, reason="root reads any file")
def test_unreadable_file(tmp_path: Path) -> None:
    path = write_csv(tmp_path / "locked.csv", table())
    path.chmod(0)
    try:
        assert "cannot be read" in one_line_error(ValueError, path)
    finally:
        path.chmod(0o644)


def test_text_that_is_not_utf8(tmp_path: Path) -> None:
    path = tmp_path / "latin.csv"
    path.write_bytes(b"a,b\n\xff\xfe\xfa,1\n")
    assert "cannot be read as CSV" in one_line_error(ValueError, path)


def test_malformed_line_later_in_the_csv(tmp_path: Path) -> None:
    path = tmp_path / "bad.csv"
    path.write_text("a,b\n" + "1,2\n" * 50 + '"1,2\n' + "1,2\n" * 5)  # a quote never closed
    reader = iter_table(path, batch_rows=10)
    with pytest.raises(ValueError, match="cannot be read as CSV") as caught:
        read_all(reader)
    assert "\n" not in str(caught.value)


@pytest.mark.parametrize("batch_rows", [0, -3, 2.5, True])
def test_batch_rows_must_be_positive(tmp_path: Path, batch_rows: object) -> None:
    path = write_csv(tmp_path / "t.csv", table())
    with pytest.raises(ValueError, match="batch_rows"):
        iter_table(path, batch_rows=batch_rows)  # type: ignore[arg-type]


# Reading ahead on a thread


class RecordingStream:
    """A stream of numbered items that records how far it was read, on which thread, and its closing."""

    def __init__(self, n: int, fail_at: int = -1) -> None:
        self.n, self.fail_at = n, fail_at
        self.made: List[int] = []
        self.threads: set = set()
        self.closed = False

    def __iter__(self) -> Iterator[int]:
        try:
            for number in range(self.n):
                if number == self.fail_at:
                    raise ValueError(f"item {number} cannot be read")
                self.threads.add(threading.get_ident())
                self.made.append(number)
                yield number
        finally:
            self.closed = True


def test_read_ahead_yields_every_item_in_order_made_on_another_thread() -> None:
    stream = RecordingStream(50)
    assert list(read_ahead(stream)) == list(range(50))
    assert stream.closed and stream.threads and threading.get_ident() not in stream.threads


@pytest.mark.parametrize("depth", [1, 3])
def test_read_ahead_makes_at_most_depth_items_ahead(depth: int) -> None:
    stream = RecordingStream(40)
    ahead = []
    for taken, item in enumerate(read_ahead(stream, depth=depth)):
        assert item == taken
        time.sleep(0.005)  # time for the thread to run ahead as far as it may
        ahead.append(len(stream.made) - (taken + 1))
    assert max(ahead) <= depth + 1  # those waiting, and the one being made
    assert max(ahead) >= 1  # it did read ahead


def test_read_ahead_raises_the_stream_s_error_after_the_items_before_it() -> None:
    stream = RecordingStream(10, fail_at=4)
    taken = []
    with pytest.raises(ValueError, match="item 4 cannot be read"):
        for item in read_ahead(stream):
            taken.append(item)
    assert taken == [0, 1, 2, 3] and stream.closed


def test_leaving_read_ahead_early_stops_its_thread_and_closes_the_stream() -> None:
    stream = RecordingStream(10**6)
    items = read_ahead(stream, depth=2)
    assert [next(items) for _ in range(3)] == [0, 1, 2]

    def reading() -> List[threading.Thread]:  # other tests' threads may come and go meanwhile
        return [thread for thread in threading.enumerate() if thread.name == "quillmarsh-read-ahead"]

    assert len(reading()) == 1
    items.close()
    assert stream.closed and len(stream.made) <= 3 + 3
    assert reading() == []
    with pytest.raises(ValueError, match="depth"):
        next(read_ahead([1], depth=0))
