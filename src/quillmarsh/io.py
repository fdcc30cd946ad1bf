"""Saving coresets to a folder and loading them back.

A folder holds one ``manifest.json`` and one ``.npz`` file per coreset. The manifest lists, for every
coreset, the node it was built on, the rows of that node, the model family, the coreset parameters, the
feature names and the file; each file holds the arrays ``X`` (the coreset's rows, encoded), ``y``,
``weights`` and ``ind`` (the rows' sample indices). Nothing is pickled: the folder can be read by any
numpy and any JSON reader.

    from quillmarsh.io import load_coresets
    for coreset in load_coresets("out"):
        print(coreset.node_id, coreset.model, coreset.X.shape, coreset.weights.sum())

Reading a table in batches of rows, CSV or Parquet by the file's suffix, with the bytes read so far for a
progress bar:

    from quillmarsh.io import iter_table
    table = iter_table("data.parquet", batch_rows=25_000)
    for batch in table:          # pandas DataFrames; batch.index is each row's 0-based position
        print(batch.index[0], len(batch), table.bytes_read, "of", table.size_bytes)
"""

from __future__ import annotations

import importlib
import json
import os
import queue
import re
import shutil
import tempfile
import threading
import warnings
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import (
    IO,
    TYPE_CHECKING,
    Any,
    Dict,
    Generator,
    Iterable,
    Iterator,
    List,
    Literal,
    Optional,
    Sequence,
    Tuple,
    TypeVar,
    Union,
)

import numpy as np

from quillmarsh.validation import check_positive_int

if TYPE_CHECKING:
    import pandas as pd

MANIFEST = "manifest.json"
FORMAT = "quillmarsh-coresets"
VERSION = 1

PathLike = Union[str, "os.PathLike[str]"]
T = TypeVar("T")

__all__ = [
    "SpilledBatches",
    "StoredCoreset",
    "TableReader",
    "atomic_folder",
    "iter_table",
    "load_coresets",
    "read_ahead",
    "rows_at",
    "save_coresets",
    "write_parquet",
]


@dataclass
class StoredCoreset:
    """One coreset of one node: weighted rows that stand for the node's rows for one model family.

    Parameters
    ----------
    node_id : str
        The node's id.
    rows : int
        The rows the node kept after preprocessing (what the coreset stands for).
    model : str
        The model family ("kmeans", "linear_regression", ...).
    parameters : dict
        The coreset's parameters (JSON values).
    feature_names : list of str
        The names of the columns of ``X``.
    X : ndarray of shape (n_coreset_rows, len(feature_names))
        Floats, one row per coreset row.
    y : ndarray of shape (n_coreset_rows,) or None
        The targets.
    weights : ndarray of shape (n_coreset_rows,)
        One weight per row.
    ind : ndarray of shape (n_coreset_rows,)
        The rows' sample indices.
    extra : dict, default={}
        Further JSON values saved with the coreset.

    Raises
    ------
    ValueError
        If the arrays do not have one entry per coreset row, or ``X`` not one column per name.
    """

    node_id: str
    rows: int
    model: str
    parameters: Dict[str, Any]
    feature_names: List[str]
    X: np.ndarray
    y: np.ndarray | None
    weights: np.ndarray
    ind: np.ndarray
    extra: Dict[str, Any] = field(default_factory=dict)

    def __post_init__(self) -> None:
        """Check that the arrays agree in length and ``X`` with the names."""
        n = len(self.weights)
        if np.ndim(self.X) != 2 or len(self.X) != n or len(self.ind) != n:
            raise ValueError(f"X, weights and ind must have one entry per coreset row ({n})")
        if np.shape(self.X)[1] != len(self.feature_names):
            raise ValueError(f"X has {np.shape(self.X)[1]} columns for {len(self.feature_names)} names")
        if self.y is not None and len(self.y) != n:
            raise ValueError(f"y has {len(self.y)} entries for {n} coreset rows")


def _file_name(number: int, coreset: StoredCoreset) -> str:
    safe = re.sub(r"[^A-Za-z0-9._-]", "_", f"{coreset.node_id}-{coreset.model}")[:80]
    return f"coreset-{number:05d}-{safe}.npz"


def save_coresets(directory: PathLike, coresets: Sequence[StoredCoreset], overwrite: bool = False) -> str:
    """Write ``coresets`` to ``directory`` (created if needed) and return the manifest's path.

    The manifest is written last, so a folder that has one is complete.

    Parameters
    ----------
    directory : str or os.PathLike
        The folder.
    coresets : sequence of StoredCoreset
        The coresets, in the order ``load_coresets`` returns them.
    overwrite : bool, default=False
        Whether a folder that is not empty is accepted; then the files of an earlier save there (its
        manifest and the files it lists) are removed first, and other files are left alone.

    Returns
    -------
    str
        The path of the manifest.

    Raises
    ------
    FileExistsError
        If the folder is not empty and ``overwrite`` is false.
    NotADirectoryError
        If ``directory`` is a file.
    """
    directory = os.fspath(directory)
    if os.path.exists(directory) and not os.path.isdir(directory):
        raise NotADirectoryError(f"{directory} is not a folder")
    os.makedirs(directory, exist_ok=True)
    manifest_path = os.path.join(directory, MANIFEST)
    if os.listdir(directory):
        if not overwrite:
            raise FileExistsError(f"{directory} is not empty")
        if os.path.exists(manifest_path):
            with open(manifest_path, encoding="utf-8") as stream:
                old = json.load(stream)
            for entry in old.get("coresets", []):
                path = os.path.join(directory, os.path.basename(entry["file"]))
                if os.path.exists(path):
                    os.remove(path)
            os.remove(manifest_path)
    entries = []
    for number, coreset in enumerate(coresets):
        name = _file_name(number, coreset)
        arrays = {"X": np.asarray(coreset.X, dtype=np.float64), "weights": np.asarray(coreset.weights),
                  "ind": np.asarray(coreset.ind)}
        if coreset.y is not None:
            arrays["y"] = np.asarray(coreset.y)
        np.savez(os.path.join(directory, name), **arrays)  # type: ignore[arg-type]  # numpy's stubs
        entries.append({
            "node_id": str(coreset.node_id),
            "rows": int(coreset.rows),
            "model": coreset.model,
            "parameters": coreset.parameters,
            "coreset_rows": len(coreset.weights),
            "feature_names": list(coreset.feature_names),
            "file": name,
            **({"extra": coreset.extra} if coreset.extra else {}),
        })
    manifest = {"format": FORMAT, "version": VERSION, "coresets": entries}
    tmp = manifest_path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as stream:
        json.dump(manifest, stream, indent=1)
    os.replace(tmp, manifest_path)  # the manifest comes last: a folder with one is complete
    return manifest_path


def load_coresets(directory: PathLike) -> List[StoredCoreset]:
    """Load the coresets that ``save_coresets`` wrote to ``directory``, in the order they were saved.

    Parameters
    ----------
    directory : str or os.PathLike
        The folder.

    Returns
    -------
    list of StoredCoreset
        The coresets.

    Raises
    ------
    FileNotFoundError
        When the folder has no manifest, or a file it lists is missing.
    ValueError
        When the manifest is not one this version reads.
    """
    directory = os.fspath(directory)
    manifest_path = os.path.join(directory, MANIFEST)
    with open(manifest_path, encoding="utf-8") as stream:
        manifest = json.load(stream)
    known = isinstance(manifest, dict) and manifest.get("format") == FORMAT
    if not known or manifest.get("version") != VERSION:
        raise ValueError(f"{manifest_path} is not a coreset manifest of version {VERSION}")
    loaded = []
    for entry in manifest["coresets"]:
        with np.load(os.path.join(directory, os.path.basename(entry["file"])), allow_pickle=False) as data:
            loaded.append(StoredCoreset(
                node_id=entry["node_id"],
                rows=int(entry["rows"]),
                model=entry["model"],
                parameters=dict(entry["parameters"]),
                feature_names=list(entry["feature_names"]),
                X=data["X"],
                y=data["y"] if "y" in data.files else None,
                weights=data["weights"],
                ind=data["ind"],
                extra=dict(entry.get("extra", {})),
            ))
    return loaded


# Reading tables in batches of rows.

CSV_SUFFIXES = (".csv",)
PARQUET_SUFFIXES = (".parquet", ".pq")


def _one_line(exc: BaseException) -> str:
    return " ".join(str(exc).split()) or type(exc).__name__


def _table_format(path: str) -> str:
    lowered = path.lower()
    if lowered.endswith(CSV_SUFFIXES):
        return "csv"
    if lowered.endswith(PARQUET_SUFFIXES):
        return "parquet"
    known = ", ".join(CSV_SUFFIXES + PARQUET_SUFFIXES)
    suffix = os.path.splitext(path)[1] or "no suffix"
    raise ValueError(f"{path}: unknown table format ({suffix}); expected one of {known}")


class TableReader:
    """A CSV or Parquet file read in batches of rows; see ``iter_table``.

    Every iteration reads the file afresh from its start, so a caller that needs two passes iterates
    twice. The attributes are valid from construction on.

    Parameters
    ----------
    path : str or os.PathLike
        The file.
    batch_rows : int
        The most rows of a batch.
    columns : sequence of str, optional
        Read only these columns (kept in the file's order). All columns by default.
    format : {"csv", "parquet"}, optional
        Read the file in this format whatever its suffix (by default the suffix decides).

    Attributes
    ----------
    path : str
        The file.
    format : {"csv", "parquet"}
        Chosen by the file's suffix, unless given.
    columns : list of str
        The columns every batch holds, in the file's order (only the requested ones when ``columns``
        was given).
    size_bytes : int
        The file's size in bytes.
    bytes_read : int
        Bytes of the file consumed by the current (or last) iteration: the position of the CSV reader in
        the file, or the compressed size of the Parquet row groups read so far (plus its footer). It
        reaches ``size_bytes`` when an iteration ends, so it can drive a progress bar over bytes.
    rows_read : int
        Data rows yielded by the current (or last) iteration.
    num_rows : int or None
        The file's data rows when known without reading it (Parquet), else None.

    Raises
    ------
    FileNotFoundError
        When the file does not exist.
    ValueError
        As listed for ``iter_table``.
    """

    def __init__(self, path: PathLike, batch_rows: int, columns: Optional[Sequence[str]] = None,
                 format: Optional[str] = None) -> None:
        self.path = os.fspath(path)
        check_positive_int(batch_rows, "batch_rows")
        self.batch_rows = int(batch_rows)
        if columns is not None and (isinstance(columns, str) or not all(isinstance(c, str) for c in columns)):
            raise ValueError("columns must be a list of column names")
        if format is not None and format not in ("csv", "parquet"):
            raise ValueError(f"format must be 'csv' or 'parquet', got {format!r}")
        self.format = format if format is not None else _table_format(self.path)
        if not os.path.exists(self.path):
            raise FileNotFoundError(f"{self.path}: no such file")
        if os.path.isdir(self.path):
            raise ValueError(f"{self.path} is a folder, not a {self.format.upper()} file")
        if not os.access(self.path, os.R_OK):
            raise ValueError(f"{self.path} cannot be read: permission denied")
        self.size_bytes = os.path.getsize(self.path)
        if self.size_bytes == 0:
            raise ValueError(f"{self.path} is empty")
        self.bytes_read = 0
        self.rows_read = 0
        self.num_rows: Optional[int] = None
        self._requested = None if columns is None else list(columns)
        self._handle: Optional[IO[bytes]] = None
        self._parquet_read = 0
        if self.format == "csv":
            self.columns = self._check_csv()
        else:
            self.columns = self._check_parquet()

    # CSV

    def _check_csv(self) -> List[str]:
        import pandas as pd

        try:
            head = pd.read_csv(self.path, nrows=1, engine="c")
        except pd.errors.EmptyDataError:
            raise ValueError(f"{self.path} holds no CSV header") from None
        except (pd.errors.ParserError, UnicodeDecodeError, OSError) as exc:
            raise ValueError(f"{self.path} cannot be read as CSV: {_one_line(exc)}") from None
        names = [str(c) for c in head.columns]
        chosen = self._chosen(names)
        if len(head) == 0:
            raise ValueError(f"{self.path} has a header but no rows")
        return chosen

    def _iter_csv(self) -> Iterator[pd.DataFrame]:
        import pandas as pd

        usecols = None if self._requested is None else self.columns
        try:
            with open(self.path, "rb") as handle:
                self._handle = handle
                reader = pd.read_csv(handle, chunksize=self.batch_rows, engine="c", usecols=usecols)
                with reader:
                    while True:
                        with warnings.catch_warnings():
                            # A column of mixed types within a batch: the caller's feature space sorts
                            # out the values, so pandas' advice to set a dtype does not apply.
                            warnings.simplefilter("ignore", pd.errors.DtypeWarning)
                            batch = next(reader, None)
                        if batch is None:
                            break
                        batch.columns = [str(c) for c in batch.columns]
                        if usecols is not None:
                            batch = batch[self.columns]
                        self._update_csv_position()
                        yield self._numbered(batch)
        except (pd.errors.ParserError, UnicodeDecodeError) as exc:
            raise ValueError(f"{self.path} cannot be read as CSV: {_one_line(exc)}") from None
        finally:
            self._handle = None
        self.bytes_read = self.size_bytes

    def _update_csv_position(self) -> None:
        handle = self._handle
        try:
            if handle is not None:
                self.bytes_read = min(self.size_bytes, handle.tell())
        except (ValueError, OSError):  # a closed handle: the reading is over
            pass

    # Parquet

    def _parquet_file(self) -> Any:
        parquet: Any = importlib.import_module("pyarrow.parquet")
        try:
            return parquet.ParquetFile(self.path)
        except Exception as exc:  # pyarrow's ArrowInvalid and friends: a file that is not Parquet
            raise ValueError(f"{self.path} cannot be read as Parquet: {_one_line(exc)}") from None

    def _check_parquet(self) -> List[str]:
        parquet_file = self._parquet_file()
        schema = parquet_file.schema_arrow
        # A table written from pandas may store its index as columns: those are not data columns.
        index_columns = {name for name in (schema.pandas_metadata or {}).get("index_columns", [])
                         if isinstance(name, str)}
        names = [str(name) for name in schema.names if name not in index_columns]
        chosen = self._chosen(names)
        self.num_rows = int(parquet_file.metadata.num_rows)
        if self.num_rows == 0:
            raise ValueError(f"{self.path} has no rows")
        return chosen

    def _iter_parquet(self) -> Iterator[pd.DataFrame]:
        parquet_file = self._parquet_file()
        metadata = parquet_file.metadata
        groups = metadata.num_row_groups
        sizes = [sum(int(metadata.row_group(g).column(c).total_compressed_size)
                     for c in range(metadata.num_columns)) for g in range(groups)]
        footer = max(0, self.size_bytes - sum(sizes))  # header, footer and metadata
        self.bytes_read = 0
        for group in range(groups):
            try:
                table = parquet_file.read_row_group(group, columns=self.columns)
            except Exception as exc:  # a damaged row group
                raise ValueError(f"{self.path} cannot be read as Parquet (row group {group}): "
                                 f"{_one_line(exc)}") from None
            self.bytes_read = min(self.size_bytes, footer + sum(sizes[: group + 1]))
            for start in range(0, table.num_rows, self.batch_rows):
                piece = table.slice(start, self.batch_rows).to_pandas()
                piece.columns = [str(c) for c in piece.columns]
                yield self._numbered(piece[self.columns])
            del table
        self.bytes_read = self.size_bytes

    # Both

    def _chosen(self, names: List[str]) -> List[str]:
        if self._requested is None:
            return names
        missing = [c for c in self._requested if c not in names]
        if missing:
            raise ValueError(f"{self.path} has no column {', '.join(repr(c) for c in missing)} "
                             f"(columns: {', '.join(names)})")
        wanted = set(self._requested)
        return [name for name in names if name in wanted]

    def _numbered(self, batch: pd.DataFrame) -> pd.DataFrame:
        import pandas as pd

        batch.index = pd.RangeIndex(self.rows_read, self.rows_read + len(batch), name="row")
        self.rows_read += len(batch)
        return batch

    def __iter__(self) -> Iterator[pd.DataFrame]:
        """Return a new iteration over the file's batches, from its start."""
        self.rows_read = 0
        self.bytes_read = 0
        if self.format == "csv":
            return self._iter_csv()
        return self._iter_parquet()

    def __repr__(self) -> str:
        """Return the reader's path, batch size and format."""
        return f"TableReader({self.path!r}, batch_rows={self.batch_rows}, format={self.format!r})"


def iter_table(path: PathLike, batch_rows: int, columns: Optional[Sequence[str]] = None,
               format: Optional[str] = None) -> TableReader:
    """Read a CSV or Parquet file in batches of at most ``batch_rows`` rows.

    Parameters
    ----------
    path : str or os.PathLike
        A ``.csv`` file (read by pandas' C parser, ``batch_rows`` rows at a time) or a ``.parquet`` /
        ``.pq`` file (read by pyarrow one row group at a time, each cut into batches of ``batch_rows``
        rows; a batch never spans two row groups).
    batch_rows : int
        The most rows of a batch.
    columns : sequence of str, optional
        Read only these columns (kept in the file's order). All columns by default.
    format : {"csv", "parquet"}, optional
        Read the file in this format whatever its suffix (by default the suffix decides).

    Returns
    -------
    TableReader
        An iterable of pandas DataFrames. Each DataFrame's index is a ``RangeIndex`` named ``row`` that
        continues across batches: a row's 0-based position among the file's data rows. Iterating again
        reads the file again. ``size_bytes`` and ``bytes_read`` tell the progress over bytes.

    Raises
    ------
    FileNotFoundError
        When the file does not exist.
    ValueError
        When the suffix is not a known one; the path is a folder, cannot be read, is empty, has no
        header or no data rows, or is not a valid CSV or Parquet file; ``columns`` names a column the
        file lacks; or ``batch_rows`` is not a positive integer. A damaged part found later, while
        iterating, also raises ``ValueError``. Every message is one line.

    Notes
    -----
    Memory holds one batch for CSV and one row group for Parquet (plus the batch cut from it), never
    the whole file.
    """
    return TableReader(path, batch_rows, columns, format)


_END = object()


def read_ahead(batches: Iterable[T], depth: int = 1) -> Generator[T, None, None]:
    """Yield the items of ``batches`` in order, each made on a background thread while the last is used.

    Reading and parsing a batch (pandas' parser works without the interpreter's lock) then overlap
    with whatever the caller does with the batch before. At most ``depth`` items wait, made and not
    yet taken: memory holds ``depth + 2`` batches at most (the one in use, those waiting and the one
    being made), however long the stream.

    Parameters
    ----------
    batches : iterable
        The stream, iterated on the background thread only.
    depth : int, default=1
        Items made ahead of the caller, at most.

    Yields
    ------
    object
        The items of ``batches``. An exception raised by the stream is raised here, after the items
        before it.

    Raises
    ------
    ValueError
        If ``depth`` is not a positive integer.

    Notes
    -----
    Leaving the loop early (``break``, an error, closing the generator) stops the thread after the item
    it is making and closes the stream, before this generator finishes.
    """
    check_positive_int(depth, "depth")
    waiting: queue.Queue[Tuple[bool, Any]] = queue.Queue(maxsize=depth)
    stop = threading.Event()

    def put(entry: Tuple[bool, Any]) -> bool:
        while not stop.is_set():
            try:
                waiting.put(entry, timeout=0.05)
                return True
            except queue.Full:
                continue
        return False

    def make() -> None:
        stream = iter(batches)
        try:
            for item in stream:
                if not put((True, item)):
                    return
            put((True, _END))
        except BaseException as exc:  # raised where the items are taken
            put((False, exc))
        finally:
            close = getattr(stream, "close", None)
            if close is not None:
                close()

    maker = threading.Thread(target=make, name="quillmarsh-read-ahead", daemon=True)
    maker.start()
    try:
        while True:
            made, item = waiting.get()
            if not made:
                raise item
            if item is _END:
                return
            yield item
            del item
    finally:
        stop.set()
        maker.join()


# Taking rows back by position, writing them, and folders that appear whole or not at all.


def rows_at(batches: Iterable[pd.DataFrame], positions: Any) -> pd.DataFrame:
    """Return the rows at ``positions`` of a stream of batches numbered by row, in one streamed pass.

    Parameters
    ----------
    batches : iterable of pandas.DataFrame
        Batches whose index holds each row's position (as ``iter_table`` numbers them).
    positions : array-like of int
        The positions wanted; repeated ones are returned once.

    Returns
    -------
    pandas.DataFrame
        The rows found, in the order of their positions, with the batches' columns and index. Only the
        rows wanted are kept from each batch, so memory holds one batch and the rows found.

    Raises
    ------
    ValueError
        When a position is not in the stream.
    """
    import pandas as pd

    wanted = np.unique(np.asarray(positions, dtype=np.int64))
    found: List[pd.DataFrame] = []
    columns: Optional[pd.Index] = None
    for batch in batches:
        columns = batch.columns
        index = np.asarray(batch.index, dtype=np.int64)
        if not len(index) or not len(wanted):
            continue
        hit = np.isin(index, wanted)
        if hit.any():
            found.append(batch[hit])
    if not found:
        frame = pd.DataFrame(columns=columns if columns is not None else [])
    else:
        frame = pd.concat(found) if len(found) > 1 else found[0]
    missing = np.setdiff1d(wanted, np.asarray(frame.index, dtype=np.int64))
    if missing.size:
        shown = ", ".join(str(int(p)) for p in missing[:5])
        raise ValueError(f"{missing.size} position(s) are not in the stream: {shown}")
    return frame.sort_index()


def _arrow_safe(frame: pd.DataFrame) -> pd.DataFrame:
    """Return the frame with text columns that mix text with numbers (batches read apart) as text."""
    out = frame.copy()
    for name in out.columns:
        column = out[name]
        if column.dtype != object:
            continue
        present = column.notna()
        kinds = {type(value) for value in column[present]}
        if len(kinds) > 1:
            out[name] = column.where(~present, column.astype(str))
    return out


def write_parquet(frame: pd.DataFrame, path: PathLike, index: bool = False) -> None:
    """Write a DataFrame to a Parquet file with pyarrow.

    A column read as text in some batches and as numbers in others (a CSV column with a stray word in
    one batch) mixes Python types; its present values are then written as text.

    Parameters
    ----------
    frame : pandas.DataFrame
        The table.
    path : str or os.PathLike
        The file to write.
    index : bool, default False
        Whether to store the frame's index as a column.
    """
    pa: Any = importlib.import_module("pyarrow")
    parquet: Any = importlib.import_module("pyarrow.parquet")
    table = pa.Table.from_pandas(_arrow_safe(frame), preserve_index=index)
    parquet.write_table(table, os.fspath(path))


@contextmanager
def atomic_folder(path: PathLike, overwrite: bool = False) -> Iterator[str]:
    """Fill a folder under a temporary name, renamed to ``path`` only when the block succeeds.

    The temporary folder is a sibling of ``path`` (same file system, so the rename is atomic). If the
    block raises (``KeyboardInterrupt`` included), it is removed and ``path`` is left as it was. On
    success an empty folder at ``path``, or with ``overwrite`` any earlier folder, is replaced.

    Parameters
    ----------
    path : str or os.PathLike
        The folder to make. Its parent must exist.
    overwrite : bool, default False
        Replace a folder at ``path`` that is not empty.

    Yields
    ------
    str
        The temporary folder to write into.

    Raises
    ------
    FileExistsError
        When ``path`` is a folder that is not empty and ``overwrite`` is false.
    NotADirectoryError
        When ``path`` exists and is not a folder.
    PermissionError, FileNotFoundError
        When the parent folder is missing or not writable.
    """
    target = os.path.abspath(os.fspath(path))
    _check_output_folder(target, overwrite)
    parent, name = os.path.split(target)
    try:
        work = tempfile.mkdtemp(prefix=f".{name}.partial-", dir=parent)
    except OSError as exc:
        raise PermissionError(f"{target}: cannot make a folder in {parent} ({exc.strerror})") from None
    try:
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(work, 0o777 & ~umask)  # a folder made as any other, not private as a temporary one
        yield work
        _check_output_folder(target, overwrite)  # it may have changed while the block ran
        old = None
        if os.path.exists(target):
            old = tempfile.mkdtemp(prefix=f".{name}.old-", dir=parent)
            os.rmdir(old)
            os.rename(target, old)
        os.rename(work, target)
        if old is not None:
            shutil.rmtree(old, ignore_errors=True)
    except BaseException:
        shutil.rmtree(work, ignore_errors=True)
        raise


def _check_output_folder(target: str, overwrite: bool) -> None:
    parent = os.path.dirname(target)
    if not os.path.isdir(parent):
        raise FileNotFoundError(f"{target}: no folder {parent}")
    if not os.access(parent, os.W_OK | os.X_OK):
        raise PermissionError(f"{target}: the folder {parent} is not writable")
    if os.path.lexists(target):
        if not os.path.isdir(target):
            raise NotADirectoryError(f"{target} is not a folder")
        if os.listdir(target) and not overwrite:
            raise FileExistsError(f"{target} is not empty")


class SpilledBatches:
    """Batches of numeric arrays written to a temporary folder, read back in order, any number of times.

    A stream that must be read many times (a reference fitted in several passes, then scored) is
    read and processed once; its processed batches are spilled to disk and every later pass reads them
    back one at a time, so memory holds one batch whatever the stream's length.

    Parameters
    ----------
    directory : str or os.PathLike, optional
        Where to make the temporary folder (the system's temporary folder by default).

    Attributes
    ----------
    n_batches : int
        Batches appended.
    n_rows : int
        Rows appended (the first dimension of each batch's arrays).
    nbytes : int
        Bytes of the arrays appended.
    folder : str
        The temporary folder; removed by ``close`` (or on leaving a ``with`` block).

    Examples
    --------
    >>> import numpy as np
    >>> from quillmarsh.io import SpilledBatches
    >>> with SpilledBatches() as spill:
    ...     spill.append(X=np.ones((3, 2)), y=np.zeros(3))
    ...     [batch["X"].shape for batch in spill]
    [(3, 2)]
    """

    def __init__(self, directory: Optional[PathLike] = None) -> None:
        self.folder = tempfile.mkdtemp(prefix="quillmarsh-spill-",
                                       dir=None if directory is None else os.fspath(directory))
        self.n_batches = 0
        self.n_rows = 0
        self.nbytes = 0
        self._names: Optional[List[str]] = None
        self._layouts: List[Dict[str, Tuple[Tuple[int, ...], np.dtype]]] = []  # per batch: shape, dtype

    def append(self, **arrays: np.ndarray) -> None:
        """Spill one batch: arrays by name, each with one entry per row (the same names every time).

        Parameters
        ----------
        **arrays : ndarray
            The batch's arrays by name.

        Raises
        ------
        ValueError
            If the names differ from the first batch's, or the arrays differ in length.
        """
        names = sorted(arrays)
        if self._names is None:
            self._names = names
        elif names != self._names:
            raise ValueError(f"every batch holds the arrays {self._names}, got {names}")
        lengths = {len(np.asarray(a)) for a in arrays.values()}
        if len(lengths) > 1:
            raise ValueError("the arrays of a batch must have one entry per row each")
        # One raw file an array, its shape and type kept here: read back mapped, with no header to
        # parse (a tenth of a millisecond an array, on every pass).
        folder = self._batch_folder(self.n_batches)
        os.mkdir(folder)
        layout = {}
        for name, values in arrays.items():
            values = np.asarray(values)
            if values.dtype.hasobject:
                raise ValueError(f"{name!r} holds objects: a spill holds numbers only")
            values.tofile(os.path.join(folder, name))
            layout[name] = (values.shape, values.dtype)
        self._layouts.append(layout)
        self.n_batches += 1
        self.n_rows += lengths.pop() if lengths else 0
        self.nbytes += sum(np.asarray(a).nbytes for a in arrays.values())

    def __iter__(self) -> Iterator[Dict[str, np.ndarray]]:
        """Yield the batches in order, one at a time, as dicts of read-only arrays by name."""
        for number in range(self.n_batches):
            yield self._read(number)

    def writable(self) -> Iterator[Dict[str, np.ndarray]]:
        """Yield the batches in order, as dicts of writable arrays mapped from their files, by name.

        What the caller writes into a batch's arrays is the spill's from then on: every later read
        gives it. The arrays keep their shape and type.

        Yields
        ------
        dict of str to numpy.ndarray
            Each batch's arrays, writable.
        """
        for number in range(self.n_batches):
            yield self._read(number, "r+")

    def _batch_folder(self, number: int) -> str:
        return os.path.join(self.folder, f"batch-{number:07d}")

    def _read(self, number: int, mode: Literal["r", "r+"] = "r") -> Dict[str, np.ndarray]:
        folder = self._batch_folder(number)
        batch = {}
        for name, (shape, dtype) in self._layouts[number].items():
            if 0 in shape:  # an empty file cannot be mapped
                values = np.empty(shape, dtype)
                values.flags.writeable = mode == "r+"
            else:
                # mapped from the file; the pages are the system's cache, shared, and go with the array
                values = np.memmap(os.path.join(folder, name), dtype=dtype, mode=mode, shape=shape)
            batch[name] = values
        return batch

    def __len__(self) -> int:
        """Return the number of batches appended."""
        return self.n_batches

    def close(self) -> None:
        """Remove the folder and its batches."""
        shutil.rmtree(self.folder, ignore_errors=True)

    def __enter__(self) -> SpilledBatches:
        """Return the spill, to be closed at the end of the ``with`` block."""
        return self

    def __exit__(self, *exc_info: object) -> None:
        """Remove the folder (see ``close``)."""
        self.close()
